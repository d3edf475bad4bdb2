// Function management headers used by LU 6.2: FMH-5 (Attach) and FMH-7
// (error description), and the split of an FMD RU into header and data.
#ifndef SNA_PROTO_FMH_H
#define SNA_PROTO_FMH_H

#include <cstdint>
#include <optional>
#include <string>

#include "protocol/bytes.h"
#include "protocol/decoded.h"

namespace sna::proto {

enum class ResourceType : uint8_t { kBasic = 0xD0, kMapped = 0xD1 };
enum class AttachSync : uint8_t { kNone = 0, kConfirm = 1, kSyncPoint = 2 };

struct Attach {
  ResourceType resource = ResourceType::kMapped;
  AttachSync sync = AttachSync::kNone;
  Bytes tp_name;        // EBCDIC as carried, 1-64 bytes, trailing blanks kept off
  bool already_verified = false;
  std::optional<Bytes> user_id;   // EBCDIC, 0-10 bytes (0: given blank)
  std::optional<Bytes> password;  // EBCDIC, 0-10 bytes
  std::optional<Bytes> profile;   // EBCDIC, 1-10 bytes
  friend bool operator==(const Attach&, const Attach&) = default;
};

struct Fmh7 {
  uint32_t sense = 0;
  bool error_log_follows = false;  // an X'12E1' GDS variable follows the header
  friend bool operator==(const Fmh7&, const Fmh7&) = default;
};

Bytes encode_attach(const Attach& a);  // the whole FMH-5
Decoded<Attach> decode_attach(ByteView fmh);
Bytes encode_fmh7(const Fmh7& f);
Decoded<Fmh7> decode_fmh7(ByteView fmh);

// An FMD RU that begins with an FM header (FI set): the header's type and
// bytes, and what follows it. Only types 5 and 7 are accepted; concatenated
// headers are refused because LU 6.2 sends one at a time.
struct FmhSplit {
  uint8_t type = 0;
  ByteView header;
  ByteView rest;
};
Decoded<FmhSplit> split_fmh(ByteView ru);

}  // namespace sna::proto

#endif
