// Threads of one process on one CDataBase: the critical section keeps IDs, nodes and commits
// apart.
#include "ZT4DBFile.h"

#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "ZT4DBFile_testutil.h"

using namespace dbtest;

namespace {

class ThreadsTest : public HeapsFixture {
 protected:
  ScratchDir m_dir;
};

TEST_F(ThreadsTest, ConcurrentCreatesAndRewritesStayApart) {
  Session db;
  ASSERT_EQ(db.Create(m_dir.Store()), S_OK);
  constexpr int kThreads = 4, kRecords = 25;
  std::vector<std::vector<DWORD>> ids(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRecords; ++i) {
        DWORD id = 0;
        IStream* pStream = NULL;
        if (FAILED(db->CreateRecord(&id, &pStream))) return;
        WriteAll(pStream, Pattern(3000 + 100 * t, id));
        pStream->AddRef();  // a second reference from this thread; only the last Release commits
        pStream->Release();
        pStream->Release();
        ids[t].push_back(id);
        // Shrink every other one, so the pool is pushed and popped by all threads.
        if (i % 2 && SUCCEEDED(db->OpenRecordField(id, FALSE, RECFLD_PROPERTIES, &pStream))) {
          ULARGE_INTEGER liZero = {};
          pStream->SetSize(liZero);
          WriteAll(pStream, "short");
          pStream->Release();
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();

  std::set<DWORD> all;
  for (int t = 0; t < kThreads; ++t) {
    ASSERT_EQ(ids[t].size(), static_cast<size_t>(kRecords));
    for (int i = 0; i < kRecords; ++i) {
      DWORD id = ids[t][i];
      EXPECT_TRUE(all.insert(id).second) << "ID handed out twice: " << id;
      std::string data;
      IStream* pStream = NULL;
      ASSERT_EQ(db->OpenRecordField(id, FALSE, RECFLD_PROPERTIES, &pStream), S_OK);
      data = ReadAll(pStream);
      pStream->Release();
      EXPECT_EQ(data, i % 2 ? std::string("short") : Pattern(3000 + 100 * t, id)) << id;
    }
  }
  // Every stream above kept a reference: give them all back, and the index is saved.
  CDataBase* pDB = db.Get();
  db.Abandon();
  while (pDB->Release() != 0) {
  }
  Session reopened;
  ASSERT_EQ(reopened.Open(m_dir.Store()), S_OK);
  std::string data;
  EXPECT_EQ(reopened.Get(ids[0][0], RECFLD_PROPERTIES, &data), S_OK);
  EXPECT_EQ(data, Pattern(3000, ids[0][0]));
}

}  // namespace
