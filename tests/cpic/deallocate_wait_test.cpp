// Deallocate, Wait_For_Conversation, the check call and Cancel.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include "conversation_fixture.h"

using namespace cpic;
using namespace cpictest;

namespace {

struct DeallocCase {
  uint32_t conversation_type;
  uint32_t deallocate_type;
  bool with_log;
  uint8_t type_byte;
  uint16_t log_length;
};
class DeallocateTypes : public ConversationTest,
                        public ::testing::WithParamInterface<DeallocCase> {};

TEST_P(DeallocateTypes, TypeByteAndLogData) {
  established(0x00ABCDEF, 0x66);
  c_->ulConversationType = GetParam().conversation_type;
  c_->ulDeallocateType = GetParam().deallocate_type;
  if (GetParam().with_log) {
    c_->usLogDataLen = 4;
    c_->pLogData = static_cast<uint8_t *>(nba_mm_alloc(4, 0x302, nba_blank_name, 0, 0));
    std::memcpy(c_->pLogData, "LOGD", 4);
  }
  const uint8_t *log = c_->pLogData;
  CM_INT32 rc = -1;
  CMDEAL(id_, &rc);
  EXPECT_EQ(rc, CM_OK);
  ASSERT_GE(verbs(), 1u);
  const auto &b = verb(0).bytes;
  EXPECT_EQ(at16(b, 0), VERB_DEALLOCATE);
  EXPECT_EQ(at8(b, 2), GetParam().conversation_type);
  EXPECT_EQ(at8(b, 3), 0);
  EXPECT_EQ(bytes(b.data() + 12, 8), std::string(8, '\x66'));
  EXPECT_EQ(at32(b, 20), 0x00ABCDEFu);
  EXPECT_EQ(at8(b, 24), 0);
  EXPECT_EQ(at8(b, 25), GetParam().type_byte);
  EXPECT_EQ(at16(b, 26), GetParam().log_length);
  EXPECT_EQ(atptr(b, offsetof(VCB_DEALLOCATE, log_data)),
            GetParam().log_length != 0 ? static_cast<const void *>(log) : nullptr);
  // A blocking Deallocate frees the conversation before it returns.
  EXPECT_EQ(find(id_), nullptr);
  ASSERT_EQ(testnode::audits().size(), 1u);
  EXPECT_EQ(testnode::audits()[0].message, MSG_CONV_DEALLOCATED);
}

INSTANTIATE_TEST_SUITE_P(
    Table, DeallocateTypes,
    ::testing::Values(DeallocCase{1, CM_DEALLOCATE_SYNC_LEVEL, false, 0, 0},
                      DeallocCase{1, CM_DEALLOCATE_FLUSH, false, 1, 0},
                      DeallocCase{1, CM_DEALLOCATE_CONFIRM, false, 0, 0},
                      DeallocCase{1, CM_DEALLOCATE_ABEND, false, 5, 0},
                      DeallocCase{1, CM_DEALLOCATE_ABEND, true, 5, 0},
                      DeallocCase{0, CM_DEALLOCATE_SYNC_LEVEL, true, 0, 0},
                      DeallocCase{0, CM_DEALLOCATE_FLUSH, false, 1, 0},
                      DeallocCase{0, CM_DEALLOCATE_CONFIRM, true, 0, 0},
                      DeallocCase{0, CM_DEALLOCATE_ABEND, false, 2, 0},
                      DeallocCase{0, CM_DEALLOCATE_ABEND, true, 2, 4}));

using Deallocate = ConversationTest;

TEST_F(Deallocate, AbendDiscardsANeverAllocatedConversation) {
  c_->ulDeallocateType = CM_DEALLOCATE_ABEND;
  CM_INT32 rc = -1;
  cmdeal(id_, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(verbs(), 0u);
  EXPECT_EQ(find(id_), nullptr);
  EXPECT_EQ(leaked(), -1);
  // Unknown from now on.
  cmdeal(id_, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_TRUE(problem(MSG_UNKNOWN_CONV_ID, 5));
}

TEST_F(Deallocate, OtherTypesOnANeverAllocatedConversationAreAStateCheck) {
  for (uint32_t t : {0u, 1u, 2u}) {
    c_->ulDeallocateType = t;
    CM_INT32 rc = -1;
    cmdeal(id_, &rc);
    EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  }
  EXPECT_EQ(verbs(), 0u);
  EXPECT_NE(find(id_), nullptr);
}

TEST_F(Deallocate, BasicAbendWithLengthButNoLogData) {
  established();
  c_->ulConversationType = CM_BASIC_CONVERSATION;
  c_->ulDeallocateType = CM_DEALLOCATE_ABEND;
  c_->usLogDataLen = 9;
  CM_INT32 rc = -1;
  cmdeal(id_, &rc);
  EXPECT_EQ(rc, CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_EQ(verbs(), 0u);
  ASSERT_EQ(testnode::problems().size(), 1u);
  EXPECT_EQ(testnode::problems()[0].message, MSG_LOG_DATA_MISSING);
  c_->usLogDataLen = 0;
}

TEST_F(Deallocate, FailureKeepsTheConversationUnlessItEnded) {
  established();
  testnode::script_verb({VERB_DEALLOCATE, 0x0002, 0x20, false, nullptr});
  CM_INT32 rc = -1;
  cmdeal(id_, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  EXPECT_NE(find(id_), nullptr);
  testnode::script_verb({VERB_DEALLOCATE, 0x0010, 0, false, nullptr});
  cmdeal(id_, &rc);
  EXPECT_EQ(rc, CM_RESOURCE_FAILURE_NO_RETRY);
  EXPECT_EQ(find(id_), nullptr);
}

TEST_F(Deallocate, NonBlockingFreedOnlyAfterCollection) {
  established();
  c_->usProcessingMode = CM_NON_BLOCKING;
  testnode::script_verb({VERB_DEALLOCATE, 0, 0, true, nullptr});
  CM_INT32 rc = -1;
  cmdeal(id_, &rc);
  EXPECT_EQ(rc, CM_OPERATION_INCOMPLETE);
  cmdeal(id_, &rc);
  EXPECT_EQ(rc, CM_OPERATION_NOT_ACCEPTED);
  testnode::complete_async();
  ASSERT_EQ(find(id_), c_);
  unsigned char got[8];
  CM_INT32 crc = -1;
  cmchck(got, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(bytes(got, 8), bytes(id_, 8));
  // The check collects nothing.
  EXPECT_EQ(counter_get(pGCB->NumVerbsWaiting), 1u);
  ASSERT_EQ(find(id_), c_);
  CMWAIT(got, &crc, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(crc, CM_OK);
  EXPECT_EQ(bytes(got, 8), bytes(id_, 8));
  EXPECT_EQ(find(id_), nullptr);
}

// ---- Wait and check ---------------------------------------------------

using Wait = ConversationTest;

TEST_F(Wait, NothingOutstandingIsAStateCheck) {
  unsigned char got[8];
  CM_INT32 crc = -1, rc = -1;
  cmwait(got, &crc, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  CMCHCK(got, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
}

TEST_F(Wait, CheckWhileInProgressIsUnsuccessful) {
  established();
  c_->usProcessingMode = CM_NON_BLOCKING;
  testnode::script_verb({VERB_FLUSH, 0, 0, true, nullptr});
  CM_INT32 rc = -1;
  cmflus(id_, &rc);
  ASSERT_EQ(rc, CM_OPERATION_INCOMPLETE);
  unsigned char got[8];
  cmchck(got, &rc);
  EXPECT_EQ(rc, CM_UNSUCCESSFUL);
}

TEST_F(Wait, SleepsUntilTheNodeCompletes) {
  established();
  c_->usProcessingMode = CM_NON_BLOCKING;
  testnode::script_verb({VERB_FLUSH, 0x0002, 0x20, true, nullptr});
  CM_INT32 rc = -1;
  cmflus(id_, &rc);
  ASSERT_EQ(rc, CM_OPERATION_INCOMPLETE);
  std::thread node([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    testnode::complete_async();
  });
  unsigned char got[8];
  CM_INT32 crc = -1;
  cmwait(got, &crc, &rc);
  node.join();
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(crc, CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(bytes(got, 8), bytes(id_, 8));
}

TEST_F(Wait, ReturnsConversationsInHandleOrder) {
  unsigned char second[8];
  CM_INT32 rc = -1;
  cminit(second, (unsigned char *)"        ", &rc);
  CCCB *s = find(second);
  established();
  s->ulApplConvId = 0x99;
  std::memset(s->abTpId, 0x5A, 8);
  c_->usProcessingMode = s->usProcessingMode = CM_NON_BLOCKING;
  testnode::script_verb({VERB_FLUSH, 0, 0, true, nullptr});
  testnode::script_verb({VERB_FLUSH, 0x0002, 0x20, true, nullptr});
  cmflus(id_, &rc);
  ASSERT_EQ(rc, CM_OPERATION_INCOMPLETE);
  cmflus(second, &rc);
  ASSERT_EQ(rc, CM_OPERATION_INCOMPLETE);
  // The second conversation's operation completes first.
  testnode::reset();  // completes both, oldest first
  unsigned char got[8];
  CM_INT32 crc = -1;
  cmwait(got, &crc, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(bytes(got, 8), bytes(handle_of(id_) < handle_of(second) ? id_ : second, 8));
  cmwait(got, &crc, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(bytes(got, 8), bytes(handle_of(id_) < handle_of(second) ? second : id_, 8));
  cmwait(got, &crc, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  drop(second);
}

// ---- Cancel -------------------------------------------------------------

class Cancel : public ConversationTest {
 protected:
  // An established non-blocking conversation with a receive at the node
  // that will end with 0x0021 (no CPI-C meaning: CM_PRODUCT_SPECIFIC_ERROR).
  // The receive's outputs are the fixture's: its completion writes them
  // after this returns.
  void receive_in_progress() {
    established(0x1234, 0x42);
    c_->usProcessingMode = CM_NON_BLOCKING;
    testnode::script_verb({VERB_RECEIVE_AND_WAIT, 0x0021, 0, true, nullptr});
    CM_INT32 rc = -1;
    cmrcv(id_, rcv_.buffer, &rcv_.requested, &rcv_.data, &rcv_.received, &rcv_.status,
          &rcv_.rts, &rc);
    ASSERT_EQ(rc, CM_OPERATION_INCOMPLETE);
  }
  struct {
    unsigned char buffer[8] = {};
    CM_INT32 requested = 8, data = -1, received = -1, status = -1, rts = -1;
  } rcv_;
};

TEST_F(Cancel, NeverAllocatedIsFreedAtOnce) {
  CM_INT32 rc = -1;
  CMCANC(id_, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(verbs(), 0u);
  EXPECT_EQ(find(id_), nullptr);
}

TEST_F(Cancel, EstablishedConversationIsCancelledAtTheNode) {
  established(0x1234, 0x42);
  c_->ulConversationType = CM_BASIC_CONVERSATION;
  const int wait_objects = testnode::live_wait_objects();
  testnode::script_verb({VERB_CANCEL_CONVERSATION, 0, 0, true, nullptr});
  std::thread node([] {
    while (testnode::pending_async() < 1) std::this_thread::yield();
    testnode::complete_async();
  });
  CM_INT32 rc = -1;
  cmcanc(id_, &rc);
  node.join();
  EXPECT_EQ(rc, CM_OK);
  ASSERT_GE(verbs(), 1u);
  const auto &b = verb(0).bytes;
  EXPECT_EQ(at16(b, 0), VERB_CANCEL_CONVERSATION);
  EXPECT_EQ(at8(b, 2), 0);
  EXPECT_EQ(at8(b, 3), 0);
  EXPECT_EQ(bytes(b.data() + 12, 8), std::string(8, '\x42'));
  EXPECT_EQ(at32(b, 20), 0x1234u);
  for (size_t i = 24; i < b.size(); ++i) EXPECT_EQ(b[i], 0) << i;
  EXPECT_TRUE(verb(0).had_callback);
  EXPECT_FALSE(verb(0).via_async_entry == false);
  EXPECT_EQ(find(id_), nullptr);
  // Slept on and released.
  EXPECT_EQ(testnode::live_wait_objects(), wait_objects);
}

TEST_F(Cancel, FinishedAtOnceKeepsItsWaitObject) {
  established(0x1234, 0x42);
  const int wait_objects = testnode::live_wait_objects();
  testnode::script_verb({VERB_CANCEL_CONVERSATION, 0x0001, 0x31, false, nullptr});
  CM_INT32 rc = -1;
  cmcanc(id_, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(find(id_), nullptr);
  EXPECT_EQ(testnode::live_wait_objects(), wait_objects + 1);
  // Not the library's to release any more; the test cleans up after itself.
  const uint32_t probe = vpm_allocate_wait_object();
  vpm_release_wait_object(probe);
  vpm_release_wait_object(probe - 1);
  EXPECT_EQ(testnode::live_wait_objects(), wait_objects);
}

TEST_F(Cancel, WhileReceiving) {
  ASSERT_NO_FATAL_FAILURE(receive_in_progress());
  CM_INT32 rc = -1;
  testnode::script_verb({VERB_CANCEL_CONVERSATION, 0, 0, true, nullptr});
  std::thread node([] {
    while (testnode::pending_async() < 2) std::this_thread::yield();
    testnode::complete_async();
  });
  cmcanc(id_, &rc);
  node.join();
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(at32(verb(1).bytes, 20), 0x1234u);
  ASSERT_EQ(find(id_), c_);  // the receive's completion is not collected yet
  unsigned char id[8];
  CM_INT32 crc = -1;
  cmwait(id, &crc, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(crc, CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_EQ(find(id_), nullptr);
}

TEST_F(Cancel, NoWaitObject) {
  established();
  testnode::fail_wait_object(true);
  CM_INT32 rc = -1;
  cmcanc(id_, &rc);
  EXPECT_EQ(rc, CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_TRUE(problem(MSG_RESOURCE_SHORTAGE, 18));
  EXPECT_EQ(verbs(), 0u);
  // The counters are left as they were: the conversation stays taken.
  EXPECT_EQ(c_->usOpsOutstanding, 1);
  c_->usOpsOutstanding = 0;
  c_->fFreePending = 0;
}

TEST_F(Cancel, NoWaitObjectWhileReceivingThenWait) {
  // The failed cancel leaves the count raised for good; the receive's
  // completion arrives later all the same and Wait must hand it out, not
  // sleep on a count nothing will lower.
  ASSERT_NO_FATAL_FAILURE(receive_in_progress());
  CM_INT32 rc = -1;
  testnode::fail_wait_object(true);
  cmcanc(id_, &rc);
  testnode::fail_wait_object(false);
  EXPECT_EQ(rc, CM_PRODUCT_SPECIFIC_ERROR);
  ASSERT_EQ(testnode::complete_async(1), 1);
  EXPECT_EQ(c_->usOpsOutstanding, 1);
  unsigned char id[8];
  CM_INT32 crc = -1;
  auto waiter = wait_on_another_thread(id, &crc);
  ASSERT_EQ(waiter.wait_for(std::chrono::seconds(10)), std::future_status::ready)
      << "Wait slept on a count that nothing will lower";
  EXPECT_EQ(waiter.get(), CM_OK);
  EXPECT_EQ(std::memcmp(id, id_, 8), 0);
  EXPECT_EQ(crc, CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_EQ(find(id_), c_) << "still counted as taken, so not released";
  c_->usOpsOutstanding = 0;
  c_->fFreePending = 0;
}

TEST_F(Cancel, UnknownConversation) {
  unsigned char bad[8] = {0x7C, 0x7C, 0, 0, 0, 0, 0, 0};
  CM_INT32 rc = -1;
  cmcanc(bad, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_TRUE(problem(MSG_UNKNOWN_CONV_ID, 2));
}

}  // namespace
