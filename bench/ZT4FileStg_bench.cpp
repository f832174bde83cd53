// The per-insert rewrite of an ID list: a CIDList grown one ID at a time, each insert saved
// whole through the back end's record stream and released (which commits it), against the same
// node writes done with plain pwrite + fdatasync as the physical reference.
//
// The store's folder is $ARCHIVEDEPOT_BENCH_DIR (default: the temporary folder). The argument is
// the number of IDs; node_writes counts the 2064-byte node transfers of one full growth.
// The platform headers come first: <fcntl.h> defines names (LOCK_WRITE) that they declare.
#include "MemHeap.h"
#include "ZT4DBFile.h"
#include "ZT4FileStg.h"
#include "ZT4PropList.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "bench_folder.h"

namespace {

constexpr DWORD kListRecord = 10;

// A back end on a new store file; at the end every reference the streams keep is given back.
class BenchBackEnd {
 public:
  explicit BenchBackEnd(const BenchFolder& folder) {
    std::filesystem::remove(folder.Native());
    MAPIUID uid = {};
    char szName[] = "bench", szComment[] = "bench";
    if (FAILED(CommonOpenFile(folder.Store().c_str(), szName, szComment, &uid, &m_pDB, TRUE))) return;
    m_pBE = new CFileBackEnd(m_pDB, &uid, NULL);
  }
  ~BenchBackEnd() {
    if (m_pBE) m_pBE->Release();
    if (!m_pDB) return;
    ULONG cRefs = m_pDB->AddRef();
    for (ULONG i = 0; i < cRefs; ++i) m_pDB->Release();
  }
  CFileBackEnd* Get() const { return m_pBE; }
  ULONG Writes() const { return m_pDB ? m_pDB->GetNodeWriteCount() : 0; }

 private:
  CDataBase* m_pDB = NULL;
  CFileBackEnd* m_pBE = NULL;
};

DWORD NodesFor(size_t cbStream) { return static_cast<DWORD>((cbStream + DATA_SIZE - 1) / DATA_SIZE); }

void BM_IDListGrowth(benchmark::State& state) {
  const DWORD cIDs = static_cast<DWORD>(state.range(0));
  BenchFolder folder("zt4stgbench");
  int64_t cNodeWrites = 0;
  for (auto _ : state) {
    state.PauseTiming();
    BenchBackEnd store(folder);
    if (!folder.Ok() || !store.Get()) {
      state.SkipWithError("no store");
      break;
    }
    CIDList ids;
    ULONG cWritesBefore = store.Writes();
    state.ResumeTiming();
    for (DWORD dwID = 1; dwID <= cIDs; ++dwID) {
      IStream* pStream = NULL;
      if (FAILED(ids.Insert(dwID)) || FAILED(store.Get()->GetStream(kListRecord, RECFLD_CONTENTS, &pStream))) {
        state.SkipWithError("insert failed");
        break;
      }
      ids.SaveToStream(pStream);
      pStream->Release();  // the rewrite reaches the file here
    }
    state.PauseTiming();
    cNodeWrites += store.Writes() - cWritesBefore;
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * cIDs);
  state.counters["node_writes"] = benchmark::Counter(static_cast<double>(cNodeWrites), benchmark::Counter::kAvgIterations);
}
BENCHMARK(BM_IDListGrowth)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same list bytes node by node, each node durable before the next, and one allocation-header
// write whenever the list needs one node more.
void BM_IDListGrowthPhysical(benchmark::State& state) {
  const DWORD cIDs = static_cast<DWORD>(state.range(0));
  BenchFolder folder("zt4stgbench");
  int fd = folder.Ok() ? open(folder.Native().c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600) : -1;
  if (fd < 0) {
    state.SkipWithError("no file");
    return;
  }
  std::vector<DWORD> image;
  DATA_NODE node = {};
  FREENODES_HEADER fnh = {1, OFFSET_FIRST_DATA_NODE, OFFSET_FIRST_FREE_NODE};
  int64_t cNodeWrites = 0;
  for (auto _ : state) {
    image.assign(1, 0);
    DWORD cNodesHeld = 0;
    for (DWORD dwID = 1; dwID <= cIDs; ++dwID) {
      image[0] = dwID;
      image.push_back(dwID);
      const size_t cbImage = image.size() * sizeof(DWORD);
      const DWORD cNodes = NodesFor(cbImage);
      if (cNodes > cNodesHeld) {
        fnh.dwNextNodeOffSet = OFFSET_FIRST_DATA_NODE + cNodes * NODE_SIZE;
        benchmark::DoNotOptimize(pwrite(fd, &fnh, sizeof(fnh), OFFSET_FREENODES_HEADER));
        fdatasync(fd);
        cNodesHeld = cNodes;
      }
      const BYTE* pb = reinterpret_cast<const BYTE*>(image.data());
      for (DWORD iNode = 0; iNode < cNodes; ++iNode) {
        size_t cbPart = std::min<size_t>(DATA_SIZE, cbImage - iNode * size_t(DATA_SIZE));
        node.wNodeType = NODE_TYPE_DATA;
        node.wSize = static_cast<WORD>(cbPart);
        node.dwOffSet = OFFSET_FIRST_DATA_NODE + iNode * NODE_SIZE;
        node.dwOffSetNextNode = iNode + 1 < cNodes ? node.dwOffSet + NODE_SIZE : 0;
        memcpy(node.bRawData, pb + iNode * size_t(DATA_SIZE), cbPart);
        benchmark::DoNotOptimize(pwrite(fd, &node, sizeof(node), node.dwOffSet));
        fdatasync(fd);
        ++cNodeWrites;
      }
    }
  }
  close(fd);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * cIDs);
  state.counters["node_writes"] = benchmark::Counter(static_cast<double>(cNodeWrites), benchmark::Counter::kAvgIterations);
}
BENCHMARK(BM_IDListGrowthPhysical)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  static int s_module;
  if (!ZT4ProcessAttach(reinterpret_cast<HINSTANCE>(&s_module))) return 1;
  SetMAPIAllocRoutines(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  ZT4ProcessDetach();
  return 0;
}
