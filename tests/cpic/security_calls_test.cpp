// Conversation security calls under both names: state and order rules,
// type values, user ID and password lengths, the 8-against-10 extract.
#include <gtest/gtest.h>

#include <vector>

#include "fixtures.h"

using namespace cpic;
using namespace cpictest;

namespace {

using TypeFn = void (*)(unsigned char *, CM_INT32 *, CM_INT32 *);
using TextFn = void (*)(unsigned char *, unsigned char *, CM_INT32 *, CM_INT32 *);

struct Names {
  const char *name;
  TypeFn set_type;
  TextFn set_user;
  TextFn set_password;
  TypeFn extract_type;
  TextFn extract_user;  // the 8-character limit
};

const std::vector<Names> &both_names() {
  static const std::vector<Names> n = {{"CM", CMSCST, CMSCSU, CMSCSP, CMECST, CMECSU},
                                       {"XC", XCSCST, XCSCSU, XCSCSP, XCECST, XCECSU}};
  return n;
}

class Security : public LibraryTest, public ::testing::WithParamInterface<Names> {
 protected:
  void make(bool incoming = false) {
    CM_INT32 rc = -1;
    if (incoming) cminic(id, &rc); else cminit(id, (unsigned char *)"        ", &rc);
    ASSERT_EQ(rc, CM_OK);
    made_ = true;
  }
  void TearDown() override {
    if (made_) drop(id);
    EXPECT_EQ(leaked(), 0);
    LibraryTest::TearDown();
  }
  CM_INT32 set_type(CM_INT32 t) {
    CM_INT32 rc = -1;
    GetParam().set_type(id, &t, &rc);
    return rc;
  }
  CM_INT32 set_user(const char *u, CM_INT32 len) {
    CM_INT32 rc = -1;
    GetParam().set_user(id, (unsigned char *)u, &len, &rc);
    return rc;
  }
  CM_INT32 set_password(const char *p, CM_INT32 len) {
    CM_INT32 rc = -1;
    GetParam().set_password(id, (unsigned char *)p, &len, &rc);
    return rc;
  }
  CCCB *cccb() { return find(id); }
  unsigned char id[8] = {};
  bool made_ = false;
};

TEST_P(Security, NewConversationIsSame) {
  make();
  CM_INT32 t = -1, rc = -1;
  GetParam().extract_type(id, &t, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(t, CM_SECURITY_SAME);
}

TEST_P(Security, TypeValues) {
  make();
  struct Row {
    CM_INT32 type;
    CM_INT32 rc;
  };
  for (Row r : {Row{0, 0}, Row{1, 0}, Row{2, 0}, Row{3, 24}, Row{4, 24}, Row{5, 0}, Row{6, 24},
                Row{-1, 24}, Row{INT32_MIN, 24}}) {
    cccb()->si.ulSecurityType = 1;
    EXPECT_EQ(set_type(r.type), r.rc) << r.type;
    CM_INT32 t = -1, rc = -1;
    GetParam().extract_type(id, &t, &rc);
    EXPECT_EQ(t, r.rc == 0 ? r.type : 1) << r.type;
  }
}

TEST_P(Security, SetCallsOnlyBeforeAllocationOfAnInitializedConversation) {
  make();
  cccb()->si.ulSecurityType = 2;
  cccb()->ulApplConvId = 3;
  EXPECT_EQ(set_type(0), CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(set_user("USER", 4), CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(set_password("PW", 2), CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(cccb()->si.ulSecurityType, 2u);
  cccb()->ulApplConvId = 0;
  cccb()->fInitialized = 0;  // as from Initialize_For_Incoming
  EXPECT_EQ(set_type(0), CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(set_user("USER", 4), CM_PROGRAM_STATE_CHECK);
  // State comes before the length check.
  EXPECT_EQ(set_password("PW", 0), CM_PROGRAM_STATE_CHECK);
}

TEST_P(Security, UserIdNeedsSameProgramOrStrong) {
  make();
  struct Row {
    uint32_t type;
    CM_INT32 rc;
  };
  for (Row r : {Row{0, 25}, Row{1, 0}, Row{2, 0}, Row{3, 25}, Row{4, 25}, Row{5, 0}}) {
    cccb()->si.ulSecurityType = r.type;
    EXPECT_EQ(set_user("USER", 4), r.rc) << r.type;
    // The type is checked before the length.
    EXPECT_EQ(set_user("USER", 0), r.rc == 0 ? 24 : 25) << r.type;
  }
}

TEST_P(Security, UserIdLengths) {
  make();
  const char *u = "ABCDEFGHIJK";
  for (CM_INT32 len : {-1, 0, 11, 65536}) EXPECT_EQ(set_user(u, len), CM_PROGRAM_PARAMETER_CHECK) << len;
  EXPECT_EQ(cccb()->si.usUserIdLen, 1);  // unchanged default
  for (CM_INT32 len : {1, 8, 9, 10}) {
    EXPECT_EQ(set_user(u, len), CM_OK) << len;
    EXPECT_EQ(bytes(cccb()->si.abUserId, 10), ebcdic(std::string(u, len).c_str(), 0, 10));
    EXPECT_EQ(cccb()->si.usUserIdLen, len);
  }
}

TEST_P(Security, PasswordNeedsProgramAndIsNeverReturned) {
  make();
  EXPECT_EQ(set_password("SECRET", 6), CM_PROGRAM_STATE_CHECK);  // type SAME
  EXPECT_EQ(set_type(CM_SECURITY_PROGRAM), CM_OK);
  EXPECT_EQ(set_user("USER", 4), CM_OK);
  for (CM_INT32 len : {-1, 0, 11}) EXPECT_EQ(set_password("SECRETSECRET", len), 24) << len;
  EXPECT_EQ(bytes(cccb()->si.abPassword, 10), std::string(10, '\x40'));
  EXPECT_EQ(set_password("SECRET", 6), CM_OK);
  EXPECT_EQ(bytes(cccb()->si.abPassword, 10), ebcdic("SECRET", 0, 10));
  EXPECT_EQ(set_password("ABCDEFGHIJ", 10), CM_OK);
  EXPECT_EQ(bytes(cccb()->si.abPassword, 10), ebcdic("ABCDEFGHIJ", 0, 10));
  EXPECT_EQ(set_type(CM_SECURITY_PROGRAM_STRONG), CM_OK);
  EXPECT_EQ(set_password("X", 1), CM_OK);
  // Changing the type later keeps what is stored.
  EXPECT_EQ(set_type(CM_SECURITY_NONE), CM_OK);
  EXPECT_EQ(bytes(cccb()->si.abPassword, 10), ebcdic("X", 0, 10));
  EXPECT_EQ(cccb()->si.usUserIdLen, 4);
  EXPECT_EQ(set_password("Y", 1), CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(set_user("Y", 1), CM_PROGRAM_STATE_CHECK);
}

TEST_P(Security, ExtractUserIdEightAgainstTen) {
  make();
  ASSERT_EQ(set_user("ABCDEFGHIJ", 10), CM_OK);
  unsigned char out[12];
  std::memset(out, '*', sizeof out);
  CM_INT32 len = -1, rc = -1;
  GetParam().extract_user(id, out, &len, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(len, 10);
  EXPECT_EQ(bytes(out, 12), "ABCDEFGH****");
  std::memset(out, '*', sizeof out);
  CMESUI(id, out, &len, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(len, 10);
  EXPECT_EQ(bytes(out, 12), "ABCDEFGHIJ**");
  ASSERT_EQ(set_user("ABC", 3), CM_OK);
  std::memset(out, '*', sizeof out);
  GetParam().extract_user(id, out, &len, &rc);
  EXPECT_EQ(len, 3);
  EXPECT_EQ(bytes(out, 4), "ABC*");
}

TEST_P(Security, ExtractUserIdOnIncomingNotAcceptedIsStateCheck) {
  make(true);
  unsigned char out[12];
  std::memset(out, '*', sizeof out);
  CM_INT32 len = -1, rc = -1;
  GetParam().extract_user(id, out, &len, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(len, -1);
  EXPECT_EQ(out[0], '*');
  CMESUI(id, out, &len, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  // The type has no state test.
  CM_INT32 t = -1;
  GetParam().extract_type(id, &t, &rc);
  EXPECT_EQ(rc, CM_OK);
  // Accepted: readable.
  cccb()->ulApplConvId = 1;
  GetParam().extract_user(id, out, &len, &rc);
  EXPECT_EQ(rc, CM_OK);
}

TEST_P(Security, UnknownConversationDetails) {
  unsigned char bad[8] = {0x55, 0x55, 0, 0, 0, 0, 0, 0};
  CM_INT32 v = 1, len = 1, rc = -1;
  unsigned char buf[12] = "A";
  struct Row {
    std::function<void()> call;
    uint32_t detail;
  };
  const Names &n = GetParam();
  std::vector<Row> rows = {
      {[&] { n.set_type(bad, &v, &rc); }, 37},       {[&] { n.set_user(bad, buf, &len, &rc); }, 38},
      {[&] { n.set_password(bad, buf, &len, &rc); }, 36}, {[&] { n.extract_type(bad, &v, &rc); }, 39},
      {[&] { n.extract_user(bad, buf, &len, &rc); }, 35}, {[&] { CMESUI(bad, buf, &len, &rc); }, 35},
  };
  for (size_t i = 0; i < rows.size(); ++i) {
    testnode::reset();
    rc = -1;
    rows[i].call();
    EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK) << i;
    ASSERT_EQ(testnode::problems().size(), 1u) << i;
    EXPECT_EQ(testnode::problems()[0].message, 0x20030005u);
    EXPECT_EQ(testnode::problems()[0].sub_code, rows[i].detail) << i;
    EXPECT_EQ(testnode::problems()[0].format, "ba");
  }
}

INSTANTIATE_TEST_SUITE_P(BothNames, Security, ::testing::ValuesIn(both_names()),
                         [](const ::testing::TestParamInfo<Names> &i) { return std::string(i.param.name); });

// The request record of each name carries its own verb index.
TEST(SecurityTrace, EachNameTracesUnderItsOwnIndex) {
  testnode::reset();
  testnode::set_trace_file(1);
  testnode::trace_control()[0] = 0x20;
  CM_INT32 t = 0, rc = -1;
  unsigned char bad[8] = {0x55, 0x55, 0, 0, 0, 0, 0, 0};
  XCSCST(bad, &t, &rc);
  CMSCST(bad, &t, &rc);
  std::string all;
  for (const auto &l : testnode::trace_lines()) all += l + "\n";
  EXPECT_NE(all.find("XCSCST"), std::string::npos);
  EXPECT_NE(all.find("CMSCST"), std::string::npos);
  testnode::reset();
}

}  // namespace
