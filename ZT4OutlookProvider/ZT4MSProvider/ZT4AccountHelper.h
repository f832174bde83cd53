// The current user: user name, display name and SMTP address from the profile's session or,
// with several mail accounts, through the account manager and the data provider.
#pragma once
#include <windows.h>
#include <mapidefs.h>
#include <mapix.h>
#include <acctmgmt.h>

#include <string>
#include <vector>

// Accessors run PopulateCurrentUserDetails first. The buffers are process-wide, filled at logon.
LPCSTR GetCurrentUserName();
LPCWSTR GetCurrentUserDisplayName();
LPCSTR GetCurrentUserSMTPAddress();
// Setters ignore NULL, empty, and a value equal to the stored one without regard to case.
void SetCurrentUserName(LPCSTR pszName);
void SetCurrentUserDisplayName(LPCWSTR pwszName);
void SetCurrentUserSMTPAddress(LPCSTR pszAddress);
// Empties the three buffers. For tests.
void ClearCurrentUserDetails();

// From the session's identity, while the user name is empty.
HRESULT PopulateCurrentUserDetails();
// The same reads for a given identity.
HRESULT PopulateCurrentUserDetails(ULONG cbEntryID, LPENTRYID lpEntryID);
// At each logon, before the mailbox is registered: the first account's identity, or the data
// provider's look-up of its LegacyDN.
HRESULT QueryDefaultUserInfo();

struct ACCOUNT_RECORD {
  std::basic_string<WCHAR> strStamp;
  std::vector<BYTE> identityEntryID;
  std::string strLegacyDN;
};

// IOlkAccountHelper over a session.
class CAccountHelper final : public IOlkAccountHelper {
 public:
  CAccountHelper(LPCWSTR pwszProfile, LPMAPISESSION lpSession);
  CAccountHelper(const CAccountHelper&) = delete;
  CAccountHelper& operator=(const CAccountHelper&) = delete;

  STDMETHODIMP QueryInterface(REFIID riid, LPVOID* ppvObj) override;
  STDMETHODIMP_(ULONG) AddRef() override;
  STDMETHODIMP_(ULONG) Release() override;
  STDMETHODIMP PlaceHolder1(LPVOID) override;
  STDMETHODIMP GetIdentity(LPWSTR pwszIdentity, DWORD* pcch) override;
  STDMETHODIMP GetMapiSession(LPUNKNOWN* ppmsess) override;
  STDMETHODIMP HandsOffSession() override;

 private:
  ~CAccountHelper();

  ULONG m_cRef;
  std::basic_string<WCHAR> m_strProfile;
  LPMAPISESSION m_lpSession;
};

// The accounts of the profile in their order.
HRESULT GetAccountsByOrder(std::vector<ACCOUNT_RECORD>& accounts);

struct IZT4ProviderConfig;
// The part of QueryDefaultUserInfo after the accounts are listed: with several, the first
// account's identity, or the data provider's look-up of its LegacyDN when that fails.
HRESULT UseFirstAccount(IZT4ProviderConfig* pConfig, const std::vector<ACCOUNT_RECORD>& accounts);
