// ID lists, the open-property list, the stream and storage wrappers, private storages and their
// temporary files, and the pull-back of small streams into a property list.
#include "ZT4PropList.h"

#include <gtest/gtest.h>

#include <mapitags.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "ZT4PropList_test_util.h"
#include "trace_fixture.h"

using namespace zt4test;

namespace {

size_t FilesIn(const std::string& dir) {
  size_t n = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) n += entry.is_regular_file() ? 1 : 0;
  return n;
}

// ---------------------------------------------------------------------------------------------
// CIDList

TEST_F(PropListTest, IDListKeepsCreationOrderAndIsStoredAsCountAndIDs) {
  CIDList list;
  IStream* pStream = NewStream(Bytes(40, 0xEE));
  ASSERT_EQ(list.SaveToStream(pStream), S_OK);
  EXPECT_EQ(Contents(pStream), Bytes(4, 0));  // no IDs: four zero bytes

  for (DWORD id : {30u, 10u, 20u, 10u}) ASSERT_EQ(list.Insert(id), S_OK);
  EXPECT_EQ(list.GetNodeCount(), 4u);
  EXPECT_TRUE(list.Contains(20));
  EXPECT_EQ(list.Remove(10), S_OK);  // the first of two
  EXPECT_EQ(list.Remove(99), MAPI_E_NOT_FOUND);
  ASSERT_EQ(list.SaveToStream(pStream), S_OK);
  EXPECT_EQ(Contents(pStream), LE().u32(3).u32(30).u32(20).u32(10).get());

  CIDList loaded;
  ASSERT_EQ(loaded.Insert(555), S_OK);
  SeekTo(pStream, 0);
  ASSERT_EQ(loaded.LoadFromStream(pStream), S_OK);
  std::vector<DWORD> ids;
  for (DWORD id = loaded.GetFirst(); id; id = loaded.GetNext()) ids.push_back(id);
  EXPECT_EQ(ids, (std::vector<DWORD>{30, 20, 10}));
  EXPECT_EQ(loaded.GetNext(), 0u);

  // Removing under the walk moves it on; removing the tail keeps appends in order.
  EXPECT_EQ(loaded.GetFirst(), 30u);
  ASSERT_EQ(loaded.Remove(20), S_OK);
  EXPECT_EQ(loaded.GetNext(), 10u);
  ASSERT_EQ(loaded.Remove(10), S_OK);
  ASSERT_EQ(loaded.Insert(40), S_OK);
  ASSERT_EQ(loaded.SaveToStream(pStream), S_OK);
  EXPECT_EQ(Contents(pStream), LE().u32(2).u32(30).u32(40).get());
  pStream->Release();

  EXPECT_EQ(loaded.LoadFromStream(NULL), S_OK);
  EXPECT_EQ(loaded.GetNodeCount(), 2u);
}

TEST_F(PropListTest, IDListLoadReadsAtThePositionAndRefusesDamage) {
  TraceLog log(5);
  CIDList list;
  IStream* pStream = NewStream(LE().u32(0xFFFF).u32(2).u32(7).u32(8).get());
  SeekTo(pStream, 4);
  ASSERT_EQ(list.LoadFromStream(pStream), S_OK);
  EXPECT_EQ(list.GetNodeCount(), 2u);
  pStream->Release();

  // An empty field reads as no IDs.
  pStream = NewStream();
  ASSERT_EQ(list.LoadFromStream(pStream), S_OK);
  EXPECT_EQ(list.GetNodeCount(), 0u);
  pStream->Release();

  ASSERT_EQ(list.Insert(1), S_OK);
  for (const Bytes& bad : {LE().u32(3).u32(7).u32(8).get(), LE().u32(0xFFFFFFFF).u32(1).get(), LE().u16(1).get(),
                           LE().u32(0x40000001).get()}) {
    pStream = NewStream(bad);
    EXPECT_EQ(list.LoadFromStream(pStream), MAPI_E_CORRUPT_DATA);
    EXPECT_EQ(list.GetNodeCount(), 1u);  // unchanged
    EXPECT_EQ(list.GetFirst(), 1u);
    pStream->Release();
  }
  EXPECT_TRUE(log.Has(" CIDList::LoadFromStream:8004011b\r\n"));
}

TEST_F(PropListTest, IDListSaveGoesOnPastAFailedIDAndFixesTheCount) {
  TraceLog log(5);
  CIDList list;
  for (DWORD id : {0x11u, 0x22u, 0x33u}) ASSERT_EQ(list.Insert(id), S_OK);
  CFaultyStream* pStream = new CFaultyStream;
  // Call 1 is the whole image, refused; then the count, 0x11, 0x22 (refused), 0x33, the true count.
  pStream->failWritesAbove = 4;
  pStream->failWriteCalls = {4};
  EXPECT_EQ(list.SaveToStream(pStream), MAPI_W_ERRORS_RETURNED);
  EXPECT_EQ(Contents(pStream->Inner()), LE().u32(2).u32(0x11).u32(0x33).get());
  EXPECT_TRUE(log.Has(" CIDList::SaveToStream: Failed to write ID:22\r\n"));
  pStream->Release();

  pStream = new CFaultyStream;
  pStream->failAllWrites = true;
  EXPECT_EQ(list.SaveToStream(pStream), STG_E_WRITEFAULT);
  char szExpected[64];
  snprintf(szExpected, sizeof(szExpected), " CIDList::SaveToStream:%x\r\n", unsigned(STG_E_WRITEFAULT));
  EXPECT_TRUE(log.Has(szExpected));
  pStream->Release();
}

// ---------------------------------------------------------------------------------------------
// CPropStream

TEST_F(PropListTest, PropStreamIsModifiedOnlyByASuccessfulWrite) {
  IStream* pInner = NewStream(LE().raw("0123456789", 10).get());
  CPropStream* pStream = new CPropStream(pInner, MAPI_MODIFY);
  EXPECT_EQ(RefCount(pInner), 2u);
  EXPECT_TRUE(pStream->IsWritable());

  IUnknown* pUnk = NULL;
  ASSERT_EQ(pStream->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&pUnk)), S_OK);
  pUnk->Release();
  IStorage* pStg = reinterpret_cast<IStorage*>(0x1);
  EXPECT_EQ(pStream->QueryInterface(IID_IStorage, reinterpret_cast<void**>(&pStg)), E_NOINTERFACE);
  EXPECT_EQ(pStg, nullptr);
  EXPECT_EQ(pStream->QueryInterface(IID_ISequentialStream, reinterpret_cast<void**>(&pUnk)), E_NOINTERFACE);

  char buf[4];
  ULONG cb = 0;
  ASSERT_EQ(pStream->Read(buf, 4, &cb), S_OK);
  ULARGE_INTEGER size;
  size.QuadPart = 6;
  ASSERT_EQ(pStream->SetSize(size), S_OK);  // cutting alone isn't a change
  EXPECT_FALSE(pStream->IsModified());
  ASSERT_EQ(pStream->Write("ab", 2, &cb), S_OK);
  EXPECT_TRUE(pStream->IsModified());
  EXPECT_EQ(Contents(pInner), LE().raw("0123ab", 6).get());
  pStream->Release();
  EXPECT_EQ(RefCount(pInner), 1u);
  pInner->Release();

  CFaultyStream* pFaulty = new CFaultyStream;
  pFaulty->failAllWrites = true;
  pStream = new CPropStream(pFaulty, 0);
  EXPECT_FALSE(pStream->IsWritable());
  EXPECT_EQ(pStream->Write("ab", 2, &cb), STG_E_WRITEFAULT);
  EXPECT_FALSE(pStream->IsModified());
  pStream->Release();
  pFaulty->Release();
}

TEST_F(PropListTest, PropStreamCopiesOutWithoutMovingTheClientsPosition) {
  TraceLog log(5);
  IStream* pInner = NewStream(LE().raw("hello world", 11).get());
  CPropStream* pStream = new CPropStream(pInner, MAPI_MODIFY);
  pInner->Release();
  SeekTo(pStream, 6);
  ULONG cb = 0;
  ASSERT_EQ(pStream->GetSize(&cb), S_OK);
  EXPECT_EQ(cb, 11u);
  char buf[32] = {};
  ASSERT_EQ(pStream->SaveToBuffer(buf, sizeof(buf), &cb), S_OK);
  EXPECT_EQ(std::string(buf, cb), "hello world");
  EXPECT_EQ(Position(pStream), 6u);
  EXPECT_EQ(pStream->SaveToBuffer(buf, 5), E_OUTOFMEMORY);  // the buffer is too small
  EXPECT_EQ(Position(pStream), 6u);

  IStream* pDest = NewStream(LE().raw("xyz", 3).get());
  SeekTo(pDest, 3);
  ASSERT_EQ(pStream->SaveToStream(pDest), S_OK);
  EXPECT_EQ(Contents(pDest), LE().raw("xyzhello world", 14).get());
  EXPECT_EQ(Position(pStream), 6u);
  pDest->Release();
  pStream->Release();

  // A failed read still puts the position back.
  CFaultyStream* pBroken = new CFaultyStream;
  ASSERT_EQ(pBroken->Inner()->Write("abcdef", 6, &cb), S_OK);
  pBroken->failReads = true;
  pStream = new CPropStream(pBroken, MAPI_MODIFY);
  pBroken->Release();
  SeekTo(pStream, 4);
  EXPECT_EQ(pStream->SaveToBuffer(buf, sizeof(buf)), STG_E_READFAULT);
  EXPECT_EQ(Position(pStream), 4u);
  // The open list gives the failure and keeps nothing of the value.
  COpenPropList open;
  ASSERT_EQ(open.Add(pStream, OPENPROP_STREAM | OPENPROP_NEW, 0, PR_BODY_A), S_OK);
  SPropValue v = Prop(PR_BODY_A);
  EXPECT_EQ(open.Find(PR_BODY_A, &v, NULL), STG_E_READFAULT);
  EXPECT_EQ(v.Value.lpszA, nullptr);
  open.Clear(TRUE);

  // 4 GiB or more has no size in 32 bits.
  CFaultyStream* pHuge = new CFaultyStream;
  pHuge->fakeSize = 0x100000000ull;
  pStream = new CPropStream(pHuge, MAPI_MODIFY);
  pHuge->Release();
  EXPECT_EQ(pStream->GetSize(&cb), E_OUTOFMEMORY);
  EXPECT_TRUE(log.Has(" CPropStream::GetSize:8007000e\r\n"));
  EXPECT_EQ(pStream->SaveToBuffer(buf, sizeof(buf)), E_OUTOFMEMORY);
  EXPECT_TRUE(log.Has(" CPropStream::SaveToBuffer:8007000e\r\n"));
  pStream->Release();
}

TEST_F(PropListTest, PropStreamCountsAndFlagsSafelyAcrossThreads) {
  IStream* pInner = NewStream();
  CPropStream* pStream = new CPropStream(pInner, MAPI_MODIFY);
  pInner->Release();
  std::vector<std::thread> threads;
  std::atomic<int> cWrites{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        pStream->AddRef();
        if (pStream->IsModified()) pStream->SetModified(FALSE);
        pStream->SetModified(TRUE);
        ++cWrites;
        pStream->Release();
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(cWrites.load(), 2000);
  EXPECT_TRUE(pStream->IsModified());
  EXPECT_EQ(pStream->Release(), 0u);
}

// ---------------------------------------------------------------------------------------------
// CStorage, private storages and temporary files

TEST_F(PropListTest, PrivateStorageLivesInATemporaryFileThatGoesWithIt) {
  TraceLog log(5);
  std::string temp = log.Home().Temp();
  ASSERT_EQ(FilesIn(temp), 0u);
  CStorage* pStorage = NULL;
  ASSERT_EQ(CreatePrivateIStorage(&pStorage, MAPI_MODIFY), S_OK);
  ASSERT_NE(pStorage, nullptr);
  EXPECT_EQ(FilesIn(temp), 1u);
  EXPECT_EQ(pStorage->GetAccess(), ULONG(MAPI_MODIFY));
  EXPECT_FALSE(pStorage->IsModified());

  IStorage* pStg = NULL;
  ASSERT_EQ(pStorage->QueryInterface(IID_IStorage, reinterpret_cast<void**>(&pStg)), S_OK);
  pStg->Release();
  IStream* pNo = reinterpret_cast<IStream*>(0x1);
  EXPECT_EQ(pStorage->QueryInterface(IID_IStream, reinterpret_cast<void**>(&pNo)), E_NOINTERFACE);
  EXPECT_EQ(pNo, nullptr);

  // A failing create leaves the flag alone; destroying an element doesn't count as a change.
  IStream* pElem = NULL;
  EXPECT_TRUE(FAILED(pStorage->OpenStream(WIDE("missing"), NULL, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &pElem)));
  EXPECT_FALSE(pStorage->IsModified());
  ASSERT_EQ(pStorage->CreateStream(WIDE("data"), STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE, 0, 0, &pElem),
            S_OK);
  EXPECT_TRUE(pStorage->IsModified());
  ULONG cb = 0;
  ASSERT_EQ(pElem->Write("payload", 7, &cb), S_OK);
  pElem->Release();
  pStorage->SetModified(FALSE);
  IStorage* pSub = NULL;
  ASSERT_EQ(pStorage->CreateStorage(WIDE("sub"), STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE, 0, 0, &pSub),
            S_OK);
  pSub->Release();
  EXPECT_TRUE(pStorage->IsModified());
  pStorage->SetModified(FALSE);
  ASSERT_EQ(pStorage->DestroyElement(WIDE("sub")), S_OK);
  EXPECT_FALSE(pStorage->IsModified());

  // Its image copies out, and a storage made over that copy reads the element back.
  IStream* pRecord = NewStream(LE().raw("HDR", 3).get());
  SeekTo(pRecord, 3);
  ASSERT_EQ(pStorage->SaveToStream(pRecord), S_OK);
  pStorage->Release();
  EXPECT_EQ(FilesIn(temp), 0u);  // deleted on release

  SeekTo(pRecord, 3);
  CStorage* pCopy = NULL;
  ASSERT_EQ(CreatePrivateIStorage(&pCopy, 0, pRecord), S_OK);
  EXPECT_EQ(FilesIn(temp), 0u);
  ASSERT_EQ(pCopy->OpenStream(WIDE("data"), NULL, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &pElem), S_OK);
  EXPECT_TRUE(pCopy->IsModified());  // opening counts, as the object can't tell a read from a write
  char buf[16] = {};
  ASSERT_EQ(pElem->Read(buf, sizeof(buf), &cb), S_OK);
  EXPECT_EQ(std::string(buf, cb), "payload");
  pElem->Release();
  EXPECT_EQ(pCopy->GetBackingStream(), pRecord);
  pCopy->Release();
  EXPECT_EQ(RefCount(pRecord), 1u);
  pRecord->Release();
}

TEST_F(PropListTest, TemporaryFilesFailCleanlyWithoutATemporaryFolder) {
  TraceLog log(5);
  std::string temp = log.Home().Temp();
  CHAR szPath[MAX_PATH] = {};
  ASSERT_TRUE(GetTempFullPathFileName(szPath));
  EXPECT_NE(std::string(szPath).find("TMP"), std::string::npos);
  EXPECT_EQ(FilesIn(temp), 1u);  // the name comes with an empty file
  DeleteFileA(szPath);

  IStream* pStream = NULL;
  ASSERT_EQ(OpenTempFileStream(&pStream), S_OK);
  EXPECT_EQ(FilesIn(temp), 1u);
  pStream->Release();
  EXPECT_EQ(FilesIn(temp), 0u);

  std::filesystem::remove_all(temp);
  EXPECT_FALSE(GetTempFullPathFileName(szPath));
  EXPECT_TRUE(log.Has(" GetTempFullPathFileName: Failed to get temp path or file name:"));
  CStorage* pStorage = reinterpret_cast<CStorage*>(0x1);
  EXPECT_EQ(CreatePrivateIStorage(&pStorage, MAPI_MODIFY), E_FAIL);
  EXPECT_EQ(pStorage, nullptr);
  EXPECT_TRUE(log.Has(" CreatePrivateIStorage:80004005\r\n"));
  std::filesystem::create_directories(temp);
}

// ---------------------------------------------------------------------------------------------
// COpenPropList

CPropStream* StreamWith(const Bytes& bytes) {
  IStream* pInner = NewStream(bytes);
  CPropStream* pStream = new CPropStream(pInner, MAPI_MODIFY);
  pInner->Release();
  return pStream;
}

TEST_F(PropListTest, OpenListFindsByIDAndReadsStreamsIntoMemory) {
  COpenPropList list;
  CPropStream* pBody = StreamWith(LE().raw("text", 4).get());
  CPropStream* pWide = StreamWith(LE().u16('h').u16('i').get());
  CPropStream* pBin = StreamWith(Bytes(100, 7));
  CStorage* pStorage = NULL;
  ASSERT_EQ(CreatePrivateIStorage(&pStorage, MAPI_MODIFY), S_OK);
  ASSERT_EQ(list.Add(pBody, OPENPROP_STREAM | OPENPROP_OPENED | OPENPROP_NEW, 0, PR_BODY_A), S_OK);
  ASSERT_EQ(list.Insert(pWide, OPENPROP_STREAM | OPENPROP_OPENED, 12, PROP_TAG(PT_UNICODE, 0x6601)), S_OK);
  ASSERT_EQ(list.Add(pBin, OPENPROP_STREAM | OPENPROP_OPENED, 13, PROP_TAG(PT_BINARY, 0x6602)), S_OK);
  ASSERT_EQ(list.Add(pStorage, OPENPROP_STORAGE | OPENPROP_OPENED, 14, PROP_TAG(PT_OBJECT, 0x3701)), S_OK);
  EXPECT_EQ(list.GetCount(), 4u);
  EXPECT_EQ(list.FindNode(PR_BODY_W), list.GetHead());  // by ID

  LPVOID pBase = NULL;
  ASSERT_EQ(MAPIAllocateBuffer(8, &pBase), S_OK);
  SPropValue v = Prop(PR_BODY_A);
  ASSERT_EQ(list.Find(PR_BODY_A, &v, pBase), S_OK);
  EXPECT_STREQ(v.Value.lpszA, "text");
  v = Prop(PROP_TAG(PT_UNICODE, 0x6601));
  ASSERT_EQ(list.Find(v.ulPropTag, &v, pBase), S_OK);
  EXPECT_EQ(std::u16string(v.Value.lpszW), std::u16string(WIDE("hi")));
  v = Prop(PROP_TAG(PT_BINARY, 0x6602));
  ASSERT_EQ(list.Find(v.ulPropTag, &v, pBase), S_OK);
  EXPECT_EQ(v.Value.bin.cb, 100u);
  EXPECT_EQ(v.Value.bin.lpb[99], 7);
  EXPECT_EQ(list.Find(v.ulPropTag, &v, pBase, 99), E_OUTOFMEMORY);  // above the caller's limit
  EXPECT_EQ(list.Find(v.ulPropTag, &v, pBase, 100), S_OK);
  EXPECT_EQ(list.Find(PROP_TAG(PT_OBJECT, 0x3701), &v, pBase), E_OUTOFMEMORY);  // a storage
  EXPECT_EQ(list.Find(PR_SUBJECT_A, &v, pBase), MAPI_E_NOT_FOUND);
  MAPIFreeBuffer(pBase);

  // Removing a new property drops it; one with a record is only marked, and then hidden.
  pBody->AddRef();
  ASSERT_EQ(list.Remove(PR_BODY_A), S_OK);
  EXPECT_EQ(RefCount(pBody), 1u);
  pBody->Release();
  ASSERT_EQ(list.Remove(PROP_TAG(PT_BINARY, 0x6602)), S_OK);
  EXPECT_EQ(list.GetCount(), 3u);
  EXPECT_EQ(list.FindNode(PROP_TAG(PT_BINARY, 0x6602)), nullptr);
  EXPECT_EQ(list.Find(PROP_TAG(PT_BINARY, 0x6602), &v, NULL), MAPI_E_NOT_FOUND);
  EXPECT_EQ(list.Remove(PR_BODY_A), MAPI_E_NOT_FOUND);

  // Clear without fAll keeps what a client still holds, unless it is deleted.
  pWide->AddRef();
  pBin->AddRef();
  list.Clear(FALSE);
  EXPECT_EQ(list.GetCount(), 1u);
  EXPECT_EQ(list.GetHead()->iface.pStream, pWide);
  EXPECT_EQ(RefCount(pBin), 1u);
  pBin->Release();
  list.Clear(TRUE);
  EXPECT_EQ(list.GetCount(), 0u);
  EXPECT_EQ(RefCount(pWide), 1u);
  pWide->Release();
}

// ---------------------------------------------------------------------------------------------
// Pulling small streams back into the list

TEST_F(PropListTest, SmallStreamsComeBackIntoTheListBeforeASave) {
  CPropList list;
  COpenPropList open;
  SPropValue stub;
  MakeLargeStub(PR_BODY_A, OPENPROP_STREAM, 21, &stub);
  ASSERT_EQ(list.Insert(&stub), S_OK);
  SPropValue subject = StringProp(PR_SUBJECT_A, "s");
  ASSERT_EQ(list.Insert(&subject), S_OK);

  CPropStream* pBody = StreamWith(LE().raw("short body", 10).get());
  CPropStream* pWide = StreamWith(LE().u16('w').get());
  CPropStream* pBin2047 = StreamWith(Bytes(2047, 3));
  CPropStream* pBin2048 = StreamWith(Bytes(2048, 4));
  CPropStream* pEmpty = StreamWith({});
  CPropStream* pLong = StreamWith(LE().u32(5).get());
  CPropStream* pDeleted = StreamWith(LE().raw("gone", 4).get());
  const ULONG kOpen = OPENPROP_STREAM | OPENPROP_OPENED;
  ASSERT_EQ(open.Add(pBody, kOpen, 21, PR_BODY_A), S_OK);
  ASSERT_EQ(open.Add(pWide, kOpen | OPENPROP_NEW, 0, PROP_TAG(PT_UNICODE, 0x6601)), S_OK);
  ASSERT_EQ(open.Add(pBin2047, kOpen | OPENPROP_NEW, 0, PROP_TAG(PT_BINARY, 0x6602)), S_OK);
  ASSERT_EQ(open.Add(pBin2048, kOpen | OPENPROP_NEW, 0, PROP_TAG(PT_BINARY, 0x6603)), S_OK);
  ASSERT_EQ(open.Add(pEmpty, kOpen | OPENPROP_NEW, 0, PROP_TAG(PT_BINARY, 0x6604)), S_OK);
  ASSERT_EQ(open.Add(pLong, kOpen | OPENPROP_NEW, 0, PROP_TAG(PT_LONG, 0x6605)), S_OK);
  ASSERT_EQ(open.Add(pDeleted, kOpen | OPENPROP_DELETED, 30, PROP_TAG(PT_STRING8, 0x6606)), S_OK);
  SeekTo(pBody, 3);

  ASSERT_EQ(list.PullInSmallStreams(&open), S_OK);
  SPropValue v;
  // The stub goes and the value comes in behind the others.
  ASSERT_EQ(list.Find(PR_BODY_A, &v, TRUE), S_OK);
  EXPECT_STREQ(v.Value.lpszA, "short body");
  EXPECT_EQ(list.GetFirstNode()->ulPropTag, ULONG(PR_SUBJECT_A));
  EXPECT_EQ(list.GetNextNode()->ulPropTag, ULONG(PR_BODY_A));
  EXPECT_EQ(Position(pBody), 3u);
  ASSERT_EQ(list.Find(PROP_TAG(PT_UNICODE, 0x6601), &v, TRUE), S_OK);
  EXPECT_EQ(std::u16string(v.Value.lpszW), std::u16string(WIDE("w")));
  ASSERT_EQ(list.Find(PROP_TAG(PT_BINARY, 0x6602), &v, TRUE), S_OK);
  EXPECT_EQ(v.Value.bin.cb, 2047u);
  for (ULONG ulTag : {PROP_TAG(PT_BINARY, 0x6603), PROP_TAG(PT_BINARY, 0x6604), PROP_TAG(PT_LONG, 0x6605),
                      PROP_TAG(PT_STRING8, 0x6606)}) {
    EXPECT_EQ(list.Find(ulTag, &v), MAPI_E_NOT_FOUND) << std::hex << ulTag;
  }

  // A property with a record stays in the open list, marked for its record's release; new ones go.
  LPOPENPROPNODE pNode = open.GetHead();
  ASSERT_NE(pNode, nullptr);
  EXPECT_EQ(pNode->iface.pStream, pBody);
  EXPECT_EQ(pNode->ulFlags & OPENPROP_DELETED, OPENPROP_DELETED);
  std::vector<ULONG> left;
  for (; pNode; pNode = pNode->pNext) left.push_back(pNode->ulPropTag);
  EXPECT_EQ(left, (std::vector<ULONG>{PR_BODY_A, PROP_TAG(PT_BINARY, 0x6603), PROP_TAG(PT_BINARY, 0x6604),
                                      PROP_TAG(PT_LONG, 0x6605), PROP_TAG(PT_STRING8, 0x6606)}));
  EXPECT_EQ(list.PullInSmallStreams(NULL), S_OK);
}

}  // namespace
