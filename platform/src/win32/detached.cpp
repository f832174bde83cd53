// Detached processes over posix_spawn: a session of their own, so a terminal's signals and the
// starter's exit leave them running.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "adplatform_process.h"

extern char** environ;

namespace adp {
namespace {

// posix_spawn file actions and attributes, destroyed at scope end.
class SpawnSetup {
 public:
  SpawnSetup() {
    m_ok = posix_spawn_file_actions_init(&m_actions) == 0;
    m_ok = posix_spawnattr_init(&m_attr) == 0 && m_ok;
  }
  ~SpawnSetup() {
    posix_spawn_file_actions_destroy(&m_actions);
    posix_spawnattr_destroy(&m_attr);
  }
  SpawnSetup(const SpawnSetup&) = delete;
  SpawnSetup& operator=(const SpawnSetup&) = delete;

  bool Prepare(const std::string& outputPath) {
    const char* out = outputPath.empty() ? "/dev/null" : outputPath.c_str();
    sigset_t none;
    sigemptyset(&none);
    return m_ok && posix_spawn_file_actions_addopen(&m_actions, 0, "/dev/null", O_RDONLY, 0) == 0 &&
           posix_spawn_file_actions_addopen(&m_actions, 1, out, O_WRONLY | O_CREAT | O_APPEND, 0600) == 0 &&
           posix_spawn_file_actions_adddup2(&m_actions, 1, 2) == 0 &&
           posix_spawnattr_setsigmask(&m_attr, &none) == 0 &&
           posix_spawnattr_setflags(&m_attr, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK) == 0;
  }
  const posix_spawn_file_actions_t* Actions() const { return &m_actions; }
  const posix_spawnattr_t* Attributes() const { return &m_attr; }

 private:
  bool m_ok = false;
  posix_spawn_file_actions_t m_actions;
  posix_spawnattr_t m_attr;
};

// The state letter of /proc/<pid>/stat ('Z' for a process that ended); 0 when unreadable.
char ProcessState(DWORD pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string stat;
  if (!std::getline(in, stat)) return 0;
  size_t paren = stat.rfind(')');  // the command name may hold spaces and parentheses
  return paren != std::string::npos && paren + 2 < stat.size() ? stat[paren + 2] : 0;
}

}  // namespace

DWORD StartDetachedProcess(const std::string& program, const std::vector<std::string>& args,
                           const std::string& outputPath, std::string* error) {
  SpawnSetup setup;
  if (!setup.Prepare(outputPath)) {
    if (error) *error = "cannot prepare the process start";
    return 0;
  }
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(program.c_str()));
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = 0;
  int rc = posix_spawn(&pid, program.c_str(), setup.Actions(), setup.Attributes(), argv.data(), environ);
  if (rc != 0) {
    if (error) *error = "cannot start " + program + ": " + std::strerror(rc);
    return 0;
  }
  return static_cast<DWORD>(pid);
}

bool ProcessRunning(DWORD pid) {
  if (pid == 0 || pid > 0x7FFFFFFF) return false;
  int status = 0;
  if (waitpid(static_cast<pid_t>(pid), &status, WNOHANG) == static_cast<pid_t>(pid)) return false;
  if (kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) return false;
  char state = ProcessState(pid);
  return state != 'Z' && state != 'X' && (state != 0 || kill(static_cast<pid_t>(pid), 0) == 0);
}

}  // namespace adp
