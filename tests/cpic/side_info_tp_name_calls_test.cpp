// The side-information calls with the 124-byte entry, and the local TP
// name calls with their register and withdraw blocks.
#include <gtest/gtest.h>

#include "fixtures.h"

using namespace cpic;
using namespace cpictest;

namespace {

XC_SIDE_INFO_ENTRY entry(const char *name8, const char *plu, CM_INT32 security) {
  XC_SIDE_INFO_ENTRY e;
  std::memset(&e, ' ', sizeof e);
  std::memcpy(e.sym_dest_name, name8, 8);
  std::memcpy(e.partner_LU_name, plu, std::strlen(plu));
  e.TP_name_type = XC_APPLICATION_TP;
  std::memcpy(e.TP_name, "PAYROLL", 7);
  std::memcpy(e.mode_name, "#INTER", 6);
  e.conversation_security_type = security;
  std::memcpy(e.security_user_ID, "USERA", 5);
  std::memcpy(e.security_password, "PASSWD", 6);
  return e;
}

std::string unique(const char *stem) {
  static int n = 0;
  char buf[16];
  std::snprintf(buf, sizeof buf, "%s%04d", stem, ++n);
  return std::string(buf, 8);
}

using SideInfoCalls = LibraryTest;

TEST_F(SideInfoCalls, OnlyLength124IsAccepted) {
  const std::string name = unique("LEN");
  XC_SIDE_INFO_ENTRY e = entry(name.c_str(), "LUALIAS1", 0);
  for (CM_INT32 len : {123, 125, 0, -124}) {
    testnode::reset();
    CM_INT32 key = 0, l = len, rc = -1;
    XCMSSI(&key, &e, &l, &rc);
    EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
    ASSERT_EQ(testnode::problems().size(), 1u);
    EXPECT_EQ(testnode::problems()[0].message, 0x20030008u);
    EXPECT_EQ(testnode::problems()[0].sub_code, 1u);
    EXPECT_EQ(testnode::problems()[0].data[0], std::to_string((uint32_t)len));
    testnode::reset();
    XC_SIDE_INFO_ENTRY out;
    std::memset(&out, 0xAB, sizeof out);
    XCMESI(&key, (unsigned char *)name.data(), &out, &l, &rc);
    EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
    ASSERT_EQ(testnode::problems().size(), 1u);
    EXPECT_EQ(testnode::problems()[0].sub_code, 0u);
    EXPECT_EQ(out.sym_dest_name[0], 0xAB);
  }
}

TEST_F(SideInfoCalls, QualifiedNameStoredInEbcdicAndAliasUnconverted) {
  const std::string q = unique("QUA"), a = unique("ALI");
  XC_SIDE_INFO_ENTRY e = entry(q.c_str(), "NETA.LUB", 2);
  CM_INT32 key = 0, len = 124, rc = -1;
  XCMSSI(&key, &e, &len, &rc);
  ASSERT_EQ(rc, CM_OK);
  SIDE_INFO si;
  std::memset(&si, 0, sizeof si);
  std::memcpy(si.abSymDestName, q.data(), 8);
  ASSERT_EQ(SCD_main(1, &si), CM_OK);
  EXPECT_EQ(si.fPartnerLuFq, 1);
  EXPECT_EQ(si.usPartnerLuDotPos, 4);
  EXPECT_EQ(si.usPartnerLuNameLen, 8);
  EXPECT_EQ(bytes(si.abPartnerLuName, 17), ebcdic("NETA", 1, 4) + "\x4B" + ebcdic("LUB", 1, 12, 0x40));
  EXPECT_EQ(bytes(si.abUserId, 10), ebcdic("USERA   ", 0, 10));
  EXPECT_EQ(si.usUserIdLen, 5);
  EXPECT_EQ(si.usModeNameLen, 6);
  XC_SIDE_INFO_ENTRY out;
  std::memset(&out, 0xAB, sizeof out);
  XCMESI(&key, (unsigned char *)q.data(), &out, &len, &rc);
  ASSERT_EQ(rc, CM_OK);
  // All 17 bytes go back through the LU-name table, the period too, which
  // that table does not carry.
  uint8_t period = 0x4B, back = 0xFF;
  SCC_convert_string(1, 1, 1, &back, &period);
  EXPECT_EQ(bytes(out.partner_LU_name, 17), "NETA" + std::string(1, (char)back) + "LUB         ");
  EXPECT_EQ(bytes(out.TP_name, 7), "PAYROLL");
  EXPECT_EQ(bytes(out.mode_name, 8), "#INTER  ");
  EXPECT_EQ(out.conversation_security_type, 2);
  EXPECT_EQ(bytes(out.security_user_ID, 8), "USERA   ");
  EXPECT_EQ(bytes(out.security_password, 8), std::string(8, '\0'));  // never returned

  e = entry(a.c_str(), "LUALIAS1", 1);
  XCMSSI(&key, &e, &len, &rc);
  ASSERT_EQ(rc, CM_OK);
  std::memcpy(si.abSymDestName, a.data(), 8);
  ASSERT_EQ(SCD_main(1, &si), CM_OK);
  EXPECT_EQ(si.fPartnerLuFq, 0);
  EXPECT_EQ(bytes(si.abPartnerLuName, 17), "LUALIAS1         ");
  std::memset(&out, 0xAB, sizeof out);
  XCMESI(&key, (unsigned char *)a.data(), &out, &len, &rc);
  ASSERT_EQ(rc, CM_OK);
  EXPECT_EQ(bytes(out.partner_LU_name, 17), "LUALIAS1         ");
  // Type SAME: user ID and password fields left as the caller passed them.
  EXPECT_EQ(out.security_user_ID[0], 0xAB);
  EXPECT_EQ(out.security_password[0], 0xAB);
}

TEST_F(SideInfoCalls, ValidationRefusesAndStoresNothing) {
  CM_INT32 key = 0, len = 124, rc = -1;
  XC_SIDE_INFO_ENTRY e = entry("        ", "LU", 0);
  XCMSSI(&key, &e, &len, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  const std::string n = unique("VAL");
  for (CM_INT32 sec : {3, 4, 6, -1}) {
    e = entry(n.c_str(), "LU", sec);
    XCMSSI(&key, &e, &len, &rc);
    EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK) << sec;
  }
  e = entry(n.c_str(), "LU", 5);
  e.TP_name_type = 2;
  XCMSSI(&key, &e, &len, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  // Nothing was stored: the node is asked and has no such name.
  XC_SIDE_INFO_ENTRY out;
  testnode::reset();
  XCMESI(&key, (unsigned char *)n.data(), &out, &len, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(testnode::nof_queries(), 1);
}

TEST_F(SideInfoCalls, ServiceTpFirstByteRaw) {
  const std::string n = unique("SVC");
  XC_SIDE_INFO_ENTRY e = entry(n.c_str(), "LU", 0);
  e.TP_name_type = XC_SNA_SERVICE_TP;
  std::memset(e.TP_name, ' ', 64);
  e.TP_name[0] = 0x06;
  std::memcpy(e.TP_name + 1, "ABC", 3);
  CM_INT32 key = 0, len = 124, rc = -1;
  XCMSSI(&key, &e, &len, &rc);
  ASSERT_EQ(rc, CM_OK);
  SIDE_INFO si;
  std::memset(&si, 0, sizeof si);
  std::memcpy(si.abSymDestName, n.data(), 8);
  ASSERT_EQ(SCD_main(1, &si), CM_OK);
  EXPECT_EQ(si.ulTpNameType, 1u);
  EXPECT_EQ(si.abTpName[0], 0x06);
  EXPECT_EQ(bytes(si.abTpName + 1, 63), ebcdic("ABC", 2, 63));
  XC_SIDE_INFO_ENTRY out;
  XCMESI(&key, (unsigned char *)n.data(), &out, &len, &rc);
  ASSERT_EQ(rc, CM_OK);
  EXPECT_EQ(out.TP_name[0], 0x06);
  EXPECT_EQ(bytes(out.TP_name + 1, 3), "ABC");
}

TEST_F(SideInfoCalls, DeleteHidesNodeEntryAndUnknownGivesStoreResult) {
  const std::string n = unique("DEL");
  CM_INT32 key = 0, len = 124, rc = -1;
  XCMDSI(&key, (unsigned char *)n.data(), &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);  // unknown at the node too
  NOF_SIDE_INFO_ENTRY ne;
  std::memset(&ne, ' ', sizeof ne);
  std::memcpy(ne.sym_dest_name, n.data(), 8);
  ne.tp_name_type = 0;
  ne.security_type = 0;
  std::memset(ne.local_lu_alias, 0, 8);
  testnode::add_node_side_info(ne);
  XCMDSI(&key, (unsigned char *)n.data(), &rc);
  EXPECT_EQ(rc, CM_OK);  // tombstone over the node's entry
  XC_SIDE_INFO_ENTRY out;
  XCMESI(&key, (unsigned char *)n.data(), &out, &len, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  XC_SIDE_INFO_ENTRY e = entry(n.c_str(), "LU", 0);
  XCMSSI(&key, &e, &len, &rc);
  EXPECT_EQ(rc, CM_OK);
  XCMESI(&key, (unsigned char *)n.data(), &out, &len, &rc);
  EXPECT_EQ(rc, CM_OK);
}

// ---- Local TP names ------------------------------------------------------

class LocalTpNames : public LibraryTest {
 protected:
  CM_INT32 specify(const std::string &name) {
    CM_INT32 len = static_cast<CM_INT32>(name.size()), rc = -1;
    CMSLTP((unsigned char *)name.data(), &len, &rc);
    return rc;
  }
  CM_INT32 release(const std::string &name) {
    CM_INT32 len = static_cast<CM_INT32>(name.size()), rc = -1;
    CMRLTP((unsigned char *)name.data(), &len, &rc);
    return rc;
  }
};

TEST_F(LocalTpNames, RegisterBlockAndRelease) {
  const uint16_t before = pGCB->NumLocTPNames;
  ASSERT_EQ(specify("MYTP_1"), CM_OK);
  ASSERT_EQ(testnode::issued_verbs().size(), 1u);
  const auto &v = testnode::issued_verbs()[0];
  EXPECT_EQ(v.opcode, 0xF101);
  EXPECT_FALSE(v.via_async_entry);
  ASSERT_EQ(v.bytes.size(), 76u);
  EXPECT_EQ(bytes(v.bytes.data(), 12), std::string("\x01\xF1", 2) + std::string(10, '\0'));
  EXPECT_EQ(bytes(v.bytes.data() + 12, 64), ebcdic("MYTP_1", 2, 64));
  EXPECT_EQ(pGCB->NumLocTPNames, before + 1);
  // Twice: no verb, no second entry.
  EXPECT_EQ(specify("MYTP_1"), CM_OK);
  EXPECT_EQ(testnode::issued_verbs().size(), 1u);
  EXPECT_EQ(release("MYTP_1"), CM_OK);
  ASSERT_EQ(testnode::issued_verbs().size(), 2u);
  EXPECT_EQ(testnode::issued_verbs()[1].opcode, 0xF102);
  EXPECT_EQ(pGCB->NumLocTPNames, before);
  EXPECT_EQ(release("MYTP_1"), CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(leaked(), 0);
}

TEST_F(LocalTpNames, LengthAndCharacterRules) {
  EXPECT_EQ(specify(""), CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(specify(std::string(65, 'A')), CM_PROGRAM_PARAMETER_CHECK);
  for (const char *bad : {"A B", "A!", "A[", "A~", "A`", "A{"})
    EXPECT_EQ(specify(bad), CM_PROGRAM_PARAMETER_CHECK) << bad;
  EXPECT_TRUE(testnode::issued_verbs().empty());
  EXPECT_EQ(release("A B"), CM_PROGRAM_PARAMETER_CHECK);  // just unknown
  const std::string longest(64, 'Z');
  EXPECT_EQ(specify(longest), CM_OK);
  EXPECT_EQ(specify("\"#$az_Z09"), CM_OK);
  // Compared as given: the lower-case spelling is another name.
  EXPECT_EQ(specify("lower"), CM_OK);
  EXPECT_EQ(specify("LOWER"), CM_OK);
  EXPECT_EQ(testnode::issued_verbs().size(), 4u);
  for (const char *n : {"\"#$az_Z09", "lower", "LOWER"}) EXPECT_EQ(release(n), CM_OK);
  EXPECT_EQ(release(longest), CM_OK);
  EXPECT_EQ(leaked(), 0);
}

TEST_F(LocalTpNames, NodeRefusals) {
  testnode::script_verb({0xF101, 0x0001, 0, false, nullptr});
  const uint16_t before = pGCB->NumLocTPNames;
  EXPECT_EQ(specify("REFUSED"), CM_PRODUCT_SPECIFIC_ERROR);
  ASSERT_EQ(testnode::problems().size(), 1u);
  EXPECT_EQ(testnode::problems()[0].message, 0x2003000Eu);
  EXPECT_EQ(testnode::problems()[0].sub_code, 2u);
  EXPECT_EQ(testnode::problems()[0].format, "es");
  EXPECT_EQ(pGCB->NumLocTPNames, before);
  EXPECT_EQ(leaked(), 0);
  ASSERT_EQ(specify("KEPT"), CM_OK);
  testnode::script_verb({0xF102, 0x0001, 0, false, nullptr});
  EXPECT_EQ(release("KEPT"), CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_EQ(testnode::problems().back().message, 0x2003000Fu);
  EXPECT_EQ(testnode::problems().back().sub_code, 0u);
  EXPECT_EQ(release("KEPT"), CM_OK);  // the entry stayed
  EXPECT_EQ(leaked(), 0);
}

TEST_F(LocalTpNames, AllocationFailure) {
  testnode::fail_allocation(1);
  EXPECT_EQ(specify("NOMEM"), CM_PRODUCT_SPECIFIC_ERROR);
  ASSERT_EQ(testnode::problems().size(), 1u);
  EXPECT_EQ(testnode::problems()[0].message, 0x2003000Bu);
  EXPECT_EQ(testnode::problems()[0].sub_code, 7u);
  EXPECT_TRUE(testnode::issued_verbs().empty());
}

TEST_F(LocalTpNames, DefaultNameHandedOver) {
  GCB *g = pGCB;
  const int live_before = testnode::live_allocations();
  ASSERT_EQ(g->NumLocTPNames, 0);
  // As accept processing leaves it: the default name registered as it
  // stands in the control block.
  struct Entry {
    uint16_t usLength;
    uint8_t abName[64];
  };
  auto *e = static_cast<Entry *>(nba_mm_alloc(66, 0x302, nba_blank_name, 0, 0));
  e->usLength = g->usDefaultTpNameLen;
  std::memcpy(e->abName, g->abDefaultTpName, 64);
  ASSERT_NE(vtm_get_free_entry(g->hLocTpNameTable, e), 0u);
  g->NumLocTPNames++;
  const uint16_t saved_accept = g->fAcceptIssued, saved_env = g->fTpNameFromEnv;
  g->fAcceptIssued = 1;
  g->fTpNameFromEnv = 0;
  const size_t verbs_before = testnode::issued_verbs().size();
  EXPECT_EQ(specify("OWNNAME"), CM_OK);
  ASSERT_EQ(testnode::issued_verbs().size(), verbs_before + 2);
  const auto &w = testnode::issued_verbs().back();
  EXPECT_EQ(w.opcode, 0xF102);
  EXPECT_EQ(bytes(w.bytes.data() + 12, 64), bytes(g->abDefaultTpName, 64));
  EXPECT_EQ(g->NumLocTPNames, 1);
  EXPECT_EQ(release("OWNNAME"), CM_OK);
  g->fAcceptIssued = saved_accept;
  g->fTpNameFromEnv = saved_env;
  EXPECT_EQ(testnode::live_allocations(), live_before);
}

}  // namespace
