// MAPISVC.INF: found the way installers find it, parsed into properties, and the rule that maps a
// DLL name to the library loaded.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "adplatform.h"
#include "loader.h"
#include "msgtest_util.h"
#include "test_home.h"

using namespace msgtest;

namespace {

using FGetComponentPathProc = BOOL(STDAPICALLTYPE*)(LPCSTR, LPSTR, LPSTR, DWORD, BOOL);

// What an installer does: the stub from the system folder, then the file beside the MAPI library.
std::string InstallerMapisvcPath(const char* stub) {
  char system[MAX_PATH];
  EXPECT_GT(GetSystemDirectoryA(system, sizeof system), 0u);
  HMODULE h = LoadLibraryA((std::string(system) + "\\" + stub).c_str());
  EXPECT_NE(h, nullptr) << stub;
  if (!h) return std::string();
  auto proc = reinterpret_cast<FGetComponentPathProc>(GetProcAddress(h, "FGetComponentPath"));
  EXPECT_NE(proc, nullptr);
  char path[MAX_PATH] = "";
  EXPECT_TRUE(proc("{FF1D0740-D227-11D1-A4B0-006008AF820E}", nullptr, path, sizeof path, TRUE));
  char tiny[4] = "abc";
  EXPECT_FALSE(proc(nullptr, nullptr, tiny, sizeof tiny, FALSE));
  EXPECT_FALSE(proc(nullptr, nullptr, nullptr, 0, FALSE));
  FreeLibrary(h);
  std::string result(path);
  size_t slash = result.find_last_of('\\');
  EXPECT_NE(slash, std::string::npos);
  return result.substr(0, slash) + "\\MAPISVC.INF";
}

}  // namespace

TEST(Mapisvc, InstallersFindTheFileThroughTheStub) {
  adtest::TempHome home;
  MapiScope mapi;
  for (const char* stub : {"mapistub.dll", "MAPI32.DLL"}) {
    std::string path = InstallerMapisvcPath(stub);
    EXPECT_EQ(adp::NativePath(path.c_str()), adm::MapisvcPath());
    // The rows an installer writes are what the subsystem reads.
    ASSERT_TRUE(WritePrivateProfileStringA("Services", "ZT4MSPROVIDER", "Orvanta Message Store", path.c_str()));
  }
  EXPECT_TRUE(adm::InfListsService("zt4msprovider"));
  // Its folder is alone in its parent, so an installer updating the folders beside it finds none.
  size_t siblings = 0;
  for (const auto& e : std::filesystem::directory_iterator(home.Home() + "/subsystem")) {
    siblings += e.is_directory() ? 1 : 0;
  }
  EXPECT_EQ(siblings, 1u);
  // Removal with the other case of the key, as INF keys ignore case.
  std::string path = adm::MapisvcPath();
  ASSERT_TRUE(WritePrivateProfileStringA("Services", "ZT4MSProvider", nullptr, path.c_str()));
  EXPECT_FALSE(adm::InfListsService("ZT4MSPROVIDER"));
}

TEST(Mapisvc, SectionsBecomeProperties) {
  adtest::TempHome home;
  // The installation rows of a store service.
  Inf("ZT4MSPROVIDER", "PR_DISPLAY_NAME", "Orvanta Message Store");
  Inf("ZT4MSPROVIDER", "PR_SERVICE_DLL_NAME", "ZT4MSProvider.DLL");
  Inf("ZT4MSPROVIDER", "PR_SERVICE_ENTRY_NAME", "ServiceEntry");
  Inf("ZT4MSPROVIDER", "PR_RESOURCE_FLAGS", "SERVICE_SINGLE_COPY|SERVICE_NO_PRIMARY_IDENTITY");
  Inf("ZT4MSPROVIDER", "WIZARD_ENTRY_NAME", "WizardEntry");
  Inf("ZT4MSPROVIDER", "Providers", "ZT4_MSPROVIDER");
  Inf("ZT4MSPROVIDER", "PR_SERVICE_SUPPORT_FILES", "ZT4MSProvider.DLL, other.dll");
  Inf("ZT4_MSPROVIDER", "PR_RESOURCE_TYPE", "MAPI_STORE_PROVIDER");
  Inf("ZT4_MSPROVIDER", "PR_RESOURCE_FLAGS", "STATUS_DEFAULT_STORE");
  Inf("ZT4_MSPROVIDER", "PR_PROVIDER_DISPLAY", "Orvanta Message Store");
  // Tags in hex, values of other types, and values that do not parse.
  Inf("ZT4_MSPROVIDER", "6601001E", "C:\\store.cst");
  Inf("ZT4_MSPROVIDER", "6603000B", "TRUE");
  Inf("ZT4_MSPROVIDER", "66040102", "0A0b ff");
  Inf("ZT4_MSPROVIDER", "66050003", "0x10 | STATUS_OWN_STORE");
  Inf("ZT4_MSPROVIDER", "66060003", "NOT_A_FLAG");
  Inf("ZT4_MSPROVIDER", "66070102", "abc");
  Inf("ZT4_MSPROVIDER", "0000001E", "no id");
  Inf("ZT4_MSPROVIDER", "6608000D", "an object");

  adm::InfEntries entries;
  ASSERT_EQ(adm::ReadInfSection("zt4msprovider", &entries), S_OK);
  EXPECT_EQ(adm::InfValue(entries, "PROVIDERS"), "ZT4_MSPROVIDER");
  adm::PropSet props;
  ASSERT_EQ(adm::InfEntriesToProps(entries, &props), S_OK);
  EXPECT_EQ(props.Size(), 5u);
  EXPECT_EQ(props.Find(PR_RESOURCE_FLAGS)->Value.ul, ULONG(SERVICE_SINGLE_COPY | SERVICE_NO_PRIMARY_IDENTITY));
  EXPECT_STREQ(props.Find(PR_SERVICE_ENTRY_NAME)->Value.lpszA, "ServiceEntry");
  const SPropValue* files = props.Find(PR_SERVICE_SUPPORT_FILES_A);
  ASSERT_NE(files, nullptr);
  ASSERT_EQ(files->Value.MVszA.cValues, 2u);
  EXPECT_STREQ(files->Value.MVszA.lppszA[1], "other.dll");

  ASSERT_EQ(adm::ReadInfSection("ZT4_MSPROVIDER", &entries), S_OK);
  adm::PropSet provider;
  ASSERT_EQ(adm::InfEntriesToProps(entries, &provider), S_OK);
  EXPECT_EQ(provider.Find(PR_RESOURCE_TYPE)->Value.ul, ULONG(MAPI_STORE_PROVIDER));
  EXPECT_EQ(provider.Find(PR_RESOURCE_FLAGS)->Value.ul, ULONG(STATUS_DEFAULT_STORE));
  EXPECT_STREQ(provider.Find(PROP_TAG(PT_STRING8, 0x6601))->Value.lpszA, "C:\\store.cst");
  EXPECT_EQ(provider.Find(PROP_TAG(PT_BOOLEAN, 0x6603))->Value.b, 1);
  const SPropValue* bin = provider.Find(PROP_TAG(PT_BINARY, 0x6604));
  ASSERT_NE(bin, nullptr);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(bin->Value.bin.lpb), bin->Value.bin.cb), "\x0A\x0B\xFF");
  EXPECT_EQ(provider.Find(PROP_TAG(PT_LONG, 0x6605))->Value.ul, ULONG(0x10 | STATUS_OWN_STORE));
  EXPECT_EQ(provider.Find(PROP_TAG(PT_LONG, 0x6606)), nullptr);
  EXPECT_EQ(provider.Find(PROP_TAG(PT_BINARY, 0x6607)), nullptr);
  EXPECT_EQ(provider.Find(PROP_TAG(PT_OBJECT, 0x6608)), nullptr);

  EXPECT_EQ(adm::ReadInfSection("No Such Section", &entries), MAPI_E_NOT_FOUND);
  EXPECT_EQ(adm::ReadInfSection("", &entries), MAPI_E_NOT_FOUND);
  EXPECT_EQ(adm::InfList(" a, ,b ,"), (std::vector<std::string>{"a", "b"}));
}

TEST(Mapisvc, DllNamesMapToLibrariesByTheDocumentedRule) {
  adtest::TempHome home;
  const adm::ProviderLibrary* lib = nullptr;
  // Beside the program, any case of the name, found once.
  ASSERT_EQ(adm::LoadProviderLibrary("MSGPROVIDER_MODULE.DLL", &lib), S_OK);
  EXPECT_NE(lib->ServiceEntry, nullptr);
  EXPECT_NE(lib->MSProviderInit, nullptr);
  EXPECT_EQ(lib->Export("NoSuchExport"), nullptr);
  EXPECT_EQ(lib->path, adtest::BinPath("msgprovider_module.so"));
  const adm::ProviderLibrary* again = nullptr;
  ASSERT_EQ(adm::LoadProviderLibrary("msgprovider_module.dll", &again), S_OK);
  EXPECT_EQ(again->hModule, lib->hModule);
  ASSERT_EQ(adm::LoadProviderLibrary("MSGPROVIDER_MODULE.DLL", &again), S_OK);
  EXPECT_EQ(again, lib);

  // A folder named by ARCHIVEDEPOT_PROVIDER_PATH comes first.
  std::string folder = home.Root() + "/providers";
  std::filesystem::create_directories(folder);
  std::filesystem::copy_file(adtest::BinPath("msgprovider_module.so"), folder + "/otherservice.so");
  EXPECT_EQ(adm::LoadProviderLibrary("OtherService.DLL", &lib), MAPI_E_NOT_FOUND);
  {
    EnvScope env("ARCHIVEDEPOT_PROVIDER_PATH", "/nonexistent:" + folder);
    ASSERT_EQ(adm::ProviderSearchFolders().size() >= 2, true);
    EXPECT_EQ(adm::ProviderSearchFolders()[1], folder);
    ASSERT_EQ(adm::LoadProviderLibrary("OtherService.DLL", &lib), S_OK);
    EXPECT_EQ(lib->path, folder + "/otherservice.so");
    EXPECT_NE(lib->Export("ServiceEntry"), nullptr);
    EXPECT_EQ(lib->Export("NoSuchExport"), nullptr);
  }
  std::ofstream(folder + "/junk.so") << "not a library";
  EXPECT_EQ(adm::LoadProviderLibrary(folder + "/junk.dll", &lib), MAPI_E_NOT_FOUND);
  EXPECT_EQ(adm::LoadProviderLibrary("", &lib), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(adm::LoadProviderLibrary("x.dll", nullptr), MAPI_E_INVALID_PARAMETER);
}
