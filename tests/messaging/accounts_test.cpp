// The account manager stand-in: reached by CoCreateInstance after a logon, initialised with a
// helper naming the profile, and enumerating the configured accounts with their stamps and
// identity entry IDs.
#include <gtest/gtest.h>

#include "accounts.h"
#include "objbase.h"
#include "sessiontest_util.h"

using namespace sessiontest;

namespace {

struct ComScope {
  ComScope() { EXPECT_TRUE(SUCCEEDED(CoInitialize(nullptr))); }
  ~ComScope() { CoUninitialize(); }
};

std::string WideProp(IOlkAccount* account, DWORD prop) {
  ACCT_VARIANT v{};
  std::string out = "<error>";
  if (SUCCEEDED(account->GetProp(prop, &v)) && v.dwType == PT_UNICODE) {
    out = adp::Utf16ToUtf8(reinterpret_cast<char16_t*>(v.Val.pwsz));
    account->FreeMemory(reinterpret_cast<BYTE*>(v.Val.pwsz));
  }
  return out;
}

IOlkAccountManager* Manager(LPMAPISESSION session, const char* profile) {
  IOlkAccountManager* manager = nullptr;
  EXPECT_EQ(CoCreateInstance(CLSID_OlkAccountManager, nullptr, CLSCTX_INPROC_SERVER, IID_IOlkAccountManager,
                             reinterpret_cast<void**>(&manager)),
            S_OK);
  if (!manager) return nullptr;
  IOlkAccountHelper* helper = nullptr;
  EXPECT_EQ(adm::CreateAccountHelper(profile, session, &helper), S_OK);
  EXPECT_EQ(manager->Init(helper, OLK_ACCOUNT_NO_FLAGS), S_OK);
  EXPECT_EQ(manager->Init(helper, OLK_ACCOUNT_NO_FLAGS), E_OLK_ALREADY_INITIALIZED);
  helper->Release();
  return manager;
}

}  // namespace

TEST(Accounts, ConfiguredAccountsAreEnumeratedWithStampsAndIdentities) {
  SessionFixture f;
  ComScope com;
  ASSERT_EQ(adm::SetProfileAccounts("Work", {{"Main", {"jdoe", "Jane Doe", "jane@example.com"}},
                                             {"Archive", {"arch", "Archive Box", "archive@example.com"}}}),
            S_OK);
  LPMAPISESSION session = Logon();
  IOlkAccountManager* manager = Manager(session, "Work");
  ASSERT_NE(manager, nullptr);
  IOlkEnum* accounts = nullptr;
  ASSERT_EQ(manager->EnumerateAccounts(&CLSID_OlkMail, nullptr, OLK_ACCOUNT_NO_FLAGS, &accounts), S_OK);
  DWORD count = 0;
  ASSERT_EQ(accounts->GetCount(&count), S_OK);
  EXPECT_EQ(count, 2u);
  ASSERT_EQ(accounts->Reset(), S_OK);
  std::vector<std::string> smtps;
  for (DWORD i = 0; i < count; ++i) {
    LPUNKNOWN unk = nullptr;
    ASSERT_EQ(accounts->GetNext(&unk), S_OK);
    IOlkAccount* account = nullptr;
    ASSERT_EQ(unk->QueryInterface(IID_IOlkAccount, reinterpret_cast<void**>(&account)), S_OK);
    unk->Release();
    std::string user = i == 0 ? "jdoe" : "arch";
    char prefix[32];
    std::snprintf(prefix, sizeof prefix, "ADACCT:%08X:", static_cast<unsigned>(i + 1));
    EXPECT_EQ(WideProp(account, PROP_ACCT_STAMP), prefix + user);
    EXPECT_EQ(WideProp(account, PROP_ACCT_NAME), i == 0 ? "Main" : "Archive");
    ACCT_VARIANT eid{};
    ASSERT_EQ(account->GetProp(PROP_MAPI_IDENTITY_ENTRYID, &eid), S_OK);
    ASSERT_EQ(eid.dwType, static_cast<DWORD>(PT_BINARY));
    ULONG type = 0;
    LPUNKNOWN user_ = nullptr;
    ASSERT_EQ(session->OpenEntry(eid.Val.bin.cb, reinterpret_cast<LPENTRYID>(eid.Val.bin.pb), nullptr, 0, &type, &user_),
              S_OK);
    account->FreeMemory(eid.Val.bin.pb);
    LPSPropValue v = nullptr;
    ASSERT_EQ(HrGetOneProp(static_cast<LPMAPIPROP>(user_), PR_SMTP_ADDRESS_A, &v), S_OK);
    smtps.push_back(v->Value.lpszA);
    MAPIFreeBuffer(v);
    ASSERT_EQ(HrGetOneProp(static_cast<LPMAPIPROP>(user_), PR_EMAIL_ADDRESS_A, &v), S_OK);
    EXPECT_EQ(std::string(v->Value.lpszA), user);
    MAPIFreeBuffer(v);
    user_->Release();
    ACCT_VARIANT change{};
    EXPECT_EQ(account->SetProp(PROP_ACCT_NAME, &change), E_OLK_PROP_READ_ONLY);
    EXPECT_EQ(account->GetProp(0x7777, &change), E_ACCT_NOT_FOUND);
    account->Release();
  }
  EXPECT_EQ(smtps, (std::vector<std::string>{"jane@example.com", "archive@example.com"}));
  LPUNKNOWN end = nullptr;
  EXPECT_EQ(accounts->GetNext(&end), S_FALSE);
  EXPECT_EQ(end, nullptr);
  accounts->Release();

  ASSERT_EQ(manager->EnumerateAccounts(&CLSID_OlkAddressBook, nullptr, 0, &accounts), S_OK);
  accounts->GetCount(&count);
  EXPECT_EQ(count, 0u);
  accounts->Release();
  ACCT_VARIANT id{};
  id.dwType = PT_LONG;
  id.Val.dw = 2;
  IOlkAccount* found = nullptr;
  ASSERT_EQ(manager->FindAccount(PROP_ACCT_ID, &id, &found), S_OK);
  EXPECT_EQ(WideProp(found, PROP_ACCT_USER_EMAIL_ADDR), "archive@example.com");
  found->Release();
  id.Val.dw = 9;
  EXPECT_EQ(manager->FindAccount(PROP_ACCT_ID, &id, &found), E_ACCT_NOT_FOUND);
  DWORD n = 0;
  DWORD* order = nullptr;
  ASSERT_EQ(manager->GetOrder(&CLSID_OlkMail, &n, &order), S_OK);
  ASSERT_EQ(n, 2u);
  EXPECT_EQ(order[0], 1u);
  EXPECT_EQ(order[1], 2u);
  manager->FreeMemory(reinterpret_cast<BYTE*>(order));
  manager->Release();
  session->Release();
}

TEST(Accounts, WithoutAccountsTheIdentityIsTheOnlyOneAndAnUninitialisedManagerRefuses) {
  SessionFixture f;
  ComScope com;
  LPMAPISESSION session = Logon();
  IOlkAccountManager* raw = nullptr;
  ASSERT_EQ(adm::CreateAccountManager(&raw), S_OK);
  IOlkEnum* accounts = nullptr;
  EXPECT_EQ(raw->EnumerateAccounts(&CLSID_OlkMail, nullptr, 0, &accounts), E_OLK_NOT_INITIALIZED);
  EXPECT_EQ(raw->Init(nullptr, 0), E_INVALIDARG);
  raw->Release();

  IOlkAccountManager* manager = Manager(session, nullptr);  // no name: the default profile
  ASSERT_NE(manager, nullptr);
  ASSERT_EQ(manager->EnumerateAccounts(nullptr, &CLSID_OlkMAPIAccount, 0, &accounts), S_OK);
  DWORD count = 0;
  accounts->GetCount(&count);
  ASSERT_EQ(count, 1u);
  LPUNKNOWN unk = nullptr;
  ASSERT_EQ(accounts->GetNext(&unk), S_OK);
  IOlkAccount* account = nullptr;
  ASSERT_EQ(unk->QueryInterface(IID_IOlkAccount, reinterpret_cast<void**>(&account)), S_OK);
  unk->Release();
  EXPECT_EQ(WideProp(account, PROP_ACCT_STAMP), "ADACCT:00000001:jdoe");
  account->Release();
  accounts->Release();
  manager->Release();

  IOlkAccountHelper* helper = nullptr;
  ASSERT_EQ(adm::CreateAccountHelper("Work", session, &helper), S_OK);
  WCHAR small[2];
  DWORD cch = 2;
  EXPECT_EQ(helper->GetIdentity(small, &cch), E_OUTOFMEMORY);
  EXPECT_EQ(cch, 5u);
  LPUNKNOWN back = nullptr;
  ASSERT_EQ(helper->GetMapiSession(&back), S_OK);
  EXPECT_EQ(back, static_cast<LPUNKNOWN>(session));
  back->Release();
  helper->Release();
  session->Release();
}
