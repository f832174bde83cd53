#include "provider_session.h"

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "ScriptArchiveRegistration.h"
#include "adplatform.h"
#include "session.h"

namespace zt4it {
namespace {

constexpr const char* kChildMarker = "AD_PROVIDER_TEST_CHILD";
constexpr int kChildTimeoutMs = 110000;


std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

LPTSTR T(const std::string& text) { return reinterpret_cast<LPTSTR>(const_cast<char*>(text.c_str())); }

}  // namespace

bool RunInOwnProcess() {
  if (std::getenv(kChildMarker)) return true;
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  const std::string filter = std::string("--gtest_filter=") + info->test_suite_name() + "." + info->name();
  ::setenv(kChildMarker, "1", 1);
  int status = adtest::RunChild("/proc/self/exe", {filter}, kChildTimeoutMs);
  ::unsetenv(kChildMarker);
  EXPECT_EQ(status, 0) << "the test failed in its own process (status " << status << ")";
  return false;
}

// ---- session ------------------------------------------------------------------------------------

ProviderSession::ProviderSession(const std::string& fixtureBody, SessionOptions options)
    : m_options(std::move(options)), m_home(50) {
  m_fixturePath = m_home.Root() + "/mailbox.fixture";
  m_journalPath = m_home.Root() + "/archive.journal";
  m_logFolder = m_home.Root() + "/logs";
  ::setenv("ARCHIVEDEPOT_ARCHIVE_JOURNAL", m_journalPath.c_str(), 1);
  ::unsetenv("ARCHIVEDEPOT_ARCHIVE_FIXTURE");
  RewriteFixture(fixtureBody);
  if (m_options.registerArchive) {
    EXPECT_EQ(scriptarchive::RegisterScriptArchive(adtest::BinPath(kArchiveModule), m_fixturePath), S_OK);
  }
  // A mail client runs with COM initialised; the provider creates its data provider through it.
  m_comInitialized = SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED));
  m_mapiInitialized = MAPIInitialize(nullptr) == S_OK;
  EXPECT_TRUE(m_mapiInitialized);
}

ProviderSession::~ProviderSession() {
  m_store.Reset();
  if (m_session) m_session->Logoff(0, 0, 0);
  m_session.Reset();
  if (m_mapiInitialized) MAPIUninitialize();
  if (m_comInitialized) CoUninitialize();
  ::unsetenv("ARCHIVEDEPOT_ARCHIVE_JOURNAL");
}

std::string ProviderSession::FixtureText(const std::string& body) const {
  std::ostringstream text;
  text << "[config]\n"
       << "LogFileName = " << m_logFolder << "\n"
       << "LogLevel = " << m_options.logLevel << "\n"
       << "UseLocalizedFolderNames = " << (m_options.localizedNames ? 1 : 0) << "\n"
       << "[user /o=Org/cn=" << kUserName << "]\n"
       << "UserName = " << kUserName << "\n"
       << "DisplayName = " << kUserDisplay << "\n"
       << "SmtpAddress = " << kUserSmtp << "\n"
       << body << "\n";
  return text.str();
}

void ProviderSession::RewriteFixture(const std::string& fixtureBody) { WriteFile(m_fixturePath, FixtureText(fixtureBody)); }

HRESULT ProviderSession::InstallService(BOOL* pfChanged) {
  // An installer is a process of its own: its InitTraces would otherwise decide this process's log.
  int status = adtest::RunChild(kContextsChild, {"install"});
  if (pfChanged) *pfChanged = status == kInstallChanged;
  if (status == kInstallChanged || status == kInstallUnchanged) return S_OK;
  ADD_FAILURE() << "installing the service failed (status " << status << ")";
  return E_FAIL;
}

HRESULT ProviderSession::CreateProfile(MAPIUID* serviceUid) {
  Ref<IProfAdmin> profAdmin;
  HRESULT hr = MAPIAdminProfiles(0, profAdmin.Out());
  if (FAILED(hr)) return hr;
  hr = profAdmin->CreateProfile(T(m_options.profile), nullptr, 0, 0);
  if (FAILED(hr)) return hr;
  hr = profAdmin->SetDefaultProfile(T(m_options.profile), 0);
  if (FAILED(hr)) return hr;
  if (m_options.identity) {
    hr = adm::SetProfileIdentity(m_options.profile.c_str(), kUserName, kUserDisplay, kUserSmtp);
    if (FAILED(hr)) return hr;
  }
  Ref<IMsgServiceAdmin> admin;
  hr = profAdmin->AdminServices(T(m_options.profile), nullptr, 0, 0, admin.Out());
  if (FAILED(hr)) return hr;
  // The installer of the product holds this mutex while it adds the service; only then does the
  // silent creation give the store its identity.
  HANDLE updating = m_options.holdUpdatingMutex ? CreateMutexA(nullptr, TRUE, "TQUpdatingProfile") : nullptr;
  hr = admin->CreateMsgService(T(kServiceName), T("ArchiveDepot"), 0, 0);
  if (updating) {
    ReleaseMutex(updating);
    CloseHandle(updating);
  }
  if (SUCCEEDED(hr) && serviceUid && !ServiceUid(serviceUid)) hr = MAPI_E_NOT_FOUND;
  return hr;
}

void ProviderSession::Prepare() {
  BOOL fChanged = FALSE;
  ASSERT_EQ(InstallService(&fChanged), S_OK);
  ASSERT_EQ(CreateProfile(), S_OK);
}

HRESULT ProviderSession::Logon(ULONG ulOpenFlags) {
  if (!m_session) {
    HRESULT hr = MAPILogonEx(0, T(m_options.profile), nullptr, MAPI_EXTENDED | MAPI_NEW_SESSION, m_session.Out());
    if (FAILED(hr)) return hr;
  }
  std::vector<BYTE> eid = StoreEntryID();
  if (eid.empty()) return MAPI_E_NOT_FOUND;
  return m_session->OpenMsgStore(0, static_cast<ULONG>(eid.size()), reinterpret_cast<LPENTRYID>(eid.data()), nullptr,
                                 ulOpenFlags, m_store.Out());
}

void ProviderSession::PrepareAndLogon() {
  ASSERT_NO_FATAL_FAILURE(Prepare());
  HRESULT hr = Logon();
  if (hr != S_OK) {
    const std::string log = LogText();
    ADD_FAILURE() << "logon failed: " << std::hex << hr << "\nthe provider's log ends:\n"
                  << log.substr(log.size() > 4000 ? log.size() - 4000 : 0);
  }
  ASSERT_TRUE(m_store);
}

std::vector<BYTE> ProviderSession::StoreEntryID() {
  if (!m_session) return {};
  Ref<IMAPITable> table;
  if (FAILED(m_session->GetMsgStoresTable(0, table.Out()))) return {};
  Rows rows = AllRows(table.Get());
  for (ULONG i = 0; i < rows.Count(); ++i) {
    if (NarrowProp(FindProp(rows[i], PR_SERVICE_NAME_A)) != kServiceName && rows.Count() > 1) continue;
    return BinProp(FindProp(rows[i], PR_ENTRYID));
  }
  return {};
}

bool ProviderSession::ServiceUid(MAPIUID* uid) {
  std::shared_ptr<adm::Profile> profile;
  if (FAILED(adm::Profile::Open(m_options.profile.c_str(), &profile))) return false;
  std::vector<adm::ServiceInfo> services;
  if (FAILED(profile->GetServices(&services))) return false;
  for (const auto& s : services) {
    if (s.name == kServiceName) {
      *uid = s.uid;
      return true;
    }
  }
  return false;
}

bool ProviderSession::ReadProviderSection(adm::PropSet* out) {
  std::shared_ptr<adm::Profile> profile;
  if (FAILED(adm::Profile::Open(m_options.profile.c_str(), &profile))) return false;
  std::vector<adm::ServiceInfo> services;
  if (FAILED(profile->GetServices(&services))) return false;
  for (const auto& s : services) {
    if (s.name == kServiceName && !s.providers.empty()) return SUCCEEDED(profile->ReadSection(s.providers[0].uid, out));
  }
  return false;
}

std::string ProviderSession::ProviderSectionText(ULONG tag) {
  adm::PropSet section;
  if (!ReadProviderSection(&section)) return "<no section>";
  return NarrowProp(section.Find(tag));
}

Ref<IMsgServiceAdmin> ProviderSession::ServiceAdmin() {
  Ref<IProfAdmin> profAdmin;
  Ref<IMsgServiceAdmin> admin;
  if (SUCCEEDED(MAPIAdminProfiles(0, profAdmin.Out()))) {
    EXPECT_EQ(profAdmin->AdminServices(T(m_options.profile), nullptr, 0, 0, admin.Out()), S_OK);
  }
  return admin;
}

std::string ProviderSession::LogPath() const { return m_logFolder + "/TQProvider.log"; }
std::string ProviderSession::LogText() const { return ReadFile(LogPath()); }
bool ProviderSession::LogHas(const std::string& text) const { return LogText().find(text) != std::string::npos; }
size_t ProviderSession::LogCount(const std::string& text) const {
  const std::string log = LogText();
  size_t n = 0;
  for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + text.size())) ++n;
  return n;
}
std::string ProviderSession::JournalText() const { return ReadFile(m_journalPath); }

Ref<IMAPIFolder> ProviderSession::OpenFolder(const std::vector<BYTE>& entryID, ULONG ulFlags, HRESULT* phr) {
  Ref<IMAPIFolder> folder;
  ULONG type = 0;
  HRESULT hr = m_store->OpenEntry(static_cast<ULONG>(entryID.size()),
                                  reinterpret_cast<LPENTRYID>(const_cast<BYTE*>(entryID.data())), nullptr, ulFlags,
                                  &type, reinterpret_cast<LPUNKNOWN*>(folder.Out()));
  if (phr) *phr = hr;
  if (SUCCEEDED(hr) && type != MAPI_FOLDER) {
    ADD_FAILURE() << "OpenEntry gave object type " << type << " for a folder";
    folder.Reset();
  }
  return folder;
}

Ref<IMAPIFolder> ProviderSession::OpenIpmSubtree() {
  // Through the root's table (the root by an empty ID, else whatever the store's subtree ID opens),
  // so that the tree can be walked even when one of the two ways is broken.
  Ref<IMAPIFolder> start = OpenFolder({});
  if (!start) {
    MapiPtr<SPropValue> eid = GetProp(m_store.Get(), PR_IPM_SUBTREE_ENTRYID);
    if (eid && PROP_TYPE(eid->ulPropTag) == PT_BINARY) start = OpenFolder(BinProp(eid.get()));
  }
  if (!start) return {};
  if (DisplayName(start.Get()) == "IPM Subtree") return start;
  Rows rows = HierarchyRows(start.Get());
  for (ULONG i = 0; i < rows.Count(); ++i) {
    if (NarrowProp(FindProp(rows[i], PR_DISPLAY_NAME_W)) == "IPM Subtree")
      return OpenFolder(BinProp(FindProp(rows[i], PR_ENTRYID)));
  }
  return {};
}

Ref<IMAPIFolder> ProviderSession::FindFolder(const std::string& path) {
  Ref<IMAPIFolder> folder = OpenIpmSubtree();
  size_t start = 0;
  while (folder && start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    const std::string name = path.substr(start, end - start);
    Rows rows = HierarchyRows(folder.Get());
    Ref<IMAPIFolder> child;
    for (ULONG i = 0; i < rows.Count(); ++i) {
      if (NarrowProp(FindProp(rows[i], PR_DISPLAY_NAME_W)) == name) {
        child = OpenFolder(BinProp(FindProp(rows[i], PR_ENTRYID)));
        break;
      }
    }
    folder = std::move(child);
    start = end + 1;
  }
  return folder;
}

// ---- readers ------------------------------------------------------------------------------------

Rows AllRows(LPMAPITABLE table) {
  LPSRowSet rows = nullptr;
  if (!table) return Rows();
  HRESULT hr = HrQueryAllRows(table, nullptr, nullptr, nullptr, 0, &rows);
  EXPECT_EQ(hr, S_OK);
  return Rows(SUCCEEDED(hr) ? rows : nullptr);
}

Rows HierarchyRows(LPMAPIFOLDER folder, ULONG ulFlags) {
  Ref<IMAPITable> table;
  HRESULT hr = folder->GetHierarchyTable(ulFlags, table.Out());
  EXPECT_EQ(hr, S_OK) << "GetHierarchyTable";
  return SUCCEEDED(hr) ? AllRows(table.Get()) : Rows();
}

const SPropValue* FindProp(const SRow& row, ULONG tag) { return PpropFindProp(row.lpProps, row.cValues, tag); }

std::string NarrowProp(const SPropValue* value) {
  if (!value) return "<missing>";
  switch (PROP_TYPE(value->ulPropTag)) {
    case PT_STRING8:
      return value->Value.lpszA ? value->Value.lpszA : "";
    case PT_UNICODE:
      return Utf8(value->Value.lpszW);
    case PT_ERROR:
      return "<error>";
    default:
      return "<type " + std::to_string(PROP_TYPE(value->ulPropTag)) + ">";
  }
}

std::vector<BYTE> BinProp(const SPropValue* value) {
  if (!value || PROP_TYPE(value->ulPropTag) != PT_BINARY) return {};
  return std::vector<BYTE>(value->Value.bin.lpb, value->Value.bin.lpb + value->Value.bin.cb);
}

std::vector<std::string> RowNames(const Rows& rows) {
  std::vector<std::string> names;
  for (ULONG i = 0; i < rows.Count(); ++i) names.push_back(NarrowProp(FindProp(rows[i], PR_DISPLAY_NAME_W)));
  return names;
}

MapiPtr<SPropValue> GetProp(IMAPIProp* object, ULONG tag) {
  SizedSPropTagArray(1, tags) = {1, {tag}};
  ULONG count = 0;
  LPSPropValue values = nullptr;
  HRESULT hr = object->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), 0, &count, &values);
  if (FAILED(hr)) return nullptr;
  return MapiPtr<SPropValue>(values);
}

std::string DisplayName(IMAPIProp* object) {
  MapiPtr<SPropValue> v = GetProp(object, PR_DISPLAY_NAME_W);
  return NarrowProp(v.get());
}

std::string Utf8(const WCHAR* text) { return text ? adp::Utf16ToUtf8(text) : std::string(); }
std::u16string Utf16(const std::string& text) { return adp::Utf8ToUtf16(text.c_str()); }

ULONG EidObjectId(const std::vector<BYTE>& eid) {
  ULONG id = 0;
  if (eid.size() >= 28) std::memcpy(&id, eid.data() + 24, sizeof id);
  return id;
}

BYTE EidType(const std::vector<BYTE>& eid) { return eid.size() > 21 ? eid[21] : 0; }

std::vector<BYTE> MakeEid(const std::vector<BYTE>& from, BYTE version, BYTE type, ULONG objId) {
  std::vector<BYTE> eid = from;
  eid.resize(CB_EID);
  eid[20] = version;
  eid[21] = type;
  std::memcpy(eid.data() + 24, &objId, sizeof objId);
  return eid;
}

}  // namespace zt4it
