// Registers the scriptable archive as the data provider in the current state directory
// (HKEY_CLASSES_ROOT\CLSID\{CLSID}\InprocServer32), optionally naming its fixture there too.
#pragma once
#include <string>

#include <adplatform_com.h>
#include <windows.h>

#include "ZT4DataProvider.h"

namespace scriptarchive {

// Value under the CLSID key that names the fixture when ARCHIVEDEPOT_ARCHIVE_FIXTURE is unset.
inline constexpr const char* kFixtureValueName = "Fixture";

inline HRESULT RegisterScriptArchive(const std::string& modulePath, const std::string& fixturePath = {}) {
  HRESULT hr = adp::RegisterInprocServer(CLSID_ZT4DataProvider, modulePath.c_str());
  if (FAILED(hr) || fixturePath.empty()) return hr;
  const std::string key = "CLSID\\" + adp::GuidToRegistryString(CLSID_ZT4DataProvider);
  HKEY hkey = nullptr;
  LSTATUS status = RegCreateKeyExA(HKEY_CLASSES_ROOT, key.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, &hkey, nullptr);
  if (status != ERROR_SUCCESS) return HRESULT_FROM_WIN32(status);
  status = RegSetValueExA(hkey, kFixtureValueName, 0, REG_SZ, reinterpret_cast<const BYTE*>(fixturePath.c_str()),
                          static_cast<DWORD>(fixturePath.size() + 1));
  RegCloseKey(hkey);
  return status == ERROR_SUCCESS ? S_OK : HRESULT_FROM_WIN32(status);
}

}  // namespace scriptarchive
