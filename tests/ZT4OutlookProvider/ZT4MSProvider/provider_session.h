// A logged-on ArchiveDepot store for integration tests, reached the way a mail client reaches it:
// the scriptable archive registered with a fixture, the service merged into MAPISVC.INF by the
// provider module's own installer export, a profile with an identity and the service, then
// MAPILogonEx and OpenMsgStore. Everything lives in an isolated state directory and temp folder.
//
// The provider keeps process-wide state (the first InitTraces decides the log, the data provider
// object and the client store live for the process), so each test runs in a process of its own:
// start every TEST with AD_PROVIDER_TEST_IN_OWN_PROCESS().
#pragma once
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include <mapicode.h>
#include <mapidefs.h>
#include <mapitags.h>
#include <mapiutil.h>
#include <mapix.h>
#include <objbase.h>
#include <windows.h>

#include "profile.h"
#include "propfile.h"
#include "session.h"
#include "test_home.h"

namespace zt4it {

constexpr ULONG CB_EID = 132;
constexpr const char* kServiceName = "ZT4MSPROVIDER";
constexpr const char* kProviderModule = "ZT4MSProvider.so";
constexpr const char* kArchiveModule = "ZT4ScriptArchive.so";
constexpr const char* kDefaultProfile = "ArchiveTest";
// The helper program of the two-process tests, and its exit codes for "install".
constexpr const char* kContextsChild = "ZT4MSProvider_contexts_child";
constexpr int kInstallChanged = 10;
constexpr int kInstallUnchanged = 11;
constexpr ULONG PR_ZT4_STORE_PATH_A = PROP_TAG(PT_STRING8, 0x6601);

// Runs the current test again in a child process (the same program, filtered to this test) and
// returns false in the parent, which then leaves the test body; true in the child.
bool RunInOwnProcess();
#define AD_PROVIDER_TEST_IN_OWN_PROCESS() \
  do {                                    \
    if (!::zt4it::RunInOwnProcess()) return; \
  } while (0)

// A COM-style pointer released at scope end.
template <class T>
class Ref {
 public:
  Ref() = default;
  explicit Ref(T* p) : m_p(p) {}
  ~Ref() { Reset(); }
  Ref(const Ref&) = delete;
  Ref& operator=(const Ref&) = delete;
  Ref(Ref&& o) noexcept : m_p(o.m_p) { o.m_p = nullptr; }
  Ref& operator=(Ref&& o) noexcept {
    if (this != &o) Reset(), m_p = o.m_p, o.m_p = nullptr;
    return *this;
  }
  T* Get() const { return m_p; }
  T* operator->() const { return m_p; }
  explicit operator bool() const { return m_p != nullptr; }
  T** Out() { Reset(); return &m_p; }
  void Reset() {
    if (m_p) m_p->Release();
    m_p = nullptr;
  }

 private:
  T* m_p = nullptr;
};

// MAPI memory freed at scope end.
struct MapiFree {
  void operator()(void* p) const { MAPIFreeBuffer(p); }
};
template <class T>
using MapiPtr = std::unique_ptr<T, MapiFree>;

// A table's rows, freed at scope end.
class Rows {
 public:
  Rows() = default;
  explicit Rows(LPSRowSet rows) : m_rows(rows) {}
  ~Rows() { if (m_rows) FreeProws(m_rows); }
  Rows(const Rows&) = delete;
  Rows& operator=(const Rows&) = delete;
  Rows(Rows&& o) noexcept : m_rows(o.m_rows) { o.m_rows = nullptr; }
  ULONG Count() const { return m_rows ? m_rows->cRows : 0; }
  const SRow& operator[](ULONG i) const { return m_rows->aRow[i]; }

 private:
  LPSRowSet m_rows = nullptr;
};

struct SessionOptions {
  std::string profile = kDefaultProfile;
  bool registerArchive = true;    // name the scriptable archive as the data provider
  bool identity = true;           // give the profile a user
  bool holdUpdatingMutex = true;  // hold "TQUpdatingProfile" while the service is added
  int logLevel = 5;
  bool localizedNames = false;    // the fixture's UseLocalizedFolderNames
};

// The user of the profile, matching the fixture's mailbox.
constexpr const char* kUserName = "zoe";
constexpr const char* kUserDisplay = "Zo\xC3\xAB \xC3\x85kerlund";
constexpr const char* kUserSmtp = "zoe@example.com";

class ProviderSession {
 public:
  // Sets the state directory up and writes the fixture (the caller's text is appended to a
  // [config] section that points the provider's log into the state directory).
  explicit ProviderSession(const std::string& fixtureBody = {}, SessionOptions options = {});
  ~ProviderSession();
  ProviderSession(const ProviderSession&) = delete;
  ProviderSession& operator=(const ProviderSession&) = delete;

  // MergeWithMAPISVC(NULL, &fChanged, 0) of the provider module, run by a helper process.
  HRESULT InstallService(BOOL* pfChanged = nullptr);
  // A profile with the identity (unless told otherwise) and the service; the result of
  // CreateMsgService. `serviceUid` receives the new service's UID.
  HRESULT CreateProfile(MAPIUID* serviceUid = nullptr);
  // InstallService + CreateProfile, asserting both.
  void Prepare();
  // MAPILogonEx on the profile and OpenMsgStore of our store; the result of OpenMsgStore.
  HRESULT Logon(ULONG ulOpenFlags = MDB_WRITE | MDB_NO_DIALOG);
  // Prepare + Logon, asserting both.
  void PrepareAndLogon();

  LPMAPISESSION Session() const { return m_session.Get(); }
  LPMDB Store() const { return m_store.Get(); }
  const adtest::TempHome& Home() const { return m_home; }
  const std::string& FixturePath() const { return m_fixturePath; }
  const std::string& Profile() const { return m_options.profile; }
  // Rewrites the fixture file (the next data provider object of any process reads it).
  void RewriteFixture(const std::string& fixtureBody);

  // Our store's row in the session's stores table: PR_ENTRYID as bytes; empty when none.
  std::vector<BYTE> StoreEntryID();
  // Our service's UID in the profile.
  bool ServiceUid(MAPIUID* uid);
  // The section of our store provider, as the profile holds it now.
  bool ReadProviderSection(adm::PropSet* out);
  // A text of that section (UTF-8); "<missing>" when absent.
  std::string ProviderSectionText(ULONG tag);
  // A service administration object on the profile.
  Ref<IMsgServiceAdmin> ServiceAdmin();

  // The provider's log file (where the fixture's [config] LogFileName points it).
  std::string LogPath() const;
  std::string LogText() const;
  bool LogHas(const std::string& text) const;
  size_t LogCount(const std::string& text) const;
  // The archive's journal (every call the data provider received, from any process).
  std::string JournalText() const;

  // Folders.
  Ref<IMAPIFolder> OpenFolder(const std::vector<BYTE>& entryID, ULONG ulFlags = MAPI_BEST_ACCESS,
                              HRESULT* phr = nullptr);
  Ref<IMAPIFolder> OpenIpmSubtree();
  // A folder below the IPM subtree by names separated by '/', UTF-8; empty pointer when absent.
  Ref<IMAPIFolder> FindFolder(const std::string& path);

 private:
  std::string FixtureText(const std::string& body) const;

  SessionOptions m_options;
  adtest::TempHome m_home;
  std::string m_fixturePath, m_journalPath, m_logFolder;
  bool m_comInitialized = false;
  bool m_mapiInitialized = false;
  Ref<IMAPISession> m_session;
  Ref<IMsgStore> m_store;
};

// Table readers.
Rows AllRows(LPMAPITABLE table);
Rows HierarchyRows(LPMAPIFOLDER folder, ULONG ulFlags = 0);
const SPropValue* FindProp(const SRow& row, ULONG tag);
std::string NarrowProp(const SPropValue* value);           // PT_STRING8 or PT_UNICODE as UTF-8
std::vector<BYTE> BinProp(const SPropValue* value);
// Display names (UTF-8) of the rows, in table order.
std::vector<std::string> RowNames(const Rows& rows);
// One property of an object; nullptr when it can't be read at all.
MapiPtr<SPropValue> GetProp(IMAPIProp* object, ULONG tag);
std::string DisplayName(IMAPIProp* object);

// UTF-16 <-> UTF-8 for PT_UNICODE values.
std::string Utf8(const WCHAR* text);
std::u16string Utf16(const std::string& text);

// Private entry ID fields.
ULONG EidObjectId(const std::vector<BYTE>& eid);
BYTE EidType(const std::vector<BYTE>& eid);
std::vector<BYTE> MakeEid(const std::vector<BYTE>& from, BYTE version, BYTE type, ULONG objId);

// Waits on the platform clock (scaled in tests) until `pred` holds; the limit only keeps a broken
// provider from hanging the test, it is never asserted on.
template <class Pred>
bool WaitUntil(Pred pred, DWORD limitMs = 30000) {
  for (DWORD waited = 0; waited < limitMs; waited += 20) {
    if (pred()) return true;
    Sleep(20);
  }
  return pred();
}

}  // namespace zt4it
