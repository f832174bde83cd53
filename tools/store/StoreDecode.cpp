#include "StoreDecode.h"

#include <mapidefs.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#include "ZT4PropList.h"
#include "ZT4_TRACES.h"

namespace storetool {

namespace {

// Reads little-endian numbers from a byte range; every read is checked against the end.
class Reader {
 public:
  Reader(const uint8_t* p, size_t cb) : m_p(p), m_cb(cb) {}
  explicit Reader(const Bytes& data) : Reader(data.data(), data.size()) {}
  size_t Left() const { return m_cb - m_pos; }
  size_t Pos() const { return m_pos; }
  const uint8_t* Here() const { return m_p + m_pos; }
  bool U32(uint32_t* pv) {
    if (Left() < 4) return false;
    memcpy(pv, Here(), 4);
    m_pos += 4;
    return true;
  }
  bool Skip(size_t cb) {
    if (Left() < cb) return false;
    m_pos += cb;
    return true;
  }

 private:
  const uint8_t* m_p;
  size_t m_cb;
  size_t m_pos = 0;
};

template <class T> T Load(const uint8_t* p) {
  T v;
  memcpy(&v, p, sizeof(v));
  return v;
}

std::string HexText(uint32_t v) {
  char buf[16];
  snprintf(buf, sizeof(buf), "0x%08X", v);
  return buf;
}

std::string FileTimeText(uint64_t ft) {
  // 100 ns ticks since 1601-01-01; 11644473600 s lie between that and the Unix epoch.
  int64_t secs = static_cast<int64_t>(ft / 10000000ULL) - 11644473600LL;
  time_t t = static_cast<time_t>(secs);
  struct tm tmUtc;
  char buf[64];
  if (!gmtime_r(&t, &tmUtc)) return std::to_string(ft);
  snprintf(buf, sizeof(buf), "%04d-%02d-%02dT%02d:%02d:%02d.%07uZ", tmUtc.tm_year + 1900, tmUtc.tm_mon + 1, tmUtc.tm_mday,
           tmUtc.tm_hour, tmUtc.tm_min, tmUtc.tm_sec, static_cast<unsigned>(ft % 10000000ULL));
  return buf;
}

// A NUL-terminated string inside [p, p + cb); false when the terminator is missing.
bool CString8(const uint8_t* p, size_t cb, std::string* pOut, size_t* pcbUsed) {
  const void* pNul = memchr(p, 0, cb);
  if (!pNul) return false;
  size_t n = static_cast<const uint8_t*>(pNul) - p;
  pOut->assign(reinterpret_cast<const char*>(p), n);
  *pcbUsed = n + 1;
  return true;
}

bool CString16(const uint8_t* p, size_t cb, std::string* pOut, size_t* pcbUsed) {
  for (size_t i = 0; i + 1 < cb; i += 2) {
    if (p[i] == 0 && p[i + 1] == 0) {
      *pOut = Utf16ToUtf8(p, i);
      *pcbUsed = i + 2;
      return true;
    }
  }
  return false;
}

size_t FixedSize(ULONG ulType) {
  switch (ulType & ~MV_FLAG) {
    case PT_I2: return 2;
    case PT_LONG:
    case PT_R4: return 4;
    case PT_DOUBLE:
    case PT_CURRENCY:
    case PT_APPTIME:
    case PT_I8:
    case PT_SYSTIME: return 8;
    case PT_CLSID: return 16;
    default: return 0;
  }
}

Doc FixedValue(ULONG ulType, const uint8_t* p) {
  switch (ulType & ~MV_FLAG) {
    case PT_I2: return Doc::Num(Load<int16_t>(p));
    case PT_LONG: return Doc::Num(Load<int32_t>(p));
    case PT_R4: return Doc::Dbl(Load<float>(p));
    case PT_DOUBLE:
    case PT_APPTIME: return Doc::Dbl(Load<double>(p));
    case PT_CURRENCY:
    case PT_I8: return Doc::Num(Load<int64_t>(p));
    case PT_SYSTIME: return Doc::Str(FileTimeText(Load<uint64_t>(p)));
    case PT_CLSID: return Doc::Str(GuidText(p));
    default: return Doc();
  }
}

// Decodes one stored node's value; the value union is at pValue, the data area at (pData, cbData).
bool DecodeValue(ULONG ulTag, const uint8_t* pValue, const uint8_t* pData, size_t cbData, Doc* pOut,
                 std::string* pError, std::set<DWORD>* pLarge) {
  ULONG ulType = PROP_TYPE(ulTag);
  uint32_t cValues = Load<uint32_t>(pValue);
  switch (ulType) {
    case PT_I2: case PT_LONG: case PT_R4: case PT_DOUBLE: case PT_CURRENCY: case PT_APPTIME: case PT_I8:
    case PT_SYSTIME:
      *pOut = FixedValue(ulType, pValue);
      return true;
    case PT_BOOLEAN: *pOut = Doc::Boolean(Load<uint16_t>(pValue) != 0); return true;
    case PT_OBJECT: *pOut = Doc::Hex(Load<uint32_t>(pValue)); return true;
    case PT_LARGE_STUB: {
      Doc stub = Doc::MakeObject();
      stub.Set("originalType", Doc::Str(PropTypeName(Load<uint16_t>(pValue))));
      uint16_t kind = Load<uint16_t>(pValue + 2);
      stub.Set("kind", Doc::Str(kind == 1 ? "stream" : kind == 2 ? "storage" : std::to_string(kind)));
      DWORD dwRecord = Load<uint32_t>(pValue + 4);
      stub.Set("record", Doc::Hex(dwRecord));
      if (pLarge) pLarge->insert(dwRecord);
      *pOut = std::move(stub);
      return true;
    }
    case PT_STRING8:
    case PT_UNICODE: {
      std::string s;
      size_t cbUsed = 0;
      if (!(ulType == PT_STRING8 ? CString8(pData, cbData, &s, &cbUsed) : CString16(pData, cbData, &s, &cbUsed))) {
        *pError = "string without its terminator";
        return false;
      }
      *pOut = Doc::Str(s);
      return true;
    }
    case PT_CLSID:
      if (cbData < 16) break;
      *pOut = Doc::Str(GuidText(pData));
      return true;
    case PT_BINARY:
      if (cValues > cbData) break;
      *pOut = Doc::Str(HexBytes(pData, cValues));
      return true;
    case PT_MV_I2: case PT_MV_LONG: case PT_MV_R4: case PT_MV_DOUBLE: case PT_MV_CURRENCY: case PT_MV_APPTIME:
    case PT_MV_I8: case PT_MV_SYSTIME: case PT_MV_CLSID: {
      size_t cb = FixedSize(ulType);
      if (uint64_t(cValues) * cb > cbData) break;
      Doc arr = Doc::MakeArray();
      for (uint32_t i = 0; i < cValues; ++i) arr.Push(FixedValue(ulType, pData + i * cb));
      *pOut = std::move(arr);
      return true;
    }
    case PT_MV_STRING8:
    case PT_MV_UNICODE: {
      if (uint64_t(cValues) * 8 > cbData) break;
      Doc arr = Doc::MakeArray();
      size_t pos = size_t(cValues) * 8;
      for (uint32_t i = 0; i < cValues; ++i) {
        if (Load<uint64_t>(pData + i * 8) == 0) {
          arr.Push(Doc());
          continue;
        }
        std::string s;
        size_t cbUsed = 0;
        bool fOk = ulType == PT_MV_STRING8 ? CString8(pData + pos, cbData - pos, &s, &cbUsed)
                                           : CString16(pData + pos, cbData - pos, &s, &cbUsed);
        if (!fOk) {
          *pError = "string " + std::to_string(i) + " runs past the data area";
          return false;
        }
        arr.Push(Doc::Str(s));
        pos += cbUsed;
      }
      *pOut = std::move(arr);
      return true;
    }
    case PT_MV_BINARY: {
      if (uint64_t(cValues) * 16 > cbData) break;
      Doc arr = Doc::MakeArray();
      size_t pos = size_t(cValues) * 16;
      for (uint32_t i = 0; i < cValues; ++i) {
        uint32_t cb = Load<uint32_t>(pData + i * 16);
        if (cb > cbData - pos) {
          *pError = "blob " + std::to_string(i) + " runs past the data area";
          return false;
        }
        arr.Push(Doc::Str(HexBytes(pData + pos, cb)));
        pos += cb;
      }
      *pOut = std::move(arr);
      return true;
    }
    default:
      *pError = "type " + HexText(ulType) + " is no stored type";
      return false;
  }
  *pError = std::to_string(cValues) + " values or bytes do not fit a data area of " + std::to_string(cbData) + " bytes";
  return false;
}

}  // namespace

std::string GuidText(const uint8_t* p) {
  char buf[48];
  snprintf(buf, sizeof(buf), "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", Load<uint32_t>(p),
           Load<uint16_t>(p + 4), Load<uint16_t>(p + 6), p[8], p[9], p[10], p[11], p[12], p[13], p[14], p[15]);
  return buf;
}

std::string PropTypeName(ULONG ulType) {
  static const struct {
    ULONG ulType;
    const char* pszName;
  } kTypes[] = {
      {PT_UNSPECIFIED, "PT_UNSPECIFIED"}, {PT_NULL, "PT_NULL"},         {PT_I2, "PT_I2"},
      {PT_LONG, "PT_LONG"},               {PT_R4, "PT_R4"},             {PT_DOUBLE, "PT_DOUBLE"},
      {PT_CURRENCY, "PT_CURRENCY"},       {PT_APPTIME, "PT_APPTIME"},   {PT_ERROR, "PT_ERROR"},
      {PT_BOOLEAN, "PT_BOOLEAN"},         {PT_OBJECT, "PT_OBJECT"},     {PT_I8, "PT_I8"},
      {PT_STRING8, "PT_STRING8"},         {PT_UNICODE, "PT_UNICODE"},   {PT_SYSTIME, "PT_SYSTIME"},
      {PT_CLSID, "PT_CLSID"},             {PT_BINARY, "PT_BINARY"},     {PT_MV_I2, "PT_MV_I2"},
      {PT_MV_LONG, "PT_MV_LONG"},         {PT_MV_R4, "PT_MV_R4"},       {PT_MV_DOUBLE, "PT_MV_DOUBLE"},
      {PT_MV_CURRENCY, "PT_MV_CURRENCY"}, {PT_MV_APPTIME, "PT_MV_APPTIME"}, {PT_MV_I8, "PT_MV_I8"},
      {PT_MV_STRING8, "PT_MV_STRING8"},   {PT_MV_UNICODE, "PT_MV_UNICODE"}, {PT_MV_SYSTIME, "PT_MV_SYSTIME"},
      {PT_MV_CLSID, "PT_MV_CLSID"},       {PT_MV_BINARY, "PT_MV_BINARY"}, {PT_LARGE_STUB, "PT_LARGE_STUB"},
  };
  for (const auto& t : kTypes)
    if (t.ulType == ulType) return t.pszName;
  return HexText(ulType);
}

Decoded DecodePropList(const Bytes& data, std::set<DWORD>* pLargeRecords) {
  Decoded d;
  d.doc = Doc::MakeArray();
  if (data.empty()) return d;  // an empty list is stored as an empty stream
  Reader rd(data);
  uint32_t cNodes = 0;
  if (!rd.U32(&cNodes)) {
    d.error = "too short for the node count";
    return d;
  }
  for (uint32_t i = 0; i < cNodes; ++i) {
    uint32_t dwSize = 0;
    if (!rd.U32(&dwSize)) {
      d.error = "ends before node " + std::to_string(i) + " of " + std::to_string(cNodes);
      return d;
    }
    if (dwSize < 24 || dwSize - 4 > rd.Left()) {
      d.error = "node " + std::to_string(i) + " claims " + std::to_string(dwSize) + " bytes, " +
                std::to_string(rd.Left() + 4) + " are left";
      return d;
    }
    const uint8_t* p = rd.Here();
    rd.Skip(dwSize - 4);
    ULONG ulTag = Load<uint32_t>(p);
    Doc prop = Doc::MakeObject();
    prop.Set("tag", Doc::Hex(ulTag));
    LPCSTR pszName = GetPropTagName(ulTag);
    prop.Set("name", pszName ? Doc::Str(pszName) : Doc());
    prop.Set("type", Doc::Str(PropTypeName(PROP_TYPE(ulTag))));
    Doc value;
    std::string error;
    if (!DecodeValue(ulTag, p + 4, p + 20, dwSize - 24, &value, &error, pLargeRecords)) {
      prop.Set("raw", Doc::Str(HexBytes(p + 4, dwSize - 8)));
      d.doc.Push(std::move(prop));
      d.error = "node " + std::to_string(i) + " (" + HexText(ulTag) + "): " + error;
      return d;
    }
    prop.Set("value", std::move(value));
    d.doc.Push(std::move(prop));
  }
  if (rd.Left()) d.error = std::to_string(rd.Left()) + " bytes follow the last of " + std::to_string(cNodes) + " nodes";
  return d;
}

Decoded DecodeIDList(const Bytes& data, std::vector<DWORD>* pIDs) {
  Decoded d;
  d.doc = Doc::MakeArray();
  if (data.empty()) return d;
  Reader rd(data);
  uint32_t cIDs = 0;
  if (!rd.U32(&cIDs)) {
    d.error = "too short for the count";
    return d;
  }
  if (uint64_t(cIDs + uint64_t(1)) * 4 != data.size())
    d.error = "holds " + std::to_string(data.size()) + " bytes for a count of " + std::to_string(cIDs);
  uint32_t dwID = 0;
  for (uint32_t i = 0; i < cIDs && rd.U32(&dwID); ++i) {
    d.doc.Push(Doc::Hex(dwID));
    if (pIDs) pIDs->push_back(dwID);
  }
  return d;
}

Decoded DecodeSubfolderNames(const Bytes& data) {
  Decoded d;
  d.doc = Doc::MakeArray();
  if (data.empty()) return d;
  Reader rd(data);
  uint32_t cEntries = 0;
  if (!rd.U32(&cEntries)) {
    d.error = "too short for the count";
    return d;
  }
  for (uint32_t i = 0; i < cEntries; ++i) {
    uint32_t dwID = 0, cb = 0;
    if (!rd.U32(&dwID) || !rd.U32(&cb)) {
      d.error = "ends before entry " + std::to_string(i) + " of " + std::to_string(cEntries);
      return d;
    }
    if (cb >= 512 || cb % 2 || cb > rd.Left()) {
      d.error = "entry " + std::to_string(i) + " has a name of " + std::to_string(cb) + " bytes";
      return d;
    }
    Doc entry = Doc::MakeObject();
    entry.Set("folder", Doc::Hex(dwID));
    entry.Set("name", Doc::Str(Utf16ToUtf8(rd.Here(), cb)));
    d.doc.Push(std::move(entry));
    rd.Skip(cb);
  }
  if (rd.Left()) d.error = std::to_string(rd.Left()) + " bytes follow the last entry";
  return d;
}

Decoded DecodeNamedProps(const Bytes& data) {
  Decoded d;
  d.doc = Doc::MakeObject();
  Doc entries = Doc::MakeArray();
  Reader rd(data);
  uint32_t ulNextID = 0, cEntries = 0;
  if (!rd.U32(&ulNextID)) {  // shorter than one ULONG: a new map
    d.doc.Set("entries", std::move(entries));
    return d;
  }
  d.doc.Set("nextId", Doc::Hex(ulNextID));
  rd.U32(&cEntries);  // absent when the map is empty
  for (uint32_t i = 0; i < cEntries && d.error.empty(); ++i) {
    if (rd.Left() < 28) {
      d.error = "ends before entry " + std::to_string(i) + " of " + std::to_string(cEntries);
      break;
    }
    const uint8_t* p = rd.Here();
    rd.Skip(28);
    uint32_t ulKind = Load<uint32_t>(p + 20);
    int32_t lValue = Load<int32_t>(p + 24);
    Doc entry = Doc::MakeObject();
    entry.Set("guid", Doc::Str(GuidText(p)));
    entry.Set("id", Doc::Hex(Load<uint32_t>(p + 16)));
    if (ulKind == MNID_ID) {
      entry.Set("kind", Doc::Str("MNID_ID"));
      entry.Set("lid", Doc::Num(lValue));
    } else if (ulKind == MNID_STRING) {
      entry.Set("kind", Doc::Str("MNID_STRING"));
      std::string name;
      size_t cbUsed = 0;
      if (lValue < 2 || lValue % 2 || size_t(lValue) > rd.Left() || !CString16(rd.Here(), size_t(lValue), &name, &cbUsed) ||
          cbUsed != size_t(lValue)) {
        d.error = "entry " + std::to_string(i) + " has a name of " + std::to_string(lValue) + " bytes that does not fit";
      } else {
        entry.Set("name", Doc::Str(name));
        rd.Skip(size_t(lValue));
      }
    } else {
      d.error = "entry " + std::to_string(i) + " has the kind " + std::to_string(ulKind);
    }
    entries.Push(std::move(entry));
  }
  if (d.error.empty() && rd.Left()) d.error = std::to_string(rd.Left()) + " bytes follow the last entry";
  d.doc.Set("count", Doc::UNum(cEntries));
  d.doc.Set("entries", std::move(entries));
  return d;
}

Decoded DecodeReceiveFolders(const Bytes& data) {
  Decoded d;
  d.doc = Doc::MakeObject();
  Doc entries = Doc::MakeArray();
  Reader rd(data);
  uint32_t cEntries = 0;
  if (!data.empty() && !rd.U32(&cEntries)) d.error = "too short for the count";
  d.doc.Set("count", Doc::UNum(cEntries));
  for (uint32_t i = 0; i < cEntries; ++i) {
    uint32_t cb = 0, dwFolder = 0;
    std::string problem;
    if (!rd.U32(&cb))
      problem = "the stream ends before entry " + std::to_string(i + 1);
    else if (cb >= 256 || cb > rd.Left())
      problem = "entry " + std::to_string(i + 1) + " has a class length of " + std::to_string(cb);
    if (problem.empty()) {
      std::string cls(reinterpret_cast<const char*>(rd.Here()), cb);
      rd.Skip(cb);
      if (!rd.U32(&dwFolder)) {
        problem = "entry " + std::to_string(i + 1) + " has no folder ID";
      } else {
        Doc entry = Doc::MakeObject();
        entry.Set("class", Doc::Str(cls));
        entry.Set("folder", Doc::Hex(dwFolder));
        entries.Push(std::move(entry));
      }
    }
    if (!problem.empty()) {
      if (i == 0)
        d.error = problem;
      else
        d.doc.Set("runsOff", Doc::Str(problem));
      break;
    }
  }
  if (cEntries > 1)
    d.note = std::to_string(cEntries) +
             " entries: a class set after the first is written behind the first name, over its folder ID, so "
             "entries behind the first do not line up when read back";
  d.doc.Set("entries", std::move(entries));
  return d;
}

Doc RawPreview(const Bytes& data, size_t cbPreview) {
  Doc doc = Doc::MakeObject();
  doc.Set("bytes", Doc::UNum(data.size()));
  doc.Set("head", Doc::Str(HexBytes(data.data(), std::min(cbPreview, data.size()))));
  return doc;
}

}  // namespace storetool
