// Provider libraries: loaded once per process by the DLL name that MAPISVC.INF gives, and kept
// loaded for the life of the process (as MAPI keeps a provider loaded while anything may call it).
//
// Which file a DLL name means. A name with a folder in it ("C:\x\Foo.dll", "/opt/x/Foo.dll") is
// loaded from that folder. A bare name ("ZT4MSProvider.DLL") is looked for in these folders, in
// order: each folder listed in $ARCHIVEDEPOT_PROVIDER_PATH (separated by ':' or ';'), the folder
// of the running program, the folder of the messaging library (the build's or installation's bin
// folder), then the platform's own module search (system folders, current folder). In a folder,
// the name is tried as given, then as its stem + ".so", then "lib" + stem + ".so", each without
// regard to case, so "ZT4MSProvider.DLL" finds ZT4MSProvider.so or zt4msprovider.so.
#pragma once
#include <string>
#include <vector>

#include "mapispi.h"
#include "windows.h"

namespace adm {

struct ProviderLibrary {
  std::string dllName;  // as asked for
  std::string path;     // the file loaded
  HMODULE hModule = nullptr;
  LPMSPROVIDERINIT MSProviderInit = nullptr;  // null when not exported
  LPMSGSERVICEENTRY ServiceEntry = nullptr;   // the "ServiceEntry" export, null when absent
  // Any other export by name (a service may name its entry point in PR_SERVICE_ENTRY_NAME).
  FARPROC Export(const char* name) const;
};

// The library for `dllName`, loading it the first time. The object lives as long as the process.
// MAPI_E_INVALID_PARAMETER for an empty name, MAPI_E_NOT_FOUND when no file is found or it does
// not load.
HRESULT LoadProviderLibrary(const std::string& dllName, const ProviderLibrary** lppLibrary);

// The folders searched before the platform's own search, in order.
std::vector<std::string> ProviderSearchFolders();

}  // namespace adm
