// Test support for the daemon: temporary directories, the real snanoded
// started with --ready-fd, and a client that speaks the wire protocol.
// Every wait has a time limit.
#ifndef SNA_TESTS_SNANODED_HARNESS_H
#define SNA_TESTS_SNANODED_HARNESS_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "wire/wire_protocol.h"

namespace sna::test {

// A fresh directory under /tmp, removed with everything in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& text, mode_t mode = 0644);
// Waits until `path` contains `needle` (the daemon's logs are written as
// events happen); true if it did within the time.
bool wait_for_text(const std::string& path, const std::string& needle, int timeout_ms);

struct ExitStatus {
  bool exited = false;
  int code = -1;    // exit status when it exited
  int signal = 0;   // the signal that ended it otherwise
};

// One snanoded process.
class DaemonProcess {
 public:
  DaemonProcess() = default;
  ~DaemonProcess();  // kills it if still running
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  // Starts snanoded with `args` (after the --ready-fd option) and, in its
  // environment, `env` ("NAME=value") on top of the test's own. Returns
  // true when the ready byte came within the time.
  bool start(const std::vector<std::string>& args, const std::vector<std::string>& env = {},
             int timeout_ms = 10000);
  // The same in two steps: start the process, then wait for its byte.
  bool launch(const std::vector<std::string>& args, const std::vector<std::string>& env = {});
  bool wait_ready(int timeout_ms);
  // Runs the daemon as this user and group (the test must be root).
  void run_as(uid_t uid, gid_t gid) {
    as_uid_ = uid;
    as_gid_ = gid;
    as_set_ = true;
  }
  // Starts the daemon with at most this many open descriptors.
  void limit_descriptors(unsigned n) { fd_limit_ = n; }
  // Waits for the process to end; nullopt on time-out.
  std::optional<ExitStatus> wait_exit(int timeout_ms);
  void signal(int sig);
  pid_t pid() const { return pid_; }
  bool ready() const { return ready_; }
  // Standard error as captured so far (after the process ended: all of it).
  std::string stderr_text();

 private:
  pid_t pid_ = -1;
  int pidfd_ = -1;
  int stderr_fd_ = -1;
  int ready_fd_ = -1;
  bool as_set_ = false;
  unsigned fd_limit_ = 0;
  uid_t as_uid_ = 0;
  gid_t as_gid_ = 0;
  bool ready_ = false;
  bool reaped_ = false;
  ExitStatus last_;
  std::string stderr_;
};

// Runs snanoded (or any program) to its end with `input` on stdin.
struct RunResult {
  ExitStatus status;
  std::string out, err;
};
RunResult run_program(const std::vector<std::string>& argv, const std::string& input = {},
                      int timeout_ms = 10000);

struct Frame {
  wire::FrameHeader header;
  std::vector<uint8_t> body;
};

// A connection to the daemon that speaks the wire protocol.
class WireClient {
 public:
  WireClient() = default;
  ~WireClient();
  WireClient(const WireClient&) = delete;
  WireClient& operator=(const WireClient&) = delete;

  bool connect(const std::string& socket_path);
  // Sends HELLO and waits for the reply; true when accepted.
  bool hello(uint32_t flags = 0, uint16_t version = wire::kVersion);
  void close();
  int fd() const { return fd_; }

  bool send_raw(const void* bytes, size_t n);
  bool send_frame(wire::Kind kind, uint64_t tag, const std::vector<uint8_t>& body);
  bool send_verb(uint64_t tag, const wire::Verb& verb, const std::vector<uint8_t>& data = {});

  // The next frame, or nullopt on time-out or end of stream.
  std::optional<Frame> read_frame(int timeout_ms = 5000);
  // Whether the daemon closed the connection within the time (frames that
  // come first are skipped).
  bool wait_closed(int timeout_ms = 5000);

  // Sends a verb and returns its reply (the next VERB_REPLY with its tag;
  // pushes are skipped). nullopt on time-out.
  std::optional<wire::VerbReply> call(const wire::Verb& verb, const std::vector<uint8_t>& data = {},
                                      std::vector<uint8_t>* received = nullptr, int timeout_ms = 5000);
  // Sends without waiting; collect the reply later with reply_for.
  uint64_t issue(const wire::Verb& verb, const std::vector<uint8_t>& data = {});
  std::optional<wire::VerbReply> reply_for(uint64_t tag, std::vector<uint8_t>* received = nullptr,
                                           int timeout_ms = 5000);

  // An operator command; the answer's text.
  std::optional<std::string> operator_command(const std::string& json, int timeout_ms = 5000);
  // A node-operator record; the reply body.
  std::optional<std::vector<uint8_t>> nof(const wire::Nof& record, int timeout_ms = 5000);

  uint32_t daemon_pid() const { return daemon_pid_; }
  uint16_t hello_status() const { return hello_status_; }

 private:
  int fd_ = -1;
  uint64_t next_tag_ = 100;
  uint32_t daemon_pid_ = 0;
  uint16_t hello_status_ = 0xFFFF;
  std::vector<uint8_t> in_;
  std::vector<Frame> stash_;  // frames read while looking for another
};

// Verb blocks as a program would fill them.
void set_ebcdic(uint8_t* field, size_t width, const std::string& text);
std::string ebcdic_string(const uint8_t* field, size_t width);
wire::Verb tp_started();
wire::Verb tp_ended(const uint8_t tp_id[8], uint8_t type = 1);
wire::Verb register_name(const std::string& name);
wire::Verb receive_allocate(uint32_t correlator = 0);
wire::Verb allocate(const uint8_t tp_id[8], const std::string& tp_name, bool mapped = true,
                    uint8_t sync_level = 0);
wire::Verb send_data(const uint8_t tp_id[8], uint32_t conv, uint8_t send_type, uint32_t length,
                     bool mapped = true);
wire::Verb receive_and_wait(const uint8_t tp_id[8], uint32_t conv, uint16_t max_length,
                            bool mapped = true);
wire::Verb get_state(const uint8_t tp_id[8], uint32_t conv);
wire::Verb deallocate(const uint8_t tp_id[8], uint32_t conv, uint8_t type, bool mapped = true);

// Resident set size of a process in KiB, from /proc/<pid>/status.
long rss_kib(pid_t pid);

}  // namespace sna::test

#endif
