// CMAPISupport: the provider's own handle on the support object MAPI passes at logon. It keeps a
// reference count of its own and refuses, with an assertion, the calls a message store must never
// make; everything else goes to the wrapped object unchanged.
#pragma once
#include <windows.h>
#include <mapispi.h>

class CMAPISupport final : public IMAPISupport {
 public:
  // Takes one reference on pSupObj for the wrapper's lifetime. The count starts at 0: the first
  // holder AddRefs.
  explicit CMAPISupport(LPMAPISUP pSupObj);
  CMAPISupport(const CMAPISupport&) = delete;
  CMAPISupport& operator=(const CMAPISupport&) = delete;

  STDMETHODIMP QueryInterface(REFIID riid, LPVOID* ppvObj) override;
  STDMETHODIMP_(ULONG) AddRef() override;
  STDMETHODIMP_(ULONG) Release() override;

  MAPIMETHOD(GetLastError)(HRESULT hResult, ULONG ulFlags, LPMAPIERROR* lppMAPIError) override;
  MAPIMETHOD(GetMemAllocRoutines)(LPALLOCATEBUFFER* lpAllocateBuffer, LPALLOCATEMORE* lpAllocateMore,
                                  LPFREEBUFFER* lpFreeBuffer) override;
  MAPIMETHOD(Subscribe)(LPNOTIFKEY lpKey, ULONG ulEventMask, ULONG ulFlags, LPMAPIADVISESINK lpAdviseSink,
                        ULONG* lpulConnection) override;
  MAPIMETHOD(Unsubscribe)(ULONG ulConnection) override;
  MAPIMETHOD(Notify)(LPNOTIFKEY lpKey, ULONG cNotification, LPNOTIFICATION lpNotifications,
                     ULONG* lpulFlags) override;
  MAPIMETHOD(ModifyStatusRow)(ULONG cValues, LPSPropValue lpColumnVals, ULONG ulFlags) override;
  MAPIMETHOD(OpenProfileSection)(LPMAPIUID lpUid, ULONG ulFlags, LPPROFSECT* lppProfileObj) override;
  MAPIMETHOD(RegisterPreprocessor)(LPMAPIUID lpMuid, LPTSTR lpszAdrType, LPTSTR lpszDLLName, LPSTR lpszPreprocess,
                                   LPSTR lpszRemovePreprocessInfo, ULONG ulFlags) override;
  MAPIMETHOD(NewUID)(LPMAPIUID lpMuid) override;
  MAPIMETHOD(MakeInvalid)(ULONG ulFlags, LPVOID lpObject, ULONG ulRefCount, ULONG cMethods) override;
  MAPIMETHOD(SpoolerYield)(ULONG ulFlags) override;
  MAPIMETHOD(SpoolerNotify)(ULONG ulFlags, LPVOID lpvData) override;
  MAPIMETHOD(CreateOneOff)(LPTSTR lpszName, LPTSTR lpszAdrType, LPTSTR lpszAddress, ULONG ulFlags,
                           ULONG* lpcbEntryID, LPENTRYID* lppEntryID) override;
  MAPIMETHOD(SetProviderUID)(LPMAPIUID lpProviderID, ULONG ulFlags) override;
  MAPIMETHOD(CompareEntryIDs)(ULONG cbEntry1, LPENTRYID lpEntry1, ULONG cbEntry2, LPENTRYID lpEntry2,
                              ULONG ulCompareFlags, ULONG* lpulResult) override;
  MAPIMETHOD(OpenTemplateID)(ULONG cbTemplateID, LPENTRYID lpTemplateID, ULONG ulTemplateFlags,
                             LPMAPIPROP lpMAPIPropData, LPCIID lpInterface, LPMAPIPROP* lppMAPIPropNew,
                             LPMAPIPROP lpMAPIPropSibling) override;
  MAPIMETHOD(OpenEntry)(ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, ULONG ulOpenFlags,
                        ULONG* lpulObjType, LPUNKNOWN* lppUnk) override;
  MAPIMETHOD(GetOneOffTable)(ULONG ulFlags, LPMAPITABLE* lppTable) override;
  MAPIMETHOD(Address)(ULONG_PTR* lpulUIParam, LPADRPARM lpAdrParameters, LPADRLIST* lppAdrList) override;
  MAPIMETHOD(Details)(ULONG_PTR* lpulUIParam, LPFNDISMISS lpfnDismiss, LPVOID lpvDismissContext, ULONG cbEntryID,
                      LPENTRYID lpEntryID, LPFNBUTTON lpfButtonCallback, LPVOID lpvButtonContext,
                      LPTSTR lpszButtonText, ULONG ulFlags) override;
  MAPIMETHOD(NewEntry)(ULONG_PTR ulUIParam, ULONG ulFlags, ULONG cbEIDContainer, LPENTRYID lpEIDContainer,
                       ULONG cbEIDNewEntryTpl, LPENTRYID lpEIDNewEntryTpl, ULONG* lpcbEIDNewEntry,
                       LPENTRYID* lppEIDNewEntry) override;
  MAPIMETHOD(DoConfigPropsheet)(ULONG_PTR ulUIParam, ULONG ulFlags, LPTSTR lpszTitle, LPMAPITABLE lpDisplayTable,
                                LPMAPIPROP lpCOnfigData, ULONG ulTopPage) override;
  MAPIMETHOD(CopyMessages)(LPCIID lpSrcInterface, LPVOID lpSrcFolder, LPENTRYLIST lpMsgList,
                           LPCIID lpDestInterface, LPVOID lpDestFolder, ULONG_PTR ulUIParam,
                           LPMAPIPROGRESS lpProgress, ULONG ulFlags) override;
  MAPIMETHOD(CopyFolder)(LPCIID lpSrcInterface, LPVOID lpSrcFolder, ULONG cbEntryID, LPENTRYID lpEntryID,
                         LPCIID lpDestInterface, LPVOID lpDestFolder, LPTSTR lpszNewFolderName,
                         ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress, ULONG ulFlags) override;
  MAPIMETHOD(DoCopyTo)(LPCIID lpSrcInterface, LPVOID lpSrcObj, ULONG ciidExclude, LPCIID rgiidExclude,
                       LPSPropTagArray lpExcludeProps, ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress,
                       LPCIID lpDestInterface, LPVOID lpDestObj, ULONG ulFlags,
                       LPSPropProblemArray* lppProblems) override;
  MAPIMETHOD(DoCopyProps)(LPCIID lpSrcInterface, LPVOID lpSrcObj, LPSPropTagArray lpIncludeProps,
                          ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress, LPCIID lpDestInterface,
                          LPVOID lpDestObj, ULONG ulFlags, LPSPropProblemArray* lppProblems) override;
  MAPIMETHOD(DoProgressDialog)(ULONG_PTR ulUIParam, ULONG ulFlags, LPMAPIPROGRESS* lppProgress) override;
  MAPIMETHOD(ReadReceipt)(ULONG ulFlags, LPMESSAGE lpReadMessage, LPMESSAGE* lppEmptyMessage) override;
  MAPIMETHOD(PrepareSubmit)(LPMESSAGE lpMessage, ULONG* lpulFlags) override;
  MAPIMETHOD(ExpandRecips)(LPMESSAGE lpMessage, ULONG* lpulFlags) override;
  MAPIMETHOD(UpdatePAB)(ULONG ulFlags, LPMESSAGE lpMessage) override;
  MAPIMETHOD(DoSentMail)(ULONG ulFlags, LPMESSAGE lpMessage) override;
  MAPIMETHOD(OpenAddressBook)(LPCIID lpInterface, ULONG ulFlags, LPADRBOOK* lppAdrBook) override;
  MAPIMETHOD(Preprocess)(ULONG ulFlags, ULONG cbEntryID, LPENTRYID lpEntryID) override;
  MAPIMETHOD(CompleteMsg)(ULONG ulFlags, ULONG cbEntryID, LPENTRYID lpEntryID) override;
  MAPIMETHOD(StoreLogoffTransports)(ULONG* lpulFlags) override;
  MAPIMETHOD(StatusRecips)(LPMESSAGE lpMessage, LPADRLIST lpRecipList) override;
  MAPIMETHOD(WrapStoreEntryID)(ULONG cbOrigEntry, LPENTRYID lpOrigEntry, ULONG* lpcbWrappedEntry,
                               LPENTRYID* lppWrappedEntry) override;
  MAPIMETHOD(ModifyProfile)(ULONG ulFlags) override;
  MAPIMETHOD(IStorageFromStream)(LPUNKNOWN lpUnkIn, LPCIID lpInterface, ULONG ulFlags,
                                 LPSTORAGE* lppStorageOut) override;
  MAPIMETHOD(GetSvcConfigSupportObj)(ULONG ulFlags, LPMAPISUP* lppSvcSupport) override;

 private:
  ~CMAPISupport();

  ULONG m_cRef;
  LPMAPISUP m_pSupObj;
  CRITICAL_SECTION m_cs;  // guards m_cRef only; nothing is called while it is held
};
