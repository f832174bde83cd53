// The profile store (layout and rules in profile.h).
#include "profile.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "adplatform.h"
#include "mapicode.h"
#include "mapitags.h"
#include "objbase.h"
#include "profsect.h"
#include "windows.h"

namespace fs = std::filesystem;

namespace adm {
namespace {

std::atomic<unsigned> g_tempCounter{0};

std::string TempSuffix() {
  return std::to_string(GetCurrentProcessId()) + "-" + std::to_string(g_tempCounter++);
}

std::string ProfilesRoot() {
  std::string root = adp::StateDirectory() + "/profiles";
  std::error_code ec;
  fs::create_directories(root, ec);
  return root;
}

std::string DefaultFilePath() { return ProfilesRoot() + "/default"; }

char Lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

std::string KeyFor(const std::string& name) {
  static const char* hex = "0123456789ABCDEF";
  std::string key;
  for (char raw : name) {
    char c = Lower(raw);
    if ((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '-') {
      key += c;
    } else {
      unsigned char b = static_cast<unsigned char>(c);
      key += '%';
      key += hex[b >> 4];
      key += hex[b & 15];
    }
  }
  return key;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

std::string NameFromKey(const std::string& key) {
  std::string name;
  for (size_t i = 0; i < key.size(); ++i) {
    if (key[i] == '%' && i + 2 < key.size() + 0 && HexDigit(key[i + 1]) >= 0 && HexDigit(key[i + 2]) >= 0) {
      name += static_cast<char>(HexDigit(key[i + 1]) * 16 + HexDigit(key[i + 2]));
      i += 2;
    } else {
      name += key[i];
    }
  }
  return name;
}

HRESULT ValidateName(const char* name) {
  if (!name || !*name) return MAPI_E_INVALID_PARAMETER;
  if (adp::Utf8ToUtf16(name).size() > cchProfileNameMax) return MAPI_E_INVALID_PARAMETER;
  for (const char* p = name; *p; ++p) {
    if (static_cast<unsigned char>(*p) < 0x20) return MAPI_E_INVALID_PARAMETER;
  }
  return S_OK;
}

std::string FolderFor(const std::string& name) { return ProfilesRoot() + "/" + KeyFor(name); }

bool IsDirectory(const std::string& path) {
  std::error_code ec;
  return fs::is_directory(path, ec);
}

bool ParseUidHex(const std::string& text, MAPIUID* uid) {
  if (text.size() != 32) return false;
  for (size_t i = 0; i < 16; ++i) {
    int hi = HexDigit(text[2 * i]), lo = HexDigit(text[2 * i + 1]);
    if (hi < 0 || lo < 0) return false;
    uid->ab[i] = static_cast<BYTE>(hi * 16 + lo);
  }
  return true;
}

std::vector<MAPIUID> UidList(const SPropValue* v) {
  std::vector<MAPIUID> uids;
  if (!v || PROP_TYPE(v->ulPropTag) != PT_BINARY) return uids;
  for (ULONG off = 0; off + sizeof(MAPIUID) <= v->Value.bin.cb; off += sizeof(MAPIUID)) {
    MAPIUID uid;
    std::memcpy(&uid, v->Value.bin.lpb + off, sizeof uid);
    uids.push_back(uid);
  }
  return uids;
}

HRESULT SetUidList(PropSet& set, const std::vector<MAPIUID>& uids) {
  return set.Set(BinaryProp(PR_SERVICES, uids.data(), static_cast<ULONG>(uids.size() * sizeof(MAPIUID))));
}

ULONG LongOf(const PropSet& set, ULONG tag) {
  const SPropValue* v = set.Find(tag);
  return v ? v->Value.ul : 0;
}

bool UidOf(const PropSet& set, ULONG tag, MAPIUID* uid) {
  const SPropValue* v = set.Find(tag);
  if (!v || v->Value.bin.cb != sizeof(MAPIUID)) return false;
  std::memcpy(uid, v->Value.bin.lpb, sizeof *uid);
  return true;
}

// The global section of a profile folder, written as the whole file.
HRESULT WriteGlobalSection(const std::string& folder, const std::string& name, const PropSet* base) {
  PropSet global;
  if (base) {
    for (ULONG tag : base->Tags()) global.Set(*base->Find(tag));
  }
  HRESULT hr = global.Set(StringProp(PR_PROFILE_NAME_A, name.c_str()));
  if (SUCCEEDED(hr) && !global.Find(PR_SERVICES)) hr = SetUidList(global, {});
  if (FAILED(hr)) return hr;
  return WriteFileAtomic(folder + "/" + UidHex(GlobalSectionUid()) + ".sect", global.Encode());
}

HRESULT ReadSectionFile(const std::string& path, PropSet* out) {
  std::string bytes;
  HRESULT hr = ReadWholeFile(path, &bytes);
  if (FAILED(hr)) return hr;
  return PropSet::Decode(bytes, *out);
}

std::string ReadDefaultName() {
  std::string bytes;
  if (FAILED(ReadWholeFile(DefaultFilePath(), &bytes))) return std::string();
  while (!bytes.empty() && (bytes.back() == '\n' || bytes.back() == '\r')) bytes.pop_back();
  return bytes;
}

HRESULT WriteDefaultName(const std::string& name) {
  if (name.empty()) {
    DeleteFileA(DefaultFilePath().c_str());
    return S_OK;
  }
  return WriteFileAtomic(DefaultFilePath(), name + "\n");
}

bool SameKey(const std::string& a, const std::string& b) { return KeyFor(a) == KeyFor(b); }

// The stored name of the profile in `folder`, or the name its key spells when unreadable.
std::string StoredName(const std::string& folder, const std::string& key) {
  PropSet global;
  if (SUCCEEDED(ReadSectionFile(folder + "/" + UidHex(GlobalSectionUid()) + ".sect", &global))) {
    std::string name = PropText(global.Find(PR_PROFILE_NAME_A));
    if (!name.empty()) return name;
  }
  return NameFromKey(key);
}

HRESULT CopyFolder(const std::string& from, const std::string& to) {
  std::error_code ec;
  fs::create_directory(to, ec);
  if (ec) return MAPI_E_CALL_FAILED;
  for (const auto& entry : fs::directory_iterator(from, ec)) {
    std::string leaf = entry.path().filename().string();
    if (leaf.size() != 37 || leaf.compare(32, 5, ".sect") != 0) continue;  // sections only
    std::string bytes;
    HRESULT hr = ReadWholeFile(entry.path().string(), &bytes);
    if (SUCCEEDED(hr)) hr = WriteFileAtomic(to + "/" + leaf, bytes);
    if (FAILED(hr)) return hr;
  }
  return ec ? MAPI_E_CALL_FAILED : S_OK;
}

void RemoveFolder(const std::string& folder) {
  std::error_code ec;
  std::string doomed = ProfilesRoot() + "/.old-" + TempSuffix();
  fs::rename(folder, doomed, ec);
  fs::remove_all(ec ? folder : doomed, ec);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Files and the lock.

HRESULT ReadWholeFile(const std::string& path, std::string* bytes) {
  HANDLE h = CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                         OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) {
    DWORD err = GetLastError();
    return (err == ERROR_FILE_NOT_FOUND || err == ERROR_PATH_NOT_FOUND) ? MAPI_E_NOT_FOUND : MAPI_E_CALL_FAILED;
  }
  bytes->clear();
  char buf[8192];
  DWORD got = 0;
  BOOL ok;
  while ((ok = ReadFile(h, buf, sizeof buf, &got, nullptr)) && got > 0) bytes->append(buf, got);
  CloseHandle(h);
  return ok ? S_OK : MAPI_E_CALL_FAILED;
}

HRESULT WriteFileAtomic(const std::string& path, const std::string& bytes) {
  std::string temp = path + ".tmp-" + TempSuffix();
  HANDLE h = CreateFileA(temp.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                         FILE_ATTRIBUTE_NORMAL | FILE_FLAG_WRITE_THROUGH, nullptr);
  if (h == INVALID_HANDLE_VALUE) return GetLastError() == ERROR_PATH_NOT_FOUND ? MAPI_E_NOT_FOUND : MAPI_E_CALL_FAILED;
  DWORD written = 0;
  BOOL ok = bytes.empty() || WriteFile(h, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
  ok = ok && written == bytes.size() && FlushFileBuffers(h);
  CloseHandle(h);
  if (ok && MoveFileExA(temp.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) return S_OK;
  DeleteFileA(temp.c_str());
  return MAPI_E_CALL_FAILED;
}

StoreLock::StoreLock() {
  m_mutex = CreateMutexA(nullptr, FALSE, kStoreMutexName);
  if (!m_mutex) return;
  DWORD wait = WaitForSingleObject(m_mutex, INFINITE);
  m_held = wait == WAIT_OBJECT_0 || wait == WAIT_ABANDONED;
}

StoreLock::~StoreLock() {
  if (m_held) ReleaseMutex(m_mutex);
  if (m_mutex) CloseHandle(m_mutex);
}

// ---------------------------------------------------------------------------------------------
// UIDs.

const MAPIUID& GlobalSectionUid() {
  static const MAPIUID uid = [] {
    MAPIUID u;
    std::memcpy(u.ab, pbGlobalProfileSectionGuid, sizeof u.ab);
    return u;
  }();
  return uid;
}

std::string UidHex(const MAPIUID& uid) {
  static const char* hex = "0123456789abcdef";
  std::string s;
  for (BYTE b : uid.ab) {
    s += hex[b >> 4];
    s += hex[b & 15];
  }
  return s;
}

MAPIUID NewUid() {
  GUID g;
  CoCreateGuid(&g);
  MAPIUID uid;
  static_assert(sizeof g == sizeof uid, "a GUID is a MAPIUID's size");
  std::memcpy(&uid, &g, sizeof uid);
  return uid;
}

// ---------------------------------------------------------------------------------------------
// Profile.

HRESULT Profile::Open(const char* lpszName, std::shared_ptr<Profile>* out) {
  if (!out) return MAPI_E_INVALID_PARAMETER;
  out->reset();
  std::string name = (lpszName && *lpszName) ? std::string(lpszName) : DefaultProfileName();
  if (name.empty()) return MAPI_E_NOT_FOUND;
  if (FAILED(ValidateName(name.c_str()))) return MAPI_E_NOT_FOUND;
  std::string folder = FolderFor(name);
  if (!IsDirectory(folder)) return MAPI_E_NOT_FOUND;
  PropSet global;
  HRESULT hr = ReadSectionFile(folder + "/" + UidHex(GlobalSectionUid()) + ".sect", &global);
  if (FAILED(hr)) return hr == MAPI_E_NOT_FOUND ? MAPI_E_CORRUPT_DATA : hr;
  std::string stored = PropText(global.Find(PR_PROFILE_NAME_A));
  out->reset(new Profile(stored.empty() ? name : stored, folder));
  return S_OK;
}

bool Profile::Exists() const { return IsDirectory(m_folder); }

std::string Profile::SectionPath(const MAPIUID& uid) const { return m_folder + "/" + UidHex(uid) + ".sect"; }

bool Profile::SectionExists(const MAPIUID& uid) const {
  std::error_code ec;
  return fs::is_regular_file(SectionPath(uid), ec);
}

std::vector<MAPIUID> Profile::SectionUids() const {
  std::vector<MAPIUID> uids;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(m_folder, ec)) {
    std::string leaf = entry.path().filename().string();
    MAPIUID uid;
    if (leaf.size() == 37 && leaf.compare(32, 5, ".sect") == 0 && ParseUidHex(leaf.substr(0, 32), &uid)) {
      uids.push_back(uid);
    }
  }
  return uids;
}

HRESULT Profile::ReadSection(const MAPIUID& uid, PropSet* out) const {
  if (!Exists()) return MAPI_E_NOT_FOUND;
  return ReadSectionFile(SectionPath(uid), out);
}

HRESULT Profile::UpdateSection(const MAPIUID& uid, bool create, const std::function<HRESULT(PropSet&)>& edit) {
  StoreLock lock;  // lock order: object locks of callers, then this (a leaf)
  if (!lock.Held()) return MAPI_E_CALL_FAILED;
  if (!Exists()) return MAPI_E_NOT_FOUND;
  PropSet set;
  HRESULT hr = ReadSectionFile(SectionPath(uid), &set);
  if (hr == MAPI_E_NOT_FOUND && create) hr = S_OK;
  if (FAILED(hr)) return hr;
  hr = edit(set);
  if (FAILED(hr)) return hr;
  return WriteFileAtomic(SectionPath(uid), set.Encode());
}

HRESULT Profile::DeleteSection(const MAPIUID& uid) {
  StoreLock lock;  // leaf lock
  if (!DeleteFileA(SectionPath(uid).c_str())) return MAPI_E_NOT_FOUND;
  return S_OK;
}

HRESULT Profile::OpenSection(const MAPIUID* lpUid, ULONG ulFlags, LPPROFSECT* lppProfSect) {
  if (!lpUid || !lppProfSect) return MAPI_E_INVALID_PARAMETER;
  *lppProfSect = nullptr;
  if (ulFlags & ~(MAPI_MODIFY | MAPI_DEFERRED_ERRORS | MAPI_FORCE_ACCESS | MAPI_BEST_ACCESS | MAPI_UNICODE)) {
    return MAPI_E_UNKNOWN_FLAGS;
  }
  bool writable = (ulFlags & (MAPI_MODIFY | MAPI_BEST_ACCESS)) != 0;
  PropSet contents;
  HRESULT hr = ReadSection(*lpUid, &contents);
  if (hr == MAPI_E_NOT_FOUND && writable && Exists()) {
    hr = UpdateSection(*lpUid, true, [&contents](PropSet& set) {
      for (ULONG tag : set.Tags()) contents.Set(*set.Find(tag));  // made by another process meanwhile
      return S_OK;
    });
  }
  if (FAILED(hr)) return hr;
  return CreateProfSect(std::shared_ptr<Profile>(new Profile(*this)), *lpUid, writable, std::move(contents),
                        lppProfSect);
}

HRESULT Profile::ReadServiceSection(const MAPIUID& serviceUid, ServiceInfo* out) const {
  PropSet set;
  HRESULT hr = ReadSection(serviceUid, &set);
  if (FAILED(hr)) return hr;
  MAPIUID own;
  if (!UidOf(set, PR_SERVICE_UID, &own) || std::memcmp(&own, &serviceUid, sizeof own) != 0) return MAPI_E_NOT_FOUND;
  *out = ServiceInfo();
  out->uid = serviceUid;
  out->name = PropText(set.Find(PR_SERVICE_NAME_A));
  out->displayName = PropText(set.Find(PR_DISPLAY_NAME_A));
  out->dllName = PropText(set.Find(PR_SERVICE_DLL_NAME_A));
  out->entryName = PropText(set.Find(PR_SERVICE_ENTRY_NAME));
  if (out->entryName.empty()) out->entryName = "ServiceEntry";
  out->flags = LongOf(set, PR_RESOURCE_FLAGS);
  for (const MAPIUID& uid : SectionUids()) {
    PropSet p;
    MAPIUID providerUid, ownerUid;
    if (FAILED(ReadSection(uid, &p)) || !UidOf(p, PR_PROVIDER_UID, &providerUid) ||
        std::memcmp(&providerUid, &uid, sizeof uid) != 0 || !UidOf(p, PR_SERVICE_UID, &ownerUid) ||
        std::memcmp(&ownerUid, &serviceUid, sizeof ownerUid) != 0) {
      continue;
    }
    ProviderInfo info;
    info.uid = uid;
    info.serviceUid = serviceUid;
    info.serviceName = out->name;
    info.dllName = PropText(p.Find(PR_PROVIDER_DLL_NAME_A));
    info.displayName = PropText(p.Find(PR_PROVIDER_DISPLAY_A));
    if (info.displayName.empty()) info.displayName = PropText(p.Find(PR_DISPLAY_NAME_A));
    info.resourceType = LongOf(p, PR_RESOURCE_TYPE);
    info.resourceFlags = LongOf(p, PR_RESOURCE_FLAGS);
    info.ordinal = LongOf(p, PR_PROVIDER_ORDINAL);
    out->providers.push_back(info);
  }
  std::sort(out->providers.begin(), out->providers.end(),
            [](const ProviderInfo& a, const ProviderInfo& b) { return a.ordinal < b.ordinal; });
  return S_OK;
}

HRESULT Profile::GetServices(std::vector<ServiceInfo>* out) const {
  out->clear();
  PropSet global;
  HRESULT hr = ReadSection(GlobalSectionUid(), &global);
  if (FAILED(hr)) return hr == MAPI_E_NOT_FOUND && Exists() ? MAPI_E_CORRUPT_DATA : hr;
  for (const MAPIUID& uid : UidList(global.Find(PR_SERVICES))) {
    ServiceInfo info;
    hr = ReadServiceSection(uid, &info);
    if (hr == MAPI_E_CORRUPT_DATA) return hr;
    if (SUCCEEDED(hr)) out->push_back(std::move(info));
  }
  return S_OK;
}

HRESULT Profile::GetService(const MAPIUID& serviceUid, ServiceInfo* out) const {
  std::vector<ServiceInfo> services;
  HRESULT hr = GetServices(&services);
  if (FAILED(hr)) return hr;
  for (auto& s : services) {
    if (std::memcmp(&s.uid, &serviceUid, sizeof s.uid) == 0) {
      *out = std::move(s);
      return S_OK;
    }
  }
  return MAPI_E_NOT_FOUND;
}

HRESULT Profile::GetProvider(const MAPIUID& providerUid, ProviderInfo* out) const {
  std::vector<ServiceInfo> services;
  HRESULT hr = GetServices(&services);
  if (FAILED(hr)) return hr;
  for (auto& s : services) {
    for (auto& p : s.providers) {
      if (std::memcmp(&p.uid, &providerUid, sizeof p.uid) == 0) {
        *out = p;
        return S_OK;
      }
    }
  }
  return MAPI_E_NOT_FOUND;
}

HRESULT Profile::CommitService(const MAPIUID& serviceUid) {
  return UpdateSection(GlobalSectionUid(), false, [&serviceUid](PropSet& set) {
    std::vector<MAPIUID> uids = UidList(set.Find(PR_SERVICES));
    uids.push_back(serviceUid);
    return SetUidList(set, uids);
  });
}

HRESULT Profile::UncommitService(const MAPIUID& serviceUid) {
  return UpdateSection(GlobalSectionUid(), false, [&serviceUid](PropSet& set) {
    std::vector<MAPIUID> uids = UidList(set.Find(PR_SERVICES));
    auto it = std::find_if(uids.begin(), uids.end(),
                           [&](const MAPIUID& u) { return std::memcmp(&u, &serviceUid, sizeof u) == 0; });
    if (it == uids.end()) return MAPI_E_NOT_FOUND;
    uids.erase(it);
    return SetUidList(set, uids);
  });
}

HRESULT Profile::RemoveServiceSections(const MAPIUID& serviceUid) {
  ServiceInfo info;
  HRESULT hr = ReadServiceSection(serviceUid, &info);
  if (FAILED(hr)) return hr;
  for (const auto& p : info.providers) DeleteSection(p.uid);
  return DeleteSection(serviceUid);
}

// ---------------------------------------------------------------------------------------------
// Profile-wide operations.

HRESULT CreateProfileEntry(const char* lpszName) {
  HRESULT hr = ValidateName(lpszName);
  if (FAILED(hr)) return hr;
  StoreLock lock;  // leaf lock
  if (!lock.Held()) return MAPI_E_CALL_FAILED;
  std::string folder = FolderFor(lpszName);
  if (IsDirectory(folder)) return MAPI_E_NO_ACCESS;
  std::string fresh = ProfilesRoot() + "/.new-" + TempSuffix();
  std::error_code ec;
  if (!fs::create_directory(fresh, ec)) return MAPI_E_CALL_FAILED;
  hr = WriteGlobalSection(fresh, lpszName, nullptr);
  if (SUCCEEDED(hr)) {
    fs::rename(fresh, folder, ec);
    if (ec) hr = MAPI_E_CALL_FAILED;
  }
  if (FAILED(hr)) {
    fs::remove_all(fresh, ec);
    return hr;
  }
  // The first profile of a machine becomes its default, so that a default logon finds it.
  if (DefaultProfileName().empty()) WriteDefaultName(lpszName);
  return S_OK;
}

HRESULT DeleteProfileEntry(const char* lpszName) {
  if (!lpszName || !*lpszName) return MAPI_E_INVALID_PARAMETER;
  if (FAILED(ValidateName(lpszName))) return MAPI_E_NOT_FOUND;
  StoreLock lock;  // leaf lock
  if (!lock.Held()) return MAPI_E_CALL_FAILED;
  std::string folder = FolderFor(lpszName);
  if (!IsDirectory(folder)) return MAPI_E_NOT_FOUND;
  std::string def = ReadDefaultName();
  RemoveFolder(folder);
  if (!def.empty() && SameKey(def, lpszName)) WriteDefaultName(std::string());
  return S_OK;
}

namespace {

HRESULT CopyOrRename(const char* lpszFrom, const char* lpszTo, bool rename) {
  if (!lpszFrom || !*lpszFrom) return MAPI_E_INVALID_PARAMETER;
  HRESULT hr = ValidateName(lpszTo);
  if (FAILED(hr)) return hr;
  if (FAILED(ValidateName(lpszFrom))) return MAPI_E_NOT_FOUND;
  StoreLock lock;  // leaf lock
  if (!lock.Held()) return MAPI_E_CALL_FAILED;
  std::string from = FolderFor(lpszFrom), to = FolderFor(lpszTo);
  if (!IsDirectory(from)) return MAPI_E_NOT_FOUND;
  bool sameKey = from == to;
  if (IsDirectory(to) && !(rename && sameKey)) return MAPI_E_NO_ACCESS;
  PropSet global;
  hr = ReadSectionFile(from + "/" + UidHex(GlobalSectionUid()) + ".sect", &global);
  if (FAILED(hr)) return hr == MAPI_E_NOT_FOUND ? MAPI_E_CORRUPT_DATA : hr;
  std::error_code ec;
  if (rename && sameKey) return WriteGlobalSection(from, lpszTo, &global);  // a change of case
  std::string fresh = ProfilesRoot() + "/.new-" + TempSuffix();
  hr = CopyFolder(from, fresh);
  if (SUCCEEDED(hr)) hr = WriteGlobalSection(fresh, lpszTo, &global);
  if (SUCCEEDED(hr)) {
    fs::rename(fresh, to, ec);
    if (ec) hr = MAPI_E_CALL_FAILED;
  }
  if (FAILED(hr)) {
    fs::remove_all(fresh, ec);
    return hr;
  }
  if (rename) {
    RemoveFolder(from);
    std::string def = ReadDefaultName();
    if (!def.empty() && SameKey(def, lpszFrom)) WriteDefaultName(lpszTo);
  }
  return S_OK;
}

}  // namespace

HRESULT CopyProfileEntry(const char* lpszFrom, const char* lpszTo) { return CopyOrRename(lpszFrom, lpszTo, false); }

HRESULT RenameProfileEntry(const char* lpszFrom, const char* lpszTo) { return CopyOrRename(lpszFrom, lpszTo, true); }

HRESULT SetDefaultProfileEntry(const char* lpszName) {
  StoreLock lock;  // leaf lock
  if (!lock.Held()) return MAPI_E_CALL_FAILED;
  if (!lpszName || !*lpszName) return WriteDefaultName(std::string());
  if (FAILED(ValidateName(lpszName)) || !IsDirectory(FolderFor(lpszName))) return MAPI_E_NOT_FOUND;
  return WriteDefaultName(StoredName(FolderFor(lpszName), KeyFor(lpszName)));
}

std::string DefaultProfileName() {
  std::string name = ReadDefaultName();
  if (name.empty() || FAILED(ValidateName(name.c_str())) || !IsDirectory(FolderFor(name))) return std::string();
  return name;
}

std::vector<ProfileListing> ListProfiles() {
  std::vector<ProfileListing> list;
  std::string root = ProfilesRoot();
  std::string def = DefaultProfileName();
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(root, ec)) {
    std::string key = entry.path().filename().string();
    if (key.empty() || key[0] == '.' || !entry.is_directory(ec)) continue;
    ProfileListing item;
    item.name = StoredName(entry.path().string(), key);
    item.isDefault = !def.empty() && KeyFor(def) == key;
    list.push_back(std::move(item));
  }
  std::sort(list.begin(), list.end(), [](const ProfileListing& a, const ProfileListing& b) { return a.name < b.name; });
  return list;
}

}  // namespace adm
