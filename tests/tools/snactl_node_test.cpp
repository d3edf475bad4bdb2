// snactl against a node started for each test: every command in text and
// in JSON, with programs holding conversations and names meanwhile.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "node_config.h"
#include "tool_process.h"

namespace {

using nlohmann::json;
using tooltest::RunResult;

class SnactlNode : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string hash = tooltest::password_hash(tooltest::kPingPassword);
    ASSERT_FALSE(hash.empty());
    std::string error;
    ASSERT_TRUE(node_.start(tooltest::node_config(dir_, hash), error)) << error;
  }

  RunResult snactl(std::vector<std::string> args) {
    args.insert(args.begin(), {SNACTL_PATH, "--socket", node_.socket()});
    return tooltest::run(args, {}, "", 30000);
  }

  // snactl --json ARGS, parsed; fails the test on a bad exit or bad JSON.
  json snactl_json(std::vector<std::string> args) {
    args.insert(args.begin(), "--json");
    RunResult r = snactl(args);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    json j = json::parse(r.out, nullptr, false);
    EXPECT_FALSE(j.is_discarded()) << r.out;
    return j;
  }

  // Starts the helper that holds node state, and waits for its "ready".
  void hold(tooltest::Child& child, const char* what, const char* tp_name) {
    ASSERT_TRUE(child.start({HOLDER_PATH, what, tp_name}, node_.client_env(), dir_.file("holder.err")));
    std::string line;
    ASSERT_TRUE(child.read_line(line, 20000)) << tooltest::read_file(dir_.file("holder.err"));
    ASSERT_EQ(line, "ready");
  }

  void release(tooltest::Child& child) {
    child.close_stdin();
    int status = -1;
    EXPECT_TRUE(child.wait(20000, status));
    EXPECT_EQ(status, 0);
  }

  tooltest::TempDir dir_;
  tooltest::Node node_{dir_};
};

const json* find_by(const json& array, const char* key, const json& value) {
  if (!array.is_array()) return nullptr;
  for (const json& e : array)
    if (e.is_object() && e.contains(key) && e.at(key) == value) return &e;
  return nullptr;
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

TEST_F(SnactlNode, StatusShowsNamesConversationsAndQueuedAllocations) {
  tooltest::Child server, client;
  hold(server, "register", "HOLDTP");
  hold(client, "allocate", "HOLDTP");

  const json s = snactl_json({"status"});
  ASSERT_TRUE(s.is_object());
  const json& node = s.at("node");
  EXPECT_EQ(node.at("pid"), node_.pid());
  EXPECT_EQ(node.at("socket"), node_.socket());
  EXPECT_EQ(node.at("state_dir"), node_.state_dir());
  EXPECT_EQ(node.at("name"), "NETWORK.LOCAL");
  const json* lu = find_by(s.at("local_lus"), "alias", "LOCAL");
  ASSERT_NE(lu, nullptr) << s.dump();
  EXPECT_EQ(lu->at("name"), "NETWORK.LOCAL");
  EXPECT_EQ(lu->at("default"), true);

  const json* name = find_by(s.at("registered_names"), "name", "HOLDTP");
  ASSERT_NE(name, nullptr) << s.dump();
  EXPECT_EQ(name->at("client_pid"), server.pid());
  const json* conv = find_by(s.at("conversations"), "tp_name", "HOLDTP");
  ASSERT_NE(conv, nullptr) << s.dump();
  EXPECT_EQ(conv->at("state"), "SEND");
  EXPECT_EQ(conv->at("type"), "mapped");
  EXPECT_EQ(conv->at("sync_level"), "none");
  EXPECT_EQ(conv->at("client_pid"), client.pid());
  EXPECT_EQ(conv->at("partner_lu"), "NETWORK.LOCAL");
  const json* tp = find_by(s.at("tps"), "client_pid", client.pid());
  ASSERT_NE(tp, nullptr) << s.dump();
  EXPECT_EQ(tp->at("tp_id"), conv->at("tp_id"));
  const json* queued = find_by(s.at("queued_attaches"), "tp_name", "HOLDTP");
  ASSERT_NE(queued, nullptr) << s.dump();

  RunResult text = snactl({"status"});
  ASSERT_EQ(text.status, 0) << text.err;
  const std::vector<std::string> lines = lines_of(text.out);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0], "Node NETWORK.LOCAL (pid " + std::to_string(node_.pid()) + ")");
  EXPECT_NE(text.out.find("  socket:     " + node_.socket() + "\n"), std::string::npos) << text.out;
  auto row_after = [&](const std::string& title, const std::string& needle) {
    auto it = std::find(lines.begin(), lines.end(), title);
    if (it == lines.end() || it + 2 >= lines.end()) return std::string();
    for (auto row = it + 2; row != lines.end() && !row->empty(); ++row)
      if (row->find(needle) != std::string::npos) return *row;
    return std::string();
  };
  const std::string conv_row = row_after("Conversations", "HOLDTP");
  EXPECT_NE(conv_row.find("SEND"), std::string::npos) << text.out;
  EXPECT_NE(conv_row.find(std::to_string(client.pid())), std::string::npos) << text.out;
  EXPECT_NE(row_after("Registered TP names", "HOLDTP").find(std::to_string(server.pid())),
            std::string::npos)
      << text.out;
  EXPECT_FALSE(row_after("Queued allocations", "HOLDTP").empty()) << text.out;
  EXPECT_FALSE(row_after("Local LUs", "NETWORK.LOCAL").empty()) << text.out;

  release(client);
  release(server);
}

TEST_F(SnactlNode, SideInformationListAndShow) {
  const json list = snactl_json({"sideinfo", "list"});
  ASSERT_TRUE(list.contains("side_info")) << list.dump();
  const json& entries = list.at("side_info");
  ASSERT_EQ(entries.size(), 2u) << list.dump();
  EXPECT_EQ(entries[0].at("sym_dest_name"), "PINGSIDE");
  EXPECT_EQ(entries[1].at("sym_dest_name"), "SECSIDE");
  EXPECT_EQ(entries[1].at("security"), "program");
  EXPECT_EQ(entries[1].at("user_id"), tooltest::kPingUser);

  RunResult text = snactl({"sideinfo", "list"});
  ASSERT_EQ(text.status, 0) << text.err;
  const std::vector<std::string> lines = lines_of(text.out);
  ASSERT_EQ(lines.size(), 3u) << text.out;
  EXPECT_EQ(lines[0].rfind("  NAME ", 0), 0u) << lines[0];
  EXPECT_EQ(lines[1].rfind("  PINGSIDE  NETWORK.LOCAL  #INTER ", 0), 0u) << lines[1];
  EXPECT_EQ(lines[2].rfind("  SECSIDE   NETWORK.LOCAL  #BATCH ", 0), 0u) << lines[2];
  EXPECT_EQ(text.out.find(tooltest::kSidePassword), std::string::npos) << text.out;

  const json one = snactl_json({"sideinfo", "show", "SECSIDE"});
  EXPECT_EQ(one.at("sym_dest_name"), "SECSIDE");
  EXPECT_EQ(one.at("tp_name"), "SECPINGD");
  text = snactl({"sideinfo", "show", "PINGSIDE"});
  ASSERT_EQ(text.status, 0) << text.err;
  EXPECT_NE(text.out.find("sym_dest_name:  PINGSIDE\n"), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("tp_name:        CPICPINGD\n"), std::string::npos) << text.out;

  for (bool as_json : {false, true}) {
    std::vector<std::string> args = {"sideinfo", "show", "NOPE"};
    if (as_json) args.insert(args.begin(), "--json");
    RunResult r = snactl(args);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "snactl: no side information entry named NOPE\n");
    EXPECT_EQ(r.out, "");
  }
}

TEST_F(SnactlNode, DefineAndDeleteInTheRunningNode) {
  const std::vector<std::string> define_new = {"sideinfo", "define", "NEWDEST", "--partner-lu", "NETWORK.LOCAL",
                                               "--mode", "#BATCH", "--tp-name", "CPICPINGD"};
  struct Case {
    const char* name;
    std::vector<std::string> args;
    std::string input;  // standard input
    int status;
    std::string out;    // text output
    json answer;        // --json output (null: none)
    std::string err;
  };
  const Case cases[] = {
      {"define", define_new, "", 0, "side information NEWDEST defined\n", {{"ok", true}}, ""},
      {"define again replaces", define_new, "", 0, "side information NEWDEST defined\n", {{"ok", true}}, ""},
      {"secured, password from stdin",
       {"sideinfo", "define", "SECNEW", "--partner-lu", "LOCAL", "--tp-name", "SECPINGD", "--security",
        "program", "--user", tooltest::kPingUser, "--password", "-"},
       std::string(tooltest::kPingPassword) + "\n", 0, "side information SECNEW defined\n", {{"ok", true}}, ""},
      {"over a file entry",
       {"sideinfo", "define", "PINGSIDE", "--partner-lu", "NETWORK.LOCAL", "--tp-name", "NOSUCHTP"}, "", 0,
       "side information PINGSIDE defined\n", {{"ok", true}}, ""},
      {"unknown mode",
       {"sideinfo", "define", "BADDEST", "--partner-lu", "NETWORK.LOCAL", "--mode", "NOMODE", "--tp-name", "T"},
       "", 1, "", nullptr, "snactl: sideinfo define: side information mode \"NOMODE\" is not a defined mode\n"},
      {"unknown partner alias",
       {"sideinfo", "define", "BADDEST", "--partner-lu", "NOBODY", "--tp-name", "T"}, "", 1, "", nullptr,
       "snactl: sideinfo define: side information partner_lu \"NOBODY\" is not the alias of a defined LU\n"},
      {"service TP not hex",
       {"sideinfo", "define", "BADDEST", "--partner-lu", "LOCAL", "--tp-name", "PING", "--service-tp"}, "", 1,
       "", nullptr, "snactl: sideinfo define: side information tp_name \"PING\" is not 8 hex digits (a service TP name)\n"},
      {"password too long",
       {"sideinfo", "define", "BADDEST", "--partner-lu", "LOCAL", "--tp-name", "T", "--security", "program",
        "--user", "U", "--password", "ELEVENCHARS"},
       "", 1, "", nullptr,
       "snactl: sideinfo define: side information password is not 1-10 printable ASCII characters (no leading "
       "or trailing blank)\n"},
      {"no password on stdin",
       {"sideinfo", "define", "BADDEST", "--partner-lu", "LOCAL", "--tp-name", "T", "--password", "-"}, "", 2,
       "", nullptr, "snactl: no password on standard input\n"},
      {"delete unknown", {"sideinfo", "delete", "NOSUCH"}, "", 1, "", nullptr,
       "snactl: sideinfo delete: no side information entry named NOSUCH\n"},
  };
  for (bool as_json : {false, true}) {
    for (const Case& c : cases) {
      SCOPED_TRACE(std::string(c.name) + (as_json ? " (json)" : ""));
      std::vector<std::string> args = c.args;
      if (as_json) args.insert(args.begin(), "--json");
      args.insert(args.begin(), {SNACTL_PATH, "--socket", node_.socket()});
      RunResult r = tooltest::run(args, {}, c.input, 30000);
      EXPECT_EQ(r.status, c.status) << r.err;
      EXPECT_EQ(r.err, c.err);
      if (!as_json) {
        EXPECT_EQ(r.out, c.out);
      } else if (c.answer.is_null()) {
        EXPECT_EQ(r.out, "");
      } else {
        EXPECT_EQ(json::parse(r.out, nullptr, false), c.answer) << r.out;
      }
    }
  }

  // The list: the file's entries and the operator's, the password of
  // neither shown.
  const json list = snactl_json({"sideinfo", "list"});
  const json& entries = list.at("side_info");
  std::vector<std::string> names;
  for (const json& e : entries) names.push_back(e.at("sym_dest_name").get<std::string>());
  EXPECT_EQ(names, (std::vector<std::string>{"NEWDEST", "PINGSIDE", "SECNEW", "SECSIDE"}));
  EXPECT_EQ(find_by(entries, "sym_dest_name", "PINGSIDE")->at("origin"), "operator");
  EXPECT_EQ(find_by(entries, "sym_dest_name", "PINGSIDE")->at("tp_name"), "NOSUCHTP");
  EXPECT_EQ(find_by(entries, "sym_dest_name", "SECSIDE")->at("origin"), "file");
  const json* secured = find_by(entries, "sym_dest_name", "SECNEW");
  ASSERT_NE(secured, nullptr);
  EXPECT_EQ(secured->at("security"), "program");
  EXPECT_EQ(secured->at("user_id"), tooltest::kPingUser);
  EXPECT_EQ(secured->at("password_set"), true);
  const RunResult text = snactl({"sideinfo", "list"});
  ASSERT_EQ(text.status, 0);
  const std::vector<std::string> lines = lines_of(text.out);
  ASSERT_EQ(lines.size(), 5u) << text.out;
  EXPECT_EQ(lines[1].rfind("  NEWDEST   NETWORK.LOCAL  #BATCH ", 0), 0u) << lines[1];
  EXPECT_NE(lines[1].find(" operator"), std::string::npos) << lines[1];
  const RunResult show = snactl({"sideinfo", "show", "SECNEW"});
  EXPECT_NE(show.out.find("password_set:   yes\n"), std::string::npos) << show.out;
  EXPECT_NE(show.out.find("origin:         operator\n"), std::string::npos) << show.out;
  for (const std::string& seen : {text.out, list.dump(), show.out, snactl({"--json", "sideinfo", "show", "SECNEW"}).out,
                                  tooltest::read_file(node_.state_dir() + "/audit.log"),
                                  tooltest::read_file(node_.state_dir() + "/problems.log"), node_.daemon_log()})
    EXPECT_EQ(seen.find(tooltest::kPingPassword), std::string::npos) << seen;
  EXPECT_NE(tooltest::read_file(node_.state_dir() + "/audit.log")
                .find("side information defined by the operator: SECNEW (partner LU LOCAL, mode -, TP SECPINGD, "
                      "security program, user PINGUSER, password set)"),
            std::string::npos);

  // Programs find the entries through the node at once: the secured one
  // carries its password to the partner's security check.
  auto ping = [&](const std::string& dest) {
    return tooltest::run({CPICPING_PATH, "-i", "1", "-q", dest}, node_.client_env(), "", 60000);
  };
  for (const char* dest : {"NEWDEST", "SECNEW"}) {
    const RunResult p = ping(dest);
    EXPECT_EQ(p.status, 0) << dest << ": " << p.out << p.err;
    EXPECT_EQ(p.out.rfind("summary: 1 iterations of 1 x 100 bytes, ", 0), 0u) << dest << ": " << p.out;
  }
  RunResult p = ping("PINGSIDE");  // now names a TP that does not exist
  EXPECT_EQ(p.status, 1);
  EXPECT_NE(p.err.find("cpicping: CMRCV failed: CM_TPN_NOT_RECOGNIZED\n"), std::string::npos) << p.err;

  // Deleted: the name is no longer side information, and not an LU either.
  for (bool as_json : {false, true}) {
    const std::string name = as_json ? "SECNEW" : "NEWDEST";
    std::vector<std::string> args = {"sideinfo", "delete", name};
    if (as_json) args.insert(args.begin(), "--json");
    RunResult r = snactl(args);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    if (as_json)
      EXPECT_EQ(json::parse(r.out, nullptr, false), json({{"ok", true}})) << r.out;
    else
      EXPECT_EQ(r.out, "side information NEWDEST deleted\n");
    p = ping(name);
    EXPECT_EQ(p.status, 1);
    EXPECT_NE(p.err.find("cpicping: CMALLC failed: CM_PARAMETER_ERROR\n"), std::string::npos) << p.err;
  }
  RunResult r = snactl({"sideinfo", "show", "NEWDEST"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "snactl: no side information entry named NEWDEST\n");
}

TEST_F(SnactlNode, TraceReachesTheApplications) {
  tooltest::Child a, b;
  hold(a, "register", "TRACEA");
  hold(b, "register", "TRACEB");
  const std::string file = dir_.file("api.trace");
  RunResult r = snactl({"trace", "on", "--file", file});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "API trace on in 2 application client(s), file " + file + "\n");
  const json off = snactl_json({"trace", "off"});
  EXPECT_EQ(off.at("ok"), true);
  EXPECT_EQ(off.at("clients"), 2);
  release(a);
  release(b);
}

TEST_F(SnactlNode, LogTail) {
  ASSERT_EQ(::mkdir(node_.state_dir().c_str(), 0700) == 0 || errno == EEXIST, true);
  const std::string problems = node_.state_dir() + "/problems.log";
  const std::string audit = node_.state_dir() + "/audit.log";
  std::string lines_added;
  for (int i = 1; i <= 30; ++i) lines_added += "problem line " + std::to_string(i) + "\n";
  {
    const std::string before = tooltest::read_file(problems);
    tooltest::write_file(problems, before + lines_added);
    tooltest::write_file(audit, tooltest::read_file(audit) + "audit one\naudit two\n");
  }
  // The expected lines, taken from the files as they are now.
  auto last = [](const std::string& path, size_t n) {
    std::vector<std::string> all = lines_of(tooltest::read_file(path));
    return std::vector<std::string>(all.end() - static_cast<long>(std::min(n, all.size())), all.end());
  };
  auto joined = [](const std::vector<std::string>& lines) {
    std::string s;
    for (const std::string& l : lines) s += l + "\n";
    return s;
  };

  RunResult r = snactl({"log", "tail", "-n", "5"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, joined(last(problems, 5)));
  EXPECT_EQ(lines_of(r.out).back(), "problem line 30");
  r = snactl({"log", "tail", "problems"});
  EXPECT_EQ(r.out, joined(last(problems, 20)));
  r = snactl({"log", "tail", "audit", "--lines", "1"});
  EXPECT_EQ(r.out, "audit two\n");
  const json j = snactl_json({"log", "tail", "audit", "-n", "2"});
  EXPECT_EQ(j.at("file"), audit);
  EXPECT_EQ(j.at("lines"), json::array({"audit one", "audit two"}));

  // The same files without asking the node.
  ASSERT_EQ(node_.stop(), 0);
  r = tooltest::run({SNACTL_PATH, "--socket", node_.socket(), "log", "tail", "-n", "3", "--state-dir",
                     node_.state_dir()});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, joined(last(problems, 3)));
}

TEST_F(SnactlNode, StopEndsTheNodeAndItsConversations) {
  tooltest::Child server, client;
  hold(server, "register", "HOLDTP");
  hold(client, "allocate", "HOLDTP");
  RunResult r = snactl({"stop"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "node stopped (pid " + std::to_string(node_.pid()) + ")\n");
  int status = -1;
  ASSERT_TRUE(node_.process().wait(20000, status)) << "the node did not end";
  EXPECT_EQ(status, 0);
  struct stat st {};
  EXPECT_NE(::stat(node_.socket().c_str(), &st), 0) << "the socket was left behind";
  r = snactl({"--json", "status"});
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.err, "snactl: no node is running at " + node_.socket() + "\n");
  release(client);
  release(server);
}

TEST_F(SnactlNode, StopInJson) {
  const json j = snactl_json({"stop"});
  EXPECT_EQ(j.at("ok"), true);
  int status = -1;
  ASSERT_TRUE(node_.process().wait(20000, status));
  EXPECT_EQ(status, 0);
}

}  // namespace
