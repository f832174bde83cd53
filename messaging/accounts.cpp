// The account manager stand-in (see accounts.h).
#include "accounts.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "addrbook.h"
#include "adplatform.h"
#include "adplatform_com.h"
#include "adplatform_link.h"
#include "mapicode.h"
#include "objbase.h"
#include "session.h"
#include "winreg.h"

namespace adm {
namespace {

template <class T>
HRESULT Answer(T* self, REFIID riid, const IID* const* iids, size_t count, void** ppv) {
  if (!ppv) return E_POINTER;
  for (size_t i = 0; i < count; ++i) {
    if (riid == *iids[i]) {
      *ppv = self;
      self->AddRef();
      return S_OK;
    }
  }
  *ppv = nullptr;
  return E_NOINTERFACE;
}

HRESULT LastErrorText(HRESULT hr, LPWSTR* ppwszError) {
  if (!ppwszError) return E_POINTER;
  std::u16string text = adp::Utf8ToUtf16(adp::ErrorMessageText(hr).c_str());
  void* buf = nullptr;
  if (MAPIAllocateBuffer(static_cast<ULONG>((text.size() + 1) * sizeof(char16_t)), &buf) != S_OK)
    return E_OUTOFMEMORY;
  std::memcpy(buf, text.c_str(), (text.size() + 1) * sizeof(char16_t));
  *ppwszError = static_cast<LPWSTR>(buf);
  return S_OK;
}

// ---- Accounts -----------------------------------------------------------------------------------

class CAccount final : public IOlkAccount {
 public:
  CAccount(DWORD id, ProfileAccount account) : m_id(id), m_account(std::move(account)) {}

  STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
    static const IID* const iids[] = {&IID_IUnknown, &IID_IOlkErrorUnknown, &IID_IOlkAccount};
    return Answer(static_cast<IOlkAccount*>(this), riid, iids, 3, ppv);
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++m_cRef; }
  STDMETHODIMP_(ULONG) Release() override {
    ULONG n = --m_cRef;
    if (n == 0) delete this;
    return n;
  }
  STDMETHODIMP GetLastError(HRESULT hr, LPWSTR* ppwszError) override { return LastErrorText(hr, ppwszError); }
  STDMETHODIMP PlaceHolder1() override { return E_NOTIMPL; }
  STDMETHODIMP PlaceHolder2() override { return E_NOTIMPL; }
  STDMETHODIMP PlaceHolder3() override { return E_NOTIMPL; }
  STDMETHODIMP PlaceHolder4() override { return E_NOTIMPL; }
  STDMETHODIMP PlaceHolder5() override { return E_NOTIMPL; }
  STDMETHODIMP PlaceHolder6() override { return E_NOTIMPL; }
  STDMETHODIMP GetAccountInfo(CLSID* pclsidType, DWORD* pcCategories, CLSID** prgclsidCategory) override {
    if (!pclsidType || !pcCategories || !prgclsidCategory) return E_INVALIDARG;
    void* buf = nullptr;
    if (MAPIAllocateBuffer(2 * sizeof(CLSID), &buf) != S_OK) return E_OUTOFMEMORY;
    auto* categories = static_cast<CLSID*>(buf);
    categories[0] = CLSID_OlkMail;
    categories[1] = CLSID_OlkStore;
    *pclsidType = CLSID_OlkMAPIAccount;
    *pcCategories = 2;
    *prgclsidCategory = categories;
    return S_OK;
  }
  STDMETHODIMP GetProp(DWORD dwProp, ACCT_VARIANT* pVar) override;
  STDMETHODIMP SetProp(DWORD, ACCT_VARIANT*) override { return E_OLK_PROP_READ_ONLY; }
  STDMETHODIMP PlaceHolder7() override { return E_NOTIMPL; }
  STDMETHODIMP PlaceHolder8() override { return E_NOTIMPL; }
  STDMETHODIMP PlaceHolder9() override { return E_NOTIMPL; }
  STDMETHODIMP FreeMemory(BYTE* pv) override {
    MAPIFreeBuffer(pv);
    return S_OK;
  }
  STDMETHODIMP PlaceHolder10() override { return E_NOTIMPL; }
  STDMETHODIMP SaveChanges(DWORD) override { return S_OK; }  // nothing is ever changed

  DWORD Id() const { return m_id; }
  const ProfileAccount& Account() const { return m_account; }

 private:
  ~CAccount() = default;
  HRESULT Text(const std::string& text, ACCT_VARIANT* pVar) {
    std::u16string wide = adp::Utf8ToUtf16(text.c_str());
    void* buf = nullptr;
    if (MAPIAllocateBuffer(static_cast<ULONG>((wide.size() + 1) * sizeof(char16_t)), &buf) != S_OK)
      return E_OUTOFMEMORY;
    std::memcpy(buf, wide.c_str(), (wide.size() + 1) * sizeof(char16_t));
    pVar->dwType = PT_UNICODE;
    pVar->Val.pwsz = static_cast<WCHAR*>(buf);
    return S_OK;
  }

  std::atomic<ULONG> m_cRef{1};
  const DWORD m_id;
  const ProfileAccount m_account;
};

std::string Stamp(DWORD id, const ProfileAccount& account) {
  char prefix[32];
  std::snprintf(prefix, sizeof prefix, "ADACCT:%08X:", static_cast<unsigned>(id));
  return prefix + account.identity.user;
}

HRESULT CAccount::GetProp(DWORD dwProp, ACCT_VARIANT* pVar) {
  if (!pVar) return E_INVALIDARG;
  std::memset(pVar, 0, sizeof *pVar);
  switch (dwProp) {
    case PROP_ACCT_ID:
      pVar->dwType = PT_LONG;
      pVar->Val.dw = m_id;
      return S_OK;
    case PROP_ACCT_IS_EXCH:
      pVar->dwType = PT_LONG;
      pVar->Val.dw = 0;
      return S_OK;
    case PROP_ACCT_NAME: return Text(m_account.name, pVar);
    case PROP_ACCT_USER_DISPLAY_NAME: return Text(m_account.identity.display, pVar);
    case PROP_ACCT_USER_EMAIL_ADDR: return Text(m_account.identity.smtp, pVar);
    case PROP_ACCT_STAMP: return Text(Stamp(m_id, m_account), pVar);
    case PROP_MAPI_IDENTITY_ENTRYID: {
      ULONG cb = 0;
      LPENTRYID eid = nullptr;
      if (FAILED(CreateIdentityEntryID(m_account.identity, &cb, &eid))) return E_OUTOFMEMORY;
      pVar->dwType = PT_BINARY;
      pVar->Val.bin.cb = cb;
      pVar->Val.bin.pb = reinterpret_cast<BYTE*>(eid);
      return S_OK;
    }
    default: return E_ACCT_NOT_FOUND;
  }
}

// ---- Enumerator ---------------------------------------------------------------------------------

class CAccountEnum final : public IOlkEnum {
 public:
  explicit CAccountEnum(std::vector<CAccount*> accounts) : m_accounts(std::move(accounts)) {}
  STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
    static const IID* const iids[] = {&IID_IUnknown, &IID_IOlkEnum};
    return Answer(static_cast<IOlkEnum*>(this), riid, iids, 2, ppv);
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++m_cRef; }
  STDMETHODIMP_(ULONG) Release() override {
    ULONG n = --m_cRef;
    if (n == 0) delete this;
    return n;
  }
  STDMETHODIMP GetCount(DWORD* pulCount) override {
    if (!pulCount) return E_INVALIDARG;
    *pulCount = static_cast<DWORD>(m_accounts.size());
    return S_OK;
  }
  STDMETHODIMP Reset() override {
    m_next = 0;
    return S_OK;
  }
  STDMETHODIMP GetNext(LPUNKNOWN* ppunk) override {
    if (!ppunk) return E_INVALIDARG;
    *ppunk = nullptr;
    size_t at = m_next.load();
    while (at < m_accounts.size() && !m_next.compare_exchange_weak(at, at + 1)) {
    }
    if (at >= m_accounts.size()) return S_FALSE;
    m_accounts[at]->AddRef();
    *ppunk = static_cast<IOlkAccount*>(m_accounts[at]);
    return S_OK;
  }
  STDMETHODIMP Skip(DWORD cSkip) override {
    m_next = std::min(m_accounts.size(), m_next.load() + cSkip);
    return S_OK;
  }

 private:
  ~CAccountEnum() {
    for (auto* a : m_accounts) a->Release();
  }
  std::atomic<ULONG> m_cRef{1};
  const std::vector<CAccount*> m_accounts;
  std::atomic<size_t> m_next{0};
};

// ---- Manager ------------------------------------------------------------------------------------

bool IsMailAccountCategory(const CLSID* category) {
  return !category || *category == CLSID_OlkMail || *category == CLSID_OlkStore;
}

class CAccountManager final : public IOlkAccountManager {
 public:
  STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
    static const IID* const iids[] = {&IID_IUnknown, &IID_IOlkErrorUnknown, &IID_IOlkAccountManager};
    return Answer(static_cast<IOlkAccountManager*>(this), riid, iids, 3, ppv);
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++m_cRef; }
  STDMETHODIMP_(ULONG) Release() override {
    ULONG n = --m_cRef;
    if (n == 0) delete this;
    return n;
  }
  STDMETHODIMP GetLastError(HRESULT hr, LPWSTR* ppwszError) override { return LastErrorText(hr, ppwszError); }
  STDMETHODIMP Init(IOlkAccountHelper* pAcctHelper, DWORD dwFlags) override;
  STDMETHODIMP DisplayAccountList(HWND, DWORD, LPCWSTR, DWORD, const CLSID*, const CLSID*) override {
    return E_NOTIMPL;  // there is no user interface
  }
  STDMETHODIMP PlaceHolder1() override { return E_NOTIMPL; }
  STDMETHODIMP PlaceHolder2() override { return E_NOTIMPL; }
  STDMETHODIMP PlaceHolder3() override { return E_NOTIMPL; }
  STDMETHODIMP PlaceHolder4() override { return E_NOTIMPL; }
  STDMETHODIMP PlaceHolder5() override { return E_NOTIMPL; }
  STDMETHODIMP FindAccount(DWORD dwProp, ACCT_VARIANT* pVar, IOlkAccount** ppAccount) override;
  STDMETHODIMP PlaceHolder6() override { return E_NOTIMPL; }
  STDMETHODIMP PlaceHolder7() override { return E_NOTIMPL; }
  STDMETHODIMP PlaceHolder8() override { return E_NOTIMPL; }
  STDMETHODIMP DeleteAccount(DWORD) override { return E_OLK_PROP_READ_ONLY; }
  STDMETHODIMP PlaceHolder9() override { return E_NOTIMPL; }
  STDMETHODIMP SaveChanges(DWORD, DWORD) override { return S_OK; }
  STDMETHODIMP GetOrder(const CLSID* pclsidCategory, DWORD* pcAccts, DWORD* prgAccts[]) override;
  STDMETHODIMP SetOrder(const CLSID*, DWORD*, DWORD*[]) override { return E_OLK_PROP_READ_ONLY; }
  STDMETHODIMP EnumerateAccounts(const CLSID* pclsidCategory, const CLSID* pclsidType, DWORD dwFlags,
                                 IOlkEnum** ppEnum) override;
  STDMETHODIMP PlaceHolder10() override { return E_NOTIMPL; }
  STDMETHODIMP PlaceHolder11() override { return E_NOTIMPL; }
  STDMETHODIMP FreeMemory(BYTE* pv) override {
    MAPIFreeBuffer(pv);
    return S_OK;
  }
  STDMETHODIMP Advise(IOlkAccountNotify* pNotify, DWORD* pdwCookie) override {
    if (!pNotify || !pdwCookie) return E_INVALIDARG;
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: manager lock (leaf)
    *pdwCookie = m_nextCookie++;
    m_cookies.insert(*pdwCookie);  // accounts never change while a process runs: nothing is sent
    return S_OK;
  }
  STDMETHODIMP Unadvise(DWORD* pdwCookie) override {
    if (!pdwCookie) return E_INVALIDARG;
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: manager lock (leaf)
    return m_cookies.erase(*pdwCookie) ? S_OK : E_ACCT_NOT_FOUND;
  }

 private:
  ~CAccountManager() = default;
  // The accounts, or E_OLK_NOT_INITIALIZED.
  HRESULT Accounts(std::vector<ProfileAccount>* out) {
    std::string profile;
    {
      std::lock_guard<std::mutex> guard(m_lock);  // lock order: manager lock (leaf)
      if (!m_initialized) return E_OLK_NOT_INITIALIZED;
      profile = m_profile;
    }
    return SUCCEEDED(GetProfileAccounts(profile.c_str(), out)) ? S_OK : E_ACCT_NOT_FOUND;
  }

  std::atomic<ULONG> m_cRef{1};
  std::mutex m_lock;  // guards what follows
  bool m_initialized = false;
  std::string m_profile;
  std::set<DWORD> m_cookies;
  DWORD m_nextCookie = 1;
};

HRESULT CAccountManager::Init(IOlkAccountHelper* pAcctHelper, DWORD dwFlags) {
  if (!pAcctHelper) return E_INVALIDARG;
  if (dwFlags & ~(ACCT_INIT_NOSYNCH_MAPI_ACCTS | ACCT_INIT_NO_STORES_CHECK | ACCT_INIT_NO_NOTIFICATIONS))
    return E_OLK_PARAM_NOT_SUPPORTED;
  WCHAR name[cchProfileNameMax + 2] = {};
  DWORD cch = cchProfileNameMax + 1;
  std::string profile;
  if (SUCCEEDED(pAcctHelper->GetIdentity(name, &cch))) profile = adp::Utf16ToUtf8(reinterpret_cast<char16_t*>(name));
  std::lock_guard<std::mutex> guard(m_lock);  // lock order: manager lock (leaf)
  if (m_initialized) return E_OLK_ALREADY_INITIALIZED;
  m_initialized = true;
  m_profile = profile;
  return S_OK;
}

HRESULT CAccountManager::EnumerateAccounts(const CLSID* pclsidCategory, const CLSID* pclsidType, DWORD dwFlags,
                                           IOlkEnum** ppEnum) {
  if (!ppEnum) return E_INVALIDARG;
  *ppEnum = nullptr;
  if (dwFlags) return E_OLK_PARAM_NOT_SUPPORTED;
  std::vector<ProfileAccount> accounts;
  if (HRESULT hr = Accounts(&accounts); FAILED(hr)) return hr;
  std::vector<CAccount*> list;
  bool wanted = IsMailAccountCategory(pclsidCategory) && (!pclsidType || *pclsidType == CLSID_OlkMAPIAccount);
  for (size_t i = 0; wanted && i < accounts.size(); ++i)
    list.push_back(new CAccount(static_cast<DWORD>(i + 1), accounts[i]));
  *ppEnum = new CAccountEnum(std::move(list));
  return S_OK;
}

HRESULT CAccountManager::FindAccount(DWORD dwProp, ACCT_VARIANT* pVar, IOlkAccount** ppAccount) {
  if (!pVar || !ppAccount) return E_INVALIDARG;
  *ppAccount = nullptr;
  std::vector<ProfileAccount> accounts;
  if (HRESULT hr = Accounts(&accounts); FAILED(hr)) return hr;
  for (size_t i = 0; i < accounts.size(); ++i) {
    DWORD id = static_cast<DWORD>(i + 1);
    bool match = false;
    if (dwProp == PROP_ACCT_ID && pVar->dwType == PT_LONG) {
      match = pVar->Val.dw == id;
    } else if (pVar->dwType == PT_UNICODE && pVar->Val.pwsz) {
      std::string want = adp::Utf16ToUtf8(reinterpret_cast<char16_t*>(pVar->Val.pwsz));
      if (dwProp == PROP_ACCT_NAME) match = want == accounts[i].name;
      if (dwProp == PROP_ACCT_STAMP) match = want == Stamp(id, accounts[i]);
      if (dwProp == PROP_ACCT_USER_EMAIL_ADDR) match = want == accounts[i].identity.smtp;
    } else {
      return E_OLK_PARAM_NOT_SUPPORTED;
    }
    if (match) {
      *ppAccount = new CAccount(id, accounts[i]);
      return S_OK;
    }
  }
  return E_ACCT_NOT_FOUND;
}

HRESULT CAccountManager::GetOrder(const CLSID* pclsidCategory, DWORD* pcAccts, DWORD* prgAccts[]) {
  if (!pcAccts || !prgAccts) return E_INVALIDARG;
  *pcAccts = 0;
  *prgAccts = nullptr;
  std::vector<ProfileAccount> accounts;
  if (HRESULT hr = Accounts(&accounts); FAILED(hr)) return hr;
  if (!IsMailAccountCategory(pclsidCategory)) accounts.clear();
  void* buf = nullptr;
  if (MAPIAllocateBuffer(static_cast<ULONG>(sizeof(DWORD) * (accounts.size() + 1)), &buf) != S_OK)
    return E_OUTOFMEMORY;
  auto* ids = static_cast<DWORD*>(buf);
  for (size_t i = 0; i < accounts.size(); ++i) ids[i] = static_cast<DWORD>(i + 1);
  *pcAccts = static_cast<DWORD>(accounts.size());
  *prgAccts = ids;
  return S_OK;
}

// ---- Helper -------------------------------------------------------------------------------------

class CAccountHelper final : public IOlkAccountHelper {
 public:
  CAccountHelper(std::string profile, LPMAPISESSION session) : m_profile(std::move(profile)), m_session(session) {
    if (m_session) m_session->AddRef();
  }
  STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
    static const IID* const iids[] = {&IID_IUnknown, &IID_IOlkAccountHelper};
    return Answer(static_cast<IOlkAccountHelper*>(this), riid, iids, 2, ppv);
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++m_cRef; }
  STDMETHODIMP_(ULONG) Release() override {
    ULONG n = --m_cRef;
    if (n == 0) delete this;
    return n;
  }
  STDMETHODIMP PlaceHolder1(LPVOID) override { return E_NOTIMPL; }
  STDMETHODIMP GetIdentity(LPWSTR pwszIdentity, DWORD* pcch) override {
    if (!pcch) return E_INVALIDARG;
    std::u16string wide = adp::Utf8ToUtf16(m_profile.c_str());
    if (!pwszIdentity || *pcch < wide.size() + 1) {
      *pcch = static_cast<DWORD>(wide.size() + 1);
      return E_OUTOFMEMORY;
    }
    std::memcpy(pwszIdentity, wide.c_str(), (wide.size() + 1) * sizeof(char16_t));
    *pcch = static_cast<DWORD>(wide.size() + 1);
    return S_OK;
  }
  STDMETHODIMP GetMapiSession(LPUNKNOWN* ppmsess) override {
    if (!ppmsess) return E_INVALIDARG;
    *ppmsess = m_session;
    if (!m_session) return E_FAIL;
    m_session->AddRef();
    return S_OK;
  }
  STDMETHODIMP HandsOffSession() override { return S_OK; }

 private:
  ~CAccountHelper() {
    if (m_session) m_session->Release();
  }
  std::atomic<ULONG> m_cRef{1};
  const std::string m_profile;
  LPMAPISESSION m_session;
};

// ---- Class object -------------------------------------------------------------------------------

class CManagerFactory final : public IClassFactory {
 public:
  STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
    static const IID* const iids[] = {&IID_IUnknown, &IID_IClassFactory};
    return Answer(static_cast<IClassFactory*>(this), riid, iids, 2, ppv);
  }
  STDMETHODIMP_(ULONG) AddRef() override { return 2; }  // a static object
  STDMETHODIMP_(ULONG) Release() override { return 1; }
  STDMETHODIMP CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (pUnkOuter) return CLASS_E_NOAGGREGATION;
    IOlkAccountManager* manager = nullptr;
    CreateAccountManager(&manager);
    HRESULT hr = manager->QueryInterface(riid, ppv);
    manager->Release();
    return hr;
  }
  STDMETHODIMP LockServer(BOOL) override { return S_OK; }  // the library stays loaded anyway
};

}  // namespace

HRESULT CreateAccountManager(IOlkAccountManager** lppManager) {
  if (!lppManager) return E_INVALIDARG;
  *lppManager = new CAccountManager();
  return S_OK;
}

HRESULT CreateAccountHelper(const char* lpszProfileName, LPMAPISESSION lpSession, IOlkAccountHelper** lppHelper) {
  if (!lppHelper) return E_INVALIDARG;
  *lppHelper = new CAccountHelper(lpszProfileName ? lpszProfileName : "", lpSession);
  return S_OK;
}

HRESULT RegisterAccountManager() {
  std::string self = adp::ModulePathOf(reinterpret_cast<const void*>(&RegisterAccountManager));
  if (self.empty()) return E_FAIL;
  std::string key = "CLSID\\" + adp::GuidToRegistryString(CLSID_OlkAccountManager) + "\\InprocServer32";
  HKEY hKey = nullptr;
  if (RegOpenKeyExA(HKEY_CLASSES_ROOT, key.c_str(), 0, KEY_READ, &hKey) == ERROR_SUCCESS) {
    char value[MAX_PATH * 4] = {};
    DWORD type = 0, cb = sizeof value - 1;
    LSTATUS rc = RegQueryValueExA(hKey, nullptr, nullptr, &type, reinterpret_cast<LPBYTE>(value), &cb);
    RegCloseKey(hKey);
    if (rc == ERROR_SUCCESS && type == REG_SZ && self == value) return S_OK;
  }
  return adp::RegisterInprocServer(CLSID_OlkAccountManager, self.c_str());
}

}  // namespace adm

extern "C" DECLSPEC_EXPORT HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID rclsid, REFIID riid, LPVOID* ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (rclsid != CLSID_OlkAccountManager) return CLASS_E_CLASSNOTAVAILABLE;
  static adm::CManagerFactory factory;
  return factory.QueryInterface(riid, ppv);
}
