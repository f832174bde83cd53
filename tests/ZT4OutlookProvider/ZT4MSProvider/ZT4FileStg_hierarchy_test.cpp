// The folder skeleton, the mirror of the server's tree, hierarchy tables and server paths.
#include "ZT4FileStg_hierarchy_util.h"

#include <algorithm>

using namespace betest;

namespace {

const char* kServerTree = R"([provider]
IsLoggedIn = true
[folder Inbox]
[folder Inbox/Projects]
[folder Été]
[folder Été/Sous-dossier]
[folder Archive]
)";

struct Row {
  std::vector<SPropValue> values;
  const SPropValue* Get(ULONG ulPropTag) const {
    for (const SPropValue& v : values)
      if (PROP_ID(v.ulPropTag) == PROP_ID(ulPropTag)) return &v;
    return NULL;
  }
};

class HierarchyTest : public ArchiveBackEndTest {
 protected:
  // The rows of a hierarchy table of the folder, read through a view. Values stay valid while
  // m_rows lives.
  std::vector<Row> HierarchyRows(DWORD dwFolder) {
    std::vector<Row> rows;
    LPTABLEDATA pTable = NULL;
    BYTE abStore[4] = {1, 2, 3, 4};
    SBinary binStore = {sizeof(abStore), abStore};
    EXPECT_EQ(m_pBE->GetTable(TABLE_HIERARCHY, Folder(dwFolder), 0x3F, &binStore, NULL, &pTable), S_OK);
    if (!pTable) return rows;
    LPMAPITABLE pView = NULL;
    EXPECT_EQ(pTable->HrGetView(NULL, NULL, 0, &pView), S_OK);
    LPSRowSet pRows = NULL;
    EXPECT_EQ(pView->QueryRows(100, 0, &pRows), S_OK);
    for (ULONG i = 0; pRows && i < pRows->cRows; ++i) {
      Row row;
      row.values.assign(pRows->aRow[i].lpProps, pRows->aRow[i].lpProps + pRows->aRow[i].cValues);
      rows.push_back(row);
    }
    m_keep.push_back(pRows);
    pView->Release();
    pTable->Release();
    return rows;
  }
  void TearDown() override {
    for (LPSRowSet p : m_keep) FreeProws(p);
    ArchiveBackEndTest::TearDown();
  }
  std::vector<LPSRowSet> m_keep;
};

TEST_F(HierarchyTest, SkeletonHasNineFoldersWithNamesCommentsAndSubfolderFlags) {
  DWORD dwIPM = Skeleton();
  // A new file numbers the skeleton as the store's special-folder entry IDs name it.
  EXPECT_EQ(dwIPM, 1u);
  auto root = Load(ROOT_FOLDER_RECORD);
  ASSERT_TRUE(root);
  EXPECT_EQ(TextValue(*root, PR_DISPLAY_NAME_W), W("D7BAA9E6-FB57-4CB6-A69F-25CF270B96D6"));
  EXPECT_EQ(TextValue(*root, PR_COMMENT_W), W("Store Root Folder"));
  EXPECT_EQ(ChildNames(ROOT_FOLDER_RECORD),
            (std::vector<WString>{W("IPM Subtree"), W("Common Views"), W("Folder Views"), W("Finder")}));
  EXPECT_EQ(IDs(ROOT_FOLDER_RECORD, RECFLD_CHILDREN)[0], dwIPM);
  EXPECT_EQ(ChildNames(dwIPM), DefaultNames());
  // The default folders come right behind the IPM subtree, before the other special folders.
  std::vector<DWORD> defaults = IDs(dwIPM, RECFLD_CHILDREN);
  ASSERT_EQ(defaults.size(), 4u);
  EXPECT_EQ(defaults, (std::vector<DWORD>{2, 3, 4, 5}));
  EXPECT_EQ(IDs(ROOT_FOLDER_RECORD, RECFLD_CHILDREN), (std::vector<DWORD>{1, 6, 7, 8}));
  EXPECT_LT(defaults[3], IDs(ROOT_FOLDER_RECORD, RECFLD_CHILDREN)[1]);

  auto ipm = Load(dwIPM);
  EXPECT_EQ(TextValue(*ipm, PR_COMMENT_W), W("Mail Client IPM Subtree"));
  EXPECT_EQ(LongValue(*ipm, PR_SUBFOLDERS) & 0xFFFF, 1);
  EXPECT_EQ(LongValue(*root, PR_SUBFOLDERS) & 0xFFFF, 1);
  SPropValue web;
  EXPECT_EQ(ipm->Find(PR_FOLDER_WEBVIEWINFO, &web, TRUE), S_OK);
  EXPECT_EQ(web.Value.bin.cb, 0u);
  EXPECT_EQ(TextValue(*ipm, PR_CONTAINER_CLASS_W), W("IPF.Note"));
  EXPECT_EQ(BinaryValue(*ipm, PR_PARENT_ENTRYID).size(), CB_PRIVATE_EID);

  auto inbox = Load(IDs(dwIPM, RECFLD_CHILDREN)[DEFAULT_INBOX]);
  ASSERT_TRUE(inbox);
  EXPECT_EQ(TextValue(*inbox, PR_COMMENT_W), W("Default Receive Folder"));
  EXPECT_EQ(LongValue(*inbox, PR_SUBFOLDERS) & 0xFFFF, 0);
  EXPECT_NE(inbox->Find(PR_FOLDER_WEBVIEWINFO, &web, TRUE), S_OK);
  EXPECT_EQ(inbox->GetCount(), 11u);
  EXPECT_EQ(TextValue(*Load(ChildByName(ROOT_FOLDER_RECORD, "Finder")), PR_COMMENT_W), W("Search Results Folders"));

  EXPECT_TRUE(IsIPMSubtree(m_pBE, Folder(dwIPM)));
  EXPECT_FALSE(IsIPMSubtree(m_pBE, Folder(ROOT_FOLDER_RECORD)));
  EXPECT_FALSE(IsIPMSubtree(m_pBE, Folder(9999)));
  // Paths are relative to the IPM subtree.
  EXPECT_EQ(Path(ROOT_FOLDER_RECORD), WString());
  EXPECT_EQ(Path(dwIPM), WString());
  EXPECT_EQ(Path(IDs(dwIPM, RECFLD_CHILDREN)[DEFAULT_INBOX]), DefaultNames()[DEFAULT_INBOX]);
}

TEST_F(HierarchyTest, ServerTreeIsMirroredAndADefaultNameIsTakenAsTheExistingFolder) {
  Serve(kServerTree);
  DWORD dwIPM = Skeleton();
  ASSERT_EQ(m_pBE->CreateSubFolder(Folder(dwIPM), NULL, 0), S_OK);
  // The default folders carry the names the language module gives (English without one).
  std::vector<WString> expected = DefaultNames();
  ASSERT_NE(std::find(expected.begin(), expected.end(), W("Inbox")), expected.end());
  expected.push_back(W("Été"));
  expected.push_back(W("Archive"));
  EXPECT_EQ(ChildNames(dwIPM), expected);
  EXPECT_TRUE(Logged("CFileBackEnd::CreateSubFolder This folder has been already created:Inbox\r\n"));
  DWORD dwEte = ChildByName(dwIPM, "Été");
  DWORD dwSub = ChildByName(dwEte, "Sous-dossier");
  ASSERT_NE(dwSub, 0u);
  EXPECT_EQ(Path(dwSub), W("Été\\Sous-dossier"));
  EXPECT_EQ(LongValue(*Load(dwEte), PR_SUBFOLDERS) & 0xFFFF, 1);
  // A server folder without children stays a leaf.
  EXPECT_EQ(LongValue(*Load(ChildByName(dwIPM, "Archive")), PR_SUBFOLDERS) & 0xFFFF, 0);
  // The collision doesn't descend: Inbox's server children wait for its parent's table.
  DWORD dwInbox = ChildByName(dwIPM, "Inbox");
  EXPECT_TRUE(IDs(dwInbox, RECFLD_CHILDREN).empty());
  HierarchyRows(dwIPM);
  EXPECT_EQ(ChildNames(dwInbox), std::vector<WString>{W("Projects")});
  EXPECT_EQ(Path(ChildByName(dwInbox, "Projects")), W("Inbox\\Projects"));
}

// 100-byte entries, sorted, as a binary search needs them.
std::vector<BYTE> ExclusionTable(const std::vector<std::string>& names) {
  std::vector<BYTE> table(names.size() * EXCLUDED_NAME_STRIDE, 0);
  for (size_t i = 0; i < names.size(); ++i) memcpy(&table[i * EXCLUDED_NAME_STRIDE], names[i].c_str(), names[i].size());
  return table;
}

TEST_F(HierarchyTest, ExclusionTableIsSearchedInHundredByteStridesBeforeTheCollision) {
  Serve(kServerTree);
  DWORD dwIPM = Skeleton();
  std::vector<BYTE> table = ExclusionTable({"Archive", "Inbox", "Zeta"});
  ASSERT_EQ(m_pBE->CreateSubFolder(Folder(dwIPM), table.data(), 3), S_OK);
  EXPECT_EQ(ChildByName(dwIPM, "Archive"), 0u);
  EXPECT_NE(ChildByName(dwIPM, "Été"), 0u);
  // Found in the table, so never offered to CreateObject: no collision is logged for it.
  EXPECT_FALSE(Logged("This folder has been already created:Inbox"));

  // A table of pointers (the logon's) holds no names at the strides: nothing is excluded.
  const char* apsz[4] = {"Archive", "Inbox", "Outbox", "Zeta"};
  std::vector<BYTE> pointers(sizeof(apsz) + 4 * EXCLUDED_NAME_STRIDE, 0);
  memcpy(pointers.data(), apsz, sizeof(apsz));
  ASSERT_EQ(m_pBE->CreateSubFolder(Folder(dwIPM), pointers.data(), 4), S_OK);
  EXPECT_NE(ChildByName(dwIPM, "Archive"), 0u);
  EXPECT_TRUE(Logged("This folder has been already created:Inbox\r\n"));
}

TEST_F(HierarchyTest, HierarchyRowsHaveTwentyTwoValuesAndGrowFromTheServer) {
  Serve(kServerTree);
  DWORD dwIPM = Skeleton();
  std::vector<Row> rows = HierarchyRows(dwIPM);
  ASSERT_EQ(rows.size(), 4u);
  DWORD dwInbox = ChildByName(dwIPM, "Inbox");
  ASSERT_NE(dwInbox, 0u);
  const Row* pInbox = NULL;
  for (const Row& row : rows) {
    EXPECT_EQ(row.values.size(), HIERARCHY_COLUMNS);
    const SPropValue* pKey = row.Get(PR_INSTANCE_KEY);
    ASSERT_TRUE(pKey);
    ASSERT_EQ(pKey->Value.bin.cb, 4u);
    DWORD dwKey;
    memcpy(&dwKey, pKey->Value.bin.lpb, 4);
    if (dwKey == dwInbox) pInbox = &row;
  }
  ASSERT_TRUE(pInbox);
  EXPECT_EQ(WString(pInbox->Get(PR_DISPLAY_NAME_W)->Value.lpszW), W("Inbox"));
  EXPECT_EQ(pInbox->Get(PR_DEPTH)->Value.l, 1);
  EXPECT_EQ(pInbox->Get(PR_FOLDER_TYPE)->Value.l, 1);
  EXPECT_EQ(pInbox->Get(PR_OBJECT_TYPE)->Value.l, MAPI_FOLDER);
  EXPECT_EQ(pInbox->Get(PR_DISPLAY_TYPE)->Value.l, 0x01000000);
  EXPECT_EQ(pInbox->Get(PR_ACCESS)->Value.l, 0x3F);
  EXPECT_EQ(pInbox->Get(PR_STORE_ENTRYID)->Value.bin.cb, 4u);
  EXPECT_EQ(pInbox->Get(PR_ENTRYID)->Value.bin.cb, CB_PRIVATE_EID);
  PRIVATE_EID eid;
  memcpy(&eid, pInbox->Get(PR_ENTRYID)->Value.bin.lpb, CB_PRIVATE_EID);
  EXPECT_EQ(eid.dwObjID, dwInbox);
  EXPECT_EQ(pInbox->Get(PR_STORE_RECORD_KEY)->Value.bin.cb, 16u);
  // Not in a folder's list: an error value keeps its column.
  EXPECT_EQ(PROP_TYPE(pInbox->Get(PR_DEFAULT_VIEW_ENTRYID)->ulPropTag), PT_ERROR);
  // Inbox's server child appeared one level below, and Inbox says so.
  EXPECT_EQ(pInbox->Get(PR_SUBFOLDERS)->Value.b, 1);

  // A folder added on the server shows in the next table of its parent.
  Serve(std::string(kServerTree) + "[folder Neu]\n[folder Neu/Tief]\n");
  EXPECT_EQ(HierarchyRows(dwIPM).size(), 4u);  // Neu lands below IPM only when IPM's parent fills
  EXPECT_EQ(HierarchyRows(ROOT_FOLDER_RECORD).size(), 4u);
  EXPECT_NE(ChildByName(dwIPM, "Neu"), 0u);
  EXPECT_EQ(HierarchyRows(dwIPM).size(), 7u);  // defaults, Été, Archive, Neu
  // A leaf's table is empty; an unknown table type is refused.
  EXPECT_TRUE(HierarchyRows(ChildByName(dwIPM, "Archive")).empty());
  LPTABLEDATA pTable = NULL;
  EXPECT_EQ(m_pBE->GetTable(TABLE_CONTENTS, Folder(dwIPM), 0, NULL, NULL, &pTable), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(m_pBE->FillHierarchyTable(Folder(dwIPM), NULL, 0, NULL), MAPI_E_INVALID_PARAMETER);
}

TEST_F(HierarchyTest, CorruptParentChainsEndWithAnError) {
  DWORD dwIPM = Skeleton();
  PRIVATE_EID a;
  CPropList* pList = NULL;
  ASSERT_EQ(m_pBE->CreateObject(Folder(dwIPM), &a, &pList, MAPI_FOLDER, "A", NULL, NULL), S_OK);
  std::unique_ptr<CPropList> list(pList);
  PRIVATE_EID b;
  ASSERT_EQ(m_pBE->CreateObject(a, &b, &pList, MAPI_FOLDER, "B", NULL, NULL), S_OK);
  std::unique_ptr<CPropList> listB(pList);
  EXPECT_EQ(Path(b.dwObjID), W("A\\B"));

  // A's parent is B, B's is A: a loop.
  SPropValue parent;
  memset(&parent, 0, sizeof(parent));
  parent.ulPropTag = PR_PARENT_ENTRYID;
  parent.Value.bin.cb = CB_PRIVATE_EID;
  parent.Value.bin.lpb = reinterpret_cast<LPBYTE>(&b);
  ASSERT_EQ(list->Insert(&parent), S_OK);
  ASSERT_EQ(m_pBE->SaveObject(Folder(dwIPM), a, list.get(), NULL, NULL), S_OK);
  EXPECT_EQ(Path(b.dwObjID, MAPI_E_CORRUPT_DATA), WString());
  EXPECT_TRUE(Logged("does not end"));

  // A parent ID of the wrong size, and a folder that doesn't exist.
  parent.Value.bin.cb = 100;
  ASSERT_EQ(list->Insert(&parent), S_OK);
  ASSERT_EQ(m_pBE->SaveObject(Folder(dwIPM), a, list.get(), NULL, NULL), S_OK);
  EXPECT_EQ(Path(a.dwObjID, MAPI_E_CORRUPT_DATA), WString());
  EXPECT_EQ(Path(4242, MAPI_E_NOT_FOUND), WString());
  EXPECT_EQ(GetCompleteFolderName(m_pBE, a, NULL), MAPI_E_INVALID_PARAMETER);
}

TEST_F(HierarchyTest, ArchiveDeleteMapsTheProviderAnswer) {
  Serve(std::string(kServerTree) + "[folder Refusing]\nRemoveResult = 10351\n[folder Failing]\nRemoveResult = 7\n");
  DWORD dwIPM = Skeleton();
  ASSERT_EQ(m_pBE->CreateSubFolder(Folder(dwIPM), NULL, 0), S_OK);
  PRIVATE_EID msg = Eid(MAPI_MESSAGE, 77);
  strcpy(msg.szUniqueId, "M1");
  SBinary bin = {CB_PRIVATE_EID, reinterpret_cast<LPBYTE>(&msg)};
  ENTRYLIST list = {1, &bin};
  EXPECT_EQ(m_pBE->DeleteMessages(Folder(ChildByName(dwIPM, "Archive")), &list), S_OK);
  EXPECT_EQ(m_pBE->DeleteMessages(Folder(ChildByName(dwIPM, "Refusing")), &list), ZT4_E_REMOVE_REFUSED);
  EXPECT_EQ(m_pBE->DeleteMessages(Folder(ChildByName(dwIPM, "Failing")), &list), ZT4_E_REMOVE_FAILED);
  EXPECT_EQ(m_pBE->DeleteMessages(Folder(ChildByName(dwIPM, "Archive")), NULL), E_FAIL);
  // The IPM subtree has no server folder: nothing to ask.
  EXPECT_EQ(m_pBE->DeleteMessages(Folder(dwIPM), &list), S_OK);
  bin.cb = 100;
  EXPECT_EQ(m_pBE->DeleteMessages(Folder(ChildByName(dwIPM, "Archive")), &list), MAPI_E_INVALID_ENTRYID);

  // The server folder and record behind entry IDs.
  IZT4ArchiveFolder* pFolder = GetFolderObject(m_pBE, Folder(ChildByName(dwIPM, "Archive")));
  ASSERT_NE(pFolder, nullptr);
  pFolder->Release();
  EXPECT_EQ(GetFolderObject(m_pBE, Folder(dwIPM)), nullptr);
  EXPECT_EQ(GetMessageObject(m_pBE, msg, Folder(ChildByName(dwIPM, "Archive"))), nullptr);  // no such record
  EXPECT_EQ(MapProviderError(1), MAPI_E_NETWORK_ERROR);
  EXPECT_EQ(MapProviderError(2), MAPI_E_LOGON_FAILED);
  EXPECT_EQ(MapProviderError(3), MAPI_E_NOT_ENOUGH_RESOURCES);
  EXPECT_EQ(MapProviderError(0), E_FAIL);
}

}  // namespace
