// Second process for the cross-process mutex and event tests. Exit codes: 0 success (or
// signalled), 1 timed out / did not exist, 2 abandoned, 3 a call failed, 4 bad arguments.
#include <cstdlib>
#include <cstring>
#include <string>

#include "windows.h"

namespace {

constexpr DWORD kPatience = 60 * 60 * 1000;  // system ms; seconds of wall time under test scales

int ByWaitResult(DWORD result) {
  switch (result) {
    case WAIT_OBJECT_0: return 0;
    case WAIT_TIMEOUT: return 1;
    case WAIT_ABANDONED: return 2;
    default: return 3;
  }
}

// Takes the mutex, tells the parent through the event, and waits to be killed.
int HoldMutex(const char* name, const char* ready) {
  HANDLE mutex = CreateMutexA(nullptr, FALSE, name);
  HANDLE event = OpenEventA(EVENT_MODIFY_STATE, FALSE, ready);
  if (!mutex || !event || WaitForSingleObject(mutex, kPatience) != WAIT_OBJECT_0) return 3;
  SetEvent(event);
  Sleep(INFINITE);
  return 0;
}

// Takes the mutex and ends the process without releasing it.
int ExitHolding(const char* name) {
  HANDLE mutex = CreateMutexA(nullptr, FALSE, name);
  return mutex && WaitForSingleObject(mutex, kPatience) == WAIT_OBJECT_0 ? 0 : 3;
}

int TryMutex(const char* name) {
  HANDLE mutex = OpenMutexA(SYNCHRONIZE, FALSE, name);
  if (!mutex) return 3;
  int code = ByWaitResult(WaitForSingleObject(mutex, 0));
  if (code == 0 || code == 2) ReleaseMutex(mutex);
  CloseHandle(mutex);
  return code;
}

int Exists(const char* name) {
  HANDLE mutex = CreateMutexA(nullptr, FALSE, name);
  if (!mutex) return 3;
  int code = GetLastError() == ERROR_ALREADY_EXISTS ? 0 : 1;
  CloseHandle(mutex);
  return code;
}

int SetNamedEvent(const char* name) {
  HANDLE event = OpenEventA(EVENT_MODIFY_STATE, FALSE, name);
  if (!event || !SetEvent(event)) return 3;
  CloseHandle(event);
  return 0;
}

int WaitNamedEvent(const char* name, const char* ms) {
  HANDLE event = OpenEventA(SYNCHRONIZE, FALSE, name);
  if (!event) return 3;
  int code = ByWaitResult(WaitForSingleObject(event, static_cast<DWORD>(std::strtoul(ms, nullptr, 10))));
  CloseHandle(event);
  return code;
}

}  // namespace

int main(int argc, char** argv) {
  std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "hold-mutex" && argc == 4) return HoldMutex(argv[2], argv[3]);
  if (mode == "exit-holding" && argc == 3) return ExitHolding(argv[2]);
  if (mode == "try-mutex" && argc == 3) return TryMutex(argv[2]);
  if (mode == "exists" && argc == 3) return Exists(argv[2]);
  if (mode == "set-event" && argc == 3) return SetNamedEvent(argv[2]);
  if (mode == "wait-event" && argc == 4) return WaitNamedEvent(argv[2], argv[3]);
  return 4;
}
