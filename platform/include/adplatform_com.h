// Controls of the COM stand-in with no Win32 counterpart: registering servers and ProgIDs in the
// current state directory, for tests and tools. Provider code never includes this.
#pragma once
#include <string>
#include "guiddef.h"

namespace adp {

// Writes HKEY_CLASSES_ROOT\CLSID\{CLSID}\InprocServer32 (default value = libraryPath).
// Returns S_OK or the registry failure as an HRESULT.
HRESULT RegisterInprocServer(const CLSID& clsid, const char* libraryPath);
// Removes the InprocServer32 registration of clsid (S_OK when there was none).
HRESULT UnregisterInprocServer(const CLSID& clsid);
// Writes HKEY_CLASSES_ROOT\<progId>\CLSID and HKEY_CLASSES_ROOT\CLSID\{CLSID}\ProgID.
HRESULT RegisterProgID(const char* progId, const CLSID& clsid);

// "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}" in upper case, as registry keys spell it.
std::string GuidToRegistryString(const GUID& guid);

// The system text for an HRESULT, as _com_error::ErrorMessage shows it
// ("Unknown error 0x%08X" when there is none).
std::string ErrorMessageText(HRESULT hr);

}  // namespace adp
