#include "operator_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "wire/wire_protocol.h"

namespace sna::tools {
namespace {

int64_t now_ms() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<int64_t>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

std::string env(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

}  // namespace

std::string default_socket_path() {
  if (std::string s = env("SNANODE_SOCKET"); !s.empty()) return s;
  if (std::string run = env("XDG_RUNTIME_DIR"); !run.empty()) return run + "/snanode/socket";
  return "/tmp/snanode-" + std::to_string(getuid()) + "/socket";
}

OperatorClient::~OperatorClient() {
  if (fd_ >= 0) ::close(fd_);
}

OperatorClient::ConnectResult OperatorClient::connect(const std::string& path, int timeout_ms,
                                                      std::string& error) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof addr.sun_path) {
    error = "socket path is empty or too long: " + path;
    return ConnectResult::kUnreachable;
  }
  std::memcpy(addr.sun_path, path.data(), path.size());
  fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) {
    error = std::string("cannot make a socket: ") + std::strerror(errno);
    return ConnectResult::kUnreachable;
  }
  if (::connect(fd_, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
    const int err = errno;
    ::close(fd_);
    fd_ = -1;
    error = std::strerror(err);
    return err == ENOENT || err == ECONNREFUSED ? ConnectResult::kNotRunning
                                                : ConnectResult::kUnreachable;
  }

  uint8_t hello[wire::kHelloSize];
  wire::Hello h;
  h.word_bits = static_cast<uint16_t>(sizeof(void*) * 8);
  h.pid = static_cast<uint32_t>(getpid());
  h.flags = wire::kHelloOperator;
  wire::encode_hello(hello, h);
  if (!send_frame(static_cast<uint16_t>(wire::Kind::kHello), 0,
                  std::string(reinterpret_cast<char*>(hello), sizeof hello), error))
    return ConnectResult::kUnreachable;

  const int64_t deadline = now_ms() + timeout_ms;
  uint8_t header[wire::kHeaderSize];
  if (!read_exact(header, sizeof header, deadline, error)) return ConnectResult::kUnreachable;
  const wire::FrameHeader fh = wire::decode_header(header);
  if (fh.kind != wire::Kind::kHelloReply || fh.length != wire::kHeaderSize + wire::kHelloSize) {
    error = "the node's first answer is not a HELLO reply";
    return ConnectResult::kUnreachable;
  }
  uint8_t body[wire::kHelloSize];
  if (!read_exact(body, sizeof body, deadline, error)) return ConnectResult::kUnreachable;
  const wire::HelloReply reply = wire::decode_hello_reply(body);
  if (reply.magic != wire::kMagic || reply.status != 0) {
    error = reply.magic != wire::kMagic ? "the node's HELLO reply has a bad magic number"
                                        : "the node refused protocol version " +
                                              std::to_string(wire::kVersion);
    return ConnectResult::kUnreachable;
  }
  daemon_pid_ = reply.daemon_pid;
  return ConnectResult::kConnected;
}

bool OperatorClient::send_frame(uint16_t kind, uint64_t tag, const std::string& body,
                                std::string& error) {
  if (body.size() > wire::kMaxRequestFrame - wire::kHeaderSize) {
    error = "command too long";
    return false;
  }
  std::vector<uint8_t> frame(wire::kHeaderSize + body.size());
  wire::FrameHeader h;
  h.length = static_cast<uint32_t>(frame.size());
  h.kind = static_cast<wire::Kind>(kind);
  h.tag = tag;
  wire::encode_header(frame.data(), h);
  std::memcpy(frame.data() + wire::kHeaderSize, body.data(), body.size());
  size_t done = 0;
  while (done < frame.size()) {
    const ssize_t n = ::send(fd_, frame.data() + done, frame.size() - done, MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR) continue;
      error = std::string("cannot send to the node: ") + std::strerror(errno);
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

bool OperatorClient::read_exact(uint8_t* out, size_t n, int64_t deadline_ms, std::string& error) {
  size_t done = 0;
  while (done < n) {
    const int64_t left = deadline_ms - now_ms();
    if (left <= 0) {
      error = "the node did not answer in time";
      return false;
    }
    pollfd p{fd_, POLLIN, 0};
    const int ready = ::poll(&p, 1, static_cast<int>(left));
    if (ready < 0) {
      if (errno == EINTR) continue;
      error = std::string("poll: ") + std::strerror(errno);
      return false;
    }
    if (ready == 0) continue;  // the deadline check above ends the wait
    const ssize_t got = ::recv(fd_, out + done, n - done, 0);
    if (got < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      error = std::string("connection to the node lost: ") + std::strerror(errno);
      return false;
    }
    if (got == 0) {
      error = "the node closed the connection";
      return false;
    }
    done += static_cast<size_t>(got);
  }
  return true;
}

std::optional<std::string> OperatorClient::request(const std::string& command, int timeout_ms,
                                                   std::string& error) {
  if (fd_ < 0) {
    error = "not connected";
    return std::nullopt;
  }
  const uint64_t tag = next_tag_++;
  if (!send_frame(static_cast<uint16_t>(wire::Kind::kOperator), tag, command, error))
    return std::nullopt;
  const int64_t deadline = now_ms() + timeout_ms;
  for (;;) {
    uint8_t header[wire::kHeaderSize];
    if (!read_exact(header, sizeof header, deadline, error)) return std::nullopt;
    const wire::FrameHeader h = wire::decode_header(header);
    if (h.length < wire::kHeaderSize || h.length > wire::kMaxReplyFrame) {
      error = "malformed frame from the node (length " + std::to_string(h.length) + ")";
      return std::nullopt;
    }
    std::string body(h.length - wire::kHeaderSize, '\0');
    if (!body.empty() &&
        !read_exact(reinterpret_cast<uint8_t*>(body.data()), body.size(), deadline, error))
      return std::nullopt;
    // Anything else (a push, an answer to an earlier, abandoned request)
    // is not ours to act on.
    if (h.kind == wire::Kind::kOperatorReply && h.tag == tag) return body;
  }
}

bool OperatorClient::wait_closed(int timeout_ms) {
  if (fd_ < 0) return true;
  const int64_t deadline = now_ms() + timeout_ms;
  uint8_t scratch[4096];
  for (;;) {
    const int64_t left = deadline - now_ms();
    if (left <= 0) return false;
    pollfd p{fd_, POLLIN, 0};
    const int ready = ::poll(&p, 1, static_cast<int>(left));
    if (ready < 0 && errno != EINTR) return false;
    if (ready <= 0) continue;
    const ssize_t got = ::recv(fd_, scratch, sizeof scratch, 0);
    if (got == 0 || (got < 0 && errno != EINTR && errno != EAGAIN)) {
      ::close(fd_);
      fd_ = -1;
      return true;
    }
  }
}

}  // namespace sna::tools
