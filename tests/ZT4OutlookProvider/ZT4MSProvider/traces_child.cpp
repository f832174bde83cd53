// One process's life of tracing: traces_child <first flags> <second flags> <report file>
// [<module to register between the calls>]. Writes what the logger ended up as to the report.
// TracesProcess_test expects the log calls on lines 16, 26 and 27.
#include <windows.h>
#include <objbase.h>

#include <cstdlib>
#include <fstream>

#include "ZT4Globals.h"
#include "ZT4_TRACES.h"
#include "adplatform_com.h"

namespace {

void TracedWork() { ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN); }

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) return 2;
  CoInitializeEx(NULL, COINIT_MULTITHREADED);
  InitTraces(static_cast<ULONG>(std::strtoul(argv[1], nullptr, 10)));
  if (argc > 4 && FAILED(adp::RegisterInprocServer(CLSID_ZT4DataProvider, argv[4]))) return 3;
  InitTraces(static_cast<ULONG>(std::strtoul(argv[2], nullptr, 10)));
  ZT4_LOG(ZT4_LEVEL_ERROR, "child error line");
  ZT4_LOG(ZT4_LEVEL_INFO, "child info line");
  TracedWork();

  CNxLogger& logger = GetTraceLogger();
  std::ofstream report(argv[3]);
  report << "flags=" << GetTraceFlags() << "\n"
         << "initialized=" << (logger.IsInitialized() ? 1 : 0) << "\n"
         << "path=" << logger.GetLogPath() << "\n"
         << "limit=" << logger.GetSizeLimit() << "\n"
         << "maxfiles=" << logger.GetMaxFiles() << "\n"
         << "provider=" << (GetDataProvider() ? 1 : 0) << "\n";
  return report ? 0 : 4;
}
