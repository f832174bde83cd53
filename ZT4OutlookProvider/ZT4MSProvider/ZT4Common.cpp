#include "ZT4Common.h"

#include <mapiutil.h>
#include <mapix.h>
#include <oleauto.h>

#include "MemHeap.h"
#include "ZT4GenProp.h"
#include "ZT4Globals.h"
#include "ZT4MSProvider.h"
#include "ZT4_TRACES.h"

namespace {

const DWORD LCID_ZH_HANT = 0x7C04;
const DWORD LCID_ZH_TW = 1028;

const WCHAR* const kEnglishNames[NUM_DEFAULT_FOLDERS] = {u"Deleted Items", u"Inbox", u"Outbox", u"Sent Items"};
const WCHAR* const kComments[NUM_DEFAULT_FOLDERS] = {u"Discarded Messages Waste Basket", u"Default Receive Folder",
                                                     u"Outgoing Client Queue", u"Already Sent Messages"};

// MAPI_ALLOW_OTHERS | MAPI_EXTENDED | MAPI_USE_DEFAULT: the client's own session when there is one.
const ULONG DEFAULT_FOLDER_LOGON_FLAGS = MAPI_ALLOW_OTHERS | MAPI_EXTENDED | MAPI_USE_DEFAULT;

// Sets the thread's UI language for the life of the object, so that the resource loader looks
// in that language first; puts back the thread's own choice afterwards.
class CThreadLanguage {
 public:
  explicit CThreadLanguage(LANGID langId)
      : m_langPrevious(GetThreadUILanguage()), m_fWasDefault(m_langPrevious == GetUserDefaultUILanguage()) {
    SetThreadUILanguage(langId);
  }
  ~CThreadLanguage() { SetThreadUILanguage(m_fWasDefault ? 0 : m_langPrevious); }
  CThreadLanguage(const CThreadLanguage&) = delete;
  CThreadLanguage& operator=(const CThreadLanguage&) = delete;

 private:
  LANGID m_langPrevious;
  BOOL m_fWasDefault;
};

// The string in the given language. A language the resources lack gets the loader's fallback,
// which ends in English: a text in the wrong language beats none.
int LoadStringForLCID(UINT uID, LCID lcid, LPWSTR pszBuffer) {
  if (lcid == 0) return LoadStringW(GetProviderInstance(), uID, pszBuffer, ZT4_STRING_BUFFER);
  CThreadLanguage language(LANGIDFROMLCID(lcid));
  return LoadStringW(GetProviderInstance(), uID, pszBuffer, ZT4_STRING_BUFFER);
}

// The name "%s" stands for in the provider's texts; the spooler's context never fills the
// store's display name, so the product name stands in for it there.
LPCWSTR StoreDisplayName() {
  static const WCHAR wszDefault[] = u"" PROVIDER_DISPLAY_NAME_STRING;
  return g_wszStoreDisplayName[0] ? g_wszStoreDisplayName : wszDefault;
}

// Copies pszFormat to pszOut (ZT4_STRING_BUFFER characters), each "%s" replaced by the name.
// Nothing else of the text is taken as a format, so a stray '%' can't read arguments.
void FormatWithDisplayName(LPCWSTR pszFormat, LPWSTR pszOut) {
  LPCWSTR pszName = StoreDisplayName();
  ULONG cch = 0;
  auto append = [&](WCHAR ch) {
    if (cch + 1 < ZT4_STRING_BUFFER) pszOut[cch++] = ch;
  };
  for (LPCWSTR p = pszFormat; *p; ++p) {
    if (p[0] == u'%' && p[1] == u's') {
      for (LPCWSTR n = pszName; *n; ++n) append(*n);
      ++p;
    } else {
      append(*p);
    }
  }
  pszOut[cch] = 0;
}

// A copy of a wide text on the private heap.
HRESULT CopyName(LPCWSTR pszName, LPWSTR* ppszCopy) {
  *ppszCopy = NULL;
  if (!pszName) return MAPI_E_INVALID_PARAMETER;
  size_t cch = 0;
  while (pszName[cch]) ++cch;
  LPVOID pv = NULL;
  HRESULT hResult = PrivAllocate(static_cast<ULONG>((cch + 1) * sizeof(WCHAR)), &pv, "DefaultFolderName");
  if (FAILED(hResult)) return hResult;
  memcpy(pv, pszName, (cch + 1) * sizeof(WCHAR));
  *ppszCopy = static_cast<LPWSTR>(pv);
  return S_OK;
}

// Releases a COM-style pointer and clears it.
template <class T> void ReleaseAndClear(T*& p) {
  if (p) p->Release();
  p = NULL;
}

// The data provider's setting; nonzero when the client's names are to be used.
LONG UseLocalizedFolderNames() {
  IZT4DataProvider* spProvider = GetDataProvider();
  ZT4_CHECK_NULL(spProvider, E_INVALIDARG);
  IZT4ProviderConfigPtr spConfig = spProvider->GetConfigurationParams();
  IZT4ProviderConfig* pConfig = spConfig.GetInterfacePtr();
  ZT4_CHECK_NULL(pConfig, E_INVALIDARG);
  return pConfig->UseLocalizedFolderNames();
}

// The store the profile marks as default, opened for reading.
HRESULT OpenDefaultStore(LPMAPISESSION lpSession, LPMDB* lppMDB) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  LPMAPITABLE lpTable = NULL;
  LPSRowSet lpRows = NULL;
  *lppMDB = NULL;
  try {
    ZT4_CHECK(lpSession->GetMsgStoresTable(0, &lpTable));
    static const SizedSPropTagArray(2, sptCols) = {2, {PR_ENTRYID, PR_DEFAULT_STORE}};
    ZT4_CHECK(HrQueryAllRows(lpTable, (LPSPropTagArray)&sptCols, NULL, NULL, 0, &lpRows));
    hResult = MAPI_E_NOT_FOUND;
    for (ULONG i = 0; i < lpRows->cRows; ++i) {
      LPSPropValue lpProps = lpRows->aRow[i].lpProps;
      if (lpRows->aRow[i].cValues < 2 || lpProps[0].ulPropTag != PR_ENTRYID ||
          lpProps[1].ulPropTag != PR_DEFAULT_STORE || !lpProps[1].Value.b)
        continue;
      ZT4_CHECK(lpSession->OpenMsgStore(0, lpProps[0].Value.bin.cb, (LPENTRYID)lpProps[0].Value.bin.lpb, NULL,
                                        MAPI_BEST_ACCESS | MDB_NO_DIALOG, lppMDB));
      break;
    }
  }
  ZT4_CATCH(hResult);
  if (lpRows) FreeProws(lpRows);
  ReleaseAndClear(lpTable);
  ZT4_LOG_FAILURE("OpenDefaultStore", hResult);
  return hResult;
}

// The entry ID of default folder ulIndex in the store; *lppEntryID is the caller's, from MAPI.
HRESULT GetDefaultFolderEntryID(LPMDB lpMDB, ULONG ulIndex, ULONG* lpcbEntryID, LPENTRYID* lppEntryID) {
  static const ULONG aulTags[NUM_DEFAULT_FOLDERS] = {PR_IPM_WASTEBASKET_ENTRYID, 0, PR_IPM_OUTBOX_ENTRYID,
                                                     PR_IPM_SENTMAIL_ENTRYID};
  *lpcbEntryID = 0;
  *lppEntryID = NULL;
  if (ulIndex == DEFAULT_INBOX) {
    char szClass[] = "IPM.Note";
    return lpMDB->GetReceiveFolder(szClass, 0, lpcbEntryID, lppEntryID, NULL);
  }
  LPSPropValue lpProp = NULL;
  HRESULT hResult = HrGetOneProp(lpMDB, aulTags[ulIndex], &lpProp);
  if (SUCCEEDED(hResult)) {
    hResult = MAPIAllocateBuffer(lpProp->Value.bin.cb, (LPVOID*)lppEntryID);
    if (SUCCEEDED(hResult)) {
      memcpy(*lppEntryID, lpProp->Value.bin.lpb, lpProp->Value.bin.cb);
      *lpcbEntryID = lpProp->Value.bin.cb;
    }
  }
  MAPIFreeBuffer(lpProp);
  return hResult;
}

// PR_DISPLAY_NAME_W of default folder ulIndex; *lppProp is the caller's, from MAPI.
HRESULT ReadDefaultFolderName(LPMDB lpMDB, ULONG ulIndex, LPSPropValue* lppProp) {
  HRESULT hResult = S_OK;
  ULONG cbEntryID = 0;
  LPENTRYID lpEntryID = NULL;
  LPUNKNOWN lpFolder = NULL;
  ULONG ulObjType = 0;
  *lppProp = NULL;
  try {
    ZT4_CHECK(GetDefaultFolderEntryID(lpMDB, ulIndex, &cbEntryID, &lpEntryID));
    ZT4_CHECK(lpMDB->OpenEntry(cbEntryID, lpEntryID, NULL, MAPI_BEST_ACCESS, &ulObjType, &lpFolder));
    ZT4_CHECK(HrGetOneProp((LPMAPIPROP)lpFolder, PR_DISPLAY_NAME_W, lppProp));
  }
  ZT4_CATCH(hResult);
  ReleaseAndClear(lpFolder);
  MAPIFreeBuffer(lpEntryID);
  return hResult;
}

}  // namespace

LCID GetLCID() {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  DWORD dwLCID = 0;
  HKEY hKey = NULL;
  if (RegOpenKeyExA(HKEY_CURRENT_USER, "Software\\TQProfile", 0, KEY_READ, &hKey) == ERROR_SUCCESS) {
    DWORD dwType = 0;
    DWORD cbData = sizeof(dwLCID);
    if (RegQueryValueExA(hKey, "LCID", NULL, &dwType, (LPBYTE)&dwLCID, &cbData) != ERROR_SUCCESS ||
        dwType != REG_DWORD || cbData != sizeof(dwLCID))
      dwLCID = 0;
    RegCloseKey(hKey);
  }
  if (dwLCID == LCID_ZH_HANT) {
    ZT4_LOG(ZT4_LEVEL_INFO, "Mapping zh-Hant to zh-TW");
    dwLCID = LCID_ZH_TW;
  }
  return dwLCID;
}

BOOL ZT4LoadString(UINT uID, LPWSTR pszOut) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  LCID lcid = GetLCID();
  WCHAR szFormat[ZT4_STRING_BUFFER] = {};
  if (!pszOut || LoadStringForLCID(uID, lcid, szFormat) <= 0) {
    ZT4_LOG(ZT4_LEVEL_ERROR, "Loading string failed, string id: %u, LCID: %lu", uID, static_cast<unsigned long>(lcid));
    if (pszOut) pszOut[0] = 0;
    return FALSE;
  }
  FormatWithDisplayName(szFormat, pszOut);
  return TRUE;
}

void ShowErrorBox(UINT uID) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  WCHAR szText[ZT4_STRING_BUFFER] = {};
  // Without its text the box would say nothing; the failed load is logged.
  if (!ZT4LoadString(uID, szText)) return;
  MessageBoxW(NULL, szText, StoreDisplayName(), MB_ICONEXCLAMATION);
}

// ---- CDefaultFolder ----

CDefaultFolder& CDefaultFolder::Instance() {
  static CDefaultFolder* pInstance = new CDefaultFolder;  // outlives static destructors
  return *pInstance;
}

CDefaultFolder::CDefaultFolder() : m_fEnglish(TRUE), m_fFilled(FALSE), m_apszLocalized{} {
  InitializeCriticalSection(&m_cs);
}

CDefaultFolder::~CDefaultFolder() {
  Reset();
  DeleteCriticalSection(&m_cs);
}

LPCWSTR CDefaultFolder::GetName(ULONG ulIndex) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  if (ulIndex >= NUM_DEFAULT_FOLDERS) return NULL;
  // Lock order: taken under whatever the caller holds (provider lock, named mutex at a logon);
  // the client session is entered while it is held, and a logon re-entering on the same
  // thread finds the names already marked as filled.
  EnterCriticalSection(&m_cs);
  if (!m_fFilled) {
    m_fFilled = TRUE;
    FillDefaultFolderNames();
  }
  LPCWSTR pszName = m_fEnglish || !m_apszLocalized[ulIndex] ? kEnglishNames[ulIndex] : m_apszLocalized[ulIndex];
  LeaveCriticalSection(&m_cs);
  return pszName;
}

LPCWSTR CDefaultFolder::GetComment(ULONG ulIndex) const {
  return ulIndex < NUM_DEFAULT_FOLDERS ? kComments[ulIndex] : NULL;
}

void CDefaultFolder::Reset() {
  // Lock order: the only lock taken here.
  EnterCriticalSection(&m_cs);
  for (LPWSTR& pszName : m_apszLocalized) PrivFree(&pszName);
  m_fEnglish = TRUE;
  m_fFilled = FALSE;
  LeaveCriticalSection(&m_cs);
}

HRESULT CDefaultFolder::FillDefaultFolderNames() {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  // Lock order: recursive with GetName's hold of the same section.
  EnterCriticalSection(&m_cs);
  m_fFilled = TRUE;
  m_fEnglish = TRUE;
  for (LPWSTR& pszName : m_apszLocalized) PrivFree(&pszName);
  try {
    if (UseLocalizedFolderNames() == 0) {
      ZT4_LOG(ZT4_LEVEL_INFO, "Using English for default folder names...");
    } else {
      hResult = ReadNamesFromClient();
      if (FAILED(hResult)) {
        ZT4_LOG(ZT4_LEVEL_ERROR,
                "Error (%x) in fetching default folder names from outlook. Trying reading from default folder cache.",
                hResult);
        hResult = ReadNamesFromCache();
      }
      if (FAILED(hResult)) {
        ZT4_LOG(ZT4_LEVEL_ERROR, "Error reading default folder names from cache.. Keep using english ...");
        for (LPWSTR& pszName : m_apszLocalized) PrivFree(&pszName);
      } else {
        m_fEnglish = FALSE;
      }
    }
  }
  ZT4_CATCH(hResult);
  LeaveCriticalSection(&m_cs);
  ZT4_LOG_FAILURE("CDefaultFolder::FillDefaultFolderNames", hResult);
  return hResult;
}

HRESULT CDefaultFolder::ReadNamesFromClient() {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  LPMAPISESSION lpSession = NULL;
  LPMDB lpMDB = NULL;
  SAFEARRAY* psaNames = NULL;
  try {
    ZT4_CHECK(MAPILogonEx(0, NULL, NULL, DEFAULT_FOLDER_LOGON_FLAGS, &lpSession));
    ZT4_CHECK(OpenDefaultStore(lpSession, &lpMDB));
    psaNames = SafeArrayCreateVector(VT_BSTR, 0, NUM_DEFAULT_FOLDERS);
    ZT4_CHECK_NULL(psaNames, E_OUTOFMEMORY);
    for (LONG lIndex = 0; lIndex < NUM_DEFAULT_FOLDERS; ++lIndex) {
      ZT4_CHECK(StoreClientName(lpMDB, lIndex, psaNames));
    }
    SaveNames(psaNames);
  }
  ZT4_CATCH(hResult);
  if (psaNames) SafeArrayDestroy(psaNames);
  ReleaseAndClear(lpMDB);
  ReleaseAndClear(lpSession);
  return hResult;
}

HRESULT CDefaultFolder::StoreClientName(LPMDB lpMDB, LONG lIndex, SAFEARRAY* psaNames) {
  LPSPropValue lpProp = NULL;
  HRESULT hResult = ReadDefaultFolderName(lpMDB, static_cast<ULONG>(lIndex), &lpProp);
  if (SUCCEEDED(hResult)) hResult = CopyName(lpProp->Value.lpszW, &m_apszLocalized[lIndex]);
  if (SUCCEEDED(hResult)) {
    BSTR bstrName = SysAllocString(lpProp->Value.lpszW);
    hResult = bstrName ? SafeArrayPutElement(psaNames, &lIndex, bstrName) : E_OUTOFMEMORY;
    SysFreeString(bstrName);
  }
  MAPIFreeBuffer(lpProp);
  return hResult;
}

void CDefaultFolder::SaveNames(SAFEARRAY* psaNames) {
  HRESULT hResult = S_OK;
  // The names were read; a cache that can't keep them doesn't make them wrong.
  try {
    IZT4DataProvider* spProvider = GetDataProvider();
    ZT4_CHECK_NULL(spProvider, E_INVALIDARG);
    ZT4_CHECK(spProvider->SaveDefaultFolderNames(psaNames));
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CDefaultFolder::SaveNames", hResult);
}

HRESULT CDefaultFolder::ReadNamesFromCache() {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  SAFEARRAY* psaNames = NULL;
  try {
    IZT4DataProvider* spProvider = GetDataProvider();
    ZT4_CHECK_NULL(spProvider, E_INVALIDARG);
    psaNames = spProvider->LoadDefaultFolderNames();
    ZT4_CHECK_NULL(psaNames, MAPI_E_NOT_FOUND);
    LONG lLower = 0;
    LONG lUpper = 0;
    VARTYPE vt = VT_EMPTY;
    ZT4_CHECK(SafeArrayGetLBound(psaNames, 1, &lLower));
    ZT4_CHECK(SafeArrayGetUBound(psaNames, 1, &lUpper));
    ZT4_CHECK(SafeArrayGetVartype(psaNames, &vt));
    // Four names or none: a partial set would mix languages.
    if (SafeArrayGetDim(psaNames) != 1 || vt != VT_BSTR || lUpper - lLower != NUM_DEFAULT_FOLDERS - 1)
      throw static_cast<HRESULT>(MAPI_E_CORRUPT_DATA);
    for (LONG lIndex = 0; lIndex < NUM_DEFAULT_FOLDERS; ++lIndex) {
      LONG lElement = lLower + lIndex;
      BSTR bstrName = NULL;
      ZT4_CHECK(SafeArrayGetElement(psaNames, &lElement, &bstrName));
      hResult = bstrName && bstrName[0] ? CopyName(bstrName, &m_apszLocalized[lIndex]) : MAPI_E_CORRUPT_DATA;
      SysFreeString(bstrName);
      if (FAILED(hResult)) throw hResult;
    }
  }
  ZT4_CATCH(hResult);
  if (psaNames) SafeArrayDestroy(psaNames);
  return hResult;
}
