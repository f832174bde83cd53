// The localized names of the default folders: read from the profile's default store, kept in the
// data provider's cache, and read back from it when the store can't be reached.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "MemHeap.h"
#include "ZT4Common.h"
#include "ZT4Common_test_util.h"
#include "sessiontest_util.h"
#include "trace_fixture.h"

namespace {

std::u16string Str(LPCWSTR psz) { return psz ? std::u16string(psz) : u"(null)"; }

std::vector<std::u16string> Names(CDefaultFolder& folders) {
  std::vector<std::u16string> names;
  for (ULONG i = 0; i < NUM_DEFAULT_FOLDERS; ++i) names.push_back(Str(folders.GetName(i)));
  return names;
}

std::vector<std::u16string> CachedNames(IZT4DataProvider* pProvider) {
  std::vector<std::u16string> names;
  SAFEARRAY* psa = pProvider->LoadDefaultFolderNames();
  LONG lLower = 0, lUpper = -1;
  SafeArrayGetLBound(psa, 1, &lLower);
  SafeArrayGetUBound(psa, 1, &lUpper);
  for (LONG i = lLower; i <= lUpper; ++i) {
    BSTR bstr = NULL;
    SafeArrayGetElement(psa, &i, &bstr);
    names.push_back(Str(bstr));
    SysFreeString(bstr);
  }
  SafeArrayDestroy(psa);
  return names;
}

const std::vector<std::u16string> kEnglish = {u"Deleted Items", u"Inbox", u"Outbox", u"Sent Items"};
const std::vector<std::u16string> kGerman = {u"Gel\u00F6schte Elemente", u"Posteingang", u"Postausgang",
                                             u"Gesendete Elemente"};

}  // namespace

TEST(ZT4CommonFoldersTest, NamesComeFromTheDefaultStoreThenFromTheCache) {
  zt4test::TraceLog log(5);
  ASSERT_TRUE(ZT4ProcessAttach(NULL));
  IZT4DataProvider* pProvider = zt4test::UseScriptArchive(
      log.Home(), "[config]\nUseLocalizedFolderNames = 1\n[provider]\nDefaultFolderNames = Papierkorb|Posteingang|Postausgang\n");
  ASSERT_NE(pProvider, nullptr);
  CDefaultFolder& folders = CDefaultFolder::Instance();

  // No session to ask, and a cache of three names: refused as a whole.
  folders.Reset();
  EXPECT_EQ(Names(folders), kEnglish);
  EXPECT_TRUE(folders.IsEnglish());
  EXPECT_TRUE(log.Has(" Error (80040605) in fetching default folder names from outlook. Trying reading from default "
                      "folder cache.\r\n"));
  EXPECT_TRUE(log.Has(" Error reading default folder names from cache.. Keep using english ...\r\n"));

  // The profile's default store names its four folders: those names, saved for later.
  {
    msgtest::EnvScope names("ADTEST_STORE_DEFAULT_FOLDERS",
                            "Gel\xC3\xB6schte Elemente|Posteingang|Postausgang|Gesendete Elemente");
    sessiontest::SessionFixture session;
    folders.Reset();
    EXPECT_EQ(Names(folders), kGerman);
    EXPECT_FALSE(folders.IsEnglish());
    EXPECT_EQ(CachedNames(pProvider), kGerman);
    // Read once: a later change of the store isn't seen until the next process.
    EXPECT_EQ(Str(folders.GetName(DEFAULT_INBOX)), u"Posteingang");
  }

  // The store gone, the saved names come back from the cache.
  folders.Reset();
  EXPECT_EQ(Names(folders), kGerman);
  EXPECT_FALSE(folders.IsEnglish());
  EXPECT_EQ(Str(folders.GetComment(DEFAULT_INBOX)), u"Default Receive Folder");  // comments stay English
  folders.Reset();
  ZT4ProcessDetach();
}

TEST(ZT4CommonFoldersTest, AStoreWithoutTheDefaultFoldersFallsBackToTheCache) {
  zt4test::TraceLog log(5);
  ASSERT_TRUE(ZT4ProcessAttach(NULL));
  IZT4DataProvider* pProvider = zt4test::UseScriptArchive(log.Home(), "");
  ASSERT_NE(pProvider, nullptr);
  CDefaultFolder& folders = CDefaultFolder::Instance();
  sessiontest::SessionFixture session;  // the test store has no wastebasket entry ID
  folders.Reset();
  std::vector<std::u16string> cached = CachedNames(pProvider);  // run alone, the fixture's empty list
  EXPECT_EQ(SUCCEEDED(folders.FillDefaultFolderNames()), cached.size() == NUM_DEFAULT_FOLDERS);
  EXPECT_TRUE(log.Has(" Error (8004010f) in fetching default folder names from outlook. Trying reading from default "
                      "folder cache.\r\n"));
  EXPECT_EQ(Names(folders), cached.size() == NUM_DEFAULT_FOLDERS ? cached : kEnglish);
  folders.Reset();
  ZT4ProcessDetach();
}
