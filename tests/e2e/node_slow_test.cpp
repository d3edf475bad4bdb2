// Node scenarios that take seconds by design: the attach time-out.
#include <gtest/gtest.h>

#include "configs.h"
#include "harness.h"
#include "scenario.h"

namespace e2e {
namespace {

// SLOW's program never accepts, and its definition's attach time-out is
// 2 s: the allocator's receive reports the rejection after that time.
TEST(NodeSlow, S28_AttachTimeOut) {
  Daemon daemon(E2E_DAEMON);
  ASSERT_EQ(start_test_node(daemon), "");
  ScenarioRunner runner(daemon);
  EXPECT_EQ(runner.run({
                "+A driver",
                "A: tp_started as=T | - TP_STARTED p=0x0000",
                "A: allocate tp=T as=X tpn=SLOW | - ALLOCATE p=0x0000",
                "!mark",
                "A: rcv c=X async=r | issued r",
                "A< r RECEIVE_AND_WAIT p=0x0003 s=0x084B6031",
                "!elapsed 1800 4000",
            }),
            "");
}

}  // namespace
}  // namespace e2e
