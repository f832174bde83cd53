// GUID text forms shared by the COM sources: "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx" (36 characters)
// with or without braces.
#pragma once
#include <string>
#include "guiddef.h"

namespace adp::com {

// Parses exactly 36 characters of the dashed form (hex digits of either case).
template <class Char> bool ParseDashed(const Char* text, GUID* guid);
// Parses "{...}" and nothing after it; a NUL-terminated text.
template <class Char> bool ParseBraced(const Char* text, GUID* guid);

std::string FormatDashed(const GUID& guid, bool upperCase);
std::string FormatBraced(const GUID& guid);  // upper case, as registry keys spell it

}  // namespace adp::com
