// printf-style formatting with the Microsoft C runtime's rules (see crtcompat.h), behind the
// _snprintf, swprintf_s and wsprintf families.
#pragma once
#include <cstdarg>
#include <string>

namespace adp::format {

// Appends the formatted text to out. False for a NULL format, %n, or a width or precision too
// large to honour; out is then unspecified.
bool Format(std::string& out, const char* format, va_list args);
bool Format(std::u16string& out, const char16_t* format, va_list args);

}  // namespace adp::format
