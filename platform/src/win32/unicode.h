// UTF-8 and UTF-16 coding and simple case mapping, shared by the text families.
#pragma once
#include <cstddef>
#include <string>

namespace adp::unicode {

constexpr char32_t kReplacement = 0xFFFD;

// Decodes one code point at p (p < end) and advances p. An invalid sequence yields
// kReplacement, consumes its maximal valid prefix (at least one byte) and returns false.
bool DecodeUtf8(const unsigned char*& p, const unsigned char* end, char32_t& cp);
// Decodes one code point at p (p < end); an unpaired surrogate yields kReplacement and false.
bool DecodeUtf16(const char16_t*& p, const char16_t* end, char32_t& cp);

void AppendUtf8(std::string& out, char32_t cp);
void AppendUtf16(std::u16string& out, char32_t cp);
size_t Utf8Length(char32_t cp);

// Converts a whole buffer. strict: stop at the first invalid sequence and return false.
// Otherwise invalid input becomes U+FFFD and the result is true when none was met.
bool Utf8To16(const char* text, size_t len, std::u16string& out, bool strict);
bool Utf16To8(const char16_t* text, size_t len, std::string& out, bool strict);

// Simple (one to one) case mappings of Unicode; code points outside the BMP are unchanged.
char32_t ToUpper(char32_t cp);
char32_t ToLower(char32_t cp);
bool IsAlpha(char32_t cp);
// The key two code points are compared by when case is ignored.
inline char32_t Fold(char32_t cp) { return ToLower(ToUpper(cp)); }
inline char AsciiLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }
inline char AsciiUpper(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 32) : c; }

// Length of a NUL-terminated 16-bit string.
inline size_t Length16(const char16_t* s) {
  size_t n = 0;
  while (s[n]) ++n;
  return n;
}

}  // namespace adp::unicode
