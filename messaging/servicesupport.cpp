// IMAPISupport for service entry points (see servicesupport.h).
#include "servicesupport.h"

#include <atomic>
#include <mutex>

#include "adminutil.h"
#include "mapicode.h"
#include "mapiguid.h"
#include "mapix.h"
#include "supportbase.h"

namespace adm {
namespace {

class ServiceSupport final : public CSupportBase {
 public:
  ServiceSupport(std::shared_ptr<Profile> profile, const MAPIUID& serviceUid)
      : CSupportBase("Service support", " is not available while a profile is being configured"),
        m_profile(std::move(profile)),
        m_serviceUid(serviceUid) {}

  MAPIMETHOD(OpenProfileSection)(LPMAPIUID lpUid, ULONG ulFlags, LPPROFSECT* lppProfileObj) override {
    HRESULT hr = m_profile->OpenSection(lpUid ? lpUid : &m_serviceUid, ulFlags, lppProfileObj);
    return FAILED(hr) ? Failed(hr, "OpenProfileSection failed") : hr;
  }
  MAPIMETHOD(NewUID)(LPMAPIUID lpMuid) override {
    if (!lpMuid) return MAPI_E_INVALID_PARAMETER;
    *lpMuid = NewUid();
    return S_OK;
  }

 private:
  ~ServiceSupport() = default;

  const std::shared_ptr<Profile> m_profile;
  const MAPIUID m_serviceUid;
};

}  // namespace

HRESULT CreateServiceSupport(std::shared_ptr<Profile> profile, const MAPIUID& serviceUid, LPMAPISUP* lppSupport) {
  if (!lppSupport) return MAPI_E_INVALID_PARAMETER;
  *lppSupport = new ServiceSupport(std::move(profile), serviceUid);
  return S_OK;
}

}  // namespace adm
