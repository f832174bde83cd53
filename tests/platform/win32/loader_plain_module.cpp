// A module without DllMain for the loader tests; it links the platform library, whose
// functions must not be found through it.
#include "windows.h"

extern "C" int Multiply(int a, int b) { return a * b; }

extern "C" DWORD TouchPlatform() { return GetLastError(); }
