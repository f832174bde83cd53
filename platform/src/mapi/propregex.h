// RELOP_RE for property values: the second value is an ECMAScript pattern searched for in the
// first, without regard to case as the other text relations. Only PT_STRING8 and PT_UNICODE
// values match; a malformed pattern matches nothing.
#pragma once
#include "mapidefs.h"

namespace adp::mapi {

bool MatchesPattern(const SPropValue& subject, const SPropValue& pattern);

}  // namespace adp::mapi
