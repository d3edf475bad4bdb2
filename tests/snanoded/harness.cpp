#include "harness.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>

#include "protocol/ebcdic.h"

#ifndef SNANODED_PATH
#error "SNANODED_PATH must name the daemon under test"
#endif

namespace sna::test {
namespace {

using Clock = std::chrono::steady_clock;

int remaining_ms(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

void remove_tree(const std::string& path) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) return;
  if (S_ISDIR(st.st_mode)) {
    if (DIR* d = opendir(path.c_str())) {
      while (dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        if (name == "." || name == "..") continue;
        remove_tree(path + "/" + name);
      }
      closedir(d);
    }
    rmdir(path.c_str());
  } else {
    unlink(path.c_str());
  }
}

int pidfd_open(pid_t pid) { return static_cast<int>(syscall(SYS_pidfd_open, pid, 0)); }

ExitStatus decode_status(int status) {
  ExitStatus s;
  if (WIFEXITED(status)) {
    s.exited = true;
    s.code = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    s.signal = WTERMSIG(status);
  }
  return s;
}

void drain_into(int fd, std::string& out) {
  char buf[4096];
  for (;;) {
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n <= 0) return;
    out.append(buf, static_cast<size_t>(n));
  }
}

}  // namespace

// ---- files ------------------------------------------------------------------

TempDir::TempDir() {
  char templ[] = "/tmp/snanoded-test-XXXXXX";
  if (mkdtemp(templ)) path_ = templ;
}

TempDir::~TempDir() {
  if (!path_.empty()) remove_tree(path_);
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

void write_file(const std::string& path, const std::string& text, mode_t mode) {
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
  }
  chmod(path.c_str(), mode);
}

bool wait_for_text(const std::string& path, const std::string& needle, int timeout_ms) {
  // The log is written by another process with no notification to wait
  // on; look again at short intervals until the deadline.
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    if (read_file(path).find(needle) != std::string::npos) return true;
    if (remaining_ms(deadline) == 0) return false;
    poll(nullptr, 0, 10);
  }
}

// ---- the daemon process ----------------------------------------------------------

DaemonProcess::~DaemonProcess() {
  if (pid_ > 0 && !reaped_) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (pidfd_ >= 0) ::close(pidfd_);
  if (stderr_fd_ >= 0) ::close(stderr_fd_);
  if (ready_fd_ >= 0) ::close(ready_fd_);
}

bool DaemonProcess::start(const std::vector<std::string>& args, const std::vector<std::string>& env,
                          int timeout_ms) {
  return launch(args, env) && wait_ready(timeout_ms);
}

bool DaemonProcess::wait_ready(int timeout_ms) {
  if (ready_fd_ < 0) return ready_;
  pollfd p{ready_fd_, POLLIN, 0};
  char byte = 0;
  ready_ = poll(&p, 1, timeout_ms) == 1 && read(ready_fd_, &byte, 1) == 1;
  ::close(ready_fd_);
  ready_fd_ = -1;
  return ready_;
}

bool DaemonProcess::launch(const std::vector<std::string>& args, const std::vector<std::string>& env) {
  int ready[2], err[2];
  if (pipe2(ready, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return false;
  std::vector<std::string> argv_s = {SNANODED_PATH, "--ready-fd", "3"};
  argv_s.insert(argv_s.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& a : argv_s) argv.push_back(a.data());
  argv.push_back(nullptr);
  std::vector<std::string> env_s;
  for (char** e = environ; *e; ++e) env_s.emplace_back(*e);
  for (const std::string& e : env) {
    const std::string name = e.substr(0, e.find('=') + 1);
    std::erase_if(env_s, [&](const std::string& x) { return x.compare(0, name.size(), name) == 0; });
    env_s.push_back(e);
  }
  std::vector<char*> envp;
  for (std::string& e : env_s) envp.push_back(e.data());
  envp.push_back(nullptr);

  pid_ = fork();
  if (pid_ == 0) {
    if (ready[1] == 3)
      fcntl(3, F_SETFD, 0);
    else
      dup2(ready[1], 3);  // the copy is not close-on-exec
    dup2(err[1], 2);
    if (fd_limit_) {
      rlimit lim{fd_limit_, fd_limit_};
      if (setrlimit(RLIMIT_NOFILE, &lim) != 0) _exit(126);
    }
    if (as_set_ && (setgroups(0, nullptr) != 0 || setgid(as_gid_) != 0 || setuid(as_uid_) != 0)) _exit(126);
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  ::close(ready[1]);
  ::close(err[1]);
  stderr_fd_ = err[0];
  fcntl(stderr_fd_, F_SETFL, O_NONBLOCK);
  if (pid_ < 0) {
    ::close(ready[0]);
    return false;
  }
  pidfd_ = pidfd_open(pid_);
  ready_fd_ = ready[0];
  return true;
}

std::optional<ExitStatus> DaemonProcess::wait_exit(int timeout_ms) {
  if (pid_ <= 0) return std::nullopt;
  if (!reaped_) {
    pollfd p{pidfd_, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) != 1) return std::nullopt;
    int status = 0;
    if (waitpid(pid_, &status, 0) != pid_) return std::nullopt;
    reaped_ = true;
    stderr_text();
    last_ = decode_status(status);
  }
  return last_;
}

void DaemonProcess::signal(int sig) {
  if (pid_ > 0 && !reaped_) kill(pid_, sig);
}

std::string DaemonProcess::stderr_text() {
  if (stderr_fd_ >= 0) drain_into(stderr_fd_, stderr_);
  return stderr_;
}

RunResult run_program(const std::vector<std::string>& argv_in, const std::string& input, int timeout_ms) {
  RunResult result;
  int in[2], out[2], err[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return result;
  std::vector<std::string> args = argv_in;
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(in[0], 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    execv(argv[0], argv.data());
    _exit(127);
  }
  ::close(in[0]);
  ::close(out[1]);
  ::close(err[1]);
  ssize_t w = write(in[1], input.data(), input.size());
  (void)w;
  ::close(in[1]);
  const int pfd = pidfd_open(pid);
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  bool out_open = true, err_open = true;
  while (out_open || err_open) {
    pollfd p[2] = {{out_open ? out[0] : -1, POLLIN, 0}, {err_open ? err[0] : -1, POLLIN, 0}};
    if (poll(p, 2, remaining_ms(deadline)) <= 0) break;
    char buf[4096];
    if (p[0].revents) {
      const ssize_t n = read(out[0], buf, sizeof buf);
      if (n <= 0) out_open = false; else result.out.append(buf, static_cast<size_t>(n));
    }
    if (p[1].revents) {
      const ssize_t n = read(err[0], buf, sizeof buf);
      if (n <= 0) err_open = false; else result.err.append(buf, static_cast<size_t>(n));
    }
  }
  pollfd p{pfd, POLLIN, 0};
  if (poll(&p, 1, remaining_ms(deadline)) != 1) kill(pid, SIGKILL);
  int status = 0;
  waitpid(pid, &status, 0);
  result.status = decode_status(status);
  ::close(pfd);
  ::close(out[0]);
  ::close(err[0]);
  return result;
}

// ---- the wire client ------------------------------------------------------------------

WireClient::~WireClient() { close(); }

void WireClient::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

bool WireClient::connect(const std::string& socket_path) {
  close();
  fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, socket_path.c_str(), sizeof addr.sun_path - 1);
  return ::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
}

bool WireClient::hello(uint32_t flags, uint16_t version) {
  wire::Hello h;
  h.version = version;
  h.word_bits = 64;
  h.pid = static_cast<uint32_t>(getpid());
  h.flags = flags;
  std::vector<uint8_t> body(wire::kHelloSize);
  wire::encode_hello(body.data(), h);
  if (!send_frame(wire::Kind::kHello, 1, body)) return false;
  std::optional<Frame> f = read_frame();
  if (!f || f->header.kind != wire::Kind::kHelloReply || f->body.size() != wire::kHelloSize) return false;
  const wire::HelloReply r = wire::decode_hello_reply(f->body.data());
  daemon_pid_ = r.daemon_pid;
  hello_status_ = r.status;
  return r.status == 0 && r.magic == wire::kMagic;
}

bool WireClient::send_raw(const void* bytes, size_t n) {
  const uint8_t* p = static_cast<const uint8_t*>(bytes);
  while (n > 0) {
    const ssize_t w = ::send(fd_, p, n, MSG_NOSIGNAL);
    if (w < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    p += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}

bool WireClient::send_frame(wire::Kind kind, uint64_t tag, const std::vector<uint8_t>& body) {
  std::vector<uint8_t> f(wire::kHeaderSize + body.size());
  wire::FrameHeader h;
  h.length = static_cast<uint32_t>(f.size());
  h.kind = kind;
  h.tag = tag;
  wire::encode_header(f.data(), h);
  if (!body.empty()) std::memcpy(f.data() + wire::kHeaderSize, body.data(), body.size());
  return send_raw(f.data(), f.size());
}

bool WireClient::send_verb(uint64_t tag, const wire::Verb& verb, const std::vector<uint8_t>& data) {
  std::vector<uint8_t> body(wire::kVerbFixedSize + data.size());
  wire::encode_verb(body.data(), verb);
  if (!data.empty()) std::memcpy(body.data() + wire::kVerbFixedSize, data.data(), data.size());
  return send_frame(wire::Kind::kVerb, tag, body);
}

std::optional<Frame> WireClient::read_frame(int timeout_ms) {
  if (!stash_.empty()) {
    Frame f = std::move(stash_.front());
    stash_.erase(stash_.begin());
    return f;
  }
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    if (in_.size() >= wire::kHeaderSize) {
      const wire::FrameHeader h = wire::decode_header(in_.data());
      if (h.length >= wire::kHeaderSize && in_.size() >= h.length) {
        Frame f;
        f.header = h;
        f.body.assign(in_.begin() + wire::kHeaderSize, in_.begin() + h.length);
        in_.erase(in_.begin(), in_.begin() + h.length);
        return f;
      }
    }
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, remaining_ms(deadline)) != 1) return std::nullopt;
    uint8_t buf[65536];
    const ssize_t n = recv(fd_, buf, sizeof buf, 0);
    if (n <= 0) return std::nullopt;
    in_.insert(in_.end(), buf, buf + n);
  }
}

bool WireClient::wait_closed(int timeout_ms) {
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, remaining_ms(deadline)) != 1) return false;
    uint8_t buf[65536];
    const ssize_t n = recv(fd_, buf, sizeof buf, 0);
    if (n == 0) return true;
    if (n < 0) return errno == ECONNRESET;
  }
}

uint64_t WireClient::issue(const wire::Verb& verb, const std::vector<uint8_t>& data) {
  const uint64_t tag = next_tag_++;
  send_verb(tag, verb, data);
  return tag;
}

std::optional<wire::VerbReply> WireClient::reply_for(uint64_t tag, std::vector<uint8_t>* received,
                                                     int timeout_ms) {
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (size_t i = 0; i < stash_.size(); ++i) {
    if (stash_[i].header.kind == wire::Kind::kVerbReply && stash_[i].header.tag == tag) {
      Frame f = std::move(stash_[i]);
      stash_.erase(stash_.begin() + static_cast<std::ptrdiff_t>(i));
      const wire::VerbReply r = wire::decode_verb_reply(f.body.data());
      if (received) received->assign(f.body.begin() + wire::kVerbReplyFixedSize, f.body.end());
      return r;
    }
  }
  std::vector<Frame> saved = std::move(stash_);
  stash_.clear();
  for (;;) {
    std::optional<Frame> f = read_frame(remaining_ms(deadline));
    if (!f) {
      stash_ = std::move(saved);
      return std::nullopt;
    }
    if (f->header.kind == wire::Kind::kVerbReply && f->header.tag == tag &&
        f->body.size() >= wire::kVerbReplyFixedSize) {
      stash_ = std::move(saved);
      const wire::VerbReply r = wire::decode_verb_reply(f->body.data());
      if (received) received->assign(f->body.begin() + wire::kVerbReplyFixedSize, f->body.end());
      return r;
    }
    saved.push_back(std::move(*f));
  }
}

std::optional<wire::VerbReply> WireClient::call(const wire::Verb& verb, const std::vector<uint8_t>& data,
                                                std::vector<uint8_t>* received, int timeout_ms) {
  return reply_for(issue(verb, data), received, timeout_ms);
}

std::optional<std::string> WireClient::operator_command(const std::string& json, int timeout_ms) {
  const uint64_t tag = next_tag_++;
  if (!send_frame(wire::Kind::kOperator, tag, std::vector<uint8_t>(json.begin(), json.end())))
    return std::nullopt;
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    std::optional<Frame> f = read_frame(remaining_ms(deadline));
    if (!f) return std::nullopt;
    if (f->header.kind == wire::Kind::kOperatorReply && f->header.tag == tag)
      return std::string(f->body.begin(), f->body.end());
  }
}

std::optional<std::vector<uint8_t>> WireClient::nof(const wire::Nof& record, int timeout_ms) {
  const uint64_t tag = next_tag_++;
  std::vector<uint8_t> body(wire::kNofFixedSize);
  wire::encode_nof(body.data(), record);
  if (!send_frame(wire::Kind::kNof, tag, body)) return std::nullopt;
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    std::optional<Frame> f = read_frame(remaining_ms(deadline));
    if (!f) return std::nullopt;
    if (f->header.kind == wire::Kind::kNofReply && f->header.tag == tag) return f->body;
  }
}

// ---- verb blocks -------------------------------------------------------------------------

void set_ebcdic(uint8_t* field, size_t width, const std::string& text) {
  const proto::Bytes b = proto::ebcdic_field(text, width);
  std::memcpy(field, b.data(), width);
}

std::string ebcdic_string(const uint8_t* field, size_t width) {
  return proto::ebcdic_text(proto::ByteView(field, width));
}

wire::Verb tp_started() {
  wire::Verb v;
  v.opcode = 0x0014;
  std::memset(v.local_lu_alias, ' ', 8);
  return v;
}

wire::Verb tp_ended(const uint8_t tp_id[8], uint8_t type) {
  wire::Verb v;
  v.opcode = 0x0013;
  std::memcpy(v.tp_id, tp_id, 8);
  v.type = type;
  return v;
}

wire::Verb register_name(const std::string& name) {
  wire::Verb v;
  v.opcode = 0xF101;
  set_ebcdic(v.tp_name, 64, name);
  return v;
}

wire::Verb receive_allocate(uint32_t correlator) {
  wire::Verb v;
  v.opcode = 0xF100;
  v.format = 1;
  v.correlator = correlator;
  return v;
}

wire::Verb allocate(const uint8_t tp_id[8], const std::string& tp_name, bool mapped, uint8_t sync_level) {
  wire::Verb v;
  v.opcode = 0x0001;
  v.format = 1;
  v.opext = mapped ? 1 : 0;
  std::memcpy(v.tp_id, tp_id, 8);
  v.sync_level = sync_level;
  std::memset(v.partner_lu_alias, ' ', 8);
  set_ebcdic(v.mode_name, 8, "");
  set_ebcdic(v.tp_name, 64, tp_name);
  set_ebcdic(v.partner_lu_name, 17, "");
  return v;
}

wire::Verb send_data(const uint8_t tp_id[8], uint32_t conv, uint8_t send_type, uint32_t length, bool mapped) {
  wire::Verb v;
  v.opcode = 0x000F;
  v.opext = mapped ? 1 : 0;
  std::memcpy(v.tp_id, tp_id, 8);
  v.conv_id = conv;
  v.send_type = send_type;
  v.data_length = length;
  return v;
}

wire::Verb receive_and_wait(const uint8_t tp_id[8], uint32_t conv, uint16_t max_length, bool mapped) {
  wire::Verb v;
  v.opcode = 0x000B;
  v.opext = mapped ? 1 : 0;
  std::memcpy(v.tp_id, tp_id, 8);
  v.conv_id = conv;
  v.max_length = max_length;
  v.return_status_with_data = 1;
  return v;
}

wire::Verb get_state(const uint8_t tp_id[8], uint32_t conv) {
  wire::Verb v;
  v.opcode = 0x0009;
  std::memcpy(v.tp_id, tp_id, 8);
  v.conv_id = conv;
  return v;
}

wire::Verb deallocate(const uint8_t tp_id[8], uint32_t conv, uint8_t type, bool mapped) {
  wire::Verb v;
  v.opcode = 0x0005;
  v.opext = mapped ? 1 : 0;
  std::memcpy(v.tp_id, tp_id, 8);
  v.conv_id = conv;
  v.type = type;
  return v;
}

long rss_kib(pid_t pid) {
  std::istringstream in(read_file("/proc/" + std::to_string(pid) + "/status"));
  std::string line;
  while (std::getline(in, line))
    if (line.compare(0, 6, "VmRSS:") == 0) return std::stol(line.substr(6));
  return -1;
}

}  // namespace sna::test
