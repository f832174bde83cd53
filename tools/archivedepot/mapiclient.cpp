#include "mapiclient.h"

#include <cstring>
#include <map>
#include <mutex>

#include "adplatform.h"
#include "adplatform_tags.h"
#include "mapicode.h"
#include "mapitags.h"
#include "mapiutil.h"
#include "objbase.h"
#include "output.h"

namespace adcli {
namespace {

struct KnownTag {
  const char* name;
  ULONG tag;
};

// Names whose type the platform's name table cannot tell (one type per identifier, so every type
// of the identifier answers with the same name). String names without a suffix are 8-bit.
const KnownTag kKnownTags[] = {
    {"PR_DISPLAY_NAME", PR_DISPLAY_NAME_A},       {"PR_COMMENT", PR_COMMENT_A},
    {"PR_PROVIDER_DISPLAY", PR_PROVIDER_DISPLAY_A}, {"PR_EMAIL_ADDRESS", PR_EMAIL_ADDRESS_A},
    {"PR_SMTP_ADDRESS", PR_SMTP_ADDRESS_A},       {"PR_ACCOUNT", PR_ACCOUNT_A},
    {"PR_ADDRTYPE", PR_ADDRTYPE_A},               {"PR_IDENTITY_DISPLAY", PR_IDENTITY_DISPLAY_A},
    {"PR_PROFILE_NAME", PR_PROFILE_NAME_A},       {"PR_PROVIDER_DLL_NAME", PR_PROVIDER_DLL_NAME_A},
    {"PR_RESOURCE_PATH", PR_RESOURCE_PATH_A},     {"PR_STORE_RECORD_KEY", PR_STORE_RECORD_KEY},
    {"PR_RECORD_KEY", PR_RECORD_KEY},             {"PR_ENTRYID", PR_ENTRYID},
    {"PR_STORE_ENTRYID", PR_STORE_ENTRYID},       {"PR_MDB_PROVIDER", PR_MDB_PROVIDER},
    {"PR_RESOURCE_FLAGS", PR_RESOURCE_FLAGS},     {"PR_STORE_SUPPORT_MASK", PR_STORE_SUPPORT_MASK},
    {"PR_STORE_STATE", PR_STORE_STATE},           {"PR_DEFAULT_STORE", PR_DEFAULT_STORE},
    {"PR_OBJECT_TYPE", PR_OBJECT_TYPE},           {"PR_PROVIDER_UID", PR_PROVIDER_UID},
};

const ULONG kScanTypes[] = {PT_SHORT, PT_LONG,   PT_FLOAT,   PT_DOUBLE, PT_CURRENCY, PT_APPTIME, PT_BOOLEAN,
                            PT_I8,    PT_STRING8, PT_UNICODE, PT_SYSTIME, PT_CLSID,  PT_BINARY};
constexpr ULONG kNoSuchType = 0x0FFF;  // no tag has it: asks the table for the identifier's own name

std::string Upper(std::string s) {
  for (char& c : s) c = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
  return s;
}

// Property identifiers by every name the platform's table gives, built on first use.
const std::map<std::string, ULONG>& IdsByName() {
  static std::map<std::string, ULONG> ids;
  static std::once_flag once;
  std::call_once(once, [] {
    for (ULONG id = 1; id < 0xFFFF; ++id) {
      if (const char* name = adp::PropTagName(PROP_TAG(kNoSuchType, id))) ids.emplace(name, id);
      for (ULONG type : {ULONG(PT_STRING8), ULONG(PT_UNICODE)}) {
        if (const char* name = adp::PropTagName(PROP_TAG(type, id))) ids.emplace(name, id);
      }
    }
  });
  return ids;
}

bool EndsWith(const std::string& s, const char* suffix) {
  size_t n = std::strlen(suffix);
  return s.size() > n && s.compare(s.size() - n, n, suffix) == 0;
}

ULONG TagFromTable(const std::string& name) {
  auto it = IdsByName().find(name);
  if (it == IdsByName().end()) return 0;
  ULONG id = it->second;
  if (EndsWith(name, "_W")) return PROP_TAG(PT_UNICODE, id);
  if (EndsWith(name, "_A")) return PROP_TAG(PT_STRING8, id);
  const char* wide = adp::PropTagName(PROP_TAG(PT_UNICODE, id));
  if (wide && name + "_W" == wide) return PROP_TAG(PT_STRING8, id);
  // Otherwise only a type whose exact entry carries this name tells it apart.
  const char* own = adp::PropTagName(PROP_TAG(kNoSuchType, id));
  ULONG found = 0;
  for (ULONG type : kScanTypes) {
    const char* n = adp::PropTagName(PROP_TAG(type, id));
    if (n && n != own && name == n) {
      if (found) return 0;
      found = PROP_TAG(type, id);
    }
  }
  return found;
}

bool ParseHex(const std::string& text, ULONG* out) {
  std::string digits = text;
  if (digits.size() > 2 && (digits.compare(0, 2, "0x") == 0 || digits.compare(0, 2, "0X") == 0)) digits = digits.substr(2);
  if (digits.size() != 8 || digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) return false;
  *out = static_cast<ULONG>(std::stoul(digits, nullptr, 16));
  return true;
}

bool ParseInteger(const std::string& text, long long lo, long long hi, long long* out) {
  if (text.empty()) return false;
  try {
    size_t used = 0;
    bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    long long v = hex ? static_cast<long long>(std::stoull(text.substr(2), &used, 16)) : std::stoll(text, &used, 10);
    if (used != (hex ? text.size() - 2 : text.size()) || v < lo || v > hi) return false;
    *out = v;
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

bool ParseBoolean(const std::string& text, bool* out) {
  std::string t = Upper(text);
  if (t == "TRUE" || t == "1" || t == "YES") return *out = true, true;
  if (t == "FALSE" || t == "0" || t == "NO") return *out = false, true;
  return false;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

Rows::~Rows() {
  if (m_rows) FreeProws(m_rows);
}

LPSRowSet* Rows::Out() {
  if (m_rows) FreeProws(m_rows);
  m_rows = nullptr;
  return &m_rows;
}

// COM first, as a mail client has it: store providers create their in-process servers
// (the data provider) on the client's threads and on their own. A multithreaded apartment
// covers both.
MapiInit::MapiInit() : m_com(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED))) {
  HRESULT hr = MAPIInitialize(nullptr);
  if (FAILED(hr)) {
    if (m_com) CoUninitialize();
    throw MapiFailure(hr, "MAPIInitialize failed");
  }
}

MapiInit::~MapiInit() {
  MAPIUninitialize();
  if (m_com) CoUninitialize();
}

std::string WideToUtf8(const WCHAR* text) {
  return text ? adp::Utf16ToUtf8(reinterpret_cast<const char16_t*>(text)) : std::string();
}

void Check(HRESULT hr, const std::string& what) {
  if (FAILED(hr)) throw MapiFailure(hr, what);
}

Rows QueryAll(IMAPITable* table, const std::vector<ULONG>& columns) {
  std::vector<ULONG> buffer(columns.size() + 1);
  buffer[0] = static_cast<ULONG>(columns.size());
  std::copy(columns.begin(), columns.end(), buffer.begin() + 1);
  Rows rows;
  HRESULT hr = HrQueryAllRows(table, reinterpret_cast<LPSPropTagArray>(buffer.data()), nullptr, nullptr, 0, rows.Out());
  Check(hr, table, "reading the table failed");
  return rows;
}

const SPropValue* FindProp(const SRow& row, ULONG ulPropTag) {
  return PpropFindProp(row.lpProps, row.cValues, ulPropTag);
}

std::string RowText(const SRow& row, ULONG ulPropTag) {
  const SPropValue* v = FindProp(row, ulPropTag);
  if (!v) return std::string();
  return PROP_TYPE(ulPropTag) == PT_UNICODE ? ValueText(*v) : std::string(v->Value.lpszA ? v->Value.lpszA : "");
}

bool RowBool(const SRow& row, ULONG ulPropTag) {
  const SPropValue* v = FindProp(row, ulPropTag);
  return v && v->Value.b;
}

ULONG ParsePropTag(const std::string& text) {
  ULONG tag = 0;
  if (ParseHex(text, &tag)) return PROP_ID(tag) ? tag : 0;
  std::string name = Upper(text);
  for (const auto& k : kKnownTags) {
    if (name == k.name) return k.tag;
  }
  return TagFromTable(name);
}

void PropArgs::Add(const std::string& assignment) {
  size_t eq = assignment.find('=');
  if (eq == std::string::npos || eq == 0) {
    throw UsageError("--set needs TAG=VALUE, not '" + assignment + "'");
  }
  std::string tagText = assignment.substr(0, eq), text = assignment.substr(eq + 1);
  ULONG tag = ParsePropTag(tagText);
  if (!tag) {
    throw UsageError("unknown property '" + tagText + "': give a PR_ name or the tag in hex (0x6601001E)");
  }
  SPropValue v{};
  v.ulPropTag = tag;
  auto bad = [&](const char* what) {
    return UsageError("the value of " + tagText + " must be " + what + ", not '" + text + "'");
  };
  long long n = 0;
  bool b = false;
  switch (PROP_TYPE(tag)) {
    case PT_STRING8:
    case PT_UNICODE: AddText(tag, text); return;
    case PT_SHORT:
      if (!ParseInteger(text, -32768, 65535, &n)) throw bad("a 16-bit integer");
      v.Value.i = static_cast<short>(n);
      break;
    case PT_LONG:
      if (!ParseInteger(text, -2147483648LL, 4294967295LL, &n)) throw bad("a 32-bit integer");
      v.Value.l = static_cast<LONG>(n);
      break;
    case PT_I8:
      if (!ParseInteger(text, INT64_MIN, INT64_MAX, &n)) throw bad("a 64-bit integer");
      v.Value.li.QuadPart = n;
      break;
    case PT_BOOLEAN:
      if (!ParseBoolean(text, &b)) throw bad("true or false");
      v.Value.b = b ? 1 : 0;
      break;
    case PT_BINARY: {
      if (text.size() % 2) throw bad("hex digits in pairs");
      std::string bytes;
      for (size_t i = 0; i < text.size(); i += 2) {
        int hi = HexDigit(text[i]), lo = HexDigit(text[i + 1]);
        if (hi < 0 || lo < 0) throw bad("hex digits in pairs");
        bytes += static_cast<char>(hi * 16 + lo);
      }
      m_texts.push_back(std::move(bytes));
      v.Value.bin.cb = static_cast<ULONG>(m_texts.back().size());
      v.Value.bin.lpb = reinterpret_cast<LPBYTE>(m_texts.back().data());
      break;
    }
    default: throw UsageError("properties of the type of " + tagText + " cannot be set from the command line");
  }
  Put(v);
}

void PropArgs::AddText(ULONG ulPropTag, const std::string& text) {
  SPropValue v{};
  v.ulPropTag = ulPropTag;
  if (PROP_TYPE(ulPropTag) == PT_UNICODE) {
    m_wide.push_back(adp::Utf8ToUtf16(text.c_str()));
    v.Value.lpszW = reinterpret_cast<LPWSTR>(m_wide.back().data());
  } else {
    m_texts.push_back(text);
    v.Value.lpszA = m_texts.back().data();
  }
  Put(v);
}

void PropArgs::Put(SPropValue value) {
  for (auto& v : m_values) {
    if (v.ulPropTag == value.ulPropTag) {
      v = value;  // the last assignment of a tag wins
      return;
    }
  }
  m_values.push_back(value);
}

Rows ServiceRows(IMsgServiceAdmin* admin) {
  Ref<IMAPITable> table;
  Check(admin->GetMsgServiceTable(0, table.Out()), admin, "GetMsgServiceTable failed");
  return QueryAll(table.Get(), {PR_SERVICE_UID, PR_SERVICE_NAME_A, PR_DISPLAY_NAME_A});
}

}  // namespace adcli

namespace adcli {

Session::Session(const std::string& profile) {
  ULONG flags = MAPI_EXTENDED | MAPI_NEW_SESSION | (profile.empty() ? MAPI_USE_DEFAULT : MAPI_EXPLICIT_PROFILE);
  LPTSTR name = profile.empty() ? nullptr : reinterpret_cast<LPTSTR>(const_cast<char*>(profile.c_str()));
  HRESULT hr = MAPILogonEx(0, name, nullptr, flags, m_session.Out());
  if (hr == MAPI_E_LOGON_FAILED) {
    throw MapiFailure(hr, profile.empty() ? "there is no default profile (create one with 'archivedepot profile create')"
                                          : "cannot log on to profile '" + profile + "': there is no such profile");
  }
  Check(hr, profile.empty() ? "MAPILogonEx failed on the default profile"
                            : "MAPILogonEx failed on profile '" + profile + "'");
}

Session::~Session() {
  if (m_session) m_session->Logoff(0, 0, 0);
}

std::string Session::ProfileName() const {
  Ref<IProfSect> section;
  LPMAPIUID global = reinterpret_cast<LPMAPIUID>(const_cast<char*>(pbGlobalProfileSectionGuid));
  if (FAILED(m_session->OpenProfileSection(global, nullptr, 0, section.Out()))) return std::string();
  MapiBuffer<SPropValue> name;
  if (FAILED(HrGetOneProp(section.Get(), PR_PROFILE_NAME_A, name.Out()))) return std::string();
  return name->Value.lpszA ? name->Value.lpszA : "";
}

Ref<IMsgStore> OpenDefaultStore(IMAPISession* session, std::string* displayName) {
  Ref<IMAPITable> table;
  Check(session->GetMsgStoresTable(0, table.Out()), session, "GetMsgStoresTable failed");
  Rows rows = QueryAll(table.Get(), {PR_ENTRYID, PR_DISPLAY_NAME_A, PR_DEFAULT_STORE});
  if (!rows.Count()) throw MapiFailure(MAPI_E_NOT_FOUND, "the profile has no message store");
  ULONG chosen = 0;
  for (ULONG i = 0; i < rows.Count(); ++i) {
    if (RowBool(rows[i], PR_DEFAULT_STORE)) {
      chosen = i;
      break;
    }
  }
  const SPropValue* eid = FindProp(rows[chosen], PR_ENTRYID);
  if (!eid) throw MapiFailure(MAPI_E_NOT_FOUND, "the stores table gives no entry ID for the store");
  if (displayName) *displayName = RowText(rows[chosen], PR_DISPLAY_NAME_A);
  Ref<IMsgStore> store;
  Check(session->OpenMsgStore(0, eid->Value.bin.cb, reinterpret_cast<LPENTRYID>(eid->Value.bin.lpb), nullptr,
                              MDB_NO_DIALOG | MAPI_BEST_ACCESS, store.Out()),
        session, "OpenMsgStore failed");
  return store;
}

}  // namespace adcli
