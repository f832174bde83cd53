// Compiler COM support: _com_ptr_t, the smart interface pointer, and _COM_SMARTPTR_TYPEDEF.
// Construction or assignment from another interface type queries for this one; a failure other
// than E_NOINTERFACE raises _com_error, E_NOINTERFACE leaves the pointer null.
#pragma once
#include <cstddef>
#include <utility>

#include "combaseapi.h"
#include "comutil.h"
#include "unknwn.h"

template <typename _Interface, const IID* _IID> class _com_IIID {
 public:
  typedef _Interface Interface;
  static const IID& GetIID() noexcept { return *_IID; }
};

template <typename _IIID> class _com_ptr_t {
 public:
  typedef _IIID ThisIIID;
  typedef typename _IIID::Interface Interface;

  static const IID& GetIID() noexcept { return ThisIIID::GetIID(); }

  _com_ptr_t() noexcept : m_pInterface(nullptr) {}
  _com_ptr_t(std::nullptr_t) noexcept : m_pInterface(nullptr) {}
  // Only 0 may be given as an integer.
  _com_ptr_t(int null) : m_pInterface(nullptr) {
    if (null != 0) _com_issue_error(E_POINTER);
  }
  _com_ptr_t(Interface* pInterface) noexcept : m_pInterface(pInterface) { _AddRef(); }
  _com_ptr_t(Interface* pInterface, bool fAddRef) noexcept : m_pInterface(pInterface) {
    if (fAddRef) _AddRef();
  }
  _com_ptr_t(const _com_ptr_t& cp) noexcept : m_pInterface(cp.m_pInterface) { _AddRef(); }
  _com_ptr_t(_com_ptr_t&& cp) noexcept : m_pInterface(std::exchange(cp.m_pInterface, nullptr)) {}
  template <typename _OtherIID> _com_ptr_t(const _com_ptr_t<_OtherIID>& p) : m_pInterface(nullptr) {
    _QueryFrom(p.GetInterfacePtr());
  }
  template <typename _InterfaceType> _com_ptr_t(_InterfaceType* p) : m_pInterface(nullptr) { _QueryFrom(p); }
  explicit _com_ptr_t(const CLSID& clsid, IUnknown* pOuter = nullptr, DWORD dwClsContext = CLSCTX_ALL)
      : m_pInterface(nullptr) {
    _CheckCreate(CreateInstance(clsid, pOuter, dwClsContext));
  }
  explicit _com_ptr_t(LPCWSTR str, IUnknown* pOuter = nullptr, DWORD dwClsContext = CLSCTX_ALL)
      : m_pInterface(nullptr) {
    _CheckCreate(CreateInstance(str, pOuter, dwClsContext));
  }
  explicit _com_ptr_t(LPCSTR str, IUnknown* pOuter = nullptr, DWORD dwClsContext = CLSCTX_ALL)
      : m_pInterface(nullptr) {
    _CheckCreate(CreateInstance(str, pOuter, dwClsContext));
  }
  ~_com_ptr_t() { _Release(); }

  _com_ptr_t& operator=(Interface* pInterface) noexcept {
    if (m_pInterface != pInterface) {
      Interface* old = m_pInterface;
      m_pInterface = pInterface;
      _AddRef();
      if (old) old->Release();
    }
    return *this;
  }
  _com_ptr_t& operator=(const _com_ptr_t& cp) noexcept { return *this = cp.m_pInterface; }
  _com_ptr_t& operator=(_com_ptr_t&& cp) noexcept {
    if (this != &cp) {
      _Release();
      m_pInterface = std::exchange(cp.m_pInterface, nullptr);
    }
    return *this;
  }
  _com_ptr_t& operator=(std::nullptr_t) noexcept {
    _Release();
    return *this;
  }
  _com_ptr_t& operator=(int null) {
    if (null != 0) _com_issue_error(E_POINTER);
    return *this = nullptr;
  }
  template <typename _OtherIID> _com_ptr_t& operator=(const _com_ptr_t<_OtherIID>& p) {
    _QueryFrom(p.GetInterfacePtr());
    return *this;
  }
  template <typename _InterfaceType> _com_ptr_t& operator=(_InterfaceType* p) {
    _QueryFrom(p);
    return *this;
  }

  HRESULT CreateInstance(const CLSID& rclsid, IUnknown* pOuter = nullptr, DWORD dwClsContext = CLSCTX_ALL) {
    _Release();
    Interface* p = nullptr;
    HRESULT hr = ::CoCreateInstance(rclsid, pOuter, dwClsContext, GetIID(), reinterpret_cast<void**>(&p));
    if (SUCCEEDED(hr)) m_pInterface = p;
    return hr;
  }
  // A braced CLSID or a ProgID.
  HRESULT CreateInstance(LPCWSTR clsidString, IUnknown* pOuter = nullptr, DWORD dwClsContext = CLSCTX_ALL) {
    if (!clsidString) return E_INVALIDARG;
    CLSID clsid;
    HRESULT hr = clsidString[0] == u'{' ? ::CLSIDFromString(clsidString, &clsid)
                                        : ::CLSIDFromProgID(clsidString, &clsid);
    return FAILED(hr) ? hr : CreateInstance(clsid, pOuter, dwClsContext);
  }
  HRESULT CreateInstance(LPCSTR clsidStringA, IUnknown* pOuter = nullptr, DWORD dwClsContext = CLSCTX_ALL) {
    if (!clsidStringA) return E_INVALIDARG;
    _bstr_t wide(clsidStringA);
    return CreateInstance(static_cast<const WCHAR*>(wide), pOuter, dwClsContext);
  }

  void Attach(Interface* pInterface) noexcept {
    _Release();
    m_pInterface = pInterface;
  }
  void Attach(Interface* pInterface, bool fAddRef) {
    if (fAddRef && !pInterface) _com_issue_error(E_POINTER);
    _Release();
    m_pInterface = pInterface;
    if (fAddRef) _AddRef();
  }
  Interface* Detach() noexcept { return std::exchange(m_pInterface, nullptr); }

  void AddRef() {
    if (!m_pInterface) _com_issue_error(E_POINTER);
    m_pInterface->AddRef();
  }
  void Release() {
    if (!m_pInterface) _com_issue_error(E_POINTER);
    m_pInterface->Release();
    m_pInterface = nullptr;
  }

  Interface* GetInterfacePtr() const noexcept { return m_pInterface; }
  Interface*& GetInterfacePtr() noexcept { return m_pInterface; }
  operator Interface*() const noexcept { return m_pInterface; }
  operator Interface&() const {
    if (!m_pInterface) _com_issue_error(E_POINTER);
    return *m_pInterface;
  }
  Interface& operator*() const {
    if (!m_pInterface) _com_issue_error(E_POINTER);
    return *m_pInterface;
  }
  // Releases what is held and gives the slot to an out parameter.
  Interface** operator&() noexcept {
    _Release();
    return &m_pInterface;
  }
  Interface* operator->() const {
    if (!m_pInterface) _com_issue_error(E_POINTER);
    return m_pInterface;
  }
  operator bool() const noexcept { return m_pInterface != nullptr; }

  template <typename _InterfaceType> HRESULT QueryInterface(const IID& iid, _InterfaceType*& p) noexcept {
    if (!m_pInterface) return E_POINTER;
    return m_pInterface->QueryInterface(iid, reinterpret_cast<void**>(&p));
  }
  template <typename _InterfaceType> HRESULT QueryInterface(const IID& iid, _InterfaceType** p) noexcept {
    return QueryInterface(iid, *p);
  }

  bool operator==(std::nullptr_t) const noexcept { return m_pInterface == nullptr; }
  bool operator!=(std::nullptr_t) const noexcept { return m_pInterface != nullptr; }
  bool operator==(int null) const {
    if (null != 0) _com_issue_error(E_POINTER);
    return m_pInterface == nullptr;
  }
  bool operator!=(int null) const { return !(*this == null); }
  bool operator==(Interface* p) const { return _CompareUnk(p) == 0; }
  bool operator!=(Interface* p) const { return _CompareUnk(p) != 0; }
  template <typename _OtherIID> bool operator==(const _com_ptr_t<_OtherIID>& p) const {
    return _CompareUnk(p.GetInterfacePtr()) == 0;
  }
  template <typename _OtherIID> bool operator!=(const _com_ptr_t<_OtherIID>& p) const {
    return _CompareUnk(p.GetInterfacePtr()) != 0;
  }
  bool operator==(const _com_ptr_t& p) const { return _CompareUnk(p.m_pInterface) == 0; }
  bool operator!=(const _com_ptr_t& p) const { return _CompareUnk(p.m_pInterface) != 0; }

 private:
  void _AddRef() noexcept {
    if (m_pInterface) m_pInterface->AddRef();
  }
  void _Release() noexcept {
    if (Interface* p = std::exchange(m_pInterface, nullptr)) p->Release();
  }
  template <typename _InterfaceType> void _QueryFrom(_InterfaceType* p) {
    Interface* found = nullptr;
    HRESULT hr = p ? p->QueryInterface(GetIID(), reinterpret_cast<void**>(&found)) : E_NOINTERFACE;
    Attach(SUCCEEDED(hr) ? found : nullptr);
    if (FAILED(hr) && hr != E_NOINTERFACE) _com_issue_error(hr);
  }
  void _CheckCreate(HRESULT hr) {
    if (FAILED(hr) && hr != E_NOINTERFACE) _com_issue_error(hr);
  }
  // Compares object identities (their IUnknown), as COM requires.
  template <typename _InterfaceType> int _CompareUnk(_InterfaceType* p) const {
    if (static_cast<void*>(m_pInterface) == static_cast<void*>(p)) return 0;
    if (!m_pInterface || !p) return m_pInterface ? 1 : -1;
    IUnknown* a = nullptr;
    IUnknown* b = nullptr;
    HRESULT hrA = m_pInterface->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&a));
    HRESULT hrB = p->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&b));
    int result = (SUCCEEDED(hrA) && SUCCEEDED(hrB)) ? (a == b ? 0 : (a < b ? -1 : 1)) : -1;
    if (a) a->Release();
    if (b) b->Release();
    if (FAILED(hrA) || FAILED(hrB)) _com_issue_error(FAILED(hrA) ? hrA : hrB);
    return result;
  }

  Interface* m_pInterface;
};

template <typename _IIID> bool operator==(std::nullptr_t, const _com_ptr_t<_IIID>& p) noexcept { return p == nullptr; }
template <typename _IIID> bool operator!=(std::nullptr_t, const _com_ptr_t<_IIID>& p) noexcept { return p != nullptr; }

#define _COM_SMARTPTR_TYPEDEF(Interface, IID) typedef _com_ptr_t<_com_IIID<Interface, &IID> > Interface##Ptr
