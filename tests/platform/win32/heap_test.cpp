#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include "windows.h"

namespace {

bool AllZero(const void* p, size_t n) {
  const auto* b = static_cast<const unsigned char*>(p);
  for (size_t i = 0; i < n; ++i) {
    if (b[i] != 0) return false;
  }
  return true;
}

}  // namespace

TEST(Heap, ZeroedBlocksAndSizes) {
  HANDLE heap = HeapCreate(0, 8192, 0);
  ASSERT_NE(heap, nullptr);
  auto* p = static_cast<char*>(HeapAlloc(heap, HEAP_ZERO_MEMORY, 1000));
  ASSERT_NE(p, nullptr);
  EXPECT_TRUE(AllZero(p, 1000));
  EXPECT_EQ(HeapSize(heap, 0, p), 1000u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u);

  void* empty = HeapAlloc(heap, 0, 0);  // a zero-byte request is a valid, distinct block
  void* empty2 = HeapAlloc(heap, HEAP_ZERO_MEMORY, 0);
  ASSERT_NE(empty, nullptr);
  ASSERT_NE(empty2, nullptr);
  EXPECT_NE(empty, empty2);
  EXPECT_EQ(HeapSize(heap, 0, empty), 0u);
  EXPECT_TRUE(HeapValidate(heap, 0, empty));
  EXPECT_TRUE(HeapFree(heap, 0, empty));
  EXPECT_FALSE(HeapValidate(heap, 0, empty));
  EXPECT_TRUE(HeapFree(heap, 0, nullptr));
  EXPECT_TRUE(HeapFree(heap, 0, p));
  EXPECT_TRUE(HeapDestroy(heap));  // empty2 goes with the heap
}

TEST(Heap, ReAllocKeepsContentAndZeroesTheGrownPart) {
  HANDLE heap = HeapCreate(0, 0, 0);
  auto* p = static_cast<char*>(HeapAlloc(heap, 0, 16));
  std::memset(p, 'a', 16);
  auto* q = static_cast<char*>(HeapReAlloc(heap, HEAP_ZERO_MEMORY, p, 100000));
  ASSERT_NE(q, nullptr);
  EXPECT_EQ(std::string(q, 16), std::string(16, 'a'));
  EXPECT_TRUE(AllZero(q + 16, 100000 - 16));
  EXPECT_EQ(HeapSize(heap, 0, q), 100000u);

  auto* r = static_cast<char*>(HeapReAlloc(heap, HEAP_REALLOC_IN_PLACE_ONLY, q, 10));
  EXPECT_EQ(r, q);  // shrinking in place keeps the block
  EXPECT_EQ(HeapSize(heap, 0, r), 10u);
  SetLastError(0);
  EXPECT_EQ(HeapReAlloc(heap, HEAP_REALLOC_IN_PLACE_ONLY, r, 20), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
  EXPECT_EQ(HeapSize(heap, 0, r), 10u);  // a failed ReAlloc leaves the block alone
  EXPECT_EQ(std::string(r, 10), std::string(10, 'a'));

  EXPECT_EQ(HeapReAlloc(heap, 0, nullptr, 10), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_TRUE(HeapDestroy(heap));
}

TEST(Heap, DestroyFreesEverythingAndStaleHandlesAreRefused) {
  HANDLE heap = HeapCreate(HEAP_NO_SERIALIZE, 8192, 0);
  for (int i = 0; i < 1000; ++i) ASSERT_NE(HeapAlloc(heap, 0, 64 + i), nullptr);  // leak-checked builds fail if kept
  EXPECT_TRUE(HeapDestroy(heap));
  SetLastError(0);
  EXPECT_EQ(HeapAlloc(heap, 0, 10), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_FALSE(HeapDestroy(heap));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_FALSE(HeapFree(heap, 0, reinterpret_cast<void*>(0x10)));
  EXPECT_EQ(HeapSize(heap, 0, nullptr), static_cast<SIZE_T>(-1));
  EXPECT_FALSE(HeapValidate(heap, 0, nullptr));
}

TEST(Heap, ForeignPointersAndOversizeRequestsFailCleanly) {
  HANDLE a = HeapCreate(0, 0, 0);
  HANDLE b = HeapCreate(0, 0, 0);
  void* p = HeapAlloc(a, 0, 32);
  int local = 0;
  EXPECT_FALSE(HeapFree(b, 0, p));  // not b's block
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_FALSE(HeapFree(a, 0, &local));
  EXPECT_EQ(HeapSize(b, 0, p), static_cast<SIZE_T>(-1));
  EXPECT_EQ(HeapReAlloc(b, 0, p, 64), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_TRUE(HeapFree(a, 0, p));
  EXPECT_FALSE(HeapFree(a, 0, p));  // twice is refused, not a double free

  EXPECT_EQ(HeapAlloc(a, 0, SIZE_MAX), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
  EXPECT_EQ(HeapAlloc(a, HEAP_ZERO_MEMORY, SIZE_MAX / 2), nullptr);
  void* q = HeapAlloc(a, 0, 8);
  EXPECT_EQ(HeapReAlloc(a, 0, q, SIZE_MAX - 8), nullptr);
  EXPECT_EQ(HeapSize(a, 0, q), 8u);

  // A heap with a maximum never holds more than that.
  HANDLE fixed = HeapCreate(0, 1024, 4096);
  void* x = HeapAlloc(fixed, 0, 3000);
  ASSERT_NE(x, nullptr);
  EXPECT_EQ(HeapAlloc(fixed, 0, 2000), nullptr);
  EXPECT_TRUE(HeapFree(fixed, 0, x));
  EXPECT_NE(HeapAlloc(fixed, 0, 4096), nullptr);
  EXPECT_EQ(HeapCreate(0, 8192, 4096), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_TRUE(HeapDestroy(fixed));
  EXPECT_TRUE(HeapDestroy(a));
  EXPECT_TRUE(HeapDestroy(b));
}

TEST(Heap, ProcessHeapStaysAndThreadsShareHeaps) {
  HANDLE process = GetProcessHeap();
  ASSERT_NE(process, nullptr);
  EXPECT_EQ(GetProcessHeap(), process);
  EXPECT_FALSE(HeapDestroy(process));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  void* p = HeapAlloc(process, HEAP_ZERO_MEMORY, 24);
  ASSERT_NE(p, nullptr);
  EXPECT_TRUE(HeapFree(process, 0, p));

  HANDLE heap = HeapCreate(0, 8192, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([heap, process, t] {
      std::vector<void*> blocks;
      for (int i = 0; i < 500; ++i) {
        void* b = HeapAlloc(i % 2 ? heap : process, HEAP_ZERO_MEMORY, static_cast<SIZE_T>(8 + i + t));
        if (b) blocks.push_back(b);
        if (i % 3 == 0 && !blocks.empty()) {
          void* last = blocks.back();
          blocks.pop_back();
          HeapFree(HeapValidate(heap, 0, last) ? heap : process, 0, last);
        }
      }
      for (void* b : blocks) HeapFree(HeapValidate(heap, 0, b) ? heap : process, 0, b);
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_TRUE(HeapDestroy(heap));
}
