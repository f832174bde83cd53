// GlobalAlloc family. Every live block is in one table keyed by its handle, so stale or foreign
// handles are refused (ERROR_INVALID_HANDLE) instead of dereferenced. A fixed block's handle is
// its address; a moveable block's handle is a token that is never a valid address (low bits 0x4,
// where allocations are 16-byte aligned).
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unordered_map>

#include "errhandlingapi.h"
#include "winbase_global.h"
#include "winerror.h"

namespace {

#ifndef ERROR_DISCARDED
constexpr DWORD ERROR_DISCARDED = 157;
#endif
#ifndef ERROR_NOT_LOCKED
constexpr DWORD ERROR_NOT_LOCKED = 158;
#endif

struct Block {
  bool moveable = false;
  BYTE* data = nullptr;  // null for a moveable block of size 0 (discarded, as published)
  SIZE_T size = 0;
  UINT locks = 0;
};

struct Table {
  std::mutex lock;  // innermost: nothing is called out while held
  std::unordered_map<HGLOBAL, Block> blocks;
  uintptr_t nextToken = 0;
};

Table& Blocks() {
  static Table* table = new Table;  // never destroyed: blocks may be freed during exit
  return *table;
}

BYTE* AllocateData(SIZE_T bytes, bool zero) {
  // At least one byte so a fixed block of size 0 still has a unique address.
  void* p = std::malloc(bytes ? bytes : 1);
  if (p && zero) std::memset(p, 0, bytes ? bytes : 1);
  return static_cast<BYTE*>(p);
}

Block* Find(Table& t, HGLOBAL h) {
  auto it = t.blocks.find(h);
  return it == t.blocks.end() ? nullptr : &it->second;
}

HGLOBAL Fail(DWORD error) {
  SetLastError(error);
  return nullptr;
}

// Resizes the data of b; false when the block may not or could not grow.
bool ResizeData(Block& b, SIZE_T bytes, bool mayMove, bool zero) {
  if (bytes <= b.size && b.data) {
    b.size = bytes;  // shrink in place
    return true;
  }
  if (!mayMove) return false;
  BYTE* fresh = AllocateData(bytes, false);
  if (!fresh) return false;
  SIZE_T keep = b.size < bytes ? b.size : bytes;
  if (b.data) std::memcpy(fresh, b.data, keep);
  if (zero && bytes > keep) std::memset(fresh + keep, 0, bytes - keep);
  std::free(b.data);
  b.data = fresh;
  b.size = bytes;
  return true;
}

HGLOBAL ReallocateFixed(Table& t, HGLOBAL hMem, SIZE_T dwBytes, UINT uFlags) {
  Block b = t.blocks[hMem];
  if (dwBytes <= b.size) {
    t.blocks[hMem].size = dwBytes;
    return hMem;
  }
  // A fixed block moves only when the caller allows it; the handle is the new address.
  if (!(uFlags & GMEM_MOVEABLE)) return Fail(ERROR_NOT_ENOUGH_MEMORY);
  if (!ResizeData(b, dwBytes, true, uFlags & GMEM_ZEROINIT)) return Fail(ERROR_NOT_ENOUGH_MEMORY);
  t.blocks.erase(hMem);
  HGLOBAL fresh = b.data;
  t.blocks[fresh] = b;
  return fresh;
}

}  // namespace

extern "C" HGLOBAL GlobalAlloc(UINT uFlags, SIZE_T dwBytes) {
  Table& t = Blocks();
  Block b;
  b.moveable = (uFlags & GMEM_MOVEABLE) != 0;
  b.size = dwBytes;
  if (!b.moveable || dwBytes) {
    b.data = AllocateData(dwBytes, uFlags & GMEM_ZEROINIT);
    if (!b.data) return Fail(ERROR_NOT_ENOUGH_MEMORY);
  }
  std::lock_guard<std::mutex> guard(t.lock);
  HGLOBAL h = b.data;
  if (b.moveable) h = reinterpret_cast<HGLOBAL>((++t.nextToken << 4) | 0x4);
  t.blocks[h] = b;
  return h;
}

extern "C" HGLOBAL GlobalReAlloc(HGLOBAL hMem, SIZE_T dwBytes, UINT uFlags) {
  Table& t = Blocks();
  std::lock_guard<std::mutex> guard(t.lock);
  Block* b = Find(t, hMem);
  if (!b) return Fail(ERROR_INVALID_HANDLE);
  if (uFlags & GMEM_MODIFY) return hMem;  // only attribute changes, none of which matter here
  if (!b->moveable) return ReallocateFixed(t, hMem, dwBytes, uFlags);
  if (dwBytes == 0 && b->locks == 0) {
    std::free(b->data);  // a moveable block of size 0 is discarded, as published
    b->data = nullptr;
    b->size = 0;
    return hMem;
  }
  // A locked moveable block keeps its address: it may only shrink.
  if (!ResizeData(*b, dwBytes, b->locks == 0, uFlags & GMEM_ZEROINIT)) return Fail(ERROR_NOT_ENOUGH_MEMORY);
  return hMem;
}

extern "C" LPVOID GlobalLock(HGLOBAL hMem) {
  Table& t = Blocks();
  std::lock_guard<std::mutex> guard(t.lock);
  Block* b = Find(t, hMem);
  if (!b) return Fail(ERROR_INVALID_HANDLE);
  if (!b->moveable) return b->data;
  if (!b->data) return Fail(ERROR_DISCARDED);
  if (b->locks < GMEM_LOCKCOUNT) ++b->locks;
  return b->data;
}

extern "C" BOOL GlobalUnlock(HGLOBAL hMem) {
  Table& t = Blocks();
  std::lock_guard<std::mutex> guard(t.lock);
  Block* b = Find(t, hMem);
  if (!b) {
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
  }
  if (!b->moveable || b->locks == 0) {
    SetLastError(ERROR_NOT_LOCKED);
    return FALSE;
  }
  if (--b->locks) return TRUE;
  SetLastError(NO_ERROR);
  return FALSE;
}

extern "C" SIZE_T GlobalSize(HGLOBAL hMem) {
  Table& t = Blocks();
  std::lock_guard<std::mutex> guard(t.lock);
  Block* b = Find(t, hMem);
  if (!b) {
    SetLastError(ERROR_INVALID_HANDLE);
    return 0;
  }
  return b->size;
}

extern "C" UINT GlobalFlags(HGLOBAL hMem) {
  Table& t = Blocks();
  std::lock_guard<std::mutex> guard(t.lock);
  Block* b = Find(t, hMem);
  if (!b) {
    SetLastError(ERROR_INVALID_HANDLE);
    return GMEM_INVALID_HANDLE;
  }
  UINT flags = b->locks & GMEM_LOCKCOUNT;
  if (b->moveable && !b->data) flags |= GMEM_DISCARDED;
  return flags;
}

extern "C" HGLOBAL GlobalHandle(LPCVOID pMem) {
  Table& t = Blocks();
  std::lock_guard<std::mutex> guard(t.lock);
  for (auto& [handle, block] : t.blocks) {
    if (block.data == pMem) return handle;
  }
  return Fail(ERROR_INVALID_HANDLE);
}

extern "C" HGLOBAL GlobalFree(HGLOBAL hMem) {
  Table& t = Blocks();
  BYTE* data;
  {
    std::lock_guard<std::mutex> guard(t.lock);
    auto it = t.blocks.find(hMem);
    if (it == t.blocks.end()) {
      SetLastError(ERROR_INVALID_HANDLE);
      return hMem;
    }
    data = it->second.data;
    t.blocks.erase(it);
  }
  std::free(data);
  return nullptr;
}
