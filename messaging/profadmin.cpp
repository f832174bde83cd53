// MAPIAdminProfiles and IProfAdmin over the profile store.
#include <atomic>
#include <mutex>

#include "adminutil.h"
#include "adplatform.h"
#include "mapicode.h"
#include "mapiguid.h"
#include "mapiinit.h"
#include "mapisvc.h"
#include "mapitags.h"
#include "mapix.h"
#include "profile.h"
#include "serviceadmin.h"
#include "comobject.h"

namespace adm {
namespace {

std::string NameArg(LPTSTR text, ULONG ulFlags) {
  if (!text) return std::string();
  if (ulFlags & MAPI_UNICODE) return adp::Utf16ToUtf8(reinterpret_cast<const char16_t*>(text));
  return reinterpret_cast<const char*>(text);
}

const char* OrNull(const std::string& s, LPTSTR original) { return original ? s.c_str() : nullptr; }

// Tells each service of the profile that it goes; a profile that cannot be read is deleted all
// the same.
void RemoveAllServices(const char* name) {
  std::shared_ptr<Profile> profile;
  if (FAILED(Profile::Open(name, &profile))) return;
  std::vector<ServiceInfo> services;
  if (FAILED(profile->GetServices(&services))) return;
  for (const auto& s : services) RemoveMsgService(profile, s.uid, nullptr);
}

class ProfAdmin final : public ComObject<IProfAdmin, IID_IProfAdmin> {
 public:
  MAPIMETHOD(GetLastError)(HRESULT hResult, ULONG ulFlags, LPMAPIERROR* lppMAPIError) override {
    std::string text;
    {
      std::lock_guard<std::mutex> guard(m_lock);  // lock order: leaf
      text = hResult == S_OK ? "No error" : m_text.empty() ? "The profile call failed" : m_text;
    }
    return BuildMapiError(ulFlags, text, "Profile administration", lppMAPIError);
  }

  MAPIMETHOD(GetProfileTable)(ULONG ulFlags, LPMAPITABLE* lppTable) override {
    if (!lppTable) return MAPI_E_INVALID_PARAMETER;
    *lppTable = nullptr;
    if (ulFlags & ~MAPI_UNICODE) return MAPI_E_UNKNOWN_FLAGS;
    bool unicode = (ulFlags & MAPI_UNICODE) != 0;
    std::vector<RowBuilder> rows;
    for (const auto& p : ListProfiles()) {
      RowBuilder row(unicode);
      std::string key;
      for (char c : p.name) key += (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
      row.Binary(PR_INSTANCE_KEY, key.data(), static_cast<ULONG>(key.size()));
      row.Text(PR_DISPLAY_NAME_A, p.name);
      row.Bool(PR_DEFAULT_PROFILE, p.isDefault);
      rows.push_back(std::move(row));
    }
    return BuildTable(TableColumns({PR_INSTANCE_KEY, PR_DISPLAY_NAME_A, PR_DEFAULT_PROFILE}, unicode), rows, lppTable);
  }

  MAPIMETHOD(CreateProfile)(LPTSTR lpszProfileName, LPTSTR, ULONG_PTR ulUIParam, ULONG ulFlags) override {
    if (ulFlags & ~(MAPI_DEFAULT_SERVICES | MAPI_DIALOG | MAPI_UNICODE)) return MAPI_E_UNKNOWN_FLAGS;
    std::string name = NameArg(lpszProfileName, ulFlags);
    HRESULT hr = CreateProfileEntry(OrNull(name, lpszProfileName));
    if (hr == MAPI_E_NO_ACCESS) return Fail(hr, "A profile named " + name + " already exists");
    if (FAILED(hr)) return Fail(hr, "The profile could not be created");
    if (ulFlags & MAPI_DEFAULT_SERVICES) {
      hr = AddDefaultServices(name, ulUIParam);
      if (FAILED(hr)) DeleteProfileEntry(name.c_str());  // no half-made profile stays
    }
    return hr;
  }

  MAPIMETHOD(DeleteProfile)(LPTSTR lpszProfileName, ULONG ulFlags) override {
    if (ulFlags & ~MAPI_UNICODE) return MAPI_E_UNKNOWN_FLAGS;
    std::string name = NameArg(lpszProfileName, ulFlags);
    if (!lpszProfileName || name.empty()) return MAPI_E_INVALID_PARAMETER;
    RemoveAllServices(name.c_str());
    HRESULT hr = DeleteProfileEntry(name.c_str());
    return FAILED(hr) ? Fail(hr, "There is no profile named " + name) : hr;
  }

  MAPIMETHOD(ChangeProfilePassword)(LPTSTR, LPTSTR, LPTSTR, ULONG) override {
    return Fail(MAPI_E_NO_SUPPORT, "Profiles have no passwords");
  }

  MAPIMETHOD(CopyProfile)(LPTSTR lpszOld, LPTSTR, LPTSTR lpszNew, ULONG_PTR, ULONG ulFlags) override {
    return CopyOrRename(lpszOld, lpszNew, ulFlags, false);
  }

  MAPIMETHOD(RenameProfile)(LPTSTR lpszOld, LPTSTR, LPTSTR lpszNew, ULONG_PTR, ULONG ulFlags) override {
    return CopyOrRename(lpszOld, lpszNew, ulFlags, true);
  }

  MAPIMETHOD(SetDefaultProfile)(LPTSTR lpszProfileName, ULONG ulFlags) override {
    if (ulFlags & ~MAPI_UNICODE) return MAPI_E_UNKNOWN_FLAGS;
    std::string name = NameArg(lpszProfileName, ulFlags);
    HRESULT hr = SetDefaultProfileEntry(OrNull(name, lpszProfileName));
    return FAILED(hr) ? Fail(hr, "There is no profile named " + name) : hr;
  }

  MAPIMETHOD(AdminServices)(LPTSTR lpszProfileName, LPTSTR, ULONG_PTR, ULONG ulFlags,
                            LPSERVICEADMIN* lppServiceAdmin) override {
    if (!lppServiceAdmin) return MAPI_E_INVALID_PARAMETER;
    *lppServiceAdmin = nullptr;
    if (ulFlags & ~(MAPI_UNICODE | MAPI_DIALOG)) return MAPI_E_UNKNOWN_FLAGS;
    std::string name = NameArg(lpszProfileName, ulFlags);
    if (!lpszProfileName || name.empty()) return MAPI_E_INVALID_PARAMETER;
    std::shared_ptr<Profile> profile;
    HRESULT hr = Profile::Open(name.c_str(), &profile);
    if (FAILED(hr)) return Fail(hr, "The profile " + name + " could not be opened");
    return CreateMsgServiceAdmin(std::move(profile), lppServiceAdmin);
  }

 private:
  ~ProfAdmin() = default;

  HRESULT Fail(HRESULT hr, const std::string& text) {
    std::lock_guard<std::mutex> guard(m_lock);  // lock order: leaf
    m_text = text;
    return hr;
  }

  HRESULT AddDefaultServices(const std::string& name, ULONG_PTR ulUIParam) {
    std::shared_ptr<Profile> profile;
    HRESULT hr = Profile::Open(name.c_str(), &profile);
    for (const auto& service : InfDefaultServices()) {
      if (FAILED(hr)) break;
      std::string text;
      hr = AddMsgService(profile, service, std::string(), ulUIParam, 0, nullptr, &text);
      if (FAILED(hr)) Fail(hr, text);
    }
    return hr;
  }

  HRESULT CopyOrRename(LPTSTR lpszOld, LPTSTR lpszNew, ULONG ulFlags, bool rename) {
    if (ulFlags & ~(MAPI_DIALOG | MAPI_UNICODE)) return MAPI_E_UNKNOWN_FLAGS;
    std::string from = NameArg(lpszOld, ulFlags), to = NameArg(lpszNew, ulFlags);
    HRESULT hr = rename ? RenameProfileEntry(OrNull(from, lpszOld), OrNull(to, lpszNew))
                        : CopyProfileEntry(OrNull(from, lpszOld), OrNull(to, lpszNew));
    if (hr == MAPI_E_NO_ACCESS) return Fail(hr, "A profile named " + to + " already exists");
    return FAILED(hr) ? Fail(hr, "The profile " + from + " could not be " + (rename ? "renamed" : "copied")) : hr;
  }

  std::mutex m_lock;  // guards m_text
  std::string m_text;
};

}  // namespace
}  // namespace adm

extern "C" HRESULT STDAPICALLTYPE MAPIAdminProfiles(ULONG ulFlags, LPPROFADMIN* lppProfAdmin) {
  if (!lppProfAdmin) return MAPI_E_INVALID_PARAMETER;
  *lppProfAdmin = nullptr;
  if (ulFlags & ~MAPI_UNICODE) return MAPI_E_UNKNOWN_FLAGS;
  if (!adm::MapiInitialized()) return MAPI_E_NOT_INITIALIZED;
  adm::InstallSubsystemFiles();  // the state directory may be new since MAPIInitialize
  *lppProfAdmin = new adm::ProfAdmin;
  return S_OK;
}
