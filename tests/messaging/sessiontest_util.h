// Shared set-up for the session tests: an isolated home with MAPISVC.INF, a default profile "Work"
// holding the test store service and an identity, and readers for the test provider's log.
#pragma once
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "adplatform.h"
#include "msgtest_util.h"
#include "session.h"
#include "test_home.h"

namespace sessiontest {

using namespace msgtest;

struct SessionFixture {
  adtest::TempHome home;
  std::string log = home.Temp() + "provider.log";
  EnvScope logEnv{"ADTEST_SERVICE_LOG", log};
  MapiScope mapi;

  explicit SessionFixture(bool twoStores = false, bool identity = true) {
    WriteTestMapisvc();
    LPPROFADMIN profAdmin = nullptr;
    LPSERVICEADMIN admin = nullptr;
    EXPECT_EQ(MAPIAdminProfiles(0, &profAdmin), S_OK);
    EXPECT_EQ(profAdmin->CreateProfile(T("Work"), nullptr, 0, 0), S_OK);
    EXPECT_EQ(profAdmin->SetDefaultProfile(T("Work"), 0), S_OK);
    EXPECT_EQ(profAdmin->AdminServices(T("Work"), nullptr, 0, 0, &admin), S_OK);
    EXPECT_EQ(admin->CreateMsgService(T("TESTSVC"), T("Test"), 0, 0), S_OK);
    if (twoStores) {
      EXPECT_EQ(admin->CreateMsgService(T("MULTI"), T("Multi"), 0, 0), S_OK);
    }
    admin->Release();
    profAdmin->Release();
    if (identity) {
      EXPECT_EQ(adm::SetProfileIdentity("Work", "jdoe", "Jane Doe", "jane@example.com"), S_OK);
    }
    std::remove(log.c_str());
  }

  std::vector<std::string> Log() const { return ReadLines(log); }
  size_t Count(const std::string& prefix) const {
    size_t n = 0;
    for (const auto& l : Log()) n += l.rfind(prefix, 0) == 0;
    return n;
  }
};

inline LPMAPISESSION Logon(ULONG flags = MAPI_EXTENDED) {
  LPMAPISESSION session = nullptr;
  EXPECT_EQ(MAPILogonEx(0, nullptr, nullptr, flags, &session), S_OK);
  return session;
}

// The stores table's rows; the caller frees them.
inline LPSRowSet Stores(LPMAPISESSION session) {
  LPMAPITABLE table = nullptr;
  EXPECT_EQ(session->GetMsgStoresTable(0, &table), S_OK);
  return table ? AllRows(table) : nullptr;
}

inline std::vector<BYTE> Bin(const SPropValue* v) {
  return v ? std::vector<BYTE>(v->Value.bin.lpb, v->Value.bin.lpb + v->Value.bin.cb) : std::vector<BYTE>();
}

// Opens the store of the first row whose PR_PROVIDER_DISPLAY is `display` (any when empty).
inline LPMDB OpenStore(LPMAPISESSION session, const std::string& display = "", HRESULT expect = S_OK) {
  LPSRowSet rows = Stores(session);
  LPMDB store = nullptr;
  for (ULONG i = 0; rows && i < rows->cRows; ++i) {
    if (!display.empty() && Text(rows->aRow[i], PR_PROVIDER_DISPLAY_A) != display) continue;
    const SPropValue* eid = Find(rows->aRow[i], PR_ENTRYID);
    EXPECT_EQ(session->OpenMsgStore(0, eid->Value.bin.cb, reinterpret_cast<LPENTRYID>(eid->Value.bin.lpb), nullptr,
                                    MDB_WRITE | MDB_NO_DIALOG, &store),
              expect);
    break;
  }
  FreeProws(rows);
  return store;
}

inline std::string Hex(const BYTE* p, ULONG cb) {
  std::string out;
  char b[3];
  for (ULONG i = 0; i < cb; ++i) {
    std::snprintf(b, sizeof b, "%02X", p[i]);
    out += b;
  }
  return out;
}

// Waits (on the platform's clock) until `pred` holds or about `limitMs` of system time passed.
template <class Pred>
bool WaitFor(Pred pred, DWORD limitMs = 20000) {
  for (DWORD waited = 0; waited < limitMs; waited += 10) {
    if (pred()) return true;
    Sleep(10);
  }
  return pred();
}

}  // namespace sessiontest
