// Loads the DllMain test module and exits, freeing it first only when told "free": the test
// reads the module's log to see the exit-time detach.
#include <cstring>

#include "windows.h"

int main(int argc, char** argv) {
  HMODULE h = LoadLibraryA("loader_dllmain_module.dll");
  if (!h) return 2;
  if (argc > 1 && std::strcmp(argv[1], "free") == 0 && !FreeLibrary(h)) return 3;
  return 0;
}
