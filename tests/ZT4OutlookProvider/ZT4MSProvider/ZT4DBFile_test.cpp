// The record file: its layout byte for byte, record IDs, field streams, deletion, the index and
// the free pool, and the behaviours the format keeps on purpose.
#include "ZT4DBFile.h"

#include <gtest/gtest.h>

#include "ZT4DBFile_testutil.h"
#include "trace_fixture.h"

using namespace dbtest;

namespace {

class DBFileTest : public HeapsFixture {
 protected:
  ScratchDir m_dir;
};

constexpr DWORD Node(DWORD i) { return OFFSET_FIRST_DATA_NODE + NODE_SIZE * i; }

Bytes ExpectedNewFile() {
  Bytes bytes(OFFSET_FIRST_DATA_NODE, 0);
  PutDword(bytes, 0, 1);
  MAPIUID uid = TestGuid();
  memcpy(bytes.data() + 8, uid.ab, 16);
  memcpy(bytes.data() + 24, "ArchiveDepot", 12);
  memcpy(bytes.data() + 88, "Orvanta Store", 13);
  PutDword(bytes, 256, 1);
  PutDword(bytes, 260, 4640);
  PutDword(bytes, 264, 2576);
  bytes[512] = 1;
  PutDword(bytes, 520, 512);
  bytes[2576] = 2;
  PutDword(bytes, 2584, 2576);
  return bytes;
}

TEST_F(DBFileTest, NewFileIsExactlyTheFixedLayout) {
  std::string path = m_dir.Dir() + "/sub\\1.CST";  // the one missing folder level is made
  Session db;
  ASSERT_EQ(db.Create(path), S_OK);
  EXPECT_EQ(ReadBytes(m_dir.Dir() + "/sub/1.CST"), ExpectedNewFile());
  EXPECT_EQ(memcmp(db->GetStoreGuid().ab, TestGuid().ab, 16), 0);
  db.Close();

  // Opening gives back the GUID and both strings; a new file's index is empty.
  CDataBase* pDB = NULL;
  MAPIUID uid = {};
  char szName[DB_NAME_SIZE] = "x", szComment[DB_NAME_SIZE] = "y";
  ASSERT_EQ(CommonOpenFile(path.c_str(), szName, szComment, &uid, &pDB, FALSE), S_OK);
  EXPECT_EQ(memcmp(uid.ab, TestGuid().ab, 16), 0);
  EXPECT_STREQ(szName, "ArchiveDepot");
  EXPECT_STREQ(szComment, "Orvanta Store");
  IStream* pStream = NULL;
  EXPECT_EQ(pDB->OpenRecordField(1, FALSE, RECFLD_PROPERTIES, &pStream), MAPI_E_NOT_FOUND);
  EXPECT_EQ(pDB->SetDataBaseStrings("Renamed", NULL), S_OK);
  EXPECT_EQ(pDB->Release(), 0u);
  ASSERT_EQ(CommonOpenFile(path.c_str(), szName, szComment, &uid, &pDB, FALSE), S_OK);
  EXPECT_STREQ(szName, "Renamed");
  EXPECT_STREQ(szComment, "Orvanta Store");
  pDB->Release();
  Bytes renamed = ReadBytes(m_dir.Dir() + "/sub/1.CST");
  Bytes expected = ExpectedNewFile();
  memcpy(expected.data() + 24, "Renamed\0\0\0\0\0", 12);
  EXPECT_EQ(renamed, expected);
}

TEST_F(DBFileTest, OpenAndCreateFailures) {
  zt4test::TraceLog log(5);
  MAPIUID uid = TestGuid();
  CDataBase* pDB = NULL;
  char szName[DB_NAME_SIZE] = "n";
  std::string path = m_dir.Store();

  EXPECT_EQ(CommonOpenFile(path.c_str(), szName, NULL, &uid, &pDB, TRUE), E_INVALIDARG);
  EXPECT_TRUE(log.Has("CommonOpenFile: NULL name and comment pointer for a NEW file"));
  EXPECT_FALSE(std::filesystem::exists(m_dir.Native()));

  EXPECT_EQ(CommonOpenFile(path.c_str(), NULL, NULL, &uid, &pDB, FALSE), HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
  EXPECT_TRUE(log.Has("CommonOpenFile:80070002"));

  // Creating over an existing file fails, and that file is deleted.
  {
    Session db;
    ASSERT_EQ(db.Create(path), S_OK);
  }
  Session again;
  EXPECT_EQ(again.Create(path), HRESULT_FROM_WIN32(ERROR_FILE_EXISTS));
  EXPECT_FALSE(std::filesystem::exists(m_dir.Native()));

  // Another version is refused and the file stays as it was.
  {
    Session db;
    ASSERT_EQ(db.Create(path), S_OK);
  }
  PokeDword(m_dir.Native(), 0, 2);
  Bytes before = ReadBytes(m_dir.Native());
  Session v2;
  EXPECT_EQ(v2.Open(path), MAPI_E_VERSION);
  EXPECT_EQ(ReadBytes(m_dir.Native()), before);
  EXPECT_TRUE(log.Has("CommonOpenFile:80040110"));

  WriteBytes(m_dir.Native(), Bytes());
  EXPECT_EQ(v2.Open(path), MAPI_E_VERSION);
}

TEST_F(DBFileTest, RecordIdsComeFromTheSharedHeader) {
  Session db;
  ASSERT_EQ(db.Create(m_dir.Store()), S_OK);
  DWORD id = 0;
  ASSERT_EQ(db->CreateEmptyRecord(&id), S_OK);
  EXPECT_EQ(id, 1u);
  ASSERT_EQ(db->CreateEmptyRecord(&id), S_OK);
  EXPECT_EQ(id, 2u);
  // An ID alone leaves the growth point where it was.
  FREENODES_HEADER fnh = HeaderOf(ReadBytes(m_dir.Native()));
  EXPECT_EQ(fnh.dwNextRecordID, 3u);
  EXPECT_EQ(fnh.dwNextNodeOffSet, 4640u);
  EXPECT_EQ(fnh.dwFirstFreeNode, 2576u);

  // The last ID is handed out, then the count wraps past 0 to 1.
  PokeDword(m_dir.Native(), OFFSET_FREENODES_HEADER, 0xFFFFFFFF);
  ASSERT_EQ(db->ReadWriteFreeNodeHeader(FNH_GET_NEXT_RECORD_ID, &id, NULL), S_OK);
  EXPECT_EQ(id, 0xFFFFFFFFu);
  EXPECT_EQ(HeaderOf(ReadBytes(m_dir.Native())).dwNextRecordID, 1u);
  ASSERT_EQ(db->CreateEmptyRecord(&id), S_OK);
  EXPECT_EQ(id, 1u);
}

TEST_F(DBFileTest, CreateRecordWithAnIdInUse) {
  Session db;
  ASSERT_EQ(db.Create(m_dir.Store()), S_OK);
  IStream* pStream = NULL;
  DWORD id = 1;  // the header's next ID as well
  ASSERT_EQ(db.NewRecord(&id, &pStream), S_OK);
  pStream->Release();
  EXPECT_EQ(HeaderOf(ReadBytes(m_dir.Native())).dwNextRecordID, 1u) << "an explicit ID takes no ID from the header";

  // In use: refused, and neither a node nor an ID is consumed.
  Bytes before = ReadBytes(m_dir.Native());
  EXPECT_EQ(db.NewRecord(&id, &pStream), E_INVALIDARG);
  EXPECT_EQ(ReadBytes(m_dir.Native()), before);

  // A new ID skips those of the index and keeps the one node it took.
  id = 0;
  ASSERT_EQ(db.NewRecord(&id, &pStream), S_OK);
  pStream->Release();
  EXPECT_EQ(id, 2u);
  FREENODES_HEADER fnh = HeaderOf(ReadBytes(m_dir.Native()));
  EXPECT_EQ(fnh.dwNextRecordID, 3u);
  EXPECT_EQ(fnh.dwNextNodeOffSet, Node(2));
}

TEST_F(DBFileTest, CreateEmptyRecordIgnoresAnIndexNotYetLoaded) {
  {
    Session db;
    ASSERT_EQ(db.Create(m_dir.Store()), S_OK);
    for (DWORD id : {1u, 2u}) ASSERT_EQ(db.Put(id, RECFLD_PROPERTIES, "x"), S_OK);
  }
  Session db;
  ASSERT_EQ(db.Open(m_dir.Store()), S_OK);
  DWORD id = 0;
  ASSERT_EQ(db->CreateEmptyRecord(&id), S_OK);
  EXPECT_EQ(id, 1u) << "the index is not loaded for this";
  std::string data;
  ASSERT_EQ(db.Get(1, RECFLD_PROPERTIES, &data), S_OK);
  ASSERT_EQ(db->CreateEmptyRecord(&id), S_OK);
  EXPECT_EQ(id, 3u) << "2 is in the loaded index";
}

TEST_F(DBFileTest, StreamWritesReachTheFileAtTheLastRelease) {
  zt4test::TraceLog log(5);
  Session db;
  ASSERT_EQ(db.Create(m_dir.Store()), S_OK);
  DWORD id = 0;
  IStream* pStream = NULL;
  ASSERT_EQ(db.NewRecord(&id, &pStream), S_OK);
  EXPECT_EQ(id, 1u);
  EXPECT_TRUE(log.Has("CDataBase::CreateRecord method called"));
  EXPECT_TRUE(log.Has("CMemoryStream: Constructor called"));
  EXPECT_EQ(ReadAll(pStream), "") << "a new field reads as empty";
  ASSERT_EQ(WriteAll(pStream, "hello"), S_OK);
  ASSERT_EQ(pStream->Commit(STGC_DEFAULT), S_OK);
  // A clone shares the memory stream's bytes but writes nowhere itself.
  ULONG cWrites = db->GetNodeWriteCount();
  IStream* pClone = NULL;
  ASSERT_EQ(pStream->Clone(&pClone), S_OK);
  WriteAll(pClone, "clone");
  pClone->Release();
  EXPECT_EQ(db->GetNodeWriteCount(), cWrites);
  Bytes bytes = ReadBytes(m_dir.Native());
  ASSERT_EQ(bytes.size(), Node(1));
  EXPECT_EQ(NodeAt(bytes, Node(0)).wNodeType, 0) << "nothing is written before the last Release";

  pStream->AddRef();
  EXPECT_EQ(pStream->Release(), 1u);
  EXPECT_EQ(db->GetNodeWriteCount(), cWrites);
  EXPECT_EQ(pStream->Release(), 0u);
  EXPECT_EQ(db->GetNodeWriteCount(), cWrites + 1) << "one node, one write";
  EXPECT_TRUE(log.Has("CMemoryStream: Destructor called"));

  DATA_NODE expected = {};
  expected.wNodeType = NODE_TYPE_DATA;
  expected.wSize = 10;
  expected.dwOffSet = Node(0);
  memcpy(expected.bRawData, "helloclone", 10);
  bytes = ReadBytes(m_dir.Native());
  EXPECT_EQ(memcmp(bytes.data() + Node(0), &expected, NODE_SIZE), 0);
  EXPECT_EQ(NodeAt(bytes, 512).dwEntryCount, 0u) << "the index reaches the disk only in the destructor";

  db.Close();
  EXPECT_TRUE(log.Has("CDataBase: Destructor called"));
  EXPECT_TRUE(log.Has("CDataBase::SaveIndexNodes method called on thread ID"));
  bytes = ReadBytes(m_dir.Native());
  std::vector<INDEX_ENTRY> entries = IndexEntries(NodeAt(bytes, 512));
  ASSERT_EQ(entries.size(), 1u);
  INDEX_ENTRY want = {};
  want.dwNodeID = 1;
  want.dwPropsStartOffSet = Node(0);
  want.dwPropsSize = 10;
  EXPECT_EQ(memcmp(&entries[0], &want, sizeof(want)), 0);
  EXPECT_EQ(NodeAt(bytes, 512).wNodeType, NODE_TYPE_INDEX);
}

TEST_F(DBFileTest, NodeBoundariesAndStreamInterface) {
  Session db;
  ASSERT_EQ(db.Create(m_dir.Store()), S_OK);
  ULONG cWrites = db->GetNodeWriteCount();
  DWORD id2048 = db.PutNew(Pattern(2048));
  EXPECT_EQ(db->GetNodeWriteCount(), cWrites + 1);
  DWORD id2049 = db.PutNew(Pattern(2049));
  EXPECT_EQ(db->GetNodeWriteCount(), cWrites + 3);
  Bytes bytes = ReadBytes(m_dir.Native());
  DATA_NODE dn = NodeAt(bytes, Node(0));
  EXPECT_EQ(dn.wSize, 2048);
  EXPECT_EQ(dn.dwOffSetNextNode, 0u);
  dn = NodeAt(bytes, Node(1));
  EXPECT_EQ(dn.wSize, 2048);
  EXPECT_EQ(dn.dwOffSetNextNode, Node(2));
  dn = NodeAt(bytes, Node(2));
  EXPECT_EQ(dn.wSize, 1);
  EXPECT_EQ(dn.dwOffSetNextNode, 0u);
  std::string data;
  ASSERT_EQ(db.Get(id2049, RECFLD_PROPERTIES, &data), S_OK);
  EXPECT_EQ(data, Pattern(2049));
  ASSERT_EQ(db.Get(id2048, RECFLD_PROPERTIES, &data), S_OK);
  EXPECT_EQ(data, Pattern(2048));

  // Reading, SetSize alone and QueryInterface write nothing.
  IStream* pStream = NULL;
  ASSERT_EQ(db.Field(id2049, RECFLD_PROPERTIES, FALSE, &pStream), S_OK);
  cWrites = db->GetNodeWriteCount();
  ULARGE_INTEGER liZero = {};
  EXPECT_EQ(pStream->SetSize(liZero), S_OK);
  IUnknown* pUnk = NULL;
  EXPECT_EQ(pStream->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&pUnk)), S_OK);
  IStorage* pStg = NULL;
  EXPECT_EQ(pStream->QueryInterface(IID_IStorage, reinterpret_cast<void**>(&pStg)), E_NOINTERFACE);
  EXPECT_EQ(pStg, nullptr);
  pUnk->Release();
  STATSTG statstg = {};
  EXPECT_EQ(pStream->Stat(&statstg, STATFLAG_NONAME), S_OK);
  EXPECT_EQ(statstg.cbSize.QuadPart, 0u);
  pStream->Release();
  EXPECT_EQ(db->GetNodeWriteCount(), cWrites);
  ASSERT_EQ(db.Get(id2049, RECFLD_PROPERTIES, &data), S_OK);
  EXPECT_EQ(data, Pattern(2049));

  // Two streams on one field are two copies; the size word changes only at commit.
  IStream* pFirst = NULL;
  IStream* pSecond = NULL;
  ASSERT_EQ(db.Field(id2048, RECFLD_PROPERTIES, FALSE, &pFirst), S_OK);
  WriteAll(pFirst, "first");
  ASSERT_EQ(db.Field(id2048, RECFLD_PROPERTIES, FALSE, &pSecond), S_OK);
  EXPECT_EQ(ReadAll(pSecond), Pattern(2048));
  pFirst->Release();
  LARGE_INTEGER liStart = {};
  pSecond->Seek(liStart, STREAM_SEEK_SET, NULL);
  WriteAll(pSecond, "second");
  pSecond->Release();
  ASSERT_EQ(db.Get(id2048, RECFLD_PROPERTIES, &data), S_OK);
  EXPECT_EQ(data, "second" + Pattern(2048).substr(6)) << "the last one released decides";
}

TEST_F(DBFileTest, EmptyStreamStillWritesOneNode) {
  Session db;
  ASSERT_EQ(db.Create(m_dir.Store()), S_OK);
  DWORD id = db.PutNew("abc");
  ASSERT_EQ(db.Put(id, RECFLD_PROPERTIES, ""), S_OK);
  DATA_NODE dn = NodeAt(ReadBytes(m_dir.Native()), Node(0));
  EXPECT_EQ(dn.wNodeType, NODE_TYPE_DATA);
  EXPECT_EQ(dn.wSize, 0);
  db.Close();
  EXPECT_EQ(IndexEntries(NodeAt(ReadBytes(m_dir.Native()), 512))[0].dwPropsSize, 0u);
}

TEST_F(DBFileTest, ShrinkReleasesTheTailAndThePoolIsReusedLastInFirstOut) {
  {
    Session db;
    ASSERT_EQ(db.Create(m_dir.Store()), S_OK);
    DWORD id = db.PutNew(Pattern(5000));  // nodes 0, 1, 2
    ASSERT_EQ(db.Put(id, RECFLD_PROPERTIES, "short"), S_OK);
    Bytes bytes = ReadBytes(m_dir.Native());
    EXPECT_EQ(NodeAt(bytes, Node(0)).dwOffSetNextNode, 0u);
    for (DWORD i : {1u, 2u}) {
      DATA_NODE released = {};
      released.wNodeType = NODE_TYPE_RELEASED;
      released.dwOffSet = Node(i);
      EXPECT_EQ(memcmp(bytes.data() + Node(i), &released, NODE_SIZE), 0) << "released nodes are scrubbed";
    }
  }
  Bytes bytes = ReadBytes(m_dir.Native());
  EXPECT_EQ(PoolOffsets(NodeAt(bytes, OFFSET_FIRST_FREE_NODE)), (std::vector<DWORD>{Node(1), Node(2)}));

  Session db;
  ASSERT_EQ(db.Open(m_dir.Store()), S_OK);
  IStream* pStream = NULL;
  DWORD id = 0;
  ASSERT_EQ(db.NewRecord(&id, &pStream), S_OK);
  pStream->Release();
  DWORD dwOffSet = 0;
  ASSERT_EQ(db->ReadWriteFreeNodeHeader(FNH_GET_FREE_BLOCK, NULL, &dwOffSet), S_OK);
  EXPECT_EQ(dwOffSet, Node(1));
  ASSERT_EQ(db->ReadWriteFreeNodeHeader(FNH_GET_FREE_BLOCK, NULL, &dwOffSet), S_OK);
  EXPECT_EQ(dwOffSet, Node(3)) << "an empty pool grows the file";
  db.Close();
  DATA_NODE pool = NodeAt(ReadBytes(m_dir.Native()), OFFSET_FIRST_FREE_NODE);
  EXPECT_EQ(FreePoolCount(pool), 0u);
  EXPECT_EQ(FreePoolSlot(pool, 0), 0u) << "a taken slot is zeroed";
  EXPECT_EQ(FreePoolSlot(pool, 1), 0u);
}

// Nodes 0..44 make one 45-node field; 1..40 are the cached successors and 41 the first behind.
class LongStreamTest : public DBFileTest {
 protected:
  DWORD MakeLongField() {
    EXPECT_EQ(m_db.Create(m_dir.Store()), S_OK);
    return m_db.PutNew(Pattern(45 * DATA_SIZE));
  }
  std::vector<DWORD> SavedPool() {
    m_db.Close();
    return PoolOffsets(NodeAt(ReadBytes(m_dir.Native()), OFFSET_FIRST_FREE_NODE));
  }
  Session m_db;
};

TEST_F(LongStreamTest, ShrinkingToFewNodesReleasesOneNodeTwice) {
  DWORD id = MakeLongField();
  ASSERT_EQ(m_db.Put(id, RECFLD_PROPERTIES, Pattern(5000, 2)), S_OK);
  std::string data;
  ASSERT_EQ(m_db.Get(id, RECFLD_PROPERTIES, &data), S_OK);
  EXPECT_EQ(data, Pattern(5000, 2));
  std::vector<DWORD> expected;
  for (DWORD i = 3; i <= 44; ++i) expected.push_back(Node(i));
  expected.push_back(Node(41));  // behind the cache: released by the tail walk and again on its own
  EXPECT_EQ(SavedPool(), expected);
}

TEST_F(LongStreamTest, ShrinkingToExactly41NodesReleasesEachOnce) {
  DWORD id = MakeLongField();
  ASSERT_EQ(m_db.Put(id, RECFLD_PROPERTIES, Pattern(41 * DATA_SIZE, 3)), S_OK);
  EXPECT_EQ(SavedPool(), (std::vector<DWORD>{Node(41), Node(42), Node(43), Node(44)}));
}

TEST_F(LongStreamTest, NodesBehindTheCacheAreNotReusedInPlace) {
  DWORD id = MakeLongField();
  ULONG cWrites = m_db->GetNodeWriteCount();
  ASSERT_EQ(m_db.Put(id, RECFLD_PROPERTIES, Pattern(45 * DATA_SIZE, 4)), S_OK);
  EXPECT_EQ(m_db->GetNodeWriteCount() - cWrites, 45u + 4u) << "45 data nodes and 4 scrubbed";
  Bytes bytes = ReadBytes(m_dir.Native());
  DWORD dwOffSet = Node(0);
  std::vector<DWORD> chain;
  for (int i = 0; i < 50 && dwOffSet; ++i, dwOffSet = NodeAt(bytes, dwOffSet).dwOffSetNextNode) chain.push_back(dwOffSet);
  ASSERT_EQ(chain.size(), 45u);
  EXPECT_EQ(chain[40], Node(40));
  EXPECT_EQ(chain[41], Node(45)) << "new nodes behind the cache";
  EXPECT_EQ(chain[44], Node(48));
  std::string data;
  ASSERT_EQ(m_db.Get(id, RECFLD_PROPERTIES, &data), S_OK);
  EXPECT_EQ(data, Pattern(45 * DATA_SIZE, 4));
  EXPECT_EQ(SavedPool(), (std::vector<DWORD>{Node(41), Node(42), Node(43), Node(44)}));
}

TEST_F(DBFileTest, DeleteFieldAndRecord) {
  zt4test::TraceLog log(5);
  Session db;
  ASSERT_EQ(db.Create(m_dir.Store()), S_OK);
  IStream* pStream = NULL;

  EXPECT_EQ(db->DeleteRecord(77), MAPI_E_NOT_FOUND);
  EXPECT_FALSE(log.Has("CDataBase::DeleteField:")) << "a missing record is not an error";
  EXPECT_EQ(db->DeleteField(77, static_cast<RECFLD>(6)), E_INVALIDARG);
  EXPECT_TRUE(log.Has("CDataBase::DeleteField:80070057"));
  EXPECT_EQ(db->OpenRecordField(77, TRUE, static_cast<RECFLD>(5), &pStream), E_INVALIDARG);

  // A field without a chain is missing although the record exists.
  DWORD id = db.PutNew("props");
  EXPECT_EQ(db.Field(id, RECFLD_CONTENTS, FALSE, &pStream), MAPI_E_NOT_FOUND);
  ASSERT_EQ(db.Put(id, RECFLD_CONTENTS, "contents"), S_OK);

  // One field goes; the record stays while fields 0 to 2 hold something.
  EXPECT_EQ(db->DeleteField(id, RECFLD_CONTENTS), S_OK);
  EXPECT_EQ(db.Field(id, RECFLD_CONTENTS, FALSE, &pStream), MAPI_E_NOT_FOUND);
  std::string data;
  ASSERT_EQ(db.Get(id, RECFLD_PROPERTIES, &data), S_OK);
  EXPECT_EQ(data, "props");

  // Fields 3 and 4 don't keep a record: deleting field 0 removes it and abandons their chains.
  ASSERT_EQ(db.Put(id, RECFLD_ASSOCIATED, "assoc"), S_OK);
  ASSERT_EQ(db.Put(id, RECFLD_NAMES, "names"), S_OK);
  Bytes before = ReadBytes(m_dir.Native());
  EXPECT_EQ(db->DeleteField(id, RECFLD_PROPERTIES), S_OK);
  EXPECT_EQ(db.Field(id, RECFLD_ASSOCIATED, FALSE, &pStream), MAPI_E_NOT_FOUND);
  Bytes after = ReadBytes(m_dir.Native());
  int cAbandoned = 0;
  for (DWORD off = Node(0); off + NODE_SIZE <= after.size(); off += NODE_SIZE) {
    DATA_NODE dn = NodeAt(after, off);
    if (dn.wNodeType == NODE_TYPE_DATA) {
      ++cAbandoned;
      EXPECT_EQ(memcmp(after.data() + off, before.data() + off, NODE_SIZE), 0);
    }
  }
  EXPECT_EQ(cAbandoned, 2);

  // RECFLD_ALL takes every field, 3 and 4 included.
  DWORD idAll = db.PutNew("p");
  for (RECFLD rf : {RECFLD_CONTENTS, RECFLD_CHILDREN, RECFLD_ASSOCIATED, RECFLD_NAMES})
    ASSERT_EQ(db.Put(idAll, rf, Pattern(3000)), S_OK);
  EXPECT_EQ(db->DeleteRecord(idAll), S_OK);
  EXPECT_EQ(db.Field(idAll, RECFLD_PROPERTIES, FALSE, &pStream), MAPI_E_NOT_FOUND);
  after = ReadBytes(m_dir.Native());
  int cData = 0;
  for (DWORD off = Node(0); off + NODE_SIZE <= after.size(); off += NODE_SIZE)
    cData += NodeAt(after, off).wNodeType == NODE_TYPE_DATA;
  EXPECT_EQ(cData, 2) << "only the two abandoned chains are left";
  db.Close();
  EXPECT_EQ(IndexEntries(NodeAt(ReadBytes(m_dir.Native()), 512)).size(), 0u);
}

// n records 1..n, each with a node of its own, then the index saved by the destructor.
void SaveIndexOf(const std::string& path, DWORD n) {
  Session db;
  ASSERT_EQ(db.Create(path), S_OK);
  for (DWORD i = 0; i < n; ++i) {
    DWORD id = 0;
    IStream* pStream = NULL;
    ASSERT_EQ(db.NewRecord(&id, &pStream), S_OK);
    pStream->Release();
  }
}

std::vector<DWORD> LoadedIds(const std::string& path, DWORD cMax) {
  Session db;
  EXPECT_EQ(db.Open(path), S_OK);
  std::vector<DWORD> ids;
  for (DWORD id = 1; id <= cMax; ++id) {
    IStream* pStream = NULL;
    if (SUCCEEDED(db.Field(id, RECFLD_PROPERTIES, FALSE, &pStream))) {
      ids.push_back(id);
      pStream->Release();
    }
  }
  return ids;
}

std::vector<DWORD> Range(DWORD first, DWORD last) {
  std::vector<DWORD> ids;
  for (DWORD id = first; id <= last; ++id) ids.push_back(id);
  return ids;
}

TEST_F(DBFileTest, IndexSaveDropsEvery47thEntry) {
  SaveIndexOf(m_dir.Store("46.CST"), 46);
  Bytes bytes = ReadBytes(m_dir.Native("46.CST"));
  EXPECT_EQ(NodeAt(bytes, 512).dwEntryCount, 46u);
  EXPECT_EQ(NodeAt(bytes, 512).dwOffSetNextNode, 0u);
  EXPECT_EQ(LoadedIds(m_dir.Store("46.CST"), 50), Range(1, 46));

  SaveIndexOf(m_dir.Store("47.CST"), 47);
  bytes = ReadBytes(m_dir.Native("47.CST"));
  DATA_NODE first = NodeAt(bytes, 512);
  EXPECT_EQ(first.dwEntryCount, 46u);
  ASSERT_EQ(first.dwOffSetNextNode, Node(47));
  EXPECT_EQ(NodeAt(bytes, Node(47)).wNodeType, NODE_TYPE_INDEX);
  EXPECT_EQ(NodeAt(bytes, Node(47)).dwEntryCount, 0u);
  EXPECT_EQ(LoadedIds(m_dir.Store("47.CST"), 50), Range(1, 46)) << "the 47th is lost";

  SaveIndexOf(m_dir.Store("48.CST"), 48);
  bytes = ReadBytes(m_dir.Native("48.CST"));
  std::vector<INDEX_ENTRY> second = IndexEntries(NodeAt(bytes, NodeAt(bytes, 512).dwOffSetNextNode));
  ASSERT_EQ(second.size(), 1u);
  EXPECT_EQ(second[0].dwNodeID, 48u);
  std::vector<DWORD> want = Range(1, 46);
  want.push_back(48);
  EXPECT_EQ(LoadedIds(m_dir.Store("48.CST"), 50), want);
}

TEST_F(DBFileTest, ShrunkIndexKeepsItsStaleTail) {
  SaveIndexOf(m_dir.Store(), 48);
  {
    Session db;
    ASSERT_EQ(db.Open(m_dir.Store()), S_OK);
    EXPECT_EQ(db->DeleteRecord(48), S_OK);
    EXPECT_EQ(db->DeleteRecord(46), S_OK);
    IStream* pStream = NULL;
    EXPECT_EQ(db.Field(48, RECFLD_PROPERTIES, FALSE, &pStream), MAPI_E_NOT_FOUND);
  }
  std::vector<DWORD> want = Range(1, 45);
  want.push_back(48);  // deleted, yet back from the old second index node
  EXPECT_EQ(LoadedIds(m_dir.Store(), 50), want);
}

TEST_F(DBFileTest, IndexListSearchAndRemoval) {
  CIndexList list;
  for (DWORD id = 1; id <= 5; ++id) {
    INDEX_ENTRY entry = {};
    entry.dwNodeID = id * 10;
    list.Append(entry);
  }
  INDEX_ENTRY* p30 = list.Find(30);
  ASSERT_NE(p30, nullptr);
  EXPECT_EQ(list.Find(10)->dwNodeID, 10u) << "found behind the cursor";
  EXPECT_EQ(list.Find(50)->dwNodeID, 50u);
  EXPECT_EQ(list.Find(30), p30) << "nodes never move";
  EXPECT_EQ(list.Find(31), nullptr);
  EXPECT_TRUE(list.Remove(30));   // the cursor's node
  EXPECT_FALSE(list.Remove(30));
  EXPECT_TRUE(list.Remove(10));   // the head
  EXPECT_TRUE(list.Remove(50));   // the tail
  EXPECT_EQ(list.Count(), 2u);
  EXPECT_EQ(list.Find(40)->dwNodeID, 40u);
  list.WalkReset();
  EXPECT_EQ(list.WalkNext()->dwNodeID, 20u);
  EXPECT_EQ(list.WalkNext()->dwNodeID, 40u);
  EXPECT_EQ(list.WalkNext(), nullptr);
  INDEX_ENTRY entry = {};
  entry.dwNodeID = 60;
  list.Append(entry);
  list.WalkReset();
  std::vector<DWORD> ids;
  while (INDEX_ENTRY* p = list.WalkNext()) ids.push_back(p->dwNodeID);
  EXPECT_EQ(ids, (std::vector<DWORD>{20, 40, 60}));
}

}  // namespace
