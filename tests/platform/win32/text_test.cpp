#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <string>

#include "adplatform.h"
#include "windows.h"

namespace {

// "Zoë 東京 😀": an accent, CJK and a character outside the BMP (a surrogate pair).
const char kUtf8[] = "Zo\xC3\xAB \xE6\x9D\xB1\xE4\xBA\xAC \xF0\x9F\x98\x80";
const char16_t kUtf16[] = u"Zo\u00EB \u6771\u4EAC \U0001F600";

std::u16string Wide(const char* text) {
  int n = MultiByteToWideChar(CP_UTF8, 0, text, -1, nullptr, 0);
  std::u16string out(static_cast<size_t>(n), u'\0');
  MultiByteToWideChar(CP_UTF8, 0, text, -1, out.data(), n);
  out.resize(static_cast<size_t>(n) - 1);
  return out;
}

}  // namespace

TEST(Utf, ConvertsNonAsciiBothWaysAndReplacesInvalidInput) {
  EXPECT_EQ(adp::Utf8ToUtf16(kUtf8), kUtf16);
  EXPECT_EQ(adp::Utf16ToUtf8(kUtf16), kUtf8);
  EXPECT_EQ(adp::Utf8ToUtf16(kUtf8, 3), u"Zo\uFFFD");  // a cut through "ë" leaves one replacement
  EXPECT_EQ(adp::Utf8ToUtf16("a\xC3" "b"), u"a\uFFFDb");
  // Overlong form, encoded surrogate, stray continuation byte, beyond U+10FFFF.
  EXPECT_EQ(adp::Utf8ToUtf16("\xC0\xAF|\xED\xA0\x80|\x80|\xF4\x90\x80\x80"),
            u"\uFFFD\uFFFD|\uFFFD\uFFFD\uFFFD|\uFFFD|\uFFFD\uFFFD\uFFFD\uFFFD");
  EXPECT_EQ(adp::Utf8ToUtf16("\xE6\x9D"), u"\uFFFD");  // truncated sequence: one replacement
  const char16_t lone[] = {u'a', 0xD83D, u'b', 0xDE00, 0};
  EXPECT_EQ(adp::Utf16ToUtf8(lone), "a\xEF\xBF\xBD" "b\xEF\xBF\xBD");
  EXPECT_EQ(adp::Utf8ToUtf16(nullptr), u"");
  EXPECT_EQ(adp::Utf16ToUtf8(nullptr), "");
  std::string embedded("a\0b", 3);
  EXPECT_EQ(adp::Utf8ToUtf16(embedded.data(), embedded.size()), std::u16string(u"a\0b", 3));
}

TEST(MultiByteToWideChar, FollowsThePublishedSizeRules) {
  // -1 converts through the terminator and counts it.
  EXPECT_EQ(MultiByteToWideChar(CP_ACP, 0, kUtf8, -1, nullptr, 0), 10);
  WCHAR buf[32];
  ASSERT_EQ(MultiByteToWideChar(CP_ACP, MB_PRECOMPOSED, kUtf8, -1, buf, 32), 10);
  EXPECT_EQ(std::u16string(buf), kUtf16);
  // An explicit length converts exactly that many bytes, with no terminator.
  buf[2] = u'#';
  EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "abc", 2, buf, 32), 2);
  EXPECT_EQ(buf[0], u'a');
  EXPECT_EQ(buf[2], u'#');
  // One unit short: no room for the terminator.
  SetLastError(0);
  EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, kUtf8, -1, buf, 9), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
  // All the "ANSI" code pages are UTF-8.
  for (UINT cp : {CP_ACP, CP_OEMCP, CP_THREAD_ACP, CP_UTF8}) EXPECT_EQ(Wide(kUtf8), kUtf16) << cp;
  EXPECT_EQ(GetACP(), 65001u);
  EXPECT_EQ(GetOEMCP(), 65001u);
  EXPECT_TRUE(IsValidCodePage(CP_UTF8));
  EXPECT_FALSE(IsValidCodePage(1252));
}

TEST(MultiByteToWideChar, RejectsInvalidTextOnlyWhenAsked) {
  WCHAR buf[8];
  EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "a\xFF", 2, buf, 8), 2);
  EXPECT_EQ(buf[1], 0xFFFD);
  SetLastError(0);
  EXPECT_EQ(MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, "a\xFF", 2, buf, 8), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_UNICODE_TRANSLATION));
  EXPECT_EQ(MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, "ok", -1, nullptr, 0), 3);
}

TEST(MultiByteToWideChar, RefusesBadArguments) {
  WCHAR buf[8];
  struct Case {
    UINT cp;
    DWORD flags;
    const char* src;
    int srcLen;
    WCHAR* dst;
    int dstLen;
    DWORD error;
  } cases[] = {
      {1252, 0, "a", -1, buf, 8, ERROR_INVALID_PARAMETER},            // unsupported code page
      {CP_UTF7, 0, "a", -1, buf, 8, ERROR_INVALID_PARAMETER},
      {CP_UTF8, MB_PRECOMPOSED, "a", -1, buf, 8, ERROR_INVALID_FLAGS},  // UTF-8 takes no such flag
      {CP_ACP, MB_PRECOMPOSED | MB_COMPOSITE, "a", -1, buf, 8, ERROR_INVALID_FLAGS},
      {CP_ACP, 0x100, "a", -1, buf, 8, ERROR_INVALID_FLAGS},
      {CP_ACP, 0, nullptr, -1, buf, 8, ERROR_INVALID_PARAMETER},
      {CP_ACP, 0, "a", 0, buf, 8, ERROR_INVALID_PARAMETER},
      {CP_ACP, 0, "a", -2, buf, 8, ERROR_INVALID_PARAMETER},
      {CP_ACP, 0, "a", -1, nullptr, 8, ERROR_INVALID_PARAMETER},
      {CP_ACP, 0, "a", -1, buf, -1, ERROR_INVALID_PARAMETER},
  };
  for (const Case& c : cases) {
    SetLastError(0);
    EXPECT_EQ(MultiByteToWideChar(c.cp, c.flags, c.src, c.srcLen, c.dst, c.dstLen), 0) << c.cp << " " << c.flags;
    EXPECT_EQ(GetLastError(), c.error) << c.cp << " " << c.flags;
  }
  char same[8] = "abc";
  EXPECT_EQ(MultiByteToWideChar(CP_ACP, 0, same, -1, reinterpret_cast<WCHAR*>(same), 4), 0);
}

TEST(WideCharToMultiByte, FollowsThePublishedSizeRules) {
  EXPECT_EQ(WideCharToMultiByte(CP_ACP, 0, kUtf16, -1, nullptr, 0, nullptr, nullptr),
            static_cast<int>(sizeof kUtf8));
  char buf[32];
  ASSERT_EQ(WideCharToMultiByte(CP_UTF8, 0, kUtf16, -1, buf, sizeof buf, nullptr, nullptr),
            static_cast<int>(sizeof kUtf8));
  EXPECT_STREQ(buf, kUtf8);
  EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, u"\u6771x", 1, buf, sizeof buf, nullptr, nullptr), 3);
  SetLastError(0);
  EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, kUtf16, -1, buf, 5, nullptr, nullptr), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
}

TEST(WideCharToMultiByte, HandlesUnpairedSurrogatesAndDefaultCharacters) {
  const WCHAR lone[] = {u'a', 0xDC00, u'b', 0};
  char buf[32];
  EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, lone, -1, buf, sizeof buf, nullptr, nullptr), 6);
  EXPECT_STREQ(buf, "a\xEF\xBF\xBD" "b");
  SetLastError(0);
  EXPECT_EQ(WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, lone, -1, buf, sizeof buf, nullptr, nullptr), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_UNICODE_TRANSLATION));

  // CP_ACP callers written for a single-byte code page pass a default character.
  BOOL used = -1;
  EXPECT_EQ(WideCharToMultiByte(CP_ACP, 0, lone, -1, buf, sizeof buf, "?", &used), 4);
  EXPECT_STREQ(buf, "a?b");
  EXPECT_TRUE(used);
  EXPECT_EQ(WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, kUtf16, -1, buf, sizeof buf, "?", &used),
            static_cast<int>(sizeof kUtf8));
  EXPECT_FALSE(used);

  // CP_UTF8 refuses them, as published.
  SetLastError(0);
  EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, lone, -1, buf, sizeof buf, nullptr, &used), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  SetLastError(0);
  EXPECT_EQ(WideCharToMultiByte(CP_UTF8, WC_NO_BEST_FIT_CHARS, lone, -1, buf, sizeof buf, nullptr, nullptr), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_FLAGS));
  SetLastError(0);
  EXPECT_EQ(WideCharToMultiByte(850, 0, lone, -1, buf, sizeof buf, nullptr, nullptr), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  SetLastError(0);
  EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, nullptr, -1, buf, sizeof buf, nullptr, nullptr), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  SetLastError(0);
  EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, lone, -1, nullptr, 4, nullptr, nullptr), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST(CrtConversion, WcstombsCopiesWholeCharactersWithinTheLimit) {
  EXPECT_EQ(wcstombs(nullptr, kUtf16, 0), sizeof kUtf8 - 1);
  char buf[32];
  std::memset(buf, '#', sizeof buf);
  EXPECT_EQ(wcstombs(buf, kUtf16, sizeof buf), sizeof kUtf8 - 1);
  EXPECT_STREQ(buf, kUtf8);
  // Limit inside "東": only whole characters, and no terminator when none fits.
  std::memset(buf, '#', sizeof buf);
  EXPECT_EQ(wcstombs(buf, kUtf16, 6), 5u);
  EXPECT_EQ(std::string(buf, 6), std::string("Zo\xC3\xAB #", 6));
  std::memset(buf, '#', sizeof buf);
  EXPECT_EQ(wcstombs(buf, u"abc", 3), 3u);
  EXPECT_EQ(buf[3], '#');
  const WCHAR lone[] = {u'a', 0xD800, 0};
  errno = 0;
  EXPECT_EQ(wcstombs(buf, lone, sizeof buf), static_cast<size_t>(-1));
  EXPECT_EQ(errno, EILSEQ);
  errno = 0;
  EXPECT_EQ(wcstombs(buf, static_cast<const WCHAR*>(nullptr), sizeof buf), static_cast<size_t>(-1));
  EXPECT_EQ(errno, EINVAL);
}

TEST(CrtConversion, MbstowcsCountsWcharUnits) {
  EXPECT_EQ(mbstowcs(NULL, kUtf8, 0), 9u);  // the emoji is two WCHARs
  EXPECT_EQ(mbstowcs(nullptr, kUtf8, 0), 9u);
  WCHAR buf[16];
  EXPECT_EQ(mbstowcs(buf, kUtf8, 16), 9u);
  EXPECT_EQ(std::u16string(buf), kUtf16);
  // Room for 8 units: the surrogate pair is not split, and the terminator is not written.
  std::fill(std::begin(buf), std::end(buf), u'#');
  EXPECT_EQ(mbstowcs(buf, kUtf8, 8), 7u);
  EXPECT_EQ(buf[7], u'#');
  errno = 0;
  EXPECT_EQ(mbstowcs(buf, "bad\xFF", 16), static_cast<size_t>(-1));
  EXPECT_EQ(errno, EILSEQ);
}
