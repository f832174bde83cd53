// A logon that names no profile, as a provider makes one from inside its client's logon.
#include <gtest/gtest.h>

#include <string>

#include "sessiontest_util.h"

using namespace sessiontest;

namespace {

// A second, non-default profile with the test store and an identity of its own.
void MakeOtherProfile() {
  LPPROFADMIN profAdmin = nullptr;
  LPSERVICEADMIN admin = nullptr;
  ASSERT_EQ(MAPIAdminProfiles(0, &profAdmin), S_OK);
  ASSERT_EQ(profAdmin->CreateProfile(T("Other"), nullptr, 0, 0), S_OK);
  ASSERT_EQ(profAdmin->AdminServices(T("Other"), nullptr, 0, 0, &admin), S_OK);
  EXPECT_EQ(admin->CreateMsgService(T("TESTSVC"), T("Test"), 0, 0), S_OK);
  admin->Release();
  profAdmin->Release();
  ASSERT_EQ(adm::SetProfileIdentity("Other", "ouser", "Other User", "other@example.com"), S_OK);
}

LPMAPISESSION LogonTo(const char* profile, ULONG flags = MAPI_EXTENDED) {
  LPMAPISESSION session = nullptr;
  EXPECT_EQ(MAPILogonEx(0, T(profile), nullptr, flags, &session), S_OK);
  return session;
}

}  // namespace

TEST(SessionAnyProfile, ANamelessLogonJoinsTheSessionTheProcessHas) {
  SessionFixture f;
  MakeOtherProfile();
  LPMAPISESSION other = LogonTo("Other");
  ASSERT_NE(other, nullptr);

  LPMAPISESSION nameless = Logon(MAPI_LOGON_UI | MAPI_EXTENDED);
  EXPECT_EQ(nameless, other);
  LPMAPISESSION byDefault = Logon(MAPI_ALLOW_OTHERS | MAPI_EXTENDED | MAPI_USE_DEFAULT);
  EXPECT_EQ(byDefault, other);
  LPMAPISESSION fresh = Logon(MAPI_EXTENDED | MAPI_NEW_SESSION);  // never joins
  EXPECT_NE(fresh, other);

  // Once the default profile has a session of its own, that one is meant.
  LPMAPISESSION work = LogonTo("Work");
  EXPECT_NE(work, other);
  LPMAPISESSION again = Logon(MAPI_EXTENDED);
  EXPECT_EQ(again, work);

  for (LPMAPISESSION s : {again, work, fresh, byDefault, nameless, other})
    if (s) s->Release();
}

TEST(SessionAnyProfile, WithoutAnySessionTheDefaultProfileIsUsed) {
  SessionFixture f;
  MakeOtherProfile();
  LPMAPISESSION nameless = Logon(MAPI_LOGON_UI | MAPI_EXTENDED);
  ASSERT_NE(nameless, nullptr);
  LPMAPISESSION work = LogonTo("Work");
  EXPECT_EQ(nameless, work);
  work->Release();
  nameless->Release();
}

TEST(SessionAnyProfile, AProviderReachesItsClientsProfileFromInsideItsLogon) {
  SessionFixture f;
  MakeOtherProfile();
  EnvScope any("ADTEST_STORE_ANY_PROFILE", "1");
  LPMAPISESSION other = LogonTo("Other");
  ASSERT_NE(other, nullptr);
  LPMDB store = OpenStore(other);  // the provider logs on again inside: must not block
  ASSERT_NE(store, nullptr);
  bool found = false;
  for (const auto& line : f.Log())
    if (line.rfind("Logon profile=Other", 0) == 0) found = line.find("user=ouser") != std::string::npos;
  EXPECT_TRUE(found);
  store->Release();
  other->Release();
}
