// Object create, open and delete: validation, subfolder names, counts and folder emptying.
#include "ZT4FileStg_hierarchy_util.h"

using namespace betest;

namespace {

class LifecycleTest : public ArchiveBackEndTest {
 protected:
  void SetUp() override {
    ArchiveBackEndTest::SetUp();
    m_dwIPM = Skeleton();
    m_dwInbox = IDs(m_dwIPM, RECFLD_CHILDREN)[DEFAULT_INBOX];
  }
  PRIVATE_EID NewFolder(DWORD dwParent, const char* pszName) {
    PRIVATE_EID eid;
    CPropList* pList = NULL;
    EXPECT_EQ(m_pBE->CreateObject(Folder(dwParent), &eid, &pList, MAPI_FOLDER, pszName, "c", NULL), S_OK) << pszName;
    delete pList;
    return eid;
  }
  // A stored message entered in the folder's contents (or associated) list.
  PRIVATE_EID NewMessage(DWORD dwFolder, BOOL fRead, BOOL fAssociated = FALSE) {
    DWORD dwID = 0;
    EXPECT_EQ(m_pDB->CreateEmptyRecord(&dwID), S_OK);
    PRIVATE_EID eid = Eid(MAPI_MESSAGE, dwID);
    CPropList list;
    SPropValue flags;
    memset(&flags, 0, sizeof(flags));
    flags.ulPropTag = PR_MESSAGE_FLAGS;
    flags.Value.l = fRead ? MSGFLAG_READ : 0;
    EXPECT_EQ(list.Insert(&flags), S_OK);
    EXPECT_EQ(m_pBE->SaveObject(eid, &list), S_OK);
    EXPECT_EQ(m_pBE->UpdateContentCount(Folder(dwFolder), eid, fAssociated, !fRead && !fAssociated), S_OK);
    return eid;
  }
  ULONG NameCount(DWORD dwParent) {
    Bytes names = Field(dwParent, RECFLD_NAMES);
    DWORD c = 0;
    if (names.size() >= 4) memcpy(&c, names.data(), 4);
    return c;
  }

  DWORD m_dwIPM = 0, m_dwInbox = 0;
};

TEST_F(LifecycleTest, CreateObjectRefusesBadTypesAndParentsInThatOrder) {
  PRIVATE_EID eid;
  CPropList* pList = NULL;
  PRIVATE_EID bad = Folder(m_dwInbox);
  bad.bVersion = 2;
  EXPECT_EQ(m_pBE->CreateObject(bad, &eid, &pList, MAPI_STORE, "x", NULL, NULL), MAPI_E_NO_SUPPORT);
  EXPECT_TRUE(Logged("CFileBackEnd::CreateObject: Invalid object to create\r\n"));
  EXPECT_EQ(m_pBE->CreateObject(bad, &eid, &pList, MAPI_FOLDER, "x", NULL, NULL), MAPI_E_INVALID_ENTRYID);
  EXPECT_TRUE(Logged("CFileBackEnd::CreateObject: Invalid parent entry ID\r\n"));
  // Messages and attachments need the message property mapping.
  EXPECT_EQ(m_pBE->CreateObject(Folder(m_dwInbox), &eid, &pList, MAPI_MESSAGE, NULL, NULL, NULL), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(m_pBE->CreateObject(Folder(m_dwInbox), NULL, &pList, MAPI_FOLDER, "x", NULL, NULL),
            MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(m_pBE->CreateObject(Folder(m_dwInbox), &eid, &pList, MAPI_FOLDER, NULL, NULL, NULL),
            MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(m_pBE->CreateObject(Folder(m_dwInbox), &eid, &pList, MAPI_FOLDER, "", NULL, NULL),
            MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(m_pBE->CreateObject(Folder(m_dwInbox), &eid, &pList, MAPI_FOLDER, std::string(300, 'n').c_str(), NULL,
                                NULL),
            MAPI_E_INVALID_PARAMETER);
  // A parent that doesn't exist gets no child and no name.
  EXPECT_EQ(m_pBE->CreateObject(Folder(5000), &eid, &pList, MAPI_FOLDER, "x", NULL, NULL), MAPI_E_NOT_FOUND);
  EXPECT_FALSE(FieldExists(5000, RECFLD_NAMES));
  EXPECT_EQ(pList, nullptr);
  EXPECT_EQ(ChildNames(m_dwInbox), std::vector<WString>());
}

TEST_F(LifecycleTest, CollisionLeavesTheNewRecordUnusedAndNamesAreCaseSensitive) {
  PRIVATE_EID first = NewFolder(m_dwInbox, "Projects");
  PRIVATE_EID second;
  CPropList* pList = NULL;
  EXPECT_EQ(m_pBE->CreateObject(Folder(m_dwInbox), &second, &pList, MAPI_FOLDER, "Projects", NULL, NULL),
            MAPI_E_COLLISION);
  EXPECT_EQ(pList, nullptr);
  EXPECT_NE(second.dwObjID, first.dwObjID);
  EXPECT_FALSE(FieldExists(second.dwObjID, RECFLD_PROPERTIES));
  EXPECT_EQ(IDs(m_dwInbox, RECFLD_CHILDREN), std::vector<DWORD>{first.dwObjID});
  EXPECT_EQ(NameCount(m_dwInbox), 1u);
  EXPECT_FALSE(Logged("CFileBackEnd::CreateObject:80040604"));

  DWORD dwID = 0;
  EXPECT_EQ(m_pBE->CheckFldNameCollision(m_dwInbox, W("Projects").c_str(), &dwID, FLDNAME_CHECK), MAPI_E_COLLISION);
  EXPECT_EQ(dwID, first.dwObjID);
  dwID = 0;
  EXPECT_EQ(m_pBE->CheckFldNameCollision(m_dwInbox, W("projects").c_str(), &dwID, FLDNAME_CHECK), S_OK);
  EXPECT_EQ(NameCount(m_dwInbox), 1u);  // a check adds nothing
  NewFolder(m_dwInbox, "projects");
  EXPECT_EQ(ChildNames(m_dwInbox), (std::vector<WString>{W("Projects"), W("projects")}));
  // The stored form: count, then ID, byte length and UTF-16 name.
  Bytes names = Field(m_dwInbox, RECFLD_NAMES);
  LE expected;
  expected.u32(2).u32(first.dwObjID).u32(16).raw(W("Projects").data(), 16);
  ASSERT_GE(names.size(), expected.get().size());
  EXPECT_EQ(Bytes(names.begin(), names.begin() + expected.get().size()), expected.get());

  EXPECT_EQ(m_pBE->CheckFldNameCollision(m_dwInbox, NULL, &dwID, FLDNAME_CHECK), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(m_pBE->CheckFldNameCollision(m_dwInbox, W("x").c_str(), NULL, FLDNAME_CHECK), MAPI_E_INVALID_PARAMETER);
  // A name length past the end of the stream is damage, not a read beyond it.
  PutField(IDs(m_dwIPM, RECFLD_CHILDREN)[DEFAULT_OUTBOX], RECFLD_NAMES, LE().u32(1).u32(9).u32(400).get());
  EXPECT_EQ(m_pBE->CheckFldNameCollision(IDs(m_dwIPM, RECFLD_CHILDREN)[DEFAULT_OUTBOX], W("x").c_str(), &dwID, FLDNAME_ADD), MAPI_E_CORRUPT_DATA);
}

TEST_F(LifecycleTest, RenameDropsTheOldEntryAndKeepsTheCount) {
  PRIVATE_EID a = NewFolder(m_dwInbox, "A");
  PRIVATE_EID b = NewFolder(m_dwInbox, "B");
  EXPECT_EQ(m_pBE->SetObjNameInContainer("A", Folder(m_dwInbox), a), S_OK);  // its own name
  EXPECT_EQ(m_pBE->SetObjNameInContainer("B", Folder(m_dwInbox), a), MAPI_E_COLLISION);
  EXPECT_EQ(m_pBE->SetObjNameInContainer("C", Folder(m_dwInbox), a), S_OK);
  DWORD dwID = 0;
  EXPECT_EQ(m_pBE->CheckFldNameCollision(m_dwInbox, W("A").c_str(), &dwID, FLDNAME_CHECK), S_OK);
  EXPECT_EQ(m_pBE->CheckFldNameCollision(m_dwInbox, W("B").c_str(), &dwID, FLDNAME_CHECK), MAPI_E_COLLISION);
  EXPECT_EQ(dwID, b.dwObjID);
  // The count word stays at 2 with one entry left; the walk copes and an add goes behind it.
  EXPECT_EQ(NameCount(m_dwInbox), 2u);
  NewFolder(m_dwInbox, "C");
  EXPECT_EQ(NameCount(m_dwInbox), 3u);
  EXPECT_EQ(m_pBE->SetObjNameInContainer(NULL, Folder(m_dwInbox), a), MAPI_E_INVALID_PARAMETER);
}

TEST_F(LifecycleTest, DeletingTheLastSubfolderClearsTheFlagAndFreesItsName) {
  PRIVATE_EID a = NewFolder(m_dwInbox, "A");
  EXPECT_EQ(LongValue(*Load(m_dwInbox), PR_SUBFOLDERS) & 0xFFFF, 1);
  EXPECT_EQ(m_pBE->DeleteOneObject(&a, Folder(m_dwInbox)), S_OK);
  EXPECT_EQ(LongValue(*Load(m_dwInbox), PR_SUBFOLDERS) & 0xFFFF, 0);
  EXPECT_FALSE(FieldExists(a.dwObjID, RECFLD_PROPERTIES));
  EXPECT_TRUE(IDs(m_dwInbox, RECFLD_CHILDREN).empty());
  EXPECT_EQ(NameCount(m_dwInbox), 0u);
  NewFolder(m_dwInbox, "A");  // the name is free again

  // Type 0 is a bare record; unknown types are refused; a missing record is quiet.
  PutField(6000, RECFLD_PROPERTIES, LE().u32(0).get());
  PRIVATE_EID bare = Eid(0, 6000);
  EXPECT_EQ(m_pBE->DeleteOneObject(&bare, Folder(m_dwInbox)), S_OK);
  EXPECT_FALSE(FieldExists(6000, RECFLD_PROPERTIES));
  EXPECT_EQ(m_pBE->DeleteOneObject(&bare, Folder(m_dwInbox)), MAPI_E_NOT_FOUND);
  EXPECT_FALSE(Logged("CFileBackEnd::DeleteOneObject:8004010f"));
  PRIVATE_EID odd = Eid(9, 6000);
  EXPECT_EQ(m_pBE->DeleteOneObject(&odd, Folder(m_dwInbox)), E_FAIL);
  EXPECT_EQ(m_pBE->DeleteOneObject(NULL, Folder(m_dwInbox)), MAPI_E_INVALID_PARAMETER);
  // A message goes with its attachments and recipients.
  PRIVATE_EID msg = NewMessage(m_dwInbox, TRUE);
  PutField(6100, RECFLD_PROPERTIES, LE().u32(0).get());
  PutField(6200, RECFLD_PROPERTIES, LE().u32(0).get());
  PutField(msg.dwObjID, RECFLD_CONTENTS, LE().u32(1).u32(6100).get());
  PutField(msg.dwObjID, RECFLD_CHILDREN, LE().u32(1).u32(6200).get());
  EXPECT_EQ(m_pBE->DeleteOneObject(&msg, Folder(m_dwInbox)), S_OK);
  EXPECT_FALSE(FieldExists(6100, RECFLD_PROPERTIES));
  EXPECT_FALSE(FieldExists(6200, RECFLD_PROPERTIES));
  EXPECT_FALSE(FieldExists(msg.dwObjID, RECFLD_PROPERTIES));
}

TEST_F(LifecycleTest, OpenObjectLogsEveryResult) {
  CPropList* pList = NULL;
  EXPECT_EQ(m_pBE->OpenObject(Folder(m_dwInbox), &pList), S_OK);
  ASSERT_NE(pList, nullptr);
  delete pList;
  EXPECT_TRUE(Logged("CFileBackEnd::OpenObject:0\r\n"));
  EXPECT_EQ(m_pBE->OpenObject(Folder(7777), &pList), MAPI_E_NOT_FOUND);
  EXPECT_EQ(pList, nullptr);
  EXPECT_TRUE(Logged("CFileBackEnd::OpenObject:8004010f\r\n"));
  EXPECT_EQ(m_pBE->OpenObject(Folder(m_dwInbox), NULL), MAPI_E_INVALID_PARAMETER);
}

TEST_F(LifecycleTest, ContentCountsFollowTheLists) {
  PRIVATE_EID read = NewMessage(m_dwInbox, TRUE);
  PRIVATE_EID unread = NewMessage(m_dwInbox, FALSE);
  PRIVATE_EID assoc = NewMessage(m_dwInbox, TRUE, TRUE);
  auto inbox = Load(m_dwInbox);
  EXPECT_EQ(LongValue(*inbox, PR_CONTENT_COUNT), 2);
  EXPECT_EQ(LongValue(*inbox, PR_CONTENT_UNREAD), 1);
  EXPECT_EQ(LongValue(*inbox, PR_ASSOC_CONTENT_COUNT), 1);
  EXPECT_EQ(IDs(m_dwInbox, RECFLD_CONTENTS), (std::vector<DWORD>{read.dwObjID, unread.dwObjID}));
  EXPECT_EQ(IDs(m_dwInbox, RECFLD_ASSOCIATED), std::vector<DWORD>{assoc.dwObjID});
}

TEST_F(LifecycleTest, EmptyingFromAListSkipsABadEntryWithPartialCompletion) {
  PRIVATE_EID read = NewMessage(m_dwInbox, TRUE);
  PRIVATE_EID unread = NewMessage(m_dwInbox, FALSE);
  PRIVATE_EID assoc = NewMessage(m_dwInbox, TRUE, TRUE);
  SBinary bins[3] = {{CB_PRIVATE_EID, reinterpret_cast<LPBYTE>(&unread)},
                     {100, reinterpret_cast<LPBYTE>(&read)},
                     {CB_PRIVATE_EID, reinterpret_cast<LPBYTE>(&assoc)}};
  ENTRYLIST list = {3, bins};
  DELETE_OBJECTS_DATA data;
  memset(&data, 0, sizeof(data));
  data.lpEntryList = &list;
  data.ulFlags = DEL_FROM_LIST;
  EXPECT_EQ(m_pBE->DeleteFolderContents(Folder(m_dwInbox), &data), MAPI_W_PARTIAL_COMPLETION);
  EXPECT_EQ(data.cObjects, 2u);
  FreeDeleteObjectsData(&data);
  EXPECT_EQ(data.pObjects, nullptr);
  EXPECT_FALSE(FieldExists(unread.dwObjID, RECFLD_PROPERTIES));
  EXPECT_TRUE(FieldExists(read.dwObjID, RECFLD_PROPERTIES));
  EXPECT_FALSE(FieldExists(assoc.dwObjID, RECFLD_PROPERTIES));
  auto inbox = Load(m_dwInbox);
  EXPECT_EQ(LongValue(*inbox, PR_CONTENT_COUNT), 1);
  EXPECT_EQ(LongValue(*inbox, PR_CONTENT_UNREAD), 0);
  // The associated message counted against its own count only.
  EXPECT_EQ(LongValue(*inbox, PR_ASSOC_CONTENT_COUNT), 0);
  EXPECT_EQ(IDs(m_dwInbox, RECFLD_CONTENTS), std::vector<DWORD>{read.dwObjID});

  // No list with DEL_FROM_LIST: DeleteObjects answers with its one code.
  data.lpEntryList = NULL;
  EXPECT_EQ(m_pBE->DeleteObjects(Folder(m_dwInbox), DELOBJ_MESSAGES, 0, &data), DELOBJ_E_FOLDER_CONTENTS);
  EXPECT_TRUE(Logged("CFileBackEnd::DeleteObjects:80070428\r\n"));
  FreeDeleteObjectsData(&data);
  EXPECT_EQ(m_pBE->DeleteObjects(Folder(m_dwInbox), DELOBJ_MESSAGES, 0, NULL), MAPI_E_INVALID_PARAMETER);
}

TEST_F(LifecycleTest, EmptyingAllContentsRecursesAndReportsDeletedFolders) {
  PRIVATE_EID msg = NewMessage(m_dwInbox, FALSE);
  PRIVATE_EID sub = NewFolder(m_dwInbox, "Sub");
  PRIVATE_EID deep = NewFolder(sub.dwObjID, "Deep");
  PRIVATE_EID inner = NewMessage(deep.dwObjID, TRUE);
  DELETE_OBJECTS_DATA data;
  memset(&data, 0, sizeof(data));
  EXPECT_EQ(m_pBE->DeleteObjects(Folder(m_dwInbox), DELOBJ_MESSAGES | DELOBJ_FOLDERS, 0, &data), S_OK);
  for (DWORD dwID : {msg.dwObjID, sub.dwObjID, deep.dwObjID, inner.dwObjID})
    EXPECT_FALSE(FieldExists(dwID, RECFLD_PROPERTIES)) << dwID;
  ASSERT_EQ(data.cNotifications, 2u);
  EXPECT_EQ(data.pNotifications[0].dwObjID, deep.dwObjID);
  EXPECT_EQ(data.pNotifications[1].dwObjID, sub.dwObjID);
  ASSERT_EQ(data.pNotifications[1].cb, CB_PRIVATE_EID);
  EXPECT_EQ(memcmp(data.pNotifications[1].lpb, &sub, CB_PRIVATE_EID), 0);
  FreeDeleteObjectsData(&data);
  EXPECT_EQ(data.pNotifications, nullptr);
  auto inbox = Load(m_dwInbox);
  EXPECT_EQ(LongValue(*inbox, PR_CONTENT_COUNT), 0);
  EXPECT_EQ(LongValue(*inbox, PR_SUBFOLDERS) & 0xFFFF, 0);
  EXPECT_TRUE(IDs(m_dwInbox, RECFLD_CHILDREN).empty());
  NewFolder(m_dwInbox, "Sub");  // its name went with it
}

TEST_F(LifecycleTest, AttachmentDeleteRemovesRecordAndListEntry) {
  PRIVATE_EID msg = NewMessage(m_dwInbox, TRUE);
  PutField(6300, RECFLD_PROPERTIES, LE().u32(0).get());
  PutField(msg.dwObjID, RECFLD_CONTENTS, LE().u32(2).u32(6300).u32(6301).get());
  EXPECT_EQ(m_pBE->DeleteObjects(msg, DELOBJ_ATTACHMENT, 6300, NULL), S_OK);
  EXPECT_FALSE(FieldExists(6300, RECFLD_PROPERTIES));
  EXPECT_EQ(IDs(msg.dwObjID, RECFLD_CONTENTS), std::vector<DWORD>{6301});
  EXPECT_EQ(m_pBE->DeleteMessageAttachment(msg.dwObjID, 6999), MAPI_E_NOT_FOUND);
  EXPECT_EQ(m_pBE->DeleteMessageAttachment(8888, 6300), MAPI_E_NOT_FOUND);
}

}  // namespace
