// archivedepot logon against the test store provider: the store's properties, its status row
// and the profile's identity, as text and as JSON; and the ways a logon fails.
#include <gtest/gtest.h>

#include "client_test_util.h"

namespace {

using clienttest::ClientHome;
using clienttest::Contains;
using clienttest::JsonValue;
using clienttest::ParseJson;
using clienttest::Result;

constexpr double kStoreProvider = 33;  // MAPI_STORE_PROVIDER

class ClientLogon : public ::testing::Test {
 protected:
  void SetUp() override {
    home.InstallTestService();
    Result r = home.Run({"profile", "create", "--service", "ADTESTSVC", "--user", "jdoe", "--display", "Jane Doe",
                         "--smtp", "jane@example.com"});
    ASSERT_EQ(r.code, 0) << r.err;
  }
  ClientHome home;
};

TEST_F(ClientLogon, PrintsTheStoreStatusRowAndIdentity) {
  Result r = home.Run({"logon"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(Contains(r.out, "Logged on to profile 'ArchiveDepot'")) << r.out;
  EXPECT_TRUE(Contains(r.out, "properties:\n  PR_")) << r.out;
  EXPECT_TRUE(Contains(r.out, "\nStatus row:\n")) << r.out;
  EXPECT_TRUE(Contains(r.out, "PR_RESOURCE_TYPE")) << r.out;
  EXPECT_TRUE(Contains(r.out, "jane@example.com")) << r.out;
  EXPECT_TRUE(Contains(home.ServiceCalls(), "Logon")) << home.ServiceCalls();
}

TEST_F(ClientLogon, JsonGivesPropertiesByTagName) {
  Result r = home.Run({"--json", "logon", "--profile", "archivedepot"});
  ASSERT_EQ(r.code, 0) << r.err;
  JsonValue doc = ParseJson(r.out);
  EXPECT_EQ(doc["profile"].text, "ArchiveDepot");
  const JsonValue& props = doc["store"]["properties"];
  ASSERT_EQ(props.kind, JsonValue::Object);
  EXPECT_FALSE(props.members.empty());
  for (const auto& [name, value] : props.members) {
    EXPECT_TRUE(name.rfind("PR_", 0) == 0 || name.rfind("0x", 0) == 0) << name;
  }
  EXPECT_TRUE(props.Find("PR_ENTRYID") || props.Find("PR_DISPLAY_NAME") || props.Find("PR_DISPLAY_NAME_W"));
  ASSERT_FALSE(doc["status"].items.empty());
  for (const auto& row : doc["status"].items) EXPECT_EQ(row["PR_RESOURCE_TYPE"].number, kStoreProvider);
  EXPECT_EQ(doc["identity"]["PR_SMTP_ADDRESS"].text, "jane@example.com");
  EXPECT_EQ(doc["identity"]["PR_DISPLAY_NAME_W"].text, "Jane Doe");
}

TEST_F(ClientLogon, FailsClearlyWithoutAProfile) {
  Result r = home.Run({"logon", "--profile", "Nobody"});
  EXPECT_EQ(r.code, 1);
  EXPECT_TRUE(Contains(r.err, "cannot log on to profile 'Nobody'")) << r.err;
  EXPECT_TRUE(Contains(r.err, "MAPI_E_LOGON_FAILED")) << r.err;

  ASSERT_EQ(home.Run({"profile", "delete", "ArchiveDepot"}).code, 0);
  r = home.Run({"--json", "logon"});
  EXPECT_EQ(r.code, 1);
  EXPECT_TRUE(Contains(ParseJson(r.out)["error"]["message"].text, "there is no default profile"));
  EXPECT_EQ(home.Run({"logon", "--profile"}).code, 2);
  EXPECT_EQ(home.Run({"logon", "extra"}).code, 2);
}

TEST_F(ClientLogon, ReportsTheProvidersRefusal) {
  setenv("ADTEST_STORE_FAIL", "1", 1);
  Result r = home.Run({"logon"});
  unsetenv("ADTEST_STORE_FAIL");
  EXPECT_EQ(r.code, 1);
  EXPECT_TRUE(Contains(r.err, "OpenMsgStore failed")) << r.err;
  EXPECT_TRUE(Contains(r.err, "(0x80040111 MAPI_E_LOGON_FAILED)")) << r.err;
}

TEST_F(ClientLogon, FailsClearlyWhenTheProviderLibraryIsMissing) {
  ASSERT_EQ(home.Run({"service", "install", "GONE", "--dll", "no_such_provider.so"}).code, 0);
  ASSERT_EQ(home.Run({"profile", "create", "Broken", "--service", "GONE"}).code, 1);  // ServiceEntry is in it too
  Result r = home.Run({"profile", "list"});
  EXPECT_FALSE(Contains(r.out, "Broken")) << r.out;
}

}  // namespace
