// Names of MAPI property tags for logs and diagnostics. Not a published API: provider code that
// must build against the real SDK does not include this.
#pragma once
#include "winnt.h"

namespace adp {

// The standard "PR_..." name of ulPropTag: the exact tag first (the plain name before its _A
// form), else the name of any tag with the same property identifier, preferring names without
// _W/_A. nullptr when the identifier has no published name. The string is static.
const char* PropTagName(ULONG ulPropTag);

}  // namespace adp
