// The message service entry: what MAPI calls when a profile gains, changes or loses the service,
// and the making of a new store's identity.
#include "ZT4MSSrvce.h"

#include <mapicode.h>
#include <mapitags.h>
#include <mapiutil.h>
#include <mapix.h>
#include <oleauto.h>

#include <cstdio>

#include "MemHeap.h"
#include "ZT4Common.h"
#include "ZT4GenProp.h"
#include "ZT4Globals.h"
#include "ZT4MSProvider.h"
#include "ZT4MsgStore.h"
#include "ZT4_TRACES.h"

namespace {

constexpr LPCSTR PROVIDER_MUTEX_NAME = "TQProvider";
constexpr LPCSTR UPDATING_PROFILE_MUTEX_NAME = "TQUpdatingProfile";
constexpr LPCSTR PROVIDER_DLL_NAME = "ZT4MSProvider.DLL";
constexpr ULONG NUM_IDENTITY_PROPS = 7;

// The process's file name without folder and extension is "Outlook", in any case.
BOOL IsOutlookProcess() {
  CHAR szModule[MAX_PATH] = {};
  if (!GetModuleFileNameA(NULL, szModule, MAX_PATH)) return FALSE;
  LPSTR pszName = szModule;
  for (LPSTR p = szModule; *p; ++p) {
    if (*p == '\\' || *p == '/') pszName = p + 1;
  }
  LPSTR pszDot = NULL;
  for (LPSTR p = pszName; *p; ++p) {
    if (*p == '.') pszDot = p;
  }
  if (pszDot) *pszDot = '\0';
  return lstrcmpiA(pszName, "Outlook") == 0;
}

// A running client would hold the store open.
BOOL IsOutlookRunning() {
  CLSID clsid;
  if (FAILED(CLSIDFromProgID(WIDE("Outlook.Application"), &clsid))) return FALSE;
  IUnknown* pUnk = NULL;
  if (FAILED(GetActiveObject(clsid, NULL, &pUnk))) return FALSE;
  if (pUnk) pUnk->Release();
  return TRUE;
}

HRESULT ReadProfileProps(LPPROFSECT pProfile, ULONG* pcValues, LPSPropValue* ppProps) {
  HRESULT hResult = pProfile->GetProps(
      const_cast<LPSPropTagArray>(reinterpret_cast<const SPropTagArray*>(&sptProfileProps)), 0, pcValues, ppProps);
  if (SUCCEEDED(hResult) && (!*ppProps || *pcValues != NUM_PROFILE_PROPS)) {
    ZT4_ASSERT(*pcValues == NUM_PROFILE_PROPS);
    PrivMAPIFree(ppProps);
    hResult = MAPI_E_CORRUPT_DATA;
  }
  if (FAILED(hResult)) ZT4_LOG(ZT4_LEVEL_ERROR, "ServiceEntry: Failed to get the properties from the profile");
  return hResult;
}

void FillStoreDisplayName(const SPropValue* pProps) {
  if (pProps[STORE_DISPLAY_NAME].ulPropTag != PR_DISPLAY_NAME || !pProps[STORE_DISPLAY_NAME].Value.lpszA) return;
  MultiByteToWideChar(CP_ACP, MB_PRECOMPOSED, pProps[STORE_DISPLAY_NAME].Value.lpszA, -1, g_wszStoreDisplayName,
                      static_cast<int>(sizeof(g_wszStoreDisplayName) / sizeof(WCHAR)));
}

// Configuration with a user interface outside the mail client: the settings belong to the client,
// and the user is told so.
HRESULT TellSettingsBelongToClient(LPPROVIDERADMIN lpProviderAdmin, ULONG_PTR ulUIParam) {
  LPPROFSECT pProfile = NULL;
  HRESULT hResult = OpenProviderProfileSection(lpProviderAdmin, &pProfile);
  if (FAILED(hResult)) return hResult;
  ULONG cValues = 0;
  LPSPropValue pProps = NULL;
  if (SUCCEEDED(ReadProfileProps(pProfile, &cValues, &pProps))) FillStoreDisplayName(pProps);
  PrivMAPIFree(&pProps);
  pProfile->Release();
  WCHAR wszText[ZT4_STRING_BUFFER] = {};
  if (ZT4LoadString(IDS_SETTINGS_FROM_CLIENT, wszText))
    MessageBoxW(reinterpret_cast<HWND>(ulUIParam), wszText, g_wszStoreDisplayName, MB_OK | MB_ICONWARNING);
  return S_OK;
}

// Configuration from inside the mail client: the dialog is the data provider's.
HRESULT ShowProviderDialog() {
  HRESULT hResult = S_OK;
  try {
    IZT4DataProvider* pDataProvider = GetDataProvider();
    if (pDataProvider) {
      ZT4_LOG(ZT4_LEVEL_DETAIL, "Showing configuration dialog");
      pDataProvider->ShowConfigurationDialog();
    }
  }
  ZT4_CATCH(hResult)
  ZT4_LOG_FAILURE("ServiceEntry", hResult);
  // What the dialog did is the data provider's affair.
  return S_OK;
}

// Steps of a create or a configuration with properties: the given path, the fixed texts, and a
// new store file when there is none yet.
HRESULT PrepareStoreProps(HINSTANCE hInstance, ULONG_PTR ulUIParam, ULONG ulContext, ULONG cValues,
                          LPSPropValue lpProps, LPMAPISUP lpMAPISup, LPPROFSECT pProfile, BOOL fFirstCall,
                          LPSPropValue pProps, LPSTR pszPath, LPMAPIUID pUID, BOOL* pfSave) {
  *pfSave = TRUE;
  const BOOL fGiven = lpProps != NULL && cValues != 0;
  if (ulContext != MSG_SERVICE_CREATE && !(ulContext == MSG_SERVICE_CONFIGURE && fGiven)) return S_OK;
  if (fGiven) {
    ZT4_ASSERT(lpProps[0].ulPropTag == PR_ZT4_STORE_PATH);
    if (lpProps[0].ulPropTag == PR_ZT4_STORE_PATH && lpProps[0].Value.lpszA) {
      CharUpperA(lpProps[0].Value.lpszA);
      pProps[STORE_PATH].ulPropTag = PR_ZT4_STORE_PATH;
      pProps[STORE_PATH].Value.lpszA = lpProps[0].Value.lpszA;
    }
  }
  pProps[STORE_COMMENT].ulPropTag = PR_COMMENT;
  pProps[STORE_COMMENT].Value.lpszA = const_cast<LPSTR>("");
  pProps[STORE_OPTION_TEXT].ulPropTag = PR_ZT4_STORE_OPTION_TEXT;
  pProps[STORE_OPTION_TEXT].Value.lpszA = const_cast<LPSTR>("");
  pProps[STORE_OPTION_FLAG].ulPropTag = PR_ZT4_STORE_OPTION_FLAG;
  pProps[STORE_OPTION_FLAG].Value.b = TRUE;
  HRESULT hResult = InitializeStoreFile(hInstance, ulUIParam, pszPath, pUID, pProps, lpMAPISup, pProfile, fFirstCall);
  if (FAILED(hResult) || hResult == 1) {
    *pfSave = FALSE;
    return hResult == 1 ? S_OK : hResult;
  }
  pProps[STORE_RECORD_KEY].ulPropTag = PR_STORE_RECORD_KEY;
  pProps[STORE_RECORD_KEY].Value.bin.cb = sizeof(MAPIUID);
  pProps[STORE_RECORD_KEY].Value.bin.lpb = reinterpret_cast<LPBYTE>(pUID);
  return hResult;
}

HRESULT UpdateProfile(HINSTANCE hInstance, ULONG_PTR ulUIParam, ULONG ulContext, ULONG cValues, LPSPropValue lpProps,
                      LPMAPISUP lpMAPISup, LPPROVIDERADMIN lpProviderAdmin, BOOL fFirstCall) {
  GetMemAllocRoutines(lpMAPISup);
  LPPROFSECT pProfile = NULL;
  HRESULT hResult = OpenProviderProfileSection(lpProviderAdmin, &pProfile);
  if (FAILED(hResult)) return hResult;
  ULONG cRead = 0;
  LPSPropValue pProps = NULL;
  hResult = ReadProfileProps(pProfile, &cRead, &pProps);
  if (SUCCEEDED(hResult)) {
    CHAR szPath[MAX_PATH] = {};
    MAPIUID uid = {};
    BOOL fSave = TRUE;
    hResult = PrepareStoreProps(hInstance, ulUIParam, ulContext, cValues, lpProps, lpMAPISup, pProfile, fFirstCall,
                                pProps, szPath, &uid, &fSave);
    if (fSave) {
      HRESULT hrSet = pProfile->SetProps(cRead, pProps, NULL);
      if (FAILED(hrSet)) ZT4_LOG(ZT4_LEVEL_ERROR, "ServiceEntry: Failed to save the properties in the profile");
      pProfile->SaveChanges(0);
    }
  }
  pProfile->Release();
  PrivMAPIFree(&pProps);
  return hResult;
}

void ReleaseProviderMutex(HANDLE hMutex) {
  if (!hMutex) return;
  ReleaseMutex(hMutex);
  CloseHandle(hMutex);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
extern "C" HRESULT STDAPICALLTYPE ServiceEntry(HINSTANCE hInstance, LPMALLOC lpMalloc, LPMAPISUP lpMAPISup,
                                               ULONG_PTR ulUIParam, ULONG ulFlags, ULONG ulContext, ULONG cValues,
                                               LPSPropValue lpProps, LPPROVIDERADMIN lpProviderAdmin,
                                               LPMAPIERROR* lppMapiError) {
  InitTraces(ZT4_TRACE_FILE);
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  // Serialises profile changes with logons across processes. The early returns below keep it
  // held until this thread ends.
  HANDLE hMutex = CreateMutexA(NULL, FALSE, PROVIDER_MUTEX_NAME);
  WaitForSingleObject(hMutex, INFINITE);
  CGeneric lastError;
  if (lppMapiError) *lppMapiError = NULL;

  switch (ulContext) {
    case MSG_SERVICE_UNINSTALL:
    case MSG_SERVICE_INSTALL:
    case MSG_SERVICE_DELETE:
      ZT4_LOG(ZT4_LEVEL_DETAIL, "ServiceEntry: Immediate return. Context: %d", static_cast<int>(ulContext));
      return S_OK;
    case MSG_SERVICE_PROVIDER_CREATE:
    case MSG_SERVICE_PROVIDER_DELETE:
      ZT4_LOG(ZT4_LEVEL_DETAIL, "ServiceEntry: Unsupported context! Context: %d", static_cast<int>(ulContext));
      return MAPI_E_NO_SUPPORT;
    default:
      break;
  }

  HRESULT hResult = S_OK;
  const BOOL fUI = (ulFlags & (SERVICE_UI_ALWAYS | SERVICE_UI_ALLOWED)) != 0;
  if (ulContext == MSG_SERVICE_CONFIGURE && fUI) {
    hResult = IsOutlookProcess() ? ShowProviderDialog() : TellSettingsBelongToClient(lpProviderAdmin, ulUIParam);
  } else {
    ZT4_LOG(ZT4_LEVEL_DETAIL, "ServiceEntry: Context for call: %d", static_cast<int>(ulContext));
    BOOL fFirstCall = TRUE;
    if (ulContext == MSG_SERVICE_CREATE) {
      // A silent creation does its work only while another module of the product marks the
      // profile as being updated.
      HANDLE hUpdating = CreateMutexA(NULL, TRUE, UPDATING_PROFILE_MUTEX_NAME);
      if (hUpdating && GetLastError() != ERROR_ALREADY_EXISTS) {
        ReleaseMutex(hUpdating);
        CloseHandle(hUpdating);
        return S_OK;
      }
      fFirstCall = FALSE;
      if (hUpdating) CloseHandle(hUpdating);
    }
    hResult = UpdateProfile(hInstance, ulUIParam, ulContext, cValues, lpProps, lpMAPISup, lpProviderAdmin, fFirstCall);
  }

  if (FAILED(hResult)) {
    ZT4_LOG_FAILURE("ServiceEntry", hResult);
    lastError.SetLastError(hResult);
    if (lppMapiError) lastError.GetLastError(hResult, lppMapiError, hInstance, PROVIDER_DISPLAY_NAME_STRING);
  }
  ReleaseProviderMutex(hMutex);
  return hResult;
}

// ---------------------------------------------------------------------------------------------
HRESULT InitializeStoreFile(HINSTANCE hInstance, ULONG_PTR ulUIParam, LPSTR pszPath, LPMAPIUID pUID,
                            LPSPropValue pProps, LPMAPISUP pSupObj, LPPROFSECT pProfile, BOOL fFirstCall) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  if (!pszPath || !pUID || !pProps || !pSupObj || !pProfile) return MAPI_E_INVALID_PARAMETER;
  LPCSTR pszOldPath = pProps[STORE_PATH].ulPropTag == PR_ZT4_STORE_PATH ? pProps[STORE_PATH].Value.lpszA : NULL;
  if (fFirstCall && IsOutlookRunning()) return 1;

  HRESULT hResult = BuildTempStorePath(pszPath, MAX_PATH);
  if (FAILED(hResult)) return hResult;
  if (pszOldPath && lstrcmpiA(pszOldPath, pszPath) == 0) return S_OK;

  pProps[STORE_PATH].ulPropTag = PR_ZT4_STORE_PATH;
  pProps[STORE_PATH].Value.lpszA = pszPath;
  hResult = pSupObj->NewUID(pUID);
  if (FAILED(hResult)) {
    ZT4_LOG(ZT4_LEVEL_ERROR, "InitializeStoreFile: Failed to get new UID");
    ZT4_LOG_FAILURE("InitializeStoreFile", hResult);
    return hResult;
  }
  SBinary eid = {};
  hResult = CreateStoreEntryID(pUID, &eid);
  if (FAILED(hResult)) return hResult;

  const BOOL fName = pProps[STORE_DISPLAY_NAME].ulPropTag == PR_DISPLAY_NAME && pProps[STORE_DISPLAY_NAME].Value.lpszA;
  LPSTR pszName = fName ? pProps[STORE_DISPLAY_NAME].Value.lpszA : const_cast<LPSTR>(PROVIDER_DISPLAY_NAME_STRING);
  LPCSTR pszComment = pProps[STORE_COMMENT].ulPropTag == PR_COMMENT ? pProps[STORE_COMMENT].Value.lpszA : "";
  SPropValue aIdentity[NUM_IDENTITY_PROPS] = {};
  aIdentity[0].ulPropTag = PR_PROVIDER_DISPLAY;
  aIdentity[0].Value.lpszA = const_cast<LPSTR>(PROVIDER_DISPLAY_NAME_STRING);
  aIdentity[1].ulPropTag = PR_DISPLAY_NAME;
  aIdentity[1].Value.lpszA = pszName;
  aIdentity[2].ulPropTag = PR_ENTRYID;
  aIdentity[2].Value.bin = eid;
  aIdentity[3].ulPropTag = PR_STORE_ENTRYID;
  aIdentity[3].Value.bin = eid;
  aIdentity[4].ulPropTag = PR_ZT4_STORE_PATH;
  aIdentity[4].Value.lpszA = pszPath;
  aIdentity[5].ulPropTag = PR_MDB_PROVIDER;
  aIdentity[5].Value.bin.cb = sizeof(ZT4_MDB_PROVIDER);
  aIdentity[5].Value.bin.lpb = const_cast<LPBYTE>(ZT4_MDB_PROVIDER);
  aIdentity[6].ulPropTag = PR_RECORD_KEY;
  aIdentity[6].Value.bin.cb = sizeof(MAPIUID);
  aIdentity[6].Value.bin.lpb = reinterpret_cast<LPBYTE>(pUID);
  HRESULT hrSet = pProfile->SetProps(NUM_IDENTITY_PROPS, aIdentity, NULL);
  pProfile->SaveChanges(KEEP_OPEN_READWRITE);

  // The file is made now; this is no logon.
  CBackEnd* pBEobj = NULL;
  hResult = OpenMsgStoreDataBase(pSupObj, pszPath, pszName, pszComment ? pszComment : "", pUID, TRUE, &pBEobj, FALSE);
  if (pBEobj) pBEobj->Release();
  PrivMAPIFree(&eid.lpb);
  if (FAILED(hResult)) {
    ZT4_LOG_FAILURE("InitializeStoreFile", hResult);
    return hResult;
  }
  if (FAILED(hrSet)) {
    ZT4_LOG(ZT4_LEVEL_ERROR, "InitializeStoreFile: Failed to set the properties into the profile");
    return hrSet;
  }
  return S_OK;
}

HRESULT BuildTempStorePath(LPSTR pszPath, ULONG cchPath) {
  CHAR szFolder[MAX_PATH] = {};
  GetTempPathA(MAX_PATH, szFolder);
  int cch = snprintf(pszPath, cchPath, "%s\\%d.CST", szFolder, static_cast<int>(GetTickCount()));
  return cch > 0 && static_cast<ULONG>(cch) < cchPath ? S_OK : MAPI_E_CALL_FAILED;
}

HRESULT CreateStoreEntryID(const MAPIUID* pUID, SBinary* pEID) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  if (!pUID || !pEID) return MAPI_E_INVALID_PARAMETER;
  *pEID = SBinary{};
  PRIVATE_EID eid;
  ZeroMemory(&eid, sizeof(eid));
  eid.guidStore = *pUID;
  eid.bVersion = PRIVATE_EID_VERSION;
  eid.bObjType = MAPI_STORE;
  ULONG cbWrapped = 0;
  LPENTRYID pWrapped = NULL;
  HRESULT hResult = WrapStoreEntryID(0, const_cast<LPTSTR>(PROVIDER_DLL_NAME), CB_PRIVATE_EID,
                                     reinterpret_cast<LPENTRYID>(&eid), &cbWrapped, &pWrapped);
  if (FAILED(hResult)) {
    ZT4_LOG(ZT4_LEVEL_ERROR, "CreateStoreEntryID: Failed to wrap the store entry ID");
    ZT4_LOG_FAILURE("CreateStoreEntryID", hResult);
    return hResult;
  }
  pEID->cb = cbWrapped;
  pEID->lpb = reinterpret_cast<LPBYTE>(pWrapped);
  return hResult;
}

HRESULT OpenProviderProfileSection(LPPROVIDERADMIN lpProviderAdmin, LPPROFSECT* ppProfile) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  if (!ppProfile) return MAPI_E_INVALID_PARAMETER;
  *ppProfile = NULL;
  if (!lpProviderAdmin) return MAPI_E_INVALID_PARAMETER;
  static const SizedSPropTagArray(1, sptProviderUID) = {1, {PR_PROVIDER_UID}};
  LPMAPITABLE pTable = NULL;
  LPSRowSet pRows = NULL;
  HRESULT hResult = lpProviderAdmin->GetProviderTable(0, &pTable);
  if (FAILED(hResult)) {
    ZT4_LOG(ZT4_LEVEL_ERROR, "OpenProviderProfileSection: GetProviderTable failed");
    return hResult;
  }
  hResult = pTable->SetColumns(const_cast<LPSPropTagArray>(reinterpret_cast<const SPropTagArray*>(&sptProviderUID)), 0);
  if (FAILED(hResult)) ZT4_LOG(ZT4_LEVEL_ERROR, "OpenProviderProfileSection: Failed to set the columns");
  if (SUCCEEDED(hResult)) {
    hResult = pTable->QueryRows(1, 0, &pRows);
    if (FAILED(hResult)) ZT4_LOG(ZT4_LEVEL_ERROR, "OpenProviderProfileSection: Failed to query the rows");
  }
  if (SUCCEEDED(hResult)) {
    // A service has one provider, so the first row is this one.
    const BOOL fRow = pRows && pRows->cRows > 0 && pRows->aRow[0].cValues > 0 &&
                      pRows->aRow[0].lpProps[0].ulPropTag == PR_PROVIDER_UID &&
                      pRows->aRow[0].lpProps[0].Value.bin.cb == sizeof(MAPIUID);
    ZT4_ASSERT(fRow);
    hResult = fRow ? lpProviderAdmin->OpenProfileSection(
                         reinterpret_cast<LPMAPIUID>(pRows->aRow[0].lpProps[0].Value.bin.lpb), NULL, MAPI_MODIFY,
                         ppProfile)
                   : MAPI_E_NOT_FOUND;
    if (FAILED(hResult)) {
      ZT4_LOG(ZT4_LEVEL_ERROR, "OpenProviderProfileSection: OpenProfileSection failed");
      hResult = MAPI_E_NOT_FOUND;
    }
  }
  if (pRows) FreeProws(pRows);
  pTable->Release();
  return hResult;
}
