// Initialize_Conversation and Initialize_For_Incoming: the conversation
// control block each makes, from side information and the environment.
#include <gtest/gtest.h>

#include "child_process.h"
#include "fixtures.h"

using namespace cpic;
using namespace cpictest;

namespace {

NOF_SIDE_INFO_ENTRY node_entry(const char *name, const char *plu, const char *mode, const char *tp,
                               uint32_t security, const char *user, const char *password,
                               const char *local_alias) {
  NOF_SIDE_INFO_ENTRY e;
  std::memset(&e, ' ', sizeof e);
  auto put = [](uint8_t *field, size_t n, const char *text) {
    std::memcpy(field, text, std::min(n, std::strlen(text)));
  };
  put(e.sym_dest_name, 8, name);
  put(e.partner_lu_name, 17, plu);
  e.tp_name_type = 0;
  put(e.tp_name, 64, tp);
  put(e.mode_name, 8, mode);
  e.security_type = security;
  put(e.user_id, 10, user);
  put(e.password, 10, password);
  std::memset(e.local_lu_alias, 0, 8);
  put(e.local_lu_alias, 8, local_alias);
  return e;
}

using InitializeConversation = LibraryTest;

TEST_F(InitializeConversation, BlankNameKeepsTheDefaults) {
  unsigned char id[8];
  CM_INT32 rc = -1;
  CMINIT(id, (unsigned char *)"        ", &rc);
  ASSERT_EQ(rc, CM_OK);
  EXPECT_EQ(testnode::nof_queries(), 0);
  EXPECT_EQ(bytes(id + 4, 4), std::string(4, '\0'));
  CCCB *c = find(id);
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->CCCBhandle, handle_of(id));
  EXPECT_EQ(c->fInitialized, 1);
  EXPECT_EQ(bytes(c->si.abSymDestName, 8), "        ");
  EXPECT_EQ(bytes(c->si.abPartnerLuName, 17), std::string(17, ' '));
  EXPECT_EQ(bytes(c->si.abTpName, 64), std::string(64, '\x40'));
  EXPECT_EQ(bytes(c->si.abModeName, 8), std::string(8, '\x40'));
  EXPECT_EQ(bytes(c->si.abSiLocalLuAlias, 8), std::string(8, '\0'));
  EXPECT_EQ(c->si.ulSecurityType, 1u);
  EXPECT_EQ(bytes(c->si.abUserId, 10), std::string(10, '\x40'));
  EXPECT_EQ(bytes(c->si.abPassword, 10), std::string(10, '\x40'));
  EXPECT_EQ(c->si.usUserIdLen, 1);
  EXPECT_EQ(c->si.ulTpNameType, 0u);
  EXPECT_EQ(c->ulConversationType, 1u);
  EXPECT_EQ(c->ulDeallocateType, 0u);
  EXPECT_EQ(c->ulSyncLevel, 0u);
  EXPECT_EQ(c->ulSendType, 0u);
  EXPECT_EQ(c->usProcessingMode, 0);
  EXPECT_EQ(c->ulApplConvId, 0u);
  drop(id);
  EXPECT_EQ(leaked(), 0);
}

TEST_F(InitializeConversation, NameStartingWithABlankIsNotLookedUp) {
  unsigned char id[8];
  CM_INT32 rc = -1;
  CMINIT(id, (unsigned char *)" ABCDEFG", &rc);
  ASSERT_EQ(rc, CM_OK);
  EXPECT_EQ(testnode::nof_queries(), 0);
  EXPECT_EQ(bytes(find(id)->si.abSymDestName, 8), " ABCDEFG");
  drop(id);
}

TEST_F(InitializeConversation, UnknownNameIsAuditedAndLeavesNothing) {
  unsigned char id[8];
  CM_INT32 rc = -1;
  CMINIT(id, (unsigned char *)"NOSUCH\x01 ", &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(find(id), nullptr);
  ASSERT_EQ(testnode::audits().size(), 1u);
  EXPECT_EQ(testnode::audits()[0].message, 0x20030006u);
  EXPECT_EQ(testnode::audits()[0].sub_code, 0u);
  EXPECT_EQ(testnode::audits()[0].data, std::vector<std::string>{"NOSUCH\\x01 "});
  EXPECT_EQ(leaked(), 0);
}

TEST_F(InitializeConversation, UnknownNameAuditCanBeSuppressed) {
  testnode::trace_control()[8] = 0x02;
  unsigned char id[8];
  CM_INT32 rc = -1;
  CMINIT(id, (unsigned char *)"NOSUCH  ", &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_TRUE(testnode::audits().empty());
}

TEST_F(InitializeConversation, NodeEntryFillsTheSideInformation) {
  testnode::add_node_side_info(node_entry("NODEDEST", "NETA.LUB", "MODE1", "SERVER", 2, "user", "pw",
                                          "LOCAL1"));
  unsigned char id[8];
  CM_INT32 rc = -1;
  CMINIT(id, (unsigned char *)"NODEDEST", &rc);
  ASSERT_EQ(rc, CM_OK);
  CCCB *c = find(id);
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->si.fPartnerLuFq, 1);
  EXPECT_EQ(c->si.usPartnerLuDotPos, 4);
  EXPECT_EQ(c->si.usPartnerLuNameLen, 8);
  EXPECT_EQ(bytes(c->si.abPartnerLuName, 17), ebcdic("NETA", 1, 4) + "\x4B" + ebcdic("LUB", 1, 12));
  EXPECT_EQ(bytes(c->si.abModeName, 8), ebcdic("MODE1", 1, 8));
  EXPECT_EQ(c->si.usModeNameLen, 5);
  EXPECT_EQ(bytes(c->si.abTpName, 64), ebcdic("SERVER", 2, 64));
  EXPECT_EQ(c->si.ulSecurityType, 2u);
  EXPECT_EQ(bytes(c->si.abUserId, 10), ebcdic("user", 0, 10));
  EXPECT_EQ(c->si.usUserIdLen, 4);
  EXPECT_EQ(bytes(c->si.abPassword, 10), ebcdic("pw", 0, 10));
  EXPECT_EQ(bytes(c->abLocalLuAlias, 8), std::string("LOCAL1\0\0", 8));
  // The node-operator records, exactly.
  const auto &nof = testnode::issued_nof();
  ASSERT_EQ(nof.size(), 3u);
  EXPECT_EQ(nof[0].opcode, NOF_OPEN);
  EXPECT_EQ(nof[0].target, 0u);
  EXPECT_EQ(nof[0].bytes[12], 2);
  EXPECT_EQ(nof[1].opcode, NOF_QUERY_SIDE_INFO);
  EXPECT_EQ(nof[1].target, 0x00C0FFEEu);
  const auto *q = reinterpret_cast<const NOF_QUERY_RECORD *>(nof[1].bytes.data());
  EXPECT_EQ(q->kind, 1);
  EXPECT_EQ(q->buffer_size, 212u);
  EXPECT_EQ(q->num_entries, 1);
  EXPECT_EQ(q->list_option, 4);
  EXPECT_EQ(bytes(q->sym_dest_name, 8), "NODEDEST");
  EXPECT_EQ(nof[2].opcode, NOF_CLOSE);
  EXPECT_EQ(nof[2].target, 0x00C0FFEEu);
  drop(id);
}

TEST_F(InitializeConversation, ConversationIdsAreHandlesOfTheTable) {
  unsigned char a[8], b[8];
  CM_INT32 rc;
  CMINIT(a, (unsigned char *)"        ", &rc);
  CMINIC(b, &rc);
  EXPECT_GT(handle_of(b), handle_of(a));
  // Only the first four bytes are examined.
  unsigned char other[8];
  std::memcpy(other, a, 8);
  other[5] = 0x77;
  EXPECT_EQ(find(other), find(a));
  drop(a);
  drop(b);
  EXPECT_EQ(find(a), nullptr);
  EXPECT_EQ(leaked(), 0);
}

TEST_F(InitializeConversation, ContextAliasFillsOnlyAnEmptyAlias) {
  std::memset(pGCB->abContextTpId, 0x11, 8);
  std::memcpy(pGCB->abContextLuAlias, "CTXLU   ", 8);
  uint8_t default_alias[8];
  std::memcpy(default_alias, pGCB->abDefaultLuAlias, 8);
  std::memcpy(pGCB->abDefaultLuAlias, "ENVLU   ", 8);
  testnode::add_node_side_info(node_entry("WITHLU  ", "LUALIAS1", "M", "T", 0, "", "", "SILU"));
  unsigned char a[8], b[8];
  CM_INT32 rc;
  CMINIT(a, (unsigned char *)"        ", &rc);
  EXPECT_EQ(bytes(find(a)->abLocalLuAlias, 8), "CTXLU   ");
  CMINIT(b, (unsigned char *)"WITHLU  ", &rc);
  ASSERT_EQ(rc, CM_OK);
  EXPECT_EQ(bytes(find(b)->abLocalLuAlias, 8), "ENVLU   ");
  drop(a);
  drop(b);
  std::memset(pGCB->abContextTpId, 0, 8);
  std::memset(pGCB->abContextLuAlias, 0, 8);
  std::memcpy(pGCB->abDefaultLuAlias, default_alias, 8);
}

TEST(InitializeConversationEnvironment, AppclluOverridesSideInformation) {
  std::string verdict = in_child({{"APPCLLU", "ENVLU"}}, [] {
    Verdict v;
    testnode::reset();
    testnode::add_node_side_info(node_entry("DEST    ", "LUALIAS1", "M", "T", 0, "", "", "SILU"));
    unsigned char id[8];
    CM_INT32 rc = -1;
    CMINIT(id, (unsigned char *)"DEST    ", &rc);
    v.eq(rc, CM_OK, "rc");
    CCCB *c = nullptr;
    SCC_find_cccb(id, &c, pGCB);
    v.check(c != nullptr && std::memcmp(c->abLocalLuAlias, "ENVLU   ", 8) == 0, "APPCLLU alias used");
    return v.text;
  });
  EXPECT_EQ(verdict, "");
}

using InitializeForIncoming = LibraryTest;

TEST_F(InitializeForIncoming, MakesAnEmptyConversation) {
  unsigned char id[8];
  CM_INT32 rc = -1;
  CMINIC(id, &rc);
  ASSERT_EQ(rc, CM_OK);
  CCCB *c = find(id);
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->fInitialized, 0);
  EXPECT_EQ(bytes(c->si.abSymDestName, 8), "        ");
  EXPECT_TRUE(testnode::issued_verbs().empty());
  EXPECT_EQ(testnode::nof_queries(), 0);
  drop(id);
  EXPECT_EQ(leaked(), 0);
}

// Each allocation the two calls make, failed in turn.
struct AllocFailure {
  const char *name;
  bool incoming;
  std::function<void()> inject;
  uint32_t sub_code;
};

class InitializeResourceFailure : public LibraryTest,
                                  public ::testing::WithParamInterface<AllocFailure> {};

TEST_P(InitializeResourceFailure, ProductSpecificErrorAndNothingLeaked) {
  const AllocFailure &f = GetParam();
  f.inject();
  unsigned char id[8];
  CM_INT32 rc = -1;
  if (f.incoming) {
    CMINIC(id, &rc);
  } else {
    CMINIT(id, (unsigned char *)"        ", &rc);
  }
  EXPECT_EQ(rc, CM_PRODUCT_SPECIFIC_ERROR);
  ASSERT_EQ(testnode::problems().size(), 1u);
  EXPECT_EQ(testnode::problems()[0].message, 0x2003000Bu);
  EXPECT_EQ(testnode::problems()[0].sub_code, f.sub_code);
  EXPECT_EQ(leaked(), 0);
  // A later call succeeds once the failure is gone.
  if (f.incoming) {
    CMINIC(id, &rc);
  } else {
    CMINIT(id, (unsigned char *)"        ", &rc);
  }
  EXPECT_EQ(rc, CM_OK);
  drop(id);
  EXPECT_EQ(leaked(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    EverySite, InitializeResourceFailure,
    ::testing::Values(AllocFailure{"InitBlock", false, [] { testnode::fail_allocation(1); }, 1},
                      AllocFailure{"InitEntry", false, [] { testnode::fail_free_entry(1); }, 2},
                      AllocFailure{"IncomingBlock", true, [] { testnode::fail_allocation(1); }, 1},
                      AllocFailure{"IncomingEntry", true, [] { testnode::fail_free_entry(1); }, 2}),
    [](const auto &info) { return std::string(info.param.name); });

}  // namespace
