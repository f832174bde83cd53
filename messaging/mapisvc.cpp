// MAPISVC.INF and the stub exports that lead installers to it (see mapisvc.h).
#include "mapisvc.h"

#include <cstring>
#include <filesystem>
#include <system_error>

#include "adplatform.h"
#include "adplatform_link.h"
#include "mapicode.h"
#include "mapitags.h"
#include "mapix.h"
#include "windows.h"

namespace adm {
namespace {

std::string Trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t");
  if (b == std::string::npos) return std::string();
  size_t e = s.find_last_not_of(" \t");
  return s.substr(b, e - b + 1);
}

std::string Upper(std::string s) {
  for (char& c : s) c = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
  return s;
}

struct Named {
  const char* name;
  ULONG value;
};

// Property names that MAPISVC.INF files use. String tags are the 8-bit ones.
const Named kPropNames[] = {
    {"PR_DISPLAY_NAME", PR_DISPLAY_NAME_A},
    {"PR_COMMENT", PROP_TAG(PT_STRING8, 0x3004)},
    {"PR_PROVIDER_DISPLAY", PR_PROVIDER_DISPLAY_A},
    {"PR_PROVIDER_DLL_NAME", PR_PROVIDER_DLL_NAME_A},
    {"PR_PROVIDER_ORDINAL", PR_PROVIDER_ORDINAL},
    {"PR_RESOURCE_FLAGS", PR_RESOURCE_FLAGS},
    {"PR_RESOURCE_TYPE", PR_RESOURCE_TYPE},
    {"PR_RESOURCE_PATH", PR_RESOURCE_PATH_A},
    {"PR_SERVICE_DLL_NAME", PR_SERVICE_DLL_NAME_A},
    {"PR_SERVICE_ENTRY_NAME", PR_SERVICE_ENTRY_NAME},
    {"PR_SERVICE_SUPPORT_FILES", PR_SERVICE_SUPPORT_FILES_A},
    {"PR_SERVICE_DELETE_FILES", PR_SERVICE_DELETE_FILES_A},
    {"PR_MDB_PROVIDER", PR_MDB_PROVIDER},
};

// Constant names that long values may combine.
const Named kFlagNames[] = {
    {"SERVICE_DEFAULT_STORE", SERVICE_DEFAULT_STORE},
    {"SERVICE_SINGLE_COPY", SERVICE_SINGLE_COPY},
    {"SERVICE_CREATE_WITH_STORE", SERVICE_CREATE_WITH_STORE},
    {"SERVICE_PRIMARY_IDENTITY", SERVICE_PRIMARY_IDENTITY},
    {"SERVICE_NO_PRIMARY_IDENTITY", SERVICE_NO_PRIMARY_IDENTITY},
    {"STATUS_DEFAULT_OUTBOUND", STATUS_DEFAULT_OUTBOUND},
    {"STATUS_DEFAULT_STORE", STATUS_DEFAULT_STORE},
    {"STATUS_PRIMARY_IDENTITY", STATUS_PRIMARY_IDENTITY},
    {"STATUS_SIMPLE_STORE", STATUS_SIMPLE_STORE},
    {"STATUS_XP_PREFER_LAST", STATUS_XP_PREFER_LAST},
    {"STATUS_NO_PRIMARY_IDENTITY", STATUS_NO_PRIMARY_IDENTITY},
    {"STATUS_NO_DEFAULT_STORE", STATUS_NO_DEFAULT_STORE},
    {"STATUS_TEMP_SECTION", STATUS_TEMP_SECTION},
    {"STATUS_OWN_STORE", STATUS_OWN_STORE},
    {"HOOK_INBOUND", HOOK_INBOUND},
    {"HOOK_OUTBOUND", HOOK_OUTBOUND},
    {"STATUS_NEED_IPM_TREE", STATUS_NEED_IPM_TREE},
    {"STATUS_PRIMARY_STORE", STATUS_PRIMARY_STORE},
    {"STATUS_SECONDARY_STORE", STATUS_SECONDARY_STORE},
    {"MAPI_STORE_PROVIDER", MAPI_STORE_PROVIDER},
    {"MAPI_AB", MAPI_AB},
    {"MAPI_AB_PROVIDER", MAPI_AB_PROVIDER},
    {"MAPI_TRANSPORT_PROVIDER", MAPI_TRANSPORT_PROVIDER},
    {"MAPI_SPOOLER", MAPI_SPOOLER},
    {"MAPI_PROFILE_PROVIDER", MAPI_PROFILE_PROVIDER},
    {"MAPI_SUBSYSTEM", MAPI_SUBSYSTEM},
    {"MAPI_HOOK_PROVIDER", MAPI_HOOK_PROVIDER},
};

bool ParseNumber(const std::string& text, ULONG* out) {
  if (text.empty()) return false;
  char* end = nullptr;
  unsigned long long v = std::strtoull(text.c_str(), &end, 0);
  if (*end || v > 0xFFFFFFFFull || text[0] == '-') return false;
  *out = static_cast<ULONG>(v);
  return true;
}

bool ParseLong(const std::string& text, ULONG* out) {
  *out = 0;
  size_t start = 0;
  bool any = false;
  while (start <= text.size()) {
    size_t bar = text.find('|', start);
    std::string part = Upper(Trim(text.substr(start, bar == std::string::npos ? std::string::npos : bar - start)));
    ULONG v = 0;
    bool known = ParseNumber(part, &v);
    for (const auto& f : kFlagNames) {
      if (!known && part == f.name) {
        v = f.value;
        known = true;
      }
    }
    if (!known) return false;
    *out |= v;
    any = true;
    if (bar == std::string::npos) break;
    start = bar + 1;
  }
  return any;
}

bool ParseHexBytes(const std::string& text, std::string* out) {
  std::string digits;
  for (char c : text) {
    if (c != ' ' && c != '\t') digits += c;
  }
  if (digits.size() % 2) return false;
  for (size_t i = 0; i < digits.size(); i += 2) {
    ULONG v;
    if (!ParseNumber("0x" + digits.substr(i, 2), &v)) return false;
    *out += static_cast<char>(v);
  }
  return true;
}

HRESULT AddValue(ULONG tag, const std::string& text, PropSet* props) {
  switch (PROP_TYPE(tag)) {
    case PT_STRING8:
      return props->Set(StringProp(tag, text.c_str()));
    case PT_UNICODE: {
      std::u16string w = adp::Utf8ToUtf16(text.c_str());
      SPropValue v{};
      v.ulPropTag = tag;
      v.Value.lpszW = w.data();
      return props->Set(v);
    }
    case PT_LONG: {
      ULONG value;
      return ParseLong(text, &value) ? props->Set(LongProp(tag, value)) : S_OK;
    }
    case PT_BOOLEAN: {
      std::string t = Upper(text);
      if (t != "TRUE" && t != "FALSE" && t != "1" && t != "0") return S_OK;
      SPropValue v{};
      v.ulPropTag = tag;
      v.Value.b = (t == "TRUE" || t == "1") ? 1 : 0;
      return props->Set(v);
    }
    case PT_BINARY: {
      std::string bytes;
      if (!ParseHexBytes(text, &bytes)) return S_OK;
      return props->Set(BinaryProp(tag, bytes.data(), static_cast<ULONG>(bytes.size())));
    }
    case PT_MV_STRING8: {
      std::vector<std::string> items = InfList(text);
      std::vector<LPSTR> ptrs;
      for (auto& s : items) ptrs.push_back(s.data());
      SPropValue v{};
      v.ulPropTag = tag;
      v.Value.MVszA.cValues = static_cast<ULONG>(ptrs.size());
      v.Value.MVszA.lppszA = ptrs.data();
      return props->Set(v);
    }
    default:
      return S_OK;  // no text form for other types
  }
}

std::string WindowsForm(const std::string& path) {
  std::string out = path;
  for (char& c : out) c = c == '/' ? '\\' : c;
  return out;
}

}  // namespace

std::string MapisvcFolder() {
  std::string folder = adp::StateDirectory() + "/subsystem/mapi";
  std::error_code ec;
  std::filesystem::create_directories(folder, ec);
  return folder;
}

std::string MapisvcPath() { return MapisvcFolder() + "/MAPISVC.INF"; }

void InstallSubsystemFiles() {
  std::string self = adp::ModulePathOf(reinterpret_cast<const void*>(&FGetComponentPath));
  if (self.empty()) return;
  char system[MAX_PATH] = "";
  if (GetSystemDirectoryA(system, sizeof system) > 0 && system[0]) {
    std::string folder = adp::NativePath(system);
    adp::ReplaceWithSymlink(self, folder + "/mapistub.so");
    adp::ReplaceWithSymlink(self, folder + "/mapi32.so");
  }
  adp::ReplaceWithSymlink(self, MapisvcFolder() + "/msmapi32.so");
}

HRESULT ReadInfSection(const std::string& section, InfEntries* entries) {
  entries->clear();
  if (section.empty()) return MAPI_E_NOT_FOUND;
  std::string path = MapisvcPath();
  std::vector<char> buf(4096);
  DWORD n;
  while ((n = GetPrivateProfileSectionA(section.c_str(), buf.data(), static_cast<DWORD>(buf.size()), path.c_str())) ==
             buf.size() - 2 &&
         buf.size() < (1u << 24)) {
    buf.resize(buf.size() * 2);
  }
  for (size_t pos = 0; pos < n && buf[pos];) {
    std::string line(buf.data() + pos);
    pos += line.size() + 1;
    size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    entries->emplace_back(Trim(line.substr(0, eq)), Trim(line.substr(eq + 1)));
  }
  return entries->empty() ? MAPI_E_NOT_FOUND : S_OK;
}

bool InfListsService(const std::string& service) {
  InfEntries services;
  if (FAILED(ReadInfSection("Services", &services))) return false;
  for (const auto& [key, value] : services) {
    if (Upper(key) == Upper(service)) return true;
  }
  return false;
}

std::vector<std::string> InfDefaultServices() {
  InfEntries entries;
  std::vector<std::string> names;
  if (SUCCEEDED(ReadInfSection("Default Services", &entries))) {
    for (const auto& [key, value] : entries) names.push_back(key);
  }
  return names;
}

std::string InfValue(const InfEntries& entries, const std::string& key) {
  for (const auto& [k, v] : entries) {
    if (Upper(k) == Upper(key)) return v;
  }
  return std::string();
}

std::vector<std::string> InfList(const std::string& value) {
  std::vector<std::string> items;
  size_t start = 0;
  while (start <= value.size()) {
    size_t comma = value.find(',', start);
    std::string item = Trim(value.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
    if (!item.empty()) items.push_back(item);
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  return items;
}

ULONG InfPropTag(const std::string& key) {
  std::string k = Upper(Trim(key));
  for (const auto& p : kPropNames) {
    if (k == p.name) return p.value;
  }
  ULONG tag = 0;
  if (k.size() == 8 && k.find_first_not_of("0123456789ABCDEF") == std::string::npos && ParseNumber("0x" + k, &tag) &&
      PROP_ID(tag) != PROP_ID_NULL && IsStorableType(PROP_TYPE(tag))) {
    return tag;
  }
  return 0;
}

HRESULT InfEntriesToProps(const InfEntries& entries, PropSet* props) {
  for (const auto& [key, value] : entries) {
    ULONG tag = InfPropTag(key);
    if (!tag) continue;
    HRESULT hr = AddValue(tag, value, props);
    if (hr == MAPI_E_NOT_ENOUGH_MEMORY) return hr;
  }
  return S_OK;
}

}  // namespace adm

extern "C" BOOL STDAPICALLTYPE FGetComponentPath(LPCSTR szComponent, LPSTR szQualifier, LPSTR szDllPath,
                                                 DWORD cchBufferSize, BOOL fInstall) {
  (void)szComponent;
  (void)szQualifier;
  if (!szDllPath || cchBufferSize == 0) return FALSE;
  if (fInstall) adm::InstallSubsystemFiles();
  std::string path = adm::WindowsForm(adm::MapisvcFolder() + "/MSMAPI32.DLL");
  if (path.size() + 1 > cchBufferSize) {
    szDllPath[0] = '\0';
    return FALSE;
  }
  std::memcpy(szDllPath, path.c_str(), path.size() + 1);
  return TRUE;
}
