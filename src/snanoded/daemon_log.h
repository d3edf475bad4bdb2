// The daemon's records in the node's problem and audit logs. The records
// go through the runtime's log writers, so they have the runtime's format
// and land in the state directory named by SNANODE_STATE_DIR.
#ifndef SNA_SNANODED_DAEMON_LOG_H
#define SNA_SNANODED_DAEMON_LOG_H

#include <cstdint>
#include <string>

#include "protocol/bytes.h"

namespace sna::daemon {

// Message numbers of the daemon's records.
namespace msg {
inline constexpr uint32_t kStarted = 0x20000001;        // audit
inline constexpr uint32_t kStopped = 0x20000002;        // audit
inline constexpr uint32_t kReloaded = 0x20000003;       // audit
inline constexpr uint32_t kClientRefused = 0x20000004;  // audit
inline constexpr uint32_t kProgramStarted = 0x20000005; // audit
inline constexpr uint32_t kSideInfoChanged = 0x20000006; // audit
inline constexpr uint32_t kMalformedFrame = 0x20000010; // problem
inline constexpr uint32_t kPartnerLogData = 0x20000011; // problem
inline constexpr uint32_t kReloadFailed = 0x20000012;   // problem
inline constexpr uint32_t kProgramFailed = 0x20000013;  // problem
inline constexpr uint32_t kNoLink = 0x20000014;         // problem
inline constexpr uint32_t kSystemError = 0x20000015;    // problem
inline constexpr uint32_t kVersionRefused = 0x20000016; // problem
}  // namespace msg

void log_problem(uint32_t message, uint32_t sub_code, const std::string& text);
void log_audit(uint32_t message, uint32_t sub_code, const std::string& text);
// A partner's error or abend: its sense code and the log data it sent.
void log_partner_data(uint32_t sense, const proto::Bytes& data);

}  // namespace sna::daemon

#endif
