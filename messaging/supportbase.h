// The common ground of the subsystem's support objects: every IMAPISupport slot answers
// MAPI_E_NO_SUPPORT (clearing its out values) unless a support object overrides it, and failures
// keep a text for GetLastError.
#pragma once
#include <mutex>
#include <string>

#include "adminutil.h"
#include "comobject.h"
#include "mapicode.h"
#include "mapiguid.h"
#include "mapispi.h"
#include "mapix.h"

namespace adm {

class CSupportBase : public ComObject<IMAPISupport, IID_IMAPISup> {
 public:
  MAPIMETHOD(GetLastError)(HRESULT hResult, ULONG ulFlags, LPMAPIERROR* lppMAPIError) override {
    std::string text;
    {
      std::lock_guard<std::mutex> guard(m_lock);  // lock order: support lock (leaf)
      text = hResult == S_OK ? "No error" : m_lastText.empty() ? "The support call failed" : m_lastText;
    }
    return BuildMapiError(ulFlags, text, m_pszComponent, lppMAPIError);
  }
  MAPIMETHOD(GetMemAllocRoutines)(LPALLOCATEBUFFER* lpAllocateBuffer, LPALLOCATEMORE* lpAllocateMore,
                                  LPFREEBUFFER* lpFreeBuffer) override {
    if (!lpAllocateBuffer || !lpAllocateMore || !lpFreeBuffer) return MAPI_E_INVALID_PARAMETER;
    *lpAllocateBuffer = MAPIAllocateBuffer;
    *lpAllocateMore = MAPIAllocateMore;
    *lpFreeBuffer = MAPIFreeBuffer;
    return S_OK;
  }
  MAPIMETHOD(Subscribe)(LPNOTIFKEY, ULONG, ULONG, LPMAPIADVISESINK, ULONG* lpulConnection) override {
    if (lpulConnection) *lpulConnection = 0;
    return NoSupport("Subscribe");
  }
  MAPIMETHOD(Unsubscribe)(ULONG) override { return NoSupport("Unsubscribe"); }
  MAPIMETHOD(Notify)(LPNOTIFKEY, ULONG, LPNOTIFICATION, ULONG*) override { return NoSupport("Notify"); }
  MAPIMETHOD(ModifyStatusRow)(ULONG, LPSPropValue, ULONG) override { return NoSupport("ModifyStatusRow"); }
  MAPIMETHOD(OpenProfileSection)(LPMAPIUID, ULONG, LPPROFSECT* lppProfileObj) override {
    if (lppProfileObj) *lppProfileObj = nullptr;
    return NoSupport("OpenProfileSection");
  }
  MAPIMETHOD(RegisterPreprocessor)(LPMAPIUID, LPTSTR, LPTSTR, LPSTR, LPSTR, ULONG) override {
    return NoSupport("RegisterPreprocessor");
  }
  MAPIMETHOD(NewUID)(LPMAPIUID) override { return NoSupport("NewUID"); }
  MAPIMETHOD(MakeInvalid)(ULONG, LPVOID, ULONG, ULONG) override { return NoSupport("MakeInvalid"); }
  MAPIMETHOD(SpoolerYield)(ULONG) override { return NoSupport("SpoolerYield"); }
  MAPIMETHOD(SpoolerNotify)(ULONG, LPVOID) override { return NoSupport("SpoolerNotify"); }
  MAPIMETHOD(CreateOneOff)(LPTSTR, LPTSTR, LPTSTR, ULONG, ULONG* lpcbEntryID, LPENTRYID* lppEntryID) override {
    return NoEntry("CreateOneOff", lpcbEntryID, lppEntryID);
  }
  MAPIMETHOD(SetProviderUID)(LPMAPIUID, ULONG) override { return NoSupport("SetProviderUID"); }
  MAPIMETHOD(CompareEntryIDs)(ULONG, LPENTRYID, ULONG, LPENTRYID, ULONG, ULONG* lpulResult) override {
    if (lpulResult) *lpulResult = 0;
    return NoSupport("CompareEntryIDs");
  }
  MAPIMETHOD(OpenTemplateID)(ULONG, LPENTRYID, ULONG, LPMAPIPROP, LPCIID, LPMAPIPROP* lppMAPIPropNew,
                             LPMAPIPROP) override {
    if (lppMAPIPropNew) *lppMAPIPropNew = nullptr;
    return NoSupport("OpenTemplateID");
  }
  MAPIMETHOD(OpenEntry)(ULONG, LPENTRYID, LPCIID, ULONG, ULONG* lpulObjType, LPUNKNOWN* lppUnk) override {
    if (lpulObjType) *lpulObjType = 0;
    if (lppUnk) *lppUnk = nullptr;
    return NoSupport("OpenEntry");
  }
  MAPIMETHOD(GetOneOffTable)(ULONG, LPMAPITABLE* lppTable) override {
    if (lppTable) *lppTable = nullptr;
    return NoSupport("GetOneOffTable");
  }
  MAPIMETHOD(Address)(ULONG_PTR*, LPADRPARM, LPADRLIST* lppAdrList) override {
    if (lppAdrList) *lppAdrList = nullptr;
    return NoSupport("Address");
  }
  MAPIMETHOD(Details)(ULONG_PTR*, LPFNDISMISS, LPVOID, ULONG, LPENTRYID, LPFNBUTTON, LPVOID, LPTSTR, ULONG) override {
    return NoSupport("Details");
  }
  MAPIMETHOD(NewEntry)(ULONG_PTR, ULONG, ULONG, LPENTRYID, ULONG, LPENTRYID, ULONG* lpcbEIDNewEntry,
                       LPENTRYID* lppEIDNewEntry) override {
    return NoEntry("NewEntry", lpcbEIDNewEntry, lppEIDNewEntry);
  }
  MAPIMETHOD(DoConfigPropsheet)(ULONG_PTR, ULONG, LPTSTR, LPMAPITABLE, LPMAPIPROP, ULONG) override {
    return NoSupport("DoConfigPropsheet");
  }
  MAPIMETHOD(CopyMessages)(LPCIID, LPVOID, LPENTRYLIST, LPCIID, LPVOID, ULONG_PTR, LPMAPIPROGRESS, ULONG) override {
    return NoSupport("CopyMessages");
  }
  MAPIMETHOD(CopyFolder)(LPCIID, LPVOID, ULONG, LPENTRYID, LPCIID, LPVOID, LPTSTR, ULONG_PTR, LPMAPIPROGRESS,
                         ULONG) override {
    return NoSupport("CopyFolder");
  }
  MAPIMETHOD(DoCopyTo)(LPCIID, LPVOID, ULONG, LPCIID, LPSPropTagArray, ULONG_PTR, LPMAPIPROGRESS, LPCIID, LPVOID,
                       ULONG, LPSPropProblemArray* lppProblems) override {
    if (lppProblems) *lppProblems = nullptr;
    return NoSupport("DoCopyTo");
  }
  MAPIMETHOD(DoCopyProps)(LPCIID, LPVOID, LPSPropTagArray, ULONG_PTR, LPMAPIPROGRESS, LPCIID, LPVOID, ULONG,
                          LPSPropProblemArray* lppProblems) override {
    if (lppProblems) *lppProblems = nullptr;
    return NoSupport("DoCopyProps");
  }
  MAPIMETHOD(DoProgressDialog)(ULONG_PTR, ULONG, LPMAPIPROGRESS* lppProgress) override {
    if (lppProgress) *lppProgress = nullptr;
    return NoSupport("DoProgressDialog");
  }
  MAPIMETHOD(ReadReceipt)(ULONG, LPMESSAGE, LPMESSAGE* lppEmptyMessage) override {
    if (lppEmptyMessage) *lppEmptyMessage = nullptr;
    return NoSupport("ReadReceipt");
  }
  MAPIMETHOD(PrepareSubmit)(LPMESSAGE, ULONG*) override { return NoSupport("PrepareSubmit"); }
  MAPIMETHOD(ExpandRecips)(LPMESSAGE, ULONG*) override { return NoSupport("ExpandRecips"); }
  MAPIMETHOD(UpdatePAB)(ULONG, LPMESSAGE) override { return NoSupport("UpdatePAB"); }
  MAPIMETHOD(DoSentMail)(ULONG, LPMESSAGE) override { return NoSupport("DoSentMail"); }
  MAPIMETHOD(OpenAddressBook)(LPCIID, ULONG, LPADRBOOK* lppAdrBook) override {
    if (lppAdrBook) *lppAdrBook = nullptr;
    return NoSupport("OpenAddressBook");
  }
  MAPIMETHOD(Preprocess)(ULONG, ULONG, LPENTRYID) override { return NoSupport("Preprocess"); }
  MAPIMETHOD(CompleteMsg)(ULONG, ULONG, LPENTRYID) override { return NoSupport("CompleteMsg"); }
  MAPIMETHOD(StoreLogoffTransports)(ULONG*) override { return NoSupport("StoreLogoffTransports"); }
  MAPIMETHOD(StatusRecips)(LPMESSAGE, LPADRLIST) override { return NoSupport("StatusRecips"); }
  MAPIMETHOD(WrapStoreEntryID)(ULONG, LPENTRYID, ULONG* lpcbWrappedEntry, LPENTRYID* lppWrappedEntry) override {
    return NoEntry("WrapStoreEntryID", lpcbWrappedEntry, lppWrappedEntry);
  }
  MAPIMETHOD(ModifyProfile)(ULONG) override { return NoSupport("ModifyProfile"); }
  MAPIMETHOD(IStorageFromStream)(LPUNKNOWN, LPCIID, ULONG, LPSTORAGE* lppStorageOut) override {
    if (lppStorageOut) *lppStorageOut = nullptr;
    return NoSupport("IStorageFromStream");
  }
  MAPIMETHOD(GetSvcConfigSupportObj)(ULONG, LPMAPISUP* lppSvcSupport) override {
    if (lppSvcSupport) *lppSvcSupport = nullptr;
    return NoSupport("GetSvcConfigSupportObj");
  }

 protected:
  // pszComponent names the object in MAPIERROR; pszRefusal follows a refused method's name in
  // the GetLastError text.
  CSupportBase(const char* pszComponent, const char* pszRefusal)
      : m_pszComponent(pszComponent), m_pszRefusal(pszRefusal) {}

  HRESULT Failed(HRESULT hr, const std::string& text) {
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: support lock (leaf)
    m_lastText = text;
    return hr;
  }
  HRESULT NoSupport(const char* method) { return Failed(MAPI_E_NO_SUPPORT, std::string(method) + m_pszRefusal); }
  HRESULT NoEntry(const char* method, ULONG* lpcb, LPENTRYID* lppEntryID) {
    if (lpcb) *lpcb = 0;
    if (lppEntryID) *lppEntryID = nullptr;
    return NoSupport(method);
  }

  std::mutex m_lock;  // guards m_lastText and what a derived object adds under it

 private:
  const char* const m_pszComponent;
  const char* const m_pszRefusal;
  std::string m_lastText;
};

}  // namespace adm
