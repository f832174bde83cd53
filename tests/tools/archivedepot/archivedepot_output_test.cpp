// The client's building blocks: JSON output, property values by tag name, HRESULT names,
// command-line options and property assignments.
#include <gtest/gtest.h>

#include "args.h"
#include "client_test_util.h"
#include "commands.h"
#include "mapicode.h"
#include "mapiclient.h"
#include "mapitags.h"
#include "output.h"

namespace adcli {
namespace {

using clienttest::JsonValue;
using clienttest::ParseJson;

TEST(ClientJson, EscapesTextSoTheDocumentStaysWellFormed) {
  EXPECT_EQ(JsonQuote("plain"), "\"plain\"");
  EXPECT_EQ(JsonQuote("a\"b\\c"), "\"a\\\"b\\\\c\"");
  EXPECT_EQ(JsonQuote("l1\nl2\tx\r"), "\"l1\\nl2\\tx\\r\"");
  EXPECT_EQ(JsonQuote(std::string("\x01\x1f", 2)), "\"\\u0001\\u001f\"");
  EXPECT_EQ(JsonQuote("caf\xC3\xA9"), "\"caf\xC3\xA9\"");  // valid UTF-8 passes through
  EXPECT_EQ(JsonQuote("bad\xFF\xC3"), "\"bad\\ufffd\\ufffd\"");
  EXPECT_EQ(JsonQuote("\xC0\xAF"), "\"\\ufffd\\ufffd\"");  // overlong form of '/'
  EXPECT_EQ(JsonQuote("\xED\xA0\x80"), "\"\\ufffd\\ufffd\\ufffd\"");  // a UTF-16 surrogate
}

TEST(ClientJson, NestedDocumentsParseBack) {
  Json doc = Json::Object();
  doc.Set("name", Json::Str("x\"y"));
  doc.Set("n", Json::Int(-42));
  doc.Set("ok", Json::Boolean(true));
  doc.Set("none", Json());
  doc.Set("empty", Json::Array());
  Json& list = doc.Set("list", Json::Array());
  list.Push(Json::Object()).Set("k", Json::Real(1.5));
  list.Push(Json::Str("second"));
  doc.Set("n", Json::Int(7));  // setting a member again replaces it
  JsonValue v = ParseJson(doc.Dump());
  ASSERT_EQ(v.kind, JsonValue::Object);
  EXPECT_EQ(v.members.size(), 6u);
  EXPECT_EQ(v["name"].text, "x\"y");
  EXPECT_EQ(v["n"].number, 7);
  EXPECT_TRUE(v["ok"].b);
  EXPECT_EQ(v["none"].kind, JsonValue::Null);
  EXPECT_TRUE(v["empty"].items.empty());
  ASSERT_EQ(v["list"].items.size(), 2u);
  EXPECT_EQ(v["list"].items[0]["k"].number, 1.5);
  EXPECT_EQ(v["list"].items[1].text, "second");
  EXPECT_EQ(Json::Real(0.0 / 0.0).GetKind(), Json::Kind::Null);  // NaN has no JSON form
}

TEST(ClientOutput, NamesHResults) {
  EXPECT_EQ(HResultText(MAPI_E_NOT_FOUND), "0x8004010F MAPI_E_NOT_FOUND");
  EXPECT_EQ(HResultText(MAPI_E_LOGON_FAILED), "0x80040111 MAPI_E_LOGON_FAILED");
  EXPECT_EQ(HResultText(MAPI_E_INVALID_PARAMETER), "0x80070057 MAPI_E_INVALID_PARAMETER");
  EXPECT_EQ(HResultText(static_cast<HRESULT>(0x80041234)), "0x80041234");
  EXPECT_EQ(HResultName(static_cast<HRESULT>(0x80041234)), nullptr);
}

TEST(ClientOutput, RendersValuesByTypeAndTagName) {
  SPropValue v{};
  v.ulPropTag = PR_DISPLAY_NAME_A;
  v.Value.lpszA = const_cast<char*>("Store \"One\"");
  EXPECT_EQ(TagName(v.ulPropTag), "PR_DISPLAY_NAME");
  EXPECT_EQ(ValueText(v), "Store \"One\"");
  EXPECT_EQ(ParseJson(ValueJson(v).Dump()).text, "Store \"One\"");

  v.ulPropTag = PR_DISPLAY_NAME_W;
  std::u16string wide = u"Wide \u00e9";
  v.Value.lpszW = reinterpret_cast<LPWSTR>(wide.data());
  EXPECT_EQ(TagName(v.ulPropTag), "PR_DISPLAY_NAME_W");
  EXPECT_EQ(ValueText(v), "Wide \xC3\xA9");

  v.ulPropTag = PR_RESOURCE_FLAGS;
  v.Value.l = 17;
  EXPECT_EQ(ValueText(v), "17");
  EXPECT_EQ(ParseJson(ValueJson(v).Dump()).number, 17);

  v.ulPropTag = PR_DEFAULT_STORE;
  v.Value.b = 1;
  EXPECT_EQ(ValueText(v), "true");

  BYTE bytes[] = {0x00, 0xAB, 0x10};
  v.ulPropTag = PR_RECORD_KEY;
  v.Value.bin.cb = 3;
  v.Value.bin.lpb = bytes;
  EXPECT_EQ(ValueText(v), "00AB10");

  v.ulPropTag = PROP_TAG(PT_ERROR, PROP_ID(PR_COMMENT_A));
  v.Value.err = MAPI_E_NOT_FOUND;
  EXPECT_EQ(ValueText(v), "<error 0x8004010F MAPI_E_NOT_FOUND>");
  EXPECT_EQ(ParseJson(ValueJson(v).Dump())["error"].text, "0x8004010F MAPI_E_NOT_FOUND");

  v.ulPropTag = PROP_TAG(PT_SYSTIME, 0x6700);
  v.Value.ft.dwHighDateTime = 0x01D9A000;  // some day in 2023
  v.Value.ft.dwLowDateTime = 0;
  EXPECT_EQ(TagName(v.ulPropTag), "0x67000040");
  EXPECT_EQ(ValueText(v).substr(0, 4), "2023");
  EXPECT_EQ(ValueText(v).back(), 'Z');

  char a[] = "a", b[] = "b\n";
  LPSTR list[] = {a, b};
  v.ulPropTag = PROP_TAG(PT_MV_STRING8, 0x6701);
  v.Value.MVszA.cValues = 2;
  v.Value.MVszA.lppszA = list;
  EXPECT_EQ(ValueText(v), "[a, b\n]");
  JsonValue mv = ParseJson(ValueJson(v).Dump());
  ASSERT_EQ(mv.items.size(), 2u);
  EXPECT_EQ(mv.items[1].text, "b\n");
}

TEST(ClientArgs, ParsesOptionsAndPositionals) {
  Args args("t", {"one", "--flag", "--value", "v1", "--multi=a", "--multi", "b", "--", "--two"},
            {{"flag"}, {"value", true}, {"multi", true, true}}, 2);
  EXPECT_TRUE(args.Has("flag"));
  EXPECT_EQ(args.Value("value"), "v1");
  EXPECT_EQ(args.Values("multi"), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(args.Positionals(), (std::vector<std::string>{"one", "--two"}));
  EXPECT_EQ(args.Value("absent", "fallback"), "fallback");
}

TEST(ClientArgs, RejectsBadCommandLines) {
  const std::vector<OptionDef> defs = {{"flag"}, {"value", true}};
  EXPECT_THROW(Args("t", {"--nope"}, defs, 0), UsageError);
  EXPECT_THROW(Args("t", {"--value"}, defs, 0), UsageError);
  EXPECT_THROW(Args("t", {"--flag=1"}, defs, 0), UsageError);
  EXPECT_THROW(Args("t", {"--value", "a", "--value", "b"}, defs, 0), UsageError);
  EXPECT_THROW(Args("t", {"extra"}, defs, 0), UsageError);
  try {
    Args("profile list", {"--bogus"}, defs, 0);
    FAIL();
  } catch (const UsageError& e) {
    EXPECT_STREQ(e.what(), "'profile list' has no option --bogus");
  }
}

TEST(ClientProps, ResolvesTagsByNameAndHex) {
  EXPECT_EQ(ParsePropTag("PR_DISPLAY_NAME"), static_cast<ULONG>(PR_DISPLAY_NAME_A));
  EXPECT_EQ(ParsePropTag("pr_comment"), static_cast<ULONG>(PR_COMMENT_A));
  EXPECT_EQ(ParsePropTag("PR_DISPLAY_NAME_W"), static_cast<ULONG>(PR_DISPLAY_NAME_W));
  EXPECT_EQ(ParsePropTag("PR_SUBJECT"), static_cast<ULONG>(PR_SUBJECT_A));  // from the platform's table
  EXPECT_EQ(ParsePropTag("0x6601001E"), 0x6601001Eu);
  EXPECT_EQ(ParsePropTag("6603000b"), 0x6603000Bu);
  EXPECT_EQ(ParsePropTag("PR_NO_SUCH_THING"), 0u);
  EXPECT_EQ(ParsePropTag("0x12"), 0u);
  EXPECT_EQ(ParsePropTag("0x0000001E"), 0u);  // identifier 0 is no property
}

TEST(ClientProps, ParsesValuesForTheTagsType) {
  PropArgs props;
  props.Add("PR_DISPLAY_NAME=My Store");
  props.Add("0x6603000B=false");
  props.Add("PR_RESOURCE_FLAGS=0x10");
  props.Add("PR_STORE_RECORD_KEY=00ff10");
  props.Add("PR_DISPLAY_NAME_W=wide=text");
  props.Add("PR_DISPLAY_NAME=Renamed");  // the last value of a tag wins
  ASSERT_EQ(props.Count(), 5u);
  EXPECT_STREQ(props.All()[0].Value.lpszA, "Renamed");
  EXPECT_EQ(props.All()[1].Value.b, 0);
  EXPECT_EQ(props.All()[2].Value.l, 16);
  ASSERT_EQ(props.All()[3].Value.bin.cb, 3u);
  EXPECT_EQ(props.All()[3].Value.bin.lpb[1], 0xFF);
  EXPECT_EQ(props.All()[3].Value.bin.lpb[2], 0x10);
  EXPECT_EQ(ValueText(props.All()[4]), "wide=text");
}

TEST(ClientProps, RejectsBadAssignments) {
  PropArgs props;
  EXPECT_THROW(props.Add("no-equals"), UsageError);
  EXPECT_THROW(props.Add("=value"), UsageError);
  EXPECT_THROW(props.Add("PR_NO_SUCH_THING=1"), UsageError);
  EXPECT_THROW(props.Add("PR_RESOURCE_FLAGS=ten"), UsageError);
  EXPECT_THROW(props.Add("PR_RESOURCE_FLAGS=99999999999"), UsageError);
  EXPECT_THROW(props.Add("0x6603000B=maybe"), UsageError);
  EXPECT_THROW(props.Add("PR_STORE_RECORD_KEY=abc"), UsageError);
  EXPECT_THROW(props.Add("PR_STORE_RECORD_KEY=zz"), UsageError);
  EXPECT_THROW(props.Add("0x6700000D=1"), UsageError);  // objects cannot be given as text
  EXPECT_EQ(props.Count(), 0u);
}

}  // namespace
}  // namespace adcli
