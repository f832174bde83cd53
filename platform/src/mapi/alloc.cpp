// The MAPI allocator. Each block has a header in front of it; a root block keeps a lock-free list
// of the blocks chained to it by MAPIAllocateMore, so freeing the root frees them all. Live blocks
// are also recorded in a sharded registry: the entry points refuse a pointer they did not hand
// out, or already took back, instead of reading memory that is not theirs.
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <new>
#include <unordered_set>

#include "adplatform_mapi.h"
#include "mapicode.h"
#include "mapix.h"

namespace {

struct alignas(16) BlockHeader {
  BlockHeader* root = nullptr;                  // nullptr: this is a root block
  std::atomic<BlockHeader*> chained{nullptr};  // root: the block chained last
  BlockHeader* next = nullptr;                 // chained block: the one chained before it
};

void* PayloadOf(BlockHeader* header) { return header + 1; }
BlockHeader* HeaderOf(void* payload) { return static_cast<BlockHeader*>(payload) - 1; }

// Payload pointers of live blocks. Each shard has its own lock; no code path holds two.
class Registry {
 public:
  void Add(void* p) {
    Shard& s = ShardOf(p);
    std::lock_guard<std::mutex> guard(s.lock);
    s.live.insert(p);
  }
  bool Contains(void* p) {
    Shard& s = ShardOf(p);
    std::lock_guard<std::mutex> guard(s.lock);
    return s.live.count(p) != 0;
  }
  bool Remove(void* p) {
    Shard& s = ShardOf(p);
    std::lock_guard<std::mutex> guard(s.lock);
    return s.live.erase(p) != 0;
  }
  size_t Count() {
    size_t total = 0;
    for (Shard& s : m_shards) {
      std::lock_guard<std::mutex> guard(s.lock);
      total += s.live.size();
    }
    return total;
  }

 private:
  struct Shard {
    std::mutex lock;
    std::unordered_set<void*> live;
  };
  static constexpr size_t kShards = 64;
  Shard& ShardOf(void* p) {
    uint64_t h = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(p)) * 0x9E3779B97F4A7C15ULL;
    return m_shards[h >> 58];
  }
  Shard m_shards[kShards];
};

// Never destroyed: blocks may be freed from other objects' destructors at exit.
Registry& Blocks() {
  static Registry* registry = new Registry;
  return *registry;
}

BlockHeader* NewBlock(ULONG cbSize) {
  void* raw = std::malloc(sizeof(BlockHeader) + static_cast<size_t>(cbSize));
  if (!raw) return nullptr;
  return new (raw) BlockHeader;
}

void DeleteBlock(BlockHeader* header) {
  header->~BlockHeader();
  std::free(header);
}

void Chain(BlockHeader* root, BlockHeader* block) {
  block->root = root;
  BlockHeader* head = root->chained.load(std::memory_order_relaxed);
  do {
    block->next = head;
  } while (!root->chained.compare_exchange_weak(head, block, std::memory_order_release,
                                                 std::memory_order_relaxed));
}

void FreeChainOf(BlockHeader* root) {
  BlockHeader* block = root->chained.exchange(nullptr, std::memory_order_acquire);
  while (block) {
    BlockHeader* next = block->next;
    Blocks().Remove(PayloadOf(block));
    DeleteBlock(block);
    block = next;
  }
}

}  // namespace

namespace adp {

size_t MapiLiveBlockCount() { return Blocks().Count(); }

}  // namespace adp

extern "C" SCODE STDMETHODCALLTYPE MAPIAllocateBuffer(ULONG cbSize, LPVOID* lppBuffer) {
  if (!lppBuffer) return MAPI_E_INVALID_PARAMETER;
  *lppBuffer = nullptr;
  BlockHeader* block = NewBlock(cbSize);
  if (!block) return MAPI_E_NOT_ENOUGH_MEMORY;
  Blocks().Add(PayloadOf(block));
  *lppBuffer = PayloadOf(block);
  return S_OK;
}

extern "C" SCODE STDMETHODCALLTYPE MAPIAllocateMore(ULONG cbSize, LPVOID lpObject, LPVOID* lppBuffer) {
  if (!lppBuffer) return MAPI_E_INVALID_PARAMETER;
  *lppBuffer = nullptr;
  if (!lpObject || !Blocks().Contains(lpObject)) return MAPI_E_INVALID_PARAMETER;
  BlockHeader* owner = HeaderOf(lpObject);
  BlockHeader* root = owner->root ? owner->root : owner;
  BlockHeader* block = NewBlock(cbSize);
  if (!block) return MAPI_E_NOT_ENOUGH_MEMORY;
  Chain(root, block);
  Blocks().Add(PayloadOf(block));
  *lppBuffer = PayloadOf(block);
  return S_OK;
}

// Only roots can be freed; a chained block goes with its root. Anything else is refused.
extern "C" ULONG STDAPICALLTYPE MAPIFreeBuffer(LPVOID lpBuffer) {
  if (!lpBuffer) return S_OK;
  if (!Blocks().Contains(lpBuffer) || HeaderOf(lpBuffer)->root) return static_cast<ULONG>(MAPI_E_INVALID_PARAMETER);
  if (!Blocks().Remove(lpBuffer)) return static_cast<ULONG>(MAPI_E_INVALID_PARAMETER);
  BlockHeader* root = HeaderOf(lpBuffer);
  FreeChainOf(root);
  DeleteBlock(root);
  return S_OK;
}
