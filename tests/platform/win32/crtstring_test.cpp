#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include "windows.h"

TEST(LstrFamily, ComparesUtf8TextIgnoringCaseAndOrdersNullFirst) {
  EXPECT_EQ(lstrcmpiA("C:\\Store\\File.CST", "c:\\store\\file.cst"), 0);
  EXPECT_EQ(lstrcmpiA("\xC3\x89t\xC3\xA9", "\xC3\xA9T\xC3\x89"), 0);  // "Été" and "éTÉ"
  EXPECT_EQ(lstrcmpiA("IPM.Note", "IPM.Note.Draft"), -1);
  EXPECT_EQ(lstrcmpiA("b", "A"), 1);
  EXPECT_EQ(lstrcmpA("a", "B"), 1);  // case counts: 'a' sorts after 'B' by code point
  EXPECT_EQ(lstrcmpA("abc", "abc"), 0);
  EXPECT_EQ(lstrcmpiA(nullptr, "a"), -1);
  EXPECT_EQ(lstrcmpiA("a", nullptr), 1);
  EXPECT_EQ(lstrcmpiA(nullptr, nullptr), 0);
  EXPECT_EQ(lstrcmpiW(u"D\u00C9J\u00C0", u"d\u00E9j\u00E0"), 0);
  EXPECT_EQ(lstrcmpW(u"a", u"b"), -1);
  EXPECT_EQ(lstrlenA(nullptr), 0);
  EXPECT_EQ(lstrlenA("\xC3\xA9t\xC3\xA9"), 5);  // bytes
  EXPECT_EQ(lstrlenW(u"\u00E9t\u00E9"), 3);
  EXPECT_EQ(lstrlenW(nullptr), 0);
}

TEST(LstrFamily, CopiesAndAppendsWithLimits) {
  char buf[16];
  EXPECT_EQ(lstrcpyA(buf, "abc"), buf);
  EXPECT_EQ(lstrcatA(buf, "def"), buf);
  EXPECT_STREQ(buf, "abcdef");
  EXPECT_EQ(lstrcpynA(buf, "abcdef", 4), buf);
  EXPECT_STREQ(buf, "abc");
  EXPECT_STREQ(lstrcpynA(buf, "a\xC3\xA9z", 3), "a");  // never half of "é"
  std::strcpy(buf, "keep");
  EXPECT_STREQ(lstrcpynA(buf, "xyz", 0), "keep");
  EXPECT_EQ(lstrcpyA(nullptr, "a"), nullptr);
  EXPECT_EQ(lstrcpyA(buf, nullptr), nullptr);
  EXPECT_EQ(lstrcatA(buf, nullptr), nullptr);
  WCHAR wide[8];
  lstrcpyW(wide, u"ab");
  lstrcatW(wide, u"cd");
  EXPECT_EQ(std::u16string(wide), u"abcd");
  EXPECT_EQ(std::u16string(lstrcpynW(wide, u"wxyz", 3)), u"wx");
}

TEST(CharUpper, ConvertsInPlaceOrAPackedCharacter) {
  char path[] = "c:\\users\\zo\xC3\xAB\\store.cst";
  EXPECT_EQ(CharUpperA(path), path);
  EXPECT_STREQ(path, "C:\\USERS\\ZO\xC3\x8B\\STORE.CST");
  EXPECT_STREQ(CharLowerA(path), "c:\\users\\zo\xC3\xAB\\store.cst");
  // A letter whose other case has another UTF-8 length stays as it is.
  char dotless[] = "\xC4\xB1x";  // "ıx"
  EXPECT_STREQ(CharUpperA(dotless), "\xC4\xB1X");
  // The published single-character form: the character travels in the pointer's low word.
  LPSTR packed = CharUpperA(reinterpret_cast<LPSTR>(static_cast<uintptr_t>('q')));
  EXPECT_EQ(reinterpret_cast<uintptr_t>(packed), static_cast<uintptr_t>('Q'));
  LPWSTR packedW = CharLowerW(reinterpret_cast<LPWSTR>(static_cast<uintptr_t>(0x0416)));
  EXPECT_EQ(reinterpret_cast<uintptr_t>(packedW), 0x0436u);  // Cyrillic Zhe
  WCHAR greek[] = u"\u03B1\u03B2\u03B3 abc";
  CharUpperW(greek);
  EXPECT_EQ(std::u16string(greek), u"\u0391\u0392\u0393 ABC");
  char buffer[] = "abcdef";
  EXPECT_EQ(CharUpperBuffA(buffer, 3), 3u);
  EXPECT_STREQ(buffer, "ABCdef");
  EXPECT_STREQ(CharNextA("\xE6\x9D\xB1x"), "x");
  const WCHAR pair[] = u"\U0001F600z";
  EXPECT_EQ(CharNextW(pair), pair + 2);
  EXPECT_TRUE(IsCharAlphaW(u'\u00E9'));
  EXPECT_FALSE(IsCharAlphaW(u'1'));
  EXPECT_TRUE(IsCharUpperW(u'\u00C9'));
  EXPECT_TRUE(IsCharLowerW(u'\u00E9'));
}

TEST(CrtStrings, NarrowCaseInsensitiveHelpersFoldAsciiOnly) {
  EXPECT_EQ(_stricmp("Inbox", "INBOX"), 0);
  EXPECT_LT(_stricmp("apple", "Banana"), 0);
  EXPECT_GT(_stricmp("b", "A"), 0);
  EXPECT_NE(_stricmp("\xC3\xA9", "\xC3\x89"), 0);  // "é" vs "É": the "C" locale folds ASCII only
  EXPECT_EQ(_strnicmp("<P>text", "<p style>", 2), 0);
  EXPECT_EQ(_strnicmp("BR>", "br ", 2), 0);
  EXPECT_NE(_strnicmp("BR>", "br ", 3), 0);
  EXPECT_EQ(_strcmpi("ABC", "abc"), 0);
  errno = 0;
  EXPECT_EQ(_stricmp(nullptr, "a"), _NLSCMPERROR);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(_strnicmp("a", nullptr, 1), _NLSCMPERROR);
  char text[] = "MiXeD \xC3\xA9";
  EXPECT_STREQ(_strupr(text), "MIXED \xC3\xA9");
  EXPECT_STREQ(_strlwr(text), "mixed \xC3\xA9");
  EXPECT_EQ(_strupr(nullptr), nullptr);
  char* copy = _strdup("dup");
  ASSERT_NE(copy, nullptr);
  EXPECT_STREQ(copy, "dup");
  std::free(copy);
  EXPECT_EQ(_strdup(nullptr), nullptr);
}

TEST(CrtStrings, WideCaseInsensitiveHelpersFoldUnicodeLetters) {
  EXPECT_EQ(_wcsicmp(u"DELETED ITEMS", u"Deleted Items"), 0);
  EXPECT_EQ(_wcsicmp(u"\u0421\u0442\u0440\u0430\u043D\u0438\u0446\u0430", u"\u0441\u0422\u0420\u0410\u041D\u0418\u0426\u0410"), 0);
  EXPECT_EQ(_wcsicmp(u"Gel\u00F6schte", u"GEL\u00D6SCHTE"), 0);
  EXPECT_LT(_wcsicmp(u"abc", u"ABD"), 0);
  EXPECT_GT(_wcsicmp(u"abcd", u"ABC"), 0);
  EXPECT_EQ(_wcsnicmp(u"InboxX", u"INBOXY", 5), 0);
  EXPECT_NE(_wcsnicmp(u"InboxX", u"INBOXY", 6), 0);
  EXPECT_EQ(_wcsicmp(nullptr, u"a"), _NLSCMPERROR);
  WCHAR* copy = _wcsdup(u"\u6771\u4EAC");
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(std::u16string(copy), u"\u6771\u4EAC");
  std::free(copy);
  WCHAR text[] = u"\u00C9cole";
  EXPECT_EQ(std::u16string(_wcslwr(text)), u"\u00E9cole");
  EXPECT_EQ(std::u16string(_wcsupr(text)), u"\u00C9COLE");
}

TEST(CrtStrings, WideStringFunctionsTakeWchar) {
  WCHAR buf[16];
  wcscpy(buf, u"Inbox");
  wcscat(buf, u"\\Sub");
  EXPECT_EQ(wcslen(buf), 9u);
  EXPECT_EQ(wcsnlen(buf, 4), 4u);
  EXPECT_EQ(wcscmp(buf, u"Inbox\\Sub"), 0);
  EXPECT_LT(wcscmp(u"a", u"b"), 0);
  EXPECT_EQ(wcsncmp(buf, u"Inbox!", 5), 0);
  EXPECT_EQ(wcschr(buf, u'\\'), buf + 5);
  EXPECT_EQ(wcschr(buf, u'#'), nullptr);
  EXPECT_EQ(wcschr(buf, u'\0'), buf + 9);
  EXPECT_EQ(wcsrchr(u"a/b/c", u'/') - u"a/b/c", 3);
  const WCHAR* hay = u"Sent Items";
  EXPECT_EQ(wcsstr(hay, u"Items"), hay + 5);
  EXPECT_EQ(wcsstr(hay, u""), hay);
  EXPECT_EQ(wcsstr(hay, u"Itemz"), nullptr);
  WCHAR padded[6];
  wcsncpy(padded, u"ab", 6);
  EXPECT_EQ(padded[5], 0);
  wcsncat(padded, u"cdef", 2);
  EXPECT_EQ(std::u16string(padded), u"abcd");
}

TEST(CrtNumbers, IntegerToTextInAnyRadix) {
  char buf[72];
  EXPECT_STREQ(_itoa(-255, buf, 10), "-255");
  EXPECT_STREQ(_itoa(-255, buf, 16), "ffffff01");  // other radixes print the two's complement
  EXPECT_STREQ(_itoa(5, buf, 2), "101");
  EXPECT_STREQ(_itoa(35, buf, 36), "z");
  EXPECT_STREQ(_itoa(INT_MIN, buf, 10), "-2147483648");
  EXPECT_STREQ(_itoa(7, buf, 1), "");
  EXPECT_STREQ(_ltoa(-1L, buf, 16), "ffffffff");  // long is 32 bits on Windows
  EXPECT_STREQ(_ultoa(4294967295UL, buf, 10), "4294967295");
  EXPECT_STREQ(_i64toa(-9223372036854775807LL - 1, buf, 10), "-9223372036854775808");
  EXPECT_STREQ(_i64toa(-1LL, buf, 16), "ffffffffffffffff");
  EXPECT_STREQ(_ui64toa(18446744073709551615ULL, buf, 10), "18446744073709551615");
  WCHAR wide[72];
  EXPECT_EQ(std::u16string(_itow(-42, wide, 10)), u"-42");
  EXPECT_EQ(std::u16string(_i64tow(255, wide, 16)), u"ff");
  char small[4];
  EXPECT_EQ(_itoa_s(123, small, sizeof small, 10), 0);
  EXPECT_STREQ(small, "123");
  EXPECT_EQ(_itoa_s(1234, small, sizeof small, 10), ERANGE);
  EXPECT_STREQ(small, "");
  EXPECT_EQ(_itoa_s(1, small, 10), 0);  // array form
  EXPECT_EQ(_itoa_s(1, nullptr, 4, 10), EINVAL);
  EXPECT_EQ(_i64toa_s(1, small, sizeof small, 40), EINVAL);
  EXPECT_EQ(_ultoa_s(255, small, sizeof small, 16), 0);
  EXPECT_STREQ(small, "ff");
}

TEST(CrtNumbers, TextToIntegerClampsToWindowsWidths) {
  EXPECT_EQ(_atoi64("  -1234567890123"), -1234567890123LL);
  EXPECT_EQ(_atoi64("1712345678xyz"), 1712345678LL);
  errno = 0;
  EXPECT_EQ(_atoi64("99999999999999999999"), LLONG_MAX);
  EXPECT_EQ(errno, ERANGE);
  EXPECT_EQ(_atoi64("-9223372036854775808"), LLONG_MIN);
  EXPECT_EQ(_atoi64(""), 0);
  EXPECT_EQ(_atoi64(nullptr), 0);
  EXPECT_EQ(_wtol(u" \t+42 kB"), 42L);
  EXPECT_EQ(_wtol(u""), 0L);
  EXPECT_EQ(_wtol(u"abc"), 0L);
  errno = 0;
  EXPECT_EQ(_wtol(u"3000000000"), 2147483647L);
  EXPECT_EQ(errno, ERANGE);
  EXPECT_EQ(_wtol(u"-3000000000"), -2147483647L - 1);
  EXPECT_EQ(_wtoi(u"-17"), -17);
  EXPECT_EQ(_wtoi64(u"-9000000000"), -9000000000LL);
  WCHAR* end = nullptr;
  const WCHAR* hex = u"0x1Fz";
  EXPECT_EQ(wcstol(hex, &end, 0), 31L);
  EXPECT_EQ(end, hex + 4);
  EXPECT_EQ(wcstol(u"0755", nullptr, 0), 493L);
  EXPECT_EQ(wcstoul(u"-1", nullptr, 10), 4294967295UL);
  EXPECT_EQ(wcstoul(u"ffffffff", nullptr, 16), 4294967295UL);
  const WCHAR* none = u"  xyz";
  EXPECT_EQ(wcstol(none, &end, 10), 0L);
  EXPECT_EQ(end, none);  // no digits: end is the start
  errno = 0;
  EXPECT_EQ(wcstol(u"12", &end, 37), 0L);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(_wcstoui64(u"18446744073709551615", nullptr, 10), 18446744073709551615ULL);
}

TEST(CrtChecked, CopiesReportThePublishedCodes) {
  char buf[6];
  EXPECT_EQ(strcpy_s(buf, sizeof buf, "hello"), 0);
  EXPECT_STREQ(buf, "hello");
  EXPECT_EQ(strcpy_s(buf, sizeof buf, "hello!"), ERANGE);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(strcpy_s(buf, "abc"), 0);  // array form
  EXPECT_EQ(strcat_s(buf, sizeof buf, "de"), 0);
  EXPECT_STREQ(buf, "abcde");
  EXPECT_EQ(strcat_s(buf, sizeof buf, "f"), ERANGE);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(strncpy_s(buf, sizeof buf, "abcdefgh", 3), 0);
  EXPECT_STREQ(buf, "abc");
  EXPECT_EQ(strncpy_s(buf, sizeof buf, "abcdefgh", _TRUNCATE), STRUNCATE);
  EXPECT_STREQ(buf, "abcde");
  EXPECT_EQ(strncpy_s(buf, sizeof buf, "abcdefgh", 6), ERANGE);
  EXPECT_EQ(strncpy_s(buf, sizeof buf, nullptr, 0), 0);
  EXPECT_EQ(strcpy_s(nullptr, 4, "a"), EINVAL);
  EXPECT_EQ(strcpy_s(buf, 0, "a"), EINVAL);
  EXPECT_EQ(strcpy_s(buf, sizeof buf, nullptr), EINVAL);
  EXPECT_STREQ(buf, "");
  char unterminated[3] = {'x', 'y', 'z'};
  EXPECT_EQ(strcat_s(unterminated, sizeof unterminated, "a"), EINVAL);
  WCHAR wide[4];
  EXPECT_EQ(wcscpy_s(wide, u"abc"), 0);
  EXPECT_EQ(wcscat_s(wide, 4, u"d"), ERANGE);
  EXPECT_EQ(wide[0], 0);
  EXPECT_EQ(wcsncpy_s(wide, u"\u00E9\u00E8\u00EA\u00EB", _TRUNCATE), STRUNCATE);
  EXPECT_EQ(std::u16string(wide), u"\u00E9\u00E8\u00EA");
}
