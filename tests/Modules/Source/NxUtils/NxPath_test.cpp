#include "NxPath.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "test_home.h"

TEST(NxPathTest, FileNameOfTakesTheLastComponentOfEitherSeparator) {
  EXPECT_EQ(NxFileNameOf("C:\\src\\ZT4_TRACES.cpp"), "ZT4_TRACES.cpp");
  EXPECT_EQ(NxFileNameOf("/work/a\\b/c.cpp"), "c.cpp");
  EXPECT_EQ(NxFileNameOf("plain.cpp"), "plain.cpp");
  EXPECT_EQ(NxFileNameOf("dir\\"), "");
  EXPECT_EQ(NxFileNameOf(NULL), "");
}

TEST(NxPathTest, TrailingBackslashIsExactlyOne) {
  EXPECT_EQ(NxWithTrailingBackslash("C:\\logs"), "C:\\logs\\");
  EXPECT_EQ(NxWithTrailingBackslash("C:\\logs\\\\"), "C:\\logs\\");
  EXPECT_EQ(NxWithTrailingBackslash("/var/log/"), "/var/log\\");
  EXPECT_EQ(NxWithTrailingBackslash("/"), "/");
  EXPECT_EQ(NxWithTrailingBackslash(""), "");
}

TEST(NxPathTest, CreateFoldersMakesEachLevel) {
  adtest::TempHome home;
  std::string nested = home.Root() + "/one\\two/three\\";
  EXPECT_TRUE(NxCreateFolders(nested.c_str()));
  EXPECT_TRUE(std::filesystem::is_directory(home.Root() + "/one/two/three"));
  // Existing folders are fine; a file in the way is not.
  EXPECT_TRUE(NxCreateFolders(nested.c_str()));
  std::string blocked = home.Root() + "/file";
  { std::ofstream(blocked) << "x"; }
  EXPECT_FALSE(NxCreateFolders((blocked + "\\below").c_str()));
  EXPECT_FALSE(NxCreateFolders(""));
  EXPECT_FALSE(NxCreateFolders(NULL));
}

TEST(NxPathTest, ProcessNameAndCurrentFolder) {
  EXPECT_EQ(NxGetProcessName(), "NxPath_test");
  EXPECT_EQ(NxFileNameOf(NxGetProcessFilePath().c_str()), "NxPath_test");
  std::string current = NxGetCurrentFolder();
  ASSERT_FALSE(current.empty());
  EXPECT_EQ(current.back(), '\\');
}
