// The support object that a service's entry point receives at profile time.
#pragma once
#include <memory>

#include "mapispi.h"
#include "profile.h"

namespace adm {

// All 44 IMAPISupport slots in published order. Working at profile time: GetLastError,
// GetMemAllocRoutines, OpenProfileSection (a null UID opens the service's own section), NewUID.
// The others answer MAPI_E_NO_SUPPORT: they belong to a logged-on session.
HRESULT CreateServiceSupport(std::shared_ptr<Profile> profile, const MAPIUID& serviceUid, LPMAPISUP* lppSupport);

}  // namespace adm
