// Controls of the user-interface stand-in that have no Win32 counterpart: where message boxes
// are reported, the string tables behind LoadStringW, and the default locale.
#pragma once
#include <cstddef>
#include <functional>
#include <string>
#include "winnt.h"

namespace adp {

// Receives the text and caption of every MessageBoxW/MessageBoxA (the logger registers one).
// An empty function removes the sink. Called on the caller's thread, outside any lock of the
// stand-in; a sink that is replaced may still finish a call already under way on another thread.
using MessageBoxSink = std::function<void(const std::u16string& text, const std::u16string& caption)>;
void SetMessageBoxSink(MessageBoxSink sink);

// String tables, keyed by module (the HINSTANCE the module's process-attach hook receives; NULL
// is the program itself), language and string id. A module registers its tables when it loads
// and unregisters them when it unloads. Registering an id again replaces its text; a NULL text
// removes it. Pointers that LoadStringW handed out stay valid until the module unregisters.
struct StringResource {
  UINT id;
  const char16_t* text;
};
void RegisterStringTable(HINSTANCE module, LANGID lang, UINT id, const char16_t* text);
void RegisterStringTable(HINSTANCE module, LANGID lang, const StringResource* entries, size_t count);
void UnregisterStringTables(HINSTANCE module);

// Default locale of the process: GetUserDefaultLCID, GetSystemDefaultLCID, the default UI
// language and the thread locale of threads that set none. 0 returns to $ARCHIVEDEPOT_LCID
// (decimal or 0x-hex, read at each call) and, without it, to 1033 (English, United States).
void SetDefaultLCID(LCID lcid);

}  // namespace adp
