// The back end's save and load of objects over a real store file: entry IDs, fields, property
// lists with large stream and storage properties, recipients, sizes, the named-property stream.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "ZT4FileStg_test_util.h"
#include "ZT4NameProp.h"

using namespace betest;

namespace {

const ULONG kBody = PR_BODY_A;
const ULONG kRtf = PROP_TAG(PT_BINARY, 0x1009);
const ULONG kHtml = PROP_TAG(PT_BINARY, 0x1013);
const ULONG kBodyW = PROP_TAG(PT_UNICODE, 0x3004);
const ULONG kAttachObj = PROP_TAG(PT_OBJECT, 0x3701);
const ULONG kWrite = OPENPROP_OPENED;

size_t Occurrences(const std::string& text, const std::string& part) {
  size_t c = 0;
  for (size_t pos = text.find(part); pos != std::string::npos; pos = text.find(part, pos + 1)) ++c;
  return c;
}

SPropValue Long(ULONG ulPropTag, LONG l) {
  SPropValue v;
  memset(&v, 0, sizeof(v));
  v.ulPropTag = ulPropTag;
  v.Value.l = l;
  return v;
}

SPropValue String8(ULONG ulPropTag, const char* psz) {
  SPropValue v;
  memset(&v, 0, sizeof(v));
  v.ulPropTag = ulPropTag;
  v.Value.lpszA = const_cast<LPSTR>(psz);
  return v;
}

// The placeholder an object puts in its list when a client opens a new large property.
void InsertPlaceholder(CPropList& list, ULONG ulPropTag, ULONG ulKind) {
  SPropValue stub;
  MakeLargeStub(ulPropTag, ulKind, 0, &stub);
  ASSERT_EQ(list.Insert(&stub), S_OK);
}

// A property a client created and wrote: what a save finds in the object's lists.
void AddNewStream(CPropList& list, COpenPropList& open, ULONG ulPropTag, const Bytes& data) {
  InsertPlaceholder(list, ulPropTag, OPENPROP_STREAM);
  ASSERT_EQ(open.Add(BackEndTest::NewPropStream(data), OPENPROP_STREAM | kWrite | OPENPROP_NEW, 0, ulPropTag), S_OK);
}

void Rewrite(CPropStream* pStream, const Bytes& data) {
  ULARGE_INTEGER zero = {};
  ASSERT_EQ(pStream->SetSize(zero), S_OK);
  Rewind(pStream);
  ASSERT_EQ(WriteAll(pStream, data), S_OK);
}

}  // namespace

TEST_F(BackEndTest, EntryIdLayoutAndValidation) {
  PRIVATE_EID eid = Eid(MAPI_MESSAGE, 0x11223344);
  strcpy(eid.szUniqueId, "uid-1");
  const BYTE* pb = reinterpret_cast<const BYTE*>(&eid);
  MAPIUID uid = StoreGuid();
  EXPECT_EQ(memcmp(pb + 4, &uid, 16), 0);
  EXPECT_EQ(pb[20], 1);
  EXPECT_EQ(pb[21], MAPI_MESSAGE);
  EXPECT_EQ(pb[24], 0x44);
  EXPECT_EQ(pb[27], 0x11);
  EXPECT_EQ(memcmp(pb + 28, "uid-1", 6), 0);

  const std::string kLine = "CBackEnd::IsValidEntryID: Invalid object type in entry ID structure";
  for (BYTE bType = 3; bType <= 8; ++bType) {
    PRIVATE_EID typed = Eid(bType, 5);
    EXPECT_TRUE(m_pBE->IsValidEntryID(&typed)) << int(bType);
  }
  EXPECT_EQ(Occurrences(LogText(), kLine), 0u);

  PRIVATE_EID type2 = Eid(2, 5), type9 = Eid(9, 5);
  EXPECT_FALSE(m_pBE->IsValidEntryID(&type2));
  EXPECT_EQ(Occurrences(LogText(), kLine), 1u);
  EXPECT_FALSE(m_pBE->IsValidEntryID(&type9));
  EXPECT_EQ(Occurrences(LogText(), kLine), 2u);

  // The other refusals are silent.
  PRIVATE_EID v2 = Eid(MAPI_FOLDER, 3);
  v2.bVersion = 2;
  EXPECT_FALSE(m_pBE->IsValidEntryID(&v2));
  PRIVATE_EID other = Eid(MAPI_FOLDER, 3);
  other.guidStore.ab[15] ^= 1;
  EXPECT_FALSE(m_pBE->IsValidEntryID(&other));
  EXPECT_FALSE(m_pBE->IsValidEntryID(NULL));
  EXPECT_EQ(Occurrences(LogText(), kLine), 2u);
}

TEST_F(BackEndTest, GetStreamOpensCreatesAndPrimes) {
  IStream* pStream = NULL;
  EXPECT_EQ(m_pBE->GetStream(100, RECFLD_CONTENTS, &pStream, FALSE), MAPI_E_NOT_FOUND);
  EXPECT_EQ(pStream, nullptr);
  EXPECT_FALSE(Logged("CFileBackEnd::GetStream:"));

  // A new field reads as a count of zero, at position 0.
  ASSERT_EQ(m_pBE->GetStream(100, RECFLD_CONTENTS, &pStream), S_OK);
  CIDList ids;
  EXPECT_EQ(ids.LoadFromStream(pStream), S_OK);
  EXPECT_EQ(ids.GetNodeCount(), 0u);
  pStream->Release();
  EXPECT_EQ(Field(100, RECFLD_CONTENTS), Bytes(4, 0));

  ASSERT_EQ(m_pBE->GetStream(100, RECFLD_NAMES, &pStream, TRUE, FALSE), S_OK);
  pStream->Release();
  EXPECT_TRUE(Field(100, RECFLD_NAMES).empty());

  // The fields reach the file.
  Reopen();
  EXPECT_EQ(Field(100, RECFLD_CONTENTS), Bytes(4, 0));
  EXPECT_FALSE(FieldExists(100, RECFLD_CHILDREN));
}

TEST_F(BackEndTest, MessageSaveRefreshesSizeAndSurvivesReopen) {
  const PRIVATE_EID folder = Eid(MAPI_FOLDER, 3), msg = Eid(MAPI_MESSAGE, 10);
  CPropList list;
  SPropValue v = String8(PR_SUBJECT_A, "Quarterly report");
  ASSERT_EQ(list.Insert(&v), S_OK);
  v = Long(PR_IMPORTANCE, 2);
  ASSERT_EQ(list.Insert(&v), S_OK);
  ASSERT_EQ(m_pBE->SaveObject(folder, msg, &list, NULL, NULL), S_OK);

  // The first size covers the list as it was before the size node (24 bytes) joined it.
  Bytes stored = Field(10, RECFLD_PROPERTIES);
  EXPECT_EQ(ULONG(LongValue(list, PR_MESSAGE_SIZE)), stored.size() - 24);
  // Without a recipient table the message has no recipient field.
  EXPECT_FALSE(FieldExists(10, RECFLD_CHILDREN));

  // Every save refreshes it.
  v = String8(PR_SUBJECT_A, "Quarterly report, final version with figures");
  ASSERT_EQ(list.Insert(&v), S_OK);
  ASSERT_EQ(m_pBE->SaveObject(folder, msg, &list, NULL, NULL), S_OK);
  stored = Field(10, RECFLD_PROPERTIES);
  EXPECT_EQ(ULONG(LongValue(list, PR_MESSAGE_SIZE)), stored.size());

  // A folder gets no size.
  CPropList folderList;
  v = String8(PR_DISPLAY_NAME_A, "Inbox");
  ASSERT_EQ(folderList.Insert(&v), S_OK);
  ASSERT_EQ(m_pBE->SaveObject(Eid(MAPI_FOLDER, 1), folder, &folderList, NULL, NULL), S_OK);
  SPropValue found;
  EXPECT_EQ(folderList.Find(PR_MESSAGE_SIZE, &found), MAPI_E_NOT_FOUND);
  EXPECT_EQ(folderList.Find(PR_ATTACH_SIZE, &found), MAPI_E_NOT_FOUND);

  Reopen();
  std::unique_ptr<CPropList> loaded = Load(10);
  ASSERT_TRUE(loaded);
  ASSERT_EQ(loaded->Find(PR_SUBJECT_A, &found, TRUE), S_OK);
  EXPECT_STREQ(found.Value.lpszA, "Quarterly report, final version with figures");
  EXPECT_EQ(LongValue(*loaded, PR_IMPORTANCE), 2);
  EXPECT_EQ(ULONG(LongValue(*loaded, PR_MESSAGE_SIZE)), stored.size());
  EXPECT_EQ(Field(10, RECFLD_PROPERTIES), stored);
}

TEST_F(BackEndTest, SaveNewObjectRefusesAnExistingOne) {
  CPropList list;
  SPropValue v = Long(PR_IMPORTANCE, 1);
  ASSERT_EQ(list.Insert(&v), S_OK);
  ASSERT_EQ(m_pBE->SaveObject(Eid(MAPI_MESSAGE, 11), &list), S_OK);
  EXPECT_EQ(LongValue(*Load(11), PR_IMPORTANCE), 1);
  EXPECT_FALSE(Logged("has existed"));

  v = Long(PR_IMPORTANCE, 2);
  ASSERT_EQ(list.Insert(&v), S_OK);
  EXPECT_EQ(m_pBE->SaveObject(Eid(MAPI_MESSAGE, 11), &list), E_FAIL);
  EXPECT_TRUE(Logged("Object ID 11 has existed"));
  EXPECT_TRUE(Logged("CFileBackEnd::OpenObject:80004005"));
  EXPECT_EQ(LongValue(*Load(11), PR_IMPORTANCE), 1);
}

TEST_F(BackEndTest, SmallStreamsGoInlineLargeOnesToRecords) {
  const PRIVATE_EID folder = Eid(MAPI_FOLDER, 3), msg = Eid(MAPI_MESSAGE, 12);
  const Bytes small = Pattern(2047, 1), large = Pattern(2048, 2);
  CPropList list;
  COpenPropList open;
  AddNewStream(list, open, kRtf, small);
  AddNewStream(list, open, kHtml, large);

  // What a save does first: streams that fit one data node come back into the list.
  ASSERT_EQ(list.PullInSmallStreams(&open), S_OK);
  ASSERT_EQ(m_pBE->SaveObject(folder, msg, &list, &open, NULL), S_OK);

  EXPECT_EQ(BinaryValue(list, kRtf), small);
  EXPECT_EQ(StubOf(list, kRtf).ulPropTag, 0u);
  SPropValue stub = StubOf(list, kHtml);
  ASSERT_EQ(stub.ulPropTag, CHANGE_PROP_TYPE(kHtml, PT_LARGE_STUB));
  ULONG ulType = 0, ulKind = 0;
  DWORD dwRecordID = 0;
  GetLargeStubInfo(&stub, &ulType, &ulKind, &dwRecordID);
  EXPECT_EQ(ulType, ULONG(PT_BINARY));
  EXPECT_EQ(ulKind, OPENPROP_STREAM);
  EXPECT_NE(dwRecordID, 0u);
  EXPECT_EQ(Field(dwRecordID, RECFLD_PROPERTIES), large);

  // The open list keeps the large one, now with its record and no longer new.
  ASSERT_EQ(open.GetCount(), 1u);
  EXPECT_EQ(open.GetHead()->ulPropTag, kHtml);
  EXPECT_EQ(open.GetHead()->dwRecordID, dwRecordID);
  EXPECT_EQ(open.GetHead()->ulFlags & OPENPROP_NEW, 0u);
  EXPECT_FALSE(open.GetHead()->iface.pStream->IsModified());

  // The size counts the large property's record too.
  EXPECT_EQ(ULONG(LongValue(list, PR_MESSAGE_SIZE)), Field(12, RECFLD_PROPERTIES).size() - 24 + large.size());

  // Reopened: the list has the inline value and the stub, the stub's record the bytes.
  open.Clear(TRUE);
  Reopen();
  std::unique_ptr<CPropList> loaded = Load(12);
  EXPECT_EQ(BinaryValue(*loaded, kRtf), small);
  EXPECT_EQ(StubRecord(StubOf(*loaded, kHtml)), dwRecordID);
  IStream* pClient = NULL;
  ASSERT_EQ(CreateStreamOnHGlobal(NULL, TRUE, &pClient), S_OK);
  LPUNKNOWN pUnk = pClient;
  SPropValue loadedStub = StubOf(*loaded, kHtml);
  ASSERT_EQ(m_pBE->OpenProperty(&loadedStub, &pUnk), S_OK);
  EXPECT_EQ(pUnk, pClient);
  EXPECT_EQ(ReadAll(pClient), large);
  pClient->Release();
}

TEST_F(BackEndTest, LargeStreamsAboveTheLimitOpenOnDeleteOnReleaseFiles) {
  const PRIVATE_EID msg = Eid(MAPI_MESSAGE, 13);
  const Bytes atLimit = Pattern(LARGE_STREAM_MEMORY_LIMIT, 3), aboveLimit = Pattern(LARGE_STREAM_MEMORY_LIMIT + 1, 4);
  CPropList list;
  COpenPropList open;
  AddNewStream(list, open, kRtf, atLimit);
  AddNewStream(list, open, kHtml, aboveLimit);
  ASSERT_EQ(m_pBE->SaveObject(Eid(MAPI_FOLDER, 3), msg, &list, &open, NULL), S_OK);
  open.Clear(TRUE);
  const size_t cBaseline = CountFiles(Temp());

  // 65536 bytes: the client's memory stream is filled and handed back.
  IStream* pClient = NULL;
  ASSERT_EQ(CreateStreamOnHGlobal(NULL, TRUE, &pClient), S_OK);
  LPUNKNOWN pUnk = pClient;
  SPropValue stub = StubOf(list, kRtf);
  ASSERT_EQ(m_pBE->OpenProperty(&stub, &pUnk), S_OK);
  EXPECT_EQ(pUnk, pClient);
  EXPECT_EQ(ReadAll(pClient), atLimit);
  EXPECT_EQ(CountFiles(Temp()), cBaseline);
  pClient->Release();

  // 65537 bytes: a temporary file replaces the client's stream, which is released.
  ASSERT_EQ(CreateStreamOnHGlobal(NULL, TRUE, &pClient), S_OK);
  pClient->AddRef();  // to watch the release
  pUnk = pClient;
  stub = StubOf(list, kHtml);
  ASSERT_EQ(m_pBE->OpenProperty(&stub, &pUnk), S_OK);
  ASSERT_NE(pUnk, pClient);
  EXPECT_EQ(pClient->Release(), 0u);
  EXPECT_EQ(CountFiles(Temp()), cBaseline + 1);
  IStream* pFile = static_cast<IStream*>(pUnk);
  EXPECT_EQ(ReadAll(pFile), aboveLimit);
  EXPECT_EQ(pFile->Release(), 0u);
  EXPECT_EQ(CountFiles(Temp()), cBaseline);
}

TEST_F(BackEndTest, StoragePropertyAndAttachmentSave) {
  const PRIVATE_EID msg = Eid(MAPI_MESSAGE, 14), att = Eid(MAPI_ATTACH, 15);
  const Bytes data = Pattern(5000, 5);
  CPropList attList;
  COpenPropList open;
  {
    CStorage* pStorage = NULL;
    ASSERT_EQ(CreatePrivateIStorage(&pStorage, MAPI_MODIFY), S_OK);
    IStream* pElement = NULL;
    ASSERT_EQ(pStorage->CreateStream(u"Contents", STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE, 0, 0, &pElement),
              S_OK);
    ASSERT_EQ(WriteAll(pElement, data), S_OK);
    pElement->Release();
    InsertPlaceholder(attList, kAttachObj, OPENPROP_STORAGE);
    ASSERT_EQ(open.Add(static_cast<IStorage*>(pStorage), OPENPROP_STORAGE | kWrite | OPENPROP_NEW, 0, kAttachObj), S_OK);
  }
  ASSERT_EQ(m_pBE->SaveObject(msg, att, &attList, &open, NULL), S_OK);
  SPropValue stub = StubOf(attList, kAttachObj);
  ULONG ulKind = 0;
  DWORD dwRecordID = 0;
  GetLargeStubInfo(&stub, NULL, &ulKind, &dwRecordID);
  EXPECT_EQ(ulKind, OPENPROP_STORAGE);
  const size_t cbImage = Field(dwRecordID, RECFLD_PROPERTIES).size();
  EXPECT_GT(cbImage, data.size());
  EXPECT_EQ(ULONG(LongValue(attList, PR_ATTACH_SIZE)), Field(15, RECFLD_PROPERTIES).size() - 24 + cbImage);

  // The attachment is entered in its message's list.
  EXPECT_EQ(IDs(14, RECFLD_CONTENTS), std::vector<DWORD>({15}));
  // A message counts its attachments' large properties, not their lists.
  CPropList msgList;
  ULONG ulSize = 0;
  EXPECT_EQ(m_pBE->CalculateSize(msg, &msgList, &ulSize), S_OK);
  EXPECT_EQ(ulSize, cbImage);

  // Reading back: a storage over a new temporary file, with the client's access.
  open.Clear(TRUE);
  const size_t cBaseline = CountFiles(Temp());
  CStorage* pClient = NULL;
  ASSERT_EQ(CreatePrivateIStorage(&pClient, 0), S_OK);
  ASSERT_EQ(CountFiles(Temp()), cBaseline + 1);
  LPUNKNOWN pUnk = static_cast<IStorage*>(pClient);
  ASSERT_EQ(m_pBE->OpenProperty(&stub, &pUnk), S_OK);
  ASSERT_NE(pUnk, nullptr);
  EXPECT_EQ(CountFiles(Temp()), cBaseline + 1);  // the client's went, ours came
  CStorage* pOpened = static_cast<CStorage*>(pUnk);
  EXPECT_EQ(pOpened->GetAccess(), 0u);
  IStream* pElement = NULL;
  ASSERT_EQ(pOpened->OpenStream(u"Contents", NULL, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &pElement), S_OK);
  EXPECT_EQ(ReadAll(pElement), data);
  pElement->Release();
  pUnk->Release();
  EXPECT_EQ(CountFiles(Temp()), cBaseline);

  // Each save enters the attachment once more: the list is not checked for the ID.
  ASSERT_EQ(m_pBE->SaveObject(msg, att, &attList, NULL, NULL), S_OK);
  EXPECT_EQ(IDs(14, RECFLD_CONTENTS), std::vector<DWORD>({15, 15}));
  EXPECT_EQ(Field(14, RECFLD_CONTENTS), LE().u32(2).u32(15).u32(15).get());
  // A removal here is in memory only: the stored list changes when the attachment is deleted.
  EXPECT_EQ(m_pBE->UpdateAttachmentsCount(msg, att, TRUE), S_OK);
  EXPECT_EQ(Field(14, RECFLD_CONTENTS), LE().u32(2).u32(15).u32(15).get());
}

TEST_F(BackEndTest, OpenPropertyInMemoryUpToTheCallersLimit) {
  const ULONG kMax = 16384;
  CPropList list;
  COpenPropList open;
  const Bytes exact = Pattern(kMax, 6);
  std::string text(3000, 'q');
  std::u16string wide(1500, u'\u00e9');
  AddNewStream(list, open, kRtf, exact);
  AddNewStream(list, open, kBody, Bytes(text.begin(), text.end()));
  Bytes wideBytes(reinterpret_cast<const BYTE*>(wide.data()), reinterpret_cast<const BYTE*>(wide.data()) + wide.size() * 2);
  AddNewStream(list, open, kBodyW, wideBytes);
  ASSERT_EQ(m_pBE->SaveObject(Eid(MAPI_FOLDER, 3), Eid(MAPI_MESSAGE, 16), &list, &open, NULL), S_OK);

  // As a property object asks: the true tag, the stub's value.
  auto Asked = [&](ULONG ulPropTag) {
    SPropValue v = StubOf(list, ulPropTag);
    v.ulPropTag = ulPropTag;
    return v;
  };
  SPropValue v = Asked(kRtf);
  ASSERT_EQ(m_pBE->OpenPropertyInMemory(kMax, NULL, &v), S_OK);
  EXPECT_EQ(v.ulPropTag, kRtf);
  EXPECT_EQ(Bytes(v.Value.bin.lpb, v.Value.bin.lpb + v.Value.bin.cb), exact);
  MAPIFreeBuffer(v.Value.bin.lpb);

  v = Asked(kRtf);
  EXPECT_EQ(m_pBE->OpenPropertyInMemory(kMax - 1, NULL, &v), E_OUTOFMEMORY);

  // Strings come terminated, chained to the caller's block.
  LPVOID pBlock = NULL;
  ASSERT_EQ(MAPIAllocateBuffer(8, &pBlock), S_OK);
  v = Asked(kBody);
  ASSERT_EQ(m_pBE->OpenPropertyInMemory(kMax, pBlock, &v), S_OK);
  EXPECT_EQ(std::string(v.Value.lpszA), text);
  v = Asked(kBodyW);
  ASSERT_EQ(m_pBE->OpenPropertyInMemory(kMax, pBlock, &v), S_OK);
  EXPECT_EQ(std::u16string(v.Value.lpszW), wide);
  // A stub tag still in place is turned into the true one.
  v = StubOf(list, kBody);
  ASSERT_EQ(m_pBE->OpenPropertyInMemory(kMax, pBlock, &v), S_OK);
  EXPECT_EQ(v.ulPropTag, kBody);
  EXPECT_EQ(std::string(v.Value.lpszA), text);
  MAPIFreeBuffer(pBlock);
}

TEST_F(BackEndTest, DeletedLargePropertiesReleaseTheirRecords) {
  const PRIVATE_EID folder = Eid(MAPI_FOLDER, 3), msg = Eid(MAPI_MESSAGE, 17);
  CPropList list;
  COpenPropList open;
  AddNewStream(list, open, kRtf, Pattern(4000, 7));
  AddNewStream(list, open, kHtml, Pattern(4000, 8));
  ASSERT_EQ(m_pBE->SaveObject(folder, msg, &list, &open, NULL), S_OK);
  const DWORD dwRtfRecord = StubRecord(StubOf(list, kRtf)), dwHtmlRecord = StubRecord(StubOf(list, kHtml));
  ASSERT_TRUE(FieldExists(dwRtfRecord, RECFLD_PROPERTIES));
  ASSERT_TRUE(FieldExists(dwHtmlRecord, RECFLD_PROPERTIES));

  // A client deletes one: the stub leaves the list and its record is released.
  ASSERT_EQ(open.Remove(kRtf), S_OK);
  // The other shrinks to fit the list: pulled back, its value stays and its record goes.
  const Bytes shrunk = Pattern(100, 9);
  Rewrite(open.FindNode(kHtml)->iface.pStream, shrunk);
  ASSERT_EQ(list.PullInSmallStreams(&open), S_OK);
  ASSERT_EQ(m_pBE->SaveObject(folder, msg, &list, &open, NULL), S_OK);

  SPropValue found;
  EXPECT_EQ(list.Find(kRtf, &found), MAPI_E_NOT_FOUND);
  EXPECT_FALSE(FieldExists(dwRtfRecord, RECFLD_PROPERTIES));
  EXPECT_EQ(BinaryValue(list, kHtml), shrunk);
  EXPECT_FALSE(FieldExists(dwHtmlRecord, RECFLD_PROPERTIES));

  // A second save of the same lists touches no record again and still succeeds.
  ASSERT_EQ(m_pBE->SaveObject(folder, msg, &list, &open, NULL), S_OK);
  open.Clear(FALSE);
  EXPECT_EQ(open.GetCount(), 0u);
  Reopen();
  std::unique_ptr<CPropList> loaded = Load(17);
  EXPECT_EQ(BinaryValue(*loaded, kHtml), shrunk);
  EXPECT_EQ(loaded->Find(kRtf, &found), MAPI_E_NOT_FOUND);
}

TEST_F(BackEndTest, DeletedNewPropertyTouchesNoRecord) {
  CPropList list;
  COpenPropList open;
  InsertPlaceholder(list, kRtf, OPENPROP_STREAM);
  ASSERT_EQ(open.Add(NewPropStream(Pattern(3000)), OPENPROP_STREAM | kWrite | OPENPROP_NEW | OPENPROP_DELETED, 0, kRtf),
            S_OK);
  const ULONG cWrites = m_pDB->GetNodeWriteCount();
  ASSERT_EQ(m_pBE->SaveLargeProps(&open, &list), S_OK);
  EXPECT_EQ(list.GetCount(), 0u);
  EXPECT_EQ(m_pDB->GetNodeWriteCount(), cWrites);

  // A read-only open is skipped altogether.
  COpenPropList readOnly;
  ASSERT_EQ(readOnly.Add(NewPropStream(Pattern(3000)), OPENPROP_STREAM | OPENPROP_SKIP | OPENPROP_NEW, 0, kRtf), S_OK);
  ASSERT_EQ(m_pBE->SaveLargeProps(&readOnly, &list), S_OK);
  EXPECT_EQ(list.GetCount(), 0u);
  EXPECT_EQ(m_pDB->GetNodeWriteCount(), cWrites);
}

TEST_F(BackEndTest, RewrittenLargeStreamKeepsItsRecordAndLosesTheOldTail) {
  const PRIVATE_EID folder = Eid(MAPI_FOLDER, 3), msg = Eid(MAPI_MESSAGE, 18);
  CPropList list;
  COpenPropList open;
  AddNewStream(list, open, kRtf, Pattern(6000, 1));
  ASSERT_EQ(m_pBE->SaveObject(folder, msg, &list, &open, NULL), S_OK);
  const DWORD dwRecordID = StubRecord(StubOf(list, kRtf));

  const Bytes shorter = Pattern(3000, 2);
  Rewrite(open.GetHead()->iface.pStream, shorter);
  ASSERT_EQ(m_pBE->SaveObject(folder, msg, &list, &open, NULL), S_OK);
  EXPECT_EQ(StubRecord(StubOf(list, kRtf)), dwRecordID);
  EXPECT_EQ(Field(dwRecordID, RECFLD_PROPERTIES), shorter);

  // Unchanged since: the record isn't written again.
  const ULONG cWrites = m_pDB->GetNodeWriteCount();
  ASSERT_EQ(m_pBE->SaveLargeProps(&open, &list), S_OK);
  EXPECT_EQ(m_pDB->GetNodeWriteCount(), cWrites);
}

TEST_F(BackEndTest, RecipientTableGrowsAndShrinks) {
  const PRIVATE_EID folder = Eid(MAPI_FOLDER, 3), msg = Eid(MAPI_MESSAGE, 20);
  SizedSPropTagArray(4, sptCols) = {4, {PR_ROWID, PR_INSTANCE_KEY, PR_DISPLAY_NAME_A, PR_RECIPIENT_TYPE}};
  LPTABLEDATA pTable = NULL;
  ASSERT_EQ(CreateTable(&IID_IMAPITableData, MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer, NULL,
                        TBLTYPE_DYNAMIC, PR_ROWID, reinterpret_cast<LPSPropTagArray>(&sptCols), &pTable),
            S_OK);
  std::vector<std::string> names;
  auto PutRow = [&](LONG lRow, LONG lType) {
    names.push_back("Recipient " + std::to_string(lRow) + " of " + std::to_string(lType));
    DWORD dwKey = DWORD(lRow);
    SPropValue props[4];
    memset(props, 0, sizeof(props));
    props[0] = Long(PR_ROWID, lRow);
    props[1].ulPropTag = PR_INSTANCE_KEY;
    props[1].Value.bin.cb = 4;
    props[1].Value.bin.lpb = reinterpret_cast<LPBYTE>(&dwKey);
    props[2] = String8(PR_DISPLAY_NAME_A, names.back().c_str());
    props[3] = Long(PR_RECIPIENT_TYPE, lType);
    SRow row = {0, 4, props};
    ASSERT_EQ(pTable->HrModifyRow(&row), S_OK);
  };
  auto CheckRecipient = [&](DWORD dwID, const std::string& name) {
    std::unique_ptr<CPropList> recip = Load(dwID);
    ASSERT_TRUE(recip);
    EXPECT_EQ(recip->GetCount(), 2u);  // no row ID, no instance key
    SPropValue v;
    ASSERT_EQ(recip->Find(PR_DISPLAY_NAME_A, &v, TRUE), S_OK);
    EXPECT_EQ(std::string(v.Value.lpszA), name);
  };

  // More rows than one batch.
  for (LONG i = 0; i < 20; ++i) PutRow(i, MAPI_TO);
  CPropList list;
  ASSERT_EQ(m_pBE->SaveObject(folder, msg, &list, NULL, pTable), S_OK);
  EXPECT_TRUE(Logged("SaveRecipTable:: Properties available in recip table..."));
  std::vector<DWORD> first = IDs(20, RECFLD_CHILDREN);
  ASSERT_EQ(first.size(), 20u);
  LE expected;
  expected.u32(20);
  for (DWORD d : first) expected.u32(d);
  EXPECT_EQ(Field(20, RECFLD_CHILDREN), expected.get());
  for (size_t i = 0; i < first.size(); ++i) CheckRecipient(first[i], "Recipient " + std::to_string(i) + " of 1");

  // Growing reuses every record in order and adds new ones behind.
  for (LONG i = 20; i < 22; ++i) PutRow(i, MAPI_CC);
  ASSERT_EQ(m_pBE->SaveObject(folder, msg, &list, NULL, pTable), S_OK);
  std::vector<DWORD> grown = IDs(20, RECFLD_CHILDREN);
  ASSERT_EQ(grown.size(), 22u);
  EXPECT_TRUE(std::equal(first.begin(), first.end(), grown.begin()));
  CheckRecipient(grown[21], "Recipient 21 of 2");

  // Shrinking shortens the list; the dropped records stay allocated.
  ASSERT_EQ(pTable->HrDeleteRows(TAD_ALL_ROWS, NULL, NULL), S_OK);
  names.clear();
  PutRow(100, MAPI_BCC);
  PutRow(101, MAPI_BCC);
  PutRow(102, MAPI_BCC);
  ASSERT_EQ(m_pBE->SaveObject(folder, msg, &list, NULL, pTable), S_OK);
  std::vector<DWORD> shrunk = IDs(20, RECFLD_CHILDREN);
  EXPECT_EQ(shrunk, std::vector<DWORD>(grown.begin(), grown.begin() + 3));
  CheckRecipient(shrunk[0], "Recipient 100 of 3");
  for (size_t i = 3; i < grown.size(); ++i) EXPECT_TRUE(FieldExists(grown[i], RECFLD_PROPERTIES)) << i;

  // No table: the recipients stay as they are.
  ASSERT_EQ(m_pBE->SaveObject(folder, msg, &list, NULL, NULL), S_OK);
  EXPECT_EQ(IDs(20, RECFLD_CHILDREN), shrunk);
  // Recipients add nothing to a message's size walk.
  ULONG ulSize = 0;
  CPropList empty;
  EXPECT_EQ(m_pBE->CalculateSize(msg, &empty, &ulSize), S_OK);
  EXPECT_EQ(ulSize, 0u);
  pTable->Release();
}

TEST_F(BackEndTest, NamedPropertyStreamPersists) {
  IStream* pStream = NULL;
  ASSERT_EQ(m_pBE->GetNamedPropertiesStream(&pStream), S_OK);
  EXPECT_TRUE(ReadAll(pStream).empty());  // not primed
  ULONG ulID = 0;
  {
    CNamePropMgr map(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
    ASSERT_EQ(map.LoadMappingFromStream(pStream), S_OK);
    GUID guid = {0x00020329, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
    ASSERT_EQ(map.GetIDForName(&guid, const_cast<LPWSTR>(u"Keywords"), 0, MNID_STRING, &ulID, TRUE), S_OK);
    EXPECT_EQ(ulID, 0x8000u);
    ASSERT_EQ(map.SaveMappingToStream(pStream), S_OK);
  }
  pStream->Release();
  Bytes stored = Field(NAMED_PROPERTIES_RECORD, RECFLD_PROPERTIES);
  ASSERT_GE(stored.size(), 8u);
  EXPECT_EQ(Bytes(stored.begin(), stored.begin() + 8), LE().u32(0x8001).u32(1).get());

  Reopen();
  ASSERT_EQ(m_pBE->GetNamedPropertiesStream(&pStream), S_OK);
  CNamePropMgr map(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  ASSERT_EQ(map.LoadMappingFromStream(pStream), S_OK);
  pStream->Release();
  GUID guid = {0x00020329, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
  ULONG ulAgain = 0;
  EXPECT_EQ(map.GetIDForName(&guid, const_cast<LPWSTR>(u"Keywords"), 0, MNID_STRING, &ulAgain, FALSE), S_OK);
  EXPECT_EQ(ulAgain, ulID);
}

TEST_F(BackEndTest, DataBaseStringsReachTheFileHeader) {
  ASSERT_EQ(m_pBE->SetDataBaseStrings("Archive of Dana", NULL), S_OK);
  std::string header(152, '\0');
  {
    FILE* f = fopen(NativePath().c_str(), "rb");
    ASSERT_NE(f, nullptr);
    ASSERT_EQ(fread(header.data(), 1, header.size(), f), header.size());
    fclose(f);
  }
  EXPECT_STREQ(header.c_str() + 24, "Archive of Dana");
  EXPECT_STREQ(header.c_str() + 88, "Orvanta Store");
}

TEST_F(BackEndTest, BadStubsAndDamagedFields) {
  const ULONG cBaseline = ULONG(CountFiles(Temp()));
  // A stub whose record is missing.
  SPropValue stub;
  MakeLargeStub(kRtf, OPENPROP_STREAM, 999, &stub);
  IStream* pClient = NULL;
  ASSERT_EQ(CreateStreamOnHGlobal(NULL, TRUE, &pClient), S_OK);
  LPUNKNOWN pUnk = pClient;
  EXPECT_EQ(m_pBE->OpenProperty(&stub, &pUnk), MAPI_E_NOT_FOUND);
  EXPECT_EQ(pUnk, pClient);
  SPropValue v = stub;
  v.ulPropTag = kRtf;
  EXPECT_EQ(m_pBE->OpenPropertyInMemory(16384, NULL, &v), MAPI_E_NOT_FOUND);
  // It weighs nothing and doesn't stop a save.
  CPropList list;
  ASSERT_EQ(list.Insert(&stub), S_OK);
  ULONG ulSize = 0;
  EXPECT_EQ(m_pBE->CalculateSize(Eid(MAPI_ATTACH, 30), &list, &ulSize), S_OK);
  EXPECT_EQ(ulSize, 0u);
  EXPECT_EQ(m_pBE->SaveObject(Eid(MAPI_FOLDER, 3), Eid(MAPI_MESSAGE, 31), &list, NULL, NULL), S_OK);

  // A stub of an unknown kind: an assertion and E_NOTIMPL.
  PutField(32, RECFLD_PROPERTIES, Pattern(10));
  MakeLargeStub(kRtf, 3, 32, &stub);
  EXPECT_EQ(m_pBE->OpenProperty(&stub, &pUnk), E_NOTIMPL);
  EXPECT_TRUE(Logged("Assertion failed in File:"));
  pClient->Release();

  // A storage record that holds no storage image: an error, no file left behind.
  PutField(33, RECFLD_PROPERTIES, Pattern(3000));
  MakeLargeStub(kAttachObj, OPENPROP_STORAGE, 33, &stub);
  pUnk = NULL;
  EXPECT_TRUE(FAILED(m_pBE->OpenProperty(&stub, &pUnk)));
  EXPECT_EQ(pUnk, nullptr);
  EXPECT_EQ(CountFiles(Temp()), cBaseline);

  // A property list field with garbage: a corrupt-data error and no list.
  PutField(34, RECFLD_PROPERTIES, LE().u32(3).u32(0x7FFFFFF0).u32(PR_SUBJECT_A).get());
  IStream* pStream = NULL;
  ASSERT_EQ(m_pBE->GetStream(34, RECFLD_PROPERTIES, &pStream, FALSE), S_OK);
  CPropList* pList = reinterpret_cast<CPropList*>(1);
  EXPECT_EQ(m_pBE->LoadProperties(pStream, &pList), MAPI_E_CORRUPT_DATA);
  EXPECT_EQ(pList, nullptr);
  pStream->Release();

  // A message whose lists name missing records, and an attachment whose list is garbage.
  PutField(35, RECFLD_CHILDREN, LE().u32(2).u32(900).u32(901).get());
  PutField(35, RECFLD_CONTENTS, LE().u32(1).u32(34).get());
  CPropList empty;
  ulSize = 0;
  EXPECT_EQ(m_pBE->CalculateSize(Eid(MAPI_MESSAGE, 35), &empty, &ulSize), MAPI_E_CORRUPT_DATA);
  PutField(35, RECFLD_CONTENTS, LE().u32(1).u32(902).get());
  EXPECT_EQ(m_pBE->CalculateSize(Eid(MAPI_MESSAGE, 35), &empty, &ulSize), S_OK);
  EXPECT_EQ(ulSize, 0u);

  // A recipient list with a count beyond its bytes: the save says so.
  PutField(36, RECFLD_CHILDREN, LE().u32(0xFFFFFFFF).u32(5).get());
  LPTABLEDATA pTable = NULL;
  SizedSPropTagArray(2, sptCols) = {2, {PR_ROWID, PR_DISPLAY_NAME_A}};
  ASSERT_EQ(CreateTable(&IID_IMAPITableData, MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer, NULL,
                        TBLTYPE_DYNAMIC, PR_ROWID, reinterpret_cast<LPSPropTagArray>(&sptCols), &pTable),
            S_OK);
  EXPECT_EQ(m_pBE->SaveObject(Eid(MAPI_FOLDER, 3), Eid(MAPI_MESSAGE, 36), &empty, NULL, pTable), MAPI_E_CORRUPT_DATA);
  EXPECT_TRUE(Logged("CFileBackEnd::SaveObject:8004011b"));
  pTable->Release();
}

TEST_F(BackEndTest, CountingAndOperationsFilledLater) {
  EXPECT_EQ(m_pBE->AddRef(), 2u);
  EXPECT_EQ(m_pBE->Release(), 1u);
  EXPECT_EQ(m_pBE->Flush(), S_OK);
  CBackEnd* pBE = m_pBE;
  const PRIVATE_EID eid = Eid(MAPI_FOLDER, 3);
  PRIVATE_EID out = eid;
  CPropList* pList = NULL;
  LPTABLEDATA pTable = NULL;
  LONG l = 0;
  EXPECT_EQ(pBE->CreateObject(eid, &out, &pList, MAPI_MESSAGE, NULL, NULL, NULL), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(pBE->GetCachedObject(eid, "f", "u", &pList), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(pBE->RemoveCachedObject("u"), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(pBE->CopyObjects(eid, eid, 0, NULL), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(pBE->GetTable(TABLE_CONTENTS, eid, 0, NULL, NULL, &pTable), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(pBE->GetTableProps(0, NULL), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(pBE->BuildSortDescription(PR_SUBJECT_A, 0, NULL, 0), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(pBE->GetContentCount(eid, NULL, NULL, FALSE, &l), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(pBE->FindRow(eid, NULL, NULL, "k", &l), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(pBE->ClearMessageCache(eid), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(pBE->LoadCachedMessage(NULL, "f", eid, eid, &pList), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(pBE->GetSearchCondition(NULL, NULL), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(pList, nullptr);
  EXPECT_EQ(pTable, nullptr);
}

TEST_F(BackEndTest, ConcurrentSavesThroughOneBackEnd) {
  const int kPerThread = 12;
  auto Worker = [&](DWORD dwFirst) {
    for (int i = 0; i < kPerThread; ++i) {
      CPropList list;
      COpenPropList open;
      SPropValue v = Long(PR_IMPORTANCE, LONG(dwFirst + i));
      EXPECT_EQ(list.Insert(&v), S_OK);
      AddNewStream(list, open, kRtf, Pattern(2500, dwFirst + i));
      EXPECT_EQ(m_pBE->SaveObject(Eid(MAPI_FOLDER, 3), Eid(MAPI_MESSAGE, dwFirst + i), &list, &open, NULL), S_OK);
    }
  };
  std::thread a(Worker, 1000), b(Worker, 2000);
  a.join();
  b.join();
  std::vector<DWORD> records;
  for (DWORD dwFirst : {1000u, 2000u}) {
    for (int i = 0; i < kPerThread; ++i) {
      std::unique_ptr<CPropList> loaded = Load(dwFirst + i);
      ASSERT_TRUE(loaded);
      EXPECT_EQ(LongValue(*loaded, PR_IMPORTANCE), LONG(dwFirst + i));
      DWORD dwRecordID = StubRecord(StubOf(*loaded, kRtf));
      EXPECT_EQ(Field(dwRecordID, RECFLD_PROPERTIES), Pattern(2500, dwFirst + i));
      records.push_back(dwRecordID);
    }
  }
  std::sort(records.begin(), records.end());
  EXPECT_EQ(std::unique(records.begin(), records.end()), records.end());
}
