#include "snanoded/client_connection.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace sna::daemon {

ClientConnection::ClientConnection(int fd, proto::ClientId id, pid_t pid, uid_t uid,
                                   std::string login)
    : fd_(fd), id_(id), pid_(pid), uid_(uid), login_(std::move(login)) {}

ClientConnection::~ClientConnection() {
  if (fd_ >= 0) close(fd_);
}

ClientConnection::Io ClientConnection::read_some() {
  uint8_t buf[64 * 1024];
  for (;;) {
    const ssize_t n = recv(fd_, buf, sizeof buf, MSG_DONTWAIT);
    if (n > 0) {
      decoder_.append(buf, static_cast<size_t>(n));
      return Io::kOk;
    }
    if (n == 0) return Io::kClosed;
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) return Io::kWouldBlock;
    return Io::kError;
  }
}

void ClientConnection::queue(std::vector<uint8_t> frame) {
  queued_ += frame.size();
  out_.push_back(std::move(frame));
}

ClientConnection::Io ClientConnection::flush() {
  while (!out_.empty()) {
    const std::vector<uint8_t>& f = out_.front();
    const ssize_t n =
        send(fd_, f.data() + out_offset_, f.size() - out_offset_, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) return Io::kOk;
      return Io::kError;
    }
    out_offset_ += static_cast<size_t>(n);
    queued_ -= static_cast<size_t>(n);
    if (out_offset_ == f.size()) {
      out_.pop_front();
      out_offset_ = 0;
    }
  }
  return Io::kOk;
}

}  // namespace sna::daemon
