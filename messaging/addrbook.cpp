// The session's address book and the identity's mail user (see addrbook.h).
#include "addrbook.h"

#include <atomic>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "adminutil.h"
#include "adplatform.h"
#include "mapicode.h"
#include "mapiguid.h"
#include "mapiutil.h"
#include "profile.h"
#include "propcopy.h"
#include "propfile.h"
#include "comobject.h"

#ifndef DT_MAILUSER
#define DT_MAILUSER ((ULONG)0x00000000)
#endif

namespace adm {

const MAPIUID kIdentityProviderUid = {
    {0x41, 0x44, 0x49, 0x44, 0x8E, 0x1F, 0x4B, 0x52, 0x9C, 0x0A, 0x51, 0x7E, 0x60, 0x2D, 0x11, 0xC3}};

namespace {

constexpr size_t kIdentityHeader = 4 + sizeof(MAPIUID) + 4;

std::string Upper(std::string s) {
  for (char& c : s) c = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
  return s;
}

// One property of a fixed object: UTF-8 text, bytes or a number, by the tag's type.
struct Value {
  ULONG tag;
  std::string data;
  ULONG number = 0;
};

SPropValue View(const Value& v) {
  SPropValue p{};
  p.ulPropTag = v.tag;
  switch (PROP_TYPE(v.tag)) {
    case PT_STRING8: p.Value.lpszA = const_cast<LPSTR>(v.data.c_str()); break;
    case PT_BINARY:
      p.Value.bin.cb = static_cast<ULONG>(v.data.size());
      p.Value.bin.lpb = reinterpret_cast<LPBYTE>(const_cast<char*>(v.data.data()));
      break;
    default: p.Value.l = v.number; break;
  }
  return p;
}

// The type a value is given in when asked for `asked` (PT_UNSPECIFIED: its own, texts by flag).
ULONG TargetType(ULONG own, ULONG asked, ULONG ulFlags) {
  if (asked == PT_UNSPECIFIED) return own == PT_STRING8 && (ulFlags & MAPI_UNICODE) ? PT_UNICODE : own;
  return asked;
}

bool Compatible(ULONG own, ULONG target) {
  return own == target || (own == PT_STRING8 && target == PT_UNICODE) || (own == PT_UNICODE && target == PT_STRING8);
}

// GetProps over a fixed list of values, with the published answers for missing ones.
HRESULT GetFixedProps(const std::vector<Value>& values, const SPropTagArray* lpTags, ULONG ulFlags, ULONG* lpcValues,
                      LPSPropValue* lppProps) {
  if (!lpcValues || !lppProps) return MAPI_E_INVALID_PARAMETER;
  *lpcValues = 0;
  *lppProps = nullptr;
  if (ulFlags & ~MAPI_UNICODE) return MAPI_E_UNKNOWN_FLAGS;
  if (lpTags && !lpTags->cValues) return MAPI_E_INVALID_PARAMETER;
  ULONG count = lpTags ? lpTags->cValues : static_cast<ULONG>(values.size());
  void* buf = nullptr;
  if (MAPIAllocateBuffer(sizeof(SPropValue) * (count ? count : 1), &buf) != S_OK) return MAPI_E_NOT_ENOUGH_MEMORY;
  auto* out = static_cast<LPSPropValue>(buf);
  bool missing = false;
  for (ULONG i = 0; i < count; ++i) {
    ULONG asked = lpTags ? lpTags->aulPropTag[i] : PROP_TAG(PT_UNSPECIFIED, PROP_ID(values[i].tag));
    const Value* found = nullptr;
    for (const auto& v : values) {
      if (PROP_ID(v.tag) == PROP_ID(asked)) found = &v;
    }
    ULONG target = found ? TargetType(PROP_TYPE(found->tag), PROP_TYPE(asked), ulFlags) : 0;
    if (!found || !Compatible(PROP_TYPE(found->tag), target)) {
      out[i].ulPropTag = CHANGE_PROP_TYPE(asked, PT_ERROR);
      out[i].dwAlignPad = 0;
      out[i].Value.err = MAPI_E_NOT_FOUND;
      missing = true;
      continue;
    }
    SPropValue view = View(*found);
    if (HRESULT hr = CopyPropConverted(view, target, buf, &out[i]); FAILED(hr)) {
      MAPIFreeBuffer(buf);
      return hr;
    }
  }
  *lpcValues = count;
  *lppProps = out;
  return missing ? MAPI_W_ERRORS_RETURNED : S_OK;
}

std::vector<BYTE> IdentityBytes(const ProfileIdentity& identity) {
  std::vector<BYTE> out(kIdentityHeader, 0);
  std::memcpy(out.data() + 4, kIdentityProviderUid.ab, sizeof(MAPIUID));
  out[20] = 1;
  for (const std::string* s : {&identity.user, &identity.display, &identity.smtp}) {
    out.insert(out.end(), s->begin(), s->end());
    out.push_back(0);
  }
  return out;
}

// ---- The mail user ------------------------------------------------------------------------------

class CMailUser final : public ComObject<IMailUser, IID_IMAPIProp, IID_IMailUser> {
 public:
  explicit CMailUser(const ProfileIdentity& identity) {
    std::vector<BYTE> eid = IdentityBytes(identity);
    std::string eidText(eid.begin(), eid.end());
    std::string search = "EX:" + Upper(identity.user);
    search.push_back('\0');
    m_values = {{PR_ENTRYID, eidText},
                {PR_RECORD_KEY, eidText},
                {PR_SEARCH_KEY, search},
                {PR_OBJECT_TYPE, "", MAPI_MAILUSER},
                {PR_DISPLAY_TYPE, "", DT_MAILUSER},
                {PR_DISPLAY_NAME_A, identity.display},
                {PR_TRANSMITABLE_DISPLAY_NAME_A, identity.display},
                {PR_ADDRTYPE_A, "EX"},
                {PR_EMAIL_ADDRESS_A, identity.user},
                {PR_ACCOUNT_A, identity.user},
                {PR_SMTP_ADDRESS_A, identity.smtp}};
  }

  MAPIMETHOD(GetLastError)(HRESULT hResult, ULONG ulFlags, LPMAPIERROR* lppMAPIError) override {
    return BuildMapiError(ulFlags, hResult == S_OK ? "No error" : "The mail user is read-only", "Address book",
                          lppMAPIError);
  }
  MAPIMETHOD(SaveChanges)(ULONG) override { return MAPI_E_NO_ACCESS; }
  MAPIMETHOD(GetProps)(LPSPropTagArray lpPropTagArray, ULONG ulFlags, ULONG* lpcValues,
                       LPSPropValue* lppPropArray) override {
    return GetFixedProps(m_values, lpPropTagArray, ulFlags, lpcValues, lppPropArray);
  }
  MAPIMETHOD(GetPropList)(ULONG ulFlags, LPSPropTagArray* lppPropTagArray) override {
    if (!lppPropTagArray) return MAPI_E_INVALID_PARAMETER;
    *lppPropTagArray = nullptr;
    if (ulFlags & ~MAPI_UNICODE) return MAPI_E_UNKNOWN_FLAGS;
    void* buf = nullptr;
    if (MAPIAllocateBuffer(CbNewSPropTagArray(m_values.size()), &buf) != S_OK) return MAPI_E_NOT_ENOUGH_MEMORY;
    auto* tags = static_cast<LPSPropTagArray>(buf);
    tags->cValues = static_cast<ULONG>(m_values.size());
    for (size_t i = 0; i < m_values.size(); ++i) {
      ULONG tag = m_values[i].tag;
      tags->aulPropTag[i] = PROP_TYPE(tag) == PT_STRING8 && (ulFlags & MAPI_UNICODE) ? CHANGE_PROP_TYPE(tag, PT_UNICODE)
                                                                                    : tag;
    }
    *lppPropTagArray = tags;
    return S_OK;
  }
  MAPIMETHOD(OpenProperty)(ULONG, LPCIID, ULONG, ULONG, LPUNKNOWN* lppUnk) override {
    if (lppUnk) *lppUnk = nullptr;
    return MAPI_E_NO_SUPPORT;
  }
  MAPIMETHOD(SetProps)(ULONG, LPSPropValue, LPSPropProblemArray* lppProblems) override {
    if (lppProblems) *lppProblems = nullptr;
    return MAPI_E_NO_ACCESS;
  }
  MAPIMETHOD(DeleteProps)(LPSPropTagArray, LPSPropProblemArray* lppProblems) override {
    if (lppProblems) *lppProblems = nullptr;
    return MAPI_E_NO_ACCESS;
  }
  MAPIMETHOD(CopyTo)(ULONG ciidExclude, LPCIID rgiidExclude, LPSPropTagArray lpExcludeProps, ULONG_PTR,
                     LPMAPIPROGRESS lpProgress, LPCIID lpInterface, LPVOID lpDestObj, ULONG ulFlags,
                     LPSPropProblemArray* lppProblems) override {
    if (lppProblems) *lppProblems = nullptr;
    if (!lpDestObj || !lpInterface) return MAPI_E_INVALID_PARAMETER;
    CopyOptions options{ciidExclude, rgiidExclude, lpProgress, ulFlags & ~MAPI_MOVE};
    return CopyObjectTo(this, lpExcludeProps, options, static_cast<LPMAPIPROP>(lpDestObj), lppProblems);
  }
  MAPIMETHOD(CopyProps)(LPSPropTagArray lpIncludeProps, ULONG_PTR, LPMAPIPROGRESS lpProgress, LPCIID lpInterface,
                        LPVOID lpDestObj, ULONG ulFlags, LPSPropProblemArray* lppProblems) override {
    if (lppProblems) *lppProblems = nullptr;
    if (!lpDestObj || !lpInterface || !lpIncludeProps) return MAPI_E_INVALID_PARAMETER;
    CopyOptions options{0, nullptr, lpProgress, ulFlags & ~MAPI_MOVE};
    return CopyObjectProps(this, lpIncludeProps, options, static_cast<LPMAPIPROP>(lpDestObj), lppProblems);
  }
  MAPIMETHOD(GetNamesFromIDs)(LPSPropTagArray*, LPGUID, ULONG, ULONG* lpcPropNames,
                              LPMAPINAMEID** lpppPropNames) override {
    if (lpcPropNames) *lpcPropNames = 0;
    if (lpppPropNames) *lpppPropNames = nullptr;
    return MAPI_E_NO_SUPPORT;
  }
  MAPIMETHOD(GetIDsFromNames)(ULONG, LPMAPINAMEID*, ULONG, LPSPropTagArray* lppPropTags) override {
    if (lppPropTags) *lppPropTags = nullptr;
    return MAPI_E_NO_SUPPORT;
  }

 private:
  ~CMailUser() = default;
  std::vector<Value> m_values;
};

// ---- Name resolution ----------------------------------------------------------------------------

std::string EntryName(const ADRENTRY& entry) {
  for (ULONG i = 0; i < entry.cValues; ++i) {
    const SPropValue& v = entry.rgPropVals[i];
    if (v.ulPropTag == PR_DISPLAY_NAME_A || v.ulPropTag == PR_DISPLAY_NAME_W) return PropText(&v);
  }
  return std::string();
}

bool HasEntryID(const ADRENTRY& entry) {
  return entry.rgPropVals && PpropFindProp(entry.rgPropVals, entry.cValues, PR_ENTRYID) != nullptr;
}

// Replaces the entry's values with `values` (deep copied into one MAPI allocation).
HRESULT ReplaceEntry(ADRENTRY& entry, std::vector<SPropValue>& values) {
  LPSPropValue copy = nullptr;
  if (ScDupPropset(static_cast<int>(values.size()), values.data(), MAPIAllocateBuffer, &copy) != S_OK)
    return MAPI_E_NOT_ENOUGH_MEMORY;
  MAPIFreeBuffer(entry.rgPropVals);
  entry.rgPropVals = copy;
  entry.cValues = static_cast<ULONG>(values.size());
  return S_OK;
}

HRESULT ResolveEntry(ADRENTRY& entry, const ProfileIdentity& who, ULONG ulFlags) {
  LPMAILUSER user = nullptr;
  HRESULT hr = CreateMailUser(who, &user);
  if (FAILED(hr)) return hr;
  SizedSPropTagArray(8, tags) = {8,
                                 {PR_ENTRYID, PR_DISPLAY_NAME_A, PR_ADDRTYPE_A, PR_EMAIL_ADDRESS_A, PR_SMTP_ADDRESS_A,
                                  PR_OBJECT_TYPE, PR_DISPLAY_TYPE, PR_SEARCH_KEY}};
  for (ULONG i = 1; i <= 4 && (ulFlags & MAPI_UNICODE); ++i)
    tags.aulPropTag[i] = CHANGE_PROP_TYPE(tags.aulPropTag[i], PT_UNICODE);
  ULONG count = 0;
  LPSPropValue found = nullptr;
  hr = user->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), ulFlags & MAPI_UNICODE, &count, &found);
  user->Release();
  if (FAILED(hr)) return hr;
  MapiPtr<SPropValue> holder(found);
  std::vector<SPropValue> values(found, found + count);
  for (ULONG i = 0; i < entry.cValues; ++i) {
    const SPropValue& v = entry.rgPropVals[i];
    bool replaced = false;
    for (const auto& n : values) replaced = replaced || PROP_ID(n.ulPropTag) == PROP_ID(v.ulPropTag);
    if (!replaced) values.push_back(v);
  }
  return ReplaceEntry(entry, values);
}

// ---- The address book ---------------------------------------------------------------------------

class CAddrBook final : public ComObject<IAddrBook, IID_IMAPIProp, IID_IAddrBook> {
 public:
  explicit CAddrBook(std::shared_ptr<Profile> profile) : m_profile(std::move(profile)) {}

  // IMAPIProp: the address book object itself has no properties.
  MAPIMETHOD(GetLastError)(HRESULT hResult, ULONG ulFlags, LPMAPIERROR* lppMAPIError) override {
    std::string text;
    {
      std::lock_guard<std::mutex> guard(m_lock);  // lock order: address book lock (leaf)
      text = hResult == S_OK ? "No error" : m_lastText.empty() ? "The address book call failed" : m_lastText;
    }
    return BuildMapiError(ulFlags, text, "Address book", lppMAPIError);
  }
  MAPIMETHOD(SaveChanges)(ULONG) override { return MAPI_E_NO_ACCESS; }
  MAPIMETHOD(GetProps)(LPSPropTagArray lpPropTagArray, ULONG ulFlags, ULONG* lpcValues,
                       LPSPropValue* lppPropArray) override {
    return GetFixedProps({}, lpPropTagArray, ulFlags, lpcValues, lppPropArray);
  }
  MAPIMETHOD(GetPropList)(ULONG, LPSPropTagArray* lppPropTagArray) override {
    if (!lppPropTagArray) return MAPI_E_INVALID_PARAMETER;
    void* buf = nullptr;
    if (MAPIAllocateBuffer(CbNewSPropTagArray(0), &buf) != S_OK) return MAPI_E_NOT_ENOUGH_MEMORY;
    static_cast<LPSPropTagArray>(buf)->cValues = 0;
    *lppPropTagArray = static_cast<LPSPropTagArray>(buf);
    return S_OK;
  }
  MAPIMETHOD(OpenProperty)(ULONG, LPCIID, ULONG, ULONG, LPUNKNOWN* lppUnk) override {
    if (lppUnk) *lppUnk = nullptr;
    return MAPI_E_NO_SUPPORT;
  }
  MAPIMETHOD(SetProps)(ULONG, LPSPropValue, LPSPropProblemArray* lppProblems) override {
    if (lppProblems) *lppProblems = nullptr;
    return MAPI_E_NO_ACCESS;
  }
  MAPIMETHOD(DeleteProps)(LPSPropTagArray, LPSPropProblemArray* lppProblems) override {
    if (lppProblems) *lppProblems = nullptr;
    return MAPI_E_NO_ACCESS;
  }
  MAPIMETHOD(CopyTo)(ULONG, LPCIID, LPSPropTagArray, ULONG_PTR, LPMAPIPROGRESS, LPCIID, LPVOID, ULONG,
                     LPSPropProblemArray* lppProblems) override {
    if (lppProblems) *lppProblems = nullptr;
    return MAPI_E_NO_SUPPORT;
  }
  MAPIMETHOD(CopyProps)(LPSPropTagArray, ULONG_PTR, LPMAPIPROGRESS, LPCIID, LPVOID, ULONG,
                        LPSPropProblemArray* lppProblems) override {
    if (lppProblems) *lppProblems = nullptr;
    return MAPI_E_NO_SUPPORT;
  }
  MAPIMETHOD(GetNamesFromIDs)(LPSPropTagArray*, LPGUID, ULONG, ULONG* lpcPropNames,
                              LPMAPINAMEID** lpppPropNames) override {
    if (lpcPropNames) *lpcPropNames = 0;
    if (lpppPropNames) *lpppPropNames = nullptr;
    return MAPI_E_NO_SUPPORT;
  }
  MAPIMETHOD(GetIDsFromNames)(ULONG, LPMAPINAMEID*, ULONG, LPSPropTagArray* lppPropTags) override {
    if (lppPropTags) *lppPropTags = nullptr;
    return MAPI_E_NO_SUPPORT;
  }

  MAPIMETHOD(OpenEntry)(ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, ULONG, ULONG* lpulObjType,
                        LPUNKNOWN* lppUnk) override {
    if (!lpulObjType || !lppUnk) return MAPI_E_INVALID_PARAMETER;
    *lpulObjType = 0;
    *lppUnk = nullptr;
    if (!lpEntryID) return Failed(MAPI_E_NO_SUPPORT, "The address book has no containers to open");
    if (lpInterface && *lpInterface != IID_IMailUser && *lpInterface != IID_IMAPIProp && *lpInterface != IID_IUnknown)
      return Failed(MAPI_E_INTERFACE_NOT_SUPPORTED, "A mail user has no such interface");
    ProfileIdentity identity;
    HRESULT hr = ParseIdentityEntryID(cbEntryID, lpEntryID, &identity);
    if (FAILED(hr)) return Failed(MAPI_E_UNKNOWN_ENTRYID, "The entry ID is not one of this address book's");
    LPMAILUSER user = nullptr;
    hr = CreateMailUser(identity, &user);
    if (FAILED(hr)) return hr;
    *lpulObjType = MAPI_MAILUSER;
    *lppUnk = user;
    return S_OK;
  }
  MAPIMETHOD(CompareEntryIDs)(ULONG cb1, LPENTRYID lpEntryID1, ULONG cb2, LPENTRYID lpEntryID2, ULONG,
                              ULONG* lpulResult) override {
    if (!lpulResult) return MAPI_E_INVALID_PARAMETER;
    *lpulResult = FALSE;
    ProfileIdentity a, b;
    if (FAILED(ParseIdentityEntryID(cb1, lpEntryID1, &a)) || FAILED(ParseIdentityEntryID(cb2, lpEntryID2, &b)))
      return Failed(MAPI_E_UNKNOWN_ENTRYID, "The entry IDs are not this address book's");
    *lpulResult = Upper(a.user) == Upper(b.user) && Upper(a.smtp) == Upper(b.smtp);
    return S_OK;
  }
  MAPIMETHOD(Advise)(ULONG, LPENTRYID lpEntryID, ULONG ulEventMask, LPMAPIADVISESINK lpAdviseSink,
                     ULONG* lpulConnection) override {
    if (!lpEntryID || !lpAdviseSink || !lpulConnection || !ulEventMask) return MAPI_E_INVALID_PARAMETER;
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: address book lock (leaf)
    *lpulConnection = m_nextConnection++;
    m_connections.insert(*lpulConnection);  // entries never change, so nothing is ever sent
    return S_OK;
  }
  MAPIMETHOD(Unadvise)(ULONG ulConnection) override {
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: address book lock (leaf)
    return m_connections.erase(ulConnection) ? S_OK : MAPI_E_NOT_FOUND;
  }
  MAPIMETHOD(CreateOneOff)(LPTSTR, LPTSTR, LPTSTR, ULONG, ULONG* lpcbEntryID, LPENTRYID* lppEntryID) override {
    if (lpcbEntryID) *lpcbEntryID = 0;
    if (lppEntryID) *lppEntryID = nullptr;
    return Failed(MAPI_E_NO_SUPPORT, "One-off addresses are not offered");
  }
  MAPIMETHOD(NewEntry)(ULONG_PTR, ULONG, ULONG, LPENTRYID, ULONG, LPENTRYID, ULONG* lpcb, LPENTRYID* lppEid) override {
    if (lpcb) *lpcb = 0;
    if (lppEid) *lppEid = nullptr;
    return Failed(MAPI_E_NO_SUPPORT, "The address book is read-only");
  }
  MAPIMETHOD(ResolveName)(ULONG_PTR, ULONG ulFlags, LPTSTR, LPADRLIST lpAdrList) override;
  MAPIMETHOD(Address)(ULONG_PTR*, LPADRPARM, LPADRLIST* lppAdrList) override {
    if (lppAdrList) *lppAdrList = nullptr;
    return Failed(MAPI_E_NO_SUPPORT, "There is no addressing dialog");
  }
  MAPIMETHOD(Details)(ULONG_PTR*, LPFNDISMISS, LPVOID, ULONG, LPENTRYID, LPFNBUTTON, LPVOID, LPTSTR, ULONG) override {
    return Failed(MAPI_E_NO_SUPPORT, "There is no details dialog");
  }
  MAPIMETHOD(RecipOptions)(ULONG_PTR, ULONG, LPADRENTRY) override {
    return Failed(MAPI_E_NO_SUPPORT, "No transport offers recipient options");
  }
  MAPIMETHOD(QueryDefaultRecipOpt)(LPTSTR, ULONG, ULONG* lpcValues, LPSPropValue* lppOptions) override {
    if (lpcValues) *lpcValues = 0;
    if (lppOptions) *lppOptions = nullptr;
    return Failed(MAPI_E_NO_SUPPORT, "No transport offers recipient options");
  }
  MAPIMETHOD(GetPAB)(ULONG* lpcb, LPENTRYID* lppEid) override {
    if (lpcb) *lpcb = 0;
    if (lppEid) *lppEid = nullptr;
    return Failed(MAPI_E_NO_SUPPORT, "There is no personal address book");
  }
  MAPIMETHOD(SetPAB)(ULONG, LPENTRYID) override { return Failed(MAPI_E_NO_SUPPORT, "There is no personal address book"); }
  MAPIMETHOD(GetDefaultDir)(ULONG* lpcb, LPENTRYID* lppEid) override {
    if (lpcb) *lpcb = 0;
    if (lppEid) *lppEid = nullptr;
    return Failed(MAPI_E_NO_SUPPORT, "There are no containers");
  }
  MAPIMETHOD(SetDefaultDir)(ULONG, LPENTRYID) override { return Failed(MAPI_E_NO_SUPPORT, "There are no containers"); }
  MAPIMETHOD(GetSearchPath)(ULONG, LPSRowSet* lppSearchPath) override {
    if (lppSearchPath) *lppSearchPath = nullptr;
    return Failed(MAPI_E_NO_SUPPORT, "There are no containers");
  }
  MAPIMETHOD(SetSearchPath)(ULONG, LPSRowSet) override { return Failed(MAPI_E_NO_SUPPORT, "There are no containers"); }
  MAPIMETHOD(PrepareRecips)(ULONG ulFlags, LPSPropTagArray lpPropTagArray, LPADRLIST lpRecipList) override {
    HRESULT hr = PrepareRecipients(ulFlags, lpPropTagArray, lpRecipList);
    return FAILED(hr) ? Failed(hr, "PrepareRecips failed") : hr;
  }

 private:
  ~CAddrBook() = default;
  HRESULT Failed(HRESULT hr, const std::string& text) {
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: address book lock (leaf)
    m_lastText = text;
    return hr;
  }

  const std::shared_ptr<Profile> m_profile;
  std::mutex m_lock;  // guards what follows
  std::string m_lastText;
  std::set<ULONG> m_connections;
  ULONG m_nextConnection = 1;
};

HRESULT CAddrBook::ResolveName(ULONG_PTR, ULONG ulFlags, LPTSTR, LPADRLIST lpAdrList) {
  if (!lpAdrList) return MAPI_E_INVALID_PARAMETER;
  if (ulFlags & ~(MAPI_UNICODE | MAPI_DIALOG | 0x00000020 /* MAPI_AB_NOMODIFY */)) return MAPI_E_UNKNOWN_FLAGS;
  std::vector<ProfileIdentity> people;
  ProfileIdentity identity;
  if (SUCCEEDED(GetProfileIdentity(m_profile->Name().c_str(), &identity))) people.push_back(identity);
  std::vector<ProfileAccount> accounts;
  if (SUCCEEDED(GetProfileAccounts(m_profile->Name().c_str(), &accounts))) {
    for (const auto& a : accounts) people.push_back(a.identity);
  }
  bool unresolved = false;
  for (ULONG i = 0; i < lpAdrList->cEntries; ++i) {
    ADRENTRY& entry = lpAdrList->aEntries[i];
    if (HasEntryID(entry)) continue;
    std::string name = Upper(EntryName(entry));
    const ProfileIdentity* match = nullptr;
    bool ambiguous = false;
    for (const auto& p : people) {
      if (name.empty() || (name != Upper(p.display) && name != Upper(p.user) && name != Upper(p.smtp))) continue;
      if (match && (Upper(match->user) != Upper(p.user) || Upper(match->smtp) != Upper(p.smtp))) ambiguous = true;
      match = &p;
    }
    if (ambiguous) return Failed(MAPI_E_AMBIGUOUS_RECIP, "The name \"" + EntryName(entry) + "\" is ambiguous");
    if (!match) {
      unresolved = true;
      continue;
    }
    if (HRESULT hr = ResolveEntry(entry, *match, ulFlags); FAILED(hr)) return hr;
  }
  return unresolved ? Failed(MAPI_E_NOT_FOUND, "Some names could not be resolved") : S_OK;
}

}  // namespace

HRESULT CreateIdentityEntryID(const ProfileIdentity& identity, ULONG* lpcbEntryID, LPENTRYID* lppEntryID) {
  if (!lpcbEntryID || !lppEntryID) return MAPI_E_INVALID_PARAMETER;
  std::vector<BYTE> bytes = IdentityBytes(identity);
  void* buf = nullptr;
  if (MAPIAllocateBuffer(static_cast<ULONG>(bytes.size()), &buf) != S_OK) return MAPI_E_NOT_ENOUGH_MEMORY;
  std::memcpy(buf, bytes.data(), bytes.size());
  *lpcbEntryID = static_cast<ULONG>(bytes.size());
  *lppEntryID = static_cast<LPENTRYID>(buf);
  return S_OK;
}

bool IsIdentityEntryID(ULONG cbEntryID, const ENTRYID* lpEntryID) {
  ProfileIdentity ignored;
  return SUCCEEDED(ParseIdentityEntryID(cbEntryID, lpEntryID, &ignored));
}

HRESULT ParseIdentityEntryID(ULONG cbEntryID, const ENTRYID* lpEntryID, ProfileIdentity* out) {
  if (!lpEntryID || !out || cbEntryID < kIdentityHeader + 3) return MAPI_E_INVALID_ENTRYID;
  const BYTE* p = reinterpret_cast<const BYTE*>(lpEntryID);
  if (p[0] || p[1] || p[2] || p[3] || std::memcmp(p + 4, kIdentityProviderUid.ab, sizeof(MAPIUID)) != 0 ||
      p[20] != 1 || p[21] || p[22] || p[23])
    return MAPI_E_INVALID_ENTRYID;
  std::string* fields[] = {&out->user, &out->display, &out->smtp};
  size_t pos = kIdentityHeader;
  for (std::string* field : fields) {
    const void* nul = pos < cbEntryID ? std::memchr(p + pos, 0, cbEntryID - pos) : nullptr;
    if (!nul) return MAPI_E_INVALID_ENTRYID;
    size_t end = static_cast<size_t>(static_cast<const BYTE*>(nul) - p);
    field->assign(reinterpret_cast<const char*>(p + pos), end - pos);
    pos = end + 1;
  }
  return pos == cbEntryID ? S_OK : MAPI_E_INVALID_ENTRYID;
}

HRESULT CreateMailUser(const ProfileIdentity& identity, LPMAILUSER* lppMailUser) {
  if (!lppMailUser) return MAPI_E_INVALID_PARAMETER;
  *lppMailUser = new CMailUser(identity);
  return S_OK;
}

HRESULT CreateAddressBook(std::shared_ptr<Profile> profile, LPADRBOOK* lppAdrBook) {
  if (!lppAdrBook || !profile) return MAPI_E_INVALID_PARAMETER;
  *lppAdrBook = new CAddrBook(std::move(profile));
  return S_OK;
}

HRESULT PrepareRecipients(ULONG ulFlags, const SPropTagArray* lpPropTagArray, LPADRLIST lpRecipList) {
  if (!lpRecipList) return MAPI_E_INVALID_PARAMETER;
  if (ulFlags & ~(MAPI_UNICODE | 0x00000010 /* MAPI_CACHE_ONLY */)) return MAPI_E_UNKNOWN_FLAGS;
  if (!lpPropTagArray) return S_OK;
  for (ULONG i = 0; i < lpRecipList->cEntries; ++i) {
    ADRENTRY& entry = lpRecipList->aEntries[i];
    if (!entry.rgPropVals && entry.cValues) return MAPI_E_INVALID_PARAMETER;
    LPSPropValue fromUser = nullptr;
    ULONG cFromUser = 0;
    const SPropValue* eid = entry.rgPropVals ? PpropFindProp(entry.rgPropVals, entry.cValues, PR_ENTRYID) : nullptr;
    ProfileIdentity identity;
    if (eid && SUCCEEDED(ParseIdentityEntryID(eid->Value.bin.cb, reinterpret_cast<LPENTRYID>(eid->Value.bin.lpb),
                                              &identity))) {
      LPMAILUSER user = nullptr;
      CreateMailUser(identity, &user);
      HRESULT hr = user->GetProps(const_cast<LPSPropTagArray>(lpPropTagArray), ulFlags & MAPI_UNICODE, &cFromUser,
                                  &fromUser);
      user->Release();
      if (FAILED(hr)) return hr;
    }
    MapiPtr<SPropValue> holder(fromUser);
    std::vector<SPropValue> values;
    for (ULONG t = 0; t < lpPropTagArray->cValues; ++t) {
      ULONG tag = lpPropTagArray->aulPropTag[t];
      const SPropValue* chosen = nullptr;
      if (fromUser && PROP_TYPE(fromUser[t].ulPropTag) != PT_ERROR) chosen = &fromUser[t];
      for (ULONG k = 0; !chosen && k < entry.cValues; ++k) {
        const SPropValue& v = entry.rgPropVals[k];
        if (PROP_ID(v.ulPropTag) == PROP_ID(tag) &&
            (PROP_TYPE(tag) == PT_UNSPECIFIED || PROP_TYPE(v.ulPropTag) == PROP_TYPE(tag)))
          chosen = &v;
      }
      SPropValue missing{};
      if (!chosen) {
        missing.ulPropTag = CHANGE_PROP_TYPE(tag, PT_ERROR);
        missing.Value.err = MAPI_E_NOT_FOUND;
      }
      values.push_back(chosen ? *chosen : missing);
    }
    for (ULONG k = 0; k < entry.cValues; ++k) {
      const SPropValue& v = entry.rgPropVals[k];
      bool asked = false;
      for (ULONG t = 0; t < lpPropTagArray->cValues; ++t)
        asked = asked || PROP_ID(lpPropTagArray->aulPropTag[t]) == PROP_ID(v.ulPropTag);
      if (!asked) values.push_back(v);
    }
    if (HRESULT hr = ReplaceEntry(entry, values); FAILED(hr)) return hr;
  }
  return S_OK;
}

}  // namespace adm
