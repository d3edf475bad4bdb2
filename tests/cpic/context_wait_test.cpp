// Contexts and how they end: Accept_Incoming and Accept_Conversation with
// a context nobody uses any more, Set_Conversation_Context replacing one,
// Allocate on a context made by either; and Wait_For_Conversation
// collecting only completions whose routine has finished.
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <deque>
#include <future>
#include <thread>
#include <vector>

#include "conversation_fixture.h"

using namespace cpic;
using namespace cpictest;

namespace {

const uint8_t kOldCtx[8] = {0xC0, 0xC1, 0xC2, 0xC3, 0xC4, 0xC5, 0xC6, 0xC7};
const uint8_t kAccepted[8] = {0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8};

testnode::VerbScript incoming(bool blank_user, bool async = false) {
  return {VERB_RECEIVE_ALLOCATE_CPIC, 0, 0, async, [blank_user](void *b) {
            auto *v = static_cast<VCB_RECEIVE_ALLOCATE *>(b);
            std::memcpy(v->tp_id, kAccepted, 8);
            v->conv_id = 0x00ACC000;
            std::memset(v->user_id, 0x40, 10);
            if (!blank_user) std::memcpy(v->user_id, ebcdic("ALICE", 0, 5).data(), 5);
            std::memcpy(v->local_lu_alias, "ACCLU   ", 8);
            std::memset(v->mode_name, 0x40, 8);
            std::memset(v->fq_partner_lu, 0x40, 17);
          }};
}

// The TP_ENDED blocks issued, in order.
std::vector<const testnode::IssuedVerb *> tp_ended_verbs() {
  std::vector<const testnode::IssuedVerb *> out;
  for (const auto &v : testnode::issued_verbs()) {
    if (v.opcode == VERB_TP_ENDED) out.push_back(&v);
  }
  return out;
}

size_t index_of(uint16_t opcode) {
  const auto &v = testnode::issued_verbs();
  for (size_t i = 0; i < v.size(); ++i) {
    if (v[i].opcode == opcode) return i;
  }
  return v.size();
}

// Accepting needs a registered local TP name: the fixture names one of its
// own and releases it again, so the default name is never registered.
class ContextTest : public ConversationTest {
 protected:
  void SetUp() override {
    ConversationTest::SetUp();
    saved_accept_issued_ = pGCB->fAcceptIssued;
    CM_INT32 len = 7, rc = -1;
    CMSLTP((unsigned char *)"CTXTEST", &len, &rc);
    ASSERT_EQ(rc, CM_OK);
    ASSERT_NE(pGCB->NumLocTPNames, 0);
    testnode::reset();
    live_at_start_ = testnode::live_allocations();
  }
  void TearDown() override {
    for (const auto &id : made_) {
      CCCB *c = find(id.data());
      if (c == nullptr) continue;
      std::memset(c->abTpId, 0, 8);
      drop(id.data());
    }
    std::memset(pGCB->abContextTpId, 0, 8);
    std::memset(pGCB->abContextLuAlias, 0, 8);
    std::memset(c_->abTpId, 0, 8);
    CM_INT32 len = 7, rc = -1;
    CMRLTP((unsigned char *)"CTXTEST", &len, &rc);
    EXPECT_EQ(rc, CM_OK);
    pGCB->fAcceptIssued = saved_accept_issued_;
    ConversationTest::TearDown();
  }
  unsigned char *make_incoming() {
    made_.emplace_back();
    CM_INT32 rc = -1;
    cminic(made_.back().data(), &rc);
    EXPECT_EQ(rc, CM_OK);
    return made_.back().data();
  }
  // Another conversation that runs under this TP.
  void conversation_under(const uint8_t *tp) {
    made_.emplace_back();
    CM_INT32 rc = -1;
    cminic(made_.back().data(), &rc);
    ASSERT_EQ(rc, CM_OK);
    std::memcpy(find(made_.back().data())->abTpId, tp, 8);
  }
  static void set_context(const uint8_t *tp, const char *alias) {
    std::memcpy(pGCB->abContextTpId, tp, 8);
    std::memcpy(pGCB->abContextLuAlias, alias, 8);
  }
  uint16_t saved_accept_issued_ = 0;
  // A deque: the IDs handed out by make_incoming stay where they are.
  std::deque<std::array<unsigned char, 8>> made_;
};

// ---- Accept with a context nobody uses ----------------------------------

enum class AcceptBy { Conversation, IncomingBlocking, IncomingNonBlocking };
enum class After { Old, None, Accepted };

struct AcceptCase {
  const char *name;
  AcceptBy by;
  bool has_context;
  bool context_in_use;
  bool blank_user;
  bool context_ended;  // a TP_ENDED for the old context
  bool ended_before_receive;
  After after;
};

const AcceptCase kAcceptCases[] = {
    // Accept_Incoming completing at once ends an unused context in its
    // completion, and keeps it recorded when no user ID came.
    {"IncomingBlankUserEndsButKeeps", AcceptBy::IncomingBlocking, true, false, true, true, false,
     After::Old},
    {"IncomingUserEndsAndReplaces", AcceptBy::IncomingBlocking, true, false, false, true, false,
     After::Accepted},
    {"IncomingUserContextInUse", AcceptBy::IncomingBlocking, true, true, false, false, false,
     After::Accepted},
    {"IncomingBlankUserContextInUse", AcceptBy::IncomingBlocking, true, true, true, false, false,
     After::Old},
    {"IncomingUserNoContext", AcceptBy::IncomingBlocking, false, false, false, false, false,
     After::Accepted},
    // Completing on the node's thread it leaves the context alone.
    {"IncomingAsyncUser", AcceptBy::IncomingNonBlocking, true, false, false, false, false,
     After::Old},
    {"IncomingAsyncBlankUser", AcceptBy::IncomingNonBlocking, true, false, true, false, false,
     After::Old},
    // Accept_Conversation clears an unused context before it asks.
    {"ConversationBlankUserClearsFirst", AcceptBy::Conversation, true, false, true, true, true,
     After::None},
    {"ConversationUserEndsAndReplaces", AcceptBy::Conversation, true, false, false, true, true,
     After::Accepted},
    {"ConversationUserContextInUse", AcceptBy::Conversation, true, true, false, false, false,
     After::Accepted},
    {"ConversationBlankUserContextInUse", AcceptBy::Conversation, true, true, true, false, false,
     After::Old},
};

class AcceptContext : public ContextTest, public ::testing::WithParamInterface<AcceptCase> {};

TEST_P(AcceptContext, EndedKeptOrReplaced) {
  const AcceptCase &ac = GetParam();
  if (ac.has_context) set_context(kOldCtx, "OLDLU   ");
  if (ac.context_in_use) conversation_under(kOldCtx);
  testnode::reset();
  CM_INT32 rc = -1;
  unsigned char id[8];
  switch (ac.by) {
    case AcceptBy::Conversation:
      testnode::script_verb(incoming(ac.blank_user));
      CMACCP(id, &rc);
      ASSERT_EQ(rc, CM_OK);
      made_.emplace_back();
      std::memcpy(made_.back().data(), id, 8);
      break;
    case AcceptBy::IncomingBlocking:
      std::memcpy(id, make_incoming(), 8);
      testnode::script_verb(incoming(ac.blank_user));
      CMACCI(id, &rc);
      ASSERT_EQ(rc, CM_OK);
      break;
    case AcceptBy::IncomingNonBlocking: {
      std::memcpy(id, make_incoming(), 8);
      find(id)->usProcessingMode = CM_NON_BLOCKING;
      testnode::script_verb(incoming(ac.blank_user, true));
      CMACCI(id, &rc);
      ASSERT_EQ(rc, CM_OPERATION_INCOMPLETE);
      ASSERT_EQ(testnode::complete_async(), 1);
      unsigned char got[8];
      CM_INT32 crc = -1;
      cmwait(got, &crc, &rc);
      ASSERT_EQ(rc, CM_OK);
      ASSERT_EQ(crc, CM_OK);
      break;
    }
  }
  CCCB *c = find(id);
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(bytes(c->abTpId, 8), bytes(kAccepted, 8));
  EXPECT_EQ(c->ulApplConvId, 0x00ACC000u);

  const auto ended = tp_ended_verbs();
  if (ac.context_ended) {
    ASSERT_EQ(ended.size(), 1u);
    const auto &b = ended[0]->bytes;
    EXPECT_TRUE(ended[0]->via_async_entry);
    EXPECT_TRUE(ended[0]->had_callback);
    EXPECT_EQ(bytes(b.data() + 12, 8), bytes(kOldCtx, 8));
    EXPECT_EQ(at8(b, 20), 1);
    const size_t ended_at = index_of(VERB_TP_ENDED);
    const size_t received_at = index_of(VERB_RECEIVE_ALLOCATE_CPIC);
    if (ac.ended_before_receive) {
      EXPECT_LT(ended_at, received_at);
    } else {
      EXPECT_GT(ended_at, received_at);
    }
  } else {
    EXPECT_TRUE(ended.empty());
  }

  switch (ac.after) {
    case After::Old:
      EXPECT_EQ(bytes(pGCB->abContextTpId, 8), bytes(kOldCtx, 8));
      EXPECT_EQ(bytes(pGCB->abContextLuAlias, 8), "OLDLU   ");
      break;
    case After::None:
      EXPECT_TRUE(all_zero(pGCB->abContextTpId, 8));
      break;
    case After::Accepted:
      EXPECT_EQ(bytes(pGCB->abContextTpId, 8), bytes(kAccepted, 8));
      EXPECT_EQ(bytes(pGCB->abContextLuAlias, 8), "ACCLU   ");
      break;
  }
}

INSTANTIATE_TEST_SUITE_P(Cases, AcceptContext, ::testing::ValuesIn(kAcceptCases),
                         [](const auto &info) { return std::string(info.param.name); });

// ---- Set_Conversation_Context replacing a context -----------------------

struct SetContextCase {
  const char *name;
  bool has_context;
  bool context_in_use;
  bool context_ended;
};

const SetContextCase kSetCases[] = {
    {"UnusedContextEnds", true, false, true},
    {"ContextInUseStays", true, true, false},
    {"NoContextBefore", false, false, false},
};

class SetContext : public ContextTest, public ::testing::WithParamInterface<SetContextCase> {};

TEST_P(SetContext, ReplacesAndEndsTheOldWhenUnused) {
  const SetContextCase &sc = GetParam();
  established(0x31, 0x3B);
  std::memcpy(c_->abLocalLuAlias, "NEWLU   ", 8);
  if (sc.has_context) set_context(kOldCtx, "OLDLU   ");
  if (sc.context_in_use) conversation_under(kOldCtx);
  testnode::reset();
  unsigned char ctx[8];
  std::memset(ctx, 0x3B, 8);
  CM_INT32 len = 8, rc = -1;
  CMSCTX(ctx, &len, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(bytes(pGCB->abContextTpId, 8), std::string(8, '\x3B'));
  EXPECT_EQ(bytes(pGCB->abContextLuAlias, 8), "NEWLU   ");
  const auto ended = tp_ended_verbs();
  if (sc.context_ended) {
    ASSERT_EQ(ended.size(), 1u);
    EXPECT_EQ(bytes(ended[0]->bytes.data() + 12, 8), bytes(kOldCtx, 8));
    EXPECT_EQ(at8(ended[0]->bytes, 20), 1);
  } else {
    EXPECT_TRUE(ended.empty());
  }
  EXPECT_EQ(verbs(), ended.size());
  // Setting it again changes nothing and ends nothing.
  testnode::reset();
  CMSCTX(ctx, &len, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(verbs(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Cases, SetContext, ::testing::ValuesIn(kSetCases),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(ContextTest, RefusedSetContextEndsNothing) {
  set_context(kOldCtx, "OLDLU   ");
  const unsigned char unknown[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  CM_INT32 len = 8, rc = -1;
  CMSCTX(const_cast<unsigned char *>(unknown), &len, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  established(0x31, 0x3B);
  unsigned char ctx[8];
  std::memset(ctx, 0x3B, 8);
  for (CM_INT32 bad : {0, 7, 9, -8}) {
    len = bad;
    CMSCTX(ctx, &len, &rc);
    EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK) << bad;
  }
  EXPECT_EQ(verbs(), 0u);
  EXPECT_EQ(bytes(pGCB->abContextTpId, 8), bytes(kOldCtx, 8));
}

// ---- Allocate on a context made by Accept or by Set_Conversation_Context ---

enum class ContextFrom { Accept, SetContext };

class AllocateOnContext : public ContextTest, public ::testing::WithParamInterface<ContextFrom> {};

TEST_P(AllocateOnContext, NoTpStartedAndTheContextsTp) {
  CM_INT32 rc = -1;
  uint8_t expected_tp[8];
  if (GetParam() == ContextFrom::Accept) {
    unsigned char id[8];
    testnode::script_verb(incoming(false));
    CMACCP(id, &rc);
    ASSERT_EQ(rc, CM_OK);
    made_.emplace_back();
    std::memcpy(made_.back().data(), id, 8);
    std::memcpy(expected_tp, kAccepted, 8);
  } else {
    unsigned char *other = make_incoming();
    CCCB *o = find(other);
    o->ulApplConvId = 0x42;
    std::memset(o->abTpId, 0x4D, 8);
    std::memcpy(o->abLocalLuAlias, "ACCLU   ", 8);
    unsigned char ctx[8];
    std::memset(ctx, 0x4D, 8);
    CM_INT32 len = 8;
    CMSCTX(ctx, &len, &rc);
    ASSERT_EQ(rc, CM_OK);
    std::memset(expected_tp, 0x4D, 8);
  }
  // A new conversation takes the context's LU alias and so its TP.
  unsigned char out[8];
  cminit(out, (unsigned char *)"        ", &rc);
  ASSERT_EQ(rc, CM_OK);
  made_.emplace_back();
  std::memcpy(made_.back().data(), out, 8);
  EXPECT_EQ(bytes(find(out)->abLocalLuAlias, 8), "ACCLU   ");
  testnode::reset();
  testnode::script_verb({VERB_ALLOCATE, 0, 0, false,
                         [](void *b) { static_cast<VCB_HEADER *>(b)->conv_id = 0x0202; }});
  CMALLC(out, &rc);
  ASSERT_EQ(rc, CM_OK);
  ASSERT_EQ(verbs(), 1u);
  EXPECT_EQ(verb(0).opcode, VERB_ALLOCATE);
  EXPECT_EQ(bytes(verb(0).bytes.data() + 12, 8), bytes(expected_tp, 8));
  EXPECT_EQ(bytes(find(out)->abTpId, 8), bytes(expected_tp, 8));
  EXPECT_EQ(find(out)->fTpStartedByAllocate, 0);
}

INSTANTIATE_TEST_SUITE_P(Sources, AllocateOnContext,
                         ::testing::Values(ContextFrom::Accept, ContextFrom::SetContext),
                         [](const auto &info) {
                           return info.param == ContextFrom::Accept ? "Accept" : "SetContext";
                         });

TEST_F(ContextTest, WithoutContextEveryAllocateStartsItsOwnTp) {
  CM_INT32 rc = -1;
  unsigned char second[8];
  cminit(second, (unsigned char *)"        ", &rc);
  ASSERT_EQ(rc, CM_OK);
  made_.emplace_back();
  std::memcpy(made_.back().data(), second, 8);
  testnode::reset();
  for (uint8_t tp : {0x61, 0x62}) {
    testnode::script_verb({VERB_TP_STARTED, 0, 0, false, [tp](void *b) {
                             std::memset(static_cast<VCB_TP_STARTED *>(b)->tp_id, tp, 8);
                           }});
    testnode::script_verb({VERB_ALLOCATE, 0, 0, false,
                           [tp](void *b) { static_cast<VCB_HEADER *>(b)->conv_id = tp; }});
  }
  CMALLC(id_, &rc);
  ASSERT_EQ(rc, CM_OK);
  CMALLC(second, &rc);
  ASSERT_EQ(rc, CM_OK);
  ASSERT_EQ(verbs(), 4u);
  EXPECT_EQ(verb(0).opcode, VERB_TP_STARTED);
  EXPECT_EQ(verb(2).opcode, VERB_TP_STARTED);
  EXPECT_EQ(bytes(c_->abTpId, 8), std::string(8, '\x61'));
  EXPECT_EQ(bytes(find(second)->abTpId, 8), std::string(8, '\x62'));
  EXPECT_TRUE(all_zero(pGCB->abContextTpId, 8));
  // Each ends with its own last conversation.
  testnode::reset();
  drop(second);
  ASSERT_EQ(tp_ended_verbs().size(), 1u);
  EXPECT_EQ(bytes(tp_ended_verbs()[0]->bytes.data() + 12, 8), std::string(8, '\x62'));
}

// ---- Wait collects only finished completions ----------------------------

using WaitFinished = ConversationTest;

// A completion published with the conversation's count left as it is.
void publish(CCCB *c) {
  flag_set(c->fVerbWaiting, 1);
  counter_add(pGCB->NumVerbsWaiting);
}
// The state a completion routine leaves between publishing the completion
// and dropping its operation count, as it runs on the node's thread.
void publish_without_finishing(CCCB *c) {
  counter_add(completions_finishing);
  publish(c);
}
void finish(CCCB *c) {
  flag_sub(c->usOpsOutstanding);
  counter_sub(completions_finishing);
  vpm_wakeup(pGCB->hWaitObject);
}

TEST_F(WaitFinished, ConversationWhoseRoutineIsStillRunningIsNotHandedOut) {
  established();
  c_->usProcessingMode = CM_NON_BLOCKING;
  // An ending code: the conversation must go once its result is collected.
  c_->ulReturnCode = CM_DEALLOCATED_NORMAL;
  flag_set(c_->fFreePending, 1);
  std::memcpy(c_->abOpConvId, id_, 8);
  c_->pOpConvId = c_->abOpConvId;
  flag_add(c_->usOpsOutstanding);
  publish_without_finishing(c_);
  std::memset(c_->abTpId, 0, 8);  // no TP to end when it goes
  unsigned char got[8] = {};
  CM_INT32 crc = -1;
  auto waiter = wait_on_another_thread(got, &crc);
  // Wait must hold back until the routine has finished, however long it is
  // kept from running: longer than a second here, since a loaded machine
  // can do that to the node's thread.
  EXPECT_EQ(waiter.wait_for(std::chrono::milliseconds(1500)), std::future_status::timeout)
      << "Wait handed out a conversation whose completion routine had not finished";
  finish(c_);
  ASSERT_EQ(waiter.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(waiter.get(), CM_OK);
  EXPECT_EQ(crc, CM_DEALLOCATED_NORMAL);
  EXPECT_EQ(bytes(got, 8), bytes(id_, 8));
  // Collected and finished: the ended conversation is gone.
  EXPECT_EQ(find(id_), nullptr);
  EXPECT_EQ(counter_get(pGCB->NumVerbsWaiting), 0u);
  EXPECT_EQ(leaked(), -1) << "the conversation's own block is released";
}

TEST_F(WaitFinished, FinishedOneIsTakenBeforeAnUnfinishedOneEarlierInOrder) {
  unsigned char later[8];
  CM_INT32 rc = -1;
  cminit(later, (unsigned char *)"        ", &rc);
  CCCB *l = find(later);
  ASSERT_LT(handle_of(id_), handle_of(later));
  // The earlier conversation's routine is still running; the later one's
  // completion is complete.
  flag_add(c_->usOpsOutstanding);
  c_->pOpConvId = c_->abOpConvId;
  std::memcpy(c_->abOpConvId, id_, 8);
  publish_without_finishing(c_);
  l->pOpConvId = l->abOpConvId;
  std::memcpy(l->abOpConvId, later, 8);
  l->ulReturnCode = CM_PROGRAM_STATE_CHECK;
  publish(l);
  unsigned char got[8];
  CM_INT32 crc = -1;
  cmwait(got, &crc, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(bytes(got, 8), bytes(later, 8));
  EXPECT_EQ(crc, CM_PROGRAM_STATE_CHECK);
  finish(c_);
  cmwait(got, &crc, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(bytes(got, 8), bytes(id_, 8));
  drop(later);
}

TEST_F(WaitFinished, CountNothingWillLowerIsHandedOutWithoutWaiting) {
  // A Cancel that got no wait object leaves the count raised for good;
  // with no routine finishing and no cancel sleeping, Wait must return the
  // completion rather than sleep for ever.
  established();
  c_->pOpConvId = c_->abOpConvId;
  std::memcpy(c_->abOpConvId, id_, 8);
  c_->ulReturnCode = CM_OK;
  flag_add(c_->usOpsOutstanding);
  publish(c_);
  auto waiter = std::async(std::launch::async, [&] {
    unsigned char got[8];
    CM_INT32 crc = -1, rc = -1;
    cmwait(got, &crc, &rc);
    return rc == CM_OK && std::memcmp(got, id_, 8) == 0;
  });
  ASSERT_EQ(waiter.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_TRUE(waiter.get());
  flag_sub(c_->usOpsOutstanding);
}

TEST_F(WaitFinished, CancelOnAnotherThreadReleasesTheHeldCompletion) {
  // Thread A cancels a receive in progress; the receive's completion
  // arrives first, while the cancel still holds the conversation. A Wait on
  // thread B must return it once the cancel is over, and not sleep on.
  established();
  c_->usProcessingMode = CM_NON_BLOCKING;
  testnode::script_verb({VERB_RECEIVE_AND_WAIT, 0x0021, 0, true, nullptr});
  static unsigned char buffer[16];
  CM_INT32 req = 16, data = -1, got_len = -1, status = -1, rts = -1, rc = -1;
  cmrcv(id_, buffer, &req, &data, &got_len, &status, &rts, &rc);
  ASSERT_EQ(rc, CM_OPERATION_INCOMPLETE);
  testnode::script_verb({VERB_CANCEL_CONVERSATION, 0, 0, true, nullptr});
  auto canceller = std::async(std::launch::async, [&] {
    CM_INT32 crc = -1;
    cmcanc(id_, &crc);
    return crc;
  });
  // The test node signals no event when a verb arrives: look, for a
  // bounded time, until both verbs are with it.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (testnode::pending_async() < 2 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  ASSERT_EQ(testnode::pending_async(), 2);
  ASSERT_EQ(testnode::complete_async(1), 1);  // the receive, ended by the cancel
  unsigned char got[8] = {};
  CM_INT32 crc = -1;
  auto waiter = wait_on_another_thread(got, &crc);
  EXPECT_EQ(waiter.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  ASSERT_EQ(testnode::complete_async(1), 1);  // the cancel
  ASSERT_EQ(canceller.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(canceller.get(), CM_OK);
  ASSERT_EQ(waiter.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(waiter.get(), CM_OK);
  EXPECT_EQ(bytes(got, 8), bytes(id_, 8));
  EXPECT_EQ(crc, CM_PRODUCT_SPECIFIC_ERROR);  // 0x0021 has no CPI-C meaning
  EXPECT_EQ(find(id_), nullptr);
}

}  // namespace
