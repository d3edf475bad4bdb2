// Mixed word sizes: a program of this build converses with a program of
// the other word size's build (E2E_PEER_BIN) through one daemon.
#include <gtest/gtest.h>

#include "configs.h"
#include "harness.h"
#include "scenario.h"

namespace e2e {
namespace {

using Steps = std::vector<std::string>;

// The bytes the script sends for "n:COUNT".
std::string pattern(size_t n) {
  std::string s;
  for (size_t i = 0; i < n; ++i) s += static_cast<char>('a' + i % 26);
  return s;
}

// A mapped conversation with sync level confirm, records of 4, 32767 and
// 1 bytes, CPI-C on both sides; `allocator` allocates, `acceptor` accepts.
Steps cpic_pingpong(const std::string &allocator, const std::string &acceptor) {
  return {
      "+A " + allocator,
      "+B " + acceptor,
      "B: CMSLTP SRV | CMSLTP CM_OK",
      "A: CMINIT c | CMINIT CM_OK",
      "A: CMSTPN c SRV | CMSTPN CM_OK",
      "A: CMSSL c CM_CONFIRM | CMSSL CM_OK",
      "A: CMALLC c | CMALLC CM_OK",
      "B: CMACCP b",
      "A: CMSST c CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
      "A: CMSPTR c CM_PREP_TO_RECEIVE_FLUSH | CMSPTR CM_OK",
      "A: CMSEND c PING | CMSEND CM_OK",
      "B< CMACCP CM_OK",
      "B: CMESL b | CMESL CM_OK value=1",
      "B: CMESUI b | CMESUI CM_OK value=$LOGIN",
      "B: CMRCV b 32767 | CMRCV CM_OK dr=CM_COMPLETE_DATA_RECEIVED len=4 text=PING st=CM_SEND_RECEIVED",
      "B: CMSST b CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
      "B: CMSPTR b CM_PREP_TO_RECEIVE_FLUSH | CMSPTR CM_OK",
      "B: CMSEND b n:32767 | CMSEND CM_OK",
      "A: CMRCV c 32767 | CMRCV CM_OK dr=CM_COMPLETE_DATA_RECEIVED len=32767 st=CM_SEND_RECEIVED text=" +
          pattern(32767),
      "A: CMSST c CM_SEND_AND_CONFIRM | CMSST CM_OK",
      "A: CMSEND c n:1",
      "B: CMRCV b 10 | CMRCV CM_OK len=1 data=61 st=CM_CONFIRM_RECEIVED",
      "B: CMCFMD b | CMCFMD CM_OK",
      "A< CMSEND CM_OK",
      "A: CMSDT c CM_DEALLOCATE_FLUSH | CMSDT CM_OK",
      "A: CMDEAL c | CMDEAL CM_OK",
      "B: CMRCV b 10 | CMRCV CM_DEALLOCATED_NORMAL",
  };
}

TEST(MixedWordSize, CpicThisBuildAllocatesPeerAccepts) {
  Daemon daemon(E2E_DAEMON);
  ASSERT_EQ(start_test_node(daemon), "");
  ScenarioRunner runner(daemon);
  EXPECT_EQ(runner.run(cpic_pingpong("cpic", "peer-cpic")), "");
}

TEST(MixedWordSize, CpicPeerAllocatesThisBuildAccepts) {
  Daemon daemon(E2E_DAEMON);
  ASSERT_EQ(start_test_node(daemon), "");
  ScenarioRunner runner(daemon);
  EXPECT_EQ(runner.run(cpic_pingpong("peer-cpic", "cpic")), "");
}

// Node verbs: basic logical records across the two word sizes.
TEST(MixedWordSize, DriversBasicRecords) {
  Daemon daemon(E2E_DAEMON);
  ASSERT_EQ(start_test_node(daemon), "");
  ScenarioRunner runner(daemon);
  EXPECT_EQ(runner.run({
                "+A driver",
                "+B peer-driver",
                "A: tp_started as=T | - TP_STARTED p=0x0000 lu=LOCAL",
                "B: register name=SRV | - REGISTER p=0x0000",
                "B: accept as=C async=acc | issued acc",
                "A: allocate tp=T as=C tpn=SRV ctype=basic sync=1 | - ALLOCATE p=0x0000",
                "A: send c=C hex=0005616263000364 type=3 | - SEND_DATA p=0x0000",
                "B< acc RECEIVE_ALLOCATE p=0x0000 sync=1 type=0 tpn=SRV user=$LOGIN lu=LOCAL "
                "plu=NETWORK.LOCAL",
                "B: rcv c=C fill=1 | - RECEIVE_AND_WAIT p=0x0000 wr=0x0200 len=5 data=0005616263",
                "B: rcv c=C fill=1 | - RECEIVE_AND_WAIT p=0x0000 wr=0x0201 len=3 data=000364",
                "B: send c=C hex=0004414200044344 type=2",
                "A: rcv c=C | - RECEIVE_AND_WAIT p=0x0000 wr=0x0200 len=4 data=00044142",
                "A: rcv c=C | - RECEIVE_AND_WAIT p=0x0000 wr=0x0202 len=4 data=00044344",
                "A: confirmed c=C | - CONFIRMED p=0x0000",
                "B< - SEND_DATA p=0x0000",
            }),
            "");
}

}  // namespace
}  // namespace e2e
