// The language choice, the provider's own texts, the error box, and the English default names.
#include "ZT4Common.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "MemHeap.h"
#include "ZT4Common_test_util.h"
#include "ZT4MSProvider.h"
#include "adplatform_ui.h"
#include "trace_fixture.h"

namespace {

std::u16string Load(UINT uID, BOOL* pfLoaded = nullptr) {
  WCHAR sz[ZT4_STRING_BUFFER] = {};
  BOOL fLoaded = ZT4LoadString(uID, sz);
  if (pfLoaded) *pfLoaded = fLoaded;
  return sz;
}

std::u16string Str(LPCWSTR psz) { return psz ? std::u16string(psz) : u"(null)"; }

// Sets the store's display name for the scope.
class DisplayName {
 public:
  explicit DisplayName(const std::u16string& name) {
    size_t cch = name.size() < 1023 ? name.size() : 1023;
    name.copy(g_wszStoreDisplayName, cch);
    g_wszStoreDisplayName[cch] = 0;
  }
  ~DisplayName() { g_wszStoreDisplayName[0] = 0; }
};

// Collects the message boxes shown during its life.
class BoxSink {
 public:
  BoxSink() {
    adp::SetMessageBoxSink([this](const std::u16string& text, const std::u16string& caption) {
      boxes.emplace_back(text, caption);
    });
  }
  ~BoxSink() { adp::SetMessageBoxSink(nullptr); }
  std::vector<std::pair<std::u16string, std::u16string>> boxes;
};

}  // namespace

TEST(ZT4CommonTest, LCIDComesFromTheRegistryAndZhHantBecomesZhTW) {
  zt4test::TraceLog log(5);
  EXPECT_EQ(GetLCID(), 0u);  // absent

  DWORD dwGerman = 1031;
  zt4test::SetRegistryLCID(&dwGerman);
  EXPECT_EQ(GetLCID(), 1031u);
  EXPECT_FALSE(log.Has("Mapping zh-Hant to zh-TW"));

  DWORD dwHant = 0x7C04;
  zt4test::SetRegistryLCID(&dwHant);
  EXPECT_EQ(GetLCID(), 1028u);
  EXPECT_TRUE(log.Has(" Mapping zh-Hant to zh-TW\r\n"));

  zt4test::SetRegistryLCID(&dwGerman, REG_BINARY);  // not a number: as if absent
  EXPECT_EQ(GetLCID(), 0u);
  zt4test::SetRegistryLCID(nullptr);
  EXPECT_EQ(GetLCID(), 0u);
}

TEST(ZT4CommonTest, LoadStringGivesTheTextsWithTheDisplayNameFilledIn) {
  zt4test::TraceLog log(5);
  EXPECT_EQ(Load(IDS_CONFIG_TITLE), u"Message Store Configuration");
  EXPECT_EQ(Load(IDS_NO_DESCRIPTION), u"No description is available for this error.");
  EXPECT_EQ(Load(IDS_ERROR_BASE + 23), u"No suppress????");
  EXPECT_EQ(Load(IDS_ERROR_BASE + 24),
            u"A folder could not be created or copied becuase there is a folder with the same name in the target folder");
  EXPECT_EQ(Load(IDS_UNKNOWN_ERROR), u"An unknown error has occured.");
  EXPECT_EQ(Load(IDS_SYSTEM_ERROR), u"The error was returned during a call to the operating system.");
  EXPECT_EQ(Load(IDS_CONVERSATION_DISABLED), u"Conversation view is not enabled in the configuration");
  EXPECT_EQ(Load(IDS_CONVERSATION_NO_DATA), u"Conversation View data is not available, please recreate cache");

  // Without a display name (the spooler's context) the product's name stands in.
  EXPECT_EQ(Load(IDS_SETTINGS_FROM_CLIENT), u"ArchiveDepot settings can only be changed from Outlook.");
  DisplayName name(u"Vault 100%s");
  EXPECT_EQ(Load(IDS_SETTINGS_FROM_CLIENT), u"Vault 100%s settings can only be changed from Outlook.");
  EXPECT_EQ(Load(IDS_ERROR_BASE + 50),
            u"Soft deletion is not supported for emails in the Vault 100%s Email Viewer. To permanently delete an "
            u"email from the Vault 100%s, press Shift + Delete.");
}

TEST(ZT4CommonTest, AMissingStringFailsAndIsLogged) {
  zt4test::TraceLog log(5);
  BOOL fLoaded = TRUE;
  EXPECT_EQ(Load(9999, &fLoaded), u"");
  EXPECT_FALSE(fLoaded);
  EXPECT_TRUE(log.Has(" Loading string failed, string id: 9999, LCID: 0\r\n"));
  // The Windows codes of the error table have no text of their own.
  EXPECT_EQ(Load(IDS_ERROR_BASE + 40, &fLoaded), u"");
  EXPECT_FALSE(fLoaded);
  EXPECT_EQ(Load(IDS_ERROR_BASE + 37, &fLoaded), u"");  // MAPI_W_ERRORS_RETURNED
  EXPECT_FALSE(fLoaded);
  EXPECT_FALSE(ZT4LoadString(IDS_CONFIG_TITLE, nullptr));
}

TEST(ZT4CommonTest, ALanguageWithoutATableFallsBackToEnglish) {
  zt4test::TraceLog log(5);
  const LANGID langBefore = GetThreadUILanguage();
  DWORD dwGerman = 1031;
  zt4test::SetRegistryLCID(&dwGerman);
  EXPECT_EQ(Load(IDS_UNKNOWN_ERROR), u"An unknown error has occured.");
  BOOL fLoaded = TRUE;
  Load(9998, &fLoaded);
  EXPECT_FALSE(fLoaded);
  EXPECT_TRUE(log.Has(" Loading string failed, string id: 9998, LCID: 1031\r\n"));
  DWORD dwHant = 0x7C04;
  zt4test::SetRegistryLCID(&dwHant);
  EXPECT_EQ(Load(IDS_CONFIG_TITLE), u"Message Store Configuration");
  EXPECT_EQ(GetThreadUILanguage(), langBefore);  // the thread's language is left as it was

  // A language the table has wins over English.
  adp::RegisterStringTable(nullptr, 0x0407, IDS_CONFIG_TITLE, u"Nachrichtenspeicher-Konfiguration");
  zt4test::SetRegistryLCID(&dwGerman);
  EXPECT_EQ(Load(IDS_CONFIG_TITLE), u"Nachrichtenspeicher-Konfiguration");
  zt4test::SetRegistryLCID(nullptr);
  EXPECT_EQ(Load(IDS_CONFIG_TITLE), u"Message Store Configuration");
  adp::RegisterStringTable(nullptr, 0x0407, IDS_CONFIG_TITLE, nullptr);
}

TEST(ZT4CommonTest, TablesRegisterWithTheModuleThatHoldsThem) {
  // The program's own copy answers to its handle as well as to NULL.
  WCHAR sz[ZT4_STRING_BUFFER] = {};
  EXPECT_GT(LoadStringW(GetModuleHandleA(NULL), IDS_CONFIG_TITLE, sz, ZT4_STRING_BUFFER), 0);
  EXPECT_EQ(std::u16string(sz), u"Message Store Configuration");

  // A loadable module linked with the provider library answers to its own handle.
  HMODULE hModule = LoadLibraryA("testprovider_module.so");
  ASSERT_NE(hModule, nullptr);
  EXPECT_GT(LoadStringW(hModule, IDS_UNKNOWN_ERROR, sz, ZT4_STRING_BUFFER), 0);
  EXPECT_EQ(std::u16string(sz), u"An unknown error has occured.");
  EXPECT_EQ(LoadStringW(hModule, 9999, sz, ZT4_STRING_BUFFER), 0);
  FreeLibrary(hModule);
}

TEST(ZT4CommonTest, ErrorBoxShowsTheTextCaptionedWithTheDisplayName) {
  zt4test::TraceLog log(5);
  BoxSink sink;
  {
    DisplayName name(u"Vault");
    ShowErrorBox(IDS_SETTINGS_FROM_CLIENT);
    ShowErrorBox(9999);  // nothing to say: no box
  }
  ShowErrorBox(IDS_CONVERSATION_DISABLED);
  ASSERT_EQ(sink.boxes.size(), 2u);
  EXPECT_EQ(sink.boxes[0].first, u"Vault settings can only be changed from Outlook.");
  EXPECT_EQ(sink.boxes[0].second, u"Vault");
  EXPECT_EQ(sink.boxes[1].first, u"Conversation view is not enabled in the configuration");
  EXPECT_EQ(sink.boxes[1].second, u"ArchiveDepot");
  EXPECT_TRUE(log.Has(" Loading string failed, string id: 9999, LCID: 0\r\n"));
}

TEST(ZT4CommonTest, EnglishNamesWhenTheConfigurationSaysSo) {
  zt4test::TraceLog log(5);
  ASSERT_TRUE(ZT4ProcessAttach(NULL));
  ASSERT_NE(zt4test::UseScriptArchive(log.Home(), "[config]\nUseLocalizedFolderNames = 0\n"
                                                  "[provider]\nDefaultFolderNames = A|B|C|D\n"),
            nullptr);
  CDefaultFolder& folders = CDefaultFolder::Instance();
  folders.Reset();
  EXPECT_EQ(Str(folders.GetName(DEFAULT_DELETED_ITEMS)), u"Deleted Items");
  EXPECT_EQ(Str(folders.GetName(DEFAULT_INBOX)), u"Inbox");
  EXPECT_EQ(Str(folders.GetName(DEFAULT_OUTBOX)), u"Outbox");
  EXPECT_EQ(Str(folders.GetName(DEFAULT_SENT_ITEMS)), u"Sent Items");
  EXPECT_TRUE(folders.IsEnglish());
  EXPECT_TRUE(log.Has(" Using English for default folder names...\r\n"));
  EXPECT_FALSE(log.Has("default folder cache"));  // the cache isn't asked

  EXPECT_EQ(Str(folders.GetComment(DEFAULT_DELETED_ITEMS)),
               u"Discarded Messages Waste Basket");
  EXPECT_EQ(Str(folders.GetComment(DEFAULT_INBOX)), u"Default Receive Folder");
  EXPECT_EQ(Str(folders.GetComment(DEFAULT_OUTBOX)), u"Outgoing Client Queue");
  EXPECT_EQ(Str(folders.GetComment(DEFAULT_SENT_ITEMS)), u"Already Sent Messages");
  EXPECT_EQ(folders.GetName(NUM_DEFAULT_FOLDERS), nullptr);
  EXPECT_EQ(folders.GetComment(NUM_DEFAULT_FOLDERS), nullptr);
  folders.Reset();
  ZT4ProcessDetach();
}
