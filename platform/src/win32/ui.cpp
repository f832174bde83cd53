// User interface without windows: MessageBoxW reports and answers at once; LoadStringW reads
// string tables that modules register per language.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "adplatform.h"
#include "adplatform_ui.h"
#include "errhandlingapi.h"
#include "libloaderapi.h"
#include "winerror.h"
#include "winnls.h"
#include "winuser.h"

namespace {

// ---- Message boxes ----

std::mutex& SinkLock() {  // guards Sink() only; never held while the sink runs
  static std::mutex lock;
  return lock;
}

adp::MessageBoxSink& Sink() {
  static auto* sink = new adp::MessageBoxSink;  // outlives static destructors
  return *sink;
}

void WriteAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

void Report(const std::u16string& text, const std::u16string& caption) {
  const int savedErrno = errno;
  WriteAll(STDERR_FILENO, adp::Utf16ToUtf8(caption.c_str()) + ": " + adp::Utf16ToUtf8(text.c_str()) + "\n");
  errno = savedErrno;
  adp::MessageBoxSink sink;
  {
    std::lock_guard<std::mutex> guard(SinkLock());
    sink = Sink();
  }
  if (!sink) return;
  try {
    sink(text, caption);
  } catch (...) {
    // A failing sink must not turn a message box into a crash.
  }
}

// The answer of the default button; Retry and Try Again would only repeat what failed, so the
// last button of the set answers instead.
int DefaultAnswer(UINT type) {
  static const int kButtons[7][3] = {{IDOK, 0, 0},          {IDOK, IDCANCEL, 0},   {IDABORT, IDRETRY, IDIGNORE},
                                     {IDYES, IDNO, IDCANCEL}, {IDYES, IDNO, 0},      {IDRETRY, IDCANCEL, 0},
                                     {IDCANCEL, IDTRYAGAIN, IDCONTINUE}};
  static const unsigned kCounts[7] = {1, 2, 3, 3, 2, 2, 3};
  const unsigned set = type & MB_TYPEMASK;
  unsigned index = (type & MB_DEFMASK) >> 8;
  if (index >= kCounts[set]) index = 0;
  int answer = kButtons[set][index];
  if (answer == IDRETRY || answer == IDTRYAGAIN) answer = kButtons[set][kCounts[set] - 1];
  return answer;
}

// ---- String tables ----

struct ModuleStrings {
  std::map<UINT, std::map<LANGID, std::unique_ptr<std::u16string>>> byId;
  std::vector<std::unique_ptr<std::u16string>> retired;  // replaced texts, still pointed to
};

std::mutex& TableLock() {  // guards Tables(); a leaf lock
  static std::mutex lock;
  return lock;
}

std::map<HINSTANCE, ModuleStrings>& Tables() {
  static auto* tables = new std::map<HINSTANCE, ModuleStrings>;  // outlives static destructors
  return *tables;
}

void StoreLocked(ModuleStrings& module, LANGID lang, UINT id, const char16_t* text) {
  auto& langs = module.byId[id];
  auto it = langs.find(lang);
  if (it != langs.end()) {
    module.retired.push_back(std::move(it->second));
    langs.erase(it);
  }
  if (text) langs.emplace(lang, std::make_unique<std::u16string>(text));
  if (langs.empty()) module.byId.erase(id);
}

using Languages = std::map<LANGID, std::unique_ptr<std::u16string>>;

const std::u16string* Exact(const Languages& langs, LANGID lang) {
  auto it = langs.find(lang);
  return it != langs.end() && !it->second->empty() ? it->second.get() : nullptr;
}

const std::u16string* AnyOfPrimary(const Languages& langs, WORD primary) {
  for (const auto& [lang, text] : langs)
    if (PRIMARYLANGID(lang) == primary && !text->empty()) return text.get();
  return nullptr;
}

// The resource loader's order: the language itself, its neutral sublanguage, any of its
// sublanguages, the neutral languages, English (United States), any English, anything.
const std::u16string* Choose(const Languages& langs, LANGID ui) {
  const WORD primary = PRIMARYLANGID(ui);
  if (const std::u16string* text = Exact(langs, ui)) return text;
  if (const std::u16string* text = Exact(langs, static_cast<LANGID>(MAKELANGID(primary, SUBLANG_NEUTRAL)))) return text;
  if (const std::u16string* text = AnyOfPrimary(langs, primary)) return text;
  static const LANGID kNeutral[] = {MAKELANGID(LANG_NEUTRAL, SUBLANG_NEUTRAL), LANG_USER_DEFAULT, LANG_SYSTEM_DEFAULT};
  for (LANGID neutral : kNeutral)
    if (const std::u16string* text = Exact(langs, neutral)) return text;
  if (const std::u16string* text = Exact(langs, static_cast<LANGID>(MAKELANGID(LANG_ENGLISH, SUBLANG_DEFAULT))))
    return text;
  if (const std::u16string* text = AnyOfPrimary(langs, LANG_ENGLISH)) return text;
  for (const auto& [lang, text] : langs)
    if (!text->empty()) return text.get();
  return nullptr;
}

// The string for (module, id) in the thread's UI language; sets the error when missing.
const std::u16string* FindLocked(HINSTANCE module, UINT id) {
  auto table = Tables().find(module);
  if (table == Tables().end()) {
    SetLastError(ERROR_RESOURCE_TYPE_NOT_FOUND);
    return nullptr;
  }
  auto entry = table->second.byId.find(id);
  const std::u16string* text = entry == table->second.byId.end() ? nullptr : Choose(entry->second, GetThreadUILanguage());
  if (!text) SetLastError(ERROR_RESOURCE_NAME_NOT_FOUND);
  return text;
}

// The executable's tables are kept under NULL, so its handle and NULL find the same strings.
// Asked before the table lock is taken: the loader lock is never taken inside it.
HINSTANCE TableKey(HINSTANCE module) { return module && module == GetModuleHandleA(nullptr) ? nullptr : module; }

int Fail(DWORD error) {
  SetLastError(error);
  return 0;
}

}  // namespace

namespace adp {

void SetMessageBoxSink(MessageBoxSink sink) {
  std::lock_guard<std::mutex> guard(SinkLock());
  Sink() = std::move(sink);
}

void RegisterStringTable(HINSTANCE module, LANGID lang, UINT id, const char16_t* text) {
  module = TableKey(module);
  std::lock_guard<std::mutex> guard(TableLock());
  StoreLocked(Tables()[module], lang, id, text);
}

void RegisterStringTable(HINSTANCE module, LANGID lang, const StringResource* entries, size_t count) {
  module = TableKey(module);
  std::lock_guard<std::mutex> guard(TableLock());
  ModuleStrings& table = Tables()[module];
  for (size_t i = 0; entries && i < count; ++i) StoreLocked(table, lang, entries[i].id, entries[i].text);
}

void UnregisterStringTables(HINSTANCE module) {
  module = TableKey(module);
  std::lock_guard<std::mutex> guard(TableLock());
  Tables().erase(module);
}

}  // namespace adp

extern "C" {

int MessageBoxW(HWND hWnd, LPCWSTR lpText, LPCWSTR lpCaption, UINT uType) {
  if ((uType & MB_TYPEMASK) > MB_CANCELTRYCONTINUE) return Fail(ERROR_INVALID_PARAMETER);
  try {
    Report(lpText ? std::u16string(lpText) : std::u16string(), lpCaption ? std::u16string(lpCaption) : u"Error");
  } catch (...) {
    return Fail(ERROR_NOT_ENOUGH_MEMORY);
  }
  return DefaultAnswer(uType);
}

int MessageBoxA(HWND hWnd, LPCSTR lpText, LPCSTR lpCaption, UINT uType) {
  try {
    std::u16string text = adp::Utf8ToUtf16(lpText ? lpText : "");
    std::u16string caption = adp::Utf8ToUtf16(lpCaption ? lpCaption : "Error");
    return MessageBoxW(hWnd, text.c_str(), caption.c_str(), uType);
  } catch (...) {
    return Fail(ERROR_NOT_ENOUGH_MEMORY);
  }
}

int MessageBoxExW(HWND hWnd, LPCWSTR lpText, LPCWSTR lpCaption, UINT uType, WORD) {
  return MessageBoxW(hWnd, lpText, lpCaption, uType);
}

int MessageBoxExA(HWND hWnd, LPCSTR lpText, LPCSTR lpCaption, UINT uType, WORD) {
  return MessageBoxA(hWnd, lpText, lpCaption, uType);
}

int LoadStringW(HINSTANCE hInstance, UINT uID, LPWSTR lpBuffer, int cchBufferMax) {
  if (!lpBuffer || cchBufferMax < 0) return Fail(ERROR_INVALID_PARAMETER);
  hInstance = TableKey(hInstance);
  std::lock_guard<std::mutex> guard(TableLock());
  const std::u16string* text = FindLocked(hInstance, uID);
  if (!text) return 0;
  if (cchBufferMax == 0) {
    const WCHAR* resource = text->c_str();
    std::memcpy(lpBuffer, &resource, sizeof resource);  // the published read-only pointer form
    return static_cast<int>(text->size());
  }
  size_t n = text->size() < static_cast<size_t>(cchBufferMax) ? text->size() : static_cast<size_t>(cchBufferMax) - 1;
  std::memcpy(lpBuffer, text->data(), n * sizeof(WCHAR));
  lpBuffer[n] = 0;
  return static_cast<int>(n);
}

int LoadStringA(HINSTANCE hInstance, UINT uID, LPSTR lpBuffer, int cchBufferMax) {
  if (!lpBuffer || cchBufferMax <= 0) return Fail(ERROR_INVALID_PARAMETER);
  std::string text;
  hInstance = TableKey(hInstance);
  {
    std::lock_guard<std::mutex> guard(TableLock());
    const std::u16string* found = FindLocked(hInstance, uID);
    if (!found) return 0;
    text = adp::Utf16ToUtf8(found->c_str(), found->size());
  }
  size_t n = text.size();
  if (n >= static_cast<size_t>(cchBufferMax)) {
    n = static_cast<size_t>(cchBufferMax) - 1;
    while (n > 0 && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80) --n;
  }
  std::memcpy(lpBuffer, text.data(), n);
  lpBuffer[n] = '\0';
  return static_cast<int>(n);
}

}  // extern "C"
