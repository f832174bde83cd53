// The record file's write path: records created and committed through CMemoryStream with a
// one-node and a ten-node field 0, a field rewritten at equal size (every node reused in place),
// and, as the physical reference, the same bytes written with pwrite + fdatasync.
//
// The store's folder is $ARCHIVEDEPOT_BENCH_DIR (default: the temporary folder), so the same
// program measures a disk and /dev/shm. node_writes is the number of 2064-byte node transfers per
// operation; header_writes the 12-byte allocation-header writes per operation.
// The platform headers come first: <fcntl.h> defines names (LOCK_WRITE) that they declare.
#include "MemHeap.h"
#include "ZT4DBFile.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "bench_folder.h"

namespace {

constexpr int kRecordsPerStore = 2000;  // a fresh store after this many, to bound the file

// A database on a new file; the references its streams keep are given back at the end.
class BenchStore {
 public:
  explicit BenchStore(const BenchFolder& folder) : m_folder(folder) { Open(); }
  ~BenchStore() { Close(); }
  CDataBase* Get() const { return m_pDB; }
  void CountStream() { ++m_cStreams; }
  void Renew() {
    Close();
    Open();
  }
  ULONG Writes() const { return m_cWritesBefore + (m_pDB ? m_pDB->GetNodeWriteCount() : 0); }

 private:
  void Open() {
    std::filesystem::remove(m_folder.Native());
    MAPIUID uid = {};
    char szName[] = "bench", szComment[] = "bench";
    if (FAILED(CommonOpenFile(m_folder.Store().c_str(), szName, szComment, &uid, &m_pDB, TRUE))) m_pDB = NULL;
  }
  void Close() {
    if (!m_pDB) return;
    m_cWritesBefore += m_pDB->GetNodeWriteCount();
    for (; m_cStreams; --m_cStreams) m_pDB->Release();
    m_pDB->Release();
    m_pDB = NULL;
  }
  const BenchFolder& m_folder;
  CDataBase* m_pDB = NULL;
  ULONG m_cStreams = 0;
  ULONG m_cWritesBefore = 0;
};

void WriteField(IStream* pStream, const std::vector<char>& payload) {
  ULONG cb = 0;
  pStream->Write(payload.data(), static_cast<ULONG>(payload.size()), &cb);
  pStream->Release();
}

void BM_CreateRecord(benchmark::State& state) {
  BenchFolder folder("zt4dbbench");
  BenchStore store(folder);
  if (!folder.Ok() || !store.Get()) {
    state.SkipWithError("no store");
    return;
  }
  std::vector<char> payload(static_cast<size_t>(state.range(0)) * DATA_SIZE, 'r');
  ULONG cWrites = store.Writes();
  int cRecords = 0;
  for (auto _ : state) {
    if (++cRecords % kRecordsPerStore == 0) {
      state.PauseTiming();
      store.Renew();
      state.ResumeTiming();
    }
    DWORD id = 0;
    IStream* pStream = NULL;
    if (FAILED(store.Get()->CreateRecord(&id, &pStream))) {
      state.SkipWithError("CreateRecord failed");
      break;
    }
    store.CountStream();
    WriteField(pStream, payload);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
  state.counters["node_writes"] = benchmark::Counter(store.Writes() - cWrites, benchmark::Counter::kAvgIterations);
  state.counters["header_writes"] = benchmark::Counter(static_cast<double>(state.range(0)), benchmark::Counter::kDefaults);
}
BENCHMARK(BM_CreateRecord)->Arg(1)->Arg(10)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_RewriteEqualSize(benchmark::State& state) {
  BenchFolder folder("zt4dbbench");
  BenchStore store(folder);
  if (!folder.Ok() || !store.Get()) {
    state.SkipWithError("no store");
    return;
  }
  std::vector<char> payload(static_cast<size_t>(state.range(0)) * DATA_SIZE, 'w');
  DWORD id = 0;
  IStream* pStream = NULL;
  store.Get()->CreateRecord(&id, &pStream);
  store.CountStream();
  WriteField(pStream, payload);
  ULONG cWrites = store.Writes();
  for (auto _ : state) {
    if (FAILED(store.Get()->OpenRecordField(id, FALSE, RECFLD_PROPERTIES, &pStream))) {
      state.SkipWithError("OpenRecordField failed");
      break;
    }
    store.CountStream();
    WriteField(pStream, payload);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
  state.counters["node_writes"] = benchmark::Counter(store.Writes() - cWrites, benchmark::Counter::kAvgIterations);
  state.counters["header_writes"] = 0;
}
BENCHMARK(BM_RewriteEqualSize)->Arg(10)->Unit(benchmark::kMicrosecond)->UseRealTime();

// The same durable writes without the store: per record one 12-byte header write and one node
// per payload node, the nodes beyond the first each with one more header write.
void BM_PhysicalReference(benchmark::State& state) {
  BenchFolder folder("zt4dbbench");
  int fd = folder.Ok() ? open(folder.Native().c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600) : -1;
  if (fd < 0) {
    state.SkipWithError("no file");
    return;
  }
  const int cNodes = static_cast<int>(state.range(0));
  std::vector<char> node(NODE_SIZE, 'p');
  FREENODES_HEADER fnh = {1, OFFSET_FIRST_DATA_NODE, OFFSET_FIRST_FREE_NODE};
  int64_t cNodeWrites = 0;
  for (auto _ : state) {
    if (fnh.dwNextNodeOffSet >= OFFSET_FIRST_DATA_NODE + NODE_SIZE * kRecordsPerStore * cNodes)
      fnh.dwNextNodeOffSet = OFFSET_FIRST_DATA_NODE;
    for (int i = 0; i < cNodes; ++i) {
      fnh.dwNextNodeOffSet += NODE_SIZE;
      benchmark::DoNotOptimize(pwrite(fd, &fnh, sizeof(fnh), OFFSET_FREENODES_HEADER));
      fdatasync(fd);
    }
    for (int i = 0; i < cNodes; ++i) {
      off_t off = static_cast<off_t>(fnh.dwNextNodeOffSet) - static_cast<off_t>(NODE_SIZE) * (cNodes - i);
      benchmark::DoNotOptimize(pwrite(fd, node.data(), node.size(), off));
      fdatasync(fd);
      ++cNodeWrites;
    }
  }
  close(fd);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
  state.counters["node_writes"] = benchmark::Counter(static_cast<double>(cNodeWrites), benchmark::Counter::kAvgIterations);
  state.counters["header_writes"] = cNodes;
}
BENCHMARK(BM_PhysicalReference)->Arg(1)->Arg(10)->Unit(benchmark::kMicrosecond)->UseRealTime();

// Equal-size rewrite of ten nodes: ten node writes, no header write.
void BM_PhysicalRewrite(benchmark::State& state) {
  BenchFolder folder("zt4dbbench");
  int fd = folder.Ok() ? open(folder.Native().c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600) : -1;
  if (fd < 0) {
    state.SkipWithError("no file");
    return;
  }
  const int cNodes = static_cast<int>(state.range(0));
  std::vector<char> node(NODE_SIZE, 'q');
  for (auto _ : state) {
    for (int i = 0; i < cNodes; ++i) {
      benchmark::DoNotOptimize(pwrite(fd, node.data(), node.size(), OFFSET_FIRST_DATA_NODE + NODE_SIZE * i));
      fdatasync(fd);
    }
  }
  close(fd);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
  state.counters["node_writes"] = cNodes;
  state.counters["header_writes"] = 0;
}
BENCHMARK(BM_PhysicalRewrite)->Arg(10)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  static int s_module;
  if (!ZT4ProcessAttach(reinterpret_cast<HINSTANCE>(&s_module))) return 1;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  ZT4ProcessDetach();
  return 0;
}
