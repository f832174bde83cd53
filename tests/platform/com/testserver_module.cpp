// In-process COM server for the activation tests: DllGetClassObject, a class factory that
// refuses aggregation, and counting objects.
#include <atomic>
#include <new>

#include "testserver.h"

namespace {

std::atomic<LONG> g_liveObjects{0};

class Counter final : public ITestCounter {
 public:
  Counter() { ++g_liveObjects; }
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (riid != IID_IUnknown && riid != IID_ITestCounter) return E_NOINTERFACE;
    *ppv = static_cast<ITestCounter*>(this);
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++m_refs; }
  ULONG STDMETHODCALLTYPE Release() override {
    ULONG left = --m_refs;
    if (!left) delete this;
    return left;
  }
  HRESULT STDMETHODCALLTYPE SetValue(LONG value) override {
    m_value = value;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetValue(LONG* pValue) override {
    if (!pValue) return E_POINTER;
    *pValue = m_value;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE LiveObjects(LONG* pCount) override {
    if (!pCount) return E_POINTER;
    *pCount = g_liveObjects.load();
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Fail(HRESULT hr) override { return hr; }

 private:
  ~Counter() { --g_liveObjects; }
  std::atomic<ULONG> m_refs{1};
  LONG m_value = 0;
};

class Factory final : public IClassFactory {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (riid != IID_IUnknown && riid != IID_IClassFactory) return E_NOINTERFACE;
    *ppv = static_cast<IClassFactory*>(this);
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++m_refs; }
  ULONG STDMETHODCALLTYPE Release() override {
    ULONG left = --m_refs;
    if (!left) delete this;
    return left;
  }
  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (pUnkOuter) return CLASS_E_NOAGGREGATION;
    Counter* counter = new (std::nothrow) Counter;
    if (!counter) return E_OUTOFMEMORY;
    HRESULT hr = counter->QueryInterface(riid, ppv);
    counter->Release();
    return hr;
  }
  HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }

 private:
  std::atomic<ULONG> m_refs{1};
};

}  // namespace

extern "C" DECLSPEC_EXPORT HRESULT DllGetClassObject(REFCLSID rclsid, REFIID riid, LPVOID* ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (rclsid != CLSID_TestCounter) return CLASS_E_CLASSNOTAVAILABLE;
  Factory* factory = new (std::nothrow) Factory;
  if (!factory) return E_OUTOFMEMORY;
  HRESULT hr = factory->QueryInterface(riid, ppv);
  factory->Release();
  return hr;
}
