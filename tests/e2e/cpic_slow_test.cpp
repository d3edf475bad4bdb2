// CPI-C scenarios that take seconds by design.
#include <gtest/gtest.h>

#include "configs.h"
#include "harness.h"
#include "scenario.h"

namespace e2e {
namespace {

// SLOW's program never accepts; its attach time-out is 2 s. The
// allocator's receive gets CM_TP_NOT_AVAILABLE_RETRY after that time.
TEST(CpicSlow, AttachTimeOut) {
  Daemon daemon(E2E_DAEMON);
  ASSERT_EQ(start_test_node(daemon), "");
  ScenarioRunner runner(daemon);
  EXPECT_EQ(runner.run({
                "+A cpic",
                "A: CMINIT c | CMINIT CM_OK",
                "A: CMSTPN c SLOW | CMSTPN CM_OK",
                "A: CMALLC c | CMALLC CM_OK",
                "A: CMSST c CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
                "!mark",
                "A: CMSEND c WAIT | CMSEND CM_OK",
                "A: CMRCV c 100 | CMRCV CM_TP_NOT_AVAILABLE_RETRY",
                "!elapsed 1800 4000",
            }),
            "");
}

}  // namespace
}  // namespace e2e
