// Whole messages between processes of one user over Unix-domain stream sockets. A receiving
// process binds an endpoint (a socket file) in a shared directory; senders list the directory and
// send to each endpoint. No Win32 counterpart: messaging/ uses this for its notification bus.
//
// Frame on the socket: one connection carries one message, a 32-bit little-endian length followed
// by that many bytes. A receiver takes connections in the order they were made, so the messages of
// one sending thread arrive in the order it sent them, whole or not at all.
//
// Timeouts are wall-clock milliseconds: they bound kernel I/O, not system time, so the test time
// scale does not shorten them.
#pragma once
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace adp::ipc {

constexpr size_t kMaxMessageSize = size_t(16) << 20;

enum class SendStatus {
  Sent,      // handed to the peer's socket
  NoPeer,    // nothing listens there: the file is gone, or was a dead process's and is removed now
  Busy,      // the peer did not take the message within the timeout (stopped or stuck)
  TooLarge,  // over kMaxMessageSize
  Failed,    // any other error (reset by the peer mid-message, no descriptors, ...)
};

enum class ReceiveStatus { Message, Timeout, Interrupted, Failed };

class Endpoint {
 public:
  // Binds a fresh endpoint "<pid>-<random>.sock" in dir (created, mode 0700, when missing). The
  // file appears only once the socket listens, so a sender never mistakes a starting process for
  // a dead one. nullptr on failure. backlog 0 takes the system's maximum.
  static std::unique_ptr<Endpoint> Bind(const std::string& dir, int backlog = 0);
  ~Endpoint();  // closes the socket and removes its file
  Endpoint(const Endpoint&) = delete;
  Endpoint& operator=(const Endpoint&) = delete;

  const std::string& Path() const { return m_path; }

  // Waits up to timeoutMs (-1: no limit) for the next message. A sender that stalls or sends a
  // malformed frame is dropped and the wait goes on; only messages from the same user are taken.
  ReceiveStatus Receive(std::vector<uint8_t>& message, int timeoutMs);
  // Makes the current and every later Receive return Interrupted. Safe from any thread.
  void Interrupt();

 private:
  Endpoint(int listenFd, int wakeFd, std::string dir, std::string path);
  bool ReadOne(int fd, std::vector<uint8_t>& message);

  int m_listenFd;
  int m_wakeFd;
  std::string m_dir;
  std::string m_path;
};

// Sends one message to the endpoint at path, giving up after timeoutMs (0 or less: only what the
// kernel takes at once).
SendStatus SendMessage(const std::string& path, const void* data, size_t cb, int timeoutMs);

// Full paths of the endpoints in dir, sorted; empty when the directory does not exist.
std::vector<std::string> ListEndpoints(const std::string& dir);

}  // namespace adp::ipc
