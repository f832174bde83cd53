#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "test_home.h"
#include "windows.h"

namespace {

// Redirects one of the standard descriptors into a temporary file until Finish().
class FdCapture {
 public:
  explicit FdCapture(int fd) : m_fd(fd), m_file(std::tmpfile()) {
    std::fflush(nullptr);
    m_saved = dup(fd);
    dup2(fileno(m_file), fd);
  }
  ~FdCapture() { Finish(); }
  std::string Finish() {
    if (m_saved < 0) return m_text;
    std::fflush(nullptr);
    dup2(m_saved, m_fd);
    close(m_saved);
    m_saved = -1;
    std::rewind(m_file);
    char buf[4096];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, m_file)) > 0;) m_text.append(buf, n);
    std::fclose(m_file);
    return m_text;
  }

 private:
  int m_fd;
  FILE* m_file;
  int m_saved = -1;
  std::string m_text;
};

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

}  // namespace

TEST(Console, StandardOutputIsTheConsole) {
  EXPECT_TRUE(AllocConsole());
  HANDLE out = GetStdHandle(STD_OUTPUT_HANDLE);
  ASSERT_NE(out, INVALID_HANDLE_VALUE);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(GetStdHandle(STD_OUTPUT_HANDLE), out);
  COORD size = {80, 300};
  EXPECT_TRUE(SetConsoleScreenBufferSize(out, size));

  FdCapture capture(STDOUT_FILENO);
  DWORD written = 0;
  EXPECT_TRUE(WriteConsoleA(out, "line one\r\n", 10, &written, nullptr));
  EXPECT_EQ(written, 10u);
  const WCHAR wide[] = u"Zo\u00EB \u6771\u4EAC\n";
  EXPECT_TRUE(WriteConsoleW(out, wide, 7, &written, nullptr));
  EXPECT_EQ(written, 7u);  // counted in WCHARs
  EXPECT_EQ(capture.Finish(), "line one\r\nZo\xC3\xAB \xE6\x9D\xB1\xE4\xBA\xAC\n");
  EXPECT_EQ(GetConsoleOutputCP(), 65001u);
}

TEST(Console, HandlesSurviveClosingAndRefuseMisuse) {
  HANDLE err = GetStdHandle(STD_ERROR_HANDLE);
  EXPECT_TRUE(CloseHandle(err));
  HANDLE again = GetStdHandle(STD_ERROR_HANDLE);
  ASSERT_NE(again, INVALID_HANDLE_VALUE);
  FdCapture capture(STDERR_FILENO);
  DWORD written = 0;
  EXPECT_TRUE(WriteConsoleA(again, "x", 1, &written, nullptr));
  EXPECT_EQ(capture.Finish(), "x");

  SetLastError(0);
  EXPECT_EQ(GetStdHandle(42), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  HANDLE in = GetStdHandle(STD_INPUT_HANDLE);
  SetLastError(0);
  EXPECT_FALSE(WriteConsoleA(in, "x", 1, &written, nullptr));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  int notAHandle = 0;
  SetLastError(0);
  EXPECT_FALSE(WriteConsoleA(&notAHandle, "x", 1, &written, nullptr));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_FALSE(SetConsoleScreenBufferSize(nullptr, COORD{80, 300}));
  SetLastError(0);
  EXPECT_FALSE(SetConsoleScreenBufferSize(GetStdHandle(STD_OUTPUT_HANDLE), COORD{0, 300}));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_FALSE(WriteConsoleA(GetStdHandle(STD_OUTPUT_HANDLE), nullptr, 3, &written, nullptr));
}

TEST(DebugOutput, GoesToStandardErrorOrTheNamedFile) {
  adtest::TempHome home;
  unsetenv("ARCHIVEDEPOT_DEBUG_OUTPUT");
  {
    FdCapture capture(STDERR_FILENO);
    OutputDebugStringA("Error: x\r\nCode: 0x80004005\r\n");
    OutputDebugStringW(u"\u00E9");
    OutputDebugStringA(nullptr);
    EXPECT_EQ(capture.Finish(), "Error: x\r\nCode: 0x80004005\r\n\xC3\xA9");
  }
  const std::string path = home.Temp() + "debug.txt";
  setenv("ARCHIVEDEPOT_DEBUG_OUTPUT", path.c_str(), 1);
  SetLastError(1234);
  OutputDebugStringA("one");
  OutputDebugStringA("two\n");
  EXPECT_EQ(GetLastError(), 1234u);
  EXPECT_EQ(ReadFile(path), "onetwo\n");  // appended, nothing added
  const std::string unwritable = home.Temp() + "missing/dir/debug.txt";
  setenv("ARCHIVEDEPOT_DEBUG_OUTPUT", unwritable.c_str(), 1);
  {
    FdCapture capture(STDERR_FILENO);
    OutputDebugStringA("fallback");
    EXPECT_EQ(capture.Finish(), "fallback");
  }
  unsetenv("ARCHIVEDEPOT_DEBUG_OUTPUT");
  EXPECT_FALSE(IsDebuggerPresent());
  DebugBreak();  // returns: there is no debugger to trap into
}
