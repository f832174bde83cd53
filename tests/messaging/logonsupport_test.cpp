// The logon support object on its own: the slots a store uses, the ones it must not, and the
// message-flow helpers (sent mail, recipients, progress) on the in-memory test store.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>

#include "logonsupport.h"
#include "profile.h"
#include "sessiontest_util.h"
#include "statustable.h"
#include "teststore.h"

using namespace sessiontest;

namespace {

struct SupportFixture : SessionFixture {
  std::shared_ptr<adm::Profile> profile;
  std::shared_ptr<adm::StatusTable> status;
  std::shared_ptr<adm::LogonState> state = std::make_shared<adm::LogonState>();
  adm::ProviderInfo provider;
  LPMAPISUP sup = nullptr;

  SupportFixture() {
    EXPECT_EQ(adm::Profile::Open("Work", &profile), S_OK);
    std::vector<adm::ServiceInfo> services;
    EXPECT_EQ(profile->GetServices(&services), S_OK);
    provider = services.at(0).providers.at(0);
    EXPECT_EQ(adm::StatusTable::Create(&status), S_OK);
    adm::LogonContext context{profile, provider, adm::ProfileRuntimeDirectory(*profile), status, state};
    EXPECT_EQ(adm::CreateLogonSupport(context, &sup), S_OK);
  }
  ~SupportFixture() { sup->Release(); }

  teststore::MsgStore* Store() {
    teststore::MsgStore* store = teststore::NewStore(sup);
    std::lock_guard<std::mutex> guard(state->lock);
    state->store = store;
    return store;
  }
  void Forget() {
    std::lock_guard<std::mutex> guard(state->lock);
    state->store = nullptr;
  }
};

void SetProp(IMAPIProp* p, const SPropValue& v) { ASSERT_EQ(p->SetProps(1, const_cast<LPSPropValue>(&v), nullptr), S_OK); }

teststore::Message* SavedMessage(teststore::Folder* folder, const char* subject) {
  LPMESSAGE m = nullptr;
  EXPECT_EQ(folder->CreateMessage(nullptr, 0, &m), S_OK);
  SPropValue v{};
  v.ulPropTag = PR_SUBJECT_A;
  v.Value.lpszA = const_cast<LPSTR>(subject);
  SetProp(m, v);
  EXPECT_EQ(m->SaveChanges(0), S_OK);
  return static_cast<teststore::Message*>(m);
}

}  // namespace

TEST(LogonSupport, SlotsAStoreMustNotUseAreRefused) {
  SupportFixture f;
  LPMAPISUP s = f.sup;
  ULONG cb = 5, type = 5, result = 5;
  LPENTRYID eid = reinterpret_cast<LPENTRYID>(&cb);
  LPUNKNOWN unk = reinterpret_cast<LPUNKNOWN>(&cb);
  LPADRLIST list = reinterpret_cast<LPADRLIST>(&cb);
  LPMAPITABLE table = reinterpret_cast<LPMAPITABLE>(&cb);
  EXPECT_EQ(s->Address(nullptr, nullptr, &list), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(list, nullptr);
  EXPECT_EQ(s->CreateOneOff(nullptr, nullptr, nullptr, 0, &cb, &eid), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(eid, nullptr);
  EXPECT_EQ(s->OpenEntry(0, nullptr, nullptr, 0, &type, &unk), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(unk, nullptr);
  EXPECT_EQ(s->CompareEntryIDs(0, nullptr, 0, nullptr, 0, &result), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(result, 0u);
  EXPECT_EQ(s->GetOneOffTable(0, &table), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(table, nullptr);
  EXPECT_EQ(s->SpoolerYield(0), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(s->SpoolerNotify(0, nullptr), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(s->RegisterPreprocessor(nullptr, nullptr, nullptr, nullptr, nullptr, 0), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(s->MakeInvalid(0, nullptr, 0, 0), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(s->UpdatePAB(0, nullptr), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(s->StatusRecips(nullptr, nullptr), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(s->DoConfigPropsheet(0, 0, nullptr, nullptr, nullptr, 0), MAPI_E_NO_SUPPORT);
  LPMAPIERROR err = nullptr;
  ASSERT_EQ(s->GetLastError(MAPI_E_NO_SUPPORT, 0, &err), S_OK);
  EXPECT_NE(std::string(reinterpret_cast<const char*>(err->lpszError)).find("DoConfigPropsheet"), std::string::npos);
  MAPIFreeBuffer(err);
  LPUNKNOWN self = nullptr;
  EXPECT_EQ(s->QueryInterface(IID_IMAPISup, reinterpret_cast<void**>(&self)), S_OK);
  self->Release();
  EXPECT_EQ(s->QueryInterface(IID_IMsgStore, reinterpret_cast<void**>(&self)), MAPI_E_INTERFACE_NOT_SUPPORTED);
}

TEST(LogonSupport, ProfileUidsAllocatorsAndWrapping) {
  SupportFixture f;
  LPALLOCATEBUFFER alloc = nullptr;
  LPALLOCATEMORE more = nullptr;
  LPFREEBUFFER freeBuf = nullptr;
  ASSERT_EQ(f.sup->GetMemAllocRoutines(&alloc, &more, &freeBuf), S_OK);
  EXPECT_EQ(alloc, &MAPIAllocateBuffer);
  EXPECT_EQ(freeBuf, &MAPIFreeBuffer);
  LPPROFSECT section = nullptr;
  ASSERT_EQ(f.sup->OpenProfileSection(nullptr, MAPI_MODIFY, &section), S_OK);
  LPSPropValue uid = GetOne(section, PR_PROVIDER_UID);
  EXPECT_EQ(std::memcmp(uid->Value.bin.lpb, f.provider.uid.ab, 16), 0);
  MAPIFreeBuffer(uid);
  section->Release();
  MAPIUID a{}, b{};
  ASSERT_EQ(f.sup->NewUID(&a), S_OK);
  ASSERT_EQ(f.sup->NewUID(&b), S_OK);
  EXPECT_NE(std::memcmp(&a, &b, sizeof a), 0);
  EXPECT_EQ(f.sup->SetProviderUID(&a, 1), MAPI_E_UNKNOWN_FLAGS);
  EXPECT_EQ(f.sup->SetProviderUID(nullptr, 0), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(f.sup->SetProviderUID(&a, 0), S_OK);
  EXPECT_EQ(f.sup->SetProviderUID(&a, 0), S_OK);
  ASSERT_EQ(f.state->providerUids.size(), 1u);
  EXPECT_EQ(std::memcmp(&f.state->providerUids[0], &a, sizeof a), 0);
  EXPECT_EQ(f.sup->ModifyProfile(0x4000), MAPI_E_UNKNOWN_FLAGS);
  EXPECT_EQ(f.sup->ModifyProfile(0), S_OK);
  EXPECT_TRUE(f.state->permanent);

  BYTE original[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  ULONG cb = 0;
  LPENTRYID wrapped = nullptr;
  ASSERT_EQ(f.sup->WrapStoreEntryID(sizeof original, reinterpret_cast<LPENTRYID>(original), &cb, &wrapped), S_OK);
  std::string dll;
  std::vector<BYTE> back;
  ASSERT_EQ(adm::UnwrapStoreEntryID(cb, wrapped, &dll, &back), S_OK);
  EXPECT_EQ(dll, "MSGPROVIDER_MODULE.DLL");
  EXPECT_EQ(back, std::vector<BYTE>(original, original + 8));
  MAPIFreeBuffer(wrapped);
  EXPECT_EQ(f.sup->WrapStoreEntryID(0, nullptr, &cb, &wrapped), MAPI_E_INVALID_PARAMETER);

  ULONG flags = LOGOFF_ORDERLY;
  EXPECT_EQ(f.sup->StoreLogoffTransports(&flags), S_OK);
  EXPECT_EQ(flags, static_cast<ULONG>(LOGOFF_COMPLETE));
  flags = 0x100;
  EXPECT_EQ(f.sup->StoreLogoffTransports(&flags), MAPI_E_UNKNOWN_FLAGS);
  EXPECT_EQ(f.sup->StoreLogoffTransports(nullptr), MAPI_E_INVALID_PARAMETER);
}

TEST(LogonSupport, StatusRowsAreReplacedOrMerged) {
  SupportFixture f;
  SPropValue row[2] = {};
  row[0].ulPropTag = PR_STATUS_CODE;
  row[0].Value.l = STATUS_AVAILABLE;
  row[1].ulPropTag = PR_STATUS_STRING_A;
  row[1].Value.lpszA = const_cast<LPSTR>("Available");
  EXPECT_EQ(f.sup->ModifyStatusRow(0, row, 0), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(f.sup->ModifyStatusRow(2, row, 0x1), MAPI_E_UNKNOWN_FLAGS);
  ASSERT_EQ(f.sup->ModifyStatusRow(2, row, 0), S_OK);
  SPropValue update{};
  update.ulPropTag = PR_STATUS_STRING_A;
  update.Value.lpszA = const_cast<LPSTR>("Busy");
  ASSERT_EQ(f.sup->ModifyStatusRow(1, &update, STATUSROW_UPDATE), S_OK);
  LPMAPITABLE table = nullptr;
  ASSERT_EQ(f.status->GetView(0, &table), S_OK);
  LPSRowSet rows = AllRows(table);
  ASSERT_EQ(rows->cRows, 1u);
  EXPECT_EQ(Text(rows->aRow[0], PR_STATUS_STRING_A), "Busy");
  EXPECT_EQ(Find(rows->aRow[0], PR_STATUS_CODE)->Value.l, static_cast<LONG>(STATUS_AVAILABLE));
  EXPECT_EQ(Text(rows->aRow[0], PR_PROVIDER_DLL_NAME_A), "MSGPROVIDER_MODULE.DLL");
  FreeProws(rows);
  ASSERT_EQ(f.sup->ModifyStatusRow(1, &update, 0), S_OK);  // a replacement drops the code
  ASSERT_EQ(f.status->GetView(0, &table), S_OK);
  rows = AllRows(table);
  EXPECT_EQ(Find(rows->aRow[0], PR_STATUS_CODE), nullptr);
  FreeProws(rows);
}

TEST(LogonSupport, SubscribeNotifyUnsubscribe) {
  SupportFixture f;
  static std::atomic<int> calls{0};
  calls = 0;
  LPMAPIADVISESINK sink = nullptr;
  ASSERT_EQ(HrAllocAdviseSink([](LPVOID, ULONG n, LPNOTIFICATION) -> LONG { calls += static_cast<int>(n); return 0; },
                              nullptr, &sink),
            S_OK);
  SizedNOTIFKEY(4, key) = {4, {'k', 'e', 'y', '1'}};
  ULONG conn = 0;
  ASSERT_EQ(f.sup->Subscribe(reinterpret_cast<LPNOTIFKEY>(&key), fnevExtended, 0, sink, &conn), S_OK);
  sink->Release();
  BYTE payload[3] = {1, 2, 3};
  NOTIFICATION n{};
  n.ulEventType = fnevExtended;
  n.info.ext.ulEvent = 7;
  n.info.ext.cb = sizeof payload;
  n.info.ext.pbEventParameters = payload;
  ULONG flags = 0;
  ASSERT_EQ(f.sup->Notify(reinterpret_cast<LPNOTIFKEY>(&key), 1, &n, &flags), S_OK);
  EXPECT_TRUE(WaitFor([] { return calls.load() == 1; }));
  EXPECT_EQ(f.sup->Notify(reinterpret_cast<LPNOTIFKEY>(&key), 1, &n, nullptr), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(f.sup->Unsubscribe(conn + 100), MAPI_E_NOT_FOUND);
  EXPECT_EQ(f.sup->Unsubscribe(conn), S_OK);
  EXPECT_EQ(f.sup->Subscribe(nullptr, fnevExtended, 0, sink, &conn), MAPI_E_INVALID_PARAMETER);
}

TEST(LogonSupport, SentMailIsMovedOrDeletedAndReleased) {
  SupportFixture f;
  teststore::MsgStore* store = f.Store();
  teststore::Folder* inbox = store->Find("Inbox");
  teststore::Folder* sent = store->Find("Sent Items");
  teststore::Message* m = SavedMessage(inbox, "to file");
  SetProp(m, teststore::Message::BinProp(PR_SENTMAIL_ENTRYID, sent->EntryID()));
  ASSERT_EQ(f.sup->DoSentMail(0, m), S_OK);  // takes our reference
  EXPECT_TRUE(inbox->messages.empty());
  ASSERT_EQ(sent->messages.size(), 1u);

  teststore::Message* gone = SavedMessage(inbox, "to delete");
  SPropValue del{};
  del.ulPropTag = PR_DELETE_AFTER_SUBMIT;
  del.Value.b = TRUE;
  SetProp(gone, del);
  ASSERT_EQ(f.sup->DoSentMail(0, gone), S_OK);
  EXPECT_TRUE(inbox->messages.empty());
  EXPECT_EQ(sent->messages.size(), 1u);

  std::vector<BYTE> id = store->Store()->EntryID(sent->messages[0]);
  EXPECT_EQ(f.sup->CompleteMsg(0, static_cast<ULONG>(id.size()), reinterpret_cast<LPENTRYID>(id.data())), S_OK);
  EXPECT_EQ(f.sup->CompleteMsg(0, 0, nullptr), MAPI_E_INVALID_PARAMETER);
  teststore::Message* flagged = SavedMessage(inbox, "flags");
  EXPECT_EQ(f.sup->DoSentMail(1, flagged), MAPI_E_UNKNOWN_FLAGS);
  flagged->Release();
  f.Forget();
  teststore::Message* orphan = SavedMessage(inbox, "no store");
  EXPECT_EQ(f.sup->DoSentMail(0, orphan), MAPI_E_CALL_FAILED);
  orphan->Release();
  store->Release();
}

TEST(LogonSupport, SubmissionHelpersAndCopyingThroughTheStore) {
  SupportFixture f;
  teststore::MsgStore* store = f.Store();
  teststore::Folder* inbox = store->Find("Inbox");
  teststore::Message* m = SavedMessage(inbox, "outgoing");
  LPADRLIST list = nullptr;
  MAPIAllocateBuffer(CbNewADRLIST(1), reinterpret_cast<void**>(&list));
  list->cEntries = 1;
  SPropValue v[2] = {};
  v[0].ulPropTag = PR_DISPLAY_NAME_A;
  v[0].Value.lpszA = const_cast<LPSTR>("Ann");
  v[1].ulPropTag = PR_RESPONSIBILITY;
  v[1].Value.b = TRUE;
  ScDupPropset(2, v, MAPIAllocateBuffer, &list->aEntries[0].rgPropVals);
  list->aEntries[0].cValues = 2;
  ASSERT_EQ(m->ModifyRecipients(0, list), S_OK);
  FreePadrlist(list);
  ULONG flags = 99;
  EXPECT_EQ(f.sup->PrepareSubmit(m, &flags), S_OK);
  EXPECT_EQ(flags, 0u);
  ASSERT_EQ(f.sup->ExpandRecips(m, &flags), S_OK);
  EXPECT_EQ(flags, static_cast<ULONG>(NEEDS_SPOOLER));
  LPMAPITABLE table = nullptr;
  ASSERT_EQ(m->GetRecipientTable(0, &table), S_OK);
  LPSRowSet rows = AllRows(table);
  ASSERT_EQ(rows->cRows, 1u);
  EXPECT_FALSE(Find(rows->aRow[0], PR_RESPONSIBILITY)->Value.b);
  EXPECT_EQ(Text(rows->aRow[0], PR_DISPLAY_NAME_A), "Ann");
  FreeProws(rows);
  EXPECT_EQ(f.sup->ExpandRecips(nullptr, &flags), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(m->SubmitMessage(0), S_OK);

  // A store forwards its copying to the support object.
  LPMESSAGE copy = nullptr;
  ASSERT_EQ(store->Find("Sent Items")->CreateMessage(nullptr, 0, &copy), S_OK);
  ASSERT_EQ(m->CopyTo(0, nullptr, nullptr, 0, nullptr, &IID_IMessage, copy, 0, nullptr), S_OK);
  EXPECT_EQ(static_cast<teststore::Message*>(copy)->RecipientCount(), 1u);
  EXPECT_EQ(m->CopyTo(0, nullptr, nullptr, 0, nullptr, nullptr, copy, 0, nullptr), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(m->CopyTo(0, nullptr, nullptr, 0, nullptr, &IID_IMessage, copy, 0x1000, nullptr), MAPI_E_UNKNOWN_FLAGS);
  SizedSPropTagArray(1, subject) = {1, {PR_SUBJECT_A}};
  EXPECT_EQ(m->CopyProps(reinterpret_cast<LPSPropTagArray>(&subject), 0, nullptr, &IID_IMessage, copy, 0, nullptr),
            S_OK);
  copy->Release();
  std::vector<BYTE> id = m->EntryID();
  SBinary one{static_cast<ULONG>(id.size()), id.data()};
  ENTRYLIST moveList{1, &one};
  EXPECT_EQ(inbox->CopyMessages(&moveList, &IID_IMAPIFolder, store->Find("Sent Items"), 0, nullptr, MAPI_MOVE), S_OK);
  EXPECT_TRUE(inbox->messages.empty());
  EXPECT_EQ(f.sup->CopyMessages(&IID_IMessage, inbox, &moveList, &IID_IMAPIFolder, inbox, 0, nullptr, 0),
            MAPI_E_INVALID_PARAMETER);
  m->Release();
  f.Forget();
  store->Release();
}

TEST(LogonSupport, ProgressStorageReceiptsAndAddressBook) {
  SupportFixture f;
  std::vector<ULONG> seen;
  adm::SetProgressCallback([&seen](ULONG value, ULONG, ULONG total) {
    seen.push_back(value);
    seen.push_back(total);
  });
  LPMAPIPROGRESS progress = nullptr;
  EXPECT_EQ(f.sup->DoProgressDialog(0, 0x80, &progress), MAPI_E_UNKNOWN_FLAGS);
  ASSERT_EQ(f.sup->DoProgressDialog(0, 0, &progress), S_OK);
  ULONG value = 0;
  EXPECT_EQ(progress->GetFlags(&value), S_OK);
  EXPECT_EQ(value, static_cast<ULONG>(MAPI_TOP_LEVEL));
  EXPECT_EQ(progress->GetMax(&value), S_OK);
  EXPECT_EQ(value, 1000u);
  EXPECT_EQ(progress->Progress(500, 1, 2), S_OK);
  progress->Release();
  adm::SetProgressCallback(nullptr);
  EXPECT_EQ(seen, (std::vector<ULONG>{500, 2}));

  LPSTREAM stream = nullptr;
  ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &stream), S_OK);
  LPSTORAGE storage = nullptr;
  EXPECT_EQ(f.sup->IStorageFromStream(stream, nullptr, STGSTRM_CREATE | STGSTRM_MODIFY, &storage), S_OK);
  if (storage) storage->Release();
  stream->Release();

  teststore::Message dummy(nullptr, 0, 0, false);
  LPMESSAGE report = reinterpret_cast<LPMESSAGE>(&f);
  EXPECT_EQ(f.sup->ReadReceipt(0, &dummy, &report), S_OK);
  EXPECT_EQ(report, nullptr);
  EXPECT_EQ(f.sup->ReadReceipt(0x100, &dummy, &report), MAPI_E_UNKNOWN_FLAGS);
  BYTE eid[4] = {1, 2, 3, 4};
  EXPECT_EQ(f.sup->Preprocess(0, sizeof eid, reinterpret_cast<LPENTRYID>(eid)), S_OK);
  EXPECT_EQ(f.sup->Preprocess(0, 0, nullptr), MAPI_E_INVALID_PARAMETER);

  LPADRBOOK book = nullptr;
  ASSERT_EQ(f.sup->OpenAddressBook(nullptr, 0, &book), S_OK);
  book->Release();
  EXPECT_EQ(f.sup->OpenAddressBook(&IID_IMsgStore, 0, &book), MAPI_E_INTERFACE_NOT_SUPPORTED);
}
