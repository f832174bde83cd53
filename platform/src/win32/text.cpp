// Text conversion: UTF-8 <-> UTF-16 for the stand-in and for MultiByteToWideChar and
// WideCharToMultiByte, whose "ANSI" code pages all mean UTF-8 here; the C runtime's
// mbstowcs/wcstombs over WCHAR; simple case mapping.
#include <locale.h>
#include <wctype.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "adplatform.h"
#include "crtcompat.h"
#include "errhandlingapi.h"
#include "stringapiset.h"
#include "win32/unicode.h"
#include "winerror.h"

namespace adp::unicode {

bool DecodeUtf8(const unsigned char*& p, const unsigned char* end, char32_t& cp) {
  const unsigned char lead = *p++;
  if (lead < 0x80) {
    cp = lead;
    return true;
  }
  int trail = 0;
  char32_t value = 0;
  unsigned char lo = 0x80, hi = 0xBF;  // range of the first trail byte: excludes overlongs and surrogates
  if (lead >= 0xC2 && lead <= 0xDF) {
    trail = 1, value = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    trail = 2, value = lead & 0x0F;
    if (lead == 0xE0) lo = 0xA0;
    if (lead == 0xED) hi = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    trail = 3, value = lead & 0x07;
    if (lead == 0xF0) lo = 0x90;
    if (lead == 0xF4) hi = 0x8F;
  } else {
    cp = kReplacement;
    return false;
  }
  for (int i = 0; i < trail; ++i) {
    if (p == end || *p < lo || *p > hi) {
      cp = kReplacement;
      return false;
    }
    value = (value << 6) | (*p++ & 0x3F);
    lo = 0x80, hi = 0xBF;
  }
  cp = value;
  return true;
}

bool DecodeUtf16(const char16_t*& p, const char16_t* end, char32_t& cp) {
  const char16_t unit = *p++;
  if (unit < 0xD800 || unit > 0xDFFF) {
    cp = unit;
    return true;
  }
  if (unit <= 0xDBFF && p != end && *p >= 0xDC00 && *p <= 0xDFFF) {
    cp = 0x10000 + ((static_cast<char32_t>(unit) - 0xD800) << 10) + (*p++ - 0xDC00);
    return true;
  }
  cp = kReplacement;
  return false;
}

size_t Utf8Length(char32_t cp) { return cp < 0x80 ? 1 : cp < 0x800 ? 2 : cp < 0x10000 ? 3 : 4; }

void AppendUtf8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

void AppendUtf16(std::u16string& out, char32_t cp) {
  if (cp < 0x10000) {
    out.push_back(static_cast<char16_t>(cp));
  } else {
    cp -= 0x10000;
    out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
    out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
  }
}

bool Utf8To16(const char* text, size_t len, std::u16string& out, bool strict) {
  out.clear();
  out.reserve(len);
  auto* p = reinterpret_cast<const unsigned char*>(text);
  const unsigned char* end = p + len;
  bool clean = true;
  while (p < end) {
    char32_t cp;
    if (!DecodeUtf8(p, end, cp)) {
      clean = false;
      if (strict) return false;
    }
    AppendUtf16(out, cp);
  }
  return clean;
}

bool Utf16To8(const char16_t* text, size_t len, std::string& out, bool strict) {
  out.clear();
  out.reserve(len);
  const char16_t* p = text;
  const char16_t* end = text + len;
  bool clean = true;
  while (p < end) {
    char32_t cp;
    if (!DecodeUtf16(p, end, cp)) {
      clean = false;
      if (strict) return false;
    }
    AppendUtf8(out, cp);
  }
  return clean;
}

namespace {

// glibc's C.UTF-8 carries the Unicode case tables; without it only ASCII is mapped.
locale_t CaseLocale() {
  static const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
  return locale;
}

// Dotted and dotless i have no simple folding outside Turkic languages.
bool KeepsCase(char32_t cp) { return cp == 0x0130 || cp == 0x0131; }

char32_t MapCase(char32_t cp, bool upper) {
  if (cp < 0x80) {
    char c = static_cast<char>(cp);
    return static_cast<unsigned char>(upper ? AsciiUpper(c) : AsciiLower(c));
  }
  if (cp > 0xFFFF || KeepsCase(cp)) return cp;
  locale_t locale = CaseLocale();
  if (locale == static_cast<locale_t>(nullptr)) return cp;
  wint_t mapped = upper ? towupper_l(static_cast<wint_t>(cp), locale) : towlower_l(static_cast<wint_t>(cp), locale);
  return mapped > 0xFFFF ? cp : static_cast<char32_t>(mapped);
}

}  // namespace

char32_t ToUpper(char32_t cp) { return MapCase(cp, true); }
bool IsAlpha(char32_t cp) {
  if (cp < 0x80) return (cp >= 'a' && cp <= 'z') || (cp >= 'A' && cp <= 'Z');
  locale_t locale = CaseLocale();
  return locale != static_cast<locale_t>(nullptr) && iswalpha_l(static_cast<wint_t>(cp), locale) != 0;
}
char32_t ToLower(char32_t cp) { return MapCase(cp, false); }

}  // namespace adp::unicode

namespace adp {

std::u16string Utf8ToUtf16(const char* text, size_t len) {
  std::u16string out;
  if (!text) return out;
  if (len == std::string::npos) len = std::strlen(text);
  unicode::Utf8To16(text, len, out, false);
  return out;
}

std::string Utf16ToUtf8(const char16_t* text, size_t len) {
  std::string out;
  if (!text) return out;
  if (len == std::u16string::npos) len = unicode::Length16(text);
  unicode::Utf16To8(text, len, out, false);
  return out;
}

}  // namespace adp

namespace {

using namespace adp::unicode;

bool IsAcpAlias(UINT codePage) {
  return codePage == CP_ACP || codePage == CP_OEMCP || codePage == CP_MACCP || codePage == CP_THREAD_ACP;
}

bool IsUtf8CodePage(UINT codePage) { return IsAcpAlias(codePage) || codePage == CP_UTF8; }

int Fail(DWORD error) {
  SetLastError(error);
  return 0;
}

bool MultiByteFlagsValid(UINT codePage, DWORD flags) {
  if (codePage == CP_UTF8) return (flags & ~MB_ERR_INVALID_CHARS) == 0;
  const DWORD allowed = MB_PRECOMPOSED | MB_COMPOSITE | MB_USEGLYPHCHARS | MB_ERR_INVALID_CHARS;
  if (flags & ~allowed) return false;
  return (flags & (MB_PRECOMPOSED | MB_COMPOSITE)) != (MB_PRECOMPOSED | MB_COMPOSITE);
}

bool WideFlagsValid(UINT codePage, DWORD flags) {
  if (codePage == CP_UTF8) return (flags & ~WC_ERR_INVALID_CHARS) == 0;
  const DWORD allowed = WC_COMPOSITECHECK | WC_DISCARDNS | WC_SEPCHARS | WC_DEFAULTCHAR | WC_ERR_INVALID_CHARS |
                        WC_NO_BEST_FIT_CHARS;
  return (flags & ~allowed) == 0;
}

// Copies a converted result into the caller's buffer with the published size rules.
template <class Char>
int Deliver(const std::basic_string<Char>& result, Char* out, int outSize) {
  if (result.size() > static_cast<size_t>(INT_MAX)) return Fail(ERROR_INSUFFICIENT_BUFFER);
  if (outSize == 0) return static_cast<int>(result.size());
  if (result.size() > static_cast<size_t>(outSize)) {
    std::memcpy(out, result.data(), static_cast<size_t>(outSize) * sizeof(Char));
    return Fail(ERROR_INSUFFICIENT_BUFFER);
  }
  std::memcpy(out, result.data(), result.size() * sizeof(Char));
  return static_cast<int>(result.size());
}

// The replacement for an unpaired surrogate: the caller's default character (at most
// MAX_DEFAULTCHAR bytes, as published) or U+FFFD.
void AppendDefault(std::string& out, LPCSTR defaultChar) {
  if (defaultChar && *defaultChar)
    out.append(defaultChar, strnlen(defaultChar, MAX_DEFAULTCHAR));
  else
    AppendUtf8(out, kReplacement);
}

// Copies whole characters of UTF-8 text into at most count bytes; terminates when room is left.
size_t CopyWholeUtf8(const std::string& text, char* out, size_t count) {
  size_t used = 0;
  auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const unsigned char* end = p + text.size();
  while (p < end) {
    const unsigned char* start = p;
    char32_t cp;
    DecodeUtf8(p, end, cp);
    size_t n = static_cast<size_t>(p - start);
    if (used + n > count) return used;
    std::memcpy(out + used, start, n);
    used += n;
  }
  if (used < count) out[used] = '\0';
  return used;
}

size_t CopyWholeUtf16(const std::u16string& text, WCHAR* out, size_t count) {
  size_t used = 0;
  const char16_t* p = text.data();
  const char16_t* end = p + text.size();
  while (p < end) {
    const char16_t* start = p;
    char32_t cp;
    DecodeUtf16(p, end, cp);
    size_t n = static_cast<size_t>(p - start);
    if (used + n > count) return used;
    std::memcpy(out + used, start, n * sizeof(WCHAR));
    used += n;
  }
  if (used < count) out[used] = 0;
  return used;
}

}  // namespace

extern "C" {

UINT GetACP() { return CP_UTF8; }
UINT GetOEMCP() { return CP_UTF8; }
BOOL IsValidCodePage(UINT CodePage) { return CodePage == CP_UTF8; }

int MultiByteToWideChar(UINT CodePage, DWORD dwFlags, LPCSTR lpMultiByteStr, int cbMultiByte,
                        LPWSTR lpWideCharStr, int cchWideChar) {
  if (!IsUtf8CodePage(CodePage)) return Fail(ERROR_INVALID_PARAMETER);
  if (!MultiByteFlagsValid(CodePage, dwFlags)) return Fail(ERROR_INVALID_FLAGS);
  if (!lpMultiByteStr || cbMultiByte == 0 || cbMultiByte < -1 || cchWideChar < 0 ||
      (!lpWideCharStr && cchWideChar != 0) ||
      static_cast<const void*>(lpMultiByteStr) == static_cast<const void*>(lpWideCharStr))
    return Fail(ERROR_INVALID_PARAMETER);
  size_t len = cbMultiByte == -1 ? std::strlen(lpMultiByteStr) + 1 : static_cast<size_t>(cbMultiByte);
  std::u16string result;
  const bool strict = (dwFlags & MB_ERR_INVALID_CHARS) != 0;
  if (!Utf8To16(lpMultiByteStr, len, result, strict) && strict) return Fail(ERROR_NO_UNICODE_TRANSLATION);
  return Deliver(result, lpWideCharStr, cchWideChar);
}

int WideCharToMultiByte(UINT CodePage, DWORD dwFlags, LPCWSTR lpWideCharStr, int cchWideChar,
                        LPSTR lpMultiByteStr, int cbMultiByte, LPCSTR lpDefaultChar, LPBOOL lpUsedDefaultChar) {
  if (!IsUtf8CodePage(CodePage)) return Fail(ERROR_INVALID_PARAMETER);
  if (!WideFlagsValid(CodePage, dwFlags)) return Fail(ERROR_INVALID_FLAGS);
  if (CodePage == CP_UTF8 && (lpDefaultChar || lpUsedDefaultChar)) return Fail(ERROR_INVALID_PARAMETER);
  if (!lpWideCharStr || cchWideChar == 0 || cchWideChar < -1 || cbMultiByte < 0 ||
      (!lpMultiByteStr && cbMultiByte != 0) ||
      static_cast<const void*>(lpMultiByteStr) == static_cast<const void*>(lpWideCharStr))
    return Fail(ERROR_INVALID_PARAMETER);
  size_t len = cchWideChar == -1 ? Length16(lpWideCharStr) + 1 : static_cast<size_t>(cchWideChar);
  const bool strict = (dwFlags & WC_ERR_INVALID_CHARS) != 0;
  std::string result;
  result.reserve(len);
  bool usedDefault = false;
  const char16_t* p = lpWideCharStr;
  const char16_t* end = p + len;
  while (p < end) {
    char32_t cp;
    if (DecodeUtf16(p, end, cp)) {
      AppendUtf8(result, cp);
      continue;
    }
    if (strict) return Fail(ERROR_NO_UNICODE_TRANSLATION);
    usedDefault = true;
    AppendDefault(result, lpDefaultChar);
  }
  if (lpUsedDefaultChar) *lpUsedDefaultChar = usedDefault ? TRUE : FALSE;
  return Deliver(result, lpMultiByteStr, cbMultiByte);
}

}  // extern "C"

size_t mbstowcs(WCHAR* wcstr, const char* mbstr, size_t count) {
  if (!mbstr) {
    errno = EINVAL;
    return static_cast<size_t>(-1);
  }
  std::u16string text;
  if (!Utf8To16(mbstr, std::strlen(mbstr), text, true)) {
    errno = EILSEQ;
    return static_cast<size_t>(-1);
  }
  if (!wcstr) return text.size();
  return CopyWholeUtf16(text, wcstr, count);
}

size_t wcstombs(char* mbstr, const WCHAR* wcstr, size_t count) {
  if (!wcstr) {
    errno = EINVAL;
    return static_cast<size_t>(-1);
  }
  std::string text;
  if (!Utf16To8(wcstr, Length16(wcstr), text, true)) {
    errno = EILSEQ;
    return static_cast<size_t>(-1);
  }
  if (!mbstr) return text.size();
  return CopyWholeUtf8(text, mbstr, count);
}
