#include "mapi/propcopy.h"

#include <cstring>
#include <limits>

#include "mapicode.h"

namespace adp::mapi {

namespace {

constexpr size_t kAlign = 8;
// Nothing the MAPI allocator hands out can exceed a ULONG count of bytes.
constexpr size_t kMaxBytes = std::numeric_limits<ULONG>::max();

size_t RoundUp(size_t cb) { return (cb + kAlign - 1) & ~(kAlign - 1); }

// Takes room for cb bytes and copies src there; *out keeps the NULL-ness of src.
SCODE CopyBytes(const void* src, size_t cb, void** out, CopyTarget& target) {
  *out = nullptr;
  if (!src) return cb == 0 ? S_OK : MAPI_E_INVALID_PARAMETER;
  void* room = nullptr;
  SCODE sc = target.Take(cb, &room);
  if (sc != S_OK) return sc;
  if (room && cb) std::memcpy(room, src, cb);
  *out = room;
  return S_OK;
}

template <class T> SCODE CopyArray(const T* src, ULONG count, T** out, CopyTarget& target) {
  void* room = nullptr;
  SCODE sc = CopyBytes(src, sizeof(T) * size_t(count), &room, target);
  *out = static_cast<T*>(room);
  return sc;
}

SCODE CopyString(const char* src, char** out, CopyTarget& target) {
  *out = nullptr;
  if (!src) return MAPI_E_INVALID_PARAMETER;
  void* room = nullptr;
  SCODE sc = CopyBytes(src, std::strlen(src) + 1, &room, target);
  *out = static_cast<char*>(room);
  return sc;
}

SCODE CopyString(const char16_t* src, char16_t** out, CopyTarget& target) {
  *out = nullptr;
  if (!src) return MAPI_E_INVALID_PARAMETER;
  size_t len = 0;
  while (src[len]) ++len;
  void* room = nullptr;
  SCODE sc = CopyBytes(src, (len + 1) * sizeof(char16_t), &room, target);
  *out = static_cast<char16_t*>(room);
  return sc;
}

// A string that may be absent (notification texts): NULL stays NULL.
template <class C> SCODE CopyOptionalString(const C* src, C** out, CopyTarget& target) {
  *out = nullptr;
  return src ? CopyString(src, out, target) : S_OK;
}

// Arrays of strings: the pointer array, then each string.
template <class C> SCODE CopyStringArray(C* const* src, ULONG count, C*** out, CopyTarget& target) {
  *out = nullptr;
  if (count == 0 && !src) return S_OK;
  if (!src) return MAPI_E_INVALID_PARAMETER;
  void* room = nullptr;
  SCODE sc = target.Take(sizeof(C*) * size_t(count), &room);
  if (sc != S_OK) return sc;
  C** array = static_cast<C**>(room);
  for (ULONG i = 0; i < count; ++i) {
    C* copy = nullptr;
    sc = CopyString(src[i], &copy, target);
    if (sc != S_OK) return sc;
    if (array) array[i] = copy;
  }
  *out = array;
  return S_OK;
}

SCODE CopyBinary(const SBinary& src, SBinary& dst, CopyTarget& target) {
  dst.cb = src.cb;
  void* room = nullptr;
  SCODE sc = CopyBytes(src.lpb, src.cb, &room, target);
  dst.lpb = static_cast<LPBYTE>(room);
  return sc;
}

SCODE CopyBinaryArray(const SBinaryArray& src, SBinaryArray& dst, CopyTarget& target) {
  dst.cValues = src.cValues;
  dst.lpbin = nullptr;
  if (src.cValues == 0 && !src.lpbin) return S_OK;
  if (!src.lpbin) return MAPI_E_INVALID_PARAMETER;
  void* room = nullptr;
  SCODE sc = target.Take(sizeof(SBinary) * size_t(src.cValues), &room);
  if (sc != S_OK) return sc;
  SBinary* array = static_cast<SBinary*>(room);
  for (ULONG i = 0; i < src.cValues; ++i) {
    SBinary copy{};
    sc = CopyBinary(src.lpbin[i], copy, target);
    if (sc != S_OK) return sc;
    if (array) array[i] = copy;
  }
  dst.lpbin = array;
  return S_OK;
}

SCODE CopySingleValued(const SPropValue& src, SPropValue& dst, CopyTarget& target) {
  switch (BaseType(src.ulPropTag)) {
    case PT_STRING8:
      return CopyString(src.Value.lpszA, &dst.Value.lpszA, target);
    case PT_UNICODE:
      return CopyString(src.Value.lpszW, &dst.Value.lpszW, target);
    case PT_CLSID:
      if (!src.Value.lpguid) return MAPI_E_INVALID_PARAMETER;
      return CopyArray(src.Value.lpguid, 1, &dst.Value.lpguid, target);
    case PT_BINARY:
      return CopyBinary(src.Value.bin, dst.Value.bin, target);
    default:
      // Scalars, PT_ERROR, PT_NULL, PT_OBJECT and types this library does not know carry
      // nothing it could follow: the value itself is the copy.
      return S_OK;
  }
}

SCODE CopyMultiValued(const SPropValue& src, SPropValue& dst, CopyTarget& target) {
  const __UPV& v = src.Value;
  __UPV& d = dst.Value;
  switch (BaseType(src.ulPropTag)) {
    case PT_I2:
      return CopyArray(v.MVi.lpi, v.MVi.cValues, &d.MVi.lpi, target);
    case PT_LONG:
      return CopyArray(v.MVl.lpl, v.MVl.cValues, &d.MVl.lpl, target);
    case PT_R4:
      return CopyArray(v.MVflt.lpflt, v.MVflt.cValues, &d.MVflt.lpflt, target);
    case PT_DOUBLE:
      return CopyArray(v.MVdbl.lpdbl, v.MVdbl.cValues, &d.MVdbl.lpdbl, target);
    case PT_CURRENCY:
      return CopyArray(v.MVcur.lpcur, v.MVcur.cValues, &d.MVcur.lpcur, target);
    case PT_APPTIME:
      return CopyArray(v.MVat.lpat, v.MVat.cValues, &d.MVat.lpat, target);
    case PT_SYSTIME:
      return CopyArray(v.MVft.lpft, v.MVft.cValues, &d.MVft.lpft, target);
    case PT_I8:
      return CopyArray(v.MVli.lpli, v.MVli.cValues, &d.MVli.lpli, target);
    case PT_CLSID:
      return CopyArray(v.MVguid.lpguid, v.MVguid.cValues, &d.MVguid.lpguid, target);
    case PT_STRING8:
      return CopyStringArray(v.MVszA.lppszA, v.MVszA.cValues, &d.MVszA.lppszA, target);
    case PT_UNICODE:
      return CopyStringArray(v.MVszW.lppszW, v.MVszW.cValues, &d.MVszW.lppszW, target);
    case PT_BINARY:
      return CopyBinaryArray(v.MVbin, d.MVbin, target);
    default:
      // A multi-valued type without a published element type cannot be followed.
      return MAPI_E_INVALID_PARAMETER;
  }
}

SCODE CopyEntryId(ULONG cb, const ENTRYID* src, LPENTRYID* out, CopyTarget& target) {
  void* room = nullptr;
  SCODE sc = CopyBytes(src, cb, &room, target);
  *out = static_cast<LPENTRYID>(room);
  return sc;
}

SCODE CopyTagArray(const SPropTagArray* src, LPSPropTagArray* out, CopyTarget& target) {
  *out = nullptr;
  if (!src) return S_OK;
  void* room = nullptr;
  SCODE sc = CopyBytes(src, CbSPropTagArray(src), &room, target);
  *out = static_cast<LPSPropTagArray>(room);
  return sc;
}

SCODE CopyMapiError(const MAPIERROR* src, ULONG ulFlags, LPMAPIERROR* out, CopyTarget& target) {
  *out = nullptr;
  if (!src) return S_OK;
  void* room = nullptr;
  SCODE sc = target.Take(sizeof(MAPIERROR), &room);
  if (sc != S_OK) return sc;
  MAPIERROR copy = *src;
  // With MAPI_UNICODE the texts are wide even though the members are declared narrow.
  if (ulFlags & MAPI_UNICODE) {
    char16_t* error = nullptr;
    char16_t* component = nullptr;
    sc = CopyOptionalString(reinterpret_cast<const char16_t*>(src->lpszError), &error, target);
    if (sc == S_OK)
      sc = CopyOptionalString(reinterpret_cast<const char16_t*>(src->lpszComponent), &component, target);
    copy.lpszError = reinterpret_cast<LPTSTR>(error);
    copy.lpszComponent = reinterpret_cast<LPTSTR>(component);
  } else {
    sc = CopyOptionalString(src->lpszError, &copy.lpszError, target);
    if (sc == S_OK) sc = CopyOptionalString(src->lpszComponent, &copy.lpszComponent, target);
  }
  if (sc != S_OK) return sc;
  if (room) std::memcpy(room, &copy, sizeof copy);
  *out = static_cast<LPMAPIERROR>(room);
  return S_OK;
}

SCODE CopyErrorNotification(const ERROR_NOTIFICATION& src, ERROR_NOTIFICATION& dst, CopyTarget& target) {
  SCODE sc = CopyEntryId(src.cbEntryID, src.lpEntryID, &dst.lpEntryID, target);
  if (sc != S_OK) return sc;
  return CopyMapiError(src.lpMAPIError, src.ulFlags, &dst.lpMAPIError, target);
}

SCODE CopyNewMail(const NEWMAIL_NOTIFICATION& src, NEWMAIL_NOTIFICATION& dst, CopyTarget& target) {
  SCODE sc = CopyEntryId(src.cbEntryID, src.lpEntryID, &dst.lpEntryID, target);
  if (sc == S_OK) sc = CopyEntryId(src.cbParentID, src.lpParentID, &dst.lpParentID, target);
  if (sc != S_OK) return sc;
  if (src.ulFlags & MAPI_UNICODE) {
    char16_t* cls = nullptr;
    sc = CopyOptionalString(reinterpret_cast<const char16_t*>(src.lpszMessageClass), &cls, target);
    dst.lpszMessageClass = reinterpret_cast<LPTSTR>(cls);
    return sc;
  }
  return CopyOptionalString(src.lpszMessageClass, &dst.lpszMessageClass, target);
}

SCODE CopyObjectNotification(const OBJECT_NOTIFICATION& src, OBJECT_NOTIFICATION& dst, CopyTarget& target) {
  SCODE sc = CopyEntryId(src.cbEntryID, src.lpEntryID, &dst.lpEntryID, target);
  if (sc == S_OK) sc = CopyEntryId(src.cbParentID, src.lpParentID, &dst.lpParentID, target);
  if (sc == S_OK) sc = CopyEntryId(src.cbOldID, src.lpOldID, &dst.lpOldID, target);
  if (sc == S_OK) sc = CopyEntryId(src.cbOldParentID, src.lpOldParentID, &dst.lpOldParentID, target);
  if (sc == S_OK) sc = CopyTagArray(src.lpPropTagArray, &dst.lpPropTagArray, target);
  return sc;
}

SCODE CopyTableNotification(const TABLE_NOTIFICATION& src, TABLE_NOTIFICATION& dst, CopyTarget& target) {
  SCODE sc = CopyPropValue(src.propIndex, dst.propIndex, target);
  if (sc == S_OK) sc = CopyPropValue(src.propPrior, dst.propPrior, target);
  if (sc == S_OK) sc = CopyPropArray(src.row.cValues, src.row.lpProps, &dst.row.lpProps, target);
  return sc;
}

SCODE CopyExtended(const EXTENDED_NOTIFICATION& src, EXTENDED_NOTIFICATION& dst, CopyTarget& target) {
  void* room = nullptr;
  SCODE sc = CopyBytes(src.pbEventParameters, src.cb, &room, target);
  dst.pbEventParameters = static_cast<LPBYTE>(room);
  return sc;
}

SCODE CopyStatusObject(const STATUS_OBJECT_NOTIFICATION& src, STATUS_OBJECT_NOTIFICATION& dst,
                       CopyTarget& target) {
  SCODE sc = CopyEntryId(src.cbEntryID, src.lpEntryID, &dst.lpEntryID, target);
  if (sc == S_OK) sc = CopyPropArray(src.cValues, src.lpPropVals, &dst.lpPropVals, target);
  return sc;
}

SCODE CopyNotificationData(const NOTIFICATION& src, NOTIFICATION& dst, CopyTarget& target) {
  switch (src.ulEventType) {
    case fnevCriticalError:
      return CopyErrorNotification(src.info.err, dst.info.err, target);
    case fnevNewMail:
      return CopyNewMail(src.info.newmail, dst.info.newmail, target);
    case fnevObjectCreated:
    case fnevObjectDeleted:
    case fnevObjectModified:
    case fnevObjectMoved:
    case fnevObjectCopied:
    case fnevSearchComplete:
      return CopyObjectNotification(src.info.obj, dst.info.obj, target);
    case fnevTableModified:
      return CopyTableNotification(src.info.tab, dst.info.tab, target);
    case fnevStatusObjectModified:
      return CopyStatusObject(src.info.statobj, dst.info.statobj, target);
    case fnevExtended:
      return CopyExtended(src.info.ext, dst.info.ext, target);
    default:
      return MAPI_E_INVALID_PARAMETER;
  }
}

}  // namespace

SCODE CountingTarget::Take(size_t cb, void** out) {
  *out = nullptr;
  if (cb > kMaxBytes || m_total + RoundUp(cb) > kMaxBytes) return MAPI_E_INVALID_PARAMETER;
  m_total += RoundUp(cb);
  return S_OK;
}

SCODE BufferTarget::Take(size_t cb, void** out) {
  *out = m_base + m_used;
  m_used += RoundUp(cb);
  return S_OK;
}

SCODE ChainedTarget::Take(size_t cb, void** out) {
  *out = nullptr;
  if (cb > kMaxBytes) return MAPI_E_NOT_ENOUGH_MEMORY;
  return m_allocateMore(static_cast<ULONG>(cb), m_object, out);
}

SCODE CopyPropValue(const SPropValue& src, SPropValue& dst, CopyTarget& target) {
  dst = src;
  return IsMultiValued(src.ulPropTag) ? CopyMultiValued(src, dst, target) : CopySingleValued(src, dst, target);
}

SCODE CopyPropArray(ULONG cValues, const SPropValue* src, SPropValue** out, CopyTarget& target) {
  *out = nullptr;
  if (cValues == 0 && !src) return S_OK;
  if (!src) return MAPI_E_INVALID_PARAMETER;
  void* room = nullptr;
  SCODE sc = target.Take(sizeof(SPropValue) * size_t(cValues), &room);
  if (sc != S_OK) return sc;
  SPropValue* array = static_cast<SPropValue*>(room);
  for (ULONG i = 0; i < cValues; ++i) {
    SPropValue copy;
    sc = CopyPropValue(src[i], copy, target);
    if (sc != S_OK) return sc;
    if (array) array[i] = copy;
  }
  *out = array;
  return S_OK;
}

SCODE CopyNotifications(ULONG cNotifications, const NOTIFICATION* src, NOTIFICATION** out, CopyTarget& target) {
  *out = nullptr;
  if (cNotifications == 0 && !src) return S_OK;
  if (!src) return MAPI_E_INVALID_PARAMETER;
  void* room = nullptr;
  SCODE sc = target.Take(sizeof(NOTIFICATION) * size_t(cNotifications), &room);
  if (sc != S_OK) return sc;
  NOTIFICATION* array = static_cast<NOTIFICATION*>(room);
  for (ULONG i = 0; i < cNotifications; ++i) {
    NOTIFICATION copy = src[i];
    sc = CopyNotificationData(src[i], copy, target);
    if (sc != S_OK) return sc;
    if (array) array[i] = copy;
  }
  *out = array;
  return S_OK;
}

}  // namespace adp::mapi
