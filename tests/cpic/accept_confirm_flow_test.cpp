// Accept_Conversation and Accept_Incoming, Confirm and Confirmed, the short
// data-flow verbs, contexts, Set_Processing_Mode, and one whole
// conversation driven blocking and non-blocking against scripted verbs.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <thread>

#include "conversation_fixture.h"

using namespace cpic;
using namespace cpictest;

namespace {

const uint8_t kTp[8] = {0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8};

testnode::VerbScript incoming(const char *alias, bool blank_user = false) {
  return {VERB_RECEIVE_ALLOCATE_CPIC, 0, 0, false, [alias, blank_user](void *b) {
            auto *v = static_cast<VCB_RECEIVE_ALLOCATE *>(b);
            std::memcpy(v->tp_id, kTp, 8);
            v->conv_id = 0x00FEED00;
            v->sync_level = 1;
            v->conversation_type = 0;
            std::memset(v->user_id, 0x40, 10);
            if (!blank_user) std::memcpy(v->user_id, ebcdic("BOB", 1, 3).data(), 3);
            std::memset(v->local_lu_alias, ' ', 8);
            std::memcpy(v->local_lu_alias, alias, std::strlen(alias));
            std::memcpy(v->mode_name, ebcdic("#BATCH", 1, 8).data(), 8);
            const std::string fq = ebcdic("NETA", 1, 4) + '\x4B' + ebcdic("PLU", 1, 12);
            std::memcpy(v->fq_partner_lu, fq.data(), 17);
            std::memcpy(v->tp_name, pGCB->abDefaultTpName, 64);
          }};
}

// Accepting registers local TP names for the life of the process: each
// test puts the name table and its flags back as it found them.
class Accept : public ConversationTest {
 protected:
  void SetUp() override {
    ConversationTest::SetUp();
    names_ = pGCB->NumLocTPNames;
    accept_issued_ = pGCB->fAcceptIssued;
    void *p = nullptr;
    for (uint32_t h = vtm_get_next_used(pGCB->hLocTpNameTable, 0, &p); h != 0;
         h = vtm_get_next_used(pGCB->hLocTpNameTable, h, &p)) {
      handles_.push_back(h);
    }
  }
  void TearDown() override {
    void *p = nullptr;
    uint32_t h = vtm_get_next_used(pGCB->hLocTpNameTable, 0, &p);
    while (h != 0) {
      void *next_p = nullptr;
      const uint32_t next = vtm_get_next_used(pGCB->hLocTpNameTable, h, &next_p);
      if (std::find(handles_.begin(), handles_.end(), h) == handles_.end()) {
        vtm_release_entry(pGCB->hLocTpNameTable, h);
        nba_mm_free(p);
      }
      h = next;
      p = next_p;
    }
    pGCB->NumLocTPNames = names_;
    pGCB->fAcceptIssued = accept_issued_;
    ConversationTest::TearDown();
  }
  uint16_t names_ = 0, accept_issued_ = 0;
  std::vector<uint32_t> handles_;
};

TEST_F(Accept, AcceptConversationRegistersTheDefaultNameOnceAndCopiesTheResults) {
  pGCB->fAcceptIssued = 0;
  testnode::script_verb(incoming("LU1"));
  unsigned char id[8];
  CM_INT32 rc = -1;
  CMACCP(id, &rc);
  ASSERT_EQ(rc, CM_OK);
  ASSERT_GE(verbs(), 1u);
  size_t ra = 0;
  if (verb(0).opcode == VERB_REGISTER_TP_NAME) {
    EXPECT_FALSE(verb(0).via_async_entry);
    EXPECT_EQ(bytes(verb(0).bytes.data() + 12, 64), bytes(pGCB->abDefaultTpName, 64));
    ra = 1;
  }
  const auto &b = verb(ra).bytes;
  EXPECT_EQ(at16(b, 0), VERB_RECEIVE_ALLOCATE_CPIC);
  EXPECT_EQ(at8(b, 3), 1);
  EXPECT_EQ(at32(b, 84), handle_of(id));
  EXPECT_EQ(at16(b, 192), pGCB->NumLocTPNames);
  EXPECT_NE(atptr(b, offsetof(VCB_RECEIVE_ALLOCATE, name_list)), nullptr);
  EXPECT_FALSE(verb(ra).had_callback);
  CCCB *c = find(id);
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->ulApplConvId, 0x00FEED00u);
  EXPECT_EQ(bytes(c->abTpId, 8), bytes(kTp, 8));
  EXPECT_EQ(c->ulConversationType, 0u);
  EXPECT_EQ(c->ulSyncLevel, 1u);
  EXPECT_EQ(bytes(c->abLocalLuAlias, 8), "LU1     ");
  EXPECT_EQ(c->si.usModeNameLen, 6);
  EXPECT_EQ(c->si.usUserIdLen, 3);
  EXPECT_EQ(c->si.usPartnerLuNameLen, 8);
  EXPECT_EQ(c->si.usPartnerLuDotPos, 4);
  EXPECT_EQ(c->si.fPartnerLuFq, 1);
  EXPECT_NE(c->hLocTpNameEntry, 0u);
  // A user ID came: the accepted TP is the context now.
  EXPECT_EQ(bytes(pGCB->abContextTpId, 8), bytes(kTp, 8));
  EXPECT_EQ(pGCB->fAcceptIssued, 1);
  // No second registration.
  testnode::reset();
  testnode::script_verb(incoming("LU1"));
  unsigned char id2[8];
  CMACCP(id2, &rc);
  ASSERT_EQ(rc, CM_OK);
  ASSERT_EQ(verbs(), 1u);
  EXPECT_EQ(verb(0).opcode, VERB_RECEIVE_ALLOCATE_CPIC);
  std::memset(pGCB->abContextTpId, 0, 8);
  std::memset(find(id)->abTpId, 0, 8);
  std::memset(find(id2)->abTpId, 0, 8);
  drop(id);
  drop(id2);
}

TEST_F(Accept, BlankUserKeepsTheContextAndPartnerWithoutPeriod) {
  testnode::script_verb({VERB_RECEIVE_ALLOCATE_CPIC, 0, 0, false, [](void *b) {
                           auto *v = static_cast<VCB_RECEIVE_ALLOCATE *>(b);
                           std::memset(v->user_id, 0x40, 10);
                           std::memset(v->fq_partner_lu, 0x40, 17);
                           std::memcpy(v->fq_partner_lu, ebcdic("PLU", 1, 3).data(), 3);
                           std::memset(v->local_lu_alias, ' ', 8);
                           v->conv_id = 5;
                         }});
  unsigned char id[8];
  CM_INT32 rc = -1;
  cmaccp(id, &rc);
  ASSERT_EQ(rc, CM_OK);
  EXPECT_TRUE(all_zero(pGCB->abContextTpId, 8));
  CCCB *c = find(id);
  EXPECT_EQ(c->si.usPartnerLuDotPos, 0);
  EXPECT_EQ(c->si.usPartnerLuNameLen, 3);
  drop(id);
}

TEST_F(Accept, FailureLeavesNoConversation) {
  testnode::script_verb({VERB_RECEIVE_ALLOCATE_CPIC, 0x0002, 0x24, false, nullptr});
  unsigned char id[8];
  CM_INT32 rc = -1;
  const int before = testnode::live_allocations();
  cmaccp(id, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(find(id), nullptr);
  EXPECT_TRUE(problem(MSG_ACCEPT_FAILED, 3));
  // Only the registered name's entry stays, kept for the process.
  EXPECT_EQ(testnode::live_allocations(), before + (pGCB->NumLocTPNames - names_));
}

TEST_F(Accept, NameListAllocationFailure) {
  pGCB->fAcceptIssued = 0;
  unsigned char id[8];
  CM_INT32 rc = -1;
  const int before = testnode::live_allocations();
  testnode::fail_allocation(3);  // conversation block, name entry, name list
  cmaccp(id, &rc);
  EXPECT_EQ(rc, CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_TRUE(problem(MSG_RESOURCE_SHORTAGE, 10));
  EXPECT_EQ(pGCB->NumLocTPNames, names_ + 1);
  EXPECT_EQ(testnode::live_allocations(), before + 1);
}

TEST_F(Accept, NameEntryAllocationFailure) {
  pGCB->fAcceptIssued = 0;
  unsigned char id[8];
  CM_INT32 rc = -1;
  const int before = testnode::live_allocations();
  testnode::fail_allocation(2);
  cmaccp(id, &rc);
  EXPECT_EQ(rc, CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_TRUE(problem(MSG_RESOURCE_SHORTAGE, 0));
  EXPECT_EQ(pGCB->NumLocTPNames, names_);
  EXPECT_EQ(testnode::live_allocations(), before);
}

TEST_F(Accept, RegistrationRefused) {
  pGCB->fAcceptIssued = 0;
  testnode::script_verb({VERB_REGISTER_TP_NAME, 0x0001, 0x105, false, nullptr});
  unsigned char id[8];
  CM_INT32 rc = -1;
  const int before = testnode::live_allocations();
  cmaccp(id, &rc);
  EXPECT_EQ(rc, CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_TRUE(problem(MSG_TP_NAME_REG_FAILED, 0));
  EXPECT_EQ(pGCB->fAcceptIssued, 0);
  EXPECT_EQ(testnode::live_allocations(), before);
}

TEST_F(Accept, AcceptIncomingRefusalsAndNonBlocking) {
  CM_INT32 rc = -1;
  // Made by Initialize_Conversation: a state check.
  cmacci(id_, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  EXPECT_TRUE(problem(MSG_ACCEPT_FAILED, 2));
  unsigned char bad[8] = {0x7B, 0x7B, 0, 0, 0, 0, 0, 0};
  cmacci(bad, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_TRUE(problem(MSG_UNKNOWN_CONV_ID, 0));

  unsigned char in[8];
  cminic(in, &rc);
  CCCB *c = find(in);
  c->usProcessingMode = CM_NON_BLOCKING;
  auto s = incoming("LU2", true);
  s.async = true;
  testnode::script_verb(s);
  CMACCI(in, &rc);
  EXPECT_EQ(rc, CM_OPERATION_INCOMPLETE);
  EXPECT_EQ(at32(verb(verbs() - 1).bytes, 84), handle_of(in));
  cmacci(in, &rc);
  EXPECT_EQ(rc, CM_OPERATION_NOT_ACCEPTED);
  EXPECT_TRUE(problem(MSG_ACCEPT_FAILED, 1));
  testnode::complete_async();
  unsigned char got[8];
  CM_INT32 crc = -1;
  cmwait(got, &crc, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(crc, CM_OK);
  EXPECT_EQ(bytes(got, 8), bytes(in, 8));
  EXPECT_EQ(c->ulApplConvId, 0x00FEED00u);
  std::memset(c->abTpId, 0, 8);
  drop(in);
}

TEST_F(Accept, CancelWhileReceiveAllocateIsOutstanding) {
  unsigned char in[8];
  CM_INT32 rc = -1;
  cminic(in, &rc);
  find(in)->usProcessingMode = CM_NON_BLOCKING;
  testnode::script_verb({VERB_RECEIVE_ALLOCATE_CPIC, 0x0021, 0, true, nullptr});
  cmacci(in, &rc);
  ASSERT_EQ(rc, CM_OPERATION_INCOMPLETE);
  testnode::script_verb({VERB_CANCEL_CONVERSATION, 0, 0, true, nullptr});
  std::thread node([] {
    while (testnode::pending_async() < 2) std::this_thread::yield();
    testnode::complete_async();
  });
  cmcanc(in, &rc);
  node.join();
  EXPECT_EQ(rc, CM_OK);
  const auto &cancel = verb(verbs() - 1);
  EXPECT_EQ(cancel.opcode, VERB_CANCEL_CONVERSATION);
  EXPECT_EQ(at32(cancel.bytes, 20), handle_of(in));
  EXPECT_EQ(bytes(cancel.bytes.data() + 12, 8), std::string(8, '\0'));
  unsigned char got[8];
  CM_INT32 crc = -1;
  cmwait(got, &crc, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(find(in), nullptr);
}

// ---- Confirm, Confirmed and the data-flow verbs -------------------------

using Confirm = ConversationTest;

TEST_F(Confirm, RequestToSendWrittenAlsoOnFailure) {
  established(0x77, 0x31);
  testnode::script_verb({VERB_CONFIRM, 0x0002, 0x22, false,
                         [](void *b) { static_cast<VCB_CONFIRM *>(b)->rts_received = 1; }});
  CM_INT32 rts = -1, rc = -1;
  CMCFM(id_, &rts, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(rts, 1);
  const auto &b = verb(0).bytes;
  EXPECT_EQ(at16(b, 0), VERB_CONFIRM);
  EXPECT_EQ(at32(b, 20), 0x77u);
  EXPECT_EQ(bytes(b.data() + 12, 8), std::string(8, '\x31'));
  for (size_t i = 24; i < b.size(); ++i) EXPECT_EQ(b[i], 0) << i;
}

TEST_F(Confirm, ConfirmedAfterConfirmDeallocateEndsTheConversation) {
  established();
  c_->usConfirmPending = 1;
  c_->usConfirmDeallocPending = 1;
  CM_INT32 rc = -1;
  CMCFMD(id_, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(verb(0).opcode, VERB_CONFIRMED);
  EXPECT_EQ(find(id_), nullptr);
  cmcfmd(id_, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_TRUE(problem(MSG_UNKNOWN_CONV_ID, 4));
}

TEST_F(Confirm, RefusalsWithoutANodeConversation) {
  CM_INT32 rts = -1, rc = -1;
  cmcfm(id_, &rts, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  cmcfmd(id_, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  cmflus(id_, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  cmptr(id_, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  cmrts(id_, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  cmserr(id_, &rts, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  cmtrts(id_, &rts, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(verbs(), 0u);
}

struct PtrCase {
  uint32_t type;
  uint8_t byte;
};
class PrepareToReceive : public ConversationTest, public ::testing::WithParamInterface<PtrCase> {};

TEST_P(PrepareToReceive, TypeByte) {
  established();
  c_->ulPrepToReceiveType = GetParam().type;
  CM_INT32 rc = -1;
  CMPTR(id_, &rc);
  EXPECT_EQ(rc, CM_OK);
  const auto &b = verb(0).bytes;
  EXPECT_EQ(at16(b, 0), VERB_PREPARE_TO_RECEIVE);
  EXPECT_EQ(at8(b, 24), GetParam().byte);
  EXPECT_EQ(at8(b, 25), 0);
}

INSTANTIATE_TEST_SUITE_P(Types, PrepareToReceive,
                         ::testing::Values(PtrCase{CM_PREP_TO_RECEIVE_SYNC_LEVEL, 0},
                                           PtrCase{CM_PREP_TO_RECEIVE_FLUSH, 1},
                                           PtrCase{CM_PREP_TO_RECEIVE_CONFIRM, 0}));

using DataFlow = ConversationTest;

TEST_F(DataFlow, FlushAndRequestToSendBlocks) {
  established(0x55, 0x12);
  CM_INT32 rc = -1;
  CMFLUS(id_, &rc);
  EXPECT_EQ(rc, CM_OK);
  CMRTS(id_, &rc);
  EXPECT_EQ(rc, CM_OK);
  ASSERT_EQ(verbs(), 2u);
  EXPECT_EQ(verb(0).opcode, VERB_FLUSH);
  EXPECT_EQ(verb(1).opcode, VERB_REQUEST_TO_SEND);
  for (size_t v = 0; v < 2; ++v) {
    EXPECT_EQ(at32(verb(v).bytes, 20), 0x55u);
    for (size_t i = 24; i < verb(v).bytes.size(); ++i) EXPECT_EQ(verb(v).bytes[i], 0);
  }
}

TEST_F(DataFlow, SendErrorBasicCarriesLogDataOnceMappedNone) {
  established();
  c_->ulConversationType = CM_BASIC_CONVERSATION;
  c_->ulErrorDirection = CM_SEND_ERROR;
  c_->usLogDataLen = 3;
  c_->pLogData = static_cast<uint8_t *>(nba_mm_alloc(3, 0x302, nba_blank_name, 0, 0));
  const void *log = c_->pLogData;
  c_->usConfirmPending = c_->usConfirmDeallocPending = 1;
  testnode::script_verb({VERB_SEND_ERROR, 0, 0, false,
                         [](void *b) { static_cast<VCB_SEND_ERROR *>(b)->rts_received = 1; }});
  CM_INT32 rts = -1, rc = -1;
  CMSERR(id_, &rts, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(rts, 1);
  const auto &b = verb(0).bytes;
  EXPECT_EQ(at16(b, 0), VERB_SEND_ERROR);
  EXPECT_EQ(at8(b, 25), 0);
  EXPECT_EQ(at8(b, 26), 1);
  EXPECT_EQ(at16(b, 28), 3);
  EXPECT_EQ(atptr(b, 32), log);
  EXPECT_EQ(c_->usLogDataLen, 0);
  EXPECT_EQ(c_->pLogData, nullptr);
  EXPECT_EQ(c_->usConfirmPending, 0);
  EXPECT_EQ(c_->usConfirmDeallocPending, 0);

  testnode::reset();
  c_->ulConversationType = CM_MAPPED_CONVERSATION;
  c_->ulErrorDirection = CM_RECEIVE_ERROR;
  c_->usLogDataLen = 3;  // whatever it holds, a mapped conversation sends none
  cmserr(id_, &rts, &rc);
  EXPECT_EQ(rc, CM_OK);
  const auto &m = verb(0).bytes;
  EXPECT_EQ(at8(m, 26), 0);
  EXPECT_EQ(at16(m, 28), 0);
  EXPECT_EQ(atptr(m, 32), nullptr);
}

TEST_F(DataFlow, SendErrorBasicWithoutLogData) {
  established();
  c_->ulConversationType = CM_BASIC_CONVERSATION;
  c_->usLogDataLen = 3;
  CM_INT32 rts = -1, rc = -1;
  cmserr(id_, &rts, &rc);
  EXPECT_EQ(rc, CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_TRUE(problem(MSG_LOG_DATA_MISSING, 2));
  EXPECT_EQ(verbs(), 0u);
  c_->usLogDataLen = 0;
}

struct TrtsCase {
  uint16_t primary;
  int32_t rc;
  int32_t rts;
};
class TestRequestToSend : public ConversationTest, public ::testing::WithParamInterface<TrtsCase> {};

TEST_P(TestRequestToSend, Answers) {
  established(0x66, 0x13);
  c_->usProcessingMode = CM_NON_BLOCKING;  // always answered at once
  testnode::script_verb({VERB_TEST_RTS, GetParam().primary, 0x20, true, nullptr});
  CM_INT32 rts = -1, rc = -1;
  CMTRTS(id_, &rts, &rc);
  EXPECT_EQ(rc, GetParam().rc);
  EXPECT_EQ(rts, GetParam().rts);
  EXPECT_EQ(verb(0).opcode, VERB_TEST_RTS);
  EXPECT_FALSE(verb(0).had_callback);
  EXPECT_EQ(c_->usOpsOutstanding, 0);
  EXPECT_EQ(counter_get(pGCB->NumVerbsInProgress), 0u);
}

INSTANTIATE_TEST_SUITE_P(Codes, TestRequestToSend,
                         ::testing::Values(TrtsCase{0, CM_OK, CM_REQ_TO_SEND_RECEIVED},
                                           TrtsCase{0x0014, CM_OK, CM_REQ_TO_SEND_NOT_RECEIVED},
                                           TrtsCase{0x0002, CM_PROGRAM_STATE_CHECK, -1}));

TEST_F(DataFlow, TestRequestToSendWhileConfirmPending) {
  established();
  c_->usConfirmPending = 1;
  CM_INT32 rts = -1, rc = -1;
  cmtrts(id_, &rts, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(verbs(), 0u);
}

// ---- Contexts and processing mode -------------------------------------

using Context = ConversationTest;

TEST_F(Context, SetAndExtract) {
  established(0x10, 0x77);
  unsigned char ctx[8];
  CM_INT32 len = -1, rc = -1;
  CMECTX(id_, ctx, &len, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(len, 8);
  EXPECT_EQ(bytes(ctx, 8), std::string(8, '\x77'));
  std::memcpy(c_->abLocalLuAlias, "CTXALIAS", 8);
  CMSCTX(ctx, &len, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(bytes(pGCB->abContextTpId, 8), std::string(8, '\x77'));
  EXPECT_EQ(bytes(pGCB->abContextLuAlias, 8), "CTXALIAS");
  // Again: a no-op.
  cmsctx(ctx, &len, &rc);
  EXPECT_EQ(rc, CM_OK);
  unsigned char unknown[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  cmsctx(unknown, &len, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  CM_INT32 seven = 7;
  cmsctx(ctx, &seven, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(verbs(), 0u);
}

TEST_F(Context, ExtractWithoutNodeConversation) {
  unsigned char ctx[8];
  CM_INT32 len = -1, rc = -1;
  cmectx(id_, ctx, &len, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  unsigned char bad[8] = {0x7A, 0x7A, 0, 0, 0, 0, 0, 0};
  cmectx(bad, ctx, &len, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_TRUE(problem(MSG_UNKNOWN_CONV_ID, 6));
}

TEST_F(Context, ValidFindsTheFirstConversationOrTheContext) {
  established(0x10, 0x44);
  CCCB *found = nullptr;
  const uint8_t tp[8] = {0x44, 0x44, 0x44, 0x44, 0x44, 0x44, 0x44, 0x44};
  EXPECT_EQ(SCC_context_valid(tp, &found), 1);
  EXPECT_EQ(found, c_);
  const uint8_t other[8] = {3, 3, 3, 3, 3, 3, 3, 3};
  EXPECT_EQ(SCC_context_valid(other, &found), 0);
  std::memcpy(pGCB->abContextTpId, other, 8);
  EXPECT_EQ(SCC_context_valid(other, &found), 1);
  EXPECT_EQ(found, nullptr);
}

using ProcessingMode = ConversationTest;

TEST_F(ProcessingMode, ValuesAndNotWhileOutstanding) {
  CM_INT32 mode = CM_NON_BLOCKING, rc = -1;
  CMSPM(id_, &mode, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(c_->usProcessingMode, 1);
  for (CM_INT32 bad : {2, -1}) {
    cmspm(id_, &bad, &rc);
    EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  }
  EXPECT_EQ(c_->usProcessingMode, 1);
  established();
  testnode::script_verb({VERB_FLUSH, 0, 0, true, nullptr});
  cmflus(id_, &rc);
  ASSERT_EQ(rc, CM_OPERATION_INCOMPLETE);
  mode = CM_BLOCKING;
  cmspm(id_, &mode, &rc);
  EXPECT_EQ(rc, CM_OPERATION_NOT_ACCEPTED);
  EXPECT_EQ(c_->usProcessingMode, 1);
}

// ---- A whole conversation ------------------------------------------------

class FullConversation : public ConversationTest, public ::testing::WithParamInterface<bool> {
 protected:
  // Issues through the call, and in non-blocking mode collects the result.
  template <typename Call>
  CM_INT32 run(Call call) {
    CM_INT32 rc = -1;
    call(&rc);
    if (!GetParam()) return rc;
    EXPECT_EQ(rc, CM_OPERATION_INCOMPLETE);
    testnode::complete_async();
    unsigned char got[8];
    CM_INT32 crc = -1;
    cmwait(got, &crc, &rc);
    EXPECT_EQ(rc, CM_OK);
    EXPECT_EQ(bytes(got, 8), bytes(id_, 8));
    return crc;
  }
};

TEST_P(FullConversation, AllocateSendReceiveConfirmPrepareDeallocate) {
  const bool nb = GetParam();
  CM_INT32 rc = -1;
  if (nb) {
    CM_INT32 mode = CM_NON_BLOCKING;
    cmspm(id_, &mode, &rc);
    ASSERT_EQ(rc, CM_OK);
  }
  c_->ulSyncLevel = CM_CONFIRM;
  testnode::script_verb({VERB_TP_STARTED, 0, 0, false, [](void *b) {
                           std::memcpy(static_cast<VCB_TP_STARTED *>(b)->tp_id, kTp, 8);
                         }});
  testnode::script_verb({VERB_ALLOCATE, 0, 0, nb,
                         [](void *b) { static_cast<VCB_HEADER *>(b)->conv_id = 0x3000; }});
  testnode::script_verb({VERB_SEND_DATA, 0, 0, nb, nullptr});
  testnode::script_verb({VERB_RECEIVE_AND_WAIT, 0, 0, nb, [](void *b) {
                           auto *v = static_cast<VCB_RECEIVE *>(b);
                           std::memcpy(v->buffer, "pong", 4);
                           v->data_length = 4;
                           v->what_received = 0x0202;
                         }});
  testnode::script_verb({VERB_CONFIRMED, 0, 0, nb, nullptr});
  testnode::script_verb({VERB_CONFIRM, 0, 0, nb, nullptr});
  testnode::script_verb({VERB_PREPARE_TO_RECEIVE, 0, 0, nb, nullptr});
  testnode::script_verb({VERB_DEALLOCATE, 0, 0, nb, nullptr});

  EXPECT_EQ(run([&](CM_INT32 *r) { CMALLC(id_, r); }), CM_OK);
  EXPECT_EQ(c_->ulApplConvId, 0x3000u);
  unsigned char ping[4] = {'p', 'i', 'n', 'g'};
  CM_INT32 len = 4, rts = -1;
  EXPECT_EQ(run([&](CM_INT32 *r) { CMSEND(id_, ping, &len, &rts, r); }), CM_OK);
  EXPECT_EQ(rts, 0);
  unsigned char buf[16] = {};
  CM_INT32 req = 16, data = -1, got = -1, status = -1;
  EXPECT_EQ(run([&](CM_INT32 *r) { CMRCV(id_, buf, &req, &data, &got, &status, &rts, r); }), CM_OK);
  EXPECT_EQ(bytes(buf, 4), "pong");
  EXPECT_EQ(data, CM_COMPLETE_DATA_RECEIVED);
  EXPECT_EQ(status, CM_CONFIRM_RECEIVED);
  EXPECT_EQ(got, 4);
  EXPECT_EQ(run([&](CM_INT32 *r) { CMCFMD(id_, r); }), CM_OK);
  EXPECT_EQ(c_->usConfirmPending, 0);
  EXPECT_EQ(run([&](CM_INT32 *r) { CMCFM(id_, &rts, r); }), CM_OK);
  EXPECT_EQ(run([&](CM_INT32 *r) { CMPTR(id_, r); }), CM_OK);
  c_->ulDeallocateType = CM_DEALLOCATE_FLUSH;
  EXPECT_EQ(run([&](CM_INT32 *r) { CMDEAL(id_, r); }), CM_OK);
  EXPECT_EQ(find(id_), nullptr);

  const uint16_t expected[] = {VERB_TP_STARTED,  VERB_ALLOCATE,  VERB_SEND_DATA,
                               VERB_RECEIVE_AND_WAIT, VERB_CONFIRMED, VERB_CONFIRM,
                               VERB_PREPARE_TO_RECEIVE, VERB_DEALLOCATE, VERB_TP_ENDED};
  ASSERT_EQ(verbs(), std::size(expected));
  for (size_t i = 0; i < std::size(expected); ++i) {
    EXPECT_EQ(verb(i).opcode, expected[i]) << i;
    if (i >= 1 && i <= 7) {
      EXPECT_EQ(verb(i).had_callback, nb) << i;
      EXPECT_EQ(bytes(verb(i).bytes.data() + 12, 8), bytes(kTp, 8)) << i;
    }
    if (i >= 2 && i <= 7) {
      EXPECT_EQ(at32(verb(i).bytes, 20), 0x3000u) << i;
    }
  }
  EXPECT_EQ(counter_get(pGCB->NumVerbsInProgress), 0u);
  EXPECT_EQ(counter_get(pGCB->NumVerbsWaiting), 0u);
  EXPECT_TRUE(testnode::assertions().empty());
  EXPECT_EQ(leaked(), -1);  // the conversation made in SetUp is gone
}

INSTANTIATE_TEST_SUITE_P(Modes, FullConversation, ::testing::Values(false, true),
                         [](const auto &info) { return info.param ? "NonBlocking" : "Blocking"; });

}  // namespace
