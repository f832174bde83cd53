// Structured storage held in a stream (HrIStorageFromStream): the in-memory element tree, its
// byte image, and the document that ties a tree to the stream holding it. The IStorage, IStream
// and IEnumSTATSTG objects over the tree live in stream_storage_objects.cpp.
#pragma once
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "objidl.h"

namespace adp::mapi {

// Element names: at most 31 UTF-16 units, compared without regard to case.
constexpr size_t kMaxElementName = 31;
// Storages nest at most this deep below the root; deeper trees are refused, never recursed into.
constexpr int kMaxStorageDepth = 256;
// An element stream holds at most 4 GiB - 1 bytes, the most a 32-bit stream size can say.
constexpr ULONGLONG kMaxElementStream = 0xFFFFFFFFull;

struct Element;
using ElementPtr = std::shared_ptr<Element>;
using Children = std::map<std::u16string, ElementPtr>;  // keyed by FoldName(name)

struct Element {
  DWORD type = STGTY_STORAGE;  // STGTY_STORAGE or STGTY_STREAM
  std::u16string name;         // as given; empty for the root
  FILETIME ctime{}, mtime{}, atime{};
  CLSID clsid = GUID_NULL;     // storages
  DWORD stateBits = 0;         // storages
  std::vector<BYTE> data;      // streams
  Children children;           // storages
  // Set once the element has left the tree (destroyed, replaced, reverted): objects open on it
  // answer STG_E_REVERTED from then on.
  bool reverted = false;
};

// Names.
std::u16string FoldName(std::u16string_view name);
// STG_E_INVALIDPOINTER for NULL, STG_E_INVALIDNAME for an empty, too long or ill-formed name.
HRESULT CheckName(const OLECHAR* name, std::u16string& out);
bool IsValidName(std::u16string_view name);

// Tree helpers. The recursive ones are bounded by kMaxStorageDepth.
ElementPtr NewElement(DWORD type, std::u16string name);
ElementPtr CloneTree(const Element& e);
Children CloneChildren(const Element& e);
void MarkReverted(Element& e);
void MarkChildrenReverted(Element& e);
int StorageLevels(const Element& e);  // 0 for a stream, 1 + deepest child for a storage
FILETIME Now();

// The byte image of a tree (header and body) and its inverse. ParseImage answers
// STG_E_INVALIDHEADER or STG_E_DOCFILECORRUPT for bytes it didn't write.
std::vector<BYTE> MakeImage(const Element& root);
constexpr size_t kImageHeaderSize = 24;
// Checks a header; on success *bodyLength is what follows it.
HRESULT CheckHeader(const BYTE* header, ULONGLONG* bodyLength, DWORD* bodyCrc);
HRESULT ParseBody(const std::vector<BYTE>& body, DWORD bodyCrc, ElementPtr& root);

// Where the image lives: an IStream from a base offset on, or an ILockBytes.
class Backing {
 public:
  virtual ~Backing() = default;
  virtual HRESULT Size(ULONGLONG* size) = 0;  // bytes from the base on
  virtual HRESULT ReadAt(ULONGLONG offset, BYTE* buffer, ULONG cb, ULONG* got) = 0;
  // Writes the image at the base and cuts what lies behind it.
  virtual HRESULT Replace(const std::vector<BYTE>& image) = 0;
  virtual HRESULT Flush() = 0;
  virtual std::u16string Name() = 0;  // empty when the backing has none
};

// A tree and the backing that holds it.
class Document {
 public:
  Document(std::unique_ptr<Backing> backing, bool canWrite);
  ~Document();  // writes outstanding changes, best effort: Commit is where errors are reported
  Document(const Document&) = delete;
  Document& operator=(const Document&) = delete;

  // Guards every Element of this document (the committed tree and the working copies of its
  // transacted storages) and the dirty flag. Held while calling the backing; never held while
  // calling another storage or stream, so a document whose backing is an element stream of
  // another document locks this one first, then that one, and no path takes them the other way.
  std::mutex& Lock() { return m_lock; }

  HRESULT Create();  // a new empty tree, written at once
  HRESULT Load();    // the tree the backing holds
  const ElementPtr& Root() const { return m_root; }
  const std::u16string& Name() const { return m_name; }
  void Touch() { m_dirty = true; }
  // Writes the tree if it changed; `durable` also flushes the backing. Lock held.
  HRESULT FlushLocked(bool durable);

 private:
  HRESULT ReadBody(ULONGLONG length, std::vector<BYTE>& body);

  std::mutex m_lock;
  std::unique_ptr<Backing> m_backing;
  ElementPtr m_root;
  std::u16string m_name;
  const bool m_canWrite;
  bool m_dirty = false;
};

// The root IStorage of a document.
HRESULT MakeRootStorage(std::shared_ptr<Document> doc, DWORD mode, IStorage** out);

}  // namespace adp::mapi
