#include "ZT4Globals.h"

#include <gtest/gtest.h>

#include "adplatform_com.h"
#include "trace_fixture.h"

TEST(ZT4GlobalsTest, DataProviderIsCreatedOnceAndRetriedOnlyByTheNextCall) {
  zt4test::TraceLog log(5);
  ASSERT_TRUE(SUCCEEDED(CoInitializeEx(NULL, COINIT_MULTITHREADED)));

  // Nothing registered: NULL, logged, and nothing kept.
  EXPECT_EQ(GetDataProvider(), nullptr);
  EXPECT_TRUE(log.Has(" Provider object is NULL, need to create it\r\n"));
  EXPECT_TRUE(log.Has(" CoCreateInstance Failed:{0}\r\n"));

  ASSERT_EQ(adp::RegisterInprocServer(CLSID_ZT4DataProvider, adtest::BinPath("testprovider_module.so").c_str()), S_OK);
  IZT4DataProvider* pProvider = GetDataProvider();
  ASSERT_NE(pProvider, nullptr);
  IZT4ProviderConfig* pConfig = NULL;
  EXPECT_EQ(pProvider->raw_GetConfigurationParams(&pConfig), S_OK);
  ASSERT_NE(pConfig, nullptr);
  pConfig->Release();

  // Kept for the process: no second creation, even when the registration goes away.
  std::string before = log.Text();
  ASSERT_EQ(adp::UnregisterInprocServer(CLSID_ZT4DataProvider), S_OK);
  EXPECT_EQ(GetDataProvider(), pProvider);
  EXPECT_EQ(log.Text(), before);
  CoUninitialize();
}
