// A CNxLogger with a fixed clock and fixed IDs, and helpers to read what it wrote.
#pragma once
#include <windows.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "NxLogger.h"

namespace nxtest {

class CTestLogger : public CNxLogger {
 public:
  SYSTEMTIME stNow = {2024, 3, 2, 5, 7, 8, 9, 0};
  ULONGLONG ullTicks = 1000000;
  DWORD dwProcessId = 1234;
  DWORD dwThreadId = 0x1a;
  NxMachineFacts facts;
  std::atomic<int> cCreateCalls{0};
  std::atomic<int> cLargeBuffers{0};
  bool bThrowOnLargeBuffer = false;
  // Set to make CreateLogFile fail with this error instead of opening.
  DWORD dwFailOpenWith = 0;
  std::vector<std::string> fallback;

  CTestLogger() {
    facts.strComputerName = "HOST";
    facts.strUserName = "user";
    facts.strUserDomain = "DOMAIN";
    facts.strArchitecture = "AMD64";
    facts.strIpAddresses = "10.0.0.1";
    facts.strModule = "/opt/app/program";
    facts.strLibrary = "NxUtils";
    facts.strLibraryBuild = "test";
    facts.strOsType = "TestOS 1.0";
    facts.ulProcessorBits = 64;
  }

 protected:
  void GetLineTime(SYSTEMTIME* pst) override { *pst = stNow; }
  ULONGLONG GetTicks() override { return ullTicks; }
  DWORD GetLineProcessId() override { return dwProcessId; }
  DWORD GetLineThreadId() override { return dwThreadId; }
  void GetMachineFacts(NxMachineFacts& out) override { out = facts; }
  HANDLE CreateLogFile(LPCSTR pszPath) override {
    ++cCreateCalls;
    if (dwFailOpenWith) {
      SetLastError(dwFailOpenWith);
      return INVALID_HANDLE_VALUE;
    }
    return CNxLogger::CreateLogFile(pszPath);
  }
  LPSTR AllocateLargeBuffer() override {
    ++cLargeBuffers;
    if (bThrowOnLargeBuffer) throw std::bad_alloc();
    return CNxLogger::AllocateLargeBuffer();
  }
  void WriteFallback(LPCSTR pszText) override { fallback.push_back(pszText); }
};

inline std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// Splits on CR LF; a trailing piece without CR LF is kept as the last element.
inline std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  for (;;) {
    size_t end = text.find("\r\n", start);
    if (end == std::string::npos) {
      if (start < text.size()) lines.push_back(text.substr(start));
      return lines;
    }
    lines.push_back(text.substr(start, end - start));
    start = end + 2;
  }
}

// The lines of a log file after its header block (two frame lines of asterisks and the nine
// lines between them), or all of it when it has no header.
inline std::vector<std::string> BodyLines(const std::string& path) {
  std::vector<std::string> lines = SplitLines(ReadAll(path));
  if (!lines.empty() && lines[0].find_first_not_of('*') == std::string::npos && lines.size() >= 11)
    lines.erase(lines.begin(), lines.begin() + 11);
  return lines;
}

inline bool Exists(const std::string& path) { return std::filesystem::exists(path); }

}  // namespace nxtest
