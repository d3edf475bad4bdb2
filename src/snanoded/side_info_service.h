// The node-operator records a client may send: open, query side
// information (every list option) and close. Target handles belong to the
// connection that opened them and go when it closes.
#ifndef SNA_SNANODED_SIDE_INFO_SERVICE_H
#define SNA_SNANODED_SIDE_INFO_SERVICE_H

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
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

// The side information the node serves: the configuration file's entries
// with the operator's definitions and deletions on top. The operator's
// changes last until the node stops; a reload replaces only the file's
// entries, so a change still wins over a file entry of the same name.
class SideInfoTable {
 public:
  explicit SideInfoTable(std::vector<config::SideInfoEntry> file_entries = {});
  void set_file_entries(std::vector<config::SideInfoEntry> file_entries);
  // Defines or replaces the entry of its name.
  void define(config::SideInfoEntry entry);
  // false when no entry has the name.
  bool remove(const std::string& sym_dest_name);
  // Every entry in force, sorted by the bytes of the name.
  const std::vector<config::SideInfoEntry>& entries() const { return merged_; }
  // Whether the entry in force under the name is the operator's.
  bool operator_defined(const std::string& sym_dest_name) const;

 private:
  void merge();

  std::vector<config::SideInfoEntry> file_;
  std::map<std::string, std::optional<config::SideInfoEntry>> changes_;  // nullopt: deleted
  std::vector<config::SideInfoEntry> merged_;
};

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
