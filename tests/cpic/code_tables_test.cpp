// The four character-set tables, checked character by character against
// the system's own code page 037 converter, and the conversion helpers.
#include <gtest/gtest.h>
#include <iconv.h>

#include <cstring>
#include <string>

#include "internal.h"
#include "testnode.h"

using namespace cpic;

namespace {

uint8_t cp037_of(uint8_t latin1) {
  iconv_t cd = iconv_open("IBM037", "ISO-8859-1");
  EXPECT_NE(cd, reinterpret_cast<iconv_t>(-1));
  char in = static_cast<char>(latin1);
  char out = 0;
  char *pin = &in, *pout = &out;
  size_t nin = 1, nout = 1;
  iconv(cd, &pin, &nin, &pout, &nout);
  iconv_close(cd);
  return static_cast<uint8_t>(out);
}

struct SetCase {
  uint16_t set;
  const char *name;
  std::string members;  // ASCII (Latin-1) characters the set includes
  bool folds_lower;     // lower case accepted and folded to upper case
};

std::string range(char a, char b) {
  std::string s;
  for (char c = a; c <= b; ++c) s += c;
  return s;
}

std::string printable_except(const char *excluded) {
  std::string s;
  for (int c = 0x20; c <= 0x7E; ++c) {
    if (std::strchr(excluded, c) == nullptr) s += static_cast<char>(c);
  }
  return s;
}

const SetCase kSets[] = {
    {0, "cpic_ae", " #$.@" + range('0', '9') + range('A', 'Z') + range('a', 'z'), false},
    {1, "cpic_a", " #$@" + range('0', '9') + range('A', 'Z'), true},
    {2, "cpic_ae640", printable_except("![\\]^`{|}~"), false},
    {3, "cpic_ae640_ex", printable_except("[]^") + "\xA2\xA6\xAC", false},
};

uint8_t out_of(uint16_t set, uint8_t ascii) {
  uint8_t b = 0;
  SCC_convert_string(0, set, 1, &b, &ascii);
  return b;
}

uint8_t back_of(uint16_t set, uint8_t ebcdic) {
  uint8_t b = 0;
  SCC_convert_string(1, set, 1, &b, &ebcdic);
  return b;
}

class CodeTables : public ::testing::TestWithParam<SetCase> {};

TEST_P(CodeTables, EveryMemberBothWaysAndNothingElse) {
  const SetCase &c = GetParam();
  bool member_ascii[256] = {};
  bool member_ebcdic[256] = {};
  for (unsigned char ch : c.members) {
    member_ascii[ch] = true;
    const uint8_t e = cp037_of(ch);
    member_ebcdic[e] = true;
    EXPECT_EQ(out_of(c.set, ch), e) << c.name << " char " << int(ch);
    EXPECT_EQ(back_of(c.set, e), ch) << c.name << " ebcdic " << int(e);
  }
  if (c.folds_lower) {
    for (unsigned char ch = 'a'; ch <= 'z'; ++ch) {
      const uint8_t upper = static_cast<uint8_t>(ch - 'a' + 'A');
      member_ascii[ch] = true;
      member_ebcdic[cp037_of(ch)] = true;
      EXPECT_EQ(out_of(c.set, ch), cp037_of(upper)) << c.name << " folds " << ch;
      EXPECT_EQ(back_of(c.set, cp037_of(ch)), upper) << c.name << " folds back " << ch;
    }
  }
  for (int i = 0; i < 256; ++i) {
    if (!member_ascii[i]) {
      EXPECT_EQ(out_of(c.set, static_cast<uint8_t>(i)), 0) << c.name << " ascii " << i;
    }
    if (!member_ebcdic[i]) {
      EXPECT_EQ(back_of(c.set, static_cast<uint8_t>(i)), 0) << c.name << " ebcdic " << i;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(AllSets, CodeTables, ::testing::ValuesIn(kSets),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(CodeTables, TellingRows) {
  EXPECT_EQ(out_of(0, ' '), 0x40);
  EXPECT_EQ(out_of(0, '.'), 0x4B);
  EXPECT_EQ(out_of(0, '#'), 0x7B);
  EXPECT_EQ(out_of(0, '$'), 0x5B);
  EXPECT_EQ(out_of(0, '@'), 0x7C);
  EXPECT_EQ(out_of(2, '_'), 0x6D);
  EXPECT_EQ(out_of(3, '!'), 0x5A);
  EXPECT_EQ(out_of(3, '|'), 0x4F);
  EXPECT_EQ(out_of(2, '!'), 0x00);
  EXPECT_EQ(out_of(0, 'J'), 0xD1);
  EXPECT_EQ(out_of(0, 's'), 0xA2);
  EXPECT_EQ(out_of(1, '.'), 0x00);  // no period in the type-A set
}

TEST(CodeTables, InPlaceConversionAndCaseFolding) {
  uint8_t buf[3] = {'a', 'b', 'c'};
  SCC_convert_string(0, 1, 3, buf, buf);
  EXPECT_EQ(buf[0], 0xC1);
  EXPECT_EQ(buf[1], 0xC2);
  EXPECT_EQ(buf[2], 0xC3);
  SCC_convert_string(1, 1, 3, buf, buf);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(buf), 3), "ABC");
}

TEST(CodeTables, ByteZeroAndNegativeCounts) {
  EXPECT_EQ(out_of(3, 0), 0);
  EXPECT_EQ(back_of(3, 0), 0);
  uint8_t buf[2] = {'A', 'B'};
  SCC_convert_string(0, 0, -1, buf, buf);
  EXPECT_EQ(buf[0], 'A');
}

TEST(CodeTables, BadDirectionOrSetIsAnInternalError) {
  testnode::reset();
  uint8_t b = 'A';
  SCC_convert_string(2, 0, 1, &b, &b);
  SCC_convert_string(0, 4, 1, &b, &b);
  ASSERT_EQ(testnode::assertions().size(), 2u);
  EXPECT_EQ(testnode::assertions()[0].file, "../../p/vcpic/cpicutil");
  EXPECT_EQ(testnode::assertions()[0].line, 1140);
  EXPECT_EQ(testnode::assertions()[0].expression, "FALSE");
  EXPECT_EQ(testnode::assertions()[1].line, 1174);
  EXPECT_EQ(b, 'A');
}

TEST(CodeTables, FarLen) {
  const uint8_t name[] = {'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 'X', 0};
  EXPECT_EQ(SCC_far_len(name, 8), 8);
  EXPECT_EQ(SCC_far_len(name, 0), 0);
  EXPECT_EQ(SCC_far_len(name, 64), 9);
  const uint8_t empty[] = {0, 'A'};
  EXPECT_EQ(SCC_far_len(empty, 8), 0);
}

}  // namespace
