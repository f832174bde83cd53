// archivedepot-store against store files made by the engine: a clean store decoded whole, the
// oddities the format makes on purpose (reported, exit 0), damage patched into the bytes (exit 1)
// and files that are no store at all (exit 2, never a crash).
#include <gtest/gtest.h>
#include <mapicode.h>
#include <mapix.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <functional>
#include <random>
#include <string>

#include "../../ZT4OutlookProvider/ZT4MSProvider/ZT4DBFile_testutil.h"
#include "ZT4NameProp.h"
#include "ZT4PropList.h"
#include "test_home.h"

using namespace dbtest;

namespace {

struct ToolRun {
  int status = -1;  // exit status, or 128 + signal
  std::string out;
};

std::string Quote(const std::string& s) { return "'" + s + "'"; }

ToolRun RunTool(const std::vector<std::string>& args) {
  // In a sanitizer build a report must not pass for the tool's own exit status 1.
  setenv("ASAN_OPTIONS", "exitcode=86", 0);
  setenv("UBSAN_OPTIONS", "exitcode=87:halt_on_error=1", 0);
  std::string cmd = Quote(adtest::BinPath("archivedepot-store"));
  for (const std::string& a : args) cmd += " " + Quote(a);
  cmd += " 2>/dev/null";
  ToolRun run;
  FILE* pipe = popen(cmd.c_str(), "r");
  if (!pipe) return run;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), pipe)) > 0) run.out.append(buf, n);
  int st = pclose(pipe);
  run.status = WIFEXITED(st) ? WEXITSTATUS(st) : WIFSIGNALED(st) ? 128 + WTERMSIG(st) : -1;
  return run;
}

// A strict JSON checker: enough to tell that --json output parses.
class JsonChecker {
 public:
  explicit JsonChecker(const std::string& s) : m_s(s) {}
  bool Valid() {
    Ws();
    if (!Value()) return false;
    Ws();
    return m_i == m_s.size();
  }

 private:
  void Ws() {
    while (m_i < m_s.size() && strchr(" \t\r\n", m_s[m_i])) ++m_i;
  }
  bool Lit(const char* p) {
    size_t n = strlen(p);
    if (m_s.compare(m_i, n, p) != 0) return false;
    m_i += n;
    return true;
  }
  bool String() {
    if (m_s[m_i] != '"') return false;
    for (++m_i; m_i < m_s.size(); ++m_i) {
      unsigned char c = static_cast<unsigned char>(m_s[m_i]);
      if (c == '"') return ++m_i, true;
      if (c < 0x20) return false;
      if (c == '\\') {
        ++m_i;
        if (m_i >= m_s.size() || !strchr("\"\\/bfnrtu", m_s[m_i])) return false;
      }
    }
    return false;
  }
  bool Number() {
    size_t start = m_i;
    if (m_s[m_i] == '-') ++m_i;
    while (m_i < m_s.size() && (isdigit(static_cast<unsigned char>(m_s[m_i])) || strchr(".eE+-", m_s[m_i]))) ++m_i;
    return m_i > start;
  }
  bool Value() {
    if (m_i >= m_s.size()) return false;
    char c = m_s[m_i];
    if (c == '{' || c == '[') {
      char close = c == '{' ? '}' : ']';
      ++m_i;
      Ws();
      if (m_i < m_s.size() && m_s[m_i] == close) return ++m_i, true;
      for (;;) {
        Ws();
        if (c == '{') {
          if (!String()) return false;
          Ws();
          if (!Lit(":")) return false;
          Ws();
        }
        if (!Value()) return false;
        Ws();
        if (Lit(",")) continue;
        return Lit(close == '}' ? "}" : "]");
      }
    }
    if (c == '"') return String();
    if (Lit("true") || Lit("false") || Lit("null")) return true;
    return Number();
  }
  const std::string& m_s;
  size_t m_i = 0;
};

bool IsJson(const std::string& s) { return JsonChecker(s).Valid(); }

bool Has(const std::string& hay, const std::string& needle) { return hay.find(needle) != std::string::npos; }

// Streams and lists that the tests put into fields.
void PutBytes(Session& db, DWORD id, RECFLD rf, const Bytes& bytes) {
  ASSERT_EQ(db.Put(id, rf, std::string(bytes.begin(), bytes.end())), S_OK);
}

struct Writer {
  Bytes b;
  Writer& U32(DWORD v) {
    for (int i = 0; i < 4; ++i) b.push_back(BYTE(v >> (8 * i)));
    return *this;
  }
  Writer& Text(const std::string& s) {
    b.insert(b.end(), s.begin(), s.end());
    return *this;
  }
  Writer& Wide(const std::u16string& s) {
    for (char16_t c : s) {
      b.push_back(BYTE(c));
      b.push_back(BYTE(c >> 8));
    }
    return *this;
  }
};

void SaveIDs(Session& db, DWORD id, RECFLD rf, std::initializer_list<DWORD> ids) {
  CIDList list;
  for (DWORD x : ids) ASSERT_EQ(list.Insert(x), S_OK);
  IStream* pStream = NULL;
  ASSERT_EQ(db.Field(id, rf, TRUE, &pStream), S_OK);
  EXPECT_EQ(list.SaveToStream(pStream), S_OK);
  pStream->Release();
}

void SaveProps(Session& db, DWORD id, std::vector<SPropValue> props) {
  CPropList list;
  for (SPropValue& v : props) ASSERT_EQ(list.Insert(&v), S_OK);
  IStream* pStream = NULL;
  ASSERT_EQ(db.Field(id, RECFLD_PROPERTIES, TRUE, &pStream), S_OK);
  EXPECT_EQ(list.SaveToStream(pStream), S_OK);
  pStream->Release();
}

class StoreToolTest : public HeapsFixture {
 protected:
  std::string Path() const { return m_dir.Native("1.CST"); }
  ToolRun Check(bool fJson = false) { return RunTool(fJson ? std::vector<std::string>{"check", Path(), "--json"} : std::vector<std::string>{"check", Path()}); }
  ToolRun Dump(bool fJson = false) { return RunTool(fJson ? std::vector<std::string>{"dump", Path(), "--json"} : std::vector<std::string>{"dump", Path()}); }

  // A folder (record 1) with two messages, a subfolder with its name, a message with a
  // property list of every kind the tool decodes and a large property, the named-property map
  // and the receive-folder record.
  void MakeCleanStore() {
    Session db;
    ASSERT_EQ(db.Create(Path()), S_OK);
    DWORD folder = db.PutNew("");
    DWORD msg = db.PutNew("");
    DWORD msg2 = db.PutNew("");
    DWORD sub = db.PutNew("");
    DWORD large = db.PutNew(std::string("RAWBYTES") + Pattern(3000));
    ASSERT_EQ(folder, 1u);
    SaveIDs(db, folder, RECFLD_CONTENTS, {msg, msg2});
    SaveIDs(db, folder, RECFLD_CHILDREN, {sub});
    PutBytes(db, folder, RECFLD_NAMES, Writer().U32(1).U32(sub).U32(10).Wide(u"Inbox").b);
    SaveProps(db, folder, {MakeString8(PR_DISPLAY_NAME_A, "Top of Store")});

    std::vector<SPropValue> props;
    SPropValue v = {};
    v.ulPropTag = PR_MESSAGE_FLAGS;
    v.Value.l = 0x21;
    props.push_back(v);
    props.push_back(MakeString8(PR_SUBJECT_A, "Quarterly \"report\"\n"));
    static WCHAR wszBody[] = {u'H', u'\u00e9', u'l', u'l', u'o', 0};
    v = {};
    v.ulPropTag = PR_BODY_W;
    v.Value.lpszW = wszBody;
    props.push_back(v);
    static BYTE abKey[] = {0xDE, 0xAD, 0xBE, 0xEF};
    v = {};
    v.ulPropTag = PR_SEARCH_KEY;
    v.Value.bin.cb = 4;
    v.Value.bin.lpb = abKey;
    props.push_back(v);
    static LPSTR rgpsz[] = {const_cast<LPSTR>("alpha"), NULL, const_cast<LPSTR>("gamma")};
    v = {};
    v.ulPropTag = PROP_TAG(PT_MV_STRING8, 0x6800);
    v.Value.MVszA.cValues = 3;
    v.Value.MVszA.lppszA = rgpsz;
    props.push_back(v);
    v = {};
    v.ulPropTag = PR_MESSAGE_DELIVERY_TIME;
    v.Value.ft.dwLowDateTime = 0x256D4000;  // 2000-01-01T00:00:00Z
    v.Value.ft.dwHighDateTime = 0x01BF53EB;
    props.push_back(v);
    v = {};
    v.ulPropTag = PR_READ_RECEIPT_REQUESTED;
    v.Value.b = TRUE;
    props.push_back(v);
    v = {};
    MakeLargeStub(PR_RTF_COMPRESSED, OPENPROP_STREAM, large, &v);
    props.push_back(v);
    SaveProps(db, msg, props);
    SaveProps(db, msg2, {MakeString8(PR_SUBJECT_A, "second")});
    SaveProps(db, sub, {MakeString8(PR_DISPLAY_NAME_A, "Inbox")});

    CNamePropMgr names(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
    GUID set = {0x11223344, 0x5566, 0x7788, {0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF, 0x01}};
    ULONG ulID = 0;
    IStream* pStream = NULL;
    ASSERT_EQ(db.Field(0xFFFFFFFC, RECFLD_PROPERTIES, TRUE, &pStream), S_OK);
    ASSERT_EQ(names.LoadMappingFromStream(pStream), S_OK);
    WCHAR wszName[] = {u'T', u'Q', u'M', u'e', u't', u'a', u'D', u'a', u't', u'a', 0};
    ASSERT_EQ(names.GetIDForName(&set, wszName, 0, MNID_STRING, &ulID, TRUE), S_OK);
    ASSERT_EQ(names.GetIDForName(&set, NULL, 0x8501, MNID_ID, &ulID, TRUE), S_OK);
    ASSERT_EQ(names.SaveMappingToStream(pStream), S_OK);
    pStream->Release();

    PutBytes(db, 0xFFFFFFFE, RECFLD_PROPERTIES, Writer().U32(1).U32(3).Text("IPM").U32(3).b);
  }

  static SPropValue MakeString8(ULONG ulTag, const char* psz) {
    SPropValue v = {};
    v.ulPropTag = ulTag;
    v.Value.lpszA = const_cast<LPSTR>(psz);
    return v;
  }

  ScratchDir m_dir;
  adtest::TempHome m_home;
};

// ---------------------------------------------------------------------------------------------
// A clean store

TEST_F(StoreToolTest, DumpDecodesEverythingOfACleanStore) {
  MakeCleanStore();
  ToolRun dump = Dump();
  ASSERT_EQ(dump.status, 0);
  const std::string& out = dump.out;
  EXPECT_TRUE(Has(out, "name: \"ArchiveDepot\"")) << out;
  EXPECT_TRUE(Has(out, "comment: \"Orvanta Store\""));
  EXPECT_TRUE(Has(out, "guid: \"{A3A2A1A0-A5A4-A7A6-A8A9-AAABACADAEAF}\""));
  EXPECT_TRUE(Has(out, "nextRecordId: 0x00000006"));
  EXPECT_TRUE(Has(out, "PR_SUBJECT"));
  EXPECT_TRUE(Has(out, "value: \"Quarterly \\\"report\\\"\\n\""));
  EXPECT_TRUE(Has(out, "value: \"H\u00e9llo\""));
  EXPECT_TRUE(Has(out, "value: \"deadbeef\""));
  EXPECT_TRUE(Has(out, "- \"alpha\"\n") && Has(out, "- null\n") && Has(out, "- \"gamma\"\n"));
  EXPECT_TRUE(Has(out, "value: \"2000-01-01T00:00:00.0000000Z\""));
  EXPECT_TRUE(Has(out, "value: 33"));
  EXPECT_TRUE(Has(out, "type: \"PT_LARGE_STUB\""));
  EXPECT_TRUE(Has(out, "originalType: \"PT_BINARY\""));
  EXPECT_TRUE(Has(out, "kind: \"stream\""));
  EXPECT_TRUE(Has(out, "largeProperty:"));
  EXPECT_TRUE(Has(out, "head: \"5241574259544553"));
  EXPECT_TRUE(Has(out, "name: \"Inbox\""));  // subfolder names
  EXPECT_TRUE(Has(out, "name: \"TQMetaData\""));
  EXPECT_TRUE(Has(out, "lid: 34049"));
  EXPECT_TRUE(Has(out, "class: \"IPM\""));
  EXPECT_TRUE(Has(out, "ids:\n"));
  EXPECT_FALSE(Has(out, "decodeError"));

  ToolRun json = Dump(true);
  ASSERT_EQ(json.status, 0);
  EXPECT_TRUE(IsJson(json.out)) << json.out;
  EXPECT_TRUE(Has(json.out, "\"name\":\"ArchiveDepot\""));
  EXPECT_TRUE(Has(json.out, "\"nextRecordId\":6"));
  EXPECT_TRUE(Has(json.out, "\"value\":\"Quarterly \\\"report\\\"\\n\""));
  EXPECT_TRUE(Has(json.out, "\"value\":\"deadbeef\""));
  EXPECT_TRUE(Has(json.out, "\"record\":5"));
  EXPECT_TRUE(Has(json.out, "\"stack\":[]"));
}

TEST_F(StoreToolTest, CheckPassesACleanStore) {
  MakeCleanStore();
  ToolRun check = Check();
  EXPECT_EQ(check.status, 0) << check.out;
  EXPECT_TRUE(Has(check.out, ": consistent (0 damage")) << check.out;
  // The root folder and the special records are in no ID list; the large property's record
  // and the listed ones are.
  EXPECT_TRUE(Has(check.out, "expected unlisted-records: 1 record is in no ID list")) << check.out;
  EXPECT_FALSE(Has(check.out, "damage "));

  ToolRun json = Check(true);
  EXPECT_EQ(json.status, 0);
  EXPECT_TRUE(IsJson(json.out)) << json.out;
  EXPECT_TRUE(Has(json.out, "\"result\":\"consistent\""));
  EXPECT_TRUE(Has(json.out, "\"damage\":0"));
}

// ---------------------------------------------------------------------------------------------
// What the format does on purpose: reported as expected, exit 0

TEST_F(StoreToolTest, UnsavedIndexLeavesOrphanChainsAndAStalePool) {
  {
    Session db;
    ASSERT_EQ(db.Create(Path()), S_OK);
    DWORD id = db.PutNew(Pattern(5000));
    ASSERT_EQ(db->DeleteRecord(id), S_OK);
  }  // closed: the pool with three offsets is on disk
  Session db;
  ASSERT_EQ(db.Open(Path()), S_OK);
  db.PutNew(Pattern(3000));  // pops two of the three offsets from the pool in memory
  db.Abandon();  // as a process ends: neither index nor pool reaches the disk
  ToolRun check = Check();
  EXPECT_EQ(check.status, 0) << check.out;
  EXPECT_TRUE(Has(check.out, "expected orphan-chains: 1 chain (2 nodes)")) << check.out;
  EXPECT_TRUE(Has(check.out, "expected pool-stale: 2 pool offsets name")) << check.out;
}

TEST_F(StoreToolTest, StaleTailOfAShrunkIndex) {
  std::vector<DWORD> ids;
  {
    Session db;
    ASSERT_EQ(db.Create(Path()), S_OK);
    for (int i = 0; i < 50; ++i) ids.push_back(db.PutNew("r" + std::to_string(i)));
  }
  {
    Session db;
    ASSERT_EQ(db.Open(Path()), S_OK);
    for (int i = 0; i < 10; ++i) ASSERT_EQ(db->DeleteRecord(ids[i]), S_OK);
  }
  Bytes bytes = ReadBytes(Path());
  ASSERT_EQ(NodeAt(bytes, 512).dwEntryCount, 39u);  // 49 loaded (the 47th was dropped), 10 deleted
  ASSERT_NE(NodeAt(bytes, 512).dwOffSetNextNode, 0u);
  ToolRun check = Check();
  EXPECT_EQ(check.status, 0) << check.out;
  EXPECT_TRUE(Has(check.out, "expected stale-index-tail: the index chain goes on for 1 node")) << check.out;
  EXPECT_TRUE(Has(check.out, "3 entries that the next load reads back")) << check.out;
  EXPECT_TRUE(Has(check.out, "expected orphan-chains: 1 chain (1 node)")) << check.out;  // the dropped 47th
  ToolRun dump = Dump(true);
  EXPECT_TRUE(IsJson(dump.out));
  EXPECT_TRUE(Has(dump.out, "\"entries\":3,\"next\":0,\"stale\":true"));
}

TEST_F(StoreToolTest, StaleTailBehindAnIndexOfExactlyOneFullNode) {
  {
    Session db;
    ASSERT_EQ(db.Create(Path()), S_OK);
    for (int i = 0; i < 60; ++i) db.PutNew("r" + std::to_string(i));
  }
  {
    Session db;
    ASSERT_EQ(db.Open(Path()), S_OK);
    for (DWORD id = 48; id <= 60; ++id) ASSERT_EQ(db->DeleteRecord(id), S_OK);  // 46 entries are left
  }
  Bytes bytes = ReadBytes(Path());
  ASSERT_EQ(NodeAt(bytes, 512).dwEntryCount, 46u);
  ASSERT_EQ(NodeAt(bytes, NodeAt(bytes, 512).dwOffSetNextNode).dwEntryCount, 13u);
  ToolRun check = Check();
  EXPECT_EQ(check.status, 0) << check.out;
  EXPECT_TRUE(Has(check.out, "expected stale-index-tail: the index chain goes on for 1 node")) << check.out;
  EXPECT_TRUE(Has(check.out, "13 fields of stale index entries point at nodes released or reused since")) << check.out;
  EXPECT_FALSE(Has(check.out, "dropped-index-entry")) << check.out;
}

TEST_F(StoreToolTest, TheEntryASaveDropsBehindAFullIndexNode) {
  {
    Session db;
    ASSERT_EQ(db.Create(Path()), S_OK);
    for (int i = 0; i < 47; ++i) db.PutNew("r" + std::to_string(i));
  }
  ToolRun check = Check();
  EXPECT_EQ(check.status, 0) << check.out;
  EXPECT_TRUE(Has(check.out, "expected dropped-index-entry: index node 0x200 full with a successor")) << check.out;
  EXPECT_TRUE(Has(check.out, "expected orphan-chains: 1 chain (1 node)")) << check.out;
}

TEST_F(StoreToolTest, PoolNodeAbandonedAfterARollover) {
  {
    Session db;
    ASSERT_EQ(db.Create(Path()), S_OK);
    DWORD id = db.PutNew(Pattern(515 * DATA_SIZE));
    ASSERT_EQ(db->DeleteRecord(id), S_OK);
  }
  ToolRun check = Check();
  EXPECT_EQ(check.status, 0) << check.out;
  // The first pool node gave one of its 512 offsets for the second pool node.
  EXPECT_TRUE(Has(check.out, "expected pool-abandoned: 511 offsets in free-pool nodes before the last")) << check.out;
  ToolRun dump = Dump();
  EXPECT_TRUE(Has(dump.out, "count: 511\n")) << dump.out.substr(0, 2000);
  EXPECT_TRUE(Has(dump.out, "last: true"));
}

TEST_F(StoreToolTest, FieldsThreeAndFourAbandonedByADelete) {
  {
    Session db;
    ASSERT_EQ(db.Create(Path()), S_OK);
    DWORD id = db.PutNew("props");
    SaveIDs(db, id, RECFLD_ASSOCIATED, {7, 8});
    PutBytes(db, id, RECFLD_NAMES, Writer().U32(0).b);
    ASSERT_EQ(db->DeleteField(id, RECFLD_PROPERTIES), S_OK);  // fields 1 and 2 empty: the entry goes
  }
  Bytes bytes = ReadBytes(Path());
  ASSERT_EQ(NodeAt(bytes, 512).dwEntryCount, 0u);
  ToolRun check = Check();
  EXPECT_EQ(check.status, 0) << check.out;
  EXPECT_TRUE(Has(check.out, "expected orphan-chains: 2 chains (2 nodes)")) << check.out;
}

TEST_F(StoreToolTest, NodeReleasedTwiceWhenALongStreamShrinks) {
  {
    Session db;
    ASSERT_EQ(db.Create(Path()), S_OK);
    DWORD id = db.PutNew(Pattern(45 * DATA_SIZE));
    ASSERT_EQ(db.Put(id, RECFLD_PROPERTIES, "short"), S_OK);
  }
  ToolRun check = Check();
  EXPECT_EQ(check.status, 0) << check.out;
  EXPECT_TRUE(Has(check.out, "expected pool-double-release: 1 offset is in the pool twice")) << check.out;
}

TEST_F(StoreToolTest, ReceiveFolderEntriesBehindTheFirstRunOffTheFormat) {
  {
    Session db;
    ASSERT_EQ(db.Create(Path()), S_OK);
    // As a second class is set: its entry goes behind the name "IPM", over the first folder ID.
    PutBytes(db, 0xFFFFFFFE, RECFLD_PROPERTIES, Writer().U32(2).U32(3).Text("IPM").U32(8).Text("IPM.Note").U32(9).b);
  }
  ToolRun check = Check();
  EXPECT_EQ(check.status, 0) << check.out;
  EXPECT_TRUE(Has(check.out, "expected receive-folders-layout: record 0xFFFFFFFE field 0")) << check.out;
  ToolRun dump = Dump();
  EXPECT_TRUE(Has(dump.out, "class: \"IPM\"\n")) << dump.out;
  EXPECT_TRUE(Has(dump.out, "folder: 0x00000008"));  // the first entry reads the second's length
  EXPECT_TRUE(Has(dump.out, "runsOff:"));
}

TEST_F(StoreToolTest, RecipientRecordLeftAfterRemovalIsExpected) {
  {
    Session db;
    ASSERT_EQ(db.Create(Path()), S_OK);
    DWORD msg = db.PutNew("");
    DWORD recip1 = db.PutNew("");
    DWORD recip2 = db.PutNew("");
    SaveIDs(db, msg, RECFLD_CHILDREN, {recip1});  // recip2 removed from the list, its record stays
    (void)recip2;
  }
  ToolRun check = Check();
  EXPECT_EQ(check.status, 0) << check.out;
  EXPECT_TRUE(Has(check.out, "expected unlisted-records: 2 records are in no ID list")) << check.out;
  EXPECT_TRUE(Has(check.out, "0x1 0x3")) << check.out;
}

// ---------------------------------------------------------------------------------------------
// Damage: exit 1

struct DamageCase {
  const char* name;
  const char* code;
  std::function<void(Bytes&)> patch;
};

// Two records: 1 with a three-node field 0, 2 with a one-node field 0; the first node of record
// 1 is the first data node.
class StoreDamageTest : public StoreToolTest {
 protected:
  void SetUp() override {
    StoreToolTest::SetUp();
    Session db;
    ASSERT_EQ(db.Create(Path()), S_OK);
    ASSERT_EQ(db.PutNew(Pattern(2 * DATA_SIZE + 100)), 1u);
    ASSERT_EQ(db.PutNew("two"), 2u);
    DWORD id = db.PutNew("three");
    ASSERT_EQ(db->DeleteRecord(id), S_OK);  // one released node in the pool
    db.Close();
    m_clean = ReadBytes(Path());
  }
  static constexpr DWORD kEntry0 = 512 + 16;        // index entry of record 1
  static constexpr DWORD kEntry1 = kEntry0 + 44;    // index entry of record 2
  static constexpr DWORD kRec1First = OFFSET_FIRST_DATA_NODE;
  static constexpr DWORD kRec1Last = OFFSET_FIRST_DATA_NODE + 2 * NODE_SIZE;
  static constexpr DWORD kRec2 = OFFSET_FIRST_DATA_NODE + 3 * NODE_SIZE;
  static constexpr DWORD kReleased = OFFSET_FIRST_DATA_NODE + 4 * NODE_SIZE;
  Bytes m_clean;
};

TEST_F(StoreDamageTest, TheUnpatchedFileIsClean) {
  ASSERT_EQ(GetDword(m_clean, kEntry0 + 4), kRec1First);
  ASSERT_EQ(GetDword(m_clean, kEntry1 + 4), kRec2);
  ASSERT_EQ(NodeAt(m_clean, kReleased).wNodeType, NODE_TYPE_RELEASED);
  ASSERT_EQ(GetDword(m_clean, OFFSET_FIRST_FREE_NODE + 16), kReleased);
  ToolRun check = Check();
  EXPECT_EQ(check.status, 0) << check.out;
  EXPECT_TRUE(Has(check.out, "consistent (0 damage, 1 expected")) << check.out;  // the unlisted records
}

TEST_F(StoreDamageTest, EachKindOfDamageIsFoundAndFailsTheCheck) {
  const DamageCase cases[] = {
      {"cross-link", "cross-link: node 0x1220 is in record 0x1 field 0 (properties) and in record 0x2 field 0",
       [](Bytes& b) { PutDword(b, kEntry1 + 4, kRec1First); }},
      {"loop", "chain-loop: record 0x1 field 0 (properties) loops back to node 0x1220",
       [](Bytes& b) { PutDword(b, kRec1Last + 12, kRec1First); }},
      {"offset past end", "chain-leaves-file: record 0x2 field 0 (properties) links to",
       [](Bytes& b) { PutDword(b, kEntry1 + 4, OFFSET_FIRST_DATA_NODE + 100 * NODE_SIZE); }},
      {"offset off the grid", "bad-offset: record 0x2 field 0 (properties) links to 0x1235",
       [](Bytes& b) { PutDword(b, kEntry1 + 4, 0x1235); }},
      {"bad wSize", "node-size: data node 0x2A50 has wSize 3000",
       [](Bytes& b) { b[kRec2 + 2] = 3000 & 0xFF, b[kRec2 + 3] = 3000 >> 8; }},
      {"size word", "size-mismatch: record 0x1 field 0 (properties) has the size 7 in the index",
       [](Bytes& b) { PutDword(b, kEntry0 + 8, 7); }},
      {"chain into the pool", "chain-wrong-type: record 0x2 field 0 (properties) runs into node 0xA10",
       [](Bytes& b) { PutDword(b, kEntry1 + 4, OFFSET_FIRST_FREE_NODE); }},
      {"pool garbage", "pool-garbage: free-pool node 0xA10 slot 0 holds 0x12345",
       [](Bytes& b) { PutDword(b, OFFSET_FIRST_FREE_NODE + 16, 0x12345); }},
      {"pool lists a live node", "pool-live: free-pool node 0xA10 slot 0 lists node 0x2A50",
       [](Bytes& b) { PutDword(b, OFFSET_FIRST_FREE_NODE + 16, kRec2); }},
      {"index count", "index-count: index node 0x200 claims 200 entries",
       [](Bytes& b) { PutDword(b, 512 + 4, 200); }},
      {"released node in a chain", "released-in-chain: record 0x2 field 0 (properties) goes through released node",
       [](Bytes& b) { PutDword(b, kEntry1 + 4, kReleased); PutDword(b, kEntry1 + 8, 0); }},
      {"node offset", "node-offset: node 0x2A50 records its offset as 0x1220",
       [](Bytes& b) { PutDword(b, kRec2 + 8, kRec1First); }},
      {"growth point", "growth-point: the next node offset",
       [](Bytes& b) { PutDword(b, 260, OFFSET_FIRST_DATA_NODE + 50 * NODE_SIZE); }},
      {"index loop", "index-chain: the index chain loops back to node 0x200", [](Bytes& b) { PutDword(b, 512 + 12, 512); }},
      {"unknown node type", "node-type: node 0x3260 has the unknown type 9", [](Bytes& b) { b[kReleased] = 9; }},
      {"duplicate record", "duplicate-record: record 0x1 has two entries",
       [](Bytes& b) { PutDword(b, kEntry1, 1); }},
  };
  for (const DamageCase& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes bytes = m_clean;
    c.patch(bytes);
    WriteBytes(Path(), bytes);
    ToolRun check = Check();
    EXPECT_EQ(check.status, 1) << check.out;
    EXPECT_TRUE(Has(check.out, std::string("damage ") + c.code)) << check.out;
    ToolRun json = Check(true);
    EXPECT_EQ(json.status, 1);
    EXPECT_TRUE(IsJson(json.out)) << json.out;
    EXPECT_TRUE(Has(json.out, "\"result\":\"damaged\""));
    // A damaged file still dumps.
    ToolRun dump = Dump(true);
    EXPECT_EQ(dump.status, 0);
    EXPECT_TRUE(IsJson(dump.out));
  }
}

TEST_F(StoreDamageTest, DamagedContentsOfKnownFormats) {
  {
    Session db;
    ASSERT_EQ(db.Open(Path()), S_OK);
    PutBytes(db, 1, RECFLD_CONTENTS, Writer().U32(5).U32(2).b);  // count 5, one ID
    PutBytes(db, 1, RECFLD_NAMES, Writer().U32(1).U32(2).U32(600).b);
    PutBytes(db, 0xFFFFFFFC, RECFLD_PROPERTIES, Writer().U32(0x8001).U32(1).U32(0).U32(0).U32(0).U32(0).U32(0x8000).U32(7).U32(0).b);
    PutBytes(db, 2, RECFLD_PROPERTIES, Writer().U32(1).U32(4000).b);  // a list that ends early
  }
  ToolRun check = Check();
  EXPECT_EQ(check.status, 1) << check.out;
  EXPECT_TRUE(Has(check.out, "damage id-list: record 0x1 field 1 (contents): holds 8 bytes for a count of 5")) << check.out;
  EXPECT_TRUE(Has(check.out, "damage names: record 0x1 field 4 (names): entry 0 has a name of 600 bytes")) << check.out;
  EXPECT_TRUE(Has(check.out, "damage named-props: record 0xFFFFFFFC field 0 (properties): entry 0 has the kind 7")) << check.out;
  // Field 0 may be a large property's raw bytes: only a warning.
  EXPECT_TRUE(Has(check.out, "warning not-a-property-list: 2 property fields do not decode")) << check.out;
  ToolRun dump = Dump();
  EXPECT_EQ(dump.status, 0);
  EXPECT_TRUE(Has(dump.out, "decodeError: \"node 0 claims 4000 bytes")) << dump.out;
}

// ---------------------------------------------------------------------------------------------
// Bad input: never a crash

TEST_F(StoreToolTest, UsageErrorsAndUnreadableFiles) {
  EXPECT_EQ(RunTool({}).status, 2);
  EXPECT_EQ(RunTool({"--help"}).status, 0);
  EXPECT_TRUE(Has(RunTool({"--help"}).out, "usage: archivedepot-store dump FILE [--json]"));
  EXPECT_EQ(RunTool({"list", Path()}).status, 2);
  EXPECT_EQ(RunTool({"check"}).status, 2);
  EXPECT_EQ(RunTool({"check", Path(), "--yaml"}).status, 2);
  EXPECT_EQ(RunTool({"check", Path(), Path()}).status, 2);
  EXPECT_EQ(RunTool({"check", Path()}).status, 2);  // missing
  EXPECT_EQ(RunTool({"dump", m_dir.Dir()}).status, 2);  // a folder
  WriteBytes(Path(), Bytes());
  EXPECT_EQ(Check().status, 2);
  EXPECT_EQ(Dump().status, 2);
  Bytes text(5000, 'A');
  WriteBytes(Path(), text);
  EXPECT_EQ(Check().status, 2);  // no version 1 header
  Bytes v2(OFFSET_FIRST_DATA_NODE, 0);
  v2[0] = 2;
  WriteBytes(Path(), v2);
  EXPECT_EQ(Check().status, 2);
}

TEST_F(StoreToolTest, TruncatedStoresAreDamageNotCrashes) {
  MakeCleanStore();
  Bytes whole = ReadBytes(Path());
  for (size_t cb : {size_t(152), size_t(300), size_t(1000), size_t(2576), size_t(4000), size_t(4640), size_t(4640 + 1000),
                    whole.size() - NODE_SIZE, whole.size() - 7}) {
    SCOPED_TRACE(cb);
    WriteBytes(Path(), Bytes(whole.begin(), whole.begin() + std::min(cb, whole.size())));
    ToolRun check = Check();
    EXPECT_EQ(check.status, 1) << check.out;
    ToolRun dump = Dump(true);
    EXPECT_EQ(dump.status, 0);
    EXPECT_TRUE(IsJson(dump.out));
  }
  WriteBytes(Path(), Bytes(whole.begin(), whole.begin() + 100));
  EXPECT_EQ(Check().status, 2);  // not even a header
}

TEST_F(StoreToolTest, GarbageBehindAValidHeaderNeverCrashes) {
  MakeCleanStore();
  Bytes whole = ReadBytes(Path());
  std::mt19937 rng(20240611);
  for (int round = 0; round < 12; ++round) {
    SCOPED_TRACE(round);
    Bytes bytes = whole;
    // Scribble over node headers and payloads, keeping the file header.
    int cPatches = 1 + round * 8;
    for (int i = 0; i < cPatches; ++i) {
      size_t off = 152 + rng() % (bytes.size() - 152 - 4);
      PutDword(bytes, off, round % 3 == 0 ? rng() : rng() % (bytes.size() + 10 * NODE_SIZE));
    }
    WriteBytes(Path(), bytes);
    ToolRun check = Check(true);
    EXPECT_TRUE(check.status == 0 || check.status == 1) << check.status;
    EXPECT_TRUE(IsJson(check.out));
    ToolRun dump = Dump(true);
    EXPECT_EQ(dump.status, 0);
    EXPECT_TRUE(IsJson(dump.out));
  }
}

}  // namespace
