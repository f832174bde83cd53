// Console and debug output. The console is the process's standard streams; debug output goes to
// standard error or to the file named by $ARCHIVEDEPOT_DEBUG_OUTPUT.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "adplatform.h"
#include "consoleapi.h"
#include "debugapi.h"
#include "errhandlingapi.h"
#include "handleapi.h"
#include "win32/console.h"
#include "winerror.h"
#include "winnls.h"

namespace adp {

bool WriteAllFd(int fd, const void* data, size_t size) {
  auto* p = static_cast<const char*>(data);
  size_t done = 0;
  while (done < size) {
    ssize_t n = ::write(fd, p + done, size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace adp

namespace {

struct StdSlot {
  DWORD id;
  int fd;
  bool output;
  adp::ConsoleObject* object;  // one reference kept here, so CloseHandle never frees it
  bool registered;
};

std::mutex& StdLock() {  // guards StdSlots(); taken before the handle table's lock
  static std::mutex lock;
  return lock;
}

StdSlot* StdSlots() {
  static StdSlot slots[] = {{STD_INPUT_HANDLE, STDIN_FILENO, false, nullptr, false},
                            {STD_OUTPUT_HANDLE, STDOUT_FILENO, true, nullptr, false},
                            {STD_ERROR_HANDLE, STDERR_FILENO, true, nullptr, false}};
  return slots;
}

// Whether h is still in the handle table, without disturbing the caller's last error.
bool StillRegistered(HANDLE h) {
  const DWORD saved = GetLastError();
  adp::KernelObject* obj = adp::ReferenceHandle(h);
  SetLastError(saved);
  if (!obj) return false;
  obj->Release();
  return true;
}

HANDLE StdHandleLocked(StdSlot& slot) {
  if (!slot.object) slot.object = new adp::ConsoleObject(slot.fd, slot.output);
  if (!slot.registered || !StillRegistered(slot.object)) {
    slot.object->AddRef();  // the table's reference; ours stays
    adp::RegisterHandle(slot.object);
    slot.registered = true;
  }
  return static_cast<HANDLE>(slot.object);
}

BOOL Fail(DWORD error) {
  SetLastError(error);
  return FALSE;
}

BOOL WriteToConsole(HANDLE h, const std::string& bytes, DWORD reported, LPDWORD written) {
  adp::HandleRef<adp::ConsoleObject> console(h);
  if (!console) return FALSE;
  if (!console->IsOutput()) return Fail(ERROR_INVALID_HANDLE);
  if (!console->Write(bytes.data(), bytes.size())) return Fail(ERROR_WRITE_FAULT);
  if (written) *written = reported;
  return TRUE;
}

void WriteDebugText(const char* text, size_t len) {
  const int savedErrno = errno;
  const char* path = std::getenv("ARCHIVEDEPOT_DEBUG_OUTPUT");
  int fd = path && *path ? ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644) : -1;
  adp::WriteAllFd(fd >= 0 ? fd : STDERR_FILENO, text, len);
  if (fd >= 0) ::close(fd);
  errno = savedErrno;
}

}  // namespace

extern "C" {

BOOL AllocConsole() { return TRUE; }
BOOL FreeConsole() { return TRUE; }

HANDLE GetStdHandle(DWORD nStdHandle) {
  std::lock_guard<std::mutex> guard(StdLock());
  for (int i = 0; i < 3; ++i)
    if (StdSlots()[i].id == nStdHandle) return StdHandleLocked(StdSlots()[i]);
  SetLastError(ERROR_INVALID_PARAMETER);
  return INVALID_HANDLE_VALUE;
}

BOOL SetConsoleScreenBufferSize(HANDLE hConsoleOutput, COORD dwSize) {
  adp::HandleRef<adp::ConsoleObject> console(hConsoleOutput);
  if (!console) return FALSE;
  if (!console->IsOutput()) return Fail(ERROR_INVALID_HANDLE);
  if (dwSize.X <= 0 || dwSize.Y <= 0) return Fail(ERROR_INVALID_PARAMETER);
  return TRUE;
}

BOOL SetConsoleTitleA(LPCSTR lpConsoleTitle) { return lpConsoleTitle ? TRUE : Fail(ERROR_INVALID_PARAMETER); }

BOOL WriteConsoleA(HANDLE hConsoleOutput, const VOID* lpBuffer, DWORD nNumberOfCharsToWrite,
                   LPDWORD lpNumberOfCharsWritten, LPVOID) {
  if (!lpBuffer && nNumberOfCharsToWrite) return Fail(ERROR_INVALID_PARAMETER);
  std::string bytes(static_cast<const char*>(lpBuffer), lpBuffer ? nNumberOfCharsToWrite : 0);
  return WriteToConsole(hConsoleOutput, bytes, nNumberOfCharsToWrite, lpNumberOfCharsWritten);
}

BOOL WriteConsoleW(HANDLE hConsoleOutput, const VOID* lpBuffer, DWORD nNumberOfCharsToWrite,
                   LPDWORD lpNumberOfCharsWritten, LPVOID) {
  if (!lpBuffer && nNumberOfCharsToWrite) return Fail(ERROR_INVALID_PARAMETER);
  std::string bytes =
      lpBuffer ? adp::Utf16ToUtf8(static_cast<const char16_t*>(lpBuffer), nNumberOfCharsToWrite) : std::string();
  return WriteToConsole(hConsoleOutput, bytes, nNumberOfCharsToWrite, lpNumberOfCharsWritten);
}

UINT GetConsoleCP() { return CP_UTF8; }
UINT GetConsoleOutputCP() { return CP_UTF8; }

void OutputDebugStringA(LPCSTR lpOutputString) {
  if (lpOutputString) WriteDebugText(lpOutputString, std::strlen(lpOutputString));
}

void OutputDebugStringW(LPCWSTR lpOutputString) {
  if (!lpOutputString) return;
  std::string text = adp::Utf16ToUtf8(lpOutputString);
  WriteDebugText(text.data(), text.size());
}

BOOL IsDebuggerPresent() { return FALSE; }
void DebugBreak() {}

}  // extern "C"
