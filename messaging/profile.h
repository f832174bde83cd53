// The profile store: profiles, their services and providers, and their profile sections, kept
// under the state directory so that every process of the machine sees the same profiles.
//
// Layout under adp::StateDirectory():
//   profiles/default          the default profile's name (UTF-8, one line); absent when none
//   profiles/<key>/           one profile. <key> is the name in lower case with every byte other
//                             than a-z, 0-9, '_' and '-' written as %XX (names compare without
//                             regard to ASCII case, as MAPI's do, and no name can escape the folder)
//   profiles/<key>/<uid>.sect one profile section; <uid> is the MAPIUID in 32 hex digits; the
//                             contents are a property file (propfile.h)
//   profiles/.new-*, .old-*   folders of a create, copy or delete in progress
//
// The global section (pbGlobalProfileSectionGuid) holds PR_PROFILE_NAME_A and PR_SERVICES: the
// UIDs of the profile's services, 16 bytes each, in creation order. A service's own section
// (UID = service UID) holds PR_SERVICE_UID, PR_SERVICE_NAME_A, PR_DISPLAY_NAME_A,
// PR_SERVICE_DLL_NAME_A, PR_SERVICE_ENTRY_NAME, PR_RESOURCE_FLAGS and the other properties of
// its MAPISVC.INF section. A provider's section (UID = provider UID) holds PR_PROVIDER_UID,
// PR_SERVICE_UID, PR_SERVICE_NAME_A, PR_PROVIDER_ORDINAL, PR_RESOURCE_TYPE,
// PR_PROVIDER_DLL_NAME_A and the properties of its MAPISVC.INF section. A service belongs to the
// profile once its UID is in PR_SERVICES: that is written last when a service is made and
// removed first when it is deleted, so a crash never leaves half a service visible.
//
// Every file is written whole to a temporary name and renamed over the old one, so readers never
// see a partial file. Read-modify-write cycles of all processes are serialised by the named mutex
// kStoreMutexName (a leaf lock: nothing is called out to while it is held).
#pragma once
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "mapidefs.h"
#include "mapix.h"
#include "propfile.h"

namespace adm {

inline constexpr const char* kStoreMutexName = "ADMessaging.ProfileStore";

// The global section's UID.
const MAPIUID& GlobalSectionUid();
std::string UidHex(const MAPIUID& uid);
// A fresh random UID.
MAPIUID NewUid();

struct ProviderInfo {
  MAPIUID uid{};
  MAPIUID serviceUid{};
  std::string serviceName;
  std::string dllName;      // PR_PROVIDER_DLL_NAME
  std::string displayName;  // PR_PROVIDER_DISPLAY, else PR_DISPLAY_NAME
  ULONG resourceType = 0;
  ULONG resourceFlags = 0;
  ULONG ordinal = 0;
};

struct ServiceInfo {
  MAPIUID uid{};
  std::string name;         // the MAPISVC.INF service name
  std::string displayName;
  std::string dllName;      // PR_SERVICE_DLL_NAME
  std::string entryName;    // PR_SERVICE_ENTRY_NAME ("ServiceEntry" when absent)
  ULONG flags = 0;          // PR_RESOURCE_FLAGS: SERVICE_*
  std::vector<ProviderInfo> providers;  // by PR_PROVIDER_ORDINAL
};

// One profile. The object only names it: every call reads the current state from disk, so many
// objects (in many processes) may name the same profile. Thread-safe.
class Profile {
 public:
  // The named profile, or the default one for a null or empty name. MAPI_E_NOT_FOUND when there
  // is no such profile (or no default), MAPI_E_CORRUPT_DATA when its global section is unreadable.
  static HRESULT Open(const char* lpszName, std::shared_ptr<Profile>* out);

  const std::string& Name() const { return m_name; }
  const std::string& Folder() const { return m_folder; }
  bool Exists() const;

  // The committed services with their providers, in creation order.
  HRESULT GetServices(std::vector<ServiceInfo>* out) const;
  HRESULT GetService(const MAPIUID& serviceUid, ServiceInfo* out) const;  // MAPI_E_NOT_FOUND
  HRESULT GetProvider(const MAPIUID& providerUid, ProviderInfo* out) const;
  // Service and provider details from sections alone, committed or not (a service being made).
  HRESULT ReadServiceSection(const MAPIUID& serviceUid, ServiceInfo* out) const;

  // A section as an IProfSect. MAPI_MODIFY opens it writable and makes it when missing;
  // otherwise a missing section is MAPI_E_NOT_FOUND. Flags: MAPI_MODIFY, MAPI_DEFERRED_ERRORS,
  // MAPI_FORCE_ACCESS, MAPI_BEST_ACCESS, MAPI_UNICODE.
  HRESULT OpenSection(const MAPIUID* lpUid, ULONG ulFlags, LPPROFSECT* lppProfSect);

  // Low-level section access. Read: MAPI_E_NOT_FOUND, MAPI_E_CORRUPT_DATA. Update: runs `edit`
  // on the current contents under the store lock and writes the result; a missing section is
  // made when `create`, else MAPI_E_NOT_FOUND; a gone profile is MAPI_E_NOT_FOUND.
  HRESULT ReadSection(const MAPIUID& uid, PropSet* out) const;
  HRESULT UpdateSection(const MAPIUID& uid, bool create, const std::function<HRESULT(PropSet&)>& edit);
  HRESULT DeleteSection(const MAPIUID& uid);
  bool SectionExists(const MAPIUID& uid) const;

  // PR_SERVICES of the global section.
  HRESULT CommitService(const MAPIUID& serviceUid);
  HRESULT UncommitService(const MAPIUID& serviceUid);  // MAPI_E_NOT_FOUND when not listed
  // Removes the service's section and its providers' sections (after UncommitService).
  HRESULT RemoveServiceSections(const MAPIUID& serviceUid);

 private:
  Profile(std::string name, std::string folder) : m_name(std::move(name)), m_folder(std::move(folder)) {}
  std::string SectionPath(const MAPIUID& uid) const;
  std::vector<MAPIUID> SectionUids() const;

  std::string m_name;
  std::string m_folder;
};

// Profile-wide operations (profadmin.cpp builds IProfAdmin on them). Names are validated:
// MAPI_E_INVALID_PARAMETER for null, empty or longer than cchProfileNameMax.
HRESULT CreateProfileEntry(const char* lpszName);  // MAPI_E_NO_ACCESS when it exists
HRESULT DeleteProfileEntry(const char* lpszName);  // MAPI_E_NOT_FOUND
HRESULT CopyProfileEntry(const char* lpszFrom, const char* lpszTo);
HRESULT RenameProfileEntry(const char* lpszFrom, const char* lpszTo);
// Null or empty clears the default.
HRESULT SetDefaultProfileEntry(const char* lpszName);
std::string DefaultProfileName();  // "" when none (or the named profile is gone)
struct ProfileListing {
  std::string name;
  bool isDefault = false;
};
std::vector<ProfileListing> ListProfiles();

// Cross-process lock of the store; WAIT_ABANDONED counts as acquired (files are never partial).
class StoreLock {
 public:
  StoreLock();
  ~StoreLock();
  StoreLock(const StoreLock&) = delete;
  StoreLock& operator=(const StoreLock&) = delete;
  bool Held() const { return m_held; }

 private:
  HANDLE m_mutex = nullptr;
  bool m_held = false;
};

// Whole-file helpers: read (MAPI_E_NOT_FOUND when missing) and write by temporary + rename.
HRESULT ReadWholeFile(const std::string& path, std::string* bytes);
HRESULT WriteFileAtomic(const std::string& path, const std::string& bytes);

}  // namespace adm
