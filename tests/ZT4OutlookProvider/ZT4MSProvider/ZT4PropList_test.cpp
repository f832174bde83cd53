#include "ZT4PropList.h"

#include <gtest/gtest.h>

#include <mapitags.h>

#include "ZT4PropList_test_util.h"
#include "trace_fixture.h"

using namespace zt4test;

namespace {

const GUID kGuid1 = {0x01020304, 0x0506, 0x0708, {9, 10, 11, 12, 13, 14, 15, 16}};
const GUID kGuid2 = {0xA1A2A3A4, 0xB1B2, 0xC1C2, {0xD1, 0xD2, 0xD3, 0xD4, 0xD5, 0xD6, 0xD7, 0xD8}};

LE& GuidBytes(LE& e, const GUID& g) { return e.u32(g.Data1).u16(g.Data2).u16(g.Data3).raw(g.Data4, 8); }

// Appends one stored node: size, tag, 16 value bytes, data area.
void Node(LE& e, ULONG ulTag, const Bytes& value16, const Bytes& data) {
  ASSERT_EQ(value16.size(), 16u);
  e.u32(ULONG(24 + data.size())).u32(ulTag).bytes(value16).bytes(data);
}
Bytes Value(const LE& e) {
  Bytes b = e.get();
  b.resize(16, 0);
  return b;
}

// A list with a value of every type the list stores, and the bytes it must be stored as.
struct EveryType {
  short i2 = -1234;
  SHORT mvI2[2] = {1, -1};
  LONG mvLong[3] = {7, 8, 9};
  float mvR4[1] = {0.5f};
  double mvDbl[2] = {1.0, 2.0};
  CURRENCY mvCur[1];
  double mvAt[1] = {6.5};
  LARGE_INTEGER mvI8[1];
  FILETIME ft = {0xAABBCCDD, 0x01D00000};
  FILETIME mvFt[1] = {{1, 2}};
  GUID mvGuid[2] = {kGuid1, kGuid2};
  LPSTR mvStr[3] = {const_cast<LPSTR>("a"), NULL, const_cast<LPSTR>("bc")};
  LPWSTR mvWstr[3] = {const_cast<LPWSTR>(WIDE("x")), NULL, const_cast<LPWSTR>(WIDE("yz"))};
  BYTE blob[3] = {1, 2, 3};
  BYTE two[2] = {0xE1, 0xE2};
  SBinary mvBin[2];
  std::vector<SPropValue> props;
  Bytes expected;

  EveryType() {
    mvCur[0].int64 = 5;
    mvI8[0].QuadPart = 1ll << 40;
    mvBin[0].cb = 2;
    mvBin[0].lpb = two;
    mvBin[1].cb = 0;
    mvBin[1].lpb = NULL;
    LE e;
    ULONG id = 0x6601;
    auto add = [&](SPropValue v, const Bytes& value16, const Bytes& data) {
      props.push_back(v);
      Node(e, v.ulPropTag, value16, data);
      ++id;
    };
    SPropValue v;
    v = Prop(PROP_TAG(PT_I2, id)), v.Value.i = i2;
    add(v, Value(LE().u16(WORD(i2))), {});
    v = LongProp(PROP_TAG(PT_LONG, id), 0x11223344);
    add(v, Value(LE().u32(0x11223344)), {});
    v = Prop(PROP_TAG(PT_R4, id)), v.Value.flt = 1.5f;
    add(v, Value(LE().raw(&v.Value.flt, 4)), {});
    v = Prop(PROP_TAG(PT_DOUBLE, id)), v.Value.dbl = 2.25;
    add(v, Value(LE().raw(&v.Value.dbl, 8)), {});
    v = Prop(PROP_TAG(PT_CURRENCY, id)), v.Value.cur.int64 = 123456789012ll;
    add(v, Value(LE().u64(123456789012ull)), {});
    v = Prop(PROP_TAG(PT_APPTIME, id)), v.Value.at = 3.5;
    add(v, Value(LE().raw(&v.Value.at, 8)), {});
    v = Prop(PROP_TAG(PT_BOOLEAN, id)), v.Value.b = 1;
    add(v, Value(LE().u16(1)), {});
    v = Prop(PROP_TAG(PT_I8, id)), v.Value.li.QuadPart = 0x0102030405060708ll;
    add(v, Value(LE().u64(0x0102030405060708ull)), {});
    v = Prop(PROP_TAG(PT_SYSTIME, id)), v.Value.ft = ft;
    add(v, Value(LE().u32(ft.dwLowDateTime).u32(ft.dwHighDateTime)), {});
    v = Prop(PROP_TAG(PT_OBJECT, id)), v.Value.li.QuadPart = 0x55;
    add(v, Value(LE().u64(0x55)), {});
    add(StringProp(PROP_TAG(PT_STRING8, id), "abc"), Value(LE()), LE().str("abc").get());
    add(WideProp(PROP_TAG(PT_UNICODE, id), WIDE("h\u00e9")), Value(LE()), LE().u16('h').u16(0xE9).u16(0).get());
    v = Prop(PROP_TAG(PT_CLSID, id)), v.Value.lpguid = const_cast<LPGUID>(&kGuid1);
    {
      LE g;
      add(v, Value(LE()), GuidBytes(g, kGuid1).get());
    }
    add(BinProp(PROP_TAG(PT_BINARY, id), blob, 3), Value(LE().u32(3)), LE().raw(blob, 3).get());
    add(BinProp(PROP_TAG(PT_BINARY, id), NULL, 0), Value(LE()), {});
    v = Prop(PROP_TAG(PT_MV_I2, id)), v.Value.MVi.cValues = 2, v.Value.MVi.lpi = mvI2;
    add(v, Value(LE().u32(2)), LE().u16(1).u16(0xFFFF).get());
    v = Prop(PROP_TAG(PT_MV_LONG, id)), v.Value.MVl.cValues = 3, v.Value.MVl.lpl = mvLong;
    add(v, Value(LE().u32(3)), LE().u32(7).u32(8).u32(9).get());
    v = Prop(PROP_TAG(PT_MV_R4, id)), v.Value.MVflt.cValues = 1, v.Value.MVflt.lpflt = mvR4;
    add(v, Value(LE().u32(1)), LE().raw(mvR4, 4).get());
    v = Prop(PROP_TAG(PT_MV_DOUBLE, id)), v.Value.MVdbl.cValues = 2, v.Value.MVdbl.lpdbl = mvDbl;
    add(v, Value(LE().u32(2)), LE().raw(mvDbl, 16).get());
    v = Prop(PROP_TAG(PT_MV_CURRENCY, id)), v.Value.MVcur.cValues = 1, v.Value.MVcur.lpcur = mvCur;
    add(v, Value(LE().u32(1)), LE().u64(5).get());
    v = Prop(PROP_TAG(PT_MV_APPTIME, id)), v.Value.MVat.cValues = 1, v.Value.MVat.lpat = mvAt;
    add(v, Value(LE().u32(1)), LE().raw(mvAt, 8).get());
    v = Prop(PROP_TAG(PT_MV_I8, id)), v.Value.MVli.cValues = 1, v.Value.MVli.lpli = mvI8;
    add(v, Value(LE().u32(1)), LE().u64(1ull << 40).get());
    v = Prop(PROP_TAG(PT_MV_SYSTIME, id)), v.Value.MVft.cValues = 1, v.Value.MVft.lpft = mvFt;
    add(v, Value(LE().u32(1)), LE().u32(1).u32(2).get());
    v = Prop(PROP_TAG(PT_MV_CLSID, id)), v.Value.MVguid.cValues = 2, v.Value.MVguid.lpguid = mvGuid;
    {
      LE g;
      GuidBytes(g, kGuid1);
      GuidBytes(g, kGuid2);
      add(v, Value(LE().u32(2)), g.get());
    }
    // Array entries hold offsets in the data area; zero only for a NULL string.
    v = Prop(PROP_TAG(PT_MV_STRING8, id)), v.Value.MVszA.cValues = 3, v.Value.MVszA.lppszA = mvStr;
    add(v, Value(LE().u32(3)), LE().u64(24).u64(0).u64(26).str("a").str("bc").get());
    // Four times the room the strings need; the tail stays zero.
    v = Prop(PROP_TAG(PT_MV_UNICODE, id)), v.Value.MVszW.cValues = 3, v.Value.MVszW.lppszW = mvWstr;
    add(v, Value(LE().u32(3)), LE().u64(24).u64(0).u64(28).wstr(WIDE("x")).wstr(WIDE("yz")).zeros(30).get());
    v = Prop(PROP_TAG(PT_MV_BINARY, id)), v.Value.MVbin.cValues = 2, v.Value.MVbin.lpbin = mvBin;
    add(v, Value(LE().u32(2)), LE().u32(2).u32(0).u64(32).u32(0).u32(0).u64(34).raw(two, 2).get());
    MakeLargeStub(PROP_TAG(PT_BINARY, id), OPENPROP_STORAGE | OPENPROP_NEW, 77, &v);
    add(v, Value(LE().u16(PT_BINARY).u16(2).u32(77)), {});
    expected = LE().u32(ULONG(props.size())).bytes(e.get()).get();
  }
};

TEST_F(PropListTest, EveryTypeIsStoredByteForByteAndComesBackTheSame) {
  EveryType all;
  CPropList list;
  for (SPropValue& v : all.props) ASSERT_EQ(list.Insert(&v), S_OK);
  ASSERT_EQ(list.GetCount(), all.props.size());
  Bytes saved = Saved(list);
  ASSERT_EQ(saved, all.expected);

  IStream* pStream = NewStream(saved);
  CPropList loaded;
  ASSERT_EQ(loaded.LoadFromStream(pStream), S_OK);
  pStream->Release();
  ASSERT_EQ(loaded.GetCount(), all.props.size());
  EXPECT_EQ(Saved(loaded), all.expected);

  // Pointers were mended into each node's own data area.
  SPropValue v;
  ASSERT_EQ(loaded.Find(PROP_TAG(PT_STRING8, 0x660B), &v), S_OK);
  EXPECT_STREQ(v.Value.lpszA, "abc");
  ASSERT_EQ(loaded.Find(PROP_TAG(PT_UNICODE, 0x660C), &v), S_OK);
  EXPECT_EQ(std::u16string(v.Value.lpszW), std::u16string(WIDE("h\u00e9")));
  ASSERT_EQ(loaded.Find(PROP_TAG(PT_CLSID, 0x660D), &v), S_OK);
  EXPECT_EQ(memcmp(v.Value.lpguid, &kGuid1, sizeof(GUID)), 0);
  ASSERT_EQ(loaded.Find(PROP_TAG(PT_BINARY, 0x660F), &v), S_OK);
  EXPECT_EQ(v.Value.bin.cb, 0u);
  EXPECT_NE(v.Value.bin.lpb, nullptr);  // the empty data area
  ASSERT_EQ(loaded.Find(PROP_TAG(PT_MV_STRING8, 0x6619), &v), S_OK);
  ASSERT_EQ(v.Value.MVszA.cValues, 3u);
  EXPECT_STREQ(v.Value.MVszA.lppszA[0], "a");
  EXPECT_EQ(v.Value.MVszA.lppszA[1], nullptr);
  EXPECT_STREQ(v.Value.MVszA.lppszA[2], "bc");
  ASSERT_EQ(loaded.Find(PROP_TAG(PT_MV_UNICODE, 0x661A), &v), S_OK);
  EXPECT_EQ(std::u16string(v.Value.MVszW.lppszW[0]), std::u16string(WIDE("x")));
  EXPECT_EQ(v.Value.MVszW.lppszW[1], nullptr);
  EXPECT_EQ(std::u16string(v.Value.MVszW.lppszW[2]), std::u16string(WIDE("yz")));
  ASSERT_EQ(loaded.Find(PROP_TAG(PT_MV_BINARY, 0x661B), &v), S_OK);
  ASSERT_EQ(v.Value.MVbin.cValues, 2u);
  EXPECT_EQ(v.Value.MVbin.lpbin[0].cb, 2u);
  EXPECT_EQ(v.Value.MVbin.lpbin[0].lpb[1], 0xE2);
  EXPECT_EQ(v.Value.MVbin.lpbin[1].cb, 0u);
  ULONG ulType = 0, ulKind = 0;
  DWORD dwRecord = 0;
  ASSERT_EQ(loaded.Find(PROP_TAG(PT_LARGE_STUB, 0x661C), &v, TRUE), S_OK);
  GetLargeStubInfo(&v, &ulType, &ulKind, &dwRecord);
  EXPECT_EQ(ulType, ULONG(PT_BINARY));
  EXPECT_EQ(ulKind, 2u);
  EXPECT_EQ(dwRecord, 77u);

  // Every value survives a deep copy (each pointer is followed to its end).
  LPVOID pBase = NULL;
  ASSERT_EQ(MAPIAllocateBuffer(8, &pBase), S_OK);
  for (const SPropValue& orig : all.props) {
    SPropValue copy;
    ULONG ulType = PROP_TYPE(orig.ulPropTag);
    if (ulType == PT_MV_STRING8 || ulType == PT_MV_UNICODE) {
      // PropCopyMore refuses the NULL entry; the copy becomes an error value.
      EXPECT_EQ(loaded.Find(orig.ulPropTag, &copy, TRUE, pBase), MAPI_E_INVALID_PARAMETER);
      EXPECT_EQ(PROP_TYPE(copy.ulPropTag), ULONG(PT_ERROR));
      continue;
    }
    ASSERT_EQ(loaded.Find(orig.ulPropTag, &copy, TRUE, pBase), S_OK) << std::hex << orig.ulPropTag;
    EXPECT_EQ(copy.ulPropTag, orig.ulPropTag);
    if (PROP_TYPE(orig.ulPropTag) != PT_OBJECT && PROP_TYPE(orig.ulPropTag) != PT_LARGE_STUB &&
        !(PROP_TYPE(orig.ulPropTag) & MV_FLAG)) {
      EXPECT_EQ(LPropCompareProp(&copy, const_cast<LPSPropValue>(&orig)), 0) << std::hex << orig.ulPropTag;
    }
  }
  MAPIFreeBuffer(pBase);
}

TEST_F(PropListTest, TypesTheListCannotStoreAreDroppedSilently) {
  CPropList list;
  for (ULONG ulType : {PT_ERROR, PT_NULL, PT_UNSPECIFIED, ULONG(0xFD), ULONG(0xFE), ULONG(MV_FLAG | PT_OBJECT)}) {
    SPropValue v = LongProp(PROP_TAG(ulType, 0x6700), 1);
    EXPECT_EQ(list.Insert(&v), S_OK);
  }
  EXPECT_EQ(list.GetCount(), 0u);
  LPPROPNODE pNode = NULL;
  SPropValue v = LongProp(PROP_TAG(PT_ERROR, 0x6700), MAPI_E_NOT_FOUND);
  EXPECT_EQ(CPropList::Flatten(&v, &pNode), MAPI_W_ERRORS_RETURNED);
  EXPECT_EQ(pNode, nullptr);
  // Values whose pointers are missing are refused, not followed.
  SPropValue bad = StringProp(PR_SUBJECT_A, NULL);
  EXPECT_EQ(list.Insert(&bad), MAPI_E_INVALID_PARAMETER);
  bad = BinProp(PROP_TAG(PT_BINARY, 0x6701), NULL, 5);
  EXPECT_EQ(list.Insert(&bad), MAPI_E_INVALID_PARAMETER);
  bad = Prop(PROP_TAG(PT_MV_LONG, 0x6702)), bad.Value.MVl.cValues = 2;
  EXPECT_EQ(list.Insert(&bad), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(list.Insert(NULL), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(list.GetCount(), 0u);
}

TEST_F(PropListTest, InsertKeepsOneNodePerIDAtItsFirstPlace) {
  CPropList list;
  SPropValue subject = StringProp(PR_SUBJECT_A, "first");
  SPropValue flags = LongProp(PR_MESSAGE_FLAGS, 1);
  SPropValue importance = LongProp(PR_IMPORTANCE, 2);
  ASSERT_EQ(list.Insert(&subject), S_OK);
  ASSERT_EQ(list.Insert(&flags), S_OK);
  ASSERT_EQ(list.Insert(&importance), S_OK);

  // Same ID, other type: the new node takes the old one's place.
  SPropValue wide = WideProp(PR_SUBJECT_W, WIDE("second"));
  ASSERT_EQ(list.Insert(&wide), S_OK);
  ASSERT_EQ(list.GetCount(), 3u);
  EXPECT_EQ(list.GetFirstNode()->ulPropTag, ULONG(PR_SUBJECT_W));
  // Same ID in the middle and at the end.
  SPropValue flagsAsString = StringProp(PROP_TAG(PT_STRING8, PROP_ID(PR_MESSAGE_FLAGS)), "x");
  ASSERT_EQ(list.Insert(&flagsAsString), S_OK);
  SPropValue importanceAsBin = BinProp(PROP_TAG(PT_BINARY, PROP_ID(PR_IMPORTANCE)), (const BYTE*)"z", 1);
  ASSERT_EQ(list.Insert(&importanceAsBin), S_OK);
  std::vector<ULONG> tags;
  for (const PROPNODE* p = list.GetFirstNode(); p; p = list.GetNextNode()) tags.push_back(p->ulPropTag);
  EXPECT_EQ(tags, (std::vector<ULONG>{PR_SUBJECT_W, flagsAsString.ulPropTag, importanceAsBin.ulPropTag}));
  ASSERT_EQ(list.GetCount(), 3u);

  // A new ID after a replaced tail still goes to the end.
  SPropValue extra = LongProp(PROP_TAG(PT_LONG, 0x6800), 9);
  ASSERT_EQ(list.Insert(&extra), S_OK);
  IStream* pStream = NewStream(Saved(list));
  CPropList loaded;
  ASSERT_EQ(loaded.LoadFromStream(pStream), S_OK);
  pStream->Release();
  tags.clear();
  for (const PROPNODE* p = loaded.GetFirstNode(); p; p = loaded.GetNextNode()) tags.push_back(p->ulPropTag);
  EXPECT_EQ(tags, (std::vector<ULONG>{PR_SUBJECT_W, flagsAsString.ulPropTag, importanceAsBin.ulPropTag, extra.ulPropTag}));

  // A fixed-size value of the same tag is overwritten in its node: no new node.
  const PROPNODE* pBefore = loaded.GetFirstNode();
  pBefore = loaded.GetNextNode(), pBefore = loaded.GetNextNode(), pBefore = loaded.GetNextNode();
  extra.Value.l = 10;
  ASSERT_EQ(loaded.Insert(&extra), S_OK);
  SPropValue found;
  ASSERT_EQ(loaded.Find(extra.ulPropTag, &found), S_OK);
  EXPECT_EQ(found.Value.l, 10);
  const PROPNODE* pAfter = loaded.GetFirstNode();
  for (int i = 0; i < 3; ++i) pAfter = loaded.GetNextNode();
  EXPECT_EQ(pAfter, pBefore);
  EXPECT_FALSE(list.IsModified());  // nothing in the list sets the flag
}

// The in-place update takes PT_UNICODE too: the node keeps the caller's pointer while its data
// area keeps the old text, and the old text is what a save writes.
TEST_F(PropListTest, UnicodeUpdateInPlaceKeepsTheCallersPointerAndSavesTheOldText) {
  CPropList list;
  SPropValue v = WideProp(PR_SUBJECT_W, WIDE("old"));
  ASSERT_EQ(list.Insert(&v), S_OK);
  Bytes before = Saved(list);
  std::u16string caller = WIDE("brand new");
  v.Value.lpszW = caller.data();
  ASSERT_EQ(list.Insert(&v), S_OK);
  SPropValue found;
  ASSERT_EQ(list.Find(PR_SUBJECT_W, &found), S_OK);
  EXPECT_EQ(found.Value.lpszW, caller.data());
  EXPECT_EQ(list.GetFirstNode()->dwSize, 24u + 8u);
  EXPECT_EQ(Saved(list), before);

  IStream* pStream = NewStream(Saved(list));
  CPropList loaded;
  ASSERT_EQ(loaded.LoadFromStream(pStream), S_OK);
  pStream->Release();
  ASSERT_EQ(loaded.Find(PR_SUBJECT_W, &found), S_OK);
  EXPECT_EQ(std::u16string(found.Value.lpszW), std::u16string(WIDE("old")));
}

TEST_F(PropListTest, FindMatchesByIDAndOptionallyByType) {
  CPropList list;
  SPropValue subject = StringProp(PR_SUBJECT_A, "hello");
  ASSERT_EQ(list.Insert(&subject), S_OK);
  SPropValue v;
  // Any type of the ID, shallow: the pointer is the node's.
  ASSERT_EQ(list.Find(PR_SUBJECT_W, &v), S_OK);
  EXPECT_EQ(v.ulPropTag, ULONG(PR_SUBJECT_A));
  EXPECT_EQ(v.Value.lpszA, reinterpret_cast<LPSTR>(PropNodeData(list.GetFirstNode())));
  // Exact type: a different type is not found, and the answer is a PT_ERROR of the asked ID.
  EXPECT_EQ(list.Find(PR_SUBJECT_W, &v, TRUE), MAPI_E_NOT_FOUND);
  EXPECT_EQ(v.ulPropTag, ULONG(PROP_TAG(PT_ERROR, 0x0037)));
  EXPECT_EQ(v.Value.err, MAPI_E_NOT_FOUND);
  // PT_UNSPECIFIED asks for whatever type is there.
  ASSERT_EQ(list.Find(PROP_TAG(PT_UNSPECIFIED, 0x0037), &v, TRUE), S_OK);
  EXPECT_EQ(v.ulPropTag, ULONG(PR_SUBJECT_A));
  EXPECT_EQ(list.Find(PR_IMPORTANCE, &v), MAPI_E_NOT_FOUND);
  EXPECT_EQ(v.ulPropTag, ULONG(PROP_TAG(PT_ERROR, PROP_ID(PR_IMPORTANCE))));

  // Deep: chained to the base, not pointing into the list.
  LPVOID pBase = NULL;
  ASSERT_EQ(MAPIAllocateBuffer(8, &pBase), S_OK);
  ASSERT_EQ(list.Find(PR_SUBJECT_A, &v, TRUE, pBase), S_OK);
  EXPECT_STREQ(v.Value.lpszA, "hello");
  EXPECT_NE(v.Value.lpszA, reinterpret_cast<LPSTR>(PropNodeData(list.GetFirstNode())));
  list.Clear();
  EXPECT_STREQ(v.Value.lpszA, "hello");
  // A stub is copied raw, 24 bytes.
  SPropValue stub;
  MakeLargeStub(PR_BODY_A, OPENPROP_STREAM, 0x1234, &stub);
  ASSERT_EQ(list.Insert(&stub), S_OK);
  SPropValue copy;
  memset(&copy, 0xCC, sizeof(copy));
  ASSERT_EQ(list.Find(PR_BODY_A, &copy, FALSE, pBase), S_OK);
  EXPECT_EQ(memcmp(&copy, &stub, sizeof(SPropValue)), 0);
  MAPIFreeBuffer(pBase);
}

SCODE STDMETHODCALLTYPE FailingAllocateMore(ULONG, LPVOID, LPVOID* ppv) {
  *ppv = NULL;
  return MAPI_E_NOT_ENOUGH_MEMORY;
}

TEST_F(PropListTest, AFailedDeepCopyIsLoggedAndGivesAnErrorValue) {
  TraceLog log(5);
  CPropList list;
  SPropValue subject = StringProp(PR_SUBJECT_A, "hello");
  ASSERT_EQ(list.Insert(&subject), S_OK);
  SetMAPIAllocRoutines(MAPIAllocateBuffer, FailingAllocateMore, MAPIFreeBuffer);
  LPVOID pBase = NULL;
  ASSERT_EQ(MAPIAllocateBuffer(8, &pBase), S_OK);
  SPropValue v;
  EXPECT_EQ(list.Find(PR_SUBJECT_A, &v, FALSE, pBase), MAPI_E_NOT_ENOUGH_MEMORY);
  EXPECT_EQ(v.ulPropTag, ULONG(PROP_TAG(PT_ERROR, 0x0037)));
  EXPECT_EQ(v.Value.err, MAPI_E_NOT_ENOUGH_MEMORY);
  EXPECT_TRUE(log.Has(" CPropList::Copy: PropCopyMore failed\r\n"));
  MAPIFreeBuffer(pBase);
}

TEST_F(PropListTest, DeleteMatchesByIDAndHandsBackTheNumbers) {
  CPropList list;
  EXPECT_EQ(list.Delete(PR_SUBJECT_A), S_OK);  // an empty list has nothing to miss
  SPropValue a = LongProp(PROP_TAG(PT_LONG, 0x6601), 1);
  SPropValue b = LongProp(PROP_TAG(PT_LONG, 0x6602), 2);
  SPropValue c = LongProp(PROP_TAG(PT_LONG, 0x6603), 3);
  for (SPropValue* p : {&a, &b, &c}) ASSERT_EQ(list.Insert(p), S_OK);
  EXPECT_EQ(list.Delete(PR_SUBJECT_A), MAPI_E_NOT_FOUND);
  SPropValue out;
  ASSERT_EQ(list.Delete(PROP_TAG(PT_STRING8, 0x6603), &out), S_OK);  // the type plays no part
  EXPECT_EQ(out.ulPropTag, c.ulPropTag);
  EXPECT_EQ(out.Value.l, 3);
  EXPECT_EQ(list.GetCount(), 2u);
  // The tail went; a new value still lands behind the others.
  SPropValue d = LongProp(PROP_TAG(PT_LONG, 0x6604), 4);
  ASSERT_EQ(list.Insert(&d), S_OK);
  ASSERT_EQ(list.Delete(a.ulPropTag), S_OK);
  LPSPropTagArray pTags = NULL;
  ASSERT_EQ(list.GetTags(&pTags), S_OK);
  ASSERT_EQ(pTags->cValues, 2u);
  EXPECT_EQ(pTags->aulPropTag[0], b.ulPropTag);
  EXPECT_EQ(pTags->aulPropTag[1], d.ulPropTag);
  MAPIFreeBuffer(pTags);

  LPSPropValue pProps = NULL;
  ULONG cValues = 0;
  ASSERT_EQ(list.GetAllProps(&pProps, &cValues), S_OK);
  ASSERT_EQ(cValues, 2u);
  EXPECT_EQ(pProps[0].ulPropTag, b.ulPropTag);
  EXPECT_EQ(pProps[1].Value.l, 4);
  MAPIFreeBuffer(pProps);
  list.Clear();
  ASSERT_EQ(list.GetTags(&pTags), S_OK);
  EXPECT_EQ(pTags->cValues, 0u);
  MAPIFreeBuffer(pTags);
  EXPECT_EQ(list.GetAllProps(&pProps, &cValues), S_OK);
  EXPECT_EQ(cValues, 0u);
}

TEST_F(PropListTest, AnEmptyListIsStoredAsAnEmptyStreamAndLoadsBack) {
  TraceLog log(5);
  CPropList list;
  IStream* pStream = NewStream(Bytes(100, 0xAB));
  SeekTo(pStream, 50);
  ASSERT_EQ(list.SaveToStream(pStream), S_OK);
  EXPECT_TRUE(Contents(pStream).empty());
  SPropValue v = LongProp(PR_IMPORTANCE, 1);
  ASSERT_EQ(list.Insert(&v), S_OK);
  SeekTo(pStream, 0);
  ASSERT_EQ(list.LoadFromStream(pStream), S_OK);
  EXPECT_EQ(list.GetCount(), 0u);
  // A count of zero, as a new field is primed, is an empty list too.
  pStream->Release();
  pStream = NewStream(LE().u32(0).get());
  ASSERT_EQ(list.Insert(&v), S_OK);
  ASSERT_EQ(list.LoadFromStream(pStream), S_OK);
  EXPECT_EQ(list.GetCount(), 0u);
  pStream->Release();
  EXPECT_FALSE(log.Has("I/O operation failed"));
}

TEST_F(PropListTest, SaveRewritesFromTheStartAndCutsTheStream) {
  CPropList list;
  SPropValue v = LongProp(PR_IMPORTANCE, 7);
  ASSERT_EQ(list.Insert(&v), S_OK);
  list.SetModified(TRUE);
  IStream* pStream = NewStream(Bytes(200, 0xAB));
  SeekTo(pStream, 120);
  ASSERT_EQ(list.SaveToStream(pStream), S_OK);
  EXPECT_FALSE(list.IsModified());
  Bytes expected = LE().u32(1).u32(24).u32(PR_IMPORTANCE).u32(7).zeros(12).get();
  EXPECT_EQ(Contents(pStream), expected);
  pStream->Release();
}

TEST_F(PropListTest, AFailedSaveIsLoggedAndKeepsTheModifiedFlag) {
  TraceLog log(5);
  CPropList list;
  SPropValue v = StringProp(PR_SUBJECT_A, "x");
  ASSERT_EQ(list.Insert(&v), S_OK);
  for (int call : {1, 2}) {
    CFaultyStream* pStream = new CFaultyStream;
    pStream->failWriteCalls = {call};
    list.SetModified(TRUE);
    EXPECT_EQ(list.SaveToStream(pStream), STG_E_WRITEFAULT);
    EXPECT_TRUE(list.IsModified());
    pStream->Release();
  }
  CFaultyStream* pStream = new CFaultyStream;
  pStream->failSetSize = true;
  EXPECT_EQ(list.SaveToStream(pStream), STG_E_MEDIUMFULL);
  EXPECT_TRUE(list.IsModified());
  pStream->Release();
  EXPECT_TRUE(log.Has(" SaveToStream: I/O operation failed\r\n"));
}

TEST_F(PropListTest, LoadReadsFromThePositionAndClearsTheModifiedFlag) {
  CPropList source;
  SPropValue v = StringProp(PR_SUBJECT_A, "here");
  ASSERT_EQ(source.Insert(&v), S_OK);
  Bytes bytes = LE().u32(0xDEADBEEF).u32(0xDEADBEEF).bytes(Saved(source)).get();
  IStream* pStream = NewStream(bytes);
  SeekTo(pStream, 8);
  CPropList list;
  list.SetModified(TRUE);
  ASSERT_EQ(list.LoadFromStream(pStream), S_OK);
  EXPECT_FALSE(list.IsModified());
  SPropValue found;
  ASSERT_EQ(list.Find(PR_SUBJECT_A, &found), S_OK);
  EXPECT_STREQ(found.Value.lpszA, "here");
  pStream->Release();
}

// A failure after the first node keeps what was read and reports success; a failure before it
// puts the old list back.
TEST_F(PropListTest, ATruncatedStreamGivesThePartialListButAFirstNodeFailureRestores) {
  TraceLog log(5);
  CPropList source;
  SPropValue a = StringProp(PROP_TAG(PT_STRING8, 0x6601), "one");
  SPropValue b = StringProp(PROP_TAG(PT_STRING8, 0x6602), "two");
  SPropValue c = StringProp(PROP_TAG(PT_STRING8, 0x6603), "three");
  for (SPropValue* p : {&a, &b, &c}) ASSERT_EQ(source.Insert(p), S_OK);
  Bytes bytes = Saved(source);
  // 4 + 28 + 28 + (30): end in the middle of the third node.
  Bytes cut(bytes.begin(), bytes.begin() + 4 + 28 + 28 + 10);
  IStream* pStream = NewStream(cut);
  CPropList list;
  SPropValue old = LongProp(PR_IMPORTANCE, 1);
  ASSERT_EQ(list.Insert(&old), S_OK);
  list.SetModified(TRUE);
  ASSERT_EQ(list.LoadFromStream(pStream), S_OK);
  EXPECT_EQ(list.GetCount(), 2u);
  EXPECT_FALSE(list.IsModified());
  SPropValue found;
  EXPECT_EQ(list.Find(PR_IMPORTANCE, &found), MAPI_E_NOT_FOUND);
  ASSERT_EQ(list.Find(b.ulPropTag, &found), S_OK);
  EXPECT_STREQ(found.Value.lpszA, "two");
  EXPECT_TRUE(log.Has(" CPropList::LoadFromStream: Failed to load all property nodes\r\n"));
  EXPECT_FALSE(log.Has(" LoadFromStream: I/O operation failed\r\n"));
  pStream->Release();

  // The list can still grow after a partial load.
  ASSERT_EQ(list.Insert(&c), S_OK);
  EXPECT_EQ(list.GetCount(), 3u);

  // Cut inside the first node: the old contents come back and the call fails.
  Bytes first(bytes.begin(), bytes.begin() + 4 + 20);
  pStream = NewStream(first);
  list.SetModified(TRUE);
  EXPECT_EQ(list.LoadFromStream(pStream), MAPI_E_CORRUPT_DATA);
  EXPECT_EQ(list.GetCount(), 3u);
  EXPECT_TRUE(list.IsModified());
  ASSERT_EQ(list.Find(c.ulPropTag, &found), S_OK);
  EXPECT_STREQ(found.Value.lpszA, "three");
  EXPECT_TRUE(log.Has(" LoadFromStream: I/O operation failed\r\n"));
  pStream->Release();

  // A stream that can't even tell its size is a failure before the first node.
  CFaultyStream* pFaulty = new CFaultyStream;
  pFaulty->failStat = true;
  EXPECT_EQ(list.LoadFromStream(pFaulty), STG_E_ACCESSDENIED);
  EXPECT_EQ(list.GetCount(), 3u);
  pFaulty->Release();
}

// An empty source leaves the target as it was.
TEST_F(PropListTest, CopyFromReplacesUnlessTheSourceIsEmpty) {
  CPropList target, empty, source;
  SPropValue keep = LongProp(PR_IMPORTANCE, 5);
  ASSERT_EQ(target.Insert(&keep), S_OK);
  ASSERT_EQ(target.CopyFrom(&empty), S_OK);
  EXPECT_EQ(target.GetCount(), 1u);
  ASSERT_EQ(target.CopyFrom(&target), S_OK);
  EXPECT_EQ(target.GetCount(), 1u);

  EveryType all;
  for (SPropValue& v : all.props) ASSERT_EQ(source.Insert(&v), S_OK);
  ASSERT_EQ(target.CopyFrom(&source), S_OK);
  SPropValue found;
  EXPECT_EQ(target.Find(PR_IMPORTANCE, &found), MAPI_E_NOT_FOUND);
  source.Clear();
  EXPECT_EQ(Saved(target), all.expected);
}

TEST_F(PropListTest, CopyToStreamWritesTheValueBytesWithoutTerminator) {
  CPropList list;
  SPropValue s = StringProp(PR_BODY_A, "body text");
  BYTE blob[4] = {1, 2, 3, 4};
  SPropValue b = BinProp(PROP_TAG(PT_BINARY, 0x6601), blob, 4);
  SPropValue w = WideProp(PROP_TAG(PT_UNICODE, 0x6602), WIDE("ok"));
  SPropValue l = LongProp(PROP_TAG(PT_LONG, 0x6603), 0x01020304);
  SPropValue mv = Prop(PROP_TAG(PT_MV_LONG, 0x6604));
  for (SPropValue* p : {&s, &b, &w, &l, &mv}) ASSERT_EQ(list.Insert(p), S_OK);
  struct Case {
    ULONG ulTag;
    Bytes bytes;
  } cases[] = {{PR_BODY_A, LE().raw("body text", 9).get()},
               {b.ulPropTag, LE().raw(blob, 4).get()},
               {w.ulPropTag, LE().u16('o').u16('k').get()},
               {l.ulPropTag, LE().u32(0x01020304).get()}};
  for (const Case& c : cases) {
    IStream* pStream = NewStream();
    ASSERT_EQ(list.CopyToStream(c.ulTag, pStream), S_OK);
    EXPECT_EQ(Position(pStream), 0u);
    EXPECT_EQ(Contents(pStream), c.bytes);
    pStream->Release();
  }
  IStream* pStream = NewStream();
  EXPECT_EQ(list.CopyToStream(PR_IMPORTANCE, pStream), MAPI_E_NOT_FOUND);
  EXPECT_EQ(list.CopyToStream(mv.ulPropTag, pStream), MAPI_E_NO_SUPPORT);
  pStream->Release();
}

TEST_F(PropListTest, StubsCarryTypeKindAndRecord) {
  SPropValue stub;
  MakeLargeStub(PR_BODY_W, OPENPROP_STREAM | OPENPROP_OPENED | OPENPROP_NEW, 0xFFFFFFF0, &stub);
  EXPECT_EQ(stub.ulPropTag, ULONG(PROP_TAG(PT_LARGE_STUB, 0x1000)));
  // Bits 0-15 the type, 16-19 the kind, then the record.
  EXPECT_EQ(stub.Value.ul, ULONG(PT_UNICODE | (1 << 16)));
  EXPECT_EQ(stub.Value.li.HighPart, LONG(0xFFFFFFF0));
}

}  // namespace
