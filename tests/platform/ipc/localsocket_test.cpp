#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "adplatform_ipc.h"
#include "test_home.h"

using adp::ipc::Endpoint;
using adp::ipc::ReceiveStatus;
using adp::ipc::SendStatus;

namespace {

bool Exists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

std::vector<uint8_t> Pattern(size_t cb, uint8_t seed) {
  std::vector<uint8_t> bytes(cb);
  for (size_t i = 0; i < cb; ++i) bytes[i] = uint8_t(seed + i * 7 + (i >> 9));
  return bytes;
}

// A raw client that writes whatever bytes it is given, as a broken or hostile sender would.
void SendRaw(const std::string& path, const std::vector<uint8_t>& bytes) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  ASSERT_LT(path.size(), sizeof addr.sun_path);
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  if (!bytes.empty()) {
    ASSERT_EQ(::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), ssize_t(bytes.size()));
  }
  ::close(fd);
}

}  // namespace

TEST(LocalSocket, BindListsAndRemovesItsEndpoint) {
  adtest::TempHome home;
  std::string dir = home.Home() + "/run/a/b";
  std::vector<std::string> none = adp::ipc::ListEndpoints(dir);
  EXPECT_TRUE(none.empty());
  std::string path;
  {
    auto first = Endpoint::Bind(dir);
    auto second = Endpoint::Bind(dir);
    ASSERT_TRUE(first && second);
    EXPECT_NE(first->Path(), second->Path());
    std::vector<std::string> listed = adp::ipc::ListEndpoints(dir);
    ASSERT_EQ(listed.size(), 2u);
    EXPECT_TRUE(listed[0] == first->Path() || listed[1] == first->Path());
    struct stat st;
    ASSERT_EQ(::stat(dir.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    path = first->Path();
  }
  EXPECT_FALSE(Exists(path));
  EXPECT_TRUE(adp::ipc::ListEndpoints(dir).empty());
  // Files that are not endpoints are not listed.
  std::ofstream(dir + "/notes.txt") << "x";
  std::ofstream(dir + "/.half.sock.tmp") << "x";
  EXPECT_TRUE(adp::ipc::ListEndpoints(dir).empty());
}

TEST(LocalSocket, MessagesArriveWholeAndInOrder) {
  adtest::TempHome home;
  auto endpoint = Endpoint::Bind(home.Home() + "/run");
  ASSERT_TRUE(endpoint);
  // Larger than any socket buffer, so the sender needs the receiver to read while it writes.
  std::vector<std::vector<uint8_t>> sent = {Pattern(0, 1), Pattern(1, 2), Pattern(70000, 3), Pattern(3 << 20, 4),
                                            Pattern(5, 5)};
  std::thread sender([&] {
    for (const auto& m : sent) EXPECT_EQ(adp::ipc::SendMessage(endpoint->Path(), m.data(), m.size(), 20000), SendStatus::Sent);
  });
  std::vector<uint8_t> got;
  for (const auto& m : sent) {
    ASSERT_EQ(endpoint->Receive(got, 20000), ReceiveStatus::Message);
    EXPECT_TRUE(got == m) << "size " << got.size() << " expected " << m.size();
  }
  sender.join();
  EXPECT_EQ(endpoint->Receive(got, 10), ReceiveStatus::Timeout);
}

TEST(LocalSocket, InterruptEndsEveryLaterReceive) {
  adtest::TempHome home;
  auto endpoint = Endpoint::Bind(home.Home() + "/run");
  ASSERT_TRUE(endpoint);
  std::thread waker([&] { endpoint->Interrupt(); });
  std::vector<uint8_t> got;
  EXPECT_EQ(endpoint->Receive(got, -1), ReceiveStatus::Interrupted);
  waker.join();
  EXPECT_EQ(endpoint->Receive(got, -1), ReceiveStatus::Interrupted);
}

TEST(LocalSocket, DeadAndMissingPeersAreReportedNotWaitedFor) {
  adtest::TempHome home;
  std::string dir = home.Home() + "/run";
  ASSERT_TRUE(Endpoint::Bind(dir));  // creates the directory
  // A socket file with no listener, as a killed process leaves it.
  std::string stale = dir + "/999999-dead.sock";
  int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path, stale.c_str(), stale.size() + 1);
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ::close(fd);
  ASSERT_EQ(adp::ipc::ListEndpoints(dir).size(), 1u);
  uint8_t byte = 1;
  EXPECT_EQ(adp::ipc::SendMessage(stale, &byte, 1, 1000), SendStatus::NoPeer);
  EXPECT_FALSE(Exists(stale));
  EXPECT_EQ(adp::ipc::SendMessage(dir + "/gone.sock", &byte, 1, 1000), SendStatus::NoPeer);
  EXPECT_EQ(adp::ipc::SendMessage(dir + "/nodir/x.sock", &byte, 1, 1000), SendStatus::NoPeer);
  // A regular file in the way is refused too, but it is not ours to delete.
  std::string plain = dir + "/plain.sock";
  std::ofstream(plain) << "data";
  EXPECT_EQ(adp::ipc::SendMessage(plain, &byte, 1, 1000), SendStatus::NoPeer);
  EXPECT_TRUE(Exists(plain));
  std::vector<uint8_t> huge(adp::ipc::kMaxMessageSize + 1);
  auto endpoint = Endpoint::Bind(dir);
  ASSERT_TRUE(endpoint);
  EXPECT_EQ(adp::ipc::SendMessage(endpoint->Path(), huge.data(), huge.size(), 1000), SendStatus::TooLarge);
}

TEST(LocalSocket, StuckPeerMakesSendsBusyAndKeepsWhatWasSent) {
  adtest::TempHome home;
  auto endpoint = Endpoint::Bind(home.Home() + "/run", 1);
  ASSERT_TRUE(endpoint);
  // Nobody receives: the backlog fills and sends give up instead of blocking.
  std::vector<uint32_t> accepted;
  bool sawBusy = false;
  for (uint32_t i = 0; i < 2000 && !sawBusy; ++i) {
    SendStatus status = adp::ipc::SendMessage(endpoint->Path(), &i, sizeof i, 20);
    if (status == SendStatus::Sent) accepted.push_back(i);
    sawBusy = status == SendStatus::Busy;
    ASSERT_TRUE(status == SendStatus::Sent || status == SendStatus::Busy);
  }
  EXPECT_TRUE(sawBusy);
  uint32_t busyOnce = 7;
  EXPECT_EQ(adp::ipc::SendMessage(endpoint->Path(), &busyOnce, sizeof busyOnce, 0), SendStatus::Busy);
  // Once it reads again, what was sent arrives in order.
  std::vector<uint32_t> received;
  std::vector<uint8_t> got;
  while (endpoint->Receive(got, 200) == ReceiveStatus::Message) {
    ASSERT_EQ(got.size(), 4u);
    uint32_t v;
    std::memcpy(&v, got.data(), 4);
    received.push_back(v);
  }
  EXPECT_EQ(received, accepted);
  uint32_t after = 4242;
  EXPECT_EQ(adp::ipc::SendMessage(endpoint->Path(), &after, sizeof after, 1000), SendStatus::Sent);
  ASSERT_EQ(endpoint->Receive(got, 5000), ReceiveStatus::Message);
  EXPECT_EQ(got.size(), 4u);
}

TEST(LocalSocket, BrokenFramesAreDroppedAndTheNextMessageStillArrives) {
  adtest::TempHome home;
  auto endpoint = Endpoint::Bind(home.Home() + "/run");
  ASSERT_TRUE(endpoint);
  size_t tooBig = adp::ipc::kMaxMessageSize + 1;
  SendRaw(endpoint->Path(), {uint8_t(tooBig), uint8_t(tooBig >> 8), uint8_t(tooBig >> 16), uint8_t(tooBig >> 24)});
  SendRaw(endpoint->Path(), {100, 0, 0, 0, 1, 2, 3});  // shorter than it claims
  SendRaw(endpoint->Path(), {2, 0});                     // not even a length
  SendRaw(endpoint->Path(), {});                         // connects and leaves
  std::vector<uint8_t> good = Pattern(33, 9);
  ASSERT_EQ(adp::ipc::SendMessage(endpoint->Path(), good.data(), good.size(), 1000), SendStatus::Sent);
  std::vector<uint8_t> got;
  ASSERT_EQ(endpoint->Receive(got, 10000), ReceiveStatus::Message);
  EXPECT_EQ(got, good);
}

TEST(LocalSocket, DeepDirectoriesWorkBeyondTheSocketPathLimit) {
  adtest::TempHome home;
  std::string dir = home.Home() + "/run";
  while (dir.size() < 200) dir += "/a-rather-long-directory-name";
  auto endpoint = Endpoint::Bind(dir);
  ASSERT_TRUE(endpoint);
  EXPECT_GT(endpoint->Path().size(), sizeof(sockaddr_un::sun_path));
  ASSERT_EQ(adp::ipc::ListEndpoints(dir).size(), 1u);
  std::vector<uint8_t> m = Pattern(100, 3), got;
  EXPECT_EQ(adp::ipc::SendMessage(endpoint->Path(), m.data(), m.size(), 1000), SendStatus::Sent);
  ASSERT_EQ(endpoint->Receive(got, 10000), ReceiveStatus::Message);
  EXPECT_EQ(got, m);
  // A dead endpoint down there is cleaned up like any other.
  std::string path = endpoint->Path();
  std::string copy = dir + "/1-copy.sock";
  ASSERT_EQ(::link(path.c_str(), copy.c_str()), 0);
  endpoint.reset();
  EXPECT_EQ(adp::ipc::SendMessage(copy, m.data(), m.size(), 1000), SendStatus::NoPeer);
  EXPECT_FALSE(Exists(copy));
}
