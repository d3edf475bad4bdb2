// Starting the daemon when nothing answers: SNANODE_DAEMON names a small
// test program that reports how it was started, then speaks HELLO.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <string>

#include <gtest/gtest.h>

#include "client.h"
#include "snanode/node.h"
#include "snanode/verbs.h"
#include "temp_dir.h"

namespace {

uint16_t primary_of(const void *block) {
  const uint8_t *b = static_cast<const uint8_t *>(block);
  return static_cast<uint16_t>(b[4] << 8 | b[5]);
}
uint32_t secondary_of(const void *block) {
  const uint8_t *b = static_cast<const uint8_t *>(block);
  return static_cast<uint32_t>(b[8]) << 24 | static_cast<uint32_t>(b[9]) << 16 |
         static_cast<uint32_t>(b[10]) << 8 | b[11];
}

// "key rest of line" per line.
std::map<std::string, std::string> read_report(const std::string &path) {
  std::map<std::string, std::string> report;
  for (const std::string &line : snanode_test::read_lines(path)) {
    size_t blank = line.find(' ');
    report[line.substr(0, blank)] = blank == std::string::npos ? "" : line.substr(blank + 1);
  }
  return report;
}

// Resolved once per process by the runtime, so it outlives every test.
std::string state_directory() {
  static const std::string directory = snanode_test::make_temp_dir();
  return directory;
}

class Autostart : public ::testing::Test {
 protected:
  void SetUp() override {
    directory_ = snanode_test::make_temp_dir();
    socket_ = directory_ + "/socket";
    setenv("SNANODE_STATE_DIR", state_directory().c_str(), 1);
    setenv("SNANODE_SOCKET", socket_.c_str(), 1);
    setenv("SNANODE_DAEMON", FAKE_DAEMON_PROGRAM, 1);
    unsetenv("SNANODE_AUTOSTART");
    unsetenv("FAKE_DAEMON_MODE");
  }
  void TearDown() override {
    EXPECT_TRUE(snanode::client_wait_state(snanode::LinkState::kDisconnected, 5000));
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }

  // A verb that never reaches a daemon: the result stands at once.
  void expect_unreachable(uint32_t error) {
    VCB_TP_STARTED block;
    memset(&block, 0, sizeof block);
    block.opcode = VERB_TP_STARTED;
    appc_c_version(2, &block);
    EXPECT_EQ(primary_of(&block), 0xF002);
    EXPECT_EQ(secondary_of(&block), error);
  }

  std::string directory_;
  std::string socket_;
};

TEST_F(Autostart, StartsTheDaemonDetachedAndConnects) {
  // A descriptor the application leaves open across exec: the daemon must
  // not get it.
  int marker = fcntl(STDIN_FILENO, F_DUPFD, 40);
  ASSERT_GE(marker, 40);

  VCB_TP_STARTED block;
  memset(&block, 0, sizeof block);
  block.opcode = VERB_TP_STARTED;
  appc_c_version(2, &block);
  close(marker);
  ASSERT_EQ(primary_of(&block), 0) << "secondary " << secondary_of(&block);
  EXPECT_EQ(memcmp(block.tp_id, "FAKEPGM", 8), 0);
  uint32_t daemon_pid = secondary_of(&block);
  EXPECT_NE(daemon_pid, 0u);
  EXPECT_NE(daemon_pid, static_cast<uint32_t>(getpid()));

  auto report = read_report(socket_ + ".report");
  EXPECT_EQ(report["argv"], std::string(FAKE_DAEMON_PROGRAM) + " --autostarted --socket " +
                                socket_ + " --ready-fd 3");
  // A session of its own, which it does not lead: it can never acquire a
  // controlling terminal.
  EXPECT_NE(report["session"], std::to_string(getsid(0)));
  EXPECT_NE(report["session"], std::to_string(daemon_pid));
  EXPECT_NE(report["parent"], std::to_string(getpid())) << "not the application's child";
  EXPECT_EQ(report["stdio0"], "/dev/null");
  EXPECT_EQ(report["stdio1"], "/dev/null");
  EXPECT_EQ(report["stdio2"], "/dev/null");
  EXPECT_EQ(report["fds"], "0 1 2 3") << "only stdio and the ready descriptor";

  // The program ends the connection when told the TP ended: the verb then
  // completes as lost, and the runtime is ready to connect again.
  VCB_TP_ENDED ended;
  memset(&ended, 0, sizeof ended);
  ended.opcode = VERB_TP_ENDED;
  appc_c_version(2, &ended);
  EXPECT_EQ(primary_of(&ended), 0xF003);
}

TEST_F(Autostart, ProgramThatCannotRunIsNoNodeReachable) {
  setenv("SNANODE_DAEMON", (directory_ + "/missing").c_str(), 1);
  expect_unreachable(ENOENT);
  std::string plain = directory_ + "/plain";
  FILE *f = fopen(plain.c_str(), "w");
  ASSERT_NE(f, nullptr);
  fclose(f);
  chmod(plain.c_str(), 0600);
  setenv("SNANODE_DAEMON", plain.c_str(), 1);
  expect_unreachable(EACCES);
}

TEST_F(Autostart, DaemonEndingBeforeItListensIsNoNodeReachable) {
  setenv("FAKE_DAEMON_MODE", "exit", 1);
  expect_unreachable(ECONNREFUSED);
}

TEST_F(Autostart, OffStartsNothing) {
  setenv("SNANODE_AUTOSTART", "0", 1);
  expect_unreachable(ENOENT);
  struct stat info;
  EXPECT_NE(stat((socket_ + ".report").c_str(), &info), 0) << "the program was started";
}

}  // namespace
