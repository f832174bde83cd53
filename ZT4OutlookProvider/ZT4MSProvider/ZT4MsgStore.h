// CMsgStore: the IMsgStore clients hold, root of every object of one logon. Besides its own
// properties it keeps the receive-folder table and outgoing queue, the client subscriptions,
// and the link to the other context of the same store.
#pragma once
#include <windows.h>
#include <mapidefs.h>
#include <mapispi.h>

#include "ZT4GenProp.h"
#include "ZT4MSProvider.h"

class CMAPISupport;
class CMAPIFolder;

// The store's provider identity, PR_MDB_PROVIDER.
extern const BYTE ZT4_MDB_PROVIDER[16];
constexpr ULONG ZT4_STORE_SUPPORT_MASK = 0x06053FFD;

// Object IDs of the special folders the store answers entry IDs for.
enum : DWORD {
  FOLDER_ID_ROOT_PARENT = 0,
  FOLDER_ID_IPM_SUBTREE = 1,
  FOLDER_ID_WASTEBASKET = 2,
  FOLDER_ID_OUTBOX = 4,
  FOLDER_ID_SENTMAIL = 5,
  FOLDER_ID_COMMON_VIEWS = 6,
  FOLDER_ID_VIEWS = 7,
  FOLDER_ID_FINDER = 8,
  FOLDER_ID_ROOT = 0xFFFFFFFF,
};

// A node of the per-object subscription list.
struct NOTIF_OBJS {
  NOTIF_OBJS* pNext;
  PRIVATE_EID eid;
  ULONG ulConnection;
};

// Extended events between the client and spooler contexts of one store.
enum : ULONG { CONTEXT_EVENT_SUBMITTED = 1, CONTEXT_EVENT_FINISHED = 2, CONTEXT_EVENT_RECEIVE_FOLDER = 3 };
constexpr ULONG CB_CONTEXT_MSG_EVENT = 272;
constexpr ULONG CB_CONTEXT_RFS_EVENT = 408;

// Thrown by the constructor.
struct CMsgStoreError {
  HRESULT hResult;
};

class CMsgStore final : public IMsgStore, public CGenericProp {
 public:
  // Takes a reference on the provider; eidStore's memory becomes the store's. Throws
  // CMsgStoreError on failure.
  CMsgStore(CMSProvider* pProvider, CMAPISupport* pSupObj, LPCSTR pszPath, LPCSTR pszName, LPCSTR pszComment,
            SBinary eidStore, CBackEnd* pBEobj, BOOL fDeferredErrors, ULONG lAccess, const MAPIUID& uidStore,
            BOOL fSpooler);

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
  // IMsgStore
  MAPIMETHOD(Advise)(ULONG cbEntryID, LPENTRYID lpEntryID, ULONG ulEventMask, LPMAPIADVISESINK lpAdviseSink,
                     ULONG* lpulConnection) override;
  MAPIMETHOD(Unadvise)(ULONG ulConnection) override;
  MAPIMETHOD(CompareEntryIDs)(ULONG cbEntryID1, LPENTRYID lpEntryID1, ULONG cbEntryID2, LPENTRYID lpEntryID2,
                              ULONG ulFlags, ULONG* lpulResult) override;
  MAPIMETHOD(OpenEntry)(ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, ULONG ulFlags,
                        ULONG* lpulObjType, LPUNKNOWN* lppUnk) override;
  MAPIMETHOD(SetReceiveFolder)(LPTSTR lpszMessageClass, ULONG ulFlags, ULONG cbEntryID,
                               LPENTRYID lpEntryID) override;
  MAPIMETHOD(GetReceiveFolder)(LPTSTR lpszMessageClass, ULONG ulFlags, ULONG* lpcbEntryID, LPENTRYID* lppEntryID,
                               LPTSTR* lppszExplicitClass) override;
  MAPIMETHOD(GetReceiveFolderTable)(ULONG ulFlags, LPMAPITABLE* lppTable) override;
  MAPIMETHOD(StoreLogoff)(ULONG* lpulFlags) override;
  MAPIMETHOD(AbortSubmit)(ULONG cbEntryID, LPENTRYID lpEntryID, ULONG ulFlags) override;
  MAPIMETHOD(GetOutgoingQueue)(ULONG ulFlags, LPMAPITABLE* lppTable) override;
  MAPIMETHOD(SetLockState)(LPMESSAGE lpMessage, ULONG ulLockState) override;
  MAPIMETHOD(FinishedMsg)(ULONG ulFlags, ULONG cbEntryID, LPENTRYID lpEntryID) override;
  MAPIMETHOD(NotifyNewMail)(LPNOTIFICATION lpNotification) override;

  // Notifications (store side).
  HRESULT NotifyClients(const PRIVATE_EID* pEntryID, ULONG ulNotifsCount, LPNOTIFICATION pNotifs);
  HRESULT UpdateSubscriptionList(const PRIVATE_EID* pEntryID, ULONG ulConnection, BOOL fAdd);
  BOOL IsObjectInNotifList(const PRIVATE_EID* pEntryID);
  HRESULT SubmitToSpoolerContextStore(FILETIME ftSubmit, const PRIVATE_EID& eidMessage);
  // Tells an open folder that a message came or went (event 2, new mail). Always 0.
  HRESULT UpdateFolder(BOOL fDelete, const PRIVATE_EID* pFolderEID, const PRIVATE_EID* pMessageEID);
  HRESULT AddMsgToOutGoingQueue(FILETIME ftSubmit, const PRIVATE_EID& eidMessage);
  HRESULT AddNewRFSEntryToTable(const BYTE* pbPayload);

  // Called by the logon after the store is made: the IPC subscription's connection and key.
  void SetIPCSubscription(ULONG ulConnection, const BYTE (&abKey)[CB_IPC_NOTIF_KEY]);

  static BOOL IsValidMsgClass(LPCSTR pszClass);
  // A folder entry ID of this store: UID, version 1, type 3 and dwObjID.
  PRIVATE_EID MakeFolderEID(DWORD dwObjID) const;

  // View-release callback of the store's tables; ulCallerData is StorePointer(this).
  static void STDAPICALLTYPE StoreTablesViewRelease(ULONG_PTR ulCallerData, LPTABLEDATA pTblData,
                                                    LPMAPITABLE pVue);

  // The inter-context events ContextNotify hands on.
  void OnContextEvent(const EXTENDED_NOTIFICATION& ext);
  void OnNewMail(LPNOTIFICATION lpNotification);
  // Open views of the queue and the receive-folder table.
  ULONG GetOutgoingQueueViewCount();
  ULONG GetReceiveFolderViewCount();

  COpenObjectList m_OpenObjects;
  CMSProvider* m_pProvider;
  CMAPISupport* m_pSupObj;
  HINSTANCE m_hInstance;
  MAPIUID m_StoreUID;
  SBinary m_StoreEID;       // the wrapped store entry ID, from the MAPI allocator; owned
  CMsgStore* m_pNextStore;  // link of the provider's open store list
  CHAR m_szPath[MAX_PATH];
  BYTE m_szIPCNotifKey[CB_IPC_NOTIF_KEY];

 private:
  ~CMsgStore() override;

  HRESULT InitStoreProps(LPCSTR pszName, LPCSTR pszComment);
  HRESULT FillStoreProp(LPSPropValue pProp, LPVOID pMemBlock);
  static BOOL GetSpecialFolderID(ULONG ulPropTag, DWORD* pdwObjID);
  HRESULT SetOneStoreProp(LPSPropValue pProp, LPPROFSECT* ppSection, BOOL* pfChanged);
  void WriteProfileProp(LPSPropValue pProp, LPPROFSECT* ppSection);
  void NotifyStoreModified();
  HRESULT Refuse(LPCSTR pszMethod);
  PRIVATE_EID FindParentEID(CPropList* pList);
  HRESULT GetStoreTableView(LPTABLEDATA pTable, ULONG* pcViews, LPMAPITABLE* lppTable);
  HRESULT FindReceiveFolderRow(LPCSTR pszClass, PRIVATE_EID* pEID);
  BOOL IsStoreEntryID(ULONG cbEntryID, LPENTRYID lpEntryID) const;
  HRESULT SendUnderKey(ULONG cbKey, LPBYTE pbKey, ULONG ulNotifsCount, LPNOTIFICATION pNotifs);
  HRESULT SendContextEvent(ULONG ulEvent, ULONG cb, LPBYTE pbPayload);
  HRESULT SendReceiveFolderEvent(LPCSTR pszClass, const PRIVATE_EID& eidFolder);

  ULONG m_cStoreSubscriptions;
  NOTIF_OBJS* m_pNotifList;
  LPTABLEDATA m_pRFSTbl;
  LPTABLEDATA m_pOutQueueTbl;
  ULONG m_cRFSViews;
  ULONG m_cOutQueueViews;
  ULONG m_ulLogoffFlags;
  ULONG m_ulIPCConnection;
};

// The sink of the inter-context subscription; lpvContext is the store. Always 0.
LONG STDAPICALLTYPE ContextNotify(LPVOID lpvContext, ULONG cNotif, LPNOTIFICATION lpNotifications);
// A NOTIFKEY of cbData bytes from the private heap; free with PrivFree.
HRESULT AllocateNotifKey(ULONG cbData, LPBYTE pbData, LPNOTIFKEY* ppKey);
