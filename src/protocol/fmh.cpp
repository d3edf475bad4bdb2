#include "protocol/fmh.h"

namespace sna::proto {
namespace {

constexpr uint8_t kTypeAttach = 0x05;
constexpr uint8_t kTypeError = 0x07;
constexpr uint8_t kConcatenated = 0x80;
constexpr uint16_t kAttachCommand = 0x02FF;
constexpr uint8_t kAlreadyVerified = 0x80;
constexpr uint8_t kFixedLength = 3;
constexpr uint8_t kSyncShift = 4;  // byte 7 bits 2-3
constexpr uint8_t kSyncMask = 0x30;
constexpr uint8_t kSubProfile = 0x00, kSubPassword = 0x01, kSubUserId = 0x02;
constexpr size_t kMaxTpName = 64;
constexpr size_t kMaxSecurityField = 10;
constexpr size_t kFmh7Length = 7;
constexpr uint8_t kErrorLogFollows = 0x80;

void put_sub(Bytes& out, uint8_t type, const std::optional<Bytes>& v) {
  if (!v) return;
  out.push_back(static_cast<uint8_t>(v->size() + 1));
  out.push_back(type);
  out.insert(out.end(), v->begin(), v->end());
}

}  // namespace

Bytes encode_attach(const Attach& a) {
  // Sized once: growing would leave a freed copy of the password behind.
  Bytes out;
  out.reserve(255);
  Writer w(out);
  w.u8(0);  // length, patched below
  w.u8(kTypeAttach);
  w.u16(kAttachCommand);
  w.u8(a.already_verified ? kAlreadyVerified : 0);
  w.u8(kFixedLength);
  w.u8(static_cast<uint8_t>(a.resource));
  w.u8(static_cast<uint8_t>(static_cast<uint8_t>(a.sync) << kSyncShift));
  w.u8(0);
  w.u8(static_cast<uint8_t>(a.tp_name.size()));
  w.bytes(a.tp_name);
  Bytes sec;
  sec.reserve(3 * (2 + kMaxSecurityField));
  put_sub(sec, kSubProfile, a.profile);
  put_sub(sec, kSubPassword, a.password);
  put_sub(sec, kSubUserId, a.user_id);
  w.u8(static_cast<uint8_t>(sec.size()));
  w.bytes(sec);
  wipe(sec);
  w.u8(0);  // no logical-unit-of-work identifier
  w.u8(0);  // no conversation correlator
  w.patch_u8(0, static_cast<uint8_t>(out.size()));
  return out;
}

Decoded<Attach> decode_attach(ByteView fmh) {
  Reader r(fmh);
  uint8_t len = 0, type = 0, sec_ind = 0, fixed = 0, res = 0, sync = 0, reserved = 0;
  uint16_t cmd = 0;
  if (!r.u8(len)) return fail("FMH-5 empty", 0);
  if (len != fmh.size()) return fail("FMH-5 length byte does not match its header", 0);
  if (!r.u8(type) || (type & 0x7F) != kTypeAttach) return fail("not an FMH-5", 1);
  if (!r.u16(cmd)) return fail("FMH-5 too short for its command code", r.offset());
  if (cmd != kAttachCommand) return fail("FMH-5 command is not Attach", 2);
  if (!r.u8(sec_ind) || !r.u8(fixed)) return fail("FMH-5 too short", r.offset());
  if (fixed < kFixedLength) return fail("FMH-5 fixed-length parameters too short", 5);
  if (!r.u8(res) || !r.u8(sync) || !r.u8(reserved)) return fail("FMH-5 too short", r.offset());
  ByteView extra;
  if (!r.take(fixed - kFixedLength, extra)) return fail("FMH-5 fixed part runs past it", r.offset());
  Attach a;
  // A refused attach may already hold the password; a returned one has
  // had it moved out.
  struct PasswordWipe {
    Attach& a;
    ~PasswordWipe() {
      if (a.password) wipe(*a.password);
    }
  } password_wipe{a};
  if (res != static_cast<uint8_t>(ResourceType::kBasic) &&
      res != static_cast<uint8_t>(ResourceType::kMapped))
    return fail("unknown FMH-5 resource type", 6);
  a.resource = static_cast<ResourceType>(res);
  const uint8_t s = static_cast<uint8_t>((sync & kSyncMask) >> kSyncShift);
  if (s > 2) return fail("unknown FMH-5 synchronization level", 7);
  a.sync = static_cast<AttachSync>(s);
  a.already_verified = sec_ind & kAlreadyVerified;
  uint8_t tpn_len = 0;
  ByteView tpn;
  const size_t tpn_at = r.offset();
  if (!r.u8(tpn_len)) return fail("FMH-5 without a TP name", tpn_at);
  if (tpn_len == 0 || tpn_len > kMaxTpName) return fail("FMH-5 TP name length not 1-64", tpn_at);
  if (!r.take(tpn_len, tpn)) return fail("FMH-5 TP name runs past it", tpn_at);
  a.tp_name.assign(tpn.begin(), tpn.end());
  uint8_t sec_len = 0;
  if (r.u8(sec_len)) {
    const size_t sec_at = r.offset();
    ByteView sec;
    if (!r.take(sec_len, sec)) return fail("FMH-5 access security runs past it", sec_at);
    Reader s2(sec);
    while (!s2.empty()) {
      uint8_t sl = 0, st = 0;
      ByteView v;
      const size_t at = sec_at + s2.offset();
      // A length of 1 is a subfield without a value: a blank password or
      // user ID given with program security, which the target must refuse
      // rather than take for an attach without security.
      if (!s2.u8(sl) || sl < 1 || !s2.u8(st) || !s2.take(sl - 1u, v))
        return fail("FMH-5 security subfield length bad", at);
      if (v.size() > kMaxSecurityField) return fail("FMH-5 security subfield longer than 10", at);
      Bytes b(v.begin(), v.end());
      if (st == kSubUserId) {
        a.user_id = std::move(b);
      } else if (st == kSubPassword) {
        if (a.password) wipe(*a.password);  // a repeated subfield
        a.password = std::move(b);
      } else if (st == kSubProfile) {
        a.profile = std::move(b);
      } else {
        return fail("unknown FMH-5 security subfield type", at + 1);
      }
    }
    // LUW identifier and conversation correlator: present as length-prefixed
    // fields; this node sends none but accepts them.
    for (int field = 0; field < 2 && !r.empty(); ++field) {
      uint8_t fl = 0;
      ByteView fv;
      const size_t at = r.offset();
      if (!r.u8(fl) || !r.take(fl, fv)) return fail("FMH-5 trailing field runs past it", at);
    }
  }
  if (!r.empty()) return fail("FMH-5 has bytes after its last field", r.offset());
  return a;
}

Bytes encode_fmh7(const Fmh7& f) {
  Bytes out;
  Writer w(out);
  w.u8(kFmh7Length);
  w.u8(kTypeError);
  w.u32(f.sense);
  w.u8(f.error_log_follows ? kErrorLogFollows : 0);
  return out;
}

Decoded<Fmh7> decode_fmh7(ByteView fmh) {
  if (fmh.size() != kFmh7Length) return fail("FMH-7 length is not 7", 0);
  if (fmh[0] != kFmh7Length) return fail("FMH-7 length byte is not 7", 0);
  if ((fmh[1] & 0x7F) != kTypeError) return fail("not an FMH-7", 1);
  Reader r(fmh.subspan(2));
  Fmh7 f;
  r.u32(f.sense);
  if (f.sense == 0) return fail("FMH-7 sense data is zero", 2);
  f.error_log_follows = fmh[6] & kErrorLogFollows;
  return f;
}

Decoded<FmhSplit> split_fmh(ByteView ru) {
  if (ru.size() < 2) return fail("FM header shorter than 2 bytes", ru.size());
  const uint8_t len = ru[0];
  if (len < 2) return fail("FM header length below 2", 0);
  if (len > ru.size()) return fail("FM header length runs past the RU", 0);
  if (ru[1] & kConcatenated) return fail("concatenated FM headers are not used by LU 6.2", 1);
  const uint8_t type = ru[1] & 0x7F;
  if (type != kTypeAttach && type != kTypeError) return fail("unknown FM header type", 1);
  return FmhSplit{type, ru.subspan(0, len), ru.subspan(len)};
}

}  // namespace sna::proto
