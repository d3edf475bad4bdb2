// The daemon with a configuration file: checking it, refusing a bad one,
// the attach manager starting programs, side information, reload, program
// security, group sockets and partners without a link.
#include <gtest/gtest.h>

#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "harness.h"
#include "nodeconfig/daemon_config.h"

#ifndef TEST_TP_PATH
#error "TEST_TP_PATH must name the test transaction program"
#endif

namespace sna::test {
namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<uint8_t>;

Bytes bytes(const std::string& s) { return Bytes(s.begin(), s.end()); }

bool file_exists(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0;
}

// The report test_tp writes: "env NAME=value", "cwd ...", "argN ...",
// "fd N", "stdin eof", "session_leader yes".
struct Report {
  std::map<std::string, std::string> env;
  std::map<std::string, std::string> facts;
  std::vector<std::string> args;
  std::set<int> fds;
};

Report parse_report(const std::string& text) {
  Report r;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    const size_t sp = line.find(' ');
    const std::string key = line.substr(0, sp), value = sp == std::string::npos ? "" : line.substr(sp + 1);
    if (key == "env") {
      const size_t eq = value.find('=');
      r.env[value.substr(0, eq)] = value.substr(eq + 1);
    } else if (key == "fd") {
      r.fds.insert(std::stoi(value));
    } else if (key.compare(0, 3, "arg") == 0) {
      r.args.push_back(value);
    } else {
      r.facts[key] = value;
    }
  }
  return r;
}

class ConfigTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.path().empty());
    socket_ = dir_.file("sock");
    state_ = dir_.file("state");
    config_ = dir_.file("node.toml");
    home_ = dir_.file("home");
    mkdir(home_.c_str(), 0700);
  }

  void start(const std::string& toml, const std::vector<std::string>& env = {}) {
    write_file(config_, toml);
    std::vector<std::string> e = {"HOME=" + home_, "LANG=C.UTF-8", "USER=tester", "LOGNAME=tester",
                                  "SNANODED_TEST_PRIVATE=must not reach programs"};
    e.insert(e.end(), env.begin(), env.end());
    ASSERT_TRUE(daemon_.start({"--config", config_, "--socket", socket_, "--state-dir", state_}, e))
        << daemon_.stderr_text();
  }

  void connect(WireClient& c, uint32_t flags = 0) {
    ASSERT_TRUE(c.connect(socket_));
    ASSERT_TRUE(c.hello(flags));
  }

  std::array<uint8_t, 8> tp(WireClient& c) {
    std::array<uint8_t, 8> id{};
    auto r = c.call(tp_started());
    EXPECT_TRUE(r && r->primary == 0);
    if (r) std::memcpy(id.data(), r->tp_id, 8);
    return id;
  }

  // ALLOCATE `name`, flush the attach, then RECEIVE_AND_WAIT: the result of
  // the receive, which reports a rejection of the attach.
  std::optional<wire::VerbReply> allocate_and_receive(WireClient& a, const std::string& name,
                                                      int timeout_ms = 5000) {
    const auto id = tp(a);
    auto alloc = a.call(allocate(id.data(), name));
    EXPECT_TRUE(alloc && alloc->primary == 0);
    if (!alloc) return std::nullopt;
    return a.call(receive_and_wait(id.data(), alloc->conv_id, 100), {}, nullptr, timeout_ms);
  }

  std::string tp_block(const std::string& name, const std::string& args, const std::string& extra = "") {
    return "[[tp]]\nname = \"" + name + "\"\nprogram = \"" + TEST_TP_PATH + "\"\narguments = [" + args +
           "]\n" + extra + "\n";
  }

  TempDir dir_;
  std::string socket_, state_, config_, home_;
  DaemonProcess daemon_;
};

TEST_F(ConfigTest, CheckConfigGoodAndBad) {
  write_file(config_, "[node]\nattach_timeout = 5\n\n[[local_lu]]\nalias = \"ONE\"\nname = \"NET.ONE\"\n");
  RunResult r = run_program({SNANODED_PATH, "--check-config", config_});
  EXPECT_EQ(r.status.code, 0) << r.err;
  EXPECT_EQ(r.out, config_ + ": OK\n");

  write_file(config_, "[node]\nattach_timeout = 5\nno_such_key = 1\n");
  r = run_program({SNANODED_PATH, "--check-config", config_});
  EXPECT_EQ(r.status.code, 2);
  EXPECT_EQ(r.err.rfind(config_ + ":3: ", 0), 0u) << r.err;
  EXPECT_EQ(r.out.find("OK"), std::string::npos);

  r = run_program({SNANODED_PATH, "--check-config", dir_.file("missing.toml")});
  EXPECT_EQ(r.status.code, 2);
  EXPECT_NE(r.err.find("missing.toml"), std::string::npos);
}

TEST_F(ConfigTest, BadFileRefusedAtStart) {
  write_file(config_, "[[local_lu]]\nalias = \"ONE\"\nname = \"not a name\"\n");
  EXPECT_FALSE(daemon_.start({"--config", config_, "--socket", socket_, "--state-dir", state_}, {}, 5000));
  auto status = daemon_.wait_exit(5000);
  ASSERT_TRUE(status);
  EXPECT_TRUE(status->exited);
  EXPECT_EQ(status->code, 2);
  EXPECT_EQ(daemon_.stderr_text().rfind(config_ + ":3: ", 0), 0u) << daemon_.stderr_text();
  EXPECT_FALSE(file_exists(socket_));
}

TEST_F(ConfigTest, SocketAndStateDirectoryFromTheFile) {
  const std::string sock = dir_.file("from-file.sock"), state = dir_.file("from-file-state");
  write_file(config_, "[node]\nsocket = \"" + sock + "\"\nstate_dir = \"" + state + "\"\n");
  ASSERT_TRUE(daemon_.start({"--config", config_}, {"SNANODE_SOCKET=" + socket_, "SNANODE_STATE_DIR=" + state_}));
  WireClient c;
  ASSERT_TRUE(c.connect(sock));
  EXPECT_TRUE(c.hello());
  EXPECT_TRUE(wait_for_text(state + "/audit.log", "config " + config_, 2000));
  EXPECT_FALSE(file_exists(socket_));
}

TEST_F(ConfigTest, AttachManagerStartsTheProgramWithItsEnvironment) {
  const std::string work = dir_.file("work"), report = dir_.file("echo.report"), log = dir_.file("echo.log");
  mkdir(work.c_str(), 0700);
  write_file(log, "earlier line\n");
  start(tp_block("ECHO", "\"echo\", \"" + report + "\"",
                 "directory = \"" + work + "\"\nlog_file = \"" + log +
                     "\"\nenvironment = { MYVAR = \"hello world\", USER = \"override\" }"));
  WireClient a;
  connect(a);
  const auto id = tp(a);
  auto alloc = a.call(allocate(id.data(), "ECHO"));
  ASSERT_TRUE(alloc && alloc->primary == 0);
  auto sent = a.call(send_data(id.data(), alloc->conv_id, 3, 1), bytes("E"));
  ASSERT_TRUE(sent && sent->primary == 0);
  Bytes got;
  auto echoed = a.call(receive_and_wait(id.data(), alloc->conv_id, 100), {}, &got, 10000);
  ASSERT_TRUE(echoed) << "the started program answers";
  EXPECT_EQ(echoed->primary, 0);
  EXPECT_EQ(echoed->what_received, 0x0201);
  EXPECT_EQ(got, bytes("E"));
  ASSERT_TRUE(a.call(deallocate(id.data(), alloc->conv_id, 1)));

  ASSERT_TRUE(wait_for_text(report, "session_leader", 5000));
  const Report r = parse_report(read_file(report));
  const std::map<std::string, std::string> want = {
      {"PATH", "/usr/local/bin:/usr/bin:/bin"},
      {"HOME", home_},
      {"USER", "override"},
      {"LOGNAME", "tester"},
      {"LANG", "C.UTF-8"},
      {"MYVAR", "hello world"},
      {"APPCTPN", "ECHO"},
      {"APPCLLU", "LOCAL"},
      {"SNANODE_SOCKET", socket_},
  };
  EXPECT_EQ(r.env, want);
  EXPECT_EQ(r.facts.at("cwd"), work);
  EXPECT_EQ(r.args, (std::vector<std::string>{TEST_TP_PATH, "echo", report}));
  EXPECT_EQ(r.fds, (std::set<int>{0, 1, 2}));
  EXPECT_EQ(r.facts.at("stdin"), "eof");
  EXPECT_EQ(r.facts.at("session_leader"), "yes");
  // Output is appended to the log file.
  EXPECT_TRUE(wait_for_text(log, "test_tp stderr line", 2000));
  const std::string text = read_file(log);
  EXPECT_EQ(text.rfind("earlier line\n", 0), 0u) << text;
  EXPECT_NE(text.find("test_tp echo started"), std::string::npos) << text;
  EXPECT_TRUE(wait_for_text(state_ + "/audit.log", "for TP ECHO on LOCAL", 2000));
}

TEST_F(ConfigTest, WorkingDirectoryDefaultsToHome) {
  const std::string report = dir_.file("echo.report");
  start(tp_block("ECHO", "\"echo\", \"" + report + "\""));
  WireClient a;
  connect(a);
  const auto id = tp(a);
  auto alloc = a.call(allocate(id.data(), "ECHO"));
  ASSERT_TRUE(alloc && alloc->primary == 0);
  ASSERT_TRUE(a.call(send_data(id.data(), alloc->conv_id, 3, 1), bytes("X")));
  ASSERT_TRUE(a.call(receive_and_wait(id.data(), alloc->conv_id, 100), {}, nullptr, 10000));
  ASSERT_TRUE(wait_for_text(report, "session_leader", 5000));
  EXPECT_EQ(parse_report(read_file(report)).facts.at("cwd"), home_);
}

struct RejectCase {
  const char* name;
  std::string definition;
  uint32_t secondary;
  const char* problem;  // expected in the problem log, or ""
};

TEST_F(ConfigTest, ProgramsThatCannotServeTheAttach) {
  const RejectCase cases[] = {
      {"missing program", "[[tp]]\nname = \"BAD\"\nprogram = \"/nonexistent/program\"\n", 0x084C0000,
       "cannot start program: /nonexistent/program: execute: No such file or directory"},
      {"not executable", "[[tp]]\nname = \"BAD\"\nprogram = \"" + config_ + "\"\n", 0x084C0000,
       "execute: Permission denied"},
      {"missing directory",
       "[[tp]]\nname = \"BAD\"\nprogram = \"" + std::string(TEST_TP_PATH) + "\"\ndirectory = \"/nonexistent/dir\"\n",
       0x084C0000, "change directory"},
      {"exits without accepting", tp_block("BAD", "\"exit\""), 0x084C0000, ""},
  };
  for (const RejectCase& c : cases) {
    SCOPED_TRACE(c.name);
    DaemonProcess d;
    TempDir state;
    write_file(config_, c.definition);
    ASSERT_TRUE(d.start({"--config", config_, "--socket", socket_, "--state-dir", state.path()}));
    WireClient a;
    ASSERT_TRUE(a.connect(socket_) && a.hello());
    auto r = allocate_and_receive(a, "BAD");
    ASSERT_TRUE(r);
    EXPECT_EQ(r->primary, 0x0003);
    EXPECT_EQ(r->secondary, c.secondary);
    if (*c.problem) {
      EXPECT_TRUE(wait_for_text(state.path() + "/problems.log", c.problem, 2000))
          << read_file(state.path() + "/problems.log");
    }
    d.signal(SIGTERM);
    ASSERT_TRUE(d.wait_exit(5000));
  }
}

TEST_F(ConfigTest, AttachTimesOut) {
  start(tp_block("SLOW", "\"linger\"", "attach_timeout = 1"));
  WireClient a;
  connect(a);
  const auto begun = Clock::now();
  auto r = allocate_and_receive(a, "SLOW", 5000);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->primary, 0x0003);
  EXPECT_EQ(r->secondary, 0x084B6031u);
  EXPECT_GE(Clock::now() - begun, std::chrono::milliseconds(900));
}

void expect_field(const uint8_t* entry, size_t offset, size_t width, const std::string& text) {
  std::string want = text;
  want.resize(width, ' ');
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(entry + offset), width), want) << "offset " << offset;
}

TEST_F(ConfigTest, SideInformationOverTheSocket) {
  start(
      "[[side_info]]\nsym_dest_name = \"PAYDEST\"\npartner_lu = \"NETWORK.LOCAL\"\nmode = \"#INTER\"\n"
      "tp_name = \"PAYROLL\"\nsecurity = \"program\"\nuser_id = \"ALICE\"\npassword = \"SECRET\"\n"
      "local_lu = \"LOCAL\"\n\n"
      "[[side_info]]\nsym_dest_name = \"ADEST\"\npartner_lu = \"NETWORK.LOCAL\"\ntp_name = \"06F1ABCD\"\n"
      "tp_name_type = \"service\"\n");
  WireClient c;
  connect(c);
  wire::Nof open;
  open.opcode = 0xF004;
  open.access = 2;
  auto r = c.nof(open);
  ASSERT_TRUE(r);
  const uint32_t handle = wire::decode_nof_reply(r->data()).target_handle;
  wire::Nof q;
  q.opcode = 0x2121;
  q.format = 1;
  q.target_handle = handle;
  q.buffer_size = 212;
  q.entries_wanted = 1;
  q.list_option = 4;
  std::memcpy(q.sym_dest_name, "PAYDEST ", 8);
  r = c.nof(q);
  ASSERT_TRUE(r);
  wire::NofReply h = wire::decode_nof_reply(r->data());
  EXPECT_EQ(h.primary, 0);
  ASSERT_EQ(h.entries, 1);
  ASSERT_EQ(r->size(), wire::kNofReplyFixedSize + 212);
  const uint8_t* e = r->data() + wire::kNofReplyFixedSize;
  EXPECT_EQ(wire::get16(e, 0), 212);
  expect_field(e, 2, 8, "PAYDEST");
  expect_field(e, 60, 17, "NETWORK.LOCAL");
  EXPECT_EQ(wire::get32(e, 80), 0u);
  expect_field(e, 84, 64, "PAYROLL");
  expect_field(e, 148, 8, "#INTER");
  EXPECT_EQ(wire::get32(e, 156), 2u);
  expect_field(e, 160, 10, "ALICE");
  expect_field(e, 170, 10, "SECRET");
  expect_field(e, 180, 8, "LOCAL");
  // Every entry, in byte order of the names, as far as the buffer allows.
  q.list_option = 1;
  q.entries_wanted = 10;
  q.buffer_size = 2 * 212;
  r = c.nof(q);
  ASSERT_TRUE(r);
  h = wire::decode_nof_reply(r->data());
  ASSERT_EQ(h.entries, 2);
  e = r->data() + wire::kNofReplyFixedSize;
  expect_field(e, 2, 8, "ADEST");
  EXPECT_EQ(wire::get32(e, 80), 1u);
  expect_field(e, 84, 64, "06F1ABCD");
  for (int i = 180; i < 188; ++i) EXPECT_EQ(e[i], 0);
  expect_field(e + 212, 2, 8, "PAYDEST");
}

TEST_F(ConfigTest, OperatorListsSideInformationWithoutPasswords) {
  start("[[side_info]]\nsym_dest_name = \"PAYDEST\"\npartner_lu = \"NETWORK.LOCAL\"\ntp_name = \"PAYROLL\"\n"
        "security = \"program\"\nuser_id = \"ALICE\"\npassword = \"SECRET\"\n");
  WireClient op;
  connect(op, wire::kHelloOperator);
  auto text = op.operator_command(R"({"command":"sideinfo"})");
  ASSERT_TRUE(text);
  EXPECT_EQ(text->find("SECRET"), std::string::npos) << *text;
  const nlohmann::json j = nlohmann::json::parse(*text);
  ASSERT_EQ(j["side_info"].size(), 1u);
  const auto& e = j["side_info"][0];
  EXPECT_EQ(e["sym_dest_name"], "PAYDEST");
  EXPECT_EQ(e["partner_lu"], "NETWORK.LOCAL");
  EXPECT_EQ(e["tp_name"], "PAYROLL");
  EXPECT_EQ(e["tp_name_type"], "application");
  EXPECT_EQ(e["security"], "program");
  EXPECT_EQ(e["user_id"], "ALICE");
  EXPECT_EQ(e["password_set"], true);
}

TEST_F(ConfigTest, IdleExitFromTheFileOverridesTheAutostartDefault) {
  write_file(config_, "[node]\nidle_exit = 1\n");
  ASSERT_TRUE(daemon_.start({"--config", config_, "--socket", socket_, "--state-dir", state_, "--autostarted"}));
  auto status = daemon_.wait_exit(5000);
  ASSERT_TRUE(status);
  EXPECT_EQ(status->code, 0);
  EXPECT_TRUE(wait_for_text(state_ + "/audit.log", "stopped: idle for 1 s", 1000));
}

std::optional<uint16_t> query_primary(WireClient& c, const std::string& name) {
  wire::Nof open;
  open.opcode = 0xF004;
  open.access = 1;
  auto r = c.nof(open);
  if (!r) return std::nullopt;
  wire::Nof q;
  q.opcode = 0x2121;
  q.format = 1;
  q.target_handle = wire::decode_nof_reply(r->data()).target_handle;
  q.buffer_size = 212;
  q.entries_wanted = 1;
  q.list_option = 4;
  std::memset(q.sym_dest_name, ' ', 8);
  std::memcpy(q.sym_dest_name, name.data(), name.size());
  r = c.nof(q);
  if (!r) return std::nullopt;
  return wire::decode_nof_reply(r->data()).primary;
}

TEST_F(ConfigTest, SighupReloadsAndABadFileKeepsTheOld) {
  start("[[side_info]]\nsym_dest_name = \"OLD\"\npartner_lu = \"NETWORK.LOCAL\"\ntp_name = \"T\"\n");
  WireClient c;
  connect(c);
  EXPECT_EQ(query_primary(c, "OLD"), 0);
  EXPECT_EQ(query_primary(c, "NEW"), 2);

  const std::string report = dir_.file("echo.report");
  write_file(config_, "[[side_info]]\nsym_dest_name = \"NEW\"\npartner_lu = \"NETWORK.LOCAL\"\ntp_name = \"T\"\n\n" +
                          tp_block("ECHO", "\"echo\", \"" + report + "\""));
  daemon_.signal(SIGHUP);
  ASSERT_TRUE(wait_for_text(state_ + "/audit.log", "reloaded " + config_, 3000));
  EXPECT_EQ(query_primary(c, "OLD"), 2);
  EXPECT_EQ(query_primary(c, "NEW"), 0);
  // The new TP definition serves later attaches.
  WireClient a;
  connect(a);
  const auto id = tp(a);
  auto alloc = a.call(allocate(id.data(), "ECHO"));
  ASSERT_TRUE(alloc && alloc->primary == 0);
  ASSERT_TRUE(a.call(send_data(id.data(), alloc->conv_id, 3, 2), bytes("HI")));
  Bytes got;
  auto echoed = a.call(receive_and_wait(id.data(), alloc->conv_id, 100), {}, &got, 10000);
  ASSERT_TRUE(echoed);
  EXPECT_EQ(got, bytes("HI"));

  write_file(config_, "[[side_info]]\nsym_dest_name = \"BROKEN\"\nbogus = 1\n");
  daemon_.signal(SIGHUP);
  ASSERT_TRUE(wait_for_text(state_ + "/problems.log", "reload refused, old configuration kept: " + config_ + ":3:", 3000))
      << read_file(state_ + "/problems.log");
  EXPECT_EQ(query_primary(c, "NEW"), 0);
  EXPECT_EQ(query_primary(c, "BROKEN"), 2);
}

TEST_F(ConfigTest, OperatorSideInformationOutlivesAReload) {
  const std::string file_entry =
      "[[side_info]]\nsym_dest_name = \"FILEDEST\"\npartner_lu = \"NETWORK.LOCAL\"\ntp_name = \"T\"\n";
  start(file_entry);
  WireClient c, op;
  connect(c);
  connect(op, wire::kHelloOperator);
  auto ask = [&](const std::string& request) {
    auto text = op.operator_command(request);
    EXPECT_TRUE(text);
    return text ? nlohmann::json::parse(*text, nullptr, false) : nlohmann::json();
  };
  const nlohmann::json ok = {{"ok", true}};
  EXPECT_EQ(ask(R"({"command":"sideinfo_define","entry":{"sym_dest_name":"OPDEST","partner_lu":"LOCAL",)"
                R"("tp_name":"OPTP","security":"program","user_id":"ALICE","password":"PSSST"}})"),
            ok);
  EXPECT_EQ(ask(R"({"command":"sideinfo_define","entry":{"sym_dest_name":"FILEDEST","partner_lu":"LOCAL",)"
                R"("tp_name":"OVER"}})"),
            ok);
  EXPECT_EQ(ask(R"({"command":"sideinfo_define","entry":{"sym_dest_name":"BAD","mode":"NOMODE"}})"),
            nlohmann::json({{"error", "side information mode \"NOMODE\" is not a defined mode"}}));
  EXPECT_EQ(query_primary(c, "OPDEST"), 0);
  EXPECT_EQ(query_primary(c, "BAD"), 2);

  // The file changes: a new entry, and FILEDEST still there under the
  // operator's definition.
  write_file(config_, file_entry + "\n[[side_info]]\nsym_dest_name = \"NEWFILE\"\npartner_lu = \"LOCAL\"\n"
                                   "tp_name = \"T\"\n");
  daemon_.signal(SIGHUP);
  ASSERT_TRUE(wait_for_text(state_ + "/audit.log", "reloaded " + config_, 3000));
  EXPECT_EQ(query_primary(c, "OPDEST"), 0);
  EXPECT_EQ(query_primary(c, "NEWFILE"), 0);
  nlohmann::json list = ask(R"({"command":"sideinfo"})");
  std::vector<std::string> seen;
  for (const auto& e : list["side_info"]) seen.push_back(e["sym_dest_name"].get<std::string>() + "/" +
                                                         e["tp_name"].get<std::string>() + "/" +
                                                         e["origin"].get<std::string>());
  EXPECT_EQ(seen, (std::vector<std::string>{"FILEDEST/OVER/operator", "NEWFILE/T/file", "OPDEST/OPTP/operator"}));

  EXPECT_EQ(ask(R"({"command":"sideinfo_delete","sym_dest_name":"OPDEST"})"), ok);
  EXPECT_EQ(query_primary(c, "OPDEST"), 2);
  EXPECT_EQ(ask(R"({"command":"sideinfo_delete","sym_dest_name":"OPDEST"})"),
            nlohmann::json({{"error", "no side information entry named OPDEST"}}));
  ASSERT_TRUE(wait_for_text(state_ + "/audit.log", "side information deleted by the operator: OPDEST", 3000));
  const std::string audit = read_file(state_ + "/audit.log");
  EXPECT_NE(audit.find("side information defined by the operator: OPDEST (partner LU LOCAL, mode -, TP OPTP, "
                       "security program, user ALICE, password set)"),
            std::string::npos)
      << audit;
  for (const std::string& log : {audit, read_file(state_ + "/problems.log"), daemon_.stderr_text()})
    EXPECT_EQ(log.find("PSSST"), std::string::npos) << log;
}

TEST_F(ConfigTest, ProgramSecurityChecksTheUserTable) {
  start("[[security_user]]\nuser_id = \"ALICE\"\npassword_hash = \"" + config::hash_password("WONDER") + "\"\n");
  WireClient a, b;
  connect(a);
  connect(b);
  ASSERT_TRUE(b.call(register_name("SRV")));
  const uint64_t accept = b.issue(receive_allocate());
  const auto id = tp(a);
  auto attach = [&](const char* user, const char* password) {
    wire::Verb v = allocate(id.data(), "SRV");
    v.security = 2;
    set_ebcdic(v.user_id, 10, user);
    set_ebcdic(v.password, 10, password);
    auto alloc = a.call(v);
    EXPECT_TRUE(alloc && alloc->primary == 0);
    return alloc ? alloc->conv_id : 0;
  };
  // Refused pairs never reach the accepting program.
  for (auto [user, password] : {std::pair{"ALICE", "WRONG"}, std::pair{"BOB", "WONDER"}}) {
    SCOPED_TRACE(std::string(user) + "/" + password);
    const uint32_t conv = attach(user, password);
    auto r = a.call(receive_and_wait(id.data(), conv, 100));
    ASSERT_TRUE(r);
    EXPECT_EQ(r->primary, 0x0003);
    EXPECT_EQ(r->secondary, 0x080F6051u);
  }
  EXPECT_FALSE(b.reply_for(accept, nullptr, 200));
  // A valid pair: the accept reports the verified user.
  const uint32_t conv = attach("ALICE", "WONDER");
  ASSERT_TRUE(a.call(send_data(id.data(), conv, 1, 0)));
  auto accepted = b.reply_for(accept);
  ASSERT_TRUE(accepted);
  EXPECT_EQ(accepted->primary, 0);
  EXPECT_EQ(ebcdic_string(accepted->user_id, 10), "ALICE");
}

TEST_F(ConfigTest, GroupSocketIsSharedWithTheGroup) {
  group* g = getgrgid(getgid());
  ASSERT_NE(g, nullptr);
  start("[node]\ngroup = \"" + std::string(g->gr_name) + "\"\n");
  struct stat st {};
  ASSERT_EQ(lstat(socket_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0660u);
  EXPECT_EQ(st.st_gid, getgid());
  WireClient c;
  connect(c);
}

TEST_F(ConfigTest, PartnerWithoutALinkFailsTheAllocation) {
  start("[[partner_lu]]\nalias = \"REMOTE\"\nname = \"OTHER.LU\"\n");
  WireClient a;
  connect(a);
  const auto id = tp(a);
  wire::Verb v = allocate(id.data(), "ANY");
  std::memcpy(v.partner_lu_alias, "REMOTE  ", 8);
  auto r = a.call(v);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->primary, 0x0003);
  EXPECT_EQ(r->secondary, 0x00000005u);
  EXPECT_TRUE(wait_for_text(state_ + "/problems.log", "no link to the partner", 2000));
  // The node goes on.
  EXPECT_TRUE(a.call(tp_started()));
}

}  // namespace
}  // namespace sna::test
