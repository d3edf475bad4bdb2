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

// The daemon beside the library in each install layout: bin/ seen from
// lib/, lib32/ and lib/<multiarch>/, and the build tree's lib/ beside bin/
// as the fallback the runtime adds.
TEST(FindDaemonBesideTheLibrary, InstallLayouts) {
  const std::string root = snanode_test::make_temp_dir();
  auto make_dir = [](const std::string &path) {
    std::error_code ignored;
    std::filesystem::create_directories(path, ignored);
  };
  auto make_program = [](const std::string &path, mode_t mode) {
    FILE *f = fopen(path.c_str(), "w");
    ASSERT_NE(f, nullptr);
    fclose(f);
    chmod(path.c_str(), mode);
  };
  for (const char *dir : {"/usr/lib/x86_64-linux-gnu", "/usr/lib32", "/usr/bin", "/opt/lib", "/opt/bin",
                          "/build/lib", "/build/bin", "/odd/lib/x86_64-linux-gnu", "/odd/bin",
                          "/odd/lib/bin", "/libexec/sna"})
    make_dir(root + dir);
  make_program(root + "/usr/bin/snanoded", 0755);
  make_program(root + "/opt/bin/snanoded", 0755);
  make_program(root + "/build/bin/snanoded", 0755);
  make_program(root + "/odd/bin/snanoded", 0644);  // not executable
  make_program(root + "/odd/lib/bin/snanoded", 0755);
  make_program(root + "/libexec/sna/snanoded", 0755);
  const std::string absolute = root + "/libexec/sna";
  struct Case {
    const char *name;
    std::string library;
    const char *relative;
    bool found;
    std::string expect;
  };
  const Case cases[] = {
      {"lib/<multiarch>", root + "/usr/lib/x86_64-linux-gnu/libsnanode.so", "../../bin:../bin", true,
       root + "/usr/lib/x86_64-linux-gnu/../../bin/snanoded"},
      {"lib32", root + "/usr/lib32/libsnanode.so", "../bin:../bin", true, root + "/usr/lib32/../bin/snanoded"},
      {"lib", root + "/opt/lib/libsnanode.so", "../bin:../bin", true, root + "/opt/lib/../bin/snanoded"},
      {"build tree after a multiarch install layout", root + "/build/lib/libsnanode.so", "../../bin:../bin", true,
       root + "/build/lib/../bin/snanoded"},
      {"first that is executable", root + "/odd/lib/x86_64-linux-gnu/libsnanode.so", "../../bin:../bin", true,
       root + "/odd/lib/x86_64-linux-gnu/../bin/snanoded"},
      {"absolute entry", root + "/opt/lib/libsnanode.so", absolute.c_str(), true,
       root + "/libexec/sna/snanoded"},
      {"empty entries skipped", root + "/opt/lib/libsnanode.so", "::../bin:", true,
       root + "/opt/lib/../bin/snanoded"},
      {"nothing beside: the install path", root + "/usr/lib32/libsnanode.so", "../../bin", true,
       root + "/build/bin/snanoded"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    char out[4096];
    const std::string install = root + "/build/bin/snanoded";
    const bool found =
        snanode::find_daemon(nullptr, c.library.c_str(), c.relative, install.c_str(), "", out, sizeof out);
    EXPECT_EQ(found, c.found);
    if (found) {
      EXPECT_EQ(std::string(out), c.expect);
    }
  }
  // Nothing anywhere.
  char out[4096];
  EXPECT_FALSE(snanode::find_daemon(nullptr, (root + "/usr/lib32/libsnanode.so").c_str(), "../../bin",
                                    (root + "/none").c_str(), "", out, sizeof out));
  EXPECT_STREQ(out, "");
  std::error_code ignored;
  std::filesystem::remove_all(root, ignored);
}

// The layout this build installs: the runtime's own lookup finds bin/
// from the library directory chosen at configure time.
TEST(FindDaemonBesideTheLibrary, ThisBuildsInstallLayout) {
  const std::string root = snanode_test::make_temp_dir();
  const std::string libdir = root + "/" + SNA_INSTALL_LIBDIR, bindir = root + "/" + SNA_INSTALL_BINDIR;
  std::error_code ignored;
  std::filesystem::create_directories(libdir, ignored);
  std::filesystem::create_directories(bindir, ignored);
  const std::string daemon = bindir + "/snanoded";
  FILE *f = fopen(daemon.c_str(), "w");
  ASSERT_NE(f, nullptr);
  fclose(f);
  chmod(daemon.c_str(), 0755);
  char out[4096];
  ASSERT_TRUE(snanode::find_daemon(nullptr, (libdir + "/libsnanode.so").c_str(), snanode::daemon_dirs_beside_library(), "",
                                   "", out, sizeof out));
  EXPECT_EQ(std::filesystem::canonical(out), std::filesystem::canonical(daemon));
  std::filesystem::remove_all(root, ignored);
}

}  // namespace
