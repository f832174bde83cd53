// Modules: LoadLibraryA and friends over dlopen, with DllMain called at attach and detach.
// The rules for names, search folders and DllMain are told in libloaderapi.h.
#include <dirent.h>
#include <dlfcn.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "adplatform.h"
#include "win32/fsutil.h"

namespace adp {
namespace {

using DllMainProc = BOOL(WINAPI*)(HINSTANCE, DWORD, LPVOID);

struct Module {
  std::string path;
  int loads = 0;        // LoadLibraryA references
  bool pinned = false;  // not loaded by LoadLibraryA: never unloaded
  DllMainProc dllMain = nullptr;
  uint64_t loadId = 0;  // tells an exit-time detach which load it belongs to
};

struct Loader {
  // The loader lock. Recursive, because DllMain may call back into the loader.
  std::recursive_mutex lock;
  std::unordered_map<void*, Module> modules;  // by dlopen handle (the HMODULE)
  std::vector<uint64_t> exitDetach;           // load ids, in the order of their exit handlers
  uint64_t nextLoadId = 1;
  void* mainHandle = nullptr;
};

Loader& TheLoader() {
  static Loader* loader = new Loader;  // never destroyed: exit handlers still use it
  return *loader;
}

std::string ExecutablePath() {
  char buf[PATH_MAX];
  ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
  return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
}

std::string PlatformLibraryFolder() {
  Dl_info info;
  if (!::dladdr(reinterpret_cast<void*>(&PlatformLibraryFolder), &info) || !info.dli_fname) return std::string();
  char resolved[PATH_MAX];
  return ::realpath(info.dli_fname, resolved) ? DirName(resolved) : std::string();
}

std::vector<std::string> SearchFolders() {
  std::vector<std::string> folders;
  auto add = [&folders](const std::string& dir) {
    if (dir.empty()) return;
    for (const auto& f : folders) {
      if (f == dir) return;
    }
    folders.push_back(dir);
  };
  add(DirName(ExecutablePath()));
  add(PlatformLibraryFolder());
  add(SystemDirectory());
  add(WindowsDirectory());
  add(".");
  return folders;
}

bool EndsWithNoCase(const std::string& s, const std::string& tail) {
  return s.size() >= tail.size() && EqualsNoCase(s.substr(s.size() - tail.size()), tail);
}

// "Foo.DLL" -> Foo.DLL, Foo.so, libFoo.so; "Foo" -> as "Foo.dll"; "Foo." -> Foo only.
std::vector<std::string> FileNamesFor(std::string base) {
  if (!base.empty() && base.back() == '.') {
    base.pop_back();
    return {base};
  }
  if (base.find('.') == std::string::npos) base += ".dll";
  std::vector<std::string> names{base};
  if (EndsWithNoCase(base, ".dll")) {
    std::string stem = base.substr(0, base.size() - 4);
    names.push_back(stem + ".so");
    names.push_back("lib" + stem + ".so");
  }
  return names;
}

bool IsRegularFile(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// `name` in `dir`, by its exact spelling first, then without regard to case.
std::string FindInFolder(const std::string& dir, const std::string& name) {
  std::string exact = dir + "/" + name;
  if (IsRegularFile(exact)) return exact;
  std::string found;
  if (DIR* d = ::opendir(dir.c_str())) {
    while (struct dirent* e = ::readdir(d)) {
      if (EqualsNoCase(e->d_name, name) && IsRegularFile(dir + "/" + e->d_name)) {
        found = dir + "/" + e->d_name;
        break;
      }
    }
    ::closedir(d);
  }
  return found;
}

// The file LoadLibraryA would load for `name`, or "" when there is none.
std::string Locate(const char* name) {
  std::string native = NativePath(name);
  bool hasFolder = native.find('/') != std::string::npos;
  std::vector<std::string> folders = hasFolder ? std::vector<std::string>{DirName(native)} : SearchFolders();
  std::vector<std::string> names = FileNamesFor(BaseName(native));
  for (const auto& folder : folders) {
    for (const auto& file : names) {
      std::string found = FindInFolder(folder, file);
      if (found.empty()) continue;
      char resolved[PATH_MAX];
      return ::realpath(found.c_str(), resolved) ? std::string(resolved) : found;
    }
  }
  return std::string();
}

// A symbol that `handle`'s own object defines; dlsym alone would also find its dependencies'.
void* OwnSymbol(void* handle, const char* name) {
  void* sym = ::dlsym(handle, name);
  if (!sym) return nullptr;
  struct link_map* own = nullptr;
  struct link_map* holder = nullptr;
  Dl_info info;
  if (::dlinfo(handle, RTLD_DI_LINKMAP, &own) != 0 ||
      !::dladdr1(sym, &info, reinterpret_cast<void**>(&holder), RTLD_DL_LINKMAP)) {
    return nullptr;
  }
  return own == holder ? sym : nullptr;
}

DWORD LoadError() {
  const char* text = ::dlerror();
  std::string why = text ? text : "";
  if (why.find("undefined symbol") != std::string::npos) return ERROR_PROC_NOT_FOUND;
  if (why.find("cannot open shared object file") != std::string::npos) return ERROR_MOD_NOT_FOUND;
  return ERROR_BAD_EXE_FORMAT;
}

void* MainHandleLocked(Loader& loader) {
  if (!loader.mainHandle) {
    loader.mainHandle = ::dlopen(nullptr, RTLD_LAZY);
    Module& m = loader.modules[loader.mainHandle];
    m.path = ExecutablePath();
    m.pinned = true;
  }
  return loader.mainHandle;
}

// Exit handlers run in reverse order of registration, each before the static destructors of
// the module loaded just before it registered, so DllMain still finds its module intact.
void DetachAtExit() {
  Loader& loader = TheLoader();
  std::lock_guard<std::recursive_mutex> guard(loader.lock);
  if (loader.exitDetach.empty()) return;
  uint64_t loadId = loader.exitDetach.back();
  loader.exitDetach.pop_back();
  for (auto& [handle, module] : loader.modules) {
    if (module.loadId != loadId || module.loads == 0 || !module.dllMain) continue;
    DllMainProc dllMain = module.dllMain;
    module.dllMain = nullptr;
    dllMain(static_cast<HINSTANCE>(handle), DLL_PROCESS_DETACH, reinterpret_cast<LPVOID>(1));
    return;
  }
}

// Runs DLL_PROCESS_ATTACH for a freshly loaded module; false when DllMain refused it.
bool AttachLocked(Loader& loader, void* handle, Module& module) {
  module.dllMain = reinterpret_cast<DllMainProc>(OwnSymbol(handle, "DllMain"));
  if (!module.dllMain) return true;
  if (!module.dllMain(static_cast<HINSTANCE>(handle), DLL_PROCESS_ATTACH, nullptr)) {
    module.dllMain(static_cast<HINSTANCE>(handle), DLL_PROCESS_DETACH, nullptr);
    return false;
  }
  module.loadId = loader.nextLoadId++;
  loader.exitDetach.push_back(module.loadId);
  std::atexit(DetachAtExit);
  return true;
}

HMODULE LoadLocked(Loader& loader, const std::string& path) {
  ::dlerror();
  void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    ::SetLastError(LoadError());
    return nullptr;
  }
  auto it = loader.modules.find(handle);
  if (it != loader.modules.end()) {
    ::dlclose(handle);  // each known module keeps exactly the one reference of its first load
    if (!it->second.pinned) ++it->second.loads;
    return static_cast<HMODULE>(handle);
  }
  Module& module = loader.modules[handle];
  module.path = path;
  module.loads = 1;
  if (!AttachLocked(loader, handle, module)) {
    loader.modules.erase(handle);
    ::dlclose(handle);
    ::SetLastError(ERROR_DLL_INIT_FAILED);
    return nullptr;
  }
  return static_cast<HMODULE>(handle);
}

// A module of the process matched by name or path without loading anything.
void* FindLoadedLocked(Loader& loader, const char* name) {
  std::string native = NativePath(name);
  std::string located = Locate(name);
  std::vector<std::string> names = FileNamesFor(BaseName(native));
  bool hasFolder = native.find('/') != std::string::npos;
  for (auto& [handle, module] : loader.modules) {
    if (handle == loader.mainHandle) continue;
    if (!located.empty() && module.path == located) return handle;
    if (hasFolder) continue;
    for (const auto& file : names) {
      if (EqualsNoCase(BaseName(module.path), file)) return handle;
    }
  }
  if (located.empty()) return nullptr;
  void* handle = ::dlopen(located.c_str(), RTLD_LAZY | RTLD_NOLOAD);
  if (!handle) return nullptr;
  Module& module = loader.modules[handle];  // loaded by other means: keep it, never unload
  module.path = located;
  module.pinned = true;
  return handle;
}

}  // namespace
}  // namespace adp

extern "C" {

HMODULE LoadLibraryA(LPCSTR lpLibFileName) {
  if (lpLibFileName == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  std::string path = *lpLibFileName ? adp::Locate(lpLibFileName) : std::string();
  if (path.empty()) {
    SetLastError(ERROR_MOD_NOT_FOUND);
    return nullptr;
  }
  adp::Loader& loader = adp::TheLoader();
  std::lock_guard<std::recursive_mutex> guard(loader.lock);
  return adp::LoadLocked(loader, path);
}

HMODULE LoadLibraryExA(LPCSTR lpLibFileName, HANDLE hFile, DWORD dwFlags) {
  const DWORD searchFlags = LOAD_WITH_ALTERED_SEARCH_PATH | LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR |
                            LOAD_LIBRARY_SEARCH_APPLICATION_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32 |
                            LOAD_LIBRARY_SEARCH_DEFAULT_DIRS;
  if (hFile != nullptr || (dwFlags & ~searchFlags) != 0) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  return LoadLibraryA(lpLibFileName);
}

BOOL FreeLibrary(HMODULE hLibModule) {
  adp::Loader& loader = adp::TheLoader();
  std::lock_guard<std::recursive_mutex> guard(loader.lock);
  auto it = loader.modules.find(hLibModule);
  if (it == loader.modules.end()) {
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
  }
  adp::Module& module = it->second;
  if (module.pinned || --module.loads > 0) return TRUE;
  if (module.dllMain) module.dllMain(hLibModule, DLL_PROCESS_DETACH, nullptr);
  loader.modules.erase(hLibModule);
  ::dlclose(hLibModule);
  return TRUE;
}

FARPROC GetProcAddress(HMODULE hModule, LPCSTR lpProcName) {
  adp::Loader& loader = adp::TheLoader();
  std::lock_guard<std::recursive_mutex> guard(loader.lock);
  void* handle = hModule ? static_cast<void*>(hModule) : adp::MainHandleLocked(loader);
  if (!loader.modules.count(handle)) {
    SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
  }
  // Values below 0x10000 are ordinals, which these modules do not have.
  void* sym = reinterpret_cast<uintptr_t>(lpProcName) < 0x10000 ? nullptr : adp::OwnSymbol(handle, lpProcName);
  if (!sym) {
    SetLastError(ERROR_PROC_NOT_FOUND);
    return nullptr;
  }
  return reinterpret_cast<FARPROC>(sym);
}

HMODULE GetModuleHandleA(LPCSTR lpModuleName) {
  adp::Loader& loader = adp::TheLoader();
  std::lock_guard<std::recursive_mutex> guard(loader.lock);
  void* handle = lpModuleName ? adp::FindLoadedLocked(loader, lpModuleName) : adp::MainHandleLocked(loader);
  if (!handle) SetLastError(ERROR_MOD_NOT_FOUND);
  return static_cast<HMODULE>(handle);
}

BOOL GetModuleHandleExA(DWORD dwFlags, LPCSTR lpModuleName, HMODULE* phModule) {
  const DWORD known = GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT |
                      GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS;
  const DWORD pinUnchanged = GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
  if (phModule) *phModule = nullptr;
  if (!phModule || (dwFlags & ~known) != 0 || (dwFlags & pinUnchanged) == pinUnchanged ||
      ((dwFlags & GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS) && !lpModuleName)) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  adp::Loader& loader = adp::TheLoader();
  std::lock_guard<std::recursive_mutex> guard(loader.lock);
  void* handle = nullptr;
  if (dwFlags & GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS) {
    // The dlopen handle of an object is its link map, and the executable's is dlopen(NULL)'s.
    Dl_info info;
    struct link_map* map = nullptr;
    if (::dladdr1(lpModuleName, &info, reinterpret_cast<void**>(&map), RTLD_DL_LINKMAP) && map) {
      void* main = adp::MainHandleLocked(loader);
      handle = static_cast<void*>(map) == main || !map->l_name || !*map->l_name ? main : static_cast<void*>(map);
    }
  } else {
    handle = lpModuleName ? adp::FindLoadedLocked(loader, lpModuleName) : adp::MainHandleLocked(loader);
  }
  if (!handle) {
    SetLastError(ERROR_MOD_NOT_FOUND);
    return FALSE;
  }
  auto it = loader.modules.find(handle);
  if (it != loader.modules.end() && !it->second.pinned) {
    if (dwFlags & GET_MODULE_HANDLE_EX_FLAG_PIN)
      it->second.pinned = true;
    else if (!(dwFlags & GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT))
      ++it->second.loads;
  }
  *phModule = static_cast<HMODULE>(handle);
  return TRUE;
}

DWORD GetModuleFileNameA(HMODULE hModule, LPSTR lpFilename, DWORD nSize) {
  std::string path;
  if (hModule == nullptr) {
    path = adp::ExecutablePath();
  } else {
    adp::Loader& loader = adp::TheLoader();
    std::lock_guard<std::recursive_mutex> guard(loader.lock);
    auto it = loader.modules.find(hModule);
    if (it == loader.modules.end()) {
      SetLastError(ERROR_MOD_NOT_FOUND);
      return 0;
    }
    path = it->second.path;
  }
  if (lpFilename == nullptr && nSize > 0) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  if (nSize == 0) {
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return 0;
  }
  if (path.size() < nSize) {
    std::memcpy(lpFilename, path.c_str(), path.size() + 1);
    SetLastError(ERROR_SUCCESS);
    return static_cast<DWORD>(path.size());
  }
  std::memcpy(lpFilename, path.data(), nSize - 1);
  lpFilename[nSize - 1] = '\0';
  SetLastError(ERROR_INSUFFICIENT_BUFFER);
  return nSize;
}

BOOL DisableThreadLibraryCalls(HMODULE hLibModule) {
  adp::Loader& loader = adp::TheLoader();
  std::lock_guard<std::recursive_mutex> guard(loader.lock);
  if (loader.modules.count(hLibModule)) return TRUE;
  SetLastError(ERROR_INVALID_HANDLE);
  return FALSE;
}

}  // extern "C"
