// Several processes writing one log: lines may be lost to the single-try lock, never mixed.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>

#include "NxLogger.h"
#include "adplatform.h"
#include "logger_fixture.h"
#include "test_home.h"

TEST(NxLoggerProcessesTest, EveryLineOfEveryWriterIsWhole) {
  adtest::TempHome home;
  const std::string folder = home.Root() + "/shared";
  adtest::ChildProcess first("logger_child", {folder, "a", "300"});
  adtest::ChildProcess second("logger_child", {folder, "b", "300"});
  CNxLogger logger;
  std::string strError;
  ASSERT_TRUE(logger.Initialize(strError, "Shared", folder.c_str(), 5, FALSE, FALSE));
  const std::string padding(300, 'p');
  for (int i = 0; i < 300; ++i) logger.Log(3, "Child", 1, "c.cpp", "child p line %d %s", i, padding.c_str());
  ASSERT_EQ(first.Wait(), 0);
  ASSERT_EQ(second.Wait(), 0);

  std::string text = nxtest::ReadAll(folder + "/Shared.log");
  std::vector<std::string> all = nxtest::SplitLines(text);
  ASSERT_GT(all.size(), 11u);
  // One header, at the top: only one writer found the file missing.
  EXPECT_EQ(all[0].find_first_not_of('*'), std::string::npos);
  size_t cFrames = 0;
  for (const std::string& l : all) cFrames += (!l.empty() && l.find_first_not_of('*') == std::string::npos) ? 1 : 0;
  EXPECT_EQ(cFrames, 2u);
  EXPECT_EQ(text.substr(text.size() - 2), "\r\n");

  std::map<char, int> cByWriter;
  for (const std::string& l : nxtest::BodyLines(folder + "/Shared.log")) {
    size_t pos = l.find(" Child(1) - c.cpp child ");
    ASSERT_NE(pos, std::string::npos) << l;
    char tag = l[pos + 24];
    ASSERT_TRUE(tag == 'a' || tag == 'b' || tag == 'p') << l;
    ASSERT_EQ(l.substr(l.size() - 301), " " + std::string(300, tag)) << l;
    ++cByWriter[tag];
  }
  int cTotal = 0;
  for (auto& [tag, count] : cByWriter) {
    EXPECT_LE(count, 300) << tag;
    cTotal += count;
  }
  EXPECT_GT(cTotal, 0);
}

TEST(NxLoggerProcessesTest, FailuresGoToStandardErrorOncePerHour) {
  adtest::TempHome home(10000);
  // A file where the log folder should be: every open fails.
  const std::string blocked = home.Root() + "/blocked";
  { std::ofstream(blocked) << "not a folder"; }
  std::string command = adtest::BinPath("logger_child") + " '" + blocked + "' x 3 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::string out;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) out.append(buffer, n);
  ASSERT_EQ(pclose(pipe), 0);
  std::vector<std::string> lines;
  std::stringstream ss(out);
  for (std::string line; std::getline(ss, line);) lines.push_back(line);
  ASSERT_EQ(lines.size(), 1u) << out;
  EXPECT_NE(lines[0].find(":Shared:Failed open log file [" + blocked + "\\Shared.log], Module[Shared], Error "),
            std::string::npos)
      << out;
  EXPECT_NE(lines[0].find(". Make sure this log file is not locked and has full permissions. Some of the log lines "
                          "will not be logged because of this error"),
            std::string::npos);
}
