// Compiler COM support: _bstr_t (reference-counted BSTR holder), _variant_t (owning VARIANT), the
// _com_util text conversions and the error raisers. Failures raise _com_error (comdef.h).
#pragma once
#include <atomic>
#include <cstddef>
#include <cstring>
#include <new>
#include <utility>

#include "oleauto.h"

class _com_error;

// Throw a _com_error for hr. The second form records the interface whose call failed and takes
// the thread's error object when the object supports it for that interface.
[[noreturn]] void _com_issue_error(HRESULT hr);
[[noreturn]] void _com_issue_errorex(HRESULT hr, IUnknown* punk, REFIID riid);

namespace _com_util {
// UTF-8 (the ANSI code page here) to a new BSTR; raises E_OUTOFMEMORY. NULL gives NULL.
BSTR ConvertStringToBSTR(const char* pSrc);
// A new[]'d UTF-8 copy of the whole BSTR; the caller delete[]s it. NULL gives NULL.
char* ConvertBSTRToString(BSTR pSrc);
}  // namespace _com_util

class _bstr_t {
 public:
  _bstr_t() noexcept : m_Data(nullptr) {}
  _bstr_t(const _bstr_t& s) noexcept : m_Data(s.m_Data) { _AddRef(); }
  _bstr_t(_bstr_t&& s) noexcept : m_Data(std::exchange(s.m_Data, nullptr)) {}
  _bstr_t(const char* s) : m_Data(s ? _Make(_com_util::ConvertStringToBSTR(s)) : nullptr) {}
  _bstr_t(const WCHAR* s) : m_Data(s ? _Make(_CheckAlloc(::SysAllocString(s))) : nullptr) {}
  // fCopy false takes over bstr (freed with this object); true copies it whole.
  _bstr_t(BSTR bstr, bool fCopy) : m_Data(nullptr) {
    if (bstr) m_Data = _Make(fCopy ? _CopyBSTR(bstr) : bstr);
  }
  ~_bstr_t() { _Free(); }

  _bstr_t& operator=(const _bstr_t& s) noexcept {
    if (m_Data != s.m_Data) {
      _bstr_t copy(s);
      std::swap(m_Data, copy.m_Data);
    }
    return *this;
  }
  _bstr_t& operator=(_bstr_t&& s) noexcept {
    if (this != &s) {
      _Free();
      m_Data = std::exchange(s.m_Data, nullptr);
    }
    return *this;
  }
  _bstr_t& operator=(const char* s) { return *this = _bstr_t(s); }
  _bstr_t& operator=(const WCHAR* s) { return *this = _bstr_t(s); }

  _bstr_t& operator+=(const _bstr_t& s) { return *this = *this + s; }
  _bstr_t operator+(const _bstr_t& s) const {
    unsigned int a = length(), b = s.length();
    BSTR joined = _CheckAlloc(::SysAllocStringLen(nullptr, a + b));
    if (a) std::memcpy(joined, _Wide(), a * sizeof(OLECHAR));
    if (b) std::memcpy(joined + a, s._Wide(), b * sizeof(OLECHAR));
    return _bstr_t(joined, false);
  }
  friend _bstr_t operator+(const char* s1, const _bstr_t& s2) { return _bstr_t(s1) + s2; }
  friend _bstr_t operator+(const WCHAR* s1, const _bstr_t& s2) { return _bstr_t(s1) + s2; }

  operator const WCHAR*() const noexcept { return _Wide(); }
  operator WCHAR*() const noexcept { return _Wide(); }
  // UTF-8, converted once and kept with the string.
  operator const char*() const { return m_Data ? m_Data->Narrow() : nullptr; }
  operator char*() const { return m_Data ? m_Data->Narrow() : nullptr; }

  bool operator!() const noexcept { return _Wide() == nullptr; }
  bool operator==(const _bstr_t& s) const noexcept { return _Compare(s) == 0; }
  bool operator!=(const _bstr_t& s) const noexcept { return _Compare(s) != 0; }
  bool operator<(const _bstr_t& s) const noexcept { return _Compare(s) < 0; }
  bool operator>(const _bstr_t& s) const noexcept { return _Compare(s) > 0; }
  bool operator<=(const _bstr_t& s) const noexcept { return _Compare(s) <= 0; }
  bool operator>=(const _bstr_t& s) const noexcept { return _Compare(s) >= 0; }
  bool operator==(const char* s) const { return *this == _bstr_t(s); }
  bool operator!=(const char* s) const { return *this != _bstr_t(s); }
  bool operator==(const WCHAR* s) const { return *this == _bstr_t(s); }
  bool operator!=(const WCHAR* s) const { return *this != _bstr_t(s); }

  // A new BSTR the caller owns (fCopy), or the held one (still owned here).
  BSTR copy(bool fCopy = true) const { return fCopy ? _CopyBSTR(_Wide()) : _Wide(); }
  unsigned int length() const noexcept { return ::SysStringLen(_Wide()); }

  void Assign(BSTR s) { *this = _bstr_t(s, true); }
  BSTR& GetBSTR() {
    if (!m_Data) m_Data = _Make(nullptr);
    return m_Data->wstr;
  }
  // Frees the current string and returns where a callee may store a new one.
  BSTR* GetAddress() {
    Attach(nullptr);
    return &m_Data->wstr;
  }
  void Attach(BSTR s) {
    Data_t* fresh = _Make(s);
    _Free();
    m_Data = fresh;
  }
  // The caller owns the result. A string shared with other holders is copied for the caller.
  BSTR Detach() {
    if (!m_Data) return nullptr;
    BSTR result = m_Data->refs.load() == 1 ? std::exchange(m_Data->wstr, nullptr) : _CopyBSTR(m_Data->wstr);
    _Free();
    return result;
  }

 private:
  struct Data_t {
    explicit Data_t(BSTR s) : wstr(s) {}
    ~Data_t() {
      ::SysFreeString(wstr);
      delete[] narrow.load();
    }
    char* Narrow() {
      char* s = narrow.load(std::memory_order_acquire);
      if (s || !wstr) return s;
      char* fresh = _com_util::ConvertBSTRToString(wstr);
      if (narrow.compare_exchange_strong(s, fresh, std::memory_order_acq_rel)) return fresh;
      delete[] fresh;  // another thread converted first
      return s;
    }
    std::atomic<unsigned long> refs{1};
    BSTR wstr;
    std::atomic<char*> narrow{nullptr};
  };

  static BSTR _CheckAlloc(BSTR b) {
    if (!b) _com_issue_error(E_OUTOFMEMORY);
    return b;
  }
  static BSTR _CopyBSTR(BSTR b) {
    if (!b) return nullptr;
    return _CheckAlloc(::SysAllocStringByteLen(reinterpret_cast<const char*>(b), ::SysStringByteLen(b)));
  }
  // Wraps s (owned); frees s and raises when no holder can be made.
  static Data_t* _Make(BSTR s) {
    Data_t* d = new (std::nothrow) Data_t(s);
    if (!d) {
      ::SysFreeString(s);
      _com_issue_error(E_OUTOFMEMORY);
    }
    return d;
  }
  BSTR _Wide() const noexcept { return m_Data ? m_Data->wstr : nullptr; }
  void _AddRef() noexcept {
    if (m_Data) m_Data->refs.fetch_add(1, std::memory_order_relaxed);
  }
  void _Free() noexcept {
    if (m_Data && m_Data->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete m_Data;
    m_Data = nullptr;
  }
  // Code-unit order; a NULL string equals the empty one.
  int _Compare(const _bstr_t& s) const noexcept {
    const OLECHAR* a = _Wide();
    const OLECHAR* b = s._Wide();
    unsigned int la = length(), lb = s.length();
    for (unsigned int i = 0; i < la && i < lb; ++i) {
      if (a[i] != b[i]) return a[i] < b[i] ? -1 : 1;
    }
    return la == lb ? 0 : (la < lb ? -1 : 1);
  }

  Data_t* m_Data;
};

// A VARIANT that owns its contents (VariantClear on destruction). Conversions between types are
// not offered.
class _variant_t : public ::tagVARIANT {
 public:
  _variant_t() noexcept { ::VariantInit(this); }
  _variant_t(const VARIANT& varSrc) {
    ::VariantInit(this);
    _Check(::VariantCopy(this, &varSrc));
  }
  _variant_t(const _variant_t& varSrc) : _variant_t(static_cast<const VARIANT&>(varSrc)) {}
  _variant_t(_variant_t&& varSrc) noexcept {
    std::memcpy(static_cast<VARIANT*>(this), static_cast<VARIANT*>(&varSrc), sizeof(VARIANT));
    ::VariantInit(&varSrc);
  }
  // fCopy false takes over varSrc's contents and leaves it VT_EMPTY.
  _variant_t(VARIANT& varSrc, bool fCopy) {
    ::VariantInit(this);
    if (fCopy) {
      _Check(::VariantCopy(this, &varSrc));
    } else {
      std::memcpy(static_cast<VARIANT*>(this), &varSrc, sizeof(VARIANT));
      varSrc.vt = VT_EMPTY;
    }
  }
  _variant_t(short sSrc) noexcept { _Set(VT_I2).iVal = sSrc; }
  _variant_t(LONG lSrc, VARTYPE vtSrc = VT_I4) {
    if (vtSrc != VT_I4 && vtSrc != VT_ERROR && vtSrc != VT_INT) _com_issue_error(E_INVALIDARG);
    _Set(vtSrc).lVal = lSrc;
  }
  _variant_t(ULONG ulSrc) noexcept { _Set(VT_UI4).ulVal = ulSrc; }
  _variant_t(LONGLONG llSrc) noexcept { _Set(VT_I8).llVal = llSrc; }
  _variant_t(ULONGLONG ullSrc) noexcept { _Set(VT_UI8).ullVal = ullSrc; }
  _variant_t(float fltSrc) noexcept { _Set(VT_R4).fltVal = fltSrc; }
  _variant_t(double dblSrc) noexcept { _Set(VT_R8).dblVal = dblSrc; }
  _variant_t(bool boolSrc) noexcept { _Set(VT_BOOL).boolVal = boolSrc ? VARIANT_TRUE : VARIANT_FALSE; }
  _variant_t(BYTE bSrc) noexcept { _Set(VT_UI1).bVal = bSrc; }
  _variant_t(const _bstr_t& bstrSrc) { _SetString(bstrSrc.copy()); }
  _variant_t(const WCHAR* pSrc) { _SetString(_bstr_t(pSrc).copy()); }
  _variant_t(const char* pSrc) { _SetString(_bstr_t(pSrc).copy()); }
  _variant_t(IDispatch* pSrc, bool fAddRef = true) noexcept { _SetInterface(VT_DISPATCH, static_cast<IUnknown*>(pSrc), fAddRef); }
  _variant_t(IUnknown* pSrc, bool fAddRef = true) noexcept { _SetInterface(VT_UNKNOWN, pSrc, fAddRef); }
  ~_variant_t() { ::VariantClear(this); }

  _variant_t& operator=(const VARIANT& varSrc) {
    _Check(::VariantCopy(this, &varSrc));
    return *this;
  }
  _variant_t& operator=(const _variant_t& varSrc) { return *this = static_cast<const VARIANT&>(varSrc); }
  _variant_t& operator=(_variant_t&& varSrc) noexcept {
    if (this != &varSrc) {
      Clear();
      std::memcpy(static_cast<VARIANT*>(this), static_cast<VARIANT*>(&varSrc), sizeof(VARIANT));
      ::VariantInit(&varSrc);
    }
    return *this;
  }

  void Clear() { _Check(::VariantClear(this)); }
  // Takes over varSrc's contents; varSrc becomes VT_EMPTY.
  void Attach(VARIANT& varSrc) {
    Clear();
    std::memcpy(static_cast<VARIANT*>(this), &varSrc, sizeof(VARIANT));
    varSrc.vt = VT_EMPTY;
  }
  // Gives the contents to the caller; this becomes VT_EMPTY.
  VARIANT Detach() noexcept {
    VARIANT out;
    std::memcpy(&out, static_cast<VARIANT*>(this), sizeof(VARIANT));
    ::VariantInit(this);
    return out;
  }
  VARIANT& GetVARIANT() noexcept { return *this; }
  VARIANT* GetAddress() {
    Clear();
    return this;
  }

 private:
  static void _Check(HRESULT hr) {
    if (FAILED(hr)) _com_issue_error(hr);
  }
  VARIANT& _Set(VARTYPE vt) noexcept {
    ::VariantInit(this);
    this->llVal = 0;
    this->vt = vt;
    return *this;
  }
  void _SetString(BSTR s) { _Set(VT_BSTR).bstrVal = s; }
  void _SetInterface(VARTYPE vt, IUnknown* p, bool fAddRef) noexcept {
    _Set(vt).punkVal = p;
    if (p && fAddRef) p->AddRef();
  }
};
