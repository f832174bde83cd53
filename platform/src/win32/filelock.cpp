#include "win32/filelock.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "win32/fsutil.h"

namespace adp {
namespace {

constexpr uint64_t kLockLimit = static_cast<uint64_t>(INT64_MAX);  // beyond off_t: "to the end"

int SetOfdLock(int fd, short type, uint64_t a, uint64_t b) {
  struct flock fl {};
  fl.l_type = type;
  fl.l_whence = SEEK_SET;
  fl.l_start = static_cast<off_t>(a);
  fl.l_len = b >= kLockLimit ? 0 : static_cast<off_t>(b - a);  // 0 reaches to the end of any file
  int rc;
  while ((rc = ::fcntl(fd, F_OFD_SETLK, &fl)) != 0 && errno == EINTR) {
  }
  return rc == 0 ? 0 : errno;
}

short Stronger(short a, short b) {
  auto rank = [](short t) { return t == F_WRLCK ? 2 : t == F_RDLCK ? 1 : 0; };
  return rank(a) >= rank(b) ? a : b;
}

}  // namespace

short RegionLocks::TypeOver(uint64_t a, uint64_t b) const {
  short type = F_UNLCK;
  for (const Region& r : m_regions) {
    if (r.start < b && a < r.end) type = Stronger(type, r.exclusive ? F_WRLCK : F_RDLCK);
  }
  return type;
}

std::vector<uint64_t> RegionLocks::Breakpoints(uint64_t start, uint64_t end) const {
  std::vector<uint64_t> points{start, end};
  for (const Region& r : m_regions) {
    if (r.start > start && r.start < end) points.push_back(r.start);
    if (r.end > start && r.end < end) points.push_back(r.end);
  }
  std::sort(points.begin(), points.end());
  points.erase(std::unique(points.begin(), points.end()), points.end());
  return points;
}

DWORD RegionLocks::TryLock(int fd, uint64_t offset, uint64_t length, bool exclusive) {
  Region region{offset, length, std::min(offset, kLockLimit),
                offset > kLockLimit - std::min(length, kLockLimit) ? kLockLimit : offset + length, exclusive};
  std::lock_guard<std::mutex> guard(m_lock);
  if (exclusive) {
    for (const Region& r : m_regions) {
      bool overlaps = r.start < region.end && region.start < r.end;
      if (overlaps && r.length != 0 && length != 0) return ERROR_LOCK_VIOLATION;
    }
  }
  if (region.start < region.end) {
    // Raise each piece to at least the new type; on a conflict, put back what was raised.
    std::vector<uint64_t> points = Breakpoints(region.start, region.end);
    short wanted = exclusive ? F_WRLCK : F_RDLCK;
    for (size_t i = 0; i + 1 < points.size(); ++i) {
      short current = TypeOver(points[i], points[i + 1]);
      if (Stronger(current, wanted) == current) continue;
      if (int err = SetOfdLock(fd, wanted, points[i], points[i + 1])) {
        for (size_t j = 0; j < i; ++j) SetOfdLock(fd, TypeOver(points[j], points[j + 1]), points[j], points[j + 1]);
        return err == EAGAIN || err == EACCES ? ERROR_LOCK_VIOLATION : Win32ErrorFromErrno(err);
      }
    }
  }
  m_regions.push_back(region);
  return ERROR_SUCCESS;
}

DWORD RegionLocks::Unlock(int fd, uint64_t offset, uint64_t length) {
  std::lock_guard<std::mutex> guard(m_lock);
  auto match = m_regions.end();
  for (auto it = m_regions.begin(); it != m_regions.end(); ++it) {
    if (it->offset != offset || it->length != length) continue;
    if (match == m_regions.end() || it->exclusive) match = it;
  }
  if (match == m_regions.end()) return ERROR_NOT_LOCKED;
  Region removed = *match;
  if (removed.start >= removed.end) {
    m_regions.erase(match);
    return ERROR_SUCCESS;
  }
  std::vector<uint64_t> points = Breakpoints(removed.start, removed.end);
  std::vector<short> before;
  for (size_t i = 0; i + 1 < points.size(); ++i) before.push_back(TypeOver(points[i], points[i + 1]));
  m_regions.erase(match);
  // Lowering a lock never conflicts, so this cannot fail half-way.
  for (size_t i = 0; i + 1 < points.size(); ++i) {
    short after = TypeOver(points[i], points[i + 1]);
    if (after != before[i]) SetOfdLock(fd, after, points[i], points[i + 1]);
  }
  return ERROR_SUCCESS;
}

}  // namespace adp
