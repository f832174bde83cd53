// Programs that outlive the process that starts them (a client starting the spooler), and
// whether a process still runs. No Win32 counterpart here (CreateProcess with DETACHED_PROCESS
// would be one); provider code never includes this.
#pragma once
#include <string>
#include <vector>

#include "winnt.h"

namespace adp {

// Starts `program` with `args` in a session of its own, standard input from /dev/null and
// standard output and error appended to `outputPath` ("" discards them). The environment and
// current folder are the caller's. The process ID, or 0 with *error set.
DWORD StartDetachedProcess(const std::string& program, const std::vector<std::string>& args,
                           const std::string& outputPath, std::string* error);

// True while process `pid` exists and has not ended. An ended process that nobody has waited for
// yet counts as ended (and is waited for when it is the caller's child).
bool ProcessRunning(DWORD pid);

}  // namespace adp
