#include "MemHeap.h"

#include <gtest/gtest.h>

#include <mapix.h>

#include <map>
#include <set>

#include "trace_fixture.h"

namespace {

// Counts what goes through the MAPI allocator, and remembers which blocks hang on which root.
struct AllocatorSpy {
  std::map<void*, std::set<void*>> roots;
  int cMore = 0;
  bool bFail = false;
};
AllocatorSpy g_spy;

SCODE STDMETHODCALLTYPE SpyAllocateBuffer(ULONG cbSize, LPVOID* ppv) {
  if (g_spy.bFail) return MAPI_E_NOT_ENOUGH_MEMORY;
  SCODE sc = MAPIAllocateBuffer(cbSize, ppv);
  memset(*ppv, 0xAB, cbSize);  // the caller must zero it
  g_spy.roots[*ppv];
  return sc;
}

SCODE STDMETHODCALLTYPE SpyAllocateMore(ULONG cbSize, LPVOID pObject, LPVOID* ppv) {
  if (g_spy.bFail) return MAPI_E_NOT_ENOUGH_MEMORY;
  SCODE sc = MAPIAllocateMore(cbSize, pObject, ppv);
  memset(*ppv, 0xCD, cbSize);
  ++g_spy.cMore;
  g_spy.roots[pObject].insert(*ppv);
  return sc;
}

ULONG STDAPICALLTYPE SpyFreeBuffer(LPVOID pv) {
  g_spy.roots.erase(pv);
  return MAPIFreeBuffer(pv);
}

bool AllZero(const void* pv, size_t cb) {
  const BYTE* p = static_cast<const BYTE*>(pv);
  for (size_t i = 0; i < cb; ++i)
    if (p[i]) return false;
  return true;
}

#define STUB_METHOD { return MAPI_E_NO_SUPPORT; }
struct CStubSupport : public IMAPISupport {
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
  ULONG STDMETHODCALLTYPE AddRef() override { return 1; }
  ULONG STDMETHODCALLTYPE Release() override { return 1; }
  MAPI_IMAPISUPPORT_METHODS(STUB_METHOD)
};

struct CAllocSupport : public CStubSupport {
  HRESULT hResult = S_OK;
  HRESULT STDMETHODCALLTYPE GetMemAllocRoutines(LPALLOCATEBUFFER* ppfnBuffer, LPALLOCATEMORE* ppfnMore,
                                                LPFREEBUFFER* ppfnFree) override {
    if (FAILED(hResult)) return hResult;
    *ppfnBuffer = SpyAllocateBuffer;
    *ppfnMore = SpyAllocateMore;
    *ppfnFree = SpyFreeBuffer;
    return S_OK;
  }
};

class MemHeapTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(ZT4ProcessAttach(reinterpret_cast<HINSTANCE>(this)));
    g_spy = AllocatorSpy();
  }
  void TearDown() override {
    ZT4ProcessDetach();
    SetMAPIAllocRoutines(NULL, NULL, NULL);
  }
};

}  // namespace

TEST_F(MemHeapTest, AttachMakesTwoHeapsAndDetachClearsThem) {
  EXPECT_EQ(GetProviderInstance(), reinterpret_cast<HINSTANCE>(this));
  ASSERT_NE(GetPrivateHeap(), nullptr);
  ASSERT_NE(GetDBHeap(), nullptr);
  EXPECT_NE(GetPrivateHeap(), GetDBHeap());
  ZT4ProcessDetach();
  EXPECT_EQ(GetProviderInstance(), nullptr);
  EXPECT_EQ(GetPrivateHeap(), nullptr);
  EXPECT_EQ(GetDBHeap(), nullptr);
}

TEST_F(MemHeapTest, PrivAllocateGivesZeroedBlocksAndPrivFreeClears) {
  LPVOID pEmpty = NULL;
  ASSERT_EQ(PrivAllocate(0, &pEmpty, "empty"), S_OK);
  EXPECT_NE(pEmpty, nullptr);
  EXPECT_TRUE(HeapValidate(GetPrivateHeap(), 0, pEmpty));

  BYTE* pBlock = NULL;
  ASSERT_EQ(PrivAllocate(300, reinterpret_cast<LPVOID*>(&pBlock), "block"), S_OK);
  EXPECT_TRUE(AllZero(pBlock, 300));
  EXPECT_TRUE(HeapValidate(GetPrivateHeap(), 0, pBlock));
  PrivFree(&pBlock);
  EXPECT_EQ(pBlock, nullptr);
  PrivFree(&pEmpty);
  EXPECT_EQ(pEmpty, nullptr);
  PrivFree(&pEmpty);  // an empty pointer: nothing happens
  PrivFree(static_cast<LPVOID*>(NULL));
  EXPECT_EQ(PrivAllocate(8, NULL, "no out"), E_INVALIDARG);
}

TEST_F(MemHeapTest, PrivAllocateWithoutAHeapFailsAndLogs) {
  zt4test::TraceLog log(5);
  ZT4ProcessDetach();
  LPVOID pv = reinterpret_cast<LPVOID>(1);
  EXPECT_EQ(PrivAllocate(64, &pv, "Dedup Cache Node in PushBack"), E_OUTOFMEMORY);
  EXPECT_EQ(pv, nullptr);
  EXPECT_TRUE(log.Has(" PrivAllocate: Failed to allocate buffer\r\n"));
  EXPECT_TRUE(log.Has(std::string(" MemHeap.cpp ") + "     Allocation Size: 64, Name: Dedup Cache Node in PushBack\r\n"));
}

TEST_F(MemHeapTest, PrivMAPIAllocateChainsToTheParentAndZeroes) {
  SetMAPIAllocRoutines(SpyAllocateBuffer, SpyAllocateMore, SpyFreeBuffer);
  BYTE* pRoot = NULL;
  ASSERT_EQ(PrivMAPIAllocate(100, reinterpret_cast<LPVOID*>(&pRoot)), S_OK);
  EXPECT_TRUE(AllZero(pRoot, 100));
  EXPECT_EQ(g_spy.cMore, 0);
  BYTE* pChild = NULL;
  ASSERT_EQ(PrivMAPIAllocate(50, reinterpret_cast<LPVOID*>(&pChild), pRoot), S_OK);
  EXPECT_TRUE(AllZero(pChild, 50));
  EXPECT_EQ(g_spy.cMore, 1);
  EXPECT_EQ(g_spy.roots[pRoot].count(pChild), 1u);
  // Freed with its parent: one free of the root takes both (ASan reports a leak otherwise).
  PrivMAPIFree(&pRoot);
  EXPECT_EQ(pRoot, nullptr);
  EXPECT_TRUE(g_spy.roots.empty());
  EXPECT_EQ(PrivMAPIAllocate(8, NULL), MAPI_E_INVALID_PARAMETER);
}

TEST_F(MemHeapTest, PrivMAPIAllocateFailureLogsTheCodeAndSize) {
  zt4test::TraceLog log(5);
  SetMAPIAllocRoutines(SpyAllocateBuffer, SpyAllocateMore, SpyFreeBuffer);
  g_spy.bFail = true;
  LPVOID pv = reinterpret_cast<LPVOID>(1);
  EXPECT_EQ(PrivMAPIAllocate(64, &pv), MAPI_E_NOT_ENOUGH_MEMORY);
  EXPECT_EQ(pv, nullptr);
  EXPECT_TRUE(log.Has(" PrivAllocate: Failed to allocate buffer:8007000e\r\n"));
  EXPECT_TRUE(log.Has(std::string(" MemHeap.cpp ") + "              Buffer size: 64\r\n"));
  // No allocator known yet: a failure, not a crash.
  SetMAPIAllocRoutines(NULL, NULL, NULL);
  EXPECT_EQ(PrivMAPIAllocate(8, &pv), MAPI_E_CALL_FAILED);
  EXPECT_EQ(PrivMAPIAllocate(8, &pv, &pv), MAPI_E_CALL_FAILED);
}

TEST_F(MemHeapTest, MAPIFreeAssertsAKnownFreeAndClears) {
  zt4test::TraceLog log(5);
  LPVOID pv = NULL;
  PrivMAPIFree(&pv);
  EXPECT_TRUE(log.Has("Assertion failed in File: "));
  SetMAPIAllocRoutines(SpyAllocateBuffer, SpyAllocateMore, SpyFreeBuffer);
  ASSERT_EQ(PrivMAPIAllocate(10, &pv), S_OK);
  EXPECT_EQ(g_spy.roots.size(), 1u);
  PrivMAPIFree(&pv);
  EXPECT_EQ(pv, nullptr);
  EXPECT_TRUE(g_spy.roots.empty());
}

TEST_F(MemHeapTest, GetMemAllocRoutinesKeepsOldValuesOnFailure) {
  zt4test::TraceLog log(5);
  CAllocSupport support;
  EXPECT_EQ(GetMemAllocRoutines(&support), S_OK);
  EXPECT_EQ(GetMAPIAllocBuffer(), SpyAllocateBuffer);
  EXPECT_EQ(GetMAPIAllocMore(), SpyAllocateMore);
  EXPECT_EQ(GetMAPIFreeBuffer(), SpyFreeBuffer);

  CStubSupport refusing;
  EXPECT_EQ(GetMemAllocRoutines(&refusing), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(GetMAPIAllocBuffer(), SpyAllocateBuffer);
  EXPECT_EQ(GetMAPIFreeBuffer(), SpyFreeBuffer);
  EXPECT_TRUE(log.Has(" GetMemAllocRoutines: Failed to get the MAPI memory allocation functions:80040102\r\n"));
  EXPECT_EQ(GetMemAllocRoutines(NULL), MAPI_E_INVALID_PARAMETER);
}
