// Controls of the MAPI32 stand-in with no published counterpart, for tests and diagnostics.
// Provider code never includes this.
#pragma once
#include <cstddef>

namespace adp {

// Number of MAPI allocator blocks alive now: roots from MAPIAllocateBuffer plus every block
// chained to them by MAPIAllocateMore. Freeing a root removes it and all its chained blocks.
size_t MapiLiveBlockCount();

}  // namespace adp
