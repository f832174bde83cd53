// The provider object: MSProviderInit, CompareStoreIDs, the profile properties, the IPC key, the
// logon's failure table and its store reuse, the spooler logon, and the module's exports.
#include <gtest/gtest.h>

#include <mapicode.h>
#include <mapitags.h>
#include <mapiutil.h>
#include <mapix.h>
#include <objbase.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "MemHeap.h"
#include "ZT4AccountHelper.h"
#include "ZT4Common.h"
#include "ZT4MSLogon.h"
#include "ZT4MSProvider.h"
#include "ZT4MsgStore.h"
#include "archive/ScriptArchiveRegistration.h"
#include "provider_test_support.h"

using zt4test::FakeProfSect;
using zt4test::FakeSupport;

namespace {

LPMSPROVIDER MakeProvider() {
  ULONG ulVersion = 0;
  LPMSPROVIDER pProvider = NULL;
  EXPECT_EQ(MSProviderInit(NULL, NULL, MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer, 0,
                           ZT4_CURRENT_SPI_VERSION, &ulVersion, &pProvider),
            S_OK);
  return pProvider;
}

TEST(MSProviderInitTest, OldSubsystemGetsTheVersionAndMapiEVersion) {
  ULONG ulVersion = 0;
  LPMSPROVIDER pProvider = reinterpret_cast<LPMSPROVIDER>(0x1234);
  EXPECT_EQ(MSProviderInit(NULL, NULL, MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer, 0, 0x0001000F,
                           &ulVersion, &pProvider),
            MAPI_E_VERSION);
  EXPECT_EQ(ulVersion, 0x00010010u);
  EXPECT_EQ(pProvider, reinterpret_cast<LPMSPROVIDER>(0x1234));  // untouched
  EXPECT_EQ(MSProviderInit(NULL, NULL, NULL, NULL, NULL, 0, ZT4_CURRENT_SPI_VERSION, NULL, &pProvider),
            MAPI_E_INVALID_PARAMETER);

  ulVersion = 0;
  pProvider = MakeProvider();
  ASSERT_NE(pProvider, nullptr);
  EXPECT_EQ(GetMAPIAllocBuffer(), MAPIAllocateBuffer);
  LPUNKNOWN pUnk = NULL;
  EXPECT_EQ(pProvider->QueryInterface(IID_IMSProvider, reinterpret_cast<LPVOID*>(&pUnk)), S_OK);
  EXPECT_EQ(pUnk, pProvider);
  pUnk->Release();
  pUnk = reinterpret_cast<LPUNKNOWN>(0x1);
  EXPECT_EQ(pProvider->QueryInterface(IID_IMSLogon, reinterpret_cast<LPVOID*>(&pUnk)), E_NOINTERFACE);
  EXPECT_EQ(pUnk, nullptr);
  ULONG ulFlags = 0;
  EXPECT_EQ(pProvider->Shutdown(&ulFlags), S_OK);
  EXPECT_EQ(pProvider->Release(), 0u);
}

TEST(CompareStoreIDsTest, SizesIdentityAndIgnoredBytes) {
  LPMSPROVIDER pProvider = MakeProvider();
  PRIVATE_EID a = zt4test::TestEid(MAPI_FOLDER, 7);
  PRIVATE_EID b = a;
  ULONG ulResult = 5;
  EXPECT_EQ(pProvider->CompareStoreIDs(131, zt4test::AsEntryID(a), CB_PRIVATE_EID, zt4test::AsEntryID(b), 0,
                                       &ulResult),
            MAPI_E_INVALID_ENTRYID);
  EXPECT_EQ(ulResult, 0u);
  b.abFlags[0] = 0xFF;
  b.abPadding[1] = 0x77;
  b.szUniqueId[0] = 'x';
  EXPECT_EQ(pProvider->CompareStoreIDs(CB_PRIVATE_EID, zt4test::AsEntryID(a), CB_PRIVATE_EID, zt4test::AsEntryID(b),
                                       0, &ulResult),
            S_OK);
  EXPECT_EQ(ulResult, 1u);
  b.dwObjID = 8;
  EXPECT_EQ(pProvider->CompareStoreIDs(CB_PRIVATE_EID, zt4test::AsEntryID(a), CB_PRIVATE_EID, zt4test::AsEntryID(b),
                                       0, &ulResult),
            S_OK);
  EXPECT_EQ(ulResult, 0u);
  ulResult = 5;
  EXPECT_EQ(pProvider->CompareStoreIDs(CB_PRIVATE_EID, NULL, CB_PRIVATE_EID, zt4test::AsEntryID(b), 0, &ulResult),
            S_OK);
  EXPECT_EQ(ulResult, 0u);
  pProvider->Release();
}

TEST(IPCNotifKeyTest, UidThenTextThenZeros) {
  BYTE abKey[CB_IPC_NOTIF_KEY];
  memset(abKey, 0xCC, sizeof(abKey));
  MAPIUID uid = zt4test::TestStoreUID();
  BuildIPCNotifKey(uid, abKey);
  EXPECT_EQ(memcmp(abKey, &uid, 16), 0);
  EXPECT_STREQ(reinterpret_cast<const char*>(abKey + 16), "ZT4MSPROVIDER IPC NOTIF KEY");
  for (ULONG i = 16 + sizeof("ZT4MSPROVIDER IPC NOTIF KEY"); i < CB_IPC_NOTIF_KEY; ++i) EXPECT_EQ(abKey[i], 0) << i;
}

// ---------------------------------------------------------------------------------------------
class ProviderTest : public zt4test::StoreTest {
 protected:
  void SetUp() override {
    InitTraces(0);  // the test's trace log stays, whatever Logon asks for
    StoreTest::SetUp();
    m_pSupport = new CMAPISupport(m_pFake);
    m_pSupport->AddRef();
  }
  void TearDown() override {
    m_pSupport->Release();
    StoreTest::TearDown();
  }
  FakeProfSect* Section() {
    LPPROFSECT p = NULL;
    m_pFake->OpenProfileSection(NULL, MAPI_MODIFY, &p);
    p->Release();
    return m_pFake->Section();
  }
  void FillSection(const std::string& path) {
    FakeProfSect* pSection = Section();
    SPropValue aProps[6];
    aProps[0].ulPropTag = PR_ZT4_STORE_PATH;
    aProps[0].Value.lpszA = const_cast<LPSTR>(path.c_str());
    aProps[1].ulPropTag = PR_DISPLAY_NAME;
    aProps[1].Value.lpszA = const_cast<LPSTR>("Mine");
    aProps[2].ulPropTag = PR_COMMENT;
    aProps[2].Value.lpszA = const_cast<LPSTR>("c");
    MAPIUID uid = zt4test::TestStoreUID();
    aProps[3].ulPropTag = PR_STORE_RECORD_KEY;
    aProps[3].Value.bin.cb = sizeof(uid);
    aProps[3].Value.bin.lpb = uid.ab;
    aProps[4].ulPropTag = PR_ZT4_STORE_OPTION_TEXT;
    aProps[4].Value.lpszA = const_cast<LPSTR>("t");
    aProps[5].ulPropTag = PR_ZT4_STORE_OPTION_FLAG;
    aProps[5].Value.b = FALSE;
    pSection->SetProps(6, aProps, NULL);
    pSection->cSetProps = 0;
  }
  CMAPISupport* m_pSupport = NULL;
};

TEST_F(ProviderTest, GetProfilePropsWithFullSetWritesNothing) {
  FillSection("C:\\a\\b.CST");
  LPSPropValue pProps = NULL;
  EXPECT_EQ(m_pProvider->GetProfileProps(m_pSupport, &pProps, 0), S_OK);
  ASSERT_NE(pProps, nullptr);
  EXPECT_STREQ(pProps[STORE_PATH].Value.lpszA, "C:\\a\\b.CST");
  EXPECT_EQ(pProps[STORE_OPTION_FLAG].Value.b, FALSE);
  EXPECT_EQ(Section()->cSetProps, 0);
  EXPECT_EQ(m_pFake->ulLastProfileFlags, static_cast<ULONG>(MAPI_MODIFY));
  MAPIFreeBuffer(pProps);
}

TEST_F(ProviderTest, GetProfilePropsMendsMissingOnesWithDefaults) {
  LPSPropValue pProps = NULL;
  EXPECT_EQ(m_pProvider->GetProfileProps(m_pSupport, &pProps, 0), S_OK);
  ASSERT_NE(pProps, nullptr);
  CHAR szTemp[MAX_PATH] = {};
  GetTempPathA(MAX_PATH, szTemp);
  const std::string path = pProps[STORE_PATH].Value.lpszA;
  const std::string prefix = std::string(szTemp) + "\\";
  ASSERT_EQ(path.rfind(prefix, 0), 0u) << path;
  const std::string tick = path.substr(prefix.size(), path.size() - prefix.size() - 4);
  EXPECT_FALSE(tick.empty());
  EXPECT_EQ(tick.find_first_not_of("-0123456789"), std::string::npos) << tick;
  EXPECT_EQ(path.substr(path.size() - 4), ".CST");
  EXPECT_STREQ(pProps[STORE_DISPLAY_NAME].Value.lpszA, "ArchiveDepot");
  EXPECT_STREQ(pProps[STORE_COMMENT].Value.lpszA, "Orvanta Store");
  EXPECT_EQ(pProps[STORE_RECORD_KEY].Value.bin.cb, 16u);
  EXPECT_EQ(pProps[STORE_RECORD_KEY].Value.bin.lpb[0], 0x10);
  EXPECT_STREQ(pProps[STORE_OPTION_TEXT].Value.lpszA, "");
  EXPECT_EQ(pProps[STORE_OPTION_FLAG].Value.b, TRUE);
  FakeProfSect* pSection = Section();
  EXPECT_EQ(pSection->cSetProps, 1);
  EXPECT_EQ(pSection->cSaveChanges, 1);
  EXPECT_EQ(std::string(pSection->Find(PR_ZT4_STORE_PATH)->Value.lpszA), path);
  MAPIFreeBuffer(pProps);
}

TEST_F(ProviderTest, GetProfilePropsWithoutSectionGivesTheCode) {
  m_pFake->hrOpenProfileSection = MAPI_E_NOT_FOUND;
  LPSPropValue pProps = reinterpret_cast<LPSPropValue>(0x1);
  EXPECT_EQ(m_pProvider->GetProfileProps(m_pSupport, &pProps, 0), MAPI_E_NOT_FOUND);
  EXPECT_EQ(pProps, nullptr);
  EXPECT_TRUE(Logged("GetProfileProps: OpenProfileSection failed"));
  EXPECT_EQ(m_pProvider->GetProfileProps(NULL, &pProps, 0), MAPI_E_INVALID_PARAMETER);
}

TEST_F(ProviderTest, OpenStoreListFindsByPathWithoutRegardToCase) {
  CMsgStore* pStore = MakeStore();
  ASSERT_NE(pStore, nullptr);
  CMsgStore* pFound = reinterpret_cast<CMsgStore*>(0x1);
  EXPECT_FALSE(m_pProvider->IsStoreAlreadyOpen(m_path.c_str(), &pFound));
  EXPECT_EQ(pFound, nullptr);
  m_pProvider->AddStoreObjectToList(pStore);
  std::string upper = m_path;
  for (char& c : upper) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  EXPECT_TRUE(m_pProvider->IsStoreAlreadyOpen(upper.c_str(), &pFound));
  EXPECT_EQ(pFound, pStore);
  pFound->Release();
  m_pProvider->RemoveOpenStoreObject(pStore);
  m_pProvider->RemoveOpenStoreObject(pStore);  // not listed: ignored
  EXPECT_FALSE(m_pProvider->IsStoreAlreadyOpen(m_path.c_str(), &pFound));
}

// ---------------------------------------------------------------------------------------------
// Logon needs the data provider: the scriptable archive, registered in the test's home.
class LogonTest : public ProviderTest {
 protected:
  void SetUp() override {
    ProviderTest::SetUp();
    CoInitializeEx(NULL, COINIT_MULTITHREADED);
    ASSERT_EQ(scriptarchive::RegisterScriptArchive(adtest::BinPath("ZT4ScriptArchive.so")), S_OK);
    SetCurrentUserName("tester");
    ResetFirstLogon();
    g_fLookingUpUser = FALSE;
    g_fOpeningStore = FALSE;
  }
  void TearDown() override {
    g_fLookingUpUser = FALSE;
    g_fOpeningStore = FALSE;
    // The folder names a logon read live in this test's private heap, which goes at the end.
    CDefaultFolder::Instance().Reset();
    ProviderTest::TearDown();
    CoUninitialize();
  }
  HRESULT Logon(LPMSLOGON* ppLogon, LPMDB* ppMDB, LPMAPIERROR* ppError = NULL) {
    ULONG cbSecurity = 9;
    LPBYTE pbSecurity = reinterpret_cast<LPBYTE>(0x1);
    LPMAPIERROR pError = NULL;
    HRESULT hr = m_pProvider->Logon(m_pFake, 0, NULL, 0, NULL, 0, NULL, &cbSecurity, &pbSecurity, &pError, ppLogon,
                                    ppMDB);
    EXPECT_EQ(pError, nullptr);  // a client logon never fills it
    if (ppError) *ppError = pError;
    return hr;
  }
  HRESULT SpoolerLogon(LPMSLOGON* ppLogon, LPMDB* ppMDB, LPMAPIERROR* ppError) {
    return m_pProvider->SpoolerLogon(m_pFake, 0, NULL, 0, NULL, 0, NULL, 0, NULL, ppError, ppLogon, ppMDB);
  }
  // The fake's count once the wrappers made for a logon are gone.
  ULONG FakeRefs() {
    m_pFake->AddRef();
    return m_pFake->Release();
  }
  void ExpectFailedLogon() {
    LPMSLOGON pLogon = reinterpret_cast<LPMSLOGON>(0x1);
    LPMDB pMDB = reinterpret_cast<LPMDB>(0x1);
    ULONG cRefs = FakeRefs();
    EXPECT_EQ(Logon(&pLogon, &pMDB), MAPI_E_FAILONEPROVIDER);
    EXPECT_EQ(pLogon, nullptr);
    EXPECT_EQ(pMDB, nullptr);
    EXPECT_EQ(FakeRefs(), cRefs);  // the private support object went
    EXPECT_TRUE(Logged("CMSProvider::Logon:"));
  }
};

TEST_F(LogonTest, RecursiveUserLookupFails) {
  g_fLookingUpUser = TRUE;
  ExpectFailedLogon();
  EXPECT_TRUE(Logged("CMSProvider::Logon: Username call resulted in recursive call"));
}

TEST_F(LogonTest, StoreOpenInProgressFails) {
  g_fOpeningStore = TRUE;
  ExpectFailedLogon();
  EXPECT_TRUE(Logged("CMSProvider::Logon: Another logon call is in progress"));
}

TEST_F(LogonTest, UnreadableProfileFails) {
  m_pFake->hrOpenProfileSection = MAPI_E_NO_ACCESS;
  ExpectFailedLogon();
  EXPECT_TRUE(Logged("GetProfileProps: OpenProfileSection failed"));
  EXPECT_TRUE(Logged("GetProfileProps (pPrivSupObj, &pProps, (HWND)ulUIParam) failed"));
  // The failure is logged as what it was.
  EXPECT_TRUE(Logged("CMSProvider::Logon:80070005"));
}

TEST_F(LogonTest, NoUserNameFails) {
  ClearCurrentUserDetails();
  FillSection(m_log->Home().Root() + "\\nouser.CST");
  ExpectFailedLogon();
}

TEST_F(LogonTest, BadStoreFileFailsAsOneProviderButSpoolerGivesTheCode) {
  FillSection(m_log->Home().Root() + "\\missing\\folder\\x.CST");
  ExpectFailedLogon();
  EXPECT_TRUE(Logged("OpenMsgStoreDataBase"));

  LPMSLOGON pLogon = NULL;
  LPMDB pMDB = NULL;
  LPMAPIERROR pError = NULL;
  HRESULT hr = SpoolerLogon(&pLogon, &pMDB, &pError);
  EXPECT_TRUE(FAILED(hr));
  EXPECT_NE(hr, MAPI_E_FAILONEPROVIDER);
  EXPECT_EQ(pMDB, nullptr);
  EXPECT_NE(pError, nullptr);
  if (pError) MAPIFreeBuffer(pError);
  EXPECT_TRUE(Logged("CMSProvider::SpoolerLogon:"));
}

// A holder of "TQProvider" on another thread: either it keeps the mutex until told, or it ends
// holding it so the mutex is abandoned. The handle stays open meanwhile, so the object lives.
class MutexHolder {
 public:
  explicit MutexHolder(bool fAbandon) {
    m_hTaken = CreateEventA(NULL, TRUE, FALSE, NULL);
    m_hDone = CreateEventA(NULL, TRUE, FALSE, NULL);
    m_thread = std::thread([this, fAbandon] {
      m_hMutex = CreateMutexA(NULL, TRUE, "TQProvider");
      SetEvent(m_hTaken);
      if (!fAbandon) {
        WaitForSingleObject(m_hDone, INFINITE);
        ReleaseMutex(m_hMutex);
      }
    });
    WaitForSingleObject(m_hTaken, INFINITE);
    if (fAbandon) m_thread.join();
  }
  ~MutexHolder() {
    SetEvent(m_hDone);
    if (m_thread.joinable()) m_thread.join();
    CloseHandle(m_hMutex);
    CloseHandle(m_hTaken);
    CloseHandle(m_hDone);
  }

 private:
  HANDLE m_hTaken, m_hDone, m_hMutex = NULL;
  std::thread m_thread;
};

TEST_F(LogonTest, MutexTimeoutFailsAndLeavesTheProviderLockFree) {
  adp::SetTimeScale(100000);  // the 60 s wait passes in under a millisecond
  {
    MutexHolder holder(false);
    ExpectFailedLogon();
  }
  adp::SetTimeScale(1);
  EXPECT_TRUE(Logged("CMSProvider::Logon: Mutex lock came out, reason:258"));
  // Another thread can take the provider lock.
  std::thread t([this] {
    CMsgStore* pStore = NULL;
    EXPECT_FALSE(m_pProvider->IsStoreAlreadyOpen("nothing", &pStore));
  });
  t.join();
}

TEST_F(LogonTest, AbandonedMutexFailsTheLogonAndIsReleased) {
  {
    MutexHolder holder(true);
    ExpectFailedLogon();
  }
  EXPECT_TRUE(Logged("CMSProvider::Logon: Mutex lock came out, reason:128"));
  // The logon owned the abandoned mutex and gave it back.
  std::thread t([] {
    HANDLE h = CreateMutexA(NULL, FALSE, "TQProvider");
    EXPECT_EQ(WaitForSingleObject(h, 0), static_cast<DWORD>(WAIT_OBJECT_0));
    ReleaseMutex(h);
    CloseHandle(h);
  });
  t.join();
}

TEST_F(LogonTest, SecondLogonReturnsTheOpenStore) {
  FillSection(m_log->Home().Root() + "\\first.CST");
  LPMSLOGON pLogon = NULL;
  LPMDB pMDB = NULL;
  ASSERT_EQ(Logon(&pLogon, &pMDB), S_OK);
  ASSERT_NE(pLogon, nullptr);
  ASSERT_NE(pMDB, nullptr);
  EXPECT_EQ(g_pClientStore, static_cast<CMsgStore*>(pMDB));
  // Subscribed on the IPC key for both kinds of events; the status row stands.
  auto subs = m_pFake->Subscriptions();
  ASSERT_FALSE(subs.empty());
  EXPECT_EQ(subs.back().ulEventMask, fnevExtended | fnevNewMail);
  EXPECT_EQ(subs.back().key, IPCKey(static_cast<CMsgStore*>(pMDB)));
  ASSERT_EQ(m_pFake->statusRows.size(), 1u);
  EXPECT_EQ(m_pFake->statusRows[0].size(), 5u);
  EXPECT_EQ(m_pFake->cModifyProfile, 1);
  ASSERT_EQ(m_pFake->providerUIDs.size(), 1u);

  // Same path: the same store, no logon object, and the new wrapper is gone.
  ULONG cRefs = FakeRefs();
  LPMSLOGON pLogon2 = reinterpret_cast<LPMSLOGON>(0x1);
  LPMDB pMDB2 = NULL;
  EXPECT_EQ(Logon(&pLogon2, &pMDB2), S_OK);
  EXPECT_EQ(pMDB2, pMDB);
  EXPECT_EQ(pLogon2, nullptr);
  EXPECT_EQ(FakeRefs(), cRefs);
  pMDB2->Release();

  // Another path: still the process's one client store.
  FillSection(m_log->Home().Root() + "\\second.CST");
  EXPECT_EQ(Logon(&pLogon2, &pMDB2), S_OK);
  EXPECT_EQ(pMDB2, pMDB);
  EXPECT_EQ(pLogon2, nullptr);
  EXPECT_TRUE(Logged("Store object already createed"));
  pMDB2->Release();

  pLogon->Release();
  pMDB->Release();
}

TEST_F(LogonTest, LogonAfterTheClientStoreDiedMakesANewStore) {
  FillSection(m_log->Home().Root() + "\\dead.CST");
  LPMSLOGON pLogon = NULL;
  LPMDB pMDB = NULL;
  ASSERT_EQ(Logon(&pLogon, &pMDB), S_OK);
  pLogon->Release();
  pMDB->Release();  // the store is gone; g_pClientStore still names it
  FillSection(m_log->Home().Root() + "\\fresh.CST");
  LPMSLOGON pLogon2 = NULL;
  LPMDB pMDB2 = NULL;
  ASSERT_EQ(Logon(&pLogon2, &pMDB2), S_OK);
  ASSERT_NE(pLogon2, nullptr);
  EXPECT_EQ(g_pClientStore, static_cast<CMsgStore*>(pMDB2));
  EXPECT_STREQ(static_cast<CMsgStore*>(pMDB2)->m_szPath, (m_log->Home().Root() + "\\fresh.CST").c_str());
  pLogon2->Release();
  pMDB2->Release();
}

TEST_F(LogonTest, SpoolerLogonSubscribesForExtendedOnlyAndLeavesTheClientStore) {
  CMsgStore* pClientBefore = g_pClientStore;
  FillSection(m_log->Home().Root() + "\\spool.CST");
  LPMSLOGON pLogon = NULL;
  LPMDB pMDB = NULL;
  LPMAPIERROR pError = NULL;
  ASSERT_EQ(SpoolerLogon(&pLogon, &pMDB, &pError), S_OK);
  EXPECT_EQ(pError, nullptr);
  ASSERT_NE(pLogon, nullptr);
  EXPECT_EQ(g_pClientStore, pClientBefore);
  EXPECT_TRUE(static_cast<CMsgStore*>(pMDB)->IsSpooler());
  EXPECT_EQ(m_pFake->Subscriptions().back().ulEventMask, fnevExtended);
  pLogon->Release();
  pMDB->Release();
}

// ---------------------------------------------------------------------------------------------
TEST(ProviderModuleTest, ExportsResolveThroughTheLoader) {
  HMODULE hModule = LoadLibraryA(adtest::BinPath("ZT4MSProvider.so").c_str());
  ASSERT_NE(hModule, static_cast<HMODULE>(NULL));
  for (const char* name : {"DllMain", "MSProviderInit", "ServiceEntry", "MergeWithMAPISVC", "RemoveFromMAPISVC",
                           "GetStoreDisplayName"})
    EXPECT_NE(GetProcAddress(hModule, name), nullptr) << name;
  // The module's own copy answers as the provider does.
  auto pfnInit = reinterpret_cast<MSPROVIDERINIT*>(GetProcAddress(hModule, "MSProviderInit"));
  ULONG ulVersion = 0;
  LPMSPROVIDER pProvider = NULL;
  EXPECT_EQ(pfnInit(hModule, NULL, MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer, 0, 0x0001000F, &ulVersion,
                    &pProvider),
            MAPI_E_VERSION);
  EXPECT_EQ(ulVersion, ZT4_CURRENT_SPI_VERSION);
  EXPECT_TRUE(FreeLibrary(hModule));
}

}  // namespace
