// A child made by fork() must not use its parent's connection or runtime
// thread: its verbs go over a connection of its own.
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "client.h"
#include "fake_daemon.h"
#include "snanode/node.h"
#include "snanode/verbs.h"
#include "temp_dir.h"

#if defined(__SANITIZE_THREAD__)
// The child starts its own runtime thread after a fork of a threaded
// process, which is what is tested here.
extern "C" __attribute__((visibility("default"))) const char *__tsan_default_options() {
  return "die_after_fork=0";
}
#endif

namespace {

using snanode_test::FakeDaemon;
using snanode_test::Request;
namespace wire = sna::wire;

uint16_t primary_of(const void *block) {
  const uint8_t *b = static_cast<const uint8_t *>(block);
  return static_cast<uint16_t>(b[4] << 8 | b[5]);
}

std::atomic<int> parent_calls{0};
void parent_callback(void *, uint32_t, uint32_t, uint32_t) { ++parent_calls; }

// In the child: its completion routine reports on a pipe.
int child_pipe[2] = {-1, -1};
void child_callback(void *, uint32_t, uint32_t, uint32_t correlator) {
  uint8_t byte = static_cast<uint8_t>(correlator);
  if (write(child_pipe[1], &byte, 1) != 1) _exit(20);
}

// Waits for the child's exit status, at most timeout_ms; kills it after.
int wait_child(pid_t child, int timeout_ms) {
  int pidfd = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
  if (pidfd >= 0) {
    pollfd entry = {pidfd, POLLIN, 0};
    if (poll(&entry, 1, timeout_ms) != 1) kill(child, SIGKILL);
    close(pidfd);
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

TEST(Fork, ChildConnectsAfreshAndParentKeepsItsConnection) {
  std::string directory = snanode_test::make_temp_dir();
  std::string socket = directory + "/socket";
  setenv("SNANODE_STATE_DIR", directory.c_str(), 1);
  setenv("SNANODE_AUTOSTART", "0", 1);
  setenv("SNANODE_SOCKET", socket.c_str(), 1);
  auto daemon = std::make_unique<FakeDaemon>(socket);
  parent_calls = 0;

  // The parent is connected, its runtime thread runs, and one of its
  // verbs is outstanding when it forks.
  VCB_HEADER first;
  memset(&first, 0, sizeof first);
  first.opcode = VERB_FLUSH;
  first.conv_id = 1;
  appc_c_async_version(2, &first, parent_callback, 0);
  Request parent_request;
  ASSERT_TRUE(daemon->next_request(&parent_request));
  ASSERT_TRUE(daemon->wait_hellos(1));

  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // No assertions of the test framework here: the exit status reports.
    VCB_HEADER blocking;
    memset(&blocking, 0, sizeof blocking);
    blocking.opcode = VERB_FLUSH;
    blocking.conv_id = 2;
    appc_c_version(2, &blocking);
    if (primary_of(&blocking) != 0) _exit(10);
    VCB_HEADER async;
    memset(&async, 0, sizeof async);
    async.opcode = VERB_FLUSH;
    async.conv_id = 3;
    if (pipe(child_pipe) != 0) _exit(14);
    if (appc_c_async_version(2, &async, child_callback, 7) != APPC_VERB_IN_PROGRESS) _exit(11);
    pollfd entry = {child_pipe[0], POLLIN, 0};
    uint8_t byte = 0;
    if (poll(&entry, 1, 5000) != 1 || read(child_pipe[0], &byte, 1) != 1) _exit(12);
    if (byte != 7) _exit(15);  // the parent's routine never runs here
    if (primary_of(&async) != 0) _exit(13);
    _exit(0);
  }

  // The child's verbs come over a second connection, after its own HELLO.
  Request child_blocking, child_async;
  ASSERT_TRUE(daemon->next_request(&child_blocking));
  ASSERT_TRUE(daemon->wait_hellos(2));
  auto hellos = daemon->hellos();
  EXPECT_EQ(hellos[1].hello.pid, static_cast<uint32_t>(child));
  EXPECT_EQ(child_blocking.connection, hellos[1].connection);
  EXPECT_NE(child_blocking.connection, parent_request.connection);
  EXPECT_EQ(child_blocking.verb().conv_id, 2u);
  daemon->reply_verb(child_blocking, wire::VerbReply{});
  ASSERT_TRUE(daemon->next_request(&child_async));
  EXPECT_EQ(child_async.connection, child_blocking.connection);
  EXPECT_EQ(child_async.verb().conv_id, 3u);
  daemon->reply_verb(child_async, wire::VerbReply{});
  int status = wait_child(child, 10000);
  ASSERT_TRUE(WIFEXITED(status)) << "status " << status;
  EXPECT_EQ(WEXITSTATUS(status), 0);

  // The parent's outstanding verb completes in the parent, once, over the
  // connection it had all along.
  daemon->reply_verb(parent_request, wire::VerbReply{});
  VCB_HEADER second;
  memset(&second, 0, sizeof second);
  second.opcode = VERB_FLUSH;
  second.conv_id = 4;
  std::thread caller([&] { appc_c_version(2, &second); });
  Request second_request;
  ASSERT_TRUE(daemon->next_request(&second_request));
  EXPECT_EQ(second_request.connection, parent_request.connection);
  daemon->reply_verb(second_request, wire::VerbReply{});
  caller.join();
  EXPECT_EQ(primary_of(&second), 0);
  EXPECT_EQ(parent_calls.load(), 1);
  EXPECT_EQ(daemon->hellos().size(), 2u);

  daemon.reset();
  EXPECT_TRUE(snanode::client_wait_state(snanode::LinkState::kDisconnected, 5000));
  std::error_code ignored;
  std::filesystem::remove_all(directory, ignored);
}

}  // namespace
