// Handles: every kernel object (file, mutex, event, thread) is closed with CloseHandle.
#pragma once
#include "winnt.h"

#define INVALID_HANDLE_VALUE ((HANDLE)(LONG_PTR)-1)

extern "C" {
BOOL WINAPI CloseHandle(HANDLE hObject);
}
