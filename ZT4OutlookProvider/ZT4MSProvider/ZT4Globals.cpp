#include "ZT4Globals.h"

#include <objbase.h>

#include <atomic>

#include "ZT4_TRACES.h"

namespace {

// Written without a lock: two racing first callers each create an instance and the later one
// stays, which the data provider allows.
std::atomic<IZT4DataProvider*> g_pDataProvider{NULL};

}  // namespace

IZT4DataProvider* GetDataProvider() {
  IZT4DataProvider* pProvider = g_pDataProvider.load();
  if (pProvider) return pProvider;
  ZT4_LOG(ZT4_LEVEL_INFO, "Provider object is NULL, need to create it");
  HRESULT hResult = CoCreateInstance(CLSID_ZT4DataProvider, NULL, CLSCTX_INPROC_SERVER, IID_IZT4DataProvider,
                                     reinterpret_cast<LPVOID*>(&pProvider));
  if (FAILED(hResult) || !pProvider) {
    ZT4_LOG(ZT4_LEVEL_ERROR, "CoCreateInstance Failed:{0}");
    ZT4_LOG(ZT4_LEVEL_ERROR, "GetDataProvider:%x", hResult);
    return NULL;
  }
  g_pDataProvider.store(pProvider);
  return pProvider;
}
