// Kernel objects behind HANDLE values. Every HANDLE the stand-in gives out is a KernelObject
// registered in one table, so stale or foreign handles are refused instead of dereferenced.
#pragma once
#include <atomic>
#include "windows.h"

namespace adp {

class KernelObject {
 public:
  KernelObject() = default;
  KernelObject(const KernelObject&) = delete;
  KernelObject& operator=(const KernelObject&) = delete;

  void AddRef() { m_refs.fetch_add(1, std::memory_order_relaxed); }
  void Release() {
    if (m_refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }
  // Waitable objects override this; the timeout is in system milliseconds (INFINITE allowed).
  // Returns WAIT_OBJECT_0, WAIT_TIMEOUT, WAIT_ABANDONED or WAIT_FAILED (with SetLastError).
  virtual DWORD Wait(DWORD dwMilliseconds);

 protected:
  virtual ~KernelObject() = default;

 private:
  std::atomic<long> m_refs{1};
};

// Registers obj (taking over its reference) and returns the handle for it.
HANDLE RegisterHandle(KernelObject* obj);
// The object behind a live handle with a reference added, or nullptr (ERROR_INVALID_HANDLE set).
KernelObject* ReferenceHandle(HANDLE h);
// As ReferenceHandle, then a checked downcast; nullptr if the handle is of another kind.
template <class T> T* ReferenceHandleAs(HANDLE h) {
  KernelObject* obj = ReferenceHandle(h);
  if (!obj) return nullptr;
  if (T* typed = dynamic_cast<T*>(obj)) return typed;
  obj->Release();
  SetLastError(ERROR_INVALID_HANDLE);
  return nullptr;
}

// RAII reference from ReferenceHandleAs.
template <class T> class HandleRef {
 public:
  explicit HandleRef(HANDLE h) : m_obj(ReferenceHandleAs<T>(h)) {}
  ~HandleRef() { if (m_obj) m_obj->Release(); }
  HandleRef(const HandleRef&) = delete;
  HandleRef& operator=(const HandleRef&) = delete;
  T* operator->() const { return m_obj; }
  T* get() const { return m_obj; }
  explicit operator bool() const { return m_obj != nullptr; }

 private:
  T* m_obj;
};

}  // namespace adp
