// Loading modules (shared objects standing in for DLLs).
//
// Names. A Windows module name "Foo.DLL" (any case of ".dll"; a name without extension gets
// ".dll" as published, a trailing '.' means "no extension") is looked for as, in this order:
//   Foo.DLL, Foo.so, libFoo.so
// in a folder, each first by its exact spelling, then without regard to case. A name with a folder
// in it ("C:\x\Foo.dll", "/opt/x/Foo.dll", "sub\Foo.dll") is looked for in that folder only. A bare
// name is looked for in: the executable's folder, the folder of the platform library (the
// program's bin folder, where modules are installed beside it), the stand-in system and Windows
// folders (GetSystemDirectoryA, GetWindowsDirectoryA), then the current folder.
//
// DllMain. If a module defines `DllMain` itself (BOOL WINAPI DllMain(HINSTANCE, DWORD, LPVOID),
// exported with C linkage), LoadLibraryA calls it with DLL_PROCESS_ATTACH (lpReserved NULL) when
// the module is first loaded; if it returns FALSE it is called with DLL_PROCESS_DETACH, the
// module is unloaded and LoadLibraryA fails with ERROR_DLL_INIT_FAILED. The FreeLibrary that
// drops the last reference calls it with DLL_PROCESS_DETACH (lpReserved NULL) before unloading.
// A module still loaded when the process exits normally gets DLL_PROCESS_DETACH with lpReserved
// non-NULL, in reverse order of loading, before its own static destructors run. DllMain runs
// under the loader lock, which LoadLibraryA, FreeLibrary, GetProcAddress and GetModuleHandleA
// take (it is recursive, so DllMain may call them). DLL_THREAD_ATTACH/DETACH are never sent.
//
// Handles. An HMODULE is the loader's handle of the module; HINSTANCE in DllMain is the same
// value that LoadLibraryA returns. GetModuleHandleA(NULL) is the executable. GetProcAddress finds
// only what the module itself defines, as Windows looks only in the module's exports; by
// ordinal it finds nothing.
#pragma once
#include "winnt.h"

// The published FARPROC returns INT_PTR. Here it is void (*)(void): the one function pointer type
// that GCC lets be cast to any other without -Wcast-function-type, and a FARPROC is only ever
// cast to the function's real type before it is called.
typedef void(WINAPI* FARPROC)();
typedef void(WINAPI* NEARPROC)();
typedef void(WINAPI* PROC)();

#define LOAD_WITH_ALTERED_SEARCH_PATH 0x00000008
#define LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR 0x00000100
#define LOAD_LIBRARY_SEARCH_APPLICATION_DIR 0x00000200
#define LOAD_LIBRARY_SEARCH_SYSTEM32 0x00000800
#define LOAD_LIBRARY_SEARCH_DEFAULT_DIRS 0x00001000

#define GET_MODULE_HANDLE_EX_FLAG_PIN 0x00000001
#define GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT 0x00000002
#define GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS 0x00000004

extern "C" {

// ERROR_MOD_NOT_FOUND when no candidate exists, ERROR_BAD_EXE_FORMAT when one exists but is not
// a loadable module, ERROR_DLL_INIT_FAILED when DllMain refuses.
HMODULE WINAPI LoadLibraryA(LPCSTR lpLibFileName);
// hFile must be NULL; the search flags above are accepted and the search is always the one above.
HMODULE WINAPI LoadLibraryExA(LPCSTR lpLibFileName, HANDLE hFile, DWORD dwFlags);
BOOL WINAPI FreeLibrary(HMODULE hLibModule);
FARPROC WINAPI GetProcAddress(HMODULE hModule, LPCSTR lpProcName);
// A module loaded by LoadLibraryA, matched by path or by name (same rule as above); also finds a
// module that the process loaded otherwise (such a module is never unloaded). No reference is
// added.
HMODULE WINAPI GetModuleHandleA(LPCSTR lpModuleName);
// As published: with GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS lpModuleName is an address inside the
// module (a function or object of it), otherwise a name as for GetModuleHandleA. Without
// UNCHANGED_REFCOUNT a module that LoadLibraryA loaded gets a reference that FreeLibrary drops;
// PIN keeps the module for the life of the process. The executable's own addresses give
// GetModuleHandleA(NULL). A module whose load is still under way (its static constructors run)
// is found too, with no reference added. PIN with UNCHANGED_REFCOUNT, or a NULL phModule, fails
// with ERROR_INVALID_PARAMETER; an address no module holds with ERROR_MOD_NOT_FOUND.
BOOL WINAPI GetModuleHandleExA(DWORD dwFlags, LPCSTR lpModuleName, HMODULE* phModule);
// Truncates as published: a too-small buffer gets nSize - 1 characters and a NUL, the result is
// nSize and the last error ERROR_INSUFFICIENT_BUFFER.
DWORD WINAPI GetModuleFileNameA(HMODULE hModule, LPSTR lpFilename, DWORD nSize);
// Thread notifications are never sent, so there is nothing to disable.
BOOL WINAPI DisableThreadLibraryCalls(HMODULE hLibModule);

}  // extern "C"

#define LoadLibrary LoadLibraryA
#define LoadLibraryEx LoadLibraryExA
#define GetModuleHandle GetModuleHandleA
#define GetModuleFileName GetModuleFileNameA
