// The Microsoft C runtime and kernel32 text helpers that Windows code takes for granted, over
// glibc. Narrow text is UTF-8; wide text is 16-bit WCHAR (char16_t), so the C wide-string
// functions get overloads taking WCHAR beside glibc's wchar_t ones.
//
// Case-insensitive comparison of wide text and of the lstr* and Char* families folds ASCII and
// the simple case mappings of Unicode letters in the BMP; _stricmp, _strnicmp, _strupr and
// _strlwr fold ASCII only, as the C runtime does in its "C" locale.
//
// The printf family here follows the Microsoft rules, not glibc's: "l" on an integer is 32 bits
// (LONG, DWORD), "I64" and "ll" are 64 bits, "I" is pointer-sized; in narrow formats %S, %ls
// and %ws take WCHAR text and %C, %lc a WCHAR; in wide formats %s and %c are WCHAR and %S, %hs
// and %C are narrow; %p prints 16 upper-case hex digits. %n is refused (the call fails with
// EINVAL). An unknown conversion is copied as it stands.
#pragma once
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <type_traits>
#include "winnt.h"

typedef int errno_t;
typedef size_t rsize_t;
typedef int64_t __time64_t;

#define _TRUNCATE ((size_t)-1)
#define STRUNCATE 80
#define _NLSCMPERROR 2147483647
// 3000-12-31 23:59:59 UTC, the last second of the 64-bit time functions.
#define _MAX__TIME64_T 32535215999LL
#define _MAX_ITOSTR_BASE10_COUNT (1 + 10 + 1)
#define _MAX_I64TOSTR_BASE10_COUNT (1 + 19 + 1)

extern "C" {

// kernel32 string helpers (winbase.h on Windows). NULL is accepted where Windows survives it:
// lstrlen gives 0, the comparisons order NULL first, the copies return NULL.
int WINAPI lstrlenA(LPCSTR lpString);
int WINAPI lstrlenW(LPCWSTR lpString);
int WINAPI lstrcmpA(LPCSTR lpString1, LPCSTR lpString2);
int WINAPI lstrcmpiA(LPCSTR lpString1, LPCSTR lpString2);
int WINAPI lstrcmpW(LPCWSTR lpString1, LPCWSTR lpString2);
int WINAPI lstrcmpiW(LPCWSTR lpString1, LPCWSTR lpString2);
LPSTR WINAPI lstrcpyA(LPSTR lpString1, LPCSTR lpString2);
LPWSTR WINAPI lstrcpyW(LPWSTR lpString1, LPCWSTR lpString2);
LPSTR WINAPI lstrcpynA(LPSTR lpString1, LPCSTR lpString2, int iMaxLength);
LPWSTR WINAPI lstrcpynW(LPWSTR lpString1, LPCWSTR lpString2, int iMaxLength);
LPSTR WINAPI lstrcatA(LPSTR lpString1, LPCSTR lpString2);
LPWSTR WINAPI lstrcatW(LPWSTR lpString1, LPCWSTR lpString2);

// Narrow CRT extensions. The comparisons return _NLSCMPERROR (errno EINVAL) for NULL.
int _stricmp(const char* string1, const char* string2);
int _strnicmp(const char* string1, const char* string2, size_t count);
int _strcmpi(const char* string1, const char* string2);
char* _strdup(const char* strSource);
char* _strupr(char* str);
char* _strlwr(char* str);

// Integer to text with radix 2..36 (another radix gives an empty string). Only radix 10 prints
// a sign; other radixes print the two's complement. long is 32 bits on Windows, so _ltoa and
// _ultoa print the low 32 bits of their value.
char* _itoa(int value, char* buffer, int radix);
char* _ltoa(long value, char* buffer, int radix);
char* _ultoa(unsigned long value, char* buffer, int radix);
char* _i64toa(long long value, char* buffer, int radix);
char* _ui64toa(unsigned long long value, char* buffer, int radix);
WCHAR* _itow(int value, WCHAR* buffer, int radix);
WCHAR* _ltow(long value, WCHAR* buffer, int radix);
WCHAR* _ultow(unsigned long value, WCHAR* buffer, int radix);
WCHAR* _i64tow(long long value, WCHAR* buffer, int radix);
WCHAR* _ui64tow(unsigned long long value, WCHAR* buffer, int radix);
// Checked forms: EINVAL for a NULL buffer, size 0 or a bad radix, ERANGE when too small (the
// buffer then holds an empty string).
errno_t _itoa_s(int value, char* buffer, size_t size, int radix);
errno_t _ltoa_s(long value, char* buffer, size_t size, int radix);
errno_t _ultoa_s(unsigned long value, char* buffer, size_t size, int radix);
errno_t _i64toa_s(long long value, char* buffer, size_t size, int radix);
errno_t _ui64toa_s(unsigned long long value, char* buffer, size_t size, int radix);

// Text to integer: leading white space, a sign, decimal digits. Out of range clamps (errno
// ERANGE); long and int results are 32-bit, as on Windows.
long long _atoi64(const char* str);
long _wtol(const WCHAR* str);
int _wtoi(const WCHAR* str);
long long _wtoi64(const WCHAR* str);
long long _wcstoi64(const WCHAR* strSource, WCHAR** endptr, int base);
unsigned long long _wcstoui64(const WCHAR* strSource, WCHAR** endptr, int base);

// Wide CRT extensions over WCHAR.
int _wcsicmp(const WCHAR* string1, const WCHAR* string2);
int _wcsnicmp(const WCHAR* string1, const WCHAR* string2, size_t count);
WCHAR* _wcsdup(const WCHAR* strSource);
WCHAR* _wcslwr(WCHAR* str);
WCHAR* _wcsupr(WCHAR* str);

// Checked copies, with the published return codes: EINVAL for NULL arguments or a zero size,
// ERANGE when the result does not fit (the destination then holds an empty string), STRUNCATE
// when count is _TRUNCATE and the text was cut.
errno_t strcpy_s(char* dest, rsize_t destsz, const char* src);
errno_t strncpy_s(char* dest, rsize_t destsz, const char* src, rsize_t count);
errno_t strcat_s(char* dest, rsize_t destsz, const char* src);
errno_t wcscpy_s(WCHAR* dest, rsize_t destsz, const WCHAR* src);
errno_t wcsncpy_s(WCHAR* dest, rsize_t destsz, const WCHAR* src, rsize_t count);
errno_t wcscat_s(WCHAR* dest, rsize_t destsz, const WCHAR* src);

// Narrow formatting. _snprintf/_vsnprintf: a result of exactly count characters is not
// terminated, a longer one is cut to count characters and gives -1; buffer NULL with count 0
// gives the length. sprintf_s: a result that does not fit leaves an empty string and gives -1
// (errno ERANGE). _snprintf_s: as sprintf_s, but count _TRUNCATE (or a count below the buffer
// size) cuts the text, terminates it and gives -1.
int _snprintf(char* buffer, size_t count, const char* format, ...);
int _vsnprintf(char* buffer, size_t count, const char* format, va_list argptr);
int _snprintf_s(char* buffer, size_t sizeOfBuffer, size_t count, const char* format, ...);
int _vsnprintf_s(char* buffer, size_t sizeOfBuffer, size_t count, const char* format, va_list argptr);
int sprintf_s(char* buffer, size_t sizeOfBuffer, const char* format, ...);
int vsprintf_s(char* buffer, size_t sizeOfBuffer, const char* format, va_list argptr);
int _scprintf(const char* format, ...);
int _vscprintf(const char* format, va_list argptr);

// Wide formatting into WCHAR buffers, with the same rules; counts are in WCHARs.
int _snwprintf(WCHAR* buffer, size_t count, const WCHAR* format, ...);
int _vsnwprintf(WCHAR* buffer, size_t count, const WCHAR* format, va_list argptr);
int _snwprintf_s(WCHAR* buffer, size_t sizeOfBuffer, size_t count, const WCHAR* format, ...);
int _vsnwprintf_s(WCHAR* buffer, size_t sizeOfBuffer, size_t count, const WCHAR* format, va_list argptr);
int swprintf_s(WCHAR* buffer, size_t sizeOfBuffer, const WCHAR* format, ...);
int vswprintf_s(WCHAR* buffer, size_t sizeOfBuffer, const WCHAR* format, va_list argptr);
int _scwprintf(const WCHAR* format, ...);
int _vscwprintf(const WCHAR* format, va_list argptr);

// Time zone and 64-bit time. The zone is the process's TZ. _mktime64 and the conversions
// refuse times before 1970 or after 3000 (-1, or EINVAL with every field of *tmDest -1).
void _tzset();
errno_t _get_timezone(long* seconds);
errno_t _get_daylight(int* hours);
errno_t _get_dstbias(long* seconds);
errno_t _get_tzname(size_t* pReturnValue, char* timeZoneName, size_t sizeInBytes, int index);
__time64_t _time64(__time64_t* destTime);
__time64_t _mktime64(struct tm* timeptr);
__time64_t _mkgmtime64(struct tm* timeptr);
errno_t _localtime64_s(struct tm* tmDest, const __time64_t* sourceTime);
errno_t _gmtime64_s(struct tm* tmDest, const __time64_t* sourceTime);
// Thread-local result, NULL for a time out of range.
struct tm* _localtime64(const __time64_t* sourceTime);
struct tm* _gmtime64(const __time64_t* sourceTime);

}  // extern "C"

// C wide-string functions over WCHAR, beside glibc's wchar_t ones.
size_t wcslen(const WCHAR* str);
size_t wcsnlen(const WCHAR* str, size_t maxlen);
WCHAR* wcscpy(WCHAR* dest, const WCHAR* src);
WCHAR* wcsncpy(WCHAR* dest, const WCHAR* src, size_t count);
WCHAR* wcscat(WCHAR* dest, const WCHAR* src);
WCHAR* wcsncat(WCHAR* dest, const WCHAR* src, size_t count);
int wcscmp(const WCHAR* string1, const WCHAR* string2);
int wcsncmp(const WCHAR* string1, const WCHAR* string2, size_t count);
const WCHAR* wcschr(const WCHAR* str, WCHAR c);
WCHAR* wcschr(WCHAR* str, WCHAR c);
const WCHAR* wcsrchr(const WCHAR* str, WCHAR c);
WCHAR* wcsrchr(WCHAR* str, WCHAR c);
const WCHAR* wcsstr(const WCHAR* str, const WCHAR* strSearch);
WCHAR* wcsstr(WCHAR* str, const WCHAR* strSearch);
// long is 32 bits on Windows: the results are clamped to that range (errno ERANGE).
long wcstol(const WCHAR* strSource, WCHAR** endptr, int base);
unsigned long wcstoul(const WCHAR* strSource, WCHAR** endptr, int base);

// UTF-16 <-> UTF-8 with the C runtime's rules: dest NULL gives the size needed (without the
// terminator); at most count units are written, no partial character, and the terminator only
// if it fits; text that can't be converted gives (size_t)-1 with errno EILSEQ.
size_t wcstombs(char* mbstr, const WCHAR* wcstr, size_t count);
size_t mbstowcs(WCHAR* wcstr, const char* mbstr, size_t count);
// mbstowcs(NULL, text, 0) asks for a size in WCHARs here, not in glibc's wchar_t.
template <class T>
  requires(std::is_integral_v<T> || std::is_null_pointer_v<T>)
inline size_t mbstowcs(T nullDest, const char* mbstr, size_t count) {
  if (nullDest != T{}) {
    errno = EINVAL;
    return static_cast<size_t>(-1);
  }
  return mbstowcs(static_cast<WCHAR*>(nullptr), mbstr, count);
}

// ISO swprintf over WCHAR: a result of count or more units is cut, terminated, and gives -1.
int swprintf(WCHAR* buffer, size_t count, const WCHAR* format, ...);
int vswprintf(WCHAR* buffer, size_t count, const WCHAR* format, va_list argptr);

// The array forms of the checked functions, as the Microsoft headers offer them in C++.
template <size_t N> inline errno_t strcpy_s(char (&dest)[N], const char* src) { return strcpy_s(dest, N, src); }
template <size_t N> inline errno_t strcat_s(char (&dest)[N], const char* src) { return strcat_s(dest, N, src); }
template <size_t N> inline errno_t strncpy_s(char (&dest)[N], const char* src, rsize_t count) {
  return strncpy_s(dest, N, src, count);
}
template <size_t N> inline errno_t wcscpy_s(WCHAR (&dest)[N], const WCHAR* src) { return wcscpy_s(dest, N, src); }
template <size_t N> inline errno_t wcscat_s(WCHAR (&dest)[N], const WCHAR* src) { return wcscat_s(dest, N, src); }
template <size_t N> inline errno_t wcsncpy_s(WCHAR (&dest)[N], const WCHAR* src, rsize_t count) {
  return wcsncpy_s(dest, N, src, count);
}
template <size_t N> inline errno_t _itoa_s(int value, char (&buffer)[N], int radix) {
  return _itoa_s(value, buffer, N, radix);
}
template <size_t N> inline int vsprintf_s(char (&buffer)[N], const char* format, va_list argptr) {
  return vsprintf_s(buffer, N, format, argptr);
}
template <size_t N> inline int sprintf_s(char (&buffer)[N], const char* format, ...) {
  va_list args;
  va_start(args, format);
  int result = vsprintf_s(buffer, N, format, args);
  va_end(args);
  return result;
}
template <size_t N> inline int _snprintf_s(char (&buffer)[N], size_t count, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int result = _vsnprintf_s(buffer, N, count, format, args);
  va_end(args);
  return result;
}
template <size_t N> inline int swprintf_s(WCHAR (&buffer)[N], const WCHAR* format, ...) {
  va_list args;
  va_start(args, format);
  int result = vswprintf_s(buffer, N, format, args);
  va_end(args);
  return result;
}
template <size_t N> inline int _snwprintf_s(WCHAR (&buffer)[N], size_t count, const WCHAR* format, ...) {
  va_list args;
  va_start(args, format);
  int result = _vsnwprintf_s(buffer, N, count, format, args);
  va_end(args);
  return result;
}

// Generic-text names of this build, which has no UNICODE: the narrow forms.
#define lstrlen lstrlenA
#define lstrcmp lstrcmpA
#define lstrcmpi lstrcmpiA
#define lstrcpy lstrcpyA
#define lstrcpyn lstrcpynA
#define lstrcat lstrcatA
