// CMAPIFolder: the IMAPIFolder of the store. Read-mostly: messages come from the archive, so it
// refuses to create them; it hands out its tables, creates and deletes subfolders, and keeps the
// open instances of one folder consistent.
#pragma once
#include <windows.h>
#include <mapidefs.h>

#include <list>
#include <string>

#include "ZT4GenProp.h"

class CMsgStore;

// m_lFolderType values.
enum : LONG { ZT4_FOLDER_ROOT = 0, ZT4_FOLDER_GENERIC = 1, ZT4_FOLDER_SEARCH = 2 };

// The sync threads' own call of GetContentsTable and GetHierarchyTable: refresh the memory table.
constexpr ULONG ZT4_TABLE_REFRESH = 5555;

// Folder state bit: the parent's row must be rewritten when the object goes.
constexpr ULONG FOLDERFLAG_UPDATE_PARENT = 0x4000;

// PR_FOLDER_WEBVIEWINFO's block ahead of the URL.
constexpr ULONG CB_WEBVIEWINFO_HEADER = 44;

class CMAPIFolder final : public IMAPIFolder, public CGenericProp {
 public:
  // Adds itself to the store's open-object list and holds a reference on the store. pList
  // becomes the folder's. fRealFolder 0 is the store root (no record of its own type).
  CMAPIFolder(CMsgStore* pStore, const PRIVATE_EID& ParentEID, const PRIVATE_EID& ObjectEID, BOOL fRealFolder,
              CPropList* pList, BOOL fDeferredErrors, ULONG lAccess, CNamePropMgr* pNPList);

  // IUnknown
  STDMETHODIMP QueryInterface(REFIID riid, LPVOID* ppvObj) override;
  STDMETHODIMP_(ULONG) AddRef() override;
  STDMETHODIMP_(ULONG) Release() override;
  // IMAPIProp
  MAPIMETHOD(GetLastError)(HRESULT hResult, ULONG ulFlags, LPMAPIERROR* lppMAPIError) override;
  MAPIMETHOD(SaveChanges)(ULONG ulFlags) override;
  MAPIMETHOD(GetProps)(LPSPropTagArray lpPropTagArray, ULONG ulFlags, ULONG* lpcValues,
                       LPSPropValue* lppPropArray) override;
  MAPIMETHOD(GetPropList)(ULONG ulFlags, LPSPropTagArray* lppPropTagArray) override;
  MAPIMETHOD(OpenProperty)(ULONG ulPropTag, LPCIID lpiid, ULONG ulInterfaceOptions, ULONG ulFlags,
                           LPUNKNOWN* lppUnk) override;
  MAPIMETHOD(SetProps)(ULONG cValues, LPSPropValue lpPropArray, LPSPropProblemArray* lppProblems) override;
  MAPIMETHOD(DeleteProps)(LPSPropTagArray lpPropTagArray, LPSPropProblemArray* lppProblems) override;
  MAPIMETHOD(CopyTo)(ULONG ciidExclude, LPCIID rgiidExclude, LPSPropTagArray lpExcludeProps, ULONG_PTR ulUIParam,
                     LPMAPIPROGRESS lpProgress, LPCIID lpInterface, LPVOID lpDestObj, ULONG ulFlags,
                     LPSPropProblemArray* lppProblems) override;
  MAPIMETHOD(CopyProps)(LPSPropTagArray lpIncludeProps, ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress,
                        LPCIID lpInterface, LPVOID lpDestObj, ULONG ulFlags,
                        LPSPropProblemArray* lppProblems) override;
  MAPIMETHOD(GetNamesFromIDs)(LPSPropTagArray* lppPropTags, LPGUID lpPropSetGuid, ULONG ulFlags,
                              ULONG* lpcPropNames, LPMAPINAMEID** lpppPropNames) override;
  MAPIMETHOD(GetIDsFromNames)(ULONG cPropNames, LPMAPINAMEID* lppPropNames, ULONG ulFlags,
                              LPSPropTagArray* lppPropTags) override;
  // IMAPIContainer
  MAPIMETHOD(GetContentsTable)(ULONG ulFlags, LPMAPITABLE* lppTable) override;
  MAPIMETHOD(GetHierarchyTable)(ULONG ulFlags, LPMAPITABLE* lppTable) override;
  MAPIMETHOD(OpenEntry)(ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, ULONG ulFlags,
                        ULONG* lpulObjType, LPUNKNOWN* lppUnk) override;
  MAPIMETHOD(SetSearchCriteria)(LPSRestriction lpRestriction, LPENTRYLIST lpContainerList,
                                ULONG ulSearchFlags) override;
  MAPIMETHOD(GetSearchCriteria)(ULONG ulFlags, LPSRestriction* lppRestriction, LPENTRYLIST* lppContainerList,
                                ULONG* lpulSearchState) override;
  // IMAPIFolder
  MAPIMETHOD(CreateMessage)(LPCIID lpInterface, ULONG ulFlags, LPMESSAGE* lppMessage) override;
  MAPIMETHOD(CopyMessages)(LPENTRYLIST lpMsgList, LPCIID lpInterface, LPVOID lpDestFolder, ULONG_PTR ulUIParam,
                           LPMAPIPROGRESS lpProgress, ULONG ulFlags) override;
  MAPIMETHOD(DeleteMessages)(LPENTRYLIST lpMsgList, ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress,
                             ULONG ulFlags) override;
  MAPIMETHOD(CreateFolder)(ULONG ulFolderType, LPTSTR lpszFolderName, LPTSTR lpszFolderComment, LPCIID lpInterface,
                           ULONG ulFlags, LPMAPIFOLDER* lppFolder) override;
  MAPIMETHOD(CopyFolder)(ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, LPVOID lpDestFolder,
                         LPTSTR lpszNewFolderName, ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress,
                         ULONG ulFlags) override;
  MAPIMETHOD(DeleteFolder)(ULONG cbEntryID, LPENTRYID lpEntryID, ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress,
                           ULONG ulFlags) override;
  MAPIMETHOD(SetReadFlags)(LPENTRYLIST lpMsgList, ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress,
                           ULONG ulFlags) override;
  MAPIMETHOD(GetMessageStatus)(ULONG cbEntryID, LPENTRYID lpEntryID, ULONG ulFlags,
                               ULONG* lpulMessageStatus) override;
  MAPIMETHOD(SetMessageStatus)(ULONG cbEntryID, LPENTRYID lpEntryID, ULONG ulNewStatus, ULONG ulNewStatusMask,
                               ULONG* lpulOldStatus) override;
  MAPIMETHOD(SaveContentsSort)(LPSSortOrderSet lpSortCriteria, ULONG ulFlags) override;
  MAPIMETHOD(EmptyFolder)(ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress, ULONG ulFlags) override;

  // Replaces the property cache with a copy of pList, under the object lock.
  HRESULT UpdatePropertyCache(CPropList* pList);
  // Every other open instance of this folder takes this one's properties.
  HRESULT UpdatePropCacheInReplicas();
  // Every open instance of the parent rewrites this folder's row in its hierarchy table.
  HRESULT UpdateParentTable();
  // Rewrites the row of child folder ChildEID in this folder's hierarchy table, if it has one.
  HRESULT UpdateHierarchyRow(const PRIVATE_EID& ChildEID);
  // An object notification with this folder's entry IDs and object type 3, through the store.
  HRESULT SendNotification(ULONG ulEventType);
  // Adds (ulOperation 3) or removes (4) a message's row in the contents table; UpdateCounts
  // refreshes the folder's counts from its record. Used by the store's UpdateFolder.
  HRESULT UpdateContentsTable(ULONG ulOperation, const PRIVATE_EID& MessageEID);
  HRESULT UpdateCounts();

  // View-release callback of the folder's tables; ulCallerData is StorePointer(this).
  static void STDAPICALLTYPE FolderTablesViewRelease(ULONG_PTR ulCallerData, LPTABLEDATA pTblData,
                                                     LPMAPITABLE pVue);

  CMsgStore* m_pStore;
  LONG m_lFolderType;
  LONG m_lHierViews;
  LONG m_lContViews;
  LONG m_lAsscContViews;
  LONG m_lRowCount;
  LONG m_lConversationCount;
  LONG m_lActualCount;
  LONG m_lPageSize;
  LPTABLEDATA m_pHierTable;
  LPTABLEDATA m_pContTable;
  LPTABLEDATA m_pAsscContTable;
  HANDLE m_hSyncEvent;
  HANDLE m_hSyncThread;
  LONG m_bContentSyncPending;
  LONG m_bHierarchySyncPending;
  LONG m_bConversationView;
  LONG m_bKeepSyncing;
  LONG m_bInitialSyncCompleted;
  SBinaryArray m_lpSearchFolders;
  LPUNKNOWN m_spSearchCondition;  // the search folder's IZT4SearchCondition, counted
  std::list<LPMAPIADVISESINK> m_AdviseSinks;
  std::list<CMAPIFolder*> m_Dependents;
  ULONG m_ulFolderState;  // FOLDERFLAG_*

 private:
  ~CMAPIFolder() override;

  // One value of GetProps: computed, or from the list. webView is the IPM subtree's block, or
  // empty.
  HRESULT FillProp(LPSPropValue pProp, LPVOID pMemBlock, const std::basic_string<BYTE>& webView);
  // One value of SetProps, under the object lock; *pfChanged is set when the list changed.
  HRESULT SetOneProp(LPSPropValue pProp, BOOL* pfChanged);
  HRESULT GetAssociatedContentsTable(LPMAPITABLE* lppTable);
  HRESULT LoadHierarchyTable();
  static BOOL IsDeletedItemsFolder(LPMAPIPROP pFolder);
  HRESULT AddNewChild(const PRIVATE_EID& NewEID, CPropList* pList, ULONG ulFlags, LPMAPIFOLDER* lppFolder);
  HRESULT OpenExistingChild(LPCSTR pszName, ULONG ulFlags, LPMAPIFOLDER* lppFolder);
  HRESULT CheckIsChild(CPropList* pChildList);
  HRESULT DeleteContentsOf(const PRIVATE_EID& FolderEID, ULONG ulWhat, ULONG ulDataFlags);
  void RefreshAfterChildChange();
  HRESULT RemoveHierarchyRow(const PRIVATE_EID& ChildEID);
  void ClearHierarchyRows();
  template <class Fn> void ForEachInstance(const PRIVATE_EID& FolderEID, Fn fn);

  // Guard the table pointers. Lock order: object lock, then these, then the back end's.
  CRITICAL_SECTION m_csHierTable;
  CRITICAL_SECTION m_csContTable;
  CRITICAL_SECTION m_csDependents;
};
