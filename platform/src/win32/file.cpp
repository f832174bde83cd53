// File handles: CreateFileA and the calls that work on an open file. Each handle owns one POSIX
// descriptor and its own file pointer; reads and writes are positional (pread/pwrite at that
// pointer), so two handles on one file never disturb each other's position.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <mutex>
#include <string>
#include <thread>

#include "adplatform.h"
#include "win32/filelock.h"
#include "win32/fsutil.h"
#include "win32/handle.h"

namespace adp {
namespace {

struct Access {
  bool read = false;
  bool write = false;       // FILE_WRITE_DATA: write anywhere, truncate
  bool appendOnly = false;  // FILE_APPEND_DATA without FILE_WRITE_DATA: every write goes to the end
};

Access AccessFrom(DWORD desired) {
  Access a;
  a.read = desired & (GENERIC_READ | GENERIC_ALL | FILE_READ_DATA);
  a.write = desired & (GENERIC_WRITE | GENERIC_ALL | FILE_WRITE_DATA);
  a.appendOnly = !a.write && (desired & FILE_APPEND_DATA);
  return a;
}

class FileObject final : public KernelObject {
 public:
  FileObject(int fd, Access access, std::string deleteOnClosePath)
      : m_fd(fd), m_access(access), m_deleteOnClose(std::move(deleteOnClosePath)) {}

  int Fd() const { return m_fd; }
  bool CanRead() const { return m_access.read; }
  bool CanWrite() const { return m_access.write || m_access.appendOnly; }
  bool CanTruncate() const { return m_access.write; }
  bool AppendOnly() const { return m_access.appendOnly; }
  std::mutex& IoLock() { return m_io; }
  int64_t& Position() { return m_position; }  // guarded by IoLock()
  RegionLocks& Locks() { return m_locks; }

 protected:
  ~FileObject() override {
    if (!m_deleteOnClose.empty()) ::unlink(m_deleteOnClose.c_str());
    ::close(m_fd);  // also drops every region lock of this handle
  }

 private:
  const int m_fd;
  const Access m_access;
  const std::string m_deleteOnClose;
  std::mutex m_io;  // serializes I/O and pointer moves on this handle, as for a synchronous handle
  int64_t m_position = 0;
  RegionLocks m_locks;
};

using FileRef = HandleRef<FileObject>;

BOOL Fail(DWORD error) {
  ::SetLastError(error);
  return FALSE;
}

HANDLE FailHandle(DWORD error) {
  ::SetLastError(error);
  return INVALID_HANDLE_VALUE;
}

int OpenFlags(Access a, DWORD flags) {
  int oflags = O_CLOEXEC;
  bool writes = a.write || a.appendOnly;
  oflags |= a.read && writes ? O_RDWR : writes ? O_WRONLY : O_RDONLY;
  if (a.appendOnly) oflags |= O_APPEND;
  if (flags & FILE_FLAG_WRITE_THROUGH) oflags |= O_DSYNC;  // each write durable when it returns
  return oflags;
}

// Opens by disposition; `existed` tells whether the file was there before. -1 with errno on
// failure, except -2 for a disposition that is not allowed (ERROR_INVALID_PARAMETER).
int OpenByDisposition(const std::string& path, int oflags, DWORD disposition, mode_t mode, bool& existed) {
  existed = false;
  for (;;) {
    int fd;
    switch (disposition) {
      case CREATE_NEW:
        return ::open(path.c_str(), oflags | O_CREAT | O_EXCL, mode);
      case OPEN_EXISTING:
        existed = true;
        return ::open(path.c_str(), oflags);
      case TRUNCATE_EXISTING:
        existed = true;
        return ::open(path.c_str(), oflags | O_TRUNC);
      case CREATE_ALWAYS:
        if ((fd = ::open(path.c_str(), oflags | O_CREAT | O_EXCL, mode)) >= 0 || errno != EEXIST) return fd;
        existed = true;
        if ((fd = ::open(path.c_str(), oflags | O_TRUNC)) >= 0 || errno != ENOENT) return fd;
        break;  // removed meanwhile: try again
      case OPEN_ALWAYS:
        existed = true;
        if ((fd = ::open(path.c_str(), oflags)) >= 0 || errno != ENOENT) return fd;
        existed = false;
        if ((fd = ::open(path.c_str(), oflags | O_CREAT | O_EXCL, mode)) >= 0 || errno != EEXIST) return fd;
        break;  // created meanwhile: try again
      default:
        return -2;
    }
  }
}

DWORD OpenError(int err, DWORD disposition, const std::string& path) {
  if (err == EEXIST && disposition == CREATE_NEW) return ERROR_FILE_EXISTS;
  return ErrorForPath(err, path);
}

std::string AbsolutePath(const std::string& path) {
  if (!path.empty() && path[0] == '/') return path;
  char cwd[PATH_MAX];
  return ::getcwd(cwd, sizeof cwd) ? std::string(cwd) + "/" + path : path;
}

void Advise(int fd, DWORD flags) {
  if (flags & FILE_FLAG_RANDOM_ACCESS) ::posix_fadvise(fd, 0, 0, POSIX_FADV_RANDOM);
  if (flags & FILE_FLAG_SEQUENTIAL_SCAN) ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
}

bool FileSize(int fd, int64_t& size) {
  struct stat st;
  if (::fstat(fd, &st) != 0) return false;
  size = st.st_size;
  return true;
}

int64_t OverlappedOffset(const OVERLAPPED* ov) {
  return static_cast<int64_t>((static_cast<uint64_t>(ov->OffsetHigh) << 32) | ov->Offset);
}

// Reads up to `count` bytes at `offset`; stops early only at the end of the file.
bool ReadAt(int fd, char* buf, size_t count, int64_t offset, size_t& done) {
  done = 0;
  while (done < count) {
    ssize_t n = ::pread(fd, buf + done, count - done, offset + static_cast<int64_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  return true;
}

bool WriteAt(int fd, const char* buf, size_t count, int64_t offset, bool append, size_t& done) {
  done = 0;
  while (done < count) {
    ssize_t n = append ? ::write(fd, buf + done, count - done)
                       : ::pwrite(fd, buf + done, count - done, offset + static_cast<int64_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

void CompleteOverlapped(OVERLAPPED* ov, size_t done) {
  if (!ov) return;
  ov->Internal = 0;
  ov->InternalHigh = done;
}

// New pointer for a move, or an error code.
DWORD ComputeMove(FileObject& f, int64_t distance, DWORD method, int64_t& target) {
  int64_t base = 0;
  if (method == FILE_CURRENT) {
    base = f.Position();
  } else if (method == FILE_END) {
    if (!FileSize(f.Fd(), base)) return Win32ErrorFromErrno(errno);
  } else if (method != FILE_BEGIN) {
    return ERROR_INVALID_PARAMETER;
  }
  if (__builtin_add_overflow(base, distance, &target)) return ERROR_INVALID_PARAMETER;
  return target < 0 ? ERROR_NEGATIVE_SEEK : ERROR_SUCCESS;
}

uint64_t Join(DWORD low, DWORD high) { return (static_cast<uint64_t>(high) << 32) | low; }

}  // namespace
}  // namespace adp

using adp::Fail;
using adp::FailHandle;
using adp::FileRef;

extern "C" {

HANDLE CreateFileA(LPCSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                   LPSECURITY_ATTRIBUTES lpSecurityAttributes, DWORD dwCreationDisposition,
                   DWORD dwFlagsAndAttributes, HANDLE hTemplateFile) {
  if (lpFileName == nullptr) return FailHandle(ERROR_INVALID_PARAMETER);
  if (*lpFileName == '\0') return FailHandle(ERROR_PATH_NOT_FOUND);
  if (dwFlagsAndAttributes & FILE_FLAG_OVERLAPPED) return FailHandle(ERROR_NOT_SUPPORTED);
  adp::Access access = adp::AccessFrom(dwDesiredAccess);
  if (dwCreationDisposition == TRUNCATE_EXISTING && !access.write)
    return FailHandle(ERROR_INVALID_PARAMETER);

  std::string path = adp::NativePath(lpFileName);
  mode_t mode = (dwFlagsAndAttributes & FILE_ATTRIBUTE_READONLY) ? 0444 : 0666;
  bool existed = false;
  int fd = adp::OpenByDisposition(path, adp::OpenFlags(access, dwFlagsAndAttributes), dwCreationDisposition,
                                  mode, existed);
  if (fd == -2) return FailHandle(ERROR_INVALID_PARAMETER);
  if (fd < 0) return FailHandle(adp::OpenError(errno, dwCreationDisposition, path));

  struct stat st;
  if (::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode) && !(dwFlagsAndAttributes & FILE_FLAG_BACKUP_SEMANTICS)) {
    ::close(fd);  // a folder opens only with backup semantics, as on Windows
    return FailHandle(ERROR_ACCESS_DENIED);
  }
  adp::Advise(fd, dwFlagsAndAttributes);
  std::string deletePath =
      (dwFlagsAndAttributes & FILE_FLAG_DELETE_ON_CLOSE) ? adp::AbsolutePath(path) : std::string();
  HANDLE h = adp::RegisterHandle(new adp::FileObject(fd, access, deletePath));
  bool reportsExisting = dwCreationDisposition == CREATE_ALWAYS || dwCreationDisposition == OPEN_ALWAYS;
  SetLastError(reportsExisting && existed ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
  return h;
}

BOOL ReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead, LPDWORD lpNumberOfBytesRead,
              LPOVERLAPPED lpOverlapped) {
  if (lpNumberOfBytesRead) *lpNumberOfBytesRead = 0;
  FileRef f(hFile);
  if (!f) return FALSE;
  if (!lpNumberOfBytesRead && !lpOverlapped) return Fail(ERROR_INVALID_PARAMETER);
  if (!lpBuffer && nNumberOfBytesToRead) return Fail(ERROR_NOACCESS);
  if (!f->CanRead()) return Fail(ERROR_ACCESS_DENIED);
  std::lock_guard<std::mutex> guard(f->IoLock());
  int64_t offset = lpOverlapped ? adp::OverlappedOffset(lpOverlapped) : f->Position();
  size_t done = 0;
  bool ok = adp::ReadAt(f->Fd(), static_cast<char*>(lpBuffer), nNumberOfBytesToRead, offset, done);
  int err = errno;
  f->Position() = offset + static_cast<int64_t>(done);
  if (lpNumberOfBytesRead) *lpNumberOfBytesRead = static_cast<DWORD>(done);
  adp::CompleteOverlapped(lpOverlapped, done);
  return ok ? TRUE : Fail(adp::Win32ErrorFromErrno(err));
}

BOOL WriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite, LPDWORD lpNumberOfBytesWritten,
               LPOVERLAPPED lpOverlapped) {
  if (lpNumberOfBytesWritten) *lpNumberOfBytesWritten = 0;
  FileRef f(hFile);
  if (!f) return FALSE;
  if (!lpNumberOfBytesWritten && !lpOverlapped) return Fail(ERROR_INVALID_PARAMETER);
  if (!lpBuffer && nNumberOfBytesToWrite) return Fail(ERROR_NOACCESS);
  if (!f->CanWrite()) return Fail(ERROR_ACCESS_DENIED);
  std::lock_guard<std::mutex> guard(f->IoLock());
  int64_t offset = f->Position();
  bool toEnd = f->AppendOnly();
  if (lpOverlapped) {
    // Offset 0xFFFFFFFF:0xFFFFFFFF asks for the end of the file.
    toEnd = toEnd || (lpOverlapped->Offset == 0xFFFFFFFF && lpOverlapped->OffsetHigh == 0xFFFFFFFF);
    offset = adp::OverlappedOffset(lpOverlapped);
  }
  if (toEnd && !f->AppendOnly() && !adp::FileSize(f->Fd(), offset)) return Fail(adp::Win32ErrorFromErrno(errno));
  size_t done = 0;
  bool ok = adp::WriteAt(f->Fd(), static_cast<const char*>(lpBuffer), nNumberOfBytesToWrite, offset,
                         f->AppendOnly(), done);
  int err = errno;
  if (f->AppendOnly()) {
    off_t end = ::lseek(f->Fd(), 0, SEEK_CUR);
    f->Position() = end >= 0 ? end : f->Position();
  } else {
    f->Position() = offset + static_cast<int64_t>(done);
  }
  if (lpNumberOfBytesWritten) *lpNumberOfBytesWritten = static_cast<DWORD>(done);
  adp::CompleteOverlapped(lpOverlapped, done);
  return ok ? TRUE : Fail(adp::Win32ErrorFromErrno(err));
}

DWORD SetFilePointer(HANDLE hFile, LONG lDistanceToMove, PLONG lpDistanceToMoveHigh, DWORD dwMoveMethod) {
  FileRef f(hFile);
  if (!f) return INVALID_SET_FILE_POINTER;
  // Without a high part the distance is a signed 32-bit value, and the result must fit 32 bits.
  int64_t distance = lpDistanceToMoveHigh
                         ? static_cast<int64_t>(adp::Join(static_cast<DWORD>(lDistanceToMove),
                                                          static_cast<DWORD>(*lpDistanceToMoveHigh)))
                         : static_cast<int64_t>(lDistanceToMove);
  std::lock_guard<std::mutex> guard(f->IoLock());
  int64_t target = 0;
  DWORD err = adp::ComputeMove(*f.get(), distance, dwMoveMethod, target);
  if (err == ERROR_SUCCESS && !lpDistanceToMoveHigh && target > 0xFFFFFFFFLL) err = ERROR_INVALID_PARAMETER;
  if (err != ERROR_SUCCESS) {
    SetLastError(err);
    return INVALID_SET_FILE_POINTER;
  }
  f->Position() = target;
  if (lpDistanceToMoveHigh) *lpDistanceToMoveHigh = static_cast<LONG>(static_cast<uint64_t>(target) >> 32);
  SetLastError(ERROR_SUCCESS);  // INVALID_SET_FILE_POINTER can be a valid low part
  return static_cast<DWORD>(static_cast<uint64_t>(target) & 0xFFFFFFFFu);
}

BOOL SetFilePointerEx(HANDLE hFile, LARGE_INTEGER liDistanceToMove, PLARGE_INTEGER lpNewFilePointer,
                      DWORD dwMoveMethod) {
  FileRef f(hFile);
  if (!f) return FALSE;
  std::lock_guard<std::mutex> guard(f->IoLock());
  int64_t target = 0;
  if (DWORD err = adp::ComputeMove(*f.get(), liDistanceToMove.QuadPart, dwMoveMethod, target)) return Fail(err);
  f->Position() = target;
  if (lpNewFilePointer) lpNewFilePointer->QuadPart = target;
  return TRUE;
}

BOOL SetEndOfFile(HANDLE hFile) {
  FileRef f(hFile);
  if (!f) return FALSE;
  if (!f->CanTruncate()) return Fail(ERROR_ACCESS_DENIED);
  std::lock_guard<std::mutex> guard(f->IoLock());
  if (::ftruncate(f->Fd(), f->Position()) != 0) return Fail(adp::Win32ErrorFromErrno(errno));
  return TRUE;
}

DWORD GetFileSize(HANDLE hFile, LPDWORD lpFileSizeHigh) {
  FileRef f(hFile);
  if (!f) return INVALID_FILE_SIZE;
  int64_t size = 0;
  if (!adp::FileSize(f->Fd(), size)) {
    SetLastError(adp::Win32ErrorFromErrno(errno));
    return INVALID_FILE_SIZE;
  }
  if (lpFileSizeHigh) *lpFileSizeHigh = static_cast<DWORD>(static_cast<uint64_t>(size) >> 32);
  SetLastError(ERROR_SUCCESS);  // INVALID_FILE_SIZE can be a valid low part
  return static_cast<DWORD>(static_cast<uint64_t>(size) & 0xFFFFFFFFu);
}

BOOL GetFileSizeEx(HANDLE hFile, PLARGE_INTEGER lpFileSize) {
  FileRef f(hFile);
  if (!f) return FALSE;
  if (!lpFileSize) return Fail(ERROR_INVALID_PARAMETER);
  int64_t size = 0;
  if (!adp::FileSize(f->Fd(), size)) return Fail(adp::Win32ErrorFromErrno(errno));
  lpFileSize->QuadPart = size;
  return TRUE;
}

DWORD GetFileType(HANDLE hFile) {
  FileRef f(hFile);
  if (!f) return FILE_TYPE_UNKNOWN;
  struct stat st;
  if (::fstat(f->Fd(), &st) != 0) return FILE_TYPE_UNKNOWN;
  SetLastError(ERROR_SUCCESS);
  if (S_ISCHR(st.st_mode)) return FILE_TYPE_CHAR;
  if (S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode)) return FILE_TYPE_PIPE;
  return FILE_TYPE_DISK;
}

BOOL FlushFileBuffers(HANDLE hFile) {
  FileRef f(hFile);
  if (!f) return FALSE;
  if (!f->CanWrite()) return Fail(ERROR_ACCESS_DENIED);
  if (::fsync(f->Fd()) != 0) return Fail(adp::Win32ErrorFromErrno(errno));
  return TRUE;
}

BOOL LockFile(HANDLE hFile, DWORD dwFileOffsetLow, DWORD dwFileOffsetHigh, DWORD nNumberOfBytesToLockLow,
              DWORD nNumberOfBytesToLockHigh) {
  FileRef f(hFile);
  if (!f) return FALSE;
  DWORD err = f->Locks().TryLock(f->Fd(), adp::Join(dwFileOffsetLow, dwFileOffsetHigh),
                                 adp::Join(nNumberOfBytesToLockLow, nNumberOfBytesToLockHigh), true);
  return err == ERROR_SUCCESS ? TRUE : Fail(err);
}

BOOL UnlockFile(HANDLE hFile, DWORD dwFileOffsetLow, DWORD dwFileOffsetHigh, DWORD nNumberOfBytesToUnlockLow,
                DWORD nNumberOfBytesToUnlockHigh) {
  FileRef f(hFile);
  if (!f) return FALSE;
  DWORD err = f->Locks().Unlock(f->Fd(), adp::Join(dwFileOffsetLow, dwFileOffsetHigh),
                                adp::Join(nNumberOfBytesToUnlockLow, nNumberOfBytesToUnlockHigh));
  return err == ERROR_SUCCESS ? TRUE : Fail(err);
}

BOOL LockFileEx(HANDLE hFile, DWORD dwFlags, DWORD dwReserved, DWORD nNumberOfBytesToLockLow,
                DWORD nNumberOfBytesToLockHigh, LPOVERLAPPED lpOverlapped) {
  FileRef f(hFile);
  if (!f) return FALSE;
  if (!lpOverlapped || dwReserved != 0) return Fail(ERROR_INVALID_PARAMETER);
  uint64_t offset = static_cast<uint64_t>(adp::OverlappedOffset(lpOverlapped));
  uint64_t length = adp::Join(nNumberOfBytesToLockLow, nNumberOfBytesToLockHigh);
  bool exclusive = dwFlags & LOCKFILE_EXCLUSIVE_LOCK;
  // A waiting lock polls: OFD waits cannot be cancelled, and the conflicting handle may be ours.
  for (int pause = 1;; pause = pause < 16 ? pause * 2 : pause) {
    DWORD err = f->Locks().TryLock(f->Fd(), offset, length, exclusive);
    if (err == ERROR_SUCCESS) return TRUE;
    if (err != ERROR_LOCK_VIOLATION || (dwFlags & LOCKFILE_FAIL_IMMEDIATELY)) return Fail(err);
    std::this_thread::sleep_for(std::chrono::milliseconds(pause));
  }
}

BOOL UnlockFileEx(HANDLE hFile, DWORD dwReserved, DWORD nNumberOfBytesToUnlockLow, DWORD nNumberOfBytesToUnlockHigh,
                  LPOVERLAPPED lpOverlapped) {
  FileRef f(hFile);
  if (!f) return FALSE;
  if (!lpOverlapped || dwReserved != 0) return Fail(ERROR_INVALID_PARAMETER);
  DWORD err = f->Locks().Unlock(f->Fd(), static_cast<uint64_t>(adp::OverlappedOffset(lpOverlapped)),
                                adp::Join(nNumberOfBytesToUnlockLow, nNumberOfBytesToUnlockHigh));
  return err == ERROR_SUCCESS ? TRUE : Fail(err);
}

}  // extern "C"
