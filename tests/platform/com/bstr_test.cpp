#include <gtest/gtest.h>

#include <cstring>

#include <oleauto.h>

namespace {

DWORD PrefixOf(BSTR b) {
  DWORD prefix;
  std::memcpy(&prefix, reinterpret_cast<const BYTE*>(b) - sizeof(DWORD), sizeof(prefix));
  return prefix;
}

TEST(Bstr, LayoutIsByteCountPrefixThenCharactersThenNul) {
  BSTR b = SysAllocString(u"abc");
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(PrefixOf(b), 6u);
  EXPECT_EQ(SysStringLen(b), 3u);
  EXPECT_EQ(SysStringByteLen(b), 6u);
  EXPECT_EQ(std::u16string(b, 3), u"abc");
  EXPECT_EQ(b[3], u'\0');
  SysFreeString(b);
}

TEST(Bstr, EmbeddedNulsAndGivenLengths) {
  const char16_t text[] = {u'a', 0, u'b', 0, u'c'};
  BSTR b = SysAllocStringLen(text, 5);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(SysStringLen(b), 5u);
  EXPECT_EQ(std::memcmp(b, text, sizeof(text)), 0);
  EXPECT_EQ(b[5], u'\0');
  SysFreeString(b);

  // No source: the requested length, zero-filled.
  BSTR blank = SysAllocStringLen(nullptr, 4);
  ASSERT_NE(blank, nullptr);
  EXPECT_EQ(SysStringLen(blank), 4u);
  for (int i = 0; i <= 4; ++i) EXPECT_EQ(blank[i], 0) << i;
  SysFreeString(blank);

  BSTR empty = SysAllocString(u"");
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(SysStringLen(empty), 0u);
  SysFreeString(empty);
}

TEST(Bstr, OddByteLengthKeepsBytesAndTerminates) {
  BSTR b = SysAllocStringByteLen("abc", 3);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(SysStringByteLen(b), 3u);
  EXPECT_EQ(SysStringLen(b), 1u);
  const auto* bytes = reinterpret_cast<const BYTE*>(b);
  EXPECT_EQ(std::memcmp(bytes, "abc", 3), 0);
  EXPECT_EQ(bytes[3], 0);
  EXPECT_EQ(bytes[4], 0);
  SysFreeString(b);
}

TEST(Bstr, NullBstrIsTheEmptyString) {
  EXPECT_EQ(SysStringLen(nullptr), 0u);
  EXPECT_EQ(SysStringByteLen(nullptr), 0u);
  EXPECT_EQ(SysAllocString(nullptr), nullptr);
  SysFreeString(nullptr);  // no effect, no crash
}

TEST(Bstr, ReallocationReplacesAndMayReadFromItself) {
  BSTR b = SysAllocString(u"hello world");
  ASSERT_TRUE(SysReAllocString(&b, b + 6));  // source inside the old string
  EXPECT_EQ(std::u16string(b, SysStringLen(b)), u"world");
  ASSERT_TRUE(SysReAllocStringLen(&b, u"xyz123", 3));
  EXPECT_EQ(std::u16string(b, SysStringLen(b)), u"xyz");
  SysFreeString(b);

  BSTR none = nullptr;
  ASSERT_TRUE(SysReAllocString(&none, u"new"));
  EXPECT_EQ(SysStringLen(none), 3u);
  SysFreeString(none);

  EXPECT_FALSE(SysReAllocString(nullptr, u"x"));
  EXPECT_FALSE(SysReAllocStringLen(nullptr, u"x", 1));
}

TEST(Bstr, LengthsBeyondTheByteCountAreRefused) {
  EXPECT_EQ(SysAllocStringLen(nullptr, 0x7FFFFFFF), nullptr);
  EXPECT_EQ(SysAllocStringLen(nullptr, 0xFFFFFFFF), nullptr);
  EXPECT_EQ(SysAllocStringByteLen(nullptr, 0xFFFFFFFF), nullptr);
}

}  // namespace
