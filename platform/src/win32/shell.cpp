// Known folders and CSIDL folders, placed under the state directory and created on demand.
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include "adplatform.h"
#include "shlobj.h"
#include "winerror.h"

namespace {

struct Folder {
  const KNOWNFOLDERID* id;
  int csidl;  // -1: no CSIDL
  const char* relative;
};

const Folder kFolders[] = {
    {&FOLDERID_LocalAppData, CSIDL_LOCAL_APPDATA, "user/AppData/Local"},
    {&FOLDERID_RoamingAppData, CSIDL_APPDATA, "user/AppData/Roaming"},
    {&FOLDERID_LocalAppDataLow, -1, "user/AppData/LocalLow"},
    {&FOLDERID_ProgramData, CSIDL_COMMON_APPDATA, "ProgramData"},
    {&FOLDERID_Documents, CSIDL_PERSONAL, "user/Documents"},
    {&FOLDERID_Desktop, CSIDL_DESKTOPDIRECTORY, "user/Desktop"},
    {&FOLDERID_Profile, CSIDL_PROFILE, "user"},
};

const Folder* ByKnownId(REFKNOWNFOLDERID id) {
  for (const Folder& f : kFolders)
    if (IsEqualGUID(*f.id, id)) return &f;
  return nullptr;
}

const Folder* ByCsidl(int csidl) {
  for (const Folder& f : kFolders)
    if (f.csidl == (csidl & ~CSIDL_FLAG_MASK)) return &f;
  return nullptr;
}

HRESULT FromErrno(int error) {
  switch (error) {
    case EACCES:
    case EPERM: return HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED);
    case ENOENT: return HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND);
    case ENOTDIR:
    case EEXIST: return HRESULT_FROM_WIN32(ERROR_DIRECTORY);
    case ENOSPC: return HRESULT_FROM_WIN32(ERROR_DISK_FULL);
    case EROFS: return HRESULT_FROM_WIN32(ERROR_WRITE_PROTECT);
    case ENAMETOOLONG: return HRESULT_FROM_WIN32(ERROR_FILENAME_EXCED_RANGE);
    default: return HRESULT_FROM_WIN32(ERROR_CANNOT_MAKE);
  }
}

// The folder's path, created with its parents.
HRESULT FolderPath(const Folder& folder, std::string& path) {
  try {
    path = adp::StateDirectory() + "/" + folder.relative;
    std::error_code ec;
    std::filesystem::create_directories(path, ec);
    if (ec) return FromErrno(ec.value());
    if (!std::filesystem::is_directory(path, ec)) return HRESULT_FROM_WIN32(ERROR_DIRECTORY);
    return S_OK;
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  } catch (...) {
    return E_FAIL;
  }
}

template <class Char>
HRESULT CopyPath(const std::basic_string<Char>& path, Char* out) {
  if (path.size() >= MAX_PATH) return HRESULT_FROM_WIN32(ERROR_FILENAME_EXCED_RANGE);
  std::memcpy(out, path.c_str(), (path.size() + 1) * sizeof(Char));
  return S_OK;
}

HRESULT CsidlPath(int csidl, DWORD dwFlags, std::string& path) {
  if (dwFlags != SHGFP_TYPE_CURRENT && dwFlags != SHGFP_TYPE_DEFAULT) return E_INVALIDARG;
  const Folder* folder = ByCsidl(csidl);
  return folder ? FolderPath(*folder, path) : E_INVALIDARG;
}

}  // namespace

extern "C" {

HRESULT SHGetKnownFolderPath(REFKNOWNFOLDERID rfid, DWORD, HANDLE, PWSTR* ppszPath) {
  if (!ppszPath) return E_INVALIDARG;
  *ppszPath = nullptr;
  const Folder* folder = ByKnownId(rfid);
  if (!folder) return E_INVALIDARG;
  std::string path;
  HRESULT hr = FolderPath(*folder, path);
  if (FAILED(hr)) return hr;
  try {
    std::u16string wide = adp::Utf8ToUtf16(path.c_str());
    auto* result = static_cast<PWSTR>(CoTaskMemAlloc((wide.size() + 1) * sizeof(WCHAR)));
    if (!result) return E_OUTOFMEMORY;
    std::memcpy(result, wide.c_str(), (wide.size() + 1) * sizeof(WCHAR));
    *ppszPath = result;
    return S_OK;
  } catch (...) {
    return E_OUTOFMEMORY;
  }
}

HRESULT SHGetFolderPathA(HWND, int csidl, HANDLE, DWORD dwFlags, LPSTR pszPath) {
  if (!pszPath) return E_INVALIDARG;
  pszPath[0] = '\0';
  std::string path;
  HRESULT hr = CsidlPath(csidl, dwFlags, path);
  return FAILED(hr) ? hr : CopyPath(path, pszPath);
}

HRESULT SHGetFolderPathW(HWND, int csidl, HANDLE, DWORD dwFlags, LPWSTR pszPath) {
  if (!pszPath) return E_INVALIDARG;
  pszPath[0] = 0;
  std::string path;
  HRESULT hr = CsidlPath(csidl, dwFlags, path);
  if (FAILED(hr)) return hr;
  try {
    return CopyPath(adp::Utf8ToUtf16(path.c_str()), pszPath);
  } catch (...) {
    return E_OUTOFMEMORY;
  }
}

}  // extern "C"
