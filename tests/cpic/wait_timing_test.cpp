// Wait_For_Conversation over several non-blocking conversations while their
// completions arrive on the node's own thread with real, varying timing:
// sometimes before the Wait, sometimes while it sleeps, in a different
// order every round. Through the exported calls only; built to run under
// ThreadSanitizer as well.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "cpic.h"
#include "testnode.h"

namespace {

constexpr int kConversations = 5;
constexpr int kRounds = 1500;

std::string key(const unsigned char *id) { return std::string(reinterpret_cast<const char *>(id), 8); }

struct Outcome {
  uint16_t primary;  // big-endian number
  uint32_t secondary;
  CM_INT32 rc;       // what Wait reports for it
  bool ends;         // the node has deleted the conversation
};

const Outcome kOutcomes[] = {
    {0x0000, 0, CM_OK, false},
    {0x0002, 0x00000020, CM_PROGRAM_STATE_CHECK, false},
    {0x000E, 0x08890000, CM_PROGRAM_ERROR_PURGING, false},
    {0x0009, 0, CM_DEALLOCATED_NORMAL, true},
};

class WaitTiming : public ::testing::Test {
 protected:
  void SetUp() override {
    testnode::reset();
    // The library keeps blocks for the life of the process once it has
    // initialised; count from after that.
    CM_INT32 size = 0, rc = -1;
    CMEMBS(&size, &rc);
    unsigned char probe[8];
    cminic(probe, &rc);
    ASSERT_EQ(rc, CM_OK);
    CM_INT32 type = CM_DEALLOCATE_ABEND;
    cmsdt(probe, &type, &rc);
    cmdeal(probe, &rc);
    testnode::reset();
    live_at_start_ = testnode::live_allocations();
  }
  void TearDown() override { testnode::reset(); }

  // A conversation allocated in blocking mode, then switched to
  // non-blocking.
  std::string open_conversation() {
    unsigned char id[8];
    CM_INT32 rc = -1;
    CMINIT(id, (unsigned char *)"        ", &rc);
    EXPECT_EQ(rc, CM_OK);
    const uint8_t tp = static_cast<uint8_t>(++tp_counter_);
    testnode::script_verb({VERB_TP_STARTED, 0, 0, false, [tp](void *b) {
                             std::memset(static_cast<VCB_TP_STARTED *>(b)->tp_id, tp, 8);
                           }});
    testnode::script_verb({VERB_ALLOCATE, 0, 0, false, [tp](void *b) {
                             static_cast<VCB_HEADER *>(b)->conv_id = 0x1000u + tp;
                           }});
    CMALLC(id, &rc);
    EXPECT_EQ(rc, CM_OK);
    CM_INT32 mode = CM_NON_BLOCKING;
    CMSPM(id, &mode, &rc);
    EXPECT_EQ(rc, CM_OK);
    return key(id);
  }
  void close_conversation(const std::string &k) {
    unsigned char id[8];
    std::memcpy(id, k.data(), 8);
    CM_INT32 type = CM_DEALLOCATE_ABEND, rc = -1;
    CMSDT(id, &type, &rc);
    EXPECT_EQ(rc, CM_OK);
    CMDEAL(id, &rc);  // answered at once by the test node
    EXPECT_EQ(rc, CM_OK);
  }

  int live_at_start_ = 0;
  int tp_counter_ = 0;
};

TEST_F(WaitTiming, EveryCompletionCollectedOnceWithItsOwnResult) {
  std::mt19937 rng(20240611u);
  std::vector<std::string> conversations;
  for (int i = 0; i < kConversations; ++i) conversations.push_back(open_conversation());

  int collected = 0, ended = 0, total_issued = 0;
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    // With API tracing on, a completion routine writes its record between
    // publishing the completion and finishing: a wider window for Wait.
    if (round % 2 == 0) {
      testnode::trace_control()[0] |= 0x20;
    } else {
      testnode::trace_control()[0] &= static_cast<unsigned char>(~0x20);
    }
    std::vector<size_t> order(conversations.size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::shuffle(order.begin(), order.end(), rng);
    const size_t issued = 1 + rng() % order.size();
    total_issued += static_cast<int>(issued);

    std::map<std::string, CM_INT32> expected;
    std::set<std::string> ending;
    for (size_t n = 0; n < issued; ++n) {
      const std::string &k = conversations[order[n]];
      // Ending outcomes now and then; the rest keep the conversation.
      const Outcome &o = kOutcomes[rng() % 8 == 0 ? 3 : rng() % 3];
      testnode::script_verb({VERB_FLUSH, o.primary, o.secondary, true, nullptr});
      unsigned char id[8];
      std::memcpy(id, k.data(), 8);
      CM_INT32 rc = -1;
      CMFLUS(id, &rc);
      ASSERT_EQ(rc, CM_OPERATION_INCOMPLETE);
      expected[k] = o.rc;
      if (o.ends) ending.insert(k);
    }
    {
      // Still in progress: a second call is refused and changes nothing.
      unsigned char id[8];
      std::memcpy(id, conversations[order[0]].data(), 8);
      CM_INT32 rc = -1;
      CMFLUS(id, &rc);
      ASSERT_EQ(rc, CM_OPERATION_NOT_ACCEPTED);
    }

    // The node completes them one at a time from its own thread, with
    // gaps of varying length: the gaps only vary the interleaving, nothing
    // waits on them.
    std::vector<int> gaps_us(issued);
    for (int &g : gaps_us) g = static_cast<int>(rng() % 400);
    std::thread node([gaps_us] {
      for (int g : gaps_us) {
        if (g > 200) std::this_thread::sleep_for(std::chrono::microseconds(g - 200));
        testnode::complete_async(1);
      }
    });
    // A failed assertion returns early: the node's thread is joined even so.
    struct Joiner {
      std::thread &t;
      ~Joiner() {
        if (t.joinable()) t.join();
      }
    } joiner{node};

    std::set<std::string> seen;
    for (size_t n = 0; n < issued; ++n) {
      unsigned char got[8];
      CM_INT32 crc = -1, rc = -1;
      if (rng() % 4 == 0) {
        // The check call never collects and never blocks.
        CMCHCK(got, &rc);
        ASSERT_TRUE(rc == CM_OK || rc == CM_UNSUCCESSFUL) << rc;
      }
      CMWAIT(got, &crc, &rc);
      ASSERT_EQ(rc, CM_OK);
      const std::string k = key(got);
      ASSERT_EQ(expected.count(k), 1u) << "Wait returned a conversation with nothing outstanding";
      ASSERT_TRUE(seen.insert(k).second) << "a completion was collected twice";
      EXPECT_EQ(crc, expected[k]);
      ++collected;
      // The conversation is idle the moment Wait has handed it out.
      CM_INT32 mode = CM_NON_BLOCKING;
      CMSPM(got, &mode, &rc);
      if (ending.count(k) != 0) {
        EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK) << "an ended conversation was not released";
      } else {
        EXPECT_EQ(rc, CM_OK) << "the conversation Wait returned was still busy";
      }
    }
    node.join();
    EXPECT_EQ(seen.size(), issued);
    unsigned char got[8];
    CM_INT32 crc = -1, rc = -1;
    CMWAIT(got, &crc, &rc);
    ASSERT_EQ(rc, CM_PROGRAM_STATE_CHECK) << "nothing should be left to collect";

    // Replace the conversations the node ended.
    for (std::string &k : conversations) {
      if (ending.count(k) != 0) {
        k = open_conversation();
        ++ended;
      }
    }
  }
  EXPECT_EQ(collected, total_issued);
  EXPECT_GT(ended, 0);

  for (const std::string &k : conversations) close_conversation(k);
  EXPECT_TRUE(testnode::assertions().empty());
  EXPECT_EQ(testnode::pending_async(), 0);
  EXPECT_EQ(testnode::live_allocations(), live_at_start_) << "blocks left behind";
}

}  // namespace
