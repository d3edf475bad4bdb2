#include <gtest/gtest.h>

#include <ostream>

#include "hex.h"
#include "protocol/flow.h"
#include "protocol/sense.h"

namespace sna::proto {
namespace {

using test::hex;
using test::to_hex;

TEST(ProtoFlowCodec, SignalRequestToSendGolden) {
  EXPECT_EQ(to_hex(encode_flow(signal_flow(kSignalRequestToSend))), "4B 80 00 C9 00 01 00 00");
  auto f = decode_flow(hex("4B 80 00 C9 00 01 00 00"));
  ASSERT_TRUE(f) << f.error().reason;
  auto s = decode_signal(f->ru);
  ASSERT_TRUE(s);
  EXPECT_EQ(s.value(), kSignalRequestToSend);
}

TEST(ProtoFlowCodec, ResponsesGolden) {
  Flow sig = signal_flow(kSignalRequestToSend);
  EXPECT_EQ(to_hex(encode_flow(positive_response(sig))), "CB 80 00 C9");
  Flow data;
  data.rh.begin_chain = false;
  data.rh.set_response_mode(ResponseMode::kDefinite);
  data.ru = hex("00 05 12 FF C1");
  EXPECT_EQ(to_hex(encode_flow(positive_response(data))), "83 80 00");
  Flow neg = negative_response(data, sense::kErrorFollows);
  EXPECT_EQ(to_hex(encode_flow(neg)), "87 90 00 08 46 00 00");
  auto d = decode_flow(encode_flow(neg));
  ASSERT_TRUE(d);
  EXPECT_EQ(response_sense(d.value()), sense::kErrorFollows);
  EXPECT_EQ(response_sense(positive_response(data)), 0u);
}

TEST(ProtoFlowCodec, DataFlowRoundTrips) {
  Flow f;
  f.rh.format = true;
  f.rh.begin_bracket = true;
  f.rh.end_chain = false;
  f.ru = hex("0D 05 02 FF 00 03 D1 00 00 03 E2 D9 E5");
  auto d = decode_flow(encode_flow(f));
  ASSERT_TRUE(d);
  EXPECT_EQ(d.value(), f);
}

struct BadFlow {
  const char* bytes;
  const char* reason;
};
inline void PrintTo(const BadFlow& c, std::ostream* os) { *os << "[" << c.bytes << "]"; }

const BadFlow kBadFlows[] = {
    {"", "RH shorter than 3 bytes"},
    {"03", "RH shorter than 3 bytes"},
    {"87 90 00 08 46", "sense data indicator set but RU shorter than 4"},
    {"4B 80 00", "control request without a request code"},
    {"43 80 00 C9 00 01 00 00", "control request not marked formatted"},
    {"4B 80 00 C9 00 01", "SIGNAL shorter than 5 bytes"},
    {"4B 80 00 C9 00 01 00 00 00", "SIGNAL longer than 5 bytes"},
};

class FlowBad : public ::testing::TestWithParam<BadFlow> {};

TEST_P(FlowBad, IsRefusedWithItsReason) {
  auto d = decode_flow(hex(GetParam().bytes));
  ASSERT_FALSE(d);
  EXPECT_EQ(d.error().reason, GetParam().reason);
}

INSTANTIATE_TEST_SUITE_P(ProtoCodec, FlowBad, ::testing::ValuesIn(kBadFlows));

// Decoding must never read outside the buffer: every prefix of valid flows
// either decodes or is refused (run under the address sanitizer too).
TEST(ProtoFlowCodec, EveryPrefixIsHandled) {
  for (const char* s : {"4B 80 00 C9 00 01 00 00", "87 90 00 08 46 00 00",
                        "0A 00 80 0D 05 02 FF 00 03 D1 00 00 03 E2 D9 E5"}) {
    auto full = hex(s);
    for (size_t n = 0; n <= full.size(); ++n) {
      Bytes part(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(n));
      auto d = decode_flow(part);
      if (n < 3) {
        EXPECT_FALSE(d);
      }
    }
  }
}

}  // namespace
}  // namespace sna::proto
