// Library half of the compiler COM support: raising _com_error, the _com_util conversions and
// the message texts of _com_error::ErrorMessage.
#include <cstdio>
#include <cstring>
#include <string>

#include "adplatform.h"
#include "adplatform_com.h"
#include "comdef.h"

namespace {

struct MessageText {
  HRESULT hr;
  const char* text;
};

// The system's texts for the codes this platform produces.
const MessageText kMessages[] = {
    {S_OK, "The operation completed successfully."},
    {S_FALSE, "Incorrect function."},
    {E_UNEXPECTED, "Catastrophic failure"},
    {E_NOTIMPL, "Not implemented"},
    {E_OUTOFMEMORY, "Not enough memory resources are available to complete this operation."},
    {E_INVALIDARG, "The parameter is incorrect."},
    {E_NOINTERFACE, "No such interface supported"},
    {E_POINTER, "Invalid pointer"},
    {E_HANDLE, "The handle is invalid."},
    {E_ABORT, "Operation aborted"},
    {E_FAIL, "Unspecified error"},
    {E_ACCESSDENIED, "Access is denied."},
    {E_PENDING, "The data necessary to complete this operation is not yet available."},
    {CO_E_NOTINITIALIZED, "CoInitialize has not been called."},
    {CO_E_ALREADYINITIALIZED, "CoInitialize has already been called."},
    {CO_E_CLASSSTRING, "Invalid class string"},
    {CO_E_DLLNOTFOUND, "DLL for class not found"},
    {CO_E_ERRORINDLL, "Error in the DLL"},
    {REGDB_E_CLASSNOTREG, "Class not registered"},
    {REGDB_E_READREGDB, "Could not read key from registry"},
    {CLASS_E_NOAGGREGATION, "Class does not support aggregation (or class object is remote)"},
    {CLASS_E_CLASSNOTAVAILABLE, "ClassFactory cannot supply requested class"},
    {MK_E_UNAVAILABLE, "Operation unavailable"},
    {RPC_E_CHANGED_MODE, "Cannot change thread mode after it is set."},
    {DISP_E_MEMBERNOTFOUND, "Member not found."},
    {DISP_E_TYPEMISMATCH, "Type mismatch."},
    {DISP_E_UNKNOWNNAME, "Unknown name."},
    {DISP_E_BADVARTYPE, "Bad variable type."},
    {DISP_E_EXCEPTION, "Exception occurred."},
    {DISP_E_OVERFLOW, "Out of present range."},
    {DISP_E_BADINDEX, "Invalid index."},
    {DISP_E_ARRAYISLOCKED, "Memory is locked."},
    {DISP_E_BADPARAMCOUNT, "Invalid number of parameters."},
    {STG_E_INVALIDFUNCTION, "Unable to perform requested operation."},
    {STG_E_FILENOTFOUND, "%1 could not be found."},
    {STG_E_ACCESSDENIED, "Access Denied."},
    {STG_E_INSUFFICIENTMEMORY, "There is insufficient memory available to complete operation."},
    {STG_E_INVALIDPOINTER, "Invalid pointer error."},
    {STG_E_MEDIUMFULL, "There is insufficient disk space to complete operation."},
    {STG_E_INVALIDFLAG, "Invalid flag error."},
    {STG_E_INVALIDPARAMETER, "Invalid parameter error."},
    {HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), "The system cannot find the file specified."},
    {HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND), "The system cannot find the path specified."},
    {HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS), "Cannot create a file when that file already exists."},
    {HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND), "The specified module could not be found."},
    {HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND), "The specified procedure could not be found."},
};

}  // namespace

void _com_issue_error(HRESULT hr) { throw _com_error(hr); }

void _com_issue_errorex(HRESULT hr, IUnknown* punk, REFIID riid) {
  IErrorInfo* info = nullptr;
  ISupportErrorInfo* support = nullptr;
  if (punk && SUCCEEDED(punk->QueryInterface(IID_ISupportErrorInfo, reinterpret_cast<void**>(&support))) &&
      support) {
    if (support->InterfaceSupportsErrorInfo(riid) == S_OK) GetErrorInfo(0, &info);
    support->Release();
  }
  throw _com_error(hr, info, false, riid);
}

namespace _com_util {

BSTR ConvertStringToBSTR(const char* pSrc) {
  if (!pSrc) return nullptr;
  std::u16string wide = adp::Utf8ToUtf16(pSrc);
  BSTR result = SysAllocStringLen(wide.data(), static_cast<UINT>(wide.size()));
  if (!result) _com_issue_error(E_OUTOFMEMORY);
  return result;
}

char* ConvertBSTRToString(BSTR pSrc) {
  if (!pSrc) return nullptr;
  std::string narrow = adp::Utf16ToUtf8(pSrc, SysStringLen(pSrc));
  char* result = new (std::nothrow) char[narrow.size() + 1];
  if (!result) _com_issue_error(E_OUTOFMEMORY);
  std::memcpy(result, narrow.data(), narrow.size());
  result[narrow.size()] = 0;
  return result;
}

}  // namespace _com_util

const TCHAR* _com_error::ErrorMessage() const {
  if (!m_pszMsg) {
    std::string text = adp::ErrorMessageText(m_hresult);
    m_pszMsg = new (std::nothrow) char[text.size() + 1];
    if (!m_pszMsg) return "";
    std::memcpy(m_pszMsg, text.c_str(), text.size() + 1);
  }
  return m_pszMsg;
}

namespace adp {

std::string ErrorMessageText(HRESULT hr) {
  char buffer[64];
  if (WORD wCode = _com_error::HRESULTToWCode(hr)) {
    std::snprintf(buffer, sizeof(buffer), "IDispatch error #%d", wCode);
    return buffer;
  }
  for (const MessageText& m : kMessages) {
    if (m.hr == hr) return m.text;
  }
  std::snprintf(buffer, sizeof(buffer), "Unknown error 0x%08X", static_cast<unsigned>(hr));
  return buffer;
}

}  // namespace adp
