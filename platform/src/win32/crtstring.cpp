// String helpers of kernel32, user32 and the Microsoft C runtime over UTF-8 and WCHAR text:
// lstr*, Char*, _str*/_wcs* extensions, the C wide-string functions for WCHAR, integer <-> text
// and the checked copies.
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include "crtcompat.h"
#include "win32/unicode.h"
#include "winuser.h"

namespace {

using namespace adp::unicode;

int Sign(long long v) { return v < 0 ? -1 : v > 0 ? 1 : 0; }

// Orders NULL before any string, as the lstr* comparisons do.
bool NullOrder(const void* a, const void* b, int& result) {
  if (a && b) return false;
  result = a ? 1 : b ? -1 : 0;
  return true;
}

int CompareUtf8(const char* a, const char* b, bool ignoreCase) {
  auto* pa = reinterpret_cast<const unsigned char*>(a);
  auto* pb = reinterpret_cast<const unsigned char*>(b);
  const unsigned char* ea = pa + std::strlen(a);
  const unsigned char* eb = pb + std::strlen(b);
  while (pa < ea && pb < eb) {
    char32_t ca, cb;
    DecodeUtf8(pa, ea, ca);
    DecodeUtf8(pb, eb, cb);
    if (ignoreCase) ca = Fold(ca), cb = Fold(cb);
    if (ca != cb) return ca < cb ? -1 : 1;
  }
  return pa < ea ? 1 : pb < eb ? -1 : 0;
}

// Unit by unit, as the C runtime compares wide text; folding maps each BMP unit.
int CompareUnits(const WCHAR* a, const WCHAR* b, size_t count, bool ignoreCase) {
  for (size_t i = 0; i < count; ++i) {
    char32_t ca = a[i], cb = b[i];
    if (ignoreCase) ca = Fold(ca), cb = Fold(cb);
    if (ca != cb) return static_cast<int>(ca) - static_cast<int>(cb);
    if (a[i] == 0) return 0;
  }
  return 0;
}

int CompareAscii(const char* a, const char* b, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    int ca = static_cast<unsigned char>(AsciiLower(a[i]));
    int cb = static_cast<unsigned char>(AsciiLower(b[i]));
    if (ca != cb || ca == 0) return ca - cb;
  }
  return 0;
}

// Maps UTF-8 text in place; a letter whose other case encodes to another length stays.
void MapUtf8InPlace(char* text, size_t len, bool upper) {
  auto* p = reinterpret_cast<unsigned char*>(text);
  unsigned char* end = p + len;
  while (p < end) {
    unsigned char* start = p;
    const unsigned char* cursor = p;
    char32_t cp;
    bool valid = DecodeUtf8(cursor, end, cp);
    p = const_cast<unsigned char*>(cursor);
    if (!valid) continue;
    char32_t mapped = upper ? ToUpper(cp) : ToLower(cp);
    if (mapped == cp || Utf8Length(mapped) != static_cast<size_t>(p - start)) continue;
    std::string bytes;
    AppendUtf8(bytes, mapped);
    std::memcpy(start, bytes.data(), bytes.size());
  }
}

void MapUnitsInPlace(WCHAR* text, size_t len, bool upper) {
  for (size_t i = 0; i < len; ++i) {
    char32_t mapped = upper ? ToUpper(text[i]) : ToLower(text[i]);
    text[i] = static_cast<WCHAR>(mapped);
  }
}

bool IsPackedChar(const void* p) { return (reinterpret_cast<uintptr_t>(p) >> 16) == 0; }

LPSTR CharCaseA(LPSTR text, bool upper) {
  if (IsPackedChar(text)) {
    char c = static_cast<char>(reinterpret_cast<uintptr_t>(text) & 0xFF);
    c = upper ? AsciiUpper(c) : AsciiLower(c);
    return reinterpret_cast<LPSTR>(static_cast<uintptr_t>(static_cast<unsigned char>(c)));
  }
  MapUtf8InPlace(text, std::strlen(text), upper);
  return text;
}

LPWSTR CharCaseW(LPWSTR text, bool upper) {
  if (IsPackedChar(text)) {
    char32_t c = static_cast<char32_t>(reinterpret_cast<uintptr_t>(text) & 0xFFFF);
    c = upper ? ToUpper(c) : ToLower(c);
    return reinterpret_cast<LPWSTR>(static_cast<uintptr_t>(c));
  }
  MapUnitsInPlace(text, Length16(text), upper);
  return text;
}

// Integer to text: digits of magnitude in radix, with a minus sign when negative.
template <class Char>
size_t IntegerText(unsigned long long magnitude, bool negative, int radix, Char* out) {
  char digits[72];
  size_t n = 0;
  do {
    unsigned d = static_cast<unsigned>(magnitude % static_cast<unsigned>(radix));
    digits[n++] = static_cast<char>(d < 10 ? '0' + d : 'a' + d - 10);
    magnitude /= static_cast<unsigned>(radix);
  } while (magnitude);
  size_t len = 0;
  if (negative) out[len++] = '-';
  while (n) out[len++] = static_cast<Char>(digits[--n]);
  out[len] = 0;
  return len;
}

bool RadixValid(int radix) { return radix >= 2 && radix <= 36; }

template <class Char>
Char* SignedToText(long long value, Char* buffer, int radix) {
  if (!buffer) return nullptr;
  if (!RadixValid(radix)) {
    buffer[0] = 0;
    return buffer;
  }
  bool negative = radix == 10 && value < 0;
  unsigned long long magnitude = negative ? 0ULL - static_cast<unsigned long long>(value)
                                          : static_cast<unsigned long long>(value);
  IntegerText(magnitude, negative, radix, buffer);
  return buffer;
}

template <class Char>
Char* UnsignedToText(unsigned long long value, Char* buffer, int radix) {
  if (!buffer) return nullptr;
  if (!RadixValid(radix)) {
    buffer[0] = 0;
    return buffer;
  }
  IntegerText(value, false, radix, buffer);
  return buffer;
}

errno_t SetErrno(errno_t e) {
  errno = e;
  return e;
}

// The checked form: the unsigned value is the two's complement of value unless radix is 10.
errno_t CheckedToText(long long value, bool isSigned, unsigned long long unsignedValue, char* buffer,
                      size_t size, int radix) {
  if (!buffer || size == 0) return SetErrno(EINVAL);
  buffer[0] = '\0';
  if (!RadixValid(radix)) return SetErrno(EINVAL);
  char text[72];
  bool negative = isSigned && radix == 10 && value < 0;
  unsigned long long magnitude = negative ? 0ULL - static_cast<unsigned long long>(value) : unsignedValue;
  size_t len = IntegerText(magnitude, negative, radix, text);
  if (len >= size) return SetErrno(ERANGE);
  std::memcpy(buffer, text, len + 1);
  return 0;
}

bool IsSpace(char32_t c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

int DigitValue(char32_t c) {
  if (c >= '0' && c <= '9') return static_cast<int>(c - '0');
  if (c >= 'a' && c <= 'z') return static_cast<int>(c - 'a' + 10);
  if (c >= 'A' && c <= 'Z') return static_cast<int>(c - 'A' + 10);
  return 99;
}

struct ParsedInteger {
  bool negative = false;
  bool overflow = false;  // magnitude beyond 64 bits
  unsigned long long magnitude = 0;
  size_t consumed = 0;  // 0 when no digits were found
  bool badBase = false;
};

// strtol-style parse: white space, sign, optional 0x/0 prefix by base, digits.
template <class Char>
ParsedInteger ParseInteger(const Char* s, int base) {
  ParsedInteger r;
  if (base != 0 && (base < 2 || base > 36)) {
    r.badBase = true;
    return r;
  }
  size_t i = 0;
  while (IsSpace(static_cast<char32_t>(s[i]))) ++i;
  if (s[i] == '+' || s[i] == '-') r.negative = s[i++] == '-';
  if ((base == 0 || base == 16) && s[i] == '0' && (s[i + 1] == 'x' || s[i + 1] == 'X') &&
      DigitValue(static_cast<char32_t>(s[i + 2])) < 16) {
    i += 2, base = 16;
  } else if (base == 0) {
    base = s[i] == '0' ? 8 : 10;
  }
  size_t start = i;
  for (int d; (d = DigitValue(static_cast<char32_t>(s[i]))) < base; ++i) {
    unsigned long long next = r.magnitude * static_cast<unsigned>(base) + static_cast<unsigned>(d);
    if (r.magnitude > (ULLONG_MAX - static_cast<unsigned>(d)) / static_cast<unsigned>(base)) r.overflow = true;
    r.magnitude = next;
  }
  r.consumed = i > start ? i : 0;
  return r;
}

// Clamps to [min, max] of a signed type with the given bit width.
long long ClampSigned(const ParsedInteger& r, int bits) {
  const unsigned long long limit = 1ULL << (bits - 1);  // |min|
  if (!r.negative && (r.overflow || r.magnitude > limit - 1)) {
    errno = ERANGE;
    return static_cast<long long>(limit - 1);
  }
  if (r.negative && (r.overflow || r.magnitude > limit)) {
    errno = ERANGE;
    return bits == 64 ? LLONG_MIN : -static_cast<long long>(limit);
  }
  return r.negative ? static_cast<long long>(0ULL - r.magnitude) : static_cast<long long>(r.magnitude);
}

unsigned long long ClampUnsigned(const ParsedInteger& r, int bits) {
  const unsigned long long max = bits == 64 ? ULLONG_MAX : (1ULL << bits) - 1;
  if (r.overflow || r.magnitude > max) {
    errno = ERANGE;
    return max;
  }
  unsigned long long v = r.negative ? (0ULL - r.magnitude) : r.magnitude;
  return v & max;
}

template <class Char>
long long ToSigned(const Char* s, Char** end, int base, int bits) {
  if (!s) {
    errno = EINVAL;
    return 0;
  }
  ParsedInteger r = ParseInteger(s, base);
  if (end) *end = const_cast<Char*>(s + r.consumed);
  if (r.badBase) {
    errno = EINVAL;
    return 0;
  }
  return r.consumed ? ClampSigned(r, bits) : 0;
}

template <class Char>
unsigned long long ToUnsigned(const Char* s, Char** end, int base, int bits) {
  if (!s) {
    errno = EINVAL;
    return 0;
  }
  ParsedInteger r = ParseInteger(s, base);
  if (end) *end = const_cast<Char*>(s + r.consumed);
  if (r.badBase) {
    errno = EINVAL;
    return 0;
  }
  return r.consumed ? ClampUnsigned(r, bits) : 0;
}

template <class Char>
size_t BoundedLength(const Char* s, size_t max) {
  size_t n = 0;
  while (n < max && s[n]) ++n;
  return n;
}

template <class Char>
errno_t CheckedCopy(Char* dest, rsize_t destsz, const Char* src, rsize_t count, bool bounded) {
  if (bounded && count == 0 && !dest && destsz == 0) return 0;
  if (!dest || destsz == 0) return SetErrno(EINVAL);
  dest[0] = 0;
  if (!src) return bounded && count == 0 ? 0 : SetErrno(EINVAL);
  if (bounded && count == _TRUNCATE) {
    size_t len = BoundedLength(src, destsz);
    bool cut = len >= destsz;
    if (cut) len = destsz - 1;
    std::memcpy(dest, src, len * sizeof(Char));
    dest[len] = 0;
    return cut ? STRUNCATE : 0;
  }
  size_t len = BoundedLength(src, bounded ? count : destsz);
  if (len >= destsz) return SetErrno(ERANGE);
  std::memcpy(dest, src, len * sizeof(Char));
  dest[len] = 0;
  return 0;
}

template <class Char>
errno_t CheckedAppend(Char* dest, rsize_t destsz, const Char* src) {
  if (!dest || destsz == 0) return SetErrno(EINVAL);
  if (!src) {
    dest[0] = 0;
    return SetErrno(EINVAL);
  }
  size_t used = BoundedLength(dest, destsz);
  if (used == destsz) {
    dest[0] = 0;
    return SetErrno(EINVAL);
  }
  size_t len = BoundedLength(src, destsz - used);
  if (used + len >= destsz) {
    dest[0] = 0;
    return SetErrno(ERANGE);
  }
  std::memcpy(dest + used, src, len * sizeof(Char));
  dest[used + len] = 0;
  return 0;
}

// Largest prefix of at most max bytes that ends on a character boundary.
size_t Utf8Prefix(const char* s, size_t max) {
  size_t n = BoundedLength(s, max);
  if (n == max && s[n] != '\0')
    while (n > 0 && (static_cast<unsigned char>(s[n]) & 0xC0) == 0x80) --n;
  return n;
}

}  // namespace

extern "C" {

int lstrlenA(LPCSTR lpString) { return lpString ? static_cast<int>(std::strlen(lpString)) : 0; }
int lstrlenW(LPCWSTR lpString) { return lpString ? static_cast<int>(Length16(lpString)) : 0; }

int lstrcmpA(LPCSTR a, LPCSTR b) {
  int r;
  return NullOrder(a, b, r) ? r : CompareUtf8(a, b, false);
}
int lstrcmpiA(LPCSTR a, LPCSTR b) {
  int r;
  return NullOrder(a, b, r) ? r : CompareUtf8(a, b, true);
}
int lstrcmpW(LPCWSTR a, LPCWSTR b) {
  int r;
  return NullOrder(a, b, r) ? r : Sign(CompareUnits(a, b, SIZE_MAX, false));
}
int lstrcmpiW(LPCWSTR a, LPCWSTR b) {
  int r;
  return NullOrder(a, b, r) ? r : Sign(CompareUnits(a, b, SIZE_MAX, true));
}

LPSTR lstrcpyA(LPSTR dst, LPCSTR src) { return dst && src ? std::strcpy(dst, src) : nullptr; }
LPWSTR lstrcpyW(LPWSTR dst, LPCWSTR src) { return dst && src ? wcscpy(dst, src) : nullptr; }

LPSTR lstrcpynA(LPSTR dst, LPCSTR src, int iMaxLength) {
  if (!dst || !src) return nullptr;
  if (iMaxLength <= 0) return dst;
  size_t n = Utf8Prefix(src, static_cast<size_t>(iMaxLength) - 1);
  std::memmove(dst, src, n);
  dst[n] = '\0';
  return dst;
}

LPWSTR lstrcpynW(LPWSTR dst, LPCWSTR src, int iMaxLength) {
  if (!dst || !src) return nullptr;
  if (iMaxLength <= 0) return dst;
  size_t n = BoundedLength(src, static_cast<size_t>(iMaxLength) - 1);
  std::memmove(dst, src, n * sizeof(WCHAR));
  dst[n] = 0;
  return dst;
}

LPSTR lstrcatA(LPSTR dst, LPCSTR src) { return dst && src ? std::strcat(dst, src) : nullptr; }
LPWSTR lstrcatW(LPWSTR dst, LPCWSTR src) { return dst && src ? wcscat(dst, src) : nullptr; }

LPSTR CharUpperA(LPSTR lpsz) { return CharCaseA(lpsz, true); }
LPSTR CharLowerA(LPSTR lpsz) { return CharCaseA(lpsz, false); }
LPWSTR CharUpperW(LPWSTR lpsz) { return CharCaseW(lpsz, true); }
LPWSTR CharLowerW(LPWSTR lpsz) { return CharCaseW(lpsz, false); }

DWORD CharUpperBuffA(LPSTR lpsz, DWORD cchLength) {
  if (!lpsz) return 0;
  MapUtf8InPlace(lpsz, cchLength, true);
  return cchLength;
}
DWORD CharLowerBuffA(LPSTR lpsz, DWORD cchLength) {
  if (!lpsz) return 0;
  MapUtf8InPlace(lpsz, cchLength, false);
  return cchLength;
}
DWORD CharUpperBuffW(LPWSTR lpsz, DWORD cchLength) {
  if (!lpsz) return 0;
  MapUnitsInPlace(lpsz, cchLength, true);
  return cchLength;
}
DWORD CharLowerBuffW(LPWSTR lpsz, DWORD cchLength) {
  if (!lpsz) return 0;
  MapUnitsInPlace(lpsz, cchLength, false);
  return cchLength;
}

LPSTR CharNextA(LPCSTR lpsz) {
  if (!lpsz || !*lpsz) return const_cast<LPSTR>(lpsz);
  auto* p = reinterpret_cast<const unsigned char*>(lpsz);
  char32_t cp;
  DecodeUtf8(p, p + std::strlen(lpsz), cp);
  return reinterpret_cast<LPSTR>(const_cast<unsigned char*>(p));
}

LPWSTR CharNextW(LPCWSTR lpsz) {
  if (!lpsz || !*lpsz) return const_cast<LPWSTR>(lpsz);
  const char16_t* p = lpsz;
  char32_t cp;
  DecodeUtf16(p, lpsz + Length16(lpsz), cp);
  return const_cast<LPWSTR>(p);
}

BOOL IsCharAlphaW(WCHAR ch) { return IsAlpha(ch) ? TRUE : FALSE; }
BOOL IsCharUpperW(WCHAR ch) { return ToLower(ch) != ch ? TRUE : FALSE; }
BOOL IsCharLowerW(WCHAR ch) { return ToUpper(ch) != ch ? TRUE : FALSE; }

int _stricmp(const char* a, const char* b) {
  if (!a || !b) return SetErrno(EINVAL), _NLSCMPERROR;
  return CompareAscii(a, b, SIZE_MAX);
}
int _strnicmp(const char* a, const char* b, size_t count) {
  if (!a || !b) return SetErrno(EINVAL), _NLSCMPERROR;
  return CompareAscii(a, b, count);
}
int _strcmpi(const char* a, const char* b) { return _stricmp(a, b); }

char* _strdup(const char* strSource) {
  if (!strSource) return nullptr;
  size_t n = std::strlen(strSource) + 1;
  auto* copy = static_cast<char*>(std::malloc(n));
  if (copy) std::memcpy(copy, strSource, n);
  return copy;
}

char* _strupr(char* str) {
  if (!str) return SetErrno(EINVAL), nullptr;
  for (char* p = str; *p; ++p) *p = AsciiUpper(*p);
  return str;
}
char* _strlwr(char* str) {
  if (!str) return SetErrno(EINVAL), nullptr;
  for (char* p = str; *p; ++p) *p = AsciiLower(*p);
  return str;
}

char* _itoa(int value, char* buffer, int radix) {
  return radix == 10 ? SignedToText<char>(value, buffer, radix)
                     : UnsignedToText<char>(static_cast<unsigned>(value), buffer, radix);
}
char* _ltoa(long value, char* buffer, int radix) { return _itoa(static_cast<LONG>(value), buffer, radix); }
char* _ultoa(unsigned long value, char* buffer, int radix) {
  return UnsignedToText<char>(static_cast<ULONG>(value), buffer, radix);
}
char* _i64toa(long long value, char* buffer, int radix) {
  return radix == 10 ? SignedToText<char>(value, buffer, radix)
                     : UnsignedToText<char>(static_cast<unsigned long long>(value), buffer, radix);
}
char* _ui64toa(unsigned long long value, char* buffer, int radix) {
  return UnsignedToText<char>(value, buffer, radix);
}
WCHAR* _itow(int value, WCHAR* buffer, int radix) {
  return radix == 10 ? SignedToText<WCHAR>(value, buffer, radix)
                     : UnsignedToText<WCHAR>(static_cast<unsigned>(value), buffer, radix);
}
WCHAR* _ltow(long value, WCHAR* buffer, int radix) { return _itow(static_cast<LONG>(value), buffer, radix); }
WCHAR* _ultow(unsigned long value, WCHAR* buffer, int radix) {
  return UnsignedToText<WCHAR>(static_cast<ULONG>(value), buffer, radix);
}
WCHAR* _i64tow(long long value, WCHAR* buffer, int radix) {
  return radix == 10 ? SignedToText<WCHAR>(value, buffer, radix)
                     : UnsignedToText<WCHAR>(static_cast<unsigned long long>(value), buffer, radix);
}
WCHAR* _ui64tow(unsigned long long value, WCHAR* buffer, int radix) {
  return UnsignedToText<WCHAR>(value, buffer, radix);
}

errno_t _itoa_s(int value, char* buffer, size_t size, int radix) {
  return CheckedToText(value, true, static_cast<unsigned>(value), buffer, size, radix);
}
errno_t _ltoa_s(long value, char* buffer, size_t size, int radix) {
  return _itoa_s(static_cast<LONG>(value), buffer, size, radix);
}
errno_t _ultoa_s(unsigned long value, char* buffer, size_t size, int radix) {
  return CheckedToText(0, false, static_cast<ULONG>(value), buffer, size, radix);
}
errno_t _i64toa_s(long long value, char* buffer, size_t size, int radix) {
  return CheckedToText(value, true, static_cast<unsigned long long>(value), buffer, size, radix);
}
errno_t _ui64toa_s(unsigned long long value, char* buffer, size_t size, int radix) {
  return CheckedToText(0, false, value, buffer, size, radix);
}

long long _atoi64(const char* str) { return ToSigned<char>(str, nullptr, 10, 64); }
long _wtol(const WCHAR* str) { return static_cast<long>(ToSigned<WCHAR>(str, nullptr, 10, 32)); }
int _wtoi(const WCHAR* str) { return static_cast<int>(ToSigned<WCHAR>(str, nullptr, 10, 32)); }
long long _wtoi64(const WCHAR* str) { return ToSigned<WCHAR>(str, nullptr, 10, 64); }
long long _wcstoi64(const WCHAR* s, WCHAR** endptr, int base) { return ToSigned<WCHAR>(s, endptr, base, 64); }
unsigned long long _wcstoui64(const WCHAR* s, WCHAR** endptr, int base) {
  return ToUnsigned<WCHAR>(s, endptr, base, 64);
}

int _wcsicmp(const WCHAR* a, const WCHAR* b) {
  if (!a || !b) return SetErrno(EINVAL), _NLSCMPERROR;
  return CompareUnits(a, b, SIZE_MAX, true);
}
int _wcsnicmp(const WCHAR* a, const WCHAR* b, size_t count) {
  if (!a || !b) return SetErrno(EINVAL), _NLSCMPERROR;
  return CompareUnits(a, b, count, true);
}

WCHAR* _wcsdup(const WCHAR* strSource) {
  if (!strSource) return nullptr;
  size_t n = (Length16(strSource) + 1) * sizeof(WCHAR);
  auto* copy = static_cast<WCHAR*>(std::malloc(n));
  if (copy) std::memcpy(copy, strSource, n);
  return copy;
}

WCHAR* _wcslwr(WCHAR* str) {
  if (!str) return SetErrno(EINVAL), nullptr;
  MapUnitsInPlace(str, Length16(str), false);
  return str;
}
WCHAR* _wcsupr(WCHAR* str) {
  if (!str) return SetErrno(EINVAL), nullptr;
  MapUnitsInPlace(str, Length16(str), true);
  return str;
}

errno_t strcpy_s(char* dest, rsize_t destsz, const char* src) { return CheckedCopy(dest, destsz, src, 0, false); }
errno_t strncpy_s(char* dest, rsize_t destsz, const char* src, rsize_t count) {
  return CheckedCopy(dest, destsz, src, count, true);
}
errno_t strcat_s(char* dest, rsize_t destsz, const char* src) { return CheckedAppend(dest, destsz, src); }
errno_t wcscpy_s(WCHAR* dest, rsize_t destsz, const WCHAR* src) { return CheckedCopy(dest, destsz, src, 0, false); }
errno_t wcsncpy_s(WCHAR* dest, rsize_t destsz, const WCHAR* src, rsize_t count) {
  return CheckedCopy(dest, destsz, src, count, true);
}
errno_t wcscat_s(WCHAR* dest, rsize_t destsz, const WCHAR* src) { return CheckedAppend(dest, destsz, src); }

}  // extern "C"

size_t wcslen(const WCHAR* str) { return Length16(str); }
size_t wcsnlen(const WCHAR* str, size_t maxlen) { return BoundedLength(str, maxlen); }

WCHAR* wcscpy(WCHAR* dest, const WCHAR* src) {
  std::memmove(dest, src, (Length16(src) + 1) * sizeof(WCHAR));
  return dest;
}

WCHAR* wcsncpy(WCHAR* dest, const WCHAR* src, size_t count) {
  size_t n = BoundedLength(src, count);
  std::memmove(dest, src, n * sizeof(WCHAR));
  for (size_t i = n; i < count; ++i) dest[i] = 0;
  return dest;
}

WCHAR* wcscat(WCHAR* dest, const WCHAR* src) {
  wcscpy(dest + Length16(dest), src);
  return dest;
}

WCHAR* wcsncat(WCHAR* dest, const WCHAR* src, size_t count) {
  WCHAR* end = dest + Length16(dest);
  size_t n = BoundedLength(src, count);
  std::memmove(end, src, n * sizeof(WCHAR));
  end[n] = 0;
  return dest;
}

int wcscmp(const WCHAR* a, const WCHAR* b) { return CompareUnits(a, b, SIZE_MAX, false); }
int wcsncmp(const WCHAR* a, const WCHAR* b, size_t count) { return CompareUnits(a, b, count, false); }

const WCHAR* wcschr(const WCHAR* str, WCHAR c) {
  for (;; ++str) {
    if (*str == c) return str;
    if (*str == 0) return nullptr;
  }
}
WCHAR* wcschr(WCHAR* str, WCHAR c) { return const_cast<WCHAR*>(wcschr(static_cast<const WCHAR*>(str), c)); }

const WCHAR* wcsrchr(const WCHAR* str, WCHAR c) {
  const WCHAR* found = nullptr;
  for (;; ++str) {
    if (*str == c) found = str;
    if (*str == 0) return found;
  }
}
WCHAR* wcsrchr(WCHAR* str, WCHAR c) { return const_cast<WCHAR*>(wcsrchr(static_cast<const WCHAR*>(str), c)); }

const WCHAR* wcsstr(const WCHAR* str, const WCHAR* strSearch) {
  const size_t n = Length16(strSearch);
  if (n == 0) return str;
  for (; *str; ++str)
    if (*str == *strSearch && CompareUnits(str, strSearch, n, false) == 0) return str;
  return nullptr;
}
WCHAR* wcsstr(WCHAR* str, const WCHAR* strSearch) {
  return const_cast<WCHAR*>(wcsstr(static_cast<const WCHAR*>(str), strSearch));
}

long wcstol(const WCHAR* s, WCHAR** endptr, int base) { return static_cast<long>(ToSigned<WCHAR>(s, endptr, base, 32)); }
unsigned long wcstoul(const WCHAR* s, WCHAR** endptr, int base) {
  return static_cast<unsigned long>(ToUnsigned<WCHAR>(s, endptr, base, 32));
}
