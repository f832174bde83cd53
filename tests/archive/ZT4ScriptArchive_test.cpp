#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <oleauto.h>
#include <windows.h>

#include "ScriptArchiveRegistration.h"
#include "ScriptFixture.h"
#include "ZT4DataProvider.h"
#include "test_home.h"

namespace {

const char* kFixture = R"(# test mailbox
[provider]
IsLoggedIn = false
IsCachedMode = true
IsSearchReady = false
IsConversationDataAvailable = false
LastProviderError = 2
DefaultFolderNames = Posteingang|Gesendete Elemente|Gelöschte Elemente|Entwürfe
[config]
LogLevel = 4
LogFileName = zt4.log
LogSize = 7
MaxFiles = 3
MaxSearchCount = 250
SyncIntervalMinutes = 15
UseLocalizedFolderNames = 0
FolderHomePageUrl = http://archive.example/home
[user /o=Org/cn=zoe]
UserName = zoe
DisplayName = Zoë Åkerlund
SmtpAddress = zoe@example.com
[failures]
ClearCache = 0x80040115
[folder Inbox]
ConversationLimit = 1
[message]
UniqueId = M1
Subject = Grüße aus Köln
SenderName = Jürgen
SenderEmail = j@example.de
ToList = Zoë;zoe@example.com||
Size = 1234
ReceivedTime = 1600000000
Keywords = Rot|Blau
Body = line one\nline two
RowKind = 1
ConversationCount = 3
[attachment]
FileName = Été.txt
Text = hello
RecordKey = K1
[attachment]
FileName = data.bin
Data = 00ff10
IsEmbeddedMessage = true
[message]
UniqueId = M2
Subject = Second
[folder Inbox/Projects/Été]
[folder Inbox/Reçus]
)";

std::string Utf8(BSTR s) {
  std::string out;
  for (UINT i = 0; s && i < SysStringLen(s); ++i) {
    char32_t c = s[i];
    if (c < 0x80) out += static_cast<char>(c);
    else if (c < 0x800) out += static_cast<char>(0xC0 | (c >> 6)), out += static_cast<char>(0x80 | (c & 0x3F));
    else
      out += static_cast<char>(0xE0 | (c >> 12)), out += static_cast<char>(0x80 | ((c >> 6) & 0x3F)),
          out += static_cast<char>(0x80 | (c & 0x3F));
  }
  return out;
}

std::vector<std::string> Texts(SAFEARRAY* psa) {
  std::vector<std::string> out;
  if (!psa) return out;
  LONG lo = 0, hi = -1;
  SafeArrayGetLBound(psa, 1, &lo);
  SafeArrayGetUBound(psa, 1, &hi);
  for (LONG i = lo; i <= hi; ++i) {
    BSTR s = nullptr;
    EXPECT_EQ(S_OK, SafeArrayGetElement(psa, &i, &s));
    out.push_back(Utf8(s));
    SysFreeString(s);
  }
  SafeArrayDestroy(psa);
  return out;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

class ScriptArchiveTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fixturePath = home.Temp() + "mailbox.fixture";
    journalPath = home.Temp() + "journal.txt";
    std::ofstream(fixturePath) << kFixture;
    setenv("ARCHIVEDEPOT_ARCHIVE_FIXTURE", fixturePath.c_str(), 1);
    setenv("ARCHIVEDEPOT_ARCHIVE_JOURNAL", journalPath.c_str(), 1);
    ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
    ASSERT_EQ(S_OK, scriptarchive::RegisterScriptArchive(adtest::BinPath("ZT4ScriptArchive.so")));
  }
  void TearDown() override {
    CoUninitialize();
    unsetenv("ARCHIVEDEPOT_ARCHIVE_FIXTURE");
    unsetenv("ARCHIVEDEPOT_ARCHIVE_JOURNAL");
  }
  HRESULT Create(IZT4DataProviderPtr& provider) {
    IZT4DataProvider* raw = nullptr;
    HRESULT hr = CoCreateInstance(CLSID_ZT4DataProvider, nullptr, CLSCTX_INPROC_SERVER, IID_IZT4DataProvider,
                                  reinterpret_cast<void**>(&raw));
    provider.Attach(raw);
    return hr;
  }
  IZT4DataProviderPtr Provider() {
    IZT4DataProviderPtr p;
    EXPECT_EQ(S_OK, Create(p));
    return p;
  }

  adtest::TempHome home;
  std::string fixturePath, journalPath;
};

TEST_F(ScriptArchiveTest, FolderNamesOfRootAndNestedFolders) {
  auto p = Provider();
  ASSERT_TRUE(p);
  EXPECT_EQ((std::vector<std::string>{"Inbox"}), Texts(p->GetFolderNames("", "zoe@example.com")));
  EXPECT_EQ((std::vector<std::string>{"Projects", "Reçus"}), Texts(p->GetFolderNames("Inbox", "")));
  EXPECT_EQ((std::vector<std::string>{"Été"}), Texts(p->GetFolderNames("Inbox/Projects", "")));
  EXPECT_EQ(nullptr, p->GetFolderNames("Inbox/Projects/\xC3\x89t\xC3\xA9", ""));  // leaf: null array
  EXPECT_EQ(nullptr, p->GetFolderNames("Nowhere", ""));
}

TEST_F(ScriptArchiveTest, MissingServerFolderIsNull) {
  auto p = Provider();
  EXPECT_FALSE(p->GetServerFolder("Inbox/Missing", ""));
  EXPECT_FALSE(p->GetServerFolder("", ""));  // the root has no server folder
  EXPECT_TRUE(p->GetServerFolder("Inbox\\Projects\\Été", ""));  // either separator
}

TEST_F(ScriptArchiveTest, MessagesAndTheirProperties) {
  auto folder = Provider()->GetServerFolder("Inbox", "zoe@example.com");
  ASSERT_TRUE(folder);
  SAFEARRAY* page = folder->ReadMessages(0, 10, VARIANT_TRUE, VARIANT_FALSE);
  ASSERT_NE(nullptr, page);
  LONG lo = 0, hi = 0;
  SafeArrayGetLBound(page, 1, &lo);
  SafeArrayGetUBound(page, 1, &hi);
  EXPECT_EQ(2, hi - lo + 1);
  IDispatch* first = nullptr;
  ASSERT_EQ(S_OK, SafeArrayGetElement(page, &lo, &first));
  SafeArrayDestroy(page);
  IZT4ArchiveMessage* raw = nullptr;
  ASSERT_EQ(S_OK, first->QueryInterface(IID_IZT4ArchiveMessage, reinterpret_cast<void**>(&raw)));
  first->Release();
  IZT4ArchiveMessagePtr m(raw, false);
  EXPECT_STREQ("M1", static_cast<const char*>(m->UniqueId()));
  EXPECT_STREQ("Grüße aus Köln", static_cast<const char*>(m->Subject()));
  EXPECT_STREQ("Zoë;zoe@example.com||", static_cast<const char*>(m->ToList()));
  EXPECT_STREQ("1234", static_cast<const char*>(m->Size()));
  EXPECT_STREQ("1600000000", static_cast<const char*>(m->ReceivedTime()));
  EXPECT_STREQ("line one\nline two", static_cast<const char*>(m->Body()));
  EXPECT_STREQ("", static_cast<const char*>(m->DisplayCc()));  // absent is empty
  EXPECT_EQ(1, m->RowKind());
  EXPECT_EQ(3, m->ConversationCount());
  EXPECT_EQ(VARIANT_TRUE, m->HasAttachments());
  EXPECT_EQ((std::vector<std::string>{"Rot", "Blau"}), Texts(m->Keywords()));

  EXPECT_FALSE(folder->OpenMessage("nope"));
  auto second = folder->OpenMessage("M2");
  ASSERT_TRUE(second);
  EXPECT_EQ(VARIANT_FALSE, second->HasAttachments());
  SAFEARRAY* rest = folder->ReadMessages(1, 0, VARIANT_TRUE, VARIANT_FALSE);  // count 0: the rest
  ASSERT_NE(nullptr, rest);
  EXPECT_EQ(1u, rest->rgsabound[0].cElements);
  SafeArrayDestroy(rest);
  EXPECT_EQ(E_INVALIDARG, folder->raw_ReadMessages(-1, 5, VARIANT_TRUE, VARIANT_FALSE, &rest));
}

TEST_F(ScriptArchiveTest, AttachmentsByListAndKey) {
  auto m = Provider()->GetServerFolder("Inbox", "")->OpenMessage("M1");
  ASSERT_TRUE(m);
  auto text = m->OpenAttachment("K1");
  ASSERT_TRUE(text);
  EXPECT_STREQ("Été.txt", static_cast<const char*>(text->FileName()));
  EXPECT_STREQ("hello", static_cast<const char*>(text->Text()));
  EXPECT_EQ(VARIANT_FALSE, text->IsBinary());
  auto bin = m->OpenAttachment("data.bin");
  ASSERT_TRUE(bin);
  EXPECT_EQ(VARIANT_TRUE, bin->IsBinary());
  EXPECT_EQ(VARIANT_TRUE, bin->IsEmbeddedMessage());
  SAFEARRAY* data = bin->Data();
  ASSERT_NE(nullptr, data);
  ASSERT_EQ(3u, data->rgsabound[0].cElements);
  EXPECT_EQ(0xFF, static_cast<unsigned char*>(data->pvData)[1]);
  SafeArrayDestroy(data);
  EXPECT_FALSE(m->OpenAttachment("missing"));
  SAFEARRAY* all = m->Attachments();
  ASSERT_NE(nullptr, all);
  EXPECT_EQ(2u, all->rgsabound[0].cElements);
  SafeArrayDestroy(all);
}

TEST_F(ScriptArchiveTest, ConfigurationValues) {
  auto c = Provider()->GetConfigurationParams();
  ASSERT_TRUE(c);
  EXPECT_EQ(4, c->GetLogLevel());
  EXPECT_STREQ("zt4.log", static_cast<const char*>(c->GetLogFileName()));
  EXPECT_EQ(7, c->LogSize());
  EXPECT_EQ(3, c->MaxFiles());
  EXPECT_EQ(250, c->MaxSearchCount());
  EXPECT_EQ(15, c->SyncIntervalMinutes());
  EXPECT_EQ(0, c->UseLocalizedFolderNames());
  EXPECT_STREQ("http://archive.example/home", static_cast<const char*>(c->FolderHomePageUrl()));
  BSTR user = nullptr, display = nullptr, smtp = nullptr;
  EXPECT_EQ(VARIANT_TRUE, c->QueryUserDetails("/o=Org/cn=zoe", &user, &display, &smtp));
  EXPECT_EQ("Zoë Åkerlund", Utf8(display));
  EXPECT_EQ("zoe@example.com", Utf8(smtp));
  SysFreeString(user), SysFreeString(display), SysFreeString(smtp);
  EXPECT_EQ(VARIANT_FALSE, c->QueryUserDetails("/o=Org/cn=nobody", &user, &display, &smtp));
  EXPECT_EQ(nullptr, user);
}

TEST_F(ScriptArchiveTest, SwitchesAndInjectedFailures) {
  auto p = Provider();
  EXPECT_EQ(VARIANT_FALSE, p->IsLoggedIn());
  EXPECT_EQ(VARIANT_TRUE, p->IsCachedMode());
  EXPECT_EQ(VARIANT_FALSE, p->IsSearchReady());
  EXPECT_EQ(VARIANT_TRUE, p->IsConversationViewEnabled());  // default
  EXPECT_EQ(VARIANT_FALSE, p->IsConversationDataAvailable());
  EXPECT_EQ(2, p->GetLastProviderError());
  EXPECT_EQ((std::vector<std::string>{"Posteingang", "Gesendete Elemente", "Gelöschte Elemente", "Entwürfe"}),
            Texts(p->LoadDefaultFolderNames()));
  auto folder = p->GetServerFolder("Inbox", "");
  EXPECT_EQ(static_cast<HRESULT>(0x80040115), folder->raw_ClearCache());
  EXPECT_EQ(-1, folder->CountMessages("", nullptr, VARIANT_TRUE));  // over the conversation limit
  EXPECT_EQ(2, folder->CountMessages("", nullptr, VARIANT_FALSE));
  EXPECT_EQ(E_INVALIDARG, folder->raw_SetSortOrder(1, _bstr_t("Sideways")));
}

TEST_F(ScriptArchiveTest, SavedDefaultNamesComeBack) {
  auto p = Provider();
  SAFEARRAY* names = SafeArrayCreateVector(VT_BSTR, 0, 4);
  const char* items[] = {"A", "B", "Ç", "D"};
  for (LONG i = 0; i < 4; ++i) SafeArrayPutElement(names, &i, static_cast<BSTR>(_bstr_t(items[i])));
  p->SaveDefaultFolderNames(names);
  SafeArrayDestroy(names);
  EXPECT_EQ((std::vector<std::string>{"A", "B", "Ç", "D"}), Texts(p->LoadDefaultFolderNames()));
  EXPECT_EQ(E_INVALIDARG, p->raw_SaveDefaultFolderNames(nullptr));
}

TEST_F(ScriptArchiveTest, RemoveMessagesDropsRecords) {
  auto folder = Provider()->GetServerFolder("Inbox", "");
  SAFEARRAY* ids = SafeArrayCreateVector(VT_BSTR, 0, 1);
  LONG i = 0;
  SafeArrayPutElement(ids, &i, static_cast<BSTR>(_bstr_t("M2")));
  EXPECT_EQ(0, folder->RemoveMessages(ids));
  SafeArrayDestroy(ids);
  EXPECT_FALSE(folder->OpenMessage("M2"));
  EXPECT_TRUE(folder->OpenMessage("M1"));
}

TEST_F(ScriptArchiveTest, JournalRecordsCallsInOrderWithArguments) {
  std::remove(journalPath.c_str());
  auto p = Provider();
  p->RegisterMailbox("Archive", "zoe@example.com");
  auto folder = p->GetServerFolder("Inbox/Reçus", "zoe@example.com");
  folder->SetSortOrder(3, "Descending");
  auto cond = p->CreateSearchCondition();
  cond->SetSubject("Köln");
  const std::string journal = ReadFile(journalPath);
  size_t a = journal.find("IZT4DataProvider.RegisterMailbox(\"Archive\", \"zoe@example.com\")");
  size_t b = journal.find("IZT4DataProvider.GetServerFolder(\"Inbox/Reçus\", \"zoe@example.com\")");
  size_t c = journal.find("IZT4ArchiveFolder[Inbox/Reçus].SetSortOrder(3, \"Descending\")");
  size_t d = journal.find("].SetSubject(\"Köln\")");
  ASSERT_NE(std::string::npos, a) << journal;
  ASSERT_NE(std::string::npos, b) << journal;
  ASSERT_NE(std::string::npos, c) << journal;
  ASSERT_NE(std::string::npos, d) << journal;
  EXPECT_LT(a, b);
  EXPECT_LT(b, c);
  EXPECT_LT(c, d);

  // The same lines are kept in memory, read through the module's export.
  HMODULE module = LoadLibraryA(adtest::BinPath("ZT4ScriptArchive.so").c_str());
  ASSERT_NE(nullptr, module);
  using JournalFn = size_t (*)(char*, size_t);
  auto fn = reinterpret_cast<JournalFn>(GetProcAddress(module, "ZT4ScriptArchiveJournal"));
  ASSERT_NE(nullptr, fn);
  std::string memory(fn(nullptr, 0), '\0');
  fn(memory.data(), memory.size());
  EXPECT_NE(std::string::npos, memory.find("SetSortOrder(3, \"Descending\")"));
  FreeLibrary(module);
}

TEST_F(ScriptArchiveTest, MalformedFixtureFailsCreationWithLine) {
  std::ofstream(fixturePath, std::ios::trunc) << "[provider]\nIsLoggedIn = true\nIsCachedMode = maybe\n";
  IZT4DataProviderPtr p;
  EXPECT_EQ(static_cast<HRESULT>(0x8007000BL), Create(p));
  EXPECT_FALSE(p);
  EXPECT_NE(std::string::npos, ReadFile(journalPath).find(fixturePath + ":3: not a boolean: 'maybe'"));
}

TEST_F(ScriptArchiveTest, FixtureNamedInTheRegistry) {
  unsetenv("ARCHIVEDEPOT_ARCHIVE_FIXTURE");
  ASSERT_EQ(S_OK, scriptarchive::RegisterScriptArchive(adtest::BinPath("ZT4ScriptArchive.so"), fixturePath));
  EXPECT_EQ(2, Provider()->GetLastProviderError());
}

TEST(ScriptFixtureParse, ErrorsNameTheLine) {
  using scriptarchive::ParseFixture;
  EXPECT_EQ("f:2: expected 'Key = Value' or '[section]'", ParseFixture("[provider]\njunk\n", "f").error);
  EXPECT_EQ("f:1: unknown section 'mailbox'", ParseFixture("[mailbox]\n", "f").error);
  EXPECT_EQ("f:1: [message] before any [folder]", ParseFixture("[message]\n", "f").error);
  EXPECT_EQ("f:3: unknown [message] key 'Colour'", ParseFixture("[folder A]\n[message]\nColour = red\n", "f").error);
  EXPECT_EQ("f:3: not a number: 'big'", ParseFixture("[folder A]\n[message]\nSize = big\n", "f").error);
  EXPECT_EQ("f:3: [message] without UniqueId (message of line 2)",
            ParseFixture("[folder A]\n[message]\n", "f").error);
  EXPECT_EQ("f:3: UniqueId longer than 104 bytes",
            ParseFixture("[folder A]\n[message]\nUniqueId = " + std::string(105, 'x') + "\n", "f").error);
  EXPECT_EQ("f:2: setting before any section", ParseFixture("# c\nA = 1\n", "f").error);
  EXPECT_NE(nullptr, ParseFixture("[folder A]\n[message]\nUniqueId = " + std::string(104, 'x') + "\n", "f").fixture);
  EXPECT_EQ("/no/such/file: cannot be read", scriptarchive::LoadFixtureFile("/no/such/file").error);
}

TEST(ScriptFixtureParse, SampleMailboxLoads) {
  auto parsed = scriptarchive::LoadFixtureFile(adtest::BinPath("sample/mailbox.fixture"));
  ASSERT_NE(nullptr, parsed.fixture) << parsed.error;
  auto* ete = parsed.fixture->Find("Inbox/Projects/Été");
  ASSERT_NE(nullptr, ete);
  EXPECT_GT(ete->messages.size(), 10u);
}

}  // namespace
