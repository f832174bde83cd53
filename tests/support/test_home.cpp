#include "test_home.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "adplatform.h"

extern char** environ;

namespace adtest {
namespace {

void SetOrUnset(const char* name, bool had, const std::string& value) {
  if (had)
    setenv(name, value.c_str(), 1);
  else
    unsetenv(name);
}

}  // namespace

TempHome::TempHome(double timeScale) {
  std::string base = std::filesystem::temp_directory_path().string() + "/adtest-XXXXXX";
  std::vector<char> buf(base.begin(), base.end());
  buf.push_back('\0');
  if (!mkdtemp(buf.data())) throw std::runtime_error("mkdtemp failed");
  m_root = buf.data();
  m_home = m_root + "/home";
  m_temp = m_root + "/tmp/";
  std::filesystem::create_directories(m_home);
  std::filesystem::create_directories(m_temp);
  if (const char* v = getenv("ARCHIVEDEPOT_HOME")) m_hadHome = true, m_oldHome = v;
  if (const char* v = getenv("TMPDIR")) m_hadTemp = true, m_oldTemp = v;
  setenv("ARCHIVEDEPOT_HOME", m_home.c_str(), 1);
  setenv("TMPDIR", m_temp.c_str(), 1);
  if (timeScale > 0) {
    setenv("ARCHIVEDEPOT_TIME_SCALE", std::to_string(timeScale).c_str(), 1);
    adp::SetTimeScale(timeScale);
  }
}

TempHome::~TempHome() {
  SetOrUnset("ARCHIVEDEPOT_HOME", m_hadHome, m_oldHome);
  SetOrUnset("TMPDIR", m_hadTemp, m_oldTemp);
  std::error_code ec;
  std::filesystem::remove_all(m_root, ec);
}

std::string BinPath(const std::string& name) { return std::string(AD_TEST_BIN_DIR) + "/" + name; }

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& args) {
  std::string path = program.find('/') == std::string::npos ? BinPath(program) : program;
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(path.c_str()));
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawn(&pid, path.c_str(), nullptr, nullptr, argv.data(), environ) != 0)
    throw std::runtime_error("cannot start " + path);
  m_pid = pid;
}

ChildProcess::~ChildProcess() {
  if (m_pid > 0 && m_status < 0) {
    Kill();
    Wait(10000);
  }
}

int ChildProcess::Wait(int timeoutMs) {
  if (m_status >= 0) return m_status;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    int status = 0;
    pid_t r = waitpid(m_pid, &status, WNOHANG);
    if (r == m_pid) {
      m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      return m_status;
    }
    if (std::chrono::steady_clock::now() > deadline) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

void ChildProcess::Kill() {
  if (m_pid > 0 && m_status < 0) kill(m_pid, SIGKILL);
}

int RunChild(const std::string& program, const std::vector<std::string>& args, int timeoutMs) {
  ChildProcess child(program, args);
  return child.Wait(timeoutMs);
}

}  // namespace adtest
