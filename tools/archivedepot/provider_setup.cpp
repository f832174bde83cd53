#include "provider_setup.h"

#include <filesystem>
#include <fstream>

#include "ScriptArchiveRegistration.h"
#include "commands.h"
#include "mapicode.h"
#include "output.h"
#include "windows.h"

namespace adcli {
namespace {

using MergeFn = HRESULT(STDAPICALLTYPE*)(LPCWSTR, LPBOOL, ULONG);

bool IsFile(const std::string& path) {
  DWORD attributes = GetFileAttributesA(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY);
}

class Library {
 public:
  explicit Library(const char* name) : m_module(LoadLibraryA(name)) {}
  ~Library() {
    if (m_module) FreeLibrary(m_module);
  }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
  HMODULE Get() const { return m_module; }

 private:
  HMODULE m_module;
};

std::string Trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t\r"), e = s.find_last_not_of(" \t\r");
  return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
}

}  // namespace

std::string ProgramFolder(const std::string& programPath) {
  size_t slash = programPath.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : programPath.substr(0, slash);
}

std::string SampleFixturePath(const std::string& programPath) {
  return ProgramFolder(programPath) + "/" + kSampleFixture;
}

bool MergeProviderService() {
  Library library(kProviderLibrary);
  if (!library.Get()) {
    DWORD error = GetLastError();
    std::string why = error == ERROR_MOD_NOT_FOUND ? ": it is not beside the client" : "";
    throw MapiFailure(MAPI_E_NOT_FOUND,
                      std::string("cannot load ") + kProviderLibrary + " (error " + std::to_string(error) + ")" + why);
  }
  auto merge = reinterpret_cast<MergeFn>(reinterpret_cast<void*>(GetProcAddress(library.Get(), "MergeWithMAPISVC")));
  if (!merge) throw MapiFailure(MAPI_E_NOT_FOUND, std::string(kProviderLibrary) + " exports no MergeWithMAPISVC");
  BOOL fChanged = FALSE;
  HRESULT hr = merge(nullptr, &fChanged, 0);
  if (FAILED(hr)) throw MapiFailure(hr, "MergeWithMAPISVC could not write MAPISVC.INF");
  return fChanged != FALSE;
}

DataProviderSetup RegisterDataProvider(const std::string& programPath, const std::string& fixture) {
  DataProviderSetup setup;
  setup.module = ProgramFolder(programPath) + "/" + kArchiveModule;
  if (!IsFile(setup.module)) {
    throw MapiFailure(MAPI_E_NOT_FOUND, "the data provider module " + setup.module + " is missing");
  }
  std::error_code ec;
  setup.fixture = std::filesystem::absolute(fixture, ec).lexically_normal().string();
  if (ec || !IsFile(setup.fixture)) throw MapiFailure(MAPI_E_NOT_FOUND, "there is no fixture file " + fixture);
  HRESULT hr = scriptarchive::RegisterScriptArchive(setup.module, setup.fixture);
  if (FAILED(hr)) throw MapiFailure(hr, "cannot register the data provider");
  return setup;
}

ServiceSetup InstallProviderService(const std::string& programPath, const std::string& fixture) {
  ServiceSetup setup;
  std::string chosen = fixture.empty() ? SampleFixturePath(programPath) : fixture;
  // The data provider first: a missing fixture then leaves MAPISVC.INF as it was.
  setup.data = RegisterDataProvider(programPath, chosen);
  setup.changed = MergeProviderService();
  return setup;
}

std::string RegisteredFixture() {
  std::string key = "CLSID\\" + adp::GuidToRegistryString(CLSID_ZT4DataProvider);
  HKEY hkey = nullptr;
  if (RegOpenKeyExA(HKEY_CLASSES_ROOT, key.c_str(), 0, KEY_READ, &hkey) != ERROR_SUCCESS) return std::string();
  char value[4096] = {0};
  DWORD type = 0, cb = sizeof value - 1;
  LSTATUS status = RegQueryValueExA(hkey, scriptarchive::kFixtureValueName, nullptr, &type,
                                    reinterpret_cast<LPBYTE>(value), &cb);
  RegCloseKey(hkey);
  return status == ERROR_SUCCESS && type == REG_SZ ? std::string(value) : std::string();
}

MailboxUser FixtureUser(const std::string& fixturePath) {
  std::ifstream in(fixturePath);
  MailboxUser user;
  bool inUser = false, found = false;
  for (std::string line; std::getline(in, line);) {
    line = Trim(line);
    if (line.empty() || line[0] == '#') continue;
    if (line[0] == '[') {
      if (found) break;  // the first [user] section only
      inUser = line.rfind("[user ", 0) == 0;
      found = inUser;
      continue;
    }
    size_t eq = line.find('=');
    if (!inUser || eq == std::string::npos) continue;
    std::string key = Trim(line.substr(0, eq)), value = Trim(line.substr(eq + 1));
    if (key == "UserName") user.user = value;
    else if (key == "DisplayName") user.display = value;
    else if (key == "SmtpAddress") user.smtp = value;
  }
  if (!found) return kSampleUser;
  if (user.user.empty()) user.user = user.smtp.empty() ? kSampleUser.user : user.smtp.substr(0, user.smtp.find('@'));
  if (user.display.empty()) user.display = user.user;
  if (user.smtp.empty()) user.smtp = user.user + "@example.com";
  return user;
}

}  // namespace adcli
