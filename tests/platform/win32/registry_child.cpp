// Second process for the registry tests.
//   registry_child write <prefix> <count>   sets <prefix>-<i> = i (REG_DWORD) under
//                                           HKCU\Software\ADTest\Shared, one open/set/close each
//   registry_child check <value> <number>   exits 0 when HKLM's PerfMode key holds that DWORD
#include <cstdlib>
#include <cstring>
#include <string>

#include "windows.h"

namespace {

const char kPerfModeKey[] = "SOFTWARE\\Microsoft\\Office\\Outlook\\Addins\\TQArchiverAddin";

int Write(const std::string& prefix, int count) {
  for (int i = 0; i < count; ++i) {
    HKEY key = nullptr;
    if (RegCreateKeyExA(HKEY_CURRENT_USER, "Software\\ADTest\\Shared", 0, nullptr, 0, KEY_WRITE, nullptr, &key,
                        nullptr) != ERROR_SUCCESS)
      return 1;
    DWORD value = static_cast<DWORD>(i);
    std::string name = prefix + "-" + std::to_string(i);
    LONG rc = RegSetValueExA(key, name.c_str(), 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof value);
    RegCloseKey(key);
    if (rc != ERROR_SUCCESS) return 1;
  }
  return 0;
}

int Check(const char* name, DWORD expected) {
  HKEY key = nullptr;
  if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, kPerfModeKey, 0, KEY_READ, &key) != ERROR_SUCCESS) return 1;
  DWORD type = 0, value = 0, size = sizeof value;
  LONG rc = RegQueryValueExA(key, name, nullptr, &type, reinterpret_cast<BYTE*>(&value), &size);
  RegCloseKey(key);
  return rc == ERROR_SUCCESS && type == REG_DWORD && value == expected ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::strcmp(argv[1], "write") == 0) return Write(argv[2], std::atoi(argv[3]));
  if (argc == 4 && std::strcmp(argv[1], "check") == 0)
    return Check(argv[2], static_cast<DWORD>(std::strtoul(argv[3], nullptr, 10)));
  return 2;
}
