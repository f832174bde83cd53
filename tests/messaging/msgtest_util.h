// Shared set-up for the profile and service tests: a MAPISVC.INF naming the test service
// library, MAPI initialised for the scope, and small table and property readers.
#pragma once
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "mapicode.h"
#include "mapisvc.h"
#include "mapitags.h"
#include "mapiutil.h"
#include "mapix.h"
#include "windows.h"

namespace msgtest {

constexpr ULONG PR_TEST_CREATED = PROP_TAG(PT_STRING8, 0x6601);
constexpr ULONG PR_TEST_SERVICE_MARK = PROP_TAG(PT_STRING8, 0x6602);
constexpr ULONG PR_TEST_UID = PROP_TAG(PT_BINARY, 0x6603);
constexpr ULONG PR_TEST_CONFIGURED = PROP_TAG(PT_LONG, 0x6604);
constexpr ULONG PR_TEST_INITIAL = PROP_TAG(PT_STRING8, 0x6605);

inline void Inf(const char* section, const char* key, const char* value) {
  ASSERT_TRUE(WritePrivateProfileStringA(section, key, value, adm::MapisvcPath().c_str()));
}

// TESTSVC: one copy, one store provider. MULTI: any number, a store and a transport provider.
// BROKEN: its library does not exist. NOENTRY: its library lacks the named entry point.
inline void WriteTestMapisvc() {
  Inf("Services", "TESTSVC", "Test Service");
  Inf("TESTSVC", "PR_DISPLAY_NAME", "Test Service");
  Inf("TESTSVC", "PR_SERVICE_DLL_NAME", "MSGPROVIDER_MODULE.DLL");
  Inf("TESTSVC", "PR_SERVICE_ENTRY_NAME", "ServiceEntry");
  Inf("TESTSVC", "PR_RESOURCE_FLAGS", "SERVICE_SINGLE_COPY|SERVICE_NO_PRIMARY_IDENTITY");
  Inf("TESTSVC", "WIZARD_ENTRY_NAME", "WizardEntry");
  Inf("TESTSVC", "Providers", "TESTSVC_STORE");
  Inf("TESTSVC_STORE", "PR_RESOURCE_TYPE", "MAPI_STORE_PROVIDER");
  Inf("TESTSVC_STORE", "PR_PROVIDER_DLL_NAME", "MSGPROVIDER_MODULE.DLL");
  Inf("TESTSVC_STORE", "PR_RESOURCE_FLAGS", "STATUS_DEFAULT_STORE");
  Inf("TESTSVC_STORE", "PR_PROVIDER_DISPLAY", "Test Store");
  Inf("TESTSVC_STORE", "6605001E", "initial");

  Inf("Services", "MULTI", "Multi Service");
  Inf("MULTI", "PR_SERVICE_DLL_NAME", "msgprovider_module.dll");
  Inf("MULTI", "Providers", "MULTI_STORE, MULTI_XP");
  Inf("MULTI_STORE", "PR_RESOURCE_TYPE", "MAPI_STORE_PROVIDER");
  Inf("MULTI_STORE", "PR_PROVIDER_DISPLAY", "Multi Store");
  Inf("MULTI_XP", "PR_RESOURCE_TYPE", "MAPI_TRANSPORT_PROVIDER");
  Inf("MULTI_XP", "PR_PROVIDER_DISPLAY", "Multi Transport");
  Inf("MULTI_EXTRA", "PR_RESOURCE_TYPE", "MAPI_AB_PROVIDER");
  Inf("MULTI_EXTRA", "PR_PROVIDER_DISPLAY", "Multi Extra");

  Inf("Services", "BROKEN", "Broken Service");
  Inf("BROKEN", "PR_SERVICE_DLL_NAME", "NoSuchLibrary.DLL");
  Inf("BROKEN", "Providers", "BROKEN_STORE");
  Inf("BROKEN_STORE", "PR_RESOURCE_TYPE", "MAPI_STORE_PROVIDER");

  Inf("Services", "NOENTRY", "No Entry");
  Inf("NOENTRY", "PR_SERVICE_DLL_NAME", "MSGPROVIDER_MODULE.DLL");
  Inf("NOENTRY", "PR_SERVICE_ENTRY_NAME", "NoSuchEntry");
}

class MapiScope {
 public:
  MapiScope() { EXPECT_EQ(MAPIInitialize(nullptr), S_OK); }
  ~MapiScope() { MAPIUninitialize(); }
  MapiScope(const MapiScope&) = delete;
  MapiScope& operator=(const MapiScope&) = delete;
};

// Sets an environment variable for the scope.
class EnvScope {
 public:
  EnvScope(const char* name, const std::string& value) : m_name(name) { ::setenv(name, value.c_str(), 1); }
  ~EnvScope() { ::unsetenv(m_name.c_str()); }
  EnvScope(const EnvScope&) = delete;
  EnvScope& operator=(const EnvScope&) = delete;

 private:
  std::string m_name;
};

inline std::vector<std::string> ReadLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// All rows of a table; the caller frees them with FreeProws.
inline LPSRowSet AllRows(LPMAPITABLE table) {
  LPSRowSet rows = nullptr;
  EXPECT_EQ(HrQueryAllRows(table, nullptr, nullptr, nullptr, 0, &rows), S_OK);
  table->Release();
  return rows;
}

inline const SPropValue* Find(const SRow& row, ULONG tag) { return PpropFindProp(row.lpProps, row.cValues, tag); }

inline std::string Text(const SRow& row, ULONG tag) {
  const SPropValue* v = Find(row, tag);
  return v ? v->Value.lpszA : std::string("<missing>");
}

inline MAPIUID Uid(const SRow& row, ULONG tag) {
  MAPIUID uid{};
  const SPropValue* v = Find(row, tag);
  if (v && v->Value.bin.cb == sizeof uid) std::memcpy(&uid, v->Value.bin.lpb, sizeof uid);
  return uid;
}

// One property of a section; PT_ERROR values come back as they are.
inline SPropValue* GetOne(IMAPIProp* prop, ULONG tag) {
  SizedSPropTagArray(1, tags) = {1, {tag}};
  ULONG n = 0;
  LPSPropValue values = nullptr;
  HRESULT hr = prop->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), 0, &n, &values);
  EXPECT_TRUE(hr == S_OK || hr == MAPI_W_ERRORS_RETURNED);
  return values;
}

inline LPTSTR T(const char* text) { return const_cast<LPTSTR>(text); }

}  // namespace msgtest
