// Debug output. There is no debugger channel here: OutputDebugString text goes to standard
// error, or is appended to the file named by $ARCHIVEDEPOT_DEBUG_OUTPUT when that is set
// (read at each call). No line feed is added, as published.
#pragma once
#include "winnt.h"

extern "C" {

void WINAPI OutputDebugStringA(LPCSTR lpOutputString);
void WINAPI OutputDebugStringW(LPCWSTR lpOutputString);
// Always FALSE: nothing here attaches as a Win32 debugger would.
BOOL WINAPI IsDebuggerPresent();
// A no-op: a breakpoint trap would end a process that has no debugger attached.
void WINAPI DebugBreak();

}  // extern "C"

#define OutputDebugString OutputDebugStringA
