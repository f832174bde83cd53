// What the client and the spooler program agree on: where the spooler of a profile says it is
// ready, where its output goes, and the named event that asks it to stop.
#pragma once
#include <string>

#include "windows.h"

namespace adcli {

inline constexpr const char* kSpoolerProgram = "archivedepot-spooler";

// Profile names compare without regard to case, so the names below use the lower-case form.
std::string SpoolerStopEventName(const std::string& profile);
// In the profile's runtime directory; "" when the profile does not exist.
std::string SpoolerReadyPath(const std::string& profile);
std::string SpoolerLogPath(const std::string& profile);

// The ready file holds "pid=<n>" on its first line. 0 when it is missing or unreadable.
DWORD ReadSpoolerPid(const std::string& readyPath);
// Written whole under a temporary name first, so a reader never sees half of it.
bool WriteSpoolerReady(const std::string& readyPath, DWORD pid, const std::string& profile);

}  // namespace adcli
