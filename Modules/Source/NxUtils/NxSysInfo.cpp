#include "NxSysInfo.h"

#include "NxPath.h"

namespace {

const char kUnknown[] = "Unknown";

// Windows sets these for every process; the names are the machine's facts.
std::string EnvironmentValue(LPCSTR pszName) {
  char szValue[256] = {0};
  DWORD cch = GetEnvironmentVariableA(pszName, szValue, sizeof(szValue));
  if (cch == 0 || cch >= sizeof(szValue)) return kUnknown;
  return std::string(szValue, cch);
}

}  // namespace

NxMachineFacts NxGetMachineFacts() {
  NxMachineFacts facts;
  facts.strComputerName = EnvironmentValue("COMPUTERNAME");
  facts.strUserName = EnvironmentValue("USERNAME");
  facts.strUserDomain = EnvironmentValue("USERDOMAIN");
  facts.strArchitecture = EnvironmentValue("PROCESSOR_ARCHITECTURE");
  facts.strOsType = EnvironmentValue("OS");
  // Addresses would need the sockets API, which nothing else here uses.
  facts.strIpAddresses = kUnknown;
  facts.strModule = NxGetProcessFilePath();
  if (facts.strModule.empty()) facts.strModule = kUnknown;
  facts.strLibrary = "NxUtils";
  facts.strLibraryBuild = __DATE__ " " __TIME__;
  facts.ulProcessorBits = static_cast<ULONG>(sizeof(void*) * 8);
  return facts;
}
