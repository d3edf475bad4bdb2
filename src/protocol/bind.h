// BIND and its positive response for LU 6.2 sessions (FM profile 19,
// TS profile 7), including the RU-size exponent encoding and the
// structured subfields of the user data.
#ifndef SNA_PROTO_BIND_H
#define SNA_PROTO_BIND_H

#include <cstdint>
#include <string>

#include "protocol/bytes.h"
#include "protocol/decoded.h"

namespace sna::proto {

inline constexpr uint8_t kBindRequestCode = 0x31;
inline constexpr uint8_t kUnbindRequestCode = 0x32;

// Maximum RU size byte: high nibble a (8-15), low nibble b, size a * 2^b;
// 0 means no limit is stated.
uint8_t encode_ru_size(uint32_t size);  // largest encodable size <= size
uint32_t decode_ru_size(uint8_t code);  // 0 for "no limit"; 0 also for invalid
bool ru_size_code_valid(uint8_t code);

enum class SyncSupport : uint8_t { kNone = 0, kConfirm = 1, kSyncPoint = 3 };

struct Bind {
  bool negotiable = true;
  // Per direction: chaining, request mode and response protocol bytes are
  // fixed for LU 6.2; only the fields that vary are modelled.
  bool primary_is_contention_winner = true;
  uint8_t secondary_send_window = 7;   // 0-63
  uint8_t secondary_receive_window = 7;
  uint8_t primary_send_window = 7;
  uint8_t primary_receive_window = 7;
  bool adaptive_pacing = true;
  uint32_t max_ru_secondary_sends = 1024;  // exact sizes; encoded as exponents
  uint32_t max_ru_primary_sends = 1024;
  SyncSupport sync_support = SyncSupport::kConfirm;
  bool parallel_sessions = true;
  std::string primary_lu_name;   // as carried: "NET.LU" or "LU" (ASCII here)
  std::string mode_name;         // user-data subfield X'02'
  std::string primary_fq_name;   // user-data subfield X'04'
  std::string secondary_lu_name; // field after the user data

  friend bool operator==(const Bind&, const Bind&) = default;
};

// The RU, from the request code on.
Bytes encode_bind(const Bind& b);
Decoded<Bind> decode_bind(ByteView ru);
// RSP(BIND): X'31' followed by the (possibly negotiated) session parameters.
Bytes encode_bind_response(const Bind& b);
Decoded<Bind> decode_bind_response(ByteView ru);

// The secondary's negotiation: smaller RU sizes and windows win, the
// secondary keeps the primary's contention choice, sync support is the
// lower of the two.
Bind negotiate_bind(const Bind& received, uint32_t max_ru, uint8_t window,
                    SyncSupport local_sync);

enum class UnbindType : uint8_t {
  kNormal = 0x01,
  kBindForthcoming = 0x02,
  kCleanup = 0x0F,
  kSessionFailure = 0xFE,  // sense data follows
};

struct Unbind {
  UnbindType type = UnbindType::kNormal;
  uint32_t sense = 0;  // only with kSessionFailure
  friend bool operator==(const Unbind&, const Unbind&) = default;
};
Bytes encode_unbind(const Unbind& u);
Decoded<Unbind> decode_unbind(ByteView ru);

}  // namespace sna::proto

#endif
