// The logon object MAPI holds beside the store: it keeps the store alive, hands entry-ID work to
// it and publishes the provider's status row.
#include "ZT4MSLogon.h"

#include <mapicode.h>
#include <mapiguid.h>
#include <mapitags.h>

#include "ZT4MsgStore.h"
#include "ZT4Support.h"
#include "ZT4_TRACES.h"

namespace {

constexpr ULONG NUM_STATUS_COLUMNS = 5;

}  // namespace

CMSLogon::CMSLogon(CMsgStore* pStore) : m_pStore(pStore), m_pUnused(NULL) {
  if (m_pStore) m_pStore->AddRef();
}

CMSLogon::~CMSLogon() {
  if (m_pStore) m_pStore->Release();
  m_pStore = NULL;
  m_pUnused = NULL;
}

STDMETHODIMP CMSLogon::QueryInterface(REFIID riid, LPVOID* ppvObj) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  if (!ppvObj) return E_INVALIDARG;
  *ppvObj = NULL;
  if (riid != IID_IMSLogon && riid != IID_IUnknown) return E_NOINTERFACE;
  AddRef();
  *ppvObj = static_cast<IMSLogon*>(this);
  return S_OK;
}

STDMETHODIMP_(ULONG) CMSLogon::AddRef() { return GenericAddRef(); }
STDMETHODIMP_(ULONG) CMSLogon::Release() { return GenericRelease(); }

STDMETHODIMP CMSLogon::GetLastError(HRESULT hResult, ULONG ulFlags, LPMAPIERROR* lppMAPIError) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  return CGeneric::GetLastError(hResult, lppMAPIError, m_pStore ? m_pStore->m_hInstance : NULL,
                                PROVIDER_DISPLAY_NAME_STRING);
}

STDMETHODIMP CMSLogon::Logoff(ULONG* lpulFlags) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  // The store ends by reference counting alone.
  return S_OK;
}

STDMETHODIMP CMSLogon::OpenEntry(ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, ULONG ulFlags,
                                 ULONG* lpulObjType, LPUNKNOWN* lppUnk) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = m_pStore->OpenEntry(cbEntryID, lpEntryID, lpInterface, ulFlags, lpulObjType, lppUnk);
  ZT4_LOG_FAILURE("CMSLogon::OpenEntry", hResult);
  SetLastError(hResult);
  return hResult;
}

STDMETHODIMP CMSLogon::CompareEntryIDs(ULONG cbEntryID1, LPENTRYID lpEntryID1, ULONG cbEntryID2, LPENTRYID lpEntryID2,
                                       ULONG ulFlags, ULONG* lpulResult) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = m_pStore->CompareEntryIDs(cbEntryID1, lpEntryID1, cbEntryID2, lpEntryID2, ulFlags, lpulResult);
  // The log names Advise here; kept as the system has always written it.
  ZT4_LOG_FAILURE("CMSLogon::Advise", hResult);
  SetLastError(hResult);
  return hResult;
}

STDMETHODIMP CMSLogon::Advise(ULONG cbEntryID, LPENTRYID lpEntryID, ULONG ulEventMask, LPMAPIADVISESINK lpAdviseSink,
                              ULONG* lpulConnection) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = m_pStore->Advise(cbEntryID, lpEntryID, ulEventMask, lpAdviseSink, lpulConnection);
  ZT4_LOG_FAILURE("CMSLogon::Advise", hResult);
  SetLastError(hResult);
  return hResult;
}

STDMETHODIMP CMSLogon::Unadvise(ULONG ulConnection) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = m_pStore->Unadvise(ulConnection);
  ZT4_LOG_FAILURE("CMSLogon::Unadvise", hResult);
  SetLastError(hResult);
  return hResult;
}

STDMETHODIMP CMSLogon::OpenStatusEntry(LPCIID lpInterface, ULONG ulFlags, ULONG* lpulObjType, LPVOID* lppEntry) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = MAPI_E_NO_SUPPORT;
  ZT4_LOG_FAILURE("CMSLogon::OpenStatusEntry", hResult);
  SetLastError(hResult);
  return hResult;
}

// One row, written once: no code reports another status.
HRESULT CMSLogon::InitializeStatusRow() {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  SPropValue spvStatusRow[NUM_STATUS_COLUMNS] = {};
  ULONG i = 0;
  spvStatusRow[i].ulPropTag = PR_PROVIDER_DISPLAY;
  spvStatusRow[i++].Value.lpszA = const_cast<LPSTR>(PROVIDER_DISPLAY_NAME_STRING);
  spvStatusRow[i].ulPropTag = PR_RESOURCE_METHODS;
  spvStatusRow[i++].Value.ul = 0;
  spvStatusRow[i].ulPropTag = PR_STATUS_CODE;
  spvStatusRow[i++].Value.ul = STATUS_AVAILABLE;
  spvStatusRow[i].ulPropTag = PR_STATUS_STRING;
  spvStatusRow[i++].Value.lpszA = const_cast<LPSTR>("Available");
  spvStatusRow[i].ulPropTag = PR_DISPLAY_NAME;
  spvStatusRow[i++].Value.lpszA = const_cast<LPSTR>("Sample Mailbox");
  ZT4_ASSERT(i == NUM_STATUS_COLUMNS);
  HRESULT hResult = m_pStore->m_pSupObj->ModifyStatusRow(i, spvStatusRow, 0);
  ZT4_LOG_FAILURE("CMSLogon::InitializeStatusRow", hResult);
  return hResult;
}
