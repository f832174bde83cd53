// Private controls for the messaging layer: where a loaded module lives, and symbolic links, so
// that the subsystem can make its own library loadable under the names that clients look for
// (mapistub.dll, mapi32.dll). No Win32 counterpart; provider code never includes this.
#pragma once
#include <string>

namespace adp {

// Full, resolved path of the loaded module that holds `address` (a function or object of it);
// "" when no module holds it.
std::string ModulePathOf(const void* address);

// Makes `linkPath` a symbolic link to `target`. What was there is replaced atomically (a link is
// made beside it and renamed over it), so two processes may race safely. false on failure.
bool ReplaceWithSymlink(const std::string& target, const std::string& linkPath);

}  // namespace adp
