// Memory of the provider. What a MAPI caller will free comes from the allocators MAPI gave
// (MSProviderInit, or GetMemAllocRoutines from ServiceEntry); what stays inside comes from a
// private heap. Blocks of both kinds are zeroed when handed out.
#pragma once
#include <windows.h>
#include <mapidefs.h>
#include <mapispi.h>

extern LPALLOCATEBUFFER lpAllocateBuffer;
extern LPALLOCATEMORE lpAllocateMore;
extern LPFREEBUFFER lpFreeBuffer;

// The DllMain work of the provider module. Attach makes the two private heaps and fails only if
// the second can't be made; detach destroys both.
BOOL ZT4ProcessAttach(HINSTANCE hInstance);
void ZT4ProcessDetach();
HINSTANCE GetProviderInstance();
// The heap behind PrivAllocate, and the one the record store keeps its nodes in (the private
// heap when that one couldn't be made).
HANDLE GetPrivateHeap();
HANDLE GetDBHeap();

// A zeroed block from the MAPI allocator: pMemBlock NULL gives a new root, otherwise a block
// freed together with pMemBlock.
HRESULT PrivMAPIAllocate(ULONG cbSize, LPVOID* ppv, LPVOID pMemBlock = NULL);
// A zeroed block from the private heap; pszName only names it in the failure log.
HRESULT PrivAllocate(ULONG cbSize, LPVOID* ppv, LPCSTR pszName = NULL);
// Frees a private-heap block and clears the pointer; NULL or an empty pointer does nothing.
void PrivFree(LPVOID* ppv);
// Frees a MAPI-allocator root block and clears the pointer.
void PrivMAPIFree(LPVOID* ppv);
template <class T> void PrivFree(T** pp) {
  LPVOID pv = *pp;
  PrivFree(&pv);
  *pp = NULL;
}
template <class T> void PrivMAPIFree(T** pp) {
  LPVOID pv = *pp;
  PrivMAPIFree(&pv);
  *pp = NULL;
}

// Keeps the allocators MAPI passes to MSProviderInit.
void SetMAPIAllocRoutines(LPALLOCATEBUFFER pfnAllocateBuffer, LPALLOCATEMORE pfnAllocateMore,
                          LPFREEBUFFER pfnFreeBuffer);
// Takes the allocators from a support object; on failure the old ones stay.
HRESULT GetMemAllocRoutines(LPMAPISUP pSupObj);
LPALLOCATEBUFFER GetMAPIAllocBuffer();
LPALLOCATEMORE GetMAPIAllocMore();
LPFREEBUFFER GetMAPIFreeBuffer();
