// What a client sees when the provider's logon can't be made, and what the service entry does in
// each profile-time context it is called in.
#include <gtest/gtest.h>

#include "provider_session.h"

using namespace zt4it;

namespace {

const char kMailbox[] = "[folder Projects]\n";

bool SetStorePath(ProviderSession& s, const std::string& path) {
  std::shared_ptr<adm::Profile> profile;
  if (FAILED(adm::Profile::Open(s.Profile().c_str(), &profile))) return false;
  std::vector<adm::ServiceInfo> services;
  if (FAILED(profile->GetServices(&services)) || services.empty() || services[0].providers.empty()) return false;
  return SUCCEEDED(profile->UpdateSection(services[0].providers[0].uid, false, [&](adm::PropSet& set) {
    SPropValue v = {};
    v.ulPropTag = PR_ZT4_STORE_PATH_A;
    v.Value.lpszA = const_cast<char*>(path.c_str());
    return set.Set(v);
  }));
}

}  // namespace

TEST(ProviderLogonFailures, ServerRefusingTheLoginFailsOnlyThisProvider) {
  AD_PROVIDER_TEST_IN_OWN_PROCESS();
  ProviderSession s(std::string(kMailbox) + "[provider]\nLastProviderError = 2\n");
  ASSERT_NO_FATAL_FAILURE(s.Prepare());
  EXPECT_EQ(s.Logon(), MAPI_E_FAILONEPROVIDER);
  EXPECT_FALSE(s.Store());
  // Logged as the login failure it is, at level 1.
  EXPECT_TRUE(s.LogHas("CMSProvider::Logon:80040111")) << s.LogText();
}

TEST(ProviderLogonFailures, OtherProviderErrorsLetTheLogonGoOn) {
  AD_PROVIDER_TEST_IN_OWN_PROCESS();
  ProviderSession s(std::string(kMailbox) + "[provider]\nLastProviderError = 1\n");
  ASSERT_NO_FATAL_FAILURE(s.PrepareAndLogon());
  EXPECT_TRUE(s.FindFolder("Projects"));
}

TEST(ProviderLogonFailures, NoDataProviderModule) {
  AD_PROVIDER_TEST_IN_OWN_PROCESS();
  SessionOptions options;
  options.registerArchive = false;
  ProviderSession s(kMailbox, options);
  ASSERT_NO_FATAL_FAILURE(s.Prepare());
  EXPECT_EQ(s.Logon(), MAPI_E_FAILONEPROVIDER);
  EXPECT_FALSE(s.Store());
  // A second attempt in the same process is refused the same way, without a hang.
  EXPECT_EQ(s.Logon(), MAPI_E_FAILONEPROVIDER);
}

TEST(ProviderLogonFailures, NoUserIdentity) {
  AD_PROVIDER_TEST_IN_OWN_PROCESS();
  SessionOptions options;
  options.identity = false;
  ProviderSession s(kMailbox, options);
  ASSERT_NO_FATAL_FAILURE(s.Prepare());
  EXPECT_EQ(s.Logon(), MAPI_E_FAILONEPROVIDER);
  EXPECT_FALSE(s.Store());
  EXPECT_TRUE(s.LogHas("CMSProvider::Logon:80004005")) << s.LogText();
}

TEST(ProviderLogonFailures, StoreFileThatCannotBeCreated) {
  AD_PROVIDER_TEST_IN_OWN_PROCESS();
  ProviderSession s(kMailbox);
  ASSERT_NO_FATAL_FAILURE(s.Prepare());
  const std::string bad = s.Home().Root() + "/no/such/folder/1.CST";
  ASSERT_TRUE(SetStorePath(s, bad));
  EXPECT_EQ(s.Logon(), MAPI_E_FAILONEPROVIDER);
  EXPECT_FALSE(s.Store());
  EXPECT_TRUE(s.LogHas("Failed to create the database file: " + bad)) << s.LogText();
  EXPECT_TRUE(s.LogHas("OpenMsgStoreDataBase (pPrivSupObj, pProps[STORE_PATH].Value.LPSZ, szStoreName, "
                       "szStoreComment, &uidResource, TRUE, &pBEobj) failed"));
  // The spooler context reports the real code instead.
  adm::SetSpoolerProcess(true);
  HRESULT hr = s.Logon();
  adm::SetSpoolerProcess(false);
  EXPECT_TRUE(FAILED(hr));
  EXPECT_NE(hr, MAPI_E_FAILONEPROVIDER);
}

TEST(ProviderServiceEntry, ContextsThroughServiceAdministration) {
  AD_PROVIDER_TEST_IN_OWN_PROCESS();
  ProviderSession s(kMailbox);
  BOOL fChanged = FALSE;
  ASSERT_EQ(s.InstallService(&fChanged), S_OK);
  EXPECT_TRUE(fChanged);
  // Installing again finds the name already there.
  ASSERT_EQ(s.InstallService(&fChanged), S_OK);
  EXPECT_FALSE(fChanged);
  MAPIUID service{};
  ASSERT_EQ(s.CreateProfile(&service), S_OK);
  const std::string path = s.ProviderSectionText(PR_ZT4_STORE_PATH_A);
  EXPECT_EQ(path.substr(path.size() - 4), ".CST") << path;
  adm::PropSet section;
  ASSERT_TRUE(s.ReadProviderSection(&section));
  std::vector<BYTE> uid = BinProp(section.Find(PR_STORE_RECORD_KEY));
  EXPECT_EQ(uid.size(), 16u);
  EXPECT_EQ(NarrowProp(section.Find(PR_PROVIDER_DISPLAY_A)), "ArchiveDepot");

  Ref<IMsgServiceAdmin> admin = s.ServiceAdmin();
  ASSERT_TRUE(admin);
  // Without UI and without properties: the properties are saved as read.
  EXPECT_EQ(admin->ConfigureMsgService(&service, 0, 0, 0, nullptr), S_OK);
  EXPECT_EQ(s.ProviderSectionText(PR_ZT4_STORE_PATH_A), path);
  // With UI outside the mail client: a refusal to the user, no change.
  EXPECT_EQ(admin->ConfigureMsgService(&service, 0, SERVICE_UI_ALWAYS, 0, nullptr), S_OK);
  EXPECT_EQ(s.ProviderSectionText(PR_ZT4_STORE_PATH_A), path);
  // With a path given: a new store identity is made.
  // The service entry upper-cases the given path in place: it must be writable.
  char givenPath[] = "c:\\somewhere\\x.cst";
  SPropValue given = {};
  given.ulPropTag = PR_ZT4_STORE_PATH_A;
  given.Value.lpszA = givenPath;
  EXPECT_EQ(admin->ConfigureMsgService(&service, 0, 0, 1, &given), S_OK);
  adm::PropSet after;
  ASSERT_TRUE(s.ReadProviderSection(&after));
  EXPECT_NE(BinProp(after.Find(PR_STORE_RECORD_KEY)), uid);
  EXPECT_NE(NarrowProp(after.Find(PR_ZT4_STORE_PATH_A)), path);
  EXPECT_STREQ(givenPath, "C:\\SOMEWHERE\\X.CST");

  // Provider changes are not supported, and the service keeps its provider.
  Ref<IProviderAdmin> providers;
  ASSERT_EQ(admin->AdminProviders(&service, 0, providers.Out()), S_OK);
  MAPIUID newProvider{};
  EXPECT_EQ(providers->CreateProvider(reinterpret_cast<LPTSTR>(const_cast<char*>("ZT4_MSPROVIDER")), 0, nullptr, 0, 0,
                                      &newProvider),
            MAPI_E_NO_SUPPORT);
  EXPECT_TRUE(s.LogHas("ServiceEntry: Unsupported context! Context: 6")) << s.LogText();
  std::shared_ptr<adm::Profile> profile;
  ASSERT_EQ(adm::Profile::Open(s.Profile().c_str(), &profile), S_OK);
  adm::ServiceInfo info;
  ASSERT_EQ(profile->GetService(service, &info), S_OK);
  ASSERT_EQ(info.providers.size(), 1u);
  MAPIUID existing = info.providers[0].uid;
  EXPECT_EQ(providers->DeleteProvider(&existing), MAPI_E_NO_SUPPORT);
  EXPECT_TRUE(s.LogHas("ServiceEntry: Unsupported context! Context: 7"));
  ASSERT_EQ(profile->GetService(service, &info), S_OK);
  EXPECT_EQ(info.providers.size(), 1u);

  // Deleting the service returns at once and the service goes.
  EXPECT_EQ(admin->DeleteMsgService(&service), S_OK);
  EXPECT_TRUE(s.LogHas("ServiceEntry: Immediate return. Context: 4"));
  EXPECT_EQ(profile->GetService(service, &info), MAPI_E_NOT_FOUND);
}

TEST(ProviderServiceEntry, SilentCreationWithoutTheInstallerDoesNothing) {
  AD_PROVIDER_TEST_IN_OWN_PROCESS();
  SessionOptions options;
  options.holdUpdatingMutex = false;
  ProviderSession s(kMailbox, options);
  ASSERT_EQ(s.InstallService(), S_OK);
  ASSERT_EQ(s.CreateProfile(), S_OK);
  EXPECT_EQ(s.ProviderSectionText(PR_ZT4_STORE_PATH_A), "<missing>");
  adm::PropSet section;
  ASSERT_TRUE(s.ReadProviderSection(&section));
  EXPECT_EQ(section.Find(PR_STORE_RECORD_KEY), nullptr);
  EXPECT_TRUE(s.LogHas("ServiceEntry: Context for call: 2"));
}
