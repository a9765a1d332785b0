// The server's read path against raw clients: a client streaming a large message does not hold
// up the others, and incomplete messages are bounded in size across connections and in time.
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>

#include "element/mgmt/framing.h"
#include "element/mgmt/mgmt.pb.h"
#include "element/mgmt/server.h"
#include "tests/element/middleware/element_env.h"

namespace pbr::mgmt {
namespace {

using namespace std::chrono_literals;

// Bytes a raw client may have in flight; large, so that writes complete before the server reads.
constexpr int kSendBuffer = 16 << 20;

class ServerInputTest : public ::testing::Test {
 protected:
  void Start(ServerOptions options) {
    ASSERT_EQ(sd_event_new(&event_), 0);
    options.runtimeDir = env_.RuntimeDir();
    options.stateDir = env_.StateDir();
    std::string error;
    server_ = Server::Create(event_, options, &error);
    ASSERT_TRUE(server_) << error;
  }
  void TearDown() override {
    for (int fd : fds_) close(fd);
    server_.reset();
    sd_event_unref(event_);
  }

  // A connected client whose writes up to kSendBuffer bytes complete at once where buffers that
  // large are allowed (bigBuffers_).
  int Connect() {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    fds_.push_back(fd);
    bigBuffers_ = setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &kSendBuffer, sizeof kSendBuffer) == 0;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    const std::string path = env_.RuntimeDir() + "/mgmt.sock";
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    Pump(10ms);  // accepted
    return fd;
  }

  // The start of a message announced as `announced` bytes: its header and `sent` bytes of it.
  void SendPartial(int fd, uint32_t announced, size_t sent) {
    std::string bytes(4 + sent, 'x');
    for (int i = 0; i < 4; ++i) bytes[i] = static_cast<char>(announced >> (24 - 8 * i));
    for (size_t at = 0; at < bytes.size();) {
      const ssize_t n = send(fd, bytes.data() + at, bytes.size() - at, MSG_DONTWAIT);
      if (n > 0) at += static_cast<size_t>(n);
      if (n < 0) Pump(1ms);  // the buffer is full after all: let the server read
    }
  }

  static void Request(int fd, uint64_t id) {
    ClientMessage message;
    message.set_id(id);
    message.mutable_get_running();
    FramedStream stream;
    stream.Queue(message);
    ASSERT_EQ(stream.WriteTo(fd), FramedStream::Io::kOk);
  }

  // Runs the server's loop until `fd` has a whole response, or `limit` passes; false without one.
  bool Await(int fd, Response* response, std::chrono::milliseconds limit = 5s) {
    FramedStream stream;
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
      Pump(0ms);
      pollfd p{fd, POLLIN, 0};
      if (poll(&p, 1, 1) == 1) {
        if (stream.ReadFrom(fd, 1 << 20) == FramedStream::Io::kError) return false;
        std::string payload;
        if (stream.Next(&payload) == FramedStream::Frame::kComplete) {
          ServerMessage message;
          return message.ParseFromString(payload) && message.has_response() &&
                 (*response = message.response(), true);
        }
      }
    }
    return false;
  }

  void Pump(std::chrono::milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    do {
      sd_event_run(event_, 1000);
    } while (std::chrono::steady_clock::now() < end);
  }

  // Bytes `fd` has written that the server has not read.
  static int Unread(int fd) {
    int queued = 0;
    ioctl(fd, SIOCOUTQ, &queued);
    return queued;
  }

  pbrtest::ElementEnv env_;
  sd_event* event_ = nullptr;
  std::unique_ptr<Server> server_;
  std::vector<int> fds_;
  bool bigBuffers_ = false;
};

TEST_F(ServerInputTest, AClientStreamingALargeMessageDoesNotHoldUpTheOthers) {
  ServerOptions options;
  options.readPerTurn = 256 << 10;
  Start(options);
  const int flood = Connect();
  const int operatorFd = Connect();
  if (!bigBuffers_) GTEST_SKIP() << "needs SO_SNDBUFFORCE (root)";
  SendPartial(flood, 12 << 20, 12 << 20);
  Request(operatorFd, 7);
  Response response;
  ASSERT_TRUE(Await(operatorFd, &response));
  EXPECT_EQ(response.id(), 7u);
  EXPECT_TRUE(response.ok());
  // The operator was answered within a few turns of the flood's reads.
  EXPECT_GT(Unread(flood), 10 << 20);
}

TEST_F(ServerInputTest, IncompleteMessagesAreBoundedAcrossConnectionsAndInTime) {
  ServerOptions options;
  options.inputBudget = 1 << 20;
  options.frameTimeout = 400ms;
  Start(options);
  const int first = Connect();
  const int second = Connect();
  const int operatorFd = Connect();
  if (!bigBuffers_) GTEST_SKIP() << "needs SO_SNDBUFFORCE (root)";
  SendPartial(first, 4 << 20, 600 << 10);
  Pump(20ms);
  SendPartial(second, 4 << 20, 600 << 10);  // 1.07 MiB over the free allowances: refused
  Response refusal;
  ASSERT_TRUE(Await(second, &refusal));
  EXPECT_FALSE(refusal.ok());
  EXPECT_NE(refusal.error().message().find("input budget"), std::string::npos);

  // Others are served meanwhile, and the stalled message runs out of time.
  Response response;
  Request(operatorFd, 8);
  ASSERT_TRUE(Await(operatorFd, &response));
  EXPECT_TRUE(response.ok());
  ASSERT_TRUE(Await(first, &refusal, 2s));
  EXPECT_NE(refusal.error().message().find("incomplete for over 400 ms"), std::string::npos);
  Request(operatorFd, 9);
  ASSERT_TRUE(Await(operatorFd, &response));
  EXPECT_EQ(response.id(), 9u);
  const std::string log = env_.Log();
  EXPECT_NE(log.find("over the server's input budget"), std::string::npos) << log;
  EXPECT_NE(log.find("incomplete for over 400 ms"), std::string::npos) << log;
}

TEST_F(ServerInputTest, MalformedAndOversizedMessagesEndOnlyTheirOwnSession) {
  Start({});
  const int bad = Connect();
  const int operatorFd = Connect();
  ASSERT_EQ(write(bad, "\0\0\0\3xyz", 7), 7);
  Response response;
  ASSERT_TRUE(Await(bad, &response));
  EXPECT_NE(response.error().message().find("malformed"), std::string::npos);
  SendPartial(bad, 0x7fffffff, 0);
  ASSERT_TRUE(Await(bad, &response));
  EXPECT_NE(response.error().message().find("too large"), std::string::npos);
  Pump(20ms);
  char c;
  EXPECT_EQ(read(bad, &c, 1), 0) << "the session stays open";

  Request(operatorFd, 1);
  ASSERT_TRUE(Await(operatorFd, &response));
  EXPECT_TRUE(response.ok());
}

}  // namespace
}  // namespace pbr::mgmt
