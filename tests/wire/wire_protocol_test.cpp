// The client-daemon frames are the same bytes on every word size: the
// encoders are checked against fixed byte images, and every decoder gives
// back what its encoder was given.
#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "wire/wire_protocol.h"

namespace sna::wire {
namespace {

template <size_t N>
void fill(uint8_t (&a)[N], uint8_t first) {
  for (size_t i = 0; i < N; ++i) a[i] = static_cast<uint8_t>(first + i);
}

TEST(WireFrame, HeaderIsLittleEndianWhateverTheHost) {
  uint8_t b[kHeaderSize];
  encode_header(b, FrameHeader{0x01020304, Kind::kVerbReply, 0x1122334455667788ull});
  const uint8_t want[kHeaderSize] = {0x04, 0x03, 0x02, 0x01, 0x04, 0x00, 0x00, 0x00,
                                     0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11};
  EXPECT_EQ(0, memcmp(b, want, kHeaderSize));
  const FrameHeader h = decode_header(b);
  EXPECT_EQ(0x01020304u, h.length);
  EXPECT_EQ(Kind::kVerbReply, h.kind);
  EXPECT_EQ(0x1122334455667788ull, h.tag);
}

TEST(WireFrame, HelloAndReplyRoundTrip) {
  uint8_t b[kHelloSize];
  Hello h;
  h.word_bits = 32;
  h.pid = 0xA1B2C3D4;
  h.flags = kHelloOperator;
  encode_hello(b, h);
  EXPECT_EQ(0x53, b[0]);  // "SNAW" read as bytes
  EXPECT_EQ(0x57, b[3]);
  const Hello d = decode_hello(b);
  EXPECT_EQ(kMagic, d.magic);
  EXPECT_EQ(kVersion, d.version);
  EXPECT_EQ(32, d.word_bits);
  EXPECT_EQ(0xA1B2C3D4u, d.pid);
  EXPECT_EQ(kHelloOperator, d.flags);

  HelloReply r;
  r.status = 1;
  r.daemon_pid = 77;
  encode_hello_reply(b, r);
  const HelloReply e = decode_hello_reply(b);
  EXPECT_EQ(kMagic, e.magic);
  EXPECT_EQ(1, e.status);
  EXPECT_EQ(77u, e.daemon_pid);
}

Verb sample_verb() {
  Verb v;
  v.opcode = 0xF100;
  v.opext = 1;
  v.format = 1;
  fill(v.tp_id, 0x10);
  v.conv_id = 0xCAFEBABE;
  v.sync_level = 1;
  v.return_control = 1;
  v.security = 5;
  v.type = 3;
  v.locks = 4;
  v.return_status_with_data = 1;
  v.fill = 1;
  v.send_type = 7;
  v.error_type = 1;
  v.direction = 1;
  v.max_length = 32767;
  v.pip_length = 9;
  v.data_length = 40000;
  v.correlator = 0x1234;
  fill(v.partner_lu_alias, 0x20);
  fill(v.mode_name, 0x30);
  fill(v.tp_name, 0x40);
  fill(v.password, 0x90);
  fill(v.user_id, 0xA0);
  fill(v.partner_lu_name, 0xB0);
  fill(v.local_lu_alias, 0xD0);
  return v;
}

TEST(WireVerb, FieldsAtTheirOffsets) {
  uint8_t b[kVerbFixedSize];
  encode_verb(b, sample_verb());
  struct Field {
    size_t offset;
    std::vector<uint8_t> bytes;
  };
  const Field fields[] = {
      {0, {0x00, 0xF1}},  {2, {1}},          {3, {1}},         {4, {0x10}},   {11, {0x17}},
      {12, {0xBE, 0xBA, 0xFE, 0xCA}},        {16, {1}},        {17, {1}},     {18, {5}},
      {19, {3}},          {20, {4}},         {21, {1}},        {22, {1}},     {23, {7}},
      {24, {1}},          {25, {1}},         {26, {0xFF, 0x7F}}, {28, {9, 0}},
      {32, {0x40, 0x9C, 0, 0}},              {36, {0x34, 0x12, 0, 0}},        {40, {0x20}},
      {48, {0x30}},       {56, {0x40}},      {119, {0x7F}},    {120, {0x90}}, {130, {0xA0}},
      {140, {0xB0}},      {156, {0xC0}},     {157, {0xD0}},    {164, {0xD7}}, {165, {0}},
      {191, {0}},
  };
  for (const Field& f : fields)
    for (size_t i = 0; i < f.bytes.size(); ++i)
      EXPECT_EQ(f.bytes[i], b[f.offset + i]) << "offset " << f.offset + i;
}

TEST(WireVerb, RoundTrip) {
  uint8_t b[kVerbFixedSize], again[kVerbFixedSize];
  encode_verb(b, sample_verb());
  encode_verb(again, decode_verb(b));
  EXPECT_EQ(0, memcmp(b, again, kVerbFixedSize));
}

TEST(WireVerb, DataCarriedOnlyUpToTheLargestRecord) {
  EXPECT_EQ(0u, data_carried(0));
  EXPECT_EQ(1u, data_carried(1));
  EXPECT_EQ(32767u, data_carried(32767));
  EXPECT_EQ(0u, data_carried(32768));
  EXPECT_EQ(0u, data_carried(65535));
}

TEST(WireVerbReply, RoundTripAndOffsets) {
  VerbReply r;
  r.primary = 0x0003;
  r.secondary = 0x10086021;
  r.outputs = kOutConvId | kOutAttach;
  r.what_received = 0x0201;
  r.conv_id = 42;
  r.rts_received = 1;
  r.state = 9;
  r.sync_level = 1;
  r.conversation_type = 1;
  fill(r.tp_id, 1);
  fill(r.local_lu_alias, 0x41);
  fill(r.tp_name, 0x80);
  fill(r.user_id, 0xC1);
  fill(r.mode_name, 0xD1);
  fill(r.partner_lu_name, 0xE1);
  r.data_length = 5;
  uint8_t b[kVerbReplyFixedSize], again[kVerbReplyFixedSize];
  encode_verb_reply(b, r);
  EXPECT_EQ(0x03, b[0]);
  EXPECT_EQ(0x21, b[4]);
  EXPECT_EQ(0x10, b[7]);
  EXPECT_EQ(0x01, b[16]);
  EXPECT_EQ(0x41, b[24]);
  EXPECT_EQ(0x80, b[32]);
  EXPECT_EQ(0xC1, b[96]);
  EXPECT_EQ(0xD1, b[106]);
  EXPECT_EQ(0xE1, b[114]);
  EXPECT_EQ(5, b[136]);
  EXPECT_EQ(static_cast<uint8_t>(kOutConvId | kOutAttach), b[140]);
  const VerbReply d = decode_verb_reply(b);
  EXPECT_EQ(r.primary, d.primary);
  EXPECT_EQ(r.secondary, d.secondary);
  EXPECT_EQ(r.outputs, d.outputs);
  EXPECT_EQ(r.data_length, d.data_length);
  encode_verb_reply(again, d);
  EXPECT_EQ(0, memcmp(b, again, kVerbReplyFixedSize));
}

TEST(WireNof, RoundTrips) {
  Nof n;
  n.opcode = 0x2121;
  n.access = 2;
  n.format = 1;
  n.target_handle = 0x01020304;
  n.buffer_size = 424;
  n.entries_wanted = 2;
  n.list_option = 3;
  fill(n.sym_dest_name, 0x41);
  uint8_t b[kNofFixedSize], again[kNofFixedSize];
  encode_nof(b, n);
  EXPECT_EQ(0x21, b[0]);
  EXPECT_EQ(0x04, b[4]);
  EXPECT_EQ(3, b[14]);
  EXPECT_EQ(0x41, b[16]);
  encode_nof(again, decode_nof(b));
  EXPECT_EQ(0, memcmp(b, again, kNofFixedSize));

  NofReply r;
  r.primary = 2;
  r.entries = 3;
  r.secondary = 0x1058;
  r.target_handle = 9;
  uint8_t c[kNofReplyFixedSize];
  encode_nof_reply(c, r);
  const NofReply d = decode_nof_reply(c);
  EXPECT_EQ(2, d.primary);
  EXPECT_EQ(3, d.entries);
  EXPECT_EQ(0x1058u, d.secondary);
  EXPECT_EQ(9u, d.target_handle);
}

}  // namespace
}  // namespace sna::wire
