#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include "adplatform_mapi.h"
#include "mapicode.h"
#include "mapix.h"

namespace {

void* Allocate(ULONG cb) {
  void* p = nullptr;
  EXPECT_EQ(MAPIAllocateBuffer(cb, &p), S_OK);
  return p;
}

void* More(ULONG cb, void* object) {
  void* p = nullptr;
  EXPECT_EQ(MAPIAllocateMore(cb, object, &p), S_OK);
  return p;
}

}  // namespace

TEST(MapiAlloc, FreeingTheRootFreesEveryChainedBlock) {
  const size_t before = adp::MapiLiveBlockCount();
  char* root = static_cast<char*>(Allocate(64));
  char* first = static_cast<char*>(More(100, root));
  // A block chained to a chained block belongs to the same root.
  char* second = static_cast<char*>(More(200, first));
  char* third = static_cast<char*>(More(0, second));
  ASSERT_TRUE(root && first && second && third);
  EXPECT_EQ(adp::MapiLiveBlockCount(), before + 4);

  // Every block is usable over its whole size and suitably aligned for any value.
  std::memset(root, 1, 64);
  std::memset(first, 2, 100);
  std::memset(second, 3, 200);
  for (void* p : {static_cast<void*>(root), static_cast<void*>(first), static_cast<void*>(second)})
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u);
  EXPECT_EQ(root[63], 1);
  EXPECT_EQ(first[99], 2);

  EXPECT_EQ(MAPIFreeBuffer(root), 0u);
  EXPECT_EQ(adp::MapiLiveBlockCount(), before);
}

TEST(MapiAlloc, ZeroSizeBlocksAreDistinctAndFreeable) {
  const size_t before = adp::MapiLiveBlockCount();
  std::set<void*> seen;
  std::vector<void*> roots;
  for (int i = 0; i < 8; ++i) {
    void* p = Allocate(0);
    ASSERT_NE(p, nullptr);
    EXPECT_TRUE(seen.insert(p).second);
    void* chained = More(0, p);
    ASSERT_NE(chained, nullptr);
    EXPECT_TRUE(seen.insert(chained).second);
    roots.push_back(p);
  }
  for (void* p : roots) EXPECT_EQ(MAPIFreeBuffer(p), 0u);
  EXPECT_EQ(adp::MapiLiveBlockCount(), before);
  EXPECT_EQ(MAPIFreeBuffer(nullptr), 0u);
}

TEST(MapiAlloc, RefusesPointersItDoesNotOwn) {
  const size_t before = adp::MapiLiveBlockCount();
  EXPECT_EQ(MAPIAllocateBuffer(16, nullptr), MAPI_E_INVALID_PARAMETER);

  void* out = reinterpret_cast<void*>(0x1);
  EXPECT_EQ(MAPIAllocateMore(16, nullptr, &out), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(out, nullptr);
  int onStack = 0;
  EXPECT_EQ(MAPIAllocateMore(16, &onStack, &out), MAPI_E_INVALID_PARAMETER);
  void* fromMalloc = std::malloc(32);
  EXPECT_EQ(MAPIAllocateMore(16, fromMalloc, &out), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(MAPIFreeBuffer(fromMalloc), ULONG(MAPI_E_INVALID_PARAMETER));
  EXPECT_EQ(MAPIFreeBuffer(&onStack), ULONG(MAPI_E_INVALID_PARAMETER));
  std::free(fromMalloc);

  void* root = Allocate(8);
  void* chained = More(8, root);
  EXPECT_EQ(MAPIAllocateMore(8, root, nullptr), MAPI_E_INVALID_PARAMETER);
  // A chained block goes with its root and cannot be freed alone; it stays valid.
  EXPECT_EQ(MAPIFreeBuffer(chained), ULONG(MAPI_E_INVALID_PARAMETER));
  std::memset(chained, 0x5A, 8);
  EXPECT_EQ(adp::MapiLiveBlockCount(), before + 2);
  EXPECT_EQ(MAPIFreeBuffer(root), 0u);
  // Freed blocks are refused, not freed twice, and can no longer be chained to.
  EXPECT_EQ(MAPIFreeBuffer(root), ULONG(MAPI_E_INVALID_PARAMETER));
  EXPECT_EQ(MAPIAllocateMore(8, root, &out), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(adp::MapiLiveBlockCount(), before);
}

TEST(MapiAlloc, ConcurrentChainingAndFreeing) {
  const size_t before = adp::MapiLiveBlockCount();
  void* shared = Allocate(16);
  constexpr int kThreads = 4;
  constexpr int kPerThread = 500;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([shared, t] {
      for (int i = 0; i < kPerThread; ++i) {
        void* chained = nullptr;
        if (MAPIAllocateMore(24, shared, &chained) != S_OK) return;
        std::memset(chained, t, 24);
        // Private roots with their own chains come and go alongside.
        void* own = nullptr;
        if (MAPIAllocateBuffer(32, &own) != S_OK) return;
        void* ownMore = nullptr;
        MAPIAllocateMore(8, own, &ownMore);
        MAPIFreeBuffer(own);
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(adp::MapiLiveBlockCount(), before + 1 + kThreads * kPerThread);
  EXPECT_EQ(MAPIFreeBuffer(shared), 0u);
  EXPECT_EQ(adp::MapiLiveBlockCount(), before);
}
