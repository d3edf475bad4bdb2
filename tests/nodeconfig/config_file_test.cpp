// Configuration files: good ones read back key by key, bad ones refused
// with the line and reason of the first problem.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>

#include "nodeconfig/daemon_config.h"

namespace sna::config {
namespace {

using proto::SyncAllowed;
using proto::TypeAllowed;

// A file with `text` in a fresh temporary directory; removed afterwards.
class TempFile {
 public:
  explicit TempFile(const std::string& text) {
    std::string tmpl = ::testing::TempDir() + "nodeconfig-XXXXXX";
    char* d = mkdtemp(tmpl.data());
    EXPECT_NE(d, nullptr);
    dir_ = tmpl;
    path_ = dir_ + "/node.toml";
    std::ofstream(path_, std::ios::binary) << text;
  }
  ~TempFile() {
    unlink(path_.c_str());
    rmdir(dir_.c_str());
  }
  const std::string& path() const { return path_; }

 private:
  std::string dir_, path_;
};

DaemonConfig load_ok(const std::string& text) {
  TempFile f(text);
  ConfigError err;
  std::optional<DaemonConfig> c = load_config(f.path(), err);
  EXPECT_TRUE(c.has_value()) << err.text();
  if (!c) return DaemonConfig{};
  EXPECT_EQ(c->source, f.path());
  return *c;
}

const proto::ModeConfig* mode(const DaemonConfig& c, const std::string& name) {
  for (const auto& m : c.node.modes)
    if (m.name == name) return &m;
  return nullptr;
}

// ---------------------------------------------------------------- good files

struct GoodCase {
  const char* name;
  const char* text;
  std::function<void(const DaemonConfig&)> check;
};
inline void PrintTo(const GoodCase& c, std::ostream* os) { *os << c.name; }

const GoodCase kGood[] = {
    {"empty file: the built-in definitions", "",
     [](const DaemonConfig& c) {
       ASSERT_EQ(c.node.local_lus.size(), 1u);
       EXPECT_EQ(c.node.local_lus[0].alias, "LOCAL");
       EXPECT_EQ(c.node.local_lus[0].fq_name, "NETWORK.LOCAL");
       EXPECT_EQ(c.node.local_lus[0].default_partner, "");
       EXPECT_EQ(c.node_name, "NETWORK.LOCAL");
       EXPECT_EQ(c.node.modes.size(), 5u);
       EXPECT_EQ(c.node.default_attach_timeout_ms, 60000u);
       EXPECT_FALSE(c.idle_exit_set);
       EXPECT_TRUE(c.socket.empty());
       EXPECT_TRUE(c.state_dir.empty());
       EXPECT_TRUE(c.group.empty());
       EXPECT_TRUE(c.node.partners.empty());
       EXPECT_TRUE(c.node.tp_definitions.empty());
       EXPECT_TRUE(c.programs.empty());
       EXPECT_TRUE(c.side_info.empty());
       EXPECT_TRUE(c.security_users.empty());
     }},
    {"[node] every key",
     "[node]\n"
     "name = \"NET.NODE1\"\n"
     "socket = \"/run/sna/socket\"\n"
     "state_dir = \"/var/lib/sna\"\n"
     "group = \"root\"\n"
     "idle_exit = 30\n"
     "attach_timeout = 5\n",
     [](const DaemonConfig& c) {
       EXPECT_EQ(c.node_name, "NET.NODE1");
       EXPECT_EQ(c.socket, "/run/sna/socket");
       EXPECT_EQ(c.state_dir, "/var/lib/sna");
       EXPECT_EQ(c.group, "root");
       EXPECT_TRUE(c.idle_exit_set);
       EXPECT_EQ(c.idle_exit_s, 30u);
       EXPECT_EQ(c.node.default_attach_timeout_ms, 5000u);
     }},
    {"idle_exit 0 is set, and a one-part node name", "[node]\nidle_exit = 0\nname = \"NODE1\"\n",
     [](const DaemonConfig& c) {
       EXPECT_TRUE(c.idle_exit_set);
       EXPECT_EQ(c.idle_exit_s, 0u);
       EXPECT_EQ(c.node_name, "NODE1");
     }},
    {"local LUs: the marked default comes first",
     "[[local_lu]]\n"
     "alias = \"FIRST\"\n"
     "name = \"NET.LU1\"\n"
     "[[local_lu]]\n"
     "alias = \"second\"\n"
     "name = \"NET.LU2\"\n"
     "default = true\n"
     "default_partner = \"P1\"\n"
     "[[local_lu]]\n"
     "alias = \"THIRD\"\n"
     "name = \"NET.@LU#$3\"\n"
     "default = false\n"
     "default_partner = \"FIRST\"\n"
     "[[partner_lu]]\n"
     "alias = \"P1\"\n"
     "name = \"OTHER.PLU\"\n",
     [](const DaemonConfig& c) {
       ASSERT_EQ(c.node.local_lus.size(), 3u);
       EXPECT_EQ(c.node.local_lus[0].alias, "second");
       EXPECT_EQ(c.node.local_lus[0].fq_name, "NET.LU2");
       EXPECT_EQ(c.node.local_lus[0].default_partner, "P1");
       EXPECT_EQ(c.node.local_lus[1].alias, "FIRST");
       EXPECT_EQ(c.node.local_lus[1].default_partner, "");
       EXPECT_EQ(c.node.local_lus[2].fq_name, "NET.@LU#$3");
       EXPECT_EQ(c.node.local_lus[2].default_partner, "FIRST");
       EXPECT_EQ(c.node_name, "NET.LU2");
     }},
    {"local LUs: the first when none is marked",
     "[[local_lu]]\nalias = \"A\"\nname = \"N.A\"\n[[local_lu]]\nalias = \"B\"\nname = \"N.B\"\n",
     [](const DaemonConfig& c) {
       ASSERT_EQ(c.node.local_lus.size(), 2u);
       EXPECT_EQ(c.node.local_lus[0].alias, "A");
       EXPECT_EQ(c.node.local_lus[1].alias, "B");
     }},
    {"inline array of tables",
     "local_lu = [{alias = \"A\", name = \"N.A\"}, {alias = \"B\", name = \"N.B\", default = true}]\n",
     [](const DaemonConfig& c) {
       ASSERT_EQ(c.node.local_lus.size(), 2u);
       EXPECT_EQ(c.node.local_lus[0].alias, "B");
     }},
    {"partner LUs",
     "[[partner_lu]]\n"
     "alias = \"REMOTE\"\n"
     "name = \"FAR.LU9\"\n"
     "accepts_already_verified = true\n"
     "[[partner_lu]]\n"
     "alias = \"SELF\"\n"
     "name = \"NETWORK.LOCAL\"\n",
     [](const DaemonConfig& c) {
       ASSERT_EQ(c.node.partners.size(), 2u);
       EXPECT_EQ(c.node.partners[0].alias, "REMOTE");
       EXPECT_EQ(c.node.partners[0].fq_name, "FAR.LU9");
       EXPECT_TRUE(c.node.partners[0].accepts_already_verified);
       EXPECT_TRUE(c.node.partners[0].reachable);
       EXPECT_EQ(c.node.partners[1].fq_name, "NETWORK.LOCAL");
       EXPECT_FALSE(c.node.partners[1].accepts_already_verified);
     }},
    {"modes: built-ins overridden, new ones added",
     "[[mode]]\n"
     "name = \"#INTER\"\n"
     "session_limit = 2\n"
     "[[mode]]\n"
     "name = \"FAST\"\n"
     "session_limit = 32767\n"
     "send_buffer_size = 256\n"
     "pacing_window = 32768\n"
     "[[mode]]\n"
     "name = \"\"\n"
     "send_buffer_size = 65535\n"
     "pacing_window = 4294967295\n",
     [](const DaemonConfig& c) {
       EXPECT_EQ(c.node.modes.size(), 6u);
       const auto* inter = mode(c, "#INTER");
       ASSERT_TRUE(inter);
       EXPECT_EQ(inter->session_limit, 2u);
       EXPECT_EQ(inter->send_buffer_size, 4096u);
       EXPECT_EQ(inter->pacing_window, 65536u);
       const auto* fast = mode(c, "FAST");
       ASSERT_TRUE(fast);
       EXPECT_EQ(fast->session_limit, 32767u);
       EXPECT_EQ(fast->send_buffer_size, 256u);
       EXPECT_EQ(fast->pacing_window, 32768u);
       const auto* blank = mode(c, "");
       ASSERT_TRUE(blank);
       EXPECT_EQ(blank->send_buffer_size, 65535u);
       EXPECT_EQ(blank->pacing_window, 4294967295u);
       EXPECT_EQ(blank->session_limit, 0u);
       const auto* batch = mode(c, "#BATCHSC");
       ASSERT_TRUE(batch);
       EXPECT_EQ(batch->send_buffer_size, 4096u);
     }},
    {"side information, sorted by name",
     "[[local_lu]]\nalias = \"L1\"\nname = \"NET.L1\"\n"
     "[[partner_lu]]\nalias = \"PART\"\nname = \"NET.PART\"\n"
     "[[mode]]\nname = \"M1\"\n"
     "[[side_info]]\n"
     "sym_dest_name = \"ZED\"\n"
     "partner_lu = \"PART\"\n"
     "mode = \"M1\"\n"
     "tp_name = \"Hello World\"\n"
     "tp_name_type = \"application\"\n"
     "security = \"program\"\n"
     "user_id = \"USER1\"\n"
     "password = \"pa ss\"\n"
     "local_lu = \"L1\"\n"
     "[[side_info]]\n"
     "sym_dest_name = \"ABC\"\n"
     "partner_lu = \"FAR.AWAY\"\n"
     "tp_name = \"06f1abcd\"\n"
     "tp_name_type = \"service\"\n"
     "[[side_info]]\n"
     "sym_dest_name = \"Mid\"\n"
     "security = \"same\"\n"
     "[[side_info]]\n"
     "sym_dest_name = \"MID\"\n"
     "security = \"program_strong\"\n"
     "mode = \"#BATCH\"\n"
     "[[side_info]]\n"
     "sym_dest_name = \"NONE\"\n"
     "security = \"none\"\n",
     [](const DaemonConfig& c) {
       ASSERT_EQ(c.side_info.size(), 5u);
       EXPECT_EQ(c.side_info[0].sym_dest_name, "ABC");
       EXPECT_EQ(c.side_info[1].sym_dest_name, "MID");
       EXPECT_EQ(c.side_info[2].sym_dest_name, "Mid");
       EXPECT_EQ(c.side_info[3].sym_dest_name, "NONE");
       EXPECT_EQ(c.side_info[4].sym_dest_name, "ZED");
       const SideInfoEntry& abc = c.side_info[0];
       EXPECT_EQ(abc.partner_lu, "FAR.AWAY");
       EXPECT_TRUE(abc.service_tp);
       EXPECT_EQ(abc.tp_name, "06F1ABCD");
       EXPECT_EQ(abc.security, 0u);
       EXPECT_EQ(abc.mode, "");
       EXPECT_EQ(abc.local_lu, "");
       EXPECT_EQ(c.side_info[1].security, 5u);
       EXPECT_EQ(c.side_info[1].mode, "#BATCH");
       EXPECT_EQ(c.side_info[2].security, 1u);
       EXPECT_EQ(c.side_info[3].security, 0u);
       const SideInfoEntry& zed = c.side_info[4];
       EXPECT_EQ(zed.partner_lu, "PART");
       EXPECT_EQ(zed.mode, "M1");
       EXPECT_EQ(zed.tp_name, "Hello World");
       EXPECT_FALSE(zed.service_tp);
       EXPECT_EQ(zed.security, 2u);
       EXPECT_EQ(zed.user_id, "USER1");
       EXPECT_EQ(zed.password, "pa ss");
       EXPECT_EQ(zed.local_lu, "L1");
     }},
    {"side info naming the built-in LU by its alias",
     "[[side_info]]\nsym_dest_name = \"SELF\"\npartner_lu = \"LOCAL\"\nlocal_lu = \"LOCAL\"\n",
     [](const DaemonConfig& c) {
       ASSERT_EQ(c.side_info.size(), 1u);
       EXPECT_EQ(c.side_info[0].partner_lu, "LOCAL");
       EXPECT_EQ(c.side_info[0].local_lu, "LOCAL");
     }},
    {"TP definitions and their programs",
     "[[tp]]\n"
     "name = \"ECHO\"\n"
     "program = \"/usr/local/bin/echo-tp\"\n"
     "arguments = [\"-v\", \"--mode=fast\"]\n"
     "directory = \"/srv/echo\"\n"
     "environment = { ZED = \"last\", ALPHA = \"first\", PATH = \"/opt/bin\" }\n"
     "log_file = \"/var/log/echo.log\"\n"
     "conversation_type = \"mapped\"\n"
     "sync_level = \"confirm\"\n"
     "attach_timeout = 2\n"
     "instance_limit = 3\n"
     "security_required = true\n"
     "only_when_unregistered = true\n"
     "[[tp]]\n"
     "name = \"plain tp\"\n"
     "program = \"cat\"\n"
     "conversation_type = \"basic\"\n"
     "sync_level = \"none\"\n"
     "[[tp]]\n"
     "name = \"EITHER\"\n"
     "program = \"/bin/true\"\n"
     "conversation_type = \"either\"\n"
     "sync_level = \"either\"\n",
     [](const DaemonConfig& c) {
       ASSERT_EQ(c.node.tp_definitions.size(), 3u);
       ASSERT_EQ(c.programs.size(), 3u);
       const auto& d = c.node.tp_definitions[0];
       EXPECT_EQ(d.tp_name, "ECHO");
       EXPECT_EQ(d.conversation_type, TypeAllowed::kMapped);
       EXPECT_EQ(d.sync_level, SyncAllowed::kConfirm);
       EXPECT_EQ(d.attach_timeout_ms, 2000u);
       EXPECT_EQ(d.instance_limit, 3u);
       EXPECT_TRUE(d.security_required);
       EXPECT_TRUE(d.only_when_unregistered);
       const auto& p = c.programs[0];
       EXPECT_EQ(p.tp_name, "ECHO");
       EXPECT_EQ(p.program, "/usr/local/bin/echo-tp");
       EXPECT_EQ(p.arguments, (std::vector<std::string>{"-v", "--mode=fast"}));
       EXPECT_EQ(p.directory, "/srv/echo");
       EXPECT_EQ(p.environment, (std::vector<std::pair<std::string, std::string>>{
                                    {"ALPHA", "first"}, {"PATH", "/opt/bin"}, {"ZED", "last"}}));
       EXPECT_EQ(p.log_file, "/var/log/echo.log");
       const auto& d2 = c.node.tp_definitions[1];
       EXPECT_EQ(d2.tp_name, "plain tp");
       EXPECT_EQ(d2.conversation_type, TypeAllowed::kBasic);
       EXPECT_EQ(d2.sync_level, SyncAllowed::kNone);
       EXPECT_EQ(d2.attach_timeout_ms, 0u) << "0: the node's default";
       EXPECT_EQ(d2.instance_limit, 16u);
       EXPECT_FALSE(d2.security_required);
       EXPECT_FALSE(d2.only_when_unregistered);
       EXPECT_EQ(c.programs[1].program, "cat");
       EXPECT_TRUE(c.programs[1].arguments.empty());
       EXPECT_TRUE(c.programs[1].directory.empty());
       EXPECT_TRUE(c.programs[1].environment.empty());
       EXPECT_TRUE(c.programs[1].log_file.empty());
       EXPECT_EQ(c.node.tp_definitions[2].conversation_type, TypeAllowed::kEither);
       EXPECT_EQ(c.node.tp_definitions[2].sync_level, SyncAllowed::kEither);
       EXPECT_EQ(c.programs[2].tp_name, "EITHER");
     }},
    {"security users",
     "[[security_user]]\n"
     "user_id = \"USER1\"\n"
     "password_hash = "
     "\"$6$saltsalt$qFmFH.bQmmtXzyBY0s9v7Oicd2z4XSIecDzlB5KiA2/jctKu9YterLp8wwnSq.qc.eoxqOmSuNp2xS0ktL3nh/"
     "\"\n"
     "[[security_user]]\n"
     "user_id = \"u.two@x\"\n"
     "password_hash = "
     "\"$6$abc$7OcfKPIpYEP9nRjnIUtSqx2WnA8rBhp9hbWeY.1ZFaXfy8sVDS7RmpCK/g6GFHAG3fK4xzdkS.FOlmOu1vyVv/\"\n",
     [](const DaemonConfig& c) {
       ASSERT_EQ(c.security_users.size(), 2u);
       EXPECT_EQ(c.security_users[0].user_id, "USER1");
       EXPECT_EQ(c.security_users[0].password_hash.substr(0, 12), "$6$saltsalt$");
       EXPECT_EQ(c.security_users[1].user_id, "u.two@x");
       ASSERT_TRUE(c.node.check_password);
       EXPECT_FALSE(c.node.check_password("USER1", "not it"));
       EXPECT_FALSE(c.node.check_password("NOBODY", "x"));
     }},
};

class ConfigGood : public ::testing::TestWithParam<GoodCase> {};

TEST_P(ConfigGood, EveryKeyReadsBack) {
  const DaemonConfig c = load_ok(GetParam().text);
  GetParam().check(c);
}

INSTANTIATE_TEST_SUITE_P(ConfigTable, ConfigGood, ::testing::ValuesIn(kGood));

TEST(ConfigGood, SecurityUserPasswordsAreCheckedThroughTheNode) {
  const std::string h1 = hash_password("secret1"), h2 = hash_password("other two");
  ASSERT_FALSE(h1.empty());
  const DaemonConfig c =
      load_ok("[[security_user]]\nuser_id = \"USER1\"\npassword_hash = \"" + h1 +
              "\"\n[[security_user]]\nuser_id = \"USER2\"\npassword_hash = \"" + h2 + "\"\n");
  ASSERT_TRUE(c.node.check_password);
  EXPECT_TRUE(c.node.check_password("USER1", "secret1"));
  EXPECT_TRUE(c.node.check_password("USER2", "other two"));
  EXPECT_FALSE(c.node.check_password("USER1", "other two")) << "each user has his own password";
  EXPECT_FALSE(c.node.check_password("USER1", "SECRET1"));
  EXPECT_FALSE(c.node.check_password("USER3", "secret1"));
}

// ----------------------------------------------------------------- bad files

struct BadCase {
  const char* name;
  const char* text;
  int line;
  const char* reason;  // exact, or for the TOML parser's own messages a part
  bool exact = true;
};
inline void PrintTo(const BadCase& c, std::ostream* os) { *os << c.name; }

const BadCase kBad[] = {
    // The TOML parser's own findings.
    {"syntax: unterminated table header", "[node]\nname = \"N.A\"\n[local_lu\n", 3, "", false},
    {"syntax: key defined twice", "[node]\nidle_exit = 1\nidle_exit = 2\n", 3, "idle_exit", false},
    // Characters the TOML library cannot test for whitespace safely.
    {"non-ASCII where only ASCII may stand", "[node]\nidle_exit = 1\n\xC5\x8D-d\n", 3,
     "non-ASCII character outside a string or comment"},
    {"non-ASCII after a quote where no string may begin",
     "[[local_lu]]\nalias = \"A\"\nname = 5\"N.A\xD1\xAC\"\n", 3,
     "non-ASCII character outside a string or comment"},
    {"non-ASCII in a value that began as a number, after quotes",
     "[node]\nidle_exit = 65'['\xEF\xBB\xAF'\n", 2,
     "non-ASCII character outside a string or comment"},
    {"non-ASCII in a number's fraction, after a quote", "[node]\nidle_exit = 1.'\xD1\xAC'\n", 2,
     "non-ASCII character outside a string or comment"},
    {"non-ASCII after a line-ending backslash",
     "[[tp]]\nname = \"ECHO\"\nprogram = \"\"\"/bin/\\\n  \xC3\xBC\"\"\"\n", 4,
     "non-ASCII character right after a line-ending backslash"},
    {"syntax: unterminated string", "\n\n[node]\nsocket = \"/x\n", 4, "", false},
    // Shape of the file.
    {"unknown table", "[node]\n\n[nodes]\nname = \"A\"\n", 3, "unknown table \"nodes\""},
    {"unknown key at the top", "title = \"x\"\n", 1, "unknown key \"title\""},
    {"[[node]]", "[[node]]\nname = \"A\"\n", 1, "[node] must be a single table, not [[node]]"},
    {"node as a value", "node = 3\n", 1, "node must be a table ([node])"},
    {"[local_lu] as one table", "[local_lu]\nalias = \"A\"\n", 1,
     "local_lu must be an array of tables ([[local_lu]])"},
    {"tp as an array of strings", "tp = [\"ECHO\"]\n", 1, "tp must be an array of tables ([[tp]])"},
    // [node]
    {"unknown key in [node]", "[node]\nname = \"A\"\nnmae = \"B\"\n", 3, "unknown key \"nmae\" in [node]"},
    {"node name not a name", "[node]\nname = \"net.a\"\n", 2,
     "[node] name \"net.a\" is not a node name (NAME or NET.NAME, each 1-8 of A-Z 0-9 @ # $, not starting "
     "with a digit)"},
    {"socket relative", "[node]\nsocket = \"run/socket\"\n", 2, "[node] socket must be an absolute path"},
    {"socket too long",
     "[node]\nsocket = "
     "\"/tmp/"
     "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"
     "\"\n",
     2, "[node] socket is longer than 107 bytes"},
    {"socket at the limit is fine, the next key is not",
     "[node]\nsocket = "
     "\"/tmp/"
     "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"
     "\"\nidle_exit = true\n",
     3, "[node] idle_exit must be an integer"},
    {"state_dir relative", "[node]\nstate_dir = \"state\"\n", 2, "[node] state_dir must be an absolute path"},
    {"group unknown", "[node]\ngroup = \"no-such-group-here\"\n", 2,
     "[node] group \"no-such-group-here\" is not a group of this system"},
    {"idle_exit a string", "[node]\nidle_exit = \"10\"\n", 2, "[node] idle_exit must be an integer"},
    {"idle_exit negative", "[node]\nidle_exit = -1\n", 2,
     "[node] idle_exit must be from 0 to 4294967, not -1"},
    {"idle_exit a float", "[node]\nidle_exit = 1.5\n", 2, "[node] idle_exit must be an integer"},
    {"attach_timeout 0", "[node]\nattach_timeout = 0\n", 2,
     "[node] attach_timeout must be from 1 to 4294967, not 0"},
    {"attach_timeout too large", "[node]\nattach_timeout = 4294968\n", 2,
     "[node] attach_timeout must be from 1 to 4294967, not 4294968"},
    {"name not a string", "[node]\nname = 5\n", 2, "[node] name must be a string"},
    {"NUL in a string", "[node]\nstate_dir = \"/a\\u0000b\"\n", 2,
     "[node] state_dir must not contain a NUL character"},
    // [[local_lu]]
    {"local LU without name", "\n[[local_lu]]\nalias = \"A\"\n", 2, "[[local_lu]] name is required"},
    {"local LU without alias", "[[local_lu]]\nname = \"N.A\"\n", 1, "[[local_lu]] alias is required"},
    {"LU name part starts with a digit", "[[local_lu]]\nalias = \"A\"\nname = \"NET.1LU\"\n", 3,
     "[[local_lu]] name \"NET.1LU\" is not a qualified LU name (NET.LU, each part 1-8 of A-Z 0-9 @ # $, not "
     "starting with a digit)"},
    {"LU name part too long", "[[local_lu]]\nalias = \"A\"\nname = \"NET.ABCDEFGHI\"\n", 3,
     "[[local_lu]] name \"NET.ABCDEFGHI\" is not a qualified LU name (NET.LU, each part 1-8 of A-Z 0-9 @ # "
     "$, not starting with a digit)"},
    {"LU name lower case", "[[local_lu]]\nalias = \"A\"\nname = \"net.lu\"\n", 3,
     "[[local_lu]] name \"net.lu\" is not a qualified LU name (NET.LU, each part 1-8 of A-Z 0-9 @ # $, not "
     "starting with a digit)"},
    {"LU name without network", "[[local_lu]]\nalias = \"A\"\nname = \"LU\"\n", 3,
     "[[local_lu]] name \"LU\" is not a qualified LU name (NET.LU, each part 1-8 of A-Z 0-9 @ # $, not "
     "starting with a digit)"},
    {"alias too long", "[[local_lu]]\nalias = \"ABCDEFGHI\"\nname = \"N.A\"\n", 2,
     "[[local_lu]] alias \"ABCDEFGHI\" is not 1-8 printable ASCII characters without blanks"},
    {"alias with a blank", "[[local_lu]]\nalias = \"A B\"\nname = \"N.A\"\n", 2,
     "[[local_lu]] alias \"A B\" is not 1-8 printable ASCII characters without blanks"},
    {"alias not ASCII", "[[local_lu]]\nalias = \"\xc3\xa9t\xc3\xa9\"\nname = \"N.A\"\n", 2,
     "[[local_lu]] alias \"\xc3\xa9t\xc3\xa9\" is not 1-8 printable ASCII characters without blanks"},
    {"duplicate local LU name",
     "[[local_lu]]\nalias = \"A\"\nname = \"N.A\"\n[[local_lu]]\nalias = \"B\"\nname = \"N.A\"\n", 6,
     "duplicate local LU name \"N.A\" (also at line 3)"},
    {"duplicate alias, local and partner",
     "[[local_lu]]\nalias = \"A\"\nname = \"N.A\"\n[[partner_lu]]\nalias = \"A\"\nname = \"N.B\"\n", 5,
     "duplicate LU alias \"A\" (also at line 2)"},
    {"two defaults",
     "[[local_lu]]\nalias = \"A\"\nname = \"N.A\"\ndefault = true\n[[local_lu]]\nalias = \"B\"\nname = "
     "\"N.B\"\ndefault = true\n",
     8, "[[local_lu]] default is set on a second LU (the first is at line 4)"},
    {"default not a boolean", "[[local_lu]]\nalias = \"A\"\nname = \"N.A\"\ndefault = \"yes\"\n", 4,
     "[[local_lu]] default must be true or false"},
    {"default partner unknown", "[[local_lu]]\nalias = \"A\"\nname = \"N.A\"\ndefault_partner = \"NOPE\"\n",
     4, "[[local_lu]] default_partner \"NOPE\" is not the alias of a defined LU"},
    {"unknown key in [[local_lu]]", "[[local_lu]]\nalias = \"A\"\nname = \"N.A\"\nlu_name = \"N.A\"\n", 4,
     "unknown key \"lu_name\" in [[local_lu]]"},
    // [[partner_lu]]
    {"partner name unqualified", "[[partner_lu]]\nalias = \"P\"\nname = \"PARTNER\"\n", 3,
     "[[partner_lu]] name \"PARTNER\" is not a qualified LU name (NET.LU, each part 1-8 of A-Z 0-9 @ # $, "
     "not starting with a digit)"},
    {"duplicate partner name",
     "[[partner_lu]]\nalias = \"P\"\nname = \"N.P\"\n[[partner_lu]]\nalias = \"Q\"\nname = \"N.P\"\n", 6,
     "duplicate partner LU name \"N.P\" (also at line 3)"},
    {"accepts_already_verified a number",
     "[[partner_lu]]\nalias = \"P\"\nname = \"N.P\"\naccepts_already_verified = 1\n", 4,
     "[[partner_lu]] accepts_already_verified must be true or false"},
    // [[mode]]
    {"mode name lower case", "[[mode]]\nname = \"fast\"\n", 2,
     "[[mode]] name \"fast\" is not a mode name (1-8 of A-Z 0-9 @ # $, not starting with a digit; \"\" for "
     "the blank mode)"},
    {"mode name reserved", "[[mode]]\nname = \"SNASVCMG\"\n", 2,
     "[[mode]] name \"SNASVCMG\" is reserved for the node's own sessions"},
    {"mode name CPSVCMG", "[[mode]]\nname = \"CPSVCMG\"\n", 2,
     "[[mode]] name \"CPSVCMG\" is reserved for the node's own sessions"},
    {"duplicate mode", "[[mode]]\nname = \"M\"\n[[mode]]\nname = \"M\"\n", 4,
     "duplicate mode \"M\" (also at line 2)"},
    {"mode without name", "[[mode]]\nsession_limit = 1\n", 1, "[[mode]] name is required"},
    {"send buffer too small", "[[mode]]\nname = \"M\"\nsend_buffer_size = 255\n", 3,
     "[[mode]] send_buffer_size must be from 256 to 65535, not 255"},
    {"send buffer too large", "[[mode]]\nname = \"M\"\nsend_buffer_size = 65536\n", 3,
     "[[mode]] send_buffer_size must be from 256 to 65535, not 65536"},
    {"pacing window too small", "[[mode]]\nname = \"M\"\npacing_window = 32767\n", 3,
     "[[mode]] pacing_window must be from 32768 to 4294967295, not 32767"},
    {"session limit negative", "[[mode]]\nname = \"M\"\nsession_limit = -2\n", 3,
     "[[mode]] session_limit must be from 0 to 32767, not -2"},
    {"session limit a float", "[[mode]]\nname = \"M\"\nsession_limit = 1.5\n", 3,
     "[[mode]] session_limit must be an integer"},
    // [[side_info]]
    {"side info without name", "[[side_info]]\ntp_name = \"X\"\n", 1,
     "[[side_info]] sym_dest_name is required"},
    {"sym_dest_name too long", "[[side_info]]\nsym_dest_name = \"NINECHARS\"\n", 2,
     "[[side_info]] sym_dest_name \"NINECHARS\" is not 1-8 printable ASCII characters without blanks"},
    {"duplicate sym_dest_name",
     "[[side_info]]\nsym_dest_name = \"S\"\n\n[[side_info]]\nsym_dest_name = \"S\"\n", 5,
     "duplicate sym_dest_name \"S\" (also at line 2)"},
    {"tp_name_type unknown", "[[side_info]]\nsym_dest_name = \"S\"\ntp_name_type = \"other\"\n", 3,
     "[[side_info]] tp_name_type must be \"application\" or \"service\", not \"other\""},
    {"service TP name not hex",
     "[[side_info]]\nsym_dest_name = \"S\"\ntp_name_type = \"service\"\ntp_name = \"06F1XYZ0\"\n", 4,
     "[[side_info]] tp_name \"06F1XYZ0\" is not 8 hex digits (a service TP name)"},
    {"service TP name short",
     "[[side_info]]\nsym_dest_name = \"S\"\ntp_name = \"06F1\"\ntp_name_type = \"service\"\n", 3,
     "[[side_info]] tp_name \"06F1\" is not 8 hex digits (a service TP name)"},
    {"TP name too long",
     "[[side_info]]\nsym_dest_name = \"S\"\n"
     "tp_name = \"AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA\"\n",
     3,
     "[[side_info]] tp_name \"AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA\" is not "
     "1-64 printable ASCII characters (no leading or trailing blank)"},
    {"TP name with a trailing blank", "[[side_info]]\nsym_dest_name = \"S\"\ntp_name = \"ECHO \"\n", 3,
     "[[side_info]] tp_name \"ECHO \" is not 1-64 printable ASCII characters (no leading or trailing blank)"},
    {"security unknown", "[[side_info]]\nsym_dest_name = \"S\"\nsecurity = \"strong\"\n", 3,
     "[[side_info]] security must be \"none\", \"same\", \"program\" or \"program_strong\", not \"strong\""},
    {"side info user ID too long", "[[side_info]]\nsym_dest_name = \"S\"\nuser_id = \"ELEVENCHARS\"\n", 3,
     "[[side_info]] user_id \"ELEVENCHARS\" is not 1-10 printable ASCII characters without blanks"},
    {"side info password too long", "[[side_info]]\nsym_dest_name = \"S\"\npassword = \"elevenchars\"\n", 3,
     "[[side_info]] password is not 1-10 printable ASCII characters (no leading or trailing blank)"},
    {"side info local LU unknown", "[[side_info]]\nsym_dest_name = \"S\"\nlocal_lu = \"NOPE\"\n", 3,
     "[[side_info]] local_lu \"NOPE\" is not the alias of a local LU"},
    {"side info local LU is a partner",
     "[[partner_lu]]\nalias = \"P\"\nname = \"N.P\"\n[[side_info]]\nsym_dest_name = \"S\"\nlocal_lu = "
     "\"P\"\n",
     6, "[[side_info]] local_lu \"P\" is not the alias of a local LU"},
    {"side info partner alias unknown", "[[side_info]]\nsym_dest_name = \"S\"\npartner_lu = \"NOPE\"\n", 3,
     "[[side_info]] partner_lu \"NOPE\" is not the alias of a defined LU"},
    {"side info partner name malformed", "[[side_info]]\nsym_dest_name = \"S\"\npartner_lu = \"NET.\"\n", 3,
     "[[side_info]] partner_lu \"NET.\" is not a qualified LU name (NET.LU, each part 1-8 of A-Z 0-9 @ # $, "
     "not starting with a digit)"},
    {"side info mode unknown", "[[side_info]]\nsym_dest_name = \"S\"\nmode = \"NOMODE\"\n", 3,
     "[[side_info]] mode \"NOMODE\" is not a defined mode"},
    {"side info mode malformed", "[[side_info]]\nsym_dest_name = \"S\"\nmode = \"bad mode\"\n", 3,
     "[[side_info]] mode \"bad mode\" is not a mode name"},
    {"unknown key in [[side_info]]", "[[side_info]]\nsym_dest_name = \"S\"\nconversation_type = \"mapped\"\n",
     3, "unknown key \"conversation_type\" in [[side_info]]"},
    // [[tp]]
    {"TP without program", "[[tp]]\nname = \"ECHO\"\n", 1, "[[tp]] program is required"},
    {"TP without name", "[[tp]]\nprogram = \"/bin/cat\"\n", 1, "[[tp]] name is required"},
    {"program relative with a slash", "[[tp]]\nname = \"ECHO\"\nprogram = \"bin/echo\"\n", 3,
     "[[tp]] program \"bin/echo\" must be an absolute path or a name to look up in PATH"},
    {"program empty", "[[tp]]\nname = \"ECHO\"\nprogram = \"\"\n", 3, "[[tp]] program must not be empty"},
    {"TP name empty", "[[tp]]\nname = \"\"\nprogram = \"/bin/cat\"\n", 2,
     "[[tp]] name \"\" is not 1-64 printable ASCII characters (no leading or trailing blank)"},
    {"TP name with a tab", "[[tp]]\nname = \"A\\tB\"\nprogram = \"/bin/cat\"\n", 2,
     "[[tp]] name \"A\tB\" is not 1-64 printable ASCII characters (no leading or trailing blank)"},
    {"duplicate TP name",
     "[[tp]]\nname = \"ECHO\"\nprogram = \"/bin/cat\"\n[[tp]]\nname = \"ECHO\"\nprogram = \"/bin/cat\"\n", 5,
     "duplicate TP name \"ECHO\" (also at line 2)"},
    {"arguments not an array", "[[tp]]\nname = \"E\"\nprogram = \"/bin/cat\"\narguments = \"-v\"\n", 4,
     "[[tp]] arguments must be an array of strings"},
    {"arguments holding a number",
     "[[tp]]\nname = \"E\"\nprogram = \"/bin/cat\"\narguments = [\n  \"-v\",\n  3,\n]\n", 6,
     "[[tp]] arguments must hold only strings"},
    {"directory relative", "[[tp]]\nname = \"E\"\nprogram = \"/bin/cat\"\ndirectory = \"srv\"\n", 4,
     "[[tp]] directory must be an absolute path"},
    {"log file relative", "[[tp]]\nname = \"E\"\nprogram = \"/bin/cat\"\nlog_file = \"echo.log\"\n", 4,
     "[[tp]] log_file must be an absolute path"},
    {"environment not a table", "[[tp]]\nname = \"E\"\nprogram = \"/bin/cat\"\nenvironment = [\"A=B\"]\n", 4,
     "[[tp]] environment must be a table of strings"},
    {"environment value a number",
     "[[tp]]\nname = \"E\"\nprogram = \"/bin/cat\"\n[tp.environment]\nA = \"x\"\nB = 2\n", 6,
     "[[tp]] environment.B must be a string"},
    {"environment sets APPCTPN",
     "[[tp]]\nname = \"E\"\nprogram = \"/bin/cat\"\nenvironment = { APPCTPN = \"X\" }\n", 4,
     "[[tp]] environment APPCTPN is set by the node for every program"},
    {"environment sets SNANODE_SOCKET",
     "[[tp]]\nname = \"E\"\nprogram = \"/bin/cat\"\n[tp.environment]\nSNANODE_SOCKET = \"/x\"\n", 5,
     "[[tp]] environment SNANODE_SOCKET is set by the node for every program"},
    {"environment name invalid",
     "[[tp]]\nname = \"E\"\nprogram = \"/bin/cat\"\nenvironment = { \"A-B\" = \"X\" }\n", 4,
     "[[tp]] environment \"A-B\" is not a variable name (letters, digits, _)"},
    {"conversation type unknown",
     "[[tp]]\nname = \"E\"\nprogram = \"/bin/cat\"\nconversation_type = \"both\"\n", 4,
     "[[tp]] conversation_type must be \"basic\", \"mapped\" or \"either\", not \"both\""},
    {"sync level unknown", "[[tp]]\nname = \"E\"\nprogram = \"/bin/cat\"\nsync_level = \"syncpt\"\n", 4,
     "[[tp]] sync_level must be \"none\", \"confirm\" or \"either\", not \"syncpt\""},
    {"instance limit 0", "[[tp]]\nname = \"E\"\nprogram = \"/bin/cat\"\ninstance_limit = 0\n", 4,
     "[[tp]] instance_limit must be from 1 to 65535, not 0"},
    {"TP attach timeout 0", "[[tp]]\nname = \"E\"\nprogram = \"/bin/cat\"\nattach_timeout = 0\n", 4,
     "[[tp]] attach_timeout must be from 1 to 4294967, not 0"},
    {"security_required a string",
     "[[tp]]\nname = \"E\"\nprogram = \"/bin/cat\"\nsecurity_required = \"yes\"\n", 4,
     "[[tp]] security_required must be true or false"},
    {"only_when_unregistered a number",
     "[[tp]]\nname = \"E\"\nprogram = \"/bin/cat\"\nonly_when_unregistered = 0\n", 4,
     "[[tp]] only_when_unregistered must be true or false"},
    {"unknown key in [[tp]]", "[[tp]]\nname = \"E\"\nprogram = \"/bin/cat\"\nargs = []\n", 4,
     "unknown key \"args\" in [[tp]]"},
    // [[security_user]]
    {"plain password instead of a hash", "[[security_user]]\nuser_id = \"U\"\npassword_hash = \"secret\"\n",
     3,
     "[[security_user]] password_hash is not a crypt(3) hash this system supports (make one with snanoded "
     "--hash-password)"},
    {"hash of an unknown method", "[[security_user]]\nuser_id = \"U\"\npassword_hash = \"$99$abc$def\"\n", 3,
     "[[security_user]] password_hash is not a crypt(3) hash this system supports (make one with snanoded "
     "--hash-password)"},
    {"security user without hash", "[[security_user]]\nuser_id = \"U\"\n", 1,
     "[[security_user]] password_hash is required"},
    {"security user ID with a blank",
     "[[security_user]]\nuser_id = \"A B\"\npassword_hash = "
     "\"$6$abc$7OcfKPIpYEP9nRjnIUtSqx2WnA8rBhp9hbWeY.1ZFaXfy8sVDS7RmpCK/g6GFHAG3fK4xzdkS.FOlmOu1vyVv/\"\n",
     2, "[[security_user]] user_id \"A B\" is not 1-10 printable ASCII characters without blanks"},
    {"duplicate user ID",
     "[[security_user]]\nuser_id = \"U\"\npassword_hash = "
     "\"$6$abc$7OcfKPIpYEP9nRjnIUtSqx2WnA8rBhp9hbWeY.1ZFaXfy8sVDS7RmpCK/g6GFHAG3fK4xzdkS.FOlmOu1vyVv/\"\n"
     "[[security_user]]\nuser_id = \"U\"\npassword_hash = "
     "\"$6$abc$7OcfKPIpYEP9nRjnIUtSqx2WnA8rBhp9hbWeY.1ZFaXfy8sVDS7RmpCK/g6GFHAG3fK4xzdkS.FOlmOu1vyVv/\"\n",
     5, "duplicate user ID \"U\" (also at line 2)"},
    // Several problems: the earliest line is reported, whatever the section.
    {"earliest problem first",
     "[[tp]]\nname = \"E\"\nprogram = \"/bin/cat\"\ninstance_limit = 0\n"
     "[node]\nidle_exit = -5\n",
     4, "[[tp]] instance_limit must be from 1 to 65535, not 0"},
};

class ConfigBad : public ::testing::TestWithParam<BadCase> {};

TEST_P(ConfigBad, RefusedWithLineAndReason) {
  const BadCase& c = GetParam();
  TempFile f(c.text);
  ConfigError err;
  std::optional<DaemonConfig> cfg = load_config(f.path(), err);
  ASSERT_FALSE(cfg.has_value());
  EXPECT_EQ(err.file, f.path());
  EXPECT_EQ(err.line, c.line) << err.text();
  if (c.exact) {
    EXPECT_EQ(err.reason, c.reason);
  } else {
    EXPECT_FALSE(err.reason.empty());
    EXPECT_NE(err.reason.find(c.reason), std::string::npos) << err.reason;
  }
  EXPECT_EQ(err.text(), f.path() + ":" + std::to_string(c.line) + ": " + err.reason);
}

INSTANTIATE_TEST_SUITE_P(ConfigTable, ConfigBad, ::testing::ValuesIn(kBad));

TEST(ConfigGood, NonAsciiInStringsAndCommentsIsKept) {
  TempFile f("# f\xC3\xBCr J\xC3\xBCrgen\n[[tp]]\nname = \"ECHO\" # \xC5\x8D\n"
             "program = \"/opt/j\xC3\xBCrgen/tp\"\narguments = ['\xE3\x80\x81', \"\"\"\xC5\x8D\"\"\"]\n");
  ConfigError err;
  std::optional<DaemonConfig> cfg = load_config(f.path(), err);
  ASSERT_TRUE(cfg.has_value()) << err.text();
  ASSERT_EQ(cfg->programs.size(), 1u);
  EXPECT_EQ(cfg->programs[0].program, "/opt/j\xC3\xBCrgen/tp");
  EXPECT_EQ(cfg->programs[0].arguments, (std::vector<std::string>{"\xE3\x80\x81", "\xC5\x8D"}));
}

TEST(ConfigBad, MissingFileHasNoLine) {
  const std::string path = ::testing::TempDir() + "no-such-dir-for-nodeconfig/node.toml";
  ConfigError err;
  EXPECT_FALSE(load_config(path, err).has_value());
  EXPECT_EQ(err.file, path);
  EXPECT_EQ(err.line, 0);
  EXPECT_EQ(err.reason, "cannot read: No such file or directory");
  EXPECT_EQ(err.text(), path + ": cannot read: No such file or directory");
}

TEST(ConfigBad, DirectoryIsNotAFile) {
  ConfigError err;
  const std::string dir = ::testing::TempDir();
  EXPECT_FALSE(load_config(dir, err).has_value());
  EXPECT_EQ(err.line, 0);
  EXPECT_EQ(err.reason.rfind("cannot read: ", 0), 0u) << err.reason;
}

// ------------------------------------------------------ built-in definitions

TEST(ConfigDefaults, BuiltInDefinitions) {
  const DaemonConfig c = builtin_defaults();
  EXPECT_EQ(c.source, "built-in defaults");
  EXPECT_EQ(c.node_name, "NETWORK.LOCAL");
  ASSERT_EQ(c.node.local_lus.size(), 1u);
  EXPECT_EQ(c.node.local_lus[0].alias, "LOCAL");
  EXPECT_EQ(c.node.local_lus[0].fq_name, "NETWORK.LOCAL");
  EXPECT_EQ(c.node.local_lus[0].default_partner, "") << "its default partner is itself";
  EXPECT_TRUE(c.node.partners.empty());
  const char* names[] = {"", "#INTER", "#INTERSC", "#BATCH", "#BATCHSC"};
  ASSERT_EQ(c.node.modes.size(), 5u);
  for (size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(c.node.modes[i].name, names[i]);
    EXPECT_EQ(c.node.modes[i].session_limit, 0u);
    EXPECT_EQ(c.node.modes[i].send_buffer_size, 4096u);
    EXPECT_EQ(c.node.modes[i].pacing_window, 65536u);
  }
  EXPECT_TRUE(c.node.tp_definitions.empty());
  EXPECT_TRUE(c.programs.empty());
  EXPECT_TRUE(c.side_info.empty());
  EXPECT_TRUE(c.security_users.empty());
  EXPECT_TRUE(c.node.security_users.empty());
  EXPECT_EQ(c.node.default_attach_timeout_ms, 60000u);
  EXPECT_FALSE(c.idle_exit_set);
  EXPECT_EQ(c.idle_exit_s, 0u);
  EXPECT_TRUE(c.socket.empty());
  EXPECT_TRUE(c.state_dir.empty());
  EXPECT_TRUE(c.group.empty());
  ASSERT_TRUE(c.node.check_password);
  EXPECT_FALSE(c.node.check_password("ANY", "thing")) << "no security users: nobody passes";
}

TEST(ConfigDefaults, EmptyFileEqualsTheBuiltInDefinitions) {
  const DaemonConfig a = builtin_defaults(), b = load_ok("# nothing but a comment\n");
  ASSERT_EQ(a.node.modes.size(), b.node.modes.size());
  for (size_t i = 0; i < a.node.modes.size(); ++i) {
    EXPECT_EQ(a.node.modes[i].name, b.node.modes[i].name);
    EXPECT_EQ(a.node.modes[i].send_buffer_size, b.node.modes[i].send_buffer_size);
    EXPECT_EQ(a.node.modes[i].pacing_window, b.node.modes[i].pacing_window);
  }
  EXPECT_EQ(a.node.local_lus[0].alias, b.node.local_lus[0].alias);
  EXPECT_EQ(a.node.local_lus[0].fq_name, b.node.local_lus[0].fq_name);
  EXPECT_EQ(a.node.default_attach_timeout_ms, b.node.default_attach_timeout_ms);
  EXPECT_EQ(a.node_name, b.node_name);
}

TEST(ConfigDefaults, PingPartnerAddedOnceAndNeverOverAnOwnDefinition) {
  DaemonConfig c = builtin_defaults();
  add_ping_partner(c, "/opt/node/bin/cpicpingd");
  add_ping_partner(c, "/elsewhere/cpicpingd");
  ASSERT_EQ(c.node.tp_definitions.size(), 1u);
  ASSERT_EQ(c.programs.size(), 1u);
  EXPECT_EQ(c.node.tp_definitions[0].tp_name, "CPICPINGD");
  EXPECT_EQ(c.programs[0].tp_name, "CPICPINGD");
  EXPECT_EQ(c.programs[0].program, "/opt/node/bin/cpicpingd");
  EXPECT_EQ(c.node.tp_definitions[0].conversation_type, proto::TypeAllowed::kEither);
  EXPECT_EQ(c.node.tp_definitions[0].sync_level, proto::SyncAllowed::kEither);

  DaemonConfig own = load_ok("[[tp]]\nname = \"CPICPINGD\"\nprogram = \"/usr/bin/true\"\n");
  add_ping_partner(own, "/opt/node/bin/cpicpingd");
  ASSERT_EQ(own.programs.size(), 1u);
  EXPECT_EQ(own.programs[0].program, "/usr/bin/true");
}

}  // namespace
}  // namespace sna::config
