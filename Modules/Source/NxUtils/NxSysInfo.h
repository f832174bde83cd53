// Facts about the machine and the process, for the header block at the top of each log file.
#pragma once
#include <windows.h>
#include <string>

struct NxMachineFacts {
  std::string strComputerName;
  std::string strUserName;
  std::string strUserDomain;
  std::string strArchitecture;  // "AMD64", "x86", "ARM64", ...
  std::string strIpAddresses;   // blank separated
  std::string strModule;        // full path of the running program
  std::string strLibrary;       // this library's name and build stamp
  std::string strLibraryBuild;
  std::string strOsType;
  ULONG ulProcessorBits = 0;
};

// Anything the system can't tell is "Unknown".
NxMachineFacts NxGetMachineFacts();
