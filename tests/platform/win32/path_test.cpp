#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "adplatform.h"
#include "test_home.h"
#include "windows.h"

namespace {

bool IsDir(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool IsFile(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : m_name(name) {
    if (const char* old = std::getenv(name)) m_old = old, m_had = true;
    value ? setenv(name, value, 1) : unsetenv(name);
  }
  ~ScopedEnv() { m_had ? setenv(m_name.c_str(), m_old.c_str(), 1) : unsetenv(m_name.c_str()); }

 private:
  std::string m_name, m_old;
  bool m_had = false;
};

}  // namespace

TEST(Path, NativePathTurnsWindowsPathsIntoPosixOnes) {
  EXPECT_EQ(adp::NativePath("C:\\Users\\me\\file.txt"), "/Users/me/file.txt");
  EXPECT_EQ(adp::NativePath("c:/x/y"), "/x/y");
  EXPECT_EQ(adp::NativePath("C:"), "/");
  EXPECT_EQ(adp::NativePath("sub\\dir\\f.ini"), "sub/dir/f.ini");
  // The store path the system builds: a temp folder with its separator, then "\%d.CST".
  EXPECT_EQ(adp::NativePath("/tmp/x/\\123.CST"), "/tmp/x/123.CST");
  EXPECT_EQ(adp::NativePath("\\\\?\\C:\\long\\path"), "/long/path");
  EXPECT_EQ(adp::NativePath("/already/posix"), "/already/posix");
  EXPECT_EQ(adp::NativePath("a:b"), "a:b");  // not a drive: no separator after the colon
  EXPECT_EQ(adp::NativePath(nullptr), "");
}

TEST(Path, StateDirectoryFollowsTheEnvironmentAndIsCreated) {
  adtest::TempHome home;
  EXPECT_EQ(adp::StateDirectory(), home.Home());
  EXPECT_EQ(adp::RuntimeDirectory(), home.Home() + "/run");
  EXPECT_TRUE(IsDir(home.Home() + "/run"));

  std::string xdg = home.Root() + "/xdg";
  {
    ScopedEnv noHome("ARCHIVEDEPOT_HOME", nullptr);
    ScopedEnv data("XDG_DATA_HOME", xdg.c_str());
    EXPECT_EQ(adp::StateDirectory(), xdg + "/archivedepot");
    EXPECT_TRUE(IsDir(xdg + "/archivedepot"));
    ScopedEnv noData("XDG_DATA_HOME", nullptr);
    ScopedEnv userHome("HOME", (home.Root() + "/user").c_str());
    EXPECT_EQ(adp::StateDirectory(), home.Root() + "/user/.local/share/archivedepot");
  }
  std::string trailing = home.Root() + "/trailing/";
  ScopedEnv withSlash("ARCHIVEDEPOT_HOME", trailing.c_str());
  EXPECT_EQ(adp::StateDirectory(), home.Root() + "/trailing");
}

TEST(Path, TempPathHasATrailingSeparatorAndReportsSizes) {
  adtest::TempHome home;
  char buf[MAX_PATH];
  DWORD n = GetTempPathA(sizeof buf, buf);
  EXPECT_EQ(std::string(buf), home.Temp());
  EXPECT_EQ(n, home.Temp().size());
  EXPECT_EQ(buf[n - 1], '/');

  char small[4] = "abc";
  EXPECT_EQ(GetTempPathA(sizeof small, small), home.Temp().size() + 1);  // size needed, with the NUL
  EXPECT_STREQ(small, "abc");

  std::string noSlash = home.Root() + "/tmp";
  ScopedEnv tmp("TMPDIR", noSlash.c_str());
  GetTempPathA(sizeof buf, buf);
  EXPECT_EQ(std::string(buf), noSlash + "/");
  ScopedEnv none("TMPDIR", nullptr);
  GetTempPathA(sizeof buf, buf);
  EXPECT_STREQ(buf, "/tmp/");
}

TEST(Path, TempFileNamesAreCreatedUniqueAndFormatted) {
  adtest::TempHome home;
  char tempPath[MAX_PATH];
  GetTempPathA(sizeof tempPath, tempPath);
  char first[MAX_PATH], second[MAX_PATH];
  UINT a = GetTempFileNameA(tempPath, "TMPLONG", 0, first);
  UINT b = GetTempFileNameA(tempPath, "TMPLONG", 0, second);
  ASSERT_NE(a, 0u);
  ASSERT_NE(b, 0u);
  EXPECT_NE(a, b);
  EXPECT_TRUE(IsFile(first));
  EXPECT_TRUE(IsFile(second));
  char hex[16];
  std::snprintf(hex, sizeof hex, "%X", a);
  EXPECT_EQ(std::string(first), std::string(tempPath) + "TMP" + hex + ".TMP");  // three prefix characters

  // A number given by the caller is used as it is, and nothing is created.
  char named[MAX_PATH];
  EXPECT_EQ(GetTempFileNameA(tempPath, "ab", 0x1A2B, named), 0x1A2Bu);
  EXPECT_EQ(std::string(named), home.Temp() + "ab1A2B.TMP");
  EXPECT_FALSE(IsFile(named));

  // A folder written the Windows way, without its separator.
  std::string winFolder = "C:" + home.Temp();
  winFolder.pop_back();
  for (char& c : winFolder) c = c == '/' ? '\\' : c;
  char viaBackslash[MAX_PATH];
  ASSERT_NE(GetTempFileNameA(winFolder.c_str(), "W", 0, viaBackslash), 0u);
  EXPECT_EQ(std::string(viaBackslash).rfind(home.Temp() + "W", 0), 0u);
  EXPECT_TRUE(IsFile(viaBackslash));
}

TEST(Path, TempFileNameRefusesBadInput) {
  adtest::TempHome home;
  char out[MAX_PATH];
  SetLastError(0);
  EXPECT_EQ(GetTempFileNameA(nullptr, "x", 0, out), 0u);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_EQ(GetTempFileNameA(home.Temp().c_str(), "x", 0, nullptr), 0u);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_EQ(GetTempFileNameA((home.Root() + "/missing").c_str(), "x", 0, out), 0u);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_DIRECTORY));
  std::string tooLong(MAX_PATH - 13, 'a');
  EXPECT_EQ(GetTempFileNameA(tooLong.c_str(), "x", 0, out), 0u);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_BUFFER_OVERFLOW));
}

TEST(Path, SystemAndWindowsFoldersLiveInTheStateDirectory) {
  adtest::TempHome home;
  char buf[MAX_PATH];
  UINT n = GetSystemDirectoryA(buf, sizeof buf);
  EXPECT_EQ(std::string(buf), home.Home() + "/windows/system32");
  EXPECT_EQ(n, std::string(buf).size());
  EXPECT_TRUE(IsDir(buf));
  n = GetWindowsDirectoryA(buf, sizeof buf);
  EXPECT_EQ(std::string(buf), home.Home() + "/windows");
  char tiny[2];
  EXPECT_EQ(GetSystemDirectoryA(tiny, sizeof tiny), (home.Home() + "/windows/system32").size() + 1);
}

TEST(Path, FullAndCurrentPaths) {
  adtest::TempHome home;
  char saved[PATH_MAX];
  ASSERT_TRUE(::getcwd(saved, sizeof saved));
  ASSERT_TRUE(SetCurrentDirectoryA(home.Root().c_str()));

  char cwd[MAX_PATH];
  DWORD n = GetCurrentDirectoryA(sizeof cwd, cwd);
  char real[PATH_MAX];
  ASSERT_TRUE(::realpath(home.Root().c_str(), real));
  EXPECT_EQ(std::string(cwd), real);
  EXPECT_EQ(n, std::string(real).size());
  EXPECT_EQ(GetCurrentDirectoryA(0, nullptr), n + 1);

  char full[MAX_PATH];
  LPSTR part = nullptr;
  n = GetFullPathNameA("a\\b\\..\\c.txt", sizeof full, full, &part);
  EXPECT_EQ(std::string(full), std::string(real) + "/a/c.txt");
  EXPECT_EQ(n, std::string(full).size());
  ASSERT_NE(part, nullptr);
  EXPECT_STREQ(part, "c.txt");
  GetFullPathNameA("C:\\x\\.\\y\\", sizeof full, full, &part);
  EXPECT_STREQ(full, "/x/y/");
  EXPECT_EQ(part, nullptr);
  EXPECT_EQ(GetFullPathNameA("/x/y", 3, full, nullptr), 5u);  // needed size with the NUL
  SetLastError(0);
  EXPECT_EQ(GetFullPathNameA(nullptr, sizeof full, full, nullptr), 0u);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));

  EXPECT_FALSE(SetCurrentDirectoryA((home.Root() + "/none/deeper").c_str()));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
  ASSERT_EQ(::chdir(saved), 0);
}
