// Sessions: MAPILogonEx, the stores table, store logons through the test provider, identity,
// the status table, wrapped store entry IDs, logoff and a notification across two processes.
#include <gtest/gtest.h>

#include <cstring>

#include "addrbook.h"
#include "sessiontest_util.h"
#include "windows.h"

using namespace sessiontest;

namespace {

std::string LastError(LPMAPISESSION session, HRESULT hr) {
  LPMAPIERROR err = nullptr;
  EXPECT_EQ(session->GetLastError(hr, 0, &err), S_OK);
  std::string text = err && err->lpszError ? reinterpret_cast<const char*>(err->lpszError) : "";
  MAPIFreeBuffer(err);
  return text;
}

std::vector<BYTE> Wrapped(const char* dll, const std::vector<BYTE>& original) {
  ULONG cb = 0;
  LPENTRYID eid = nullptr;
  EXPECT_EQ(WrapStoreEntryID(0, const_cast<LPTSTR>(dll), static_cast<ULONG>(original.size()),
                             reinterpret_cast<LPENTRYID>(const_cast<BYTE*>(original.data())), &cb, &eid),
            S_OK);
  std::vector<BYTE> out(reinterpret_cast<BYTE*>(eid), reinterpret_cast<BYTE*>(eid) + cb);
  MAPIFreeBuffer(eid);
  return out;
}

}  // namespace

TEST(Session, LogonErrorsAreThePublishedOnes) {
  adtest::TempHome home;
  LPMAPISESSION session = nullptr;
  EXPECT_EQ(MAPILogonEx(0, nullptr, nullptr, MAPI_EXTENDED, &session), MAPI_E_NOT_INITIALIZED);
  EXPECT_EQ(session, nullptr);
  MapiScope mapi;
  EXPECT_EQ(MAPILogonEx(0, nullptr, nullptr, MAPI_EXTENDED, nullptr), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(MAPILogonEx(0, nullptr, nullptr, MAPI_EXTENDED | 0x04000000, &session), MAPI_E_UNKNOWN_FLAGS);
  EXPECT_EQ(MAPILogonEx(0, nullptr, nullptr, MAPI_EXTENDED | MAPI_LOGON_UI, &session), MAPI_E_LOGON_FAILED);
  EXPECT_EQ(MAPILogonEx(0, T("Nobody"), nullptr, MAPI_EXTENDED, &session), MAPI_E_LOGON_FAILED);
  std::string longName(200, 'x');
  EXPECT_EQ(MAPILogonEx(0, T(longName.c_str()), nullptr, MAPI_EXTENDED, &session), MAPI_E_LOGON_FAILED);
  EXPECT_EQ(session, nullptr);
}

TEST(Session, SharedPerProfileUnlessNewSessionIsAsked) {
  SessionFixture f;
  LPMAPISESSION a = Logon();
  LPMAPISESSION b = nullptr;
  ASSERT_EQ(MAPILogonEx(0, T("work"), nullptr, MAPI_EXTENDED | MAPI_ALLOW_OTHERS, &b), S_OK);
  EXPECT_EQ(a, b);  // the name compares without regard to case
  LPMAPISESSION c = Logon(MAPI_EXTENDED | MAPI_NEW_SESSION);
  EXPECT_NE(a, c);
  std::u16string wide = adp::Utf8ToUtf16("Work");
  LPMAPISESSION d = nullptr;
  ASSERT_EQ(MAPILogonEx(0, reinterpret_cast<LPTSTR>(wide.data()), nullptr, MAPI_EXTENDED | MAPI_UNICODE, &d), S_OK);
  EXPECT_EQ(d, a);
  d->Release();
  b->Release();
  EXPECT_EQ(a->Logoff(0, 0, 0), S_OK);
  LPMAPITABLE table = nullptr;
  EXPECT_EQ(a->GetMsgStoresTable(0, &table), MAPI_E_END_OF_SESSION);
  LPMAPISESSION e = Logon();
  EXPECT_NE(e, a);  // a logged-off session is no longer shared
  e->Release();
  a->Release();
  c->Release();
}

TEST(Session, StoresTableListsTheStoreWithAWrappedEntryID) {
  SessionFixture f(true);
  LPMAPISESSION session = Logon();
  LPSRowSet rows = Stores(session);
  ASSERT_EQ(rows->cRows, 2u);
  int defaults = 0;
  for (ULONG i = 0; i < rows->cRows; ++i) {
    const SRow& row = rows->aRow[i];
    const SPropValue* eid = Find(row, PR_ENTRYID);
    ASSERT_NE(eid, nullptr);
    std::string dll;
    std::vector<BYTE> original;
    ASSERT_EQ(adm::UnwrapStoreEntryID(eid->Value.bin.cb, reinterpret_cast<LPENTRYID>(eid->Value.bin.lpb), &dll,
                                      &original),
              S_OK);
    EXPECT_EQ(dll, i == 0 ? "MSGPROVIDER_MODULE.DLL" : "msgprovider_module.dll");
    EXPECT_NE(Find(row, PR_RECORD_KEY), nullptr);
    EXPECT_NE(Find(row, PR_INSTANCE_KEY), nullptr);
    EXPECT_NE(Find(row, PR_MDB_PROVIDER), nullptr);
    bool isDefault = Find(row, PR_DEFAULT_STORE)->Value.b;
    EXPECT_EQ(isDefault, (Find(row, PR_RESOURCE_FLAGS)->Value.l & STATUS_DEFAULT_STORE) != 0);
    defaults += isDefault;
  }
  EXPECT_EQ(defaults, 1);
  EXPECT_EQ(Text(rows->aRow[0], PR_PROVIDER_DISPLAY_A), "Test Store");
  EXPECT_TRUE(Find(rows->aRow[0], PR_DEFAULT_STORE)->Value.b);  // STATUS_DEFAULT_STORE in MAPISVC.INF
  FreeProws(rows);
  LPMAPITABLE table = nullptr;
  EXPECT_EQ(session->GetMsgStoresTable(0x1, &table), MAPI_E_UNKNOWN_FLAGS);
  EXPECT_EQ(session->GetMsgStoresTable(MAPI_UNICODE, &table), S_OK);
  LPSRowSet wide = AllRows(table);
  EXPECT_EQ(Find(wide->aRow[0], PR_PROVIDER_DISPLAY_W) != nullptr, true);
  FreeProws(wide);
  session->Release();
}

TEST(Session, OpenMsgStoreInitialisesTheProviderOnceAndLogsOnWithTheSupportObject) {
  SessionFixture f;
  LPMAPISESSION session = Logon();
  LPSRowSet rows = Stores(session);
  std::string providerHex = Hex(Find(rows->aRow[0], PR_PROVIDER_UID)->Value.bin.lpb, 16);
  FreeProws(rows);
  LPMDB store = OpenStore(session);
  ASSERT_NE(store, nullptr);
  LPMDB again = OpenStore(session);
  EXPECT_EQ(again, store);
  EXPECT_EQ(f.Count("MSProviderInit"), 1u);
  ASSERT_EQ(f.Count("Logon "), 1u);
  for (const auto& line : f.Log()) {
    if (line.rfind("MSProviderInit", 0) == 0) {
      EXPECT_EQ(line, "MSProviderInit mapiver=10010");
    }
    if (line.rfind("Logon ", 0) == 0) {
      EXPECT_EQ(line, "Logon profile=Work cb=20 flags=5 provider=" + providerHex + " user=jdoe");
    }
  }
  // The store's own entry ID now names it in the profile and opens it again.
  LPSPropValue eid = nullptr;
  ASSERT_EQ(HrGetOneProp(store, PR_STORE_ENTRYID, &eid), S_OK);
  rows = Stores(session);
  EXPECT_EQ(Bin(Find(rows->aRow[0], PR_ENTRYID)), Bin(eid));
  FreeProws(rows);
  LPMDB third = nullptr;
  EXPECT_EQ(session->OpenMsgStore(0, eid->Value.bin.cb, reinterpret_cast<LPENTRYID>(eid->Value.bin.lpb),
                                  &IID_IMsgStore, 0, &third),
            S_OK);
  EXPECT_EQ(third, store);
  ULONG type = 0;
  LPUNKNOWN unk = nullptr;
  EXPECT_EQ(session->OpenEntry(eid->Value.bin.cb, reinterpret_cast<LPENTRYID>(eid->Value.bin.lpb), nullptr, 0, &type,
                               &unk),
            S_OK);
  EXPECT_EQ(type, static_cast<ULONG>(MAPI_STORE));
  unk->Release();
  MAPIFreeBuffer(eid);
  // Entry IDs of the store's objects route to it by the UID the provider registered.
  LPSPropValue root = nullptr;
  ASSERT_EQ(HrGetOneProp(store, PR_IPM_SUBTREE_ENTRYID, &root), S_OK);
  EXPECT_EQ(session->OpenEntry(root->Value.bin.cb, reinterpret_cast<LPENTRYID>(root->Value.bin.lpb), nullptr, 0, &type,
                               &unk),
            S_OK);
  EXPECT_EQ(type, static_cast<ULONG>(MAPI_FOLDER));
  unk->Release();
  ULONG same = 0;
  EXPECT_EQ(session->CompareEntryIDs(root->Value.bin.cb, reinterpret_cast<LPENTRYID>(root->Value.bin.lpb),
                                     root->Value.bin.cb, reinterpret_cast<LPENTRYID>(root->Value.bin.lpb), 0, &same),
            S_OK);
  EXPECT_TRUE(same);
  MAPIFreeBuffer(root);
  third->Release();
  again->Release();
  store->Release();
  session->Release();
  EXPECT_EQ(f.Count("Shutdown"), 1u);
}

TEST(Session, MalformedAndUnknownStoreEntryIDsAreRefused) {
  SessionFixture f;
  LPMAPISESSION session = Logon();
  std::vector<BYTE> good = Wrapped("MSGPROVIDER_MODULE.DLL", {1, 2, 3, 4, 5});
  std::string dll;
  std::vector<BYTE> original;
  ASSERT_EQ(adm::UnwrapStoreEntryID(static_cast<ULONG>(good.size()), reinterpret_cast<LPENTRYID>(good.data()), &dll,
                                    &original),
            S_OK);
  EXPECT_EQ(dll, "MSGPROVIDER_MODULE.DLL");
  EXPECT_EQ(original, (std::vector<BYTE>{1, 2, 3, 4, 5}));
  EXPECT_EQ(good.size() % 4, 1u);  // 4 + 16 + 2 + 23 bytes of name, padded to 48, then 5

  std::vector<std::vector<BYTE>> bad;
  bad.push_back({});
  bad.push_back(std::vector<BYTE>(good.begin(), good.begin() + 20));
  auto flipped = good;
  flipped[5] ^= 1;  // the wrapping UID
  bad.push_back(flipped);
  auto noNul = std::vector<BYTE>(good.begin(), good.begin() + 30);  // name cut before its NUL
  bad.push_back(noNul);
  auto padding = good;
  padding[46] = 7;  // a padding byte
  bad.push_back(padding);
  auto shortOriginal = std::vector<BYTE>(good.begin(), good.begin() + 50);  // 2 bytes of entry ID
  bad.push_back(shortOriginal);
  auto flags = good;
  flags[0] = 1;
  bad.push_back(flags);
  for (auto& b : bad) {
    LPMDB store = nullptr;
    EXPECT_EQ(session->OpenMsgStore(0, static_cast<ULONG>(b.size()), reinterpret_cast<LPENTRYID>(b.data()), nullptr, 0,
                                    &store),
              MAPI_E_INVALID_ENTRYID)
        << b.size();
    EXPECT_EQ(store, nullptr);
  }
  std::vector<BYTE> unknown = Wrapped("OTHER.DLL", {1, 2, 3, 4});
  LPMDB store = nullptr;
  EXPECT_EQ(session->OpenMsgStore(0, static_cast<ULONG>(unknown.size()), reinterpret_cast<LPENTRYID>(unknown.data()),
                                  nullptr, 0, &store),
            MAPI_E_NOT_FOUND);
  EXPECT_FALSE(LastError(session, MAPI_E_NOT_FOUND).empty());
  EXPECT_EQ(session->OpenMsgStore(0, static_cast<ULONG>(good.size()), reinterpret_cast<LPENTRYID>(good.data()), nullptr,
                                  0x08000000, &store),
            MAPI_E_UNKNOWN_FLAGS);
  ULONG cb = 0;
  LPENTRYID eid = nullptr;
  EXPECT_EQ(WrapStoreEntryID(0, nullptr, 4, reinterpret_cast<LPENTRYID>(good.data()), &cb, &eid),
            MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(WrapStoreEntryID(0, T("X.DLL"), 2, reinterpret_cast<LPENTRYID>(good.data()), &cb, &eid),
            MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(f.Count("Logon"), 0u);
  session->Release();
}

TEST(Session, IdentityComesFromTheProfile) {
  SessionFixture f;
  LPMAPISESSION session = Logon();
  ULONG cb = 0, type = 0;
  LPENTRYID eid = nullptr;
  ASSERT_EQ(session->QueryIdentity(&cb, &eid), S_OK);
  LPUNKNOWN unk = nullptr;
  ASSERT_EQ(session->OpenEntry(cb, eid, &IID_IMailUser, 0, &type, &unk), S_OK);
  EXPECT_EQ(type, static_cast<ULONG>(MAPI_MAILUSER));
  auto* user = static_cast<LPMAILUSER>(unk);
  SizedSPropTagArray(4, tags) = {4, {PR_EMAIL_ADDRESS_A, PR_SMTP_ADDRESS_A, PR_DISPLAY_NAME_W, PR_ENTRYID}};
  ULONG n = 0;
  LPSPropValue v = nullptr;
  ASSERT_EQ(user->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), 0, &n, &v), S_OK);
  EXPECT_STREQ(v[0].Value.lpszA, "jdoe");
  EXPECT_STREQ(v[1].Value.lpszA, "jane@example.com");
  EXPECT_EQ(adp::Utf16ToUtf8(v[2].Value.lpszW), "Jane Doe");
  EXPECT_EQ(Bin(&v[3]), std::vector<BYTE>(reinterpret_cast<BYTE*>(eid), reinterpret_cast<BYTE*>(eid) + cb));
  MAPIFreeBuffer(v);
  user->Release();
  EXPECT_EQ(session->OpenEntry(cb, eid, &IID_IMsgStore, 0, &type, &unk), MAPI_E_INTERFACE_NOT_SUPPORTED);
  MAPIFreeBuffer(eid);
  BYTE junk[24] = {0, 0, 0, 0, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 1, 0, 0, 0};
  EXPECT_EQ(session->OpenEntry(sizeof junk, reinterpret_cast<LPENTRYID>(junk), nullptr, 0, &type, &unk),
            MAPI_E_UNKNOWN_ENTRYID);
  EXPECT_EQ(session->OpenEntry(3, reinterpret_cast<LPENTRYID>(junk), nullptr, 0, &type, &unk), MAPI_E_INVALID_ENTRYID);
  EXPECT_EQ(session->OpenEntry(0, nullptr, nullptr, 0, &type, &unk), MAPI_E_INVALID_ENTRYID);
  session->Release();

  EXPECT_EQ(adm::SetProfileIdentity("Work", "", nullptr, ""), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(adm::SetProfileIdentity("Nobody", "a", "b", "c"), MAPI_E_NOT_FOUND);
}

TEST(Session, WithoutIdentityQueryIdentityIsNotFound) {
  SessionFixture f(false, false);
  LPMAPISESSION session = Logon();
  ULONG cb = 7;
  LPENTRYID eid = nullptr;
  EXPECT_EQ(session->QueryIdentity(&cb, &eid), MAPI_E_NOT_FOUND);
  EXPECT_EQ(cb, 0u);
  EXPECT_EQ(eid, nullptr);
  session->Release();
}

TEST(Session, StatusTableShowsTheSubsystemAndTheRowsProvidersPublish) {
  SessionFixture f;
  LPMAPISESSION session = Logon();
  LPMDB store = OpenStore(session);
  ASSERT_NE(store, nullptr);
  LPMAPITABLE table = nullptr;
  ASSERT_EQ(session->GetStatusTable(0, &table), S_OK);
  LPSRowSet rows = AllRows(table);
  bool subsystem = false, provider = false;
  for (ULONG i = 0; i < rows->cRows; ++i) {
    const SRow& row = rows->aRow[i];
    ULONG type = Find(row, PR_RESOURCE_TYPE)->Value.l;
    if (type == MAPI_SUBSYSTEM) {
      subsystem = true;
      EXPECT_EQ(Text(row, PR_IDENTITY_DISPLAY_A), "Jane Doe");
      EXPECT_NE(Find(row, PR_IDENTITY_ENTRYID), nullptr);
    }
    if (type == MAPI_STORE_PROVIDER) {
      provider = true;
      EXPECT_EQ(Text(row, PR_DISPLAY_NAME_A), "Sample Mailbox");
      EXPECT_EQ(Text(row, PR_STATUS_STRING_A), "Available");
      EXPECT_EQ(Text(row, PR_PROVIDER_DLL_NAME_A), "MSGPROVIDER_MODULE.DLL");
      EXPECT_EQ(Find(row, PR_STATUS_CODE)->Value.l, static_cast<LONG>(STATUS_AVAILABLE));
      EXPECT_EQ(Find(row, PR_OBJECT_TYPE)->Value.l, static_cast<LONG>(MAPI_STATUS));
      EXPECT_NE(Find(row, PR_ROWID), nullptr);
    }
  }
  EXPECT_TRUE(subsystem);
  EXPECT_TRUE(provider);
  FreeProws(rows);
  store->Release();
  EXPECT_EQ(session->Logoff(0, 0, 0), S_OK);
  session->Release();
}

TEST(Session, LogoffLogsOffEachStoreInOrderThenShutsTheProviderDown) {
  SessionFixture f(true);
  LPMAPISESSION session = Logon();
  LPSRowSet rows = Stores(session);
  std::string first = Hex(Find(rows->aRow[0], PR_PROVIDER_UID)->Value.bin.lpb, 16);
  std::string second = Hex(Find(rows->aRow[1], PR_PROVIDER_UID)->Value.bin.lpb, 16);
  FreeProws(rows);
  LPMDB a = OpenStore(session, "Test Store");
  LPMDB b = OpenStore(session, "Multi Store");
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  EXPECT_NE(a, b);
  EXPECT_EQ(f.Count("MSProviderInit"), 1u);
  EXPECT_EQ(f.Count("Logon "), 2u);
  a->Release();
  b->Release();
  EXPECT_EQ(session->Logoff(0, 0x100, 0), MAPI_E_UNKNOWN_FLAGS);
  EXPECT_EQ(session->Logoff(0, MAPI_LOGOFF_SHARED, 0), S_OK);
  std::vector<std::string> tail;
  for (const auto& l : f.Log()) {
    if (l.rfind("Logoff", 0) == 0 || l == "Shutdown") tail.push_back(l);
  }
  EXPECT_EQ(tail, (std::vector<std::string>{"Logoff provider=" + first, "Logoff provider=" + second, "Shutdown"}));
  ULONG cb = 0;
  LPENTRYID eid = nullptr;
  EXPECT_EQ(session->QueryIdentity(&cb, &eid), MAPI_E_END_OF_SESSION);
  EXPECT_EQ(session->Logoff(0, 0, 0), S_OK);  // a second logoff has nothing left to do
  session->Release();
  EXPECT_EQ(f.Count("Shutdown"), 1u);
}

TEST(Session, SpoolerProcessUsesSpoolerLogon) {
  SessionFixture f;
  adm::SetSpoolerProcess(true);
  LPMAPISESSION session = Logon(MAPI_EXTENDED | MAPI_NEW_SESSION);
  LPMDB store = OpenStore(session);
  adm::SetSpoolerProcess(false);
  ASSERT_NE(store, nullptr);
  EXPECT_EQ(f.Count("SpoolerLogon profile=Work"), 1u);
  EXPECT_EQ(f.Count("Logon "), 0u);
  LPMAPITABLE table = nullptr;
  ASSERT_EQ(session->GetStatusTable(0, &table), S_OK);
  LPSRowSet rows = AllRows(table);
  bool spooler = false;
  for (ULONG i = 0; i < rows->cRows; ++i) spooler |= Find(rows->aRow[i], PR_RESOURCE_TYPE)->Value.l == MAPI_SPOOLER;
  EXPECT_TRUE(spooler);
  FreeProws(rows);
  store->Release();
  session->Release();
}

TEST(Session, AFailedLogonReportsTheProvidersErrorAndReleasesTheProvider) {
  SessionFixture f;
  LPMAPISESSION session = Logon();
  {
    EnvScope fail("ADTEST_STORE_FAIL", "1");
    LPMDB store = OpenStore(session, "", MAPI_E_LOGON_FAILED);
    EXPECT_EQ(store, nullptr);
  }
  EXPECT_FALSE(LastError(session, MAPI_E_LOGON_FAILED).empty());
  EXPECT_EQ(f.Count("Shutdown"), 1u);
  LPMDB store = OpenStore(session);  // the next try works and initialises the provider anew
  ASSERT_NE(store, nullptr);
  EXPECT_EQ(f.Count("MSProviderInit"), 2u);
  store->Release();
  session->Release();
}

TEST(Session, SessionAdviseAndProfileSections) {
  SessionFixture f;
  LPMAPISESSION session = Logon();
  LPPROFSECT section = nullptr;
  EXPECT_EQ(session->OpenProfileSection(nullptr, nullptr, 0, &section), MAPI_E_INVALID_PARAMETER);
  MAPIUID global;
  std::memcpy(global.ab, pbGlobalProfileSectionGuid, 16);
  ASSERT_EQ(session->OpenProfileSection(&global, nullptr, 0, &section), S_OK);
  LPSPropValue v = GetOne(section, PR_AD_IDENTITY_USER);
  EXPECT_STREQ(v->Value.lpszA, "jdoe");
  MAPIFreeBuffer(v);
  section->Release();
  EXPECT_EQ(session->Unadvise(99), MAPI_E_NOT_FOUND);
  LPMAPIADVISESINK sink = nullptr;
  ASSERT_EQ(HrAllocAdviseSink([](LPVOID, ULONG, LPNOTIFICATION) -> LONG { return 0; }, nullptr, &sink), S_OK);
  ULONG conn = 0;
  EXPECT_EQ(session->Advise(0, nullptr, 0, sink, &conn), MAPI_E_INVALID_PARAMETER);
  ASSERT_EQ(session->Advise(0, nullptr, fnevCriticalError, sink, &conn), S_OK);
  EXPECT_EQ(session->Unadvise(conn), S_OK);
  EXPECT_EQ(session->Unadvise(conn), MAPI_E_NOT_FOUND);
  sink->Release();
  session->Release();
}

TEST(Session, ASecondProcessReceivesANotificationSentThroughTheSupportObject) {
  SessionFixture f;
  LPMAPISESSION session = Logon();
  LPMDB store = OpenStore(session);
  ASSERT_NE(store, nullptr);
  EXPECT_EQ(adtest::RunChild(adtest::BinPath("session_child"), {"notify"}), 0);
  std::string want = "Notified pid=" + std::to_string(GetCurrentProcessId()) + " type=2";
  EXPECT_TRUE(WaitFor([&] {
    for (const auto& l : f.Log()) {
      if (l == want) return true;
    }
    return false;
  }));
  store->Release();
  session->Release();
}
