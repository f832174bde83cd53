// Damaged stored lists: every truncation, byte corruptions of a real saved list, and hostile
// sizes, counts and types. The answer is the specified result, never a crash or a runaway
// allocation (these run under the address sanitizer too).
#include "ZT4PropList.h"

#include <gtest/gtest.h>

#include <mapitags.h>

#include "ZT4PropList_test_util.h"
#include "trace_fixture.h"

using namespace zt4test;

namespace {

// A saved list with a value of most types, multi-valued strings without NULL entries so that
// every value can be deep-copied.
Bytes SampleList() {
  static const GUID guid = {0x11111111, 0x2222, 0x3333, {4, 4, 4, 4, 5, 5, 5, 5}};
  static LPSTR strings[2] = {const_cast<LPSTR>("alpha"), const_cast<LPSTR>("be")};
  static LPWSTR wstrings[2] = {const_cast<LPWSTR>(WIDE("gamma")), const_cast<LPWSTR>(WIDE("d"))};
  static BYTE blob[5] = {1, 2, 3, 4, 5};
  static SBinary bins[2] = {{2, blob}, {3, blob + 2}};
  static LONG longs[3] = {1, 2, 3};
  CPropList list;
  std::vector<SPropValue> props;
  props.push_back(LongProp(PR_IMPORTANCE, 2));
  props.push_back(StringProp(PR_SUBJECT_A, "subject"));
  props.push_back(WideProp(PROP_TAG(PT_UNICODE, 0x6601), WIDE("wide")));
  props.push_back(BinProp(PROP_TAG(PT_BINARY, 0x6602), blob, 5));
  SPropValue v = Prop(PROP_TAG(PT_CLSID, 0x6603));
  v.Value.lpguid = const_cast<LPGUID>(&guid);
  props.push_back(v);
  v = Prop(PROP_TAG(PT_MV_STRING8, 0x6604)), v.Value.MVszA.cValues = 2, v.Value.MVszA.lppszA = strings;
  props.push_back(v);
  v = Prop(PROP_TAG(PT_MV_UNICODE, 0x6605)), v.Value.MVszW.cValues = 2, v.Value.MVszW.lppszW = wstrings;
  props.push_back(v);
  v = Prop(PROP_TAG(PT_MV_BINARY, 0x6606)), v.Value.MVbin.cValues = 2, v.Value.MVbin.lpbin = bins;
  props.push_back(v);
  v = Prop(PROP_TAG(PT_MV_LONG, 0x6607)), v.Value.MVl.cValues = 3, v.Value.MVl.lpl = longs;
  props.push_back(v);
  v = Prop(PROP_TAG(PT_SYSTIME, 0x6608)), v.Value.ft = {5, 6};
  props.push_back(v);
  MakeLargeStub(PR_BODY_A, OPENPROP_STREAM, 99, &v);
  props.push_back(v);
  for (SPropValue& p : props) EXPECT_EQ(list.Insert(&p), S_OK);
  return Saved(list);
}

std::vector<size_t> NodeEnds(const Bytes& bytes) {
  std::vector<size_t> ends;
  size_t pos = 4;
  while (pos + 4 <= bytes.size()) {
    DWORD dwSize = 0;
    memcpy(&dwSize, &bytes[pos], 4);
    pos += dwSize;
    ends.push_back(pos);
  }
  return ends;
}

// Follows every pointer of every value (deep copies) and saves the list again.
void Exercise(CPropList& list) {
  LPVOID pBase = NULL;
  ASSERT_EQ(MAPIAllocateBuffer(8, &pBase), S_OK);
  for (const PROPNODE* p = list.GetFirstNode(); p; p = list.GetNextNode()) {
    SPropValue copy;
    list.Copy(p, &copy, pBase);
  }
  MAPIFreeBuffer(pBase);
  IStream* pStream = NewStream();
  EXPECT_EQ(list.SaveToStream(pStream), S_OK);
  pStream->Release();
}

HRESULT Load(CPropList& list, const Bytes& bytes) {
  IStream* pStream = NewStream(bytes);
  HRESULT hr = list.LoadFromStream(pStream);
  pStream->Release();
  return hr;
}

TEST_F(PropListTest, EveryTruncationKeepsTheCompleteNodesOrTheOldList) {
  Bytes bytes = SampleList();
  std::vector<size_t> ends = NodeEnds(bytes);
  ASSERT_EQ(ends.size(), 11u);
  ASSERT_EQ(ends.back(), bytes.size());
  for (size_t cut = 0; cut < bytes.size(); ++cut) {
    SCOPED_TRACE(cut);
    CPropList list;
    SPropValue old = LongProp(PROP_TAG(PT_LONG, 0x6700), 1);
    ASSERT_EQ(list.Insert(&old), S_OK);
    HRESULT hr = Load(list, Bytes(bytes.begin(), bytes.begin() + cut));
    size_t complete = 0;
    while (complete < ends.size() && ends[complete] <= cut) ++complete;
    if (cut == 0) {
      EXPECT_EQ(hr, S_OK);  // an empty stream is an empty list
      EXPECT_EQ(list.GetCount(), 0u);
    } else if (complete == 0) {
      EXPECT_EQ(hr, MAPI_E_CORRUPT_DATA);
      ASSERT_EQ(list.GetCount(), 1u);
      EXPECT_EQ(list.GetFirstNode()->ulPropTag, old.ulPropTag);
    } else {
      EXPECT_EQ(hr, S_OK);
      ASSERT_EQ(list.GetCount(), complete);
      Bytes expected = LE().u32(ULONG(complete)).raw(&bytes[4], ends[complete - 1] - 4).get();
      EXPECT_EQ(Saved(list), expected);
    }
    Exercise(list);
  }
}

TEST_F(PropListTest, CorruptingAnyByteNeverLeadsOutsideTheNodes) {
  Bytes bytes = SampleList();
  int cLoaded = 0, cRefused = 0;
  for (size_t i = 0; i < bytes.size(); ++i) {
    for (int variant = 0; variant < 4; ++variant) {
      Bytes bad = bytes;
      switch (variant) {
        case 0: bad[i] ^= 0xFF; break;
        case 1: bad[i] = 0; break;
        case 2: bad[i] = 0x7F; break;
        default: bad[i] ^= 0x01; break;
      }
      CPropList list;
      HRESULT hr = Load(list, bad);
      SCOPED_TRACE(testing::Message() << "byte " << i << " variant " << variant);
      if (hr == S_OK) {
        ++cLoaded;
        Exercise(list);
      } else {
        ++cRefused;
        EXPECT_EQ(list.GetCount(), 0u);
      }
    }
  }
  EXPECT_GT(cLoaded, 0);
  EXPECT_GT(cRefused, 0);
}

Bytes OneNode(ULONG ulTag, const Bytes& value16, const Bytes& data, LONGLONG llSize = -1) {
  return LE().u32(llSize >= 0 ? DWORD(llSize) : ULONG(24 + data.size())).u32(ulTag).bytes(value16).bytes(data).get();
}
Bytes V(const LE& e) {
  Bytes b = e.get();
  b.resize(16, 0);
  return b;
}

TEST_F(PropListTest, HostileNodesAreRefusedBeforeAnythingIsAllocatedForThem) {
  TraceLog log(5);
  Bytes good = OneNode(PR_IMPORTANCE, V(LE().u32(3)), {});
  struct Case {
    const char* what;
    Bytes node;
  } cases[] = {
      {"size beyond the stream", OneNode(PR_SUBJECT_A, V(LE()), LE().str("abc").get(), 0xFFFFFFFF)},
      {"size below the fixed part", OneNode(PR_IMPORTANCE, V(LE()), {}, 23)},
      {"size of zero", OneNode(PR_IMPORTANCE, V(LE()), {}, 0)},
      {"unknown type", OneNode(PROP_TAG(0x0049, 0x6601), V(LE()), {})},
      {"error type", OneNode(PROP_TAG(PT_ERROR, 0x6601), V(LE()), {})},
      {"string without terminator", OneNode(PR_SUBJECT_A, V(LE()), LE().raw("abc", 3).get())},
      {"empty string area", OneNode(PR_SUBJECT_A, V(LE()), {})},
      {"wide string of odd size", OneNode(PR_SUBJECT_W, V(LE()), LE().u16('a').u16(0).u8(0).get())},
      {"wide string without terminator", OneNode(PR_SUBJECT_W, V(LE()), LE().u16('a').u16('b').get())},
      {"short GUID", OneNode(PROP_TAG(PT_CLSID, 0x6601), V(LE()), Bytes(15, 1))},
      {"binary longer than its area", OneNode(PROP_TAG(PT_BINARY, 0x6601), V(LE().u32(9)), Bytes(8, 1))},
      {"multi-value count beyond the area", OneNode(PROP_TAG(PT_MV_LONG, 0x6601), V(LE().u32(3)), Bytes(8, 1))},
      {"multi-value count that overflows 32 bits",
       OneNode(PROP_TAG(PT_MV_I8, 0x6601), V(LE().u32(0x20000001)), Bytes(8, 1))},
      {"string array that overflows 32 bits",
       OneNode(PROP_TAG(PT_MV_STRING8, 0x6601), V(LE().u32(0x20000001)), Bytes(8, 1))},
      {"strings missing behind the array",
       OneNode(PROP_TAG(PT_MV_STRING8, 0x6601), V(LE().u32(2)), LE().u64(1).u64(1).str("a").get())},
      {"string running off the area",
       OneNode(PROP_TAG(PT_MV_STRING8, 0x6601), V(LE().u32(1)), LE().u64(1).raw("ab", 2).get())},
      {"wide strings missing", OneNode(PROP_TAG(PT_MV_UNICODE, 0x6601), V(LE().u32(1)), LE().u64(1).u8(0).get())},
      {"blobs longer than the area",
       OneNode(PROP_TAG(PT_MV_BINARY, 0x6601), V(LE().u32(2)),
               LE().u32(1).u32(0).u64(0).u32(0xFFFFFFFF).u32(0).u64(0).u8(7).get())},
      {"blob array beyond the area",
       OneNode(PROP_TAG(PT_MV_BINARY, 0x6601), V(LE().u32(0x10000000)), Bytes(16, 0))},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    // As the first node: the old list stays and the load fails.
    CPropList list;
    SPropValue old = LongProp(PROP_TAG(PT_LONG, 0x6700), 1);
    ASSERT_EQ(list.Insert(&old), S_OK);
    EXPECT_EQ(Load(list, LE().u32(1).bytes(c.node).get()), MAPI_E_CORRUPT_DATA);
    EXPECT_EQ(list.GetCount(), 1u);
    // Behind a good node: that node stands.
    EXPECT_EQ(Load(list, LE().u32(2).bytes(good).bytes(c.node).get()), S_OK);
    ASSERT_EQ(list.GetCount(), 1u);
    EXPECT_EQ(list.GetFirstNode()->ulPropTag, ULONG(PR_IMPORTANCE));
    Exercise(list);
  }
  EXPECT_TRUE(log.Has(" LoadFromStream: I/O operation failed\r\n"));
  EXPECT_TRUE(log.Has(" CPropList::LoadFromStream: Failed to load all property nodes\r\n"));

  // A count far beyond what the stream holds ends with the nodes that are there.
  CPropList list;
  EXPECT_EQ(Load(list, LE().u32(0xFFFFFFFF).bytes(good).get()), S_OK);
  EXPECT_EQ(list.GetCount(), 1u);
  // A count word cut short is damage, not an empty list.
  EXPECT_EQ(Load(list, LE().u16(1).get()), MAPI_E_CORRUPT_DATA);
  EXPECT_EQ(list.GetCount(), 1u);
  // Garbage in pointer bytes is ignored, and multi-valued string entries only count as zero or not.
  Bytes pointers = OneNode(PROP_TAG(PT_MV_STRING8, 0x6601), V(LE().u32(2).u32(0xAAAAAAAA).u64(0xDEADBEEFull)),
                           LE().u64(0x1234).u64(0).str("x").get());
  ASSERT_EQ(Load(list, LE().u32(1).bytes(pointers).get()), S_OK);
  SPropValue v;
  ASSERT_EQ(list.Find(PROP_TAG(PT_MV_STRING8, 0x6601), &v), S_OK);
  EXPECT_STREQ(v.Value.MVszA.lppszA[0], "x");
  EXPECT_EQ(v.Value.MVszA.lppszA[1], nullptr);
}

}  // namespace
