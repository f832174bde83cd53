// Helpers shared by the record-file tests: a scratch folder (on /dev/shm when there is one, since
// every node write is synchronous), raw access to the file's bytes, and a session that opens a
// CDataBase and gives back, at its end, the reference every stream keeps.
#pragma once
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "MemHeap.h"
#include "ZT4DBFile.h"

namespace dbtest {

typedef std::vector<unsigned char> Bytes;

class ScratchDir {
 public:
  ScratchDir() {
    std::string base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : std::filesystem::temp_directory_path().string();
    std::string pattern = base + "/zt4db-XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data())) m_dir = buf.data();
  }
  ~ScratchDir() {
    std::error_code ec;
    if (!m_dir.empty()) std::filesystem::remove_all(m_dir, ec);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const std::string& Dir() const { return m_dir; }
  // The store's name as the provider builds it: folder, backslash, file.
  std::string Store(const std::string& name = "1.CST") const { return m_dir + "\\" + name; }
  std::string Native(const std::string& name = "1.CST") const { return m_dir + "/" + name; }

 private:
  std::string m_dir;
};

inline Bytes ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void WriteBytes(const std::string& path, const Bytes& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

inline DWORD GetDword(const Bytes& bytes, size_t off) {
  DWORD dw = 0;
  if (off + 4 <= bytes.size()) memcpy(&dw, bytes.data() + off, 4);
  return dw;
}

inline void PutDword(Bytes& bytes, size_t off, DWORD dw) {
  if (bytes.size() < off + 4) bytes.resize(off + 4);
  memcpy(bytes.data() + off, &dw, 4);
}

inline void PokeDword(const std::string& path, size_t off, DWORD dw) {
  Bytes bytes = ReadBytes(path);
  PutDword(bytes, off, dw);
  WriteBytes(path, bytes);
}

inline DATA_NODE NodeAt(const Bytes& bytes, DWORD off) {
  DATA_NODE dn = {};
  if (off + sizeof(dn) <= bytes.size()) memcpy(&dn, bytes.data() + off, sizeof(dn));
  return dn;
}

inline FREENODES_HEADER HeaderOf(const Bytes& bytes) {
  FREENODES_HEADER fnh = {};
  memcpy(&fnh, bytes.data() + OFFSET_FREENODES_HEADER, sizeof(fnh));
  return fnh;
}

inline std::vector<DWORD> PoolOffsets(const DATA_NODE& dn) {
  std::vector<DWORD> offsets;
  for (DWORD i = 0; i < FreePoolCount(dn) && i < FREE_OFFSETS_PER_NODE; ++i) offsets.push_back(FreePoolSlot(dn, i));
  return offsets;
}

inline std::vector<INDEX_ENTRY> IndexEntries(const DATA_NODE& dn) {
  std::vector<INDEX_ENTRY> entries(dn.dwEntryCount);
  for (DWORD i = 0; i < dn.dwEntryCount; ++i)
    memcpy(&entries[i], dn.bRawData + i * sizeof(INDEX_ENTRY), sizeof(INDEX_ENTRY));
  return entries;
}

inline std::string Pattern(size_t cb, unsigned seed = 1) {
  std::string s(cb, '\0');
  for (size_t i = 0; i < cb; ++i) s[i] = static_cast<char>((i * 131 + seed * 7 + i / 2048) & 0xFF);
  return s;
}

inline MAPIUID TestGuid() {
  MAPIUID uid;
  for (int i = 0; i < 16; ++i) uid.ab[i] = static_cast<BYTE>(0xA0 + i);
  return uid;
}

inline HRESULT WriteAll(IStream* pStream, const std::string& data) {
  ULONG cbWritten = 0;
  return pStream->Write(data.data(), static_cast<ULONG>(data.size()), &cbWritten);
}

inline std::string ReadAll(IStream* pStream) {
  std::string out;
  char buf[4096];
  ULONG cbRead = 0;
  while (SUCCEEDED(pStream->Read(buf, sizeof(buf), &cbRead)) && cbRead) out.append(buf, cbRead);
  return out;
}

// One CDataBase on a file. Each stream made through it is counted, so Close can give back the
// references the streams keep and let the destructor save the index.
class Session {
 public:
  Session() = default;
  ~Session() { Close(); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  HRESULT Create(const std::string& path, const char* name = "ArchiveDepot", const char* comment = "Orvanta Store") {
    MAPIUID uid = TestGuid();
    char szName[64], szComment[64];
    strcpy(szName, name);
    strcpy(szComment, comment);
    return CommonOpenFile(path.c_str(), szName, szComment, &uid, &m_pDB, TRUE);
  }
  HRESULT Open(const std::string& path) {
    MAPIUID uid = {};
    return CommonOpenFile(path.c_str(), NULL, NULL, &uid, &m_pDB, FALSE);
  }
  CDataBase* operator->() const { return m_pDB; }
  CDataBase* Get() const { return m_pDB; }

  HRESULT Field(DWORD id, RECFLD rf, BOOL fCreate, IStream** ppStream) {
    HRESULT hr = m_pDB->OpenRecordField(id, fCreate, rf, ppStream);
    if (SUCCEEDED(hr)) ++m_cStreams;
    return hr;
  }
  HRESULT NewRecord(DWORD* pid, IStream** ppStream) {
    HRESULT hr = m_pDB->CreateRecord(pid, ppStream);
    if (SUCCEEDED(hr)) ++m_cStreams;
    return hr;
  }
  // Writes a whole field (creating it) and commits it by releasing the stream.
  HRESULT Put(DWORD id, RECFLD rf, const std::string& data) {
    IStream* pStream = NULL;
    HRESULT hr = Field(id, rf, TRUE, &pStream);
    if (FAILED(hr)) return hr;
    ULARGE_INTEGER liZero = {};
    pStream->SetSize(liZero);
    hr = WriteAll(pStream, data);
    pStream->Release();
    return hr;
  }
  // A new record whose field 0 holds data.
  DWORD PutNew(const std::string& data) {
    DWORD id = 0;
    IStream* pStream = NULL;
    if (FAILED(NewRecord(&id, &pStream))) return 0;
    WriteAll(pStream, data);
    pStream->Release();
    return id;
  }
  HRESULT Get(DWORD id, RECFLD rf, std::string* pData) {
    IStream* pStream = NULL;
    HRESULT hr = Field(id, rf, FALSE, &pStream);
    if (FAILED(hr)) return hr;
    *pData = ReadAll(pStream);
    pStream->Release();
    return hr;
  }
  // Gives back every reference: the last one runs the destructor (index and pool saved).
  void Close() {
    if (!m_pDB) return;
    for (; m_cStreams > 0; --m_cStreams) m_pDB->Release();
    m_pDB->Release();
    m_pDB = NULL;
  }
  // Forgets the object as the provider would at process end: nothing more reaches the disk.
  void Abandon() {
    m_pDB = NULL;
    m_cStreams = 0;
  }

 private:
  CDataBase* m_pDB = NULL;
  ULONG m_cStreams = 0;
};

// The private heaps the index list and the objects come from.
class HeapsFixture : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(ZT4ProcessAttach(reinterpret_cast<HINSTANCE>(this))); }
  void TearDown() override { ZT4ProcessDetach(); }
};

}  // namespace dbtest
