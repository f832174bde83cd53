// Outlook account management: the account manager, its enumerator and accounts, the helper a
// client supplies, with the published identifiers, property tags and flags. Placeholder slots are
// undocumented methods that must still occupy their vtable positions.
#pragma once
#include "mapidefs.h"

// Flags and results.
#define ACCT_INIT_NOSYNCH_MAPI_ACCTS 0x00000001
#define ACCT_INIT_NO_STORES_CHECK 0x00000002
#define ACCT_INIT_NO_NOTIFICATIONS 0x00000004
#define ACCTUI_NO_WARNING 0x0100
#define ACCTUI_SHOW_DATA_TAB 0x0200
#define ACCTUI_SHOW_ACCTWIZARD 0x0400
#define OLK_ACCOUNT_NO_FLAGS 0
#define MAPIACCT_SEND_ONLY 0x00000001
#define NOTIFY_ACCT_CHANGED 1
#define NOTIFY_ACCT_CREATED 2
#define NOTIFY_ACCT_DELETED 3
#define NOTIFY_ACCT_ORDER_CHANGED 4
#define NOTIFY_ACCT_PREDELETED 5
#define E_ACCT_NOT_FOUND _HRESULT_TYPEDEF_(0x800C8101L)
#define E_ACCT_UI_BUSY _HRESULT_TYPEDEF_(0x800C8102L)
#define E_ACCT_WRONG_SORT_ORDER _HRESULT_TYPEDEF_(0x800C8105L)
#define E_OLK_REGISTRY _HRESULT_TYPEDEF_(0x800C8001L)
#define E_OLK_ALREADY_INITIALIZED _HRESULT_TYPEDEF_(0x800C8002L)
#define E_OLK_PARAM_NOT_SUPPORTED _HRESULT_TYPEDEF_(0x800C8003L)
#define E_OLK_NOT_INITIALIZED _HRESULT_TYPEDEF_(0x800C8005L)
#define E_OLK_PROP_READ_ONLY _HRESULT_TYPEDEF_(0x800C800DL)

// Named properties of accounts in PSETID_Common.
#define dispidInetAcctName 0x8580
#define dispidInetAcctStamp 0x8581

// Account properties (IOlkAccount::GetProp / SetProp).
#define PROP_ACCT_ID PROP_TAG(PT_LONG, 0x0001)
#define PROP_ACCT_NAME PROP_TAG(PT_UNICODE, 0x0002)
#define PROP_ACCT_MINI_UID PROP_TAG(PT_LONG, 0x0003)
#define PROP_ACCT_USER_DISPLAY_NAME PROP_TAG(PT_UNICODE, 0x000B)
#define PROP_ACCT_USER_EMAIL_ADDR PROP_TAG(PT_UNICODE, 0x000C)
#define PROP_ACCT_STAMP PROP_TAG(PT_UNICODE, 0x000D)
#define PROP_ACCT_SEND_STAMP PROP_TAG(PT_UNICODE, 0x000E)
#define PROP_ACCT_IS_EXCH PROP_TAG(PT_LONG, 0x0014)
#define PROP_ACCT_DELIVERY_STORE PROP_TAG(PT_BINARY, 0x0018)
#define PROP_ACCT_DELIVERY_FOLDER PROP_TAG(PT_BINARY, 0x0019)
#define PROP_ACCT_SENTITEMS_EID PROP_TAG(PT_BINARY, 0x0020)
#define PROP_MAPI_IDENTITY_ENTRYID PROP_TAG(PT_BINARY, 0x2002)
#define PROP_MAPI_EMSMDB_UID PROP_TAG(PT_BINARY, 0x2009)
#define PROP_MAPI_TRANSPORT_FLAGS PROP_TAG(PT_LONG, 0x2010)

// Class identifiers: the manager, account types and account categories.
DEFINE_GUID(CLSID_OlkAccountManager, 0xed475410, 0xb0d6, 0x11d2, 0x8c, 0x3b, 0x00, 0x10, 0x4b, 0x2a, 0x66, 0x76);
DEFINE_GUID(CLSID_OlkPOP3Account, 0xed475411, 0xb0d6, 0x11d2, 0x8c, 0x3b, 0x00, 0x10, 0x4b, 0x2a, 0x66, 0x76);
DEFINE_GUID(CLSID_OlkIMAP4Account, 0xed475412, 0xb0d6, 0x11d2, 0x8c, 0x3b, 0x00, 0x10, 0x4b, 0x2a, 0x66, 0x76);
DEFINE_GUID(CLSID_OlkMAPIAccount, 0xed475414, 0xb0d6, 0x11d2, 0x8c, 0x3b, 0x00, 0x10, 0x4b, 0x2a, 0x66, 0x76);
DEFINE_GUID(CLSID_OlkMail, 0xed475418, 0xb0d6, 0x11d2, 0x8c, 0x3b, 0x00, 0x10, 0x4b, 0x2a, 0x66, 0x76);
DEFINE_GUID(CLSID_OlkAddressBook, 0xed475419, 0xb0d6, 0x11d2, 0x8c, 0x3b, 0x00, 0x10, 0x4b, 0x2a, 0x66, 0x76);
DEFINE_GUID(CLSID_OlkStore, 0xed475420, 0xb0d6, 0x11d2, 0x8c, 0x3b, 0x00, 0x10, 0x4b, 0x2a, 0x66, 0x76);
DEFINE_GUID(CLSID_OlkHotmailAccount, 0x4db5cbf0, 0x3b77, 0x4852, 0xbc, 0x8e, 0xbb, 0x81, 0x90, 0x88, 0x61, 0xf3);
DEFINE_GUID(CLSID_OlkLDAPAccount, 0x4db5cbf2, 0x3b77, 0x4852, 0xbc, 0x8e, 0xbb, 0x81, 0x90, 0x88, 0x61, 0xf3);

// Interface identifiers.
#define AD_OLK_IID(type, l)                                                                    \
  DEFINE_GUID(IID_##type, l, 0xaf41, 0x11d2, 0x8c, 0x3b, 0x00, 0x10, 0x4b, 0x2a, 0x66, 0x76); \
  AD_BIND_UUID(type, IID_##type)
AD_OLK_IID(IOlkErrorUnknown, 0x9240a6c0);
AD_OLK_IID(IOlkEnum, 0x9240a6c1);
AD_OLK_IID(IOlkAccountNotify, 0x9240a6c3);
AD_OLK_IID(IOlkAccountHelper, 0x9240a6cb);
AD_OLK_IID(IOlkAccountManager, 0x9240a6cd);
AD_OLK_IID(IOlkAccount, 0x9240a6d2);

// Account property values.
typedef struct {
  DWORD cb;
  BYTE* pb;
} ACCT_BIN;

typedef struct {
  DWORD dwType;  // PT_LONG, PT_UNICODE or PT_BINARY
  union {
    DWORD dw;
    WCHAR* pwsz;
    ACCT_BIN bin;
  } Val;
} ACCT_VARIANT;

struct IOlkErrorUnknown : public IUnknown {
  STDMETHOD(GetLastError)(HRESULT hr, LPWSTR* ppwszError) = 0;
};

struct IOlkEnum : public IUnknown {
  STDMETHOD(GetCount)(DWORD* pulCount) = 0;
  STDMETHOD(Reset)() = 0;
  STDMETHOD(GetNext)(LPUNKNOWN* ppunk) = 0;
  STDMETHOD(Skip)(DWORD cSkip) = 0;
};

struct IOlkAccountNotify : public IOlkErrorUnknown {
  STDMETHOD(Notify)(DWORD dwNotify, DWORD dwAcctID, DWORD dwFlags) = 0;
};

// Supplied by the client to IOlkAccountManager::Init.
struct IOlkAccountHelper : public IUnknown {
  STDMETHOD(PlaceHolder1)(LPVOID) = 0;
  STDMETHOD(GetIdentity)(LPWSTR pwszIdentity, DWORD* pcch) = 0;
  STDMETHOD(GetMapiSession)(LPUNKNOWN* ppmsess) = 0;
  STDMETHOD(HandsOffSession)() = 0;
};

struct IOlkAccount : public IOlkErrorUnknown {
  STDMETHOD(PlaceHolder1)() = 0;
  STDMETHOD(PlaceHolder2)() = 0;
  STDMETHOD(PlaceHolder3)() = 0;
  STDMETHOD(PlaceHolder4)() = 0;
  STDMETHOD(PlaceHolder5)() = 0;
  STDMETHOD(PlaceHolder6)() = 0;
  STDMETHOD(GetAccountInfo)(CLSID* pclsidType, DWORD* pcCategories, CLSID** prgclsidCategory) = 0;
  STDMETHOD(GetProp)(DWORD dwProp, ACCT_VARIANT* pVar) = 0;
  STDMETHOD(SetProp)(DWORD dwProp, ACCT_VARIANT* pVar) = 0;
  STDMETHOD(PlaceHolder7)() = 0;
  STDMETHOD(PlaceHolder8)() = 0;
  STDMETHOD(PlaceHolder9)() = 0;
  STDMETHOD(FreeMemory)(BYTE* pv) = 0;
  STDMETHOD(PlaceHolder10)() = 0;
  STDMETHOD(SaveChanges)(DWORD dwFlags) = 0;
};

struct IOlkAccountManager : public IOlkErrorUnknown {
  STDMETHOD(Init)(IOlkAccountHelper* pAcctHelper, DWORD dwFlags) = 0;
  STDMETHOD(DisplayAccountList)(HWND hwnd, DWORD dwFlags, LPCWSTR wszTitle, DWORD cCategories,
                                const CLSID* rgclsidCategories, const CLSID* pclsidType) = 0;
  STDMETHOD(PlaceHolder1)() = 0;
  STDMETHOD(PlaceHolder2)() = 0;
  STDMETHOD(PlaceHolder3)() = 0;
  STDMETHOD(PlaceHolder4)() = 0;
  STDMETHOD(PlaceHolder5)() = 0;
  STDMETHOD(FindAccount)(DWORD dwProp, ACCT_VARIANT* pVar, IOlkAccount** ppAccount) = 0;
  STDMETHOD(PlaceHolder6)() = 0;
  STDMETHOD(PlaceHolder7)() = 0;
  STDMETHOD(PlaceHolder8)() = 0;
  STDMETHOD(DeleteAccount)(DWORD dwAcctID) = 0;
  STDMETHOD(PlaceHolder9)() = 0;
  STDMETHOD(SaveChanges)(DWORD dwAcctID, DWORD dwFlags) = 0;
  STDMETHOD(GetOrder)(const CLSID* pclsidCategory, DWORD* pcAccts, DWORD* prgAccts[]) = 0;
  STDMETHOD(SetOrder)(const CLSID* pclsidCategory, DWORD* pcAccts, DWORD* prgAccts[]) = 0;
  STDMETHOD(EnumerateAccounts)(const CLSID* pclsidCategory, const CLSID* pclsidType, DWORD dwFlags,
                               IOlkEnum** ppEnum) = 0;
  STDMETHOD(PlaceHolder10)() = 0;
  STDMETHOD(PlaceHolder11)() = 0;
  STDMETHOD(FreeMemory)(BYTE* pv) = 0;
  STDMETHOD(Advise)(IOlkAccountNotify* pNotify, DWORD* pdwCookie) = 0;
  STDMETHOD(Unadvise)(DWORD* pdwCookie) = 0;
};

typedef IOlkAccountManager* LPOLKACCOUNTMANAGER;
