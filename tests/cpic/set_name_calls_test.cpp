// The name-setting calls and Set_Log_Data: every length boundary, the
// 16-bit against 32-bit length tests, the stored bytes, the values read
// back through the Extract calls, and the log data record.
#include <gtest/gtest.h>

#include <vector>

#include "fixtures.h"

using namespace cpic;
using namespace cpictest;

namespace {

class NameConversation : public LibraryTest {
 protected:
  void make(bool incoming = false) {
    CM_INT32 rc = -1;
    if (incoming) {
      cminic(id, &rc);
    } else {
      cminit(id, (unsigned char *)"        ", &rc);
    }
    ASSERT_EQ(rc, CM_OK);
    made_ = true;
  }
  void TearDown() override {
    if (made_) drop(id);
    EXPECT_EQ(leaked(), 0);
    LibraryTest::TearDown();
  }
  CCCB *cccb() { return find(id); }
  unsigned char id[8] = {};
  bool made_ = false;
};

// A name of upper-case letters and digits, as long as asked (up to 600).
const unsigned char *letters() {
  static unsigned char buf[600];
  for (size_t i = 0; i < sizeof buf; ++i) buf[i] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"[i % 36];
  return buf;
}

using NameSetter = void (*)(unsigned char *, unsigned char *, CM_INT32 *, CM_INT32 *);

struct NameCall {
  const char *name;
  NameSetter set;
  NameSetter extract;  // null: read from the block
  bool low_16_bits;
  uint32_t min, max;
};

const std::vector<NameCall> &name_calls() {
  static const std::vector<NameCall> calls = {
      {"CMSPLN", CMSPLN, CMEPLN, true, 1, 17},
      {"CMSMN", CMSMN, CMEMN, false, 0, 8},
      {"CMSTPN", CMSTPN, CMETPN, false, 1, 64},
      {"CMSLLN", CMSLLN, CMELLN, true, 0, 8},
  };
  return calls;
}

struct NameCase {
  size_t call;
  CM_INT32 length;
};

std::vector<NameCase> name_cases() {
  std::vector<NameCase> out;
  for (size_t i = 0; i < name_calls().size(); ++i) {
    for (CM_INT32 len : {-65535, -1, 0, 1, 8, 9, 17, 18, 64, 65, 512, 513, 65536, 65537, 65544})
      out.push_back({i, len});
  }
  return out;
}

class SetName : public NameConversation, public ::testing::WithParamInterface<NameCase> {};

TEST_P(SetName, LengthRuleAndReadBack) {
  const NameCall &nc = name_calls()[GetParam().call];
  const CM_INT32 length = GetParam().length;
  const uint32_t tested = nc.low_16_bits ? static_cast<uint16_t>(length) : static_cast<uint32_t>(length);
  const bool accepted = tested >= nc.min && tested <= nc.max;
  make();
  CCCB before;
  std::memcpy(&before, cccb(), sizeof before);
  CM_INT32 len = length, rc = -1;
  nc.set(id, const_cast<unsigned char *>(letters()), &len, &rc);
  EXPECT_EQ(rc, accepted ? CM_OK : CM_PROGRAM_PARAMETER_CHECK);
  if (!accepted) {
    EXPECT_EQ(std::memcmp(&before, cccb(), sizeof before), 0) << "a refused call changed the block";
    return;
  }
  unsigned char out[80];
  std::memset(out, 0xEE, sizeof out);
  CM_INT32 out_len = -1;
  rc = -1;
  nc.extract(id, out, &out_len, &rc);
  if (std::string(nc.name) == "CMSLLN" && tested == 0) {
    // No local LU name: 25 after writing the nine bytes.
    EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
    EXPECT_EQ(bytes(out, 9), std::string(9, '\0'));
    return;
  }
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(out_len, static_cast<CM_INT32>(tested));
  EXPECT_EQ(bytes(out, tested), bytes(letters(), tested));
}

INSTANTIATE_TEST_SUITE_P(Lengths, SetName, ::testing::ValuesIn(name_cases()),
                         [](const ::testing::TestParamInfo<NameCase> &info) {
                           CM_INT32 l = info.param.length;
                           return std::string(name_calls()[info.param.call].name) + "_" +
                                  (l < 0 ? "m" + std::to_string(-(int64_t)l) : std::to_string(l));
                         });

using NameForms = NameConversation;

TEST_F(NameForms, PartnerLuAliasStoredUnconvertedOverEightBlanks) {
  make();
  std::memset(cccb()->si.abPartnerLuName, 'z', 17);
  CM_INT32 len = 3, rc = -1;
  CMSPLN(id, (unsigned char *)"LUA", &len, &rc);
  ASSERT_EQ(rc, CM_OK);
  const SIDE_INFO &si = cccb()->si;
  // Only the first eight bytes are blanked first.
  EXPECT_EQ(bytes(si.abPartnerLuName, 17), "LUA     zzzzzzzzz");
  EXPECT_EQ(si.fPartnerLuFq, 0);
  EXPECT_EQ(si.usPartnerLuNameLen, 3);
  len = 12;
  CMSPLN(id, (unsigned char *)"LONGALIAS123", &len, &rc);
  ASSERT_EQ(rc, CM_OK);
  EXPECT_EQ(bytes(si.abPartnerLuName, 17), "LONGALIAS123zzzzz");
}

TEST_F(NameForms, QualifiedPartnerLuNameIsEbcdicWithPeriod) {
  make();
  CM_INT32 len = 17, rc = -1;
  CMSPLN(id, (unsigned char *)"NETWORK1.LUNAME01", &len, &rc);
  ASSERT_EQ(rc, CM_OK);
  const SIDE_INFO &si = cccb()->si;
  EXPECT_EQ(si.fPartnerLuFq, 1);
  EXPECT_EQ(si.usPartnerLuDotPos, 8);
  EXPECT_EQ(si.usPartnerLuNameLen, 17);
  EXPECT_EQ(bytes(si.abPartnerLuName, 17),
            ebcdic("NETWORK1", 1, 8) + "\x4B" + ebcdic("LUNAME01", 1, 8));
  unsigned char out[20];
  CM_INT32 out_len = 0;
  CMEPLN(id, out, &out_len, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(out_len, 17);
  EXPECT_EQ(bytes(out, 17), "NETWORK1.LUNAME01");
  // 18 bytes with a period: refused, the old name stays.
  len = 18;
  CMSPLN(id, (unsigned char *)"NETWORK12.LUNAME01", &len, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(si.usPartnerLuNameLen, 17);
}

TEST_F(NameForms, ShortQualifiedNameIsPaddedWithEbcdicBlanks) {
  make();
  CM_INT32 len = 8, rc = -1;
  CMSPLN(id, (unsigned char *)"NETA.LUB", &len, &rc);
  ASSERT_EQ(rc, CM_OK);
  const SIDE_INFO &si = cccb()->si;
  EXPECT_EQ(bytes(si.abPartnerLuName, 17), ebcdic("NETA", 1, 4) + "\x4B" + ebcdic("LUB", 1, 12));
  EXPECT_EQ(si.usPartnerLuDotPos, 4);
}

TEST_F(NameForms, PeriodAtPositionZeroGivesEmptyNetworkId) {
  make();
  CM_INT32 len = 1, rc = -1;
  CMSPLN(id, (unsigned char *)".", &len, &rc);
  ASSERT_EQ(rc, CM_OK);
  const SIDE_INFO &si = cccb()->si;
  EXPECT_EQ(si.fPartnerLuFq, 1);
  EXPECT_EQ(si.usPartnerLuDotPos, 0);
  EXPECT_EQ(bytes(si.abPartnerLuName, 17), "\x4B" + std::string(16, '\x40'));
  len = 4;
  CMSPLN(id, (unsigned char *)".LUX", &len, &rc);
  ASSERT_EQ(rc, CM_OK);
  unsigned char out[20];
  CM_INT32 out_len = 0;
  CMEPLN(id, out, &out_len, &rc);
  EXPECT_EQ(bytes(out, 4), ".LUX");
  EXPECT_EQ(out_len, 4);
}

TEST_F(NameForms, ModeNameIsEbcdicBlankPaddedAndZeroLengthClears) {
  make();
  CM_INT32 len = 6, rc = -1;
  CMSMN(id, (unsigned char *)"#INTER", &len, &rc);
  ASSERT_EQ(rc, CM_OK);
  EXPECT_EQ(bytes(cccb()->si.abModeName, 8), ebcdic("#INTER", 1, 8));
  EXPECT_EQ(cccb()->si.usModeNameLen, 6);
  len = 0;
  CMSMN(id, (unsigned char *)"#INTER", &len, &rc);
  ASSERT_EQ(rc, CM_OK);
  EXPECT_EQ(bytes(cccb()->si.abModeName, 8), std::string(8, '\x40'));
  unsigned char out[8];
  CM_INT32 out_len = -1;
  CMEMN(id, out, &out_len, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(out_len, 0);
}

TEST_F(NameForms, TpNameSetsApplicationTypeAndSixtyFourBytesHaveNoBlank) {
  make();
  cccb()->si.ulTpNameType = 1;
  CM_INT32 len = 64, rc = -1;
  CMSTPN(id, const_cast<unsigned char *>(letters()), &len, &rc);
  ASSERT_EQ(rc, CM_OK);
  EXPECT_EQ(cccb()->si.ulTpNameType, 0u);
  EXPECT_EQ(bytes(cccb()->si.abTpName, 64), ebcdic(bytes(letters(), 64).c_str(), 2, 64));
  unsigned char out[64];
  CM_INT32 out_len = -1;
  CMETPN(id, out, &out_len, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(out_len, 64);
  // A blank ends the name that Extract reports.
  len = 7;
  CMSTPN(id, (unsigned char *)"TP NAME", &len, &rc);
  ASSERT_EQ(rc, CM_OK);
  CMETPN(id, out, &out_len, &rc);
  EXPECT_EQ(out_len, 2);
  EXPECT_EQ(bytes(out, 2), "TP");
}

TEST_F(NameForms, ExtractTpNameWhileAVerbIsOutstandingIsNotAccepted) {
  make(true);
  cccb()->usOpsOutstanding = 1;
  unsigned char out[64];
  CM_INT32 out_len = -1, rc = -1;
  // 37 comes before the state check.
  CMETPN(id, out, &out_len, &rc);
  EXPECT_EQ(rc, CM_OPERATION_NOT_ACCEPTED);
  EXPECT_EQ(out_len, -1);
  cccb()->usOpsOutstanding = 0;
}

TEST_F(NameForms, LocalLuNameBlankPaddedOrZeroed) {
  make();
  CM_INT32 len = 3, rc = -1;
  CMSLLN(id, (unsigned char *)"LU1", &len, &rc);
  ASSERT_EQ(rc, CM_OK);
  EXPECT_EQ(bytes(cccb()->abLocalLuAlias, 8), "LU1     ");
  unsigned char out[10];
  std::memset(out, 0xEE, sizeof out);
  CM_INT32 out_len = -1;
  CMELLN(id, out, &out_len, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(bytes(out, 10), std::string("LU1     \0\xEE", 10));
  EXPECT_EQ(out_len, 3);
  // The 16-bit test: 65536 counts as 0 and clears the name.
  len = 65536;
  CMSLLN(id, (unsigned char *)"LU1", &len, &rc);
  ASSERT_EQ(rc, CM_OK);
  EXPECT_EQ(bytes(cccb()->abLocalLuAlias, 8), std::string(8, '\0'));
  // The mode name tests all 32 bits: 65536 is refused.
  CMSMN(id, (unsigned char *)"LU1", &len, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
}

// ---- Set_Log_Data ------------------------------------------------------

class LogData : public NameConversation {
 protected:
  void SetUp() override {
    NameConversation::SetUp();
    make();
    CM_INT32 v = CM_BASIC_CONVERSATION, rc = -1;
    CMSCT(id, &v, &rc);
    ASSERT_EQ(rc, CM_OK);
  }
};

TEST_F(LogData, EveryLengthBoundary) {
  struct Row {
    CM_INT32 length;
    CM_INT32 expected;
  };
  for (Row r : {Row{-1, 24}, Row{INT32_MIN, 24}, Row{1, 0}, Row{8, 0}, Row{9, 0}, Row{511, 0},
                Row{512, 0}, Row{513, 24}, Row{65536, 24}, Row{65537, 24}, Row{0, 0}}) {
    CM_INT32 len = r.length, rc = -1;
    CMSLD(id, const_cast<unsigned char *>(letters()), &len, &rc);
    EXPECT_EQ(rc, r.expected) << r.length;
    if (r.expected == 0 && r.length > 0) {
      EXPECT_EQ(cccb()->usLogDataLen, r.length + 8);
      EXPECT_NE(cccb()->pLogData, nullptr);
    }
  }
  EXPECT_EQ(cccb()->usLogDataLen, 0);
  EXPECT_EQ(cccb()->pLogData, nullptr);
}

TEST_F(LogData, RecordOf512Bytes) {
  CM_INT32 len = 512, rc = -1;
  CMSLD(id, const_cast<unsigned char *>(letters()), &len, &rc);
  ASSERT_EQ(rc, CM_OK);
  const uint8_t *p = cccb()->pLogData;
  EXPECT_EQ(cccb()->usLogDataLen, 520);
  EXPECT_EQ(bytes(p, 8), std::string("\x02\x08\x12\xE1\x00\x02\x02\x02", 8));
  EXPECT_EQ(bytes(p + 8, 512), ebcdic(bytes(letters(), 512).c_str(), 0, 512));
  EXPECT_EQ(testnode::live_allocations() - live_at_start_, 2);  // the block and the record
}

TEST_F(LogData, ReplacingFreesTheOldRecord) {
  CM_INT32 len = 5, rc = -1;
  CMSLD(id, (unsigned char *)"FIRST", &len, &rc);
  const int after_first = testnode::live_allocations();
  len = 3;
  CMSLD(id, (unsigned char *)"TWO", &len, &rc);
  ASSERT_EQ(rc, CM_OK);
  EXPECT_EQ(testnode::live_allocations(), after_first);
  EXPECT_EQ(bytes(cccb()->pLogData, 4), std::string("\x00\x0B\x12\xE1", 4));
}

TEST_F(LogData, AllocationFailureKeepsTheOldData) {
  CM_INT32 len = 5, rc = -1;
  CMSLD(id, (unsigned char *)"FIRST", &len, &rc);
  ASSERT_EQ(rc, CM_OK);
  const uint8_t *old = cccb()->pLogData;
  testnode::fail_allocation(1);
  len = 3;
  CMSLD(id, (unsigned char *)"TWO", &len, &rc);
  EXPECT_EQ(rc, CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_EQ(cccb()->pLogData, old);
  EXPECT_EQ(cccb()->usLogDataLen, 13);
  ASSERT_EQ(testnode::problems().size(), 1u);
  EXPECT_EQ(testnode::problems()[0].message, 0x2003000Bu);
  EXPECT_EQ(testnode::problems()[0].sub_code, 11u);
  EXPECT_EQ(testnode::problems()[0].format, "");
}

TEST_F(LogData, AllowedInEveryStateOfABasicConversation) {
  cccb()->ulApplConvId = 5;
  CM_INT32 len = 2, rc = -1;
  CMSLD(id, (unsigned char *)"OK", &len, &rc);
  EXPECT_EQ(rc, CM_OK);
}

}  // namespace
