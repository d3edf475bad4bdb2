// Reading the configuration file. Every problem found is kept with the line
// it belongs to, and the earliest is reported, so the message points at the
// first thing in the file to fix.
#include "nodeconfig/daemon_config.h"

#include <crypt.h>
#include <fcntl.h>
#include <grp.h>
#include <toml++/toml.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <set>

namespace sna::config {

std::string ConfigError::text() const {
  if (line <= 0) return file + ": " + reason;
  return file + ":" + std::to_string(line) + ": " + reason;
}

namespace {

using proto::ModeConfig;

constexpr const char* kBuiltinModes[] = {"", "#INTER", "#INTERSC", "#BATCH", "#BATCHSC"};
constexpr int64_t kMaxSeconds = 4294967;  // still fits in 32 bits as milliseconds
constexpr size_t kMaxSocketPath = 107;    // sun_path less its terminating NUL

constexpr const char* kNotQualified =
    " is not a qualified LU name (NET.LU, each part 1-8 of A-Z 0-9 @ # $, not starting with a digit)";
constexpr const char* kNotAlias = " is not 1-8 printable ASCII characters without blanks";
constexpr const char* kNotTpName = " is not 1-64 printable ASCII characters (no leading or trailing blank)";
constexpr const char* kNotUserId = " is not 1-10 printable ASCII characters without blanks";

bool name_char(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '@' || c == '#' || c == '$';
}

// LU and mode names, and each part of a qualified LU name.
bool sna_name_ok(const std::string& s) {
  if (s.empty() || s.size() > 8 || (s[0] >= '0' && s[0] <= '9')) return false;
  return std::all_of(s.begin(), s.end(), name_char);
}

bool qualified_name_ok(const std::string& s) {
  const size_t dot = s.find('.');
  if (dot == std::string::npos) return false;
  return sna_name_ok(s.substr(0, dot)) && sna_name_ok(s.substr(dot + 1));
}

bool printable(char c) { return c >= 0x20 && c <= 0x7E; }
bool graphic(char c) { return c > 0x20 && c <= 0x7E; }

bool alias_ok(const std::string& s) {
  return !s.empty() && s.size() <= 8 && std::all_of(s.begin(), s.end(), graphic);
}

bool user_id_ok(const std::string& s) {
  return !s.empty() && s.size() <= 10 && std::all_of(s.begin(), s.end(), graphic);
}

// Blank-padded fields lose trailing blanks, so a name may not end in one.
bool padded_text_ok(const std::string& s, size_t max) {
  return !s.empty() && s.size() <= max && std::all_of(s.begin(), s.end(), printable) && s.front() != ' ' &&
         s.back() != ' ';
}

bool hex8_ok(const std::string& s) {
  return s.size() == 8 &&
         std::all_of(s.begin(), s.end(), [](char c) { return std::isxdigit(static_cast<unsigned char>(c)); });
}

bool env_name_ok(const std::string& s) {
  if (s.empty() || (s[0] >= '0' && s[0] <= '9')) return false;
  return std::all_of(s.begin(), s.end(), [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
  });
}

bool group_exists(const std::string& name) {
  long size = sysconf(_SC_GETGR_R_SIZE_MAX);
  std::vector<char> buf(size > 0 ? static_cast<size_t>(size) : 16384);
  for (;;) {
    group g{};
    group* found = nullptr;
    const int rc = getgrnam_r(name.c_str(), &g, buf.data(), buf.size(), &found);
    if (rc == ERANGE && buf.size() < (1u << 24)) {
      buf.resize(buf.size() * 2);
      continue;
    }
    return rc == 0 && found != nullptr;
  }
}

bool crypt_hash_usable(const std::string& hash) {
  if (hash.empty() || hash[0] != '$') return false;
  auto data = std::make_unique<crypt_data>();
  const char* h = crypt_rn("", hash.c_str(), data.get(), static_cast<int>(sizeof(crypt_data)));
  return h && h[0] != '*';
}

std::string quoted(const std::string& s) { return "\"" + s + "\""; }

int line_of(const toml::source_region& r) { return static_cast<int>(r.begin.line); }

// One table of the file (a [section] or one [[entry]]), with what it is
// called in messages, and typed reads of its keys that report what is
// wrong with them.
class Loader;

class Section {
 public:
  Section(Loader& l, const toml::table& t, std::string label)
      : loader_(l), table_(t), label_(std::move(label)) {}

  int line() const { return line_of(table_.source()); }
  const std::string& label() const { return label_; }
  const toml::node* find(const char* key) const { return table_.get(key); }
  int key_line(const char* key) const;

  void allow_only(std::initializer_list<const char*> keys);
  bool string(const char* key, std::string& out, bool required = false);
  bool integer(const char* key, int64_t min, int64_t max, int64_t& out);
  bool boolean(const char* key, bool& out);
  bool strings(const char* key, std::vector<std::string>& out);
  bool string_table(const char* key, std::vector<std::pair<std::string, std::string>>& out,
                    std::vector<int>& lines);
  void bad(const char* key, const std::string& what);

 private:
  Loader& loader_;
  const toml::table& table_;
  std::string label_;
};

class Loader {
 public:
  explicit Loader(std::string file) : file_(std::move(file)) {}

  void fail(int line, std::string reason) { errors_.push_back(ConfigError{file_, line, std::move(reason)}); }
  bool failed() const { return !errors_.empty(); }
  ConfigError first_error() const {
    return *std::min_element(errors_.begin(), errors_.end(),
                             [](const ConfigError& a, const ConfigError& b) { return a.line < b.line; });
  }

  DaemonConfig load(const toml::table& root);

 private:
  struct LuEntry {
    proto::LocalLuConfig lu;
    bool is_default = false;
    int line = 0, default_partner_line = 0;
  };
  struct Seen {
    std::map<std::string, int> first;  // name -> line of its first use
    // Records a name; false (and an error) when it was used before.
    bool add(Loader& l, const std::string& name, int line, const std::string& what) {
      auto [it, fresh] = first.emplace(name, line);
      if (!fresh)
        l.fail(line, "duplicate " + what + " " + quoted(name) + " (also at line " +
                         std::to_string(it->second) + ")");
      return fresh;
    }
  };

  std::vector<const toml::table*> entries(const toml::table& root, const char* name);
  void read_node(const toml::table& t, DaemonConfig& c);
  void read_local_lus(const toml::table& root, DaemonConfig& c);
  void read_partners(const toml::table& root, DaemonConfig& c);
  void read_modes(const toml::table& root, DaemonConfig& c);
  void read_side_info(const toml::table& root, DaemonConfig& c);
  void read_tps(const toml::table& root, DaemonConfig& c);
  void read_security_users(const toml::table& root, DaemonConfig& c);

  std::string file_;
  std::vector<ConfigError> errors_;
  Seen aliases_;  // local and partner LU aliases share one name space
  std::vector<LuEntry> local_entries_;
  int64_t attach_timeout_s_ = 60;
};

int Section::key_line(const char* key) const {
  for (auto&& [k, v] : table_)
    if (k.str() == key) return k.source().begin.line ? line_of(k.source()) : line_of(v.source());
  return line();
}

void Section::bad(const char* key, const std::string& what) {
  loader_.fail(key_line(key), label_ + " " + key + " " + what);
}

void Section::allow_only(std::initializer_list<const char*> keys) {
  for (auto&& [k, v] : table_) {
    // An init-capture: some compilers cannot capture a structured binding.
    const bool known =
        std::any_of(keys.begin(), keys.end(), [&key = k](const char* a) { return key.str() == a; });
    if (!known) {
      const int l = k.source().begin.line ? line_of(k.source()) : line_of(v.source());
      loader_.fail(l, "unknown key " + quoted(std::string(k.str())) + " in " + label_);
    }
  }
}

bool Section::string(const char* key, std::string& out, bool required) {
  const toml::node* n = find(key);
  if (!n) {
    if (required) loader_.fail(line(), label_ + " " + key + " is required");
    return false;
  }
  if (!n->is_string()) {
    bad(key, "must be a string");
    return false;
  }
  const std::string s = n->as_string()->get();
  if (s.find('\0') != std::string::npos) {
    bad(key, "must not contain a NUL character");
    return false;
  }
  out = s;
  return true;
}

bool Section::integer(const char* key, int64_t min, int64_t max, int64_t& out) {
  const toml::node* n = find(key);
  if (!n) return false;
  if (!n->is_integer()) {
    bad(key, "must be an integer");
    return false;
  }
  const int64_t v = n->as_integer()->get();
  if (v < min || v > max) {
    bad(key,
        "must be from " + std::to_string(min) + " to " + std::to_string(max) + ", not " + std::to_string(v));
    return false;
  }
  out = v;
  return true;
}

bool Section::boolean(const char* key, bool& out) {
  const toml::node* n = find(key);
  if (!n) return false;
  if (!n->is_boolean()) {
    bad(key, "must be true or false");
    return false;
  }
  out = n->as_boolean()->get();
  return true;
}

bool Section::strings(const char* key, std::vector<std::string>& out) {
  const toml::node* n = find(key);
  if (!n) return false;
  const toml::array* a = n->as_array();
  if (!a) {
    bad(key, "must be an array of strings");
    return false;
  }
  std::vector<std::string> v;
  for (const toml::node& e : *a) {
    if (!e.is_string()) {
      loader_.fail(line_of(e.source()), label_ + " " + key + " must hold only strings");
      return false;
    }
    const std::string s = e.as_string()->get();
    if (s.find('\0') != std::string::npos) {
      loader_.fail(line_of(e.source()), label_ + " " + key + " must not contain a NUL character");
      return false;
    }
    v.push_back(s);
  }
  out = std::move(v);
  return true;
}

bool Section::string_table(const char* key, std::vector<std::pair<std::string, std::string>>& out,
                           std::vector<int>& lines) {
  const toml::node* n = find(key);
  if (!n) return false;
  const toml::table* t = n->as_table();
  if (!t) {
    bad(key, "must be a table of strings");
    return false;
  }
  bool ok = true;
  for (auto&& [k, v] : *t) {
    const int l = k.source().begin.line ? line_of(k.source()) : line_of(v.source());
    if (!v.is_string()) {
      loader_.fail(l, label_ + " " + key + "." + std::string(k.str()) + " must be a string");
      ok = false;
      continue;
    }
    const std::string s = v.as_string()->get();
    if (s.find('\0') != std::string::npos) {
      loader_.fail(l, label_ + " " + key + "." + std::string(k.str()) + " must not contain a NUL character");
      ok = false;
      continue;
    }
    out.emplace_back(std::string(k.str()), s);
    lines.push_back(l);
  }
  return ok;
}

// What a side-information entry may name: the local LU aliases, every LU
// alias (local and partner) and the modes.
struct SideInfoScope {
  std::set<std::string> local_aliases, lu_aliases, modes;
};

// One side-information entry, checked key by key; problems go to the
// section's loader. The file and an operator's definition both come here.
SideInfoEntry read_side_info_entry(Section& s, const SideInfoScope& scope) {
  s.allow_only({"sym_dest_name", "partner_lu", "mode", "tp_name", "tp_name_type", "security", "user_id",
                "password", "local_lu"});
  SideInfoEntry e;
  if (s.string("sym_dest_name", e.sym_dest_name, true) && !alias_ok(e.sym_dest_name))
    s.bad("sym_dest_name", quoted(e.sym_dest_name) + kNotAlias);
  if (s.string("partner_lu", e.partner_lu) && !e.partner_lu.empty()) {
    if (e.partner_lu.find('.') != std::string::npos) {
      if (!qualified_name_ok(e.partner_lu)) s.bad("partner_lu", quoted(e.partner_lu) + kNotQualified);
    } else if (!alias_ok(e.partner_lu)) {
      s.bad("partner_lu", quoted(e.partner_lu) + " is neither a qualified LU name nor an alias");
    } else if (!scope.lu_aliases.count(e.partner_lu)) {
      s.bad("partner_lu", quoted(e.partner_lu) + " is not the alias of a defined LU");
    }
  }
  if (s.string("mode", e.mode) && !e.mode.empty()) {
    const bool known = scope.modes.count(e.mode) != 0;
    if (!sna_name_ok(e.mode))
      s.bad("mode", quoted(e.mode) + " is not a mode name");
    else if (!known)
      s.bad("mode", quoted(e.mode) + " is not a defined mode");
  }
  std::string type = "application";
  if (s.string("tp_name_type", type) && type != "application" && type != "service")
    s.bad("tp_name_type", "must be \"application\" or \"service\", not " + quoted(type));
  e.service_tp = type == "service";
  if (s.string("tp_name", e.tp_name)) {
    if (e.service_tp) {
      if (!hex8_ok(e.tp_name))
        s.bad("tp_name", quoted(e.tp_name) + " is not 8 hex digits (a service TP name)");
      else
        std::transform(e.tp_name.begin(), e.tp_name.end(), e.tp_name.begin(), [](char ch) {
          return static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
        });
    } else if (!padded_text_ok(e.tp_name, 64)) {
      s.bad("tp_name", quoted(e.tp_name) + kNotTpName);
    }
  }
  std::string sec;
  if (s.string("security", sec)) {
    static const std::pair<const char*, uint32_t> kSec[] = {
        {"none", 0}, {"same", 1}, {"program", 2}, {"program_strong", 5}};
    auto it = std::find_if(std::begin(kSec), std::end(kSec), [&](const auto& p) { return sec == p.first; });
    if (it == std::end(kSec))
      s.bad("security",
            "must be \"none\", \"same\", \"program\" or \"program_strong\", not " + quoted(sec));
    else
      e.security = it->second;
  }
  if (s.string("user_id", e.user_id) && !e.user_id.empty() && !user_id_ok(e.user_id))
    s.bad("user_id", quoted(e.user_id) + kNotUserId);
  if (s.string("password", e.password) && !e.password.empty() && !padded_text_ok(e.password, 10))
    s.bad("password", "is not 1-10 printable ASCII characters (no leading or trailing blank)");
  if (s.string("local_lu", e.local_lu) && !e.local_lu.empty() && !scope.local_aliases.count(e.local_lu))
    s.bad("local_lu", quoted(e.local_lu) + " is not the alias of a local LU");
  return e;
}

// The tables of an array-of-tables key, or of nothing; anything else is an
// error.
std::vector<const toml::table*> Loader::entries(const toml::table& root, const char* name) {
  std::vector<const toml::table*> out;
  const toml::node* n = root.get(name);
  if (!n) return out;
  const toml::array* a = n->as_array();
  if (!a || !a->is_array_of_tables()) {
    fail(line_of(n->source()), std::string(name) + " must be an array of tables ([[" + name + "]])");
    return out;
  }
  for (const toml::node& e : *a) out.push_back(e.as_table());
  return out;
}

void Loader::read_node(const toml::table& t, DaemonConfig& c) {
  Section s(*this, t, "[node]");
  s.allow_only({"name", "socket", "state_dir", "group", "idle_exit", "attach_timeout"});
  std::string v;
  if (s.string("name", v)) {
    if (sna_name_ok(v) || qualified_name_ok(v))
      c.node_name = v;
    else
      s.bad(
          "name",
          quoted(v) +
              " is not a node name (NAME or NET.NAME, each 1-8 of A-Z 0-9 @ # $, not starting with a digit)");
  }
  if (s.string("socket", v)) {
    if (v.empty() || v[0] != '/')
      s.bad("socket", "must be an absolute path");
    else if (v.size() > kMaxSocketPath)
      s.bad("socket", "is longer than " + std::to_string(kMaxSocketPath) + " bytes");
    else
      c.socket = v;
  }
  if (s.string("state_dir", v)) {
    if (v.empty() || v[0] != '/')
      s.bad("state_dir", "must be an absolute path");
    else
      c.state_dir = v;
  }
  if (s.string("group", v)) {
    if (v.empty())
      s.bad("group", "must not be empty");
    else if (!group_exists(v))
      s.bad("group", quoted(v) + " is not a group of this system");
    else
      c.group = v;
  }
  int64_t n = 0;
  if (s.integer("idle_exit", 0, kMaxSeconds, n)) {
    c.idle_exit_s = static_cast<uint32_t>(n);
    c.idle_exit_set = true;
  }
  if (s.integer("attach_timeout", 1, kMaxSeconds, n)) attach_timeout_s_ = n;
}

void Loader::read_local_lus(const toml::table& root, DaemonConfig& c) {
  Seen names;
  int default_line = 0;
  for (const toml::table* t : entries(root, "local_lu")) {
    Section s(*this, *t, "[[local_lu]]");
    s.allow_only({"alias", "name", "default", "default_partner"});
    LuEntry e;
    e.line = s.line();
    if (s.string("name", e.lu.fq_name, true)) {
      if (!qualified_name_ok(e.lu.fq_name))
        s.bad("name", quoted(e.lu.fq_name) + kNotQualified);
      else
        names.add(*this, e.lu.fq_name, s.key_line("name"), "local LU name");
    }
    if (s.string("alias", e.lu.alias, true)) {
      if (!alias_ok(e.lu.alias))
        s.bad("alias", quoted(e.lu.alias) + kNotAlias);
      else
        aliases_.add(*this, e.lu.alias, s.key_line("alias"), "LU alias");
    }
    if (s.boolean("default", e.is_default) && e.is_default) {
      if (default_line)
        s.bad("default", "is set on a second LU (the first is at line " + std::to_string(default_line) + ")");
      else
        default_line = s.key_line("default");
    }
    if (s.string("default_partner", e.lu.default_partner)) {
      e.default_partner_line = s.key_line("default_partner");
      if (!e.lu.default_partner.empty() && !alias_ok(e.lu.default_partner)) {
        s.bad("default_partner", quoted(e.lu.default_partner) + kNotAlias);
        e.default_partner_line = 0;
      }
    }
    local_entries_.push_back(std::move(e));
  }
  if (local_entries_.empty()) {
    c.node.local_lus.push_back({"LOCAL", "NETWORK.LOCAL", ""});
    return;
  }
  auto first = std::find_if(local_entries_.begin(), local_entries_.end(),
                            [](const LuEntry& e) { return e.is_default; });
  if (first == local_entries_.end()) first = local_entries_.begin();
  c.node.local_lus.push_back(first->lu);
  for (auto it = local_entries_.begin(); it != local_entries_.end(); ++it)
    if (it != first) c.node.local_lus.push_back(it->lu);
}

void Loader::read_partners(const toml::table& root, DaemonConfig& c) {
  Seen names;
  for (const toml::table* t : entries(root, "partner_lu")) {
    Section s(*this, *t, "[[partner_lu]]");
    s.allow_only({"alias", "name", "accepts_already_verified"});
    proto::PartnerLuConfig p;
    if (s.string("name", p.fq_name, true)) {
      if (!qualified_name_ok(p.fq_name))
        s.bad("name", quoted(p.fq_name) + kNotQualified);
      else
        names.add(*this, p.fq_name, s.key_line("name"), "partner LU name");
    }
    if (s.string("alias", p.alias, true)) {
      if (!alias_ok(p.alias))
        s.bad("alias", quoted(p.alias) + kNotAlias);
      else
        aliases_.add(*this, p.alias, s.key_line("alias"), "LU alias");
    }
    s.boolean("accepts_already_verified", p.accepts_already_verified);
    c.node.partners.push_back(std::move(p));
  }
  // Default partners name an LU defined anywhere in the file.
  for (const LuEntry& e : local_entries_)
    if (e.default_partner_line && !e.lu.default_partner.empty() &&
        !aliases_.first.count(e.lu.default_partner))
      fail(e.default_partner_line, "[[local_lu]] default_partner " + quoted(e.lu.default_partner) +
                                       " is not the alias of a defined LU");
}

void Loader::read_modes(const toml::table& root, DaemonConfig& c) {
  Seen names;
  for (const toml::table* t : entries(root, "mode")) {
    Section s(*this, *t, "[[mode]]");
    s.allow_only({"name", "session_limit", "send_buffer_size", "pacing_window"});
    ModeConfig m;
    if (!s.string("name", m.name, true)) continue;
    if (!m.name.empty() && !sna_name_ok(m.name)) {
      s.bad("name", quoted(m.name) +
                        " is not a mode name (1-8 of A-Z 0-9 @ # $, not starting with a digit; \"\" for the "
                        "blank mode)");
      continue;
    }
    if (m.name == "SNASVCMG" || m.name == "CPSVCMG") {
      s.bad("name", quoted(m.name) + " is reserved for the node's own sessions");
      continue;
    }
    if (!names.add(*this, m.name, s.key_line("name"), "mode")) continue;
    int64_t n = 0;
    if (s.integer("session_limit", 0, 32767, n)) m.session_limit = static_cast<uint32_t>(n);
    if (s.integer("send_buffer_size", 256, 65535, n)) m.send_buffer_size = static_cast<uint32_t>(n);
    if (s.integer("pacing_window", 32768, UINT32_MAX, n)) m.pacing_window = static_cast<uint32_t>(n);
    auto same = std::find_if(c.node.modes.begin(), c.node.modes.end(),
                             [&](const ModeConfig& x) { return x.name == m.name; });
    if (same != c.node.modes.end())
      *same = m;
    else
      c.node.modes.push_back(m);
  }
}

void Loader::read_side_info(const toml::table& root, DaemonConfig& c) {
  Seen names;
  SideInfoScope scope;
  // The built-in LOCAL counts too when the file defines no local LU.
  for (const auto& lu : c.node.local_lus) {
    scope.local_aliases.insert(lu.alias);
    scope.lu_aliases.insert(lu.alias);
  }
  for (const auto& [alias, line] : aliases_.first) scope.lu_aliases.insert(alias);
  for (const ModeConfig& m : c.node.modes) scope.modes.insert(m.name);
  for (const toml::table* t : entries(root, "side_info")) {
    Section s(*this, *t, "[[side_info]]");
    SideInfoEntry e = read_side_info_entry(s, scope);
    if (alias_ok(e.sym_dest_name))
      names.add(*this, e.sym_dest_name, s.key_line("sym_dest_name"), "sym_dest_name");
    c.side_info.push_back(std::move(e));
  }
  std::sort(c.side_info.begin(), c.side_info.end(),
            [](const SideInfoEntry& a, const SideInfoEntry& b) { return a.sym_dest_name < b.sym_dest_name; });
}

void Loader::read_tps(const toml::table& root, DaemonConfig& c) {
  Seen names;
  for (const toml::table* t : entries(root, "tp")) {
    Section s(*this, *t, "[[tp]]");
    s.allow_only({"name", "program", "arguments", "directory", "environment", "log_file", "conversation_type",
                  "sync_level", "attach_timeout", "instance_limit", "security_required",
                  "only_when_unregistered"});
    proto::TpDefinition d;
    TpProgram p;
    if (s.string("name", d.tp_name, true)) {
      if (!padded_text_ok(d.tp_name, 64))
        s.bad("name", quoted(d.tp_name) + kNotTpName);
      else
        names.add(*this, d.tp_name, s.key_line("name"), "TP name");
    }
    p.tp_name = d.tp_name;
    if (s.string("program", p.program, true)) {
      if (p.program.empty())
        s.bad("program", "must not be empty");
      else if (p.program[0] != '/' && p.program.find('/') != std::string::npos)
        s.bad("program", quoted(p.program) + " must be an absolute path or a name to look up in PATH");
    }
    s.strings("arguments", p.arguments);
    if (s.string("directory", p.directory) && (p.directory.empty() || p.directory[0] != '/'))
      s.bad("directory", "must be an absolute path");
    std::vector<int> lines;
    if (s.string_table("environment", p.environment, lines)) {
      for (size_t i = 0; i < p.environment.size(); ++i) {
        const std::string& name = p.environment[i].first;
        if (!env_name_ok(name))
          fail(lines[i],
               "[[tp]] environment " + quoted(name) + " is not a variable name (letters, digits, _)");
        else if (name == "APPCTPN" || name == "APPCLLU" || name == "SNANODE_SOCKET")
          fail(lines[i], "[[tp]] environment " + name + " is set by the node for every program");
      }
      std::sort(p.environment.begin(), p.environment.end());
    }
    if (s.string("log_file", p.log_file) && (p.log_file.empty() || p.log_file[0] != '/'))
      s.bad("log_file", "must be an absolute path");
    std::string v;
    if (s.string("conversation_type", v)) {
      if (v == "basic")
        d.conversation_type = proto::TypeAllowed::kBasic;
      else if (v == "mapped")
        d.conversation_type = proto::TypeAllowed::kMapped;
      else if (v == "either")
        d.conversation_type = proto::TypeAllowed::kEither;
      else
        s.bad("conversation_type", "must be \"basic\", \"mapped\" or \"either\", not " + quoted(v));
    }
    if (s.string("sync_level", v)) {
      if (v == "none")
        d.sync_level = proto::SyncAllowed::kNone;
      else if (v == "confirm")
        d.sync_level = proto::SyncAllowed::kConfirm;
      else if (v == "either")
        d.sync_level = proto::SyncAllowed::kEither;
      else
        s.bad("sync_level", "must be \"none\", \"confirm\" or \"either\", not " + quoted(v));
    }
    int64_t n = 0;
    if (s.integer("attach_timeout", 1, kMaxSeconds, n)) d.attach_timeout_ms = static_cast<uint32_t>(n * 1000);
    if (s.integer("instance_limit", 1, 65535, n)) d.instance_limit = static_cast<uint32_t>(n);
    s.boolean("security_required", d.security_required);
    s.boolean("only_when_unregistered", d.only_when_unregistered);
    c.node.tp_definitions.push_back(std::move(d));
    c.programs.push_back(std::move(p));
  }
}

void Loader::read_security_users(const toml::table& root, DaemonConfig& c) {
  Seen names;
  for (const toml::table* t : entries(root, "security_user")) {
    Section s(*this, *t, "[[security_user]]");
    s.allow_only({"user_id", "password_hash"});
    SecurityUser u;
    if (s.string("user_id", u.user_id, true)) {
      if (!user_id_ok(u.user_id))
        s.bad("user_id", quoted(u.user_id) + kNotUserId);
      else
        names.add(*this, u.user_id, s.key_line("user_id"), "user ID");
    }
    if (s.string("password_hash", u.password_hash, true) && !crypt_hash_usable(u.password_hash))
      s.bad("password_hash",
            "is not a crypt(3) hash this system supports (make one with snanoded --hash-password)");
    c.security_users.push_back(std::move(u));
  }
}

// The password check the core asks for conversation security.
void install_password_check(DaemonConfig& c) {
  auto users = std::make_shared<const std::vector<SecurityUser>>(c.security_users);
  c.node.check_password = [users](const std::string& user_id, const std::string& password) {
    for (const SecurityUser& u : *users)
      if (u.user_id == user_id) return verify_password(password, u.password_hash);
    return false;
  };
}

DaemonConfig Loader::load(const toml::table& root) {
  DaemonConfig c = builtin_defaults();
  c.node.local_lus.clear();
  c.node_name.clear();
  static const char* const kTables[] = {"node",      "local_lu", "partner_lu",   "mode",
                                        "side_info", "tp",       "security_user"};
  for (auto&& [k, v] : root) {
    const bool known =
        std::any_of(std::begin(kTables), std::end(kTables),
                    [&key = k](const char* n) { return key.str() == n; });
    if (!known) {
      const int l = k.source().begin.line ? line_of(k.source()) : line_of(v.source());
      fail(l, (v.is_table() || v.is_array_of_tables() ? "unknown table " : "unknown key ") +
                  quoted(std::string(k.str())));
    }
  }
  if (const toml::node* n = root.get("node")) {
    if (const toml::table* t = n->as_table())
      read_node(*t, c);
    else
      fail(line_of(n->source()), n->is_array_of_tables() ? "[node] must be a single table, not [[node]]"
                                                         : "node must be a table ([node])");
  }
  read_local_lus(root, c);
  read_partners(root, c);
  read_modes(root, c);
  read_side_info(root, c);
  read_tps(root, c);
  read_security_users(root, c);
  c.node.default_attach_timeout_ms = static_cast<uint32_t>(attach_timeout_s_ * 1000);
  if (c.node_name.empty()) c.node_name = c.node.local_lus.front().fq_name;
  install_password_check(c);
  return c;
}

bool read_file(const std::string& path, std::string& out) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char buf[65536];
  for (;;) {
    const ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      const int e = errno;
      ::close(fd);
      errno = e;
      return false;
    }
    if (n == 0) break;
    out.append(buf, static_cast<size_t>(n));
  }
  ::close(fd);
  return true;
}

// The TOML library (3.3) reaches an unreachable point, undefined
// behaviour, when it tests some non-ASCII characters for whitespace: it
// does so outside strings and comments, and after a line-ending backslash
// in a multi-line basic string. Such characters are refused there before
// the library sees them; outside strings and comments no non-ASCII
// character is valid TOML anyway. A quote is taken to open a string only
// where the library would open one: at the start of a key part or of a
// value. Inside a value that began otherwise (a number, say) the library
// reads on to the value's end, quotes and all, testing each character.
bool toml_library_safe(const std::string& text, int& line, std::string& reason) {
  enum class In { kCode, kComment, kBasic, kLiteral, kMultiBasic, kMultiLiteral };
  In in = In::kCode;
  bool string_may_open = true;  // a key part or a value may begin here
  bool in_value_token = false;  // inside a value that did not begin with a quote
  bool after_equals = false;    // this line's key has had its '='
  int depth = 0;                // open arrays and inline tables
  line = 1;
  const size_t n = text.size();
  auto at = [&](size_t i) { return i < n ? text[i] : '\0'; };
  auto triple = [&](size_t i, char q) { return at(i) == q && at(i + 1) == q && at(i + 2) == q; };
  for (size_t i = 0; i < n; ++i) {
    const char c = text[i];
    if (c == '\n') {
      ++line;
      if (in == In::kComment || in == In::kBasic || in == In::kLiteral) in = In::kCode;
      if (in == In::kCode) {
        string_may_open = true;
        in_value_token = false;
        after_equals = false;
      }
      continue;
    }
    switch (in) {
      case In::kCode: {
        if (static_cast<unsigned char>(c) >= 0x80) {
          reason = "non-ASCII character outside a string or comment";
          return false;
        }
        const bool value = after_equals || depth > 0;
        if (c == '#') {
          in = In::kComment;
        } else if (c == ' ' || c == '\t' || c == '\r') {
          in_value_token = false;
        } else if (in_value_token && (c == '\0' || !std::strchr("]},", c))) {
          // Still the same value, as far as the library reads.
        } else if ((c == '"' || c == '\'') && string_may_open) {
          const bool multi = triple(i, c);
          in = c == '"' ? (multi ? In::kMultiBasic : In::kBasic) : (multi ? In::kMultiLiteral : In::kLiteral);
          if (multi) i += 2;
          string_may_open = false;
        } else {
          in_value_token = false;
          string_may_open = false;
          if (c == '=') {
            after_equals = true;
            string_may_open = true;
          } else if (c == ',') {
            string_may_open = true;
          } else if (c == '[' || c == '{') {
            if (value) ++depth;
            string_may_open = true;
          } else if (c == ']' || c == '}') {
            if (depth > 0) --depth;
          } else if (c == '.' && !value) {
            string_may_open = true;  // a dotted key's next part
          } else if (value) {
            in_value_token = true;
          }
        }
        break;
      }
      case In::kComment:
        break;
      case In::kBasic:
        if (c == '\\' && at(i + 1) != '\n') ++i;
        else if (c == '"') in = In::kCode;
        break;
      case In::kLiteral:
        if (c == '\'') in = In::kCode;
        break;
      case In::kMultiBasic:
        if (c == '\\') {
          size_t j = i + 1;
          if (at(j) != ' ' && at(j) != '\t' && at(j) != '\r' && at(j) != '\n') {
            ++i;  // an escape: the next character is taken as it is
            break;
          }
          // A line-ending backslash: the whitespace after it is trimmed.
          while (at(j) == ' ' || at(j) == '\t' || at(j) == '\r' || at(j) == '\n') {
            if (at(j) == '\n') ++line;
            ++j;
          }
          if (static_cast<unsigned char>(at(j)) >= 0x80) {
            reason = "non-ASCII character right after a line-ending backslash";
            return false;
          }
          i = j - 1;
        } else if (triple(i, '"')) {
          in = In::kCode;
          i += 2;
        }
        break;
      case In::kMultiLiteral:
        if (triple(i, '\'')) {
          in = In::kCode;
          i += 2;
        }
        break;
    }
  }
  return true;
}

}  // namespace

void add_ping_partner(DaemonConfig& c, const std::string& program) {
  static const char kName[] = "CPICPINGD";
  for (const TpProgram& p : c.programs)
    if (p.tp_name == kName) return;
  proto::TpDefinition d;
  d.tp_name = kName;
  c.node.tp_definitions.push_back(d);
  TpProgram p;
  p.tp_name = kName;
  p.program = program;
  c.programs.push_back(p);
}

DaemonConfig builtin_defaults() {
  DaemonConfig c;
  c.source = "built-in defaults";
  c.node.local_lus.push_back({"LOCAL", "NETWORK.LOCAL", ""});
  c.node_name = c.node.local_lus.front().fq_name;
  for (const char* name : kBuiltinModes) {
    ModeConfig m;
    m.name = name;
    m.session_limit = 0;
    m.send_buffer_size = 4096;
    m.pacing_window = 65536;
    c.node.modes.push_back(m);
  }
  c.node.default_attach_timeout_ms = 60000;
  install_password_check(c);
  return c;
}

std::optional<DaemonConfig> load_config(const std::string& path, ConfigError& error) {
  error = ConfigError{path, 0, ""};
  std::string text;
  if (!read_file(path, text)) {
    error.reason = std::string("cannot read: ") + std::strerror(errno);
    return std::nullopt;
  }
  if (!toml_library_safe(text, error.line, error.reason)) return std::nullopt;
  toml::table root;
  try {
    root = toml::parse(text, path);
  } catch (const toml::parse_error& e) {
    error.line = static_cast<int>(e.source().begin.line);
    error.reason = std::string(e.description());
    return std::nullopt;
  }
  Loader loader(path);
  DaemonConfig c = loader.load(root);
  if (loader.failed()) {
    error = loader.first_error();
    return std::nullopt;
  }
  c.source = path;
  return c;
}

std::optional<SideInfoEntry> check_side_info_entry(const EntryFields& fields, const DaemonConfig& config,
                                                   std::string& reason) {
  // The fields become the table a file would hold, so the one reader
  // checks both; a value that is not text stands in as a boolean, which
  // the reader refuses as it refuses any other non-string.
  toml::table table;
  for (const auto& [key, text] : fields) {
    if (text)
      table.insert_or_assign(key, *text);
    else
      table.insert_or_assign(key, false);
  }
  SideInfoScope scope;
  for (const auto& lu : config.node.local_lus) {
    scope.local_aliases.insert(lu.alias);
    scope.lu_aliases.insert(lu.alias);
  }
  for (const auto& p : config.node.partners) scope.lu_aliases.insert(p.alias);
  for (const ModeConfig& m : config.node.modes) scope.modes.insert(m.name);
  Loader loader(config.source);
  Section section(loader, table, "side information");
  SideInfoEntry e = read_side_info_entry(section, scope);
  if (loader.failed()) {
    reason = loader.first_error().reason;
    return std::nullopt;
  }
  reason.clear();
  return e;
}

}  // namespace sna::config
