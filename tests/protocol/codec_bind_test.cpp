#include <gtest/gtest.h>

#include <ostream>

#include "hex.h"
#include "protocol/bind.h"

namespace sna::proto {
namespace {

using test::hex;
using test::to_hex;

// An LU 6.2 BIND built by hand from the published field layout: negotiable,
// FM profile 19, TS profile 7, primary is contention winner, adaptive
// pacing with windows of 7, RU sizes 1024 (8 * 2^7), confirm supported,
// parallel sessions, PLU "LUA", mode #INTER, PLU qualified name NETA.LUA,
// SLU "LUB".
constexpr const char* kBindGolden =
    "31 00 13 07 B0 B0 50 B0 47 07 87 87 07 07 06 02"
    " 00 00 00 00 00 00 00 02 20 00 00"
    " 03 D3 E4 C1"
    " 13 00 07 02 7B C9 D5 E3 C5 D9 09 04 D5 C5 E3 C1 4B D3 E4 C1"
    " 00"
    " 03 D3 E4 C2";

Bind golden_bind() {
  Bind b;
  b.primary_lu_name = "LUA";
  b.mode_name = "#INTER";
  b.primary_fq_name = "NETA.LUA";
  b.secondary_lu_name = "LUB";
  return b;
}

TEST(ProtoBindCodec, EncodesTheGoldenImage) {
  EXPECT_EQ(to_hex(encode_bind(golden_bind())), to_hex(hex(kBindGolden)));
}

TEST(ProtoBindCodec, DecodesTheGoldenImage) {
  auto bytes = hex(kBindGolden);
  auto d = decode_bind(bytes);
  ASSERT_TRUE(d) << d.error().reason;
  EXPECT_EQ(d.value(), golden_bind());
}

TEST(ProtoBindCodec, ResponseCarriesTheNegotiatedImage) {
  Bind b = golden_bind();
  Bind n = negotiate_bind(b, 256, 3, SyncSupport::kNone);
  EXPECT_EQ(n.max_ru_primary_sends, 256u);
  EXPECT_EQ(n.max_ru_secondary_sends, 256u);
  EXPECT_EQ(n.primary_send_window, 3);
  EXPECT_EQ(n.secondary_receive_window, 3);
  EXPECT_EQ(n.sync_support, SyncSupport::kNone);
  EXPECT_TRUE(n.primary_is_contention_winner);
  auto rsp = encode_bind_response(n);
  EXPECT_EQ(rsp[10], 0x85);
  EXPECT_EQ(rsp[11], 0x85);
  EXPECT_EQ(rsp[24], 0x00);
  auto d = decode_bind_response(rsp);
  ASSERT_TRUE(d) << d.error().reason;
  EXPECT_EQ(d.value(), n);
}

TEST(ProtoBindCodec, SecondaryContentionWinnerClearsByteSevenBitThree) {
  Bind b = golden_bind();
  b.primary_is_contention_winner = false;
  auto e = encode_bind(b);
  EXPECT_EQ(e[7], 0xA0);
  auto d = decode_bind(e);
  ASSERT_TRUE(d);
  EXPECT_FALSE(d->primary_is_contention_winner);
}

TEST(ProtoBindCodec, RoundTripsVariedParameters) {
  for (uint32_t ru : {0u, 256u, 512u, 4096u, 3840u}) {
    for (uint8_t win : {uint8_t{0}, uint8_t{1}, uint8_t{63}}) {
      Bind b;
      b.max_ru_primary_sends = ru;
      b.max_ru_secondary_sends = ru;
      b.primary_send_window = win;
      b.secondary_send_window = win;
      b.adaptive_pacing = win != 1;
      b.sync_support = win == 63 ? SyncSupport::kSyncPoint : SyncSupport::kConfirm;
      b.parallel_sessions = ru != 512;
      b.negotiable = ru != 256;
      b.mode_name = ru ? "BATCH" : "";
      b.secondary_lu_name = "S";
      auto d = decode_bind(encode_bind(b));
      ASSERT_TRUE(d) << d.error().reason;
      EXPECT_EQ(d.value(), b);
    }
  }
}

struct RuSizeCase {
  uint32_t size;
  uint8_t code;
  uint32_t decoded;
};
inline void PrintTo(const RuSizeCase& c, std::ostream* os) { *os << "size " << c.size; }

const RuSizeCase kRuSizes[] = {
    {0, 0x00, 0},        {256, 0x85, 256},     {1024, 0x87, 1024}, {4096, 0x89, 4096},
    {1000, 0xF6, 960},   {3840, 0xF8, 3840},   {65536, 0x8D, 65536}, {8, 0x80, 8},
    {3, 0x80, 8},        {15, 0xF0, 15},       {16, 0x81, 16},     {1u << 30, 0xFF, 491520},
};

class RuSize : public ::testing::TestWithParam<RuSizeCase> {};

TEST_P(RuSize, UsesTheLargestMantissaExponentPairNotAboveTheSize) {
  EXPECT_EQ(encode_ru_size(GetParam().size), GetParam().code);
  EXPECT_EQ(decode_ru_size(GetParam().code), GetParam().decoded);
}

INSTANTIATE_TEST_SUITE_P(ProtoCodec, RuSize, ::testing::ValuesIn(kRuSizes));

TEST(ProtoBindCodec, RuSizeCodesBelowEightMantissaAreInvalid) {
  EXPECT_FALSE(ru_size_code_valid(0x07));
  EXPECT_FALSE(ru_size_code_valid(0x75));
  EXPECT_TRUE(ru_size_code_valid(0x00));
  EXPECT_TRUE(ru_size_code_valid(0x80));
}

struct BadBind {
  const char* name;
  size_t byte;      // byte to change (or SIZE_MAX for truncation)
  uint8_t value;
  size_t keep;      // truncate to this length when byte == SIZE_MAX
  const char* reason;
};
inline void PrintTo(const BadBind& c, std::ostream* os) { *os << c.name; }

constexpr size_t kTrunc = static_cast<size_t>(-1);

const BadBind kBadBinds[] = {
    {"fixed part short", kTrunc, 0, 27, "BIND shorter than its fixed part"},
    {"empty", kTrunc, 0, 0, "BIND shorter than its fixed part"},
    {"request code", 0, 0x32, 0, "not a BIND request code"},
    {"format", 1, 0x10, 0, "BIND format not 0"},
    {"type", 1, 0x02, 0, "BIND type neither negotiable nor not"},
    {"FM profile", 2, 0x03, 0, "FM profile is not 19"},
    {"TS profile", 3, 0x03, 0, "TS profile is not 7"},
    {"receive window reserved bits", 9, 0xC7, 0, "pacing byte reserved bits set"},
    {"secondary RU size", 10, 0x07, 0, "invalid secondary maximum RU size"},
    {"primary RU size", 11, 0x45, 0, "invalid primary maximum RU size"},
    {"LU type", 14, 0x01, 0, "not an LU 6.2 BIND"},
    {"LU level", 15, 0x01, 0, "not an LU 6.2 BIND"},
    {"sync point without confirm", 24, 0x40, 0, "sync point without confirm is not defined"},
    {"PLU name length past end", 27, 0x70, 0, "primary LU name runs past the BIND or is too long"},
    {"PLU name length above 17", 27, 18, 0, "primary LU name runs past the BIND or is too long"},
    {"user data length past end", 31, 0x40, 0, "user data runs past the BIND"},
    {"user data not structured", 32, 0x01, 0, "user data is not structured"},
    {"subfield length zero", 33, 0x00, 0, "user-data subfield length is bad"},
    {"subfield runs past user data", 41, 0x20, 0, "user-data subfield length is bad"},
    {"URC past end", 51, 0x09, 0, "user request correlation runs past the BIND"},
    {"SLU name past end", 52, 0x04, 0, "secondary LU name runs past the BIND or is too long"},
    {"SLU name truncated", kTrunc, 0, 55, "secondary LU name runs past the BIND or is too long"},
};

class BindBad : public ::testing::TestWithParam<BadBind> {};

TEST_P(BindBad, IsRefusedWithItsReason) {
  const auto& c = GetParam();
  auto b = hex(kBindGolden);
  if (c.byte == kTrunc) b.resize(c.keep);
  else b[c.byte] = c.value;
  auto d = decode_bind(b);
  ASSERT_FALSE(d) << c.name;
  EXPECT_EQ(d.error().reason, c.reason) << c.name;
}

INSTANTIATE_TEST_SUITE_P(ProtoCodec, BindBad, ::testing::ValuesIn(kBadBinds));

TEST(ProtoBindCodec, OverlongModeNameSubfieldIsRefused) {
  Bind b = golden_bind();
  b.mode_name = "ABCDEFGHI";
  auto d = decode_bind(encode_bind(b));
  ASSERT_FALSE(d);
  EXPECT_EQ(d.error().reason, "mode name longer than 8");
}

struct UnbindCase {
  const char* bytes;
  bool ok;
  const char* reason;
};
inline void PrintTo(const UnbindCase& c, std::ostream* os) { *os << "[" << c.bytes << "]"; }

const UnbindCase kUnbinds[] = {
    {"32 01", true, ""},
    {"32 02", true, ""},
    {"32 0F", true, ""},
    {"32 FE 08 57 00 00", true, ""},
    {"", false, "not an UNBIND request code"},
    {"31 01", false, "not an UNBIND request code"},
    {"32", false, "UNBIND without a type"},
    {"32 07", false, "unknown UNBIND type"},
    {"32 FE 08 57", false, "UNBIND type X'FE' without sense data"},
};

class UnbindCodec : public ::testing::TestWithParam<UnbindCase> {};

TEST_P(UnbindCodec, DecodesOrRefuses) {
  auto b = hex(GetParam().bytes);
  auto d = decode_unbind(b);
  ASSERT_EQ(static_cast<bool>(d), GetParam().ok);
  if (d) EXPECT_EQ(to_hex(encode_unbind(d.value())), to_hex(b));
  else EXPECT_EQ(d.error().reason, GetParam().reason);
}

INSTANTIATE_TEST_SUITE_P(ProtoCodec, UnbindCodec, ::testing::ValuesIn(kUnbinds));

}  // namespace
}  // namespace sna::proto
