// The IMAPISupport that a store provider's Logon and SpoolerLogon receive: all 44 slots in
// published order.
//
// Working: GetLastError, GetMemAllocRoutines (the MAPI allocators), Subscribe, Unsubscribe and
// Notify (the notification engine of the profile's runtime directory, session.h),
// ModifyStatusRow (the session's status table), OpenProfileSection (NULL: the provider's own
// section), NewUID, SetProviderUID (remembered, see LogonState), WrapStoreEntryID (with the
// provider's DLL name), ModifyProfile, StoreLogoffTransports (no transports: nothing to wait
// for), CopyMessages, CopyFolder, DoCopyTo, DoCopyProps (propcopy.h), DoSentMail (deletes the
// message when PR_DELETE_AFTER_SUBMIT is set, else moves it to PR_SENTMAIL_ENTRYID when set, and
// releases it), PrepareSubmit, ExpandRecips (PR_RESPONSIBILITY cleared on every recipient;
// NEEDS_SPOOLER, as no transport is coupled to a store here), OpenAddressBook (addrbook.h),
// Preprocess (no preprocessors are registered), CompleteMsg (the sent-mail step for the
// message), DoProgressDialog (an IMAPIProgress reporting to SetProgressCallback), ReadReceipt (no
// transport takes reports: nothing is made), IStorageFromStream (HrIStorageFromStream).
// The others answer MAPI_E_NO_SUPPORT: they belong to address-book or transport providers, or
// are never given to a message store.
#pragma once
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "mapispi.h"
#include "profile.h"

namespace adm {

class StatusTable;

// What a logon shares with its session. The session fills `store` once Logon has returned and
// clears it at Logoff; the support object reads it under `lock` (a leaf lock).
struct LogonState {
  std::mutex lock;
  LPMDB store = nullptr;              // not referenced: the session holds the store
  std::vector<MAPIUID> providerUids;  // from SetProviderUID, in order
  bool permanent = false;             // ModifyProfile was called
};

struct LogonContext {
  std::shared_ptr<Profile> profile;
  ProviderInfo provider;
  std::string runtimeDir;  // the profile's runtime directory
  std::shared_ptr<StatusTable> statusTable;
  std::shared_ptr<LogonState> state;
};

// A support object with one reference.
HRESULT CreateLogonSupport(LogonContext context, LPMAPISUP* lppSupport);

// The IMAPIProgress of DoProgressDialog, reporting to the process's progress callback.
HRESULT CreateProgress(ULONG ulFlags, LPMAPIPROGRESS* lppProgress);
// Hands a report to the callback of SetProgressCallback (session.h), if any.
void ReportProgress(ULONG ulValue, ULONG ulCount, ULONG ulTotal);

}  // namespace adm
