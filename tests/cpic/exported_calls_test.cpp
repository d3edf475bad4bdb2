// The library through its exported calls only, as an application sees it.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "cpic.h"
#include "testnode.h"

namespace {

struct ConvertCase {
  const char *name;
  bool outgoing;
  std::string in;
  CM_INT32 length;
  CM_INT32 rc;
  std::string out;
};

const ConvertCase kConvert[] = {
    {"BracketBecomesZero", true, "a[b", 3, CM_OK, std::string("\x81\x00\x82", 3)},
    {"LengthZero", true, "abc", 0, CM_OK, "abc"},
    {"NegativeLength", true, "abc", -1, CM_OK, "abc"},
    {"NegativeLengthLowBitsCount", true, "abc", -65535, CM_OK, "\x81" "bc"},
    {"NegativeLengthIncomingLowBits", false, "\xC1\xC2", -65534, CM_OK, "AB"},
    {"TooLong", true, "abc", 32768, CM_PROGRAM_PARAMETER_CHECK, "abc"},
    {"LatinOne", true, "\xA2\xA6\xAC|!", 5, CM_OK, "\x4A\x6A\x5F\x4F\x5A"},
    {"Incoming", false, "\xC1\x81\x4B\xBA", 4, CM_OK, std::string("Aa.\x00", 4)},
    {"HighBitsIgnored", true, "AB", 0x10002, CM_PROGRAM_PARAMETER_CHECK, "AB"},
};

class Convert : public ::testing::TestWithParam<ConvertCase> {};

TEST_P(Convert, InPlace) {
  const ConvertCase &c = GetParam();
  std::string buf = c.in;
  CM_INT32 len = c.length, rc = -1;
  if (c.outgoing) {
    CMCNVO(reinterpret_cast<unsigned char *>(buf.data()), &len, &rc);
  } else {
    CMCNVI(reinterpret_cast<unsigned char *>(buf.data()), &len, &rc);
  }
  EXPECT_EQ(rc, c.rc);
  EXPECT_EQ(buf, c.out);
  EXPECT_EQ(len, c.length);
}

INSTANTIATE_TEST_SUITE_P(Cases, Convert, ::testing::ValuesIn(kConvert),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(Convert, LongestBufferConverts) {
  std::string buf(32767, 'A');
  CM_INT32 len = 32767, rc = -1;
  CMCNVO(reinterpret_cast<unsigned char *>(buf.data()), &len, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(buf, std::string(32767, '\xC1'));
  cmcnvi(reinterpret_cast<unsigned char *>(buf.data()), &len, &rc);
  EXPECT_EQ(buf, std::string(32767, 'A'));
}

TEST(Calls, InitialiseConversationsAndReleaseThroughTerminate) {
  testnode::reset();
  unsigned char a[8], b[8];
  CM_INT32 rc = -1;
  CMINIT(a, (unsigned char *)"        ", &rc);
  EXPECT_EQ(rc, CM_OK);
  cminic(b, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_NE(std::memcmp(a, b, 4), 0);
  EXPECT_EQ(std::memcmp(a + 4, "\0\0\0\0", 4), 0);
  CM_INT32 size = 0;
  CMEMBS(&size, &rc);
  EXPECT_EQ(size, 32767);
  cmembs(&size, &rc);
  EXPECT_EQ(rc, CM_OK);
  CM_INT32 type = 1;
  CMTERM(&type, &rc);  // no context: nothing to end
  EXPECT_EQ(rc, CM_OK);
  EXPECT_TRUE(testnode::issued_verbs().empty());
}

TEST(Calls, UnknownDestinationThroughTheNode) {
  testnode::reset();
  unsigned char id[8];
  CM_INT32 rc = -1;
  cminit(id, (unsigned char *)"UNKNOWN1", &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  ASSERT_EQ(testnode::audits().size(), 1u);
  EXPECT_EQ(testnode::audits()[0].data, std::vector<std::string>{"UNKNOWN1"});
}

TEST(Calls, VersionStamps) {
  EXPECT_STREQ(ocpic_verstamp(), "V6.4.0.5 Quorvex for Linux CPI-C Library Routines (32 bit)\n");
  EXPECT_STREQ(ocpic_verstamp_tvt(), "V6.4.0.5 Quorvex for Linux %1\n");
}

}  // namespace
