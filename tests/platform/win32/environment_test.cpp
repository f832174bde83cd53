#include <windows.h>

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

TEST(EnvironmentTest, GetEnvironmentVariableFollowsThePublishedSizes) {
  ASSERT_TRUE(SetEnvironmentVariableA("ADTEST_ENV_VALUE", "hello"));
  char buffer[16] = {0};
  EXPECT_EQ(GetEnvironmentVariableA("ADTEST_ENV_VALUE", buffer, sizeof(buffer)), 5u);
  EXPECT_STREQ(buffer, "hello");
  // Too small: the size needed with the NUL, buffer untouched.
  char small[5] = {'x', 'x', 'x', 'x', 'x'};
  EXPECT_EQ(GetEnvironmentVariableA("ADTEST_ENV_VALUE", small, sizeof(small)), 6u);
  EXPECT_EQ(small[0], 'x');
  EXPECT_EQ(GetEnvironmentVariableA("ADTEST_ENV_VALUE", NULL, 0), 6u);

  ASSERT_TRUE(SetEnvironmentVariableA("ADTEST_ENV_VALUE", ""));
  SetLastError(12345);
  EXPECT_EQ(GetEnvironmentVariableA("ADTEST_ENV_VALUE", buffer, sizeof(buffer)), 0u);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SUCCESS));

  ASSERT_TRUE(SetEnvironmentVariableA("ADTEST_ENV_VALUE", NULL));
  EXPECT_EQ(GetEnvironmentVariableA("ADTEST_ENV_VALUE", buffer, sizeof(buffer)), 0u);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ENVVAR_NOT_FOUND));
  EXPECT_FALSE(SetEnvironmentVariableA("A=B", "x"));
  EXPECT_FALSE(SetEnvironmentVariableA("", "x"));
  EXPECT_EQ(GetEnvironmentVariableA(NULL, buffer, sizeof(buffer)), 0u);
}

TEST(EnvironmentTest, StandardMachineVariablesAlwaysHaveValues) {
  unsetenv("COMPUTERNAME");
  unsetenv("USERNAME");
  char host[256] = {0};
  ASSERT_EQ(gethostname(host, sizeof(host) - 1), 0);
  char buffer[256] = {0};
  ASSERT_GT(GetEnvironmentVariableA("COMPUTERNAME", buffer, sizeof(buffer)), 0u);
  EXPECT_EQ(std::string(buffer), host);
  EXPECT_GT(GetEnvironmentVariableA("USERNAME", buffer, sizeof(buffer)), 0u);
  EXPECT_GT(GetEnvironmentVariableA("PROCESSOR_ARCHITECTURE", buffer, sizeof(buffer)), 0u);
  EXPECT_GT(GetEnvironmentVariableA("os", buffer, sizeof(buffer)), 0u);
  // The environment's own value wins.
  setenv("COMPUTERNAME", "BUILDHOST", 1);
  ASSERT_EQ(GetEnvironmentVariableA("COMPUTERNAME", buffer, sizeof(buffer)), 9u);
  EXPECT_STREQ(buffer, "BUILDHOST");
  unsetenv("COMPUTERNAME");
}
