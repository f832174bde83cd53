#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <objbase.h>
#include <windows.h>

namespace {

// Owns one stream reference.
struct StreamRef {
  IStream* p = nullptr;
  ~StreamRef() {
    if (p) p->Release();
  }
  IStream* operator->() const { return p; }
};

LARGE_INTEGER Li(LONGLONG v) {
  LARGE_INTEGER li;
  li.QuadPart = v;
  return li;
}

ULARGE_INTEGER Uli(ULONGLONG v) {
  ULARGE_INTEGER li;
  li.QuadPart = v;
  return li;
}

ULONGLONG SizeOf(IStream* s) {
  STATSTG st;
  EXPECT_EQ(s->Stat(&st, STATFLAG_NONAME), S_OK);
  return st.cbSize.QuadPart;
}

std::string ReadAll(IStream* s) {
  EXPECT_EQ(s->Seek(Li(0), STREAM_SEEK_SET, nullptr), S_OK);
  std::string out(static_cast<size_t>(SizeOf(s)), '?');
  ULONG got = 0;
  EXPECT_EQ(s->Read(out.data(), static_cast<ULONG>(out.size()), &got), S_OK);
  out.resize(got);
  return out;
}

void Write(IStream* s, const std::string& text) {
  ULONG written = 0;
  ASSERT_EQ(s->Write(text.data(), static_cast<ULONG>(text.size()), &written), S_OK);
  ASSERT_EQ(written, text.size());
}

TEST(GlobalMemory, MoveableBlocksLockCountAndGrow) {
  HGLOBAL h = GlobalAlloc(GHND, 16);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(GlobalSize(h), 16u);
  auto* p = static_cast<BYTE*>(GlobalLock(h));
  ASSERT_NE(p, nullptr);
  for (int i = 0; i < 16; ++i) EXPECT_EQ(p[i], 0);
  std::memcpy(p, "0123456789abcdef", 16);
  EXPECT_EQ(GlobalLock(h), p);
  EXPECT_EQ(GlobalFlags(h) & GMEM_LOCKCOUNT, 2u);
  // A locked moveable block keeps its address, so it can't grow.
  EXPECT_EQ(GlobalReAlloc(h, 4096, GMEM_MOVEABLE), nullptr);
  EXPECT_TRUE(GlobalUnlock(h));
  EXPECT_FALSE(GlobalUnlock(h));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(NO_ERROR));
  EXPECT_FALSE(GlobalUnlock(h));  // not locked any more

  ASSERT_EQ(GlobalReAlloc(h, 4096, GMEM_MOVEABLE | GMEM_ZEROINIT), h);
  EXPECT_EQ(GlobalSize(h), 4096u);
  p = static_cast<BYTE*>(GlobalLock(h));
  EXPECT_EQ(std::memcmp(p, "0123456789abcdef", 16), 0);
  EXPECT_EQ(p[16], 0);
  EXPECT_EQ(p[4095], 0);
  GlobalUnlock(h);

  EXPECT_EQ(GlobalFree(h), nullptr);
  EXPECT_EQ(GlobalLock(h), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_EQ(GlobalSize(h), 0u);
  EXPECT_EQ(GlobalFree(h), h);  // a stale handle is refused, not freed twice
}

TEST(GlobalMemory, FixedBlocksAreTheirOwnAddress) {
  HGLOBAL h = GlobalAlloc(GPTR, 8);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(GlobalLock(h), h);
  EXPECT_EQ(GlobalHandle(h), h);
  EXPECT_FALSE(GlobalUnlock(h));
  // A fixed block moves only when allowed; the new handle is the new address.
  EXPECT_EQ(GlobalReAlloc(h, 1 << 20, 0), nullptr);
  HGLOBAL moved = GlobalReAlloc(h, 1 << 20, GMEM_MOVEABLE);
  ASSERT_NE(moved, nullptr);
  EXPECT_EQ(GlobalSize(moved), 1u << 20);
  EXPECT_EQ(GlobalFree(moved), nullptr);

  // A moveable block of size 0 is discarded: it has no address.
  HGLOBAL none = GlobalAlloc(GMEM_MOVEABLE, 0);
  ASSERT_NE(none, nullptr);
  EXPECT_EQ(GlobalLock(none), nullptr);
  EXPECT_NE(GlobalFlags(none) & GMEM_DISCARDED, 0u);
  EXPECT_EQ(GlobalFree(none), nullptr);
  EXPECT_EQ(GlobalFlags(reinterpret_cast<HGLOBAL>(0x1234)), static_cast<UINT>(GMEM_INVALID_HANDLE));
}

TEST(HGlobalStream, WriteSeekReadAndZeroFilledGaps) {
  StreamRef s;
  ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &s.p), S_OK);
  EXPECT_EQ(SizeOf(s.p), 0u);
  Write(s.p, "hello");
  ULARGE_INTEGER pos;
  ASSERT_EQ(s->Seek(Li(10), STREAM_SEEK_SET, &pos), S_OK);
  EXPECT_EQ(pos.QuadPart, 10u);
  EXPECT_EQ(SizeOf(s.p), 5u);  // seeking alone doesn't grow
  Write(s.p, "X");
  EXPECT_EQ(ReadAll(s.p), std::string("hello\0\0\0\0\0X", 11));

  ASSERT_EQ(s->Seek(Li(-3), STREAM_SEEK_END, &pos), S_OK);
  EXPECT_EQ(pos.QuadPart, 8u);
  ASSERT_EQ(s->Seek(Li(1), STREAM_SEEK_CUR, &pos), S_OK);
  EXPECT_EQ(pos.QuadPart, 9u);
  char two[2];
  ULONG got = 0;
  ASSERT_EQ(s->Read(two, 5, &got), S_OK);  // short read at the end is still S_OK
  EXPECT_EQ(got, 2u);
  ASSERT_EQ(s->Read(two, 2, &got), S_OK);
  EXPECT_EQ(got, 0u);

  EXPECT_EQ(s->Seek(Li(-1), STREAM_SEEK_SET, &pos), STG_E_INVALIDFUNCTION);
  EXPECT_EQ(s->Seek(Li(0), 7, &pos), STG_E_INVALIDFUNCTION);
  EXPECT_EQ(s->Read(nullptr, 1, &got), STG_E_INVALIDPOINTER);
  EXPECT_EQ(s->Write(nullptr, 1, &got), STG_E_INVALIDPOINTER);
}

TEST(HGlobalStream, SetSizeShrinksAndGrowsWithZeros) {
  StreamRef s;
  ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &s.p), S_OK);
  Write(s.p, "abcdefgh");
  ASSERT_EQ(s->SetSize(Uli(3)), S_OK);
  EXPECT_EQ(ReadAll(s.p), "abc");
  ASSERT_EQ(s->SetSize(Uli(6)), S_OK);
  EXPECT_EQ(ReadAll(s.p), std::string("abc\0\0\0", 6));  // old bytes don't come back
  ASSERT_EQ(s->SetSize(Uli(0)), S_OK);
  EXPECT_EQ(SizeOf(s.p), 0u);
  s->Seek(Li(0), STREAM_SEEK_SET, nullptr);
  Write(s.p, "again");
  EXPECT_EQ(ReadAll(s.p), "again");
  EXPECT_EQ(s->SetSize(Uli(0x100000000ull)), STG_E_MEDIUMFULL);
}

TEST(HGlobalStream, CopyToAnotherStreamAndToAClone) {
  StreamRef src, dst;
  ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &src.p), S_OK);
  ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &dst.p), S_OK);
  std::string big(200000, 'q');
  big[0] = 'A';
  big[199999] = 'Z';
  Write(src.p, big);
  src->Seek(Li(0), STREAM_SEEK_SET, nullptr);

  ULARGE_INTEGER read, written;
  ASSERT_EQ(src->CopyTo(dst.p, Uli(150000), &read, &written), S_OK);
  EXPECT_EQ(read.QuadPart, 150000u);
  EXPECT_EQ(written.QuadPart, 150000u);
  ASSERT_EQ(src->CopyTo(dst.p, Uli(~0ull), &read, &written), S_OK);  // the rest
  EXPECT_EQ(read.QuadPart, 50000u);
  EXPECT_EQ(ReadAll(dst.p), big);

  // Into a clone of itself: appends a copy of its own beginning.
  StreamRef clone;
  ASSERT_EQ(dst->Clone(&clone.p), S_OK);
  clone->Seek(Li(0), STREAM_SEEK_END, nullptr);
  dst->Seek(Li(0), STREAM_SEEK_SET, nullptr);
  ASSERT_EQ(dst->CopyTo(clone.p, Uli(4), &read, &written), S_OK);
  EXPECT_EQ(ReadAll(dst.p), big + "Aqqq");
  EXPECT_EQ(dst->CopyTo(nullptr, Uli(1), &read, &written), STG_E_INVALIDPOINTER);
}

TEST(HGlobalStream, CloneSharesDataButNotThePosition) {
  StreamRef s, c;
  ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &s.p), S_OK);
  Write(s.p, "0123");
  ASSERT_EQ(s->Clone(&c.p), S_OK);
  ULARGE_INTEGER pos;
  c->Seek(Li(0), STREAM_SEEK_CUR, &pos);
  EXPECT_EQ(pos.QuadPart, 4u);  // starts where the original was
  c->Seek(Li(0), STREAM_SEEK_SET, nullptr);
  Write(c.p, "ab");
  s->Seek(Li(0), STREAM_SEEK_CUR, &pos);
  EXPECT_EQ(pos.QuadPart, 4u);
  Write(s.p, "XY");
  EXPECT_EQ(ReadAll(c.p), "ab23XY");
  EXPECT_EQ(SizeOf(c.p), 6u);

  // The memory lives while any clone does.
  s.p->Release();
  s.p = nullptr;
  EXPECT_EQ(ReadAll(c.p), "ab23XY");
}

TEST(HGlobalStream, StatAndUnsupportedOperations) {
  StreamRef s;
  ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &s.p), S_OK);
  Write(s.p, "abc");
  STATSTG st;
  std::memset(&st, 0xCC, sizeof(st));
  ASSERT_EQ(s->Stat(&st, STATFLAG_DEFAULT), S_OK);
  EXPECT_EQ(st.pwcsName, nullptr);
  EXPECT_EQ(st.type, static_cast<DWORD>(STGTY_STREAM));
  EXPECT_EQ(st.cbSize.QuadPart, 3u);
  EXPECT_EQ(s->Stat(nullptr, STATFLAG_NONAME), STG_E_INVALIDPOINTER);
  EXPECT_EQ(s->Stat(&st, 0x100), STG_E_INVALIDFLAG);
  EXPECT_EQ(s->LockRegion(Uli(0), Uli(1), LOCK_WRITE), STG_E_INVALIDFUNCTION);
  EXPECT_EQ(s->UnlockRegion(Uli(0), Uli(1), LOCK_WRITE), STG_E_INVALIDFUNCTION);
  EXPECT_EQ(s->Commit(STGC_DEFAULT), S_OK);
  EXPECT_EQ(s->Revert(), S_OK);

  ISequentialStream* seq = nullptr;
  ASSERT_EQ(s->QueryInterface(IID_ISequentialStream, reinterpret_cast<void**>(&seq)), S_OK);
  seq->Release();
  IStorage* storage = reinterpret_cast<IStorage*>(1);
  EXPECT_EQ(s->QueryInterface(IID_IStorage, reinterpret_cast<void**>(&storage)), E_NOINTERFACE);
  EXPECT_EQ(storage, nullptr);
}

TEST(HGlobalStream, OverAnExistingBlock) {
  HGLOBAL h = GlobalAlloc(GMEM_MOVEABLE, 4);
  std::memcpy(GlobalLock(h), "data", 4);
  GlobalUnlock(h);
  {
    StreamRef s;
    ASSERT_EQ(CreateStreamOnHGlobal(h, FALSE, &s.p), S_OK);
    EXPECT_EQ(ReadAll(s.p), "data");  // initial contents and size come from the block
    s->Seek(Li(0), STREAM_SEEK_END, nullptr);
    Write(s.p, std::string(1000, 'x'));
    HGLOBAL current = nullptr;
    ASSERT_EQ(GetHGlobalFromStream(s.p, &current), S_OK);
    EXPECT_EQ(current, h);
    EXPECT_GE(GlobalSize(h), 1004u);
    auto* p = static_cast<const char*>(GlobalLock(h));
    EXPECT_EQ(std::string(p, 5), "datax");
    GlobalUnlock(h);
  }
  // Not deleted on release: still ours to free.
  EXPECT_GE(GlobalSize(h), 1004u);
  EXPECT_EQ(GlobalFree(h), nullptr);

  StreamRef owned;
  ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &owned.p), S_OK);
  HGLOBAL inner = nullptr;
  ASSERT_EQ(GetHGlobalFromStream(owned.p, &inner), S_OK);
  owned.p->Release();
  owned.p = nullptr;
  EXPECT_EQ(GlobalFlags(inner), static_cast<UINT>(GMEM_INVALID_HANDLE));  // freed with the stream
}

TEST(HGlobalStream, BadInput) {
  IStream* s = reinterpret_cast<IStream*>(1);
  EXPECT_EQ(CreateStreamOnHGlobal(reinterpret_cast<HGLOBAL>(0x5678), TRUE, &s), E_INVALIDARG);
  EXPECT_EQ(s, nullptr);
  EXPECT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, nullptr), E_INVALIDARG);
  HGLOBAL h;
  EXPECT_EQ(GetHGlobalFromStream(nullptr, &h), E_INVALIDARG);

  // A stream of another kind has no global memory.
  struct Foreign : IStream {
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** ppv) override {
      *ppv = nullptr;
      return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 1; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE Read(void*, ULONG, ULONG*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Write(const void*, ULONG, ULONG*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER, DWORD, ULARGE_INTEGER*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE CopyTo(IStream*, ULARGE_INTEGER, ULARGE_INTEGER*, ULARGE_INTEGER*) override {
      return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE Commit(DWORD) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Revert() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Stat(STATSTG*, DWORD) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Clone(IStream**) override { return E_NOTIMPL; }
  } foreign;
  EXPECT_EQ(GetHGlobalFromStream(&foreign, &h), E_INVALIDARG);
}

TEST(HGlobalStream, ClonesWrittenFromTwoThreads) {
  StreamRef s, c;
  ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &s.p), S_OK);
  ASSERT_EQ(s->Clone(&c.p), S_OK);
  constexpr int kBytes = 4000;
  c->Seek(Li(kBytes), STREAM_SEEK_SET, nullptr);
  auto writer = [](IStream* stream, char ch) {
    for (int i = 0; i < kBytes; ++i) stream->Write(&ch, 1, nullptr);
  };
  std::thread a(writer, s.p, 'a');
  std::thread b(writer, c.p, 'b');
  a.join();
  b.join();
  EXPECT_EQ(ReadAll(s.p), std::string(kBytes, 'a') + std::string(kBytes, 'b'));
}

}  // namespace
