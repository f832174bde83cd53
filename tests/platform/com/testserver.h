// The contract of testserver_module: an in-process server with one class whose objects count
// themselves, so tests can see that the module is loaded once and objects are released.
#pragma once
#include <objbase.h>

AD_DECLARE_UUID(ITestCounter, 0x3f1d9a20, 0x7b51, 0x4c8e, 0x9a, 0x44, 0x1e, 0x2f, 0x60, 0x73, 0x85, 0x9b);
DEFINE_GUID(IID_ITestCounter, 0x3f1d9a20, 0x7b51, 0x4c8e, 0x9a, 0x44, 0x1e, 0x2f, 0x60, 0x73, 0x85, 0x9b);
struct ITestCounter : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE SetValue(LONG value) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetValue(LONG* pValue) = 0;
  // Objects of the class alive in the module right now.
  virtual HRESULT STDMETHODCALLTYPE LiveObjects(LONG* pCount) = 0;
  // Fails with the given code (for error paths of the smart pointers).
  virtual HRESULT STDMETHODCALLTYPE Fail(HRESULT hr) = 0;
};

// Served by the module.
DEFINE_GUID(CLSID_TestCounter, 0x8a7e3c11, 0x52d4, 0x4f6a, 0xb1, 0x0e, 0x93, 0x2c, 0x57, 0x1d, 0x48, 0x66);
// Not served by the module (DllGetClassObject refuses it).
DEFINE_GUID(CLSID_TestUnserved, 0x8a7e3c12, 0x52d4, 0x4f6a, 0xb1, 0x0e, 0x93, 0x2c, 0x57, 0x1d, 0x48, 0x66);
