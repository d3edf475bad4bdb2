#include "protocol/bind.h"

#include <algorithm>

#include "protocol/ebcdic.h"

namespace sna::proto {
namespace {

constexpr uint8_t kFmProfile19 = 0x13;
constexpr uint8_t kTsProfile7 = 0x07;
// FM usage per direction: multiple-RU chains, immediate request mode,
// exception-or-definite response chains.
constexpr uint8_t kFmUsage = 0xB0;
// Common protocols: FM headers allowed, conditional bracket termination.
constexpr uint8_t kCommonProtocols = 0x50;
// Half-duplex flip-flop, symmetric error-recovery responsibility.
constexpr uint8_t kSendReceiveMode = 0xA0;
constexpr uint8_t kPrimaryWinner = 0x10;
constexpr uint8_t kAdaptivePacing = 0x40;
constexpr uint8_t kWindowMask = 0x3F;
constexpr uint8_t kLuType6 = 0x06;
constexpr uint8_t kLuLevel2 = 0x02;
constexpr uint8_t kParallelSessions = 0x02;  // byte 23
constexpr uint8_t kSyncShift = 5;            // byte 24 bits 1-2
constexpr uint8_t kSyncMask = 0x60;
constexpr size_t kFixedLength = 27;          // bytes 0-26
constexpr uint8_t kUserDataStructured = 0x00;
constexpr uint8_t kSubfieldModeName = 0x02;
constexpr uint8_t kSubfieldPrimaryFqName = 0x04;
constexpr size_t kMaxModeName = 8;
constexpr size_t kMaxLuName = 17;

void put_name(Writer& w, const std::string& ascii) {
  w.u8(static_cast<uint8_t>(ascii.size()));
  for (char c : ascii) w.u8(to_ebcdic(c));
}

void put_subfield(Bytes& ud, uint8_t key, const std::string& ascii) {
  if (ascii.empty()) return;
  ud.push_back(static_cast<uint8_t>(ascii.size() + 1));
  ud.push_back(key);
  for (char c : ascii) ud.push_back(to_ebcdic(c));
}

std::string text_of(ByteView v) {
  std::string s;
  for (uint8_t b : v) s.push_back(from_ebcdic(b));
  return s;
}

Bytes encode_image(const Bind& b) {
  Bytes out;
  Writer w(out);
  w.u8(kBindRequestCode);
  w.u8(b.negotiable ? 0x00 : 0x01);
  w.u8(kFmProfile19);
  w.u8(kTsProfile7);
  w.u8(kFmUsage);
  w.u8(kFmUsage);
  w.u8(kCommonProtocols);
  w.u8(static_cast<uint8_t>(kSendReceiveMode |
                            (b.primary_is_contention_winner ? kPrimaryWinner : 0)));
  w.u8(static_cast<uint8_t>((b.adaptive_pacing ? kAdaptivePacing : 0) |
                            (b.secondary_send_window & kWindowMask)));
  w.u8(b.secondary_receive_window & kWindowMask);
  w.u8(encode_ru_size(b.max_ru_secondary_sends));
  w.u8(encode_ru_size(b.max_ru_primary_sends));
  w.u8(b.primary_send_window & kWindowMask);
  w.u8(b.primary_receive_window & kWindowMask);
  w.u8(kLuType6);
  w.u8(kLuLevel2);
  for (int i = 16; i <= 22; ++i) w.u8(0);
  w.u8(b.parallel_sessions ? kParallelSessions : 0);
  w.u8(static_cast<uint8_t>(static_cast<uint8_t>(b.sync_support) << kSyncShift));
  w.u8(0);  // 25 reserved
  w.u8(0);  // 26 no cryptography
  put_name(w, b.primary_lu_name);
  Bytes ud;
  ud.push_back(kUserDataStructured);
  put_subfield(ud, kSubfieldModeName, b.mode_name);
  put_subfield(ud, kSubfieldPrimaryFqName, b.primary_fq_name);
  w.u8(static_cast<uint8_t>(ud.size()));
  w.bytes(ud);
  w.u8(0);  // no user request correlation
  put_name(w, b.secondary_lu_name);
  return out;
}

bool read_name(Reader& r, size_t max, std::string& out) {
  uint8_t len = 0;
  ByteView v;
  if (!r.u8(len) || len > max || !r.take(len, v)) return false;
  out = text_of(v);
  return true;
}

Decoded<Bind> decode_image(ByteView ru) {
  if (ru.size() < kFixedLength + 1) return fail("BIND shorter than its fixed part", ru.size());
  if (ru[0] != kBindRequestCode) return fail("not a BIND request code", 0);
  if ((ru[1] & 0xF0) != 0) return fail("BIND format not 0", 1);
  if ((ru[1] & 0x0F) > 1) return fail("BIND type neither negotiable nor not", 1);
  if (ru[2] != kFmProfile19) return fail("FM profile is not 19", 2);
  if (ru[3] != kTsProfile7) return fail("TS profile is not 7", 3);
  if ((ru[9] & ~kWindowMask) || (ru[13] & ~kWindowMask) || (ru[12] & ~kWindowMask))
    return fail("pacing byte reserved bits set", 9);
  if (!ru_size_code_valid(ru[10])) return fail("invalid secondary maximum RU size", 10);
  if (!ru_size_code_valid(ru[11])) return fail("invalid primary maximum RU size", 11);
  if (ru[14] != kLuType6 || ru[15] != kLuLevel2) return fail("not an LU 6.2 BIND", 14);
  const uint8_t sync = static_cast<uint8_t>((ru[24] & kSyncMask) >> kSyncShift);
  if (sync == 2) return fail("sync point without confirm is not defined", 24);
  Bind b;
  b.negotiable = (ru[1] & 0x0F) == 0;
  b.primary_is_contention_winner = ru[7] & kPrimaryWinner;
  b.adaptive_pacing = ru[8] & kAdaptivePacing;
  b.secondary_send_window = ru[8] & kWindowMask;
  b.secondary_receive_window = ru[9];
  b.max_ru_secondary_sends = decode_ru_size(ru[10]);
  b.max_ru_primary_sends = decode_ru_size(ru[11]);
  b.primary_send_window = ru[12];
  b.primary_receive_window = ru[13];
  b.parallel_sessions = ru[23] & kParallelSessions;
  b.sync_support = static_cast<SyncSupport>(sync);
  Reader r(ru);
  ByteView skip;
  r.take(kFixedLength, skip);
  if (!read_name(r, kMaxLuName, b.primary_lu_name))
    return fail("primary LU name runs past the BIND or is too long", r.offset());
  uint8_t ud_len = 0;
  ByteView ud;
  if (r.u8(ud_len)) {
    const size_t ud_at = r.offset();
    if (!r.take(ud_len, ud)) return fail("user data runs past the BIND", ud_at);
    if (!ud.empty()) {
      if (ud[0] != kUserDataStructured) return fail("user data is not structured", ud_at);
      Reader s(ud.subspan(1));
      while (!s.empty()) {
        uint8_t len = 0, key = 0;
        ByteView data;
        const size_t at = ud_at + 1 + s.offset();
        if (!s.u8(len) || len < 1 || !s.u8(key) || !s.take(len - 1u, data))
          return fail("user-data subfield length is bad", at);
        if (key == kSubfieldModeName) {
          if (data.size() > kMaxModeName) return fail("mode name longer than 8", at);
          b.mode_name = text_of(data);
        } else if (key == kSubfieldPrimaryFqName) {
          if (data.size() > kMaxLuName) return fail("qualified LU name longer than 17", at);
          b.primary_fq_name = text_of(data);
        }  // other subfields are not used by this node and are skipped
      }
    }
    uint8_t urc_len = 0;
    ByteView urc;
    if (r.u8(urc_len) && !r.take(urc_len, urc))
      return fail("user request correlation runs past the BIND", r.offset());
    if (!r.empty() && !read_name(r, kMaxLuName, b.secondary_lu_name))
      return fail("secondary LU name runs past the BIND or is too long", r.offset());
  }
  return b;
}

}  // namespace

uint8_t encode_ru_size(uint32_t size) {
  if (size == 0) return 0;
  if (size < 8) return 0x80;
  uint32_t b = 0;
  while ((size >> b) > 15) ++b;
  if (b > 15) return 0xFF;
  return static_cast<uint8_t>(((size >> b) << 4) | b);
}

bool ru_size_code_valid(uint8_t code) { return code == 0 || (code & 0x80); }

uint32_t decode_ru_size(uint8_t code) {
  if (!ru_size_code_valid(code)) return 0;
  return uint32_t{static_cast<uint8_t>(code >> 4)} << (code & 0x0F);
}

Bytes encode_bind(const Bind& b) { return encode_image(b); }
Decoded<Bind> decode_bind(ByteView ru) { return decode_image(ru); }
Bytes encode_bind_response(const Bind& b) { return encode_image(b); }
Decoded<Bind> decode_bind_response(ByteView ru) { return decode_image(ru); }

Bind negotiate_bind(const Bind& received, uint32_t max_ru, uint8_t window,
                    SyncSupport local_sync) {
  Bind b = received;
  auto smaller = [](uint32_t a, uint32_t c) {
    if (a == 0) return c;
    if (c == 0) return a;
    return std::min(a, c);
  };
  b.max_ru_primary_sends = smaller(b.max_ru_primary_sends, max_ru);
  b.max_ru_secondary_sends = smaller(b.max_ru_secondary_sends, max_ru);
  b.primary_send_window = std::min(b.primary_send_window, window);
  b.primary_receive_window = std::min(b.primary_receive_window, window);
  b.secondary_send_window = std::min(b.secondary_send_window, window);
  b.secondary_receive_window = std::min(b.secondary_receive_window, window);
  b.sync_support = static_cast<SyncSupport>(
      std::min(static_cast<uint8_t>(b.sync_support), static_cast<uint8_t>(local_sync)));
  return b;
}

Bytes encode_unbind(const Unbind& u) {
  Bytes out{kUnbindRequestCode, static_cast<uint8_t>(u.type)};
  if (u.type == UnbindType::kSessionFailure) Writer(out).u32(u.sense);
  return out;
}

Decoded<Unbind> decode_unbind(ByteView ru) {
  Reader r(ru);
  uint8_t code = 0, type = 0;
  if (!r.u8(code) || code != kUnbindRequestCode) return fail("not an UNBIND request code", 0);
  if (!r.u8(type)) return fail("UNBIND without a type", 1);
  Unbind u;
  switch (type) {
    case 0x01: case 0x02: case 0x0F: case 0xFE: u.type = static_cast<UnbindType>(type); break;
    default: return fail("unknown UNBIND type", 1);
  }
  if (u.type == UnbindType::kSessionFailure && !r.u32(u.sense))
    return fail("UNBIND type X'FE' without sense data", 2);
  return u;
}

}  // namespace sna::proto
