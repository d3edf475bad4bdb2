// What the daemon says about itself and what the kernel says about it: the
// operator's status command, and the daemon process's descriptors and
// resident memory. For the tests that check nothing is left behind.
#ifndef TESTS_E2E_NODE_STATUS_H
#define TESTS_E2E_NODE_STATUS_H

#include <dirent.h>
#include <unistd.h>
#include <sys/types.h>

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>

#include "harness.h"
#include "wire/wire_protocol.h"

namespace e2e {

// One operator command over a connection of its own; nullopt when the
// daemon does not answer within the time-out or answers with no JSON.
inline std::optional<nlohmann::json> operator_command(const std::string &socket_path,
                                                      const nlohmann::json &command,
                                                      int timeout_ms = kWaitMs) {
  RawClient op;
  if (!op.connect_to(socket_path) || !op.hello(sna::wire::kHelloOperator)) return std::nullopt;
  auto reply = op.read_frame(timeout_ms);
  if (!reply || sna::wire::decode_header(reply->data()).kind != sna::wire::Kind::kHelloReply) {
    return std::nullopt;
  }
  const std::string text = command.dump();
  std::vector<uint8_t> frame(sna::wire::kHeaderSize + text.size());
  sna::wire::FrameHeader h;
  h.length = static_cast<uint32_t>(frame.size());
  h.kind = sna::wire::Kind::kOperator;
  h.tag = 7;
  sna::wire::encode_header(frame.data(), h);
  std::copy(text.begin(), text.end(), frame.begin() + sna::wire::kHeaderSize);
  if (!op.write_all(frame.data(), frame.size(), timeout_ms)) return std::nullopt;
  for (;;) {
    auto f = op.read_frame(timeout_ms);
    if (!f) return std::nullopt;
    if (sna::wire::decode_header(f->data()).kind != sna::wire::Kind::kOperatorReply) continue;
    auto parsed = nlohmann::json::parse(f->begin() + sna::wire::kHeaderSize, f->end(), nullptr, false);
    if (parsed.is_discarded()) return std::nullopt;
    return parsed;
  }
}

inline std::optional<nlohmann::json> node_status(const std::string &socket_path) {
  return operator_command(socket_path, {{"command", "status"}});
}

// Application (non-operator) clients the status lists.
inline size_t application_clients(const nlohmann::json &status) {
  size_t n = 0;
  for (const auto &c : status["node"]["clients"]) n += c.value("operator", false) ? 0 : 1;
  return n;
}

inline bool status_lists_pid(const nlohmann::json &status, pid_t pid) {
  for (const auto &c : status["node"]["clients"]) {
    if (c.value("pid", -1) == pid) return true;
  }
  return false;
}

// Waits until the daemon no longer lists a client of process `pid` (it
// has seen the connection close); false if it still does after timeout_ms.
inline bool wait_client_gone(const std::string &socket_path, pid_t pid, int timeout_ms = kWaitMs) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    auto st = node_status(socket_path);
    if (st && !status_lists_pid(*st, pid)) return true;
    if (Clock::now() >= deadline) return false;
    // The daemon answers the status at once; a short pause keeps this from
    // becoming the load it is waiting out.
    struct timespec step = {0, 10 * 1000 * 1000};
    ::nanosleep(&step, nullptr);
  }
}

inline int open_fd_count(pid_t pid) {
  const std::string dir = "/proc/" + std::to_string(pid) + "/fd";
  DIR *d = ::opendir(dir.c_str());
  if (d == nullptr) return -1;
  int n = 0;
  while (struct dirent *e = ::readdir(d)) {
    if (e->d_name[0] != '.') ++n;
  }
  ::closedir(d);
  return n;
}

// What the process's descriptors point at, one a line, for messages.
inline std::string open_fds_text(pid_t pid) {
  const std::string dir = "/proc/" + std::to_string(pid) + "/fd";
  std::string out;
  DIR *d = ::opendir(dir.c_str());
  if (d == nullptr) return out;
  while (struct dirent *e = ::readdir(d)) {
    if (e->d_name[0] == '.') continue;
    char target[512] = {};
    ssize_t n = ::readlink((dir + "/" + e->d_name).c_str(), target, sizeof target - 1);
    out += std::string(e->d_name) + " -> " + (n > 0 ? std::string(target, static_cast<size_t>(n)) : "?") + "\n";
  }
  ::closedir(d);
  return out;
}

// Resident set of the process in KiB, -1 if it cannot be read.
inline long vm_rss_kib(pid_t pid) {
  std::istringstream in(read_file("/proc/" + std::to_string(pid) + "/status"));
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  }
  return -1;
}

// The process exists and has not exited (a zombie counts as gone).
inline bool process_alive(pid_t pid) {
  if (pid <= 0) return false;
  std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
  size_t close = stat.rfind(')');
  if (close == std::string::npos || close + 2 >= stat.size()) return false;
  return stat[close + 2] != 'Z' && stat[close + 2] != 'X';
}

}  // namespace e2e

#endif
