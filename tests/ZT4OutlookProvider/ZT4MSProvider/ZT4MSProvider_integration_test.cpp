// The store as a client sees it after MAPILogonEx + OpenMsgStore: its properties, error texts,
// status row, entry-ID checks and property changes that reach the profile.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "provider_session.h"

using namespace zt4it;

namespace {

const char kMailbox[] = R"(
[folder Inbox]
[folder Projects]
)";

const BYTE kMdbProvider[16] = {0x7B, 0xE3, 0xC3, 0x80, 0x5B, 0x0A, 0x11, 0xCE,
                               0xB4, 0xE1, 0x00, 0xAA, 0x00, 0x51, 0x0E, 0x3B};

std::string ErrorText(IMsgStore* store, HRESULT hr) {
  LPMAPIERROR err = nullptr;
  EXPECT_EQ(store->GetLastError(hr, 0, &err), S_OK);
  // The provider always answers with a wide text.
  std::string text = err && err->lpszError ? Utf8(reinterpret_cast<const WCHAR*>(err->lpszError)) : "<none>";
  MAPIFreeBuffer(err);
  return text;
}

LONG STDAPICALLTYPE IgnoreNotification(LPVOID, ULONG, LPNOTIFICATION) { return 0; }

LONG LongProp(IMAPIProp* object, ULONG tag) {
  MapiPtr<SPropValue> v = GetProp(object, tag);
  return v && PROP_TYPE(v->ulPropTag) == PT_LONG ? v->Value.l : -1;
}

}  // namespace

TEST(ProviderLogon, StoreAnswersItsPropertiesAndErrorTexts) {
  AD_PROVIDER_TEST_IN_OWN_PROCESS();
  ProviderSession s(kMailbox);
  ASSERT_NO_FATAL_FAILURE(s.PrepareAndLogon());
  IMsgStore* store = s.Store();

  EXPECT_EQ(DisplayName(store), "ArchiveDepot");
  // The comment is what the profile holds: the silent creation stored an empty one.
  EXPECT_EQ(NarrowProp(GetProp(store, PR_COMMENT_A).get()), s.ProviderSectionText(PR_COMMENT_A));
  EXPECT_EQ(LongProp(store, PR_ACCESS), 63);
  EXPECT_EQ(LongProp(store, PR_ACCESS_LEVEL), 1);
  EXPECT_EQ(LongProp(store, PR_OBJECT_TYPE), MAPI_STORE);
  EXPECT_EQ(LongProp(store, PR_STORE_SUPPORT_MASK), 0x06053FFD);
  EXPECT_EQ(LongProp(store, PR_STORE_STATE), 0x01000000);
  EXPECT_EQ(LongProp(store, PR_VALID_FOLDER_MASK), 253);
  EXPECT_EQ(BinProp(GetProp(store, PR_MDB_PROVIDER).get()), std::vector<BYTE>(kMdbProvider, kMdbProvider + 16));

  // Store keys are the UID the profile keeps.
  std::vector<BYTE> recordKey = BinProp(GetProp(store, PR_STORE_RECORD_KEY).get());
  ASSERT_EQ(recordKey.size(), 16u);
  EXPECT_EQ(BinProp(GetProp(store, PR_MAPPING_SIGNATURE).get()), recordKey);
  adm::PropSet section;
  ASSERT_TRUE(s.ReadProviderSection(&section));
  EXPECT_EQ(BinProp(section.Find(PR_STORE_RECORD_KEY)), recordKey);
  // The entry ID is the wrapped one MAPI listed in the stores table.
  EXPECT_EQ(BinProp(GetProp(store, PR_STORE_ENTRYID).get()), s.StoreEntryID());

  // The special folders: private entry IDs of the store's UID, version 1, type 3.
  const struct {
    ULONG tag;
    ULONG objId;
  } folders[] = {{PR_IPM_SUBTREE_ENTRYID, 1}, {PR_IPM_WASTEBASKET_ENTRYID, 2}, {PR_IPM_OUTBOX_ENTRYID, 4},
                 {PR_IPM_SENTMAIL_ENTRYID, 5}, {PR_COMMON_VIEWS_ENTRYID, 6}, {PR_VIEWS_ENTRYID, 7},
                 {PR_FINDER_ENTRYID, 8}};
  for (const auto& f : folders) {
    std::vector<BYTE> eid = BinProp(GetProp(store, f.tag).get());
    ASSERT_EQ(eid.size(), CB_EID) << std::hex << f.tag;
    EXPECT_EQ(std::memcmp(eid.data() + 4, recordKey.data(), 16), 0);
    EXPECT_EQ(eid[20], 1);
    EXPECT_EQ(EidType(eid), MAPI_FOLDER);
    EXPECT_EQ(EidObjectId(eid), f.objId) << std::hex << f.tag;
  }

  // The store's subtree ID opens the folder its root lists.
  Ref<IMAPIFolder> subtree = s.OpenFolder(BinProp(GetProp(store, PR_IPM_SUBTREE_ENTRYID).get()));
  ASSERT_TRUE(subtree);
  EXPECT_EQ(DisplayName(subtree.Get()), "IPM Subtree");
  Ref<IMAPIFolder> listed = s.OpenIpmSubtree();
  ASSERT_TRUE(listed);
  EXPECT_EQ(BinProp(GetProp(listed.Get(), PR_ENTRYID).get()), BinProp(GetProp(subtree.Get(), PR_ENTRYID).get()));

  // All properties at once: the 25 tags of the store, each once.
  ULONG count = 0;
  LPSPropValue all = nullptr;
  HRESULT hr = store->GetProps(nullptr, 0, &count, &all);
  EXPECT_TRUE(hr == S_OK || hr == MAPI_W_ERRORS_RETURNED) << std::hex << hr;
  EXPECT_GE(count, 25u);
  for (ULONG i = 0; i < count; ++i)
    for (ULONG j = i + 1; j < count; ++j) EXPECT_NE(PROP_ID(all[i].ulPropTag), PROP_ID(all[j].ulPropTag));
  MAPIFreeBuffer(all);

  EXPECT_EQ(ErrorText(store, MAPI_E_NOT_FOUND), "The object requested was not found.");
  EXPECT_EQ(ErrorText(store, MAPI_E_NO_SUPPORT),
            "The method invoked or the flags specified are not supported in the current implementation of the "
            "provider.");
  EXPECT_EQ(ErrorText(store, 0x12345678), "An unknown error has occured.");
  EXPECT_EQ(ErrorText(store, MAPI_W_ERRORS_RETURNED), "No description is available for this error.");

  // Operations the store doesn't offer.
  EXPECT_EQ(store->CopyTo(0, nullptr, nullptr, 0, nullptr, &IID_IMsgStore, nullptr, 0, nullptr), MAPI_E_NO_SUPPORT);
  ULONG logoffFlags = 0;
  EXPECT_EQ(store->StoreLogoff(&logoffFlags), S_OK);
  EXPECT_EQ(logoffFlags, 65536u);

  EXPECT_TRUE(s.LogHas("Initialize Logger"));
}

TEST(ProviderLogon, StatusRowNamesTheSampleMailbox) {
  AD_PROVIDER_TEST_IN_OWN_PROCESS();
  ProviderSession s(kMailbox);
  ASSERT_NO_FATAL_FAILURE(s.PrepareAndLogon());
  Ref<IMAPITable> table;
  ASSERT_EQ(s.Session()->GetStatusTable(0, table.Out()), S_OK);
  Rows rows = AllRows(table.Get());
  int found = 0;
  for (ULONG i = 0; i < rows.Count(); ++i) {
    if (NarrowProp(FindProp(rows[i], PR_PROVIDER_DISPLAY_A)) != "ArchiveDepot") continue;
    ++found;
    EXPECT_EQ(NarrowProp(FindProp(rows[i], PR_DISPLAY_NAME_A)), "Sample Mailbox");
    EXPECT_EQ(NarrowProp(FindProp(rows[i], PR_STATUS_STRING_A)), "Available");
    const SPropValue* code = FindProp(rows[i], PR_STATUS_CODE);
    ASSERT_NE(code, nullptr);
    EXPECT_EQ(code->Value.l, STATUS_AVAILABLE);
    const SPropValue* methods = FindProp(rows[i], PR_RESOURCE_METHODS);
    ASSERT_NE(methods, nullptr);
    EXPECT_EQ(methods->Value.l, 0);
  }
  EXPECT_EQ(found, 1);
}

TEST(ProviderLogon, EntryIDsAreCheckedBeforeAnythingOpens) {
  AD_PROVIDER_TEST_IN_OWN_PROCESS();
  ProviderSession s(kMailbox);
  ASSERT_NO_FATAL_FAILURE(s.PrepareAndLogon());
  IMsgStore* store = s.Store();
  std::vector<BYTE> subtree = BinProp(GetProp(store, PR_IPM_SUBTREE_ENTRYID).get());
  ASSERT_EQ(subtree.size(), CB_EID);

  // Size 0 is the root, a folder of its own.
  HRESULT hr = E_FAIL;
  Ref<IMAPIFolder> root = s.OpenFolder({}, MAPI_BEST_ACCESS, &hr);
  EXPECT_EQ(hr, S_OK);
  ASSERT_TRUE(root);
  Rows top = HierarchyRows(root.Get());
  std::vector<std::string> names = RowNames(top);
  EXPECT_NE(std::find(names.begin(), names.end(), "IPM Subtree"), names.end());

  // Wrong store UID, wrong version, object types outside 3..8: invalid.
  std::vector<BYTE> wrongUid = subtree;
  wrongUid[4] ^= 0xFF;
  s.OpenFolder(wrongUid, MAPI_BEST_ACCESS, &hr);
  EXPECT_EQ(hr, MAPI_E_INVALID_ENTRYID);
  s.OpenFolder(MakeEid(subtree, 2, MAPI_FOLDER, 1), MAPI_BEST_ACCESS, &hr);
  EXPECT_EQ(hr, MAPI_E_INVALID_ENTRYID);
  s.OpenFolder(MakeEid(subtree, 1, 2, 1), MAPI_BEST_ACCESS, &hr);
  EXPECT_EQ(hr, MAPI_E_INVALID_ENTRYID);
  s.OpenFolder(MakeEid(subtree, 1, 9, 1), MAPI_BEST_ACCESS, &hr);
  EXPECT_EQ(hr, MAPI_E_INVALID_ENTRYID);
  EXPECT_TRUE(s.LogHas("Invalid EntryID"));
  EXPECT_TRUE(s.LogHas("CBackEnd::IsValidEntryID: Invalid object type in entry ID structure"));
  // A valid ID of a type the store doesn't open.
  ULONG type = 0;
  LPUNKNOWN unk = nullptr;
  std::vector<BYTE> attach = MakeEid(subtree, 1, MAPI_ATTACH, 1);
  EXPECT_EQ(store->OpenEntry(CB_EID, reinterpret_cast<LPENTRYID>(attach.data()), nullptr, 0, &type, &unk),
            MAPI_E_NOT_FOUND);
  EXPECT_EQ(unk, nullptr);

  // CompareEntryIDs: sizes must be 132; flags and reserved bytes don't count.
  ULONG result = 7;
  std::vector<BYTE> other = subtree;
  other[0] = 0xFF;
  other[22] = 0x55;
  EXPECT_EQ(store->CompareEntryIDs(CB_EID, reinterpret_cast<LPENTRYID>(subtree.data()), CB_EID,
                                   reinterpret_cast<LPENTRYID>(other.data()), 0, &result),
            S_OK);
  EXPECT_EQ(result, 1u);
  std::vector<BYTE> wastebasket = BinProp(GetProp(store, PR_IPM_WASTEBASKET_ENTRYID).get());
  EXPECT_EQ(store->CompareEntryIDs(CB_EID, reinterpret_cast<LPENTRYID>(subtree.data()), CB_EID,
                                   reinterpret_cast<LPENTRYID>(wastebasket.data()), 0, &result),
            S_OK);
  EXPECT_EQ(result, 0u);
  result = 7;
  EXPECT_EQ(store->CompareEntryIDs(131, reinterpret_cast<LPENTRYID>(subtree.data()), CB_EID,
                                   reinterpret_cast<LPENTRYID>(subtree.data()), 0, &result),
            MAPI_E_INVALID_ENTRYID);
  EXPECT_EQ(result, 0u);

  // Advise: store-wide with size 0, per folder with a valid ID, refused with a foreign UID.
  LPMAPIADVISESINK sink = nullptr;
  ASSERT_EQ(HrAllocAdviseSink(IgnoreNotification, nullptr, &sink), S_OK);
  ULONG connection = 99;
  EXPECT_EQ(store->Advise(CB_EID, reinterpret_cast<LPENTRYID>(wrongUid.data()), fnevObjectModified, sink, &connection),
            MAPI_E_INVALID_ENTRYID);
  EXPECT_EQ(connection, 0u);
  EXPECT_EQ(store->Advise(CB_EID, reinterpret_cast<LPENTRYID>(subtree.data()), fnevObjectModified, sink, &connection),
            S_OK);
  EXPECT_NE(connection, 0u);
  EXPECT_EQ(store->Unadvise(connection), S_OK);
  sink->Release();
}

TEST(ProviderLogon, StoreSetPropsChangesTheProfileOnce) {
  AD_PROVIDER_TEST_IN_OWN_PROCESS();
  ProviderSession s(kMailbox);
  ASSERT_NO_FATAL_FAILURE(s.PrepareAndLogon());
  IMsgStore* store = s.Store();
  const std::string before = s.ProviderSectionText(PR_COMMENT_A);

  SPropValue values[3] = {};
  values[0].ulPropTag = PR_DISPLAY_NAME_A;
  values[0].Value.lpszA = const_cast<char*>("Archiv Zo\xC3\xAB");
  values[1].ulPropTag = PR_COMMENT_A;
  values[1].Value.lpszA = const_cast<char*>("new comment");
  values[2].ulPropTag = PR_IPM_SUBTREE_ENTRYID;
  values[2].Value.bin.cb = 0;
  LPSPropProblemArray problems = nullptr;
  EXPECT_EQ(store->SetProps(3, values, &problems), S_OK);
  ASSERT_NE(problems, nullptr);
  ASSERT_EQ(problems->cProblem, 1u);
  EXPECT_EQ(problems->aProblem[0].ulIndex, 2u);
  EXPECT_EQ(problems->aProblem[0].scode, MAPI_E_COMPUTED);
  MAPIFreeBuffer(problems);

  EXPECT_EQ(DisplayName(store), "Archiv Zo\xC3\xAB");
  EXPECT_EQ(NarrowProp(GetProp(store, PR_COMMENT_A).get()), "new comment");
  // Only the first of the two reaches the profile.
  EXPECT_EQ(s.ProviderSectionText(PR_DISPLAY_NAME_A), "Archiv Zo\xC3\xAB");
  EXPECT_EQ(s.ProviderSectionText(PR_COMMENT_A), before);

  // An unknown tag is a problem, not a failure; a read-only store refuses nothing here as it is
  // writable.
  SPropValue unknown = {};
  unknown.ulPropTag = PROP_TAG(PT_LONG, 0x6789);
  problems = nullptr;
  EXPECT_EQ(store->SetProps(1, &unknown, &problems), S_OK);
  ASSERT_NE(problems, nullptr);
  EXPECT_EQ(problems->aProblem[0].scode, MAPI_E_NO_SUPPORT);
  MAPIFreeBuffer(problems);
}

TEST(ProviderLogon, ProfileWithoutStoreIdentityGetsDefaultsAtLogon) {
  AD_PROVIDER_TEST_IN_OWN_PROCESS();
  SessionOptions options;
  options.holdUpdatingMutex = false;  // the silent creation does nothing
  ProviderSession s(kMailbox, options);
  ASSERT_EQ(s.InstallService(), S_OK);
  ASSERT_EQ(s.CreateProfile(), S_OK);
  EXPECT_EQ(s.ProviderSectionText(PR_ZT4_STORE_PATH_A), "<missing>");
  ASSERT_EQ(s.Logon(), S_OK);

  EXPECT_EQ(NarrowProp(GetProp(s.Store(), PR_COMMENT_A).get()), "Orvanta Store");
  EXPECT_EQ(DisplayName(s.Store()), "ArchiveDepot");
  // The path is the temporary folder, a backslash and the tick count.
  const std::string path = s.ProviderSectionText(PR_ZT4_STORE_PATH_A);
  char temp[MAX_PATH + 1] = {};
  GetTempPathA(sizeof temp, temp);
  EXPECT_EQ(path.rfind(temp, 0), 0u) << path;
  ASSERT_GT(path.size(), std::strlen(temp) + 5);
  EXPECT_EQ(path[std::strlen(temp)], '\\') << path;
  EXPECT_EQ(path.substr(path.size() - 4), ".CST");
  EXPECT_EQ(s.ProviderSectionText(PR_COMMENT_A), "Orvanta Store");
}
