// MAPIInitialize / MAPIUninitialize bookkeeping for the rest of the subsystem.
#pragma once
#include <functional>

namespace adm {

// True between a process's first successful MAPIInitialize and its matching last
// MAPIUninitialize.
bool MapiInitialized();

// `hook` runs when the last MAPIUninitialize of the process ends the subsystem (hooks run in
// reverse order of registration, outside any lock, and are then forgotten).
void AddUninitializeHook(std::function<void()> hook);

}  // namespace adm
