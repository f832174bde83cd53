// Profiles through IProfAdmin: life cycle, the default profile, bad names, initialisation, and
// two processes sharing the store.
#include <gtest/gtest.h>

#include <filesystem>

#include "msgtest_util.h"
#include "profile.h"
#include "test_home.h"

using namespace msgtest;

namespace {

std::vector<std::pair<std::string, bool>> Profiles(LPPROFADMIN admin) {
  LPMAPITABLE table = nullptr;
  EXPECT_EQ(admin->GetProfileTable(0, &table), S_OK);
  LPSRowSet rows = AllRows(table);
  std::vector<std::pair<std::string, bool>> out;
  for (ULONG i = 0; i < rows->cRows; ++i) {
    out.emplace_back(Text(rows->aRow[i], PR_DISPLAY_NAME_A), Find(rows->aRow[i], PR_DEFAULT_PROFILE)->Value.b != 0);
  }
  FreeProws(rows);
  return out;
}

using List = std::vector<std::pair<std::string, bool>>;

}  // namespace

TEST(ProfStore, InitialisationIsCountedAsPublished) {
  adtest::TempHome home;
  LPPROFADMIN admin = nullptr;
  EXPECT_EQ(MAPIAdminProfiles(0, &admin), MAPI_E_NOT_INITIALIZED);
  MAPIUninitialize();  // unmatched: harmless
  MAPIINIT_0 init = {MAPI_INIT_VERSION, MAPI_MULTITHREAD_NOTIFICATIONS};
  ASSERT_EQ(MAPIInitialize(&init), S_OK);
  ASSERT_EQ(MAPIInitialize(nullptr), S_OK);
  MAPIINIT_0 bad = {MAPI_INIT_VERSION, 0x40000000};
  EXPECT_EQ(MAPIInitialize(&bad), MAPI_E_UNKNOWN_FLAGS);
  MAPIINIT_0 future = {7, 0};
  EXPECT_EQ(MAPIInitialize(&future), MAPI_E_VERSION);
  MAPIUninitialize();
  ASSERT_EQ(MAPIAdminProfiles(0, &admin), S_OK);  // one initialisation is still open
  LPPROFADMIN other = nullptr;
  EXPECT_EQ(MAPIAdminProfiles(0x2, &other), MAPI_E_UNKNOWN_FLAGS);
  EXPECT_EQ(other, nullptr);
  EXPECT_EQ(MAPIAdminProfiles(0, nullptr), MAPI_E_INVALID_PARAMETER);
  admin->Release();
  MAPIUninitialize();
  EXPECT_EQ(MAPIAdminProfiles(0, &admin), MAPI_E_NOT_INITIALIZED);
}

TEST(ProfStore, LifeCycleAndDefaultProfile) {
  adtest::TempHome home;
  MapiScope mapi;
  LPPROFADMIN admin = nullptr;
  ASSERT_EQ(MAPIAdminProfiles(0, &admin), S_OK);
  EXPECT_EQ(Profiles(admin), List{});
  ASSERT_EQ(admin->CreateProfile(T("Work"), nullptr, 0, 0), S_OK);
  ASSERT_EQ(admin->CreateProfile(T("Home Mail"), T("ignored password"), 0, 0), S_OK);
  EXPECT_EQ(admin->CreateProfile(T("Work"), nullptr, 0, 0), MAPI_E_NO_ACCESS);
  EXPECT_EQ(admin->CreateProfile(T("WORK"), nullptr, 0, 0), MAPI_E_NO_ACCESS);  // names ignore case
  // The first profile made becomes the default.
  EXPECT_EQ(Profiles(admin), (List{{"Home Mail", false}, {"Work", true}}));
  std::shared_ptr<adm::Profile> profile;
  ASSERT_EQ(adm::Profile::Open(nullptr, &profile), S_OK);
  EXPECT_EQ(profile->Name(), "Work");

  ASSERT_EQ(admin->SetDefaultProfile(T("home mail"), 0), S_OK);
  EXPECT_EQ(Profiles(admin), (List{{"Home Mail", true}, {"Work", false}}));
  EXPECT_EQ(admin->SetDefaultProfile(T("Nobody"), 0), MAPI_E_NOT_FOUND);
  ASSERT_EQ(admin->RenameProfile(T("Home Mail"), nullptr, T("Private"), 0, 0), S_OK);
  EXPECT_EQ(Profiles(admin), (List{{"Private", true}, {"Work", false}}));  // the default follows
  EXPECT_EQ(admin->RenameProfile(T("Private"), nullptr, T("work"), 0, 0), MAPI_E_NO_ACCESS);
  ASSERT_EQ(admin->RenameProfile(T("Private"), nullptr, T("PRIVATE"), 0, 0), S_OK);  // a change of case
  ASSERT_EQ(admin->CopyProfile(T("Work"), nullptr, T("Work Copy"), 0, 0), S_OK);
  EXPECT_EQ(admin->CopyProfile(T("Nobody"), nullptr, T("X"), 0, 0), MAPI_E_NOT_FOUND);
  EXPECT_EQ(Profiles(admin), (List{{"PRIVATE", true}, {"Work", false}, {"Work Copy", false}}));

  ASSERT_EQ(admin->DeleteProfile(T("private"), 0), S_OK);
  EXPECT_EQ(admin->DeleteProfile(T("private"), 0), MAPI_E_NOT_FOUND);
  EXPECT_EQ(Profiles(admin), (List{{"Work", false}, {"Work Copy", false}}));
  EXPECT_EQ(adm::Profile::Open(nullptr, &profile), MAPI_E_NOT_FOUND);  // no default now
  ASSERT_EQ(admin->SetDefaultProfile(T("Work Copy"), 0), S_OK);
  ASSERT_EQ(admin->SetDefaultProfile(nullptr, 0), S_OK);
  EXPECT_EQ(Profiles(admin), (List{{"Work", false}, {"Work Copy", false}}));

  LPSERVICEADMIN services = nullptr;
  EXPECT_EQ(admin->AdminServices(T("Nobody"), nullptr, 0, 0, &services), MAPI_E_NOT_FOUND);
  EXPECT_EQ(services, nullptr);
  LPMAPIERROR err = nullptr;
  ASSERT_EQ(admin->GetLastError(MAPI_E_NOT_FOUND, 0, &err), S_OK);
  EXPECT_NE(std::string(err->lpszError).find("Nobody"), std::string::npos);
  MAPIFreeBuffer(err);
  EXPECT_EQ(admin->ChangeProfilePassword(T("Work"), nullptr, nullptr, 0), MAPI_E_NO_SUPPORT);
  admin->Release();
}

TEST(ProfStore, BadNamesAndFlags) {
  adtest::TempHome home;
  MapiScope mapi;
  LPPROFADMIN admin = nullptr;
  ASSERT_EQ(MAPIAdminProfiles(0, &admin), S_OK);
  EXPECT_EQ(admin->CreateProfile(nullptr, nullptr, 0, 0), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(admin->CreateProfile(T(""), nullptr, 0, 0), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(admin->CreateProfile(T(std::string(65, 'x').c_str()), nullptr, 0, 0), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(admin->CreateProfile(T("tab\there"), nullptr, 0, 0), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(admin->CreateProfile(T("x"), nullptr, 0, 0x1000), MAPI_E_UNKNOWN_FLAGS);
  // Names that look like paths stay inside the store.
  for (const char* hostile : {"..", "../escape", "a/b", "\\\\server\\share", "%2e%2e"}) {
    ASSERT_EQ(admin->CreateProfile(T(hostile), nullptr, 0, 0), S_OK) << hostile;
  }
  for (const auto& e : std::filesystem::directory_iterator(home.Home() + "/profiles")) {
    EXPECT_TRUE(e.path().filename() == "default" || e.is_directory()) << e.path();
  }
  EXPECT_FALSE(std::filesystem::exists(home.Home() + "/escape"));
  EXPECT_EQ(Profiles(admin).size(), 5u);
  ASSERT_EQ(admin->DeleteProfile(T("../escape"), 0), S_OK);
  EXPECT_EQ(Profiles(admin).size(), 4u);
  std::string wide(64, 'w');
  EXPECT_EQ(admin->CreateProfile(T(wide.c_str()), nullptr, 0, 0), S_OK);  // the longest allowed
  EXPECT_EQ(admin->DeleteProfile(nullptr, 0), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(admin->GetProfileTable(0x1, nullptr), MAPI_E_INVALID_PARAMETER);
  admin->Release();
}

TEST(ProfStore, DefaultServicesComeFromMapisvc) {
  adtest::TempHome home;
  MapiScope mapi;
  WriteTestMapisvc();
  Inf("Default Services", "MULTI", "Multi Service");
  LPPROFADMIN admin = nullptr;
  ASSERT_EQ(MAPIAdminProfiles(0, &admin), S_OK);
  ASSERT_EQ(admin->CreateProfile(T("Defaults"), nullptr, 0, MAPI_DEFAULT_SERVICES), S_OK);
  std::shared_ptr<adm::Profile> profile;
  ASSERT_EQ(adm::Profile::Open("defaults", &profile), S_OK);
  std::vector<adm::ServiceInfo> services;
  ASSERT_EQ(profile->GetServices(&services), S_OK);
  ASSERT_EQ(services.size(), 1u);
  EXPECT_EQ(services[0].name, "MULTI");
  ASSERT_EQ(services[0].providers.size(), 2u);
  EXPECT_EQ(services[0].providers[1].resourceType, ULONG(MAPI_TRANSPORT_PROVIDER));

  // A default service that fails leaves no profile behind.
  Inf("Default Services", "BROKEN", "Broken");
  EXPECT_EQ(admin->CreateProfile(T("Half"), nullptr, 0, MAPI_DEFAULT_SERVICES), MAPI_E_NOT_FOUND);
  EXPECT_EQ(adm::Profile::Open("Half", &profile), MAPI_E_NOT_FOUND);
  admin->Release();
}

TEST(ProfStore, TwoProcessesShareSections) {
  adtest::TempHome home;
  MapiScope mapi;
  ASSERT_EQ(adm::CreateProfileEntry("Shared"), S_OK);
  MAPIUID uid = adm::NewUid();
  std::string hex = adm::UidHex(uid);
  // Written in the child, read here.
  ASSERT_EQ(adtest::RunChild(adtest::BinPath("profstore_child"), {"write", "Shared", hex, "from child"}), 0);
  std::shared_ptr<adm::Profile> profile;
  ASSERT_EQ(adm::Profile::Open("shared", &profile), S_OK);
  LPPROFSECT section = nullptr;
  ASSERT_EQ(profile->OpenSection(&uid, MAPI_MODIFY, &section), S_OK);
  LPSPropValue v = GetOne(section, PROP_TAG(PT_STRING8, 0x6650));
  EXPECT_STREQ(v->Value.lpszA, "from child");
  MAPIFreeBuffer(v);
  // Written here, read in the child.
  SPropValue mine{};
  mine.ulPropTag = PROP_TAG(PT_STRING8, 0x6650);
  mine.Value.lpszA = T("from parent");
  ASSERT_EQ(section->SetProps(1, &mine, nullptr), S_OK);
  ASSERT_EQ(section->SaveChanges(0), S_OK);
  section->Release();
  EXPECT_EQ(adtest::RunChild(adtest::BinPath("profstore_child"), {"read", "Shared", hex, "from parent"}), 0);
  EXPECT_EQ(adtest::RunChild(adtest::BinPath("profstore_child"), {"read", "Shared", hex, "other"}), 2);
  EXPECT_EQ(adtest::RunChild(adtest::BinPath("profstore_child"), {"read", "Nobody", hex, "x"}), 1);

  // Two processes updating different properties of one section at once lose no update.
  const int rounds = 40;
  {
    adtest::ChildProcess a(adtest::BinPath("profstore_child"), {"count", "Shared", hex, "6661", std::to_string(rounds)});
    adtest::ChildProcess b(adtest::BinPath("profstore_child"), {"count", "Shared", hex, "6662", std::to_string(rounds)});
    EXPECT_EQ(a.Wait(), 0);
    EXPECT_EQ(b.Wait(), 0);
  }
  ASSERT_EQ(profile->OpenSection(&uid, 0, &section), S_OK);
  for (ULONG id : {0x6661u, 0x6662u}) {
    v = GetOne(section, PROP_TAG(PT_LONG, id));
    EXPECT_EQ(v->Value.l, rounds) << std::hex << id;
    MAPIFreeBuffer(v);
  }
  section->Release();

  // Two processes creating profiles at once: every one is made, none twice.
  {
    adtest::ChildProcess a(adtest::BinPath("profstore_child"), {"create", "a", "15"});
    adtest::ChildProcess b(adtest::BinPath("profstore_child"), {"create", "b", "15"});
    EXPECT_EQ(a.Wait(), 0);
    EXPECT_EQ(b.Wait(), 0);
  }
  EXPECT_EQ(adm::ListProfiles().size(), 31u);
  EXPECT_EQ(adtest::RunChild(adtest::BinPath("profstore_child"), {"create", "a", "1"}), 1);  // exists
}
