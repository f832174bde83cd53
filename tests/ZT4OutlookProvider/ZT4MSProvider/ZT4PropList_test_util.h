// Shared pieces of the property-list tests: heaps and allocators, memory streams, a stream that
// fails on demand, and a little-endian byte builder for expected stored forms.
#pragma once
#include <gtest/gtest.h>

#include <mapicode.h>
#include <mapix.h>
#include <objbase.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "MemHeap.h"
#include "ZT4PropList.h"

namespace zt4test {

typedef std::vector<BYTE> Bytes;

// Little-endian builder.
class LE {
 public:
  LE& u8(BYTE b) {
    m_bytes.push_back(b);
    return *this;
  }
  LE& u16(WORD w) { return raw(&w, 2); }
  LE& u32(DWORD d) { return raw(&d, 4); }
  LE& u64(ULONGLONG q) { return raw(&q, 8); }
  LE& zeros(size_t n) {
    m_bytes.insert(m_bytes.end(), n, 0);
    return *this;
  }
  LE& raw(const void* pv, size_t cb) {
    const BYTE* p = static_cast<const BYTE*>(pv);
    m_bytes.insert(m_bytes.end(), p, p + cb);
    return *this;
  }
  LE& str(const char* psz) { return raw(psz, strlen(psz) + 1); }
  LE& wstr(const char16_t* psz) { return raw(psz, (std::char_traits<char16_t>::length(psz) + 1) * 2); }
  LE& bytes(const Bytes& b) { return raw(b.data(), b.size()); }
  const Bytes& get() const { return m_bytes; }
  size_t size() const { return m_bytes.size(); }

 private:
  Bytes m_bytes;
};

inline IStream* NewStream(const Bytes& bytes = Bytes()) {
  IStream* pStream = NULL;
  EXPECT_EQ(CreateStreamOnHGlobal(NULL, TRUE, &pStream), S_OK);
  if (!bytes.empty()) {
    ULONG cb = 0;
    EXPECT_EQ(pStream->Write(bytes.data(), ULONG(bytes.size()), &cb), S_OK);
  }
  LARGE_INTEGER li = {};
  pStream->Seek(li, STREAM_SEEK_SET, NULL);
  return pStream;
}

inline ULONGLONG Position(IStream* pStream) {
  LARGE_INTEGER li = {};
  ULARGE_INTEGER pos = {};
  pStream->Seek(li, STREAM_SEEK_CUR, &pos);
  return pos.QuadPart;
}

inline void SeekTo(IStream* pStream, LONGLONG pos) {
  LARGE_INTEGER li;
  li.QuadPart = pos;
  ASSERT_EQ(pStream->Seek(li, STREAM_SEEK_SET, NULL), S_OK);
}

// The stream's whole contents; its position is left at the end.
inline Bytes Contents(IStream* pStream) {
  STATSTG stat = {};
  EXPECT_EQ(pStream->Stat(&stat, STATFLAG_NONAME), S_OK);
  Bytes bytes(size_t(stat.cbSize.QuadPart));
  SeekTo(pStream, 0);
  ULONG cb = 0;
  if (!bytes.empty()) {
    EXPECT_EQ(pStream->Read(bytes.data(), ULONG(bytes.size()), &cb), S_OK);
  }
  EXPECT_EQ(cb, bytes.size());
  return bytes;
}

inline ULONG RefCount(IUnknown* pUnk) {
  ULONG c = pUnk->AddRef();
  pUnk->Release();
  return c - 1;
}

// Wraps a memory stream; fails chosen Write calls (1-based), writes above a size, every Read
// after a number of bytes, or Stat; can report a made-up size.
class CFaultyStream final : public IStream {
 public:
  CFaultyStream() { m_pInner = NewStream(); }
  std::set<int> failWriteCalls;
  ULONG failWritesAbove = 0xFFFFFFFF;
  bool failAllWrites = false;
  bool failSetSize = false;
  bool failStat = false;
  bool failReads = false;
  ULONGLONG fakeSize = 0;  // non-zero: what Stat reports
  int cWrites = 0;

  IStream* Inner() const { return m_pInner; }

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (riid == IID_IUnknown || riid == IID_IStream) {
      *ppv = this;
      AddRef();
      return S_OK;
    }
    *ppv = NULL;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++m_cRef; }
  ULONG STDMETHODCALLTYPE Release() override {
    ULONG c = --m_cRef;
    if (!c) delete this;
    return c;
  }
  HRESULT STDMETHODCALLTYPE Read(void* pv, ULONG cb, ULONG* pcbRead) override {
    return failReads ? STG_E_READFAULT : m_pInner->Read(pv, cb, pcbRead);
  }
  HRESULT STDMETHODCALLTYPE Write(const void* pv, ULONG cb, ULONG* pcbWritten) override {
    ++cWrites;
    if (failAllWrites || failWriteCalls.count(cWrites) || cb > failWritesAbove) return STG_E_WRITEFAULT;
    return m_pInner->Write(pv, cb, pcbWritten);
  }
  HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER d, DWORD o, ULARGE_INTEGER* p) override { return m_pInner->Seek(d, o, p); }
  HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER cb) override {
    return failSetSize ? STG_E_MEDIUMFULL : m_pInner->SetSize(cb);
  }
  HRESULT STDMETHODCALLTYPE CopyTo(IStream* p, ULARGE_INTEGER cb, ULARGE_INTEGER* r, ULARGE_INTEGER* w) override {
    return m_pInner->CopyTo(p, cb, r, w);
  }
  HRESULT STDMETHODCALLTYPE Commit(DWORD f) override { return m_pInner->Commit(f); }
  HRESULT STDMETHODCALLTYPE Revert() override { return m_pInner->Revert(); }
  HRESULT STDMETHODCALLTYPE LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return STG_E_INVALIDFUNCTION; }
  HRESULT STDMETHODCALLTYPE UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override {
    return STG_E_INVALIDFUNCTION;
  }
  HRESULT STDMETHODCALLTYPE Stat(STATSTG* p, DWORD f) override {
    if (failStat) return STG_E_ACCESSDENIED;
    HRESULT hr = m_pInner->Stat(p, f);
    if (fakeSize) p->cbSize.QuadPart = fakeSize;
    return hr;
  }
  HRESULT STDMETHODCALLTYPE Clone(IStream** pp) override { return m_pInner->Clone(pp); }

 private:
  ~CFaultyStream() { m_pInner->Release(); }
  ULONG m_cRef = 1;
  IStream* m_pInner = NULL;
};

// Private heaps and the MAPI allocator for one test.
class PropListTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(ZT4ProcessAttach(reinterpret_cast<HINSTANCE>(this)));
    SetMAPIAllocRoutines(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  }
  void TearDown() override {
    SetMAPIAllocRoutines(NULL, NULL, NULL);
    ZT4ProcessDetach();
  }
};

inline SPropValue Prop(ULONG ulPropTag) {
  SPropValue v;
  memset(&v, 0, sizeof(v));
  v.ulPropTag = ulPropTag;
  return v;
}
inline SPropValue LongProp(ULONG ulPropTag, LONG l) {
  SPropValue v = Prop(ulPropTag);
  v.Value.l = l;
  return v;
}
inline SPropValue StringProp(ULONG ulPropTag, const char* psz) {
  SPropValue v = Prop(ulPropTag);
  v.Value.lpszA = const_cast<LPSTR>(psz);
  return v;
}
inline SPropValue WideProp(ULONG ulPropTag, const WCHAR* psz) {
  SPropValue v = Prop(ulPropTag);
  v.Value.lpszW = const_cast<LPWSTR>(psz);
  return v;
}
inline SPropValue BinProp(ULONG ulPropTag, const BYTE* pb, ULONG cb) {
  SPropValue v = Prop(ulPropTag);
  v.Value.bin.cb = cb;
  v.Value.bin.lpb = const_cast<LPBYTE>(pb);
  return v;
}

inline Bytes Saved(CPropList& list) {
  IStream* pStream = NewStream();
  EXPECT_EQ(list.SaveToStream(pStream), S_OK);
  Bytes bytes = Contents(pStream);
  pStream->Release();
  return bytes;
}

}  // namespace zt4test
