// A scripted stand-in for the node daemon, inside the test process: it
// listens on a socket, answers HELLO, and hands every other request to the
// test, which answers it (or not) as the case needs.
#ifndef SNANODE_TESTS_FAKE_DAEMON_H
#define SNANODE_TESTS_FAKE_DAEMON_H

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "wire/wire_protocol.h"

namespace snanode_test {

namespace wire = sna::wire;

struct Request {
  int connection = -1;
  wire::FrameHeader header;
  std::vector<uint8_t> body;

  wire::Verb verb() const { return wire::decode_verb(body.data()); }
  std::vector<uint8_t> data() const {
    return std::vector<uint8_t>(body.begin() + wire::kVerbFixedSize, body.end());
  }
  wire::Nof nof() const { return wire::decode_nof(body.data()); }
};

struct HelloSeen {
  int connection;
  wire::Hello hello;
};

inline bool read_all(int fd, uint8_t *to, size_t n) {
  size_t got = 0;
  while (got < n) {
    ssize_t r = read(fd, to + got, n - got);
    if (r > 0) {
      got += static_cast<size_t>(r);
    } else if (r == 0 || errno != EINTR) {
      return false;
    }
  }
  return true;
}

inline bool write_all(int fd, const uint8_t *from, size_t n) {
  size_t sent = 0;
  while (sent < n) {
    ssize_t r = send(fd, from + sent, n - sent, MSG_NOSIGNAL);
    if (r > 0) {
      sent += static_cast<size_t>(r);
    } else if (r < 0 && errno != EINTR) {
      return false;
    }
  }
  return true;
}

inline std::vector<uint8_t> frame(wire::Kind kind, uint64_t tag, const std::vector<uint8_t> &body) {
  std::vector<uint8_t> bytes(wire::kHeaderSize + body.size());
  wire::FrameHeader header;
  header.length = static_cast<uint32_t>(bytes.size());
  header.kind = kind;
  header.tag = tag;
  wire::encode_header(bytes.data(), header);
  std::memcpy(bytes.data() + wire::kHeaderSize, body.data(), body.size());
  return bytes;
}

class FakeDaemon {
 public:
  struct Options {
    bool answer_hello = true;
    uint16_t hello_status = 0;
  };

  explicit FakeDaemon(const std::string &path) : FakeDaemon(path, Options()) {}

  FakeDaemon(const std::string &path, Options options) : path_(path), options_(options) {
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    unlink(path.c_str());
    if (bind(listen_fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        listen(listen_fd_, 16) != 0 || pipe2(stop_, O_CLOEXEC) != 0)
      abort();
    server_ = std::thread([this] { serve(); });
  }

  ~FakeDaemon() {
    drop_connections();
    char byte = 1;
    if (write(stop_[1], &byte, 1) != 1) abort();
    server_.join();
    for (auto &entry : connections_) close(entry.second);
    close(listen_fd_);
    close(stop_[0]);
    close(stop_[1]);
    unlink(path_.c_str());
  }

  FakeDaemon(const FakeDaemon &) = delete;
  FakeDaemon &operator=(const FakeDaemon &) = delete;

  // The next request any client sent, in arrival order.
  bool next_request(Request *out, int timeout_ms = 5000) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                           [this] { return !requests_.empty(); }))
      return false;
    *out = requests_.front();
    requests_.pop_front();
    return true;
  }

  bool wait_hellos(size_t n, int timeout_ms = 5000) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                             [&] { return hellos_.size() >= n; });
  }

  // Waits until no client connection is open.
  bool wait_no_connections(int timeout_ms = 5000) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                             [&] { return connections_.empty(); });
  }

  std::vector<HelloSeen> hellos() {
    std::lock_guard<std::mutex> lock(mutex_);
    return hellos_;
  }

  static std::vector<uint8_t> verb_reply_frame(uint64_t tag, const wire::VerbReply &reply,
                                               const std::vector<uint8_t> &data) {
    std::vector<uint8_t> body(wire::kVerbReplyFixedSize);
    wire::encode_verb_reply(body.data(), reply);
    body.insert(body.end(), data.begin(), data.end());
    return frame(wire::Kind::kVerbReply, tag, body);
  }

  void reply_verb(const Request &to, const wire::VerbReply &reply,
                  const std::vector<uint8_t> &data = {}) {
    send_raw(to.connection, verb_reply_frame(to.header.tag, reply, data));
  }

  void reply_nof(const Request &to, const wire::NofReply &reply,
                 const std::vector<uint8_t> &entries = {}) {
    std::vector<uint8_t> body(wire::kNofReplyFixedSize);
    wire::encode_nof_reply(body.data(), reply);
    body.insert(body.end(), entries.begin(), entries.end());
    send_raw(to.connection, frame(wire::Kind::kNofReply, to.header.tag, body));
  }

  void push_trace(int connection, bool on, const std::string &path) {
    std::vector<uint8_t> body(wire::kTraceControlFixedSize + path.size());
    wire::put8(body.data(), 0, on ? 1 : 0);
    wire::put16(body.data(), 2, static_cast<uint16_t>(path.size()));
    std::memcpy(body.data() + wire::kTraceControlFixedSize, path.data(), path.size());
    send_raw(connection, frame(wire::Kind::kTraceControl, 0, body));
  }

  void send_raw(int connection, const std::vector<uint8_t> &bytes) {
    std::lock_guard<std::mutex> lock(write_mutex_);
    int fd = -1;
    {
      std::lock_guard<std::mutex> state(mutex_);
      auto found = connections_.find(connection);
      if (found != connections_.end()) fd = found->second;
    }
    if (fd >= 0) write_all(fd, bytes.data(), bytes.size());
  }

  // Stops reading from a client, leaving the connection open: the
  // client's next write fails.
  void stop_reading(int connection) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = connections_.find(connection);
    if (found == connections_.end()) return;
    deaf_.insert(connection);
    shutdown(found->second, SHUT_RD);
  }

  // Ends every client connection, as a daemon that stops.
  void drop_connections() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto &entry : connections_) shutdown(entry.second, SHUT_RDWR);
  }

 private:
  void serve() {
    for (;;) {
      std::vector<pollfd> polled = {{stop_[0], POLLIN, 0}, {listen_fd_, POLLIN, 0}};
      std::vector<int> ids;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto &entry : connections_) {
          if (deaf_.count(entry.first)) continue;
          polled.push_back({entry.second, POLLIN, 0});
          ids.push_back(entry.first);
        }
      }
      if (poll(polled.data(), polled.size(), -1) < 0) {
        if (errno == EINTR) continue;
        abort();
      }
      if (polled[0].revents) return;
      if (polled[1].revents & POLLIN) {
        int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
          std::lock_guard<std::mutex> lock(mutex_);
          connections_[next_connection_++] = fd;
        }
      }
      for (size_t i = 2; i < polled.size(); ++i) {
        if (!polled[i].revents) continue;
        {
          std::lock_guard<std::mutex> lock(mutex_);
          if (deaf_.count(ids[i - 2])) continue;  // made deaf while polled
        }
        if (!read_frame(ids[i - 2], polled[i].fd)) {
          // No writer may hold the descriptor while it is closed.
          std::lock_guard<std::mutex> writing(write_mutex_);
          std::lock_guard<std::mutex> lock(mutex_);
          close(polled[i].fd);
          connections_.erase(ids[i - 2]);
          changed_.notify_all();
        }
      }
    }
  }

  bool read_frame(int id, int fd) {
    uint8_t head[wire::kHeaderSize];
    if (!read_all(fd, head, sizeof head)) return false;
    Request request;
    request.connection = id;
    request.header = wire::decode_header(head);
    if (request.header.length < wire::kHeaderSize) return false;
    request.body.resize(request.header.length - wire::kHeaderSize);
    if (!read_all(fd, request.body.data(), request.body.size())) return false;
    if (request.header.kind == wire::Kind::kHello) {
      wire::Hello hello = wire::decode_hello(request.body.data());
      {
        std::lock_guard<std::mutex> lock(mutex_);
        hellos_.push_back({id, hello});
        changed_.notify_all();
      }
      if (options_.answer_hello) {
        std::vector<uint8_t> body(wire::kHelloSize);
        wire::HelloReply reply;
        reply.status = options_.hello_status;
        reply.daemon_pid = static_cast<uint32_t>(getpid());
        wire::encode_hello_reply(body.data(), reply);
        send_raw(id, frame(wire::Kind::kHelloReply, 0, body));
      }
      return true;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    requests_.push_back(std::move(request));
    changed_.notify_all();
    return true;
  }

  std::string path_;
  Options options_;
  int listen_fd_ = -1;
  int stop_[2] = {-1, -1};
  std::thread server_;
  std::mutex mutex_;
  std::mutex write_mutex_;
  std::condition_variable changed_;
  std::map<int, int> connections_;
  std::set<int> deaf_;
  int next_connection_ = 1;
  std::deque<Request> requests_;
  std::vector<HelloSeen> hellos_;
};

}  // namespace snanode_test

#endif
