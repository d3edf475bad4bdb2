#include <gtest/gtest.h>

#include <ostream>

#include "hex.h"
#include "protocol/rh.h"

namespace sna::proto {
namespace {

using test::hex;
using test::to_hex;

struct RhCase {
  const char* name;
  const char* bytes;
  Rh rh;
};
inline void PrintTo(const RhCase& c, std::ostream* os) { *os << c.name; }

Rh make(auto&& fn) {
  Rh r;
  fn(r);
  return r;
}

const RhCase kGolden[] = {
    {"only-in-chain RQE1 with CEB (deallocate flush)", "03 90 01", make([](Rh& r) {
       r.set_response_mode(ResponseMode::kException);
       r.conditional_end_bracket = true;
     })},
    {"first in chain with FMH and begin bracket (attach)", "0A 00 80", make([](Rh& r) {
       r.format = true;
       r.end_chain = false;
       r.begin_bracket = true;
     })},
    {"middle of chain", "00 00 00", make([](Rh& r) {
       r.begin_chain = false;
       r.end_chain = false;
     })},
    {"last in chain with change direction, RQE1", "01 90 20", make([](Rh& r) {
       r.begin_chain = false;
       r.set_response_mode(ResponseMode::kException);
       r.change_direction = true;
     })},
    {"end of chain RQD1 (confirm)", "01 80 00", make([](Rh& r) {
       r.begin_chain = false;
       r.set_response_mode(ResponseMode::kDefinite);
     })},
    {"end of chain RQD1 with CD (confirm send)", "01 80 20", make([](Rh& r) {
       r.begin_chain = false;
       r.set_response_mode(ResponseMode::kDefinite);
       r.change_direction = true;
     })},
    {"end of chain RQD1 with CEB (confirm deallocate)", "01 80 01", make([](Rh& r) {
       r.begin_chain = false;
       r.set_response_mode(ResponseMode::kDefinite);
       r.conditional_end_bracket = true;
     })},
    {"BIND request (SC, formatted, RQD1)", "6B 80 00", make([](Rh& r) {
       r.category = RuCategory::kSc;
       r.format = true;
       r.set_response_mode(ResponseMode::kDefinite);
     })},
    {"SIGNAL request (DFC, formatted, RQD1)", "4B 80 00", make([](Rh& r) {
       r.category = RuCategory::kDfc;
       r.format = true;
       r.set_response_mode(ResponseMode::kDefinite);
     })},
    {"positive response to BIND", "EB 80 00", make([](Rh& r) {
       r.response = true;
       r.category = RuCategory::kSc;
       r.format = true;
       r.dr1 = true;
     })},
    {"positive FMD response", "83 80 00", make([](Rh& r) {
       r.response = true;
       r.dr1 = true;
     })},
    {"negative FMD response with sense", "87 90 00", make([](Rh& r) {
       r.response = true;
       r.sense = true;
       r.dr1 = true;
       r.eri = true;
     })},
    {"pacing, queued, larger window, padded, enciphered, code select", "03 87 0E",
     make([](Rh& r) {
       r.set_response_mode(ResponseMode::kDefinite);
       r.rlwi = true;
       r.queued = true;
       r.pacing = true;
       r.code_select = true;
       r.enciphered = true;
       r.padded = true;
     })},
    {"end bracket, DR2, LCCI", "03 60 40", make([](Rh& r) {
       r.dr2 = true;
       r.lcci = true;
       r.end_bracket = true;
     })},
};

class RhGolden : public ::testing::TestWithParam<RhCase> {};

TEST_P(RhGolden, EncodesToTheReferenceBytes) {
  const auto& c = GetParam();
  auto enc = encode_rh(c.rh);
  EXPECT_EQ(to_hex({enc.begin(), enc.end()}), to_hex(hex(c.bytes))) << c.name;
}

TEST_P(RhGolden, DecodesBackToTheSameFields) {
  const auto& c = GetParam();
  auto b = hex(c.bytes);
  auto d = decode_rh(b);
  ASSERT_TRUE(d) << c.name << ": " << d.error().reason;
  EXPECT_EQ(d.value(), c.rh) << c.name;
}

INSTANTIATE_TEST_SUITE_P(ProtoCodec, RhGolden, ::testing::ValuesIn(kGolden));

struct BadRh {
  const char* bytes;
  const char* reason;
};
inline void PrintTo(const BadRh& c, std::ostream* os) { *os << "[" << c.bytes << "]"; }

const BadRh kBad[] = {
    {"", "RH shorter than 3 bytes"},
    {"03 90", "RH shorter than 3 bytes"},
    {"13 90 00", "RH byte 0 reserved bit set"},
    {"03 98 00", "RH byte 1 reserved bit set"},
    {"03 90 10", "RH byte 2 reserved bit set"},
    {"81 80 00", "response RH must be only-in-chain"},
    {"82 80 00", "response RH must be only-in-chain"},
    {"83 80 20", "response RH byte 2 must be zero"},
    {"87 80 00", "response RH: sense data indicator must match negative response"},
    {"83 90 00", "response RH: sense data indicator must match negative response"},
    {"03 10 00", "request RH asks for an exception response without DR1 or DR2"},
};

class RhBad : public ::testing::TestWithParam<BadRh> {};

TEST_P(RhBad, IsRefusedWithItsReason) {
  auto b = hex(GetParam().bytes);
  auto d = decode_rh(b);
  ASSERT_FALSE(d);
  EXPECT_EQ(d.error().reason, GetParam().reason);
}

INSTANTIATE_TEST_SUITE_P(ProtoCodec, RhBad, ::testing::ValuesIn(kBad));

TEST(ProtoRhCodec, ResponseModesRoundTripThroughTheBits) {
  for (auto m : {ResponseMode::kNone, ResponseMode::kException, ResponseMode::kDefinite}) {
    Rh r;
    r.set_response_mode(m);
    auto enc = encode_rh(r);
    auto d = decode_rh({enc.begin(), enc.end()});
    ASSERT_TRUE(d);
    EXPECT_EQ(d->response_mode(), m);
  }
}

TEST(ProtoRhCodec, ResponseHeaderMirrorsTheRequest) {
  Rh req;
  req.category = RuCategory::kDfc;
  req.format = true;
  req.set_response_mode(ResponseMode::kDefinite);
  Rh neg = response_rh(req, true);
  auto enc = encode_rh(neg);
  EXPECT_EQ(to_hex({enc.begin(), enc.end()}), "CF 90 00");
}

}  // namespace
}  // namespace sna::proto
