// Extended MAPI client interfaces: the session, the address book, profile and service
// administration, and the subsystem entry points (logon, initialisation, memory).
#pragma once
#include "mapidefs.h"
#include "mapicode.h"
#include "mapiguid.h"
#include "mapitags.h"

struct IMAPISession;
struct IAddrBook;
struct IProfAdmin;
struct IMsgServiceAdmin;
struct IProviderAdmin;
typedef IMAPISession* LPMAPISESSION;
typedef IAddrBook* LPADRBOOK;
typedef IProfAdmin* LPPROFADMIN;
typedef IMsgServiceAdmin* LPSERVICEADMIN;
typedef IProviderAdmin* LPPROVIDERADMIN;

// ---------------------------------------------------------------------------------------------
// MAPILogonEx flags.

#define MAPI_LOGON_UI 0x00000001
#define MAPI_NEW_SESSION 0x00000002
#define MAPI_ALLOW_OTHERS 0x00000008
#define MAPI_EXPLICIT_PROFILE 0x00000010
#define MAPI_EXTENDED 0x00000020
#define MAPI_FORCE_DOWNLOAD 0x00001000
#define MAPI_SERVICE_UI_ALWAYS 0x00002000
#define MAPI_NO_MAIL 0x00008000
#define MAPI_NT_SERVICE 0x00010000
#define MAPI_PASSWORD_UI 0x00020000
#define MAPI_TIMEOUT_SHORT 0x00100000
#define MAPI_BG_SESSION 0x00200000
#define MAPI_SIMPLE_DEFAULT (MAPI_LOGON_UI | MAPI_FORCE_DOWNLOAD | MAPI_ALLOW_OTHERS)
#define MAPI_SIMPLE_EXPLICIT (MAPI_NEW_SESSION | MAPI_FORCE_DOWNLOAD | MAPI_EXPLICIT_PROFILE)

// IMAPISession::Logoff.
#define MAPI_LOGOFF_SHARED 0x00000001
#define MAPI_LOGOFF_UI 0x00000002

// IMAPISession::ShowForm.
#define MAPI_POST_MESSAGE 0x00000001
#define MAPI_NEW_MESSAGE 0x00000002

// IProfAdmin::CreateProfile and friends.
#define MAPI_DEFAULT_SERVICES 0x00000001
// Longest profile name, in characters, without the terminator.
#define cchProfileNameMax 64
#define cchProfilePassMax 64

// OpenProfileSection: open sections that belong to service providers too.
#define MAPI_FORCE_ACCESS 0x00080000

// The UID of a profile's global section (profile name, identity, services).
#define pbGlobalProfileSectionGuid "\x13\xDB\xB0\xC8\xAA\x05\x10\x1A\x9B\xB0\x00\xAA\x00\x2F\xC4\x5A"

// IMsgServiceAdmin::CreateMsgService / ConfigureMsgService, and ServiceEntry's ulFlags.
#define SERVICE_UI_ALWAYS 0x00000002
#define SERVICE_UI_ALLOWED 0x00000010
#define UI_SERVICE 0x00000002
#define UI_CURRENT_PROVIDER_FIRST 0x00000004
#define MSG_SERVICE_UI_READ_ONLY 0x00000008

// PR_SERVICE_FLAGS.
#define SERVICE_DEFAULT_STORE 0x00000001
#define SERVICE_SINGLE_COPY 0x00000002
#define SERVICE_CREATE_WITH_STORE 0x00000004
#define SERVICE_PRIMARY_IDENTITY 0x00000008
#define SERVICE_NO_PRIMARY_IDENTITY 0x00000020

// ---------------------------------------------------------------------------------------------
// Subsystem entry points.

typedef struct {
  ULONG ulVersion;
  ULONG ulFlags;
} MAPIINIT_0, *LPMAPIINIT_0;
typedef MAPIINIT_0 MAPIINIT;
typedef MAPIINIT* LPMAPIINIT;
#define MAPI_INIT_VERSION 0
#define MAPI_MULTITHREAD_NOTIFICATIONS 0x00000001
#define MAPI_NO_COINIT 0x00000008

extern "C" {
HRESULT STDAPICALLTYPE MAPIInitialize(LPVOID lpMapiInit);
void STDAPICALLTYPE MAPIUninitialize(void);
HRESULT STDAPICALLTYPE MAPILogonEx(ULONG_PTR ulUIParam, LPTSTR lpszProfileName, LPTSTR lpszPassword,
                                   ULONG ulFlags, LPMAPISESSION* lppSession);
HRESULT STDAPICALLTYPE MAPIAdminProfiles(ULONG ulFlags, LPPROFADMIN* lppProfAdmin);

// The MAPI allocator: blocks chained to a root by MAPIAllocateMore go away with the root.
SCODE STDMETHODCALLTYPE MAPIAllocateBuffer(ULONG cbSize, LPVOID* lppBuffer);
SCODE STDMETHODCALLTYPE MAPIAllocateMore(ULONG cbSize, LPVOID lpObject, LPVOID* lppBuffer);
ULONG STDAPICALLTYPE MAPIFreeBuffer(LPVOID lpBuffer);

// Wraps a store provider's entry ID so that MAPI can route it to the provider library.
HRESULT STDAPICALLTYPE WrapStoreEntryID(ULONG ulFlags, LPTSTR lpszDLLName, ULONG cbOrigEntry,
                                        LPENTRYID lpOrigEntry, ULONG* lpcbWrappedEntry,
                                        LPENTRYID* lppWrappedEntry);
}

// ---------------------------------------------------------------------------------------------
// IMAPISession

#define MAPI_IMAPISESSION_METHODS(IPURE)                                                               \
  MAPIMETHOD(GetLastError)(THIS_ HRESULT hResult, ULONG ulFlags, LPMAPIERROR * lppMAPIError) IPURE;    \
  MAPIMETHOD(GetMsgStoresTable)(THIS_ ULONG ulFlags, LPMAPITABLE * lppTable) IPURE;                    \
  MAPIMETHOD(OpenMsgStore)(THIS_ ULONG_PTR ulUIParam, ULONG cbEntryID, LPENTRYID lpEntryID,            \
                           LPCIID lpInterface, ULONG ulFlags, LPMDB * lppMDB) IPURE;                   \
  MAPIMETHOD(OpenAddressBook)(THIS_ ULONG_PTR ulUIParam, LPCIID lpInterface, ULONG ulFlags,            \
                              LPADRBOOK * lppAdrBook) IPURE;                                           \
  MAPIMETHOD(OpenProfileSection)(THIS_ LPMAPIUID lpUID, LPCIID lpInterface, ULONG ulFlags,             \
                                 LPPROFSECT * lppProfSect) IPURE;                                      \
  MAPIMETHOD(GetStatusTable)(THIS_ ULONG ulFlags, LPMAPITABLE * lppTable) IPURE;                       \
  MAPIMETHOD(OpenEntry)(THIS_ ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, ULONG ulFlags,  \
                        ULONG * lpulObjType, LPUNKNOWN * lppUnk) IPURE;                                \
  MAPIMETHOD(CompareEntryIDs)(THIS_ ULONG cbEntryID1, LPENTRYID lpEntryID1, ULONG cbEntryID2,          \
                              LPENTRYID lpEntryID2, ULONG ulFlags, ULONG * lpulResult) IPURE;          \
  MAPIMETHOD(Advise)(THIS_ ULONG cbEntryID, LPENTRYID lpEntryID, ULONG ulEventMask,                    \
                     LPMAPIADVISESINK lpAdviseSink, ULONG * lpulConnection) IPURE;                     \
  MAPIMETHOD(Unadvise)(THIS_ ULONG ulConnection) IPURE;                                                \
  MAPIMETHOD(MessageOptions)(THIS_ ULONG_PTR ulUIParam, ULONG ulFlags, LPTSTR lpszAdrType,             \
                             LPMESSAGE lpMessage) IPURE;                                               \
  MAPIMETHOD(QueryDefaultMessageOpt)(THIS_ LPTSTR lpszAdrType, ULONG ulFlags, ULONG * lpcValues,       \
                                     LPSPropValue * lppOptions) IPURE;                                 \
  MAPIMETHOD(EnumAdrTypes)(THIS_ ULONG ulFlags, ULONG * lpcAdrTypes, LPTSTR * *lpppszAdrTypes) IPURE;  \
  MAPIMETHOD(QueryIdentity)(THIS_ ULONG * lpcbEntryID, LPENTRYID * lppEntryID) IPURE;                  \
  MAPIMETHOD(Logoff)(THIS_ ULONG_PTR ulUIParam, ULONG ulFlags, ULONG ulReserved) IPURE;                \
  MAPIMETHOD(SetDefaultStore)(THIS_ ULONG ulFlags, ULONG cbEntryID, LPENTRYID lpEntryID) IPURE;        \
  MAPIMETHOD(AdminServices)(THIS_ ULONG ulFlags, LPSERVICEADMIN * lppServiceAdmin) IPURE;              \
  MAPIMETHOD(ShowForm)(THIS_ ULONG_PTR ulUIParam, LPMDB lpMsgStore, LPMAPIFOLDER lpParentFolder,       \
                       LPCIID lpInterface, ULONG ulMessageToken, LPMESSAGE lpMessageSent, ULONG ulFlags, \
                       ULONG ulMessageStatus, ULONG ulMessageFlags, ULONG ulAccess,                    \
                       LPSTR lpszMessageClass) IPURE;                                                  \
  MAPIMETHOD(PrepareForm)(THIS_ LPCIID lpInterface, LPMESSAGE lpMessage, ULONG * lpulMessageToken) IPURE;
struct IMAPISession : public IUnknown {
  MAPI_IMAPISESSION_METHODS(PURE)
};

// ---------------------------------------------------------------------------------------------
// IAddrBook

#define MAPI_IADDRBOOK_METHODS(IPURE)                                                                  \
  MAPIMETHOD(OpenEntry)(THIS_ ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, ULONG ulFlags,  \
                        ULONG * lpulObjType, LPUNKNOWN * lppUnk) IPURE;                                \
  MAPIMETHOD(CompareEntryIDs)(THIS_ ULONG cbEntryID1, LPENTRYID lpEntryID1, ULONG cbEntryID2,          \
                              LPENTRYID lpEntryID2, ULONG ulFlags, ULONG * lpulResult) IPURE;          \
  MAPIMETHOD(Advise)(THIS_ ULONG cbEntryID, LPENTRYID lpEntryID, ULONG ulEventMask,                    \
                     LPMAPIADVISESINK lpAdviseSink, ULONG * lpulConnection) IPURE;                     \
  MAPIMETHOD(Unadvise)(THIS_ ULONG ulConnection) IPURE;                                                \
  MAPIMETHOD(CreateOneOff)(THIS_ LPTSTR lpszName, LPTSTR lpszAdrType, LPTSTR lpszAddress, ULONG ulFlags, \
                           ULONG * lpcbEntryID, LPENTRYID * lppEntryID) IPURE;                         \
  MAPIMETHOD(NewEntry)(THIS_ ULONG_PTR ulUIParam, ULONG ulFlags, ULONG cbEIDContainer,                 \
                       LPENTRYID lpEIDContainer, ULONG cbEIDNewEntryTpl, LPENTRYID lpEIDNewEntryTpl,   \
                       ULONG * lpcbEIDNewEntry, LPENTRYID * lppEIDNewEntry) IPURE;                     \
  MAPIMETHOD(ResolveName)(THIS_ ULONG_PTR ulUIParam, ULONG ulFlags, LPTSTR lpszNewEntryTitle,          \
                          LPADRLIST lpAdrList) IPURE;                                                  \
  MAPIMETHOD(Address)(THIS_ ULONG_PTR * lpulUIParam, LPADRPARM lpAdrParms, LPADRLIST * lppAdrList) IPURE; \
  MAPIMETHOD(Details)(THIS_ ULONG_PTR * lpulUIParam, LPFNDISMISS lpfnDismiss, LPVOID lpvDismissContext, \
                      ULONG cbEntryID, LPENTRYID lpEntryID, LPFNBUTTON lpfButtonCallback,              \
                      LPVOID lpvButtonContext, LPTSTR lpszButtonText, ULONG ulFlags) IPURE;            \
  MAPIMETHOD(RecipOptions)(THIS_ ULONG_PTR ulUIParam, ULONG ulFlags, LPADRENTRY lpRecip) IPURE;        \
  MAPIMETHOD(QueryDefaultRecipOpt)(THIS_ LPTSTR lpszAdrType, ULONG ulFlags, ULONG * lpcValues,         \
                                   LPSPropValue * lppOptions) IPURE;                                   \
  MAPIMETHOD(GetPAB)(THIS_ ULONG * lpcbEntryID, LPENTRYID * lppEntryID) IPURE;                         \
  MAPIMETHOD(SetPAB)(THIS_ ULONG cbEntryID, LPENTRYID lpEntryID) IPURE;                                \
  MAPIMETHOD(GetDefaultDir)(THIS_ ULONG * lpcbEntryID, LPENTRYID * lppEntryID) IPURE;                  \
  MAPIMETHOD(SetDefaultDir)(THIS_ ULONG cbEntryID, LPENTRYID lpEntryID) IPURE;                         \
  MAPIMETHOD(GetSearchPath)(THIS_ ULONG ulFlags, LPSRowSet * lppSearchPath) IPURE;                     \
  MAPIMETHOD(SetSearchPath)(THIS_ ULONG ulFlags, LPSRowSet lpSearchPath) IPURE;                        \
  MAPIMETHOD(PrepareRecips)(THIS_ ULONG ulFlags, LPSPropTagArray lpPropTagArray, LPADRLIST lpRecipList) IPURE;
struct IAddrBook : public IMAPIProp {
  MAPI_IADDRBOOK_METHODS(PURE)
};

// ---------------------------------------------------------------------------------------------
// IProfAdmin

#define MAPI_IPROFADMIN_METHODS(IPURE)                                                                 \
  MAPIMETHOD(GetLastError)(THIS_ HRESULT hResult, ULONG ulFlags, LPMAPIERROR * lppMAPIError) IPURE;    \
  MAPIMETHOD(GetProfileTable)(THIS_ ULONG ulFlags, LPMAPITABLE * lppTable) IPURE;                      \
  MAPIMETHOD(CreateProfile)(THIS_ LPTSTR lpszProfileName, LPTSTR lpszPassword, ULONG_PTR ulUIParam,    \
                            ULONG ulFlags) IPURE;                                                      \
  MAPIMETHOD(DeleteProfile)(THIS_ LPTSTR lpszProfileName, ULONG ulFlags) IPURE;                        \
  MAPIMETHOD(ChangeProfilePassword)(THIS_ LPTSTR lpszProfileName, LPTSTR lpszOldPassword,              \
                                    LPTSTR lpszNewPassword, ULONG ulFlags) IPURE;                      \
  MAPIMETHOD(CopyProfile)(THIS_ LPTSTR lpszOldProfileName, LPTSTR lpszOldPassword,                     \
                          LPTSTR lpszNewProfileName, ULONG_PTR ulUIParam, ULONG ulFlags) IPURE;        \
  MAPIMETHOD(RenameProfile)(THIS_ LPTSTR lpszOldProfileName, LPTSTR lpszOldPassword,                   \
                            LPTSTR lpszNewProfileName, ULONG_PTR ulUIParam, ULONG ulFlags) IPURE;      \
  MAPIMETHOD(SetDefaultProfile)(THIS_ LPTSTR lpszProfileName, ULONG ulFlags) IPURE;                    \
  MAPIMETHOD(AdminServices)(THIS_ LPTSTR lpszProfileName, LPTSTR lpszPassword, ULONG_PTR ulUIParam,    \
                            ULONG ulFlags, LPSERVICEADMIN * lppServiceAdmin) IPURE;
struct IProfAdmin : public IUnknown {
  MAPI_IPROFADMIN_METHODS(PURE)
};

// ---------------------------------------------------------------------------------------------
// IMsgServiceAdmin

#define MAPI_IMSGSERVICEADMIN_METHODS(IPURE)                                                           \
  MAPIMETHOD(GetLastError)(THIS_ HRESULT hResult, ULONG ulFlags, LPMAPIERROR * lppMAPIError) IPURE;    \
  MAPIMETHOD(GetMsgServiceTable)(THIS_ ULONG ulFlags, LPMAPITABLE * lppTable) IPURE;                   \
  MAPIMETHOD(CreateMsgService)(THIS_ LPTSTR lpszService, LPTSTR lpszDisplayName, ULONG_PTR ulUIParam,  \
                               ULONG ulFlags) IPURE;                                                   \
  MAPIMETHOD(DeleteMsgService)(THIS_ LPMAPIUID lpUID) IPURE;                                           \
  MAPIMETHOD(CopyMsgService)(THIS_ LPMAPIUID lpUID, LPTSTR lpszDisplayName, LPCIID lpInterfaceToCopy,  \
                             LPCIID lpInterfaceDst, LPVOID lpObjectDst, ULONG_PTR ulUIParam,           \
                             ULONG ulFlags) IPURE;                                                     \
  MAPIMETHOD(RenameMsgService)(THIS_ LPMAPIUID lpUID, ULONG ulFlags, LPTSTR lpszDisplayName) IPURE;    \
  MAPIMETHOD(ConfigureMsgService)(THIS_ LPMAPIUID lpUID, ULONG_PTR ulUIParam, ULONG ulFlags,           \
                                  ULONG cValues, LPSPropValue lpProps) IPURE;                          \
  MAPIMETHOD(OpenProfileSection)(THIS_ LPMAPIUID lpUID, LPCIID lpInterface, ULONG ulFlags,             \
                                 LPPROFSECT * lppProfSect) IPURE;                                      \
  MAPIMETHOD(MsgServiceTransportOrder)(THIS_ ULONG cUID, LPMAPIUID lpUIDList, ULONG ulFlags) IPURE;    \
  MAPIMETHOD(AdminProviders)(THIS_ LPMAPIUID lpUID, ULONG ulFlags, LPPROVIDERADMIN * lppProviderAdmin) IPURE; \
  MAPIMETHOD(SetPrimaryIdentity)(THIS_ LPMAPIUID lpUID, ULONG ulFlags) IPURE;                          \
  MAPIMETHOD(GetProviderTable)(THIS_ ULONG ulFlags, LPMAPITABLE * lppTable) IPURE;
struct IMsgServiceAdmin : public IUnknown {
  MAPI_IMSGSERVICEADMIN_METHODS(PURE)
};

// ---------------------------------------------------------------------------------------------
// IProviderAdmin

#define MAPI_IPROVIDERADMIN_METHODS(IPURE)                                                             \
  MAPIMETHOD(GetLastError)(THIS_ HRESULT hResult, ULONG ulFlags, LPMAPIERROR * lppMAPIError) IPURE;    \
  MAPIMETHOD(GetProviderTable)(THIS_ ULONG ulFlags, LPMAPITABLE * lppTable) IPURE;                     \
  MAPIMETHOD(CreateProvider)(THIS_ LPTSTR lpszProvider, ULONG cValues, LPSPropValue lpProps,           \
                             ULONG_PTR ulUIParam, ULONG ulFlags, MAPIUID * lpUID) IPURE;               \
  MAPIMETHOD(DeleteProvider)(THIS_ LPMAPIUID lpUID) IPURE;                                             \
  MAPIMETHOD(OpenProfileSection)(THIS_ LPMAPIUID lpUID, LPCIID lpInterface, ULONG ulFlags,             \
                                 LPPROFSECT * lppProfSect) IPURE;
struct IProviderAdmin : public IUnknown {
  MAPI_IPROVIDERADMIN_METHODS(PURE)
};
