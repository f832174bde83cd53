// Module paths and symbolic links for the messaging layer (adplatform_link.h).
#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <string>

#include "adplatform_link.h"

namespace adp {

std::string ModulePathOf(const void* address) {
  Dl_info info;
  if (!address || !::dladdr(address, &info) || !info.dli_fname) return std::string();
  char resolved[PATH_MAX];
  return ::realpath(info.dli_fname, resolved) ? std::string(resolved) : std::string(info.dli_fname);
}

bool ReplaceWithSymlink(const std::string& target, const std::string& linkPath) {
  char current[PATH_MAX];
  ssize_t n = ::readlink(linkPath.c_str(), current, sizeof current - 1);
  if (n > 0 && std::string(current, static_cast<size_t>(n)) == target) return true;
  static std::atomic<unsigned> counter{0};
  std::string temp = linkPath + ".link." + std::to_string(::getpid()) + "." + std::to_string(counter++);
  ::unlink(temp.c_str());
  if (::symlink(target.c_str(), temp.c_str()) != 0) return false;
  if (::rename(temp.c_str(), linkPath.c_str()) != 0) {
    ::unlink(temp.c_str());
    return false;
  }
  return true;
}

}  // namespace adp
