#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "test_home.h"
#include "windows.h"

namespace {

using AddProc = int (*)(int, int);
using InstanceProc = HINSTANCE (*)();

std::string RealPath(const std::string& path) {
  char buf[PATH_MAX];
  return ::realpath(path.c_str(), buf) ? std::string(buf) : path;
}

// Points the test module's DllMain log at a fresh file and reads it back.
class DllMainLog {
 public:
  explicit DllMainLog(const adtest::TempHome& home) : m_path(home.Root() + "/dllmain.log") {
    setenv("ADTEST_DLLMAIN_LOG", m_path.c_str(), 1);
  }
  ~DllMainLog() { unsetenv("ADTEST_DLLMAIN_LOG"); }
  std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    std::ifstream in(m_path);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }

 private:
  std::string m_path;
};

using Lines = std::vector<std::string>;

}  // namespace

TEST(Module, DllMainRunsOnFirstLoadAndLastFree) {
  adtest::TempHome home;
  DllMainLog log(home);
  HMODULE first = LoadLibraryA("loader_dllmain_module.DLL");  // found beside the executable as .so
  ASSERT_NE(first, nullptr) << GetLastError();
  HMODULE second = LoadLibraryA("LOADER_DLLMAIN_MODULE");     // no extension: ".dll", any case
  EXPECT_EQ(second, first);
  EXPECT_EQ(log.Lines(), (Lines{"attach dynamic"}));

  auto instance = reinterpret_cast<InstanceProc>(GetProcAddress(first, "AttachedInstance"));
  ASSERT_NE(instance, nullptr);
  EXPECT_EQ(instance(), first);  // DllMain saw the handle LoadLibraryA returns
  auto add = reinterpret_cast<AddProc>(GetProcAddress(first, "Add"));
  ASSERT_NE(add, nullptr);
  EXPECT_EQ(add(2, 3), 5);
  EXPECT_EQ(GetModuleHandleA("loader_dllmain_module.dll"), first);

  char path[MAX_PATH];
  DWORD n = GetModuleFileNameA(first, path, sizeof path);
  EXPECT_EQ(std::string(path), RealPath(adtest::BinPath("loader_dllmain_module.so")));
  EXPECT_EQ(n, std::string(path).size());

  EXPECT_TRUE(FreeLibrary(first));
  EXPECT_EQ(log.Lines(), (Lines{"attach dynamic"}));  // one reference left
  EXPECT_TRUE(FreeLibrary(second));
  EXPECT_EQ(log.Lines(), (Lines{"attach dynamic", "detach dynamic"}));
  EXPECT_FALSE(FreeLibrary(second));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_EQ(GetProcAddress(second, "Add"), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));

  // Loaded again, it attaches again.
  HMODULE again = LoadLibraryA(adtest::BinPath("loader_dllmain_module.so").c_str());
  ASSERT_NE(again, nullptr);
  EXPECT_TRUE(FreeLibrary(again));
  EXPECT_EQ(log.Lines().size(), 4u);
}

TEST(Module, RefusedAttachFailsTheLoad) {
  adtest::TempHome home;
  DllMainLog log(home);
  setenv("ADTEST_DLLMAIN_REFUSE", "1", 1);
  SetLastError(0);
  EXPECT_EQ(LoadLibraryA("loader_dllmain_module.dll"), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_DLL_INIT_FAILED));
  unsetenv("ADTEST_DLLMAIN_REFUSE");
  EXPECT_EQ(log.Lines(), (Lines{"attach dynamic", "detach dynamic"}));
}

TEST(Module, ProcessExitDetachesWhatIsStillLoaded) {
  adtest::TempHome home;
  DllMainLog log(home);
  ASSERT_EQ(adtest::RunChild("loader_child", {"keep"}), 0);
  EXPECT_EQ(log.Lines(), (Lines{"attach dynamic", "detach exit"}));
  ASSERT_EQ(adtest::RunChild("loader_child", {"free"}), 0);
  EXPECT_EQ(log.Lines(), (Lines{"attach dynamic", "detach exit", "attach dynamic", "detach dynamic"}));
}

TEST(Module, NamesAndPathsFollowTheDocumentedRule) {
  adtest::TempHome home;
  // A Windows path with a drive and backslashes, naming the module as a DLL.
  std::string win = "C:" + adtest::BinPath("Loader_Plain_Module.dll");
  for (char& c : win) c = c == '/' ? '\\' : c;
  HMODULE plain = LoadLibraryA(win.c_str());
  ASSERT_NE(plain, nullptr) << GetLastError();
  auto multiply = reinterpret_cast<AddProc>(GetProcAddress(plain, "Multiply"));
  ASSERT_NE(multiply, nullptr);
  EXPECT_EQ(multiply(6, 7), 42);
  // Only what the module itself defines: not the platform functions it links to.
  EXPECT_EQ(GetProcAddress(plain, "CreateFileA"), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_PROC_NOT_FOUND));
  EXPECT_EQ(GetProcAddress(plain, "DllMain"), nullptr);
  EXPECT_EQ(GetProcAddress(plain, reinterpret_cast<LPCSTR>(1)), nullptr);  // by ordinal
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_PROC_NOT_FOUND));
  EXPECT_EQ(GetModuleHandleA(win.c_str()), plain);
  EXPECT_TRUE(FreeLibrary(plain));

  // Modules in the stand-in system folder are found by bare name, with the "lib" spelling too.
  char system[MAX_PATH];
  GetSystemDirectoryA(system, sizeof system);
  std::ifstream src(adtest::BinPath("loader_plain_module.so"), std::ios::binary);
  std::ofstream(std::string(system) + "/libmapistub.so", std::ios::binary) << src.rdbuf();
  HMODULE stub = LoadLibraryA((std::string(system) + "\\mapistub.dll").c_str());
  ASSERT_NE(stub, nullptr) << GetLastError();
  EXPECT_EQ(LoadLibraryA("MAPISTUB.DLL"), stub);
  EXPECT_NE(GetProcAddress(stub, "Multiply"), nullptr);
  EXPECT_TRUE(FreeLibrary(stub));
  EXPECT_TRUE(FreeLibrary(stub));
}

TEST(Module, ExecutableAndBadInput) {
  adtest::TempHome home;
  char exe[MAX_PATH];
  DWORD n = GetModuleFileNameA(nullptr, exe, sizeof exe);
  EXPECT_EQ(std::string(exe), RealPath("/proc/self/exe"));
  EXPECT_EQ(n, std::string(exe).size());
  EXPECT_NE(GetModuleHandleA(nullptr), nullptr);
  EXPECT_EQ(GetModuleFileNameA(GetModuleHandleA(nullptr), exe, sizeof exe), n);

  char small[5];
  EXPECT_EQ(GetModuleFileNameA(nullptr, small, sizeof small), 5u);  // truncated as published
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
  EXPECT_EQ(std::string(small), std::string(exe).substr(0, 4));

  SetLastError(0);
  EXPECT_EQ(LoadLibraryA(nullptr), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_EQ(LoadLibraryA("no_such_module.dll"), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MOD_NOT_FOUND));
  EXPECT_EQ(LoadLibraryA(""), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MOD_NOT_FOUND));
  std::string junk = home.Temp() + "junk.dll";
  std::ofstream(junk) << "not a module";
  EXPECT_EQ(LoadLibraryA(junk.c_str()), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_BAD_EXE_FORMAT));
  EXPECT_EQ(LoadLibraryExA("loader_plain_module.dll", reinterpret_cast<HANDLE>(1), 0), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_EQ(GetModuleHandleA("no_such_module.dll"), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MOD_NOT_FOUND));

  HMODULE bogus = reinterpret_cast<HMODULE>(0x4321);
  EXPECT_FALSE(FreeLibrary(bogus));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_EQ(GetProcAddress(bogus, "Add"), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_EQ(GetModuleFileNameA(bogus, exe, sizeof exe), 0u);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MOD_NOT_FOUND));
}

TEST(Module, ThreadsLoadAndFreeTogether) {
  adtest::TempHome home;
  DllMainLog log(home);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 25; ++i) {
        HMODULE h = LoadLibraryA("loader_dllmain_module.dll");
        if (!h) continue;
        auto add = reinterpret_cast<AddProc>(GetProcAddress(h, "Add"));
        if (add) add(i, i);
        FreeLibrary(h);
      }
    });
  }
  for (auto& t : threads) t.join();
  Lines lines = log.Lines();
  ASSERT_FALSE(lines.empty());
  size_t attaches = 0, detaches = 0;
  for (size_t i = 0; i < lines.size(); ++i) {
    // Attach and detach alternate: never two attaches without a detach between them.
    EXPECT_EQ(lines[i], i % 2 == 0 ? "attach dynamic" : "detach dynamic") << i;
    (lines[i][0] == 'a' ? attaches : detaches)++;
  }
  EXPECT_EQ(attaches, detaches);
}
