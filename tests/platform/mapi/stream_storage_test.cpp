#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <mapiutil.h>
#include <objbase.h>

#include "adplatform.h"
#include "test_home.h"

namespace {

namespace fs = std::filesystem;

constexpr DWORD kRW = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
constexpr DWORD kRO = STGM_READ | STGM_SHARE_EXCLUSIVE;
constexpr ULONG kNew = STGSTRM_CREATE | STGSTRM_MODIFY;

DEFINE_GUID(kClsidRoot, 0x11111111, 0x2222, 0x3333, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xaa, 0xbb);
DEFINE_GUID(kClsidSub, 0xdeadbeef, 0x0102, 0x0304, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0a, 0x0b, 0x0c);

// Owns one interface reference.
template <class T> struct Ref {
  T* p = nullptr;
  Ref() = default;
  Ref(const Ref&) = delete;
  Ref& operator=(const Ref&) = delete;
  ~Ref() { Reset(); }
  void Reset() {
    if (p) p->Release();
    p = nullptr;
  }
  T* operator->() const { return p; }
  T** operator&() { return &p; }
};

LARGE_INTEGER Li(LONGLONG v) {
  LARGE_INTEGER li;
  li.QuadPart = v;
  return li;
}

ULARGE_INTEGER Uli(ULONGLONG v) {
  ULARGE_INTEGER li;
  li.QuadPart = v;
  return li;
}

std::string Pattern(size_t n, int seed) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(i * 31 + seed + i / 509);
  return s;
}

void WriteText(IStream* s, const std::string& text) {
  ULONG written = 0;
  ASSERT_EQ(s->Write(text.data(), static_cast<ULONG>(text.size()), &written), S_OK);
  ASSERT_EQ(written, text.size());
}

std::string ReadAll(IStream* s) {
  STATSTG st{};
  EXPECT_EQ(s->Stat(&st, STATFLAG_NONAME), S_OK);
  EXPECT_EQ(s->Seek(Li(0), STREAM_SEEK_SET, nullptr), S_OK);
  std::string out(static_cast<size_t>(st.cbSize.QuadPart), '?');
  ULONG got = 0;
  EXPECT_EQ(s->Read(out.data(), static_cast<ULONG>(out.size()), &got), S_OK);
  out.resize(got);
  return out;
}

// The bytes a stream holds, leaving its position alone.
std::vector<BYTE> Bytes(IStream* s) {
  ULARGE_INTEGER at{};
  EXPECT_EQ(s->Seek(Li(0), STREAM_SEEK_CUR, &at), S_OK);
  std::string all = ReadAll(s);
  EXPECT_EQ(s->Seek(Li(static_cast<LONGLONG>(at.QuadPart)), STREAM_SEEK_SET, nullptr), S_OK);
  return std::vector<BYTE>(all.begin(), all.end());
}

void MemoryWith(const std::vector<BYTE>& bytes, IStream** out) {
  ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, out), S_OK);
  if (!bytes.empty()) {
    ULONG written = 0;
    ASSERT_EQ((*out)->Write(bytes.data(), static_cast<ULONG>(bytes.size()), &written), S_OK);
  }
  ASSERT_EQ((*out)->Seek(Li(0), STREAM_SEEK_SET, nullptr), S_OK);
}

HRESULT OpenFrom(const std::vector<BYTE>& bytes, ULONG flags, IStorage** out) {
  Ref<IStream> s;
  MemoryWith(bytes, &s);
  return HrIStorageFromStream(s.p, nullptr, flags, out);
}

HRESULT PutStream(IStorage* stg, const char16_t* name, const std::string& data) {
  Ref<IStream> s;
  HRESULT hr = stg->CreateStream(name, kRW, 0, 0, &s);
  if (FAILED(hr)) return hr;
  ULONG written = 0;
  return s->Write(data.data(), static_cast<ULONG>(data.size()), &written);
}

std::string GetStream(IStorage* stg, const char16_t* name) {
  Ref<IStream> s;
  HRESULT hr = stg->OpenStream(name, nullptr, kRO, 0, &s);
  return FAILED(hr) ? "<" + std::to_string(hr) + ">" : ReadAll(s.p);
}

// Everything a storage tree holds, by path.
struct Item {
  DWORD type;
  std::string data;
  CLSID clsid;
  DWORD stateBits;
  FILETIME ctime, mtime, atime;
  bool operator==(const Item& o) const {
    return type == o.type && data == o.data && clsid == o.clsid && stateBits == o.stateBits &&
           std::memcmp(&ctime, &o.ctime, sizeof ctime) == 0 && std::memcmp(&mtime, &o.mtime, sizeof mtime) == 0 &&
           std::memcmp(&atime, &o.atime, sizeof atime) == 0;
  }
};
using Tree = std::map<std::string, Item>;

void DumpInto(IStorage* stg, const std::string& prefix, Tree& tree) {
  Ref<IEnumSTATSTG> e;
  ASSERT_EQ(stg->EnumElements(0, nullptr, 0, &e), S_OK);
  STATSTG st;
  while (e->Next(1, &st, nullptr) == S_OK) {
    std::string path = prefix + "/" + adp::Utf16ToUtf8(st.pwcsName);
    Item item{st.type, {}, st.clsid, st.grfStateBits, st.ctime, st.mtime, st.atime};
    if (st.type == STGTY_STREAM) {
      item.data = GetStream(stg, st.pwcsName);
      EXPECT_EQ(item.data.size(), st.cbSize.QuadPart) << path;
      tree[path] = item;
    } else {
      tree[path] = item;
      Ref<IStorage> sub;
      EXPECT_EQ(stg->OpenStorage(st.pwcsName, nullptr, kRO, nullptr, 0, &sub), S_OK) << path;
      if (sub.p) DumpInto(sub.p, path, tree);
    }
    CoTaskMemFree(st.pwcsName);
  }
}

Tree Dump(IStorage* root) {
  Tree tree;
  STATSTG st{};
  EXPECT_EQ(root->Stat(&st, STATFLAG_NONAME), S_OK);
  tree[""] = Item{st.type, {}, st.clsid, st.grfStateBits, st.ctime, st.mtime, st.atime};
  DumpInto(root, "", tree);
  return tree;
}

// A tree with nested storages, streams of 0, 1, 65536 and 200000 bytes and non-ASCII names.
void BuildSample(IStorage* root) {
  ASSERT_EQ(root->SetClass(kClsidRoot), S_OK);
  ASSERT_EQ(root->SetStateBits(0x5, 0xF), S_OK);
  ASSERT_EQ(PutStream(root, u"Empty", ""), S_OK);
  ASSERT_EQ(PutStream(root, u"One", "x"), S_OK);
  ASSERT_EQ(PutStream(root, u"Sixty-four K", Pattern(65536, 1)), S_OK);
  ASSERT_EQ(PutStream(root, u"Big", Pattern(200000, 2)), S_OK);
  ASSERT_EQ(PutStream(root, u"Grüße aus Köln", "umlauts"), S_OK);
  Ref<IStorage> sub, deeper, cyr;
  ASSERT_EQ(root->CreateStorage(u"Sub", kRW, 0, 0, &sub), S_OK);
  ASSERT_EQ(sub->SetClass(kClsidSub), S_OK);
  ASSERT_EQ(sub->SetStateBits(0xA5A5A5A5, 0xFFFFFFFF), S_OK);
  ASSERT_EQ(PutStream(sub.p, u"Inner", Pattern(3000, 3)), S_OK);
  ASSERT_EQ(sub->CreateStorage(u"Deeper", kRW, 0, 0, &deeper), S_OK);
  ASSERT_EQ(PutStream(deeper.p, u"添付ファイル", Pattern(70000, 4)), S_OK);
  ASSERT_EQ(root->CreateStorage(u"Вложение", kRW, 0, 0, &cyr), S_OK);
  ASSERT_EQ(PutStream(cyr.p, u"\u0001Ole", "ole"), S_OK);
  FILETIME c{1, 2}, a{3, 4}, m{5, 6};
  ASSERT_EQ(root->SetElementTimes(u"Sub", &c, &a, &m), S_OK);
  ASSERT_EQ(root->SetElementTimes(u"One", nullptr, nullptr, &m), S_OK);
}

TEST(HrIStorageFromStream, RoundTripKeepsEverything) {
  Ref<IStream> backing;
  MemoryWith({}, &backing);
  Ref<IStorage> root;
  ASSERT_EQ(HrIStorageFromStream(backing.p, nullptr, kNew, &root), S_OK);
  BuildSample(root.p);
  ASSERT_EQ(root->Commit(STGC_DEFAULT), S_OK);
  Tree before = Dump(root.p);
  ASSERT_EQ(before.size(), 12u);
  EXPECT_EQ(before["/Big"].data, Pattern(200000, 2));
  EXPECT_EQ(before["/Sub"].stateBits, 0xA5A5A5A5u);
  EXPECT_EQ(before["/Sub"].ctime.dwLowDateTime, 1u);
  EXPECT_EQ(before["/One"].mtime.dwHighDateTime, 6u);
  root.Reset();

  // The bytes alone bring the tree back, whether opened from a copy or from the same stream.
  std::vector<BYTE> bytes = Bytes(backing.p);
  ASSERT_EQ(OpenFrom(bytes, STGSTRM_MODIFY, &root), S_OK);
  EXPECT_EQ(Dump(root.p), before);
  root.Reset();
  ASSERT_EQ(HrIStorageFromStream(backing.p, &IID_IStream, STGSTRM_RESET, &root), S_OK);
  EXPECT_EQ(Dump(root.p), before);
  STATSTG st{};
  ASSERT_EQ(root->Stat(&st, STATFLAG_NONAME), S_OK);
  EXPECT_EQ(st.clsid, kClsidRoot);
  EXPECT_EQ(st.grfStateBits, 0x5u);
  EXPECT_EQ(st.type, DWORD(STGTY_STORAGE));

  // Without STGSTRM_MODIFY every change is refused and nothing moves.
  Ref<IStream> s;
  Ref<IStorage> sub;
  EXPECT_EQ(root->CreateStream(u"New", kRW, 0, 0, &s), STG_E_ACCESSDENIED);
  EXPECT_EQ(root->CreateStorage(u"New", kRW, 0, 0, &sub), STG_E_ACCESSDENIED);
  EXPECT_EQ(root->OpenStream(u"One", nullptr, kRW, 0, &s), STG_E_ACCESSDENIED);
  EXPECT_EQ(root->OpenStorage(u"Sub", nullptr, kRW, nullptr, 0, &sub), STG_E_ACCESSDENIED);
  EXPECT_EQ(root->DestroyElement(u"One"), STG_E_ACCESSDENIED);
  EXPECT_EQ(root->RenameElement(u"One", u"Two"), STG_E_ACCESSDENIED);
  EXPECT_EQ(root->SetClass(kClsidSub), STG_E_ACCESSDENIED);
  EXPECT_EQ(root->SetStateBits(0, 0xFF), STG_E_ACCESSDENIED);
  EXPECT_EQ(root->SetElementTimes(u"One", nullptr, nullptr, nullptr), STG_E_ACCESSDENIED);
  EXPECT_EQ(root->MoveElementTo(u"One", root.p, u"Two", STGMOVE_MOVE), STG_E_ACCESSDENIED);
  ASSERT_EQ(root->OpenStream(u"One", nullptr, kRO, 0, &s), S_OK);
  ULONG written = 7;
  EXPECT_EQ(s->Write("y", 1, &written), STG_E_ACCESSDENIED);
  EXPECT_EQ(written, 0u);
  EXPECT_EQ(s->SetSize(Uli(0)), STG_E_ACCESSDENIED);
  EXPECT_EQ(root->Commit(STGC_DEFAULT), S_OK);
  s.Reset();
  EXPECT_EQ(Dump(root.p), before);
  root.Reset();
  EXPECT_EQ(Bytes(backing.p), bytes);
}

TEST(HrIStorageFromStream, ImageStartsWithItsHeaderAtTheChosenOffset) {
  Ref<IStream> backing;
  MemoryWith(std::vector<BYTE>(100, 'P'), &backing);
  ASSERT_EQ(backing->Seek(Li(100), STREAM_SEEK_SET, nullptr), S_OK);
  Ref<IStorage> root;
  ASSERT_EQ(HrIStorageFromStream(backing.p, nullptr, kNew | STGSTRM_CURRENT, &root), S_OK);
  ASSERT_EQ(PutStream(root.p, u"s", "payload"), S_OK);
  ASSERT_EQ(root->Commit(STGC_DEFAULT), S_OK);
  root.Reset();

  std::vector<BYTE> bytes = Bytes(backing.p);
  ASSERT_GT(bytes.size(), 124u);
  EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 100), std::string(100, 'P'));  // untouched
  EXPECT_EQ(std::string(bytes.begin() + 100, bytes.begin() + 104), "ADSG");
  EXPECT_EQ(bytes[104], 1);  // version
  EXPECT_EQ(bytes[106], 24);  // header size
  ULONGLONG bodyLength = 0;
  for (int i = 0; i < 8; ++i) bodyLength |= ULONGLONG(bytes[108 + i]) << (8 * i);
  EXPECT_EQ(bytes.size(), 124 + bodyLength);  // cut to the image

  ULARGE_INTEGER at{};
  ASSERT_EQ(backing->Seek(Li(0), STREAM_SEEK_CUR, &at), S_OK);
  EXPECT_EQ(at.QuadPart, 100u);  // the caller's position is kept
  ASSERT_EQ(HrIStorageFromStream(backing.p, nullptr, STGSTRM_CURRENT, &root), S_OK);
  EXPECT_EQ(GetStream(root.p, u"s"), "payload");
  root.Reset();
  ASSERT_EQ(backing->Seek(Li(0), STREAM_SEEK_SET, nullptr), S_OK);
  EXPECT_EQ(HrIStorageFromStream(backing.p, nullptr, STGSTRM_RESET, &root), STG_E_INVALIDHEADER);
  EXPECT_EQ(root.p, nullptr);
}

TEST(HrIStorageFromStream, DirectChangesReachTheStreamWithoutCommit) {
  Ref<IStream> backing;
  MemoryWith({}, &backing);
  Ref<IStorage> root, reopened;
  ASSERT_EQ(HrIStorageFromStream(backing.p, nullptr, kNew, &root), S_OK);
  // The empty storage is written at creation.
  ASSERT_EQ(OpenFrom(Bytes(backing.p), 0, &reopened), S_OK);
  EXPECT_EQ(Dump(reopened.p).size(), 1u);
  reopened.Reset();

  // An element stream's writes go out with its last release; structure changes at once.
  ASSERT_EQ(PutStream(root.p, u"s", "abc"), S_OK);
  ASSERT_EQ(OpenFrom(Bytes(backing.p), 0, &reopened), S_OK);
  EXPECT_EQ(GetStream(reopened.p, u"s"), "abc");
  reopened.Reset();
  Ref<IStorage> dir;
  ASSERT_EQ(root->CreateStorage(u"dir", kRW, 0, 0, &dir), S_OK);
  ASSERT_EQ(dir->SetClass(kClsidSub), S_OK);
  ASSERT_EQ(OpenFrom(Bytes(backing.p), 0, &reopened), S_OK);
  EXPECT_EQ(GetStream(reopened.p, u"s"), "abc");
  Tree t = Dump(reopened.p);
  EXPECT_EQ(t["/dir"].clsid, kClsidSub);
  reopened.Reset();

  // A stream still open goes out at its Commit, and at the last release of the tree.
  Ref<IStream> open;
  ASSERT_EQ(dir->CreateStream(u"open", kRW, 0, 0, &open), S_OK);
  WriteText(open.p, "first");
  ASSERT_EQ(open->Commit(STGC_DEFAULT), S_OK);
  ASSERT_EQ(OpenFrom(Bytes(backing.p), 0, &reopened), S_OK);
  EXPECT_EQ(Dump(reopened.p)["/dir/open"].data, "first");
  reopened.Reset();
  WriteText(open.p, "+second");
  root.Reset();
  dir.Reset();
  open.Reset();
  ASSERT_EQ(OpenFrom(Bytes(backing.p), 0, &reopened), S_OK);
  EXPECT_EQ(Dump(reopened.p)["/dir/open"].data, "first+second");
}

TEST(HrIStorageFromStream, TransactedStorageKeepsChangesUntilCommit) {
  Ref<IStream> backing;
  MemoryWith({}, &backing);
  Ref<IStorage> root, t, direct, reopened;
  ASSERT_EQ(HrIStorageFromStream(backing.p, nullptr, kNew, &root), S_OK);
  {
    Ref<IStorage> created;
    ASSERT_EQ(root->CreateStorage(u"T", kRW, 0, 0, &created), S_OK);
    ASSERT_EQ(PutStream(created.p, u"old", "kept"), S_OK);
  }
  ASSERT_EQ(root->OpenStorage(u"T", nullptr, kRW | STGM_TRANSACTED, nullptr, 0, &t), S_OK);
  Ref<IStream> pending;
  ASSERT_EQ(t->CreateStream(u"new", kRW, 0, 0, &pending), S_OK);
  WriteText(pending.p, "pending");
  ASSERT_EQ(t->DestroyElement(u"old"), S_OK);
  ASSERT_EQ(t->SetClass(kClsidSub), S_OK);
  {
    Ref<IStorage> inner;  // a direct storage inside the transacted one belongs to its copy
    ASSERT_EQ(t->CreateStorage(u"inner", kRW, 0, 0, &inner), S_OK);
    ASSERT_EQ(PutStream(inner.p, u"x", "inner data"), S_OK);
  }
  ASSERT_EQ(pending->Commit(STGC_DEFAULT), S_OK);  // commits the stream into the copy only

  // Neither the parent's view nor the stream sees any of it.
  ASSERT_EQ(root->OpenStorage(u"T", nullptr, kRO, nullptr, 0, &direct), S_OK);
  EXPECT_EQ(GetStream(direct.p, u"new"), "<" + std::to_string(STG_E_FILENOTFOUND) + ">");
  EXPECT_EQ(GetStream(direct.p, u"old"), "kept");
  direct.Reset();
  ASSERT_EQ(OpenFrom(Bytes(backing.p), 0, &reopened), S_OK);
  Tree outside = Dump(reopened.p);
  EXPECT_EQ(outside.count("/T/new"), 0u);
  EXPECT_EQ(outside["/T/old"].data, "kept");
  EXPECT_EQ(outside["/T"].clsid, GUID_NULL);
  reopened.Reset();

  // Revert drops everything and cuts off what was open on the dropped elements.
  ASSERT_EQ(t->Revert(), S_OK);
  EXPECT_EQ(GetStream(t.p, u"new"), "<" + std::to_string(STG_E_FILENOTFOUND) + ">");
  EXPECT_EQ(GetStream(t.p, u"old"), "kept");
  ULONG written = 0;
  EXPECT_EQ(pending->Write("x", 1, &written), STG_E_REVERTED);
  EXPECT_EQ(pending->Seek(Li(0), STREAM_SEEK_SET, nullptr), STG_E_REVERTED);
  STATSTG st{};
  ASSERT_EQ(t->Stat(&st, STATFLAG_NONAME), S_OK);
  EXPECT_EQ(st.clsid, GUID_NULL);
  EXPECT_TRUE((st.grfMode & STGM_TRANSACTED) != 0);

  // Commit hands the copy over; through a direct root it reaches the stream.
  ASSERT_EQ(PutStream(t.p, u"new", "committed"), S_OK);
  ASSERT_EQ(t->SetClass(kClsidSub), S_OK);
  ASSERT_EQ(t->Commit(STGC_DEFAULT), S_OK);
  ASSERT_EQ(root->OpenStorage(u"T", nullptr, kRO, nullptr, 0, &direct), S_OK);
  EXPECT_EQ(GetStream(direct.p, u"new"), "committed");
  ASSERT_EQ(OpenFrom(Bytes(backing.p), 0, &reopened), S_OK);
  outside = Dump(reopened.p);
  EXPECT_EQ(outside["/T/new"].data, "committed");
  EXPECT_EQ(outside["/T"].clsid, kClsidSub);

  // A direct storage has nothing to revert.
  ASSERT_EQ(PutStream(root.p, u"direct", "stays"), S_OK);
  EXPECT_EQ(root->Revert(), S_OK);
  EXPECT_EQ(GetStream(root.p, u"direct"), "stays");
  EXPECT_EQ(root->Commit(0x100), STG_E_INVALIDFLAG);
}

TEST(HrIStorageFromStream, DestroyedOrReplacedElementsAreRevertedForOpenObjects) {
  Ref<IStream> backing;
  MemoryWith({}, &backing);
  Ref<IStorage> root, sub;
  ASSERT_EQ(HrIStorageFromStream(backing.p, nullptr, kNew, &root), S_OK);
  Ref<IStream> a, b;
  ASSERT_EQ(root->CreateStream(u"a", kRW, 0, 0, &a), S_OK);
  ASSERT_EQ(root->CreateStorage(u"sub", kRW, 0, 0, &sub), S_OK);
  ASSERT_EQ(root->DestroyElement(u"A"), S_OK);
  EXPECT_EQ(a->Write("x", 1, nullptr), STG_E_REVERTED);
  EXPECT_EQ(root->DestroyElement(u"a"), STG_E_FILENOTFOUND);
  ASSERT_EQ(root->CreateStream(u"SUB", kRW | STGM_CREATE, 0, 0, &b), S_OK);  // replaces the storage
  Ref<IStream> s;
  EXPECT_EQ(sub->CreateStream(u"x", kRW, 0, 0, &s), STG_E_REVERTED);
  STATSTG st{};
  EXPECT_EQ(sub->Stat(&st, STATFLAG_NONAME), STG_E_REVERTED);
  ASSERT_EQ(b->Stat(&st, STATFLAG_DEFAULT), S_OK);
  EXPECT_EQ(std::u16string(st.pwcsName), u"SUB");
  CoTaskMemFree(st.pwcsName);
}

TEST(HrIStorageFromStream, NamesAreCheckedAndCaseInsensitive) {
  Ref<IStream> backing;
  MemoryWith({}, &backing);
  Ref<IStorage> root, sub;
  ASSERT_EQ(HrIStorageFromStream(backing.p, nullptr, kNew, &root), S_OK);
  Ref<IStream> s;
  const std::u16string longest(31, u'n'), tooLong(32, u'n');
  EXPECT_EQ(PutStream(root.p, longest.c_str(), "31"), S_OK);
  EXPECT_EQ(root->CreateStream(tooLong.c_str(), kRW, 0, 0, &s), STG_E_INVALIDNAME);
  EXPECT_EQ(root->CreateStorage(tooLong.c_str(), kRW, 0, 0, &sub), STG_E_INVALIDNAME);
  EXPECT_EQ(root->OpenStream(tooLong.c_str(), nullptr, kRO, 0, &s), STG_E_INVALIDNAME);
  EXPECT_EQ(root->RenameElement(longest.c_str(), tooLong.c_str()), STG_E_INVALIDNAME);
  for (const char16_t* bad : {u"", u"a/b", u"a\\b", u"a:b", u"a!b"})
    EXPECT_EQ(root->CreateStream(bad, kRW, 0, 0, &s), STG_E_INVALIDNAME) << adp::Utf16ToUtf8(bad);
  EXPECT_EQ(root->CreateStream(nullptr, kRW, 0, 0, &s), STG_E_INVALIDPOINTER);
  EXPECT_EQ(root->CreateStream(u"x", kRW, 0, 0, nullptr), STG_E_INVALIDPOINTER);
  EXPECT_EQ(s.p, nullptr);

  // One name space for streams and storages, compared without case, for non-ASCII letters too.
  ASSERT_EQ(PutStream(root.p, u"Stream", "1"), S_OK);
  EXPECT_EQ(root->CreateStream(u"STREAM", kRW, 0, 0, &s), STG_E_FILEALREADYEXISTS);
  EXPECT_EQ(root->CreateStorage(u"stream", kRW, 0, 0, &sub), STG_E_FILEALREADYEXISTS);
  EXPECT_EQ(GetStream(root.p, u"sTrEaM"), "1");
  ASSERT_EQ(PutStream(root.p, u"Äpfel", "2"), S_OK);
  EXPECT_EQ(root->CreateStream(u"äPFEL", kRW, 0, 0, &s), STG_E_FILEALREADYEXISTS);
  ASSERT_EQ(PutStream(root.p, u"Вложение", "3"), S_OK);
  EXPECT_EQ(GetStream(root.p, u"вЛОЖЕНИЕ"), "3");
  EXPECT_EQ(GetStream(root.p, u"Вложени"), "<" + std::to_string(STG_E_FILENOTFOUND) + ">");
  // STGM_CREATE replaces across case, and the new spelling is what shows.
  Ref<IStream> replaced;
  ASSERT_EQ(root->CreateStream(u"STREAM", kRW | STGM_CREATE, 0, 0, &replaced), S_OK);
  replaced.Reset();
  Tree t = Dump(root.p);
  EXPECT_EQ(t.count("/Stream"), 0u);
  EXPECT_EQ(t["/STREAM"].data, "");

  // Renames: into an existing name refused, a change of case allowed.
  EXPECT_EQ(root->RenameElement(u"äpfel", u"stream"), STG_E_FILEALREADYEXISTS);
  EXPECT_EQ(root->RenameElement(u"missing", u"other"), STG_E_FILENOTFOUND);
  ASSERT_EQ(root->RenameElement(u"äpfel", u"ÄPFEL"), S_OK);
  ASSERT_EQ(root->RenameElement(u"Вложение", u"Anhang"), S_OK);
  t = Dump(root.p);
  EXPECT_EQ(t["/ÄPFEL"].data, "2");
  EXPECT_EQ(t["/Anhang"].data, "3");
  EXPECT_EQ(t.count("/Вложение"), 0u);

  // Wrong modes and reserved values.
  EXPECT_EQ(root->CreateStream(u"t", kRW | STGM_TRANSACTED, 0, 0, &s), STG_E_INVALIDFUNCTION);
  EXPECT_EQ(root->CreateStream(u"t", STGM_READWRITE | STGM_WRITE, 0, 0, &s), STG_E_INVALIDFLAG);
  EXPECT_EQ(root->CreateStream(u"t", kRW, 1, 0, &s), STG_E_INVALIDPARAMETER);
  EXPECT_EQ(root->OpenStream(u"Anhang", nullptr, kRW | STGM_CREATE, 0, &s), STG_E_INVALIDFLAG);
  EXPECT_EQ(root->OpenStorage(u"Anhang", nullptr, kRO, nullptr, 0, &sub), STG_E_FILENOTFOUND);  // a stream
  EXPECT_EQ(root->OpenStream(u"nowhere", nullptr, kRO, 0, &s), STG_E_FILENOTFOUND);
  EXPECT_EQ(root->OpenStorage(u"x", root.p, kRO, nullptr, 0, &sub), STG_E_INVALIDPARAMETER);
}

TEST(HrIStorageFromStream, NestingDepthIsBounded) {
  Ref<IStream> backing;
  MemoryWith({}, &backing);
  std::vector<IStorage*> chain(1);
  ASSERT_EQ(HrIStorageFromStream(backing.p, nullptr, kNew, &chain[0]), S_OK);
  for (int depth = 1; depth <= 256; ++depth) {
    IStorage* next = nullptr;
    ASSERT_EQ(chain.back()->CreateStorage(u"d", kRW, 0, 0, &next), S_OK) << depth;
    chain.push_back(next);
  }
  IStorage* tooDeep = nullptr;
  EXPECT_EQ(chain.back()->CreateStorage(u"d", kRW, 0, 0, &tooDeep), STG_E_INVALIDFUNCTION);
  EXPECT_EQ(PutStream(chain.back(), u"leaf", "deep"), S_OK);
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) (*it)->Release();

  Ref<IStorage> root;
  ASSERT_EQ(OpenFrom(Bytes(backing.p), 0, &root), S_OK);
  EXPECT_EQ(Dump(root.p).size(), 258u);
}

TEST(HrIStorageFromStream, EnumElementsListsAndClones) {
  Ref<IStream> backing;
  MemoryWith({}, &backing);
  Ref<IStorage> root;
  ASSERT_EQ(HrIStorageFromStream(backing.p, nullptr, kNew, &root), S_OK);
  ASSERT_EQ(PutStream(root.p, u"a", "1"), S_OK);
  ASSERT_EQ(PutStream(root.p, u"b", "22"), S_OK);
  {
    Ref<IStorage> c;
    ASSERT_EQ(root->CreateStorage(u"c", kRW, 0, 0, &c), S_OK);
    ASSERT_EQ(c->SetClass(kClsidSub), S_OK);
  }
  Ref<IEnumSTATSTG> e, clone;
  ASSERT_EQ(root->EnumElements(0, nullptr, 0, &e), S_OK);
  ASSERT_EQ(PutStream(root.p, u"late", ""), S_OK);  // the listing is a snapshot

  STATSTG st[5] = {};
  ULONG fetched = 0;
  ASSERT_EQ(e->Next(1, st, &fetched), S_OK);
  EXPECT_EQ(fetched, 1u);
  ASSERT_EQ(e->Clone(&clone), S_OK);
  ASSERT_EQ(e->Next(5, st + 1, &fetched), S_FALSE);
  EXPECT_EQ(fetched, 2u);
  std::map<std::u16string, STATSTG> seen;
  for (int i = 0; i < 3; ++i) seen[st[i].pwcsName] = st[i];
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[u"b"].type, DWORD(STGTY_STREAM));
  EXPECT_EQ(seen[u"b"].cbSize.QuadPart, 2u);
  EXPECT_EQ(seen[u"c"].type, DWORD(STGTY_STORAGE));
  EXPECT_EQ(seen[u"c"].clsid, kClsidSub);
  for (int i = 0; i < 3; ++i) CoTaskMemFree(st[i].pwcsName);

  // The clone goes on from where the original stood when cloned.
  EXPECT_EQ(clone->Skip(1), S_OK);
  ASSERT_EQ(clone->Next(1, st, nullptr), S_OK);
  EXPECT_EQ(seen.count(st[0].pwcsName), 1u);
  CoTaskMemFree(st[0].pwcsName);
  EXPECT_EQ(clone->Next(1, st, nullptr), S_FALSE);
  EXPECT_EQ(clone->Skip(1), S_FALSE);
  ASSERT_EQ(clone->Reset(), S_OK);
  EXPECT_EQ(clone->Skip(3), S_OK);
  EXPECT_EQ(e->Next(2, st, nullptr), STG_E_INVALIDPARAMETER);
  EXPECT_EQ(e->Next(1, nullptr, &fetched), STG_E_INVALIDPOINTER);
  EXPECT_EQ(root->EnumElements(0, nullptr, 0, nullptr), STG_E_INVALIDPOINTER);
}

// Forwards to another storage while hiding what it is: a storage of some other implementation.
class ForeignStorage final : public IStorage {
 public:
  explicit ForeignStorage(IStorage* inner) : m_inner(inner) { m_inner->AddRef(); }
  ~ForeignStorage() { m_inner->Release(); }
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    *ppv = nullptr;
    if (riid != IID_IUnknown && riid != IID_IStorage) return E_NOINTERFACE;
    *ppv = static_cast<IStorage*>(this);
    return S_OK;  // lives on the test's stack; no counting
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
  ULONG STDMETHODCALLTYPE Release() override { return 1; }
  HRESULT STDMETHODCALLTYPE CreateStream(const OLECHAR* n, DWORD m, DWORD r1, DWORD r2, IStream** pp) override {
    return m_inner->CreateStream(n, m, r1, r2, pp);
  }
  HRESULT STDMETHODCALLTYPE OpenStream(const OLECHAR* n, void* r1, DWORD m, DWORD r2, IStream** pp) override {
    return m_inner->OpenStream(n, r1, m, r2, pp);
  }
  HRESULT STDMETHODCALLTYPE CreateStorage(const OLECHAR* n, DWORD m, DWORD r1, DWORD r2, IStorage** pp) override {
    return m_inner->CreateStorage(n, m, r1, r2, pp);
  }
  HRESULT STDMETHODCALLTYPE OpenStorage(const OLECHAR* n, IStorage* p, DWORD m, SNB s, DWORD r,
                                        IStorage** pp) override {
    return m_inner->OpenStorage(n, p, m, s, r, pp);
  }
  HRESULT STDMETHODCALLTYPE CopyTo(DWORD c, const IID* r, SNB s, IStorage* d) override {
    return m_inner->CopyTo(c, r, s, d);
  }
  HRESULT STDMETHODCALLTYPE MoveElementTo(const OLECHAR* n, IStorage* d, const OLECHAR* nn, DWORD f) override {
    return m_inner->MoveElementTo(n, d, nn, f);
  }
  HRESULT STDMETHODCALLTYPE Commit(DWORD f) override { return m_inner->Commit(f); }
  HRESULT STDMETHODCALLTYPE Revert() override { return m_inner->Revert(); }
  HRESULT STDMETHODCALLTYPE EnumElements(DWORD r1, void* r2, DWORD r3, IEnumSTATSTG** pp) override {
    return m_inner->EnumElements(r1, r2, r3, pp);
  }
  HRESULT STDMETHODCALLTYPE DestroyElement(const OLECHAR* n) override { return m_inner->DestroyElement(n); }
  HRESULT STDMETHODCALLTYPE RenameElement(const OLECHAR* o, const OLECHAR* n) override {
    return m_inner->RenameElement(o, n);
  }
  HRESULT STDMETHODCALLTYPE SetElementTimes(const OLECHAR* n, const FILETIME* c, const FILETIME* a,
                                            const FILETIME* m) override {
    return m_inner->SetElementTimes(n, c, a, m);
  }
  HRESULT STDMETHODCALLTYPE SetClass(REFCLSID c) override { return m_inner->SetClass(c); }
  HRESULT STDMETHODCALLTYPE SetStateBits(DWORD b, DWORD m) override { return m_inner->SetStateBits(b, m); }
  HRESULT STDMETHODCALLTYPE Stat(STATSTG* s, DWORD f) override { return m_inner->Stat(s, f); }

 private:
  IStorage* m_inner;
};

// Runs CopyTo from `source` into a fresh storage that already holds Sub/Keep, directly or through
// the public interface only, and returns what arrived.
Tree CopyInto(IStorage* source, bool foreign, DWORD ciid, const IID* iids, SNB snb) {
  Ref<IStream> backing;
  MemoryWith({}, &backing);
  Ref<IStorage> dest;
  EXPECT_EQ(HrIStorageFromStream(backing.p, nullptr, kNew, &dest), S_OK);
  {
    Ref<IStorage> sub;
    EXPECT_EQ(dest->CreateStorage(u"Sub", kRW, 0, 0, &sub), S_OK);
    EXPECT_EQ(PutStream(sub.p, u"Keep", "dest's own"), S_OK);
    EXPECT_EQ(PutStream(dest.p, u"One", "will be replaced"), S_OK);
  }
  {
    ForeignStorage wrapper(dest.p);
    EXPECT_EQ(source->CopyTo(ciid, iids, snb, foreign ? static_cast<IStorage*>(&wrapper) : dest.p), S_OK);
  }
  dest.Reset();
  Ref<IStorage> reopened;  // what the copy left in the destination's stream
  EXPECT_EQ(OpenFrom(Bytes(backing.p), 0, &reopened), S_OK);
  return reopened.p ? Dump(reopened.p) : Tree();
}

TEST(HrIStorageFromStream, CopyToMergesWholeTreesWithExclusions) {
  Ref<IStream> backing;
  MemoryWith({}, &backing);
  Ref<IStorage> source;
  ASSERT_EQ(HrIStorageFromStream(backing.p, nullptr, kNew, &source), S_OK);
  BuildSample(source.p);
  Tree original = Dump(source.p);

  for (bool foreign : {false, true}) {
    SCOPED_TRACE(foreign ? "through the public interface" : "between our own storages");
    Tree all = CopyInto(source.p, foreign, 0, nullptr, nullptr);
    EXPECT_EQ(all[""].clsid, kClsidRoot);
    EXPECT_EQ(all[""].stateBits, 0x5u);
    EXPECT_EQ(all["/Sub/Keep"].data, "dest's own");  // storages merge
    EXPECT_EQ(all["/One"].data, "x");                 // streams are replaced
    for (const auto& [path, item] : original) {
      if (path.empty()) continue;
      ASSERT_EQ(all.count(path), 1u) << path;
      EXPECT_EQ(all[path].type, item.type) << path;
      EXPECT_EQ(all[path].data, item.data) << path;
      EXPECT_EQ(all[path].clsid, item.clsid) << path;
      EXPECT_EQ(all[path].stateBits, item.stateBits) << path;
    }
    EXPECT_EQ(all.size(), original.size() + 1);

    const IID noStreams[] = {IID_IStream};
    Tree storagesOnly = CopyInto(source.p, foreign, 1, noStreams, nullptr);
    EXPECT_EQ(storagesOnly.count("/Big"), 0u);
    EXPECT_EQ(storagesOnly["/One"].data, "will be replaced");  // left alone
    EXPECT_EQ(storagesOnly["/Sub/Inner"].data, Pattern(3000, 3));  // only the top level is filtered
    EXPECT_EQ(storagesOnly["/Sub/Deeper/添付ファイル"].data, Pattern(70000, 4));

    const IID noStorages[] = {IID_IStorage};
    Tree streamsOnly = CopyInto(source.p, foreign, 1, noStorages, nullptr);
    EXPECT_EQ(streamsOnly["/Big"].data, Pattern(200000, 2));
    EXPECT_EQ(streamsOnly.count("/Sub/Inner"), 0u);
    EXPECT_EQ(streamsOnly.count("/Вложение"), 0u);

    OLECHAR big[] = u"BIG";  // names match without case
    OLECHAR sub[] = u"Sub";
    OLECHAR* names[] = {big, sub, nullptr};
    Tree named = CopyInto(source.p, foreign, 0, nullptr, names);
    EXPECT_EQ(named.count("/Big"), 0u);
    EXPECT_EQ(named.count("/Sub/Inner"), 0u);
    EXPECT_EQ(named["/Sub/Keep"].data, "dest's own");
    EXPECT_EQ(named["/One"].data, "x");
  }

  // Not into itself, nor below itself.
  Ref<IStorage> sub;
  ASSERT_EQ(source->OpenStorage(u"Sub", nullptr, kRW, nullptr, 0, &sub), S_OK);
  EXPECT_EQ(source->CopyTo(0, nullptr, nullptr, source.p), STG_E_ACCESSDENIED);
  EXPECT_EQ(source->CopyTo(0, nullptr, nullptr, sub.p), STG_E_ACCESSDENIED);
  EXPECT_EQ(source->CopyTo(0, nullptr, nullptr, nullptr), STG_E_INVALIDPOINTER);
  EXPECT_EQ(source->CopyTo(1, nullptr, nullptr, sub.p), STG_E_INVALIDPOINTER);
  // A sub-storage copies into its parent's sibling fine.
  Ref<IStorage> other;
  ASSERT_EQ(source->CreateStorage(u"Other", kRW, 0, 0, &other), S_OK);
  ASSERT_EQ(sub->CopyTo(0, nullptr, nullptr, other.p), S_OK);
  EXPECT_EQ(GetStream(other.p, u"Inner"), Pattern(3000, 3));
}

TEST(HrIStorageFromStream, MoveElementToMovesAndCopies) {
  Ref<IStream> backing, otherBacking;
  MemoryWith({}, &backing);
  MemoryWith({}, &otherBacking);
  Ref<IStorage> root, other, sub;
  ASSERT_EQ(HrIStorageFromStream(backing.p, nullptr, kNew, &root), S_OK);
  ASSERT_EQ(HrIStorageFromStream(otherBacking.p, nullptr, kNew, &other), S_OK);
  BuildSample(root.p);
  ASSERT_EQ(root->OpenStorage(u"Sub", nullptr, kRW, nullptr, 0, &sub), S_OK);

  // Move within one tree, under a new name: gone from the source, open objects cut off.
  Ref<IStream> open;
  ASSERT_EQ(root->OpenStream(u"Big", nullptr, kRO, 0, &open), S_OK);
  ASSERT_EQ(root->MoveElementTo(u"big", sub.p, u"Moved", STGMOVE_MOVE), S_OK);
  EXPECT_EQ(GetStream(sub.p, u"Moved"), Pattern(200000, 2));
  EXPECT_EQ(GetStream(root.p, u"Big"), "<" + std::to_string(STG_E_FILENOTFOUND) + ">");
  STATSTG st{};
  EXPECT_EQ(open->Stat(&st, STATFLAG_NONAME), STG_E_REVERTED);

  // Copy a whole storage into another tree, and through the public interface of a third.
  ASSERT_EQ(root->MoveElementTo(u"Sub", other.p, u"Copied", STGMOVE_COPY), S_OK);
  ForeignStorage foreign(other.p);
  ASSERT_EQ(root->MoveElementTo(u"Sub", &foreign, u"Foreign", STGMOVE_COPY), S_OK);
  Tree mine = Dump(root.p), theirs = Dump(other.p);
  for (const char* copy : {"/Copied", "/Foreign"}) {
    SCOPED_TRACE(copy);
    EXPECT_EQ(theirs[copy].clsid, kClsidSub);
    EXPECT_EQ(theirs[copy].stateBits, 0xA5A5A5A5u);
    EXPECT_EQ(theirs[std::string(copy) + "/Moved"].data, Pattern(200000, 2));
    EXPECT_EQ(theirs[std::string(copy) + "/Deeper/添付ファイル"].data, mine["/Sub/Deeper/添付ファイル"].data);
  }
  EXPECT_EQ(mine.count("/Sub/Inner"), 1u);  // a copy leaves the source

  // Moving replaces what the destination holds under that name.
  ASSERT_EQ(PutStream(other.p, u"Target", "old"), S_OK);
  ASSERT_EQ(root->MoveElementTo(u"One", other.p, u"target", STGMOVE_MOVE), S_OK);
  EXPECT_EQ(GetStream(other.p, u"Target"), "x");
  EXPECT_EQ(GetStream(root.p, u"One"), "<" + std::to_string(STG_E_FILENOTFOUND) + ">");

  EXPECT_EQ(root->MoveElementTo(u"Sub", sub.p, u"Loop", STGMOVE_MOVE), STG_E_ACCESSDENIED);
  EXPECT_EQ(root->MoveElementTo(u"Empty", root.p, u"EMPTY", STGMOVE_MOVE), STG_E_ACCESSDENIED);
  EXPECT_EQ(root->MoveElementTo(u"Missing", other.p, u"x", STGMOVE_MOVE), STG_E_FILENOTFOUND);
  EXPECT_EQ(root->MoveElementTo(u"Empty", other.p, u"x", STGMOVE_SHALLOWCOPY), STG_E_INVALIDFLAG);
  EXPECT_EQ(root->MoveElementTo(u"Empty", nullptr, u"x", STGMOVE_MOVE), STG_E_INVALIDPOINTER);
  // Renaming by a move within one storage works.
  ASSERT_EQ(root->MoveElementTo(u"Empty", root.p, u"Vacant", STGMOVE_MOVE), S_OK);
  mine = Dump(root.p);
  EXPECT_EQ(mine.count("/Empty"), 0u);
  EXPECT_EQ(mine.count("/Vacant"), 1u);

  // All of it made it into the streams.
  mine = Dump(root.p);
  theirs = Dump(other.p);
  root.Reset();
  sub.Reset();
  other.Reset();
  Ref<IStorage> reopened;
  ASSERT_EQ(OpenFrom(Bytes(otherBacking.p), 0, &reopened), S_OK);
  EXPECT_EQ(Dump(reopened.p), theirs);
  EXPECT_EQ(GetStream(reopened.p, u"Target"), "x");
  reopened.Reset();
  ASSERT_EQ(OpenFrom(Bytes(backing.p), 0, &reopened), S_OK);
  EXPECT_EQ(Dump(reopened.p), mine);
}

TEST(HrIStorageFromStream, ElementStreamsAreFullStreams) {
  Ref<IStream> backing;
  MemoryWith({}, &backing);
  Ref<IStorage> root;
  ASSERT_EQ(HrIStorageFromStream(backing.p, nullptr, kNew, &root), S_OK);
  Ref<IStream> s, clone, memory;
  ASSERT_EQ(root->CreateStream(u"data", kRW, 0, 0, &s), S_OK);
  ASSERT_EQ(s->Seek(Li(6), STREAM_SEEK_SET, nullptr), S_OK);
  WriteText(s.p, "end");
  EXPECT_EQ(ReadAll(s.p), std::string(6, '\0') + "end");
  ASSERT_EQ(s->SetSize(Uli(4)), S_OK);
  ASSERT_EQ(s->Seek(Li(0), STREAM_SEEK_SET, nullptr), S_OK);
  WriteText(s.p, "abcd");
  ASSERT_EQ(s->Clone(&clone), S_OK);
  ULARGE_INTEGER at{};
  ASSERT_EQ(clone->Seek(Li(0), STREAM_SEEK_CUR, &at), S_OK);
  EXPECT_EQ(at.QuadPart, 4u);
  WriteText(clone.p, "ef");  // the clone writes into the same element
  EXPECT_EQ(ReadAll(s.p), "abcdef");
  EXPECT_EQ(s->Seek(Li(-1), STREAM_SEEK_SET, nullptr), STG_E_INVALIDFUNCTION);

  ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &memory), S_OK);
  ASSERT_EQ(s->Seek(Li(2), STREAM_SEEK_SET, nullptr), S_OK);
  ULARGE_INTEGER read{}, written{};
  ASSERT_EQ(s->CopyTo(memory.p, Uli(3), &read, &written), S_OK);
  EXPECT_EQ(read.QuadPart, 3u);
  EXPECT_EQ(ReadAll(memory.p), "cde");
  // Copying into another element of the same tree works too.
  Ref<IStream> twin;
  ASSERT_EQ(root->CreateStream(u"twin", kRW, 0, 0, &twin), S_OK);
  ASSERT_EQ(s->Seek(Li(0), STREAM_SEEK_SET, nullptr), S_OK);
  ASSERT_EQ(s->CopyTo(twin.p, Uli(~0ull), &read, &written), S_OK);
  EXPECT_EQ(written.QuadPart, 6u);
  EXPECT_EQ(ReadAll(twin.p), "abcdef");

  STATSTG st{};
  ASSERT_EQ(s->Stat(&st, STATFLAG_DEFAULT), S_OK);
  EXPECT_EQ(std::u16string(st.pwcsName), u"data");
  EXPECT_EQ(st.cbSize.QuadPart, 6u);
  EXPECT_EQ(st.type, DWORD(STGTY_STREAM));
  CoTaskMemFree(st.pwcsName);
  EXPECT_EQ(s->LockRegion(Uli(0), Uli(1), LOCK_WRITE), STG_E_INVALIDFUNCTION);
  EXPECT_EQ(s->Revert(), S_OK);
  EXPECT_EQ(s->SetSize(Uli(0x100000000ull)), STG_E_MEDIUMFULL);
  ASSERT_EQ(s->Seek(Li(0xFFFFFFFFll), STREAM_SEEK_SET, nullptr), S_OK);
  EXPECT_EQ(s->Write("x", 1, nullptr), STG_E_MEDIUMFULL);
  IUnknown* unk = nullptr;
  EXPECT_EQ(s->QueryInterface(IID_IStorage, reinterpret_cast<void**>(&unk)), E_NOINTERFACE);
}

TEST(HrIStorageFromStream, BadArgumentsAreRefused) {
  Ref<IStream> backing;
  MemoryWith({}, &backing);
  Ref<IStorage> root;
  EXPECT_EQ(HrIStorageFromStream(backing.p, nullptr, kNew, nullptr), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(HrIStorageFromStream(nullptr, nullptr, kNew, &root), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(HrIStorageFromStream(backing.p, &IID_IStorage, kNew, &root), MAPI_E_INTERFACE_NOT_SUPPORTED);
  EXPECT_EQ(HrIStorageFromStream(backing.p, nullptr, kNew | 0x4, &root), MAPI_E_UNKNOWN_FLAGS);
  EXPECT_EQ(HrIStorageFromStream(backing.p, nullptr, STGSTRM_MODIFY, &root), STG_E_INVALIDHEADER);  // empty
  ASSERT_EQ(HrIStorageFromStream(backing.p, nullptr, kNew, &root), S_OK);
  Ref<IStorage> notAStream;  // a storage is no stream
  EXPECT_EQ(HrIStorageFromStream(root.p, nullptr, kNew, &notAStream), MAPI_E_INTERFACE_NOT_SUPPORTED);
  EXPECT_EQ(notAStream.p, nullptr);
  IUnknown* unk = nullptr;
  EXPECT_EQ(root->QueryInterface(IID_IStream, reinterpret_cast<void**>(&unk)), E_NOINTERFACE);
  EXPECT_EQ(root->Stat(nullptr, STATFLAG_DEFAULT), STG_E_INVALIDPOINTER);
  STATSTG st{};
  EXPECT_EQ(root->Stat(&st, 0x10), STG_E_INVALIDFLAG);
}

// A plain ILockBytes over a vector.
class VectorBytes final : public ILockBytes {
 public:
  std::vector<BYTE> data;
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    *ppv = nullptr;
    if (riid != IID_IUnknown && riid != IID_ILockBytes) return E_NOINTERFACE;
    *ppv = static_cast<ILockBytes*>(this);
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
  ULONG STDMETHODCALLTYPE Release() override { return --refs; }  // lives on the test's stack
  HRESULT STDMETHODCALLTYPE ReadAt(ULARGE_INTEGER at, void* pv, ULONG cb, ULONG* got) override {
    size_t from = std::min<size_t>(at.QuadPart, data.size());
    *got = static_cast<ULONG>(std::min<size_t>(cb, data.size() - from));
    std::memcpy(pv, data.data() + from, *got);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE WriteAt(ULARGE_INTEGER at, const void* pv, ULONG cb, ULONG* put) override {
    if (data.size() < at.QuadPart + cb) data.resize(at.QuadPart + cb);
    std::memcpy(data.data() + at.QuadPart, pv, cb);
    *put = cb;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Flush() override { return S_OK; }
  HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER cb) override {
    data.resize(cb.QuadPart);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override {
    return STG_E_INVALIDFUNCTION;
  }
  HRESULT STDMETHODCALLTYPE UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override {
    return STG_E_INVALIDFUNCTION;
  }
  HRESULT STDMETHODCALLTYPE Stat(STATSTG* st, DWORD) override {
    std::memset(st, 0, sizeof(*st));
    st->cbSize.QuadPart = data.size();
    return S_OK;
  }
  ULONG refs = 1;
};

TEST(HrIStorageFromStream, LockBytesAndFileStreamsHoldStoragesToo) {
  adtest::TempHome home;
  {
    VectorBytes bytes;
    Ref<IStorage> root;
    ASSERT_EQ(HrIStorageFromStream(&bytes, &IID_ILockBytes, kNew, &root), S_OK);
    ASSERT_EQ(PutStream(root.p, u"s", "on lock bytes"), S_OK);
    ASSERT_EQ(root->Commit(STGC_DEFAULT), S_OK);
    root.Reset();
    EXPECT_EQ(bytes.refs, 1u);  // the storage gave its reference back
    ASSERT_EQ(HrIStorageFromStream(&bytes, &IID_ILockBytes, 0, &root), S_OK);
    EXPECT_EQ(GetStream(root.p, u"s"), "on lock bytes");
  }

  // A storage on a delete-on-release temporary file: the bytes are copied out while it is open,
  // and the file goes with the last release.
  Ref<IStream> file;
  ASSERT_EQ(OpenStreamOnFile(MAPIAllocateBuffer, MAPIFreeBuffer,
                             SOF_UNIQUEFILENAME | STGM_DELETEONRELEASE | STGM_CREATE | STGM_READWRITE, nullptr,
                             nullptr, &file),
            S_OK);
  STATSTG st{};
  ASSERT_EQ(file->Stat(&st, STATFLAG_DEFAULT), S_OK);
  std::string path = adp::Utf16ToUtf8(st.pwcsName);
  CoTaskMemFree(st.pwcsName);
  Ref<IStorage> root;
  ASSERT_EQ(HrIStorageFromStream(file.p, nullptr, kNew, &root), S_OK);
  ASSERT_EQ(root->Stat(&st, STATFLAG_DEFAULT), S_OK);
  EXPECT_EQ(adp::Utf16ToUtf8(st.pwcsName), path);  // the root is named after its file
  CoTaskMemFree(st.pwcsName);
  BuildSample(root.p);
  Tree built = Dump(root.p);
  Ref<IStream> copy;
  ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &copy), S_OK);
  ASSERT_EQ(file->Seek(Li(0), STREAM_SEEK_SET, nullptr), S_OK);
  ASSERT_EQ(file->CopyTo(copy.p, Uli(0xFFFFFFFF), nullptr, nullptr), S_OK);
  file.Reset();
  EXPECT_TRUE(fs::exists(path));  // the storage still holds the stream
  root.Reset();
  EXPECT_FALSE(fs::exists(path));
  ASSERT_EQ(copy->Seek(Li(0), STREAM_SEEK_SET, nullptr), S_OK);
  ASSERT_EQ(HrIStorageFromStream(copy.p, nullptr, STGSTRM_MODIFY | STGSTRM_CURRENT, &root), S_OK);
  EXPECT_EQ(Dump(root.p), built);
}

// ---------------------------------------------------------------------------------------------
// Hostile bytes.

bool IsFormatError(HRESULT hr) { return hr == STG_E_INVALIDHEADER || hr == STG_E_DOCFILECORRUPT; }

std::vector<BYTE> SmallImage() {
  Ref<IStream> backing;
  MemoryWith({}, &backing);
  Ref<IStorage> root, sub;
  EXPECT_EQ(HrIStorageFromStream(backing.p, nullptr, kNew, &root), S_OK);
  EXPECT_EQ(root->SetClass(kClsidRoot), S_OK);
  EXPECT_EQ(PutStream(root.p, u"ab", "xyz"), S_OK);
  EXPECT_EQ(root->CreateStorage(u"S", kRW, 0, 0, &sub), S_OK);
  EXPECT_EQ(PutStream(sub.p, u"c", ""), S_OK);
  sub.Reset();
  EXPECT_EQ(root->Commit(STGC_DEFAULT), S_OK);
  root.Reset();
  return Bytes(backing.p);
}

TEST(HrIStorageFromStream, TruncatedOrCorruptedBytesAreRefused) {
  const std::vector<BYTE> good = SmallImage();
  ASSERT_GT(good.size(), 100u);
  Ref<IStorage> root;
  ASSERT_EQ(OpenFrom(good, 0, &root), S_OK);
  root.Reset();
  for (size_t n = 0; n < good.size(); ++n) {
    std::vector<BYTE> cut(good.begin(), good.begin() + n);
    HRESULT hr = OpenFrom(cut, STGSTRM_MODIFY, &root);
    EXPECT_TRUE(IsFormatError(hr)) << "length " << n << ": " << std::hex << hr;
    EXPECT_EQ(root.p, nullptr);
    root.Reset();
  }
  for (size_t at = 0; at < good.size(); ++at) {
    for (BYTE flip : {BYTE(0x01), BYTE(0x80), BYTE(0xFF)}) {
      std::vector<BYTE> bad = good;
      bad[at] ^= flip;
      HRESULT hr = OpenFrom(bad, STGSTRM_MODIFY, &root);
      EXPECT_TRUE(IsFormatError(hr)) << "offset " << at << " ^" << int(flip) << ": " << std::hex << hr;
      root.Reset();
    }
  }
  // Bytes behind the image are not part of it.
  std::vector<BYTE> longer = good;
  longer.insert(longer.end(), 50, 0xEE);
  ASSERT_EQ(OpenFrom(longer, 0, &root), S_OK);
  EXPECT_EQ(GetStream(root.p, u"ab"), "xyz");
}

// Builds bodies by the documented layout, with a correct checksum, so that the structure checks
// behind the checksum get tried.
class Body {
 public:
  Body& U8(BYTE v) { return Le(v, 1); }
  Body& U16(WORD v) { return Le(v, 2); }
  Body& U32(DWORD v) { return Le(v, 4); }
  Body& U64(ULONGLONG v) { return Le(v, 8); }
  Body& Head(BYTE type, const std::u16string& name, BYTE nameLength) {
    U8(type).U8(nameLength).U16(0);
    for (char16_t c : name) U16(c);
    return U64(0).U64(0).U64(0);
  }
  Body& Storage(const std::u16string& name, DWORD children) {
    Head(1, name, static_cast<BYTE>(name.size()));
    for (int i = 0; i < 16; ++i) U8(0);
    return U32(0).U32(children);
  }
  Body& Stream(const std::u16string& name, const std::string& data) {
    Head(2, name, static_cast<BYTE>(name.size())).U64(data.size());
    bytes.insert(bytes.end(), data.begin(), data.end());
    return *this;
  }
  std::vector<BYTE> Image(WORD version = 1) const {
    Body out;
    out.bytes = {'A', 'D', 'S', 'G'};
    out.U16(version).U16(24).U64(bytes.size()).U32(Crc()).U32(0);
    out.bytes.insert(out.bytes.end(), bytes.begin(), bytes.end());
    return out.bytes;
  }
  std::vector<BYTE> bytes;

 private:
  Body& Le(ULONGLONG v, int n) {
    for (int i = 0; i < n; ++i) bytes.push_back(static_cast<BYTE>(v >> (8 * i)));
    return *this;
  }
  DWORD Crc() const {
    DWORD c = 0xFFFFFFFFu;
    for (BYTE b : bytes) {
      c ^= b;
      for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
    }
    return ~c;
  }
};

TEST(HrIStorageFromStream, HostileStructuresBehindAValidChecksumAreRefused) {
  Ref<IStorage> root;
  // The builder speaks the format: a well-formed body opens.
  ASSERT_EQ(OpenFrom(Body().Storage(u"", 2).Stream(u"s", "abc").Storage(u"d", 0).Image(), 0, &root), S_OK);
  EXPECT_EQ(GetStream(root.p, u"S"), "abc");
  root.Reset();

  struct Case {
    const char* what;
    std::vector<BYTE> image;
    HRESULT expected;
  };
  Body deep;
  for (int i = 0; i < 300; ++i) deep.Storage(i ? u"d" : u"", 1);
  deep.Stream(u"s", "x");
  Body longName;
  longName.Storage(u"", 1).Head(2, std::u16string(200, u'n'), 200).U64(0);
  Body rootIsStream;
  rootIsStream.Stream(u"", "x");
  Body namedRoot;
  namedRoot.Storage(u"root", 0);
  Body nameless;
  nameless.Storage(u"", 1).Stream(u"", "x");
  std::vector<Case> cases = {
      {"child count beyond the bytes", Body().Storage(u"", 0xFFFFFFFF).Image(), STG_E_DOCFILECORRUPT},
      {"one child too many", Body().Storage(u"", 2).Stream(u"s", "").Image(), STG_E_DOCFILECORRUPT},
      {"stream length beyond the bytes", Body().Storage(u"", 1).Head(2, u"s", 1).U64(1ull << 62).Image(),
       STG_E_DOCFILECORRUPT},
      {"name longer than 31", longName.Image(), STG_E_DOCFILECORRUPT},
      {"nesting past the limit", deep.Image(), STG_E_DOCFILECORRUPT},
      {"names equal but for case", Body().Storage(u"", 2).Stream(u"a", "").Stream(u"A", "").Image(),
       STG_E_DOCFILECORRUPT},
      {"illegal character", Body().Storage(u"", 1).Stream(u"a/b", "").Image(), STG_E_DOCFILECORRUPT},
      {"unknown element type", Body().Storage(u"", 1).Head(7, u"x", 1).U64(0).Image(), STG_E_DOCFILECORRUPT},
      {"bytes left over in the body", Body().Storage(u"", 0).U8(0).Image(), STG_E_DOCFILECORRUPT},
      {"root is a stream", rootIsStream.Image(), STG_E_DOCFILECORRUPT},
      {"root has a name", namedRoot.Image(), STG_E_DOCFILECORRUPT},
      {"child without a name", nameless.Image(), STG_E_DOCFILECORRUPT},
      {"unknown version", Body().Storage(u"", 0).Image(2), STG_E_INVALIDHEADER},
      {"not an image at all", std::vector<BYTE>(4096, 'Z'), STG_E_INVALIDHEADER},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(OpenFrom(c.image, STGSTRM_MODIFY, &root), c.expected) << c.what;
    EXPECT_EQ(root.p, nullptr) << c.what;
    root.Reset();
  }
  // A header that claims more body than the stream holds.
  std::vector<BYTE> claims = Body().Storage(u"", 0).Image();
  claims[15] = 0x7F;
  EXPECT_EQ(OpenFrom(claims, 0, &root), STG_E_DOCFILECORRUPT);
}

TEST(HrIStorageFromStream, ThreadsShareOneTree) {
  Ref<IStream> backing;
  MemoryWith({}, &backing);
  Ref<IStorage> root;
  ASSERT_EQ(HrIStorageFromStream(backing.p, nullptr, kNew, &root), S_OK);
  constexpr int kThreads = 4, kChunks = 50;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::u16string name = u"stream" + std::u16string(1, char16_t(u'0' + t));
      IStream* s = nullptr;
      if (FAILED(root->CreateStream(name.c_str(), kRW, 0, 0, &s))) {
        ++failures;
        return;
      }
      std::string chunk = Pattern(100, t);
      for (int i = 0; i < kChunks; ++i) {
        if (FAILED(s->Write(chunk.data(), 100, nullptr))) ++failures;
        if (i % 10 == 0 && FAILED(root->Commit(STGC_DEFAULT))) ++failures;
      }
      s->Release();
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);
  root.Reset();
  ASSERT_EQ(OpenFrom(Bytes(backing.p), 0, &root), S_OK);
  for (int t = 0; t < kThreads; ++t) {
    std::u16string name = u"stream" + std::u16string(1, char16_t(u'0' + t));
    std::string expected;
    for (int i = 0; i < kChunks; ++i) expected += Pattern(100, t);
    EXPECT_EQ(GetStream(root.p, name.c_str()), expected);
  }
}

}  // namespace
