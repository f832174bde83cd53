#include "win32/fsutil.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <random>

namespace adp {
namespace {

constexpr uint64_t kUnixEpochAsFileTime = 116444736000000000ULL;  // 1970-01-01 in 100 ns since 1601

bool IsDirectory(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = ::write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

bool ReadAll(int fd, std::string& out) {
  out.clear();
  char buf[65536];
  for (;;) {
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (n == 0) return true;
    out.append(buf, static_cast<size_t>(n));
  }
}

std::string TempNameBeside(const std::string& path) {
  static thread_local std::mt19937_64 rng{std::random_device{}()};
  char suffix[64];
  std::snprintf(suffix, sizeof suffix, ".%d.%016llx.tmp", static_cast<int>(::getpid()),
                static_cast<unsigned long long>(rng()));
  return DirName(path) + "/." + BaseName(path) + suffix;
}

}  // namespace

DWORD Win32ErrorFromErrno(int err) {
  switch (err) {
    case 0: return ERROR_SUCCESS;
    case ENOENT: return ERROR_FILE_NOT_FOUND;
    case ENOTDIR: return ERROR_PATH_NOT_FOUND;
    case EACCES:
    case EPERM:
    case EROFS:
    case EISDIR: return ERROR_ACCESS_DENIED;
    case EEXIST: return ERROR_ALREADY_EXISTS;
    case ENOTEMPTY: return ERROR_DIR_NOT_EMPTY;
    case ENOSPC:
    case EDQUOT: return ERROR_DISK_FULL;
    case EMFILE:
    case ENFILE: return ERROR_TOO_MANY_OPEN_FILES;
    case ENAMETOOLONG: return ERROR_FILENAME_EXCED_RANGE;
    case EBADF: return ERROR_INVALID_HANDLE;
    case EINVAL: return ERROR_INVALID_PARAMETER;
    case ENOMEM: return ERROR_NOT_ENOUGH_MEMORY;
    case EXDEV: return ERROR_NOT_SAME_DEVICE;
    case EBUSY: return ERROR_BUSY;
    case EAGAIN: return ERROR_LOCK_VIOLATION;
    case ETXTBSY: return ERROR_SHARING_VIOLATION;
    case EFBIG: return ERROR_FILE_TOO_LARGE;
    case ELOOP: return ERROR_CANT_RESOLVE_FILENAME;
    case EMLINK: return ERROR_TOO_MANY_LINKS;
    case ESPIPE: return ERROR_SEEK_ON_DEVICE;
    case EPIPE: return ERROR_BROKEN_PIPE;
    case ENOSYS:
    case EOPNOTSUPP: return ERROR_NOT_SUPPORTED;
    default: return ERROR_GEN_FAILURE;
  }
}

DWORD ErrorForPath(int err, const std::string& nativePath) {
  if (err == ENOENT || err == ENOTDIR) {
    return IsDirectory(DirName(nativePath)) && err == ENOENT ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND;
  }
  return Win32ErrorFromErrno(err);
}

std::string DirName(const std::string& path) {
  size_t end = path.find_last_not_of('/');
  if (end == std::string::npos) return path.empty() ? "." : "/";
  size_t slash = path.rfind('/', end);
  if (slash == std::string::npos) return ".";
  size_t dirEnd = path.find_last_not_of('/', slash);
  return dirEnd == std::string::npos ? "/" : path.substr(0, dirEnd + 1);
}

std::string BaseName(const std::string& path) {
  size_t end = path.find_last_not_of('/');
  if (end == std::string::npos) return path.empty() ? "" : "/";
  size_t slash = path.rfind('/', end);
  size_t start = slash == std::string::npos ? 0 : slash + 1;
  return path.substr(start, end + 1 - start);
}

bool MakeDirectories(const std::string& path) {
  if (path.empty()) return false;
  if (IsDirectory(path)) return true;
  std::string parent = DirName(path);
  if (parent != path && !MakeDirectories(parent)) return false;
  return ::mkdir(path.c_str(), 0777) == 0 || (errno == EEXIST && IsDirectory(path));
}

FILETIME FileTimeFromTimespec(const timespec& ts) {
  int64_t ticks = static_cast<int64_t>(ts.tv_sec) * 10000000 + ts.tv_nsec / 100 +
                  static_cast<int64_t>(kUnixEpochAsFileTime);
  if (ticks < 0) ticks = 0;
  FILETIME ft;
  ft.dwLowDateTime = static_cast<DWORD>(static_cast<uint64_t>(ticks) & 0xFFFFFFFFu);
  ft.dwHighDateTime = static_cast<DWORD>(static_cast<uint64_t>(ticks) >> 32);
  return ft;
}

FILETIME FileTimeNow() {
  timespec ts;
  ::clock_gettime(CLOCK_REALTIME, &ts);
  return FileTimeFromTimespec(ts);
}

DWORD ReadWholeFile(const std::string& path, std::string& out) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return ErrorForPath(errno, path);
  bool ok = ReadAll(fd, out);
  int err = errno;
  ::close(fd);
  return ok ? ERROR_SUCCESS : Win32ErrorFromErrno(err);
}

DWORD CopyOutString(const std::string& s, LPSTR buffer, DWORD size) {
  if (buffer == nullptr || s.size() + 1 > size) return static_cast<DWORD>(s.size() + 1);
  std::memcpy(buffer, s.c_str(), s.size() + 1);
  return static_cast<DWORD>(s.size());
}

bool EqualsNoCase(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    unsigned char x = static_cast<unsigned char>(a[i]), y = static_cast<unsigned char>(b[i]);
    if (x != y && std::tolower(x) != std::tolower(y)) return false;
  }
  return true;
}

std::string FoldCase(const std::string& s) {
  std::string folded(s);
  for (char& c : folded) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return folded;
}

LockedRewrite::~LockedRewrite() {
  if (m_fd >= 0) ::close(m_fd);  // closing drops the flock
}

DWORD LockedRewrite::Open(const std::string& nativePath, bool create) {
  for (;;) {
    // Resolve a symbolic link so the replacement lands on its target, not over the link.
    char resolved[PATH_MAX];
    m_path = ::realpath(nativePath.c_str(), resolved) ? std::string(resolved) : nativePath;
    int fd = ::open(m_path.c_str(), O_RDWR | O_CLOEXEC | (create ? O_CREAT : 0), 0666);
    if (fd < 0) return ErrorForPath(errno, m_path);
    int rc;
    while ((rc = ::flock(fd, LOCK_EX)) != 0 && errno == EINTR) {
    }
    struct stat locked, current;
    if (rc != 0 || ::fstat(fd, &locked) != 0) {
      DWORD err = Win32ErrorFromErrno(errno);
      ::close(fd);
      return err;
    }
    bool stillCurrent = ::stat(m_path.c_str(), &current) == 0 && current.st_ino == locked.st_ino &&
                        current.st_dev == locked.st_dev;
    if (!stillCurrent) {  // replaced (or removed) while we waited for the lock
      ::close(fd);
      continue;
    }
    if (!ReadAll(fd, m_text)) {
      DWORD err = Win32ErrorFromErrno(errno);
      ::close(fd);
      return err;
    }
    m_fd = fd;
    m_stat = locked;
    return ERROR_SUCCESS;
  }
}

DWORD LockedRewrite::Replace(const std::string& text, bool durable, struct stat* newStat) {
  if (m_fd < 0) return ERROR_INVALID_HANDLE;
  std::string temp = TempNameBeside(m_path);
  int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) return Win32ErrorFromErrno(errno);
  bool ok = ::fchmod(fd, m_stat.st_mode & 07777) == 0 && WriteAll(fd, text.data(), text.size()) &&
            (!durable || ::fsync(fd) == 0);
  if (ok && newStat) ok = ::fstat(fd, newStat) == 0;
  int err = errno;
  ::close(fd);
  if (ok && ::rename(temp.c_str(), m_path.c_str()) != 0) {
    ok = false;
    err = errno;
  }
  if (!ok) {
    ::unlink(temp.c_str());
    return Win32ErrorFromErrno(err);
  }
  if (durable) {
    int dirFd = ::open(DirName(m_path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd >= 0) {
      ::fsync(dirFd);
      ::close(dirFd);
    }
  }
  m_text = text;
  return ERROR_SUCCESS;
}

}  // namespace adp
