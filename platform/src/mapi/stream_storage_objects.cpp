// The COM objects over a stream-held storage tree: IStorage for storages (the root and any
// opened below it), IStream for element streams, IEnumSTATSTG for listings.
//
// A direct storage works on the elements of its document's tree. A transacted one works on a
// private copy of its element; Commit replaces the element's contents with the copy and Revert
// takes a fresh copy. Elements that leave the tree (destroyed, replaced, superseded by a commit
// or a revert) are marked, and objects still open on them answer STG_E_REVERTED.
//
// Every object holds its document; storages also hold their parent, so ancestry checks need no
// lock. All element data is guarded by the document's lock (see Document::Lock). No lock is
// held while calling a storage or stream that isn't ours (CopyTo and MoveElementTo targets).
#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>

#include "mapi/stream_storage.h"

namespace adp::mapi {

namespace {

// Recognises our storages behind an IStorage pointer, for copies that need no serialising.
DEFINE_GUID(IID_AdStreamStorage, 0x6f1d2c0a, 0x93b4, 0x4e57, 0xa1, 0x0c, 0x5e, 0x27, 0xd9, 0x84, 0x3b, 0x16);

constexpr DWORD kAccessMask = STGM_WRITE | STGM_READWRITE;
constexpr DWORD kShareMask = 0x70;
constexpr DWORD kKnownModes = kAccessMask | kShareMask | STGM_TRANSACTED | STGM_PRIORITY | STGM_DELETEONRELEASE |
                              STGM_CREATE | STGM_CONVERT | STGM_NOSCRATCH | STGM_NOSNAPSHOT | STGM_SIMPLE |
                              STGM_DIRECT_SWMR;
constexpr DWORD kKeptModes = kAccessMask | kShareMask | STGM_TRANSACTED;
constexpr DWORD kChildMode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
constexpr ULONG kCopyChunk = 64 * 1024;

using Lock = std::lock_guard<std::mutex>;

HRESULT CheckMode(DWORD mode) {
  if (mode & ~kKnownModes) return STG_E_INVALIDFLAG;
  if ((mode & kAccessMask) == kAccessMask || (mode & kShareMask) > STGM_SHARE_DENY_NONE) return STG_E_INVALIDFLAG;
  return S_OK;
}
bool Writes(DWORD mode) { return (mode & kAccessMask) != STGM_READ; }

// The checks every create or open of an element starts with, in the order their errors rank.
template <class T>
HRESULT CheckElementCall(T** ppOut, const OLECHAR* pwcsName, bool fReservedUsed, DWORD grfMode, std::u16string& name) {
  if (!ppOut) return STG_E_INVALIDPOINTER;
  *ppOut = nullptr;
  HRESULT hr = CheckName(pwcsName, name);
  if (FAILED(hr)) return hr;
  if (fReservedUsed) return STG_E_INVALIDPARAMETER;
  return CheckMode(grfMode);
}
bool Reads(DWORD mode) { return (mode & kAccessMask) != STGM_WRITE; }

// No exception leaves a COM method: running out of memory is an HRESULT like any other.
template <typename F> HRESULT Guarded(F&& f) noexcept {
  try {
    return f();
  } catch (const std::bad_alloc&) {
    return STG_E_INSUFFICIENTMEMORY;
  } catch (...) {
    return STG_E_UNKNOWN;
  }
}

HRESULT CheckStatFlag(DWORD flag) {
  return (flag & ~DWORD(STATFLAG_NONAME | STATFLAG_NOOPEN)) ? STG_E_INVALIDFLAG : S_OK;
}

// A CoTaskMemAlloc'd copy; nullptr for an empty name.
HRESULT TaskString(const std::u16string& s, LPOLESTR* out) {
  *out = nullptr;
  if (s.empty()) return S_OK;
  auto* p = static_cast<LPOLESTR>(CoTaskMemAlloc((s.size() + 1) * sizeof(OLECHAR)));
  if (!p) return STG_E_INSUFFICIENTMEMORY;
  std::copy(s.begin(), s.end(), p);
  p[s.size()] = 0;
  *out = p;
  return S_OK;
}

// What a listing or Stat tells of an element.
struct Entry {
  std::u16string name;
  DWORD type;
  ULONGLONG size;
  FILETIME ctime, mtime, atime;
  CLSID clsid;
  DWORD stateBits;
};

Entry EntryOf(const Element& e, const std::u16string& name) {
  return Entry{name, e.type, e.data.size(), e.ctime, e.mtime, e.atime, e.clsid, e.stateBits};
}

HRESULT FillStat(const Entry& entry, DWORD mode, DWORD flag, STATSTG* st) {
  std::memset(st, 0, sizeof(*st));
  if (!(flag & STATFLAG_NONAME)) {
    HRESULT hr = TaskString(entry.name, &st->pwcsName);
    if (FAILED(hr)) return hr;
  }
  st->type = entry.type;
  st->cbSize.QuadPart = entry.type == STGTY_STREAM ? entry.size : 0;
  st->ctime = entry.ctime;
  st->mtime = entry.mtime;
  st->atime = entry.atime;
  st->grfMode = mode;
  st->clsid = entry.clsid;
  st->grfStateBits = entry.stateBits;
  return S_OK;
}

// Replaces (or adds) an element of `parent`; whatever it replaces is gone for its open objects.
void PutChild(Element& parent, ElementPtr child) {
  auto key = FoldName(child->name);
  auto it = parent.children.find(key);
  if (it == parent.children.end()) {
    parent.children.emplace(std::move(key), std::move(child));
    return;
  }
  MarkReverted(*it->second);
  it->second = std::move(child);
}

// CopyTo into one of ours: storages of the same name merge, anything else is replaced. `source`
// is a private snapshot, so its elements are taken over rather than copied again.
void MergeChildren(Element& dest, Element& source) {
  for (auto& [key, child] : source.children) {
    auto it = dest.children.find(key);
    if (it != dest.children.end() && it->second->type == STGTY_STORAGE && child->type == STGTY_STORAGE) {
      Element& existing = *it->second;
      existing.clsid = child->clsid;
      existing.stateBits = child->stateBits;
      existing.ctime = child->ctime;
      existing.mtime = child->mtime;
      existing.atime = child->atime;
      MergeChildren(existing, *child);
    } else {
      PutChild(dest, child);
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Copies into a storage that isn't ours, through its public interface only.

HRESULT ExportElement(const Element& e, IStorage* dest, const std::u16string& name, bool merge);

HRESULT ExportContents(const Element& source, IStorage* dest, bool merge) {
  HRESULT hr = dest->SetClass(source.clsid);
  if (SUCCEEDED(hr)) hr = dest->SetStateBits(source.stateBits, 0xFFFFFFFF);
  for (auto it = source.children.begin(); SUCCEEDED(hr) && it != source.children.end(); ++it)
    hr = ExportElement(*it->second, dest, it->second->name, merge);
  return hr;
}

HRESULT ExportStream(const Element& e, IStorage* dest, const std::u16string& name) {
  IStream* stream = nullptr;
  HRESULT hr = dest->CreateStream(name.c_str(), STGM_CREATE | kChildMode, 0, 0, &stream);
  if (FAILED(hr)) return hr;
  for (size_t done = 0; SUCCEEDED(hr) && done < e.data.size();) {
    ULONG want = static_cast<ULONG>(std::min<size_t>(kCopyChunk, e.data.size() - done));
    ULONG put = 0;
    hr = stream->Write(e.data.data() + done, want, &put);
    if (SUCCEEDED(hr) && put != want) hr = STG_E_MEDIUMFULL;
    done += put;
  }
  stream->Release();
  return hr;
}

HRESULT ExportStorage(const Element& e, IStorage* dest, const std::u16string& name, bool merge) {
  IStorage* sub = nullptr;
  HRESULT hr = E_FAIL;
  if (merge) hr = dest->OpenStorage(name.c_str(), nullptr, kChildMode, nullptr, 0, &sub);
  if (FAILED(hr)) hr = dest->CreateStorage(name.c_str(), STGM_CREATE | kChildMode, 0, 0, &sub);
  if (FAILED(hr)) return hr;
  hr = ExportContents(e, sub, merge);
  if (SUCCEEDED(hr)) hr = sub->Commit(STGC_DEFAULT);
  sub->Release();
  return hr;
}

HRESULT ExportElement(const Element& e, IStorage* dest, const std::u16string& name, bool merge) {
  HRESULT hr = e.type == STGTY_STREAM ? ExportStream(e, dest, name) : ExportStorage(e, dest, name, merge);
  if (SUCCEEDED(hr)) dest->SetElementTimes(name.c_str(), &e.ctime, &e.atime, &e.mtime);  // not every storage keeps times
  return hr;
}

// What CopyTo leaves out.
struct Exclusions {
  bool streams = false, storages = false;
  std::vector<std::u16string> names;  // folded

  HRESULT Read(DWORD ciid, const IID* rgiid, SNB snb) {
    if (ciid && !rgiid) return STG_E_INVALIDPOINTER;
    for (DWORD i = 0; i < ciid; ++i) {
      streams |= rgiid[i] == IID_IStream;
      storages |= rgiid[i] == IID_IStorage;
    }
    // Names are ignored when all storages are left out, as published.
    for (SNB p = snb; p && *p && !storages; ++p) names.push_back(FoldName(*p));
    return S_OK;
  }
  bool Excludes(const std::u16string& key, const Element& e) const {
    if ((e.type == STGTY_STREAM && streams) || (e.type == STGTY_STORAGE && storages)) return true;
    return std::find(names.begin(), names.end(), key) != names.end();
  }
};

// ---------------------------------------------------------------------------------------------
// Element streams.

class ElementStream final : public IStream {
 public:
  ElementStream(std::shared_ptr<Document> doc, ElementPtr node, DWORD mode, bool writeThrough, ULONGLONG position)
      : m_doc(std::move(doc)), m_node(std::move(node)), m_mode(mode), m_writeThrough(writeThrough),
        m_position(position) {}

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (riid != IID_IUnknown && riid != IID_ISequentialStream && riid != IID_IStream) return E_NOINTERFACE;
    *ppv = static_cast<IStream*>(this);
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++m_refs; }
  ULONG STDMETHODCALLTYPE Release() override;

  HRESULT STDMETHODCALLTYPE Read(void* pv, ULONG cb, ULONG* pcbRead) override;
  HRESULT STDMETHODCALLTYPE Write(const void* pv, ULONG cb, ULONG* pcbWritten) override;
  HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER dlibMove, DWORD dwOrigin, ULARGE_INTEGER* plibNewPosition) override;
  HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER libNewSize) override;
  HRESULT STDMETHODCALLTYPE CopyTo(IStream* pstm, ULARGE_INTEGER cb, ULARGE_INTEGER* pcbRead,
                                   ULARGE_INTEGER* pcbWritten) override;
  HRESULT STDMETHODCALLTYPE Commit(DWORD grfCommitFlags) override;
  // Element streams are always direct: nothing to throw away.
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
  ~ElementStream() = default;
  HRESULT CheckLive() const { return m_node->reverted ? STG_E_REVERTED : S_OK; }
  void WroteLocked() {
    m_wrote = true;
    if (m_writeThrough) m_doc->Touch();
  }
  ULONG TakeChunkLocked(std::vector<BYTE>& buffer, ULONGLONG limit);

  std::atomic<ULONG> m_refs{1};
  std::shared_ptr<Document> m_doc;
  ElementPtr m_node;
  const DWORD m_mode;
  const bool m_writeThrough;  // writes here are part of the committed tree
  ULONGLONG m_position;       // guarded by the document lock
  bool m_wrote = false;       // guarded by the document lock
};

ULONG ElementStream::Release() {
  ULONG left = --m_refs;
  if (left != 0) return left;
  if (m_writeThrough) {
    Guarded([&] {
      Lock guard(m_doc->Lock());
      return m_wrote ? m_doc->FlushLocked(false) : S_OK;
    });
  }
  delete this;
  return 0;
}

HRESULT ElementStream::Read(void* pv, ULONG cb, ULONG* pcbRead) {
  if (pcbRead) *pcbRead = 0;
  if (!pv && cb) return STG_E_INVALIDPOINTER;
  Lock guard(m_doc->Lock());
  if (FAILED(CheckLive())) return STG_E_REVERTED;
  if (!Reads(m_mode)) return STG_E_ACCESSDENIED;
  const auto& data = m_node->data;
  if (m_position >= data.size() || cb == 0) return S_OK;
  ULONG n = static_cast<ULONG>(std::min<ULONGLONG>(cb, data.size() - m_position));
  std::memcpy(pv, data.data() + m_position, n);
  m_position += n;
  if (pcbRead) *pcbRead = n;
  return S_OK;
}

HRESULT ElementStream::Write(const void* pv, ULONG cb, ULONG* pcbWritten) {
  if (pcbWritten) *pcbWritten = 0;
  if (!pv && cb) return STG_E_INVALIDPOINTER;
  return Guarded([&] {
    Lock guard(m_doc->Lock());
    if (FAILED(CheckLive())) return STG_E_REVERTED;
    if (!Writes(m_mode)) return STG_E_ACCESSDENIED;
    if (cb == 0) return S_OK;
    if (m_position > kMaxElementStream || cb > kMaxElementStream - m_position) return STG_E_MEDIUMFULL;
    auto& data = m_node->data;
    ULONGLONG end = m_position + cb;
    if (end > data.size()) data.resize(end);  // a gap after a seek beyond the end reads as zeros
    std::memcpy(data.data() + m_position, pv, cb);
    m_position = end;
    WroteLocked();
    if (pcbWritten) *pcbWritten = cb;
    return S_OK;
  });
}

HRESULT ElementStream::Seek(LARGE_INTEGER dlibMove, DWORD dwOrigin, ULARGE_INTEGER* plibNewPosition) {
  Lock guard(m_doc->Lock());
  if (FAILED(CheckLive())) return STG_E_REVERTED;
  long long base;
  switch (dwOrigin) {
    case STREAM_SEEK_SET: base = 0; break;
    case STREAM_SEEK_CUR: base = static_cast<long long>(m_position); break;
    case STREAM_SEEK_END: base = static_cast<long long>(m_node->data.size()); break;
    default: return STG_E_INVALIDFUNCTION;
  }
  long long target;
  if (__builtin_add_overflow(base, dlibMove.QuadPart, &target) || target < 0) return STG_E_INVALIDFUNCTION;
  m_position = static_cast<ULONGLONG>(target);
  if (plibNewPosition) plibNewPosition->QuadPart = m_position;
  return S_OK;
}

HRESULT ElementStream::SetSize(ULARGE_INTEGER libNewSize) {
  return Guarded([&] {
    Lock guard(m_doc->Lock());
    if (FAILED(CheckLive())) return STG_E_REVERTED;
    if (!Writes(m_mode)) return STG_E_ACCESSDENIED;
    if (libNewSize.QuadPart > kMaxElementStream) return STG_E_MEDIUMFULL;
    m_node->data.resize(libNewSize.QuadPart);
    WroteLocked();
    return S_OK;
  });
}

ULONG ElementStream::TakeChunkLocked(std::vector<BYTE>& buffer, ULONGLONG limit) {
  const auto& data = m_node->data;
  if (m_position >= data.size()) return 0;
  ULONG n = static_cast<ULONG>(std::min<ULONGLONG>({limit, kCopyChunk, data.size() - m_position}));
  buffer.assign(data.begin() + m_position, data.begin() + m_position + n);
  m_position += n;
  return n;
}

HRESULT ElementStream::CopyTo(IStream* pstm, ULARGE_INTEGER cb, ULARGE_INTEGER* pcbRead,
                              ULARGE_INTEGER* pcbWritten) {
  if (pcbRead) pcbRead->QuadPart = 0;
  if (pcbWritten) pcbWritten->QuadPart = 0;
  if (!pstm) return STG_E_INVALIDPOINTER;
  ULONGLONG read = 0, written = 0;
  HRESULT hr = Guarded([&] {
    std::vector<BYTE> buffer;
    while (read < cb.QuadPart) {
      ULONG got;
      {
        Lock guard(m_doc->Lock());
        if (FAILED(CheckLive())) return STG_E_REVERTED;
        if (!Reads(m_mode)) return STG_E_ACCESSDENIED;
        got = TakeChunkLocked(buffer, cb.QuadPart - read);
      }
      if (got == 0) break;
      read += got;
      ULONG put = 0;
      HRESULT hrWrite = pstm->Write(buffer.data(), got, &put);  // unlocked: pstm may be ours too
      written += put;
      if (FAILED(hrWrite)) return hrWrite;
      if (put < got) return STG_E_MEDIUMFULL;
    }
    return S_OK;
  });
  if (pcbRead) pcbRead->QuadPart = read;
  if (pcbWritten) pcbWritten->QuadPart = written;
  return hr;
}

HRESULT ElementStream::Commit(DWORD grfCommitFlags) {
  if (grfCommitFlags & ~DWORD(0x0F)) return STG_E_INVALIDFLAG;
  return Guarded([&] {
    Lock guard(m_doc->Lock());
    if (FAILED(CheckLive())) return STG_E_REVERTED;
    return m_writeThrough ? m_doc->FlushLocked(true) : S_OK;
  });
}

HRESULT ElementStream::Stat(STATSTG* pstatstg, DWORD grfStatFlag) {
  if (!pstatstg) return STG_E_INVALIDPOINTER;
  if (FAILED(CheckStatFlag(grfStatFlag))) return STG_E_INVALIDFLAG;
  return Guarded([&] {
    Lock guard(m_doc->Lock());
    if (FAILED(CheckLive())) return STG_E_REVERTED;
    return FillStat(EntryOf(*m_node, m_node->name), m_mode, grfStatFlag, pstatstg);
  });
}

HRESULT ElementStream::Clone(IStream** ppstm) {
  if (!ppstm) return STG_E_INVALIDPOINTER;
  *ppstm = nullptr;
  return Guarded([&] {
    Lock guard(m_doc->Lock());
    if (FAILED(CheckLive())) return STG_E_REVERTED;
    *ppstm = new ElementStream(m_doc, m_node, m_mode, m_writeThrough, m_position);
    return S_OK;
  });
}

// ---------------------------------------------------------------------------------------------
// Listings: a snapshot taken by EnumElements, shared by clones.

class StatEnum final : public IEnumSTATSTG {
 public:
  StatEnum(std::shared_ptr<const std::vector<Entry>> entries, size_t position)
      : m_entries(std::move(entries)), m_position(position) {}

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (riid != IID_IUnknown && riid != IID_IEnumSTATSTG) return E_NOINTERFACE;
    *ppv = static_cast<IEnumSTATSTG*>(this);
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++m_refs; }
  ULONG STDMETHODCALLTYPE Release() override {
    ULONG left = --m_refs;
    if (left == 0) delete this;
    return left;
  }
  HRESULT STDMETHODCALLTYPE Next(ULONG celt, STATSTG* rgelt, ULONG* pceltFetched) override;
  HRESULT STDMETHODCALLTYPE Skip(ULONG celt) override {
    Lock guard(m_lock);
    size_t left = m_entries->size() - m_position;
    m_position += std::min<size_t>(celt, left);
    return celt <= left ? S_OK : S_FALSE;
  }
  HRESULT STDMETHODCALLTYPE Reset() override {
    Lock guard(m_lock);
    m_position = 0;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Clone(IEnumSTATSTG** ppenum) override {
    if (!ppenum) return STG_E_INVALIDPOINTER;
    Lock guard(m_lock);
    *ppenum = new (std::nothrow) StatEnum(m_entries, m_position);
    return *ppenum ? S_OK : STG_E_INSUFFICIENTMEMORY;
  }

 private:
  ~StatEnum() = default;

  std::atomic<ULONG> m_refs{1};
  const std::shared_ptr<const std::vector<Entry>> m_entries;
  std::mutex m_lock;  // guards m_position; a leaf lock
  size_t m_position;
};

HRESULT StatEnum::Next(ULONG celt, STATSTG* rgelt, ULONG* pceltFetched) {
  if (pceltFetched) *pceltFetched = 0;
  if (!rgelt && celt) return STG_E_INVALIDPOINTER;
  if (!pceltFetched && celt != 1) return STG_E_INVALIDPARAMETER;
  Lock guard(m_lock);
  ULONG fetched = 0;
  for (; fetched < celt && m_position + fetched < m_entries->size(); ++fetched) {
    if (FAILED(FillStat((*m_entries)[m_position + fetched], 0, STATFLAG_DEFAULT, &rgelt[fetched]))) {
      for (ULONG i = 0; i < fetched; ++i) CoTaskMemFree(rgelt[i].pwcsName);
      return STG_E_INSUFFICIENTMEMORY;
    }
  }
  m_position += fetched;
  if (pceltFetched) *pceltFetched = fetched;
  return fetched == celt ? S_OK : S_FALSE;
}

// ---------------------------------------------------------------------------------------------
// Storages.

class Storage final : public IStorage {
 public:
  // `base` is set for a transacted storage: the element in the parent's view that `node` copies.
  Storage(std::shared_ptr<Document> doc, Storage* parent, ElementPtr node, ElementPtr base, DWORD mode, int depth);

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override { return ++m_refs; }
  ULONG STDMETHODCALLTYPE Release() override;

  HRESULT STDMETHODCALLTYPE CreateStream(const OLECHAR* pwcsName, DWORD grfMode, DWORD reserved1, DWORD reserved2,
                                         IStream** ppstm) override;
  HRESULT STDMETHODCALLTYPE OpenStream(const OLECHAR* pwcsName, void* reserved1, DWORD grfMode, DWORD reserved2,
                                       IStream** ppstm) override;
  HRESULT STDMETHODCALLTYPE CreateStorage(const OLECHAR* pwcsName, DWORD grfMode, DWORD reserved1, DWORD reserved2,
                                          IStorage** ppstg) override;
  HRESULT STDMETHODCALLTYPE OpenStorage(const OLECHAR* pwcsName, IStorage* pstgPriority, DWORD grfMode,
                                        SNB snbExclude, DWORD reserved, IStorage** ppstg) override;
  HRESULT STDMETHODCALLTYPE CopyTo(DWORD ciidExclude, const IID* rgiidExclude, SNB snbExclude,
                                   IStorage* pstgDest) override;
  HRESULT STDMETHODCALLTYPE MoveElementTo(const OLECHAR* pwcsName, IStorage* pstgDest, const OLECHAR* pwcsNewName,
                                          DWORD grfFlags) override;
  HRESULT STDMETHODCALLTYPE Commit(DWORD grfCommitFlags) override;
  HRESULT STDMETHODCALLTYPE Revert() override;
  HRESULT STDMETHODCALLTYPE EnumElements(DWORD reserved1, void* reserved2, DWORD reserved3,
                                         IEnumSTATSTG** ppenum) override;
  HRESULT STDMETHODCALLTYPE DestroyElement(const OLECHAR* pwcsName) override;
  HRESULT STDMETHODCALLTYPE RenameElement(const OLECHAR* pwcsOldName, const OLECHAR* pwcsNewName) override;
  HRESULT STDMETHODCALLTYPE SetElementTimes(const OLECHAR* pwcsName, const FILETIME* pctime, const FILETIME* patime,
                                            const FILETIME* pmtime) override;
  HRESULT STDMETHODCALLTYPE SetClass(REFCLSID clsid) override;
  HRESULT STDMETHODCALLTYPE SetStateBits(DWORD grfStateBits, DWORD grfMask) override;
  HRESULT STDMETHODCALLTYPE Stat(STATSTG* pstatstg, DWORD grfStatFlag) override;

 private:
  ~Storage();
  static Storage* Ours(IStorage* p);  // no reference taken: the caller holds p
  bool Writable() const { return Writes(m_mode); }
  bool IsWithin(const Element* e) const;
  HRESULT CheckLive() const;
  HRESULT CheckWritable() const;
  HRESULT ChangedLocked();
  ElementPtr FindLocked(const std::u16string& name) const;
  Storage* OpenChildLocked(const ElementPtr& e, DWORD mode);
  void ExcludeLocked(Element& e, SNB snb);
  ElementPtr SnapshotLocked(const Exclusions& ex) const;
  HRESULT ImportContents(Element& source);
  HRESULT ImportElement(ElementPtr element);
  HRESULT TakeElement(const OLECHAR* name, bool removable, ElementPtr& original, ElementPtr& copy);
  HRESULT RemoveIfSame(const ElementPtr& original);

  std::atomic<ULONG> m_refs{1};
  std::shared_ptr<Document> m_doc;
  Storage* const m_parent;  // one reference held
  const ElementPtr m_node;
  const ElementPtr m_base;
  const DWORD m_mode;
  const int m_depth;
  // Changes here are part of the committed tree, and go to the backing at each flush point.
  const bool m_writeThrough;
  // For a transacted storage: what Commit hands to the parent is part of the committed tree.
  const bool m_commitWriteThrough;
};

Storage::Storage(std::shared_ptr<Document> doc, Storage* parent, ElementPtr node, ElementPtr base, DWORD mode,
                 int depth)
    : m_doc(std::move(doc)), m_parent(parent), m_node(std::move(node)), m_base(std::move(base)), m_mode(mode),
      m_depth(depth), m_writeThrough((!parent || parent->m_writeThrough) && !m_base),
      m_commitWriteThrough(!parent || parent->m_writeThrough) {
  if (m_parent) m_parent->AddRef();
}

Storage::~Storage() {
  if (m_parent) m_parent->Release();
}

HRESULT Storage::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (riid != IID_IUnknown && riid != IID_IStorage && riid != IID_AdStreamStorage) return E_NOINTERFACE;
  *ppv = static_cast<IStorage*>(this);
  AddRef();
  return S_OK;
}

ULONG Storage::Release() {
  ULONG left = --m_refs;
  if (left != 0) return left;
  if (m_writeThrough && Writable()) {
    Guarded([&] {
      Lock guard(m_doc->Lock());
      return m_doc->FlushLocked(false);
    });
  }
  delete this;
  return 0;
}

Storage* Storage::Ours(IStorage* p) {
  void* own = nullptr;
  if (FAILED(p->QueryInterface(IID_AdStreamStorage, &own)) || !own) return nullptr;
  auto* s = static_cast<Storage*>(static_cast<IStorage*>(own));
  s->Release();
  return s;
}

// This storage shows e, or lies somewhere below it.
bool Storage::IsWithin(const Element* e) const {
  for (const Storage* s = this; s; s = s->m_parent)
    if (s->m_node.get() == e || s->m_base.get() == e) return true;
  return false;
}

HRESULT Storage::CheckLive() const {
  return m_node->reverted || (m_base && m_base->reverted) ? STG_E_REVERTED : S_OK;
}

HRESULT Storage::CheckWritable() const {
  if (FAILED(CheckLive())) return STG_E_REVERTED;
  return Writable() ? S_OK : STG_E_ACCESSDENIED;
}

// A failed write stays pending: the tree is dirty until a flush succeeds, and Commit says why.
HRESULT Storage::ChangedLocked() {
  if (m_writeThrough) {
    m_doc->Touch();
    m_doc->FlushLocked(false);
  }
  return S_OK;
}

ElementPtr Storage::FindLocked(const std::u16string& name) const {
  auto it = m_node->children.find(FoldName(name));
  return it == m_node->children.end() ? nullptr : it->second;
}

Storage* Storage::OpenChildLocked(const ElementPtr& e, DWORD mode) {
  bool transacted = (mode & STGM_TRANSACTED) != 0;
  ElementPtr node = transacted ? CloneTree(*e) : e;
  return new Storage(m_doc, this, std::move(node), transacted ? e : nullptr, mode & kKeptModes, m_depth + 1);
}

HRESULT Storage::CreateStream(const OLECHAR* pwcsName, DWORD grfMode, DWORD reserved1, DWORD reserved2,
                              IStream** ppstm) {
  std::u16string name;
  HRESULT hr = CheckElementCall(ppstm, pwcsName, reserved1 || reserved2, grfMode, name);
  if (FAILED(hr)) return hr;
  if (grfMode & (STGM_TRANSACTED | STGM_DELETEONRELEASE | STGM_CONVERT | STGM_PRIORITY)) return STG_E_INVALIDFUNCTION;
  return Guarded([&] {
    Lock guard(m_doc->Lock());
    HRESULT hrw = CheckWritable();
    if (FAILED(hrw)) return hrw;
    if (FindLocked(name) && !(grfMode & STGM_CREATE)) return STG_E_FILEALREADYEXISTS;
    ElementPtr e = NewElement(STGTY_STREAM, name);
    PutChild(*m_node, e);
    ChangedLocked();
    *ppstm = new ElementStream(m_doc, e, grfMode & kKeptModes, m_writeThrough, 0);
    return S_OK;
  });
}

HRESULT Storage::OpenStream(const OLECHAR* pwcsName, void* reserved1, DWORD grfMode, DWORD reserved2,
                            IStream** ppstm) {
  std::u16string name;
  HRESULT hr = CheckElementCall(ppstm, pwcsName, reserved1 || reserved2, grfMode, name);
  if (FAILED(hr)) return hr;
  if (grfMode & (STGM_CREATE | STGM_CONVERT)) return STG_E_INVALIDFLAG;
  if (grfMode & (STGM_TRANSACTED | STGM_DELETEONRELEASE | STGM_PRIORITY)) return STG_E_INVALIDFUNCTION;
  return Guarded([&] {
    Lock guard(m_doc->Lock());
    if (FAILED(CheckLive())) return STG_E_REVERTED;
    ElementPtr e = FindLocked(name);
    if (!e || e->type != STGTY_STREAM) return STG_E_FILENOTFOUND;
    if (Writes(grfMode) && !Writable()) return STG_E_ACCESSDENIED;
    *ppstm = new ElementStream(m_doc, e, grfMode & kKeptModes, m_writeThrough, 0);
    return S_OK;
  });
}

HRESULT Storage::CreateStorage(const OLECHAR* pwcsName, DWORD grfMode, DWORD reserved1, DWORD reserved2,
                               IStorage** ppstg) {
  std::u16string name;
  HRESULT hr = CheckElementCall(ppstg, pwcsName, reserved1 || reserved2, grfMode, name);
  if (FAILED(hr)) return hr;
  if (grfMode & (STGM_DELETEONRELEASE | STGM_CONVERT | STGM_PRIORITY)) return STG_E_INVALIDFUNCTION;
  return Guarded([&] {
    Lock guard(m_doc->Lock());
    HRESULT hrw = CheckWritable();
    if (FAILED(hrw)) return hrw;
    if (m_depth + 1 > kMaxStorageDepth) return STG_E_INVALIDFUNCTION;  // nesting that deep is refused
    if (FindLocked(name) && !(grfMode & STGM_CREATE)) return STG_E_FILEALREADYEXISTS;
    ElementPtr e = NewElement(STGTY_STORAGE, name);
    PutChild(*m_node, e);
    ChangedLocked();
    *ppstg = OpenChildLocked(e, grfMode);
    return S_OK;
  });
}

// snbExclude on open: the named streams come up empty and the named storages without children.
void Storage::ExcludeLocked(Element& e, SNB snb) {
  for (SNB p = snb; *p; ++p) {
    auto it = e.children.find(FoldName(*p));
    if (it == e.children.end()) continue;
    it->second->data.clear();
    MarkChildrenReverted(*it->second);
    it->second->children.clear();
  }
}

HRESULT Storage::OpenStorage(const OLECHAR* pwcsName, IStorage* pstgPriority, DWORD grfMode, SNB snbExclude,
                             DWORD reserved, IStorage** ppstg) {
  std::u16string name;
  HRESULT hr = CheckElementCall(ppstg, pwcsName, pstgPriority || reserved, grfMode, name);
  if (FAILED(hr)) return hr;
  if (grfMode & (STGM_CREATE | STGM_CONVERT)) return STG_E_INVALIDFLAG;
  if (grfMode & (STGM_DELETEONRELEASE | STGM_PRIORITY)) return STG_E_INVALIDFUNCTION;
  bool transacted = (grfMode & STGM_TRANSACTED) != 0;
  // Exclusion changes the element: a direct open needs write access for it.
  if (snbExclude && !transacted && !Writes(grfMode)) return STG_E_ACCESSDENIED;
  return Guarded([&] {
    Lock guard(m_doc->Lock());
    if (FAILED(CheckLive())) return STG_E_REVERTED;
    ElementPtr e = FindLocked(name);
    if (!e || e->type != STGTY_STORAGE) return STG_E_FILENOTFOUND;
    if (Writes(grfMode) && !Writable()) return STG_E_ACCESSDENIED;
    Storage* child = OpenChildLocked(e, grfMode);
    if (snbExclude) {
      child->ExcludeLocked(*child->m_node, snbExclude);
      child->ChangedLocked();
    }
    *ppstg = child;
    return S_OK;
  });
}

ElementPtr Storage::SnapshotLocked(const Exclusions& ex) const {
  auto top = std::make_shared<Element>();
  top->clsid = m_node->clsid;
  top->stateBits = m_node->stateBits;
  for (const auto& [key, child] : m_node->children)
    if (!ex.Excludes(key, *child)) top->children.emplace(key, CloneTree(*child));
  return top;
}

HRESULT Storage::ImportContents(Element& source) {
  Lock guard(m_doc->Lock());
  HRESULT hr = CheckWritable();
  if (FAILED(hr)) return hr;
  if (m_depth + StorageLevels(source) - 1 > kMaxStorageDepth) return STG_E_INVALIDFUNCTION;
  m_node->clsid = source.clsid;
  m_node->stateBits = source.stateBits;
  MergeChildren(*m_node, source);
  return ChangedLocked();
}

HRESULT Storage::CopyTo(DWORD ciidExclude, const IID* rgiidExclude, SNB snbExclude, IStorage* pstgDest) {
  if (!pstgDest) return STG_E_INVALIDPOINTER;
  return Guarded([&] {
    Exclusions ex;
    HRESULT hr = ex.Read(ciidExclude, rgiidExclude, snbExclude);
    if (FAILED(hr)) return hr;
    ElementPtr snapshot;
    {
      Lock guard(m_doc->Lock());
      if (FAILED(CheckLive())) return STG_E_REVERTED;
      snapshot = SnapshotLocked(ex);
    }
    if (Storage* dest = Ours(pstgDest)) {
      if (dest->IsWithin(m_node.get())) return STG_E_ACCESSDENIED;  // into itself or below itself
      return dest->ImportContents(*snapshot);
    }
    return ExportContents(*snapshot, pstgDest, true);
  });
}

HRESULT Storage::ImportElement(ElementPtr element) {
  Lock guard(m_doc->Lock());
  HRESULT hr = CheckWritable();
  if (FAILED(hr)) return hr;
  if (m_depth + StorageLevels(*element) > kMaxStorageDepth) return STG_E_INVALIDFUNCTION;
  PutChild(*m_node, std::move(element));
  return ChangedLocked();
}

HRESULT Storage::TakeElement(const OLECHAR* name, bool removable, ElementPtr& original, ElementPtr& copy) {
  std::u16string checked;
  HRESULT hr = CheckName(name, checked);
  if (FAILED(hr)) return hr;
  Lock guard(m_doc->Lock());
  if (FAILED(hr = removable ? CheckWritable() : CheckLive())) return hr;
  original = FindLocked(checked);
  if (!original) return STG_E_FILENOTFOUND;
  copy = CloneTree(*original);
  return S_OK;
}

HRESULT Storage::RemoveIfSame(const ElementPtr& original) {
  Lock guard(m_doc->Lock());
  if (FAILED(CheckLive())) return STG_E_REVERTED;
  auto it = m_node->children.find(FoldName(original->name));
  if (it == m_node->children.end() || it->second != original) return S_OK;  // already changed meanwhile
  MarkReverted(*original);
  m_node->children.erase(it);
  return ChangedLocked();
}

HRESULT Storage::MoveElementTo(const OLECHAR* pwcsName, IStorage* pstgDest, const OLECHAR* pwcsNewName,
                               DWORD grfFlags) {
  if (!pstgDest) return STG_E_INVALIDPOINTER;
  std::u16string newName;
  HRESULT hr = CheckName(pwcsNewName, newName);
  if (FAILED(hr)) return hr;
  if (grfFlags != STGMOVE_MOVE && grfFlags != STGMOVE_COPY) return STG_E_INVALIDFLAG;
  bool move = grfFlags == STGMOVE_MOVE;
  return Guarded([&] {
    ElementPtr original, copy;
    HRESULT hrm = TakeElement(pwcsName, move, original, copy);
    if (FAILED(hrm)) return hrm;
    copy->name = newName;
    if (Storage* dest = Ours(pstgDest)) {
      bool sameSlot = dest->m_node == m_node && FoldName(newName) == FoldName(original->name);
      if (sameSlot || (original->type == STGTY_STORAGE && dest->IsWithin(original.get()))) return STG_E_ACCESSDENIED;
      hrm = dest->ImportElement(copy);
    } else {
      hrm = ExportElement(*copy, pstgDest, newName, false);
    }
    if (FAILED(hrm) || !move) return hrm;
    return RemoveIfSame(original);
  });
}

HRESULT Storage::Commit(DWORD grfCommitFlags) {
  if (grfCommitFlags & ~DWORD(0x0F)) return STG_E_INVALIDFLAG;
  return Guarded([&] {
    Lock guard(m_doc->Lock());
    if (FAILED(CheckLive())) return STG_E_REVERTED;
    if (!m_base) return m_writeThrough && Writable() ? m_doc->FlushLocked(true) : S_OK;
    if (!Writable()) return S_OK;  // a read-only copy has nothing to hand on
    Children committed = CloneChildren(*m_node);
    MarkChildrenReverted(*m_base);
    m_base->children = std::move(committed);
    m_base->clsid = m_node->clsid;
    m_base->stateBits = m_node->stateBits;
    m_base->ctime = m_node->ctime;
    m_base->mtime = m_node->mtime;
    m_base->atime = m_node->atime;
    if (!m_commitWriteThrough) return S_OK;
    m_doc->Touch();
    return m_doc->FlushLocked(true);
  });
}

HRESULT Storage::Revert() {
  return Guarded([&] {
    Lock guard(m_doc->Lock());
    if (FAILED(CheckLive())) return STG_E_REVERTED;
    if (!m_base) return S_OK;  // direct: there is nothing held back to drop
    Children fresh = CloneChildren(*m_base);
    MarkChildrenReverted(*m_node);
    m_node->children = std::move(fresh);
    m_node->clsid = m_base->clsid;
    m_node->stateBits = m_base->stateBits;
    m_node->ctime = m_base->ctime;
    m_node->mtime = m_base->mtime;
    m_node->atime = m_base->atime;
    return S_OK;
  });
}

HRESULT Storage::EnumElements(DWORD reserved1, void* reserved2, DWORD reserved3, IEnumSTATSTG** ppenum) {
  if (!ppenum) return STG_E_INVALIDPOINTER;
  *ppenum = nullptr;
  if (reserved1 || reserved2 || reserved3) return STG_E_INVALIDPARAMETER;
  return Guarded([&] {
    auto entries = std::make_shared<std::vector<Entry>>();
    {
      Lock guard(m_doc->Lock());
      if (FAILED(CheckLive())) return STG_E_REVERTED;
      entries->reserve(m_node->children.size());
      for (const auto& [key, child] : m_node->children) entries->push_back(EntryOf(*child, child->name));
    }
    *ppenum = new StatEnum(std::move(entries), 0);
    return S_OK;
  });
}

HRESULT Storage::DestroyElement(const OLECHAR* pwcsName) {
  std::u16string name;
  HRESULT hr = CheckName(pwcsName, name);
  if (FAILED(hr)) return hr;
  return Guarded([&] {
    Lock guard(m_doc->Lock());
    HRESULT hrw = CheckWritable();
    if (FAILED(hrw)) return hrw;
    auto it = m_node->children.find(FoldName(name));
    if (it == m_node->children.end()) return STG_E_FILENOTFOUND;
    MarkReverted(*it->second);
    m_node->children.erase(it);
    return ChangedLocked();
  });
}

HRESULT Storage::RenameElement(const OLECHAR* pwcsOldName, const OLECHAR* pwcsNewName) {
  std::u16string oldName, newName;
  HRESULT hr = CheckName(pwcsOldName, oldName);
  if (SUCCEEDED(hr)) hr = CheckName(pwcsNewName, newName);
  if (FAILED(hr)) return hr;
  return Guarded([&] {
    Lock guard(m_doc->Lock());
    HRESULT hrw = CheckWritable();
    if (FAILED(hrw)) return hrw;
    auto oldKey = FoldName(oldName), newKey = FoldName(newName);
    auto it = m_node->children.find(oldKey);
    if (it == m_node->children.end()) return STG_E_FILENOTFOUND;
    if (newKey != oldKey && m_node->children.count(newKey)) return STG_E_FILEALREADYEXISTS;
    ElementPtr e = it->second;
    m_node->children.erase(it);
    e->name = newName;  // objects open on the element keep working under its new name
    m_node->children.emplace(std::move(newKey), std::move(e));
    return ChangedLocked();
  });
}

HRESULT Storage::SetElementTimes(const OLECHAR* pwcsName, const FILETIME* pctime, const FILETIME* patime,
                                 const FILETIME* pmtime) {
  std::u16string name;
  if (pwcsName) {
    HRESULT hr = CheckName(pwcsName, name);
    if (FAILED(hr)) return hr;
  }
  return Guarded([&] {
    Lock guard(m_doc->Lock());
    HRESULT hrw = CheckWritable();
    if (FAILED(hrw)) return hrw;
    // No name: the times of this storage itself.
    ElementPtr target = pwcsName ? FindLocked(name) : m_node;
    if (!target) return STG_E_FILENOTFOUND;
    if (pctime) target->ctime = *pctime;
    if (patime) target->atime = *patime;
    if (pmtime) target->mtime = *pmtime;
    return ChangedLocked();
  });
}

HRESULT Storage::SetClass(REFCLSID clsid) {
  return Guarded([&] {
    Lock guard(m_doc->Lock());
    HRESULT hr = CheckWritable();
    if (FAILED(hr)) return hr;
    m_node->clsid = clsid;
    return ChangedLocked();
  });
}

HRESULT Storage::SetStateBits(DWORD grfStateBits, DWORD grfMask) {
  return Guarded([&] {
    Lock guard(m_doc->Lock());
    HRESULT hr = CheckWritable();
    if (FAILED(hr)) return hr;
    m_node->stateBits = (m_node->stateBits & ~grfMask) | (grfStateBits & grfMask);
    return ChangedLocked();
  });
}

HRESULT Storage::Stat(STATSTG* pstatstg, DWORD grfStatFlag) {
  if (!pstatstg) return STG_E_INVALIDPOINTER;
  if (FAILED(CheckStatFlag(grfStatFlag))) return STG_E_INVALIDFLAG;
  return Guarded([&] {
    Lock guard(m_doc->Lock());
    if (FAILED(CheckLive())) return STG_E_REVERTED;
    // The root is named after the stream that holds it, when that has a name.
    return FillStat(EntryOf(*m_node, m_parent ? m_node->name : m_doc->Name()), m_mode, grfStatFlag, pstatstg);
  });
}

}  // namespace

HRESULT MakeRootStorage(std::shared_ptr<Document> doc, DWORD mode, IStorage** out) {
  ElementPtr root = doc->Root();
  *out = new (std::nothrow) Storage(std::move(doc), nullptr, std::move(root), nullptr, mode & kKeptModes, 0);
  return *out ? S_OK : E_OUTOFMEMORY;
}

}  // namespace adp::mapi
