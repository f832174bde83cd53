// The local store file: fixed-size nodes, records of five field chains, an in-memory index and a
// free pool of released nodes; and CMemoryStream, the IStream over one field of a record.
//
// The on-disk structures and constants are public so that the back end and an inspection tool
// can read the same file without repeating the layout.
#pragma once
#include <windows.h>
#include <objbase.h>
#include <mapidefs.h>

#include <bit>
#include <cstddef>

static_assert(std::endian::native == std::endian::little, "the store file's integers are little-endian");

// ---------------------------------------------------------------------------------------------
// File layout

constexpr DWORD DB_FILE_VERSION = 1;
constexpr DWORD OFFSET_FILE_HEADER = 0;
constexpr DWORD OFFSET_FREENODES_HEADER = 256;
constexpr DWORD OFFSET_FIRST_INDEX_RECORD = 512;
constexpr DWORD OFFSET_FIRST_FREE_NODE = 2576;   // first free-pool node, a constant of the format
constexpr DWORD OFFSET_FIRST_DATA_NODE = 4640;   // also the length of a new file
constexpr DWORD DATA_SIZE = 2048;                // payload bytes of a node
constexpr DWORD DB_NAME_SIZE = 64;               // szName and szComment, with their NUL
constexpr DWORD INDEX_ENTRIES_PER_NODE = 46;
constexpr DWORD FREE_OFFSETS_PER_NODE = 512;
constexpr DWORD CACHED_SUCCESSORS = 40;          // successors a CMemoryStream reuses in place

// wNodeType values.
constexpr WORD NODE_TYPE_INDEX = 1;
constexpr WORD NODE_TYPE_FREEPOOL = 2;
constexpr WORD NODE_TYPE_DATA = 3;
constexpr WORD NODE_TYPE_RELEASED = 4;

// ReadWriteFreeNodeHeader flags.
constexpr DWORD FNH_GET_FREE_BLOCK = 1;
constexpr DWORD FNH_GET_NEXT_RECORD_ID = 2;

// The fields of a record.
typedef enum _RECFLD {
  RECFLD_PROPERTIES = 0,  // the object's stored property list
  RECFLD_CONTENTS = 1,    // folder: its messages; message: its attachments
  RECFLD_CHILDREN = 2,    // folder: its subfolders; message: its recipient records
  RECFLD_ASSOCIATED = 3,  // folder: its associated messages
  RECFLD_NAMES = 4,       // folder: the names of its subfolders
  RECFLD_ALL = 5          // DeleteField only: all five in turn
} RECFLD;
constexpr ULONG RECFLD_COUNT = 5;

// File header, offset 0.
struct DB_FILE_HEADER {
  DWORD dwVersion;
  DWORD dwReserved;
  MAPIUID guidStore;
  CHAR szName[DB_NAME_SIZE];
  CHAR szComment[DB_NAME_SIZE];
};
static_assert(sizeof(DB_FILE_HEADER) == 152);
static_assert(offsetof(DB_FILE_HEADER, guidStore) == 8);
static_assert(offsetof(DB_FILE_HEADER, szName) == 24);
static_assert(offsetof(DB_FILE_HEADER, szComment) == 88);

// The allocation header at OFFSET_FREENODES_HEADER: the only structure both processes share.
struct FREENODES_HEADER {
  DWORD dwNextRecordID;    // never 0 on disk
  DWORD dwNextNodeOffSet;  // first byte behind the last node
  DWORD dwFirstFreeNode;   // written once; always OFFSET_FIRST_FREE_NODE
};
static_assert(sizeof(FREENODES_HEADER) == 12);
static_assert(offsetof(FREENODES_HEADER, dwNextNodeOffSet) == 4);
static_assert(offsetof(FREENODES_HEADER, dwFirstFreeNode) == 8);

struct DATA_NODE {
  WORD wNodeType;
  WORD wSize;               // data node: payload bytes in use
  DWORD dwEntryCount;       // index node: entries; pool node: offsets (low 16 bits)
  DWORD dwOffSet;           // this node's own offset
  DWORD dwOffSetNextNode;   // next node of the chain, 0 at its end
  BYTE bRawData[DATA_SIZE];
};
constexpr DWORD DATA_NODE_HEADER_SIZE = 16;
static_assert(sizeof(DATA_NODE) == 2064);
static_assert(offsetof(DATA_NODE, wSize) == 2);
static_assert(offsetof(DATA_NODE, dwEntryCount) == 4);
static_assert(offsetof(DATA_NODE, dwOffSet) == 8);
static_assert(offsetof(DATA_NODE, dwOffSetNextNode) == 12);
static_assert(offsetof(DATA_NODE, bRawData) == DATA_NODE_HEADER_SIZE);
constexpr DWORD NODE_SIZE = sizeof(DATA_NODE);
static_assert(OFFSET_FIRST_FREE_NODE == OFFSET_FIRST_INDEX_RECORD + NODE_SIZE);
static_assert(OFFSET_FIRST_DATA_NODE == OFFSET_FIRST_FREE_NODE + NODE_SIZE);

// Start and size of one field's chain.
struct FIELD_CHAIN {
  DWORD dwStartOffSet;  // 0 when the field has no chain
  DWORD dwSize;         // bytes, as of the last commit of its stream
};

// One record of the index; 46 of them fill an index node's payload.
struct INDEX_ENTRY {
  DWORD dwNodeID;             // record ID
  DWORD dwPropsStartOffSet;   // field 0
  DWORD dwPropsSize;
  FIELD_CHAIN rgFields[RECFLD_COUNT - 1];  // fields 1 to 4
};
static_assert(sizeof(INDEX_ENTRY) == 44);
static_assert(offsetof(INDEX_ENTRY, dwPropsStartOffSet) == 4);
static_assert(offsetof(INDEX_ENTRY, dwPropsSize) == 8);
static_assert(offsetof(INDEX_ENTRY, rgFields) == 12);
static_assert(INDEX_ENTRIES_PER_NODE * sizeof(INDEX_ENTRY) <= DATA_SIZE);
static_assert(FREE_OFFSETS_PER_NODE * sizeof(DWORD) == DATA_SIZE);

// The offset and size words of a field (rf 0 to 4).
DWORD* FieldStartOffSet(INDEX_ENTRY& entry, ULONG rf);
DWORD* FieldSize(INDEX_ENTRY& entry, ULONG rf);

// TRUE for an offset on a node boundary at or behind the first index node.
BOOL IsNodeOffset(DWORD dwOffSet);

// Free-pool payload access; the count is the low 16 bits of dwEntryCount.
DWORD FreePoolCount(const DATA_NODE& dnPool);
DWORD FreePoolSlot(const DATA_NODE& dnPool, DWORD iSlot);
void SetFreePoolSlot(DATA_NODE& dnPool, DWORD iSlot, DWORD dwOffSet);

// ---------------------------------------------------------------------------------------------
// The in-memory index: a doubly linked list of entries from the record store's private heap.
// A node never moves while it lives, so a stream may keep the address of its field's size word.
class CIndexList {
 public:
  CIndexList() = default;
  ~CIndexList() { RemoveAll(); }
  CIndexList(const CIndexList&) = delete;
  CIndexList& operator=(const CIndexList&) = delete;

  // Appends at the tail; an exhausted heap is thrown as E_OUTOFMEMORY.
  INDEX_ENTRY* Append(const INDEX_ENTRY& entry);
  // Searches from the cursor to the tail, then from the cursor back to the head; the cursor
  // stays on the hit.
  INDEX_ENTRY* Find(DWORD dwNodeID);
  // Removes the first entry with that ID, counting from the head. FALSE when there is none.
  BOOL Remove(DWORD dwNodeID);
  void RemoveAll();
  // walk(reset) and walk(next): the latter gives the entry at the walk position and advances.
  void WalkReset();
  INDEX_ENTRY* WalkNext();
  ULONG Count() const { return m_cEntries; }

 private:
  struct NODE {
    NODE* pNext;
    NODE* pPrev;
    INDEX_ENTRY entry;
  };
  NODE* m_pHead = NULL;
  NODE* m_pTail = NULL;
  NODE* m_pCursor = NULL;
  NODE* m_pWalk = NULL;
  ULONG m_cEntries = 0;
};

class CMemoryStream;

// ---------------------------------------------------------------------------------------------
// The record file. Created with a reference count of 1 by CommonOpenFile; each CMemoryStream
// keeps one reference for good, so a database whose fields were opened lives to the end of the
// process, and the index reaches the disk only when the last Release runs.
class CDataBase {
 public:
  enum { READ = 0, WRITE = 1 };

  CDataBase(const MAPIUID* pGuid, HANDLE hFile);
  CDataBase(const CDataBase&) = delete;
  CDataBase& operator=(const CDataBase&) = delete;
  // Lives in the record store's private heap; a failed allocation gives NULL.
  static void* operator new(size_t cb) noexcept;
  static void operator delete(void* pv) noexcept;

  ULONG AddRef();
  ULONG Release();

  // *pdwRecordID 0 asks for a new ID. Opens field 0 of the new record.
  HRESULT CreateRecord(DWORD* pdwRecordID, IStream** ppStream);
  // Reserves an ID; nothing enters the index.
  HRESULT CreateEmptyRecord(DWORD* pdwRecordID);
  HRESULT OpenRecordField(DWORD dwRecordID, BOOL fCreateIfNotFound, RECFLD rfStream, IStream** ppStream);
  HRESULT GetNodeStream(DWORD dwRecordID, RECFLD rfStream, IStream** ppStream, BOOL fCreateIfNotFound);
  HRESULT DeleteRecord(DWORD dwRecordID);
  HRESULT DeleteField(DWORD dwRecordID, RECFLD rfStream);
  // Releases the chain starting at dwOffSet into the free pool.
  HRESULT DeleteStreamRecords(DWORD dwOffSet);
  // Hands out a record ID and/or a node (FNH_* mask).
  HRESULT ReadWriteFreeNodeHeader(DWORD dwFlags, DWORD* pdwNextRecordID, DWORD* pdwNewOffSet);
  // Grows the file by one node at pfnhInfo->dwNextNodeOffSet; the caller writes the header back.
  HRESULT GetNewEmptyNode(FREENODES_HEADER* pfnhInfo, DWORD* pdwNewOffSet);
  // Pops one offset from the last node of the free-pool chain.
  HRESULT GetFreeNode(DWORD* pdwOffSet);
  HRESULT LoadFreeNodesPool();
  HRESULT SaveFreeNodesPool();
  HRESULT LoadIndexNodes();
  HRESULT SaveIndexNodes();
  // One seek and one transfer of the node at dnData.dwOffSet (16 bytes with fHeaderOnly).
  HRESULT AccessData(int nAccess, DATA_NODE& dnData, BOOL fHeaderOnly = FALSE);
  // Stand at each place where the file would need a cross-process lock; they grant at once.
  HRESULT LockRecord(DWORD dwOffSet, DWORD dwSize, BOOL fWait = TRUE);
  HRESULT UnlockRecord(DWORD dwOffSet, DWORD dwSize);
  // Rewrites the display name and/or the comment in the file header (NULL leaves one as it is).
  HRESULT SetDataBaseStrings(LPCSTR szName, LPCSTR szComment);

  const MAPIUID& GetStoreGuid() const { return m_guidStore; }
  // Node transfers made through AccessData by this object.
  ULONG GetNodeReadCount() const { return m_cNodeReads; }
  ULONG GetNodeWriteCount() const { return m_cNodeWrites; }

 private:
  friend class CMemoryStream;
  friend class CDataBaseLock;
  ~CDataBase();

  HRESULT ReadFreeNodesHeader(FREENODES_HEADER* pfnhInfo);
  HRESULT WriteFreeNodesHeader(const FREENODES_HEADER& fnhInfo);
  HRESULT GetNodeCapacity(DWORD* pcNodes);
  HRESULT ReadIndexChain();
  HRESULT RollOverFreeNodes(FREENODES_HEADER* pfnhInfo);
  HRESULT PushFreeNode(DWORD dwOffSet);
  HRESULT ReleaseFieldChain(INDEX_ENTRY* pEntry, ULONG rf);
  HRESULT WriteIndexChain();

  ULONG m_cRef;
  MAPIUID m_guidStore;
  HANDLE m_hFile;
  CRITICAL_SECTION m_cs;
  DATA_NODE m_FreeNodes;
  BOOL m_fIndexDirty;
  BOOL m_fFreeNodesDirty;
  BOOL m_fIndexLoaded;
  BOOL m_fFreeNodesLoaded;
  CIndexList m_IndexList;
  ULONG m_cNodeReads;
  ULONG m_cNodeWrites;

  static volatile LONG m_fShuttingDown;  // set by a destructor; kept for debuggers, read by nobody
};

// Creates (fCreate) or opens the store file. Creating takes szName and szComment (at most 63
// characters) and pGuid. Opening fills pGuid and, when they are not NULL, szName and szComment
// (buffers of DB_NAME_SIZE characters).
HRESULT CommonOpenFile(LPCSTR szFileName, LPSTR szName, LPSTR szComment, LPMAPIUID pGuid, CDataBase** ppDB,
                       BOOL fCreate);

// ---------------------------------------------------------------------------------------------
// IStream over one field. The chain is read into a memory stream at construction; a written
// stream goes back over the chain when its last reference is released, and only then.
class CMemoryStream : public IStream {
 public:
  // Throws the HRESULT of a failure.
  CMemoryStream(CDataBase* pDBobj, DWORD dwFirstNodeOffSet, DWORD* pdwStreamSize);
  CMemoryStream(const CMemoryStream&) = delete;
  CMemoryStream& operator=(const CMemoryStream&) = delete;
  static void* operator new(size_t cb) noexcept;
  static void operator delete(void* pv) noexcept;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;
  HRESULT STDMETHODCALLTYPE Read(void* pv, ULONG cb, ULONG* pcbRead) override;
  HRESULT STDMETHODCALLTYPE Write(const void* pv, ULONG cb, ULONG* pcbWritten) override;
  HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER dlibMove, DWORD dwOrigin, ULARGE_INTEGER* plibNewPosition) override;
  HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER libNewSize) override;
  HRESULT STDMETHODCALLTYPE CopyTo(IStream* pstm, ULARGE_INTEGER cb, ULARGE_INTEGER* pcbRead,
                                   ULARGE_INTEGER* pcbWritten) override;
  HRESULT STDMETHODCALLTYPE Commit(DWORD grfCommitFlags) override;
  HRESULT STDMETHODCALLTYPE Revert() override;
  HRESULT STDMETHODCALLTYPE LockRegion(ULARGE_INTEGER libOffset, ULARGE_INTEGER cb, DWORD dwLockType) override;
  HRESULT STDMETHODCALLTYPE UnlockRegion(ULARGE_INTEGER libOffset, ULARGE_INTEGER cb, DWORD dwLockType) override;
  HRESULT STDMETHODCALLTYPE Stat(STATSTG* pstatstg, DWORD grfStatFlag) override;
  HRESULT STDMETHODCALLTYPE Clone(IStream** ppstm) override;

 private:
  virtual ~CMemoryStream();
  HRESULT ReadChain();
  HRESULT CommitStreamToDatabase();
  HRESULT NextNodeForCommit(DWORD* piCache, DWORD* pdwNextOffset);

  ULONG m_cRef;
  CRITICAL_SECTION m_cs;
  IStream* m_pImpStream;
  CDataBase* m_pDBobj;
  DWORD m_dwFirstNodeOffSet;
  DWORD* m_pdwStreamSize;
  BOOL m_fDirty;
  DWORD m_rgdwCachedOffSets[CACHED_SUCCESSORS];
  DWORD m_dwDeleteAfter;
};
