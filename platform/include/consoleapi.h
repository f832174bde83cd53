// The console. A process always has one here: standard input, output and error of the process.
// AllocConsole succeeds, the screen buffer settings are accepted and have no effect.
#pragma once
#include "winnt.h"

typedef struct _COORD {
  SHORT X;
  SHORT Y;
} COORD, *PCOORD;

typedef struct _SMALL_RECT {
  SHORT Left;
  SHORT Top;
  SHORT Right;
  SHORT Bottom;
} SMALL_RECT, *PSMALL_RECT;

#define STD_INPUT_HANDLE ((DWORD)-10)
#define STD_OUTPUT_HANDLE ((DWORD)-11)
#define STD_ERROR_HANDLE ((DWORD)-12)

extern "C" {

BOOL WINAPI AllocConsole();
BOOL WINAPI FreeConsole();
// A handle for standard input, output or error; closing it with CloseHandle is allowed and a
// later call gives a working handle again. Unknown values: INVALID_HANDLE_VALUE,
// ERROR_INVALID_PARAMETER.
HANDLE WINAPI GetStdHandle(DWORD nStdHandle);
BOOL WINAPI SetConsoleScreenBufferSize(HANDLE hConsoleOutput, COORD dwSize);
BOOL WINAPI SetConsoleTitleA(LPCSTR lpConsoleTitle);
BOOL WINAPI WriteConsoleA(HANDLE hConsoleOutput, const VOID* lpBuffer, DWORD nNumberOfCharsToWrite,
                          LPDWORD lpNumberOfCharsWritten, LPVOID lpReserved);
// UTF-16 text, written as UTF-8; the count is in WCHARs.
BOOL WINAPI WriteConsoleW(HANDLE hConsoleOutput, const VOID* lpBuffer, DWORD nNumberOfCharsToWrite,
                          LPDWORD lpNumberOfCharsWritten, LPVOID lpReserved);
UINT WINAPI GetConsoleCP();
UINT WINAPI GetConsoleOutputCP();

}  // extern "C"

#define WriteConsole WriteConsoleA
#define SetConsoleTitle SetConsoleTitleA
