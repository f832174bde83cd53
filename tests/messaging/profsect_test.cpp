// Profile sections: every property type persists, GetProps reports missing tags as published,
// access modes hold, concurrent savers lose nothing, and damaged files are errors.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

#include "msgtest_util.h"
#include "profile.h"
#include "propfile.h"
#include "test_home.h"

using namespace msgtest;

namespace {

struct Fixture {
  adtest::TempHome home;
  std::shared_ptr<adm::Profile> profile;
  MAPIUID uid = adm::NewUid();
  Fixture() {
    EXPECT_EQ(adm::CreateProfileEntry("Sections"), S_OK);
    EXPECT_EQ(adm::Profile::Open("Sections", &profile), S_OK);
  }
  LPPROFSECT Open(ULONG flags) {
    LPPROFSECT s = nullptr;
    EXPECT_EQ(profile->OpenSection(&uid, flags, &s), S_OK);
    return s;
  }
};

GUID kGuid = {0x01020304, 0x0506, 0x0708, {9, 10, 11, 12, 13, 14, 15, 16}};

}  // namespace

TEST(ProfSect, EveryPropertyTypeSurvivesSaveAndReopen) {
  Fixture f;
  static char16_t wide[] = u"w\u00e9de";
  static LPSTR strings[] = {const_cast<LPSTR>("one"), const_cast<LPSTR>("")};
  static LPWSTR wides[] = {wide};
  static BYTE b1[] = {0, 1, 2};
  static SBinary bins[] = {{3, b1}, {0, nullptr}};
  static LONG longs[] = {-1, 0, 0x7FFFFFFF};
  static double doubles[] = {1.5, -2.25};
  static GUID guids[] = {kGuid, kGuid};
  static short shorts[] = {-3, 4};
  static LARGE_INTEGER bigs[2];
  bigs[0].QuadPart = -5;
  bigs[1].QuadPart = 1LL << 40;
  std::vector<SPropValue> in(24);
  int i = 0;
  auto next = [&](ULONG type) -> SPropValue& {
    in[i].ulPropTag = PROP_TAG(type, 0x6700 + i);
    return in[i++];
  };
  next(PT_I2).Value.i = -12;
  next(PT_LONG).Value.l = -123456;
  next(PT_R4).Value.flt = 0.5f;
  next(PT_DOUBLE).Value.dbl = 3.25;
  next(PT_CURRENCY).Value.cur.int64 = 123456789;
  next(PT_APPTIME).Value.at = 44000.5;
  next(PT_BOOLEAN).Value.b = 1;
  next(PT_I8).Value.li.QuadPart = -(1LL << 50);
  next(PT_STRING8).Value.lpszA = const_cast<LPSTR>("text");
  next(PT_UNICODE).Value.lpszW = wide;
  SPropValue& ft = next(PT_SYSTIME);
  ft.Value.ft.dwLowDateTime = 0x89ABCDEF;
  ft.Value.ft.dwHighDateTime = 0x01D00000;
  next(PT_CLSID).Value.lpguid = &kGuid;
  SPropValue& bin = next(PT_BINARY);
  bin.Value.bin = bins[0];
  SPropValue& mvs = next(PT_MV_STRING8);
  mvs.Value.MVszA = {2, strings};
  next(PT_MV_UNICODE).Value.MVszW = {1, wides};
  next(PT_MV_BINARY).Value.MVbin = {2, bins};
  next(PT_MV_LONG).Value.MVl = {3, longs};
  next(PT_MV_DOUBLE).Value.MVdbl = {2, doubles};
  next(PT_MV_CLSID).Value.MVguid = {2, guids};
  next(PT_MV_I2).Value.MVi = {2, shorts};
  next(PT_MV_I8).Value.MVli = {2, bigs};
  in.resize(i);

  LPPROFSECT s = f.Open(MAPI_MODIFY);
  LPSPropProblemArray problems = nullptr;
  ASSERT_EQ(s->SetProps(static_cast<ULONG>(in.size()), in.data(), &problems), S_OK);
  EXPECT_EQ(problems, nullptr);
  ASSERT_EQ(s->SaveChanges(0), S_OK);
  s->Release();

  s = f.Open(0);
  std::vector<BYTE> tagBytes(CbNewSPropTagArray(in.size()));
  auto* tags = reinterpret_cast<LPSPropTagArray>(tagBytes.data());
  tags->cValues = static_cast<ULONG>(in.size());
  for (size_t k = 0; k < in.size(); ++k) tags->aulPropTag[k] = in[k].ulPropTag;
  ULONG n = 0;
  LPSPropValue out = nullptr;
  ASSERT_EQ(s->GetProps(tags, 0, &n, &out), S_OK);
  ASSERT_EQ(n, in.size());
  for (size_t k = 0; k < in.size(); ++k) {
    EXPECT_EQ(out[k].ulPropTag, in[k].ulPropTag) << k;
    EXPECT_EQ(LPropCompareProp(&out[k], &in[k]), 0) << "type " << PROP_TYPE(in[k].ulPropTag);
  }
  MAPIFreeBuffer(out);
  s->Release();
}

TEST(ProfSect, GetPropsReportsMissingTagsAndConvertsStrings) {
  Fixture f;
  LPPROFSECT s = f.Open(MAPI_MODIFY);
  SPropValue name{};
  name.ulPropTag = PR_DISPLAY_NAME_A;
  name.Value.lpszA = const_cast<LPSTR>("Store");
  ASSERT_EQ(s->SetProps(1, &name, nullptr), S_OK);
  SizedSPropTagArray(4, tags) = {4, {PR_DISPLAY_NAME_A, PR_COMMENT_A, PR_DISPLAY_NAME_W, PROP_TAG(PT_LONG, 0x3001)}};
  ULONG n = 0;
  LPSPropValue out = nullptr;
  ASSERT_EQ(s->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), 0, &n, &out), MAPI_W_ERRORS_RETURNED);
  ASSERT_EQ(n, 4u);
  EXPECT_STREQ(out[0].Value.lpszA, "Store");
  EXPECT_EQ(out[1].ulPropTag, CHANGE_PROP_TYPE(PR_COMMENT_A, PT_ERROR));
  EXPECT_EQ(out[1].Value.err, MAPI_E_NOT_FOUND);
  EXPECT_EQ(out[2].ulPropTag, PR_DISPLAY_NAME_W);
  EXPECT_EQ(std::u16string(out[2].Value.lpszW), u"Store");
  EXPECT_EQ(PROP_TYPE(out[3].ulPropTag), PT_ERROR);  // a type the value does not have
  MAPIFreeBuffer(out);

  // All properties, wide on request; the property list likewise.
  ASSERT_EQ(s->GetProps(nullptr, MAPI_UNICODE, &n, &out), S_OK);
  ASSERT_EQ(n, 1u);
  EXPECT_EQ(out[0].ulPropTag, PR_DISPLAY_NAME_W);
  MAPIFreeBuffer(out);
  LPSPropTagArray list = nullptr;
  ASSERT_EQ(s->GetPropList(0, &list), S_OK);
  ASSERT_EQ(list->cValues, 1u);
  EXPECT_EQ(list->aulPropTag[0], PR_DISPLAY_NAME_A);
  MAPIFreeBuffer(list);

  // Deleting: a missing tag is a problem, the present one goes.
  SizedSPropTagArray(2, del) = {2, {PR_DISPLAY_NAME_A, PR_COMMENT_A}};
  LPSPropProblemArray problems = nullptr;
  ASSERT_EQ(s->DeleteProps(reinterpret_cast<LPSPropTagArray>(&del), &problems), S_OK);
  ASSERT_NE(problems, nullptr);
  ASSERT_EQ(problems->cProblem, 1u);
  EXPECT_EQ(problems->aProblem[0].ulIndex, 1u);
  EXPECT_EQ(problems->aProblem[0].scode, MAPI_E_NOT_FOUND);
  MAPIFreeBuffer(problems);

  // Bad input.
  EXPECT_EQ(s->GetProps(nullptr, 0x4, &n, &out), MAPI_E_UNKNOWN_FLAGS);
  EXPECT_EQ(s->GetProps(nullptr, 0, nullptr, &out), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(s->SetProps(2, nullptr, nullptr), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(s->SaveChanges(0x100), MAPI_E_UNKNOWN_FLAGS);
  SPropValue object{};
  object.ulPropTag = PROP_TAG(PT_OBJECT, 0x6600);
  ASSERT_EQ(s->SetProps(1, &object, &problems), S_OK);
  ASSERT_NE(problems, nullptr);
  EXPECT_EQ(problems->aProblem[0].scode, MAPI_E_INVALID_TYPE);
  MAPIFreeBuffer(problems);
  LPUNKNOWN unk = nullptr;
  EXPECT_EQ(s->OpenProperty(PR_DISPLAY_NAME_A, &IID_IStream, 0, 0, &unk), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(unk, nullptr);

  // Interfaces.
  IMAPIProp* prop = nullptr;
  ASSERT_EQ(s->QueryInterface(IID_IMAPIProp, reinterpret_cast<void**>(&prop)), S_OK);
  prop->Release();
  EXPECT_EQ(s->QueryInterface(IID_IMAPITable, reinterpret_cast<void**>(&prop)), MAPI_E_INTERFACE_NOT_SUPPORTED);
  EXPECT_EQ(prop, nullptr);
  s->Release();
}

TEST(ProfSect, AccessModesAndUnsavedChanges) {
  Fixture f;
  LPPROFSECT s = nullptr;
  EXPECT_EQ(f.profile->OpenSection(&f.uid, 0, &s), MAPI_E_NOT_FOUND);  // read-only does not create
  EXPECT_EQ(f.profile->OpenSection(&f.uid, 0x20000000, &s), MAPI_E_UNKNOWN_FLAGS);
  EXPECT_EQ(f.profile->OpenSection(nullptr, 0, &s), MAPI_E_INVALID_PARAMETER);
  s = f.Open(MAPI_MODIFY);
  SPropValue v{};
  v.ulPropTag = PROP_TAG(PT_LONG, 0x6600);
  v.Value.l = 1;
  ASSERT_EQ(s->SetProps(1, &v, nullptr), S_OK);
  s->Release();  // without SaveChanges: sections aren't transacted, the release keeps the change
  s = f.Open(0);
  LPSPropValue got = GetOne(s, v.ulPropTag);
  EXPECT_EQ(got->ulPropTag, v.ulPropTag);
  EXPECT_EQ(got->Value.l, 1);
  MAPIFreeBuffer(got);
  EXPECT_EQ(s->SetProps(1, &v, nullptr), MAPI_E_NO_ACCESS);
  EXPECT_EQ(s->SaveChanges(0), MAPI_E_NO_ACCESS);
  LPMAPIERROR err = nullptr;
  ASSERT_EQ(s->GetLastError(MAPI_E_NO_ACCESS, MAPI_UNICODE, &err), S_OK);
  EXPECT_NE(std::u16string(reinterpret_cast<char16_t*>(err->lpszError)).find(u"read-only"), std::u16string::npos);
  MAPIFreeBuffer(err);
  s->Release();

  // KEEP_OPEN_READONLY ends writing.
  s = f.Open(MAPI_MODIFY);
  ASSERT_EQ(s->SetProps(1, &v, nullptr), S_OK);
  ASSERT_EQ(s->SaveChanges(KEEP_OPEN_READONLY), S_OK);
  EXPECT_EQ(s->SetProps(1, &v, nullptr), MAPI_E_NO_ACCESS);
  s->Release();
}

TEST(ProfSect, ConcurrentSaversKeepEachOthersProperties) {
  Fixture f;
  LPPROFSECT a = f.Open(MAPI_MODIFY);
  LPPROFSECT b = f.Open(MAPI_MODIFY);
  SPropValue va{}, vb{};
  va.ulPropTag = PROP_TAG(PT_LONG, 0x6601);
  va.Value.l = 1;
  vb.ulPropTag = PROP_TAG(PT_LONG, 0x6602);
  vb.Value.l = 2;
  ASSERT_EQ(a->SetProps(1, &va, nullptr), S_OK);
  ASSERT_EQ(b->SetProps(1, &vb, nullptr), S_OK);
  ASSERT_EQ(a->SaveChanges(KEEP_OPEN_READWRITE), S_OK);
  ASSERT_EQ(b->SaveChanges(KEEP_OPEN_READWRITE), S_OK);
  // b now also sees what a saved; a sees b's after its next save.
  LPSPropValue got = GetOne(b, va.ulPropTag);
  EXPECT_EQ(got->Value.l, 1);
  MAPIFreeBuffer(got);
  SizedSPropTagArray(1, del) = {1, {va.ulPropTag}};
  ASSERT_EQ(b->DeleteProps(reinterpret_cast<LPSPropTagArray>(&del), nullptr), S_OK);
  ASSERT_EQ(b->SaveChanges(0), S_OK);
  ASSERT_EQ(a->SaveChanges(0), S_OK);  // nothing changed in a: b's deletion stands
  got = GetOne(a, va.ulPropTag);
  EXPECT_EQ(PROP_TYPE(got->ulPropTag), PT_ERROR);
  MAPIFreeBuffer(got);
  got = GetOne(a, vb.ulPropTag);
  EXPECT_EQ(got->Value.l, 2);
  MAPIFreeBuffer(got);
  a->Release();
  b->Release();
}

TEST(ProfSect, DamagedFilesAreCorruptDataNeverACrash) {
  Fixture f;
  adm::PropSet set;
  ASSERT_EQ(set.Set(adm::StringProp(PR_DISPLAY_NAME_A, "name")), S_OK);
  static BYTE bytes[] = {1, 2, 3, 4};
  ASSERT_EQ(set.Set(adm::BinaryProp(PR_ENTRYID, bytes, 4)), S_OK);
  std::string good = set.Encode();
  adm::PropSet back;
  ASSERT_EQ(adm::PropSet::Decode(good, back), S_OK);
  EXPECT_EQ(back.Size(), 2u);
  for (size_t cut = 0; cut < good.size(); ++cut) {
    EXPECT_EQ(adm::PropSet::Decode(good.substr(0, cut), back), MAPI_E_CORRUPT_DATA) << cut;
  }
  for (size_t at = 0; at < good.size(); ++at) {
    std::string bad = good;
    bad[at] = static_cast<char>(bad[at] ^ 0x5A);
    EXPECT_EQ(adm::PropSet::Decode(bad, back), MAPI_E_CORRUPT_DATA) << at;
  }
  EXPECT_EQ(adm::PropSet::Decode(good + "x", back), MAPI_E_CORRUPT_DATA);

  std::string path = f.profile->Folder() + "/" + adm::UidHex(f.uid) + ".sect";
  std::ofstream(path, std::ios::binary) << good.substr(0, good.size() / 2);
  LPPROFSECT s = nullptr;
  EXPECT_EQ(f.profile->OpenSection(&f.uid, 0, &s), MAPI_E_CORRUPT_DATA);
  EXPECT_EQ(f.profile->OpenSection(&f.uid, MAPI_MODIFY, &s), MAPI_E_CORRUPT_DATA);
  EXPECT_EQ(s, nullptr);
}
