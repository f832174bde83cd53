// Client and spooler contexts of one store in two processes: the spooler logs on to the same
// profile while the client is logged on, and a receive-folder change crosses between them over
// the inter-context key in both directions. The spooler program of the product serves the same
// profile beside the client.
#include <gtest/gtest.h>

#include <fstream>

#include "provider_session.h"
#include "spoolerctl.h"

using namespace zt4it;

namespace {

const char kMailbox[] = "[folder Projects]\n";

std::vector<BYTE> ClassRow(LPMAPITABLE table, const std::string& cls) {
  table->SeekRow(BOOKMARK_BEGINNING, 0, nullptr);
  Rows rows = AllRows(table);
  for (ULONG i = 0; i < rows.Count(); ++i)
    for (ULONG v = 0; v < rows[i].cValues; ++v) {
      const SPropValue& p = rows[i].lpProps[v];
      if ((PROP_TYPE(p.ulPropTag) == PT_STRING8 || PROP_TYPE(p.ulPropTag) == PT_UNICODE) && NarrowProp(&p) == cls)
        return BinProp(FindProp(rows[i], PR_ENTRYID));
    }
  return {};
}

ULONG RowCount(LPMAPITABLE table) {
  ULONG n = 0;
  EXPECT_EQ(table->GetRowCount(0, &n), S_OK);
  return n;
}

class Event {
 public:
  explicit Event(const char* name) : m_h(CreateEventA(nullptr, TRUE, FALSE, name)) {}
  ~Event() { CloseHandle(m_h); }
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;
  HANDLE Get() const { return m_h; }

 private:
  HANDLE m_h;
};

}  // namespace

TEST(ProviderContexts, ReceiveFolderChangesCrossBetweenClientAndSpooler) {
  AD_PROVIDER_TEST_IN_OWN_PROCESS();
  ProviderSession s(kMailbox);
  ASSERT_NO_FATAL_FAILURE(s.PrepareAndLogon());
  IMsgStore* store = s.Store();
  Ref<IMAPITable> rfs;
  ASSERT_EQ(store->GetReceiveFolderTable(0, rfs.Out()), S_OK);
  const ULONG rowsBefore = RowCount(rfs.Get());

  // A new server folder the client's data provider never heard of: the spooler's data provider
  // object reads the fixture afresh and must mirror it.
  s.RewriteFixture(std::string(kMailbox) + "[folder Later]\n");

  Event ready("ZT4IT.SpoolerReady");
  Event done("ZT4IT.ClientDone");
  adtest::ChildProcess spooler(kContextsChild, {"spooler", s.Profile(), "IPM.Note.FromClient", "IPM.Note.FromSpooler",
                                                "Later"});
  ASSERT_EQ(WaitForSingleObject(ready.Get(), 60000), WAIT_OBJECT_0);

  Ref<IMAPIFolder> projects = s.FindFolder("Projects");
  ASSERT_TRUE(projects);
  std::vector<BYTE> target = BinProp(GetProp(projects.Get(), PR_ENTRYID).get());
  ASSERT_EQ(target.size(), CB_EID);
  ASSERT_EQ(store->SetReceiveFolder(reinterpret_cast<LPTSTR>(const_cast<char*>("IPM.Note.FromClient")), 0, CB_EID,
                                    reinterpret_cast<LPENTRYID>(target.data())),
            S_OK);
  // The client's own event comes back to it and adds nothing; its own change is in its table.
  EXPECT_EQ(ClassRow(rfs.Get(), "IPM.Note.FromClient"), target);

  std::vector<BYTE> fromSpooler;
  bool arrived = WaitUntil([&] { return !(fromSpooler = ClassRow(rfs.Get(), "IPM.Note.FromSpooler")).empty(); });
  SetEvent(done.Get());
  EXPECT_EQ(spooler.Wait(), 0) << "see the exit codes of " << kContextsChild;
  ASSERT_TRUE(arrived) << "the spooler's SetReceiveFolder never reached the client";
  EXPECT_EQ(fromSpooler, target);
  EXPECT_EQ(RowCount(rfs.Get()), rowsBefore + 2);
  EXPECT_TRUE(s.LogHas("ContextNotify: Notification received: fnevExtended"));

  // The client can still answer after the spooler went away.
  ULONG cb = 0;
  LPENTRYID eid = nullptr;
  EXPECT_EQ(store->GetReceiveFolder(reinterpret_cast<LPTSTR>(const_cast<char*>("IPM.Note.FromClient")), 0, &cb, &eid,
                                    nullptr),
            S_OK);
  EXPECT_EQ(cb, CB_EID);
  MAPIFreeBuffer(eid);
}

TEST(ProviderContexts, BadReceiveFolderSettingsAreRefused) {
  AD_PROVIDER_TEST_IN_OWN_PROCESS();
  ProviderSession s(kMailbox);
  ASSERT_NO_FATAL_FAILURE(s.PrepareAndLogon());
  IMsgStore* store = s.Store();
  Ref<IMAPIFolder> projects = s.FindFolder("Projects");
  ASSERT_TRUE(projects);
  std::vector<BYTE> target = BinProp(GetProp(projects.Get(), PR_ENTRYID).get());
  ASSERT_EQ(target.size(), CB_EID);
  auto set = [&](const std::string& cls, ULONG cb, BYTE* eid) {
    return store->SetReceiveFolder(reinterpret_cast<LPTSTR>(const_cast<char*>(cls.c_str())), 0, cb,
                                   reinterpret_cast<LPENTRYID>(eid));
  };
  EXPECT_EQ(set(std::string(256, 'A'), CB_EID, target.data()), E_INVALIDARG);
  EXPECT_EQ(set("IPM..Note", CB_EID, target.data()), E_INVALIDARG);
  EXPECT_EQ(set(".IPM", CB_EID, target.data()), E_INVALIDARG);
  EXPECT_EQ(set("IPM.", CB_EID, target.data()), E_INVALIDARG);
  EXPECT_EQ(set("IPM.Note", 131, target.data()), E_INVALIDARG);
  EXPECT_EQ(set("IPM.Note", CB_EID, nullptr), E_INVALIDARG);
  std::vector<BYTE> foreign = target;
  foreign[4] ^= 0xFF;
  EXPECT_EQ(set("IPM.Note", CB_EID, foreign.data()), E_INVALIDARG);
  // The client context has no spooler duties.
  EXPECT_EQ(store->FinishedMsg(0, CB_EID, reinterpret_cast<LPENTRYID>(target.data())), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(store->NotifyNewMail(nullptr), MAPI_E_NO_SUPPORT);
}

TEST(ProviderContexts, SpoolerProgramServesTheProfileBesideTheClient) {
  AD_PROVIDER_TEST_IN_OWN_PROCESS();
  ProviderSession s(kMailbox);
  ASSERT_NO_FATAL_FAILURE(s.PrepareAndLogon());
  adtest::ChildProcess spooler("archivedepot-spooler", {"--profile", s.Profile()});
  // The ready file appears once its SpoolerLogon succeeded; a failed logon ends the program.
  const std::string ready = adcli::SpoolerReadyPath(s.Profile());
  ASSERT_TRUE(WaitUntil([&] { return std::ifstream(ready).good(); })) << "the spooler never became ready";
  // The client keeps working while the spooler serves the same store.
  Ref<IMAPIFolder> projects = s.FindFolder("Projects");
  EXPECT_TRUE(projects);
  HANDLE stop = CreateEventA(nullptr, TRUE, FALSE, adcli::SpoolerStopEventName(s.Profile()).c_str());
  ASSERT_NE(stop, nullptr);
  SetEvent(stop);
  EXPECT_EQ(spooler.Wait(), 0);
  CloseHandle(stop);
  EXPECT_FALSE(s.LogHas("CMSProvider::SpoolerLogon:"));
}
