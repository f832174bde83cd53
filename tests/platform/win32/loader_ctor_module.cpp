// A module whose static constructor asks the loader for its own handle, as generated string
// resources do, and registers a string under it.
#include "adplatform_ui.h"
#include "windows.h"

namespace {

const int g_marker = 42;

struct Constructed {
  HMODULE handle = nullptr;
  BOOL found = FALSE;
  Constructed() {
    found = GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                               reinterpret_cast<LPCSTR>(&g_marker), &handle);
    adp::RegisterStringTable(handle, 0x0409, 1, u"registered while loading");
  }
  ~Constructed() { adp::UnregisterStringTables(handle); }
} g_constructed;

}  // namespace

extern "C" HMODULE ConstructedHandle() { return g_constructed.found ? g_constructed.handle : nullptr; }
extern "C" const void* MarkerAddress() { return &g_marker; }
