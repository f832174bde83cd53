#include "NxLogger.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

#include "NxError.h"
#include "NxPath.h"
#include "NxText.h"

namespace {

const char kDashes[] = "----------------------";
const char kHashes[] = "######################";
const int kJobMarkWidth = sizeof(kDashes) - 1;
const char kStatisticsLogName[] = "LoggingStatistics";
// Characters 5 to 19 of "%04d/%02d/%02d %02d:%02d:%02d ": "MM/DD HH:MM:SS ".
const size_t kTimeFieldStart = 5;
const size_t kTimeFieldLength = 15;
// The mutex wait is given in 100 ns units, as the Windows build of this logger did; 5 units
// round down to 0 ms, so taking the lock is a single try.
const DWORD kLockWaitHundredNs = 5;
const DWORD kHundredNsPerMs = 10000;

std::atomic<bool> g_bShowLevelTag{false};
std::atomic<bool> g_bStopOnAccessDenied{false};

class CCriticalSectionHolder {
 public:
  explicit CCriticalSectionHolder(CRITICAL_SECTION& cs) : m_cs(cs) { EnterCriticalSection(&m_cs); }
  ~CCriticalSectionHolder() { LeaveCriticalSection(&m_cs); }
  CCriticalSectionHolder(const CCriticalSectionHolder&) = delete;
  CCriticalSectionHolder& operator=(const CCriticalSectionHolder&) = delete;

 private:
  CRITICAL_SECTION& m_cs;
};

int HexDigits(unsigned long long value) {
  int n = 1;
  while (value >>= 4) ++n;
  return n;
}

int DecimalDigits(unsigned long long value) {
  int n = 1;
  while (value /= 10) ++n;
  return n;
}

// Widens a column for good when a wider value shows up; gives the width to use.
int WidenColumn(std::atomic<int>& column, int nWanted) {
  int nWidth = column.load(std::memory_order_relaxed);
  while (nWanted > nWidth && !column.compare_exchange_weak(nWidth, nWanted, std::memory_order_relaxed)) {
  }
  return std::max(nWidth, nWanted);
}

// A standard handle is a file, a pipe or a console; a console takes WriteConsoleA.
void WriteToStdHandle(HANDLE hOutput, LPCSTR pText, DWORD cbText) {
  DWORD cbWritten = 0;
  if (!WriteFile(hOutput, pText, cbText, &cbWritten, NULL)) WriteConsoleA(hOutput, pText, cbText, &cbWritten, NULL);
}

bool IsBareLineFeed(LPCSTR p, size_t i) { return p[i] == '\n' && (i == 0 || p[i - 1] != '\r'); }

size_t CountBareLineFeeds(LPCSTR p, size_t cch) {
  size_t n = 0;
  for (size_t i = 0; i < cch; ++i) n += IsBareLineFeed(p, i) ? 1 : 0;
  return n;
}

// Drops the trailing line ends, turns each bare LF into CR LF and closes the line with CR LF, in
// place. FALSE, with nothing changed, when the result and its terminator don't fit.
bool FinishLine(LPSTR p, size_t& cch, size_t cbBuffer) {
  size_t cchText = cch;
  while (cchText > 0 && (p[cchText - 1] == '\n' || p[cchText - 1] == '\r')) --cchText;
  size_t cchFinal = cchText + CountBareLineFeeds(p, cchText) + 2;
  if (cchFinal + 1 > cbBuffer) return false;
  p[cchFinal] = '\0';
  p[cchFinal - 1] = '\n';
  p[cchFinal - 2] = '\r';
  size_t dst = cchFinal - 2;
  for (size_t src = cchText; src-- > 0;) {
    bool bBare = IsBareLineFeed(p, src);
    p[--dst] = p[src];
    if (bBare) p[--dst] = '\r';
  }
  cch = cchFinal;
  return true;
}

// As FinishLine, cutting the end of the text until it fits.
void FinishLineCut(LPSTR p, size_t& cch, size_t cbBuffer) {
  cch = std::min(cch, cbBuffer - 1);
  while (!FinishLine(p, cch, cbBuffer)) {
    size_t cchNeeded = cch + CountBareLineFeeds(p, cch) + 3;
    cch -= std::min(cch, std::max<size_t>(cchNeeded - cbBuffer, 1));
  }
}

struct CFormatError {};

// Appends printf output to a fixed buffer; keeps counting past the end so the caller learns the
// size it would have needed.
class CBufferWriter {
 public:
  CBufferWriter(LPSTR pBuffer, size_t cbBuffer) : m_p(pBuffer), m_cb(cbBuffer) { m_p[0] = '\0'; }
  void Printf(LPCSTR pszFormat, ...) {
    va_list args;
    va_start(args, pszFormat);
    VPrintf(pszFormat, args);
    va_end(args);
  }
  // Microsoft printf rules ("%ld" is 32 bits, "%S" is 16-bit text), as the callers' formats
  // expect. A format the runtime refuses throws, which the caller turns into the exception line.
  void VPrintf(LPCSTR pszFormat, va_list args) {
    size_t cbLeft = m_cch < m_cb ? m_cb - m_cch : 0;
    int n = -1;
    if (cbLeft) {
      va_list copy;
      va_copy(copy, args);
      n = _vsnprintf(m_p + m_cch, cbLeft, pszFormat, copy);
      va_end(copy);
    }
    if (n < 0 || static_cast<size_t>(n) >= cbLeft) {
      n = _vscprintf(pszFormat, args);
      if (n < 0) throw CFormatError();
      if (m_cb) m_p[m_cb - 1] = '\0';
    }
    m_cch += static_cast<size_t>(n);
  }
  size_t Length() const { return m_cch; }
  bool Fits() const { return m_cch < m_cb; }

 private:
  LPSTR m_p;
  size_t m_cb;
  size_t m_cch = 0;
};

}  // namespace

// The fields of one line that are known before the logger's lock is taken.
class CNxLogger::CLineBuilder {
 public:
  DWORD dwProcessId = 0;
  DWORD dwThreadId = 0;
  int nThreadWidth = 0;
  LONGLONG llJobId = NX_NO_JOB_ID;
  int nJobWidth = 0;
  int nLevel = 0;
  bool bLevelTag = false;
  LPCSTR pszPrefix = NULL;
  LPCSTR pszFunction = NULL;
  UINT nLine = 0;
  std::string strFile;
  bool bFileShow = false;

  // Writes the fields, a blank time field at TimeOffset(), and the message. Returns the length
  // the whole text needs; it fits when that is below cbBuffer.
  size_t Make(LPSTR pBuffer, size_t cbBuffer, LPCSTR pszFormat, va_list args) {
    CBufferWriter out(pBuffer, cbBuffer);
    WriteFields(out);
    va_list copy;
    va_copy(copy, args);
    out.VPrintf(pszFormat, copy);
    va_end(copy);
    return out.Length();
  }
  size_t MakeF(LPSTR pBuffer, size_t cbBuffer, LPCSTR pszFormat, ...) {
    va_list args;
    va_start(args, pszFormat);
    size_t cch = Make(pBuffer, cbBuffer, pszFormat, args);
    va_end(args);
    return cch;
  }
  size_t TimeOffset() const { return m_cchTimeOffset; }

 private:
  void WriteFields(CBufferWriter& out) {
    out.Printf("%-*ld ", 5, static_cast<LONG>(dwProcessId));
    out.Printf("%-*lx ", nThreadWidth, dwThreadId);
    m_cchTimeOffset = out.Length();
    out.Printf("%*s", static_cast<int>(kTimeFieldLength), "");
    if (llJobId > 0)
      out.Printf("%-*lld ", nJobWidth, llJobId);
    else
      out.Printf("%.*s ", std::min(nJobWidth, kJobMarkWidth), llJobId == NX_NO_JOB_ID ? kDashes : kHashes);
    if (bLevelTag) out.Printf("#LgLvl%d#", nLevel);
    if (pszPrefix) out.Printf("%.36s ", pszPrefix);
    WriteFunction(out);
    if (!strFile.empty())
      out.Printf("%.100s ", strFile.c_str());
    else if (bFileShow)
      out.Printf("[ ] ");
  }
  void WriteFunction(CBufferWriter& out) {
    bool bHasName = pszFunction && *pszFunction;
    if (!bHasName && !bFileShow) return;
    if (bHasName) out.Printf("%.100s", pszFunction);
    if (nLine)
      out.Printf("(%u) - ", nLine);
    else
      out.Printf("() - ");
  }

  size_t m_cchTimeOffset = 0;
};

// Holds the named mutex from a successful wait until the end of the scope.
class CNxLogger::CLockHolder {
 public:
  explicit CLockHolder(HANDLE hLock) : m_hLock(hLock) {}
  ~CLockHolder() { ReleaseMutex(m_hLock); }
  CLockHolder(const CLockHolder&) = delete;
  CLockHolder& operator=(const CLockHolder&) = delete;

 private:
  HANDLE m_hLock;
};

CNxLogger::CNxLogger() { InitializeCriticalSection(&m_cs); }

CNxLogger::~CNxLogger() {
  Close();
  DeleteCriticalSection(&m_cs);
}

BOOL CNxLogger::Initialize(std::string& strError, LPCSTR pszLogName, LPCSTR pszLogFolder, int nLevel,
                           BOOL bFileShow, BOOL bKeepOpen) {
  if (!pszLogName) {
    strError = "AppName empty";
    return FALSE;
  }
  if (!*pszLogName) {
    strError = "Log name is empty";
    return FALSE;
  }
  CCriticalSectionHolder hold(m_cs);
  Close();
  m_strLogName = pszLogName;
  m_strLogFolder = (pszLogFolder && *pszLogFolder) ? NxWithTrailingBackslash(pszLogFolder) : NxGetCurrentFolder();
  m_strLockName = "Global\\NxLogger_" + m_strLogName;
  CreateLock();
  m_strLogPath = m_strLogFolder + m_strLogName + ".log";
  NxCreateFolders(m_strLogFolder.c_str());
  ReadTimeZone();
  if (m_strProduct.empty()) m_strProduct = m_strLogName;
  m_nLevel.store(nLevel, std::memory_order_relaxed);
  m_bFileShow.store(bFileShow != FALSE, std::memory_order_relaxed);
  m_bKeepOpen = bKeepOpen;
  m_bInitialized.store(true, std::memory_order_release);
  return TRUE;
}

// The zone as the header block shows it, taken once.
void CNxLogger::ReadTimeZone() {
  _tzset();
  long lTimezone = 0;
  _get_timezone(&lTimezone);
  m_lTimezone = static_cast<LONG>(lTimezone);
  char szTzName[64] = {0};
  size_t cchTzName = 0;
  m_strTzName = _get_tzname(&cchTzName, szTzName, sizeof(szTzName), 0) == 0 ? szTzName : "";
}

BOOL CNxLogger::InitializeConsole(HANDLE hOutput, int nLevel, BOOL bFileShow) {
  if (!hOutput || hOutput == INVALID_HANDLE_VALUE) return FALSE;
  CCriticalSectionHolder hold(m_cs);
  Close();
  m_hConsole = hOutput;
  m_nLevel.store(nLevel, std::memory_order_relaxed);
  m_bFileShow.store(bFileShow != FALSE, std::memory_order_relaxed);
  m_bInitialized.store(true, std::memory_order_release);
  return TRUE;
}

void CNxLogger::Close() {
  CCriticalSectionHolder hold(m_cs);
  m_bInitialized.store(false, std::memory_order_release);
  CloseFile();
  if (m_hLock) CloseHandle(m_hLock);
  m_hLock = NULL;
  m_hConsole = NULL;
  m_pStatistics.reset();
}

BOOL CNxLogger::SetLogSize(LONG lMegaBytes) {
  if (lMegaBytes < 1) return FALSE;
  CCriticalSectionHolder hold(m_cs);
  m_ullSizeLimit = static_cast<ULONGLONG>(lMegaBytes) << 20;
  return TRUE;
}

void CNxLogger::SetMaxFiles(LONG lCount) {
  CCriticalSectionHolder hold(m_cs);
  m_lMaxFiles = lCount;
  m_lMaxBackupFiles = lCount;
}

void CNxLogger::SetVersion(LPCSTR pszVersion) {
  CCriticalSectionHolder hold(m_cs);
  m_strVersion = pszVersion ? pszVersion : "";
}

void CNxLogger::SetProduct(LPCSTR pszProduct) {
  CCriticalSectionHolder hold(m_cs);
  m_strProduct = pszProduct ? pszProduct : "";
}

BOOL CNxLogger::IsLevelWritten(int nLevel) const {
  return IsInitialized() && nLevel <= m_nLevel.load(std::memory_order_relaxed);
}

std::string CNxLogger::GetLogName() const {
  CCriticalSectionHolder hold(m_cs);
  return m_strLogName;
}

std::string CNxLogger::GetLogFolder() const {
  CCriticalSectionHolder hold(m_cs);
  return m_strLogFolder;
}

std::string CNxLogger::GetLogPath() const {
  CCriticalSectionHolder hold(m_cs);
  return m_strLogPath;
}

std::string CNxLogger::GetLockName() const {
  CCriticalSectionHolder hold(m_cs);
  return m_strLockName;
}

ULONGLONG CNxLogger::GetSizeLimit() const {
  CCriticalSectionHolder hold(m_cs);
  return m_ullSizeLimit;
}

LONG CNxLogger::GetMaxFiles() const {
  CCriticalSectionHolder hold(m_cs);
  return m_lMaxFiles;
}

void CNxLogger::SetShowLevelTag(BOOL bShow) { g_bShowLevelTag.store(bShow != FALSE); }
void CNxLogger::SetStopOnAccessDenied(BOOL bStop) { g_bStopOnAccessDenied.store(bStop != FALSE); }

void CNxLogger::Log(int nLevel, LPCSTR pszFunction, UINT nLine, LPCSTR pszFile, LPCSTR pszFormat, ...) {
  if (!IsLevelWritten(nLevel)) return;
  va_list args;
  va_start(args, pszFormat);
  LogEx(nLevel, NX_NO_JOB_ID, 0, pszFunction, nLine, pszFile, pszFormat, args);
  va_end(args);
}

void CNxLogger::LogV(int nLevel, LPCSTR pszFunction, UINT nLine, LPCSTR pszFile, LPCSTR pszFormat, va_list args) {
  if (!IsLevelWritten(nLevel)) return;
  LogEx(nLevel, NX_NO_JOB_ID, 0, pszFunction, nLine, pszFile, pszFormat, args);
}

void CNxLogger::LogEx(int nLevel, LONGLONG llJobId, DWORD dwThreadId, LPCSTR pszFunction, UINT nLine,
                      LPCSTR pszFile, LPCSTR pszFormat, va_list args) {
  if (!IsLevelWritten(nLevel)) return;
  if (!pszFormat) pszFormat = "";
  CLineBuilder line;
  line.dwProcessId = GetLineProcessId();
  line.dwThreadId = dwThreadId ? dwThreadId : GetLineThreadId();
  line.nThreadWidth = WidenColumn(m_nThreadWidth, HexDigits(line.dwThreadId));
  line.llJobId = llJobId;
  line.nJobWidth = WidenColumn(m_nJobWidth, llJobId > 0 ? DecimalDigits(static_cast<unsigned long long>(llJobId)) : 0);
  line.nLevel = nLevel;
  line.bLevelTag = g_bShowLevelTag.load(std::memory_order_relaxed);
  line.pszPrefix = GlobalPrefix();
  line.pszFunction = pszFunction;
  line.nLine = nLine;
  line.strFile = NxFileNameOf(pszFile);
  line.bFileShow = m_bFileShow.load(std::memory_order_relaxed);

  char szLine[kLineBufferSize];
  LPSTR pText = szLine;
  LPSTR pLarge = NULL;
  size_t cchLine = 0;
  try {
    if (!MakeSmallLine(line, szLine, pszFormat, args, cchLine)) {
      pLarge = AllocateLargeBuffer();
      if (pLarge) {
        cchLine = line.Make(pLarge, kLargeBufferSize, pszFormat, args);
        FinishLineCut(pLarge, cchLine, kLargeBufferSize);
        pText = pLarge;
      } else {
        FinishLineCut(szLine, cchLine, kLineBufferSize);
      }
    }
  } catch (...) {
    pText = szLine;
    cchLine = line.MakeF(szLine, kLineBufferSize - kLineBufferSpare,
                         "@@@@@@@@@@@@@@@@@@\n>>>>>>>>>>>>>>>>>> GOT AN EXCEPTION DURING DEBUG MESSAGE HANDLING [%.3000s]"
                         "\n@@@@@@@@@@@@@@@@@@",
                         pszFormat);
    FinishLineCut(szLine, cchLine, kLineBufferSize);
  }
  WriteLine(pText, cchLine, line.TimeOffset());
  if (pLarge) FreeLargeBuffer(pLarge);
}

// The line in the stack buffer, with its spare room for the CR LF expansion. FALSE when it needs
// the large buffer; cchLine is then what the stack buffer holds.
BOOL CNxLogger::MakeSmallLine(CLineBuilder& line, LPSTR pBuffer, LPCSTR pszFormat, va_list args, size_t& cchLine) {
  const size_t cbText = kLineBufferSize - kLineBufferSpare;
  cchLine = line.Make(pBuffer, cbText, pszFormat, args);
  if (cchLine < cbText && FinishLine(pBuffer, cchLine, kLineBufferSize)) return TRUE;
  cchLine = std::min(cchLine, cbText - 1);
  return FALSE;
}

void CNxLogger::WriteLine(LPSTR pszLine, size_t cchLine, size_t cchTimeOffset) {
  CCriticalSectionHolder hold(m_cs);
  if (!IsInitialized()) return;
  SYSTEMTIME st;
  GetLineTime(&st);
  memcpy(pszLine + cchTimeOffset, TimeText(st).c_str() + kTimeFieldStart, kTimeFieldLength);
  if (m_hConsole) {
    WriteToStdHandle(m_hConsole, pszLine, static_cast<DWORD>(cchLine));
    return;
  }
  WriteToFile(pszLine, cchLine);
}

void CNxLogger::WriteToFile(LPCSTR pszLine, size_t cchLine) {
  std::string strError;
  if (!LockLockfile(strError)) {
    ReportFailure(kLockFailure, NxFormat("Failed in acquiring the lock on file [%s] Module [%s] Error[%s]",
                                         m_strLogPath.c_str(), m_strLogName.c_str(), strError.c_str()));
    return;
  }
  CLockHolder holdLock(m_hLock);
  BOOL bNewFile = FALSE;
  if (!OpenLogFile(&bNewFile)) return;
  if (bNewFile) WriteHeader();
  if (!AppendLine(pszLine, cchLine)) {
    if (!m_bKeepOpen) CloseFile();
    return;
  }
  CheckSizeAndRollOver();
}

void CNxLogger::CreateLock() {
  // A NULL DACL lets every user's processes share the lock.
  SECURITY_DESCRIPTOR sd;
  SECURITY_ATTRIBUTES sa = {sizeof(sa), NULL, FALSE};
  if (InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION) && SetSecurityDescriptorDacl(&sd, TRUE, NULL, FALSE))
    sa.lpSecurityDescriptor = &sd;
  m_hLock = CreateMutexA(&sa, FALSE, m_strLockName.c_str());
}

BOOL CNxLogger::LockLockfile(std::string& strError) {
  if (!m_hLock) CreateLock();
  if (!m_hLock) {
    strError = NxFormat("Failed creating mutex %s: %s", m_strLockName.c_str(), NxErrorText(GetLastError()).c_str());
    return FALSE;
  }
  DWORD dwWait = WaitForSingleObject(m_hLock, kLockWaitHundredNs / kHundredNsPerMs);
  if (dwWait == WAIT_OBJECT_0 || dwWait == WAIT_ABANDONED) return TRUE;
  if (dwWait == WAIT_FAILED)
    strError = NxFormat("Failed waiting on mutex %s: %s", m_strLockName.c_str(), NxErrorText(GetLastError()).c_str());
  else
    strError = NxFormat("Timed out acquiring mutex on %s", m_strLockName.c_str());
  return FALSE;
}

BOOL CNxLogger::OpenLogFile(BOOL* pbNewFile) {
  *pbNewFile = FALSE;
  if (m_hFile != INVALID_HANDLE_VALUE) {
    if (m_bKeepOpen) return TRUE;
    CloseFile();
  }
  DWORD dwError = ERROR_SUCCESS;
  for (DWORD dwAttempt = 0; dwAttempt < kOpenAttempts; ++dwAttempt) {
    if (dwAttempt) Sleep(kOpenRetryMs);
    m_hFile = CreateLogFile(m_strLogPath.c_str());
    dwError = GetLastError();
    if (m_hFile != INVALID_HANDLE_VALUE) break;
    if (dwError == ERROR_ACCESS_DENIED && g_bStopOnAccessDenied.load()) break;
  }
  if (m_hFile == INVALID_HANDLE_VALUE) {
    ReportFailure(kOpenFailure,
                  NxFormat("Failed open log file [%s], Module[%s], Error %d. Make sure this log file is not locked and "
                           "has full permissions. Some of the log lines will not be logged because of this error",
                           m_strLogPath.c_str(), m_strLogName.c_str(), static_cast<int>(dwError)));
    return FALSE;
  }
  if (m_bFailureReported[kOpenFailure]) {
    m_bFailureReported[kOpenFailure] = FALSE;
    m_ullLastFailure[kOpenFailure] = 0;
    WriteFallback(NxFormat("%ld:%s:Successfully opened log [%s] Module[%s]. Reseting the last failure time\n",
                           static_cast<LONG>(GetLineProcessId()), m_strLogName.c_str(), m_strLogPath.c_str(),
                           m_strLogName.c_str()).c_str());
  }
  *pbNewFile = dwError != ERROR_ALREADY_EXISTS;
  return TRUE;
}

void CNxLogger::WriteHeader() {
  std::string strHeader = MakeHeader();
  DWORD cbWritten = 0;
  if (!WriteFile(m_hFile, strHeader.data(), static_cast<DWORD>(strHeader.size()), &cbWritten, NULL) ||
      cbWritten != strHeader.size())
    ReportFailure(kHeaderFailure, NxFormat("Failed writing log header to log [%s] Module [%s]", m_strLogPath.c_str(),
                                           m_strLogName.c_str()));
}

std::string CNxLogger::MakeHeader() {
  NxMachineFacts facts;
  GetMachineFacts(facts);
  SYSTEMTIME st;
  GetLineTime(&st);
  LONG lOffset = m_lTimezone < 0 ? -m_lTimezone : m_lTimezone;
  const std::string astrLines[] = {
      NxFormat("Machine    : %s:%s (%s) (%s)", facts.strComputerName.c_str(), facts.strUserName.c_str(),
               facts.strUserDomain.c_str(), facts.strArchitecture.c_str()),
      NxFormat("IP Addrs   : %s", facts.strIpAddresses.c_str()),
      NxFormat("Module     : %s", facts.strModule.c_str()),
      NxFormat("Peltrix    : %s:%s", facts.strLibrary.c_str(), facts.strLibraryBuild.c_str()),
      NxFormat("Version    : %s", m_strVersion.c_str()),
      // The zone is west-positive, the printed offset east-positive.
      NxFormat("Date       : %.10s (%s GMT%s%02ld:%02ld)", TimeText(st).c_str(), m_strTzName.c_str(),
               m_lTimezone > 0 ? "-" : "+", lOffset / 3600, lOffset % 3600 / 60),
      NxFormat("OS Type    : %s", facts.strOsType.c_str()),
      NxFormat("Processor  : %lu bit", facts.ulProcessorBits),
      NxFormat("Product    : %s", m_strProduct.c_str()),
  };
  int nWidth = kMinHeaderWidth;
  for (const std::string& strLine : astrLines) nWidth = std::max(nWidth, static_cast<int>(strLine.size()));
  std::string strFrame(static_cast<size_t>(nWidth) + 4, '*');
  strFrame += "\r\n";
  std::string strHeader = strFrame;
  for (const std::string& strLine : astrLines)
    strHeader += NxFormat("* %s%*s *%s", strLine.c_str(), nWidth - static_cast<int>(strLine.size()), "", "\r\n");
  return strHeader + strFrame;
}

BOOL CNxLogger::AppendLine(LPCSTR pszLine, size_t cchLine) {
  if (SetFilePointer(m_hFile, 0, NULL, FILE_END) == INVALID_SET_FILE_POINTER && GetLastError() != NO_ERROR) {
    ReportFailure(kSeekFailure,
                  NxFormat("Failed setting offset in log [%s] Module [%s]", m_strLogPath.c_str(), m_strLogName.c_str()));
    return FALSE;
  }
  DWORD cbWritten = 0;
  if (!WriteFile(m_hFile, pszLine, static_cast<DWORD>(cchLine), &cbWritten, NULL) || cbWritten != cchLine) {
    ReportFailure(kWriteFailure, NxFormat("Failed writing log message to log [%s] Module [%s] Errorcode[%u]",
                                          m_strLogPath.c_str(), m_strLogName.c_str(), static_cast<unsigned>(GetLastError())));
    return FALSE;
  }
  return TRUE;
}

void CNxLogger::CheckSizeAndRollOver() {
  DWORD dwHigh = 0;
  DWORD dwLow = GetFileSize(m_hFile, &dwHigh);
  if (dwLow == INVALID_FILE_SIZE && GetLastError() != NO_ERROR) {
    ReportFailure(kSizeFailure, NxFormat("Failed getting size of log [%s] Module[%s] Errorcode[%u]", m_strLogPath.c_str(),
                                         m_strLogName.c_str(), static_cast<unsigned>(GetLastError())));
    if (!m_bKeepOpen) CloseFile();
    return;
  }
  ULONGLONG ullSize = (static_cast<ULONGLONG>(dwHigh) << 32) | dwLow;
  if (ullSize < m_ullSizeLimit) {
    if (!m_bKeepOpen) CloseFile();
    return;
  }
  RollOver();
}

void CNxLogger::RollOver() {
  CloseFile();
  // Another process may have rolled the file between our write and now.
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!GetFileAttributesExA(m_strLogPath.c_str(), GetFileExInfoStandard, &data)) return;
  ULONGLONG ullSize = (static_cast<ULONGLONG>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
  if (ullSize < m_ullSizeLimit) return;
  SYSTEMTIME st;
  GetLineTime(&st);
  std::string strRolled = NxFormat("%s%s_%04d_%02d_%02d_%02d_%02d_%02d.log", m_strLogFolder.c_str(), m_strLogName.c_str(),
                                   st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute, st.wSecond);
  if (!MoveFileA(m_strLogPath.c_str(), strRolled.c_str())) {
    ReportFailure(kMoveFailure, NxFormat("Failed moving log file [%s] to [%s], Module=[%s], error=[%s]",
                                         m_strLogPath.c_str(), strRolled.c_str(), m_strLogName.c_str(),
                                         NxErrorText(GetLastError()).c_str()));
    return;
  }
  if (m_strLogName != kStatisticsLogName) WriteStatistics(ullSize, data.ftCreationTime);
}

void CNxLogger::WriteStatistics(ULONGLONG ullSize, const FILETIME& ftCreate) {
  if (!m_pStatistics) {
    m_pStatistics.reset(new CNxLogger);
    std::string strError;
    m_pStatistics->SetProduct(m_strProduct.c_str());
    m_pStatistics->SetVersion(m_strVersion.c_str());
    m_pStatistics->Initialize(strError, kStatisticsLogName, m_strLogFolder.c_str(), 1, FALSE, FALSE);
  }
  FILETIME ftLocal;
  SYSTEMTIME stCreate = {};
  if (!FileTimeToLocalFileTime(&ftCreate, &ftLocal) || !FileTimeToSystemTime(&ftLocal, &stCreate)) stCreate = SYSTEMTIME{};
  std::string strCreate = TimeText(stCreate);
  strCreate.pop_back();  // the blank behind the seconds
  m_pStatistics->Log(NX_LEVEL_ALWAYS, NULL, 0, NULL,
                     "Log file for Module [%s] rolled over. File size is %lluMB, Create time [%s].\n",
                     m_strLogName.c_str(), ullSize >> 20, strCreate.c_str());
}

void CNxLogger::CloseFile() {
  if (m_hFile != INVALID_HANDLE_VALUE) CloseHandle(m_hFile);
  m_hFile = INVALID_HANDLE_VALUE;
}

void CNxLogger::ReportFailure(FailureKind eKind, const std::string& strText) {
  ULONGLONG ullNow = GetTicks();
  if (m_bFailureReported[eKind] && ullNow - m_ullLastFailure[eKind] < kFailureReportIntervalMs) return;
  m_bFailureReported[eKind] = TRUE;
  m_ullLastFailure[eKind] = ullNow;
  WriteFallback(NxFormat("%ld:%s:%s\n", static_cast<LONG>(GetLineProcessId()), m_strLogName.c_str(), strText.c_str()).c_str());
}

std::string CNxLogger::TimeText(const SYSTEMTIME& st) {
  return NxFormat("%04d/%02d/%02d %02d:%02d:%02d ", st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute, st.wSecond);
}

LPCSTR CNxLogger::GlobalPrefix() {
  std::call_once(m_prefixOnce, [this] {
    char szPrefix[64] = {0};
    SetLastError(ERROR_SUCCESS);
    DWORD cch = GetEnvironmentVariableA("NXDEBUG_GLOBAL_PREFIX", szPrefix, sizeof(szPrefix));
    m_bHasGlobalPrefix = cch > 0 || GetLastError() != ERROR_ENVVAR_NOT_FOUND;
    // Only 36 characters are shown, so a longer value needn't be read whole.
    if (cch < sizeof(szPrefix)) m_strGlobalPrefix = szPrefix;
    if (cch >= sizeof(szPrefix)) {
      std::string strLong(cch, '\0');
      DWORD cchLong = GetEnvironmentVariableA("NXDEBUG_GLOBAL_PREFIX", &strLong[0], cch);
      m_strGlobalPrefix = strLong.substr(0, std::min<size_t>(cchLong, strLong.size()));
    }
  });
  return m_bHasGlobalPrefix ? m_strGlobalPrefix.c_str() : NULL;
}

void CNxLogger::GetLineTime(SYSTEMTIME* pst) { GetLocalTime(pst); }
ULONGLONG CNxLogger::GetTicks() { return GetTickCount64(); }
DWORD CNxLogger::GetLineProcessId() { return GetCurrentProcessId(); }
DWORD CNxLogger::GetLineThreadId() { return GetCurrentThreadId(); }
void CNxLogger::GetMachineFacts(NxMachineFacts& facts) { facts = NxGetMachineFacts(); }

HANDLE CNxLogger::CreateLogFile(LPCSTR pszPath) {
  return CreateFileA(pszPath, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, NULL, OPEN_ALWAYS,
                     FILE_ATTRIBUTE_NORMAL, NULL);
}

LPSTR CNxLogger::AllocateLargeBuffer() { return new char[kLargeBufferSize]; }
void CNxLogger::FreeLargeBuffer(LPSTR pBuffer) { delete[] pBuffer; }

// The fallback channel is the process's standard error.
void CNxLogger::WriteFallback(LPCSTR pszText) {
  HANDLE hError = GetStdHandle(STD_ERROR_HANDLE);
  if (hError && hError != INVALID_HANDLE_VALUE) WriteToStdHandle(hError, pszText, static_cast<DWORD>(strlen(pszText)));
}
