#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <mapiutil.h>
#include <objbase.h>

#include "adplatform.h"
#include "test_home.h"

namespace {

namespace fs = std::filesystem;

constexpr ULONG kTempFlags = SOF_UNIQUEFILENAME | STGM_DELETEONRELEASE | STGM_CREATE | STGM_READWRITE;

// Owns one stream reference.
struct StreamRef {
  IStream* p = nullptr;
  StreamRef() = default;
  StreamRef(const StreamRef&) = delete;
  StreamRef& operator=(const StreamRef&) = delete;
  ~StreamRef() { Reset(); }
  void Reset() {
    if (p) p->Release();
    p = nullptr;
  }
  IStream* operator->() const { return p; }
  IStream** operator&() { return &p; }
};

HRESULT Open(ULONG flags, const std::string* name, const char* prefix, IStream** out) {
  return OpenStreamOnFile(MAPIAllocateBuffer, MAPIFreeBuffer, flags, name ? const_cast<LPSTR>(name->c_str()) : nullptr,
                          const_cast<LPSTR>(prefix), out);
}

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

// The name Stat reports, as UTF-8.
std::string NameOf(IStream* s) {
  STATSTG st{};
  EXPECT_EQ(s->Stat(&st, STATFLAG_DEFAULT), S_OK);
  if (!st.pwcsName) return std::string();
  std::string name = adp::Utf16ToUtf8(st.pwcsName);
  CoTaskMemFree(st.pwcsName);
  return name;
}

ULONGLONG SizeOf(IStream* s) {
  STATSTG st{};
  EXPECT_EQ(s->Stat(&st, STATFLAG_NONAME), S_OK);
  EXPECT_EQ(st.pwcsName, nullptr);
  return st.cbSize.QuadPart;
}

void WriteText(IStream* s, const std::string& text) {
  ULONG written = 0;
  ASSERT_EQ(s->Write(text.data(), static_cast<ULONG>(text.size()), &written), S_OK);
  ASSERT_EQ(written, text.size());
}

std::string ReadFrom(IStream* s, LONGLONG at, size_t n) {
  EXPECT_EQ(s->Seek(Li(at), STREAM_SEEK_SET, nullptr), S_OK);
  std::string out(n, '?');
  ULONG got = 0;
  EXPECT_EQ(s->Read(out.data(), static_cast<ULONG>(n), &got), S_OK);
  out.resize(got);
  return out;
}

std::string FileText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string Backslashed(std::string path) {
  std::replace(path.begin(), path.end(), '/', '\\');
  return path;
}

TEST(OpenStreamOnFile, DeleteOnReleaseFileLivesUntilTheLastCloneGoes) {
  adtest::TempHome home;
  StreamRef stream, clone, cloneOfClone;
  ASSERT_EQ(Open(kTempFlags, nullptr, "ADT", &stream), S_OK);
  std::string path = NameOf(stream.p);
  ASSERT_EQ(path.rfind(home.Temp(), 0), 0u) << path;  // no folder given: the temporary folder
  ASSERT_TRUE(fs::exists(path));

  WriteText(stream.p, "attachment bytes");
  ASSERT_EQ(stream->Clone(&clone), S_OK);
  ASSERT_EQ(clone->Clone(&cloneOfClone), S_OK);
  stream.Reset();
  EXPECT_TRUE(fs::exists(path));
  EXPECT_EQ(ReadFrom(clone.p, 0, 100), "attachment bytes");
  clone.Reset();
  EXPECT_TRUE(fs::exists(path));
  EXPECT_EQ(NameOf(cloneOfClone.p), path);
  cloneOfClone.Reset();
  EXPECT_FALSE(fs::exists(path));

  // A named file opened for deletion goes too; one opened without the flag stays.
  std::string keep = home.Temp() + "keep.bin", drop = home.Temp() + "drop.bin";
  ASSERT_EQ(Open(STGM_CREATE | STGM_READWRITE, &keep, nullptr, &stream), S_OK);
  stream.Reset();
  ASSERT_EQ(Open(STGM_CREATE | STGM_READWRITE | STGM_DELETEONRELEASE, &drop, nullptr, &stream), S_OK);
  EXPECT_TRUE(fs::exists(drop));
  stream.Reset();
  EXPECT_FALSE(fs::exists(drop));
  EXPECT_TRUE(fs::exists(keep));

  // Nothing is left behind in the temporary folder.
  EXPECT_EQ(std::distance(fs::directory_iterator(home.Temp()), fs::directory_iterator()), 1);
}

TEST(OpenStreamOnFile, UniqueNamesUseThePrefixAndTheGivenFolder) {
  adtest::TempHome home;
  std::string folder = home.Temp() + "att";
  fs::create_directories(folder);
  std::string windowsFolder = Backslashed(folder);  // "\tmp\...\att", no trailing separator

  std::vector<StreamRef> streams(20);
  std::set<std::string> names;
  const std::regex pattern(R"(XYZ[0-9A-F]{4}\.TMP)");
  for (auto& s : streams) {
    ASSERT_EQ(Open(kTempFlags, &windowsFolder, "XYZ", &s), S_OK);
    std::string name = NameOf(s.p);
    ASSERT_EQ(name.rfind(windowsFolder + "\\", 0), 0u) << name;
    std::string leaf = name.substr(windowsFolder.size() + 1);
    EXPECT_TRUE(std::regex_match(leaf, pattern)) << leaf;
    EXPECT_TRUE(fs::exists(folder + "/" + leaf));
    names.insert(leaf);
  }
  EXPECT_EQ(names.size(), streams.size());

  // No prefix: "SOF"; a longer one: its first three characters.
  StreamRef plain, longer;
  ASSERT_EQ(Open(kTempFlags, &folder, nullptr, &plain), S_OK);
  EXPECT_TRUE(std::regex_search(NameOf(plain.p), std::regex(R"(/SOF[0-9A-F]{4}\.TMP$)")));
  ASSERT_EQ(Open(kTempFlags, &folder, "ABCDEF", &longer), S_OK);
  EXPECT_TRUE(std::regex_search(NameOf(longer.p), std::regex(R"(/ABC[0-9A-F]{4}\.TMP$)")));

  // Without delete-on-release the unique file stays.
  std::string kept;
  {
    StreamRef s;
    ASSERT_EQ(Open(SOF_UNIQUEFILENAME | STGM_CREATE | STGM_READWRITE, &folder, "KEP", &s), S_OK);
    kept = NameOf(s.p);
  }
  EXPECT_TRUE(fs::exists(kept));

  StreamRef bad;
  std::string missing = home.Temp() + "no-such-folder";
  EXPECT_EQ(Open(kTempFlags, &missing, "XYZ", &bad), MAPI_E_NOT_FOUND);
  EXPECT_EQ(Open(kTempFlags, &folder, "a/b", &bad), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(bad.p, nullptr);
}

TEST(OpenStreamOnFile, PlainOpensOfNamedFiles) {
  adtest::TempHome home;
  std::string path = Backslashed(home.Temp() + "data.bin");
  StreamRef s;
  ASSERT_EQ(Open(STGM_CREATE | STGM_READWRITE, &path, nullptr, &s), S_OK);
  WriteText(s.p, "hello");
  EXPECT_EQ(NameOf(s.p), path);  // reported as the caller spelled it
  s.Reset();
  EXPECT_EQ(FileText(home.Temp() + "data.bin"), "hello");

  // Read-only: reads work, every write is refused and the file is untouched.
  ASSERT_EQ(Open(STGM_READ, &path, nullptr, &s), S_OK);
  EXPECT_EQ(ReadFrom(s.p, 0, 100), "hello");
  ULONG written = 99;
  EXPECT_EQ(s->Write("x", 1, &written), STG_E_ACCESSDENIED);
  EXPECT_EQ(written, 0u);
  EXPECT_EQ(s->SetSize(Uli(1)), STG_E_ACCESSDENIED);
  STATSTG st{};
  ASSERT_EQ(s->Stat(&st, STATFLAG_NONAME), S_OK);
  EXPECT_EQ(st.grfMode & 3, DWORD(STGM_READ));
  s.Reset();
  EXPECT_EQ(FileText(home.Temp() + "data.bin"), "hello");

  // Read-write open of an existing file keeps its contents; STGM_CREATE truncates it.
  ASSERT_EQ(Open(STGM_READWRITE, &path, nullptr, &s), S_OK);
  EXPECT_EQ(SizeOf(s.p), 5u);
  s.Reset();
  ASSERT_EQ(Open(STGM_CREATE | STGM_READWRITE, &path, nullptr, &s), S_OK);
  EXPECT_EQ(SizeOf(s.p), 0u);
  s.Reset();

  std::string missing = home.Temp() + "missing.bin";
  EXPECT_EQ(Open(STGM_READ, &missing, nullptr, &s), MAPI_E_NOT_FOUND);
  EXPECT_EQ(Open(STGM_READWRITE, &missing, nullptr, &s), MAPI_E_NOT_FOUND);
  EXPECT_FALSE(fs::exists(missing));
  std::string inMissingFolder = home.Temp() + "nope\\x.bin";
  EXPECT_EQ(Open(STGM_CREATE | STGM_READWRITE, &inMissingFolder, nullptr, &s), MAPI_E_NOT_FOUND);
  std::string folder = home.Temp();
  EXPECT_EQ(Open(STGM_READ, &folder, nullptr, &s), MAPI_E_NO_ACCESS);

  std::string locked = home.Temp() + "readonly.bin";
  std::ofstream(locked) << "fixed";
  ::chmod(locked.c_str(), 0444);
  if (::geteuid() != 0) {  // root ignores file modes
    EXPECT_EQ(Open(STGM_READWRITE, &locked, nullptr, &s), MAPI_E_NO_ACCESS);
    EXPECT_EQ(Open(STGM_CREATE | STGM_READWRITE, &locked, nullptr, &s), MAPI_E_NO_ACCESS);
  }
  ASSERT_EQ(Open(STGM_READ, &locked, nullptr, &s), S_OK);
  EXPECT_EQ(ReadFrom(s.p, 0, 10), "fixed");
  s.Reset();
  EXPECT_EQ(FileText(locked), "fixed");
}

TEST(OpenStreamOnFile, BadArgumentsAreRefused) {
  adtest::TempHome home;
  std::string path = home.Temp() + "x.bin";
  StreamRef s;
  EXPECT_EQ(Open(kTempFlags, nullptr, nullptr, nullptr), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(OpenStreamOnFile(nullptr, MAPIFreeBuffer, kTempFlags, nullptr, nullptr, &s), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(OpenStreamOnFile(MAPIAllocateBuffer, nullptr, kTempFlags, nullptr, nullptr, &s), MAPI_E_INVALID_PARAMETER);
  // A nameless file must be created and must clean up after itself.
  EXPECT_EQ(Open(STGM_CREATE | STGM_READWRITE, nullptr, nullptr, &s), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(Open(STGM_DELETEONRELEASE | STGM_READWRITE, nullptr, nullptr, &s), MAPI_E_INVALID_PARAMETER);
  // Creating needs write access.
  EXPECT_EQ(Open(STGM_CREATE, &path, nullptr, &s), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(Open(STGM_READWRITE | STGM_WRITE, &path, nullptr, &s), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(Open(STGM_CREATE | STGM_READWRITE | 0x00800000, &path, nullptr, &s), MAPI_E_UNKNOWN_FLAGS);
  EXPECT_EQ(s.p, nullptr);
  EXPECT_FALSE(fs::exists(path));
}

TEST(OpenStreamOnFile, StreamSemantics) {
  adtest::TempHome home;
  StreamRef s;
  ASSERT_EQ(Open(kTempFlags, nullptr, nullptr, &s), S_OK);

  // Seeking beyond the end is allowed; a write there leaves a gap of zeros.
  ULARGE_INTEGER at{};
  ASSERT_EQ(s->Seek(Li(10), STREAM_SEEK_SET, &at), S_OK);
  EXPECT_EQ(at.QuadPart, 10u);
  EXPECT_EQ(ReadFrom(s.p, 10, 4), "");  // nothing there yet, and no error
  ASSERT_EQ(s->Seek(Li(10), STREAM_SEEK_SET, nullptr), S_OK);
  WriteText(s.p, "tail");
  EXPECT_EQ(SizeOf(s.p), 14u);
  EXPECT_EQ(ReadFrom(s.p, 0, 14), std::string(10, '\0') + "tail");
  ASSERT_EQ(s->Seek(Li(-4), STREAM_SEEK_END, &at), S_OK);
  EXPECT_EQ(at.QuadPart, 10u);
  ASSERT_EQ(s->Seek(Li(2), STREAM_SEEK_CUR, &at), S_OK);
  EXPECT_EQ(at.QuadPart, 12u);
  EXPECT_EQ(s->Seek(Li(-13), STREAM_SEEK_CUR, &at), STG_E_INVALIDFUNCTION);
  EXPECT_EQ(s->Seek(Li(0), 7, &at), STG_E_INVALIDFUNCTION);
  ASSERT_EQ(s->Seek(Li(0), STREAM_SEEK_CUR, &at), S_OK);
  EXPECT_EQ(at.QuadPart, 12u);  // failed seeks leave the pointer alone

  ASSERT_EQ(s->SetSize(Uli(3)), S_OK);
  EXPECT_EQ(SizeOf(s.p), 3u);
  ASSERT_EQ(s->SetSize(Uli(6)), S_OK);
  EXPECT_EQ(ReadFrom(s.p, 0, 10), std::string(6, '\0'));

  // 200000 bytes through the file and back out through CopyTo into a memory stream.
  std::string big(200000, '\0');
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7 + i / 251);
  ASSERT_EQ(s->Seek(Li(0), STREAM_SEEK_SET, nullptr), S_OK);
  ASSERT_EQ(s->SetSize(Uli(0)), S_OK);
  WriteText(s.p, big);
  StreamRef memory;
  ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &memory), S_OK);
  ASSERT_EQ(s->Seek(Li(100), STREAM_SEEK_SET, nullptr), S_OK);
  ULARGE_INTEGER read{}, written{};
  ASSERT_EQ(s->CopyTo(memory.p, Uli(1000000), &read, &written), S_OK);
  EXPECT_EQ(read.QuadPart, big.size() - 100);
  EXPECT_EQ(written.QuadPart, big.size() - 100);
  ASSERT_EQ(s->Seek(Li(0), STREAM_SEEK_CUR, &at), S_OK);
  EXPECT_EQ(at.QuadPart, big.size());  // CopyTo moves the source pointer by what it read
  EXPECT_EQ(ReadFrom(memory.p, 0, big.size()), big.substr(100));
  EXPECT_EQ(s->CopyTo(nullptr, Uli(1), &read, &written), STG_E_INVALIDPOINTER);

  // A clone has its own pointer over the same file.
  StreamRef clone;
  ASSERT_EQ(s->Seek(Li(5), STREAM_SEEK_SET, nullptr), S_OK);
  ASSERT_EQ(s->Clone(&clone), S_OK);
  ASSERT_EQ(clone->Seek(Li(0), STREAM_SEEK_CUR, &at), S_OK);
  EXPECT_EQ(at.QuadPart, 5u);
  ASSERT_EQ(clone->Seek(Li(0), STREAM_SEEK_SET, nullptr), S_OK);
  WriteText(clone.p, "XY");
  ASSERT_EQ(s->Seek(Li(0), STREAM_SEEK_CUR, &at), S_OK);
  EXPECT_EQ(at.QuadPart, 5u);
  EXPECT_EQ(ReadFrom(s.p, 0, 3), std::string("XY") + big[2]);

  EXPECT_EQ(s->Commit(STGC_DEFAULT), S_OK);
  EXPECT_EQ(s->Commit(0x100), STG_E_INVALIDFLAG);
  EXPECT_EQ(s->Revert(), S_OK);
  EXPECT_EQ(s->LockRegion(Uli(0), Uli(1), LOCK_EXCLUSIVE), STG_E_INVALIDFUNCTION);
  EXPECT_EQ(s->UnlockRegion(Uli(0), Uli(1), LOCK_EXCLUSIVE), STG_E_INVALIDFUNCTION);
  STATSTG st{};
  EXPECT_EQ(s->Stat(nullptr, STATFLAG_DEFAULT), STG_E_INVALIDPOINTER);
  EXPECT_EQ(s->Stat(&st, 0x80), STG_E_INVALIDFLAG);
  ASSERT_EQ(s->Stat(&st, STATFLAG_NONAME), S_OK);
  EXPECT_EQ(st.type, DWORD(STGTY_STREAM));
  EXPECT_EQ(st.grfMode & 3, DWORD(STGM_READWRITE));
  EXPECT_NE(st.mtime.dwHighDateTime, 0u);

  IUnknown* unk = nullptr;
  EXPECT_EQ(s->QueryInterface(IID_ISequentialStream, reinterpret_cast<void**>(&unk)), S_OK);
  ASSERT_NE(unk, nullptr);
  unk->Release();
  EXPECT_EQ(s->QueryInterface(IID_IStorage, reinterpret_cast<void**>(&unk)), E_NOINTERFACE);
  EXPECT_EQ(unk, nullptr);
}

}  // namespace
