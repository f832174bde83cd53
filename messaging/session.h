// Sessions: MAPILogonEx and IMAPISession, and the settings of the subsystem that the client tool,
// the spooler program and tests control.
//
// Logon. MAPILogonEx (mapix.h) opens the named profile, or the default one for a NULL or empty
// name (MAPI_USE_DEFAULT says the same). MAPI_LOGON_UI and MAPI_PASSWORD_UI are accepted and never
// show anything. Without MAPI_NEW_SESSION a process has one shared session per profile: a second
// logon to the same profile returns that session with one more reference (MAPI_ALLOW_OTHERS marks
// nothing more here: every session is shareable). MAPI_NEW_SESSION always makes a private one.
// A shared logon that names no profile, while the default profile has no session in the process
// and the process has exactly one session of another profile, joins that one: a provider that
// logs on from inside its client's logon reaches the client's profile.
// Errors: MAPI_E_NOT_INITIALIZED before MAPIInitialize, MAPI_E_LOGON_FAILED when there is no such
// profile (or no default), MAPI_E_UNKNOWN_FLAGS, MAPI_E_INVALID_PARAMETER for a NULL out pointer.
//
// Stores. GetMsgStoresTable lists the profile's store providers (PR_RESOURCE_TYPE
// MAPI_STORE_PROVIDER). OpenMsgStore loads the provider's library once per process
// (loader.h), calls its MSProviderInit once per library (the MAPI allocators, CURRENT_SPI_VERSION;
// a provider answering below PDK1_SPI_VERSION is refused with MAPI_E_VERSION) and then
// IMSProvider::Logon with a logon support object (logonsupport.h), the profile name, the
// unwrapped store entry ID and the OpenMsgStore flags that a provider sees (MDB_NO_DIALOG,
// MDB_WRITE, MDB_NO_MAIL, MDB_TEMPORARY, MAPI_DEFERRED_ERRORS, MAPI_BEST_ACCESS). An already open
// store of the session is returned again with one more reference. Logoff calls IMSLogon::Logoff
// on every store in the order they were opened, releases the logons, and calls
// IMSProvider::Shutdown when the last session of the process using that provider object is gone.
//
// Spooler. In a process that called SetSpoolerProcess(true), OpenMsgStore calls
// IMSProvider::SpoolerLogon instead of Logon (no spool security), and the status table gains the
// spooler's row.
//
// Runtime directory of a profile: adp::RuntimeDirectory() + "/profiles/" + <profile key>, the key
// being the profile's folder name in the profile store (profile.h). The logon support objects'
// Subscribe, Unsubscribe and Notify and the session's own Advise use the notification engine
// (notify.h) of that directory, so every process of the profile shares them.
//
// Identity. The profile's global section holds the user (PR_AD_IDENTITY_*): user name, display
// name and SMTP address, and optionally the accounts (PR_AD_ACCOUNT_*: parallel multi-valued
// lists, one entry per account). With no account configured the identity is the one account.
// QueryIdentity gives the entry ID of the identity's IMailUser (addrbook.h); OpenEntry and the
// address book open it with PR_EMAIL_ADDRESS (the user name), PR_SMTP_ADDRESS, PR_DISPLAY_NAME_W.
// The account manager stand-in (accounts.h) serves the same configuration.
//
// Wrapped store entry IDs (WrapStoreEntryID, mapix.h and IMAPISupport). Layout, integers
// little-endian:
//   bytes 0-3    flags, 0
//   bytes 4-19   the wrapping UID 38 A1 BB 10 05 E5 10 1A A1 BB 08 00 2B 2A 56 C2
//   byte  20     version, 0
//   byte  21     flag, 0
//   bytes 22-    the provider's DLL name, ANSI, with its terminating NUL, then zero bytes up to
//                a multiple of 4 from the start of the entry ID
//   then         the provider's own entry ID, at least 4 bytes, to the end
// Anything else given where a wrapped store entry ID is expected is MAPI_E_INVALID_ENTRYID.
#pragma once
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "mapidefs.h"
#include "mapitags.h"
#include "mapix.h"

// Identity and account properties of the profile's global section.
#define PR_AD_IDENTITY_USER PROP_TAG(PT_STRING8, 0x6620)
#define PR_AD_IDENTITY_DISPLAY PROP_TAG(PT_UNICODE, 0x6621)
#define PR_AD_IDENTITY_SMTP PROP_TAG(PT_STRING8, 0x6622)
#define PR_AD_ACCOUNT_NAMES PROP_TAG(PT_MV_UNICODE, 0x6630)
#define PR_AD_ACCOUNT_USERS PROP_TAG(PT_MV_STRING8, 0x6631)
#define PR_AD_ACCOUNT_DISPLAYS PROP_TAG(PT_MV_UNICODE, 0x6632)
#define PR_AD_ACCOUNT_SMTPS PROP_TAG(PT_MV_STRING8, 0x6633)

namespace adm {

class Profile;

// The runtime directory of a profile (above); created on demand. "" when there is no such profile.
std::string ProfileRuntimeDirectory(const Profile& profile);
std::string ProfileRuntimeDirectory(const char* lpszProfileName);

// Makes later OpenMsgStore calls of this process use SpoolerLogon (the spooler program sets it
// once, before logging on).
void SetSpoolerProcess(bool spooler);
bool IsSpoolerProcess();

// Receives what IMAPIProgress objects from IMAPISupport::DoProgressDialog report (UTF-8 free:
// plain numbers). Empty by default: progress is then silent. Called on the provider's thread.
using ProgressCallback = std::function<void(ULONG ulValue, ULONG ulCount, ULONG ulTotal)>;
void SetProgressCallback(ProgressCallback callback);

// Texts are UTF-8.
struct ProfileIdentity {
  std::string user;     // PR_EMAIL_ADDRESS, the address book's account name
  std::string display;  // PR_DISPLAY_NAME_W
  std::string smtp;     // PR_SMTP_ADDRESS
};
struct ProfileAccount {
  std::string name;  // PROP_ACCT_NAME
  ProfileIdentity identity;
};

// Writes the identity into the profile's global section (NULL or empty profile name: the
// default profile). NULL texts are written as empty. MAPI_E_NOT_FOUND for no such profile,
// MAPI_E_INVALID_PARAMETER when all three texts are empty.
HRESULT SetProfileIdentity(const char* lpszProfileName, const char* lpszUser, const char* lpszDisplay,
                           const char* lpszSmtp);
// MAPI_E_NOT_FOUND for no such profile; an unset identity reads as empty texts.
HRESULT GetProfileIdentity(const char* lpszProfileName, ProfileIdentity* out);
// Replaces the configured accounts (an empty list removes them).
HRESULT SetProfileAccounts(const char* lpszProfileName, const std::vector<ProfileAccount>& accounts);
// The configured accounts, or the identity as the single account when none are configured (none
// at all when the identity is unset too).
HRESULT GetProfileAccounts(const char* lpszProfileName, std::vector<ProfileAccount>* out);

// Splits a wrapped store entry ID (format above). MAPI_E_INVALID_ENTRYID when malformed.
HRESULT UnwrapStoreEntryID(ULONG cbWrapped, const ENTRYID* lpWrapped, std::string* dllName,
                           std::vector<BYTE>* original);
// True when the bytes are a well-formed wrapped store entry ID.
bool IsWrappedStoreEntryID(ULONG cb, const ENTRYID* lpEntryID);

}  // namespace adm
