// Terminate (CMTERM): ends the context's TP and discards its conversations.
#include <gtest/gtest.h>

#include "counters.h"
#include "fixtures.h"

using namespace cpic;
using namespace cpictest;

namespace {

class Terminate : public LibraryTest {
 protected:
  void TearDown() override {
    std::memset(pGCB->abContextTpId, 0, 8);
    std::memset(pGCB->abContextLuAlias, 0, 8);
    LibraryTest::TearDown();
  }
  void set_context(uint8_t tp_byte) {
    std::memset(pGCB->abContextTpId, tp_byte, 8);
    std::memcpy(pGCB->abContextLuAlias, "CTXLU   ", 8);
  }
};

TEST_F(Terminate, NoContextIssuesNothing) {
  CM_INT32 type = 0, rc = -1;
  CMTERM(&type, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_TRUE(testnode::issued_verbs().empty());
}

TEST_F(Terminate, BadTerminationType) {
  set_context(0x51);
  for (CM_INT32 type : {2, -1, 100}) {
    CM_INT32 rc = -1;
    CMTERM(&type, &rc);
    EXPECT_EQ(rc, CM_PARAMETER_ERROR);
  }
  EXPECT_TRUE(testnode::issued_verbs().empty());
}

struct TypeCase {
  CM_INT32 termination_type;
  uint8_t end_type;
};
class TerminateType : public Terminate, public ::testing::WithParamInterface<TypeCase> {};

TEST_P(TerminateType, DiscardsOnlyTheContextsConversations) {
  set_context(0x52);
  unsigned char mine[8], mine2[8], other[8];
  CM_INT32 rc;
  cminic(mine, &rc);
  cminic(mine2, &rc);
  cminic(other, &rc);
  std::memset(find(mine)->abTpId, 0x52, 8);
  std::memset(find(mine2)->abTpId, 0x52, 8);
  std::memset(find(other)->abTpId, 0x61, 8);  // another local LU's TP
  // An uncollected completion on a discarded conversation.
  flag_set(find(mine2)->fVerbWaiting, 1);
  counter_add(pGCB->NumVerbsWaiting);
  find(mine)->pLogData = static_cast<uint8_t *>(nba_mm_alloc(8, 0x302, nba_blank_name, 0, 0));

  CM_INT32 type = GetParam().termination_type;
  rc = -1;
  CMTERM(&type, &rc);
  EXPECT_EQ(rc, CM_OK);
  ASSERT_EQ(testnode::issued_verbs().size(), 1u);
  const auto &v = testnode::issued_verbs()[0];
  EXPECT_EQ(v.opcode, VERB_TP_ENDED);
  EXPECT_FALSE(v.via_async_entry);
  const auto *e = reinterpret_cast<const VCB_TP_ENDED *>(v.bytes.data());
  EXPECT_EQ(bytes(e->tp_id, 8), std::string(8, '\x52'));
  EXPECT_EQ(e->type, GetParam().end_type);
  EXPECT_EQ(find(mine), nullptr);
  EXPECT_EQ(find(mine2), nullptr);
  EXPECT_NE(find(other), nullptr);
  EXPECT_EQ(counter_get(pGCB->NumVerbsWaiting), 0u);
  EXPECT_EQ(bytes(pGCB->abContextTpId, 8), std::string(8, '\0'));
  EXPECT_EQ(bytes(pGCB->abContextLuAlias, 8), std::string(8, '\0'));
  EXPECT_TRUE(testnode::assertions().empty());
  std::memset(find(other)->abTpId, 0, 8);
  drop(other);
  EXPECT_EQ(leaked(), 0);
}

INSTANTIATE_TEST_SUITE_P(HardAndSoft, TerminateType,
                         ::testing::Values(TypeCase{0, 1}, TypeCase{1, 0}));

TEST_F(Terminate, FailedTpEndedKeepsEverything) {
  set_context(0x53);
  unsigned char mine[8];
  CM_INT32 rc;
  cminic(mine, &rc);
  std::memset(find(mine)->abTpId, 0x53, 8);
  testnode::script_verb({VERB_TP_ENDED, 0x0002, 0, false, nullptr});
  CM_INT32 type = 0;
  CMTERM(&type, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  EXPECT_NE(find(mine), nullptr);
  EXPECT_EQ(bytes(pGCB->abContextTpId, 8), std::string(8, '\x53'));
  std::memset(find(mine)->abTpId, 0, 8);
  drop(mine);
}

TEST_F(Terminate, NoMemoryForTheVerbBlock) {
  set_context(0x54);
  testnode::fail_allocation(1);
  CM_INT32 type = 0, rc = -1;
  CMTERM(&type, &rc);
  EXPECT_EQ(rc, CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_TRUE(testnode::issued_verbs().empty());
  ASSERT_EQ(testnode::problems().size(), 2u);
  EXPECT_EQ(testnode::problems()[0].message, 0x2003000Bu);
  EXPECT_EQ(testnode::problems()[0].sub_code, 17u);
  // Primary 4592 and secondary 12, logged as the fields stand.
  EXPECT_EQ(testnode::problems()[1].message, 0x20030016u);
  EXPECT_EQ(testnode::problems()[1].data, (std::vector<std::string>{"0013", "11F0", "0000000C"}));
  EXPECT_EQ(leaked(), 0);
}

}  // namespace
