// The operator interface: JSON commands from connections that said they
// are operator tools in their HELLO, JSON answers.
//   {"command":"status"}     the node, its LUs, sessions, conversations,
//                            TPs, registered names, queued attaches
//   {"command":"trace","api":true|false,"file":"path"}
//                            switches API tracing in every application
//   {"command":"stop"}       stops the daemon as SIGTERM does
//   {"command":"sideinfo"}   the side information (passwords not shown)
//   {"command":"sideinfo_define","entry":{...}}
//                            defines or replaces an entry; the keys are a
//                            [[side_info]] entry's, checked as the file's
//   {"command":"sideinfo_delete","sym_dest_name":"NAME"}
//                            deletes an entry
// The operator's side-information changes last until the node stops and
// outlive a reload.
#ifndef SNA_SNANODED_OPERATOR_COMMANDS_H
#define SNA_SNANODED_OPERATOR_COMMANDS_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include <nlohmann/json.hpp>

#include "nodeconfig/daemon_config.h"
#include "protocol/config.h"
#include "protocol/node.h"
#include "snanoded/side_info_service.h"

namespace sna::daemon {

struct ClientView {
  proto::ClientId id = 0;
  pid_t pid = 0;
  uid_t uid = 0;
  std::string user;
  bool is_operator = false;
  uint16_t word_bits = 0;
};

// Everything the status answer is made of.
struct StatusInput {
  std::string node_name;
  pid_t pid = 0;
  std::string socket;
  std::string state_dir;
  std::string config_source;
  std::vector<proto::LocalLuConfig> local_lus;  // the first is the default
  std::vector<proto::LocalLuConfig> all_lus;    // as the snapshot's indices count
  proto::NodeSnapshot snapshot;
  std::vector<ClientView> clients;
  std::unordered_map<uint32_t, uint64_t> queued_ms;  // conv_id -> time waiting
};

class OperatorTarget {
 public:
  virtual ~OperatorTarget() = default;
  virtual StatusInput status_input() = 0;
  // Returns the number of application clients told.
  virtual size_t push_trace(bool api, const std::string& file) = 0;
  virtual void request_stop() = 0;
  // The configuration in force (for the LUs and modes an entry may name).
  virtual const config::DaemonConfig& configuration() const = 0;
  virtual SideInfoTable& side_info() = 0;
  // Told after each change of the side information, for the audit log.
  virtual void side_info_changed(const std::string& what) = 0;
};

nlohmann::json status_json(const StatusInput& in);
nlohmann::json side_info_json(const SideInfoTable& table);

// Carries out one command; returns the answer's text.
std::string operator_reply(const std::string& request, OperatorTarget& target);

// A TP name (EBCDIC) for display: text, or for a service TP the form a
// started program gets in APPCTPN.
std::string tp_name_text(const proto::Bytes& name);

}  // namespace sna::daemon

#endif
