// Second process for the INI-file tests.
//   profile_child write <file> <prefix> <count>     writes [Shared] <prefix><i>=v<i>, one call each
//   profile_child check <file> <section> <key> <v>  exits 0 when the key holds that value
#include <cstdlib>
#include <cstring>
#include <string>

#include "windows.h"

int main(int argc, char** argv) {
  if (argc == 5 && std::strcmp(argv[1], "write") == 0) {
    for (int i = 0, n = std::atoi(argv[4]); i < n; ++i) {
      std::string key = std::string(argv[3]) + std::to_string(i);
      std::string value = "v" + std::to_string(i);
      if (!WritePrivateProfileStringA("Shared", key.c_str(), value.c_str(), argv[2])) return 1;
    }
    return 0;
  }
  if (argc == 6 && std::strcmp(argv[1], "check") == 0) {
    char buf[256];
    GetPrivateProfileStringA(argv[3], argv[4], "<none>", buf, sizeof buf, argv[2]);
    return std::strcmp(buf, argv[5]) == 0 ? 0 : 1;
  }
  return 2;
}
