// IStream over a global memory block (CreateStreamOnHGlobal). Clones share the block and its
// logical size but keep their own seek pointer. The block may be larger than the stream: it
// grows by doubling so byte-wise writes stay cheap.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <vector>

#include "objbase.h"

namespace {

// Recognises this implementation behind an IStream pointer (GetHGlobalFromStream).
DEFINE_GUID(IID_AdHGlobalStream, 0x5b0c7c61, 0x3a4e, 0x4f0b, 0x9d, 0x1e, 0x6a, 0x2b, 0x40, 0x11, 0x8c, 0x21);

constexpr ULONGLONG kMaxSize = 0xFFFFFFFFull;
constexpr ULONG kCopyChunk = 64 * 1024;

struct SharedMemory {
  // Guards h, size and the seek pointer of every stream sharing this memory. Lock order: this
  // lock, then the global-memory table inside the Global* calls. Never held across a call into
  // another stream (CopyTo).
  std::mutex lock;
  HGLOBAL h = nullptr;
  ULONGLONG size = 0;
  bool deleteOnRelease = false;

  ~SharedMemory() {
    if (deleteOnRelease && h) GlobalFree(h);
  }
};

// GlobalLock for the length of one operation.
class LockedBlock {
 public:
  explicit LockedBlock(HGLOBAL h) : m_h(h), m_data(static_cast<BYTE*>(GlobalLock(h))) {}
  ~LockedBlock() {
    if (m_data) GlobalUnlock(m_h);
  }
  LockedBlock(const LockedBlock&) = delete;
  LockedBlock& operator=(const LockedBlock&) = delete;
  BYTE* Data() const { return m_data; }

 private:
  HGLOBAL m_h;
  BYTE* m_data;
};

class HGlobalStream final : public IStream {
 public:
  HGlobalStream(std::shared_ptr<SharedMemory> memory, ULONGLONG position)
      : m_memory(std::move(memory)), m_position(position) {}

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (riid != IID_IUnknown && riid != IID_ISequentialStream && riid != IID_IStream &&
        riid != IID_AdHGlobalStream)
      return E_NOINTERFACE;
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
  HRESULT STDMETHODCALLTYPE Commit(DWORD) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE Revert() override { return S_OK; }
  // Region locking isn't supported by memory streams, as published.
  HRESULT STDMETHODCALLTYPE LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override {
    return STG_E_INVALIDFUNCTION;
  }
  HRESULT STDMETHODCALLTYPE UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override {
    return STG_E_INVALIDFUNCTION;
  }
  HRESULT STDMETHODCALLTYPE Stat(STATSTG* pstatstg, DWORD grfStatFlag) override;
  HRESULT STDMETHODCALLTYPE Clone(IStream** ppstm) override;

  HGLOBAL Handle() {
    std::lock_guard<std::mutex> guard(m_memory->lock);
    return m_memory->h;
  }

 private:
  ~HGlobalStream() = default;
  HRESULT ResizeLocked(ULONGLONG newSize, bool exact);
  ULONG ReadLocked(BYTE* dst, ULONG cb);

  std::atomic<ULONG> m_refs{1};
  std::shared_ptr<SharedMemory> m_memory;
  ULONGLONG m_position;  // guarded by m_memory->lock
};

// Makes the logical size newSize, zero-filling what is new. `exact` sizes the block to fit
// (SetSize); otherwise it grows by doubling (Write).
HRESULT HGlobalStream::ResizeLocked(ULONGLONG newSize, bool exact) {
  SharedMemory& m = *m_memory;
  if (newSize > kMaxSize) return STG_E_MEDIUMFULL;
  SIZE_T capacity = GlobalSize(m.h);
  if (newSize > capacity || (exact && newSize != capacity)) {
    SIZE_T target = exact ? newSize : std::max<ULONGLONG>(newSize, std::min<ULONGLONG>(kMaxSize, capacity * 2));
    HGLOBAL h = GlobalReAlloc(m.h, target, GMEM_MOVEABLE);
    if (!h) return newSize > capacity ? STG_E_MEDIUMFULL : S_OK;
    m.h = h;
  }
  if (newSize > m.size) {
    LockedBlock block(m.h);
    if (!block.Data()) return STG_E_MEDIUMFULL;
    std::memset(block.Data() + m.size, 0, newSize - m.size);
  }
  m.size = newSize;
  return S_OK;
}

ULONG HGlobalStream::ReadLocked(BYTE* dst, ULONG cb) {
  SharedMemory& m = *m_memory;
  if (m_position >= m.size || cb == 0) return 0;
  ULONG n = static_cast<ULONG>(std::min<ULONGLONG>(cb, m.size - m_position));
  LockedBlock block(m.h);
  if (!block.Data()) return 0;
  std::memcpy(dst, block.Data() + m_position, n);
  m_position += n;
  return n;
}

HRESULT HGlobalStream::Read(void* pv, ULONG cb, ULONG* pcbRead) {
  if (pcbRead) *pcbRead = 0;
  if (!pv && cb) return STG_E_INVALIDPOINTER;
  std::lock_guard<std::mutex> guard(m_memory->lock);
  ULONG n = ReadLocked(static_cast<BYTE*>(pv), cb);
  if (pcbRead) *pcbRead = n;
  return S_OK;
}

HRESULT HGlobalStream::Write(const void* pv, ULONG cb, ULONG* pcbWritten) {
  if (pcbWritten) *pcbWritten = 0;
  if (!pv && cb) return STG_E_INVALIDPOINTER;
  if (cb == 0) return S_OK;
  std::lock_guard<std::mutex> guard(m_memory->lock);
  SharedMemory& m = *m_memory;
  ULONGLONG end = m_position + cb;
  if (end > m.size) {
    HRESULT hr = ResizeLocked(end, false);  // zero-fills any gap after a seek beyond the end
    if (FAILED(hr)) return hr;
  }
  LockedBlock block(m.h);
  if (!block.Data()) return STG_E_MEDIUMFULL;
  std::memcpy(block.Data() + m_position, pv, cb);
  m_position = end;
  if (pcbWritten) *pcbWritten = cb;
  return S_OK;
}

HRESULT HGlobalStream::Seek(LARGE_INTEGER dlibMove, DWORD dwOrigin, ULARGE_INTEGER* plibNewPosition) {
  std::lock_guard<std::mutex> guard(m_memory->lock);
  long long base;
  switch (dwOrigin) {
    case STREAM_SEEK_SET: base = 0; break;
    case STREAM_SEEK_CUR: base = static_cast<long long>(m_position); break;
    case STREAM_SEEK_END: base = static_cast<long long>(m_memory->size); break;
    default: return STG_E_INVALIDFUNCTION;
  }
  long long target;
  if (__builtin_add_overflow(base, dlibMove.QuadPart, &target) || target < 0 ||
      static_cast<ULONGLONG>(target) > kMaxSize)
    return STG_E_INVALIDFUNCTION;
  m_position = static_cast<ULONGLONG>(target);
  if (plibNewPosition) plibNewPosition->QuadPart = m_position;
  return S_OK;
}

HRESULT HGlobalStream::SetSize(ULARGE_INTEGER libNewSize) {
  std::lock_guard<std::mutex> guard(m_memory->lock);
  return ResizeLocked(libNewSize.QuadPart, true);
}

HRESULT HGlobalStream::CopyTo(IStream* pstm, ULARGE_INTEGER cb, ULARGE_INTEGER* pcbRead,
                              ULARGE_INTEGER* pcbWritten) {
  if (pcbRead) pcbRead->QuadPart = 0;
  if (pcbWritten) pcbWritten->QuadPart = 0;
  if (!pstm) return STG_E_INVALIDPOINTER;
  std::vector<BYTE> buffer;
  ULONGLONG read = 0, written = 0;
  HRESULT hr = S_OK;
  while (read < cb.QuadPart) {
    ULONG want = static_cast<ULONG>(std::min<ULONGLONG>(kCopyChunk, cb.QuadPart - read));
    buffer.resize(want);
    ULONG got;
    {
      std::lock_guard<std::mutex> guard(m_memory->lock);
      got = ReadLocked(buffer.data(), want);
    }
    if (got == 0) break;
    read += got;
    ULONG put = 0;
    hr = pstm->Write(buffer.data(), got, &put);  // unlocked: pstm may be a clone of this stream
    written += put;
    if (FAILED(hr) || put < got) break;
  }
  if (pcbRead) pcbRead->QuadPart = read;
  if (pcbWritten) pcbWritten->QuadPart = written;
  return hr;
}

HRESULT HGlobalStream::Stat(STATSTG* pstatstg, DWORD grfStatFlag) {
  if (!pstatstg) return STG_E_INVALIDPOINTER;
  if (grfStatFlag & ~DWORD(STATFLAG_NONAME | STATFLAG_NOOPEN)) return STG_E_INVALIDFLAG;
  std::memset(pstatstg, 0, sizeof(*pstatstg));
  pstatstg->pwcsName = nullptr;  // a memory stream has no name
  pstatstg->type = STGTY_STREAM;
  pstatstg->grfMode = STGM_READWRITE;
  std::lock_guard<std::mutex> guard(m_memory->lock);
  pstatstg->cbSize.QuadPart = m_memory->size;
  return S_OK;
}

HRESULT HGlobalStream::Clone(IStream** ppstm) {
  if (!ppstm) return STG_E_INVALIDPOINTER;
  std::lock_guard<std::mutex> guard(m_memory->lock);
  *ppstm = new (std::nothrow) HGlobalStream(m_memory, m_position);
  return *ppstm ? S_OK : E_OUTOFMEMORY;
}

}  // namespace

extern "C" HRESULT CreateStreamOnHGlobal(HGLOBAL hGlobal, BOOL fDeleteOnRelease, LPSTREAM* ppstm) {
  if (!ppstm) return E_INVALIDARG;
  *ppstm = nullptr;
  if (hGlobal && GlobalFlags(hGlobal) == GMEM_INVALID_HANDLE) return E_INVALIDARG;
  bool ownBlock = hGlobal == nullptr;
  if (ownBlock) {
    hGlobal = GlobalAlloc(GMEM_MOVEABLE | GMEM_NODISCARD, 0);
    if (!hGlobal) return E_OUTOFMEMORY;
  }
  std::shared_ptr<SharedMemory> memory(new (std::nothrow) SharedMemory);
  HGlobalStream* stream = memory ? new (std::nothrow) HGlobalStream(memory, 0) : nullptr;
  if (!stream) {
    if (ownBlock) GlobalFree(hGlobal);
    return E_OUTOFMEMORY;
  }
  memory->h = hGlobal;
  memory->size = GlobalSize(hGlobal);
  memory->deleteOnRelease = fDeleteOnRelease != FALSE;
  *ppstm = stream;
  return S_OK;
}

extern "C" HRESULT GetHGlobalFromStream(LPSTREAM pstm, HGLOBAL* phglobal) {
  if (!pstm || !phglobal) return E_INVALIDARG;
  *phglobal = nullptr;
  IStream* own = nullptr;
  if (FAILED(pstm->QueryInterface(IID_AdHGlobalStream, reinterpret_cast<void**>(&own)))) return E_INVALIDARG;
  *phglobal = static_cast<HGlobalStream*>(own)->Handle();
  own->Release();
  return S_OK;
}
