// Back-end tests with a data provider: the scriptable archive over a fixture the test writes, and
// a current user whose SMTP address the server folders are asked for.
#pragma once
#include <fstream>
#include <string>
#include <vector>

#include <oleauto.h>

#include "ScriptArchiveRegistration.h"
#include "ZT4AccountHelper.h"
#include "ZT4Common.h"
#include "ZT4FileStg_test_util.h"
#include "ZT4Globals.h"

namespace betest {

typedef std::basic_string<WCHAR> WString;

inline WString W(const char* psz) {
  int cch = MultiByteToWideChar(CP_ACP, 0, psz, -1, NULL, 0);
  WString w(static_cast<size_t>(cch), 0);
  MultiByteToWideChar(CP_ACP, 0, psz, -1, w.data(), cch);
  w.resize(static_cast<size_t>(cch) - 1);
  return w;
}

inline WString TextValue(CPropList& list, ULONG ulPropTag) {
  SPropValue v;
  memset(&v, 0, sizeof(v));
  if (list.Find(ulPropTag, &v, TRUE) != S_OK || !v.Value.lpszW) return WString();
  return WString(v.Value.lpszW);
}

class ArchiveBackEndTest : public BackEndTest {
 protected:
  void SetUp() override {
    BackEndTest::SetUp();
    ASSERT_TRUE(SUCCEEDED(CoInitializeEx(NULL, COINIT_MULTITHREADED)));
    ResetDataProvider();
    SetCurrentUserSMTPAddress("zoe@example.com");
    m_fixture = Temp() + "mailbox.fixture";
  }
  void TearDown() override {
    ResetDataProvider();
    ClearCurrentUserDetails();
    // The names it read live in heaps that go with the process detach.
    CDefaultFolder::Instance().Reset();
    CoUninitialize();
    BackEndTest::TearDown();
  }
  // Writes the fixture and lets the next data provider object read it.
  void Serve(const std::string& text) {
    std::ofstream(m_fixture, std::ios::binary) << text;
    ResetDataProvider();
    ASSERT_EQ(scriptarchive::RegisterScriptArchive(adtest::BinPath("ZT4ScriptArchive.so"), m_fixture), S_OK);
  }

  PRIVATE_EID Folder(DWORD dwObjID) { return Eid(MAPI_FOLDER, dwObjID); }
  // The children of a folder by display name, in list order.
  std::vector<WString> ChildNames(DWORD dwParent) {
    std::vector<WString> names;
    for (DWORD dwID : IDs(dwParent, RECFLD_CHILDREN)) {
      auto list = Load(dwID);
      names.push_back(list ? TextValue(*list, PR_DISPLAY_NAME_W) : WString());
    }
    return names;
  }
  DWORD ChildByName(DWORD dwParent, const char* pszName) {
    for (DWORD dwID : IDs(dwParent, RECFLD_CHILDREN)) {
      auto list = Load(dwID);
      if (list && TextValue(*list, PR_DISPLAY_NAME_W) == W(pszName)) return dwID;
    }
    return 0;
  }
  WString Path(DWORD dwID, HRESULT hrExpected = S_OK) {
    BSTR bstr = NULL;
    EXPECT_EQ(GetCompleteFolderName(m_pBE, Folder(dwID), &bstr), hrExpected);
    WString path = bstr ? WString(bstr, SysStringLen(bstr)) : WString();
    SysFreeString(bstr);
    return path;
  }
  // The default folders' names as the language module gives them (English without one).
  static std::vector<WString> DefaultNames() {
    const char* apszEnglish[] = {"Deleted Items", "Inbox", "Outbox", "Sent Items"};
    std::vector<WString> names;
    for (ULONG i = 0; i < NUM_DEFAULT_FOLDERS; ++i) {
      LPCWSTR pwsz = CDefaultFolder::Instance().GetName(i);
      names.push_back(pwsz && *pwsz ? WString(pwsz) : W(apszEnglish[i]));
    }
    return names;
  }
  DWORD Skeleton() {
    PRIVATE_EID ipm;
    EXPECT_EQ(m_pBE->CreateSpecialFolders(&ipm), S_OK);
    return ipm.dwObjID;
  }

  std::string m_fixture;
};

}  // namespace betest
