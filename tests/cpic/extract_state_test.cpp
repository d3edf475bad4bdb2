// Extract_Conversation_State: the two states known without the node, the
// state query the call issues once a node conversation exists (its block
// byte for byte), the translation of every node state byte, failures of
// the query, and the refusals with their problem records.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "conversation_fixture.h"

using namespace cpic;
using namespace cpictest;

namespace {

constexpr uint32_t kBadStateRecord = 0x20030004;
constexpr CM_INT32 kUntouched = -7;

class ExtractState : public ConversationTest {
 protected:
  CM_INT32 extract(const unsigned char *id, CM_INT32 *state) {
    CM_INT32 rc = -1;
    CMECS(const_cast<unsigned char *>(id), state, &rc);
    return rc;
  }
  // Scripts the state query to answer this node state byte.
  static void script_state(uint8_t node_state, uint16_t primary = 0, uint32_t secondary = 0) {
    testnode::script_verb({VERB_GET_STATE, primary, secondary, false, [node_state](void *b) {
                             static_cast<VCB_GET_STATE *>(b)->state = node_state;
                           }});
  }
  const testnode::LogRecord *record(uint32_t message) const {
    for (const auto &p : testnode::problems()) {
      if (p.message == message) return &p;
    }
    return nullptr;
  }
};

// ---- Without a node conversation -----------------------------------------

TEST_F(ExtractState, InitializeConversationGivesInitializeStateWithoutAVerb) {
  CM_INT32 state = kUntouched;
  EXPECT_EQ(extract(id_, &state), CM_OK);
  EXPECT_EQ(state, CM_INITIALIZE_STATE);
  EXPECT_EQ(verbs(), 0u);
  EXPECT_TRUE(testnode::problems().empty());
  EXPECT_EQ(c_->usOpsOutstanding, 0);
}

TEST_F(ExtractState, InitializeForIncomingGivesInitializeIncomingStateWithoutAVerb) {
  unsigned char in[8];
  CM_INT32 rc = -1;
  cminic(in, &rc);
  ASSERT_EQ(rc, CM_OK);
  testnode::reset();
  CM_INT32 state = kUntouched;
  EXPECT_EQ(extract(in, &state), CM_OK);
  EXPECT_EQ(state, CM_INITIALIZE_INCOMING_STATE);
  EXPECT_EQ(verbs(), 0u);
  drop(in);
}

// ---- The state query and the translation of the node's state byte -------

struct StateCase {
  const char *name;
  uint8_t node_state;
  uint32_t conversation_type;
  CM_INT32 rc;
  CM_INT32 state;  // kUntouched: the output is not written
  const char *trace_name;
};

const StateCase kStates[] = {
    {"Reset", 0, CM_MAPPED_CONVERSATION, CM_OK, CM_INITIALIZE_STATE, "CM_INITIALIZE_STATE"},
    {"Send", 1, CM_BASIC_CONVERSATION, CM_OK, CM_SEND_STATE, "CM_SEND_STATE"},
    {"Receive", 2, CM_MAPPED_CONVERSATION, CM_OK, CM_RECEIVE_STATE, "CM_RECEIVE_STATE"},
    {"Confirm", 3, CM_BASIC_CONVERSATION, CM_OK, CM_CONFIRM_STATE, "CM_CONFIRM_STATE"},
    {"ConfirmSend", 4, CM_MAPPED_CONVERSATION, CM_OK, CM_CONFIRM_SEND_STATE,
     "CM_CONFIRM_SEND_STATE"},
    {"ConfirmDeallocate", 5, CM_BASIC_CONVERSATION, CM_OK, CM_CONFIRM_DEALLOCATE_STATE,
     "CM_CONFIRM_DEALLOCATE_STATE"},
    {"SendPending", 9, CM_MAPPED_CONVERSATION, CM_OK, CM_SEND_PENDING_STATE,
     "CM_SEND_PENDING_STATE"},
    // No translation: a verb outstanding at the node (6) and the values the
    // node never gives.
    {"Pending", 6, CM_MAPPED_CONVERSATION, CM_PRODUCT_SPECIFIC_ERROR, kUntouched, nullptr},
    {"Seven", 7, CM_BASIC_CONVERSATION, CM_PRODUCT_SPECIFIC_ERROR, kUntouched, nullptr},
    {"Eight", 8, CM_MAPPED_CONVERSATION, CM_PRODUCT_SPECIFIC_ERROR, kUntouched, nullptr},
    {"Ten", 10, CM_MAPPED_CONVERSATION, CM_PRODUCT_SPECIFIC_ERROR, kUntouched, nullptr},
    {"AllBits", 0xFF, CM_BASIC_CONVERSATION, CM_PRODUCT_SPECIFIC_ERROR, kUntouched, nullptr},
};

class ExtractStateByte : public ExtractState, public ::testing::WithParamInterface<StateCase> {};

TEST_P(ExtractStateByte, QueryBlockAndTranslation) {
  const StateCase &sc = GetParam();
  established(0x00C0DE42, 0x3C);
  c_->ulConversationType = sc.conversation_type;
  // Fields the query must not carry over from an earlier verb.
  std::memset(&c_->vcb, 0xA5, sizeof c_->vcb);
  script_state(sc.node_state);
  testnode::trace_control()[0] |= 0x20;
  unsigned char id[8];
  std::memcpy(id, id_, 8);
  id[6] = 0x99;  // the second half of the ID is never looked at
  CM_INT32 state = kUntouched;
  EXPECT_EQ(extract(id, &state), sc.rc);
  EXPECT_EQ(state, sc.state);

  ASSERT_EQ(verbs(), 1u);
  const testnode::IssuedVerb &v = verb(0);
  EXPECT_EQ(v.opcode, VERB_GET_STATE);
  EXPECT_TRUE(v.via_async_entry);
  EXPECT_FALSE(v.had_callback);
  std::vector<uint8_t> expected(sizeof(VCB_AREA), 0);
  expected[0] = 0x09;
  expected[2] = static_cast<uint8_t>(sc.conversation_type);
  std::memset(expected.data() + 12, 0x3C, 8);
  const uint32_t conv_id = 0x00C0DE42;
  std::memcpy(expected.data() + 20, &conv_id, 4);
  EXPECT_EQ(v.bytes, expected);

  // The conversation is idle again and still there.
  EXPECT_EQ(find(id_), c_);
  EXPECT_EQ(c_->usOpsOutstanding, 0);
  EXPECT_EQ(c_->fFreePending, 0);
  EXPECT_EQ(c_->usOpTraceIndex, 5);

  if (sc.rc == CM_OK) {
    EXPECT_TRUE(testnode::problems().empty());
  } else {
    const testnode::LogRecord *r = record(kBadStateRecord);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->sub_code, 0u);
    EXPECT_EQ(r->format, "b");
    char hex[3];
    std::snprintf(hex, sizeof hex, "%02X", sc.node_state);
    EXPECT_EQ(r->data, std::vector<std::string>{hex});
  }

  // The response record names the state returned.
  const auto &lines = testnode::trace_lines();
  const std::string result =
      std::string("CPIC CMECS response, result = ") +
      (sc.rc == CM_OK ? "CM_OK" : "CM_PRODUCT_SPECIFIC_ERROR");
  auto at = std::find(lines.begin(), lines.end(), result);
  ASSERT_NE(at, lines.end());
  ASSERT_NE(at + 1, lines.end());
  if (sc.trace_name != nullptr) {
    EXPECT_EQ(*(at + 1), std::string("CPIC  Conversation state = ") + sc.trace_name);
  } else {
    EXPECT_EQ(*(at + 1), "CPIC  Conversation state = ***UNKNOWN CONVERSATION STATE***");
  }
  EXPECT_EQ(leaked(), 0);
}

INSTANTIATE_TEST_SUITE_P(EveryNodeState, ExtractStateByte, ::testing::ValuesIn(kStates),
                         [](const auto &info) { return std::string(info.param.name); });

// ---- Failures of the query ------------------------------------------------

struct FailureCase {
  const char *name;
  uint16_t primary;  // big-endian number
  uint32_t secondary;
};

const FailureCase kFailures[] = {
    {"ParameterCheck", 0x0001, 0x00000031},
    {"StateCheck", 0x0002, 0x00000020},
    {"DeallocatedNormally", 0x0009, 0},
    {"DeallocatedAbend", 0x0005, 0x08640000},
    {"ConnectionLost", 0xF003, 0},
    {"NoNode", 0xF002, 0},
};

class ExtractStateFailure : public ExtractState,
                            public ::testing::WithParamInterface<FailureCase> {};

TEST_P(ExtractStateFailure, ProductSpecificErrorNotMapped) {
  const FailureCase &fc = GetParam();
  established(0x77, 0x21);
  // A failed query leaves the state byte as the library cleared it.
  testnode::script_verb({VERB_GET_STATE, fc.primary, fc.secondary, false, nullptr});
  CM_INT32 state = kUntouched;
  EXPECT_EQ(extract(id_, &state), CM_PRODUCT_SPECIFIC_ERROR);
  // The byte is translated all the same: the cleared 0 reads as Initialize.
  EXPECT_EQ(state, CM_INITIALIZE_STATE);
  ASSERT_EQ(testnode::problems().size(), 1u) << "the code is not mapped, so nothing else is logged";
  const testnode::LogRecord &r = testnode::problems()[0];
  EXPECT_EQ(r.message, MSG_GET_STATE_FAILED);
  EXPECT_EQ(r.sub_code, 0u);
  EXPECT_EQ(r.format, "x");
  // The primary code as it stands in the block, as every other record of
  // an APPC code gives it.
  char hex[5];
  std::snprintf(hex, sizeof hex, "%04X",
                static_cast<unsigned>(static_cast<uint16_t>((fc.primary >> 8) | (fc.primary << 8))));
  EXPECT_EQ(r.data, std::vector<std::string>{hex});
  // Even a code that ends conversations does not end this one: the query
  // only reports.
  EXPECT_EQ(find(id_), c_);
  EXPECT_EQ(c_->fFreePending, 0);
  EXPECT_EQ(c_->usOpsOutstanding, 0);
  EXPECT_EQ(c_->ulApplConvId, 0x77u);
  EXPECT_EQ(leaked(), 0);
}

INSTANTIATE_TEST_SUITE_P(Codes, ExtractStateFailure, ::testing::ValuesIn(kFailures),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(ExtractState, FailureWithAnUntranslatableByteLogsBoth) {
  established();
  script_state(8, 0x0002, 0x20);
  CM_INT32 state = kUntouched;
  EXPECT_EQ(extract(id_, &state), CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_EQ(state, kUntouched);
  ASSERT_EQ(testnode::problems().size(), 2u);
  EXPECT_EQ(testnode::problems()[0].message, MSG_GET_STATE_FAILED);
  EXPECT_EQ(testnode::problems()[1].message, kBadStateRecord);
  EXPECT_EQ(testnode::problems()[1].data, std::vector<std::string>{"08"});
}

// ---- Refusals -----------------------------------------------------------

TEST_F(ExtractState, UnknownConversationIsAParameterCheckWithItsRecord) {
  const unsigned char unknown[8] = {0x5D, 0x5D, 0x00, 0x00, 0x01, 0x02, 0x03, 0x04};
  CM_INT32 state = kUntouched;
  EXPECT_EQ(extract(unknown, &state), CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(state, kUntouched);
  EXPECT_EQ(verbs(), 0u);
  ASSERT_EQ(testnode::problems().size(), 1u);
  const testnode::LogRecord &r = testnode::problems()[0];
  EXPECT_EQ(r.message, MSG_UNKNOWN_CONV_ID);
  EXPECT_EQ(r.sub_code, 5u);
  EXPECT_EQ(r.format, "ba");
  EXPECT_EQ(r.data, std::vector<std::string>{"5D5D000001020304"});
}

TEST_F(ExtractState, ReleasedConversationIsUnknown) {
  unsigned char gone[8];
  std::memcpy(gone, id_, 8);
  drop(id_);
  CM_INT32 state = kUntouched;
  EXPECT_EQ(extract(gone, &state), CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(state, kUntouched);
  EXPECT_TRUE(problem(MSG_UNKNOWN_CONV_ID, 5));
}

TEST_F(ExtractState, OperationOutstandingIsNotAcceptedAndIssuesNothing) {
  established();
  c_->usProcessingMode = CM_NON_BLOCKING;
  testnode::script_verb({VERB_FLUSH, 0, 0, true, nullptr});
  CM_INT32 rc = -1;
  cmflus(id_, &rc);
  ASSERT_EQ(rc, CM_OPERATION_INCOMPLETE);
  const size_t issued = verbs();
  CM_INT32 state = kUntouched;
  EXPECT_EQ(extract(id_, &state), CM_OPERATION_NOT_ACCEPTED);
  EXPECT_EQ(state, kUntouched);
  EXPECT_EQ(verbs(), issued);
  EXPECT_TRUE(testnode::problems().empty());
  // Without a node conversation the answer would need no verb, but an
  // outstanding operation still comes first.
  unsigned char in[8];
  cminic(in, &rc);
  CCCB *incoming = find(in);
  incoming->usProcessingMode = CM_NON_BLOCKING;
  flag_add(incoming->usOpsOutstanding);
  EXPECT_EQ(extract(in, &state), CM_OPERATION_NOT_ACCEPTED);
  EXPECT_EQ(state, kUntouched);
  flag_sub(incoming->usOpsOutstanding);
  drop(in);
  // Once collected, the query is issued again.
  testnode::complete_async();
  unsigned char got[8];
  CM_INT32 crc = -1;
  cmwait(got, &crc, &rc);
  ASSERT_EQ(rc, CM_OK);
  script_state(2);
  EXPECT_EQ(extract(id_, &state), CM_OK);
  EXPECT_EQ(state, CM_RECEIVE_STATE);
}

TEST_F(ExtractState, QuerySupersedesAnUncollectedCompletion) {
  // A finished non-blocking operation waiting for collection is not an
  // operation in progress: the query goes ahead and, like any later verb
  // on the conversation, supersedes it. Wait must not then hand out the
  // query's result as if it were the earlier operation's.
  established();
  c_->usProcessingMode = CM_NON_BLOCKING;
  testnode::script_verb({VERB_FLUSH, 0x0002, 0x20, true, nullptr});
  CM_INT32 rc = -1;
  cmflus(id_, &rc);
  ASSERT_EQ(rc, CM_OPERATION_INCOMPLETE);
  testnode::complete_async();
  ASSERT_EQ(c_->fVerbWaiting, 1);
  const uint32_t waiting = counter_get(pGCB->NumVerbsWaiting);
  script_state(1);
  CM_INT32 state = kUntouched;
  EXPECT_EQ(extract(id_, &state), CM_OK);
  EXPECT_EQ(state, CM_SEND_STATE);
  EXPECT_EQ(c_->fVerbWaiting, 0);
  EXPECT_EQ(counter_get(pGCB->NumVerbsWaiting), waiting - 1);
  unsigned char got[8];
  CM_INT32 crc = -1;
  cmwait(got, &crc, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(crc, -1);
  EXPECT_TRUE(testnode::assertions().empty());
}

}  // namespace
