// The store object: its properties, entry points, refusals and lifetime.
#include <fstream>
#include <set>

#include "ZT4MSFolder.h"
#include "provider_test_support.h"

namespace {

using zt4test::AsEntryID;
using zt4test::Bytes;
using zt4test::TestEid;

class MsgStoreTest : public zt4test::StoreTest {
 protected:
  // The name and comment fields of the store file's header.
  std::pair<std::string, std::string> HeaderStrings() {
    std::ifstream in(m_log->Home().Root() + "/1.CST", std::ios::binary);
    char ab[152] = {};
    in.read(ab, sizeof(ab));
    return {std::string(ab + 24), std::string(ab + 88)};
  }
};

const SPropValue* FindTag(const SPropValue* pProps, ULONG cValues, ULONG ulPropTag) {
  for (ULONG i = 0; i < cValues; ++i)
    if (pProps[i].ulPropTag == ulPropTag) return &pProps[i];
  return NULL;
}

TEST_F(MsgStoreTest, AllPropertiesComeOnceWithTheirComputedValues) {
  CMsgStore* pStore = MakeStore();
  ASSERT_NE(pStore, nullptr);
  ULONG cValues = 0;
  LPSPropValue pProps = NULL;
  HRESULT hr = pStore->GetProps(NULL, 0, &cValues, &pProps);
  ASSERT_TRUE(hr == S_OK || hr == MAPI_W_ERRORS_RETURNED) << std::hex << hr;
  EXPECT_EQ(cValues, 25u);
  std::set<ULONG> tags;
  for (ULONG i = 0; i < cValues; ++i) tags.insert(PROP_ID(pProps[i].ulPropTag));
  EXPECT_EQ(tags.size(), cValues);

  const SPropValue* p = FindTag(pProps, cValues, PR_ACCESS);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p->Value.l, 63);
  ASSERT_NE(p = FindTag(pProps, cValues, PR_ACCESS_LEVEL), nullptr);
  EXPECT_EQ(p->Value.l, 1);
  ASSERT_NE(p = FindTag(pProps, cValues, PR_OBJECT_TYPE), nullptr);
  EXPECT_EQ(p->Value.l, MAPI_STORE);
  ASSERT_NE(p = FindTag(pProps, cValues, PR_STORE_SUPPORT_MASK), nullptr);
  EXPECT_EQ(static_cast<ULONG>(p->Value.l), 0x06053FFDu);
  ASSERT_NE(p = FindTag(pProps, cValues, PR_STORE_STATE), nullptr);
  EXPECT_EQ(static_cast<ULONG>(p->Value.l), 0x01000000u);
  ASSERT_NE(p = FindTag(pProps, cValues, PR_VALID_FOLDER_MASK), nullptr);
  EXPECT_EQ(p->Value.l, 253);
  ASSERT_NE(p = FindTag(pProps, cValues, PR_CURRENT_VERSION), nullptr);
  EXPECT_EQ(p->Value.li.QuadPart, 1);
  ASSERT_NE(p = FindTag(pProps, cValues, PR_MDB_PROVIDER), nullptr);
  ASSERT_EQ(p->Value.bin.cb, 16u);
  EXPECT_EQ(Bytes(p->Value.bin.lpb, p->Value.bin.lpb + 16), Bytes(ZT4_MDB_PROVIDER, ZT4_MDB_PROVIDER + 16));
  ASSERT_NE(p = FindTag(pProps, cValues, PR_RECORD_KEY), nullptr);
  EXPECT_EQ(Bytes(p->Value.bin.lpb, p->Value.bin.lpb + p->Value.bin.cb), StoreKey());
  ASSERT_NE(p = FindTag(pProps, cValues, PR_STORE_ENTRYID), nullptr);
  EXPECT_EQ(Bytes(p->Value.bin.lpb, p->Value.bin.lpb + p->Value.bin.cb),
            Bytes(pStore->m_StoreEID.lpb, pStore->m_StoreEID.lpb + pStore->m_StoreEID.cb));
  ASSERT_NE(p = FindTag(pProps, cValues, PR_DISPLAY_NAME), nullptr);
  EXPECT_STREQ(p->Value.lpszA, "ArchiveDepot");

  const std::pair<ULONG, DWORD> folders[] = {{PR_PARENT_ENTRYID, 0},       {PR_IPM_SUBTREE_ENTRYID, 1},
                                             {PR_IPM_WASTEBASKET_ENTRYID, 2}, {PR_IPM_OUTBOX_ENTRYID, 4},
                                             {PR_IPM_SENTMAIL_ENTRYID, 5},  {PR_COMMON_VIEWS_ENTRYID, 6},
                                             {PR_VIEWS_ENTRYID, 7},         {PR_FINDER_ENTRYID, 8}};
  for (const auto& f : folders) {
    ASSERT_NE(p = FindTag(pProps, cValues, f.first), nullptr) << std::hex << f.first;
    ASSERT_EQ(p->Value.bin.cb, CB_PRIVATE_EID);
    PRIVATE_EID expected = TestEid(MAPI_FOLDER, f.second);
    EXPECT_EQ(memcmp(p->Value.bin.lpb, &expected, CB_PRIVATE_EID), 0) << "object " << f.second;
  }
  MAPIFreeBuffer(pProps);
  EXPECT_TRUE(Logged("CMsgStore::GetProps: All properties requested"));
}

TEST_F(MsgStoreTest, ReadOnlyStoreHasAccessLevelZeroAndRefusesWrites) {
  CMsgStore* pStore = MakeStore(FALSE, true, MAPI_ACCESS_READ);
  ASSERT_NE(pStore, nullptr);
  SizedSPropTagArray(1, tags) = {1, {PR_ACCESS_LEVEL}};
  ULONG cValues = 0;
  LPSPropValue pProps = NULL;
  ASSERT_EQ(pStore->GetProps((LPSPropTagArray)&tags, 0, &cValues, &pProps), S_OK);
  ASSERT_EQ(cValues, 1u);
  EXPECT_EQ(pProps[0].Value.l, 0);
  MAPIFreeBuffer(pProps);

  SPropValue spv = {};
  spv.ulPropTag = PR_COMMENT;
  spv.Value.lpszA = const_cast<LPSTR>("x");
  EXPECT_EQ(pStore->SetProps(1, &spv, NULL), MAPI_E_NO_ACCESS);
  EXPECT_TRUE(Logged("CMsgStore::SetProps: Cannot set properties in a READ only object"));
  ULONG ulType = 0;
  LPUNKNOWN pUnk = NULL;
  EXPECT_EQ(pStore->OpenEntry(0, NULL, NULL, MAPI_MODIFY, &ulType, &pUnk), MAPI_E_NO_ACCESS);
  EXPECT_EQ(pUnk, nullptr);
  PRIVATE_EID eidFolder = TestEid(MAPI_FOLDER, 3);
  EXPECT_EQ(pStore->SetReceiveFolder(const_cast<LPSTR>("IPM.Note"), 0, CB_PRIVATE_EID, AsEntryID(eidFolder)),
            MAPI_E_NO_ACCESS);
}

TEST_F(MsgStoreTest, SettingNameAndCommentWritesTheProfileOnceAndBothFileStrings) {
  CMsgStore* pStore = MakeStore();
  ASSERT_NE(pStore, nullptr);
  zt4test::SinkRecorder* pSink = new zt4test::SinkRecorder;
  ULONG ulConnection = 0;
  ASSERT_EQ(pStore->Advise(0, NULL, fnevObjectModified, pSink, &ulConnection), S_OK);

  SPropValue aProps[2] = {};
  aProps[0].ulPropTag = PR_DISPLAY_NAME;
  aProps[0].Value.lpszA = const_cast<LPSTR>("Renamed Store");
  aProps[1].ulPropTag = PR_COMMENT;
  aProps[1].Value.lpszA = const_cast<LPSTR>("New Comment");
  LPSPropProblemArray pProblems = NULL;
  EXPECT_EQ(pStore->SetProps(2, aProps, &pProblems), S_OK);
  EXPECT_EQ(pProblems, nullptr);

  EXPECT_EQ(m_pFake->cOpenProfileSection, 1);
  EXPECT_EQ(m_pFake->ulLastProfileFlags, static_cast<ULONG>(MAPI_MODIFY));
  ASSERT_NE(m_pFake->Section(), nullptr);
  EXPECT_EQ(m_pFake->Section()->cSetProps, 1);
  ASSERT_EQ(m_pFake->Section()->setTags.size(), 1u);
  EXPECT_EQ(m_pFake->Section()->setTags[0], static_cast<ULONG>(PR_DISPLAY_NAME));
  EXPECT_EQ(HeaderStrings(), std::make_pair(std::string("Renamed Store"), std::string("New Comment")));

  SizedSPropTagArray(2, tags) = {2, {PR_DISPLAY_NAME, PR_COMMENT}};
  ULONG cValues = 0;
  LPSPropValue pProps = NULL;
  ASSERT_EQ(pStore->GetProps((LPSPropTagArray)&tags, 0, &cValues, &pProps), S_OK);
  EXPECT_STREQ(pProps[0].Value.lpszA, "Renamed Store");
  EXPECT_STREQ(pProps[1].Value.lpszA, "New Comment");
  MAPIFreeBuffer(pProps);

  // One object-modified notification on the store, to its store-wide subscriber.
  EXPECT_EQ(pSink->Events(), std::vector<ULONG>{fnevObjectModified});
  EXPECT_EQ(pSink->ObjTypes(), std::vector<ULONG>{MAPI_STORE});
  EXPECT_EQ(pStore->Unadvise(ulConnection), S_OK);
  pSink->Release();
}

TEST_F(MsgStoreTest, ProfileFailureDoesNotFailTheProperty) {
  CMsgStore* pStore = MakeStore();
  ASSERT_NE(pStore, nullptr);
  m_pFake->hrOpenProfileSection = MAPI_E_NOT_FOUND;
  SPropValue spv = {};
  spv.ulPropTag = PR_COMMENT;
  spv.Value.lpszA = const_cast<LPSTR>("Still Set");
  LPSPropProblemArray pProblems = NULL;
  EXPECT_EQ(pStore->SetProps(1, &spv, &pProblems), S_OK);
  EXPECT_EQ(pProblems, nullptr);
  EXPECT_TRUE(Logged("CMsgStore::SetProps: Failed to set NAME/COMMENT in the profile section"));
  EXPECT_EQ(HeaderStrings().second, "Still Set");
}

TEST_F(MsgStoreTest, UnknownAndComputedTagsBecomeProblems) {
  CMsgStore* pStore = MakeStore();
  ASSERT_NE(pStore, nullptr);
  PRIVATE_EID eid = TestEid(MAPI_FOLDER, 9);
  SPropValue aProps[4] = {};
  aProps[0].ulPropTag = PR_SUBJECT;
  aProps[0].Value.lpszA = const_cast<LPSTR>("x");
  aProps[1].ulPropTag = PR_IPM_SUBTREE_ENTRYID;
  aProps[1].Value.bin.cb = CB_PRIVATE_EID;
  aProps[1].Value.bin.lpb = reinterpret_cast<LPBYTE>(&eid);
  aProps[2].ulPropTag = PR_VIEWS_ENTRYID;
  aProps[2].Value.bin = aProps[1].Value.bin;
  aProps[3].ulPropTag = CHANGE_PROP_TYPE(PR_SUBJECT, PT_ERROR);  // skipped
  LPSPropProblemArray pProblems = NULL;
  EXPECT_EQ(pStore->SetProps(4, aProps, &pProblems), S_OK);
  ASSERT_NE(pProblems, nullptr);
  ASSERT_EQ(pProblems->cProblem, 3u);
  EXPECT_EQ(pProblems->aProblem[0].ulIndex, 0u);
  EXPECT_EQ(pProblems->aProblem[0].scode, MAPI_E_NO_SUPPORT);
  EXPECT_EQ(pProblems->aProblem[1].ulPropTag, static_cast<ULONG>(PR_IPM_SUBTREE_ENTRYID));
  EXPECT_EQ(pProblems->aProblem[1].scode, MAPI_E_COMPUTED);
  EXPECT_EQ(pProblems->aProblem[2].scode, MAPI_E_NO_SUPPORT);
  MAPIFreeBuffer(pProblems);
  // Nothing changed: no profile write, no notification.
  EXPECT_EQ(m_pFake->cOpenProfileSection, 0);
  // Without a problem array the codes are dropped and the call succeeds.
  EXPECT_EQ(pStore->SetProps(1, aProps, NULL), S_OK);
  EXPECT_EQ(pStore->SetProps(1, NULL, NULL), E_INVALIDARG);
}

TEST_F(MsgStoreTest, OpenEntryRejectsWhatIsNotAFolderOfThisStore) {
  CMsgStore* pStore = MakeStore();
  ASSERT_NE(pStore, nullptr);
  ULONG ulType = 99;
  LPUNKNOWN pUnk = reinterpret_cast<LPUNKNOWN>(1);

  PRIVATE_EID eidType7 = TestEid(7, 10);
  EXPECT_EQ(pStore->OpenEntry(CB_PRIVATE_EID, AsEntryID(eidType7), NULL, 0, &ulType, &pUnk), MAPI_E_NOT_FOUND);
  EXPECT_EQ(pUnk, nullptr);
  EXPECT_EQ(ulType, 0u);
  EXPECT_TRUE(Logged("Invalid Object type:7"));

  MAPIUID otherUID = zt4test::TestStoreUID();
  otherUID.ab[0] ^= 0xFF;
  PRIVATE_EID eidOther = TestEid(MAPI_FOLDER, 3, otherUID);
  EXPECT_EQ(pStore->OpenEntry(CB_PRIVATE_EID, AsEntryID(eidOther), NULL, 0, &ulType, &pUnk), MAPI_E_INVALID_ENTRYID);
  EXPECT_TRUE(Logged("Invalid EntryID"));
  PRIVATE_EID eidBadType = TestEid(2, 3);
  EXPECT_EQ(pStore->OpenEntry(CB_PRIVATE_EID, AsEntryID(eidBadType), NULL, 0, &ulType, &pUnk),
            MAPI_E_INVALID_ENTRYID);
  BYTE abShort[6] = {0, 0, 0, 0, 0x50, 0x51};
  EXPECT_EQ(pStore->OpenEntry(sizeof(abShort), reinterpret_cast<LPENTRYID>(abShort), NULL, 0, &ulType, &pUnk),
            MAPI_E_INVALID_ENTRYID);
  EXPECT_EQ(pStore->OpenEntry(CB_PRIVATE_EID, NULL, NULL, 0, &ulType, &pUnk), MAPI_E_INVALID_ENTRYID);
  EXPECT_EQ(pStore->OpenEntry(0, NULL, NULL, 0, NULL, &pUnk), E_INVALIDARG);

  // Message objects don't exist yet: a message entry ID is refused without a crash.
  PRIVATE_EID eidMessage = TestEid(MAPI_MESSAGE, 20);
  EXPECT_EQ(pStore->OpenEntry(CB_PRIVATE_EID, AsEntryID(eidMessage), NULL, 0, &ulType, &pUnk), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(pStore->GetLastErrorCode(), MAPI_E_NO_SUPPORT);
}

TEST_F(MsgStoreTest, OpenEntryWithoutAnIDOpensTheRootFolder) {
  PRIVATE_EID eidSubtree;
  ASSERT_EQ(m_pBE->CreateSpecialFolders(&eidSubtree), S_OK);
  CMsgStore* pStore = MakeStore();
  ASSERT_NE(pStore, nullptr);
  ULONG ulType = 0;
  LPUNKNOWN pUnk = NULL;
  HRESULT hr = pStore->OpenEntry(0, NULL, NULL, MAPI_BEST_ACCESS, &ulType, &pUnk);
  ASSERT_EQ(hr, S_OK) << std::hex << hr;
  EXPECT_EQ(ulType, static_cast<ULONG>(MAPI_FOLDER));
  ASSERT_NE(pUnk, nullptr);
  CMAPIFolder* pFolder = static_cast<CMAPIFolder*>(static_cast<IMAPIFolder*>(pUnk));
  EXPECT_EQ(pFolder->GetObjectEID().dwObjID, FOLDER_ID_ROOT);
  EXPECT_EQ(pFolder->m_lAccess, 0x3Au | MAPI_ACCESS_MODIFY | MAPI_ACCESS_DELETE);
  pUnk->Release();
}

TEST_F(MsgStoreTest, MessageClassValidity) {
  EXPECT_TRUE(CMsgStore::IsValidMsgClass(NULL));
  EXPECT_TRUE(CMsgStore::IsValidMsgClass(""));
  EXPECT_TRUE(CMsgStore::IsValidMsgClass("IPM.Note"));
  EXPECT_TRUE(CMsgStore::IsValidMsgClass("IPM"));
  EXPECT_FALSE(CMsgStore::IsValidMsgClass("IPM..Note"));
  EXPECT_FALSE(CMsgStore::IsValidMsgClass(".IPM"));
  EXPECT_FALSE(CMsgStore::IsValidMsgClass("IPM."));
  EXPECT_FALSE(CMsgStore::IsValidMsgClass("IPM\tNote"));
  EXPECT_FALSE(CMsgStore::IsValidMsgClass("IPM.\x7F"));
  EXPECT_FALSE(CMsgStore::IsValidMsgClass("IPM.\xC3\xA9"));
  EXPECT_TRUE(CMsgStore::IsValidMsgClass(std::string(255, 'A').c_str()));
  EXPECT_FALSE(CMsgStore::IsValidMsgClass(std::string(256, 'A').c_str()));
}

TEST_F(MsgStoreTest, StoreLogoffKeepsFlagsForTheTransportsAtTheEnd) {
  CMsgStore* pStore = MakeStore();
  ASSERT_NE(pStore, nullptr);
  ULONG ulFlags = LOGOFF_ORDERLY;
  EXPECT_EQ(pStore->StoreLogoff(&ulFlags), S_OK);
  EXPECT_EQ(ulFlags, 65536u);
  EXPECT_EQ(pStore->StoreLogoff(NULL), E_INVALIDARG);
  EXPECT_TRUE(m_pFake->logoffFlags.empty());
  size_t cSubs = m_pFake->Subscriptions().size();
  ASSERT_EQ(cSubs, 1u);  // the inter-context subscription
  m_stores.clear();
  EXPECT_EQ(pStore->Release(), 0u);
  ASSERT_EQ(m_pFake->logoffFlags.size(), 1u);
  EXPECT_EQ(m_pFake->logoffFlags[0], static_cast<ULONG>(LOGOFF_ORDERLY));
  EXPECT_TRUE(m_pFake->Subscriptions().empty());
  EXPECT_FALSE(Logged("A support object has been leaked!"));
  EXPECT_FALSE(Logged("The notification object list is not empty!"));
}

TEST_F(MsgStoreTest, InterfacesAndRefusals) {
  CMsgStore* pStore = MakeStore();
  ASSERT_NE(pStore, nullptr);
  LPVOID pv = NULL;
  EXPECT_EQ(pStore->QueryInterface(IID_IMsgStore, &pv), S_OK);
  EXPECT_EQ(pv, static_cast<IMsgStore*>(pStore));
  static_cast<IUnknown*>(pv)->Release();
  EXPECT_EQ(pStore->QueryInterface(IID_IMAPIProp, &pv), S_OK);
  static_cast<IUnknown*>(pv)->Release();
  EXPECT_EQ(pStore->QueryInterface(IID_IMAPIFolder, &pv), E_NOINTERFACE);
  EXPECT_EQ(pv, nullptr);

  LPUNKNOWN pUnk = NULL;
  EXPECT_EQ(pStore->OpenProperty(PR_SUBJECT, &IID_IStream, 0, 0, &pUnk), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(pStore->DeleteProps(NULL, NULL), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(pStore->CopyTo(0, NULL, NULL, 0, NULL, NULL, NULL, 0, NULL), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(pStore->CopyProps(NULL, 0, NULL, NULL, NULL, 0, NULL), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(pStore->AbortSubmit(0, NULL, 0), MAPI_E_NO_SUPPORT);
  EXPECT_TRUE(Logged("CMsgStore::AbortSubmit:80040102"));
  EXPECT_EQ(pStore->GetLastErrorCode(), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(pStore->SaveChanges(0), S_OK);
}

TEST_F(MsgStoreTest, CompareEntryIDsChecksSizes) {
  CMsgStore* pStore = MakeStore();
  ASSERT_NE(pStore, nullptr);
  PRIVATE_EID a = TestEid(MAPI_FOLDER, 5), b = TestEid(MAPI_FOLDER, 5), c = TestEid(MAPI_FOLDER, 6);
  b.abFlags[0] = 1;  // flags don't count
  ULONG ulResult = 7;
  EXPECT_EQ(pStore->CompareEntryIDs(CB_PRIVATE_EID, AsEntryID(a), CB_PRIVATE_EID, AsEntryID(b), 0, &ulResult), S_OK);
  EXPECT_EQ(ulResult, 1u);
  EXPECT_EQ(pStore->CompareEntryIDs(CB_PRIVATE_EID, AsEntryID(a), CB_PRIVATE_EID, AsEntryID(c), 0, &ulResult), S_OK);
  EXPECT_EQ(ulResult, 0u);
  ulResult = 7;
  EXPECT_EQ(pStore->CompareEntryIDs(131, AsEntryID(a), CB_PRIVATE_EID, AsEntryID(b), 0, &ulResult),
            MAPI_E_INVALID_ENTRYID);
  EXPECT_EQ(ulResult, 0u);
}

}  // namespace
