// MAPILogonEx and IMAPISession (behaviour in session.h).
#include "session.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <mutex>

#include "accounts.h"
#include "addrbook.h"
#include "adminutil.h"
#include "adplatform.h"
#include "loader.h"
#include "logonsupport.h"
#include "mapicode.h"
#include "mapiguid.h"
#include "mapiinit.h"
#include "mapispi.h"
#include "mapiutil.h"
#include "notify.h"
#include "profile.h"
#include "serviceadmin.h"
#include "statustable.h"

#ifndef MAPI_DEFAULT_STORE
#define MAPI_DEFAULT_STORE 1
#endif
#ifndef MDB_ONLINE
#define MDB_ONLINE ((ULONG)0x00000100)
#endif
#ifndef AB_NO_DIALOG
#define AB_NO_DIALOG ((ULONG)0x00000001)
#endif

namespace adm {
namespace {

constexpr BYTE kStoreWrapUid[16] = {0x38, 0xA1, 0xBB, 0x10, 0x05, 0xE5, 0x10, 0x1A,
                                    0xA1, 0xBB, 0x08, 0x00, 0x2B, 0x2A, 0x56, 0xC2};
constexpr size_t kWrapHeader = 4 + 16 + 2;

std::string Upper(std::string s) {
  for (char& c : s) c = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
  return s;
}

// ---- Process-wide settings ----------------------------------------------------------------------

std::atomic<bool> g_spooler{false};

struct ProgressState {
  std::mutex lock;  // leaf lock
  ProgressCallback callback;
};
ProgressState& Progress() {
  static ProgressState* state = new ProgressState;  // never destroyed: used from any thread
  return *state;
}

// ---- Provider objects ---------------------------------------------------------------------------

// One IMSProvider per provider library while stores of it are logged on in this process.
struct ProviderObject {
  LPMSPROVIDER provider = nullptr;
  ULONG users = 0;
};
struct ProviderRegistry {
  std::mutex lock;  // lock order: after the session's open lock; nothing is called under it
  std::map<std::string, ProviderObject> byDll;
};
ProviderRegistry& Providers() {
  static ProviderRegistry* registry = new ProviderRegistry;
  return *registry;
}

// The provider object for `dllName`, initialising the library's provider the first time.
HRESULT AcquireProvider(const std::string& dllName, LPMSPROVIDER* out, std::string* error) {
  ProviderRegistry& reg = Providers();
  {
    std::lock_guard<std::mutex> guard(reg.lock);  // lock order: provider registry (leaf here)
    auto it = reg.byDll.find(Upper(dllName));
    if (it != reg.byDll.end()) {
      ++it->second.users;
      *out = it->second.provider;
      return S_OK;
    }
  }
  const ProviderLibrary* lib = nullptr;
  HRESULT hr = LoadProviderLibrary(dllName, &lib);
  if (FAILED(hr)) {
    *error = "The store provider library " + dllName + " could not be loaded";
    return hr;
  }
  if (!lib->MSProviderInit) {
    *error = "The library " + dllName + " does not export MSProviderInit";
    return MAPI_E_NOT_FOUND;
  }
  ULONG providerVersion = 0;
  LPMSPROVIDER provider = nullptr;
  hr = lib->MSProviderInit(reinterpret_cast<HINSTANCE>(lib->hModule), nullptr, MAPIAllocateBuffer, MAPIAllocateMore,
                           MAPIFreeBuffer, 0, CURRENT_SPI_VERSION, &providerVersion, &provider);
  if (SUCCEEDED(hr) && (!provider || providerVersion < PDK1_SPI_VERSION)) {
    if (provider) provider->Release();
    hr = provider ? MAPI_E_VERSION : MAPI_E_CALL_FAILED;
  }
  if (FAILED(hr)) {
    *error = "MSProviderInit of " + dllName + " failed";
    return hr;
  }
  std::lock_guard<std::mutex> guard(Providers().lock);  // lock order: provider registry (leaf here)
  ProviderObject& slot = reg.byDll[Upper(dllName)];
  if (slot.provider) {  // another thread initialised it meanwhile: keep the first
    provider->Release();
  } else {
    slot.provider = provider;
  }
  ++slot.users;
  *out = slot.provider;
  return S_OK;
}

// One user less; the last one shuts the provider down.
void ReleaseProvider(const std::string& dllName) {
  LPMSPROVIDER last = nullptr;
  {
    ProviderRegistry& reg = Providers();
    std::lock_guard<std::mutex> guard(reg.lock);  // lock order: provider registry (leaf here)
    auto it = reg.byDll.find(Upper(dllName));
    if (it == reg.byDll.end()) return;
    if (--it->second.users == 0) {
      last = it->second.provider;
      reg.byDll.erase(it);
    }
  }
  if (last) {
    ULONG flags = 0;
    last->Shutdown(&flags);
    last->Release();
  }
}

LPMSPROVIDER PeekProvider(const std::string& dllName) {
  ProviderRegistry& reg = Providers();
  std::lock_guard<std::mutex> guard(reg.lock);  // lock order: provider registry (leaf here)
  auto it = reg.byDll.find(Upper(dllName));
  if (it == reg.byDll.end()) return nullptr;
  it->second.provider->AddRef();
  return it->second.provider;
}

// ---- Wrapped entry IDs --------------------------------------------------------------------------

std::vector<BYTE> Wrap(const std::string& dllName, const BYTE* original, ULONG cbOriginal) {
  size_t nameEnd = kWrapHeader + dllName.size() + 1;
  size_t start = (nameEnd + 3) / 4 * 4;
  std::vector<BYTE> out(start + cbOriginal, 0);
  std::memcpy(out.data() + 4, kStoreWrapUid, sizeof kStoreWrapUid);
  if (!dllName.empty()) std::memcpy(out.data() + kWrapHeader, dllName.data(), dllName.size());
  if (cbOriginal) std::memcpy(out.data() + start, original, cbOriginal);
  return out;
}

HRESULT ToMapiEntryID(const std::vector<BYTE>& bytes, ULONG* lpcb, LPENTRYID* lppEntryID) {
  void* buf = nullptr;
  if (MAPIAllocateBuffer(static_cast<ULONG>(bytes.size()), &buf) != S_OK) return MAPI_E_NOT_ENOUGH_MEMORY;
  std::memcpy(buf, bytes.data(), bytes.size());
  *lpcb = static_cast<ULONG>(bytes.size());
  *lppEntryID = static_cast<LPENTRYID>(buf);
  return S_OK;
}

// The entry ID a store provider has in the profile: what the store reported when it was last
// opened, else a placeholder made of the provider's UID.
std::vector<BYTE> ProfileStoreEntryID(Profile& profile, const ProviderInfo& info) {
  PropSet section;
  if (SUCCEEDED(profile.ReadSection(info.uid, &section))) {
    for (ULONG tag : {PR_STORE_ENTRYID, PR_ENTRYID}) {
      const SPropValue* v = section.Find(tag);
      if (v && IsWrappedStoreEntryID(v->Value.bin.cb, reinterpret_cast<const ENTRYID*>(v->Value.bin.lpb)))
        return std::vector<BYTE>(v->Value.bin.lpb, v->Value.bin.lpb + v->Value.bin.cb);
    }
  }
  BYTE placeholder[4 + sizeof(MAPIUID)] = {};
  std::memcpy(placeholder + 4, info.uid.ab, sizeof info.uid.ab);
  return Wrap(info.dllName, placeholder, sizeof placeholder);
}

std::vector<ProviderInfo> StoreProviders(const Profile& profile) {
  std::vector<ServiceInfo> services;
  std::vector<ProviderInfo> stores;
  if (FAILED(profile.GetServices(&services))) return stores;
  for (const auto& service : services) {
    for (const auto& p : service.providers) {
      if (p.resourceType == MAPI_STORE_PROVIDER) stores.push_back(p);
    }
  }
  return stores;
}

// Which store is the default: the first with STATUS_DEFAULT_STORE, else the first.
size_t DefaultStoreIndex(const std::vector<ProviderInfo>& stores) {
  for (size_t i = 0; i < stores.size(); ++i) {
    if (stores[i].resourceFlags & STATUS_DEFAULT_STORE) return i;
  }
  return 0;
}

std::string ProfileKey(const Profile& profile) {
  const std::string& folder = profile.Folder();
  size_t slash = folder.find_last_of('/');
  return slash == std::string::npos ? folder : folder.substr(slash + 1);
}

bool SameUid(const MAPIUID& a, const BYTE* b) { return std::memcmp(a.ab, b, sizeof a.ab) == 0; }

class CSession;

// Shared sessions: one per profile folder and process. Entries do not hold references.
struct SharedSessions {
  std::mutex lock;  // lock order: leaf
  std::map<std::string, CSession*> byProfile;
};
SharedSessions& Shared() {
  static SharedSessions* shared = new SharedSessions;
  return *shared;
}

// ---- The session --------------------------------------------------------------------------------

struct OpenStore {
  ProviderInfo info;
  LPMSLOGON logon = nullptr;  // may be null: a provider that handed back a store already open
  LPMDB store = nullptr;
  LPMAPISUP support = nullptr;
  std::shared_ptr<LogonState> state;
  std::vector<BYTE> entryId;  // wrapped, as the profile or the store gives it
};

struct AdviseEntry {
  LPMDB store = nullptr;  // the store's own Advise, else the engine
  ULONG connection = 0;
};

class CSession final : public IMAPISession {
 public:
  CSession(std::shared_ptr<Profile> profile, std::shared_ptr<StatusTable> status, bool shared)
      : m_profile(std::move(profile)),
        m_runtimeDir(ProfileRuntimeDirectory(*m_profile)),
        m_status(std::move(status)),
        m_shared(shared) {}

  const std::string& Key() const { return m_profile->Folder(); }
  bool TryAddRef() {
    ULONG n = m_cRef.load();
    while (n != 0) {
      if (m_cRef.compare_exchange_weak(n, n + 1)) return true;
    }
    return false;
  }
  HRESULT Init();

  STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
    if (!ppv) return MAPI_E_INVALID_PARAMETER;
    if (riid == IID_IUnknown || riid == IID_IMAPISession) {
      *ppv = static_cast<IMAPISession*>(this);
      AddRef();
      return S_OK;
    }
    *ppv = nullptr;
    return MAPI_E_INTERFACE_NOT_SUPPORTED;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++m_cRef; }
  STDMETHODIMP_(ULONG) Release() override {
    ULONG n = --m_cRef;
    if (n == 0) {
      Forget();
      EndSession(0);
      delete this;
    }
    return n;
  }

  MAPIMETHOD(GetLastError)(HRESULT hResult, ULONG ulFlags, LPMAPIERROR* lppMAPIError) override {
    std::string text;
    {
      std::lock_guard<std::mutex> guard(m_lock);  // lock order: session data lock (leaf)
      text = hResult == S_OK ? "No error" : m_lastText.empty() ? "The session call failed" : m_lastText;
    }
    return BuildMapiError(ulFlags, text, "MAPI session", lppMAPIError);
  }
  MAPIMETHOD(GetMsgStoresTable)(ULONG ulFlags, LPMAPITABLE* lppTable) override;
  MAPIMETHOD(OpenMsgStore)(ULONG_PTR ulUIParam, ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface,
                           ULONG ulFlags, LPMDB* lppMDB) override;
  MAPIMETHOD(OpenAddressBook)(ULONG_PTR, LPCIID lpInterface, ULONG ulFlags, LPADRBOOK* lppAdrBook) override;
  MAPIMETHOD(OpenProfileSection)(LPMAPIUID lpUID, LPCIID lpInterface, ULONG ulFlags, LPPROFSECT* lppProfSect) override;
  MAPIMETHOD(GetStatusTable)(ULONG ulFlags, LPMAPITABLE* lppTable) override {
    if (!lppTable) return MAPI_E_INVALID_PARAMETER;
    *lppTable = nullptr;
    if (HRESULT hr = CheckLive(); FAILED(hr)) return hr;
    return Fail(m_status->GetView(ulFlags, lppTable), "The status table could not be opened");
  }
  MAPIMETHOD(OpenEntry)(ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, ULONG ulFlags, ULONG* lpulObjType,
                        LPUNKNOWN* lppUnk) override;
  MAPIMETHOD(CompareEntryIDs)(ULONG cbEntryID1, LPENTRYID lpEntryID1, ULONG cbEntryID2, LPENTRYID lpEntryID2,
                              ULONG ulFlags, ULONG* lpulResult) override;
  MAPIMETHOD(Advise)(ULONG cbEntryID, LPENTRYID lpEntryID, ULONG ulEventMask, LPMAPIADVISESINK lpAdviseSink,
                     ULONG* lpulConnection) override;
  MAPIMETHOD(Unadvise)(ULONG ulConnection) override;
  MAPIMETHOD(MessageOptions)(ULONG_PTR, ULONG, LPTSTR, LPMESSAGE) override {
    return Fail(MAPI_E_NO_SUPPORT, "No transport provider offers message options");
  }
  MAPIMETHOD(QueryDefaultMessageOpt)(LPTSTR, ULONG, ULONG* lpcValues, LPSPropValue* lppOptions) override {
    if (lpcValues) *lpcValues = 0;
    if (lppOptions) *lppOptions = nullptr;
    return Fail(MAPI_E_NO_SUPPORT, "No transport provider offers message options");
  }
  MAPIMETHOD(EnumAdrTypes)(ULONG ulFlags, ULONG* lpcAdrTypes, LPTSTR** lpppszAdrTypes) override;
  MAPIMETHOD(QueryIdentity)(ULONG* lpcbEntryID, LPENTRYID* lppEntryID) override;
  MAPIMETHOD(Logoff)(ULONG_PTR, ULONG ulFlags, ULONG) override {
    if (ulFlags & ~(MAPI_LOGOFF_SHARED | MAPI_LOGOFF_UI)) return MAPI_E_UNKNOWN_FLAGS;
    Forget();
    EndSession(ulFlags);
    return S_OK;
  }
  MAPIMETHOD(SetDefaultStore)(ULONG ulFlags, ULONG cbEntryID, LPENTRYID lpEntryID) override;
  MAPIMETHOD(AdminServices)(ULONG ulFlags, LPSERVICEADMIN* lppServiceAdmin) override {
    if (!lppServiceAdmin) return MAPI_E_INVALID_PARAMETER;
    *lppServiceAdmin = nullptr;
    if (ulFlags & ~MAPI_UNICODE) return MAPI_E_UNKNOWN_FLAGS;
    if (HRESULT hr = CheckLive(); FAILED(hr)) return hr;
    return CreateMsgServiceAdmin(m_profile, lppServiceAdmin);
  }
  MAPIMETHOD(ShowForm)(ULONG_PTR, LPMDB, LPMAPIFOLDER, LPCIID, ULONG, LPMESSAGE, ULONG, ULONG, ULONG, ULONG,
                       LPSTR) override {
    return Fail(MAPI_E_NO_SUPPORT, "There are no forms");
  }
  MAPIMETHOD(PrepareForm)(LPCIID, LPMESSAGE, ULONG* lpulMessageToken) override {
    if (lpulMessageToken) *lpulMessageToken = 0;
    return Fail(MAPI_E_NO_SUPPORT, "There are no forms");
  }

 private:
  ~CSession() = default;

  HRESULT Fail(HRESULT hr, const std::string& text) {
    if (FAILED(hr)) {
      std::lock_guard<std::mutex> guard(m_lock);  // lock order: session data lock (leaf)
      m_lastText = text;
    }
    return hr;
  }
  HRESULT CheckLive() {
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: session data lock (leaf)
    if (!m_ended) return S_OK;
    m_lastText = "The session has been logged off";
    return MAPI_E_END_OF_SESSION;
  }
  void Forget();
  void EndSession(ULONG ulFlags);
  HRESULT FindStoreProvider(const std::vector<BYTE>& wrapped, const std::string& dllName, ProviderInfo* out);
  HRESULT LogonStore(const ProviderInfo& info, const std::vector<BYTE>& wrapped, const std::vector<BYTE>& original,
                     ULONG_PTR ulUIParam, LPCIID lpInterface, ULONG ulFlags, LPMDB* lppMDB);
  void RememberStoreEntryID(OpenStore& open, bool temporary);
  LPMDB StoreForEntryID(ULONG cb, const ENTRYID* lpEntryID);  // AddRef'd, or null

  std::atomic<ULONG> m_cRef{1};
  const std::shared_ptr<Profile> m_profile;
  const std::string m_runtimeDir;
  const std::shared_ptr<StatusTable> m_status;
  const bool m_shared;

  // Lock order: m_openLock (serialises logons and logoff; calls into providers happen under it,
  // and a provider may re-enter the session on the same thread), then m_lock (data; nothing is
  // called out under it), then the provider registry.
  std::recursive_mutex m_openLock;
  std::mutex m_lock;
  std::vector<OpenStore> m_stores;
  std::map<ULONG, AdviseEntry> m_advises;
  ULONG m_nextAdvise = 1;
  std::string m_lastText;
  bool m_ended = false;
};

HRESULT CSession::Init() {
  ProfileIdentity identity;
  GetProfileIdentity(m_profile->Name().c_str(), &identity);
  std::vector<SPropValue> row;
  SPropValue v{};
  v.ulPropTag = PR_RESOURCE_METHODS;
  v.Value.l = 0;
  row.push_back(v);
  v.ulPropTag = PR_STATUS_CODE;
  v.Value.l = STATUS_AVAILABLE;
  row.push_back(v);
  v.ulPropTag = PR_STATUS_STRING_A;
  v.Value.lpszA = const_cast<LPSTR>("Available");
  row.push_back(v);
  ULONG cbId = 0;
  LPENTRYID id = nullptr;
  MapiPtr<ENTRYID> idHolder;
  if (!identity.user.empty() || !identity.smtp.empty() || !identity.display.empty()) {
    if (SUCCEEDED(CreateIdentityEntryID(identity, &cbId, &id))) {
      idHolder.reset(id);
      v.ulPropTag = PR_IDENTITY_ENTRYID;
      v.Value.bin.cb = cbId;
      v.Value.bin.lpb = reinterpret_cast<LPBYTE>(id);
      row.push_back(v);
    }
    v.ulPropTag = PR_IDENTITY_DISPLAY_A;
    v.Value.lpszA = const_cast<LPSTR>(identity.display.c_str());
    row.push_back(v);
  }
  StatusRowOwner owner;
  owner.uid = GlobalSectionUid();
  owner.displayName = "MAPI Subsystem";
  owner.resourceType = MAPI_SUBSYSTEM;
  owner.resourceFlags = STATUS_PRIMARY_IDENTITY;
  HRESULT hr = m_status->ModifyRow(owner, static_cast<ULONG>(row.size()), row.data(), 0);
  if (SUCCEEDED(hr) && IsSpoolerProcess()) {
    StatusRowOwner spooler;
    spooler.uid = GlobalSectionUid();
    spooler.uid.ab[15] ^= 0x5A;  // a key of its own beside the subsystem's
    spooler.displayName = "MAPI Spooler";
    spooler.resourceType = MAPI_SPOOLER;
    hr = m_status->ModifyRow(spooler, 3, row.data(), 0);
  }
  return hr;
}

void CSession::Forget() {
  if (!m_shared) return;
  SharedSessions& shared = Shared();
  std::lock_guard<std::mutex> guard(shared.lock);  // lock order: shared-session registry (leaf)
  auto it = shared.byProfile.find(Key());
  if (it != shared.byProfile.end() && it->second == this) shared.byProfile.erase(it);
}

void CSession::EndSession(ULONG) {
  std::lock_guard<std::recursive_mutex> open(m_openLock);  // lock order: open lock first
  std::vector<OpenStore> stores;
  std::map<ULONG, AdviseEntry> advises;
  {
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: open lock, then data lock
    if (m_ended) return;
    m_ended = true;
    stores.swap(m_stores);
    advises.swap(m_advises);
  }
  for (auto& [id, entry] : advises) {
    if (entry.store) {
      entry.store->Unadvise(entry.connection);
      entry.store->Release();
    } else {
      CNotifyEngine::ForDirectory(m_runtimeDir).Unsubscribe(entry.connection);
    }
  }
  for (auto& s : stores) {
    ULONG flags = LOGOFF_ORDERLY;
    if (s.logon) s.logon->Logoff(&flags);
  }
  for (auto& s : stores) {
    {
      std::lock_guard<std::mutex> guard(s.state->lock);  // lock order: logon state (leaf)
      s.state->store = nullptr;
    }
    if (s.logon) s.logon->Release();
    s.store->Release();
    s.support->Release();
    m_status->RemoveRow(s.info.uid);
    ReleaseProvider(s.info.dllName);
  }
}

HRESULT CSession::GetMsgStoresTable(ULONG ulFlags, LPMAPITABLE* lppTable) {
  if (!lppTable) return MAPI_E_INVALID_PARAMETER;
  *lppTable = nullptr;
  if (ulFlags & ~MAPI_UNICODE) return MAPI_E_UNKNOWN_FLAGS;
  if (HRESULT hr = CheckLive(); FAILED(hr)) return hr;
  const bool unicode = (ulFlags & MAPI_UNICODE) != 0;
  std::vector<ProviderInfo> stores = StoreProviders(*m_profile);
  size_t defaultIndex = DefaultStoreIndex(stores);
  std::vector<RowBuilder> rows;
  for (size_t i = 0; i < stores.size(); ++i) {
    const ProviderInfo& p = stores[i];
    PropSet section;
    m_profile->ReadSection(p.uid, &section);
    RowBuilder row(unicode);
    std::vector<BYTE> eid = ProfileStoreEntryID(*m_profile, p);
    row.Binary(PR_ENTRYID, eid.data(), static_cast<ULONG>(eid.size()));
    const SPropValue* recordKey = section.Find(PR_STORE_RECORD_KEY);
    if (recordKey && recordKey->Value.bin.cb)
      row.Binary(PR_RECORD_KEY, recordKey->Value.bin.lpb, recordKey->Value.bin.cb);
    else
      row.Binary(PR_RECORD_KEY, p.uid.ab, sizeof p.uid.ab);
    row.Binary(PR_INSTANCE_KEY, p.uid.ab, sizeof p.uid.ab);
    std::string display = PropText(section.Find(PROP_TAG(PT_UNSPECIFIED, PROP_ID(PR_DISPLAY_NAME))));
    row.Text(PR_DISPLAY_NAME_A, display.empty() ? p.displayName : display);
    row.Text(PR_PROVIDER_DISPLAY_A, p.displayName);
    const SPropValue* mdb = section.Find(PR_MDB_PROVIDER);
    if (mdb && mdb->Value.bin.cb == sizeof(MAPIUID))
      row.Binary(PR_MDB_PROVIDER, mdb->Value.bin.lpb, mdb->Value.bin.cb);
    else
      row.Binary(PR_MDB_PROVIDER, p.uid.ab, sizeof p.uid.ab);
    ULONG flags = p.resourceFlags & ~STATUS_DEFAULT_STORE;
    if (i == defaultIndex) flags |= STATUS_DEFAULT_STORE;
    row.Long(PR_RESOURCE_FLAGS, flags);
    row.Bool(PR_DEFAULT_STORE, i == defaultIndex);
    row.Long(PR_OBJECT_TYPE, MAPI_STORE);
    row.Long(PR_RESOURCE_TYPE, MAPI_STORE_PROVIDER);
    row.Binary(PR_PROVIDER_UID, p.uid.ab, sizeof p.uid.ab);
    row.Binary(PR_SERVICE_UID, p.serviceUid.ab, sizeof p.serviceUid.ab);
    rows.push_back(std::move(row));
  }
  std::vector<ULONG> columns = TableColumns({PR_ENTRYID, PR_RECORD_KEY, PR_INSTANCE_KEY, PR_DISPLAY_NAME_A,
                                             PR_PROVIDER_DISPLAY_A, PR_MDB_PROVIDER, PR_RESOURCE_FLAGS,
                                             PR_DEFAULT_STORE, PR_OBJECT_TYPE, PR_RESOURCE_TYPE},
                                            unicode);
  return Fail(BuildTable(columns, rows, lppTable), "The message store table could not be built");
}

HRESULT CSession::FindStoreProvider(const std::vector<BYTE>& wrapped, const std::string& dllName, ProviderInfo* out) {
  std::vector<ProviderInfo> stores = StoreProviders(*m_profile);
  for (const auto& p : stores) {
    if (ProfileStoreEntryID(*m_profile, p) == wrapped) {
      *out = p;
      return S_OK;
    }
  }
  {
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: open lock, then data lock
    for (const auto& s : m_stores) {
      if (s.entryId == wrapped) {
        *out = s.info;
        return S_OK;
      }
    }
  }
  const ProviderInfo* only = nullptr;
  for (const auto& p : stores) {
    if (Upper(p.dllName) != Upper(dllName)) continue;
    if (only) return MAPI_E_NOT_FOUND;  // two stores of one library: the ID must match exactly
    only = &p;
  }
  if (!only) return MAPI_E_NOT_FOUND;
  *out = *only;
  return S_OK;
}

HRESULT CSession::OpenMsgStore(ULONG_PTR ulUIParam, ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface,
                               ULONG ulFlags, LPMDB* lppMDB) {
  if (!lppMDB) return MAPI_E_INVALID_PARAMETER;
  *lppMDB = nullptr;
  constexpr ULONG kKnown = MDB_NO_DIALOG | MDB_WRITE | MDB_TEMPORARY | MDB_NO_MAIL | MDB_ONLINE |
                           MAPI_DEFERRED_ERRORS | MAPI_BEST_ACCESS;
  if (ulFlags & ~kKnown) return Fail(MAPI_E_UNKNOWN_FLAGS, "OpenMsgStore: unknown flags");
  if (HRESULT hr = CheckLive(); FAILED(hr)) return hr;
  std::string dllName;
  std::vector<BYTE> original;
  if (!lpEntryID || FAILED(UnwrapStoreEntryID(cbEntryID, lpEntryID, &dllName, &original)))
    return Fail(MAPI_E_INVALID_ENTRYID, "OpenMsgStore: the entry ID is not a message store's");
  std::vector<BYTE> wrapped(reinterpret_cast<const BYTE*>(lpEntryID),
                            reinterpret_cast<const BYTE*>(lpEntryID) + cbEntryID);
  std::lock_guard<std::recursive_mutex> open(m_openLock);  // lock order: open lock first
  ProviderInfo info;
  if (FAILED(FindStoreProvider(wrapped, dllName, &info)))
    return Fail(MAPI_E_NOT_FOUND, "OpenMsgStore: no store of this profile has that entry ID");
  LPMDB existing = nullptr;
  {
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: open lock, then data lock
    for (const auto& s : m_stores) {
      if (std::memcmp(&s.info.uid, &info.uid, sizeof info.uid) == 0) {
        existing = s.store;
        existing->AddRef();
        break;
      }
    }
  }
  if (!existing) return LogonStore(info, wrapped, original, ulUIParam, lpInterface, ulFlags, lppMDB);
  HRESULT hr = S_OK;
  if (lpInterface && *lpInterface != IID_IMsgStore && *lpInterface != IID_IUnknown) {
    hr = existing->QueryInterface(*lpInterface, reinterpret_cast<void**>(lppMDB));
    existing->Release();
  } else {
    *lppMDB = existing;
  }
  return Fail(hr, "OpenMsgStore: the store does not offer that interface");
}

HRESULT CSession::LogonStore(const ProviderInfo& info, const std::vector<BYTE>& wrapped,
                             const std::vector<BYTE>& original, ULONG_PTR ulUIParam, LPCIID lpInterface,
                             ULONG ulFlags, LPMDB* lppMDB) {
  std::string error;
  LPMSPROVIDER provider = nullptr;
  HRESULT hr = AcquireProvider(info.dllName, &provider, &error);
  if (FAILED(hr)) return Fail(hr, error);
  OpenStore open;
  open.info = info;
  open.state = std::make_shared<LogonState>();
  open.entryId = wrapped;
  LogonContext context{m_profile, info, m_runtimeDir, m_status, open.state};
  hr = CreateLogonSupport(context, &open.support);
  if (FAILED(hr)) {
    ReleaseProvider(info.dllName);
    return Fail(hr, "OpenMsgStore: no support object");
  }
  std::vector<BYTE> eid = original;
  std::string profileName = m_profile->Name();
  LPMAPIERROR mapiError = nullptr;
  const ULONG providerFlags = ulFlags & ~MDB_ONLINE;
  if (IsSpoolerProcess()) {
    hr = provider->SpoolerLogon(open.support, ulUIParam, const_cast<LPTSTR>(profileName.c_str()),
                                static_cast<ULONG>(eid.size()), reinterpret_cast<LPENTRYID>(eid.data()),
                                providerFlags, lpInterface, 0, nullptr, &mapiError, &open.logon, &open.store);
  } else {
    ULONG cbSecurity = 0;
    LPBYTE security = nullptr;
    hr = provider->Logon(open.support, ulUIParam, const_cast<LPTSTR>(profileName.c_str()),
                         static_cast<ULONG>(eid.size()), reinterpret_cast<LPENTRYID>(eid.data()), providerFlags,
                         lpInterface, &cbSecurity, &security, &mapiError, &open.logon, &open.store);
    MAPIFreeBuffer(security);
  }
  std::string providerText;
  if (mapiError) {
    if (mapiError->lpszError) providerText = reinterpret_cast<const char*>(mapiError->lpszError);
    MAPIFreeBuffer(mapiError);
  }
  if (SUCCEEDED(hr) && !open.store) hr = MAPI_E_CALL_FAILED;
  if (FAILED(hr)) {
    if (open.logon) open.logon->Release();
    if (open.store) open.store->Release();
    open.support->Release();
    ReleaseProvider(info.dllName);
    return Fail(hr, providerText.empty() ? "The store provider refused the logon" : providerText);
  }
  {
    std::lock_guard<std::mutex> guard(open.state->lock);  // lock order: logon state (leaf)
    open.state->store = open.store;
  }
  RememberStoreEntryID(open, (ulFlags & MDB_TEMPORARY) != 0);
  LPMDB result = open.store;
  result->AddRef();
  {
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: open lock, then data lock
    m_stores.push_back(std::move(open));
  }
  if (lpInterface && *lpInterface != IID_IMsgStore && *lpInterface != IID_IUnknown) {
    hr = result->QueryInterface(*lpInterface, reinterpret_cast<void**>(lppMDB));
    result->Release();
    return Fail(hr, "OpenMsgStore: the store does not offer that interface");
  }
  *lppMDB = result;
  return S_OK;
}

// The store's own entry ID routes later OpenMsgStore calls; a permanent store keeps it in the profile.
void CSession::RememberStoreEntryID(OpenStore& open, bool temporary) {
  LPSPropValue value = nullptr;
  if (FAILED(HrGetOneProp(open.store, PR_STORE_ENTRYID, &value)) &&
      FAILED(HrGetOneProp(open.store, PR_ENTRYID, &value)))
    return;
  MapiPtr<SPropValue> holder(value);
  if (!IsWrappedStoreEntryID(value->Value.bin.cb, reinterpret_cast<const ENTRYID*>(value->Value.bin.lpb))) return;
  std::vector<BYTE> eid(value->Value.bin.lpb, value->Value.bin.lpb + value->Value.bin.cb);
  if (temporary || eid == open.entryId) {
    open.entryId = eid;
    return;
  }
  open.entryId = eid;
  SPropValue prop = BinaryProp(PR_STORE_ENTRYID, eid.data(), static_cast<ULONG>(eid.size()));
  m_profile->UpdateSection(open.info.uid, false, [&prop](PropSet& set) { return set.Set(prop); });
}

LPMDB CSession::StoreForEntryID(ULONG cb, const ENTRYID* lpEntryID) {
  if (cb < 4 + sizeof(MAPIUID)) return nullptr;
  const BYTE* uid = reinterpret_cast<const BYTE*>(lpEntryID) + 4;
  std::lock_guard<std::mutex> guard(m_lock);  // lock order: data lock (leaf)
  for (const auto& s : m_stores) {
    std::lock_guard<std::mutex> state(s.state->lock);  // lock order: data lock, then logon state
    for (const auto& u : s.state->providerUids) {
      if (SameUid(u, uid)) {
        s.store->AddRef();
        return s.store;
      }
    }
  }
  return nullptr;
}

HRESULT CSession::OpenAddressBook(ULONG_PTR, LPCIID lpInterface, ULONG ulFlags, LPADRBOOK* lppAdrBook) {
  if (!lppAdrBook) return MAPI_E_INVALID_PARAMETER;
  *lppAdrBook = nullptr;
  if (ulFlags & ~(AB_NO_DIALOG | MAPI_DEFERRED_ERRORS)) return MAPI_E_UNKNOWN_FLAGS;
  if (lpInterface && *lpInterface != IID_IAddrBook && *lpInterface != IID_IMAPIProp && *lpInterface != IID_IUnknown)
    return MAPI_E_INTERFACE_NOT_SUPPORTED;
  if (HRESULT hr = CheckLive(); FAILED(hr)) return hr;
  return Fail(CreateAddressBook(m_profile, lppAdrBook), "The address book could not be opened");
}

HRESULT CSession::OpenProfileSection(LPMAPIUID lpUID, LPCIID lpInterface, ULONG ulFlags, LPPROFSECT* lppProfSect) {
  if (!lppProfSect) return MAPI_E_INVALID_PARAMETER;
  *lppProfSect = nullptr;
  if (!lpUID) return MAPI_E_INVALID_PARAMETER;
  if (lpInterface && *lpInterface != IID_IProfSect && *lpInterface != IID_IMAPIProp && *lpInterface != IID_IUnknown)
    return MAPI_E_INTERFACE_NOT_SUPPORTED;
  if (HRESULT hr = CheckLive(); FAILED(hr)) return hr;
  return Fail(m_profile->OpenSection(lpUID, ulFlags, lppProfSect), "The profile section could not be opened");
}

HRESULT CSession::OpenEntry(ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, ULONG ulFlags,
                            ULONG* lpulObjType, LPUNKNOWN* lppUnk) {
  if (!lpulObjType || !lppUnk) return MAPI_E_INVALID_PARAMETER;
  *lpulObjType = 0;
  *lppUnk = nullptr;
  if (HRESULT hr = CheckLive(); FAILED(hr)) return hr;
  if (!lpEntryID || cbEntryID < 4 + sizeof(MAPIUID)) return Fail(MAPI_E_INVALID_ENTRYID, "OpenEntry: no entry ID");
  if (IsIdentityEntryID(cbEntryID, lpEntryID)) {
    if (lpInterface && *lpInterface != IID_IMailUser && *lpInterface != IID_IMAPIProp && *lpInterface != IID_IUnknown)
      return Fail(MAPI_E_INTERFACE_NOT_SUPPORTED, "OpenEntry: a mail user has no such interface");
    ProfileIdentity identity;
    HRESULT hr = ParseIdentityEntryID(cbEntryID, lpEntryID, &identity);
    LPMAILUSER user = nullptr;
    if (SUCCEEDED(hr)) hr = CreateMailUser(identity, &user);
    if (FAILED(hr)) return Fail(hr, "OpenEntry: the identity could not be opened");
    *lpulObjType = MAPI_MAILUSER;
    *lppUnk = user;
    return S_OK;
  }
  if (IsWrappedStoreEntryID(cbEntryID, lpEntryID)) {
    LPMDB store = nullptr;
    HRESULT hr = OpenMsgStore(0, cbEntryID, lpEntryID, lpInterface, MDB_NO_DIALOG | (ulFlags & MAPI_BEST_ACCESS),
                              &store);
    if (FAILED(hr)) return hr;
    *lpulObjType = MAPI_STORE;
    *lppUnk = store;
    return S_OK;
  }
  LPMDB store = StoreForEntryID(cbEntryID, lpEntryID);
  if (!store) return Fail(MAPI_E_UNKNOWN_ENTRYID, "OpenEntry: no open store knows that entry ID");
  HRESULT hr = store->OpenEntry(cbEntryID, lpEntryID, lpInterface, ulFlags, lpulObjType, lppUnk);
  store->Release();
  return Fail(hr, "OpenEntry: the store could not open the entry");
}

HRESULT CSession::CompareEntryIDs(ULONG cb1, LPENTRYID lpEntryID1, ULONG cb2, LPENTRYID lpEntryID2, ULONG ulFlags,
                                  ULONG* lpulResult) {
  if (!lpulResult) return MAPI_E_INVALID_PARAMETER;
  *lpulResult = FALSE;
  if (!lpEntryID1 || !lpEntryID2 || cb1 < 4 + sizeof(MAPIUID) || cb2 < 4 + sizeof(MAPIUID))
    return Fail(MAPI_E_INVALID_ENTRYID, "CompareEntryIDs: an entry ID is missing or short");
  if (IsIdentityEntryID(cb1, lpEntryID1) || IsIdentityEntryID(cb2, lpEntryID2)) {
    ProfileIdentity a, b;
    if (FAILED(ParseIdentityEntryID(cb1, lpEntryID1, &a)) || FAILED(ParseIdentityEntryID(cb2, lpEntryID2, &b))) {
      return S_OK;  // one identity, one other kind: different entries
    }
    *lpulResult = Upper(a.user) == Upper(b.user) && Upper(a.smtp) == Upper(b.smtp);
    return S_OK;
  }
  std::string dll1, dll2;
  std::vector<BYTE> orig1, orig2;
  bool w1 = SUCCEEDED(UnwrapStoreEntryID(cb1, lpEntryID1, &dll1, &orig1));
  bool w2 = SUCCEEDED(UnwrapStoreEntryID(cb2, lpEntryID2, &dll2, &orig2));
  if (w1 || w2) {
    if (!(w1 && w2) || Upper(dll1) != Upper(dll2)) return S_OK;
    if (LPMSPROVIDER provider = PeekProvider(dll1)) {
      HRESULT hr = provider->CompareStoreIDs(static_cast<ULONG>(orig1.size()), reinterpret_cast<LPENTRYID>(orig1.data()),
                                             static_cast<ULONG>(orig2.size()), reinterpret_cast<LPENTRYID>(orig2.data()),
                                             ulFlags, lpulResult);
      provider->Release();
      return Fail(hr, "CompareEntryIDs: the store provider could not compare");
    }
    *lpulResult = orig1 == orig2;
    return S_OK;
  }
  LPMDB store = StoreForEntryID(cb1, lpEntryID1);
  if (!store) {
    if (std::memcmp(reinterpret_cast<BYTE*>(lpEntryID1) + 4, reinterpret_cast<BYTE*>(lpEntryID2) + 4, 16) != 0)
      return S_OK;
    *lpulResult = cb1 == cb2 && std::memcmp(lpEntryID1, lpEntryID2, cb1) == 0;
    return S_OK;
  }
  HRESULT hr = store->CompareEntryIDs(cb1, lpEntryID1, cb2, lpEntryID2, ulFlags, lpulResult);
  store->Release();
  return Fail(hr, "CompareEntryIDs: the store could not compare");
}

HRESULT CSession::Advise(ULONG cbEntryID, LPENTRYID lpEntryID, ULONG ulEventMask, LPMAPIADVISESINK lpAdviseSink,
                         ULONG* lpulConnection) {
  if (!lpAdviseSink || !lpulConnection || !ulEventMask) return MAPI_E_INVALID_PARAMETER;
  *lpulConnection = 0;
  if (HRESULT hr = CheckLive(); FAILED(hr)) return hr;
  AdviseEntry entry;
  HRESULT hr;
  entry.store = lpEntryID ? StoreForEntryID(cbEntryID, lpEntryID) : nullptr;
  if (entry.store) {
    hr = entry.store->Advise(cbEntryID, lpEntryID, ulEventMask, lpAdviseSink, &entry.connection);
    if (FAILED(hr)) {
      entry.store->Release();
      return Fail(hr, "Advise: the store refused the subscription");
    }
  } else {
    // The key is the entry ID itself; no entry ID means the session's own events.
    static const char kSessionKey[] = "MAPI session";
    std::vector<BYTE> keyBytes = lpEntryID ? std::vector<BYTE>(reinterpret_cast<BYTE*>(lpEntryID),
                                                               reinterpret_cast<BYTE*>(lpEntryID) + cbEntryID)
                                           : std::vector<BYTE>(kSessionKey, kSessionKey + sizeof kSessionKey);
    std::vector<BYTE> keyBuf(offsetof(NOTIFKEY, ab) + keyBytes.size());
    auto* key = reinterpret_cast<LPNOTIFKEY>(keyBuf.data());
    key->cb = static_cast<ULONG>(keyBytes.size());
    std::memcpy(key->ab, keyBytes.data(), keyBytes.size());
    hr = CNotifyEngine::ForDirectory(m_runtimeDir).Subscribe(key, ulEventMask, 0, lpAdviseSink, &entry.connection);
    if (FAILED(hr)) return Fail(hr, "Advise: the subscription failed");
  }
  std::lock_guard<std::mutex> guard(m_lock);  // lock order: data lock (leaf)
  *lpulConnection = m_nextAdvise++;
  m_advises[*lpulConnection] = entry;
  return S_OK;
}

HRESULT CSession::Unadvise(ULONG ulConnection) {
  AdviseEntry entry;
  {
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: data lock (leaf)
    auto it = m_advises.find(ulConnection);
    if (it == m_advises.end()) {
      m_lastText = "Unadvise: no such connection";
      return MAPI_E_NOT_FOUND;
    }
    entry = it->second;
    m_advises.erase(it);
  }
  if (!entry.store) return CNotifyEngine::ForDirectory(m_runtimeDir).Unsubscribe(entry.connection);
  HRESULT hr = entry.store->Unadvise(entry.connection);
  entry.store->Release();
  return hr;
}

HRESULT CSession::EnumAdrTypes(ULONG ulFlags, ULONG* lpcAdrTypes, LPTSTR** lpppszAdrTypes) {
  if (!lpcAdrTypes || !lpppszAdrTypes) return MAPI_E_INVALID_PARAMETER;
  *lpcAdrTypes = 0;
  *lpppszAdrTypes = nullptr;
  if (ulFlags & ~MAPI_UNICODE) return MAPI_E_UNKNOWN_FLAGS;
  // No transport provider is logged on, so no address type is handled: an empty list.
  void* list = nullptr;
  if (MAPIAllocateBuffer(sizeof(LPTSTR), &list) != S_OK) return MAPI_E_NOT_ENOUGH_MEMORY;
  std::memset(list, 0, sizeof(LPTSTR));
  *lpppszAdrTypes = static_cast<LPTSTR*>(list);
  return S_OK;
}

HRESULT CSession::QueryIdentity(ULONG* lpcbEntryID, LPENTRYID* lppEntryID) {
  if (!lpcbEntryID || !lppEntryID) return MAPI_E_INVALID_PARAMETER;
  *lpcbEntryID = 0;
  *lppEntryID = nullptr;
  if (HRESULT hr = CheckLive(); FAILED(hr)) return hr;
  ProfileIdentity identity;
  HRESULT hr = GetProfileIdentity(m_profile->Name().c_str(), &identity);
  if (SUCCEEDED(hr) && identity.user.empty() && identity.display.empty() && identity.smtp.empty())
    hr = MAPI_E_NOT_FOUND;
  if (SUCCEEDED(hr)) hr = CreateIdentityEntryID(identity, lpcbEntryID, lppEntryID);
  return Fail(hr, "QueryIdentity: the profile names no user");
}

HRESULT CSession::SetDefaultStore(ULONG ulFlags, ULONG cbEntryID, LPENTRYID lpEntryID) {
  if (ulFlags != MAPI_DEFAULT_STORE) return Fail(MAPI_E_NO_SUPPORT, "SetDefaultStore: only MAPI_DEFAULT_STORE");
  if (HRESULT hr = CheckLive(); FAILED(hr)) return hr;
  std::string dllName;
  std::vector<BYTE> original;
  if (!lpEntryID || FAILED(UnwrapStoreEntryID(cbEntryID, lpEntryID, &dllName, &original)))
    return Fail(MAPI_E_INVALID_ENTRYID, "SetDefaultStore: the entry ID is not a message store's");
  std::vector<BYTE> wrapped(reinterpret_cast<BYTE*>(lpEntryID), reinterpret_cast<BYTE*>(lpEntryID) + cbEntryID);
  ProviderInfo chosen;
  {
    std::lock_guard<std::recursive_mutex> open(m_openLock);  // lock order: open lock first
    if (FAILED(FindStoreProvider(wrapped, dllName, &chosen)))
      return Fail(MAPI_E_NOT_FOUND, "SetDefaultStore: no such store in the profile");
  }
  for (const auto& p : StoreProviders(*m_profile)) {
    bool isDefault = std::memcmp(&p.uid, &chosen.uid, sizeof p.uid) == 0;
    HRESULT hr = m_profile->UpdateSection(p.uid, false, [isDefault, &p](PropSet& set) {
      ULONG flags = p.resourceFlags & ~STATUS_DEFAULT_STORE;
      if (isDefault) flags |= STATUS_DEFAULT_STORE;
      return set.Set(LongProp(PR_RESOURCE_FLAGS, flags));
    });
    if (FAILED(hr)) return Fail(hr, "SetDefaultStore: the profile could not be written");
  }
  return S_OK;
}

// ---- Profile configuration helpers ---------------------------------------------------------------

HRESULT OpenNamedProfile(const char* name, std::shared_ptr<Profile>* out) {
  HRESULT hr = Profile::Open(name && *name ? name : nullptr, out);
  return hr;
}

std::vector<std::string> MultiText(const SPropValue* v) {
  std::vector<std::string> out;
  if (!v) return out;
  if (PROP_TYPE(v->ulPropTag) == PT_MV_STRING8) {
    for (ULONG i = 0; i < v->Value.MVszA.cValues; ++i)
      out.emplace_back(v->Value.MVszA.lppszA[i] ? v->Value.MVszA.lppszA[i] : "");
  } else if (PROP_TYPE(v->ulPropTag) == PT_MV_UNICODE) {
    for (ULONG i = 0; i < v->Value.MVszW.cValues; ++i)
      out.push_back(v->Value.MVszW.lppszW[i] ? adp::Utf16ToUtf8(v->Value.MVszW.lppszW[i]) : "");
  }
  return out;
}

// Sets a multi-valued text property from UTF-8 items.
HRESULT SetMultiText(PropSet& set, ULONG tag, const std::vector<std::string>& items) {
  std::vector<std::u16string> wide;
  std::vector<LPWSTR> widePtrs;
  std::vector<LPSTR> narrowPtrs;
  for (const auto& s : items) wide.push_back(adp::Utf8ToUtf16(s.c_str()));
  for (auto& w : wide) widePtrs.push_back(reinterpret_cast<LPWSTR>(w.data()));
  for (const auto& s : items) narrowPtrs.push_back(const_cast<LPSTR>(s.c_str()));
  SPropValue v{};
  v.ulPropTag = tag;
  if (PROP_TYPE(tag) == PT_MV_UNICODE) {
    v.Value.MVszW.cValues = static_cast<ULONG>(widePtrs.size());
    v.Value.MVszW.lppszW = widePtrs.data();
  } else {
    v.Value.MVszA.cValues = static_cast<ULONG>(narrowPtrs.size());
    v.Value.MVszA.lppszA = narrowPtrs.data();
  }
  return set.Set(v);
}

}  // namespace

// ---- Public functions ----------------------------------------------------------------------------

std::string ProfileRuntimeDirectory(const Profile& profile) {
  std::string dir = adp::RuntimeDirectory() + "/profiles/" + ProfileKey(profile);
  CreateDirectoryA((adp::RuntimeDirectory() + "/profiles").c_str(), nullptr);
  CreateDirectoryA(dir.c_str(), nullptr);
  return dir;
}

std::string ProfileRuntimeDirectory(const char* lpszProfileName) {
  std::shared_ptr<Profile> profile;
  if (FAILED(OpenNamedProfile(lpszProfileName, &profile))) return std::string();
  return ProfileRuntimeDirectory(*profile);
}

void SetSpoolerProcess(bool spooler) { g_spooler = spooler; }
bool IsSpoolerProcess() { return g_spooler; }

void SetProgressCallback(ProgressCallback callback) {
  ProgressState& s = Progress();
  std::lock_guard<std::mutex> guard(s.lock);  // lock order: leaf
  s.callback = std::move(callback);
}

// Used by the progress objects of logonsupport.cpp.
void ReportProgress(ULONG ulValue, ULONG ulCount, ULONG ulTotal) {
  ProgressCallback callback;
  {
    ProgressState& s = Progress();
    std::lock_guard<std::mutex> guard(s.lock);  // lock order: leaf; the callback runs outside it
    callback = s.callback;
  }
  if (callback) callback(ulValue, ulCount, ulTotal);
}

HRESULT SetProfileIdentity(const char* lpszProfileName, const char* lpszUser, const char* lpszDisplay,
                           const char* lpszSmtp) {
  std::string user = lpszUser ? lpszUser : "", display = lpszDisplay ? lpszDisplay : "",
              smtp = lpszSmtp ? lpszSmtp : "";
  if (user.empty() && display.empty() && smtp.empty()) return MAPI_E_INVALID_PARAMETER;
  std::shared_ptr<Profile> profile;
  if (FAILED(OpenNamedProfile(lpszProfileName, &profile))) return MAPI_E_NOT_FOUND;
  std::u16string wideDisplay = adp::Utf8ToUtf16(display.c_str());
  return profile->UpdateSection(GlobalSectionUid(), false, [&](PropSet& set) {
    SPropValue d{};
    d.ulPropTag = PR_AD_IDENTITY_DISPLAY;
    d.Value.lpszW = reinterpret_cast<LPWSTR>(wideDisplay.data());
    HRESULT hr = set.Set(StringProp(PR_AD_IDENTITY_USER, user.c_str()));
    if (SUCCEEDED(hr)) hr = set.Set(d);
    if (SUCCEEDED(hr)) hr = set.Set(StringProp(PR_AD_IDENTITY_SMTP, smtp.c_str()));
    return hr;
  });
}

HRESULT GetProfileIdentity(const char* lpszProfileName, ProfileIdentity* out) {
  if (!out) return MAPI_E_INVALID_PARAMETER;
  *out = ProfileIdentity();
  std::shared_ptr<Profile> profile;
  if (FAILED(OpenNamedProfile(lpszProfileName, &profile))) return MAPI_E_NOT_FOUND;
  PropSet set;
  HRESULT hr = profile->ReadSection(GlobalSectionUid(), &set);
  if (hr == MAPI_E_NOT_FOUND) return S_OK;
  if (FAILED(hr)) return hr;
  out->user = PropText(set.Find(PR_AD_IDENTITY_USER));
  out->display = PropText(set.Find(PR_AD_IDENTITY_DISPLAY));
  out->smtp = PropText(set.Find(PR_AD_IDENTITY_SMTP));
  return S_OK;
}

HRESULT SetProfileAccounts(const char* lpszProfileName, const std::vector<ProfileAccount>& accounts) {
  std::shared_ptr<Profile> profile;
  if (FAILED(OpenNamedProfile(lpszProfileName, &profile))) return MAPI_E_NOT_FOUND;
  std::vector<std::string> names, users, displays, smtps;
  for (const auto& a : accounts) {
    names.push_back(a.name);
    users.push_back(a.identity.user);
    displays.push_back(a.identity.display);
    smtps.push_back(a.identity.smtp);
  }
  return profile->UpdateSection(GlobalSectionUid(), false, [&](PropSet& set) {
    const ULONG tags[] = {PR_AD_ACCOUNT_NAMES, PR_AD_ACCOUNT_USERS, PR_AD_ACCOUNT_DISPLAYS, PR_AD_ACCOUNT_SMTPS};
    if (accounts.empty()) {
      for (ULONG tag : tags) set.Erase(tag);
      return S_OK;
    }
    const std::vector<std::string>* lists[] = {&names, &users, &displays, &smtps};
    for (int i = 0; i < 4; ++i) {
      if (HRESULT hr = SetMultiText(set, tags[i], *lists[i]); FAILED(hr)) return hr;
    }
    return S_OK;
  });
}

HRESULT GetProfileAccounts(const char* lpszProfileName, std::vector<ProfileAccount>* out) {
  if (!out) return MAPI_E_INVALID_PARAMETER;
  out->clear();
  std::shared_ptr<Profile> profile;
  if (FAILED(OpenNamedProfile(lpszProfileName, &profile))) return MAPI_E_NOT_FOUND;
  PropSet set;
  HRESULT hr = profile->ReadSection(GlobalSectionUid(), &set);
  if (hr == MAPI_E_NOT_FOUND) return S_OK;
  if (FAILED(hr)) return hr;
  std::vector<std::string> names = MultiText(set.Find(PR_AD_ACCOUNT_NAMES));
  std::vector<std::string> users = MultiText(set.Find(PR_AD_ACCOUNT_USERS));
  std::vector<std::string> displays = MultiText(set.Find(PR_AD_ACCOUNT_DISPLAYS));
  std::vector<std::string> smtps = MultiText(set.Find(PR_AD_ACCOUNT_SMTPS));
  for (size_t i = 0; i < names.size(); ++i) {
    ProfileAccount a;
    a.name = names[i];
    a.identity.user = i < users.size() ? users[i] : "";
    a.identity.display = i < displays.size() ? displays[i] : "";
    a.identity.smtp = i < smtps.size() ? smtps[i] : "";
    out->push_back(a);
  }
  if (!out->empty()) return S_OK;
  ProfileAccount single;
  single.identity.user = PropText(set.Find(PR_AD_IDENTITY_USER));
  single.identity.display = PropText(set.Find(PR_AD_IDENTITY_DISPLAY));
  single.identity.smtp = PropText(set.Find(PR_AD_IDENTITY_SMTP));
  if (single.identity.user.empty() && single.identity.display.empty() && single.identity.smtp.empty()) return S_OK;
  single.name = single.identity.smtp.empty() ? single.identity.display : single.identity.smtp;
  out->push_back(single);
  return S_OK;
}

bool IsWrappedStoreEntryID(ULONG cb, const ENTRYID* lpEntryID) {
  std::string dll;
  std::vector<BYTE> original;
  return SUCCEEDED(UnwrapStoreEntryID(cb, lpEntryID, &dll, &original));
}

HRESULT UnwrapStoreEntryID(ULONG cbWrapped, const ENTRYID* lpWrapped, std::string* dllName,
                           std::vector<BYTE>* original) {
  if (!lpWrapped || cbWrapped < kWrapHeader + 2) return MAPI_E_INVALID_ENTRYID;
  const BYTE* p = reinterpret_cast<const BYTE*>(lpWrapped);
  if (p[0] || p[1] || p[2] || p[3] || std::memcmp(p + 4, kStoreWrapUid, 16) != 0 || p[20] != 0 || p[21] != 0)
    return MAPI_E_INVALID_ENTRYID;
  const BYTE* nul = static_cast<const BYTE*>(std::memchr(p + kWrapHeader, 0, cbWrapped - kWrapHeader));
  if (!nul || nul == p + kWrapHeader) return MAPI_E_INVALID_ENTRYID;
  size_t start = static_cast<size_t>(nul - p) + 1;
  while (start % 4) {
    if (start >= cbWrapped || p[start] != 0) return MAPI_E_INVALID_ENTRYID;
    ++start;
  }
  if (cbWrapped < start + 4) return MAPI_E_INVALID_ENTRYID;
  dllName->assign(reinterpret_cast<const char*>(p + kWrapHeader), static_cast<size_t>(nul - p) - kWrapHeader);
  original->assign(p + start, p + cbWrapped);
  return S_OK;
}

// The entry point behind MAPILogonEx: a session on the profile (see session.h).
// A shared logon that names no profile, while the default profile has no session here, joins
// the process's one session: a provider asks this way from inside its client's logon, and means
// the client's profile. With no session, or several, the default profile is used.
CSession* JoinSoleSharedSession(const std::shared_ptr<Profile>& defaultProfile) {
  SharedSessions& s = Shared();
  std::lock_guard<std::mutex> guard(s.lock);  // lock order: shared-session registry (leaf)
  if (defaultProfile && s.byProfile.count(defaultProfile->Folder())) return nullptr;
  if (s.byProfile.size() != 1) return nullptr;
  CSession* only = s.byProfile.begin()->second;
  return only->TryAddRef() ? only : nullptr;
}

HRESULT LogonSession(const std::string& profileName, ULONG ulFlags, LPMAPISESSION* lppSession) {
  std::shared_ptr<Profile> profile;
  HRESULT hr = OpenNamedProfile(profileName.c_str(), &profile);
  const bool shared = !(ulFlags & MAPI_NEW_SESSION);
  if (shared && profileName.empty()) {
    if (CSession* joined = JoinSoleSharedSession(SUCCEEDED(hr) ? profile : nullptr)) {
      RegisterAccountManager();  // the state directory may have changed since that logon
      *lppSession = joined;
      return S_OK;
    }
  }
  if (hr == MAPI_E_NOT_FOUND) return MAPI_E_LOGON_FAILED;
  if (FAILED(hr)) return hr;
  RegisterAccountManager();  // the account manager must be reachable by CoCreateInstance
  if (shared) {
    SharedSessions& s = Shared();
    std::lock_guard<std::mutex> guard(s.lock);  // lock order: shared-session registry (leaf)
    auto it = s.byProfile.find(profile->Folder());
    if (it != s.byProfile.end() && it->second->TryAddRef()) {
      *lppSession = it->second;
      return S_OK;
    }
  }
  std::shared_ptr<StatusTable> status;
  hr = StatusTable::Create(&status);
  if (FAILED(hr)) return hr;
  CSession* session = new CSession(profile, status, shared);
  hr = session->Init();
  if (FAILED(hr)) {
    session->Release();
    return hr;
  }
  if (shared) {
    SharedSessions& s = Shared();
    std::lock_guard<std::mutex> guard(s.lock);  // lock order: shared-session registry (leaf)
    CSession*& slot = s.byProfile[profile->Folder()];
    if (slot && slot->TryAddRef()) {  // another thread logged on meanwhile: use that one
      CSession* other = slot;
      *lppSession = other;
      session->Release();  // not registered: its Forget finds the other and leaves it
      return S_OK;
    }
    slot = session;
  }
  *lppSession = session;
  return S_OK;
}

}  // namespace adm

extern "C" HRESULT STDAPICALLTYPE MAPILogonEx(ULONG_PTR, LPTSTR lpszProfileName, LPTSTR, ULONG ulFlags,
                                              LPMAPISESSION* lppSession) {
  if (!lppSession) return MAPI_E_INVALID_PARAMETER;
  *lppSession = nullptr;
  constexpr ULONG kKnown = MAPI_LOGON_UI | MAPI_NEW_SESSION | MAPI_ALLOW_OTHERS | MAPI_EXPLICIT_PROFILE |
                           MAPI_EXTENDED | MAPI_FORCE_DOWNLOAD | MAPI_SERVICE_UI_ALWAYS | MAPI_NO_MAIL |
                           MAPI_NT_SERVICE | MAPI_PASSWORD_UI | MAPI_TIMEOUT_SHORT | MAPI_BG_SESSION |
                           MAPI_USE_DEFAULT | MAPI_UNICODE;
  if (ulFlags & ~kKnown) return MAPI_E_UNKNOWN_FLAGS;
  if (!adm::MapiInitialized()) return MAPI_E_NOT_INITIALIZED;
  std::string name;
  if (lpszProfileName && !(ulFlags & MAPI_USE_DEFAULT)) {
    name = (ulFlags & MAPI_UNICODE) ? adp::Utf16ToUtf8(reinterpret_cast<const char16_t*>(lpszProfileName))
                                    : std::string(reinterpret_cast<const char*>(lpszProfileName));
  }
  if (name.size() > cchProfileNameMax) return MAPI_E_LOGON_FAILED;
  return adm::LogonSession(name, ulFlags, lppSession);
}

extern "C" HRESULT STDAPICALLTYPE WrapStoreEntryID(ULONG ulFlags, LPTSTR lpszDLLName, ULONG cbOrigEntry,
                                                   LPENTRYID lpOrigEntry, ULONG* lpcbWrappedEntry,
                                                   LPENTRYID* lppWrappedEntry) {
  if (!lpcbWrappedEntry || !lppWrappedEntry) return MAPI_E_INVALID_PARAMETER;
  *lpcbWrappedEntry = 0;
  *lppWrappedEntry = nullptr;
  if (ulFlags & ~MAPI_UNICODE) return MAPI_E_UNKNOWN_FLAGS;
  if (!lpszDLLName || !lpOrigEntry || cbOrigEntry < 4) return MAPI_E_INVALID_PARAMETER;
  std::string dll = (ulFlags & MAPI_UNICODE) ? adp::Utf16ToUtf8(reinterpret_cast<const char16_t*>(lpszDLLName))
                                             : std::string(reinterpret_cast<const char*>(lpszDLLName));
  if (dll.empty() || dll.size() > MAX_PATH) return MAPI_E_INVALID_PARAMETER;
  std::vector<BYTE> bytes = adm::Wrap(dll, reinterpret_cast<const BYTE*>(lpOrigEntry), cbOrigEntry);
  return adm::ToMapiEntryID(bytes, lpcbWrappedEntry, lppWrappedEntry);
}
