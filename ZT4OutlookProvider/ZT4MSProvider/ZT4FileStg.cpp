// The back end over the record file: objects saved and loaded as records, large properties as
// records of their own, recipients, and the receive-folder settings.
#include "ZT4FileStg.h"

#include <mapicode.h>
#include <mapitags.h>

#include <oleauto.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "MemHeap.h"
#include "ZT4AccountHelper.h"
#include "ZT4Common.h"
#include "ZT4GenProp.h"
#include "ZT4Globals.h"
#include "ZT4MSProvider.h"
#include "ZT4_TRACES.h"

namespace {

// Holds the back end's critical section for one public operation. Lock order: back-end critical
// section, then the CDataBase lock (taken inside the record file's own calls).
class CBackEndLock {
 public:
  explicit CBackEndLock(CRITICAL_SECTION& cs) : m_cs(cs) { EnterCriticalSection(&m_cs); }
  ~CBackEndLock() { LeaveCriticalSection(&m_cs); }
  CBackEndLock(const CBackEndLock&) = delete;
  CBackEndLock& operator=(const CBackEndLock&) = delete;

 private:
  CRITICAL_SECTION& m_cs;
};

// One reference on a COM object, given back on scope exit. Releasing a record stream commits it.
template <class T> class CComHolder {
 public:
  CComHolder() = default;
  ~CComHolder() { Reset(); }
  CComHolder(const CComHolder&) = delete;
  CComHolder& operator=(const CComHolder&) = delete;

  T* Get() const { return m_p; }
  T* operator->() const { return m_p; }
  T** Out() {
    Reset();
    return &m_p;
  }
  T* Detach() {
    T* p = m_p;
    m_p = NULL;
    return p;
  }
  void Reset() {
    if (m_p) m_p->Release();
    m_p = NULL;
  }

 private:
  T* m_p = NULL;
};
typedef CComHolder<IStream> CStreamHolder;

void FreeMAPIBlock(LPVOID pv) {
  if (!pv) return;
  LPFREEBUFFER pfnFree = GetMAPIFreeBuffer();
  (pfnFree ? pfnFree : MAPIFreeBuffer)(pv);
}

// A block from the MAPI allocator, freed on scope exit.
template <class T> class CMAPIBlock {
 public:
  CMAPIBlock() = default;
  ~CMAPIBlock() { FreeMAPIBlock(m_p); }
  CMAPIBlock(const CMAPIBlock&) = delete;
  CMAPIBlock& operator=(const CMAPIBlock&) = delete;
  T* Get() const { return m_p; }
  T* operator->() const { return m_p; }
  T** Out() {
    FreeMAPIBlock(m_p);
    m_p = NULL;
    return &m_p;
  }

 private:
  T* m_p = NULL;
};

class CRowSetHolder {
 public:
  explicit CRowSetHolder(LPSRowSet pRows) : m_pRows(pRows) {}
  ~CRowSetHolder() {
    if (m_pRows) FreeProws(m_pRows);
  }
  CRowSetHolder(const CRowSetHolder&) = delete;
  CRowSetHolder& operator=(const CRowSetHolder&) = delete;

 private:
  LPSRowSet m_pRows;
};

LPALLOCATEBUFFER StreamAllocateBuffer() { return GetMAPIAllocBuffer() ? GetMAPIAllocBuffer() : MAPIAllocateBuffer; }
LPFREEBUFFER StreamFreeBuffer() { return GetMAPIFreeBuffer() ? GetMAPIFreeBuffer() : MAPIFreeBuffer; }

const ULONG kTagMessageClassA = PROP_TAG(PT_STRING8, 0x001A);
const ULONG kTempStorageFileMode = STGM_DELETEONRELEASE | STGM_CREATE | STGM_READWRITE;

HRESULT SeekStream(LPSTREAM pStream, LONGLONG llPos) {
  LARGE_INTEGER li;
  li.QuadPart = llPos;
  return pStream->Seek(li, STREAM_SEEK_SET, NULL);
}

// A read that comes up short means the stored structure ends early.
HRESULT ReadExact(LPSTREAM pStream, void* pv, ULONG cb) {
  ULONG cbRead = 0;
  HRESULT hr = pStream->Read(pv, cb, &cbRead);
  if (FAILED(hr)) return hr;
  return cbRead == cb ? S_OK : MAPI_E_CORRUPT_DATA;
}

HRESULT WriteExact(LPSTREAM pStream, const void* pv, ULONG cb) {
  ULONG cbWritten = 0;
  HRESULT hr = pStream->Write(pv, cb, &cbWritten);
  if (FAILED(hr)) return hr;
  return cbWritten == cb ? S_OK : STG_E_MEDIUMFULL;
}

// Reads the length and name of a receive-folder entry; szClass holds RFS_CLASS_BUFFER bytes.
HRESULT ReadRFSClass(LPSTREAM pStream, LPSTR szClass) {
  ULONG cbClass = 0;
  HRESULT hr = ReadExact(pStream, &cbClass, sizeof(cbClass));
  if (FAILED(hr)) return hr;
  ZT4_ASSERT(cbClass < RFS_CLASS_ASSERT_LIMIT);
  // A length that can't be a class name: the walk has left the format (or the record is
  // damaged). Stop there rather than overrun the name buffer.
  if (cbClass >= RFS_CLASS_BUFFER) return MAPI_E_CORRUPT_DATA;
  hr = ReadExact(pStream, szClass, cbClass);
  if (FAILED(hr)) return hr;
  szClass[cbClass] = 0;
  return S_OK;
}

// One row of the receive-folder table; the values point at the arguments.
HRESULT PutRFSRow(LPTABLEDATA pTable, DWORD dwInstanceKey, const PRIVATE_EID& eid, LPCSTR szClass) {
  SPropValue aProps[RFS_COLUMNS];
  memset(aProps, 0, sizeof(aProps));
  aProps[RFS_INSTANCE_KEY].ulPropTag = PR_INSTANCE_KEY;
  aProps[RFS_INSTANCE_KEY].Value.bin.cb = sizeof(dwInstanceKey);
  aProps[RFS_INSTANCE_KEY].Value.bin.lpb = reinterpret_cast<LPBYTE>(&dwInstanceKey);
  aProps[RFS_ENTRYID].ulPropTag = PR_ENTRYID;
  aProps[RFS_ENTRYID].Value.bin.cb = CB_PRIVATE_EID;
  aProps[RFS_ENTRYID].Value.bin.lpb = reinterpret_cast<LPBYTE>(const_cast<PRIVATE_EID*>(&eid));
  aProps[RFS_RECORD_KEY].ulPropTag = PR_RECORD_KEY;
  aProps[RFS_RECORD_KEY].Value.bin = aProps[RFS_ENTRYID].Value.bin;
  aProps[RFS_MESSAGE_CLASS].ulPropTag = kTagMessageClassA;
  aProps[RFS_MESSAGE_CLASS].Value.lpszA = const_cast<LPSTR>(szClass);
  SRow row = {0, RFS_COLUMNS, aProps};
  return pTable->HrModifyRow(&row);
}

BOOL IsRFSRow(const SRow& row) {
  return row.cValues == RFS_COLUMNS && row.lpProps && row.lpProps[RFS_INSTANCE_KEY].ulPropTag == PR_INSTANCE_KEY &&
         row.lpProps[RFS_ENTRYID].ulPropTag == PR_ENTRYID && row.lpProps[RFS_RECORD_KEY].ulPropTag == PR_RECORD_KEY &&
         row.lpProps[RFS_MESSAGE_CLASS].ulPropTag == kTagMessageClassA;
}

void LogRecipColumns(const SPropTagArray* pColumns) {
  ZT4_LOG(ZT4_LEVEL_DETAIL, "SaveRecipTable:: Properties available in recip table...");
  for (ULONG i = 0; pColumns && i < pColumns->cValues; ++i) {
    LPCSTR pszName = GetPropTagName(pColumns->aulPropTag[i]);
    if (pszName)
      ZT4_LOG(ZT4_LEVEL_DETAIL, "%s", pszName);
    else
      ZT4_LOG(ZT4_LEVEL_DETAIL, "0x%08X", pColumns->aulPropTag[i]);
  }
}

// Copies a large stream into the client's object, or, above the memory limit, into a temporary
// file that goes away with its last reference.
HRESULT OpenStreamProperty(LPSTREAM pRecord, LPUNKNOWN* ppUnk) {
  HRESULT hResult = S_OK;
  CStreamHolder target;
  try {
    STATSTG stat = {};
    ZT4_CHECK(pRecord->Stat(&stat, STATFLAG_NONAME));
    ZT4_ASSERT(stat.cbSize.HighPart == 0);
    BOOL fReplace = stat.cbSize.QuadPart > LARGE_STREAM_MEMORY_LIMIT;
    if (fReplace) {
      ZT4_CHECK(OpenTempFileStream(target.Out()));
    } else if (*ppUnk) {
      ZT4_CHECK((*ppUnk)->QueryInterface(IID_IStream, reinterpret_cast<void**>(target.Out())));
    } else {
      // No object of the client's to fill: hand out one of our own.
      ZT4_CHECK(CreateStreamOnHGlobal(NULL, TRUE, target.Out()));
      fReplace = TRUE;
    }
    ZT4_CHECK(pRecord->CopyTo(target.Get(), stat.cbSize, NULL, NULL));
    ZT4_CHECK(SeekStream(target.Get(), 0));
    if (fReplace) {
      if (*ppUnk) (*ppUnk)->Release();
      *ppUnk = target.Detach();
    }
  }
  ZT4_CATCH(hResult);
  return hResult;
}

// Rebuilds a storage from its image: a delete-on-release temporary file under a CStorage with the
// access of the client's object, which it replaces.
HRESULT OpenStorageProperty(LPSTREAM pRecord, LPUNKNOWN* ppUnk) {
  HRESULT hResult = S_OK;
  CStreamHolder temp;
  try {
    ULONG ulMode = 0;
    if (*ppUnk) {
      ulMode = static_cast<CStorage*>(*ppUnk)->GetAccess();
      (*ppUnk)->Release();
      *ppUnk = NULL;
    }
    CHAR szPath[MAX_PATH] = {};
    if (!GetTempFullPathFileName(szPath)) throw static_cast<HRESULT>(E_FAIL);
    hResult = OpenStreamOnFile(StreamAllocateBuffer(), StreamFreeBuffer(), kTempStorageFileMode, szPath, NULL,
                               temp.Out());
    if (FAILED(hResult)) {
      DeleteFileA(szPath);  // made by GetTempFileNameA, and no stream will take it away
      ZT4_CHECK(hResult);
    }
    ULARGE_INTEGER cbAll;
    cbAll.QuadPart = 0xFFFFFFFF;
    ZT4_CHECK(pRecord->CopyTo(temp.Get(), cbAll, NULL, NULL));
    ZT4_CHECK(SeekStream(temp.Get(), 0));
    CStorage* pStorage = NULL;
    ZT4_CHECK(CreatePrivateIStorage(&pStorage, ulMode, temp.Get()));
    *ppUnk = static_cast<IStorage*>(pStorage);
  }
  ZT4_CATCH(hResult);
  return hResult;
}

// The record takes exactly the object's bytes: a value that shrank must not keep its old tail.
HRESULT TruncateRecord(LPSTREAM pRecord) {
  ULARGE_INTEGER cbZero = {};
  return pRecord->SetSize(cbZero);
}

HRESULT SaveStreamProperty(CPropStream* pStream, LPSTREAM pRecord) {
  // IsModified and SetModified take the stream's own lock; a client thread may be writing.
  if (!pStream->IsModified()) return S_OK;
  HRESULT hResult = TruncateRecord(pRecord);
  if (SUCCEEDED(hResult)) hResult = pStream->SaveToStream(pRecord);
  if (SUCCEEDED(hResult)) pStream->SetModified(FALSE);
  return hResult;
}

HRESULT SaveStorageProperty(CStorage* pStorage, LPSTREAM pRecord) {
  if (!pStorage->IsModified()) return S_OK;
  HRESULT hResult = TruncateRecord(pRecord);
  if (SUCCEEDED(hResult)) hResult = pStorage->SaveToStream(pRecord);
  if (SUCCEEDED(hResult)) pStorage->SetModified(FALSE);
  return hResult;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// CBackEnd

CBackEnd::CBackEnd(const MAPIUID* pGuid) {
  memset(&m_guidStore, 0, sizeof(m_guidStore));
  if (pGuid) m_guidStore = *pGuid;
  InitializeCriticalSection(&m_cs);
}

CBackEnd::~CBackEnd() { DeleteCriticalSection(&m_cs); }

BOOL CBackEnd::IsValidEntryID(const PRIVATE_EID* pEID) const {
  if (!pEID) return FALSE;
  if (memcmp(&pEID->guidStore, &m_guidStore, sizeof(MAPIUID)) != 0) return FALSE;
  if (pEID->bVersion != PRIVATE_EID_VERSION) return FALSE;
  if (pEID->bObjType < MAPI_FOLDER || pEID->bObjType > MAPI_DISTLIST) {
    ZT4_LOG(ZT4_LEVEL_DETAIL, "CBackEnd::IsValidEntryID: Invalid object type in entry ID structure");
    return FALSE;
  }
  return TRUE;
}

// ---------------------------------------------------------------------------------------------
// CFileBackEnd: life

CFileBackEnd::CFileBackEnd(CDataBase* pDB, const MAPIUID* pUID, LPMAPISUP pSupObj)
    : CBackEnd(pUID), m_cRef(1), m_pDBobj(pDB), m_pSupObj(pSupObj), m_pDedupCache(NULL), m_pMessageCache(NULL) {
  if (m_pDBobj) m_pDBobj->AddRef();
  // The deduplication cache (for a server capability value above 65534) and the in-memory
  // message cache (for PerfMode bit 0) are made here once those modules exist; until then the
  // back end runs without both, which every caller handles.
}

CFileBackEnd::~CFileBackEnd() {
  if (m_pDBobj) m_pDBobj->Release();
  m_pDBobj = NULL;
}

ULONG CFileBackEnd::AddRef() { return ++m_cRef; }

ULONG CFileBackEnd::Release() {
  ULONG cRef = --m_cRef;
  if (cRef == 0) delete this;
  return cRef;
}

HRESULT CFileBackEnd::Flush() { return S_OK; }

PRIVATE_EID CFileBackEnd::MakeFolderEID(DWORD dwObjID) const {
  PRIVATE_EID eid;
  memset(&eid, 0, sizeof(eid));
  eid.guidStore = m_guidStore;
  eid.bVersion = PRIVATE_EID_VERSION;
  eid.bObjType = MAPI_FOLDER;
  eid.dwObjID = dwObjID;
  return eid;
}

// ---------------------------------------------------------------------------------------------
// Fields and property lists

HRESULT CFileBackEnd::GetStream(DWORD dwRecordID, RECFLD rfStream, LPSTREAM* ppStream, BOOL fCreate, BOOL fPrime) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock.
  CBackEndLock lock(m_cs);
  try {
    ZT4_CHECK_NULL(ppStream, MAPI_E_INVALID_PARAMETER);
    *ppStream = NULL;
    ZT4_CHECK_NULL(m_pDBobj, E_UNEXPECTED);
    hResult = m_pDBobj->OpenRecordField(dwRecordID, FALSE, rfStream, ppStream);
    if (hResult == MAPI_E_NOT_FOUND && fCreate) {
      hResult = m_pDBobj->OpenRecordField(dwRecordID, TRUE, rfStream, ppStream);
      if (SUCCEEDED(hResult) && fPrime) {
        // A new field reads as a count of zero.
        DWORD dwZero = 0;
        hResult = WriteExact(*ppStream, &dwZero, sizeof(dwZero));
        if (SUCCEEDED(hResult)) hResult = SeekStream(*ppStream, 0);
        if (FAILED(hResult)) {
          (*ppStream)->Release();
          *ppStream = NULL;
          m_pDBobj->DeleteRecord(dwRecordID);
        }
      }
    }
  }
  ZT4_CATCH(hResult);
  if (hResult != MAPI_E_NOT_FOUND) ZT4_LOG_FAILURE("CFileBackEnd::GetStream", hResult);
  return hResult;
}

HRESULT CFileBackEnd::LoadProperties(LPSTREAM pStream, CPropList** ppList) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  try {
    ZT4_CHECK_NULL(ppList, MAPI_E_INVALID_PARAMETER);
    *ppList = NULL;
    ZT4_CHECK_NULL(pStream, MAPI_E_INVALID_PARAMETER);
    std::unique_ptr<CPropList> pList(new (std::nothrow) CPropList());
    ZT4_CHECK_NULL(pList.get(), E_OUTOFMEMORY);
    ZT4_CHECK(pList->LoadFromStream(pStream));
    *ppList = pList.release();
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CFileBackEnd::LoadProperties", hResult);
  return hResult;
}

// ---------------------------------------------------------------------------------------------
// Save

HRESULT CFileBackEnd::SaveObject(PRIVATE_EID ParentEID, PRIVATE_EID ObjectEID, CPropList* pList,
                                 COpenPropList* pOpenPropList, LPTABLEDATA pTable) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock. Held until the stream's
  // release has written the record.
  CBackEndLock lock(m_cs);
  CStreamHolder stream;
  try {
    ZT4_CHECK_NULL(pList, MAPI_E_INVALID_PARAMETER);
    ZT4_CHECK(GetStream(ObjectEID.dwObjID, RECFLD_PROPERTIES, stream.Out()));
    if (pTable) {
      ZT4_ASSERT(ObjectEID.bObjType == MAPI_MESSAGE);
      ZT4_CHECK(SaveRecipTable(ObjectEID.dwObjID, pTable));
    }
    if (pOpenPropList) ZT4_CHECK(SaveLargeProps(pOpenPropList, pList));
    ZT4_CHECK(pList->SaveToStream(stream.Get()));
    if (ObjectEID.bObjType != MAPI_FOLDER) ZT4_CHECK(SaveSizeProperty(ObjectEID, pList, stream.Get()));
    if (ObjectEID.bObjType == MAPI_ATTACH) ZT4_CHECK(UpdateAttachmentsCount(ParentEID, ObjectEID, FALSE));
  }
  ZT4_CATCH(hResult);
  stream.Reset();
  ZT4_LOG_FAILURE("CFileBackEnd::SaveObject", hResult);
  return hResult;
}

// The size covers the list itself, so the list is saved once more with it.
HRESULT CFileBackEnd::SaveSizeProperty(PRIVATE_EID ObjectEID, CPropList* pList, LPSTREAM pStream) {
  HRESULT hResult = S_OK;
  try {
    ZT4_ASSERT(ObjectEID.bObjType == MAPI_MESSAGE || ObjectEID.bObjType == MAPI_ATTACH);
    ULONG ulSize = 0;
    ZT4_CHECK(CalculateSize(ObjectEID, pList, &ulSize));
    STATSTG stat = {};
    ZT4_CHECK(pStream->Stat(&stat, STATFLAG_NONAME));
    ulSize += stat.cbSize.LowPart;
    SPropValue spvSize;
    memset(&spvSize, 0, sizeof(spvSize));
    spvSize.ulPropTag = ObjectEID.bObjType == MAPI_MESSAGE ? PR_MESSAGE_SIZE : PR_ATTACH_SIZE;
    spvSize.Value.l = static_cast<LONG>(ulSize);
    ZT4_CHECK(pList->Insert(&spvSize));
    ZT4_CHECK(pList->SaveToStream(pStream));
  }
  ZT4_CATCH(hResult);
  return hResult;
}

HRESULT CFileBackEnd::SaveObject(PRIVATE_EID EID, CPropList* pList) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock.
  CBackEndLock lock(m_cs);
  CStreamHolder stream;
  try {
    ZT4_CHECK_NULL(pList, MAPI_E_INVALID_PARAMETER);
    hResult = GetStream(EID.dwObjID, RECFLD_PROPERTIES, stream.Out(), FALSE);
    if (hResult != MAPI_E_NOT_FOUND) {
      ZT4_LOG(ZT4_LEVEL_ERROR, "Object ID %d has existed", EID.dwObjID);
      throw static_cast<HRESULT>(E_FAIL);
    }
    ZT4_CHECK(GetStream(EID.dwObjID, RECFLD_PROPERTIES, stream.Out()));
    ZT4_CHECK(pList->SaveToStream(stream.Get()));
  }
  ZT4_CATCH(hResult);
  stream.Reset();
  ZT4_LOG_FAILURE("CFileBackEnd::OpenObject", hResult);
  return hResult;
}

HRESULT CFileBackEnd::SaveLargeProps(COpenPropList* pOpenPropList, CPropList* pList) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock; a stream's or storage's own
  // lock is taken briefly inside, for its dirty flag.
  CBackEndLock lock(m_cs);
  try {
    ZT4_CHECK_NULL(pOpenPropList, MAPI_E_INVALID_PARAMETER);
    ZT4_CHECK_NULL(pList, MAPI_E_INVALID_PARAMETER);
    // The walk stops at the first failure; nodes already handled stay saved.
    for (LPOPENPROPNODE pNode = pOpenPropList->GetHead(); pNode; pNode = pNode->pNext) {
      if (pNode->ulFlags & OPENPROP_SKIP) continue;
      ZT4_ASSERT(pNode->ulFlags & OPENPROP_OPENED);
      if (pNode->ulFlags & OPENPROP_DELETED)
        ZT4_CHECK(ReleaseDeletedProperty(pNode, pList));
      else
        ZT4_CHECK(SaveOpenProperty(pNode, pList));
    }
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CFileBackEnd::SaveLargeProps", hResult);
  return hResult;
}

HRESULT CFileBackEnd::ReleaseDeletedProperty(LPOPENPROPNODE pNode, CPropList* pList) {
  HRESULT hResult = S_OK;
  try {
    // A client's deletion leaves the property's stub in the list, and the stub goes. A small
    // stream pulled back into the list by this save left an ordinary value, which stays.
    SPropValue spvStub;
    if (pList->Find(CHANGE_PROP_TYPE(pNode->ulPropTag, PT_LARGE_STUB), &spvStub, TRUE) == S_OK)
      ZT4_CHECK(pList->Delete(pNode->ulPropTag));
    if (!(pNode->ulFlags & OPENPROP_NEW)) {
      hResult = m_pDBobj->DeleteRecord(pNode->dwRecordID);
      if (hResult != MAPI_E_NOT_FOUND) ZT4_CHECK(hResult);  // a record already gone is what was wanted
      hResult = S_OK;
      // The record is gone: a later save of this list must not release the ID again.
      pNode->dwRecordID = 0;
      pNode->ulFlags |= OPENPROP_NEW;
    }
  }
  ZT4_CATCH(hResult);
  return hResult;
}

HRESULT CFileBackEnd::SaveOpenProperty(LPOPENPROPNODE pNode, CPropList* pList) {
  HRESULT hResult = S_OK;
  BOOL fNew = (pNode->ulFlags & OPENPROP_NEW) != 0;
  DWORD dwRecordID = fNew ? 0 : pNode->dwRecordID;
  ULONG ulKind = pNode->ulFlags & OPENPROP_KIND_MASK;
  CStreamHolder record;
  try {
    ZT4_CHECK_NULL(pNode->iface.pUnk, E_UNEXPECTED);
    if (ulKind != OPENPROP_STREAM && ulKind != OPENPROP_STORAGE) {
      ZT4_ASSERT(FALSE);
      throw static_cast<HRESULT>(E_NOTIMPL);
    }
    if (fNew) {
      ZT4_ASSERT(pNode->dwRecordID == 0);
      ZT4_CHECK(m_pDBobj->CreateRecord(&dwRecordID, record.Out()));
    } else {
      ZT4_ASSERT(dwRecordID != 0);
      ZT4_CHECK(m_pDBobj->OpenRecordField(dwRecordID, FALSE, RECFLD_PROPERTIES, record.Out()));
    }
    if (ulKind == OPENPROP_STREAM)
      ZT4_CHECK(SaveStreamProperty(pNode->iface.pStream, record.Get()));
    else
      ZT4_CHECK(SaveStorageProperty(pNode->iface.pStorage, record.Get()));
    record.Reset();
    SPropValue spvStub;
    MakeLargeStub(pNode->ulPropTag, ulKind, dwRecordID, &spvStub);
    ZT4_CHECK(pList->Insert(&spvStub));
    pNode->ulFlags &= ~OPENPROP_NEW;
    pNode->dwRecordID = dwRecordID;
  }
  ZT4_CATCH(hResult);
  if (FAILED(hResult) && fNew && dwRecordID) {
    record.Reset();  // committed first, so nothing writes into the released chain later
    m_pDBobj->DeleteRecord(dwRecordID);
  }
  return hResult;
}

HRESULT CFileBackEnd::SaveRecipTable(DWORD dwObjID, LPTABLEDATA pTable) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock.
  CBackEndLock lock(m_cs);
  CStreamHolder idStream;
  CComHolder<IMAPITable> view;
  CMAPIBlock<SPropTagArray> columns;
  try {
    ZT4_CHECK_NULL(pTable, MAPI_E_INVALID_PARAMETER);
    ZT4_CHECK(GetStream(dwObjID, RECFLD_CHILDREN, idStream.Out()));
    CIDList ids;
    ZT4_CHECK(ids.LoadFromStream(idStream.Get()));
    DWORD dwReuseID = ids.GetFirst();
    ZT4_CHECK(pTable->HrGetView(NULL, NULL, 0, view.Out()));
    ZT4_CHECK(view->QueryColumns(TBL_ALL_COLUMNS, columns.Out()));
    ZT4_CHECK(view->SetColumns(columns.Get(), 0));
    LogRecipColumns(columns.Get());
    for (;;) {
      LPSRowSet pRows = NULL;
      ZT4_CHECK(view->QueryRows(RECIP_BATCH_ROWS, 0, &pRows));
      CRowSetHolder rows(pRows);
      if (!pRows || pRows->cRows == 0) break;
      for (ULONG iRow = 0; iRow < pRows->cRows; ++iRow) ZT4_CHECK(SaveRecipRow(pRows->aRow[iRow], &dwReuseID, &ids));
    }
    hResult = S_OK;
    // Fewer recipients than before: the list forgets the rest. Their records stay allocated,
    // unreachable, until the message goes.
    std::vector<DWORD> stale;
    for (; dwReuseID; dwReuseID = ids.GetNext()) stale.push_back(dwReuseID);
    for (DWORD dwID : stale) ids.Remove(dwID);
    ZT4_CHECK(ids.SaveToStream(idStream.Get()));
  }
  ZT4_CATCH(hResult);
  idStream.Reset();
  ZT4_LOG_FAILURE("CFileBackEnd::SaveRecipTable", hResult);
  return hResult;
}

// One recipient into the next reused record, or a new one whose ID joins the list.
HRESULT CFileBackEnd::SaveRecipRow(const SRow& row, DWORD* pdwReuseID, CIDList* pIDs) {
  HRESULT hResult = S_OK;
  CStreamHolder record;
  try {
    DWORD dwRecordID = *pdwReuseID;
    if (dwRecordID)
      ZT4_CHECK(m_pDBobj->OpenRecordField(dwRecordID, TRUE, RECFLD_PROPERTIES, record.Out()));
    else
      ZT4_CHECK(m_pDBobj->CreateRecord(&dwRecordID, record.Out()));
    CPropList list;
    for (ULONG i = 0; i < row.cValues && row.lpProps; ++i) {
      ULONG ulPropTag = row.lpProps[i].ulPropTag;
      if (ulPropTag == PR_ROWID || ulPropTag == PR_INSTANCE_KEY) continue;
      ZT4_CHECK(list.Insert(&row.lpProps[i]));
    }
    ZT4_CHECK(list.SaveToStream(record.Get()));
    record.Reset();
    if (*pdwReuseID)
      *pdwReuseID = pIDs->GetNext();
    else
      ZT4_CHECK(pIDs->Insert(dwRecordID));
  }
  ZT4_CATCH(hResult);
  return hResult;
}

HRESULT CFileBackEnd::UpdateAttachmentsCount(PRIVATE_EID MessageEID, PRIVATE_EID AttachEID, BOOL fRemove) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock.
  CBackEndLock lock(m_cs);
  CStreamHolder stream;
  try {
    ZT4_CHECK(GetStream(MessageEID.dwObjID, RECFLD_CONTENTS, stream.Out()));
    CIDList ids;
    ZT4_CHECK(ids.LoadFromStream(stream.Get()));
    if (fRemove) {
      // Memory only: the stored list changes when the attachment itself is deleted.
      ids.Remove(AttachEID.dwObjID);
    } else {
      // No check for an ID already there: each save of an attachment enters it once more.
      ZT4_CHECK(ids.Insert(AttachEID.dwObjID));
      ZT4_CHECK(ids.SaveToStream(stream.Get()));
    }
  }
  ZT4_CATCH(hResult);
  stream.Reset();
  ZT4_LOG_FAILURE("CFileBackEnd::UpdateAttachmentsCount", hResult);
  return hResult;
}

// ---------------------------------------------------------------------------------------------
// Sizes

HRESULT CFileBackEnd::CalculateSize(PRIVATE_EID ObjectEID, CPropList* pList, ULONG* pulSize) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock.
  CBackEndLock lock(m_cs);
  try {
    ZT4_CHECK_NULL(pList, MAPI_E_INVALID_PARAMETER);
    ZT4_CHECK_NULL(pulSize, MAPI_E_INVALID_PARAMETER);
    ZT4_CHECK(AddLargeStubSizes(pList, pulSize));
    if (ObjectEID.bObjType == MAPI_MESSAGE) {
      ZT4_CHECK(AddChildSizes(ObjectEID.dwObjID, RECFLD_CHILDREN, MAPI_MAILUSER, pulSize));
      ZT4_CHECK(AddChildSizes(ObjectEID.dwObjID, RECFLD_CONTENTS, MAPI_ATTACH, pulSize));
    }
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CFileBackEnd::CalculateSize", hResult);
  return hResult;
}

HRESULT CFileBackEnd::AddLargeStubSizes(CPropList* pList, ULONG* pulSize) {
  HRESULT hResult = S_OK;
  try {
    for (const PROPNODE* pNode = pList->GetFirstNode(); pNode; pNode = pList->GetNextNode()) {
      if (PROP_TYPE(pNode->ulPropTag) != PT_LARGE_STUB) continue;
      SPropValue spvStub;
      memset(&spvStub, 0, sizeof(spvStub));
      spvStub.ulPropTag = pNode->ulPropTag;
      memcpy(&spvStub.Value, &pNode->Value, sizeof(spvStub.Value));
      DWORD dwRecordID = 0;
      GetLargeStubInfo(&spvStub, NULL, NULL, &dwRecordID);
      CStreamHolder record;
      hResult = GetStream(dwRecordID, RECFLD_PROPERTIES, record.Out(), FALSE);
      // A stub whose record is gone weighs nothing; it must not stop the object's save.
      if (hResult == MAPI_E_NOT_FOUND) continue;
      ZT4_CHECK(hResult);
      STATSTG stat = {};
      ZT4_CHECK(record->Stat(&stat, STATFLAG_NONAME));
      *pulSize += stat.cbSize.LowPart;
    }
    hResult = S_OK;
  }
  ZT4_CATCH(hResult);
  return hResult;
}

// The large properties of a message's recipients or attachments. A recipient's record has no
// field of children, so recipients add nothing; an attachment's own list isn't counted.
HRESULT CFileBackEnd::AddChildSizes(DWORD dwMessageID, RECFLD rfChildren, BYTE bChildType, ULONG* pulSize) {
  HRESULT hResult = S_OK;
  try {
    CStreamHolder idStream;
    hResult = GetStream(dwMessageID, rfChildren, idStream.Out(), FALSE);
    if (hResult == MAPI_E_NOT_FOUND) return S_OK;
    ZT4_CHECK(hResult);
    CIDList ids;
    ZT4_CHECK(ids.LoadFromStream(idStream.Get()));
    RECFLD rfChild = bChildType == MAPI_MAILUSER ? RECFLD_CHILDREN : RECFLD_PROPERTIES;
    for (DWORD dwID = ids.GetFirst(); dwID; dwID = ids.GetNext()) {
      CStreamHolder childStream;
      hResult = GetStream(dwID, rfChild, childStream.Out(), FALSE);
      if (hResult == MAPI_E_NOT_FOUND) continue;
      ZT4_CHECK(hResult);
      CPropList* pChildList = NULL;
      ZT4_CHECK(LoadProperties(childStream.Get(), &pChildList));
      std::unique_ptr<CPropList> childList(pChildList);
      PRIVATE_EID ChildEID;
      memset(&ChildEID, 0, sizeof(ChildEID));
      ChildEID.guidStore = m_guidStore;
      ChildEID.bVersion = PRIVATE_EID_VERSION;
      ChildEID.bObjType = bChildType;
      ChildEID.dwObjID = dwID;
      ZT4_CHECK(CalculateSize(ChildEID, childList.get(), pulSize));
    }
    hResult = S_OK;
  }
  ZT4_CATCH(hResult);
  return hResult;
}

// ---------------------------------------------------------------------------------------------
// Large properties

HRESULT CFileBackEnd::OpenProperty(LPSPropValue pspvProp, LPUNKNOWN* ppUnk) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock.
  CBackEndLock lock(m_cs);
  CStreamHolder record;
  try {
    ZT4_CHECK_NULL(pspvProp, MAPI_E_INVALID_PARAMETER);
    ZT4_CHECK_NULL(ppUnk, MAPI_E_INVALID_PARAMETER);
    ULONG ulKind = 0;
    DWORD dwRecordID = 0;
    GetLargeStubInfo(pspvProp, NULL, &ulKind, &dwRecordID);
    ZT4_CHECK(GetStream(dwRecordID, RECFLD_PROPERTIES, record.Out(), FALSE));
    if (ulKind == OPENPROP_STREAM) {
      ZT4_CHECK(OpenStreamProperty(record.Get(), ppUnk));
    } else if (ulKind == OPENPROP_STORAGE) {
      ZT4_CHECK(OpenStorageProperty(record.Get(), ppUnk));
    } else {
      ZT4_ASSERT(ulKind == OPENPROP_STREAM || ulKind == OPENPROP_STORAGE);
      hResult = E_NOTIMPL;
    }
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CFileBackEnd::OpenProperty", hResult);
  return hResult;
}

HRESULT CFileBackEnd::OpenPropertyInMemory(ULONG cbMaxSize, LPVOID pMemBlock, LPSPropValue pProp) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock.
  CBackEndLock lock(m_cs);
  CStreamHolder record;
  try {
    ZT4_CHECK_NULL(pProp, MAPI_E_INVALID_PARAMETER);
    ULONG ulStubType = 0;
    DWORD dwRecordID = 0;
    GetLargeStubInfo(pProp, &ulStubType, NULL, &dwRecordID);
    // Callers give the true tag; a stub tag still in place is turned into it.
    if (PROP_TYPE(pProp->ulPropTag) == PT_LARGE_STUB) pProp->ulPropTag = CHANGE_PROP_TYPE(pProp->ulPropTag, ulStubType);
    ULONG ulType = PROP_TYPE(pProp->ulPropTag);
    ZT4_CHECK(GetStream(dwRecordID, RECFLD_PROPERTIES, record.Out(), FALSE));
    STATSTG stat = {};
    ZT4_CHECK(record->Stat(&stat, STATFLAG_NONAME));
    if (stat.cbSize.HighPart != 0 || stat.cbSize.LowPart > cbMaxSize) throw static_cast<HRESULT>(E_OUTOFMEMORY);
    ULONG cbData = stat.cbSize.LowPart;
    // A wide string gets a wide terminator and its own pointer, as a string client reads it.
    ULONG cbTerminator = ulType == PT_STRING8 ? 1 : ulType == PT_UNICODE ? sizeof(WCHAR) : 0;
    if (cbData > 0xFFFFFFFF - cbTerminator) throw static_cast<HRESULT>(E_OUTOFMEMORY);
    LPVOID pv = NULL;
    ZT4_CHECK(PrivMAPIAllocate(cbData + cbTerminator, &pv, pMemBlock));
    hResult = ReadExact(record.Get(), pv, cbData);
    if (FAILED(hResult)) {
      if (!pMemBlock) PrivMAPIFree(&pv);
      ZT4_CHECK(hResult);
    }
    LPBYTE pb = static_cast<LPBYTE>(pv);
    memset(pb + cbData, 0, cbTerminator);
    if (ulType == PT_STRING8) {
      pProp->Value.lpszA = reinterpret_cast<LPSTR>(pb);
    } else if (ulType == PT_UNICODE) {
      pProp->Value.lpszW = reinterpret_cast<LPWSTR>(pb);
    } else {
      pProp->Value.bin.cb = cbData;
      pProp->Value.bin.lpb = pb;
    }
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CFileBackEnd::OpenPropertyInMemory", hResult);
  return hResult;
}

// ---------------------------------------------------------------------------------------------
// Receive-folder settings

HRESULT CFileBackEnd::SetRFSEntryID(LPCSTR szMessageClass, PRIVATE_EID eid, LPTABLEDATA pTable) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  if (!IsValidEntryID(&eid) || eid.bObjType != MAPI_FOLDER) {
    ZT4_LOG(ZT4_LEVEL_DETAIL, "CFileBackEnd::SetRFSEntryID: Invalid entry ID for receive folder");
    return MAPI_E_INVALID_ENTRYID;
  }
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock.
  CBackEndLock lock(m_cs);
  CStreamHolder stream;
  try {
    ZT4_CHECK_NULL(szMessageClass, MAPI_E_INVALID_PARAMETER);
    ULONG cbClass = static_cast<ULONG>(lstrlenA(szMessageClass));
    // A reader could not take a longer name back.
    if (cbClass >= RFS_CLASS_BUFFER) throw static_cast<HRESULT>(MAPI_E_INVALID_PARAMETER);
    ZT4_CHECK(GetStream(RECEIVE_FOLDER_SETTINGS, RECFLD_PROPERTIES, stream.Out()));
    ULONG cEntries = 0;
    ZT4_CHECK(ReadExact(stream.Get(), &cEntries, sizeof(cEntries)));
    // The walk reads length and name only: on a miss the entry's folder ID is read as the next
    // length, so only the first entry is reliably found again. Kept as the store has it.
    ULONG iEntry = 1;
    for (; iEntry <= cEntries && SUCCEEDED(hResult); ++iEntry) {
      CHAR szClass[RFS_CLASS_BUFFER];
      ZT4_CHECK(ReadRFSClass(stream.Get(), szClass));
      if (lstrcmpiA(szClass, szMessageClass) != 0) continue;
      ZT4_CHECK(WriteExact(stream.Get(), &eid.dwObjID, sizeof(eid.dwObjID)));
      hResult = MAPI_E_COLLISION;  // ends the walk
      ++iEntry;
    }
    if (hResult == MAPI_E_COLLISION) {
      hResult = S_OK;
      if (pTable) ZT4_CHECK(UpdateRFSTableRow(iEntry, eid, pTable));
    } else {
      // Behind the last name read, which is where the walk ended.
      ZT4_CHECK(WriteExact(stream.Get(), &cbClass, sizeof(cbClass)));
      ZT4_CHECK(WriteExact(stream.Get(), szMessageClass, cbClass));
      ZT4_CHECK(WriteExact(stream.Get(), &eid.dwObjID, sizeof(eid.dwObjID)));
      ZT4_CHECK(SeekStream(stream.Get(), 0));
      ++cEntries;
      ZT4_CHECK(WriteExact(stream.Get(), &cEntries, sizeof(cEntries)));
      if (pTable) ZT4_CHECK(PutRFSRow(pTable, cEntries, eid, szMessageClass));
    }
  }
  ZT4_CATCH(hResult);
  stream.Reset();
  ZT4_LOG_FAILURE("CFileBackEnd::SetRFSEntryID", hResult);
  return hResult;
}

// Points the table's row of that key at the new folder; PR_RECORD_KEY keeps its old bytes.
HRESULT CFileBackEnd::UpdateRFSTableRow(DWORD dwInstanceKey, PRIVATE_EID& eid, LPTABLEDATA pTable) {
  HRESULT hResult = S_OK;
  CMAPIBlock<SRow> row;
  try {
    SPropValue spvKey;
    memset(&spvKey, 0, sizeof(spvKey));
    spvKey.ulPropTag = PR_INSTANCE_KEY;
    spvKey.Value.bin.cb = sizeof(dwInstanceKey);
    spvKey.Value.bin.lpb = reinterpret_cast<LPBYTE>(&dwInstanceKey);
    hResult = pTable->HrQueryRow(&spvKey, row.Out(), NULL);
    // The walk's counter is seldom the key the table gave the entry: then no row is touched.
    if (hResult == MAPI_E_NOT_FOUND) return S_OK;
    ZT4_CHECK(hResult);
    ZT4_CHECK_NULL(row.Get(), E_UNEXPECTED);
    BOOL fColumns = IsRFSRow(*row.Get());
    ZT4_ASSERT(fColumns);
    if (fColumns) {
      row->lpProps[RFS_ENTRYID].Value.bin.cb = CB_PRIVATE_EID;
      row->lpProps[RFS_ENTRYID].Value.bin.lpb = reinterpret_cast<LPBYTE>(&eid);
      ZT4_CHECK(pTable->HrModifyRow(row.Get()));
    }
  }
  ZT4_CATCH(hResult);
  return hResult;
}

HRESULT CFileBackEnd::GetRFSEntryID(LPCSTR szMessageClass, LPPRIVATE_EID peid) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock.
  CBackEndLock lock(m_cs);
  CStreamHolder stream;
  try {
    ZT4_CHECK_NULL(szMessageClass, MAPI_E_INVALID_PARAMETER);
    ZT4_CHECK_NULL(peid, MAPI_E_INVALID_PARAMETER);
    hResult = GetStream(RECEIVE_FOLDER_SETTINGS, RECFLD_PROPERTIES, stream.Out(), FALSE);
    if (hResult == MAPI_E_NOT_FOUND) throw static_cast<HRESULT>(hResult);  // no settings stored
    ZT4_CHECK(hResult);
    ULONG cEntries = 0;
    ZT4_CHECK(ReadExact(stream.Get(), &cEntries, sizeof(cEntries)));
    BOOL fFound = FALSE;
    for (; cEntries && !fFound; --cEntries) {
      CHAR szClass[RFS_CLASS_BUFFER];
      DWORD dwFolderID = 0;
      ZT4_CHECK(ReadRFSClass(stream.Get(), szClass));
      ZT4_CHECK(ReadExact(stream.Get(), &dwFolderID, sizeof(dwFolderID)));
      if (lstrcmpiA(szClass, szMessageClass) != 0) continue;
      // The caller's other bytes (flags, unique ID) are left as they were.
      peid->guidStore = m_guidStore;
      peid->bVersion = PRIVATE_EID_VERSION;
      peid->bObjType = MAPI_FOLDER;
      peid->dwObjID = dwFolderID;
      fFound = TRUE;
    }
    hResult = fFound ? S_OK : MAPI_E_NOT_FOUND;
  }
  ZT4_CATCH(hResult);
  stream.Reset();
  if (hResult != MAPI_E_NOT_FOUND) ZT4_LOG_FAILURE("CFileBackEnd::GetRFSEntryID", hResult);
  return hResult;
}

HRESULT CFileBackEnd::GetRFSTableData(LPTABLEDATA pTable) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  // No lock of its own: GetStream takes the back end's for the open, and the stream read is
  // the field's private copy.
  CStreamHolder stream;
  try {
    ZT4_CHECK_NULL(pTable, MAPI_E_INVALID_PARAMETER);
    // The store's default receive folder is the one "IPM" is bound to, whatever the stream says.
    PRIVATE_EID eid = MakeFolderEID(IPM_ROOT_RECORD);
    ZT4_CHECK(PutRFSRow(pTable, 0, eid, ""));
    hResult = GetStream(RECEIVE_FOLDER_SETTINGS, RECFLD_PROPERTIES, stream.Out(), FALSE);
    if (hResult == MAPI_E_NOT_FOUND) return S_OK;  // nothing stored yet: the default row alone
    ZT4_CHECK(hResult);
    ULONG cEntries = 0;
    ZT4_CHECK(ReadExact(stream.Get(), &cEntries, sizeof(cEntries)));
    // The first stored entry gets the highest key.
    for (ULONG iKey = cEntries; iKey; --iKey) {
      CHAR szClass[RFS_CLASS_BUFFER];
      ZT4_CHECK(ReadRFSClass(stream.Get(), szClass));
      ZT4_CHECK(ReadExact(stream.Get(), &eid.dwObjID, sizeof(eid.dwObjID)));
      ZT4_CHECK(PutRFSRow(pTable, iKey, eid, szClass));
    }
  }
  ZT4_CATCH(hResult);
  stream.Reset();
  ZT4_LOG_FAILURE("CFileBackEnd::GetRFSTableData", hResult);
  return hResult;
}

// ---------------------------------------------------------------------------------------------
// Named properties and store strings

HRESULT CFileBackEnd::GetNamedPropertiesStream(LPSTREAM* ppStream) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock.
  CBackEndLock lock(m_cs);
  try {
    ZT4_CHECK_NULL(ppStream, MAPI_E_INVALID_PARAMETER);
    *ppStream = NULL;
    ZT4_CHECK_NULL(m_pDBobj, E_UNEXPECTED);
    // Not primed: the map treats a stream shorter than its header as a new map.
    ZT4_CHECK(m_pDBobj->OpenRecordField(NAMED_PROPERTIES_RECORD, TRUE, RECFLD_PROPERTIES, ppStream));
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CFileBackEnd::GetNamedPropertiesStream", hResult);
  return hResult;
}

HRESULT CFileBackEnd::SetDataBaseStrings(LPCSTR szName, LPCSTR szComment) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock.
  CBackEndLock lock(m_cs);
  try {
    ZT4_CHECK_NULL(m_pDBobj, E_UNEXPECTED);
    ZT4_CHECK(m_pDBobj->SetDataBaseStrings(szName, szComment));
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CFileBackEnd::SetDataBaseStrings", hResult);
  return hResult;
}

// ---------------------------------------------------------------------------------------------
// Helpers of the object lifecycle and the folder hierarchy

namespace {

typedef std::basic_string<WCHAR> WString;

// Folder names arrive as CP_ACP text and are kept and compared wide.
HRESULT ToWide(LPCSTR psz, WString* pstr) {
  pstr->clear();
  if (!psz || !*psz) return S_OK;
  int cch = MultiByteToWideChar(CP_ACP, 0, psz, -1, NULL, 0);
  if (cch <= 0) return MAPI_E_BAD_CHARWIDTH;
  pstr->resize(static_cast<size_t>(cch));
  if (MultiByteToWideChar(CP_ACP, 0, psz, -1, pstr->data(), cch) != cch) return MAPI_E_BAD_CHARWIDTH;
  pstr->resize(static_cast<size_t>(cch) - 1);
  return S_OK;
}

HRESULT ToNarrow(LPCWSTR pwsz, std::string* pstr) {
  pstr->clear();
  if (!pwsz || !*pwsz) return S_OK;
  int cb = WideCharToMultiByte(CP_ACP, 0, pwsz, -1, NULL, 0, NULL, NULL);
  if (cb <= 0) return MAPI_E_BAD_CHARWIDTH;
  pstr->resize(static_cast<size_t>(cb));
  if (WideCharToMultiByte(CP_ACP, 0, pwsz, -1, pstr->data(), cb, NULL, NULL) != cb) return MAPI_E_BAD_CHARWIDTH;
  pstr->resize(static_cast<size_t>(cb) - 1);
  return S_OK;
}

FILETIME NowFileTime() {
  SYSTEMTIME st;
  GetSystemTime(&st);
  FILETIME ft = {};
  SystemTimeToFileTime(&st, &ft);
  return ft;
}

PRIVATE_EID MakeEID(const MAPIUID& guid, BYTE bObjType, DWORD dwObjID) {
  PRIVATE_EID eid;
  memset(&eid, 0, sizeof(eid));
  eid.guidStore = guid;
  eid.bVersion = PRIVATE_EID_VERSION;
  eid.bObjType = bObjType;
  eid.dwObjID = dwObjID;
  return eid;
}

// A wide text value of the list, or empty.
WString FindText(CPropList* pList, ULONG ulPropTag) {
  SPropValue v;
  memset(&v, 0, sizeof(v));
  if (pList->Find(ulPropTag, &v, TRUE) != S_OK || !v.Value.lpszW) return WString();
  return WString(v.Value.lpszW);
}

LONG FindLong(CPropList* pList, ULONG ulPropTag) {
  SPropValue v;
  memset(&v, 0, sizeof(v));
  return pList->Find(ulPropTag, &v, TRUE) == S_OK ? v.Value.l : 0;
}

HRESULT InsertLong(CPropList* pList, ULONG ulPropTag, LONG lValue) {
  SPropValue v;
  memset(&v, 0, sizeof(v));
  v.ulPropTag = ulPropTag;
  v.Value.l = lValue;
  return pList->Insert(&v);
}

// PR_SUBFOLDERS and, with it, the time of the change.
HRESULT InsertSubfolderState(CPropList* pList, BOOL fSubfolders) {
  SPropValue v[2];
  memset(v, 0, sizeof(v));
  v[0].ulPropTag = PR_SUBFOLDERS;
  v[0].Value.b = static_cast<unsigned short>(fSubfolders ? TRUE : FALSE);
  v[1].ulPropTag = PR_LAST_MODIFICATION_TIME;
  v[1].Value.ft = NowFileTime();
  HRESULT hr = pList->Insert(&v[0]);
  return SUCCEEDED(hr) ? pList->Insert(&v[1]) : hr;
}

// ----- subfolder names (field RECFLD_NAMES)

struct FOLDER_NAME {
  DWORD dwObjID;
  WString strName;
};

HRESULT BytesLeft(LPSTREAM pStream, ULONGLONG* pcbLeft) {
  LARGE_INTEGER zero = {};
  ULARGE_INTEGER pos = {};
  HRESULT hr = pStream->Seek(zero, STREAM_SEEK_CUR, &pos);
  if (FAILED(hr)) return hr;
  STATSTG stat = {};
  hr = pStream->Stat(&stat, STATFLAG_NONAME);
  if (FAILED(hr)) return hr;
  *pcbLeft = stat.cbSize.QuadPart > pos.QuadPart ? stat.cbSize.QuadPart - pos.QuadPart : 0;
  return S_OK;
}

// The count word and the entries the stream holds, up to that count. The end of the stream
// ends the walk: a rename leaves the count one above the entries.
HRESULT ReadFolderNames(LPSTREAM pStream, ULONG* pcCount, std::vector<FOLDER_NAME>* pNames) {
  *pcCount = 0;
  pNames->clear();
  HRESULT hr = SeekStream(pStream, 0);
  ULONGLONG cbLeft = 0;
  if (SUCCEEDED(hr)) hr = BytesLeft(pStream, &cbLeft);
  if (FAILED(hr)) return hr;
  if (cbLeft < sizeof(DWORD)) return S_OK;
  hr = ReadExact(pStream, pcCount, sizeof(DWORD));
  cbLeft -= sizeof(DWORD);
  for (ULONG i = 0; SUCCEEDED(hr) && i < *pcCount && cbLeft; ++i) {
    DWORD adwHeader[2] = {};
    if (cbLeft < sizeof(adwHeader)) return MAPI_E_CORRUPT_DATA;
    hr = ReadExact(pStream, adwHeader, sizeof(adwHeader));
    cbLeft -= sizeof(adwHeader);
    ZT4_ASSERT(adwHeader[1] < FLDNAME_MAX_BYTES);
    // A length the stream can't hold, or half a character, is damage; stop before reading it.
    if (SUCCEEDED(hr) && (adwHeader[1] > cbLeft || adwHeader[1] % sizeof(WCHAR))) return MAPI_E_CORRUPT_DATA;
    FOLDER_NAME entry;
    entry.dwObjID = adwHeader[0];
    entry.strName.resize(adwHeader[1] / sizeof(WCHAR));
    if (SUCCEEDED(hr) && adwHeader[1]) hr = ReadExact(pStream, entry.strName.data(), adwHeader[1]);
    cbLeft -= adwHeader[1];
    if (SUCCEEDED(hr)) pNames->push_back(std::move(entry));
  }
  return hr;
}

HRESULT WriteFolderNames(LPSTREAM pStream, ULONG cCount, const std::vector<FOLDER_NAME>& names) {
  std::vector<BYTE> image;
  const BYTE* pbCount = reinterpret_cast<const BYTE*>(&cCount);
  image.insert(image.end(), pbCount, pbCount + sizeof(cCount));
  for (const FOLDER_NAME& entry : names) {
    DWORD adwHeader[2] = {entry.dwObjID, static_cast<DWORD>(entry.strName.size() * sizeof(WCHAR))};
    const BYTE* pbHeader = reinterpret_cast<const BYTE*>(adwHeader);
    image.insert(image.end(), pbHeader, pbHeader + sizeof(adwHeader));
    const BYTE* pbName = reinterpret_cast<const BYTE*>(entry.strName.data());
    image.insert(image.end(), pbName, pbName + adwHeader[1]);
  }
  HRESULT hr = SeekStream(pStream, 0);
  if (SUCCEEDED(hr)) hr = TruncateRecord(pStream);
  if (SUCCEEDED(hr)) hr = WriteExact(pStream, image.data(), static_cast<ULONG>(image.size()));
  return hr;
}

// ----- folder properties

constexpr ULONG MAX_FOLDER_PROPS = 12;

HRESULT SetPropsInList(ULONG cValues, LPSPropValue pProps, CPropList** ppList) {
  std::unique_ptr<CPropList> pList(new (std::nothrow) CPropList());
  if (!pList) return E_OUTOFMEMORY;
  for (ULONG i = 0; i < cValues; ++i) {
    HRESULT hr = pList->Insert(&pProps[i]);
    if (FAILED(hr)) return hr;
  }
  *ppList = pList.release();
  return S_OK;
}

// The first property list of every folder.
HRESULT InitFolderProps(const PRIVATE_EID& ParentEID, LPCWSTR pwszName, LPCWSTR pwszComment, CPropList** ppList) {
  HRESULT hResult = S_OK;
  try {
    SPropValue spvProps[MAX_FOLDER_PROPS + 1];
    memset(spvProps, 0, sizeof(spvProps));
    FILETIME ftNow = NowFileTime();
    ULONG i = 0;
    spvProps[i].ulPropTag = PR_CONTENT_COUNT;
    spvProps[i++].Value.l = 0;
    spvProps[i].ulPropTag = PR_CONTENT_UNREAD;
    spvProps[i++].Value.l = 0;
    spvProps[i].ulPropTag = PR_ASSOC_CONTENT_COUNT;
    spvProps[i++].Value.l = 0;
    spvProps[i].ulPropTag = PR_SUBFOLDERS;
    spvProps[i++].Value.b = FALSE;
    spvProps[i].ulPropTag = PR_CREATION_TIME;
    spvProps[i++].Value.ft = ftNow;
    spvProps[i].ulPropTag = PR_LAST_MODIFICATION_TIME;
    spvProps[i++].Value.ft = ftNow;
    spvProps[i].ulPropTag = PR_DISPLAY_NAME_W;
    spvProps[i++].Value.lpszW = const_cast<LPWSTR>(pwszName);
    spvProps[i].ulPropTag = PR_COMMENT_W;
    spvProps[i++].Value.lpszW = const_cast<LPWSTR>(pwszComment);
    spvProps[i].ulPropTag = PR_PARENT_ENTRYID;
    spvProps[i].Value.bin.cb = CB_PRIVATE_EID;
    spvProps[i++].Value.bin.lpb = reinterpret_cast<LPBYTE>(const_cast<PRIVATE_EID*>(&ParentEID));
    spvProps[i].ulPropTag = PR_STATUS;
    spvProps[i++].Value.l = 0;
    spvProps[i].ulPropTag = PR_CONTAINER_CLASS_W;
    spvProps[i++].Value.lpszW = const_cast<LPWSTR>(WIDE("IPF.Note"));
    // The IPM subtree carries the (empty) web view the client shows for it.
    if (WString(pwszName) == WIDE(ZT4_IPM_SUBTREE_NAME)) {
      spvProps[i].ulPropTag = PR_FOLDER_WEBVIEWINFO;
      spvProps[i].Value.bin.cb = 0;
      spvProps[i++].Value.bin.lpb = NULL;
    }
    ZT4_ASSERT(i <= MAX_FOLDER_PROPS);
    ZT4_CHECK(SetPropsInList (i, spvProps, ppList));
  }
  ZT4_CATCH(hResult);
  return hResult;
}

// ----- the skeleton

struct SKELETON_FOLDER {
  LPCSTR pszName;
  LPCSTR pszComment;
};

const SKELETON_FOLDER kRootFolder = {ZT4_ROOT_FOLDER_NAME, "Store Root Folder"};
const SKELETON_FOLDER kSpecialFolders[] = {
    {ZT4_IPM_SUBTREE_NAME, "Mail Client IPM Subtree"},
    {"Common Views", "Global View Restrictions"},
    {"Folder Views", "Folder View Restrictions"},
    {"Finder", "Search Results Folders"},
};
// The English names stand in when no localized one is known; the comments stay English.
const SKELETON_FOLDER kDefaultFolders[NUM_DEFAULT_FOLDERS] = {
    {"Deleted Items", "Discarded Messages Waste Basket"},
    {"Inbox", "Default Receive Folder"},
    {"Outbox", "Outgoing Client Queue"},
    {"Sent Items", "Already Sent Messages"},
};

// The localized name of a default folder, narrow.
HRESULT DefaultFolderName(ULONG ulIndex, std::string* pstrName) {
  LPCWSTR pwszName = CDefaultFolder::Instance().GetName(ulIndex);
  if (!pwszName || !*pwszName) {
    *pstrName = kDefaultFolders[ulIndex].pszName;
    return S_OK;
  }
  return ToNarrow(pwszName, pstrName);
}

// The exclusion table of the logon's CreateSubFolder: the four default names by pointer, padded
// so that the 100-byte stride search reads inside it (and finds nothing).
struct DEFAULT_NAME_TABLE {
  LPCSTR apszNames[NUM_DEFAULT_FOLDERS];
  BYTE abPadding[EXCLUDED_NAME_STRIDE * NUM_DEFAULT_FOLDERS];
};

// Binary search over cEntries narrow names EXCLUDED_NAME_STRIDE bytes apart.
BOOL IsExcludedName(const BYTE* pTable, ULONG cEntries, const std::string& strName) {
  ULONG ulLow = 0, ulHigh = cEntries;
  while (ulLow < ulHigh) {
    ULONG ulMid = ulLow + (ulHigh - ulLow) / 2;
    const char* pszEntry = reinterpret_cast<const char*>(pTable + size_t(ulMid) * EXCLUDED_NAME_STRIDE);
    int nCompare = strncmp(strName.c_str(), pszEntry, EXCLUDED_NAME_STRIDE);
    if (nCompare == 0) return TRUE;
    if (nCompare < 0)
      ulHigh = ulMid;
    else
      ulLow = ulMid + 1;
  }
  return FALSE;
}

// ----- the server path

HRESULT LoadObject(CBackEnd* pBEobj, const PRIVATE_EID& EID, std::unique_ptr<CPropList>* pList) {
  CPropList* pLoaded = NULL;
  HRESULT hr = pBEobj->OpenObject(EID, &pLoaded);
  pList->reset(pLoaded);
  return hr;
}

HRESULT BuildFolderPath(CBackEnd* pBEobj, const PRIVATE_EID& FolderEID, ULONG ulDepth, WString* pstrPath) {
  HRESULT hResult = S_OK;
  try {
    pstrPath->clear();
    if (ulDepth > MAX_FOLDER_DEPTH) {
      ZT4_LOG(ZT4_LEVEL_ERROR, "GetCompleteFolderName: The parent chain of folder %u does not end", FolderEID.dwObjID);
      throw static_cast<HRESULT>(MAPI_E_CORRUPT_DATA);
    }
    std::unique_ptr<CPropList> list;
    ZT4_CHECK(LoadObject(pBEobj, FolderEID, &list));
    WString strName = FindText(list.get(), PR_DISPLAY_NAME_W);
    // The server sees paths relative to the IPM subtree.
    if (strName.empty() || strName == WIDE(ZT4_IPM_SUBTREE_NAME) || strName == WIDE(ZT4_ROOT_FOLDER_NAME)) return S_OK;
    SPropValue spvParent;
    memset(&spvParent, 0, sizeof(spvParent));
    hResult = list->Find(PR_PARENT_ENTRYID, &spvParent, TRUE);
    if (hResult != S_OK || spvParent.Value.bin.cb != CB_PRIVATE_EID) throw static_cast<HRESULT>(MAPI_E_CORRUPT_DATA);
    PRIVATE_EID ParentEID;
    memcpy(&ParentEID, spvParent.Value.bin.lpb, CB_PRIVATE_EID);
    WString strParent;
    ZT4_CHECK(BuildFolderPath(pBEobj, ParentEID, ulDepth + 1, &strParent));
    *pstrPath = strParent.empty() ? strName : strParent + WIDE("\\") + strName;
  }
  ZT4_CATCH(hResult);
  return hResult;
}

// ----- deletion

void MarkOpenObjectsDeleted(COpenObjectList* pOpenObjects, BYTE bObjType, DWORD dwObjID) {
  if (!pOpenObjects) return;
  CGenericProp* pObject = pOpenObjects->Walk(bObjType, dwObjID, 0, NULL);
  while (pObject) {
    // Lock order: the object's lock alone; the open list's lock is not held here.
    pObject->Lock();
    pObject->m_ulObjFlags |= OBJFLAG_DELETED;
    pObject->Unlock();
    CGenericProp* pNext = pOpenObjects->Walk(bObjType, dwObjID, 1, pObject);
    pObject->GenericRelease();
    pObject = pNext;
  }
}

// The counts a folder delete lowers, in the folder's stored list and in its open object's list.
struct FOLDER_COUNTS {
  LONG lContent;
  LONG lUnread;
  LONG lAssociated;
};

HRESULT AppendNotification(DELETE_OBJECTS_DATA* pData, const DELETE_NOTIFICATION& note) {
  HANDLE hHeap = GetProcessHeap();
  SIZE_T cb = (SIZE_T(pData->cNotifications) + 1) * sizeof(DELETE_NOTIFICATION);
  LPVOID pv = pData->pNotifications ? HeapReAlloc(hHeap, HEAP_ZERO_MEMORY, pData->pNotifications, cb)
                                    : HeapAlloc(hHeap, HEAP_ZERO_MEMORY, cb);
  if (!pv) return E_OUTOFMEMORY;
  pData->pNotifications = static_cast<DELETE_NOTIFICATION*>(pv);
  pData->pNotifications[pData->cNotifications++] = note;
  return S_OK;
}

// A deleted folder's entry ID, for the caller's notifications.
HRESULT NoteDeletedFolder(DELETE_OBJECTS_DATA* pData, const PRIVATE_EID& FolderEID) {
  DELETE_NOTIFICATION note = {FolderEID.dwObjID, CB_PRIVATE_EID, NULL};
  HRESULT hr = PrivAllocate(CB_PRIVATE_EID, reinterpret_cast<LPVOID*>(&note.lpb), "Delete notification");
  if (FAILED(hr)) return hr;
  memcpy(note.lpb, &FolderEID, CB_PRIVATE_EID);
  hr = AppendNotification(pData, note);
  if (FAILED(hr)) PrivFree(&note.lpb);
  return hr;
}

}  // namespace

void FreeDeleteObjectsData(DELETE_OBJECTS_DATA* pData) {
  if (!pData) return;
  HANDLE hHeap = GetProcessHeap();
  if (pData->pNotifications) {
    for (ULONG i = pData->cNotifications; i; --i) PrivFree(&pData->pNotifications[i - 1].lpb);
    HeapFree(hHeap, 0, pData->pNotifications);
  }
  pData->pNotifications = NULL;
  pData->cNotifications = 0;
  if (pData->pObjects) HeapFree(hHeap, 0, pData->pObjects);
  pData->pObjects = NULL;
  pData->cObjects = 0;
}

// ---------------------------------------------------------------------------------------------
// Store open

decltype(sptRFSColumns) sptRFSColumns = {
    RFS_COLUMNS, {PR_INSTANCE_KEY, PR_ENTRYID, PR_RECORD_KEY, PR_MESSAGE_CLASS}};

decltype(sptHierarchyColumns) sptHierarchyColumns = {
    HIERARCHY_COLUMNS,
    {PR_INSTANCE_KEY, PR_ACCESS, PR_ENTRYID, PR_PARENT_ENTRYID, PR_STORE_ENTRYID, PR_STORE_RECORD_KEY, PR_RECORD_KEY,
     PR_MAPPING_SIGNATURE, PR_OBJECT_TYPE, PR_DEPTH, PR_FOLDER_TYPE, PR_DISPLAY_TYPE, PR_STATUS, PR_CONTENT_COUNT,
     PR_CONTENT_UNREAD, PR_ASSOC_CONTENT_COUNT, PR_SUBFOLDERS, PR_CREATION_TIME, PR_LAST_MODIFICATION_TIME,
     PR_DISPLAY_NAME_W, PR_COMMENT_W, PR_DEFAULT_VIEW_ENTRYID}};

namespace {

// Set at load: the first logon of the process rebuilds the store file.
BOOL g_fFirstLogon = TRUE;

// Clears g_fOpeningStore however OpenMsgStoreDataBase ends.
class COpeningStoreFlag {
 public:
  COpeningStoreFlag() { g_fOpeningStore = TRUE; }
  ~COpeningStoreFlag() { g_fOpeningStore = FALSE; }
  COpeningStoreFlag(const COpeningStoreFlag&) = delete;
  COpeningStoreFlag& operator=(const COpeningStoreFlag&) = delete;
};

// The log follows the data provider's configuration.
HRESULT ReadjustLogParameters(IZT4DataProvider* pProvider) {
  HRESULT hResult = S_OK;
  CComHolder<IZT4ProviderConfig> config;
  try {
    ZT4_CHECK(pProvider->raw_GetConfigurationParams(config.Out()));
    if (!config.Get()) return S_OK;
    LONG lLogSize = 0, lMaxFiles = 0;
    ZT4_CHECK(config->raw_LogSize(&lLogSize));
    ZT4_CHECK(config->raw_MaxFiles(&lMaxFiles));
    ZT4_LOG(ZT4_LEVEL_INFO, "Readjusting log parameters LogSize : %d  MaxFiles: %d ", lLogSize, lMaxFiles);
    GetTraceLogger().SetLogSize(lLogSize + 1);
    GetTraceLogger().SetMaxFiles(lMaxFiles);
  }
  ZT4_CATCH(hResult);
  return hResult;
}

// The data provider, the current user and the mailbox registration of a logon.
HRESULT PrepareDataProvider(LPCSTR szStoreName) {
  HRESULT hResult = S_OK;
  try {
    IZT4DataProvider* pProvider = GetDataProvider();
    if (!pProvider) {
      ZT4_LOG(ZT4_LEVEL_ERROR, "Initialize IZT4DataProvider failed");
      throw static_cast<HRESULT>(E_FAIL);
    }
    IZT4DataProviderPtr spProvider(pProvider);
    // A user already known (or none at all) doesn't stop the logon.
    HRESULT hrUser = QueryDefaultUserInfo();
    if (FAILED(hrUser)) ZT4_LOG(ZT4_LEVEL_INFO, "QueryDefaultUserInfo:%x", hrUser);
    _bstr_t bstrStore(szStoreName ? szStoreName : "");
    LPCSTR pszUser = GetCurrentUserName();
    _bstr_t bstrUser(pszUser ? pszUser : "");
    LONG lRegistered = 0;
    ZT4_CHECK(spProvider->raw_RegisterMailbox(bstrStore, bstrUser, &lRegistered));
    ZT4_CHECK(ReadjustLogParameters(pProvider));
  }
  ZT4_CATCH(hResult);
  return hResult;
}

// Opens the store file, or creates it: at the process's first logon (after deleting the old one)
// and whenever it can't be opened.
HRESULT OpenOrCreateStoreFile(LPCSTR szStorePath, LPCSTR szStoreName, LPCSTR szStoreComment, const MAPIUID* pUID,
                              BOOL fLogon, CDataBase** ppDB, MAPIUID* pFileUID, BOOL* pfNew, BOOL* pfCreated) {
  HRESULT hResult = S_OK;
  try {
    CHAR szName[DB_NAME_SIZE] = {}, szComment[DB_NAME_SIZE] = {};
    lstrcpynA(szName, szStoreName ? szStoreName : "", DB_NAME_SIZE);
    lstrcpynA(szComment, szStoreComment ? szStoreComment : "", DB_NAME_SIZE);
    *pFileUID = *pUID;
    HRESULT hrOpen = S_OK;
    if (!g_fFirstLogon || !fLogon) {
      hrOpen = CommonOpenFile(szStorePath, szName, szComment, pFileUID, ppDB, FALSE);
    } else {
      ZT4_LOG(ZT4_LEVEL_INFO, "First call...Delete the old file");
      DeleteFileA(szStorePath);
      g_fFirstLogon = FALSE;
      *pfNew = TRUE;
    }
    if (!*pfNew && SUCCEEDED(hrOpen)) return S_OK;
    if (FAILED(hrOpen)) {
      ZT4_LOG(ZT4_LEVEL_INFO, "Database file %s could not be found, error:%x, so create a new one", szStorePath,
              hrOpen);
      *pfNew = TRUE;
    }
    *pfCreated = TRUE;
    *pFileUID = *pUID;
    lstrcpynA(szName, szStoreName ? szStoreName : "", DB_NAME_SIZE);
    lstrcpynA(szComment, szStoreComment ? szStoreComment : "", DB_NAME_SIZE);
    hResult = CommonOpenFile(szStorePath, szName, szComment, pFileUID, ppDB, TRUE);
    if (FAILED(hResult)) {
      ZT4_LOG(ZT4_LEVEL_ERROR, "Failed to create the database file: %s, error:%x", szStorePath, hResult);
      throw static_cast<HRESULT>(hResult);
    }
  }
  ZT4_CATCH(hResult);
  return hResult;
}

// The folders of a new store: the message class "IPM" bound to its folder, the skeleton, and the
// server's folders below the IPM subtree.
HRESULT BuildFolderHierarchy(CFileBackEnd* pBE) {
  HRESULT hResult = S_OK;
  try {
    PRIVATE_EID RootEID = MakeEID(pBE->GetStoreGuid(), MAPI_FOLDER, IPM_ROOT_RECORD);
    ZT4_CHECK(pBE->SetRFSEntryID("IPM", RootEID, NULL));
    ZT4_LOG(ZT4_LEVEL_INFO, "Create the special folders");
    PRIVATE_EID IPMSubtreeEID;
    memset(&IPMSubtreeEID, 0, sizeof(IPMSubtreeEID));
    ZT4_CHECK(pBE->CreateSpecialFolders(&IPMSubtreeEID));
    ZT4_LOG(ZT4_LEVEL_INFO, "Create the sub folders");
    std::string astrNames[NUM_DEFAULT_FOLDERS];
    DEFAULT_NAME_TABLE table;
    memset(&table, 0, sizeof(table));
    for (ULONG i = 0; i < NUM_DEFAULT_FOLDERS; ++i) {
      ZT4_CHECK(DefaultFolderName(i, &astrNames[i]));
      table.apszNames[i] = astrNames[i].c_str();
    }
    ZT4_CHECK(pBE->CreateSubFolder(IPMSubtreeEID, reinterpret_cast<const BYTE*>(&table), NUM_DEFAULT_FOLDERS));
  }
  ZT4_CATCH(hResult);
  return hResult;
}

}  // namespace

void ResetFirstLogon() { g_fFirstLogon = TRUE; }

HRESULT OpenMsgStoreDataBase(LPMAPISUP pPrivSupObj, LPCSTR szStorePath, LPCSTR szStoreName, LPCSTR szStoreComment,
                             const MAPIUID* pUID, BOOL /*fUnused*/, CBackEnd** ppBEobj, BOOL fLogon) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  COpeningStoreFlag opening;
  BOOL fCreated = FALSE;
  CFileBackEnd* pBE = NULL;
  try {
    ZT4_CHECK_NULL(ppBEobj, MAPI_E_INVALID_PARAMETER);
    *ppBEobj = NULL;
    ZT4_CHECK_NULL(szStorePath, MAPI_E_INVALID_PARAMETER);
    ZT4_CHECK_NULL(pUID, MAPI_E_INVALID_PARAMETER);
    if (fLogon) ZT4_CHECK(PrepareDataProvider(szStoreName));
    CDataBase* pDB = NULL;
    MAPIUID uidFile;
    BOOL fNew = FALSE;
    ZT4_CHECK(OpenOrCreateStoreFile(szStorePath, szStoreName, szStoreComment, pUID, fLogon, &pDB, &uidFile, &fNew,
                                    &fCreated));
    pBE = new (std::nothrow) CFileBackEnd(pDB, &uidFile, pPrivSupObj);
    pDB->Release();  // the back end holds its own
    ZT4_CHECK_NULL(pBE, E_OUTOFMEMORY);
    if (fLogon) {
      ZT4_LOG(ZT4_LEVEL_INFO, "This is a logon call so create the folder hierarchy");
      if (fNew) ZT4_CHECK(BuildFolderHierarchy(pBE));
    }
    *ppBEobj = pBE;
    pBE = NULL;
  }
  ZT4_CATCH(hResult);
  if (FAILED(hResult)) {
    if (pBE) pBE->Release();
    if (fCreated) DeleteFileA(szStorePath);
    ZT4_LOG(ZT4_LEVEL_ERROR, "OpenMsgStoreDataBase:%x", hResult);
  }
  return hResult;
}

// ---------------------------------------------------------------------------------------------
// Object create and open

HRESULT CFileBackEnd::CreateObject(PRIVATE_EID ParentEID, LPPRIVATE_EID pNewEID, CPropList** ppList, ULONG ulObjType,
                                   LPCSTR pszName, LPCSTR pszComment, LPUNKNOWN /*pUnknown*/) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  if (ulObjType != MAPI_MESSAGE && ulObjType != MAPI_FOLDER && ulObjType != MAPI_ATTACH) {
    ZT4_LOG(ZT4_LEVEL_DETAIL, "CFileBackEnd::CreateObject: Invalid object to create");
    return MAPI_E_NO_SUPPORT;
  }
  if (!IsValidEntryID(&ParentEID)) {
    ZT4_LOG(ZT4_LEVEL_DETAIL, "CFileBackEnd::CreateObject: Invalid parent entry ID");
    return MAPI_E_INVALID_ENTRYID;
  }
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock.
  CBackEndLock lock(m_cs);
  try {
    ZT4_CHECK_NULL(pNewEID, MAPI_E_INVALID_PARAMETER);
    ZT4_CHECK_NULL(m_pDBobj, E_UNEXPECTED);
    if (ppList) *ppList = NULL;
    *pNewEID = MakeEID(m_guidStore, static_cast<BYTE>(ulObjType), 0);
    ZT4_CHECK(m_pDBobj->CreateEmptyRecord(&pNewEID->dwObjID));
    if (ulObjType == MAPI_FOLDER) {
      hResult = CreateFolderObject(*pNewEID, ParentEID, pszName, pszComment ? pszComment : "", ppList);
      if (hResult == MAPI_E_COLLISION) throw static_cast<HRESULT>(hResult);  // the reserved ID stays unused
      ZT4_CHECK(hResult);
      hResult = UpdateFolderCount(ParentEID, *pNewEID);
      if (FAILED(hResult)) {
        if (ppList) {
          delete *ppList;
          *ppList = NULL;
        }
        DeleteFolderStorage(ParentEID.dwObjID, pNewEID->dwObjID);
        ZT4_CHECK(hResult);
      }
    } else {
      // Messages and attachments take their first properties from InitMessageProps and
      // InitAttachProps, which come with the message property mapping; until then they are
      // refused here, after the same checks.
      throw static_cast<HRESULT>(MAPI_E_NO_SUPPORT);
    }
  }
  ZT4_CATCH(hResult);
  if (hResult != MAPI_E_COLLISION) ZT4_LOG_FAILURE("CFileBackEnd::CreateObject", hResult);
  return hResult;
}

HRESULT CFileBackEnd::OpenObject(PRIVATE_EID EID, CPropList** ppList) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock.
  CBackEndLock lock(m_cs);
  CStreamHolder stream;
  try {
    ZT4_CHECK_NULL(ppList, MAPI_E_INVALID_PARAMETER);
    *ppList = NULL;
    hResult = GetStream(EID.dwObjID, RECFLD_PROPERTIES, stream.Out(), FALSE, TRUE);
    if (FAILED(hResult)) throw static_cast<HRESULT>(hResult);  // MAPI_E_NOT_FOUND is an answer, not a fault
    ZT4_CHECK(LoadProperties(stream.Get(), ppList));
  }
  ZT4_CATCH(hResult);
  ZT4_LOG(ZT4_LEVEL_INFO, "CFileBackEnd::OpenObject:%x", hResult);
  return hResult;
}

// ---------------------------------------------------------------------------------------------
// The folder hierarchy

HRESULT CFileBackEnd::CreateSpecialFolders(LPPRIVATE_EID pIPMSubtreeEID) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock.
  CBackEndLock lock(m_cs);
  try {
    ZT4_CHECK_NULL(pIPMSubtreeEID, MAPI_E_INVALID_PARAMETER);
    ZT4_CHECK_NULL(m_pDBobj, E_UNEXPECTED);
    // The root keeps the fixed record the store's root entry ID names, so the folders below it
    // take the first numbers a new file hands out: 1 the IPM subtree, 2 to 5 the default folders,
    // 6 to 8 the other special folders, as the store's special-folder entry IDs expect.
    PRIVATE_EID RootEID = MakeEID(m_guidStore, MAPI_FOLDER, ROOT_FOLDER_RECORD);
    ZT4_CHECK(SaveRootFolder(RootEID));
    for (ULONG i = 0; i < sizeof(kSpecialFolders) / sizeof(kSpecialFolders[0]); ++i) {
      PRIVATE_EID FolderEID;
      ZT4_CHECK(CreateSkeletonFolder(RootEID, kSpecialFolders[i].pszName, kSpecialFolders[i].pszComment, &FolderEID));
      if (i != 0) continue;
      // The default folders come right after the IPM subtree, before the other special ones.
      *pIPMSubtreeEID = FolderEID;
      for (ULONG iDefault = 0; iDefault < NUM_DEFAULT_FOLDERS; ++iDefault) {
        std::string strName;
        ZT4_CHECK(DefaultFolderName(iDefault, &strName));
        PRIVATE_EID DefaultEID;
        ZT4_CHECK(CreateSkeletonFolder(FolderEID, strName.c_str(), kDefaultFolders[iDefault].pszComment, &DefaultEID));
      }
    }
  }
  ZT4_CATCH(hResult);
  if (hResult != S_OK && hResult != MAPI_W_ERRORS_RETURNED)
    ZT4_LOG(ZT4_LEVEL_ERROR, "CFileBackEnd::CreateSpecialFolders:%x", hResult);
  return hResult;
}

HRESULT CFileBackEnd::SaveRootFolder(const PRIVATE_EID& RootEID) {
  HRESULT hResult = S_OK;
  CStreamHolder stream;
  try {
    WString strName, strComment;
    ZT4_CHECK(ToWide(kRootFolder.pszName, &strName));
    ZT4_CHECK(ToWide(kRootFolder.pszComment, &strComment));
    CPropList* pList = NULL;
    // The root is its own parent: the path builder stops at its name before looking further.
    ZT4_CHECK(InitFolderProps(RootEID, strName.c_str(), strComment.c_str(), &pList));
    std::unique_ptr<CPropList> list(pList);
    ZT4_CHECK(GetStream(RootEID.dwObjID, RECFLD_PROPERTIES, stream.Out(), TRUE, FALSE));
    ZT4_CHECK(list->SaveToStream(stream.Get()));
  }
  ZT4_CATCH(hResult);
  return hResult;
}

HRESULT CFileBackEnd::CreateSkeletonFolder(const PRIVATE_EID& ParentEID, LPCSTR pszName, LPCSTR pszComment,
                                           LPPRIVATE_EID pFolderEID) {
  CPropList* pList = NULL;
  HRESULT hr = CreateObject(ParentEID, pFolderEID, &pList, MAPI_FOLDER, pszName, pszComment, NULL);
  delete pList;
  return hr;
}

HRESULT CFileBackEnd::CreateFolderObject(PRIVATE_EID NewEID, PRIVATE_EID ParentEID, LPCSTR pszName, LPCSTR pszComment,
                                         CPropList** ppList) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock.
  CBackEndLock lock(m_cs);
  BOOL fNameAdded = FALSE, fRecordMade = FALSE;
  try {
    if (ppList) *ppList = NULL;
    ZT4_CHECK_NULL(pszName, MAPI_E_INVALID_PARAMETER);
    WString strName, strComment;
    ZT4_CHECK(ToWide(pszName, &strName));
    ZT4_CHECK(ToWide(pszComment, &strComment));
    if (strName.empty() || strName.size() * sizeof(WCHAR) >= FLDNAME_MAX_BYTES)
      throw static_cast<HRESULT>(MAPI_E_INVALID_PARAMETER);
    std::unique_ptr<CPropList> parentList;
    hResult = LoadObject(this, ParentEID, &parentList);
    if (FAILED(hResult)) throw static_cast<HRESULT>(hResult);
    DWORD dwObjID = NewEID.dwObjID;
    hResult = CheckFldNameCollision(ParentEID.dwObjID, strName.c_str(), &dwObjID, FLDNAME_ADD);
    if (hResult == MAPI_E_COLLISION) throw static_cast<HRESULT>(hResult);
    ZT4_CHECK(hResult);
    fNameAdded = TRUE;
    CPropList* pList = NULL;
    ZT4_CHECK(InitFolderProps(ParentEID, strName.c_str(), strComment.c_str(), &pList));
    std::unique_ptr<CPropList> list(pList);
    {
      CStreamHolder stream;
      ZT4_CHECK(GetStream(NewEID.dwObjID, RECFLD_PROPERTIES, stream.Out(), TRUE, FALSE));
      fRecordMade = TRUE;
      ZT4_CHECK(list->SaveToStream(stream.Get()));
    }
    ZT4_CHECK(SetSubfoldersFlag(ParentEID.dwObjID, parentList.get()));
    if (ppList) *ppList = list.release();
  }
  ZT4_CATCH(hResult);
  if (FAILED(hResult) && hResult != MAPI_E_COLLISION) {
    if (fRecordMade) m_pDBobj->DeleteRecord(NewEID.dwObjID);
    if (fNameAdded) DeleteFolderNameInParent(ParentEID.dwObjID, NewEID.dwObjID);
    ZT4_LOG_FAILURE("CFileBackEnd::CreateFolderObject", hResult);
  }
  return hResult;
}

// A parent that had no subfolders has one now.
HRESULT CFileBackEnd::SetSubfoldersFlag(DWORD dwParentID, CPropList* pParentList) {
  SPropValue spvSub;
  memset(&spvSub, 0, sizeof(spvSub));
  if (pParentList->Find(PR_SUBFOLDERS, &spvSub, TRUE) == S_OK && spvSub.Value.b) return S_OK;
  HRESULT hResult = S_OK;
  CStreamHolder stream;
  try {
    spvSub.ulPropTag = PR_SUBFOLDERS;
    spvSub.Value.b = TRUE;
    ZT4_CHECK(pParentList->Insert(&spvSub));
    ZT4_CHECK(GetStream(dwParentID, RECFLD_PROPERTIES, stream.Out(), FALSE));
    ZT4_CHECK(pParentList->SaveToStream(stream.Get()));
  }
  ZT4_CATCH(hResult);
  return hResult;
}

HRESULT CFileBackEnd::UpdateFolderCount(PRIVATE_EID ParentEID, PRIVATE_EID FolderEID) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock.
  CBackEndLock lock(m_cs);
  try {
    CIDList ids;
    ZT4_CHECK(LoadListOrEmpty(ParentEID.dwObjID, RECFLD_CHILDREN, &ids));
    ZT4_CHECK(ids.Insert(FolderEID.dwObjID));
    ZT4_CHECK(SaveIDList(ParentEID.dwObjID, RECFLD_CHILDREN, &ids));
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CFileBackEnd::UpdateFolderCount", hResult);
  return hResult;
}

HRESULT CFileBackEnd::CreateSubFolder(PRIVATE_EID ParentEID, const BYTE* pExcluded, ULONG cExcluded) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  HRESULT hrFirstFailure = S_OK;
  SAFEARRAY* psaNames = NULL;
  try {
    IZT4DataProvider* pProvider = GetDataProvider();
    LPCSTR pszSMTP = GetCurrentUserSMTPAddress();
    if (!pProvider || !pszSMTP || !*pszSMTP) return S_OK;
    IZT4DataProviderPtr spProvider(pProvider);
    BSTR bstrPath = NULL;
    ZT4_CHECK(GetCompleteFolderName(this, ParentEID, &bstrPath));
    _bstr_t bstrFolder(bstrPath, false);
    _bstr_t bstrSMTP(pszSMTP);
    // No lock of ours is held across the data provider's call.
    if (FAILED(spProvider->raw_GetFolderNames(bstrFolder, bstrSMTP, &psaNames))) {
      ZT4_LOG(ZT4_LEVEL_INFO, "spProvider->GetFolderNames failed");
      return S_OK;
    }
    if (!psaNames) return S_OK;
    LONG lLower = 0, lUpper = -1;
    ZT4_CHECK(SafeArrayGetLBound(psaNames, 1, &lLower));
    ZT4_CHECK(SafeArrayGetUBound(psaNames, 1, &lUpper));
    for (LONG l = lLower; l <= lUpper; ++l) {
      BSTR bstrName = NULL;
      ZT4_CHECK(SafeArrayGetElement(psaNames, &l, &bstrName));
      _bstr_t name(bstrName, false);
      HRESULT hrName = CreateServerFolder(ParentEID, name, pExcluded, cExcluded);
      if (FAILED(hrName) && SUCCEEDED(hrFirstFailure)) hrFirstFailure = hrName;
    }
    hResult = hrFirstFailure;
  }
  ZT4_CATCH(hResult);
  if (psaNames) SafeArrayDestroy(psaNames);
  ZT4_LOG_FAILURE("CFileBackEnd::CreateSubFolder", hResult);
  return hResult;
}

// One server folder below ParentEID, and its own server children.
HRESULT CFileBackEnd::CreateServerFolder(const PRIVATE_EID& ParentEID, BSTR bstrName, const BYTE* pExcluded,
                                         ULONG cExcluded) {
  std::string strName;
  HRESULT hResult = ToNarrow(bstrName, &strName);
  if (FAILED(hResult)) return hResult;
  // The exclusion table is tried first: a name found there is not even offered.
  if (pExcluded && IsExcludedName(pExcluded, cExcluded, strName)) return S_OK;
  PRIVATE_EID NewEID;
  CPropList* pList = NULL;
  hResult = CreateObject(ParentEID, &NewEID, &pList, MAPI_FOLDER, strName.c_str(), NULL, NULL);
  delete pList;
  if (hResult == MAPI_E_COLLISION) {
    ZT4_LOG(ZT4_LEVEL_INFO, "CFileBackEnd::CreateSubFolder This folder has been already created:%s", strName.c_str());
    return S_OK;
  }
  if (FAILED(hResult)) return hResult;
  return CreateSubFolder(NewEID, NULL, 0);
}

HRESULT CFileBackEnd::FillHierarchyTable(PRIVATE_EID FolderEID, LPTABLEDATA pTable, LONG lAccess,
                                         const SBinary* pStoreEID) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock.
  CBackEndLock lock(m_cs);
  try {
    ZT4_CHECK_NULL(pTable, MAPI_E_INVALID_PARAMETER);
    CIDList children;
    hResult = LoadIDList(FolderEID.dwObjID, RECFLD_CHILDREN, &children);
    if (hResult == MAPI_E_NOT_FOUND) return S_OK;  // no children
    ZT4_CHECK(hResult);
    // Folders new on the server appear one level below the children.
    for (DWORD dwID = children.GetFirst(); dwID; dwID = children.GetNext()) {
      std::unique_ptr<CPropList> list;
      HRESULT hrChild = LoadObject(this, MakeFolderEID(dwID), &list);
      if (SUCCEEDED(hrChild)) hrChild = CreateSubFolder(MakeFolderEID(dwID), NULL, 0);
      if (FAILED(hrChild))
        ZT4_LOG(ZT4_LEVEL_ERROR, "CFileBackEnd::FillHierarchyTable: An error occurred while adding an entry:%x", hrChild);
    }
    ZT4_CHECK(LoadIDList(FolderEID.dwObjID, RECFLD_CHILDREN, &children));
    for (DWORD dwID = children.GetFirst(); dwID; dwID = children.GetNext()) {
      std::unique_ptr<CPropList> list;
      HRESULT hrChild = LoadObject(this, MakeFolderEID(dwID), &list);
      if (SUCCEEDED(hrChild))
        hrChild = GetHierarchyTableProps(this, MakeFolderEID(dwID), list.get(), lAccess, HIERARCHY_ROW_FOLDER_TYPE,
                                         pStoreEID, pTable);
      if (FAILED(hrChild))
        ZT4_LOG(ZT4_LEVEL_ERROR, "CFileBackEnd::FillHierarchyTable: An error occurred while adding an entry:%x", hrChild);
    }
    hResult = S_OK;
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CFileBackEnd::FillHierarchyTable", hResult);
  return hResult;
}

// Loads a list of IDs; MAPI_E_NOT_FOUND (quiet) when the field doesn't exist, with *pIDs empty.
HRESULT CFileBackEnd::LoadIDList(DWORD dwRecordID, RECFLD rfField, CIDList* pIDs) {
  pIDs->Clear();
  CStreamHolder stream;
  HRESULT hr = GetStream(dwRecordID, rfField, stream.Out(), FALSE);
  if (FAILED(hr)) return hr;
  return pIDs->LoadFromStream(stream.Get());
}

HRESULT CFileBackEnd::SaveIDList(DWORD dwRecordID, RECFLD rfField, CIDList* pIDs) {
  CStreamHolder stream;
  HRESULT hr = GetStream(dwRecordID, rfField, stream.Out(), TRUE);
  if (FAILED(hr)) return hr;
  return pIDs->SaveToStream(stream.Get());
}

HRESULT CFileBackEnd::GetTable(ULONG ulType, PRIVATE_EID ContainerEID, LONG lAccess, LPVOID pStoreEID, LPVOID /*pvFlag*/,
                               LPTABLEDATA* ppTable, LONG, LONG, BOOL, LPENTRYLIST, LPVOID, BOOL) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  // Contents, attachment and recipient tables come with the work that fills them.
  if (ulType != TABLE_HIERARCHY && ulType != TABLE_RECEIVE_FOLDERS) return MAPI_E_NO_SUPPORT;
  HRESULT hResult = S_OK;
  CComHolder<ITableData> table;
  try {
    ZT4_CHECK_NULL(ppTable, MAPI_E_INVALID_PARAMETER);
    *ppTable = NULL;
    // The store asks for its receive-folder table without an entry ID of a folder.
    if (ulType != TABLE_RECEIVE_FOLDERS && !IsValidEntryID(&ContainerEID))
      throw static_cast<HRESULT>(MAPI_E_INVALID_ENTRYID);
    const void* pColumns = ulType == TABLE_HIERARCHY ? static_cast<const void*>(&sptHierarchyColumns)
                                                     : static_cast<const void*>(&sptRFSColumns);
    LPALLOCATEMORE pfnMore = GetMAPIAllocMore() ? GetMAPIAllocMore() : MAPIAllocateMore;
    ZT4_CHECK(CreateTable(&IID_IMAPITableData, StreamAllocateBuffer(), pfnMore, StreamFreeBuffer(), NULL,
                          TBLTYPE_DYNAMIC, PR_INSTANCE_KEY,
                          const_cast<LPSPropTagArray>(static_cast<const SPropTagArray*>(pColumns)), table.Out()));
    if (ulType == TABLE_HIERARCHY)
      ZT4_CHECK(FillHierarchyTable(ContainerEID, table.Get(), lAccess, static_cast<const SBinary*>(pStoreEID)));
    else
      ZT4_CHECK(GetRFSTableData(table.Get()));
    *ppTable = table.Detach();
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CFileBackEnd::GetTable", hResult);
  return hResult;
}

HRESULT GetHierarchyTableProps(CBackEnd* pBEobj, const PRIVATE_EID& FolderEID, CPropList* pList, LONG lAccess,
                               LONG lFolderType, const SBinary* pStoreEID, LPTABLEDATA pTable) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  try {
    ZT4_CHECK_NULL(pBEobj, MAPI_E_INVALID_PARAMETER);
    ZT4_CHECK_NULL(pList, MAPI_E_INVALID_PARAMETER);
    ZT4_CHECK_NULL(pTable, MAPI_E_INVALID_PARAMETER);
    DWORD dwInstanceKey = FolderEID.dwObjID;
    MAPIUID guid = pBEobj->GetStoreGuid();
    LPBYTE pbEID = reinterpret_cast<LPBYTE>(const_cast<PRIVATE_EID*>(&FolderEID));
    SPropValue spvRow[HIERARCHY_COLUMNS];
    memset(spvRow, 0, sizeof(spvRow));
    ULONG i = 0;
    auto putBinary = [&](ULONG ulPropTag, ULONG cb, LPBYTE lpb) {
      spvRow[i].ulPropTag = ulPropTag;
      spvRow[i].Value.bin.cb = cb;
      spvRow[i++].Value.bin.lpb = lpb;
    };
    auto putLong = [&](ULONG ulPropTag, LONG l) {
      spvRow[i].ulPropTag = ulPropTag;
      spvRow[i++].Value.l = l;
    };
    auto putStored = [&](ULONG ulPropTag) { pList->Find(ulPropTag, &spvRow[i++], TRUE); };  // PT_ERROR when missing
    putBinary(PR_INSTANCE_KEY, sizeof(dwInstanceKey), reinterpret_cast<LPBYTE>(&dwInstanceKey));
    putLong(PR_ACCESS, lAccess);
    putBinary(PR_ENTRYID, CB_PRIVATE_EID, pbEID);
    putStored(PR_PARENT_ENTRYID);
    if (pStoreEID)
      putBinary(PR_STORE_ENTRYID, pStoreEID->cb, pStoreEID->lpb);
    else
      putStored(PR_STORE_ENTRYID);  // not in a folder's list: an error value
    putBinary(PR_STORE_RECORD_KEY, sizeof(guid), reinterpret_cast<LPBYTE>(&guid));
    putBinary(PR_RECORD_KEY, CB_PRIVATE_EID, pbEID);
    putBinary(PR_MAPPING_SIGNATURE, sizeof(guid), reinterpret_cast<LPBYTE>(&guid));
    putLong(PR_OBJECT_TYPE, MAPI_FOLDER);
    putLong(PR_DEPTH, 1);
    putLong(PR_FOLDER_TYPE, lFolderType);
    putLong(PR_DISPLAY_TYPE, 0x01000000);
    for (ULONG ulPropTag : {PR_STATUS, PR_CONTENT_COUNT, PR_CONTENT_UNREAD, PR_ASSOC_CONTENT_COUNT, PR_SUBFOLDERS,
                            PR_CREATION_TIME, PR_LAST_MODIFICATION_TIME, PR_DISPLAY_NAME_W, PR_COMMENT_W,
                            PR_DEFAULT_VIEW_ENTRYID})
      putStored(ulPropTag);
    ZT4_ASSERT(i == HIERARCHY_COLUMNS);
    SRow srRow = {0, i, spvRow};
    ZT4_CHECK(pTable->HrModifyRow (&srRow));
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("GetHierarchyTableProps", hResult);
  return hResult;
}

HRESULT GetCompleteFolderName(CBackEnd* pBEobj, const PRIVATE_EID& FolderEID, BSTR* pbstrName) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  try {
    ZT4_CHECK_NULL(pbstrName, MAPI_E_INVALID_PARAMETER);
    *pbstrName = NULL;
    ZT4_CHECK_NULL(pBEobj, MAPI_E_INVALID_PARAMETER);
    WString strPath;
    ZT4_CHECK(BuildFolderPath(pBEobj, FolderEID, 0, &strPath));
    *pbstrName = SysAllocStringLen(strPath.data(), static_cast<UINT>(strPath.size()));
    ZT4_CHECK_NULL(*pbstrName, E_OUTOFMEMORY);
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("GetCompleteFolderName", hResult);
  return hResult;
}

BOOL IsIPMSubtree(CBackEnd* pBEobj, const PRIVATE_EID& FolderEID) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  if (!pBEobj) return FALSE;
  std::unique_ptr<CPropList> list;
  if (FAILED(LoadObject(pBEobj, FolderEID, &list)) || !list) return FALSE;
  return FindText(list.get(), PR_DISPLAY_NAME_W) == WIDE(ZT4_IPM_SUBTREE_NAME);
}

// ---------------------------------------------------------------------------------------------
// Subfolder names

HRESULT CFileBackEnd::CheckFldNameCollision(DWORD dwParentID, LPCWSTR pszName, DWORD* pdwObjID, ULONG ulFlags) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock.
  CBackEndLock lock(m_cs);
  CStreamHolder stream;
  try {
    ZT4_CHECK_NULL(pdwObjID, MAPI_E_INVALID_PARAMETER);
    if (!pszName && !(ulFlags & FLDNAME_REMOVE)) throw static_cast<HRESULT>(MAPI_E_INVALID_PARAMETER);
    ZT4_CHECK(GetStream(dwParentID, RECFLD_NAMES, stream.Out()));
    ULONG cCount = 0;
    std::vector<FOLDER_NAME> names;
    ZT4_CHECK(ReadFolderNames(stream.Get(), &cCount, &names));
    if (pszName) {
      // Exact, wide character by wide character: case counts.
      for (const FOLDER_NAME& entry : names) {
        if (entry.strName != pszName) continue;
        *pdwObjID = entry.dwObjID;
        throw static_cast<HRESULT>(MAPI_E_COLLISION);
      }
    }
    if (ulFlags & FLDNAME_ADD) {
      WString strName(pszName);
      if (strName.size() * sizeof(WCHAR) >= FLDNAME_MAX_BYTES) throw static_cast<HRESULT>(MAPI_E_INVALID_PARAMETER);
      names.push_back(FOLDER_NAME{*pdwObjID, std::move(strName)});
      ZT4_CHECK(WriteFolderNames(stream.Get(), cCount + 1, names));
    } else if (ulFlags & FLDNAME_REMOVE) {
      auto it = std::find_if(names.begin(), names.end(), [&](const FOLDER_NAME& e) { return e.dwObjID == *pdwObjID; });
      if (it != names.end()) {
        names.erase(it);
        ZT4_CHECK(WriteFolderNames(stream.Get(), cCount, names));  // the count word as it stands
      }
    }
  }
  ZT4_CATCH(hResult);
  stream.Reset();
  if (hResult != MAPI_E_COLLISION) ZT4_LOG_FAILURE("CFileBackEnd::CheckFldNameCollision", hResult);
  return hResult;
}

HRESULT CFileBackEnd::SetObjNameInContainer(LPCSTR pszName, PRIVATE_EID ParentEID, PRIVATE_EID ObjectEID) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock.
  CBackEndLock lock(m_cs);
  try {
    ZT4_CHECK_NULL(pszName, MAPI_E_INVALID_PARAMETER);
    WString strName;
    ZT4_CHECK(ToWide(pszName, &strName));
    DWORD dwObjID = ObjectEID.dwObjID;
    hResult = CheckFldNameCollision(ParentEID.dwObjID, strName.c_str(), &dwObjID, FLDNAME_CHECK);
    if (hResult == MAPI_E_COLLISION) {
      // The object's own name: nothing changes.
      if (dwObjID == ObjectEID.dwObjID) return S_OK;
      throw static_cast<HRESULT>(hResult);
    }
    ZT4_CHECK(hResult);
    // The old entry goes; the new name is entered by nobody here, and the count word stays.
    dwObjID = ObjectEID.dwObjID;
    ZT4_CHECK(CheckFldNameCollision(ParentEID.dwObjID, strName.c_str(), &dwObjID, FLDNAME_REMOVE));
  }
  ZT4_CATCH(hResult);
  if (hResult != MAPI_E_COLLISION) ZT4_LOG_FAILURE("CFileBackEnd::SetObjNameInContainer", hResult);
  return hResult;
}

HRESULT CFileBackEnd::DeleteFolderNameInParent(DWORD dwParentID, DWORD dwFolderID) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock.
  CBackEndLock lock(m_cs);
  CStreamHolder stream;
  try {
    ZT4_CHECK(GetStream(dwParentID, RECFLD_NAMES, stream.Out()));
    ULONG cCount = 0;
    std::vector<FOLDER_NAME> names;
    ZT4_CHECK(ReadFolderNames(stream.Get(), &cCount, &names));
    ZT4_ASSERT(cCount != 0);
    auto it = std::find_if(names.begin(), names.end(), [&](const FOLDER_NAME& e) { return e.dwObjID == dwFolderID; });
    if (it != names.end()) names.erase(it);
    ZT4_CHECK(WriteFolderNames(stream.Get(), cCount ? cCount - 1 : 0, names));
  }
  ZT4_CATCH(hResult);
  stream.Reset();
  ZT4_LOG_FAILURE("CFileBackEnd::DeleteFolderNameInParent", hResult);
  return hResult;
}

// ---------------------------------------------------------------------------------------------
// Delete

HRESULT CFileBackEnd::DeleteOneObject(LPPRIVATE_EID lpId, PRIVATE_EID ParentEID) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock. Taken here because the dedup
  // cache's timer thread calls in too.
  CBackEndLock lock(m_cs);
  try {
    ZT4_CHECK_NULL(lpId, MAPI_E_INVALID_PARAMETER);
    ZT4_CHECK_NULL(m_pDBobj, E_UNEXPECTED);
    switch (lpId->bObjType) {
      case 0:  // a bare record, such as a recipient's
        hResult = m_pDBobj->DeleteRecord(lpId->dwObjID);
        if (FAILED(hResult)) throw static_cast<HRESULT>(hResult);
        break;
      case MAPI_FOLDER:
        ZT4_CHECK(DeleteFolderStorage(ParentEID.dwObjID, lpId->dwObjID));
        break;
      case MAPI_MESSAGE:
        // Each part goes as far as it can; what is already gone is what was wanted.
        DeleteMessageAttachmentsStreams(lpId->dwObjID);
        DeleteMessageRecipientsStreams(lpId->dwObjID);
        DeleteLargePropsStreams(lpId->dwObjID);
        m_pDBobj->DeleteRecord(lpId->dwObjID);
        // With the in-memory object database the message also leaves its folder's cached list
        // there; that database comes with later work.
        hResult = S_OK;
        break;
      default:
        throw static_cast<HRESULT>(E_FAIL);
    }
  }
  ZT4_CATCH(hResult);
  if (hResult != MAPI_E_NOT_FOUND) ZT4_LOG_FAILURE("CFileBackEnd::DeleteOneObject", hResult);
  return hResult;
}

HRESULT CFileBackEnd::DeleteObjects(PRIVATE_EID ParentEID, ULONG ulFlags, DWORD dwObjID, DELETE_OBJECTS_DATA* pData) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock.
  CBackEndLock lock(m_cs);
  try {
    if (ulFlags & (DELOBJ_MESSAGES | DELOBJ_FOLDERS)) {
      ZT4_CHECK_NULL(pData, MAPI_E_INVALID_PARAMETER);
      hResult = DeleteFolderContents(ParentEID, pData);
      // The folder reports one code for every way this can fail.
      if (FAILED(hResult)) throw static_cast<HRESULT>(DELOBJ_E_FOLDER_CONTENTS);
    }
    if (ulFlags & DELOBJ_ATTACHMENT) ZT4_CHECK(DeleteMessageAttachment(ParentEID.dwObjID, dwObjID));
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CFileBackEnd::DeleteObjects", hResult);
  return hResult;
}

HRESULT CFileBackEnd::DeleteFolderStorage(DWORD dwParentID, DWORD dwFolderID) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock.
  CBackEndLock lock(m_cs);
  try {
    DeleteFolderNameInParent(dwParentID, dwFolderID);
    CIDList children;
    ZT4_CHECK(LoadListOrEmpty(dwParentID, RECFLD_CHILDREN, &children));
    children.Remove(dwFolderID);
    ZT4_CHECK(SaveIDList(dwParentID, RECFLD_CHILDREN, &children));
    if (children.GetNodeCount() == 0) ClearSubfolders(dwParentID);
    m_pDBobj->DeleteRecord(dwFolderID);
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CFileBackEnd::DeleteFolderStorage", hResult);
  // What could be removed is removed; the caller has no better course for the rest.
  return S_OK;
}

// The folder has no subfolders left.
HRESULT CFileBackEnd::ClearSubfolders(DWORD dwFolderID) {
  HRESULT hResult = S_OK;
  CStreamHolder stream;
  try {
    hResult = GetStream(dwFolderID, RECFLD_PROPERTIES, stream.Out(), FALSE);
    if (hResult == MAPI_E_NOT_FOUND) return S_OK;
    ZT4_CHECK(hResult);
    CPropList* pList = NULL;
    ZT4_CHECK(LoadProperties(stream.Get(), &pList));
    std::unique_ptr<CPropList> list(pList);
    ZT4_CHECK(InsertSubfolderState(list.get(), FALSE));
    ZT4_CHECK(list->SaveToStream(stream.Get()));
  }
  ZT4_CATCH(hResult);
  return hResult;
}

HRESULT CFileBackEnd::DeleteMessageAttachment(DWORD dwMessageID, DWORD dwAttachID) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock.
  CBackEndLock lock(m_cs);
  CStreamHolder stream;
  try {
    hResult = GetStream(dwMessageID, RECFLD_CONTENTS, stream.Out(), FALSE);
    if (FAILED(hResult)) throw static_cast<HRESULT>(hResult);
    CIDList ids;
    ZT4_CHECK(ids.LoadFromStream(stream.Get()));
    // The attachment's own large properties are not touched here.
    HRESULT hrRecord = m_pDBobj->DeleteRecord(dwAttachID);
    HRESULT hrList = ids.Remove(dwAttachID);
    if (hrRecord == MAPI_E_NOT_FOUND && hrList == MAPI_E_NOT_FOUND) throw static_cast<HRESULT>(MAPI_E_NOT_FOUND);
    if (FAILED(hrRecord) && hrRecord != MAPI_E_NOT_FOUND) ZT4_CHECK(hrRecord);
    // An ID entered twice (two saves) leaves one entry per removal.
    while (ids.Remove(dwAttachID) == S_OK) {
    }
    ZT4_CHECK(ids.SaveToStream(stream.Get()));
  }
  ZT4_CATCH(hResult);
  stream.Reset();
  if (hResult != MAPI_E_NOT_FOUND) ZT4_LOG_FAILURE("CFileBackEnd::DeleteMessageAttachment", hResult);
  return hResult;
}

HRESULT CFileBackEnd::DeleteMessageAttachmentsStreams(DWORD dwMessageID) {
  return DeleteChildRecords(dwMessageID, RECFLD_CONTENTS, TRUE);
}

HRESULT CFileBackEnd::DeleteMessageRecipientsStreams(DWORD dwMessageID) {
  return DeleteChildRecords(dwMessageID, RECFLD_CHILDREN, FALSE);
}

// The records a message's list names (attachments with their large properties, or recipients).
// A record already gone is skipped; the first other failure is the result.
HRESULT CFileBackEnd::DeleteChildRecords(DWORD dwMessageID, RECFLD rfList, BOOL fLargeProps) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock.
  CBackEndLock lock(m_cs);
  try {
    CIDList ids;
    hResult = LoadIDList(dwMessageID, rfList, &ids);
    if (hResult == MAPI_E_NOT_FOUND) return S_OK;
    ZT4_CHECK(hResult);
    HRESULT hrFirst = S_OK;
    for (DWORD dwID = ids.GetFirst(); dwID; dwID = ids.GetNext()) {
      if (fLargeProps) DeleteLargePropsStreams(dwID);
      HRESULT hr = m_pDBobj->DeleteRecord(dwID);
      if (FAILED(hr) && hr != MAPI_E_NOT_FOUND && SUCCEEDED(hrFirst)) hrFirst = hr;
    }
    hResult = hrFirst;
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CFileBackEnd::DeleteChildRecords", hResult);
  return hResult;
}

HRESULT CFileBackEnd::DeleteLargePropsStreams(DWORD dwObjID) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock.
  CBackEndLock lock(m_cs);
  try {
    std::unique_ptr<CPropList> list;
    {
      CStreamHolder stream;
      hResult = GetStream(dwObjID, RECFLD_PROPERTIES, stream.Out(), FALSE);
      if (hResult == MAPI_E_NOT_FOUND) return S_OK;
      ZT4_CHECK(hResult);
      CPropList* pList = NULL;
      ZT4_CHECK(LoadProperties(stream.Get(), &pList));
      list.reset(pList);
    }
    for (const PROPNODE* pNode = list->GetFirstNode(); pNode; pNode = list->GetNextNode()) {
      if (PROP_TYPE(pNode->ulPropTag) != PT_LARGE_STUB) continue;
      SPropValue spvStub;
      memset(&spvStub, 0, sizeof(spvStub));
      spvStub.ulPropTag = pNode->ulPropTag;
      memcpy(&spvStub.Value, &pNode->Value, sizeof(spvStub.Value));
      DWORD dwRecordID = 0;
      GetLargeStubInfo(&spvStub, NULL, NULL, &dwRecordID);
      m_pDBobj->DeleteRecord(dwRecordID);  // a record already gone was the aim
    }
    hResult = S_OK;
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CFileBackEnd::DeleteLargePropsStreams", hResult);
  return hResult;
}

// ---------------------------------------------------------------------------------------------
// Emptying a folder

struct CFileBackEnd::DELETE_WALK {
  CIDList contents, associated, children;
  BOOL fContentsChanged = FALSE, fAssociatedChanged = FALSE, fChildrenChanged = FALSE;
  LONG lContent = 0, lUnread = 0, lAssociated = 0;
  BOOL fPartial = FALSE;
};

namespace {

LONG Lowered(LONG l) { return l > 0 ? l - 1 : 0; }

HRESULT ReplaceObjects(DELETE_OBJECTS_DATA* pData, ULONG cObjects) {
  HANDLE hHeap = GetProcessHeap();
  if (pData->pObjects) HeapFree(hHeap, 0, pData->pObjects);
  pData->cObjects = 0;
  pData->pObjects = static_cast<DELETE_OBJECT_ENTRY*>(
      HeapAlloc(hHeap, HEAP_ZERO_MEMORY, (SIZE_T(cObjects) + 1) * sizeof(DELETE_OBJECT_ENTRY)));
  return pData->pObjects ? S_OK : E_OUTOFMEMORY;
}

void AddObject(DELETE_OBJECTS_DATA* pData, BYTE bObjType, BOOL fAssociated, DWORD dwObjID) {
  DELETE_OBJECT_ENTRY& entry = pData->pObjects[pData->cObjects++];
  entry.bObjType = bObjType;
  entry.fAssociated = fAssociated ? 1 : 0;
  entry.dwObjID = dwObjID;
}

// The nested call's notifications move to the outer block.
HRESULT MoveNotifications(DELETE_OBJECTS_DATA* pFrom, DELETE_OBJECTS_DATA* pTo) {
  for (ULONG i = 0; i < pFrom->cNotifications; ++i) {
    HRESULT hr = AppendNotification(pTo, pFrom->pNotifications[i]);
    if (FAILED(hr)) return hr;
    pFrom->pNotifications[i].lpb = NULL;
  }
  return S_OK;
}

}  // namespace

HRESULT CFileBackEnd::DeleteFolderContents(PRIVATE_EID FolderEID, DELETE_OBJECTS_DATA* pData) {
  return DeleteFolderContentsAt(FolderEID, pData, 0);
}

HRESULT CFileBackEnd::DeleteFolderContentsAt(PRIVATE_EID FolderEID, DELETE_OBJECTS_DATA* pData, ULONG ulDepth) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock; an open object's lock is
  // taken alone, briefly, to mark it or to read and set its counts.
  CBackEndLock lock(m_cs);
  try {
    ZT4_CHECK_NULL(pData, MAPI_E_INVALID_PARAMETER);
    // A folder that contains itself, in a damaged file, must not recurse for ever.
    if (ulDepth > MAX_FOLDER_DEPTH) throw static_cast<HRESULT>(MAPI_E_CORRUPT_DATA);
    DELETE_WALK walk;
    ZT4_CHECK(LoadListOrEmpty(FolderEID.dwObjID, RECFLD_CONTENTS, &walk.contents));
    if (!(pData->ulFlags & DEL_KEEP_ASSOCIATED))
      ZT4_CHECK(LoadListOrEmpty(FolderEID.dwObjID, RECFLD_ASSOCIATED, &walk.associated));
    ZT4_CHECK(LoadListOrEmpty(FolderEID.dwObjID, RECFLD_CHILDREN, &walk.children));
    ZT4_CHECK(FillDeleteList(walk, pData));
    std::unique_ptr<CPropList> folderList;
    ZT4_CHECK(LoadFolderCounts(FolderEID, pData->pOpenObjects, walk, &folderList));
    for (ULONG i = 0; i < pData->cObjects; ++i) DeleteListedObject(walk, pData->pObjects[i], FolderEID, pData, ulDepth);
    if (walk.fContentsChanged) ZT4_CHECK(SaveIDList(FolderEID.dwObjID, RECFLD_CONTENTS, &walk.contents));
    if (walk.fAssociatedChanged) ZT4_CHECK(SaveIDList(FolderEID.dwObjID, RECFLD_ASSOCIATED, &walk.associated));
    if (walk.fChildrenChanged) ZT4_CHECK(SaveIDList(FolderEID.dwObjID, RECFLD_CHILDREN, &walk.children));
    ZT4_CHECK(StoreFolderCounts(FolderEID, pData, walk, folderList.get()));
    hResult = walk.fPartial ? MAPI_W_PARTIAL_COMPLETION : S_OK;
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CFileBackEnd::DeleteFolderContents", hResult);
  return hResult;
}

HRESULT CFileBackEnd::LoadListOrEmpty(DWORD dwRecordID, RECFLD rfField, CIDList* pIDs) {
  HRESULT hr = LoadIDList(dwRecordID, rfField, pIDs);
  return hr == MAPI_E_NOT_FOUND ? S_OK : hr;
}

// What is to go: all contents, or the valid entries of the list that belong to this folder.
HRESULT CFileBackEnd::FillDeleteList(DELETE_WALK& walk, DELETE_OBJECTS_DATA* pData) {
  HRESULT hResult = S_OK;
  try {
    BOOL fFromList = (pData->ulFlags & DEL_FROM_LIST) != 0;
    if (fFromList) ZT4_CHECK_NULL(pData->lpEntryList, MAPI_E_INVALID_PARAMETER);
    ULONG cObjects = fFromList ? pData->lpEntryList->cValues
                               : walk.associated.GetNodeCount() + walk.contents.GetNodeCount() +
                                     walk.children.GetNodeCount();
    ZT4_CHECK(ReplaceObjects(pData, cObjects));
    if (!fFromList) {
      for (DWORD dwID = walk.associated.GetFirst(); dwID; dwID = walk.associated.GetNext())
        AddObject(pData, MAPI_MESSAGE, TRUE, dwID);
      for (DWORD dwID = walk.contents.GetFirst(); dwID; dwID = walk.contents.GetNext())
        AddObject(pData, MAPI_MESSAGE, FALSE, dwID);
      for (DWORD dwID = walk.children.GetFirst(); dwID; dwID = walk.children.GetNext())
        AddObject(pData, MAPI_FOLDER, FALSE, dwID);
      return S_OK;
    }
    for (ULONG i = 0; i < cObjects; ++i) {
      const SBinary& bin = pData->lpEntryList->lpbin[i];
      PRIVATE_EID eid;
      memset(&eid, 0, sizeof(eid));
      if (bin.cb == CB_PRIVATE_EID && bin.lpb) memcpy(&eid, bin.lpb, CB_PRIVATE_EID);
      BOOL fAssociated = eid.bObjType == MAPI_MESSAGE && walk.associated.Contains(eid.dwObjID);
      BOOL fHere = fAssociated || (eid.bObjType == MAPI_MESSAGE && walk.contents.Contains(eid.dwObjID)) ||
                   (eid.bObjType == MAPI_FOLDER && walk.children.Contains(eid.dwObjID));
      if (bin.cb != CB_PRIVATE_EID || !bin.lpb || !IsValidEntryID(&eid) || !fHere) {
        walk.fPartial = TRUE;
        continue;
      }
      AddObject(pData, eid.bObjType, fAssociated, eid.dwObjID);
    }
  }
  ZT4_CATCH(hResult);
  return hResult;
}

// The folder's stored list, with the three counts taken from its open object when there is one.
HRESULT CFileBackEnd::LoadFolderCounts(PRIVATE_EID FolderEID, COpenObjectList* pOpenObjects, DELETE_WALK& walk,
                                       std::unique_ptr<CPropList>* pList) {
  HRESULT hResult = LoadObject(this, FolderEID, pList);
  if (FAILED(hResult)) return hResult;
  CPropList* pCounts = pList->get();
  CGenericProp* pFolder = pOpenObjects ? pOpenObjects->Walk(MAPI_FOLDER, FolderEID.dwObjID, 0, NULL) : NULL;
  if (pFolder) {
    pFolder->Lock();
    if (pFolder->m_pList) pCounts = pFolder->m_pList;
  }
  walk.lContent = FindLong(pCounts, PR_CONTENT_COUNT);
  walk.lUnread = FindLong(pCounts, PR_CONTENT_UNREAD);
  walk.lAssociated = FindLong(pCounts, PR_ASSOC_CONTENT_COUNT);
  if (pFolder) {
    pFolder->Unlock();
    pFolder->GenericRelease();
  }
  return S_OK;
}

HRESULT CFileBackEnd::StoreFolderCounts(PRIVATE_EID FolderEID, DELETE_OBJECTS_DATA* pData, DELETE_WALK& walk,
                                        CPropList* pList) {
  HRESULT hResult = S_OK;
  CStreamHolder stream;
  try {
    ZT4_CHECK(InsertLong(pList, PR_CONTENT_COUNT, walk.lContent));
    ZT4_CHECK(InsertLong(pList, PR_CONTENT_UNREAD, walk.lUnread));
    ZT4_CHECK(InsertLong(pList, PR_ASSOC_CONTENT_COUNT, walk.lAssociated));
    if (!(pData->ulFlags & DEL_KEEP_FOLDER_COUNT)) ZT4_CHECK(InsertSubfolderState(pList, walk.children.GetNodeCount() != 0));
    ZT4_CHECK(GetStream(FolderEID.dwObjID, RECFLD_PROPERTIES, stream.Out(), FALSE));
    ZT4_CHECK(pList->SaveToStream(stream.Get()));
    // An open folder shows the new counts without a reload.
    CGenericProp* pFolder =
        pData->pOpenObjects ? pData->pOpenObjects->Walk(MAPI_FOLDER, FolderEID.dwObjID, 0, NULL) : NULL;
    if (pFolder) {
      pFolder->Lock();
      if (pFolder->m_pList) {
        InsertLong(pFolder->m_pList, PR_CONTENT_COUNT, walk.lContent);
        InsertLong(pFolder->m_pList, PR_CONTENT_UNREAD, walk.lUnread);
        InsertLong(pFolder->m_pList, PR_ASSOC_CONTENT_COUNT, walk.lAssociated);
      }
      pFolder->Unlock();
      pFolder->GenericRelease();
    }
  }
  ZT4_CATCH(hResult);
  return hResult;
}

BOOL CFileBackEnd::IsUnreadMessage(DWORD dwMessageID) {
  std::unique_ptr<CPropList> list;
  if (FAILED(LoadObject(this, MakeEID(m_guidStore, MAPI_MESSAGE, dwMessageID), &list))) return TRUE;
  return (FindLong(list.get(), PR_MESSAGE_FLAGS) & MSGFLAG_READ) == 0;
}

void CFileBackEnd::DeleteListedObject(DELETE_WALK& walk, const DELETE_OBJECT_ENTRY& entry, PRIVATE_EID FolderEID,
                                      DELETE_OBJECTS_DATA* pData, ULONG ulDepth) {
  if (entry.bObjType == MAPI_FOLDER) {
    DeleteListedFolder(walk, entry.dwObjID, FolderEID, pData, ulDepth);
    return;
  }
  BOOL fUnread = !entry.fAssociated && IsUnreadMessage(entry.dwObjID);
  MarkOpenObjectsDeleted(pData->pOpenObjects, MAPI_MESSAGE, entry.dwObjID);
  DeleteMessageAttachmentsStreams(entry.dwObjID);
  DeleteMessageRecipientsStreams(entry.dwObjID);
  DeleteLargePropsStreams(entry.dwObjID);
  if (FAILED(m_pDBobj->DeleteRecord(entry.dwObjID))) {
    ZT4_LOG(ZT4_LEVEL_ERROR, "CFileBackEnd::DeleteFolderContents: An error occurred while deleting a message");
    walk.fPartial = TRUE;
    return;
  }
  if (entry.fAssociated) {
    walk.associated.Remove(entry.dwObjID);
    walk.fAssociatedChanged = TRUE;
    walk.lAssociated = Lowered(walk.lAssociated);
    return;
  }
  walk.contents.Remove(entry.dwObjID);
  walk.fContentsChanged = TRUE;
  walk.lContent = Lowered(walk.lContent);
  if (fUnread) walk.lUnread = Lowered(walk.lUnread);
}

// A subfolder goes after its own contents; one that keeps something stays, so nothing is
// orphaned.
void CFileBackEnd::DeleteListedFolder(DELETE_WALK& walk, DWORD dwFolderID, PRIVATE_EID ParentEID,
                                      DELETE_OBJECTS_DATA* pData, ULONG ulDepth) {
  PRIVATE_EID SubEID = MakeFolderEID(dwFolderID);
  DELETE_OBJECTS_DATA nested;
  memset(&nested, 0, sizeof(nested));
  nested.ulFlags = DEL_KEEP_FOLDER_COUNT;
  nested.pOpenObjects = pData->pOpenObjects;
  HRESULT hr = DeleteFolderContentsAt(SubEID, &nested, ulDepth + 1);
  HRESULT hrMove = MoveNotifications(&nested, pData);
  FreeDeleteObjectsData(&nested);
  if (hr != S_OK || FAILED(hrMove)) {
    walk.fPartial = TRUE;
    return;
  }
  MarkOpenObjectsDeleted(pData->pOpenObjects, MAPI_FOLDER, dwFolderID);
  // Its name leaves the parent too, so a new folder may take it.
  DeleteFolderNameInParent(ParentEID.dwObjID, dwFolderID);
  if (FAILED(m_pDBobj->DeleteRecord(dwFolderID))) {
    ZT4_LOG(ZT4_LEVEL_ERROR, "CFileBackEnd::DeleteFolderContents: An error occurred while deleting a message");
    walk.fPartial = TRUE;
    return;
  }
  walk.children.Remove(dwFolderID);
  walk.fChildrenChanged = TRUE;
  if (FAILED(NoteDeletedFolder(pData, SubEID))) walk.fPartial = TRUE;
}

// ---------------------------------------------------------------------------------------------
// Archive delete and content counts

namespace {

HRESULT MapRemoveResult(LONG lResult) {
  if (lResult == REMOVE_RESULT_OK) return S_OK;
  return lResult == REMOVE_RESULT_REFUSED ? ZT4_E_REMOVE_REFUSED : ZT4_E_REMOVE_FAILED;
}

}  // namespace

HRESULT CFileBackEnd::DeleteMessages(PRIVATE_EID FolderEID, LPENTRYLIST pMsgList) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  SAFEARRAY* psaIDs = NULL;
  // No lock: the data provider is called without one, and the path walk takes it per record.
  try {
    ZT4_CHECK_NULL(pMsgList, E_FAIL);
    IZT4ArchiveFolderPtr spFolder(GetFolderObject(this, FolderEID), false);
    if (!spFolder || pMsgList->cValues == 0) return S_OK;  // no server folder: nothing to ask
    psaIDs = SafeArrayCreateVector(VT_BSTR, 0, pMsgList->cValues);
    ZT4_CHECK_NULL(psaIDs, E_OUTOFMEMORY);
    for (ULONG i = 0; i < pMsgList->cValues; ++i) {
      const SBinary& bin = pMsgList->lpbin[i];
      if (bin.cb != CB_PRIVATE_EID || !bin.lpb) throw static_cast<HRESULT>(MAPI_E_INVALID_ENTRYID);
      CHAR szUniqueId[CB_UNIQUE_ID + 1];
      memcpy(szUniqueId, bin.lpb + offsetof(PRIVATE_EID, szUniqueId), CB_UNIQUE_ID);
      szUniqueId[CB_UNIQUE_ID] = 0;
      _bstr_t bstrID(szUniqueId);
      LONG lIndex = static_cast<LONG>(i);
      ZT4_CHECK(SafeArrayPutElement(psaIDs, &lIndex, static_cast<BSTR>(bstrID)));
    }
    LONG lResult = 0;
    ZT4_CHECK(spFolder->raw_RemoveMessages(psaIDs, &lResult));
    ZT4_CHECK(MapRemoveResult(lResult));
    // The folder's cached state is refreshed by its caller, through the folder sync.
  }
  ZT4_CATCH(hResult);
  if (psaIDs) SafeArrayDestroy(psaIDs);
  ZT4_LOG_FAILURE("CFileBackEnd::DeleteMessages", hResult);
  return hResult;
}

HRESULT CFileBackEnd::UpdateContentCount(PRIVATE_EID ContainerEID, PRIVATE_EID ObjectEID, BOOL fAssociated,
                                         BOOL fUnread) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  HRESULT hResult = S_OK;
  // Lock order: back-end critical section, then the CDataBase lock.
  CBackEndLock lock(m_cs);
  try {
    {
      CStreamHolder stream;
      ZT4_CHECK(GetStream(ContainerEID.dwObjID, RECFLD_PROPERTIES, stream.Out()));
      CPropList* pList = NULL;
      ZT4_CHECK(LoadProperties(stream.Get(), &pList));
      std::unique_ptr<CPropList> list(pList);
      ULONG ulCountTag = fAssociated ? PR_ASSOC_CONTENT_COUNT : PR_CONTENT_COUNT;
      ZT4_CHECK(InsertLong(list.get(), ulCountTag, FindLong(list.get(), ulCountTag) + 1));
      if (fUnread) ZT4_CHECK(InsertLong(list.get(), PR_CONTENT_UNREAD, FindLong(list.get(), PR_CONTENT_UNREAD) + 1));
      ZT4_CHECK(list->SaveToStream(stream.Get()));
    }
    // With the in-memory object database the ID list is that database's, under the folder's
    // complete name; it comes with later work, so the record file keeps the list.
    CIDList ids;
    RECFLD rfList = fAssociated ? RECFLD_ASSOCIATED : RECFLD_CONTENTS;
    ZT4_CHECK(LoadListOrEmpty(ContainerEID.dwObjID, rfList, &ids));
    ZT4_CHECK(ids.Insert(ObjectEID.dwObjID));
    ZT4_CHECK(SaveIDList(ContainerEID.dwObjID, rfList, &ids));
  }
  ZT4_CATCH(hResult);
  ZT4_LOG_FAILURE("CFileBackEnd::UpdateContentCount", hResult);
  return hResult;
}

// ---------------------------------------------------------------------------------------------
// Operations that later work fills

// Filled by the in-memory object database.
HRESULT CFileBackEnd::GetCachedObject(PRIVATE_EID, LPCSTR, LPCSTR, CPropList**) { return MAPI_E_NO_SUPPORT; }

// Filled by the in-memory object database.
HRESULT CFileBackEnd::RemoveCachedObject(LPCSTR) { return MAPI_E_NO_SUPPORT; }

// Filled by object copy and move.
HRESULT CFileBackEnd::CopyObjects(PRIVATE_EID, PRIVATE_EID, ULONG, LPENTRYLIST) { return MAPI_E_NO_SUPPORT; }

// Filled by contents population.
HRESULT CFileBackEnd::GetTableProps(ULONG, LPSPropTagArray*) { return MAPI_E_NO_SUPPORT; }

// Filled by contents population.
HRESULT CFileBackEnd::BuildSortDescription(ULONG, ULONG, LPSTR, ULONG) { return MAPI_E_NO_SUPPORT; }

// Filled by contents population.
HRESULT CFileBackEnd::GetContentCount(PRIVATE_EID, LPENTRYLIST, LPVOID, BOOL, LONG*) { return MAPI_E_NO_SUPPORT; }

// Filled by contents population.
HRESULT CFileBackEnd::FindRow(PRIVATE_EID, LPENTRYLIST, LPVOID, LPCSTR, LONG*) { return MAPI_E_NO_SUPPORT; }

// Filled by contents population.
HRESULT CFileBackEnd::ClearMessageCache(PRIVATE_EID) { return MAPI_E_NO_SUPPORT; }

// Filled by the in-memory object database.
HRESULT CFileBackEnd::LoadCachedMessage(LPUNKNOWN, LPCSTR, PRIVATE_EID, PRIVATE_EID, CPropList**) {
  return MAPI_E_NO_SUPPORT;
}

// Filled by search.
HRESULT CFileBackEnd::GetSearchCondition(LPVOID, LPSRestriction) { return MAPI_E_NO_SUPPORT; }
