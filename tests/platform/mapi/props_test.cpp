#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "adplatform_mapi.h"
#include "mapicode.h"
#include "mapiutil.h"

namespace {

ULONG Tag(ULONG type, ULONG id) { return PROP_TAG(type, id); }

// One value of every type, single and multi-valued, with storage owned here.
struct AllTypes {
  short i2s[3] = {1, -2, 3};
  LONG longs[2] = {7, -9};
  float flts[2] = {1.5f, -2.25f};
  double dbls[3] = {3.5, -1e300, 0};
  CURRENCY curs[2] = {};
  double ats[2] = {45000.5, 1.25};
  FILETIME fts[2] = {{1, 2}, {3, 4}};
  LARGE_INTEGER lis[2] = {};
  GUID guids[2] = {IID_IMAPITable, PS_PUBLIC_STRINGS};
  GUID guid = PS_MAPI;
  char s1[8] = "alpha";
  char s2[8] = "";
  char single[16] = "single";
  LPSTR strs[2] = {s1, s2};
  char16_t w1[8] = u"\u00e9t\u00e9";
  char16_t w2[8] = u"w";
  char16_t wsingle[8] = u"wide";
  LPWSTR wstrs[2] = {w1, w2};
  BYTE b1[3] = {0, 1, 2};
  BYTE b2[1] = {0xFF};
  BYTE bsingle[5] = {9, 8, 7, 6, 5};
  SBinary bins[3] = {{3, b1}, {1, b2}, {0, nullptr}};
  std::vector<SPropValue> values;

  AllTypes() {
    curs[0].int64 = 123456789;
    curs[1].int64 = -5;
    lis[0].QuadPart = 1LL << 40;
    lis[1].QuadPart = -1;
    ULONG id = 0x6100;
    auto add = [&](ULONG type) -> __UPV& {
      SPropValue v{};
      v.ulPropTag = Tag(type, id++);
      values.push_back(v);
      return values.back().Value;
    };
    add(PT_I2).i = -7;
    add(PT_LONG).l = 42;
    add(PT_R4).flt = 0.5f;
    add(PT_DOUBLE).dbl = 2.75;
    add(PT_CURRENCY).cur.int64 = 99;
    add(PT_APPTIME).at = 40000.25;
    add(PT_ERROR).err = MAPI_E_NOT_FOUND;
    add(PT_BOOLEAN).b = 1;
    add(PT_OBJECT).x = 0;
    add(PT_I8).li.QuadPart = -(1LL << 50);
    add(PT_STRING8).lpszA = single;
    add(PT_UNICODE).lpszW = wsingle;
    add(PT_SYSTIME).ft = {0x89ABCDEF, 0x01234567};
    add(PT_CLSID).lpguid = &guid;
    add(PT_BINARY).bin = {5, bsingle};
    add(PT_NULL).x = 0;
    add(PT_MV_I2).MVi = {3, i2s};
    add(PT_MV_LONG).MVl = {2, longs};
    add(PT_MV_R4).MVflt = {2, flts};
    add(PT_MV_DOUBLE).MVdbl = {3, dbls};
    add(PT_MV_CURRENCY).MVcur = {2, curs};
    add(PT_MV_APPTIME).MVat = {2, ats};
    add(PT_MV_SYSTIME).MVft = {2, fts};
    add(PT_MV_I8).MVli = {2, lis};
    add(PT_MV_CLSID).MVguid = {2, guids};
    add(PT_MV_STRING8).MVszA = {2, strs};
    add(PT_MV_UNICODE).MVszW = {2, wstrs};
    add(PT_MV_BINARY).MVbin = {3, bins};
    add(PT_MV_LONG).MVl = {0, nullptr};  // an empty list stays empty
  }
  // Overwrites every byte the values point to, so a shallow copy would show it.
  void Scribble() {
    std::memset(i2s, 0x11, sizeof i2s);
    std::memset(longs, 0x11, sizeof longs);
    std::memset(flts, 0x11, sizeof flts);
    std::memset(dbls, 0x11, sizeof dbls);
    std::memset(curs, 0x11, sizeof curs);
    std::memset(ats, 0x11, sizeof ats);
    std::memset(fts, 0x11, sizeof fts);
    std::memset(lis, 0x11, sizeof lis);
    std::memset(guids, 0x11, sizeof guids);
    std::memset(&guid, 0x11, sizeof guid);
    std::memset(s1, 'x', sizeof s1 - 1);
    std::memset(single, 'x', sizeof single - 1);
    std::memset(w1, 'x', sizeof w1 - 2);
    std::memset(wsingle, 'x', sizeof wsingle - 2);
    std::memset(b1, 0x11, sizeof b1);
    std::memset(b2, 0x11, sizeof b2);
    std::memset(bsingle, 0x11, sizeof bsingle);
    bins[0].cb = 1;
  }
};

// What each sample value held before Scribble.
void ExpectOriginalContents(const SPropValue* v, size_t count) {
  ASSERT_EQ(count, 29u);
  EXPECT_EQ(v[0].Value.i, -7);
  EXPECT_EQ(v[1].Value.l, 42);
  EXPECT_EQ(v[2].Value.flt, 0.5f);
  EXPECT_EQ(v[3].Value.dbl, 2.75);
  EXPECT_EQ(v[4].Value.cur.int64, 99);
  EXPECT_EQ(v[5].Value.at, 40000.25);
  EXPECT_EQ(v[6].Value.err, MAPI_E_NOT_FOUND);
  EXPECT_EQ(v[7].Value.b, 1);
  EXPECT_EQ(v[9].Value.li.QuadPart, -(1LL << 50));
  EXPECT_STREQ(v[10].Value.lpszA, "single");
  EXPECT_EQ(std::u16string(v[11].Value.lpszW), u"wide");
  EXPECT_EQ(v[12].Value.ft.dwHighDateTime, 0x01234567u);
  EXPECT_TRUE(*v[13].Value.lpguid == PS_MAPI);
  ASSERT_EQ(v[14].Value.bin.cb, 5u);
  EXPECT_EQ(v[14].Value.bin.lpb[4], 5);
  EXPECT_EQ(v[16].Value.MVi.cValues, 3u);
  EXPECT_EQ(v[16].Value.MVi.lpi[1], -2);
  EXPECT_EQ(v[17].Value.MVl.lpl[1], -9);
  EXPECT_EQ(v[18].Value.MVflt.lpflt[1], -2.25f);
  EXPECT_EQ(v[19].Value.MVdbl.lpdbl[1], -1e300);
  EXPECT_EQ(v[20].Value.MVcur.lpcur[0].int64, 123456789);
  EXPECT_EQ(v[21].Value.MVat.lpat[0], 45000.5);
  EXPECT_EQ(v[22].Value.MVft.lpft[1].dwLowDateTime, 3u);
  EXPECT_EQ(v[23].Value.MVli.lpli[0].QuadPart, 1LL << 40);
  EXPECT_TRUE(v[24].Value.MVguid.lpguid[1] == PS_PUBLIC_STRINGS);
  ASSERT_EQ(v[25].Value.MVszA.cValues, 2u);
  EXPECT_STREQ(v[25].Value.MVszA.lppszA[0], "alpha");
  EXPECT_STREQ(v[25].Value.MVszA.lppszA[1], "");
  EXPECT_EQ(std::u16string(v[26].Value.MVszW.lppszW[0]), u"\u00e9t\u00e9");
  ASSERT_EQ(v[27].Value.MVbin.cValues, 3u);
  ASSERT_EQ(v[27].Value.MVbin.lpbin[0].cb, 3u);
  EXPECT_EQ(v[27].Value.MVbin.lpbin[0].lpb[2], 2);
  EXPECT_EQ(v[27].Value.MVbin.lpbin[1].lpb[0], 0xFF);
  EXPECT_EQ(v[27].Value.MVbin.lpbin[2].cb, 0u);
  EXPECT_EQ(v[28].Value.MVl.cValues, 0u);
}

bool Inside(const void* p, const void* base, size_t cb) {
  auto a = static_cast<const char*>(p);
  auto b = static_cast<const char*>(base);
  return a >= b && a < b + cb;
}

}  // namespace

TEST(MapiProps, DupPropsetCopiesEveryTypeIntoOneBlock) {
  const size_t blocks = adp::MapiLiveBlockCount();
  AllTypes sample;
  int count = int(sample.values.size());
  ULONG cb = 0;
  ASSERT_EQ(ScCountProps(count, sample.values.data(), &cb), S_OK);
  EXPECT_GT(cb, count * sizeof(SPropValue));

  LPSPropValue copy = nullptr;
  ASSERT_EQ(ScDupPropset(count, sample.values.data(), MAPIAllocateBuffer, &copy), S_OK);
  EXPECT_EQ(adp::MapiLiveBlockCount(), blocks + 1);
  for (int i = 0; i < count; ++i) EXPECT_EQ(copy[i].ulPropTag, sample.values[i].ulPropTag);
  // Pointers lead into the new block, not back to the source.
  EXPECT_TRUE(Inside(copy[10].Value.lpszA, copy, cb));
  EXPECT_TRUE(Inside(copy[27].Value.MVbin.lpbin[1].lpb, copy, cb));
  EXPECT_TRUE(Inside(copy[26].Value.MVszW.lppszW[0], copy, cb));
  sample.Scribble();
  ExpectOriginalContents(copy, count);
  MAPIFreeBuffer(copy);
  EXPECT_EQ(adp::MapiLiveBlockCount(), blocks);
}

TEST(MapiProps, CopyPropsUsesExactlyTheCountedBytes) {
  AllTypes sample;
  int count = int(sample.values.size());
  ULONG counted = 0;
  ASSERT_EQ(ScCountProps(count, sample.values.data(), &counted), S_OK);
  // A guard region after the counted size must stay untouched.
  std::vector<unsigned char> buffer(counted + 64, 0xCD);
  ULONG used = 0;
  ASSERT_EQ(ScCopyProps(count, sample.values.data(), buffer.data(), &used), S_OK);
  EXPECT_EQ(used, counted);
  for (size_t i = counted; i < buffer.size(); ++i) ASSERT_EQ(buffer[i], 0xCD) << i;
  sample.Scribble();
  ExpectOriginalContents(reinterpret_cast<SPropValue*>(buffer.data()), count);
  // Nothing to copy is fine and needs no room.
  ASSERT_EQ(ScCountProps(0, nullptr, &counted), S_OK);
  EXPECT_EQ(counted, 0u);
}

TEST(MapiProps, PropCopyMoreChainsEveryValueToTheRoot) {
  const size_t blocks = adp::MapiLiveBlockCount();
  AllTypes sample;
  size_t count = sample.values.size();
  LPSPropValue root = nullptr;
  ASSERT_EQ(MAPIAllocateBuffer(ULONG(sizeof(SPropValue) * count), reinterpret_cast<void**>(&root)), S_OK);
  for (size_t i = 0; i < count; ++i) ASSERT_EQ(PropCopyMore(&root[i], &sample.values[i], MAPIAllocateMore, root), S_OK);
  EXPECT_GT(adp::MapiLiveBlockCount(), blocks + 1);
  EXPECT_NE(root[10].Value.lpszA, sample.values[10].Value.lpszA);
  sample.Scribble();
  ExpectOriginalContents(root, count);
  MAPIFreeBuffer(root);
  EXPECT_EQ(adp::MapiLiveBlockCount(), blocks);

  // Bad arguments leave the destination alone.
  SPropValue dst{};
  dst.ulPropTag = 0x1234;
  EXPECT_EQ(PropCopyMore(&dst, nullptr, MAPIAllocateMore, nullptr), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(PropCopyMore(&dst, &sample.values[0], nullptr, nullptr), MAPI_E_INVALID_PARAMETER);
  SPropValue badString{};
  badString.ulPropTag = PR_SUBJECT_A;
  EXPECT_EQ(PropCopyMore(&dst, &badString, MAPIAllocateMore, nullptr), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(dst.ulPropTag, 0x1234u);
  // An object that is not a MAPI allocation cannot take chained data.
  int notABlock = 0;
  EXPECT_EQ(PropCopyMore(&dst, &sample.values[10], MAPIAllocateMore, &notABlock), MAPI_E_INVALID_PARAMETER);
}

TEST(MapiProps, HostileValueArraysAreRefusedWithoutReadingPastThem) {
  SPropValue one{};
  one.ulPropTag = PR_IMPORTANCE;
  ULONG cb = 0;
  EXPECT_EQ(ScCountProps(INT_MAX, &one, &cb), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(ScCountProps(-1, &one, &cb), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(ScCountProps(1, nullptr, &cb), MAPI_E_INVALID_PARAMETER);

  struct Case {
    ULONG type;
    ULONG count;
    bool nullData;
  };
  // Counts that a real array could never hold, and NULL behind non-zero counts.
  const Case cases[] = {{PT_MV_LONG, 0xFFFFFFFF, false},  {PT_MV_BINARY, 0x40000000, false},
                        {PT_MV_STRING8, 0x20000000, false}, {PT_MV_UNICODE, 3, true},
                        {PT_MV_DOUBLE, 2, true},            {PT_BINARY, 5, true},
                        {PT_STRING8, 0, true},              {PT_UNICODE, 0, true},
                        {PT_CLSID, 0, true}};
  LONG dummy[1] = {0};
  for (const Case& c : cases) {
    SPropValue v{};
    v.ulPropTag = Tag(c.type, 0x6200);
    v.Value.MVl.cValues = c.count;  // the count leads every array and SBinary
    v.Value.MVl.lpl = c.nullData ? nullptr : dummy;
    if (c.type == PT_STRING8 || c.type == PT_UNICODE || c.type == PT_CLSID) v.Value.lpszA = nullptr;
    EXPECT_EQ(ScCountProps(1, &v, &cb), MAPI_E_INVALID_PARAMETER) << std::hex << c.type;
    unsigned char buffer[256];
    std::memset(buffer, 0xAB, sizeof buffer);
    EXPECT_EQ(ScCopyProps(1, &v, buffer, &cb), MAPI_E_INVALID_PARAMETER);
    EXPECT_EQ(buffer[0], 0xAB);
    LPSPropValue dup = reinterpret_cast<LPSPropValue>(0x1);
    EXPECT_EQ(ScDupPropset(1, &v, MAPIAllocateBuffer, &dup), MAPI_E_INVALID_PARAMETER);
    EXPECT_EQ(dup, nullptr);
  }
  // A string element missing from a list of strings.
  LPSTR holes[2] = {const_cast<LPSTR>("ok"), nullptr};
  SPropValue mv{};
  mv.ulPropTag = PROP_TAG(PT_MV_STRING8, 0x6201);
  mv.Value.MVszA = {2, holes};
  EXPECT_EQ(ScCountProps(1, &mv, &cb), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(ScDupPropset(1, &one, nullptr, nullptr), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(ScCopyProps(1, &one, nullptr, &cb), MAPI_E_INVALID_PARAMETER);
}

TEST(MapiProps, UnknownTypesTravelAsRawValues) {
  // A private type (a stub: two numbers) is copied as its value, not dropped or refused.
  SPropValue stub{};
  stub.ulPropTag = PROP_TAG(0x8008, 0x1000);
  stub.Value.li.LowPart = 0x0001001F;
  stub.Value.li.HighPart = 77;
  LPSPropValue copy = nullptr;
  ASSERT_EQ(ScDupPropset(1, &stub, MAPIAllocateBuffer, &copy), S_OK);
  EXPECT_EQ(copy->ulPropTag, stub.ulPropTag);
  EXPECT_EQ(copy->Value.li.QuadPart, stub.Value.li.QuadPart);
  MAPIFreeBuffer(copy);
}

TEST(MapiProps, FindPropMatchesUnspecifiedTypeById) {
  SPropValue props[3] = {};
  props[0].ulPropTag = PR_SUBJECT_W;
  props[1].ulPropTag = CHANGE_PROP_TYPE(PR_BODY_W, PT_ERROR);
  props[2].ulPropTag = PR_MESSAGE_FLAGS;
  EXPECT_EQ(PpropFindProp(props, 3, PR_MESSAGE_FLAGS), &props[2]);
  EXPECT_EQ(PpropFindProp(props, 3, PR_SUBJECT_A), nullptr);  // exact type asked, other type held
  EXPECT_EQ(PpropFindProp(props, 3, CHANGE_PROP_TYPE(PR_SUBJECT_A, PT_UNSPECIFIED)), &props[0]);
  EXPECT_EQ(PpropFindProp(props, 3, CHANGE_PROP_TYPE(PR_BODY_A, PT_UNSPECIFIED)), &props[1]);
  EXPECT_EQ(PpropFindProp(props, 2, PR_MESSAGE_FLAGS), nullptr);  // outside the count
  EXPECT_EQ(PpropFindProp(nullptr, 3, PR_MESSAGE_FLAGS), nullptr);
  // LpValFindProp looks at the identifier only.
  EXPECT_EQ(LpValFindProp(PR_SUBJECT_A, 3, props), &props[0]);
  EXPECT_EQ(LpValFindProp(PR_IMPORTANCE, 3, props), nullptr);
  EXPECT_EQ(LpValFindProp(PR_IMPORTANCE, 3, nullptr), nullptr);
}

TEST(MapiProps, PropSizeCountsDataOfEachType) {
  AllTypes sample;
  const SPropValue* v = sample.values.data();
  EXPECT_EQ(UlPropSize(const_cast<LPSPropValue>(&v[1])), 4u);
  EXPECT_EQ(UlPropSize(const_cast<LPSPropValue>(&v[9])), 8u);
  EXPECT_EQ(UlPropSize(const_cast<LPSPropValue>(&v[10])), 7u);    // "single" and its terminator
  EXPECT_EQ(UlPropSize(const_cast<LPSPropValue>(&v[11])), 10u);   // u"wide" and its terminator
  EXPECT_EQ(UlPropSize(const_cast<LPSPropValue>(&v[13])), 16u);
  EXPECT_EQ(UlPropSize(const_cast<LPSPropValue>(&v[14])), 5u);
  EXPECT_EQ(UlPropSize(const_cast<LPSPropValue>(&v[16])), 6u);    // three shorts
  EXPECT_EQ(UlPropSize(const_cast<LPSPropValue>(&v[24])), 32u);   // two GUIDs
  EXPECT_EQ(UlPropSize(const_cast<LPSPropValue>(&v[25])), 7u);    // "alpha" + ""
  EXPECT_EQ(UlPropSize(const_cast<LPSPropValue>(&v[27])), 4u);    // 3 + 1 + 0 bytes
  EXPECT_EQ(UlPropSize(nullptr), 0u);
}

TEST(MapiProps, EqualNamesComparesSetKindAndName) {
  GUID set = PS_PUBLIC_STRINGS;
  GUID other = PSETID_Common;
  char16_t keywords[] = u"Keywords";
  char16_t keywordsLower[] = u"keywords";
  MAPINAMEID a{&set, MNID_STRING, {}};
  a.Kind.lpwstrName = keywords;
  MAPINAMEID b = a;
  EXPECT_TRUE(FEqualNames(&a, &b));
  b.Kind.lpwstrName = keywordsLower;
  EXPECT_FALSE(FEqualNames(&a, &b));
  b = a;
  b.lpguid = &other;
  EXPECT_FALSE(FEqualNames(&a, &b));
  MAPINAMEID id1{&set, MNID_ID, {}};
  id1.Kind.lID = 0x8580;
  MAPINAMEID id2 = id1;
  EXPECT_TRUE(FEqualNames(&id1, &id2));
  id2.Kind.lID = 0x8581;
  EXPECT_FALSE(FEqualNames(&id1, &id2));
  EXPECT_FALSE(FEqualNames(&a, &id1));
  EXPECT_FALSE(FEqualNames(&a, nullptr));
}

// ---------------------------------------------------------------------------------------------
// One-property access, rows and columns over small fake objects.

namespace {

// A property object over a map; tags listed in m_readOnly refuse writes with a problem entry.
class FakeProp final : public IMAPIProp {
 public:
  std::map<ULONG, LONG> m_longs;
  std::map<ULONG, std::string> m_strings;
  ULONG m_readOnly = 0;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++m_refs; }
  ULONG STDMETHODCALLTYPE Release() override { return --m_refs; }
  HRESULT STDMETHODCALLTYPE GetLastError(HRESULT, ULONG, LPMAPIERROR*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SaveChanges(ULONG) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetProps(LPSPropTagArray tags, ULONG, ULONG* count, LPSPropValue* out) override {
    LPSPropValue values = nullptr;
    MAPIAllocateBuffer(ULONG(sizeof(SPropValue) * tags->cValues), reinterpret_cast<void**>(&values));
    HRESULT hr = S_OK;
    for (ULONG i = 0; i < tags->cValues; ++i) {
      ULONG tag = tags->aulPropTag[i];
      values[i].ulPropTag = tag;
      if (PROP_TYPE(tag) == PT_LONG && m_longs.count(tag)) {
        values[i].Value.l = m_longs[tag];
      } else if (PROP_TYPE(tag) == PT_STRING8 && m_strings.count(tag)) {
        const std::string& s = m_strings[tag];
        MAPIAllocateMore(ULONG(s.size() + 1), values, reinterpret_cast<void**>(&values[i].Value.lpszA));
        std::memcpy(values[i].Value.lpszA, s.c_str(), s.size() + 1);
      } else {
        values[i].ulPropTag = CHANGE_PROP_TYPE(tag, PT_ERROR);
        values[i].Value.err = MAPI_E_NOT_FOUND;
        hr = MAPI_W_ERRORS_RETURNED;
      }
    }
    *count = tags->cValues;
    *out = values;
    return hr;
  }
  HRESULT STDMETHODCALLTYPE GetPropList(ULONG, LPSPropTagArray*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE OpenProperty(ULONG, LPCIID, ULONG, ULONG, LPUNKNOWN*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetProps(ULONG cValues, LPSPropValue values, LPSPropProblemArray* problems) override {
    LPSPropProblemArray list = nullptr;
    MAPIAllocateBuffer(ULONG(CbNewSPropProblemArray(cValues)), reinterpret_cast<void**>(&list));
    list->cProblem = 0;
    for (ULONG i = 0; i < cValues; ++i) {
      if (values[i].ulPropTag == m_readOnly) {
        list->aProblem[list->cProblem++] = {i, values[i].ulPropTag, MAPI_E_NO_ACCESS};
        continue;
      }
      if (PROP_TYPE(values[i].ulPropTag) == PT_LONG) m_longs[values[i].ulPropTag] = values[i].Value.l;
      if (PROP_TYPE(values[i].ulPropTag) == PT_STRING8) m_strings[values[i].ulPropTag] = values[i].Value.lpszA;
    }
    if (problems) {
      *problems = list;
    } else {
      MAPIFreeBuffer(list);
    }
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE DeleteProps(LPSPropTagArray, LPSPropProblemArray*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE CopyTo(ULONG, LPCIID, LPSPropTagArray, ULONG_PTR, LPMAPIPROGRESS, LPCIID, LPVOID, ULONG,
                                   LPSPropProblemArray*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE CopyProps(LPSPropTagArray, ULONG_PTR, LPMAPIPROGRESS, LPCIID, LPVOID, ULONG,
                                      LPSPropProblemArray*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE GetNamesFromIDs(LPSPropTagArray*, LPGUID, ULONG, ULONG*, LPMAPINAMEID**) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE GetIDsFromNames(ULONG, LPMAPINAMEID*, ULONG, LPSPropTagArray*) override {
    return E_NOTIMPL;
  }

 private:
  ULONG m_refs = 1;
};

}  // namespace

TEST(MapiProps, OnePropertyReadsAndWrites) {
  const size_t blocks = adp::MapiLiveBlockCount();
  FakeProp object;
  object.m_strings[PR_SMTP_ADDRESS_A] = "user@example.com";
  object.m_longs[PR_IMPORTANCE] = 2;
  object.m_readOnly = PR_MESSAGE_SIZE;

  LPSPropValue value = nullptr;
  ASSERT_EQ(HrGetOneProp(&object, PR_SMTP_ADDRESS_A, &value), S_OK);
  EXPECT_EQ(value->ulPropTag, PR_SMTP_ADDRESS_A);
  EXPECT_STREQ(value->Value.lpszA, "user@example.com");
  MAPIFreeBuffer(value);

  // A missing property answers with the object's error code and no value.
  value = reinterpret_cast<LPSPropValue>(0x1);
  EXPECT_EQ(HrGetOneProp(&object, PR_SUBJECT_A, &value), MAPI_E_NOT_FOUND);
  EXPECT_EQ(value, nullptr);
  EXPECT_TRUE(FPropExists(&object, PR_IMPORTANCE));
  EXPECT_FALSE(FPropExists(&object, PR_SUBJECT_A));

  SPropValue flags{};
  flags.ulPropTag = PR_MESSAGE_FLAGS;
  flags.Value.l = MSGFLAG_READ;
  EXPECT_EQ(HrSetOneProp(&object, &flags), S_OK);
  EXPECT_EQ(object.m_longs[PR_MESSAGE_FLAGS], LONG(MSGFLAG_READ));
  // A property the object refuses comes back as the problem's code.
  SPropValue size{};
  size.ulPropTag = PR_MESSAGE_SIZE;
  EXPECT_EQ(HrSetOneProp(&object, &size), MAPI_E_NO_ACCESS);

  EXPECT_EQ(HrGetOneProp(nullptr, PR_SUBJECT_A, &value), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(HrGetOneProp(&object, PR_SUBJECT_A, nullptr), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(HrSetOneProp(&object, nullptr), MAPI_E_INVALID_PARAMETER);
  EXPECT_FALSE(FPropExists(nullptr, PR_SUBJECT_A));
  EXPECT_EQ(adp::MapiLiveBlockCount(), blocks);
}

TEST(MapiProps, FreeRowsAndAddressListsReleaseEveryBlock) {
  const size_t blocks = adp::MapiLiveBlockCount();
  LPSRowSet rows = nullptr;
  ASSERT_EQ(MAPIAllocateBuffer(ULONG(CbNewSRowSet(3)), reinterpret_cast<void**>(&rows)), S_OK);
  rows->cRows = 3;
  for (ULONG i = 0; i < 3; ++i) {
    rows->aRow[i].cValues = 1;
    ASSERT_EQ(MAPIAllocateBuffer(sizeof(SPropValue), reinterpret_cast<void**>(&rows->aRow[i].lpProps)), S_OK);
    rows->aRow[i].lpProps[0].ulPropTag = PR_SUBJECT_A;
    MAPIAllocateMore(4, rows->aRow[i].lpProps, reinterpret_cast<void**>(&rows->aRow[i].lpProps[0].Value.lpszA));
  }
  // A row without values is allowed; its block is kept aside and freed last.
  SRow* last = rows->aRow + 2;
  LPSPropValue dropped = last->lpProps;
  last->lpProps = nullptr;
  LPADRLIST adr = nullptr;
  ASSERT_EQ(MAPIAllocateBuffer(ULONG(CbNewADRLIST(2)), reinterpret_cast<void**>(&adr)), S_OK);
  adr->cEntries = 2;
  for (ULONG i = 0; i < 2; ++i) {
    adr->aEntries[i].cValues = 1;
    MAPIAllocateBuffer(sizeof(SPropValue), reinterpret_cast<void**>(&adr->aEntries[i].rgPropVals));
  }
  EXPECT_GT(adp::MapiLiveBlockCount(), blocks);
  FreeProws(rows);
  FreePadrlist(adr);
  FreeProws(nullptr);
  FreePadrlist(nullptr);
  EXPECT_EQ(adp::MapiLiveBlockCount(), blocks + 2);  // the row kept aside and its string
  MAPIFreeBuffer(dropped);
  EXPECT_EQ(adp::MapiLiveBlockCount(), blocks);
}

namespace {

// A table that only knows its columns.
class ColumnsTable final : public IMAPITable {
 public:
  std::vector<ULONG> m_columns;
  int m_setCalls = 0;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
  ULONG STDMETHODCALLTYPE AddRef() override { return 1; }
  ULONG STDMETHODCALLTYPE Release() override { return 1; }
  HRESULT STDMETHODCALLTYPE GetLastError(HRESULT, ULONG, LPMAPIERROR*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Advise(ULONG, LPMAPIADVISESINK, ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Unadvise(ULONG) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetStatus(ULONG*, ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetColumns(LPSPropTagArray tags, ULONG) override {
    ++m_setCalls;
    m_columns.assign(tags->aulPropTag, tags->aulPropTag + tags->cValues);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE QueryColumns(ULONG, LPSPropTagArray* out) override {
    LPSPropTagArray tags = nullptr;
    MAPIAllocateBuffer(ULONG(CbNewSPropTagArray(m_columns.size())), reinterpret_cast<void**>(&tags));
    tags->cValues = ULONG(m_columns.size());
    std::copy(m_columns.begin(), m_columns.end(), tags->aulPropTag);
    *out = tags;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetRowCount(ULONG, ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SeekRow(BOOKMARK, LONG, LONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SeekRowApprox(ULONG, ULONG) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE QueryPosition(ULONG*, ULONG*, ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE FindRow(LPSRestriction, BOOKMARK, ULONG) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Restrict(LPSRestriction, ULONG) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE CreateBookmark(BOOKMARK*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE FreeBookmark(BOOKMARK) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SortTable(LPSSortOrderSet, ULONG) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE QuerySortOrder(LPSSortOrderSet*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE QueryRows(LONG, ULONG, LPSRowSet*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Abort() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE ExpandRow(ULONG, LPBYTE, ULONG, ULONG, LPSRowSet*, ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE CollapseRow(ULONG, LPBYTE, ULONG, ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE WaitForCompletion(ULONG, ULONG, ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetCollapseState(ULONG, ULONG, LPBYTE, ULONG*, LPBYTE*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetCollapseState(ULONG, ULONG, LPBYTE, BOOKMARK*) override { return E_NOTIMPL; }
};

void DropSubject(LPSPropTagArray tags) {
  ULONG kept = 0;
  for (ULONG i = 0; i < tags->cValues; ++i)
    if (tags->aulPropTag[i] != PR_SUBJECT_A) tags->aulPropTag[kept++] = tags->aulPropTag[i];
  tags->cValues = kept;
}

}  // namespace

TEST(MapiProps, AddColumnsPutsNewColumnsFirstWithoutDuplicates) {
  const size_t blocks = adp::MapiLiveBlockCount();
  ColumnsTable table;
  table.m_columns = {PR_SUBJECT_A, PR_ENTRYID, PR_MESSAGE_FLAGS};
  SizedSPropTagArray(2, add) = {2, {PR_INSTANCE_KEY, PR_ENTRYID}};
  ASSERT_EQ(HrAddColumns(&table, reinterpret_cast<LPSPropTagArray>(&add), MAPIAllocateBuffer, MAPIFreeBuffer), S_OK);
  EXPECT_EQ(table.m_columns, (std::vector<ULONG>{PR_INSTANCE_KEY, PR_ENTRYID, PR_SUBJECT_A, PR_MESSAGE_FLAGS}));

  // The filter sees the table's columns before the merge.
  table.m_columns = {PR_SUBJECT_A, PR_MESSAGE_FLAGS};
  ASSERT_EQ(HrAddColumnsEx(&table, reinterpret_cast<LPSPropTagArray>(&add), MAPIAllocateBuffer, MAPIFreeBuffer,
                           DropSubject),
            S_OK);
  EXPECT_EQ(table.m_columns, (std::vector<ULONG>{PR_INSTANCE_KEY, PR_ENTRYID, PR_MESSAGE_FLAGS}));
  EXPECT_EQ(adp::MapiLiveBlockCount(), blocks);

  EXPECT_EQ(HrAddColumns(nullptr, reinterpret_cast<LPSPropTagArray>(&add), MAPIAllocateBuffer, MAPIFreeBuffer),
            MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(HrAddColumns(&table, nullptr, MAPIAllocateBuffer, MAPIFreeBuffer), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(table.m_setCalls, 2);
}

// ---------------------------------------------------------------------------------------------
// Advise sinks over callbacks.

namespace {

struct SinkLog {
  ULONG calls = 0;
  ULONG lastCount = 0;
  ULONG lastEvent = 0;
};

LONG STDAPICALLTYPE RecordNotification(LPVOID context, ULONG count, LPNOTIFICATION notifications) {
  auto* log = static_cast<SinkLog*>(context);
  ++log->calls;
  log->lastCount = count;
  log->lastEvent = notifications ? notifications[0].ulEventType : 0;
  return 0x77;
}

}  // namespace

TEST(MapiProps, AdviseSinkCallsBackWithItsContextAndCountsReferences) {
  SinkLog log;
  LPMAPIADVISESINK sink = nullptr;
  ASSERT_EQ(HrAllocAdviseSink(RecordNotification, &log, &sink), S_OK);
  NOTIFICATION n[2] = {};
  n[0].ulEventType = fnevTableModified;
  n[1].ulEventType = fnevNewMail;
  EXPECT_EQ(sink->OnNotify(2, n), 0x77u);
  EXPECT_EQ(log.calls, 1u);
  EXPECT_EQ(log.lastCount, 2u);
  EXPECT_EQ(log.lastEvent, fnevTableModified);

  LPUNKNOWN unknown = nullptr;
  ASSERT_EQ(sink->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&unknown)), S_OK);
  EXPECT_EQ(static_cast<void*>(unknown), static_cast<void*>(sink));
  void* other = reinterpret_cast<void*>(0x1);
  EXPECT_EQ(sink->QueryInterface(IID_IMAPITable, &other), MAPI_E_INTERFACE_NOT_SUPPORTED);
  EXPECT_EQ(other, nullptr);
  EXPECT_EQ(UlAddRef(sink), 3u);
  EXPECT_EQ(UlRelease(sink), 2u);
  EXPECT_EQ(unknown->Release(), 1u);
  EXPECT_EQ(UlRelease(sink), 0u);  // gone; ASan reports a leak or a double free otherwise
  EXPECT_EQ(UlAddRef(nullptr), 0u);
  EXPECT_EQ(UlRelease(nullptr), 0u);

  EXPECT_EQ(HrAllocAdviseSink(nullptr, &log, &sink), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(sink, nullptr);
  EXPECT_EQ(HrAllocAdviseSink(RecordNotification, &log, nullptr), MAPI_E_INVALID_PARAMETER);
}

// ---------------------------------------------------------------------------------------------
// Notification copies.

TEST(MapiProps, NotificationsOfEveryKindCopyDeeply) {
  BYTE eid[] = {1, 2, 3, 4, 5, 6};
  BYTE parent[] = {9, 9};
  BYTE payload[] = {0xDE, 0xAD, 0xBE, 0xEF, 0x00, 0x01};
  char errorText[] = "disk full";
  char component[] = "store";
  char16_t messageClass[] = u"IPM.Note";
  MAPIERROR mapiError{MAPI_ERROR_VERSION, errorText, component, 5, 3};
  SizedSPropTagArray(2, changed) = {2, {PR_SUBJECT_A, PR_MESSAGE_FLAGS}};
  char subject[] = "hello";
  SPropValue rowProps[2] = {};
  rowProps[0].ulPropTag = PR_SUBJECT_A;
  rowProps[0].Value.lpszA = subject;
  rowProps[1].ulPropTag = PR_INSTANCE_KEY;
  rowProps[1].Value.bin = {2, parent};
  SPropValue status[1] = {};
  status[0].ulPropTag = PR_STATUS_CODE;
  status[0].Value.l = STATUS_AVAILABLE;

  NOTIFICATION n[7] = {};
  n[0].ulEventType = fnevCriticalError;
  n[0].info.err = {sizeof eid, reinterpret_cast<LPENTRYID>(eid), MAPI_E_DISK_ERROR, 0, &mapiError};
  n[1].ulEventType = fnevNewMail;
  n[1].info.newmail = {sizeof eid, reinterpret_cast<LPENTRYID>(eid), sizeof parent,
                       reinterpret_cast<LPENTRYID>(parent), MAPI_UNICODE, reinterpret_cast<LPTSTR>(messageClass),
                       MSGFLAG_UNMODIFIED};
  n[2].ulEventType = fnevObjectModified;
  n[2].info.obj.cbEntryID = sizeof eid;
  n[2].info.obj.lpEntryID = reinterpret_cast<LPENTRYID>(eid);
  n[2].info.obj.ulObjType = MAPI_MESSAGE;
  n[2].info.obj.cbParentID = sizeof parent;
  n[2].info.obj.lpParentID = reinterpret_cast<LPENTRYID>(parent);
  n[2].info.obj.lpPropTagArray = reinterpret_cast<LPSPropTagArray>(&changed);
  n[3].ulEventType = fnevTableModified;
  n[3].info.tab.ulTableEvent = TABLE_ROW_ADDED;
  n[3].info.tab.propIndex = rowProps[1];
  n[3].info.tab.propPrior.ulPropTag = PR_NULL;
  n[3].info.tab.row = {0, 2, rowProps};
  n[4].ulEventType = fnevExtended;
  n[4].info.ext = {0x1234, sizeof payload, payload};
  n[5].ulEventType = fnevStatusObjectModified;
  n[5].info.statobj = {sizeof eid, reinterpret_cast<LPENTRYID>(eid), 1, status};
  n[6].ulEventType = fnevTableModified;
  n[6].info.tab.ulTableEvent = TABLE_RELOAD;

  ULONG counted = 0;
  ASSERT_EQ(ScCountNotifications(7, n, &counted), S_OK);
  std::vector<unsigned char> block(counted + 32, 0xEE);
  ULONG used = 0;
  ASSERT_EQ(ScCopyNotifications(7, n, block.data(), &used), S_OK);
  EXPECT_EQ(used, counted);
  EXPECT_EQ(block[counted], 0xEE);

  // Scribble over everything the originals point to.
  std::memset(eid, 0, sizeof eid);
  std::memset(parent, 0, sizeof parent);
  std::memset(payload, 0, sizeof payload);
  std::memset(errorText, 'z', sizeof errorText - 1);
  std::memset(subject, 'z', sizeof subject - 1);
  messageClass[0] = u'X';
  changed.aulPropTag[0] = 0;
  status[0].Value.l = 0;

  auto* c = reinterpret_cast<NOTIFICATION*>(block.data());
  auto inBlock = [&](const void* p) { return Inside(p, block.data(), counted); };
  EXPECT_EQ(c[0].info.err.scode, MAPI_E_DISK_ERROR);
  EXPECT_EQ(c[0].info.err.lpEntryID->abFlags[0], 1);
  EXPECT_STREQ(c[0].info.err.lpMAPIError->lpszError, "disk full");
  EXPECT_STREQ(c[0].info.err.lpMAPIError->lpszComponent, "store");
  EXPECT_EQ(c[0].info.err.lpMAPIError->ulLowLevelError, 5u);
  EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(c[1].info.newmail.lpszMessageClass)), u"IPM.Note");
  EXPECT_EQ(c[1].info.newmail.lpParentID->abFlags[1], 9);
  EXPECT_EQ(c[1].info.newmail.ulMessageFlags, MSGFLAG_UNMODIFIED);
  EXPECT_EQ(c[2].info.obj.ulObjType, MAPI_MESSAGE);
  EXPECT_EQ(c[2].info.obj.lpPropTagArray->aulPropTag[0], PR_SUBJECT_A);
  EXPECT_EQ(c[2].info.obj.lpOldID, nullptr);
  EXPECT_EQ(c[3].info.tab.ulTableEvent, ULONG(TABLE_ROW_ADDED));
  EXPECT_EQ(c[3].info.tab.propIndex.Value.bin.lpb[0], 9);
  EXPECT_TRUE(inBlock(c[3].info.tab.propIndex.Value.bin.lpb));
  ASSERT_EQ(c[3].info.tab.row.cValues, 2u);
  EXPECT_STREQ(c[3].info.tab.row.lpProps[0].Value.lpszA, "hello");
  EXPECT_TRUE(inBlock(c[3].info.tab.row.lpProps));
  EXPECT_EQ(c[4].info.ext.ulEvent, 0x1234u);
  ASSERT_EQ(c[4].info.ext.cb, sizeof payload);
  EXPECT_EQ(c[4].info.ext.pbEventParameters[3], 0xEF);
  EXPECT_TRUE(inBlock(c[4].info.ext.pbEventParameters));
  EXPECT_EQ(c[5].info.statobj.lpPropVals[0].Value.l, LONG(STATUS_AVAILABLE));
  EXPECT_EQ(c[6].info.tab.row.lpProps, nullptr);

  // Unknown events and missing data behind counts are refused.
  NOTIFICATION bad = {};
  bad.ulEventType = 0x00400000;
  EXPECT_EQ(ScCountNotifications(1, &bad, &counted), MAPI_E_INVALID_PARAMETER);
  bad.ulEventType = fnevExtended;
  bad.info.ext = {1, 10, nullptr};
  EXPECT_EQ(ScCountNotifications(1, &bad, &counted), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(ScCopyNotifications(1, &bad, block.data(), &counted), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(ScCountNotifications(-2, n, &counted), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(ScCopyNotifications(1, n, nullptr, &counted), MAPI_E_INVALID_PARAMETER);
}
