// Two processes on one store file: only the allocation header is common ground, so both see
// record IDs and nodes rise, and neither sees the other's records.
#include "ZT4DBFile.h"

#include <gtest/gtest.h>

#include "ZT4DBFile_testutil.h"
#include "test_home.h"

using namespace dbtest;

namespace {

constexpr DWORD Node(DWORD i) { return OFFSET_FIRST_DATA_NODE + NODE_SIZE * i; }

class ProcessTest : public HeapsFixture {
 protected:
  // Runs the child and gives the ID of the record it made (0 on failure).
  DWORD RunChild(DWORD dwParentID) {
    std::string report = m_dir.Dir() + "/report.txt";
    int status = adtest::RunChild(adtest::BinPath("ZT4DBFile_child"),
                                  {m_dir.Store(), std::to_string(dwParentID), report});
    EXPECT_EQ(status, 0);
    std::ifstream in(report);
    DWORD id = 0;
    in >> id;
    return id;
  }
  ScratchDir m_dir;
};

TEST_F(ProcessTest, TwoDatabasesShareIdsAndNodesButNotRecords) {
  Session db;
  ASSERT_EQ(db.Create(m_dir.Store()), S_OK);
  DWORD idParent = db.PutNew("parent");
  EXPECT_EQ(idParent, 1u);

  EXPECT_EQ(RunChild(idParent), 2u);

  DWORD idNext = db.PutNew("parent2");
  EXPECT_EQ(idNext, 3u) << "IDs keep rising across the two";
  IStream* pStream = NULL;
  EXPECT_EQ(db.Field(2, RECFLD_PROPERTIES, FALSE, &pStream), MAPI_E_NOT_FOUND) << "the child's index is its own";
  std::string data;
  ASSERT_EQ(db.Get(idParent, RECFLD_PROPERTIES, &data), S_OK);
  EXPECT_EQ(data, "parent");

  EXPECT_EQ(RunChild(idNext), 4u);

  // Each record got a node of its own from the shared growth point.
  Bytes bytes = ReadBytes(m_dir.Native());
  EXPECT_EQ(HeaderOf(bytes).dwNextRecordID, 5u);
  EXPECT_EQ(HeaderOf(bytes).dwNextNodeOffSet, Node(4));
  const char* expected[] = {"parent", "child", "parent2", "child"};
  for (DWORD i = 0; i < 4; ++i) {
    DATA_NODE dn = NodeAt(bytes, Node(i));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(dn.bRawData), dn.wSize), expected[i]) << i;
  }
}

}  // namespace
