// Points the process-wide trace logger at a fresh folder for one test, and reads it back.
#pragma once
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "ZT4_TRACES.h"
#include "adplatform.h"
#include "test_home.h"

namespace zt4test {

class TraceLog {
 public:
  explicit TraceLog(int nLevel = 5) {
    std::string strError;
    GetTraceLogger().Initialize(strError, "TQProvider", (m_home.Root() + "/logs").c_str(), nLevel, TRUE, FALSE);
  }
  ~TraceLog() { GetTraceLogger().Close(); }
  TraceLog(const TraceLog&) = delete;
  TraceLog& operator=(const TraceLog&) = delete;

  std::string Text() const {
    std::ifstream in(adp::NativePath(GetTraceLogger().GetLogPath().c_str()), std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }
  bool Has(const std::string& part) const { return Text().find(part) != std::string::npos; }
  const adtest::TempHome& Home() const { return m_home; }

 private:
  adtest::TempHome m_home;
};

}  // namespace zt4test
