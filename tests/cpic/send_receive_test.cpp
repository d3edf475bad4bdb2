// Send_Data and Receive: the send and receive blocks for every send type,
// fill and receive type, the what-received table, the length checks and
// the log data that goes with send-and-deallocate-abend.
#include <gtest/gtest.h>

#include "conversation_fixture.h"

using namespace cpic;
using namespace cpictest;

namespace {

using Send = ConversationTest;

struct SendTypeCase {
  uint32_t send_type;
  uint32_t prep_type;
  uint32_t dealloc_type;
  uint8_t appc;
};
class SendTypes : public ConversationTest, public ::testing::WithParamInterface<SendTypeCase> {};

TEST_P(SendTypes, BlockCarriesTheMappedSendType) {
  established(0x01020304, 0x5A);
  c_->ulConversationType = CM_BASIC_CONVERSATION;
  c_->ulSendType = GetParam().send_type;
  c_->ulPrepToReceiveType = GetParam().prep_type;
  c_->ulDeallocateType = GetParam().dealloc_type;
  unsigned char data[10] = "abcdefghi";
  CM_INT32 len = 9, rts = -1, rc = -1;
  CMSEND(id_, data, &len, &rts, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(rts, 0);
  ASSERT_GE(verbs(), 1u);
  const auto &b = verb(0).bytes;
  EXPECT_EQ(at16(b, 0), VERB_SEND_DATA);
  EXPECT_EQ(at8(b, 2), 0);
  EXPECT_EQ(at8(b, 3), 0);
  EXPECT_EQ(at16(b, 4), 0);
  EXPECT_EQ(at32(b, 8), 0u);
  EXPECT_EQ(bytes(b.data() + 12, 8), std::string(8, '\x5A'));
  EXPECT_EQ(at32(b, 20), 0x01020304u);
  EXPECT_EQ(at8(b, 24), 0);
  EXPECT_EQ(at16(b, 26), 9);
  EXPECT_EQ(atptr(b, offsetof(VCB_SEND_DATA, data)), static_cast<const void *>(data));
  EXPECT_EQ(at8(b, offsetof(VCB_SEND_DATA, send_type)), GetParam().appc);
  EXPECT_FALSE(verb(0).had_callback);
  // Send-and-deallocate ends the conversation.
  EXPECT_EQ(find(id_) == nullptr, GetParam().send_type == CM_SEND_AND_DEALLOCATE);
}

INSTANTIATE_TEST_SUITE_P(
    Table, SendTypes,
    ::testing::Values(SendTypeCase{CM_BUFFER_DATA, 0, 0, 0}, SendTypeCase{CM_SEND_AND_FLUSH, 0, 0, 1},
                      SendTypeCase{CM_SEND_AND_CONFIRM, 0, 0, 2},
                      SendTypeCase{CM_SEND_AND_PREP_TO_RECEIVE, CM_PREP_TO_RECEIVE_SYNC_LEVEL, 0, 4},
                      SendTypeCase{CM_SEND_AND_PREP_TO_RECEIVE, CM_PREP_TO_RECEIVE_FLUSH, 0, 3},
                      SendTypeCase{CM_SEND_AND_PREP_TO_RECEIVE, CM_PREP_TO_RECEIVE_CONFIRM, 0, 4},
                      SendTypeCase{CM_SEND_AND_DEALLOCATE, 0, CM_DEALLOCATE_SYNC_LEVEL, 6},
                      SendTypeCase{CM_SEND_AND_DEALLOCATE, 0, CM_DEALLOCATE_FLUSH, 5},
                      SendTypeCase{CM_SEND_AND_DEALLOCATE, 0, CM_DEALLOCATE_CONFIRM, 6},
                      SendTypeCase{CM_SEND_AND_DEALLOCATE, 0, CM_DEALLOCATE_ABEND, 7}));

struct LengthCase {
  int32_t length;
  int32_t rc;
};
class SendLength : public ConversationTest, public ::testing::WithParamInterface<LengthCase> {};

TEST_P(SendLength, OnlyZeroTo32767) {
  established();
  static unsigned char data[32768];
  CM_INT32 len = GetParam().length, rts = -1, rc = -1;
  cmsend(id_, data, &len, &rts, &rc);
  EXPECT_EQ(rc, GetParam().rc);
  if (GetParam().rc == CM_OK) {
    ASSERT_EQ(verbs(), 1u);
    EXPECT_EQ(at16(verb(0).bytes, 26), static_cast<uint16_t>(GetParam().length));
  } else {
    EXPECT_EQ(verbs(), 0u);
    ASSERT_EQ(testnode::problems().size(), 1u);
    EXPECT_EQ(testnode::problems()[0].message, MSG_LENGTH_OUT_OF_RANGE);
    EXPECT_EQ(testnode::problems()[0].format, "l");
  }
}

INSTANTIATE_TEST_SUITE_P(Lengths, SendLength,
                         ::testing::Values(LengthCase{0, CM_OK}, LengthCase{32767, CM_OK},
                                           LengthCase{32768, CM_PROGRAM_PARAMETER_CHECK},
                                           LengthCase{-1, CM_PROGRAM_PARAMETER_CHECK}));

TEST_F(Send, Refusals) {
  CM_INT32 len = 1, rts = -1, rc = -1;
  unsigned char data[1] = {0};
  cmsend(id_, data, &len, &rts, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);  // no node conversation yet
  unsigned char bad[8] = {0x7E, 0x7E, 0, 0, 0, 0, 0, 0};
  cmsend(bad, data, &len, &rts, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  ASSERT_EQ(testnode::problems().size(), 1u);
  EXPECT_EQ(testnode::problems()[0].message, MSG_UNKNOWN_CONV_ID);
  EXPECT_EQ(testnode::problems()[0].format, "ba");
  EXPECT_EQ(verbs(), 0u);
}

TEST_F(Send, RequestToSendWrittenEvenOnFailure) {
  established();
  testnode::script_verb({VERB_SEND_DATA, 0x0002, 0x20, false,
                         [](void *b) { static_cast<VCB_SEND_DATA *>(b)->rts_received = 1; }});
  CM_INT32 len = 1, rts = -1, rc = -1;
  unsigned char data[1] = {0};
  cmsend(id_, data, &len, &rts, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(rts, 1);
  EXPECT_NE(find(id_), nullptr);
}

TEST_F(Send, EndingCodeFreesTheConversation) {
  established();
  testnode::script_verb({VERB_SEND_DATA, 0x0006, 0x08640000, false, nullptr});
  CM_INT32 len = 1, rts = -1, rc = -1;
  unsigned char data[1] = {0};
  cmsend(id_, data, &len, &rts, &rc);
  EXPECT_EQ(rc, CM_DEALLOCATED_ABEND);
  EXPECT_EQ(find(id_), nullptr);
}

void set_log_data(CCCB *c, const char *text) {
  c->usLogDataLen = static_cast<uint16_t>(std::strlen(text));
  c->pLogData = static_cast<uint8_t *>(nba_mm_alloc(c->usLogDataLen, 0x302, nba_blank_name, 0, 0));
  std::memcpy(c->pLogData, text, c->usLogDataLen);
}

TEST_F(Send, DeallocateAbendWithLogDataIsBufferDataThenDeallocate) {
  established(0x0BADF00D, 0x33);
  c_->ulConversationType = CM_BASIC_CONVERSATION;
  c_->ulSendType = CM_SEND_AND_DEALLOCATE;
  c_->ulDeallocateType = CM_DEALLOCATE_ABEND;
  set_log_data(c_, "LOGDATA");
  const int before = testnode::live_allocations();
  testnode::script_verb({VERB_SEND_DATA, 0, 0, false,
                         [](void *b) { static_cast<VCB_SEND_DATA *>(b)->rts_received = 1; }});
  CM_INT32 len = 3, rts = -1, rc = -1;
  unsigned char data[3] = {1, 2, 3};
  cmsend(id_, data, &len, &rts, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(rts, 0);
  ASSERT_GE(verbs(), 2u);
  EXPECT_EQ(at8(verb(0).bytes, offsetof(VCB_SEND_DATA, send_type)), 0);
  const auto &d = verb(1).bytes;
  EXPECT_EQ(at16(d, 0), VERB_DEALLOCATE);
  EXPECT_EQ(at8(d, 2), 0);
  EXPECT_EQ(bytes(d.data() + 12, 8), std::string(8, '\x33'));
  EXPECT_EQ(at32(d, 20), 0x0BADF00Du);
  EXPECT_EQ(at8(d, 24), 0);
  EXPECT_EQ(at8(d, 25), 2);
  EXPECT_EQ(at16(d, 26), 7);
  EXPECT_NE(atptr(d, offsetof(VCB_DEALLOCATE, log_data)), nullptr);
  EXPECT_FALSE(verb(1).had_callback);
  // Conversation, log data and its copy all gone.
  EXPECT_EQ(find(id_), nullptr);
  EXPECT_LT(testnode::live_allocations(), before);
  EXPECT_TRUE(testnode::assertions().empty());
}

TEST_F(Send, FailedSendFreesTheLogDataCopy) {
  established();
  c_->ulConversationType = CM_BASIC_CONVERSATION;
  c_->ulSendType = CM_SEND_AND_DEALLOCATE;
  c_->ulDeallocateType = CM_DEALLOCATE_ABEND;
  set_log_data(c_, "XY");
  const int before = testnode::live_allocations();
  testnode::script_verb({VERB_SEND_DATA, 0x0002, 0x20, false, nullptr});
  CM_INT32 len = 1, rts = -1, rc = -1;
  unsigned char data[1] = {0};
  cmsend(id_, data, &len, &rts, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(verbs(), 1u);
  EXPECT_EQ(c_->DeallcLogData, nullptr);
  EXPECT_EQ(c_->usDeallcLogDataLength, 0);
  EXPECT_EQ(testnode::live_allocations(), before);
  EXPECT_TRUE(testnode::assertions().empty());
}

TEST_F(Send, LogDataCopyNotAllocated) {
  established();
  c_->ulConversationType = CM_BASIC_CONVERSATION;
  c_->ulSendType = CM_SEND_AND_DEALLOCATE;
  c_->ulDeallocateType = CM_DEALLOCATE_ABEND;
  set_log_data(c_, "XY");
  testnode::fail_allocation(1);
  CM_INT32 len = 1, rts = -1, rc = -1;
  unsigned char data[1] = {0};
  cmsend(id_, data, &len, &rts, &rc);
  EXPECT_EQ(rc, CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_EQ(verbs(), 0u);
  ASSERT_EQ(testnode::problems().size(), 1u);
  EXPECT_EQ(testnode::problems()[0].message, MSG_RESOURCE_SHORTAGE);
  EXPECT_EQ(testnode::problems()[0].format, "x x x x");
  EXPECT_EQ(c_->usOpsOutstanding, 0);
}

TEST_F(Send, LogDataPointerMissing) {
  established();
  c_->ulConversationType = CM_BASIC_CONVERSATION;
  c_->ulSendType = CM_SEND_AND_DEALLOCATE;
  c_->ulDeallocateType = CM_DEALLOCATE_ABEND;
  c_->usLogDataLen = 5;
  const int before = testnode::live_allocations();
  CM_INT32 len = 1, rts = -1, rc = -1;
  unsigned char data[1] = {0};
  cmsend(id_, data, &len, &rts, &rc);
  EXPECT_EQ(rc, CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_EQ(verbs(), 0u);
  EXPECT_EQ(testnode::live_allocations(), before);
  c_->usLogDataLen = 0;
}

TEST_F(Send, NonBlockingThenWaitThenNotAcceptedMeanwhile) {
  established();
  c_->usProcessingMode = CM_NON_BLOCKING;
  testnode::script_verb({VERB_SEND_DATA, 0, 0, true,
                         [](void *b) { static_cast<VCB_SEND_DATA *>(b)->rts_received = 1; }});
  CM_INT32 len = 1, rts = -1, rc = -1;
  unsigned char data[1] = {0};
  cmsend(id_, data, &len, &rts, &rc);
  EXPECT_EQ(rc, CM_OPERATION_INCOMPLETE);
  EXPECT_EQ(rts, -1);
  EXPECT_TRUE(verb(0).had_callback);
  CM_INT32 rts2 = -1;
  cmsend(id_, data, &len, &rts2, &rc);
  EXPECT_EQ(rc, CM_OPERATION_NOT_ACCEPTED);
  EXPECT_EQ(verbs(), 1u);
  testnode::complete_async();
  EXPECT_EQ(rts, 1);
  unsigned char got[8];
  CM_INT32 crc = -1;
  cmwait(got, &crc, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(crc, CM_OK);
  EXPECT_EQ(bytes(got, 8), bytes(id_, 8));
}

// ---- Receive ----------------------------------------------------------

using Receive = ConversationTest;

struct ReceiveBlockCase {
  uint32_t conversation_type;
  uint32_t receive_type;
  uint32_t fill;
  uint16_t opcode;
  uint8_t fill_byte;
};
class ReceiveBlocks : public ConversationTest,
                      public ::testing::WithParamInterface<ReceiveBlockCase> {};

TEST_P(ReceiveBlocks, OpcodeAndFill) {
  established(0x44556677, 0x21);
  c_->ulConversationType = GetParam().conversation_type;
  c_->ulReceiveType = GetParam().receive_type;
  c_->ulFill = GetParam().fill;
  unsigned char buf[100];
  CM_INT32 req = 100, data = -1, got = -1, status = -1, rts = -1, rc = -1;
  CMRCV(id_, buf, &req, &data, &got, &status, &rts, &rc);
  EXPECT_EQ(rc, CM_OK);
  ASSERT_EQ(verbs(), 1u);
  const auto &b = verb(0).bytes;
  EXPECT_EQ(at16(b, 0), GetParam().opcode);
  EXPECT_EQ(at8(b, 2), GetParam().conversation_type);
  EXPECT_EQ(at8(b, 3), 0);
  EXPECT_EQ(bytes(b.data() + 12, 8), std::string(8, '\x21'));
  EXPECT_EQ(at32(b, 20), 0x44556677u);
  EXPECT_EQ(at16(b, 24), 0);
  EXPECT_EQ(at8(b, 26), 1);
  EXPECT_EQ(at8(b, 27), GetParam().fill_byte);
  EXPECT_EQ(at8(b, 28), 0);
  EXPECT_EQ(at16(b, 30), 100);
  EXPECT_EQ(at16(b, 32), 0);
  EXPECT_EQ(atptr(b, offsetof(VCB_RECEIVE, buffer)), static_cast<const void *>(buf));
}

INSTANTIATE_TEST_SUITE_P(
    Table, ReceiveBlocks,
    ::testing::Values(ReceiveBlockCase{0, CM_RECEIVE_AND_WAIT, CM_FILL_LL, VERB_RECEIVE_AND_WAIT, 1},
                      ReceiveBlockCase{0, CM_RECEIVE_AND_WAIT, CM_FILL_BUFFER, VERB_RECEIVE_AND_WAIT, 0},
                      ReceiveBlockCase{0, CM_RECEIVE_IMMEDIATE, CM_FILL_LL, VERB_RECEIVE_IMMEDIATELY, 1},
                      ReceiveBlockCase{1, CM_RECEIVE_IMMEDIATE, CM_FILL_BUFFER, VERB_RECEIVE_IMMEDIATELY, 0},
                      ReceiveBlockCase{1, CM_RECEIVE_AND_WAIT, CM_FILL_LL, VERB_RECEIVE_AND_WAIT, 1}));

struct WhatCase {
  uint16_t what;
  int32_t data;
  int32_t status;
  uint16_t confirm;
  uint16_t confirm_dealloc;
  bool valid;
};
class WhatReceived : public ConversationTest, public ::testing::WithParamInterface<WhatCase> {};

TEST_P(WhatReceived, DataStatusAndMarks) {
  established();
  const uint16_t what = GetParam().what;
  testnode::script_verb({VERB_RECEIVE_AND_WAIT, 0, 0, false, [what](void *b) {
                           auto *v = static_cast<VCB_RECEIVE *>(b);
                           v->what_received = what;
                           v->data_length = 12;
                           v->rts_received = 1;
                         }});
  unsigned char buf[100];
  CM_INT32 req = 100, data = -1, got = -1, status = -1, rts = -1, rc = -1;
  cmrcv(id_, buf, &req, &data, &got, &status, &rts, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(data, GetParam().data);
  EXPECT_EQ(status, GetParam().status);
  EXPECT_EQ(got, 12);
  EXPECT_EQ(rts, 1);
  EXPECT_EQ(c_->usConfirmPending, GetParam().confirm);
  EXPECT_EQ(c_->usConfirmDeallocPending, GetParam().confirm_dealloc);
  EXPECT_EQ(testnode::assertions().size(), GetParam().valid ? 0u : 2u);
  for (const auto &a : testnode::assertions()) EXPECT_EQ(a.expression, "FALSE");
}

INSTANTIATE_TEST_SUITE_P(
    Table, WhatReceived,
    ::testing::Values(WhatCase{0x0000, 0, 0, 0, 0, true}, WhatCase{0x0001, 0, 1, 0, 0, true},
                      WhatCase{0x0002, 0, 2, 1, 0, true}, WhatCase{0x0003, 0, 3, 1, 0, true},
                      WhatCase{0x0004, 0, 4, 1, 1, true}, WhatCase{0x0100, 1, 0, 0, 0, true},
                      WhatCase{0x0101, 1, 1, 0, 0, true}, WhatCase{0x0102, 1, 2, 1, 0, true},
                      WhatCase{0x0103, 1, 3, 1, 0, true}, WhatCase{0x0104, 1, 4, 1, 1, true},
                      WhatCase{0x0200, 2, 0, 0, 0, true}, WhatCase{0x0201, 2, 1, 0, 0, true},
                      WhatCase{0x0202, 2, 2, 1, 0, true}, WhatCase{0x0203, 2, 3, 1, 0, true},
                      WhatCase{0x0204, 2, 4, 1, 1, true}, WhatCase{0x0400, 3, 0, 0, 0, true},
                      WhatCase{0x0300, 0, 0, 0, 0, false}, WhatCase{0x0005, 0, 0, 0, 0, false},
                      WhatCase{0x0401, 0, 0, 0, 0, false}, WhatCase{0xFFFF, 0, 0, 0, 0, false}));

class ReceiveLength : public ConversationTest, public ::testing::WithParamInterface<LengthCase> {};

TEST_P(ReceiveLength, OnlyZeroTo32767AndReceivedLengthAlwaysSet) {
  established();
  static unsigned char buf[32768];
  CM_INT32 req = GetParam().length, data = -1, got = -1, status = -1, rts = -1, rc = -1;
  cmrcv(id_, buf, &req, &data, &got, &status, &rts, &rc);
  EXPECT_EQ(rc, GetParam().rc);
  EXPECT_EQ(got, 0);
  if (GetParam().rc == CM_OK) {
    ASSERT_EQ(verbs(), 1u);
    EXPECT_EQ(at16(verb(0).bytes, 30), static_cast<uint16_t>(GetParam().length));
  } else {
    EXPECT_EQ(verbs(), 0u);
    ASSERT_EQ(testnode::problems().size(), 1u);
    EXPECT_EQ(testnode::problems()[0].message, MSG_LENGTH_OUT_OF_RANGE);
    EXPECT_EQ(testnode::problems()[0].sub_code, 0u);
  }
}

INSTANTIATE_TEST_SUITE_P(Lengths, ReceiveLength,
                         ::testing::Values(LengthCase{0, CM_OK}, LengthCase{32767, CM_OK},
                                           LengthCase{32768, CM_PROGRAM_PARAMETER_CHECK},
                                           LengthCase{-5, CM_PROGRAM_PARAMETER_CHECK}));

TEST_F(Receive, UnknownConversationAndStateCheck) {
  unsigned char buf[4];
  CM_INT32 req = 4, data = -1, got = -1, status = -1, rts = -1, rc = -1;
  cmrcv(id_, buf, &req, &data, &got, &status, &rts, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  unsigned char bad[8] = {0x7D, 0x7D, 0, 0, 0, 0, 0, 0};
  cmrcv(bad, buf, &req, &data, &got, &status, &rts, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_TRUE(problem(MSG_UNKNOWN_CONV_ID, 14));
  EXPECT_EQ(verbs(), 0u);
}

TEST_F(Receive, EndingCodeStillWritesTheOutputs) {
  established();
  testnode::script_verb({VERB_RECEIVE_AND_WAIT, 0x0009, 0, false, [](void *b) {
                           auto *v = static_cast<VCB_RECEIVE *>(b);
                           v->what_received = 0x0100;
                           v->data_length = 7;
                           v->rts_received = 1;
                         }});
  unsigned char buf[10];
  CM_INT32 req = 10, data = -1, got = -1, status = -1, rts = -1, rc = -1;
  cmrcv(id_, buf, &req, &data, &got, &status, &rts, &rc);
  EXPECT_EQ(rc, CM_DEALLOCATED_NORMAL);
  EXPECT_EQ(data, CM_DATA_RECEIVED);
  EXPECT_EQ(status, CM_NO_STATUS_RECEIVED);
  EXPECT_EQ(got, 7);
  EXPECT_EQ(rts, 1);
  EXPECT_EQ(find(id_), nullptr);
}

TEST_F(Receive, NonBlockingOutputsWrittenByTheCompletion) {
  established();
  c_->usProcessingMode = CM_NON_BLOCKING;
  testnode::script_verb({VERB_RECEIVE_AND_WAIT, 0, 0, true, [](void *b) {
                           auto *v = static_cast<VCB_RECEIVE *>(b);
                           v->what_received = 0x0202;
                           v->data_length = 3;
                         }});
  unsigned char buf[10];
  CM_INT32 req = 10, data = -1, got = -1, status = -1, rts = -1, rc = -1;
  cmrcv(id_, buf, &req, &data, &got, &status, &rts, &rc);
  EXPECT_EQ(rc, CM_OPERATION_INCOMPLETE);
  EXPECT_EQ(got, 0);
  EXPECT_EQ(data, -1);
  testnode::complete_async();
  EXPECT_EQ(data, CM_COMPLETE_DATA_RECEIVED);
  EXPECT_EQ(status, CM_CONFIRM_RECEIVED);
  EXPECT_EQ(got, 3);
  EXPECT_EQ(rts, 0);
  unsigned char id[8];
  CM_INT32 crc = -1;
  cmwait(id, &crc, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(crc, CM_OK);
}

}  // namespace
