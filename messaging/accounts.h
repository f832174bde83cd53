// The account manager stand-in: IOlkAccountManager with its enumerator and accounts, over the
// accounts of the profile's configuration (session.h: GetProfileAccounts).
//
// Reaching it: CoCreateInstance(CLSID_OlkAccountManager, NULL, CLSCTX_INPROC_SERVER,
// IID_IOlkAccountManager, ...) once RegisterAccountManager() has run (MAPILogonEx runs it): it
// names the messaging library as the class's in-process server, and the library exports
// DllGetClassObject for that class alone. Init takes the profile name from the helper's
// GetIdentity (an empty or failing answer means the default profile).
//
// Accounts: type CLSID_OlkMAPIAccount, categories CLSID_OlkMail and CLSID_OlkStore. Properties:
// PROP_ACCT_ID (1, 2, ... in configuration order), PROP_ACCT_NAME, PROP_ACCT_USER_DISPLAY_NAME,
// PROP_ACCT_USER_EMAIL_ADDR (the SMTP address), PROP_ACCT_IS_EXCH (0), PROP_ACCT_STAMP and
// PROP_MAPI_IDENTITY_ENTRYID (addrbook.h). The stamp reads "ADACCT:<account id, 8 hex digits>:"
// followed by the account's LegacyDN, which is its user name. Values from GetProp are freed with
// the account's FreeMemory. Accounts are read-only: SetProp answers E_OLK_PROP_READ_ONLY.
#pragma once
#include "acctmgmt.h"
#include "mapix.h"

namespace adm {

// A new, uninitialised manager.
HRESULT CreateAccountManager(IOlkAccountManager** lppManager);
// An IOlkAccountHelper for a client that has no helper of its own: GetIdentity gives
// `lpszProfileName` (NULL: the default profile), GetMapiSession the session (AddRef'd).
HRESULT CreateAccountHelper(const char* lpszProfileName, LPMAPISESSION lpSession, IOlkAccountHelper** lppHelper);
// Registers the messaging library as the manager's in-process server in this state directory
// (writes only when the registration is missing or names another file).
HRESULT RegisterAccountManager();

}  // namespace adm
