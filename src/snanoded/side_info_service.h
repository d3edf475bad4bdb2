// The node-operator records a client may send: open, query side
// information (every list option) and close. Target handles belong to the
// connection that opened them and go when it closes.
#ifndef SNA_SNANODED_SIDE_INFO_SERVICE_H
#define SNA_SNANODED_SIDE_INFO_SERVICE_H

#include <array>
#include <cstdint>
#include <map>
#include <vector>

#include "nodeconfig/daemon_config.h"
#include "protocol/actions.h"

namespace sna::daemon {

namespace nof {
inline constexpr uint16_t kOpen = 0xF004;
inline constexpr uint16_t kQuerySideInfo = 0x2121;
inline constexpr uint16_t kClose = 0xF005;

inline constexpr uint16_t kOk = 0x0000;
inline constexpr uint16_t kParameterCheck = 0x0001;
inline constexpr uint16_t kStateCheck = 0x0002;
inline constexpr uint32_t kUnknownOpcode = 0x00000001;
inline constexpr uint32_t kBadHandle = 0x00000002;
inline constexpr uint32_t kBadValue = 0x00000003;
inline constexpr uint32_t kBufferTooSmall = 0x00000004;
inline constexpr uint32_t kNoSuchEntry = 0x00001058;

inline constexpr uint8_t kListFirst = 1;
inline constexpr uint8_t kListFromKey = 2;
inline constexpr uint8_t kListAfterKey = 3;
inline constexpr uint8_t kListExact = 4;
}  // namespace nof

// One entry in its 212-byte response form (ASCII, blank-padded text,
// little-endian integers, unused bytes zero).
std::array<uint8_t, 212> encode_side_info_entry(const config::SideInfoEntry& entry);

// The 8-byte key of an entry: its symbolic destination name padded with
// blanks. Entries are listed in the byte order of their keys.
std::array<uint8_t, 8> side_info_key(const config::SideInfoEntry& entry);

class SideInfoService {
 public:
  // Carries out one NOF body from `client`; returns the NOF_REPLY body.
  std::vector<uint8_t> handle(proto::ClientId client, const uint8_t* body,
                              const std::vector<config::SideInfoEntry>& side_info);
  // Drops the client's handles.
  void client_closed(proto::ClientId client);
  size_t open_handles() const { return handles_.size(); }

 private:
  std::map<uint32_t, proto::ClientId> handles_;
  uint32_t next_handle_ = 1;
};

}  // namespace sna::daemon

#endif
