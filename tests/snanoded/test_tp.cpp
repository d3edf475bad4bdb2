// A transaction program for the attach manager's tests, started by the
// daemon for a [[tp]] definition.
//   test_tp echo REPORT   writes what it was given (environment, working
//                         directory, arguments, descriptors, session) to
//                         REPORT, then accepts one conversation and echoes
//                         every record until the partner deallocates
//   test_tp linger        connects and stays until the daemon goes
//   test_tp exit          exits at once
#include <dirent.h>
#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "harness.h"

extern char** environ;

namespace {

using sna::test::WireClient;

void report(const std::string& path, int argc, char** argv) {
  std::vector<std::string> lines;
  for (char** e = environ; *e; ++e) lines.push_back(std::string("env ") + *e);
  char cwd[PATH_MAX] = {};
  if (getcwd(cwd, sizeof cwd)) lines.push_back(std::string("cwd ") + cwd);
  for (int i = 0; i < argc; ++i) lines.push_back("arg" + std::to_string(i) + " " + argv[i]);
  // Descriptors open at start (the directory stream's own is left out).
  if (DIR* d = opendir("/proc/self/fd")) {
    const int own = dirfd(d);
    while (dirent* e = readdir(d)) {
      if (e->d_name[0] == '.') continue;
      if (std::atoi(e->d_name) != own) lines.push_back(std::string("fd ") + e->d_name);
    }
    closedir(d);
  }
  char byte;
  lines.push_back(std::string("stdin ") + (read(0, &byte, 1) == 0 ? "eof" : "data"));
  lines.push_back(std::string("session_leader ") + (getsid(0) == getpid() ? "yes" : "no"));
  const std::string tmp = path + ".tmp";
  {
    std::ofstream out(tmp);
    for (const std::string& l : lines) out << l << "\n";
  }
  rename(tmp.c_str(), path.c_str());  // the test waits for the whole file
}

int echo() {
  const char* socket = getenv("SNANODE_SOCKET");
  const char* name = getenv("APPCTPN");
  if (!socket || !name) return 3;
  WireClient c;
  if (!c.connect(socket) || !c.hello()) return 4;
  auto reg = c.call(sna::test::register_name(name));
  if (!reg || reg->primary != 0) return 5;
  auto accepted = c.call(sna::test::receive_allocate(), {}, nullptr, 30000);
  if (!accepted || accepted->primary != 0) return 6;
  uint8_t tp[8];
  std::memcpy(tp, accepted->tp_id, 8);
  const uint32_t conv = accepted->conv_id;
  const bool mapped = accepted->conversation_type == 1;
  for (;;) {
    std::vector<uint8_t> data;
    auto r = c.call(sna::test::receive_and_wait(tp, conv, 32767, mapped), {}, &data, 30000);
    if (!r) return 7;
    if (r->primary != 0) return r->primary == 0x0009 ? 0 : 8;
    if (r->what_received & 0x0001) {  // data, and the turn to send
      auto s = c.call(sna::test::send_data(tp, conv, 3, static_cast<uint32_t>(data.size()), mapped), data);
      if (!s || s->primary != 0) return 9;
    }
  }
}

int linger() {
  const char* socket = getenv("SNANODE_SOCKET");
  if (!socket) return 3;
  WireClient c;
  if (!c.connect(socket) || !c.hello()) return 4;
  c.wait_closed(60000);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::printf("test_tp %s started\n", argc > 1 ? argv[1] : "?");
  std::fflush(stdout);
  std::fprintf(stderr, "test_tp stderr line\n");
  if (argc >= 3 && std::strcmp(argv[1], "echo") == 0) {
    report(argv[2], argc, argv);
    return echo();
  }
  if (argc >= 2 && std::strcmp(argv[1], "linger") == 0) return linger();
  if (argc >= 2 && std::strcmp(argv[1], "exit") == 0) return 0;
  return 2;
}
