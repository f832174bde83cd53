// Message services: the entry point is called with the right contexts, flags and properties;
// MAPISVC.INF decides the providers and their first properties; failures leave nothing behind.
#include <gtest/gtest.h>

#include <filesystem>

#include "msgtest_util.h"
#include "profile.h"
#include "test_home.h"

using namespace msgtest;

namespace {

struct Fixture {
  adtest::TempHome home;
  std::string log = home.Temp() + "service.log";
  EnvScope logEnv{"ADTEST_SERVICE_LOG", log};
  MapiScope mapi;
  LPPROFADMIN profAdmin = nullptr;
  LPSERVICEADMIN admin = nullptr;

  Fixture() {
    WriteTestMapisvc();
    EXPECT_EQ(MAPIAdminProfiles(0, &profAdmin), S_OK);
    EXPECT_EQ(profAdmin->CreateProfile(T("Work"), nullptr, 0, 0), S_OK);
    EXPECT_EQ(profAdmin->AdminServices(T("Work"), nullptr, 0, 0, &admin), S_OK);
  }
  ~Fixture() {
    if (admin) admin->Release();
    if (profAdmin) profAdmin->Release();
  }

  LPSRowSet Services() {
    LPMAPITABLE table = nullptr;
    EXPECT_EQ(admin->GetMsgServiceTable(0, &table), S_OK);
    return AllRows(table);
  }
  size_t SectionFiles() {
    size_t n = 0;
    for (const auto& e : std::filesystem::recursive_directory_iterator(home.Home() + "/profiles")) {
      if (e.path().extension() == ".sect") ++n;
    }
    return n;
  }
  std::string LastError(IMsgServiceAdmin* a, HRESULT hr) {
    LPMAPIERROR err = nullptr;
    EXPECT_EQ(a->GetLastError(hr, 0, &err), S_OK);
    std::string text = err && err->lpszError ? err->lpszError : "";
    MAPIFreeBuffer(err);
    return text;
  }
};

}  // namespace

TEST(ServiceAdmin, CreateConfigureDeleteCallTheEntryPointAsPublished) {
  Fixture f;
  ASSERT_EQ(f.admin->CreateMsgService(T("testsvc"), T("Ignored Name"), 0, 0), S_OK);
  EXPECT_EQ(ReadLines(f.log), (std::vector<std::string>{"ServiceEntry ctx=2 flags=0 values=0"}));

  LPSRowSet services = f.Services();
  ASSERT_EQ(services->cRows, 1u);
  const SRow& svc = services->aRow[0];
  EXPECT_EQ(Text(svc, PR_SERVICE_NAME_A), "testsvc");
  EXPECT_EQ(Text(svc, PR_DISPLAY_NAME_A), "Test Service");  // MAPISVC.INF wins over the argument
  EXPECT_EQ(Text(svc, PR_SERVICE_DLL_NAME_A), "MSGPROVIDER_MODULE.DLL");
  EXPECT_EQ(Find(svc, PR_RESOURCE_FLAGS)->Value.ul, ULONG(SERVICE_SINGLE_COPY | SERVICE_NO_PRIMARY_IDENTITY));
  MAPIUID serviceUid = Uid(svc, PR_SERVICE_UID);
  FreeProws(services);

  LPPROVIDERADMIN providers = nullptr;
  ASSERT_EQ(f.admin->AdminProviders(&serviceUid, 0, &providers), S_OK);
  LPMAPITABLE table = nullptr;
  ASSERT_EQ(providers->GetProviderTable(0, &table), S_OK);
  LPSRowSet rows = AllRows(table);
  ASSERT_EQ(rows->cRows, 1u);
  EXPECT_EQ(Find(rows->aRow[0], PR_RESOURCE_TYPE)->Value.ul, ULONG(MAPI_STORE_PROVIDER));
  EXPECT_EQ(Find(rows->aRow[0], PR_RESOURCE_FLAGS)->Value.ul, ULONG(STATUS_DEFAULT_STORE));
  EXPECT_EQ(Text(rows->aRow[0], PR_PROVIDER_DISPLAY_A), "Test Store");
  MAPIUID providerUid = Uid(rows->aRow[0], PR_PROVIDER_UID);
  MAPIUID owner = Uid(rows->aRow[0], PR_SERVICE_UID);
  EXPECT_EQ(std::memcmp(&owner, &serviceUid, sizeof serviceUid), 0);
  FreeProws(rows);

  // The provider's section: MAPISVC.INF's first values and what the service wrote at creation.
  LPPROFSECT section = nullptr;
  ASSERT_EQ(f.admin->OpenProfileSection(&providerUid, nullptr, 0, &section), S_OK);
  LPSPropValue v = GetOne(section, PR_TEST_INITIAL);
  EXPECT_STREQ(v->Value.lpszA, "initial");
  MAPIFreeBuffer(v);
  v = GetOne(section, PR_TEST_CREATED);
  EXPECT_STREQ(v->Value.lpszA, "created");
  MAPIFreeBuffer(v);
  v = GetOne(section, PR_TEST_UID);
  EXPECT_EQ(v->ulPropTag, PR_TEST_UID);
  EXPECT_EQ(v->Value.bin.cb, 16u);
  MAPIFreeBuffer(v);
  section->Release();
  // The service's section, opened by the support object with a null UID.
  ASSERT_EQ(providers->OpenProfileSection(nullptr, nullptr, 0, &section), S_OK);
  v = GetOne(section, PR_TEST_SERVICE_MARK);
  EXPECT_STREQ(v->Value.lpszA, "service");
  MAPIFreeBuffer(v);
  section->Release();

  // Configure: flags and values reach the entry point, which stores them.
  SPropValue props[2] = {};
  props[0].ulPropTag = PROP_TAG(PT_STRING8, 0x6610);
  props[0].Value.lpszA = T("alpha");
  props[1].ulPropTag = PROP_TAG(PT_LONG, 0x6611);
  props[1].Value.l = 7;
  ASSERT_EQ(f.admin->ConfigureMsgService(&serviceUid, 0, SERVICE_UI_ALLOWED | MSG_SERVICE_UI_READ_ONLY, 2, props),
            S_OK);
  EXPECT_EQ(ReadLines(f.log).back(), "ServiceEntry ctx=3 flags=18 values=2 6610001E=alpha 66110003=7");
  ASSERT_EQ(providers->OpenProfileSection(&providerUid, nullptr, 0, &section), S_OK);
  v = GetOne(section, PROP_TAG(PT_LONG, 0x6611));
  EXPECT_EQ(v->Value.l, 7);
  MAPIFreeBuffer(v);
  v = GetOne(section, PR_TEST_CONFIGURED);
  EXPECT_EQ(v->Value.l, 1);
  MAPIFreeBuffer(v);
  section->Release();

  // One copy only.
  EXPECT_EQ(f.admin->CreateMsgService(T("TESTSVC"), nullptr, 0, 0), MAPI_E_NO_ACCESS);
  EXPECT_EQ(ReadLines(f.log).size(), 2u);

  ASSERT_EQ(f.admin->DeleteMsgService(&serviceUid), S_OK);
  EXPECT_EQ(ReadLines(f.log).back(), "ServiceEntry ctx=4 flags=0 values=0");
  services = f.Services();
  EXPECT_EQ(services->cRows, 0u);
  FreeProws(services);
  EXPECT_EQ(f.admin->OpenProfileSection(&providerUid, nullptr, 0, &section), MAPI_E_NOT_FOUND);
  EXPECT_EQ(providers->GetProviderTable(0, &table), MAPI_E_NOT_FOUND);
  EXPECT_EQ(f.admin->DeleteMsgService(&serviceUid), MAPI_E_NOT_FOUND);
  EXPECT_EQ(f.SectionFiles(), 1u);  // the global section alone
  providers->Release();
}

TEST(ServiceAdmin, FailuresLeaveNothingAndSayWhy) {
  Fixture f;
  EXPECT_EQ(f.admin->CreateMsgService(T("NOPE"), nullptr, 0, 0), MAPI_E_NOT_FOUND);
  EXPECT_NE(f.LastError(f.admin, MAPI_E_NOT_FOUND).find("NOPE"), std::string::npos);
  EXPECT_EQ(f.admin->CreateMsgService(nullptr, nullptr, 0, 0), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(f.admin->CreateMsgService(T("TESTSVC"), nullptr, 0, 0x00100000), MAPI_E_UNKNOWN_FLAGS);
  EXPECT_EQ(f.admin->CreateMsgService(T("BROKEN"), nullptr, 0, 0), MAPI_E_NOT_FOUND);
  EXPECT_EQ(f.admin->CreateMsgService(T("NOENTRY"), nullptr, 0, 0), MAPI_E_NOT_FOUND);
  {
    EnvScope fail("ADTEST_SERVICE_FAIL", "2");
    EXPECT_EQ(f.admin->CreateMsgService(T("TESTSVC"), nullptr, 0, SERVICE_UI_ALWAYS), MAPI_E_USER_CANCEL);
    EXPECT_EQ(f.LastError(f.admin, MAPI_E_USER_CANCEL), "refused by the test service");
  }
  EXPECT_EQ(ReadLines(f.log), (std::vector<std::string>{"ServiceEntry ctx=2 flags=2 values=0"}));
  LPSRowSet services = f.Services();
  EXPECT_EQ(services->cRows, 0u);
  FreeProws(services);
  EXPECT_EQ(f.SectionFiles(), 1u);

  MAPIUID unknown = adm::NewUid();
  SPropValue prop{};
  prop.ulPropTag = PR_DISPLAY_NAME_A;
  prop.Value.lpszA = T("x");
  EXPECT_EQ(f.admin->ConfigureMsgService(&unknown, 0, 0, 1, &prop), MAPI_E_NOT_FOUND);
  EXPECT_EQ(f.admin->ConfigureMsgService(nullptr, 0, 0, 0, nullptr), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(f.admin->ConfigureMsgService(&unknown, 0, 0, 3, nullptr), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(f.admin->ConfigureMsgService(&unknown, 0, 0x4000, 0, nullptr), MAPI_E_UNKNOWN_FLAGS);
  LPPROVIDERADMIN providers = nullptr;
  EXPECT_EQ(f.admin->AdminProviders(&unknown, 0, &providers), MAPI_E_NOT_FOUND);
  EXPECT_EQ(providers, nullptr);
  LPPROFSECT section = nullptr;
  EXPECT_EQ(f.admin->OpenProfileSection(&unknown, nullptr, 0, &section), MAPI_E_NOT_FOUND);
  EXPECT_EQ(f.admin->OpenProfileSection(&unknown, &IID_IMAPITable, 0, &section), MAPI_E_INTERFACE_NOT_SUPPORTED);

  // A configuration the service refuses changes nothing and keeps the service.
  ASSERT_EQ(f.admin->CreateMsgService(T("TESTSVC"), nullptr, 0, 0), S_OK);
  services = f.Services();
  ASSERT_EQ(services->cRows, 1u);
  MAPIUID uid = Uid(services->aRow[0], PR_SERVICE_UID);
  FreeProws(services);
  {
    EnvScope fail("ADTEST_SERVICE_FAIL", "3");
    EXPECT_EQ(f.admin->ConfigureMsgService(&uid, 0, 0, 1, &prop), MAPI_E_USER_CANCEL);
  }
  ASSERT_EQ(f.admin->AdminProviders(&uid, 0, &providers), S_OK);
  LPMAPITABLE table = nullptr;
  ASSERT_EQ(providers->GetProviderTable(0, &table), S_OK);
  LPSRowSet rows = AllRows(table);
  ASSERT_EQ(rows->cRows, 1u);
  MAPIUID providerUid = Uid(rows->aRow[0], PR_PROVIDER_UID);
  FreeProws(rows);
  ASSERT_EQ(providers->OpenProfileSection(&providerUid, nullptr, 0, &section), S_OK);
  LPSPropValue v = GetOne(section, PR_TEST_CONFIGURED);
  EXPECT_EQ(PROP_TYPE(v->ulPropTag), PT_ERROR);
  MAPIFreeBuffer(v);
  section->Release();
  providers->Release();

  // A corrupt profile on disk is an error, not a crash.
  std::string global = f.home.Home() + "/profiles/work/" + adm::UidHex(adm::GlobalSectionUid()) + ".sect";
  std::ofstream(global, std::ios::binary | std::ios::trunc) << "ADPS garbage that is not a property file";
  EXPECT_EQ(f.admin->GetMsgServiceTable(0, &table), MAPI_E_CORRUPT_DATA);
  EXPECT_EQ(f.admin->GetProviderTable(0, &table), MAPI_E_CORRUPT_DATA);
  LPSERVICEADMIN again = nullptr;
  EXPECT_EQ(f.profAdmin->AdminServices(T("Work"), nullptr, 0, 0, &again), MAPI_E_CORRUPT_DATA);
  EXPECT_EQ(f.profAdmin->DeleteProfile(T("Work"), 0), S_OK);  // and it can still be removed
}

TEST(ServiceAdmin, ProvidersComeFromMapisvcAndTheProviderAdmin) {
  Fixture f;
  ASSERT_EQ(f.admin->CreateMsgService(T("MULTI"), T("Given Name"), 0, 0), S_OK);
  ASSERT_EQ(f.admin->CreateMsgService(T("MULTI"), nullptr, 0, 0), S_OK);  // not single-copy
  LPSRowSet services = f.Services();
  ASSERT_EQ(services->cRows, 2u);
  EXPECT_EQ(Text(services->aRow[0], PR_DISPLAY_NAME_A), "Given Name");
  EXPECT_EQ(Text(services->aRow[1], PR_DISPLAY_NAME_A), "MULTI");
  MAPIUID uid = Uid(services->aRow[0], PR_SERVICE_UID);
  FreeProws(services);

  LPMAPITABLE table = nullptr;
  ASSERT_EQ(f.admin->GetProviderTable(0, &table), S_OK);
  LPSRowSet all = AllRows(table);
  EXPECT_EQ(all->cRows, 4u);
  FreeProws(all);

  LPPROVIDERADMIN providers = nullptr;
  ASSERT_EQ(f.admin->AdminProviders(&uid, 0, &providers), S_OK);
  ASSERT_EQ(providers->GetProviderTable(MAPI_UNICODE, &table), S_OK);
  LPSRowSet rows = AllRows(table);
  ASSERT_EQ(rows->cRows, 2u);
  EXPECT_EQ(Find(rows->aRow[0], PR_RESOURCE_TYPE)->Value.ul, ULONG(MAPI_STORE_PROVIDER));
  EXPECT_EQ(Find(rows->aRow[1], PR_RESOURCE_TYPE)->Value.ul, ULONG(MAPI_TRANSPORT_PROVIDER));
  const SPropValue* wide = Find(rows->aRow[1], PR_PROVIDER_DISPLAY_W);
  ASSERT_NE(wide, nullptr);
  EXPECT_EQ(std::u16string(wide->Value.lpszW), u"Multi Transport");
  FreeProws(rows);

  SPropValue prop{};
  prop.ulPropTag = PROP_TAG(PT_STRING8, 0x6620);
  prop.Value.lpszA = T("extra");
  MAPIUID added{};
  ASSERT_EQ(providers->CreateProvider(T("MULTI_EXTRA"), 1, &prop, 0, 0, &added), S_OK);
  EXPECT_EQ(ReadLines(f.log).back(), "ServiceEntry ctx=6 flags=0 values=1 6620001E=extra");
  EXPECT_EQ(providers->CreateProvider(T("NO_SUCH_SECTION"), 0, nullptr, 0, 0, &added), MAPI_E_NOT_FOUND);
  ASSERT_EQ(providers->GetProviderTable(0, &table), S_OK);
  rows = AllRows(table);
  ASSERT_EQ(rows->cRows, 3u);
  EXPECT_EQ(Text(rows->aRow[2], PR_PROVIDER_DISPLAY_A), "Multi Extra");
  FreeProws(rows);
  {
    EnvScope fail("ADTEST_SERVICE_FAIL", "7");
    EXPECT_EQ(providers->DeleteProvider(&added), MAPI_E_USER_CANCEL);  // the service keeps it
  }
  ASSERT_EQ(providers->DeleteProvider(&added), S_OK);
  EXPECT_EQ(ReadLines(f.log).back(), "ServiceEntry ctx=7 flags=0 values=0");
  EXPECT_EQ(providers->DeleteProvider(&added), MAPI_E_NOT_FOUND);
  ASSERT_EQ(providers->GetProviderTable(0, &table), S_OK);
  rows = AllRows(table);
  EXPECT_EQ(rows->cRows, 2u);
  FreeProws(rows);
  providers->Release();

  // Deleting the profile tells each service.
  size_t before = ReadLines(f.log).size();
  ASSERT_EQ(f.profAdmin->DeleteProfile(T("work"), 0), S_OK);
  std::vector<std::string> lines = ReadLines(f.log);
  ASSERT_EQ(lines.size(), before + 2);
  EXPECT_EQ(lines.back(), "ServiceEntry ctx=4 flags=0 values=0");
}
