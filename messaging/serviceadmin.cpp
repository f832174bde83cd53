// IMsgServiceAdmin and IProviderAdmin over the profile store (see serviceadmin.h).
#include "serviceadmin.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>

#include "adminutil.h"
#include "adplatform.h"
#include "loader.h"
#include "mapicode.h"
#include "mapiguid.h"
#include "mapisvc.h"
#include "mapitags.h"
#include "servicesupport.h"
#include "comobject.h"

namespace adm {
namespace {

// IMsgServiceAdmin::CreateMsgService: suppresses a restart warning that is never shown here.
constexpr ULONG kServiceNoRestartWarning = 0x00000080;
constexpr ULONG kUiFlags = SERVICE_UI_ALWAYS | SERVICE_UI_ALLOWED | MSG_SERVICE_UI_READ_ONLY;

std::string Upper(std::string s) {
  for (char& c : s) c = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
  return s;
}

std::string TextArg(LPTSTR text, ULONG ulFlags) {
  if (!text) return std::string();
  if (ulFlags & MAPI_UNICODE) return adp::Utf16ToUtf8(reinterpret_cast<const char16_t*>(text));
  return reinterpret_cast<const char*>(text);
}

bool SameUid(const MAPIUID& a, const MAPIUID& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

bool ProfSectInterface(LPCIID lpInterface) {
  return !lpInterface || *lpInterface == IID_IProfSect || *lpInterface == IID_IMAPIProp ||
         *lpInterface == IID_IUnknown;
}

void SetText(std::string* errorText, const std::string& text) {
  if (errorText) *errorText = text;
}

// Calls the service's entry point in `ulContext`. The library stays loaded.
HRESULT CallServiceEntry(const std::shared_ptr<Profile>& profile, const ServiceInfo& service, ULONG_PTR ulUIParam,
                         ULONG ulFlags, ULONG ulContext, ULONG cValues, LPSPropValue lpProps, std::string* errorText) {
  const ProviderLibrary* lib = nullptr;
  if (FAILED(LoadProviderLibrary(service.dllName, &lib))) {
    SetText(errorText, "The library " + service.dllName + " of service " + service.name + " could not be loaded");
    return MAPI_E_NOT_FOUND;
  }
  auto entry = reinterpret_cast<LPMSGSERVICEENTRY>(lib->Export(service.entryName.c_str()));
  if (!entry) {
    SetText(errorText, service.dllName + " does not export " + service.entryName);
    return MAPI_E_NOT_FOUND;
  }
  LPMAPISUP support = nullptr;
  LPPROVIDERADMIN providerAdmin = nullptr;
  HRESULT hr = CreateServiceSupport(profile, service.uid, &support);
  if (SUCCEEDED(hr)) hr = CreateProviderAdmin(profile, service.uid, true, &providerAdmin);
  LPMAPIERROR err = nullptr;
  if (SUCCEEDED(hr)) {
    try {
      hr = entry(reinterpret_cast<HINSTANCE>(lib->hModule), nullptr, support, ulUIParam, ulFlags, ulContext, cValues,
                 lpProps, providerAdmin, &err);
    } catch (...) {
      hr = MAPI_E_CALL_FAILED;  // an exception must not cross into the caller
    }
  }
  if (FAILED(hr)) {
    std::string said;
    if (err && err->lpszError) {
      said = (ulFlags & MAPI_UNICODE) ? adp::Utf16ToUtf8(reinterpret_cast<const char16_t*>(err->lpszError))
                                      : std::string(reinterpret_cast<const char*>(err->lpszError));
    }
    SetText(errorText, said.empty() ? service.entryName + " of service " + service.name + " failed" : said);
  }
  if (err) MAPIFreeBuffer(err);
  if (providerAdmin) providerAdmin->Release();
  if (support) support->Release();
  return hr;
}

// The properties of a provider's MAPISVC.INF section with those this layer owns.
HRESULT ProviderProps(const std::string& section, const ServiceInfo& service, const MAPIUID& uid, ULONG ordinal,
                      PropSet* props, std::string* errorText) {
  InfEntries entries;
  if (FAILED(ReadInfSection(section, &entries))) {
    SetText(errorText, "MAPISVC.INF has no provider section [" + section + "]");
    return MAPI_E_NOT_FOUND;
  }
  HRESULT hr = InfEntriesToProps(entries, props);
  if (SUCCEEDED(hr) && !props->Find(PR_PROVIDER_DLL_NAME_A)) {
    hr = props->Set(StringProp(PR_PROVIDER_DLL_NAME_A, service.dllName.c_str()));
  }
  if (SUCCEEDED(hr)) hr = props->Set(BinaryProp(PR_PROVIDER_UID, &uid, sizeof uid));
  if (SUCCEEDED(hr)) hr = props->Set(BinaryProp(PR_SERVICE_UID, &service.uid, sizeof service.uid));
  if (SUCCEEDED(hr)) hr = props->Set(StringProp(PR_SERVICE_NAME_A, service.name.c_str()));
  if (SUCCEEDED(hr)) hr = props->Set(LongProp(PR_PROVIDER_ORDINAL, ordinal));
  return hr;
}

HRESULT WriteWhole(const std::shared_ptr<Profile>& profile, const MAPIUID& uid, const PropSet& props) {
  return profile->UpdateSection(uid, true, [&props](PropSet& set) {
    for (ULONG tag : props.Tags()) {
      HRESULT hr = set.Set(*props.Find(tag));
      if (FAILED(hr)) return hr;
    }
    return S_OK;
  });
}

// The service's section from MAPISVC.INF, before any provider exists.
HRESULT ServiceProps(const std::string& service, const std::string& displayName, const MAPIUID& uid,
                     PropSet* props, ServiceInfo* info, std::string* errorText) {
  InfEntries entries;
  if (!InfListsService(service) || FAILED(ReadInfSection(service, &entries))) {
    SetText(errorText, "MAPISVC.INF does not list the service " + service);
    return MAPI_E_NOT_FOUND;
  }
  HRESULT hr = InfEntriesToProps(entries, props);
  if (FAILED(hr)) return hr;
  std::string dll = PropText(props->Find(PR_SERVICE_DLL_NAME_A));
  if (dll.empty()) {
    SetText(errorText, "MAPISVC.INF names no PR_SERVICE_DLL_NAME for the service " + service);
    return MAPI_E_NOT_FOUND;
  }
  std::string display = PropText(props->Find(PR_DISPLAY_NAME_A));
  if (display.empty()) display = displayName.empty() ? service : displayName;
  hr = props->Set(StringProp(PR_DISPLAY_NAME_A, display.c_str()));
  if (SUCCEEDED(hr)) hr = props->Set(BinaryProp(PR_SERVICE_UID, &uid, sizeof uid));
  if (SUCCEEDED(hr)) hr = props->Set(StringProp(PR_SERVICE_NAME_A, service.c_str()));
  if (FAILED(hr)) return hr;
  info->uid = uid;
  info->name = service;
  info->displayName = display;
  info->dllName = dll;
  info->entryName = PropText(props->Find(PR_SERVICE_ENTRY_NAME));
  if (info->entryName.empty()) info->entryName = "ServiceEntry";
  const SPropValue* flags = props->Find(PR_RESOURCE_FLAGS);
  info->flags = flags ? flags->Value.ul : 0;
  return S_OK;
}

std::vector<ULONG> ServiceColumns() {
  return {PR_INSTANCE_KEY,       PR_SERVICE_UID,        PR_SERVICE_NAME_A, PR_DISPLAY_NAME_A,
          PR_RESOURCE_FLAGS,     PR_SERVICE_DLL_NAME_A, PR_SERVICE_ENTRY_NAME};
}

std::vector<ULONG> ProviderColumns() {
  return {PR_INSTANCE_KEY,   PR_PROVIDER_UID,        PR_SERVICE_UID,         PR_SERVICE_NAME_A,
          PR_DISPLAY_NAME_A, PR_PROVIDER_DISPLAY_A,  PR_PROVIDER_DLL_NAME_A, PR_RESOURCE_TYPE,
          PR_RESOURCE_FLAGS, PR_PROVIDER_ORDINAL};
}

void AddProviderRow(std::vector<RowBuilder>& rows, const ProviderInfo& p, bool unicode) {
  RowBuilder row(unicode);
  row.Binary(PR_INSTANCE_KEY, &p.uid, sizeof p.uid);
  row.Binary(PR_PROVIDER_UID, &p.uid, sizeof p.uid);
  row.Binary(PR_SERVICE_UID, &p.serviceUid, sizeof p.serviceUid);
  row.Text(PR_SERVICE_NAME_A, p.serviceName);
  row.Text(PR_DISPLAY_NAME_A, p.displayName);
  row.Text(PR_PROVIDER_DISPLAY_A, p.displayName);
  row.Text(PR_PROVIDER_DLL_NAME_A, p.dllName);
  row.Long(PR_RESOURCE_TYPE, p.resourceType);
  row.Long(PR_RESOURCE_FLAGS, p.resourceFlags);
  row.Long(PR_PROVIDER_ORDINAL, p.ordinal);
  rows.push_back(std::move(row));
}

HRESULT ProviderTable(const std::vector<ProviderInfo>& providers, ULONG ulFlags, LPMAPITABLE* lppTable) {
  if (!lppTable) return MAPI_E_INVALID_PARAMETER;
  *lppTable = nullptr;
  if (ulFlags & ~MAPI_UNICODE) return MAPI_E_UNKNOWN_FLAGS;
  bool unicode = (ulFlags & MAPI_UNICODE) != 0;
  std::vector<RowBuilder> rows;
  for (const auto& p : providers) AddProviderRow(rows, p, unicode);
  return BuildTable(TableColumns(ProviderColumns(), unicode), rows, lppTable);
}

// Last-error bookkeeping shared by the two admin objects.
class LastError {
 public:
  HRESULT Fail(HRESULT hr, const std::string& text) {
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: leaf
    m_text = text;
    return hr;
  }
  HRESULT Get(HRESULT hResult, ULONG ulFlags, const char* component, LPMAPIERROR* lppMAPIError) {
    std::string text;
    {
      std::lock_guard<std::mutex> guard(m_lock);  // lock order: leaf
      text = hResult == S_OK ? "No error" : m_text.empty() ? "The call failed" : m_text;
    }
    return BuildMapiError(ulFlags, text, component, lppMAPIError);
  }

 private:
  std::mutex m_lock;
  std::string m_text;
};

// ---------------------------------------------------------------------------------------------

class ProviderAdmin final : public ComObject<IProviderAdmin, IID_IProviderAdmin> {
 public:
  ProviderAdmin(std::shared_ptr<Profile> profile, const MAPIUID& serviceUid, bool fromEntryPoint)
      : m_profile(std::move(profile)), m_serviceUid(serviceUid), m_fromEntryPoint(fromEntryPoint) {}

  MAPIMETHOD(GetLastError)(HRESULT hResult, ULONG ulFlags, LPMAPIERROR* lppMAPIError) override {
    return m_error.Get(hResult, ulFlags, "Provider administration", lppMAPIError);
  }

  MAPIMETHOD(GetProviderTable)(ULONG ulFlags, LPMAPITABLE* lppTable) override {
    ServiceInfo service;
    HRESULT hr = m_profile->ReadServiceSection(m_serviceUid, &service);
    if (FAILED(hr)) {
      if (lppTable) *lppTable = nullptr;
      return m_error.Fail(hr, "The message service is not in the profile");
    }
    return ProviderTable(service.providers, ulFlags, lppTable);
  }

  MAPIMETHOD(CreateProvider)(LPTSTR lpszProvider, ULONG cValues, LPSPropValue lpProps, ULONG_PTR ulUIParam,
                             ULONG ulFlags, MAPIUID* lpUID) override;

  MAPIMETHOD(DeleteProvider)(LPMAPIUID lpUID) override;

  MAPIMETHOD(OpenProfileSection)(LPMAPIUID lpUID, LPCIID lpInterface, ULONG ulFlags,
                                 LPPROFSECT* lppProfSect) override {
    if (!lppProfSect) return MAPI_E_INVALID_PARAMETER;
    *lppProfSect = nullptr;
    if (!ProfSectInterface(lpInterface)) return MAPI_E_INTERFACE_NOT_SUPPORTED;
    HRESULT hr = m_profile->OpenSection(lpUID ? lpUID : &m_serviceUid, ulFlags, lppProfSect);
    return FAILED(hr) ? m_error.Fail(hr, "The profile section could not be opened") : hr;
  }

 private:
  ~ProviderAdmin() = default;

  const std::shared_ptr<Profile> m_profile;
  const MAPIUID m_serviceUid;
  const bool m_fromEntryPoint;
  LastError m_error;
};

MAPIMETHODIMP ProviderAdmin::CreateProvider(LPTSTR lpszProvider, ULONG cValues, LPSPropValue lpProps,
                                            ULONG_PTR ulUIParam, ULONG ulFlags, MAPIUID* lpUID) {
  if (!lpszProvider || !lpUID || (cValues && !lpProps)) return MAPI_E_INVALID_PARAMETER;
  if (ulFlags & ~(MAPI_UNICODE | kUiFlags)) return MAPI_E_UNKNOWN_FLAGS;
  ServiceInfo service;
  HRESULT hr = m_profile->ReadServiceSection(m_serviceUid, &service);
  if (FAILED(hr)) return m_error.Fail(hr, "The message service is not in the profile");
  ULONG ordinal = 0;
  for (const auto& p : service.providers) ordinal = std::max(ordinal, p.ordinal + 1);
  MAPIUID uid = NewUid();
  PropSet props;
  std::string text;
  hr = ProviderProps(TextArg(lpszProvider, ulFlags), service, uid, ordinal, &props, &text);
  for (ULONG i = 0; SUCCEEDED(hr) && i < cValues; ++i) {
    if (PROP_TYPE(lpProps[i].ulPropTag) != PT_ERROR && IsStorableType(PROP_TYPE(lpProps[i].ulPropTag))) {
      hr = props.Set(lpProps[i]);
    }
  }
  if (SUCCEEDED(hr)) hr = WriteWhole(m_profile, uid, props);
  if (SUCCEEDED(hr) && !m_fromEntryPoint) {
    hr = CallServiceEntry(m_profile, service, ulUIParam, ulFlags & (kUiFlags | MAPI_UNICODE),
                          MSG_SERVICE_PROVIDER_CREATE, cValues, lpProps, &text);
    if (FAILED(hr)) m_profile->DeleteSection(uid);
  }
  if (FAILED(hr)) return m_error.Fail(hr, text.empty() ? "The provider could not be created" : text);
  *lpUID = uid;
  return S_OK;
}

MAPIMETHODIMP ProviderAdmin::DeleteProvider(LPMAPIUID lpUID) {
  if (!lpUID) return MAPI_E_INVALID_PARAMETER;
  ServiceInfo service;
  HRESULT hr = m_profile->ReadServiceSection(m_serviceUid, &service);
  if (FAILED(hr)) return m_error.Fail(hr, "The message service is not in the profile");
  auto it = std::find_if(service.providers.begin(), service.providers.end(),
                         [lpUID](const ProviderInfo& p) { return SameUid(p.uid, *lpUID); });
  if (it == service.providers.end()) return m_error.Fail(MAPI_E_NOT_FOUND, "The service has no such provider");
  if (!m_fromEntryPoint) {
    std::string text;
    hr = CallServiceEntry(m_profile, service, 0, 0, MSG_SERVICE_PROVIDER_DELETE, 0, nullptr, &text);
    if (FAILED(hr)) return m_error.Fail(hr, text);  // the service keeps its provider
  }
  return m_profile->DeleteSection(*lpUID);
}

// ---------------------------------------------------------------------------------------------

class MsgServiceAdmin final : public ComObject<IMsgServiceAdmin, IID_IMsgServiceAdmin> {
 public:
  explicit MsgServiceAdmin(std::shared_ptr<Profile> profile) : m_profile(std::move(profile)) {}

  MAPIMETHOD(GetLastError)(HRESULT hResult, ULONG ulFlags, LPMAPIERROR* lppMAPIError) override {
    return m_error.Get(hResult, ulFlags, "Message service administration", lppMAPIError);
  }
  MAPIMETHOD(GetMsgServiceTable)(ULONG ulFlags, LPMAPITABLE* lppTable) override;
  MAPIMETHOD(CreateMsgService)(LPTSTR lpszService, LPTSTR lpszDisplayName, ULONG_PTR ulUIParam,
                               ULONG ulFlags) override {
    if (!lpszService) return MAPI_E_INVALID_PARAMETER;
    if (ulFlags & ~(MAPI_UNICODE | SERVICE_UI_ALWAYS | SERVICE_UI_ALLOWED | kServiceNoRestartWarning)) {
      return MAPI_E_UNKNOWN_FLAGS;
    }
    std::string text;
    MAPIUID uid;
    HRESULT hr = AddMsgService(m_profile, TextArg(lpszService, ulFlags), TextArg(lpszDisplayName, ulFlags), ulUIParam,
                               ulFlags & (SERVICE_UI_ALWAYS | SERVICE_UI_ALLOWED), &uid, &text);
    return FAILED(hr) ? m_error.Fail(hr, text) : hr;
  }
  MAPIMETHOD(DeleteMsgService)(LPMAPIUID lpUID) override {
    if (!lpUID) return MAPI_E_INVALID_PARAMETER;
    std::string text;
    HRESULT hr = RemoveMsgService(m_profile, *lpUID, &text);
    return FAILED(hr) ? m_error.Fail(hr, text) : hr;
  }
  MAPIMETHOD(CopyMsgService)(LPMAPIUID, LPTSTR, LPCIID, LPCIID, LPVOID, ULONG_PTR, ULONG) override {
    return m_error.Fail(MAPI_E_NO_SUPPORT, "CopyMsgService is not supported");
  }
  MAPIMETHOD(RenameMsgService)(LPMAPIUID, ULONG, LPTSTR) override {
    return m_error.Fail(MAPI_E_NO_SUPPORT, "RenameMsgService is not supported");
  }
  MAPIMETHOD(ConfigureMsgService)(LPMAPIUID lpUID, ULONG_PTR ulUIParam, ULONG ulFlags, ULONG cValues,
                                  LPSPropValue lpProps) override {
    if (!lpUID || (cValues && !lpProps)) return MAPI_E_INVALID_PARAMETER;
    if (ulFlags & ~(MAPI_UNICODE | kUiFlags)) return MAPI_E_UNKNOWN_FLAGS;
    std::string text;
    HRESULT hr = ConfigureService(m_profile, *lpUID, ulUIParam, ulFlags, cValues, lpProps, &text);
    return FAILED(hr) ? m_error.Fail(hr, text) : hr;
  }
  MAPIMETHOD(OpenProfileSection)(LPMAPIUID lpUID, LPCIID lpInterface, ULONG ulFlags,
                                 LPPROFSECT* lppProfSect) override {
    if (!lppProfSect || !lpUID) {
      if (lppProfSect) *lppProfSect = nullptr;
      return MAPI_E_INVALID_PARAMETER;
    }
    *lppProfSect = nullptr;
    if (!ProfSectInterface(lpInterface)) return MAPI_E_INTERFACE_NOT_SUPPORTED;
    HRESULT hr = m_profile->OpenSection(lpUID, ulFlags, lppProfSect);
    return FAILED(hr) ? m_error.Fail(hr, "The profile section could not be opened") : hr;
  }
  MAPIMETHOD(MsgServiceTransportOrder)(ULONG, LPMAPIUID, ULONG) override {
    return m_error.Fail(MAPI_E_NO_SUPPORT, "There are no transports to order");
  }
  MAPIMETHOD(AdminProviders)(LPMAPIUID lpUID, ULONG ulFlags, LPPROVIDERADMIN* lppProviderAdmin) override {
    if (!lppProviderAdmin || !lpUID) {
      if (lppProviderAdmin) *lppProviderAdmin = nullptr;
      return MAPI_E_INVALID_PARAMETER;
    }
    *lppProviderAdmin = nullptr;
    if (ulFlags & ~MAPI_UNICODE) return MAPI_E_UNKNOWN_FLAGS;
    ServiceInfo service;
    HRESULT hr = m_profile->GetService(*lpUID, &service);
    if (FAILED(hr)) return m_error.Fail(hr, "The message service is not in the profile");
    return CreateProviderAdmin(m_profile, *lpUID, false, lppProviderAdmin);
  }
  MAPIMETHOD(SetPrimaryIdentity)(LPMAPIUID, ULONG) override {
    return m_error.Fail(MAPI_E_NO_SUPPORT, "SetPrimaryIdentity is not supported");
  }
  MAPIMETHOD(GetProviderTable)(ULONG ulFlags, LPMAPITABLE* lppTable) override {
    std::vector<ServiceInfo> services;
    HRESULT hr = m_profile->GetServices(&services);
    if (FAILED(hr)) {
      if (lppTable) *lppTable = nullptr;
      return m_error.Fail(hr, "The profile could not be read");
    }
    std::vector<ProviderInfo> providers;
    for (const auto& s : services) providers.insert(providers.end(), s.providers.begin(), s.providers.end());
    return ProviderTable(providers, ulFlags, lppTable);
  }

 private:
  ~MsgServiceAdmin() = default;

  const std::shared_ptr<Profile> m_profile;
  LastError m_error;
};

MAPIMETHODIMP MsgServiceAdmin::GetMsgServiceTable(ULONG ulFlags, LPMAPITABLE* lppTable) {
  if (!lppTable) return MAPI_E_INVALID_PARAMETER;
  *lppTable = nullptr;
  if (ulFlags & ~MAPI_UNICODE) return MAPI_E_UNKNOWN_FLAGS;
  std::vector<ServiceInfo> services;
  HRESULT hr = m_profile->GetServices(&services);
  if (FAILED(hr)) return m_error.Fail(hr, "The profile could not be read");
  bool unicode = (ulFlags & MAPI_UNICODE) != 0;
  std::vector<RowBuilder> rows;
  for (const auto& s : services) {
    RowBuilder row(unicode);
    row.Binary(PR_INSTANCE_KEY, &s.uid, sizeof s.uid);
    row.Binary(PR_SERVICE_UID, &s.uid, sizeof s.uid);
    row.Text(PR_SERVICE_NAME_A, s.name);
    row.Text(PR_DISPLAY_NAME_A, s.displayName);
    row.Long(PR_RESOURCE_FLAGS, s.flags);
    row.Text(PR_SERVICE_DLL_NAME_A, s.dllName);
    row.Text(PR_SERVICE_ENTRY_NAME, s.entryName);
    rows.push_back(std::move(row));
  }
  return BuildTable(TableColumns(ServiceColumns(), unicode), rows, lppTable);
}

}  // namespace

HRESULT CreateMsgServiceAdmin(std::shared_ptr<Profile> profile, LPSERVICEADMIN* lppServiceAdmin) {
  if (!lppServiceAdmin || !profile) return MAPI_E_INVALID_PARAMETER;
  *lppServiceAdmin = new MsgServiceAdmin(std::move(profile));
  return S_OK;
}

HRESULT CreateProviderAdmin(std::shared_ptr<Profile> profile, const MAPIUID& serviceUid, bool fromEntryPoint,
                            LPPROVIDERADMIN* lppProviderAdmin) {
  if (!lppProviderAdmin || !profile) return MAPI_E_INVALID_PARAMETER;
  *lppProviderAdmin = new ProviderAdmin(std::move(profile), serviceUid, fromEntryPoint);
  return S_OK;
}

HRESULT AddMsgService(const std::shared_ptr<Profile>& profile, const std::string& service,
                      const std::string& displayName, ULONG_PTR ulUIParam, ULONG ulFlags, MAPIUID* lpNewUid,
                      std::string* errorText) {
  MAPIUID uid = NewUid();
  PropSet props;
  ServiceInfo info;
  HRESULT hr = ServiceProps(service, displayName, uid, &props, &info, errorText);
  if (FAILED(hr)) return hr;
  if (info.flags & SERVICE_SINGLE_COPY) {
    std::vector<ServiceInfo> existing;
    hr = profile->GetServices(&existing);
    if (FAILED(hr)) return hr;
    for (const auto& s : existing) {
      if (Upper(s.name) == Upper(service)) {
        SetText(errorText, "The service " + service + " allows one copy in a profile");
        return MAPI_E_NO_ACCESS;
      }
    }
  }
  hr = WriteWhole(profile, uid, props);
  InfEntries entries;
  ReadInfSection(service, &entries);
  std::vector<std::string> providers = InfList(InfValue(entries, "Providers"));
  for (size_t i = 0; SUCCEEDED(hr) && i < providers.size(); ++i) {
    MAPIUID providerUid = NewUid();
    PropSet providerProps;
    hr = ProviderProps(providers[i], info, providerUid, static_cast<ULONG>(i), &providerProps, errorText);
    if (SUCCEEDED(hr)) hr = WriteWhole(profile, providerUid, providerProps);
  }
  if (SUCCEEDED(hr)) hr = CallServiceEntry(profile, info, ulUIParam, ulFlags, MSG_SERVICE_CREATE, 0, nullptr, errorText);
  if (SUCCEEDED(hr)) hr = profile->CommitService(uid);
  if (FAILED(hr)) {
    profile->RemoveServiceSections(uid);
    return hr;
  }
  if (lpNewUid) *lpNewUid = uid;
  return S_OK;
}

HRESULT ConfigureService(const std::shared_ptr<Profile>& profile, const MAPIUID& serviceUid, ULONG_PTR ulUIParam,
                         ULONG ulFlags, ULONG cValues, LPSPropValue lpProps, std::string* errorText) {
  ServiceInfo service;
  HRESULT hr = profile->GetService(serviceUid, &service);
  if (FAILED(hr)) {
    SetText(errorText, "The message service is not in the profile");
    return hr;
  }
  return CallServiceEntry(profile, service, ulUIParam, ulFlags, MSG_SERVICE_CONFIGURE, cValues, lpProps, errorText);
}

HRESULT RemoveMsgService(const std::shared_ptr<Profile>& profile, const MAPIUID& serviceUid, std::string* errorText) {
  ServiceInfo service;
  HRESULT hr = profile->GetService(serviceUid, &service);
  if (FAILED(hr)) {
    SetText(errorText, "The message service is not in the profile");
    return hr;
  }
  // The service is told, but cannot keep itself: a service whose library is gone must still go.
  CallServiceEntry(profile, service, 0, 0, MSG_SERVICE_DELETE, 0, nullptr, nullptr);
  hr = profile->UncommitService(serviceUid);
  if (FAILED(hr)) return hr;
  profile->RemoveServiceSections(serviceUid);
  return S_OK;
}

}  // namespace adm
