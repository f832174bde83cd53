#include "NxText.h"

#include <gtest/gtest.h>

#include "NxError.h"

TEST(NxTextTest, WideAndNarrowRoundTripNonAsciiText) {
  const WCHAR wsz[] = WIDE("Grüße, 東京 \U0001F600");
  std::string narrow = NxWideToNarrow(wsz);
  EXPECT_EQ(narrow, "Grüße, 東京 \xF0\x9F\x98\x80");
  EXPECT_EQ(NxNarrowToWide(narrow.c_str()), NxWString(wsz));
  EXPECT_EQ(NxWideToNarrow(wsz, 4), "Grüß");
  EXPECT_EQ(NxWideToNarrow(NULL), "");
  EXPECT_EQ(NxNarrowToWide(""), NxWString());
}

TEST(NxTextTest, FormatFollowsTheWindowsPrintfRules) {
  // "%ld" takes a 32-bit LONG, "%S" 16-bit text.
  EXPECT_EQ(NxFormat("%ld|%lx|%S", static_cast<LONG>(-5), static_cast<DWORD>(0xABCDEF01), WIDE("wide")),
            "-5|abcdef01|wide");
  EXPECT_EQ(NxFormat("%s", std::string(3000, 'z').c_str()).size(), 3000u);
  EXPECT_EQ(NxFormat(NULL), "");
}

TEST(NxTextTest, ErrorTextNamesTheCode) {
  EXPECT_EQ(NxErrorText(ERROR_ALREADY_EXISTS), "Cannot create a file when that file already exists (183)");
  EXPECT_EQ(NxErrorText(ERROR_ACCESS_DENIED), "Access is denied (5)");
  EXPECT_EQ(NxErrorText(0xDEADBEEF), "error 3735928559");
}
