// GUID creation and text conversions: RPC's UuidFromString/UuidToString (no braces, lower case)
// and COM's StringFromGUID2/CLSIDFromString (braces, upper case).
#include <sys/random.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "guid_text.h"
#include "objbase.h"

namespace adp::com {
namespace {

template <class Char> int HexValue(Char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Reads `digits` hex digits at text[*pos] into *value.
template <class Char> bool ReadHex(const Char* text, size_t* pos, int digits, uint64_t* value) {
  *value = 0;
  for (int i = 0; i < digits; ++i) {
    int v = HexValue(text[*pos]);
    if (v < 0) return false;
    *value = (*value << 4) | static_cast<uint64_t>(v);
    ++*pos;
  }
  return true;
}

template <class Char> bool ReadDash(const Char* text, size_t* pos) { return text[(*pos)++] == '-'; }

bool FillRandom(void* buffer, size_t size) {
  auto* p = static_cast<unsigned char*>(buffer);
  while (size) {
    ssize_t n = getrandom(p, size, 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    p += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

template <class Char> bool ParseDashed(const Char* text, GUID* guid) {
  if (!text) return false;
  size_t pos = 0;
  uint64_t v1, v2, v3, v4, v5;
  // Each read stops at the first non-hex character, so a short text fails before its end.
  if (!ReadHex(text, &pos, 8, &v1) || !ReadDash(text, &pos) || !ReadHex(text, &pos, 4, &v2) ||
      !ReadDash(text, &pos) || !ReadHex(text, &pos, 4, &v3) || !ReadDash(text, &pos) ||
      !ReadHex(text, &pos, 4, &v4) || !ReadDash(text, &pos) || !ReadHex(text, &pos, 12, &v5))
    return false;
  guid->Data1 = static_cast<uint32_t>(v1);
  guid->Data2 = static_cast<uint16_t>(v2);
  guid->Data3 = static_cast<uint16_t>(v3);
  guid->Data4[0] = static_cast<uint8_t>(v4 >> 8);
  guid->Data4[1] = static_cast<uint8_t>(v4);
  for (int i = 0; i < 6; ++i) guid->Data4[2 + i] = static_cast<uint8_t>(v5 >> (8 * (5 - i)));
  return true;
}

template <class Char> bool ParseBraced(const Char* text, GUID* guid) {
  if (!text || text[0] != '{') return false;
  for (size_t i = 1; i <= 36; ++i) {
    if (!text[i]) return false;
  }
  GUID parsed;
  if (text[37] != '}' || text[38] != 0 || !ParseDashed(text + 1, &parsed)) return false;
  *guid = parsed;
  return true;
}

template bool ParseDashed<char>(const char*, GUID*);
template bool ParseDashed<char16_t>(const char16_t*, GUID*);
template bool ParseDashed<unsigned short>(const unsigned short*, GUID*);
template bool ParseBraced<char>(const char*, GUID*);
template bool ParseBraced<char16_t>(const char16_t*, GUID*);

std::string FormatDashed(const GUID& g, bool upperCase) {
  char text[40];
  const char* format = upperCase ? "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X"
                                 : "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x";
  std::snprintf(text, sizeof(text), format, g.Data1, g.Data2, g.Data3, g.Data4[0], g.Data4[1], g.Data4[2],
                g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
  return text;
}

std::string FormatBraced(const GUID& guid) { return "{" + FormatDashed(guid, true) + "}"; }

}  // namespace adp::com

namespace {

// Copies ASCII text into a NUL-terminated wide buffer of at least text.size() + 1 units.
template <class Unit> void WidenAscii(const std::string& text, Unit* out) {
  for (size_t i = 0; i < text.size(); ++i) out[i] = static_cast<Unit>(text[i]);
  out[text.size()] = 0;
}

template <class Unit> Unit* AllocWideCopy(const std::string& text) {
  auto* out = static_cast<Unit*>(std::malloc((text.size() + 1) * sizeof(Unit)));
  if (out) WidenAscii(text, out);
  return out;
}

HRESULT StringFromGuidAlloc(REFGUID guid, LPOLESTR* out) {
  if (!out) return E_INVALIDARG;
  std::string text = adp::com::FormatBraced(guid);
  *out = static_cast<LPOLESTR>(CoTaskMemAlloc((text.size() + 1) * sizeof(OLECHAR)));
  if (!*out) return E_OUTOFMEMORY;
  WidenAscii(text, *out);
  return S_OK;
}

}  // namespace

extern "C" RPC_STATUS UuidCreate(UUID* Uuid) {
  if (!Uuid) return RPC_S_INVALID_ARG;
  if (!adp::com::FillRandom(Uuid, sizeof(*Uuid))) return RPC_S_OUT_OF_MEMORY;
  Uuid->Data3 = static_cast<uint16_t>((Uuid->Data3 & 0x0FFF) | 0x4000);  // version 4: random
  Uuid->Data4[0] = static_cast<uint8_t>((Uuid->Data4[0] & 0x3F) | 0x80);  // RFC 4122 variant
  return RPC_S_OK;
}

extern "C" HRESULT CoCreateGuid(GUID* pguid) {
  if (!pguid) return E_INVALIDARG;
  return UuidCreate(pguid) == RPC_S_OK ? S_OK : E_FAIL;
}

extern "C" RPC_STATUS UuidFromStringA(RPC_CSTR StringUuid, UUID* Uuid) {
  if (!Uuid) return RPC_S_INVALID_ARG;
  if (!StringUuid) {
    *Uuid = GUID_NULL;
    return RPC_S_OK;
  }
  auto* text = reinterpret_cast<const char*>(StringUuid);
  GUID parsed;
  if (!adp::com::ParseDashed(text, &parsed) || text[36] != 0) return RPC_S_INVALID_STRING_UUID;
  *Uuid = parsed;
  return RPC_S_OK;
}

extern "C" RPC_STATUS UuidFromStringW(RPC_WSTR StringUuid, UUID* Uuid) {
  if (!Uuid) return RPC_S_INVALID_ARG;
  if (!StringUuid) {
    *Uuid = GUID_NULL;
    return RPC_S_OK;
  }
  GUID parsed;
  if (!adp::com::ParseDashed<unsigned short>(StringUuid, &parsed) || StringUuid[36] != 0)
    return RPC_S_INVALID_STRING_UUID;
  *Uuid = parsed;
  return RPC_S_OK;
}

extern "C" RPC_STATUS UuidToStringA(const UUID* Uuid, RPC_CSTR* StringUuid) {
  if (!Uuid || !StringUuid) return RPC_S_INVALID_ARG;
  *StringUuid = AllocWideCopy<unsigned char>(adp::com::FormatDashed(*Uuid, false));
  return *StringUuid ? RPC_S_OK : RPC_S_OUT_OF_MEMORY;
}

extern "C" RPC_STATUS UuidToStringW(const UUID* Uuid, RPC_WSTR* StringUuid) {
  if (!Uuid || !StringUuid) return RPC_S_INVALID_ARG;
  *StringUuid = AllocWideCopy<unsigned short>(adp::com::FormatDashed(*Uuid, false));
  return *StringUuid ? RPC_S_OK : RPC_S_OUT_OF_MEMORY;
}

extern "C" RPC_STATUS RpcStringFreeA(RPC_CSTR* String) {
  if (!String) return RPC_S_INVALID_ARG;
  std::free(*String);
  *String = nullptr;
  return RPC_S_OK;
}

extern "C" RPC_STATUS RpcStringFreeW(RPC_WSTR* String) {
  if (!String) return RPC_S_INVALID_ARG;
  std::free(*String);
  *String = nullptr;
  return RPC_S_OK;
}

extern "C" int StringFromGUID2(REFGUID rguid, LPOLESTR lpsz, int cchMax) {
  std::string text = adp::com::FormatBraced(rguid);
  if (!lpsz || cchMax < static_cast<int>(text.size() + 1)) return 0;
  WidenAscii(text, lpsz);
  return static_cast<int>(text.size() + 1);
}

extern "C" HRESULT StringFromCLSID(REFCLSID rclsid, LPOLESTR* lplpsz) { return StringFromGuidAlloc(rclsid, lplpsz); }

extern "C" HRESULT StringFromIID(REFIID rclsid, LPOLESTR* lplpsz) { return StringFromGuidAlloc(rclsid, lplpsz); }

extern "C" HRESULT CLSIDFromString(LPCOLESTR lpsz, LPCLSID pclsid) {
  if (!pclsid) return E_INVALIDARG;
  if (!lpsz) {
    *pclsid = CLSID_NULL;
    return NOERROR;
  }
  if (lpsz[0] == u'{') return adp::com::ParseBraced(lpsz, pclsid) ? NOERROR : CO_E_CLASSSTRING;
  // Not a braced CLSID: the text may be a ProgID.
  CLSID found;
  if (FAILED(CLSIDFromProgID(lpsz, &found))) return CO_E_CLASSSTRING;
  *pclsid = found;
  return NOERROR;
}

extern "C" HRESULT IIDFromString(LPCOLESTR lpsz, LPIID lpiid) {
  if (!lpiid) return E_INVALIDARG;
  if (!lpsz) {
    *lpiid = IID_NULL;
    return S_OK;
  }
  return adp::com::ParseBraced(lpsz, lpiid) ? S_OK : E_INVALIDARG;
}
