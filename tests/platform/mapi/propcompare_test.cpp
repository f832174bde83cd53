#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "mapicode.h"
#include "mapiutil.h"

namespace {

SPropValue Long(LONG v) {
  SPropValue p{};
  p.ulPropTag = PROP_TAG(PT_LONG, 0x6001);
  p.Value.l = v;
  return p;
}
SPropValue Short(short v) {
  SPropValue p{};
  p.ulPropTag = PROP_TAG(PT_I2, 0x6002);
  p.Value.i = v;
  return p;
}
SPropValue I8(LONGLONG v) {
  SPropValue p{};
  p.ulPropTag = PROP_TAG(PT_I8, 0x6003);
  p.Value.li.QuadPart = v;
  return p;
}
SPropValue Double(double v, ULONG type = PT_DOUBLE) {
  SPropValue p{};
  p.ulPropTag = PROP_TAG(type, 0x6004);
  p.Value.dbl = v;
  return p;
}
SPropValue Float(float v) {
  SPropValue p{};
  p.ulPropTag = PROP_TAG(PT_R4, 0x6005);
  p.Value.flt = v;
  return p;
}
SPropValue Currency(LONGLONG v) {
  SPropValue p{};
  p.ulPropTag = PROP_TAG(PT_CURRENCY, 0x6006);
  p.Value.cur.int64 = v;
  return p;
}
SPropValue Time(DWORD high, DWORD low) {
  SPropValue p{};
  p.ulPropTag = PROP_TAG(PT_SYSTIME, 0x6007);
  p.Value.ft = {low, high};
  return p;
}
SPropValue Bool(unsigned short v) {
  SPropValue p{};
  p.ulPropTag = PROP_TAG(PT_BOOLEAN, 0x6008);
  p.Value.b = v;
  return p;
}
SPropValue Text(const char* s) {
  SPropValue p{};
  p.ulPropTag = PROP_TAG(PT_STRING8, 0x6009);
  p.Value.lpszA = const_cast<char*>(s);
  return p;
}
SPropValue Wide(const char16_t* s) {
  SPropValue p{};
  p.ulPropTag = PROP_TAG(PT_UNICODE, 0x6009);
  p.Value.lpszW = const_cast<char16_t*>(s);
  return p;
}
SPropValue Bytes(std::vector<BYTE>& b) {
  SPropValue p{};
  p.ulPropTag = PROP_TAG(PT_BINARY, 0x600A);
  p.Value.bin = {ULONG(b.size()), b.data()};
  return p;
}
SPropValue Guid(GUID* g) {
  SPropValue p{};
  p.ulPropTag = PROP_TAG(PT_CLSID, 0x600B);
  p.Value.lpguid = g;
  return p;
}
SPropValue Longs(std::vector<LONG>& v) {
  SPropValue p{};
  p.ulPropTag = PROP_TAG(PT_MV_LONG, 0x600C);
  p.Value.MVl = {ULONG(v.size()), v.data()};
  return p;
}
SPropValue Texts(std::vector<LPSTR>& v) {
  SPropValue p{};
  p.ulPropTag = PROP_TAG(PT_MV_STRING8, 0x600D);
  p.Value.MVszA = {ULONG(v.size()), v.data()};
  return p;
}

// Checks every relation for a pair whose order is known: a < b.
void ExpectLess(SPropValue a, SPropValue b) {
  EXPECT_LT(LPropCompareProp(&a, &b), 0);
  EXPECT_GT(LPropCompareProp(&b, &a), 0);
  EXPECT_TRUE(FPropCompareProp(&a, RELOP_LT, &b));
  EXPECT_TRUE(FPropCompareProp(&a, RELOP_LE, &b));
  EXPECT_FALSE(FPropCompareProp(&a, RELOP_GT, &b));
  EXPECT_FALSE(FPropCompareProp(&a, RELOP_GE, &b));
  EXPECT_FALSE(FPropCompareProp(&a, RELOP_EQ, &b));
  EXPECT_TRUE(FPropCompareProp(&a, RELOP_NE, &b));
  EXPECT_TRUE(FPropCompareProp(&b, RELOP_GT, &a));
  EXPECT_TRUE(FPropCompareProp(&b, RELOP_GE, &a));
}

void ExpectEqual(SPropValue a, SPropValue b) {
  EXPECT_EQ(LPropCompareProp(&a, &b), 0);
  EXPECT_TRUE(FPropCompareProp(&a, RELOP_EQ, &b));
  EXPECT_TRUE(FPropCompareProp(&a, RELOP_LE, &b));
  EXPECT_TRUE(FPropCompareProp(&a, RELOP_GE, &b));
  EXPECT_FALSE(FPropCompareProp(&a, RELOP_NE, &b));
  EXPECT_FALSE(FPropCompareProp(&a, RELOP_LT, &b));
  EXPECT_FALSE(FPropCompareProp(&a, RELOP_GT, &b));
}

BOOL Contains(SPropValue hay, SPropValue needle, ULONG fuzzy) { return FPropContainsProp(&hay, &needle, fuzzy); }

}  // namespace

TEST(MapiCompare, NumbersOrderBySignedValue) {
  ExpectLess(Long(-1), Long(1));
  ExpectLess(Long(LONG(0x80000000)), Long(0x7FFFFFFF));
  ExpectEqual(Long(5), Long(5));
  ExpectLess(Short(-300), Short(2));
  ExpectLess(I8(-(1LL << 40)), I8(1));
  ExpectLess(I8(1LL << 32), I8(1LL << 33));
  ExpectLess(Double(-0.5), Double(0.25));
  ExpectLess(Double(1.0, PT_APPTIME), Double(2.0, PT_APPTIME));
  ExpectLess(Float(-1.5f), Float(-1.25f));
  ExpectLess(Currency(-10000), Currency(1));
  // The high word of a file time decides before the low word.
  ExpectLess(Time(1, 0xFFFFFFFF), Time(2, 0));
  ExpectEqual(Time(7, 7), Time(7, 7));
  // Any non-zero boolean is TRUE, and TRUE sorts after FALSE.
  ExpectLess(Bool(0), Bool(1));
  ExpectEqual(Bool(1), Bool(0xFFFF));
}

TEST(MapiCompare, TextIgnoresCaseButNotAccents) {
  ExpectEqual(Text("IPM.Note"), Text("ipm.note"));
  ExpectLess(Text("apple"), Text("Banana"));  // byte order would put 'B' first
  ExpectLess(Text("abc"), Text("abcd"));
  ExpectEqual(Text("\xc3\x89" "clair"), Text("\xc3\xa9" "clair"));  // É / é
  ExpectLess(Text("ete"), Text("\xc3\xa9t\xc3\xa9"));
  ExpectEqual(Wide(u"\u041f\u0420\u0418\u0412\u0415\u0422"), Wide(u"\u043f\u0440\u0438\u0432\u0435\u0442"));
  ExpectEqual(Wide(u"\u00c5ngstr\u00f6m"), Wide(u"\u00e5NGSTR\u00d6M"));
  ExpectLess(Wide(u"a"), Wide(u"\U0001F600"));  // a surrogate pair is one code point above the BMP
  ExpectEqual(Text(""), Text(""));
  // Undecodable bytes still compare, consistently.
  SPropValue broken = Text("\xff\xfe");
  EXPECT_EQ(LPropCompareProp(&broken, &broken), 0);
  SPropValue nullText = Text(nullptr);
  SPropValue someText = Text("x");
  EXPECT_LT(LPropCompareProp(&nullText, &someText), 0);
}

TEST(MapiCompare, BinaryComparesLengthFirstThenBytes) {
  std::vector<BYTE> longLow = {0x00, 0x00};
  std::vector<BYTE> shortHigh = {0xFF};
  std::vector<BYTE> low = {0x7F};
  std::vector<BYTE> high = {0x80};
  std::vector<BYTE> same = {0x80};
  std::vector<BYTE> empty;
  ExpectLess(Bytes(shortHigh), Bytes(longLow));
  ExpectLess(Bytes(low), Bytes(high));
  ExpectEqual(Bytes(high), Bytes(same));
  ExpectLess(Bytes(empty), Bytes(low));

  GUID a = PS_MAPI;
  GUID b = PS_PUBLIC_STRINGS;
  GUID a2 = PS_MAPI;
  ExpectEqual(Guid(&a), Guid(&a2));
  SPropValue ga = Guid(&a);
  SPropValue gb = Guid(&b);
  LONG ab = LPropCompareProp(&ga, &gb);
  EXPECT_NE(ab, 0);
  EXPECT_EQ(ab < 0, LPropCompareProp(&gb, &ga) > 0);
}

TEST(MapiCompare, MultiValuedCompareElementWise) {
  std::vector<LONG> a = {1, 2};
  std::vector<LONG> b = {1, 3};
  std::vector<LONG> longer = {1, 2, 0};
  std::vector<LONG> a2 = {1, 2};
  ExpectLess(Longs(a), Longs(b));
  ExpectLess(Longs(a), Longs(longer));
  ExpectEqual(Longs(a), Longs(a2));
  char x[] = "Alpha";
  char y[] = "alpha";
  char z[] = "beta";
  std::vector<LPSTR> s1 = {x, z};
  std::vector<LPSTR> s2 = {y, z};
  std::vector<LPSTR> s3 = {y};
  ExpectEqual(Texts(s1), Texts(s2));
  ExpectLess(Texts(s3), Texts(s1));
}

TEST(MapiCompare, MismatchedTypesAndBadOperatorsNeverHold) {
  SPropValue n = Long(1);
  SPropValue s = Text("1");
  SPropValue w = Wide(u"1");
  for (ULONG op : {RELOP_LT, RELOP_LE, RELOP_GT, RELOP_GE, RELOP_EQ, RELOP_NE, RELOP_RE}) {
    EXPECT_FALSE(FPropCompareProp(&n, op, &s)) << op;
    EXPECT_FALSE(FPropCompareProp(&s, op, &w)) << op;
    EXPECT_FALSE(FPropCompareProp(nullptr, op, &s)) << op;
    EXPECT_FALSE(FPropCompareProp(&s, op, nullptr)) << op;
  }
  EXPECT_FALSE(FPropCompareProp(&n, 99, &n));
  // Values of different types still order consistently.
  EXPECT_EQ(LPropCompareProp(&n, &s) < 0, LPropCompareProp(&s, &n) > 0);
  EXPECT_NE(LPropCompareProp(&n, &s), 0);
}

TEST(MapiCompare, RegularExpressionsSearchTextIgnoringCase) {
  SPropValue cls = Text("IPM.Note.SMIME");
  SPropValue report = Text("REPORT.IPM.Note.NDR");
  SPropValue pattern = Text("^ipm\\.note");
  EXPECT_TRUE(FPropCompareProp(&cls, RELOP_RE, &pattern));
  EXPECT_FALSE(FPropCompareProp(&report, RELOP_RE, &pattern));
  SPropValue wide = Wide(u"Caf\u00e9 M\u00fcller");
  SPropValue widePattern = Wide(u"m\u00fcl+er$");
  EXPECT_TRUE(FPropCompareProp(&wide, RELOP_RE, &widePattern));
  SPropValue malformed = Text("(unclosed");
  EXPECT_FALSE(FPropCompareProp(&cls, RELOP_RE, &malformed));
  SPropValue n = Long(3);
  EXPECT_FALSE(FPropCompareProp(&n, RELOP_RE, &n));
}

TEST(MapiCompare, ContainsHonoursMatchKindAndFuzzyLevel) {
  SPropValue subject = Text("Re: Quarterly report");
  EXPECT_TRUE(Contains(subject, Text("Re: Quarterly report"), FL_FULLSTRING));
  EXPECT_FALSE(Contains(subject, Text("re: quarterly report"), FL_FULLSTRING));
  EXPECT_TRUE(Contains(subject, Text("re: quarterly report"), FL_FULLSTRING | FL_IGNORECASE));
  EXPECT_TRUE(Contains(subject, Text("report"), FL_SUBSTRING));
  EXPECT_FALSE(Contains(subject, Text("REPORT"), FL_SUBSTRING));
  EXPECT_TRUE(Contains(subject, Text("REPORT"), FL_SUBSTRING | FL_IGNORECASE));
  EXPECT_TRUE(Contains(subject, Text("Re:"), FL_PREFIX));
  EXPECT_FALSE(Contains(subject, Text("Quarterly"), FL_PREFIX));
  EXPECT_TRUE(Contains(subject, Text(""), FL_SUBSTRING));
  EXPECT_FALSE(Contains(subject, Text(""), FL_FULLSTRING));
  EXPECT_FALSE(Contains(subject, Text("Re"), 7));  // no such match kind
}

TEST(MapiCompare, ContainsLoosensNonAsciiText) {
  SPropValue name = Text("Caf\xc3\xa9 M\xc3\xbcller");  // Café Müller
  EXPECT_FALSE(Contains(name, Text("MULLER"), FL_SUBSTRING | FL_IGNORECASE));
  EXPECT_TRUE(Contains(name, Text("M\xc3\x9cLLER"), FL_SUBSTRING | FL_IGNORECASE));  // MÜLLER
  EXPECT_TRUE(Contains(name, Text("Muller"), FL_SUBSTRING | FL_IGNORENONSPACE));
  EXPECT_FALSE(Contains(name, Text("muller"), FL_SUBSTRING | FL_IGNORENONSPACE));
  EXPECT_TRUE(Contains(name, Text("CAFE MULLER"), FL_FULLSTRING | FL_LOOSE));
  // A decomposed accent (e + combining acute) matches the plain letter when accents are ignored.
  SPropValue decomposed = Wide(u"Cafe\u0301");
  EXPECT_TRUE(Contains(decomposed, Wide(u"cafe"), FL_FULLSTRING | FL_LOOSE));
  EXPECT_FALSE(Contains(decomposed, Wide(u"Cafe"), FL_FULLSTRING));
  SPropValue greek = Wide(u"\u0391\u0398\u0397\u039d\u0391");  // ΑΘΗΝΑ
  EXPECT_TRUE(Contains(greek, Wide(u"\u03b8\u03b7\u03bd"), FL_SUBSTRING | FL_IGNORECASE));
  EXPECT_FALSE(Contains(greek, Wide(u"\u03b8\u03b7\u03bd"), FL_SUBSTRING));
  SPropValue polish = Wide(u"\u0141\u00f3d\u017a");  // Łódź
  EXPECT_TRUE(Contains(polish, Wide(u"lodz"), FL_FULLSTRING | FL_LOOSE));
}

TEST(MapiCompare, ContainsOnBytesListsAndBadInput) {
  std::vector<BYTE> hay = {1, 2, 3, 4};
  std::vector<BYTE> mid = {2, 3};
  std::vector<BYTE> head = {1, 2};
  std::vector<BYTE> all = {1, 2, 3, 4};
  std::vector<BYTE> none;
  EXPECT_TRUE(Contains(Bytes(hay), Bytes(mid), FL_SUBSTRING));
  EXPECT_FALSE(Contains(Bytes(hay), Bytes(mid), FL_PREFIX));
  EXPECT_TRUE(Contains(Bytes(hay), Bytes(head), FL_PREFIX));
  EXPECT_TRUE(Contains(Bytes(hay), Bytes(all), FL_FULLSTRING));
  EXPECT_FALSE(Contains(Bytes(hay), Bytes(head), FL_FULLSTRING));
  EXPECT_TRUE(Contains(Bytes(hay), Bytes(none), FL_SUBSTRING));
  EXPECT_FALSE(Contains(Bytes(mid), Bytes(hay), FL_SUBSTRING));

  // A list of strings contains the pattern when one of its values does.
  char a[] = "alpha";
  char b[] = "Beta";
  std::vector<LPSTR> list = {a, b};
  EXPECT_TRUE(Contains(Texts(list), Text("BET"), FL_PREFIX | FL_IGNORECASE));
  EXPECT_FALSE(Contains(Texts(list), Text("gamma"), FL_SUBSTRING | FL_LOOSE));

  EXPECT_FALSE(Contains(Text("abc"), Wide(u"abc"), FL_FULLSTRING));
  EXPECT_FALSE(Contains(Long(1), Long(1), FL_FULLSTRING));
  EXPECT_FALSE(Contains(Text(nullptr), Text("a"), FL_SUBSTRING));
  EXPECT_FALSE(Contains(Text("a"), Text(nullptr), FL_SUBSTRING));
  SPropValue broken{};
  broken.ulPropTag = PROP_TAG(PT_BINARY, 1);
  broken.Value.bin = {4, nullptr};
  EXPECT_FALSE(Contains(broken, Bytes(none), FL_SUBSTRING));
  SPropValue t = Text("a");
  EXPECT_FALSE(FPropContainsProp(nullptr, &t, FL_SUBSTRING));
  EXPECT_FALSE(FPropContainsProp(&t, nullptr, FL_SUBSTRING));
}

TEST(MapiCompare, SortingWithCompareIsAStrictOrder) {
  const char* words[] = {"delta", "Alpha", "charlie", "alpha", "Bravo", "", ("\xc3\xa9" "cho"), "echo"};
  std::vector<SPropValue> values;
  for (const char* w : words) values.push_back(Text(w));
  std::stable_sort(values.begin(), values.end(),
                   [](SPropValue x, SPropValue y) { return LPropCompareProp(&x, &y) < 0; });
  std::vector<std::string> sorted;
  for (auto& v : values) sorted.emplace_back(v.Value.lpszA);
  EXPECT_EQ(sorted, (std::vector<std::string>{"", "Alpha", "alpha", "Bravo", "charlie", "delta", "echo",
                                               ("\xc3\xa9" "cho")}));
}
