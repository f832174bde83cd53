// The session's address book: the identity and the accounts of the profile as mail users.
//
// Identity entry IDs (what QueryIdentity, PROP_MAPI_IDENTITY_ENTRYID and IMailUser PR_ENTRYID
// give), integers little-endian:
//   bytes 0-3    flags, 0
//   bytes 4-19   kIdentityProviderUid (below)
//   bytes 20-23  version, 1
//   then         user name, display name and SMTP address, each UTF-8 with a terminating NUL
// The entry ID carries the user, so it opens in any session and process.
#pragma once
#include <memory>

#include "mapidefs.h"
#include "mapix.h"
#include "session.h"

namespace adm {

class Profile;

extern const MAPIUID kIdentityProviderUid;

// The entry ID of `identity`, in one MAPI allocation.
HRESULT CreateIdentityEntryID(const ProfileIdentity& identity, ULONG* lpcbEntryID, LPENTRYID* lppEntryID);
bool IsIdentityEntryID(ULONG cbEntryID, const ENTRYID* lpEntryID);
// MAPI_E_INVALID_ENTRYID when the bytes are not an identity entry ID.
HRESULT ParseIdentityEntryID(ULONG cbEntryID, const ENTRYID* lpEntryID, ProfileIdentity* out);

// A read-only IMailUser: PR_ENTRYID, PR_RECORD_KEY, PR_SEARCH_KEY, PR_OBJECT_TYPE (MAPI_MAILUSER),
// PR_DISPLAY_TYPE (DT_MAILUSER), PR_DISPLAY_NAME, PR_TRANSMITABLE_DISPLAY_NAME, PR_ADDRTYPE ("EX"),
// PR_EMAIL_ADDRESS and PR_ACCOUNT (the user name), PR_SMTP_ADDRESS; strings in both widths.
HRESULT CreateMailUser(const ProfileIdentity& identity, LPMAILUSER* lppMailUser);

// IAddrBook of a session on `profile`: OpenEntry and CompareEntryIDs of identity entry IDs,
// ResolveName against the identity and accounts (display name, user name or SMTP address, without
// regard to case), PrepareRecips, Advise/Unadvise (nothing changes, so nothing is sent). The
// rest answers MAPI_E_NO_SUPPORT.
HRESULT CreateAddressBook(std::shared_ptr<Profile> profile, LPADRBOOK* lppAdrBook);

// IAddrBook::PrepareRecips on its own: for each entry, the asked properties first and in order
// (from the mail user when the entry's PR_ENTRYID is an identity, else from the entry, else
// PT_ERROR MAPI_E_NOT_FOUND), then the entry's other properties. Each rgPropVals is replaced by a
// new MAPI allocation.
HRESULT PrepareRecipients(ULONG ulFlags, const SPropTagArray* lpPropTagArray, LPADRLIST lpRecipList);

}  // namespace adm
