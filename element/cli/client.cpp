#include "element/cli/client.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace pbr::cli {
namespace {

using Clock = std::chrono::steady_clock;

std::string Seconds(std::chrono::milliseconds timeout) {
  const auto ms = timeout.count();
  if (ms % 1000 == 0) return std::to_string(ms / 1000) + " s";
  return std::to_string(ms) + " ms";
}

enum class Taken { kNone, kAnswer, kBad };

// Takes complete frames out of `stream` until the answer to `id` turns up. Answers to other
// requests (none are outstanding) and messages meant for daemons are passed over; id 0 answers
// a message the server could not take at all.
Taken TakeAnswer(mgmt::FramedStream& stream, uint64_t id, mgmt::Response* response,
                 std::string* error) {
  std::string payload;
  for (;;) {
    const mgmt::FramedStream::Frame frame = stream.Next(&payload);
    if (frame == mgmt::FramedStream::Frame::kIncomplete) return Taken::kNone;
    if (frame == mgmt::FramedStream::Frame::kOversized) {
      *error = "the management server sent a message over the size limit";
      return Taken::kBad;
    }
    mgmt::ServerMessage message;
    if (!message.ParseFromString(payload)) {
      *error = "the management server sent a malformed message";
      return Taken::kBad;
    }
    if (message.has_response() && (message.response().id() == id || message.response().id() == 0)) {
      *response = std::move(*message.mutable_response());
      return Taken::kAnswer;
    }
  }
}

}  // namespace

std::string DefaultSocketPath() {
  const char* runtime = std::getenv("PBR_ELEMENT_RUNTIME_DIR");
  return std::string(runtime && *runtime ? runtime : "/run/pbr-element") + "/mgmt.sock";
}

std::unique_ptr<MgmtClient> MgmtClient::Connect(const std::string& socketPath,
                                                std::chrono::milliseconds timeout,
                                                std::string* error) {
  const std::string where = "cannot reach the management server at " + socketPath + ": ";
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (socketPath.size() >= sizeof addr.sun_path) {
    *error = where + "path too long";
    return nullptr;
  }
  std::memcpy(addr.sun_path, socketPath.c_str(), socketPath.size() + 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    *error = where + std::strerror(errno);
    return nullptr;
  }
  // A connect on a UNIX socket waits for room in the server's backlog up to the send timeout.
  timeval tv{};
  tv.tv_sec = static_cast<time_t>(timeout.count() / 1000);
  tv.tv_usec = static_cast<suseconds_t>((timeout.count() % 1000) * 1000);
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
  int r;
  do {
    r = ::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
  } while (r != 0 && errno == EINTR);
  if (r != 0) {
    *error = where + (errno == EAGAIN ? "it accepts no connection (waited " + Seconds(timeout) + ")"
                                      : std::string(std::strerror(errno)));
    ::close(fd);
    return nullptr;
  }
  // From here on every wait goes through poll with the remaining time.
  ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
  return std::unique_ptr<MgmtClient>(new MgmtClient(fd, socketPath, timeout));
}

MgmtClient::MgmtClient(int fd, std::string socketPath, std::chrono::milliseconds timeout)
    : fd_(fd), socketPath_(std::move(socketPath)), timeout_(timeout) {}

MgmtClient::~MgmtClient() {
  ::close(fd_);
}

bool MgmtClient::Alive() const {
  // The server sends nothing unasked, so anything readable now is the end of the connection.
  pollfd p{fd_, POLLIN, 0};
  return ::poll(&p, 1, 0) == 0;
}

bool MgmtClient::Call(mgmt::ClientMessage request, mgmt::Response* response, std::string* error) {
  const uint64_t id = nextId_++;
  request.set_id(id);
  stream_.Queue(request);
  const Clock::time_point deadline = Clock::now() + timeout_;
  const std::string lost = "lost the connection to the management server at " + socketPath_;
  for (;;) {
    const Taken taken = TakeAnswer(stream_, id, response, error);
    if (taken != Taken::kNone) return taken == Taken::kAnswer;

    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) {
      *error = "the management server did not answer within " + Seconds(timeout_);
      return false;
    }
    pollfd p{fd_, static_cast<short>(POLLIN | (stream_.HasOutput() ? POLLOUT : 0)), 0};
    const int n = ::poll(&p, 1, static_cast<int>(left.count()));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      *error = lost + ": " + std::strerror(errno);
      return false;
    }
    if (n == 0) continue;  // the deadline check above reports it
    if ((p.revents & POLLOUT) && stream_.WriteTo(fd_) == mgmt::FramedStream::Io::kError) {
      *error = lost + ": " + std::strerror(errno);
      return false;
    }
    if (p.revents & (POLLIN | POLLHUP | POLLERR)) {
      const mgmt::FramedStream::Io io = stream_.ReadFrom(fd_);
      if (io == mgmt::FramedStream::Io::kError) {
        *error = lost + ": " + std::strerror(errno);
        return false;
      }
      if (io == mgmt::FramedStream::Io::kClosed) {
        // The answer may have come just before the end of the stream.
        const Taken last = TakeAnswer(stream_, id, response, error);
        if (last != Taken::kNone) return last == Taken::kAnswer;
        *error = lost + ": the server closed it";
        return false;
      }
    }
  }
}

}  // namespace pbr::cli
