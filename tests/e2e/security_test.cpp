// Security through the real daemon: who may reach the socket, conversation
// security with the node's user table, and passwords kept out of every log,
// trace, core and memory image the programs and the daemon leave.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <dirent.h>

#include <fstream>

#include "configs.h"
#include "harness.h"
#include "node_status.h"
#include "scenario.h"
#include "snanode/node.h"
#include "snanode/verbs.h"

namespace e2e {
namespace {

using Steps = std::vector<std::string>;

Steps operator+(Steps a, const Steps &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// ---- socket permissions -------------------------------------------------

// A daemon started by hand, for socket paths the harness does not choose.
class HandStartedDaemon {
 public:
  ~HandStartedDaemon() { stop(); }
  bool start(const std::vector<std::string> &args, std::string *why) {
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0) return false;
    err_ = dir_.path() + "/daemon.err";
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(ready[1], 3);
      int err = ::open(err_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
      if (err >= 0) {
        ::dup2(err, 1);
        ::dup2(err, 2);
      }
      std::vector<std::string> all = {E2E_DAEMON, "--ready-fd", "3"};
      all.insert(all.end(), args.begin(), args.end());
      std::vector<char *> argv;
      for (auto &a : all) argv.push_back(a.data());
      argv.push_back(nullptr);
      ::unsetenv("SNANODE_SOCKET");
      ::execv(E2E_DAEMON, argv.data());
      ::_exit(127);
    }
    ::close(ready[1]);
    struct pollfd p = {ready[0], POLLIN, 0};
    char byte = 0;
    const bool ok = ::poll(&p, 1, kWaitMs) == 1 && ::read(ready[0], &byte, 1) == 1;
    ::close(ready[0]);
    if (!ok && why) *why = "no ready byte; daemon stderr:\n" + read_file(err_);
    return ok;
  }
  void stop() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    if (!wait_exit(pid_, kWaitMs)) {
      ::kill(pid_, SIGKILL);
      wait_exit(pid_, kWaitMs);
    }
    pid_ = -1;
  }
  const std::string &dir() const { return dir_.path(); }

 private:
  TempDir dir_;
  std::string err_;
  pid_t pid_ = -1;
};

// A group the test may give the socket to other than the daemon's own
// primary group when it can (any group as root; else a supplementary one).
std::optional<std::pair<std::string, gid_t>> other_group() {
  if (::geteuid() == 0) {
    if (struct group *g = ::getgrgid(65534)) return std::make_pair(std::string(g->gr_name), g->gr_gid);
  }
  gid_t groups[64];
  int n = ::getgroups(64, groups);
  for (int i = 0; i < n; ++i) {
    if (groups[i] == ::getegid()) continue;
    if (struct group *g = ::getgrgid(groups[i])) return std::make_pair(std::string(g->gr_name), g->gr_gid);
  }
  return std::nullopt;
}

struct SocketCase {
  const char *name;
  bool with_group;
  mode_t socket_mode;
};

std::ostream &operator<<(std::ostream &os, const SocketCase &c) { return os << c.name; }

class SocketPermissions : public ::testing::TestWithParam<SocketCase> {};

// The daemon makes a missing socket directory 0700 and the socket 0600 on
// a per-user node, 0660 owned by the configured group on a group node.
TEST_P(SocketPermissions, SocketAndTheDirectoryTheDaemonMade) {
  const SocketCase &c = GetParam();
  HandStartedDaemon daemon;
  std::vector<std::string> args = {"--socket", daemon.dir() + "/made/by/daemon/socket", "--state-dir",
                                   daemon.dir() + "/state"};
  gid_t want_gid = ::getegid();
  if (c.with_group) {
    auto g = other_group();
    if (!g) GTEST_SKIP() << "no group other than the primary one to give the socket to";
    want_gid = g->second;
    const std::string config = daemon.dir() + "/node.toml";
    ASSERT_TRUE(write_file(config, "[node]\ngroup = \"" + g->first + "\"\n"));
    args.push_back("--config");
    args.push_back(config);
  }
  std::string why;
  ASSERT_TRUE(daemon.start(args, &why)) << why;
  struct stat st {};
  ASSERT_EQ(::lstat((daemon.dir() + "/made/by/daemon/socket").c_str(), &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(st.st_mode & 07777, c.socket_mode);
  EXPECT_EQ(st.st_uid, ::geteuid());
  EXPECT_EQ(st.st_gid, want_gid);
  for (const char *made : {"/made", "/made/by", "/made/by/daemon"}) {
    ASSERT_EQ(::lstat((daemon.dir() + made).c_str(), &st), 0) << made;
    EXPECT_EQ(st.st_mode & 07777, 0700u) << made;
  }
}

INSTANTIATE_TEST_SUITE_P(Security, SocketPermissions,
                         ::testing::Values(SocketCase{"PerUserNode", false, 0600},
                                           SocketCase{"GroupNode", true, 0660}),
                         [](const ::testing::TestParamInfo<SocketCase> &info) { return info.param.name; });

// ---- programs of other users ------------------------------------------

struct PeerCase {
  const char *name;
  bool group_node;  // the node's socket belongs to group 65534
  uid_t uid;
  gid_t gid;
  bool served;
};

std::ostream &operator<<(std::ostream &os, const PeerCase &c) { return os << c.name; }

// What a program of another user gets from TP_STARTED through the runtime:
// the primary and secondary codes, as numbers.
struct Outcome {
  uint16_t primary = 0xFFFF;
  uint32_t secondary = 0xFFFFFFFF;
  pid_t pid = -1;
};

uint16_t be16(uint16_t stored) {
  const uint8_t *b = reinterpret_cast<const uint8_t *>(&stored);
  return static_cast<uint16_t>(b[0] << 8 | b[1]);
}
uint32_t be32(uint32_t stored) {
  const uint8_t *b = reinterpret_cast<const uint8_t *>(&stored);
  return static_cast<uint32_t>(b[0]) << 24 | static_cast<uint32_t>(b[1]) << 16 |
         static_cast<uint32_t>(b[2]) << 8 | b[3];
}

std::optional<Outcome> tp_started_as(const Daemon &daemon, uid_t uid, gid_t gid, const std::string &state) {
  int out[2];
  if (::pipe(out) != 0) return std::nullopt;
  const pid_t pid = ::fork();
  if (pid < 0) return std::nullopt;
  if (pid == 0) {
    ::close(out[0]);
    if (::setgroups(0, nullptr) != 0 || ::setgid(gid) != 0 || ::setuid(uid) != 0) ::_exit(2);
    ::setenv("SNANODE_SOCKET", daemon.socket().c_str(), 1);
    ::setenv("SNANODE_STATE_DIR", state.c_str(), 1);
    ::setenv("SNANODE_AUTOSTART", "0", 1);
    ::unsetenv("SNANODE_TRACE");
    VCB_TP_STARTED v;
    memset(&v, 0, sizeof v);
    v.opcode = VERB_TP_STARTED;
    memset(v.tp_name, 0x40, sizeof v.tp_name);
    v.tp_name[0] = 0xE7;  // "X"
    appc_c_version(2, &v);
    uint32_t codes[2] = {be16(v.primary_rc), be32(v.secondary_rc)};
    ssize_t n = ::write(out[1], codes, sizeof codes);
    ::_exit(n == sizeof codes ? 0 : 3);
  }
  ::close(out[1]);
  struct pollfd p = {out[0], POLLIN, 0};
  uint32_t codes[2] = {0, 0};
  const bool got = ::poll(&p, 1, 10000) == 1 && ::read(out[0], codes, sizeof codes) == sizeof codes;
  ::close(out[0]);
  auto status = wait_exit(pid, kWaitMs);
  if (!status) {
    ::kill(pid, SIGKILL);
    wait_exit(pid, kWaitMs);
  }
  if (!got) return std::nullopt;
  Outcome o;
  o.primary = static_cast<uint16_t>(codes[0]);
  o.secondary = codes[1];
  o.pid = pid;
  return o;
}

class OtherUsers : public ::testing::TestWithParam<PeerCase> {};

// Only the daemon's own peer-credential check stands in the way: the
// socket's directory may be traversed and the socket file itself is 0666.
// A refused program gets "no node reachable" (0xF002) from its first verb,
// and the daemon records the refusal, with the peer's pid and uid, in the
// audit log.
TEST_P(OtherUsers, PeerCredentialsDecide) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to run a program as another user";
  const PeerCase &c = GetParam();
  struct group *g = ::getgrgid(65534);
  if (c.group_node && g == nullptr) GTEST_SKIP() << "no group 65534";
  Daemon daemon(E2E_DAEMON);
  std::string why;
  const std::string config = c.group_node ? "[node]\ngroup = \"" + std::string(g->gr_name) + "\"\n" : "";
  ASSERT_TRUE(daemon.start(config, &why)) << why;
  ASSERT_EQ(::chmod(daemon.dir().c_str(), 0711), 0);
  ASSERT_EQ(::chmod(daemon.socket().c_str(), 0666), 0);
  const std::string state = daemon.dir() + "/peer-state";
  ASSERT_EQ(::mkdir(state.c_str(), 0700), 0);
  ASSERT_EQ(::chown(state.c_str(), c.uid, c.gid), 0);

  auto outcome = tp_started_as(daemon, c.uid, c.gid, state);
  ASSERT_TRUE(outcome) << "the program of uid " << c.uid << " did not report";
  const std::string refusal = "refused client pid " + std::to_string(outcome->pid) + " uid " + std::to_string(c.uid);
  if (c.served) {
    EXPECT_EQ(outcome->primary, 0x0000);
    EXPECT_EQ(read_file(daemon.state_dir() + "/audit.log").find(refusal), std::string::npos);
  } else {
    EXPECT_EQ(outcome->primary, 0xF002) << std::hex << outcome->primary << " " << outcome->secondary;
    EXPECT_TRUE(wait_for_file(daemon.state_dir(), "audit.log",
                              [&](const std::string &log) { return log.find(refusal) != std::string::npos; },
                              2000))
        << read_file(daemon.state_dir() + "/audit.log");
  }
  // The daemon's own user is served all along.
  auto mine = tp_started_as(daemon, ::getuid(), ::getgid(), daemon.state_dir());
  ASSERT_TRUE(mine);
  EXPECT_EQ(mine->primary, 0x0000);
  EXPECT_TRUE(process_alive(daemon.pid()));
}

INSTANTIATE_TEST_SUITE_P(Security, OtherUsers,
                         ::testing::Values(PeerCase{"PerUserNodeRefusesNobody", false, 65534, 65534, false},
                                           PeerCase{"GroupNodeServesAMember", true, 65534, 65534, true},
                                           PeerCase{"GroupNodeRefusesANonMember", true, 65533, 65533, false}),
                         [](const ::testing::TestParamInfo<PeerCase> &info) { return info.param.name; });

// ---- conversation security ----------------------------------------------

// The node's one security user is ALICE with password SECRET1 (configs.h).
// Passwords and user IDs are compared exactly: case matters.
Steps pair() { return {"+A cpic", "+B cpic", "B: CMSLTP SRV | CMSLTP CM_OK"}; }

// A allocates `conv` to `tp` with the given Set calls, sends, and gives B
// the turn; `outcome` is what A's receive then reports.
Steps attempt(const std::string &conv, const std::string &tp, const Steps &sets, const std::string &outcome,
              const std::string &who = "A") {
  Steps s = {who + ": CMINIT " + conv + " | CMINIT CM_OK", who + ": CMSTPN " + conv + " " + tp + " | CMSTPN CM_OK"};
  for (const auto &set : sets) s.push_back(who + ": " + set);
  return s + Steps{who + ": CMALLC " + conv + " | CMALLC CM_OK",
                   who + ": CMSST " + conv + " CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
                   who + ": CMSEND " + conv + " HI | CMSEND CM_OK",
                   who + ": CMRCV " + conv + " 100 | CMRCV " + outcome};
}

Steps program_security(const std::string &conv, const std::string &user, const std::string &password) {
  return {"CMSCST " + conv + " CM_SECURITY_PROGRAM | CMSCST CM_OK",
          "CMSCSU " + conv + " " + user + " | CMSCSU CM_OK",
          "CMSCSP " + conv + " " + password + " | CMSCSP CM_OK"};
}

// B's accept of A's conversation completed and reports `user`; B answers
// the receive A is waiting in.
Steps b_accepted(const std::string &user) {
  return {"B< CMACCP CM_OK",
          "B: CMESUI b | CMESUI CM_OK value=" + user,
          "B: CMRCV b 100 | CMRCV CM_OK text=HI st=CM_SEND_RECEIVED",
          "B: CMSST b CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
          "B: CMSEND b OK | CMSEND CM_OK",
          "A< CMRCV CM_OK text=OK st=CM_SEND_RECEIVED"};
}

// B allocates to SRV2 with security "same"; C's accept reports `user`
// ($LOGIN by default: the login name of the programs' user).
Steps same_to_c(const std::string &user = "$LOGIN") {
  return {"C: CMACCP x",
          "B: CMINIT d | CMINIT CM_OK",
          "B: CMSTPN d SRV2 | CMSTPN CM_OK",
          "B: CMSCST d CM_SECURITY_SAME | CMSCST CM_OK",
          "B: CMALLC d | CMALLC CM_OK",
          "B: CMFLUS d | CMFLUS CM_OK",
          "C< CMACCP CM_OK",
          "C: CMESUI x | CMESUI CM_OK value=" + user};
}

const std::vector<Row> &security_rows() {
  static const std::vector<Row> table = {
      {"RightPasswordAccepted",
       pair() + Steps{"B: CMACCP b"} + attempt("c", "SRV", program_security("c", "ALICE", "SECRET1"), "") +
           b_accepted("ALICE")},
      {"WrongPasswordRefused",
       pair() + attempt("c", "SRV", program_security("c", "ALICE", "SECRET2"), "CM_SECURITY_NOT_VALID")},
      {"PasswordInAnotherCaseRefused",
       pair() + attempt("c", "SRV", program_security("c", "ALICE", "secret1"), "CM_SECURITY_NOT_VALID")},
      {"UserIdInAnotherCaseRefused",
       pair() + attempt("c", "SRV", program_security("c", "alice", "SECRET1"), "CM_SECURITY_NOT_VALID")},
      {"PasswordPrefixRefused",
       pair() + attempt("c", "SRV", program_security("c", "ALICE", "SECRET"), "CM_SECURITY_NOT_VALID")},
      {"PasswordWithMoreRefused",
       pair() + attempt("c", "SRV", program_security("c", "ALICE", "SECRET12"), "CM_SECURITY_NOT_VALID")},
      {"UnknownUserRefused",
       pair() + attempt("c", "SRV", program_security("c", "MALLORY", "SECRET1"), "CM_SECURITY_NOT_VALID")},
      {"UserWithoutPasswordRefused",
       pair() + attempt("c", "SRV",
                        {"CMSCST c CM_SECURITY_PROGRAM | CMSCST CM_OK", "CMSCSU c ALICE | CMSCSU CM_OK"},
                        "CM_SECURITY_NOT_VALID")},
      {"ProgramStrongLocallyAccepted",
       pair() + Steps{"B: CMACCP b"} +
           attempt("c", "SRV",
                   {"XCSCST c CM_SECURITY_PROGRAM_STRONG | XCSCST CM_OK", "XCSCSU c ALICE | XCSCSU CM_OK",
                    "XCSCSP c SECRET1 | XCSCSP CM_OK"},
                   "") +
           b_accepted("ALICE")},
      // SECURE requires conversation security.
      {"RequiredSecurityRefusesNone",
       Steps{"+A cpic"} + attempt("c", "SECURE", {"CMSCST c CM_SECURITY_NONE | CMSCST CM_OK"},
                                  "CM_SECURITY_NOT_VALID")},
      // "same" from a program the node started nothing for: the login name
      // of the process's user, already verified.
      {"SameFromAStartedProgramIsVerified",
       Steps{"+A cpic"} + attempt("c", "SECURE", {"CMSCST c CM_SECURITY_SAME | CMSCST CM_OK"},
                                  "CM_OK text=HI st=CM_SEND_RECEIVED")},
      // "same" from a program started by an attach passes on the user ID
      // that attach carried; with none, the node sends the login name of
      // the program's own user (known from the socket's peer credentials).
      // C accepts under SRV2 and shows what arrived.
      {"SameWithoutAVerifiedPartnerSendsTheProgramsLogin",
       pair() + Steps{"+C cpic", "C: CMSLTP SRV2 | CMSLTP CM_OK", "B: CMACCP b"} +
           attempt("c", "SRV", {"CMSCST c CM_SECURITY_NONE | CMSCST CM_OK"}, "") + b_accepted("") +
           same_to_c()},
      {"SameAfterAVerifiedPartnerPassesItsUserOn",
       pair() + Steps{"+C cpic", "C: CMSLTP SRV2 | CMSLTP CM_OK", "B: CMACCP b"} +
           attempt("c", "SRV", program_security("c", "ALICE", "SECRET1"), "") + b_accepted("ALICE") +
           same_to_c("ALICE")},
  };
  return table;
}

class ConversationSecurity : public ::testing::TestWithParam<Row> {};

TEST_P(ConversationSecurity, Runs) {
  Daemon daemon(E2E_DAEMON);
  ASSERT_EQ(start_test_node(daemon), "");
  ScenarioRunner runner(daemon);
  // Steps whose expectation is empty only send (their result is read by a
  // later step): the runner reads none for them.
  Steps steps;
  for (const auto &s : GetParam().steps) {
    const std::string tail = " | CMRCV ";
    if (s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0) {
      steps.push_back(s.substr(0, s.size() - tail.size()));
    } else {
      steps.push_back(s);
    }
  }
  EXPECT_EQ(runner.run(steps), "");
}

INSTANTIATE_TEST_SUITE_P(Security, ConversationSecurity, ::testing::ValuesIn(security_rows()),
                         [](const ::testing::TestParamInfo<Row> &info) { return info.param.name; });

// ---- passwords in logs, traces, cores and memory ------------------------

// Two passwords no other test uses: the right one for the user MALLORY,
// and a wrong one tried as well. Letters of both cases and digits, so that
// a conversion of either kind shows.
constexpr const char *kRightPassword = "Qz8vK3wJ";
constexpr const char *kWrongPassword = "Wp4nR7tY";

std::string ebcdic_of(const std::string &text) {
  std::string out;
  for (char c : text) {
    uint8_t e = 0x6F;
    if (c >= 'a' && c <= 'i') e = static_cast<uint8_t>(0x81 + (c - 'a'));
    if (c >= 'j' && c <= 'r') e = static_cast<uint8_t>(0x91 + (c - 'j'));
    if (c >= 's' && c <= 'z') e = static_cast<uint8_t>(0xA2 + (c - 's'));
    if (c >= 'A' && c <= 'I') e = static_cast<uint8_t>(0xC1 + (c - 'A'));
    if (c >= 'J' && c <= 'R') e = static_cast<uint8_t>(0xD1 + (c - 'J'));
    if (c >= 'S' && c <= 'Z') e = static_cast<uint8_t>(0xE2 + (c - 'S'));
    if (c >= '0' && c <= '9') e = static_cast<uint8_t>(0xF0 + (c - '0'));
    out += static_cast<char>(e);
  }
  return out;
}

std::string lower(std::string s) {
  for (auto &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// Every form in which a password could be written down: as it is, in
// EBCDIC, and as hex of either (both cases of digits, with or without a
// blank between bytes).
std::vector<std::pair<std::string, std::string>> forms_of(const std::string &password) {
  std::vector<std::pair<std::string, std::string>> forms;
  for (const auto &[label, bytes] : {std::pair<std::string, std::string>{"ASCII", password},
                                     std::pair<std::string, std::string>{"EBCDIC", ebcdic_of(password)}}) {
    forms.push_back({label, bytes});
    const std::string h = hex_of(bytes);
    forms.push_back({label + " as hex", h});
    forms.push_back({label + " as lower-case hex", lower(h)});
    std::string spaced;
    for (size_t i = 0; i < h.size(); i += 2) spaced += (i ? " " : "") + h.substr(i, 2);
    forms.push_back({label + " as spaced hex", spaced});
    forms.push_back({label + " as spaced lower-case hex", lower(spaced)});
  }
  return forms;
}

// Files below `dir`, recursively.
void files_below(const std::string &dir, std::vector<std::string> &out) {
  DIR *d = ::opendir(dir.c_str());
  if (d == nullptr) return;
  while (struct dirent *e = ::readdir(d)) {
    const std::string name = e->d_name;
    if (name == "." || name == "..") continue;
    const std::string path = dir + "/" + name;
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) files_below(path, out);
    if (S_ISREG(st.st_mode)) out.push_back(path);
  }
  ::closedir(d);
}

// Where a password shows in the text: "" if nowhere.
std::string password_found(const std::string &text, const std::string &password) {
  for (const auto &[label, form] : forms_of(password)) {
    if (text.find(form) != std::string::npos) return label;
  }
  return "";
}

// The node configuration of these tests: the usual one and MALLORY.
std::string config_with_mallory(const Daemon &daemon) {
  const std::string hash = hash_password(E2E_DAEMON, kRightPassword);
  if (hash.empty()) return "";
  return node_config(daemon.dir()) + "\n[[security_user]]\nuser_id = \"MALLORY\"\npassword_hash = \"" + hash + "\"\n";
}

// Conversations with program security and the distinctive passwords, with
// API tracing on in both programs: A's from its environment, B's pushed by
// the operator's trace command. Afterwards no file the test run left holds
// either password in any form: not the traces, the problem and audit logs,
// the daemon's output nor the programs' stderr.
TEST(Passwords, AbsentFromLogsAndTraces) {
  Daemon daemon(E2E_DAEMON);
  const std::string config = config_with_mallory(daemon);
  ASSERT_FALSE(config.empty());
  std::string why;
  ASSERT_TRUE(daemon.start(config, &why)) << why;
  ScenarioRunner runner(daemon);
  const std::string a_trace = daemon.dir() + "/a.trace", b_trace = daemon.dir() + "/b.trace";
  runner.extra_action = [&](const std::string &text, std::string *w) {
    if (text != "trace") return false;
    auto r = operator_command(daemon.socket(), {{"command", "trace"}, {"api", true}, {"file", b_trace}});
    if (!r || r->contains("error")) {
      *w = "the operator's trace command failed";
      return false;
    }
    return true;
  };
  const std::string right = kRightPassword, wrong = kWrongPassword;
  ASSERT_EQ(runner.run(Steps{
                "+B cpic",
                "B: CMSLTP SRV | CMSLTP CM_OK",
                "!trace",
                "+A cpic SNANODE_TRACE=1 SNANODE_TRACE_FILE=" + a_trace,
                // Through side information the program defines...
                "A: XCMSSI PWDEST LOCAL SRV #INTER CM_SECURITY_PROGRAM MALLORY " + right + " | XCMSSI CM_OK",
                "A: CMINIT c PWDEST | CMINIT CM_OK",
                "A: CMALLC c | CMALLC CM_OK",
                "B: CMACCP b",
                "A: CMSST c CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
                "A: CMSEND c HELLO | CMSEND CM_OK",
                "B< CMACCP CM_OK",
                "B: CMESUI b | CMESUI CM_OK value=MALLORY",
                "B: CMRCV b 100 | CMRCV CM_OK text=HELLO st=CM_SEND_RECEIVED",
                // ... through the Set calls...
                "A: CMINIT d | CMINIT CM_OK",
                "A: CMSTPN d SRV | CMSTPN CM_OK",
                "A: CMSCST d CM_SECURITY_PROGRAM | CMSCST CM_OK",
                "A: CMSCSU d MALLORY | CMSCSU CM_OK",
                "A: CMSCSP d " + right + " | CMSCSP CM_OK",
                "A: CMALLC d | CMALLC CM_OK",
                "B: CMACCP b2",
                "A: CMFLUS d | CMFLUS CM_OK",
                "B< CMACCP CM_OK",
                // ... and a wrong one, which the node refuses and logs.
                "A: CMINIT e | CMINIT CM_OK",
                "A: CMSTPN e SRV | CMSTPN CM_OK",
                "A: XCSCST e CM_SECURITY_PROGRAM | XCSCST CM_OK",
                "A: XCSCSU e MALLORY | XCSCSU CM_OK",
                "A: XCSCSP e " + wrong + " | XCSCSP CM_OK",
                "A: CMALLC e | CMALLC CM_OK",
                "A: CMSST e CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
                "A: CMSEND e X | CMSEND CM_OK",
                "A: CMRCV e 100 | CMRCV CM_SECURITY_NOT_VALID",
            }),
            "");
  ASSERT_TRUE(daemon.terminate(&why)) << why;

  // The traces were written, and recorded the security calls.
  const std::string a_text = read_file(a_trace), b_text = read_file(b_trace);
  EXPECT_NE(a_text.find("CMSCSP"), std::string::npos) << "A's trace has no CMSCSP record:\n" << a_text.substr(0, 2000);
  EXPECT_NE(a_text.find("XCSCSP"), std::string::npos);
  EXPECT_NE(a_text.find("XCMSSI"), std::string::npos);
  EXPECT_NE(b_text.find("CMACCP"), std::string::npos) << "B's trace has no CMACCP record";
  // The records show the security fields beside the password: the user ID.
  EXPECT_NE(password_found(a_text, "MALLORY"), "") << "A's trace shows no user ID";
  std::vector<std::string> files;
  files_below(daemon.dir(), files);
  EXPECT_GE(files.size(), 5u);
  for (const auto &path : files) {
    const std::string text = read_file(path);
    for (const std::string &password : {right, wrong}) {
      const std::string where = password_found(text, password);
      EXPECT_EQ(where, "") << path << " holds the password " << password << " (" << where << ")";
    }
  }
}

constexpr unsigned long long kLargestMapping = 1ull << 30;

// Memory images of a process: every readable mapping that is not a file's
// text, as read through /proc/PID/mem.
std::string memory_of(pid_t pid) {
  std::ifstream maps("/proc/" + std::to_string(pid) + "/maps");
  const int mem = ::open(("/proc/" + std::to_string(pid) + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
  std::string image;
  if (mem < 0) return image;
  for (std::string line; std::getline(maps, line);) {
    // 64-bit addresses and offsets even in a 32-bit test: the daemon it
    // reads may be a 64-bit process.
    unsigned long long from = 0, to = 0;
    char perms[8] = {};
    if (std::sscanf(line.c_str(), "%llx-%llx %7s", &from, &to, perms) != 3) continue;
    if (perms[0] != 'r' || perms[1] != 'w') continue;  // data, heap, stacks
    if (line.find("[vvar]") != std::string::npos) continue;
    // A sanitizer's shadow spans terabytes and holds no program data.
    if (to - from > kLargestMapping) continue;
    std::string chunk(static_cast<size_t>(to - from), '\0');
    ssize_t n = ::pread64(mem, chunk.data(), chunk.size(), static_cast<off64_t>(from));
    if (n > 0) image.append(chunk.data(), static_cast<size_t>(n));
  }
  ::close(mem);
  return image;
}

// Where in the process's memory the bytes are: one line per occurrence,
// with its mapping and the bytes around it, for the failure message.
std::string occurrences_in_memory(pid_t pid, const std::string &needle) {
  std::ifstream maps("/proc/" + std::to_string(pid) + "/maps");
  const int mem = ::open(("/proc/" + std::to_string(pid) + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
  std::string out;
  if (mem < 0) return out;
  for (std::string line; std::getline(maps, line);) {
    // 64-bit addresses and offsets even in a 32-bit test: the daemon it
    // reads may be a 64-bit process.
    unsigned long long from = 0, to = 0;
    char perms[8] = {};
    if (std::sscanf(line.c_str(), "%llx-%llx %7s", &from, &to, perms) != 3) continue;
    if (perms[0] != 'r' || perms[1] != 'w' || line.find("[vvar]") != std::string::npos) continue;
    if (to - from > kLargestMapping) continue;
    std::string chunk(static_cast<size_t>(to - from), '\0');
    ssize_t n = ::pread64(mem, chunk.data(), chunk.size(), static_cast<off64_t>(from));
    if (n <= 0) continue;
    chunk.resize(static_cast<size_t>(n));
    for (size_t at = chunk.find(needle); at != std::string::npos; at = chunk.find(needle, at + 1)) {
      const size_t b = at >= 24 ? at - 24 : 0;
      out += "  at +" + std::to_string(at) + " in " + line + "\n    " + hex_of(chunk.substr(b, 64)) + "\n";
    }
  }
  ::close(mem);
  return out;
}

std::string memory_report(pid_t pid, const std::string &password) {
  return "ASCII:\n" + occurrences_in_memory(pid, password) + "EBCDIC:\n" +
         occurrences_in_memory(pid, ebcdic_of(password));
}

// Runs a conversation with program security and MALLORY's password, and
// leaves A and B holding it: A's allocation has gone out and B has
// accepted and received. Cores of A go to the test directory.
std::string secured_conversation(ScenarioRunner &runner, const Daemon &daemon) {
  const std::string filler = "ECHO " + std::string(200, 'f');
  char cwd[4096];
  if (::getcwd(cwd, sizeof cwd) == nullptr || ::chdir(daemon.dir().c_str()) != 0) return "cannot chdir";
  std::string failure = runner.run(Steps{
      "+B cpic",
      "+A cpic",
      "B: CMSLTP SRV | CMSLTP CM_OK",
      "A: CMINIT d | CMINIT CM_OK",
      "A: CMSTPN d SRV | CMSTPN CM_OK",
      "A: CMSCST d CM_SECURITY_PROGRAM | CMSCST CM_OK",
      "A: CMSCSU d MALLORY | CMSCSU CM_OK",
      "A: CMSCSP d " + std::string(kRightPassword) + " | CMSCSP CM_OK",
      "A: CMALLC d | CMALLC CM_OK",
      "B: CMACCP b",
      "A: CMSEND d ONE | CMSEND CM_OK",
      "A: CMFLUS d | CMFLUS CM_OK",
      "B< CMACCP CM_OK",
      "B: CMESUI b | CMESUI CM_OK value=MALLORY",
      "B: CMRCV b 100 | CMRCV CM_OK text=ONE",
      // The programs' input buffers, overwritten by longer lines.
      "A: " + filler + " | " + filler,
      "B: " + filler + " | " + filler,
  }, false);
  if (::chdir(cwd) != 0) return "cannot chdir back";
  return failure;
}

// Once the allocation has gone out, neither program (library and runtime)
// keeps the password in its memory.
TEST(Passwords, ProgramsKeepNoCopyAfterTheAllocation) {
  Daemon daemon(E2E_DAEMON);
  const std::string config = config_with_mallory(daemon);
  ASSERT_FALSE(config.empty());
  std::string why;
  ASSERT_TRUE(daemon.start(config, &why)) << why;
  ScenarioRunner runner(daemon);
  ASSERT_EQ(secured_conversation(runner, daemon), "");
  const std::string right = kRightPassword;
  Process *a = runner.program("A");
  Process *b = runner.program("B");
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  for (Process *p : {a, b}) {
    const std::string image = memory_of(p->pid());
    ASSERT_GT(image.size(), 4096u) << "cannot read the memory of " << p->name();
    EXPECT_EQ(password_found(image, right), "") << p->name() << "'s memory holds the password:\n"
                                                << memory_report(p->pid(), right);
  }
  EXPECT_EQ(runner.finish(), "");
}

// A core of the allocating program, made while it holds the secured
// conversation, holds no password either.
TEST(Passwords, CoreOfTheProgramHoldsNone) {
  Daemon daemon(E2E_DAEMON);
  const std::string config = config_with_mallory(daemon);
  ASSERT_FALSE(config.empty());
  std::string why;
  ASSERT_TRUE(daemon.start(config, &why)) << why;
  ScenarioRunner runner(daemon);
  struct rlimit old_limit {};
  ::getrlimit(RLIMIT_CORE, &old_limit);
  struct rlimit unlimited = {RLIM_INFINITY, RLIM_INFINITY};
  const bool cores = ::setrlimit(RLIMIT_CORE, &unlimited) == 0;
  const std::string failure = secured_conversation(runner, daemon);
  ::setrlimit(RLIMIT_CORE, &old_limit);
  ASSERT_EQ(failure, "");
  const std::string right = kRightPassword;
  Process *a = runner.program("A");
  ASSERT_NE(a, nullptr);
  a->signal(SIGABRT);
  a->mark_killed();
  auto status = a->wait();
  ASSERT_TRUE(status);
  ASSERT_TRUE(WIFSIGNALED(*status));
  const std::string core = read_file(daemon.dir() + "/core");
  if (!cores || !WCOREDUMP(*status) || core.empty()) {
    // (AddressSanitizer builds make none by default.)
    GTEST_SKIP() << "this machine made no core of the program (core_pattern "
                 << read_file("/proc/sys/kernel/core_pattern") << ")";
  }
  EXPECT_EQ(password_found(core, right), "") << "the core holds the password";
  EXPECT_EQ(runner.finish(), "");
}

// The daemon's side of the same: the allocating request as read from the
// socket, the verb made of it, the encoded attach flowing between the
// halves and the target's check all hold the password for a while; none
// of them is left in the daemon's memory once the conversation is up.
TEST(Passwords, DaemonKeepsNoCopyAfterTheCheck) {
  Daemon daemon(E2E_DAEMON);
  const std::string config = config_with_mallory(daemon);
  ASSERT_FALSE(config.empty());
  std::string why;
  ASSERT_TRUE(daemon.start(config, &why)) << why;
  ScenarioRunner runner(daemon);
  ASSERT_EQ(secured_conversation(runner, daemon), "");
  const std::string image = memory_of(daemon.pid());
  ASSERT_GT(image.size(), 4096u);
  EXPECT_EQ(password_found(image, kRightPassword), "") << "the daemon's memory holds the password:\n"
                                                       << memory_report(daemon.pid(), kRightPassword);
  EXPECT_EQ(runner.finish(), "");
}

}  // namespace
}  // namespace e2e
