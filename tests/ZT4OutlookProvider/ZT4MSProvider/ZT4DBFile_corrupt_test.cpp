// Damaged store files: each gives its error or a bounded partial result, never a crash, a hang
// or an unbounded allocation.
#include "ZT4DBFile.h"

#include <gtest/gtest.h>

#include <random>

#include "ZT4DBFile_testutil.h"
#include "trace_fixture.h"

using namespace dbtest;

namespace {

constexpr DWORD Node(DWORD i) { return OFFSET_FIRST_DATA_NODE + NODE_SIZE * i; }
constexpr DWORD kIndexCount = OFFSET_FIRST_INDEX_RECORD + 4;
constexpr DWORD kIndexNext = OFFSET_FIRST_INDEX_RECORD + 12;
constexpr DWORD kPoolCount = OFFSET_FIRST_FREE_NODE + 4;
constexpr DWORD kPoolNext = OFFSET_FIRST_FREE_NODE + 12;
constexpr DWORD kPoolSlots = OFFSET_FIRST_FREE_NODE + 16;
constexpr DWORD kNextNode = OFFSET_FREENODES_HEADER + 4;
constexpr DWORD kEntry1Props = OFFSET_FIRST_INDEX_RECORD + 16 + 4;  // record 1, field 0 start

// The small real file every case damages:
//   record 1: field 0 on nodes 0-1-2, field 1 on node 3; record 2: field 0 on node 4;
//   record 3: field 0 on node 5, shrunk from 5-6-7, so the pool holds 6 and 7.
class CorruptTest : public HeapsFixture {
 protected:
  void SetUp() override {
    HeapsFixture::SetUp();
    Session db;
    ASSERT_EQ(db.Create(m_dir.Store("base.CST")), S_OK);
    ASSERT_EQ(db.PutNew(Pattern(5000)), 1u);
    ASSERT_EQ(db.Put(1, RECFLD_CONTENTS, "contents"), S_OK);
    ASSERT_EQ(db.PutNew("two"), 2u);
    ASSERT_EQ(db.PutNew(Pattern(5000)), 3u);
    ASSERT_EQ(db.Put(3, RECFLD_PROPERTIES, "three"), S_OK);
    db.Close();
    m_base = ReadBytes(m_dir.Native("base.CST"));
    ASSERT_EQ(m_base.size(), Node(8));
    ASSERT_EQ(PoolOffsets(NodeAt(m_base, OFFSET_FIRST_FREE_NODE)), (std::vector<DWORD>{Node(6), Node(7)}));
  }

  // Writes a damaged copy and opens it.
  HRESULT OpenDamaged(const Bytes& bytes, Session& db) {
    WriteBytes(m_dir.Native(), bytes);
    return db.Open(m_dir.Store());
  }
  Bytes With(DWORD off, DWORD value) const {
    Bytes bytes = m_base;
    PutDword(bytes, off, value);
    return bytes;
  }
  HRESULT FirstRead(const Bytes& bytes, DWORD id = 1, RECFLD rf = RECFLD_PROPERTIES) {
    Session db;
    HRESULT hr = OpenDamaged(bytes, db);
    if (FAILED(hr)) return hr;
    std::string data;
    return db.Get(id, rf, &data);
  }

  // Everything a store does, on whatever the file holds: it must only end.
  void Workload(const Bytes& bytes) {
    Session db;
    if (FAILED(OpenDamaged(bytes, db))) return;
    std::string data;
    for (DWORD id = 1; id <= 3; ++id)
      for (ULONG rf = 0; rf < RECFLD_COUNT; ++rf) db.Get(id, static_cast<RECFLD>(rf), &data);
    db.PutNew(Pattern(5000, 9));
    db.Put(1, RECFLD_PROPERTIES, Pattern(7000, 8));
    db.Put(2, RECFLD_NAMES, "names");
    db.Get(1, RECFLD_PROPERTIES, &data);
    db->DeleteRecord(2);
    db->DeleteRecord(3);
    DWORD id = 0;
    db->CreateEmptyRecord(&id);
    db.Close();
    Bytes after = ReadBytes(m_dir.Native());
    EXPECT_LE(after.size(), std::max<size_t>(bytes.size(), Node(8)) + 16 * NODE_SIZE) << "bounded growth";
    if (after.size() >= 4) {
      EXPECT_EQ(GetDword(after, 0), GetDword(bytes, 0)) << "the file header is never overwritten";
    }
  }

  ScratchDir m_dir;
  Bytes m_base;
};

TEST_F(CorruptTest, BaseFileWorks) {
  EXPECT_EQ(FirstRead(m_base), S_OK);
  Workload(m_base);
  Session db;
  ASSERT_EQ(db.Open(m_dir.Store()), S_OK);
  std::string data;
  ASSERT_EQ(db.Get(1, RECFLD_PROPERTIES, &data), S_OK);
  EXPECT_EQ(data, Pattern(7000, 8));
  EXPECT_EQ(db.Get(2, RECFLD_PROPERTIES, &data), MAPI_E_NOT_FOUND);
}

TEST_F(CorruptTest, WrongVersionAndTruncation) {
  for (DWORD version : {0u, 2u, 0xFFFFFFFFu}) EXPECT_EQ(FirstRead(With(0, version)), MAPI_E_VERSION);
  EXPECT_EQ(FirstRead(Bytes()), MAPI_E_VERSION);

  // Cut anywhere behind the first byte (a short header read leaves zeros, so a lone 1 is still
  // version 1): the open works, and what lies behind the end is corrupt.
  for (size_t cb : {1, 3, 100, 152, 300, 600, 2000, 2576, 3000, 4640, 5000, 7000, 8000, 10000}) {
    Bytes cut(m_base.begin(), m_base.begin() + cb);
    HRESULT hr = FirstRead(cut);
    EXPECT_EQ(hr, MAPI_E_CORRUPT_DATA) << cb;
    Workload(cut);
  }
  // Record 2 lies wholly before the cut.
  EXPECT_EQ(FirstRead(Bytes(m_base.begin(), m_base.begin() + Node(5)), 2), S_OK);
}

TEST_F(CorruptTest, AllocationHeader) {
  for (DWORD value : {0u, 1u, 4641u, Node(8) + 1, Node(9), Node(100), 0x7FFFFFF0u, 0xFFFFFFFFu}) {
    Session db;
    ASSERT_EQ(OpenDamaged(With(kNextNode, value), db), S_OK);
    DWORD id = 0;
    EXPECT_EQ(db->CreateEmptyRecord(&id), MAPI_E_CORRUPT_DATA) << value;
    IStream* pStream = NULL;
    EXPECT_EQ(db.NewRecord(&id, &pStream), MAPI_E_CORRUPT_DATA) << value;
    std::string data;
    EXPECT_EQ(db.Get(2, RECFLD_PROPERTIES, &data), S_OK) << "reading needs no allocation";
    EXPECT_EQ(data, "two");
    db.Close();
    EXPECT_EQ(ReadBytes(m_dir.Native()).size(), Node(8));
  }

  // A next ID of 0 is asserted and handed out: the operation goes on.
  zt4test::TraceLog log(5);
  Session db;
  ASSERT_EQ(OpenDamaged(With(OFFSET_FREENODES_HEADER, 0), db), S_OK);
  DWORD id = 99;
  EXPECT_EQ(db->CreateEmptyRecord(&id), S_OK);
  EXPECT_EQ(id, 0u);
  EXPECT_TRUE(log.Has("Assertion failed in File: "));
  EXPECT_EQ(HeaderOf(ReadBytes(m_dir.Native())).dwNextRecordID, 1u);
}

TEST_F(CorruptTest, IndexChain) {
  for (DWORD count : {47u, 1000u, 0xFFFFFFFFu}) EXPECT_EQ(FirstRead(With(kIndexCount, count)), MAPI_E_CORRUPT_DATA);
  for (DWORD next : {512u, 100u, 2577u, Node(8), Node(500), 0x80000000u})
    EXPECT_EQ(FirstRead(With(kIndexNext, next)), MAPI_E_CORRUPT_DATA) << next;

  // A node of another type is asserted and read on.
  zt4test::TraceLog log(5);
  EXPECT_EQ(FirstRead(With(OFFSET_FIRST_INDEX_RECORD, NODE_TYPE_DATA)), S_OK);
  EXPECT_TRUE(log.Has("Assertion failed in File: "));

  // The chain looping through a second index node back to the first.
  Bytes looped = With(kIndexNext, Node(8));
  looped.resize(Node(9), 0);
  PutDword(looped, Node(8), NODE_TYPE_INDEX);
  PutDword(looped, Node(8) + 8, Node(8));
  PutDword(looped, Node(8) + 12, OFFSET_FIRST_INDEX_RECORD);
  PutDword(looped, kNextNode, Node(9));
  EXPECT_EQ(FirstRead(looped), MAPI_E_CORRUPT_DATA);
  Workload(looped);
}

TEST_F(CorruptTest, FieldChains) {
  Bytes circular = With(Node(2) + 12, Node(0));
  EXPECT_EQ(FirstRead(circular), MAPI_E_CORRUPT_DATA);
  EXPECT_EQ(FirstRead(circular, 2), S_OK) << "other records stay readable";
  EXPECT_EQ(FirstRead(With(Node(1) + 2, 2049)), MAPI_E_CORRUPT_DATA);  // wSize
  for (DWORD next : {512u, 2576u, 3000u, Node(8), Node(900), 0x80000000u})
    EXPECT_EQ(FirstRead(With(Node(1) + 12, next)), MAPI_E_CORRUPT_DATA) << next;
  for (DWORD start : {100u, 512u, 2576u, Node(8), 0xFFFFFFF0u})
    EXPECT_EQ(FirstRead(With(kEntry1Props, start)), MAPI_E_CORRUPT_DATA) << start;
  {
    // A node on the grid beyond 2 GiB: the signed seek fails with the system's error.
    zt4test::TraceLog log(1);
    HRESULT hr = FirstRead(With(kEntry1Props, 0x80000600u));
    EXPECT_TRUE(FAILED(hr));
    EXPECT_EQ((static_cast<DWORD>(hr) >> 16) & 0x1FFF, static_cast<DWORD>(FACILITY_WIN32));
    EXPECT_TRUE(log.Has("CDataBase::ReadWriteFreeNodeHeader:8007")) << "node I/O logs under that name";
  }

  // Releasing a chain that runs into the index stops there; the index survives.
  {
    Session db;
    ASSERT_EQ(OpenDamaged(With(Node(1) + 12, OFFSET_FIRST_INDEX_RECORD), db), S_OK);
    EXPECT_EQ(db->DeleteRecord(1), S_OK);  // a walk that stops is not reported
    std::string data;
    EXPECT_EQ(db.Get(2, RECFLD_PROPERTIES, &data), S_OK);
  }
  Bytes after = ReadBytes(m_dir.Native());
  EXPECT_EQ(NodeAt(after, OFFSET_FIRST_INDEX_RECORD).wNodeType, NODE_TYPE_INDEX);
  EXPECT_EQ(IndexEntries(NodeAt(after, OFFSET_FIRST_INDEX_RECORD)).size(), 2u);

  // Releasing a circular chain ends once the scrubbed start comes round again.
  Session db;
  ASSERT_EQ(OpenDamaged(circular, db), S_OK);
  EXPECT_EQ(db->DeleteRecord(1), S_OK);
  db.Close();
  after = ReadBytes(m_dir.Native());
  for (DWORD i : {0u, 1u, 2u}) EXPECT_EQ(NodeAt(after, Node(i)).wNodeType, NODE_TYPE_RELEASED);
  Workload(circular);
}

TEST_F(CorruptTest, FreePool) {
  EXPECT_EQ(FirstRead(With(kPoolCount, 513)), MAPI_E_CORRUPT_DATA);
  EXPECT_EQ(FirstRead(With(kPoolCount, 0xFFFF)), MAPI_E_CORRUPT_DATA);
  EXPECT_EQ(FirstRead(With(kPoolCount, 0x10002)), S_OK) << "only the low 16 bits count";
  EXPECT_EQ(FirstRead(With(kPoolNext, OFFSET_FIRST_FREE_NODE)), MAPI_E_CORRUPT_DATA);
  EXPECT_EQ(FirstRead(With(kPoolNext, 3000)), MAPI_E_CORRUPT_DATA);
  EXPECT_EQ(FirstRead(With(kPoolNext, Node(700))), MAPI_E_CORRUPT_DATA);

  // Garbage offsets are popped and dropped: each allocation falls back to growing the file.
  zt4test::TraceLog log(5);
  Bytes garbage = m_base;
  std::vector<DWORD> slots = {Node(6), 0, 100, 512, 2576, 4641, Node(900), 0x7FFFFFF0};
  PutDword(garbage, kPoolCount, static_cast<DWORD>(slots.size()));
  for (size_t i = 0; i < slots.size(); ++i) PutDword(garbage, kPoolSlots + 4 * static_cast<DWORD>(i), slots[i]);
  Session db;
  ASSERT_EQ(OpenDamaged(garbage, db), S_OK);
  std::vector<DWORD> got;
  for (size_t i = 0; i < slots.size(); ++i) {
    DWORD dwOffSet = 0;
    ASSERT_EQ(db->LoadIndexNodes(), S_OK);
    ASSERT_EQ(db->ReadWriteFreeNodeHeader(FNH_GET_FREE_BLOCK, NULL, &dwOffSet), S_OK);
    got.push_back(dwOffSet);
  }
  EXPECT_EQ(got, (std::vector<DWORD>{Node(8), Node(9), Node(10), Node(11), Node(12), Node(13), Node(14), Node(6)}));
  EXPECT_TRUE(log.Has("Assertion failed in File: ")) << "the zero offset";
  EXPECT_TRUE(log.Has("CDataBase::GetFreeNode:8004011b"));
}

TEST_F(CorruptTest, RandomDamageOnlyEverEnds) {
  std::mt19937 rng(20240611);
  for (int round = 0; round < 150; ++round) {
    Bytes bytes = m_base;
    int cChanges = 1 + static_cast<int>(rng() % 4);
    for (int i = 0; i < cChanges; ++i) {
      // Mostly the structures: headers, index node header and entries, pool, node headers.
      DWORD off;
      switch (rng() % 4) {
        case 0: off = rng() % 600; break;
        case 1: off = OFFSET_FIRST_FREE_NODE + rng() % 40; break;
        case 2: off = Node(rng() % 8) + rng() % 16; break;
        default: off = static_cast<DWORD>(rng() % bytes.size()); break;
      }
      if (rng() % 2) {
        off &= ~3u;
        static const DWORD kValues[] = {0, 1, 47, 513, 512, 2576, 4640, 0xFFFFFFFF, 0x80000000};
        DWORD value = rng() % 3 ? kValues[rng() % 9] : Node(rng() % 12);
        PutDword(bytes, off, value);
      } else if (off < bytes.size()) {
        bytes[off] ^= static_cast<unsigned char>(1 + rng() % 255);
      }
    }
    if (rng() % 10 == 0) bytes.resize(rng() % bytes.size());
    SCOPED_TRACE(round);
    Workload(bytes);
  }
}

}  // namespace
