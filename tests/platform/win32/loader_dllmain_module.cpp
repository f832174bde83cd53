// A module with a DllMain for the loader tests. Each DllMain call is appended to the file named
// by $ADTEST_DLLMAIN_LOG ("attach dynamic", "detach exit", ...); $ADTEST_DLLMAIN_REFUSE makes the
// attach fail. Plain C-style code, so the module really unloads on its last FreeLibrary.
#include <cstdio>
#include <cstdlib>

#include "windows.h"

namespace {

HINSTANCE g_instance = nullptr;

void Log(const char* event, LPVOID reserved) {
  const char* path = std::getenv("ADTEST_DLLMAIN_LOG");
  if (!path) return;
  if (FILE* f = std::fopen(path, "a")) {
    std::fprintf(f, "%s %s\n", event, reserved ? "exit" : "dynamic");
    std::fclose(f);
  }
}

}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE hinstDLL, DWORD fdwReason, LPVOID lpvReserved) {
  if (fdwReason == DLL_PROCESS_ATTACH) {
    g_instance = hinstDLL;
    Log("attach", lpvReserved);
    DisableThreadLibraryCalls(hinstDLL);
    return std::getenv("ADTEST_DLLMAIN_REFUSE") ? FALSE : TRUE;
  }
  if (fdwReason == DLL_PROCESS_DETACH) Log("detach", lpvReserved);
  return TRUE;
}

extern "C" HINSTANCE AttachedInstance() { return g_instance; }

extern "C" int Add(int a, int b) { return a + b; }
