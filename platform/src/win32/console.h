// The kernel object behind the handles of GetStdHandle: one of the process's standard streams.
// The file family may accept it in WriteFile/ReadFile through Fd().
#pragma once
#include <cstddef>
#include "win32/handle.h"

namespace adp {

// Writes everything to a descriptor, retrying short and interrupted writes.
bool WriteAllFd(int fd, const void* data, size_t size);

class ConsoleObject : public KernelObject {
 public:
  ConsoleObject(int fd, bool output) : m_fd(fd), m_output(output) {}
  int Fd() const { return m_fd; }
  bool IsOutput() const { return m_output; }
  bool Write(const void* data, size_t size) const { return WriteAllFd(m_fd, data, size); }

 private:
  int m_fd;
  bool m_output;
};

}  // namespace adp
