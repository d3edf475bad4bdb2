// Verbs from their wire form to the core's records, and the outputs each
// reply may carry.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "snanoded/verb_translation.h"

namespace sna::daemon {
namespace {

using proto::Opcode;

std::vector<uint8_t> body_of(const wire::Verb& v, const std::vector<uint8_t>& data) {
  std::vector<uint8_t> b(wire::kVerbFixedSize + data.size());
  wire::encode_verb(b.data(), v);
  if (!data.empty()) std::memcpy(b.data() + wire::kVerbFixedSize, data.data(), data.size());
  return b;
}

const Opcode kEveryOpcode[] = {
    Opcode::kAllocate,         Opcode::kConfirm,          Opcode::kConfirmed,
    Opcode::kDeallocate,       Opcode::kFlush,            Opcode::kGetState,
    Opcode::kPrepareToReceive, Opcode::kReceiveAndWait,   Opcode::kReceiveImmediately,
    Opcode::kRequestToSend,    Opcode::kSendData,         Opcode::kSendError,
    Opcode::kTestRts,          Opcode::kTpEnded,          Opcode::kTpStarted,
    Opcode::kCancelConversation, Opcode::kReceiveAllocate, Opcode::kRegisterTpName,
    Opcode::kWithdrawTpName,
};

// Every field of the block reaches the core unchanged, whatever the opcode.
TEST(VerbFromWire, EveryOpcodeCarriesEveryField) {
  for (Opcode op : kEveryOpcode) {
    SCOPED_TRACE(static_cast<int>(op));
    wire::Verb w;
    w.opcode = static_cast<uint16_t>(op);
    w.opext = 1;
    w.format = 1;
    for (int i = 0; i < 8; ++i) w.tp_id[i] = static_cast<uint8_t>(0x10 + i);
    w.conv_id = 0x01020304;
    w.sync_level = 1;
    w.return_control = 1;
    w.security = 5;
    w.type = 3;
    w.locks = 1;
    w.return_status_with_data = 1;
    w.fill = 1;
    w.send_type = 6;
    w.error_type = 1;
    w.direction = 1;
    w.max_length = 32767;
    w.pip_length = 7;
    w.data_length = 5;
    w.correlator = 0xCAFE;
    std::memcpy(w.partner_lu_alias, "PARTNER1", 8);
    std::memset(w.mode_name, 0xC1, 8);
    for (int i = 0; i < 64; ++i) w.tp_name[i] = static_cast<uint8_t>(0x80 + i);
    std::memset(w.password, 0xD7, 10);
    std::memset(w.user_id, 0xE4, 10);
    for (int i = 0; i < 17; ++i) w.partner_lu_name[i] = static_cast<uint8_t>(0xC1 + i % 9);
    std::memcpy(w.local_lu_alias, "LOCALLU1", 8);
    const std::vector<uint8_t> data = {'H', 'E', 'L', 'L', 'O'};
    const std::vector<uint8_t> body = body_of(w, data);

    const proto::Verb v = verb_from_wire(body.data(), body.size());
    EXPECT_EQ(v.opcode, op);
    EXPECT_EQ(v.opext, 1);
    EXPECT_EQ(v.format, 1);
    EXPECT_EQ(0, std::memcmp(v.tp_id.data(), w.tp_id, 8));
    EXPECT_EQ(v.conv_id, 0x01020304u);
    EXPECT_EQ(v.sync_level, 1);
    EXPECT_EQ(v.return_control, 1);
    EXPECT_EQ(v.security, 5);
    EXPECT_EQ(v.type, 3);
    EXPECT_EQ(v.locks, 1);
    EXPECT_EQ(v.return_status_with_data, 1);
    EXPECT_EQ(v.fill, 1);
    EXPECT_EQ(v.send_type, 6);
    EXPECT_EQ(v.error_type, 1);
    EXPECT_EQ(v.direction, 1);
    EXPECT_EQ(v.max_length, 32767);
    EXPECT_EQ(v.pip_length, 7);
    EXPECT_EQ(v.data_length, 5u);
    EXPECT_EQ(v.correlator, 0xCAFEu);
    EXPECT_EQ(0, std::memcmp(v.partner_lu_alias.data(), w.partner_lu_alias, 8));
    EXPECT_EQ(0, std::memcmp(v.mode_name.data(), w.mode_name, 8));
    EXPECT_EQ(0, std::memcmp(v.tp_name.data(), w.tp_name, 64));
    EXPECT_EQ(0, std::memcmp(v.password.data(), w.password, 10));
    EXPECT_EQ(0, std::memcmp(v.user_id.data(), w.user_id, 10));
    EXPECT_EQ(0, std::memcmp(v.partner_lu_name.data(), w.partner_lu_name, 17));
    EXPECT_EQ(0, std::memcmp(v.local_lu_alias.data(), w.local_lu_alias, 8));
    EXPECT_EQ(v.data, data);
  }
}

TEST(VerbFromWire, UnknownOpcodeIsPassedOnForTheCoreToRefuse) {
  wire::Verb w;
  w.opcode = 0x7777;
  const std::vector<uint8_t> body = body_of(w, {});
  EXPECT_EQ(static_cast<uint16_t>(verb_from_wire(body.data(), body.size()).opcode), 0x7777);
}

TEST(VerbFromWire, LengthAboveTheLimitCarriesNoBytes) {
  wire::Verb w;
  w.opcode = 0x000F;
  w.data_length = 40000;
  const std::vector<uint8_t> body = body_of(w, {});
  const proto::Verb v = verb_from_wire(body.data(), body.size());
  EXPECT_EQ(v.data_length, 40000u);  // the core refuses it
  EXPECT_TRUE(v.data.empty());
}

// The outputs rule, primary by primary.
struct MaskCase {
  Opcode opcode;
  uint16_t primary;
  uint32_t outputs;
};

constexpr uint32_t kRecv = wire::kOutRts | wire::kOutReceive;
constexpr uint32_t kAccept = wire::kOutTpId | wire::kOutConvId | wire::kOutAttach | wire::kOutLocalLuAlias;

const MaskCase kMaskCases[] = {
    {Opcode::kAllocate, 0x0000, wire::kOutConvId},
    {Opcode::kAllocate, 0x0001, 0},
    {Opcode::kAllocate, 0x0003, 0},
    {Opcode::kAllocate, 0x0014, 0},
    {Opcode::kAllocate, 0x0021, 0},
    {Opcode::kConfirm, 0x0000, wire::kOutRts},
    {Opcode::kConfirm, 0x0001, 0},
    {Opcode::kConfirm, 0x0002, 0},
    {Opcode::kConfirm, 0x000E, wire::kOutRts},
    {Opcode::kConfirm, 0x0003, wire::kOutRts},
    {Opcode::kSendData, 0x0000, wire::kOutRts},
    {Opcode::kSendData, 0x0001, 0},
    {Opcode::kSendData, 0x0002, 0},
    {Opcode::kSendData, 0x0005, wire::kOutRts},
    {Opcode::kSendData, 0x0021, wire::kOutRts},
    {Opcode::kSendError, 0x0000, wire::kOutRts},
    {Opcode::kSendError, 0x0001, 0},
    {Opcode::kSendError, 0x0002, 0},
    {Opcode::kSendError, 0x0009, wire::kOutRts},
    {Opcode::kReceiveAndWait, 0x0000, kRecv},
    {Opcode::kReceiveAndWait, 0x0001, 0},
    {Opcode::kReceiveAndWait, 0x0002, 0},
    {Opcode::kReceiveAndWait, 0x0009, kRecv},
    {Opcode::kReceiveAndWait, 0x0005, kRecv},
    {Opcode::kReceiveAndWait, 0x0021, kRecv},
    {Opcode::kReceiveImmediately, 0x0000, kRecv},
    {Opcode::kReceiveImmediately, 0x0014, kRecv},
    {Opcode::kReceiveImmediately, 0x0001, 0},
    {Opcode::kReceiveImmediately, 0x0002, 0},
    {Opcode::kGetState, 0x0000, wire::kOutState},
    {Opcode::kGetState, 0x0001, 0},
    {Opcode::kTpStarted, 0x0000, wire::kOutTpId | wire::kOutLocalLuAlias},
    {Opcode::kTpStarted, 0x0001, 0},
    {Opcode::kReceiveAllocate, 0x0000, kAccept},
    {Opcode::kReceiveAllocate, 0x0002, 0},
    {Opcode::kReceiveAllocate, 0x0021, 0},
    {Opcode::kConfirmed, 0x0000, 0},
    {Opcode::kDeallocate, 0x0000, 0},
    {Opcode::kDeallocate, 0x0005, 0},
    {Opcode::kFlush, 0x0000, 0},
    {Opcode::kPrepareToReceive, 0x0000, 0},
    {Opcode::kRequestToSend, 0x0000, 0},
    {Opcode::kTestRts, 0x0000, 0},
    {Opcode::kTestRts, 0x0014, 0},
    {Opcode::kTpEnded, 0x0000, 0},
    {Opcode::kCancelConversation, 0x0000, 0},
    {Opcode::kRegisterTpName, 0x0000, 0},
    {Opcode::kWithdrawTpName, 0x0001, 0},
};

TEST(OutputsRule, Table) {
  for (const MaskCase& c : kMaskCases) {
    SCOPED_TRACE(::testing::Message() << "opcode " << static_cast<int>(c.opcode) << " primary " << c.primary);
    EXPECT_EQ(outputs_for(c.opcode, c.primary), c.outputs);
  }
}

proto::VerbResult full_result(uint16_t primary) {
  proto::VerbResult r;
  r.primary = primary;
  r.secondary = 0x08640001;
  r.conv_id = 77;
  r.rts_received = 1;
  r.state = 2;
  r.what_received = 0x0201;
  r.data = {'P', 'O', 'N', 'G'};
  r.tp_id = {1, 2, 3, 4, 5, 6, 7, 8};
  std::memcpy(r.local_lu_alias.data(), "LOCAL   ", 8);
  r.tp_name.fill(0xE2);
  r.sync_level = 1;
  r.conversation_type = 1;
  r.user_id.fill(0xE4);
  r.mode_name.fill(0xD4);
  r.partner_lu_name.fill(0xD5);
  return r;
}

// A reply holds exactly the outputs the rule allows; everything else is 0.
TEST(ReplyBody, WritesOnlyTheAllowedOutputs) {
  for (const MaskCase& c : kMaskCases) {
    SCOPED_TRACE(::testing::Message() << "opcode " << static_cast<int>(c.opcode) << " primary " << c.primary);
    proto::Completion comp{3, 9, c.opcode, full_result(c.primary)};
    const std::vector<uint8_t> body = reply_body(comp);
    ASSERT_GE(body.size(), wire::kVerbReplyFixedSize);
    const wire::VerbReply r = wire::decode_verb_reply(body.data());
    EXPECT_EQ(r.primary, c.primary);
    EXPECT_EQ(r.secondary, 0x08640001u);
    EXPECT_EQ(r.outputs, c.outputs);
    EXPECT_EQ(r.conv_id, (c.outputs & wire::kOutConvId) ? 77u : 0u);
    EXPECT_EQ(r.rts_received, (c.outputs & wire::kOutRts) ? 1 : 0);
    EXPECT_EQ(r.state, (c.outputs & wire::kOutState) ? 2 : 0);
    const bool recv = c.outputs & wire::kOutReceive;
    EXPECT_EQ(r.what_received, recv ? 0x0201 : 0);
    EXPECT_EQ(r.data_length, recv ? 4u : 0u);
    EXPECT_EQ(body.size(), wire::kVerbReplyFixedSize + (recv ? 4 : 0));
    if (recv) {
      EXPECT_EQ(0, std::memcmp(body.data() + wire::kVerbReplyFixedSize, "PONG", 4));
    }
    EXPECT_EQ(r.tp_id[7], (c.outputs & wire::kOutTpId) ? 8 : 0);
    EXPECT_EQ(r.local_lu_alias[0], (c.outputs & wire::kOutLocalLuAlias) ? 'L' : 0);
    const bool attach = c.outputs & wire::kOutAttach;
    EXPECT_EQ(r.tp_name[63], attach ? 0xE2 : 0);
    EXPECT_EQ(r.sync_level, attach ? 1 : 0);
    EXPECT_EQ(r.conversation_type, attach ? 1 : 0);
    EXPECT_EQ(r.user_id[9], attach ? 0xE4 : 0);
    EXPECT_EQ(r.mode_name[0], attach ? 0xD4 : 0);
    EXPECT_EQ(r.partner_lu_name[16], attach ? 0xD5 : 0);
  }
}

// The one-buffer reply frame is the frame of the reply body, byte for byte.
TEST(ReplyBody, VerbReplyFrameIsHeaderThenReplyBody) {
  for (const MaskCase& c : kMaskCases) {
    SCOPED_TRACE(::testing::Message() << "opcode " << static_cast<int>(c.opcode) << " primary " << c.primary);
    proto::Completion comp{3, 0x0102030405060708ull, c.opcode, full_result(c.primary)};
    comp.result.data.assign(32767, 0x5A);
    EXPECT_EQ(verb_reply_frame(comp), make_frame(wire::Kind::kVerbReply, comp.tag, reply_body(comp)));
  }
}

TEST(MakeFrame, HeaderThenBody) {
  const std::vector<uint8_t> body = {1, 2, 3};
  const std::vector<uint8_t> f = make_frame(wire::Kind::kNofReply, 0x1122334455667788ull, body);
  ASSERT_EQ(f.size(), wire::kHeaderSize + 3);
  const wire::FrameHeader h = wire::decode_header(f.data());
  EXPECT_EQ(h.length, wire::kHeaderSize + 3);
  EXPECT_EQ(h.kind, wire::Kind::kNofReply);
  EXPECT_EQ(h.tag, 0x1122334455667788ull);
  EXPECT_EQ(f[16], 1);
  EXPECT_EQ(f[18], 3);
}

}  // namespace
}  // namespace sna::daemon
