// MAPISVC.INF: the file that names the message services a profile can hold and the providers
// each of them brings, and the way installers find it.
//
// The file is <state>/subsystem/mapi/MAPISVC.INF, an ordinary INI file read and written with
// GetPrivateProfileStringA/WritePrivateProfileStringA. [Services] lists service names; a
// service's section holds its properties and "Providers=" (provider section names, comma
// separated); a provider's section holds its properties. Keys are property names (PR_DISPLAY_NAME,
// PR_SERVICE_DLL_NAME, PR_SERVICE_ENTRY_NAME, PR_RESOURCE_FLAGS, PR_RESOURCE_TYPE,
// PR_PROVIDER_DLL_NAME, PR_PROVIDER_DISPLAY, ...) or property tags in eight hex digits
// (6600001E=...). Values: text for strings; decimal, 0x-hex or flag names joined by '|'
// (SERVICE_SINGLE_COPY|SERVICE_NO_PRIMARY_IDENTITY, MAPI_STORE_PROVIDER) for longs;
// TRUE/FALSE for booleans; hex digits for binaries; comma-separated text for multi-valued strings.
// Other keys (WIZARD_ENTRY_NAME, Sections, ...) are not properties and are left alone.
//
// Installers find the file as on Windows: they load mapistub.dll (or mapi32.dll) from the system
// folder, call FGetComponentPath and look for MAPISVC.INF beside the library it names. The
// subsystem makes itself loadable under those names (symbolic links to its own library in
// GetSystemDirectoryA's folder, and MSMAPI32 beside MAPISVC.INF) whenever it initialises.
// Its folder is alone in <state>/subsystem, so an installer that also updates the folders beside
// it touches nothing else of the state directory.
#pragma once
#include <string>
#include <utility>
#include <vector>

#include "mapidefs.h"
#include "propfile.h"

extern "C" {
// The published stub export: the path of the private MAPI library for a component (any
// component and qualifier: there is one MAPI here). FALSE when the buffer is missing or too
// small. fInstall makes the subsystem's files exist first.
BOOL STDAPICALLTYPE FGetComponentPath(LPCSTR szComponent, LPSTR szQualifier, LPSTR szDllPath, DWORD cchBufferSize,
                                      BOOL fInstall);
}

namespace adm {

std::string MapisvcFolder();  // created on demand
std::string MapisvcPath();
// The links that make the subsystem loadable as mapistub/mapi32/msmapi32. Idempotent.
void InstallSubsystemFiles();

using InfEntries = std::vector<std::pair<std::string, std::string>>;
// The keys of a section in file order; MAPI_E_NOT_FOUND when the section is missing or empty.
HRESULT ReadInfSection(const std::string& section, InfEntries* entries);
// True when [Services] lists `service` (case-insensitive).
bool InfListsService(const std::string& service);
// The keys of [Default Services].
std::vector<std::string> InfDefaultServices();
// The value of `key` in `entries`, case-insensitive; "" when absent.
std::string InfValue(const InfEntries& entries, const std::string& key);
// Comma-separated items, trimmed, empty ones dropped.
std::vector<std::string> InfList(const std::string& value);
// The properties that a section's keys describe. Keys that are not properties, or whose values
// do not parse for their type, are skipped.
HRESULT InfEntriesToProps(const InfEntries& entries, PropSet* props);
// A property name (PR_DISPLAY_NAME) or eight hex digits as a tag; 0 when unknown.
ULONG InfPropTag(const std::string& key);

}  // namespace adm
