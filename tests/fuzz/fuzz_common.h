// What both fuzz targets share: the private heaps set up once, and a scratch folder.
#pragma once
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "MemHeap.h"

namespace adfuzz {

inline void SetUpProcess() {
  static bool fDone = false;
  if (fDone) return;
  fDone = true;
  ZT4ProcessAttach(reinterpret_cast<HINSTANCE>(&fDone));
}

// A folder of this process, on /dev/shm when there is one: every node write is synchronous.
inline const std::string& ScratchDir() {
  static std::string dir = [] {
    std::string base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    std::string pattern = base + "/adfuzz-XXXXXX";
    char* p = mkdtemp(pattern.data());
    return std::string(p ? p : base.c_str());
  }();
  return dir;
}

}  // namespace adfuzz
