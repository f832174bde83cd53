#include "UTILS.h"

#include <winreg.h>

#include <cstdlib>
#include <cstring>

#include "ZT4_TRACES.h"

namespace {

const char kOutlookClientKey[] = "Software\\Clients\\Mail\\Microsoft Outlook";
const char kMapisvcName[] = "\\MAPISVC.INF";
const char kProviderSection[] = "ZT4_MSPROVIDER";
const char kDefaultDisplayName[] = "ArchiveDepot";
const char kServiceDisplay[] = "Orvanta Message Store";
const char kProviderDll[] = "ZT4MSProvider.DLL";
const ULONG cbNameMax = 1024;

const MAPISVCROW kInstallRows[] = {
    {"Services", "ZT4MSPROVIDER", 0, kServiceDisplay},
    {"ZT4MSPROVIDER", "PR_DISPLAY_NAME", 0, kServiceDisplay},
    {"ZT4MSPROVIDER", "PR_SERVICE_DLL_NAME", 0, kProviderDll},
    {"ZT4MSPROVIDER", "PR_SERVICE_ENTRY_NAME", 0, "ServiceEntry"},
    {"ZT4MSPROVIDER", "PR_RESOURCE_FLAGS", 0, "SERVICE_SINGLE_COPY|SERVICE_NO_PRIMARY_IDENTITY"},
    {"ZT4MSPROVIDER", "WIZARD_ENTRY_NAME", 0, "WizardEntry"},
    {"ZT4MSPROVIDER", "Providers", 0, kProviderSection},
    {"ZT4MSPROVIDER", "PR_SERVICE_SUPPORT_FILES", 0, kProviderDll},
    {"ZT4MSPROVIDER", "PR_SERVICE_DELETE_FILES", 0, kProviderDll},
    {kProviderSection, "PR_RESOURCE_TYPE", 0, "MAPI_STORE_PROVIDER"},
    {kProviderSection, "PR_PROVIDER_DLL_NAME", 0, kProviderDll},
    {kProviderSection, "PR_RESOURCE_FLAGS", 0, "STATUS_DEFAULT_STORE"},
    {kProviderSection, "PR_PROVIDER_DISPLAY", 0, kServiceDisplay},
};

// The key is removed in another case than it was written in; INF keys ignore case.
const MAPISVCROW kRemoveRows[] = {
    {"Services", "ZT4MSProvider", 0, NULL},
    {"ZT4MSPROVIDER", NULL, 0, NULL},
    {kProviderSection, NULL, 0, NULL},
};

using LPFGETCOMPONENTPATH = BOOL(STDAPICALLTYPE*)(LPCSTR, LPSTR, LPSTR, DWORD, BOOL);

class CLibrary {
 public:
  explicit CLibrary(LPCSTR pszPath) : m_hModule(LoadLibraryA(pszPath)) {}
  ~CLibrary() {
    if (m_hModule) FreeLibrary(m_hModule);
  }
  CLibrary(const CLibrary&) = delete;
  CLibrary& operator=(const CLibrary&) = delete;
  FARPROC Proc(LPCSTR pszName) const { return m_hModule ? GetProcAddress(m_hModule, pszName) : NULL; }

 private:
  HMODULE m_hModule;
};

class CRegKey {
 public:
  CRegKey(HKEY hRoot, LPCSTR pszSubKey) {
    if (RegOpenKeyExA(hRoot, pszSubKey, 0, KEY_READ, &m_hKey) != ERROR_SUCCESS) m_hKey = NULL;
  }
  ~CRegKey() {
    if (m_hKey) RegCloseKey(m_hKey);
  }
  CRegKey(const CRegKey&) = delete;
  CRegKey& operator=(const CRegKey&) = delete;

  // The text value, or "" when the key or the value isn't there.
  std::string Text(LPCSTR pszValue) const {
    char szData[MAX_PATH] = "";
    DWORD cbData = sizeof szData - 1;
    DWORD dwType = 0;
    if (!m_hKey || RegQueryValueExA(m_hKey, pszValue, NULL, &dwType, reinterpret_cast<LPBYTE>(szData), &cbData) !=
                       ERROR_SUCCESS || dwType != REG_SZ) {
      return std::string();
    }
    szData[cbData < sizeof szData ? cbData : sizeof szData - 1] = '\0';
    return szData;
  }

 private:
  HKEY m_hKey = NULL;
};

class CFindHandle {
 public:
  CFindHandle(LPCSTR pszPattern, WIN32_FIND_DATAA* pData) : m_hFind(FindFirstFileA(pszPattern, pData)) {}
  ~CFindHandle() {
    if (Valid()) FindClose(m_hFind);
  }
  CFindHandle(const CFindHandle&) = delete;
  CFindHandle& operator=(const CFindHandle&) = delete;
  bool Valid() const { return m_hFind != INVALID_HANDLE_VALUE; }
  bool Next(WIN32_FIND_DATAA* pData) const { return FindNextFileA(m_hFind, pData) != FALSE; }

 private:
  HANDLE m_hFind;
};

void AddFolder(std::vector<std::string>& folders, const std::string& strFolder) {
  for (const std::string& strKnown : folders) {
    if (lstrcmpiA(strKnown.c_str(), strFolder.c_str()) == 0) return;
  }
  folders.push_back(strFolder);
}

// Asks with the application's LCID, then Office's, then with no qualifier; "" when none answers.
std::string AskComponentPath(LPFGETCOMPONENTPATH pfnFGetComponentPath) {
  CRegKey key(HKEY_LOCAL_MACHINE, kOutlookClientKey);
  std::string strComponent = key.Text("MSIComponentID");
  std::string aQualifiers[] = {key.Text("MSIApplicationLCID"), key.Text("MSIOfficeLCID")};
  char szPath[MAX_PATH] = "";
  for (std::string& strQualifier : aQualifiers) {
    if (strQualifier.empty()) continue;
    if (pfnFGetComponentPath(strComponent.c_str(), strQualifier.data(), szPath, MAX_PATH, TRUE) && szPath[0]) {
      return szPath;
    }
    szPath[0] = '\0';
  }
  if (!pfnFGetComponentPath(strComponent.c_str(), NULL, szPath, MAX_PATH, TRUE)) szPath[0] = '\0';
  return szPath;
}

// The folders beside strFolder (itself among them) whose names don't begin with a dot.
void AddSiblingFolders(std::vector<std::string>& folders, const std::string& strFolder) {
  size_t nSlash = strFolder.find_last_of('\\');
  if (nSlash == std::string::npos) return;
  std::string strParent = strFolder.substr(0, nSlash);
  WIN32_FIND_DATAA data = {};
  CFindHandle find((strParent + "\\*").c_str(), &data);
  if (!find.Valid()) return;
  do {
    if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) && data.cFileName[0] != '.') {
      AddFolder(folders, strParent + "\\" + data.cFileName);
    }
  } while (find.Next(&data));
}

// The library's folder as its FGetComponentPath names it; FALSE when it has no such export.
BOOL AskThroughLibrary(const std::string& strLibrary, std::string& strResult) {
  CLibrary library(strLibrary.c_str());
  auto pfn = reinterpret_cast<LPFGETCOMPONENTPATH>(library.Proc("FGetComponentPath"));
  if (!pfn) return FALSE;
  strResult = AskComponentPath(pfn);
  return TRUE;
}

void AddComponentFolders(std::vector<std::string>& folders, const std::string& strSystem, ULONG ulAllFolders) {
  std::string strResult;
  if (!AskThroughLibrary(strSystem + "\\mapistub.dll", strResult)) {
    AskThroughLibrary(strSystem + "\\mapi32.dll", strResult);
  }
  if (strResult.empty()) return;
  size_t nSlash = strResult.find_last_of('\\');
  if (nSlash != std::string::npos) strResult.resize(nSlash);
  AddFolder(folders, strResult);
  if (ulAllFolders == 1) AddSiblingFolders(folders, strResult);
}

LPCSTR OrNull(LPCSTR psz) { return psz ? psz : "(null)"; }

void WriteRows(const MAPISVCROWS& rows, const std::string& strPath) {
  ZT4_LOG(ZT4_LEVEL_ERROR, "Writing to this file: \"%s\"\n", strPath.c_str());
  for (const MAPISVCROW& row : rows) {
    if (!WritePrivateProfileStringA(row.pszSection, row.pszKey, row.pszValue, strPath.c_str())) {
      ZT4_LOG(ZT4_LEVEL_ERROR, "Faield to write \"%s,%s,%s\" to this file: \"%s\"\n", OrNull(row.pszSection),
              OrNull(row.pszKey), OrNull(row.pszValue), strPath.c_str());
    }
  }
  WritePrivateProfileStringA(NULL, NULL, NULL, strPath.c_str());
}

// The incoming name in the ANSI code page, cut to cbNameMax bytes; FALSE when it can't be converted.
BOOL ConvertDisplayName(LPCWSTR pwszDisplayName, char (&szName)[cbNameMax + 1]) {
  return wcstombs(szName, pwszDisplayName, cbNameMax) != static_cast<size_t>(-1);
}

}  // namespace

void GetMAPISVCPath(std::vector<std::string>& paths, ULONG ulAllFolders) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  paths.clear();
  char szSystem[MAX_PATH] = "";
  UINT cchSystem = GetSystemDirectoryA(szSystem, MAX_PATH);
  if (cchSystem == 0 || cchSystem >= MAX_PATH) return;
  std::vector<std::string> folders;
  AddFolder(folders, szSystem);
  AddComponentFolders(folders, szSystem, ulAllFolders);
  for (const std::string& strFolder : folders) {
    paths.push_back(strFolder + kMapisvcName);
    ZT4_LOG(ZT4_LEVEL_ERROR, "MAPISVC.INF path: %s", paths.back().c_str());
  }
}

HRESULT HrSetProfileParameters(const MAPISVCROWS& rows, ULONG ulAllFolders) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  if (rows.empty()) return E_INVALIDARG;
  std::vector<std::string> paths;
  GetMAPISVCPath(paths, ulAllFolders);
  if (paths.empty()) {
    ZT4_LOG(ZT4_LEVEL_ERROR, "Cannot locate mapisvc.inf file!");
    return E_FAIL;
  }
  for (const std::string& strPath : paths) WriteRows(rows, strPath);
  return S_OK;
}

STDAPI MergeWithMAPISVC(LPCWSTR pwszDisplayName, LPBOOL pfChanged, ULONG ulAllFolders) {
  InitTraces(ZT4_TRACE_INSTALLER);
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  ZT4_LOG(ZT4_LEVEL_ERROR, "MergeWithMAPISVC is starting");
  HRESULT hResult = S_OK;
  try {
    ZT4_CHECK_NULL(pfChanged, E_INVALIDARG);
    MAPISVCROWS rows(std::begin(kInstallRows), std::end(kInstallRows));
    *pfChanged = FALSE;
    char szName[cbNameMax + 1] = "";
    char szExisting[cbNameMax] = "";
    if (FAILED(GetStoreDisplayName(szExisting, sizeof szExisting, ulAllFolders))) szExisting[0] = '\0';
    if (pwszDisplayName && pwszDisplayName[0]) {
      if (!ConvertDisplayName(pwszDisplayName, szName)) {
        ZT4_LOG(ZT4_LEVEL_ERROR, "MergeWithMAPISVC: The display name can't be converted");
        throw static_cast<HRESULT>(E_INVALIDARG);
      }
      *pfChanged = !szExisting[0] || lstrcmpiA(szName, szExisting) != 0;
    }
    if (!szName[0] && !szExisting[0]) {
      strcpy(szName, kDefaultDisplayName);
      *pfChanged = TRUE;
    }
    if (*pfChanged) rows.push_back({kProviderSection, "PR_DISPLAY_NAME", 0, szName});
    hResult = HrSetProfileParameters(rows, ulAllFolders);
  }
  ZT4_CATCH(hResult)
  ZT4_LOG_FAILURE("MergeWithMAPISVC", hResult);
  return hResult;
}

STDAPI RemoveFromMAPISVC() {
  return HrSetProfileParameters(MAPISVCROWS(std::begin(kRemoveRows), std::end(kRemoveRows)), 1);
}

STDAPI GetStoreDisplayName(LPSTR pszName, ULONG cbName, ULONG ulAllFolders) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  try {
    ZT4_CHECK_NULL(pszName, E_INVALIDARG);
    if (cbName == 0) throw static_cast<HRESULT>(E_INVALIDARG);
    pszName[0] = '\0';
    std::vector<std::string> paths;
    GetMAPISVCPath(paths, ulAllFolders);
    if (paths.empty()) {
      ZT4_LOG(ZT4_LEVEL_ERROR, "Cannot locate mapisvc.inf file!");
      throw static_cast<HRESULT>(E_FAIL);
    }
    for (const std::string& strPath : paths) {
      GetPrivateProfileStringA(kProviderSection, "PR_DISPLAY_NAME", NULL, pszName, cbName, strPath.c_str());
      if (pszName[0]) {
        ZT4_LOG(ZT4_LEVEL_INFO, "Reading display name:%s from: %s", pszName, strPath.c_str());
        return S_OK;
      }
    }
    hResult = E_FAIL;
  }
  ZT4_CATCH(hResult)
  return hResult;
}
