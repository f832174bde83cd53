#include "MemHeap.h"

#include "ZT4_TRACES.h"

LPALLOCATEBUFFER lpAllocateBuffer = NULL;
LPALLOCATEMORE lpAllocateMore = NULL;
LPFREEBUFFER lpFreeBuffer = NULL;

namespace {

const SIZE_T kHeapInitialSize = 8192;

HINSTANCE g_hInstance = NULL;
HANDLE g_hDBHeap = NULL;
HANDLE g_hPrivHeap = NULL;

void LogPrivAllocateFailure(HRESULT hResult, ULONG cbSize) {
  ZT4_LOG(ZT4_LEVEL_ERROR, "PrivAllocate: Failed to allocate buffer:%x", hResult);
  ZT4_LOG(ZT4_LEVEL_DETAIL, "              Buffer size: %d", static_cast<int>(cbSize));
}

}  // namespace

BOOL ZT4ProcessAttach(HINSTANCE hInstance) {
  g_hInstance = hInstance;
  g_hDBHeap = HeapCreate(0, kHeapInitialSize, 0);
  g_hPrivHeap = HeapCreate(0, kHeapInitialSize, 0);
  return g_hPrivHeap != NULL;
}

void ZT4ProcessDetach() {
  if (g_hDBHeap) HeapDestroy(g_hDBHeap);
  if (g_hPrivHeap) HeapDestroy(g_hPrivHeap);
  g_hDBHeap = NULL;
  g_hPrivHeap = NULL;
  g_hInstance = NULL;
}

HINSTANCE GetProviderInstance() { return g_hInstance; }
HANDLE GetPrivateHeap() { return g_hPrivHeap; }
HANDLE GetDBHeap() { return g_hDBHeap ? g_hDBHeap : g_hPrivHeap; }

HRESULT PrivMAPIAllocate(ULONG cbSize, LPVOID* ppv, LPVOID pMemBlock) {
  if (!ppv) return MAPI_E_INVALID_PARAMETER;
  *ppv = NULL;
  HRESULT hResult = MAPI_E_CALL_FAILED;
  if (pMemBlock && lpAllocateMore)
    hResult = lpAllocateMore(cbSize, pMemBlock, ppv);
  else if (!pMemBlock && lpAllocateBuffer)
    hResult = lpAllocateBuffer(cbSize, ppv);
  if (FAILED(hResult) || !*ppv) {
    if (SUCCEEDED(hResult)) hResult = MAPI_E_NOT_ENOUGH_MEMORY;
    *ppv = NULL;
    LogPrivAllocateFailure(hResult, cbSize);
    return hResult;
  }
  memset(*ppv, 0, cbSize);
  return S_OK;
}

HRESULT PrivAllocate(ULONG cbSize, LPVOID* ppv, LPCSTR pszName) {
  if (!ppv) return E_INVALIDARG;
  *ppv = g_hPrivHeap ? HeapAlloc(g_hPrivHeap, HEAP_ZERO_MEMORY, cbSize) : NULL;
  if (*ppv) return S_OK;
  ZT4_LOG(ZT4_LEVEL_ERROR, "PrivAllocate: Failed to allocate buffer");
  ZT4_LOG(ZT4_LEVEL_DETAIL, "     Allocation Size: %d, Name: %s", static_cast<int>(cbSize), pszName ? pszName : "");
  return E_OUTOFMEMORY;
}

void PrivFree(LPVOID* ppv) {
  if (!ppv || !*ppv) return;
  // Without the heap (after detach) the block went with it.
  if (g_hPrivHeap) HeapFree(g_hPrivHeap, 0, *ppv);
  *ppv = NULL;
}

void PrivMAPIFree(LPVOID* ppv) {
  ZT4_ASSERT(lpFreeBuffer != NULL);
  if (!ppv) return;
  if (*ppv && lpFreeBuffer) lpFreeBuffer(*ppv);
  *ppv = NULL;
}

void SetMAPIAllocRoutines(LPALLOCATEBUFFER pfnAllocateBuffer, LPALLOCATEMORE pfnAllocateMore,
                          LPFREEBUFFER pfnFreeBuffer) {
  lpAllocateBuffer = pfnAllocateBuffer;
  lpAllocateMore = pfnAllocateMore;
  lpFreeBuffer = pfnFreeBuffer;
}

HRESULT GetMemAllocRoutines(LPMAPISUP pSupObj) {
  if (!pSupObj) return MAPI_E_INVALID_PARAMETER;
  LPALLOCATEBUFFER pfnAllocateBuffer = NULL;
  LPALLOCATEMORE pfnAllocateMore = NULL;
  LPFREEBUFFER pfnFreeBuffer = NULL;
  HRESULT hResult = pSupObj->GetMemAllocRoutines(&pfnAllocateBuffer, &pfnAllocateMore, &pfnFreeBuffer);
  if (FAILED(hResult)) {
    ZT4_LOG(ZT4_LEVEL_ERROR, "GetMemAllocRoutines: Failed to get the MAPI memory allocation functions:%x", hResult);
    return hResult;
  }
  SetMAPIAllocRoutines(pfnAllocateBuffer, pfnAllocateMore, pfnFreeBuffer);
  return hResult;
}

LPALLOCATEBUFFER GetMAPIAllocBuffer() { return lpAllocateBuffer; }
LPALLOCATEMORE GetMAPIAllocMore() { return lpAllocateMore; }
LPFREEBUFFER GetMAPIFreeBuffer() { return lpFreeBuffer; }
