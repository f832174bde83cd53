#include "win32/handle.h"

#include <mutex>
#include <unordered_set>

namespace adp {
namespace {

std::mutex& TableLock() {
  static std::mutex lock;
  return lock;
}
std::unordered_set<KernelObject*>& Table() {
  static auto* table = new std::unordered_set<KernelObject*>;  // outlives static destructors
  return *table;
}
thread_local DWORD t_lastError = 0;

}  // namespace

DWORD KernelObject::Wait(DWORD) {
  ::SetLastError(ERROR_INVALID_HANDLE);
  return WAIT_FAILED;
}

HANDLE RegisterHandle(KernelObject* obj) {
  std::lock_guard<std::mutex> guard(TableLock());
  Table().insert(obj);
  return static_cast<HANDLE>(obj);
}

KernelObject* ReferenceHandle(HANDLE h) {
  auto* obj = static_cast<KernelObject*>(h);
  std::lock_guard<std::mutex> guard(TableLock());
  if (h == nullptr || h == INVALID_HANDLE_VALUE || !Table().count(obj)) {
    t_lastError = ERROR_INVALID_HANDLE;
    return nullptr;
  }
  obj->AddRef();
  return obj;
}

}  // namespace adp

extern "C" {

DWORD GetLastError() { return adp::t_lastError; }
void SetLastError(DWORD dwErrCode) { adp::t_lastError = dwErrCode; }

BOOL CloseHandle(HANDLE hObject) {
  auto* obj = static_cast<adp::KernelObject*>(hObject);
  {
    std::lock_guard<std::mutex> guard(adp::TableLock());
    if (hObject == nullptr || hObject == INVALID_HANDLE_VALUE || !adp::Table().erase(obj)) {
      adp::t_lastError = ERROR_INVALID_HANDLE;
      return FALSE;
    }
  }
  obj->Release();
  return TRUE;
}

}  // extern "C"
