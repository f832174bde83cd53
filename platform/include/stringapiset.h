// Conversion between the "ANSI" code page (UTF-8 here) and UTF-16.
#pragma once
#include "winnt.h"
#include "winnls.h"

extern "C" {

// Published argument rules: cbMultiByte -1 converts through the terminator and counts it;
// cchWideChar 0 asks for the size; a short buffer fails with ERROR_INSUFFICIENT_BUFFER;
// MB_ERR_INVALID_CHARS turns invalid input into ERROR_NO_UNICODE_TRANSLATION, without it
// invalid input becomes U+FFFD. CP_UTF8 accepts no flag but MB_ERR_INVALID_CHARS
// (ERROR_INVALID_FLAGS); CP_ACP and its aliases also accept and ignore MB_PRECOMPOSED and kin.
int WINAPI MultiByteToWideChar(UINT CodePage, DWORD dwFlags, LPCSTR lpMultiByteStr, int cbMultiByte,
                               LPWSTR lpWideCharStr, int cchWideChar);
// Unpaired surrogates become U+FFFD (or fail with WC_ERR_INVALID_CHARS). CP_UTF8 requires
// lpDefaultChar and lpUsedDefaultChar to be NULL, as published; the CP_ACP aliases accept them:
// an unpaired surrogate is then replaced by lpDefaultChar and *lpUsedDefaultChar says so.
int WINAPI WideCharToMultiByte(UINT CodePage, DWORD dwFlags, LPCWSTR lpWideCharStr, int cchWideChar,
                               LPSTR lpMultiByteStr, int cbMultiByte, LPCSTR lpDefaultChar,
                               LPBOOL lpUsedDefaultChar);

}  // extern "C"
