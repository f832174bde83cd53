// Generic copying between MAPI objects: CopyTo and CopyProps semantics, subobjects, streamed and
// named properties, message lists and folder trees, on the in-memory test store.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mapiutil.h"
#include "propcopy.h"
#include "teststore.h"

using namespace teststore;

namespace {

constexpr ULONG PR_BIG = PROP_TAG(PT_BINARY, 0x6700);
const GUID kNames = {0x12345678, 0x1234, 0x5678, {1, 2, 3, 4, 5, 6, 7, 8}};

struct Stores {
  MsgStore* a = NewStore();
  MsgStore* b = NewStore(nullptr, 0x10);
  ~Stores() {
    a->Release();
    b->Release();
  }
};

void SetText(IMAPIProp* p, ULONG tag, const char* text) {
  SPropValue v{};
  v.ulPropTag = tag;
  v.Value.lpszA = const_cast<LPSTR>(text);
  ASSERT_EQ(p->SetProps(1, &v, nullptr), S_OK);
}

std::string GetText(IMAPIProp* p, ULONG tag) {
  LPSPropValue v = nullptr;
  std::string out = "<missing>";
  if (SUCCEEDED(HrGetOneProp(p, tag, &v))) out = v->Value.lpszA;
  MAPIFreeBuffer(v);
  return out;
}

ULONG NamedTag(IMAPIProp* p, LONG id) {
  MAPINAMEID name{const_cast<GUID*>(&kNames), MNID_ID, {id}};
  LPMAPINAMEID names[] = {&name};
  LPSPropTagArray tags = nullptr;
  EXPECT_EQ(p->GetIDsFromNames(1, names, MAPI_CREATE, &tags), S_OK);
  ULONG tag = PROP_TAG(PT_STRING8, PROP_ID(tags->aulPropTag[0]));
  MAPIFreeBuffer(tags);
  return tag;
}

void AddRecipient(LPMESSAGE m, const char* name) {
  LPADRLIST list = nullptr;
  MAPIAllocateBuffer(CbNewADRLIST(1), reinterpret_cast<void**>(&list));
  list->cEntries = 1;
  SPropValue v[2] = {};
  v[0].ulPropTag = PR_DISPLAY_NAME_A;
  v[0].Value.lpszA = const_cast<LPSTR>(name);
  v[1].ulPropTag = PR_RECIPIENT_TYPE;
  v[1].Value.l = MAPI_TO;
  ScDupPropset(2, v, MAPIAllocateBuffer, &list->aEntries[0].rgPropVals);
  list->aEntries[0].cValues = 2;
  ASSERT_EQ(m->ModifyRecipients(MODRECIP_ADD, list), S_OK);
  FreePadrlist(list);
}

// A saved message in `folder` with a subject and everything else `rich` adds.
Message* MakeMessage(Folder* folder, const char* subject, bool rich) {
  LPMESSAGE m = nullptr;
  EXPECT_EQ(folder->CreateMessage(nullptr, 0, &m), S_OK);
  SetText(m, PR_SUBJECT_A, subject);
  if (rich) {
    SetText(m, PR_BODY_A, "body text");
    std::vector<BYTE> big(9000);
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<BYTE>(i * 7);
    SPropValue v = Message::BinProp(PR_BIG, big);
    EXPECT_EQ(m->SetProps(1, &v, nullptr), S_OK);
    SetText(m, NamedTag(m, 42), "named value");
    AddRecipient(m, "Ann");
    AddRecipient(m, "Bob");
    ULONG num = 0;
    LPATTACH plain = nullptr;
    EXPECT_EQ(m->CreateAttach(nullptr, 0, &num, &plain), S_OK);
    SetText(plain, PR_ATTACH_FILENAME_A, "a.txt");
    plain->SaveChanges(0);
    plain->Release();
    LPATTACH embedded = nullptr;
    EXPECT_EQ(m->CreateAttach(nullptr, 0, &num, &embedded), S_OK);
    LPUNKNOWN inner = nullptr;
    EXPECT_EQ(embedded->OpenProperty(PR_ATTACH_DATA_OBJ, &IID_IMessage, 0, MAPI_CREATE | MAPI_MODIFY, &inner), S_OK);
    SetText(static_cast<LPMESSAGE>(inner), PR_SUBJECT_A, "inner");
    inner->Release();
    embedded->Release();
  }
  EXPECT_EQ(m->SaveChanges(0), S_OK);
  return static_cast<Message*>(m);
}

std::vector<BYTE> ReadStream(IMAPIProp* p, ULONG tag) {
  LPUNKNOWN unk = nullptr;
  std::vector<BYTE> out;
  if (FAILED(p->OpenProperty(tag, &IID_IStream, 0, 0, &unk))) return out;
  auto* s = static_cast<LPSTREAM>(unk);
  BYTE buf[1024];
  ULONG n = 0;
  while (SUCCEEDED(s->Read(buf, sizeof buf, &n)) && n) out.insert(out.end(), buf, buf + n);
  s->Release();
  return out;
}

Message* NewIn(Folder* folder) {
  LPMESSAGE m = nullptr;
  EXPECT_EQ(folder->CreateMessage(nullptr, 0, &m), S_OK);
  return static_cast<Message*>(m);
}

}  // namespace

TEST(PropCopy, CopyToCarriesPropertiesSubobjectsStreamsAndNamesButNotExclusions) {
  Stores s;
  Message* src = MakeMessage(s.a->Find("Inbox"), "hello", true);
  SetText(src, PR_COMMENT_A, "excluded");
  Message* dst = NewIn(s.b->Find("Inbox"));
  std::vector<BYTE> dstId = dst->EntryID();
  SizedSPropTagArray(1, exclude) = {1, {PR_COMMENT_A}};
  LPSPropProblemArray problems = nullptr;
  ASSERT_EQ(adm::CopyObjectTo(src, reinterpret_cast<LPSPropTagArray>(&exclude), {}, dst, &problems), S_OK);
  for (ULONG i = 0; problems && i < problems->cProblem; ++i)
    ADD_FAILURE() << std::hex << problems->aProblem[i].ulPropTag << " " << problems->aProblem[i].scode;
  MAPIFreeBuffer(problems);
  EXPECT_EQ(GetText(dst, PR_SUBJECT_A), "hello");
  EXPECT_EQ(GetText(dst, PR_BODY_A), "body text");
  EXPECT_EQ(GetText(dst, PR_COMMENT_A), "<missing>");
  EXPECT_EQ(ReadStream(dst, PR_BIG), ReadStream(src, PR_BIG));
  EXPECT_EQ(ReadStream(dst, PR_BIG).size(), 9000u);
  EXPECT_EQ(GetText(dst, NamedTag(dst, 42)), "named value");  // by name, in the other store's IDs
  LPSPropValue eid = nullptr;
  ASSERT_EQ(HrGetOneProp(dst, PR_ENTRYID, &eid), S_OK);
  EXPECT_EQ(std::vector<BYTE>(eid->Value.bin.lpb, eid->Value.bin.lpb + eid->Value.bin.cb), dstId);
  MAPIFreeBuffer(eid);
  EXPECT_EQ(dst->RecipientCount(), 2u);
  ASSERT_NE(dst->FindAttach(0), nullptr);
  EXPECT_EQ(GetText(dst->FindAttach(0), PR_ATTACH_FILENAME_A), "a.txt");
  ASSERT_NE(dst->FindAttach(1), nullptr);
  ASSERT_NE(dst->FindAttach(1)->Embedded(), nullptr);
  EXPECT_EQ(GetText(dst->FindAttach(1)->Embedded(), PR_SUBJECT_A), "inner");
  dst->Release();

  // Excluding the recipients by tag and embedded messages by interface.
  Message* dst2 = NewIn(s.b->Find("Inbox"));
  SizedSPropTagArray(1, noRecips) = {1, {PR_MESSAGE_RECIPIENTS}};
  IID noMessages[] = {IID_IMessage};
  adm::CopyOptions options{1, noMessages, nullptr, 0};
  ASSERT_EQ(adm::CopyObjectTo(src, reinterpret_cast<LPSPropTagArray>(&noRecips), options, dst2, nullptr), S_OK);
  EXPECT_EQ(dst2->RecipientCount(), 0u);
  ASSERT_NE(dst2->FindAttach(1), nullptr);
  EXPECT_EQ(dst2->FindAttach(1)->Embedded(), nullptr);
  EXPECT_EQ(GetText(dst2, PR_SUBJECT_A), "hello");
  dst2->Release();
  src->Release();
}

TEST(PropCopy, NoReplaceMoveAndProblems) {
  Stores s;
  Message* src = MakeMessage(s.a->Find("Inbox"), "source", false);
  SetText(src, PR_BODY_A, "source body");
  Message* dst = NewIn(s.b->Find("Inbox"));
  SetText(dst, PR_SUBJECT_A, "kept");
  SizedSPropTagArray(2, include) = {2, {PR_SUBJECT_A, PR_BODY_A}};
  LPSPropProblemArray problems = nullptr;
  adm::CopyOptions options{0, nullptr, nullptr, MAPI_NOREPLACE | MAPI_MOVE};
  ASSERT_EQ(adm::CopyObjectProps(src, reinterpret_cast<LPSPropTagArray>(&include), options, dst, &problems), S_OK);
  EXPECT_EQ(problems, nullptr);
  EXPECT_EQ(GetText(dst, PR_SUBJECT_A), "kept");
  EXPECT_EQ(GetText(dst, PR_BODY_A), "source body");
  EXPECT_EQ(GetText(src, PR_BODY_A), "<missing>");  // moved away
  EXPECT_EQ(GetText(src, PR_SUBJECT_A), "source");  // not copied, so not moved

  SizedSPropTagArray(3, withId) = {3, {PR_SUBJECT_A, PR_RECORD_KEY, PR_IMPORTANCE}};
  ASSERT_EQ(adm::CopyObjectProps(src, reinterpret_cast<LPSPropTagArray>(&withId), {}, dst, &problems), S_OK);
  ASSERT_NE(problems, nullptr);  // the destination refuses the record key
  ASSERT_EQ(problems->cProblem, 1u);
  EXPECT_EQ(problems->aProblem[0].ulPropTag, PR_RECORD_KEY);
  EXPECT_EQ(problems->aProblem[0].scode, MAPI_E_COMPUTED);
  EXPECT_EQ(problems->aProblem[0].ulIndex, 1u);
  MAPIFreeBuffer(problems);
  EXPECT_EQ(GetText(dst, PR_SUBJECT_A), "source");  // replaced without MAPI_NOREPLACE

  EXPECT_EQ(adm::CopyObjectTo(nullptr, nullptr, {}, dst, nullptr), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(adm::CopyObjectProps(src, nullptr, {}, dst, nullptr), MAPI_E_INVALID_PARAMETER);
  EXPECT_EQ(adm::CopyObjectTo(src, nullptr, {}, src, nullptr), MAPI_E_NO_ACCESS);
  dst->Release();
  src->Release();
}

TEST(PropCopy, CopyMessagesWithMoveEmptiesTheSourceAndReportsFailuresPartially) {
  Stores s;
  Folder* inbox = s.a->Find("Inbox");
  Folder* sent = s.a->Find("Sent Items");
  Message* m1 = MakeMessage(inbox, "one", true);
  Message* m2 = MakeMessage(inbox, "two", false);
  std::vector<BYTE> id1 = m1->EntryID(), id2 = m2->EntryID();
  m1->Release();
  m2->Release();
  std::vector<BYTE> bogus(24, 0xEE);
  SBinary ids[3] = {{static_cast<ULONG>(id1.size()), id1.data()},
                    {static_cast<ULONG>(bogus.size()), bogus.data()},
                    {static_cast<ULONG>(id2.size()), id2.data()}};
  ENTRYLIST list{3, ids};
  EXPECT_EQ(adm::CopyMessageList(inbox, &list, sent, nullptr, MAPI_MOVE), MAPI_W_PARTIAL_COMPLETION);
  EXPECT_TRUE(inbox->messages.empty());
  ASSERT_EQ(sent->messages.size(), 2u);
  std::vector<std::string> subjects;
  for (ULONG id : sent->messages) subjects.push_back(GetText(s.a->Store()->messages[id], PR_SUBJECT_A));
  EXPECT_EQ(subjects, (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(s.a->Store()->messages[sent->messages[0]]->RecipientCount(), 2u);

  // A plain copy to the other store leaves the source alone.
  ENTRYLIST none{0, nullptr};
  EXPECT_EQ(adm::CopyMessageList(sent, &none, s.b->Find("Inbox"), nullptr, 0), S_OK);
  std::vector<BYTE> again = s.a->Store()->EntryID(sent->messages[0]);
  SBinary one{static_cast<ULONG>(again.size()), again.data()};
  ENTRYLIST single{1, &one};
  EXPECT_EQ(adm::CopyMessageList(sent, &single, s.b->Find("Inbox"), nullptr, 0), S_OK);
  EXPECT_EQ(sent->messages.size(), 2u);
  EXPECT_EQ(s.b->Find("Inbox")->messages.size(), 1u);
  EXPECT_EQ(adm::CopyMessageList(sent, nullptr, inbox, nullptr, 0), MAPI_E_INVALID_PARAMETER);
}

TEST(PropCopy, CopyFolderCopiesContentsAndSubfoldersAndCanMoveIntoItself) {
  Stores s;
  Folder* root = s.a->Root();
  LPMAPIFOLDER projects = nullptr, sub = nullptr;
  ASSERT_EQ(root->CreateFolder(FOLDER_GENERIC, const_cast<LPTSTR>("Projects"), nullptr, nullptr, 0, &projects), S_OK);
  ASSERT_EQ(projects->CreateFolder(FOLDER_GENERIC, const_cast<LPTSTR>("Sub"), nullptr, nullptr, 0, &sub), S_OK);
  MakeMessage(static_cast<Folder*>(projects), "top", false)->Release();
  MakeMessage(static_cast<Folder*>(sub), "deep", true)->Release();
  std::vector<BYTE> pid = static_cast<Folder*>(projects)->EntryID();

  EXPECT_EQ(adm::CopyFolderTree(root, static_cast<ULONG>(pid.size()), reinterpret_cast<LPENTRYID>(pid.data()),
                                s.b->Root(), "Copied", nullptr, COPY_SUBFOLDERS),
            S_OK);
  Folder* copied = s.b->Find("Copied");
  ASSERT_NE(copied, nullptr);
  EXPECT_EQ(copied->messages.size(), 1u);
  ASSERT_EQ(copied->subfolders.size(), 1u);
  Folder* copiedSub = s.b->Store()->folders[copied->subfolders[0]];
  EXPECT_EQ(FolderName(copiedSub), "Sub");
  ASSERT_EQ(copiedSub->messages.size(), 1u);
  EXPECT_EQ(GetText(s.b->Store()->messages[copiedSub->messages[0]], PR_SUBJECT_A), "deep");

  // Into its own subfolder: the new folder is not copied again, and the move ends.
  EXPECT_EQ(adm::CopyFolderTree(root, static_cast<ULONG>(pid.size()), reinterpret_cast<LPENTRYID>(pid.data()), sub,
                                nullptr, nullptr, COPY_SUBFOLDERS),
            S_OK);
  Folder* nested = nullptr;
  for (ULONG id : static_cast<Folder*>(sub)->subfolders) nested = s.a->Store()->folders[id];
  ASSERT_NE(nested, nullptr);
  EXPECT_EQ(FolderName(nested), "Projects");
  EXPECT_EQ(nested->subfolders.size(), 1u);  // "Sub" only, not its new copy of itself

  // Moving removes the source folder.
  EXPECT_EQ(adm::CopyFolderTree(root, static_cast<ULONG>(pid.size()), reinterpret_cast<LPENTRYID>(pid.data()),
                                s.b->Root(), "Moved", nullptr, COPY_SUBFOLDERS | FOLDER_MOVE),
            S_OK);
  EXPECT_EQ(s.a->Find("Projects"), nullptr);
  EXPECT_NE(s.b->Find("Moved"), nullptr);
  std::vector<BYTE> bogus(24, 0xEE);
  EXPECT_NE(adm::CopyFolderTree(root, static_cast<ULONG>(bogus.size()), reinterpret_cast<LPENTRYID>(bogus.data()),
                                s.b->Root(), nullptr, nullptr, 0),
            S_OK);
  sub->Release();
  projects->Release();
}
