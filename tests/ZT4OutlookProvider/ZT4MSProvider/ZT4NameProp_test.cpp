#include "ZT4NameProp.h"

#include <gtest/gtest.h>

#include <mapicode.h>
#include <mapiguid.h>
#include <mapix.h>
#include <objbase.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "MemHeap.h"
#include "trace_fixture.h"

namespace {

using Bytes = std::vector<BYTE>;

// A property set of our own, so tests don't depend on a well-known GUID's bytes.
const GUID kSetA = {0x11223344, 0x5566, 0x7788, {0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF, 0x01}};
const GUID kSetB = {0xA1A2A3A4, 0xB1B2, 0xC1C2, {0xD1, 0xD2, 0xD3, 0xD4, 0xD5, 0xD6, 0xD7, 0xD8}};

// Builds a named-property stream by hand, field by field, little-endian.
class StreamBuilder {
 public:
  StreamBuilder& U32(ULONG v) {
    for (int i = 0; i < 4; ++i) m_bytes.push_back(BYTE(v >> (8 * i)));
    return *this;
  }
  StreamBuilder& U16(USHORT v) {
    m_bytes.push_back(BYTE(v));
    m_bytes.push_back(BYTE(v >> 8));
    return *this;
  }
  StreamBuilder& Guid(const GUID& g) {
    U32(g.Data1).U16(g.Data2).U16(g.Data3);
    m_bytes.insert(m_bytes.end(), g.Data4, g.Data4 + 8);
    return *this;
  }
  StreamBuilder& IdEntry(const GUID& g, ULONG ulPropID, LONG lID) { return Guid(g).U32(ulPropID).U32(MNID_ID).U32(ULONG(lID)); }
  StreamBuilder& StringEntry(const GUID& g, ULONG ulPropID, const std::u16string& name) {
    Guid(g).U32(ulPropID).U32(MNID_STRING).U32(ULONG((name.size() + 1) * 2));
    for (char16_t c : name) U16(c);
    return U16(0);
  }
  const Bytes& Get() const { return m_bytes; }

 private:
  Bytes m_bytes;
};

LPSTREAM MakeStream(const Bytes& bytes) {
  LPSTREAM pStream = NULL;
  EXPECT_EQ(S_OK, CreateStreamOnHGlobal(NULL, TRUE, &pStream));
  if (!bytes.empty()) {
    EXPECT_EQ(S_OK, pStream->Write(bytes.data(), ULONG(bytes.size()), NULL));
  }
  LARGE_INTEGER liZero = {};
  EXPECT_EQ(S_OK, pStream->Seek(liZero, STREAM_SEEK_SET, NULL));
  return pStream;
}

Bytes StreamBytes(LPSTREAM pStream) {
  STATSTG st = {};
  EXPECT_EQ(S_OK, pStream->Stat(&st, STATFLAG_NONAME));
  Bytes bytes(size_t(st.cbSize.QuadPart));
  LARGE_INTEGER liZero = {};
  pStream->Seek(liZero, STREAM_SEEK_SET, NULL);
  ULONG cbRead = 0;
  if (!bytes.empty()) pStream->Read(bytes.data(), ULONG(bytes.size()), &cbRead);
  EXPECT_EQ(bytes.size(), cbRead);
  return bytes;
}

// Releases a COM stream at scope exit.
struct StreamHolder {
  explicit StreamHolder(LPSTREAM p) : pStream(p) {}
  ~StreamHolder() {
    if (pStream) pStream->Release();
  }
  StreamHolder(const StreamHolder&) = delete;
  StreamHolder& operator=(const StreamHolder&) = delete;
  LPSTREAM operator->() const { return pStream; }
  operator LPSTREAM() const { return pStream; }
  LPSTREAM pStream;
};

// Forwards to a memory stream; fails Write or Commit on request.
class FailingStream : public IStream {
 public:
  explicit FailingStream(LPSTREAM pInner) : m_pInner(pInner) {}
  ~FailingStream() { m_pInner->Release(); }
  HRESULT hrWrite = S_OK;
  HRESULT hrCommit = S_OK;
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
  ULONG STDMETHODCALLTYPE AddRef() override { return 1; }
  ULONG STDMETHODCALLTYPE Release() override { return 1; }
  HRESULT STDMETHODCALLTYPE Read(void* pv, ULONG cb, ULONG* pcb) override { return m_pInner->Read(pv, cb, pcb); }
  HRESULT STDMETHODCALLTYPE Write(const void* pv, ULONG cb, ULONG* pcb) override {
    return FAILED(hrWrite) ? hrWrite : m_pInner->Write(pv, cb, pcb);
  }
  HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER li, DWORD dw, ULARGE_INTEGER* p) override { return m_pInner->Seek(li, dw, p); }
  HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER cb) override { return m_pInner->SetSize(cb); }
  HRESULT STDMETHODCALLTYPE CopyTo(IStream* p, ULARGE_INTEGER cb, ULARGE_INTEGER* r, ULARGE_INTEGER* w) override {
    return m_pInner->CopyTo(p, cb, r, w);
  }
  HRESULT STDMETHODCALLTYPE Commit(DWORD dw) override { return FAILED(hrCommit) ? hrCommit : m_pInner->Commit(dw); }
  HRESULT STDMETHODCALLTYPE Revert() override { return m_pInner->Revert(); }
  HRESULT STDMETHODCALLTYPE LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return STG_E_INVALIDFUNCTION; }
  HRESULT STDMETHODCALLTYPE UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return STG_E_INVALIDFUNCTION; }
  HRESULT STDMETHODCALLTYPE Stat(STATSTG* p, DWORD dw) override { return m_pInner->Stat(p, dw); }
  HRESULT STDMETHODCALLTYPE Clone(IStream**) override { return E_NOTIMPL; }
  LPSTREAM Inner() const { return m_pInner; }

 private:
  LPSTREAM m_pInner;
};

class NamePropTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(ZT4ProcessAttach(reinterpret_cast<HINSTANCE>(this))); }
  void TearDown() override { ZT4ProcessDetach(); }

  static HRESULT Load(CNamePropMgr& mgr, const Bytes& bytes) {
    StreamHolder stream(MakeStream(bytes));
    return mgr.LoadMappingFromStream(stream);
  }
  static Bytes Save(CNamePropMgr& mgr) {
    StreamHolder stream(MakeStream({}));
    EXPECT_EQ(S_OK, mgr.SaveMappingToStream(stream));
    return StreamBytes(stream);
  }
  static ULONG IdOf(CNamePropMgr& mgr, const GUID& g, const char16_t* name, BOOL fCreate = TRUE) {
    ULONG ulID = 0;
    HRESULT hr = mgr.GetIDForName(const_cast<LPGUID>(&g), const_cast<LPWSTR>(name), 0, MNID_STRING, &ulID, fCreate);
    return SUCCEEDED(hr) ? ulID : ULONG(hr);
  }
  static ULONG IdOf(CNamePropMgr& mgr, const GUID& g, LONG lID, BOOL fCreate = TRUE) {
    ULONG ulID = 0;
    HRESULT hr = mgr.GetIDForName(const_cast<LPGUID>(&g), NULL, lID, MNID_ID, &ulID, fCreate);
    return SUCCEEDED(hr) ? ulID : ULONG(hr);
  }
};

TEST_F(NamePropTest, NewStreamStartsAnEmptyMapAtTheFirstNamedID) {
  CNamePropMgr mgr(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  ASSERT_EQ(S_OK, Load(mgr, {}));
  EXPECT_EQ(0x8000u, mgr.GetNextID());
  EXPECT_TRUE(mgr.IsDirty());

  LPSPropTagArray pTags = NULL;
  LPMAPINAMEID* ppNames = NULL;
  ULONG cNames = 99;
  ASSERT_EQ(S_OK, mgr.GetAllNamesAndTags(&pTags, &ppNames, 0, &cNames));
  EXPECT_EQ(0u, cNames);
  EXPECT_EQ(0u, pTags->cValues);
  MAPIFreeBuffer(pTags);
  MAPIFreeBuffer(ppNames);

  // A map without rows is saved as the next-ID word alone: no count follows.
  EXPECT_EQ((Bytes{0x00, 0x80, 0x00, 0x00}), Save(mgr));
  EXPECT_FALSE(mgr.IsDirty());

  // And that four-byte stream loads back as an empty map with its next ID.
  CNamePropMgr again(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  ASSERT_EQ(S_OK, Load(again, StreamBuilder().U32(0x8123).Get()));
  EXPECT_EQ(0x8123u, again.GetNextID());
  EXPECT_FALSE(again.IsDirty());
  EXPECT_EQ(0x8123u, IdOf(again, kSetA, u"First"));
}

TEST_F(NamePropTest, StreamShorterThanOneWordCountsAsNew) {
  // One to three bytes are not an error: the map starts over at 0x8000.
  for (size_t cb = 1; cb < 4; ++cb) {
    CNamePropMgr mgr(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
    ASSERT_EQ(S_OK, Load(mgr, Bytes(cb, 0x7F))) << cb;
    EXPECT_EQ(0x8000u, mgr.GetNextID());
    EXPECT_TRUE(mgr.IsDirty());
  }
}

TEST_F(NamePropTest, SavedStreamMatchesTheFormatByteForByte) {
  CNamePropMgr mgr(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  ASSERT_EQ(S_OK, Load(mgr, {}));
  EXPECT_EQ(0x8000u, IdOf(mgr, PS_PUBLIC_STRINGS, u"Keywords"));
  EXPECT_EQ(0x8001u, IdOf(mgr, kSetA, LONG(0x8501)));
  EXPECT_EQ(0x8002u, IdOf(mgr, PS_PUBLIC_STRINGS, u"TQMetaData"));
  EXPECT_EQ(0x8003u, IdOf(mgr, kSetB, LONG(-2)));
  EXPECT_EQ(0x8004u, IdOf(mgr, kSetB, u""));
  EXPECT_TRUE(mgr.IsDirty());

  Bytes expected = StreamBuilder()
                       .U32(0x8005)
                       .U32(5)
                       .StringEntry(PS_PUBLIC_STRINGS, 0x8000, u"Keywords")
                       .IdEntry(kSetA, 0x8001, 0x8501)
                       .StringEntry(PS_PUBLIC_STRINGS, 0x8002, u"TQMetaData")
                       .IdEntry(kSetB, 0x8003, -2)
                       .StringEntry(kSetB, 0x8004, u"")
                       .Get();
  // The well-known set's GUID lies in the stream as {00020329-0000-0000-C000-000000000046}.
  const BYTE rgPublicStrings[16] = {0x29, 0x03, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00,
                                    0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46};
  ASSERT_GE(expected.size(), 24u);
  EXPECT_EQ(0, memcmp(rgPublicStrings, expected.data() + 8, 16));
  // "Keywords": 9 units with the terminator, 18 bytes.
  EXPECT_EQ(18, expected[8 + 24]);

  Bytes saved = Save(mgr);
  EXPECT_EQ(expected, saved);
  EXPECT_FALSE(mgr.IsDirty());

  // Loaded again, every name keeps its ID, and nothing new is handed out.
  CNamePropMgr loaded(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  ASSERT_EQ(S_OK, Load(loaded, saved));
  EXPECT_FALSE(loaded.IsDirty());
  EXPECT_EQ(0x8005u, loaded.GetNextID());
  EXPECT_EQ(0x8000u, IdOf(loaded, PS_PUBLIC_STRINGS, u"Keywords", FALSE));
  EXPECT_EQ(0x8001u, IdOf(loaded, kSetA, LONG(0x8501), FALSE));
  EXPECT_EQ(0x8002u, IdOf(loaded, PS_PUBLIC_STRINGS, u"TQMetaData", FALSE));
  EXPECT_EQ(0x8003u, IdOf(loaded, kSetB, LONG(-2), FALSE));
  EXPECT_EQ(0x8004u, IdOf(loaded, kSetB, u"", FALSE));
  EXPECT_EQ(saved, Save(loaded));

  // The next new name continues behind the loaded ones.
  EXPECT_EQ(0x8005u, IdOf(loaded, kSetA, u"OrigPathInfo"));
}

TEST_F(NamePropTest, SaveRewritesTheStreamItWasLoadedFrom) {
  CNamePropMgr mgr(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  StreamHolder stream(MakeStream(StreamBuilder().U32(0x8001).U32(1).IdEntry(kSetA, 0x8000, 7).Get()));
  ASSERT_EQ(S_OK, mgr.LoadMappingFromStream(stream));
  EXPECT_EQ(0x8001u, IdOf(mgr, kSetA, u"Stub Info"));
  // The stream's position is at its end after the load; the save still starts at offset 0.
  ASSERT_EQ(S_OK, mgr.SaveMappingToStream(stream));
  EXPECT_EQ(StreamBuilder().U32(0x8002).U32(2).IdEntry(kSetA, 0x8000, 7).StringEntry(kSetA, 0x8001, u"Stub Info").Get(),
            StreamBytes(stream));
}

TEST_F(NamePropTest, LookupsMatchSetKindAndExactName) {
  CNamePropMgr mgr(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  ASSERT_EQ(S_OK, Load(mgr, {}));
  ULONG ulFirst = IdOf(mgr, kSetA, u"HideAttachments");
  EXPECT_EQ(0x8000u, ulFirst);
  // A second request gives the same ID and does not move the counter.
  EXPECT_EQ(ulFirst, IdOf(mgr, kSetA, u"HideAttachments"));
  EXPECT_EQ(0x8001u, mgr.GetNextID());
  // The same text under another set is another name.
  EXPECT_EQ(0x8001u, IdOf(mgr, kSetB, u"HideAttachments"));
  // Names compare unit by unit: case matters, as does a longer text with the same start.
  EXPECT_EQ(0x8002u, IdOf(mgr, kSetA, u"hideattachments"));
  EXPECT_EQ(0x8003u, IdOf(mgr, kSetA, u"HideAttachmentsX"));
  // A numeric name never meets a string name, nor a numeric name of another set.
  EXPECT_EQ(0x8004u, IdOf(mgr, kSetA, LONG(0x8000)));
  EXPECT_EQ(0x8005u, IdOf(mgr, kSetB, LONG(0x8000)));
  EXPECT_EQ(0x8004u, IdOf(mgr, kSetA, LONG(0x8000)));
  // Text that only differs past a surrogate pair, and unpaired surrogates, stay apart.
  const char16_t szPairA[] = {0xD83D, 0xDE00, u'a', 0};
  const char16_t szPairB[] = {0xD83D, 0xDE00, u'b', 0};
  const char16_t szLoneA[] = {0xD800, 0};
  const char16_t szLoneB[] = {0xDC00, 0};
  EXPECT_EQ(0x8006u, IdOf(mgr, kSetA, szPairA));
  EXPECT_EQ(0x8007u, IdOf(mgr, kSetA, szPairB));
  EXPECT_EQ(0x8008u, IdOf(mgr, kSetA, szLoneA));
  EXPECT_EQ(0x8009u, IdOf(mgr, kSetA, szLoneB));
  EXPECT_EQ(0x8006u, IdOf(mgr, kSetA, szPairA, FALSE));
  EXPECT_EQ(0x8008u, IdOf(mgr, kSetA, szLoneA, FALSE));
  EXPECT_EQ(0x8009u, IdOf(mgr, kSetA, szLoneB, FALSE));
  EXPECT_EQ(0x8002u, IdOf(mgr, kSetA, u"hideattachments", FALSE));
}

TEST_F(NamePropTest, UnknownNameWithoutCreateIsNotFoundAndUnlogged) {
  zt4test::TraceLog log(5);
  CNamePropMgr mgr(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  ASSERT_EQ(S_OK, Load(mgr, StreamBuilder().U32(0x8000).Get()));
  EXPECT_EQ(ULONG(MAPI_E_NOT_FOUND), IdOf(mgr, kSetA, u"Nobody", FALSE));
  EXPECT_EQ(ULONG(MAPI_E_NOT_FOUND), IdOf(mgr, kSetA, LONG(3), FALSE));
  EXPECT_EQ(0x8000u, mgr.GetNextID());
  EXPECT_FALSE(mgr.IsDirty());
  EXPECT_FALSE(log.Has("CNamePropMgr::GetIDForName:"));
  EXPECT_FALSE(log.Has("failed"));
}

TEST_F(NamePropTest, UsedUpRangeRefusesNewNamesButFindsOldOnes) {
  zt4test::TraceLog log(5);
  CNamePropMgr mgr(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  Bytes full = StreamBuilder().U32(65535).U32(1).StringEntry(kSetA, 0xFFFE, u"Last").Get();
  ASSERT_EQ(S_OK, Load(mgr, full));
  EXPECT_EQ(ULONG(MAPI_E_NOT_ENOUGH_RESOURCES), IdOf(mgr, kSetA, u"OneTooMany"));
  EXPECT_EQ(ULONG(MAPI_E_NOT_ENOUGH_RESOURCES), IdOf(mgr, kSetA, LONG(1)));
  EXPECT_TRUE(log.Has("CNamePropMgr::GetIDForName:8004010e"));
  EXPECT_EQ(0xFFFEu, IdOf(mgr, kSetA, u"Last"));
  EXPECT_EQ(65535u, mgr.GetNextID());
  EXPECT_FALSE(mgr.IsDirty());
  // No row was made for the refused names.
  EXPECT_EQ(full, Save(mgr));

  // The last ID of the range, 0xFFFE, is still handed out.
  CNamePropMgr almost(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  ASSERT_EQ(S_OK, Load(almost, StreamBuilder().U32(0xFFFE).Get()));
  EXPECT_EQ(0xFFFEu, IdOf(almost, kSetB, u"Final"));
  EXPECT_EQ(ULONG(MAPI_E_NOT_ENOUGH_RESOURCES), IdOf(almost, kSetB, u"Beyond"));
}

TEST_F(NamePropTest, MapMustBeLoadedFirst) {
  zt4test::TraceLog log(5);
  CNamePropMgr mgr(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  EXPECT_EQ(ULONG(MAPI_E_NOT_INITIALIZED), IdOf(mgr, kSetA, u"Early"));
  EXPECT_TRUE(log.Has("CNamePropMgr::GetTableView: The mapping has not been loaded yet"));
  EXPECT_TRUE(log.Has("CNamePropMgr::GetIDForName:80040605"));
  StreamHolder stream(MakeStream({}));
  EXPECT_EQ(MAPI_E_NOT_INITIALIZED, mgr.SaveMappingToStream(stream));
  EXPECT_TRUE(log.Has("CNamePropMgr::SaveMappingToStream:80040605"));
  EXPECT_TRUE(StreamBytes(stream).empty());
}

TEST_F(NamePropTest, NullStreamAssertsAndFails) {
  zt4test::TraceLog log(5);
  CNamePropMgr mgr(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  EXPECT_EQ(E_INVALIDARG, mgr.LoadMappingFromStream(NULL));
  EXPECT_TRUE(log.Has("Where is the stream I asked for?"));
  EXPECT_TRUE(log.Has("CNamePropMgr::LoadMappingFromStream:80070057"));
  ASSERT_EQ(S_OK, Load(mgr, {}));
  EXPECT_EQ(E_INVALIDARG, mgr.SaveMappingToStream(NULL));
  EXPECT_TRUE(log.Has("CNamePropMgr::SaveMappingToStream:80070057"));
}

TEST_F(NamePropTest, BadArgumentsAreRefused) {
  CNamePropMgr mgr(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  ASSERT_EQ(S_OK, Load(mgr, {}));
  ULONG ulID = 1;
  GUID g = kSetA;
  EXPECT_EQ(E_INVALIDARG, mgr.GetIDForName(NULL, const_cast<LPWSTR>(u"x"), 0, MNID_STRING, &ulID, TRUE));
  EXPECT_EQ(0u, ulID);
  EXPECT_EQ(E_INVALIDARG, mgr.GetIDForName(&g, NULL, 0, MNID_STRING, &ulID, TRUE));
  EXPECT_EQ(MAPI_E_INVALID_PARAMETER, mgr.GetIDForName(&g, const_cast<LPWSTR>(u"x"), 0, 2, &ulID, TRUE));
  EXPECT_EQ(E_INVALIDARG, mgr.GetIDForName(&g, NULL, 5, MNID_ID, NULL, TRUE));
  EXPECT_EQ(0x8000u, mgr.GetNextID());
}

// Every prefix of a good stream: short of one word it is a new map; the word alone is an empty
// map; anything between that and the end is damaged, and then no map is left loaded.
TEST_F(NamePropTest, StreamTruncatedAtEveryOffset) {
  Bytes good = StreamBuilder()
                   .U32(0x8003)
                   .U32(3)
                   .StringEntry(kSetA, 0x8000, u"Alpha")
                   .IdEntry(kSetB, 0x8001, 42)
                   .StringEntry(kSetB, 0x8002, u"Omega")
                   .Get();
  for (size_t cb = 0; cb <= good.size(); ++cb) {
    CNamePropMgr mgr(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
    HRESULT hr = Load(mgr, Bytes(good.begin(), good.begin() + cb));
    if (cb < 4) {
      EXPECT_EQ(S_OK, hr) << cb;
      EXPECT_EQ(0x8000u, mgr.GetNextID());
    } else if (cb == 4) {
      EXPECT_EQ(S_OK, hr);
      EXPECT_EQ(0x8003u, mgr.GetNextID());
      EXPECT_EQ(ULONG(MAPI_E_NOT_FOUND), IdOf(mgr, kSetA, u"Alpha", FALSE));
    } else if (cb < good.size()) {
      EXPECT_EQ(MAPI_E_CORRUPT_DATA, hr) << cb;
      EXPECT_EQ(ULONG(MAPI_E_NOT_INITIALIZED), IdOf(mgr, kSetA, u"Alpha", FALSE)) << cb;
    } else {
      ASSERT_EQ(S_OK, hr);
      EXPECT_EQ(0x8002u, IdOf(mgr, kSetB, u"Omega", FALSE));
    }
  }
}

TEST_F(NamePropTest, HostileStreamsAreCorruptData) {
  auto header = [](ULONG ulNext, ULONG cEntries) { return StreamBuilder().U32(ulNext).U32(cEntries); };
  auto stringHead = [](StreamBuilder b, ULONG ulID, ULONG cbName) {
    return b.Guid(kSetA).U32(ulID).U32(MNID_STRING).U32(cbName);
  };
  struct Case {
    const char* what;
    Bytes bytes;
  };
  std::vector<Case> cases = {
      {"huge count", header(0x8002, 0xFFFFFFFF).IdEntry(kSetA, 0x8000, 1).Get()},
      {"count beyond entries", header(0x8010, 5).IdEntry(kSetA, 0x8000, 1).Get()},
      {"count beyond the ID range", header(0x8001, 2).IdEntry(kSetA, 0x8000, 1).IdEntry(kSetA, 0x8000, 2).Get()},
      {"huge name size", stringHead(header(0x8001, 1), 0x8000, 0x7FFFFFFF).U16('a').U16(0).Get()},
      {"negative name size", stringHead(header(0x8001, 1), 0x8000, 0xFFFFFFFE).U16('a').U16(0).Get()},
      {"zero name size", stringHead(header(0x8001, 1), 0x8000, 0).Get()},
      {"odd name size", stringHead(header(0x8001, 1), 0x8000, 3).U16('a').U16(0).Get()},
      {"name without terminator", stringHead(header(0x8001, 1), 0x8000, 4).U16('a').U16('b').Get()},
      {"name with an inner NUL", stringHead(header(0x8001, 1), 0x8000, 6).U16('a').U16(0).U16(0).Get()},
      {"unknown kind", header(0x8001, 1).Guid(kSetA).U32(0x8000).U32(2).U32(0).Get()},
      {"kind with high bits", header(0x8001, 1).Guid(kSetA).U32(0x8000).U32(0x80000001).U32(0).Get()},
      {"ID below the range", header(0x8001, 1).IdEntry(kSetA, 0x7FFF, 1).Get()},
      {"ID at the next ID", header(0x8001, 1).IdEntry(kSetA, 0x8001, 1).Get()},
      {"ID far out", header(0x8001, 1).IdEntry(kSetA, 0xFFFFFFFF, 1).Get()},
      {"ID mapped twice", header(0x8002, 2).IdEntry(kSetA, 0x8000, 1).StringEntry(kSetB, 0x8000, u"x").Get()},
      {"next ID below the range", header(0x7FFF, 0).Get()},
      {"next ID past the range", header(0x10000, 0).Get()},
      {"next ID huge", header(0xFFFFFFFF, 1).IdEntry(kSetA, 0x8000, 1).Get()},
      {"count cut short", StreamBuilder().U32(0x8001).U16(1).Get()},
  };
  zt4test::TraceLog log(5);
  for (const Case& c : cases) {
    CNamePropMgr mgr(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
    EXPECT_EQ(MAPI_E_CORRUPT_DATA, Load(mgr, c.bytes)) << c.what;
    EXPECT_EQ(ULONG(MAPI_E_NOT_INITIALIZED), IdOf(mgr, kSetA, LONG(1), FALSE)) << c.what;
  }
  EXPECT_TRUE(log.Has("CNamePropMgr::LoadMappingFromStream:8004011b"));
}

TEST_F(NamePropTest, TrailingBytesAfterTheEntriesAreIgnored) {
  Bytes bytes = StreamBuilder().U32(0x8001).U32(1).IdEntry(kSetA, 0x8000, 9).U32(0xDEADBEEF).Get();
  CNamePropMgr mgr(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  ASSERT_EQ(S_OK, Load(mgr, bytes));
  EXPECT_EQ(0x8000u, IdOf(mgr, kSetA, LONG(9), FALSE));
}

TEST_F(NamePropTest, LoadingAgainReplacesTheMap) {
  CNamePropMgr mgr(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  ASSERT_EQ(S_OK, Load(mgr, StreamBuilder().U32(0x8001).U32(1).StringEntry(kSetA, 0x8000, u"Old").Get()));
  ASSERT_EQ(S_OK, Load(mgr, StreamBuilder().U32(0x8002).U32(1).StringEntry(kSetA, 0x8001, u"New").Get()));
  EXPECT_EQ(ULONG(MAPI_E_NOT_FOUND), IdOf(mgr, kSetA, u"Old", FALSE));
  EXPECT_EQ(0x8001u, IdOf(mgr, kSetA, u"New", FALSE));
  EXPECT_EQ(0x8002u, mgr.GetNextID());
  // A damaged stream leaves nothing of either behind.
  ASSERT_EQ(MAPI_E_CORRUPT_DATA, Load(mgr, StreamBuilder().U32(0x8001).U32(1).U32(0).Get()));
  EXPECT_EQ(ULONG(MAPI_E_NOT_INITIALIZED), IdOf(mgr, kSetA, u"New", FALSE));
}

TEST_F(NamePropTest, StreamFailureOnSaveKeepsTheTable) {
  zt4test::TraceLog log(5);
  CNamePropMgr mgr(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  ASSERT_EQ(S_OK, Load(mgr, {}));
  EXPECT_EQ(0x8000u, IdOf(mgr, kSetA, u"Kept"));

  FailingStream writeFails(MakeStream({}));
  writeFails.hrWrite = STG_E_MEDIUMFULL;
  EXPECT_EQ(STG_E_MEDIUMFULL, mgr.SaveMappingToStream(&writeFails));
  EXPECT_TRUE(log.Has("CNamePropMgr::SaveMappingToStream:80030070"));
  EXPECT_TRUE(mgr.IsDirty());

  FailingStream commitFails(MakeStream({}));
  commitFails.hrCommit = STG_E_ACCESSDENIED;
  EXPECT_EQ(STG_E_ACCESSDENIED, mgr.SaveMappingToStream(&commitFails));
  EXPECT_TRUE(mgr.IsDirty());

  // The map is still there and saves once the stream works.
  EXPECT_EQ(0x8000u, IdOf(mgr, kSetA, u"Kept", FALSE));
  EXPECT_EQ(StreamBuilder().U32(0x8001).U32(1).StringEntry(kSetA, 0x8000, u"Kept").Get(), Save(mgr));
  EXPECT_FALSE(mgr.IsDirty());
}

TEST_F(NamePropTest, ManyNamesCrossTheReadBatches) {
  CNamePropMgr mgr(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  ASSERT_EQ(S_OK, Load(mgr, {}));
  StreamBuilder expected;
  const ULONG cNames = 61;
  expected.U32(0x8000 + cNames).U32(cNames);
  for (ULONG i = 0; i < cNames; ++i) {
    if (i % 2) {
      ASSERT_EQ(0x8000 + i, IdOf(mgr, kSetB, LONG(i)));
      expected.IdEntry(kSetB, 0x8000 + i, LONG(i));
    } else {
      std::u16string name = u"Name" + std::u16string(1, char16_t(u'A' + i % 26)) + std::u16string(i / 26 + 1, u'z');
      ASSERT_EQ(0x8000 + i, IdOf(mgr, kSetA, name.c_str()));
      expected.StringEntry(kSetA, 0x8000 + i, name);
    }
  }
  Bytes saved = Save(mgr);
  EXPECT_EQ(expected.Get(), saved);

  CNamePropMgr loaded(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  ASSERT_EQ(S_OK, Load(loaded, saved));
  LPSPropTagArray pTags = NULL;
  LPMAPINAMEID* ppNames = NULL;
  ULONG cOut = 0;
  ASSERT_EQ(S_OK, loaded.GetAllNamesAndTags(&pTags, &ppNames, 0, &cOut));
  ASSERT_EQ(cNames, cOut);
  for (ULONG i = 0; i < cNames; ++i) EXPECT_EQ(PROP_TAG(PT_UNSPECIFIED, 0x8000 + i), pTags->aulPropTag[i]);
  MAPIFreeBuffer(pTags);
  MAPIFreeBuffer(ppNames);
}

TEST_F(NamePropTest, NamesFromIDs) {
  CNamePropMgr mgr(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  ASSERT_EQ(S_OK, Load(mgr, {}));
  ASSERT_EQ(0x8000u, IdOf(mgr, PS_PUBLIC_STRINGS, u"Keywords"));
  ASSERT_EQ(0x8001u, IdOf(mgr, kSetA, LONG(-7)));

  // Chained to a caller's block: one free releases them all (the leak checker watches).
  LPVOID pBlock = NULL;
  ASSERT_EQ(S_OK, MAPIAllocateBuffer(16, &pBlock));
  LPMAPINAMEID pName = NULL;
  ASSERT_EQ(S_OK, mgr.GetNameFromID(PROP_TAG(PT_MV_UNICODE, 0x8000), pBlock, &pName));
  EXPECT_TRUE(IsEqualGUID(PS_PUBLIC_STRINGS, *pName->lpguid));
  EXPECT_EQ(ULONG(MNID_STRING), pName->ulKind);
  EXPECT_EQ(std::u16string(u"Keywords"), std::u16string(pName->Kind.lpwstrName));
  ASSERT_EQ(S_OK, mgr.GetNameFromID(PROP_TAG(PT_LONG, 0x8001), pBlock, &pName));
  EXPECT_TRUE(IsEqualGUID(kSetA, *pName->lpguid));
  EXPECT_EQ(ULONG(MNID_ID), pName->ulKind);
  EXPECT_EQ(-7, pName->Kind.lID);
  // Below the named range, a tag's name is its own ID in PS_MAPI.
  ASSERT_EQ(S_OK, mgr.GetNameFromID(PR_SUBJECT_W, pBlock, &pName));
  EXPECT_TRUE(IsEqualGUID(PS_MAPI, *pName->lpguid));
  EXPECT_EQ(ULONG(MNID_ID), pName->ulKind);
  EXPECT_EQ(LONG(PROP_ID(PR_SUBJECT_W)), pName->Kind.lID);
  MAPIFreeBuffer(pBlock);

  // Without a block the name is a block of its own.
  ASSERT_EQ(S_OK, mgr.GetNameFromID(PROP_TAG(PT_LONG, 0x8000), NULL, &pName));
  EXPECT_EQ(std::u16string(u"Keywords"), std::u16string(pName->Kind.lpwstrName));
  MAPIFreeBuffer(pName);

  zt4test::TraceLog log(5);
  EXPECT_EQ(MAPI_E_NOT_FOUND, mgr.GetNameFromID(PROP_TAG(PT_LONG, 0x9000), NULL, &pName));
  EXPECT_EQ(nullptr, pName);
  EXPECT_FALSE(log.Has("CNamePropMgr::GetNameFromID:"));
}

TEST_F(NamePropTest, MAPINamesOfTags) {
  CNamePropMgr mgr(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  SizedSPropTagArray(4, tags) = {4, {PR_SUBJECT_W, PROP_TAG(PT_LONG, 0x8000), PR_BODY_W, PROP_TAG(PT_LONG, 0xFFFE)}};
  LPSPropTagArray pTags = NULL;
  LPMAPINAMEID* ppNames = NULL;
  ULONG cNames = 0;
  ASSERT_EQ(S_OK, mgr.GetMAPINamedPropsAndTags((LPSPropTagArray)&tags, &pTags, &ppNames, &cNames));
  ASSERT_EQ(2u, cNames);
  ASSERT_EQ(2u, pTags->cValues);
  EXPECT_EQ(ULONG(PR_SUBJECT_W), pTags->aulPropTag[0]);
  EXPECT_EQ(ULONG(PR_BODY_W), pTags->aulPropTag[1]);
  for (ULONG i = 0; i < 2; ++i) {
    EXPECT_TRUE(IsEqualGUID(PS_MAPI, *ppNames[i]->lpguid));
    EXPECT_EQ(ULONG(MNID_ID), ppNames[i]->ulKind);
    EXPECT_EQ(LONG(PROP_ID(pTags->aulPropTag[i])), ppNames[i]->Kind.lID);
  }
  MAPIFreeBuffer(pTags);
  MAPIFreeBuffer(ppNames);

  ASSERT_EQ(S_OK, mgr.GetMAPINamedPropsAndTags(NULL, &pTags, &ppNames, &cNames));
  EXPECT_EQ(0u, cNames);
  EXPECT_EQ(0u, pTags->cValues);
  MAPIFreeBuffer(pTags);
  MAPIFreeBuffer(ppNames);
}

TEST_F(NamePropTest, AllNamesHonourTheKindFlags) {
  CNamePropMgr mgr(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  ASSERT_EQ(S_OK, Load(mgr, {}));
  ASSERT_EQ(0x8000u, IdOf(mgr, kSetA, u"One"));
  ASSERT_EQ(0x8001u, IdOf(mgr, kSetA, LONG(2)));
  ASSERT_EQ(0x8002u, IdOf(mgr, kSetB, u"Three"));
  struct Expect {
    ULONG ulFlags;
    std::vector<ULONG> ids;
  };
  for (const Expect& e : {Expect{0, {0x8000, 0x8001, 0x8002}}, Expect{MAPI_NO_IDS, {0x8000, 0x8002}},
                          Expect{MAPI_NO_STRINGS, {0x8001}}, Expect{MAPI_NO_IDS | MAPI_NO_STRINGS, {}}}) {
    LPSPropTagArray pTags = NULL;
    LPMAPINAMEID* ppNames = NULL;
    ULONG cNames = 0;
    ASSERT_EQ(S_OK, mgr.GetAllNamesAndTags(&pTags, &ppNames, e.ulFlags, &cNames));
    ASSERT_EQ(e.ids.size(), cNames) << e.ulFlags;
    for (ULONG i = 0; i < cNames; ++i) {
      EXPECT_EQ(PROP_TAG(PT_UNSPECIFIED, e.ids[i]), pTags->aulPropTag[i]);
      EXPECT_EQ(e.ids[i] == 0x8001 ? ULONG(MNID_ID) : ULONG(MNID_STRING), ppNames[i]->ulKind);
    }
    if (e.ulFlags == 0) {
      EXPECT_EQ(std::u16string(u"Three"), std::u16string(ppNames[2]->Kind.lpwstrName));
      EXPECT_TRUE(IsEqualGUID(kSetB, *ppNames[2]->lpguid));
      EXPECT_EQ(2, ppNames[1]->Kind.lID);
    }
    MAPIFreeBuffer(pTags);
    MAPIFreeBuffer(ppNames);
  }

  CNamePropMgr unloaded(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  LPSPropTagArray pTags = NULL;
  LPMAPINAMEID* ppNames = NULL;
  ULONG cNames = 5;
  EXPECT_EQ(MAPI_E_NOT_INITIALIZED, unloaded.GetAllNamesAndTags(&pTags, &ppNames, 0, &cNames));
  EXPECT_EQ(nullptr, pTags);
  EXPECT_EQ(nullptr, ppNames);
  EXPECT_EQ(0u, cNames);
}

TEST_F(NamePropTest, ConcurrentRequestsAgreeOnEachID) {
  CNamePropMgr mgr(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  ASSERT_EQ(S_OK, Load(mgr, {}));
  const int cThreads = 4;
  const int cNames = 60;
  std::vector<std::vector<ULONG>> ids(cThreads, std::vector<ULONG>(cNames));
  std::atomic<int> cFailures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < cThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int n = 0; n < cNames; ++n) {
        // Each thread walks all the names in its own order (steps prime to the count).
        const int rgStep[cThreads] = {7, 11, 13, 17};
        int k = (n * rgStep[t] + t) % cNames;
        std::u16string name = u"N" + std::u16string(1, char16_t(u'0' + k % 10)) + std::u16string(k / 10 + 1, u'x');
        ULONG ulID = 0;
        if (mgr.GetIDForName(const_cast<LPGUID>(&kSetA), const_cast<LPWSTR>(name.c_str()), 0, MNID_STRING, &ulID,
                             TRUE) != S_OK)
          ++cFailures;
        ids[t][k] = ulID;
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(0, cFailures.load());
  EXPECT_EQ(ULONG(0x8000 + cNames), mgr.GetNextID());
  std::vector<bool> seen(cNames, false);
  for (int k = 0; k < cNames; ++k) {
    for (int t = 1; t < cThreads; ++t) EXPECT_EQ(ids[0][k], ids[t][k]) << k;
    ASSERT_GE(ids[0][k], 0x8000u);
    ASSERT_LT(ids[0][k], ULONG(0x8000 + cNames));
    EXPECT_FALSE(seen[ids[0][k] - 0x8000]);
    seen[ids[0][k] - 0x8000] = true;
  }
}

}  // namespace
