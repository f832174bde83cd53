// Byte-range locks of one file handle, over Linux open-file-description (OFD) locks so that two
// handles conflict even inside one process, as two Windows handles do.
//
// Windows rules kept: an exclusive lock may not overlap any lock, not even one of the same handle;
// a shared lock may overlap shared locks and the handle's own exclusive ones; an unlock must name
// exactly a region that was locked (ERROR_NOT_LOCKED otherwise), the exclusive one first when a
// region is locked both ways. Since OFD locks merge per description, the handle's own regions are
// kept here and each byte carries the strongest lock of the regions that cover it.
#pragma once
#include <cstdint>
#include <mutex>
#include <vector>

#include "windows.h"

namespace adp {

class RegionLocks {
 public:
  // 0 or ERROR_LOCK_VIOLATION (or another Win32 error); never waits.
  DWORD TryLock(int fd, uint64_t offset, uint64_t length, bool exclusive);
  // 0 or ERROR_NOT_LOCKED.
  DWORD Unlock(int fd, uint64_t offset, uint64_t length);

 private:
  struct Region {
    uint64_t offset, length;  // as the caller gave them
    uint64_t start, end;      // the part that OFD locks can express, [start, end)
    bool exclusive;
  };
  // Strongest lock type (F_UNLCK, F_RDLCK, F_WRLCK) the handle's regions put on [a, b).
  short TypeOver(uint64_t a, uint64_t b) const;
  std::vector<uint64_t> Breakpoints(uint64_t start, uint64_t end) const;

  std::mutex m_lock;  // leaf lock: guards m_regions; held while fcntl applies the change
  std::vector<Region> m_regions;
};

}  // namespace adp
