// Set-up shared by the language, default-folder and current-user tests: the scriptable archive
// as this process's data provider, and the registry's language choice.
#pragma once
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "ScriptArchiveRegistration.h"
#include "ZT4Globals.h"
#include "test_home.h"

namespace zt4test {

// Makes the scriptable archive with `fixture` the data provider of the process. The provider
// object lives for the process, so only the first call's fixture counts; call it under the
// first test's home.
inline IZT4DataProvider* UseScriptArchive(const adtest::TempHome& home, const std::string& fixture) {
  EXPECT_TRUE(SUCCEEDED(CoInitializeEx(NULL, COINIT_MULTITHREADED)));
  if (IZT4DataProvider* pProvider = GetDataProvider()) return pProvider;
  std::string path = home.Root() + "/archive.fixture";
  std::ofstream(path) << fixture;
  EXPECT_EQ(scriptarchive::RegisterScriptArchive(adtest::BinPath("ZT4ScriptArchive.so"), path), S_OK);
  return GetDataProvider();
}

// The LCID value under HKEY_CURRENT_USER "Software\TQProfile"; NULL removes it.
inline void SetRegistryLCID(const DWORD* pdwLCID, DWORD dwType = REG_DWORD) {
  HKEY hKey = NULL;
  ASSERT_EQ(RegCreateKeyExA(HKEY_CURRENT_USER, "Software\\TQProfile", 0, NULL, 0, KEY_WRITE, NULL, &hKey, NULL),
            ERROR_SUCCESS);
  if (pdwLCID)
    EXPECT_EQ(RegSetValueExA(hKey, "LCID", 0, dwType, reinterpret_cast<const BYTE*>(pdwLCID), sizeof(DWORD)),
              ERROR_SUCCESS);
  else
    RegDeleteValueA(hKey, "LCID");
  RegCloseKey(hKey);
}

}  // namespace zt4test
