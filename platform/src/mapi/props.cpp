// Property-value utilities of MAPI32: copies, sizes, lookups, one-property access on objects,
// row and address-list release, column merging, advise sinks over callbacks, and notification
// copies. Comparisons live in propcompare.cpp.
#include <atomic>
#include <cstring>
#include <limits>
#include <new>

#include "mapi/propcopy.h"
#include "mapicode.h"
#include "mapiutil.h"

using adp::mapi::BaseType;
using adp::mapi::BufferTarget;
using adp::mapi::ChainedTarget;
using adp::mapi::CountingTarget;
using adp::mapi::IsMultiValued;

namespace {

// Checks a caller's count and array before anything behind them is read.
SCODE CheckArray(int cValues, const void* array, size_t elementSize) {
  if (cValues < 0) return MAPI_E_INVALID_PARAMETER;
  if (cValues > 0 && !array) return MAPI_E_INVALID_PARAMETER;
  if (size_t(cValues) * elementSize > std::numeric_limits<ULONG>::max()) return MAPI_E_INVALID_PARAMETER;
  return S_OK;
}

size_t Utf16Length(const char16_t* s) {
  size_t n = 0;
  while (s[n]) ++n;
  return n;
}

ULONG StringBytes(const char* s) { return s ? ULONG(std::strlen(s) + 1) : 0; }
ULONG StringBytes(const char16_t* s) { return s ? ULONG((Utf16Length(s) + 1) * sizeof(char16_t)) : 0; }

ULONG ScalarSize(ULONG type) {
  switch (type) {
    case PT_I2:
      return sizeof(short);
    case PT_LONG:
    case PT_R4:
    case PT_ERROR:
      return 4;
    case PT_BOOLEAN:
      return sizeof(unsigned short);
    case PT_DOUBLE:
    case PT_APPTIME:
    case PT_CURRENCY:
    case PT_I8:
    case PT_SYSTIME:
      return 8;
    case PT_CLSID:
      return sizeof(GUID);
    default:
      return 0;
  }
}

ULONG MultiValuedSize(const SPropValue& v) {
  ULONG type = BaseType(v.ulPropTag);
  ULONG total = 0;
  switch (type) {
    case PT_STRING8:
      for (ULONG i = 0; v.Value.MVszA.lppszA && i < v.Value.MVszA.cValues; ++i)
        total += StringBytes(v.Value.MVszA.lppszA[i]);
      return total;
    case PT_UNICODE:
      for (ULONG i = 0; v.Value.MVszW.lppszW && i < v.Value.MVszW.cValues; ++i)
        total += StringBytes(v.Value.MVszW.lppszW[i]);
      return total;
    case PT_BINARY:
      for (ULONG i = 0; v.Value.MVbin.lpbin && i < v.Value.MVbin.cValues; ++i) total += v.Value.MVbin.lpbin[i].cb;
      return total;
    default:
      // Every multi-valued array starts with its count, whatever the element type.
      return ScalarSize(type) * v.Value.MVl.cValues;
  }
}

// An advise sink that hands each notification batch to a callback with its context.
class CallbackAdviseSink final : public IMAPIAdviseSink {
 public:
  CallbackAdviseSink(LPNOTIFCALLBACK callback, LPVOID context) : m_callback(callback), m_context(context) {}

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (!ppv) return MAPI_E_INVALID_PARAMETER;
    if (riid != IID_IUnknown && riid != IID_IMAPIAdviseSink) {
      *ppv = nullptr;
      return MAPI_E_INTERFACE_NOT_SUPPORTED;
    }
    AddRef();
    *ppv = static_cast<IMAPIAdviseSink*>(this);
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return m_refs.fetch_add(1, std::memory_order_relaxed) + 1; }
  ULONG STDMETHODCALLTYPE Release() override {
    ULONG left = m_refs.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left == 0) delete this;
    return left;
  }
  ULONG STDMETHODCALLTYPE OnNotify(ULONG cNotif, LPNOTIFICATION lpNotifications) override {
    return static_cast<ULONG>(m_callback(m_context, cNotif, lpNotifications));
  }

 private:
  ~CallbackAdviseSink() = default;
  std::atomic<ULONG> m_refs{1};
  LPNOTIFCALLBACK m_callback;
  LPVOID m_context;
};

// Frees with the allocator the caller named when the scope ends.
class CallerBuffer {
 public:
  explicit CallerBuffer(LPFREEBUFFER freeBuffer) : m_free(freeBuffer) {}
  ~CallerBuffer() {
    if (m_ptr) m_free(m_ptr);
  }
  CallerBuffer(const CallerBuffer&) = delete;
  CallerBuffer& operator=(const CallerBuffer&) = delete;
  LPVOID* Out() { return &m_ptr; }
  template <class T> T* As() const { return static_cast<T*>(m_ptr); }

 private:
  LPFREEBUFFER m_free;
  LPVOID m_ptr = nullptr;
};

bool ContainsTag(const SPropTagArray& tags, ULONG ulPropTag) {
  for (ULONG i = 0; i < tags.cValues; ++i)
    if (tags.aulPropTag[i] == ulPropTag) return true;
  return false;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Copies and sizes.

extern "C" SCODE STDAPICALLTYPE PropCopyMore(LPSPropValue lpSPropValueDest, LPSPropValue lpSPropValueSrc,
                                             ALLOCATEMORE* lpfAllocMore, LPVOID lpvObject) {
  if (!lpSPropValueDest || !lpSPropValueSrc || !lpfAllocMore) return MAPI_E_INVALID_PARAMETER;
  ChainedTarget target(lpfAllocMore, lpvObject);
  SPropValue copy;
  SCODE sc = adp::mapi::CopyPropValue(*lpSPropValueSrc, copy, target);
  if (sc == S_OK) *lpSPropValueDest = copy;
  return sc;
}

extern "C" ULONG STDAPICALLTYPE UlPropSize(LPSPropValue lpSPropValue) {
  if (!lpSPropValue) return 0;
  const SPropValue& v = *lpSPropValue;
  if (IsMultiValued(v.ulPropTag)) return MultiValuedSize(v);
  switch (BaseType(v.ulPropTag)) {
    case PT_STRING8:
      return StringBytes(v.Value.lpszA);
    case PT_UNICODE:
      return StringBytes(v.Value.lpszW);
    case PT_BINARY:
      return v.Value.bin.cb;
    default:
      return ScalarSize(BaseType(v.ulPropTag));
  }
}

extern "C" SCODE STDAPICALLTYPE ScCountProps(int cValues, LPSPropValue lpPropArray, ULONG* lpcb) {
  SCODE sc = CheckArray(cValues, lpPropArray, sizeof(SPropValue));
  if (sc != S_OK) return sc;
  CountingTarget counter;
  SPropValue* unused = nullptr;
  sc = adp::mapi::CopyPropArray(ULONG(cValues), lpPropArray, &unused, counter);
  if (sc != S_OK) return sc;
  if (lpcb) *lpcb = static_cast<ULONG>(counter.Total());
  return S_OK;
}

extern "C" SCODE STDAPICALLTYPE ScCopyProps(int cValues, LPSPropValue lpPropArray, LPVOID lpvDst, ULONG* lpcb) {
  SCODE sc = CheckArray(cValues, lpPropArray, sizeof(SPropValue));
  if (sc != S_OK) return sc;
  if (!lpvDst) return MAPI_E_INVALID_PARAMETER;
  // Validate everything before the first byte is written.
  sc = ScCountProps(cValues, lpPropArray, nullptr);
  if (sc != S_OK) return sc;
  BufferTarget buffer(lpvDst);
  SPropValue* copied = nullptr;
  sc = adp::mapi::CopyPropArray(ULONG(cValues), lpPropArray, &copied, buffer);
  if (sc == S_OK && lpcb) *lpcb = static_cast<ULONG>(buffer.Used());
  return sc;
}

// One block holds the array and everything it points to, so one MAPIFreeBuffer releases it.
extern "C" SCODE STDAPICALLTYPE ScDupPropset(int cValues, LPSPropValue lpPropArray,
                                             LPALLOCATEBUFFER lpAllocateBuffer, LPSPropValue* lppPropArray) {
  if (!lpAllocateBuffer || !lppPropArray) return MAPI_E_INVALID_PARAMETER;
  *lppPropArray = nullptr;
  ULONG cb = 0;
  SCODE sc = ScCountProps(cValues, lpPropArray, &cb);
  if (sc != S_OK) return sc;
  LPVOID block = nullptr;
  sc = lpAllocateBuffer(cb, &block);
  if (sc != S_OK) return sc;
  sc = ScCopyProps(cValues, lpPropArray, block, nullptr);
  if (sc != S_OK) return sc;  // cannot happen after a successful count; the block is the caller's
  *lppPropArray = static_cast<LPSPropValue>(block);
  return S_OK;
}

// ---------------------------------------------------------------------------------------------
// Lookups.

// PT_UNSPECIFIED in the tag sought matches a value of any type with that identifier.
extern "C" LPSPropValue STDAPICALLTYPE PpropFindProp(LPSPropValue lpPropArray, ULONG cValues, ULONG ulPropTag) {
  if (!lpPropArray) return nullptr;
  bool anyType = PROP_TYPE(ulPropTag) == PT_UNSPECIFIED;
  for (ULONG i = 0; i < cValues; ++i) {
    ULONG tag = lpPropArray[i].ulPropTag;
    if (tag == ulPropTag || (anyType && PROP_ID(tag) == PROP_ID(ulPropTag))) return &lpPropArray[i];
  }
  return nullptr;
}

// Matches on the property identifier alone.
extern "C" LPSPropValue STDAPICALLTYPE LpValFindProp(ULONG ulPropTag, ULONG cValues, LPSPropValue lpPropArray) {
  if (!lpPropArray) return nullptr;
  for (ULONG i = 0; i < cValues; ++i)
    if (PROP_ID(lpPropArray[i].ulPropTag) == PROP_ID(ulPropTag)) return &lpPropArray[i];
  return nullptr;
}

// Same property set (or both without one), same kind, same number or same name (exact case).
extern "C" BOOL STDAPICALLTYPE FEqualNames(LPMAPINAMEID lpName1, LPMAPINAMEID lpName2) {
  if (!lpName1 || !lpName2) return FALSE;
  if (!lpName1->lpguid != !lpName2->lpguid) return FALSE;
  if (lpName1->lpguid && !IsEqualGUID(*lpName1->lpguid, *lpName2->lpguid)) return FALSE;
  if (lpName1->ulKind != lpName2->ulKind) return FALSE;
  if (lpName1->ulKind == MNID_ID) return lpName1->Kind.lID == lpName2->Kind.lID;
  if (lpName1->ulKind != MNID_STRING) return FALSE;
  const char16_t* a = lpName1->Kind.lpwstrName;
  const char16_t* b = lpName2->Kind.lpwstrName;
  if (!a || !b) return a == b;
  while (*a && *a == *b) ++a, ++b;
  return *a == *b;
}

// ---------------------------------------------------------------------------------------------
// One property of an object.

extern "C" HRESULT STDAPICALLTYPE HrGetOneProp(LPMAPIPROP lpMapiProp, ULONG ulPropTag, LPSPropValue* lppProp) {
  if (!lpMapiProp || !lppProp) return MAPI_E_INVALID_PARAMETER;
  *lppProp = nullptr;
  SizedSPropTagArray(1, tags) = {1, {ulPropTag}};
  ULONG cValues = 0;
  LPSPropValue values = nullptr;
  HRESULT hr = lpMapiProp->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), 0, &cValues, &values);
  if (FAILED(hr)) return hr;
  if (!values || cValues == 0) {
    MAPIFreeBuffer(values);
    return MAPI_E_NOT_FOUND;
  }
  // A property the object cannot give comes back as PT_ERROR: its code is the answer.
  if (PROP_TYPE(values->ulPropTag) == PT_ERROR) {
    HRESULT err = values->Value.err;
    MAPIFreeBuffer(values);
    return err ? err : MAPI_E_NOT_FOUND;
  }
  *lppProp = values;
  return S_OK;
}

extern "C" HRESULT STDAPICALLTYPE HrSetOneProp(LPMAPIPROP lpMapiProp, LPSPropValue lpProp) {
  if (!lpMapiProp || !lpProp) return MAPI_E_INVALID_PARAMETER;
  LPSPropProblemArray problems = nullptr;
  HRESULT hr = lpMapiProp->SetProps(1, lpProp, &problems);
  if (SUCCEEDED(hr) && problems && problems->cProblem > 0) hr = problems->aProblem[0].scode;
  MAPIFreeBuffer(problems);
  return hr;
}

extern "C" BOOL STDAPICALLTYPE FPropExists(LPMAPIPROP lpMapiProp, ULONG ulPropTag) {
  LPSPropValue value = nullptr;
  if (HrGetOneProp(lpMapiProp, ulPropTag, &value) != S_OK) return FALSE;
  MAPIFreeBuffer(value);
  return TRUE;
}

// ---------------------------------------------------------------------------------------------
// Rows and address lists: each row's values are their own block, then the set itself.

extern "C" void STDAPICALLTYPE FreeProws(LPSRowSet lpRows) {
  if (!lpRows) return;
  for (ULONG i = 0; i < lpRows->cRows; ++i) MAPIFreeBuffer(lpRows->aRow[i].lpProps);
  MAPIFreeBuffer(lpRows);
}

extern "C" void STDAPICALLTYPE FreePadrlist(LPADRLIST lpAdrlist) {
  if (!lpAdrlist) return;
  for (ULONG i = 0; i < lpAdrlist->cEntries; ++i) MAPIFreeBuffer(lpAdrlist->aEntries[i].rgPropVals);
  MAPIFreeBuffer(lpAdrlist);
}

// ---------------------------------------------------------------------------------------------
// Columns: the new columns first, in their order, then the table's other columns.

extern "C" HRESULT STDAPICALLTYPE HrAddColumnsEx(LPMAPITABLE lptbl, LPSPropTagArray lpproptagColumnsNew,
                                                 LPALLOCATEBUFFER lpAllocateBuffer, LPFREEBUFFER lpFreeBuffer,
                                                 void (*lpfnFilterColumns)(LPSPropTagArray ptaga)) {
  if (!lptbl || !lpproptagColumnsNew || !lpAllocateBuffer || !lpFreeBuffer) return MAPI_E_INVALID_PARAMETER;
  CallerBuffer current(lpFreeBuffer);
  HRESULT hr = lptbl->QueryColumns(0, reinterpret_cast<LPSPropTagArray*>(current.Out()));
  if (FAILED(hr)) return hr;
  LPSPropTagArray existing = current.As<SPropTagArray>();
  if (!existing) return MAPI_E_CALL_FAILED;
  if (lpfnFilterColumns) lpfnFilterColumns(existing);

  size_t count = size_t(lpproptagColumnsNew->cValues) + existing->cValues;
  if (CbNewSPropTagArray(count) > std::numeric_limits<ULONG>::max()) return MAPI_E_INVALID_PARAMETER;
  CallerBuffer merged(lpFreeBuffer);
  hr = lpAllocateBuffer(static_cast<ULONG>(CbNewSPropTagArray(count)), merged.Out());
  if (FAILED(hr)) return hr;
  LPSPropTagArray columns = merged.As<SPropTagArray>();
  columns->cValues = lpproptagColumnsNew->cValues;
  std::memcpy(columns->aulPropTag, lpproptagColumnsNew->aulPropTag, sizeof(ULONG) * lpproptagColumnsNew->cValues);
  for (ULONG i = 0; i < existing->cValues; ++i)
    if (!ContainsTag(*lpproptagColumnsNew, existing->aulPropTag[i]))
      columns->aulPropTag[columns->cValues++] = existing->aulPropTag[i];
  return lptbl->SetColumns(columns, 0);
}

extern "C" HRESULT STDAPICALLTYPE HrAddColumns(LPMAPITABLE lptbl, LPSPropTagArray lpproptagColumnsNew,
                                               LPALLOCATEBUFFER lpAllocateBuffer, LPFREEBUFFER lpFreeBuffer) {
  return HrAddColumnsEx(lptbl, lpproptagColumnsNew, lpAllocateBuffer, lpFreeBuffer, nullptr);
}

// ---------------------------------------------------------------------------------------------
// Advise sinks and reference counts.

extern "C" HRESULT STDAPICALLTYPE HrAllocAdviseSink(LPNOTIFCALLBACK lpfnCallback, LPVOID lpvContext,
                                                    LPMAPIADVISESINK* lppAdviseSink) {
  if (!lppAdviseSink) return MAPI_E_INVALID_PARAMETER;
  *lppAdviseSink = nullptr;
  if (!lpfnCallback) return MAPI_E_INVALID_PARAMETER;
  auto* sink = new (std::nothrow) CallbackAdviseSink(lpfnCallback, lpvContext);
  if (!sink) return MAPI_E_NOT_ENOUGH_MEMORY;
  *lppAdviseSink = sink;
  return S_OK;
}

extern "C" ULONG STDAPICALLTYPE UlAddRef(LPVOID lpunk) {
  return lpunk ? static_cast<LPUNKNOWN>(lpunk)->AddRef() : 0;
}

extern "C" ULONG STDAPICALLTYPE UlRelease(LPVOID lpunk) {
  return lpunk ? static_cast<LPUNKNOWN>(lpunk)->Release() : 0;
}

// ---------------------------------------------------------------------------------------------
// Notifications, laid out in one block as ScCopyProps lays out values.

extern "C" SCODE STDAPICALLTYPE ScCountNotifications(int cNotifications, LPNOTIFICATION lpNotifications,
                                                     ULONG* lpcb) {
  SCODE sc = CheckArray(cNotifications, lpNotifications, sizeof(NOTIFICATION));
  if (sc != S_OK) return sc;
  CountingTarget counter;
  NOTIFICATION* unused = nullptr;
  sc = adp::mapi::CopyNotifications(ULONG(cNotifications), lpNotifications, &unused, counter);
  if (sc != S_OK) return sc;
  if (lpcb) *lpcb = static_cast<ULONG>(counter.Total());
  return S_OK;
}

extern "C" SCODE STDAPICALLTYPE ScCopyNotifications(int cNotification, LPNOTIFICATION lpNotifications,
                                                    LPVOID lpvDst, ULONG* lpcb) {
  if (!lpvDst) return MAPI_E_INVALID_PARAMETER;
  SCODE sc = ScCountNotifications(cNotification, lpNotifications, nullptr);
  if (sc != S_OK) return sc;
  BufferTarget buffer(lpvDst);
  NOTIFICATION* copied = nullptr;
  sc = adp::mapi::CopyNotifications(ULONG(cNotification), lpNotifications, &copied, buffer);
  if (sc == S_OK && lpcb) *lpcb = static_cast<ULONG>(buffer.Used());
  return sc;
}

// ---------------------------------------------------------------------------------------------
// The utility library needs no per-process state here.

extern "C" SCODE STDAPICALLTYPE ScInitMapiUtil(ULONG ulFlags) { return S_OK; }

extern "C" void STDAPICALLTYPE DeinitMapiUtil(void) {}
