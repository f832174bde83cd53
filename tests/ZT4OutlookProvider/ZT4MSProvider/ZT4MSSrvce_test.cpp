// ServiceEntry in each context, the making of a store's identity, and finding the provider's
// profile section.
#include <gtest/gtest.h>

#include <adplatform_ui.h>
#include <mapicode.h>
#include <mapitags.h>
#include <mapiutil.h>
#include <mapix.h>
#include <objbase.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "MemHeap.h"
#include "ZT4Common.h"
#include "ZT4MSProvider.h"
#include "ZT4MSSrvce.h"
#include "ZT4MsgStore.h"
#include "archive/ScriptArchiveRegistration.h"
#include "provider_test_support.h"

using zt4test::FakeProfSect;
using zt4test::FakeSupport;

namespace {

const MAPIUID kProviderUID = {{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}};

// The provider admin of a service with one provider: a one-row provider table and that
// provider's profile section.
class FakeProviderAdmin : public adm::ComObject<IProviderAdmin, IID_IProviderAdmin> {
 public:
  FakeProviderAdmin() : m_pSection(new FakeProfSect) {}
  ~FakeProviderAdmin() override { m_pSection->Release(); }

  MAPIMETHOD(GetLastError)(HRESULT, ULONG, LPMAPIERROR* lppMAPIError) override {
    *lppMAPIError = NULL;
    return MAPI_E_NO_SUPPORT;
  }
  MAPIMETHOD(GetProviderTable)(ULONG, LPMAPITABLE* lppTable) override {
    *lppTable = NULL;
    if (FAILED(hrGetProviderTable)) return hrGetProviderTable;
    SizedSPropTagArray(1, cols) = {1, {PR_PROVIDER_UID}};
    LPTABLEDATA pData = NULL;
    HRESULT hr = CreateTable(&IID_IMAPITableData, MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer, NULL,
                             TBLTYPE_SNAPSHOT, PR_PROVIDER_UID, reinterpret_cast<LPSPropTagArray>(&cols), &pData);
    if (FAILED(hr)) return hr;
    if (fRow) {
      SPropValue prop;
      prop.ulPropTag = PR_PROVIDER_UID;
      prop.Value.bin.cb = sizeof(MAPIUID);
      prop.Value.bin.lpb = const_cast<LPBYTE>(kProviderUID.ab);
      SRow row = {0, 1, &prop};
      pData->HrModifyRow(&row);
    }
    hr = pData->HrGetView(NULL, NULL, 0, lppTable);
    pData->Release();
    return hr;
  }
  MAPIMETHOD(CreateProvider)(LPTSTR, ULONG, LPSPropValue, ULONG_PTR, ULONG, MAPIUID*) override {
    return MAPI_E_NO_SUPPORT;
  }
  MAPIMETHOD(DeleteProvider)(LPMAPIUID) override { return MAPI_E_NO_SUPPORT; }
  MAPIMETHOD(OpenProfileSection)(LPMAPIUID lpUID, LPCIID, ULONG ulFlags, LPPROFSECT* lppProfSect) override {
    ++cOpenProfileSection;
    *lppProfSect = NULL;
    if (!lpUID || memcmp(lpUID, &kProviderUID, sizeof(MAPIUID)) || !(ulFlags & MAPI_MODIFY)) return MAPI_E_NOT_FOUND;
    m_pSection->AddRef();
    *lppProfSect = m_pSection;
    return S_OK;
  }

  FakeProfSect* Section() { return m_pSection; }

  HRESULT hrGetProviderTable = S_OK;
  bool fRow = true;
  int cOpenProfileSection = 0;

 private:
  FakeProfSect* m_pSection;
};

void SetString(FakeProfSect* pSection, ULONG ulPropTag, const char* psz) {
  SPropValue prop;
  prop.ulPropTag = ulPropTag;
  prop.Value.lpszA = const_cast<LPSTR>(psz);
  pSection->SetProps(1, &prop, NULL);
}

void SetFullProfile(FakeProfSect* pSection) {
  SetString(pSection, PR_ZT4_STORE_PATH, "C:\\store\\1.CST");
  SetString(pSection, PR_DISPLAY_NAME, "My Store");
  SetString(pSection, PR_COMMENT, "note");
  SPropValue aProps[3];
  aProps[0].ulPropTag = PR_STORE_RECORD_KEY;
  aProps[0].Value.bin.cb = sizeof(MAPIUID);
  aProps[0].Value.bin.lpb = const_cast<LPBYTE>(kProviderUID.ab);
  aProps[1].ulPropTag = PR_ZT4_STORE_OPTION_TEXT;
  aProps[1].Value.lpszA = const_cast<LPSTR>("opt");
  aProps[2].ulPropTag = PR_ZT4_STORE_OPTION_FLAG;
  aProps[2].Value.b = FALSE;
  pSection->SetProps(3, aProps, NULL);
  pSection->cSetProps = 0;
  pSection->setTags.clear();
}

std::string StringOf(FakeProfSect* pSection, ULONG ulPropTag) {
  LPSPropValue p = pSection->Find(ulPropTag);
  return p && PROP_TYPE(p->ulPropTag) == PT_STRING8 ? std::string(p->Value.lpszA) : std::string("<none>");
}

std::string Narrow(const std::u16string& s) {
  std::string out;
  for (char16_t c : s) out += static_cast<char>(c);
  return out;
}

// Whoever ran ServiceEntry's early return on another thread left "TQProvider" abandoned; take it
// and let it go so the next case starts clean.
DWORD ReclaimProviderMutex() {
  HANDLE h = CreateMutexA(NULL, FALSE, "TQProvider");
  DWORD dw = WaitForSingleObject(h, 0);
  if (dw == WAIT_OBJECT_0 || dw == WAIT_ABANDONED) ReleaseMutex(h);
  CloseHandle(h);
  return dw;
}

class ServiceEntryTest : public zt4test::StoreTest {
 protected:
  void SetUp() override {
    InitTraces(0);  // the test's trace log stays
    StoreTest::SetUp();
    CoInitializeEx(NULL, COINIT_MULTITHREADED);
    // The text of the box, under the instance the fixture gave the provider.
    m_hInstance = reinterpret_cast<HINSTANCE>(static_cast<zt4test::StoreTest*>(this));
    adp::RegisterStringTable(m_hInstance, 0x0409, IDS_SETTINGS_FROM_CLIENT,
                             u"%s settings can only be changed from Outlook.");
    m_pAdmin = new FakeProviderAdmin;
    adp::SetMessageBoxSink([this](const std::u16string& text, const std::u16string& caption) {
      m_boxText = Narrow(text);
      m_boxCaption = Narrow(caption);
      ++m_cBoxes;
    });
  }
  void TearDown() override {
    adp::SetMessageBoxSink({});
    m_pAdmin->Release();
    adp::UnregisterStringTables(m_hInstance);
    StoreTest::TearDown();
    CoUninitialize();
  }

  HRESULT CallServiceEntry(ULONG ulFlags, ULONG ulContext, ULONG cValues = 0, LPSPropValue lpProps = NULL) {
    LPMAPIERROR pError = NULL;
    HRESULT hr = ServiceEntry(reinterpret_cast<HINSTANCE>(this), NULL, m_pFake, 0, ulFlags, ulContext, cValues,
                              lpProps, m_pAdmin, &pError);
    m_fError = pError != NULL;
    if (pError) MAPIFreeBuffer(pError);
    return hr;
  }
  // Early returns keep the mutex held by the calling thread, so they run on one of their own.
  HRESULT CallOnThread(ULONG ulFlags, ULONG ulContext) {
    HRESULT hr = E_FAIL;
    std::thread t([&] { hr = CallServiceEntry(ulFlags, ulContext); });
    t.join();
    return hr;
  }

  FakeProviderAdmin* m_pAdmin = NULL;
  HINSTANCE m_hInstance = NULL;
  std::string m_boxText, m_boxCaption;
  int m_cBoxes = 0;
  bool m_fError = false;
};

TEST_F(ServiceEntryTest, ImmediateContextsReturnAtOnceAndKeepTheMutex) {
  for (ULONG ulContext : {MSG_SERVICE_INSTALL, MSG_SERVICE_UNINSTALL, MSG_SERVICE_DELETE}) {
    EXPECT_EQ(CallOnThread(0, ulContext), S_OK);
    EXPECT_EQ(ReclaimProviderMutex(), static_cast<DWORD>(WAIT_ABANDONED)) << ulContext;
  }
  EXPECT_EQ(m_pAdmin->cOpenProfileSection, 0);
  EXPECT_TRUE(Logged("ServiceEntry: Immediate return. Context: 1"));
  EXPECT_TRUE(Logged("ServiceEntry: Immediate return. Context: 5"));
}

TEST_F(ServiceEntryTest, ProviderContextsAreUnsupported) {
  EXPECT_EQ(CallOnThread(0, MSG_SERVICE_PROVIDER_CREATE), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(ReclaimProviderMutex(), static_cast<DWORD>(WAIT_ABANDONED));
  EXPECT_EQ(CallOnThread(0, MSG_SERVICE_PROVIDER_DELETE), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(ReclaimProviderMutex(), static_cast<DWORD>(WAIT_ABANDONED));
  EXPECT_TRUE(Logged("ServiceEntry: Unsupported context! Context: 6"));
  EXPECT_EQ(m_pAdmin->cOpenProfileSection, 0);
}

TEST_F(ServiceEntryTest, ConfigureWithUIOutsideTheClientTellsTheUser) {
  SetFullProfile(m_pAdmin->Section());
  for (ULONG ulFlags : {static_cast<ULONG>(SERVICE_UI_ALWAYS), static_cast<ULONG>(SERVICE_UI_ALLOWED)}) {
    m_cBoxes = 0;
    EXPECT_EQ(CallServiceEntry(ulFlags, MSG_SERVICE_CONFIGURE), S_OK);
    EXPECT_EQ(m_cBoxes, 1);
    EXPECT_EQ(m_boxCaption, "My Store");
    EXPECT_EQ(m_boxText, "My Store settings can only be changed from Outlook.");
    EXPECT_EQ(ReclaimProviderMutex(), static_cast<DWORD>(WAIT_OBJECT_0));  // released on this path
  }
  EXPECT_EQ(m_pAdmin->Section()->cSetProps, 0);
}

TEST_F(ServiceEntryTest, ConfigureWithUIAndNoSectionFailsWithAnError) {
  m_pAdmin->fRow = false;
  EXPECT_EQ(CallServiceEntry(SERVICE_UI_ALWAYS, MSG_SERVICE_CONFIGURE), MAPI_E_NOT_FOUND);
  EXPECT_EQ(m_cBoxes, 0);
  EXPECT_TRUE(m_fError);
  EXPECT_EQ(ReclaimProviderMutex(), static_cast<DWORD>(WAIT_OBJECT_0));
}

TEST_F(ServiceEntryTest, SilentCreateWithoutUpdatingMutexDoesNothing) {
  EXPECT_EQ(CallOnThread(0, MSG_SERVICE_CREATE), S_OK);
  EXPECT_EQ(m_pAdmin->cOpenProfileSection, 0);
  EXPECT_EQ(m_pAdmin->Section()->cSetProps, 0);
  // The marker mutex was only probed: nobody keeps it.
  HANDLE h = CreateMutexA(NULL, FALSE, "TQUpdatingProfile");
  EXPECT_NE(GetLastError(), static_cast<DWORD>(ERROR_ALREADY_EXISTS));
  CloseHandle(h);
  EXPECT_EQ(ReclaimProviderMutex(), static_cast<DWORD>(WAIT_ABANDONED));
}

TEST_F(ServiceEntryTest, ConfigureWithoutUISavesThePropertiesAsRead) {
  SetFullProfile(m_pAdmin->Section());
  EXPECT_EQ(CallServiceEntry(0, MSG_SERVICE_CONFIGURE), S_OK);
  FakeProfSect* pSection = m_pAdmin->Section();
  EXPECT_EQ(pSection->cSetProps, 1);
  EXPECT_EQ(pSection->setTags.size(), static_cast<size_t>(NUM_PROFILE_PROPS));
  EXPECT_EQ(StringOf(pSection, PR_ZT4_STORE_PATH), "C:\\store\\1.CST");
  EXPECT_EQ(StringOf(pSection, PR_COMMENT), "note");
  EXPECT_EQ(StringOf(pSection, PR_ZT4_STORE_OPTION_TEXT), "opt");
  EXPECT_EQ(pSection->Find(PR_ZT4_STORE_OPTION_FLAG)->Value.b, FALSE);
  EXPECT_TRUE(Logged("ServiceEntry: Context for call: 3"));
  EXPECT_EQ(ReclaimProviderMutex(), static_cast<DWORD>(WAIT_OBJECT_0));
}

TEST_F(ServiceEntryTest, MissingProviderTableGivesItsCodeAndAnError) {
  m_pAdmin->hrGetProviderTable = MAPI_E_NO_ACCESS;
  EXPECT_EQ(CallServiceEntry(0, MSG_SERVICE_CONFIGURE), MAPI_E_NO_ACCESS);
  EXPECT_TRUE(m_fError);
  EXPECT_TRUE(Logged("OpenProviderProfileSection: GetProviderTable failed"));
  EXPECT_EQ(ReclaimProviderMutex(), static_cast<DWORD>(WAIT_OBJECT_0));
}

TEST_F(ServiceEntryTest, SilentCreateWhileProfileIsUpdatedMakesTheStore) {
  HANDLE hUpdating = CreateMutexA(NULL, TRUE, "TQUpdatingProfile");
  ASSERT_NE(hUpdating, static_cast<HANDLE>(NULL));
  SetString(m_pAdmin->Section(), PR_DISPLAY_NAME, "Archive");
  EXPECT_EQ(CallServiceEntry(0, MSG_SERVICE_CREATE), S_OK);
  ReleaseMutex(hUpdating);
  CloseHandle(hUpdating);

  FakeProfSect* pSection = m_pAdmin->Section();
  const std::string path = StringOf(pSection, PR_ZT4_STORE_PATH);
  CHAR szTemp[MAX_PATH] = {};
  GetTempPathA(MAX_PATH, szTemp);
  EXPECT_EQ(path.rfind(std::string(szTemp) + "\\", 0), 0u) << path;
  EXPECT_EQ(path.substr(path.size() - 4), ".CST");
  EXPECT_TRUE(std::filesystem::exists(adp::NativePath(path.c_str()))) << path;  // the file is made
  EXPECT_EQ(StringOf(pSection, PR_PROVIDER_DISPLAY), "ArchiveDepot");
  EXPECT_EQ(StringOf(pSection, PR_COMMENT), "");
  LPSPropValue pKey = pSection->Find(PR_STORE_RECORD_KEY);
  ASSERT_NE(pKey, nullptr);
  ASSERT_EQ(pKey->Value.bin.cb, sizeof(MAPIUID));
  EXPECT_EQ(pKey->Value.bin.lpb[0], 0x10);  // the fake's first NewUID
  LPSPropValue pMdb = pSection->Find(PR_MDB_PROVIDER);
  ASSERT_NE(pMdb, nullptr);
  EXPECT_EQ(memcmp(pMdb->Value.bin.lpb, ZT4_MDB_PROVIDER, 16), 0);
  LPSPropValue pEid = pSection->Find(PR_STORE_ENTRYID);
  ASSERT_NE(pEid, nullptr);
  EXPECT_GT(pEid->Value.bin.cb, CB_PRIVATE_EID);
  EXPECT_EQ(ReclaimProviderMutex(), static_cast<DWORD>(WAIT_OBJECT_0));
}

// ---------------------------------------------------------------------------------------------
TEST(CreateStoreEntryIDTest, WrapsTheStoreTypeEntryIDUnderTheProviderDll) {
  ZT4ProcessAttach(NULL);
  SetMAPIAllocRoutines(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  MAPIUID uid = zt4test::TestStoreUID();
  SBinary eid = {};
  ASSERT_EQ(CreateStoreEntryID(&uid, &eid), S_OK);
  ASSERT_GE(eid.cb, CB_PRIVATE_EID + 22);
  const std::string dll(reinterpret_cast<const char*>(eid.lpb) + 22);
  EXPECT_EQ(dll, "ZT4MSProvider.DLL");
  const PRIVATE_EID* pInner = reinterpret_cast<const PRIVATE_EID*>(eid.lpb + eid.cb - CB_PRIVATE_EID);
  EXPECT_EQ(memcmp(&pInner->guidStore, &uid, sizeof(uid)), 0);
  EXPECT_EQ(pInner->bVersion, 1);
  EXPECT_EQ(pInner->bObjType, MAPI_STORE);
  EXPECT_EQ(pInner->dwObjID, 0u);
  MAPIFreeBuffer(eid.lpb);
  EXPECT_EQ(CreateStoreEntryID(NULL, &eid), MAPI_E_INVALID_PARAMETER);
  ZT4ProcessDetach();
}

TEST(OpenProviderProfileSectionTest, NoRowOrBadAdminIsNotFound) {
  FakeProviderAdmin* pAdmin = new FakeProviderAdmin;
  LPPROFSECT pSection = NULL;
  EXPECT_EQ(OpenProviderProfileSection(pAdmin, &pSection), S_OK);
  ASSERT_NE(pSection, nullptr);
  pSection->Release();
  pAdmin->fRow = false;
  EXPECT_EQ(OpenProviderProfileSection(pAdmin, &pSection), MAPI_E_NOT_FOUND);
  EXPECT_EQ(pSection, nullptr);
  EXPECT_EQ(OpenProviderProfileSection(NULL, &pSection), MAPI_E_INVALID_PARAMETER);
  pAdmin->Release();
}

// ---------------------------------------------------------------------------------------------
// The configuration dialog belongs to the data provider when the process is the mail client. The
// case runs in a copy of this program named OUTLOOK.
TEST_F(ServiceEntryTest, ConfigureInsideTheClientAsksTheDataProvider) {
  if (!std::getenv("ZT4_SRVCE_AS_CLIENT")) GTEST_SKIP() << "runs in the process named OUTLOOK";
  ASSERT_EQ(scriptarchive::RegisterScriptArchive(adtest::BinPath("ZT4ScriptArchive.so")), S_OK);
  EXPECT_EQ(CallServiceEntry(SERVICE_UI_ALWAYS, MSG_SERVICE_CONFIGURE), S_OK);
  EXPECT_EQ(m_cBoxes, 0);
  EXPECT_TRUE(Logged("Showing configuration dialog"));
  EXPECT_EQ(m_pAdmin->cOpenProfileSection, 0);
}

TEST(ServiceEntryProcessTest, ProcessNamedOutlookInAnyCaseTakesTheClientPath) {
  if (std::getenv("ZT4_SRVCE_AS_CLIENT")) GTEST_SKIP();
  adtest::TempHome home;
  const std::string copy = home.Root() + "/OUTLOOK";
  std::filesystem::copy_file(adtest::BinPath("ZT4MSSrvce_test"), copy);
  setenv("ZT4_SRVCE_AS_CLIENT", "1", 1);
  int status = adtest::RunChild(copy, {"--gtest_filter=ServiceEntryTest.ConfigureInsideTheClientAsksTheDataProvider"});
  unsetenv("ZT4_SRVCE_AS_CLIENT");
  EXPECT_EQ(status, 0);
}

}  // namespace
