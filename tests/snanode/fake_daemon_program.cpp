// A stand-in daemon program for the autostart tests. Started as
//   fake_daemon_program --autostarted --socket PATH --ready-fd N
// it writes what it found at start (arguments, session, standard streams,
// open descriptors) to PATH.report, listens, writes the ready byte and
// serves one client: HELLO, then every verb answered with primary 0, its
// pid as secondary and the TP id "FAKEPGM". TP_ENDED ends it. With
// FAKE_DAEMON_MODE=exit it ends at once without the ready byte.
#include <dirent.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "wire/wire_protocol.h"

namespace wire = sna::wire;

namespace {

std::string target_of(int fd) {
  char link[64], target[4096];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  ssize_t n = readlink(link, target, sizeof target - 1);
  if (n < 0) return "-";
  target[n] = '\0';
  return target;
}

std::vector<int> open_descriptors() {
  std::vector<int> fds;
  DIR *dir = opendir("/proc/self/fd");
  if (!dir) return fds;
  int own = dirfd(dir);
  while (dirent *entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    int fd = atoi(entry->d_name);
    if (fd != own) fds.push_back(fd);
  }
  closedir(dir);
  return fds;
}

bool read_all(int fd, uint8_t *to, size_t n) {
  size_t got = 0;
  while (got < n) {
    ssize_t r = read(fd, to + got, n - got);
    if (r <= 0) return false;
    got += static_cast<size_t>(r);
  }
  return true;
}

void write_frame(int fd, wire::Kind kind, uint64_t tag, const uint8_t *body, size_t size) {
  std::vector<uint8_t> bytes(wire::kHeaderSize + size);
  wire::FrameHeader header;
  header.length = static_cast<uint32_t>(bytes.size());
  header.kind = kind;
  header.tag = tag;
  wire::encode_header(bytes.data(), header);
  memcpy(bytes.data() + wire::kHeaderSize, body, size);
  if (write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) exit(5);
}

}  // namespace

int main(int argc, char **argv) {
  std::vector<int> fds_at_start = open_descriptors();
  std::string socket_path;
  int ready_fd = -1;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--socket") == 0 && i + 1 < argc) socket_path = argv[++i];
    else if (strcmp(argv[i], "--ready-fd") == 0 && i + 1 < argc) ready_fd = atoi(argv[++i]);
  }
  const char *mode = getenv("FAKE_DAEMON_MODE");
  if (mode && strcmp(mode, "exit") == 0) return 3;
  if (socket_path.empty() || ready_fd < 0) return 2;

  FILE *report = fopen((socket_path + ".report").c_str(), "w");
  if (!report) return 4;
  fprintf(report, "argv");
  for (int i = 0; i < argc; ++i) fprintf(report, " %s", argv[i]);
  fprintf(report, "\nsession %d\n", static_cast<int>(getsid(0)));
  fprintf(report, "parent %d\n", static_cast<int>(getppid()));
  for (int fd = 0; fd < 3; ++fd) fprintf(report, "stdio%d %s\n", fd, target_of(fd).c_str());
  fprintf(report, "fds");
  for (int fd : fds_at_start) fprintf(report, " %d", fd);
  fprintf(report, "\n");
  fclose(report);

  int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, socket_path.c_str(), sizeof address.sun_path - 1);
  unlink(socket_path.c_str());
  if (bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
      listen(listener, 4) != 0)
    return 6;
  char byte = 'R';
  if (write(ready_fd, &byte, 1) != 1) return 7;
  close(ready_fd);

  // Never outlive a test run that went wrong.
  pollfd waiting = {listener, POLLIN, 0};
  if (poll(&waiting, 1, 30000) != 1) return 8;
  int client = accept(listener, nullptr, nullptr);
  if (client < 0) return 9;
  for (;;) {
    pollfd entry = {client, POLLIN, 0};
    if (poll(&entry, 1, 30000) != 1) break;
    uint8_t head[wire::kHeaderSize];
    if (!read_all(client, head, sizeof head)) break;
    wire::FrameHeader header = wire::decode_header(head);
    std::vector<uint8_t> body(header.length - wire::kHeaderSize);
    if (!read_all(client, body.data(), body.size())) break;
    if (header.kind == wire::Kind::kHello) {
      uint8_t reply[wire::kHelloSize];
      wire::HelloReply hello;
      hello.daemon_pid = static_cast<uint32_t>(getpid());
      wire::encode_hello_reply(reply, hello);
      write_frame(client, wire::Kind::kHelloReply, 0, reply, sizeof reply);
    } else if (header.kind == wire::Kind::kVerb) {
      wire::Verb verb = wire::decode_verb(body.data());
      if (verb.opcode == 0x0013) break;  // TP_ENDED: the test is done with us
      wire::VerbReply answer;
      answer.secondary = static_cast<uint32_t>(getpid());
      answer.outputs = wire::kOutTpId;
      memcpy(answer.tp_id, "FAKEPGM", 8);
      uint8_t reply[wire::kVerbReplyFixedSize];
      wire::encode_verb_reply(reply, answer);
      write_frame(client, wire::Kind::kVerbReply, header.tag, reply, sizeof reply);
    }
  }
  close(client);
  unlink(socket_path.c_str());
  return 0;
}
