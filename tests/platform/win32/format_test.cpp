#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "windows.h"

namespace {

std::string Narrow(const char* format, ...) {
  va_list args;
  va_start(args, format);
  int n = _vscprintf(format, args);
  va_end(args);
  if (n < 0) return "<error>";
  std::string out(static_cast<size_t>(n) + 1, '\0');
  va_start(args, format);
  _vsnprintf(out.data(), out.size(), format, args);
  va_end(args);
  out.resize(static_cast<size_t>(n));
  return out;
}

std::u16string Wide(const WCHAR* format, ...) {
  WCHAR buf[256];
  va_list args;
  va_start(args, format);
  int n = vswprintf_s(buf, 256, format, args);
  va_end(args);
  return n < 0 ? u"<error>" : std::u16string(buf);
}

}  // namespace

TEST(Format, IntegersUseTheWindowsWidths) {
  LONG negative = -1;
  DWORD all = 0xFFFFFFFF;
  EXPECT_EQ(Narrow("%ld|%lu|%lx|%08lX", negative, all, all, 0xBEEFul), "-1|4294967295|ffffffff|0000BEEF");
  EXPECT_EQ(Narrow("%I64d|%lld|%I64u|%llx", -5000000000LL, 5000000000LL, 18446744073709551615ULL, 255LL),
            "-5000000000|5000000000|18446744073709551615|ff");
  EXPECT_EQ(Narrow("%Iu|%zu|%I32d", static_cast<size_t>(1) << 40, static_cast<size_t>(7), -3),
            "1099511627776|7|-3");
  EXPECT_EQ(Narrow("%hd|%hhu|%+d|% d|%-4d|%04d|%#x|%o", 70000, 257, 5, 5, 7, -7, 255, 8),
            "4464|1|+5| 5|7   |-007|0xff|10");
  // The log line's columns: left-justified process and thread IDs of variable width.
  EXPECT_EQ(Narrow("%-*ld %-*lx ", 5, 1234L, 6, 0xabcL), "1234  abc    ");
  EXPECT_EQ(Narrow("%.*s(%u) - ", 3, "FunctionName", 42u), "Fun(42) - ");
  EXPECT_EQ(Narrow("%5.1f|%e|%g|%.3Lf", 3.14159, 1.5, 0.0001, static_cast<long double>(2.5)),
            "  3.1|1.500000e+00|0.0001|2.500");
  EXPECT_EQ(Narrow("100%%"), "100%");
}

TEST(Format, NarrowFormatsTakeWideTextWithCapitalS) {
  const WCHAR* name = u"Zo\u00EB \u6771\u4EAC";
  EXPECT_EQ(Narrow("[%S] [%ls] [%ws]", name, name, name), "[Zo\xC3\xAB \xE6\x9D\xB1\xE4\xBA\xAC] [Zo\xC3\xAB \xE6\x9D\xB1\xE4\xBA\xAC] [Zo\xC3\xAB \xE6\x9D\xB1\xE4\xBA\xAC]");
  EXPECT_EQ(Narrow("%s|%hs|%c|%C|%lc", "plain", "short", 'x', static_cast<int>(u'\u00E9'), static_cast<int>(u'\u00E8')),
            "plain|short|x|\xC3\xA9|\xC3\xA8");
  EXPECT_EQ(Narrow("%s|%S", static_cast<const char*>(nullptr), static_cast<const WCHAR*>(nullptr)), "(null)|(null)");
  // Precision counts bytes and never cuts a character in half.
  EXPECT_EQ(Narrow("%.3s|%.2S", "a\xC3\xA9z", u"\u00E9\u00E8"), "a\xC3\xA9|\xC3\xA9");
  EXPECT_EQ(Narrow("%.2s", "a\xC3\xA9z"), "a");
  EXPECT_EQ(Narrow("[%6s][%-6s]", "ab", "ab"), "[    ab][ab    ]");
  void* p = reinterpret_cast<void*>(static_cast<uintptr_t>(0x12FF7C));
  EXPECT_EQ(Narrow("%p", p), "000000000012FF7C");
}

TEST(Format, WideFormatsSwapTheMeaningOfS) {
  EXPECT_EQ(Wide(u"%s=%d", u"\u00E9t\u00E9", 5), u"\u00E9t\u00E9=5");
  EXPECT_EQ(Wide(u"%S|%hs|%ls", "n\xC3\xA4rrow", "h", u"w"), u"n\u00E4rrow|h|w");
  EXPECT_EQ(Wide(u"%c%C%lc", static_cast<int>(u'\u6771'), static_cast<int>('a'), static_cast<int>(u'b')), u"\u6771ab");
  EXPECT_EQ(Wide(u"%.1s|%5s", u"\U0001F600x", u"ab"), u"|   ab");  // a surrogate pair is not split
  EXPECT_EQ(Wide(u"%08.3f|%lu", 2.5, 4000000000ul), u"0002.500|4000000000");
  EXPECT_EQ(Wide(u"\u00FCber %d%%", 100), u"\u00FCber 100%");
}

TEST(Format, UnusualConversionsFailOrPassThrough) {
  int count = 0;
  char buf[32];
  errno = 0;
  EXPECT_EQ(_snprintf(buf, sizeof buf, "ab%n", &count), -1);  // %n is refused
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(Narrow("%y and %"), "%y and %");
  EXPECT_EQ(_snprintf(buf, sizeof buf, nullptr), -1);
  EXPECT_EQ(_scprintf(nullptr), -1);
}

TEST(SnprintfFamily, FollowsTheMicrosoftTruncationRules) {
  char buf[8];
  std::memset(buf, '#', sizeof buf);
  EXPECT_EQ(_snprintf(buf, 8, "%d", 1234), 4);
  EXPECT_STREQ(buf, "1234");
  std::memset(buf, '#', sizeof buf);
  EXPECT_EQ(_snprintf(buf, 4, "%d", 1234), 4);  // exactly count: no terminator
  EXPECT_EQ(std::string(buf, 5), "1234#");
  std::memset(buf, '#', sizeof buf);
  EXPECT_EQ(_snprintf(buf, 4, "%d", 123456), -1);  // more: cut to count, no terminator
  EXPECT_EQ(std::string(buf, 5), "1234#");
  EXPECT_EQ(_snprintf(nullptr, 0, "%s", "hello"), 5);
  EXPECT_EQ(_snprintf(nullptr, 3, "%s", "hello"), -1);

  errno = 0;
  EXPECT_EQ(sprintf_s(buf, sizeof buf, "%s", "too long!"), -1);
  EXPECT_EQ(errno, ERANGE);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(sprintf_s(buf, "%d-%d", 1, 2), 3);  // array form
  EXPECT_STREQ(buf, "1-2");
  EXPECT_EQ(sprintf_s(nullptr, 4, "x"), -1);

  EXPECT_EQ(_snprintf_s(buf, sizeof buf, _TRUNCATE, "%s", "truncated"), -1);
  EXPECT_STREQ(buf, "truncat");
  EXPECT_EQ(_snprintf_s(buf, sizeof buf, 3, "%s", "abcdef"), -1);  // count below the size cuts
  EXPECT_STREQ(buf, "abc");
  EXPECT_EQ(_snprintf_s(buf, sizeof buf, 3, "%s", "ab"), 2);
  errno = 0;
  EXPECT_EQ(_snprintf_s(buf, sizeof buf, 20, "%s", "abcdefghij"), -1);
  EXPECT_EQ(errno, ERANGE);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(_snprintf_s(buf, _TRUNCATE, "%s\xC3\xA9", "abcdef"), -1);  // never half a character
  EXPECT_STREQ(buf, "abcdef");
}

TEST(SnprintfFamily, WideFormsCountWchars) {
  WCHAR buf[6];
  EXPECT_EQ(swprintf_s(buf, u"%d", 12345), 5);
  EXPECT_EQ(std::u16string(buf), u"12345");
  EXPECT_EQ(swprintf_s(buf, 6, u"%d", 123456), -1);
  EXPECT_EQ(buf[0], 0);
  EXPECT_EQ(_snwprintf(buf, 3, u"%s", u"abcd"), -1);
  EXPECT_EQ(std::u16string(buf, 3), u"abc");
  EXPECT_EQ(_snwprintf_s(buf, _TRUNCATE, u"%s", u"abcdefgh"), -1);
  EXPECT_EQ(std::u16string(buf), u"abcde");
  EXPECT_EQ(swprintf(buf, 6, u"%ls", u"abcdefgh"), -1);  // ISO: cut and terminated
  EXPECT_EQ(std::u16string(buf), u"abcde");
  EXPECT_EQ(swprintf(buf, 6, u"%d", 42), 2);
  EXPECT_EQ(_scwprintf(u"%s!", u"\u6771\u4EAC"), 3);
}

TEST(SnprintfFamily, WsprintfStopsAt1024Characters) {
  std::string longText(2000, 'x');
  char out[2048];
  EXPECT_EQ(wsprintfA(out, "%s", longText.c_str()), 1023);
  EXPECT_EQ(std::strlen(out), 1023u);
  EXPECT_EQ(wsprintfA(out, "%lu items in %s", 3ul, "Inbox"), 16);
  EXPECT_STREQ(out, "3 items in Inbox");
  WCHAR wide[64];
  EXPECT_EQ(wsprintfW(wide, u"%s: %d", u"Inbox", 7), 8);
  EXPECT_EQ(std::u16string(wide), u"Inbox: 7");
}
