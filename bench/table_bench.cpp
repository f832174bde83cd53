// The MAPI table family at folder scale: filling 100 000 rows, sorting them on two keys, reading
// pages of 50, searching with FindRow, and the heap each row costs.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "mapicode.h"
#include "mapitags.h"
#include "mapiutil.h"

namespace {

constexpr ULONG kKey = PR_INSTANCE_KEY;
constexpr ULONG kSubject = PROP_TAG(PT_STRING8, 0x0037);
constexpr ULONG kSize = PROP_TAG(PT_LONG, 0x0E08);
constexpr ULONG kTime = PROP_TAG(PT_SYSTIME, 0x0E06);
constexpr ULONG kFlags = PROP_TAG(PT_LONG, 0x0E07);
constexpr LONG kRows = 100000;

struct Columns {
  ULONG cValues = 5;
  ULONG aulPropTag[5] = {kKey, kSubject, kSize, kTime, kFlags};
};

// Row values of a message-like row: a binary key, a subject, size, time and flags.
class RowMaker {
 public:
  SRow Make(LONG i) {
    m_key = uint64_t(i) * 0x9E3779B97F4A7C15ull;
    m_subject = "Subject " + std::to_string((i * 7919) % 5000);
    m_values[0].ulPropTag = kKey;
    m_values[0].Value.bin = {sizeof m_key, reinterpret_cast<LPBYTE>(&m_key)};
    m_values[1].ulPropTag = kSubject;
    m_values[1].Value.lpszA = m_subject.data();
    m_values[2].ulPropTag = kSize;
    m_values[2].Value.l = LONG((i * 31) % 100000);
    m_values[3].ulPropTag = kTime;
    m_values[3].Value.ft = {ULONG(i * 13), ULONG(1000 + i % 17)};
    m_values[4].ulPropTag = kFlags;
    m_values[4].Value.l = i & 3;
    return SRow{0, 5, m_values};
  }
  SPropValue Key(LONG i) {
    Make(i);
    return m_values[0];
  }

 private:
  uint64_t m_key = 0;
  std::string m_subject;
  SPropValue m_values[5] = {};
};

ITableData* NewTable() {
  Columns columns;
  LPTABLEDATA data = nullptr;
  CreateTable(&IID_IMAPITableData, MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer, nullptr, TBLTYPE_DYNAMIC,
              kKey, reinterpret_cast<LPSPropTagArray>(&columns), &data);
  return data;
}

void Fill(ITableData* data) {
  RowMaker maker;
  for (LONG i = 0; i < kRows; ++i) {
    SRow row = maker.Make(i);
    data->HrModifyRow(&row);
  }
}

struct Release {
  void operator()(IUnknown* p) const { p->Release(); }
};
using TableRef = std::unique_ptr<ITableData, Release>;
using ViewRef = std::unique_ptr<IMAPITable, Release>;

// A filled table with one view, shared by the read benchmarks.
struct Shared {
  TableRef data{NewTable()};
  ViewRef view;
  Shared() {
    Fill(data.get());
    LPMAPITABLE v = nullptr;
    data->HrGetView(nullptr, nullptr, 0, &v);
    view.reset(v);
  }
};

Shared& Filled() {
  static Shared shared;
  return shared;
}

struct TwoKeys {
  ULONG cSorts = 2, cCategories = 0, cExpanded = 0;
  SSortOrder aSort[2];
  TwoKeys(ULONG direction) : aSort{{kSubject, TABLE_SORT_ASCEND}, {kTime, direction}} {}
  LPSSortOrderSet Get() { return reinterpret_cast<LPSSortOrderSet>(this); }
};

void BM_HrModifyRow(benchmark::State& state) {
  bool withSortedView = state.range(0) != 0;
  double bytesPerRow = 0;
  for (auto _ : state) {
    size_t before = mallinfo2().uordblks;
    TableRef data(NewTable());
    ViewRef view;
    if (withSortedView) {
      TwoKeys sort(TABLE_SORT_DESCEND);
      LPMAPITABLE v = nullptr;
      data->HrGetView(sort.Get(), nullptr, 0, &v);
      view.reset(v);
    }
    Fill(data.get());
    bytesPerRow = double(mallinfo2().uordblks - before) / kRows;
    state.PauseTiming();
    view.reset();
    data.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kRows);
  state.counters["bytes_per_row"] = bytesPerRow;
}
BENCHMARK(BM_HrModifyRow)->Arg(0)->Arg(1)->ArgName("sorted_view")->Unit(benchmark::kMillisecond);

void BM_SortTableTwoKeys(benchmark::State& state) {
  IMAPITable* view = Filled().view.get();
  ULONG direction = TABLE_SORT_ASCEND;
  for (auto _ : state) {
    direction ^= TABLE_SORT_DESCEND;
    TwoKeys sort(direction);
    if (view->SortTable(sort.Get(), 0) != S_OK) state.SkipWithError("SortTable failed");
  }
  state.SetItemsProcessed(state.iterations() * kRows);
}
BENCHMARK(BM_SortTableTwoKeys)->Unit(benchmark::kMillisecond);

void BM_QueryRowsPage50(benchmark::State& state) {
  IMAPITable* view = Filled().view.get();
  std::mt19937 rng(7);
  for (auto _ : state) {
    view->SeekRow(BOOKMARK_BEGINNING, LONG(rng() % (kRows - 50)), nullptr);
    LPSRowSet rows = nullptr;
    view->QueryRows(50, 0, &rows);
    benchmark::DoNotOptimize(rows);
    FreeProws(rows);
  }
  state.SetItemsProcessed(state.iterations() * 50);
}
BENCHMARK(BM_QueryRowsPage50)->Unit(benchmark::kMicrosecond);

// FindRow walks rows from the origin: the cost is linear in the distance to the match.
void BM_FindRow(benchmark::State& state) {
  IMAPITable* view = Filled().view.get();
  RowMaker maker;
  std::mt19937 rng(11);
  for (auto _ : state) {
    SPropValue key = maker.Key(LONG(rng() % kRows));
    SRestriction r{};
    r.rt = RES_PROPERTY;
    r.res.resProperty = {RELOP_EQ, kKey, &key};
    if (view->FindRow(&r, BOOKMARK_BEGINNING, 0) != S_OK) state.SkipWithError("FindRow missed");
  }
}
BENCHMARK(BM_FindRow)->Unit(benchmark::kMillisecond);

// Keyed access for comparison: HrQueryRow finds a row by its index column directly.
void BM_HrQueryRow(benchmark::State& state) {
  ITableData* data = Filled().data.get();
  RowMaker maker;
  std::mt19937 rng(13);
  for (auto _ : state) {
    SPropValue key = maker.Key(LONG(rng() % kRows));
    LPSRow row = nullptr;
    data->HrQueryRow(&key, &row, nullptr);
    MAPIFreeBuffer(row);
  }
}
BENCHMARK(BM_HrQueryRow)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
