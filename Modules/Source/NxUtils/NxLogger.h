// CNxLogger: the product's text log, shared by every process that loads the library. Threads of a
// process meet on a critical section, processes on a named mutex that is tried once, so a line
// that would have to wait is dropped rather than stall the caller. Nothing that fails in here
// reaches the caller: failures are reported on the fallback channel (standard error), each kind at
// most once an hour.
#pragma once
#include <windows.h>

#include <atomic>
#include <cstdarg>
#include <memory>
#include <mutex>
#include <string>

#include "NxSysInfo.h"

// Job value of a line that belongs to no job: the job column shows dashes.
#define NX_NO_JOB_ID (-123456LL)
// Level of a line that is always written.
#define NX_LEVEL_ALWAYS (-1)

class CNxLogger {
 public:
  static const size_t kLineBufferSize = 4096;  // on the stack
  static const size_t kLineBufferSpare = 200;  // kept free for CR LF expansion
  static const size_t kLargeBufferSize = 65536;
  static const ULONGLONG kDefaultSizeLimit = 0x500000;
  static const DWORD kOpenAttempts = 20;
  static const DWORD kOpenRetryMs = 250;
  static const ULONGLONG kFailureReportIntervalMs = 3600ULL * 1000;
  static const int kMinHeaderWidth = 70;

  CNxLogger();
  virtual ~CNxLogger();
  CNxLogger(const CNxLogger&) = delete;
  CNxLogger& operator=(const CNxLogger&) = delete;

  // Sets the logger up for "<folder>\<name>.log" (an empty folder is the current folder) and
  // creates the folders. FALSE with strError for an empty name; a logger already set up is
  // closed first.
  BOOL Initialize(std::string& strError, LPCSTR pszLogName, LPCSTR pszLogFolder, int nLevel,
                  BOOL bFileShow, BOOL bKeepOpen);
  // Lines go to an already open handle (a console) instead of a file: no mutex, no rollover.
  BOOL InitializeConsole(HANDLE hOutput, int nLevel, BOOL bFileShow);
  // Closes the file and the mutex; the logger writes nothing until initialized again.
  void Close();

  // Size limit in MB (stored in bytes); FALSE and no change for a value below 1.
  BOOL SetLogSize(LONG lMegaBytes);
  // Kept for the callers that read it back: rolled files are never deleted here.
  void SetMaxFiles(LONG lCount);
  void SetVersion(LPCSTR pszVersion);
  void SetProduct(LPCSTR pszProduct);

  // The log call. Nothing is formatted unless the level is written.
  void Log(int nLevel, LPCSTR pszFunction, UINT nLine, LPCSTR pszFile, LPCSTR pszFormat, ...);
  void LogV(int nLevel, LPCSTR pszFunction, UINT nLine, LPCSTR pszFile, LPCSTR pszFormat, va_list args);
  // Full form: a job ID (NX_NO_JOB_ID for none) and a thread ID (0: the calling thread).
  void LogEx(int nLevel, LONGLONG llJobId, DWORD dwThreadId, LPCSTR pszFunction, UINT nLine,
             LPCSTR pszFile, LPCSTR pszFormat, va_list args);

  BOOL IsInitialized() const { return m_bInitialized.load(std::memory_order_acquire); }
  BOOL IsLevelWritten(int nLevel) const;
  int GetLevel() const { return m_nLevel.load(std::memory_order_relaxed); }
  void SetLevel(int nLevel) { m_nLevel.store(nLevel, std::memory_order_relaxed); }
  std::string GetLogName() const;
  std::string GetLogFolder() const;
  std::string GetLogPath() const;
  std::string GetLockName() const;
  ULONGLONG GetSizeLimit() const;
  LONG GetMaxFiles() const;

  // Process-wide switches: the "#LgLvl<n>#" tag on every line, and giving up an open at once on
  // ERROR_ACCESS_DENIED instead of retrying for five seconds.
  static void SetShowLevelTag(BOOL bShow);
  static void SetStopOnAccessDenied(BOOL bStop);

 protected:
  // Seams over the system, so tests can fix the clock and the IDs and watch the file calls.
  virtual void GetLineTime(SYSTEMTIME* pst);
  virtual ULONGLONG GetTicks();
  virtual DWORD GetLineProcessId();
  virtual DWORD GetLineThreadId();
  virtual void GetMachineFacts(NxMachineFacts& facts);
  virtual HANDLE CreateLogFile(LPCSTR pszPath);
  virtual LPSTR AllocateLargeBuffer();
  virtual void FreeLargeBuffer(LPSTR pBuffer);
  virtual void WriteFallback(LPCSTR pszText);

 private:
  enum FailureKind { kLockFailure, kOpenFailure, kHeaderFailure, kSeekFailure, kWriteFailure,
                     kSizeFailure, kMoveFailure, kFailureKinds };
  class CLineBuilder;
  class CLockHolder;

  BOOL MakeSmallLine(CLineBuilder& line, LPSTR pBuffer, LPCSTR pszFormat, va_list args, size_t& cchLine);
  void WriteLine(LPSTR pszLine, size_t cchLine, size_t cchTimeOffset);
  void WriteToFile(LPCSTR pszLine, size_t cchLine);
  BOOL LockLockfile(std::string& strError);
  BOOL OpenLogFile(BOOL* pbNewFile);
  void WriteHeader();
  std::string MakeHeader();
  BOOL AppendLine(LPCSTR pszLine, size_t cchLine);
  void CheckSizeAndRollOver();
  void RollOver();
  void WriteStatistics(ULONGLONG ullSize, const FILETIME& ftCreate);
  void CloseFile();
  void CreateLock();
  void ReadTimeZone();
  void ReportFailure(FailureKind eKind, const std::string& strText);
  std::string TimeText(const SYSTEMTIME& st);
  LPCSTR GlobalPrefix();

  std::atomic<bool> m_bInitialized{false};
  std::string m_strLogName;
  std::string m_strLogFolder;  // always ends in a backslash
  std::string m_strLockName;
  std::string m_strLogPath;
  HANDLE m_hFile = INVALID_HANDLE_VALUE;
  HANDLE m_hConsole = NULL;
  BOOL m_bKeepOpen = FALSE;
  LONG m_lMaxFiles = 1;
  LONG m_lMaxBackupFiles = 1;
  ULONGLONG m_ullSizeLimit = kDefaultSizeLimit;
  std::atomic<int> m_nLevel{0};
  // The job and thread columns start 4 wide and widen for good with the widest value seen.
  std::atomic<int> m_nJobWidth{4};
  std::atomic<int> m_nThreadWidth{4};
  std::atomic<bool> m_bFileShow{false};
  ULONGLONG m_ullLastFailure[kFailureKinds] = {};
  BOOL m_bFailureReported[kFailureKinds] = {};
  // Lock order: m_cs, then the named mutex m_hLock, then (at a rollover) the statistics
  // logger's m_cs and its mutex.
  mutable CRITICAL_SECTION m_cs;
  HANDLE m_hLock = NULL;
  LONG m_lTimezone = 0;  // seconds west of UTC
  std::string m_strTzName;
  std::string m_strVersion;
  std::string m_strProduct;
  std::once_flag m_prefixOnce;
  std::string m_strGlobalPrefix;
  bool m_bHasGlobalPrefix = false;
  std::unique_ptr<CNxLogger> m_pStatistics;
};
