// The free pool's rollover to a second pool node, and what a rollover leaves behind for good.
#include "ZT4DBFile.h"

#include <gtest/gtest.h>

#include "ZT4DBFile_testutil.h"

using namespace dbtest;

namespace {

constexpr DWORD Node(DWORD i) { return OFFSET_FIRST_DATA_NODE + NODE_SIZE * i; }

// A store whose data nodes 0..cNodes-1 form one chain (as a field would), written directly.
void MakeStoreWithChain(const std::string& store, const std::string& native, DWORD cNodes) {
  {
    Session db;
    ASSERT_EQ(db.Create(store), S_OK);
  }
  Bytes bytes = ReadBytes(native);
  bytes.resize(Node(cNodes), 0);
  for (DWORD i = 0; i < cNodes; ++i) {
    DATA_NODE dn = {};
    dn.wNodeType = NODE_TYPE_DATA;
    dn.wSize = 1;
    dn.dwOffSet = Node(i);
    dn.dwOffSetNextNode = i + 1 < cNodes ? Node(i + 1) : 0;
    memcpy(bytes.data() + Node(i), &dn, sizeof(dn));
  }
  PutDword(bytes, OFFSET_FREENODES_HEADER + 4, Node(cNodes));
  WriteBytes(native, bytes);
}

class PoolTest : public HeapsFixture {
 protected:
  ScratchDir m_dir;
};

TEST_F(PoolTest, A513NodeChainRollsOverAndTheFirstPoolNodeIsNeverUsedAgain) {
  MakeStoreWithChain(m_dir.Store(), m_dir.Native(), 513);
  Session db;
  ASSERT_EQ(db.Open(m_dir.Store()), S_OK);
  ASSERT_EQ(db->LoadIndexNodes(), S_OK);
  ASSERT_EQ(db->DeleteStreamRecords(Node(0)), S_OK);
  ASSERT_EQ(db->SaveFreeNodesPool(), S_OK);

  Bytes bytes = ReadBytes(m_dir.Native());
  // The 513th push found the first pool node full: its top offset became the second pool node.
  DATA_NODE first = NodeAt(bytes, OFFSET_FIRST_FREE_NODE);
  EXPECT_EQ(first.wNodeType, NODE_TYPE_FREEPOOL);
  EXPECT_EQ(first.dwEntryCount, 511u);
  EXPECT_EQ(first.dwOffSetNextNode, Node(511));
  EXPECT_EQ(FreePoolSlot(first, 0), Node(0));
  EXPECT_EQ(FreePoolSlot(first, 510), Node(510));
  EXPECT_EQ(FreePoolSlot(first, 511), 0u) << "the taken slot is zeroed";
  DATA_NODE second = NodeAt(bytes, Node(511));
  EXPECT_EQ(second.wNodeType, NODE_TYPE_FREEPOOL);
  EXPECT_EQ(second.dwOffSet, Node(511));
  EXPECT_EQ(PoolOffsets(second), std::vector<DWORD>{Node(512)});
  EXPECT_EQ(HeaderOf(bytes).dwNextNodeOffSet, Node(513)) << "no node was added";

  // Only the last pool node is popped; once empty, the file grows.
  DWORD dwOffSet = 0;
  ASSERT_EQ(db->ReadWriteFreeNodeHeader(FNH_GET_FREE_BLOCK, NULL, &dwOffSet), S_OK);
  EXPECT_EQ(dwOffSet, Node(512));
  for (DWORD i = 0; i < 3; ++i) {
    ASSERT_EQ(db->ReadWriteFreeNodeHeader(FNH_GET_FREE_BLOCK, NULL, &dwOffSet), S_OK);
    EXPECT_EQ(dwOffSet, Node(513 + i));
  }
  db.Close();
  EXPECT_EQ(FreePoolCount(NodeAt(ReadBytes(m_dir.Native()), OFFSET_FIRST_FREE_NODE)), 511u);

  // The same holds for a later session reading the pool from the file.
  Session again;
  ASSERT_EQ(again.Open(m_dir.Store()), S_OK);
  ASSERT_EQ(again->LoadIndexNodes(), S_OK);
  ASSERT_EQ(again->ReadWriteFreeNodeHeader(FNH_GET_FREE_BLOCK, NULL, &dwOffSet), S_OK);
  EXPECT_EQ(dwOffSet, Node(516));
}

TEST_F(PoolTest, ReleasedNodesAreScrubbedWithOneWriteEach) {
  MakeStoreWithChain(m_dir.Store(), m_dir.Native(), 4);
  Session db;
  ASSERT_EQ(db.Open(m_dir.Store()), S_OK);
  ASSERT_EQ(db->LoadIndexNodes(), S_OK);
  ULONG cReads = db->GetNodeReadCount(), cWrites = db->GetNodeWriteCount();
  ASSERT_EQ(db->DeleteStreamRecords(Node(1)), S_OK);
  EXPECT_EQ(db->GetNodeReadCount() - cReads, 3u);
  EXPECT_EQ(db->GetNodeWriteCount() - cWrites, 3u);
  Bytes bytes = ReadBytes(m_dir.Native());
  EXPECT_EQ(NodeAt(bytes, Node(0)).dwOffSetNextNode, Node(1)) << "the caller unlinks, not the release";
  for (DWORD i = 1; i < 4; ++i) {
    DATA_NODE dn = NodeAt(bytes, Node(i));
    EXPECT_EQ(dn.wNodeType, NODE_TYPE_RELEASED);
    EXPECT_EQ(dn.wSize, 0);
    EXPECT_EQ(dn.dwOffSetNextNode, 0u);
    EXPECT_EQ(dn.bRawData[0], 0);
  }
}

}  // namespace
