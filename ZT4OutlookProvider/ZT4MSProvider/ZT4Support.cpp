#include "ZT4Support.h"

#include "ZT4_TRACES.h"

// A call a message store must never make: an assertion, and no support.
#define ZT4_REFUSE_SUPPORT_CALL() (AssertStatement(__FILE__, __LINE__), MAPI_E_NO_SUPPORT)

CMAPISupport::CMAPISupport(LPMAPISUP pSupObj) : m_cRef(0), m_pSupObj(pSupObj) {
  InitializeCriticalSection(&m_cs);
  m_pSupObj->AddRef();
}

CMAPISupport::~CMAPISupport() {
  m_pSupObj->Release();
  DeleteCriticalSection(&m_cs);
}

STDMETHODIMP CMAPISupport::QueryInterface(REFIID riid, LPVOID* ppvObj) {
  return m_pSupObj->QueryInterface(riid, ppvObj);
}

STDMETHODIMP_(ULONG) CMAPISupport::AddRef() {
  EnterCriticalSection(&m_cs);  // lock order: leaf
  ULONG cRef = ++m_cRef;
  LeaveCriticalSection(&m_cs);
  return cRef;
}

STDMETHODIMP_(ULONG) CMAPISupport::Release() {
  EnterCriticalSection(&m_cs);  // lock order: leaf
  ULONG cRef = --m_cRef;
  LeaveCriticalSection(&m_cs);
  if (cRef == 0) delete this;
  return cRef;
}

MAPIMETHODIMP CMAPISupport::GetLastError(HRESULT hResult, ULONG ulFlags, LPMAPIERROR* lppMAPIError) {
  return m_pSupObj->GetLastError(hResult, ulFlags, lppMAPIError);
}

MAPIMETHODIMP CMAPISupport::GetMemAllocRoutines(LPALLOCATEBUFFER* lpAllocateBuffer, LPALLOCATEMORE* lpAllocateMore,
                                                LPFREEBUFFER* lpFreeBuffer) {
  return m_pSupObj->GetMemAllocRoutines(lpAllocateBuffer, lpAllocateMore, lpFreeBuffer);
}

MAPIMETHODIMP CMAPISupport::Subscribe(LPNOTIFKEY lpKey, ULONG ulEventMask, ULONG ulFlags,
                                      LPMAPIADVISESINK lpAdviseSink, ULONG* lpulConnection) {
  return m_pSupObj->Subscribe(lpKey, ulEventMask, ulFlags, lpAdviseSink, lpulConnection);
}

MAPIMETHODIMP CMAPISupport::Unsubscribe(ULONG ulConnection) { return m_pSupObj->Unsubscribe(ulConnection); }

MAPIMETHODIMP CMAPISupport::Notify(LPNOTIFKEY lpKey, ULONG cNotification, LPNOTIFICATION lpNotifications,
                                   ULONG* lpulFlags) {
  return m_pSupObj->Notify(lpKey, cNotification, lpNotifications, lpulFlags);
}

MAPIMETHODIMP CMAPISupport::ModifyStatusRow(ULONG cValues, LPSPropValue lpColumnVals, ULONG ulFlags) {
  return m_pSupObj->ModifyStatusRow(cValues, lpColumnVals, ulFlags);
}

MAPIMETHODIMP CMAPISupport::OpenProfileSection(LPMAPIUID lpUid, ULONG ulFlags, LPPROFSECT* lppProfileObj) {
  return m_pSupObj->OpenProfileSection(lpUid, ulFlags, lppProfileObj);
}

MAPIMETHODIMP CMAPISupport::RegisterPreprocessor(LPMAPIUID, LPTSTR, LPTSTR, LPSTR, LPSTR, ULONG) {
  return ZT4_REFUSE_SUPPORT_CALL();
}

MAPIMETHODIMP CMAPISupport::NewUID(LPMAPIUID lpMuid) { return m_pSupObj->NewUID(lpMuid); }

MAPIMETHODIMP CMAPISupport::MakeInvalid(ULONG, LPVOID, ULONG, ULONG) { return ZT4_REFUSE_SUPPORT_CALL(); }

MAPIMETHODIMP CMAPISupport::SpoolerYield(ULONG) { return ZT4_REFUSE_SUPPORT_CALL(); }

MAPIMETHODIMP CMAPISupport::SpoolerNotify(ULONG, LPVOID) { return ZT4_REFUSE_SUPPORT_CALL(); }

MAPIMETHODIMP CMAPISupport::CreateOneOff(LPTSTR, LPTSTR, LPTSTR, ULONG, ULONG*, LPENTRYID*) {
  return ZT4_REFUSE_SUPPORT_CALL();
}

MAPIMETHODIMP CMAPISupport::SetProviderUID(LPMAPIUID lpProviderID, ULONG ulFlags) {
  return m_pSupObj->SetProviderUID(lpProviderID, ulFlags);
}

MAPIMETHODIMP CMAPISupport::CompareEntryIDs(ULONG, LPENTRYID, ULONG, LPENTRYID, ULONG, ULONG*) {
  return ZT4_REFUSE_SUPPORT_CALL();
}

MAPIMETHODIMP CMAPISupport::OpenTemplateID(ULONG, LPENTRYID, ULONG, LPMAPIPROP, LPCIID, LPMAPIPROP*, LPMAPIPROP) {
  return ZT4_REFUSE_SUPPORT_CALL();
}

MAPIMETHODIMP CMAPISupport::OpenEntry(ULONG, LPENTRYID, LPCIID, ULONG, ULONG*, LPUNKNOWN*) {
  return ZT4_REFUSE_SUPPORT_CALL();
}

MAPIMETHODIMP CMAPISupport::GetOneOffTable(ULONG, LPMAPITABLE*) { return ZT4_REFUSE_SUPPORT_CALL(); }

MAPIMETHODIMP CMAPISupport::Address(ULONG_PTR*, LPADRPARM, LPADRLIST*) { return ZT4_REFUSE_SUPPORT_CALL(); }

MAPIMETHODIMP CMAPISupport::Details(ULONG_PTR*, LPFNDISMISS, LPVOID, ULONG, LPENTRYID, LPFNBUTTON, LPVOID, LPTSTR,
                                    ULONG) {
  return ZT4_REFUSE_SUPPORT_CALL();
}

MAPIMETHODIMP CMAPISupport::NewEntry(ULONG_PTR, ULONG, ULONG, LPENTRYID, ULONG, LPENTRYID, ULONG*, LPENTRYID*) {
  return ZT4_REFUSE_SUPPORT_CALL();
}

MAPIMETHODIMP CMAPISupport::DoConfigPropsheet(ULONG_PTR ulUIParam, ULONG ulFlags, LPTSTR lpszTitle,
                                              LPMAPITABLE lpDisplayTable, LPMAPIPROP lpCOnfigData,
                                              ULONG ulTopPage) {
  return m_pSupObj->DoConfigPropsheet(ulUIParam, ulFlags, lpszTitle, lpDisplayTable, lpCOnfigData, ulTopPage);
}

MAPIMETHODIMP CMAPISupport::CopyMessages(LPCIID lpSrcInterface, LPVOID lpSrcFolder, LPENTRYLIST lpMsgList,
                                         LPCIID lpDestInterface, LPVOID lpDestFolder, ULONG_PTR ulUIParam,
                                         LPMAPIPROGRESS lpProgress, ULONG ulFlags) {
  return m_pSupObj->CopyMessages(lpSrcInterface, lpSrcFolder, lpMsgList, lpDestInterface, lpDestFolder, ulUIParam,
                                 lpProgress, ulFlags);
}

MAPIMETHODIMP CMAPISupport::CopyFolder(LPCIID lpSrcInterface, LPVOID lpSrcFolder, ULONG cbEntryID,
                                       LPENTRYID lpEntryID, LPCIID lpDestInterface, LPVOID lpDestFolder,
                                       LPTSTR lpszNewFolderName, ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress,
                                       ULONG ulFlags) {
  return m_pSupObj->CopyFolder(lpSrcInterface, lpSrcFolder, cbEntryID, lpEntryID, lpDestInterface, lpDestFolder,
                               lpszNewFolderName, ulUIParam, lpProgress, ulFlags);
}

MAPIMETHODIMP CMAPISupport::DoCopyTo(LPCIID lpSrcInterface, LPVOID lpSrcObj, ULONG ciidExclude,
                                     LPCIID rgiidExclude, LPSPropTagArray lpExcludeProps, ULONG_PTR ulUIParam,
                                     LPMAPIPROGRESS lpProgress, LPCIID lpDestInterface, LPVOID lpDestObj,
                                     ULONG ulFlags, LPSPropProblemArray* lppProblems) {
  return m_pSupObj->DoCopyTo(lpSrcInterface, lpSrcObj, ciidExclude, rgiidExclude, lpExcludeProps, ulUIParam,
                             lpProgress, lpDestInterface, lpDestObj, ulFlags, lppProblems);
}

MAPIMETHODIMP CMAPISupport::DoCopyProps(LPCIID lpSrcInterface, LPVOID lpSrcObj, LPSPropTagArray lpIncludeProps,
                                        ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress, LPCIID lpDestInterface,
                                        LPVOID lpDestObj, ULONG ulFlags, LPSPropProblemArray* lppProblems) {
  return m_pSupObj->DoCopyProps(lpSrcInterface, lpSrcObj, lpIncludeProps, ulUIParam, lpProgress, lpDestInterface,
                                lpDestObj, ulFlags, lppProblems);
}

MAPIMETHODIMP CMAPISupport::DoProgressDialog(ULONG_PTR ulUIParam, ULONG ulFlags, LPMAPIPROGRESS* lppProgress) {
  return m_pSupObj->DoProgressDialog(ulUIParam, ulFlags, lppProgress);
}

MAPIMETHODIMP CMAPISupport::ReadReceipt(ULONG ulFlags, LPMESSAGE lpReadMessage, LPMESSAGE* lppEmptyMessage) {
  return m_pSupObj->ReadReceipt(ulFlags, lpReadMessage, lppEmptyMessage);
}

MAPIMETHODIMP CMAPISupport::PrepareSubmit(LPMESSAGE lpMessage, ULONG* lpulFlags) {
  return m_pSupObj->PrepareSubmit(lpMessage, lpulFlags);
}

MAPIMETHODIMP CMAPISupport::ExpandRecips(LPMESSAGE lpMessage, ULONG* lpulFlags) {
  return m_pSupObj->ExpandRecips(lpMessage, lpulFlags);
}

MAPIMETHODIMP CMAPISupport::UpdatePAB(ULONG, LPMESSAGE) { return ZT4_REFUSE_SUPPORT_CALL(); }

MAPIMETHODIMP CMAPISupport::DoSentMail(ULONG ulFlags, LPMESSAGE lpMessage) {
  return m_pSupObj->DoSentMail(ulFlags, lpMessage);
}

MAPIMETHODIMP CMAPISupport::OpenAddressBook(LPCIID lpInterface, ULONG ulFlags, LPADRBOOK* lppAdrBook) {
  return m_pSupObj->OpenAddressBook(lpInterface, ulFlags, lppAdrBook);
}

MAPIMETHODIMP CMAPISupport::Preprocess(ULONG ulFlags, ULONG cbEntryID, LPENTRYID lpEntryID) {
  return m_pSupObj->Preprocess(ulFlags, cbEntryID, lpEntryID);
}

MAPIMETHODIMP CMAPISupport::CompleteMsg(ULONG ulFlags, ULONG cbEntryID, LPENTRYID lpEntryID) {
  return m_pSupObj->CompleteMsg(ulFlags, cbEntryID, lpEntryID);
}

MAPIMETHODIMP CMAPISupport::StoreLogoffTransports(ULONG* lpulFlags) {
  return m_pSupObj->StoreLogoffTransports(lpulFlags);
}

MAPIMETHODIMP CMAPISupport::StatusRecips(LPMESSAGE, LPADRLIST) { return ZT4_REFUSE_SUPPORT_CALL(); }

MAPIMETHODIMP CMAPISupport::WrapStoreEntryID(ULONG cbOrigEntry, LPENTRYID lpOrigEntry, ULONG* lpcbWrappedEntry,
                                             LPENTRYID* lppWrappedEntry) {
  return m_pSupObj->WrapStoreEntryID(cbOrigEntry, lpOrigEntry, lpcbWrappedEntry, lppWrappedEntry);
}

MAPIMETHODIMP CMAPISupport::ModifyProfile(ULONG ulFlags) { return m_pSupObj->ModifyProfile(ulFlags); }

MAPIMETHODIMP CMAPISupport::IStorageFromStream(LPUNKNOWN lpUnkIn, LPCIID lpInterface, ULONG ulFlags,
                                               LPSTORAGE* lppStorageOut) {
  return m_pSupObj->IStorageFromStream(lpUnkIn, lpInterface, ulFlags, lppStorageOut);
}

MAPIMETHODIMP CMAPISupport::GetSvcConfigSupportObj(ULONG, LPMAPISUP*) { return ZT4_REFUSE_SUPPORT_CALL(); }
