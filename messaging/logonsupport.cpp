// IMAPISupport for store logons (see logonsupport.h).
#include "logonsupport.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <set>

#include "addrbook.h"
#include "adminutil.h"
#include "adplatform.h"
#include "mapicode.h"
#include "mapiguid.h"
#include "mapiutil.h"
#include "mapix.h"
#include "notify.h"
#include "propcopy.h"
#include "statustable.h"
#include "supportbase.h"

#ifndef MAPI_NON_READ
#define MAPI_NON_READ ((ULONG)0x00000001)
#endif
#ifndef MESSAGE_DIALOG
#define MESSAGE_DIALOG ((ULONG)0x00000002)
#endif
#ifndef FOLDER_DIALOG
#define FOLDER_DIALOG ((ULONG)0x00000002)
#endif

namespace adm {
namespace {

// ---- Progress -----------------------------------------------------------------------------------

class CProgress final : public ComObject<IMAPIProgress, IID_IMAPIProgress> {
 public:
  explicit CProgress(ULONG ulFlags) : m_flags(ulFlags) {}
  MAPIMETHOD(Progress)(ULONG ulValue, ULONG ulCount, ULONG ulTotal) override {
    ReportProgress(ulValue, ulCount, ulTotal);
    return S_OK;
  }
  MAPIMETHOD(GetFlags)(ULONG* lpulFlags) override { return Read(lpulFlags, m_flags); }
  MAPIMETHOD(GetMax)(ULONG* lpulMax) override { return Read(lpulMax, m_max); }
  MAPIMETHOD(GetMin)(ULONG* lpulMin) override { return Read(lpulMin, m_min); }
  MAPIMETHOD(SetLimits)(LPULONG lpulMin, LPULONG lpulMax, LPULONG lpulFlags) override {
    if (lpulFlags && (*lpulFlags & ~MAPI_TOP_LEVEL)) return MAPI_E_UNKNOWN_FLAGS;
    if (lpulMin) m_min = *lpulMin;
    if (lpulMax) m_max = *lpulMax;
    if (lpulFlags) m_flags = *lpulFlags;
    return S_OK;
  }

 private:
  ~CProgress() = default;
  static HRESULT Read(ULONG* out, const std::atomic<ULONG>& value) {
    if (!out) return MAPI_E_INVALID_PARAMETER;
    *out = value;
    return S_OK;
  }
  std::atomic<ULONG> m_flags;
  std::atomic<ULONG> m_min{1};
  std::atomic<ULONG> m_max{1000};
};

// ---- Helpers ------------------------------------------------------------------------------------

// The object behind an LPVOID of a property interface, as IMAPIProp.
LPMAPIPROP AsProp(LPCIID lpInterface, LPVOID lpObject) {
  if (!lpInterface || !lpObject) return nullptr;
  static const IID* const kPropInterfaces[] = {&IID_IMAPIProp,   &IID_IMessage,      &IID_IAttachment,
                                               &IID_IMAPIFolder, &IID_IMAPIContainer, &IID_IMsgStore,
                                               &IID_IMailUser,   &IID_IProfSect,     &IID_IABContainer,
                                               &IID_IDistList,   &IID_IMAPIStatus,   &IID_IAddrBook};
  for (const IID* iid : kPropInterfaces) {
    if (*lpInterface == *iid) return static_cast<LPMAPIPROP>(lpObject);
  }
  return nullptr;
}

LPMAPIFOLDER AsFolder(LPCIID lpInterface, LPVOID lpObject) {
  if (!lpInterface || !lpObject || *lpInterface != IID_IMAPIFolder) return nullptr;
  return static_cast<LPMAPIFOLDER>(lpObject);
}

struct Released {
  void operator()(IUnknown* p) const {
    if (p) p->Release();
  }
};
template <class T>
using ComPtr = std::unique_ptr<T, Released>;

HRESULT OpenFolder(LPMDB store, const SBinary& eid, ComPtr<IMAPIFolder>* out) {
  ULONG type = 0;
  LPUNKNOWN unk = nullptr;
  HRESULT hr = store->OpenEntry(eid.cb, reinterpret_cast<LPENTRYID>(eid.lpb), &IID_IMAPIFolder, MAPI_MODIFY, &type,
                                &unk);
  if (FAILED(hr)) return hr;
  out->reset(static_cast<LPMAPIFOLDER>(unk));
  return type == MAPI_FOLDER ? S_OK : MAPI_E_INVALID_ENTRYID;
}

// Recipient rows as an ADRLIST in MAPI memory (each entry its own allocation, as FreePadrlist
// expects), with PR_RESPONSIBILITY cleared.
HRESULT RowsToAdrList(const SRowSet& rows, LPADRLIST* out) {
  void* buf = nullptr;
  if (MAPIAllocateBuffer(CbNewADRLIST(rows.cRows), &buf) != S_OK) return MAPI_E_NOT_ENOUGH_MEMORY;
  auto* list = static_cast<LPADRLIST>(buf);
  list->cEntries = 0;
  for (ULONG i = 0; i < rows.cRows; ++i) {
    const SRow& row = rows.aRow[i];
    std::vector<SPropValue> values(row.lpProps, row.lpProps + row.cValues);
    values.erase(std::remove_if(values.begin(), values.end(),
                                [](const SPropValue& v) {
                                  return v.ulPropTag == PR_RESPONSIBILITY || PROP_TYPE(v.ulPropTag) == PT_ERROR;
                                }),
                 values.end());
    SPropValue responsibility{};
    responsibility.ulPropTag = PR_RESPONSIBILITY;
    responsibility.Value.b = FALSE;
    values.push_back(responsibility);
    LPSPropValue copy = nullptr;
    ULONG cb = 0;
    if (ScDupPropset(static_cast<int>(values.size()), values.data(), MAPIAllocateBuffer, &copy) != S_OK) {
      FreePadrlist(list);
      return MAPI_E_NOT_ENOUGH_MEMORY;
    }
    (void)cb;
    list->aEntries[i].ulReserved1 = 0;
    list->aEntries[i].cValues = static_cast<ULONG>(values.size());
    list->aEntries[i].rgPropVals = copy;
    list->cEntries = i + 1;
  }
  *out = list;
  return S_OK;
}

// ---- The support object -------------------------------------------------------------------------

class LogonSupport final : public CSupportBase {
 public:
  explicit LogonSupport(LogonContext context)
      : CSupportBase("MAPI support", " is not offered to a message store"), m_ctx(std::move(context)) {}

  MAPIMETHOD(Subscribe)(LPNOTIFKEY lpKey, ULONG ulEventMask, ULONG ulFlags, LPMAPIADVISESINK lpAdviseSink,
                        ULONG* lpulConnection) override {
    HRESULT hr = Engine().Subscribe(lpKey, ulEventMask, ulFlags, lpAdviseSink, lpulConnection);
    if (FAILED(hr)) return Failed(hr, "Subscribe failed");
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: support lock (leaf)
    m_connections.insert(*lpulConnection);
    return hr;
  }
  MAPIMETHOD(Unsubscribe)(ULONG ulConnection) override {
    bool fKnown = false;
    {
      std::lock_guard<std::mutex> guard(m_lock);  // lock order: support lock (leaf)
      fKnown = m_connections.erase(ulConnection) != 0;
    }
    if (!fKnown) return Failed(MAPI_E_NOT_FOUND, "Unsubscribe: no such connection");
    return Engine().Unsubscribe(ulConnection);
  }
  MAPIMETHOD(Notify)(LPNOTIFKEY lpKey, ULONG cNotification, LPNOTIFICATION lpNotifications, ULONG* lpulFlags) override {
    if (!lpulFlags) return MAPI_E_INVALID_PARAMETER;
    HRESULT hr = Engine().Notify(lpKey, cNotification, lpNotifications, lpulFlags);
    return FAILED(hr) ? Failed(hr, "Notify failed") : hr;
  }
  MAPIMETHOD(ModifyStatusRow)(ULONG cValues, LPSPropValue lpColumnVals, ULONG ulFlags) override {
    StatusRowOwner owner;
    owner.uid = m_ctx.provider.uid;
    owner.dllName = m_ctx.provider.dllName;
    owner.displayName = m_ctx.provider.displayName;
    owner.resourceType = m_ctx.provider.resourceType;
    owner.resourceFlags = m_ctx.provider.resourceFlags;
    HRESULT hr = m_ctx.statusTable->ModifyRow(owner, cValues, lpColumnVals, ulFlags);
    return FAILED(hr) ? Failed(hr, "ModifyStatusRow failed") : hr;
  }
  MAPIMETHOD(OpenProfileSection)(LPMAPIUID lpUid, ULONG ulFlags, LPPROFSECT* lppProfileObj) override {
    HRESULT hr = m_ctx.profile->OpenSection(lpUid ? lpUid : &m_ctx.provider.uid, ulFlags, lppProfileObj);
    return FAILED(hr) ? Failed(hr, "OpenProfileSection failed") : hr;
  }
  MAPIMETHOD(NewUID)(LPMAPIUID lpMuid) override {
    if (!lpMuid) return MAPI_E_INVALID_PARAMETER;
    *lpMuid = NewUid();
    return S_OK;
  }
  MAPIMETHOD(SetProviderUID)(LPMAPIUID lpProviderID, ULONG ulFlags) override {
    if (!lpProviderID) return MAPI_E_INVALID_PARAMETER;
    if (ulFlags) return MAPI_E_UNKNOWN_FLAGS;
    std::lock_guard<std::mutex> guard(m_ctx.state->lock);  // lock order: logon state (leaf)
    auto& uids = m_ctx.state->providerUids;
    for (const auto& u : uids) {
      if (std::memcmp(&u, lpProviderID, sizeof u) == 0) return S_OK;
    }
    uids.push_back(*lpProviderID);
    return S_OK;
  }
  MAPIMETHOD(CopyMessages)(LPCIID lpSrcInterface, LPVOID lpSrcFolder, LPENTRYLIST lpMsgList, LPCIID lpDestInterface,
                           LPVOID lpDestFolder, ULONG_PTR, LPMAPIPROGRESS lpProgress, ULONG ulFlags) override {
    if (ulFlags & ~(MAPI_MOVE | MAPI_DECLINE_OK | MAPI_DIALOG | MESSAGE_DIALOG)) return MAPI_E_UNKNOWN_FLAGS;
    LPMAPIFOLDER src = AsFolder(lpSrcInterface, lpSrcFolder), dst = AsFolder(lpDestInterface, lpDestFolder);
    if (!src || !dst || !lpMsgList) return Failed(MAPI_E_INVALID_PARAMETER, "CopyMessages needs two folders");
    HRESULT hr = CopyMessageList(src, lpMsgList, dst, (ulFlags & MAPI_DIALOG) ? lpProgress : nullptr, ulFlags);
    return FAILED(hr) ? Failed(hr, "CopyMessages failed") : hr;
  }
  MAPIMETHOD(CopyFolder)(LPCIID lpSrcInterface, LPVOID lpSrcFolder, ULONG cbEntryID, LPENTRYID lpEntryID,
                         LPCIID lpDestInterface, LPVOID lpDestFolder, LPTSTR lpszNewFolderName, ULONG_PTR,
                         LPMAPIPROGRESS lpProgress, ULONG ulFlags) override {
    if (ulFlags & ~(FOLDER_MOVE | COPY_SUBFOLDERS | MAPI_DECLINE_OK | MAPI_DIALOG | FOLDER_DIALOG | MAPI_UNICODE))
      return MAPI_E_UNKNOWN_FLAGS;
    LPMAPIFOLDER src = AsFolder(lpSrcInterface, lpSrcFolder), dst = AsFolder(lpDestInterface, lpDestFolder);
    if (!src || !dst || !lpEntryID) return Failed(MAPI_E_INVALID_PARAMETER, "CopyFolder needs two folders");
    std::string name;
    if (lpszNewFolderName) {
      name = (ulFlags & MAPI_UNICODE) ? adp::Utf16ToUtf8(reinterpret_cast<const char16_t*>(lpszNewFolderName))
                                      : std::string(reinterpret_cast<const char*>(lpszNewFolderName));
    }
    HRESULT hr = CopyFolderTree(src, cbEntryID, lpEntryID, dst, lpszNewFolderName ? name.c_str() : nullptr,
                                (ulFlags & MAPI_DIALOG) ? lpProgress : nullptr, ulFlags & ~MAPI_UNICODE);
    return FAILED(hr) ? Failed(hr, "CopyFolder failed") : hr;
  }
  MAPIMETHOD(DoCopyTo)(LPCIID lpSrcInterface, LPVOID lpSrcObj, ULONG ciidExclude, LPCIID rgiidExclude,
                       LPSPropTagArray lpExcludeProps, ULONG_PTR, LPMAPIPROGRESS lpProgress, LPCIID lpDestInterface,
                       LPVOID lpDestObj, ULONG ulFlags, LPSPropProblemArray* lppProblems) override {
    if (lppProblems) *lppProblems = nullptr;
    if (ulFlags & ~(MAPI_MOVE | MAPI_NOREPLACE | MAPI_DECLINE_OK | MAPI_DIALOG)) return MAPI_E_UNKNOWN_FLAGS;
    LPMAPIPROP src = AsProp(lpSrcInterface, lpSrcObj), dst = AsProp(lpDestInterface, lpDestObj);
    if (!src || !dst || (ciidExclude && !rgiidExclude))
      return Failed(MAPI_E_INVALID_PARAMETER, "DoCopyTo needs a source and a destination");
    CopyOptions options{ciidExclude, rgiidExclude, (ulFlags & MAPI_DIALOG) ? lpProgress : nullptr, ulFlags};
    HRESULT hr = CopyObjectTo(src, lpExcludeProps, options, dst, lppProblems);
    return FAILED(hr) ? Failed(hr, "DoCopyTo failed") : hr;
  }
  MAPIMETHOD(DoCopyProps)(LPCIID lpSrcInterface, LPVOID lpSrcObj, LPSPropTagArray lpIncludeProps, ULONG_PTR,
                          LPMAPIPROGRESS lpProgress, LPCIID lpDestInterface, LPVOID lpDestObj, ULONG ulFlags,
                          LPSPropProblemArray* lppProblems) override {
    if (lppProblems) *lppProblems = nullptr;
    if (ulFlags & ~(MAPI_MOVE | MAPI_NOREPLACE | MAPI_DECLINE_OK | MAPI_DIALOG)) return MAPI_E_UNKNOWN_FLAGS;
    LPMAPIPROP src = AsProp(lpSrcInterface, lpSrcObj), dst = AsProp(lpDestInterface, lpDestObj);
    if (!src || !dst || !lpIncludeProps)
      return Failed(MAPI_E_INVALID_PARAMETER, "DoCopyProps needs a source, a destination and properties");
    CopyOptions options{0, nullptr, (ulFlags & MAPI_DIALOG) ? lpProgress : nullptr, ulFlags};
    HRESULT hr = CopyObjectProps(src, lpIncludeProps, options, dst, lppProblems);
    return FAILED(hr) ? Failed(hr, "DoCopyProps failed") : hr;
  }
  MAPIMETHOD(DoProgressDialog)(ULONG_PTR, ULONG ulFlags, LPMAPIPROGRESS* lppProgress) override {
    if (!lppProgress) return MAPI_E_INVALID_PARAMETER;
    *lppProgress = nullptr;
    if (ulFlags & ~MAPI_TOP_LEVEL) return MAPI_E_UNKNOWN_FLAGS;
    return CreateProgress(MAPI_TOP_LEVEL, lppProgress);
  }
  MAPIMETHOD(ReadReceipt)(ULONG ulFlags, LPMESSAGE lpReadMessage, LPMESSAGE* lppEmptyMessage) override {
    if (!lppEmptyMessage || !lpReadMessage) return MAPI_E_INVALID_PARAMETER;
    *lppEmptyMessage = nullptr;
    if (ulFlags & ~MAPI_NON_READ) return MAPI_E_UNKNOWN_FLAGS;
    return S_OK;  // no transport takes reports, so none is made
  }
  MAPIMETHOD(PrepareSubmit)(LPMESSAGE lpMessage, ULONG* lpulFlags) override {
    if (!lpMessage || !lpulFlags) return MAPI_E_INVALID_PARAMETER;
    *lpulFlags = 0;  // no preprocessor is registered
    return S_OK;
  }
  MAPIMETHOD(ExpandRecips)(LPMESSAGE lpMessage, ULONG* lpulFlags) override;
  MAPIMETHOD(DoSentMail)(ULONG ulFlags, LPMESSAGE lpMessage) override;
  MAPIMETHOD(OpenAddressBook)(LPCIID lpInterface, ULONG ulFlags, LPADRBOOK* lppAdrBook) override {
    if (!lppAdrBook) return MAPI_E_INVALID_PARAMETER;
    *lppAdrBook = nullptr;
    if (lpInterface && *lpInterface != IID_IAddrBook && *lpInterface != IID_IMAPIProp && *lpInterface != IID_IUnknown)
      return MAPI_E_INTERFACE_NOT_SUPPORTED;
    if (ulFlags & ~(MAPI_DEFERRED_ERRORS | 0x1)) return MAPI_E_UNKNOWN_FLAGS;
    HRESULT hr = CreateAddressBook(m_ctx.profile, lppAdrBook);
    return FAILED(hr) ? Failed(hr, "OpenAddressBook failed") : hr;
  }
  MAPIMETHOD(Preprocess)(ULONG, ULONG cbEntryID, LPENTRYID lpEntryID) override {
    if (!lpEntryID || !cbEntryID) return MAPI_E_INVALID_PARAMETER;
    return S_OK;  // no preprocessor is registered
  }
  MAPIMETHOD(CompleteMsg)(ULONG ulFlags, ULONG cbEntryID, LPENTRYID lpEntryID) override;
  MAPIMETHOD(StoreLogoffTransports)(ULONG* lpulFlags) override {
    if (!lpulFlags) return MAPI_E_INVALID_PARAMETER;
    constexpr ULONG kKnown = LOGOFF_NO_WAIT | LOGOFF_ORDERLY | LOGOFF_PURGE | LOGOFF_ABORT | LOGOFF_QUIET;
    if (*lpulFlags & ~kKnown) return MAPI_E_UNKNOWN_FLAGS;
    *lpulFlags = LOGOFF_COMPLETE;  // no transport is logged on for this store
    return S_OK;
  }
  MAPIMETHOD(WrapStoreEntryID)(ULONG cbOrigEntry, LPENTRYID lpOrigEntry, ULONG* lpcbWrappedEntry,
                               LPENTRYID* lppWrappedEntry) override {
    HRESULT hr = ::WrapStoreEntryID(0, const_cast<LPTSTR>(m_ctx.provider.dllName.c_str()), cbOrigEntry, lpOrigEntry,
                                    lpcbWrappedEntry, lppWrappedEntry);
    return FAILED(hr) ? Failed(hr, "WrapStoreEntryID failed") : hr;
  }
  MAPIMETHOD(ModifyProfile)(ULONG ulFlags) override {
    if (ulFlags & ~MDB_TEMPORARY) return MAPI_E_UNKNOWN_FLAGS;
    std::lock_guard<std::mutex> guard(m_ctx.state->lock);  // lock order: logon state (leaf)
    m_ctx.state->permanent = !(ulFlags & MDB_TEMPORARY);
    return S_OK;
  }
  MAPIMETHOD(IStorageFromStream)(LPUNKNOWN lpUnkIn, LPCIID lpInterface, ULONG ulFlags,
                                 LPSTORAGE* lppStorageOut) override {
    if (!lppStorageOut) return MAPI_E_INVALID_PARAMETER;
    *lppStorageOut = nullptr;
    HRESULT hr = HrIStorageFromStream(lpUnkIn, lpInterface, ulFlags, lppStorageOut);
    return FAILED(hr) ? Failed(hr, "IStorageFromStream failed") : hr;
  }

 private:
  ~LogonSupport() {
    // Subscriptions the provider left behind end with it.
    for (ULONG connection : m_connections) Engine().Unsubscribe(connection);
  }
  CNotifyEngine& Engine() { return CNotifyEngine::ForDirectory(m_ctx.runtimeDir); }
  LPMDB Store() {
    std::lock_guard<std::mutex> guard(m_ctx.state->lock);  // lock order: logon state (leaf)
    if (m_ctx.state->store) m_ctx.state->store->AddRef();
    return m_ctx.state->store;
  }

  const LogonContext m_ctx;
  std::set<ULONG> m_connections;
};

HRESULT LogonSupport::ExpandRecips(LPMESSAGE lpMessage, ULONG* lpulFlags) {
  if (!lpMessage || !lpulFlags) return MAPI_E_INVALID_PARAMETER;
  *lpulFlags = 0;
  LPMAPITABLE table = nullptr;
  HRESULT hr = lpMessage->GetRecipientTable(0, &table);
  if (FAILED(hr)) return Failed(hr, "ExpandRecips: no recipient table");
  ComPtr<IMAPITable> tableHolder(table);
  LPSRowSet rows = nullptr;
  hr = HrQueryAllRows(table, nullptr, nullptr, nullptr, 0, &rows);
  if (FAILED(hr)) return Failed(hr, "ExpandRecips: the recipients could not be read");
  LPADRLIST list = nullptr;
  hr = RowsToAdrList(*rows, &list);
  FreeProws(rows);
  if (SUCCEEDED(hr) && list->cEntries) hr = lpMessage->ModifyRecipients(MODRECIP_MODIFY, list);
  if (list) FreePadrlist(list);
  if (FAILED(hr)) return Failed(hr, "ExpandRecips: the recipients could not be updated");
  *lpulFlags = NEEDS_SPOOLER;  // no transport is coupled to the store: the spooler sends
  return S_OK;
}

HRESULT LogonSupport::DoSentMail(ULONG ulFlags, LPMESSAGE lpMessage) {
  if (!lpMessage) return MAPI_E_INVALID_PARAMETER;
  if (ulFlags) return MAPI_E_UNKNOWN_FLAGS;
  ComPtr<IMsgStore> store(Store());
  if (!store) return Failed(MAPI_E_CALL_FAILED, "DoSentMail: the store is not logged on");
  SizedSPropTagArray(4, tags) = {4, {PR_DELETE_AFTER_SUBMIT, PR_SENTMAIL_ENTRYID, PR_ENTRYID, PR_PARENT_ENTRYID}};
  ULONG count = 0;
  LPSPropValue values = nullptr;
  HRESULT hr = lpMessage->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), 0, &count, &values);
  if (FAILED(hr)) return Failed(hr, "DoSentMail: the message could not be read");
  MapiPtr<SPropValue> holder(values);
  const bool del = values[0].ulPropTag == PR_DELETE_AFTER_SUBMIT && values[0].Value.b;
  const bool move = !del && values[1].ulPropTag == PR_SENTMAIL_ENTRYID;
  if (!del && !move) {
    lpMessage->Release();
    return S_OK;
  }
  if (values[2].ulPropTag != PR_ENTRYID || values[3].ulPropTag != PR_PARENT_ENTRYID)
    return Failed(MAPI_E_INVALID_PARAMETER, "DoSentMail: the message has no entry ID or folder");
  ComPtr<IMAPIFolder> parent;
  hr = OpenFolder(store.get(), values[3].Value.bin, &parent);
  if (FAILED(hr)) return Failed(hr, "DoSentMail: the message's folder could not be opened");
  SBinary one = values[2].Value.bin;
  ENTRYLIST list{1, &one};
  lpMessage->Release();  // the message is ours now; it is moved or deleted by its entry ID
  if (del) {
    hr = parent->DeleteMessages(&list, 0, nullptr, 0);
  } else {
    ComPtr<IMAPIFolder> sent;
    hr = OpenFolder(store.get(), values[1].Value.bin, &sent);
    if (SUCCEEDED(hr)) hr = parent->CopyMessages(&list, &IID_IMAPIFolder, sent.get(), 0, nullptr, MAPI_MOVE);
  }
  return FAILED(hr) ? Failed(hr, "DoSentMail: the sent message could not be filed") : S_OK;
}

HRESULT LogonSupport::CompleteMsg(ULONG ulFlags, ULONG cbEntryID, LPENTRYID lpEntryID) {
  if (!lpEntryID || !cbEntryID) return MAPI_E_INVALID_PARAMETER;
  if (ulFlags) return MAPI_E_UNKNOWN_FLAGS;
  ComPtr<IMsgStore> store(Store());
  if (!store) return Failed(MAPI_E_CALL_FAILED, "CompleteMsg: the store is not logged on");
  ULONG type = 0;
  LPUNKNOWN unk = nullptr;
  HRESULT hr = store->OpenEntry(cbEntryID, lpEntryID, &IID_IMessage, MAPI_MODIFY, &type, &unk);
  if (FAILED(hr)) return Failed(hr, "CompleteMsg: the message could not be opened");
  if (type != MAPI_MESSAGE) {
    unk->Release();
    return Failed(MAPI_E_INVALID_ENTRYID, "CompleteMsg: the entry is not a message");
  }
  hr = DoSentMail(0, static_cast<LPMESSAGE>(unk));
  if (FAILED(hr)) unk->Release();
  return hr;
}

}  // namespace

HRESULT CreateLogonSupport(LogonContext context, LPMAPISUP* lppSupport) {
  if (!lppSupport) return MAPI_E_INVALID_PARAMETER;
  *lppSupport = nullptr;
  if (!context.profile || !context.statusTable || !context.state) return MAPI_E_INVALID_PARAMETER;
  *lppSupport = new LogonSupport(std::move(context));
  return S_OK;
}

HRESULT CreateProgress(ULONG ulFlags, LPMAPIPROGRESS* lppProgress) {
  if (!lppProgress) return MAPI_E_INVALID_PARAMETER;
  *lppProgress = new CProgress(ulFlags);
  return S_OK;
}

}  // namespace adm
