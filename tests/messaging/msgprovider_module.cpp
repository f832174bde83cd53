// A message-service library for the messaging tests. It exports ServiceEntry and behaves as a
// store service does at profile time, recording what it is asked so that tests can check it.
//
//   ADTEST_SERVICE_LOG    file that gets one line per call:
//                         "ServiceEntry ctx=<n> flags=<hex> values=<n> [<tag hex>=<value>]..."
//   ADTEST_SERVICE_FAIL   a context number: calls in that context fail with MAPI_E_USER_CANCEL
//                         and a MAPIERROR reading "refused by the test service"
//
// MSG_SERVICE_CREATE writes into the first provider's section (found through the provider
// admin's table, as store services do): PR_TEST_CREATED "created" and PR_TEST_UID, a NewUID of
// the support object; and into the service's own section (support OpenProfileSection(NULL)):
// PR_TEST_SERVICE_MARK "service". MSG_SERVICE_CONFIGURE copies the given properties into the
// provider's section and counts the calls in PR_TEST_CONFIGURED.
//
// It is also a store provider (MSProviderInit, IMSProvider, IMSLogon over the in-memory store of
// teststore.h) and logs to the same file:
//   "MSProviderInit mapiver=<hex>"
//   "Logon|SpoolerLogon profile=<name> cb=<entry ID size> flags=<hex> provider=<section's
//    PR_PROVIDER_UID hex> user=<identity's PR_EMAIL_ADDRESS>"
//   "Logoff provider=<hex>", "Shutdown", "Notified pid=<process> type=<hex>"
// A logon reads its section (support OpenProfileSection(NULL)), asks the session for the
// identity, registers the store's UID (SetProviderUID), publishes a status row, subscribes to
// "<store UID>TEST IPC KEY" and marks the profile (ModifyProfile). IMsgStore::NotifyNewMail sends
// its notification under that key through the support object. ADTEST_STORE_FAIL set: logons fail
// with MAPI_E_LOGON_FAILED. ADTEST_STORE_ANY_PROFILE set: the logon asks for the identity through
// a logon that names no profile (MAPI_LOGON_UI | MAPI_EXTENDED), as providers do.
// ADTEST_STORE_DEFAULT_FOLDERS "<deleted>|<inbox>|<outbox>|<sent>" (UTF-8): the store gets four
// folders of these names and points PR_IPM_WASTEBASKET_ENTRYID, GetReceiveFolder,
// PR_IPM_OUTBOX_ENTRYID and PR_IPM_SENTMAIL_ENTRYID at them.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "mapicode.h"
#include "mapidefs.h"
#include "mapispi.h"
#include "mapitags.h"
#include "mapiutil.h"
#include "mapix.h"
#include "teststore.h"
#include "windows.h"

namespace {

constexpr ULONG PR_TEST_CREATED = PROP_TAG(PT_STRING8, 0x6601);
constexpr ULONG PR_TEST_SERVICE_MARK = PROP_TAG(PT_STRING8, 0x6602);
constexpr ULONG PR_TEST_UID = PROP_TAG(PT_BINARY, 0x6603);
constexpr ULONG PR_TEST_CONFIGURED = PROP_TAG(PT_LONG, 0x6604);

std::string Describe(const SPropValue& v) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%08X=", static_cast<unsigned>(v.ulPropTag));
  std::string out = buf;
  switch (PROP_TYPE(v.ulPropTag)) {
    case PT_STRING8: out += v.Value.lpszA ? v.Value.lpszA : ""; break;
    case PT_LONG: out += std::to_string(v.Value.l); break;
    case PT_BOOLEAN: out += v.Value.b ? "true" : "false"; break;
    default: out += "?"; break;
  }
  return out;
}

void Record(ULONG ulContext, ULONG ulFlags, ULONG cValues, LPSPropValue lpProps) {
  const char* path = std::getenv("ADTEST_SERVICE_LOG");
  if (!path) return;
  std::string line = "ServiceEntry ctx=" + std::to_string(ulContext);
  char flags[32];
  std::snprintf(flags, sizeof flags, " flags=%X", static_cast<unsigned>(ulFlags));
  line += flags;
  line += " values=" + std::to_string(cValues);
  for (ULONG i = 0; lpProps && i < cValues; ++i) line += " " + Describe(lpProps[i]);
  if (FILE* f = std::fopen(path, "a")) {
    std::fprintf(f, "%s\n", line.c_str());
    std::fclose(f);
  }
}

HRESULT Refuse(LPMAPISUP lpMAPISup, LPMAPIERROR* lppMapiError) {
  LPALLOCATEBUFFER alloc = nullptr;
  LPALLOCATEMORE more = nullptr;
  LPFREEBUFFER freeBuf = nullptr;
  if (lppMapiError && SUCCEEDED(lpMAPISup->GetMemAllocRoutines(&alloc, &more, &freeBuf))) {
    static const char text[] = "refused by the test service";
    LPMAPIERROR err = nullptr;
    void* copy = nullptr;
    if (SUCCEEDED(alloc(sizeof(MAPIERROR), reinterpret_cast<void**>(&err))) &&
        SUCCEEDED(more(sizeof text, err, &copy))) {
      std::memset(err, 0, sizeof *err);
      std::memcpy(copy, text, sizeof text);
      err->lpszError = static_cast<LPTSTR>(copy);
      *lppMapiError = err;
    }
  }
  return MAPI_E_USER_CANCEL;
}

// The first provider's section, as a store service finds its own.
HRESULT OpenProviderSection(LPPROVIDERADMIN admin, LPPROFSECT* section) {
  LPMAPITABLE table = nullptr;
  HRESULT hr = admin->GetProviderTable(0, &table);
  if (FAILED(hr)) return hr;
  SizedSPropTagArray(1, cols) = {1, {PR_PROVIDER_UID}};
  LPSRowSet rows = nullptr;
  hr = table->SetColumns(reinterpret_cast<LPSPropTagArray>(&cols), 0);
  if (SUCCEEDED(hr)) hr = table->QueryRows(1, 0, &rows);
  if (SUCCEEDED(hr) && (!rows->cRows || rows->aRow[0].lpProps[0].ulPropTag != PR_PROVIDER_UID)) hr = MAPI_E_NOT_FOUND;
  if (SUCCEEDED(hr)) {
    hr = admin->OpenProfileSection(reinterpret_cast<LPMAPIUID>(rows->aRow[0].lpProps[0].Value.bin.lpb), nullptr,
                                   MAPI_MODIFY, section);
  }
  if (rows) FreeProws(rows);
  table->Release();
  return hr;
}

HRESULT OnCreate(LPMAPISUP sup, LPPROVIDERADMIN admin) {
  LPPROFSECT provider = nullptr;
  HRESULT hr = OpenProviderSection(admin, &provider);
  if (FAILED(hr)) return hr;
  MAPIUID uid;
  hr = sup->NewUID(&uid);
  SPropValue props[2] = {};
  props[0].ulPropTag = PR_TEST_CREATED;
  props[0].Value.lpszA = const_cast<LPSTR>("created");
  props[1].ulPropTag = PR_TEST_UID;
  props[1].Value.bin.cb = sizeof uid;
  props[1].Value.bin.lpb = uid.ab;
  if (SUCCEEDED(hr)) hr = provider->SetProps(2, props, nullptr);
  if (SUCCEEDED(hr)) hr = provider->SaveChanges(0);
  provider->Release();
  if (FAILED(hr)) return hr;
  LPPROFSECT service = nullptr;
  hr = sup->OpenProfileSection(nullptr, MAPI_MODIFY, &service);
  if (FAILED(hr)) return hr;
  SPropValue mark{};
  mark.ulPropTag = PR_TEST_SERVICE_MARK;
  mark.Value.lpszA = const_cast<LPSTR>("service");
  hr = service->SetProps(1, &mark, nullptr);
  if (SUCCEEDED(hr)) hr = service->SaveChanges(0);
  service->Release();
  return hr;
}

HRESULT OnConfigure(LPPROVIDERADMIN admin, ULONG cValues, LPSPropValue lpProps) {
  LPPROFSECT provider = nullptr;
  HRESULT hr = OpenProviderSection(admin, &provider);
  if (FAILED(hr)) return hr;
  LPSPropValue count = nullptr;
  ULONG n = 0;
  SizedSPropTagArray(1, tags) = {1, {PR_TEST_CONFIGURED}};
  provider->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), 0, &n, &count);
  SPropValue next{};
  next.ulPropTag = PR_TEST_CONFIGURED;
  next.Value.l = (count && count->ulPropTag == PR_TEST_CONFIGURED) ? count->Value.l + 1 : 1;
  MAPIFreeBuffer(count);
  hr = provider->SetProps(1, &next, nullptr);
  if (SUCCEEDED(hr) && cValues) hr = provider->SetProps(cValues, lpProps, nullptr);
  if (SUCCEEDED(hr)) hr = provider->SaveChanges(0);
  provider->Release();
  return hr;
}

}  // namespace

extern "C" HRESULT STDAPICALLTYPE ServiceEntry(HINSTANCE, LPMALLOC, LPMAPISUP lpMAPISup, ULONG_PTR, ULONG ulFlags,
                                               ULONG ulContext, ULONG cValues, LPSPropValue lpProps,
                                               LPPROVIDERADMIN lpProviderAdmin, LPMAPIERROR* lppMapiError) {
  Record(ulContext, ulFlags, cValues, lpProps);
  if (lppMapiError) *lppMapiError = nullptr;
  const char* fail = std::getenv("ADTEST_SERVICE_FAIL");
  if (fail && std::strtoul(fail, nullptr, 10) == ulContext) return Refuse(lpMAPISup, lppMapiError);
  switch (ulContext) {
    case MSG_SERVICE_CREATE: return OnCreate(lpMAPISup, lpProviderAdmin);
    case MSG_SERVICE_CONFIGURE: return OnConfigure(lpProviderAdmin, cValues, lpProps);
    default: return S_OK;
  }
}

// ---- Store provider ---------------------------------------------------------------------------

namespace {

void Log(const std::string& line) {
  const char* path = std::getenv("ADTEST_SERVICE_LOG");
  if (!path) return;
  if (FILE* f = std::fopen(path, "a")) {
    std::fprintf(f, "%s\n", line.c_str());
    std::fclose(f);
  }
}

std::string Hex(const BYTE* p, ULONG cb) {
  std::string out;
  char b[3];
  for (ULONG i = 0; i < cb; ++i) {
    std::snprintf(b, sizeof b, "%02X", p[i]);
    out += b;
  }
  return out;
}

LONG STDAPICALLTYPE OnIpcNotify(LPVOID, ULONG cNotif, LPNOTIFICATION lpNotifications) {
  for (ULONG i = 0; i < cNotif; ++i) {
    char line[96];
    std::snprintf(line, sizeof line, "Notified pid=%u type=%X", static_cast<unsigned>(GetCurrentProcessId()),
                  static_cast<unsigned>(lpNotifications[i].ulEventType));
    Log(line);
  }
  return 0;
}

std::vector<BYTE> IpcKey(const MAPIUID& uid) {
  std::vector<BYTE> key(sizeof(ULONG) + 64, 0);
  auto* k = reinterpret_cast<LPNOTIFKEY>(key.data());
  k->cb = 64;
  std::memcpy(k->ab, uid.ab, 16);
  std::memcpy(k->ab + 16, "TEST IPC KEY", 13);
  return key;
}

class ProviderStore final : public teststore::MsgStore {
 public:
  explicit ProviderStore(teststore::StorePtr data) : MsgStore(std::move(data)), m_key(IpcKey(m_store->uid)) {}
  ~ProviderStore() override {
    if (m_connection) m_store->sup->Unsubscribe(m_connection);
  }
  HRESULT SubscribeIpc(ULONG mask) {
    LPMAPIADVISESINK sink = nullptr;
    HRESULT hr = HrAllocAdviseSink(OnIpcNotify, nullptr, &sink);
    if (FAILED(hr)) return hr;
    hr = m_store->sup->Subscribe(reinterpret_cast<LPNOTIFKEY>(m_key.data()), mask, 0, sink, &m_connection);
    sink->Release();
    return hr;
  }
  MAPIMETHOD(NotifyNewMail)(LPNOTIFICATION lpNotification) override {
    if (!lpNotification) return MAPI_E_INVALID_PARAMETER;
    ULONG flags = 0;
    return m_store->sup->Notify(reinterpret_cast<LPNOTIFKEY>(m_key.data()), 1, lpNotification, &flags);
  }
  // The four default folders of ADTEST_STORE_DEFAULT_FOLDERS.
  void MakeDefaultFolders(const std::string& list) {
    std::vector<std::string> names;
    size_t start = 0;
    for (size_t bar; (bar = list.find('|', start)) != std::string::npos; start = bar + 1)
      names.push_back(list.substr(start, bar - start));
    names.push_back(list.substr(start));
    static const ULONG kTags[4] = {PR_IPM_WASTEBASKET_ENTRYID, 0, PR_IPM_OUTBOX_ENTRYID, PR_IPM_SENTMAIL_ENTRYID};
    for (size_t i = 0; i < names.size() && i < 4; ++i) {
      LPMAPIFOLDER folder = nullptr;
      if (FAILED(Root()->CreateFolder(0, const_cast<LPTSTR>(names[i].c_str()), nullptr, nullptr, OPEN_IF_EXISTS,
                                      &folder)))
        continue;
      LPSPropValue eid = nullptr;
      if (SUCCEEDED(HrGetOneProp(folder, PR_ENTRYID, &eid))) {
        std::vector<BYTE> bytes(eid->Value.bin.lpb, eid->Value.bin.lpb + eid->Value.bin.cb);
        if (kTags[i])
          Put(BinProp(kTags[i], bytes));
        else
          m_inbox = bytes;
      }
      MAPIFreeBuffer(eid);
      folder->Release();
    }
  }
  MAPIMETHOD(GetReceiveFolder)(LPTSTR, ULONG, ULONG* lpcbEntryID, LPENTRYID* lppEntryID, LPTSTR* lppszClass) override {
    if (!lpcbEntryID || !lppEntryID) return MAPI_E_INVALID_PARAMETER;
    if (lppszClass) *lppszClass = nullptr;
    if (m_inbox.empty()) return MAPI_E_NOT_FOUND;
    HRESULT hr = MAPIAllocateBuffer(static_cast<ULONG>(m_inbox.size()), reinterpret_cast<LPVOID*>(lppEntryID));
    if (FAILED(hr)) return hr;
    std::memcpy(*lppEntryID, m_inbox.data(), m_inbox.size());
    *lpcbEntryID = static_cast<ULONG>(m_inbox.size());
    return S_OK;
  }

 private:
  std::vector<BYTE> m_key;
  ULONG m_connection = 0;
  std::vector<BYTE> m_inbox;
};

class TestLogon final : public IMSLogon {
 public:
  TestLogon(LPMDB store, std::string provider) : m_store(store), m_provider(std::move(provider)) { m_store->AddRef(); }
  STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
    if (!ppv) return E_INVALIDARG;
    if (riid == IID_IUnknown || riid == IID_IMSLogon) {
      *ppv = static_cast<IMSLogon*>(this);
      AddRef();
      return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++m_cRef; }
  STDMETHODIMP_(ULONG) Release() override {
    ULONG n = --m_cRef;
    if (n == 0) delete this;
    return n;
  }
  MAPIMETHOD(GetLastError)(HRESULT, ULONG, LPMAPIERROR* lppMAPIError) override {
    if (lppMAPIError) *lppMAPIError = nullptr;
    return S_OK;
  }
  MAPIMETHOD(Logoff)(ULONG*) override {
    Log("Logoff provider=" + m_provider);
    return S_OK;
  }
  MAPIMETHOD(OpenEntry)(ULONG cb, LPENTRYID eid, LPCIID iid, ULONG flags, ULONG* type, LPUNKNOWN* unk) override {
    return m_store->OpenEntry(cb, eid, iid, flags, type, unk);
  }
  MAPIMETHOD(CompareEntryIDs)(ULONG cb1, LPENTRYID e1, ULONG cb2, LPENTRYID e2, ULONG flags, ULONG* result) override {
    return m_store->CompareEntryIDs(cb1, e1, cb2, e2, flags, result);
  }
  MAPIMETHOD(Advise)(ULONG cb, LPENTRYID eid, ULONG mask, LPMAPIADVISESINK sink, ULONG* conn) override {
    return m_store->Advise(cb, eid, mask, sink, conn);
  }
  MAPIMETHOD(Unadvise)(ULONG conn) override { return m_store->Unadvise(conn); }
  MAPIMETHOD(OpenStatusEntry)(LPCIID, ULONG, ULONG*, LPVOID*) override { return MAPI_E_NO_SUPPORT; }

 private:
  ~TestLogon() { m_store->Release(); }
  std::atomic<ULONG> m_cRef{1};
  LPMDB m_store;
  std::string m_provider;
};

// The user name as the identity's mail user gives it.
std::string IdentityUser(const char* profile) {
  LPMAPISESSION session = nullptr;
  std::string user;
  if (std::getenv("ADTEST_STORE_ANY_PROFILE")) profile = nullptr;
  if (FAILED(MAPILogonEx(0, const_cast<LPTSTR>(profile), nullptr, MAPI_EXTENDED | MAPI_LOGON_UI, &session)))
    return user;
  ULONG cb = 0, type = 0;
  LPENTRYID eid = nullptr;
  LPUNKNOWN unk = nullptr;
  if (SUCCEEDED(session->QueryIdentity(&cb, &eid)) &&
      SUCCEEDED(session->OpenEntry(cb, eid, nullptr, 0, &type, &unk))) {
    LPSPropValue v = nullptr;
    if (SUCCEEDED(HrGetOneProp(static_cast<LPMAPIPROP>(unk), PR_EMAIL_ADDRESS_A, &v))) user = v->Value.lpszA;
    MAPIFreeBuffer(v);
    unk->Release();
  }
  MAPIFreeBuffer(eid);
  session->Release();
  return user;
}

HRESULT DoLogon(const char* what, LPMAPISUP sup, LPTSTR profile, ULONG cbEntryID, ULONG ulFlags, LPMSLOGON* lppMSLogon,
                LPMDB* lppMDB) {
  *lppMSLogon = nullptr;
  *lppMDB = nullptr;
  LPPROFSECT section = nullptr;
  HRESULT hr = sup->OpenProfileSection(nullptr, MAPI_MODIFY, &section);
  if (FAILED(hr)) return hr;
  SizedSPropTagArray(2, tags) = {2, {PR_PROVIDER_UID, PR_TEST_UID}};
  ULONG n = 0;
  LPSPropValue props = nullptr;
  section->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), 0, &n, &props);
  section->Release();
  std::string provider = props && props[0].ulPropTag == PR_PROVIDER_UID
                             ? Hex(props[0].Value.bin.lpb, props[0].Value.bin.cb)
                             : std::string("none");
  MAPIUID uid{};
  if (props && props[1].ulPropTag == PR_TEST_UID && props[1].Value.bin.cb == sizeof uid)
    std::memcpy(uid.ab, props[1].Value.bin.lpb, sizeof uid);
  else
    sup->NewUID(&uid);
  MAPIFreeBuffer(props);
  char line[512];
  std::snprintf(line, sizeof line, "%s profile=%s cb=%u flags=%X provider=%s user=%s", what,
                profile ? reinterpret_cast<const char*>(profile) : "", static_cast<unsigned>(cbEntryID),
                static_cast<unsigned>(ulFlags), provider.c_str(), IdentityUser(profile).c_str());
  Log(line);
  if (std::getenv("ADTEST_STORE_FAIL")) return MAPI_E_LOGON_FAILED;

  auto data = std::make_shared<teststore::StoreData>(uid);
  sup->AddRef();
  data->sup = sup;
  auto* store = new ProviderStore(data);
  if (const char* folders = std::getenv("ADTEST_STORE_DEFAULT_FOLDERS")) store->MakeDefaultFolders(folders);
  std::vector<BYTE> eid = data->EntryID(0);
  ULONG cbWrapped = 0;
  LPENTRYID wrapped = nullptr;
  hr = sup->WrapStoreEntryID(static_cast<ULONG>(eid.size()), reinterpret_cast<LPENTRYID>(eid.data()), &cbWrapped,
                             &wrapped);
  if (SUCCEEDED(hr)) {
    store->SetWrappedEntryID(std::vector<BYTE>(reinterpret_cast<BYTE*>(wrapped), reinterpret_cast<BYTE*>(wrapped) + cbWrapped));
    MAPIFreeBuffer(wrapped);
    hr = sup->SetProviderUID(&uid, 0);
  }
  if (SUCCEEDED(hr)) hr = store->SubscribeIpc(std::strcmp(what, "Logon") == 0 ? fnevExtended | fnevNewMail : fnevExtended);
  if (SUCCEEDED(hr)) {
    SPropValue row[5] = {};
    row[0].ulPropTag = PR_PROVIDER_DISPLAY_A;
    row[0].Value.lpszA = const_cast<LPSTR>("Test Store");
    row[1].ulPropTag = PR_RESOURCE_METHODS;
    row[2].ulPropTag = PR_STATUS_CODE;
    row[2].Value.l = STATUS_AVAILABLE;
    row[3].ulPropTag = PR_STATUS_STRING_A;
    row[3].Value.lpszA = const_cast<LPSTR>("Available");
    row[4].ulPropTag = PR_DISPLAY_NAME_A;
    row[4].Value.lpszA = const_cast<LPSTR>("Sample Mailbox");
    hr = sup->ModifyStatusRow(5, row, 0);
  }
  if (SUCCEEDED(hr)) sup->ModifyProfile(0);
  if (FAILED(hr)) {
    store->Release();
    return hr;
  }
  *lppMSLogon = new TestLogon(store, provider);
  *lppMDB = store;
  return S_OK;
}

class TestProvider final : public IMSProvider {
 public:
  STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
    if (!ppv) return E_INVALIDARG;
    if (riid == IID_IUnknown || riid == IID_IMSProvider) {
      *ppv = static_cast<IMSProvider*>(this);
      AddRef();
      return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++m_cRef; }
  STDMETHODIMP_(ULONG) Release() override {
    ULONG n = --m_cRef;
    if (n == 0) delete this;
    return n;
  }
  MAPIMETHOD(Shutdown)(ULONG*) override {
    Log("Shutdown");
    return S_OK;
  }
  MAPIMETHOD(Logon)(LPMAPISUP sup, ULONG_PTR, LPTSTR profile, ULONG cbEntryID, LPENTRYID, ULONG ulFlags, LPCIID,
                    ULONG* lpcbSpoolSecurity, LPBYTE* lppbSpoolSecurity, LPMAPIERROR* lppMAPIError,
                    LPMSLOGON* lppMSLogon, LPMDB* lppMDB) override {
    *lpcbSpoolSecurity = 0;
    *lppbSpoolSecurity = nullptr;
    *lppMAPIError = nullptr;
    return DoLogon("Logon", sup, profile, cbEntryID, ulFlags, lppMSLogon, lppMDB);
  }
  MAPIMETHOD(SpoolerLogon)(LPMAPISUP sup, ULONG_PTR, LPTSTR profile, ULONG cbEntryID, LPENTRYID, ULONG ulFlags, LPCIID,
                           ULONG, LPBYTE, LPMAPIERROR* lppMAPIError, LPMSLOGON* lppMSLogon, LPMDB* lppMDB) override {
    *lppMAPIError = nullptr;
    return DoLogon("SpoolerLogon", sup, profile, cbEntryID, ulFlags, lppMSLogon, lppMDB);
  }
  MAPIMETHOD(CompareStoreIDs)(ULONG cb1, LPENTRYID e1, ULONG cb2, LPENTRYID e2, ULONG, ULONG* lpulResult) override {
    *lpulResult = 0;
    if (cb1 != 24 || cb2 != 24) return MAPI_E_INVALID_ENTRYID;
    *lpulResult = e1 && e2 && std::memcmp(e1, e2, 24) == 0;
    return S_OK;
  }

 private:
  std::atomic<ULONG> m_cRef{1};
};

}  // namespace

extern "C" HRESULT STDMAPIINITCALLTYPE MSProviderInit(HINSTANCE, LPMALLOC, LPALLOCATEBUFFER, LPALLOCATEMORE,
                                                      LPFREEBUFFER, ULONG, ULONG ulMAPIVer, ULONG* lpulProviderVer,
                                                      LPMSPROVIDER* lppMSProvider) {
  char line[64];
  std::snprintf(line, sizeof line, "MSProviderInit mapiver=%X", static_cast<unsigned>(ulMAPIVer));
  Log(line);
  *lpulProviderVer = CURRENT_SPI_VERSION;
  if (ulMAPIVer < CURRENT_SPI_VERSION) return MAPI_E_VERSION;
  *lppMSProvider = new TestProvider();
  return S_OK;
}
