// IUnknown for the subsystem's own COM objects: one implemented interface, answered under its
// own IID, IUnknown's and those of the interfaces it derives from. The count starts at 1 for the
// creator's reference; the last Release deletes the object.
#pragma once
#include <atomic>

#include "mapicode.h"
#include "unknwn.h"

namespace adm {

template <class Interface, const IID&... Iids>
class ComObject : public Interface {
 public:
  STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
    if (!ppv) return MAPI_E_INVALID_PARAMETER;
    if (riid == IID_IUnknown || ((riid == Iids) || ...)) {
      *ppv = static_cast<Interface*>(this);
      AddRef();
      return S_OK;
    }
    *ppv = nullptr;
    return MAPI_E_INTERFACE_NOT_SUPPORTED;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++m_cRef; }
  STDMETHODIMP_(ULONG) Release() override {
    ULONG n = --m_cRef;
    if (n == 0) delete this;
    return n;
  }

 protected:
  ComObject() = default;
  virtual ~ComObject() = default;

 private:
  std::atomic<ULONG> m_cRef{1};
};

}  // namespace adm
