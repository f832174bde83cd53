// Shared pieces of the back-end tests: a store file made by CommonOpenFile in an isolated home,
// a CFileBackEnd over it, and helpers to read fields and build open properties.
#pragma once
#include <gtest/gtest.h>

#include <mapicode.h>
#include <mapitags.h>
#include <mapix.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "MemHeap.h"
#include "ZT4DBFile.h"
#include "ZT4FileStg.h"
#include "ZT4PropList.h"
#include "adplatform.h"
#include "trace_fixture.h"

namespace betest {

typedef std::vector<BYTE> Bytes;

inline MAPIUID StoreGuid() {
  MAPIUID uid;
  for (int i = 0; i < 16; ++i) uid.ab[i] = static_cast<BYTE>(0x30 + i);
  return uid;
}

inline PRIVATE_EID Eid(BYTE bObjType, DWORD dwObjID) {
  PRIVATE_EID eid;
  memset(&eid, 0, sizeof(eid));
  eid.guidStore = StoreGuid();
  eid.bVersion = 1;
  eid.bObjType = bObjType;
  eid.dwObjID = dwObjID;
  return eid;
}

inline Bytes Pattern(size_t cb, unsigned seed = 1) {
  Bytes b(cb);
  for (size_t i = 0; i < cb; ++i) b[i] = static_cast<BYTE>((i * 37 + seed * 11 + i / 251) & 0xFF);
  return b;
}

inline Bytes ReadAll(IStream* pStream) {
  Bytes out;
  BYTE buf[8192];
  ULONG cb = 0;
  while (SUCCEEDED(pStream->Read(buf, sizeof(buf), &cb)) && cb) out.insert(out.end(), buf, buf + cb);
  return out;
}

inline HRESULT WriteAll(IStream* pStream, const Bytes& bytes) {
  ULONG cb = 0;
  return pStream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), &cb);
}

inline void Rewind(IStream* pStream) {
  LARGE_INTEGER li = {};
  pStream->Seek(li, STREAM_SEEK_SET, NULL);
}

inline size_t CountFiles(const std::string& dir) {
  size_t c = 0;
  std::error_code ec;
  for (auto it = std::filesystem::directory_iterator(dir, ec); !ec && it != std::filesystem::directory_iterator();
       it.increment(ec))
    ++c;
  return c;
}

// A little-endian byte builder for expected stored forms.
class LE {
 public:
  LE& u32(DWORD d) { return raw(&d, 4); }
  LE& str(const char* psz) { return raw(psz, strlen(psz)); }  // no terminator
  LE& raw(const void* pv, size_t cb) {
    const BYTE* p = static_cast<const BYTE*>(pv);
    m_bytes.insert(m_bytes.end(), p, p + cb);
    return *this;
  }
  const Bytes& get() const { return m_bytes; }

 private:
  Bytes m_bytes;
};

// Heaps, allocators, the trace log (its home holds the store) and one back end on a new store.
class BackEndTest : public ::testing::Test {
 public:
  // A written stream as a client leaves it after OpenProperty with write access.
  static CPropStream* NewPropStream(const Bytes& bytes) {
    IStream* pInner = NULL;
    EXPECT_EQ(CreateStreamOnHGlobal(NULL, TRUE, &pInner), S_OK);
    CPropStream* pStream = new CPropStream(pInner, MAPI_MODIFY);
    pInner->Release();
    if (!bytes.empty()) {
      EXPECT_EQ(WriteAll(pStream, bytes), S_OK);
    }
    return pStream;
  }

 protected:
  void SetUp() override {
    ASSERT_TRUE(ZT4ProcessAttach(reinterpret_cast<HINSTANCE>(this)));
    SetMAPIAllocRoutines(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
    m_log = std::make_unique<zt4test::TraceLog>(5);
    m_path = m_log->Home().Root() + "\\1.CST";
    Open(TRUE);
  }
  void TearDown() override {
    Close();
    m_log.reset();
    SetMAPIAllocRoutines(NULL, NULL, NULL);
    ZT4ProcessDetach();
  }

  void Open(BOOL fCreate) {
    MAPIUID uid = StoreGuid();
    char szName[DB_NAME_SIZE] = "ArchiveDepot", szComment[DB_NAME_SIZE] = "Orvanta Store";
    ASSERT_EQ(CommonOpenFile(m_path.c_str(), szName, szComment, &uid, &m_pDB, fCreate), S_OK);
    m_pBE = new CFileBackEnd(m_pDB, &uid, NULL);
    // The CommonOpenFile reference is kept until Close, so the database can be drained there.
  }
  // Gives back every reference to the database (each opened stream keeps one for good), so the
  // last Release writes the index to the file.
  void Close() {
    if (!m_pBE) return;
    EXPECT_EQ(m_pBE->Release(), 0u);
    m_pBE = NULL;
    ULONG cRefs = m_pDB->AddRef();
    for (ULONG i = 0; i < cRefs; ++i) m_pDB->Release();
    m_pDB = NULL;
  }
  void Reopen() {
    Close();
    Open(FALSE);
  }

  std::string Temp() const { return m_log->Home().Temp(); }
  std::string NativePath() const { return m_log->Home().Root() + "/1.CST"; }
  bool Logged(const std::string& text) const { return m_log->Has(text); }
  std::string LogText() const { return m_log->Text(); }

  bool FieldExists(DWORD dwID, RECFLD rf) {
    IStream* pStream = NULL;
    HRESULT hr = m_pBE->GetStream(dwID, rf, &pStream, FALSE);
    if (pStream) pStream->Release();
    return hr == S_OK;
  }
  Bytes Field(DWORD dwID, RECFLD rf) {
    IStream* pStream = NULL;
    EXPECT_EQ(m_pBE->GetStream(dwID, rf, &pStream, FALSE), S_OK) << "record " << dwID << " field " << rf;
    if (!pStream) return Bytes();
    Bytes bytes = ReadAll(pStream);
    pStream->Release();
    return bytes;
  }
  void PutField(DWORD dwID, RECFLD rf, const Bytes& bytes) {
    IStream* pStream = NULL;
    ASSERT_EQ(m_pDB->OpenRecordField(dwID, TRUE, rf, &pStream), S_OK);
    ULARGE_INTEGER zero = {};
    pStream->SetSize(zero);
    if (!bytes.empty()) {
      EXPECT_EQ(WriteAll(pStream, bytes), S_OK);
    }
    pStream->Release();
  }
  std::unique_ptr<CPropList> Load(DWORD dwID) {
    IStream* pStream = NULL;
    EXPECT_EQ(m_pBE->GetStream(dwID, RECFLD_PROPERTIES, &pStream, FALSE), S_OK);
    CPropList* pList = NULL;
    if (pStream) {
      EXPECT_EQ(m_pBE->LoadProperties(pStream, &pList), S_OK);
      pStream->Release();
    }
    return std::unique_ptr<CPropList>(pList);
  }
  std::vector<DWORD> IDs(DWORD dwID, RECFLD rf) {
    std::vector<DWORD> ids;
    IStream* pStream = NULL;
    if (m_pBE->GetStream(dwID, rf, &pStream, FALSE) != S_OK) return ids;
    CIDList list;
    EXPECT_EQ(list.LoadFromStream(pStream), S_OK);
    pStream->Release();
    for (DWORD d = list.GetFirst(); d; d = list.GetNext()) ids.push_back(d);
    return ids;
  }


  std::unique_ptr<zt4test::TraceLog> m_log;
  std::string m_path;
  CDataBase* m_pDB = NULL;
  CFileBackEnd* m_pBE = NULL;
};

inline LONG LongValue(CPropList& list, ULONG ulPropTag) {
  SPropValue v;
  memset(&v, 0, sizeof(v));
  EXPECT_EQ(list.Find(ulPropTag, &v, TRUE), S_OK) << std::hex << ulPropTag;
  return v.Value.l;
}

inline Bytes BinaryValue(CPropList& list, ULONG ulPropTag) {
  SPropValue v;
  memset(&v, 0, sizeof(v));
  if (list.Find(ulPropTag, &v, TRUE) != S_OK) return Bytes();
  return Bytes(v.Value.bin.lpb, v.Value.bin.lpb + v.Value.bin.cb);
}

// The stub of a property in a list, or a zero value when there is none.
inline SPropValue StubOf(CPropList& list, ULONG ulPropTag) {
  SPropValue v;
  memset(&v, 0, sizeof(v));
  if (list.Find(CHANGE_PROP_TYPE(ulPropTag, PT_LARGE_STUB), &v, TRUE) != S_OK) memset(&v, 0, sizeof(v));
  return v;
}

inline DWORD StubRecord(const SPropValue& stub) {
  DWORD dwRecordID = 0;
  GetLargeStubInfo(&stub, NULL, NULL, &dwRecordID);
  return dwRecordID;
}

}  // namespace betest
