// Provider library loading (rules in loader.h).
#include "loader.h"

#include <map>
#include <memory>
#include <mutex>

#include "adplatform.h"
#include "adplatform_link.h"
#include "mapicode.h"

namespace adm {
namespace {

std::string Upper(std::string s) {
  for (char& c : s) c = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
  return s;
}

std::string FolderOf(const std::string& path) {
  size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

bool HasFolder(const std::string& name) { return name.find_first_of("/\\") != std::string::npos; }

struct Loaded {
  // Guards the map; LoadLibraryA runs under it so a name loads once. Recursive: a DllMain may
  // load another provider.
  std::recursive_mutex lock;
  std::map<std::string, std::unique_ptr<ProviderLibrary>> byName;
};

Loaded& TheLoaded() {
  static Loaded* loaded = new Loaded;  // never destroyed: libraries stay loaded to the end
  return *loaded;
}

HMODULE LoadFrom(const std::string& dllName) {
  if (HasFolder(dllName)) return LoadLibraryA(dllName.c_str());
  for (const auto& folder : ProviderSearchFolders()) {
    if (HMODULE h = LoadLibraryA((folder + "/" + dllName).c_str())) return h;
  }
  return LoadLibraryA(dllName.c_str());
}

}  // namespace

FARPROC ProviderLibrary::Export(const char* name) const { return hModule ? GetProcAddress(hModule, name) : nullptr; }

std::vector<std::string> ProviderSearchFolders() {
  std::vector<std::string> folders;
  auto add = [&folders](const std::string& f) {
    if (f.empty()) return;
    for (const auto& have : folders) {
      if (have == f) return;
    }
    folders.push_back(f);
  };
  char env[4096];
  DWORD n = GetEnvironmentVariableA("ARCHIVEDEPOT_PROVIDER_PATH", env, sizeof env);
  if (n > 0 && n < sizeof env) {
    std::string list(env, n);
    size_t start = 0;
    while (start <= list.size()) {
      size_t sep = list.find_first_of(":;", start);
      add(adp::NativePath(list.substr(start, sep == std::string::npos ? std::string::npos : sep - start).c_str()));
      if (sep == std::string::npos) break;
      start = sep + 1;
    }
  }
  char exe[MAX_PATH];
  DWORD len = GetModuleFileNameA(nullptr, exe, sizeof exe);
  if (len > 0 && len < sizeof exe) add(FolderOf(exe));
  add(FolderOf(adp::ModulePathOf(reinterpret_cast<const void*>(&LoadProviderLibrary))));
  return folders;
}

HRESULT LoadProviderLibrary(const std::string& dllName, const ProviderLibrary** lppLibrary) {
  if (!lppLibrary) return MAPI_E_INVALID_PARAMETER;
  *lppLibrary = nullptr;
  if (dllName.empty()) return MAPI_E_INVALID_PARAMETER;
  Loaded& loaded = TheLoaded();
  std::lock_guard<std::recursive_mutex> guard(loaded.lock);  // lock order: leaf but for DllMain re-entry
  auto& slot = loaded.byName[Upper(dllName)];
  if (!slot) {
    HMODULE h = LoadFrom(dllName);
    if (!h) {
      loaded.byName.erase(Upper(dllName));
      return MAPI_E_NOT_FOUND;
    }
    auto lib = std::make_unique<ProviderLibrary>();
    lib->dllName = dllName;
    lib->hModule = h;
    char path[MAX_PATH];
    DWORD len = GetModuleFileNameA(h, path, sizeof path);
    if (len > 0 && len < sizeof path) lib->path.assign(path, len);
    lib->MSProviderInit = reinterpret_cast<LPMSPROVIDERINIT>(GetProcAddress(h, "MSProviderInit"));
    lib->ServiceEntry = reinterpret_cast<LPMSGSERVICEENTRY>(GetProcAddress(h, "ServiceEntry"));
    slot = std::move(lib);
  }
  *lppLibrary = slot.get();
  return S_OK;
}

}  // namespace adm
