// CMsgStore: the store's own properties, entry points to its folders, the receive-folder table
// and outgoing queue, and the notifications between clients, the store and the other context.
#include "ZT4MsgStore.h"

#include <mapicode.h>
#include <mapiguid.h>
#include <mapitags.h>
#include <mapiutil.h>

#include <new>

#include "MemHeap.h"
#include "ZT4MSFolder.h"
#include "ZT4Support.h"
#include "ZT4_TRACES.h"

const BYTE ZT4_MDB_PROVIDER[16] = {0x7B, 0xE3, 0xC3, 0x80, 0x5B, 0x0A, 0x11, 0xCE,
                                   0xB4, 0xE1, 0x00, 0xAA, 0x00, 0x51, 0x0E, 0x3B};

namespace {

// The store's computed and stored properties, in the order GetPropList gives them.
const SizedSPropTagArray(25, sptMsgStoreObj) = {
    25,
    {PR_RECEIVE_FOLDER_SETTINGS, PR_ACCESS, PR_ACCESS_LEVEL, PR_OBJECT_TYPE, PR_STORE_SUPPORT_MASK,
     PR_VALID_FOLDER_MASK, PR_CONTENT_UNREAD, PR_STORE_STATE, PR_CURRENT_VERSION, PR_COMMENT, PR_DISPLAY_NAME,
     PR_MAPPING_SIGNATURE, PR_STORE_RECORD_KEY, PR_RECORD_KEY, PR_IPM_SUBTREE_ENTRYID, PR_IPM_SENTMAIL_ENTRYID,
     PR_IPM_WASTEBASKET_ENTRYID, PR_IPM_OUTBOX_ENTRYID, PR_VIEWS_ENTRYID, PR_COMMON_VIEWS_ENTRYID, PR_FINDER_ENTRYID,
     PR_PARENT_ENTRYID, PR_ENTRYID, PR_STORE_ENTRYID, PR_MDB_PROVIDER}};

// The outgoing queue's columns; PR_INSTANCE_KEY is the index.
enum { OQ_INSTANCE_KEY = 0, OQ_ENTRYID, OQ_SUBMIT_FLAGS, OQ_SPOOLER_STATUS, OQ_CLIENT_SUBMIT_TIME, OQ_COLUMNS };
const SizedSPropTagArray(OQ_COLUMNS, sptOutQueue) = {
    OQ_COLUMNS, {PR_INSTANCE_KEY, PR_ENTRYID, PR_SUBMIT_FLAGS, PR_SPOOLER_STATUS, PR_CLIENT_SUBMIT_TIME}};

// The receive-folder table's columns, as the back end fills them.

constexpr ULONG STORE_STATE_VALUE = 0x01000000;  // STORE_HAS_SEARCHES
constexpr ULONG VALID_FOLDER_MASK_VALUE = 253;   // all but FOLDER_IPM_INBOX_VALID
constexpr ULONG FOLDER_ACCESS = 0x3A;
constexpr ULONG CONTEXT_LOGOFF_FLAGS = 65536;
constexpr ULONG MAX_MSG_CLASS = 255;

// Payload offsets of the context events.
constexpr ULONG EVT_MSG_EID = 0;
constexpr ULONG EVT_MSG_FOLDER_EID = 132;
constexpr ULONG EVT_MSG_SUBMIT_TIME = 264;
constexpr ULONG EVT_RFS_CLASS = 0;
constexpr ULONG EVT_RFS_EID = 256;
constexpr ULONG EVT_RFS_STORE = 392;
constexpr ULONG EVT_RFS_PROCESS = 400;

// The object lock of a CGeneric for one scope.
class CObjectLock {
 public:
  explicit CObjectLock(CGeneric* pObject) : m_pObject(pObject) { m_pObject->Lock(); }
  ~CObjectLock() { m_pObject->Unlock(); }
  CObjectLock(const CObjectLock&) = delete;
  CObjectLock& operator=(const CObjectLock&) = delete;

 private:
  CGeneric* m_pObject;
};

// A private-heap NOTIFKEY, freed at scope exit.
class CNotifKey {
 public:
  CNotifKey() : m_pKey(NULL) {}
  ~CNotifKey() { PrivFree(&m_pKey); }
  CNotifKey(const CNotifKey&) = delete;
  CNotifKey& operator=(const CNotifKey&) = delete;
  LPNOTIFKEY* operator&() { return &m_pKey; }
  LPNOTIFKEY get() const { return m_pKey; }

 private:
  LPNOTIFKEY m_pKey;
};

LPCSTR TagName(ULONG ulPropTag) {
  LPCSTR pszName = GetPropTagName(ulPropTag);
  return pszName ? pszName : "(unnamed)";
}

void LogTags(LPCSTR pszHeader, ULONG cValues, const ULONG* pulTags) {
  ZT4_LOG(ZT4_LEVEL_DETAIL, "%s", pszHeader);
  for (ULONG i = 0; i < cValues; ++i) DumpPropTag(pulTags[i]);
}

// An entry ID of at most 132 bytes copied into a zeroed private entry ID, so a short buffer is
// never read past its end.
PRIVATE_EID CopyEntryID(ULONG cbEntryID, LPENTRYID lpEntryID) {
  PRIVATE_EID eid;
  ZeroMemory(&eid, sizeof(eid));
  if (lpEntryID) CopyMemory(&eid, lpEntryID, cbEntryID < CB_PRIVATE_EID ? cbEntryID : CB_PRIVATE_EID);
  return eid;
}

BOOL IsMessageEntryID(CBackEnd* pBEobj, ULONG cbEntryID, LPENTRYID lpEntryID) {
  if (cbEntryID != CB_PRIVATE_EID || lpEntryID == NULL) return FALSE;
  const PRIVATE_EID* pEID = reinterpret_cast<const PRIVATE_EID*>(lpEntryID);
  return pBEobj->IsValidEntryID(pEID) && pEID->bObjType == MAPI_MESSAGE;
}

SPropValue BinaryProp(ULONG ulPropTag, ULONG cb, const void* pv) {
  SPropValue spv;
  ZeroMemory(&spv, sizeof(spv));
  spv.ulPropTag = ulPropTag;
  spv.Value.bin.cb = cb;
  spv.Value.bin.lpb = static_cast<LPBYTE>(const_cast<void*>(pv));
  return spv;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Construction and IUnknown

CMsgStore::CMsgStore(CMSProvider* pProvider, CMAPISupport* pSupObj, LPCSTR pszPath, LPCSTR pszName,
                     LPCSTR pszComment, SBinary eidStore, CBackEnd* pBEobj, BOOL fDeferredErrors, ULONG lAccess,
                     const MAPIUID& uidStore, BOOL fSpooler)
    : CGenericProp(pBEobj, NULL, NULL, NULL, fDeferredErrors, lAccess),
      m_pProvider(pProvider),
      m_pSupObj(pSupObj),
      m_hInstance(pProvider->GetInstance()),
      m_StoreUID(uidStore),
      m_StoreEID(eidStore),
      m_pNextStore(NULL),
      m_szPath(),
      m_szIPCNotifKey(),
      m_cStoreSubscriptions(0),
      m_pNotifList(NULL),
      m_pRFSTbl(NULL),
      m_pOutQueueTbl(NULL),
      m_cRFSViews(0),
      m_cOutQueueViews(0),
      m_ulLogoffFlags(0),
      m_ulIPCConnection(0) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  m_pProvider->AddRef();
  if (fSpooler) m_ulObjFlags |= OBJFLAG_SPOOLER;
  if (pszPath) lstrcpynA(m_szPath, pszPath, MAX_PATH);
  HRESULT hResult = InitStoreProps(pszName, pszComment);
  if (FAILED(hResult)) {
    delete m_pNPList;
    m_pNPList = NULL;
    // The caller still owns eidStore when construction fails.
    m_StoreEID.cb = 0;
    m_StoreEID.lpb = NULL;
    m_pProvider->Release();
    throw CMsgStoreError{hResult};
  }
}

HRESULT CMsgStore::InitStoreProps(LPCSTR pszName, LPCSTR pszComment) {
  HRESULT hResult = S_OK;
  LPSTREAM pStream = NULL;
  try {
    if (pszName) {
      SPropValue spv = {};
      spv.ulPropTag = PR_DISPLAY_NAME;
      spv.Value.lpszA = const_cast<LPSTR>(pszName);
      ZT4_CHECK(AddPropToList(&spv, TRUE));
    }
    if (pszComment) {
      SPropValue spv = {};
      spv.ulPropTag = PR_COMMENT;
      spv.Value.lpszA = const_cast<LPSTR>(pszComment);
      ZT4_CHECK(AddPropToList(&spv, TRUE));
    }
    m_pNPList = new (std::nothrow) CNamePropMgr(GetMAPIAllocBuffer(), GetMAPIAllocMore(), GetMAPIFreeBuffer());
    ZT4_CHECK_NULL(m_pNPList, E_OUTOFMEMORY);
    ZT4_CHECK(m_pBEobj->GetNamedPropertiesStream(&pStream));
    ZT4_CHECK(m_pNPList->LoadMappingFromStream(pStream));
  }
  ZT4_CATCH(hResult);
  if (pStream) pStream->Release();
  return hResult;
}

CMsgStore::~CMsgStore() {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  m_pSupObj->StoreLogoffTransports(&m_ulLogoffFlags);
  if (m_pProvider == NULL) {
    AssertStatement(__FILE__, __LINE__);
  } else {
    m_pProvider->RemoveOpenStoreObject(this);
    m_pProvider->Release();
    m_pProvider = NULL;
  }
  delete m_pNPList;
  m_pNPList = NULL;
  if (m_pOutQueueTbl) m_pOutQueueTbl->Release();
  if (m_pRFSTbl) m_pRFSTbl->Release();
  m_pOutQueueTbl = m_pRFSTbl = NULL;
  if (m_ulIPCConnection) {
    m_pSupObj->Unsubscribe(m_ulIPCConnection);
    m_ulIPCConnection = 0;
  }
  if (!m_OpenObjects.IsEmpty()) AssertStatementWithMsg("The open object list is not empty!", __FILE__, __LINE__);
  if (m_pNotifList) {
    AssertStatementWithMsg("The notification object list is not empty!", __FILE__, __LINE__);
    while (m_pNotifList) {
      NOTIF_OBJS* pNext = m_pNotifList->pNext;
      PrivFree(&m_pNotifList);
      m_pNotifList = pNext;
    }
  }
  // The store holds the one reference Logon gave it; anything left after ours is a leak.
  if (m_pSupObj->Release() != 0) AssertStatementWithMsg("A support object has been leaked!", __FILE__, __LINE__);
  m_pSupObj = NULL;
  PrivMAPIFree(&m_StoreEID.lpb);
  m_StoreEID.cb = 0;
  m_cStoreSubscriptions = 0;
}

STDMETHODIMP CMsgStore::QueryInterface(REFIID riid, LPVOID* ppvObj) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  if (ppvObj == NULL) return E_INVALIDARG;
  *ppvObj = NULL;
  if (riid != IID_IMsgStore && riid != IID_IMAPIProp && riid != IID_IUnknown) return E_NOINTERFACE;
  *ppvObj = static_cast<IMsgStore*>(this);
  AddRef();
  return S_OK;
}

STDMETHODIMP_(ULONG) CMsgStore::AddRef() { return GenericAddRef(); }

STDMETHODIMP_(ULONG) CMsgStore::Release() { return GenericRelease(); }

// ---------------------------------------------------------------------------------------------
// IMAPIProp

MAPIMETHODIMP CMsgStore::GetLastError(HRESULT hResult, ULONG, LPMAPIERROR* lppMAPIError) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  return CGeneric::GetLastError(hResult, lppMAPIError, m_hInstance, PROVIDER_DISPLAY_NAME_STRING);
}

// The store writes its properties in SetProps; there is nothing left to save.
MAPIMETHODIMP CMsgStore::SaveChanges(ULONG) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  return S_OK;
}

MAPIMETHODIMP CMsgStore::GetProps(LPSPropTagArray lpPropTagArray, ULONG, ULONG* lpcValues,
                                  LPSPropValue* lppPropArray) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  if (lpcValues == NULL || lppPropArray == NULL) {
    hResult = E_INVALIDARG;
  } else {
    if (lpPropTagArray == NULL)
      ZT4_LOG(ZT4_LEVEL_DETAIL, "CMsgStore::GetProps: All properties requested");
    else
      LogTags("CMsgStore::Properties requested...", lpPropTagArray->cValues, lpPropTagArray->aulPropTag);
    CObjectLock lock(this);  // lock order: store object lock, then the back end's
    hResult = CGenericProp::GetProps(lpPropTagArray, lpcValues, lppPropArray, (LPSPropTagArray)&sptMsgStoreObj);
    if (SUCCEEDED(hResult)) {
      BOOL fErrors = FALSE;
      for (ULONG i = 0; i < *lpcValues; ++i) {
        if (FAILED(FillStoreProp(&(*lppPropArray)[i], *lppPropArray))) fErrors = TRUE;
      }
      if (fErrors) hResult = MAPI_W_ERRORS_RETURNED;
    }
  }
  ZT4_LOG_FAILURE("CMsgStore::GetProps", hResult);
  SetLastError(hResult);
  return hResult;
}

// One value of GetProps: computed ones from the store, the rest from the property list.
HRESULT CMsgStore::FillStoreProp(LPSPropValue pProp, LPVOID pMemBlock) {
  switch (pProp->ulPropTag) {
    case PR_NULL:
      pProp->Value.l = 0;
      return S_OK;
    case PR_ACCESS:
      pProp->Value.l = static_cast<LONG>(m_lAccess);
      return S_OK;
    case PR_ACCESS_LEVEL:
      pProp->Value.l = IsWritable() ? MAPI_MODIFY : 0;
      return S_OK;
    case PR_OBJECT_TYPE:
      pProp->Value.l = MAPI_STORE;
      return S_OK;
    case PR_CURRENT_VERSION:
      pProp->Value.li.QuadPart = 1;
      return S_OK;
    case PR_STORE_SUPPORT_MASK:
      pProp->Value.l = static_cast<LONG>(ZT4_STORE_SUPPORT_MASK);
      return S_OK;
    case PR_STORE_STATE:
      pProp->Value.l = static_cast<LONG>(STORE_STATE_VALUE);
      return S_OK;
    case PR_VALID_FOLDER_MASK:
      pProp->Value.l = static_cast<LONG>(VALID_FOLDER_MASK_VALUE);
      return S_OK;
    case PR_CONTENT_UNREAD:
      pProp->Value.l = 0;
      return S_OK;
    case PR_RECEIVE_FOLDER_SETTINGS:
      // An object-valued property: the value field stays 0.
      return CGenericProp::GetProps(S_OK, 0, NULL, pProp, pMemBlock);
    case PR_MAPPING_SIGNATURE:
    case PR_RECORD_KEY:
    case PR_STORE_RECORD_KEY:
      return CGenericProp::GetProps(S_OK, sizeof(MAPIUID), &m_StoreUID, pProp, pMemBlock);
    case PR_ENTRYID:
    case PR_STORE_ENTRYID:
      return CGenericProp::GetProps(m_StoreEID.lpb ? S_OK : MAPI_E_NOT_FOUND, m_StoreEID.cb, m_StoreEID.lpb, pProp,
                                    pMemBlock);
    case PR_MDB_PROVIDER:
      return CGenericProp::GetProps(S_OK, sizeof(ZT4_MDB_PROVIDER), ZT4_MDB_PROVIDER, pProp, pMemBlock);
    default:
      break;
  }
  DWORD dwFolderID = 0;
  if (GetSpecialFolderID(pProp->ulPropTag, &dwFolderID)) {
    PRIVATE_EID eid = MakeFolderEID(dwFolderID);
    return CGenericProp::GetProps(S_OK, CB_PRIVATE_EID, &eid, pProp, pMemBlock);
  }
  ULONG ulPropTag = pProp->ulPropTag;
  HRESULT hResult = CGenericProp::GetProps(pProp, pMemBlock);
  if (FAILED(hResult)) {
    if (hResult == MAPI_E_NOT_FOUND) ZT4_LOG(ZT4_LEVEL_DETAIL, "CMsgStore::GetProps: Not Found - %s", TagName(ulPropTag));
    pProp->ulPropTag = CHANGE_PROP_TYPE(ulPropTag, PT_ERROR);
    pProp->Value.err = hResult;
  }
  return hResult;
}

// The object IDs of the special folders whose entry IDs the store answers.
BOOL CMsgStore::GetSpecialFolderID(ULONG ulPropTag, DWORD* pdwObjID) {
  switch (ulPropTag) {
    case PR_PARENT_ENTRYID: *pdwObjID = FOLDER_ID_ROOT_PARENT; return TRUE;
    case PR_IPM_SUBTREE_ENTRYID: *pdwObjID = FOLDER_ID_IPM_SUBTREE; return TRUE;
    case PR_IPM_WASTEBASKET_ENTRYID: *pdwObjID = FOLDER_ID_WASTEBASKET; return TRUE;
    case PR_IPM_OUTBOX_ENTRYID: *pdwObjID = FOLDER_ID_OUTBOX; return TRUE;
    case PR_IPM_SENTMAIL_ENTRYID: *pdwObjID = FOLDER_ID_SENTMAIL; return TRUE;
    case PR_COMMON_VIEWS_ENTRYID: *pdwObjID = FOLDER_ID_COMMON_VIEWS; return TRUE;
    case PR_VIEWS_ENTRYID: *pdwObjID = FOLDER_ID_VIEWS; return TRUE;
    case PR_FINDER_ENTRYID: *pdwObjID = FOLDER_ID_FINDER; return TRUE;
    default: return FALSE;
  }
}

MAPIMETHODIMP CMsgStore::GetPropList(ULONG, LPSPropTagArray* lppPropTagArray) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = lppPropTagArray ? CGenericProp::GetPropList((LPSPropTagArray)&sptMsgStoreObj, lppPropTagArray)
                                    : E_INVALIDARG;
  ZT4_LOG_FAILURE("CMsgStore::GetPropList", hResult);
  SetLastError(hResult);
  return hResult;
}

MAPIMETHODIMP CMsgStore::SetProps(ULONG cValues, LPSPropValue lpPropArray, LPSPropProblemArray* lppProblems) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  if (lppProblems) *lppProblems = NULL;
  if (!IsWritable()) {
    ZT4_LOG(ZT4_LEVEL_DETAIL, "CMsgStore::SetProps: Cannot set properties in a READ only object");
    SetLastError(MAPI_E_NO_ACCESS);
    return MAPI_E_NO_ACCESS;
  }
  if (cValues != 0 && lpPropArray == NULL) {
    SetLastError(E_INVALIDARG);
    return E_INVALIDARG;
  }
  ZT4_LOG(ZT4_LEVEL_DETAIL, "CMsgStore::Properties to set...");
  for (ULONG i = 0; i < cValues; ++i) DumpPropTag(lpPropArray[i].ulPropTag);

  HRESULT hResult = S_OK;
  BOOL fChanged = FALSE;
  {
    CObjectLock lock(this);  // lock order: store object lock, then the back end's
    LPPROFSECT pSection = NULL;
    for (ULONG i = 0; i < cValues; ++i) {
      ULONG ulType = PROP_TYPE(lpPropArray[i].ulPropTag);
      if (ulType == PT_UNSPECIFIED || ulType == PT_NULL || ulType == PT_ERROR) continue;
      HRESULT hTagError = SetOneStoreProp(&lpPropArray[i], &pSection, &fChanged);
      if (hTagError != S_OK && lppProblems) {
        hResult = AddTagToProbArray(cValues, lppProblems, i, lpPropArray[i].ulPropTag, hTagError);
        if (FAILED(hResult)) break;
      }
    }
    if (pSection) pSection->Release();
  }
  if (fChanged) NotifyStoreModified();
  ZT4_LOG_FAILURE("CMsgStore::SetProps", hResult);
  SetLastError(hResult);
  return hResult;
}

// One value of SetProps; the result is the tag's own code. The first name or comment change of a
// call also goes to the profile section, which stays open in *ppSection until the call ends.
HRESULT CMsgStore::SetOneStoreProp(LPSPropValue pProp, LPPROFSECT* ppSection, BOOL* pfChanged) {
  switch (pProp->ulPropTag) {
    case PR_IPM_SUBTREE_ENTRYID:
    case PR_IPM_OUTBOX_ENTRYID:
    case PR_IPM_WASTEBASKET_ENTRYID:
    case PR_IPM_SENTMAIL_ENTRYID:
    case PR_COMMON_VIEWS_ENTRYID:
    case PR_FINDER_ENTRYID:
      return MAPI_E_COMPUTED;
    case PR_DISPLAY_NAME:
    case PR_COMMENT:
      break;
    default:
      return MAPI_E_NO_SUPPORT;
  }
  HRESULT hResult = m_pList ? m_pList->Insert(pProp) : AddPropToList(pProp, FALSE);
  if (FAILED(hResult)) return hResult;
  BOOL fFirstChange = !*pfChanged;
  *pfChanged = TRUE;
  if (pProp->ulPropTag == PR_DISPLAY_NAME)
    m_pBEobj->SetDataBaseStrings(pProp->Value.lpszA, NULL);
  else
    m_pBEobj->SetDataBaseStrings(NULL, pProp->Value.lpszA);
  if (fFirstChange) WriteProfileProp(pProp, ppSection);
  return S_OK;
}

void CMsgStore::WriteProfileProp(LPSPropValue pProp, LPPROFSECT* ppSection) {
  HRESULT hResult = m_pSupObj->OpenProfileSection(NULL, MAPI_MODIFY, ppSection);
  if (SUCCEEDED(hResult)) hResult = (*ppSection)->SetProps(1, pProp, NULL);
  if (FAILED(hResult))
    ZT4_LOG(ZT4_LEVEL_ERROR, "CMsgStore::SetProps: Failed to set NAME/COMMENT in the profile section");
}

void CMsgStore::NotifyStoreModified() {
  NOTIFICATION notif;
  ZeroMemory(&notif, sizeof(notif));
  notif.ulEventType = fnevObjectModified;
  notif.info.obj.cbEntryID = m_StoreEID.cb;
  notif.info.obj.lpEntryID = reinterpret_cast<LPENTRYID>(m_StoreEID.lpb);
  notif.info.obj.ulObjType = MAPI_STORE;
  NotifyClients(NULL, 1, &notif);
}

// What the store doesn't offer.
HRESULT CMsgStore::Refuse(LPCSTR pszMethod) {
  ZT4_LOG(ZT4_LEVEL_ERROR, "CMsgStore::%s:%x", pszMethod, MAPI_E_NO_SUPPORT);
  SetLastError(MAPI_E_NO_SUPPORT);
  return MAPI_E_NO_SUPPORT;
}

MAPIMETHODIMP CMsgStore::OpenProperty(ULONG, LPCIID, ULONG, ULONG, LPUNKNOWN* lppUnk) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  if (lppUnk) *lppUnk = NULL;
  return Refuse("OpenProperty");
}

MAPIMETHODIMP CMsgStore::DeleteProps(LPSPropTagArray, LPSPropProblemArray* lppProblems) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  if (lppProblems) *lppProblems = NULL;
  return Refuse("DeleteProps");
}

MAPIMETHODIMP CMsgStore::CopyTo(ULONG, LPCIID, LPSPropTagArray, ULONG_PTR, LPMAPIPROGRESS, LPCIID, LPVOID, ULONG,
                                LPSPropProblemArray* lppProblems) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  if (lppProblems) *lppProblems = NULL;
  return Refuse("CopyTo");
}

MAPIMETHODIMP CMsgStore::CopyProps(LPSPropTagArray, ULONG_PTR, LPMAPIPROGRESS, LPCIID, LPVOID, ULONG,
                                   LPSPropProblemArray* lppProblems) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  if (lppProblems) *lppProblems = NULL;
  return Refuse("CopyProps");
}

MAPIMETHODIMP CMsgStore::AbortSubmit(ULONG, LPENTRYID, ULONG) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  return Refuse("AbortSubmit");
}

MAPIMETHODIMP CMsgStore::GetNamesFromIDs(LPSPropTagArray* lppPropTags, LPGUID lpPropSetGuid, ULONG ulFlags,
                                         ULONG* lpcPropNames, LPMAPINAMEID** lpppPropNames) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  LPSPropTagArray pTags = NULL;
  if (lppPropTags == NULL || lpcPropNames == NULL || lpppPropNames == NULL) {
    hResult = E_INVALIDARG;
  } else {
    hResult = CGenericProp::GetPropList((LPSPropTagArray)&sptMsgStoreObj, &pTags);
    if (SUCCEEDED(hResult))
      hResult = CGenericProp::GetNamesFromIDs(lppPropTags, lpPropSetGuid, ulFlags, lpcPropNames, lpppPropNames, pTags);
  }
  PrivMAPIFree(&pTags);
  ZT4_LOG_FAILURE("CMsgStore::GetNamesFromIDs", hResult);
  SetLastError(hResult);
  return hResult;
}

MAPIMETHODIMP CMsgStore::GetIDsFromNames(ULONG cPropNames, LPMAPINAMEID* lppPropNames, ULONG ulFlags,
                                         LPSPropTagArray* lppPropTags) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  LPSPropTagArray pTags = NULL;
  LPSTREAM pStream = NULL;
  if (lppPropTags == NULL || (cPropNames != 0 && lppPropNames == NULL)) {
    hResult = E_INVALIDARG;
  } else {
    hResult = CGenericProp::GetPropList((LPSPropTagArray)&sptMsgStoreObj, &pTags);
    // The map's stream, so that a new name is saved at once.
    if (SUCCEEDED(hResult)) hResult = m_pBEobj->GetNamedPropertiesStream(&pStream);
    if (SUCCEEDED(hResult))
      hResult = CGenericProp::GetIDsFromNames(cPropNames, lppPropNames, ulFlags, lppPropTags, pTags, pStream);
  }
  if (pStream) pStream->Release();
  PrivMAPIFree(&pTags);
  ZT4_LOG_FAILURE("CMsgStore::GetIDsFromNames", hResult);
  SetLastError(hResult);
  return hResult;
}

// ---------------------------------------------------------------------------------------------
// IMsgStore: entries

MAPIMETHODIMP CMsgStore::CompareEntryIDs(ULONG cbEntryID1, LPENTRYID lpEntryID1, ULONG cbEntryID2,
                                         LPENTRYID lpEntryID2, ULONG, ULONG* lpulResult) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = lpulResult ? ComparePrivateEntryIDs(cbEntryID1, lpEntryID1, cbEntryID2, lpEntryID2, lpulResult)
                               : E_INVALIDARG;
  ZT4_LOG_FAILURE("CMsgStore::CompareEntryIDs", hResult);
  SetLastError(hResult);
  return hResult;
}

PRIVATE_EID CMsgStore::MakeFolderEID(DWORD dwObjID) const {
  PRIVATE_EID eid;
  ZeroMemory(&eid, sizeof(eid));
  eid.guidStore = m_pBEobj->GetStoreGuid();
  eid.bVersion = PRIVATE_EID_VERSION;
  eid.bObjType = MAPI_FOLDER;
  eid.dwObjID = dwObjID;
  return eid;
}

MAPIMETHODIMP CMsgStore::OpenEntry(ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID, ULONG ulFlags, ULONG* lpulObjType,
                                   LPUNKNOWN* lppUnk) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  if (lppUnk) *lppUnk = NULL;
  if (lpulObjType) *lpulObjType = 0;
  HRESULT hResult = S_OK;
  CPropList* pList = NULL;
  try {
    if (lppUnk == NULL || lpulObjType == NULL) throw static_cast<HRESULT>(E_INVALIDARG);
    if ((ulFlags & MAPI_MODIFY) && !IsWritable()) {
      ZT4_LOG(ZT4_LEVEL_DETAIL, "CMsgStore::OpenEntry: Requested WRITE access in a READ only object");
      throw static_cast<HRESULT>(MAPI_E_NO_ACCESS);
    }
    if ((ulFlags & MAPI_BEST_ACCESS) && IsWritable()) ulFlags |= MAPI_MODIFY;

    PRIVATE_EID eidRoot;
    ZeroMemory(&eidRoot, sizeof(eidRoot));
    eidRoot.guidStore = m_StoreUID;
    eidRoot.bVersion = PRIVATE_EID_VERSION;
    eidRoot.bObjType = MAPI_FOLDER;
    eidRoot.dwObjID = FOLDER_ID_ROOT;

    PRIVATE_EID eid = CopyEntryID(cbEntryID, lpEntryID);
    if (cbEntryID != 0 && (lpEntryID == NULL || !m_pBEobj->IsValidEntryID(&eid))) {
      ZT4_LOG(ZT4_LEVEL_ERROR, "Invalid EntryID");
      throw static_cast<HRESULT>(MAPI_E_INVALID_ENTRYID);
    }

    CObjectLock lock(this);  // lock order: store object lock, then the back end's
    BOOL fRealFolder = TRUE;
    if (cbEntryID == 0 || (eid.bObjType == MAPI_FOLDER && eid.dwObjID == FOLDER_ID_ROOT)) {
      eid = eidRoot;
      fRealFolder = FALSE;
    }
    // The performance mode (GetPerfMode) plugs in here; until then the mode is 0, where only
    // folders and messages are read from the back end by their object ID.
    if (eid.bObjType != MAPI_FOLDER && eid.bObjType != MAPI_MESSAGE) {
      ZT4_LOG(ZT4_LEVEL_ERROR, "Invalid Object type:%d", eid.bObjType);
      throw static_cast<HRESULT>(MAPI_E_NOT_FOUND);
    }
    // Message objects come with CMessage; until then a message entry ID is refused.
    if (eid.bObjType == MAPI_MESSAGE) throw static_cast<HRESULT>(MAPI_E_NO_SUPPORT);

    hResult = m_pBEobj->OpenObject(eid, &pList);
    if (FAILED(hResult)) {
      ZT4_LOG(ZT4_LEVEL_ERROR, "Failed to open the object");
      throw static_cast<HRESULT>(hResult);
    }
    PRIVATE_EID eidParent = FindParentEID(pList);

    ULONG lAccess = FOLDER_ACCESS;
    if (ulFlags & MAPI_MODIFY) lAccess |= MAPI_ACCESS_MODIFY | MAPI_ACCESS_DELETE;
    CMAPIFolder* pFolder = new (std::nothrow)
        CMAPIFolder(this, eidParent, eid, fRealFolder, pList, ulFlags & MAPI_DEFERRED_ERRORS, lAccess, m_pNPList);
    ZT4_CHECK_NULL(pFolder, E_OUTOFMEMORY);
    pList = NULL;  // the folder's now
    if (IsSpooler()) pFolder->m_ulObjFlags |= OBJFLAG_SPOOLER;
    *lpulObjType = MAPI_FOLDER;
    *lppUnk = static_cast<IMAPIFolder*>(pFolder);
    hResult = S_OK;
  }
  ZT4_CATCH(hResult);
  delete pList;
  ZT4_LOG_FAILURE("CMsgStore::OpenEntry", hResult);
  SetLastError(hResult);
  return hResult;
}

// The parent entry ID an object's list holds; zeros, with an assertion, when it has none.
PRIVATE_EID CMsgStore::FindParentEID(CPropList* pList) {
  SPropValue spvOne;
  ZeroMemory(&spvOne, sizeof(spvOne));
  PRIVATE_EID eidParent;
  ZeroMemory(&eidParent, sizeof(eidParent));
  if (SUCCEEDED(pList->Find(PR_PARENT_ENTRYID, &spvOne)) && spvOne.Value.bin.cb == CB_PRIVATE_EID &&
      spvOne.Value.bin.lpb != NULL)
    CopyMemory(&eidParent, spvOne.Value.bin.lpb, CB_PRIVATE_EID);
  else
    AssertStatement(__FILE__, __LINE__);
  return eidParent;
}

MAPIMETHODIMP CMsgStore::StoreLogoff(ULONG* lpulFlags) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  if (lpulFlags == NULL) {
    SetLastError(E_INVALIDARG);
    return E_INVALIDARG;
  }
  CObjectLock lock(this);  // lock order: store object lock
  m_ulLogoffFlags = *lpulFlags;
  *lpulFlags = CONTEXT_LOGOFF_FLAGS;
  return S_OK;
}

MAPIMETHODIMP CMsgStore::SetLockState(LPMESSAGE lpMessage, ULONG) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  if (!IsSpooler())
    hResult = MAPI_E_NO_SUPPORT;
  else if (lpMessage == NULL)
    hResult = E_INVALIDARG;
  else
    // Locking works on the private message object's submit flags; it comes with CMessage.
    hResult = MAPI_E_NO_SUPPORT;
  ZT4_LOG_FAILURE("CMsgStore::SetLockState", hResult);
  SetLastError(hResult);
  return hResult;
}

BOOL CMsgStore::IsValidMsgClass(LPCSTR pszClass) {
  if (pszClass == NULL || pszClass[0] == '\0') return TRUE;
  if (pszClass[0] == '.') return FALSE;
  ULONG cch = 0;
  for (; pszClass[cch] != '\0'; ++cch) {
    if (cch >= MAX_MSG_CLASS) return FALSE;
    BYTE ch = static_cast<BYTE>(pszClass[cch]);
    if (ch < 32 || ch >= 127) return FALSE;
    if (ch == '.' && pszClass[cch + 1] == '.') return FALSE;
  }
  return pszClass[cch - 1] != '.';
}

HRESULT CMsgStore::UpdateFolder(BOOL fDelete, const PRIVATE_EID* pFolderEID, const PRIVATE_EID* pMessageEID) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  if (pFolderEID == NULL || pMessageEID == NULL || !m_pBEobj->IsValidEntryID(pFolderEID) ||
      !m_pBEobj->IsValidEntryID(pMessageEID)) {
    AssertStatement(__FILE__, __LINE__);
    return S_OK;
  }
  CObjectLock lock(this);  // lock order: store object lock, then the open-object list's, then the folder's
  CGenericProp* pObject = m_OpenObjects.Walk(pFolderEID, 0, NULL);
  if (pObject == NULL) return S_OK;
  CMAPIFolder* pFolder = static_cast<CMAPIFolder*>(pObject);
  if (fDelete) {
    pFolder->UpdateContentsTable(4, *pMessageEID);
    pFolder->UpdateCounts();
    pFolder->SendNotification(fnevObjectModified);
  } else {
    pFolder->UpdateContentsTable(3, *pMessageEID);
    NOTIFICATION notif;
    ZeroMemory(&notif, sizeof(notif));
    notif.ulEventType = fnevObjectCreated;
    notif.info.obj.cbEntryID = CB_PRIVATE_EID;
    notif.info.obj.lpEntryID = reinterpret_cast<LPENTRYID>(const_cast<PRIVATE_EID*>(pMessageEID));
    notif.info.obj.cbParentID = CB_PRIVATE_EID;
    notif.info.obj.lpParentID = reinterpret_cast<LPENTRYID>(const_cast<PRIVATE_EID*>(pFolderEID));
    notif.info.obj.ulObjType = MAPI_MESSAGE;
    // A new message has no subscribers of its own; those of its folder hear of it.
    NotifyClients(pFolderEID, 1, &notif);
    pFolder->UpdateCounts();
    pFolder->SendNotification(fnevObjectModified);
  }
  pFolder->Release();
  return S_OK;
}

void STDAPICALLTYPE CMsgStore::StoreTablesViewRelease(ULONG_PTR ulCallerData, LPTABLEDATA pTblData, LPMAPITABLE) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  CMsgStore* pStore = dynamic_cast<CMsgStore*>(ObjectFromPointer(ulCallerData));
  if (pStore == NULL) {
    ZT4_LOG(ZT4_LEVEL_DETAIL, "StoreTablesViewRelease: Invalid Folder Object");
    return;
  }
  {
    CObjectLock lock(pStore);  // lock order: store object lock
    ULONG* pcViews = NULL;
    if (pTblData != NULL && pTblData == pStore->m_pRFSTbl)
      pcViews = &pStore->m_cRFSViews;
    else if (pTblData != NULL && pTblData == pStore->m_pOutQueueTbl)
      pcViews = &pStore->m_cOutQueueViews;
    if (pcViews == NULL)
      ZT4_LOG(ZT4_LEVEL_DETAIL, "StoreTablesViewRelease: Called for an unknown table");
    else if (*pcViews == 0)
      AssertStatement(__FILE__, __LINE__);
    else
      --*pcViews;
  }
  pStore->Release();
}

// ---------------------------------------------------------------------------------------------
// Receive folders and the outgoing queue

ULONG CMsgStore::GetOutgoingQueueViewCount() {
  CObjectLock lock(this);  // lock order: store object lock
  return m_cOutQueueViews;
}

ULONG CMsgStore::GetReceiveFolderViewCount() {
  CObjectLock lock(this);  // lock order: store object lock
  return m_cRFSViews;
}

// A view of one of the store's tables; the view holds a reference on the store until released.
HRESULT CMsgStore::GetStoreTableView(LPTABLEDATA pTable, ULONG* pcViews, LPMAPITABLE* lppTable) {
  HRESULT hResult = pTable->HrGetView(NULL, StoreTablesViewRelease, StorePointer(this), lppTable);
  if (SUCCEEDED(hResult)) {
    AddRef();
    ++*pcViews;
  }
  return hResult;
}

MAPIMETHODIMP CMsgStore::GetOutgoingQueue(ULONG, LPMAPITABLE* lppTable) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  if (lppTable == NULL) {
    hResult = E_INVALIDARG;
  } else {
    *lppTable = NULL;
    CObjectLock lock(this);  // lock order: store object lock, then the table's
    if (m_pOutQueueTbl == NULL)
      hResult = CreateTable(&IID_IMAPITableData, GetMAPIAllocBuffer(), GetMAPIAllocMore(), GetMAPIFreeBuffer(), NULL,
                            TBLTYPE_DYNAMIC, PR_INSTANCE_KEY, (LPSPropTagArray)&sptOutQueue, &m_pOutQueueTbl);
    if (SUCCEEDED(hResult)) hResult = GetStoreTableView(m_pOutQueueTbl, &m_cOutQueueViews, lppTable);
  }
  ZT4_LOG_FAILURE("CMsgStore::GetOutgoingQueue", hResult);
  SetLastError(hResult);
  return hResult;
}

MAPIMETHODIMP CMsgStore::GetReceiveFolderTable(ULONG, LPMAPITABLE* lppTable) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  if (lppTable == NULL) {
    hResult = E_INVALIDARG;
  } else {
    *lppTable = NULL;
    CObjectLock lock(this);  // lock order: store object lock, then the back end's, then the table's
    if (m_pRFSTbl == NULL)
      hResult = m_pBEobj->GetTable(TABLE_RECEIVE_FOLDERS, m_ObjectEID, m_lAccess, NULL, NULL, &m_pRFSTbl);
    if (SUCCEEDED(hResult)) {
      hResult = GetStoreTableView(m_pRFSTbl, &m_cRFSViews, lppTable);
      if (FAILED(hResult))
        ZT4_LOG(ZT4_LEVEL_ERROR, "CMsgStore::GetReceiveFolderTable: Failed to get a view of the memory table:%x",
                hResult);
    }
  }
  ZT4_LOG_FAILURE("CMsgStore::GetReceiveFolderTable", hResult);
  SetLastError(hResult);
  return hResult;
}

MAPIMETHODIMP CMsgStore::SetReceiveFolder(LPTSTR lpszMessageClass, ULONG, ULONG cbEntryID, LPENTRYID lpEntryID) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  LPCSTR pszClass = lpszMessageClass ? lpszMessageClass : "";
  const PRIVATE_EID* pEID = reinterpret_cast<const PRIVATE_EID*>(lpEntryID);
  if (!IsWritable()) {
    ZT4_LOG(ZT4_LEVEL_DETAIL, "CMsgStore::SetReceiveFolder: Cannot set properties in a READ only object");
    hResult = MAPI_E_NO_ACCESS;
  } else if (!IsValidMsgClass(pszClass) || cbEntryID != CB_PRIVATE_EID || pEID == NULL ||
             !m_pBEobj->IsValidEntryID(pEID)) {
    hResult = E_INVALIDARG;
  } else if (pszClass[0] != '\0') {
    {
      CObjectLock lock(this);  // lock order: store object lock, then the back end's, then the table's
      hResult = m_pBEobj->SetRFSEntryID(pszClass, *pEID, m_pRFSTbl);
    }
    if (SUCCEEDED(hResult) && FAILED(SendReceiveFolderEvent(pszClass, *pEID)))
      ZT4_LOG(ZT4_LEVEL_ERROR, "CMsgStore::SetReceiveFolder: Failed to notify contexts");
  }
  ZT4_LOG_FAILURE("CMsgStore::SetReceiveFolder", hResult);
  SetLastError(hResult);
  return hResult;
}

MAPIMETHODIMP CMsgStore::GetReceiveFolder(LPTSTR lpszMessageClass, ULONG, ULONG* lpcbEntryID, LPENTRYID* lppEntryID,
                                          LPTSTR* lppszExplicitClass) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  if (lppszExplicitClass) *lppszExplicitClass = NULL;
  if (lppEntryID) *lppEntryID = NULL;
  if (lpcbEntryID) *lpcbEntryID = 0;
  LPCSTR pszClass = lpszMessageClass ? lpszMessageClass : "";
  LPENTRYID pEntryID = NULL;
  LPSTR pszExplicit = NULL;
  try {
    if (lpcbEntryID == NULL || lppEntryID == NULL) throw static_cast<HRESULT>(E_INVALIDARG);
    PRIVATE_EID eid;
    ZeroMemory(&eid, sizeof(eid));
    {
      CObjectLock lock(this);  // lock order: store object lock, then the table's, then the back end's
      hResult = MAPI_E_NOT_FOUND;
      if (pszClass[0] != '\0' && m_pRFSTbl != NULL) hResult = FindReceiveFolderRow(pszClass, &eid);
      if (hResult == MAPI_E_NOT_FOUND) hResult = m_pBEobj->GetRFSEntryID(pszClass, &eid);
      if (FAILED(hResult)) throw static_cast<HRESULT>(hResult);
    }
    ZT4_CHECK(PrivMAPIAllocate(CB_PRIVATE_EID, reinterpret_cast<LPVOID*>(&pEntryID)));
    CopyMemory(pEntryID, &eid, CB_PRIVATE_EID);
    if (lppszExplicitClass) {
      ZT4_CHECK(PrivMAPIAllocate(lstrlenA(pszClass) + 1, reinterpret_cast<LPVOID*>(&pszExplicit)));
      lstrcpynA(pszExplicit, pszClass, lstrlenA(pszClass) + 1);
    }
    *lpcbEntryID = CB_PRIVATE_EID;
    *lppEntryID = pEntryID;
    if (lppszExplicitClass) *lppszExplicitClass = pszExplicit;
    pEntryID = NULL;
    pszExplicit = NULL;
    hResult = S_OK;
  }
  ZT4_CATCH(hResult);
  PrivMAPIFree(&pEntryID);
  PrivMAPIFree(&pszExplicit);
  ZT4_LOG_FAILURE("CMsgStore::GetReceiveFolder", hResult);
  SetLastError(hResult);
  return hResult;
}

// The entry ID of the class's row of the receive-folder table; MAPI_E_NOT_FOUND without one.
HRESULT CMsgStore::FindReceiveFolderRow(LPCSTR pszClass, PRIVATE_EID* pEID) {
  HRESULT hResult = S_OK;
  LPMAPITABLE pTable = NULL;
  LPSRowSet pRows = NULL;
  try {
    ZT4_CHECK(m_pRFSTbl->HrGetView(NULL, NULL, 0, &pTable));
    ZT4_CHECK(pTable->SetColumns((LPSPropTagArray)&sptRFSColumns, 0));
    SPropValue spvClass;
    ZeroMemory(&spvClass, sizeof(spvClass));
    spvClass.ulPropTag = PR_MESSAGE_CLASS;
    spvClass.Value.lpszA = const_cast<LPSTR>(pszClass);
    SRestriction res;
    ZeroMemory(&res, sizeof(res));
    res.rt = RES_CONTENT;
    res.res.resContent.ulFuzzyLevel = FL_IGNORECASE;
    res.res.resContent.ulPropTag = PR_MESSAGE_CLASS;
    res.res.resContent.lpProp = &spvClass;
    hResult = pTable->FindRow(&res, BOOKMARK_BEGINNING, 0);
    if (hResult == MAPI_E_NOT_FOUND) throw static_cast<HRESULT>(hResult);
    ZT4_CHECK(hResult);
    ZT4_CHECK(pTable->QueryRows(1, 0, &pRows));
    if (pRows->cRows != 1) AssertStatementWithMsg("But I asked for 1 row in the RFS View?!", __FILE__, __LINE__);
    if (pRows->cRows == 0) throw static_cast<HRESULT>(MAPI_E_NOT_FOUND);
    const SRow& row = pRows->aRow[0];
    if (row.cValues != RFS_COLUMNS)
      AssertStatementWithMsg("But I asked for 4 properties from the RFS View?!", __FILE__, __LINE__);
    if (row.cValues <= RFS_ENTRYID || row.lpProps[RFS_ENTRYID].ulPropTag != PR_ENTRYID ||
        row.lpProps[RFS_ENTRYID].Value.bin.cb != CB_PRIVATE_EID) {
      AssertStatementWithMsg("Where is PR_ENTRYID in the RFS view?!", __FILE__, __LINE__);
      throw static_cast<HRESULT>(MAPI_E_NOT_FOUND);
    }
    CopyMemory(pEID, row.lpProps[RFS_ENTRYID].Value.bin.lpb, CB_PRIVATE_EID);
    hResult = S_OK;
  }
  ZT4_CATCH(hResult);
  if (pRows) FreeProws(pRows);
  if (pTable) pTable->Release();
  return hResult;
}

HRESULT CMsgStore::AddMsgToOutGoingQueue(FILETIME ftSubmit, const PRIVATE_EID& eidMessage) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  CObjectLock lock(this);  // lock order: store object lock, then the table's
  // The queue exists only once the spooler has asked for it.
  if (m_pOutQueueTbl == NULL) return S_OK;
  SPropValue aProps[OQ_COLUMNS];
  ZeroMemory(aProps, sizeof(aProps));
  DWORD dwObjID = eidMessage.dwObjID;
  aProps[OQ_INSTANCE_KEY] = BinaryProp(PR_INSTANCE_KEY, sizeof(dwObjID), &dwObjID);
  aProps[OQ_ENTRYID] = BinaryProp(PR_ENTRYID, CB_PRIVATE_EID, &eidMessage);
  aProps[OQ_SUBMIT_FLAGS].ulPropTag = PR_SUBMIT_FLAGS;
  aProps[OQ_SPOOLER_STATUS].ulPropTag = PR_SPOOLER_STATUS;
  aProps[OQ_CLIENT_SUBMIT_TIME].ulPropTag = PR_CLIENT_SUBMIT_TIME;
  aProps[OQ_CLIENT_SUBMIT_TIME].Value.ft = ftSubmit;
  SRow srTblRow = {0, OQ_COLUMNS, aProps};
  HRESULT hResult = m_pOutQueueTbl->HrModifyRow(&srTblRow);
  ZT4_LOG_FAILURE("CMsgStore::AddMsgToOutGoingQueue", hResult);
  return hResult;
}

HRESULT CMsgStore::AddNewRFSEntryToTable(const BYTE* pbPayload) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  if (pbPayload == NULL) return E_INVALIDARG;
  CMsgStore* pSender = NULL;
  DWORD dwProcessID = 0;
  CopyMemory(&pSender, pbPayload + EVT_RFS_STORE, sizeof(pSender));
  CopyMemory(&dwProcessID, pbPayload + EVT_RFS_PROCESS, sizeof(dwProcessID));
  // The event comes back to the store that sent it, which has its row already.
  if (pSender == this && dwProcessID == GetCurrentProcessId()) return S_OK;

  CObjectLock lock(this);  // lock order: store object lock, then the table's
  if (m_pRFSTbl == NULL) return S_OK;
  HRESULT hResult = S_OK;
  LPMAPITABLE pTable = NULL;
  try {
    CHAR szClass[RFS_CLASS_BUFFER];
    CopyMemory(szClass, pbPayload + EVT_RFS_CLASS, RFS_CLASS_BUFFER);
    szClass[RFS_CLASS_BUFFER - 1] = '\0';
    PRIVATE_EID eid;
    CopyMemory(&eid, pbPayload + EVT_RFS_EID, CB_PRIVATE_EID);
    ZT4_CHECK(m_pRFSTbl->HrGetView(NULL, NULL, 0, &pTable));
    ULONG dwClassesCount = 0;
    ZT4_CHECK(pTable->GetRowCount(0, &dwClassesCount));
    DWORD dwKey = dwClassesCount + 1;
    SPropValue aProps[RFS_COLUMNS];
    ZeroMemory(aProps, sizeof(aProps));
    aProps[RFS_INSTANCE_KEY] = BinaryProp(PR_INSTANCE_KEY, sizeof(dwKey), &dwKey);
    aProps[RFS_ENTRYID] = BinaryProp(PR_ENTRYID, CB_PRIVATE_EID, &eid);
    aProps[RFS_RECORD_KEY] = BinaryProp(PR_RECORD_KEY, CB_PRIVATE_EID, &eid);
    aProps[RFS_MESSAGE_CLASS].ulPropTag = PR_MESSAGE_CLASS;
    aProps[RFS_MESSAGE_CLASS].Value.lpszA = szClass;
    SRow srRow = {0, RFS_COLUMNS, aProps};
    ZT4_CHECK(m_pRFSTbl->HrModifyRow(&srRow));
  }
  ZT4_CATCH(hResult);
  if (pTable) pTable->Release();
  ZT4_LOG_FAILURE("CMsgStore::AddNewRFSEntryToTable", hResult);
  return hResult;
}

MAPIMETHODIMP CMsgStore::FinishedMsg(ULONG, ULONG cbEntryID, LPENTRYID lpEntryID) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  if (!IsSpooler()) {
    hResult = MAPI_E_NO_SUPPORT;
  } else {
    CObjectLock lock(this);  // lock order: store object lock, then the back end's
    if (!IsMessageEntryID(m_pBEobj, cbEntryID, lpEntryID))
      hResult = MAPI_E_INVALID_ENTRYID;
    else if (m_pOutQueueTbl == NULL)
      hResult = MAPI_E_NOT_IN_QUEUE;
    else
      // Finishing rewrites and hands over the message object; that comes with CMessage.
      hResult = MAPI_E_NO_SUPPORT;
  }
  ZT4_LOG_FAILURE("CMsgStore::FinishedMsg", hResult);
  SetLastError(hResult);
  return hResult;
}

// ---------------------------------------------------------------------------------------------
// Notifications

HRESULT AllocateNotifKey(ULONG cbData, LPBYTE pbData, LPNOTIFKEY* ppKey) {
  if (ppKey == NULL || (cbData != 0 && pbData == NULL)) return E_INVALIDARG;
  *ppKey = NULL;
  LPNOTIFKEY pKey = NULL;
  HRESULT hResult = PrivAllocate(cbData + sizeof(ULONG), reinterpret_cast<LPVOID*>(&pKey), "Notification Key");
  if (FAILED(hResult)) return hResult;
  pKey->cb = cbData;
  if (cbData) CopyMemory(pKey->ab, pbData, cbData);
  *ppKey = pKey;
  return S_OK;
}

MAPIMETHODIMP CMsgStore::Advise(ULONG cbEntryID, LPENTRYID lpEntryID, ULONG ulEventMask,
                                LPMAPIADVISESINK lpAdviseSink, ULONG* lpulConnection) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  if (lpulConnection) *lpulConnection = 0;
  const PRIVATE_EID* pEID = NULL;
  try {
    if (lpulConnection == NULL || lpAdviseSink == NULL) throw static_cast<HRESULT>(E_INVALIDARG);
    ULONG cbKey = 0;
    LPBYTE pbKey = NULL;
    if (cbEntryID == CB_PRIVATE_EID && lpEntryID != NULL) {
      pEID = reinterpret_cast<const PRIVATE_EID*>(lpEntryID);
      if (!m_pBEobj->IsValidEntryID(pEID)) throw static_cast<HRESULT>(MAPI_E_INVALID_ENTRYID);
      cbKey = CB_PRIVATE_EID;
      pbKey = reinterpret_cast<LPBYTE>(lpEntryID);
    } else if (cbEntryID == 0 || IsStoreEntryID(cbEntryID, lpEntryID)) {
      cbKey = sizeof(MAPIUID);
      pbKey = reinterpret_cast<LPBYTE>(&m_StoreUID);
    } else {
      throw static_cast<HRESULT>(MAPI_E_INVALID_ENTRYID);
    }
    CNotifKey key;
    ZT4_CHECK(AllocateNotifKey(cbKey, pbKey, &key));
    CObjectLock lock(this);  // lock order: store object lock, then the support object's
    hResult = m_pSupObj->Subscribe(key.get(), ulEventMask, 0, lpAdviseSink, lpulConnection);
    if (FAILED(hResult)) {
      ZT4_LOG(ZT4_LEVEL_ERROR, "CMsgStore::Advise: Failed to set internal advise link:%x", hResult);
      throw static_cast<HRESULT>(hResult);
    }
    if (pEID == NULL) {
      ++m_cStoreSubscriptions;
    } else {
      hResult = UpdateSubscriptionList(pEID, *lpulConnection, TRUE);
      if (FAILED(hResult)) {
        m_pSupObj->Unsubscribe(*lpulConnection);
        throw static_cast<HRESULT>(hResult);
      }
    }
  }
  ZT4_CATCH(hResult);
  if (FAILED(hResult) && lpulConnection) *lpulConnection = 0;
  ZT4_LOG_FAILURE("CMsgStore::Advise", hResult);
  SetLastError(hResult);
  return hResult;
}

BOOL CMsgStore::IsStoreEntryID(ULONG cbEntryID, LPENTRYID lpEntryID) const {
  return lpEntryID != NULL && m_StoreEID.lpb != NULL && cbEntryID == m_StoreEID.cb &&
         memcmp(lpEntryID, m_StoreEID.lpb, cbEntryID) == 0;
}

MAPIMETHODIMP CMsgStore::Unadvise(ULONG ulConnection) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  // Outside the lock: Unsubscribe may wait for a running callback that needs it.
  HRESULT hResult = m_pSupObj->Unsubscribe(ulConnection);
  if (SUCCEEDED(hResult)) {
    CObjectLock lock(this);  // lock order: store object lock
    hResult = UpdateSubscriptionList(NULL, ulConnection, FALSE);
  }
  ZT4_LOG_FAILURE("CMsgStore::Unadvise", hResult);
  SetLastError(hResult);
  return hResult;
}

// The caller holds the object lock.
HRESULT CMsgStore::UpdateSubscriptionList(const PRIVATE_EID* pEntryID, ULONG ulConnection, BOOL fAdd) {
  if (fAdd) {
    if (pEntryID == NULL) return E_INVALIDARG;
    NOTIF_OBJS* pNode = NULL;
    HRESULT hResult = PrivAllocate(sizeof(NOTIF_OBJS), reinterpret_cast<LPVOID*>(&pNode), "NOTIF Object List Node");
    if (FAILED(hResult)) return hResult;
    pNode->pNext = NULL;
    pNode->eid = *pEntryID;
    pNode->ulConnection = ulConnection;
    NOTIF_OBJS** ppTail = &m_pNotifList;
    while (*ppTail) ppTail = &(*ppTail)->pNext;
    *ppTail = pNode;
    return S_OK;
  }
  for (NOTIF_OBJS** ppNode = &m_pNotifList; *ppNode; ppNode = &(*ppNode)->pNext) {
    if ((*ppNode)->ulConnection == ulConnection) {
      NOTIF_OBJS* pNode = *ppNode;
      *ppNode = pNode->pNext;
      PrivFree(&pNode);
      break;
    }
  }
  return S_OK;
}

// The caller holds the object lock.
BOOL CMsgStore::IsObjectInNotifList(const PRIVATE_EID* pEntryID) {
  if (pEntryID == NULL) return FALSE;
  for (NOTIF_OBJS* pNode = m_pNotifList; pNode; pNode = pNode->pNext)
    if (memcmp(&pNode->eid, pEntryID, CB_PRIVATE_EID) == 0) return TRUE;
  return FALSE;
}

HRESULT CMsgStore::SendUnderKey(ULONG cbKey, LPBYTE pbKey, ULONG ulNotifsCount, LPNOTIFICATION pNotifs) {
  CNotifKey key;
  HRESULT hResult = AllocateNotifKey(cbKey, pbKey, &key);
  ULONG ulFlags = 0;
  if (SUCCEEDED(hResult)) hResult = m_pSupObj->Notify(key.get(), ulNotifsCount, pNotifs, &ulFlags);
  return hResult;
}

HRESULT CMsgStore::NotifyClients(const PRIVATE_EID* pEntryID, ULONG ulNotifsCount, LPNOTIFICATION pNotifs) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  BOOL fStoreWide = FALSE;
  BOOL fPerObject = FALSE;
  {
    CObjectLock lock(this);  // lock order: store object lock (re-entered when the caller holds it)
    fStoreWide = m_cStoreSubscriptions != 0;
    fPerObject = pEntryID != NULL && IsObjectInNotifList(pEntryID);
  }
  if (fStoreWide) hResult = SendUnderKey(sizeof(MAPIUID), reinterpret_cast<LPBYTE>(&m_StoreUID), ulNotifsCount, pNotifs);
  if (SUCCEEDED(hResult) && fPerObject)
    hResult = SendUnderKey(CB_PRIVATE_EID, reinterpret_cast<LPBYTE>(const_cast<PRIVATE_EID*>(pEntryID)), ulNotifsCount,
                           pNotifs);
  if (FAILED(hResult)) ZT4_LOG(ZT4_LEVEL_ERROR, "CMsgStore::NotifyClients: Failed to send notifications:%x", hResult);
  return hResult;
}

MAPIMETHODIMP CMsgStore::NotifyNewMail(LPNOTIFICATION lpNotification) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  if (!IsSpooler()) {
    hResult = MAPI_E_NO_SUPPORT;
  } else if (lpNotification == NULL) {
    hResult = E_INVALIDARG;
  } else {
    hResult = SendUnderKey(sizeof(m_szIPCNotifKey), m_szIPCNotifKey, 1, lpNotification);
    if (FAILED(hResult)) ZT4_LOG(ZT4_LEVEL_ERROR, "CMsgStore::NotifyNewMail: Failed to send notifications:%x", hResult);
  }
  ZT4_LOG_FAILURE("CMsgStore::NotifyNewMail", hResult);
  SetLastError(hResult);
  return hResult;
}

// An extended event to the other context of this store, under the IPC key.
HRESULT CMsgStore::SendContextEvent(ULONG ulEvent, ULONG cb, LPBYTE pbPayload) {
  NOTIFICATION notif;
  ZeroMemory(&notif, sizeof(notif));
  notif.ulEventType = fnevExtended;
  notif.info.ext.ulEvent = ulEvent;
  notif.info.ext.cb = cb;
  notif.info.ext.pbEventParameters = pbPayload;
  return SendUnderKey(sizeof(m_szIPCNotifKey), m_szIPCNotifKey, 1, &notif);
}

HRESULT CMsgStore::SubmitToSpoolerContextStore(FILETIME ftSubmit, const PRIVATE_EID& eidMessage) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  BYTE abPayload[CB_CONTEXT_MSG_EVENT] = {};
  CopyMemory(abPayload + EVT_MSG_EID, &eidMessage, CB_PRIVATE_EID);
  CopyMemory(abPayload + EVT_MSG_SUBMIT_TIME, &ftSubmit, sizeof(ftSubmit));
  HRESULT hResult = SendContextEvent(CONTEXT_EVENT_SUBMITTED, CB_CONTEXT_MSG_EVENT, abPayload);
  if (FAILED(hResult)) ZT4_LOG(ZT4_LEVEL_ERROR, "CMsgStore::SubmitToSpoolerContextStore:%x", hResult);
  return S_OK;
}

HRESULT CMsgStore::SendReceiveFolderEvent(LPCSTR pszClass, const PRIVATE_EID& eidFolder) {
  BYTE abPayload[CB_CONTEXT_RFS_EVENT] = {};
  lstrcpynA(reinterpret_cast<LPSTR>(abPayload + EVT_RFS_CLASS), pszClass, MAX_MSG_CLASS + 1);
  CopyMemory(abPayload + EVT_RFS_EID, &eidFolder, CB_PRIVATE_EID);
  CMsgStore* pSender = this;
  CopyMemory(abPayload + EVT_RFS_STORE, &pSender, sizeof(pSender));
  DWORD dwProcessID = GetCurrentProcessId();
  CopyMemory(abPayload + EVT_RFS_PROCESS, &dwProcessID, sizeof(dwProcessID));
  return SendContextEvent(CONTEXT_EVENT_RECEIVE_FOLDER, CB_CONTEXT_RFS_EVENT, abPayload);
}

void CMsgStore::SetIPCSubscription(ULONG ulConnection, const BYTE (&abKey)[CB_IPC_NOTIF_KEY]) {
  CObjectLock lock(this);  // lock order: store object lock
  m_ulIPCConnection = ulConnection;
  CopyMemory(m_szIPCNotifKey, abKey, CB_IPC_NOTIF_KEY);
}

// The inter-context events that reach this store.
void CMsgStore::OnContextEvent(const EXTENDED_NOTIFICATION& ext) {
  if (IsSpooler() && ext.ulEvent == CONTEXT_EVENT_FINISHED) {
    ZT4_LOG(ZT4_LEVEL_DETAIL, "ContextNotify: Ignorig notification intended for the CLIENT context");
    return;
  }
  if (!IsSpooler() && ext.ulEvent == CONTEXT_EVENT_SUBMITTED) {
    ZT4_LOG(ZT4_LEVEL_DETAIL, "ContextNotify: Ignorig notification intended for the SPOOLER context");
    return;
  }
  if (ext.ulEvent == CONTEXT_EVENT_SUBMITTED || ext.ulEvent == CONTEXT_EVENT_FINISHED) {
    if (ext.cb != CB_CONTEXT_MSG_EVENT) AssertStatement(__FILE__, __LINE__);
    BYTE abPayload[CB_CONTEXT_MSG_EVENT] = {};
    if (ext.pbEventParameters)
      CopyMemory(abPayload, ext.pbEventParameters, ext.cb < sizeof(abPayload) ? ext.cb : sizeof(abPayload));
    PRIVATE_EID eidMessage, eidFolder;
    CopyMemory(&eidMessage, abPayload + EVT_MSG_EID, CB_PRIVATE_EID);
    CopyMemory(&eidFolder, abPayload + EVT_MSG_FOLDER_EID, CB_PRIVATE_EID);
    if (ext.ulEvent == CONTEXT_EVENT_SUBMITTED) {
      FILETIME ftSubmit;
      CopyMemory(&ftSubmit, abPayload + EVT_MSG_SUBMIT_TIME, sizeof(ftSubmit));
      AddMsgToOutGoingQueue(ftSubmit, eidMessage);
    } else {
      UpdateFolder(TRUE, &eidFolder, &eidMessage);
    }
  } else if (ext.ulEvent == CONTEXT_EVENT_RECEIVE_FOLDER) {
    if (ext.cb != CB_CONTEXT_RFS_EVENT) AssertStatement(__FILE__, __LINE__);
    BYTE abPayload[CB_CONTEXT_RFS_EVENT] = {};
    if (ext.pbEventParameters)
      CopyMemory(abPayload, ext.pbEventParameters, ext.cb < sizeof(abPayload) ? ext.cb : sizeof(abPayload));
    AddNewRFSEntryToTable(abPayload);
  } else {
    ZT4_LOG(ZT4_LEVEL_DETAIL, "ContextNotify: Unknown extended event notification received");
  }
}

void CMsgStore::OnNewMail(LPNOTIFICATION lpNotification) {
  const NEWMAIL_NOTIFICATION& nm = lpNotification->info.newmail;
  if (nm.cbEntryID != CB_PRIVATE_EID || nm.cbParentID != CB_PRIVATE_EID) AssertStatement(__FILE__, __LINE__);
  // Only store-wide subscribers hear of new mail.
  NotifyClients(NULL, 1, lpNotification);
  if (nm.cbEntryID == CB_PRIVATE_EID && nm.cbParentID == CB_PRIVATE_EID && nm.lpEntryID && nm.lpParentID) {
    PRIVATE_EID eidMessage = CopyEntryID(nm.cbEntryID, nm.lpEntryID);
    PRIVATE_EID eidFolder = CopyEntryID(nm.cbParentID, nm.lpParentID);
    UpdateFolder(FALSE, &eidFolder, &eidMessage);
  }
}

LONG STDAPICALLTYPE ContextNotify(LPVOID lpvContext, ULONG cNotif, LPNOTIFICATION lpNotifications) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  if (cNotif != 1) AssertStatement(__FILE__, __LINE__);
  CMsgStore* pStore = static_cast<CMsgStore*>(lpvContext);
  if (pStore == NULL) {
    AssertStatementWithMsg("Where is the message store object!?!?!?", __FILE__, __LINE__);
    return 0;
  }
  if (cNotif == 0 || lpNotifications == NULL) return 0;
  switch (lpNotifications->ulEventType) {
    case fnevNewMail:
      ZT4_LOG(ZT4_LEVEL_DETAIL, "ContextNotify: Notification received: fnevNewMail");
      pStore->OnNewMail(lpNotifications);
      break;
    case fnevExtended:
      ZT4_LOG(ZT4_LEVEL_DETAIL, "ContextNotify: Notification received: fnevExtended");
      pStore->OnContextEvent(lpNotifications->info.ext);
      break;
    default:
      ZT4_LOG(ZT4_LEVEL_DETAIL, "ContextNotify: Unwanted notification received");
      break;
  }
  return 0;
}
