// Text conversion between the system's 16-bit text (BSTR, WCHAR) and narrow text in CP_ACP.
#pragma once
#include <windows.h>
#include <string>

typedef std::basic_string<WCHAR> NxWString;

// cch -1: up to the terminator. NULL gives an empty text; unconvertible input gives "".
std::string NxWideToNarrow(LPCWSTR pwsz, int cch = -1);
NxWString NxNarrowToWide(LPCSTR psz, int cch = -1);
// printf into a std::string, never cut.
std::string NxFormat(LPCSTR pszFormat, ...);
std::string NxFormatV(LPCSTR pszFormat, va_list args);
