// The operator's side-information commands: definitions checked as the
// configuration file's entries are, deletions, the file's entries under the
// operator's changes across a reload, and passwords kept out of answers and
// audit records.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "nodeconfig/daemon_config.h"
#include "snanoded/operator_commands.h"
#include "snanoded/side_info_service.h"
#include "wire/wire_protocol.h"

namespace sna::daemon {
namespace {

using nlohmann::json;

class FakeNode : public OperatorTarget {
 public:
  explicit FakeNode(config::DaemonConfig c) : config_(std::move(c)), table_(config_.side_info) {}
  StatusInput status_input() override { return {}; }
  size_t push_trace(bool, const std::string&) override { return 0; }
  void request_stop() override {}
  const config::DaemonConfig& configuration() const override { return config_; }
  SideInfoTable& side_info() override { return table_; }
  void side_info_changed(const std::string& what) override { audit.push_back(what); }

  json ask(const json& request) {
    const std::string text = operator_reply(request.dump(), *this);
    json answer = json::parse(text, nullptr, false);
    EXPECT_FALSE(answer.is_discarded()) << text;
    last_text = text;
    return answer;
  }

  config::DaemonConfig config_;
  SideInfoTable table_;
  std::vector<std::string> audit;
  std::string last_text;
};

// A configuration file read by the real loader, in a scratch directory.
std::optional<config::DaemonConfig> load(const std::string& text, config::ConfigError& error) {
  char dir[] = "/tmp/opsideinfo-XXXXXX";
  if (!mkdtemp(dir)) return std::nullopt;
  const std::string path = std::string(dir) + "/node.toml";
  std::ofstream(path) << text;
  std::optional<config::DaemonConfig> c = config::load_config(path, error);
  unlink(path.c_str());
  rmdir(dir);
  return c;
}

// The node every case runs against: a second local LU, a partner and an
// own mode, so that aliases and modes can be named or misnamed.
const char* const kBase =
    "[[local_lu]]\nalias = 'LOCAL'\nname = 'NETWORK.LOCAL'\n\n"
    "[[local_lu]]\nalias = 'OTHER'\nname = 'NETWORK.OTHER'\n\n"
    "[[partner_lu]]\nalias = 'HOST'\nname = 'NETWORK.HOST'\n\n"
    "[[mode]]\nname = 'OWNMODE'\n\n"
    "[[side_info]]\nsym_dest_name = 'FILEDEST'\npartner_lu = 'NETWORK.HOST'\ntp_name = 'FROMFILE'\n";

config::DaemonConfig base_config() {
  config::ConfigError error;
  std::optional<config::DaemonConfig> c = load(kBase, error);
  EXPECT_TRUE(c) << error.text();
  return c ? *c : config::builtin_defaults();
}

// The same entry as TOML, for the file's loader.
std::string as_toml(const json& entry) {
  std::string out = "[[side_info]]\n";
  for (const auto& [key, value] : entry.items()) out += key + " = " + value.dump() + "\n";
  return out;
}

struct DefineCase {
  const char* name;
  json entry;
  const char* error;  // nullptr: accepted
};

const DefineCase kDefineCases[] = {
    {"minimal", {{"sym_dest_name", "NEWDEST"}, {"partner_lu", "NETWORK.LOCAL"}, {"tp_name", "TPA"}}, nullptr},
    {"every key",
     {{"sym_dest_name", "FULL"},
      {"partner_lu", "HOST"},
      {"mode", "OWNMODE"},
      {"tp_name", "PAYROLL"},
      {"tp_name_type", "application"},
      {"security", "program_strong"},
      {"user_id", "ALICE"},
      {"password", "SECRET1"},
      {"local_lu", "OTHER"}},
     nullptr},
    {"service TP",
     {{"sym_dest_name", "SVC"}, {"partner_lu", "NETWORK.LOCAL"}, {"tp_name", "06f1abcd"},
      {"tp_name_type", "service"}},
     nullptr},
    {"missing name", {{"partner_lu", "NETWORK.LOCAL"}, {"tp_name", "TPA"}}, "sym_dest_name is required"},
    {"name too long", {{"sym_dest_name", "NINECHARS"}, {"tp_name", "TPA"}}, "\"NINECHARS\" is not 1-8"},
    {"unknown key", {{"sym_dest_name", "X"}, {"colour", "red"}}, "unknown key \"colour\""},
    {"not a string", {{"sym_dest_name", "X"}, {"tp_name", 5}}, "tp_name must be a string"},
    {"bad qualified name", {{"sym_dest_name", "X"}, {"partner_lu", "NET.1LU"}}, "is not a qualified LU name"},
    {"unknown alias", {{"sym_dest_name", "X"}, {"partner_lu", "NOBODY"}}, "is not the alias of a defined LU"},
    {"unknown mode", {{"sym_dest_name", "X"}, {"mode", "NOMODE"}}, "\"NOMODE\" is not a defined mode"},
    {"bad mode name", {{"sym_dest_name", "X"}, {"mode", "bad mode"}}, "is not a mode name"},
    {"bad TP type", {{"sym_dest_name", "X"}, {"tp_name_type", "odd"}}, "must be \"application\" or \"service\""},
    {"service TP not hex", {{"sym_dest_name", "X"}, {"tp_name", "ZZZZ"}, {"tp_name_type", "service"}},
     "is not 8 hex digits"},
    {"TP name blank", {{"sym_dest_name", "X"}, {"tp_name", " LEAD"}}, "is not 1-64 printable"},
    {"bad security", {{"sym_dest_name", "X"}, {"security", "strong"}}, "must be \"none\", \"same\""},
    {"bad user", {{"sym_dest_name", "X"}, {"user_id", "TOO LONG USER"}}, "is not 1-10 printable"},
    {"password too long", {{"sym_dest_name", "X"}, {"password", "ELEVENCHARS"}},
     "password is not 1-10 printable"},
    {"remote LU as local", {{"sym_dest_name", "X"}, {"local_lu", "HOST"}}, "is not the alias of a local LU"},
};

TEST(OperatorSideInfo, DefinitionsAreCheckedAsTheFilesEntries) {
  for (const DefineCase& c : kDefineCases) {
    SCOPED_TRACE(c.name);
    FakeNode node(base_config());
    const json answer = node.ask({{"command", "sideinfo_define"}, {"entry", c.entry}});
    // The file's loader, given the same entry, agrees word for word.
    config::ConfigError file_error;
    const bool file_ok = load(std::string(kBase) + "\n" + as_toml(c.entry), file_error).has_value();
    if (!c.error) {
      EXPECT_EQ(answer, json({{"ok", true}}));
      EXPECT_TRUE(file_ok) << file_error.text();
      EXPECT_TRUE(node.side_info().operator_defined(c.entry.at("sym_dest_name").get<std::string>()));
      ASSERT_EQ(node.audit.size(), 1u);
      continue;
    }
    ASSERT_TRUE(answer.contains("error")) << answer.dump();
    const std::string error = answer.at("error").get<std::string>();
    EXPECT_NE(error.find(c.error), std::string::npos) << error;
    EXPECT_EQ(error.rfind("side information ", 0) == 0 || error.rfind("unknown key ", 0) == 0, true) << error;
    ASSERT_FALSE(file_ok);
    std::string expected = file_error.reason;
    const std::string label = "[[side_info]]";
    expected.replace(expected.find(label), label.size(), "side information");
    EXPECT_EQ(error, expected);
    EXPECT_TRUE(node.audit.empty());
    EXPECT_EQ(node.side_info().entries().size(), 1u);  // the file's only
  }
}

TEST(OperatorSideInfo, MalformedRequests) {
  struct Case {
    json request;
    const char* error;
  };
  const Case cases[] = {
      {{{"command", "sideinfo_define"}}, "sideinfo_define needs \"entry\": an object of side-information keys"},
      {{{"command", "sideinfo_define"}, {"entry", "NEWDEST"}},
       "sideinfo_define needs \"entry\": an object of side-information keys"},
      {{{"command", "sideinfo_delete"}}, "sideinfo_delete needs \"sym_dest_name\": a string"},
      {{{"command", "sideinfo_delete"}, {"sym_dest_name", 7}}, "sideinfo_delete needs \"sym_dest_name\": a string"},
      {{{"command", "sideinfo_delete"}, {"sym_dest_name", "NOSUCH"}}, "no side information entry named NOSUCH"},
  };
  FakeNode node(base_config());
  for (const Case& c : cases) {
    SCOPED_TRACE(c.request.dump());
    EXPECT_EQ(node.ask(c.request), json({{"error", c.error}}));
  }
  EXPECT_TRUE(node.audit.empty());
  EXPECT_EQ(node.side_info().entries().size(), 1u);
}

std::vector<std::string> names(const json& list) {
  std::vector<std::string> out;
  for (const json& e : list.at("side_info")) out.push_back(e.at("sym_dest_name").get<std::string>());
  return out;
}

TEST(OperatorSideInfo, PasswordStaysOutOfAnswersAndAudit) {
  FakeNode node(base_config());
  const json entry = {{"sym_dest_name", "SECDEST"}, {"partner_lu", "NETWORK.HOST"}, {"tp_name", "PAY"},
                      {"security", "program"},      {"user_id", "ALICE"},             {"password", "HUSH42"}};
  ASSERT_EQ(node.ask({{"command", "sideinfo_define"}, {"entry", entry}}), json({{"ok", true}}));
  ASSERT_EQ(node.audit.size(), 1u);
  EXPECT_EQ(node.audit[0],
            "side information defined by the operator: SECDEST (partner LU NETWORK.HOST, mode -, TP PAY, "
            "security program, user ALICE, password set)");
  const json list = node.ask({{"command", "sideinfo"}});
  EXPECT_EQ(node.last_text.find("HUSH42"), std::string::npos) << node.last_text;
  EXPECT_EQ(names(list), (std::vector<std::string>{"FILEDEST", "SECDEST"}));
  const json& e = list.at("side_info")[1];
  EXPECT_EQ(e.at("password_set"), true);
  EXPECT_EQ(e.at("origin"), "operator");
  EXPECT_EQ(list.at("side_info")[0].at("origin"), "file");
  // The library's query still gets the password: it needs it to allocate.
  EXPECT_EQ(node.side_info().entries()[1].password, "HUSH42");
  // A bad password's message does not repeat it either.
  json bad = entry;
  bad["password"] = "HUSH42 TOO LONG";
  const json refused = node.ask({{"command", "sideinfo_define"}, {"entry", bad}});
  ASSERT_TRUE(refused.contains("error"));
  EXPECT_EQ(node.last_text.find("HUSH42"), std::string::npos) << node.last_text;
}

TEST(OperatorSideInfo, ChangesOverrideTheFileAndOutliveAReload) {
  FakeNode node(base_config());
  // Over the file's entry of the same name.
  ASSERT_EQ(node.ask({{"command", "sideinfo_define"},
                      {"entry", {{"sym_dest_name", "FILEDEST"}, {"partner_lu", "HOST"}, {"tp_name", "OPERTP"}}}}),
            json({{"ok", true}}));
  ASSERT_EQ(node.ask({{"command", "sideinfo_define"},
                      {"entry", {{"sym_dest_name", "ADDED"}, {"partner_lu", "HOST"}, {"tp_name", "T1"}}}}),
            json({{"ok", true}}));
  // Replaced by a second definition.
  ASSERT_EQ(node.ask({{"command", "sideinfo_define"},
                      {"entry", {{"sym_dest_name", "ADDED"}, {"partner_lu", "HOST"}, {"tp_name", "T2"}}}}),
            json({{"ok", true}}));
  json list = node.ask({{"command", "sideinfo"}});
  EXPECT_EQ(names(list), (std::vector<std::string>{"ADDED", "FILEDEST"}));
  EXPECT_EQ(list.at("side_info")[0].at("tp_name"), "T2");
  EXPECT_EQ(list.at("side_info")[1].at("tp_name"), "OPERTP");

  // A reload brings a new file: its new entry appears, the operator's stay.
  config::ConfigError error;
  std::optional<config::DaemonConfig> fresh = load(
      std::string(kBase) + "\n[[side_info]]\nsym_dest_name = 'LATER'\npartner_lu = 'HOST'\ntp_name = 'L'\n",
      error);
  ASSERT_TRUE(fresh) << error.text();
  node.side_info().set_file_entries(fresh->side_info);
  list = node.ask({{"command", "sideinfo"}});
  EXPECT_EQ(names(list), (std::vector<std::string>{"ADDED", "FILEDEST", "LATER"}));
  EXPECT_EQ(list.at("side_info")[1].at("tp_name"), "OPERTP");
  EXPECT_EQ(list.at("side_info")[2].at("origin"), "file");

  // Deleting the operator's entry over a file entry leaves neither; a
  // deleted file entry stays deleted across a reload.
  EXPECT_EQ(node.ask({{"command", "sideinfo_delete"}, {"sym_dest_name", "FILEDEST"}}), json({{"ok", true}}));
  EXPECT_EQ(node.ask({{"command", "sideinfo_delete"}, {"sym_dest_name", "LATER"}}), json({{"ok", true}}));
  node.side_info().set_file_entries(fresh->side_info);
  EXPECT_EQ(names(node.ask({{"command", "sideinfo"}})), (std::vector<std::string>{"ADDED"}));
  EXPECT_EQ(node.ask({{"command", "sideinfo_delete"}, {"sym_dest_name", "LATER"}}),
            json({{"error", "no side information entry named LATER"}}));
  EXPECT_EQ(node.audit.back(), "side information deleted by the operator: LATER");
  // Defined again after a deletion.
  ASSERT_EQ(node.ask({{"command", "sideinfo_define"},
                      {"entry", {{"sym_dest_name", "LATER"}, {"partner_lu", "HOST"}, {"tp_name", "BACK"}}}}),
            json({{"ok", true}}));
  EXPECT_EQ(names(node.ask({{"command", "sideinfo"}})), (std::vector<std::string>{"ADDED", "LATER"}));
}

TEST(OperatorSideInfo, TheLibrarysQuerySeesDefinitionsAndDeletions) {
  FakeNode node(base_config());
  SideInfoService service;
  auto exact = [&](const char* name) {
    uint8_t body[wire::kNofFixedSize];
    wire::Nof open;
    open.opcode = nof::kOpen;
    open.access = 1;
    wire::encode_nof(body, open);
    const uint32_t handle = wire::decode_nof_reply(service.handle(1, body, node.side_info().entries()).data())
                                .target_handle;
    wire::Nof q;
    q.opcode = nof::kQuerySideInfo;
    q.format = 1;
    q.target_handle = handle;
    q.buffer_size = wire::kSideInfoEntrySize;
    q.entries_wanted = 1;
    q.list_option = nof::kListExact;
    std::memset(q.sym_dest_name, ' ', 8);
    std::memcpy(q.sym_dest_name, name, std::strlen(name));
    wire::encode_nof(body, q);
    const std::vector<uint8_t> reply = service.handle(1, body, node.side_info().entries());
    service.client_closed(1);
    return wire::decode_nof_reply(reply.data()).primary;
  };
  EXPECT_EQ(exact("NEWDEST"), nof::kStateCheck);
  ASSERT_EQ(node.ask({{"command", "sideinfo_define"},
                      {"entry", {{"sym_dest_name", "NEWDEST"}, {"partner_lu", "HOST"}, {"tp_name", "T"}}}}),
            json({{"ok", true}}));
  EXPECT_EQ(exact("NEWDEST"), nof::kOk);
  ASSERT_EQ(node.ask({{"command", "sideinfo_delete"}, {"sym_dest_name", "NEWDEST"}}), json({{"ok", true}}));
  EXPECT_EQ(exact("NEWDEST"), nof::kStateCheck);
}

}  // namespace
}  // namespace sna::daemon
