// A data provider module for the tracing tests: only the configuration object does anything.
// Its answers come from the environment of the process that loads it:
//   ADTEST_NO_CONFIG=1      GetConfigurationParams gives no object
//   ADTEST_CONFIG_FAILS=1   the configuration's getters fail
//   ADTEST_LOG_FOLDER, ADTEST_LOG_LEVEL, ADTEST_LOG_SIZE, ADTEST_LOG_MAXFILES
#include <objbase.h>

#include <atomic>
#include <cstdlib>
#include <string>

#include "adplatform.h"
#include "archive/ZT4DataProvider.h"

namespace {

bool EnvFlag(const char* name) {
  const char* v = std::getenv(name);
  return v && std::string(v) == "1";
}

LONG EnvLong(const char* name, LONG fallback) {
  const char* v = std::getenv(name);
  return v ? static_cast<LONG>(std::atol(v)) : fallback;
}

template <class I> class CDispatchBase : public I {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_IDispatch || riid == __uuidof(I)) {
      *ppv = static_cast<I*>(this);
      this->AddRef();
      return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++m_cRef; }
  ULONG STDMETHODCALLTYPE Release() override {
    ULONG c = --m_cRef;
    if (c == 0) delete this;
    return c;
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* pctinfo) override {
    *pctinfo = 0;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override {
    return E_NOTIMPL;
  }

 protected:
  virtual ~CDispatchBase() = default;

 private:
  std::atomic<ULONG> m_cRef{1};
};

class CTestConfig : public CDispatchBase<IZT4ProviderConfig> {
 public:
  HRESULT STDMETHODCALLTYPE raw_GetLogLevel(LONG* p) override { return Long(p, EnvLong("ADTEST_LOG_LEVEL", 5)); }
  HRESULT STDMETHODCALLTYPE raw_GetLogFileName(BSTR* p) override {
    if (EnvFlag("ADTEST_CONFIG_FAILS")) return E_FAIL;
    const char* folder = std::getenv("ADTEST_LOG_FOLDER");
    std::u16string wide = adp::Utf8ToUtf16(folder ? folder : "");
    *p = SysAllocString(reinterpret_cast<const OLECHAR*>(wide.c_str()));
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE raw_MaxListCount(LONG* p) override { return Long(p, 0); }
  HRESULT STDMETHODCALLTYPE raw_MaxSearchCount(LONG* p) override { return Long(p, 0); }
  HRESULT STDMETHODCALLTYPE raw_LogSize(LONG* p) override { return Long(p, EnvLong("ADTEST_LOG_SIZE", 5)); }
  HRESULT STDMETHODCALLTYPE raw_MaxFiles(LONG* p) override { return Long(p, EnvLong("ADTEST_LOG_MAXFILES", 1)); }
  HRESULT STDMETHODCALLTYPE raw_FolderHomePageUrl(BSTR* p) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE raw_SyncIntervalMinutes(LONG* p) override { return Long(p, 1); }
  HRESULT STDMETHODCALLTYPE raw_QueryUserDetails(BSTR, BSTR*, BSTR*, BSTR*, VARIANT_BOOL*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE raw_UseLocalizedFolderNames(LONG* p) override { return Long(p, 0); }

 private:
  HRESULT Long(LONG* p, LONG value) {
    if (EnvFlag("ADTEST_CONFIG_FAILS")) return E_FAIL;
    *p = value;
    return S_OK;
  }
};

class CTestProvider : public CDispatchBase<IZT4DataProvider> {
 public:
  HRESULT STDMETHODCALLTYPE raw_GetConfigurationParams(IZT4ProviderConfig** pp) override {
    *pp = EnvFlag("ADTEST_NO_CONFIG") ? nullptr : new CTestConfig;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE raw_GetFolderNames(BSTR, BSTR, SAFEARRAY**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE raw_GetServerFolder(BSTR, BSTR, IZT4ArchiveFolder**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE raw_RegisterMailbox(BSTR, BSTR, LONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE raw_CreateSearchCondition(IZT4SearchCondition**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE raw_GetLastProviderError(LONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE raw_IsCachedMode(VARIANT_BOOL*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE raw_IsFirstSyncDue(VARIANT_BOOL*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE raw_ShowConfigurationDialog() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE raw_IsLoggedIn(VARIANT_BOOL*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE raw_IsShuttingDown(VARIANT_BOOL*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE raw_NotifySyncThreadStarted() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE raw_NotifySyncRound() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE raw_IsConversationViewEnabled(VARIANT_BOOL*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE raw_IsConversationDataAvailable(VARIANT_BOOL*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE raw_WaitForNetwork() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE raw_PrepareInitialSync() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE raw_SaveDefaultFolderNames(SAFEARRAY*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE raw_LoadDefaultFolderNames(SAFEARRAY**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE raw_IsSearchReady(VARIANT_BOOL*) override { return E_NOTIMPL; }
};

class CFactory : public IClassFactory {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (riid == IID_IUnknown || riid == IID_IClassFactory) {
      *ppv = this;
      return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
  ULONG STDMETHODCALLTYPE Release() override { return 1; }
  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* pOuter, REFIID riid, void** ppv) override {
    if (pOuter) return CLASS_E_NOAGGREGATION;
    CTestProvider* p = new CTestProvider;
    HRESULT hr = p->QueryInterface(riid, ppv);
    p->Release();
    return hr;
  }
  HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }
};

CFactory g_factory;

}  // namespace

extern "C" DECLSPEC_EXPORT HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID rclsid, REFIID riid, LPVOID* ppv) {
  if (rclsid != CLSID_ZT4DataProvider) return CLASS_E_CLASSNOTAVAILABLE;
  return g_factory.QueryInterface(riid, ppv);
}
