// MAPI service provider interface: what MAPI hands a message-store provider (the support object,
// notification keys) and what the provider hands back (IMSProvider, IMSLogon, entry points).
#pragma once
#include "mapidefs.h"
#include "mapicode.h"
#include "mapiguid.h"
#include "mapitags.h"
#include "mapix.h"

struct IMalloc;
typedef IMalloc* LPMALLOC;

struct IMAPISupport;
struct IMSProvider;
struct IMSLogon;
typedef IMAPISupport* LPMAPISUP;
typedef IMSProvider* LPMSPROVIDER;
typedef IMSLogon* LPMSLOGON;

// SPI versions exchanged at provider initialisation.
#define PDK1_SPI_VERSION 0x00010000L
#define PDK2_SPI_VERSION 0x00010008L
#define PDK3_SPI_VERSION 0x00010010L
#define CURRENT_SPI_VERSION PDK3_SPI_VERSION

// ---------------------------------------------------------------------------------------------
// Notification keys and subscription.

typedef struct {
  ULONG cb;
  BYTE ab[MAPI_DIM];
} NOTIFKEY, *LPNOTIFKEY;
#define CbNewNOTIFKEY(_cb) (offsetof(NOTIFKEY, ab) + (_cb))
#define CbNOTIFKEY(_lpkey) (offsetof(NOTIFKEY, ab) + (_lpkey)->cb)
#define SizedNOTIFKEY(_cb, _name) \
  struct _NOTIFKEY_##_name {      \
    ULONG cb;                     \
    BYTE ab[_cb];                 \
  } _name

// Subscribe: deliver on the notifying thread before Notify returns.
#define NOTIFY_SYNC ((ULONG)0x40000000)
// Notify's lpulFlags out: a synchronous callback asked to stop delivery.
#define NOTIFY_CANCELED ((ULONG)0x80000000)

// IMAPISupport::ModifyStatusRow.
#define STATUSROW_UPDATE ((ULONG)0x10000000)

// IMAPISupport::OpenTemplateID.
#define FILL_ENTRY ((ULONG)0x00000001)

// IMAPISupport::PrepareSubmit / ExpandRecips results.
#define NEEDS_PREPROCESSING ((ULONG)0x00000001)
#define NEEDS_SPOOLER ((ULONG)0x00000002)

// ServiceEntry contexts.
#define MSG_SERVICE_INSTALL 0x00000001
#define MSG_SERVICE_CREATE 0x00000002
#define MSG_SERVICE_CONFIGURE 0x00000003
#define MSG_SERVICE_DELETE 0x00000004
#define MSG_SERVICE_UNINSTALL 0x00000005
#define MSG_SERVICE_PROVIDER_CREATE 0x00000006
#define MSG_SERVICE_PROVIDER_DELETE 0x00000007
#define MSG_SERVICE_CREATE_NEW 0x00000008

// ---------------------------------------------------------------------------------------------
// IMAPISupport: 41 methods after IUnknown's three, 44 slots in all.

#define MAPI_IMAPISUPPORT_METHODS1(IPURE)                                                              \
  MAPIMETHOD(GetLastError)(THIS_ HRESULT hResult, ULONG ulFlags, LPMAPIERROR * lppMAPIError) IPURE;    \
  MAPIMETHOD(GetMemAllocRoutines)(THIS_ LPALLOCATEBUFFER * lpAllocateBuffer,                           \
                                  LPALLOCATEMORE * lpAllocateMore, LPFREEBUFFER * lpFreeBuffer) IPURE; \
  MAPIMETHOD(Subscribe)(THIS_ LPNOTIFKEY lpKey, ULONG ulEventMask, ULONG ulFlags,                      \
                        LPMAPIADVISESINK lpAdviseSink, ULONG * lpulConnection) IPURE;                  \
  MAPIMETHOD(Unsubscribe)(THIS_ ULONG ulConnection) IPURE;                                             \
  MAPIMETHOD(Notify)(THIS_ LPNOTIFKEY lpKey, ULONG cNotification, LPNOTIFICATION lpNotifications,      \
                     ULONG * lpulFlags) IPURE;                                                         \
  MAPIMETHOD(ModifyStatusRow)(THIS_ ULONG cValues, LPSPropValue lpColumnVals, ULONG ulFlags) IPURE;    \
  MAPIMETHOD(OpenProfileSection)(THIS_ LPMAPIUID lpUid, ULONG ulFlags, LPPROFSECT * lppProfileObj) IPURE; \
  MAPIMETHOD(RegisterPreprocessor)(THIS_ LPMAPIUID lpMuid, LPTSTR lpszAdrType, LPTSTR lpszDLLName,     \
                                   LPSTR lpszPreprocess, LPSTR lpszRemovePreprocessInfo, ULONG ulFlags) IPURE; \
  MAPIMETHOD(NewUID)(THIS_ LPMAPIUID lpMuid) IPURE;                                                    \
  MAPIMETHOD(MakeInvalid)(THIS_ ULONG ulFlags, LPVOID lpObject, ULONG ulRefCount, ULONG cMethods) IPURE;

#define MAPI_IMAPISUPPORT_METHODS2(IPURE)                                                              \
  MAPIMETHOD(SpoolerYield)(THIS_ ULONG ulFlags) IPURE;                                                 \
  MAPIMETHOD(SpoolerNotify)(THIS_ ULONG ulFlags, LPVOID lpvData) IPURE;                                \
  MAPIMETHOD(CreateOneOff)(THIS_ LPTSTR lpszName, LPTSTR lpszAdrType, LPTSTR lpszAddress, ULONG ulFlags, \
                           ULONG * lpcbEntryID, LPENTRYID * lppEntryID) IPURE;                         \
  MAPIMETHOD(SetProviderUID)(THIS_ LPMAPIUID lpProviderID, ULONG ulFlags) IPURE;                       \
  MAPIMETHOD(CompareEntryIDs)(THIS_ ULONG cbEntry1, LPENTRYID lpEntry1, ULONG cbEntry2,                \
                              LPENTRYID lpEntry2, ULONG ulCompareFlags, ULONG * lpulResult) IPURE;     \
  MAPIMETHOD(OpenTemplateID)(THIS_ ULONG cbTemplateID, LPENTRYID lpTemplateID, ULONG ulTemplateFlags,  \
                             LPMAPIPROP lpMAPIPropData, LPCIID lpInterface, LPMAPIPROP * lppMAPIPropNew, \
                             LPMAPIPROP lpMAPIPropSibling) IPURE;                                      \
  MAPIMETHOD(OpenEntry)(THIS_ ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface,                \
                        ULONG ulOpenFlags, ULONG * lpulObjType, LPUNKNOWN * lppUnk) IPURE;             \
  MAPIMETHOD(GetOneOffTable)(THIS_ ULONG ulFlags, LPMAPITABLE * lppTable) IPURE;                       \
  MAPIMETHOD(Address)(THIS_ ULONG_PTR * lpulUIParam, LPADRPARM lpAdrParameters, LPADRLIST * lppAdrList) IPURE; \
  MAPIMETHOD(Details)(THIS_ ULONG_PTR * lpulUIParam, LPFNDISMISS lpfnDismiss, LPVOID lpvDismissContext, \
                      ULONG cbEntryID, LPENTRYID lpEntryID, LPFNBUTTON lpfButtonCallback,              \
                      LPVOID lpvButtonContext, LPTSTR lpszButtonText, ULONG ulFlags) IPURE;            \
  MAPIMETHOD(NewEntry)(THIS_ ULONG_PTR ulUIParam, ULONG ulFlags, ULONG cbEIDContainer,                 \
                       LPENTRYID lpEIDContainer, ULONG cbEIDNewEntryTpl, LPENTRYID lpEIDNewEntryTpl,   \
                       ULONG * lpcbEIDNewEntry, LPENTRYID * lppEIDNewEntry) IPURE;                     \
  MAPIMETHOD(DoConfigPropsheet)(THIS_ ULONG_PTR ulUIParam, ULONG ulFlags, LPTSTR lpszTitle,            \
                                LPMAPITABLE lpDisplayTable, LPMAPIPROP lpCOnfigData, ULONG ulTopPage) IPURE;

#define MAPI_IMAPISUPPORT_METHODS3(IPURE)                                                              \
  MAPIMETHOD(CopyMessages)(THIS_ LPCIID lpSrcInterface, LPVOID lpSrcFolder, LPENTRYLIST lpMsgList,     \
                           LPCIID lpDestInterface, LPVOID lpDestFolder, ULONG_PTR ulUIParam,           \
                           LPMAPIPROGRESS lpProgress, ULONG ulFlags) IPURE;                            \
  MAPIMETHOD(CopyFolder)(THIS_ LPCIID lpSrcInterface, LPVOID lpSrcFolder, ULONG cbEntryID,             \
                         LPENTRYID lpEntryID, LPCIID lpDestInterface, LPVOID lpDestFolder,             \
                         LPTSTR lpszNewFolderName, ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress,     \
                         ULONG ulFlags) IPURE;                                                         \
  MAPIMETHOD(DoCopyTo)(THIS_ LPCIID lpSrcInterface, LPVOID lpSrcObj, ULONG ciidExclude,                \
                       LPCIID rgiidExclude, LPSPropTagArray lpExcludeProps, ULONG_PTR ulUIParam,       \
                       LPMAPIPROGRESS lpProgress, LPCIID lpDestInterface, LPVOID lpDestObj, ULONG ulFlags, \
                       LPSPropProblemArray * lppProblems) IPURE;                                       \
  MAPIMETHOD(DoCopyProps)(THIS_ LPCIID lpSrcInterface, LPVOID lpSrcObj, LPSPropTagArray lpIncludeProps, \
                          ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress, LPCIID lpDestInterface,      \
                          LPVOID lpDestObj, ULONG ulFlags, LPSPropProblemArray * lppProblems) IPURE;   \
  MAPIMETHOD(DoProgressDialog)(THIS_ ULONG_PTR ulUIParam, ULONG ulFlags, LPMAPIPROGRESS * lppProgress) IPURE; \
  MAPIMETHOD(ReadReceipt)(THIS_ ULONG ulFlags, LPMESSAGE lpReadMessage, LPMESSAGE * lppEmptyMessage) IPURE; \
  MAPIMETHOD(PrepareSubmit)(THIS_ LPMESSAGE lpMessage, ULONG * lpulFlags) IPURE;                       \
  MAPIMETHOD(ExpandRecips)(THIS_ LPMESSAGE lpMessage, ULONG * lpulFlags) IPURE;                        \
  MAPIMETHOD(UpdatePAB)(THIS_ ULONG ulFlags, LPMESSAGE lpMessage) IPURE;                               \
  MAPIMETHOD(DoSentMail)(THIS_ ULONG ulFlags, LPMESSAGE lpMessage) IPURE;                              \
  MAPIMETHOD(OpenAddressBook)(THIS_ LPCIID lpInterface, ULONG ulFlags, LPADRBOOK * lppAdrBook) IPURE;  \
  MAPIMETHOD(Preprocess)(THIS_ ULONG ulFlags, ULONG cbEntryID, LPENTRYID lpEntryID) IPURE;             \
  MAPIMETHOD(CompleteMsg)(THIS_ ULONG ulFlags, ULONG cbEntryID, LPENTRYID lpEntryID) IPURE;            \
  MAPIMETHOD(StoreLogoffTransports)(THIS_ ULONG * lpulFlags) IPURE;                                    \
  MAPIMETHOD(StatusRecips)(THIS_ LPMESSAGE lpMessage, LPADRLIST lpRecipList) IPURE;                    \
  MAPIMETHOD(WrapStoreEntryID)(THIS_ ULONG cbOrigEntry, LPENTRYID lpOrigEntry, ULONG * lpcbWrappedEntry, \
                               LPENTRYID * lppWrappedEntry) IPURE;                                     \
  MAPIMETHOD(ModifyProfile)(THIS_ ULONG ulFlags) IPURE;                                                \
  MAPIMETHOD(IStorageFromStream)(THIS_ LPUNKNOWN lpUnkIn, LPCIID lpInterface, ULONG ulFlags,           \
                                 LPSTORAGE * lppStorageOut) IPURE;                                     \
  MAPIMETHOD(GetSvcConfigSupportObj)(THIS_ ULONG ulFlags, LPMAPISUP * lppSvcSupport) IPURE;

#define MAPI_IMAPISUPPORT_METHODS(IPURE) \
  MAPI_IMAPISUPPORT_METHODS1(IPURE)      \
  MAPI_IMAPISUPPORT_METHODS2(IPURE)      \
  MAPI_IMAPISUPPORT_METHODS3(IPURE)

struct IMAPISupport : public IUnknown {
  MAPI_IMAPISUPPORT_METHODS(PURE)
};

// ---------------------------------------------------------------------------------------------
// IMSProvider and IMSLogon: what a message-store provider implements.

#define MAPI_IMSPROVIDER_METHODS(IPURE)                                                                \
  MAPIMETHOD(Shutdown)(THIS_ ULONG * lpulFlags) IPURE;                                                 \
  MAPIMETHOD(Logon)(THIS_ LPMAPISUP lpMAPISup, ULONG_PTR ulUIParam, LPTSTR lpszProfileName,            \
                    ULONG cbEntryID, LPENTRYID lpEntryID, ULONG ulFlags, LPCIID lpInterface,           \
                    ULONG * lpcbSpoolSecurity, LPBYTE * lppbSpoolSecurity, LPMAPIERROR * lppMAPIError, \
                    LPMSLOGON * lppMSLogon, LPMDB * lppMDB) IPURE;                                     \
  MAPIMETHOD(SpoolerLogon)(THIS_ LPMAPISUP lpMAPISup, ULONG_PTR ulUIParam, LPTSTR lpszProfileName,     \
                           ULONG cbEntryID, LPENTRYID lpEntryID, ULONG ulFlags, LPCIID lpInterface,    \
                           ULONG cbSpoolSecurity, LPBYTE lpbSpoolSecurity, LPMAPIERROR * lppMAPIError, \
                           LPMSLOGON * lppMSLogon, LPMDB * lppMDB) IPURE;                              \
  MAPIMETHOD(CompareStoreIDs)(THIS_ ULONG cbEntryID1, LPENTRYID lpEntryID1, ULONG cbEntryID2,          \
                              LPENTRYID lpEntryID2, ULONG ulFlags, ULONG * lpulResult) IPURE;
struct IMSProvider : public IUnknown {
  MAPI_IMSPROVIDER_METHODS(PURE)
};

#define MAPI_IMSLOGON_METHODS(IPURE)                                                                   \
  MAPIMETHOD(GetLastError)(THIS_ HRESULT hResult, ULONG ulFlags, LPMAPIERROR * lppMAPIError) IPURE;    \
  MAPIMETHOD(Logoff)(THIS_ ULONG * lpulFlags) IPURE;                                                   \
  MAPIMETHOD(OpenEntry)(THIS_ ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, ULONG ulFlags,  \
                        ULONG * lpulObjType, LPUNKNOWN * lppUnk) IPURE;                                \
  MAPIMETHOD(CompareEntryIDs)(THIS_ ULONG cbEntryID1, LPENTRYID lpEntryID1, ULONG cbEntryID2,          \
                              LPENTRYID lpEntryID2, ULONG ulFlags, ULONG * lpulResult) IPURE;          \
  MAPIMETHOD(Advise)(THIS_ ULONG cbEntryID, LPENTRYID lpEntryID, ULONG ulEventMask,                    \
                     LPMAPIADVISESINK lpAdviseSink, ULONG * lpulConnection) IPURE;                     \
  MAPIMETHOD(Unadvise)(THIS_ ULONG ulConnection) IPURE;                                                \
  MAPIMETHOD(OpenStatusEntry)(THIS_ LPCIID lpInterface, ULONG ulFlags, ULONG * lpulObjType,            \
                              LPVOID * lppEntry) IPURE;
struct IMSLogon : public IUnknown {
  MAPI_IMSLOGON_METHODS(PURE)
};

// ---------------------------------------------------------------------------------------------
// Provider library entry points.

typedef HRESULT(STDMAPIINITCALLTYPE MSPROVIDERINIT)(HINSTANCE hInstance, LPMALLOC lpMalloc,
                                                    LPALLOCATEBUFFER lpAllocateBuffer,
                                                    LPALLOCATEMORE lpAllocateMore, LPFREEBUFFER lpFreeBuffer,
                                                    ULONG ulFlags, ULONG ulMAPIVer, ULONG* lpulProviderVer,
                                                    LPMSPROVIDER* lppMSProvider);
typedef MSPROVIDERINIT* LPMSPROVIDERINIT;

typedef HRESULT(STDAPICALLTYPE MSGSERVICEENTRY)(HINSTANCE hInstance, LPMALLOC lpMalloc, LPMAPISUP lpMAPISup,
                                                ULONG_PTR ulUIParam, ULONG ulFlags, ULONG ulContext,
                                                ULONG cValues, LPSPropValue lpProps,
                                                LPPROVIDERADMIN lpProviderAdmin, LPMAPIERROR* lppMapiError);
typedef MSGSERVICEENTRY* LPMSGSERVICEENTRY;
typedef MSGSERVICEENTRY* LPSERVICEENTRY;
