// archivedepot spooler start / status / stop: a second process that logs on in the spooler
// context and runs until it is asked to stop.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "client_test_util.h"
#include "session.h"

namespace {

using clienttest::ClientHome;
using clienttest::Contains;
using clienttest::JsonValue;
using clienttest::ParseJson;
using clienttest::Result;

class ClientSpooler : public ::testing::Test {
 protected:
  void SetUp() override {
    home.InstallTestService();
    ASSERT_EQ(home.Run({"profile", "create", "--service", "ADTESTSVC"}).code, 0);
  }
  void TearDown() override { home.Run({"spooler", "stop"}); }  // never leave one running
  ClientHome home;
};

TEST_F(ClientSpooler, StartStatusStopRoundTrip) {
  Result r = home.Run({"--json", "spooler", "status"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_FALSE(ParseJson(r.out)["running"].b);

  r = home.Run({"spooler", "start"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(Contains(r.out, "Started the spooler of profile 'ArchiveDepot' (pid ")) << r.out;
  EXPECT_TRUE(Contains(home.ServiceCalls(), "SpoolerLogon")) << home.ServiceCalls();

  r = home.Run({"--json", "spooler", "status", "--profile", "ARCHIVEDEPOT"});
  ASSERT_EQ(r.code, 0) << r.err;
  JsonValue status = ParseJson(r.out);
  EXPECT_EQ(status["profile"].text, "ArchiveDepot");
  EXPECT_TRUE(status["running"].b);
  EXPECT_GT(status["pid"].number, 0);

  r = home.Run({"spooler", "start"});  // a second start finds the first
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(Contains(r.out, "already running")) << r.out;

  r = home.Run({"spooler", "stop"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(Contains(r.out, "Stopped the spooler of profile 'ArchiveDepot'")) << r.out;
  r = home.Run({"spooler", "status"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(Contains(r.out, "is not running")) << r.out;
  r = home.Run({"spooler", "stop"});
  EXPECT_EQ(r.code, 0);
  EXPECT_TRUE(Contains(r.out, "is not running")) << r.out;
}

TEST_F(ClientSpooler, RunsAgainAfterAStop) {
  ASSERT_EQ(home.Run({"spooler", "start"}).code, 0);
  ASSERT_EQ(home.Run({"spooler", "stop"}).code, 0);
  Result r = home.Run({"--json", "spooler", "start"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(ParseJson(r.out)["running"].b);
  ASSERT_EQ(home.Run({"spooler", "stop"}).code, 0);
}

TEST_F(ClientSpooler, WritesItsReadyFileAndLogAndEndsWhenTheReadyFileGoes) {
  ASSERT_EQ(home.Run({"spooler", "start"}).code, 0);
  std::string dir = adm::ProfileRuntimeDirectory("ArchiveDepot");
  JsonValue status = ParseJson(home.Run({"--json", "spooler", "status"}).out);
  std::string ready = clienttest::ReadFile(dir + "/spooler.ready");
  EXPECT_EQ(ready, "pid=" + std::to_string(static_cast<long>(status["pid"].number)) + "\nprofile=ArchiveDepot\n");
  EXPECT_TRUE(Contains(clienttest::ReadFile(dir + "/spooler.log"), "serving store 'Test Store'"));

  std::filesystem::remove(dir + "/spooler.ready");
  bool stopped = false;
  for (int i = 0; i < 300 && !stopped; ++i) {  // it looks again every second
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    stopped = Contains(home.Run({"spooler", "status"}).out, "is not running");
  }
  EXPECT_TRUE(stopped);
  EXPECT_TRUE(Contains(clienttest::ReadFile(dir + "/spooler.log"), "ready file removed, stopping"));
  EXPECT_TRUE(Contains(home.ServiceCalls(), "Logoff")) << home.ServiceCalls();
}

TEST_F(ClientSpooler, ReportsBadProfilesAndCommands) {
  Result r = home.Run({"spooler", "start", "--profile", "Nobody"});
  EXPECT_EQ(r.code, 1);
  EXPECT_TRUE(Contains(r.err, "there is no profile named 'Nobody'")) << r.err;
  EXPECT_EQ(home.Run({"spooler", "status", "--profile"}).code, 2);
  EXPECT_EQ(home.Run({"spooler", "restart"}).code, 2);
}

TEST_F(ClientSpooler, StartReportsASpoolerThatCannotLogOn) {
  setenv("ADTEST_STORE_FAIL", "1", 1);  // the provider refuses every logon
  Result r = home.Run({"spooler", "start"});
  unsetenv("ADTEST_STORE_FAIL");
  EXPECT_EQ(r.code, 1);
  EXPECT_TRUE(Contains(r.err, "stopped before it was ready")) << r.err;
  EXPECT_TRUE(Contains(r.err, "MAPI_E_LOGON_FAILED")) << r.err;  // the spooler's own last words
  EXPECT_TRUE(Contains(home.Run({"spooler", "status"}).out, "is not running"));
}

TEST(ClientSpoolerProgram, UsageAndMissingProfile) {
  ClientHome home;
  Result r = clienttest::RunProgram("archivedepot-spooler", {"--help"}, home.Home().Root());
  EXPECT_EQ(r.code, 0);
  EXPECT_TRUE(Contains(r.out, "usage: archivedepot-spooler"));
  r = clienttest::RunProgram("archivedepot-spooler", {"--bogus"}, home.Home().Root());
  EXPECT_EQ(r.code, 2);
  r = clienttest::RunProgram("archivedepot-spooler", {"--profile", "Nobody"}, home.Home().Root());
  EXPECT_EQ(r.code, 1);
  EXPECT_TRUE(Contains(r.err, "MAPI_E_LOGON_FAILED")) << r.err;
}

}  // namespace
