// archivedepot props: the store's properties and a folder's, by tag name, as text and JSON; paths
// that name no folder; and the command's usage errors.
#include <gtest/gtest.h>

#include "client_test_util.h"

namespace {

using clienttest::ClientHome;
using clienttest::Contains;
using clienttest::JsonValue;
using clienttest::ParseJson;
using clienttest::Result;

const char kFixture[] =
    "[provider]\nIsLoggedIn = true\n\n"
    "[folder Inbox]\n[folder Inbox/Projects]\n[folder Inbox/Projects/Été]\n";

TEST(ClientProps, UsageAndMissingProfile) {
  ClientHome home;
  EXPECT_EQ(home.Run({"props", "a", "b"}).code, 2);
  EXPECT_EQ(home.Run({"props", "--profile"}).code, 2);
  Result r = home.Run({"props", ""});
  EXPECT_EQ(r.code, 2);
  EXPECT_TRUE(Contains(r.err, "a folder path cannot be empty")) << r.err;
  r = home.Run({"props", "Inbox//Projects"});
  EXPECT_EQ(r.code, 2);
  EXPECT_TRUE(Contains(r.err, "has an empty folder name")) << r.err;
  r = home.Run({"props"});
  EXPECT_EQ(r.code, 1);
  EXPECT_TRUE(Contains(r.err, "there is no default profile")) << r.err;
}

class ClientPropsOnStore : public ::testing::Test {
 protected:
  void SetUp() override {
    SKIP_WITHOUT_PROVIDER_MODULE();
    Result r = home.Run({"profile", "create", "--fixture", home.WriteFixture("props.fixture", kFixture)});
    ASSERT_EQ(r.code, 0) << r.err;
  }
  ClientHome home;
};

TEST_F(ClientPropsOnStore, StorePropertiesByTagName) {
  Result r = home.Run({"--json", "props"});
  ASSERT_EQ(r.code, 0) << r.err;
  JsonValue doc = ParseJson(r.out);
  EXPECT_EQ(doc["object"].text, "store");
  EXPECT_EQ(doc["path"].kind, JsonValue::Null);
  const JsonValue& props = doc["properties"];
  EXPECT_EQ(props["PR_DISPLAY_NAME"].text, "ArchiveDepot");
  EXPECT_EQ(props["PR_MDB_PROVIDER"].text, "7BE3C3805B0A11CEB4E100AA00510E3B");
  EXPECT_EQ(props["PR_STORE_SUPPORT_MASK"].number, 0x06053FFD);
  EXPECT_EQ(props["PR_OBJECT_TYPE"].number, 1);  // MAPI_STORE
  EXPECT_EQ(props["PR_IPM_SUBTREE_ENTRYID"].text.size(), 2u * 132);

  r = home.Run({"props"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(Contains(r.out, "Store 'ArchiveDepot' properties:\n")) << r.out;
  EXPECT_TRUE(Contains(r.out, "  PR_MDB_PROVIDER ")) << r.out;
  EXPECT_TRUE(Contains(r.out, "7BE3C3805B0A11CEB4E100AA00510E3B\n")) << r.out;
}

TEST_F(ClientPropsOnStore, FolderPropertiesWithTimesAndNames) {
  Result r = home.Run({"--json", "props", "inbox/Projects/Été"});
  ASSERT_EQ(r.code, 0) << r.err;
  JsonValue doc = ParseJson(r.out);
  EXPECT_EQ(doc["object"].text, "folder");
  EXPECT_EQ(doc["path"].text, "/inbox/Projects/Été");
  const JsonValue& props = doc["properties"];
  const JsonValue* name = props.Find("PR_DISPLAY_NAME");
  if (!name) name = &props["PR_DISPLAY_NAME_W"];
  EXPECT_EQ(name->text, "Été");
  EXPECT_EQ(props["PR_CONTENT_COUNT"].number, 0);
  // Times print in ISO 8601, UTC.
  const std::string& created = props["PR_CREATION_TIME"].text;
  ASSERT_EQ(created.size(), 24u) << created;
  EXPECT_EQ(created[4], '-');
  EXPECT_EQ(created[10], 'T');
  EXPECT_EQ(created.back(), 'Z');

  r = home.Run({"props", "/"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(Contains(r.out, "Folder '/' properties:\n")) << r.out;
  EXPECT_TRUE(Contains(r.out, "IPM Subtree")) << r.out;
}

TEST_F(ClientPropsOnStore, UnknownPathIsNotFound) {
  Result r = home.Run({"props", "Inbox/Nope"});
  EXPECT_EQ(r.code, 1);
  EXPECT_TRUE(Contains(r.err, "there is no folder 'Nope' in 'Inbox'")) << r.err;
  EXPECT_TRUE(Contains(r.err, "MAPI_E_NOT_FOUND")) << r.err;
  r = home.Run({"--json", "props", "Nowhere"});
  EXPECT_EQ(r.code, 1);
  JsonValue error = ParseJson(r.out)["error"];
  EXPECT_EQ(error["name"].text, "MAPI_E_NOT_FOUND");
  EXPECT_TRUE(Contains(error["message"].text, "there is no folder 'Nowhere' in the top of the store"));
}

}  // namespace
