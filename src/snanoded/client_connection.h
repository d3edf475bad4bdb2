// One client's socket: the request stream (through a FrameDecoder) and the
// queue of frames waiting to be written. The queue's size drives
// backpressure: above kHighWater the daemon stops taking this client's
// requests until the queue has drained below kLowWater, so a client that
// never reads cannot make the daemon grow.
#ifndef SNA_SNANODED_CLIENT_CONNECTION_H
#define SNA_SNANODED_CLIENT_CONNECTION_H

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "protocol/actions.h"
#include "snanoded/frame_decoder.h"

namespace sna::daemon {

class ClientConnection {
 public:
  static constexpr size_t kHighWater = 256 * 1024;
  static constexpr size_t kLowWater = kHighWater / 2;

  enum class Io { kOk, kWouldBlock, kClosed, kError };

  ClientConnection(int fd, proto::ClientId id, pid_t pid, uid_t uid, std::string login);
  ~ClientConnection();
  ClientConnection(const ClientConnection&) = delete;
  ClientConnection& operator=(const ClientConnection&) = delete;

  int fd() const { return fd_; }
  proto::ClientId id() const { return id_; }
  pid_t pid() const { return pid_; }
  uid_t uid() const { return uid_; }
  const std::string& login() const { return login_; }

  // One read() into the decoder: kOk when bytes came, kWouldBlock when
  // none were waiting, kClosed at end of stream.
  Io read_some();
  FrameDecoder& decoder() { return decoder_; }

  // Appends a whole frame to the output queue (nothing is written yet).
  void queue(std::vector<uint8_t> frame);
  // Writes queued frames until the socket would block or the queue is
  // empty: kOk either way, kError when the peer is gone.
  Io flush();
  size_t queued_bytes() const { return queued_; }
  bool over_high_water() const { return queued_ > kHighWater; }
  bool below_low_water() const { return queued_ < kLowWater; }

  // Daemon-side state of the connection.
  uint64_t token = 0;          // event-loop registration
  uint32_t events = 0;         // what it is registered for
  bool paused = false;         // requests not taken (backpressure)
  bool dead = false;           // closed or broken: to be reaped
  bool hello_done = false;
  bool is_operator = false;
  uint32_t hello_pid = 0;      // as the client stated it
  uint16_t word_bits = 0;
  uint64_t hello_timer = 0;    // closes a connection that never says HELLO

 private:
  int fd_;
  proto::ClientId id_;
  pid_t pid_;
  uid_t uid_;
  std::string login_;
  FrameDecoder decoder_;
  std::deque<std::vector<uint8_t>> out_;
  size_t out_offset_ = 0;  // bytes of out_.front() already written
  size_t queued_ = 0;
};

}  // namespace sna::daemon

#endif
