// One table under writers, readers and sinks at once. The sinks call back into the table from
// OnNotify, which would deadlock if a table lock were held during delivery; they also replay
// the events they hear, which only adds up if delivery is complete and in order.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <map>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "table_test_support.h"

using namespace tabletest;

namespace {

constexpr int kWriters = 4;
constexpr int kReaders = 2;
constexpr LONG kKeysPerWriter = 100;
constexpr int kOpsPerWriter = 1500;

LONG FinalSize(LONG key) { return key % 100; }

// Replays the row events of one view: every addition must find the row absent, every change
// or deletion must find it present. Calls back into the table while it listens.
class ReplayingSink : public IMAPIAdviseSink {
 public:
  ReplayingSink(ITableData* data, LPMAPITABLE view, bool echo) : m_data(data), m_view(view), m_echo(echo) {}

  STDMETHOD(QueryInterface)(REFIID riid, void** ppv) override {
    if (!ppv) return E_INVALIDARG;
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  STDMETHOD_(ULONG, AddRef)() override { return ++m_refs; }
  STDMETHOD_(ULONG, Release)() override { return --m_refs; }
  STDMETHOD_(ULONG, OnNotify)(ULONG cNotif, LPNOTIFICATION lpNotifications) override {
    if (m_inside.exchange(true)) ++m_overlaps;  // two deliveries at once to one sink
    for (ULONG i = 0; i < cNotif; ++i) Replay(lpNotifications[i].info.tab);
    // Back into the table: both need the table lock.
    ULONG count = 0;
    if (m_view->GetRowCount(0, &count) != S_OK) ++m_errors;
    const TABLE_NOTIFICATION& t = lpNotifications[0].info.tab;
    if (t.propIndex.ulPropTag == kKey) {
      SPropValue key = t.propIndex;
      LPSRow row = nullptr;
      HRESULT hr = m_data->HrQueryRow(&key, &row, nullptr);
      if (hr == S_OK) MAPIFreeBuffer(row);
      else if (hr != MAPI_E_NOT_FOUND) ++m_errors;
      // A change made from inside a notification is delivered after this one returns.
      if (m_echo && t.ulTableEvent == TABLE_ROW_MODIFIED && m_echoes < 300) {
        ++m_echoes;
        HRESULT n = m_data->HrNotify(0, 1, &key);
        if (n != S_OK && n != MAPI_E_NOT_FOUND) ++m_errors;
      }
    }
    m_inside = false;
    return 0;
  }

  std::set<LONG> Present() const { return m_present; }
  int Violations() const { return m_violations; }
  int Errors() const { return m_errors; }
  int Overlaps() const { return m_overlaps; }
  long Heard() const { return m_heard; }

 private:
  void Replay(const TABLE_NOTIFICATION& t) {
    ++m_heard;
    LONG key = t.propIndex.Value.l;
    switch (t.ulTableEvent) {
      case TABLE_ROW_ADDED:
        if (!m_present.insert(key).second) ++m_violations;
        if (t.row.cValues == 0 || !Find(t.row, kKey) || Find(t.row, kKey)->Value.l != key) ++m_violations;
        break;
      case TABLE_ROW_MODIFIED:
        if (!m_present.count(key)) ++m_violations;
        break;
      case TABLE_ROW_DELETED:
        if (m_present.erase(key) != 1) ++m_violations;
        break;
      default:
        ++m_violations;  // this test makes no bulk change
    }
  }

  ITableData* m_data;
  LPMAPITABLE m_view;
  bool m_echo;
  std::atomic<ULONG> m_refs{1};
  std::atomic<bool> m_inside{false};
  std::atomic<int> m_overlaps{0};
  std::atomic<int> m_errors{0};
  int m_echoes = 0;
  // Touched by one delivering thread at a time; the table's hand-over orders them.
  std::set<LONG> m_present;
  int m_violations = 0;
  long m_heard = 0;
};

std::atomic<int> g_released{0};
void CountRelease(ULONG_PTR, LPTABLEDATA, LPMAPITABLE) { ++g_released; }

void Writer(ITableData* data, int w) {
  std::mt19937 rng(1234 + w);
  const LONG base = (w + 1) * 1000;
  for (int op = 0; op < kOpsPerWriter; ++op) {
    LONG key = base + LONG(rng() % kKeysPerWriter);
    switch (rng() % 4) {
      case 0:
      case 1:
        EXPECT_EQ(Put(data, Item(key, "w", LONG(rng() % 100))), S_OK);
        break;
      case 2: {
        SPropValue k = KeyValue(key);
        HRESULT hr = data->HrDeleteRow(&k);
        EXPECT_TRUE(hr == S_OK || hr == MAPI_E_NOT_FOUND);
        break;
      }
      default: {
        Row r = Item(key, "i", LONG(rng() % 100));
        SRow s = r.Get();
        HRESULT hr = data->HrInsertRow(ULONG(rng() % 50), &s);  // taken keys and far positions fail
        EXPECT_TRUE(hr == S_OK || hr == MAPI_E_INVALID_PARAMETER);
      }
    }
  }
  for (LONG k = base; k < base + kKeysPerWriter; ++k) EXPECT_EQ(Put(data, Item(k, "final", FinalSize(k))), S_OK);
}

void Reader(ITableData* data, LPMAPITABLE shared, std::atomic<bool>& stop, int r) {
  std::mt19937 rng(99 + r);
  SPropValue half{};
  half.ulPropTag = kSize;
  half.Value.l = 50;
  SRestriction big = PropertyRes(RELOP_GE, &half);
  while (!stop) {
    // The shared views: cursor, reads, searches and bookmarks while rows change under them.
    EXPECT_EQ(shared->SeekRow(BOOKMARK_BEGINNING, LONG(rng() % 100), nullptr), S_OK);
    BOOKMARK bk = 0;
    EXPECT_EQ(shared->CreateBookmark(&bk), S_OK);
    LPSRowSet rows = nullptr;
    EXPECT_EQ(shared->QueryRows(rng() % 2 ? 20 : -20, 0, &rows), S_OK);
    FreeProws(rows);
    HRESULT hr = shared->FindRow(&big, bk, rng() % 2 ? DIR_BACKWARD : 0);
    EXPECT_TRUE(hr == S_OK || hr == MAPI_E_NOT_FOUND || hr == MAPI_W_POSITION_CHANGED) << std::hex << hr;
    hr = shared->SeekRow(bk, 1, nullptr);
    EXPECT_TRUE(hr == S_OK || hr == MAPI_W_POSITION_CHANGED);
    EXPECT_EQ(shared->FreeBookmark(bk), S_OK);

    // A private view, sorted and restricted, made and dropped over and over.
    LPMAPITABLE mine = nullptr;
    Sort bySize;
    bySize.By(kSize, TABLE_SORT_DESCEND);
    ASSERT_EQ(data->HrGetView(bySize.Get(), CountRelease, 0, &mine), S_OK);
    EXPECT_EQ(mine->Restrict(&big, 0), S_OK);
    LPSRowSet all = nullptr;
    EXPECT_EQ(HrQueryAllRows(mine, nullptr, nullptr, nullptr, 0, &all), S_OK);
    for (ULONG i = 0; all && i < all->cRows; ++i) {
      const SPropValue* size = Find(all->aRow[i], kSize);
      ASSERT_TRUE(size);
      EXPECT_GE(size->Value.l, 50);
      if (i > 0) {
        EXPECT_LE(size->Value.l, Find(all->aRow[i - 1], kSize)->Value.l);
      }
    }
    FreeProws(all);
    mine->Release();
  }
}

void RunAll(ITableData* data, LPMAPITABLE sorted, LPMAPITABLE plain) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> readers;
  for (int r = 0; r < kReaders; ++r) readers.emplace_back(Reader, data, r % 2 ? plain : sorted, std::ref(stop), r);
  std::vector<std::thread> writers;
  for (int w = 0; w < kWriters; ++w) writers.emplace_back(Writer, data, w);
  for (auto& t : writers) t.join();
  stop = true;
  for (auto& t : readers) t.join();
}

}  // namespace

TEST(TableConcurrency, WritersReadersAndCallingBackSinksAgree) {
  ITableData* data = MakeTable();
  Sort order;
  order.By(kSize, TABLE_SORT_DESCEND).By(kKey);
  LPMAPITABLE sorted = MakeView(data, order.Get());
  SPropValue half{};
  half.ulPropTag = kSize;
  half.Value.l = 50;
  SRestriction big = PropertyRes(RELOP_GE, &half);
  ASSERT_EQ(sorted->Restrict(&big, 0), S_OK);
  LPMAPITABLE plain = MakeView(data);
  ReplayingSink sortedSink(data, sorted, false);
  ReplayingSink plainSink(data, plain, true);
  ULONG c1 = 0, c2 = 0;
  ASSERT_EQ(sorted->Advise(fnevTableModified, &sortedSink, &c1), S_OK);
  ASSERT_EQ(plain->Advise(fnevTableModified, &plainSink, &c2), S_OK);

  // A lock held during delivery would hang here: give up loudly instead.
  auto done = std::async(std::launch::async, RunAll, data, sorted, plain);
  if (done.wait_for(std::chrono::seconds(90)) != std::future_status::ready) {
    std::fprintf(stderr, "table threads did not finish: a lock is held across a callback\n");
    std::fflush(stderr);
    std::_Exit(1);
  }
  done.get();

  EXPECT_EQ(sortedSink.Overlaps(), 0);
  EXPECT_EQ(plainSink.Overlaps(), 0);
  EXPECT_EQ(sortedSink.Errors(), 0);
  EXPECT_EQ(plainSink.Errors(), 0);
  EXPECT_EQ(sortedSink.Violations(), 0);
  EXPECT_EQ(plainSink.Violations(), 0);
  EXPECT_GT(sortedSink.Heard(), 100);
  EXPECT_GT(plainSink.Heard(), 1000);
  EXPECT_EQ(g_released.load() > 0, true);

  // What the sinks pieced together is what the views show, and the views are what the writers
  // left: every key, each at its final size, sorted and restricted as asked.
  std::set<LONG> everyKey, bigKeys;
  for (int w = 0; w < kWriters; ++w)
    for (LONG k = (w + 1) * 1000; k < (w + 1) * 1000 + kKeysPerWriter; ++k) {
      everyKey.insert(k);
      if (FinalSize(k) >= 50) bigKeys.insert(k);
    }
  std::vector<LONG> plainKeys = Keys(plain);
  EXPECT_EQ(std::set<LONG>(plainKeys.begin(), plainKeys.end()), everyKey);
  EXPECT_EQ(plainKeys.size(), everyKey.size());
  EXPECT_EQ(plainSink.Present(), everyKey);
  std::vector<LONG> sortedKeys = Keys(sorted);
  EXPECT_EQ(sortedSink.Present(), bigKeys);
  std::vector<LONG> expected(bigKeys.begin(), bigKeys.end());
  std::stable_sort(expected.begin(), expected.end(),
                   [](LONG a, LONG b) { return FinalSize(a) > FinalSize(b); });
  EXPECT_EQ(sortedKeys, expected);

  sorted->Release();
  plain->Release();
  EXPECT_EQ(sortedSink.Present().size(), bigKeys.size());
  data->Release();
  EXPECT_EQ(sortedSink.Errors(), 0);
}
