// Property lists of stored objects, the properties a client holds open as streams or storages,
// record ID lists, and the IStream/IStorage wrappers that tell an object whether a client changed
// what it opened.
#pragma once
#include <windows.h>
#include <objbase.h>
#include <mapidefs.h>
#include <mapiutil.h>

#include <cstddef>

// A property whose data sits in a record of its own. The value holds the original type (16 bits),
// the kind (16 bits: 1 stream, 2 storage) and the record ID (32 bits).
#define PT_LARGE_STUB ((ULONG)0x8008)

// COpenPropList node flags.
#define OPENPROP_STREAM ((ULONG)0x0001)
#define OPENPROP_STORAGE ((ULONG)0x0002)
#define OPENPROP_KIND_MASK ((ULONG)0x000F)
#define OPENPROP_SKIP ((ULONG)0x0100)
#define OPENPROP_OPENED ((ULONG)0x0200)
#define OPENPROP_DELETED ((ULONG)0x1000)
#define OPENPROP_NEW ((ULONG)0x8000)

// Up to this size a large stream opened by a client stays in memory; above it a temporary file
// serves.
#define LARGE_STREAM_MEMORY_LIMIT ((ULONG)65536)

// One flattened property: the value's pointers point into the data area that follows the
// structure, so a node is one block and its bytes from dwSize on are its stored form.
struct PROPNODE {
  PROPNODE* pNext;
  DWORD dwSize;  // 24 + the size of the data area
  ULONG ulPropTag;
  union _PV Value;
  // data area follows
};
typedef PROPNODE* LPPROPNODE;

static_assert(sizeof(union _PV) == 16, "the stored value union is 16 bytes");
static_assert(sizeof(PROPNODE) == 32, "a property node's fixed part is 32 bytes");
static_assert(offsetof(PROPNODE, dwSize) == 8 && offsetof(PROPNODE, ulPropTag) == 12 &&
                  offsetof(PROPNODE, Value) == 16,
              "the bytes from dwSize on are the stored node");

inline LPBYTE PropNodeData(const PROPNODE* pNode) {
  return reinterpret_cast<LPBYTE>(const_cast<PROPNODE*>(pNode)) + sizeof(PROPNODE);
}

// The PT_LARGE_STUB value of a property held in record dwRecordID.
void MakeLargeStub(ULONG ulPropTag, ULONG ulKind, DWORD dwRecordID, LPSPropValue pStub);
// The parts of a stub value. Any out pointer may be NULL.
void GetLargeStubInfo(const SPropValue* pStub, ULONG* pulType, ULONG* pulKind, DWORD* pdwRecordID);

class COpenPropList;

class CPropList {
 public:
  CPropList();
  ~CPropList();
  CPropList(const CPropList&) = delete;
  CPropList& operator=(const CPropList&) = delete;

  // Adds or replaces by property ID; the list keeps the order of first insertion. A value of a
  // type the list can't store is dropped with S_OK.
  HRESULT Insert(LPSPropValue pProp);
  // Looks a property up by ID (and type, with fExactType, unless the asked type is
  // PT_UNSPECIFIED). pAllocBase NULL gives a shallow copy pointing into the list; otherwise the
  // data is copied and chained to pAllocBase. Not found: a PT_ERROR value and MAPI_E_NOT_FOUND.
  HRESULT Find(ULONG ulPropTag, LPSPropValue pProp, BOOL fExactType = FALSE, LPVOID pAllocBase = NULL);
  // Removes by property ID. pOut receives tag and value bytes; pointers in it dangle.
  HRESULT Delete(ULONG ulPropTag, LPSPropValue pOut = NULL);
  // Deep copy of one node's value, chained to pAllocBase.
  HRESULT Copy(const PROPNODE* pNode, LPSPropValue pProp, LPVOID pAllocBase);
  // A new node for a value, from the private heap; free it with FreeNode.
  static HRESULT Flatten(LPSPropValue pProp, LPPROPNODE* ppNode);
  static void FreeNode(LPPROPNODE pNode);
  // The tags in list order, from the MAPI allocator.
  HRESULT GetTags(LPSPropTagArray* ppTags);
  // All values in list order, 24 bytes each, from the MAPI allocator. The values are shallow:
  // their pointers point into the list and are good while the list is unchanged.
  HRESULT GetAllProps(LPSPropValue* ppProps, ULONG* pcValues);
  // Writes a plain value's bytes into pStream (strings without terminator) and seeks it to 0.
  HRESULT CopyToStream(ULONG ulPropTag, LPSTREAM pStream);

  HRESULT SaveToStream(LPSTREAM pStream);
  HRESULT LoadFromStream(LPSTREAM pStream);
  void Clear();
  // Empties this list and inserts each node of pOther. An empty pOther leaves this list as it is.
  HRESULT CopyFrom(CPropList* pOther);
  // Before a save: each small stream the client holds open is read back into the list as an
  // ordinary value, and its entry leaves the open list.
  HRESULT PullInSmallStreams(COpenPropList* pOpenPropList);

  ULONG GetCount() const { return m_cValues; }
  BOOL IsModified() const { return m_fModified != 0; }
  void SetModified(BOOL fModified) { m_fModified = fModified ? 1 : 0; }
  // The walk: GetFirstNode puts the position on the head.
  const PROPNODE* GetFirstNode();
  const PROPNODE* GetNextNode();

 private:
  LPPROPNODE FindNodeByID(ULONG ulPropTag) const;
  BOOL UpdateInPlace(LPSPropValue pProp);
  void LinkReplacing(LPPROPNODE pNew);
  HRESULT ReadNodes(LPSTREAM pStream, ULONG cNodes, ULONGLONG cbLeft);
  static void FreeChain(LPPROPNODE pHead);

  ULONG m_fModified;
  ULONG m_cValues;
  LPPROPNODE m_pTail;
  LPPROPNODE m_pHead;
  LPPROPNODE m_pWalk;
};

// The inner object of an open property: an IStream-based CPropStream or an IStorage-based CStorage.
class CPropStream;
class CStorage;

struct OPENPROPNODE {
  OPENPROPNODE* pNext;
  ULONG ulPropTag;
  ULONG ulFlags;
  DWORD dwRecordID;  // 0 while no record exists
  union {
    LPUNKNOWN pUnk;
    CPropStream* pStream;
    CStorage* pStorage;
  } iface;  // owned with one reference
};
typedef OPENPROPNODE* LPOPENPROPNODE;
static_assert(sizeof(OPENPROPNODE) == 32, "an open-property node is 32 bytes");

class COpenPropList {
 public:
  COpenPropList();
  ~COpenPropList();
  COpenPropList(const COpenPropList&) = delete;
  COpenPropList& operator=(const COpenPropList&) = delete;

  // Appends a node. The list takes over the caller's reference on pObject on success; on failure
  // (E_OUTOFMEMORY, nothing added) the caller keeps it.
  HRESULT Add(LPUNKNOWN pObject, ULONG ulFlags, DWORD dwRecordID, ULONG ulPropTag);
  HRESULT Insert(LPUNKNOWN pObject, ULONG ulFlags, DWORD dwRecordID, ULONG ulPropTag) {
    return Add(pObject, ulFlags, dwRecordID, ulPropTag);
  }
  // The value of an open stream, read into memory chained to pAllocBase. A storage, or a stream
  // above cbMax bytes, gives E_OUTOFMEMORY.
  HRESULT Find(ULONG ulPropTag, LPSPropValue pProp, LPVOID pAllocBase, ULONG cbMax = 0xFFFFFFFF);
  // The node of a property ID that isn't deleted, or NULL.
  LPOPENPROPNODE FindNode(ULONG ulPropTag) const;
  // A new property goes entirely; one with a record is marked deleted for the save.
  HRESULT Remove(ULONG ulPropTag);
  HRESULT RemoveNode(LPOPENPROPNODE pNode);
  // Releases the objects: all with fAll, otherwise those no client holds and those deleted.
  void Clear(BOOL fAll);

  LPOPENPROPNODE GetHead() const { return m_pHead; }
  ULONG GetCount() const;

 private:
  void Unlink(LPOPENPROPNODE pNode);
  LPOPENPROPNODE m_pHead;
};

class CIDList {
 public:
  CIDList();
  ~CIDList();
  CIDList(const CIDList&) = delete;
  CIDList& operator=(const CIDList&) = delete;

  // Appends at the tail: the order is the order of creation.
  HRESULT Insert(DWORD dwID);
  // Removes the first node holding dwID; MAPI_E_NOT_FOUND if none does.
  HRESULT Remove(DWORD dwID);
  BOOL Contains(DWORD dwID) const;
  // Replaces the contents with the list stored at the stream's position. NULL is S_OK.
  HRESULT LoadFromStream(LPSTREAM pStream);
  HRESULT SaveToStream(LPSTREAM pStream);
  void Clear();
  // The walk; 0 at the end.
  DWORD GetFirst();
  DWORD GetNext();
  ULONG GetNodeCount() const { return m_cIDs; }

 private:
  struct IDNODE {
    IDNODE* pNext;
    DWORD dwID;
    DWORD dwReserved;
  };
  static_assert(sizeof(IDNODE) == 16, "an ID node is 16 bytes");

  ULONG m_cIDs;
  IDNODE* m_pHead;
  IDNODE* m_pTail;
  IDNODE* m_pWalk;
};

// The stream a client gets from OpenProperty with write access: notes whether it was written.
class CPropStream final : public IStream {
 public:
  CPropStream(LPSTREAM pStream, ULONG ulFlags);
  CPropStream(const CPropStream&) = delete;
  CPropStream& operator=(const CPropStream&) = delete;

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

  // For the back end and COpenPropList; the client's position is kept.
  HRESULT GetSize(ULONG* pcbSize);
  // Reads the whole stream into pBuffer, which holds cbBuffer bytes (E_OUTOFMEMORY if the stream
  // has grown beyond them). *pcbRead, when given, receives the number of bytes.
  HRESULT SaveToBuffer(LPVOID pBuffer, ULONG cbBuffer = 0xFFFFFFFF, ULONG* pcbRead = NULL);
  HRESULT SaveToStream(LPSTREAM pDest);

  BOOL IsModified();
  void SetModified(BOOL fModified);
  ULONG GetAccess() const { return m_ulFlags; }
  BOOL IsWritable() const { return m_ulFlags != 0; }
  LPSTREAM GetInnerStream() const { return m_pStream; }

 private:
  ~CPropStream();

  ULONG m_cRef;
  ULONG m_fModified;
  ULONG m_ulFlags;
  LPSTREAM m_pStream;
  CRITICAL_SECTION m_cs;
};

// The storage a client gets from OpenProperty: notes whether elements were created or opened.
class CStorage final : public IStorage {
 public:
  CStorage(LPSTORAGE pStorage, LPSTREAM pStream, ULONG ulFlags);
  CStorage(const CStorage&) = delete;
  CStorage& operator=(const CStorage&) = delete;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;
  HRESULT STDMETHODCALLTYPE CreateStream(const OLECHAR* pwcsName, DWORD grfMode, DWORD reserved1, DWORD reserved2,
                                         IStream** ppstm) override;
  HRESULT STDMETHODCALLTYPE OpenStream(const OLECHAR* pwcsName, void* reserved1, DWORD grfMode, DWORD reserved2,
                                       IStream** ppstm) override;
  HRESULT STDMETHODCALLTYPE CreateStorage(const OLECHAR* pwcsName, DWORD grfMode, DWORD reserved1, DWORD reserved2,
                                          IStorage** ppstg) override;
  HRESULT STDMETHODCALLTYPE OpenStorage(const OLECHAR* pwcsName, IStorage* pstgPriority, DWORD grfMode,
                                        SNB snbExclude, DWORD reserved, IStorage** ppstg) override;
  HRESULT STDMETHODCALLTYPE CopyTo(DWORD ciidExclude, const IID* rgiidExclude, SNB snbExclude,
                                   IStorage* pstgDest) override;
  HRESULT STDMETHODCALLTYPE MoveElementTo(const OLECHAR* pwcsName, IStorage* pstgDest, const OLECHAR* pwcsNewName,
                                          DWORD grfFlags) override;
  HRESULT STDMETHODCALLTYPE Commit(DWORD grfCommitFlags) override;
  HRESULT STDMETHODCALLTYPE Revert() override;
  HRESULT STDMETHODCALLTYPE EnumElements(DWORD reserved1, void* reserved2, DWORD reserved3,
                                         IEnumSTATSTG** ppenum) override;
  HRESULT STDMETHODCALLTYPE DestroyElement(const OLECHAR* pwcsName) override;
  HRESULT STDMETHODCALLTYPE RenameElement(const OLECHAR* pwcsOldName, const OLECHAR* pwcsNewName) override;
  HRESULT STDMETHODCALLTYPE SetElementTimes(const OLECHAR* pwcsName, const FILETIME* pctime, const FILETIME* patime,
                                            const FILETIME* pmtime) override;
  HRESULT STDMETHODCALLTYPE SetClass(REFCLSID clsid) override;
  HRESULT STDMETHODCALLTYPE SetStateBits(DWORD grfStateBits, DWORD grfMask) override;
  HRESULT STDMETHODCALLTYPE Stat(STATSTG* pstatstg, DWORD grfStatFlag) override;

  // Commits the storage and copies its whole backing stream to pDest; the backing stream's
  // position is kept.
  HRESULT SaveToStream(LPSTREAM pDest);

  BOOL IsModified();
  void SetModified(BOOL fModified);
  ULONG GetAccess() const { return m_ulFlags; }
  LPSTREAM GetBackingStream() const { return m_pStream; }
  LPSTORAGE GetInnerStorage() const { return m_pStorage; }

 private:
  ~CStorage();
  void MarkModifiedIf(HRESULT hResult);

  ULONG m_cRef;
  ULONG m_fModified;
  ULONG m_ulFlags;
  LPSTREAM m_pStream;
  LPSTORAGE m_pStorage;
  CRITICAL_SECTION m_cs;
};

// A CStorage over pStream's contents at its position, or, without a stream, over a new temporary
// file that goes when the storage is released.
HRESULT CreatePrivateIStorage(CStorage** ppStorage, ULONG ulFlags, LPSTREAM pStream = NULL);
// A new empty file in the temporary folder; pszPath holds MAX_PATH characters. 1 or 0.
BOOL GetTempFullPathFileName(LPSTR pszPath);
// A read-write stream on a new uniquely named temporary file, deleted when released.
HRESULT OpenTempFileStream(LPSTREAM* ppStream);
