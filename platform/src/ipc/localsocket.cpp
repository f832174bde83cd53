// Unix-domain stream sockets for adplatform_ipc.h. Paths longer than sun_path go through
// /proc/self/fd/<n> of the opened directory, so deep state directories work too.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <random>
#include <thread>
#include <utility>

#include "adplatform_ipc.h"

namespace adp::ipc {

namespace {

// A sender that connected must finish its message within this time.
constexpr int kReadTimeoutMs = 2000;
constexpr size_t kReadChunk = size_t(1) << 20;
const char kSuffix[] = ".sock";

class Deadline {
 public:
  explicit Deadline(int timeoutMs)
      : m_infinite(timeoutMs < 0),
        m_end(std::chrono::steady_clock::now() + std::chrono::milliseconds(std::max(timeoutMs, 0))) {}
  // Milliseconds left for poll(): -1 without limit, 0 once passed.
  int RemainingMs() const {
    if (m_infinite) return -1;
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(m_end - std::chrono::steady_clock::now());
    return left.count() > 0 ? int(std::min<int64_t>(left.count(), 1 << 30)) : 0;
  }
  bool Passed() const { return !m_infinite && std::chrono::steady_clock::now() >= m_end; }

 private:
  bool m_infinite;
  std::chrono::steady_clock::time_point m_end;
};

class Fd {
 public:
  explicit Fd(int fd = -1) : m_fd(fd) {}
  ~Fd() { Reset(); }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int Get() const { return m_fd; }
  int Release() { return std::exchange(m_fd, -1); }
  void Reset(int fd = -1) {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = fd;
  }

 private:
  int m_fd;
};

// The sockaddr for dir/name; holds the directory open while a long path needs it.
class SocketAddress {
 public:
  bool Set(const std::string& dir, const std::string& name) {
    std::memset(&m_addr, 0, sizeof m_addr);
    m_addr.sun_family = AF_UNIX;
    std::string path = dir + "/" + name;
    if (path.size() >= sizeof m_addr.sun_path) {
      m_dir.Reset(::open(dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
      if (m_dir.Get() < 0) return false;
      path = "/proc/self/fd/" + std::to_string(m_dir.Get()) + "/" + name;
      if (path.size() >= sizeof m_addr.sun_path) return false;
    }
    std::memcpy(m_addr.sun_path, path.c_str(), path.size() + 1);
    return true;
  }
  const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&m_addr); }
  socklen_t Size() const { return socklen_t(sizeof m_addr); }

 private:
  sockaddr_un m_addr{};
  Fd m_dir;
};

void SplitPath(const std::string& path, std::string& dir, std::string& name) {
  size_t slash = path.rfind('/');
  dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
  name = slash == std::string::npos ? path : path.substr(slash + 1);
}

bool MakeDirectories(const std::string& dir) {
  struct stat st;
  if (::stat(dir.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
  size_t slash = dir.rfind('/');
  if (slash != std::string::npos && slash > 0 && !MakeDirectories(dir.substr(0, slash))) return false;
  return ::mkdir(dir.c_str(), 0700) == 0 || errno == EEXIST;
}

std::string UniqueName() {
  std::random_device device;
  uint64_t random = (uint64_t(device()) << 32) ^ device();
  char text[64];
  std::snprintf(text, sizeof text, "%d-%016llx", int(::getpid()), static_cast<unsigned long long>(random));
  return text;
}

bool IsEndpointName(const std::string& name) {
  size_t n = sizeof kSuffix - 1;
  return name.size() > n && name[0] != '.' && name.compare(name.size() - n, n, kSuffix) == 0;
}

// A refused connection means nobody listens: the file is what a dead process left behind.
void RemoveStale(const std::string& path) {
  struct stat st;
  if (::lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) ::unlink(path.c_str());
}

bool SameUser(int fd) {
  ucred cred{};
  socklen_t len = sizeof cred;
  return ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0 && cred.uid == ::geteuid();
}

// Waits for events on fd (and on wakeFd when given). 1 ready, 0 timed out, -1 woken or failed.
int WaitFor(int fd, short events, int wakeFd, const Deadline& deadline) {
  for (;;) {
    pollfd fds[2] = {{fd, events, 0}, {wakeFd, POLLIN, 0}};
    int r = ::poll(fds, wakeFd >= 0 ? 2 : 1, deadline.RemainingMs());
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) return -1;
    if (wakeFd >= 0 && fds[1].revents) return -1;
    if (r == 0) return 0;
    return 1;
  }
}

SendStatus SendAll(int fd, const uint8_t* data, size_t cb, const Deadline& deadline) {
  while (cb > 0) {
    ssize_t n = ::send(fd, data, cb, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      data += n;
      cb -= size_t(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      if (deadline.Passed() || WaitFor(fd, POLLOUT, -1, deadline) != 1) return SendStatus::Busy;
      continue;
    }
    return SendStatus::Failed;
  }
  return SendStatus::Sent;
}

SendStatus Connect(int fd, const SocketAddress& addr, const std::string& path, const Deadline& deadline) {
  for (;;) {
    if (::connect(fd, addr.Get(), addr.Size()) == 0) return SendStatus::Sent;
    switch (errno) {
      case EINTR:
        continue;
      case EAGAIN:  // the listen backlog is full: the peer does not accept
        if (deadline.Passed()) return SendStatus::Busy;
        std::this_thread::sleep_for(std::chrono::milliseconds(std::min(2, std::max(deadline.RemainingMs(), 1))));
        continue;
      case EINPROGRESS: {
        if (WaitFor(fd, POLLOUT, -1, deadline) != 1) return SendStatus::Busy;
        int error = 0;
        socklen_t len = sizeof error;
        ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &len);
        return error == 0 ? SendStatus::Sent : SendStatus::Failed;
      }
      case ECONNREFUSED:
        RemoveStale(path);
        return SendStatus::NoPeer;
      case ENOENT:
      case ENOTDIR:
        return SendStatus::NoPeer;
      default:
        return SendStatus::Failed;
    }
  }
}

bool ReadAll(int fd, int wakeFd, uint8_t* data, size_t cb, const Deadline& deadline) {
  while (cb > 0) {
    ssize_t n = ::recv(fd, data, cb, MSG_DONTWAIT);
    if (n > 0) {
      data += n;
      cb -= size_t(n);
      continue;
    }
    if (n == 0) return false;  // the sender went away mid-message
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return false;
    if (WaitFor(fd, POLLIN, wakeFd, deadline) != 1) return false;
  }
  return true;
}

}  // namespace

Endpoint::Endpoint(int listenFd, int wakeFd, std::string dir, std::string path)
    : m_listenFd(listenFd), m_wakeFd(wakeFd), m_dir(std::move(dir)), m_path(std::move(path)) {}

std::unique_ptr<Endpoint> Endpoint::Bind(const std::string& dir, int backlog) {
  if (dir.empty() || !MakeDirectories(dir)) return nullptr;
  std::string name = UniqueName();
  std::string temporary = "." + name + ".tmp";
  Fd sock(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  Fd wake(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  SocketAddress addr;
  if (sock.Get() < 0 || wake.Get() < 0 || !addr.Set(dir, temporary)) return nullptr;
  if (::bind(sock.Get(), addr.Get(), addr.Size()) != 0) return nullptr;
  std::string tempPath = dir + "/" + temporary;
  std::string path = dir + "/" + name + kSuffix;
  // Listen before the file gets its final name: senders take a refused connection for a dead peer.
  if (::listen(sock.Get(), backlog > 0 ? backlog : SOMAXCONN) != 0 || ::rename(tempPath.c_str(), path.c_str()) != 0) {
    ::unlink(tempPath.c_str());
    return nullptr;
  }
  return std::unique_ptr<Endpoint>(new Endpoint(sock.Release(), wake.Release(), dir, path));
}

Endpoint::~Endpoint() {
  ::unlink(m_path.c_str());
  ::close(m_listenFd);
  ::close(m_wakeFd);
}

void Endpoint::Interrupt() {
  uint64_t one = 1;
  // The counter is never read back, so the descriptor stays readable: interruption is sticky.
  [[maybe_unused]] ssize_t n = ::write(m_wakeFd, &one, sizeof one);
}

bool Endpoint::ReadOne(int fd, std::vector<uint8_t>& message) {
  Deadline deadline(kReadTimeoutMs);
  uint8_t header[4];
  if (!ReadAll(fd, m_wakeFd, header, sizeof header, deadline)) return false;
  size_t cb = size_t(header[0]) | size_t(header[1]) << 8 | size_t(header[2]) << 16 | size_t(header[3]) << 24;
  if (cb > kMaxMessageSize) return false;
  // Grows as bytes arrive, so a claimed length costs nothing until it is sent.
  message.clear();
  while (message.size() < cb) {
    size_t have = message.size();
    message.resize(have + std::min(kReadChunk, cb - have));
    if (!ReadAll(fd, m_wakeFd, message.data() + have, message.size() - have, deadline)) return false;
  }
  return true;
}

ReceiveStatus Endpoint::Receive(std::vector<uint8_t>& message, int timeoutMs) {
  Deadline deadline(timeoutMs);
  for (;;) {
    pollfd fds[2] = {{m_listenFd, POLLIN, 0}, {m_wakeFd, POLLIN, 0}};
    int r = ::poll(fds, 2, deadline.RemainingMs());
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) return ReceiveStatus::Failed;
    if (fds[1].revents) return ReceiveStatus::Interrupted;
    if (r == 0) return ReceiveStatus::Timeout;
    Fd conn(::accept4(m_listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (conn.Get() < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR || errno == ECONNABORTED) continue;
      return ReceiveStatus::Failed;
    }
    if (SameUser(conn.Get()) && ReadOne(conn.Get(), message)) return ReceiveStatus::Message;
    if (deadline.Passed()) return ReceiveStatus::Timeout;
  }
}

SendStatus SendMessage(const std::string& path, const void* data, size_t cb, int timeoutMs) {
  if (cb > kMaxMessageSize) return SendStatus::TooLarge;
  if (!data && cb) return SendStatus::Failed;
  std::string dir, name;
  SplitPath(path, dir, name);
  SocketAddress addr;
  if (name.empty() || !addr.Set(dir, name)) return SendStatus::NoPeer;
  Fd sock(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (sock.Get() < 0) return SendStatus::Failed;
  Deadline deadline(timeoutMs < 0 ? 0 : timeoutMs);
  SendStatus status = Connect(sock.Get(), addr, path, deadline);
  if (status != SendStatus::Sent) return status;
  uint8_t header[4] = {uint8_t(cb), uint8_t(cb >> 8), uint8_t(cb >> 16), uint8_t(cb >> 24)};
  status = SendAll(sock.Get(), header, sizeof header, deadline);
  if (status == SendStatus::Sent) status = SendAll(sock.Get(), static_cast<const uint8_t*>(data), cb, deadline);
  return status;
}

std::vector<std::string> ListEndpoints(const std::string& dir) {
  std::vector<std::string> paths;
  DIR* d = ::opendir(dir.c_str());
  if (!d) return paths;
  while (dirent* entry = ::readdir(d)) {
    std::string name = entry->d_name;
    if (IsEndpointName(name)) paths.push_back(dir + "/" + name);
  }
  ::closedir(d);
  std::sort(paths.begin(), paths.end());
  return paths;
}

}  // namespace adp::ipc
