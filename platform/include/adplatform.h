// Controls of the platform stand-in that have no Win32 counterpart. Provider code never includes
// this; messaging/, tools and tests use it to place state and to speed up time.
#pragma once
#include <cstdint>
#include <string>
#include "winnt.h"

namespace adp {

// State directory: $ARCHIVEDEPOT_HOME, else $XDG_DATA_HOME/archivedepot, else
// $HOME/.local/share/archivedepot. Read from the environment at each call and created on demand;
// no trailing separator.
std::string StateDirectory();
// Per-profile runtime files (sockets, locks) live below this: StateDirectory() + "/run".
std::string RuntimeDirectory();
// A Windows-style path ("C:\x\y", "\\x", "x\y") as a POSIX path: separators become '/', a drive
// prefix is dropped. POSIX paths pass unchanged.
std::string NativePath(const char* path);

// One clock drives Sleep, timed waits, timer queues and GetTickCount. Time scale s > 1 makes
// system time run s times faster than wall time: Sleep(10000) under scale 1000 takes 10 ms.
// Initial value from $ARCHIVEDEPOT_TIME_SCALE (default 1).
double TimeScale();
void SetTimeScale(double scale);
// Milliseconds of system time since the process's clock origin (GetTickCount64 reads this).
uint64_t SystemMilliseconds();
// Wall-clock duration for a system-time interval in milliseconds, under the current scale.
uint64_t WallMicrosecondsFor(uint64_t systemMilliseconds);

// UTF-8 <-> UTF-16 for internal use; invalid input is replaced, never rejected.
std::u16string Utf8ToUtf16(const char* text, size_t len = std::string::npos);
std::string Utf16ToUtf8(const char16_t* text, size_t len = std::u16string::npos);

}  // namespace adp
