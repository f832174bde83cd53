// The user-interface calls this system makes: message boxes, string resources and character
// case. Nothing here shows a window: MessageBoxW reports its text on standard error and to a
// sink (adplatform_ui.h) and answers at once.
#pragma once
#include <cstdarg>
#include "winnt.h"

#ifndef WINAPIV
#define WINAPIV
#endif

// MessageBox buttons, icons, default button and modality.
#define MB_OK 0x00000000L
#define MB_OKCANCEL 0x00000001L
#define MB_ABORTRETRYIGNORE 0x00000002L
#define MB_YESNOCANCEL 0x00000003L
#define MB_YESNO 0x00000004L
#define MB_RETRYCANCEL 0x00000005L
#define MB_CANCELTRYCONTINUE 0x00000006L
#define MB_ICONHAND 0x00000010L
#define MB_ICONQUESTION 0x00000020L
#define MB_ICONEXCLAMATION 0x00000030L
#define MB_ICONASTERISK 0x00000040L
#define MB_USERICON 0x00000080L
#define MB_ICONWARNING MB_ICONEXCLAMATION
#define MB_ICONERROR MB_ICONHAND
#define MB_ICONINFORMATION MB_ICONASTERISK
#define MB_ICONSTOP MB_ICONHAND
#define MB_DEFBUTTON1 0x00000000L
#define MB_DEFBUTTON2 0x00000100L
#define MB_DEFBUTTON3 0x00000200L
#define MB_DEFBUTTON4 0x00000300L
#define MB_APPLMODAL 0x00000000L
#define MB_SYSTEMMODAL 0x00001000L
#define MB_TASKMODAL 0x00002000L
#define MB_HELP 0x00004000L
#define MB_NOFOCUS 0x00008000L
#define MB_SETFOREGROUND 0x00010000L
#define MB_DEFAULT_DESKTOP_ONLY 0x00020000L
#define MB_TOPMOST 0x00040000L
#define MB_RIGHT 0x00080000L
#define MB_RTLREADING 0x00100000L
#define MB_SERVICE_NOTIFICATION 0x00200000L
#define MB_TYPEMASK 0x0000000FL
#define MB_ICONMASK 0x000000F0L
#define MB_DEFMASK 0x00000F00L
#define MB_MODEMASK 0x00003000L
#define MB_MISCMASK 0x0000C000L

// Dialog box command IDs (MessageBox answers).
#define IDOK 1
#define IDCANCEL 2
#define IDABORT 3
#define IDRETRY 4
#define IDIGNORE 5
#define IDYES 6
#define IDNO 7
#define IDCLOSE 8
#define IDHELP 9
#define IDTRYAGAIN 10
#define IDCONTINUE 11
#define IDTIMEOUT 32000

#define MAKEINTRESOURCEA(i) ((LPSTR)((ULONG_PTR)((WORD)(i))))
#define MAKEINTRESOURCEW(i) ((LPWSTR)((ULONG_PTR)((WORD)(i))))
#define MAKEINTRESOURCE MAKEINTRESOURCEA
#define IS_INTRESOURCE(r) ((((ULONG_PTR)(r)) >> 16) == 0)

extern "C" {

// Never blocks. Writes "caption: text" to standard error, hands both to the sink, and returns
// the answer of the default button (MB_DEFBUTTON1..3); a default of Retry or Try Again, which
// would only repeat the failed action, answers with the last button of the set instead.
// A NULL caption is "Error". An unknown button set fails: 0, ERROR_INVALID_PARAMETER.
int WINAPI MessageBoxW(HWND hWnd, LPCWSTR lpText, LPCWSTR lpCaption, UINT uType);
int WINAPI MessageBoxA(HWND hWnd, LPCSTR lpText, LPCSTR lpCaption, UINT uType);
int WINAPI MessageBoxExW(HWND hWnd, LPCWSTR lpText, LPCWSTR lpCaption, UINT uType, WORD wLanguageId);
int WINAPI MessageBoxExA(HWND hWnd, LPCSTR lpText, LPCSTR lpCaption, UINT uType, WORD wLanguageId);

// String resources come from tables that modules register (adplatform_ui.h). The language is
// the thread's UI language, then its primary language, then neutral, then English, then any.
// cchBufferMax 0 stores a read-only pointer to the resource text in *lpBuffer (NUL-terminated
// here) and returns its length. A missing string returns 0 with ERROR_RESOURCE_NAME_NOT_FOUND
// (ERROR_RESOURCE_TYPE_NOT_FOUND when the module has no string table at all).
int WINAPI LoadStringW(HINSTANCE hInstance, UINT uID, LPWSTR lpBuffer, int cchBufferMax);
// The text as UTF-8, truncated at a character boundary.
int WINAPI LoadStringA(HINSTANCE hInstance, UINT uID, LPSTR lpBuffer, int cchBufferMax);

// Case conversion in place. A pointer whose high bits are zero carries one character in its
// low word, and the converted character comes back the same way, as published. Narrow text is
// UTF-8: letters whose other case has a different encoded length are left as they are.
LPSTR WINAPI CharUpperA(LPSTR lpsz);
LPSTR WINAPI CharLowerA(LPSTR lpsz);
LPWSTR WINAPI CharUpperW(LPWSTR lpsz);
LPWSTR WINAPI CharLowerW(LPWSTR lpsz);
DWORD WINAPI CharUpperBuffA(LPSTR lpsz, DWORD cchLength);
DWORD WINAPI CharLowerBuffA(LPSTR lpsz, DWORD cchLength);
DWORD WINAPI CharUpperBuffW(LPWSTR lpsz, DWORD cchLength);
DWORD WINAPI CharLowerBuffW(LPWSTR lpsz, DWORD cchLength);
LPSTR WINAPI CharNextA(LPCSTR lpsz);
LPWSTR WINAPI CharNextW(LPCWSTR lpsz);
BOOL WINAPI IsCharAlphaW(WCHAR ch);
BOOL WINAPI IsCharUpperW(WCHAR ch);
BOOL WINAPI IsCharLowerW(WCHAR ch);

// Formatting into a buffer of at most 1024 characters, terminator included, as published;
// the format rules are those of _snprintf (crtcompat.h). Returns the characters stored.
int WINAPIV wsprintfA(LPSTR lpOut, LPCSTR lpFmt, ...);
int WINAPIV wsprintfW(LPWSTR lpOut, LPCWSTR lpFmt, ...);
int WINAPI wvsprintfA(LPSTR lpOut, LPCSTR lpFmt, va_list arglist);
int WINAPI wvsprintfW(LPWSTR lpOut, LPCWSTR lpFmt, va_list arglist);

}  // extern "C"

// Generic-text names of this build, which has no UNICODE: the narrow forms.
#define MessageBox MessageBoxA
#define MessageBoxEx MessageBoxExA
#define LoadString LoadStringA
#define CharUpper CharUpperA
#define CharLower CharLowerA
#define CharUpperBuff CharUpperBuffA
#define CharLowerBuff CharLowerBuffA
#define CharNext CharNextA
#define wsprintf wsprintfA
#define wvsprintf wvsprintfA
