// MAPIInitialize and MAPIUninitialize: reference counted per process, as published. Every
// successful MAPIInitialize needs its MAPIUninitialize; the last one ends the subsystem.
#include "mapiinit.h"

#include <mutex>
#include <vector>

#include "mapicode.h"
#include "mapisvc.h"
#include "mapix.h"

namespace adm {
namespace {

constexpr ULONG kNtService = 0x00010000;  // MAPI_NT_SERVICE in MAPIINIT_0

struct InitState {
  std::mutex lock;  // leaf lock: guards what follows
  ULONG count = 0;
  std::vector<std::function<void()>> hooks;
};

InitState& TheState() {
  static InitState* state = new InitState;  // never destroyed: may be used from exit handlers
  return *state;
}

}  // namespace

bool MapiInitialized() {
  InitState& s = TheState();
  std::lock_guard<std::mutex> guard(s.lock);  // lock order: leaf
  return s.count > 0;
}

void AddUninitializeHook(std::function<void()> hook) {
  InitState& s = TheState();
  std::lock_guard<std::mutex> guard(s.lock);  // lock order: leaf
  s.hooks.push_back(std::move(hook));
}

}  // namespace adm

extern "C" HRESULT STDAPICALLTYPE MAPIInitialize(LPVOID lpMapiInit) {
  if (lpMapiInit) {
    const MAPIINIT_0* init = static_cast<const MAPIINIT_0*>(lpMapiInit);
    if (init->ulVersion > MAPI_INIT_VERSION) return MAPI_E_VERSION;
    if (init->ulFlags & ~(MAPI_MULTITHREAD_NOTIFICATIONS | MAPI_NO_COINIT | adm::kNtService)) {
      return MAPI_E_UNKNOWN_FLAGS;
    }
  }
  adm::InitState& s = adm::TheState();
  bool first;
  {
    std::lock_guard<std::mutex> guard(s.lock);  // lock order: leaf
    first = s.count++ == 0;
  }
  if (first) adm::InstallSubsystemFiles();
  return S_OK;
}

extern "C" void STDAPICALLTYPE MAPIUninitialize(void) {
  adm::InitState& s = adm::TheState();
  std::vector<std::function<void()>> hooks;
  {
    std::lock_guard<std::mutex> guard(s.lock);  // lock order: leaf
    if (s.count == 0) return;  // unmatched: nothing to end
    if (--s.count > 0) return;
    hooks.swap(s.hooks);
  }
  for (auto it = hooks.rbegin(); it != hooks.rend(); ++it) (*it)();
}
