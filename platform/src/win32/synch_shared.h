// Named mutexes and events live in POSIX shared memory so that every process of one state
// directory meets the same object.
//
// Naming: "/adp-<hash of the state directory>-<encoded name>", so processes (and tests) with
// different state directories never meet. "Global\" and "Local\" prefixes are dropped.
//
// Cleanup: each region records the pids of the processes that have it open. A process removes
// itself when it closes its last handle or exits (or it is pruned once found dead), and whoever
// leaves the list empty unlinks the region, as Windows destroys an object with its last handle.
// A region whose recorded processes have all died is stale: the next opener starts it afresh.
// Only a killed last user leaves an entry in /dev/shm, reused or removed by the next process
// that opens the name.
#pragma once
#include <cstdint>
#include <memory>
#include <string>

#include "windows.h"

namespace adp {

enum class SharedKind : uint32_t { kMutex = 1, kEvent = 2 };

// One process's mapping of a named object. Opening and closing hold the region's file lock
// (flock), which orders initialisation, registration and unlinking between processes.
class SharedRegion {
 public:
  static constexpr size_t kBodySize = 2048;
  // Runs for a fresh object only, under the file lock, on zeroed body memory.
  using InitFn = void (*)(void* body, void* context);

  // The shared-memory name of an object name under the current state directory.
  static std::string PathFor(const std::string& name);
  // Opens the region at path (from PathFor); create: make the object when missing. Returns
  // nullptr with *error set on failure; *existed tells whether a live object was found.
  static std::unique_ptr<SharedRegion> Open(const std::string& path, SharedKind kind, bool create, InitFn init,
                                            void* context, bool* existed, DWORD* error);
  ~SharedRegion();
  SharedRegion(const SharedRegion&) = delete;
  SharedRegion& operator=(const SharedRegion&) = delete;

  void* Body() const;
  // Leaves the object as an ending process does: this process is no longer a user, and the
  // name goes if it was the last. The mapping stays usable until the region is destroyed.
  void Detach();

 private:
  SharedRegion(std::string shmName, int fd, void* base);
  std::string m_shmName;
  int m_fd;
  void* m_base;
  bool m_detached = false;
};

// The name an object is known by: prefix dropped. Empty when unnamed.
std::string KernelObjectName(const char* name);

}  // namespace adp
