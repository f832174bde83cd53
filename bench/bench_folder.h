// A private folder for a storage benchmark's files, below $ARCHIVEDEPOT_BENCH_DIR (so a run can
// choose a disk or /dev/shm) or the temporary folder; removed with everything in it at the end.
#pragma once
#include <stdlib.h>

#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

class BenchFolder {
 public:
  explicit BenchFolder(const char* pszPrefix) {
    const char* env = getenv("ARCHIVEDEPOT_BENCH_DIR");
    std::string base = env && *env ? env : std::filesystem::temp_directory_path().string();
    std::string pattern = base + "/" + pszPrefix + "-XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data())) m_dir = buf.data();
  }
  ~BenchFolder() {
    std::error_code ec;
    if (!m_dir.empty()) std::filesystem::remove_all(m_dir, ec);
  }
  BenchFolder(const BenchFolder&) = delete;
  BenchFolder& operator=(const BenchFolder&) = delete;

  // The store file's path as the provider writes it, and as POSIX calls take it.
  std::string Store() const { return m_dir + "\\bench.CST"; }
  std::string Native() const { return m_dir + "/bench.CST"; }
  bool Ok() const { return !m_dir.empty(); }

 private:
  std::string m_dir;
};
