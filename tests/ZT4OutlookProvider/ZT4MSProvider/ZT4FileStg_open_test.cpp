// Opening the store at logon: the data provider, the log parameters, the first-logon rebuild
// of the file and the hierarchy of a new store.
#include <sys/stat.h>

#include "ZT4FileStg_hierarchy_util.h"
#include "ZT4MSProvider.h"

using namespace betest;

namespace {

const char* kMailbox = R"([config]
LogSize = 7
MaxFiles = 3
[folder Inbox]
[folder Inbox/Projects]
[folder Été]
)";

class OpenStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(ZT4ProcessAttach(reinterpret_cast<HINSTANCE>(this)));
    SetMAPIAllocRoutines(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
    m_log = std::make_unique<zt4test::TraceLog>(5);
    ASSERT_TRUE(SUCCEEDED(CoInitializeEx(NULL, COINIT_MULTITHREADED)));
    ResetDataProvider();
    ResetFirstLogon();
    SetCurrentUserSMTPAddress("zoe@example.com");
    m_path = m_log->Home().Root() + "\\7.CST";
    m_native = m_log->Home().Root() + "/7.CST";
    m_uid = StoreGuid();
  }
  void TearDown() override {
    ResetDataProvider();
    ClearCurrentUserDetails();
    // The names it read live in heaps that go with the process detach.
    CDefaultFolder::Instance().Reset();
    CoUninitialize();
    m_log.reset();
    SetMAPIAllocRoutines(NULL, NULL, NULL);
    ZT4ProcessDetach();
  }
  void Serve(const std::string& text) {
    std::string fixture = m_log->Home().Temp() + "mailbox.fixture";
    std::ofstream(fixture, std::ios::binary) << text;
    ResetDataProvider();
    ASSERT_EQ(scriptarchive::RegisterScriptArchive(adtest::BinPath("ZT4ScriptArchive.so"), fixture), S_OK);
  }
  HRESULT Open(BOOL fLogon, CBackEnd** ppBE) {
    return OpenMsgStoreDataBase(NULL, m_path.c_str(), "ArchiveDepot", "Orvanta Store", &m_uid, TRUE, ppBE, fLogon);
  }
  bool FileExists() const {
    struct stat st;
    return stat(m_native.c_str(), &st) == 0;
  }
  size_t Count(const std::string& text) const {
    std::string log = m_log->Text();
    size_t c = 0;
    for (size_t pos = log.find(text); pos != std::string::npos; pos = log.find(text, pos + 1)) ++c;
    return c;
  }
  // The names below a folder of this back end.
  std::vector<WString> Children(CBackEnd* pBE, DWORD dwParent) {
    std::vector<WString> names;
    CFileBackEnd* pFile = static_cast<CFileBackEnd*>(pBE);
    IStream* pStream = NULL;
    if (pFile->GetStream(dwParent, RECFLD_CHILDREN, &pStream, FALSE) != S_OK) return names;
    CIDList ids;
    EXPECT_EQ(ids.LoadFromStream(pStream), S_OK);
    pStream->Release();
    for (DWORD dwID = ids.GetFirst(); dwID; dwID = ids.GetNext()) {
      CPropList* pList = NULL;
      if (pBE->OpenObject(Eid(MAPI_FOLDER, dwID), &pList) != S_OK) continue;
      names.push_back(TextValue(*pList, PR_DISPLAY_NAME_W));
      delete pList;
    }
    return names;
  }

  std::unique_ptr<zt4test::TraceLog> m_log;
  std::string m_path, m_native;
  MAPIUID m_uid;
};

TEST_F(OpenStoreTest, WithoutADataProviderTheLogonFails) {
  CBackEnd* pBE = reinterpret_cast<CBackEnd*>(1);
  EXPECT_EQ(Open(TRUE, &pBE), E_FAIL);
  EXPECT_EQ(pBE, nullptr);
  EXPECT_TRUE(m_log->Has(" Initialize IZT4DataProvider failed\r\n"));
  EXPECT_TRUE(m_log->Has("OpenMsgStoreDataBase:80004005\r\n"));
  EXPECT_FALSE(g_fOpeningStore);
  EXPECT_FALSE(FileExists());
  EXPECT_EQ(Open(TRUE, NULL), MAPI_E_INVALID_PARAMETER);
}

TEST_F(OpenStoreTest, FirstLogonRebuildsTheStoreAndMirrorsTheServer) {
  Serve(kMailbox);
  std::ofstream(m_native) << "old contents";
  CBackEnd* pBE = NULL;
  ASSERT_EQ(Open(TRUE, &pBE), S_OK);
  ASSERT_NE(pBE, nullptr);
  EXPECT_FALSE(g_fOpeningStore);
  EXPECT_TRUE(m_log->Has(" First call...Delete the old file\r\n"));
  EXPECT_TRUE(m_log->Has(" Readjusting log parameters LogSize : 7  MaxFiles: 3 \r\n"));
  EXPECT_EQ(GetTraceLogger().GetSizeLimit(), 8ull << 20);
  EXPECT_EQ(GetTraceLogger().GetMaxFiles(), 3);
  EXPECT_TRUE(m_log->Has(" This is a logon call so create the folder hierarchy\r\n"));
  EXPECT_TRUE(m_log->Has(" Create the special folders\r\n"));
  EXPECT_TRUE(m_log->Has(" Create the sub folders\r\n"));
  // The logon's table of default names excludes nothing: Inbox collides and is kept.
  EXPECT_TRUE(m_log->Has("CFileBackEnd::CreateSubFolder This folder has been already created:Inbox\r\n"));

  // "IPM" is bound to record 3, the Inbox.
  PRIVATE_EID eid;
  memset(&eid, 0, sizeof(eid));
  EXPECT_EQ(pBE->GetRFSEntryID("IPM", &eid), S_OK);
  EXPECT_EQ(eid.dwObjID, IPM_ROOT_RECORD);
  std::vector<WString> top = Children(pBE, ROOT_FOLDER_RECORD);
  ASSERT_EQ(top.size(), 4u);
  EXPECT_EQ(top[0], W("IPM Subtree"));
  std::vector<WString> ipm = Children(pBE, 1);
  EXPECT_EQ(ipm.size(), 5u);
  EXPECT_EQ(ipm.back(), W("Été"));
  pBE->Release();

  // A second logon of the process opens the file and builds nothing.
  ASSERT_EQ(Open(TRUE, &pBE), S_OK);
  pBE->Release();
  EXPECT_EQ(Count("First call...Delete the old file"), 1u);
  EXPECT_EQ(Count("Create the special folders"), 1u);
  EXPECT_EQ(Count("This is a logon call so create the folder hierarchy"), 2u);
  EXPECT_TRUE(FileExists());

  // A later logon without a file creates one and builds the hierarchy again.
  ASSERT_EQ(remove(m_native.c_str()), 0);
  ASSERT_EQ(Open(TRUE, &pBE), S_OK);
  EXPECT_TRUE(m_log->Has("could not be found, error:"));
  EXPECT_TRUE(m_log->Has(", so create a new one\r\n"));
  EXPECT_EQ(Count("Create the special folders"), 2u);
  EXPECT_EQ(Children(pBE, ROOT_FOLDER_RECORD).size(), 4u);
  pBE->Release();
}

TEST_F(OpenStoreTest, InitializingTheFileDoesNotUseTheFirstLogon) {
  Serve(kMailbox);
  CBackEnd* pBE = NULL;
  ASSERT_EQ(Open(FALSE, &pBE), S_OK);  // creates the missing file, without a hierarchy
  EXPECT_TRUE(FileExists());
  EXPECT_FALSE(m_log->Has("First call"));
  EXPECT_FALSE(m_log->Has("Create the special folders"));
  EXPECT_FALSE(m_log->Has("Readjusting log parameters"));
  pBE->Release();
  ASSERT_EQ(Open(TRUE, &pBE), S_OK);
  EXPECT_TRUE(m_log->Has("First call...Delete the old file"));
  EXPECT_TRUE(m_log->Has("Create the special folders"));
  pBE->Release();
}

TEST_F(OpenStoreTest, AFileThatCannotBeCreatedFailsTheLogon) {
  Serve(kMailbox);
  // A plain file where the folder should be.
  std::ofstream(m_log->Home().Root() + "/blocker") << "x";
  m_path = m_log->Home().Root() + "\\blocker\\7.CST";
  CBackEnd* pBE = NULL;
  HRESULT hr = Open(TRUE, &pBE);
  EXPECT_TRUE(FAILED(hr));
  EXPECT_EQ(pBE, nullptr);
  EXPECT_TRUE(m_log->Has("Failed to create the database file: "));
  EXPECT_FALSE(g_fOpeningStore);
}

}  // namespace
