#include "ZT4AccountHelper.h"

#include <mapiutil.h>
#include <objbase.h>
#include <oleauto.h>

#include "ZT4Globals.h"
#include "ZT4MSProvider.h"
#include "ZT4_TRACES.h"

namespace {

constexpr size_t CCH_USER_BUFFER = 1024;

// Filled at logon, before other threads run; read without a lock afterwards.
char g_szUserName[CCH_USER_BUFFER];
WCHAR g_wszDisplayName[CCH_USER_BUFFER];
char g_szSMTPAddress[CCH_USER_BUFFER];

// MAPI_LOGON_UI | MAPI_EXTENDED, no profile: the session the client has.
const ULONG USER_LOGON_FLAGS = MAPI_LOGON_UI | MAPI_EXTENDED;

// The account stamp reads "<kind>:<account id>:<LegacyDN>".
const char STAMP_SEPARATOR = ':';

template <class T> void ReleaseAndClear(T*& p) {
  if (p) p->Release();
  p = NULL;
}

void CopyNarrow(char (&szTarget)[CCH_USER_BUFFER], LPCSTR pszValue) {
  size_t cch = strlen(pszValue);
  if (cch >= CCH_USER_BUFFER) cch = CCH_USER_BUFFER - 1;
  memcpy(szTarget, pszValue, cch);
  szTarget[cch] = 0;
}

std::string Narrow(LPCWSTR pwszText) {
  if (!pwszText || !*pwszText) return std::string();
  int cb = WideCharToMultiByte(CP_ACP, 0, pwszText, -1, NULL, 0, NULL, NULL);
  if (cb <= 0) return std::string();
  std::string strText(static_cast<size_t>(cb), '\0');
  WideCharToMultiByte(CP_ACP, 0, pwszText, -1, &strText[0], cb, NULL, NULL);
  strText.resize(static_cast<size_t>(cb) - 1);
  return strText;
}

// Logs the failure of a step with its own text and throws its code.
void CheckStep(HRESULT hResult, LPCSTR pszFormat) {
  if (FAILED(hResult)) {
    ZT4_LOG(ZT4_LEVEL_ERROR, pszFormat, hResult);
    throw hResult;
  }
}

// The user name, SMTP address and display name of an identity of the session.
void ReadIdentity(LPMAPISESSION lpSession, ULONG cbEntryID, LPENTRYID lpEntryID) {
  LPUNKNOWN lpUser = NULL;
  LPSPropValue lpName = NULL;
  LPSPropValue lpSMTP = NULL;
  LPSPropValue lpDisplay = NULL;
  ULONG ulObjType = 0;
  try {
    CheckStep(lpSession->OpenEntry(cbEntryID, lpEntryID, NULL, 0, &ulObjType, &lpUser), "OpenEntry Failed:%x");
    LPMAPIPROP lpProp = reinterpret_cast<LPMAPIPROP>(lpUser);
    CheckStep(HrGetOneProp(lpProp, PR_EMAIL_ADDRESS_A, &lpName), "HrGetOneProp for PR_EMAIL_ADDRESS Failed:%x");
    SetCurrentUserName(lpName->Value.lpszA);
    // An identity without an SMTP address leaves the mailbox unnamed; the rest is still read.
    if (SUCCEEDED(HrGetOneProp(lpProp, PR_SMTP_ADDRESS_A, &lpSMTP))) SetCurrentUserSMTPAddress(lpSMTP->Value.lpszA);
    CheckStep(HrGetOneProp(lpProp, PR_DISPLAY_NAME_W, &lpDisplay), "HrGetOneProp for PR_DISPLAY_NAME Failed:%x");
    SetCurrentUserDisplayName(lpDisplay->Value.lpszW);
  } catch (...) {
    MAPIFreeBuffer(lpDisplay);
    MAPIFreeBuffer(lpSMTP);
    MAPIFreeBuffer(lpName);
    ReleaseAndClear(lpUser);
    throw;
  }
  MAPIFreeBuffer(lpDisplay);
  MAPIFreeBuffer(lpSMTP);
  MAPIFreeBuffer(lpName);
  ReleaseAndClear(lpUser);
}

// The session lookup of both forms; lpEntryID NULL asks the session for its identity.
HRESULT LookUpUser(ULONG cbEntryID, LPENTRYID lpEntryID) {
  HRESULT hResult = S_OK;
  LPMAPISESSION lpSession = NULL;
  LPENTRYID lpIdentity = NULL;
  ULONG cbIdentity = 0;
  // A store logon that the session lookup sets off refuses while this is set.
  g_fLookingUpUser = TRUE;
  try {
    CheckStep(MAPILogonEx(0, NULL, NULL, USER_LOGON_FLAGS, &lpSession), "MapiLogonEx Failed:%x");
    if (!lpEntryID) {
      CheckStep(lpSession->QueryIdentity(&cbIdentity, &lpIdentity), "QueryIdentity Failed:%x");
      cbEntryID = cbIdentity;
      lpEntryID = lpIdentity;
    }
    ReadIdentity(lpSession, cbEntryID, lpEntryID);
  }
  ZT4_CATCH(hResult);
  g_fLookingUpUser = FALSE;
  MAPIFreeBuffer(lpIdentity);
  ReleaseAndClear(lpSession);
  return hResult;
}

// The LegacyDN at the end of an account stamp.
BOOL ExtractLegacyDN(const std::string& strStamp, std::string& strLegacyDN) {
  size_t first = strStamp.find(STAMP_SEPARATOR);
  size_t second = first == std::string::npos ? first : strStamp.find(STAMP_SEPARATOR, first + 1);
  if (second == std::string::npos || second + 1 >= strStamp.size()) return FALSE;
  strLegacyDN = strStamp.substr(second + 1);
  return TRUE;
}

// The name of the session's profile, which the account manager asks its helper for.
std::basic_string<WCHAR> SessionProfileName(LPMAPISESSION lpSession) {
  std::basic_string<WCHAR> strName;
  LPPROFSECT lpSection = NULL;
  LPSPropValue lpName = NULL;
  if (SUCCEEDED(lpSession->OpenProfileSection((LPMAPIUID)pbGlobalProfileSectionGuid, NULL, 0, &lpSection)) &&
      SUCCEEDED(HrGetOneProp(lpSection, PR_PROFILE_NAME_W, &lpName)))
    strName = lpName->Value.lpszW;
  MAPIFreeBuffer(lpName);
  ReleaseAndClear(lpSection);
  return strName;
}

// The identity the session's status row carries, for an account that names none.
std::vector<BYTE> StatusRowIdentity(LPMAPISESSION lpSession) {
  static const SizedSPropTagArray(2, sptCols) = {2, {PR_RESOURCE_TYPE, PR_IDENTITY_ENTRYID}};
  std::vector<BYTE> identity;
  LPMAPITABLE lpTable = NULL;
  LPSRowSet lpRows = NULL;
  SPropValue spvType = {};
  spvType.ulPropTag = PR_RESOURCE_TYPE;
  spvType.Value.l = MAPI_SUBSYSTEM;
  SRestriction sres = {};
  sres.rt = RES_PROPERTY;
  sres.res.resProperty.relop = RELOP_EQ;
  sres.res.resProperty.ulPropTag = PR_RESOURCE_TYPE;
  sres.res.resProperty.lpProp = &spvType;
  if (SUCCEEDED(lpSession->GetStatusTable(0, &lpTable)) &&
      SUCCEEDED(lpTable->SetColumns((LPSPropTagArray)&sptCols, 0)) && SUCCEEDED(lpTable->Restrict(&sres, 0)) &&
      SUCCEEDED(lpTable->FindRow(&sres, BOOKMARK_BEGINNING, 0)) && SUCCEEDED(lpTable->QueryRows(1, 0, &lpRows)) &&
      lpRows->cRows == 1 && lpRows->aRow[0].cValues == 2 &&
      lpRows->aRow[0].lpProps[1].ulPropTag == PR_IDENTITY_ENTRYID) {
    const SBinary& bin = lpRows->aRow[0].lpProps[1].Value.bin;
    identity.assign(bin.lpb, bin.lpb + bin.cb);
  }
  if (lpRows) FreeProws(lpRows);
  ReleaseAndClear(lpTable);
  return identity;
}

// One account's record: its stamp, identity and LegacyDN. Values from GetProp go back to the
// account's FreeMemory.
void ReadAccount(IOlkAccount* pAccount, const std::vector<BYTE>& fallbackIdentity, ACCOUNT_RECORD& record) {
  ACCT_VARIANT pProp = {};
  if (SUCCEEDED(pAccount->GetProp(PROP_ACCT_STAMP, &pProp)) && pProp.dwType == PT_UNICODE && pProp.Val.pwsz) {
    record.strStamp = pProp.Val.pwsz;
    if (!ExtractLegacyDN(Narrow(pProp.Val.pwsz), record.strLegacyDN))
      ZT4_LOG(ZT4_LEVEL_ERROR, "Extract legacy dn faild: %s", Narrow(pProp.Val.pwsz).c_str());
  }
  if (pProp.dwType == PT_UNICODE && pProp.Val.pwsz) pAccount->FreeMemory(reinterpret_cast<BYTE*>(pProp.Val.pwsz));

  ACCT_VARIANT pEntryId = {};
  if (SUCCEEDED(pAccount->GetProp(PROP_MAPI_IDENTITY_ENTRYID, &pEntryId)) && pEntryId.dwType == PT_BINARY &&
      pEntryId.Val.bin.pb && pEntryId.Val.bin.cb) {
    record.identityEntryID.assign(pEntryId.Val.bin.pb, pEntryId.Val.bin.pb + pEntryId.Val.bin.cb);
  } else {
    ZT4_LOG(ZT4_LEVEL_ERROR, "Failed to get property PROP_MAPI_IDENTITY_ENTRYID");
    record.identityEntryID = fallbackIdentity;
  }
  if (pEntryId.dwType == PT_BINARY && pEntryId.Val.bin.pb) pAccount->FreeMemory(pEntryId.Val.bin.pb);
}

// Walks the enumerator's accounts into the list, in its order.
HRESULT ReadAccounts(IOlkEnum* lpAcctEnum, const std::vector<BYTE>& fallbackIdentity,
                     std::vector<ACCOUNT_RECORD>& accounts) {
  HRESULT hResult = S_OK;
  DWORD cAccounts = 0;
  ZT4_CHECK(lpAcctEnum->GetCount(&cAccounts));
  ZT4_CHECK(lpAcctEnum->Reset());
  for (DWORD i = 0; i < cAccounts; ++i) {
    LPUNKNOWN lpUnk = NULL;
    IOlkAccount* pAccount = NULL;
    if (lpAcctEnum->GetNext(&lpUnk) != S_OK || !lpUnk) break;
    if (SUCCEEDED(lpUnk->QueryInterface(IID_IOlkAccount, (LPVOID*)&pAccount)) && pAccount) {
      ACCOUNT_RECORD record;
      ReadAccount(pAccount, fallbackIdentity, record);
      accounts.push_back(std::move(record));
    }
    ReleaseAndClear(pAccount);
    ReleaseAndClear(lpUnk);
  }
  return hResult;
}

}  // namespace

// ---- The three buffers ----

LPCSTR GetCurrentUserName() {
  PopulateCurrentUserDetails();
  return g_szUserName;
}

LPCWSTR GetCurrentUserDisplayName() {
  PopulateCurrentUserDetails();
  return g_wszDisplayName;
}

LPCSTR GetCurrentUserSMTPAddress() {
  PopulateCurrentUserDetails();
  return g_szSMTPAddress;
}

void SetCurrentUserName(LPCSTR pszName) {
  if (!pszName || !*pszName || _stricmp(pszName, g_szUserName) == 0) return;
  CopyNarrow(g_szUserName, pszName);
}

void SetCurrentUserDisplayName(LPCWSTR pwszName) {
  if (!pwszName || !*pwszName || _wcsicmp(pwszName, g_wszDisplayName) == 0) return;
  size_t cch = wcslen(pwszName);
  if (cch >= CCH_USER_BUFFER) cch = CCH_USER_BUFFER - 1;
  memcpy(g_wszDisplayName, pwszName, cch * sizeof(WCHAR));
  g_wszDisplayName[cch] = 0;
}

void SetCurrentUserSMTPAddress(LPCSTR pszAddress) {
  if (!pszAddress || !*pszAddress || _stricmp(pszAddress, g_szSMTPAddress) == 0) return;
  CopyNarrow(g_szSMTPAddress, pszAddress);
}

void ClearCurrentUserDetails() {
  g_szUserName[0] = 0;
  g_wszDisplayName[0] = 0;
  g_szSMTPAddress[0] = 0;
}

// ---- The session lookups ----

HRESULT PopulateCurrentUserDetails() {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  if (g_szUserName[0]) return S_OK;
  ZT4_LOG(ZT4_LEVEL_INFO, "User name is empty, need to fetch it from the session");
  return LookUpUser(0, NULL);
}

HRESULT PopulateCurrentUserDetails(ULONG cbEntryID, LPENTRYID lpEntryID) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  if (cbEntryID == 0 || !lpEntryID) {
    ZT4_LOG(ZT4_LEVEL_ERROR, "PopulateCurrentUserDetails:%x", MAPI_E_INVALID_PARAMETER);
    return MAPI_E_INVALID_PARAMETER;
  }
  return LookUpUser(cbEntryID, lpEntryID);
}

HRESULT UseFirstAccount(IZT4ProviderConfig* pConfig, const std::vector<ACCOUNT_RECORD>& accounts) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_INFO);
  HRESULT hResult = S_OK;
  if (accounts.size() <= 1) return S_OK;
  ZT4_LOG(ZT4_LEVEL_INFO, "Detected multiple accounts");
  const ACCOUNT_RECORD& first = accounts.front();
  std::vector<BYTE> identity = first.identityEntryID;
  hResult = identity.empty() ? MAPI_E_NOT_FOUND
                             : PopulateCurrentUserDetails(static_cast<ULONG>(identity.size()),
                                                          reinterpret_cast<LPENTRYID>(identity.data()));
  if (SUCCEEDED(hResult)) return hResult;

  ZT4_LOG(ZT4_LEVEL_INFO,
          "Failed to get current user information using MAPI. Using LegacyDN [%s] to get details from webserver..",
          first.strLegacyDN.c_str());
  BSTR bstrUser = NULL;
  BSTR bstrDisplay = NULL;
  BSTR bstrSMTP = NULL;
  try {
    ZT4_CHECK_NULL(pConfig, E_INVALIDARG);
    if (pConfig->QueryUserDetails(_bstr_t(first.strLegacyDN.c_str()), &bstrUser, &bstrDisplay, &bstrSMTP) !=
        VARIANT_TRUE)
      throw static_cast<HRESULT>(MAPI_E_NOT_FOUND);
    hResult = S_OK;
    SetCurrentUserName(Narrow(bstrUser).c_str());
    SetCurrentUserSMTPAddress(Narrow(bstrSMTP).c_str());
    SetCurrentUserDisplayName(bstrDisplay);
  }
  ZT4_CATCH(hResult);
  SysFreeString(bstrUser);
  SysFreeString(bstrDisplay);
  SysFreeString(bstrSMTP);
  return hResult;
}

HRESULT QueryDefaultUserInfo() {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  std::vector<ACCOUNT_RECORD> accounts;
  try {
    IZT4DataProvider* spProvider = GetDataProvider();
    ZT4_CHECK_NULL(spProvider, E_INVALIDARG);
    IZT4ProviderConfigPtr spConfig = spProvider->GetConfigurationParams();
    IZT4ProviderConfig* pConfig = spConfig.GetInterfacePtr();
    ZT4_CHECK_NULL(pConfig, E_INVALIDARG);
    ZT4_CHECK(GetAccountsByOrder(accounts));
    hResult = UseFirstAccount(pConfig, accounts);
  }
  ZT4_CATCH(hResult);
  ZT4_LOG(ZT4_LEVEL_INFO, "The current SMTPAddress: %s, displayName: %s, userName: %s", g_szSMTPAddress,
          Narrow(g_wszDisplayName).c_str(), g_szUserName);
  accounts.clear();
  if (FAILED(hResult)) ZT4_LOG(ZT4_LEVEL_INFO, "Using the account returned by Outlook.");
  return hResult;
}

// ---- CAccountHelper ----

CAccountHelper::CAccountHelper(LPCWSTR pwszProfile, LPMAPISESSION lpSession)
    : m_cRef(1), m_strProfile(pwszProfile ? pwszProfile : u""), m_lpSession(lpSession) {
  if (m_lpSession) m_lpSession->AddRef();
}

CAccountHelper::~CAccountHelper() { ReleaseAndClear(m_lpSession); }

STDMETHODIMP CAccountHelper::QueryInterface(REFIID riid, LPVOID* ppvObj) {
  if (!ppvObj) return E_INVALIDARG;
  *ppvObj = NULL;
  if (riid != IID_IUnknown && riid != IID_IOlkAccountHelper) return E_NOINTERFACE;
  *ppvObj = static_cast<IOlkAccountHelper*>(this);
  AddRef();
  return S_OK;
}

STDMETHODIMP_(ULONG) CAccountHelper::AddRef() {
  return static_cast<ULONG>(InterlockedIncrement(reinterpret_cast<LONG volatile*>(&m_cRef)));
}

STDMETHODIMP_(ULONG) CAccountHelper::Release() {
  ULONG cRef = static_cast<ULONG>(InterlockedDecrement(reinterpret_cast<LONG volatile*>(&m_cRef)));
  if (cRef == 0) delete this;
  return cRef;
}

STDMETHODIMP CAccountHelper::PlaceHolder1(LPVOID) { return E_NOTIMPL; }

STDMETHODIMP CAccountHelper::GetIdentity(LPWSTR pwszIdentity, DWORD* pcch) {
  if (!pcch) return E_INVALIDARG;
  DWORD cchNeeded = static_cast<DWORD>(m_strProfile.size() + 1);
  if (!pwszIdentity || *pcch < cchNeeded) {
    *pcch = cchNeeded;
    return E_OUTOFMEMORY;
  }
  memcpy(pwszIdentity, m_strProfile.c_str(), cchNeeded * sizeof(WCHAR));
  *pcch = cchNeeded;
  return S_OK;
}

STDMETHODIMP CAccountHelper::GetMapiSession(LPUNKNOWN* ppmsess) {
  if (!ppmsess) return E_INVALIDARG;
  *ppmsess = m_lpSession;
  if (!m_lpSession) return MAPI_E_NOT_FOUND;
  m_lpSession->AddRef();
  return S_OK;
}

// The session stays with the helper until it goes; the manager only says it is done with it.
STDMETHODIMP CAccountHelper::HandsOffSession() { return S_OK; }

// ---- The accounts ----

HRESULT GetAccountsByOrder(std::vector<ACCOUNT_RECORD>& accounts) {
  ZT4_SCOPE_TRACE(ZT4_LEVEL_MAIN);
  HRESULT hResult = S_OK;
  LPMAPISESSION lpSession = NULL;
  CAccountHelper* pMyAcctHelper = NULL;
  IOlkAccountManager* lpAcctMgr = NULL;
  IOlkEnum* lpAcctEnum = NULL;
  accounts.clear();
  try {
    ZT4_CHECK(MAPILogonEx(0, NULL, NULL, MAPI_LOGON_UI | MAPI_EXTENDED, &lpSession));
    std::basic_string<WCHAR> strProfile = SessionProfileName(lpSession);
    pMyAcctHelper = new CAccountHelper(strProfile.c_str(), lpSession);
    ZT4_CHECK(CoCreateInstance(CLSID_OlkAccountManager, NULL, CLSCTX_INPROC_SERVER, IID_IOlkAccountManager,
                               (LPVOID*)&lpAcctMgr));
    ZT4_CHECK(lpAcctMgr->Init(pMyAcctHelper, OLK_ACCOUNT_NO_FLAGS));
    ZT4_CHECK(lpAcctMgr->EnumerateAccounts(&CLSID_OlkMail, NULL, OLK_ACCOUNT_NO_FLAGS, &lpAcctEnum));
    ZT4_CHECK(ReadAccounts(lpAcctEnum, StatusRowIdentity(lpSession), accounts));
  }
  ZT4_CATCH(hResult);
  ReleaseAndClear(lpAcctEnum);
  ReleaseAndClear(lpAcctMgr);
  ReleaseAndClear(pMyAcctHelper);
  ReleaseAndClear(lpSession);
  ZT4_LOG_FAILURE("GetAccountsByOrder", hResult);
  return hResult;
}
