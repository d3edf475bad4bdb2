// The configuration the end-to-end tests give their node: the echo TP in
// three variants, side information, and one security user.
#ifndef SNA_TESTS_TOOLS_NODE_CONFIG_H
#define SNA_TESTS_TOOLS_NODE_CONFIG_H

#include <string>

#include "tool_process.h"

namespace tooltest {

inline constexpr const char* kPingUser = "PINGUSER";
inline constexpr const char* kPingPassword = "PINGPASS";
inline constexpr const char* kSidePassword = "SIDEPASS";

// A salted hash from the daemon itself; empty on failure.
inline std::string password_hash(const std::string& password) {
  RunResult r = run({SNA_TEST_DAEMON, "--hash-password"}, {}, password + "\n", 20000);
  std::string hash = r.out;
  while (!hash.empty() && (hash.back() == '\n' || hash.back() == '\r')) hash.pop_back();
  return r.status == 0 ? hash : "";
}

inline std::string node_config(const TempDir& dir, const std::string& hash) {
  const std::string program = CPICPINGD_PATH;
  return "[[tp]]\n"
         "name = 'CPICPINGD'\n"
         "program = '" + program + "'\n"
         "log_file = '" + dir.file("cpicpingd.log") + "'\n"
         "\n"
         "[[tp]]\n"
         "name = 'SECPINGD'\n"
         "program = '" + program + "'\n"
         "log_file = '" + dir.file("cpicpingd.log") + "'\n"
         "security_required = true\n"
         "\n"
         "[[tp]]\n"
         "name = 'BASICPD'\n"
         "program = '" + program + "'\n"
         "conversation_type = 'basic'\n"
         "\n"
         "[[side_info]]\n"
         "sym_dest_name = 'PINGSIDE'\n"
         "partner_lu = 'NETWORK.LOCAL'\n"
         "mode = '#INTER'\n"
         "tp_name = 'CPICPINGD'\n"
         "\n"
         "[[side_info]]\n"
         "sym_dest_name = 'SECSIDE'\n"
         "partner_lu = 'NETWORK.LOCAL'\n"
         "mode = '#BATCH'\n"
         "tp_name = 'SECPINGD'\n"
         "security = 'program'\n"
         "user_id = '" + std::string(kPingUser) + "'\n"
         "password = '" + std::string(kSidePassword) + "'\n"
         "\n"
         "[[security_user]]\n"
         "user_id = '" + std::string(kPingUser) + "'\n"
         "password_hash = '" + hash + "'\n";
}

}  // namespace tooltest

#endif
