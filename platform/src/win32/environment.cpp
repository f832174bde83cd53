// The process environment over the C runtime's, with Windows' standard machine variables filled
// in from this machine when the environment lacks them (see processenv.h).
#include <pwd.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "windows.h"

namespace {

// setenv/getenv are not safe against each other; every access here goes through this lock.
std::mutex& EnvironmentLock() {
  static std::mutex lock;
  return lock;
}

std::string HostName() {
  char name[256] = {0};
  if (gethostname(name, sizeof(name) - 1) != 0) return std::string();
  return name;
}

std::string LoginName() {
  struct passwd pw;
  struct passwd* result = nullptr;
  char buffer[4096];
  if (getpwuid_r(geteuid(), &pw, buffer, sizeof(buffer), &result) == 0 && result) return result->pw_name;
  const char* user = std::getenv("USER");
  return user ? user : std::string();
}

std::string ProcessorArchitecture() {
  struct utsname u;
  if (uname(&u) != 0) return std::string();
  std::string machine = u.machine;
  if (machine == "x86_64" || machine == "amd64") return "AMD64";
  if (machine == "aarch64" || machine == "arm64") return "ARM64";
  if (machine.compare(0, 3, "arm") == 0) return "ARM";
  if (machine.size() == 4 && machine[0] == 'i' && machine.compare(2, 2, "86") == 0) return "x86";
  return machine;
}

std::string SystemName() {
  struct utsname u;
  if (uname(&u) != 0) return std::string();
  return std::string(u.sysname) + " " + u.release;
}

// The machine's value of one of Windows' standard variables; false for any other name.
bool StandardValue(const std::string& name, std::string& value) {
  if (strcasecmp(name.c_str(), "COMPUTERNAME") == 0 || strcasecmp(name.c_str(), "USERDOMAIN") == 0)
    value = HostName();
  else if (strcasecmp(name.c_str(), "USERNAME") == 0)
    value = LoginName();
  else if (strcasecmp(name.c_str(), "PROCESSOR_ARCHITECTURE") == 0)
    value = ProcessorArchitecture();
  else if (strcasecmp(name.c_str(), "OS") == 0)
    value = SystemName();
  else
    return false;
  return !value.empty();
}

bool Lookup(const char* name, std::string& value) {
  {
    std::lock_guard<std::mutex> guard(EnvironmentLock());
    if (const char* v = std::getenv(name)) {
      value = v;
      return true;
    }
  }
  return StandardValue(name, value);
}

}  // namespace

extern "C" {

DWORD WINAPI GetEnvironmentVariableA(LPCSTR lpName, LPSTR lpBuffer, DWORD nSize) {
  if (!lpName || !*lpName || std::strchr(lpName, '=')) {
    SetLastError(ERROR_ENVVAR_NOT_FOUND);
    return 0;
  }
  std::string value;
  if (!Lookup(lpName, value)) {
    SetLastError(ERROR_ENVVAR_NOT_FOUND);
    return 0;
  }
  if (!lpBuffer || value.size() >= nSize) return static_cast<DWORD>(value.size() + 1);
  std::memcpy(lpBuffer, value.c_str(), value.size() + 1);
  SetLastError(ERROR_SUCCESS);
  return static_cast<DWORD>(value.size());
}

BOOL WINAPI SetEnvironmentVariableA(LPCSTR lpName, LPCSTR lpValue) {
  if (!lpName || !*lpName || std::strchr(lpName, '=')) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  std::lock_guard<std::mutex> guard(EnvironmentLock());
  int rc = lpValue ? setenv(lpName, lpValue, 1) : unsetenv(lpName);
  if (rc != 0) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return FALSE;
  }
  return TRUE;
}

}  // extern "C"
