// Wall-clock time: SYSTEMTIME and FILETIME arithmetic, local time through the process's TZ,
// TIME_ZONE_INFORMATION built from the TZ database, and the C runtime's 64-bit time calls.
// System time is real time; only ticks, waits and timers follow the scaled clock.
#include <time.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>

#include "crtcompat.h"
#include "errhandlingapi.h"
#include "timezoneapi.h"
#include "winerror.h"

namespace {

constexpr int64_t kTicksPerSecond = 10000000;
constexpr int64_t kTicksPerDay = kTicksPerSecond * 86400;
constexpr int64_t kDays1601To1970 = 134774;
constexpr int64_t kTicks1601To1970 = kDays1601To1970 * kTicksPerDay;  // 116444736000000000
constexpr int64_t kMaxTicks = INT64_MAX;  // FILETIME values with the high bit set are invalid

int64_t FloorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

bool IsLeap(int64_t y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

int DaysInMonth(int64_t y, int m) {
  static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return m == 2 && IsLeap(y) ? 29 : kDays[m - 1];
}

// Days since 1970-01-01 of a proleptic Gregorian date (era-based computation).
int64_t DaysFromCivil(int64_t y, int m, int d) {
  y -= m <= 2;
  const int64_t era = FloorDiv(y, 400);
  const int64_t yoe = y - era * 400;
  const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

void CivilFromDays(int64_t z, int64_t& y, int& m, int& d) {
  z += 719468;
  const int64_t era = FloorDiv(z, 146097);
  const int64_t doe = z - era * 146097;
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const int64_t mp = (5 * doy + 2) / 153;
  d = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  y = yoe + era * 400 + (m <= 2);
}

// 0 is Sunday; 1970-01-01 was a Thursday.
int Weekday(int64_t daysSince1970) {
  int64_t r = (daysSince1970 + 4) % 7;
  return static_cast<int>(r < 0 ? r + 7 : r);
}

uint64_t ToTicks(const FILETIME& ft) { return (static_cast<uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime; }

void FromTicks(int64_t ticks, FILETIME& ft) {
  ft.dwLowDateTime = static_cast<DWORD>(static_cast<uint64_t>(ticks) & 0xFFFFFFFFu);
  ft.dwHighDateTime = static_cast<DWORD>(static_cast<uint64_t>(ticks) >> 32);
}

bool ValidSystemTime(const SYSTEMTIME& st) {
  return st.wYear >= 1601 && st.wYear <= 30827 && st.wMonth >= 1 && st.wMonth <= 12 && st.wDay >= 1 &&
         st.wDay <= DaysInMonth(st.wYear, st.wMonth) && st.wHour < 24 && st.wMinute < 60 && st.wSecond < 60 &&
         st.wMilliseconds < 1000;
}

// Ticks since 1601 of a valid SYSTEMTIME.
int64_t SystemTimeTicks(const SYSTEMTIME& st) {
  int64_t days = DaysFromCivil(st.wYear, st.wMonth, st.wDay) + kDays1601To1970;
  int64_t seconds = days * 86400 + st.wHour * 3600 + st.wMinute * 60 + st.wSecond;
  return seconds * kTicksPerSecond + st.wMilliseconds * 10000LL;
}

// SYSTEMTIME of ticks since 1601 (0 <= ticks).
void TicksToSystemTime(int64_t ticks, SYSTEMTIME& st) {
  int64_t days = ticks / kTicksPerDay;
  int64_t rest = ticks % kTicksPerDay;
  int64_t y;
  int m, d;
  CivilFromDays(days - kDays1601To1970, y, m, d);
  st.wYear = static_cast<WORD>(y);
  st.wMonth = static_cast<WORD>(m);
  st.wDay = static_cast<WORD>(d);
  st.wDayOfWeek = static_cast<WORD>(Weekday(days - kDays1601To1970));
  st.wHour = static_cast<WORD>(rest / (3600 * kTicksPerSecond));
  st.wMinute = static_cast<WORD>(rest / (60 * kTicksPerSecond) % 60);
  st.wSecond = static_cast<WORD>(rest / kTicksPerSecond % 60);
  st.wMilliseconds = static_cast<WORD>(rest / 10000 % 1000);
}

int64_t NowTicks() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<int64_t>(ts.tv_sec) * kTicksPerSecond + ts.tv_nsec / 100 + kTicks1601To1970;
}

time_t UnixSeconds(int64_t ticks) { return static_cast<time_t>(FloorDiv(ticks - kTicks1601To1970, kTicksPerSecond)); }

// UTC offset in seconds (east positive) in force at a Unix time, by the process's TZ.
long OffsetAt(time_t t, bool* isDst = nullptr) {
  tzset();
  tm local{};
  if (!localtime_r(&t, &local)) return 0;
  if (isDst) *isDst = local.tm_isdst > 0;
  return local.tm_gmtoff;
}

BOOL Fail(DWORD error) {
  SetLastError(error);
  return FALSE;
}

// Adds seconds to a FILETIME with the range checks of the published conversions.
BOOL ShiftFileTime(const FILETIME* in, long seconds, FILETIME* out) {
  if (!in || !out) return Fail(ERROR_INVALID_PARAMETER);
  uint64_t ticks = ToTicks(*in);
  if (ticks > static_cast<uint64_t>(kMaxTicks)) return Fail(ERROR_INVALID_PARAMETER);
  int64_t shifted = static_cast<int64_t>(ticks) + static_cast<int64_t>(seconds) * kTicksPerSecond;
  if (shifted < 0) return Fail(ERROR_INVALID_PARAMETER);
  FromTicks(shifted, *out);
  return TRUE;
}

// ---- Time zone rules in TIME_ZONE_INFORMATION form ----

// The local clock time, in ticks since 1601, at which a transition rule fires in a year.
bool RuleTicks(const SYSTEMTIME& rule, int64_t year, int64_t& ticks) {
  if (rule.wMonth < 1 || rule.wMonth > 12) return false;
  int day = rule.wDay;
  if (rule.wYear == 0) {  // the wDay-th wDayOfWeek of the month, 5 meaning the last
    int first = Weekday(DaysFromCivil(year, rule.wMonth, 1));
    day = 1 + (rule.wDayOfWeek - first + 7) % 7 + (rule.wDay - 1) * 7;
    while (day > DaysInMonth(year, rule.wMonth)) day -= 7;
  }
  if (day < 1 || day > DaysInMonth(year, rule.wMonth)) return false;
  int64_t days = DaysFromCivil(year, rule.wMonth, day) + kDays1601To1970;
  ticks = (days * 86400 + rule.wHour * 3600 + rule.wMinute * 60 + rule.wSecond) * kTicksPerSecond +
          rule.wMilliseconds * 10000LL;
  return true;
}

int64_t YearOf(int64_t ticks) {
  int64_t y;
  int m, d;
  CivilFromDays(FloorDiv(ticks, kTicksPerDay) - kDays1601To1970, y, m, d);
  return y;
}

bool InDaylightTime(const TIME_ZONE_INFORMATION& tz, int64_t utc) {
  if (tz.StandardDate.wMonth == 0 || tz.DaylightDate.wMonth == 0) return false;
  const int64_t minute = 60 * kTicksPerSecond;
  int64_t year = YearOf(utc - static_cast<int64_t>(tz.Bias) * minute);
  int64_t start, end;
  if (!RuleTicks(tz.DaylightDate, year, start) || !RuleTicks(tz.StandardDate, year, end)) return false;
  start += static_cast<int64_t>(tz.Bias + tz.StandardBias) * minute;  // rule given in standard time
  end += static_cast<int64_t>(tz.Bias + tz.DaylightBias) * minute;    // rule given in daylight time
  return start < end ? (utc >= start && utc < end) : (utc >= start || utc < end);
}

LONG BiasAt(const TIME_ZONE_INFORMATION& tz, int64_t utc) {
  return tz.Bias + (InDaylightTime(tz, utc) ? tz.DaylightBias : tz.StandardBias);
}

struct ZoneState {
  long offset = 0;
  bool dst = false;
  bool operator!=(const ZoneState& o) const { return offset != o.offset || dst != o.dst; }
};

ZoneState StateAt(time_t t) {
  ZoneState s;
  tm local{};
  if (localtime_r(&t, &local)) {
    s.offset = local.tm_gmtoff;
    s.dst = local.tm_isdst > 0;
  }
  return s;
}

// First second in (lo, hi] whose state differs from the state at lo.
time_t FindChange(time_t lo, time_t hi) {
  const ZoneState before = StateAt(lo);
  while (hi - lo > 1) {
    time_t mid = lo + (hi - lo) / 2;
    if (StateAt(mid) != before)
      hi = mid;
    else
      lo = mid;
  }
  return hi;
}

// A transition as a day-of-month rule: the local time before the change, its weekday and
// which occurrence of that weekday in the month (5 for the last).
SYSTEMTIME TransitionRule(time_t change, long offsetBefore) {
  SYSTEMTIME local{};
  int64_t ticks = (static_cast<int64_t>(change) + offsetBefore) * kTicksPerSecond + kTicks1601To1970;
  TicksToSystemTime(ticks, local);
  SYSTEMTIME rule{};
  rule.wMonth = local.wMonth;
  rule.wDayOfWeek = local.wDayOfWeek;
  rule.wDay = static_cast<WORD>(local.wDay + 7 > DaysInMonth(local.wYear, local.wMonth) ? 5 : (local.wDay - 1) / 7 + 1);
  rule.wHour = local.wHour;
  rule.wMinute = local.wMinute;
  rule.wSecond = local.wSecond;
  return rule;
}

void CopyName(WCHAR (&dest)[32], const char* name) {
  size_t i = 0;
  for (; name && name[i] && i < 31; ++i) dest[i] = static_cast<unsigned char>(name[i]);
  dest[i] = 0;
}

// The process's zone for the given year, as Windows describes zones.
void DescribeZone(int64_t year, TIME_ZONE_INFORMATION& tz, bool& hasDst) {
  tzset();
  std::memset(&tz, 0, sizeof tz);
  const time_t yearStart = static_cast<time_t>(DaysFromCivil(year, 1, 1) * 86400);
  const time_t yearEnd = static_cast<time_t>(DaysFromCivil(year + 1, 1, 1) * 86400);
  bool haveStd = false, haveDst = false;
  long stdOffset = -timezone, dstOffset = 0;
  bool foundStart = false, foundEnd = false;
  ZoneState prev = StateAt(yearStart);
  for (time_t t = yearStart; t < yearEnd; t += 86400) {
    if (!prev.dst && !haveStd) {
      stdOffset = prev.offset;
      haveStd = true;
    }
    if (prev.dst && !haveDst) {
      dstOffset = prev.offset;
      haveDst = true;
    }
    const time_t next = t + 86400 < yearEnd ? t + 86400 : yearEnd;
    const ZoneState cur = StateAt(next);
    if (cur.dst != prev.dst) {
      const time_t change = FindChange(t, next);
      if (cur.dst && !foundStart) {
        tz.DaylightDate = TransitionRule(change, prev.offset);
        foundStart = true;
      } else if (!cur.dst && !foundEnd) {
        tz.StandardDate = TransitionRule(change, prev.offset);
        foundEnd = true;
      }
    }
    prev = cur;
  }
  hasDst = foundStart && foundEnd && haveDst;
  tz.Bias = static_cast<LONG>(-stdOffset / 60);
  tz.StandardBias = 0;
  tz.DaylightBias = hasDst ? static_cast<LONG>(-(dstOffset - stdOffset) / 60) : 0;
  if (!hasDst) {
    std::memset(&tz.StandardDate, 0, sizeof tz.StandardDate);
    std::memset(&tz.DaylightDate, 0, sizeof tz.DaylightDate);
  }
  CopyName(tz.StandardName, tzname[0]);
  CopyName(tz.DaylightName, hasDst ? tzname[1] : "");
}

errno_t SetErrno(errno_t e) {
  errno = e;
  return e;
}

void InvalidTm(tm* t) {
  t->tm_sec = t->tm_min = t->tm_hour = t->tm_mday = t->tm_mon = t->tm_year = -1;
  t->tm_wday = t->tm_yday = t->tm_isdst = -1;
}

bool TimeInRange(const __time64_t* t) { return t && *t >= 0 && *t <= _MAX__TIME64_T; }

}  // namespace

extern "C" {

void GetSystemTime(LPSYSTEMTIME lpSystemTime) {
  if (lpSystemTime) TicksToSystemTime(NowTicks(), *lpSystemTime);
}

void GetLocalTime(LPSYSTEMTIME lpSystemTime) {
  if (!lpSystemTime) return;
  int64_t now = NowTicks();
  TicksToSystemTime(now + OffsetAt(UnixSeconds(now)) * kTicksPerSecond, *lpSystemTime);
}

void GetSystemTimeAsFileTime(LPFILETIME lpSystemTimeAsFileTime) {
  if (lpSystemTimeAsFileTime) FromTicks(NowTicks(), *lpSystemTimeAsFileTime);
}

void GetSystemTimePreciseAsFileTime(LPFILETIME lpSystemTimeAsFileTime) {
  GetSystemTimeAsFileTime(lpSystemTimeAsFileTime);
}

BOOL SystemTimeToFileTime(const SYSTEMTIME* lpSystemTime, LPFILETIME lpFileTime) {
  if (!lpSystemTime || !lpFileTime || !ValidSystemTime(*lpSystemTime)) return Fail(ERROR_INVALID_PARAMETER);
  FromTicks(SystemTimeTicks(*lpSystemTime), *lpFileTime);
  return TRUE;
}

BOOL FileTimeToSystemTime(const FILETIME* lpFileTime, LPSYSTEMTIME lpSystemTime) {
  if (!lpFileTime || !lpSystemTime) return Fail(ERROR_INVALID_PARAMETER);
  uint64_t ticks = ToTicks(*lpFileTime);
  if (ticks > static_cast<uint64_t>(kMaxTicks)) return Fail(ERROR_INVALID_PARAMETER);
  TicksToSystemTime(static_cast<int64_t>(ticks), *lpSystemTime);
  return TRUE;
}

BOOL FileTimeToLocalFileTime(const FILETIME* lpFileTime, LPFILETIME lpLocalFileTime) {
  return ShiftFileTime(lpFileTime, OffsetAt(time(nullptr)), lpLocalFileTime);
}

BOOL LocalFileTimeToFileTime(const FILETIME* lpLocalFileTime, LPFILETIME lpFileTime) {
  return ShiftFileTime(lpLocalFileTime, -OffsetAt(time(nullptr)), lpFileTime);
}

LONG CompareFileTime(const FILETIME* lpFileTime1, const FILETIME* lpFileTime2) {
  if (!lpFileTime1 || !lpFileTime2) return 0;
  uint64_t a = ToTicks(*lpFileTime1), b = ToTicks(*lpFileTime2);
  return a < b ? -1 : a > b ? 1 : 0;
}

DWORD GetTimeZoneInformation(LPTIME_ZONE_INFORMATION lpTimeZoneInformation) {
  if (!lpTimeZoneInformation) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return TIME_ZONE_ID_INVALID;
  }
  const int64_t now = NowTicks();
  bool isDst = false;
  const long offset = OffsetAt(UnixSeconds(now), &isDst);
  bool hasDst = false;
  DescribeZone(YearOf(now + offset * kTicksPerSecond), *lpTimeZoneInformation, hasDst);
  if (!hasDst) return TIME_ZONE_ID_UNKNOWN;
  return isDst ? TIME_ZONE_ID_DAYLIGHT : TIME_ZONE_ID_STANDARD;
}

BOOL SystemTimeToTzSpecificLocalTime(const TIME_ZONE_INFORMATION* lpTimeZoneInformation,
                                     const SYSTEMTIME* lpUniversalTime, LPSYSTEMTIME lpLocalTime) {
  if (!lpUniversalTime || !lpLocalTime || !ValidSystemTime(*lpUniversalTime)) return Fail(ERROR_INVALID_PARAMETER);
  const int64_t utc = SystemTimeTicks(*lpUniversalTime);
  int64_t local = lpTimeZoneInformation
                      ? utc - static_cast<int64_t>(BiasAt(*lpTimeZoneInformation, utc)) * 60 * kTicksPerSecond
                      : utc + OffsetAt(UnixSeconds(utc)) * kTicksPerSecond;
  if (local < 0) return Fail(ERROR_INVALID_PARAMETER);
  TicksToSystemTime(local, *lpLocalTime);
  return TRUE;
}

BOOL TzSpecificLocalTimeToSystemTime(const TIME_ZONE_INFORMATION* lpTimeZoneInformation,
                                     const SYSTEMTIME* lpLocalTime, LPSYSTEMTIME lpUniversalTime) {
  if (!lpLocalTime || !lpUniversalTime || !ValidSystemTime(*lpLocalTime)) return Fail(ERROR_INVALID_PARAMETER);
  const int64_t local = SystemTimeTicks(*lpLocalTime);
  int64_t utc;
  if (lpTimeZoneInformation) {
    const TIME_ZONE_INFORMATION& tz = *lpTimeZoneInformation;
    int64_t guess = local + static_cast<int64_t>(tz.Bias + tz.StandardBias) * 60 * kTicksPerSecond;
    utc = local + static_cast<int64_t>(BiasAt(tz, guess)) * 60 * kTicksPerSecond;
  } else {
    int64_t guess = local - OffsetAt(UnixSeconds(local)) * kTicksPerSecond;
    utc = local - OffsetAt(UnixSeconds(guess)) * kTicksPerSecond;
  }
  if (utc < 0) return Fail(ERROR_INVALID_PARAMETER);
  TicksToSystemTime(utc, *lpUniversalTime);
  return TRUE;
}

void _tzset() { tzset(); }

errno_t _get_timezone(long* seconds) {
  if (!seconds) return SetErrno(EINVAL);
  tzset();
  *seconds = timezone;
  return 0;
}

errno_t _get_daylight(int* hours) {
  if (!hours) return SetErrno(EINVAL);
  tzset();
  *hours = daylight;
  return 0;
}

errno_t _get_dstbias(long* seconds) {
  if (!seconds) return SetErrno(EINVAL);
  TIME_ZONE_INFORMATION tz;
  bool hasDst = false;
  DescribeZone(YearOf(NowTicks()), tz, hasDst);
  *seconds = hasDst ? tz.DaylightBias * 60L : 0L;
  return 0;
}

errno_t _get_tzname(size_t* pReturnValue, char* timeZoneName, size_t sizeInBytes, int index) {
  if (!pReturnValue || index < 0 || index > 1) return SetErrno(EINVAL);
  tzset();
  const char* name = tzname[index] ? tzname[index] : "";
  const size_t needed = std::strlen(name) + 1;
  if (!timeZoneName && sizeInBytes == 0) {
    *pReturnValue = needed;
    return 0;
  }
  if (!timeZoneName || sizeInBytes == 0) return SetErrno(EINVAL);
  *pReturnValue = needed;
  if (needed > sizeInBytes) {
    timeZoneName[0] = '\0';
    return SetErrno(ERANGE);
  }
  std::memcpy(timeZoneName, name, needed);
  return 0;
}

__time64_t _time64(__time64_t* destTime) {
  __time64_t now = static_cast<__time64_t>(time(nullptr));
  if (destTime) *destTime = now;
  return now;
}

__time64_t _mktime64(struct tm* timeptr) {
  if (!timeptr) {
    errno = EINVAL;
    return -1;
  }
  tzset();
  time_t t = mktime(timeptr);
  if (t < 0 || t > _MAX__TIME64_T) return -1;
  return static_cast<__time64_t>(t);
}

__time64_t _mkgmtime64(struct tm* timeptr) {
  if (!timeptr) {
    errno = EINVAL;
    return -1;
  }
  time_t t = timegm(timeptr);
  if (t < 0 || t > _MAX__TIME64_T) return -1;
  return static_cast<__time64_t>(t);
}

errno_t _localtime64_s(struct tm* tmDest, const __time64_t* sourceTime) {
  if (!tmDest) return SetErrno(EINVAL);
  if (!TimeInRange(sourceTime)) {
    InvalidTm(tmDest);
    return SetErrno(EINVAL);
  }
  tzset();
  time_t t = static_cast<time_t>(*sourceTime);
  if (!localtime_r(&t, tmDest)) {
    InvalidTm(tmDest);
    return SetErrno(EINVAL);
  }
  return 0;
}

errno_t _gmtime64_s(struct tm* tmDest, const __time64_t* sourceTime) {
  if (!tmDest) return SetErrno(EINVAL);
  if (!TimeInRange(sourceTime)) {
    InvalidTm(tmDest);
    return SetErrno(EINVAL);
  }
  time_t t = static_cast<time_t>(*sourceTime);
  if (!gmtime_r(&t, tmDest)) {
    InvalidTm(tmDest);
    return SetErrno(EINVAL);
  }
  return 0;
}

struct tm* _localtime64(const __time64_t* sourceTime) {
  thread_local tm result;
  return _localtime64_s(&result, sourceTime) == 0 ? &result : nullptr;
}

struct tm* _gmtime64(const __time64_t* sourceTime) {
  thread_local tm result;
  return _gmtime64_s(&result, sourceTime) == 0 ? &result : nullptr;
}

}  // extern "C"
