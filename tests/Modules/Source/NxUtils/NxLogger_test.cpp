#include "NxLogger.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <thread>

#include "adplatform.h"
#include "logger_fixture.h"
#include "test_home.h"

using nxtest::BodyLines;
using nxtest::CTestLogger;
using nxtest::Exists;
using nxtest::ReadAll;
using nxtest::SplitLines;

namespace {

std::string LogFolder(const adtest::TempHome& home) { return home.Root() + "/logs"; }

std::string NativeLogPath(const CNxLogger& logger) { return adp::NativePath(logger.GetLogPath().c_str()); }

void Init(CNxLogger& logger, const adtest::TempHome& home, int nLevel = 5, BOOL bFileShow = FALSE,
          BOOL bKeepOpen = FALSE, const char* pszName = "Test") {
  std::string strError;
  ASSERT_TRUE(logger.Initialize(strError, pszName, LogFolder(home).c_str(), nLevel, bFileShow, bKeepOpen)) << strError;
}

// A header line in a frame of inner width 70.
std::string Row(const std::string& text) { return "* " + text + std::string(70 - text.size(), ' ') + " *"; }

void LogJob(CNxLogger& logger, LONGLONG llJob, LPCSTR pszFormat, ...) {
  va_list args;
  va_start(args, pszFormat);
  logger.LogEx(3, llJob, 0, "Job", 1, "j.cpp", pszFormat, args);
  va_end(args);
}

}  // namespace

TEST(NxLoggerTest, InitializeRefusesEmptyNamesAndBuildsPathsAndFolders) {
  adtest::TempHome home;
  CNxLogger logger;
  std::string strError;
  EXPECT_FALSE(logger.Initialize(strError, NULL, "x", 5, FALSE, FALSE));
  EXPECT_EQ(strError, "AppName empty");
  EXPECT_FALSE(logger.Initialize(strError, "", "x", 5, FALSE, FALSE));
  EXPECT_EQ(strError, "Log name is empty");
  EXPECT_FALSE(logger.IsInitialized());

  std::string strFolder = home.Root() + "/a\\b/c";
  ASSERT_TRUE(logger.Initialize(strError, "App", strFolder.c_str(), 5, FALSE, FALSE));
  EXPECT_TRUE(logger.IsInitialized());
  EXPECT_EQ(logger.GetLogFolder(), strFolder + "\\");
  EXPECT_EQ(logger.GetLogPath(), strFolder + "\\App.log");
  EXPECT_EQ(logger.GetLockName(), "Global\\NxLogger_App");
  EXPECT_TRUE(std::filesystem::is_directory(home.Root() + "/a/b/c"));
  EXPECT_EQ(logger.GetSizeLimit(), 0x500000u);
  EXPECT_EQ(logger.GetMaxFiles(), 1);

  // An empty folder is the current one.
  ASSERT_TRUE(logger.Initialize(strError, "Here", "", 5, FALSE, FALSE));
  std::string strCurrent = std::filesystem::current_path().string();
  EXPECT_EQ(adp::NativePath(logger.GetLogFolder().c_str()), strCurrent + "/");
}

TEST(NxLoggerTest, SetLogSizeShiftsMegabytesAndRefusesNonPositive) {
  CNxLogger logger;
  EXPECT_TRUE(logger.SetLogSize(6));
  EXPECT_EQ(logger.GetSizeLimit(), 6291456u);
  EXPECT_FALSE(logger.SetLogSize(0));
  EXPECT_FALSE(logger.SetLogSize(-3));
  EXPECT_EQ(logger.GetSizeLimit(), 6291456u);
  EXPECT_TRUE(logger.SetLogSize(5000));
  EXPECT_EQ(logger.GetSizeLimit(), 5000ull << 20);
  logger.SetMaxFiles(7);
  EXPECT_EQ(logger.GetMaxFiles(), 7);
}

TEST(NxLoggerTest, LineFieldsProcessThreadTimeJobFunctionFile) {
  adtest::TempHome home;
  CTestLogger logger;
  Init(logger, home);
  logger.Log(3, "Func", 42, "C:\\src\\dir/file.cpp", "hello %d", 7);
  logger.Log(3, "Func", 0, "file.cpp", "line zero");
  logger.Log(3, NULL, 42, NULL, "no function, no file");
  logger.dwThreadId = 0x12345;
  logger.Log(3, "F", 1, "f.cpp", "wide thread");
  logger.dwThreadId = 0x1a;
  logger.Log(3, "F", 1, "f.cpp", "column stays wide");
  logger.dwProcessId = 1234567;
  logger.Log(3, "F", 1, "f.cpp", "long pid");
  // The long fields are cut at 100 characters.
  logger.dwProcessId = 1;
  logger.Log(3, std::string(120, 'n').c_str(), 5, std::string(120, 'f').c_str(), "cut");

  std::vector<std::string> lines = BodyLines(NativeLogPath(logger));
  ASSERT_EQ(lines.size(), 7u);
  EXPECT_EQ(lines[0], "1234  1a   03/05 07:08:09 ---- Func(42) - file.cpp hello 7");
  EXPECT_EQ(lines[1], "1234  1a   03/05 07:08:09 ---- Func() - file.cpp line zero");
  EXPECT_EQ(lines[2], "1234  1a   03/05 07:08:09 ---- no function, no file");
  EXPECT_EQ(lines[3], "1234  12345 03/05 07:08:09 ---- F(1) - f.cpp wide thread");
  EXPECT_EQ(lines[4], "1234  1a    03/05 07:08:09 ---- F(1) - f.cpp column stays wide");
  EXPECT_EQ(lines[5], "1234567 1a    03/05 07:08:09 ---- F(1) - f.cpp long pid");
  EXPECT_EQ(lines[6], "1     1a    03/05 07:08:09 ---- " + std::string(100, 'n') + "(5) - " + std::string(100, 'f') + " cut");
}

TEST(NxLoggerTest, JobColumnDashesHashesAndGrowth) {
  adtest::TempHome home;
  CTestLogger logger;
  Init(logger, home);
  LogJob(logger, NX_NO_JOB_ID, "none");
  LogJob(logger, 0, "zero");
  LogJob(logger, -5, "negative");
  LogJob(logger, 42, "small");
  LogJob(logger, 1234567, "wide");
  LogJob(logger, 42, "small again");
  LogJob(logger, NX_NO_JOB_ID, "none again");
  LogJob(logger, -1, "hash again");

  std::vector<std::string> lines = BodyLines(NativeLogPath(logger));
  ASSERT_EQ(lines.size(), 8u);
  const std::string head = "1234  1a   03/05 07:08:09 ";
  EXPECT_EQ(lines[0], head + "---- Job(1) - j.cpp none");
  EXPECT_EQ(lines[1], head + "#### Job(1) - j.cpp zero");
  EXPECT_EQ(lines[2], head + "#### Job(1) - j.cpp negative");
  EXPECT_EQ(lines[3], head + "42   Job(1) - j.cpp small");
  EXPECT_EQ(lines[4], head + "1234567 Job(1) - j.cpp wide");
  EXPECT_EQ(lines[5], head + "42      Job(1) - j.cpp small again");
  EXPECT_EQ(lines[6], head + "------- Job(1) - j.cpp none again");
  EXPECT_EQ(lines[7], head + "####### Job(1) - j.cpp hash again");
}

TEST(NxLoggerTest, FileShowPlaceholdersLevelTagAndGlobalPrefix) {
  adtest::TempHome home;
  setenv("NXDEBUG_GLOBAL_PREFIX", "0123456789012345678901234567890123456789", 1);
  CTestLogger logger;
  Init(logger, home, 5, TRUE);
  logger.Log(3, NULL, 42, NULL, "both absent");
  logger.Log(3, "", 0, "", "both empty");
  // Read once: a later change of the variable doesn't show.
  setenv("NXDEBUG_GLOBAL_PREFIX", "changed", 1);
  CNxLogger::SetShowLevelTag(TRUE);
  logger.Log(-1, "F", 2, "f.cpp", "tagged");
  CNxLogger::SetShowLevelTag(FALSE);
  unsetenv("NXDEBUG_GLOBAL_PREFIX");

  std::vector<std::string> lines = BodyLines(NativeLogPath(logger));
  ASSERT_EQ(lines.size(), 3u);
  const std::string head = "1234  1a   03/05 07:08:09 ---- ";
  const std::string prefix = "012345678901234567890123456789012345 ";
  EXPECT_EQ(lines[0], head + prefix + "(42) - [ ] both absent");
  EXPECT_EQ(lines[1], head + prefix + "() - [ ] both empty");
  EXPECT_EQ(lines[2], head + "#LgLvl-1#" + prefix + "F(2) - f.cpp tagged");
}

TEST(NxLoggerTest, LineEndsAndLongMessages) {
  adtest::TempHome home;
  CTestLogger logger;
  Init(logger, home);
  logger.Log(3, "F", 1, "f.cpp", "three feeds\n\n\n");
  logger.Log(3, "F", 1, "f.cpp", "a\nb\r\nc");
  EXPECT_EQ(logger.cLargeBuffers, 0);
  std::string big(5000, 'x');
  big[2500] = 'M';
  logger.Log(3, "F", 1, "f.cpp", "%s|end", big.c_str());
  EXPECT_EQ(logger.cLargeBuffers, 1);
  // Short enough for the stack buffer, but its line feeds need more than the spare room.
  std::string feeds;
  for (int i = 0; i < 380; ++i) feeds += "012345678\n";
  logger.Log(3, "F", 1, "f.cpp", "%s", feeds.c_str());
  EXPECT_EQ(logger.cLargeBuffers, 2);

  std::string text = ReadAll(NativeLogPath(logger));
  const std::string head = "1234  1a   03/05 07:08:09 ---- F(1) - f.cpp ";
  EXPECT_NE(text.find(head + "three feeds\r\n" + head + "a\r\nb\r\nc\r\n"), std::string::npos);
  EXPECT_EQ(text.find("three feeds\r\n\r\n"), std::string::npos);
  EXPECT_NE(text.find(head + big + "|end\r\n"), std::string::npos);
  std::string expanded;
  for (int i = 0; i < 380; ++i) expanded += "012345678\r\n";
  EXPECT_NE(text.find(head + expanded), std::string::npos);
  EXPECT_EQ(text.find("\n\n"), std::string::npos);
  for (size_t i = text.find('\n'); i != std::string::npos; i = text.find('\n', i + 1))
    ASSERT_EQ(text[i - 1], '\r') << "bare line feed at " << i;
}

TEST(NxLoggerTest, OversizedMessageIsCutToTheLargeBuffer) {
  adtest::TempHome home;
  CTestLogger logger;
  Init(logger, home);
  std::string huge(100000, 'h');
  logger.Log(3, "F", 1, "f.cpp", "%s", huge.c_str());
  std::vector<std::string> lines = BodyLines(NativeLogPath(logger));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].size() + 2, CNxLogger::kLargeBufferSize - 1);
  EXPECT_EQ(lines[0].substr(lines[0].size() - 10), "hhhhhhhhhh");
}

TEST(NxLoggerTest, FailedFormattingWritesTheExceptionLine) {
  adtest::TempHome home;
  CTestLogger logger;
  Init(logger, home);
  logger.bThrowOnLargeBuffer = true;
  std::string big(5000, 'x');
  logger.Log(3, "F", 1, "f.cpp", "big %s", big.c_str());
  // The runtime refuses %n; that counts as a failure to make the text too.
  int n = 0;
  logger.Log(3, "F", 1, "f.cpp", "count %n", &n);
  logger.Log(3, "F", 1, "f.cpp", "still fine");

  std::vector<std::string> lines = BodyLines(NativeLogPath(logger));
  ASSERT_EQ(lines.size(), 7u);
  const std::string head = "1234  1a   03/05 07:08:09 ---- F(1) - f.cpp ";
  EXPECT_EQ(lines[0], head + "@@@@@@@@@@@@@@@@@@");
  EXPECT_EQ(lines[1], ">>>>>>>>>>>>>>>>>> GOT AN EXCEPTION DURING DEBUG MESSAGE HANDLING [big %s]");
  EXPECT_EQ(lines[2], "@@@@@@@@@@@@@@@@@@");
  EXPECT_EQ(lines[4], ">>>>>>>>>>>>>>>>>> GOT AN EXCEPTION DURING DEBUG MESSAGE HANDLING [count %n]");
  EXPECT_EQ(lines[6], head + "still fine");
}

TEST(NxLoggerTest, HeaderBlockOnNewFilesOnly) {
  adtest::TempHome home;
  {
    CTestLogger logger;
    logger.SetVersion("1.0.0");
    logger.SetProduct("ArchiveDepot");
    Init(logger, home);
    logger.Log(3, "F", 1, "f.cpp", "first");
  }
  std::string path = LogFolder(home) + "/Test.log";
  std::vector<std::string> lines = SplitLines(ReadAll(path));
  ASSERT_EQ(lines.size(), 12u);
  const std::string frame(74, '*');
  EXPECT_EQ(lines[0], frame);
  EXPECT_EQ(lines[1], Row("Machine    : HOST:user (DOMAIN) (AMD64)"));
  EXPECT_EQ(lines[2], Row("IP Addrs   : 10.0.0.1"));
  EXPECT_EQ(lines[3], Row("Module     : /opt/app/program"));
  EXPECT_EQ(lines[4], Row("Peltrix    : NxUtils:test"));
  EXPECT_EQ(lines[5], Row("Version    : 1.0.0"));
  EXPECT_EQ(lines[6].substr(0, 27), "* Date       : 2024/03/05 (");
  EXPECT_NE(lines[6].find(" GMT"), std::string::npos);
  EXPECT_EQ(lines[7], Row("OS Type    : TestOS 1.0"));
  EXPECT_EQ(lines[8], Row("Processor  : 64 bit"));
  EXPECT_EQ(lines[9], Row("Product    : ArchiveDepot"));
  EXPECT_EQ(lines[10], frame);
  for (int i = 1; i <= 9; ++i) EXPECT_EQ(lines[i].size(), frame.size()) << lines[i];

  // The file exists now: a second writer appends without a header.
  {
    CTestLogger logger;
    Init(logger, home);
    logger.Log(3, "F", 1, "f.cpp", "second");
  }
  lines = SplitLines(ReadAll(path));
  ASSERT_EQ(lines.size(), 13u);
  EXPECT_EQ(lines[12], "1234  1a   03/05 07:08:09 ---- F(1) - f.cpp second");

  // A line wider than 70 sets the frame's width.
  std::filesystem::remove(path);
  CTestLogger wide;
  wide.facts.strModule = std::string(90, 'm');
  Init(wide, home);
  wide.Log(3, "F", 1, "f.cpp", "x");
  lines = SplitLines(ReadAll(path));
  ASSERT_GE(lines.size(), 11u);
  EXPECT_EQ(lines[0], std::string(90 + 13 + 4, '*'));
  EXPECT_EQ(lines[3], "* Module     : " + std::string(90, 'm') + " *");
  for (int i = 1; i <= 9; ++i) EXPECT_EQ(lines[i].size(), lines[0].size());
}

TEST(NxLoggerTest, LevelTestComesBeforeAnyFileSystemCall) {
  adtest::TempHome home;
  CTestLogger logger;
  Init(logger, home, 3);
  std::filesystem::remove_all(LogFolder(home));
  logger.Log(5, "F", 1, "f.cpp", "too detailed %s", "x");
  logger.Log(4, "F", 1, "f.cpp", "too detailed");
  EXPECT_EQ(logger.cCreateCalls, 0);
  EXPECT_FALSE(Exists(LogFolder(home)));
  EXPECT_FALSE(logger.IsLevelWritten(4));
  EXPECT_TRUE(logger.IsLevelWritten(3));
  EXPECT_TRUE(logger.IsLevelWritten(-1));

  // A logger that isn't initialized writes nothing at any level.
  CTestLogger idle;
  idle.Log(-1, "F", 1, "f.cpp", "nothing");
  EXPECT_EQ(idle.cCreateCalls, 0);

  std::filesystem::create_directories(LogFolder(home));
  logger.Log(3, "F", 1, "f.cpp", "written");
  logger.SetLevel(0);
  logger.Log(1, "F", 1, "f.cpp", "not written");
  logger.Log(-1, "F", 1, "f.cpp", "always");
  EXPECT_EQ(logger.cCreateCalls, 2);
  std::vector<std::string> lines = BodyLines(NativeLogPath(logger));
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].find("written"), std::string::npos);
  EXPECT_NE(lines[1].find("always"), std::string::npos);
}

TEST(NxLoggerTest, KeepOpenOpensOnceAndCloseStopsWriting) {
  adtest::TempHome home;
  CTestLogger logger;
  Init(logger, home, 5, FALSE, TRUE);
  for (int i = 0; i < 5; ++i) logger.Log(3, "F", 1, "f.cpp", "line %d", i);
  EXPECT_EQ(logger.cCreateCalls, 1);
  EXPECT_EQ(BodyLines(NativeLogPath(logger)).size(), 5u);

  CTestLogger reopening;
  Init(reopening, home, 5, FALSE, FALSE, "Other");
  for (int i = 0; i < 3; ++i) reopening.Log(3, "F", 1, "f.cpp", "line %d", i);
  EXPECT_EQ(reopening.cCreateCalls, 3);

  logger.Close();
  EXPECT_FALSE(logger.IsInitialized());
  logger.Log(-1, "F", 1, "f.cpp", "after close");
  EXPECT_EQ(BodyLines(NativeLogPath(reopening)).size(), 3u);
  EXPECT_EQ(BodyLines(adp::NativePath((LogFolder(home) + "\\Test.log").c_str())).size(), 5u);
}

TEST(NxLoggerTest, RollsOverWhenTheLimitIsReached) {
  adtest::TempHome home;
  CTestLogger logger;
  Init(logger, home);
  ASSERT_TRUE(logger.SetLogSize(1));
  const ULONGLONG limit = 1 << 20;
  const std::string path = NativeLogPath(logger);
  const std::string line = "1234  1a   03/05 07:08:09 ---- F(1) - f.cpp roll\r\n";

  // One byte short of the limit after the line: no rollover.
  std::filesystem::create_directories(LogFolder(home));
  { std::ofstream(path, std::ios::binary) << std::string(limit - line.size() - 1, 'p'); }
  logger.Log(3, "F", 1, "f.cpp", "roll");
  EXPECT_EQ(std::filesystem::file_size(path), limit - 1);

  // The next line takes it past the limit: the file is moved away under the time's name.
  logger.Log(3, "F", 1, "f.cpp", "roll");
  const std::string rolled = LogFolder(home) + "/Test_2024_03_05_07_08_09.log";
  EXPECT_FALSE(Exists(path));
  ASSERT_TRUE(Exists(rolled));
  EXPECT_EQ(std::filesystem::file_size(rolled), limit - 1 + line.size());
  std::string stats = ReadAll(LogFolder(home) + "/LoggingStatistics.log");
  EXPECT_NE(stats.find("Log file for Module [Test] rolled over. File size is 1MB, Create time ["), std::string::npos);
  EXPECT_NE(stats.find("].\r\n"), std::string::npos);
  EXPECT_EQ(stats.find("].\n"), std::string::npos);

  // A new file starts with a header.
  logger.Log(3, "F", 1, "f.cpp", "fresh");
  EXPECT_EQ(ReadAll(path).substr(0, 4), "****");
  EXPECT_EQ(BodyLines(path).size(), 1u);

  // A file of exactly the limit rolls on the next line; the new name is taken from the clock.
  std::filesystem::remove(path);
  { std::ofstream(path, std::ios::binary) << std::string(limit, 'q'); }
  logger.stNow.wSecond = 10;
  logger.Log(3, "F", 1, "f.cpp", "roll");
  EXPECT_FALSE(Exists(path));
  EXPECT_TRUE(Exists(LogFolder(home) + "/Test_2024_03_05_07_08_10.log"));
  EXPECT_TRUE(logger.fallback.empty());
}

TEST(NxLoggerTest, FailedRolloverMoveIsReportedAndNothingIsLost) {
  adtest::TempHome home;
  CTestLogger logger;
  Init(logger, home);
  ASSERT_TRUE(logger.SetLogSize(1));
  const std::string path = NativeLogPath(logger);
  std::filesystem::create_directories(LogFolder(home));
  { std::ofstream(path, std::ios::binary) << std::string(1 << 20, 'p'); }
  // The rolled name is taken already.
  { std::ofstream(LogFolder(home) + "/Test_2024_03_05_07_08_09.log") << "older"; }
  logger.Log(3, "F", 1, "f.cpp", "kept");
  ASSERT_EQ(logger.fallback.size(), 1u);
  EXPECT_EQ(logger.fallback[0].find("1234:Test:Failed moving log file [" + logger.GetLogPath() + "] to ["), 0u)
      << logger.fallback[0];
  EXPECT_NE(logger.fallback[0].find("], Module=[Test], error=["), std::string::npos);
  EXPECT_NE(ReadAll(path).find("f.cpp kept\r\n"), std::string::npos);
  EXPECT_EQ(ReadAll(LogFolder(home) + "/Test_2024_03_05_07_08_09.log"), "older");
}

TEST(NxLoggerTest, LockHeldElsewhereLosesTheLineAndReportsOnceAnHour) {
  adtest::TempHome home;
  CTestLogger logger;
  Init(logger, home);
  HANDLE hHeld = NULL;
  HANDLE hRelease = CreateEventA(NULL, TRUE, FALSE, NULL);
  HANDLE hTaken = CreateEventA(NULL, TRUE, FALSE, NULL);
  std::thread holder([&] {
    hHeld = CreateMutexA(NULL, FALSE, "Global\\NxLogger_Test");
    WaitForSingleObject(hHeld, INFINITE);
    SetEvent(hTaken);
    WaitForSingleObject(hRelease, INFINITE);
    ReleaseMutex(hHeld);
    CloseHandle(hHeld);
  });
  ASSERT_EQ(WaitForSingleObject(hTaken, 60000), WAIT_OBJECT_0);
  logger.Log(3, "F", 1, "f.cpp", "lost one");
  logger.Log(3, "F", 1, "f.cpp", "lost two");
  EXPECT_FALSE(Exists(NativeLogPath(logger)));
  ASSERT_EQ(logger.fallback.size(), 1u);
  EXPECT_EQ(logger.fallback[0], "1234:Test:Failed in acquiring the lock on file [" + logger.GetLogPath() +
                                    "] Module [Test] Error[Timed out acquiring mutex on Global\\NxLogger_Test]\n");
  logger.ullTicks += CNxLogger::kFailureReportIntervalMs - 1;
  logger.Log(3, "F", 1, "f.cpp", "lost three");
  EXPECT_EQ(logger.fallback.size(), 1u);
  logger.ullTicks += 1;
  logger.Log(3, "F", 1, "f.cpp", "lost four");
  EXPECT_EQ(logger.fallback.size(), 2u);

  SetEvent(hRelease);
  holder.join();
  logger.Log(3, "F", 1, "f.cpp", "written");
  std::vector<std::string> lines = BodyLines(NativeLogPath(logger));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("written"), std::string::npos);
  CloseHandle(hRelease);
  CloseHandle(hTaken);
}

TEST(NxLoggerTest, OpenFailureRetriesReportsOnceAndRecovers) {
  adtest::TempHome home(10000);
  CTestLogger logger;
  Init(logger, home);
  logger.dwFailOpenWith = ERROR_SHARING_VIOLATION;
  logger.Log(3, "F", 1, "f.cpp", "lost");
  EXPECT_EQ(logger.cCreateCalls, 20);
  ASSERT_EQ(logger.fallback.size(), 1u);
  EXPECT_EQ(logger.fallback[0], "1234:Test:Failed open log file [" + logger.GetLogPath() +
                                    "], Module[Test], Error 32. Make sure this log file is not locked and has full "
                                    "permissions. Some of the log lines will not be logged because of this error\n");
  logger.Log(3, "F", 1, "f.cpp", "lost again");
  EXPECT_EQ(logger.cCreateCalls, 40);
  EXPECT_EQ(logger.fallback.size(), 1u);

  // Access denied gives up at once under the switch.
  logger.dwFailOpenWith = ERROR_ACCESS_DENIED;
  CNxLogger::SetStopOnAccessDenied(TRUE);
  logger.Log(3, "F", 1, "f.cpp", "denied");
  CNxLogger::SetStopOnAccessDenied(FALSE);
  EXPECT_EQ(logger.cCreateCalls, 41);

  logger.dwFailOpenWith = 0;
  logger.Log(3, "F", 1, "f.cpp", "back");
  ASSERT_EQ(logger.fallback.size(), 2u);
  EXPECT_EQ(logger.fallback[1], "1234:Test:Successfully opened log [" + logger.GetLogPath() +
                                    "] Module[Test]. Reseting the last failure time\n");
  std::vector<std::string> lines = BodyLines(NativeLogPath(logger));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("back"), std::string::npos);

  // The failure time was cleared: the next failure is reported at once.
  logger.dwFailOpenWith = ERROR_SHARING_VIOLATION;
  logger.Log(3, "F", 1, "f.cpp", "lost");
  EXPECT_EQ(logger.fallback.size(), 3u);
}

TEST(NxLoggerTest, ThreadsOfOneProcessWriteWholeLines) {
  adtest::TempHome home;
  CNxLogger logger;
  Init(logger, home);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&logger, t] {
      for (int i = 0; i < 50; ++i) logger.Log(3, "T", t, "t.cpp", "thread %d line %d %s", t, i, std::string(200, 'a' + t).c_str());
    });
  for (auto& th : threads) th.join();
  std::vector<std::string> lines = BodyLines(NativeLogPath(logger));
  EXPECT_EQ(lines.size(), 200u);
  for (const std::string& l : lines) {
    size_t pos = l.find(" - t.cpp thread ");
    ASSERT_NE(pos, std::string::npos) << l;
    int t = l[pos + 16] - '0';
    EXPECT_EQ(l.substr(l.size() - 200), std::string(200, 'a' + t)) << l;
  }
}
