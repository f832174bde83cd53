// The installer's MAPISVC.INF functions, against the files the messaging subsystem finds.
#include "UTILS.h"

#include <gtest/gtest.h>
#include <mapix.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "adplatform.h"
#include "mapisvc.h"
#include "trace_fixture.h"

namespace {

// Marks the process's traces as set up, so the installer's InitTraces leaves the test log alone.
struct TracesOff {
  TracesOff() { InitTraces(0); }
};

std::string SystemFolder() {
  char sz[MAX_PATH] = "";
  EXPECT_GT(GetSystemDirectoryA(sz, MAX_PATH), 0u);
  return sz;
}

std::string Read(const std::string& path, LPCSTR section, LPCSTR key) {
  char sz[4096] = "";
  GetPrivateProfileStringA(section, key, "", sz, sizeof sz, path.c_str());
  return sz;
}

bool HasSection(const std::string& path, LPCSTR section) {
  char sz[4096] = "";
  return GetPrivateProfileSectionA(section, sz, sizeof sz, path.c_str()) > 0;
}

class UtilsTest : public ::testing::Test {
 protected:
  void StartMapi() {
    ASSERT_EQ(MAPIInitialize(nullptr), S_OK);
    m_bMapi = true;
  }
  void TearDown() override {
    if (m_bMapi) MAPIUninitialize();
  }
  std::string SystemInf() const { return SystemFolder() + "\\MAPISVC.INF"; }
  std::string MapiInf() const { return adm::MapisvcPath(); }

  void ExpectInstallRows(const std::string& path) {
    EXPECT_EQ(Read(path, "Services", "ZT4MSPROVIDER"), "Orvanta Message Store");
    EXPECT_EQ(Read(path, "ZT4MSPROVIDER", "PR_DISPLAY_NAME"), "Orvanta Message Store");
    EXPECT_EQ(Read(path, "ZT4MSPROVIDER", "PR_SERVICE_DLL_NAME"), "ZT4MSProvider.DLL");
    EXPECT_EQ(Read(path, "ZT4MSPROVIDER", "PR_SERVICE_ENTRY_NAME"), "ServiceEntry");
    EXPECT_EQ(Read(path, "ZT4MSPROVIDER", "PR_RESOURCE_FLAGS"), "SERVICE_SINGLE_COPY|SERVICE_NO_PRIMARY_IDENTITY");
    EXPECT_EQ(Read(path, "ZT4MSPROVIDER", "WIZARD_ENTRY_NAME"), "WizardEntry");
    EXPECT_EQ(Read(path, "ZT4MSPROVIDER", "Providers"), "ZT4_MSPROVIDER");
    EXPECT_EQ(Read(path, "ZT4MSPROVIDER", "PR_SERVICE_SUPPORT_FILES"), "ZT4MSProvider.DLL");
    EXPECT_EQ(Read(path, "ZT4MSPROVIDER", "PR_SERVICE_DELETE_FILES"), "ZT4MSProvider.DLL");
    EXPECT_EQ(Read(path, "ZT4_MSPROVIDER", "PR_RESOURCE_TYPE"), "MAPI_STORE_PROVIDER");
    EXPECT_EQ(Read(path, "ZT4_MSPROVIDER", "PR_PROVIDER_DLL_NAME"), "ZT4MSProvider.DLL");
    EXPECT_EQ(Read(path, "ZT4_MSPROVIDER", "PR_RESOURCE_FLAGS"), "STATUS_DEFAULT_STORE");
    EXPECT_EQ(Read(path, "ZT4_MSPROVIDER", "PR_PROVIDER_DISPLAY"), "Orvanta Message Store");
  }

  TracesOff m_tracesOff;
  zt4test::TraceLog m_log{5};
  bool m_bMapi = false;
};

TEST_F(UtilsTest, PathsAreTheSystemFolderThenTheMapiLibraryFolder) {
  StartMapi();
  std::vector<std::string> paths;
  GetMAPISVCPath(paths, 0);
  ASSERT_EQ(paths.size(), 2u);
  EXPECT_EQ(paths[0], SystemInf());
  EXPECT_EQ(adp::NativePath(paths[1].c_str()), MapiInf());
  EXPECT_TRUE(m_log.Has("MAPISVC.INF path: " + SystemInf() + "\r\n"));
  EXPECT_TRUE(m_log.Has("MAPISVC.INF path: " + paths[1] + "\r\n"));
}

TEST_F(UtilsTest, WithoutAStubOnlyTheSystemFolderIsUsed) {
  std::vector<std::string> paths;
  GetMAPISVCPath(paths, 1);
  ASSERT_EQ(paths.size(), 1u);
  EXPECT_EQ(paths[0], SystemInf());
}

TEST_F(UtilsTest, Mapi32IsTheFallbackForAMissingStub) {
  StartMapi();
  ASSERT_TRUE(std::filesystem::remove(adp::NativePath((SystemFolder() + "\\mapistub.so").c_str())));
  std::vector<std::string> paths;
  GetMAPISVCPath(paths, 0);
  ASSERT_EQ(paths.size(), 2u);
  EXPECT_EQ(adp::NativePath(paths[1].c_str()), MapiInf());
}

TEST_F(UtilsTest, OutlookRegistryQualifiersStillFindTheLibrary) {
  StartMapi();
  HKEY hKey = NULL;
  ASSERT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, "Software\\Clients\\Mail\\Microsoft Outlook", 0, NULL, 0, KEY_WRITE,
                            NULL, &hKey, NULL),
            ERROR_SUCCESS);
  const char szLcid[] = "1033";
  const char szComponent[] = "{FF1D0740-D227-11D1-A4B0-006008AF820E}";
  RegSetValueExA(hKey, "MSIApplicationLCID", 0, REG_SZ, reinterpret_cast<const BYTE*>(szLcid), sizeof szLcid);
  RegSetValueExA(hKey, "MSIComponentID", 0, REG_SZ, reinterpret_cast<const BYTE*>(szComponent), sizeof szComponent);
  RegCloseKey(hKey);
  std::vector<std::string> paths;
  GetMAPISVCPath(paths, 0);
  ASSERT_EQ(paths.size(), 2u);
  EXPECT_EQ(adp::NativePath(paths[1].c_str()), MapiInf());
}

TEST_F(UtilsTest, AllFoldersAddsTheVisibleSiblingsOfTheLibraryFolder) {
  StartMapi();
  std::string subsystem = m_log.Home().Home() + "/subsystem";
  std::filesystem::create_directories(subsystem + "/other");
  std::filesystem::create_directories(subsystem + "/.hidden");
  std::vector<std::string> paths;
  GetMAPISVCPath(paths, 0);
  EXPECT_EQ(paths.size(), 2u);
  GetMAPISVCPath(paths, 1);
  ASSERT_EQ(paths.size(), 3u);
  std::vector<std::string> native;
  for (const auto& p : paths) native.push_back(adp::NativePath(p.c_str()));
  EXPECT_NE(std::find(native.begin(), native.end(), subsystem + "/other/MAPISVC.INF"), native.end());
  EXPECT_NE(std::find(native.begin(), native.end(), MapiInf()), native.end());

  BOOL fChanged = FALSE;
  ASSERT_EQ(MergeWithMAPISVC(WIDE(""), &fChanged, 1), S_OK);
  ExpectInstallRows(subsystem + "/other/MAPISVC.INF");
  EXPECT_FALSE(std::filesystem::exists(subsystem + "/.hidden/MAPISVC.INF"));
}

TEST_F(UtilsTest, MergeIntoEmptyFilesWritesTheRowsAndTheDefaultName) {
  StartMapi();
  BOOL fChanged = FALSE;
  ASSERT_EQ(MergeWithMAPISVC(NULL, &fChanged, 0), S_OK);
  EXPECT_TRUE(fChanged);
  for (const std::string& path : {SystemInf(), MapiInf()}) {
    ExpectInstallRows(path);
    EXPECT_EQ(Read(path, "ZT4_MSPROVIDER", "PR_DISPLAY_NAME"), "ArchiveDepot");
  }
  EXPECT_TRUE(m_log.Has(" MergeWithMAPISVC is starting\r\n"));
  EXPECT_TRUE(m_log.Has(" Writing to this file: \"" + SystemInf() + "\"\r\n"));
}

TEST_F(UtilsTest, MergeWithTheNameAlreadyThereLeavesChangedClearAndRewritesTheRows) {
  StartMapi();
  BOOL fChanged = FALSE;
  ASSERT_EQ(MergeWithMAPISVC(WIDE("My Archive"), &fChanged, 0), S_OK);
  EXPECT_TRUE(fChanged);
  EXPECT_EQ(Read(MapiInf(), "ZT4_MSPROVIDER", "PR_DISPLAY_NAME"), "My Archive");
  ASSERT_TRUE(WritePrivateProfileStringA("ZT4MSPROVIDER", "PR_SERVICE_DLL_NAME", NULL, MapiInf().c_str()));

  fChanged = TRUE;
  ASSERT_EQ(MergeWithMAPISVC(WIDE("MY ARCHIVE"), &fChanged, 0), S_OK);
  EXPECT_FALSE(fChanged);
  EXPECT_EQ(Read(MapiInf(), "ZT4_MSPROVIDER", "PR_DISPLAY_NAME"), "My Archive");
  ExpectInstallRows(MapiInf());

  // No name given, one in the file: kept, nothing changed.
  fChanged = TRUE;
  ASSERT_EQ(MergeWithMAPISVC(NULL, &fChanged, 0), S_OK);
  EXPECT_FALSE(fChanged);
  EXPECT_EQ(Read(SystemInf(), "ZT4_MSPROVIDER", "PR_DISPLAY_NAME"), "My Archive");
}

TEST_F(UtilsTest, MergeWithANewNameReplacesTheOldOne) {
  StartMapi();
  BOOL fChanged = FALSE;
  ASSERT_EQ(MergeWithMAPISVC(WIDE("First"), &fChanged, 0), S_OK);
  ASSERT_EQ(MergeWithMAPISVC(WIDE("Second"), &fChanged, 0), S_OK);
  EXPECT_TRUE(fChanged);
  EXPECT_EQ(Read(SystemInf(), "ZT4_MSPROVIDER", "PR_DISPLAY_NAME"), "Second");
  EXPECT_EQ(Read(MapiInf(), "ZT4_MSPROVIDER", "PR_DISPLAY_NAME"), "Second");
}

TEST_F(UtilsTest, MergeCutsALongNameAt1024Bytes) {
  StartMapi();
  std::u16string name(2000, u'n');
  BOOL fChanged = FALSE;
  ASSERT_EQ(MergeWithMAPISVC(reinterpret_cast<LPCWSTR>(name.c_str()), &fChanged, 0), S_OK);
  EXPECT_EQ(Read(MapiInf(), "ZT4_MSPROVIDER", "PR_DISPLAY_NAME"), std::string(1024, 'n'));
}

TEST_F(UtilsTest, MergeRefusesBadArguments) {
  StartMapi();
  EXPECT_EQ(MergeWithMAPISVC(WIDE("x"), NULL, 0), E_INVALIDARG);
  EXPECT_TRUE(m_log.Has(" pfChanged is NULL\r\n"));
  EXPECT_TRUE(m_log.Has(" MergeWithMAPISVC:80070057\r\n"));
  const WCHAR wszBroken[] = {0xD800, 0};  // a lone surrogate
  BOOL fChanged = TRUE;
  EXPECT_EQ(MergeWithMAPISVC(wszBroken, &fChanged, 0), E_INVALIDARG);
  EXPECT_EQ(Read(MapiInf(), "Services", "ZT4MSPROVIDER"), "");
}

TEST_F(UtilsTest, AFailedWriteIsLoggedAndTheOtherFilesAreStillWritten) {
  StartMapi();
  std::filesystem::create_directories(adp::NativePath(SystemInf().c_str()));
  BOOL fChanged = FALSE;
  ASSERT_EQ(MergeWithMAPISVC(NULL, &fChanged, 0), S_OK);
  EXPECT_TRUE(m_log.Has(" Faield to write \"Services,ZT4MSPROVIDER,Orvanta Message Store\" to this file: \"" +
                        SystemInf() + "\"\r\n"));
  ExpectInstallRows(MapiInf());
}

TEST_F(UtilsTest, RemoveTakesOnlyThisServiceAway) {
  StartMapi();
  BOOL fChanged = FALSE;
  ASSERT_EQ(MergeWithMAPISVC(NULL, &fChanged, 0), S_OK);
  for (const std::string& path : {SystemInf(), MapiInf()}) {
    ASSERT_TRUE(WritePrivateProfileStringA("Services", "OTHERSVC", "Other Service", path.c_str()));
    ASSERT_TRUE(WritePrivateProfileStringA("OTHERSVC", "PR_DISPLAY_NAME", "Other Service", path.c_str()));
  }
  ASSERT_EQ(RemoveFromMAPISVC(), S_OK);
  for (const std::string& path : {SystemInf(), MapiInf()}) {
    EXPECT_EQ(Read(path, "Services", "ZT4MSPROVIDER"), "");
    EXPECT_FALSE(HasSection(path, "ZT4MSPROVIDER"));
    EXPECT_FALSE(HasSection(path, "ZT4_MSPROVIDER"));
    EXPECT_EQ(Read(path, "Services", "OTHERSVC"), "Other Service");
    EXPECT_EQ(Read(path, "OTHERSVC", "PR_DISPLAY_NAME"), "Other Service");
  }
  EXPECT_FALSE(adm::InfListsService("ZT4MSProvider"));
  EXPECT_EQ(GetStoreDisplayName(std::vector<char>(64).data(), 64, 0), E_FAIL);
}

TEST_F(UtilsTest, DisplayNameComesFromTheFirstFileThatHasOne) {
  StartMapi();
  ASSERT_TRUE(WritePrivateProfileStringA("ZT4_MSPROVIDER", "PR_DISPLAY_NAME", "Beside MAPI", MapiInf().c_str()));
  char szName[64] = "";
  ASSERT_EQ(GetStoreDisplayName(szName, sizeof szName, 0), S_OK);
  EXPECT_STREQ(szName, "Beside MAPI");
  EXPECT_TRUE(m_log.Has(" Reading display name:Beside MAPI from: "));
  ASSERT_TRUE(WritePrivateProfileStringA("ZT4_MSPROVIDER", "PR_DISPLAY_NAME", "System", SystemInf().c_str()));
  ASSERT_EQ(GetStoreDisplayName(szName, sizeof szName, 0), S_OK);
  EXPECT_STREQ(szName, "System");
  EXPECT_TRUE(m_log.Has(" Reading display name:System from: " + SystemInf() + "\r\n"));
}

TEST_F(UtilsTest, DisplayNameInSmallBuffers) {
  StartMapi();
  ASSERT_TRUE(WritePrivateProfileStringA("ZT4_MSPROVIDER", "PR_DISPLAY_NAME", "Archive Name", MapiInf().c_str()));
  char szName[16];
  std::memset(szName, 'x', sizeof szName);
  ASSERT_EQ(GetStoreDisplayName(szName, 5, 0), S_OK);
  EXPECT_STREQ(szName, "Arch");
  EXPECT_EQ(szName[5], 'x');
  // Room for the terminator alone reads nothing.
  EXPECT_EQ(GetStoreDisplayName(szName, 1, 0), E_FAIL);
  EXPECT_EQ(szName[0], '\0');
  EXPECT_EQ(GetStoreDisplayName(szName, 0, 0), E_INVALIDARG);
  EXPECT_EQ(GetStoreDisplayName(NULL, 16, 0), E_INVALIDARG);
  EXPECT_TRUE(m_log.Has(" pszName is NULL\r\n"));
}

TEST_F(UtilsTest, NoDisplayNameAnywhereFails) {
  char szName[16] = "old";
  EXPECT_EQ(GetStoreDisplayName(szName, sizeof szName, 0), E_FAIL);
  EXPECT_STREQ(szName, "");
}

TEST_F(UtilsTest, NoRowsIsAnInvalidArgument) { EXPECT_EQ(HrSetProfileParameters(MAPISVCROWS(), 0), E_INVALIDARG); }

TEST_F(UtilsTest, WithoutASystemFolderNothingIsFound) {
  // A state directory whose system folder doesn't fit in MAX_PATH.
  std::string longHome = m_log.Home().Root() + "/" + std::string(200, 'h') + "/" + std::string(100, 'h');
  struct HomeScope {
    std::string strOld = std::getenv("ARCHIVEDEPOT_HOME");
    explicit HomeScope(const std::string& strNew) { ::setenv("ARCHIVEDEPOT_HOME", strNew.c_str(), 1); }
    ~HomeScope() { ::setenv("ARCHIVEDEPOT_HOME", strOld.c_str(), 1); }
  } home(longHome);
  std::vector<std::string> paths;
  GetMAPISVCPath(paths, 1);
  EXPECT_TRUE(paths.empty());
  char szName[16];
  EXPECT_EQ(GetStoreDisplayName(szName, sizeof szName, 0), E_FAIL);
  BOOL fChanged = FALSE;
  EXPECT_EQ(MergeWithMAPISVC(WIDE("Name"), &fChanged, 0), E_FAIL);
  EXPECT_EQ(RemoveFromMAPISVC(), E_FAIL);
  EXPECT_TRUE(m_log.Has(" Cannot locate mapisvc.inf file!\r\n"));
  EXPECT_TRUE(m_log.Has(" MergeWithMAPISVC:80004005\r\n"));
}

}  // namespace
