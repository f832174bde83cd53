// HrIStorageFromStream: an IStorage whose contents live in the bytes of a stream.
//
// The whole element tree is held in memory while the storage is open; the stream holds its byte
// image, written from the base offset (0, or the stream's position at open with STGSTRM_CURRENT)
// and cut to length with SetSize. All integers are little-endian.
//
// Image = header, body.
//
//   Header, 24 bytes:
//     0   4  magic "ADSG"
//     4   2  version, 1
//     6   2  header size, 24
//     8   8  body length in bytes
//    16   4  CRC-32 (IEEE 802.3, reflected, as zlib computes it) of the body
//    20   4  reserved, 0
//   Bytes behind header + body length are not part of the image and are ignored.
//
//   Body: the root storage element, children following their parent depth first.
//
//   Element:
//     1  type: 1 storage, 2 stream
//     1  name length n in UTF-16 units: 0 for the root, 1 to 31 for any other element
//     2  reserved, 0
//    2n  name, UTF-16LE, no terminator; no '/', '\', ':', '!' or NUL
//    24  creation, modification and access times, FILETIME as 64-bit values, in that order
//   then for a storage:
//    16  class ID (Data1 32-bit, Data2 16-bit, Data3 16-bit, Data4 8 bytes)
//     4  state bits
//     4  child count, then that many elements; names unique without regard to case
//   or for a stream:
//     8  data length, then the data
//
// A reader trusts nothing: every count and length is checked against the bytes left before
// anything is allocated, storages nest at most 256 deep, and the body must be used up exactly.
// A bad header is STG_E_INVALIDHEADER; anything wrong behind it is STG_E_DOCFILECORRUPT.
//
// When the image is written. The root storage is direct. Changes made in direct mode reach the
// stream at the end of each IStorage call that changes the tree, at IStream::Commit and the last
// Release of an element stream that was written, at every Commit, and at the last Release of the
// tree. A storage opened with STGM_TRANSACTED works on its own copy, which its Commit hands to
// its parent and its Revert drops. Write errors outside Commit stay pending and Commit reports them.
#include "mapi/stream_storage.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <new>

#include "mapiutil.h"

namespace adp::mapi {

namespace {

constexpr BYTE kMagic[4] = {'A', 'D', 'S', 'G'};
constexpr WORD kVersion = 1;
constexpr BYTE kTypeStorage = 1, kTypeStream = 2;
constexpr size_t kMinElementSize = 4 + 24 + 8;  // a nameless stream, the smallest element
constexpr ULONG kIoChunk = 64 * 1024;
constexpr ULONGLONG kEpochDifference = 116444736000000000ull;  // 1601-01-01 to 1970-01-01 in 100 ns

// ---------------------------------------------------------------------------------------------
// CRC-32.

std::array<DWORD, 256> MakeCrcTable() {
  std::array<DWORD, 256> table{};
  for (DWORD i = 0; i < 256; ++i) {
    DWORD c = i;
    for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
    table[i] = c;
  }
  return table;
}

DWORD Crc32(const BYTE* p, size_t n) {
  static const std::array<DWORD, 256> table = MakeCrcTable();
  DWORD c = 0xFFFFFFFFu;
  for (size_t i = 0; i < n; ++i) c = table[(c ^ p[i]) & 0xFF] ^ (c >> 8);
  return c ^ 0xFFFFFFFFu;
}

// ---------------------------------------------------------------------------------------------
// Little-endian writing and bounded reading.

class Writer {
 public:
  explicit Writer(std::vector<BYTE>& out) : m_out(out) {}
  void U8(BYTE v) { m_out.push_back(v); }
  void U16(WORD v) { Le(v, 2); }
  void U32(DWORD v) { Le(v, 4); }
  void U64(ULONGLONG v) { Le(v, 8); }
  void Bytes(const BYTE* p, size_t n) { m_out.insert(m_out.end(), p, p + n); }

 private:
  void Le(ULONGLONG v, int n) {
    for (int i = 0; i < n; ++i) m_out.push_back(static_cast<BYTE>(v >> (8 * i)));
  }
  std::vector<BYTE>& m_out;
};

class Reader {
 public:
  Reader(const BYTE* p, size_t n) : m_p(p), m_left(n) {}
  size_t Left() const { return m_left; }
  bool U8(BYTE& v) { return Le(v, 1); }
  bool U16(WORD& v) { return Le(v, 2); }
  bool U32(DWORD& v) { return Le(v, 4); }
  bool U64(ULONGLONG& v) { return Le(v, 8); }
  bool Bytes(size_t n, const BYTE*& p) {
    if (n > m_left) return false;
    p = m_p;
    m_p += n;
    m_left -= n;
    return true;
  }

 private:
  template <typename T> bool Le(T& v, int n) {
    const BYTE* p;
    if (!Bytes(n, p)) return false;
    ULONGLONG x = 0;
    for (int i = 0; i < n; ++i) x |= ULONGLONG(p[i]) << (8 * i);
    v = static_cast<T>(x);
    return true;
  }
  const BYTE* m_p;
  size_t m_left;
};

void PutTime(Writer& w, const FILETIME& t) { w.U64(ULONGLONG(t.dwHighDateTime) << 32 | t.dwLowDateTime); }
bool GetTime(Reader& r, FILETIME& t) {
  ULONGLONG v;
  if (!r.U64(v)) return false;
  t = FILETIME{static_cast<DWORD>(v), static_cast<DWORD>(v >> 32)};
  return true;
}

void PutClsid(Writer& w, const CLSID& c) {
  w.U32(c.Data1);
  w.U16(c.Data2);
  w.U16(c.Data3);
  w.Bytes(c.Data4, 8);
}
bool GetClsid(Reader& r, CLSID& c) {
  const BYTE* p;
  if (!r.U32(c.Data1) || !r.U16(c.Data2) || !r.U16(c.Data3) || !r.Bytes(8, p)) return false;
  std::memcpy(c.Data4, p, 8);
  return true;
}

// ---------------------------------------------------------------------------------------------
// Writing an image.

void PutElement(Writer& w, const Element& e) {
  w.U8(e.type == STGTY_STREAM ? kTypeStream : kTypeStorage);
  w.U8(static_cast<BYTE>(e.name.size()));
  w.U16(0);
  for (char16_t c : e.name) w.U16(c);
  PutTime(w, e.ctime);
  PutTime(w, e.mtime);
  PutTime(w, e.atime);
  if (e.type == STGTY_STREAM) {
    w.U64(e.data.size());
    w.Bytes(e.data.data(), e.data.size());
    return;
  }
  PutClsid(w, e.clsid);
  w.U32(e.stateBits);
  w.U32(static_cast<DWORD>(e.children.size()));
  for (const auto& [key, child] : e.children) PutElement(w, *child);
}

size_t ImageSize(const Element& e) {
  size_t n = 4 + 2 * e.name.size() + 24;
  if (e.type == STGTY_STREAM) return n + 8 + e.data.size();
  n += 16 + 4 + 4;
  for (const auto& [key, child] : e.children) n += ImageSize(*child);
  return n;
}

// ---------------------------------------------------------------------------------------------
// Reading an image.

constexpr HRESULT kCorrupt = STG_E_DOCFILECORRUPT;

HRESULT GetName(Reader& r, size_t length, std::u16string& name) {
  name.resize(length);
  for (auto& c : name) {
    WORD v;
    if (!r.U16(v)) return kCorrupt;
    c = static_cast<char16_t>(v);
  }
  return length == 0 || IsValidName(name) ? S_OK : kCorrupt;
}

HRESULT GetElement(Reader& r, int depth, ElementPtr& out);

HRESULT GetChildren(Reader& r, int depth, Element& e) {
  DWORD count;
  if (!GetClsid(r, e.clsid) || !r.U32(e.stateBits) || !r.U32(count)) return kCorrupt;
  if (count > r.Left() / kMinElementSize) return kCorrupt;
  for (DWORD i = 0; i < count; ++i) {
    ElementPtr child;
    HRESULT hr = GetElement(r, depth + 1, child);
    if (FAILED(hr)) return hr;
    if (child->name.empty() || !e.children.emplace(FoldName(child->name), child).second) return kCorrupt;
  }
  return S_OK;
}

// depth: 0 for the root, whose name is empty; storages below kMaxStorageDepth.
HRESULT GetElement(Reader& r, int depth, ElementPtr& out) {
  BYTE type, nameLength;
  WORD reserved;
  if (!r.U8(type) || !r.U8(nameLength) || !r.U16(reserved) || reserved != 0) return kCorrupt;
  if (type != kTypeStorage && type != kTypeStream) return kCorrupt;
  if ((depth == 0) != (nameLength == 0) || nameLength > kMaxElementName) return kCorrupt;
  if (depth == 0 && type != kTypeStorage) return kCorrupt;
  if (type == kTypeStorage && depth > kMaxStorageDepth) return kCorrupt;
  out = std::make_shared<Element>();
  Element& e = *out;
  e.type = type == kTypeStream ? STGTY_STREAM : STGTY_STORAGE;
  HRESULT hr = GetName(r, nameLength, e.name);
  if (FAILED(hr)) return hr;
  if (!GetTime(r, e.ctime) || !GetTime(r, e.mtime) || !GetTime(r, e.atime)) return kCorrupt;
  if (e.type == STGTY_STORAGE) return GetChildren(r, depth, e);
  ULONGLONG size;
  const BYTE* data;
  if (!r.U64(size) || size > r.Left() || size > kMaxElementStream || !r.Bytes(size, data)) return kCorrupt;
  e.data.assign(data, data + size);
  return S_OK;
}

// ---------------------------------------------------------------------------------------------
// Backings.

// An IStream from a base offset on. The caller's seek pointer is put back after every use, so
// the stream may be shared with code that keeps its own position in it.
class StreamBacking final : public Backing {
 public:
  StreamBacking(IStream* stream, ULONGLONG base) : m_stream(stream), m_base(base) { m_stream->AddRef(); }
  ~StreamBacking() override { m_stream->Release(); }

  HRESULT Size(ULONGLONG* size) override {
    STATSTG st{};
    HRESULT hr = m_stream->Stat(&st, STATFLAG_NONAME);
    if (FAILED(hr)) return hr;
    *size = st.cbSize.QuadPart > m_base ? st.cbSize.QuadPart - m_base : 0;
    return S_OK;
  }
  HRESULT ReadAt(ULONGLONG offset, BYTE* buffer, ULONG cb, ULONG* got) override;
  HRESULT Replace(const std::vector<BYTE>& image) override;
  HRESULT Flush() override { return m_stream->Commit(STGC_DEFAULT); }
  std::u16string Name() override;

 private:
  HRESULT SeekTo(ULONGLONG offset) {
    LARGE_INTEGER to;
    to.QuadPart = static_cast<LONGLONG>(offset);
    return m_stream->Seek(to, STREAM_SEEK_SET, nullptr);
  }
  HRESULT Tell(ULONGLONG* position) {
    LARGE_INTEGER zero{};
    ULARGE_INTEGER at{};
    HRESULT hr = m_stream->Seek(zero, STREAM_SEEK_CUR, &at);
    *position = at.QuadPart;
    return hr;
  }
  HRESULT WriteAll(const std::vector<BYTE>& image);

  IStream* m_stream;
  const ULONGLONG m_base;
};

HRESULT StreamBacking::ReadAt(ULONGLONG offset, BYTE* buffer, ULONG cb, ULONG* got) {
  *got = 0;
  ULONGLONG saved;
  HRESULT hr = Tell(&saved);
  if (SUCCEEDED(hr)) hr = SeekTo(m_base + offset);
  while (SUCCEEDED(hr) && *got < cb) {
    ULONG n = 0;
    hr = m_stream->Read(buffer + *got, cb - *got, &n);
    if (FAILED(hr) || n == 0 || n > cb - *got) break;
    *got += n;
  }
  SeekTo(saved);
  return hr;
}

HRESULT StreamBacking::WriteAll(const std::vector<BYTE>& image) {
  HRESULT hr = SeekTo(m_base);
  for (size_t done = 0; SUCCEEDED(hr) && done < image.size();) {
    ULONG want = static_cast<ULONG>(std::min<size_t>(kIoChunk, image.size() - done));
    ULONG put = 0;
    hr = m_stream->Write(image.data() + done, want, &put);
    if (SUCCEEDED(hr) && (put == 0 || put > want)) hr = STG_E_WRITEFAULT;
    done += put;
  }
  if (FAILED(hr)) return hr;
  ULARGE_INTEGER size;
  size.QuadPart = m_base + image.size();
  return m_stream->SetSize(size);
}

HRESULT StreamBacking::Replace(const std::vector<BYTE>& image) {
  ULONGLONG saved;
  HRESULT hr = Tell(&saved);
  if (FAILED(hr)) return hr;
  hr = WriteAll(image);
  SeekTo(saved);
  return hr;
}

std::u16string StreamBacking::Name() {
  STATSTG st{};
  if (FAILED(m_stream->Stat(&st, STATFLAG_DEFAULT)) || !st.pwcsName) return std::u16string();
  std::u16string name(st.pwcsName);
  CoTaskMemFree(st.pwcsName);
  return name;
}

class LockBytesBacking final : public Backing {
 public:
  explicit LockBytesBacking(ILockBytes* bytes) : m_bytes(bytes) { m_bytes->AddRef(); }
  ~LockBytesBacking() override { m_bytes->Release(); }

  HRESULT Size(ULONGLONG* size) override {
    STATSTG st{};
    HRESULT hr = m_bytes->Stat(&st, STATFLAG_NONAME);
    *size = st.cbSize.QuadPart;
    return hr;
  }
  HRESULT ReadAt(ULONGLONG offset, BYTE* buffer, ULONG cb, ULONG* got) override {
    ULARGE_INTEGER at;
    at.QuadPart = offset;
    *got = 0;
    HRESULT hr = m_bytes->ReadAt(at, buffer, cb, got);
    if (*got > cb) *got = 0;
    return hr;
  }
  HRESULT Replace(const std::vector<BYTE>& image) override;
  HRESULT Flush() override { return m_bytes->Flush(); }
  std::u16string Name() override { return std::u16string(); }

 private:
  ILockBytes* m_bytes;
};

HRESULT LockBytesBacking::Replace(const std::vector<BYTE>& image) {
  HRESULT hr = S_OK;
  for (size_t done = 0; SUCCEEDED(hr) && done < image.size();) {
    ULONG want = static_cast<ULONG>(std::min<size_t>(kIoChunk, image.size() - done));
    ULARGE_INTEGER at;
    at.QuadPart = done;
    ULONG put = 0;
    hr = m_bytes->WriteAt(at, image.data() + done, want, &put);
    if (SUCCEEDED(hr) && (put == 0 || put > want)) hr = STG_E_WRITEFAULT;
    done += put;
  }
  if (FAILED(hr)) return hr;
  ULARGE_INTEGER size;
  size.QuadPart = image.size();
  return m_bytes->SetSize(size);
}

HRESULT MakeBacking(LPUNKNOWN lpUnkIn, LPCIID lpInterface, ULONG ulFlags, std::unique_ptr<Backing>& out) {
  if (lpInterface && *lpInterface == IID_ILockBytes) {
    ILockBytes* bytes = nullptr;
    if (FAILED(lpUnkIn->QueryInterface(IID_ILockBytes, reinterpret_cast<void**>(&bytes))) || !bytes)
      return MAPI_E_INTERFACE_NOT_SUPPORTED;
    out.reset(new LockBytesBacking(bytes));
    bytes->Release();
    return S_OK;
  }
  if (lpInterface && *lpInterface != IID_IStream) return MAPI_E_INTERFACE_NOT_SUPPORTED;
  IStream* stream = nullptr;
  if (FAILED(lpUnkIn->QueryInterface(IID_IStream, reinterpret_cast<void**>(&stream))) || !stream)
    return MAPI_E_INTERFACE_NOT_SUPPORTED;
  ULONGLONG base = 0;
  if (ulFlags & STGSTRM_CURRENT) {
    LARGE_INTEGER zero{};
    ULARGE_INTEGER at{};
    HRESULT hr = stream->Seek(zero, STREAM_SEEK_CUR, &at);
    if (FAILED(hr)) {
      stream->Release();
      return hr;
    }
    base = at.QuadPart;
  }
  out.reset(new StreamBacking(stream, base));
  stream->Release();
  return S_OK;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Names.

namespace {

// Simple upper-case folding for the scripts names are usually written in: Latin (ASCII,
// Latin-1, Latin Extended-A), Greek and Cyrillic. Other characters compare as they are.
char16_t FoldLatin(char16_t c) {
  if (c >= 0xE0 && c <= 0xFE && c != 0xF7) return c - 0x20;
  if (c == 0xFF) return 0x178;
  bool oddIsLower = (c >= 0x100 && c <= 0x137) || (c >= 0x14A && c <= 0x177);
  bool evenIsLower = (c >= 0x139 && c <= 0x148) || (c >= 0x179 && c <= 0x17E);
  if ((oddIsLower && (c & 1)) || (evenIsLower && !(c & 1))) return c - 1;
  return c;
}

char16_t FoldChar(char16_t c) {
  if (c < 0x80) return c >= 'a' && c <= 'z' ? c - 0x20 : c;
  if (c < 0x180) return (c == 0x130 || c == 0x131) ? c : FoldLatin(c);
  if (c == 0x3C2) return 0x3A3;  // final sigma
  if (c >= 0x3B1 && c <= 0x3CB) return c - 0x20;
  if (c >= 0x430 && c <= 0x44F) return c - 0x20;
  if (c >= 0x450 && c <= 0x45F) return c - 0x50;
  return c;
}

}  // namespace

std::u16string FoldName(std::u16string_view name) {
  std::u16string out(name);
  for (auto& c : out) c = FoldChar(c);
  return out;
}

bool IsValidName(std::u16string_view name) {
  if (name.empty() || name.size() > kMaxElementName) return false;
  return std::none_of(name.begin(), name.end(),
                      [](char16_t c) { return c == 0 || c == u'/' || c == u'\\' || c == u':' || c == u'!'; });
}

HRESULT CheckName(const OLECHAR* name, std::u16string& out) {
  if (!name) return STG_E_INVALIDPOINTER;
  size_t n = 0;
  while (n <= kMaxElementName && name[n]) ++n;  // never reads far past a runaway string
  out.assign(name, n);
  return IsValidName(out) ? S_OK : STG_E_INVALIDNAME;
}

// ---------------------------------------------------------------------------------------------
// Trees.

FILETIME Now() {
  auto since = std::chrono::duration_cast<std::chrono::nanoseconds>(
      std::chrono::system_clock::now().time_since_epoch());
  ULONGLONG t = kEpochDifference + static_cast<ULONGLONG>(since.count()) / 100;
  return FILETIME{static_cast<DWORD>(t), static_cast<DWORD>(t >> 32)};
}

ElementPtr NewElement(DWORD type, std::u16string name) {
  auto e = std::make_shared<Element>();
  e->type = type;
  e->name = std::move(name);
  e->ctime = e->mtime = Now();
  return e;
}

Children CloneChildren(const Element& e) {
  Children out;
  for (const auto& [key, child] : e.children) out.emplace(key, CloneTree(*child));
  return out;
}

ElementPtr CloneTree(const Element& e) {
  auto copy = std::make_shared<Element>();
  copy->type = e.type;
  copy->name = e.name;
  copy->ctime = e.ctime;
  copy->mtime = e.mtime;
  copy->atime = e.atime;
  copy->clsid = e.clsid;
  copy->stateBits = e.stateBits;
  copy->data = e.data;
  copy->children = CloneChildren(e);
  return copy;
}

void MarkChildrenReverted(Element& e) {
  for (auto& [key, child] : e.children) MarkReverted(*child);
}

void MarkReverted(Element& e) {
  e.reverted = true;
  MarkChildrenReverted(e);
}

int StorageLevels(const Element& e) {
  if (e.type == STGTY_STREAM) return 0;
  int deepest = 0;
  for (const auto& [key, child] : e.children) deepest = std::max(deepest, StorageLevels(*child));
  return 1 + deepest;
}

// ---------------------------------------------------------------------------------------------
// Images.

std::vector<BYTE> MakeImage(const Element& root) {
  std::vector<BYTE> image;
  image.reserve(kImageHeaderSize + ImageSize(root));
  image.resize(kImageHeaderSize);
  Writer body(image);
  PutElement(body, root);
  std::vector<BYTE> header;
  Writer w(header);
  w.Bytes(kMagic, 4);
  w.U16(kVersion);
  w.U16(kImageHeaderSize);
  w.U64(image.size() - kImageHeaderSize);
  w.U32(Crc32(image.data() + kImageHeaderSize, image.size() - kImageHeaderSize));
  w.U32(0);
  std::copy(header.begin(), header.end(), image.begin());
  return image;
}

HRESULT CheckHeader(const BYTE* header, ULONGLONG* bodyLength, DWORD* bodyCrc) {
  Reader r(header, kImageHeaderSize);
  const BYTE* magic;
  WORD version, headerSize;
  DWORD reserved;
  r.Bytes(4, magic);
  r.U16(version);
  r.U16(headerSize);
  r.U64(*bodyLength);
  r.U32(*bodyCrc);
  r.U32(reserved);
  if (std::memcmp(magic, kMagic, 4) != 0 || version != kVersion || headerSize != kImageHeaderSize || reserved != 0)
    return STG_E_INVALIDHEADER;
  return S_OK;
}

HRESULT ParseBody(const std::vector<BYTE>& body, DWORD bodyCrc, ElementPtr& root) {
  if (Crc32(body.data(), body.size()) != bodyCrc) return kCorrupt;
  Reader r(body.data(), body.size());
  HRESULT hr = GetElement(r, 0, root);
  if (SUCCEEDED(hr) && r.Left() != 0) hr = kCorrupt;
  if (FAILED(hr)) root.reset();
  return hr;
}

// ---------------------------------------------------------------------------------------------
// Document.

Document::Document(std::unique_ptr<Backing> backing, bool canWrite)
    : m_backing(std::move(backing)), m_canWrite(canWrite) {
  m_name = m_backing->Name();
}

Document::~Document() {
  try {
    FlushLocked(false);  // nobody else can hold the lock now
  } catch (...) {
    // Out of memory while building the image: the change is lost, as a failed write would be.
  }
}

HRESULT Document::Create() {
  m_root = NewElement(STGTY_STORAGE, std::u16string());
  m_dirty = true;
  return FlushLocked(false);
}

HRESULT Document::ReadBody(ULONGLONG length, std::vector<BYTE>& body) {
  // Grows with what actually arrives, so a lying Stat can't make us allocate more than the
  // backing really delivers.
  while (body.size() < length) {
    ULONG want = static_cast<ULONG>(std::min<ULONGLONG>(kIoChunk, length - body.size()));
    size_t at = body.size();
    body.resize(at + want);
    ULONG got = 0;
    HRESULT hr = m_backing->ReadAt(kImageHeaderSize + at, body.data() + at, want, &got);
    if (FAILED(hr)) return hr;
    if (got != want) return kCorrupt;
  }
  return S_OK;
}

HRESULT Document::Load() {
  ULONGLONG available = 0;
  HRESULT hr = m_backing->Size(&available);
  if (FAILED(hr)) return hr;
  if (available < kImageHeaderSize) return STG_E_INVALIDHEADER;
  BYTE header[kImageHeaderSize];
  ULONG got = 0;
  hr = m_backing->ReadAt(0, header, kImageHeaderSize, &got);
  if (FAILED(hr)) return hr;
  if (got != kImageHeaderSize) return STG_E_INVALIDHEADER;
  ULONGLONG bodyLength;
  DWORD bodyCrc;
  if (FAILED(hr = CheckHeader(header, &bodyLength, &bodyCrc))) return hr;
  if (bodyLength > available - kImageHeaderSize) return kCorrupt;
  std::vector<BYTE> body;
  if (FAILED(hr = ReadBody(bodyLength, body))) return hr;
  return ParseBody(body, bodyCrc, m_root);
}

HRESULT Document::FlushLocked(bool durable) {
  if (!m_canWrite || !m_root) return S_OK;
  if (m_dirty) {
    HRESULT hr = m_backing->Replace(MakeImage(*m_root));
    if (FAILED(hr)) return hr;
    m_dirty = false;
  }
  return durable ? m_backing->Flush() : S_OK;
}

}  // namespace adp::mapi

using adp::mapi::Document;

extern "C" HRESULT STDAPICALLTYPE HrIStorageFromStream(LPUNKNOWN lpUnkIn, LPCIID lpInterface, ULONG ulFlags,
                                                       LPSTORAGE* lppStorageOut) {
  if (!lppStorageOut) return MAPI_E_INVALID_PARAMETER;
  *lppStorageOut = nullptr;
  if (!lpUnkIn) return MAPI_E_INVALID_PARAMETER;
  if (ulFlags & ~ULONG(STGSTRM_CURRENT | STGSTRM_MODIFY | STGSTRM_CREATE)) return MAPI_E_UNKNOWN_FLAGS;
  try {
    std::unique_ptr<adp::mapi::Backing> backing;
    HRESULT hr = adp::mapi::MakeBacking(lpUnkIn, lpInterface, ulFlags, backing);
    if (FAILED(hr)) return hr;
    // Creating writes the empty tree even for a read-only storage: that is what creation means.
    bool create = (ulFlags & STGSTRM_CREATE) != 0;
    auto doc = std::make_shared<Document>(std::move(backing), create || (ulFlags & STGSTRM_MODIFY));
    hr = create ? doc->Create() : doc->Load();
    if (FAILED(hr)) return hr;
    DWORD mode = ((ulFlags & STGSTRM_MODIFY) ? STGM_READWRITE : STGM_READ) | STGM_SHARE_EXCLUSIVE;
    return adp::mapi::MakeRootStorage(std::move(doc), mode, lppStorageOut);
  } catch (const std::bad_alloc&) {
    return MAPI_E_NOT_ENOUGH_MEMORY;
  }
}
