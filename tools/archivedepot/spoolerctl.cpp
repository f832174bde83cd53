#include "spoolerctl.h"

#include <filesystem>
#include <fstream>

#include "session.h"

namespace adcli {
namespace {

std::string Lower(std::string s) {
  for (char& c : s) c = (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
  return s;
}

std::string InRuntime(const std::string& profile, const char* file) {
  std::string dir = adm::ProfileRuntimeDirectory(profile.c_str());
  return dir.empty() ? std::string() : dir + "/" + file;
}

}  // namespace

std::string SpoolerStopEventName(const std::string& profile) { return "ArchiveDepotSpoolerStop." + Lower(profile); }

std::string SpoolerReadyPath(const std::string& profile) { return InRuntime(profile, "spooler.ready"); }

std::string SpoolerLogPath(const std::string& profile) { return InRuntime(profile, "spooler.log"); }

DWORD ReadSpoolerPid(const std::string& readyPath) {
  std::ifstream in(readyPath);
  std::string line;
  if (!in || !std::getline(in, line) || line.rfind("pid=", 0) != 0) return 0;
  try {
    unsigned long pid = std::stoul(line.substr(4));
    return pid <= 0x7FFFFFFF ? static_cast<DWORD>(pid) : 0;
  } catch (const std::exception&) {
    return 0;
  }
}

bool WriteSpoolerReady(const std::string& readyPath, DWORD pid, const std::string& profile) {
  std::string temp = readyPath + ".new";
  {
    std::ofstream out(temp, std::ios::trunc);
    out << "pid=" << pid << "\nprofile=" << profile << "\n";
    if (!out.flush()) return false;
  }
  std::error_code ec;
  std::filesystem::rename(temp, readyPath, ec);
  return !ec;
}

}  // namespace adcli
