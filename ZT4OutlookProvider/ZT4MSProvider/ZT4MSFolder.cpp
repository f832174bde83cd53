// CMAPIFolder: the folder object of the store. Properties come from the folder's record through
// CGenericProp; subfolders are made and removed through the back end; the hierarchy table is a
// memory table kept in step with every open instance of the folder.
#include "ZT4MSFolder.h"

#include <mapicode.h>
#include <mapiguid.h>
#include <mapitags.h>
#include <mapiutil.h>
#include <mapix.h>

#include <string>

#include "MemHeap.h"
#include "ZT4Globals.h"
#include "ZT4MsgStore.h"
#include "ZT4Support.h"
#include "ZT4_TRACES.h"

namespace {

// The answer to a move into the wastebasket: archived mail isn't soft-deleted.
constexpr HRESULT ZT4_E_SOFT_DELETE_REFUSED = static_cast<HRESULT>(0x80049002);

// PR_DISPLAY_TYPE of a folder.
constexpr LONG ZT4_DISPLAY_TYPE_FOLDER = 0x01000000;

// Access of a folder opened for modify, as the store's OpenEntry gives it.
constexpr ULONG FOLDER_ACCESS_READWRITE = 0x3A | MAPI_ACCESS_MODIFY | MAPI_ACCESS_DELETE;

constexpr ULONG WEBVIEW_VERSION = 2;
constexpr ULONG WEBVIEW_TYPE = 1;
constexpr ULONG WEBVIEW_FLAGS = 1;

// PR_CREATION_VERSION as the folder answers it.
constexpr ULONG PR_CREATION_VERSION_I8 = 0x0E190014;

// The folder's own tags: what it computes, whatever its list holds.
const SizedSPropTagArray(18, sptFolderObj) = {
    18,
    {PR_RECORD_KEY, PR_ENTRYID, PR_STORE_RECORD_KEY, PR_MAPPING_SIGNATURE, PR_STORE_ENTRYID, PR_OBJECT_TYPE,
     PR_PARENT_ENTRYID, PR_CREATION_VERSION_I8, PR_ACCESS, PR_ACCESS_LEVEL, PR_FOLDER_TYPE, PR_CONTENT_COUNT,
     PR_DISPLAY_TYPE, PR_STORE_SUPPORT_MASK, PR_MDB_PROVIDER, PR_CONTAINER_HIERARCHY, PR_CONTAINER_CONTENTS,
     PR_FOLDER_ASSOCIATED_CONTENTS}};

LPSPropTagArray FolderObjectTags() { return reinterpret_cast<LPSPropTagArray>(const_cast<void*>(
                                         static_cast<const void*>(&sptFolderObj))); }

// Owns a property list the back end handed out.
struct PropListHolder {
  CPropList* p = NULL;
  ~PropListHolder() { delete p; }
};

std::u16string ToWide(LPCSTR psz) {
  std::u16string str;
  int cch = MultiByteToWideChar(CP_ACP, 0, psz, -1, NULL, 0);
  if (cch <= 1) return str;
  str.resize(static_cast<size_t>(cch));
  MultiByteToWideChar(CP_ACP, 0, psz, -1, str.data(), cch);
  str.resize(static_cast<size_t>(cch - 1));
  return str;
}

std::string ToNarrow(LPCWSTR psz) {
  std::string str;
  int cb = WideCharToMultiByte(CP_ACP, 0, psz, -1, NULL, 0, NULL, NULL);
  if (cb <= 1) return str;
  str.resize(static_cast<size_t>(cb));
  WideCharToMultiByte(CP_ACP, 0, psz, -1, str.data(), cb, NULL, NULL);
  str.resize(static_cast<size_t>(cb - 1));
  return str;
}

// The narrow form of a client's text argument (wide with MAPI_UNICODE).
std::string ArgumentText(LPTSTR psz, ULONG ulFlags) {
  if (psz == NULL) return std::string();
  if (ulFlags & MAPI_UNICODE) return ToNarrow(reinterpret_cast<LPCWSTR>(psz));
  return std::string(psz);
}

LONG LongFromList(CPropList* pList, ULONG ulPropTag) {
  if (pList == NULL) return 0;
  SPropValue spv{};
  if (pList->Find(ulPropTag, &spv, FALSE, NULL) != S_OK || PROP_TYPE(spv.ulPropTag) != PROP_TYPE(ulPropTag)) return 0;
  return spv.Value.l;
}

std::string DisplayNameFromList(CPropList* pList) {
  if (pList == NULL) return std::string();
  SPropValue spv{};
  if (pList->Find(PR_DISPLAY_NAME_W, &spv, FALSE, NULL) == S_OK) {
    if (PROP_TYPE(spv.ulPropTag) == PT_UNICODE && spv.Value.lpszW) return ToNarrow(spv.Value.lpszW);
    if (PROP_TYPE(spv.ulPropTag) == PT_STRING8 && spv.Value.lpszA) return std::string(spv.Value.lpszA);
  }
  return std::string();
}

// An object notification for one folder, sent through the store.
HRESULT NotifyFolderEvent(CMsgStore* pStore, ULONG ulEventType, const PRIVATE_EID& ObjectEID,
                          const PRIVATE_EID& ParentEID) {
  NOTIFICATION notif{};
  notif.ulEventType = ulEventType;
  notif.info.obj.cbEntryID = CB_PRIVATE_EID;
  notif.info.obj.lpEntryID = reinterpret_cast<LPENTRYID>(const_cast<PRIVATE_EID*>(&ObjectEID));
  notif.info.obj.ulObjType = MAPI_FOLDER;
  notif.info.obj.cbParentID = CB_PRIVATE_EID;
  notif.info.obj.lpParentID = reinterpret_cast<LPENTRYID>(const_cast<PRIVATE_EID*>(&ParentEID));
  return pStore->NotifyClients(&ObjectEID, 1, &notif);
}

// The URL of the IPM subtree's web view, empty when the data provider names none.
std::u16string FolderHomePageUrl() {
  IZT4DataProvider* pProvider = GetDataProvider();
  if (pProvider == NULL) return std::u16string();
  try {
    IZT4ProviderConfigPtr spConfig = pProvider->GetConfigurationParams();
    if (!spConfig) return std::u16string();
    _bstr_t bstrUrl = spConfig->FolderHomePageUrl();
    const WCHAR* pszUrl = static_cast<const WCHAR*>(bstrUrl);
    return pszUrl ? std::u16string(pszUrl) : std::u16string();
  } catch (const _com_error&) {
    return std::u16string();
  }
}

// The web view block: version, type, flags, seven reserved words, the URL's byte count (its
// terminator included), then the URL.
std::basic_string<BYTE> MakeWebViewInfo(const std::u16string& strUrl) {
  ULONG cbUrl = static_cast<ULONG>((strUrl.size() + 1) * sizeof(WCHAR));
  ULONG aulHeader[CB_WEBVIEWINFO_HEADER / sizeof(ULONG)] = {};
  aulHeader[0] = WEBVIEW_VERSION;
  aulHeader[1] = WEBVIEW_TYPE;
  aulHeader[2] = WEBVIEW_FLAGS;
  aulHeader[10] = cbUrl;
  std::basic_string<BYTE> block(reinterpret_cast<const BYTE*>(aulHeader), CB_WEBVIEWINFO_HEADER);
  block.append(reinterpret_cast<const BYTE*>(strUrl.c_str()), cbUrl);
  return block;
}

BOOL WantsTag(LPSPropTagArray pTags, ULONG ulPropTag) {
  if (pTags == NULL) return TRUE;
  for (ULONG i = 0; i < pTags->cValues; i++)
    if (PROP_ID(pTags->aulPropTag[i]) == PROP_ID(ulPropTag)) return TRUE;
  return FALSE;
}

BOOL IsFolderEntryID(CBackEnd* pBEobj, ULONG cbEntryID, LPENTRYID lpEntryID) {
  if (cbEntryID != CB_PRIVATE_EID || lpEntryID == NULL) return FALSE;
  const PRIVATE_EID* pEID = reinterpret_cast<const PRIVATE_EID*>(lpEntryID);
  return pBEobj->IsValidEntryID(pEID) && pEID->bObjType == MAPI_FOLDER;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Construction

CMAPIFolder::CMAPIFolder(CMsgStore* pStore, const PRIVATE_EID& ParentEID, const PRIVATE_EID& ObjectEID,
                         BOOL fRealFolder, CPropList* pList, BOOL fDeferredErrors, ULONG lAccess,
                         CNamePropMgr* pNPList)
    : CGenericProp(pStore->m_pBEobj, &ParentEID, &ObjectEID, pList, fDeferredErrors, lAccess),
      m_pStore(pStore),
      m_lFolderType(fRealFolder ? ZT4_FOLDER_GENERIC : ZT4_FOLDER_ROOT),
      m_lHierViews(0),
      m_lContViews(0),
      m_lAsscContViews(0),
      m_lRowCount(0),
      m_lConversationCount(0),
      m_lActualCount(0),
      m_lPageSize(50),
      m_pHierTable(NULL),
      m_pContTable(NULL),
      m_pAsscContTable(NULL),
      m_hSyncEvent(NULL),
      m_hSyncThread(NULL),
      m_bContentSyncPending(0),
      m_bHierarchySyncPending(0),
      m_bConversationView(0),
      m_bKeepSyncing(1),
      m_bInitialSyncCompleted(0),
      m_lpSearchFolders{},
      m_spSearchCondition(NULL),
      m_ulFolderState(0) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  m_pNPList = pNPList;
  InitializeCriticalSection(&m_csHierTable);
  InitializeCriticalSection(&m_csContTable);
  InitializeCriticalSection(&m_csDependents);
  m_pStore->AddRef();
  if (m_pStore->IsSpooler()) m_ulObjFlags |= OBJFLAG_SPOOLER;
  // What the record knows of the folder's contents; the contents table corrects it once filled.
  m_lRowCount = LongFromList(m_pList, PR_CONTENT_COUNT);
  m_hSyncEvent = CreateEventA(NULL, TRUE, TRUE, "SyncThreadEvent");
  if (m_hSyncEvent == NULL) ZT4_LOG(ZT4_LEVEL_ERROR, "CMAPIFolder: CreateEvent failed:%x", ::GetLastError());
  // The named-property tags of message mapping (SetHideAttachPropTag and the others) are
  // registered here once messages are mapped.
  HRESULT hResult = m_pStore->m_OpenObjects.Insert(this, &m_ObjectEID);
  ZT4_LOG_FAILURE("CMAPIFolder::CMAPIFolder", hResult);
}

CMAPIFolder::~CMAPIFolder() {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  // The folder's own sync thread is ended here, and stopped entries leave the global sync list,
  // once the sync threads exist.
  m_bKeepSyncing = 0;
  if (m_pHierTable) m_pHierTable->Release();
  if (m_pContTable) m_pContTable->Release();
  if (m_pAsscContTable) m_pAsscContTable->Release();
  m_pHierTable = m_pContTable = m_pAsscContTable = NULL;
  if (m_hSyncEvent) CloseHandle(m_hSyncEvent);
  m_pStore->m_OpenObjects.Delete(this, &m_ObjectEID);
  if (m_ulFolderState & FOLDERFLAG_UPDATE_PARENT) UpdateParentTable();
  m_pStore->Release();
  m_pStore = NULL;
  // The search scope and condition belong to search folders; they are set by search.
  for (ULONG i = 0; i < m_lpSearchFolders.cValues; i++) PrivFree(&m_lpSearchFolders.lpbin[i].lpb);
  PrivFree(&m_lpSearchFolders.lpbin);
  m_lpSearchFolders.cValues = 0;
  if (m_spSearchCondition) m_spSearchCondition->Release();
  m_spSearchCondition = NULL;
  m_AdviseSinks.clear();
  m_Dependents.clear();
  DeleteCriticalSection(&m_csDependents);
  DeleteCriticalSection(&m_csContTable);
  DeleteCriticalSection(&m_csHierTable);
}

// ---------------------------------------------------------------------------------------------
// IUnknown

STDMETHODIMP CMAPIFolder::QueryInterface(REFIID riid, LPVOID* ppvObj) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  if (ppvObj == NULL) return E_INVALIDARG;
  *ppvObj = NULL;
  if (riid == IID_IMAPIFolder || riid == IID_IMAPIContainer || riid == IID_IMAPIProp || riid == IID_IUnknown) {
    *ppvObj = static_cast<IMAPIFolder*>(this);
    AddRef();
    return S_OK;
  }
  return E_NOINTERFACE;
}

STDMETHODIMP_(ULONG) CMAPIFolder::AddRef() { return GenericAddRef(); }

STDMETHODIMP_(ULONG) CMAPIFolder::Release() { return GenericRelease(); }

// ---------------------------------------------------------------------------------------------
// IMAPIProp

STDMETHODIMP CMAPIFolder::GetLastError(HRESULT hResult, ULONG, LPMAPIERROR* lppMAPIError) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  if (lppMAPIError == NULL) return E_INVALIDARG;
  return CGeneric::GetLastError(hResult, lppMAPIError, m_pStore->m_hInstance, PROVIDER_DISPLAY_NAME_STRING);
}

STDMETHODIMP CMAPIFolder::SaveChanges(ULONG ulFlags) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  // A folder's save updates no table of its own: the parent's row is rewritten afterwards.
  HRESULT hResult = CGenericProp::SaveChanges(ulFlags, NULL);
  if (SUCCEEDED(hResult)) {
    UpdatePropCacheInReplicas();
    UpdateParentTable();
  }
  ZT4_LOG_FAILURE("CMAPIFolder::SaveChanges", hResult);
  SetLastError(hResult);
  return hResult;
}

STDMETHODIMP CMAPIFolder::GetProps(LPSPropTagArray lpPropTagArray, ULONG, ULONG* lpcValues,
                                   LPSPropValue* lppPropArray) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  if (lpcValues == NULL || lppPropArray == NULL) return E_INVALIDARG;
  *lpcValues = 0;
  *lppPropArray = NULL;
  // The web view needs the data provider, which is called with no lock held.
  std::basic_string<BYTE> webView;
  if (WantsTag(lpPropTagArray, PR_FOLDER_WEBVIEWINFO) && IsIPMSubtree(m_pBEobj, m_ObjectEID)) {
    std::u16string strUrl = FolderHomePageUrl();
    if (!strUrl.empty()) webView = MakeWebViewInfo(strUrl);
  }
  // Lock order: object lock, then the back end's.
  Lock();
  try {
    ZT4_CHECK(CGenericProp::GetProps(lpPropTagArray, lpcValues, lppPropArray, FolderObjectTags()));
    BOOL fErrors = FALSE;
    for (ULONG i = 0; i < *lpcValues; i++)
      if (FAILED(FillProp(&(*lppPropArray)[i], *lppPropArray, webView))) fErrors = TRUE;
    if (fErrors) hResult = MAPI_W_ERRORS_RETURNED;
  }
  ZT4_CATCH(hResult);
  Unlock();
  ZT4_LOG_FAILURE("CMAPIFolder::GetProps", hResult);
  SetLastError(hResult);
  return hResult;
}

// One value of GetProps: computed, or from the list.
HRESULT CMAPIFolder::FillProp(LPSPropValue pProp, LPVOID pMemBlock, const std::basic_string<BYTE>& webView) {
  switch (pProp->ulPropTag) {
    case PR_NULL:
      return S_OK;
    case PR_RECORD_KEY:
    case PR_ENTRYID:
      return CGenericProp::GetProps(S_OK, CB_PRIVATE_EID, &m_ObjectEID, pProp, pMemBlock);
    case PR_PARENT_ENTRYID:
      return CGenericProp::GetProps(S_OK, CB_PRIVATE_EID, &m_ParentEID, pProp, pMemBlock);
    case PR_STORE_RECORD_KEY:
    case PR_MAPPING_SIGNATURE:
      return CGenericProp::GetProps(S_OK, sizeof(MAPIUID), &m_pBEobj->GetStoreGuid(), pProp, pMemBlock);
    case PR_STORE_ENTRYID:
      return CGenericProp::GetProps(S_OK, m_pStore->m_StoreEID.cb, m_pStore->m_StoreEID.lpb, pProp, pMemBlock);
    case PR_MDB_PROVIDER:
      return CGenericProp::GetProps(S_OK, sizeof(ZT4_MDB_PROVIDER), ZT4_MDB_PROVIDER, pProp, pMemBlock);
    case PR_OBJECT_TYPE:
      pProp->Value.l = MAPI_FOLDER;
      return S_OK;
    case PR_CREATION_VERSION_I8:
      pProp->Value.li.QuadPart = 1;
      return S_OK;
    case PR_ACCESS:
      pProp->Value.l = static_cast<LONG>(m_lAccess);
      return S_OK;
    case PR_ACCESS_LEVEL:
      pProp->Value.l = IsWritable() ? MAPI_MODIFY : 0;
      return S_OK;
    case PR_FOLDER_TYPE:
      pProp->Value.l = m_lFolderType;
      return S_OK;
    case PR_CONTENT_COUNT:
      pProp->Value.l = m_lRowCount;
      return S_OK;
    case PR_DISPLAY_TYPE:
      pProp->Value.l = ZT4_DISPLAY_TYPE_FOLDER;
      return S_OK;
    case PR_STORE_SUPPORT_MASK:
      pProp->Value.l = static_cast<LONG>(ZT4_STORE_SUPPORT_MASK);
      return S_OK;
    case PR_CONTAINER_HIERARCHY:
    case PR_CONTAINER_CONTENTS:
    case PR_FOLDER_ASSOCIATED_CONTENTS:
      pProp->Value.x = 0;
      return S_OK;
    case PR_FOLDER_WEBVIEWINFO:
      if (!webView.empty())
        return CGenericProp::GetProps(S_OK, static_cast<ULONG>(webView.size()), webView.data(), pProp, pMemBlock);
      break;
    default:
      break;
  }
  ULONG ulPropTag = pProp->ulPropTag;
  HRESULT hResult = CGenericProp::GetProps(pProp, pMemBlock);
  if (FAILED(hResult)) {
    if (hResult == MAPI_E_NOT_FOUND) {
      LPCSTR pszName = GetPropTagName(ulPropTag);
      ZT4_LOG(ZT4_LEVEL_DETAIL, "CMAPIFolder::GetProps: Not Found - %s", pszName ? pszName : "");
    }
    pProp->ulPropTag = PROP_TAG(PT_ERROR, PROP_ID(ulPropTag));
    pProp->Value.err = hResult;
  }
  return hResult;
}

STDMETHODIMP CMAPIFolder::GetPropList(ULONG, LPSPropTagArray* lppPropTagArray) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  if (lppPropTagArray == NULL) return E_INVALIDARG;
  HRESULT hResult = CGenericProp::GetPropList(FolderObjectTags(), lppPropTagArray);
  ZT4_LOG_FAILURE("CMAPIFolder::GetPropList", hResult);
  SetLastError(hResult);
  return hResult;
}

STDMETHODIMP CMAPIFolder::OpenProperty(ULONG ulPropTag, LPCIID lpiid, ULONG, ULONG ulFlags, LPUNKNOWN* lppUnk) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  if (lppUnk == NULL) return E_INVALIDARG;
  HRESULT hResult = CGenericProp::OpenProperty(ulPropTag, lpiid, ulFlags, lppUnk);
  ZT4_LOG_FAILURE("CMAPIFolder::OpenProperty", hResult);
  SetLastError(hResult);
  return hResult;
}

STDMETHODIMP CMAPIFolder::SetProps(ULONG cValues, LPSPropValue lpPropArray, LPSPropProblemArray* lppProblems) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  if (lppProblems) *lppProblems = NULL;
  if (cValues > 0 && lpPropArray == NULL) return E_INVALIDARG;
  if (!IsWritable()) {
    ZT4_LOG(ZT4_LEVEL_DETAIL, "CMAPIFolder::SetProps: Cannot set properties in a READ only object");
    SetLastError(MAPI_E_NO_ACCESS);
    return MAPI_E_NO_ACCESS;
  }
  BOOL fChanged = FALSE;
  // Lock order: object lock, then the back end's.
  Lock();
  try {
    for (ULONG i = 0; i < cValues; i++) {
      HRESULT hTagError = SetOneProp(&lpPropArray[i], &fChanged);
      if (hTagError != S_OK && lppProblems)
        ZT4_CHECK(AddTagToProbArray(cValues, lppProblems, i, lpPropArray[i].ulPropTag, hTagError));
    }
    if (fChanged) ZT4_CHECK(CGenericProp::SaveChanges(KEEP_OPEN_READWRITE, NULL));
  }
  ZT4_CATCH(hResult);
  Unlock();
  // Other instances and the parent's rows are told with no lock of ours held.
  if (SUCCEEDED(hResult) && fChanged) {
    UpdatePropCacheInReplicas();
    SendNotification(fnevObjectModified);
    UpdateParentTable();
  }
  if (FAILED(hResult) && lppProblems) PrivMAPIFree(lppProblems);
  ZT4_LOG_FAILURE("CMAPIFolder::SetProps", hResult);
  SetLastError(hResult);
  return hResult;
}

// One value of SetProps; the caller holds the object lock. The settable set is closed: the name
// (through the back end, which keeps the parent's names), the comment, the status and the class.
// Texts are kept wide, as the folder's record holds them.
HRESULT CMAPIFolder::SetOneProp(LPSPropValue pProp, BOOL* pfChanged) {
  switch (PROP_TYPE(pProp->ulPropTag)) {
    case PT_NULL:
    case PT_UNSPECIFIED:
    case PT_ERROR:
    case PT_OBJECT:
      ZT4_LOG(ZT4_LEVEL_DETAIL,
              "CMAPIFolder::SetProps: Ignoring property of PT_NULL, PT_UNSPEFICIED, PT_ERROR or PT_OBJECT type");
      return S_OK;
    default:
      break;
  }
  SPropValue spvWide{};
  std::u16string strWide;
  switch (pProp->ulPropTag) {
    case PR_DISPLAY_NAME: {
      if (pProp->Value.lpszA == NULL || pProp->Value.lpszA[0] == 0) return E_INVALIDARG;
      HRESULT hResult = m_pBEobj->SetObjNameInContainer(pProp->Value.lpszA, m_ParentEID, m_ObjectEID);
      if (FAILED(hResult)) return hResult;
      strWide = ToWide(pProp->Value.lpszA);
      spvWide.ulPropTag = PR_DISPLAY_NAME_W;
      break;
    }
    case PR_COMMENT:
      strWide = ToWide(pProp->Value.lpszA ? pProp->Value.lpszA : "");
      spvWide.ulPropTag = PR_COMMENT_W;
      break;
    case PR_CONTAINER_CLASS:
      strWide = ToWide(pProp->Value.lpszA ? pProp->Value.lpszA : "");
      spvWide.ulPropTag = PR_CONTAINER_CLASS_W;
      break;
    case PR_STATUS:
      break;
    default: {
      HRESULT hAccess = GetPropAccess(pProp->ulPropTag);
      return FAILED(hAccess) ? hAccess : MAPI_E_NO_ACCESS;
    }
  }
  LPSPropValue pInsert = pProp;
  if (spvWide.ulPropTag != 0) {
    spvWide.Value.lpszW = const_cast<LPWSTR>(strWide.c_str());
    pInsert = &spvWide;
    // The list would update a wide value of the same tag in place, keeping our pointer: the old
    // node goes first so the new value is copied into a node of its own.
    if (m_pList) m_pList->Delete(spvWide.ulPropTag);
  }
  HRESULT hResult = AddPropToList(pInsert, TRUE);
  if (SUCCEEDED(hResult)) *pfChanged = TRUE;
  return hResult;
}

STDMETHODIMP CMAPIFolder::DeleteProps(LPSPropTagArray lpPropTagArray, LPSPropProblemArray* lppProblems) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  if (lpPropTagArray == NULL) return E_INVALIDARG;
  HRESULT hResult = CGenericProp::DeleteProps(lpPropTagArray, lppProblems);
  ZT4_LOG_FAILURE("CMAPIFolder::DeleteProps", hResult);
  SetLastError(hResult);
  return hResult;
}

// Copies between folders go through MAPI's generic copy, which reads and writes through the
// two objects' own interfaces, so the folder's refusals stay in force on the target.
STDMETHODIMP CMAPIFolder::CopyTo(ULONG ciidExclude, LPCIID rgiidExclude, LPSPropTagArray lpExcludeProps,
                                 ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress, LPCIID lpInterface,
                                 LPVOID lpDestObj, ULONG ulFlags, LPSPropProblemArray* lppProblems) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  if (lpDestObj == NULL) {
    hResult = E_INVALIDARG;
  } else {
    hResult = m_pStore->m_pSupObj->DoCopyTo(&IID_IMAPIFolder, static_cast<IMAPIFolder*>(this), ciidExclude,
                                            rgiidExclude, lpExcludeProps, ulUIParam, lpProgress, lpInterface,
                                            lpDestObj, ulFlags, lppProblems);
  }
  ZT4_LOG_FAILURE("CMAPIFolder::CopyTo", hResult);
  SetLastError(hResult);
  return hResult;
}

STDMETHODIMP CMAPIFolder::CopyProps(LPSPropTagArray lpIncludeProps, ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress,
                                    LPCIID lpInterface, LPVOID lpDestObj, ULONG ulFlags,
                                    LPSPropProblemArray* lppProblems) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  if (lpDestObj == NULL || lpIncludeProps == NULL) {
    hResult = E_INVALIDARG;
  } else {
    hResult = m_pStore->m_pSupObj->DoCopyProps(&IID_IMAPIFolder, static_cast<IMAPIFolder*>(this), lpIncludeProps,
                                               ulUIParam, lpProgress, lpInterface, lpDestObj, ulFlags,
                                               lppProblems);
  }
  ZT4_LOG_FAILURE("CMAPIFolder::CopyProps", hResult);
  SetLastError(hResult);
  return hResult;
}

STDMETHODIMP CMAPIFolder::GetNamesFromIDs(LPSPropTagArray* lppPropTags, LPGUID lpPropSetGuid, ULONG ulFlags,
                                          ULONG* lpcPropNames, LPMAPINAMEID** lpppPropNames) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  if (lppPropTags == NULL || lpcPropNames == NULL || lpppPropNames == NULL) return E_INVALIDARG;
  HRESULT hResult = CGenericProp::GetNamesFromIDs(lppPropTags, lpPropSetGuid, ulFlags, lpcPropNames, lpppPropNames,
                                                  FolderObjectTags());
  ZT4_LOG_FAILURE("CMAPIFolder::GetNamesFromIDs", hResult);
  SetLastError(hResult);
  return hResult;
}

STDMETHODIMP CMAPIFolder::GetIDsFromNames(ULONG cPropNames, LPMAPINAMEID* lppPropNames, ULONG ulFlags,
                                          LPSPropTagArray* lppPropTags) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  if (lppPropTags == NULL || (cPropNames > 0 && lppPropNames == NULL)) return E_INVALIDARG;
  HRESULT hResult = S_OK;
  // The map's stream is passed so that a new name is saved at once.
  LPSTREAM pStream = NULL;
  if (ulFlags & MAPI_CREATE) m_pBEobj->GetNamedPropertiesStream(&pStream);
  hResult = CGenericProp::GetIDsFromNames(cPropNames, lppPropNames, ulFlags, lppPropTags, FolderObjectTags(), pStream);
  if (pStream) pStream->Release();
  ZT4_LOG_FAILURE("CMAPIFolder::GetIDsFromNames", hResult);
  SetLastError(hResult);
  return hResult;
}

// ---------------------------------------------------------------------------------------------
// IMAPIContainer

STDMETHODIMP CMAPIFolder::GetContentsTable(ULONG ulFlags, LPMAPITABLE* lppTable) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  if (lppTable == NULL) return E_INVALIDARG;
  *lppTable = NULL;
  if (ulFlags & MAPI_ASSOCIATED) {
    hResult = GetAssociatedContentsTable(lppTable);
  } else {
    // Regular contents tables (the flat and the paged table, the 5555 refresh, the folder's sync
    // thread) arrive with contents population.
    ZT4_LOG(ZT4_LEVEL_INFO, "CMAPIFolder::GetContentsTable: A regular contents table was requested");
    ZT4_LOG(ZT4_LEVEL_INFO, "CMAPIFolder::GetContentsTable called with flags [%d]", ulFlags);
    hResult = MAPI_E_NO_SUPPORT;
  }
  ZT4_LOG_FAILURE("CMAPIFolder::GetContentsTable", hResult);
  SetLastError(hResult);
  return hResult;
}

// The associated table is local only: made once by the back end, then views of it.
HRESULT CMAPIFolder::GetAssociatedContentsTable(LPMAPITABLE* lppTable) {
  HRESULT hResult = S_OK;
  ZT4_LOG(ZT4_LEVEL_INFO, "CMAPIFolder::GetContentsTable: An assocated contents table was requested");
  // Lock order: contents lock, then the back end's.
  EnterCriticalSection(&m_csContTable);
  try {
    if (m_pAsscContTable == NULL)
      ZT4_CHECK(m_pBEobj->GetTable(TABLE_CONTENTS, m_ObjectEID, static_cast<LONG>(m_lAccess),
                                   (LPVOID)&m_pStore->m_StoreEID, (LPVOID)TRUE, &m_pAsscContTable));
    ZT4_CHECK_NULL(m_pAsscContTable, MAPI_E_NO_SUPPORT);
    ZT4_CHECK(m_pAsscContTable->HrGetView(NULL, FolderTablesViewRelease, StorePointer(this), lppTable));
    AddRef();
    InterlockedIncrement(&m_lAsscContViews);
  }
  ZT4_CATCH(hResult);
  LeaveCriticalSection(&m_csContTable);
  return hResult;
}

STDMETHODIMP CMAPIFolder::GetHierarchyTable(ULONG ulFlags, LPMAPITABLE* lppTable) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  BOOL fRefresh = (ulFlags == ZT4_TABLE_REFRESH);
  if (lppTable == NULL && !fRefresh) return E_INVALIDARG;
  if (lppTable) *lppTable = NULL;
  try {
    if (m_pHierTable == NULL || fRefresh) {
      ZT4_LOG(ZT4_LEVEL_INFO, "CMAPIFolder::GetHierarchyTable called with flags [%d]", ulFlags);
      ZT4_CHECK(LoadHierarchyTable());
    }
    if (!fRefresh && IsWritable() && m_lFolderType != ZT4_FOLDER_SEARCH) {
      // The global sync list takes the folder here once the sync threads exist.
      m_bHierarchySyncPending = 1;
    }
    ZT4_LOG(ZT4_LEVEL_INFO, "Name %s(%u) Table:%u Flag:%d", DisplayNameFromList(m_pList).c_str(),
            m_ObjectEID.dwObjID, static_cast<ULONG>(m_lHierViews), ulFlags);
    if (!fRefresh) {
      // Lock order: hierarchy lock alone.
      EnterCriticalSection(&m_csHierTable);
      hResult = m_pHierTable->HrGetView(NULL, FolderTablesViewRelease, StorePointer(this), lppTable);
      LeaveCriticalSection(&m_csHierTable);
      ZT4_CHECK(hResult);
      AddRef();
      InterlockedIncrement(&m_lHierViews);
    }
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CMAPIFolder::GetHierarchyTable", hResult);
  SetLastError(hResult);
  return hResult;
}

// Builds the hierarchy rows anew: the first time they become the folder's table, later they
// replace the rows of the table the views already show.
HRESULT CMAPIFolder::LoadHierarchyTable() {
  HRESULT hResult = S_OK;
  LPTABLEDATA lpTable = NULL;
  LPMAPITABLE lpView = NULL;
  LPSRowSet lpRowSet = NULL;
  try {
    ZT4_CHECK(m_pBEobj->GetTable(TABLE_HIERARCHY, m_ObjectEID, static_cast<LONG>(m_lAccess),
                                 (LPVOID)&m_pStore->m_StoreEID, NULL, &lpTable));
    ZT4_CHECK_NULL(lpTable, E_FAIL);
    // Lock order: hierarchy lock, then the table's.
    EnterCriticalSection(&m_csHierTable);
    if (m_pHierTable) {
      hResult = lpTable->HrGetView(NULL, NULL, 0, &lpView);
      if (SUCCEEDED(hResult)) hResult = HrQueryAllRows(lpView, NULL, NULL, NULL, 0, &lpRowSet);
      if (SUCCEEDED(hResult)) hResult = m_pHierTable->HrModifyRows(0, lpRowSet);
    } else {
      ZT4_LOG(ZT4_LEVEL_INFO, "CMAPIFolder::GetHierarchyTable Hierarchy table is null");
      m_pHierTable = lpTable;
      lpTable = NULL;
    }
    LeaveCriticalSection(&m_csHierTable);
    ZT4_CHECK(hResult);
  }
  ZT4_CATCH(hResult);
  if (lpRowSet) FreeProws(lpRowSet);
  if (lpView) lpView->Release();
  if (lpTable) lpTable->Release();
  return hResult;
}

STDMETHODIMP CMAPIFolder::OpenEntry(ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, ULONG ulFlags,
                                    ULONG* lpulObjType, LPUNKNOWN* lppUnk) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = m_pStore->OpenEntry(cbEntryID, lpEntryID, lpInterface, ulFlags, lpulObjType, lppUnk);
  ZT4_LOG_FAILURE("CMAPIFolder::OpenEntry", hResult);
  SetLastError(hResult);
  return hResult;
}

// Search folders and their criteria come with search.
STDMETHODIMP CMAPIFolder::SetSearchCriteria(LPSRestriction, LPENTRYLIST, ULONG) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = MAPI_E_NO_SUPPORT;
  ZT4_LOG_FAILURE("CMAPIFolder::SetSearchCriteria", hResult);
  SetLastError(hResult);
  return hResult;
}

STDMETHODIMP CMAPIFolder::GetSearchCriteria(ULONG, LPSRestriction*, LPENTRYLIST*, ULONG*) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = MAPI_E_NO_SUPPORT;
  ZT4_LOG_FAILURE("CMAPIFolder::GetSearchCriteria", hResult);
  SetLastError(hResult);
  return hResult;
}

// ---------------------------------------------------------------------------------------------
// IMAPIFolder: messages

// The store takes no new messages: its mail comes from the archive.
STDMETHODIMP CMAPIFolder::CreateMessage(LPCIID, ULONG, LPMESSAGE* lppMessage) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  if (lppMessage) *lppMessage = NULL;
  HRESULT hResult = MAPI_E_NO_SUPPORT;
  ZT4_LOG_FAILURE("CMAPIFolder::CreateMessage", hResult);
  SetLastError(hResult);
  return hResult;
}

STDMETHODIMP CMAPIFolder::CopyMessages(LPENTRYLIST lpMsgList, LPCIID lpInterface, LPVOID lpDestFolder,
                                       ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress, ULONG ulFlags) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  if (lpMsgList == NULL || lpDestFolder == NULL) {
    hResult = E_INVALIDARG;
  } else if ((ulFlags & MESSAGE_MOVE) && !IsWritable()) {
    ZT4_LOG(ZT4_LEVEL_DETAIL, "CMAPIFolder::CopyMessages: Cannot move messages from a READ only folder");
    hResult = MAPI_E_NO_ACCESS;
  } else if ((ulFlags & MESSAGE_MOVE) && IsDeletedItemsFolder(static_cast<LPMAPIPROP>(lpDestFolder))) {
    // Archived mail isn't thrown away by dragging it to the wastebasket.
    hResult = ZT4_E_SOFT_DELETE_REFUSED;
  } else {
    hResult = m_pStore->m_pSupObj->CopyMessages(&IID_IMAPIFolder, static_cast<IMAPIFolder*>(this), lpMsgList,
                                                lpInterface, lpDestFolder, ulUIParam, lpProgress, ulFlags);
  }
  ZT4_LOG_FAILURE("CMAPIFolder::CopyMessages", hResult);
  SetLastError(hResult);
  return hResult;
}

// TRUE when the folder's PR_DISPLAY_NAME_W is "Deleted Items" in any case.
BOOL CMAPIFolder::IsDeletedItemsFolder(LPMAPIPROP pFolder) {
  SizedSPropTagArray(1, sptName) = {1, {PR_DISPLAY_NAME_W}};
  ULONG cValues = 0;
  LPSPropValue pValues = NULL;
  HRESULT hResult = pFolder->GetProps(reinterpret_cast<LPSPropTagArray>(&sptName), MAPI_UNICODE, &cValues, &pValues);
  BOOL fDeleted = SUCCEEDED(hResult) && pValues && cValues == 1 && pValues[0].ulPropTag == PR_DISPLAY_NAME_W &&
                  pValues[0].Value.lpszW && _wcsicmp(pValues[0].Value.lpszW, WIDE("Deleted Items")) == 0;
  if (pValues) MAPIFreeBuffer(pValues);
  return fDeleted;
}

STDMETHODIMP CMAPIFolder::DeleteMessages(LPENTRYLIST lpMsgList, ULONG_PTR, LPMAPIPROGRESS, ULONG ulFlags) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  if (ulFlags != MESSAGE_DIALOG) {
    hResult = MAPI_E_NO_SUPPORT;
  } else if (!IsWritable()) {
    ZT4_LOG(ZT4_LEVEL_DETAIL, "CMAPIFolder::DeleteMessages: Cannot delete messages in a READ only folder");
    hResult = MAPI_E_NO_ACCESS;
  } else if (m_lRowCount <= 0) {
    ZT4_LOG(ZT4_LEVEL_INFO, "Folder is empty, return S_OK directly");
  } else if (lpMsgList == NULL || lpMsgList->cValues == 0) {
    // Nothing named, nothing to do.
  } else {
    // The server removal, the caches and the table rows of the deleted messages come with
    // contents population.
    hResult = MAPI_E_NO_SUPPORT;
  }
  ZT4_LOG_FAILURE("CMAPIFolder::DeleteMessages", hResult);
  SetLastError(hResult);
  return hResult;
}

// Read flags and message status live on messages, which come with the message object.
STDMETHODIMP CMAPIFolder::SetReadFlags(LPENTRYLIST, ULONG_PTR, LPMAPIPROGRESS, ULONG) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = MAPI_E_NO_SUPPORT;
  ZT4_LOG_FAILURE("CMAPIFolder::SetReadFlags", hResult);
  SetLastError(hResult);
  return hResult;
}

STDMETHODIMP CMAPIFolder::GetMessageStatus(ULONG, LPENTRYID, ULONG, ULONG* lpulMessageStatus) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  if (lpulMessageStatus) *lpulMessageStatus = 0;
  HRESULT hResult = MAPI_E_NO_SUPPORT;
  ZT4_LOG_FAILURE("CMAPIFolder::GetMessageStatus", hResult);
  SetLastError(hResult);
  return hResult;
}

STDMETHODIMP CMAPIFolder::SetMessageStatus(ULONG, LPENTRYID, ULONG, ULONG, ULONG* lpulOldStatus) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  if (lpulOldStatus) *lpulOldStatus = 0;
  HRESULT hResult = MAPI_E_NO_SUPPORT;
  ZT4_LOG_FAILURE("CMAPIFolder::SetMessageStatus", hResult);
  SetLastError(hResult);
  return hResult;
}

// The folder keeps no sort of its own.
STDMETHODIMP CMAPIFolder::SaveContentsSort(LPSSortOrderSet, ULONG) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = MAPI_E_NO_SUPPORT;
  ZT4_LOG_FAILURE("CMAPIFolder::SaveContentsSort", hResult);
  SetLastError(hResult);
  return hResult;
}

// ---------------------------------------------------------------------------------------------
// IMAPIFolder: subfolders

STDMETHODIMP CMAPIFolder::CreateFolder(ULONG ulFolderType, LPTSTR lpszFolderName, LPTSTR lpszFolderComment,
                                       LPCIID, ULONG ulFlags, LPMAPIFOLDER* lppFolder) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  try {
    ZT4_CHECK_NULL(lppFolder, E_INVALIDARG);
    *lppFolder = NULL;
    if (ulFlags & ~(MAPI_UNICODE | OPEN_IF_EXISTS | MAPI_DEFERRED_ERRORS)) throw static_cast<HRESULT>(MAPI_E_UNKNOWN_FLAGS);
    std::string strName = ArgumentText(lpszFolderName, ulFlags);
    std::string strComment = ArgumentText(lpszFolderComment, ulFlags);
    if (strName.empty()) throw static_cast<HRESULT>(E_INVALIDARG);
    if (!IsWritable()) {
      ZT4_LOG(ZT4_LEVEL_DETAIL, "CMAPIFolder::CreateFolder: Cannot delete messages in a READ only folder");
      throw static_cast<HRESULT>(MAPI_E_NO_ACCESS);
    }
    // Search folders come with search.
    if (ulFolderType == FOLDER_SEARCH) throw static_cast<HRESULT>(MAPI_E_NO_SUPPORT);
    if (ulFolderType != FOLDER_GENERIC) throw static_cast<HRESULT>(E_INVALIDARG);

    PRIVATE_EID NewEID{};
    CPropList* pList = NULL;
    hResult = m_pBEobj->CreateObject(m_ObjectEID, &NewEID, &pList, MAPI_FOLDER, strName.c_str(), strComment.c_str(),
                                     NULL);
    if (hResult == MAPI_E_COLLISION && (ulFlags & OPEN_IF_EXISTS)) {
      delete pList;
      ZT4_CHECK(OpenExistingChild(strName.c_str(), ulFlags, lppFolder));
    } else {
      if (FAILED(hResult)) {
        delete pList;
        throw hResult;
      }
      ZT4_CHECK(AddNewChild(NewEID, pList, ulFlags, lppFolder));
    }
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CMAPIFolder::CreateFolder", hResult);
  SetLastError(hResult);
  return hResult;
}

// Makes the object of a folder just created, and tells the tables and the clients.
HRESULT CMAPIFolder::AddNewChild(const PRIVATE_EID& NewEID, CPropList* pList, ULONG ulFlags, LPMAPIFOLDER* lppFolder) {
  CMAPIFolder* pFolder = new (std::nothrow) CMAPIFolder(m_pStore, m_ObjectEID, NewEID, TRUE, pList,
                                                        (ulFlags & MAPI_DEFERRED_ERRORS) != 0,
                                                        FOLDER_ACCESS_READWRITE, m_pNPList);
  if (pFolder == NULL) {
    delete pList;
    return E_OUTOFMEMORY;
  }
  ForEachInstance(m_ObjectEID, [&](CMAPIFolder* pInstance) { pInstance->UpdateHierarchyRow(NewEID); });
  pFolder->SendNotification(fnevObjectCreated);
  RefreshAfterChildChange();
  *lppFolder = pFolder;
  return S_OK;
}

// OPEN_IF_EXISTS: the subfolder that holds the name, opened as the store opens it.
HRESULT CMAPIFolder::OpenExistingChild(LPCSTR pszName, ULONG ulFlags, LPMAPIFOLDER* lppFolder) {
  CFileBackEnd* pFileBE = dynamic_cast<CFileBackEnd*>(m_pBEobj);
  if (pFileBE == NULL) return MAPI_E_COLLISION;
  std::u16string strName = ToWide(pszName);
  DWORD dwObjID = 0;
  HRESULT hResult = pFileBE->CheckFldNameCollision(m_ObjectEID.dwObjID, strName.c_str(), &dwObjID, 2);
  if (hResult != MAPI_E_COLLISION) return FAILED(hResult) ? hResult : MAPI_E_NOT_FOUND;
  PRIVATE_EID ChildEID = m_ObjectEID;
  ChildEID.dwObjID = dwObjID;
  ULONG ulObjType = 0;
  LPUNKNOWN pUnk = NULL;
  hResult = m_pStore->OpenEntry(CB_PRIVATE_EID, reinterpret_cast<LPENTRYID>(&ChildEID), &IID_IMAPIFolder,
                                MAPI_BEST_ACCESS | (ulFlags & MAPI_DEFERRED_ERRORS), &ulObjType, &pUnk);
  if (FAILED(hResult)) return hResult;
  hResult = pUnk->QueryInterface(IID_IMAPIFolder, reinterpret_cast<LPVOID*>(lppFolder));
  pUnk->Release();
  return hResult;
}

// Copying folders comes with the back end's copy and move.
STDMETHODIMP CMAPIFolder::CopyFolder(ULONG, LPENTRYID, LPCIID, LPVOID, LPTSTR, ULONG_PTR, LPMAPIPROGRESS, ULONG) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = MAPI_E_NO_SUPPORT;
  ZT4_LOG_FAILURE("CMAPIFolder::CopyFolder", hResult);
  SetLastError(hResult);
  return hResult;
}

STDMETHODIMP CMAPIFolder::DeleteFolder(ULONG cbEntryID, LPENTRYID lpEntryID, ULONG_PTR, LPMAPIPROGRESS,
                                       ULONG ulFlags) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  PropListHolder child;
  try {
    if (ulFlags & ~(DEL_FOLDERS | DEL_MESSAGES | FOLDER_DIALOG)) throw static_cast<HRESULT>(MAPI_E_UNKNOWN_FLAGS);
    if (!IsFolderEntryID(m_pBEobj, cbEntryID, lpEntryID)) throw static_cast<HRESULT>(MAPI_E_INVALID_ENTRYID);
    if (!IsWritable()) throw static_cast<HRESULT>(MAPI_E_NO_ACCESS);
    PRIVATE_EID ChildEID = *reinterpret_cast<const PRIVATE_EID*>(lpEntryID);
    ZT4_CHECK(m_pBEobj->OpenObject(ChildEID, &child.p));
    ZT4_CHECK(CheckIsChild(child.p));
    BOOL fHasFolders = LongFromList(child.p, PR_SUBFOLDERS) != 0;
    BOOL fHasMessages = LongFromList(child.p, PR_CONTENT_COUNT) > 0 || LongFromList(child.p, PR_ASSOC_CONTENT_COUNT) > 0;
    if (fHasFolders && !(ulFlags & DEL_FOLDERS)) throw static_cast<HRESULT>(MAPI_E_HAS_FOLDERS);
    if (fHasMessages && !(ulFlags & DEL_MESSAGES)) throw static_cast<HRESULT>(MAPI_E_HAS_MESSAGES);
    if (fHasFolders || fHasMessages) ZT4_CHECK(DeleteContentsOf(ChildEID, DELOBJ_FOLDERS, 0));
    ZT4_CHECK(m_pBEobj->DeleteOneObject(&ChildEID, m_ObjectEID));
    ForEachInstance(m_ObjectEID, [&](CMAPIFolder* pInstance) { pInstance->RemoveHierarchyRow(ChildEID); });
    NotifyFolderEvent(m_pStore, fnevObjectDeleted, ChildEID, m_ObjectEID);
    RefreshAfterChildChange();
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CMAPIFolder::DeleteFolder", hResult);
  SetLastError(hResult);
  return hResult;
}

// MAPI_E_NOT_FOUND unless the folder's record names this folder as its parent.
HRESULT CMAPIFolder::CheckIsChild(CPropList* pChildList) {
  SPropValue spv{};
  if (pChildList->Find(PR_PARENT_ENTRYID, &spv, FALSE, NULL) != S_OK || spv.Value.bin.cb != CB_PRIVATE_EID)
    return MAPI_E_NOT_FOUND;
  const PRIVATE_EID* pParent = reinterpret_cast<const PRIVATE_EID*>(spv.Value.bin.lpb);
  return pParent->dwObjID == m_ObjectEID.dwObjID ? S_OK : MAPI_E_NOT_FOUND;
}

// Empties FolderEID through the back end: ulWhat is the contents or the folder bit of
// DeleteObjects, ulDataFlags the work order's flags.
HRESULT CMAPIFolder::DeleteContentsOf(const PRIVATE_EID& FolderEID, ULONG ulWhat, ULONG ulDataFlags) {
  DELETE_OBJECTS_DATA data{};
  data.ulFlags = ulDataFlags;
  data.pOpenObjects = &m_pStore->m_OpenObjects;
  HRESULT hResult = m_pBEobj->DeleteObjects(FolderEID, ulWhat, 0, &data);
  FreeDeleteObjectsData(&data);
  return hResult;
}

STDMETHODIMP CMAPIFolder::EmptyFolder(ULONG_PTR, LPMAPIPROGRESS, ULONG ulFlags) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  try {
    if (ulFlags & ~(DEL_ASSOCIATED | FOLDER_DIALOG)) throw static_cast<HRESULT>(MAPI_E_UNKNOWN_FLAGS);
    if (!IsWritable()) {
      ZT4_LOG(ZT4_LEVEL_DETAIL, "CMAPIFolder::DeleteFolderContents: Cannot delete contents from a READ only folder");
      throw static_cast<HRESULT>(MAPI_E_NO_ACCESS);
    }
    ZT4_CHECK(DeleteContentsOf(m_ObjectEID, DELOBJ_MESSAGES, (ulFlags & DEL_ASSOCIATED) ? 0 : DEL_KEEP_ASSOCIATED));
    // The subfolders are gone with the contents.
    ForEachInstance(m_ObjectEID, [](CMAPIFolder* pInstance) { pInstance->ClearHierarchyRows(); });
    RefreshAfterChildChange();
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CMAPIFolder::EmptyFolder", hResult);
  SetLastError(hResult);
  return hResult;
}

// After a subfolder came or went: the record's counts and PR_SUBFOLDERS go to every instance,
// the parent's rows follow, and the clients hear of the change.
void CMAPIFolder::RefreshAfterChildChange() {
  UpdateCounts();
  UpdatePropCacheInReplicas();
  UpdateParentTable();
  SendNotification(fnevObjectModified);
}

// ---------------------------------------------------------------------------------------------
// Keeping the instances of one folder in step

HRESULT CMAPIFolder::UpdatePropertyCache(CPropList* pList) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  if (pList == NULL) return E_INVALIDARG;
  HRESULT hResult = S_OK;
  // Lock order: object lock alone.
  Lock();
  if (m_pList == NULL) m_pList = new (std::nothrow) CPropList();
  hResult = m_pList ? m_pList->CopyFrom(pList) : E_OUTOFMEMORY;
  Unlock();
  ZT4_LOG_FAILURE("CMAPIFolder::UpdatePropertyCache", hResult);
  return hResult;
}

HRESULT CMAPIFolder::UpdatePropCacheInReplicas() {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  // A copy taken under our lock, handed on without it, so two instances never wait on each other.
  CPropList copy;
  Lock();
  HRESULT hResult = m_pList ? copy.CopyFrom(m_pList) : S_OK;
  Unlock();
  if (FAILED(hResult)) return hResult;
  ForEachInstance(m_ObjectEID, [&](CMAPIFolder* pInstance) {
    if (pInstance == this) return;
    pInstance->UpdatePropertyCache(&copy);
    pInstance->m_lRowCount = LongFromList(&copy, PR_CONTENT_COUNT);
  });
  return S_OK;
}

HRESULT CMAPIFolder::UpdateParentTable() {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  if (m_lFolderType == ZT4_FOLDER_ROOT || !m_pBEobj->IsValidEntryID(&m_ParentEID)) return S_OK;
  ForEachInstance(m_ParentEID, [&](CMAPIFolder* pParent) { pParent->UpdateHierarchyRow(m_ObjectEID); });
  return S_OK;
}

HRESULT CMAPIFolder::UpdateHierarchyRow(const PRIVATE_EID& ChildEID) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  PropListHolder child;
  // Lock order: hierarchy lock, then the back end's.
  EnterCriticalSection(&m_csHierTable);
  if (m_pHierTable) {
    hResult = m_pBEobj->OpenObject(ChildEID, &child.p);
    if (SUCCEEDED(hResult))
      hResult = GetHierarchyTableProps(m_pBEobj, ChildEID, child.p, static_cast<LONG>(m_lAccess), ZT4_FOLDER_GENERIC,
                                       &m_pStore->m_StoreEID, m_pHierTable);
  }
  LeaveCriticalSection(&m_csHierTable);
  ZT4_LOG_FAILURE("CMAPIFolder::UpdateHierarchyRow", hResult);
  return hResult;
}

// The hierarchy row of a deleted subfolder goes; its key is the object number.
HRESULT CMAPIFolder::RemoveHierarchyRow(const PRIVATE_EID& ChildEID) {
  HRESULT hResult = S_OK;
  DWORD dwKey = ChildEID.dwObjID;
  SPropValue spvKey{};
  spvKey.ulPropTag = PR_INSTANCE_KEY;
  spvKey.Value.bin.cb = sizeof(dwKey);
  spvKey.Value.bin.lpb = reinterpret_cast<LPBYTE>(&dwKey);
  // Lock order: hierarchy lock, then the table's.
  EnterCriticalSection(&m_csHierTable);
  if (m_pHierTable) hResult = m_pHierTable->HrDeleteRow(&spvKey);
  LeaveCriticalSection(&m_csHierTable);
  return hResult == MAPI_E_NOT_FOUND ? S_OK : hResult;
}

void CMAPIFolder::ClearHierarchyRows() {
  ULONG cDeleted = 0;
  // Lock order: hierarchy lock, then the table's.
  EnterCriticalSection(&m_csHierTable);
  if (m_pHierTable) m_pHierTable->HrDeleteRows(TAD_ALL_ROWS, NULL, &cDeleted);
  LeaveCriticalSection(&m_csHierTable);
}

HRESULT CMAPIFolder::SendNotification(ULONG ulEventType) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = NotifyFolderEvent(m_pStore, ulEventType, m_ObjectEID, m_ParentEID);
  ZT4_LOG_FAILURE("CMAPIFolder::SendNotification", hResult);
  return hResult;
}

// Contents tables come with contents population; until then there is no row to add or remove.
HRESULT CMAPIFolder::UpdateContentsTable(ULONG, const PRIVATE_EID&) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  return S_OK;
}

// The counts as the record has them now, into the cache and PR_CONTENT_COUNT.
HRESULT CMAPIFolder::UpdateCounts() {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  PropListHolder record;
  HRESULT hResult = m_pBEobj->OpenObject(m_ObjectEID, &record.p);
  if (SUCCEEDED(hResult)) hResult = UpdatePropertyCache(record.p);
  if (SUCCEEDED(hResult)) m_lRowCount = LongFromList(record.p, PR_CONTENT_COUNT);
  ZT4_LOG_FAILURE("CMAPIFolder::UpdateCounts", hResult);
  return hResult;
}

// Calls fn on every open instance of the folder FolderEID names, each held by a reference
// across the call; no lock of ours is held.
template <class Fn> void CMAPIFolder::ForEachInstance(const PRIVATE_EID& FolderEID, Fn fn) {
  CGenericProp* pObject = m_pStore->m_OpenObjects.Walk(&FolderEID, 0, NULL);
  while (pObject) {
    CMAPIFolder* pFolder = dynamic_cast<CMAPIFolder*>(pObject);
    if (pFolder) fn(pFolder);
    CGenericProp* pNext = m_pStore->m_OpenObjects.Walk(&FolderEID, 1, pObject);
    pObject->GenericRelease();
    pObject = pNext;
  }
}

// ---------------------------------------------------------------------------------------------

void STDAPICALLTYPE CMAPIFolder::FolderTablesViewRelease(ULONG_PTR ulCallerData, LPTABLEDATA pTblData,
                                                         LPMAPITABLE) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  CMAPIFolder* pFolder = dynamic_cast<CMAPIFolder*>(ObjectFromPointer(ulCallerData));
  if (pFolder == NULL) {
    ZT4_LOG(ZT4_LEVEL_DETAIL, "FolderTablesViewRelease: Invalid Folder Object");
    return;
  }
  LONG* plViews = NULL;
  if (pTblData != NULL && pTblData == pFolder->m_pHierTable) {
    ZT4_LOG(ZT4_LEVEL_INFO, "FolderTablesViewRelease: A hierarchy table view has been released");
    plViews = &pFolder->m_lHierViews;
  } else if (pTblData != NULL && pTblData == pFolder->m_pContTable) {
    ZT4_LOG(ZT4_LEVEL_INFO, "FolderTablesViewRelease: A contents table view has been released");
    plViews = &pFolder->m_lContViews;
  } else if (pTblData != NULL && pTblData == pFolder->m_pAsscContTable) {
    ZT4_LOG(ZT4_LEVEL_INFO, "FolderTablesViewRelease: An associated contents table view has been released");
    plViews = &pFolder->m_lAsscContViews;
  } else {
    ZT4_LOG(ZT4_LEVEL_INFO, "FolderTablesViewRelease: Called for an unknown table");
  }
  if (plViews) {
    ZT4_ASSERT(*plViews != 0);
    if (*plViews != 0) InterlockedDecrement(plViews);
  }
  // The view held one reference on the folder; a contents table stays until the folder goes.
  pFolder->Release();
}
