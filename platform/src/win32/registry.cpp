// The registry: one text file per hive under StateDirectory()/registry.
//
// File format, one record a line:
//   ADREG 1
//   N <next key id>
//   K <key id> <last write, 16 hex digits> <path from the hive root, components joined by '\'>
//   V <type> <name> <data>            (a value of the K record above it)
// Names, paths and data are written byte for byte, except that bytes outside '!'..'~' and '%'
// itself are written %XX; a lone '%' is the empty string. Each key has an id that is never used
// again, so a handle on a key that was deleted (and perhaps made anew) can tell.
//
// Reads take no lock: a hive is only ever replaced whole (LockedRewrite), so a reader sees one
// version. Parsed hives are cached per process and re-read when the file's identity changes.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "adplatform.h"
#include "win32/fsutil.h"

namespace adp {
namespace {

constexpr size_t kMaxKeyNameLength = 255;
constexpr size_t kMaxValueNameLength = 16383;

struct RegValue {
  std::string name;
  DWORD type = REG_NONE;
  std::string data;
};

struct RegKey {
  std::string name;
  uint64_t id = 0;
  uint64_t lastWrite = 0;  // FILETIME as one number
  std::vector<RegValue> values;
  std::vector<RegKey> subkeys;  // kept in order of folded name

  RegKey* Child(const std::string& childName) {
    auto it = LowerBound(childName);
    return it != subkeys.end() && EqualsNoCase(it->name, childName) ? &*it : nullptr;
  }
  const RegKey* Child(const std::string& childName) const { return const_cast<RegKey*>(this)->Child(childName); }
  RegKey& AddChild(const std::string& childName, uint64_t childId, uint64_t now) {
    RegKey child;
    child.name = childName;
    child.id = childId;
    child.lastWrite = now;
    return *subkeys.insert(LowerBound(childName), std::move(child));
  }
  RegValue* Value(const std::string& valueName) {
    for (auto& v : values) {
      if (EqualsNoCase(v.name, valueName)) return &v;
    }
    return nullptr;
  }
  const RegValue* Value(const std::string& valueName) const { return const_cast<RegKey*>(this)->Value(valueName); }

 private:
  std::vector<RegKey>::iterator LowerBound(const std::string& childName) {
    std::string folded = FoldCase(childName);
    return std::lower_bound(subkeys.begin(), subkeys.end(), folded,
                            [](const RegKey& k, const std::string& f) { return FoldCase(k.name) < f; });
  }
};

struct Hive {
  uint64_t nextId = 1;  // id 0 is the root
  RegKey root;
};

uint64_t Now() {
  FILETIME ft = FileTimeNow();
  return (static_cast<uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
}

// ---- text form ----

std::string Escape(const std::string& s) {
  if (s.empty()) return "%";
  std::string out;
  for (unsigned char c : s) {
    if (c > ' ' && c < 0x7F && c != '%') {
      out += static_cast<char>(c);
    } else {
      char hex[4];
      std::snprintf(hex, sizeof hex, "%%%02X", c);
      out += hex;
    }
  }
  return out;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

bool Unescape(const std::string& s, std::string& out) {
  out.clear();
  if (s == "%") return true;
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] != '%') {
      out += s[i];
      continue;
    }
    int high = i + 2 < s.size() ? HexDigit(s[i + 1]) : -1;
    int low = high >= 0 ? HexDigit(s[i + 2]) : -1;
    if (low < 0) return false;
    out += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return true;
}

std::vector<std::string> Split(const std::string& s, char sep) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (;;) {
    size_t end = s.find(sep, start);
    parts.push_back(s.substr(start, end == std::string::npos ? std::string::npos : end - start));
    if (end == std::string::npos) return parts;
    start = end + 1;
  }
}

void Serialize(const RegKey& key, const std::string& path, std::string& out) {
  char head[64];
  std::snprintf(head, sizeof head, "K %llu %016llx ", static_cast<unsigned long long>(key.id),
                static_cast<unsigned long long>(key.lastWrite));
  out += head + Escape(path) + "\n";
  for (const auto& v : key.values) {
    out += "V " + std::to_string(v.type) + " " + Escape(v.name) + " " + Escape(v.data) + "\n";
  }
  for (const auto& child : key.subkeys) Serialize(child, path.empty() ? child.name : path + "\\" + child.name, out);
}

std::string Serialize(const Hive& hive) {
  std::string out = "ADREG 1\nN " + std::to_string(hive.nextId) + "\n";
  Serialize(hive.root, std::string(), out);
  return out;
}

RegKey* KeyForRecord(Hive& hive, const std::string& path) {
  RegKey* key = &hive.root;
  if (path.empty()) return key;
  for (const auto& name : Split(path, '\\')) {
    if (name.empty()) return nullptr;
    RegKey* child = key->Child(name);
    key = child ? child : &key->AddChild(name, 0, 0);
  }
  return key;
}

bool ParseLine(Hive& hive, const std::string& line, RegKey*& current) {
  std::vector<std::string> f = Split(line, ' ');
  if (f.size() == 2 && f[0] == "N") {
    hive.nextId = std::strtoull(f[1].c_str(), nullptr, 10);
    return true;
  }
  std::string text;
  if (f.size() == 4 && f[0] == "K" && Unescape(f[3], text)) {
    current = KeyForRecord(hive, text);
    if (!current) return false;
    current->id = std::strtoull(f[1].c_str(), nullptr, 10);
    current->lastWrite = std::strtoull(f[2].c_str(), nullptr, 16);
    return true;
  }
  RegValue value;
  if (f.size() == 4 && f[0] == "V" && current && Unescape(f[2], value.name) && Unescape(f[3], value.data)) {
    value.type = static_cast<DWORD>(std::strtoul(f[1].c_str(), nullptr, 10));
    current->values.push_back(std::move(value));
    return true;
  }
  return false;
}

// An empty text is an empty hive (a file just created).
bool Parse(const std::string& text, Hive& hive) {
  hive = Hive();
  if (text.empty()) return true;
  std::vector<std::string> lines = Split(text, '\n');
  if (lines.empty() || lines[0] != "ADREG 1") return false;
  RegKey* current = nullptr;
  for (size_t i = 1; i < lines.size(); ++i) {
    if (!lines[i].empty() && !ParseLine(hive, lines[i], current)) return false;
  }
  return true;
}

// ---- hives on disk, with a per-process cache ----

struct Stamp {
  dev_t dev = 0;
  ino_t ino = 0;
  off_t size = -1;
  timespec mtime{};
  bool operator==(const Stamp& o) const {
    return dev == o.dev && ino == o.ino && size == o.size && mtime.tv_sec == o.mtime.tv_sec &&
           mtime.tv_nsec == o.mtime.tv_nsec;
  }
};

Stamp StampOf(const struct stat& st) { return Stamp{st.st_dev, st.st_ino, st.st_size, st.st_mtim}; }

constexpr int kHiveCount = 6;
const char* const kHiveFiles[kHiveCount] = {"HKEY_CLASSES_ROOT", "HKEY_CURRENT_USER", "HKEY_LOCAL_MACHINE",
                                            "HKEY_USERS",        nullptr,             "HKEY_CURRENT_CONFIG"};

struct HiveCache {
  std::mutex lock;  // leaf lock: guards the two fields below only
  std::string path;  // the file the cached parse came from (the state directory may change)
  Stamp stamp;
  std::shared_ptr<const Hive> hive;
};

HiveCache& Cache(int hive) {
  static HiveCache* caches = new HiveCache[kHiveCount];  // never destroyed: used until exit
  return caches[hive];
}

std::string HiveFolder() { return StateDirectory() + "/registry"; }
std::string HivePath(int hive) { return HiveFolder() + "/" + kHiveFiles[hive] + ".reg"; }

std::shared_ptr<const Hive> Cached(int hive, const std::string& path, const Stamp& stamp) {
  HiveCache& c = Cache(hive);
  std::lock_guard<std::mutex> guard(c.lock);
  return c.hive && c.path == path && c.stamp == stamp ? c.hive : nullptr;
}

void Remember(int hive, const std::string& path, const Stamp& stamp, std::shared_ptr<const Hive> parsed) {
  HiveCache& c = Cache(hive);
  std::lock_guard<std::mutex> guard(c.lock);
  c.path = path;
  c.stamp = stamp;
  c.hive = std::move(parsed);
}

LONG LoadHive(int hive, std::shared_ptr<const Hive>& out) {
  std::string path = HivePath(hive);
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno != ENOENT) return static_cast<LONG>(Win32ErrorFromErrno(errno));
    out = std::make_shared<const Hive>();
    return ERROR_SUCCESS;
  }
  struct stat st;
  std::string text;
  bool ok = ::fstat(fd, &st) == 0;
  if (ok && (out = Cached(hive, path, StampOf(st)))) {
    ::close(fd);
    return ERROR_SUCCESS;
  }
  char buf[65536];
  ssize_t n;
  while (ok && (n = ::read(fd, buf, sizeof buf)) != 0) {
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) ok = false;
    else text.append(buf, static_cast<size_t>(n));
  }
  ::close(fd);
  if (!ok) return static_cast<LONG>(Win32ErrorFromErrno(errno));
  auto parsed = std::make_shared<Hive>();
  if (!Parse(text, *parsed)) return ERROR_REGISTRY_CORRUPT;
  Remember(hive, path, StampOf(st), parsed);
  out = parsed;
  return ERROR_SUCCESS;
}

// Changes a hive under its file lock. `change` returns an error code and sets `changed` when
// the hive must be written back.
LONG UpdateHive(int hive, const std::function<LONG(Hive&, bool& changed)>& change) {
  if (!MakeDirectories(HiveFolder())) return ERROR_PATH_NOT_FOUND;
  std::string path = HivePath(hive);
  LockedRewrite file;
  if (DWORD err = file.Open(path, true)) return static_cast<LONG>(err);
  Hive working;
  if (auto cached = Cached(hive, path, StampOf(file.Stat()))) {
    working = *cached;
  } else if (!Parse(file.Text(), working)) {
    return ERROR_REGISTRY_CORRUPT;
  }
  bool changed = false;
  LONG result = change(working, changed);
  if (result != ERROR_SUCCESS || !changed) return result;
  struct stat st;
  if (DWORD err = file.Replace(Serialize(working), false, &st)) return static_cast<LONG>(err);
  Remember(hive, path, StampOf(st), std::make_shared<const Hive>(std::move(working)));
  return ERROR_SUCCESS;
}

// ---- handles ----

struct KeyHandle {
  int hive = 0;
  std::vector<std::string> path;  // from the hive root, as spelled when created
  uint64_t id = 0;
  REGSAM access = 0;
};

struct HandleTable {
  std::mutex lock;  // leaf lock: guards the set
  std::unordered_set<KeyHandle*> open;
};

HandleTable& Handles() {
  static HandleTable* table = new HandleTable;  // never destroyed: keys may be closed during exit
  return *table;
}

bool PredefinedHive(HKEY h, int& hive) {
  auto value = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(h));
  if ((reinterpret_cast<uintptr_t>(h) >> 32) != 0xFFFFFFFFu || (value & 0xFFFFFFF0u) != 0x80000000u) return false;
  hive = static_cast<int>(value & 0xF);
  return hive < kHiveCount && kHiveFiles[hive] != nullptr;
}

LONG Resolve(HKEY h, KeyHandle& out) {
  if (PredefinedHive(h, out.hive)) {
    out.path.clear();
    out.id = 0;
    out.access = KEY_ALL_ACCESS;
    return ERROR_SUCCESS;
  }
  HandleTable& t = Handles();
  std::lock_guard<std::mutex> guard(t.lock);
  auto* key = reinterpret_cast<KeyHandle*>(h);
  if (!h || !t.open.count(key)) return ERROR_INVALID_HANDLE;
  out = *key;
  return ERROR_SUCCESS;
}

HKEY NewHandle(KeyHandle key) {
  auto* k = new KeyHandle(std::move(key));
  HandleTable& t = Handles();
  std::lock_guard<std::mutex> guard(t.lock);
  t.open.insert(k);
  return reinterpret_cast<HKEY>(k);
}

REGSAM EffectiveAccess(REGSAM sam) {
  if (sam & (MAXIMUM_ALLOWED | GENERIC_ALL)) sam |= KEY_ALL_ACCESS;
  if (sam & GENERIC_READ) sam |= KEY_READ;
  if (sam & GENERIC_WRITE) sam |= KEY_WRITE;
  if (sam & GENERIC_EXECUTE) sam |= KEY_EXECUTE;
  return sam;
}

bool Allows(const KeyHandle& key, REGSAM needed) { return (key.access & needed) == needed; }

// The key a handle stands for, or nullptr when it was deleted.
RegKey* Find(Hive& hive, const KeyHandle& handle) {
  RegKey* key = &hive.root;
  for (const auto& name : handle.path) {
    if (!(key = key->Child(name))) return nullptr;
  }
  return key->id == handle.id ? key : nullptr;
}
const RegKey* Find(const Hive& hive, const KeyHandle& handle) { return Find(const_cast<Hive&>(hive), handle); }

// "a\b\c" as components; a leading '\' or an empty inner component is refused, one trailing
// '\' is allowed.
LONG SplitSubKey(const char* subKey, std::vector<std::string>& parts) {
  parts.clear();
  if (subKey == nullptr || *subKey == '\0') return ERROR_SUCCESS;
  std::string s(subKey);
  if (s[0] == '\\') return ERROR_BAD_PATHNAME;
  if (s.back() == '\\') s.pop_back();
  parts = Split(s, '\\');
  for (const auto& p : parts) {
    if (p.empty()) return ERROR_BAD_PATHNAME;
    if (p.size() > kMaxKeyNameLength) return ERROR_INVALID_PARAMETER;
  }
  return ERROR_SUCCESS;
}

// Runs `read` on the key behind a handle, from the current version of its hive.
LONG ReadKey(HKEY h, REGSAM needed, const std::function<LONG(const KeyHandle&, const RegKey&)>& read) {
  KeyHandle handle;
  if (LONG err = Resolve(h, handle)) return err;
  if (!Allows(handle, needed)) return ERROR_ACCESS_DENIED;
  std::shared_ptr<const Hive> hive;
  if (LONG err = LoadHive(handle.hive, hive)) return err;
  const RegKey* key = Find(*hive, handle);
  return key ? read(handle, *key) : ERROR_KEY_DELETED;
}

// Runs `change` on the key behind a handle under the hive's lock.
LONG ChangeKey(HKEY h, REGSAM needed, const std::function<LONG(Hive&, RegKey&, bool&)>& change) {
  KeyHandle handle;
  if (LONG err = Resolve(h, handle)) return err;
  if (!Allows(handle, needed)) return ERROR_ACCESS_DENIED;
  return UpdateHive(handle.hive, [&](Hive& hive, bool& changed) -> LONG {
    RegKey* key = Find(hive, handle);
    return key ? change(hive, *key, changed) : ERROR_KEY_DELETED;
  });
}

// The key `parts` below `key`, or nullptr; `spelled` gets the names as the keys spell them.
const RegKey* Lookup(const RegKey* key, const std::vector<std::string>& parts, std::vector<std::string>& spelled) {
  for (const auto& name : parts) {
    if (!(key = key->Child(name))) return nullptr;
    spelled.push_back(key->name);
  }
  return key;
}
RegKey* Lookup(RegKey* key, const std::vector<std::string>& parts) {
  std::vector<std::string> spelled;
  return const_cast<RegKey*>(Lookup(static_cast<const RegKey*>(key), parts, spelled));
}

// As Lookup, making the keys that are missing; tells whether it made any.
RegKey* Create(Hive& hive, RegKey* key, const std::vector<std::string>& parts, std::vector<std::string>& spelled,
               bool& created) {
  created = false;
  for (const auto& name : parts) {
    RegKey* child = key->Child(name);
    if (!child) {
      uint64_t now = Now();
      key->lastWrite = now;
      child = &key->AddChild(name, hive.nextId++, now);
      created = true;
    }
    spelled.push_back(child->name);
    key = child;
  }
  return key;
}

LONG CopyOutName(const std::string& name, LPSTR buffer, LPDWORD chars) {
  if (name.size() + 1 > *chars) return ERROR_MORE_DATA;
  std::memcpy(buffer, name.c_str(), name.size() + 1);
  *chars = static_cast<DWORD>(name.size());
  return ERROR_SUCCESS;
}

// The published data rule: NULL buffer asks the size; a short buffer gets ERROR_MORE_DATA.
LONG CopyOutData(const std::string& data, LPBYTE buffer, LPDWORD size) {
  if (!buffer) {
    if (size) *size = static_cast<DWORD>(data.size());
    return ERROR_SUCCESS;
  }
  bool fits = data.size() <= *size;
  if (fits) std::memcpy(buffer, data.data(), data.size());
  *size = static_cast<DWORD>(data.size());
  return fits ? ERROR_SUCCESS : ERROR_MORE_DATA;
}

bool EraseChild(RegKey& parent, const RegKey* child) {
  for (auto it = parent.subkeys.begin(); it != parent.subkeys.end(); ++it) {
    if (&*it == child) {
      parent.subkeys.erase(it);
      parent.lastWrite = Now();
      return true;
    }
  }
  return false;
}

}  // namespace
}  // namespace adp

extern "C" {

LSTATUS RegOpenKeyExA(HKEY hKey, LPCSTR lpSubKey, DWORD ulOptions, REGSAM samDesired, PHKEY phkResult) {
  if (phkResult == nullptr) return ERROR_INVALID_PARAMETER;
  *phkResult = nullptr;
  std::vector<std::string> parts;
  if (LONG err = adp::SplitSubKey(lpSubKey, parts)) return err;
  adp::KeyHandle opened;
  LONG result = adp::ReadKey(hKey, 0, [&](const adp::KeyHandle& handle, const adp::RegKey& key) -> LONG {
    opened = handle;
    const adp::RegKey* target = adp::Lookup(&key, parts, opened.path);
    if (!target) return ERROR_FILE_NOT_FOUND;
    opened.id = target->id;
    return ERROR_SUCCESS;
  });
  if (result != ERROR_SUCCESS) return result;
  opened.access = adp::EffectiveAccess(samDesired);
  *phkResult = adp::NewHandle(std::move(opened));
  return ERROR_SUCCESS;
}

LSTATUS RegCreateKeyExA(HKEY hKey, LPCSTR lpSubKey, DWORD Reserved, LPSTR lpClass, DWORD dwOptions,
                        REGSAM samDesired, const LPSECURITY_ATTRIBUTES lpSecurityAttributes, PHKEY phkResult,
                        LPDWORD lpdwDisposition) {
  if (phkResult == nullptr || lpSubKey == nullptr) return ERROR_INVALID_PARAMETER;
  *phkResult = nullptr;
  // An existing key opens without taking the hive's lock.
  if (RegOpenKeyExA(hKey, lpSubKey, 0, samDesired, phkResult) == ERROR_SUCCESS) {
    if (lpdwDisposition) *lpdwDisposition = REG_OPENED_EXISTING_KEY;
    return ERROR_SUCCESS;
  }
  std::vector<std::string> parts;
  if (LONG err = adp::SplitSubKey(lpSubKey, parts)) return err;
  adp::KeyHandle parent;
  if (LONG err = adp::Resolve(hKey, parent)) return err;
  adp::KeyHandle opened = parent;
  bool created = false;
  LONG result = adp::UpdateHive(parent.hive, [&](adp::Hive& hive, bool& changed) -> LONG {
    adp::RegKey* key = adp::Find(hive, parent);
    if (!key) return ERROR_KEY_DELETED;
    if (!adp::Lookup(key, parts) && !adp::Allows(parent, KEY_CREATE_SUB_KEY)) return ERROR_ACCESS_DENIED;
    opened.path = parent.path;
    opened.id = adp::Create(hive, key, parts, opened.path, created)->id;
    changed = created;
    return ERROR_SUCCESS;
  });
  if (result != ERROR_SUCCESS) return result;
  opened.access = adp::EffectiveAccess(samDesired);
  *phkResult = adp::NewHandle(std::move(opened));
  if (lpdwDisposition) *lpdwDisposition = created ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
  return ERROR_SUCCESS;
}

LSTATUS RegQueryValueExA(HKEY hKey, LPCSTR lpValueName, LPDWORD lpReserved, LPDWORD lpType, LPBYTE lpData,
                         LPDWORD lpcbData) {
  if (lpReserved != nullptr || (lpData && !lpcbData)) return ERROR_INVALID_PARAMETER;
  std::string name = lpValueName ? lpValueName : "";
  return adp::ReadKey(hKey, KEY_QUERY_VALUE, [&](const adp::KeyHandle&, const adp::RegKey& key) -> LONG {
    const adp::RegValue* value = key.Value(name);
    if (!value) return ERROR_FILE_NOT_FOUND;
    if (lpType) *lpType = value->type;
    return adp::CopyOutData(value->data, lpData, lpcbData);
  });
}

LSTATUS RegSetValueExA(HKEY hKey, LPCSTR lpValueName, DWORD Reserved, DWORD dwType, const BYTE* lpData,
                       DWORD cbData) {
  if (lpData == nullptr && cbData != 0) return ERROR_NOACCESS;
  std::string name = lpValueName ? lpValueName : "";
  if (name.size() > adp::kMaxValueNameLength) return ERROR_INVALID_PARAMETER;
  std::string data(reinterpret_cast<const char*>(lpData ? lpData : reinterpret_cast<const BYTE*>("")), cbData);
  if ((dwType == REG_SZ || dwType == REG_EXPAND_SZ) && (data.empty() || data.back() != '\0')) data += '\0';
  return adp::ChangeKey(hKey, KEY_SET_VALUE, [&](adp::Hive&, adp::RegKey& key, bool& changed) -> LONG {
    adp::RegValue* value = key.Value(name);
    if (!value) {
      key.values.push_back(adp::RegValue{name, dwType, std::string()});
      value = &key.values.back();
    }
    value->type = dwType;
    value->data = data;
    key.lastWrite = adp::Now();
    changed = true;
    return ERROR_SUCCESS;
  });
}

LSTATUS RegDeleteValueA(HKEY hKey, LPCSTR lpValueName) {
  std::string name = lpValueName ? lpValueName : "";
  return adp::ChangeKey(hKey, KEY_SET_VALUE, [&](adp::Hive&, adp::RegKey& key, bool& changed) -> LONG {
    for (auto it = key.values.begin(); it != key.values.end(); ++it) {
      if (!adp::EqualsNoCase(it->name, name)) continue;
      key.values.erase(it);
      key.lastWrite = adp::Now();
      changed = true;
      return ERROR_SUCCESS;
    }
    return ERROR_FILE_NOT_FOUND;
  });
}

LSTATUS RegDeleteKeyA(HKEY hKey, LPCSTR lpSubKey) {
  if (lpSubKey == nullptr) return ERROR_INVALID_PARAMETER;
  std::vector<std::string> parts;
  if (LONG err = adp::SplitSubKey(lpSubKey, parts)) return err;
  adp::KeyHandle handle;
  if (LONG err = adp::Resolve(hKey, handle)) return err;
  if (handle.path.size() + parts.size() == 0) return ERROR_ACCESS_DENIED;  // a hive root stays
  // Work from the hive root so that "" (the handle's own key) has a parent to leave.
  std::vector<std::string> full = handle.path;
  full.insert(full.end(), parts.begin(), parts.end());
  return adp::UpdateHive(handle.hive, [&](adp::Hive& hive, bool& changed) -> LONG {
    if (!adp::Find(hive, handle)) return ERROR_KEY_DELETED;
    std::vector<std::string> parentPath(full.begin(), full.end() - 1);
    adp::RegKey* parent = adp::Lookup(&hive.root, parentPath);
    adp::RegKey* target = parent ? parent->Child(full.back()) : nullptr;
    if (!target) return ERROR_FILE_NOT_FOUND;
    if (!target->subkeys.empty()) return ERROR_ACCESS_DENIED;
    changed = adp::EraseChild(*parent, target);
    return ERROR_SUCCESS;
  });
}

LSTATUS RegDeleteTreeA(HKEY hKey, LPCSTR lpSubKey) {
  std::vector<std::string> parts;
  if (LONG err = adp::SplitSubKey(lpSubKey, parts)) return err;
  return adp::ChangeKey(hKey, 0, [&](adp::Hive&, adp::RegKey& key, bool& changed) -> LONG {
    if (parts.empty()) {  // everything below the key, the key itself stays
      key.values.clear();
      key.subkeys.clear();
      key.lastWrite = adp::Now();
      changed = true;
      return ERROR_SUCCESS;
    }
    std::vector<std::string> parentPath(parts.begin(), parts.end() - 1);
    adp::RegKey* parent = adp::Lookup(&key, parentPath);
    adp::RegKey* target = parent ? parent->Child(parts.back()) : nullptr;
    if (!target) return ERROR_FILE_NOT_FOUND;
    changed = adp::EraseChild(*parent, target);
    return ERROR_SUCCESS;
  });
}

LSTATUS RegEnumKeyExA(HKEY hKey, DWORD dwIndex, LPSTR lpName, LPDWORD lpcchName, LPDWORD lpReserved,
                      LPSTR lpClass, LPDWORD lpcchClass, PFILETIME lpftLastWriteTime) {
  if (lpName == nullptr || lpcchName == nullptr || lpReserved != nullptr) return ERROR_INVALID_PARAMETER;
  return adp::ReadKey(hKey, KEY_ENUMERATE_SUB_KEYS, [&](const adp::KeyHandle&, const adp::RegKey& key) -> LONG {
    if (dwIndex >= key.subkeys.size()) return ERROR_NO_MORE_ITEMS;
    const adp::RegKey& child = key.subkeys[dwIndex];
    if (LONG err = adp::CopyOutName(child.name, lpName, lpcchName)) return err;
    if (lpClass && lpcchClass && *lpcchClass > 0) lpClass[0] = '\0';
    if (lpcchClass) *lpcchClass = 0;
    if (lpftLastWriteTime) {
      lpftLastWriteTime->dwLowDateTime = static_cast<DWORD>(child.lastWrite & 0xFFFFFFFFu);
      lpftLastWriteTime->dwHighDateTime = static_cast<DWORD>(child.lastWrite >> 32);
    }
    return ERROR_SUCCESS;
  });
}

LSTATUS RegEnumValueA(HKEY hKey, DWORD dwIndex, LPSTR lpValueName, LPDWORD lpcchValueName, LPDWORD lpReserved,
                      LPDWORD lpType, LPBYTE lpData, LPDWORD lpcbData) {
  if (lpValueName == nullptr || lpcchValueName == nullptr || lpReserved != nullptr || (lpData && !lpcbData))
    return ERROR_INVALID_PARAMETER;
  return adp::ReadKey(hKey, KEY_QUERY_VALUE, [&](const adp::KeyHandle&, const adp::RegKey& key) -> LONG {
    if (dwIndex >= key.values.size()) return ERROR_NO_MORE_ITEMS;
    const adp::RegValue& value = key.values[dwIndex];
    if (LONG err = adp::CopyOutName(value.name, lpValueName, lpcchValueName)) return err;
    if (lpType) *lpType = value.type;
    return adp::CopyOutData(value.data, lpData, lpcbData);
  });
}

LSTATUS RegQueryInfoKeyA(HKEY hKey, LPSTR lpClass, LPDWORD lpcchClass, LPDWORD lpReserved, LPDWORD lpcSubKeys,
                         LPDWORD lpcbMaxSubKeyLen, LPDWORD lpcbMaxClassLen, LPDWORD lpcValues,
                         LPDWORD lpcbMaxValueNameLen, LPDWORD lpcbMaxValueLen, LPDWORD lpcbSecurityDescriptor,
                         PFILETIME lpftLastWriteTime) {
  if (lpReserved != nullptr) return ERROR_INVALID_PARAMETER;
  return adp::ReadKey(hKey, KEY_QUERY_VALUE, [&](const adp::KeyHandle&, const adp::RegKey& key) -> LONG {
    if (lpClass && lpcchClass && *lpcchClass > 0) lpClass[0] = '\0';
    if (lpcchClass) *lpcchClass = 0;
    DWORD maxSubKey = 0, maxName = 0, maxData = 0;
    for (const auto& k : key.subkeys) maxSubKey = std::max(maxSubKey, static_cast<DWORD>(k.name.size()));
    for (const auto& v : key.values) {
      maxName = std::max(maxName, static_cast<DWORD>(v.name.size()));
      maxData = std::max(maxData, static_cast<DWORD>(v.data.size()));
    }
    if (lpcSubKeys) *lpcSubKeys = static_cast<DWORD>(key.subkeys.size());
    if (lpcbMaxSubKeyLen) *lpcbMaxSubKeyLen = maxSubKey;
    if (lpcbMaxClassLen) *lpcbMaxClassLen = 0;
    if (lpcValues) *lpcValues = static_cast<DWORD>(key.values.size());
    if (lpcbMaxValueNameLen) *lpcbMaxValueNameLen = maxName;
    if (lpcbMaxValueLen) *lpcbMaxValueLen = maxData;
    if (lpcbSecurityDescriptor) *lpcbSecurityDescriptor = 0;
    if (lpftLastWriteTime) {
      lpftLastWriteTime->dwLowDateTime = static_cast<DWORD>(key.lastWrite & 0xFFFFFFFFu);
      lpftLastWriteTime->dwHighDateTime = static_cast<DWORD>(key.lastWrite >> 32);
    }
    return ERROR_SUCCESS;
  });
}

LSTATUS RegFlushKey(HKEY hKey) {
  adp::KeyHandle handle;
  if (LONG err = adp::Resolve(hKey, handle)) return err;
  int fd = ::open(adp::HivePath(handle.hive).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno == ENOENT ? ERROR_SUCCESS : static_cast<LONG>(adp::Win32ErrorFromErrno(errno));
  ::fsync(fd);
  ::close(fd);
  return ERROR_SUCCESS;
}

LSTATUS RegCloseKey(HKEY hKey) {
  int hive = 0;
  if (adp::PredefinedHive(hKey, hive)) return ERROR_SUCCESS;
  auto* key = reinterpret_cast<adp::KeyHandle*>(hKey);
  adp::HandleTable& t = adp::Handles();
  {
    std::lock_guard<std::mutex> guard(t.lock);
    if (!hKey || !t.open.erase(key)) return ERROR_INVALID_HANDLE;
  }
  delete key;
  return ERROR_SUCCESS;
}

}  // extern "C"
