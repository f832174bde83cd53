// archivedepot-smoke: shows the platform stand-ins and the file logger at work in the state
// directory ($ARCHIVEDEPOT_HOME or the default), one line per step, then prints the log.
// Exit status 0 when every step worked; otherwise 1 and the failed step on standard error.
#include <windows.h>
#include <wincrypt.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "NxLogger.h"
#include "NxText.h"
#include "adplatform.h"

namespace {

const char kMutexName[] = "ArchiveDepotSmoke";
const char kRegistryKey[] = "Software\\ArchiveDepot\\Smoke";
const char kHashInput[] = "The quick brown fox jumps over the lazy dog";
const char kHashExpected[] = "9e107d9d372bb6826bd81d3542a419d6";
const DWORD kTimerDueMs = 50;
const DWORD kTimerWaitMs = 10000;

struct StepFailed : std::runtime_error {
  StepFailed(const std::string& step, DWORD dwError)
      : std::runtime_error(NxFormat("%s failed (error %u)", step.c_str(), static_cast<unsigned>(dwError))) {}
};

void Check(BOOL bOk, const char* pszStep) {
  if (!bOk) throw StepFailed(pszStep, GetLastError());
}

// Closes a kernel handle at the end of a step.
class CHandle {
 public:
  explicit CHandle(HANDLE h) : m_h(h) {}
  ~CHandle() {
    if (m_h && m_h != INVALID_HANDLE_VALUE) CloseHandle(m_h);
  }
  CHandle(const CHandle&) = delete;
  CHandle& operator=(const CHandle&) = delete;
  HANDLE get() const { return m_h; }

 private:
  HANDLE m_h;
};

void Report(const char* pszWhat, const std::string& strText) { std::printf("%-10s %s\n", pszWhat, strText.c_str()); }

std::string StartLogger(CNxLogger& logger, const std::string& strStateDir) {
  std::string strError;
  std::string strFolder = strStateDir + "\\logs";
  logger.SetProduct("ArchiveDepot");
  logger.SetVersion("1.0.0");
  if (!logger.Initialize(strError, "smoke", strFolder.c_str(), 3, TRUE, FALSE)) throw std::runtime_error(strError);
  logger.Log(NX_LEVEL_ALWAYS, __FUNCTION__, __LINE__, __FILE__, "archivedepot-smoke started");
  logger.Log(1, __FUNCTION__, __LINE__, __FILE__, "an error-level line (level 1)");
  logger.Log(3, __FUNCTION__, __LINE__, __FILE__, "an information line (level 3)\nwith a second line");
  logger.Log(5, __FUNCTION__, __LINE__, __FILE__, "a detail line (level 5): above the logger's level, not written");
  return adp::NativePath(logger.GetLogPath().c_str());
}

void TakeNamedMutex() {
  CHandle hMutex(CreateMutexA(NULL, FALSE, kMutexName));
  Check(hMutex.get() != NULL, "CreateMutexA");
  Check(WaitForSingleObject(hMutex.get(), 1000) == WAIT_OBJECT_0, "WaitForSingleObject");
  Check(ReleaseMutex(hMutex.get()), "ReleaseMutex");
  Report("mutex", NxFormat("took and released \"%s\"", kMutexName));
}

void CountRunsInRegistry() {
  HKEY hKey = NULL;
  LONG lResult = RegCreateKeyExA(HKEY_CURRENT_USER, kRegistryKey, 0, NULL, 0, KEY_ALL_ACCESS, NULL, &hKey, NULL);
  if (lResult != ERROR_SUCCESS) throw StepFailed("RegCreateKeyExA", static_cast<DWORD>(lResult));
  DWORD dwRuns = 0, dwType = 0, cbData = sizeof(dwRuns);
  if (RegQueryValueExA(hKey, "Runs", NULL, &dwType, reinterpret_cast<LPBYTE>(&dwRuns), &cbData) != ERROR_SUCCESS ||
      dwType != REG_DWORD)
    dwRuns = 0;
  ++dwRuns;
  lResult = RegSetValueExA(hKey, "Runs", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&dwRuns), sizeof(dwRuns));
  DWORD dwRead = 0;
  cbData = sizeof(dwRead);
  if (lResult == ERROR_SUCCESS)
    lResult = RegQueryValueExA(hKey, "Runs", NULL, &dwType, reinterpret_cast<LPBYTE>(&dwRead), &cbData);
  RegCloseKey(hKey);
  if (lResult != ERROR_SUCCESS) throw StepFailed("RegSetValueExA/RegQueryValueExA", static_cast<DWORD>(lResult));
  if (dwRead != dwRuns) throw std::runtime_error("registry gave back another value");
  Report("registry", NxFormat("HKCU\\%s\\Runs = %u (this program's runs in this state directory)", kRegistryKey,
                              static_cast<unsigned>(dwRead)));
}

void CALLBACK OnTimer(PVOID pvEvent, BOOLEAN) { SetEvent(static_cast<HANDLE>(pvEvent)); }

void RunTimer() {
  CHandle hFired(CreateEventA(NULL, TRUE, FALSE, NULL));
  Check(hFired.get() != NULL, "CreateEventA");
  HANDLE hQueue = CreateTimerQueue();
  Check(hQueue != NULL, "CreateTimerQueue");
  HANDLE hTimer = NULL;
  BOOL bCreated = CreateTimerQueueTimer(&hTimer, hQueue, OnTimer, hFired.get(), kTimerDueMs, 0, 0);
  DWORD dwWait = bCreated ? WaitForSingleObject(hFired.get(), kTimerWaitMs) : WAIT_FAILED;
  DWORD dwError = GetLastError();
  DeleteTimerQueueEx(hQueue, INVALID_HANDLE_VALUE);
  if (dwWait != WAIT_OBJECT_0) throw StepFailed("timer-queue timer", dwError);
  Report("timer", NxFormat("one-shot timer-queue timer fired after %u ms", static_cast<unsigned>(kTimerDueMs)));
}

void HashWithMD5() {
  HCRYPTPROV hProv = 0;
  Check(CryptAcquireContextA(&hProv, NULL, NULL, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT), "CryptAcquireContextA");
  HCRYPTHASH hHash = 0;
  BYTE abHash[16] = {0};
  DWORD cbHash = sizeof(abHash);
  BOOL bOk = CryptCreateHash(hProv, CALG_MD5, 0, 0, &hHash) &&
             CryptHashData(hHash, reinterpret_cast<const BYTE*>(kHashInput), sizeof(kHashInput) - 1, 0) &&
             CryptGetHashParam(hHash, HP_HASHVAL, abHash, &cbHash, 0);
  DWORD dwError = GetLastError();
  if (hHash) CryptDestroyHash(hHash);
  CryptReleaseContext(hProv, 0);
  if (!bOk) throw StepFailed("MD5 through CryptoAPI", dwError);
  std::string strHex;
  for (DWORD i = 0; i < cbHash; ++i) strHex += NxFormat("%02x", abHash[i]);
  if (strHex != kHashExpected) throw std::runtime_error("MD5 gave " + strHex + ", expected " + kHashExpected);
  Report("md5", NxFormat("\"%s\" -> %s", kHashInput, strHex.c_str()));
}

// Size of the log before this run, so that only this run's part is shown.
ULONGLONG LogSizeNow(const std::string& strPath) {
  std::ifstream in(strPath, std::ios::binary | std::ios::ate);
  return in ? static_cast<ULONGLONG>(in.tellg()) : 0;
}

void PrintLog(const std::string& strPath, ULONGLONG ullFrom) {
  std::ifstream in(strPath, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read the log " + strPath);
  in.seekg(static_cast<std::streamoff>(ullFrom));
  std::stringstream ss;
  ss << in.rdbuf();
  Report("log", strPath);
  if (ullFrom) std::printf("(%llu bytes of earlier runs not shown)\n", static_cast<unsigned long long>(ullFrom));
  std::cout << "----\n" << ss.str() << "----" << std::endl;
}

}  // namespace

int main() {
  try {
    std::string strStateDir = adp::StateDirectory();
    Report("state", strStateDir);
    CNxLogger logger;
    ULONGLONG ullEarlier = LogSizeNow(strStateDir + "/logs/smoke.log");
    std::string strLogPath = StartLogger(logger, strStateDir);
    TakeNamedMutex();
    CountRunsInRegistry();
    RunTimer();
    HashWithMD5();
    logger.Log(NX_LEVEL_ALWAYS, __FUNCTION__, __LINE__, __FILE__, "archivedepot-smoke finished: all steps worked");
    PrintLog(strLogPath, ullEarlier);
    return 0;
  } catch (const std::exception& e) {
    std::fflush(stdout);
    std::fprintf(stderr, "archivedepot-smoke: %s\n", e.what());
    return 1;
  }
}
