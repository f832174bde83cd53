// GCC 12 reports a false maybe-uninitialized inside <regex> when it inlines the compiler's state
// machine; this file holds nothing else, so the warning is silenced here alone.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include "mapi/propregex.h"

#include <regex>
#include <string>

#include "mapi/proptext.h"

namespace adp::mapi {

namespace {

// The matcher recurses per character, so longer subjects do not match rather than risk the stack.
constexpr size_t kMaxSubject = 16384;

std::wstring WideOf(const std::u32string& text) {
  static_assert(sizeof(wchar_t) == sizeof(char32_t), "wchar_t holds a code point here");
  return std::wstring(text.begin(), text.end());
}

std::u32string TextOf(const SPropValue& v) {
  return PROP_TYPE(v.ulPropTag) == PT_UNICODE ? CodePointsOf(v.Value.lpszW) : CodePointsOf(v.Value.lpszA);
}

}  // namespace

bool MatchesPattern(const SPropValue& subject, const SPropValue& pattern) {
  ULONG type = PROP_TYPE(subject.ulPropTag);
  if (type != PT_STRING8 && type != PT_UNICODE) return false;
  if (PROP_TYPE(pattern.ulPropTag) != type) return false;
  if (!subject.Value.lpszA || !pattern.Value.lpszA) return false;
  std::u32string text = TextOf(subject);
  if (text.size() > kMaxSubject) return false;
  try {
    std::wregex re(WideOf(TextOf(pattern)), std::regex_constants::ECMAScript | std::regex_constants::icase);
    return std::regex_search(WideOf(text), re);
  } catch (...) {
    return false;
  }
}

}  // namespace adp::mapi
