// System time, FILETIME conversions and the time zone. FILETIME counts 100 ns intervals since
// 1601-01-01 UTC (1970-01-01 is 116444736000000000). Local time follows the process's TZ, which
// is read again at each call. (GetSystemTime and kin are in sysinfoapi.h on Windows, the
// FILETIME helpers in fileapi.h; windows.h brings them all.)
#pragma once
#include "winnt.h"

typedef struct _TIME_ZONE_INFORMATION {
  LONG Bias;  // minutes: UTC = local time + Bias
  WCHAR StandardName[32];
  SYSTEMTIME StandardDate;  // wMonth 0: no daylight saving time
  LONG StandardBias;
  WCHAR DaylightName[32];
  SYSTEMTIME DaylightDate;
  LONG DaylightBias;
} TIME_ZONE_INFORMATION, *PTIME_ZONE_INFORMATION, *LPTIME_ZONE_INFORMATION;

#define TIME_ZONE_ID_INVALID ((DWORD)0xFFFFFFFF)
#define TIME_ZONE_ID_UNKNOWN 0
#define TIME_ZONE_ID_STANDARD 1
#define TIME_ZONE_ID_DAYLIGHT 2

extern "C" {

void WINAPI GetSystemTime(LPSYSTEMTIME lpSystemTime);
void WINAPI GetLocalTime(LPSYSTEMTIME lpSystemTime);
void WINAPI GetSystemTimeAsFileTime(LPFILETIME lpSystemTimeAsFileTime);
void WINAPI GetSystemTimePreciseAsFileTime(LPFILETIME lpSystemTimeAsFileTime);

BOOL WINAPI SystemTimeToFileTime(const SYSTEMTIME* lpSystemTime, LPFILETIME lpFileTime);
BOOL WINAPI FileTimeToSystemTime(const FILETIME* lpFileTime, LPSYSTEMTIME lpSystemTime);
// Both use the bias in force now, not the one of the converted time, as published.
BOOL WINAPI FileTimeToLocalFileTime(const FILETIME* lpFileTime, LPFILETIME lpLocalFileTime);
BOOL WINAPI LocalFileTimeToFileTime(const FILETIME* lpLocalFileTime, LPFILETIME lpFileTime);
LONG WINAPI CompareFileTime(const FILETIME* lpFileTime1, const FILETIME* lpFileTime2);

// Rules of the current zone are taken from the TZ database for the current year.
DWORD WINAPI GetTimeZoneInformation(LPTIME_ZONE_INFORMATION lpTimeZoneInformation);
// A NULL zone means the process's zone, with its rules for the converted date.
BOOL WINAPI SystemTimeToTzSpecificLocalTime(const TIME_ZONE_INFORMATION* lpTimeZoneInformation,
                                            const SYSTEMTIME* lpUniversalTime, LPSYSTEMTIME lpLocalTime);
BOOL WINAPI TzSpecificLocalTimeToSystemTime(const TIME_ZONE_INFORMATION* lpTimeZoneInformation,
                                            const SYSTEMTIME* lpLocalTime, LPSYSTEMTIME lpUniversalTime);

}  // extern "C"
