// Compiler COM support: _com_error, and smart-pointer typedefs of the standard interfaces.
#pragma once
#include "comip.h"
#include "comutil.h"
#include "oaidl.h"
#include "objidl.h"

class _com_error {
 public:
  _com_error(HRESULT hr, IErrorInfo* perrinfo = nullptr, bool fAddRef = false) noexcept
      : m_hresult(hr), m_perrinfo(perrinfo) {
    if (m_perrinfo && fAddRef) m_perrinfo->AddRef();
  }
  // Also records the interface whose call failed; GUID() answers it when there is no error object.
  _com_error(HRESULT hr, IErrorInfo* perrinfo, bool fAddRef, const ::GUID& iid) noexcept
      : _com_error(hr, perrinfo, fAddRef) {
    m_iid = iid;
  }
  _com_error(const _com_error& that) noexcept : _com_error(that.m_hresult, that.m_perrinfo, true, that.m_iid) {}
  virtual ~_com_error() noexcept {
    if (m_perrinfo) m_perrinfo->Release();
    delete[] m_pszMsg;
  }
  _com_error& operator=(const _com_error& that) noexcept {
    if (this != &that) {
      _com_error copy(that);
      std::swap(m_hresult, copy.m_hresult);
      std::swap(m_perrinfo, copy.m_perrinfo);
      std::swap(m_pszMsg, copy.m_pszMsg);
      std::swap(m_iid, copy.m_iid);
    }
    return *this;
  }

  HRESULT Error() const noexcept { return m_hresult; }
  WORD WCode() const noexcept { return HRESULTToWCode(m_hresult); }
  // AddRef'd for the caller, or NULL.
  IErrorInfo* ErrorInfo() const noexcept {
    if (m_perrinfo) m_perrinfo->AddRef();
    return m_perrinfo;
  }

  _bstr_t Description() const { return _Text(&IErrorInfo::GetDescription); }
  _bstr_t HelpFile() const { return _Text(&IErrorInfo::GetHelpFile); }
  _bstr_t Source() const { return _Text(&IErrorInfo::GetSource); }
  DWORD HelpContext() const noexcept {
    DWORD context = 0;
    if (m_perrinfo) m_perrinfo->GetHelpContext(&context);
    return context;
  }
  ::GUID GUID() const noexcept {
    ::GUID guid = m_iid;
    if (m_perrinfo) m_perrinfo->GetGUID(&guid);
    return guid;
  }
  // The system's text for the HRESULT ("Unknown error 0x%08X" when it has none); kept with the
  // object.
  const TCHAR* ErrorMessage() const;

  static HRESULT WCodeToHRESULT(WORD wCode) noexcept {
    return wCode >= 0xFE00 ? WCODE_HRESULT_LAST : WCODE_HRESULT_FIRST + wCode;
  }
  static WORD HRESULTToWCode(HRESULT hr) noexcept {
    return (hr >= WCODE_HRESULT_FIRST && hr <= WCODE_HRESULT_LAST) ? WORD(hr - WCODE_HRESULT_FIRST) : 0;
  }

 private:
  static constexpr HRESULT WCODE_HRESULT_FIRST = MAKE_HRESULT(SEVERITY_ERROR, FACILITY_ITF, 0x200);
  static constexpr HRESULT WCODE_HRESULT_LAST = MAKE_HRESULT(SEVERITY_ERROR, FACILITY_ITF + 1, 0) - 1;

  _bstr_t _Text(HRESULT (STDMETHODCALLTYPE IErrorInfo::*get)(BSTR*)) const {
    BSTR text = nullptr;
    if (m_perrinfo) (m_perrinfo->*get)(&text);
    return _bstr_t(text, false);
  }

  HRESULT m_hresult;
  IErrorInfo* m_perrinfo;
  mutable TCHAR* m_pszMsg = nullptr;
  ::GUID m_iid = GUID_NULL;
};

_COM_SMARTPTR_TYPEDEF(IUnknown, __uuidof(IUnknown));
_COM_SMARTPTR_TYPEDEF(IClassFactory, __uuidof(IClassFactory));
_COM_SMARTPTR_TYPEDEF(IDispatch, __uuidof(IDispatch));
_COM_SMARTPTR_TYPEDEF(IErrorInfo, __uuidof(IErrorInfo));
_COM_SMARTPTR_TYPEDEF(ISupportErrorInfo, __uuidof(ISupportErrorInfo));
_COM_SMARTPTR_TYPEDEF(ISequentialStream, __uuidof(ISequentialStream));
_COM_SMARTPTR_TYPEDEF(IStream, __uuidof(IStream));
_COM_SMARTPTR_TYPEDEF(IStorage, __uuidof(IStorage));
