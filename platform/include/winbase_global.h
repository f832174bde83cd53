// Global memory blocks (GlobalAlloc family), the storage of CreateStreamOnHGlobal. A fixed block's
// handle is its address; a moveable block's handle is an opaque token that GlobalLock turns into
// the address.
#pragma once
#include "winnt.h"

#define GMEM_FIXED 0x0000
#define GMEM_MOVEABLE 0x0002
#define GMEM_NOCOMPACT 0x0010
#define GMEM_NODISCARD 0x0020
#define GMEM_ZEROINIT 0x0040
#define GMEM_MODIFY 0x0080
#define GMEM_DISCARDABLE 0x0100
#define GMEM_NOT_BANKED 0x1000
#define GMEM_SHARE 0x2000
#define GMEM_DDESHARE 0x2000
#define GMEM_INVALID_HANDLE 0x8000
#define GMEM_LOCKCOUNT 0x00FF
#define GMEM_DISCARDED 0x4000
#define GHND (GMEM_MOVEABLE | GMEM_ZEROINIT)
#define GPTR (GMEM_FIXED | GMEM_ZEROINIT)

extern "C" HGLOBAL GlobalAlloc(UINT uFlags, SIZE_T dwBytes);
extern "C" HGLOBAL GlobalReAlloc(HGLOBAL hMem, SIZE_T dwBytes, UINT uFlags);
extern "C" LPVOID GlobalLock(HGLOBAL hMem);
extern "C" BOOL GlobalUnlock(HGLOBAL hMem);
extern "C" SIZE_T GlobalSize(HGLOBAL hMem);
extern "C" UINT GlobalFlags(HGLOBAL hMem);
extern "C" HGLOBAL GlobalHandle(LPCVOID pMem);
extern "C" HGLOBAL GlobalFree(HGLOBAL hMem);
