// Private heaps over the C allocator. A heap records each block it hands out, which gives
// HeapSize, refuses foreign pointers, and lets HeapDestroy free whatever is left.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>

#include "windows.h"

namespace adp {
namespace {

// Requests above this fail cleanly instead of reaching the allocator (whose limit, under the
// address sanitizer, is 1 TiB and aborts the process).
constexpr SIZE_T kLargestBlock = (static_cast<SIZE_T>(1) << 40) - 4096;

class Heap {
 public:
  explicit Heap(SIZE_T maximumSize) : m_maximum(maximumSize) {}
  ~Heap() {
    for (auto& block : m_blocks) std::free(block.first);
  }
  Heap(const Heap&) = delete;
  Heap& operator=(const Heap&) = delete;

  void* Alloc(DWORD flags, SIZE_T bytes, DWORD& error) {
    std::lock_guard<std::mutex> guard(m_lock);
    if (!Fits(0, bytes)) return Refuse(error);
    void* p = (flags & HEAP_ZERO_MEMORY) ? std::calloc(1, bytes ? bytes : 1) : std::malloc(bytes ? bytes : 1);
    if (!p) return Refuse(error);
    m_blocks.emplace(p, bytes);
    m_inUse += bytes;
    return p;
  }

  void* ReAlloc(DWORD flags, void* p, SIZE_T bytes, DWORD& error) {
    std::lock_guard<std::mutex> guard(m_lock);
    auto it = m_blocks.find(p);
    if (it == m_blocks.end()) {
      error = ERROR_INVALID_PARAMETER;
      return nullptr;
    }
    SIZE_T old = it->second;
    if (!Fits(old, bytes)) return Refuse(error);
    if (flags & HEAP_REALLOC_IN_PLACE_ONLY) {
      if (bytes > old) return Refuse(error);
      it->second = bytes;  // shrinking keeps the block where it is
      m_inUse -= old - bytes;
      return p;
    }
    void* q = std::realloc(p, bytes ? bytes : 1);
    if (!q) return Refuse(error);  // the old block is untouched
    if ((flags & HEAP_ZERO_MEMORY) && bytes > old) std::memset(static_cast<char*>(q) + old, 0, bytes - old);
    m_blocks.erase(it);
    m_blocks.emplace(q, bytes);
    m_inUse = m_inUse - old + bytes;
    return q;
  }

  bool Free(void* p) {
    std::lock_guard<std::mutex> guard(m_lock);
    auto it = m_blocks.find(p);
    if (it == m_blocks.end()) return false;
    m_inUse -= it->second;
    m_blocks.erase(it);
    std::free(p);
    return true;
  }

  bool Size(const void* p, SIZE_T& size) {
    std::lock_guard<std::mutex> guard(m_lock);
    auto it = m_blocks.find(const_cast<void*>(p));
    if (it == m_blocks.end()) return false;
    size = it->second;
    return true;
  }

 private:
  bool Fits(SIZE_T old, SIZE_T bytes) const {
    if (bytes > kLargestBlock) return false;
    return m_maximum == 0 || m_inUse - old + bytes <= m_maximum;
  }
  static void* Refuse(DWORD& error) {
    error = ERROR_NOT_ENOUGH_MEMORY;
    return nullptr;
  }

  const SIZE_T m_maximum;  // 0: growable
  std::mutex m_lock;       // leaf lock: guards the blocks of this heap
  std::unordered_map<void*, SIZE_T> m_blocks;
  SIZE_T m_inUse = 0;
};

// Live heaps by handle. Callers hold a shared_ptr while they work, so a HeapDestroy racing with
// them frees the heap only after they are done.
struct HeapTable {
  std::shared_mutex lock;  // taken alone, never while a heap's lock is held
  std::unordered_map<HANDLE, std::shared_ptr<Heap>> heaps;
  HANDLE processHeap = nullptr;
};

HeapTable& Table() {
  static auto* table = [] {
    auto* t = new HeapTable;  // never destroyed: blocks of the process heap may be freed during exit
    auto heap = std::make_shared<Heap>(0);
    t->processHeap = static_cast<HANDLE>(heap.get());
    t->heaps.emplace(t->processHeap, std::move(heap));
    return t;
  }();
  return *table;
}

std::shared_ptr<Heap> Find(HANDLE h) {
  HeapTable& t = Table();
  std::shared_lock<std::shared_mutex> guard(t.lock);
  auto it = t.heaps.find(h);
  if (it == t.heaps.end()) {
    ::SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
  }
  return it->second;
}

}  // namespace
}  // namespace adp

extern "C" {

HANDLE HeapCreate(DWORD flOptions, SIZE_T dwInitialSize, SIZE_T dwMaximumSize) {
  if (dwMaximumSize != 0 && dwInitialSize > dwMaximumSize) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  auto heap = std::make_shared<adp::Heap>(dwMaximumSize);
  HANDLE h = static_cast<HANDLE>(heap.get());
  adp::HeapTable& t = adp::Table();
  std::unique_lock<std::shared_mutex> guard(t.lock);
  t.heaps.emplace(h, std::move(heap));
  return h;
}

BOOL HeapDestroy(HANDLE hHeap) {
  std::shared_ptr<adp::Heap> doomed;  // released after the table lock
  adp::HeapTable& t = adp::Table();
  std::unique_lock<std::shared_mutex> guard(t.lock);
  auto it = t.heaps.find(hHeap);
  if (it == t.heaps.end() || hHeap == t.processHeap) {
    SetLastError(it == t.heaps.end() ? ERROR_INVALID_HANDLE : ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  doomed = std::move(it->second);
  t.heaps.erase(it);
  guard.unlock();
  return TRUE;
}

LPVOID HeapAlloc(HANDLE hHeap, DWORD dwFlags, SIZE_T dwBytes) {
  auto heap = adp::Find(hHeap);
  if (!heap) return nullptr;
  DWORD error = ERROR_SUCCESS;
  void* p = heap->Alloc(dwFlags, dwBytes, error);
  if (!p) SetLastError(error);
  return p;
}

LPVOID HeapReAlloc(HANDLE hHeap, DWORD dwFlags, LPVOID lpMem, SIZE_T dwBytes) {
  auto heap = adp::Find(hHeap);
  if (!heap) return nullptr;
  DWORD error = ERROR_SUCCESS;
  void* p = lpMem ? heap->ReAlloc(dwFlags, lpMem, dwBytes, error) : nullptr;
  if (!lpMem) error = ERROR_INVALID_PARAMETER;
  if (!p) SetLastError(error);
  return p;
}

BOOL HeapFree(HANDLE hHeap, DWORD dwFlags, LPVOID lpMem) {
  auto heap = adp::Find(hHeap);
  if (!heap) return FALSE;
  if (lpMem == nullptr) return TRUE;
  if (heap->Free(lpMem)) return TRUE;
  SetLastError(ERROR_INVALID_PARAMETER);
  return FALSE;
}

SIZE_T HeapSize(HANDLE hHeap, DWORD dwFlags, LPCVOID lpMem) {
  auto heap = adp::Find(hHeap);
  SIZE_T size = 0;
  if (heap && heap->Size(lpMem, size)) return size;
  if (heap) SetLastError(ERROR_INVALID_PARAMETER);
  return static_cast<SIZE_T>(-1);
}

BOOL HeapValidate(HANDLE hHeap, DWORD dwFlags, LPCVOID lpMem) {
  auto heap = adp::Find(hHeap);
  SIZE_T size = 0;
  return heap && (lpMem == nullptr || heap->Size(lpMem, size)) ? TRUE : FALSE;
}

HANDLE GetProcessHeap() { return adp::Table().processHeap; }

}  // extern "C"
