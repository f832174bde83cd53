// Message services of a profile: IMsgServiceAdmin, IProviderAdmin, and the calls into a
// service's entry point (ServiceEntry) that go with each change, as MAPI makes them.
#pragma once
#include <memory>
#include <string>

#include "mapispi.h"
#include "profile.h"

namespace adm {

HRESULT CreateMsgServiceAdmin(std::shared_ptr<Profile> profile, LPSERVICEADMIN* lppServiceAdmin);
// The provider administration object of one service. `fromEntryPoint`: the object handed to the
// service's own entry point, whose provider changes do not call the entry point back.
HRESULT CreateProviderAdmin(std::shared_ptr<Profile> profile, const MAPIUID& serviceUid, bool fromEntryPoint,
                            LPPROVIDERADMIN* lppProviderAdmin);

// The operations behind the interfaces; `errorText` receives what the entry point (or this
// layer) said about a failure.
//
// Adds the MAPISVC.INF service `service` (listed in [Services], else MAPI_E_NOT_FOUND): writes the
// service's and its providers' sections, calls the entry point with MSG_SERVICE_CREATE and the UI
// flags, and makes the service part of the profile only when that succeeds; otherwise nothing
// remains and the entry point's error is returned. A SERVICE_SINGLE_COPY service already in the
// profile is MAPI_E_NO_ACCESS.
HRESULT AddMsgService(const std::shared_ptr<Profile>& profile, const std::string& service,
                      const std::string& displayName, ULONG_PTR ulUIParam, ULONG ulFlags, MAPIUID* lpNewUid,
                      std::string* errorText);
// MSG_SERVICE_CONFIGURE with the flags and properties given. MAPI_E_NOT_FOUND for an unknown UID.
HRESULT ConfigureService(const std::shared_ptr<Profile>& profile, const MAPIUID& serviceUid, ULONG_PTR ulUIParam,
                         ULONG ulFlags, ULONG cValues, LPSPropValue lpProps, std::string* errorText);
// MSG_SERVICE_DELETE (its result does not keep the service), then removes the service.
HRESULT RemoveMsgService(const std::shared_ptr<Profile>& profile, const MAPIUID& serviceUid, std::string* errorText);

}  // namespace adm
