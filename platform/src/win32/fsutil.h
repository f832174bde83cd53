// File-system helpers shared by the file, registry, INI and module families.
#pragma once
#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "windows.h"

namespace adp {

// The stand-in folders (created when asked for) and the temporary folder ($TMPDIR or /tmp, with a
// trailing '/'). Implemented in path.cpp.
std::string WindowsDirectory();
std::string SystemDirectory();
std::string TempDirectory();

// errno as the Win32 code a file call reports. ENOENT maps to ERROR_FILE_NOT_FOUND; callers that
// know the path use ErrorForPath to tell a missing file from a missing folder.
DWORD Win32ErrorFromErrno(int err);
// As Win32ErrorFromErrno, except that ENOENT/ENOTDIR become ERROR_PATH_NOT_FOUND when the folder
// of `nativePath` is missing too.
DWORD ErrorForPath(int err, const std::string& nativePath);

// The folder part of a native path ("." when it has none) and the last component.
std::string DirName(const std::string& path);
std::string BaseName(const std::string& path);
// mkdir -p; true when the folder exists afterwards.
bool MakeDirectories(const std::string& path);

// FILETIME (100 ns since 1601) of a POSIX time.
FILETIME FileTimeFromTimespec(const timespec& ts);
FILETIME FileTimeNow();

// Reads a whole file; 0 or a Win32 error.
DWORD ReadWholeFile(const std::string& path, std::string& out);

// Bounded copy of a string result into a caller's buffer by the common Win32 rule: when it fits
// (with its NUL), copies it and returns its length; otherwise returns the size needed with the
// NUL and leaves the buffer alone.
DWORD CopyOutString(const std::string& s, LPSTR buffer, DWORD size);

// Case-insensitive (ASCII) comparison and folding.
bool EqualsNoCase(const std::string& a, const std::string& b);
std::string FoldCase(const std::string& s);

// A file read and rewritten as a whole under an exclusive flock on it. The new text is written
// beside it and renamed over it, so readers without a lock see the old or the new text, never a
// mix. A writer that wakes up holding the lock of a file that was replaced meanwhile retries on
// the current one, so writers in any number of processes serialize and lose nothing.
class LockedRewrite {
 public:
  LockedRewrite() = default;
  ~LockedRewrite();
  LockedRewrite(const LockedRewrite&) = delete;
  LockedRewrite& operator=(const LockedRewrite&) = delete;

  // Locks the file (creating it empty when missing and `create`); 0 or a Win32 error. Without
  // `create`, a missing file gives ERROR_FILE_NOT_FOUND / ERROR_PATH_NOT_FOUND.
  DWORD Open(const std::string& nativePath, bool create);
  const std::string& Text() const { return m_text; }
  // The locked file's identity, to tell whether a cached parse is still current.
  const struct stat& Stat() const { return m_stat; }
  // Atomically replaces the file with `text` (fsync first when `durable`); 0 or a Win32 error.
  // `newStat` receives the identity of the new file.
  DWORD Replace(const std::string& text, bool durable, struct stat* newStat = nullptr);

 private:
  int m_fd = -1;
  std::string m_path;
  std::string m_text;
  struct stat m_stat {};
};

}  // namespace adp
