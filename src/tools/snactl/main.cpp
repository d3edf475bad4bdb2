// snactl: the operator's command line for the node daemon.
//
//   snactl [--socket PATH] [--json] [--timeout S] COMMAND ...
//     status                        node, LUs, sessions, conversations, TPs
//     sideinfo list | show NAME | define NAME ... | delete NAME
//     trace on|off [--file F]       API tracing in every application
//     log tail [problems|audit] [-n N] [--state-dir DIR]
//     stop                          end the node
//
// Exit status: 0 done; 1 the node refused or answered an error; 2 bad
// arguments; 3 no node reachable at the socket.
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "log_tail.h"
#include "operator_client.h"
#include "render.h"

namespace {

using nlohmann::json;
using sna::tools::OperatorClient;

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNoNode = 3;

struct Settings {
  std::string socket;
  bool json_output = false;
  double timeout_s = 10;
};

int fail(const std::string& message, int status = kExitFailed) {
  std::cerr << "snactl: " << message << "\n";
  return status;
}

// A connection, or the exit status that explains why there is none.
struct Session {
  OperatorClient client;
  int status = 0;
};

int timeout_ms(const Settings& s) { return static_cast<int>(s.timeout_s * 1000); }

void open_session(const Settings& s, Session& session) {
  std::string error;
  switch (session.client.connect(s.socket, timeout_ms(s), error)) {
    case OperatorClient::ConnectResult::kConnected:
      session.status = 0;
      return;
    case OperatorClient::ConnectResult::kNotRunning:
      session.status = fail("no node is running at " + s.socket, kExitNoNode);
      return;
    case OperatorClient::ConnectResult::kUnreachable:
      session.status = fail("cannot talk to the node at " + s.socket + ": " + error, kExitNoNode);
      return;
  }
}

// Sends a command; the parsed answer, or nullopt after reporting why
// (with the exit status in `status`). `raw` receives the answer's text.
std::optional<json> ask(const Settings& s, Session& session, const json& command, std::string& raw,
                        int& status) {
  std::string error;
  std::optional<std::string> reply = session.client.request(command.dump(), timeout_ms(s), error);
  if (!reply) {
    status = fail(error);
    return std::nullopt;
  }
  raw = *reply;
  json answer = json::parse(raw, nullptr, false);
  if (answer.is_discarded()) {
    status = fail("the node's answer is not JSON: " + raw);
    return std::nullopt;
  }
  if (answer.is_object() && answer.contains("error")) {
    status = fail(sna::tools::cell_text(answer.at("error")));
    return std::nullopt;
  }
  return answer;
}

bool unknown_command_error(const std::string& raw) {
  json answer = json::parse(raw, nullptr, false);
  return answer.is_object() && answer.contains("error") && answer.at("error").is_string() &&
         answer.at("error").get<std::string>().rfind("unknown command", 0) == 0;
}

void print_raw(const std::string& raw) {
  std::cout << raw;
  if (raw.empty() || raw.back() != '\n') std::cout << "\n";
}

int run_status(const Settings& s) {
  Session session;
  open_session(s, session);
  if (session.status) return session.status;
  std::string raw;
  int status = 0;
  std::optional<json> answer = ask(s, session, {{"command", "status"}}, raw, status);
  if (!answer) return status;
  if (s.json_output) {
    print_raw(raw);
  } else {
    std::cout << sna::tools::render_status(*answer);
  }
  return 0;
}

int run_sideinfo_query(const Settings& s, const std::string& name) {
  Session session;
  open_session(s, session);
  if (session.status) return session.status;
  std::string raw;
  int status = 0;
  json command = {{"command", "sideinfo"}};
  std::optional<json> answer = ask(s, session, command, raw, status);
  if (!answer) return status;
  const json* entries = sna::tools::side_info_entries(*answer);
  if (!entries) return fail("unexpected answer to sideinfo: " + raw);
  if (name.empty()) {
    if (s.json_output) {
      print_raw(raw);
    } else {
      std::cout << sna::tools::render_side_info_list(*entries);
    }
    return 0;
  }
  for (const json& entry : *entries) {
    if (entry.is_object() && entry.contains("sym_dest_name") &&
        sna::tools::cell_text(entry.at("sym_dest_name")) == name) {
      if (s.json_output) {
        std::cout << entry.dump() << "\n";
      } else {
        std::cout << sna::tools::render_side_info_entry(entry);
      }
      return 0;
    }
  }
  return fail("no side information entry named " + name);
}

// Definition and deletion in the running node. An older node whose
// operator interface does not know them says so, and nothing is pretended.
int run_sideinfo_change(const Settings& s, const std::string& verb, const std::string& name,
                        const json& command) {
  Session session;
  open_session(s, session);
  if (session.status) return session.status;
  std::string error;
  std::optional<std::string> reply = session.client.request(command.dump(), timeout_ms(s), error);
  if (!reply) return fail(error);
  if (unknown_command_error(*reply)) return fail("sideinfo " + verb + ": not supported by this node");
  json answer = json::parse(*reply, nullptr, false);
  if (answer.is_discarded()) return fail("the node's answer is not JSON: " + *reply);
  if (answer.is_object() && answer.contains("error"))
    return fail("sideinfo " + verb + ": " + sna::tools::cell_text(answer.at("error")));
  if (s.json_output) {
    print_raw(*reply);
  } else {
    std::cout << "side information " << name << (verb == "define" ? " defined" : " deleted") << "\n";
  }
  return 0;
}

// "--password -": the password is the first line of standard input, so
// that it need not stand on a command line others can read.
bool read_password(std::string& password) {
  if (password != "-") return true;
  if (!std::getline(std::cin, password)) return false;
  if (!password.empty() && password.back() == '\r') password.pop_back();
  return true;
}

int run_trace(const Settings& s, const std::string& state, const std::string& file) {
  Session session;
  open_session(s, session);
  if (session.status) return session.status;
  json command = {{"command", "trace"}, {"api", state == "on"}};
  if (!file.empty()) command["file"] = file;
  std::string raw;
  int status = 0;
  std::optional<json> answer = ask(s, session, command, raw, status);
  if (!answer) return status;
  if (s.json_output) {
    print_raw(raw);
    return 0;
  }
  std::cout << "API trace " << state;
  if (answer->is_object() && answer->contains("clients"))
    std::cout << " in " << sna::tools::cell_text(answer->at("clients")) << " application client(s)";
  if (!file.empty()) std::cout << ", file " << file;
  std::cout << "\n";
  return 0;
}

int run_stop(const Settings& s) {
  Session session;
  open_session(s, session);
  if (session.status) return session.status;
  std::string raw;
  int status = 0;
  std::optional<json> answer = ask(s, session, {{"command", "stop"}}, raw, status);
  if (!answer) return status;
  // The node closes every connection as it goes; waiting for that lets a
  // script start a new node straight afterwards.
  const bool closed = session.client.wait_closed(timeout_ms(s));
  if (s.json_output) {
    print_raw(raw);
  } else if (closed) {
    std::cout << "node stopped (pid " << session.client.daemon_pid() << ")\n";
  }
  if (!closed) return fail("the node accepted stop but had not ended after " +
                           std::to_string(static_cast<int>(s.timeout_s)) + " s");
  return 0;
}

int run_log_tail(const Settings& s, const std::string& which, size_t count,
                 std::string state_dir) {
  if (state_dir.empty()) {
    Session session;
    open_session(s, session);
    if (session.status) {
      std::cerr << "snactl: give --state-dir to read the logs of a node that is not running\n";
      return session.status;
    }
    std::string raw;
    int status = 0;
    std::optional<json> answer = ask(s, session, {{"command", "status"}}, raw, status);
    if (!answer) return status;
    const json* node = answer->contains("node") ? &answer->at("node") : nullptr;
    if (!node || !node->contains("state_dir") || !node->at("state_dir").is_string())
      return fail("the node's status names no state directory");
    state_dir = node->at("state_dir").get<std::string>();
  }
  const std::string path = state_dir + "/" + (which == "audit" ? "audit.log" : "problems.log");
  std::vector<std::string> lines;
  bool missing = false;
  std::string error;
  if (!sna::tools::tail_lines(path, count, lines, missing, error)) {
    if (!missing) return fail("cannot read " + path + ": " + error);
    // A node that has logged nothing yet has no file: an empty log.
    std::cerr << "snactl: " << path << " does not exist yet: nothing logged\n";
  }
  if (s.json_output) {
    std::cout << json{{"file", path}, {"lines", lines}}.dump() << "\n";
  } else {
    for (const std::string& line : lines) std::cout << line << "\n";
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Settings s;
  CLI::App app{"snactl: operate the SNA node daemon"};
  app.set_help_all_flag("--help-all", "help for every command");
  app.add_option("--socket", s.socket, "the node's socket (default: $SNANODE_SOCKET, then the per-user socket)");
  app.add_flag("--json", s.json_output, "print the node's JSON answers unchanged");
  app.add_option("--timeout", s.timeout_s, "seconds to wait for the node's answers")
      ->check(CLI::Range(0.1, 3600.0));
  app.require_subcommand(1);

  CLI::App* status = app.add_subcommand("status", "show the node: LUs, sessions, conversations, TPs");

  CLI::App* sideinfo = app.add_subcommand("sideinfo", "side information of the node");
  sideinfo->require_subcommand(1);
  sideinfo->add_subcommand("list", "list every entry");
  std::string show_name, delete_name;
  CLI::App* show = sideinfo->add_subcommand("show", "show one entry");
  show->add_option("NAME", show_name, "symbolic destination name")->required();
  std::string def_name, def_partner, def_mode, def_tp, def_security = "none", def_user,
                        def_password, def_local_lu;
  bool def_service = false;
  CLI::App* define = sideinfo->add_subcommand(
      "define",
      "define or replace an entry in the running node; it lasts until the node stops, outlives a "
      "reload (SIGHUP) and overrides a file entry of the same name");
  define->add_option("NAME", def_name, "symbolic destination name (1-8 characters)")
      ->required()
      ->check([](const std::string& v) {
        return v.empty() || v.size() > 8 ? std::string("must have 1 to 8 characters") : std::string();
      });
  define->add_option("--partner-lu", def_partner, "partner LU: NET.LU or an alias")->required();
  define->add_option("--mode", def_mode, "mode name");
  define->add_option("--tp-name", def_tp, "partner TP name")->required();
  define->add_flag("--service-tp", def_service, "the TP name is a service TP (8 hex digits)");
  define->add_option("--security", def_security, "none, same, program or program_strong")
      ->check(CLI::IsMember({"none", "same", "program", "program_strong"}));
  define->add_option("--user,--user-id", def_user, "security user ID");
  define->add_option("--password", def_password, "security password (\"-\": read it from standard input)");
  define->add_option("--local-lu", def_local_lu, "local LU alias");
  CLI::App* del = sideinfo->add_subcommand(
      "delete", "delete an entry in the running node (a file entry too, until the node stops)");
  del->add_option("NAME", delete_name, "symbolic destination name")->required();

  std::string trace_state, trace_file;
  CLI::App* trace = app.add_subcommand("trace", "switch API tracing in every application");
  trace->add_option("STATE", trace_state, "on or off")
      ->required()
      ->check(CLI::IsMember({"on", "off"}));
  trace->add_option("--file", trace_file, "trace file for the applications");

  std::string log_which = "problems", log_state_dir;
  size_t log_count = 20;
  CLI::App* log = app.add_subcommand("log", "the node's logs");
  log->require_subcommand(1);
  CLI::App* tail = log->add_subcommand("tail", "the last lines of the problem or audit log");
  tail->add_option("LOG", log_which, "problems (default) or audit")
      ->check(CLI::IsMember({"problems", "audit"}));
  tail->add_option("-n,--lines", log_count, "number of lines (default 20)");
  tail->add_option("--state-dir", log_state_dir, "read this directory instead of asking the node");

  CLI::App* stop = app.add_subcommand("stop", "end the node and every conversation");

  // Options of the command line as a whole may also follow the command.
  for (CLI::App* sub : {status, sideinfo, trace, log, stop}) sub->fallthrough();
  for (CLI::App* sub : sideinfo->get_subcommands({})) sub->fallthrough();
  tail->fallthrough();

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::cerr << "snactl: " << e.what() << "\n(snactl --help for usage)\n";
    return kExitUsage;
  }
  if (s.socket.empty()) s.socket = sna::tools::default_socket_path();

  if (*status) return run_status(s);
  if (*sideinfo) {
    if (sideinfo->got_subcommand("list")) return run_sideinfo_query(s, "");
    if (*show) return run_sideinfo_query(s, show_name);
    if (*define) {
      if (!read_password(def_password)) return fail("no password on standard input", kExitUsage);
      json entry = {{"sym_dest_name", def_name},
                    {"partner_lu", def_partner},
                    {"tp_name", def_tp},
                    {"tp_name_type", def_service ? "service" : "application"},
                    {"security", def_security}};
      // Keys not given are left out, as in a file.
      if (!def_mode.empty()) entry["mode"] = def_mode;
      if (!def_user.empty()) entry["user_id"] = def_user;
      if (!def_password.empty()) entry["password"] = def_password;
      if (!def_local_lu.empty()) entry["local_lu"] = def_local_lu;
      return run_sideinfo_change(s, "define", def_name, {{"command", "sideinfo_define"}, {"entry", entry}});
    }
    if (*del)
      return run_sideinfo_change(s, "delete", delete_name,
                                 {{"command", "sideinfo_delete"}, {"sym_dest_name", delete_name}});
  }
  if (*trace) return run_trace(s, trace_state, trace_file);
  if (*log) return run_log_tail(s, log_which, log_count, log_state_dir);
  if (*stop) return run_stop(s);
  return fail("no command given", kExitUsage);
}
