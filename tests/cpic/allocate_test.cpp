// Allocate: the TP it makes sure of, the ALLOCATE block, its completion,
// and Allocate in non-blocking mode with waiting and cancelling.
#include <gtest/gtest.h>

#include <thread>

#include "conversation_fixture.h"

using namespace cpic;
using namespace cpictest;

namespace {

const uint8_t kTpId[8] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88};

testnode::VerbScript tp_started_ok(const char *alias = "LOCALLU ") {
  return {VERB_TP_STARTED, 0, 0, false, [alias](void *b) {
            auto *v = static_cast<VCB_TP_STARTED *>(b);
            std::memcpy(v->tp_id, kTpId, 8);
            std::memcpy(v->lu_alias, alias, 8);
          }};
}
testnode::VerbScript allocate_script(uint16_t primary = 0, uint32_t secondary = 0,
                                     bool async = false) {
  return {VERB_ALLOCATE, primary, secondary, async,
          [](void *b) { static_cast<VCB_HEADER *>(b)->conv_id = 0x0A0B0C0D; }};
}

using Allocate = ConversationTest;

TEST_F(Allocate, WithoutContextStartsATpAndIssuesEveryField) {
  c_->ulConversationType = CM_BASIC_CONVERSATION;
  c_->ulSyncLevel = CM_CONFIRM;
  c_->ulReturnControl = CM_IMMEDIATE;
  std::memcpy(c_->abLocalLuAlias, "MYLU    ", 8);
  std::memcpy(c_->si.abPartnerLuName, "PARTNER1", 8);
  c_->si.fPartnerLuFq = 0;
  std::memcpy(c_->si.abModeName, ebcdic("#INTER", 1, 8).data(), 8);
  std::memcpy(c_->si.abTpName, ebcdic("SERVER", 2, 64).data(), 64);
  c_->si.ulSecurityType = CM_SECURITY_PROGRAM;
  std::memcpy(c_->si.abUserId, ebcdic("USER", 1, 10).data(), 10);
  std::memcpy(c_->si.abPassword, ebcdic("SECRET", 1, 10).data(), 10);
  testnode::script_verb(tp_started_ok());
  testnode::script_verb(allocate_script());
  CM_INT32 rc = -1;
  CMALLC(id_, &rc);
  ASSERT_EQ(rc, CM_OK);
  ASSERT_EQ(verbs(), 2u);

  const auto &ts = verb(0).bytes;
  EXPECT_EQ(at16(ts, 0), VERB_TP_STARTED);
  EXPECT_FALSE(verb(0).had_callback);
  EXPECT_EQ(at8(ts, 2), 0);
  EXPECT_EQ(at8(ts, 3), 0);
  EXPECT_EQ(bytes(ts.data() + 12, 8), "MYLU    ");
  EXPECT_EQ(bytes(ts.data() + 20, 8), std::string(8, '\0'));
  EXPECT_EQ(bytes(ts.data() + 28, 64), bytes(pGCB->abDefaultTpName, 64));

  const auto &a = verb(1).bytes;
  EXPECT_EQ(at16(a, 0), VERB_ALLOCATE);
  EXPECT_EQ(at8(a, 2), 0);
  EXPECT_EQ(at8(a, 3), 1);
  EXPECT_EQ(bytes(a.data() + 12, 8), bytes(kTpId, 8));
  EXPECT_EQ(at32(a, 20), 0u);
  EXPECT_EQ(at8(a, 24), 0);
  EXPECT_EQ(at8(a, 25), 1);
  EXPECT_EQ(at8(a, 28), 1);
  EXPECT_EQ(bytes(a.data() + 40, 8), "PARTNER1");
  EXPECT_EQ(bytes(a.data() + 48, 8), ebcdic("#INTER", 1, 8));
  EXPECT_EQ(bytes(a.data() + 56, 64), ebcdic("SERVER", 2, 64));
  EXPECT_EQ(at8(a, 120), 2);
  EXPECT_EQ(bytes(a.data() + 132, 10), ebcdic("SECRET", 1, 10));
  EXPECT_EQ(bytes(a.data() + 142, 10), ebcdic("USER", 1, 10));
  EXPECT_EQ(at16(a, 152), 0);
  EXPECT_EQ(bytes(a.data() + 161, 17), std::string(17, '\0'));

  EXPECT_EQ(c_->ulApplConvId, 0x0A0B0C0Du);
  EXPECT_EQ(bytes(c_->abTpId, 8), bytes(kTpId, 8));
  EXPECT_EQ(bytes(c_->abLocalLuAlias, 8), "LOCALLU ");
  EXPECT_EQ(c_->fTpStartedByAllocate, 0);
  // Allocate never sets the context.
  EXPECT_TRUE(all_zero(pGCB->abContextTpId, 8));
  ASSERT_EQ(testnode::audits().size(), 2u);
  EXPECT_EQ(testnode::audits()[0].message, MSG_TP_STARTED);
  EXPECT_EQ(testnode::audits()[1].message, MSG_CONV_ALLOCATED);
}

TEST_F(Allocate, QualifiedPartnerNameGoesAtTheEnd) {
  c_->si.fPartnerLuFq = 1;
  const std::string fq = ebcdic("NETA.LUB", 1, 17);
  std::memcpy(c_->si.abPartnerLuName, fq.data(), 17);
  testnode::script_verb(tp_started_ok());
  CM_INT32 rc = -1;
  cmallc(id_, &rc);
  ASSERT_EQ(rc, CM_OK);
  const auto &a = verb(1).bytes;
  EXPECT_EQ(at8(a, 40), 0);
  EXPECT_EQ(bytes(a.data() + 40, 8), std::string(8, '\0'));
  EXPECT_EQ(bytes(a.data() + 161, 17), fq);
}

TEST_F(Allocate, SecuritySameLeavesThePasswordZero) {
  c_->si.ulSecurityType = CM_SECURITY_SAME;
  std::memcpy(c_->si.abPassword, "PPPPPPPPPP", 10);
  CM_INT32 rc = -1;
  cmallc(id_, &rc);
  ASSERT_EQ(rc, CM_OK);
  const auto &a = verb(1).bytes;
  EXPECT_EQ(at8(a, 120), 1);
  EXPECT_EQ(bytes(a.data() + 132, 10), std::string(10, '\0'));
}

TEST_F(Allocate, ContextOnTheSameLuIsUsedWithoutTpStarted) {
  std::memcpy(pGCB->abContextTpId, kTpId, 8);
  std::memcpy(pGCB->abContextLuAlias, "CTXLU   ", 8);
  std::memcpy(c_->abLocalLuAlias, "CTXLU   ", 8);
  CM_INT32 rc = -1;
  cmallc(id_, &rc);
  ASSERT_EQ(rc, CM_OK);
  ASSERT_EQ(verbs(), 1u);
  EXPECT_EQ(verb(0).opcode, VERB_ALLOCATE);
  EXPECT_EQ(bytes(verb(0).bytes.data() + 12, 8), bytes(kTpId, 8));
  EXPECT_EQ(bytes(c_->abTpId, 8), bytes(kTpId, 8));
}

TEST_F(Allocate, AnotherLocalLuGetsItsOwnTpAndTheContextStays) {
  const uint8_t ctx[8] = {9, 9, 9, 9, 9, 9, 9, 9};
  std::memcpy(pGCB->abContextTpId, ctx, 8);
  std::memcpy(pGCB->abContextLuAlias, "CTXLU   ", 8);
  std::memcpy(c_->abLocalLuAlias, "OTHERLU ", 8);
  testnode::script_verb(tp_started_ok("OTHERLU "));
  CM_INT32 rc = -1;
  cmallc(id_, &rc);
  ASSERT_EQ(rc, CM_OK);
  ASSERT_EQ(verbs(), 2u);
  EXPECT_EQ(verb(0).opcode, VERB_TP_STARTED);
  EXPECT_EQ(bytes(c_->abTpId, 8), bytes(kTpId, 8));
  EXPECT_EQ(bytes(pGCB->abContextTpId, 8), bytes(ctx, 8));
}

TEST_F(Allocate, SecondAllocateIsAStateCheckAndEndsTheTpItStarted) {
  testnode::script_verb(tp_started_ok());
  testnode::script_verb(allocate_script());
  CM_INT32 rc = -1;
  cmallc(id_, &rc);
  ASSERT_EQ(rc, CM_OK);
  testnode::reset();
  const uint8_t second[8] = {7, 7, 7, 7, 7, 7, 7, 7};
  testnode::script_verb({VERB_TP_STARTED, 0, 0, false,
                         [&](void *b) { std::memcpy(static_cast<VCB_TP_STARTED *>(b)->tp_id, second, 8); }});
  cmallc(id_, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  ASSERT_EQ(verbs(), 2u);
  EXPECT_EQ(verb(0).opcode, VERB_TP_STARTED);
  EXPECT_EQ(verb(1).opcode, VERB_TP_ENDED);
  EXPECT_EQ(bytes(verb(1).bytes.data() + 12, 8), bytes(second, 8));
  // The allocated conversation keeps its own TP.
  EXPECT_EQ(bytes(c_->abTpId, 8), bytes(kTpId, 8));
  EXPECT_EQ(c_->ulApplConvId, 0x0A0B0C0Du);
}

TEST_F(Allocate, NotMadeByInitializeConversationIsAStateCheck) {
  c_->fInitialized = 0;
  CM_INT32 rc = -1;
  cmallc(id_, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
}

TEST_F(Allocate, UnknownConversation) {
  unsigned char bad[8] = {0x7F, 0x7F, 0, 0, 0, 0, 0, 0};
  CM_INT32 rc = -1;
  cmallc(bad, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_TRUE(problem(MSG_UNKNOWN_CONV_ID, 1));
  EXPECT_EQ(verbs(), 0u);
}

TEST_F(Allocate, TpStartedFailureFreesTheConversation) {
  testnode::script_verb({VERB_TP_STARTED, 0x0001, 0x00000104, false, nullptr});
  CM_INT32 rc = -1;
  cmallc(id_, &rc);
  EXPECT_EQ(rc, CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_EQ(find(id_), nullptr);
  EXPECT_EQ(verbs(), 1u);
  EXPECT_EQ(leaked(), -1);  // the conversation made in SetUp is gone
}

struct AllocFailure {
  uint16_t primary;
  uint32_t secondary;
  int32_t rc;
  bool freed;
  bool tp_ended;
};
class AllocateFails : public ConversationTest, public ::testing::WithParamInterface<AllocFailure> {};

TEST_P(AllocateFails, MappedAndTheTpEndedWhenItWasJustStarted) {
  testnode::script_verb(tp_started_ok());
  testnode::script_verb(allocate_script(GetParam().primary, GetParam().secondary));
  CM_INT32 rc = -1;
  cmallc(id_, &rc);
  EXPECT_EQ(rc, GetParam().rc);
  EXPECT_EQ(find(id_) == nullptr, GetParam().freed);
  bool ended = false;
  for (const auto &v : testnode::issued_verbs()) ended |= v.opcode == VERB_TP_ENDED;
  EXPECT_EQ(ended, GetParam().tp_ended);
  if (!GetParam().freed) {
    EXPECT_EQ(c_->ulApplConvId, 0u);
    std::memset(c_->abTpId, 0, 8);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Codes, AllocateFails,
    ::testing::Values(AllocFailure{0x0003, 0x10086021, CM_TPN_NOT_RECOGNIZED, true, true},
                      AllocFailure{0x0003, 0x00000005, CM_ALLOCATE_FAILURE_RETRY, true, true},
                      AllocFailure{0x0001, 0x00000017, CM_PARAMETER_ERROR, false, true},
                      AllocFailure{0x0001, 0x00000031, CM_PROGRAM_PARAMETER_CHECK, false, true},
                      AllocFailure{0x0014, 0, CM_UNSUCCESSFUL, false, true},
                      AllocFailure{0x0001, 0x00000102, CM_PRODUCT_SPECIFIC_ERROR, false, false},
                      AllocFailure{0x0002, 0x00000020, CM_PROGRAM_STATE_CHECK, false, false}));

TEST_F(Allocate, NonBlockingIncompleteThenCollectedByWait) {
  c_->usProcessingMode = CM_NON_BLOCKING;
  testnode::script_verb(tp_started_ok());
  testnode::script_verb(allocate_script(0, 0, true));
  CM_INT32 rc = -1;
  CMALLC(id_, &rc);
  EXPECT_EQ(rc, CM_OPERATION_INCOMPLETE);
  EXPECT_TRUE(verb(1).had_callback);
  EXPECT_EQ(c_->ulApplConvId, 0u);
  // Anything else on it meanwhile is not accepted and issues nothing.
  const size_t before = verbs();
  CM_INT32 rts = -1;
  unsigned char data[4] = {1, 2, 3, 4};
  CM_INT32 len = 4;
  cmsend(id_, data, &len, &rts, &rc);
  EXPECT_EQ(rc, CM_OPERATION_NOT_ACCEPTED);
  cmdeal(id_, &rc);
  EXPECT_EQ(rc, CM_OPERATION_NOT_ACCEPTED);
  EXPECT_EQ(verbs(), before);
  ASSERT_EQ(testnode::complete_async(), 1);
  unsigned char got[8];
  CM_INT32 crc = -1;
  CMWAIT(got, &crc, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(crc, CM_OK);
  EXPECT_EQ(bytes(got, 8), bytes(id_, 8));
  EXPECT_EQ(c_->ulApplConvId, 0x0A0B0C0Du);
}

TEST_F(Allocate, SecondAllocateWhileOutstandingIsNotAccepted) {
  c_->usProcessingMode = CM_NON_BLOCKING;
  testnode::script_verb(tp_started_ok());
  testnode::script_verb(allocate_script(0, 0, true));
  CM_INT32 rc = -1;
  cmallc(id_, &rc);
  ASSERT_EQ(rc, CM_OPERATION_INCOMPLETE);
  const std::vector<uint8_t> outstanding(reinterpret_cast<uint8_t *>(&c_->vcb),
                                         reinterpret_cast<uint8_t *>(&c_->vcb) + 200);
  cmallc(id_, &rc);
  EXPECT_EQ(rc, CM_OPERATION_NOT_ACCEPTED);
  // The outstanding ALLOCATE's block is untouched.
  EXPECT_EQ(std::vector<uint8_t>(reinterpret_cast<uint8_t *>(&c_->vcb),
                                 reinterpret_cast<uint8_t *>(&c_->vcb) + 200),
            outstanding);
  EXPECT_EQ(verb(verbs() - 1).opcode, VERB_TP_ENDED);
  testnode::complete_async();
}

TEST_F(Allocate, CancelWhileAllocating) {
  c_->usProcessingMode = CM_NON_BLOCKING;
  testnode::script_verb(tp_started_ok());
  testnode::script_verb(allocate_script(0x0021, 0, true));
  CM_INT32 rc = -1;
  cmallc(id_, &rc);
  ASSERT_EQ(rc, CM_OPERATION_INCOMPLETE);
  testnode::script_verb({VERB_CANCEL_CONVERSATION, 0, 0, true, nullptr});
  std::thread node([] {
    while (testnode::pending_async() < 2) std::this_thread::yield();
    testnode::complete_async();
  });
  CMCANC(id_, &rc);
  node.join();
  EXPECT_EQ(rc, CM_OK);
  const auto &cancel = verb(2);
  EXPECT_EQ(cancel.opcode, VERB_CANCEL_CONVERSATION);
  EXPECT_TRUE(cancel.had_callback);
  EXPECT_EQ(bytes(cancel.bytes.data() + 12, 8), bytes(kTpId, 8));
  EXPECT_EQ(at32(cancel.bytes, 20), 0u);
  // Ended by the cancel, but freed only once its completion is collected.
  ASSERT_EQ(find(id_), c_);
  unsigned char got[8];
  CM_INT32 crc = -1;
  cmwait(got, &crc, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(crc, CM_PRODUCT_SPECIFIC_ERROR);  // cancelled (0x0021)
  EXPECT_EQ(find(id_), nullptr);
}

}  // namespace
