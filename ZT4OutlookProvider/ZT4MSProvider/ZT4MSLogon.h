// CMSLogon: the IMSLogon MAPI receives beside the store. It keeps the store alive while MAPI
// holds it, forwards entry-ID work to the store and publishes the provider's status row.
#pragma once
#include <windows.h>
#include <mapispi.h>

#include "ZT4GenProp.h"

class CMsgStore;

class CMSLogon final : public IMSLogon, public CGeneric {
 public:
  // Holds one reference on pStore from construction to destruction.
  explicit CMSLogon(CMsgStore* pStore);

  STDMETHODIMP QueryInterface(REFIID riid, LPVOID* ppvObj) override;
  STDMETHODIMP_(ULONG) AddRef() override;
  STDMETHODIMP_(ULONG) Release() override;
  MAPIMETHOD(GetLastError)(HRESULT hResult, ULONG ulFlags, LPMAPIERROR* lppMAPIError) override;
  MAPIMETHOD(Logoff)(ULONG* lpulFlags) override;
  MAPIMETHOD(OpenEntry)(ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, ULONG ulFlags,
                        ULONG* lpulObjType, LPUNKNOWN* lppUnk) override;
  MAPIMETHOD(CompareEntryIDs)(ULONG cbEntryID1, LPENTRYID lpEntryID1, ULONG cbEntryID2, LPENTRYID lpEntryID2,
                              ULONG ulFlags, ULONG* lpulResult) override;
  MAPIMETHOD(Advise)(ULONG cbEntryID, LPENTRYID lpEntryID, ULONG ulEventMask, LPMAPIADVISESINK lpAdviseSink,
                     ULONG* lpulConnection) override;
  MAPIMETHOD(Unadvise)(ULONG ulConnection) override;
  MAPIMETHOD(OpenStatusEntry)(LPCIID lpInterface, ULONG ulFlags, ULONG* lpulObjType, LPVOID* lppEntry) override;

  // Sends the provider's one status row. A failure is logged and doesn't fail the logon.
  HRESULT InitializeStatusRow();

 private:
  ~CMSLogon() override;

  CMsgStore* m_pStore;
  LPVOID m_pUnused;  // cleared at construction and destruction, used by nothing
};
