// The current user: the three buffers, the session's identity, the accounts in their order and
// the data provider's look-up by LegacyDN.
#include "ZT4AccountHelper.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ZT4Common_test_util.h"
#include "ZT4MSProvider.h"
#include "sessiontest_util.h"
#include "trace_fixture.h"

namespace {

const char kFixture[] =
    "[user /o=Org/cn=lost]\n"
    "UserName = luser\n"
    "DisplayName = Lost User\n"
    "SmtpAddress = lost@example.com\n";

std::u16string Str(LPCWSTR psz) { return psz ? std::u16string(psz) : u"(null)"; }

size_t Count(const std::string& text, const std::string& part) {
  size_t n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

void SetTwoAccounts(const char* profile) {
  ASSERT_EQ(adm::SetProfileAccounts(profile, {{"Work mail", {"wuser", "Work User", "work@example.com"}},
                                              {"Home mail", {"huser", "Home User", "home@example.com"}}}),
            S_OK);
}

// Clears the buffers around a test.
struct CleanUser {
  CleanUser() { ClearCurrentUserDetails(); }
  ~CleanUser() { ClearCurrentUserDetails(); }
};

// The account manager is a COM class: the client has COM up before any provider runs.
struct ComUp {
  ComUp() { EXPECT_TRUE(SUCCEEDED(CoInitializeEx(NULL, COINIT_MULTITHREADED))); }
  ~ComUp() { CoUninitialize(); }
};

}  // namespace

TEST(ZT4AccountHelperTest, SettersIgnoreEmptyValuesAndValuesEqualButForCase) {
  CleanUser clean;
  SetCurrentUserName("jdoe");
  SetCurrentUserName("JDOE");
  SetCurrentUserName("");
  SetCurrentUserName(NULL);
  EXPECT_STREQ(GetCurrentUserName(), "jdoe");  // filled: the accessor asks no session
  SetCurrentUserName("jsmith");
  EXPECT_STREQ(GetCurrentUserName(), "jsmith");

  SetCurrentUserDisplayName(u"Jane Doe");
  SetCurrentUserDisplayName(u"JANE DOE");
  SetCurrentUserDisplayName(u"");
  SetCurrentUserDisplayName(NULL);
  EXPECT_EQ(Str(GetCurrentUserDisplayName()), u"Jane Doe");

  SetCurrentUserSMTPAddress("Jane@Example.com");
  SetCurrentUserSMTPAddress("jane@example.com");
  SetCurrentUserSMTPAddress(NULL);
  EXPECT_STREQ(GetCurrentUserSMTPAddress(), "Jane@Example.com");

  std::string strLong(3000, 'x');
  SetCurrentUserSMTPAddress(strLong.c_str());
  EXPECT_EQ(std::string(GetCurrentUserSMTPAddress()), std::string(1023, 'x'));  // kept within its buffer

  ClearCurrentUserDetails();
  SetCurrentUserName("jdoe");
  EXPECT_EQ(Str(GetCurrentUserDisplayName()), u"");
  EXPECT_STREQ(GetCurrentUserSMTPAddress(), "");
}

TEST(ZT4AccountHelperTest, DetailsComeFromTheSessionIdentityOnce) {
  zt4test::TraceLog log(5);
  CleanUser clean;
  // No subsystem to ask: logged, nothing filled, the lookup flag down again.
  EXPECT_EQ(PopulateCurrentUserDetails(), MAPI_E_NOT_INITIALIZED);
  EXPECT_TRUE(log.Has(" MapiLogonEx Failed:80040605\r\n"));
  EXPECT_FALSE(g_fLookingUpUser);
  EXPECT_STREQ(GetCurrentUserName(), "");

  sessiontest::SessionFixture session;  // "Work": jdoe, Jane Doe, jane@example.com
  EXPECT_STREQ(GetCurrentUserName(), "jdoe");
  EXPECT_EQ(Str(GetCurrentUserDisplayName()), u"Jane Doe");
  EXPECT_STREQ(GetCurrentUserSMTPAddress(), "jane@example.com");
  EXPECT_FALSE(g_fLookingUpUser);
  EXPECT_TRUE(log.Has(" User name is empty, need to fetch it from the session\r\n"));
  size_t cLookups = Count(log.Text(), "User name is empty");
  EXPECT_EQ(PopulateCurrentUserDetails(), S_OK);
  EXPECT_EQ(Count(log.Text(), "User name is empty"), cLookups);  // filled: no second lookup
}

TEST(ZT4AccountHelperTest, AProfileWithoutIdentityFailsTheLookup) {
  zt4test::TraceLog log(5);
  CleanUser clean;
  sessiontest::SessionFixture session(false, false);
  EXPECT_EQ(PopulateCurrentUserDetails(), MAPI_E_NOT_FOUND);
  EXPECT_TRUE(log.Has(" QueryIdentity Failed:8004010f\r\n"));
  EXPECT_STREQ(GetCurrentUserName(), "");
  EXPECT_EQ(PopulateCurrentUserDetails(0, NULL), MAPI_E_INVALID_PARAMETER);
}

TEST(ZT4AccountHelperTest, AccountsAreListedInOrderWithTheirLegacyDN) {
  zt4test::TraceLog log(5);
  ComUp com;
  sessiontest::SessionFixture session;
  SetTwoAccounts("Work");
  std::vector<ACCOUNT_RECORD> accounts;
  ASSERT_EQ(GetAccountsByOrder(accounts), S_OK);
  ASSERT_EQ(accounts.size(), 2u);
  EXPECT_EQ(accounts[0].strStamp, u"ADACCT:00000001:wuser");
  EXPECT_EQ(accounts[0].strLegacyDN, "wuser");
  EXPECT_EQ(accounts[1].strLegacyDN, "huser");
  EXPECT_FALSE(accounts[0].identityEntryID.empty());
  EXPECT_NE(accounts[0].identityEntryID, accounts[1].identityEntryID);

  // Without accounts configured the identity is the one account.
  ASSERT_EQ(adm::SetProfileAccounts("Work", {}), S_OK);
  ASSERT_EQ(GetAccountsByOrder(accounts), S_OK);
  ASSERT_EQ(accounts.size(), 1u);
  EXPECT_EQ(accounts[0].strLegacyDN, "jdoe");
}

TEST(ZT4AccountHelperTest, AccountsAreThoseOfTheProfileTheProcessIsLoggedOnTo) {
  ComUp com;
  sessiontest::SessionFixture session;
  LPPROFADMIN profAdmin = nullptr;
  ASSERT_EQ(MAPIAdminProfiles(0, &profAdmin), S_OK);
  ASSERT_EQ(profAdmin->CreateProfile(msgtest::T("Other"), nullptr, 0, 0), S_OK);
  profAdmin->Release();
  SetTwoAccounts("Other");
  LPMAPISESSION lpClient = nullptr;
  ASSERT_EQ(MAPILogonEx(0, msgtest::T("Other"), nullptr, MAPI_EXTENDED, &lpClient), S_OK);
  std::vector<ACCOUNT_RECORD> accounts;
  ASSERT_EQ(GetAccountsByOrder(accounts), S_OK);
  ASSERT_EQ(accounts.size(), 2u);
  EXPECT_EQ(accounts[0].strLegacyDN, "wuser");
  lpClient->Release();
}

TEST(ZT4AccountHelperTest, SeveralAccountsGiveTheFirstAccountsDetails) {
  zt4test::TraceLog log(5);
  CleanUser clean;
  ASSERT_NE(zt4test::UseScriptArchive(log.Home(), kFixture), nullptr);
  sessiontest::SessionFixture session;
  SetCurrentUserName("jdoe");
  SetTwoAccounts("Work");
  EXPECT_EQ(QueryDefaultUserInfo(), S_OK);
  EXPECT_STREQ(GetCurrentUserName(), "wuser");
  EXPECT_EQ(Str(GetCurrentUserDisplayName()), u"Work User");
  EXPECT_STREQ(GetCurrentUserSMTPAddress(), "work@example.com");
  EXPECT_TRUE(log.Has(" Detected multiple accounts\r\n"));
  EXPECT_TRUE(log.Has(" The current SMTPAddress: work@example.com, displayName: Work User, userName: wuser\r\n"));
  EXPECT_FALSE(log.Has("Using the account returned by Outlook."));

  // One account: the session's identity stands.
  ClearCurrentUserDetails();
  SetCurrentUserName("jdoe");
  ASSERT_EQ(adm::SetProfileAccounts("Work", {}), S_OK);
  size_t cDetected = Count(log.Text(), "Detected multiple accounts");
  EXPECT_EQ(QueryDefaultUserInfo(), S_OK);
  EXPECT_STREQ(GetCurrentUserName(), "jdoe");
  EXPECT_EQ(Count(log.Text(), "Detected multiple accounts"), cDetected);
}

TEST(ZT4AccountHelperTest, AFailedIdentityIsLookedUpByItsLegacyDN) {
  zt4test::TraceLog log(5);
  CleanUser clean;
  IZT4DataProvider* pProvider = zt4test::UseScriptArchive(log.Home(), kFixture);
  ASSERT_NE(pProvider, nullptr);
  IZT4ProviderConfigPtr spConfig = pProvider->GetConfigurationParams();
  sessiontest::SessionFixture session;
  SetCurrentUserName("jdoe");

  std::vector<ACCOUNT_RECORD> accounts(2);
  accounts[0].identityEntryID = {1, 2, 3, 4, 5, 6, 7, 8};  // no identity of this session
  accounts[0].strLegacyDN = "/o=Org/cn=lost";
  EXPECT_EQ(UseFirstAccount(spConfig.GetInterfacePtr(), accounts), S_OK);
  EXPECT_TRUE(log.Has(" Failed to get current user information using MAPI. Using LegacyDN [/o=Org/cn=lost] to get "
                      "details from webserver..\r\n"));
  EXPECT_STREQ(GetCurrentUserName(), "luser");
  EXPECT_EQ(Str(GetCurrentUserDisplayName()), u"Lost User");
  EXPECT_STREQ(GetCurrentUserSMTPAddress(), "lost@example.com");

  // A LegacyDN the server doesn't know: nothing changes.
  accounts[0].identityEntryID.clear();
  accounts[0].strLegacyDN = "/o=Org/cn=nobody";
  EXPECT_EQ(UseFirstAccount(spConfig.GetInterfacePtr(), accounts), MAPI_E_NOT_FOUND);
  EXPECT_STREQ(GetCurrentUserName(), "luser");
  EXPECT_EQ(UseFirstAccount(NULL, accounts), E_INVALIDARG);
}

TEST(ZT4AccountHelperTest, WithoutASessionTheClientsAccountStands) {
  zt4test::TraceLog log(5);
  CleanUser clean;
  ASSERT_NE(zt4test::UseScriptArchive(log.Home(), kFixture), nullptr);
  SetCurrentUserName("jdoe");
  EXPECT_EQ(QueryDefaultUserInfo(), MAPI_E_NOT_INITIALIZED);
  EXPECT_TRUE(log.Has(" Using the account returned by Outlook.\r\n"));
  EXPECT_STREQ(GetCurrentUserName(), "jdoe");
}

TEST(ZT4AccountHelperTest, HelperAnswersAsPublished) {
  sessiontest::SessionFixture session;
  LPMAPISESSION lpSession = sessiontest::Logon();
  ASSERT_NE(lpSession, nullptr);
  CAccountHelper* pHelper = new CAccountHelper(u"Work", lpSession);

  WCHAR wsz[8] = {};
  DWORD cch = 2;
  EXPECT_EQ(pHelper->GetIdentity(wsz, &cch), E_OUTOFMEMORY);
  EXPECT_EQ(cch, 5u);
  EXPECT_EQ(pHelper->GetIdentity(wsz, &cch), S_OK);
  EXPECT_EQ(Str(wsz), u"Work");
  EXPECT_EQ(pHelper->GetIdentity(wsz, NULL), E_INVALIDARG);

  LPUNKNOWN lpUnk = NULL;
  EXPECT_EQ(pHelper->GetMapiSession(&lpUnk), S_OK);
  EXPECT_EQ(lpUnk, static_cast<LPUNKNOWN>(lpSession));
  lpUnk->Release();
  EXPECT_EQ(pHelper->GetMapiSession(NULL), E_INVALIDARG);
  EXPECT_EQ(pHelper->HandsOffSession(), S_OK);

  IOlkAccountHelper* pIface = NULL;
  EXPECT_EQ(pHelper->QueryInterface(IID_IOlkAccountHelper, (LPVOID*)&pIface), S_OK);
  EXPECT_EQ(pIface, static_cast<IOlkAccountHelper*>(pHelper));
  pIface->Release();
  LPVOID pv = reinterpret_cast<LPVOID>(1);
  EXPECT_EQ(pHelper->QueryInterface(IID_IOlkAccount, &pv), E_NOINTERFACE);
  EXPECT_EQ(pv, nullptr);
  EXPECT_EQ(pHelper->Release(), 0u);

  CAccountHelper* pEmpty = new CAccountHelper(NULL, NULL);
  EXPECT_EQ(pEmpty->GetMapiSession(&lpUnk), MAPI_E_NOT_FOUND);
  cch = 8;
  EXPECT_EQ(pEmpty->GetIdentity(wsz, &cch), S_OK);
  EXPECT_EQ(Str(wsz), u"");
  pEmpty->Release();
  lpSession->Release();
}
