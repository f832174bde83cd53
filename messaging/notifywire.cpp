#include "notifywire.h"

#include <cstring>
#include <limits>

#include "mapicode.h"

namespace adm {

namespace {

constexpr uint32_t kMagic = 0x464E4441;  // "ADNF" as little-endian bytes
constexpr uint32_t kAbsent = 0xFFFFFFFF;
// Fewest bytes a value or a notification can take, to bound counts by what remains.
constexpr size_t kMinProp = 6;
constexpr size_t kMinNotification = 12;

bool IsMulti(ULONG ulPropTag) { return (PROP_TYPE(ulPropTag) & MV_FLAG) != 0; }
ULONG BaseOf(ULONG ulPropTag) { return PROP_TYPE(ulPropTag) & ~ULONG(MVI_FLAG); }

bool IsObjectEvent(ULONG ulEventType) {
  switch (ulEventType) {
    case fnevObjectCreated:
    case fnevObjectDeleted:
    case fnevObjectModified:
    case fnevObjectMoved:
    case fnevObjectCopied:
    case fnevSearchComplete:
      return true;
    default:
      return false;
  }
}

// ---------------------------------------------------------------------------------------------
// Writing.

class Writer {
 public:
  explicit Writer(std::vector<BYTE>& out) : m_out(out) {}

  void U16(uint16_t v) { Put(v, 2); }
  void U32(uint32_t v) { Put(v, 4); }
  void U64(uint64_t v) { Put(v, 8); }
  void Raw(const void* p, size_t cb) {
    const BYTE* b = static_cast<const BYTE*>(p);
    m_out.insert(m_out.end(), b, b + cb);
  }

  HRESULT Blob(const void* p, ULONG cb) {
    if (!p) {
      if (cb) return MAPI_E_INVALID_PARAMETER;
      U32(kAbsent);
      return S_OK;
    }
    if (cb == kAbsent) return MAPI_E_INVALID_PARAMETER;
    U32(cb);
    Raw(p, cb);
    return S_OK;
  }
  HRESULT AStr(const char* s) {
    if (!s) return Blob(nullptr, 0);
    size_t len = std::strlen(s);
    if (len >= kAbsent) return MAPI_E_INVALID_PARAMETER;
    return Blob(s, ULONG(len));
  }
  HRESULT WStr(const char16_t* s) {
    if (!s) {
      U32(kAbsent);
      return S_OK;
    }
    size_t len = 0;
    while (s[len]) ++len;
    if (len >= kAbsent) return MAPI_E_INVALID_PARAMETER;
    U32(uint32_t(len));
    for (size_t i = 0; i < len; ++i) U16(s[i]);
    return S_OK;
  }
  // Texts declared narrow that MAPI_UNICODE says are wide.
  HRESULT Str(const char* s, bool unicode) {
    return unicode ? WStr(reinterpret_cast<const char16_t*>(s)) : AStr(s);
  }
  void Guid(const GUID& g) {
    U32(g.Data1);
    U16(g.Data2);
    U16(g.Data3);
    Raw(g.Data4, sizeof g.Data4);
  }

 private:
  void Put(uint64_t v, int n) {
    for (int i = 0; i < n; ++i) m_out.push_back(BYTE(v >> (8 * i)));
  }
  std::vector<BYTE>& m_out;
};

template <class T> uint64_t Bits64(const T& v) {
  static_assert(sizeof(T) == 8);
  uint64_t bits;
  std::memcpy(&bits, &v, 8);
  return bits;
}

uint32_t BitsOfFloat(float f) {
  uint32_t bits;
  std::memcpy(&bits, &f, 4);
  return bits;
}

uint64_t FileTimeBits(const FILETIME& ft) { return uint64_t(ft.dwHighDateTime) << 32 | ft.dwLowDateTime; }

HRESULT WriteSingle(Writer& w, ULONG base, const __UPV& v) {
  switch (base) {
    case PT_I2: w.U16(uint16_t(v.i)); return S_OK;
    case PT_BOOLEAN: w.U16(v.b); return S_OK;
    case PT_LONG:
    case PT_ERROR:
    case PT_NULL:
    case PT_OBJECT: w.U32(v.ul); return S_OK;
    case PT_R4: w.U32(BitsOfFloat(v.flt)); return S_OK;
    case PT_DOUBLE: w.U64(Bits64(v.dbl)); return S_OK;
    case PT_APPTIME: w.U64(Bits64(v.at)); return S_OK;
    case PT_CURRENCY: w.U64(uint64_t(v.cur.int64)); return S_OK;
    case PT_I8: w.U64(uint64_t(v.li.QuadPart)); return S_OK;
    case PT_SYSTIME: w.U64(FileTimeBits(v.ft)); return S_OK;
    case PT_CLSID:
      if (!v.lpguid) return MAPI_E_INVALID_PARAMETER;
      w.Guid(*v.lpguid);
      return S_OK;
    case PT_STRING8: return v.lpszA ? w.AStr(v.lpszA) : MAPI_E_INVALID_PARAMETER;
    case PT_UNICODE: return v.lpszW ? w.WStr(v.lpszW) : MAPI_E_INVALID_PARAMETER;
    case PT_BINARY: return w.Blob(v.bin.lpb, v.bin.cb);
    default: return MAPI_E_INVALID_TYPE;
  }
}

// Writes count, then each element through put(i); a NULL array is allowed only when empty.
template <class T, class Put> HRESULT WriteArray(Writer& w, ULONG count, const T* array, Put put) {
  if (!array && count) return MAPI_E_INVALID_PARAMETER;
  w.U32(count);
  for (ULONG i = 0; i < count; ++i) {
    HRESULT hr = put(array[i]);
    if (FAILED(hr)) return hr;
  }
  return S_OK;
}

HRESULT WriteMulti(Writer& w, ULONG base, const __UPV& v) {
  switch (base) {
    case PT_I2: return WriteArray(w, v.MVi.cValues, v.MVi.lpi, [&](short x) { w.U16(uint16_t(x)); return HRESULT(S_OK); });
    case PT_LONG: return WriteArray(w, v.MVl.cValues, v.MVl.lpl, [&](LONG x) { w.U32(uint32_t(x)); return HRESULT(S_OK); });
    case PT_R4: return WriteArray(w, v.MVflt.cValues, v.MVflt.lpflt, [&](float x) { w.U32(BitsOfFloat(x)); return HRESULT(S_OK); });
    case PT_DOUBLE: return WriteArray(w, v.MVdbl.cValues, v.MVdbl.lpdbl, [&](double x) { w.U64(Bits64(x)); return HRESULT(S_OK); });
    case PT_APPTIME: return WriteArray(w, v.MVat.cValues, v.MVat.lpat, [&](double x) { w.U64(Bits64(x)); return HRESULT(S_OK); });
    case PT_CURRENCY:
      return WriteArray(w, v.MVcur.cValues, v.MVcur.lpcur, [&](const CURRENCY& x) { w.U64(uint64_t(x.int64)); return HRESULT(S_OK); });
    case PT_I8:
      return WriteArray(w, v.MVli.cValues, v.MVli.lpli, [&](const LARGE_INTEGER& x) { w.U64(uint64_t(x.QuadPart)); return HRESULT(S_OK); });
    case PT_SYSTIME:
      return WriteArray(w, v.MVft.cValues, v.MVft.lpft, [&](const FILETIME& x) { w.U64(FileTimeBits(x)); return HRESULT(S_OK); });
    case PT_CLSID: return WriteArray(w, v.MVguid.cValues, v.MVguid.lpguid, [&](const GUID& x) { w.Guid(x); return HRESULT(S_OK); });
    case PT_STRING8:
      return WriteArray(w, v.MVszA.cValues, v.MVszA.lppszA,
                        [&](const char* s) { return s ? w.AStr(s) : MAPI_E_INVALID_PARAMETER; });
    case PT_UNICODE:
      return WriteArray(w, v.MVszW.cValues, v.MVszW.lppszW,
                        [&](const char16_t* s) { return s ? w.WStr(s) : MAPI_E_INVALID_PARAMETER; });
    case PT_BINARY:
      return WriteArray(w, v.MVbin.cValues, v.MVbin.lpbin, [&](const SBinary& b) { return w.Blob(b.lpb, b.cb); });
    default: return MAPI_E_INVALID_TYPE;
  }
}

HRESULT WriteProp(Writer& w, const SPropValue& prop) {
  w.U32(prop.ulPropTag);
  ULONG base = BaseOf(prop.ulPropTag);
  return IsMulti(prop.ulPropTag) ? WriteMulti(w, base, prop.Value) : WriteSingle(w, base, prop.Value);
}

HRESULT WriteProps(Writer& w, ULONG cValues, const SPropValue* props) {
  if (!props) {
    if (cValues) return MAPI_E_INVALID_PARAMETER;
    w.U32(kAbsent);
    return S_OK;
  }
  if (cValues == kAbsent) return MAPI_E_INVALID_PARAMETER;
  return WriteArray(w, cValues, props, [&](const SPropValue& p) { return WriteProp(w, p); });
}

HRESULT WriteTags(Writer& w, const SPropTagArray* tags) {
  if (!tags) {
    w.U32(kAbsent);
    return S_OK;
  }
  if (tags->cValues == kAbsent) return MAPI_E_INVALID_PARAMETER;
  w.U32(tags->cValues);
  for (ULONG i = 0; i < tags->cValues; ++i) w.U32(tags->aulPropTag[i]);
  return S_OK;
}

HRESULT WriteError(Writer& w, const ERROR_NOTIFICATION& e) {
  HRESULT hr = w.Blob(e.lpEntryID, e.cbEntryID);
  if (FAILED(hr)) return hr;
  w.U32(uint32_t(e.scode));
  w.U32(e.ulFlags);
  w.U32(e.lpMAPIError ? 1 : 0);
  if (!e.lpMAPIError) return S_OK;
  bool unicode = (e.ulFlags & MAPI_UNICODE) != 0;
  const MAPIERROR& m = *e.lpMAPIError;
  w.U32(m.ulVersion);
  hr = w.Str(m.lpszError, unicode);
  if (SUCCEEDED(hr)) hr = w.Str(m.lpszComponent, unicode);
  w.U32(m.ulLowLevelError);
  w.U32(m.ulContext);
  return hr;
}

HRESULT WriteNewMail(Writer& w, const NEWMAIL_NOTIFICATION& n) {
  HRESULT hr = w.Blob(n.lpEntryID, n.cbEntryID);
  if (SUCCEEDED(hr)) hr = w.Blob(n.lpParentID, n.cbParentID);
  if (FAILED(hr)) return hr;
  w.U32(n.ulFlags);
  hr = w.Str(n.lpszMessageClass, (n.ulFlags & MAPI_UNICODE) != 0);
  w.U32(n.ulMessageFlags);
  return hr;
}

HRESULT WriteObject(Writer& w, const OBJECT_NOTIFICATION& o) {
  HRESULT hr = w.Blob(o.lpEntryID, o.cbEntryID);
  if (FAILED(hr)) return hr;
  w.U32(o.ulObjType);
  hr = w.Blob(o.lpParentID, o.cbParentID);
  if (SUCCEEDED(hr)) hr = w.Blob(o.lpOldID, o.cbOldID);
  if (SUCCEEDED(hr)) hr = w.Blob(o.lpOldParentID, o.cbOldParentID);
  if (SUCCEEDED(hr)) hr = WriteTags(w, o.lpPropTagArray);
  return hr;
}

HRESULT WriteTable(Writer& w, const TABLE_NOTIFICATION& t) {
  w.U32(t.ulTableEvent);
  w.U32(uint32_t(t.hResult));
  HRESULT hr = WriteProp(w, t.propIndex);
  if (SUCCEEDED(hr)) hr = WriteProp(w, t.propPrior);
  if (SUCCEEDED(hr)) hr = WriteProps(w, t.row.cValues, t.row.lpProps);
  return hr;
}

HRESULT WriteNotification(Writer& w, const NOTIFICATION& n) {
  w.U32(n.ulEventType);
  if (IsObjectEvent(n.ulEventType)) return WriteObject(w, n.info.obj);
  switch (n.ulEventType) {
    case fnevCriticalError: return WriteError(w, n.info.err);
    case fnevNewMail: return WriteNewMail(w, n.info.newmail);
    case fnevTableModified: return WriteTable(w, n.info.tab);
    case fnevStatusObjectModified: {
      HRESULT hr = w.Blob(n.info.statobj.lpEntryID, n.info.statobj.cbEntryID);
      return SUCCEEDED(hr) ? WriteProps(w, n.info.statobj.cValues, n.info.statobj.lpPropVals) : hr;
    }
    case fnevExtended:
      w.U32(n.info.ext.ulEvent);
      return w.Blob(n.info.ext.pbEventParameters, n.info.ext.cb);
    default: return MAPI_E_INVALID_PARAMETER;
  }
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Reading. Every step returns false on bytes that do not form a message; nothing is allocated
// before the bytes that justify it have been checked to be there.

void* CNotifyBatch::Allocate(size_t cb) {
  constexpr size_t kChunkWords = 512;
  size_t words = cb / 8 + 1;  // never empty, so a present zero-length item is not NULL
  if (words > kChunkWords / 4) {
    m_blocks.emplace_back(new uint64_t[words]());
    return m_blocks.back().get();
  }
  if (m_chunkUsed + words > kChunkWords || !m_chunk) {
    m_blocks.emplace_back(new uint64_t[kChunkWords]());
    m_chunk = m_blocks.back().get();
    m_chunkUsed = 0;
  }
  void* p = m_chunk + m_chunkUsed;
  m_chunkUsed += words;
  return p;
}

class CNotifyDecoder {
 public:
  CNotifyDecoder(const BYTE* pb, size_t cb, CNotifyBatch& batch) : m_p(pb), m_left(cb), m_batch(batch) {}

  HRESULT Decode() {
    m_batch.m_key.clear();
    m_batch.m_ulFlags = 0;
    m_batch.m_notifications.clear();
    m_batch.m_blocks.clear();
    m_batch.m_chunk = nullptr;
    HRESULT hr = Run();
    if (FAILED(hr)) {
      m_batch.m_key.clear();
      m_batch.m_notifications.clear();
      m_batch.m_blocks.clear();
      m_batch.m_chunk = nullptr;
    }
    return hr;
  }

 private:
  HRESULT Run() {
    uint32_t magic = 0, flags = 0, count = 0;
    uint16_t version = 0, reserved = 0;
    if (!U32(magic) || magic != kMagic || !U16(version)) return MAPI_E_CORRUPT_DATA;
    if (version != kNotifyWireVersion) return MAPI_E_VERSION;
    if (!U16(reserved) || reserved != 0 || !U32(flags) || !Key() || !U32(count) || !Fits(count, kMinNotification))
      return MAPI_E_CORRUPT_DATA;
    m_batch.m_ulFlags = flags;
    m_batch.m_notifications.assign(count, NOTIFICATION{});
    for (NOTIFICATION& n : m_batch.m_notifications)
      if (!Notification(n)) return MAPI_E_CORRUPT_DATA;
    return m_left == 0 ? S_OK : MAPI_E_CORRUPT_DATA;
  }

  bool Take(size_t cb, const BYTE*& p) {
    if (cb > m_left) return false;
    p = m_p;
    m_p += cb;
    m_left -= cb;
    return true;
  }
  bool Fits(uint64_t count, size_t each) const { return count <= m_left / each; }
  template <class T> bool Le(T& v, int n) {
    const BYTE* p = nullptr;
    if (!Take(size_t(n), p)) return false;
    uint64_t x = 0;
    for (int i = 0; i < n; ++i) x |= uint64_t(p[i]) << (8 * i);
    v = T(x);
    return true;
  }
  bool U16(uint16_t& v) { return Le(v, 2); }
  bool U32(uint32_t& v) { return Le(v, 4); }
  bool U64(uint64_t& v) { return Le(v, 8); }
  bool L32(ULONG& v) { return Le(v, 4); }

  bool Key() {
    uint32_t cb = 0;
    const BYTE* p = nullptr;
    if (!U32(cb) || !Take(cb, p)) return false;
    m_batch.m_key.assign(p, p + cb);
    return true;
  }

  // A blob into fresh memory; *out stays NULL for an absent one.
  bool Blob(ULONG& cb, void*& out) {
    out = nullptr;
    uint32_t n = 0;
    if (!U32(n)) return false;
    if (n == kAbsent) {
      cb = 0;
      return true;
    }
    const BYTE* p = nullptr;
    if (!Take(n, p)) return false;
    out = m_batch.Allocate(n);
    if (n) std::memcpy(out, p, n);
    cb = n;
    return true;
  }
  template <class T> bool Blob(ULONG& cb, T*& out) {
    void* raw = nullptr;
    bool ok = Blob(cb, raw);
    out = static_cast<T*>(raw);
    return ok;
  }
  bool AStr(char*& out) {
    ULONG cb = 0;
    void* raw = nullptr;
    if (!Blob(cb, raw)) return false;
    out = static_cast<char*>(raw);  // the zeroed allocation ends the text
    return !out || std::memchr(out, 0, cb) == nullptr;
  }
  bool WStr(char16_t*& out) {
    out = nullptr;
    uint32_t units = 0;
    if (!U32(units)) return false;
    if (units == kAbsent) return true;
    if (!Fits(units, 2)) return false;
    char16_t* text = static_cast<char16_t*>(m_batch.Allocate((size_t(units) + 1) * 2));
    for (uint32_t i = 0; i < units; ++i) {
      uint16_t u = 0;
      if (!U16(u) || u == 0) return false;
      text[i] = char16_t(u);
    }
    out = text;
    return true;
  }
  bool Str(char*& out, bool unicode) {
    if (!unicode) return AStr(out);
    char16_t* wide = nullptr;
    bool ok = WStr(wide);
    out = reinterpret_cast<char*>(wide);
    return ok;
  }
  bool Guid(GUID& g) {
    const BYTE* p = nullptr;
    if (!U32(g.Data1) || !U16(g.Data2) || !U16(g.Data3) || !Take(8, p)) return false;
    std::memcpy(g.Data4, p, 8);
    return true;
  }
  template <class T> bool Bits(T& v) {
    uint64_t bits = 0;
    if (!U64(bits)) return false;
    std::memcpy(&v, &bits, 8);
    return true;
  }
  bool Float(float& f) {
    uint32_t bits = 0;
    if (!U32(bits)) return false;
    std::memcpy(&f, &bits, 4);
    return true;
  }
  bool FileTime(FILETIME& ft) {
    uint64_t bits = 0;
    if (!U64(bits)) return false;
    ft.dwLowDateTime = DWORD(bits);
    ft.dwHighDateTime = DWORD(bits >> 32);
    return true;
  }

  bool Single(ULONG base, __UPV& v) {
    switch (base) {
      case PT_I2: return Le(v.i, 2);
      case PT_BOOLEAN: return Le(v.b, 2);
      case PT_LONG:
      case PT_ERROR:
      case PT_NULL:
      case PT_OBJECT: return L32(v.ul);
      case PT_R4: return Float(v.flt);
      case PT_DOUBLE: return Bits(v.dbl);
      case PT_APPTIME: return Bits(v.at);
      case PT_CURRENCY: return Bits(v.cur.int64);
      case PT_I8: return Bits(v.li.QuadPart);
      case PT_SYSTIME: return FileTime(v.ft);
      case PT_CLSID:
        v.lpguid = static_cast<GUID*>(m_batch.Allocate(sizeof(GUID)));
        return Guid(*v.lpguid);
      case PT_STRING8: return AStr(v.lpszA) && v.lpszA;
      case PT_UNICODE: return WStr(v.lpszW) && v.lpszW;
      case PT_BINARY: return Blob(v.bin.cb, v.bin.lpb);
      default: return false;
    }
  }

  // Reads count, then each element by get(element); each takes at least minEach bytes.
  template <class T, class Get> bool Array(ULONG& count, T*& array, size_t minEach, Get get) {
    array = nullptr;
    uint32_t n = 0;
    if (!U32(n) || !Fits(n, minEach)) return false;
    count = n;
    if (n == 0) return true;
    array = static_cast<T*>(m_batch.Allocate(sizeof(T) * size_t(n)));
    for (uint32_t i = 0; i < n; ++i)
      if (!get(array[i])) return false;
    return true;
  }

  bool Multi(ULONG base, __UPV& v) {
    switch (base) {
      case PT_I2: return Array(v.MVi.cValues, v.MVi.lpi, 2, [&](short& x) { return Le(x, 2); });
      case PT_LONG: return Array(v.MVl.cValues, v.MVl.lpl, 4, [&](LONG& x) { return Le(x, 4); });
      case PT_R4: return Array(v.MVflt.cValues, v.MVflt.lpflt, 4, [&](float& x) { return Float(x); });
      case PT_DOUBLE: return Array(v.MVdbl.cValues, v.MVdbl.lpdbl, 8, [&](double& x) { return Bits(x); });
      case PT_APPTIME: return Array(v.MVat.cValues, v.MVat.lpat, 8, [&](double& x) { return Bits(x); });
      case PT_CURRENCY: return Array(v.MVcur.cValues, v.MVcur.lpcur, 8, [&](CURRENCY& x) { return Bits(x.int64); });
      case PT_I8: return Array(v.MVli.cValues, v.MVli.lpli, 8, [&](LARGE_INTEGER& x) { return Bits(x.QuadPart); });
      case PT_SYSTIME: return Array(v.MVft.cValues, v.MVft.lpft, 8, [&](FILETIME& x) { return FileTime(x); });
      case PT_CLSID: return Array(v.MVguid.cValues, v.MVguid.lpguid, 16, [&](GUID& x) { return Guid(x); });
      case PT_STRING8: return Array(v.MVszA.cValues, v.MVszA.lppszA, 4, [&](char*& s) { return AStr(s) && s; });
      case PT_UNICODE: return Array(v.MVszW.cValues, v.MVszW.lppszW, 4, [&](char16_t*& s) { return WStr(s) && s; });
      case PT_BINARY: return Array(v.MVbin.cValues, v.MVbin.lpbin, 4, [&](SBinary& b) { return Blob(b.cb, b.lpb); });
      default: return false;
    }
  }

  bool Prop(SPropValue& prop) {
    if (!L32(prop.ulPropTag)) return false;
    ULONG base = BaseOf(prop.ulPropTag);
    return IsMulti(prop.ulPropTag) ? Multi(base, prop.Value) : Single(base, prop.Value);
  }

  bool Props(ULONG& cValues, LPSPropValue& props) {
    props = nullptr;
    cValues = 0;
    uint32_t n = 0;
    if (!U32(n)) return false;
    if (n == kAbsent) return true;
    if (!Fits(n, kMinProp)) return false;
    cValues = n;
    props = static_cast<LPSPropValue>(m_batch.Allocate(sizeof(SPropValue) * size_t(n)));
    for (uint32_t i = 0; i < n; ++i)
      if (!Prop(props[i])) return false;
    return true;
  }

  bool Tags(LPSPropTagArray& out) {
    out = nullptr;
    uint32_t n = 0;
    if (!U32(n)) return false;
    if (n == kAbsent) return true;
    if (!Fits(n, 4)) return false;
    out = static_cast<LPSPropTagArray>(m_batch.Allocate(CbNewSPropTagArray(n)));
    out->cValues = n;
    for (uint32_t i = 0; i < n; ++i)
      if (!L32(out->aulPropTag[i])) return false;
    return true;
  }

  bool Error(ERROR_NOTIFICATION& e) {
    uint32_t hasError = 0;
    if (!Blob(e.cbEntryID, e.lpEntryID) || !Le(e.scode, 4) || !L32(e.ulFlags) || !U32(hasError) || hasError > 1)
      return false;
    if (!hasError) return true;
    bool unicode = (e.ulFlags & MAPI_UNICODE) != 0;
    e.lpMAPIError = static_cast<LPMAPIERROR>(m_batch.Allocate(sizeof(MAPIERROR)));
    MAPIERROR& m = *e.lpMAPIError;
    return L32(m.ulVersion) && Str(m.lpszError, unicode) && Str(m.lpszComponent, unicode) &&
           L32(m.ulLowLevelError) && L32(m.ulContext);
  }

  bool NewMail(NEWMAIL_NOTIFICATION& n) {
    return Blob(n.cbEntryID, n.lpEntryID) && Blob(n.cbParentID, n.lpParentID) && L32(n.ulFlags) &&
           Str(n.lpszMessageClass, (n.ulFlags & MAPI_UNICODE) != 0) && L32(n.ulMessageFlags);
  }

  bool Object(OBJECT_NOTIFICATION& o) {
    return Blob(o.cbEntryID, o.lpEntryID) && L32(o.ulObjType) && Blob(o.cbParentID, o.lpParentID) &&
           Blob(o.cbOldID, o.lpOldID) && Blob(o.cbOldParentID, o.lpOldParentID) && Tags(o.lpPropTagArray);
  }

  bool Table(TABLE_NOTIFICATION& t) {
    return L32(t.ulTableEvent) && Le(t.hResult, 4) && Prop(t.propIndex) && Prop(t.propPrior) &&
           Props(t.row.cValues, t.row.lpProps);
  }

  bool Notification(NOTIFICATION& n) {
    if (!L32(n.ulEventType)) return false;
    if (IsObjectEvent(n.ulEventType)) return Object(n.info.obj);
    switch (n.ulEventType) {
      case fnevCriticalError: return Error(n.info.err);
      case fnevNewMail: return NewMail(n.info.newmail);
      case fnevTableModified: return Table(n.info.tab);
      case fnevStatusObjectModified:
        return Blob(n.info.statobj.cbEntryID, n.info.statobj.lpEntryID) &&
               Props(n.info.statobj.cValues, n.info.statobj.lpPropVals);
      case fnevExtended: return L32(n.info.ext.ulEvent) && Blob(n.info.ext.cb, n.info.ext.pbEventParameters);
      default: return false;
    }
  }

  const BYTE* m_p;
  size_t m_left;
  CNotifyBatch& m_batch;
};

HRESULT EncodeNotifications(const NOTIFKEY& key, ULONG ulFlags, ULONG cNotification,
                            const NOTIFICATION* lpNotifications, std::vector<BYTE>& out) {
  if (!lpNotifications && cNotification) return MAPI_E_INVALID_PARAMETER;
  size_t start = out.size();
  Writer w(out);
  w.U32(kMagic);
  w.U16(kNotifyWireVersion);
  w.U16(0);
  w.U32(ulFlags);
  w.U32(key.cb);
  w.Raw(key.ab, key.cb);
  w.U32(cNotification);
  for (ULONG i = 0; i < cNotification; ++i) {
    HRESULT hr = WriteNotification(w, lpNotifications[i]);
    if (FAILED(hr)) {
      out.resize(start);
      return hr;
    }
  }
  return S_OK;
}

HRESULT DecodeNotifications(const BYTE* pb, size_t cb, CNotifyBatch& out) {
  static const BYTE kNothing = 0;
  if (!pb) {
    if (cb) return MAPI_E_INVALID_PARAMETER;
    pb = &kNothing;
  }
  return CNotifyDecoder(pb, cb, out).Decode();
}

}  // namespace adm
