// Node configurations of the end-to-end tests.
#ifndef TESTS_E2E_CONFIGS_H
#define TESTS_E2E_CONFIGS_H

#include <string>

#include "harness.h"

namespace e2e {

// The password of the one security user, ALICE.
inline constexpr const char *kAlicePassword = "SECRET1";

// Hash of ALICE's password, made once per test program by the daemon.
inline const std::string &alice_hash() {
  static const std::string hash = hash_password(E2E_DAEMON, kAlicePassword);
  return hash;
}

// One local LU (LOCAL, NETWORK.LOCAL, its own default partner); mode ONE
// with a session limit of 1; invokable TPs ECHO (the echo program, log in
// echo.log), MONLY (mapped only), NCONF (sync level none only), BAD (no
// such program), SLOW (never accepts; attach time-out 2 s), QUEUE (the
// echo program, only when unregistered), EXITS (exits without accepting),
// SECURE (the echo program, conversation security required); mode PACED
// with the smallest pacing window; side information SIDE1, SIDE2, SRVDEST;
// the security user ALICE.
inline std::string node_config(const std::string &dir) {
  const std::string echo = E2E_ECHO_TP;
  const std::string env = "environment = { SNANODE_AUTOSTART = \"0\", SNANODE_STATE_DIR = \"" + dir +
                          "/state\" }\n";
  return "[node]\n"
         "attach_timeout = 10\n"
         "\n"
         "[[local_lu]]\n"
         "alias = \"LOCAL\"\n"
         "name = \"NETWORK.LOCAL\"\n"
         "\n"
         "[[mode]]\n"
         "name = \"ONE\"\n"
         "session_limit = 1\n"
         "\n"
         "[[tp]]\n"
         "name = \"ECHO\"\n"
         "program = \"" + echo + "\"\n"
         "log_file = \"" + dir + "/echo.log\"\n" + env +
         "\n"
         "[[tp]]\n"
         "name = \"MONLY\"\n"
         "program = \"" + echo + "\"\n"
         "conversation_type = \"mapped\"\n" + env +
         "\n"
         "[[tp]]\n"
         "name = \"NCONF\"\n"
         "program = \"" + echo + "\"\n"
         "sync_level = \"none\"\n" + env +
         "\n"
         "[[tp]]\n"
         "name = \"BAD\"\n"
         "program = \"" + dir + "/no-such-program\"\n"
         "\n"
         "[[tp]]\n"
         "name = \"SLOW\"\n"
         "program = \"/bin/sleep\"\n"
         "arguments = [\"5\"]\n"
         "attach_timeout = 2\n"
         "\n"
         "[[tp]]\n"
         "name = \"QUEUE\"\n"
         "program = \"" + echo + "\"\n"
         "log_file = \"" + dir + "/queue.log\"\n"
         "only_when_unregistered = true\n" + env +
         "\n"
         "[[tp]]\n"
         "name = \"EXITS\"\n"
         "program = \"/bin/true\"\n"
         "\n"
         "[[tp]]\n"
         "name = \"SECURE\"\n"
         "program = \"" + echo + "\"\n"
         "security_required = true\n" + env +
         "\n"
         "[[mode]]\n"
         "name = \"PACED\"\n"
         "pacing_window = 32768\n"
         "\n"
         "[[side_info]]\n"
         "sym_dest_name = \"SIDE1\"\n"
         "partner_lu = \"NETWORK.LOCAL\"\n"
         "mode = \"#INTER\"\n"
         "tp_name = \"SRV\"\n"
         "security = \"program\"\n"
         "user_id = \"ALICE\"\n"
         "password = \"SECRET1\"\n"
         "local_lu = \"LOCAL\"\n"
         "\n"
         "[[side_info]]\n"
         "sym_dest_name = \"SIDE2\"\n"
         "partner_lu = \"LOCAL\"\n"
         "mode = \"#BATCH\"\n"
         "tp_name = \"06F1F0F0\"\n"
         "tp_name_type = \"service\"\n"
         "security = \"none\"\n"
         "\n"
         "[[side_info]]\n"
         "sym_dest_name = \"SRVDEST\"\n"
         "partner_lu = \"NETWORK.LOCAL\"\n"
         "mode = \"#INTER\"\n"
         "tp_name = \"SRV\"\n"
         "security = \"none\"\n"
         "\n"
         "[[security_user]]\n"
         "user_id = \"ALICE\"\n"
         "password_hash = \"" + alice_hash() + "\"\n";
}

// Starts `daemon` with node_config: "" when it runs, else why not.
inline std::string start_test_node(Daemon &daemon) {
  if (alice_hash().empty()) return "snanoded --hash-password gave nothing";
  std::string why;
  return daemon.start(node_config(daemon.dir()), &why) ? "" : why;
}

}  // namespace e2e

#endif
