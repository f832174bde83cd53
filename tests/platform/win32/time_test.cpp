#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <string>

#include "windows.h"

namespace {

constexpr uint64_t k1970 = 116444736000000000ULL;
constexpr uint64_t kSecond = 10000000ULL;
constexpr uint64_t kHour = 3600 * kSecond;

// Sets TZ for the life of the object.
class ZoneGuard {
 public:
  explicit ZoneGuard(const char* zone) {
    if (const char* old = std::getenv("TZ")) m_had = true, m_old = old;
    setenv("TZ", zone, 1);
    _tzset();
  }
  ~ZoneGuard() {
    if (m_had)
      setenv("TZ", m_old.c_str(), 1);
    else
      unsetenv("TZ");
    _tzset();
  }

 private:
  bool m_had = false;
  std::string m_old;
};

uint64_t Ticks(const FILETIME& ft) { return (static_cast<uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime; }

FILETIME FromTicks(uint64_t ticks) {
  FILETIME ft;
  ft.dwLowDateTime = static_cast<DWORD>(ticks);
  ft.dwHighDateTime = static_cast<DWORD>(ticks >> 32);
  return ft;
}

SYSTEMTIME Make(WORD y, WORD mo, WORD d, WORD h = 0, WORD mi = 0, WORD s = 0, WORD ms = 0) {
  SYSTEMTIME st{};
  st.wYear = y, st.wMonth = mo, st.wDay = d, st.wHour = h, st.wMinute = mi, st.wSecond = s, st.wMilliseconds = ms;
  return st;
}

uint64_t TicksOf(const SYSTEMTIME& st) {
  FILETIME ft{};
  EXPECT_TRUE(SystemTimeToFileTime(&st, &ft));
  return Ticks(ft);
}

SYSTEMTIME SystemOf(uint64_t ticks) {
  FILETIME ft = FromTicks(ticks);
  SYSTEMTIME st{};
  EXPECT_TRUE(FileTimeToSystemTime(&ft, &st));
  return st;
}

// The system's own conversion of a Unix time through local time, as its search code does it.
__time64_t UnixTimeThroughLocalTime(uint64_t ticks) {
  FILETIME utc = FromTicks(ticks), local;
  SYSTEMTIME st;
  EXPECT_TRUE(FileTimeToLocalFileTime(&utc, &local));
  EXPECT_TRUE(FileTimeToSystemTime(&local, &st));
  tm t{};
  t.tm_year = st.wYear - 1900, t.tm_mon = st.wMonth - 1, t.tm_mday = st.wDay;
  t.tm_hour = st.wHour, t.tm_min = st.wMinute, t.tm_sec = st.wSecond, t.tm_isdst = 0;
  return _mktime64(&t);
}

}  // namespace

TEST(FileTime, CountsHundredNanosecondsSince1601) {
  EXPECT_EQ(TicksOf(Make(1970, 1, 1)), k1970);
  EXPECT_EQ(TicksOf(Make(1601, 1, 1)), 0u);
  EXPECT_EQ(TicksOf(Make(1970, 1, 2, 0, 0, 1, 500)), k1970 + 86400 * kSecond + kSecond + 5000000);
  SYSTEMTIME st = SystemOf(k1970);
  EXPECT_EQ(st.wYear, 1970);
  EXPECT_EQ(st.wMonth, 1);
  EXPECT_EQ(st.wDay, 1);
  EXPECT_EQ(st.wDayOfWeek, 4);  // a Thursday
  EXPECT_EQ(SystemOf(TicksOf(Make(2000, 1, 1))).wDayOfWeek, 6);
  // Leap years: 2000 and 2024 have 29 February, 1900 and 2100 do not.
  EXPECT_EQ(TicksOf(Make(2000, 3, 1)) - TicksOf(Make(2000, 2, 28)), 2 * 86400 * kSecond);
  EXPECT_EQ(TicksOf(Make(2100, 3, 1)) - TicksOf(Make(2100, 2, 28)), 86400 * kSecond);
  EXPECT_EQ(TicksOf(Make(2024, 12, 31)) - TicksOf(Make(2024, 1, 1)), 365 * 86400 * kSecond);
  // Round trips keep every field, milliseconds included.
  for (SYSTEMTIME in : {Make(2024, 2, 29, 23, 59, 59, 999), Make(1999, 12, 31, 23, 59, 59, 1), Make(1601, 1, 1),
                        Make(30827, 12, 31, 23, 59, 59, 999), Make(1900, 2, 28, 12)}) {
    SYSTEMTIME out = SystemOf(TicksOf(in));
    EXPECT_EQ(out.wYear, in.wYear);
    EXPECT_EQ(out.wMonth, in.wMonth);
    EXPECT_EQ(out.wDay, in.wDay);
    EXPECT_EQ(out.wHour, in.wHour);
    EXPECT_EQ(out.wMinute, in.wMinute);
    EXPECT_EQ(out.wSecond, in.wSecond);
    EXPECT_EQ(out.wMilliseconds, in.wMilliseconds);
  }
  // Sub-millisecond ticks are dropped on the way to SYSTEMTIME.
  EXPECT_EQ(SystemOf(k1970 + 9999).wMilliseconds, 0);
  FILETIME a = FromTicks(5), b = FromTicks(1ULL << 40);
  EXPECT_EQ(CompareFileTime(&a, &b), -1);
  EXPECT_EQ(CompareFileTime(&b, &a), 1);
  EXPECT_EQ(CompareFileTime(&a, &a), 0);
}

TEST(FileTime, RefusesInvalidValues) {
  FILETIME ft;
  SYSTEMTIME bad[] = {Make(1900, 2, 29), Make(2023, 13, 1), Make(1600, 12, 31), Make(2023, 4, 31),
                      Make(2023, 1, 1, 24), Make(2023, 1, 1, 0, 60), Make(2023, 1, 1, 0, 0, 60),
                      Make(2023, 1, 1, 0, 0, 0, 1000), Make(2023, 0, 1), Make(2023, 1, 0)};
  for (const SYSTEMTIME& st : bad) {
    SetLastError(0);
    EXPECT_FALSE(SystemTimeToFileTime(&st, &ft)) << st.wYear << "-" << st.wMonth << "-" << st.wDay;
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  }
  FILETIME huge = FromTicks(0x8000000000000000ULL);
  SYSTEMTIME st;
  EXPECT_FALSE(FileTimeToSystemTime(&huge, &st));
  EXPECT_FALSE(FileTimeToLocalFileTime(&huge, &ft));
  EXPECT_FALSE(SystemTimeToFileTime(nullptr, &ft));
  EXPECT_FALSE(FileTimeToSystemTime(&ft, nullptr));
  ZoneGuard zone("JST-9");
  FILETIME early = FromTicks(kHour);
  EXPECT_FALSE(LocalFileTimeToFileTime(&early, &ft));  // would fall before 1601
}

TEST(FileTime, NowAgreesWithTheCClock) {
  time_t before = time(nullptr);
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  time_t after = time(nullptr);
  uint64_t seconds = (Ticks(now) - k1970) / kSecond;
  EXPECT_GE(seconds, static_cast<uint64_t>(before));
  EXPECT_LE(seconds, static_cast<uint64_t>(after));

  ZoneGuard zone("JST-9");
  FILETIME first, last;
  SYSTEMTIME local;
  GetSystemTimeAsFileTime(&first);
  GetLocalTime(&local);
  GetSystemTimeAsFileTime(&last);
  uint64_t localAsUtc = TicksOf(local) - 9 * kHour;
  EXPECT_GE(localAsUtc, Ticks(first) / 10000 * 10000);  // GetLocalTime keeps milliseconds only
  EXPECT_LE(localAsUtc, Ticks(last));
}

TEST(LocalTime, FollowsTheProcessZone) {
  const uint64_t noon = TicksOf(Make(2024, 3, 15, 12));
  {
    ZoneGuard zone("JST-9");
    FILETIME utc = FromTicks(noon), local, back;
    ASSERT_TRUE(FileTimeToLocalFileTime(&utc, &local));
    EXPECT_EQ(Ticks(local), noon + 9 * kHour);
    ASSERT_TRUE(LocalFileTimeToFileTime(&local, &back));
    EXPECT_EQ(Ticks(back), noon);
    // Without daylight saving time the local-time path inverts the plain Unix conversion.
    const uint64_t unix = 1710504000;  // 2024-03-15 12:00:00 UTC
    EXPECT_EQ(UnixTimeThroughLocalTime(k1970 + unix * kSecond), static_cast<__time64_t>(unix));
  }
  {
    ZoneGuard zone("UTC0");
    FILETIME utc = FromTicks(noon), local;
    ASSERT_TRUE(FileTimeToLocalFileTime(&utc, &local));
    EXPECT_EQ(Ticks(local), noon);
  }
  {
    // The zone of the converted date decides for SystemTimeToTzSpecificLocalTime.
    ZoneGuard zone("EST5EDT,M3.2.0,M11.1.0");
    SYSTEMTIME summer = Make(2024, 7, 1, 12), winter = Make(2024, 1, 15, 12), out;
    ASSERT_TRUE(SystemTimeToTzSpecificLocalTime(nullptr, &summer, &out));
    EXPECT_EQ(out.wHour, 8);
    ASSERT_TRUE(SystemTimeToTzSpecificLocalTime(nullptr, &winter, &out));
    EXPECT_EQ(out.wHour, 7);
    ASSERT_TRUE(TzSpecificLocalTimeToSystemTime(nullptr, &out, &winter));
    EXPECT_EQ(winter.wHour, 12);
  }
}

TEST(TimeZone, DescribesRulesOfTheTzDatabase) {
  TIME_ZONE_INFORMATION us;
  {
    ZoneGuard zone("EST5EDT,M3.2.0,M11.1.0");
    DWORD id = GetTimeZoneInformation(&us);
    EXPECT_TRUE(id == TIME_ZONE_ID_STANDARD || id == TIME_ZONE_ID_DAYLIGHT);
    EXPECT_EQ(us.Bias, 300);
    EXPECT_EQ(us.StandardBias, 0);
    EXPECT_EQ(us.DaylightBias, -60);
    EXPECT_EQ(std::u16string(us.StandardName), u"EST");
    EXPECT_EQ(std::u16string(us.DaylightName), u"EDT");
    // Second Sunday of March at 02:00, first Sunday of November at 02:00.
    EXPECT_EQ(us.DaylightDate.wMonth, 3);
    EXPECT_EQ(us.DaylightDate.wDay, 2);
    EXPECT_EQ(us.DaylightDate.wDayOfWeek, 0);
    EXPECT_EQ(us.DaylightDate.wHour, 2);
    EXPECT_EQ(us.StandardDate.wMonth, 11);
    EXPECT_EQ(us.StandardDate.wDay, 1);
    EXPECT_EQ(us.StandardDate.wHour, 2);
  }
  {
    ZoneGuard zone("CET-1CEST,M3.5.0,M10.5.0/3");
    TIME_ZONE_INFORMATION eu;
    GetTimeZoneInformation(&eu);
    EXPECT_EQ(eu.Bias, -60);
    EXPECT_EQ(eu.DaylightDate.wDay, 5);  // the last Sunday
    EXPECT_EQ(eu.DaylightDate.wHour, 2);
    EXPECT_EQ(eu.StandardDate.wMonth, 10);
    EXPECT_EQ(eu.StandardDate.wDay, 5);
    EXPECT_EQ(eu.StandardDate.wHour, 3);
  }
  {
    ZoneGuard zone("AEST-10AEDT,M10.1.0,M4.1.0/3");
    TIME_ZONE_INFORMATION au;
    GetTimeZoneInformation(&au);
    EXPECT_EQ(au.Bias, -600);
    EXPECT_EQ(au.DaylightDate.wMonth, 10);
    EXPECT_EQ(au.StandardDate.wMonth, 4);
    // Southern summer spans the new year.
    SYSTEMTIME january = Make(2024, 1, 10, 0), out;
    ASSERT_TRUE(SystemTimeToTzSpecificLocalTime(&au, &january, &out));
    EXPECT_EQ(out.wHour, 11);
  }
  {
    ZoneGuard zone("JST-9");
    TIME_ZONE_INFORMATION jp;
    EXPECT_EQ(GetTimeZoneInformation(&jp), static_cast<DWORD>(TIME_ZONE_ID_UNKNOWN));
    EXPECT_EQ(jp.Bias, -540);
    EXPECT_EQ(jp.DaylightDate.wMonth, 0);
    // An explicit zone is used as given, whatever the process's zone.
    SYSTEMTIME summer = Make(2024, 7, 1, 12), winter = Make(2024, 12, 1, 12), out;
    ASSERT_TRUE(SystemTimeToTzSpecificLocalTime(&us, &summer, &out));
    EXPECT_EQ(out.wHour, 8);
    ASSERT_TRUE(SystemTimeToTzSpecificLocalTime(&us, &winter, &out));
    EXPECT_EQ(out.wHour, 7);
    SYSTEMTIME back;
    ASSERT_TRUE(TzSpecificLocalTimeToSystemTime(&us, &out, &back));
    EXPECT_EQ(back.wHour, 12);
  }
  SetLastError(0);
  EXPECT_EQ(GetTimeZoneInformation(nullptr), TIME_ZONE_ID_INVALID);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST(CrtTime, ReportsTheZoneOfTz) {
  ZoneGuard zone("EST5EDT,M3.2.0,M11.1.0");
  long seconds = 0;
  EXPECT_EQ(_get_timezone(&seconds), 0);
  EXPECT_EQ(seconds, 18000);
  int hours = 0;
  EXPECT_EQ(_get_daylight(&hours), 0);
  EXPECT_EQ(hours, 1);
  EXPECT_EQ(_get_dstbias(&seconds), 0);
  EXPECT_EQ(seconds, -3600);
  size_t size = 0;
  EXPECT_EQ(_get_tzname(&size, nullptr, 0, 0), 0);
  EXPECT_EQ(size, 4u);
  char name[8];
  EXPECT_EQ(_get_tzname(&size, name, sizeof name, 1), 0);
  EXPECT_STREQ(name, "EDT");
  EXPECT_EQ(_get_tzname(&size, name, 3, 0), ERANGE);
  EXPECT_EQ(size, 4u);
  EXPECT_EQ(_get_tzname(&size, name, sizeof name, 2), EINVAL);
  EXPECT_EQ(_get_tzname(&size, nullptr, 8, 0), EINVAL);
  EXPECT_EQ(_get_tzname(&size, name, 0, 0), EINVAL);
  EXPECT_EQ(_get_tzname(nullptr, name, sizeof name, 0), EINVAL);
  EXPECT_EQ(_get_timezone(nullptr), EINVAL);
  EXPECT_EQ(_get_daylight(nullptr), EINVAL);

  ZoneGuard tokyo("JST-9");
  EXPECT_EQ(_get_timezone(&seconds), 0);
  EXPECT_EQ(seconds, -32400);
  EXPECT_EQ(_get_daylight(&hours), 0);
  EXPECT_EQ(hours, 0);
  EXPECT_EQ(_get_tzname(&size, name, sizeof name, 0), 0);
  EXPECT_STREQ(name, "JST");
}

TEST(CrtTime, SixtyFourBitCallsKeepTheirRange) {
  ZoneGuard zone("JST-9");
  tm t{};
  t.tm_year = 70, t.tm_mon = 0, t.tm_mday = 1, t.tm_hour = 9, t.tm_isdst = 0;
  EXPECT_EQ(_mktime64(&t), 0);
  t = tm{};
  t.tm_year = 124, t.tm_mon = 1, t.tm_mday = 30, t.tm_isdst = -1;  // 30 February: normalized
  EXPECT_EQ(_mktime64(&t), 1709218800);
  EXPECT_EQ(t.tm_mon, 2);
  EXPECT_EQ(t.tm_mday, 1);
  t = tm{};
  t.tm_year = 69, t.tm_mon = 11, t.tm_mday = 31;
  EXPECT_EQ(_mktime64(&t), -1);  // before 1970
  t = tm{};
  t.tm_year = 1102, t.tm_mday = 1;
  EXPECT_EQ(_mktime64(&t), -1);  // after 3000
  EXPECT_EQ(_mktime64(nullptr), -1);

  __time64_t when = 86399;
  tm out{};
  EXPECT_EQ(_gmtime64_s(&out, &when), 0);
  EXPECT_EQ(out.tm_hour, 23);
  EXPECT_EQ(out.tm_mday, 1);
  EXPECT_EQ(_localtime64_s(&out, &when), 0);
  EXPECT_EQ(out.tm_hour, 8);
  EXPECT_EQ(out.tm_mday, 2);
  __time64_t negative = -1;
  EXPECT_EQ(_localtime64_s(&out, &negative), EINVAL);
  EXPECT_EQ(out.tm_year, -1);
  EXPECT_EQ(out.tm_mday, -1);
  __time64_t tooLate = _MAX__TIME64_T + 1;
  EXPECT_EQ(_gmtime64_s(&out, &tooLate), EINVAL);
  EXPECT_EQ(_gmtime64_s(&out, nullptr), EINVAL);
  EXPECT_EQ(_localtime64_s(nullptr, &when), EINVAL);
  ASSERT_NE(_gmtime64(&when), nullptr);
  EXPECT_EQ(_gmtime64(&when)->tm_year, 70);
  EXPECT_EQ(_gmtime64(&negative), nullptr);
  tm utc{};
  utc.tm_year = 100, utc.tm_mday = 1;
  EXPECT_EQ(_mkgmtime64(&utc), 946684800);
  __time64_t now = 0;
  EXPECT_EQ(_time64(&now), now);
  EXPECT_GT(now, 1700000000);
}
