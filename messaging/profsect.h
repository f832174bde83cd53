// IProfSect over one section of the profile store.
#pragma once
#include <memory>

#include "mapidefs.h"
#include "profile.h"

namespace adm {

// A profile section object on `uid` holding `contents` as read. Writable objects persist their
// changes at SaveChanges, and at the final Release when changes are pending: the properties set or
// deleted since the last save are applied to the section as it is on disk then, so concurrent
// writers of different properties lose nothing.
HRESULT CreateProfSect(std::shared_ptr<Profile> profile, const MAPIUID& uid, bool writable, PropSet contents,
                       LPPROFSECT* lppProfSect);

}  // namespace adm
