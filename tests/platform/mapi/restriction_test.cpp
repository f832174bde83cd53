// Restrictions as views evaluate them: every type and relation over the comparable property
// types, and hostile trees that must be refused quickly with an error.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "table_test_support.h"

using namespace tabletest;
using Keys_ = std::vector<LONG>;

namespace {

constexpr ULONG kWide = PROP_TAG(PT_UNICODE, 0x6610);
constexpr ULONG kBin = PROP_TAG(PT_BINARY, 0x6611);
constexpr ULONG kTime = PROP_TAG(PT_SYSTIME, 0x6612);
constexpr ULONG kReal = PROP_TAG(PT_DOUBLE, 0x6613);
constexpr ULONG kBool = PROP_TAG(PT_BOOLEAN, 0x6614);
constexpr ULONG kBig = PROP_TAG(PT_I8, 0x6615);
constexpr ULONG kMvText = PROP_TAG(PT_MV_STRING8, 0x6616);
constexpr ULONG kOther = PROP_TAG(PT_LONG, 0x6617);
constexpr ULONG kShort = PROP_TAG(PT_I2, 0x6618);

// Storage for the values of the fixture rows, which the table copies.
struct Fixture {
  char16_t wide[4][8] = {u"Apple", u"banana", u"Cherry", u"date"};
  BYTE bytes[4][3] = {{1, 2, 3}, {1, 2}, {9, 9, 9}, {2}};
  ULONG byteCount[4] = {3, 2, 3, 1};
  char mv0[8] = "red", mv1[8] = "Green", mv2[8] = "blue";
  LPSTR mvFirst[2] = {mv0, mv1};
  LPSTR mvSecond[1] = {mv2};

  ITableData* data = MakeTable();
  LPMAPITABLE view = nullptr;

  // Rows 1..4; row 5 has only its key (and an error value for kSize).
  Fixture() {
    const char* names[4] = {"alpha", "Beta", "gamma", "ALPHABET"};
    for (LONG i = 0; i < 4; ++i) {
      Row r = Item(i + 1, names[i], (i + 1) * 10);
      r.Long(kFlags, LONG(1u << i)).Long(kOther, 25);
      auto add = [&r](ULONG tag) -> __UPV& {
        SPropValue v{};
        v.ulPropTag = tag;
        r.Value(v);
        return r.LastValue();
      };
      add(kWide).lpszW = wide[i];
      add(kBin).bin = {byteCount[i], bytes[i]};
      add(kTime).ft = {ULONG(100 * (i + 1)), 1};
      add(kReal).dbl = 0.5 * i;
      add(kBool).b = i % 2;
      add(kBig).li.QuadPart = (LONGLONG(1) << 40) * (i - 1);
      add(kShort).i = short(i);
      if (i < 2) add(kMvText).MVszA = i == 0 ? SLPSTRArray{2, mvFirst} : SLPSTRArray{1, mvSecond};
      EXPECT_EQ(Put(data, r), S_OK);
    }
    Row bare;
    bare.Long(kKey, 5);
    SPropValue error{};
    error.ulPropTag = PROP_TAG(PT_ERROR, PROP_ID(kSize));
    error.Value.err = MAPI_E_NOT_FOUND;
    bare.Value(error);
    EXPECT_EQ(Put(data, bare), S_OK);
    view = MakeView(data);
  }
  ~Fixture() {
    view->Release();
    data->Release();
  }

  // The rows the restriction lets through, or {-hr} when Restrict refuses it.
  Keys_ Matching(SRestriction* r) {
    HRESULT hr = view->Restrict(r, 0);
    if (hr != S_OK) return {LONG(hr)};
    Keys_ keys = Keys(view);
    EXPECT_EQ(view->Restrict(nullptr, 0), S_OK);
    return keys;
  }
};

SPropValue Long(ULONG tag, LONG v) {
  SPropValue p{};
  p.ulPropTag = tag;
  p.Value.l = v;
  return p;
}

SPropValue Text(ULONG tag, const char* s) {
  SPropValue p{};
  p.ulPropTag = tag;
  p.Value.lpszA = const_cast<char*>(s);
  return p;
}

SRestriction Property(ULONG relop, SPropValue& v, ULONG tag = 0) {
  SRestriction r = PropertyRes(relop, &v);
  if (tag) r.res.resProperty.ulPropTag = tag;
  return r;
}

SRestriction Content(ULONG fuzzy, SPropValue& v, ULONG tag = 0) {
  SRestriction r{};
  r.rt = RES_CONTENT;
  r.res.resContent.ulFuzzyLevel = fuzzy;
  r.res.resContent.ulPropTag = tag ? tag : v.ulPropTag;
  r.res.resContent.lpProp = &v;
  return r;
}

SRestriction Exist(ULONG tag) {
  SRestriction r{};
  r.rt = RES_EXIST;
  r.res.resExist.ulPropTag = tag;
  return r;
}

SRestriction Nest(ULONG rt, SRestriction* children, ULONG count) {
  SRestriction r{};
  r.rt = rt;
  if (rt == RES_NOT) {
    r.res.resNot.lpRes = children;
  } else if (rt == RES_SUBRESTRICTION) {
    r.res.resSub.ulSubObject = PR_MESSAGE_RECIPIENTS;
    r.res.resSub.lpRes = children;
  } else {
    r.res.resAnd.cRes = count;
    r.res.resAnd.lpRes = children;
  }
  return r;
}

const LONG kTooComplex = LONG(MAPI_E_TOO_COMPLEX);
const LONG kInvalid = LONG(MAPI_E_INVALID_PARAMETER);

}  // namespace

TEST(Restriction, PropertyRelationsOverEachComparableType) {
  Fixture f;
  SPropValue twenty = Long(kSize, 20);
  struct {
    ULONG relop;
    Keys_ keys;
  } relations[] = {{RELOP_LT, {1}},         {RELOP_LE, {1, 2}}, {RELOP_GT, {3, 4}},
                   {RELOP_GE, {2, 3, 4}},   {RELOP_EQ, {2}},    {RELOP_NE, {1, 3, 4}}};
  // Row 5 has no kSize (only an error value): no relation holds for it, not even NE.
  for (auto& rel : relations) {
    SRestriction r = Property(rel.relop, twenty);
    EXPECT_EQ(f.Matching(&r), rel.keys) << "relop " << rel.relop;
  }

  SPropValue alpha = Text(kName, "ALPHA");
  SRestriction r = Property(RELOP_EQ, alpha);
  EXPECT_EQ(f.Matching(&r), Keys_{1});  // text compares without case
  r = Property(RELOP_GT, alpha);
  EXPECT_EQ(f.Matching(&r), (Keys_{2, 3, 4}));

  SPropValue cherry{};
  cherry.ulPropTag = kWide;
  cherry.Value.lpszW = const_cast<char16_t*>(u"cherry");
  r = Property(RELOP_GE, cherry);
  EXPECT_EQ(f.Matching(&r), (Keys_{3, 4}));

  BYTE probe[3] = {1, 2, 4};
  SPropValue bin{};
  bin.ulPropTag = kBin;
  bin.Value.bin = {3, probe};
  r = Property(RELOP_LT, bin);  // shorter values first, then byte by byte
  EXPECT_EQ(f.Matching(&r), (Keys_{1, 2, 4}));

  SPropValue time{};
  time.ulPropTag = kTime;
  time.Value.ft = {200, 1};
  r = Property(RELOP_LE, time);
  EXPECT_EQ(f.Matching(&r), (Keys_{1, 2}));

  SPropValue real{};
  real.ulPropTag = kReal;
  real.Value.dbl = 0.75;
  r = Property(RELOP_GT, real);
  EXPECT_EQ(f.Matching(&r), (Keys_{3, 4}));

  SPropValue yes{};
  yes.ulPropTag = kBool;
  yes.Value.b = 1;
  r = Property(RELOP_EQ, yes);
  EXPECT_EQ(f.Matching(&r), (Keys_{2, 4}));

  SPropValue zero{};
  zero.ulPropTag = kBig;
  r = Property(RELOP_LT, zero);
  EXPECT_EQ(f.Matching(&r), Keys_{1});

  SPropValue two{};
  two.ulPropTag = kShort;
  two.Value.i = 2;
  r = Property(RELOP_NE, two);
  EXPECT_EQ(f.Matching(&r), (Keys_{1, 2, 4}));
}

TEST(Restriction, MultiValuedPropertiesByInstanceOrAsAWhole) {
  Fixture f;
  // With MVI_FLAG any one value may satisfy the relation.
  SPropValue green = Text(kName, "green");
  SRestriction r = Property(RELOP_EQ, green, MVI_PROP(kMvText));
  EXPECT_EQ(f.Matching(&r), Keys_{1});
  SPropValue b = Text(kName, "b");
  r = Property(RELOP_GT, b, MVI_PROP(kMvText));
  EXPECT_EQ(f.Matching(&r), (Keys_{1, 2}));
  // Without it the whole list is one value, compared element by element.
  char blue[] = "BLUE";
  LPSTR list[1] = {blue};
  SPropValue whole{};
  whole.ulPropTag = kMvText;
  whole.Value.MVszA = {1, list};
  r = Property(RELOP_EQ, whole);
  EXPECT_EQ(f.Matching(&r), Keys_{2});
  // Content over a multi-valued property looks into each value.
  SPropValue ree = Text(kName, "REE");
  SRestriction c = Content(FL_SUBSTRING | FL_IGNORECASE, ree, MVI_PROP(kMvText));
  EXPECT_EQ(f.Matching(&c), Keys_{1});
  // A whole list against a single value, or an instance against a list: malformed.
  r = Property(RELOP_EQ, green, kMvText);
  EXPECT_EQ(f.Matching(&r), Keys_{kInvalid});
  r = Property(RELOP_EQ, whole, MVI_PROP(kMvText));
  EXPECT_EQ(f.Matching(&r), Keys_{kInvalid});
}

TEST(Restriction, ContentAtEachFuzzyLevel) {
  Fixture f;
  SPropValue alpha = Text(kName, "alpha");
  SRestriction r = Content(FL_FULLSTRING, alpha);
  EXPECT_EQ(f.Matching(&r), Keys_{1});
  r = Content(FL_FULLSTRING | FL_IGNORECASE, alpha);
  EXPECT_EQ(f.Matching(&r), Keys_{1});
  r = Content(FL_PREFIX, alpha);
  EXPECT_EQ(f.Matching(&r), Keys_{1});
  r = Content(FL_PREFIX | FL_IGNORECASE, alpha);
  EXPECT_EQ(f.Matching(&r), (Keys_{1, 4}));
  SPropValue ta = Text(kName, "TA");
  r = Content(FL_SUBSTRING, ta);
  EXPECT_EQ(f.Matching(&r), Keys_{});
  r = Content(FL_SUBSTRING | FL_LOOSE, ta);
  EXPECT_EQ(f.Matching(&r), Keys_{2});

  SPropValue an{};
  an.ulPropTag = kWide;
  an.Value.lpszW = const_cast<char16_t*>(u"AN");
  r = Content(FL_SUBSTRING | FL_IGNORECASE, an);
  EXPECT_EQ(f.Matching(&r), Keys_{2});

  BYTE two[1] = {2};
  SPropValue bin{};
  bin.ulPropTag = kBin;
  bin.Value.bin = {1, two};
  r = Content(FL_SUBSTRING, bin);
  EXPECT_EQ(f.Matching(&r), (Keys_{1, 2, 4}));
  r = Content(FL_FULLSTRING, bin);
  EXPECT_EQ(f.Matching(&r), Keys_{4});

  // Content needs text or bytes, the same type on both sides, and a known fuzzy level.
  SPropValue ten = Long(kSize, 10);
  r = Content(FL_FULLSTRING, ten);
  EXPECT_EQ(f.Matching(&r), Keys_{kInvalid});
  r = Content(FL_FULLSTRING, alpha, kWide);
  EXPECT_EQ(f.Matching(&r), Keys_{kInvalid});
  r = Content(7, alpha);
  EXPECT_EQ(f.Matching(&r), Keys_{kTooComplex});
}

TEST(Restriction, LogicComparePropsBitmaskSizeExistSubAndComment) {
  Fixture f;
  SRestriction hasName = Exist(kName);
  SRestriction hasMv = Exist(kMvText);
  SRestriction pair[2] = {hasName, hasMv};
  SRestriction both = Nest(RES_AND, pair, 2);
  EXPECT_EQ(f.Matching(&both), (Keys_{1, 2}));
  SRestriction either = Nest(RES_OR, pair, 2);
  EXPECT_EQ(f.Matching(&either), (Keys_{1, 2, 3, 4}));
  SRestriction neither = Nest(RES_NOT, &either, 1);
  EXPECT_EQ(f.Matching(&neither), Keys_{5});
  SRestriction all = Nest(RES_AND, nullptr, 0);
  EXPECT_EQ(f.Matching(&all), (Keys_{1, 2, 3, 4, 5}));
  SRestriction none = Nest(RES_OR, nullptr, 0);
  EXPECT_EQ(f.Matching(&none), Keys_{});

  // Exist: an error value is no property; PT_UNSPECIFIED takes any type of the identifier.
  SRestriction size = Exist(kSize);
  EXPECT_EQ(f.Matching(&size), (Keys_{1, 2, 3, 4}));
  SRestriction anySize = Exist(PROP_TAG(PT_UNSPECIFIED, PROP_ID(kSize)));
  EXPECT_EQ(f.Matching(&anySize), (Keys_{1, 2, 3, 4}));

  SRestriction compare{};
  compare.rt = RES_COMPAREPROPS;
  compare.res.resCompareProps = {RELOP_GT, kSize, kOther};
  EXPECT_EQ(f.Matching(&compare), (Keys_{3, 4}));
  compare.res.resCompareProps.relop = RELOP_LE;
  EXPECT_EQ(f.Matching(&compare), (Keys_{1, 2}));
  compare.res.resCompareProps.ulPropTag2 = kName;  // types differ
  EXPECT_EQ(f.Matching(&compare), Keys_{kInvalid});

  SRestriction mask{};
  mask.rt = RES_BITMASK;
  mask.res.resBitMask = {BMR_NEZ, kFlags, 0x5};
  EXPECT_EQ(f.Matching(&mask), (Keys_{1, 3}));
  mask.res.resBitMask.relBMR = BMR_EQZ;
  EXPECT_EQ(f.Matching(&mask), (Keys_{2, 4}));
  mask.res.resBitMask.relBMR = 2;
  EXPECT_EQ(f.Matching(&mask), Keys_{kInvalid});
  mask.res.resBitMask = {BMR_EQZ, kName, 1};
  EXPECT_EQ(f.Matching(&mask), Keys_{kInvalid});

  // Size counts the terminator of a string.
  SRestriction bytes{};
  bytes.rt = RES_SIZE;
  bytes.res.resSize = {RELOP_EQ, kName, 6};
  EXPECT_EQ(f.Matching(&bytes), (Keys_{1, 3}));
  bytes.res.resSize = {RELOP_GT, kBin, 2};
  EXPECT_EQ(f.Matching(&bytes), (Keys_{1, 3}));

  // A row of a table has no recipients or attachments for a sub-restriction to match.
  SRestriction sub = Nest(RES_SUBRESTRICTION, &hasName, 1);
  EXPECT_EQ(f.Matching(&sub), Keys_{});
  SRestriction notSub = Nest(RES_NOT, &sub, 1);
  EXPECT_EQ(f.Matching(&notSub), (Keys_{1, 2, 3, 4, 5}));
  sub.res.resSub.ulSubObject = kName;
  EXPECT_EQ(f.Matching(&sub), Keys_{kInvalid});

  // A comment passes its restriction's answer through, or every row without one.
  SPropValue note = Text(PROP_TAG(PT_STRING8, 0x6650), "why");
  SRestriction comment{};
  comment.rt = RES_COMMENT;
  comment.res.resComment = {1, &hasMv, &note};
  EXPECT_EQ(f.Matching(&comment), (Keys_{1, 2}));
  comment.res.resComment.lpRes = nullptr;
  EXPECT_EQ(f.Matching(&comment), (Keys_{1, 2, 3, 4, 5}));
  comment.res.resComment.lpProp = nullptr;
  EXPECT_EQ(f.Matching(&comment), Keys_{kInvalid});
}

TEST(Restriction, MalformedTreesAreRefusedAndTheOldRestrictionStays) {
  Fixture f;
  SPropValue twenty = Long(kSize, 20);
  SRestriction keep = Property(RELOP_GE, twenty);
  ASSERT_EQ(f.view->Restrict(&keep, 0), S_OK);
  auto refused = [&](SRestriction* r) {
    HRESULT restrict = f.view->Restrict(r, 0);
    HRESULT find = f.view->FindRow(r, BOOKMARK_BEGINNING, 0);
    EXPECT_EQ(restrict, find);
    EXPECT_EQ(Keys(f.view), (Keys_{2, 3, 4}));  // unchanged by the refusal
    return restrict;
  };

  SRestriction r = Property(RELOP_EQ, twenty);
  r.res.resProperty.lpProp = nullptr;
  EXPECT_EQ(refused(&r), MAPI_E_INVALID_PARAMETER);
  r = Property(RELOP_EQ, twenty, kName);  // value of another type
  EXPECT_EQ(refused(&r), MAPI_E_INVALID_PARAMETER);
  r = Property(99, twenty);
  EXPECT_EQ(refused(&r), MAPI_E_INVALID_PARAMETER);
  r = Property(RELOP_RE, twenty);  // unbounded matching time: refused
  EXPECT_EQ(refused(&r), MAPI_E_TOO_COMPLEX);
  SPropValue nullText = Text(kName, nullptr);
  r = Property(RELOP_EQ, nullText);
  EXPECT_EQ(refused(&r), MAPI_E_INVALID_PARAMETER);
  r = Property(RELOP_EQ, twenty, PROP_TAG(PT_OBJECT, 0x6620));
  EXPECT_EQ(refused(&r), MAPI_E_INVALID_PARAMETER);
  SRestriction unknown{};
  unknown.rt = 0x77;
  EXPECT_EQ(refused(&unknown), MAPI_E_INVALID_PARAMETER);
  SRestriction count{};
  count.rt = RES_COUNT;
  count.res.resCount = {1, &keep};
  EXPECT_EQ(refused(&count), MAPI_E_TOO_COMPLEX);
  SRestriction size{};
  size.rt = RES_SIZE;
  size.res.resSize = {RELOP_RE, kName, 1};
  EXPECT_EQ(refused(&size), MAPI_E_TOO_COMPLEX);

  // NULL where a child must be, at the top and deep down.
  SRestriction notNull = Nest(RES_NOT, nullptr, 1);
  EXPECT_EQ(refused(&notNull), MAPI_E_INVALID_PARAMETER);
  SRestriction subNull = Nest(RES_SUBRESTRICTION, nullptr, 1);
  EXPECT_EQ(refused(&subNull), MAPI_E_INVALID_PARAMETER);
  SRestriction inner[2] = {keep, notNull};
  SRestriction deepNull = Nest(RES_OR, inner, 2);
  EXPECT_EQ(refused(&deepNull), MAPI_E_INVALID_PARAMETER);
  SRestriction hugeNull = Nest(RES_AND, nullptr, 0xFFFFFFFF);
  EXPECT_EQ(refused(&hugeNull), MAPI_E_INVALID_PARAMETER);
  // A count beyond what could ever be walked is refused before anything behind it is read.
  SRestriction hugeCount = Nest(RES_OR, &keep, 0xFFFFFFFF);
  EXPECT_EQ(refused(&hugeCount), MAPI_E_TOO_COMPLEX);
  EXPECT_EQ(f.view->Restrict(nullptr, 0), S_OK);
  EXPECT_EQ(f.view->FindRow(nullptr, BOOKMARK_BEGINNING, 0), MAPI_E_INVALID_PARAMETER);
}

TEST(Restriction, HostileDepthCyclesAndSharingEndInAnError) {
  Fixture f;
  // 100000 nested NOTs.
  std::vector<SRestriction> chain(100000);
  for (size_t i = 0; i + 1 < chain.size(); ++i) chain[i] = Nest(RES_NOT, &chain[i + 1], 1);
  chain.back() = Exist(kKey);
  EXPECT_EQ(f.view->Restrict(chain.data(), 0), MAPI_E_TOO_COMPLEX);
  EXPECT_EQ(f.view->FindRow(chain.data(), BOOKMARK_BEGINNING, 0), MAPI_E_TOO_COMPLEX);
  // The same chain cut to a reasonable depth works: an even number of NOTs is a no-op.
  EXPECT_EQ(f.view->Restrict(&chain[chain.size() - 201], 0), S_OK);
  EXPECT_EQ(Keys(f.view), (Keys_{1, 2, 3, 4, 5}));

  // A tree that contains itself.
  SRestriction loop{};
  loop = Nest(RES_NOT, &loop, 1);
  EXPECT_EQ(f.view->Restrict(&loop, 0), MAPI_E_TOO_COMPLEX);
  SRestriction ring[2];
  ring[0] = Nest(RES_AND, &ring[1], 1);
  ring[1] = Nest(RES_OR, &ring[0], 1);
  EXPECT_EQ(f.view->Restrict(ring, 0), MAPI_E_TOO_COMPLEX);

  // Shared subtrees: 60 levels of AND over the same pair would be 2^60 nodes to walk.
  std::vector<SRestriction> levels(60);
  std::vector<SRestriction> pairs(60 * 2);
  levels.back() = Exist(kKey);
  for (size_t i = levels.size() - 1; i-- > 0;) {
    pairs[2 * i] = pairs[2 * i + 1] = levels[i + 1];
    levels[i] = Nest(RES_AND, &pairs[2 * i], 2);
  }
  EXPECT_EQ(f.view->Restrict(&levels[0], 0), MAPI_E_TOO_COMPLEX);

  // A wide but honest tree is fine.
  std::vector<SRestriction> wide(50000, Exist(kName));
  SRestriction any = Nest(RES_OR, wide.data(), ULONG(wide.size()));
  ASSERT_EQ(f.view->Restrict(&any, 0), S_OK);
  EXPECT_EQ(Keys(f.view), (Keys_{1, 2, 3, 4}));
}

TEST(Restriction, AViewKeepsItsOwnCopyAndAppliesItToLaterRows) {
  Fixture f;
  auto value = std::make_unique<SPropValue>(Text(kName, "late"));
  auto res = std::make_unique<SRestriction>(Content(FL_PREFIX, *value));
  ASSERT_EQ(f.view->Restrict(res.get(), 0), S_OK);
  std::memset(value.get(), 0xAB, sizeof(SPropValue));
  std::memset(res.get(), 0xCD, sizeof(SRestriction));
  value.reset();
  res.reset();
  EXPECT_EQ(Keys(f.view), Keys_{});
  ASSERT_EQ(Put(f.data, Item(9, "later", 1)), S_OK);
  ASSERT_EQ(Put(f.data, Item(10, "early", 1)), S_OK);
  EXPECT_EQ(Keys(f.view), Keys_{9});
  // A row that changes into and out of the restriction follows it.
  ASSERT_EQ(Put(f.data, Item(10, "latest", 1)), S_OK);
  ASSERT_EQ(Put(f.data, Item(9, "gone", 1)), S_OK);
  EXPECT_EQ(Keys(f.view), Keys_{10});
}
