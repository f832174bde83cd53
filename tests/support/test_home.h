// Isolation for tests: a private state directory and temporary folder per test, and a way to run
// the helper programs that two-process tests need.
#pragma once
#include <string>
#include <vector>

namespace adtest {

// Creates a fresh directory tree, points ARCHIVEDEPOT_HOME and TMPDIR into it for the life of the
// object, and removes it afterwards. Time scale is set when given (0 leaves it alone).
class TempHome {
 public:
  explicit TempHome(double timeScale = 0);
  ~TempHome();
  TempHome(const TempHome&) = delete;
  TempHome& operator=(const TempHome&) = delete;

  const std::string& Root() const { return m_root; }
  const std::string& Home() const { return m_home; }
  const std::string& Temp() const { return m_temp; }  // ends in '/'

 private:
  std::string m_root, m_home, m_temp;
  std::string m_oldHome, m_oldTemp;
  bool m_hadHome = false, m_hadTemp = false;
};

// Full path of a program or module built beside the tests.
std::string BinPath(const std::string& name);

// A started helper program; the environment is inherited (so a TempHome applies to it).
class ChildProcess {
 public:
  ChildProcess(const std::string& program, const std::vector<std::string>& args);
  ~ChildProcess();  // kills the child if it still runs
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  int Pid() const { return m_pid; }
  // Waits for the exit and returns the exit status, or 128+signal for a killed child; -1 on
  // timeout (wall milliseconds).
  int Wait(int timeoutMs = 60000);
  void Kill();

 private:
  int m_pid = -1;
  int m_status = -1;
};

// Starts a program, waits for it, returns its exit status as ChildProcess::Wait does.
int RunChild(const std::string& program, const std::vector<std::string>& args, int timeoutMs = 60000);

}  // namespace adtest
