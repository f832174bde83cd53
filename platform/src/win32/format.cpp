// The printf engine with the Microsoft C runtime's rules, and the narrow and wide function
// families over it. Each conversion is parsed here and its argument fetched with the Windows
// width ("l" is 32 bits); numbers are then printed by glibc's snprintf, text is handled here so
// that 16-bit WCHAR strings work in both directions.
#include "win32/format.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "crtcompat.h"
#include "win32/unicode.h"
#include "winuser.h"

namespace adp::format {
namespace {

using namespace adp::unicode;

// Widths and precisions beyond this are refused rather than allocated.
constexpr long kMaxField = 1L << 24;

enum class Length { None, HH, H, L, LL, J, Z, T, LongDouble, W, Size, I32, I64 };

struct Directive {
  std::string flags;  // of "-+ #0", in the order given
  bool left = false;
  long width = -1;
  bool widthStar = false;
  long precision = -1;
  bool precisionStar = false;
  Length length = Length::None;
  char conversion = 0;
};

template <class Char>
long ParseNumber(const Char*& p) {
  long value = 0;
  while (*p >= '0' && *p <= '9') {
    if (value <= kMaxField) value = value * 10 + (*p - '0');
    ++p;
  }
  return value;
}

template <class Char>
bool Starts(const Char* p, const char* text) {
  for (; *text; ++p, ++text)
    if (*p != static_cast<Char>(*text)) return false;
  return true;
}

template <class Char>
Length ParseLength(const Char*& p) {
  struct Entry {
    const char* text;
    Length length;
  };
  static const Entry kLengths[] = {{"I64", Length::I64}, {"I32", Length::I32}, {"hh", Length::HH},
                                   {"ll", Length::LL},   {"h", Length::H},     {"l", Length::L},
                                   {"j", Length::J},     {"z", Length::Z},     {"t", Length::T},
                                   {"L", Length::LongDouble}, {"q", Length::LL}, {"w", Length::W},
                                   {"I", Length::Size}};
  for (const Entry& e : kLengths) {
    if (Starts(p, e.text)) {
      p += std::strlen(e.text);
      return e.length;
    }
  }
  return Length::None;
}

// Parses the conversion after '%'; false when the format ends first.
template <class Char>
bool ParseDirective(const Char*& p, Directive& directive) {
  for (; *p && *p < 0x80 && std::strchr("-+ #0'", static_cast<int>(*p)); ++p) {
    if (*p == '\'') continue;
    if (*p == '-') directive.left = true;
    directive.flags.push_back(static_cast<char>(*p));
  }
  if (*p == '*') {
    directive.widthStar = true;
    ++p;
  } else {
    if (*p >= '0' && *p <= '9') directive.width = ParseNumber(p);
  }
  if (*p == '.') {
    ++p;
    if (*p == '*') {
      directive.precisionStar = true;
      ++p;
    } else {
      directive.precision = ParseNumber(p);
    }
  }
  directive.length = ParseLength(p);
  if (!*p) return false;
  directive.conversion = *p < 0x80 ? static_cast<char>(*p) : '?';
  ++p;
  return true;
}

template <class Char>
void AppendAscii(std::basic_string<Char>& out, const char* text, size_t n) {
  for (size_t i = 0; i < n; ++i) out.push_back(static_cast<Char>(static_cast<unsigned char>(text[i])));
}

template <class Char>
void AppendPadded(std::basic_string<Char>& out, const std::basic_string<Char>& text, const Directive& directive) {
  size_t pad = directive.width > 0 && static_cast<size_t>(directive.width) > text.size()
                   ? static_cast<size_t>(directive.width) - text.size()
                   : 0;
  if (!directive.left) out.append(pad, static_cast<Char>(' '));
  out += text;
  if (directive.left) out.append(pad, static_cast<Char>(' '));
}

// Builds "%<flags><width>.<precision><length><conversion>" for glibc.
std::string NativeSpec(const Directive& directive, const char* length) {
  std::string s = "%" + directive.flags;
  if (directive.width >= 0) s += std::to_string(directive.width);
  if (directive.precision >= 0) s += "." + std::to_string(directive.precision);
  s += length;
  s.push_back(directive.conversion);
  return s;
}

template <class Char, class Value>
void AppendNative(std::basic_string<Char>& out, const std::string& nativeSpec, Value value) {
  char small[128];
  int n = std::snprintf(small, sizeof small, nativeSpec.c_str(), value);
  if (n < 0) return;
  if (static_cast<size_t>(n) < sizeof small) {
    AppendAscii(out, small, static_cast<size_t>(n));
    return;
  }
  std::string big(static_cast<size_t>(n) + 1, '\0');
  std::snprintf(big.data(), big.size(), nativeSpec.c_str(), value);
  AppendAscii(out, big.data(), static_cast<size_t>(n));
}

long long FetchSigned(va_list* args, Length length) {
  switch (length) {
    case Length::HH: return static_cast<signed char>(va_arg(*args, int));
    case Length::H: return static_cast<short>(va_arg(*args, int));
    case Length::LL:
    case Length::I64:
    case Length::LongDouble: return va_arg(*args, long long);
    case Length::J: return static_cast<long long>(va_arg(*args, intmax_t));
    case Length::Z:
    case Length::T:
    case Length::Size: return static_cast<long long>(va_arg(*args, ptrdiff_t));
    default: return va_arg(*args, int);  // none, l, w and I32: 32 bits
  }
}

unsigned long long FetchUnsigned(va_list* args, Length length) {
  switch (length) {
    case Length::HH: return static_cast<unsigned char>(va_arg(*args, unsigned));
    case Length::H: return static_cast<unsigned short>(va_arg(*args, unsigned));
    case Length::LL:
    case Length::I64:
    case Length::LongDouble: return va_arg(*args, unsigned long long);
    case Length::J: return static_cast<unsigned long long>(va_arg(*args, uintmax_t));
    case Length::Z:
    case Length::T:
    case Length::Size: return static_cast<unsigned long long>(va_arg(*args, size_t));
    default: return va_arg(*args, unsigned);
  }
}

// Whether a %s or %c argument is 16-bit text, by the Microsoft rules.
bool WideArgument(const Directive& directive, bool wideOutput) {
  if (directive.length == Length::L || directive.length == Length::W) return true;
  if (directive.length == Length::H) return false;
  bool upper = directive.conversion == 'S' || directive.conversion == 'C';
  return wideOutput ? !upper : upper;
}

// Text of a narrow argument in the output's encoding, at most `precision` output units.
void Convert(const char* text, long precision, std::string& out) {
  size_t n = precision >= 0 ? strnlen(text, static_cast<size_t>(precision)) : std::strlen(text);
  if (precision >= 0 && n == static_cast<size_t>(precision) && text[n] != '\0')
    while (n > 0 && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80) --n;
  out.assign(text, n);
}

void Convert(const char* text, long precision, std::u16string& out) {
  Utf8To16(text, std::strlen(text), out, false);
  if (precision >= 0 && out.size() > static_cast<size_t>(precision)) {
    size_t n = static_cast<size_t>(precision);
    if (n > 0 && out[n - 1] >= 0xD800 && out[n - 1] <= 0xDBFF) --n;
    out.resize(n);
  }
}

void Convert(const char16_t* text, long precision, std::u16string& out) {
  size_t n = 0;
  while (text[n] && (precision < 0 || n < static_cast<size_t>(precision))) ++n;
  if (precision >= 0 && n == static_cast<size_t>(precision) && text[n] && n > 0 && text[n - 1] >= 0xD800 &&
      text[n - 1] <= 0xDBFF)
    --n;
  out.assign(text, n);
}

void Convert(const char16_t* text, long precision, std::string& out) {
  std::string all;
  Utf16To8(text, Length16(text), all, false);
  Convert(all.c_str(), precision, out);
}

template <class Char>
void FormatString(std::basic_string<Char>& out, const Directive& directive, va_list* args, bool wideOutput) {
  std::basic_string<Char> text;
  if (WideArgument(directive, wideOutput)) {
    const char16_t* s = va_arg(*args, const char16_t*);
    Convert(s ? s : u"(null)", directive.precision, text);
  } else {
    const char* s = va_arg(*args, const char*);
    Convert(s ? s : "(null)", directive.precision, text);
  }
  AppendPadded(out, text, directive);
}

template <class Char>
void FormatChar(std::basic_string<Char>& out, const Directive& directive, va_list* args, bool wideOutput) {
  const bool wideArg = WideArgument(directive, wideOutput);
  const int value = va_arg(*args, int);
  std::basic_string<Char> text;
  char32_t cp = wideArg ? static_cast<char16_t>(value) : static_cast<unsigned char>(value);
  if (wideArg && cp >= 0xD800 && cp <= 0xDFFF) cp = kReplacement;
  if constexpr (sizeof(Char) == 1) {
    if (wideArg) {
      AppendUtf8(text, cp);
    } else {
      text.push_back(static_cast<char>(value));  // a byte, as given
    }
  } else {
    text.push_back(static_cast<Char>(!wideArg && cp >= 0x80 ? kReplacement : cp));
  }
  AppendPadded(out, text, directive);
}

template <class Char>
void FormatPointer(std::basic_string<Char>& out, const Directive& directive, va_list* args) {
  char digits[32];
  int n = std::snprintf(digits, sizeof digits, "%016llX",
                        static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(va_arg(*args, void*))));
  std::basic_string<Char> text;
  AppendAscii(text, digits, static_cast<size_t>(n));
  AppendPadded(out, text, directive);
}

template <class Char>
void FormatFloat(std::basic_string<Char>& out, const Directive& directive, va_list* args) {
  if (directive.length == Length::LongDouble)
    AppendNative(out, NativeSpec(directive, "L"), va_arg(*args, long double));
  else
    AppendNative(out, NativeSpec(directive, ""), va_arg(*args, double));
}

template <class Char>
void FormatInteger(std::basic_string<Char>& out, const Directive& directive, va_list* args) {
  if (directive.conversion == 'd' || directive.conversion == 'i')
    AppendNative(out, NativeSpec(directive, "ll"), FetchSigned(args, directive.length));
  else
    AppendNative(out, NativeSpec(directive, "ll"), FetchUnsigned(args, directive.length));
}

// One conversion; false when it must fail the whole call.
template <class Char>
bool FormatOne(std::basic_string<Char>& out, Directive& directive, va_list* args, bool wideOutput) {
  if (directive.widthStar) {
    long w = va_arg(*args, int);
    if (w < 0) {
      directive.left = true;
      directive.flags.push_back('-');
      w = -w;
    }
    directive.width = w;
  }
  if (directive.precisionStar) {
    int p = va_arg(*args, int);
    directive.precision = p < 0 ? -1 : p;
  }
  if (directive.width > kMaxField || directive.precision > kMaxField) return false;
  switch (directive.conversion) {
    case 'd': case 'i': case 'u': case 'o': case 'x': case 'X':
      FormatInteger(out, directive, args);
      return true;
    case 'e': case 'E': case 'f': case 'F': case 'g': case 'G': case 'a': case 'A':
      FormatFloat(out, directive, args);
      return true;
    case 's': case 'S':
      FormatString(out, directive, args, wideOutput);
      return true;
    case 'c': case 'C':
      FormatChar(out, directive, args, wideOutput);
      return true;
    case 'p':
      FormatPointer(out, directive, args);
      return true;
    case 'n':
      return false;
    default:
      return true;  // the caller copies an unknown conversion as it stands
  }
}

bool KnownConversion(char c) { return c && std::strchr("diuoxXeEfFgGaAsScCpn", c); }

template <class Char>
bool FormatAll(std::basic_string<Char>& out, const Char* format, va_list args) {
  if (!format) return false;
  va_list ap;
  va_copy(ap, args);
  bool ok = true;
  const Char* p = format;
  while (*p && ok) {
    if (*p != '%') {
      out.push_back(*p++);
      continue;
    }
    const Char* start = p++;
    if (*p == '%') {
      out.push_back(*p++);
      continue;
    }
    Directive directive;
    if (!ParseDirective(p, directive) || !KnownConversion(directive.conversion)) {
      out.append(start, p);
      continue;
    }
    ok = FormatOne(out, directive, &ap, sizeof(Char) != 1);
  }
  va_end(ap);
  return ok;
}

}  // namespace

bool Format(std::string& out, const char* format, va_list args) { return FormatAll(out, format, args); }
bool Format(std::u16string& out, const char16_t* format, va_list args) { return FormatAll(out, format, args); }

}  // namespace adp::format

namespace {

using adp::format::Format;

int Invalid() {
  errno = EINVAL;
  return -1;
}

// Largest count of units not above limit that doesn't split a character.
size_t CutPoint(const std::string& s, size_t limit) {
  if (limit >= s.size()) return s.size();
  size_t n = limit;
  while (n > 0 && (static_cast<unsigned char>(s[n]) & 0xC0) == 0x80) --n;
  return n;
}

size_t CutPoint(const std::u16string& s, size_t limit) {
  if (limit >= s.size()) return s.size();
  size_t n = limit;
  if (n > 0 && s[n - 1] >= 0xD800 && s[n - 1] <= 0xDBFF) --n;
  return n;
}

template <class Char>
int Terminated(Char* buffer, const std::basic_string<Char>& text, size_t n) {
  std::memcpy(buffer, text.data(), n * sizeof(Char));
  buffer[n] = 0;
  return static_cast<int>(n);
}

// _vsnprintf: exactly count units is not terminated; more is cut to count and gives -1.
template <class Char>
int UnsafeCopy(Char* buffer, size_t count, const Char* format, va_list args) {
  std::basic_string<Char> out;
  if (!Format(out, format, args) || out.size() > static_cast<size_t>(INT_MAX)) return Invalid();
  if (!buffer) return count == 0 ? static_cast<int>(out.size()) : Invalid();
  if (out.size() < count) return Terminated(buffer, out, out.size());
  std::memcpy(buffer, out.data(), count * sizeof(Char));
  return out.size() == count ? static_cast<int>(count) : -1;
}

// _vsnprintf_s: count _TRUNCATE or below the buffer size allows cutting; otherwise a result that
// does not fit the buffer leaves an empty string and ERANGE.
template <class Char>
int CheckedCopy(Char* buffer, size_t sizeOfBuffer, size_t count, const Char* format, va_list args) {
  if (!buffer || sizeOfBuffer == 0) return Invalid();
  buffer[0] = 0;
  std::basic_string<Char> out;
  if (!Format(out, format, args) || out.size() > static_cast<size_t>(INT_MAX)) return Invalid();
  if (count == _TRUNCATE || count < sizeOfBuffer) {
    size_t limit = count == _TRUNCATE ? sizeOfBuffer - 1 : count;
    if (out.size() <= limit) return Terminated(buffer, out, out.size());
    Terminated(buffer, out, CutPoint(out, limit));
    return -1;
  }
  if (out.size() < sizeOfBuffer) return Terminated(buffer, out, out.size());
  errno = ERANGE;
  return -1;
}

template <class Char>
int CountOnly(const Char* format, va_list args) {
  std::basic_string<Char> out;
  if (!Format(out, format, args) || out.size() > static_cast<size_t>(INT_MAX)) return Invalid();
  return static_cast<int>(out.size());
}

// ISO swprintf: count or more units is cut, terminated, and gives -1.
int IsoCopy(WCHAR* buffer, size_t count, const WCHAR* format, va_list args) {
  if (!buffer) return Invalid();
  std::u16string out;
  if (!Format(out, format, args) || out.size() > static_cast<size_t>(INT_MAX)) return Invalid();
  if (out.size() < count) return Terminated(buffer, out, out.size());
  if (count > 0) Terminated(buffer, out, CutPoint(out, count - 1));
  return -1;
}

// wsprintf: at most 1024 units with the terminator.
template <class Char>
int WindowsCopy(Char* buffer, const Char* format, va_list args) {
  constexpr size_t kLimit = 1024;
  if (!buffer) return 0;
  std::basic_string<Char> out;
  if (!Format(out, format, args)) {
    buffer[0] = 0;
    return 0;
  }
  return Terminated(buffer, out, CutPoint(out, kLimit - 1));
}

}  // namespace

extern "C" {

int _vsnprintf(char* buffer, size_t count, const char* format, va_list args) {
  return UnsafeCopy(buffer, count, format, args);
}
int _snprintf(char* buffer, size_t count, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int r = _vsnprintf(buffer, count, format, args);
  va_end(args);
  return r;
}
int _vsnprintf_s(char* buffer, size_t sizeOfBuffer, size_t count, const char* format, va_list args) {
  return CheckedCopy(buffer, sizeOfBuffer, count, format, args);
}
int _snprintf_s(char* buffer, size_t sizeOfBuffer, size_t count, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int r = _vsnprintf_s(buffer, sizeOfBuffer, count, format, args);
  va_end(args);
  return r;
}
int vsprintf_s(char* buffer, size_t sizeOfBuffer, const char* format, va_list args) {
  return CheckedCopy(buffer, sizeOfBuffer, sizeOfBuffer, format, args);
}
int sprintf_s(char* buffer, size_t sizeOfBuffer, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int r = vsprintf_s(buffer, sizeOfBuffer, format, args);
  va_end(args);
  return r;
}
int _vscprintf(const char* format, va_list args) { return CountOnly(format, args); }
int _scprintf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  int r = _vscprintf(format, args);
  va_end(args);
  return r;
}

int _vsnwprintf(WCHAR* buffer, size_t count, const WCHAR* format, va_list args) {
  return UnsafeCopy(buffer, count, format, args);
}
int _snwprintf(WCHAR* buffer, size_t count, const WCHAR* format, ...) {
  va_list args;
  va_start(args, format);
  int r = _vsnwprintf(buffer, count, format, args);
  va_end(args);
  return r;
}
int _vsnwprintf_s(WCHAR* buffer, size_t sizeOfBuffer, size_t count, const WCHAR* format, va_list args) {
  return CheckedCopy(buffer, sizeOfBuffer, count, format, args);
}
int _snwprintf_s(WCHAR* buffer, size_t sizeOfBuffer, size_t count, const WCHAR* format, ...) {
  va_list args;
  va_start(args, format);
  int r = _vsnwprintf_s(buffer, sizeOfBuffer, count, format, args);
  va_end(args);
  return r;
}
int vswprintf_s(WCHAR* buffer, size_t sizeOfBuffer, const WCHAR* format, va_list args) {
  return CheckedCopy(buffer, sizeOfBuffer, sizeOfBuffer, format, args);
}
int swprintf_s(WCHAR* buffer, size_t sizeOfBuffer, const WCHAR* format, ...) {
  va_list args;
  va_start(args, format);
  int r = vswprintf_s(buffer, sizeOfBuffer, format, args);
  va_end(args);
  return r;
}
int _vscwprintf(const WCHAR* format, va_list args) { return CountOnly(format, args); }
int _scwprintf(const WCHAR* format, ...) {
  va_list args;
  va_start(args, format);
  int r = _vscwprintf(format, args);
  va_end(args);
  return r;
}

int wvsprintfA(LPSTR lpOut, LPCSTR lpFmt, va_list args) { return WindowsCopy(lpOut, lpFmt, args); }
int wvsprintfW(LPWSTR lpOut, LPCWSTR lpFmt, va_list args) { return WindowsCopy(lpOut, lpFmt, args); }
int wsprintfA(LPSTR lpOut, LPCSTR lpFmt, ...) {
  va_list args;
  va_start(args, lpFmt);
  int r = wvsprintfA(lpOut, lpFmt, args);
  va_end(args);
  return r;
}
int wsprintfW(LPWSTR lpOut, LPCWSTR lpFmt, ...) {
  va_list args;
  va_start(args, lpFmt);
  int r = wvsprintfW(lpOut, lpFmt, args);
  va_end(args);
  return r;
}

}  // extern "C"

int vswprintf(WCHAR* buffer, size_t count, const WCHAR* format, va_list args) {
  return IsoCopy(buffer, count, format, args);
}
int swprintf(WCHAR* buffer, size_t count, const WCHAR* format, ...) {
  va_list args;
  va_start(args, format);
  int r = vswprintf(buffer, count, format, args);
  va_end(args);
  return r;
}
