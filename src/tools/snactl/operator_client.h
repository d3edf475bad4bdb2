// A connection to the node daemon's operator interface: HELLO with the
// operator flag, then one JSON command per kOperator frame, each answered
// by a kOperatorReply frame with the same tag. Every wait is bounded.
#ifndef SNA_TOOLS_OPERATOR_CLIENT_H
#define SNA_TOOLS_OPERATOR_CLIENT_H

#include <cstdint>
#include <optional>
#include <string>

namespace sna::tools {

// The socket an operator tool talks to when none is given: the daemon's
// own default ($SNANODE_SOCKET, then $XDG_RUNTIME_DIR/snanode/socket, then
// /tmp/snanode-<uid>/socket).
std::string default_socket_path();

class OperatorClient {
 public:
  enum class ConnectResult {
    kConnected,
    kNotRunning,   // no socket file, or nothing listens on it
    kUnreachable,  // something else: permission, a bad path, a refused HELLO
  };

  OperatorClient() = default;
  ~OperatorClient();
  OperatorClient(const OperatorClient&) = delete;
  OperatorClient& operator=(const OperatorClient&) = delete;

  // Connects and exchanges HELLO. On failure `error` says why.
  ConnectResult connect(const std::string& socket_path, int timeout_ms, std::string& error);

  // Sends one command and returns the reply text, or nullopt with `error`
  // (connection lost, time-out, malformed reply).
  std::optional<std::string> request(const std::string& command, int timeout_ms,
                                     std::string& error);

  // Waits until the daemon closes the connection (after "stop"). False on
  // time-out.
  bool wait_closed(int timeout_ms);

  uint32_t daemon_pid() const { return daemon_pid_; }

 private:
  bool send_frame(uint16_t kind, uint64_t tag, const std::string& body, std::string& error);
  // Reads exactly n bytes before the deadline (CLOCK_MONOTONIC ms).
  bool read_exact(uint8_t* out, size_t n, int64_t deadline_ms, std::string& error);

  int fd_ = -1;
  uint64_t next_tag_ = 1;
  uint32_t daemon_pid_ = 0;
};

}  // namespace sna::tools

#endif
