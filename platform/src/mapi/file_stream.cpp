// OpenStreamOnFile: an IStream over a file. Clones share one open descriptor and keep their own
// seek pointer; all I/O is positional, so clones never disturb each other. A delete-on-release
// file is unlinked when the descriptor's last holder (stream or clone) goes.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

// The platform headers come first: <fcntl.h> defines LOCK_WRITE, which objidl.h declares too.
#include "adplatform.h"
#include "fileapi.h"
#include "mapiutil.h"
#include "objidl.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr ULONG kCopyChunk = 64 * 1024;
constexpr ULONG kAccessMask = STGM_WRITE | STGM_READWRITE;
constexpr ULONG kShareMask = 0x70;
constexpr ULONG kKnownFlags = SOF_UNIQUEFILENAME | STGM_CREATE | STGM_DELETEONRELEASE | kAccessMask | kShareMask;
constexpr unsigned kUniqueNames = 0x10000;  // <prefix>HHHH.TMP gives 65536 names per prefix and folder
constexpr ULONGLONG kEpochDifference = 116444736000000000ull;  // 1601-01-01 to 1970-01-01 in 100 ns

FILETIME ToFileTime(const struct timespec& ts) {
  ULONGLONG t = kEpochDifference + static_cast<ULONGLONG>(ts.tv_sec) * 10000000ull +
                static_cast<ULONGLONG>(ts.tv_nsec) / 100;
  return FILETIME{static_cast<DWORD>(t), static_cast<DWORD>(t >> 32)};
}

HRESULT ReadError(int err) { return err == ENOMEM ? STG_E_INSUFFICIENTMEMORY : STG_E_READFAULT; }
HRESULT WriteError(int err) {
  if (err == ENOSPC || err == EFBIG || err == EDQUOT) return STG_E_MEDIUMFULL;
  if (err == EBADF || err == EACCES || err == EPERM) return STG_E_ACCESSDENIED;
  return STG_E_WRITEFAULT;
}

// The open file behind a stream and its clones. Closed, and unlinked when asked, with the last
// reference.
struct OpenFile {
  int fd = -1;
  std::string nativePath;
  std::u16string displayName;  // as the caller named it; what Stat reports
  bool deleteOnRelease = false;

  OpenFile() = default;
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;
  ~OpenFile() {
    if (fd >= 0) ::close(fd);
    if (deleteOnRelease && !nativePath.empty()) ::unlink(nativePath.c_str());
  }
};

class FileStream final : public IStream {
 public:
  FileStream(std::shared_ptr<OpenFile> file, DWORD mode, ULONGLONG position)
      : m_file(std::move(file)), m_mode(mode), m_position(position) {}

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (riid != IID_IUnknown && riid != IID_ISequentialStream && riid != IID_IStream) return E_NOINTERFACE;
    *ppv = static_cast<IStream*>(this);
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++m_refs; }
  ULONG STDMETHODCALLTYPE Release() override {
    ULONG left = --m_refs;
    if (left == 0) delete this;
    return left;
  }

  HRESULT STDMETHODCALLTYPE Read(void* pv, ULONG cb, ULONG* pcbRead) override;
  HRESULT STDMETHODCALLTYPE Write(const void* pv, ULONG cb, ULONG* pcbWritten) override;
  HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER dlibMove, DWORD dwOrigin, ULARGE_INTEGER* plibNewPosition) override;
  HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER libNewSize) override;
  HRESULT STDMETHODCALLTYPE CopyTo(IStream* pstm, ULARGE_INTEGER cb, ULARGE_INTEGER* pcbRead,
                                   ULARGE_INTEGER* pcbWritten) override;
  HRESULT STDMETHODCALLTYPE Commit(DWORD grfCommitFlags) override;
  // A direct file stream has nothing to throw away.
  HRESULT STDMETHODCALLTYPE Revert() override { return S_OK; }
  HRESULT STDMETHODCALLTYPE LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override {
    return STG_E_INVALIDFUNCTION;
  }
  HRESULT STDMETHODCALLTYPE UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override {
    return STG_E_INVALIDFUNCTION;
  }
  HRESULT STDMETHODCALLTYPE Stat(STATSTG* pstatstg, DWORD grfStatFlag) override;
  HRESULT STDMETHODCALLTYPE Clone(IStream** ppstm) override;

 private:
  ~FileStream() = default;
  bool CanRead() const { return (m_mode & kAccessMask) != STGM_WRITE; }
  bool CanWrite() const { return (m_mode & kAccessMask) != STGM_READ; }
  HRESULT ReadAt(ULONGLONG offset, BYTE* dst, ULONG cb, ULONG* got);
  HRESULT WriteAt(ULONGLONG offset, const BYTE* src, ULONG cb, ULONG* put);
  ULONGLONG Position() {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_position;
  }
  void Advance(ULONGLONG by) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_position += by;
  }

  std::atomic<ULONG> m_refs{1};
  std::shared_ptr<OpenFile> m_file;
  const DWORD m_mode;
  // Guards m_position only; I/O is positional and needs no lock of ours.
  std::mutex m_lock;
  ULONGLONG m_position;
};

HRESULT FileStream::ReadAt(ULONGLONG offset, BYTE* dst, ULONG cb, ULONG* got) {
  *got = 0;
  while (*got < cb) {
    ssize_t n = ::pread(m_file->fd, dst + *got, cb - *got, static_cast<off_t>(offset + *got));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return ReadError(errno);
    if (n == 0) break;  // end of file
    *got += static_cast<ULONG>(n);
  }
  return S_OK;
}

HRESULT FileStream::WriteAt(ULONGLONG offset, const BYTE* src, ULONG cb, ULONG* put) {
  *put = 0;
  while (*put < cb) {
    ssize_t n = ::pwrite(m_file->fd, src + *put, cb - *put, static_cast<off_t>(offset + *put));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return WriteError(n < 0 ? errno : ENOSPC);
    *put += static_cast<ULONG>(n);
  }
  return S_OK;
}

HRESULT FileStream::Read(void* pv, ULONG cb, ULONG* pcbRead) {
  if (pcbRead) *pcbRead = 0;
  if (!pv && cb) return STG_E_INVALIDPOINTER;
  if (!CanRead()) return STG_E_ACCESSDENIED;
  std::lock_guard<std::mutex> guard(m_lock);  // one reader of this object's pointer at a time
  ULONG got = 0;
  HRESULT hr = ReadAt(m_position, static_cast<BYTE*>(pv), cb, &got);
  m_position += got;
  if (pcbRead) *pcbRead = got;
  return hr;
}

HRESULT FileStream::Write(const void* pv, ULONG cb, ULONG* pcbWritten) {
  if (pcbWritten) *pcbWritten = 0;
  if (!pv && cb) return STG_E_INVALIDPOINTER;
  if (!CanWrite()) return STG_E_ACCESSDENIED;
  std::lock_guard<std::mutex> guard(m_lock);
  ULONG put = 0;
  HRESULT hr = WriteAt(m_position, static_cast<const BYTE*>(pv), cb, &put);  // a gap reads as zeros
  m_position += put;
  if (pcbWritten) *pcbWritten = put;
  return hr;
}

HRESULT FileStream::Seek(LARGE_INTEGER dlibMove, DWORD dwOrigin, ULARGE_INTEGER* plibNewPosition) {
  std::lock_guard<std::mutex> guard(m_lock);
  long long base;
  switch (dwOrigin) {
    case STREAM_SEEK_SET: base = 0; break;
    case STREAM_SEEK_CUR: base = static_cast<long long>(m_position); break;
    case STREAM_SEEK_END: {
      struct stat st;
      if (::fstat(m_file->fd, &st) != 0) return STG_E_SEEKERROR;
      base = static_cast<long long>(st.st_size);
      break;
    }
    default: return STG_E_INVALIDFUNCTION;
  }
  long long target;
  if (__builtin_add_overflow(base, dlibMove.QuadPart, &target) || target < 0) return STG_E_INVALIDFUNCTION;
  m_position = static_cast<ULONGLONG>(target);
  if (plibNewPosition) plibNewPosition->QuadPart = m_position;
  return S_OK;
}

HRESULT FileStream::SetSize(ULARGE_INTEGER libNewSize) {
  if (!CanWrite()) return STG_E_ACCESSDENIED;
  if (libNewSize.QuadPart > static_cast<ULONGLONG>(INT64_MAX)) return STG_E_MEDIUMFULL;
  while (::ftruncate(m_file->fd, static_cast<off_t>(libNewSize.QuadPart)) != 0) {
    if (errno != EINTR) return WriteError(errno);
  }
  return S_OK;
}

HRESULT FileStream::CopyTo(IStream* pstm, ULARGE_INTEGER cb, ULARGE_INTEGER* pcbRead, ULARGE_INTEGER* pcbWritten) {
  if (pcbRead) pcbRead->QuadPart = 0;
  if (pcbWritten) pcbWritten->QuadPart = 0;
  if (!pstm) return STG_E_INVALIDPOINTER;
  if (!CanRead()) return STG_E_ACCESSDENIED;
  std::vector<BYTE> buffer;
  ULONGLONG read = 0, written = 0;
  HRESULT hr = S_OK;
  while (read < cb.QuadPart) {
    ULONG want = static_cast<ULONG>(std::min<ULONGLONG>(kCopyChunk, cb.QuadPart - read));
    buffer.resize(want);
    ULONG got = 0;
    hr = ReadAt(Position(), buffer.data(), want, &got);
    Advance(got);
    if (FAILED(hr) || got == 0) break;
    read += got;
    ULONG put = 0;
    hr = pstm->Write(buffer.data(), got, &put);  // no lock held: pstm may be a clone of this stream
    written += put;
    if (FAILED(hr)) break;
    if (put < got) {
      hr = STG_E_MEDIUMFULL;
      break;
    }
  }
  if (pcbRead) pcbRead->QuadPart = read;
  if (pcbWritten) pcbWritten->QuadPart = written;
  return hr;
}

HRESULT FileStream::Commit(DWORD grfCommitFlags) {
  if (grfCommitFlags & ~DWORD(0x0F)) return STG_E_INVALIDFLAG;
  if (!CanWrite() || (grfCommitFlags & STGC_DANGEROUSLYCOMMITMERELYTODISKCACHE)) return S_OK;
  // Everything already went to the file; Commit makes it durable.
  return ::fdatasync(m_file->fd) == 0 || errno == EINVAL ? S_OK : STG_E_WRITEFAULT;
}

HRESULT FileStream::Stat(STATSTG* pstatstg, DWORD grfStatFlag) {
  if (!pstatstg) return STG_E_INVALIDPOINTER;
  if (grfStatFlag & ~DWORD(STATFLAG_NONAME | STATFLAG_NOOPEN)) return STG_E_INVALIDFLAG;
  struct stat st;
  if (::fstat(m_file->fd, &st) != 0) return STG_E_ACCESSDENIED;
  std::memset(pstatstg, 0, sizeof(*pstatstg));
  if (!(grfStatFlag & STATFLAG_NONAME)) {
    const std::u16string& name = m_file->displayName;
    auto* out = static_cast<LPOLESTR>(CoTaskMemAlloc((name.size() + 1) * sizeof(OLECHAR)));
    if (!out) return STG_E_INSUFFICIENTMEMORY;
    std::copy(name.begin(), name.end(), out);
    out[name.size()] = 0;
    pstatstg->pwcsName = out;
  }
  pstatstg->type = STGTY_STREAM;
  pstatstg->cbSize.QuadPart = static_cast<ULONGLONG>(st.st_size);
  pstatstg->mtime = ToFileTime(st.st_mtim);
  pstatstg->ctime = ToFileTime(st.st_ctim);
  pstatstg->atime = ToFileTime(st.st_atim);
  pstatstg->grfMode = m_mode & (kAccessMask | kShareMask);
  return S_OK;
}

HRESULT FileStream::Clone(IStream** ppstm) {
  if (!ppstm) return STG_E_INVALIDPOINTER;
  *ppstm = new (std::nothrow) FileStream(m_file, m_mode, Position());
  return *ppstm ? S_OK : STG_E_INSUFFICIENTMEMORY;
}

// ---------------------------------------------------------------------------------------------
// Opening.

HRESULT OpenError(int err) {
  switch (err) {
    case ENOENT:
    case ENOTDIR: return MAPI_E_NOT_FOUND;
    case EACCES:
    case EPERM:
    case EROFS:
    case EISDIR:
    case ETXTBSY: return MAPI_E_NO_ACCESS;
    case ENAMETOOLONG:
    case ELOOP: return MAPI_E_INVALID_PARAMETER;
    case ENOSPC:
    case EDQUOT: return MAPI_E_NOT_ENOUGH_DISK;
    case EMFILE:
    case ENFILE:
    case ENOMEM: return MAPI_E_NOT_ENOUGH_RESOURCES;
    default: return MAPI_E_DISK_ERROR;
  }
}

int OpenFlags(ULONG ulFlags) {
  int access = (ulFlags & kAccessMask) == STGM_READ ? O_RDONLY : (ulFlags & STGM_READWRITE) ? O_RDWR : O_WRONLY;
  return access | O_CLOEXEC;
}

bool IsSeparator(char c) { return c == '/' || c == '\\'; }

// Where a unique file goes, in the caller's spelling (for Stat) and as a native folder.
struct Folder {
  std::string display;  // ends in a separator
  std::string native;   // ends in '/'
};

HRESULT UniqueFolder(LPCSTR lpszFolder, Folder& folder) {
  if (lpszFolder && *lpszFolder) {
    folder.display = lpszFolder;
    if (!IsSeparator(folder.display.back()))
      folder.display += folder.display.find('\\') != std::string::npos ? '\\' : '/';
  } else {
    char temp[MAX_PATH + 1];
    DWORD n = GetTempPathA(sizeof(temp), temp);
    if (n == 0 || n >= sizeof(temp)) return MAPI_E_NOT_FOUND;
    folder.display = temp;
  }
  folder.native = adp::NativePath(folder.display.c_str());
  if (folder.native.empty() || folder.native.back() != '/') folder.native += '/';
  struct stat st;
  if (::stat(folder.native.c_str(), &st) != 0) return OpenError(errno);
  return S_ISDIR(st.st_mode) ? S_OK : MAPI_E_NOT_FOUND;
}

// First name to try: differs between processes and between calls, so that callers rarely
// collide on the exclusive create.
unsigned UniqueStart() {
  static std::atomic<unsigned> counter{0};
  auto now = static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count());
  return (static_cast<unsigned>(::getpid()) * 2654435761u) ^ (now >> 4) ^ (counter++ * 40503u);
}

HRESULT CreateUniqueFile(const Folder& folder, const std::string& prefix, int openFlags, OpenFile& file) {
  unsigned start = UniqueStart();
  for (unsigned i = 0; i < kUniqueNames; ++i) {
    char leaf[16];
    std::snprintf(leaf, sizeof(leaf), "%s%04X.TMP", prefix.c_str(), (start + i) % kUniqueNames);
    std::string native = folder.native + leaf;
    int fd = ::open(native.c_str(), openFlags | O_CREAT | O_EXCL, 0600);
    if (fd >= 0) {
      file.fd = fd;
      file.nativePath = native;
      file.displayName = adp::Utf8ToUtf16((folder.display + leaf).c_str());
      return S_OK;
    }
    if (errno != EEXIST) return OpenError(errno);
  }
  return MAPI_E_NOT_ENOUGH_RESOURCES;  // every <prefix>HHHH.TMP name of this folder is taken
}

HRESULT OpenNamedFile(LPCSTR lpszFileName, ULONG ulFlags, OpenFile& file) {
  std::string native = adp::NativePath(lpszFileName);
  int flags = OpenFlags(ulFlags) | ((ulFlags & STGM_CREATE) ? O_CREAT | O_TRUNC : 0);
  int fd;
  do {
    fd = ::open(native.c_str(), flags, 0666);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return OpenError(errno);
  struct stat st;
  if (::fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
    ::close(fd);
    return MAPI_E_NO_ACCESS;
  }
  file.fd = fd;
  file.nativePath = native;
  file.displayName = adp::Utf8ToUtf16(lpszFileName);
  return S_OK;
}

HRESULT ValidatePrefix(LPCSTR lpszPrefix, std::string& prefix) {
  // As with GetTempFileName, only the first three characters count.
  prefix = lpszPrefix ? std::string(lpszPrefix).substr(0, 3) : std::string("SOF");
  for (char c : prefix)
    if (IsSeparator(c) || c == ':' || static_cast<unsigned char>(c) < 0x20) return MAPI_E_INVALID_PARAMETER;
  return S_OK;
}

HRESULT ValidateFlags(ULONG ulFlags, bool unique) {
  if (ulFlags & ~kKnownFlags) return MAPI_E_UNKNOWN_FLAGS;
  if ((ulFlags & kAccessMask) == kAccessMask) return MAPI_E_INVALID_PARAMETER;
  // Creating needs write access; a nameless temporary file must be created and cleaned up.
  if ((ulFlags & STGM_CREATE) && (ulFlags & kAccessMask) == STGM_READ) return MAPI_E_INVALID_PARAMETER;
  if (unique && (ulFlags & kAccessMask) == STGM_READ) return MAPI_E_INVALID_PARAMETER;
  return S_OK;
}

}  // namespace

extern "C" HRESULT STDAPICALLTYPE OpenStreamOnFile(LPALLOCATEBUFFER lpAllocateBuffer, LPFREEBUFFER lpFreeBuffer,
                                                   ULONG ulFlags, LPTSTR lpszFileName, LPTSTR lpszPrefix,
                                                   LPSTREAM* lppStream) {
  if (!lppStream) return MAPI_E_INVALID_PARAMETER;
  *lppStream = nullptr;
  if (!lpAllocateBuffer || !lpFreeBuffer) return MAPI_E_INVALID_PARAMETER;
  bool unique = (ulFlags & SOF_UNIQUEFILENAME) != 0 || lpszFileName == nullptr;
  HRESULT hr = ValidateFlags(ulFlags, unique);
  if (FAILED(hr)) return hr;
  if (!lpszFileName && (ulFlags & (STGM_CREATE | STGM_DELETEONRELEASE)) != (STGM_CREATE | STGM_DELETEONRELEASE))
    return MAPI_E_INVALID_PARAMETER;
  if (lpszFileName && !*lpszFileName && !unique) return MAPI_E_NOT_FOUND;

  auto file = std::make_shared<OpenFile>();
  if (unique) {
    std::string prefix;
    Folder folder;
    if (FAILED(hr = ValidatePrefix(lpszPrefix, prefix)) || FAILED(hr = UniqueFolder(lpszFileName, folder))) return hr;
    hr = CreateUniqueFile(folder, prefix, OpenFlags(ulFlags), *file);
  } else {
    hr = OpenNamedFile(lpszFileName, ulFlags, *file);
  }
  if (FAILED(hr)) return hr;
  file->deleteOnRelease = (ulFlags & STGM_DELETEONRELEASE) != 0;
  *lppStream = new (std::nothrow) FileStream(std::move(file), ulFlags & (kAccessMask | kShareMask), 0);
  return *lppStream ? S_OK : MAPI_E_NOT_ENOUGH_MEMORY;
}
