// Paths: the state directory, Windows-style path translation, and the Win32 calls that hand out
// folders and names (temporary folder and files, system folder, full and current paths).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "adplatform.h"
#include "win32/fsutil.h"

namespace adp {
namespace {

std::string EnvOrEmpty(const char* name) {
  const char* v = std::getenv(name);
  return v ? std::string(v) : std::string();
}

std::string WithoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

bool IsSeparator(char c) { return c == '/' || c == '\\'; }

bool HasDrivePrefix(const char* p) {
  return ((p[0] >= 'A' && p[0] <= 'Z') || (p[0] >= 'a' && p[0] <= 'z')) && p[1] == ':' &&
         (p[2] == '\0' || IsSeparator(p[2]));
}

std::string CurrentDirectory() {
  std::vector<char> buf(PATH_MAX);
  for (;;) {
    if (::getcwd(buf.data(), buf.size())) return std::string(buf.data());
    if (errno != ERANGE) return std::string();
    buf.resize(buf.size() * 2);
  }
}

// "." and ".." resolved by name, repeated separators collapsed; a trailing '/' is kept.
std::string NormalizeAbsolute(const std::string& path) {
  std::vector<std::string> parts;
  size_t i = 0;
  while (i < path.size()) {
    size_t j = path.find('/', i);
    if (j == std::string::npos) j = path.size();
    std::string part = path.substr(i, j - i);
    if (part == "..") {
      if (!parts.empty()) parts.pop_back();
    } else if (!part.empty() && part != ".") {
      parts.push_back(part);
    }
    i = j + 1;
  }
  std::string out;
  for (const auto& part : parts) out += "/" + part;
  if (out.empty()) return "/";
  if (path.back() == '/') out += '/';
  return out;
}

}  // namespace

std::string StateDirectory() {
  std::string dir = EnvOrEmpty("ARCHIVEDEPOT_HOME");
  if (dir.empty()) {
    std::string xdg = EnvOrEmpty("XDG_DATA_HOME");
    if (!xdg.empty()) {
      dir = xdg + "/archivedepot";
    } else {
      std::string home = EnvOrEmpty("HOME");
      dir = home.empty() ? "/tmp/archivedepot-" + std::to_string(::getuid()) : home + "/.local/share/archivedepot";
    }
  }
  dir = WithoutTrailingSlashes(NativePath(dir.c_str()));
  MakeDirectories(dir);
  return dir;
}

std::string RuntimeDirectory() {
  std::string dir = StateDirectory() + "/run";
  MakeDirectories(dir);
  return dir;
}

std::string NativePath(const char* path) {
  if (path == nullptr) return std::string();
  const char* p = path;
  // The "\\?\" long-path prefix carries no meaning here.
  if (IsSeparator(p[0]) && IsSeparator(p[1]) && p[2] == '?' && IsSeparator(p[3])) p += 4;
  if (HasDrivePrefix(p)) {
    p += 2;
    if (*p == '\0') return "/";
  }
  std::string out;
  out.reserve(std::strlen(p));
  for (; *p; ++p) {
    char c = IsSeparator(*p) ? '/' : *p;
    if (c == '/' && !out.empty() && out.back() == '/') continue;
    out += c;
  }
  return out;
}

std::string WindowsDirectory() {
  std::string dir = StateDirectory() + "/windows";
  MakeDirectories(dir);
  return dir;
}

std::string SystemDirectory() {
  std::string dir = WindowsDirectory() + "/system32";
  MakeDirectories(dir);
  return dir;
}

std::string TempDirectory() {
  std::string dir = EnvOrEmpty("TMPDIR");
  if (dir.empty()) dir = "/tmp";
  dir = NativePath(dir.c_str());
  if (dir.back() != '/') dir += '/';
  return dir;
}

}  // namespace adp

namespace {

UINT CopyOutFolder(const std::string& dir, LPSTR buffer, UINT size) {
  if (dir.empty()) {
    SetLastError(ERROR_PATH_NOT_FOUND);
    return 0;
  }
  return adp::CopyOutString(dir, buffer, size);
}

std::string TempFileName(const std::string& dir, const std::string& prefix, UINT number) {
  char hex[16];
  std::snprintf(hex, sizeof hex, "%X", number & 0xFFFFu);
  return dir + prefix + hex + ".TMP";
}

// Creates the first free name from a time-based start; 0 when every number is taken.
UINT CreateUniqueTempFile(const std::string& dir, const std::string& prefix, std::string& name) {
  UINT start = static_cast<UINT>((adp::SystemMilliseconds() ^ static_cast<uint64_t>(::getpid()) << 5) & 0xFFFFu);
  for (UINT i = 0; i < 0xFFFFu; ++i) {
    UINT number = (start + i) % 0xFFFFu + 1;  // 1 .. 0xFFFF
    name = TempFileName(dir, prefix, number);
    int fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd >= 0) {
      ::close(fd);
      return number;
    }
    if (errno != EEXIST) {
      SetLastError(adp::ErrorForPath(errno, name));
      return 0;
    }
  }
  SetLastError(ERROR_FILE_EXISTS);
  return 0;
}

}  // namespace

extern "C" {

DWORD GetTempPathA(DWORD nBufferLength, LPSTR lpBuffer) {
  return adp::CopyOutString(adp::TempDirectory(), lpBuffer, nBufferLength);
}

UINT GetTempFileNameA(LPCSTR lpPathName, LPCSTR lpPrefixString, UINT uUnique, LPSTR lpTempFileName) {
  if (lpPathName == nullptr || lpTempFileName == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  if (std::strlen(lpPathName) > MAX_PATH - 14) {
    SetLastError(ERROR_BUFFER_OVERFLOW);
    return 0;
  }
  std::string dir = adp::NativePath(*lpPathName ? lpPathName : ".");
  struct stat st;
  if (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    SetLastError(ERROR_DIRECTORY);
    return 0;
  }
  if (dir.back() != '/') dir += '/';
  std::string prefix = lpPrefixString ? std::string(lpPrefixString).substr(0, 3) : std::string();
  std::string name;
  UINT result = uUnique;
  if (uUnique != 0) {
    name = TempFileName(dir, prefix, uUnique);
  } else if ((result = CreateUniqueTempFile(dir, prefix, name)) == 0) {
    return 0;
  }
  std::memcpy(lpTempFileName, name.c_str(), name.size() + 1);
  SetLastError(ERROR_SUCCESS);
  return result;
}

DWORD GetFullPathNameA(LPCSTR lpFileName, DWORD nBufferLength, LPSTR lpBuffer, LPSTR* lpFilePart) {
  if (lpFileName == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  if (*lpFileName == '\0') {
    SetLastError(ERROR_INVALID_NAME);
    return 0;
  }
  std::string path = adp::NativePath(lpFileName);
  if (path[0] != '/') path = adp::CurrentDirectory() + "/" + path;
  path = adp::NormalizeAbsolute(path);
  DWORD result = adp::CopyOutString(path, lpBuffer, nBufferLength);
  if (lpFilePart && result == path.size()) {
    *lpFilePart = path.back() == '/' ? nullptr : lpBuffer + path.rfind('/') + 1;
  }
  return result;
}

DWORD GetCurrentDirectoryA(DWORD nBufferLength, LPSTR lpBuffer) {
  std::string dir = adp::CurrentDirectory();
  if (dir.empty()) {
    SetLastError(adp::Win32ErrorFromErrno(errno));
    return 0;
  }
  return adp::CopyOutString(dir, lpBuffer, nBufferLength);
}

BOOL SetCurrentDirectoryA(LPCSTR lpPathName) {
  if (lpPathName == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  std::string path = adp::NativePath(lpPathName);
  if (::chdir(path.c_str()) != 0) {
    SetLastError(adp::ErrorForPath(errno, path));
    return FALSE;
  }
  return TRUE;
}

UINT GetWindowsDirectoryA(LPSTR lpBuffer, UINT uSize) {
  return CopyOutFolder(adp::WindowsDirectory(), lpBuffer, uSize);
}

UINT GetSystemDirectoryA(LPSTR lpBuffer, UINT uSize) {
  return CopyOutFolder(adp::SystemDirectory(), lpBuffer, uSize);
}

}  // extern "C"
