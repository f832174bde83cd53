#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "test_home.h"
#include "windows.h"

namespace {

std::string ReadText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void WriteText(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

std::string Get(const char* section, const char* key, const char* def, const std::string& file) {
  char buf[256];
  GetPrivateProfileStringA(section, key, def, buf, sizeof buf, file.c_str());
  return buf;
}

// A double-NUL-terminated list as its items.
std::vector<std::string> Items(const char* p) {
  std::vector<std::string> items;
  for (; *p; p += std::strlen(p) + 1) items.emplace_back(p);
  return items;
}

using Strings = std::vector<std::string>;

class ProfileTest : public ::testing::Test {
 protected:
  std::string Ini(const std::string& name = "MAPISVC.INF") const { return home.Temp() + name; }
  adtest::TempHome home;
};

}  // namespace

TEST_F(ProfileTest, WritesTheInstallationRowsAndReadsThemBack) {
  std::string file = Ini();
  ASSERT_TRUE(WritePrivateProfileStringA("Services", "ZT4MSPROVIDER", "Orvanta Message Store", file.c_str()));
  ASSERT_TRUE(WritePrivateProfileStringA("ZT4MSPROVIDER", "PR_SERVICE_DLL_NAME", "ZT4MSProvider.DLL", file.c_str()));
  ASSERT_TRUE(WritePrivateProfileStringA("ZT4MSPROVIDER", "Providers", "ZT4_MSPROVIDER", file.c_str()));
  ASSERT_TRUE(WritePrivateProfileStringA("ZT4_MSPROVIDER", "PR_RESOURCE_TYPE", "MAPI_STORE_PROVIDER", file.c_str()));
  ASSERT_TRUE(WritePrivateProfileStringA("zt4msprovider", "providers", "changed", file.c_str()));
  EXPECT_EQ(ReadText(file),
            "[Services]\r\nZT4MSPROVIDER=Orvanta Message Store\r\n"
            "[ZT4MSPROVIDER]\r\nPR_SERVICE_DLL_NAME=ZT4MSProvider.DLL\r\nProviders=changed\r\n"
            "[ZT4_MSPROVIDER]\r\nPR_RESOURCE_TYPE=MAPI_STORE_PROVIDER\r\n");
  EXPECT_EQ(Get("services", "zt4msprovider", "", file), "Orvanta Message Store");
  char buf[64];
  SetLastError(5);
  EXPECT_EQ(GetPrivateProfileStringA("ZT4MSPROVIDER", "Providers", "", buf, sizeof buf, file.c_str()), 7u);
  EXPECT_EQ(GetLastError(), 0u);

  // The removal rows: a key, then whole sections.
  EXPECT_TRUE(WritePrivateProfileStringA("Services", "ZT4MSProvider", nullptr, file.c_str()));
  EXPECT_TRUE(WritePrivateProfileStringA("ZT4MSPROVIDER", nullptr, nullptr, file.c_str()));
  EXPECT_TRUE(WritePrivateProfileStringA("ZT4_MSPROVIDER", nullptr, nullptr, file.c_str()));
  EXPECT_EQ(ReadText(file), "[Services]\r\n");
  // Deleting what is not there is no error, and makes no file.
  EXPECT_TRUE(WritePrivateProfileStringA("None", nullptr, nullptr, file.c_str()));
  EXPECT_TRUE(WritePrivateProfileStringA("x", "y", nullptr, Ini("absent.ini").c_str()));
  EXPECT_EQ(ReadText(Ini("absent.ini")), "");

  // The flush call has nothing to do and returns 0, with no error.
  SetLastError(5);
  EXPECT_FALSE(WritePrivateProfileStringA(nullptr, nullptr, nullptr, file.c_str()));
  EXPECT_EQ(GetLastError(), 0u);
  EXPECT_FALSE(WritePrivateProfileStringA(nullptr, nullptr, nullptr, nullptr));
}

TEST_F(ProfileTest, KeepsWhatItDoesNotTouch) {
  std::string file = Ini("keep.ini");
  WriteText(file,
            "; top comment\n"
            "[First]\n"
            "  Alpha = 1 \n"
            "; inside first\n"
            "beta=2\n"
            "\n"
            "[Second]\n"
            "gamma=3\n");
  ASSERT_TRUE(WritePrivateProfileStringA("first", "ALPHA", "one", file.c_str()));
  ASSERT_TRUE(WritePrivateProfileStringA("FIRST", "delta", "4", file.c_str()));
  ASSERT_TRUE(WritePrivateProfileStringA("Third", "eps", "5", file.c_str()));
  EXPECT_EQ(ReadText(file),
            "; top comment\n"
            "[First]\n"
            "Alpha=one\n"  // the key keeps its spelling
            "; inside first\n"
            "beta=2\n"
            "delta=4\n"  // new keys after the section's last line, before its blank lines
            "\n"
            "[Second]\n"
            "gamma=3\n"
            "[Third]\n"
            "eps=5\n");  // the file's own line ends are kept
  ASSERT_TRUE(WritePrivateProfileStringA("First", nullptr, nullptr, file.c_str()));
  EXPECT_EQ(ReadText(file), "; top comment\n[Second]\ngamma=3\n[Third]\neps=5\n");
}

TEST_F(ProfileTest, ReadingRules) {
  std::string file = Ini("read.ini");
  WriteText(file,
            "orphan=before any section\r\n"
            "[S]\r\n"
            "quoted=\"  spaced  \"\r\n"
            "single='x'\r\n"
            "half=\"open\r\n"
            "  padded  =  value with spaces  \r\n"
            ";hidden=no\r\n"
            "dup=first\r\n"
            "dup=second\r\n"
            "empty=\r\n"
            "[S2]\r\n"
            "[s]\r\n"
            "later=ignored\r\n");
  EXPECT_EQ(Get("S", "quoted", "", file), "  spaced  ");
  EXPECT_EQ(Get("S", "single", "", file), "x");
  EXPECT_EQ(Get("S", "half", "", file), "\"open");
  EXPECT_EQ(Get("S", "padded", "", file), "value with spaces");
  EXPECT_EQ(Get("S", "dup", "", file), "first");
  EXPECT_EQ(Get("S", "empty", "dflt", file), "");
  EXPECT_EQ(Get("S", "hidden", "dflt", file), "dflt");
  EXPECT_EQ(Get("S", "later", "dflt", file), "dflt");  // only the first section of a name counts
  EXPECT_EQ(Get("S", "orphan", "dflt", file), "dflt");
  SetLastError(0);
  EXPECT_EQ(Get("S", "missing", "default   ", file), "default");  // trailing blanks go
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(Get("S", "missing", nullptr, file), "");
  EXPECT_EQ(Get("S", "x", "d", Ini("nofile.ini")), "d");
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));

  // A value that does not fit is cut, with its NUL, and the result is nSize - 1.
  char small[5];
  EXPECT_EQ(GetPrivateProfileStringA("S", "padded", "", small, sizeof small, file.c_str()), 4u);
  EXPECT_STREQ(small, "valu");

  // Lists: sections, and keys of a section, double-NUL terminated.
  char list[256];
  DWORD n = GetPrivateProfileStringA(nullptr, nullptr, "", list, sizeof list, file.c_str());
  EXPECT_EQ(Items(list), (Strings{"S", "S2", "s"}));
  EXPECT_EQ(n, 7u);
  EXPECT_EQ(list[n], '\0');
  n = GetPrivateProfileStringA("s", nullptr, "", list, sizeof list, file.c_str());
  EXPECT_EQ(Items(list), (Strings{"quoted", "single", "half", "padded", "dup", "dup", "empty"}));
  EXPECT_EQ(GetPrivateProfileSectionNamesA(list, sizeof list, file.c_str()), 7u);
  // A list that does not fit ends in two NULs and gives nSize - 2.
  char cut[6];
  EXPECT_EQ(GetPrivateProfileStringA(nullptr, nullptr, "", cut, sizeof cut, file.c_str()), 4u);
  EXPECT_EQ(std::string(cut, 6), std::string("S\0S2\0\0", 6));
  n = GetPrivateProfileStringA("S2", nullptr, "", list, sizeof list, file.c_str());
  EXPECT_EQ(n, 0u);
  EXPECT_EQ(list[0], '\0');

  EXPECT_EQ(GetPrivateProfileSectionA("S", list, sizeof list, file.c_str()), 95u);
  EXPECT_EQ(Items(list)[0], "quoted=\"  spaced  \"");
  EXPECT_EQ(Items(list)[3], "padded=value with spaces");
}

TEST_F(ProfileTest, IntegersAndSections) {
  std::string file = Ini("num.ini");
  WriteText(file, "[N]\nplain=42\nhex=0x1F\nneg=-7\nsuffix=55zz\njunk=abc\nbig=4294967295\n");
  EXPECT_EQ(GetPrivateProfileIntA("n", "PLAIN", 5, file.c_str()), 42u);
  EXPECT_EQ(GetPrivateProfileIntA("N", "hex", 5, file.c_str()), 31u);
  EXPECT_EQ(static_cast<INT>(GetPrivateProfileIntA("N", "neg", 5, file.c_str())), -7);
  EXPECT_EQ(GetPrivateProfileIntA("N", "suffix", 5, file.c_str()), 55u);
  EXPECT_EQ(GetPrivateProfileIntA("N", "junk", 5, file.c_str()), 0u);
  EXPECT_EQ(GetPrivateProfileIntA("N", "big", 5, file.c_str()), 4294967295u);
  EXPECT_EQ(GetPrivateProfileIntA("N", "none", 5, file.c_str()), 5u);
  EXPECT_EQ(static_cast<INT>(GetPrivateProfileIntA("N", "none", -1, file.c_str())), -1);

  ASSERT_TRUE(WritePrivateProfileSectionA("N", "a=1\0b=2\0", file.c_str()));
  ASSERT_TRUE(WritePrivateProfileSectionA("New", "c=3\0", file.c_str()));
  EXPECT_EQ(ReadText(file), "[N]\na=1\nb=2\n[New]\nc=3\n");
  ASSERT_TRUE(WritePrivateProfileSectionA("n", nullptr, file.c_str()));
  EXPECT_EQ(ReadText(file), "[New]\nc=3\n");
}

TEST_F(ProfileTest, BareNamesLiveInTheWindowsFolder) {
  ASSERT_TRUE(WritePrivateProfileStringA("A", "k", "v", "settings.ini"));
  char windows[MAX_PATH];
  GetWindowsDirectoryA(windows, sizeof windows);
  EXPECT_EQ(ReadText(std::string(windows) + "/settings.ini"), "[A]\r\nk=v\r\n");
  EXPECT_EQ(Get("A", "k", "", "settings.ini"), "v");
  // A Windows path is used as it is.
  std::string winPath = "C:" + Ini("win.ini");
  for (char& c : winPath) c = c == '/' ? '\\' : c;
  ASSERT_TRUE(WritePrivateProfileStringA("B", "k", "w", winPath.c_str()));
  EXPECT_EQ(Get("B", "k", "", Ini("win.ini")), "w");
}

TEST_F(ProfileTest, BadInput) {
  char buf[8] = "x";
  SetLastError(0);
  EXPECT_EQ(GetPrivateProfileStringA("a", "b", "c", buf, sizeof buf, nullptr), 0u);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_EQ(GetPrivateProfileStringA("a", "b", "c", nullptr, 8, Ini().c_str()), 0u);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_EQ(GetPrivateProfileStringA("a", "b", "c", buf, 0, Ini().c_str()), 0u);
  EXPECT_STREQ(buf, "x");  // a zero-sized buffer is not touched
  EXPECT_FALSE(WritePrivateProfileStringA("a", "b", "c", nullptr));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_FALSE(WritePrivateProfileStringA(nullptr, "b", "c", Ini().c_str()));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_FALSE(WritePrivateProfileStringA("a", "b", "c", Ini("missing/dir.ini").c_str()));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
  EXPECT_EQ(GetPrivateProfileSectionA(nullptr, buf, sizeof buf, Ini().c_str()), 0u);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_EQ(GetPrivateProfileIntA("a", "b", 9, nullptr), 9u);
}

TEST_F(ProfileTest, AnotherProcessReadsAndWrites) {
  std::string file = Ini();
  ASSERT_TRUE(WritePrivateProfileStringA("ZT4_MSPROVIDER", "PR_DISPLAY_NAME", "ArchiveDepot", file.c_str()));
  EXPECT_EQ(adtest::RunChild("profile_child", {"check", file, "zt4_msprovider", "pr_display_name", "ArchiveDepot"}), 0);
  EXPECT_EQ(adtest::RunChild("profile_child", {"check", file, "ZT4_MSPROVIDER", "PR_DISPLAY_NAME", "Other"}), 1);
  ASSERT_EQ(adtest::RunChild("profile_child", {"write", file, "c", "2"}), 0);
  EXPECT_EQ(Get("Shared", "c1", "", file), "v1");
}

TEST_F(ProfileTest, ConcurrentWritersInSeveralProcessesLoseNothing) {
  std::string file = Ini("shared.ini");
  WriteText(file, "; keep me\r\n[Other]\r\nx=1\r\n");
  constexpr int kPerWriter = 40;
  std::vector<std::unique_ptr<adtest::ChildProcess>> children;
  for (const char* prefix : {"a", "b", "c"}) {
    children.push_back(std::make_unique<adtest::ChildProcess>(
        adtest::BinPath("profile_child"), std::vector<std::string>{"write", file, prefix, std::to_string(kPerWriter)}));
  }
  for (int i = 0; i < kPerWriter; ++i) {
    std::string key = "p" + std::to_string(i);
    ASSERT_TRUE(WritePrivateProfileStringA("Shared", key.c_str(), "parent", file.c_str()));
  }
  for (auto& child : children) EXPECT_EQ(child->Wait(), 0);

  std::vector<char> buf(1 << 16);
  GetPrivateProfileStringA("Shared", nullptr, "", buf.data(), static_cast<DWORD>(buf.size()), file.c_str());
  Strings keys = Items(buf.data());
  std::set<std::string> unique(keys.begin(), keys.end());
  EXPECT_EQ(keys.size(), 4u * kPerWriter);
  EXPECT_EQ(unique.size(), 4u * kPerWriter);
  EXPECT_EQ(Get("Other", "x", "", file), "1");
  EXPECT_EQ(ReadText(file).rfind("; keep me\r\n[Other]\r\nx=1\r\n[Shared]\r\n", 0), 0u);
}
