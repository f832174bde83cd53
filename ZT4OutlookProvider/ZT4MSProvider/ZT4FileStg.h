// The back end: the storage interface under every MAPI object of the store (CBackEnd), the
// private entry ID those objects are known by, and its one implementation over the record file
// (CFileBackEnd).
#pragma once
#include <windows.h>
#include <objbase.h>
#include <mapidefs.h>
#include <mapiutil.h>
#include <mapispi.h>

#include <cstddef>
#include <memory>

#include "ZT4DBFile.h"
#include "ZT4PropList.h"

// ---------------------------------------------------------------------------------------------
// Private entry ID: the ENTRYID of every object of the store. Stored in property lists and
// compared bytewise, so its layout is fixed.

constexpr ULONG CB_UNIQUE_ID = 104;
constexpr BYTE PRIVATE_EID_VERSION = 1;

struct PRIVATE_EID {
  BYTE abFlags[4];        // MAPI entry ID flags, 0
  MAPIUID guidStore;      // the store's UID, as in the file header
  BYTE bVersion;          // PRIVATE_EID_VERSION
  BYTE bObjType;          // MAPI_FOLDER, MAPI_MESSAGE, MAPI_ATTACH ...
  BYTE abPadding[2];
  DWORD dwObjID;          // record ID in the store file
  CHAR szUniqueId[CB_UNIQUE_ID];  // an archived message's ID, NUL-terminated; else zeros
};
typedef PRIVATE_EID* LPPRIVATE_EID;

constexpr ULONG CB_PRIVATE_EID = 132;
static_assert(sizeof(MAPIUID) == 16);
static_assert(sizeof(PRIVATE_EID) == CB_PRIVATE_EID);
static_assert(offsetof(PRIVATE_EID, abFlags) == 0);
static_assert(offsetof(PRIVATE_EID, guidStore) == 4);
static_assert(offsetof(PRIVATE_EID, bVersion) == 20);
static_assert(offsetof(PRIVATE_EID, bObjType) == 21);
static_assert(offsetof(PRIVATE_EID, abPadding) == 22);
static_assert(offsetof(PRIVATE_EID, dwObjID) == 24);
static_assert(offsetof(PRIVATE_EID, szUniqueId) == 28);

// Records with fixed IDs.
constexpr DWORD ROOT_FOLDER_RECORD = 0xFFFFFFFF;           // the store's root folder
// The folder the message class "IPM" is bound to. The skeleton takes record IDs 1 to 8 in the
// order the store's special-folder entry IDs name them, which makes 3 the Inbox.
constexpr DWORD IPM_ROOT_RECORD = 3;
constexpr DWORD RECEIVE_FOLDER_SETTINGS = 0xFFFFFFFE;     // receive-folder table, field 0
constexpr DWORD NAMED_PROPERTIES_RECORD = 0xFFFFFFFC;     // named property map, field 0

// A receive-folder class name is read into a buffer of this size, terminator included.
constexpr ULONG RFS_CLASS_BUFFER = 256;
// Class lengths from here on are a consistency failure of the stream.
constexpr ULONG RFS_CLASS_ASSERT_LIMIT = 512;

// Recipients are read from the table in batches of this many rows.
constexpr ULONG RECIP_BATCH_ROWS = 15;

// The columns of the receive-folder table, in this order.
enum { RFS_INSTANCE_KEY = 0, RFS_ENTRYID, RFS_RECORD_KEY, RFS_MESSAGE_CLASS, RFS_COLUMNS };

class CDedupCache;
class CBackEnd;

// Opens (or at the first logon of the process, recreates) the store file and makes its back end;
// with fLogon it also readies the data provider and builds the folder hierarchy of a new file.
// fUnused is always TRUE and has no effect.
HRESULT OpenMsgStoreDataBase(LPMAPISUP pPrivSupObj, LPCSTR szStorePath, LPCSTR szStoreName,
                             LPCSTR szStoreComment, const MAPIUID* pUID, BOOL fUnused, CBackEnd** ppBEobj,
                             BOOL fLogon);
// Lets the next OpenMsgStoreDataBase act as the process's first logon again. For tests.
void ResetFirstLogon();

// The server path of a folder, relative to the IPM subtree ("Inbox\\Projects"); empty for the
// root and the IPM subtree. *pbstrName is the caller's.
HRESULT GetCompleteFolderName(CBackEnd* pBEobj, const PRIVATE_EID& FolderEID, BSTR* pbstrName);
// TRUE when the folder's PR_DISPLAY_NAME_W is "IPM Subtree"; an unreadable folder is not.
BOOL IsIPMSubtree(CBackEnd* pBEobj, const PRIVATE_EID& FolderEID);
// Writes the 22 values of one hierarchy row into pTable.
HRESULT GetHierarchyTableProps(CBackEnd* pBEobj, const PRIVATE_EID& FolderEID, CPropList* pList,
                               LONG lAccess, LONG lFolderType, const SBinary* pStoreEID, LPTABLEDATA pTable);
class CMemoryDataBase;
class CMAPISupport;
class COpenObjectList;

// ---------------------------------------------------------------------------------------------
// The work order of DeleteObjects, filled by a folder and by DeleteFolderContents.

// ulFlags of DELETE_OBJECTS_DATA.
constexpr ULONG DEL_FROM_LIST = 0x01;          // only what lpEntryList names; otherwise all contents
constexpr ULONG DEL_KEEP_ASSOCIATED = 0x02;    // leave the associated messages
constexpr ULONG DEL_KEEP_FOLDER_COUNT = 0x04;  // leave the folder's subfolder state as it is

// ulFlags of CBackEnd::DeleteObjects.
constexpr ULONG DELOBJ_MESSAGES = 0x10;     // messages of a folder
constexpr ULONG DELOBJ_FOLDERS = 0x20;      // subfolders of a folder
constexpr ULONG DELOBJ_ATTACHMENT = 0x40;   // one attachment of a message
// What DeleteObjects answers for any failure of DeleteFolderContents.
constexpr HRESULT DELOBJ_E_FOLDER_CONTENTS = static_cast<HRESULT>(0x80070428);

struct DELETE_OBJECT_ENTRY {
  BYTE bObjType;      // MAPI_MESSAGE or MAPI_FOLDER
  BYTE fAssociated;   // a message of the associated list
  BYTE abPadding[2];
  DWORD dwObjID;
};
static_assert(sizeof(DELETE_OBJECT_ENTRY) == 8);

// The data of one nested delete: lpb comes from the private heap.
struct DELETE_NOTIFICATION {
  DWORD dwObjID;
  ULONG cb;
  LPBYTE lpb;
};

struct DELETE_OBJECTS_DATA {
  LPENTRYLIST lpEntryList;             // with DEL_FROM_LIST: what to delete; not owned
  DELETE_OBJECT_ENTRY* pObjects;       // process heap
  ULONG cObjects;
  DELETE_NOTIFICATION* pNotifications; // process heap
  ULONG cNotifications;
  COpenObjectList* pOpenObjects;       // the session's open objects, marked deleted; not owned
  ULONG ulFlags;
};

// Frees what DeleteFolderContents put into pData (not pData itself) and clears those members.
void FreeDeleteObjectsData(DELETE_OBJECTS_DATA* pData);

// ulFlags of CheckFldNameCollision.
constexpr ULONG FLDNAME_ADD = 0x01;     // append the name when no entry has it
constexpr ULONG FLDNAME_CHECK = 0x02;   // look only
constexpr ULONG FLDNAME_REMOVE = 0x04;  // drop the entry of *pdwObjID; the count word stays
// A stored subfolder name is shorter than this many bytes.
constexpr ULONG FLDNAME_MAX_BYTES = 512;

// The archive's answers to a message delete, and what they become.
constexpr LONG REMOVE_RESULT_OK = 0;
constexpr LONG REMOVE_RESULT_REFUSED = 10351;
constexpr HRESULT ZT4_E_REMOVE_REFUSED = static_cast<HRESULT>(0x80049003);
constexpr HRESULT ZT4_E_REMOVE_FAILED = static_cast<HRESULT>(0x80049001);

// The ulType of CBackEnd::GetTable.
constexpr ULONG TABLE_HIERARCHY = 0;
constexpr ULONG TABLE_CONTENTS = 1;
constexpr ULONG TABLE_ATTACHMENTS = 2;
constexpr ULONG TABLE_RECIPIENTS = 3;
constexpr ULONG TABLE_RECEIVE_FOLDERS = 4;
constexpr ULONG TABLE_SEARCH_CONTENTS = 5;

// The receive-folder table's columns; PR_INSTANCE_KEY is the key.
extern const SizedSPropTagArray(RFS_COLUMNS, sptRFSColumns);

// The hierarchy table's 22 columns, in row order; PR_INSTANCE_KEY is the key.
constexpr ULONG HIERARCHY_COLUMNS = 22;
extern const SizedSPropTagArray(HIERARCHY_COLUMNS, sptHierarchyColumns);

// The folder type FillHierarchyTable gives its rows.
constexpr LONG HIERARCHY_ROW_FOLDER_TYPE = FOLDER_GENERIC;

// The skeleton's names.
#define ZT4_ROOT_FOLDER_NAME "D7BAA9E6-FB57-4CB6-A69F-25CF270B96D6"
#define ZT4_IPM_SUBTREE_NAME "IPM Subtree"
// Entries of CreateSubFolder's exclusion table are this many bytes apart.
constexpr ULONG EXCLUDED_NAME_STRIDE = 100;
// GetCompleteFolderName gives up on a parent chain deeper than this: a loop in a damaged file.
constexpr ULONG MAX_FOLDER_DEPTH = 256;

// ---------------------------------------------------------------------------------------------
// The storage interface. Entry IDs travel by value: every slot gets its own 132-byte copy.
class CBackEnd {
 public:
  explicit CBackEnd(const MAPIUID* pGuid);
  CBackEnd(const CBackEnd&) = delete;
  CBackEnd& operator=(const CBackEnd&) = delete;

  virtual ULONG AddRef() = 0;
  virtual ULONG Release() = 0;
  virtual HRESULT Flush() = 0;
  virtual HRESULT CreateObject(PRIVATE_EID ParentEID, LPPRIVATE_EID pNewEID, CPropList** ppList, ULONG ulObjType,
                               LPCSTR pszName, LPCSTR pszComment, LPUNKNOWN pUnknown) = 0;
  virtual HRESULT OpenObject(PRIVATE_EID EID, CPropList** ppList) = 0;
  virtual HRESULT SaveObject(PRIVATE_EID ParentEID, PRIVATE_EID ObjectEID, CPropList* pList,
                             COpenPropList* pOpenPropList, LPTABLEDATA pTable) = 0;
  virtual HRESULT SaveObject(PRIVATE_EID EID, CPropList* pList) = 0;
  virtual HRESULT GetCachedObject(PRIVATE_EID EID, LPCSTR pszFolderName, LPCSTR pszUniqueId, CPropList** ppList) = 0;
  virtual HRESULT RemoveCachedObject(LPCSTR pszObjectID) = 0;
  virtual HRESULT OpenPropertyInMemory(ULONG cbMaxSize, LPVOID pMemBlock, LPSPropValue pProp) = 0;
  virtual HRESULT OpenProperty(LPSPropValue pspvProp, LPUNKNOWN* ppUnk) = 0;
  virtual HRESULT CopyObjects(PRIVATE_EID SrcEID, PRIVATE_EID DstEID, ULONG ulFlags, LPENTRYLIST pEntryList) = 0;
  virtual HRESULT DeleteOneObject(LPPRIVATE_EID lpId, PRIVATE_EID ParentEID) = 0;
  virtual HRESULT DeleteObjects(PRIVATE_EID ParentEID, ULONG ulFlags, DWORD dwObjID, DELETE_OBJECTS_DATA* pData) = 0;
  virtual HRESULT DeleteMessages(PRIVATE_EID FolderEID, LPENTRYLIST pMsgList) = 0;
  virtual HRESULT UpdateContentCount(PRIVATE_EID ContainerEID, PRIVATE_EID ObjectEID, BOOL fAssociated,
                                     BOOL fUnread) = 0;
  virtual HRESULT GetTable(ULONG ulType, PRIVATE_EID ContainerEID, LONG lAccess, LPVOID pStoreEID, LPVOID pvFlag,
                           LPTABLEDATA* ppTable, LONG lActualCount = 0, LONG nCount = 0,
                           BOOL bInitialSyncCompleted = FALSE, LPENTRYLIST lpEntryList = NULL,
                           LPVOID pSearchCondition = NULL, BOOL fForce = FALSE) = 0;
  virtual HRESULT GetTableProps(ULONG ulType, LPSPropTagArray* ppColumns) = 0;
  virtual HRESULT BuildSortDescription(ULONG ulPropTag, ULONG ulOrder, LPSTR pszDescription, ULONG cchDescription) = 0;
  virtual HRESULT SetObjNameInContainer(LPCSTR pszName, PRIVATE_EID ParentEID, PRIVATE_EID ObjectEID) = 0;
  virtual HRESULT SetRFSEntryID(LPCSTR szMessageClass, PRIVATE_EID eid, LPTABLEDATA pTable) = 0;
  virtual HRESULT GetRFSEntryID(LPCSTR szMessageClass, LPPRIVATE_EID peid) = 0;
  virtual HRESULT GetNamedPropertiesStream(LPSTREAM* ppStream) = 0;
  virtual HRESULT SetDataBaseStrings(LPCSTR szName, LPCSTR szComment) = 0;
  virtual HRESULT GetContentCount(PRIVATE_EID FolderEID, LPENTRYLIST lpEntryList, LPVOID pSearchCondition,
                                  BOOL bConversation, LONG* plCount) = 0;
  virtual HRESULT FindRow(PRIVATE_EID FolderEID, LPENTRYLIST lpEntryList, LPVOID pSearchCondition,
                          LPCSTR pszInstanceKey, LONG* plRow) = 0;
  virtual HRESULT ClearMessageCache(PRIVATE_EID FolderEID) = 0;
  virtual HRESULT LoadCachedMessage(LPUNKNOWN pMessage, LPCSTR pszFolderName, PRIVATE_EID ParentEID,
                                    PRIVATE_EID ObjectEID, CPropList** ppList) = 0;
  virtual HRESULT GetSearchCondition(LPVOID ppCondition, LPSRestriction lpRestriction) = 0;

  // TRUE for an entry ID of this store: its UID, version 1 and an object type from 3 to 8.
  BOOL IsValidEntryID(const PRIVATE_EID* pEID) const;
  const MAPIUID& GetStoreGuid() const { return m_guidStore; }

 protected:
  virtual ~CBackEnd();

  MAPIUID m_guidStore;
  // Taken by every public storage operation. Lock order: back-end critical section, then the
  // CDataBase lock.
  CRITICAL_SECTION m_cs;
};

// ---------------------------------------------------------------------------------------------
// The back end over a CDataBase.
class CFileBackEnd final : public CBackEnd {
 public:
  // Takes its own reference on pDB; pSupObj is kept, not referenced.
  CFileBackEnd(CDataBase* pDB, const MAPIUID* pUID, LPMAPISUP pSupObj);

  ULONG AddRef() override;
  ULONG Release() override;
  HRESULT Flush() override;
  HRESULT CreateObject(PRIVATE_EID ParentEID, LPPRIVATE_EID pNewEID, CPropList** ppList, ULONG ulObjType,
                       LPCSTR pszName, LPCSTR pszComment, LPUNKNOWN pUnknown) override;
  HRESULT OpenObject(PRIVATE_EID EID, CPropList** ppList) override;
  HRESULT SaveObject(PRIVATE_EID ParentEID, PRIVATE_EID ObjectEID, CPropList* pList, COpenPropList* pOpenPropList,
                     LPTABLEDATA pTable) override;
  HRESULT SaveObject(PRIVATE_EID EID, CPropList* pList) override;
  HRESULT GetCachedObject(PRIVATE_EID EID, LPCSTR pszFolderName, LPCSTR pszUniqueId, CPropList** ppList) override;
  HRESULT RemoveCachedObject(LPCSTR pszObjectID) override;
  HRESULT OpenPropertyInMemory(ULONG cbMaxSize, LPVOID pMemBlock, LPSPropValue pProp) override;
  HRESULT OpenProperty(LPSPropValue pspvProp, LPUNKNOWN* ppUnk) override;
  HRESULT CopyObjects(PRIVATE_EID SrcEID, PRIVATE_EID DstEID, ULONG ulFlags, LPENTRYLIST pEntryList) override;
  HRESULT DeleteOneObject(LPPRIVATE_EID lpId, PRIVATE_EID ParentEID) override;
  HRESULT DeleteObjects(PRIVATE_EID ParentEID, ULONG ulFlags, DWORD dwObjID, DELETE_OBJECTS_DATA* pData) override;
  HRESULT DeleteMessages(PRIVATE_EID FolderEID, LPENTRYLIST pMsgList) override;
  HRESULT UpdateContentCount(PRIVATE_EID ContainerEID, PRIVATE_EID ObjectEID, BOOL fAssociated,
                             BOOL fUnread) override;
  HRESULT GetTable(ULONG ulType, PRIVATE_EID ContainerEID, LONG lAccess, LPVOID pStoreEID, LPVOID pvFlag,
                   LPTABLEDATA* ppTable, LONG lActualCount = 0, LONG nCount = 0, BOOL bInitialSyncCompleted = FALSE,
                   LPENTRYLIST lpEntryList = NULL, LPVOID pSearchCondition = NULL, BOOL fForce = FALSE) override;
  HRESULT GetTableProps(ULONG ulType, LPSPropTagArray* ppColumns) override;
  HRESULT BuildSortDescription(ULONG ulPropTag, ULONG ulOrder, LPSTR pszDescription, ULONG cchDescription) override;
  HRESULT SetObjNameInContainer(LPCSTR pszName, PRIVATE_EID ParentEID, PRIVATE_EID ObjectEID) override;
  HRESULT SetRFSEntryID(LPCSTR szMessageClass, PRIVATE_EID eid, LPTABLEDATA pTable) override;
  HRESULT GetRFSEntryID(LPCSTR szMessageClass, LPPRIVATE_EID peid) override;
  HRESULT GetNamedPropertiesStream(LPSTREAM* ppStream) override;
  HRESULT SetDataBaseStrings(LPCSTR szName, LPCSTR szComment) override;
  HRESULT GetContentCount(PRIVATE_EID FolderEID, LPENTRYLIST lpEntryList, LPVOID pSearchCondition,
                          BOOL bConversation, LONG* plCount) override;
  HRESULT FindRow(PRIVATE_EID FolderEID, LPENTRYLIST lpEntryList, LPVOID pSearchCondition, LPCSTR pszInstanceKey,
                  LONG* plRow) override;
  HRESULT ClearMessageCache(PRIVATE_EID FolderEID) override;
  HRESULT LoadCachedMessage(LPUNKNOWN pMessage, LPCSTR pszFolderName, PRIVATE_EID ParentEID, PRIVATE_EID ObjectEID,
                            CPropList** ppList) override;
  HRESULT GetSearchCondition(LPVOID ppCondition, LPSRestriction lpRestriction) override;

  // OpenProperty's *ppUnk is the object the property object made: a memory stream for a stream
  // stub, the CStorage of CreatePrivateIStorage for a storage stub.

  // Opens a field of a record. A missing field is made when fCreate is set, and with fPrime it
  // starts as a 32-bit zero, so a new field reads as an empty count. MAPI_E_NOT_FOUND is quiet.
  HRESULT GetStream(DWORD dwRecordID, RECFLD rfStream, LPSTREAM* ppStream, BOOL fCreate = TRUE, BOOL fPrime = TRUE);
  // Writes the properties a client holds open to records of their own and puts their stubs in
  // pList.
  HRESULT SaveLargeProps(COpenPropList* pOpenPropList, CPropList* pList);
  // Stores the rows of pTable as the recipient records of message dwObjID.
  HRESULT SaveRecipTable(DWORD dwObjID, LPTABLEDATA pTable);
  // A new list read from the stream's position; *ppList is NULL on failure.
  HRESULT LoadProperties(LPSTREAM pStream, CPropList** ppList);
  // Adds to *pulSize the sizes of the object's large properties and, for a message, those of
  // its attachments' large properties.
  HRESULT CalculateSize(PRIVATE_EID ObjectEID, CPropList* pList, ULONG* pulSize);
  // Enters (or, with fRemove, drops in memory only) an attachment in its message's list.
  HRESULT UpdateAttachmentsCount(PRIVATE_EID MessageEID, PRIVATE_EID AttachEID, BOOL fRemove);
  // Fills the receive-folder table: the store's default row, then the stored entries.
  HRESULT GetRFSTableData(LPTABLEDATA pTable);

  // The folder hierarchy.
  // The skeleton of a new store: root, the four special folders and the four default folders
  // below the IPM subtree, whose entry ID goes to *pIPMSubtreeEID.
  HRESULT CreateSpecialFolders(LPPRIVATE_EID pIPMSubtreeEID);
  // One folder below ParentEID, in the record NewEID names; MAPI_E_COLLISION for a name the parent
  // has. pszName and pszComment are narrow (CP_ACP) texts.
  HRESULT CreateFolderObject(PRIVATE_EID NewEID, PRIVATE_EID ParentEID, LPCSTR pszName, LPCSTR pszComment,
                             CPropList** ppList);
  // Mirrors the server's children of ParentEID, recursively. pExcluded is a table of cExcluded
  // entries 100 bytes apart, each a narrow name; NULL excludes nothing.
  HRESULT CreateSubFolder(PRIVATE_EID ParentEID, const BYTE* pExcluded, ULONG cExcluded);
  // The rows of FolderEID's child folders, after mirroring their server children one level.
  HRESULT FillHierarchyTable(PRIVATE_EID FolderEID, LPTABLEDATA pTable, LONG lAccess, const SBinary* pStoreEID);
  // Walks, adds to (ulFlags 1), checks (2) or removes from (4) the subfolder names of dwParentID.
  HRESULT CheckFldNameCollision(DWORD dwParentID, LPCWSTR pszName, DWORD* pdwObjID, ULONG ulFlags);
  HRESULT UpdateFolderCount(PRIVATE_EID ParentEID, PRIVATE_EID FolderEID);
  // Drops dwFolderID's entry from the subfolder names of dwParentID.
  HRESULT DeleteFolderNameInParent(DWORD dwParentID, DWORD dwFolderID);

  // Deletion helpers, called under the back end's lock.
  // A folder's record, its name in the parent and its place in the parent's child list.
  HRESULT DeleteFolderStorage(DWORD dwParentID, DWORD dwFolderID);
  // Empties a folder (recursively), as pData orders; MAPI_W_PARTIAL_COMPLETION when something
  // stayed.
  HRESULT DeleteFolderContents(PRIVATE_EID FolderEID, DELETE_OBJECTS_DATA* pData);
  HRESULT DeleteMessageAttachment(DWORD dwMessageID, DWORD dwAttachID);
  HRESULT DeleteMessageAttachmentsStreams(DWORD dwMessageID);
  HRESULT DeleteMessageRecipientsStreams(DWORD dwMessageID);
  HRESULT DeleteLargePropsStreams(DWORD dwObjID);

  CDataBase* GetDataBase() const { return m_pDBobj; }
  LPMAPISUP GetSupportObject() const { return m_pSupObj; }

 private:
  ~CFileBackEnd() override;

  HRESULT SaveSizeProperty(PRIVATE_EID ObjectEID, CPropList* pList, LPSTREAM pStream);
  HRESULT SaveOpenProperty(LPOPENPROPNODE pNode, CPropList* pList);
  HRESULT ReleaseDeletedProperty(LPOPENPROPNODE pNode, CPropList* pList);
  HRESULT AddLargeStubSizes(CPropList* pList, ULONG* pulSize);
  HRESULT AddChildSizes(DWORD dwMessageID, RECFLD rfChildren, BYTE bChildType, ULONG* pulSize);
  HRESULT SaveRecipRow(const SRow& row, DWORD* pdwReuseID, CIDList* pIDs);
  HRESULT UpdateRFSTableRow(DWORD dwInstanceKey, PRIVATE_EID& eid, LPTABLEDATA pTable);
  PRIVATE_EID MakeFolderEID(DWORD dwObjID) const;

  // Hierarchy helpers.
  HRESULT SaveRootFolder(const PRIVATE_EID& RootEID);
  HRESULT CreateSkeletonFolder(const PRIVATE_EID& ParentEID, LPCSTR pszName, LPCSTR pszComment,
                               LPPRIVATE_EID pFolderEID);
  HRESULT SetSubfoldersFlag(DWORD dwParentID, CPropList* pParentList);
  HRESULT ClearSubfolders(DWORD dwFolderID);
  HRESULT CreateServerFolder(const PRIVATE_EID& ParentEID, BSTR bstrName, const BYTE* pExcluded, ULONG cExcluded);
  HRESULT LoadIDList(DWORD dwRecordID, RECFLD rfField, CIDList* pIDs);
  HRESULT LoadListOrEmpty(DWORD dwRecordID, RECFLD rfField, CIDList* pIDs);
  HRESULT SaveIDList(DWORD dwRecordID, RECFLD rfField, CIDList* pIDs);

  // Deletion helpers.
  struct DELETE_WALK;
  HRESULT DeleteChildRecords(DWORD dwMessageID, RECFLD rfList, BOOL fLargeProps);
  HRESULT DeleteFolderContentsAt(PRIVATE_EID FolderEID, DELETE_OBJECTS_DATA* pData, ULONG ulDepth);
  HRESULT FillDeleteList(DELETE_WALK& walk, DELETE_OBJECTS_DATA* pData);
  HRESULT LoadFolderCounts(PRIVATE_EID FolderEID, COpenObjectList* pOpenObjects, DELETE_WALK& walk,
                           std::unique_ptr<CPropList>* pList);
  HRESULT StoreFolderCounts(PRIVATE_EID FolderEID, DELETE_OBJECTS_DATA* pData, DELETE_WALK& walk, CPropList* pList);
  BOOL IsUnreadMessage(DWORD dwMessageID);
  void DeleteListedObject(DELETE_WALK& walk, const DELETE_OBJECT_ENTRY& entry, PRIVATE_EID FolderEID,
                          DELETE_OBJECTS_DATA* pData, ULONG ulDepth);
  void DeleteListedFolder(DELETE_WALK& walk, DWORD dwFolderID, PRIVATE_EID ParentEID, DELETE_OBJECTS_DATA* pData,
                          ULONG ulDepth);

  ULONG m_cRef;  // plain count: callers keep AddRef and Release to one thread
  CDataBase* m_pDBobj;
  LPMAPISUP m_pSupObj;
  // Both stay NULL until their modules exist: the dedup cache plugs in when the data provider's
  // server capability value is above 65534, the message cache when GetPerfMode has bit 0 set.
  CDedupCache* m_pDedupCache;
  CMemoryDataBase* m_pMessageCache;
};
