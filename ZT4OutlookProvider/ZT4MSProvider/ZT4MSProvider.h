// The front door: MSProviderInit, the provider object and its logons in the client and spooler
// contexts, and the process-wide state they keep.
#pragma once
#include <windows.h>
#include <mapidefs.h>
#include <mapispi.h>

#include "ZT4FileStg.h"

class CMsgStore;
class CMAPISupport;
class CMSLogon;
struct LOGON_STORE_IDENTITY;

// The SPI version this provider speaks and the oldest subsystem it accepts.
constexpr ULONG ZT4_CURRENT_SPI_VERSION = 0x00010010;

// The provider's profile-section properties.
#define PR_ZT4_STORE_PATH PROP_TAG(PT_STRING8, 0x6601)
#define PR_ZT4_STORE_OPTION_TEXT PROP_TAG(PT_STRING8, 0x6602)
#define PR_ZT4_STORE_OPTION_FLAG PROP_TAG(PT_BOOLEAN, 0x6603)

// The six profile properties, read by one tag array in this order.
enum { STORE_PATH = 0, STORE_DISPLAY_NAME, STORE_COMMENT, STORE_RECORD_KEY, STORE_OPTION_TEXT, STORE_OPTION_FLAG,
       NUM_PROFILE_PROPS };
extern const SizedSPropTagArray(NUM_PROFILE_PROPS, sptProfileProps);

#define ZT4_DEFAULT_STORE_COMMENT "Orvanta Store"
// The access mask of a logged-on store: modify, read, delete, create hierarchy, contents and
// associated.
constexpr ULONG ZT4_STORE_ACCESS = 0x3F;

// The inter-context notification key: the store's UID, then this text, zero-padded to 64 bytes.
constexpr ULONG CB_IPC_NOTIF_KEY = 64;
#define ZT4_IPC_NOTIF_KEY_TEXT "ZT4MSPROVIDER IPC NOTIF KEY"
void BuildIPCNotifKey(const MAPIUID& uidStore, BYTE (&abKey)[CB_IPC_NOTIF_KEY]);

// Process-wide state of the front door.
extern CMsgStore* g_pClientStore;        // the client-context store of this process; never cleared
extern WCHAR g_wszStoreDisplayName[1024];
extern BOOL g_fLookingUpUser;            // PopulateCurrentUserDetails is inside its own session lookup
extern BOOL g_fOpeningStore;             // OpenMsgStoreDataBase runs

class CMSProvider final : public IMSProvider {
 public:
  explicit CMSProvider(HINSTANCE hInstance);
  CMSProvider(const CMSProvider&) = delete;
  CMSProvider& operator=(const CMSProvider&) = delete;

  STDMETHODIMP QueryInterface(REFIID riid, LPVOID* ppvObj) override;
  STDMETHODIMP_(ULONG) AddRef() override;
  STDMETHODIMP_(ULONG) Release() override;
  MAPIMETHOD(Shutdown)(ULONG* lpulFlags) override;
  MAPIMETHOD(Logon)(LPMAPISUP lpMAPISup, ULONG_PTR ulUIParam, LPTSTR lpszProfileName, ULONG cbEntryID,
                    LPENTRYID lpEntryID, ULONG ulFlags, LPCIID lpInterface, ULONG* lpcbSpoolSecurity,
                    LPBYTE* lppbSpoolSecurity, LPMAPIERROR* lppMAPIError, LPMSLOGON* lppMSLogon,
                    LPMDB* lppMDB) override;
  MAPIMETHOD(SpoolerLogon)(LPMAPISUP lpMAPISup, ULONG_PTR ulUIParam, LPTSTR lpszProfileName, ULONG cbEntryID,
                           LPENTRYID lpEntryID, ULONG ulFlags, LPCIID lpInterface, ULONG cbSpoolSecurity,
                           LPBYTE lpbSpoolSecurity, LPMAPIERROR* lppMAPIError, LPMSLOGON* lppMSLogon,
                           LPMDB* lppMDB) override;
  MAPIMETHOD(CompareStoreIDs)(ULONG cbEntryID1, LPENTRYID lpEntryID1, ULONG cbEntryID2, LPENTRYID lpEntryID2,
                              ULONG ulFlags, ULONG* lpulResult) override;

  // Reads the six profile properties, mends missing ones and writes them back. *ppProps is the
  // caller's, from the MAPI allocator.
  HRESULT GetProfileProps(CMAPISupport* pPrivSupObj, LPSPropValue* ppProps, ULONG_PTR ulUIParam);
  BOOL IsStoreAlreadyOpen(LPCSTR pszPath, CMsgStore** ppStore);
  void AddStoreObjectToList(CMsgStore* pStore);
  // Called from the store's destructor; takes the provider lock itself.
  void RemoveOpenStoreObject(CMsgStore* pStore);

  HINSTANCE GetInstance() const { return m_hInstance; }

 private:
  ~CMSProvider();

  BOOL IsStoreListed(const CMsgStore* pStore);
  HRESULT MakeStoreAndLogon(CMAPISupport*& pPrivSupObj, const LOGON_STORE_IDENTITY& identity, CBackEnd* pBEobj,
                            ULONG ulFlags, BOOL fSpooler, CMsgStore** ppStore, CMSLogon** ppLogon);
  HRESULT SubscribeAndMakeLogon(CMsgStore* pStore, BOOL fSpooler, CMSLogon** ppLogon);
  void FinishLogon(CMAPISupport*& pPrivSupObj, CMsgStore* pStore, CMSLogon* pLogon, LPMSLOGON* lppMSLogon,
                   LPMDB* lppMDB);

  ULONG m_cRef;
  CMsgStore* m_pOpenStores;  // not counted
  // Guards the count, the open store list and, for the whole of it, each logon. Lock order:
  // this lock, then the named mutex "TQProvider".
  CRITICAL_SECTION m_csProvider;
  HINSTANCE m_hInstance;
};

// Same store UID, version, type and dwObjID: 1 in *pulResult. Sizes other than 132 give
// MAPI_E_INVALID_ENTRYID and 0. Shared by the provider and the store.
HRESULT ComparePrivateEntryIDs(ULONG cbEntryID1, LPENTRYID lpEntryID1, ULONG cbEntryID2, LPENTRYID lpEntryID2,
                               ULONG* lpulResult);

extern "C" {
HRESULT STDMAPIINITCALLTYPE MSProviderInit(HINSTANCE hInstance, LPMALLOC lpMalloc, LPALLOCATEBUFFER lpAllocateBuffer,
                                           LPALLOCATEMORE lpAllocateMore, LPFREEBUFFER lpFreeBuffer, ULONG ulFlags,
                                           ULONG ulMAPIVer, ULONG* lpulProviderVer, LPMSPROVIDER* lppMSProvider);
}
