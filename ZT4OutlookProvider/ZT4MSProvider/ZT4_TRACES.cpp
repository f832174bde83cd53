#include "ZT4_TRACES.h"

#include <mapidefs.h>
#include <mapitags.h>
#include <objbase.h>
#include <comdef.h>
#include <shlobj.h>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <string>

#include "NxPath.h"
#include "NxText.h"
#include "ZT4Globals.h"

namespace {

const char kProviderLogName[] = "TQProvider";
const char kInstallerLogName[] = "TQProviderRegister";
const char kInstallerLogSubFolder[] = "\\Larkmoor Systems\\Nimbrel\\LogFiles";
const char kLogVersion[] = "1.0.0";
const char kProductName[] = "ArchiveDepot";
const int kConsoleLevel = 5;
const SHORT kConsoleColumns = 80;
const SHORT kConsoleRows = 300;
const char kBanner[] =
    "\n\n\t\t\t**********************************************************************************\n\t\t\t %s : "
    "Initialize Logger\n\t\t\t OutlookAddinClient Version : %s\n\t\t\t"
    "**********************************************************************************";

struct TagName {
  ULONG ulId;
  LPCSTR pszName;
};

constexpr TagName kTagNames[] = {
#include "ZT4TagNames.inc"
};

constexpr bool TagNamesSorted() {
  for (size_t i = 1; i < std::size(kTagNames); ++i)
    if (kTagNames[i - 1].ulId >= kTagNames[i].ulId) return false;
  return true;
}
static_assert(TagNamesSorted(), "ZT4TagNames.inc is out of order: run tools/gen_tagnames.py --provider");

std::atomic<bool> g_bTracesInitialized{false};
std::atomic<ULONG> g_ulTraceFlags{0};
std::atomic<bool> g_bAssertBreak{false};

struct LogSettings {
  std::string strFolder;
  LONG lLevel = 0;
  LONG lSizeMB = 0;
  LONG lMaxFiles = 0;
};

// The log settings of the data provider's configuration object; FALSE when there is no provider
// or no configuration, or when reading it fails.
BOOL ReadProviderLogSettings(LogSettings& settings) {
  IZT4DataProvider* pProvider = GetDataProvider();
  if (!pProvider) return FALSE;
  try {
    IZT4ProviderConfigPtr spConfig = pProvider->GetConfigurationParams();
    if (!spConfig) return FALSE;
    _bstr_t bstrFileName = spConfig->GetLogFileName();
    settings.strFolder = NxWideToNarrow(static_cast<const WCHAR*>(bstrFileName));
    settings.lLevel = spConfig->GetLogLevel();
    settings.lSizeMB = spConfig->LogSize();
    settings.lMaxFiles = spConfig->MaxFiles();
    return TRUE;
  } catch (_com_error&) {
    return FALSE;
  }
}

void WriteBanner() {
  ZT4_LOG(ZT4_LEVEL_ALWAYS, kBanner, NxGetProcessFilePath().c_str(), kLogVersion);
}

BOOL InitializeLogger(LPCSTR pszLogName, LPCSTR pszFolder, int nLevel) {
  CNxLogger& logger = GetTraceLogger();
  std::string strError;
  logger.SetProduct(kProductName);
  logger.SetVersion(kLogVersion);
  return logger.Initialize(strError, pszLogName, pszFolder, nLevel, TRUE, FALSE);
}

void InitConsoleTraces() {
  AllocConsole();
  HANDLE hConsole = GetStdHandle(STD_OUTPUT_HANDLE);
  COORD size = {kConsoleColumns, kConsoleRows};
  SetConsoleScreenBufferSize(hConsole, size);
  GetTraceLogger().InitializeConsole(hConsole, kConsoleLevel, TRUE);
}

void InitProviderFileLog() {
  LogSettings settings;
  if (!ReadProviderLogSettings(settings)) return;
  if (!InitializeLogger(kProviderLogName, settings.strFolder.c_str(), settings.lLevel)) return;
  GetTraceLogger().SetLogSize(settings.lSizeMB);
  GetTraceLogger().SetMaxFiles(settings.lMaxFiles);
  WriteBanner();
}

std::string InstallerLogFolder() {
  PWSTR pwszFolder = NULL;
  std::string strFolder;
  if (SUCCEEDED(SHGetKnownFolderPath(FOLDERID_LocalAppData, 0, NULL, &pwszFolder)) && pwszFolder)
    strFolder = NxWideToNarrow(pwszFolder) + kInstallerLogSubFolder;
  CoTaskMemFree(pwszFolder);
  if (!strFolder.empty()) return strFolder;
  char szTemp[MAX_PATH + 1] = {0};
  DWORD cch = GetTempPathA(sizeof(szTemp), szTemp);
  return (cch > 0 && cch < sizeof(szTemp)) ? std::string(szTemp, cch) : std::string();
}

void InitInstallerLog() {
  std::string strFolder = InstallerLogFolder();
  if (!InitializeLogger(kInstallerLogName, strFolder.c_str(), 5)) return;
  GetTraceLogger().SetLogSize(5);
  GetTraceLogger().SetMaxFiles(1);
  WriteBanner();
}

bool AskToBreak(const std::string& strQuestion) {
  if (!g_bAssertBreak.load()) return false;
  return MessageBoxA(NULL, strQuestion.c_str(), "Assertion", MB_YESNO | MB_ICONQUESTION) == IDYES;
}

void BreakIfAsked(const std::string& strQuestion) {
  if (AskToBreak(strQuestion)) DebugBreak();
}

}  // namespace

CNxLogger& GetTraceLogger() {
  // Never destroyed: sync and timer threads may still log while the process exits.
  static CNxLogger* s_pLogger = new CNxLogger;
  return *s_pLogger;
}

void InitTraces(ULONG ulFlags) {
  if (g_bTracesInitialized.exchange(true)) return;
  if (ulFlags & (ZT4_TRACE_CONSOLE | ZT4_TRACE_FILE | ZT4_TRACE_LOGON)) {
    g_ulTraceFlags.store(ulFlags);
    if (ulFlags & ZT4_TRACE_CONSOLE)
      InitConsoleTraces();
    else if (ulFlags & ZT4_TRACE_FILE)
      InitProviderFileLog();
  } else if (ulFlags == ZT4_TRACE_INSTALLER) {
    InitInstallerLog();
  }
}

ULONG GetTraceFlags() { return g_ulTraceFlags.load(); }

void ZT4Log(int nLevel, LPCSTR pszFunction, UINT nLine, LPCSTR pszFile, LPCSTR pszFormat, ...) {
  CNxLogger& logger = GetTraceLogger();
  if (!logger.IsLevelWritten(nLevel)) return;
  va_list args;
  va_start(args, pszFormat);
  logger.LogV(nLevel, pszFunction, nLine, pszFile, pszFormat, args);
  va_end(args);
}

CScopeTrace::CScopeTrace(LPCSTR pszFunction, UINT nLine, LPCSTR pszFile, int nLevel)
    : m_pszFunction(pszFunction), m_nLine(nLine), m_pszFile(pszFile), m_nLevel(nLevel) {
  ZT4Log(m_nLevel, m_pszFunction, m_nLine, m_pszFile, "Function entry point");
}

CScopeTrace::~CScopeTrace() { ZT4Log(m_nLevel, m_pszFunction, m_nLine, m_pszFile, "Function exit point"); }

void AssertStatement(LPCSTR pszFile, int nLine) {
  std::string strText = NxFormat("Assertion failed in File: %s, Line: %d", pszFile ? pszFile : "", nLine);
  ZT4_LOG(ZT4_LEVEL_DETAIL, "%s", strText.c_str());
  BreakIfAsked(NxFormat("%s - Break into the debugger?", strText.c_str()));
}

void AssertStatementWithMsg(LPCSTR pszMessage, LPCSTR pszFile, int nLine) {
  LPCSTR pszMsg = pszMessage ? pszMessage : "";
  LPCSTR pszFileName = pszFile ? pszFile : "";
  ZT4_LOG(ZT4_LEVEL_DETAIL, "%s\r\nAssertion in File: %s, Line: %d", pszMsg, pszFileName, nLine);
  BreakIfAsked(NxFormat("%s\r\nAssertion in File: %s, Line: %d\r\nBreak into the debugger?", pszMsg, pszFileName, nLine));
}

void SetAssertBreak(BOOL bBreak) { g_bAssertBreak.store(bBreak != FALSE); }

LPCSTR GetPropTagName(ULONG ulPropTag) {
  const ULONG ulId = PROP_ID(ulPropTag);
  const TagName* pEnd = std::end(kTagNames);
  const TagName* p = std::lower_bound(std::begin(kTagNames), pEnd, ulId,
                                      [](const TagName& entry, ULONG id) { return entry.ulId < id; });
  return (p != pEnd && p->ulId == ulId) ? p->pszName : NULL;
}

void DumpPropTag(ULONG ulPropTag) {
  LPCSTR pszName = GetPropTagName(ulPropTag);
  if (pszName)
    ZT4_LOG(ZT4_LEVEL_TAGS, "%s", pszName);
  else
    ZT4_LOG(ZT4_LEVEL_TAGS, "0x%08X", ulPropTag);
}
