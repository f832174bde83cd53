#include "ZT4_TRACES.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <mapicode.h>
#include <mapitags.h>

#include "Output.h"
#include "trace_fixture.h"

namespace {

int g_nTraceLine = 0;

void TracedQuery(int nLevel) {
  ZT4_SCOPE_TRACE(nLevel); g_nTraceLine = __LINE__;
  ZT4_LOG(ZT4_LEVEL_INFO, "inside %s", "the scope");
}

}  // namespace

TEST(ZT4TracesTest, ScopeTraceWritesEntryAndExitAtItsLevel) {
  zt4test::TraceLog log(3);
  TracedQuery(ZT4_LEVEL_INFO);
  const std::string at = "TracedQuery(" + std::to_string(g_nTraceLine) + ") - ZT4_TRACES_test.cpp ";
  std::string text = log.Text();
  size_t entry = text.find(at + "Function entry point\r\n");
  size_t inside = text.find("inside the scope\r\n");
  size_t exit = text.find(at + "Function exit point\r\n");
  ASSERT_NE(entry, std::string::npos) << text;
  ASSERT_NE(inside, std::string::npos);
  ASSERT_NE(exit, std::string::npos);
  EXPECT_LT(entry, inside);
  EXPECT_LT(inside, exit);

  // Above the logger's level: neither line.
  TracedQuery(ZT4_LEVEL_DETAIL);
  text = log.Text();
  EXPECT_EQ(text.find(at + "Function entry point", entry + 1), std::string::npos);
}

TEST(ZT4TracesTest, AssertionsLogTheirTextsAtLevelFive) {
  zt4test::TraceLog log(5);
  AssertStatement("ZT4DBFile.cpp", 321);
  AssertStatementWithMsg("Node of a wrong type", "ZT4DBFile.cpp", 654);
  ZT4_ASSERT(1 + 1 == 3);
  ZT4_ASSERT(1 + 1 == 2);
  EXPECT_TRUE(log.Has(" Assertion failed in File: ZT4DBFile.cpp, Line: 321\r\n"));
  EXPECT_TRUE(log.Has(" Node of a wrong type\r\nAssertion in File: ZT4DBFile.cpp, Line: 654\r\n"));
  std::string text = log.Text();
  size_t first = text.find("Assertion failed in File: ");
  size_t macro = text.find("Assertion failed in File: ", first + 1);
  ASSERT_NE(macro, std::string::npos);
  EXPECT_NE(text.find("ZT4_TRACES_test.cpp, Line: ", macro), std::string::npos);
  EXPECT_EQ(text.find("Assertion failed in File: ", macro + 1), std::string::npos);
}

TEST(ZT4TracesTest, AssertionsAreQuietBelowLevelFive) {
  zt4test::TraceLog log(4);
  AssertStatement("x.cpp", 1);
  ZT4_LOG(ZT4_LEVEL_ERROR, "marker");
  EXPECT_TRUE(log.Has("marker"));
  EXPECT_FALSE(log.Has("Assertion"));
}

TEST(ZT4TracesTest, CheckHResultWritesItsBlockToTheDebugOutput) {
  adtest::TempHome home;
  std::string sink = home.Root() + "/debug.txt";
  setenv("ARCHIVEDEPOT_DEBUG_OUTPUT", sink.c_str(), 1);
  EXPECT_TRUE(CheckHResult(0, "quiet", "Func", "f.cpp", 1));
  EXPECT_FALSE(std::filesystem::exists(sink));
  EXPECT_FALSE(CheckHResult(E_FAIL, "pTable->SortTable", "CMAPITable::Sort", "ZT4MSTable.cpp", 77));
  EXPECT_FALSE(CheckHResult(S_FALSE, "a success code other than 0", "F", "g.cpp", 2));
  unsetenv("ARCHIVEDEPOT_DEBUG_OUTPUT");
  std::ifstream in(sink, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  EXPECT_EQ(ss.str(),
            "Error: pTable->SortTable\r\nCode: 0x80004005\r\nFunction CMAPITable::Sort\r\nFile ZT4MSTable.cpp\r\n"
            "Line 77\n"
            "Error: a success code other than 0\r\nCode: 0x00000001\r\nFunction F\r\nFile g.cpp\r\nLine 2\n");
}

TEST(ZT4TracesTest, TagNamesByPropertyIdentifier) {
  EXPECT_STREQ(GetPropTagName(PR_SUBJECT), "PR_SUBJECT");
  // The name is that of the high word, whatever the type.
  EXPECT_STREQ(GetPropTagName(PR_SUBJECT_W), "PR_SUBJECT");
  EXPECT_STREQ(GetPropTagName(PROP_TAG(PT_ERROR, PROP_ID(PR_MESSAGE_CLASS))), "PR_MESSAGE_CLASS");
  EXPECT_STREQ(GetPropTagName(PR_ENTRYID), "PR_ENTRYID");
  EXPECT_STREQ(GetPropTagName(PR_ACKNOWLEDGEMENT_MODE), "PR_ACKNOWLEDGEMENT_MODE");
  EXPECT_EQ(GetPropTagName(PROP_TAG(PT_LONG, 0x8001)), nullptr);
  EXPECT_EQ(GetPropTagName(0), nullptr);

  zt4test::TraceLog log(4);
  DumpPropTag(PR_DISPLAY_NAME_W);
  DumpPropTag(0x8005001F);
  EXPECT_TRUE(log.Has(" ZT4_TRACES.cpp PR_DISPLAY_NAME\r\n"));
  EXPECT_TRUE(log.Has(" ZT4_TRACES.cpp 0x8005001F\r\n"));
}

TEST(ZT4TracesTest, TagDumpIsQuietBelowLevelFour) {
  zt4test::TraceLog log(3);
  DumpPropTag(PR_SUBJECT);
  ZT4_LOG(ZT4_LEVEL_INFO, "marker");
  EXPECT_TRUE(log.Has("marker"));
  EXPECT_FALSE(log.Has("PR_SUBJECT"));
}

namespace {

HRESULT FailingStep(HRESULT hrStep) { return hrStep; }

// The idiom every provider method follows: check, throw, catch at the end, closing log.
HRESULT CheckedOperation(HRESULT hrStep, const void* pRequired) {
  HRESULT hResult = S_OK;
  try {
    ZT4_CHECK_NULL(pRequired, E_INVALIDARG);
    ZT4_CHECK(FailingStep(hrStep));
    if (hrStep == MAPI_W_ERRORS_RETURNED) hResult = hrStep;
  }
  ZT4_CATCH(hResult)
  ZT4_LOG_FAILURE("CTest::CheckedOperation", hResult);
  return hResult;
}

HRESULT ThrowsZero() {
  HRESULT hResult = S_OK;
  try {
    throw static_cast<HRESULT>(0);
  }
  ZT4_CATCH(hResult)
  return hResult;
}

HRESULT ThrowsComError() {
  HRESULT hResult = S_OK;
  try {
    _com_issue_error(E_NOINTERFACE);
  }
  ZT4_CATCH(hResult)
  return hResult;
}

}  // namespace

TEST(ZT4TracesTest, FailureChecksLogTheExpressionAndReturnTheCode) {
  zt4test::TraceLog log(1);
  int nRequired = 0;
  EXPECT_EQ(CheckedOperation(MAPI_E_NOT_FOUND, &nRequired), MAPI_E_NOT_FOUND);
  EXPECT_TRUE(log.Has("FailingStep(hrStep) failed\r\n"));
  EXPECT_TRUE(log.Has("CTest::CheckedOperation:8004010f\r\n"));

  EXPECT_EQ(CheckedOperation(S_OK, nullptr), E_INVALIDARG);
  EXPECT_TRUE(log.Has("pRequired is NULL\r\n"));

  // A warning is success: no failure line and the code comes back.
  const std::string before = log.Text();
  EXPECT_EQ(CheckedOperation(MAPI_W_ERRORS_RETURNED, &nRequired), MAPI_W_ERRORS_RETURNED);
  EXPECT_EQ(log.Text(), before);

  EXPECT_EQ(ThrowsZero(), E_FAIL);
  EXPECT_EQ(ThrowsComError(), E_NOINTERFACE);
}
