// The folder object over a real store file and back end, with the scriptable archive as the data
// provider: computed properties, the closed set of settable properties, hierarchy tables and
// their refresh, subfolder creation and deletion, and the refusals.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "ScriptArchiveRegistration.h"
#include "ZT4AccountHelper.h"
#include "ZT4Common.h"
#include "ZT4Globals.h"
#include "ZT4MSFolder.h"
#include "provider_test_support.h"

using namespace zt4test;

namespace {

constexpr ULONG kReadWrite = 0x3F;
constexpr ULONG kReadOnly = MAPI_ACCESS_READ;
const char kUrl[] = "http://home/x";

class FolderTest : public StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    ASSERT_TRUE(SUCCEEDED(CoInitializeEx(NULL, COINIT_MULTITHREADED)));
    m_fixture = m_log->Home().Root() + "/archive.fixture";
    WriteFixture("");
    ASSERT_EQ(scriptarchive::RegisterScriptArchive(adtest::BinPath("ZT4ScriptArchive.so"), m_fixture), S_OK);
    ResetDataProvider();
    SetCurrentUserName("zoe");
    SetCurrentUserSMTPAddress("zoe@example.com");
    ASSERT_EQ(m_pBE->CreateSpecialFolders(&m_ipm), S_OK);
    // As a logon on a new file does: the server's top folders below the IPM subtree.
    ASSERT_EQ(m_pBE->CreateSubFolder(m_ipm, NULL, 0), S_OK);
    m_pStore = MakeStore(FALSE, false);
    ASSERT_NE(m_pStore, nullptr);
  }
  void TearDown() override {
    for (CMAPIFolder* p : m_folders) p->Release();
    m_folders.clear();
    ResetDataProvider();
    // The names live in the private heap, which the fixture destroys.
    CDefaultFolder::Instance().Reset();
    StoreTest::TearDown();
  }

  void WriteFixture(const std::string& extraFolders) {
    std::ofstream(m_fixture) << "[config]\nFolderHomePageUrl = " << kUrl << "\n[folder Projects]\n" << extraFolders;
  }

  // A folder object as the store opens one, released at the end of the test.
  CMAPIFolder* Open(const PRIVATE_EID& eid, ULONG lAccess = kReadWrite) {
    CPropList* pList = NULL;
    EXPECT_EQ(m_pBE->OpenObject(eid, &pList), S_OK);
    PRIVATE_EID parent{};
    SPropValue spv{};
    if (pList && pList->Find(PR_PARENT_ENTRYID, &spv) == S_OK && spv.Value.bin.cb == CB_PRIVATE_EID)
      memcpy(&parent, spv.Value.bin.lpb, CB_PRIVATE_EID);
    CMAPIFolder* p = new CMAPIFolder(m_pStore, parent, eid, TRUE, pList, FALSE, lAccess, m_pStore->m_pNPList);
    m_folders.push_back(p);
    return p;
  }
  CMAPIFolder* Create(CMAPIFolder* pParent, const char* pszName, ULONG ulFlags = 0) {
    LPMAPIFOLDER pNew = NULL;
    EXPECT_EQ(pParent->CreateFolder(FOLDER_GENERIC, const_cast<LPSTR>(pszName), NULL, NULL, ulFlags, &pNew), S_OK);
    if (pNew) m_folders.push_back(static_cast<CMAPIFolder*>(pNew));
    return static_cast<CMAPIFolder*>(pNew);
  }

  std::string m_fixture;
  PRIVATE_EID m_ipm{};
  CMsgStore* m_pStore = NULL;
  std::vector<CMAPIFolder*> m_folders;
};

struct Props {
  ULONG c = 0;
  LPSPropValue p = NULL;
  ~Props() { MAPIFreeBuffer(p); }
  const SPropValue* Find(ULONG ulTag) const { return PpropFindProp(p, c, ulTag); }
};

HRESULT Get(IMAPIProp* pProp, std::vector<ULONG> tags, Props& out) {
  std::vector<ULONG> buf(tags.size() + 1);
  buf[0] = static_cast<ULONG>(tags.size());
  std::copy(tags.begin(), tags.end(), buf.begin() + 1);
  return pProp->GetProps(reinterpret_cast<LPSPropTagArray>(buf.data()), 0, &out.c, &out.p);
}

std::string NameOf(IMAPIProp* pProp) {
  Props v;
  Get(pProp, {PR_DISPLAY_NAME_W}, v);
  if (v.c != 1 || v.p[0].ulPropTag != PR_DISPLAY_NAME_W) return "<none>";
  std::string s;
  for (const WCHAR* pw = v.p[0].Value.lpszW; *pw; ++pw) s += static_cast<char>(*pw);
  return s;
}

struct Rows {
  LPSRowSet p = NULL;
  ~Rows() { if (p) FreeProws(p); }
};

ULONG CountRows(LPMAPITABLE pTable, Rows* pRows = NULL) {
  Rows local;
  Rows& rows = pRows ? *pRows : local;
  if (FAILED(HrQueryAllRows(pTable, NULL, NULL, NULL, 0, &rows.p)) || !rows.p) return 0xFFFFFFFF;
  return rows.p->cRows;
}

bool HasRowNamed(LPMAPITABLE pTable, const char* pszName) {
  Rows rows;
  CountRows(pTable, &rows);
  for (ULONG i = 0; rows.p && i < rows.p->cRows; ++i) {
    LPSPropValue v = PpropFindProp(rows.p->aRow[i].lpProps, rows.p->aRow[i].cValues, PR_DISPLAY_NAME_W);
    if (!v) continue;
    std::string s;
    for (const WCHAR* pw = v->Value.lpszW; *pw; ++pw) s += static_cast<char>(*pw);
    if (s == pszName) return true;
  }
  return false;
}

TEST_F(FolderTest, GetPropsComputesTheFolderValues) {
  CMAPIFolder* pIpm = Open(m_ipm);
  Props v;
  HRESULT hr = Get(pIpm, {PR_OBJECT_TYPE, PR_ACCESS, PR_ACCESS_LEVEL, PR_CONTENT_COUNT, PR_STORE_SUPPORT_MASK,
                          PR_MDB_PROVIDER, PR_ENTRYID, PR_DISPLAY_TYPE, PR_FOLDER_TYPE, PR_STORE_RECORD_KEY,
                          PR_FOLDER_WEBVIEWINFO, 0x0E190014},
                   v);
  ASSERT_EQ(hr, S_OK);
  ASSERT_EQ(v.c, 12u);
  EXPECT_EQ(v.Find(PR_OBJECT_TYPE)->Value.l, 3);
  EXPECT_EQ(v.Find(PR_ACCESS)->Value.l, 0x3F);
  EXPECT_EQ(v.Find(PR_ACCESS_LEVEL)->Value.l, 1);
  EXPECT_EQ(v.Find(PR_CONTENT_COUNT)->Value.l, 0);
  EXPECT_EQ(static_cast<ULONG>(v.Find(PR_STORE_SUPPORT_MASK)->Value.l), 0x06053FFDu);
  EXPECT_EQ(v.Find(PR_DISPLAY_TYPE)->Value.l, 0x01000000);
  EXPECT_EQ(v.Find(PR_FOLDER_TYPE)->Value.l, 1);
  EXPECT_EQ(v.Find(0x0E190014)->Value.li.QuadPart, 1);
  ASSERT_EQ(v.Find(PR_MDB_PROVIDER)->Value.bin.cb, 16u);
  EXPECT_EQ(memcmp(v.Find(PR_MDB_PROVIDER)->Value.bin.lpb, ZT4_MDB_PROVIDER, 16), 0);
  ASSERT_EQ(v.Find(PR_ENTRYID)->Value.bin.cb, CB_PRIVATE_EID);
  EXPECT_EQ(memcmp(v.Find(PR_ENTRYID)->Value.bin.lpb, &m_ipm, CB_PRIVATE_EID), 0);
  EXPECT_EQ(memcmp(v.Find(PR_STORE_RECORD_KEY)->Value.bin.lpb, &m_ipm.guidStore, 16), 0);

  // The web view: version 2, type 1, flags 1, seven zero words, the URL's byte count, the URL.
  const SPropValue* pWeb = v.Find(PR_FOLDER_WEBVIEWINFO);
  ASSERT_NE(pWeb, nullptr);
  const ULONG cbUrl = (sizeof(kUrl)) * 2;
  ASSERT_EQ(pWeb->Value.bin.cb, 44 + cbUrl);
  std::vector<BYTE> expected(44, 0);
  expected[0] = 2;
  expected[4] = 1;
  expected[8] = 1;
  expected[40] = static_cast<BYTE>(cbUrl);
  for (size_t i = 0; i < sizeof(kUrl); ++i) {
    expected.push_back(static_cast<BYTE>(kUrl[i]));
    expected.push_back(0);
  }
  EXPECT_EQ(std::vector<BYTE>(pWeb->Value.bin.lpb, pWeb->Value.bin.lpb + pWeb->Value.bin.cb), expected);
}

TEST_F(FolderTest, GetPropsMarksMissingPropertiesAndReadOnlyAccess) {
  CMAPIFolder* pIpm = Open(m_ipm, kReadOnly);
  CMAPIFolder* pInbox = Create(Open(m_ipm), "Plain");
  ASSERT_NE(pInbox, nullptr);
  Props v;
  EXPECT_EQ(Get(pIpm, {PR_SUBJECT, PR_ACCESS_LEVEL, PR_DISPLAY_NAME_W}, v), MAPI_W_ERRORS_RETURNED);
  ASSERT_EQ(v.c, 3u);
  EXPECT_EQ(v.p[0].ulPropTag, PROP_TAG(PT_ERROR, PROP_ID(PR_SUBJECT)));
  EXPECT_EQ(v.p[0].Value.err, MAPI_E_NOT_FOUND);
  EXPECT_EQ(v.p[1].Value.l, 0);
  EXPECT_EQ(v.p[2].ulPropTag, PR_DISPLAY_NAME_W);
  EXPECT_TRUE(Logged("CMAPIFolder::GetProps: Not Found - "));

  // Only the IPM subtree has a web view.
  Props w;
  EXPECT_EQ(Get(pInbox, {PR_FOLDER_WEBVIEWINFO}, w), MAPI_W_ERRORS_RETURNED);
  EXPECT_EQ(PROP_TYPE(w.p[0].ulPropTag), static_cast<ULONG>(PT_ERROR));

  // All properties: the computed set once each, with what the list holds.
  Props all;
  ASSERT_TRUE(SUCCEEDED(pIpm->GetProps(NULL, 0, &all.c, &all.p)));
  EXPECT_NE(all.Find(PR_OBJECT_TYPE), nullptr);
  EXPECT_NE(all.Find(PR_DISPLAY_NAME_W), nullptr);
  LPSPropTagArray pTags = NULL;
  ASSERT_EQ(pIpm->GetPropList(0, &pTags), S_OK);
  EXPECT_GE(pTags->cValues, 18u);
  MAPIFreeBuffer(pTags);

  EXPECT_EQ(pIpm->GetProps(NULL, 0, NULL, NULL), E_INVALIDARG);
}

TEST_F(FolderTest, SetPropsRenamesThroughTheBackEndAndRefusesTheRest) {
  CMAPIFolder* pIpm = Open(m_ipm);
  CMAPIFolder* pA = Create(pIpm, "Alpha");
  CMAPIFolder* pB = Create(pIpm, "Beta");
  ASSERT_TRUE(pA && pB);
  CMAPIFolder* pA2 = Open(pA->m_ObjectEID);  // a second instance follows the first

  SPropValue vals[6] = {};
  vals[0].ulPropTag = PR_DISPLAY_NAME;
  vals[0].Value.lpszA = const_cast<LPSTR>("Gamma");
  vals[1].ulPropTag = PR_COMMENT;
  vals[1].Value.lpszA = const_cast<LPSTR>("note");
  vals[2].ulPropTag = PR_SUBJECT;
  vals[2].Value.lpszA = const_cast<LPSTR>("no");
  vals[3].ulPropTag = PR_ENTRYID;
  vals[4].ulPropTag = PR_NULL;
  vals[5].ulPropTag = PR_DISPLAY_NAME_W;
  vals[5].Value.lpszW = const_cast<LPWSTR>(WIDE("Wide"));
  LPSPropProblemArray pProblems = NULL;
  ASSERT_EQ(pA->SetProps(6, vals, &pProblems), S_OK);
  ASSERT_NE(pProblems, nullptr);
  ASSERT_EQ(pProblems->cProblem, 3u);
  EXPECT_EQ(pProblems->aProblem[0].ulIndex, 2u);
  EXPECT_EQ(pProblems->aProblem[0].scode, MAPI_E_NO_ACCESS);
  EXPECT_EQ(pProblems->aProblem[1].ulIndex, 3u);
  EXPECT_EQ(pProblems->aProblem[1].scode, MAPI_E_COMPUTED);
  EXPECT_EQ(pProblems->aProblem[2].ulIndex, 5u);
  EXPECT_EQ(pProblems->aProblem[2].scode, MAPI_E_NO_ACCESS);
  MAPIFreeBuffer(pProblems);
  EXPECT_TRUE(Logged("CMAPIFolder::SetProps: Ignoring property of PT_NULL, PT_UNSPEFICIED, PT_ERROR or PT_OBJECT type"));
  EXPECT_EQ(NameOf(pA), "Gamma");
  EXPECT_EQ(NameOf(pA2), "Gamma");
  CPropList* pStored = NULL;
  ASSERT_EQ(m_pBE->OpenObject(pA->m_ObjectEID, &pStored), S_OK);
  SPropValue spv{};
  EXPECT_EQ(pStored->Find(PR_COMMENT_W, &spv), S_OK);
  delete pStored;

  // The name of a sibling collides.
  SPropValue clash{};
  clash.ulPropTag = PR_DISPLAY_NAME;
  clash.Value.lpszA = const_cast<LPSTR>("Beta");
  ASSERT_EQ(pA->SetProps(1, &clash, &pProblems), S_OK);
  ASSERT_NE(pProblems, nullptr);
  EXPECT_EQ(pProblems->aProblem[0].scode, MAPI_E_COLLISION);
  MAPIFreeBuffer(pProblems);
  EXPECT_EQ(NameOf(pA), "Gamma");

  CMAPIFolder* pReadOnly = Open(pB->m_ObjectEID, kReadOnly);
  EXPECT_EQ(pReadOnly->SetProps(1, vals, &pProblems), MAPI_E_NO_ACCESS);
  EXPECT_TRUE(Logged("CMAPIFolder::SetProps: Cannot set properties in a READ only object"));
  EXPECT_EQ(pA->SetProps(2, NULL, NULL), E_INVALIDARG);
}

TEST_F(FolderTest, HierarchyTableRowsViewsAndRefresh) {
  CMAPIFolder* pIpm = Open(m_ipm);
  LPMAPITABLE pView = NULL;
  ASSERT_EQ(pIpm->GetHierarchyTable(0, &pView), S_OK);
  EXPECT_EQ(pIpm->m_lHierViews, 1);
  EXPECT_TRUE(Logged("CMAPIFolder::GetHierarchyTable called with flags [0]"));
  EXPECT_TRUE(Logged("CMAPIFolder::GetHierarchyTable Hierarchy table is null"));
  EXPECT_TRUE(Logged("Name IPM Subtree("));
  Rows rows;
  ASSERT_EQ(CountRows(pView, &rows), 5u);  // four default folders and the server's Projects
  for (ULONG i = 0; i < rows.p->cRows; ++i) EXPECT_EQ(rows.p->aRow[i].cValues, 22u);
  EXPECT_TRUE(HasRowNamed(pView, "Projects"));

  // A folder new on the server below Projects: the parent's refill mirrors it, and the refresh
  // call puts it into the view already open on Projects.
  DWORD dwProjects = 0;
  ASSERT_EQ(m_pBE->CheckFldNameCollision(m_ipm.dwObjID, WIDE("Projects"), &dwProjects, FLDNAME_CHECK),
            MAPI_E_COLLISION);
  PRIVATE_EID projectsEID = m_ipm;
  projectsEID.dwObjID = dwProjects;
  CMAPIFolder* pProjects = Open(projectsEID);
  LPMAPITABLE pProjectsView = NULL;
  ASSERT_EQ(pProjects->GetHierarchyTable(0, &pProjectsView), S_OK);
  EXPECT_EQ(CountRows(pProjectsView), 0u);
  WriteFixture("[folder Projects/Reports]\n");
  ResetDataProvider();
  EXPECT_EQ(pIpm->GetHierarchyTable(ZT4_TABLE_REFRESH, NULL), S_OK);
  EXPECT_EQ(CountRows(pView), 5u);
  EXPECT_EQ(pIpm->m_lHierViews, 1);
  EXPECT_EQ(pProjects->GetHierarchyTable(ZT4_TABLE_REFRESH, NULL), S_OK);
  EXPECT_EQ(CountRows(pProjectsView), 1u);
  EXPECT_TRUE(HasRowNamed(pProjectsView, "Reports"));
  EXPECT_EQ(pProjects->m_lHierViews, 1);
  pProjectsView->Release();

  LPMAPITABLE pView2 = NULL;
  ASSERT_EQ(pIpm->GetHierarchyTable(0, &pView2), S_OK);
  EXPECT_EQ(pIpm->m_lHierViews, 2);
  pView2->Release();
  EXPECT_EQ(pIpm->m_lHierViews, 1);
  pView->Release();
  EXPECT_EQ(pIpm->m_lHierViews, 0);
  EXPECT_TRUE(Logged("FolderTablesViewRelease: A hierarchy table view has been released"));

  EXPECT_EQ(pIpm->GetHierarchyTable(0, NULL), E_INVALIDARG);
  CMAPIFolder::FolderTablesViewRelease(0x7FFFFFF0, NULL, NULL);
  EXPECT_TRUE(Logged("FolderTablesViewRelease: Invalid Folder Object"));
}

TEST_F(FolderTest, CreateFolderAddsRowsNotifiesAndHandlesCollisions) {
  CMAPIFolder* pIpm = Open(m_ipm);
  SinkRecorder* pSink = new SinkRecorder;
  ULONG ulConnection = 0;
  ASSERT_EQ(m_pStore->Advise(0, NULL, fnevObjectCreated | fnevObjectModified | fnevObjectDeleted, pSink,
                             &ulConnection),
            S_OK);
  LPMAPITABLE pView = NULL;
  ASSERT_EQ(pIpm->GetHierarchyTable(0, &pView), S_OK);
  ULONG cBefore = CountRows(pView);

  CMAPIFolder* pWork = Create(pIpm, "Work");
  ASSERT_NE(pWork, nullptr);
  EXPECT_EQ(CountRows(pView), cBefore + 1);
  EXPECT_TRUE(HasRowNamed(pView, "Work"));
  std::vector<ULONG> events = pSink->Events();
  EXPECT_NE(std::find(events.begin(), events.end(), fnevObjectCreated), events.end());
  EXPECT_NE(std::find(events.begin(), events.end(), fnevObjectModified), events.end());
  Props v;
  ASSERT_EQ(Get(pWork, {PR_PARENT_ENTRYID}, v), S_OK);
  EXPECT_EQ(memcmp(v.p[0].Value.bin.lpb, &m_ipm, CB_PRIVATE_EID), 0);

  LPMAPIFOLDER pAgain = NULL;
  EXPECT_EQ(pIpm->CreateFolder(FOLDER_GENERIC, const_cast<LPSTR>("Work"), NULL, NULL, 0, &pAgain), MAPI_E_COLLISION);
  EXPECT_EQ(pAgain, nullptr);
  CMAPIFolder* pExisting = Create(pIpm, "Work", OPEN_IF_EXISTS);
  ASSERT_NE(pExisting, nullptr);
  EXPECT_EQ(pExisting->m_ObjectEID.dwObjID, pWork->m_ObjectEID.dwObjID);
  EXPECT_EQ(CountRows(pView), cBefore + 1);

  // A wide name with MAPI_UNICODE.
  CMAPIFolder* pWide = NULL;
  LPMAPIFOLDER pNew = NULL;
  ASSERT_EQ(pIpm->CreateFolder(FOLDER_GENERIC, reinterpret_cast<LPSTR>(const_cast<WCHAR*>(WIDE("Wide"))), NULL, NULL,
                               MAPI_UNICODE, &pNew),
            S_OK);
  pWide = static_cast<CMAPIFolder*>(pNew);
  m_folders.push_back(pWide);
  EXPECT_EQ(NameOf(pWide), "Wide");

  EXPECT_EQ(pIpm->CreateFolder(FOLDER_SEARCH, const_cast<LPSTR>("S"), NULL, NULL, 0, &pNew), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(pIpm->CreateFolder(FOLDER_GENERIC, NULL, NULL, NULL, 0, &pNew), E_INVALIDARG);
  EXPECT_EQ(pIpm->CreateFolder(FOLDER_GENERIC, const_cast<LPSTR>("X"), NULL, NULL, 0, NULL), E_INVALIDARG);
  EXPECT_EQ(pIpm->CreateFolder(FOLDER_GENERIC, const_cast<LPSTR>("X"), NULL, NULL, 0x1000, &pNew),
            MAPI_E_UNKNOWN_FLAGS);
  CMAPIFolder* pReadOnly = Open(m_ipm, kReadOnly);
  EXPECT_EQ(pReadOnly->CreateFolder(FOLDER_GENERIC, const_cast<LPSTR>("X"), NULL, NULL, 0, &pNew), MAPI_E_NO_ACCESS);
  EXPECT_TRUE(Logged("CMAPIFolder::CreateFolder: Cannot delete messages in a READ only folder"));

  pView->Release();
  EXPECT_EQ(m_pStore->Unadvise(ulConnection), S_OK);
  pSink->Release();
}

TEST_F(FolderTest, DeleteFolderNeedsTheFlagsForContents) {
  CMAPIFolder* pIpm = Open(m_ipm);
  CMAPIFolder* pParent = Create(pIpm, "Parent");
  ASSERT_NE(pParent, nullptr);
  ASSERT_NE(Create(pParent, "Kid"), nullptr);
  CMAPIFolder* pLeaf = Create(pIpm, "Leaf");
  ASSERT_NE(pLeaf, nullptr);
  LPMAPITABLE pView = NULL;
  ASSERT_EQ(pIpm->GetHierarchyTable(0, &pView), S_OK);
  ASSERT_TRUE(HasRowNamed(pView, "Parent"));

  PRIVATE_EID parentEID = pParent->m_ObjectEID;
  EXPECT_EQ(pIpm->DeleteFolder(CB_PRIVATE_EID, AsEntryID(parentEID), 0, NULL, 0), MAPI_E_HAS_FOLDERS);
  EXPECT_EQ(pIpm->DeleteFolder(CB_PRIVATE_EID, AsEntryID(parentEID), 0, NULL, DEL_FOLDERS | DEL_MESSAGES), S_OK);
  EXPECT_FALSE(HasRowNamed(pView, "Parent"));
  CPropList* pGone = NULL;
  EXPECT_TRUE(FAILED(m_pBE->OpenObject(parentEID, &pGone)));
  delete pGone;

  // A leaf goes without flags; its name is free again.
  PRIVATE_EID leafEID = pLeaf->m_ObjectEID;
  EXPECT_EQ(pIpm->DeleteFolder(CB_PRIVATE_EID, AsEntryID(leafEID), 0, NULL, 0), S_OK);
  EXPECT_FALSE(HasRowNamed(pView, "Leaf"));
  EXPECT_NE(Create(pIpm, "Leaf"), nullptr);

  // EmptyFolder takes the subfolders with it.
  CMAPIFolder* pBox = Create(pIpm, "Box");
  ASSERT_NE(pBox, nullptr);
  ASSERT_NE(Create(pBox, "Inner"), nullptr);
  LPMAPITABLE pBoxView = NULL;
  ASSERT_EQ(pBox->GetHierarchyTable(0, &pBoxView), S_OK);
  EXPECT_EQ(CountRows(pBoxView), 1u);
  EXPECT_EQ(pBox->EmptyFolder(0, NULL, DEL_ASSOCIATED), S_OK);
  EXPECT_EQ(CountRows(pBoxView), 0u);
  EXPECT_EQ(pBox->EmptyFolder(0, NULL, 0x100), MAPI_E_UNKNOWN_FLAGS);
  pBoxView->Release();
  EXPECT_EQ(pIpm->DeleteFolder(CB_PRIVATE_EID, AsEntryID(pBox->m_ObjectEID), 0, NULL, 0), S_OK);

  // Bad input.
  EXPECT_EQ(pIpm->DeleteFolder(10, AsEntryID(leafEID), 0, NULL, 0), MAPI_E_INVALID_ENTRYID);
  EXPECT_EQ(pIpm->DeleteFolder(CB_PRIVATE_EID, NULL, 0, NULL, 0), MAPI_E_INVALID_ENTRYID);
  EXPECT_EQ(pIpm->DeleteFolder(CB_PRIVATE_EID, AsEntryID(m_ipm), 0, NULL, 0), MAPI_E_NOT_FOUND);
  EXPECT_EQ(pIpm->DeleteFolder(CB_PRIVATE_EID, AsEntryID(leafEID), 0, NULL, 0x4000), MAPI_E_UNKNOWN_FLAGS);
  CMAPIFolder* pReadOnly = Open(m_ipm, kReadOnly);
  EXPECT_EQ(pReadOnly->DeleteFolder(CB_PRIVATE_EID, AsEntryID(leafEID), 0, NULL, 0), MAPI_E_NO_ACCESS);
  pView->Release();
}

TEST_F(FolderTest, RefusalsAndPlainForwards) {
  CMAPIFolder* pIpm = Open(m_ipm);
  LPMESSAGE pMsg = NULL;
  EXPECT_EQ(pIpm->CreateMessage(NULL, 0, &pMsg), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(pIpm->SaveContentsSort(NULL, 0), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(pIpm->GetSearchCriteria(0, NULL, NULL, NULL), MAPI_E_NO_SUPPORT);
  EXPECT_TRUE(Logged("CMAPIFolder::GetSearchCriteria:80040102"));
  EXPECT_EQ(pIpm->DeleteMessages(NULL, 0, NULL, 0), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(pIpm->DeleteMessages(NULL, 0, NULL, MESSAGE_DIALOG), S_OK);
  EXPECT_TRUE(Logged("Folder is empty, return S_OK directly"));
  CMAPIFolder* pReadOnly = Open(m_ipm, kReadOnly);
  EXPECT_EQ(pReadOnly->DeleteMessages(NULL, 0, NULL, MESSAGE_DIALOG), MAPI_E_NO_ACCESS);
  EXPECT_TRUE(Logged("CMAPIFolder::DeleteMessages: Cannot delete messages in a READ only folder"));
  EXPECT_EQ(pReadOnly->EmptyFolder(0, NULL, 0), MAPI_E_NO_ACCESS);
  EXPECT_TRUE(Logged("CMAPIFolder::DeleteFolderContents: Cannot delete contents from a READ only folder"));

  // A move into a folder named "Deleted Items", in any case, is refused before anything happens.
  CMAPIFolder* pWaste = Create(pIpm, "deleted ITEMS");
  ASSERT_NE(pWaste, nullptr);
  ENTRYLIST list = {0, NULL};
  EXPECT_EQ(pIpm->CopyMessages(&list, NULL, static_cast<IMAPIFolder*>(pWaste), 0, NULL, MESSAGE_MOVE),
            static_cast<HRESULT>(0x80049002));
  EXPECT_EQ(pReadOnly->CopyMessages(&list, NULL, static_cast<IMAPIFolder*>(pWaste), 0, NULL, MESSAGE_MOVE),
            MAPI_E_NO_ACCESS);
  EXPECT_TRUE(Logged("CMAPIFolder::CopyMessages: Cannot move messages from a READ only folder"));

  // Interfaces, last error.
  LPUNKNOWN pUnk = NULL;
  EXPECT_EQ(pIpm->QueryInterface(IID_IMAPIContainer, reinterpret_cast<LPVOID*>(&pUnk)), S_OK);
  ASSERT_NE(pUnk, nullptr);
  pUnk->Release();
  EXPECT_EQ(pIpm->QueryInterface(IID_IMsgStore, reinterpret_cast<LPVOID*>(&pUnk)), E_NOINTERFACE);
  EXPECT_EQ(pUnk, nullptr);
  LPMAPIERROR pErr = NULL;
  ASSERT_EQ(pIpm->GetLastError(MAPI_E_NO_SUPPORT, 0, &pErr), S_OK);
  ASSERT_NE(pErr, nullptr);
  // The component text is wide, as every text of the error.
  EXPECT_EQ(memcmp(pErr->lpszComponent, WIDE("ArchiveDepot"), 26), 0);
  MAPIFreeBuffer(pErr);
  EXPECT_EQ(pIpm->GetErrorContext(), 3u);
}

}  // namespace
