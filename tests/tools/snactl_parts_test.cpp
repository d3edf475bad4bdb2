// snactl's text views of the node's JSON, and the log tail.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "log_tail.h"
#include "operator_client.h"
#include "render.h"
#include "tool_process.h"

namespace {

using nlohmann::json;
using sna::tools::render_table;

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> out;
  size_t start = 0;
  while (start < text.size()) {
    size_t nl = text.find('\n', start);
    if (nl == std::string::npos) nl = text.size();
    out.push_back(text.substr(start, nl - start));
    start = nl + 1;
  }
  return out;
}

TEST(RenderTable, PreferredColumnsFirstThenOthersInOrderOfAppearance) {
  const json rows = json::parse(R"([{"b":1,"extra":"x","a":"alpha"},{"a":"al","zz":true}])");
  const std::string text = render_table(rows, {{"a", "A COL"}, {"b", "B"}, {"missing", "M"}});
  const std::vector<std::string> lines = lines_of(text);
  ASSERT_EQ(lines.size(), 3u) << text;
  // nlohmann's object keeps keys sorted: "extra" comes before "zz".
  EXPECT_EQ(lines[0], "  A COL  B  EXTRA  ZZ");
  EXPECT_EQ(lines[1], "  alpha  1  x");
  EXPECT_EQ(lines[2], "  al               yes");  // under ZZ
}

TEST(RenderTable, EmptyOrMissingIsNone) {
  EXPECT_EQ(render_table(json::array(), {{"a", "A"}}), "  (none)\n");
  EXPECT_EQ(render_table(json(), {{"a", "A"}}), "  (none)\n");
}

TEST(RenderTable, CellTexts) {
  struct Case {
    json value;
    const char* text;
  };
  const Case cases[] = {{"text", "text"}, {true, "yes"},     {false, "no"},
                        {nullptr, "-"},   {12345, "12345"},  {json::array({1, 2}), "[1,2]"}};
  for (const Case& c : cases) EXPECT_EQ(sna::tools::cell_text(c.value), c.text);
}

TEST(RenderTable, PasswordsAreNeverColumns) {
  const json rows = json::parse(R"([{"name":"A","password":"SECRET"}])");
  const std::string text = render_table(rows, {{"name", "NAME"}});
  EXPECT_EQ(text.find("SECRET"), std::string::npos) << text;
  const std::string entry = sna::tools::render_side_info_entry(rows[0]);
  EXPECT_EQ(entry.find("SECRET"), std::string::npos) << entry;
}

json sample_status() {
  return json::parse(R"({
    "node": {"name": "NETWORK.LOCAL", "pid": 4242, "socket": "/tmp/s", "state_dir": "/tmp/st",
             "config": "built-in defaults",
             "clients": [{"id": 1, "pid": 77, "uid": 1000, "user": "alice", "operator": false,
                          "word_bits": 32}]},
    "local_lus": [{"alias": "LOCAL", "name": "NETWORK.LOCAL", "default": true}],
    "sessions": [],
    "conversations": [{"conv_id": 5, "tp_id": "0102030400000001", "state": "SEND",
                       "verb_outstanding": false, "type": "mapped", "sync_level": "none",
                       "local_lu": "LOCAL", "partner_lu": "NETWORK.LOCAL", "mode": "#INTER",
                       "tp_name": "HOLDTP", "client_pid": 77}],
    "tps": [], "registered_names": [{"name": "HOLDTP", "client_pid": 78}],
    "queued_attaches": [{"tp_name": "HOLDTP", "conv_id": 6, "since_ms": 12}]
  })");
}

TEST(RenderStatus, HeaderAndEverySection) {
  const std::string text = sna::tools::render_status(sample_status());
  const std::vector<std::string> lines = lines_of(text);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0], "Node NETWORK.LOCAL (pid 4242)");
  for (const char* expected :
       {"  socket:     /tmp/s", "  state dir:  /tmp/st", "  config:     built-in defaults",
        "  clients:    1", "Clients", "Local LUs", "Sessions", "Conversations", "TPs",
        "Registered TP names", "Queued allocations"}) {
    EXPECT_NE(std::find(lines.begin(), lines.end(), expected), lines.end()) << expected << "\n" << text;
  }
  // The conversation row with its values in the preferred column order.
  const auto row = std::find_if(lines.begin(), lines.end(),
                                [](const std::string& l) { return l.rfind("  5 ", 0) == 0; });
  ASSERT_NE(row, lines.end()) << text;
  const size_t send = row->find("SEND"), mapped = row->find("mapped"), hold = row->find("HOLDTP");
  ASSERT_NE(send, std::string::npos);
  EXPECT_LT(send, mapped);
  EXPECT_LT(mapped, hold);
  // An empty section says so.
  const auto sessions = std::find(lines.begin(), lines.end(), "Sessions");
  ASSERT_NE(sessions + 1, lines.end());
  EXPECT_EQ(*(sessions + 1), "  (none)");
}

TEST(RenderStatus, MissingPartsDoNotBreakIt) {
  const std::string text = sna::tools::render_status(json::object());
  EXPECT_NE(text.find("Node - (pid -)"), std::string::npos) << text;
  EXPECT_NE(text.find("Conversations\n  (none)"), std::string::npos) << text;
}

TEST(SideInfo, EntriesOfAnAnswer) {
  const json wrapped = json::parse(R"({"side_info":[{"sym_dest_name":"A"}]})");
  ASSERT_NE(sna::tools::side_info_entries(wrapped), nullptr);
  EXPECT_EQ(sna::tools::side_info_entries(wrapped)->size(), 1u);
  const json bare = json::parse(R"([{"sym_dest_name":"A"},{"sym_dest_name":"B"}])");
  ASSERT_NE(sna::tools::side_info_entries(bare), nullptr);
  EXPECT_EQ(sna::tools::side_info_entries(bare)->size(), 2u);
  EXPECT_EQ(sna::tools::side_info_entries(json::parse(R"({"ok":true})")), nullptr);
}

TEST(SideInfo, EntryAsKeyList) {
  const json entry = json::parse(
      R"({"sym_dest_name":"PINGSIDE","partner_lu":"NETWORK.LOCAL","mode":"#INTER",
          "tp_name":"CPICPINGD","security":"none","password_set":false,"zeta":1})");
  const std::vector<std::string> lines = lines_of(sna::tools::render_side_info_entry(entry));
  ASSERT_GE(lines.size(), 7u);
  EXPECT_EQ(lines[0], "sym_dest_name:  PINGSIDE");
  EXPECT_EQ(lines[1], "partner_lu:     NETWORK.LOCAL");
  EXPECT_EQ(lines.back(), "zeta:           1");
}

TEST(LogTail, LastLines) {
  tooltest::TempDir dir;
  struct Case {
    const char* content;
    size_t count;
    std::vector<std::string> expected;
  };
  const Case cases[] = {
      {"", 5, {}},
      {"a\nb\nc\n", 2, {"b", "c"}},
      {"a\nb\nc\n", 3, {"a", "b", "c"}},
      {"a\nb\nc\n", 10, {"a", "b", "c"}},
      {"a\nb\nc", 2, {"b", "c"}},  // no new line at the end
      {"a\n\nc\n", 2, {"", "c"}},
      {"\nb\n", 5, {"", "b"}},
      {"a\nb\n", 0, {}},
  };
  for (const Case& c : cases) {
    const std::string path = dir.file("log");
    tooltest::write_file(path, c.content);
    std::vector<std::string> lines;
    bool missing = true;
    std::string error;
    ASSERT_TRUE(sna::tools::tail_lines(path, c.count, lines, missing, error)) << error;
    EXPECT_FALSE(missing);
    EXPECT_EQ(lines, c.expected) << "content \"" << c.content << "\" count " << c.count;
  }
}

TEST(LogTail, LongFileAcrossBlocks) {
  tooltest::TempDir dir;
  std::string content;
  for (int i = 0; i < 20000; ++i) content += "line " + std::to_string(i) + " " + std::string(30, 'x') + "\n";
  tooltest::write_file(dir.file("big"), content);
  std::vector<std::string> lines;
  bool missing = false;
  std::string error;
  ASSERT_TRUE(sna::tools::tail_lines(dir.file("big"), 5000, lines, missing, error)) << error;
  ASSERT_EQ(lines.size(), 5000u);
  EXPECT_EQ(lines.front(), "line 15000 " + std::string(30, 'x'));
  EXPECT_EQ(lines.back(), "line 19999 " + std::string(30, 'x'));
}

TEST(LogTail, MissingFile) {
  tooltest::TempDir dir;
  std::vector<std::string> lines;
  bool missing = false;
  std::string error;
  EXPECT_FALSE(sna::tools::tail_lines(dir.file("none"), 5, lines, missing, error));
  EXPECT_TRUE(missing);
  EXPECT_FALSE(error.empty());
}

TEST(SocketPath, DefaultsInOrder) {
  struct Case {
    const char* socket_env;
    const char* runtime_dir;
    std::string expected;
  };
  const Case cases[] = {
      {"/x/sock", "/run/user/5", "/x/sock"},
      {nullptr, "/run/user/5", "/run/user/5/snanode/socket"},
      {nullptr, nullptr, "/tmp/snanode-" + std::to_string(getuid()) + "/socket"},
      {"", "", "/tmp/snanode-" + std::to_string(getuid()) + "/socket"},
  };
  const char* saved_socket = getenv("SNANODE_SOCKET");
  const char* saved_run = getenv("XDG_RUNTIME_DIR");
  const std::string keep_socket = saved_socket ? saved_socket : "";
  const std::string keep_run = saved_run ? saved_run : "";
  for (const Case& c : cases) {
    if (c.socket_env) setenv("SNANODE_SOCKET", c.socket_env, 1); else unsetenv("SNANODE_SOCKET");
    if (c.runtime_dir) setenv("XDG_RUNTIME_DIR", c.runtime_dir, 1); else unsetenv("XDG_RUNTIME_DIR");
    EXPECT_EQ(sna::tools::default_socket_path(), c.expected);
  }
  if (saved_socket) setenv("SNANODE_SOCKET", keep_socket.c_str(), 1); else unsetenv("SNANODE_SOCKET");
  if (saved_run) setenv("XDG_RUNTIME_DIR", keep_run.c_str(), 1); else unsetenv("XDG_RUNTIME_DIR");
}

}  // namespace
