#include "snanoded/verb_translation.h"

#include <algorithm>
#include <cstring>

namespace sna::daemon {

using proto::Opcode;

proto::Verb verb_from_wire(const uint8_t* body, size_t length) {
  wire::Verb w = wire::decode_verb(body);
  proto::Verb v;
  v.opcode = static_cast<Opcode>(w.opcode);
  v.opext = w.opext;
  v.format = w.format;
  std::copy_n(w.tp_id, 8, v.tp_id.begin());
  v.conv_id = w.conv_id;
  v.sync_level = w.sync_level;
  v.return_control = w.return_control;
  v.security = w.security;
  v.type = w.type;
  v.locks = w.locks;
  v.return_status_with_data = w.return_status_with_data;
  v.fill = w.fill;
  v.send_type = w.send_type;
  v.error_type = w.error_type;
  v.direction = w.direction;
  v.max_length = w.max_length;
  v.pip_length = w.pip_length;
  v.data_length = w.data_length;
  v.correlator = w.correlator;
  std::copy_n(w.partner_lu_alias, 8, v.partner_lu_alias.begin());
  std::copy_n(w.mode_name, 8, v.mode_name.begin());
  std::copy_n(w.tp_name, 64, v.tp_name.begin());
  std::copy_n(w.password, 10, v.password.begin());
  std::copy_n(w.user_id, 10, v.user_id.begin());
  std::copy_n(w.partner_lu_name, 17, v.partner_lu_name.begin());
  std::copy_n(w.local_lu_alias, 8, v.local_lu_alias.begin());
  const size_t carried = std::min<size_t>(wire::data_carried(w.data_length),
                                          length > wire::kVerbFixedSize ? length - wire::kVerbFixedSize : 0);
  v.data.assign(body + wire::kVerbFixedSize, body + wire::kVerbFixedSize + carried);
  proto::wipe(w.password, sizeof w.password);
  return v;
}

uint32_t outputs_for(Opcode opcode, uint16_t primary) {
  constexpr uint32_t kNone = 0;
  const bool ok = primary == proto::rc::kOk;
  const bool checked = primary == proto::rc::kParameterCheck || primary == proto::rc::kStateCheck;
  switch (opcode) {
    case Opcode::kAllocate:
      return ok ? uint32_t{wire::kOutConvId} : kNone;
    case Opcode::kConfirm:
    case Opcode::kSendData:
    case Opcode::kSendError:
      return checked ? kNone : uint32_t{wire::kOutRts};
    case Opcode::kReceiveAndWait:
    case Opcode::kReceiveImmediately:
      return checked ? kNone : uint32_t{wire::kOutRts | wire::kOutReceive};
    case Opcode::kGetState:
      return ok ? uint32_t{wire::kOutState} : kNone;
    case Opcode::kTpStarted:
      return ok ? uint32_t{wire::kOutTpId | wire::kOutLocalLuAlias} : kNone;
    case Opcode::kReceiveAllocate:
      return ok ? uint32_t{wire::kOutTpId | wire::kOutConvId | wire::kOutAttach | wire::kOutLocalLuAlias}
                : kNone;
    default:
      return 0;
  }
}

namespace {

// Appends the VERB_REPLY body for the completion. The data goes in with one
// copy and is never zero-filled first: a receive may carry 32767 bytes.
void append_reply_body(const proto::Completion& c, std::vector<uint8_t>& out) {
  const proto::VerbResult& r = c.result;
  wire::VerbReply w;
  w.primary = r.primary;
  w.secondary = r.secondary;
  w.outputs = outputs_for(c.opcode, r.primary);
  if (w.outputs & wire::kOutConvId) w.conv_id = r.conv_id;
  if (w.outputs & wire::kOutRts) w.rts_received = r.rts_received;
  if (w.outputs & wire::kOutState) w.state = r.state;
  if (w.outputs & wire::kOutTpId) std::copy_n(r.tp_id.begin(), 8, w.tp_id);
  if (w.outputs & wire::kOutLocalLuAlias) std::copy_n(r.local_lu_alias.begin(), 8, w.local_lu_alias);
  if (w.outputs & wire::kOutAttach) {
    std::copy_n(r.tp_name.begin(), 64, w.tp_name);
    w.sync_level = r.sync_level;
    w.conversation_type = r.conversation_type;
    std::copy_n(r.user_id.begin(), 10, w.user_id);
    std::copy_n(r.mode_name.begin(), 8, w.mode_name);
    std::copy_n(r.partner_lu_name.begin(), 17, w.partner_lu_name);
  }
  size_t data = 0;
  if (w.outputs & wire::kOutReceive) {
    w.what_received = r.what_received;
    data = r.data.size();
    w.data_length = static_cast<uint32_t>(data);
  }
  const size_t at = out.size();
  out.reserve(at + wire::kVerbReplyFixedSize + data);
  out.resize(at + wire::kVerbReplyFixedSize);
  wire::encode_verb_reply(out.data() + at, w);
  if (data) out.insert(out.end(), r.data.begin(), r.data.end());
}

void put_header(std::vector<uint8_t>& f, wire::Kind kind, uint64_t tag) {
  wire::FrameHeader h;
  h.length = static_cast<uint32_t>(f.size());
  h.kind = kind;
  h.tag = tag;
  wire::encode_header(f.data(), h);
}

}  // namespace

std::vector<uint8_t> reply_body(const proto::Completion& c) {
  std::vector<uint8_t> body;
  append_reply_body(c, body);
  return body;
}

std::vector<uint8_t> verb_reply_frame(const proto::Completion& c) {
  std::vector<uint8_t> f(wire::kHeaderSize);
  append_reply_body(c, f);
  put_header(f, wire::Kind::kVerbReply, c.tag);
  return f;
}

std::vector<uint8_t> make_frame(wire::Kind kind, uint64_t tag, const uint8_t* body, size_t length) {
  std::vector<uint8_t> f;
  f.reserve(wire::kHeaderSize + length);
  f.resize(wire::kHeaderSize);
  if (length) f.insert(f.end(), body, body + length);
  put_header(f, kind, tag);
  return f;
}

}  // namespace sna::daemon
