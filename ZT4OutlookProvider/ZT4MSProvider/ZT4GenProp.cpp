// Generic property object: reference count, lock and last error of every MAPI object of the
// store, the property behaviour they share over a back-end record, and the store's list of open
// objects.
#include "ZT4GenProp.h"

#include <mapicode.h>
#include <mapiguid.h>
#include <mapitags.h>
#include <mapiutil.h>

#include <cstring>
#include <new>

#include "MemHeap.h"
#include "ZT4Common.h"
#include "ZT4_TRACES.h"

// ---------------------------------------------------------------------------------------------
// Live objects: the registry behind StorePointer and ObjectFromPointer. A handle is a serial
// number, so a handle of a dead object can't name a new object that took its memory.

class CLiveObjects {
 public:
  static CLiveObjects& Instance() {
    // Trivially destructible, so objects that go after static destruction still find it.
    static CLiveObjects s_registry;
    return s_registry;
  }

  void Add(CGeneric* pObject) {
    // Lock order: the registry lock is innermost; nothing else is taken while it is held.
    EnterCriticalSection(&m_cs);
    pObject->m_ulHandle = ++m_ulLastHandle;
    pObject->m_pPrevLive = NULL;
    pObject->m_pNextLive = m_pHead;
    if (m_pHead) m_pHead->m_pPrevLive = pObject;
    m_pHead = pObject;
    LeaveCriticalSection(&m_cs);
  }

  void Remove(CGeneric* pObject) {
    // Lock order: the registry lock is innermost.
    EnterCriticalSection(&m_cs);
    if (pObject->m_pPrevLive)
      pObject->m_pPrevLive->m_pNextLive = pObject->m_pNextLive;
    else if (m_pHead == pObject)
      m_pHead = pObject->m_pNextLive;
    if (pObject->m_pNextLive) pObject->m_pNextLive->m_pPrevLive = pObject->m_pPrevLive;
    pObject->m_pPrevLive = pObject->m_pNextLive = NULL;
    LeaveCriticalSection(&m_cs);
  }

  static ULONG_PTR HandleOf(const CGeneric* pObject) { return pObject ? pObject->m_ulHandle : 0; }

  CGeneric* Find(ULONG_PTR ulHandle) {
    if (ulHandle == 0) return NULL;
    CGeneric* pFound = NULL;
    // Lock order: the registry lock is innermost.
    EnterCriticalSection(&m_cs);
    for (CGeneric* p = m_pHead; p; p = p->m_pNextLive) {
      if (p->m_ulHandle == ulHandle) {
        pFound = p;
        break;
      }
    }
    LeaveCriticalSection(&m_cs);
    return pFound;
  }

 private:
  CLiveObjects() : m_pHead(NULL), m_ulLastHandle(0) { InitializeCriticalSection(&m_cs); }

  CRITICAL_SECTION m_cs;
  CGeneric* m_pHead;
  ULONG_PTR m_ulLastHandle;
};

ULONG_PTR StorePointer(CGeneric* pObject) { return CLiveObjects::HandleOf(pObject); }

CGeneric* ObjectFromPointer(ULONG_PTR ulCallerData) { return CLiveObjects::Instance().Find(ulCallerData); }

// ---------------------------------------------------------------------------------------------
// Error texts

namespace {

// The codes whose texts are strings 8000 plus their index.
const HRESULT g_ErrorTable[] = {
    S_OK,
    E_FAIL,
    E_OUTOFMEMORY,
    E_INVALIDARG,
    E_NOINTERFACE,
    MAPI_E_NO_ACCESS,
    MAPI_E_BUSY,
    MAPI_E_NO_SUPPORT,
    MAPI_E_NOT_FOUND,
    MAPI_E_UNKNOWN_FLAGS,
    MAPI_E_VERSION,
    MAPI_E_INVALID_ENTRYID,
    MAPI_E_USER_CANCEL,
    MAPI_E_DISK_ERROR,
    MAPI_E_CORRUPT_DATA,
    MAPI_E_BAD_CHARWIDTH,
    MAPI_E_UNCONFIGURED,
    MAPI_E_COMPUTED,
    MAPI_E_DECLINE_COPY,
    MAPI_E_INVALID_OBJECT,
    MAPI_E_OBJECT_DELETED,
    static_cast<HRESULT>(0x80040600),  // corrupt store
    static_cast<HRESULT>(0x80040601),  // not in queue
    static_cast<HRESULT>(0x80040602),  // no suppress
    static_cast<HRESULT>(0x80040604),  // collision
    static_cast<HRESULT>(0x80040605),  // not initialized
    static_cast<HRESULT>(0x80040606),  // non standard
    static_cast<HRESULT>(0x80040607),  // no recipients
    static_cast<HRESULT>(0x80040608),  // submitted
    static_cast<HRESULT>(0x80040609),  // has folders
    static_cast<HRESULT>(0x8004060A),  // has messages
    static_cast<HRESULT>(0x8004060B),  // folder cycle
    MAPI_E_EXTENDED_ERROR,
    MAPI_E_NETWORK_ERROR,
    MAPI_E_LOGON_FAILED,
    MAPI_E_NOT_ENOUGH_RESOURCES,
    static_cast<HRESULT>(0x00040680),  // partial completion
    MAPI_W_ERRORS_RETURNED,
    static_cast<HRESULT>(0x800704D0),
    static_cast<HRESULT>(0x80070525),
    static_cast<HRESULT>(0x8007052B),
    static_cast<HRESULT>(0x80070056),
    static_cast<HRESULT>(0x8007089A),
    static_cast<HRESULT>(0x80070523),
    static_cast<HRESULT>(0x80070043),
    static_cast<HRESULT>(0x8007041E),
    static_cast<HRESULT>(0x8007045B),
    static_cast<HRESULT>(0x800704CD),
    static_cast<HRESULT>(0x800700B7),
    static_cast<HRESULT>(0x80049001),  // deletion failed
    static_cast<HRESULT>(0x80049002),  // soft delete refused
    static_cast<HRESULT>(0x80049003),  // deletion not enabled
};
static_assert(sizeof(g_ErrorTable) / sizeof(g_ErrorTable[0]) == 52, "the error table has 52 codes");

constexpr UINT ERROR_STRING_BASE = 8000;
constexpr UINT ERROR_STRING_UNKNOWN = 8100;
constexpr UINT ERROR_STRING_NO_DESCRIPTION = 7004;

// The text of hError: its string, the "no description" string, or the built-in fallback.
void LoadErrorText(HRESULT hError, LPWSTR pszText) {
  if (ZT4LoadString(GetErrorStringID(hError), pszText) && pszText[0]) return;
  if (ZT4LoadString(ERROR_STRING_NO_DESCRIPTION, pszText) && pszText[0]) return;
  lstrcpyW(pszText, WIDE("No description is available for this error."));
}

HRESULT CopyWideMore(LPCWSTR pszSource, LPVOID pMemBlock, LPWSTR* ppszCopy) {
  ULONG cch = static_cast<ULONG>(lstrlenW(pszSource)) + 1;
  LPVOID pv = NULL;
  HRESULT hResult = PrivMAPIAllocate(cch * sizeof(WCHAR), &pv, pMemBlock);
  if (FAILED(hResult)) return hResult;
  memcpy(pv, pszSource, cch * sizeof(WCHAR));
  *ppszCopy = static_cast<LPWSTR>(pv);
  return S_OK;
}

// The component comes narrow; the block holds it wide like the error text, read no further
// than its terminator.
HRESULT WidenMore(LPCSTR pszSource, LPVOID pMemBlock, LPWSTR* ppszCopy) {
  int cch = MultiByteToWideChar(CP_ACP, 0, pszSource, -1, NULL, 0);
  if (cch <= 0) return MAPI_E_INVALID_PARAMETER;
  LPVOID pv = NULL;
  HRESULT hResult = PrivMAPIAllocate(static_cast<ULONG>(cch) * sizeof(WCHAR), &pv, pMemBlock);
  if (FAILED(hResult)) return hResult;
  if (MultiByteToWideChar(CP_ACP, 0, pszSource, -1, static_cast<LPWSTR>(pv), cch) != cch) return E_FAIL;
  *ppszCopy = static_cast<LPWSTR>(pv);
  return S_OK;
}

}  // namespace

UINT GetErrorStringID(HRESULT hError) {
  const UINT cCodes = sizeof(g_ErrorTable) / sizeof(g_ErrorTable[0]);
  for (UINT i = 0; i < cCodes; ++i)
    if (g_ErrorTable[i] == hError) return ERROR_STRING_BASE + i;
  return ERROR_STRING_UNKNOWN;
}

// ---------------------------------------------------------------------------------------------
// CGeneric

CGeneric::CGeneric()
    : m_cRef(1), m_hLastError(0), m_ulErrorContext(0), m_ulHandle(0), m_pPrevLive(NULL), m_pNextLive(NULL) {
  InitializeCriticalSection(&m_csObj);
  CLiveObjects::Instance().Add(this);
}

CGeneric::~CGeneric() {
  CLiveObjects::Instance().Remove(this);
  DeleteCriticalSection(&m_csObj);
  m_hLastError = 0;
  m_ulErrorContext = 0;
}

ULONG CGeneric::GenericAddRef() {
  return static_cast<ULONG>(InterlockedIncrement(reinterpret_cast<LONG volatile*>(&m_cRef)));
}

ULONG CGeneric::GenericRelease() {
  ULONG cRef = static_cast<ULONG>(InterlockedDecrement(reinterpret_cast<LONG volatile*>(&m_cRef)));
  if (cRef == 0) delete this;
  return cRef;
}

void CGeneric::SetLastError(HRESULT hResult) {
  if (hResult == 0) return;
  // Lock order: object lock only.
  Lock();
  m_hLastError = hResult;
  m_ulErrorContext = ZT4_ERROR_CONTEXT;
  Unlock();
}

HRESULT CGeneric::GetLastError(HRESULT hError, LPMAPIERROR* ppMAPIError, HINSTANCE, LPCSTR pszComponent) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  LPMAPIERROR pError = NULL;
  try {
    ZT4_CHECK_NULL(ppMAPIError, MAPI_E_INVALID_PARAMETER);
    *ppMAPIError = NULL;
    WCHAR szText[ZT4_STRING_BUFFER];
    szText[0] = 0;
    LoadErrorText(hError, szText);
    ZT4_CHECK(PrivMAPIAllocate(sizeof(MAPIERROR), reinterpret_cast<LPVOID*>(&pError)));
    // The texts are wide whatever the caller asked: MAPI_UNICODE semantics, through LPTSTR.
    LPWSTR pszError = NULL;
    ZT4_CHECK(CopyWideMore(szText, pError, &pszError));
    pError->lpszError = reinterpret_cast<LPTSTR>(pszError);
    if (pszComponent) {
      LPWSTR pszWideComponent = NULL;
      ZT4_CHECK(WidenMore(pszComponent, pError, &pszWideComponent));
      pError->lpszComponent = reinterpret_cast<LPTSTR>(pszWideComponent);
    }
    *ppMAPIError = pError;
    pError = NULL;
  }
  ZT4_CATCH(hResult);
  if (pError) PrivMAPIFree(&pError);
  ZT4_LOG_FAILURE("CGeneric::GetLastError", hResult);
  return hResult;
}

// ---------------------------------------------------------------------------------------------
// CGenericProp: helpers

namespace {

// Whether the caller asked for write access, after MAPI_BEST_ACCESS is resolved.
constexpr ULONG OPEN_WRITE_ACCESS = OPENPROP_OPENED;
constexpr ULONG OPEN_READ_ACCESS = OPENPROP_SKIP;

HRESULT CreateListIfMissing(CPropList** ppList) {
  if (*ppList) return S_OK;
  *ppList = new (std::nothrow) CPropList();
  if (*ppList) return S_OK;
  ZT4_LOG(ZT4_LEVEL_DETAIL, "AddPropToList: Failed to create CPropList object");
  return E_OUTOFMEMORY;
}

void LogTagName(LPCSTR pszFormat, ULONG ulPropTag) {
  LPCSTR pszName = GetPropTagName(ulPropTag);
  if (pszName) {
    ZT4_LOG(ZT4_LEVEL_DETAIL, pszFormat, pszName);
  } else {
    CHAR szHex[16];
    wsprintfA(szHex, "0x%08X", static_cast<unsigned>(ulPropTag));
    ZT4_LOG(ZT4_LEVEL_DETAIL, pszFormat, szHex);
  }
}

LPCSTR InterfaceName(LPCIID pInterface) {
  if (!pInterface) return "Unknown.";
  if (IsEqualIID(*pInterface, IID_IStream)) return "IID_IStream";
  if (IsEqualIID(*pInterface, IID_IStorage)) return "IID_IStorage";
  if (IsEqualIID(*pInterface, IID_IMessage)) return "IID_IMessage";
  if (IsEqualIID(*pInterface, IID_IStreamDocfile)) return "IID_IStreamDocfile";
  return "Unknown.";
}

// The open-property kind of an interface, or the refusal.
HRESULT KindOfInterface(LPCIID pInterface, ULONG* pulKind) {
  if (!pInterface) {
    ZT4_LOG(ZT4_LEVEL_DETAIL, "CGenericProp::OpenProperty: Invalid interface");
    return E_INVALIDARG;
  }
  if (IsEqualIID(*pInterface, IID_IStream)) {
    *pulKind = OPENPROP_STREAM;
    return S_OK;
  }
  if (IsEqualIID(*pInterface, IID_IStorage)) {
    *pulKind = OPENPROP_STORAGE;
    return S_OK;
  }
  if (IsEqualIID(*pInterface, IID_IMessage)) return MAPI_E_NO_SUPPORT;
  ZT4_LOG(ZT4_LEVEL_DETAIL, "CGenericProp::OpenProperty: Unsupported interface requested");
  return E_NOINTERFACE;
}

ULONG ReferencesOf(LPUNKNOWN pUnk) {
  if (!pUnk) return 0;
  ULONG cRef = pUnk->AddRef();
  pUnk->Release();
  return cRef - 1;
}

// A fresh object to hand out: an empty memory stream or a private storage.
HRESULT CreateWorkingObject(ULONG ulKind, ULONG ulFlags, LPUNKNOWN* ppUnk) {
  if (ulKind == OPENPROP_STREAM) {
    LPSTREAM pStream = NULL;
    HRESULT hResult = CreateStreamOnHGlobal(NULL, TRUE, &pStream);
    if (FAILED(hResult)) {
      ZT4_LOG(ZT4_LEVEL_ERROR, "CGenericProp::OpenProperty: Failed to create memory stream:%x", hResult);
      return hResult;
    }
    *ppUnk = pStream;
    return S_OK;
  }
  CStorage* pStorage = NULL;
  HRESULT hResult = CreatePrivateIStorage(&pStorage, ulFlags & MAPI_MODIFY);
  if (SUCCEEDED(hResult)) *ppUnk = static_cast<IStorage*>(pStorage);
  return hResult;
}

// How one OpenProperty call goes, worked out from what the property list holds.
struct OPEN_PLAN {
  ULONG ulKind = 0;
  ULONG ulPropFlags = 0;      // kind plus read or write access
  BOOL fWrite = FALSE;
  BOOL fCreate = FALSE;
  BOOL fDirty = FALSE;        // no record holds the data yet
  BOOL fReplacePlain = FALSE; // the plain value gives way to a placeholder
  BOOL fReused = FALSE;       // the object comes from an earlier open
  BOOL fNeedStub = FALSE;     // the list has no placeholder for it yet
  DWORD dwNameID = 0;
};

void ReleaseAndClear(LPUNKNOWN* ppUnk) {
  if (*ppUnk) (*ppUnk)->Release();
  *ppUnk = NULL;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// CGenericProp

CGenericProp::CGenericProp(CBackEnd* pBEobj, const PRIVATE_EID* pParentEID, const PRIVATE_EID* pObjectEID,
                           CPropList* pList, BOOL fDeferredErrors, ULONG lAccess)
    : m_ulObjFlags(fDeferredErrors ? OBJFLAG_DEFERRED_ERRORS : 0),
      m_lAccess(lAccess),
      m_pBEobj(pBEobj),
      m_pList(pList),
      m_pOpenPropList(NULL),
      m_pNPList(NULL) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  ZT4_ASSERT(pBEobj != NULL);
  if (m_pBEobj) m_pBEobj->AddRef();
  if (pObjectEID)
    memcpy(&m_ObjectEID, pObjectEID, sizeof(m_ObjectEID));
  else
    memset(&m_ObjectEID, 0, sizeof(m_ObjectEID));
  if (pParentEID)
    memcpy(&m_ParentEID, pParentEID, sizeof(m_ParentEID));
  else
    memset(&m_ParentEID, 0, sizeof(m_ParentEID));
}

CGenericProp::~CGenericProp() {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  delete m_pOpenPropList;
  m_pOpenPropList = NULL;
  delete m_pList;
  m_pList = NULL;
  if (m_pBEobj) m_pBEobj->Release();
  m_pBEobj = NULL;
  m_lAccess = 0;
}

HRESULT CGenericProp::GetPropAccess(ULONG ulPropTag) {
  switch (ulPropTag) {
    case PR_CURRENT_VERSION:
    case PR_MESSAGE_SIZE:
    case PR_PARENT_ENTRYID:
    case PR_CREATION_VERSION:
    case PR_HASATTACH:
    case PR_BODY_CRC:
    case PR_ATTACH_SIZE:
    case PR_ATTACH_NUM:
    case PR_ACCESS:
    case PR_ROW_TYPE:
    case PR_INSTANCE_KEY:
    case PR_ACCESS_LEVEL:
    case PR_MAPPING_SIGNATURE:
    case PR_RECORD_KEY:
    case PR_STORE_RECORD_KEY:
    case PR_STORE_ENTRYID:
    case PR_OBJECT_TYPE:
    case PR_ENTRYID:
    case PR_ROWID:
    case PR_CREATION_TIME:
    case PR_LAST_MODIFICATION_TIME:
    case PR_SEARCH_KEY:
    case PR_STORE_SUPPORT_MASK:
    case PR_MDB_PROVIDER:
      LogTagName("WARNING: Trying to set a computed property: %s", ulPropTag);
      return MAPI_E_COMPUTED;
    case PR_MESSAGE_RECIPIENTS:
    case PR_MESSAGE_ATTACHMENTS:
    case PR_RECEIVE_FOLDER_SETTINGS:
    case PR_CONTAINER_HIERARCHY:
    case PR_CONTAINER_CONTENTS:
    case PR_FOLDER_ASSOCIATED_CONTENTS:
      LogTagName("WARNING: Trying to set PT_OBJECT property. %s", ulPropTag);
      return E_INVALIDARG;
    default:
      return S_OK;
  }
}

// A value that lives in a record of its own is about to leave the list: the open list lets go
// of it, so the save neither writes it back nor keeps its record.
static void DropLargeValue(CGenericProp* pObj, ULONG ulPropTag) {
  if (!pObj->m_pList) return;
  SPropValue spvStub;
  memset(&spvStub, 0, sizeof(spvStub));
  if (pObj->m_pList->Find(ulPropTag, &spvStub) != S_OK || PROP_TYPE(spvStub.ulPropTag) != PT_LARGE_STUB) return;
  if (pObj->m_pOpenPropList && pObj->m_pOpenPropList->FindNode(ulPropTag)) {
    pObj->m_pOpenPropList->Remove(ulPropTag);
    return;
  }
  ULONG ulKind = 0;
  DWORD dwRecordID = 0;
  GetLargeStubInfo(&spvStub, NULL, &ulKind, &dwRecordID);
  if (!dwRecordID) return;
  if (!pObj->m_pOpenPropList) pObj->m_pOpenPropList = new (std::nothrow) COpenPropList();
  // A node without an object, marked deleted: the next save releases the record.
  if (!pObj->m_pOpenPropList ||
      FAILED(pObj->m_pOpenPropList->Add(NULL, ulKind | OPENPROP_OPENED | OPENPROP_DELETED, dwRecordID,
                                        spvStub.ulPropTag)))
    ZT4_LOG(ZT4_LEVEL_ERROR, "CGenericProp: record %u of a removed property stays allocated", dwRecordID);
}

HRESULT CGenericProp::AddPropToList(LPSPropValue pProp, BOOL fForce) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  if (!pProp) return MAPI_E_INVALID_PARAMETER;
  // Lock order: object lock only.
  Lock();
  HRESULT hResult = CreateListIfMissing(&m_pList);
  if (SUCCEEDED(hResult)) {
    hResult = GetPropAccess(pProp->ulPropTag);
    if (FAILED(hResult) && fForce) hResult = S_OK;  // the system writes its own computed values
  }
  if (SUCCEEDED(hResult)) {
    if (PROP_TYPE(pProp->ulPropTag) != PT_LARGE_STUB) DropLargeValue(this, pProp->ulPropTag);
    hResult = m_pList->Insert(pProp);
  }
  Unlock();
  return hResult;
}

HRESULT CGenericProp::AddTagToProbArray(ULONG cNumberOfTags, LPSPropProblemArray* ppProbArray, ULONG ulIndex,
                                        ULONG ulPropTag, HRESULT hTagError) {
  if (!ppProbArray) return E_INVALIDARG;
  if (!*ppProbArray) {
    LPVOID pv = NULL;
    HRESULT hResult = PrivMAPIAllocate(static_cast<ULONG>(CbNewSPropProblemArray(cNumberOfTags)), &pv);
    if (FAILED(hResult)) return hResult;
    *ppProbArray = static_cast<LPSPropProblemArray>(pv);
    (*ppProbArray)->cProblem = 0;
  }
  LPSPropProblemArray pProblems = *ppProbArray;
  // The array has room for one problem per tag of the call.
  if (pProblems->cProblem >= cNumberOfTags) return MAPI_E_INVALID_PARAMETER;
  SPropProblem& problem = pProblems->aProblem[pProblems->cProblem++];
  problem.ulIndex = ulIndex;
  problem.ulPropTag = ulPropTag;
  problem.scode = hTagError;
  return S_OK;
}

HRESULT CGenericProp::CombineTags(LPSPropTagArray pObjectTags, LPSPropTagArray pListTags,
                                  LPSPropTagArray* ppAllTags, BOOL fUseMAPIAlloc) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  if (!ppAllTags) return MAPI_E_INVALID_PARAMETER;
  *ppAllTags = NULL;
  ULONG cObject = pObjectTags ? pObjectTags->cValues : 0;
  ULONG cList = pListTags ? pListTags->cValues : 0;
  ULONG cb = (cObject + cList) * sizeof(ULONG) + sizeof(ULONG);
  LPVOID pv = NULL;
  HRESULT hResult = fUseMAPIAlloc ? PrivMAPIAllocate(cb, &pv) : PrivAllocate(cb, &pv, "Combine Tags");
  if (FAILED(hResult)) {
    ZT4_LOG(ZT4_LEVEL_ERROR, "CombineTags: Failed to allocate memory for the tags:%x", hResult);
    return hResult;
  }
  LPSPropTagArray pAll = static_cast<LPSPropTagArray>(pv);
  if (cObject) memcpy(pAll->aulPropTag, pObjectTags->aulPropTag, cObject * sizeof(ULONG));
  pAll->cValues = cObject;
  for (ULONG i = 0; i < cList; ++i) {
    ULONG ulTag = pListTags->aulPropTag[i];
    BOOL fPresent = FALSE;
    for (ULONG j = 0; j < pAll->cValues && !fPresent; ++j) fPresent = pAll->aulPropTag[j] == ulTag;
    if (!fPresent) pAll->aulPropTag[pAll->cValues++] = ulTag;
  }
  *ppAllTags = pAll;
  return S_OK;
}

HRESULT CGenericProp::DeleteProps(LPSPropTagArray pPropTags, LPSPropProblemArray* ppProblems) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  if (ppProblems) *ppProblems = NULL;
  if (!IsWritable()) {
    ZT4_LOG(ZT4_LEVEL_DETAIL, "CGenericProp::DeleteProps: Cannot delete properties in a READ only object");
    SetLastError(MAPI_E_NO_ACCESS);
    return MAPI_E_NO_ACCESS;
  }
  if (!pPropTags) return MAPI_E_INVALID_PARAMETER;
  // Lock order: object lock only.
  Lock();
  ZT4_LOG(ZT4_LEVEL_TAGS, "Properties to delete...");
  for (ULONG i = 0; i < pPropTags->cValues; ++i) DumpPropTag(pPropTags->aulPropTag[i]);
  for (ULONG i = 0; i < pPropTags->cValues; ++i) {
    ULONG ulPropTag = pPropTags->aulPropTag[i];
    if (ulPropTag == PR_NULL) continue;
    HRESULT hTag = GetPropAccess(ulPropTag);
    if (hTag == S_OK && m_pList) {
      DropLargeValue(this, ulPropTag);
      hTag = m_pList->Delete(ulPropTag);
    }
    // A problem for a tag is reported in the array; the call itself succeeds.
    if (FAILED(hTag) && ppProblems) AddTagToProbArray(pPropTags->cValues, ppProblems, i, ulPropTag, hTag);
  }
  Unlock();
  return S_OK;
}

HRESULT CGenericProp::GetPropList(LPSPropTagArray pObjectTags, LPSPropTagArray* ppAllTags) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  LPSPropTagArray pListTags = NULL;
  // Lock order: object lock only.
  Lock();
  try {
    ZT4_CHECK_NULL(ppAllTags, MAPI_E_INVALID_PARAMETER);
    *ppAllTags = NULL;
    if (m_pList) ZT4_CHECK(m_pList->GetTags(&pListTags));
    ZT4_CHECK(CombineTags(pObjectTags, pListTags, ppAllTags, TRUE));
    // Placeholders show their true type.
    LPSPropTagArray pAll = *ppAllTags;
    for (ULONG i = 0; i < pAll->cValues; ++i) {
      if (PROP_TYPE(pAll->aulPropTag[i]) != PT_LARGE_STUB || !m_pList) continue;
      SPropValue spvStub;
      if (m_pList->Find(pAll->aulPropTag[i], &spvStub, TRUE) != S_OK) continue;
      ULONG ulType = 0;
      GetLargeStubInfo(&spvStub, &ulType, NULL, NULL);
      pAll->aulPropTag[i] = CHANGE_PROP_TYPE(pAll->aulPropTag[i], ulType);
    }
  }
  ZT4_CATCH(hResult);
  Unlock();
  if (pListTags) PrivMAPIFree(&pListTags);
  if (FAILED(hResult)) ZT4_LOG(ZT4_LEVEL_ERROR, "GetPropList:%x", hResult);
  return hResult;
}

HRESULT CGenericProp::GetProps(LPSPropTagArray pPropTagArray, ULONG* pcValues, LPSPropValue* ppPropArray,
                               LPSPropTagArray pObjectTags) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  LPSPropTagArray pListTags = NULL;
  LPSPropTagArray pAllTags = NULL;
  // Lock order: object lock only.
  Lock();
  try {
    ZT4_CHECK_NULL(pcValues, MAPI_E_INVALID_PARAMETER);
    ZT4_CHECK_NULL(ppPropArray, MAPI_E_INVALID_PARAMETER);
    *pcValues = 0;
    *ppPropArray = NULL;
    BOOL fAll = pPropTagArray == NULL;
    if (m_pList) ZT4_CHECK(m_pList->GetTags(&pListTags));
    ZT4_CHECK(CombineTags(pObjectTags, pListTags, &pAllTags, FALSE));
    PrivMAPIFree(&pListTags);
    ULONG cValues = fAll ? pAllTags->cValues : pPropTagArray->cValues;
    LPVOID pv = NULL;
    ZT4_CHECK(PrivMAPIAllocate((cValues ? cValues : 1) * static_cast<ULONG>(sizeof(SPropValue)), &pv));
    LPSPropValue pValues = static_cast<LPSPropValue>(pv);
    for (ULONG i = 0; i < cValues; ++i) {
      if (fAll) {
        pValues[i].ulPropTag = pAllTags->aulPropTag[i];
        continue;
      }
      ULONG ulAsked = pPropTagArray->aulPropTag[i];
      pValues[i].ulPropTag = ulAsked;
      // Only an unspecified type takes the stored one; any other asked type stays.
      if (PROP_TYPE(ulAsked) != PT_UNSPECIFIED) continue;
      for (ULONG j = 0; j < pAllTags->cValues; ++j) {
        if (PROP_ID(pAllTags->aulPropTag[j]) != PROP_ID(ulAsked)) continue;
        pValues[i].ulPropTag = pAllTags->aulPropTag[j];
        break;
      }
    }
    *ppPropArray = pValues;
    *pcValues = cValues;
  }
  ZT4_CATCH(hResult);
  Unlock();
  if (pListTags) PrivMAPIFree(&pListTags);
  if (pAllTags) PrivFree(&pAllTags);
  return hResult;
}

HRESULT CGenericProp::GetProps(LPSPropValue pProp, LPVOID pMemBlock) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  if (!pProp) return MAPI_E_INVALID_PARAMETER;
  // Lock order: object lock, then the back end's.
  Lock();
  HRESULT hResult = MAPI_E_NOT_FOUND;
  if (m_pList) {
    hResult = m_pList->Find(pProp->ulPropTag, pProp, FALSE, pMemBlock);
  } else {
    pProp->ulPropTag = CHANGE_PROP_TYPE(pProp->ulPropTag, PT_ERROR);
    pProp->Value.err = MAPI_E_NOT_FOUND;
  }
  if (hResult == S_OK && PROP_TYPE(pProp->ulPropTag) == PT_LARGE_STUB) {
    ULONG ulType = 0, ulKind = 0;
    GetLargeStubInfo(pProp, &ulType, &ulKind, NULL);
    ULONG ulTrueTag = CHANGE_PROP_TYPE(pProp->ulPropTag, ulType);
    if (ulKind != OPENPROP_STREAM) {
      hResult = MAPI_E_NOT_ENOUGH_MEMORY;  // a storage has no inline form
    } else {
      // An open stream may hold changes not saved yet.
      hResult = MAPI_E_NOT_FOUND;
      if (m_pOpenPropList) hResult = m_pOpenPropList->Find(pProp->ulPropTag, pProp, pMemBlock, MAX_GETPROP_SIZE);
      pProp->ulPropTag = ulTrueTag;
      if (hResult == MAPI_E_NOT_FOUND) hResult = m_pBEobj->OpenPropertyInMemory(MAX_GETPROP_SIZE, pMemBlock, pProp);
    }
    if (FAILED(hResult)) {
      pProp->ulPropTag = CHANGE_PROP_TYPE(ulTrueTag, PT_ERROR);
      pProp->Value.err = hResult;
    }
  }
  Unlock();
  return hResult;
}

HRESULT CGenericProp::GetProps(HRESULT hRes, ULONG cbSize, LPCVOID pSrc, LPSPropValue pProp, LPVOID pMemBlock) {
  if (!pProp) return MAPI_E_INVALID_PARAMETER;
  HRESULT hResult = hRes;
  ULONG ulType = PROP_TYPE(pProp->ulPropTag);
  BOOL fScalar = ulType == PT_I2 || ulType == PT_LONG || ulType == PT_R4 || ulType == PT_DOUBLE ||
                 ulType == PT_CURRENCY || ulType == PT_APPTIME || ulType == PT_BOOLEAN || ulType == PT_I8 ||
                 ulType == PT_SYSTIME;
  if (pSrc && hRes >= 0 && fScalar) {
    // A number lives in the value itself.
    memcpy(&pProp->Value, pSrc, cbSize < 8 ? cbSize : 8);
  } else if (pSrc && hRes >= 0) {
    ULONG cb = ulType == PT_STRING8 ? static_cast<ULONG>(strlen(static_cast<LPCSTR>(pSrc))) + 1 : cbSize;
    LPVOID pv = NULL;
    hResult = PrivMAPIAllocate(cb ? cb : 1, &pv, pMemBlock);
    if (SUCCEEDED(hResult)) {
      if (cb) memcpy(pv, pSrc, cb);
      if (ulType == PT_BINARY) {
        pProp->Value.bin.cb = cb;
        pProp->Value.bin.lpb = static_cast<LPBYTE>(pv);
      } else {
        pProp->Value.lpszA = static_cast<LPSTR>(pv);
      }
      hResult = hRes;
    }
  }
  if (FAILED(hResult)) {
    pProp->ulPropTag = CHANGE_PROP_TYPE(pProp->ulPropTag, PT_ERROR);
    pProp->Value.err = hResult;
  }
  return hResult;
}

// Works out, under the object lock, where the opened object's data comes from (steps with
// MAPI_CREATE and without), and puts it in *ppUnk: an earlier open's object, the back end's, or
// a fresh one filled from a plain value.
static HRESULT PlanOpen(CGenericProp* pObj, ULONG ulPropTag, ULONG ulFlags, HRESULT hFind, const SPropValue& spvProp,
                        OPEN_PLAN& plan, LPUNKNOWN* ppUnk) {
  BOOL fFound = hFind == S_OK;
  BOOL fStub = fFound && PROP_TYPE(spvProp.ulPropTag) == PT_LARGE_STUB;
  ULONG ulStubType = 0, ulStubKind = 0;
  if (fStub) GetLargeStubInfo(&spvProp, &ulStubType, &ulStubKind, &plan.dwNameID);
  LPOPENPROPNODE pNode = fStub && pObj->m_pOpenPropList ? pObj->m_pOpenPropList->FindNode(ulPropTag) : NULL;

  if (plan.fCreate) {
    if (fStub && pNode) {
      // The earlier open's object gives way to the new, empty one, unless a client holds it.
      if (ReferencesOf(pNode->iface.pUnk) > 1) return MAPI_E_NO_ACCESS;
      pNode->ulFlags |= OPENPROP_NEW;  // its record passes to the new open, not to deletion
      pObj->m_pOpenPropList->RemoveNode(pNode);
    }
    plan.fReplacePlain = fFound && !fStub;
    plan.fNeedStub = !fFound;
    plan.fDirty = !fStub || plan.dwNameID == 0;
    return CreateWorkingObject(plan.ulKind, ulFlags, ppUnk);
  }

  if (!fFound) return MAPI_E_NOT_FOUND;
  if (!fStub) {
    if (plan.ulKind == OPENPROP_STORAGE) return E_INVALIDARG;
    if (plan.fWrite) {
      plan.fDirty = TRUE;
      plan.fReplacePlain = TRUE;
      plan.dwNameID = 0;
    }
    HRESULT hResult = CreateWorkingObject(plan.ulKind, ulFlags, ppUnk);
    if (SUCCEEDED(hResult)) hResult = pObj->m_pList->CopyToStream(ulPropTag, static_cast<LPSTREAM>(*ppUnk));
    return hResult;
  }
  if (ulStubType != PROP_TYPE(ulPropTag)) return MAPI_E_NOT_FOUND;
  if (ulStubKind != OPENPROP_STREAM && ulStubKind != OPENPROP_STORAGE) return E_NOINTERFACE;
  // A stream's data can't be handed out as a storage or the other way round.
  if (ulStubKind != plan.ulKind) return E_NOINTERFACE;
  if (pNode) {
    ZT4_ASSERT(pNode->ulFlags & OPENPROP_NEW);
    if (ReferencesOf(pNode->iface.pUnk) > 1) return MAPI_E_NO_ACCESS;
    if (plan.ulKind == OPENPROP_STREAM) {
      LARGE_INTEGER liZero = {};
      pNode->iface.pStream->Seek(liZero, STREAM_SEEK_SET, NULL);
    }
    *ppUnk = pNode->iface.pUnk;
    (*ppUnk)->AddRef();
    plan.fReused = TRUE;
    plan.fDirty = (pNode->ulFlags & OPENPROP_NEW) != 0;
    return S_OK;
  }
  SPropValue spvStub = spvProp;
  return pObj->m_pBEobj->OpenProperty(&spvStub, ppUnk);
}

HRESULT CGenericProp::OpenProperty(ULONG ulPropTag, LPCIID pInterface, ULONG ulFlags, LPUNKNOWN* ppUnk) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  LPUNKNOWN pUnk = NULL;  // one reference of this call's own
  BOOL fLocked = FALSE;
  try {
    ZT4_CHECK_NULL(ppUnk, MAPI_E_INVALID_PARAMETER);
    *ppUnk = NULL;
    if (!IsWritable() && (ulFlags & (MAPI_MODIFY | MAPI_CREATE))) {
      ZT4_LOG(ZT4_LEVEL_DETAIL,
              "CGenericProp::OpenProperty: Cannot open properties with WRITE access in a READ only object");
      throw static_cast<HRESULT>(MAPI_E_NO_ACCESS);
    }
    LPCSTR pszTag = GetPropTagName(ulPropTag);
    ZT4_LOG(ZT4_LEVEL_INFO, "CGenericProp::OpenProperty: %s (0x%08X), %s", pszTag ? pszTag : "", ulPropTag,
            InterfaceName(pInterface));
    if ((ulFlags & MAPI_BEST_ACCESS) && IsWritable()) ulFlags |= MAPI_MODIFY;
    if ((ulFlags & MAPI_CREATE) && !(ulFlags & MAPI_MODIFY)) {
      ZT4_LOG(ZT4_LEVEL_DETAIL, "CGenericProp::OpenProperty: MAPI_CREATE without MAPI_MODIFY is not allowed");
      throw static_cast<HRESULT>(E_INVALIDARG);
    }
    OPEN_PLAN plan;
    ZT4_CHECK(KindOfInterface(pInterface, &plan.ulKind));
    plan.fWrite = (ulFlags & MAPI_MODIFY) != 0;
    plan.fCreate = (ulFlags & MAPI_CREATE) != 0;
    plan.ulPropFlags = plan.ulKind | (plan.fWrite ? OPEN_WRITE_ACCESS : OPEN_READ_ACCESS);

    // Lock order: object lock, then the back end's.
    Lock();
    fLocked = TRUE;
    if (!m_pOpenPropList) m_pOpenPropList = new (std::nothrow) COpenPropList();
    ZT4_CHECK_NULL(m_pOpenPropList, E_OUTOFMEMORY);
    if (plan.fWrite) ZT4_CHECK(CreateListIfMissing(&m_pList));
    SPropValue spvProp;
    memset(&spvProp, 0, sizeof(spvProp));
    HRESULT hFind = m_pList ? m_pList->Find(ulPropTag, &spvProp, FALSE, NULL) : MAPI_E_NOT_FOUND;
    ZT4_CHECK(PlanOpen(this, ulPropTag, ulFlags, hFind, spvProp, plan, &pUnk));

    if (plan.fWrite && !plan.fReused) {
      if (plan.ulKind == OPENPROP_STREAM) {
        CPropStream* pPrivStream = new (std::nothrow) CPropStream(static_cast<LPSTREAM>(pUnk), ulFlags & MAPI_MODIFY);
        ZT4_CHECK_NULL(pPrivStream, E_OUTOFMEMORY);
        pUnk->Release();
        pUnk = static_cast<IStream*>(pPrivStream);
      }
      ULONG ulNodeFlags = plan.ulPropFlags | (plan.fDirty ? OPENPROP_NEW : 0);
      ZT4_CHECK(m_pOpenPropList->Insert(pUnk, ulNodeFlags, plan.dwNameID, ulPropTag));
      pUnk->AddRef();  // the list took the first reference
      if (plan.fReplacePlain || plan.fNeedStub) {
        // The placeholder takes the plain value's place; the open's node is new, so it can go
        // again entirely if that fails.
        SPropValue spvStub;
        MakeLargeStub(ulPropTag, plan.ulPropFlags & OPENPROP_KIND_MASK, plan.dwNameID, &spvStub);
        hResult = m_pList->Insert(&spvStub);
        if (FAILED(hResult)) {
          m_pOpenPropList->RemoveNode(m_pOpenPropList->FindNode(ulPropTag));
          ZT4_CHECK(hResult);
        }
      }
      if (plan.fDirty) m_ulObjFlags |= OBJFLAG_MODIFIED;
    }
    *ppUnk = pUnk;
    pUnk = NULL;
    hResult = S_OK;
  }
  ZT4_CATCH(hResult);
  if (fLocked) Unlock();
  ReleaseAndClear(&pUnk);
  ZT4_LOG_FAILURE("CGenericProp::OpenProperty", hResult);
  return hResult;
}

HRESULT CGenericProp::SaveChanges(ULONG ulFlags, LPTABLEDATA pTable) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  if (!IsWritable()) return MAPI_E_NO_ACCESS;
  HRESULT hResult = S_OK;
  // Lock order: object lock, then the back end's.
  Lock();
  try {
    ZT4_CHECK(CreateListIfMissing(&m_pList));
    ZT4_CHECK(m_pList->PullInSmallStreams(m_pOpenPropList));
    SPropValue spvTime;
    memset(&spvTime, 0, sizeof(spvTime));
    spvTime.ulPropTag = PR_LAST_MODIFICATION_TIME;
    GetSystemTimeAsFileTime(&spvTime.Value.ft);
    ZT4_CHECK(m_pList->Insert(&spvTime));
    ZT4_CHECK(m_pBEobj->SaveObject(m_ParentEID, m_ObjectEID, m_pList, m_pOpenPropList, pTable));
    // What no client holds any more goes; the rest stays open for the next round.
    if (m_pOpenPropList) m_pOpenPropList->Clear(FALSE);
    m_ulObjFlags &= ~OBJFLAG_MODIFIED;
    if (ulFlags & KEEP_OPEN_READWRITE) {
      // stays writable
    } else if (ulFlags & KEEP_OPEN_READONLY) {
      m_lAccess = MAPI_ACCESS_READ;
    } else {
      m_lAccess = 0;  // closed for all but release
    }
  }
  ZT4_CATCH(hResult);
  Unlock();
  ZT4_LOG_FAILURE("CGenericProp::SaveChanges", hResult);
  return hResult;
}

HRESULT CGenericProp::GetIDsFromNames(ULONG cPropNames, LPMAPINAMEID* ppPropNames, ULONG ulFlags,
                                      LPSPropTagArray* ppPropTags, LPSPropTagArray, LPSTREAM pStream) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  LPSPropTagArray pTags = NULL;
  // Lock order: object lock, then the name map's.
  Lock();
  try {
    ZT4_CHECK_NULL(ppPropTags, MAPI_E_INVALID_PARAMETER);
    *ppPropTags = NULL;
    if ((ulFlags & MAPI_CREATE) && !IsWritable()) throw static_cast<HRESULT>(MAPI_E_NO_ACCESS);
    if (cPropNames) ZT4_CHECK_NULL(ppPropNames, MAPI_E_INVALID_PARAMETER);
    ZT4_CHECK(PrivMAPIAllocate(static_cast<ULONG>(CbNewSPropTagArray(cPropNames)), reinterpret_cast<LPVOID*>(&pTags)));
    // No names asks for all of them; this store gives none then.
    pTags->cValues = cPropNames;
    BOOL fPartial = FALSE;
    for (ULONG i = 0; i < cPropNames; ++i) {
      LPMAPINAMEID pName = ppPropNames[i];
      BOOL fRefused = !pName || !pName->lpguid ||
                      (IsEqualGUID(*pName->lpguid, PS_MAPI) && pName->ulKind != MNID_ID) ||
                      (IsEqualGUID(*pName->lpguid, PS_PUBLIC_STRINGS) && pName->ulKind != MNID_STRING);
      ULONG ulNewID = 0;
      if (!fRefused) {
        ZT4_CHECK_NULL(m_pNPList, MAPI_E_NO_SUPPORT);
        BOOL fString = pName->ulKind == MNID_STRING;
        fRefused = FAILED(m_pNPList->GetIDForName(pName->lpguid, fString ? pName->Kind.lpwstrName : NULL,
                                                  fString ? 0 : pName->Kind.lID, pName->ulKind, &ulNewID,
                                                  (ulFlags & MAPI_CREATE) != 0));
      }
      pTags->aulPropTag[i] = fRefused ? PT_ERROR : PROP_TAG(PT_UNSPECIFIED, ulNewID);
      fPartial = fPartial || fRefused;
    }
    if (pStream && m_pNPList && m_pNPList->IsDirty()) ZT4_CHECK(m_pNPList->SaveMappingToStream(pStream));
    hResult = fPartial ? MAPI_W_ERRORS_RETURNED : S_OK;
    *ppPropTags = pTags;
    pTags = NULL;
  }
  ZT4_CATCH(hResult);
  Unlock();
  if (pTags) PrivMAPIFree(&pTags);
  ZT4_LOG_FAILURE("CGenericProp::GetIDsFromNames", hResult);
  return hResult;
}

HRESULT CGenericProp::GetNamesFromIDs(LPSPropTagArray* ppPropTags, LPGUID pPropSetGuid, ULONG ulFlags,
                                      ULONG* pcPropNames, LPMAPINAMEID** pppPropNames, LPSPropTagArray pTags) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  LPMAPINAMEID* pNames = NULL;
  // Lock order: object lock, then the name map's.
  Lock();
  try {
    ZT4_CHECK_NULL(ppPropTags, MAPI_E_INVALID_PARAMETER);
    ZT4_CHECK_NULL(pcPropNames, MAPI_E_INVALID_PARAMETER);
    ZT4_CHECK_NULL(pppPropNames, MAPI_E_INVALID_PARAMETER);
    *pcPropNames = 0;
    *pppPropNames = NULL;
    ZT4_CHECK_NULL(m_pNPList, MAPI_E_NO_SUPPORT);
    if (*ppPropTags) {
      LPSPropTagArray pAsked = *ppPropTags;
      ULONG cTags = pAsked->cValues;
      ZT4_CHECK(PrivMAPIAllocate((cTags ? cTags : 1) * static_cast<ULONG>(sizeof(LPMAPINAMEID)),
                                 reinterpret_cast<LPVOID*>(&pNames)));
      BOOL fPartial = FALSE;
      for (ULONG i = 0; i < cTags; ++i) {
        if (FAILED(m_pNPList->GetNameFromID(pAsked->aulPropTag[i], pNames, &pNames[i]))) {
          pNames[i] = NULL;
          fPartial = TRUE;
        }
      }
      *pppPropNames = pNames;
      pNames = NULL;
      *pcPropNames = cTags;
      hResult = fPartial ? MAPI_W_ERRORS_RETURNED : S_OK;
    } else if (pPropSetGuid && IsEqualGUID(*pPropSetGuid, PS_MAPI)) {
      hResult = m_pNPList->GetMAPINamedPropsAndTags(pTags, ppPropTags, pppPropNames, pcPropNames);
    } else {
      hResult = m_pNPList->GetAllNamesAndTags(ppPropTags, pppPropNames, ulFlags, pcPropNames);
    }
  }
  ZT4_CATCH(hResult);
  Unlock();
  if (pNames) PrivMAPIFree(&pNames);
  if (FAILED(hResult) && pcPropNames && pppPropNames) {
    if (*pppPropNames) PrivMAPIFree(pppPropNames);
    *pcPropNames = 0;
  }
  ZT4_LOG_FAILURE("CGenericProp::GetNamesFromIDs", hResult);
  return hResult;
}

// ---------------------------------------------------------------------------------------------
// COpenObjectList

COpenObjectList::COpenObjectList() : m_pHead(NULL) { InitializeCriticalSection(&m_cs); }

COpenObjectList::~COpenObjectList() {
  while (m_pHead) {
    OPEN_OBJECTS* pNext = m_pHead->pNext;
    PrivFree(&m_pHead);
    m_pHead = pNext;
  }
  DeleteCriticalSection(&m_cs);
}

HRESULT COpenObjectList::Insert(CGenericProp* pObject, const PRIVATE_EID* pEID) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  if (!pObject || !pEID) return MAPI_E_INVALID_PARAMETER;
  OPEN_OBJECTS* pNew = NULL;
  HRESULT hResult = PrivAllocate(sizeof(OPEN_OBJECTS), reinterpret_cast<LPVOID*>(&pNew), "OPEN Object List Node");
  if (FAILED(hResult)) return E_OUTOFMEMORY;
  pNew->pEID = pEID;
  pNew->pObject = pObject;
  // Lock order: the list lock may be taken inside an object lock, never the other way round.
  EnterCriticalSection(&m_cs);
  OPEN_OBJECTS** ppLink = &m_pHead;
  while (*ppLink) ppLink = &(*ppLink)->pNext;
  *ppLink = pNew;
  LeaveCriticalSection(&m_cs);
  return S_OK;
}

HRESULT COpenObjectList::Delete(CGenericProp* pObject, const PRIVATE_EID* pEID) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  OPEN_OBJECTS* pFound = NULL;
  // Lock order: the list lock may be taken inside an object lock, never the other way round.
  EnterCriticalSection(&m_cs);
  for (OPEN_OBJECTS** ppLink = &m_pHead; *ppLink; ppLink = &(*ppLink)->pNext) {
    if ((*ppLink)->pEID != pEID || (*ppLink)->pObject != pObject) continue;
    pFound = *ppLink;
    *ppLink = pFound->pNext;
    break;
  }
  LeaveCriticalSection(&m_cs);
  if (!pFound) return MAPI_E_NOT_FOUND;
  // The node names the entry ID by pointer: it must still hold what the object was listed under.
  ZT4_ASSERT(pEID == NULL || (pFound->pEID->bObjType == pEID->bObjType && pFound->pEID->dwObjID == pEID->dwObjID));
  PrivFree(&pFound);
  return S_OK;
}

CGenericProp* COpenObjectList::Walk(const PRIVATE_EID* pEID, ULONG ulWalkType, CGenericProp* pPrevObject) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  if (!pEID || ulWalkType > 1 || (ulWalkType == 1 && !pPrevObject)) return NULL;
  ZT4_ASSERT(ulWalkType == 1 || pPrevObject == NULL);
  CGenericProp* pFound = NULL;
  // Lock order: the list lock may be taken inside an object lock; the reference added under it
  // is interlocked and takes no object lock.
  EnterCriticalSection(&m_cs);
  OPEN_OBJECTS* pNode = m_pHead;
  if (ulWalkType == 1) {
    while (pNode && pNode->pObject != pPrevObject) pNode = pNode->pNext;
    if (pNode) pNode = pNode->pNext;
  }
  for (; pNode; pNode = pNode->pNext) {
    if (pNode->pEID->bObjType != pEID->bObjType || pNode->pEID->dwObjID != pEID->dwObjID) continue;
    pFound = pNode->pObject;
    pFound->GenericAddRef();
    break;
  }
  LeaveCriticalSection(&m_cs);
  return pFound;
}

CGenericProp* COpenObjectList::Walk(BYTE bObjType, DWORD dwObjID, ULONG ulWalkType, CGenericProp* pPrevObject) {
  PRIVATE_EID eid;
  memset(&eid, 0, sizeof(eid));
  eid.bObjType = bObjType;
  eid.dwObjID = dwObjID;
  return Walk(&eid, ulWalkType, pPrevObject);
}
