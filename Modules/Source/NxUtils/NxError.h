// Readable texts for Win32 error codes, for log and fallback lines.
#pragma once
#include <windows.h>
#include <string>

// "<name> (<code>)" for the codes a file logger meets, "error <code>" for the others.
std::string NxErrorText(DWORD dwError);
