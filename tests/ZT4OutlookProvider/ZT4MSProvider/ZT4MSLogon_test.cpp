// The logon object: interfaces, forwarding to the store, the refused status entry and the
// status row.
#include <gtest/gtest.h>

#include <mapicode.h>
#include <mapitags.h>

#include <string>
#include <vector>

#include "ZT4MSLogon.h"
#include "provider_test_support.h"

namespace {

// A support object that also keeps the status row's values.
class RowKeeper : public zt4test::FakeSupport {
 public:
  MAPIMETHOD(ModifyStatusRow)(ULONG cValues, LPSPropValue lpColumnVals, ULONG ulFlags) override {
    FakeSupport::ModifyStatusRow(cValues, lpColumnVals, ulFlags);
    for (ULONG i = 0; i < cValues; ++i) {
      if (PROP_TYPE(lpColumnVals[i].ulPropTag) == PT_STRING8)
        strings.push_back(lpColumnVals[i].Value.lpszA);
      else
        numbers.push_back(lpColumnVals[i].Value.ul);
    }
    return hrStatus;
  }
  std::vector<std::string> strings;
  std::vector<ULONG> numbers;
  HRESULT hrStatus = S_OK;
};

class MSLogonTest : public zt4test::StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    // The back end keeps the first fake; stores made here use the keeper.
    m_pFirstFake = m_pFake;
    m_pFake = m_pKeeper = new RowKeeper;
    m_pStore = MakeStore();
    ASSERT_NE(m_pStore, nullptr);
    m_pLogon = new CMSLogon(m_pStore);
  }
  void TearDown() override {
    if (m_pLogon) m_pLogon->Release();
    StoreTest::TearDown();
    m_pFirstFake->Release();
  }
  ULONG StoreRefs() {
    m_pStore->AddRef();
    return m_pStore->Release();
  }
  CMsgStore* m_pStore = NULL;
  CMSLogon* m_pLogon = NULL;
  zt4test::FakeSupport* m_pFirstFake = NULL;
  RowKeeper* m_pKeeper = NULL;
};

TEST_F(MSLogonTest, InterfacesAndTheStoreReference) {
  LPUNKNOWN pUnk = NULL;
  EXPECT_EQ(m_pLogon->QueryInterface(IID_IMSLogon, reinterpret_cast<LPVOID*>(&pUnk)), S_OK);
  EXPECT_EQ(pUnk, static_cast<IMSLogon*>(m_pLogon));
  pUnk->Release();
  EXPECT_EQ(m_pLogon->QueryInterface(IID_IUnknown, reinterpret_cast<LPVOID*>(&pUnk)), S_OK);
  pUnk->Release();
  pUnk = reinterpret_cast<LPUNKNOWN>(0x1);
  EXPECT_EQ(m_pLogon->QueryInterface(IID_IMsgStore, reinterpret_cast<LPVOID*>(&pUnk)), E_NOINTERFACE);
  EXPECT_EQ(pUnk, nullptr);

  ULONG cWithLogon = StoreRefs();
  m_pLogon->Release();
  m_pLogon = NULL;
  EXPECT_EQ(StoreRefs(), cWithLogon - 1);
}

TEST_F(MSLogonTest, StatusEntryIsRefused) {
  ULONG ulType = 0;
  LPVOID pEntry = NULL;
  EXPECT_EQ(m_pLogon->OpenStatusEntry(NULL, 0, &ulType, &pEntry), MAPI_E_NO_SUPPORT);
  EXPECT_TRUE(Logged("CMSLogon::OpenStatusEntry:80040102"));
}

TEST_F(MSLogonTest, CompareEntryIDsForwardsAndLogsUnderAdvise) {
  PRIVATE_EID a = zt4test::TestEid(MAPI_FOLDER, 3), b = a;
  ULONG ulLogon = 7, ulStore = 9;
  EXPECT_EQ(m_pLogon->CompareEntryIDs(CB_PRIVATE_EID, zt4test::AsEntryID(a), CB_PRIVATE_EID, zt4test::AsEntryID(b), 0,
                                      &ulLogon),
            m_pStore->CompareEntryIDs(CB_PRIVATE_EID, zt4test::AsEntryID(a), CB_PRIVATE_EID, zt4test::AsEntryID(b), 0,
                                      &ulStore));
  EXPECT_EQ(ulLogon, ulStore);
  HRESULT hr = m_pLogon->CompareEntryIDs(5, zt4test::AsEntryID(a), CB_PRIVATE_EID, zt4test::AsEntryID(b), 0, &ulLogon);
  ASSERT_TRUE(FAILED(hr));
  char szExpected[64];
  snprintf(szExpected, sizeof(szExpected), "CMSLogon::Advise:%x", static_cast<unsigned>(hr));
  EXPECT_TRUE(Logged(szExpected));
  EXPECT_FALSE(Logged("CMSLogon::CompareEntryIDs:"));
  EXPECT_EQ(m_pLogon->GetLastErrorCode(), hr);
}

TEST_F(MSLogonTest, OpenEntryForwardsAndWorksAfterLogoff) {
  ULONG ulFlags = 0;
  EXPECT_EQ(m_pLogon->Logoff(&ulFlags), S_OK);
  PRIVATE_EID bad = zt4test::TestEid(MAPI_FOLDER, 3);
  bad.bVersion = 9;
  ULONG ulLogonType = 0, ulStoreType = 0;
  LPUNKNOWN pLogonUnk = NULL, pStoreUnk = NULL;
  HRESULT hrLogon = m_pLogon->OpenEntry(CB_PRIVATE_EID, zt4test::AsEntryID(bad), NULL, 0, &ulLogonType, &pLogonUnk);
  HRESULT hrStore = m_pStore->OpenEntry(CB_PRIVATE_EID, zt4test::AsEntryID(bad), NULL, 0, &ulStoreType, &pStoreUnk);
  EXPECT_EQ(hrLogon, hrStore);
  if (pLogonUnk) pLogonUnk->Release();
  if (pStoreUnk) pStoreUnk->Release();
  if (FAILED(hrLogon)) {
    char szExpected[64];
    snprintf(szExpected, sizeof(szExpected), "CMSLogon::OpenEntry:%x", static_cast<unsigned>(hrLogon));
    EXPECT_TRUE(Logged(szExpected));
  }
  EXPECT_EQ(m_pLogon->Unadvise(0x7777), m_pStore->Unadvise(0x7777));
}

TEST_F(MSLogonTest, StatusRowHasFiveValuesAndTheFixedName) {
  m_pFake->statusRows.clear();
  EXPECT_EQ(m_pLogon->InitializeStatusRow(), S_OK);
  ASSERT_EQ(m_pFake->statusRows.size(), 1u);
  const std::vector<ULONG> expected = {PR_PROVIDER_DISPLAY, PR_RESOURCE_METHODS, PR_STATUS_CODE, PR_STATUS_STRING,
                                       PR_DISPLAY_NAME};
  EXPECT_EQ(m_pFake->statusRows[0], expected);
  EXPECT_EQ(m_pFake->ulLastStatusFlags, 0u);
  EXPECT_EQ(m_pKeeper->strings, (std::vector<std::string>{"ArchiveDepot", "Available", "Sample Mailbox"}));
  EXPECT_EQ(m_pKeeper->numbers, (std::vector<ULONG>{0, STATUS_AVAILABLE}));

  // A refused row is logged and only reported.
  m_pKeeper->hrStatus = MAPI_E_NO_ACCESS;
  EXPECT_EQ(m_pLogon->InitializeStatusRow(), MAPI_E_NO_ACCESS);
  EXPECT_TRUE(Logged("CMSLogon::InitializeStatusRow:80070005"));
}


}  // namespace
