#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "adplatform_ui.h"
#include "windows.h"

namespace {

class LocaleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("ARCHIVEDEPOT_LCID");
    adp::SetDefaultLCID(0);
  }
  void TearDown() override {
    unsetenv("ARCHIVEDEPOT_LCID");
    adp::SetDefaultLCID(0);
    SetThreadUILanguage(0);
    SetThreadLocale(LOCALE_USER_DEFAULT);
  }
};

std::string InfoA(LCID lcid, LCTYPE type) {
  char buf[128];
  return GetLocaleInfoA(lcid, type, buf, sizeof buf) > 0 ? std::string(buf) : std::string("<none>");
}

}  // namespace

TEST_F(LocaleTest, DefaultComesFromTheSetterTheEnvironmentOrEnglish) {
  EXPECT_EQ(GetUserDefaultLCID(), 1033u);
  EXPECT_EQ(GetUserDefaultLangID(), 1033);
  setenv("ARCHIVEDEPOT_LCID", "1031", 1);
  EXPECT_EQ(GetUserDefaultLCID(), 1031u);
  EXPECT_EQ(GetUserDefaultUILanguage(), 1031);
  setenv("ARCHIVEDEPOT_LCID", "0x40C", 1);
  EXPECT_EQ(GetSystemDefaultLCID(), 0x40Cu);
  setenv("ARCHIVEDEPOT_LCID", "junk", 1);
  EXPECT_EQ(GetUserDefaultLCID(), 1033u);
  adp::SetDefaultLCID(1041);
  EXPECT_EQ(GetUserDefaultLCID(), 1041u);
  EXPECT_EQ(GetThreadLocale(), 1041u);
  EXPECT_EQ(GetSystemDefaultUILanguage(), 1041);
}

TEST_F(LocaleTest, ThreadSettingsStayOnTheirThread) {
  ASSERT_TRUE(SetThreadLocale(0x0407));
  EXPECT_EQ(GetThreadLocale(), 0x0407u);
  EXPECT_EQ(SetThreadUILanguage(0x040C), 0x040C);
  EXPECT_EQ(GetThreadUILanguage(), 0x040C);
  LCID otherLocale = 0;
  LANGID otherUi = 0;
  std::thread([&] {
    otherLocale = GetThreadLocale();
    otherUi = GetThreadUILanguage();
  }).join();
  EXPECT_EQ(otherLocale, 1033u);
  EXPECT_EQ(otherUi, 1033);
  EXPECT_EQ(SetThreadUILanguage(0), 1033);  // back to the default
  SetLastError(0);
  EXPECT_FALSE(SetThreadLocale(0x0FFF));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_EQ(SetThreadUILanguage(0x0FFF), 0);
  EXPECT_EQ(GetThreadLocale(), 0x0407u);
  ASSERT_TRUE(SetThreadLocale(LOCALE_USER_DEFAULT));
  EXPECT_EQ(GetThreadLocale(), 1033u);
}

TEST_F(LocaleTest, LocaleInfoNamesLanguagesAndCountries) {
  EXPECT_EQ(InfoA(0x0407, LOCALE_SENGLANGUAGE), "German");
  EXPECT_EQ(InfoA(0x0407, LOCALE_SISO639LANGNAME), "de");
  EXPECT_EQ(InfoA(0x0407, LOCALE_SISO3166CTRYNAME), "DE");
  EXPECT_EQ(InfoA(0x0404, LOCALE_SNAME), "zh-TW");
  EXPECT_EQ(InfoA(0x0404, LOCALE_SENGCOUNTRY), "Taiwan");
  EXPECT_EQ(InfoA(0x0411, LOCALE_ILANGUAGE), "0411");
  EXPECT_EQ(InfoA(0x0409, LOCALE_SABBREVLANGNAME), "ENU");
  EXPECT_EQ(InfoA(LOCALE_USER_DEFAULT, LOCALE_SENGLANGUAGE), "English");
  EXPECT_EQ(InfoA(0x0409, LOCALE_IDEFAULTANSICODEPAGE), "65001");
  WCHAR wide[32];
  ASSERT_EQ(GetLocaleInfoW(0x040C, LOCALE_SNATIVELANGNAME, wide, 32), 9);
  EXPECT_EQ(std::u16string(wide), u"fran\u00E7ais");
  DWORD number = 0;
  EXPECT_EQ(GetLocaleInfoW(0x0407, LOCALE_ILANGUAGE | LOCALE_RETURN_NUMBER, reinterpret_cast<LPWSTR>(&number), 2), 2);
  EXPECT_EQ(number, 0x0407u);
}

TEST_F(LocaleTest, LocaleInfoFollowsThePublishedSizeRules) {
  EXPECT_EQ(GetLocaleInfoA(0x0407, LOCALE_SENGLANGUAGE, nullptr, 0), 7);  // "German" and the terminator
  char small[4];
  SetLastError(0);
  EXPECT_EQ(GetLocaleInfoA(0x0407, LOCALE_SENGLANGUAGE, small, sizeof small), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
  SetLastError(0);
  EXPECT_EQ(GetLocaleInfoA(0x0407, 0x7777, small, sizeof small), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_FLAGS));
  SetLastError(0);
  EXPECT_EQ(GetLocaleInfoA(0x0FFF, LOCALE_SENGLANGUAGE, small, sizeof small), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  SetLastError(0);
  EXPECT_EQ(GetLocaleInfoA(0x0407, LOCALE_SENGLANGUAGE, nullptr, 8), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  SetLastError(0);
  EXPECT_EQ(GetLocaleInfoA(0x0407, LOCALE_SENGLANGUAGE | LOCALE_RETURN_NUMBER, small, sizeof small), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_FLAGS));
}

TEST_F(LocaleTest, LocaleNamesRoundTrip) {
  WCHAR name[LOCALE_NAME_MAX_LENGTH];
  for (LCID lcid : {0x0409u, 0x0407u, 0x0804u, 0x0404u, 0x0416u, 0x0C0Au}) {
    ASSERT_GT(LCIDToLocaleName(lcid, name, LOCALE_NAME_MAX_LENGTH, 0), 0) << lcid;
    EXPECT_EQ(LocaleNameToLCID(name, 0), lcid);
  }
  EXPECT_EQ(LocaleNameToLCID(u"PT-br", 0), 0x0416u);
  SetLastError(0);
  EXPECT_EQ(LocaleNameToLCID(u"xx-YY", 0), 0u);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_TRUE(IsValidLocale(0x0411, LCID_SUPPORTED));
  EXPECT_FALSE(IsValidLocale(0x0FFF, LCID_SUPPORTED));
}
