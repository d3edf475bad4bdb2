// The process-local side-information store: lookups, set, delete,
// tombstones over node entries, caching, and every failure record.
#include <gtest/gtest.h>

#include "fixtures.h"

using namespace cpic;
using namespace cpictest;

namespace {

SIDE_INFO named(const char *name8) {
  SIDE_INFO si;
  std::memset(&si, 0, sizeof si);
  std::memcpy(si.abSymDestName, name8, 8);
  return si;
}

NOF_SIDE_INFO_ENTRY node_entry(const char *name8, const char *plu, uint32_t tp_type, const char *tp,
                               uint32_t security) {
  NOF_SIDE_INFO_ENTRY e;
  std::memset(&e, ' ', sizeof e);
  std::memcpy(e.sym_dest_name, name8, 8);
  std::memcpy(e.partner_lu_name, plu, std::strlen(plu));
  e.tp_name_type = tp_type;
  std::memcpy(e.tp_name, tp, std::strlen(tp));
  std::memcpy(e.mode_name, "#INTER", 6);
  e.security_type = security;
  std::memcpy(e.user_id, "USERID", 6);
  std::memcpy(e.password, "SECRET", 6);
  std::memset(e.local_lu_alias, 0, 8);
  return e;
}

class SideInfoStore : public LibraryTest {
 protected:
  // Names are unique per test: the store only grows for the process.
  std::string unique(const char *stem) {
    static int n = 0;
    char buf[16];
    std::snprintf(buf, sizeof buf, "%s%04d", stem, ++n);
    return std::string(buf, 8);
  }
};

TEST_F(SideInfoStore, SetThenLookupThenDeleteThenLookup) {
  const std::string name = unique("SDL");
  SIDE_INFO si = named(name.c_str());
  si.ulSecurityType = 5;
  EXPECT_EQ(SCD_main(3, &si), CM_OK);
  SIDE_INFO out = named(name.c_str());
  EXPECT_EQ(SCD_main(1, &out), CM_OK);
  EXPECT_EQ(out.ulSecurityType, 5u);
  EXPECT_EQ(SCD_main(2, &out), CM_OK);
  EXPECT_EQ(SCD_main(1, &out), CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(SCD_main(2, &out), CM_PROGRAM_PARAMETER_CHECK);  // already deleted
  EXPECT_TRUE(testnode::issued_nof().empty());                // never asked the node
  si.ulSecurityType = 0;
  EXPECT_EQ(SCD_main(3, &si), CM_OK);  // set makes it valid again
  EXPECT_EQ(SCD_main(1, &out), CM_OK);
  EXPECT_EQ(out.ulSecurityType, 0u);
}

TEST_F(SideInfoStore, NodeEntryIsCachedAndAskedOnce) {
  const std::string name = unique("NOD");
  testnode::add_node_side_info(node_entry(name.c_str(), "LUALIAS1", 0, "TPNAME", 1));
  SIDE_INFO a = named(name.c_str()), b = named(name.c_str());
  EXPECT_EQ(SCD_main(1, &a), CM_OK);
  EXPECT_EQ(SCD_main(1, &b), CM_OK);
  EXPECT_EQ(testnode::nof_queries(), 1);
  EXPECT_EQ(std::memcmp(&a, &b, sizeof a), 0);
  // An alias travels unconverted, with the three bytes after it.
  EXPECT_EQ(bytes(a.abPartnerLuName, 17), "LUALIAS1         ");
  EXPECT_EQ(a.fPartnerLuFq, 0);
  EXPECT_EQ(a.usPartnerLuNameLen, 8);
  // Security type 1: user ID but no password.
  EXPECT_EQ(bytes(a.abUserId, 10), ebcdic("USERID", 0, 10));
  EXPECT_EQ(a.usUserIdLen, 6);
  EXPECT_EQ(bytes(a.abPassword, 10), std::string(10, '\0'));
  EXPECT_EQ(bytes(a.abModeName, 8), ebcdic("#INTER", 1, 8));
}

TEST_F(SideInfoStore, ServiceTpNameIsDecodedFromHex) {
  const std::string name = unique("SVC");
  testnode::add_node_side_info(node_entry(name.c_str(), "NET.LU", 1, "06F1a2b3", 0));
  SIDE_INFO si = named(name.c_str());
  ASSERT_EQ(SCD_main(1, &si), CM_OK);
  EXPECT_EQ(bytes(si.abTpName, 64), std::string("\x06\xF1\xA2\xB3", 4) + std::string(60, '\x40'));
  EXPECT_EQ(si.ulTpNameType, 1u);
  EXPECT_EQ(si.fPartnerLuFq, 1);
  EXPECT_EQ(si.usPartnerLuDotPos, 3);
  // Security none: no user ID at all.
  EXPECT_EQ(si.usUserIdLen, 0);
  EXPECT_EQ(bytes(si.abUserId, 10), std::string(10, '\0'));
}

TEST_F(SideInfoStore, LastPeriodWinsAndBlankFirstByteIsEmpty) {
  const std::string a = unique("DOT"), b = unique("BLK");
  testnode::add_node_side_info(node_entry(a.c_str(), "A.B.C", 0, "T", 0));
  testnode::add_node_side_info(node_entry(b.c_str(), " X", 0, "T", 0));
  SIDE_INFO sa = named(a.c_str()), sb = named(b.c_str());
  ASSERT_EQ(SCD_main(1, &sa), CM_OK);
  ASSERT_EQ(SCD_main(1, &sb), CM_OK);
  EXPECT_EQ(sa.usPartnerLuDotPos, 3);
  EXPECT_EQ(sa.usPartnerLuNameLen, 5);
  EXPECT_EQ(sb.usPartnerLuNameLen, 0);
  EXPECT_EQ(sb.fPartnerLuFq, 0);
}

TEST_F(SideInfoStore, NamesAreRawBytes) {
  const std::string name = unique("CAS");
  testnode::add_node_side_info(node_entry(name.c_str(), "LU", 0, "T", 0));
  std::string lower = name;
  for (char &ch : lower) ch = static_cast<char>(std::tolower(ch));
  SIDE_INFO si = named(lower.c_str());
  EXPECT_EQ(SCD_main(1, &si), CM_PROGRAM_PARAMETER_CHECK);
}

TEST_F(SideInfoStore, DeleteOfANodeEntryLeavesATombstone) {
  const std::string name = unique("TMB");
  testnode::add_node_side_info(node_entry(name.c_str(), "LU", 0, "T", 0));
  SIDE_INFO si = named(name.c_str());
  EXPECT_EQ(SCD_main(2, &si), CM_OK);
  const int queries = testnode::nof_queries();
  EXPECT_EQ(SCD_main(1, &si), CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(testnode::nof_queries(), queries);
  EXPECT_EQ(SCD_main(3, &si), CM_OK);
  EXPECT_EQ(SCD_main(1, &si), CM_OK);
}

TEST_F(SideInfoStore, UnknownOperationDoesNothing) {
  SIDE_INFO si = named("ANYTHING");
  EXPECT_EQ(SCD_main(9, &si), CM_OK);
  EXPECT_TRUE(testnode::issued_nof().empty());
}

// Node-side outcomes and the records each leaves.
struct NodeCase {
  const char *name;
  uint32_t operation;
  bool open_fails;
  bool scripted;
  uint16_t primary;
  uint32_t secondary;
  int32_t rc;
  uint32_t message;  // 0: no problem record
  uint32_t sub_code;
  std::vector<std::string> data;
};

class SideInfoNodeOutcome : public SideInfoStore, public ::testing::WithParamInterface<NodeCase> {};

TEST_P(SideInfoNodeOutcome, ResultAndRecord) {
  const NodeCase &c = GetParam();
  if (c.open_fails) testnode::fail_next_nof_open(0x0001);
  if (c.scripted) testnode::script_next_nof_query(c.primary, c.secondary);
  const std::string name = unique("OUT");
  SIDE_INFO si = named(name.c_str());
  EXPECT_EQ(SCD_main(c.operation, &si), c.rc);
  if (c.message == 0) {
    EXPECT_TRUE(testnode::problems().empty());
  } else {
    ASSERT_EQ(testnode::problems().size(), 1u);
    EXPECT_EQ(testnode::problems()[0].message, c.message);
    EXPECT_EQ(testnode::problems()[0].sub_code, c.sub_code);
    EXPECT_EQ(testnode::problems()[0].data, c.data);
  }
  // Whatever the query found, the session is closed; a failed open has none.
  const auto &nof = testnode::issued_nof();
  ASSERT_FALSE(nof.empty());
  EXPECT_EQ(nof.back().opcode, c.open_fails ? NOF_OPEN : NOF_CLOSE);
  EXPECT_EQ(leaked(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    LookupAndDelete, SideInfoNodeOutcome,
    ::testing::Values(
        NodeCase{"LookupOpenFails", 1, true, false, 0, 0, CM_PRODUCT_SPECIFIC_ERROR, 0x2003000D, 0, {}},
        NodeCase{"DeleteOpenFails", 2, true, false, 0, 0, CM_PRODUCT_SPECIFIC_ERROR, 0x2003000D, 1, {}},
        NodeCase{"LookupNoEntry", 1, false, false, 0, 0, CM_PROGRAM_PARAMETER_CHECK, 0, 0, {}},
        NodeCase{"DeleteNoEntry", 2, false, false, 0, 0, CM_PROGRAM_PARAMETER_CHECK, 0, 0, {}},
        NodeCase{"LookupOtherSecondary", 1, false, true, 0x0002, 0x1, CM_PRODUCT_SPECIFIC_ERROR, 0, 0, {}},
        NodeCase{"LookupOtherPrimary", 1, false, true, 0x0099, 0, CM_PRODUCT_SPECIFIC_ERROR, 0, 0, {}},
        NodeCase{"DeleteOtherSecondary", 2, false, true, 0x0002, 0x1, CM_PRODUCT_SPECIFIC_ERROR, 0x20030014, 1,
                 {"0200", "01000000"}},
        NodeCase{"DeleteOtherPrimary", 2, false, true, 0x0099, 0x2, CM_PRODUCT_SPECIFIC_ERROR, 0x20030014, 1,
                 {"9900", "02000000"}}),
    [](const auto &info) { return std::string(info.param.name); });

// Allocation failures of the store, each with its record.
TEST_F(SideInfoStore, SetFailuresAreLogged) {
  SIDE_INFO si = named(unique("SF1").c_str());
  testnode::fail_allocation(1);
  EXPECT_EQ(SCD_main(3, &si), CM_PRODUCT_SPECIFIC_ERROR);
  testnode::fail_free_entry(1);
  EXPECT_EQ(SCD_main(3, &si), CM_PRODUCT_SPECIFIC_ERROR);
  ASSERT_EQ(testnode::problems().size(), 2u);
  EXPECT_EQ(testnode::problems()[0].message, 0x2003000Bu);
  EXPECT_EQ(testnode::problems()[0].sub_code, 5u);
  EXPECT_EQ(testnode::problems()[1].sub_code, 6u);
  EXPECT_EQ(leaked(), 0);
  EXPECT_EQ(SCD_main(3, &si), CM_OK);
}

TEST_F(SideInfoStore, TombstoneFailuresAreLogged) {
  const std::string name = unique("TF1");
  testnode::add_node_side_info(node_entry(name.c_str(), "LU", 0, "T", 0));
  SIDE_INFO si = named(name.c_str());
  testnode::fail_allocation(1);
  EXPECT_EQ(SCD_main(2, &si), CM_PRODUCT_SPECIFIC_ERROR);
  testnode::fail_free_entry(1);
  EXPECT_EQ(SCD_main(2, &si), CM_PRODUCT_SPECIFIC_ERROR);
  ASSERT_EQ(testnode::problems().size(), 2u);
  EXPECT_EQ(testnode::problems()[0].sub_code, 3u);
  EXPECT_EQ(testnode::problems()[1].sub_code, 4u);
  EXPECT_EQ(leaked(), 0);
}

TEST_F(SideInfoStore, CacheFailuresStillAnswer) {
  const std::string name = unique("CF1");
  testnode::add_node_side_info(node_entry(name.c_str(), "LU", 0, "T", 0));
  SIDE_INFO si = named(name.c_str());
  testnode::fail_allocation(1);
  EXPECT_EQ(SCD_main(1, &si), CM_OK);  // answered, not cached
  EXPECT_TRUE(testnode::problems().empty());
  testnode::fail_free_entry(1);
  EXPECT_EQ(SCD_main(1, &si), CM_OK);  // answered, not cached, logged
  ASSERT_EQ(testnode::problems().size(), 1u);
  EXPECT_EQ(testnode::problems()[0].sub_code, 87u);
  EXPECT_EQ(leaked(), 0);
  EXPECT_EQ(SCD_main(1, &si), CM_OK);
  EXPECT_EQ(SCD_main(1, &si), CM_OK);
  EXPECT_EQ(testnode::nof_queries(), 3);  // cached from the third on
}

}  // namespace
