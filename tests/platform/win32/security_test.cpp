#include <windows.h>

#include <gtest/gtest.h>

TEST(SecurityTest, NullDaclDescriptorOpensANamedMutexForEveryone) {
  SECURITY_DESCRIPTOR sd;
  ASSERT_TRUE(InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION));
  EXPECT_TRUE(IsValidSecurityDescriptor(&sd));
  ASSERT_TRUE(SetSecurityDescriptorDacl(&sd, TRUE, NULL, FALSE));
  EXPECT_EQ(sd.Control & SE_DACL_PRESENT, SE_DACL_PRESENT);
  EXPECT_EQ(sd.Dacl, nullptr);
  ASSERT_TRUE(SetSecurityDescriptorDacl(&sd, FALSE, NULL, FALSE));
  EXPECT_EQ(sd.Control & SE_DACL_PRESENT, 0);

  SECURITY_ATTRIBUTES sa = {sizeof(sa), &sd, FALSE};
  HANDLE hMutex = CreateMutexA(&sa, FALSE, "Global\\ADTestSecurityMutex");
  ASSERT_NE(hMutex, nullptr);
  EXPECT_EQ(WaitForSingleObject(hMutex, 0), static_cast<DWORD>(WAIT_OBJECT_0));
  EXPECT_TRUE(ReleaseMutex(hMutex));
  CloseHandle(hMutex);
}

TEST(SecurityTest, BadDescriptorsAreRefused) {
  SECURITY_DESCRIPTOR sd;
  EXPECT_FALSE(InitializeSecurityDescriptor(&sd, 2));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_UNKNOWN_REVISION));
  EXPECT_FALSE(InitializeSecurityDescriptor(NULL, SECURITY_DESCRIPTOR_REVISION));
  SECURITY_DESCRIPTOR blank = {};
  EXPECT_FALSE(SetSecurityDescriptorDacl(&blank, TRUE, NULL, FALSE));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_SECURITY_DESCR));
}
