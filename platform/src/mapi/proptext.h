// Text as MAPI compares it: narrow strings are UTF-8 (CP_ACP here), wide strings UTF-16, and both
// are compared as sequences of code points, optionally without case or accents.
#pragma once
#include <string>

namespace adp::mapi {

// Code points of NUL-terminated text. A byte or unit that does not decode stands for itself in
// U+DC80..U+DCFF (bytes) or as the lone surrogate (units), so distinct inputs stay distinct.
std::u32string CodePointsOf(const char* text);
std::u32string CodePointsOf(const char16_t* text);

// Reads NUL-terminated text one code point at a time, with the same decoding as CodePointsOf,
// so comparisons need no copies. Next gives false at the end.
class CodePointReader {
 public:
  explicit CodePointReader(const char* text) : m_narrow(reinterpret_cast<const unsigned char*>(text)) {}
  explicit CodePointReader(const char16_t* text) : m_wide(text) {}
  bool Next(char32_t& cp);

 private:
  const unsigned char* m_narrow = nullptr;
  const char16_t* m_wide = nullptr;
};

// Simple one-to-one case folding for Latin, Greek and Cyrillic letters (to lower case).
char32_t FoldCase(char32_t c);
// The base letter of a precomposed Latin letter (é -> e); other code points are returned as is.
char32_t BaseLetter(char32_t c);
// Combining marks, which carry accents but take no space of their own.
bool IsNonSpacing(char32_t c);

// Applies the two loosenings that content restrictions ask for.
std::u32string NormalizeText(std::u32string text, bool ignoreCase, bool ignoreNonSpace);

}  // namespace adp::mapi
