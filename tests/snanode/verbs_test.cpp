// Verb entries while no node is reachable: autostart off and a socket path
// where nothing listens.
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <functional>

#include <gtest/gtest.h>

#include "snanode/node.h"
#include "snanode/verbs.h"
#include "temp_dir.h"

namespace {

// Set before the first verb of the process: the runtime reads them when it
// connects.
void no_daemon() {
  static const std::string directory = snanode_test::make_temp_dir();
  setenv("SNANODE_AUTOSTART", "0", 1);
  setenv("SNANODE_SOCKET", (directory + "/socket").c_str(), 1);
  setenv("SNANODE_STATE_DIR", directory.c_str(), 1);
}

int callback_calls = 0;
void count_callback(void *, uint32_t, uint32_t, uint32_t) { ++callback_calls; }

struct VerbCase {
  const char *name;
  std::function<void(void *)> issue;
};

TEST(VerbsWithoutNode, ReturnNoNodeReachableBigEndian) {
  no_daemon();
  const VerbCase cases[] = {
      {"appc_c_async_version with callback",
       [](void *block) {
         EXPECT_EQ(appc_c_async_version(2, block, count_callback, 77), APPC_VERB_DONE);
       }},
      {"appc_c_async_version without callback",
       [](void *block) { EXPECT_EQ(appc_c_async_version(2, block, nullptr, 0), 6384); }},
      {"appc_c_version", [](void *block) { appc_c_version(2, block); }},
      {"nof_version", [](void *block) { nof_version(2, 0, block); }},
  };
  for (const VerbCase &c : cases) {
    callback_calls = 0;
    unsigned char block[200];
    memset(block, 0xAA, sizeof block);
    block[0] = 0x0F;  // SEND_DATA, host order
    block[1] = 0x00;
    c.issue(block);
    EXPECT_EQ(block[4], 0xF0) << c.name;
    EXPECT_EQ(block[5], 0x02) << c.name;
    // The secondary code is the errno of the failed connect: no socket file.
    EXPECT_EQ(block[8], 0) << c.name;
    EXPECT_EQ(block[9], 0) << c.name;
    EXPECT_EQ(block[10], 0) << c.name;
    EXPECT_EQ(block[11], ENOENT) << c.name;
    uint16_t primary_as_host;
    memcpy(&primary_as_host, block + 4, 2);
    EXPECT_EQ(primary_as_host, 0x02F0) << c.name << ": read in host order";
    // Only the return codes are written.
    EXPECT_EQ(block[0], 0x0F);
    EXPECT_EQ(block[6], 0xAA);
    EXPECT_EQ(block[7], 0xAA);
    for (size_t i = 12; i < sizeof block; ++i) ASSERT_EQ(block[i], 0xAA) << c.name << " byte " << i;
    EXPECT_EQ(callback_calls, 0) << c.name;
  }
}

TEST(VerbsWithoutNode, NullBlockIsTolerated) {
  no_daemon();
  EXPECT_EQ(appc_c_async_version(2, nullptr, count_callback, 1), APPC_VERB_DONE);
  appc_c_version(2, nullptr);
  nof_version(2, 0, nullptr);
  EXPECT_EQ(callback_calls, 0);
}

TEST(Allocator, BlocksAreUsableAndBlankNameIsEightBlanks) {
  EXPECT_STREQ(nba_blank_name, "        ");
  struct Case {
    uint32_t size;
  };
  for (Case c : {Case{0}, Case{1}, Case{66}, Case{200}, Case{1u << 20}}) {
    void *block = nba_mm_alloc(c.size, 0x302, nba_blank_name, 0, 0);
    ASSERT_NE(block, nullptr) << c.size;
    memset(block, 0x5A, c.size);
    nba_mm_free(block);
  }
  nba_mm_free(nullptr);
}

}  // namespace
