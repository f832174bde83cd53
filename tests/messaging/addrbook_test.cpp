// The address book: identity entry IDs, the mail user, name resolution and PrepareRecips.
#include <gtest/gtest.h>

#include <cstring>

#include "addrbook.h"
#include "sessiontest_util.h"

using namespace sessiontest;

namespace {

LPADRBOOK Book(LPMAPISESSION session) {
  LPADRBOOK book = nullptr;
  EXPECT_EQ(session->OpenAddressBook(0, nullptr, 0x1, &book), S_OK);
  return book;
}

LPADRLIST OneEntry(const std::vector<SPropValue>& values) {
  LPADRLIST list = nullptr;
  MAPIAllocateBuffer(CbNewADRLIST(1), reinterpret_cast<void**>(&list));
  list->cEntries = 1;
  ScDupPropset(static_cast<int>(values.size()), const_cast<LPSPropValue>(values.data()), MAPIAllocateBuffer,
               &list->aEntries[0].rgPropVals);
  list->aEntries[0].cValues = static_cast<ULONG>(values.size());
  return list;
}

SPropValue TextValue(ULONG tag, const char* text) {
  SPropValue v{};
  v.ulPropTag = tag;
  v.Value.lpszA = const_cast<LPSTR>(text);
  return v;
}

}  // namespace

TEST(AddrBook, IdentityEntryIDsRoundTripAndRejectMalformedOnes) {
  adm::ProfileIdentity who{"jdoe", "Jane Doe", "jane@example.com"};
  ULONG cb = 0;
  LPENTRYID eid = nullptr;
  ASSERT_EQ(adm::CreateIdentityEntryID(who, &cb, &eid), S_OK);
  adm::ProfileIdentity back;
  ASSERT_EQ(adm::ParseIdentityEntryID(cb, eid, &back), S_OK);
  EXPECT_EQ(back.user, "jdoe");
  EXPECT_EQ(back.display, "Jane Doe");
  EXPECT_EQ(back.smtp, "jane@example.com");
  std::vector<BYTE> bytes(reinterpret_cast<BYTE*>(eid), reinterpret_cast<BYTE*>(eid) + cb);
  MAPIFreeBuffer(eid);
  for (size_t cut = 0; cut < bytes.size(); ++cut) {
    EXPECT_EQ(adm::ParseIdentityEntryID(static_cast<ULONG>(cut), reinterpret_cast<LPENTRYID>(bytes.data()), &back),
              MAPI_E_INVALID_ENTRYID)
        << cut;
  }
  auto longer = bytes;
  longer.push_back(0);
  EXPECT_EQ(adm::ParseIdentityEntryID(static_cast<ULONG>(longer.size()), reinterpret_cast<LPENTRYID>(longer.data()),
                                      &back),
            MAPI_E_INVALID_ENTRYID);
  auto version = bytes;
  version[20] = 2;
  EXPECT_EQ(adm::ParseIdentityEntryID(static_cast<ULONG>(version.size()), reinterpret_cast<LPENTRYID>(version.data()),
                                      &back),
            MAPI_E_INVALID_ENTRYID);
  EXPECT_FALSE(adm::IsIdentityEntryID(0, nullptr));
}

TEST(AddrBook, OpensTheIdentityAndResolvesNames) {
  SessionFixture f;
  ASSERT_EQ(adm::SetProfileAccounts("Work", {{"Main", {"jdoe", "Jane Doe", "jane@example.com"}},
                                             {"Other", {"jd2", "Jane D", "jd2@example.com"}},
                                             {"Twin", {"twin", "Jane D", "twin@example.com"}}}),
            S_OK);
  LPMAPISESSION session = Logon();
  LPADRBOOK book = Book(session);
  ULONG cb = 0, type = 0;
  LPENTRYID eid = nullptr;
  ASSERT_EQ(session->QueryIdentity(&cb, &eid), S_OK);
  LPUNKNOWN unk = nullptr;
  ASSERT_EQ(book->OpenEntry(cb, eid, nullptr, 0, &type, &unk), S_OK);
  EXPECT_EQ(type, static_cast<ULONG>(MAPI_MAILUSER));
  LPSPropValue v = nullptr;
  ASSERT_EQ(HrGetOneProp(static_cast<LPMAPIPROP>(unk), PR_SMTP_ADDRESS_W, &v), S_OK);
  EXPECT_EQ(adp::Utf16ToUtf8(v->Value.lpszW), "jane@example.com");
  MAPIFreeBuffer(v);
  ASSERT_EQ(HrGetOneProp(static_cast<LPMAPIPROP>(unk), PR_ADDRTYPE_A, &v), S_OK);
  EXPECT_STREQ(v->Value.lpszA, "EX");
  MAPIFreeBuffer(v);
  EXPECT_EQ(HrGetOneProp(static_cast<LPMAPIPROP>(unk), PR_SUBJECT_A, &v), MAPI_E_NOT_FOUND);
  SPropValue change = TextValue(PR_DISPLAY_NAME_A, "x");
  EXPECT_EQ(static_cast<LPMAPIPROP>(unk)->SetProps(1, &change, nullptr), MAPI_E_NO_ACCESS);
  unk->Release();
  ULONG same = 0;
  EXPECT_EQ(book->CompareEntryIDs(cb, eid, cb, eid, 0, &same), S_OK);
  EXPECT_TRUE(same);
  BYTE junk[30] = {};
  EXPECT_EQ(book->OpenEntry(sizeof junk, reinterpret_cast<LPENTRYID>(junk), nullptr, 0, &type, &unk),
            MAPI_E_UNKNOWN_ENTRYID);
  EXPECT_EQ(book->OpenEntry(cb, eid, &IID_IMsgStore, 0, &type, &unk), MAPI_E_INTERFACE_NOT_SUPPORTED);
  MAPIFreeBuffer(eid);

  LPADRLIST list = OneEntry({TextValue(PR_DISPLAY_NAME_A, "JD2@example.com")});
  ASSERT_EQ(book->ResolveName(0, 0, nullptr, list), S_OK);
  const ADRENTRY& e = list->aEntries[0];
  EXPECT_NE(PpropFindProp(e.rgPropVals, e.cValues, PR_ENTRYID), nullptr);
  EXPECT_STREQ(PpropFindProp(e.rgPropVals, e.cValues, PR_EMAIL_ADDRESS_A)->Value.lpszA, "jd2");
  EXPECT_STREQ(PpropFindProp(e.rgPropVals, e.cValues, PR_DISPLAY_NAME_A)->Value.lpszA, "Jane D");
  FreePadrlist(list);
  list = OneEntry({TextValue(PR_DISPLAY_NAME_A, "Nobody Known")});
  EXPECT_EQ(book->ResolveName(0, 0, nullptr, list), MAPI_E_NOT_FOUND);
  FreePadrlist(list);
  list = OneEntry({TextValue(PR_DISPLAY_NAME_A, "jane d")});
  EXPECT_EQ(book->ResolveName(0, 0, nullptr, list), MAPI_E_AMBIGUOUS_RECIP);
  FreePadrlist(list);
  EXPECT_EQ(book->ResolveName(0, 0, nullptr, nullptr), MAPI_E_INVALID_PARAMETER);
  book->Release();
  session->Release();
}

TEST(AddrBook, PrepareRecipsPutsTheAskedColumnsFirst) {
  SessionFixture f;
  LPMAPISESSION session = Logon();
  LPADRBOOK book = Book(session);
  ULONG cb = 0;
  LPENTRYID eid = nullptr;
  ASSERT_EQ(session->QueryIdentity(&cb, &eid), S_OK);
  SPropValue idValue{};
  idValue.ulPropTag = PR_ENTRYID;
  idValue.Value.bin.cb = cb;
  idValue.Value.bin.lpb = reinterpret_cast<LPBYTE>(eid);
  SPropValue type{};
  type.ulPropTag = PR_RECIPIENT_TYPE;
  type.Value.l = MAPI_TO;
  LPADRLIST list = OneEntry({type, idValue});
  MAPIFreeBuffer(eid);
  SizedSPropTagArray(3, cols) = {3, {PR_SMTP_ADDRESS_A, PR_DISPLAY_NAME_W, PR_BODY_A}};
  ASSERT_EQ(book->PrepareRecips(0, reinterpret_cast<LPSPropTagArray>(&cols), list), S_OK);
  const ADRENTRY& e = list->aEntries[0];
  ASSERT_EQ(e.cValues, 5u);
  EXPECT_STREQ(e.rgPropVals[0].Value.lpszA, "jane@example.com");
  EXPECT_EQ(adp::Utf16ToUtf8(e.rgPropVals[1].Value.lpszW), "Jane Doe");
  EXPECT_EQ(e.rgPropVals[2].ulPropTag, CHANGE_PROP_TYPE(PR_BODY_A, PT_ERROR));
  EXPECT_EQ(e.rgPropVals[3].ulPropTag, PR_RECIPIENT_TYPE);
  EXPECT_EQ(e.rgPropVals[4].ulPropTag, PR_ENTRYID);
  EXPECT_EQ(book->PrepareRecips(0x4000, reinterpret_cast<LPSPropTagArray>(&cols), list), MAPI_E_UNKNOWN_FLAGS);
  FreePadrlist(list);
  book->Release();
  session->Release();
}
