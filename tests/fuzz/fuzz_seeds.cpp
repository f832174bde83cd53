// Writes the seed corpora of the fuzz targets, made by the engine itself:
//   fuzz_seeds DIR  ->  DIR/store/*.CST (store files) and DIR/proplist/* (stored streams)
#include <mapix.h>
#include <objbase.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "MemHeap.h"
#include "ZT4DBFile.h"
#include "ZT4NameProp.h"
#include "ZT4PropList.h"

namespace {

typedef std::vector<BYTE> Bytes;

// One database; gives back at the end the reference every stream keeps, so the index is saved.
class Store {
 public:
  explicit Store(const std::string& path) {
    MAPIUID uid = {{0x5A, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}};
    char szName[] = "ArchiveDepot", szComment[] = "Orvanta Store";
    std::filesystem::remove(path);
    if (FAILED(CommonOpenFile(path.c_str(), szName, szComment, &uid, &m_pDB, TRUE))) m_pDB = NULL;
  }
  ~Store() {
    if (!m_pDB) return;
    for (; m_cStreams; --m_cStreams) m_pDB->Release();
    m_pDB->Release();
  }
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;
  bool Ok() const { return m_pDB != NULL; }
  CDataBase* DB() const { return m_pDB; }

  IStream* Field(DWORD id, RECFLD rf) {
    IStream* pStream = NULL;
    if (FAILED(m_pDB->OpenRecordField(id, TRUE, rf, &pStream))) return NULL;
    ++m_cStreams;
    return pStream;
  }
  void Put(DWORD id, RECFLD rf, const Bytes& bytes) {
    IStream* pStream = Field(id, rf);
    if (!pStream) return;
    ULARGE_INTEGER liZero = {};
    pStream->SetSize(liZero);
    pStream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), NULL);
    pStream->Release();
  }
  DWORD New(const Bytes& bytes) {
    DWORD id = 0;
    IStream* pStream = NULL;
    if (FAILED(m_pDB->CreateRecord(&id, &pStream))) return 0;
    ++m_cStreams;
    pStream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), NULL);
    pStream->Release();
    return id;
  }

 private:
  CDataBase* m_pDB = NULL;
  ULONG m_cStreams = 0;
};

struct Writer {
  Bytes b;
  Writer& U32(DWORD v) {
    for (int i = 0; i < 4; ++i) b.push_back(BYTE(v >> (8 * i)));
    return *this;
  }
  Writer& Text(const char* psz) {
    b.insert(b.end(), psz, psz + strlen(psz));
    return *this;
  }
  Writer& Wide(const char16_t* psz) {
    for (; *psz; ++psz) {
      b.push_back(BYTE(*psz));
      b.push_back(BYTE(*psz >> 8));
    }
    return *this;
  }
};

Bytes StreamBytes(IStream* pStream) {
  Bytes bytes;
  LARGE_INTEGER liZero = {};
  pStream->Seek(liZero, STREAM_SEEK_SET, NULL);
  BYTE buf[4096];
  ULONG cb = 0;
  while (SUCCEEDED(pStream->Read(buf, sizeof(buf), &cb)) && cb) bytes.insert(bytes.end(), buf, buf + cb);
  return bytes;
}

Bytes PropListBytes() {
  CPropList list;
  SPropValue v = {};
  v.ulPropTag = PR_MESSAGE_FLAGS;
  v.Value.l = 1;
  list.Insert(&v);
  v = {};
  v.ulPropTag = PR_SUBJECT_A;
  v.Value.lpszA = const_cast<LPSTR>("seed subject");
  list.Insert(&v);
  static WCHAR wsz[] = {u'b', u'o', u'd', u'y', 0};
  v = {};
  v.ulPropTag = PR_BODY_W;
  v.Value.lpszW = wsz;
  list.Insert(&v);
  static BYTE ab[] = {1, 2, 3, 4, 5};
  v = {};
  v.ulPropTag = PR_SEARCH_KEY;
  v.Value.bin.cb = sizeof(ab);
  v.Value.bin.lpb = ab;
  list.Insert(&v);
  static LPSTR rgpsz[] = {const_cast<LPSTR>("a"), NULL, const_cast<LPSTR>("ccc")};
  v = {};
  v.ulPropTag = PROP_TAG(PT_MV_STRING8, 0x6801);
  v.Value.MVszA.cValues = 3;
  v.Value.MVszA.lppszA = rgpsz;
  list.Insert(&v);
  static LPWSTR rgpwsz[] = {wsz, wsz};
  v = {};
  v.ulPropTag = PROP_TAG(PT_MV_UNICODE, 0x6802);
  v.Value.MVszW.cValues = 2;
  v.Value.MVszW.lppszW = rgpwsz;
  list.Insert(&v);
  static SBinary rgbin[] = {{2, ab}, {0, NULL}, {5, ab}};
  v = {};
  v.ulPropTag = PROP_TAG(PT_MV_BINARY, 0x6803);
  v.Value.MVbin.cValues = 3;
  v.Value.MVbin.lpbin = rgbin;
  list.Insert(&v);
  static LONG rgl[] = {1, -2, 3};
  v = {};
  v.ulPropTag = PROP_TAG(PT_MV_LONG, 0x6804);
  v.Value.MVl.cValues = 3;
  v.Value.MVl.lpl = rgl;
  list.Insert(&v);
  static GUID guid = {0x11223344, 0x5566, 0x7788, {1, 2, 3, 4, 5, 6, 7, 8}};
  v = {};
  v.ulPropTag = PROP_TAG(PT_CLSID, 0x6805);
  v.Value.lpguid = &guid;
  list.Insert(&v);
  v = {};
  v.ulPropTag = PR_MESSAGE_DELIVERY_TIME;
  v.Value.ft.dwHighDateTime = 0x01D00000;
  list.Insert(&v);
  v = {};
  MakeLargeStub(PR_RTF_COMPRESSED, OPENPROP_STREAM, 4, &v);  // the large record of FullStore
  list.Insert(&v);
  IStream* pStream = NULL;
  CreateStreamOnHGlobal(NULL, TRUE, &pStream);
  list.SaveToStream(pStream);
  Bytes bytes = StreamBytes(pStream);
  pStream->Release();
  return bytes;
}

Bytes NamedPropBytes() {
  CNamePropMgr names(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  IStream* pStream = NULL;
  CreateStreamOnHGlobal(NULL, TRUE, &pStream);
  names.LoadMappingFromStream(pStream);
  GUID set = {0xA1A2A3A4, 0xB1B2, 0xC1C2, {1, 2, 3, 4, 5, 6, 7, 8}};
  ULONG ulID = 0;
  WCHAR wszName[] = {u'S', u't', u'u', u'b', u' ', u'I', u'n', u'f', u'o', 0};
  names.GetIDForName(&set, wszName, 0, MNID_STRING, &ulID, TRUE);
  names.GetIDForName(&set, NULL, 0x8520, MNID_ID, &ulID, TRUE);
  names.SaveMappingToStream(pStream);
  Bytes bytes = StreamBytes(pStream);
  pStream->Release();
  return bytes;
}

Bytes IDListBytes() {
  CIDList ids;
  for (DWORD id : {2u, 3u, 9u, 0xFFFFFFFEu}) ids.Insert(id);
  IStream* pStream = NULL;
  CreateStreamOnHGlobal(NULL, TRUE, &pStream);
  ids.SaveToStream(pStream);
  Bytes bytes = StreamBytes(pStream);
  pStream->Release();
  return bytes;
}

Bytes NamesBytes() { return Writer().U32(2).U32(4).U32(10).Wide(u"Inbox").U32(5).U32(8).Wide(u"Sent").b; }

void WriteFile(const std::string& path, const Bytes& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

// A folder with messages, a subfolder and its name, a large property, the named-property map
// and the receive-folder record.
void FullStore(const std::string& path) {
  Store s(path);
  if (!s.Ok()) return;
  Bytes props = PropListBytes();
  DWORD folder = s.New(props);
  DWORD msg = s.New(props);
  DWORD sub = s.New(props);
  DWORD large = s.New(Bytes(3000, 0x5A));
  s.Put(folder, RECFLD_CONTENTS, Writer().U32(1).U32(msg).b);
  s.Put(folder, RECFLD_CHILDREN, Writer().U32(1).U32(sub).b);
  s.Put(folder, RECFLD_ASSOCIATED, Writer().U32(0).b);
  s.Put(folder, RECFLD_NAMES, Writer().U32(1).U32(sub).U32(10).Wide(u"Inbox").b);
  s.Put(msg, RECFLD_CHILDREN, Writer().U32(1).U32(large).b);
  s.Put(0xFFFFFFFC, RECFLD_PROPERTIES, NamedPropBytes());
  s.Put(0xFFFFFFFE, RECFLD_PROPERTIES, Writer().U32(2).U32(3).Text("IPM").U32(8).Text("IPM.Note").U32(4).b);
}

// Records deleted and a stream shrunk: a pool with offsets (one of them twice), a shrunk index.
void ChurnedStore(const std::string& path) {
  {
    Store s(path);
    if (!s.Ok()) return;
    for (int i = 0; i < 12; ++i) s.New(Bytes(100 + i * 50, BYTE(i)));
  }
  MAPIUID uid = {};
  CDataBase* pDB = NULL;
  if (FAILED(CommonOpenFile(path.c_str(), NULL, NULL, &uid, &pDB, FALSE))) return;
  for (DWORD id = 1; id <= 6; ++id) pDB->DeleteRecord(id);
  pDB->Release();
}

void DoubleReleaseStore(const std::string& path) {
  Store s(path);
  if (!s.Ok()) return;
  DWORD id = s.New(Bytes(42 * DATA_SIZE, 0x33));
  s.Put(id, RECFLD_PROPERTIES, Bytes(10, 0x44));
  s.New(Bytes(10, 1));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: fuzz_seeds DIR\n");
    return 2;
  }
  ZT4ProcessAttach(reinterpret_cast<HINSTANCE>(&argc));
  std::string dir = argv[1];
  std::filesystem::create_directories(dir + "/store");
  std::filesystem::create_directories(dir + "/proplist");
  { Store empty(dir + "/store/empty.CST"); }
  FullStore(dir + "/store/full.CST");
  ChurnedStore(dir + "/store/churned.CST");
  DoubleReleaseStore(dir + "/store/double-release.CST");
  WriteFile(dir + "/proplist/proplist", PropListBytes());
  WriteFile(dir + "/proplist/idlist", IDListBytes());
  WriteFile(dir + "/proplist/namedprops", NamedPropBytes());
  WriteFile(dir + "/proplist/names", NamesBytes());
  WriteFile(dir + "/proplist/receivefolders", Writer().U32(1).U32(3).Text("IPM").U32(3).b);
  ZT4ProcessDetach();
  printf("seeds written to %s/store and %s/proplist\n", dir.c_str(), dir.c_str());
  return 0;
}
