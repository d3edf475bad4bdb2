// The request stream: well-formed frames come out whole however the bytes
// arrive; every kind of malformed input is refused with a reason.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "snanoded/frame_decoder.h"

namespace sna::daemon {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes header(uint32_t length, uint16_t kind, uint64_t tag = 1) {
  Bytes b(wire::kHeaderSize);
  wire::put32(b.data(), 0, length);
  wire::put16(b.data(), 4, kind);
  wire::put64(b.data(), 8, tag);
  return b;
}

Bytes frame(uint16_t kind, const Bytes& body, uint64_t tag = 1) {
  Bytes f = header(static_cast<uint32_t>(wire::kHeaderSize + body.size()), kind, tag);
  f.insert(f.end(), body.begin(), body.end());
  return f;
}

Bytes hello_body(uint32_t flags = 0, uint32_t magic = wire::kMagic) {
  Bytes b(wire::kHelloSize);
  wire::Hello h;
  h.magic = magic;
  h.flags = flags;
  wire::encode_hello(b.data(), h);
  return b;
}

Bytes verb_body(uint32_t data_length, size_t carried) {
  Bytes b(wire::kVerbFixedSize + carried);
  wire::Verb v;
  v.opcode = 0x000F;
  v.data_length = data_length;
  wire::encode_verb(b.data(), v);
  return b;
}

Bytes hello_frame(uint32_t flags = 0) { return frame(1, hello_body(flags)); }

Bytes join(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

struct Outcome {
  std::vector<wire::Kind> frames;
  bool malformed = false;
  std::string reason;
};

Outcome decode_all(const Bytes& input, size_t chunk) {
  FrameDecoder d;
  Outcome out;
  for (size_t at = 0; at < input.size() && !out.malformed; at += chunk) {
    d.append(input.data() + at, std::min(chunk, input.size() - at));
    Frame f;
    for (;;) {
      const FrameDecoder::Status st = d.next(f, out.reason);
      if (st == FrameDecoder::Status::kNeedMore) break;
      if (st == FrameDecoder::Status::kMalformed) {
        out.malformed = true;
        break;
      }
      out.frames.push_back(f.kind);
    }
  }
  return out;
}

struct BadCase {
  const char* name;
  Bytes input;
  const char* reason_part;
};

TEST(FrameDecoder, MalformedInputTable) {
  const BadCase cases[] = {
      {"length below the header", join({hello_frame(), header(8, 3)}), "shorter than the header"},
      {"zero length", join({hello_frame(), header(0, 3)}), "shorter than the header"},
      {"oversized", join({hello_frame(), header(wire::kMaxRequestFrame + 1, 3)}), "exceeds the request limit"},
      {"huge", join({hello_frame(), header(0xFFFFFFFF, 3)}), "exceeds the request limit"},
      {"kind 0", join({hello_frame(), frame(0, {})}), "unknown frame kind 0"},
      {"kind 99", join({hello_frame(), frame(99, {})}), "unknown frame kind 99"},
      {"reply kind from a client", join({hello_frame(), frame(4, Bytes(144))}), "not a request"},
      {"hello reply from a client", join({hello_frame(), frame(2, Bytes(16))}), "not a request"},
      {"trace control from a client", join({hello_frame(), frame(9, Bytes(4))}), "not a request"},
      {"verb before hello", frame(3, verb_body(0, 0)), "before HELLO"},
      {"nof before hello", frame(5, Bytes(32)), "before HELLO"},
      {"second hello", join({hello_frame(), hello_frame()}), "second HELLO"},
      {"short hello", frame(1, Bytes(8)), "HELLO body of 8 bytes"},
      {"long hello", frame(1, Bytes(20)), "HELLO body of 20 bytes"},
      {"hello with wrong magic", frame(1, hello_body(0, 0x12345678)), "wrong magic"},
      {"verb body short", join({hello_frame(), frame(3, Bytes(100))}), "verb body of 100 bytes"},
      {"verb data missing", join({hello_frame(), frame(3, verb_body(10, 4))}), "declares data length 10"},
      {"verb data extra", join({hello_frame(), frame(3, verb_body(2, 6))}), "declares data length 2"},
      {"verb over-long data carried", join({hello_frame(), frame(3, verb_body(40000, 10))}),
       "declares data length 40000"},
      {"nof short", join({hello_frame(), frame(5, Bytes(31))}), "node-operator body of 31"},
      {"nof long", join({hello_frame(), frame(5, Bytes(33))}), "node-operator body of 33"},
      {"operator frame on an application connection", join({hello_frame(0), frame(7, Bytes(2, '{'))}),
       "operator frame on an application connection"},
      {"garbage", Bytes{'G', 'E', 'T', ' ', '/', ' ', 'H', 'T', 'T', 'P', '/', '1', '.', '1', '\r', '\n'},
       ""},
  };
  for (const BadCase& c : cases) {
    for (size_t chunk : {size_t{1}, size_t{7}, size_t{4096}}) {
      SCOPED_TRACE(::testing::Message() << c.name << ", chunk " << chunk);
      const Outcome o = decode_all(c.input, chunk);
      EXPECT_TRUE(o.malformed);
      EXPECT_NE(o.reason.find(c.reason_part), std::string::npos) << o.reason;
    }
  }
}

TEST(FrameDecoder, WellFormedStreamInAnyChunks) {
  const Bytes data = {'a', 'b', 'c'};
  Bytes v = verb_body(3, 3);
  std::memcpy(v.data() + wire::kVerbFixedSize, data.data(), 3);
  const Bytes input = join({hello_frame(wire::kHelloOperator), frame(3, v), frame(5, Bytes(32)),
                            frame(7, Bytes{'{', '}'}), frame(3, verb_body(40000, 0)), frame(7, {})});
  for (size_t chunk : {size_t{1}, size_t{2}, size_t{15}, size_t{16}, size_t{17}, size_t{1000}}) {
    SCOPED_TRACE(chunk);
    const Outcome o = decode_all(input, chunk);
    EXPECT_FALSE(o.malformed) << o.reason;
    const std::vector<wire::Kind> want = {wire::Kind::kHello, wire::Kind::kVerb,     wire::Kind::kNof,
                                          wire::Kind::kOperator, wire::Kind::kVerb, wire::Kind::kOperator};
    EXPECT_EQ(o.frames, want);
  }
}

TEST(FrameDecoder, FrameCarriesTagAndBody) {
  FrameDecoder d;
  const Bytes input = join({hello_frame(), frame(5, Bytes(32, 0xAB), 0x0102030405060708ull)});
  d.append(input.data(), input.size());
  Frame f;
  std::string reason;
  ASSERT_EQ(d.next(f, reason), FrameDecoder::Status::kFrame);
  EXPECT_TRUE(d.hello_seen());
  EXPECT_FALSE(d.operator_connection());
  ASSERT_EQ(d.next(f, reason), FrameDecoder::Status::kFrame);
  EXPECT_EQ(f.kind, wire::Kind::kNof);
  EXPECT_EQ(f.tag, 0x0102030405060708ull);
  EXPECT_EQ(f.body, Bytes(32, 0xAB));
  EXPECT_EQ(d.next(f, reason), FrameDecoder::Status::kNeedMore);
  EXPECT_EQ(d.buffered(), 0u);
}

TEST(FrameDecoder, HeaderFaultIsSeenBeforeTheBodyArrives) {
  // A client announcing a 4 GiB frame must not make the daemon wait (or
  // buffer) for it.
  FrameDecoder d;
  const Bytes input = join({hello_frame(), header(0x7FFFFFFF, 3)});
  d.append(input.data(), input.size());
  Frame f;
  std::string reason;
  EXPECT_EQ(d.next(f, reason), FrameDecoder::Status::kFrame);
  EXPECT_EQ(d.next(f, reason), FrameDecoder::Status::kMalformed);
}

TEST(FrameDecoder, StaysBrokenAfterMalformedInput) {
  FrameDecoder d;
  const Bytes input = join({hello_frame(), hello_frame(), frame(5, Bytes(32))});
  d.append(input.data(), input.size());
  Frame f;
  std::string reason;
  EXPECT_EQ(d.next(f, reason), FrameDecoder::Status::kFrame);
  EXPECT_EQ(d.next(f, reason), FrameDecoder::Status::kMalformed);
  EXPECT_EQ(d.next(f, reason), FrameDecoder::Status::kMalformed);
}

TEST(FrameDecoder, OperatorFlagComesFromHello) {
  FrameDecoder d;
  const Bytes input = hello_frame(wire::kHelloOperator);
  d.append(input.data(), input.size());
  Frame f;
  std::string reason;
  ASSERT_EQ(d.next(f, reason), FrameDecoder::Status::kFrame);
  EXPECT_TRUE(d.operator_connection());
}

}  // namespace
}  // namespace sna::daemon
