// The back end over the record file: objects saved and loaded as records, large properties as
// records of their own, recipients, and the receive-folder settings.
#include "ZT4FileStg.h"

#include <mapicode.h>
#include <mapitags.h>

#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "MemHeap.h"
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
    // The store's default receive folder is the root, whatever the stream says.
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
// Operations that later work fills

// Filled by object creation and deletion.
HRESULT CFileBackEnd::CreateObject(PRIVATE_EID, LPPRIVATE_EID, CPropList**, ULONG, LPCSTR, LPCSTR, LPUNKNOWN) {
  return MAPI_E_NO_SUPPORT;
}

// Filled by object creation and deletion.
HRESULT CFileBackEnd::OpenObject(PRIVATE_EID, CPropList**) { return MAPI_E_NO_SUPPORT; }

// Filled by the in-memory object database.
HRESULT CFileBackEnd::GetCachedObject(PRIVATE_EID, LPCSTR, LPCSTR, CPropList**) { return MAPI_E_NO_SUPPORT; }

// Filled by the in-memory object database.
HRESULT CFileBackEnd::RemoveCachedObject(LPCSTR) { return MAPI_E_NO_SUPPORT; }

// Filled by object copy and move.
HRESULT CFileBackEnd::CopyObjects(PRIVATE_EID, PRIVATE_EID, ULONG, LPENTRYLIST) { return MAPI_E_NO_SUPPORT; }

// Filled by object creation and deletion.
HRESULT CFileBackEnd::DeleteOneObject(LPPRIVATE_EID, PRIVATE_EID) { return MAPI_E_NO_SUPPORT; }

// Filled by object creation and deletion.
HRESULT CFileBackEnd::DeleteObjects(PRIVATE_EID, ULONG, DWORD, DELETE_OBJECTS_DATA*) { return MAPI_E_NO_SUPPORT; }

// Filled by object creation and deletion (the archive's delete).
HRESULT CFileBackEnd::DeleteMessages(PRIVATE_EID, LPENTRYLIST) { return MAPI_E_NO_SUPPORT; }

// Filled by object creation and deletion.
HRESULT CFileBackEnd::UpdateContentCount(PRIVATE_EID, PRIVATE_EID, BOOL, BOOL) { return MAPI_E_NO_SUPPORT; }

// Filled by contents population.
HRESULT CFileBackEnd::GetTable(ULONG, PRIVATE_EID, LONG, LPVOID, LPVOID, LPTABLEDATA*, LONG, LONG, BOOL, LPENTRYLIST,
                               LPVOID, BOOL) {
  return MAPI_E_NO_SUPPORT;
}

// Filled by contents population.
HRESULT CFileBackEnd::GetTableProps(ULONG, LPSPropTagArray*) { return MAPI_E_NO_SUPPORT; }

// Filled by contents population.
HRESULT CFileBackEnd::BuildSortDescription(ULONG, ULONG, LPSTR, ULONG) { return MAPI_E_NO_SUPPORT; }

// Filled by object creation and deletion (the subfolder names).
HRESULT CFileBackEnd::SetObjNameInContainer(LPCSTR, PRIVATE_EID, PRIVATE_EID) { return MAPI_E_NO_SUPPORT; }

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
