// The process environment.
//
// Windows gives every process COMPUTERNAME, USERNAME, USERDOMAIN, PROCESSOR_ARCHITECTURE and OS.
// When the environment doesn't set them, GetEnvironmentVariableA answers with this machine's
// values: the host name, the login name, the host name again as the domain, "AMD64", "x86",
// "ARM64" or "ARM" for the processor, and the system's name and release for OS.
#pragma once
#include "winnt.h"

extern "C" {

// The value's length without the NUL when it fits, else the size needed with the NUL and the
// buffer untouched; 0 with ERROR_ENVVAR_NOT_FOUND for a missing variable (0 with ERROR_SUCCESS
// for an empty one).
DWORD WINAPI GetEnvironmentVariableA(LPCSTR lpName, LPSTR lpBuffer, DWORD nSize);
// lpValue NULL removes the variable.
BOOL WINAPI SetEnvironmentVariableA(LPCSTR lpName, LPCSTR lpValue);

}  // extern "C"

#define GetEnvironmentVariable GetEnvironmentVariableA
#define SetEnvironmentVariable SetEnvironmentVariableA
