// InitTraces decides once per process, so each case runs in a process of its own.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "ZT4Globals.h"
#include "adplatform.h"
#include "adplatform_com.h"
#include "test_home.h"

namespace {

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

std::map<std::string, std::string> ReadReport(const std::string& path) {
  std::map<std::string, std::string> values;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    size_t eq = line.find('=');
    if (eq != std::string::npos) values[line.substr(0, eq)] = line.substr(eq + 1);
  }
  return values;
}

std::vector<std::string> LogFilesUnder(const std::string& root) {
  std::vector<std::string> files;
  for (auto& entry : std::filesystem::recursive_directory_iterator(root))
    if (entry.path().extension() == ".log") files.push_back(entry.path().string());
  return files;
}

std::string ModulePath() { return adtest::BinPath("testprovider_module.so"); }

class ScopedEnv {
 public:
  ScopedEnv(const char* name, const std::string& value) : m_name(name) { setenv(name, value.c_str(), 1); }
  ~ScopedEnv() { unsetenv(m_name); }

 private:
  const char* m_name;
};

std::map<std::string, std::string> RunTraces(const adtest::TempHome& home, const std::string& first,
                                             const std::string& second, const std::string& lateModule = "") {
  std::string report = home.Root() + "/report.txt";
  std::vector<std::string> args = {first, second, report};
  if (!lateModule.empty()) args.push_back(lateModule);
  EXPECT_EQ(adtest::RunChild("traces_child", args), 0);
  return ReadReport(report);
}

}  // namespace

TEST(TracesProcessTest, ProviderConfigurationSetsUpTheFileLog) {
  adtest::TempHome home;
  ASSERT_EQ(adp::RegisterInprocServer(CLSID_ZT4DataProvider, ModulePath().c_str()), S_OK);
  const std::string folder = home.Root() + "/provider logs";
  ScopedEnv f("ADTEST_LOG_FOLDER", folder), l("ADTEST_LOG_LEVEL", "2"), s("ADTEST_LOG_SIZE", "3"),
      m("ADTEST_LOG_MAXFILES", "4");
  // Logon's flags first; the installer's later call changes nothing.
  auto report = RunTraces(home, "18", "4");
  EXPECT_EQ(report["flags"], "18");
  EXPECT_EQ(report["initialized"], "1");
  EXPECT_EQ(report["path"], folder + "\\TQProvider.log");
  EXPECT_EQ(report["limit"], std::to_string(3 << 20));
  EXPECT_EQ(report["maxfiles"], "4");

  std::string text = ReadAll(folder + "/TQProvider.log");
  EXPECT_NE(text.find("* Version    : 1.0.0 "), std::string::npos);
  EXPECT_NE(text.find("* Product    : ArchiveDepot "), std::string::npos);
  const std::string stars(82, '*');
  const std::string banner = "\r\n\r\n\t\t\t" + stars + "\r\n\t\t\t " + adtest::BinPath("traces_child") +
                             " : Initialize Logger\r\n\t\t\t OutlookAddinClient Version : 1.0.0\r\n\t\t\t" + stars + "\r\n";
  EXPECT_NE(text.find(banner), std::string::npos) << text;
  EXPECT_NE(text.find("main(26) - traces_child.cpp child error line\r\n"), std::string::npos) << text;
  EXPECT_EQ(text.find("child info line"), std::string::npos);
  EXPECT_NE(text.find("TracedWork(16) - traces_child.cpp Function entry point\r\n"), std::string::npos);
  EXPECT_NE(text.find("TracedWork(16) - traces_child.cpp Function exit point\r\n"), std::string::npos);
  EXPECT_EQ(LogFilesUnder(home.Root()).size(), 1u);
}

TEST(TracesProcessTest, InstallerLogGoesToTheKnownFolder) {
  adtest::TempHome home;
  auto report = RunTraces(home, "4", "2");
  // "4 alone" keeps no trace flags, and the later file request is ignored.
  EXPECT_EQ(report["flags"], "0");
  EXPECT_EQ(report["limit"], std::to_string(5 << 20));
  EXPECT_EQ(report["maxfiles"], "1");
  EXPECT_EQ(report["provider"], "0");
  std::string folder = home.Home() + "/user/AppData/Local/Larkmoor Systems/Nimbrel/LogFiles";
  std::string text = ReadAll(folder + "/TQProviderRegister.log");
  EXPECT_NE(text.find(" : Initialize Logger\r\n"), std::string::npos);
  EXPECT_NE(text.find("child error line"), std::string::npos);
  EXPECT_NE(text.find("child info line"), std::string::npos);
  EXPECT_EQ(LogFilesUnder(home.Root()).size(), 1u);
}

TEST(TracesProcessTest, NoProviderMeansNoFileLogForTheLifeOfTheProcess) {
  adtest::TempHome home;
  // The provider becomes available between the calls; the first call has decided already.
  auto report = RunTraces(home, "2", "2", ModulePath());
  EXPECT_EQ(report["flags"], "2");
  EXPECT_EQ(report["initialized"], "0");
  EXPECT_EQ(report["provider"], "1");
  EXPECT_TRUE(LogFilesUnder(home.Root()).empty());
}

TEST(TracesProcessTest, ProviderWithoutUsableConfigurationGivesNoLog) {
  adtest::TempHome home;
  ASSERT_EQ(adp::RegisterInprocServer(CLSID_ZT4DataProvider, ModulePath().c_str()), S_OK);
  ScopedEnv f("ADTEST_LOG_FOLDER", home.Root() + "/logs");
  {
    ScopedEnv noConfig("ADTEST_NO_CONFIG", "1");
    auto report = RunTraces(home, "2", "4");
    EXPECT_EQ(report["initialized"], "0");
    EXPECT_EQ(report["provider"], "1");
  }
  {
    ScopedEnv fails("ADTEST_CONFIG_FAILS", "1");
    auto report = RunTraces(home, "18", "4");
    EXPECT_EQ(report["initialized"], "0");
  }
  EXPECT_TRUE(LogFilesUnder(home.Root()).empty());
}

TEST(TracesProcessTest, ConsoleFlagTracesToStandardOutput) {
  adtest::TempHome home;
  std::string report = home.Root() + "/report.txt";
  std::string command = adtest::BinPath("traces_child") + " 3 2 '" + report + "'";
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::string out;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) out.append(buffer, n);
  ASSERT_EQ(pclose(pipe), 0);
  EXPECT_EQ(ReadReport(report)["flags"], "3");
  EXPECT_NE(out.find("main(27) - traces_child.cpp child info line\r\n"), std::string::npos) << out;
  EXPECT_NE(out.find("TracedWork(16) - traces_child.cpp Function exit point\r\n"), std::string::npos);
  EXPECT_TRUE(LogFilesUnder(home.Root()).empty());
}
