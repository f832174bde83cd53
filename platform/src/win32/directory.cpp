// Names in the file system: attributes, folders, deleting, moving, copying and finding files.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "adplatform.h"
#include "direct.h"
#include "win32/fsutil.h"
#include "win32/handle.h"

namespace adp {
namespace {

BOOL Fail(DWORD error) {
  ::SetLastError(error);
  return FALSE;
}

DWORD AttributesOf(const struct stat& st) {
  if (S_ISDIR(st.st_mode)) return FILE_ATTRIBUTE_DIRECTORY;
  return (st.st_mode & 0222) == 0 ? FILE_ATTRIBUTE_READONLY : FILE_ATTRIBUTE_NORMAL;
}

void SplitSize(uint64_t size, DWORD& high, DWORD& low) {
  high = static_cast<DWORD>(size >> 32);
  low = static_cast<DWORD>(size & 0xFFFFFFFFu);
}

// Linux keeps no creation time in stat; the older of change and modification time stands in.
FILETIME CreationTime(const struct stat& st) {
  bool changeFirst = st.st_ctim.tv_sec < st.st_mtim.tv_sec ||
                     (st.st_ctim.tv_sec == st.st_mtim.tv_sec && st.st_ctim.tv_nsec < st.st_mtim.tv_nsec);
  return FileTimeFromTimespec(changeFirst ? st.st_ctim : st.st_mtim);
}

bool StatPath(const char* name, std::string& path, struct stat& st, DWORD& error) {
  if (name == nullptr) {
    error = ERROR_INVALID_PARAMETER;
    return false;
  }
  path = NativePath(name);
  if (path.empty()) {
    error = ERROR_PATH_NOT_FOUND;
    return false;
  }
  if (::stat(path.c_str(), &st) != 0) {
    error = ErrorForPath(errno, path);
    return false;
  }
  return true;
}

// '*' any run, '?' one character, without regard to ASCII case.
bool WildcardMatch(const char* pattern, const char* name) {
  const char* starPattern = nullptr;
  const char* starName = nullptr;
  while (*name) {
    if (*pattern == '*') {
      starPattern = ++pattern;
      starName = name;
    } else if (*pattern == '?' || std::tolower(static_cast<unsigned char>(*pattern)) ==
                                      std::tolower(static_cast<unsigned char>(*name))) {
      ++pattern;
      ++name;
    } else if (starPattern) {
      pattern = starPattern;
      name = ++starName;
    } else {
      return false;
    }
  }
  while (*pattern == '*') ++pattern;
  return *pattern == '\0';
}

class FindObject final : public KernelObject {
 public:
  explicit FindObject(std::vector<WIN32_FIND_DATAA> entries) : m_entries(std::move(entries)) {}
  bool Next(WIN32_FIND_DATAA& out) {
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_next >= m_entries.size()) return false;
    out = m_entries[m_next++];
    return true;
  }

 private:
  std::mutex m_lock;  // leaf lock: guards m_next
  std::vector<WIN32_FIND_DATAA> m_entries;
  size_t m_next = 0;
};

bool FindEntry(int dirFd, const char* name, WIN32_FIND_DATAA& data) {
  if (std::strlen(name) >= MAX_PATH) return false;  // not representable
  struct stat st;
  if (::fstatat(dirFd, name, &st, 0) != 0 && ::fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return false;
  std::memset(&data, 0, sizeof data);
  data.dwFileAttributes = AttributesOf(st);
  data.ftCreationTime = CreationTime(st);
  data.ftLastAccessTime = FileTimeFromTimespec(st.st_atim);
  data.ftLastWriteTime = FileTimeFromTimespec(st.st_mtim);
  if (!S_ISDIR(st.st_mode)) SplitSize(static_cast<uint64_t>(st.st_size), data.nFileSizeHigh, data.nFileSizeLow);
  std::strcpy(data.cFileName, name);
  return true;
}

// Every entry of `dir` whose name matches, in order of name without regard to case.
DWORD ListMatches(const std::string& dir, const std::string& pattern, std::vector<WIN32_FIND_DATAA>& out) {
  DIR* d = ::opendir(dir.c_str());
  if (!d) return errno == ENOENT || errno == ENOTDIR ? ERROR_PATH_NOT_FOUND : Win32ErrorFromErrno(errno);
  while (struct dirent* e = ::readdir(d)) {
    WIN32_FIND_DATAA data;
    if (WildcardMatch(pattern.c_str(), e->d_name) && FindEntry(::dirfd(d), e->d_name, data)) out.push_back(data);
  }
  ::closedir(d);
  std::sort(out.begin(), out.end(), [](const WIN32_FIND_DATAA& a, const WIN32_FIND_DATAA& b) {
    return FoldCase(a.cFileName) < FoldCase(b.cFileName);
  });
  return out.empty() ? ERROR_FILE_NOT_FOUND : ERROR_SUCCESS;
}

bool Exists(const std::string& path, struct stat* st = nullptr) {
  struct stat local;
  return ::lstat(path.c_str(), st ? st : &local) == 0;
}

// Copies src to dst (creating it, or replacing it unless failIfExists); 0 or a Win32 error.
DWORD CopyContents(const std::string& src, const std::string& dst, bool failIfExists) {
  int in = ::open(src.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) return ErrorForPath(errno, src);
  struct stat srcStat, dstStat;
  DWORD err = ERROR_SUCCESS;
  if (::fstat(in, &srcStat) != 0) {
    err = Win32ErrorFromErrno(errno);
  } else if (S_ISDIR(srcStat.st_mode)) {
    err = ERROR_ACCESS_DENIED;
  } else if (::stat(dst.c_str(), &dstStat) == 0 && dstStat.st_ino == srcStat.st_ino &&
             dstStat.st_dev == srcStat.st_dev) {
    err = ERROR_SHARING_VIOLATION;  // the source is open: it cannot be overwritten by its own copy
  }
  if (err != ERROR_SUCCESS) {
    ::close(in);
    return err;
  }
  int out = ::open(dst.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (failIfExists ? O_EXCL : O_TRUNC),
                   srcStat.st_mode & 0777);
  if (out < 0) {
    err = errno == EEXIST ? ERROR_FILE_EXISTS : ErrorForPath(errno, dst);
    ::close(in);
    return err;
  }
  std::vector<char> buf(1 << 16);
  for (;;) {
    ssize_t n = ::read(in, buf.data(), buf.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n < 0) err = Win32ErrorFromErrno(errno);
      break;
    }
    for (ssize_t done = 0; done < n && err == ERROR_SUCCESS;) {
      ssize_t w = ::write(out, buf.data() + done, static_cast<size_t>(n - done));
      if (w < 0 && errno != EINTR) err = Win32ErrorFromErrno(errno);
      if (w > 0) done += w;
    }
    if (err != ERROR_SUCCESS) break;
  }
  if (err == ERROR_SUCCESS) {
    struct timespec times[2] = {srcStat.st_atim, srcStat.st_mtim};  // a copy keeps its write time
    ::futimens(out, times);
  }
  ::close(out);
  ::close(in);
  if (err != ERROR_SUCCESS) ::unlink(dst.c_str());
  return err;
}

DWORD RenameNoReplace(const std::string& src, const std::string& dst) {
  if (::renameat2(AT_FDCWD, src.c_str(), AT_FDCWD, dst.c_str(), RENAME_NOREPLACE) == 0) return ERROR_SUCCESS;
  if (errno != EINVAL && errno != ENOSYS) return errno == EEXIST ? ERROR_ALREADY_EXISTS : ErrorForPath(errno, src);
  // The file system cannot refuse atomically: check, then rename.
  if (Exists(dst)) return ERROR_ALREADY_EXISTS;
  return ::rename(src.c_str(), dst.c_str()) == 0 ? ERROR_SUCCESS : ErrorForPath(errno, src);
}

DWORD RenameReplacing(const std::string& src, const std::string& dst, const struct stat& srcStat) {
  struct stat dstStat;
  if (Exists(dst, &dstStat)) {
    if (S_ISDIR(dstStat.st_mode)) return ERROR_ACCESS_DENIED;  // a folder is never replaced
    if (S_ISDIR(srcStat.st_mode)) return ERROR_ALREADY_EXISTS;
  }
  return ::rename(src.c_str(), dst.c_str()) == 0 ? ERROR_SUCCESS : ErrorForPath(errno, src);
}

void SyncFolderOf(const std::string& path) {
  int fd = ::open(DirName(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

}  // namespace
}  // namespace adp

using adp::Fail;

extern "C" {

DWORD GetFileAttributesA(LPCSTR lpFileName) {
  std::string path;
  struct stat st;
  DWORD error = 0;
  if (!adp::StatPath(lpFileName, path, st, error)) {
    SetLastError(error);
    return INVALID_FILE_ATTRIBUTES;
  }
  return adp::AttributesOf(st);
}

BOOL GetFileAttributesExA(LPCSTR lpFileName, GET_FILEEX_INFO_LEVELS fInfoLevelId, LPVOID lpFileInformation) {
  if (fInfoLevelId != GetFileExInfoStandard || lpFileInformation == nullptr) return Fail(ERROR_INVALID_PARAMETER);
  std::string path;
  struct stat st;
  DWORD error = 0;
  if (!adp::StatPath(lpFileName, path, st, error)) return Fail(error);
  auto* info = static_cast<WIN32_FILE_ATTRIBUTE_DATA*>(lpFileInformation);
  std::memset(info, 0, sizeof *info);
  info->dwFileAttributes = adp::AttributesOf(st);
  info->ftCreationTime = adp::CreationTime(st);
  info->ftLastAccessTime = adp::FileTimeFromTimespec(st.st_atim);
  info->ftLastWriteTime = adp::FileTimeFromTimespec(st.st_mtim);
  if (!S_ISDIR(st.st_mode)) adp::SplitSize(static_cast<uint64_t>(st.st_size), info->nFileSizeHigh, info->nFileSizeLow);
  return TRUE;
}

BOOL SetFileAttributesA(LPCSTR lpFileName, DWORD dwFileAttributes) {
  std::string path;
  struct stat st;
  DWORD error = 0;
  if (!adp::StatPath(lpFileName, path, st, error)) return Fail(error);
  // Only the read-only attribute has a POSIX meaning: it clears or restores the owner's write bit.
  mode_t mode = st.st_mode & 07777;
  mode = (dwFileAttributes & FILE_ATTRIBUTE_READONLY) ? (mode & ~0222) : (mode | S_IWUSR);
  if (::chmod(path.c_str(), mode) != 0) return Fail(adp::Win32ErrorFromErrno(errno));
  return TRUE;
}

BOOL CreateDirectoryA(LPCSTR lpPathName, LPSECURITY_ATTRIBUTES lpSecurityAttributes) {
  if (lpPathName == nullptr) return Fail(ERROR_INVALID_PARAMETER);
  std::string path = adp::NativePath(lpPathName);
  if (path.empty()) return Fail(ERROR_PATH_NOT_FOUND);
  if (::mkdir(path.c_str(), 0777) == 0) return TRUE;
  return Fail(errno == ENOENT ? ERROR_PATH_NOT_FOUND : adp::Win32ErrorFromErrno(errno));
}

BOOL RemoveDirectoryA(LPCSTR lpPathName) {
  if (lpPathName == nullptr) return Fail(ERROR_INVALID_PARAMETER);
  std::string path = adp::NativePath(lpPathName);
  if (::rmdir(path.c_str()) == 0) return TRUE;
  int err = errno;
  if (err == ENOTDIR && adp::Exists(path)) return Fail(ERROR_DIRECTORY);
  if (err == EEXIST) return Fail(ERROR_DIR_NOT_EMPTY);
  return Fail(adp::ErrorForPath(err, path));
}

int _mkdir(const char* dirname) {
  if (dirname == nullptr) {
    errno = EINVAL;
    return -1;
  }
  return ::mkdir(adp::NativePath(dirname).c_str(), 0777);
}

int _rmdir(const char* dirname) {
  if (dirname == nullptr) {
    errno = EINVAL;
    return -1;
  }
  return ::rmdir(adp::NativePath(dirname).c_str());
}

BOOL DeleteFileA(LPCSTR lpFileName) {
  if (lpFileName == nullptr) return Fail(ERROR_INVALID_PARAMETER);
  std::string path = adp::NativePath(lpFileName);
  if (::unlink(path.c_str()) == 0) return TRUE;
  return Fail(adp::ErrorForPath(errno, path));  // a folder gives EISDIR: ERROR_ACCESS_DENIED
}

BOOL MoveFileExA(LPCSTR lpExistingFileName, LPCSTR lpNewFileName, DWORD dwFlags) {
  if (dwFlags & MOVEFILE_DELAY_UNTIL_REBOOT) return Fail(ERROR_NOT_SUPPORTED);
  if (lpExistingFileName == nullptr || lpNewFileName == nullptr) return Fail(ERROR_INVALID_PARAMETER);
  std::string src = adp::NativePath(lpExistingFileName);
  std::string dst = adp::NativePath(lpNewFileName);
  struct stat srcStat;
  if (!adp::Exists(src, &srcStat)) return Fail(adp::ErrorForPath(errno, src));
  bool replace = dwFlags & MOVEFILE_REPLACE_EXISTING;
  DWORD err = replace ? adp::RenameReplacing(src, dst, srcStat) : adp::RenameNoReplace(src, dst);
  if (err == ERROR_NOT_SAME_DEVICE && (dwFlags & MOVEFILE_COPY_ALLOWED) && S_ISREG(srcStat.st_mode)) {
    err = adp::CopyContents(src, dst, !replace);
    if (err == ERROR_FILE_EXISTS) err = ERROR_ALREADY_EXISTS;
    if (err == ERROR_SUCCESS && ::unlink(src.c_str()) != 0) err = adp::Win32ErrorFromErrno(errno);
  }
  if (err != ERROR_SUCCESS) return Fail(err);
  if (dwFlags & MOVEFILE_WRITE_THROUGH) adp::SyncFolderOf(dst);
  return TRUE;
}

BOOL MoveFileA(LPCSTR lpExistingFileName, LPCSTR lpNewFileName) {
  return MoveFileExA(lpExistingFileName, lpNewFileName, MOVEFILE_COPY_ALLOWED);
}

BOOL CopyFileA(LPCSTR lpExistingFileName, LPCSTR lpNewFileName, BOOL bFailIfExists) {
  if (lpExistingFileName == nullptr || lpNewFileName == nullptr) return Fail(ERROR_INVALID_PARAMETER);
  DWORD err = adp::CopyContents(adp::NativePath(lpExistingFileName), adp::NativePath(lpNewFileName), bFailIfExists);
  return err == ERROR_SUCCESS ? TRUE : Fail(err);
}

HANDLE FindFirstFileA(LPCSTR lpFileName, LPWIN32_FIND_DATAA lpFindFileData) {
  if (lpFileName == nullptr || lpFindFileData == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return INVALID_HANDLE_VALUE;
  }
  std::string path = adp::NativePath(lpFileName);
  size_t slash = path.rfind('/');
  std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  std::string pattern = slash == std::string::npos ? path : path.substr(slash + 1);
  if (pattern == "*.*") pattern.resize(1);  // "*": the published meaning, every name with or without a dot
  std::vector<WIN32_FIND_DATAA> entries;
  DWORD err = pattern.empty() ? ERROR_FILE_NOT_FOUND
              : dir.find_first_of("*?") != std::string::npos ? ERROR_INVALID_NAME
                                                             : adp::ListMatches(dir, pattern, entries);
  if (err != ERROR_SUCCESS) {
    SetLastError(err);
    return INVALID_HANDLE_VALUE;
  }
  *lpFindFileData = entries.front();
  entries.erase(entries.begin());
  SetLastError(ERROR_SUCCESS);
  return adp::RegisterHandle(new adp::FindObject(std::move(entries)));
}

BOOL FindNextFileA(HANDLE hFindFile, LPWIN32_FIND_DATAA lpFindFileData) {
  adp::HandleRef<adp::FindObject> find(hFindFile);
  if (!find) return FALSE;
  if (lpFindFileData == nullptr) return Fail(ERROR_INVALID_PARAMETER);
  return find->Next(*lpFindFileData) ? TRUE : Fail(ERROR_NO_MORE_FILES);
}

BOOL FindClose(HANDLE hFindFile) {
  {
    adp::HandleRef<adp::FindObject> find(hFindFile);
    if (!find) return FALSE;
  }
  return CloseHandle(hFindFile);
}

}  // extern "C"
