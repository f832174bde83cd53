#include "output.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <ostream>

#include "adplatform.h"
#include "adplatform_tags.h"
#include "mapicode.h"
#include "mapitags.h"
#include "windows.h"

namespace adcli {
namespace {

// Length of the valid UTF-8 sequence at s[i], or 0 when it is not one.
size_t Utf8Length(const std::string& s, size_t i) {
  auto byte = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
  unsigned char c = byte(i);
  size_t n = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 0;
  if (n == 0 || i + n > s.size()) return 0;
  for (size_t k = 1; k < n; ++k) {
    if ((byte(i + k) & 0xC0) != 0x80) return 0;
  }
  if (n == 2 && c < 0xC2) return 0;                                  // overlong
  if (n == 3 && c == 0xE0 && byte(i + 1) < 0xA0) return 0;           // overlong
  if (n == 3 && c == 0xED && byte(i + 1) >= 0xA0) return 0;          // surrogate
  if (n == 4 && (c > 0xF4 || (c == 0xF0 && byte(i + 1) < 0x90) || (c == 0xF4 && byte(i + 1) >= 0x90))) return 0;
  return n;
}

void Indent(std::string& out, int depth) { out.append(static_cast<size_t>(depth) * 2, ' '); }

struct NamedCode {
  HRESULT hr;
  const char* name;
};

#define AD_CODE(x) {x, #x}
const NamedCode kCodes[] = {
    AD_CODE(MAPI_E_CALL_FAILED),        AD_CODE(MAPI_E_NOT_ENOUGH_MEMORY),   AD_CODE(MAPI_E_INVALID_PARAMETER),
    AD_CODE(MAPI_E_INTERFACE_NOT_SUPPORTED), AD_CODE(MAPI_E_NO_ACCESS),      AD_CODE(MAPI_E_NO_SUPPORT),
    AD_CODE(MAPI_E_BAD_CHARWIDTH),      AD_CODE(MAPI_E_STRING_TOO_LONG),     AD_CODE(MAPI_E_UNKNOWN_FLAGS),
    AD_CODE(MAPI_E_INVALID_ENTRYID),    AD_CODE(MAPI_E_INVALID_OBJECT),      AD_CODE(MAPI_E_OBJECT_CHANGED),
    AD_CODE(MAPI_E_OBJECT_DELETED),     AD_CODE(MAPI_E_BUSY),                AD_CODE(MAPI_E_NOT_ENOUGH_DISK),
    AD_CODE(MAPI_E_NOT_ENOUGH_RESOURCES), AD_CODE(MAPI_E_NOT_FOUND),         AD_CODE(MAPI_E_VERSION),
    AD_CODE(MAPI_E_LOGON_FAILED),       AD_CODE(MAPI_E_SESSION_LIMIT),       AD_CODE(MAPI_E_USER_CANCEL),
    AD_CODE(MAPI_E_UNABLE_TO_ABORT),    AD_CODE(MAPI_E_NETWORK_ERROR),       AD_CODE(MAPI_E_DISK_ERROR),
    AD_CODE(MAPI_E_TOO_COMPLEX),        AD_CODE(MAPI_E_BAD_COLUMN),          AD_CODE(MAPI_E_EXTENDED_ERROR),
    AD_CODE(MAPI_E_COMPUTED),           AD_CODE(MAPI_E_CORRUPT_DATA),        AD_CODE(MAPI_E_UNCONFIGURED),
    AD_CODE(MAPI_E_FAILONEPROVIDER),    AD_CODE(MAPI_E_UNKNOWN_CPID),        AD_CODE(MAPI_E_UNKNOWN_LCID),
    AD_CODE(MAPI_E_PASSWORD_CHANGE_REQUIRED), AD_CODE(MAPI_E_PASSWORD_EXPIRED),
    AD_CODE(MAPI_E_INVALID_WORKSTATION_ACCOUNT), AD_CODE(MAPI_E_INVALID_ACCESS_TIME),
    AD_CODE(MAPI_E_ACCOUNT_DISABLED),   AD_CODE(MAPI_E_RECONNECTED),         AD_CODE(MAPI_E_OFFLINE),
    AD_CODE(MAPI_E_END_OF_SESSION),     AD_CODE(MAPI_E_UNKNOWN_ENTRYID),     AD_CODE(MAPI_E_MISSING_REQUIRED_COLUMN),
    AD_CODE(MAPI_W_NO_SERVICE),         AD_CODE(MAPI_E_PROFILE_DELETED),     AD_CODE(MAPI_E_BAD_VALUE),
    AD_CODE(MAPI_E_INVALID_TYPE),       AD_CODE(MAPI_E_TYPE_NO_SUPPORT),     AD_CODE(MAPI_E_UNEXPECTED_TYPE),
    AD_CODE(MAPI_E_TOO_BIG),            AD_CODE(MAPI_E_DECLINE_COPY),        AD_CODE(MAPI_E_UNEXPECTED_ID),
    AD_CODE(MAPI_W_ERRORS_RETURNED),    AD_CODE(MAPI_E_UNABLE_TO_COMPLETE),  AD_CODE(MAPI_E_TIMEOUT),
    AD_CODE(MAPI_E_TABLE_EMPTY),        AD_CODE(MAPI_E_TABLE_TOO_BIG),       AD_CODE(MAPI_E_INVALID_BOOKMARK),
    AD_CODE(MAPI_W_POSITION_CHANGED),   AD_CODE(MAPI_W_APPROX_COUNT),        AD_CODE(MAPI_E_WAIT),
    AD_CODE(MAPI_E_CANCEL),             AD_CODE(MAPI_E_NOT_ME),              AD_CODE(MAPI_W_CANCEL_MESSAGE),
    AD_CODE(MAPI_E_CORRUPT_STORE),      AD_CODE(MAPI_E_NOT_IN_QUEUE),        AD_CODE(MAPI_E_NO_SUPPRESS),
    AD_CODE(MAPI_E_COLLISION),          AD_CODE(MAPI_E_NOT_INITIALIZED),     AD_CODE(MAPI_E_NON_STANDARD),
    AD_CODE(MAPI_E_NO_RECIPIENTS),      AD_CODE(MAPI_E_SUBMITTED),           AD_CODE(MAPI_E_HAS_FOLDERS),
    AD_CODE(MAPI_E_HAS_MESSAGES),       AD_CODE(MAPI_E_FOLDER_CYCLE),        AD_CODE(MAPI_E_STORE_FULL),
    AD_CODE(MAPI_E_LOCKID_LIMIT),       AD_CODE(MAPI_W_PARTIAL_COMPLETION),  AD_CODE(MAPI_E_AMBIGUOUS_RECIP),
    AD_CODE(MAPI_E_NAMED_PROP_QUOTA_EXCEEDED),
    AD_CODE(E_UNEXPECTED), AD_CODE(E_NOTIMPL), AD_CODE(E_POINTER), AD_CODE(E_HANDLE), AD_CODE(E_ABORT),
    AD_CODE(E_PENDING),
};
#undef AD_CODE

std::string Printf(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Printf(const char* format, ...) {
  char buf[128];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(buf, sizeof buf, format, ap);
  va_end(ap);
  return buf;
}

std::string WideText(const WCHAR* text) {
  return text ? adp::Utf16ToUtf8(reinterpret_cast<const char16_t*>(text)) : std::string();
}

std::string GuidText(const GUID* guid) {
  if (!guid) return std::string();
  return Printf("{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", static_cast<unsigned>(guid->Data1),
                guid->Data2, guid->Data3, guid->Data4[0], guid->Data4[1], guid->Data4[2], guid->Data4[3],
                guid->Data4[4], guid->Data4[5], guid->Data4[6], guid->Data4[7]);
}

std::string TimeText(const FILETIME& ft) {
  SYSTEMTIME st{};
  if (!FileTimeToSystemTime(&ft, &st)) {
    return Printf("0x%08X%08X", static_cast<unsigned>(ft.dwHighDateTime), static_cast<unsigned>(ft.dwLowDateTime));
  }
  return Printf("%04u-%02u-%02uT%02u:%02u:%02u.%03uZ", st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute,
                st.wSecond, st.wMilliseconds);
}

std::string RealText(double v) { return Printf("%.17g", v); }

// One element of a single- or multi-valued property, as text; `json` is filled alongside.
struct Rendered {
  std::string text;
  Json json;
};

Rendered Scalar(ULONG type, const SPropValue& v) {
  switch (type) {
    case PT_SHORT: return {std::to_string(v.Value.i), Json::Int(v.Value.i)};
    case PT_LONG: return {std::to_string(v.Value.l), Json::Int(v.Value.l)};
    case PT_FLOAT: return {RealText(v.Value.flt), Json::Real(v.Value.flt)};
    case PT_DOUBLE:
    case PT_APPTIME: return {RealText(v.Value.dbl), Json::Real(v.Value.dbl)};
    case PT_CURRENCY: return {std::to_string(v.Value.cur.int64), Json::Int(v.Value.cur.int64)};
    case PT_I8: return {std::to_string(v.Value.li.QuadPart), Json::Int(v.Value.li.QuadPart)};
    case PT_BOOLEAN: return {v.Value.b ? "true" : "false", Json::Boolean(v.Value.b != 0)};
    case PT_ERROR: {
      std::string t = HResultText(static_cast<HRESULT>(v.Value.err));
      Json j = Json::Object();
      j.Set("error", Json::Str(t));
      return {"<error " + t + ">", j};
    }
    case PT_STRING8: {
      std::string t = v.Value.lpszA ? v.Value.lpszA : "";
      return {t, Json::Str(t)};
    }
    case PT_UNICODE: {
      std::string t = WideText(v.Value.lpszW);
      return {t, Json::Str(t)};
    }
    case PT_SYSTIME: {
      std::string t = TimeText(v.Value.ft);
      return {t, Json::Str(t)};
    }
    case PT_CLSID: {
      std::string t = GuidText(v.Value.lpguid);
      return {t, Json::Str(t)};
    }
    case PT_BINARY: {
      std::string t = HexBytes(v.Value.bin.lpb, v.Value.bin.cb);
      return {t, Json::Str(t)};
    }
    case PT_OBJECT: return {"<object>", Json::Str("<object>")};
    case PT_NULL: return {"<null>", Json()};
    default: {
      std::string t = Printf("<type 0x%04X>", static_cast<unsigned>(type));
      return {t, Json::Str(t)};
    }
  }
}

// The i-th element of a multi-valued property as a single value of the base type.
SPropValue Element(const SPropValue& v, ULONG i) {
  SPropValue e{};
  e.ulPropTag = PROP_TAG(PROP_TYPE(v.ulPropTag) & ~MV_FLAG, PROP_ID(v.ulPropTag));
  switch (PROP_TYPE(v.ulPropTag) & ~MV_FLAG) {
    case PT_SHORT: e.Value.i = v.Value.MVi.lpi[i]; break;
    case PT_LONG: e.Value.l = v.Value.MVl.lpl[i]; break;
    case PT_FLOAT: e.Value.flt = v.Value.MVflt.lpflt[i]; break;
    case PT_DOUBLE: e.Value.dbl = v.Value.MVdbl.lpdbl[i]; break;
    case PT_APPTIME: e.Value.at = v.Value.MVat.lpat[i]; break;
    case PT_CURRENCY: e.Value.cur = v.Value.MVcur.lpcur[i]; break;
    case PT_I8: e.Value.li = v.Value.MVli.lpli[i]; break;
    case PT_STRING8: e.Value.lpszA = v.Value.MVszA.lppszA[i]; break;
    case PT_UNICODE: e.Value.lpszW = v.Value.MVszW.lppszW[i]; break;
    case PT_SYSTIME: e.Value.ft = v.Value.MVft.lpft[i]; break;
    case PT_CLSID: e.Value.lpguid = &v.Value.MVguid.lpguid[i]; break;
    case PT_BINARY: e.Value.bin = v.Value.MVbin.lpbin[i]; break;
    default: break;
  }
  return e;
}

Rendered Render(const SPropValue& v) {
  ULONG type = PROP_TYPE(v.ulPropTag);
  if (!(type & MV_FLAG)) return Scalar(type, v);
  Rendered all{"[", Json::Array()};
  ULONG count = v.Value.MVl.cValues;  // every multi-valued form starts with its count
  for (ULONG i = 0; i < count; ++i) {
    Rendered one = Scalar(type & ~MV_FLAG, Element(v, i));
    all.text += (i ? ", " : "") + one.text;
    all.json.Push(std::move(one.json));
  }
  all.text += "]";
  return all;
}

}  // namespace

Json Json::Str(const std::string& text) {
  Json j;
  j.m_kind = Kind::String;
  j.m_text = text;
  return j;
}

Json Json::Int(int64_t value) {
  Json j;
  j.m_kind = Kind::Number;
  j.m_text = std::to_string(value);
  return j;
}

Json Json::Real(double value) {
  if (value != value || value - value != 0) return Json();  // NaN and infinities have no JSON form
  Json j;
  j.m_kind = Kind::Number;
  j.m_text = RealText(value);
  return j;
}

Json Json::Boolean(bool value) {
  Json j;
  j.m_kind = Kind::Bool;
  j.m_bool = value;
  return j;
}

Json Json::Array() {
  Json j;
  j.m_kind = Kind::Array;
  return j;
}

Json Json::Object() {
  Json j;
  j.m_kind = Kind::Object;
  return j;
}

Json& Json::Push(Json value) {
  m_items.push_back(std::move(value));
  return m_items.back();
}

Json& Json::Set(const std::string& key, Json value) {
  for (auto& [k, v] : m_members) {
    if (k == key) return v = std::move(value);
  }
  m_members.emplace_back(key, std::move(value));
  return m_members.back().second;
}

std::string Json::Dump() const {
  std::string out;
  Write(out, 0);
  return out + "\n";
}

void Json::Write(std::string& out, int depth) const {
  switch (m_kind) {
    case Kind::Null: out += "null"; return;
    case Kind::Bool: out += m_bool ? "true" : "false"; return;
    case Kind::Number: out += m_text; return;
    case Kind::String: out += JsonQuote(m_text); return;
    case Kind::Array:
      if (m_items.empty()) {
        out += "[]";
        return;
      }
      out += "[\n";
      for (size_t i = 0; i < m_items.size(); ++i) {
        Indent(out, depth + 1);
        m_items[i].Write(out, depth + 1);
        out += i + 1 < m_items.size() ? ",\n" : "\n";
      }
      Indent(out, depth);
      out += "]";
      return;
    case Kind::Object:
      if (m_members.empty()) {
        out += "{}";
        return;
      }
      out += "{\n";
      for (size_t i = 0; i < m_members.size(); ++i) {
        Indent(out, depth + 1);
        out += JsonQuote(m_members[i].first) + ": ";
        m_members[i].second.Write(out, depth + 1);
        out += i + 1 < m_members.size() ? ",\n" : "\n";
      }
      Indent(out, depth);
      out += "}";
      return;
  }
}

std::string JsonQuote(const std::string& text) {
  std::string out = "\"";
  for (size_t i = 0; i < text.size();) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    size_t n = Utf8Length(text, i);
    if (n == 0) {
      out += "\\ufffd";  // not UTF-8: replaced so the document stays well-formed
      ++i;
      continue;
    }
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\b': out += "\\b"; break;
      case '\f': out += "\\f"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20 || c == 0x7F) {
          out += Printf("\\u%04x", c);
        } else {
          out.append(text, i, n);
        }
    }
    i += n;
  }
  return out + "\"";
}

const char* HResultName(HRESULT hr) {
  if (hr == S_OK) return "S_OK";
  for (const auto& c : kCodes) {
    if (c.hr == hr) return c.name;
  }
  return nullptr;
}

std::string HResultText(HRESULT hr) {
  std::string text = Printf("0x%08X", static_cast<unsigned>(hr));
  if (const char* name = HResultName(hr)) text += std::string(" ") + name;
  return text;
}

std::string TagName(ULONG ulPropTag) {
  const char* name = adp::PropTagName(ulPropTag);
  return name ? name : Printf("0x%08X", static_cast<unsigned>(ulPropTag));
}

std::string ValueText(const SPropValue& value) { return Render(value).text; }

Json ValueJson(const SPropValue& value) { return Render(value).json; }

std::string HexBytes(const BYTE* data, size_t cb) {
  static const char digits[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(cb * 2);
  for (size_t i = 0; data && i < cb; ++i) {
    out += digits[data[i] >> 4];
    out += digits[data[i] & 0xF];
  }
  return out;
}

Json PropsJson(const SPropValue* values, ULONG count) {
  Json doc = Json::Object();
  for (ULONG i = 0; i < count; ++i) doc.Set(TagName(values[i].ulPropTag), ValueJson(values[i]));
  return doc;
}

void PrintProps(std::ostream& out, const SPropValue* values, ULONG count) {
  size_t width = 0;
  for (ULONG i = 0; i < count; ++i) width = std::max(width, TagName(values[i].ulPropTag).size());
  for (ULONG i = 0; i < count; ++i) {
    std::string name = TagName(values[i].ulPropTag);
    out << "  " << name << std::string(width - name.size() + 2, ' ') << ValueText(values[i]) << "\n";
  }
}

}  // namespace adcli
