// Owned property sets and their file form (see propfile.h).
#include "propfile.h"

#include <cstring>

#include "adplatform.h"
#include "mapicode.h"
#include "mapix.h"
#include "mapiutil.h"

namespace adm {

void MapiFree::operator()(void* p) const {
  if (p) MAPIFreeBuffer(p);
}

bool IsStorableType(ULONG ulPropType) {
  switch (ulPropType & ~MV_INSTANCE) {
    case PT_NULL:
    case PT_I2: case PT_LONG: case PT_R4: case PT_DOUBLE: case PT_CURRENCY: case PT_APPTIME:
    case PT_ERROR: case PT_BOOLEAN: case PT_I8: case PT_STRING8: case PT_UNICODE: case PT_SYSTIME:
    case PT_CLSID: case PT_BINARY:
    case PT_MV_I2: case PT_MV_LONG: case PT_MV_R4: case PT_MV_DOUBLE: case PT_MV_CURRENCY:
    case PT_MV_APPTIME: case PT_MV_I8: case PT_MV_STRING8: case PT_MV_UNICODE: case PT_MV_SYSTIME:
    case PT_MV_CLSID: case PT_MV_BINARY:
      return true;
    default:
      return false;
  }
}

HRESULT PropSet::Set(const SPropValue& value) {
  if (!IsStorableType(PROP_TYPE(value.ulPropTag)) || PROP_ID(value.ulPropTag) == PROP_ID_NULL) return MAPI_E_INVALID_TYPE;
  SPropValue copy = value;
  copy.ulPropTag &= ~static_cast<ULONG>(MV_INSTANCE);
  LPSPropValue dup = nullptr;
  if (FAILED(ScDupPropset(1, &copy, MAPIAllocateBuffer, &dup))) return MAPI_E_NOT_ENOUGH_MEMORY;
  m_values[PROP_ID(value.ulPropTag)].reset(dup);
  return S_OK;
}

const SPropValue* PropSet::Find(ULONG ulPropTag) const {
  auto it = m_values.find(PROP_ID(ulPropTag));
  if (it == m_values.end()) return nullptr;
  if (PROP_TYPE(ulPropTag) != PT_UNSPECIFIED && it->second->ulPropTag != ulPropTag) return nullptr;
  return it->second.get();
}

bool PropSet::Erase(ULONG ulPropTag) { return m_values.erase(PROP_ID(ulPropTag)) > 0; }

std::vector<ULONG> PropSet::Tags() const {
  std::vector<ULONG> tags;
  for (const auto& [id, value] : m_values) tags.push_back(value->ulPropTag);
  return tags;
}

namespace {

constexpr char kMagic[4] = {'A', 'D', 'P', 'S'};
constexpr uint32_t kVersion = 1;
constexpr uint32_t kMaxCount = 1u << 20;  // far above any real section

uint32_t Fnv1a(const std::string& bytes, size_t n) {
  uint32_t h = 2166136261u;
  for (size_t i = 0; i < n; ++i) h = (h ^ static_cast<unsigned char>(bytes[i])) * 16777619u;
  return h;
}

class Writer {
 public:
  void U16(uint16_t v) { Le(v, 2); }
  void U32(uint32_t v) { Le(v, 4); }
  void U64(uint64_t v) { Le(v, 8); }
  void Bytes(const void* p, size_t n) { m_out.append(static_cast<const char*>(p), n); }
  std::string& Out() { return m_out; }

 private:
  void Le(uint64_t v, int n) {
    for (int i = 0; i < n; ++i) m_out += static_cast<char>((v >> (8 * i)) & 0xFF);
  }
  std::string m_out;
};

uint64_t Bits64(const void* p) {
  uint64_t v;
  std::memcpy(&v, p, 8);
  return v;
}

void WriteSingle(Writer& w, ULONG type, const void* p) {
  switch (type) {
    case PT_I2: w.U16(*static_cast<const uint16_t*>(p)); break;
    case PT_BOOLEAN: w.U16(*static_cast<const unsigned short*>(p)); break;
    case PT_LONG: case PT_R4: case PT_ERROR: {
      uint32_t v;
      std::memcpy(&v, p, 4);
      w.U32(v);
      break;
    }
    case PT_DOUBLE: case PT_APPTIME: case PT_CURRENCY: case PT_SYSTIME: case PT_I8: w.U64(Bits64(p)); break;
    case PT_CLSID: w.Bytes(*static_cast<const GUID* const*>(p), sizeof(GUID)); break;
    case PT_STRING8: {
      const char* s = *static_cast<const LPSTR*>(p);
      size_t n = s ? std::strlen(s) : 0;
      w.U32(static_cast<uint32_t>(n));
      w.Bytes(s, n);
      break;
    }
    case PT_UNICODE: {
      const char16_t* s = *static_cast<const LPWSTR*>(p);
      size_t n = 0;
      while (s && s[n]) ++n;
      w.U32(static_cast<uint32_t>(n));
      for (size_t i = 0; i < n; ++i) w.U16(static_cast<uint16_t>(s[i]));
      break;
    }
    case PT_BINARY: {
      const SBinary* b = static_cast<const SBinary*>(p);
      w.U32(b->cb);
      if (b->cb) w.Bytes(b->lpb, b->cb);
      break;
    }
    default: break;
  }
}

size_t ElementSize(ULONG type) {
  switch (type) {
    case PT_I2: return sizeof(short);
    case PT_LONG: return sizeof(LONG);
    case PT_R4: return sizeof(float);
    case PT_DOUBLE: case PT_APPTIME: return sizeof(double);
    case PT_CURRENCY: return sizeof(CURRENCY);
    case PT_SYSTIME: return sizeof(FILETIME);
    case PT_I8: return sizeof(LARGE_INTEGER);
    case PT_CLSID: return sizeof(GUID);
    case PT_STRING8: return sizeof(LPSTR);
    case PT_UNICODE: return sizeof(LPWSTR);
    case PT_BINARY: return sizeof(SBinary);
    default: return 0;
  }
}

void WriteValue(Writer& w, const SPropValue& v) {
  ULONG type = PROP_TYPE(v.ulPropTag);
  w.U32(v.ulPropTag);
  if (type == PT_NULL) return;
  if (!(type & MV_FLAG)) {
    // PT_CLSID holds a pointer; the others hold the value in the union itself.
    WriteSingle(w, type, type == PT_CLSID ? static_cast<const void*>(&v.Value.lpguid) : &v.Value);
    return;
  }
  ULONG elem = type & ~MV_FLAG;
  ULONG count = v.Value.MVi.cValues;
  const char* base = reinterpret_cast<const char*>(v.Value.MVi.lpi);  // every MV array has this layout
  w.U32(count);
  for (ULONG i = 0; i < count; ++i) {
    const char* item = base + i * ElementSize(elem);
    if (elem == PT_CLSID) {
      const GUID* g = reinterpret_cast<const GUID*>(item);
      WriteSingle(w, PT_CLSID, &g);
    } else {
      WriteSingle(w, elem, item);
    }
  }
}

// Reads the file form; each value is built in MAPI memory chained to one root per value.
class Reader {
 public:
  Reader(const std::string& bytes, size_t end) : m_bytes(bytes), m_end(end) {}
  bool Has(size_t n) const { return n <= m_end - m_pos; }
  bool U16(uint16_t& v) { return Le(v, 2); }
  bool U32(uint32_t& v) { return Le(v, 4); }
  bool U64(uint64_t& v) { return Le(v, 8); }
  const char* Take(size_t n) {
    if (!Has(n)) return nullptr;
    const char* p = m_bytes.data() + m_pos;
    m_pos += n;
    return p;
  }
  bool AtEnd() const { return m_pos == m_end; }

 private:
  template <class T>
  bool Le(T& v, int n) {
    const char* p = Take(static_cast<size_t>(n));
    if (!p) return false;
    uint64_t x = 0;
    for (int i = 0; i < n; ++i) x |= static_cast<uint64_t>(static_cast<unsigned char>(p[i])) << (8 * i);
    v = static_cast<T>(x);
    return true;
  }
  const std::string& m_bytes;
  size_t m_end;
  size_t m_pos = 0;
};

bool More(LPVOID root, size_t n, void** out) {
  return SUCCEEDED(MAPIAllocateMore(static_cast<ULONG>(n ? n : 1), root, out));
}

bool ReadSingle(Reader& r, ULONG type, void* dst, LPVOID root) {
  switch (type) {
    case PT_I2: case PT_BOOLEAN: {
      uint16_t v;
      if (!r.U16(v)) return false;
      std::memcpy(dst, &v, 2);
      return true;
    }
    case PT_LONG: case PT_R4: case PT_ERROR: {
      uint32_t v;
      if (!r.U32(v)) return false;
      std::memcpy(dst, &v, 4);
      return true;
    }
    case PT_DOUBLE: case PT_APPTIME: case PT_CURRENCY: case PT_SYSTIME: case PT_I8: {
      uint64_t v;
      if (!r.U64(v)) return false;
      std::memcpy(dst, &v, 8);
      return true;
    }
    case PT_CLSID: {
      const char* p = r.Take(sizeof(GUID));
      void* g = nullptr;
      if (!p || !More(root, sizeof(GUID), &g)) return false;
      std::memcpy(g, p, sizeof(GUID));
      *static_cast<GUID**>(dst) = static_cast<GUID*>(g);
      return true;
    }
    case PT_STRING8: {
      uint32_t n;
      const char* p;
      void* s = nullptr;
      if (!r.U32(n) || !(p = r.Take(n)) || std::memchr(p, 0, n) || !More(root, n + 1, &s)) return false;
      std::memcpy(s, p, n);
      static_cast<char*>(s)[n] = '\0';
      *static_cast<LPSTR*>(dst) = static_cast<LPSTR>(s);
      return true;
    }
    case PT_UNICODE: {
      uint32_t n;
      void* s = nullptr;
      if (!r.U32(n) || !r.Has(static_cast<size_t>(n) * 2) || !More(root, (static_cast<size_t>(n) + 1) * 2, &s)) return false;
      char16_t* w = static_cast<char16_t*>(s);
      for (uint32_t i = 0; i < n; ++i) {
        uint16_t u = 0;
        if (!r.U16(u) || u == 0) return false;
        w[i] = static_cast<char16_t>(u);
      }
      w[n] = 0;
      *static_cast<LPWSTR*>(dst) = w;
      return true;
    }
    case PT_BINARY: {
      uint32_t n;
      const char* p;
      void* b = nullptr;
      if (!r.U32(n) || !(p = r.Take(n)) || !More(root, n, &b)) return false;
      if (n) std::memcpy(b, p, n);
      SBinary* bin = static_cast<SBinary*>(dst);
      bin->cb = n;
      bin->lpb = static_cast<LPBYTE>(b);
      return true;
    }
    default:
      return false;
  }
}

bool ReadValue(Reader& r, LPSPropValue v) {
  uint32_t tag;
  if (!r.U32(tag)) return false;
  ULONG type = PROP_TYPE(tag);
  if (!IsStorableType(type) || (type & MV_INSTANCE) || PROP_ID(tag) == PROP_ID_NULL) return false;
  v->ulPropTag = tag;
  if (type == PT_NULL) return true;
  if (!(type & MV_FLAG)) return ReadSingle(r, type, type == PT_CLSID ? static_cast<void*>(&v->Value.lpguid) : &v->Value, v);
  ULONG elem = type & ~MV_FLAG;
  uint32_t count;
  if (!r.U32(count) || !r.Has(count)) return false;  // every element takes at least a byte
  void* items = nullptr;
  if (!More(v, static_cast<size_t>(count) * ElementSize(elem), &items)) return false;
  for (uint32_t i = 0; i < count; ++i) {
    char* item = static_cast<char*>(items) + i * ElementSize(elem);
    if (elem == PT_CLSID) {
      GUID* g = nullptr;
      if (!ReadSingle(r, PT_CLSID, &g, v)) return false;
      std::memcpy(item, g, sizeof(GUID));
    } else if (!ReadSingle(r, elem, item, v)) {
      return false;
    }
  }
  v->Value.MVi.cValues = count;
  v->Value.MVi.lpi = static_cast<short int*>(items);
  return true;
}

}  // namespace

std::string PropSet::Encode() const {
  Writer w;
  w.Bytes(kMagic, 4);
  w.U32(kVersion);
  w.U32(static_cast<uint32_t>(m_values.size()));
  for (const auto& [id, value] : m_values) WriteValue(w, *value);
  w.U32(Fnv1a(w.Out(), w.Out().size()));
  return w.Out();
}

HRESULT PropSet::Decode(const std::string& bytes, PropSet& out) {
  out.m_values.clear();
  if (bytes.size() < 16 || std::memcmp(bytes.data(), kMagic, 4) != 0) return MAPI_E_CORRUPT_DATA;
  size_t body = bytes.size() - 4;
  Reader tail(bytes, bytes.size());
  tail.Take(body);
  uint32_t sum = 0;
  tail.U32(sum);
  if (sum != Fnv1a(bytes, body)) return MAPI_E_CORRUPT_DATA;
  Reader r(bytes, body);
  r.Take(4);
  uint32_t version = 0, count = 0;
  r.U32(version);
  r.U32(count);
  if (version != kVersion || count > kMaxCount) return MAPI_E_CORRUPT_DATA;
  for (uint32_t i = 0; i < count; ++i) {
    LPSPropValue v = nullptr;
    if (FAILED(MAPIAllocateBuffer(sizeof(SPropValue), reinterpret_cast<void**>(&v)))) return MAPI_E_NOT_ENOUGH_MEMORY;
    MapiPtr<SPropValue> holder(v);
    std::memset(v, 0, sizeof *v);
    if (!ReadValue(r, v) || out.m_values.count(PROP_ID(v->ulPropTag))) {
      out.m_values.clear();
      return MAPI_E_CORRUPT_DATA;
    }
    out.m_values[PROP_ID(v->ulPropTag)] = std::move(holder);
  }
  if (!r.AtEnd()) {
    out.m_values.clear();
    return MAPI_E_CORRUPT_DATA;
  }
  return S_OK;
}

SPropValue StringProp(ULONG ulPropTag, const char* text) {
  SPropValue v{};
  v.ulPropTag = ulPropTag;
  v.Value.lpszA = const_cast<LPSTR>(text);
  return v;
}

SPropValue LongProp(ULONG ulPropTag, ULONG value) {
  SPropValue v{};
  v.ulPropTag = ulPropTag;
  v.Value.ul = value;
  return v;
}

SPropValue BinaryProp(ULONG ulPropTag, const void* data, ULONG cb) {
  SPropValue v{};
  v.ulPropTag = ulPropTag;
  v.Value.bin.cb = cb;
  v.Value.bin.lpb = static_cast<LPBYTE>(const_cast<void*>(data));
  return v;
}

std::string PropText(const SPropValue* value) {
  if (!value) return std::string();
  if (PROP_TYPE(value->ulPropTag) == PT_STRING8 && value->Value.lpszA) return value->Value.lpszA;
  if (PROP_TYPE(value->ulPropTag) == PT_UNICODE && value->Value.lpszW) return adp::Utf16ToUtf8(value->Value.lpszW);
  return std::string();
}

}  // namespace adm
