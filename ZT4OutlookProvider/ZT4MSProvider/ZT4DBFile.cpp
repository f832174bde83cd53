// The record file and the streams over its fields.
//
// Locks, outermost first: provider lock, named mutex; object lock of a CGeneric; back-end
// critical section; CDataBase critical section. A CMemoryStream's own lock guards only its count
// and dirty flag and is never held while the database's lock is taken.
#include "ZT4DBFile.h"

#include <cstring>
#include <string>

#include "MemHeap.h"
#include "ZT4_TRACES.h"

namespace {

// Holds a critical section for one scope.
class CCritSecHolder {
 public:
  explicit CCritSecHolder(CRITICAL_SECTION& cs) : m_cs(cs) { EnterCriticalSection(&m_cs); }
  ~CCritSecHolder() { LeaveCriticalSection(&m_cs); }
  CCritSecHolder(const CCritSecHolder&) = delete;
  CCritSecHolder& operator=(const CCritSecHolder&) = delete;

 private:
  CRITICAL_SECTION& m_cs;
};

HRESULT LastErrorResult() {
  DWORD dwError = GetLastError();
  return dwError == NO_ERROR ? E_FAIL : HRESULT_FROM_WIN32(dwError);
}

// The seek takes a signed 32-bit distance and no high part, so the file can't pass 2 GiB.
BOOL SeekTo(HANDLE hFile, DWORD dwOffSet) {
  return SetFilePointer(hFile, static_cast<LONG>(dwOffSet), NULL, FILE_BEGIN) != INVALID_SET_FILE_POINTER;
}

HRESULT ReadAt(HANDLE hFile, DWORD dwOffSet, LPVOID pv, DWORD cb, DWORD* pcbRead) {
  *pcbRead = 0;
  if (!SeekTo(hFile, dwOffSet) || !ReadFile(hFile, pv, cb, pcbRead, NULL)) return LastErrorResult();
  return S_OK;
}

HRESULT WriteAt(HANDLE hFile, DWORD dwOffSet, LPCVOID pv, DWORD cb, DWORD* pcbWritten) {
  *pcbWritten = 0;
  if (!SeekTo(hFile, dwOffSet) || !WriteFile(hFile, pv, cb, pcbWritten, NULL)) return LastErrorResult();
  return S_OK;
}

// Callers never pass more than 63 characters; a longer text is cut rather than run over.
void CopyDBString(CHAR* szTo, LPCSTR szFrom) {
  DWORD i = 0;
  for (; i + 1 < DB_NAME_SIZE && szFrom[i]; ++i) szTo[i] = szFrom[i];
  for (; i < DB_NAME_SIZE; ++i) szTo[i] = 0;
}

void CreateParentFolder(LPCSTR szFileName) {
  LPCSTR pszSlash = strrchr(szFileName, '\\');
  if (!pszSlash) return;
  std::string strFolder(szFileName, pszSlash);
  if (GetFileAttributesA(strFolder.c_str()) == INVALID_FILE_ATTRIBUTES) CreateDirectoryA(strFolder.c_str(), NULL);
}

HRESULT WriteChecked(HANDLE hFile, DWORD dwOffSet, LPCVOID pv, DWORD cb) {
  DWORD cbWritten = 0;
  HRESULT hResult = WriteAt(hFile, dwOffSet, pv, cb, &cbWritten);
  if (SUCCEEDED(hResult)) ZT4_ASSERT(cbWritten == cb);
  return hResult;
}

HRESULT WriteNewFile(HANDLE hFile, LPCSTR szName, LPCSTR szComment, const MAPIUID& guidStore) {
  DB_FILE_HEADER hdr = {};
  hdr.dwVersion = DB_FILE_VERSION;
  hdr.guidStore = guidStore;
  CopyDBString(hdr.szName, szName);
  CopyDBString(hdr.szComment, szComment);
  HRESULT hResult = WriteChecked(hFile, OFFSET_FILE_HEADER, &hdr, sizeof(hdr));
  FREENODES_HEADER fnh = {1, OFFSET_FIRST_DATA_NODE, OFFSET_FIRST_FREE_NODE};
  if (SUCCEEDED(hResult)) hResult = WriteChecked(hFile, OFFSET_FREENODES_HEADER, &fnh, sizeof(fnh));
  // One buffer for both nodes: only the type and the offset differ.
  DATA_NODE dn = {};
  dn.wNodeType = NODE_TYPE_INDEX;
  dn.dwOffSet = OFFSET_FIRST_INDEX_RECORD;
  if (SUCCEEDED(hResult)) hResult = WriteChecked(hFile, dn.dwOffSet, &dn, sizeof(dn));
  dn.wNodeType = NODE_TYPE_FREEPOOL;
  dn.dwOffSet = OFFSET_FIRST_FREE_NODE;
  if (SUCCEEDED(hResult)) hResult = WriteChecked(hFile, dn.dwOffSet, &dn, sizeof(dn));
  return hResult;
}

HRESULT ReadFileHeader(HANDLE hFile, LPSTR szName, LPSTR szComment, LPMAPIUID pGuid) {
  DB_FILE_HEADER hdr = {};
  DWORD cbRead = 0;
  HRESULT hResult = ReadAt(hFile, OFFSET_FILE_HEADER, &hdr, sizeof(hdr), &cbRead);
  if (FAILED(hResult)) return hResult;
  ZT4_ASSERT(cbRead == sizeof(hdr));
  if (hdr.dwVersion != DB_FILE_VERSION) return MAPI_E_VERSION;
  // A damaged header may lack the terminators.
  hdr.szName[DB_NAME_SIZE - 1] = 0;
  hdr.szComment[DB_NAME_SIZE - 1] = 0;
  *pGuid = hdr.guidStore;
  if (szName) strcpy(szName, hdr.szName);
  if (szComment) strcpy(szComment, hdr.szComment);
  return S_OK;
}

}  // namespace

// Holds the database's critical section for a commit. Lock order: back-end critical section,
// then this one.
class CDataBaseLock {
 public:
  explicit CDataBaseLock(CDataBase* pDB) : m_holder(pDB->m_cs) {}

 private:
  CCritSecHolder m_holder;
};

// ---------------------------------------------------------------------------------------------
// Format helpers

DWORD* FieldStartOffSet(INDEX_ENTRY& entry, ULONG rf) {
  return rf == RECFLD_PROPERTIES ? &entry.dwPropsStartOffSet : &entry.rgFields[rf - 1].dwStartOffSet;
}

DWORD* FieldSize(INDEX_ENTRY& entry, ULONG rf) {
  return rf == RECFLD_PROPERTIES ? &entry.dwPropsSize : &entry.rgFields[rf - 1].dwSize;
}

BOOL IsNodeOffset(DWORD dwOffSet) {
  return dwOffSet >= OFFSET_FIRST_INDEX_RECORD && (dwOffSet - OFFSET_FIRST_INDEX_RECORD) % NODE_SIZE == 0;
}

DWORD FreePoolCount(const DATA_NODE& dnPool) { return LOWORD(dnPool.dwEntryCount); }

DWORD FreePoolSlot(const DATA_NODE& dnPool, DWORD iSlot) {
  DWORD dwOffSet = 0;
  memcpy(&dwOffSet, dnPool.bRawData + iSlot * sizeof(DWORD), sizeof(DWORD));
  return dwOffSet;
}

void SetFreePoolSlot(DATA_NODE& dnPool, DWORD iSlot, DWORD dwOffSet) {
  memcpy(dnPool.bRawData + iSlot * sizeof(DWORD), &dwOffSet, sizeof(DWORD));
}

// ---------------------------------------------------------------------------------------------
// CIndexList

INDEX_ENTRY* CIndexList::Append(const INDEX_ENTRY& entry) {
  NODE* pNode = static_cast<NODE*>(HeapAlloc(GetDBHeap(), HEAP_ZERO_MEMORY, sizeof(NODE)));
  if (!pNode) throw static_cast<HRESULT>(E_OUTOFMEMORY);
  pNode->entry = entry;
  pNode->pPrev = m_pTail;
  if (m_pTail)
    m_pTail->pNext = pNode;
  else
    m_pHead = pNode;
  m_pTail = pNode;
  ++m_cEntries;
  return &pNode->entry;
}

INDEX_ENTRY* CIndexList::Find(DWORD dwNodeID) {
  NODE* pStart = m_pCursor ? m_pCursor : m_pHead;
  for (NODE* pNode = pStart; pNode; pNode = pNode->pNext) {
    if (pNode->entry.dwNodeID == dwNodeID) return &(m_pCursor = pNode)->entry;
  }
  for (NODE* pNode = pStart ? pStart->pPrev : NULL; pNode; pNode = pNode->pPrev) {
    if (pNode->entry.dwNodeID == dwNodeID) return &(m_pCursor = pNode)->entry;
  }
  return NULL;
}

BOOL CIndexList::Remove(DWORD dwNodeID) {
  NODE* pNode = m_pHead;
  while (pNode && pNode->entry.dwNodeID != dwNodeID) pNode = pNode->pNext;
  if (!pNode) return FALSE;
  if (pNode->pPrev) pNode->pPrev->pNext = pNode->pNext;
  if (pNode->pNext) pNode->pNext->pPrev = pNode->pPrev;
  if (pNode == m_pHead) m_pHead = pNode->pNext;
  if (pNode == m_pTail) m_pTail = pNode->pPrev;
  if (pNode == m_pCursor) m_pCursor = m_pHead;
  if (pNode == m_pWalk) m_pWalk = pNode->pNext;
  HeapFree(GetDBHeap(), 0, pNode);
  --m_cEntries;
  return TRUE;
}

void CIndexList::RemoveAll() {
  while (m_pHead) {
    NODE* pNext = m_pHead->pNext;
    HeapFree(GetDBHeap(), 0, m_pHead);
    m_pHead = pNext;
  }
  m_pTail = m_pCursor = m_pWalk = NULL;
  m_cEntries = 0;
}

void CIndexList::WalkReset() { m_pWalk = m_pHead; }

INDEX_ENTRY* CIndexList::WalkNext() {
  if (!m_pWalk) return NULL;
  NODE* pNode = m_pWalk;
  m_pWalk = pNode->pNext;
  return &pNode->entry;
}

// ---------------------------------------------------------------------------------------------
// CDataBase: object, references, node I/O

volatile LONG CDataBase::m_fShuttingDown = FALSE;

CDataBase::CDataBase(const MAPIUID* pGuid, HANDLE hFile)
    : m_cRef(1),
      m_guidStore(*pGuid),
      m_hFile(hFile),
      m_FreeNodes(),
      m_fIndexDirty(FALSE),
      m_fFreeNodesDirty(FALSE),
      m_fIndexLoaded(FALSE),
      m_fFreeNodesLoaded(FALSE),
      m_cNodeReads(0),
      m_cNodeWrites(0) {
  InitializeCriticalSection(&m_cs);
  InterlockedExchange(&m_fShuttingDown, FALSE);
}

CDataBase::~CDataBase() {
  ZT4_LOG(ZT4_LEVEL_DETAIL, "CDataBase: Destructor called");
  InterlockedExchange(&m_fShuttingDown, TRUE);
  {
    CCritSecHolder lock(m_cs);  // lock order: innermost (CDataBase critical section)
    SaveIndexNodes();
    SaveFreeNodesPool();
  }
  DeleteCriticalSection(&m_cs);
  m_IndexList.RemoveAll();
  CloseHandle(m_hFile);
}

void* CDataBase::operator new(size_t cb) noexcept { return HeapAlloc(GetDBHeap(), HEAP_ZERO_MEMORY, cb); }

void CDataBase::operator delete(void* pv) noexcept { HeapFree(GetDBHeap(), 0, pv); }

ULONG CDataBase::AddRef() {
  CCritSecHolder lock(m_cs);  // lock order: innermost (CDataBase critical section)
  return ++m_cRef;
}

ULONG CDataBase::Release() {
  ULONG cRef;
  {
    CCritSecHolder lock(m_cs);  // lock order: innermost (CDataBase critical section)
    cRef = --m_cRef;
  }
  if (cRef == 0) delete this;
  return cRef;
}

HRESULT CDataBase::LockRecord(DWORD, DWORD, BOOL) { return S_OK; }

HRESULT CDataBase::UnlockRecord(DWORD, DWORD) { return S_OK; }

HRESULT CDataBase::AccessData(int nAccess, DATA_NODE& dnData, BOOL fHeaderOnly) {
  CCritSecHolder lock(m_cs);  // lock order: innermost (CDataBase critical section)
  HRESULT hResult = S_OK;
  DWORD dwOffSet = dnData.dwOffSet;
  DWORD cbDone = 0;
  // Nodes only ever sit on node boundaries behind the headers: anything else comes from a
  // damaged link and would overwrite the headers.
  if (!IsNodeOffset(dwOffSet)) {
    hResult = MAPI_E_CORRUPT_DATA;
  } else if (nAccess == WRITE) {
    hResult = WriteAt(m_hFile, dwOffSet, &dnData, NODE_SIZE, &cbDone);
    ++m_cNodeWrites;
  } else {
    DWORD cbWanted = fHeaderOnly ? DATA_NODE_HEADER_SIZE : NODE_SIZE;
    hResult = ReadAt(m_hFile, dwOffSet, &dnData, cbWanted, &cbDone);
    ++m_cNodeReads;
    // A link to a node behind the end of the file.
    if (SUCCEEDED(hResult) && cbDone < cbWanted) hResult = MAPI_E_CORRUPT_DATA;
    // A node never written stores 0 as its own offset: where it was read from is what counts.
    dnData.dwOffSet = dwOffSet;
  }
  ZT4_LOG_FAILURE("CDataBase::ReadWriteFreeNodeHeader", hResult);
  return hResult;
}

HRESULT CDataBase::GetNodeCapacity(DWORD* pcNodes) {
  DWORD cbHigh = 0;
  SetLastError(NO_ERROR);
  DWORD cbFile = GetFileSize(m_hFile, &cbHigh);
  if (cbFile == INVALID_FILE_SIZE && GetLastError() != NO_ERROR) return LastErrorResult();
  if (cbHigh) cbFile = 0xFFFFFFFF;
  *pcNodes = cbFile > OFFSET_FIRST_INDEX_RECORD ? (cbFile - OFFSET_FIRST_INDEX_RECORD) / NODE_SIZE : 0;
  return S_OK;
}

// ---------------------------------------------------------------------------------------------
// CDataBase: allocation header and free pool

HRESULT CDataBase::ReadFreeNodesHeader(FREENODES_HEADER* pfnhInfo) {
  FREENODES_HEADER fnh = {};
  DWORD cbRead = 0;
  HRESULT hResult = ReadAt(m_hFile, OFFSET_FREENODES_HEADER, &fnh, sizeof(fnh), &cbRead);
  if (FAILED(hResult)) return hResult;
  ZT4_ASSERT(cbRead == sizeof(fnh));
  ZT4_ASSERT(fnh.dwNextRecordID != 0);
  // A growth point off the node grid or behind the end of the file would put new nodes over the
  // headers or leave holes: the header is damaged.
  DWORD cNodes = 0;
  if (FAILED(hResult = GetNodeCapacity(&cNodes))) return hResult;
  if (fnh.dwNextNodeOffSet < OFFSET_FIRST_DATA_NODE || !IsNodeOffset(fnh.dwNextNodeOffSet) ||
      (fnh.dwNextNodeOffSet - OFFSET_FIRST_INDEX_RECORD) / NODE_SIZE > cNodes)
    return MAPI_E_CORRUPT_DATA;
  *pfnhInfo = fnh;
  return S_OK;
}

HRESULT CDataBase::WriteFreeNodesHeader(const FREENODES_HEADER& fnhInfo) {
  DWORD cbWritten = 0;
  HRESULT hResult = WriteAt(m_hFile, OFFSET_FREENODES_HEADER, &fnhInfo, sizeof(fnhInfo), &cbWritten);
  if (SUCCEEDED(hResult)) ZT4_ASSERT(cbWritten == sizeof(fnhInfo));
  return hResult;
}

HRESULT CDataBase::ReadWriteFreeNodeHeader(DWORD dwFlags, DWORD* pdwNextRecordID, DWORD* pdwNewOffSet) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  HRESULT hResult = S_OK;
  CCritSecHolder lock(m_cs);  // lock order: back-end critical section, then this one
  LockRecord(OFFSET_FREENODES_HEADER, sizeof(FREENODES_HEADER));
  try {
    FREENODES_HEADER fnhInfo;
    ZT4_CHECK(ReadFreeNodesHeader(&fnhInfo));
    if (dwFlags & FNH_GET_FREE_BLOCK) {
      ZT4_CHECK_NULL(pdwNewOffSet, E_INVALIDARG);
      DWORD dwNewOffSet = 0;
      if (FAILED(GetFreeNode(&dwNewOffSet))) ZT4_CHECK(GetNewEmptyNode(&fnhInfo, &dwNewOffSet));
      *pdwNewOffSet = dwNewOffSet;
    }
    if (dwFlags & FNH_GET_NEXT_RECORD_ID) {
      ZT4_CHECK_NULL(pdwNextRecordID, E_INVALIDARG);
      *pdwNextRecordID = fnhInfo.dwNextRecordID;
      if (++fnhInfo.dwNextRecordID == 0) ++fnhInfo.dwNextRecordID;  // ID 0 never exists
    }
    ZT4_CHECK(WriteFreeNodesHeader(fnhInfo));
  }
  ZT4_CATCH(hResult)
  UnlockRecord(OFFSET_FREENODES_HEADER, sizeof(FREENODES_HEADER));
  ZT4_LOG_FAILURE("CDataBase::ReadWriteFreeNodeHeader", hResult);
  return hResult;
}

HRESULT CDataBase::GetNewEmptyNode(FREENODES_HEADER* pfnhInfo, DWORD* pdwNewOffSet) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  HRESULT hResult = S_OK;
  DWORD dwNewOffSet = pfnhInfo->dwNextNodeOffSet;
  DWORD dwNewEnd = dwNewOffSet + NODE_SIZE;
  if (!IsNodeOffset(dwNewOffSet) || dwNewOffSet < OFFSET_FIRST_DATA_NODE)
    hResult = MAPI_E_CORRUPT_DATA;
  else if (!SeekTo(m_hFile, dwNewEnd) || !SetEndOfFile(m_hFile))
    hResult = LastErrorResult();
  if (SUCCEEDED(hResult)) {
    pfnhInfo->dwNextNodeOffSet = dwNewEnd;
    *pdwNewOffSet = dwNewOffSet;
  }
  ZT4_LOG_FAILURE("CDataBase::GetNewEmptyNode", hResult);
  return hResult;
}

HRESULT CDataBase::GetFreeNode(DWORD* pdwOffSet) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  HRESULT hResult = S_OK;
  CCritSecHolder lock(m_cs);  // lock order: back-end critical section, then this one
  try {
    ZT4_CHECK_NULL(pdwOffSet, E_INVALIDARG);
    // Only the chain's last pool node is popped: once it runs empty, the pool is read anew and
    // ends on that same node, so offsets left in earlier pool nodes are never handed out again.
    if (FreePoolCount(m_FreeNodes) == 0 && m_FreeNodes.dwOffSet != OFFSET_FIRST_FREE_NODE) {
      if (m_fFreeNodesDirty) {
        ZT4_CHECK(AccessData(WRITE, m_FreeNodes));
        m_fFreeNodesDirty = FALSE;
      }
      m_fFreeNodesLoaded = FALSE;
    }
    ZT4_CHECK(LoadFreeNodesPool());
    DWORD cOffsets = FreePoolCount(m_FreeNodes);
    if (cOffsets == 0) throw static_cast<HRESULT>(MAPI_E_NOT_FOUND);
    DWORD dwOffSet = FreePoolSlot(m_FreeNodes, cOffsets - 1);
    SetFreePoolSlot(m_FreeNodes, cOffsets - 1, 0);
    m_FreeNodes.dwEntryCount = cOffsets - 1;
    m_fFreeNodesDirty = TRUE;
    ZT4_ASSERT(dwOffSet != 0);
    DWORD cNodes = 0;
    ZT4_CHECK(GetNodeCapacity(&cNodes));
    // Garbage in the pool is dropped: it must not send data over the headers, the first index
    // and pool nodes, or past the end of the file.
    if (dwOffSet < OFFSET_FIRST_DATA_NODE || !IsNodeOffset(dwOffSet) ||
        (dwOffSet - OFFSET_FIRST_INDEX_RECORD) / NODE_SIZE >= cNodes)
      throw static_cast<HRESULT>(MAPI_E_CORRUPT_DATA);
    *pdwOffSet = dwOffSet;
  }
  ZT4_CATCH(hResult)
  // An empty pool is the normal case of a growing file.
  if (hResult != MAPI_E_NOT_FOUND) ZT4_LOG_FAILURE("CDataBase::GetFreeNode", hResult);
  return hResult;
}

HRESULT CDataBase::LoadFreeNodesPool() {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  CCritSecHolder lock(m_cs);  // lock order: back-end critical section, then this one
  if (m_fFreeNodesLoaded) return S_OK;
  HRESULT hResult = S_OK;
  memset(&m_FreeNodes, 0, sizeof(m_FreeNodes));
  m_FreeNodes.dwOffSet = m_FreeNodes.dwOffSetNextNode = OFFSET_FIRST_FREE_NODE;
  try {
    DWORD cCapacity = 0;
    ZT4_CHECK(GetNodeCapacity(&cCapacity));
    for (DWORD cNodes = 0; m_FreeNodes.dwOffSetNextNode != 0;) {
      // A chain can't hold more nodes than the file: more means it loops.
      if (++cNodes > cCapacity) throw static_cast<HRESULT>(MAPI_E_CORRUPT_DATA);
      ZT4_CHECK(AccessData(READ, m_FreeNodes));
      if (FreePoolCount(m_FreeNodes) > FREE_OFFSETS_PER_NODE) {
        AssertStatement(__FILE__, __LINE__);
        throw static_cast<HRESULT>(MAPI_E_CORRUPT_DATA);
      }
      if (m_FreeNodes.dwOffSetNextNode) m_FreeNodes.dwOffSet = m_FreeNodes.dwOffSetNextNode;
    }
    m_fFreeNodesLoaded = TRUE;
  }
  ZT4_CATCH(hResult)
  if (FAILED(hResult)) {
    // Leave an empty first pool node behind, never a half-read one.
    memset(&m_FreeNodes, 0, sizeof(m_FreeNodes));
    m_FreeNodes.wNodeType = NODE_TYPE_FREEPOOL;
    m_FreeNodes.dwOffSet = OFFSET_FIRST_FREE_NODE;
    m_fFreeNodesDirty = FALSE;
  }
  ZT4_LOG_FAILURE("CDataBase::LoadFreeNodesPool", hResult);
  return hResult;
}

HRESULT CDataBase::SaveFreeNodesPool() {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  CCritSecHolder lock(m_cs);  // lock order: back-end critical section, then this one
  HRESULT hResult = S_OK;
  if (m_fIndexLoaded && m_fFreeNodesDirty) {
    hResult = AccessData(WRITE, m_FreeNodes);
    if (SUCCEEDED(hResult)) m_fFreeNodesDirty = FALSE;
  }
  ZT4_LOG_FAILURE("CDataBase::SaveFreeNodesPool", hResult);
  return hResult;
}

// The current pool node is full: chain a new one behind it and make that the current one.
HRESULT CDataBase::RollOverFreeNodes(FREENODES_HEADER* pfnhInfo) {
  HRESULT hResult = S_OK;
  DWORD dwNextPoolNode = 0;
  if (FAILED(GetFreeNode(&dwNextPoolNode)) && FAILED(hResult = GetNewEmptyNode(pfnhInfo, &dwNextPoolNode)))
    return hResult;
  m_FreeNodes.dwOffSetNextNode = dwNextPoolNode;
  if (FAILED(hResult = AccessData(WRITE, m_FreeNodes))) return hResult;
  memset(&m_FreeNodes, 0, sizeof(m_FreeNodes));
  m_FreeNodes.dwOffSet = dwNextPoolNode;
  m_FreeNodes.wNodeType = NODE_TYPE_FREEPOOL;
  return S_OK;
}

HRESULT CDataBase::PushFreeNode(DWORD dwOffSet) {
  DWORD cOffsets = FreePoolCount(m_FreeNodes);
  if (cOffsets >= FREE_OFFSETS_PER_NODE) {
    AssertStatement(__FILE__, __LINE__);
    return MAPI_E_CORRUPT_DATA;
  }
  SetFreePoolSlot(m_FreeNodes, cOffsets, dwOffSet);
  m_FreeNodes.dwEntryCount = cOffsets + 1;
  return S_OK;
}

HRESULT CDataBase::DeleteStreamRecords(DWORD dwOffSet) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  HRESULT hResult = S_OK;
  CCritSecHolder lock(m_cs);  // lock order: back-end critical section, then this one
  LockRecord(OFFSET_FREENODES_HEADER, sizeof(FREENODES_HEADER));
  try {
    FREENODES_HEADER fnhInfo;
    // A pool that can't be read takes no offsets.
    ZT4_CHECK(LoadFreeNodesPool());
    ZT4_CHECK(ReadFreeNodesHeader(&fnhInfo));
    DWORD cCapacity = (fnhInfo.dwNextNodeOffSet - OFFSET_FIRST_INDEX_RECORD) / NODE_SIZE;
    for (DWORD cNodes = 0; dwOffSet != 0 && SUCCEEDED(hResult); ++cNodes) {
      // A chain longer than the file loops.
      if (cNodes >= cCapacity) break;
      if (FreePoolCount(m_FreeNodes) >= FREE_OFFSETS_PER_NODE && FAILED(hResult = RollOverFreeNodes(&fnhInfo)))
        break;
      DATA_NODE dnData = {};
      dnData.dwOffSet = dwOffSet;
      if (FAILED(hResult = AccessData(READ, dnData, TRUE))) break;
      // A field never runs into the index or the pool: a link there is damage, and releasing
      // such a node would wipe that structure.
      if (dnData.wNodeType == NODE_TYPE_INDEX || dnData.wNodeType == NODE_TYPE_FREEPOOL) break;
      if (FAILED(hResult = PushFreeNode(dnData.dwOffSet))) break;
      dwOffSet = dnData.dwOffSetNextNode;
      // Written whole from a header-only read: the released node's payload is scrubbed.
      dnData.wNodeType = NODE_TYPE_RELEASED;
      dnData.wSize = 0;
      dnData.dwOffSetNextNode = 0;
      AccessData(WRITE, dnData);
    }
    m_fFreeNodesDirty = TRUE;
    // Deliberately not reported: whatever of the chain was not reached stays allocated.
    hResult = S_OK;
    ZT4_CHECK(WriteFreeNodesHeader(fnhInfo));
  }
  ZT4_CATCH(hResult)
  UnlockRecord(OFFSET_FREENODES_HEADER, sizeof(FREENODES_HEADER));
  ZT4_LOG_FAILURE("CDataBase::DeleteStreamRecords", hResult);
  return hResult;
}

// ---------------------------------------------------------------------------------------------
// CDataBase: index

HRESULT CDataBase::ReadIndexChain() {
  HRESULT hResult = S_OK;
  DWORD cCapacity = 0;
  if (FAILED(hResult = GetNodeCapacity(&cCapacity))) return hResult;
  DATA_NODE dnData;
  DWORD dwOffSet = OFFSET_FIRST_INDEX_RECORD;
  for (DWORD cNodes = 0; dwOffSet != 0; ++cNodes) {
    if (cNodes >= cCapacity) return MAPI_E_CORRUPT_DATA;  // the chain loops
    dnData.dwOffSet = dwOffSet;
    if (FAILED(hResult = AccessData(READ, dnData))) return hResult;
    ZT4_ASSERT(dnData.wNodeType == NODE_TYPE_INDEX);
    if (dnData.dwEntryCount > INDEX_ENTRIES_PER_NODE) {
      AssertStatement(__FILE__, __LINE__);
      return MAPI_E_CORRUPT_DATA;
    }
    for (DWORD i = 0; i < dnData.dwEntryCount; ++i) {
      INDEX_ENTRY entry;
      memcpy(&entry, dnData.bRawData + i * sizeof(INDEX_ENTRY), sizeof(entry));
      m_IndexList.Append(entry);
    }
    dwOffSet = dnData.dwOffSetNextNode;
  }
  return S_OK;
}

HRESULT CDataBase::LoadIndexNodes() {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  CCritSecHolder lock(m_cs);  // lock order: back-end critical section, then this one
  if (m_fIndexLoaded) return S_OK;
  HRESULT hResult = S_OK;
  // Always granted: the hand-over of the index to another process's background save is not
  // carried, as no such save exists.
  LockRecord(OFFSET_FIRST_INDEX_RECORD, sizeof(DATA_NODE), FALSE);
  try {
    ZT4_CHECK(LoadFreeNodesPool());
    ZT4_CHECK(ReadIndexChain());
    m_fIndexLoaded = TRUE;
    m_fFreeNodesLoaded = TRUE;
    ZT4_LOG(ZT4_LEVEL_DETAIL, "LoadIndexNodes: Background save thread RESUMED");
  }
  ZT4_CATCH(hResult)
  if (FAILED(hResult)) {
    m_IndexList.RemoveAll();
    m_fFreeNodesLoaded = FALSE;
    UnlockRecord(OFFSET_FIRST_INDEX_RECORD, sizeof(DATA_NODE));
  }
  ZT4_LOG_FAILURE("CDataBase::LoadIndexNodes", hResult);
  return hResult;
}

// Fills dnData from pEntry on; a full node is written and the buffer moves on to its successor.
// The entry fetched right after a node fills is fetched over by the caller's next pass, so the
// 47th, 94th... entry of the list is not stored: the format has always lost it.
static HRESULT FillIndexNode(CDataBase* pDB, CIndexList& list, DATA_NODE& dnData, INDEX_ENTRY*& pEntry,
                             BOOL& fReadFirst, BOOL& fWritten) {
  HRESULT hResult = S_OK;
  DWORD cEntries = 0;
  dnData.dwEntryCount = 0;
  memset(dnData.bRawData, 0, DATA_SIZE);
  while (pEntry && cEntries < INDEX_ENTRIES_PER_NODE) {
    memcpy(dnData.bRawData + cEntries * sizeof(INDEX_ENTRY), pEntry, sizeof(INDEX_ENTRY));
    dnData.dwEntryCount = ++cEntries;
    pEntry = list.WalkNext();
    if (cEntries < INDEX_ENTRIES_PER_NODE) continue;
    if (pEntry && dnData.dwOffSetNextNode == 0) {
      if (FAILED(hResult = pDB->ReadWriteFreeNodeHeader(FNH_GET_FREE_BLOCK, NULL, &dnData.dwOffSetNextNode))) break;
      fReadFirst = FALSE;
    }
    dnData.wNodeType = NODE_TYPE_INDEX;
    if (FAILED(hResult = pDB->AccessData(CDataBase::WRITE, dnData))) break;
    dnData.dwOffSet = dnData.dwOffSetNextNode;
    dnData.dwOffSetNextNode = 0;
    fWritten = TRUE;
  }
  return hResult;
}

// Writes the list over the index chain. A chain longer than the list keeps its tail, as the
// last node written keeps the successor it read: stale entries come back at the next load.
HRESULT CDataBase::WriteIndexChain() {
  HRESULT hResult = S_OK;
  DATA_NODE dnData = {};
  dnData.dwOffSet = OFFSET_FIRST_INDEX_RECORD;
  BOOL fReadFirst = TRUE, fWritten = FALSE, fFirstPass = TRUE;
  INDEX_ENTRY* pEntry = NULL;
  m_IndexList.WalkReset();
  while ((fFirstPass || pEntry) && SUCCEEDED(hResult)) {
    fFirstPass = FALSE;
    fWritten = FALSE;
    pEntry = m_IndexList.WalkNext();
    if (fReadFirst && FAILED(hResult = AccessData(READ, dnData))) break;
    hResult = FillIndexNode(this, m_IndexList, dnData, pEntry, fReadFirst, fWritten);
  }
  if (SUCCEEDED(hResult) && !fWritten) {
    dnData.wNodeType = NODE_TYPE_INDEX;
    hResult = AccessData(WRITE, dnData);
  }
  return hResult;
}

HRESULT CDataBase::SaveIndexNodes() {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  CCritSecHolder lock(m_cs);  // lock order: back-end critical section, then this one
  if (!m_fIndexLoaded || !m_fIndexDirty) return S_OK;
  HRESULT hResult = S_OK;
  ZT4_LOG(ZT4_LEVEL_DETAIL, "CDataBase::SaveIndexNodes method called on thread ID %d", GetCurrentThreadId());
  try {
    if (!SeekTo(m_hFile, OFFSET_FIRST_INDEX_RECORD)) throw LastErrorResult();
    ZT4_CHECK(WriteIndexChain());
    m_fIndexDirty = FALSE;
  }
  ZT4_CATCH(hResult)
  ZT4_LOG_FAILURE("CDataBase::SaveIndexNodes", hResult);
  return hResult;
}

// ---------------------------------------------------------------------------------------------
// CDataBase: records and fields

HRESULT CDataBase::CreateRecord(DWORD* pdwRecordID, IStream** ppStream) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  ZT4_LOG(ZT4_LEVEL_DETAIL, "CDataBase::CreateRecord method called");
  HRESULT hResult = S_OK;
  CCritSecHolder lock(m_cs);  // lock order: back-end critical section, then this one
  try {
    ZT4_CHECK_NULL(pdwRecordID, E_INVALIDARG);
    ZT4_CHECK_NULL(ppStream, E_INVALIDARG);
    *ppStream = NULL;
    ZT4_CHECK(LoadIndexNodes());
    INDEX_ENTRY NewNode = {};
    DWORD dwFlags = FNH_GET_FREE_BLOCK | FNH_GET_NEXT_RECORD_ID;
    if (*pdwRecordID != 0) {
      NewNode.dwNodeID = *pdwRecordID;
      dwFlags = FNH_GET_FREE_BLOCK;
      if (m_IndexList.Find(NewNode.dwNodeID)) throw static_cast<HRESULT>(E_INVALIDARG);
    }
    // IDs this process's index already holds are skipped; the node obtained first is kept.
    for (;;) {
      ZT4_CHECK(ReadWriteFreeNodeHeader(dwFlags, &NewNode.dwNodeID, &NewNode.dwPropsStartOffSet));
      if (!m_IndexList.Find(NewNode.dwNodeID)) break;
      dwFlags = FNH_GET_NEXT_RECORD_ID;
    }
    INDEX_ENTRY* pEntry = m_IndexList.Append(NewNode);
    *pdwRecordID = NewNode.dwNodeID;
    m_fIndexDirty = TRUE;
    // A failure here leaves the entry in the index: it is only rolled back for an ID of 0,
    // which the line above has just ruled out.
    CMemoryStream* pStream = new CMemoryStream(this, pEntry->dwPropsStartOffSet, &pEntry->dwPropsSize);
    ZT4_CHECK_NULL(pStream, E_OUTOFMEMORY);
    *ppStream = pStream;
  }
  ZT4_CATCH(hResult)
  ZT4_LOG_FAILURE("CDataBase::CreateRecord", hResult);
  return hResult;
}

HRESULT CDataBase::CreateEmptyRecord(DWORD* pdwRecordID) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  CCritSecHolder lock(m_cs);  // lock order: back-end critical section, then this one
  try {
    ZT4_CHECK_NULL(pdwRecordID, E_INVALIDARG);
    // The index is not loaded for this: before the first load any ID passes.
    do {
      ZT4_CHECK(ReadWriteFreeNodeHeader(FNH_GET_NEXT_RECORD_ID, pdwRecordID, NULL));
    } while (m_IndexList.Find(*pdwRecordID));
  }
  ZT4_CATCH(hResult)
  ZT4_LOG_FAILURE("CDataBase::CreateEmptyRecord", hResult);
  return hResult;
}

HRESULT CDataBase::OpenRecordField(DWORD dwRecordID, BOOL fCreateIfNotFound, RECFLD rfStream, IStream** ppStream) {
  return GetNodeStream(dwRecordID, rfStream, ppStream, fCreateIfNotFound);
}

HRESULT CDataBase::GetNodeStream(DWORD dwRecordID, RECFLD rfStream, IStream** ppStream, BOOL fCreateIfNotFound) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  CCritSecHolder lock(m_cs);  // lock order: back-end critical section, then this one
  try {
    ZT4_CHECK_NULL(ppStream, E_INVALIDARG);
    *ppStream = NULL;
    if (static_cast<ULONG>(rfStream) >= RECFLD_COUNT) throw static_cast<HRESULT>(E_INVALIDARG);
    ZT4_CHECK(LoadIndexNodes());
    INDEX_ENTRY* pEntry = m_IndexList.Find(dwRecordID);
    if (!pEntry) {
      if (!fCreateIfNotFound) throw static_cast<HRESULT>(MAPI_E_NOT_FOUND);
      INDEX_ENTRY NewNode = {};
      NewNode.dwNodeID = dwRecordID;
      pEntry = m_IndexList.Append(NewNode);
    }
    DWORD* pdwFieldOffSet = FieldStartOffSet(*pEntry, rfStream);
    if (*pdwFieldOffSet == 0) {
      if (!fCreateIfNotFound) throw static_cast<HRESULT>(MAPI_E_NOT_FOUND);
      ZT4_CHECK(ReadWriteFreeNodeHeader(FNH_GET_FREE_BLOCK, NULL, pdwFieldOffSet));
    }
    // The index becomes dirty when the stream commits, not here.
    CMemoryStream* pStream = new CMemoryStream(this, *pdwFieldOffSet, FieldSize(*pEntry, rfStream));
    ZT4_CHECK_NULL(pStream, E_OUTOFMEMORY);
    *ppStream = pStream;
  }
  ZT4_CATCH(hResult)
  // A missing record or field is a normal answer to the back end.
  if (hResult != MAPI_E_NOT_FOUND) ZT4_LOG_FAILURE("CDataBase::GetNodeStream", hResult);
  return hResult;
}

HRESULT CDataBase::DeleteRecord(DWORD dwRecordID) { return DeleteField(dwRecordID, RECFLD_ALL); }

HRESULT CDataBase::ReleaseFieldChain(INDEX_ENTRY* pEntry, ULONG rf) {
  DWORD* pdwFieldOffSet = FieldStartOffSet(*pEntry, rf);
  if (*pdwFieldOffSet == 0) return S_OK;
  HRESULT hResult = DeleteStreamRecords(*pdwFieldOffSet);
  if (SUCCEEDED(hResult)) {
    *pdwFieldOffSet = 0;
    *FieldSize(*pEntry, rf) = 0;
    m_fIndexDirty = TRUE;  // so the released chain isn't named again by the saved index
  }
  return hResult;
}

HRESULT CDataBase::DeleteField(DWORD dwRecordID, RECFLD rfStream) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  CCritSecHolder lock(m_cs);  // lock order: back-end critical section, then this one
  try {
    if (static_cast<ULONG>(rfStream) > RECFLD_ALL) throw static_cast<HRESULT>(E_INVALIDARG);
    ZT4_CHECK(LoadIndexNodes());
    INDEX_ENTRY* pEntry = m_IndexList.Find(dwRecordID);
    if (!pEntry) throw static_cast<HRESULT>(MAPI_E_NOT_FOUND);
    for (ULONG rf = rfStream == RECFLD_ALL ? RECFLD_PROPERTIES : rfStream;; ++rf) {
      hResult = ReleaseFieldChain(pEntry, rf);
      // Only fields 0 to 2 decide whether the record goes: one left with fields 3 and 4 alone
      // is removed from the index and their chains are abandoned.
      BOOL fRecordGoes = pEntry->dwPropsStartOffSet == 0 && pEntry->rgFields[0].dwStartOffSet == 0 &&
                         pEntry->rgFields[1].dwStartOffSet == 0;
      if (rfStream != RECFLD_ALL || FAILED(hResult) || rf == RECFLD_NAMES) {
        if (SUCCEEDED(hResult) && fRecordGoes) {
          m_IndexList.Remove(dwRecordID);
          m_fIndexDirty = TRUE;
        }
        break;
      }
    }
  }
  ZT4_CATCH(hResult)
  if (hResult != MAPI_E_NOT_FOUND) ZT4_LOG_FAILURE("CDataBase::DeleteField", hResult);
  return hResult;
}

HRESULT CDataBase::SetDataBaseStrings(LPCSTR szName, LPCSTR szComment) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  CCritSecHolder lock(m_cs);  // lock order: back-end critical section, then this one
  LockRecord(OFFSET_FILE_HEADER, sizeof(DB_FILE_HEADER));
  try {
    DB_FILE_HEADER hdr = {};
    DWORD cbDone = 0;
    ZT4_CHECK(ReadAt(m_hFile, OFFSET_FILE_HEADER, &hdr, sizeof(hdr), &cbDone));
    if (szName) CopyDBString(hdr.szName, szName);
    if (szComment) CopyDBString(hdr.szComment, szComment);
    ZT4_CHECK(WriteChecked(m_hFile, OFFSET_FILE_HEADER, &hdr, sizeof(hdr)));
  }
  ZT4_CATCH(hResult)
  UnlockRecord(OFFSET_FILE_HEADER, sizeof(DB_FILE_HEADER));
  ZT4_LOG_FAILURE("CDataBase::SetDataBaseStrings", hResult);
  return hResult;
}

// ---------------------------------------------------------------------------------------------
// CommonOpenFile

HRESULT CommonOpenFile(LPCSTR szFileName, LPSTR szName, LPSTR szComment, LPMAPIUID pGuid, CDataBase** ppDB,
                       BOOL fCreate) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  if (fCreate && (!szName || !szComment)) {
    ZT4_LOG(ZT4_LEVEL_DETAIL, "CommonOpenFile: NULL name and comment pointer for a NEW file");
    return E_INVALIDARG;
  }
  HRESULT hResult = S_OK;
  HANDLE hFile = INVALID_HANDLE_VALUE;
  try {
    ZT4_CHECK_NULL(szFileName, E_INVALIDARG);
    ZT4_CHECK_NULL(pGuid, E_INVALIDARG);
    ZT4_CHECK_NULL(ppDB, E_INVALIDARG);
    *ppDB = NULL;
    if (fCreate) CreateParentFolder(szFileName);
    hFile = CreateFileA(szFileName, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, NULL,
                        fCreate ? CREATE_NEW : OPEN_EXISTING,
                        FILE_ATTRIBUTE_NORMAL | FILE_FLAG_WRITE_THROUGH | FILE_FLAG_RANDOM_ACCESS, NULL);
    if (hFile == INVALID_HANDLE_VALUE) throw LastErrorResult();
    if (fCreate)
      ZT4_CHECK(WriteNewFile(hFile, szName, szComment, *pGuid));
    else
      ZT4_CHECK(ReadFileHeader(hFile, szName, szComment, pGuid));
    CDataBase* pDB = new CDataBase(pGuid, hFile);
    ZT4_CHECK_NULL(pDB, E_OUTOFMEMORY);
    *ppDB = pDB;
  }
  ZT4_CATCH(hResult)
  if (FAILED(hResult)) {
    if (hFile != INVALID_HANDLE_VALUE) CloseHandle(hFile);
    // Also when the create failed because the file was there: that file goes too.
    if (fCreate && szFileName) DeleteFileA(szFileName);
    ZT4_LOG(ZT4_LEVEL_ERROR, "CommonOpenFile:%x", hResult);
  }
  return hResult;
}

// ---------------------------------------------------------------------------------------------
// CMemoryStream

CMemoryStream::CMemoryStream(CDataBase* pDBobj, DWORD dwFirstNodeOffSet, DWORD* pdwStreamSize)
    : m_cRef(1),
      m_pImpStream(NULL),
      m_pDBobj(pDBobj),
      m_dwFirstNodeOffSet(dwFirstNodeOffSet),
      m_pdwStreamSize(pdwStreamSize),
      m_fDirty(FALSE),
      m_rgdwCachedOffSets(),
      m_dwDeleteAfter(0) {
  ZT4_LOG(ZT4_LEVEL_DETAIL, "CMemoryStream: Constructor called");
  HRESULT hResult = CreateStreamOnHGlobal(NULL, TRUE, &m_pImpStream);
  if (FAILED(hResult)) {
    ZT4_LOG(ZT4_LEVEL_ERROR, "CMemoryStream: Failed to create memory stream:%x", hResult);
    throw ZT4ThrownResult(hResult);
  }
  hResult = ReadChain();
  if (FAILED(hResult)) {
    m_pImpStream->Release();
    throw ZT4ThrownResult(hResult);
  }
  InitializeCriticalSection(&m_cs);
  // Kept for good: a database with open fields lives until the process ends.
  m_pDBobj->AddRef();
}

CMemoryStream::~CMemoryStream() {
  ZT4_LOG(ZT4_LEVEL_DETAIL, "CMemoryStream: Destructor called");
  if (m_pImpStream) {
    if (m_fDirty) CommitStreamToDatabase();
    m_pImpStream->Release();
    m_pImpStream = NULL;
  }
  DeleteCriticalSection(&m_cs);
}

void* CMemoryStream::operator new(size_t cb) noexcept { return HeapAlloc(GetPrivateHeap(), HEAP_ZERO_MEMORY, cb); }

void CMemoryStream::operator delete(void* pv) noexcept { HeapFree(GetPrivateHeap(), 0, pv); }

// Reads the chain into the memory stream and notes the successors that a commit reuses.
HRESULT CMemoryStream::ReadChain() {
  HRESULT hResult = S_OK;
  DWORD cCapacity = 0;
  if (FAILED(hResult = m_pDBobj->GetNodeCapacity(&cCapacity))) return hResult;
  DATA_NODE dnData;
  DWORD cCached = 0;
  DWORD dwOffSet = m_dwFirstNodeOffSet;
  for (DWORD cNodes = 0; dwOffSet != 0; ++cNodes) {
    if (cNodes >= cCapacity) return MAPI_E_CORRUPT_DATA;  // the chain loops
    dnData.dwOffSet = dwOffSet;
    if (FAILED(hResult = m_pDBobj->AccessData(CDataBase::READ, dnData))) return hResult;
    // A never-written node (type 0) reads as empty; index and pool nodes are no field's.
    if (dnData.wNodeType == NODE_TYPE_INDEX || dnData.wNodeType == NODE_TYPE_FREEPOOL || dnData.wSize > DATA_SIZE)
      return MAPI_E_CORRUPT_DATA;
    dwOffSet = dnData.dwOffSetNextNode;
    if (cCached < CACHED_SUCCESSORS) {
      m_rgdwCachedOffSets[cCached] = dwOffSet;
      if (dwOffSet) ++cCached;
    } else if (m_dwDeleteAfter == 0) {
      m_dwDeleteAfter = dwOffSet;
    }
    if (dnData.wSize && FAILED(hResult = m_pImpStream->Write(dnData.bRawData, dnData.wSize, NULL))) return hResult;
  }
  LARGE_INTEGER liZero = {};
  return m_pImpStream->Seek(liZero, STREAM_SEEK_SET, NULL);
}

// The next node of the chain being written: an old successor while the cache has one, else a
// node from the pool or the end of the file.
HRESULT CMemoryStream::NextNodeForCommit(DWORD* piCache, DWORD* pdwNextOffset) {
  if (*piCache >= CACHED_SUCCESSORS || m_rgdwCachedOffSets[*piCache] == 0)
    return m_pDBobj->ReadWriteFreeNodeHeader(FNH_GET_FREE_BLOCK, NULL, pdwNextOffset);
  *pdwNextOffset = m_rgdwCachedOffSets[(*piCache)++];
  return S_OK;
}

HRESULT CMemoryStream::CommitStreamToDatabase() {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_DETAIL);
  STATSTG statstg = {};
  LARGE_INTEGER liZero = {};
  HRESULT hResult = m_pImpStream->Stat(&statstg, STATFLAG_NONAME);
  if (SUCCEEDED(hResult)) hResult = m_pImpStream->Seek(liZero, STREAM_SEEK_SET, NULL);
  if (FAILED(hResult)) {
    ZT4_LOG(ZT4_LEVEL_ERROR, "CMemoryStream::CommitStreamToDatabase: Stat & Seek:%x", hResult);
    return hResult;
  }
  DWORD cbRemaining = statstg.cbSize.LowPart;
  DWORD cbTotal = 0;
  DWORD dwCurrentOffSet = m_dwFirstNodeOffSet;
  DWORD iCache = 0;
  // Lock order: back-end critical section, then the database's; held from the first node to the
  // last so that commits don't interleave. The stream's own lock is not held.
  CDataBaseLock lock(m_pDBobj);
  DATA_NODE dnData;
  for (;;) {
    memset(&dnData, 0, sizeof(dnData));
    ULONG cbRead = 0;
    if (FAILED(hResult = m_pImpStream->Read(dnData.bRawData, DATA_SIZE, &cbRead))) break;
    ZT4_ASSERT(cbRead <= DATA_SIZE);
    if (cbRead == 0 && cbRemaining != 0) {
      hResult = E_UNEXPECTED;  // the memory stream ended before its size
      break;
    }
    cbRemaining = cbRead >= cbRemaining ? 0 : cbRemaining - cbRead;
    cbTotal += cbRead;
    dnData.wNodeType = NODE_TYPE_DATA;
    dnData.wSize = static_cast<WORD>(cbRead);
    dnData.dwOffSet = dwCurrentOffSet;
    if (cbRemaining != 0) {
      if (FAILED(hResult = NextNodeForCommit(&iCache, &dnData.dwOffSetNextNode))) break;
      dwCurrentOffSet = dnData.dwOffSetNextNode;
    } else if (iCache < CACHED_SUCCESSORS && m_rgdwCachedOffSets[iCache] != 0) {
      // The old chain was longer: release its tail. That walk runs to the chain's end, through
      // m_dwDeleteAfter, which is released once more below and so enters the pool twice.
      m_pDBobj->DeleteStreamRecords(m_rgdwCachedOffSets[iCache]);
    }
    hResult = m_pDBobj->AccessData(CDataBase::WRITE, dnData);
    if (FAILED(hResult) || cbRemaining == 0) {
      if (SUCCEEDED(hResult)) {
        *m_pdwStreamSize = cbTotal;
        m_pDBobj->m_fIndexDirty = TRUE;
      }
      // Nodes behind the cache are never reused in place.
      if (m_dwDeleteAfter) m_pDBobj->DeleteStreamRecords(m_dwDeleteAfter);
      break;
    }
  }
  ZT4_LOG_FAILURE("CMemoryStream::CommitStreamToDatabase", hResult);
  return hResult;
}

HRESULT CMemoryStream::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_INVALIDARG;
  *ppv = NULL;
  if (!IsEqualIID(riid, IID_IUnknown) && !IsEqualIID(riid, IID_IStream)) return E_NOINTERFACE;
  AddRef();
  *ppv = static_cast<IStream*>(this);
  return S_OK;
}

ULONG CMemoryStream::AddRef() {
  CCritSecHolder lock(m_cs);  // lock order: the stream's own lock, taken alone
  return ++m_cRef;
}

ULONG CMemoryStream::Release() {
  ULONG cRef;
  {
    CCritSecHolder lock(m_cs);  // lock order: the stream's own lock, taken alone
    cRef = --m_cRef;
  }
  if (cRef == 0) delete this;
  return cRef;
}

HRESULT CMemoryStream::Write(const void* pv, ULONG cb, ULONG* pcbWritten) {
  CCritSecHolder lock(m_cs);  // lock order: the stream's own lock, taken alone
  HRESULT hResult = m_pImpStream->Write(pv, cb, pcbWritten);
  if (SUCCEEDED(hResult)) m_fDirty = TRUE;
  return hResult;
}

HRESULT CMemoryStream::Read(void* pv, ULONG cb, ULONG* pcbRead) { return m_pImpStream->Read(pv, cb, pcbRead); }

HRESULT CMemoryStream::Seek(LARGE_INTEGER dlibMove, DWORD dwOrigin, ULARGE_INTEGER* plibNewPosition) {
  return m_pImpStream->Seek(dlibMove, dwOrigin, plibNewPosition);
}

// Not a change by itself: a shrink persists only together with a Write.
HRESULT CMemoryStream::SetSize(ULARGE_INTEGER libNewSize) { return m_pImpStream->SetSize(libNewSize); }

HRESULT CMemoryStream::CopyTo(IStream* pstm, ULARGE_INTEGER cb, ULARGE_INTEGER* pcbRead, ULARGE_INTEGER* pcbWritten) {
  return m_pImpStream->CopyTo(pstm, cb, pcbRead, pcbWritten);
}

// Commits the memory stream only; the file is written at the last Release.
HRESULT CMemoryStream::Commit(DWORD grfCommitFlags) { return m_pImpStream->Commit(grfCommitFlags); }

HRESULT CMemoryStream::Revert() { return m_pImpStream->Revert(); }

HRESULT CMemoryStream::LockRegion(ULARGE_INTEGER libOffset, ULARGE_INTEGER cb, DWORD dwLockType) {
  return m_pImpStream->LockRegion(libOffset, cb, dwLockType);
}

HRESULT CMemoryStream::UnlockRegion(ULARGE_INTEGER libOffset, ULARGE_INTEGER cb, DWORD dwLockType) {
  return m_pImpStream->UnlockRegion(libOffset, cb, dwLockType);
}

HRESULT CMemoryStream::Stat(STATSTG* pstatstg, DWORD grfStatFlag) { return m_pImpStream->Stat(pstatstg, grfStatFlag); }

// A clone of the memory stream: it writes nowhere.
HRESULT CMemoryStream::Clone(IStream** ppstm) { return m_pImpStream->Clone(ppstm); }
