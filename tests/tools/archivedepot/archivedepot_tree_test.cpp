// archivedepot tree: folder paths and name order, the mailbox owner a fixture names, and the
// folder tree of our provider's store on a fixture of the test's own and on the bundled sample.
#include <gtest/gtest.h>

#include "client_test_util.h"
#include "commands.h"
#include "folders.h"
#include "provider_setup.h"

namespace {

using clienttest::ClientHome;
using clienttest::Contains;
using clienttest::JsonValue;
using clienttest::ParseJson;
using clienttest::Result;

const char kSmallFixture[] =
    "# three levels, a name that sorts before capitals, a non-ASCII name\n"
    "[provider]\nIsLoggedIn = true\n\n"
    "[user /o=Test/ou=Site/cn=Recipients/cn=tester]\nUserName = tester\nDisplayName = Test Person\n"
    "SmtpAddress = tester@example.org\n\n"
    "[folder Inbox]\n[message]\nUniqueId = M1\nSubject = hello\n\n"
    "[folder Inbox/Projects]\n[folder Inbox/Projects/Été]\n"
    "[folder Archive]\n[folder Archive/2019]\n[folder alpha]\n";

TEST(FolderPath, SplitsAndRejectsEmptyNames) {
  using adcli::SplitFolderPath;
  EXPECT_EQ(SplitFolderPath("Inbox/Projects/Été"), (std::vector<std::string>{"Inbox", "Projects", "Été"}));
  EXPECT_EQ(SplitFolderPath("/Inbox/"), std::vector<std::string>{"Inbox"});
  EXPECT_TRUE(SplitFolderPath("/").empty());
  EXPECT_TRUE(SplitFolderPath("").empty());
  EXPECT_EQ(SplitFolderPath("a b/c"), (std::vector<std::string>{"a b", "c"}));
  EXPECT_THROW(SplitFolderPath("Inbox//Projects"), adcli::UsageError);
  EXPECT_THROW(SplitFolderPath("//"), adcli::UsageError);
}

TEST(FolderPath, NamesOrderIgnoringAsciiCase) {
  using adcli::FolderNameLess;
  EXPECT_TRUE(FolderNameLess("alpha", "Archive"));
  EXPECT_FALSE(FolderNameLess("Archive", "alpha"));
  EXPECT_TRUE(FolderNameLess("Inbox", "inbox") != FolderNameLess("inbox", "Inbox"));  // a strict, total order
  EXPECT_TRUE(FolderNameLess("Sent", "Sent Items"));
  EXPECT_TRUE(FolderNameLess("Zeta", "Été"));  // non-ASCII after ASCII, by bytes
  EXPECT_FALSE(FolderNameLess("x", "x"));
}

TEST(FixtureOwner, FirstUserSectionElseTheSampleUser) {
  ClientHome home;
  adcli::MailboxUser u = adcli::FixtureUser(home.WriteFixture("small.fixture", kSmallFixture));
  EXPECT_EQ(u.user, "tester");
  EXPECT_EQ(u.display, "Test Person");
  EXPECT_EQ(u.smtp, "tester@example.org");

  u = adcli::FixtureUser(home.WriteFixture("partial.fixture", "[user x]\nSmtpAddress = pat@example.net\n"
                                                                "[user y]\nUserName = second\n"));
  EXPECT_EQ(u.user, "pat");
  EXPECT_EQ(u.display, "pat");
  EXPECT_EQ(u.smtp, "pat@example.net");

  std::string none = home.WriteFixture("none.fixture", "[folder Inbox]\n");
  for (const std::string& path : {none, std::string("/no/such/file")}) {
    u = adcli::FixtureUser(path);
    EXPECT_EQ(u.smtp, adcli::kSampleUser.smtp) << path;
    EXPECT_EQ(u.user, adcli::kSampleUser.user) << path;
  }
}

TEST(ClientTree, UsageAndMissingProfile) {
  ClientHome home;
  EXPECT_EQ(home.Run({"tree", "extra"}).code, 2);
  EXPECT_EQ(home.Run({"tree", "--profile"}).code, 2);
  Result r = home.Run({"tree"});
  EXPECT_EQ(r.code, 1);
  EXPECT_TRUE(Contains(r.err, "there is no default profile")) << r.err;
  r = home.Run({"--json", "tree", "--profile", "Nobody"});
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(ParseJson(r.out)["error"]["name"].text, "MAPI_E_LOGON_FAILED");
}

// Names and children of a JSON folder list, as "name(child,child)" text.
std::string Shape(const JsonValue& folders) {
  std::string out;
  for (const auto& f : folders.items) {
    if (!out.empty()) out += ",";
    out += f["name"].text;
    if (!f["folders"].items.empty()) out += "(" + Shape(f["folders"]) + ")";
  }
  return out;
}

TEST(ClientTree, SmallFixtureGivesTheExactTree) {
  SKIP_WITHOUT_PROVIDER_MODULE();
  ClientHome home;
  std::string fixture = home.WriteFixture("small.fixture", kSmallFixture);
  Result r = home.Run({"profile", "create", "--fixture", fixture});
  ASSERT_EQ(r.code, 0) << r.err;

  r = home.Run({"tree"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out,
            "Store 'ArchiveDepot' of profile 'ArchiveDepot'\n"
            "  alpha  (0 messages, 0 unread)\n"
            "  Archive  (0 messages, 0 unread)\n"
            "    2019  (0 messages, 0 unread)\n"
            "  Deleted Items  (0 messages, 0 unread)\n"
            "  Inbox  (0 messages, 0 unread)\n"
            "    Projects  (0 messages, 0 unread)\n"
            "      Été  (0 messages, 0 unread)\n"
            "  Outbox  (0 messages, 0 unread)\n"
            "  Sent Items  (0 messages, 0 unread)\n");

  r = home.Run({"--json", "tree", "--profile", "ArchiveDepot"});
  ASSERT_EQ(r.code, 0) << r.err;
  JsonValue doc = ParseJson(r.out);
  EXPECT_EQ(doc["profile"].text, "ArchiveDepot");
  EXPECT_EQ(doc["store"].text, "ArchiveDepot");
  EXPECT_EQ(Shape(doc["folders"]), "alpha,Archive(2019),Deleted Items,Inbox(Projects(Été)),Outbox,Sent Items");
  for (const auto& f : doc["folders"].items) EXPECT_EQ(f["content_count"].kind, JsonValue::Number) << f["name"].text;
}

TEST(ClientTree, BundledSampleShowsNestedAndNonAsciiFolders) {
  SKIP_WITHOUT_PROVIDER_MODULE();
  ClientHome home;
  Result r = home.Run({"profile", "create"});
  ASSERT_EQ(r.code, 0) << r.err;
  r = home.Run({"--json", "tree"});
  ASSERT_EQ(r.code, 0) << r.err;
  std::string shape = Shape(ParseJson(r.out)["folders"]);
  EXPECT_TRUE(Contains(shape, "Archive 2019(Février,日本)")) << shape;
  EXPECT_TRUE(Contains(shape, "Inbox(Projects(Été,Überblick),Reçus)")) << shape;
  EXPECT_TRUE(Contains(shape, "Sent Items")) << shape;
  // Walking again finds the same tree: the store file is reused, nothing is added twice.
  r = home.Run({"--json", "tree"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(Shape(ParseJson(r.out)["folders"]), shape);
}

}  // namespace
