#include "snanoded/daemon_log.h"

#include "snanode/node.h"

namespace sna::daemon {

void log_problem(uint32_t message, uint32_t sub_code, const std::string& text) {
  nba_pd_print_problem(message, sub_code, "es", static_cast<unsigned>(text.size()), text.data());
}

void log_audit(uint32_t message, uint32_t sub_code, const std::string& text) {
  nba_pd_print_audit(message, sub_code, "es", static_cast<unsigned>(text.size()), text.data());
}

void log_partner_data(uint32_t sense, const proto::Bytes& data) {
  nba_pd_print_problem(msg::kPartnerLogData, 0, "lx ba", static_cast<unsigned>(sense),
                       static_cast<unsigned>(data.size()), data.data());
}

}  // namespace sna::daemon
