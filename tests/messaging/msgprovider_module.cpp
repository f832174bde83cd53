// A message-service library for the messaging tests. It exports ServiceEntry and behaves as a
// store service does at profile time, recording what it is asked so that tests can check it.
//
//   ADTEST_SERVICE_LOG    file that gets one line per call:
//                         "ServiceEntry ctx=<n> flags=<hex> values=<n> [<tag hex>=<value>]..."
//   ADTEST_SERVICE_FAIL   a context number: calls in that context fail with MAPI_E_USER_CANCEL
//                         and a MAPIERROR reading "refused by the test service"
//
// MSG_SERVICE_CREATE writes into the first provider's section (found through the provider
// admin's table, as store services do): PR_TEST_CREATED "created" and PR_TEST_UID, a NewUID of
// the support object; and into the service's own section (support OpenProfileSection(NULL)):
// PR_TEST_SERVICE_MARK "service". MSG_SERVICE_CONFIGURE copies the given properties into the
// provider's section and counts the calls in PR_TEST_CONFIGURED.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "mapicode.h"
#include "mapidefs.h"
#include "mapispi.h"
#include "mapitags.h"
#include "mapiutil.h"
#include "mapix.h"

namespace {

constexpr ULONG PR_TEST_CREATED = PROP_TAG(PT_STRING8, 0x6601);
constexpr ULONG PR_TEST_SERVICE_MARK = PROP_TAG(PT_STRING8, 0x6602);
constexpr ULONG PR_TEST_UID = PROP_TAG(PT_BINARY, 0x6603);
constexpr ULONG PR_TEST_CONFIGURED = PROP_TAG(PT_LONG, 0x6604);

std::string Describe(const SPropValue& v) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%08X=", static_cast<unsigned>(v.ulPropTag));
  std::string out = buf;
  switch (PROP_TYPE(v.ulPropTag)) {
    case PT_STRING8: out += v.Value.lpszA ? v.Value.lpszA : ""; break;
    case PT_LONG: out += std::to_string(v.Value.l); break;
    case PT_BOOLEAN: out += v.Value.b ? "true" : "false"; break;
    default: out += "?"; break;
  }
  return out;
}

void Record(ULONG ulContext, ULONG ulFlags, ULONG cValues, LPSPropValue lpProps) {
  const char* path = std::getenv("ADTEST_SERVICE_LOG");
  if (!path) return;
  std::string line = "ServiceEntry ctx=" + std::to_string(ulContext);
  char flags[32];
  std::snprintf(flags, sizeof flags, " flags=%X", static_cast<unsigned>(ulFlags));
  line += flags;
  line += " values=" + std::to_string(cValues);
  for (ULONG i = 0; lpProps && i < cValues; ++i) line += " " + Describe(lpProps[i]);
  if (FILE* f = std::fopen(path, "a")) {
    std::fprintf(f, "%s\n", line.c_str());
    std::fclose(f);
  }
}

HRESULT Refuse(LPMAPISUP lpMAPISup, LPMAPIERROR* lppMapiError) {
  LPALLOCATEBUFFER alloc = nullptr;
  LPALLOCATEMORE more = nullptr;
  LPFREEBUFFER freeBuf = nullptr;
  if (lppMapiError && SUCCEEDED(lpMAPISup->GetMemAllocRoutines(&alloc, &more, &freeBuf))) {
    static const char text[] = "refused by the test service";
    LPMAPIERROR err = nullptr;
    void* copy = nullptr;
    if (SUCCEEDED(alloc(sizeof(MAPIERROR), reinterpret_cast<void**>(&err))) &&
        SUCCEEDED(more(sizeof text, err, &copy))) {
      std::memset(err, 0, sizeof *err);
      std::memcpy(copy, text, sizeof text);
      err->lpszError = static_cast<LPTSTR>(copy);
      *lppMapiError = err;
    }
  }
  return MAPI_E_USER_CANCEL;
}

// The first provider's section, as a store service finds its own.
HRESULT OpenProviderSection(LPPROVIDERADMIN admin, LPPROFSECT* section) {
  LPMAPITABLE table = nullptr;
  HRESULT hr = admin->GetProviderTable(0, &table);
  if (FAILED(hr)) return hr;
  SizedSPropTagArray(1, cols) = {1, {PR_PROVIDER_UID}};
  LPSRowSet rows = nullptr;
  hr = table->SetColumns(reinterpret_cast<LPSPropTagArray>(&cols), 0);
  if (SUCCEEDED(hr)) hr = table->QueryRows(1, 0, &rows);
  if (SUCCEEDED(hr) && (!rows->cRows || rows->aRow[0].lpProps[0].ulPropTag != PR_PROVIDER_UID)) hr = MAPI_E_NOT_FOUND;
  if (SUCCEEDED(hr)) {
    hr = admin->OpenProfileSection(reinterpret_cast<LPMAPIUID>(rows->aRow[0].lpProps[0].Value.bin.lpb), nullptr,
                                   MAPI_MODIFY, section);
  }
  if (rows) FreeProws(rows);
  table->Release();
  return hr;
}

HRESULT OnCreate(LPMAPISUP sup, LPPROVIDERADMIN admin) {
  LPPROFSECT provider = nullptr;
  HRESULT hr = OpenProviderSection(admin, &provider);
  if (FAILED(hr)) return hr;
  MAPIUID uid;
  hr = sup->NewUID(&uid);
  SPropValue props[2] = {};
  props[0].ulPropTag = PR_TEST_CREATED;
  props[0].Value.lpszA = const_cast<LPSTR>("created");
  props[1].ulPropTag = PR_TEST_UID;
  props[1].Value.bin.cb = sizeof uid;
  props[1].Value.bin.lpb = uid.ab;
  if (SUCCEEDED(hr)) hr = provider->SetProps(2, props, nullptr);
  if (SUCCEEDED(hr)) hr = provider->SaveChanges(0);
  provider->Release();
  if (FAILED(hr)) return hr;
  LPPROFSECT service = nullptr;
  hr = sup->OpenProfileSection(nullptr, MAPI_MODIFY, &service);
  if (FAILED(hr)) return hr;
  SPropValue mark{};
  mark.ulPropTag = PR_TEST_SERVICE_MARK;
  mark.Value.lpszA = const_cast<LPSTR>("service");
  hr = service->SetProps(1, &mark, nullptr);
  if (SUCCEEDED(hr)) hr = service->SaveChanges(0);
  service->Release();
  return hr;
}

HRESULT OnConfigure(LPPROVIDERADMIN admin, ULONG cValues, LPSPropValue lpProps) {
  LPPROFSECT provider = nullptr;
  HRESULT hr = OpenProviderSection(admin, &provider);
  if (FAILED(hr)) return hr;
  LPSPropValue count = nullptr;
  ULONG n = 0;
  SizedSPropTagArray(1, tags) = {1, {PR_TEST_CONFIGURED}};
  provider->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), 0, &n, &count);
  SPropValue next{};
  next.ulPropTag = PR_TEST_CONFIGURED;
  next.Value.l = (count && count->ulPropTag == PR_TEST_CONFIGURED) ? count->Value.l + 1 : 1;
  MAPIFreeBuffer(count);
  hr = provider->SetProps(1, &next, nullptr);
  if (SUCCEEDED(hr) && cValues) hr = provider->SetProps(cValues, lpProps, nullptr);
  if (SUCCEEDED(hr)) hr = provider->SaveChanges(0);
  provider->Release();
  return hr;
}

}  // namespace

extern "C" HRESULT STDAPICALLTYPE ServiceEntry(HINSTANCE, LPMALLOC, LPMAPISUP lpMAPISup, ULONG_PTR, ULONG ulFlags,
                                               ULONG ulContext, ULONG cValues, LPSPropValue lpProps,
                                               LPPROVIDERADMIN lpProviderAdmin, LPMAPIERROR* lppMapiError) {
  Record(ulContext, ulFlags, cValues, lpProps);
  if (lppMapiError) *lppMapiError = nullptr;
  const char* fail = std::getenv("ADTEST_SERVICE_FAIL");
  if (fail && std::strtoul(fail, nullptr, 10) == ulContext) return Refuse(lpMAPISup, lppMapiError);
  switch (ulContext) {
    case MSG_SERVICE_CREATE: return OnCreate(lpMAPISup, lpProviderAdmin);
    case MSG_SERVICE_CONFIGURE: return OnConfigure(lpProviderAdmin, cValues, lpProps);
    default: return S_OK;
  }
}
