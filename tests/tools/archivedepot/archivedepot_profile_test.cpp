// archivedepot service install and profile create / list / configure / delete, run as a user
// runs them, in a state directory of their own.
#include <gtest/gtest.h>

#include "client_test_util.h"
#include "mapisvc.h"
#include "session.h"
#include "windows.h"

namespace {

using clienttest::ClientHome;
using clienttest::Contains;
using clienttest::JsonValue;
using clienttest::ParseJson;
using clienttest::Result;

std::string Inf(const char* section, const char* key) {
  char value[256] = {0};
  GetPrivateProfileStringA(section, key, "", value, sizeof value, adm::MapisvcPath().c_str());
  return value;
}

TEST(ClientService, InstallWritesTheServiceAndItsStoreProvider) {
  ClientHome home;
  Result r = home.Run({"service", "install", "MYSVC", "--dll", "my_provider.so", "--display", "My Store"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(Contains(r.out, "Installed service MYSVC"));
  EXPECT_EQ(Inf("Services", "MYSVC"), "My Store");
  EXPECT_EQ(Inf("MYSVC", "PR_SERVICE_DLL_NAME"), "my_provider.so");
  EXPECT_EQ(Inf("MYSVC", "PR_SERVICE_ENTRY_NAME"), "ServiceEntry");
  EXPECT_EQ(Inf("MYSVC", "Providers"), "MYSVC_MS");
  EXPECT_EQ(Inf("MYSVC_MS", "PR_RESOURCE_TYPE"), "MAPI_STORE_PROVIDER");
  EXPECT_EQ(Inf("MYSVC_MS", "PR_PROVIDER_DLL_NAME"), "my_provider.so");

  // A reinstall replaces the registration, with no stale key left.
  WritePrivateProfileStringA("MYSVC", "STALE", "x", adm::MapisvcPath().c_str());
  r = home.Run({"--json", "service", "install", "MYSVC", "--dll", "other.so"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(ParseJson(r.out)["dll"].text, "other.so");
  EXPECT_EQ(Inf("MYSVC", "PR_SERVICE_DLL_NAME"), "other.so");
  EXPECT_EQ(Inf("MYSVC", "PR_DISPLAY_NAME"), "MYSVC");
  EXPECT_EQ(Inf("MYSVC", "STALE"), "");
}

TEST(ClientService, InstallRejectsBadArguments) {
  ClientHome home;
  EXPECT_EQ(home.Run({"service", "install", "MYSVC"}).code, 2);                        // no --dll
  EXPECT_EQ(home.Run({"service", "install", "--dll", "x.so"}).code, 2);                // no name
  EXPECT_EQ(home.Run({"service", "install", "BAD NAME", "--dll", "x.so"}).code, 2);    // space in the name
  EXPECT_EQ(home.Run({"service", "install", "A[B]", "--dll", "x.so"}).code, 2);        // INI syntax
  Result r = home.Run({"service", "install", "MYSVC", "--dll", ""});
  EXPECT_EQ(r.code, 2);
  EXPECT_TRUE(Contains(r.err, "--dll cannot be empty")) << r.err;
  EXPECT_EQ(Inf("Services", "MYSVC"), "");
}

TEST(ClientService, InstallWithoutANameSetsUpOurService) {
  ClientHome home;
  // A missing fixture is refused before MAPISVC.INF is touched.
  Result r = home.Run({"service", "install", "--fixture", home.Home().Root() + "/none.fixture"});
  EXPECT_EQ(r.code, 1);
  EXPECT_TRUE(Contains(r.err, "there is no fixture file")) << r.err;
  EXPECT_EQ(Inf("Services", "ZT4MSPROVIDER"), "");
  EXPECT_EQ(home.Run({"service", "install", "--fixture", "x", "NAME", "--dll", "y.so"}).code, 2);
  EXPECT_EQ(home.Run({"service", "install", "--display", "D"}).code, 2);

  SKIP_WITHOUT_PROVIDER_MODULE();
  r = home.Run({"--json", "service", "install"});
  ASSERT_EQ(r.code, 0) << r.err;
  JsonValue doc = ParseJson(r.out);
  EXPECT_EQ(doc["service"].text, "ZT4MSPROVIDER");
  EXPECT_TRUE(doc["changed"].b);  // no display name in the file yet
  EXPECT_EQ(doc["fixture"].text, adtest::BinPath("sample/mailbox.fixture"));
  EXPECT_EQ(Inf("Services", "ZT4MSPROVIDER"), "Orvanta Message Store");
  EXPECT_EQ(Inf("ZT4MSPROVIDER", "PR_SERVICE_DLL_NAME"), "ZT4MSProvider.DLL");
  EXPECT_EQ(Inf("ZT4MSPROVIDER", "Providers"), "ZT4_MSPROVIDER");
  EXPECT_EQ(Inf("ZT4_MSPROVIDER", "PR_RESOURCE_TYPE"), "MAPI_STORE_PROVIDER");
  EXPECT_EQ(Inf("ZT4_MSPROVIDER", "PR_DISPLAY_NAME"), "ArchiveDepot");
  // The export ran in the client as in an installer: its own log says so.
  std::string log = clienttest::ReadFile(home.Home().Home() +
                                         "/user/AppData/Local/Larkmoor Systems/Nimbrel/LogFiles/TQProviderRegister.log");
  EXPECT_TRUE(Contains(log, "MergeWithMAPISVC is starting")) << log;
  // Once named, a second install changes no name.
  r = home.Run({"--json", "service", "install"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_FALSE(ParseJson(r.out)["changed"].b);
}

TEST(ClientProfile, CreateOnOurServiceMakesTheStoreInTheTemporaryFolder) {
  SKIP_WITHOUT_PROVIDER_MODULE();
  ClientHome home;
  std::string fixture = home.WriteFixture("owner.fixture",
                                          "[user /o=T/cn=owner]\nUserName = owner\nDisplayName = Owner Name\n"
                                          "SmtpAddress = owner@example.org\n[folder Inbox]\n");
  Result r = home.Run({"--json", "profile", "create", "--fixture", fixture});
  ASSERT_EQ(r.code, 0) << r.err;
  JsonValue doc = ParseJson(r.out);
  EXPECT_TRUE(doc["default"].b);
  EXPECT_EQ(doc["service"]["name"].text, "ZT4MSPROVIDER");
  // ServiceEntry's silent creation ran: "%s\\%d.CST" below TMPDIR, and the file exists.
  std::string path = doc["service"]["store_path"].text;
  EXPECT_EQ(path.rfind(home.Home().Temp() + "\\", 0), 0u) << path;
  EXPECT_TRUE(path.size() > 4 && path.compare(path.size() - 4, 4, ".CST") == 0) << path;
  EXPECT_NE(GetFileAttributesA(path.c_str()), INVALID_FILE_ATTRIBUTES) << path;
  // The profile's identity is the fixture's mailbox owner.
  r = home.Run({"--json", "logon"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(ParseJson(r.out)["identity"]["PR_SMTP_ADDRESS"].text, "owner@example.org");

  // Options override the fixture's owner; a second profile gets its own store file.
  r = home.Run({"--json", "profile", "create", "Second", "--smtp", "else@example.org"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(ParseJson(r.out)["service"]["store_path"].text, path);
  adm::ProfileIdentity id;
  ASSERT_EQ(adm::GetProfileIdentity("Second", &id), S_OK);
  EXPECT_EQ(id.smtp, "else@example.org");
  EXPECT_EQ(id.display, "Owner Name");

  EXPECT_EQ(home.Run({"profile", "create", "X", "--service", "ADTESTSVC", "--fixture", fixture}).code, 2);
}

TEST(ClientProfile, CreateWithoutANameMakesTheDefaultProfile) {
  ClientHome home;
  home.InstallTestService();
  Result r = home.Run({"profile", "create", "--service", "ADTESTSVC"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(Contains(r.out, "Created profile 'ArchiveDepot' (default) with service ADTESTSVC")) << r.out;
  EXPECT_TRUE(Contains(home.ServiceCalls(), "ServiceEntry ctx=2 "));  // MSG_SERVICE_CREATE

  r = home.Run({"profile", "list"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(Contains(r.out, "* ArchiveDepot  (default)\n    ADTESTSVC  \"Test Store\"")) << r.out;

  r = home.Run({"profile", "create", "--service", "ADTESTSVC"});
  EXPECT_EQ(r.code, 1);
  EXPECT_TRUE(Contains(r.err, "a profile named 'ArchiveDepot' already exists")) << r.err;
}

TEST(ClientProfile, RoundTripWithJsonOutput) {
  ClientHome home;
  home.InstallTestService();
  Result r = home.Run({"--json", "profile", "create", "Work", "--service", "ADTESTSVC", "--set", "PR_COMMENT=my comment",
                       "--set",
                       "0x6603000B=true", "--user", "jdoe", "--display", "Jane Doe", "--smtp", "jane@example.com"});
  ASSERT_EQ(r.code, 0) << r.err;
  JsonValue created = ParseJson(r.out);
  EXPECT_EQ(created["profile"].text, "Work");
  EXPECT_FALSE(created["default"].b);
  EXPECT_EQ(created["service"]["name"].text, "ADTESTSVC");
  EXPECT_EQ(created["service"]["uid"].text.size(), 32u);
  EXPECT_EQ(created["service"]["configured"]["PR_COMMENT"].text, "my comment");
  EXPECT_TRUE(created["service"]["configured"]["0x6603000B"].b);
  // ConfigureMsgService reached the service with both values.
  std::string calls = home.ServiceCalls();
  EXPECT_TRUE(Contains(calls, "ctx=3 ") && Contains(calls, "3004001E=my comment") && Contains(calls, "6603000B=true"))
      << calls;

  ASSERT_EQ(home.Run({"profile", "create", "Home", "--service", "ADTESTSVC", "--default"}).code, 0);
  r = home.Run({"profile", "list", "--json"});
  ASSERT_EQ(r.code, 0) << r.err;
  JsonValue list = ParseJson(r.out);
  ASSERT_EQ(list["profiles"].items.size(), 2u);
  for (const auto& p : list["profiles"].items) {
    EXPECT_EQ(p["default"].b, p["name"].text == "Home") << p["name"].text;
    ASSERT_EQ(p["services"].items.size(), 1u);
    EXPECT_EQ(p["services"].items[0]["name"].text, "ADTESTSVC");
    EXPECT_EQ(p["services"].items[0]["display_name"].text, "Test Store");
  }

  r = home.Run({"--json", "profile", "configure", "work", "--set", "PR_DISPLAY_NAME=Renamed"});
  ASSERT_EQ(r.code, 0) << r.err;
  JsonValue configured = ParseJson(r.out);
  EXPECT_EQ(configured["services"].items.size(), 1u);
  EXPECT_EQ(configured["configured"]["PR_DISPLAY_NAME"].text, "Renamed");
  EXPECT_TRUE(Contains(home.ServiceCalls(), "3001001E=Renamed"));

  r = home.Run({"profile", "delete", "Work"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(Contains(r.out, "Deleted profile 'Work'"));
  EXPECT_TRUE(Contains(home.ServiceCalls(), "ctx=4 "));  // MSG_SERVICE_DELETE
  list = ParseJson(home.Run({"--json", "profile", "list"}).out);
  ASSERT_EQ(list["profiles"].items.size(), 1u);
  EXPECT_EQ(list["profiles"].items[0]["name"].text, "Home");
}

TEST(ClientProfile, ConfigureChoosesTheServiceAndChecksItsArguments) {
  ClientHome home;
  home.InstallTestService();
  ASSERT_EQ(home.Run({"profile", "create", "P", "--service", "ADTESTSVC"}).code, 0);
  Result r = home.Run({"profile", "configure", "P"});
  EXPECT_EQ(r.code, 2);
  EXPECT_TRUE(Contains(r.err, "needs --set")) << r.err;
  r = home.Run({"profile", "configure", "P", "--service", "OTHER", "--set", "PR_COMMENT=x"});
  EXPECT_EQ(r.code, 1);
  EXPECT_TRUE(Contains(r.err, "profile 'P' has no service 'OTHER'")) << r.err;
  r = home.Run({"profile", "configure", "P", "--set", "PR_RESOURCE_FLAGS=many"});
  EXPECT_EQ(r.code, 2);
  EXPECT_TRUE(Contains(r.err, "must be a 32-bit integer")) << r.err;
  r = home.Run({"profile", "configure", "P", "--smtp", "no-at-sign"});
  EXPECT_EQ(r.code, 2);
  r = home.Run({"profile", "configure", "Nobody", "--set", "PR_COMMENT=x"});
  EXPECT_EQ(r.code, 1);
  EXPECT_TRUE(Contains(r.err, "there is no profile named 'Nobody'")) << r.err;
  EXPECT_TRUE(Contains(r.err, "MAPI_E_NOT_FOUND")) << r.err;
  EXPECT_EQ(home.Run({"profile", "configure", "P", "--user", "someone"}).code, 0);
}

TEST(ClientProfile, FailuresLeaveNothingBehind) {
  ClientHome home;
  Result r = home.Run({"profile", "create", "P", "--service", "NOSUCH"});
  EXPECT_EQ(r.code, 1);
  EXPECT_TRUE(Contains(r.err, "MAPISVC.INF has no service 'NOSUCH'")) << r.err;
  EXPECT_TRUE(Contains(r.err, "(0x8004010F MAPI_E_NOT_FOUND)")) << r.err;
  EXPECT_TRUE(Contains(home.Run({"profile", "list"}).out, "No profiles"));

  home.InstallTestService();
  setenv("ADTEST_SERVICE_FAIL", "2", 1);  // the service refuses MSG_SERVICE_CREATE
  r = home.Run({"--json", "profile", "create", "P", "--service", "ADTESTSVC"});
  unsetenv("ADTEST_SERVICE_FAIL");
  EXPECT_EQ(r.code, 1);
  JsonValue error = ParseJson(r.out);
  EXPECT_EQ(error["error"]["name"].text, "MAPI_E_USER_CANCEL");
  EXPECT_EQ(error["error"]["code"].text, "0x80040113");
  EXPECT_TRUE(Contains(error["error"]["message"].text, "refused by the test service")) << r.out;
  EXPECT_TRUE(ParseJson(home.Run({"--json", "profile", "list"}).out)["profiles"].items.empty());
}

TEST(ClientProfile, DeleteAndUsageErrors) {
  ClientHome home;
  Result r = home.Run({"profile", "delete", "Ghost"});
  EXPECT_EQ(r.code, 1);
  EXPECT_TRUE(Contains(r.err, "there is no profile named 'Ghost' (0x8004010F MAPI_E_NOT_FOUND)")) << r.err;
  EXPECT_EQ(home.Run({"profile", "delete"}).code, 2);
  EXPECT_EQ(home.Run({"profile", "create", std::string(65, 'x')}).code, 2);
  EXPECT_EQ(home.Run({"profile", "create", "A", "B"}).code, 2);
  r = home.Run({"profile", "list", "--bogus"});
  EXPECT_EQ(r.code, 2);
  EXPECT_TRUE(Contains(r.err, "'profile list' has no option --bogus")) << r.err;
}

TEST(ClientCommands, HelpAndUnknownCommands) {
  ClientHome home;
  Result r = home.Run({"--help"});
  EXPECT_EQ(r.code, 0);
  for (const char* c : {"profile create", "profile list", "logon", "service install", "spooler start"}) {
    EXPECT_TRUE(Contains(r.out, c)) << c;
  }
  r = home.Run({"profile", "create", "--help"});
  EXPECT_EQ(r.code, 0);
  EXPECT_TRUE(Contains(r.out, "usage: archivedepot profile create")) << r.out;
  EXPECT_TRUE(Contains(r.out, "--set TAG=VALUE"));
  r = home.Run({"profile"});
  EXPECT_EQ(r.code, 2);
  EXPECT_TRUE(Contains(r.err, "'profile' needs a subcommand")) << r.err;
  r = home.Run({"frobnicate"});
  EXPECT_EQ(r.code, 2);
  EXPECT_TRUE(Contains(r.err, "unknown command 'frobnicate'")) << r.err;
  r = home.Run({"--json", "profile", "frob"});
  EXPECT_EQ(r.code, 2);
  EXPECT_TRUE(Contains(ParseJson(r.out)["error"]["message"].text, "unknown command 'profile frob'"));
  EXPECT_EQ(home.Run({}).code, 2);
  EXPECT_EQ(home.Run({"--home"}).code, 2);
}

TEST(ClientCommands, HomeOptionChoosesTheStateDirectory) {
  ClientHome home;
  std::string other = home.Home().Root() + "/other-home";
  ASSERT_EQ(home.Run({"--home", other, "service", "install", "ADTESTSVC", "--dll", "msgprovider_module.so"}).code, 0);
  ASSERT_EQ(home.Run({"--home=" + other, "profile", "create", "--service", "ADTESTSVC"}).code, 0);
  EXPECT_TRUE(Contains(home.Run({"--home", other, "profile", "list"}).out, "ArchiveDepot"));
  EXPECT_TRUE(Contains(home.Run({"profile", "list"}).out, "No profiles"));  // the test's own home is untouched
}

}  // namespace
