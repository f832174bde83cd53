#include "win32/synch_shared.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "adplatform.h"

namespace adp {
namespace {

constexpr uint32_t kMagic = 0x4A424F4B;  // "KOBJ"
constexpr uint32_t kVersion = 1;
constexpr size_t kHeaderSize = 1024;
constexpr size_t kRegionSize = kHeaderSize + SharedRegion::kBodySize;
constexpr uint32_t kMaxUsers = 240;
constexpr size_t kMaxEncodedName = 180;

// First bytes of every region; only touched under the region's file lock.
struct RegionHeader {
  uint32_t magic;  // set last, once the body is initialised
  uint32_t kind;
  uint32_t version;
  uint32_t userCount;
  int32_t users[kMaxUsers];  // pids of the processes that have the object open
};
static_assert(sizeof(RegionHeader) <= kHeaderSize);

uint64_t Fnv1a(const std::string& text) {
  uint64_t hash = 1469598103934665603ULL;
  for (unsigned char c : text) {
    hash ^= c;
    hash *= 1099511628211ULL;
  }
  return hash;
}

std::string Hex(uint64_t value) {
  static const char digits[] = "0123456789abcdef";
  std::string out(16, '0');
  for (int i = 15; i >= 0; --i, value >>= 4) out[i] = digits[value & 0xF];
  return out;
}

// Keeps [A-Za-z0-9.-] and escapes the rest as _XX, so distinct names stay distinct.
std::string EncodeName(const std::string& name) {
  static const char digits[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : name) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '-') {
      out += static_cast<char>(c);
    } else {
      out += '_';
      out += digits[c >> 4];
      out += digits[c & 0xF];
    }
  }
  if (out.size() > kMaxEncodedName) out = out.substr(0, kMaxEncodedName - 17) + "~" + Hex(Fnv1a(name));
  return out;
}

DWORD ErrorFromErrno(int err) {
  switch (err) {
    case ENOENT: return ERROR_FILE_NOT_FOUND;
    case EACCES: case EPERM: return ERROR_ACCESS_DENIED;
    case ENAMETOOLONG: return ERROR_FILENAME_EXCED_RANGE;
    case EMFILE: case ENFILE: return ERROR_TOO_MANY_OPEN_FILES;
    case ENOMEM: return ERROR_NOT_ENOUGH_MEMORY;
    default: return ERROR_NO_SYSTEM_RESOURCES;
  }
}

class FileLock {
 public:
  explicit FileLock(int fd) : m_fd(fd) {
    while (flock(m_fd, LOCK_EX) == -1 && errno == EINTR) {
    }
  }
  ~FileLock() { flock(m_fd, LOCK_UN); }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

 private:
  int m_fd;
};

bool ProcessAlive(int32_t pid) { return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM); }

void PruneDeadUsers(RegionHeader* header) {
  uint32_t kept = 0;
  for (uint32_t i = 0; i < header->userCount && i < kMaxUsers; ++i)
    if (ProcessAlive(header->users[i])) header->users[kept++] = header->users[i];
  header->userCount = kept;
}

bool AddUser(RegionHeader* header, int32_t pid) {
  for (uint32_t i = 0; i < header->userCount; ++i)
    if (header->users[i] == pid) return true;
  if (header->userCount >= kMaxUsers) return false;
  header->users[header->userCount++] = pid;
  return true;
}

void RemoveUser(RegionHeader* header, int32_t pid) {
  uint32_t kept = 0;
  for (uint32_t i = 0; i < header->userCount && i < kMaxUsers; ++i)
    if (header->users[i] != pid) header->users[kept++] = header->users[i];
  header->userCount = kept;
}

// One attempt at opening under the file lock. Returns the mapping, or nullptr with *error set;
// *retry asks for another attempt (the name was unlinked between shm_open and the lock).
void* OpenLocked(int fd, const std::string& shmName, SharedKind kind, bool create, SharedRegion::InitFn init,
                 void* context, bool* existed, DWORD* error, bool* retry) {
  struct stat st {};
  if (fstat(fd, &st) != 0) return *error = ErrorFromErrno(errno), nullptr;
  if (st.st_nlink == 0) return *retry = true, nullptr;
  if (static_cast<size_t>(st.st_size) < kRegionSize) {
    if (!create) return *error = ERROR_FILE_NOT_FOUND, nullptr;
    if (ftruncate(fd, kRegionSize) != 0) return *error = ErrorFromErrno(errno), nullptr;
  }
  void* base = mmap(nullptr, kRegionSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (base == MAP_FAILED) return *error = ErrorFromErrno(errno), nullptr;
  auto* header = static_cast<RegionHeader*>(base);
  bool fresh = header->magic != kMagic;
  if (!fresh) {
    PruneDeadUsers(header);
    fresh = header->userCount == 0;  // every process that had it has died
  }
  DWORD failure = 0;
  if (!fresh && (header->kind != static_cast<uint32_t>(kind) || header->version != kVersion)) {
    failure = ERROR_INVALID_HANDLE;  // the name belongs to another kind of object
  } else if (fresh && !create) {
    shm_unlink(shmName.c_str());  // stale leftover: nobody can use it any more
    failure = ERROR_FILE_NOT_FOUND;
  } else if (fresh) {
    header->magic = 0;
    std::memset(static_cast<char*>(base) + kHeaderSize, 0, SharedRegion::kBodySize);
    header->kind = static_cast<uint32_t>(kind);
    header->version = kVersion;
    header->userCount = 0;
    init(static_cast<char*>(base) + kHeaderSize, context);
    header->magic = kMagic;
  }
  if (!failure && !AddUser(header, getpid())) failure = ERROR_NO_SYSTEM_RESOURCES;
  if (failure) {
    munmap(base, kRegionSize);
    *error = failure;
    return nullptr;
  }
  *existed = !fresh;
  return base;
}

}  // namespace

std::string KernelObjectName(const char* name) {
  if (!name) return {};
  std::string text(name);
  for (const char* prefix : {"Global\\", "Local\\"}) {
    size_t len = std::strlen(prefix);
    if (text.size() >= len && strncasecmp(text.c_str(), prefix, len) == 0) return text.substr(len);
  }
  return text;
}

SharedRegion::SharedRegion(std::string shmName, int fd, void* base)
    : m_shmName(std::move(shmName)), m_fd(fd), m_base(base) {}

std::string SharedRegion::PathFor(const std::string& name) {
  return "/adp-" + Hex(Fnv1a(StateDirectory())) + "-" + EncodeName(name);
}

std::unique_ptr<SharedRegion> SharedRegion::Open(const std::string& shmName, SharedKind kind, bool create,
                                                 InitFn init, void* context, bool* existed, DWORD* error) {
  for (int attempt = 0; attempt < 16; ++attempt) {
    int fd = shm_open(shmName.c_str(), O_RDWR | O_CLOEXEC | (create ? O_CREAT : 0), 0600);
    if (fd < 0) {
      *error = ErrorFromErrno(errno);
      return nullptr;
    }
    bool retry = false;
    void* base = nullptr;
    {
      FileLock lock(fd);
      base = OpenLocked(fd, shmName, kind, create, init, context, existed, error, &retry);
    }
    if (base) return std::unique_ptr<SharedRegion>(new SharedRegion(shmName, fd, base));
    close(fd);
    if (!retry) return nullptr;
  }
  *error = ERROR_BUSY;
  return nullptr;
}

SharedRegion::~SharedRegion() {
  Detach();
  munmap(m_base, kRegionSize);
  close(m_fd);
}

void SharedRegion::Detach() {
  if (m_detached) return;
  m_detached = true;
  FileLock lock(m_fd);
  auto* header = static_cast<RegionHeader*>(m_base);
  RemoveUser(header, getpid());
  PruneDeadUsers(header);
  struct stat st {};
  if (header->userCount == 0 && fstat(m_fd, &st) == 0 && st.st_nlink > 0) shm_unlink(m_shmName.c_str());
}

void* SharedRegion::Body() const { return static_cast<char*>(m_base) + kHeaderSize; }

}  // namespace adp
