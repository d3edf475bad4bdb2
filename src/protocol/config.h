// What the host configures the node with: plain records, no behaviour.
#ifndef SNA_PROTO_CONFIG_H
#define SNA_PROTO_CONFIG_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace sna::proto {

struct LocalLuConfig {
  std::string alias;        // ASCII, up to 8
  std::string fq_name;      // "NET.LU" (ASCII here, EBCDIC on the wire)
  std::string default_partner;  // alias; empty: the LU itself
};

struct PartnerLuConfig {
  std::string alias;
  std::string fq_name;
  // A partner that is not one of this node's LUs is reached over links by
  // the host; `reachable` says whether the host can currently reach it.
  bool reachable = true;
  bool accepts_already_verified = false;  // from this partner, to us
};

struct ModeConfig {
  std::string name;            // ASCII, up to 8
  uint32_t session_limit = 0;  // per (local LU, partner LU); 0 = no limit
  uint32_t send_buffer_size = 4096;
  uint32_t pacing_window = 65536;
  uint32_t max_ru_size = 1024;
};

enum class TypeAllowed : uint8_t { kEither, kBasic, kMapped };
enum class SyncAllowed : uint8_t { kEither, kNone, kConfirm };

struct TpDefinition {
  std::string tp_name;  // ASCII
  TypeAllowed conversation_type = TypeAllowed::kEither;
  SyncAllowed sync_level = SyncAllowed::kEither;
  bool security_required = false;
  uint32_t attach_timeout_ms = 0;  // 0: node default
  uint32_t instance_limit = 16;
  bool only_when_unregistered = false;
};

struct SecurityUser {
  std::string user_id;   // ASCII
  std::string password;  // ASCII
};

struct NodeConfig {
  std::vector<LocalLuConfig> local_lus;  // the first is the default local LU
  std::vector<PartnerLuConfig> partners;
  std::vector<ModeConfig> modes;
  std::vector<TpDefinition> tp_definitions;
  std::vector<SecurityUser> security_users;
  // Conversation security: when set, decides whether a user ID and password
  // (ASCII, trailing blanks removed, both non-empty) are valid; when empty,
  // they must match an entry of security_users.
  std::function<bool(const std::string& user_id, const std::string& password)> check_password;
  uint32_t tp_id_stamp = 1;  // bytes 0-3 of every TP id
  uint32_t default_attach_timeout_ms = 60000;
};

}  // namespace sna::proto

#endif
