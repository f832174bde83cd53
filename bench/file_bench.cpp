// The file layer's hot paths as the store uses them: one 2064-byte node per seek and transfer on a
// write-through, random-access file, and registry reads of a single value (CoCreateInstance,
// PerfMode). Runs in a private state directory under the temporary folder.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <string>
#include <vector>

#include "windows.h"

namespace {

constexpr DWORD kNode = 2064;

// A private state directory for one benchmark, removed afterwards.
class PrivateFolder {
 public:
  PrivateFolder() {
    char base[] = "/tmp/adbench-XXXXXX";
    m_dir = mkdtemp(base) ? base : "";
    setenv("ARCHIVEDEPOT_HOME", (m_dir + "/home").c_str(), 1);
  }
  ~PrivateFolder() {
    std::error_code ec;
    if (!m_dir.empty()) std::filesystem::remove_all(m_dir, ec);
  }
  const std::string& Dir() const { return m_dir; }

 private:
  std::string m_dir;
};

HANDLE OpenStore(const std::string& path, DWORD flags) {
  return CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                     OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL | flags, nullptr);
}

void NodeWrites(benchmark::State& state, DWORD flags) {
  PrivateFolder folder;
  std::string path = folder.Dir() + "\\bench.CST";
  HANDLE h = OpenStore(path, flags);
  std::vector<char> node(kNode, 'n');
  DWORD n = 0, i = 0;
  for (auto _ : state) {
    SetFilePointer(h, static_cast<LONG>(512 + kNode * (i++ % 256)), nullptr, FILE_BEGIN);
    WriteFile(h, node.data(), kNode, &n, nullptr);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kNode);
  CloseHandle(h);
}

void BM_NodeWriteThrough(benchmark::State& state) {
  NodeWrites(state, FILE_FLAG_WRITE_THROUGH | FILE_FLAG_RANDOM_ACCESS);
}
BENCHMARK(BM_NodeWriteThrough);

void BM_NodeWriteBuffered(benchmark::State& state) { NodeWrites(state, FILE_FLAG_RANDOM_ACCESS); }
BENCHMARK(BM_NodeWriteBuffered);

void BM_NodeRead(benchmark::State& state) {
  PrivateFolder folder;
  std::string path = folder.Dir() + "\\bench.CST";
  HANDLE h = OpenStore(path, FILE_FLAG_RANDOM_ACCESS);
  std::vector<char> node(kNode, 'n');
  DWORD n = 0;
  for (int i = 0; i < 256; ++i) WriteFile(h, node.data(), kNode, &n, nullptr);
  DWORD i = 0;
  for (auto _ : state) {
    SetFilePointer(h, static_cast<LONG>(kNode * (i++ % 256)), nullptr, FILE_BEGIN);
    ReadFile(h, node.data(), kNode, &n, nullptr);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kNode);
  CloseHandle(h);
}
BENCHMARK(BM_NodeRead);

void BM_RegistryQueryDword(benchmark::State& state) {
  PrivateFolder folder;
  HKEY key = nullptr;
  RegCreateKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Microsoft\\Office\\Outlook\\Addins\\TQArchiverAddin", 0, nullptr, 0,
                  KEY_ALL_ACCESS, nullptr, &key, nullptr);
  DWORD value = 1;
  RegSetValueExA(key, "PerfMode", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof value);
  for (auto _ : state) {
    DWORD size = sizeof value;
    benchmark::DoNotOptimize(RegQueryValueExA(key, "PerfMode", nullptr, nullptr, reinterpret_cast<BYTE*>(&value), &size));
  }
  RegCloseKey(key);
}
BENCHMARK(BM_RegistryQueryDword);

void BM_RegistrySetDword(benchmark::State& state) {
  PrivateFolder folder;
  HKEY key = nullptr;
  RegCreateKeyExA(HKEY_CURRENT_USER, "Software\\TQProfile", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr);
  DWORD value = 0;
  for (auto _ : state) {
    ++value;
    RegSetValueExA(key, "DumpRow", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof value);
  }
  RegCloseKey(key);
}
BENCHMARK(BM_RegistrySetDword);

}  // namespace

BENCHMARK_MAIN();
