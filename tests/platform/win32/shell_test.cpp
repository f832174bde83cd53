#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "adplatform.h"
#include "shlobj.h"
#include "test_home.h"
#include "windows.h"

namespace {

std::string KnownFolder(REFKNOWNFOLDERID id, HRESULT* result = nullptr) {
  PWSTR path = reinterpret_cast<PWSTR>(1);
  HRESULT hr = SHGetKnownFolderPath(id, 0, nullptr, &path);
  if (result) *result = hr;
  std::string text = path ? adp::Utf16ToUtf8(path) : "<null>";
  CoTaskMemFree(path);
  return text;
}

bool IsDirectory(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

TEST(KnownFolders, LiveUnderTheStateDirectoryAndAreCreated) {
  adtest::TempHome home;
  HRESULT hr = E_FAIL;
  const std::string local = KnownFolder(FOLDERID_LocalAppData, &hr);
  EXPECT_EQ(hr, S_OK);
  EXPECT_EQ(local, home.Home() + "/user/AppData/Local");
  EXPECT_TRUE(IsDirectory(local));
  const std::string roaming = KnownFolder(FOLDERID_RoamingAppData);
  const std::string common = KnownFolder(FOLDERID_ProgramData);
  EXPECT_EQ(roaming, home.Home() + "/user/AppData/Roaming");
  EXPECT_EQ(common, home.Home() + "/ProgramData");
  EXPECT_TRUE(IsDirectory(roaming));
  EXPECT_TRUE(IsDirectory(common));
  EXPECT_EQ(KnownFolder(FOLDERID_Profile), home.Home() + "/user");

  // The installer's log folder: the known folder with a backslash path behind it.
  std::string logFolder = local + "\\Larkmoor Systems\\Nimbrel\\LogFiles";
  EXPECT_EQ(adp::NativePath(logFolder.c_str()), local + "/Larkmoor Systems/Nimbrel/LogFiles");

  char path[MAX_PATH];
  EXPECT_EQ(SHGetFolderPathA(nullptr, CSIDL_LOCAL_APPDATA | CSIDL_FLAG_CREATE, nullptr, SHGFP_TYPE_CURRENT, path),
            S_OK);
  EXPECT_EQ(std::string(path), local);
  EXPECT_EQ(SHGetFolderPathA(nullptr, CSIDL_APPDATA, nullptr, SHGFP_TYPE_CURRENT, path), S_OK);
  EXPECT_EQ(std::string(path), roaming);
  EXPECT_EQ(SHGetFolderPathA(nullptr, CSIDL_COMMON_APPDATA, nullptr, SHGFP_TYPE_DEFAULT, path), S_OK);
  EXPECT_EQ(std::string(path), common);
  WCHAR wide[MAX_PATH];
  EXPECT_EQ(SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA, nullptr, 0, wide), S_OK);
  EXPECT_EQ(adp::Utf16ToUtf8(wide), local);
}

TEST(KnownFolders, EachStateDirectoryHasItsOwnFolders) {
  std::string first, second;
  {
    adtest::TempHome home;
    first = KnownFolder(FOLDERID_LocalAppData);
  }
  {
    adtest::TempHome home;
    second = KnownFolder(FOLDERID_LocalAppData);
    EXPECT_EQ(second.rfind(home.Home(), 0), 0u);
  }
  EXPECT_NE(first, second);
}

TEST(KnownFolders, RefuseBadRequests) {
  adtest::TempHome home;
  HRESULT hr = S_OK;
  const GUID unknown = {0x12345678, 0x1234, 0x1234, {1, 2, 3, 4, 5, 6, 7, 8}};
  EXPECT_EQ(KnownFolder(unknown, &hr), "<null>");  // *ppszPath is NULL after a failure
  EXPECT_EQ(hr, E_INVALIDARG);
  EXPECT_EQ(SHGetKnownFolderPath(FOLDERID_LocalAppData, 0, nullptr, nullptr), E_INVALIDARG);
  char path[MAX_PATH] = "old";
  EXPECT_EQ(SHGetFolderPathA(nullptr, 0x7E, nullptr, 0, path), E_INVALIDARG);
  EXPECT_STREQ(path, "");
  EXPECT_EQ(SHGetFolderPathA(nullptr, CSIDL_APPDATA, nullptr, 7, path), E_INVALIDARG);
  EXPECT_EQ(SHGetFolderPathA(nullptr, CSIDL_APPDATA, nullptr, 0, nullptr), E_INVALIDARG);

  // A state directory that can't hold folders: a plain file stands in its way.
  const std::string blocker = home.Root() + "/blocker";
  std::ofstream(blocker) << "x";
  setenv("ARCHIVEDEPOT_HOME", (blocker + "/state").c_str(), 1);
  EXPECT_EQ(KnownFolder(FOLDERID_LocalAppData, &hr), "<null>");
  EXPECT_TRUE(FAILED(hr));
  EXPECT_TRUE(FAILED(SHGetFolderPathA(nullptr, CSIDL_APPDATA, nullptr, 0, path)));

  // A path longer than MAX_PATH fits the known-folder form only.
  const std::string deep = home.Root() + "/" + std::string(200, 'd') + "/" + std::string(100, 'e');
  setenv("ARCHIVEDEPOT_HOME", deep.c_str(), 1);
  EXPECT_EQ(SHGetFolderPathA(nullptr, CSIDL_LOCAL_APPDATA, nullptr, 0, path),
            HRESULT_FROM_WIN32(ERROR_FILENAME_EXCED_RANGE));
  EXPECT_EQ(KnownFolder(FOLDERID_LocalAppData, &hr), deep + "/user/AppData/Local");
  EXPECT_EQ(hr, S_OK);
}
