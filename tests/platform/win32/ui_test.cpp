#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "adplatform.h"
#include "adplatform_ui.h"
#include "windows.h"

namespace {

// Redirects standard error into a temporary file until Finish().
class StderrCapture {
 public:
  StderrCapture() : m_file(std::tmpfile()) {
    std::fflush(stderr);
    m_saved = dup(STDERR_FILENO);
    dup2(fileno(m_file), STDERR_FILENO);
  }
  ~StderrCapture() { Finish(); }
  std::string Finish() {
    if (m_saved < 0) return m_text;
    std::fflush(stderr);
    dup2(m_saved, STDERR_FILENO);
    close(m_saved);
    m_saved = -1;
    std::rewind(m_file);
    char buf[4096];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, m_file)) > 0;) m_text.append(buf, n);
    std::fclose(m_file);
    return m_text;
  }

 private:
  FILE* m_file;
  int m_saved = -1;
  std::string m_text;
};

HINSTANCE Module(uintptr_t n) { return reinterpret_cast<HINSTANCE>(n); }

std::u16string Load(HINSTANCE module, UINT id) {
  WCHAR buf[128];
  int n = LoadStringW(module, id, buf, 128);
  return n > 0 ? std::u16string(buf, static_cast<size_t>(n)) : u"<missing>";
}

// Restores the language settings a test changes.
class LanguageTest : public ::testing::Test {
 protected:
  void TearDown() override {
    SetThreadUILanguage(0);
    adp::SetDefaultLCID(0);
    adp::SetMessageBoxSink(nullptr);
  }
};

}  // namespace

TEST_F(LanguageTest, MessageBoxReportsWithoutBlockingAndAnswersTheDefault) {
  std::vector<std::pair<std::u16string, std::u16string>> seen;
  adp::SetMessageBoxSink([&](const std::u16string& text, const std::u16string& caption) {
    seen.emplace_back(text, caption);
  });
  StderrCapture capture;
  EXPECT_EQ(MessageBoxW(nullptr, u"Conversation view is not enabled in Zo\u00EB's store", u"ArchiveDepot",
                        MB_ICONEXCLAMATION),
            IDOK);
  EXPECT_EQ(MessageBoxW(nullptr, u"Continue?", nullptr, MB_YESNO), IDYES);
  EXPECT_EQ(MessageBoxW(nullptr, u"q", u"c", MB_YESNO | MB_DEFBUTTON2), IDNO);
  EXPECT_EQ(MessageBoxW(nullptr, u"q", u"c", MB_YESNOCANCEL | MB_DEFBUTTON3), IDCANCEL);
  EXPECT_EQ(MessageBoxW(nullptr, u"q", u"c", MB_OKCANCEL | MB_DEFBUTTON4), IDOK);  // no fourth button
  // Retrying without a user would only repeat the failure: the last button answers instead.
  EXPECT_EQ(MessageBoxW(nullptr, u"q", u"c", MB_RETRYCANCEL), IDCANCEL);
  EXPECT_EQ(MessageBoxW(nullptr, u"q", u"c", MB_ABORTRETRYIGNORE | MB_DEFBUTTON2), IDIGNORE);
  EXPECT_EQ(MessageBoxW(nullptr, u"q", u"c", MB_CANCELTRYCONTINUE | MB_DEFBUTTON2), IDCONTINUE);
  EXPECT_EQ(MessageBoxA(nullptr, "Stra\xC3\x9F" "e", "Narrow", MB_OK), IDOK);
  EXPECT_EQ(MessageBoxW(nullptr, nullptr, u"Empty", MB_OK), IDOK);
  SetLastError(0);
  EXPECT_EQ(MessageBoxW(nullptr, u"q", u"c", 7), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  std::string err = capture.Finish();

  EXPECT_NE(err.find("ArchiveDepot: Conversation view is not enabled in Zo\xC3\xAB's store\n"), std::string::npos);
  EXPECT_NE(err.find("Error: Continue?\n"), std::string::npos);
  EXPECT_NE(err.find("Narrow: Stra\xC3\x9F" "e\n"), std::string::npos);
  ASSERT_EQ(seen.size(), 10u);
  EXPECT_EQ(seen[0].first, u"Conversation view is not enabled in Zo\u00EB's store");
  EXPECT_EQ(seen[0].second, u"ArchiveDepot");
  EXPECT_EQ(seen[1].second, u"Error");
  EXPECT_EQ(seen[8].first, u"Stra\u00DFe");
  EXPECT_EQ(seen[9].first, u"");
}

TEST_F(LanguageTest, SinksCanBeReplacedWhileBoxesAreShownAndMayThrow) {
  StderrCapture capture;
  adp::SetMessageBoxSink([](const std::u16string&, const std::u16string&) { throw std::runtime_error("sink"); });
  EXPECT_EQ(MessageBoxW(nullptr, u"still fine", u"c", MB_OK), IDOK);

  std::atomic<int> delivered{0};
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([] {
      for (int i = 0; i < 50; ++i) MessageBoxW(nullptr, u"concurrent", u"c", MB_OK);
    });
  std::thread swapper([&] {
    while (!stop) {
      adp::SetMessageBoxSink([&](const std::u16string&, const std::u16string&) { ++delivered; });
      adp::SetMessageBoxSink(nullptr);
    }
  });
  for (auto& t : threads) t.join();
  stop = true;
  swapper.join();
  adp::SetMessageBoxSink([&](const std::u16string&, const std::u16string&) { ++delivered; });
  const int before = delivered;
  MessageBoxW(nullptr, u"last", u"c", MB_OK);
  EXPECT_EQ(delivered, before + 1);
  adp::SetMessageBoxSink(nullptr);
  MessageBoxW(nullptr, u"unseen", u"c", MB_OK);
  EXPECT_EQ(delivered, before + 1);
  std::string err = capture.Finish();
  EXPECT_NE(err.find("c: still fine\n"), std::string::npos);
}

TEST_F(LanguageTest, LoadStringFallsBackAsTheResourceLoaderDoes) {
  const HINSTANCE mod = Module(0x5100);
  adp::RegisterStringTable(mod, 0x0409, 7003, u"Conversation view is not enabled");
  adp::RegisterStringTable(mod, 0x0407, 7003, u"Die Unterhaltungsansicht ist nicht aktiviert");
  adp::RegisterStringTable(mod, MAKELANGID(0x0C, SUBLANG_NEUTRAL), 7003, u"La vue Conversation n'est pas activ\u00E9e");
  adp::RegisterStringTable(mod, 0x0000, 7005, u"neutral 7005");
  adp::RegisterStringTable(mod, 0x0409, 7005, u"English 7005");
  adp::RegisterStringTable(mod, 0x0404, 8000, u"\u53EA\u6709\u4E2D\u6587");
  adp::RegisterStringTable(mod, 0x0809, 8001, u"British only");

  SetThreadUILanguage(0x0407);
  EXPECT_EQ(Load(mod, 7003), u"Die Unterhaltungsansicht ist nicht aktiviert");
  SetThreadUILanguage(0x0807);  // de-CH: another German
  EXPECT_EQ(Load(mod, 7003), u"Die Unterhaltungsansicht ist nicht aktiviert");
  SetThreadUILanguage(0x0C0C);  // fr-CA: the neutral French table
  EXPECT_EQ(Load(mod, 7003), u"La vue Conversation n'est pas activ\u00E9e");
  SetThreadUILanguage(0x0411);  // Japanese: none, so English
  EXPECT_EQ(Load(mod, 7003), u"Conversation view is not enabled");
  EXPECT_EQ(Load(mod, 7005), u"neutral 7005");  // neutral before English
  EXPECT_EQ(Load(mod, 8001), u"British only");  // any English
  EXPECT_EQ(Load(mod, 8000), u"\u53EA\u6709\u4E2D\u6587");  // any language at all
  SetThreadUILanguage(0);
  adp::SetDefaultLCID(0x0407);  // the process's language when the thread has none
  EXPECT_EQ(Load(mod, 7003), u"Die Unterhaltungsansicht ist nicht aktiviert");
  adp::UnregisterStringTables(mod);
}

TEST_F(LanguageTest, LoadStringServesFourteenLanguages) {
  const HINSTANCE mod = Module(0x5200);
  const LANGID langs[] = {0x0409, 0x0407, 0x040C, 0x0C0A, 0x0410, 0x0411, 0x0412,
                          0x0804, 0x0404, 0x0416, 0x0413, 0x0419, 0x041D, 0x0406};
  for (LANGID lang : langs) {
    std::u16string text = u"7003/" + adp::Utf8ToUtf16(std::to_string(lang).c_str());
    adp::StringResource table[] = {{7003, text.c_str()}, {9021, u"last id"}};
    adp::RegisterStringTable(mod, lang, table, 2);
  }
  for (LANGID lang : langs) {
    SetThreadUILanguage(lang);
    EXPECT_EQ(Load(mod, 7003), u"7003/" + adp::Utf8ToUtf16(std::to_string(lang).c_str()));
    EXPECT_EQ(Load(mod, 9021), u"last id");
  }
  adp::UnregisterStringTables(mod);
}

TEST_F(LanguageTest, LoadStringFollowsThePublishedBufferRules) {
  const HINSTANCE mod = Module(0x5300);
  adp::RegisterStringTable(mod, 0x0409, 1, u"Message Store Configuration");
  adp::RegisterStringTable(mod, 0x0409, 2, u"Zo\u00EB \u6771\u4EAC");

  // cchBufferMax 0: a read-only pointer to the resource itself.
  const WCHAR* resource = nullptr;
  EXPECT_EQ(LoadStringW(mod, 1, reinterpret_cast<LPWSTR>(&resource), 0), 27);
  ASSERT_NE(resource, nullptr);
  EXPECT_EQ(std::u16string(resource), u"Message Store Configuration");
  adp::RegisterStringTable(mod, 0x0409, 1, u"Replaced");
  EXPECT_EQ(std::u16string(resource), u"Message Store Configuration");  // still valid until unregistered
  EXPECT_EQ(Load(mod, 1), u"Replaced");

  WCHAR small[4];
  EXPECT_EQ(LoadStringW(mod, 1, small, 4), 3);
  EXPECT_EQ(std::u16string(small), u"Rep");
  char narrow[8];
  EXPECT_EQ(LoadStringA(mod, 2, narrow, sizeof narrow), 5);  // "Zoë " and not half of "東"
  EXPECT_STREQ(narrow, "Zo\xC3\xAB ");
  char wide[32];
  EXPECT_EQ(LoadStringA(mod, 2, wide, sizeof wide), 11);
  EXPECT_STREQ(wide, "Zo\xC3\xAB \xE6\x9D\xB1\xE4\xBA\xAC");

  SetLastError(0);
  EXPECT_EQ(LoadStringW(mod, 99, small, 4), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_RESOURCE_NAME_NOT_FOUND));
  SetLastError(0);
  EXPECT_EQ(LoadStringW(mod, 1, nullptr, 4), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_EQ(LoadStringW(mod, 1, small, -1), 0);
  EXPECT_EQ(LoadStringA(mod, 1, narrow, 0), 0);
  adp::RegisterStringTable(mod, 0x0409, 1, nullptr);  // removal
  EXPECT_EQ(Load(mod, 1), u"<missing>");
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_RESOURCE_NAME_NOT_FOUND));
  adp::UnregisterStringTables(mod);
  SetLastError(0);
  EXPECT_EQ(LoadStringW(mod, 2, small, 4), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_RESOURCE_TYPE_NOT_FOUND));
  EXPECT_EQ(LoadStringW(Module(0x9999), 2, small, 4), 0);
}
