// The provider object, its logons in the client and spooler contexts, and the module's entry
// point.
#include "ZT4MSProvider.h"

#include <mapicode.h>
#include <mapiguid.h>
#include <mapitags.h>
#include <mapiutil.h>

#include <cstring>
#include <new>

#include "MemHeap.h"
#include "ZT4AccountHelper.h"
#include "ZT4Globals.h"
#include "ZT4MSLogon.h"
#include "ZT4MSSrvce.h"
#include "ZT4MsgStore.h"
#include "ZT4Support.h"
#include "ZT4_TRACES.h"

CMsgStore* g_pClientStore = NULL;
WCHAR g_wszStoreDisplayName[1024] = {};
BOOL g_fLookingUpUser = FALSE;
BOOL g_fOpeningStore = FALSE;

const struct _SPropTagArray_sptProfileProps sptProfileProps = {
    NUM_PROFILE_PROPS,
    {PR_ZT4_STORE_PATH, PR_DISPLAY_NAME, PR_COMMENT, PR_STORE_RECORD_KEY, PR_ZT4_STORE_OPTION_TEXT,
     PR_ZT4_STORE_OPTION_FLAG}};

// What a logon needs from the profile properties, copied out of the array.
struct LOGON_STORE_IDENTITY {
  CHAR szPath[MAX_PATH];
  CHAR szName[1024];
  CHAR szComment[1024];
  MAPIUID uid;
};

namespace {

// The store open as its failure is logged, in the words of the call in the logon's steps.
const char kOpenStoreCallText[] =
    "OpenMsgStoreDataBase (pPrivSupObj, pProps[STORE_PATH].Value.LPSZ, szStoreName, szStoreComment, &uidResource, "
    "TRUE, &pBEobj)";

constexpr DWORD LOGON_MUTEX_WAIT = 60000;
constexpr LPCSTR PROVIDER_MUTEX_NAME = "TQProvider";

// The support wrapper's count starts at 0; a wrapper nobody kept goes by one AddRef/Release.
void DeleteSupportObject(CMAPISupport*& pPrivSupObj) {
  if (!pPrivSupObj) return;
  pPrivSupObj->AddRef();
  pPrivSupObj->Release();
  pPrivSupObj = NULL;
}

LPCSTR StringValue(const SPropValue& prop, ULONG ulPropTag) {
  return prop.ulPropTag == ulPropTag && prop.Value.lpszA ? prop.Value.lpszA : "";
}

void TakeStoreIdentity(const SPropValue* pProps, LOGON_STORE_IDENTITY& identity) {
  ZT4_ASSERT(pProps[STORE_DISPLAY_NAME].ulPropTag == PR_DISPLAY_NAME);
  ZT4_ASSERT(pProps[STORE_COMMENT].ulPropTag == PR_COMMENT);
  ZT4_ASSERT(pProps[STORE_RECORD_KEY].ulPropTag == PR_STORE_RECORD_KEY);
  lstrcpynA(identity.szPath, StringValue(pProps[STORE_PATH], PR_ZT4_STORE_PATH), MAX_PATH);
  lstrcpynA(identity.szName, StringValue(pProps[STORE_DISPLAY_NAME], PR_DISPLAY_NAME), sizeof(identity.szName));
  lstrcpynA(identity.szComment, StringValue(pProps[STORE_COMMENT], PR_COMMENT), sizeof(identity.szName));
  ZeroMemory(&identity.uid, sizeof(identity.uid));
  const SBinary& bin = pProps[STORE_RECORD_KEY].Value.bin;
  const BOOL fUid = pProps[STORE_RECORD_KEY].ulPropTag == PR_STORE_RECORD_KEY && bin.cb == sizeof(MAPIUID);
  ZT4_ASSERT(fUid);
  if (fUid && bin.lpb) CopyMemory(&identity.uid, bin.lpb, sizeof(MAPIUID));
}

// A caught integer of the logon's try block: a thrown 0 is the early success of a store that is
// already open, so it is not turned into E_FAIL here.
HRESULT LogonCaughtCode(HRESULT hrThrown) {
  if (FAILED(hrThrown)) ZT4_LOG(ZT4_LEVEL_ERROR, "Failed with error code : %x", hrThrown);
  return hrThrown;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
void BuildIPCNotifKey(const MAPIUID& uidStore, BYTE (&abKey)[CB_IPC_NOTIF_KEY]) {
  static_assert(sizeof(MAPIUID) + sizeof(ZT4_IPC_NOTIF_KEY_TEXT) <= CB_IPC_NOTIF_KEY);
  ZeroMemory(abKey, sizeof(abKey));
  CopyMemory(abKey, &uidStore, sizeof(MAPIUID));
  CopyMemory(abKey + sizeof(MAPIUID), ZT4_IPC_NOTIF_KEY_TEXT, sizeof(ZT4_IPC_NOTIF_KEY_TEXT));
}

HRESULT ComparePrivateEntryIDs(ULONG cbEntryID1, LPENTRYID lpEntryID1, ULONG cbEntryID2, LPENTRYID lpEntryID2,
                               ULONG* lpulResult) {
  if (!lpulResult) return MAPI_E_INVALID_PARAMETER;
  *lpulResult = 0;
  if (cbEntryID1 != CB_PRIVATE_EID || cbEntryID2 != CB_PRIVATE_EID) return MAPI_E_INVALID_ENTRYID;
  if (!lpEntryID1 || !lpEntryID2) return S_OK;
  // Flags and padding don't take part.
  const PRIVATE_EID* p1 = reinterpret_cast<const PRIVATE_EID*>(lpEntryID1);
  const PRIVATE_EID* p2 = reinterpret_cast<const PRIVATE_EID*>(lpEntryID2);
  *lpulResult = memcmp(&p1->guidStore, &p2->guidStore, sizeof(MAPIUID)) == 0 && p1->bVersion == p2->bVersion &&
                p1->bObjType == p2->bObjType && p1->dwObjID == p2->dwObjID;
  return S_OK;
}

// ---------------------------------------------------------------------------------------------
extern "C" HRESULT STDMAPIINITCALLTYPE MSProviderInit(HINSTANCE hInstance, LPMALLOC lpMalloc,
                                                      LPALLOCATEBUFFER lpAllocateBuffer,
                                                      LPALLOCATEMORE lpAllocateMore, LPFREEBUFFER lpFreeBuffer,
                                                      ULONG ulFlags, ULONG ulMAPIVer, ULONG* lpulProviderVer,
                                                      LPMSPROVIDER* lppMSProvider) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  if (!lpulProviderVer || !lppMSProvider) return MAPI_E_INVALID_PARAMETER;
  *lpulProviderVer = ZT4_CURRENT_SPI_VERSION;
  if (ulMAPIVer < ZT4_CURRENT_SPI_VERSION) {
    ZT4_LOG(ZT4_LEVEL_DETAIL, "MSProviderInit: The version of the subsystem cannot handle this version of the provider");
    return MAPI_E_VERSION;
  }
  SetMAPIAllocRoutines(lpAllocateBuffer, lpAllocateMore, lpFreeBuffer);
  CMSProvider* pProvider = new (std::nothrow) CMSProvider(hInstance);
  *lppMSProvider = pProvider;
  if (!pProvider) {
    ZT4_LOG(ZT4_LEVEL_DETAIL, "MSProviderInit: Failed to allocate new CMSProvider object");
    return E_OUTOFMEMORY;
  }
  return S_OK;
}

// The module's entry point: the private heaps live from attach to detach.
extern "C" BOOL WINAPI DllMain(HINSTANCE hInstance, DWORD dwReason, LPVOID lpReserved) {
  switch (dwReason) {
    case DLL_PROCESS_ATTACH:
      return ZT4ProcessAttach(hInstance);
    case DLL_PROCESS_DETACH:
      ZT4ProcessDetach();
      break;
    default:
      break;
  }
  return TRUE;
}

// ---------------------------------------------------------------------------------------------
CMSProvider::CMSProvider(HINSTANCE hInstance) : m_cRef(1), m_pOpenStores(NULL), m_hInstance(hInstance) {
  InitializeCriticalSection(&m_csProvider);
}

CMSProvider::~CMSProvider() {
  ZT4_ASSERT(m_pOpenStores == NULL);
  DeleteCriticalSection(&m_csProvider);
}

STDMETHODIMP CMSProvider::QueryInterface(REFIID riid, LPVOID* ppvObj) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  if (!ppvObj) return E_INVALIDARG;
  *ppvObj = NULL;
  if (riid != IID_IMSProvider && riid != IID_IUnknown) return E_NOINTERFACE;
  AddRef();
  *ppvObj = static_cast<IMSProvider*>(this);
  return S_OK;
}

STDMETHODIMP_(ULONG) CMSProvider::AddRef() {
  EnterCriticalSection(&m_csProvider);  // lock order: provider lock only
  ULONG cRef = ++m_cRef;
  LeaveCriticalSection(&m_csProvider);
  return cRef;
}

STDMETHODIMP_(ULONG) CMSProvider::Release() {
  EnterCriticalSection(&m_csProvider);  // lock order: provider lock only
  ULONG cRef = m_cRef ? --m_cRef : 0;
  LeaveCriticalSection(&m_csProvider);
  if (cRef == 0) delete this;
  return cRef;
}

STDMETHODIMP CMSProvider::Shutdown(ULONG* lpulFlags) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  // Stores end by reference counting alone.
  return S_OK;
}

STDMETHODIMP CMSProvider::CompareStoreIDs(ULONG cbEntryID1, LPENTRYID lpEntryID1, ULONG cbEntryID2,
                                          LPENTRYID lpEntryID2, ULONG ulFlags, ULONG* lpulResult) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  return ComparePrivateEntryIDs(cbEntryID1, lpEntryID1, cbEntryID2, lpEntryID2, lpulResult);
}

// ---------------------------------------------------------------------------------------------
BOOL CMSProvider::IsStoreAlreadyOpen(LPCSTR pszPath, CMsgStore** ppStore) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  *ppStore = NULL;
  if (!pszPath) return FALSE;
  BOOL fFound = FALSE;
  EnterCriticalSection(&m_csProvider);  // lock order: provider lock (recursive: a logon holds it already)
  for (CMsgStore* pStore = m_pOpenStores; pStore; pStore = pStore->m_pNextStore) {
    if (lstrcmpiA(pStore->m_szPath, pszPath) == 0) {
      pStore->AddRef();
      *ppStore = pStore;
      fFound = TRUE;
      break;
    }
  }
  LeaveCriticalSection(&m_csProvider);
  return fFound;
}

// The caller holds the provider lock.
void CMSProvider::AddStoreObjectToList(CMsgStore* pStore) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  ZT4_ASSERT(pStore != NULL);
  if (!pStore) return;
  pStore->m_pNextStore = NULL;
  CMsgStore** ppLink = &m_pOpenStores;
  while (*ppLink) ppLink = &(*ppLink)->m_pNextStore;
  *ppLink = pStore;
}

void CMSProvider::RemoveOpenStoreObject(CMsgStore* pStore) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  EnterCriticalSection(&m_csProvider);  // lock order: provider lock only
  for (CMsgStore** ppLink = &m_pOpenStores; *ppLink; ppLink = &(*ppLink)->m_pNextStore) {
    if (*ppLink == pStore) {
      *ppLink = pStore->m_pNextStore;
      pStore->m_pNextStore = NULL;
      break;
    }
  }
  LeaveCriticalSection(&m_csProvider);
}

// True while the store is in the open store list. g_pClientStore is never cleared, so only a
// listed store is known to be alive.
BOOL CMSProvider::IsStoreListed(const CMsgStore* pStore) {
  EnterCriticalSection(&m_csProvider);  // lock order: provider lock (recursive)
  BOOL fListed = FALSE;
  for (CMsgStore* p = m_pOpenStores; p && !fListed; p = p->m_pNextStore) fListed = p == pStore;
  LeaveCriticalSection(&m_csProvider);
  return fListed;
}

// ---------------------------------------------------------------------------------------------
namespace {

// Mends one missing profile property; the values live in the array's MAPI block.
HRESULT MendProfileProp(CMAPISupport* pPrivSupObj, LPSPropValue pProps, ULONG ulIndex) {
  HRESULT hResult = S_OK;
  SPropValue& prop = pProps[ulIndex];
  prop.ulPropTag = sptProfileProps.aulPropTag[ulIndex];
  switch (ulIndex) {
    case STORE_PATH: {
      LPVOID pvPath = NULL;
      hResult = PrivMAPIAllocate(MAX_PATH + 1, &pvPath, pProps);
      if (FAILED(hResult)) return hResult;
      hResult = BuildTempStorePath(static_cast<LPSTR>(pvPath), MAX_PATH + 1);
      if (FAILED(hResult)) return hResult;
      prop.Value.lpszA = static_cast<LPSTR>(pvPath);
      break;
    }
    case STORE_DISPLAY_NAME:
      prop.Value.lpszA = const_cast<LPSTR>(PROVIDER_DISPLAY_NAME_STRING);
      break;
    case STORE_RECORD_KEY: {
      LPVOID pvUid = NULL;
      hResult = PrivMAPIAllocate(sizeof(MAPIUID), &pvUid, pProps);
      if (FAILED(hResult)) return hResult;
      hResult = pPrivSupObj->NewUID(static_cast<LPMAPIUID>(pvUid));
      if (FAILED(hResult)) {
        ZT4_LOG(ZT4_LEVEL_ERROR, "InitializeStoreFile: Failed to get new UID");
        ZT4_LOG_FAILURE("CMSProvider::GetProfileProps", hResult);
        return hResult;
      }
      prop.Value.bin.cb = sizeof(MAPIUID);
      prop.Value.bin.lpb = static_cast<LPBYTE>(pvUid);
      break;
    }
    case STORE_COMMENT:
      prop.Value.lpszA = const_cast<LPSTR>(ZT4_DEFAULT_STORE_COMMENT);
      break;
    case STORE_OPTION_TEXT:
      prop.Value.lpszA = const_cast<LPSTR>("");
      break;
    case STORE_OPTION_FLAG:
      prop.Value.b = TRUE;
      break;
    default:
      break;
  }
  return hResult;
}

}  // namespace

HRESULT CMSProvider::GetProfileProps(CMAPISupport* pPrivSupObj, LPSPropValue* ppProps, ULONG_PTR ulUIParam) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  if (!pPrivSupObj || !ppProps) return MAPI_E_INVALID_PARAMETER;
  *ppProps = NULL;
  LPPROFSECT pProfSect = NULL;
  HRESULT hResult = pPrivSupObj->OpenProfileSection(NULL, MAPI_MODIFY, &pProfSect);
  if (FAILED(hResult) || !pProfSect) {
    if (SUCCEEDED(hResult)) hResult = MAPI_E_NOT_FOUND;
    ZT4_LOG(ZT4_LEVEL_ERROR, "GetProfileProps: OpenProfileSection failed");
    ZT4_LOG_FAILURE("CMSProvider::GetProfileProps", hResult);
    return hResult;
  }
  ULONG cValues = 0;
  hResult = pProfSect->GetProps(const_cast<LPSPropTagArray>(reinterpret_cast<const SPropTagArray*>(&sptProfileProps)),
                                0, &cValues, ppProps);
  if (SUCCEEDED(hResult) && (!*ppProps || cValues != NUM_PROFILE_PROPS)) hResult = MAPI_E_CORRUPT_DATA;
  // Only a partial read is mended; a full set of six is left as it is.
  if (hResult == MAPI_W_ERRORS_RETURNED) {
    hResult = S_OK;
    for (ULONG i = 0; i < NUM_PROFILE_PROPS && SUCCEEDED(hResult); ++i) {
      if (PROP_TYPE((*ppProps)[i].ulPropTag) == PT_ERROR) hResult = MendProfileProp(pPrivSupObj, *ppProps, i);
    }
    if (SUCCEEDED(hResult)) hResult = pProfSect->SetProps(NUM_PROFILE_PROPS, *ppProps, NULL);
    if (SUCCEEDED(hResult)) hResult = pProfSect->SaveChanges(0);
  }
  pProfSect->Release();
  if (hResult != MAPI_W_ERRORS_RETURNED) ZT4_LOG_FAILURE("CMSProvider::GetProfileProps", hResult);
  return hResult;
}

// ---------------------------------------------------------------------------------------------
// The part of a logon that makes a new store: the store object, its inter-context subscription
// and the logon object. The caller holds the provider lock. Client and spooler differ where
// noted; a negative result leaves *ppStore for the caller to release.
HRESULT CMSProvider::MakeStoreAndLogon(CMAPISupport*& pPrivSupObj, const LOGON_STORE_IDENTITY& identity, CBackEnd* pBEobj,
                                       ULONG ulFlags, BOOL fSpooler, CMsgStore** ppStore, CMSLogon** ppLogon) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  SBinary eidStore = {};
  HRESULT hResult = CreateStoreEntryID(&identity.uid, &eidStore);
  // The spooler honours the entry ID's failure before making the object; the client makes the
  // object first and gives up after.
  if (fSpooler && FAILED(hResult)) return hResult;
  if (!fSpooler) {
    MultiByteToWideChar(CP_ACP, MB_PRECOMPOSED, identity.szName, -1, g_wszStoreDisplayName,
                        static_cast<int>(sizeof(g_wszStoreDisplayName) / sizeof(WCHAR)));
  }
  HRESULT hrEntryID = hResult;
  hResult = S_OK;
  try {
    *ppStore = new (std::nothrow)
        CMsgStore(this, pPrivSupObj, identity.szPath, identity.szName, identity.szComment, eidStore, pBEobj,
                  (ulFlags & MAPI_DEFERRED_ERRORS) != 0, ZT4_STORE_ACCESS, identity.uid, fSpooler);
  } catch (const CMsgStoreError& error) {
    hResult = FAILED(error.hResult) ? error.hResult : E_FAIL;
  }
  if (!*ppStore) {
    PrivMAPIFree(&eidStore.lpb);
    return FAILED(hResult) ? hResult : E_OUTOFMEMORY;
  }
  // The store owns the entry ID now, and the support wrapper: it releases the wrapper when it
  // dies, so it takes its reference here rather than only after a good logon.
  pPrivSupObj->AddRef();
  pPrivSupObj = NULL;
  CMsgStore* pStore = *ppStore;
  if (!fSpooler) g_pClientStore = pStore;
  if (FAILED(hrEntryID)) return hrEntryID;
  return SubscribeAndMakeLogon(pStore, fSpooler, ppLogon);
}

HRESULT CMSProvider::SubscribeAndMakeLogon(CMsgStore* pStore, BOOL fSpooler, CMSLogon** ppLogon) {
  HRESULT hResult = S_OK;
  CMAPISupport* pSupObj = pStore->m_pSupObj;
  BYTE abKey[CB_IPC_NOTIF_KEY];
  BuildIPCNotifKey(pStore->m_StoreUID, abKey);
  LPNOTIFKEY pKey = NULL;
  LPMAPIADVISESINK pAdviseSink = NULL;
  ULONG ulConnection = 0;
  try {
    ZT4_CHECK(pSupObj->SetProviderUID(&pStore->m_StoreUID, 0));
    ZT4_CHECK(AllocateNotifKey(sizeof(abKey), abKey, &pKey));
    ZT4_CHECK(HrAllocAdviseSink(ContextNotify, pStore, &pAdviseSink));
    // New mail is the client's affair; the spooler listens to the other context only.
    const ULONG ulEventMask = fSpooler ? fnevExtended : fnevExtended | fnevNewMail;
    hResult = pSupObj->Subscribe(pKey, ulEventMask, 0, pAdviseSink, &ulConnection);
  }
  ZT4_CATCH(hResult)
  if (pAdviseSink) pAdviseSink->Release();  // the support object holds it now
  PrivFree(&pKey);
  pStore->SetIPCSubscription(ulConnection, abKey);
  if (FAILED(hResult)) return hResult;
  *ppLogon = new (std::nothrow) CMSLogon(pStore);
  if (!*ppLogon) return E_OUTOFMEMORY;
  pSupObj->ModifyProfile(0);  // the result doesn't matter to the logon
  AddStoreObjectToList(pStore);
  return hResult;
}

// The end of a logon both contexts share: a new store keeps its support wrapper and publishes its
// status row; an existing one leaves the wrapper unused.
void CMSProvider::FinishLogon(CMAPISupport*& pPrivSupObj, CMsgStore* pStore, CMSLogon* pLogon,
                              LPMSLOGON* lppMSLogon, LPMDB* lppMDB) {
  ZT4_ASSERT(pStore != NULL);
  if (pLogon) pLogon->InitializeStatusRow();
  DeleteSupportObject(pPrivSupObj);
  *lppMSLogon = pLogon;
  *lppMDB = pStore;
}

// ---------------------------------------------------------------------------------------------
// Step 4 of a client logon. A data provider that can't be made ends the logon: nothing below
// works without it.
static void CheckDataProvider() {
  IZT4DataProvider* pDataProvider = GetDataProvider();
  if (!pDataProvider) {
    ZT4_LOG(ZT4_LEVEL_ERROR, "%s is NULL", "pDataProvider");
    throw static_cast<HRESULT>(MAPI_E_FAILONEPROVIDER);
  }
  // Only a refused login stops the logon; other provider errors let it go on.
  if (MapProviderError(pDataProvider->GetLastProviderError()) == MAPI_E_LOGON_FAILED)
    throw static_cast<HRESULT>(MAPI_E_FAILONEPROVIDER);
}

STDMETHODIMP CMSProvider::Logon(LPMAPISUP lpMAPISup, ULONG_PTR ulUIParam, LPTSTR lpszProfileName, ULONG cbEntryID,
                                LPENTRYID lpEntryID, ULONG ulFlags, LPCIID lpInterface, ULONG* lpcbSpoolSecurity,
                                LPBYTE* lppbSpoolSecurity, LPMAPIERROR* lppMAPIError, LPMSLOGON* lppMSLogon,
                                LPMDB* lppMDB) {
  InitTraces(ZT4_TRACE_FILE | ZT4_TRACE_LOGON);
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  if (!lpMAPISup || !lpcbSpoolSecurity || !lppbSpoolSecurity || !lppMAPIError || !lppMSLogon || !lppMDB)
    return MAPI_E_INVALID_PARAMETER;
  HRESULT hResult = S_OK;
  CMsgStore* pStore = NULL;
  CMSLogon* pLogon = NULL;
  LPSPropValue pProps = NULL;
  CBackEnd* pBEobj = NULL;
  HANDLE hMutex = NULL;
  *lppMSLogon = NULL;
  *lppMDB = NULL;

  CMAPISupport* pPrivSupObj = new (std::nothrow) CMAPISupport(lpMAPISup);
  CGeneric lastError;

  EnterCriticalSection(&m_csProvider);  // lock order: provider lock, then the named mutex "TQProvider"
  try {
    CheckDataProvider();
    if (g_fLookingUpUser) {
      ZT4_LOG(ZT4_LEVEL_ERROR, "CMSProvider::Logon: Username call resulted in recursive call");
      throw static_cast<HRESULT>(E_FAIL);
    }
    if (g_fOpeningStore) {
      ZT4_LOG(ZT4_LEVEL_ERROR, "CMSProvider::Logon: Another logon call is in progress");
      throw static_cast<HRESULT>(E_FAIL);
    }
    hMutex = CreateMutexA(NULL, FALSE, PROVIDER_MUTEX_NAME);
    // A failed wait isn't told apart and lets the logon go on.
    DWORD dwWait = WaitForSingleObject(hMutex, LOGON_MUTEX_WAIT);
    if (dwWait == WAIT_TIMEOUT || dwWait == WAIT_ABANDONED) {
      ZT4_LOG(ZT4_LEVEL_ERROR, "CMSProvider::Logon: Mutex lock came out, reason:%d", static_cast<int>(dwWait));
      throw static_cast<HRESULT>(E_FAIL);
    }
    if (!pPrivSupObj) {
      ZT4_LOG(ZT4_LEVEL_ERROR, "CMSProvider::Logon: Failed to allocate Private Support Object");
      throw static_cast<HRESULT>(E_OUTOFMEMORY);
    }
    *lppMAPIError = NULL;
    *lppbSpoolSecurity = NULL;
    *lpcbSpoolSecurity = 0;

    hResult = GetProfileProps(pPrivSupObj, &pProps, ulUIParam);
    if (FAILED(hResult)) {
      ZT4_LOG(ZT4_LEVEL_ERROR, "%s failed", "GetProfileProps (pPrivSupObj, &pProps, (HWND)ulUIParam)");
      throw hResult;
    }
    if (IsStoreAlreadyOpen(pProps[STORE_PATH].Value.lpszA, &pStore)) throw static_cast<HRESULT>(S_OK);
    // A client process has one store, whatever the path; but only a store still listed is alive.
    if (g_pClientStore && IsStoreListed(g_pClientStore)) {
      ZT4_LOG(ZT4_LEVEL_INFO, "Store object already createed");
      pStore = g_pClientStore;
      pStore->AddRef();
      throw static_cast<HRESULT>(S_OK);
    }
    LOGON_STORE_IDENTITY identity;
    TakeStoreIdentity(pProps, identity);
    LPCSTR pszUser = GetCurrentUserName();
    if (!pszUser || !*pszUser) throw static_cast<HRESULT>(E_FAIL);
    hResult = OpenMsgStoreDataBase(pPrivSupObj, identity.szPath, identity.szName, identity.szComment, &identity.uid,
                                   TRUE, &pBEobj, TRUE);
    if (FAILED(hResult)) {
      ZT4_LOG(ZT4_LEVEL_ERROR, "%s failed", kOpenStoreCallText);
      throw static_cast<HRESULT>(hResult);
    }
    hResult = MakeStoreAndLogon(pPrivSupObj, identity, pBEobj, ulFlags, FALSE, &pStore, &pLogon);
  } catch (HRESULT hrThrown) {
    hResult = LogonCaughtCode(hrThrown);
  } catch (const _com_error& error) {
    hResult = LogonCaughtCode(ZT4ThrownResult(error.Error()));
  } catch (...) {
    ZT4_LOG(ZT4_LEVEL_ERROR, "Failed with Unknown error code");
    hResult = E_FAIL;
  }
  LeaveCriticalSection(&m_csProvider);
  if (hMutex) {
    ReleaseMutex(hMutex);
    CloseHandle(hMutex);
  }
  if (pBEobj) pBEobj->Release();
  PrivMAPIFree(&pProps);

  if (SUCCEEDED(hResult)) {
    FinishLogon(pPrivSupObj, pStore, pLogon, lppMSLogon, lppMDB);
    ::SetLastError(static_cast<DWORD>(hResult));
    return hResult;
  }
  ZT4_LOG_FAILURE("CMSProvider::Logon", hResult == MAPI_E_FAILONEPROVIDER ? MAPI_E_LOGON_FAILED : hResult);
  if (pLogon) pLogon->Release();
  if (pStore) pStore->Release();
  lastError.SetLastError(hResult);
  // The caller sees one code for every failure of a client logon.
  hResult = MAPI_E_FAILONEPROVIDER;
  DeleteSupportObject(pPrivSupObj);
  ::SetLastError(static_cast<DWORD>(hResult));
  return hResult;
}

STDMETHODIMP CMSProvider::SpoolerLogon(LPMAPISUP lpMAPISup, ULONG_PTR ulUIParam, LPTSTR lpszProfileName,
                                       ULONG cbEntryID, LPENTRYID lpEntryID, ULONG ulFlags, LPCIID lpInterface,
                                       ULONG cbSpoolSecurity, LPBYTE lpbSpoolSecurity, LPMAPIERROR* lppMAPIError,
                                       LPMSLOGON* lppMSLogon, LPMDB* lppMDB) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  if (!lpMAPISup || !lppMAPIError || !lppMSLogon || !lppMDB) return MAPI_E_INVALID_PARAMETER;
  *lppMSLogon = NULL;
  *lppMDB = NULL;
  CMAPISupport* pPrivSupObj = new (std::nothrow) CMAPISupport(lpMAPISup);
  if (!pPrivSupObj) {
    ZT4_LOG(ZT4_LEVEL_DETAIL, "CMSProvider::SpoolerLogon: Failed to allocate Private Support Object");
    return E_OUTOFMEMORY;
  }
  CGeneric lastError;
  CMsgStore* pStore = NULL;
  CMSLogon* pLogon = NULL;
  LPSPropValue pProps = NULL;
  CBackEnd* pBEobj = NULL;

  // Only the provider lock serialises a spooler logon: no named mutex in this context.
  EnterCriticalSection(&m_csProvider);  // lock order: provider lock only
  *lppMAPIError = NULL;
  HRESULT hResult = GetProfileProps(pPrivSupObj, &pProps, ulUIParam);
  if (FAILED(hResult))
    ZT4_LOG(ZT4_LEVEL_ERROR, "%s failed", "GetProfileProps (pPrivSupObj, &pProps, (HWND)ulUIParam)");
  if (SUCCEEDED(hResult) && !IsStoreAlreadyOpen(pProps[STORE_PATH].Value.lpszA, &pStore)) {
    LOGON_STORE_IDENTITY identity;
    TakeStoreIdentity(pProps, identity);
    hResult = OpenMsgStoreDataBase(pPrivSupObj, identity.szPath, identity.szName, identity.szComment, &identity.uid,
                                   TRUE, &pBEobj, TRUE);
    if (FAILED(hResult)) {
      ZT4_LOG(ZT4_LEVEL_ERROR, "%s failed", kOpenStoreCallText);
    } else {
      hResult = MakeStoreAndLogon(pPrivSupObj, identity, pBEobj, ulFlags, TRUE, &pStore, &pLogon);
    }
  }
  LeaveCriticalSection(&m_csProvider);
  if (pBEobj) pBEobj->Release();
  PrivMAPIFree(&pProps);

  if (SUCCEEDED(hResult)) {
    FinishLogon(pPrivSupObj, pStore, pLogon, lppMSLogon, lppMDB);
    return hResult;
  }
  ZT4_LOG_FAILURE("CMSProvider::SpoolerLogon", hResult);
  if (pLogon) pLogon->Release();
  if (pStore) pStore->Release();
  lastError.SetLastError(hResult);
  lastError.GetLastError(hResult, lppMAPIError, m_hInstance, PROVIDER_DISPLAY_NAME_STRING);
  DeleteSupportObject(pPrivSupObj);
  return hResult;
}
