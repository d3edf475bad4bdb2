// The verb engine: blocking and non-blocking issue, the completion frame,
// the counters, deferred release, superseded completions, the TP that ends
// with its last conversation, and the node-lost path event.
#include <gtest/gtest.h>

#include <atomic>

#include "counters.h"
#include "fixtures.h"

using namespace cpic;
using namespace cpictest;

namespace {

std::atomic<int> completions{0};
std::atomic<uint32_t> last_fasync{99};

// A completion routine of the shape every call's routine has.
void test_cb(void *block, uint32_t, uint32_t, uint32_t fAsync) {
  CCCB *c = static_cast<CCCB *>(block);
  ++completions;
  last_fasync = fAsync;
  if (SCC_completion_begin(c)) c->ulReturnCode = CM_OK;
  SCC_completion_end(c, fAsync);
}

class VerbEngine : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    completions = 0;
    CM_INT32 rc;
    cminic(id_, &rc);
    ASSERT_EQ(rc, CM_OK);
    c_ = find(id_);
  }
  void TearDown() override {
    if (find(id_) != nullptr) drop(id_);
    LibraryTest::TearDown();
  }
  int32_t issue(uint16_t opcode = VERB_FLUSH) {
    SCC_prepare_vcb(c_, opcode);
    CALL_RECORD call{10, id_, {nullptr, nullptr, nullptr, nullptr, nullptr}};
    return SCC_issue_verb(c_, call, test_cb);
  }
  unsigned char id_[8];
  CCCB *c_ = nullptr;
};

TEST_F(VerbEngine, HeaderComesFromTheConversation) {
  c_->ulConversationType = 0;
  std::memset(c_->abTpId, 0xA5, 8);
  c_->ulApplConvId = 0x01020304;
  issue(VERB_CONFIRMED);
  ASSERT_EQ(testnode::issued_verbs().size(), 1u);
  const auto &v = testnode::issued_verbs()[0];
  const auto *h = reinterpret_cast<const VCB_HEADER *>(v.bytes.data());
  EXPECT_EQ(h->opcode, VERB_CONFIRMED);
  EXPECT_EQ(h->opext, 0);
  EXPECT_EQ(h->format, 0);
  EXPECT_EQ(bytes(h->tp_id, 8), std::string(8, '\xA5'));
  EXPECT_EQ(h->conv_id, 0x01020304u);
  for (size_t i = sizeof(VCB_HEADER); i < v.bytes.size(); ++i) EXPECT_EQ(v.bytes[i], 0) << i;
  EXPECT_TRUE(v.via_async_entry);
  EXPECT_FALSE(v.had_callback);
  std::memset(c_->abTpId, 0, 8);
}

TEST_F(VerbEngine, BlockingNeverAnswersIncomplete) {
  testnode::script_verb({0, 0, 0, /*async=*/true, nullptr});
  EXPECT_EQ(issue(), CM_OK);
  EXPECT_EQ(completions, 1);
  EXPECT_EQ(last_fasync, 0u);
  EXPECT_EQ(c_->usOpsOutstanding, 0);
  EXPECT_EQ(testnode::pending_async(), 0);
}

TEST_F(VerbEngine, NonBlockingInProgressThenCompletedOnTheNodeThread) {
  c_->usProcessingMode = 1;
  testnode::script_verb({0, 0x0014, 0, true, nullptr});
  EXPECT_EQ(issue(), CM_OPERATION_INCOMPLETE);
  EXPECT_EQ(c_->usOpsOutstanding, 1);
  EXPECT_EQ(counter_get(pGCB->NumVerbsInProgress), 1u);
  EXPECT_EQ(completions, 0);
  ASSERT_EQ(testnode::complete_async(), 1);
  EXPECT_EQ(completions, 1);
  EXPECT_EQ(last_fasync, 1u);
  EXPECT_EQ(counter_get(pGCB->NumVerbsInProgress), 0u);
  EXPECT_EQ(counter_get(pGCB->NumVerbsWaiting), 1u);
  EXPECT_EQ(c_->fVerbWaiting, 1);
  EXPECT_EQ(c_->usOpsOutstanding, 0);
  EXPECT_EQ(c_->ulReturnCode, static_cast<uint32_t>(CM_UNSUCCESSFUL));
  // The next verb supersedes the uncollected completion.
  c_->usProcessingMode = 0;
  EXPECT_EQ(issue(), CM_OK);
  EXPECT_EQ(c_->fVerbWaiting, 0);
  EXPECT_EQ(counter_get(pGCB->NumVerbsWaiting), 0u);
  EXPECT_TRUE(testnode::assertions().empty());
}

TEST_F(VerbEngine, NonBlockingAnsweredAtOnceCompletesInline) {
  c_->usProcessingMode = 1;
  EXPECT_EQ(issue(), CM_OK);
  EXPECT_EQ(last_fasync, 0u);
  EXPECT_EQ(counter_get(pGCB->NumVerbsInProgress), 0u);
  EXPECT_EQ(counter_get(pGCB->NumVerbsWaiting), 0u);
}

// The nine primaries after which the node has deleted the conversation.
struct GoneCase {
  uint16_t primary;
  bool gone;
};
class ConversationGone : public VerbEngine, public ::testing::WithParamInterface<GoneCase> {};

TEST_P(ConversationGone, BlockingReleasesAtOnce) {
  testnode::script_verb({0, GetParam().primary, 0, false, nullptr});
  issue();
  EXPECT_EQ(find(id_) == nullptr, GetParam().gone);
  if (!GetParam().gone) {
    EXPECT_EQ(c_->fFreePending, 0);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Primaries, ConversationGone,
    ::testing::Values(GoneCase{0x0003, true}, GoneCase{0x0005, true}, GoneCase{0x0006, true},
                      GoneCase{0x0007, true}, GoneCase{0x0008, true}, GoneCase{0x0009, true},
                      GoneCase{0x000F, true}, GoneCase{0x0010, true}, GoneCase{0x0021, true},
                      GoneCase{0x0001, false}, GoneCase{0x0002, false}, GoneCase{0x000C, false},
                      GoneCase{0x0014, false}, GoneCase{0xF002, false}));

TEST_F(VerbEngine, EndedNonBlockingConversationWaitsForCollection) {
  c_->usProcessingMode = 1;
  testnode::script_verb({0, 0x0009, 0, true, nullptr});
  EXPECT_EQ(issue(), CM_OPERATION_INCOMPLETE);
  testnode::complete_async();
  // Ended, but its completion is not collected yet: still findable.
  ASSERT_EQ(find(id_), c_);
  EXPECT_EQ(c_->fFreePending, 1);
  EXPECT_EQ(c_->ulReturnCode, static_cast<uint32_t>(CM_DEALLOCATED_NORMAL));
  // Collecting it (as Wait_For_Conversation does) lets it go.
  flag_set(c_->fVerbWaiting, 0);
  counter_sub(pGCB->NumVerbsWaiting);
  SCC_release_if_done(c_);
  EXPECT_EQ(find(id_), nullptr);
  EXPECT_EQ(leaked(), 0);
}

TEST_F(VerbEngine, ManyCompletionsRaceWithCallsOnOtherConversations) {
  // Completions arrive on the node's thread while this thread keeps making
  // blocking calls on a second conversation.
  unsigned char other[8];
  CM_INT32 rc;
  cminic(other, &rc);
  CCCB *o = find(other);
  c_->usProcessingMode = 1;
  for (int round = 0; round < 200; ++round) {
    testnode::script_verb({VERB_FLUSH, 0, 0, true, nullptr});
    ASSERT_EQ(issue(VERB_FLUSH), CM_OPERATION_INCOMPLETE);
    std::thread node([] { testnode::complete_async(); });
    for (int i = 0; i < 5; ++i) {
      const uint16_t t = vpm_lock();
      SCC_prepare_vcb(o, VERB_CONFIRMED);
      CALL_RECORD call{3, other, {nullptr, nullptr, nullptr, nullptr, nullptr}};
      EXPECT_EQ(SCC_issue_verb(o, call, test_cb), CM_OK);
      vpm_unlock(t);
    }
    node.join();
    ASSERT_EQ(c_->usOpsOutstanding, 0);
  }
  EXPECT_EQ(counter_get(pGCB->NumVerbsInProgress), 0u);
  EXPECT_EQ(counter_get(pGCB->NumVerbsWaiting), 1u);
  flag_set(c_->fVerbWaiting, 0);
  counter_sub(pGCB->NumVerbsWaiting);
  drop(other);
}

// ---- Release and the TP that ends with its last conversation ---------

class Release : public LibraryTest {};

TEST_F(Release, TpEndsWithItsLastConversation) {
  unsigned char a[8], b[8];
  CM_INT32 rc;
  cminic(a, &rc);
  cminic(b, &rc);
  std::memset(find(a)->abTpId, 0x42, 8);
  std::memset(find(b)->abTpId, 0x42, 8);
  drop(a);
  EXPECT_TRUE(testnode::issued_verbs().empty());
  drop(b);
  ASSERT_EQ(testnode::issued_verbs().size(), 1u);
  const auto &v = testnode::issued_verbs()[0];
  EXPECT_EQ(v.opcode, VERB_TP_ENDED);
  EXPECT_TRUE(v.via_async_entry);
  EXPECT_TRUE(v.had_callback);
  const auto *e = reinterpret_cast<const VCB_TP_ENDED *>(v.bytes.data());
  EXPECT_EQ(bytes(e->tp_id, 8), std::string(8, '\x42'));
  EXPECT_EQ(e->type, 1);
  EXPECT_EQ(leaked(), 0);  // answered at once: the block is freed at once
}

TEST_F(Release, TpEndedAnsweredLaterIsFreedByItsCallback) {
  unsigned char a[8];
  CM_INT32 rc;
  cminic(a, &rc);
  std::memset(find(a)->abTpId, 0x43, 8);
  testnode::script_verb({VERB_TP_ENDED, 0, 0, true, nullptr});
  drop(a);
  EXPECT_EQ(leaked(), 1);
  EXPECT_EQ(testnode::complete_async(), 1);
  EXPECT_EQ(leaked(), 0);
}

TEST_F(Release, AfterDeallocateTheTpEndedIsWaitedFor) {
  unsigned char a[8];
  CM_INT32 rc;
  cminic(a, &rc);
  CCCB *c = find(a);
  std::memset(c->abTpId, 0x44, 8);
  c->usOpTraceIndex = 4;
  drop(a);
  ASSERT_EQ(testnode::issued_verbs().size(), 1u);
  EXPECT_FALSE(testnode::issued_verbs()[0].via_async_entry);
  EXPECT_EQ(leaked(), 0);
}

TEST_F(Release, TheContextsTpNeverEnds) {
  unsigned char a[8];
  CM_INT32 rc;
  cminic(a, &rc);
  std::memset(find(a)->abTpId, 0x45, 8);
  std::memset(pGCB->abContextTpId, 0x45, 8);
  drop(a);
  EXPECT_TRUE(testnode::issued_verbs().empty());
  std::memset(pGCB->abContextTpId, 0, 8);
}

TEST_F(Release, WaitingCompletionIsUncountedAndZeroCountIsReported) {
  unsigned char a[8];
  CM_INT32 rc;
  cminic(a, &rc);
  CCCB *c = find(a);
  c->fVerbWaiting = 1;
  counter_add(pGCB->NumVerbsWaiting);
  drop(a);
  EXPECT_EQ(counter_get(pGCB->NumVerbsWaiting), 0u);
  EXPECT_TRUE(testnode::assertions().empty());

  cminic(a, &rc);
  find(a)->fVerbWaiting = 1;  // counted nowhere: an internal inconsistency
  drop(a);
  ASSERT_EQ(testnode::assertions().size(), 1u);
  EXPECT_EQ(testnode::assertions()[0].file, "../../p/vcpic/cpicutil");
  EXPECT_EQ(testnode::assertions()[0].line, 817);
  EXPECT_EQ(testnode::assertions()[0].expression, "pGCB->NumVerbsWaiting > 0");
  // The decrement happens all the same; put the count back for later tests.
  pGCB->NumVerbsWaiting = 0;
}

TEST_F(Release, LogDataIsFreedWithTheBlock) {
  unsigned char a[8];
  CM_INT32 rc;
  cminic(a, &rc);
  CCCB *c = find(a);
  c->pLogData = static_cast<uint8_t *>(nba_mm_alloc(16, 0x302, nba_blank_name, 0, 0));
  c->DeallcLogData = static_cast<uint8_t *>(nba_mm_alloc(16, 0x302, nba_blank_name, 0, 0));
  drop(a);
  EXPECT_EQ(leaked(), 0);
}

// ---- The node-lost path event ----------------------------------------

TEST(PathEvent, NodeLostTearsDownAndTheNextCallReinitialises) {
  testnode::reset();
  unsigned char a[8];
  CM_INT32 rc;
  CMINIC(a, &rc);
  ASSERT_EQ(rc, CM_OK);
  const int tables_before = testnode::live_tables();
  EXPECT_GE(tables_before, 3);
  testnode::raise_path_event(0x8001);
  EXPECT_EQ(fInitCPIC, 0);
  EXPECT_EQ(pGCB->hCccbTable, 0u);
  EXPECT_EQ(pGCB->hPathUser, 0u);
  EXPECT_EQ(testnode::live_tables(), tables_before - 3);
  EXPECT_EQ(testnode::live_path_users(), 0);
  EXPECT_EQ(testnode::live_wait_objects(), 0);
  EXPECT_EQ(testnode::live_allocations(), 0);
  CM_INT32 len = 0;
  CMEMBS(&len, &rc);
  EXPECT_EQ(fInitCPIC, 0);  // a call without conversations does not reinitialise
  CMINIC(a, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(fInitCPIC, 1);
  EXPECT_EQ(testnode::live_path_users(), 1);
}

TEST(PathEvent, OtherEventsChangeNothing) {
  testnode::reset();
  unsigned char a[8];
  CM_INT32 rc;
  CMINIC(a, &rc);
  testnode::raise_path_event(0x8002);
  EXPECT_EQ(fInitCPIC, 1);
  CCCB *c = nullptr;
  EXPECT_EQ(SCC_find_cccb(a, &c, pGCB), 1);
}

}  // namespace
