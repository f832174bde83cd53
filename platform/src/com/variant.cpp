// VARIANT ownership: a VARIANT owns its BSTR, its interface reference and its SAFEARRAY; by
// reference (VT_BYREF) it owns nothing. VT_RECORD is not supported (no IRecordInfo here).
#include <cstring>

#include "oleauto.h"

namespace {

bool ValidBaseType(VARTYPE base) {
  switch (base) {
    case VT_I2: case VT_I4: case VT_R4: case VT_R8: case VT_CY: case VT_DATE: case VT_BSTR:
    case VT_DISPATCH: case VT_ERROR: case VT_BOOL: case VT_UNKNOWN: case VT_DECIMAL: case VT_I1:
    case VT_UI1: case VT_UI2: case VT_UI4: case VT_I8: case VT_UI8: case VT_INT: case VT_UINT:
      return true;
    default:
      return false;
  }
}

bool ValidType(VARTYPE vt) {
  VARTYPE base = vt & ~(VT_BYREF | VT_ARRAY);
  if (vt & VT_BYREF) return ValidBaseType(base) || base == VT_VARIANT;
  if (vt & VT_ARRAY) return ValidBaseType(base) || base == VT_VARIANT;
  return vt == VT_EMPTY || vt == VT_NULL || ValidBaseType(vt);
}

}  // namespace

extern "C" void VariantInit(VARIANTARG* pvarg) {
  if (!pvarg) return;
  pvarg->vt = VT_EMPTY;
  pvarg->wReserved1 = pvarg->wReserved2 = pvarg->wReserved3 = 0;
}

extern "C" HRESULT VariantClear(VARIANTARG* pvarg) {
  if (!pvarg) return E_INVALIDARG;
  VARTYPE vt = pvarg->vt;
  if (!ValidType(vt)) return DISP_E_BADVARTYPE;
  if (vt & VT_BYREF) {
    // nothing owned
  } else if (vt & VT_ARRAY) {
    HRESULT hr = SafeArrayDestroy(pvarg->parray);
    if (FAILED(hr)) return hr;
  } else if (vt == VT_BSTR) {
    SysFreeString(pvarg->bstrVal);
  } else if ((vt == VT_UNKNOWN || vt == VT_DISPATCH) && pvarg->punkVal) {
    pvarg->punkVal->Release();
  }
  pvarg->vt = VT_EMPTY;
  pvarg->llVal = 0;
  return S_OK;
}

extern "C" HRESULT VariantCopy(VARIANTARG* pvargDest, const VARIANTARG* pvargSrc) {
  if (!pvargDest || !pvargSrc) return E_INVALIDARG;
  if (pvargDest == pvargSrc) return S_OK;
  VARTYPE vt = pvargSrc->vt;
  if (!ValidType(vt)) return DISP_E_BADVARTYPE;
  // Take the copy first so a source held by the destination (an array element, say) survives.
  VARIANT copy;
  std::memcpy(&copy, pvargSrc, sizeof(VARIANT));
  if (vt & VT_BYREF) {
    // shallow by definition
  } else if (vt & VT_ARRAY) {
    HRESULT hr = SafeArrayCopy(pvargSrc->parray, &copy.parray);
    if (FAILED(hr)) return hr;
  } else if (vt == VT_BSTR && pvargSrc->bstrVal) {
    copy.bstrVal = SysAllocStringByteLen(reinterpret_cast<LPCSTR>(pvargSrc->bstrVal),
                                         SysStringByteLen(pvargSrc->bstrVal));
    if (!copy.bstrVal) return E_OUTOFMEMORY;
  } else if ((vt == VT_UNKNOWN || vt == VT_DISPATCH) && pvargSrc->punkVal) {
    pvargSrc->punkVal->AddRef();
  }
  HRESULT hr = VariantClear(pvargDest);
  if (FAILED(hr)) {
    VariantClear(&copy);
    return hr;
  }
  std::memcpy(pvargDest, &copy, sizeof(VARIANT));
  return S_OK;
}
