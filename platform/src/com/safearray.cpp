// One-dimensional SAFEARRAY. The descriptor is preceded by a hidden 16-byte header whose last
// DWORD holds the element VARTYPE (FADF_HAVEVARTYPE), as the published layout places it.
// Element contents are not synchronised (callers own that); only cLocks changes atomically.
#include <atomic>
#include <cstring>
#include <limits>

#include "oleauto.h"

namespace {

constexpr size_t kHiddenHeader = 16;
constexpr ULONG kMaxLocks = 0xFFFF;

enum class Kind { Plain, Bstr, Interface, Variant };

struct ElementType {
  Kind kind;
  ULONG size;
  USHORT feature;
};

bool TypeOf(VARTYPE vt, ElementType* type) {
  switch (vt) {
    case VT_I1: case VT_UI1: *type = {Kind::Plain, 1, 0}; return true;
    case VT_I2: case VT_UI2: case VT_BOOL: *type = {Kind::Plain, 2, 0}; return true;
    case VT_I4: case VT_UI4: case VT_INT: case VT_UINT: case VT_R4: case VT_ERROR:
      *type = {Kind::Plain, 4, 0}; return true;
    case VT_I8: case VT_UI8: case VT_R8: case VT_CY: case VT_DATE: *type = {Kind::Plain, 8, 0}; return true;
    case VT_DECIMAL: *type = {Kind::Plain, sizeof(DECIMAL), 0}; return true;
    case VT_BSTR: *type = {Kind::Bstr, sizeof(BSTR), FADF_BSTR}; return true;
    case VT_UNKNOWN: *type = {Kind::Interface, sizeof(IUnknown*), FADF_UNKNOWN}; return true;
    case VT_DISPATCH: *type = {Kind::Interface, sizeof(IDispatch*), FADF_DISPATCH}; return true;
    case VT_VARIANT: *type = {Kind::Variant, sizeof(VARIANT), FADF_VARIANT}; return true;
    default: return false;
  }
}

DWORD* HiddenVartype(SAFEARRAY* psa) { return reinterpret_cast<DWORD*>(psa) - 1; }

std::atomic_ref<ULONG> Locks(SAFEARRAY* psa) { return std::atomic_ref<ULONG>(psa->cLocks); }

bool KindOf(SAFEARRAY* psa, Kind* kind) {
  VARTYPE vt;
  if (FAILED(SafeArrayGetVartype(psa, &vt))) {
    *kind = Kind::Plain;
    return true;  // no type recorded: plain bytes of cbElements
  }
  ElementType type;
  if (!TypeOf(vt, &type)) return false;
  *kind = type.kind;
  return true;
}

BYTE* ElementAt(SAFEARRAY* psa, ULONG offset) { return static_cast<BYTE*>(psa->pvData) + size_t(offset) * psa->cbElements; }

// Offset of an index from the lower bound, or false when outside the bounds.
bool OffsetOf(SAFEARRAY* psa, LONG index, ULONG* offset) {
  const SAFEARRAYBOUND& b = psa->rgsabound[0];
  long long rel = static_cast<long long>(index) - b.lLbound;
  if (rel < 0 || rel >= static_cast<long long>(b.cElements)) return false;
  *offset = static_cast<ULONG>(rel);
  return true;
}

void ReleaseElement(Kind kind, BYTE* p) {
  switch (kind) {
    case Kind::Bstr: {
      BSTR* b = reinterpret_cast<BSTR*>(p);
      SysFreeString(*b);
      *b = nullptr;
      break;
    }
    case Kind::Interface: {
      IUnknown** u = reinterpret_cast<IUnknown**>(p);
      if (*u) (*u)->Release();
      *u = nullptr;
      break;
    }
    case Kind::Variant: VariantClear(reinterpret_cast<VARIANT*>(p)); break;
    case Kind::Plain: break;
  }
}

void ReleaseRange(SAFEARRAY* psa, Kind kind, ULONG from, ULONG to) {
  if (kind == Kind::Plain || !psa->pvData) return;
  for (ULONG i = from; i < to; ++i) ReleaseElement(kind, ElementAt(psa, i));
}

// Copies one element into zeroed (or cleared) storage at dst.
HRESULT CopyElement(Kind kind, ULONG size, const BYTE* src, BYTE* dst) {
  switch (kind) {
    case Kind::Plain: std::memcpy(dst, src, size); return S_OK;
    case Kind::Bstr: {
      BSTR from = *reinterpret_cast<const BSTR*>(src);
      BSTR copy = nullptr;
      if (from) {
        copy = SysAllocStringByteLen(reinterpret_cast<LPCSTR>(from), SysStringByteLen(from));
        if (!copy) return E_OUTOFMEMORY;
      }
      *reinterpret_cast<BSTR*>(dst) = copy;
      return S_OK;
    }
    case Kind::Interface: {
      IUnknown* from = *reinterpret_cast<IUnknown* const*>(src);
      if (from) from->AddRef();
      *reinterpret_cast<IUnknown**>(dst) = from;
      return S_OK;
    }
    case Kind::Variant: {
      VARIANT* to = reinterpret_cast<VARIANT*>(dst);
      VariantInit(to);
      return VariantCopy(to, reinterpret_cast<const VARIANT*>(src));
    }
  }
  return E_UNEXPECTED;
}

// Holds a lock on the array for the length of an element operation.
class ScopedLock {
 public:
  explicit ScopedLock(SAFEARRAY* psa) : m_psa(psa), m_hr(SafeArrayLock(psa)) {}
  ~ScopedLock() {
    if (SUCCEEDED(m_hr)) SafeArrayUnlock(m_psa);
  }
  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;
  HRESULT Result() const { return m_hr; }

 private:
  SAFEARRAY* m_psa;
  HRESULT m_hr;
};

bool ValidArray(SAFEARRAY* psa) { return psa && psa->cDims == 1 && psa->cbElements != 0; }

// Locked element pointer for get/put; fails with the published codes.
HRESULT Locate(SAFEARRAY* psa, LONG* rgIndices, BYTE** element) {
  if (!ValidArray(psa) || !rgIndices) return E_INVALIDARG;
  ULONG offset;
  if (!OffsetOf(psa, rgIndices[0], &offset)) return DISP_E_BADINDEX;
  *element = ElementAt(psa, offset);
  return S_OK;
}

bool DataSize(ULONG count, ULONG size, size_t* bytes) {
  if (size != 0 && count > std::numeric_limits<size_t>::max() / size) return false;
  *bytes = size_t(count) * size;
  return true;
}

}  // namespace

extern "C" SAFEARRAY* SafeArrayCreate(VARTYPE vt, UINT cDims, SAFEARRAYBOUND* rgsabound) {
  ElementType type;
  if (cDims != 1 || !rgsabound || !TypeOf(vt, &type)) return nullptr;
  size_t bytes;
  if (!DataSize(rgsabound[0].cElements, type.size, &bytes)) return nullptr;
  auto* block = static_cast<BYTE*>(CoTaskMemAlloc(kHiddenHeader + sizeof(SAFEARRAY)));
  if (!block) return nullptr;
  std::memset(block, 0, kHiddenHeader + sizeof(SAFEARRAY));
  auto* psa = reinterpret_cast<SAFEARRAY*>(block + kHiddenHeader);
  *HiddenVartype(psa) = vt;
  psa->cDims = 1;
  psa->fFeatures = static_cast<USHORT>(FADF_HAVEVARTYPE | type.feature);
  psa->cbElements = type.size;
  psa->rgsabound[0] = rgsabound[0];
  if (bytes) {
    psa->pvData = CoTaskMemAlloc(bytes);
    if (!psa->pvData) {
      CoTaskMemFree(block);
      return nullptr;
    }
    std::memset(psa->pvData, 0, bytes);
  }
  return psa;
}

extern "C" SAFEARRAY* SafeArrayCreateVector(VARTYPE vt, LONG lLbound, ULONG cElements) {
  SAFEARRAYBOUND bound = {cElements, lLbound};
  return SafeArrayCreate(vt, 1, &bound);
}

extern "C" HRESULT SafeArrayDestroy(SAFEARRAY* psa) {
  if (!psa) return S_OK;
  if (Locks(psa).load() > 0) return DISP_E_ARRAYISLOCKED;
  Kind kind;
  if (psa->cDims == 1 && KindOf(psa, &kind)) ReleaseRange(psa, kind, 0, psa->rgsabound[0].cElements);
  // Descriptors and data that the caller placed (auto, static, embedded) are not ours to free.
  if (psa->fFeatures & (FADF_AUTO | FADF_STATIC | FADF_EMBEDDED)) return S_OK;
  CoTaskMemFree(psa->pvData);
  CoTaskMemFree(reinterpret_cast<BYTE*>(psa) - kHiddenHeader);
  return S_OK;
}

extern "C" UINT SafeArrayGetDim(SAFEARRAY* psa) { return psa ? psa->cDims : 0; }

extern "C" UINT SafeArrayGetElemsize(SAFEARRAY* psa) { return psa ? psa->cbElements : 0; }

extern "C" HRESULT SafeArrayGetLBound(SAFEARRAY* psa, UINT nDim, LONG* plLbound) {
  if (!psa || !plLbound) return E_INVALIDARG;
  if (nDim == 0 || nDim > psa->cDims) return DISP_E_BADINDEX;
  *plLbound = psa->rgsabound[psa->cDims - nDim].lLbound;
  return S_OK;
}

extern "C" HRESULT SafeArrayGetUBound(SAFEARRAY* psa, UINT nDim, LONG* plUbound) {
  if (!psa || !plUbound) return E_INVALIDARG;
  if (nDim == 0 || nDim > psa->cDims) return DISP_E_BADINDEX;
  const SAFEARRAYBOUND& b = psa->rgsabound[psa->cDims - nDim];
  // An empty array answers lLbound - 1, as published.
  *plUbound = static_cast<LONG>(static_cast<long long>(b.lLbound) + b.cElements - 1);
  return S_OK;
}

extern "C" HRESULT SafeArrayGetVartype(SAFEARRAY* psa, VARTYPE* pvt) {
  if (!psa || !pvt) return E_INVALIDARG;
  if (psa->fFeatures & FADF_HAVEVARTYPE) *pvt = static_cast<VARTYPE>(*HiddenVartype(psa));
  else if (psa->fFeatures & FADF_BSTR) *pvt = VT_BSTR;
  else if (psa->fFeatures & FADF_UNKNOWN) *pvt = VT_UNKNOWN;
  else if (psa->fFeatures & FADF_DISPATCH) *pvt = VT_DISPATCH;
  else if (psa->fFeatures & FADF_VARIANT) *pvt = VT_VARIANT;
  else return E_INVALIDARG;
  return S_OK;
}

extern "C" HRESULT SafeArrayLock(SAFEARRAY* psa) {
  if (!psa) return E_INVALIDARG;
  auto locks = Locks(psa);
  ULONG n = locks.load();
  do {
    if (n >= kMaxLocks) return E_UNEXPECTED;
  } while (!locks.compare_exchange_weak(n, n + 1));
  return S_OK;
}

extern "C" HRESULT SafeArrayUnlock(SAFEARRAY* psa) {
  if (!psa) return E_INVALIDARG;
  auto locks = Locks(psa);
  ULONG n = locks.load();
  do {
    if (n == 0) return E_UNEXPECTED;
  } while (!locks.compare_exchange_weak(n, n - 1));
  return S_OK;
}

extern "C" HRESULT SafeArrayAccessData(SAFEARRAY* psa, void** ppvData) {
  if (!psa || !ppvData) return E_INVALIDARG;
  HRESULT hr = SafeArrayLock(psa);
  *ppvData = SUCCEEDED(hr) ? psa->pvData : nullptr;
  return hr;
}

extern "C" HRESULT SafeArrayUnaccessData(SAFEARRAY* psa) { return SafeArrayUnlock(psa); }

extern "C" HRESULT SafeArrayPtrOfIndex(SAFEARRAY* psa, LONG* rgIndices, void** ppvData) {
  if (!ppvData) return E_INVALIDARG;
  BYTE* element = nullptr;
  HRESULT hr = Locate(psa, rgIndices, &element);
  *ppvData = element;
  return hr;
}

extern "C" HRESULT SafeArrayGetElement(SAFEARRAY* psa, LONG* rgIndices, void* pv) {
  if (!pv) return E_INVALIDARG;
  BYTE* element;
  HRESULT hr = Locate(psa, rgIndices, &element);
  if (FAILED(hr)) return hr;
  Kind kind;
  if (!KindOf(psa, &kind)) return DISP_E_BADVARTYPE;
  ScopedLock lock(psa);
  if (FAILED(lock.Result())) return lock.Result();
  return CopyElement(kind, psa->cbElements, element, static_cast<BYTE*>(pv));
}

extern "C" HRESULT SafeArrayPutElement(SAFEARRAY* psa, LONG* rgIndices, void* pv) {
  BYTE* element;
  HRESULT hr = Locate(psa, rgIndices, &element);
  if (FAILED(hr)) return hr;
  Kind kind;
  if (!KindOf(psa, &kind)) return DISP_E_BADVARTYPE;
  // BSTR and interface elements are passed by value (pv is the BSTR / pointer itself).
  if (!pv && (kind == Kind::Plain || kind == Kind::Variant)) return E_INVALIDARG;
  ScopedLock lock(psa);
  if (FAILED(lock.Result())) return lock.Result();
  switch (kind) {
    case Kind::Plain: std::memcpy(element, pv, psa->cbElements); return S_OK;
    case Kind::Variant: return VariantCopy(reinterpret_cast<VARIANT*>(element), static_cast<VARIANT*>(pv));
    case Kind::Bstr:
    case Kind::Interface: {
      BYTE fresh[sizeof(void*)];
      hr = CopyElement(kind, psa->cbElements, reinterpret_cast<const BYTE*>(&pv), fresh);
      if (FAILED(hr)) return hr;
      ReleaseElement(kind, element);  // after the copy, so storing an element over itself is safe
      std::memcpy(element, fresh, sizeof(fresh));
      return S_OK;
    }
  }
  return E_UNEXPECTED;
}

extern "C" HRESULT SafeArrayRedim(SAFEARRAY* psa, SAFEARRAYBOUND* psaboundNew) {
  if (!ValidArray(psa) || !psaboundNew) return E_INVALIDARG;
  if (Locks(psa).load() > 0) return DISP_E_ARRAYISLOCKED;
  if (psa->fFeatures & (FADF_AUTO | FADF_STATIC | FADF_EMBEDDED | FADF_FIXEDSIZE)) return E_INVALIDARG;
  Kind kind;
  if (!KindOf(psa, &kind)) return DISP_E_BADVARTYPE;
  ULONG oldCount = psa->rgsabound[0].cElements, newCount = psaboundNew->cElements;
  size_t oldBytes, newBytes;
  if (!DataSize(oldCount, psa->cbElements, &oldBytes) || !DataSize(newCount, psa->cbElements, &newBytes))
    return E_OUTOFMEMORY;
  void* data = nullptr;
  if (newBytes) {
    data = CoTaskMemAlloc(newBytes);
    if (!data) return E_OUTOFMEMORY;
    std::memset(data, 0, newBytes);
    if (psa->pvData) std::memcpy(data, psa->pvData, oldBytes < newBytes ? oldBytes : newBytes);
  }
  if (newCount < oldCount) ReleaseRange(psa, kind, newCount, oldCount);
  CoTaskMemFree(psa->pvData);
  psa->pvData = data;
  psa->rgsabound[0] = *psaboundNew;
  return S_OK;
}

extern "C" HRESULT SafeArrayCopy(SAFEARRAY* psa, SAFEARRAY** ppsaOut) {
  if (!ppsaOut) return E_INVALIDARG;
  *ppsaOut = nullptr;
  if (!psa) return S_OK;
  VARTYPE vt;
  if (!ValidArray(psa) || FAILED(SafeArrayGetVartype(psa, &vt))) return E_INVALIDARG;
  Kind kind;
  if (!KindOf(psa, &kind)) return DISP_E_BADVARTYPE;
  SAFEARRAY* copy = SafeArrayCreate(vt, 1, psa->rgsabound);
  if (!copy) return E_OUTOFMEMORY;
  for (ULONG i = 0; i < psa->rgsabound[0].cElements; ++i) {
    HRESULT hr = CopyElement(kind, psa->cbElements, ElementAt(psa, i), ElementAt(copy, i));
    if (FAILED(hr)) {
      SafeArrayDestroy(copy);
      return hr;
    }
  }
  *ppsaOut = copy;
  return S_OK;
}
