// The folder tree through a client's eyes: the skeleton, the server tree mirrored under the IPM
// subtree (non-ASCII names included), the rows of a hierarchy table, growth when a table is
// filled again, folder creation and changes, and default folders in the user's language.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <set>

#include "provider_session.h"

using namespace zt4it;

namespace {

const char kEte[] = "\xC3\x89t\xC3\xA9 2024";           // Été 2024
const char kUBahn[] = "\xC3\x9C-Bahn";                   // Ü-Bahn
const char kArchiv[] = "\xD0\x90\xD1\x80\xD1\x85\xD0\xB8\xD0\xB2";  // Архив

std::string Mailbox() {
  return std::string("[folder Inbox/Clients]\n") + "[folder Projects/" + kEte + "]\n" + "[folder Projects/" + kUBahn +
         "]\n" + "[folder " + kArchiv + "]\n";
}

std::set<std::string> NameSet(const Rows& rows) {
  std::vector<std::string> names = RowNames(rows);
  return std::set<std::string>(names.begin(), names.end());
}

const SRow* RowNamed(const Rows& rows, const std::string& name) {
  for (ULONG i = 0; i < rows.Count(); ++i)
    if (NarrowProp(FindProp(rows[i], PR_DISPLAY_NAME_W)) == name) return &rows[i];
  return nullptr;
}

LONG LongOf(const SRow& row, ULONG tag) {
  const SPropValue* v = FindProp(row, tag);
  return v ? v->Value.l : -12345;
}

}  // namespace

TEST(ProviderHierarchy, SkeletonAndServerTreeAreMirrored) {
  AD_PROVIDER_TEST_IN_OWN_PROCESS();
  ProviderSession s(Mailbox());
  ASSERT_NO_FATAL_FAILURE(s.PrepareAndLogon());

  HRESULT hr = E_FAIL;
  Ref<IMAPIFolder> root = s.OpenFolder({}, MAPI_BEST_ACCESS, &hr);
  ASSERT_TRUE(root);
  EXPECT_EQ(NameSet(HierarchyRows(root.Get())),
            (std::set<std::string>{"IPM Subtree", "Common Views", "Folder Views", "Finder"}));

  Ref<IMAPIFolder> subtree = s.OpenIpmSubtree();
  ASSERT_TRUE(subtree);
  EXPECT_EQ(DisplayName(subtree.Get()), "IPM Subtree");
  Rows rows = HierarchyRows(subtree.Get());
  // The server's Inbox is the local default folder, not a second one.
  EXPECT_EQ(NameSet(rows), (std::set<std::string>{"Deleted Items", "Inbox", "Outbox", "Sent Items", "Projects", kArchiv}));
  EXPECT_EQ(rows.Count(), 6u);
  EXPECT_TRUE(s.LogHas("CFileBackEnd::CreateSubFolder This folder has been already created:Inbox"));

  Ref<IMAPIFolder> projects = s.FindFolder("Projects");
  ASSERT_TRUE(projects);
  EXPECT_EQ(NameSet(HierarchyRows(projects.Get())), (std::set<std::string>{kEte, kUBahn}));
  Ref<IMAPIFolder> ete = s.FindFolder(std::string("Projects/") + kEte);
  ASSERT_TRUE(ete);
  EXPECT_EQ(DisplayName(ete.Get()), kEte);
  EXPECT_EQ(HierarchyRows(ete.Get()).Count(), 0u);
  // The server was asked with the path relative to the IPM subtree (the journal escapes the
  // backslash).
  EXPECT_NE(s.JournalText().find(std::string("GetFolderNames(\"Projects\\\\") + kEte + "\""), std::string::npos)
      << s.JournalText();
}

TEST(ProviderHierarchy, RowsCarryTheirTwentyTwoValues) {
  AD_PROVIDER_TEST_IN_OWN_PROCESS();
  ProviderSession s(Mailbox());
  ASSERT_NO_FATAL_FAILURE(s.PrepareAndLogon());
  std::vector<BYTE> storeUid = BinProp(GetProp(s.Store(), PR_STORE_RECORD_KEY).get());
  std::vector<BYTE> subtreeEid = BinProp(GetProp(s.Store(), PR_IPM_SUBTREE_ENTRYID).get());
  Ref<IMAPIFolder> subtree = s.OpenIpmSubtree();
  ASSERT_TRUE(subtree);
  Rows rows = HierarchyRows(subtree.Get());

  const SRow* projects = RowNamed(rows, "Projects");
  ASSERT_NE(projects, nullptr);
  EXPECT_GE(projects->cValues, 22u);
  std::vector<BYTE> eid = BinProp(FindProp(*projects, PR_ENTRYID));
  ASSERT_EQ(eid.size(), CB_EID);
  EXPECT_EQ(EidType(eid), MAPI_FOLDER);
  std::vector<BYTE> instanceKey = BinProp(FindProp(*projects, PR_INSTANCE_KEY));
  ASSERT_EQ(instanceKey.size(), 4u);
  ULONG objId = 0;
  std::memcpy(&objId, instanceKey.data(), 4);
  EXPECT_EQ(objId, EidObjectId(eid));
  EXPECT_EQ(BinProp(FindProp(*projects, PR_RECORD_KEY)), eid);
  EXPECT_EQ(BinProp(FindProp(*projects, PR_PARENT_ENTRYID)), subtreeEid);
  EXPECT_EQ(BinProp(FindProp(*projects, PR_STORE_RECORD_KEY)), storeUid);
  EXPECT_EQ(BinProp(FindProp(*projects, PR_MAPPING_SIGNATURE)), storeUid);
  EXPECT_EQ(BinProp(FindProp(*projects, PR_STORE_ENTRYID)), s.StoreEntryID());
  EXPECT_EQ(LongOf(*projects, PR_OBJECT_TYPE), MAPI_FOLDER);
  EXPECT_EQ(LongOf(*projects, PR_DEPTH), 1);
  EXPECT_EQ(LongOf(*projects, PR_FOLDER_TYPE), FOLDER_GENERIC);
  EXPECT_EQ(LongOf(*projects, PR_DISPLAY_TYPE), 0x01000000);
  EXPECT_EQ(LongOf(*projects, PR_STATUS), 0);
  EXPECT_EQ(LongOf(*projects, PR_CONTENT_COUNT), 0);
  const SPropValue* subfolders = FindProp(*projects, PR_SUBFOLDERS);
  ASSERT_NE(subfolders, nullptr);
  EXPECT_TRUE(subfolders->Value.b);
  EXPECT_NE(FindProp(*projects, PR_CREATION_TIME), nullptr);
  EXPECT_NE(FindProp(*projects, PR_LAST_MODIFICATION_TIME), nullptr);
  // A folder has no default view: the row keeps the error in its place.
  const SPropValue* view = FindProp(*projects, PROP_TAG(PT_ERROR, PROP_ID(PR_DEFAULT_VIEW_ENTRYID)));
  EXPECT_NE(view, nullptr);

  const SRow* archiv = RowNamed(rows, kArchiv);
  ASSERT_NE(archiv, nullptr);
  const SPropValue* leaf = FindProp(*archiv, PR_SUBFOLDERS);
  ASSERT_NE(leaf, nullptr);
  EXPECT_FALSE(leaf->Value.b);
}

TEST(ProviderHierarchy, FillingATableBringsTheServersNextLevel) {
  AD_PROVIDER_TEST_IN_OWN_PROCESS();
  ProviderSession s(Mailbox());
  ASSERT_NO_FATAL_FAILURE(s.PrepareAndLogon());
  // At logon the server's Inbox collided with the default one and was not descended into.
  EXPECT_EQ(s.JournalText().find("GetFolderNames(\"Inbox\""), std::string::npos) << s.JournalText();
  Ref<IMAPIFolder> subtree = s.OpenIpmSubtree();
  ASSERT_TRUE(subtree);
  Rows first = HierarchyRows(subtree.Get());
  EXPECT_NE(s.JournalText().find("GetFolderNames(\"Inbox\""), std::string::npos);
  Ref<IMAPIFolder> inbox = s.FindFolder("Inbox");
  ASSERT_TRUE(inbox);
  EXPECT_EQ(RowNames(HierarchyRows(inbox.Get())), std::vector<std::string>{"Clients"});
  // Filling again neither doubles nor loses a folder.
  EXPECT_EQ(HierarchyRows(subtree.Get()).Count(), first.Count());
  EXPECT_EQ(HierarchyRows(inbox.Get()).Count(), 1u);
}

TEST(ProviderHierarchy, CreateFolderAndChangeItsProperties) {
  AD_PROVIDER_TEST_IN_OWN_PROCESS();
  ProviderSession s(Mailbox());
  ASSERT_NO_FATAL_FAILURE(s.PrepareAndLogon());
  Ref<IMAPIFolder> projects = s.FindFolder("Projects");
  ASSERT_TRUE(projects);

  Ref<IMAPIFolder> created;
  ASSERT_EQ(projects->CreateFolder(FOLDER_GENERIC, reinterpret_cast<LPTSTR>(const_cast<char*>("Neu")),
                                   reinterpret_cast<LPTSTR>(const_cast<char*>("made here")), nullptr, 0,
                                   created.Out()),
            S_OK);
  ASSERT_TRUE(created);
  EXPECT_EQ(DisplayName(created.Get()), "Neu");
  Ref<IMAPIFolder> again;
  EXPECT_EQ(projects->CreateFolder(FOLDER_GENERIC, reinterpret_cast<LPTSTR>(const_cast<char*>("Neu")), nullptr,
                                   nullptr, 0, again.Out()),
            MAPI_E_COLLISION);
  EXPECT_FALSE(again);
  // A name that a server folder already has collides too.
  EXPECT_EQ(projects->CreateFolder(FOLDER_GENERIC, reinterpret_cast<LPTSTR>(const_cast<char*>(kUBahn)), nullptr,
                                   nullptr, 0, again.Out()),
            MAPI_E_COLLISION);
  EXPECT_EQ(NameSet(HierarchyRows(projects.Get())), (std::set<std::string>{kEte, kUBahn, "Neu"}));

  // Rename and comment are taken; a count is not the client's to set.
  SPropValue values[3] = {};
  values[0].ulPropTag = PR_DISPLAY_NAME_A;
  values[0].Value.lpszA = const_cast<char*>("Neu 2");
  values[1].ulPropTag = PR_COMMENT_A;
  values[1].Value.lpszA = const_cast<char*>("changed");
  values[2].ulPropTag = PR_CONTENT_COUNT;
  values[2].Value.l = 5;
  LPSPropProblemArray problems = nullptr;
  EXPECT_EQ(created->SetProps(3, values, &problems), S_OK);
  ASSERT_NE(problems, nullptr);
  ASSERT_EQ(problems->cProblem, 1u);
  EXPECT_EQ(problems->aProblem[0].ulIndex, 2u);
  EXPECT_EQ(problems->aProblem[0].scode, static_cast<SCODE>(0x80070005));
  MAPIFreeBuffer(problems);
  EXPECT_EQ(DisplayName(created.Get()), "Neu 2");
  EXPECT_EQ(NarrowProp(GetProp(created.Get(), PR_COMMENT_A).get()), "changed");
  EXPECT_EQ(NameSet(HierarchyRows(projects.Get())), (std::set<std::string>{kEte, kUBahn, "Neu 2"}));

  // Messages are not made here.
  LPMESSAGE message = nullptr;
  EXPECT_EQ(created->CreateMessage(nullptr, 0, &message), MAPI_E_NO_SUPPORT);
  EXPECT_EQ(message, nullptr);
}

TEST(ProviderHierarchy, DefaultFoldersBearTheUsersLanguage) {
  AD_PROVIDER_TEST_IN_OWN_PROCESS();
  const char kDeleted[] = "Gel\xC3\xB6schte Elemente";
  SessionOptions options;
  options.localizedNames = true;
  ProviderSession s(std::string("[provider]\nDefaultFolderNames = ") + kDeleted +
                        "|Posteingang|Postausgang|Gesendete Elemente\n[folder Posteingang/Kunden]\n[folder Projekte]\n",
                    options);
  ASSERT_NO_FATAL_FAILURE(s.PrepareAndLogon());
  Ref<IMAPIFolder> subtree = s.OpenIpmSubtree();
  ASSERT_TRUE(subtree);
  EXPECT_EQ(NameSet(HierarchyRows(subtree.Get())),
            (std::set<std::string>{kDeleted, "Posteingang", "Postausgang", "Gesendete Elemente", "Projekte"}));
  // The comments stay English.
  Ref<IMAPIFolder> inbox = s.FindFolder("Posteingang");
  ASSERT_TRUE(inbox);
  EXPECT_EQ(NarrowProp(GetProp(inbox.Get(), PR_COMMENT_W).get()), "Default Receive Folder");
  EXPECT_EQ(RowNames(HierarchyRows(inbox.Get())), std::vector<std::string>{"Kunden"});
  // The wastebasket of the store is the localized folder.
  std::vector<BYTE> wastebasket = BinProp(GetProp(s.Store(), PR_IPM_WASTEBASKET_ENTRYID).get());
  Ref<IMAPIFolder> deleted = s.OpenFolder(wastebasket);
  ASSERT_TRUE(deleted);
  EXPECT_EQ(DisplayName(deleted.Get()), kDeleted);
}
