// Private heaps. Every block is tracked by its heap, so HeapDestroy frees what is left in it and a
// pointer that the heap did not hand out is refused (FALSE / NULL with ERROR_INVALID_PARAMETER)
// instead of corrupting memory. All heaps are thread-safe, HEAP_NO_SERIALIZE or not.
// HEAP_GENERATE_EXCEPTIONS raises nothing here: failures are reported by the return value (and,
// beyond the published behaviour, in the last error: ERROR_NOT_ENOUGH_MEMORY, ERROR_INVALID_HANDLE
// or ERROR_INVALID_PARAMETER).
#pragma once
#include "winnt.h"

extern "C" {

// dwMaximumSize 0 makes a growable heap; otherwise the bytes in use never exceed it.
HANDLE WINAPI HeapCreate(DWORD flOptions, SIZE_T dwInitialSize, SIZE_T dwMaximumSize);
// Frees every block still in the heap. The process heap cannot be destroyed.
BOOL WINAPI HeapDestroy(HANDLE hHeap);
// A request of 0 bytes gives a valid, unique pointer.
LPVOID WINAPI HeapAlloc(HANDLE hHeap, DWORD dwFlags, SIZE_T dwBytes);
// HEAP_ZERO_MEMORY zeroes the grown part; on failure the block is left as it was.
LPVOID WINAPI HeapReAlloc(HANDLE hHeap, DWORD dwFlags, LPVOID lpMem, SIZE_T dwBytes);
BOOL WINAPI HeapFree(HANDLE hHeap, DWORD dwFlags, LPVOID lpMem);
// (SIZE_T)-1 on failure.
SIZE_T WINAPI HeapSize(HANDLE hHeap, DWORD dwFlags, LPCVOID lpMem);
// lpMem NULL checks the heap itself; otherwise whether the heap handed out lpMem.
BOOL WINAPI HeapValidate(HANDLE hHeap, DWORD dwFlags, LPCVOID lpMem);
HANDLE WINAPI GetProcessHeap();

}  // extern "C"
