#include <gtest/gtest.h>

#include <ostream>

#include "hex.h"
#include "protocol/gds.h"

namespace sna::proto {
namespace {

using test::hex;
using test::to_hex;

TEST(ProtoGdsCodec, ApplicationDataGoldenVectors) {
  Bytes out;
  append_gds(kGdsApplicationData, hex("C8 C5 D3 D3 D6"), out);
  EXPECT_EQ(to_hex(out), "00 09 12 FF C8 C5 D3 D3 D6");
  out.clear();
  append_gds(kGdsApplicationData, {}, out);
  EXPECT_EQ(to_hex(out), "00 04 12 FF");
  out.clear();
  append_gds(kGdsErrorLog, hex("C1"), out);
  EXPECT_EQ(to_hex(out), "00 05 12 E1 C1");
}

TEST(ProtoGdsCodec, LongVariableUsesContinuationSegments) {
  Bytes data(40000);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 7);
  Bytes out;
  append_gds(kGdsApplicationData, data, out);
  // First segment: full, continued; second: the rest, without an ID.
  EXPECT_EQ(out[0], 0xFF);
  EXPECT_EQ(out[1], 0xFF);
  EXPECT_EQ(out[2], 0x12);
  EXPECT_EQ(out[3], 0xFF);
  const size_t second = 0x7FFF;
  const size_t rest = 40000 - (0x7FFF - 4);
  EXPECT_EQ(out[second], static_cast<uint8_t>((rest + 2) >> 8));
  EXPECT_EQ(out[second + 1], static_cast<uint8_t>(rest + 2));
  EXPECT_EQ(out.size(), 40000u + 4 + 2);
}

// Feeding the stream in pieces of every size gives back the same variables.
TEST(ProtoGdsCodec, AssemblerRoundTripsAnySplit) {
  Bytes stream;
  std::vector<Bytes> records = {{}, hex("01 02 03"), Bytes(33000, 0x5A), hex("FF")};
  for (auto& r : records) append_gds(kGdsApplicationData, r, stream);
  for (size_t chunk : {size_t{1}, size_t{2}, size_t{3}, size_t{7}, size_t{4096}, stream.size()}) {
    GdsAssembler a;
    std::vector<Bytes> got;
    bool open = false;
    for (size_t i = 0; i < stream.size(); i += chunk) {
      size_t n = std::min(chunk, stream.size() - i);
      auto pieces = a.feed(ByteView(stream).subspan(i, n));
      ASSERT_TRUE(pieces) << pieces.error().reason;
      for (auto& p : pieces.value()) {
        EXPECT_EQ(p.id, kGdsApplicationData);
        if (p.starts_variable) {
          EXPECT_FALSE(open);
          got.emplace_back();
          open = true;
        }
        ASSERT_TRUE(open);
        got.back().insert(got.back().end(), p.data.begin(), p.data.end());
        if (p.ends_variable) open = false;
      }
    }
    EXPECT_TRUE(a.at_boundary());
    EXPECT_EQ(got, records) << "chunk " << chunk;
  }
}

struct BadGds {
  const char* bytes;
  size_t offset;
};
inline void PrintTo(const BadGds& c, std::ostream* os) { *os << "[" << c.bytes << "]"; }

const BadGds kBadGds[] = {
    {"00 00", 0}, {"00 01", 0}, {"00 03 12", 0}, {"80 03", 0},
    {"00 04 12 FF 00 01", 4},           // second variable too short
    {"80 06 12 FF 41 42 00 01", 6},     // continuation LL 1
};

class GdsBad : public ::testing::TestWithParam<BadGds> {};

TEST_P(GdsBad, BadLlIsRefusedAtItsOffset) {
  GdsAssembler a;
  auto d = a.feed(hex(GetParam().bytes));
  ASSERT_FALSE(d);
  EXPECT_EQ(d.error().reason, "GDS LL shorter than its header");
  EXPECT_EQ(d.error().offset, GetParam().offset);
}

INSTANTIATE_TEST_SUITE_P(ProtoCodec, GdsBad, ::testing::ValuesIn(kBadGds));

TEST(ProtoGdsCodec, AssemblerReportsAnOpenVariable) {
  GdsAssembler a;
  ASSERT_TRUE(a.feed(hex("00 08 12 FF 41")));
  EXPECT_FALSE(a.at_boundary());
  ASSERT_TRUE(a.feed(hex("42 43 44")));
  EXPECT_TRUE(a.at_boundary());
}

struct LrCase {
  const char* name;
  const char* bytes;
  bool valid;
  std::vector<size_t> ends;
  bool incomplete;
};
inline void PrintTo(const LrCase& c, std::ostream* os) { *os << c.name; }

const LrCase kRecords[] = {
    {"one record", "00 05 61 62 63", true, {5}, false},
    {"two records of the basic example", "00 05 61 62 63 00 03 64", true, {5, 8}, false},
    {"record then partial", "00 05 61 62 63 00 04 64", true, {5}, true},
    {"two records", "00 03 64 00 02", true, {3, 5}, false},
    {"high bit is data", "80 03 64", true, {3}, false},
    {"LL alone", "00 0A", true, {}, true},
    {"first LL byte only", "00", true, {}, true},
    {"empty", "", true, {}, false},
    {"LL 0000", "00 00", false, {}, false},
    {"LL 0001", "00 01 41", false, {}, false},
    {"LL 8000", "80 00", false, {}, false},
    {"LL 8001", "80 01", false, {}, false},
    {"bad LL after good record", "00 03 41 00 01", false, {}, false},
};

class LogicalRecords : public ::testing::TestWithParam<LrCase> {};

TEST_P(LogicalRecords, ScannerFindsBoundariesAndInvalidLengths) {
  const auto& c = GetParam();
  LogicalRecordScanner s;
  std::vector<size_t> ends;
  EXPECT_EQ(s.feed(hex(c.bytes), &ends), c.valid) << c.name;
  if (c.valid) {
    EXPECT_EQ(ends, c.ends) << c.name;
    EXPECT_EQ(s.incomplete(), c.incomplete) << c.name;
  } else {
    EXPECT_FALSE(s.incomplete()) << c.name << ": a refused feed leaves the position";
  }
}

INSTANTIATE_TEST_SUITE_P(ProtoCodec, LogicalRecords, ::testing::ValuesIn(kRecords));

TEST(ProtoLogicalRecordScanner, RecordSpanningFeedsCompletesInTheLastOne) {
  LogicalRecordScanner s;
  std::vector<size_t> ends;
  ASSERT_TRUE(s.feed(hex("00 0A 61"), &ends));
  EXPECT_TRUE(s.incomplete());
  ASSERT_TRUE(s.feed(hex("62 63 64 65 66 67"), &ends));
  EXPECT_TRUE(s.incomplete());
  ASSERT_TRUE(s.feed(hex("68 00"), &ends));
  EXPECT_EQ(ends, std::vector<size_t>{1});
  EXPECT_TRUE(s.incomplete());  // the next LL has begun
  s.reset();
  EXPECT_FALSE(s.incomplete());
}

}  // namespace
}  // namespace sna::proto
