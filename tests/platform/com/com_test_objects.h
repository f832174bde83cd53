// Small COM objects for the tests: one whose reference count can be read, and an error object.
#pragma once
#include <atomic>
#include <string>

#include <oleauto.h>

namespace comtest {

// An IUnknown whose references the test can read; it is never deleted by Release, so a test can
// check that the count went back to where it started.
class CountedUnknown : public IUnknown {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (riid != IID_IUnknown) return E_NOINTERFACE;
    *ppv = static_cast<IUnknown*>(this);
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++m_refs; }
  ULONG STDMETHODCALLTYPE Release() override { return --m_refs; }
  ULONG Refs() const { return m_refs.load(); }

 private:
  std::atomic<ULONG> m_refs{1};
};

// An IErrorInfo with fixed texts; heap-allocated, deleted by its last Release.
class TestErrorInfo : public IErrorInfo {
 public:
  TestErrorInfo(const char16_t* description, const GUID& guid) : m_description(description), m_guid(guid) {}
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (riid != IID_IUnknown && riid != IID_IErrorInfo) return E_NOINTERFACE;
    *ppv = static_cast<IErrorInfo*>(this);
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++m_refs; }
  ULONG STDMETHODCALLTYPE Release() override {
    ULONG left = --m_refs;
    if (!left) delete this;
    return left;
  }
  HRESULT STDMETHODCALLTYPE GetGUID(GUID* pGUID) override {
    *pGUID = m_guid;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetSource(BSTR* p) override { return Text(u"TestSource", p); }
  HRESULT STDMETHODCALLTYPE GetDescription(BSTR* p) override { return Text(m_description.c_str(), p); }
  HRESULT STDMETHODCALLTYPE GetHelpFile(BSTR* p) override { return Text(u"", p); }
  HRESULT STDMETHODCALLTYPE GetHelpContext(DWORD* p) override {
    *p = 77;
    return S_OK;
  }
  ULONG Refs() const { return m_refs.load(); }

 private:
  virtual ~TestErrorInfo() = default;
  static HRESULT Text(const char16_t* s, BSTR* p) {
    *p = SysAllocString(s);
    return S_OK;
  }
  std::atomic<ULONG> m_refs{1};
  std::u16string m_description;
  GUID m_guid;
};

}  // namespace comtest
