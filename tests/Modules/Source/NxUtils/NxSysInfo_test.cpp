#include "NxSysInfo.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include "test_home.h"

TEST(NxSysInfoTest, FactsComeFromTheMachineAndTheEnvironment) {
  unsetenv("COMPUTERNAME");
  char host[256] = {0};
  ASSERT_EQ(gethostname(host, sizeof(host) - 1), 0);
  NxMachineFacts facts = NxGetMachineFacts();
  EXPECT_EQ(facts.strComputerName, host);
  EXPECT_FALSE(facts.strUserName.empty());
  EXPECT_NE(facts.strUserName, "Unknown");
  EXPECT_EQ(facts.strModule, adtest::BinPath("NxSysInfo_test"));
  EXPECT_EQ(facts.ulProcessorBits, sizeof(void*) * 8);
  EXPECT_EQ(facts.strLibrary, "NxUtils");

  setenv("COMPUTERNAME", "ARCHIVE-HOST", 1);
  setenv("USERDOMAIN", "CORP", 1);
  facts = NxGetMachineFacts();
  EXPECT_EQ(facts.strComputerName, "ARCHIVE-HOST");
  EXPECT_EQ(facts.strUserDomain, "CORP");
  unsetenv("COMPUTERNAME");
  unsetenv("USERDOMAIN");
}
