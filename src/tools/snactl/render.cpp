#include "render.h"

#include <algorithm>
#include <cctype>
#include <sstream>

namespace sna::tools {

using nlohmann::json;

std::string cell_text(const json& value) {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
  if (value.is_null()) return "-";
  return value.dump();
}

namespace {

std::string upper(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return s;
}

const std::vector<Column> kLuColumns = {{"alias", "ALIAS"}, {"name", "NAME"}, {"default", "DEFAULT"}};
const std::vector<Column> kSessionColumns = {{"id", "ID"},         {"local_lu", "LOCAL LU"},
                                             {"partner_lu", "PARTNER LU"}, {"mode", "MODE"},
                                             {"bound", "BOUND"},   {"in_use", "IN USE"}};
const std::vector<Column> kClientColumns = {{"id", "ID"},     {"pid", "PID"},
                                            {"uid", "UID"},   {"user", "USER"},
                                            {"word_bits", "BITS"}, {"operator", "OPERATOR"}};
const std::vector<Column> kConversationColumns = {
    {"conv_id", "CONV ID"},     {"tp_id", "TP ID"},         {"state", "STATE"},
    {"type", "TYPE"},           {"sync_level", "SYNC"},     {"local_lu", "LOCAL LU"},
    {"partner_lu", "PARTNER LU"}, {"mode", "MODE"},         {"tp_name", "TP NAME"},
    {"client_pid", "PID"}};
const std::vector<Column> kTpColumns = {
    {"tp_id", "TP ID"}, {"local_lu", "LOCAL LU"}, {"client_pid", "PID"}, {"tp_name", "TP NAME"}};
const std::vector<Column> kRegisteredColumns = {{"name", "TP NAME"}, {"client_pid", "PID"}};
const std::vector<Column> kQueuedColumns = {
    {"tp_name", "TP NAME"}, {"conv_id", "CONV ID"}, {"since_ms", "WAITING MS"}};
const std::vector<Column> kSideInfoColumns = {
    {"sym_dest_name", "NAME"}, {"partner_lu", "PARTNER LU"}, {"mode", "MODE"},
    {"tp_name", "TP NAME"},    {"tp_name_type", "TP TYPE"},  {"security", "SECURITY"},
    {"user_id", "USER ID"},    {"password_set", "PASSWORD"}, {"local_lu", "LOCAL LU"},
    {"origin", "ORIGIN"}};

// Passwords are not shown, whatever the node sends.
bool hidden(const std::string& key) { return key == "password"; }

}  // namespace

std::string render_table(const json& rows, const std::vector<Column>& preferred) {
  if (!rows.is_array() || rows.empty()) return "  (none)\n";
  std::vector<Column> columns;
  auto any_row_has = [&](const std::string& key) {
    return std::any_of(rows.begin(), rows.end(),
                       [&](const json& r) { return r.is_object() && r.contains(key); });
  };
  for (const Column& c : preferred)
    if (any_row_has(c.first)) columns.push_back(c);
  for (const json& r : rows) {
    if (!r.is_object()) continue;
    for (auto it = r.begin(); it != r.end(); ++it) {
      const std::string& key = it.key();
      if (hidden(key)) continue;
      if (std::none_of(columns.begin(), columns.end(),
                       [&](const Column& c) { return c.first == key; }))
        columns.push_back({key, upper(key)});
    }
  }
  if (columns.empty()) {
    // Rows that are not objects: one value per line.
    std::string out;
    for (const json& r : rows) out += "  " + cell_text(r) + "\n";
    return out;
  }

  std::vector<std::vector<std::string>> cells;
  std::vector<size_t> width;
  for (const Column& c : columns) width.push_back(c.second.size());
  for (const json& r : rows) {
    std::vector<std::string> line;
    for (size_t i = 0; i < columns.size(); ++i) {
      std::string text = r.is_object() && r.contains(columns[i].first)
                             ? cell_text(r.at(columns[i].first))
                             : "";
      width[i] = std::max(width[i], text.size());
      line.push_back(std::move(text));
    }
    cells.push_back(std::move(line));
  }
  auto emit = [&](const std::vector<std::string>& line) {
    std::string out = " ";
    for (size_t i = 0; i < line.size(); ++i) {
      out += " " + line[i];
      if (i + 1 < line.size()) out += std::string(width[i] - line[i].size() + 1, ' ');
    }
    while (!out.empty() && out.back() == ' ') out.pop_back();
    return out + "\n";
  };
  std::vector<std::string> headings;
  for (const Column& c : columns) headings.push_back(c.second);
  std::string out = emit(headings);
  for (const auto& line : cells) out += emit(line);
  return out;
}

std::string render_status(const json& status) {
  std::ostringstream out;
  const json node = status.contains("node") ? status.at("node") : json::object();
  auto field = [&](const char* key) {
    return node.is_object() && node.contains(key) ? cell_text(node.at(key)) : std::string("-");
  };
  out << "Node " << field("name") << " (pid " << field("pid") << ")\n";
  out << "  socket:     " << field("socket") << "\n";
  out << "  state dir:  " << field("state_dir") << "\n";
  out << "  config:     " << field("config") << "\n";
  // The node lists its clients; the count goes in the header, the list
  // in a table of its own.
  const json clients = node.is_object() && node.contains("clients") ? node.at("clients") : json();
  out << "  clients:    " << (clients.is_array() ? std::to_string(clients.size()) : cell_text(clients))
      << "\n";
  // Node fields beyond the usual ones, in case the node reports more.
  if (node.is_object()) {
    for (auto it = node.begin(); it != node.end(); ++it) {
      static const char* known[] = {"name", "pid", "socket", "state_dir", "config", "clients"};
      if (std::any_of(std::begin(known), std::end(known),
                      [&](const char* k) { return it.key() == k; }))
        continue;
      std::string label = it.key() + ":";
      out << "  " << label << std::string(label.size() < 12 ? 12 - label.size() : 1, ' ')
          << cell_text(it.value()) << "\n";
    }
  }
  struct Section {
    const char* key;
    const char* title;
    const std::vector<Column>* columns;
  };
  static const Section sections[] = {
      {"local_lus", "Local LUs", &kLuColumns},
      {"sessions", "Sessions", &kSessionColumns},
      {"conversations", "Conversations", &kConversationColumns},
      {"tps", "TPs", &kTpColumns},
      {"registered_names", "Registered TP names", &kRegisteredColumns},
      {"queued_attaches", "Queued allocations", &kQueuedColumns},
  };
  if (clients.is_array()) {
    out << "\nClients\n" << render_table(clients, kClientColumns);
  }
  for (const Section& s : sections) {
    out << "\n" << s.title << "\n";
    out << render_table(status.contains(s.key) ? status.at(s.key) : json::array(), *s.columns);
  }
  return out.str();
}

const json* side_info_entries(const json& answer) {
  if (answer.is_array()) return &answer;
  if (answer.is_object() && answer.contains("side_info") && answer.at("side_info").is_array())
    return &answer.at("side_info");
  return nullptr;
}

std::string render_side_info_list(const json& entries) {
  return render_table(entries, kSideInfoColumns);
}

std::string render_side_info_entry(const json& entry) {
  std::ostringstream out;
  std::vector<std::string> keys;
  for (const Column& c : kSideInfoColumns)
    if (entry.contains(c.first)) keys.push_back(c.first);
  for (auto it = entry.begin(); it != entry.end(); ++it)
    if (!hidden(it.key()) && std::find(keys.begin(), keys.end(), it.key()) == keys.end())
      keys.push_back(it.key());
  size_t width = 0;
  for (const std::string& k : keys) width = std::max(width, k.size());
  for (const std::string& k : keys)
    out << k << ":" << std::string(width - k.size() + 2, ' ') << cell_text(entry.at(k)) << "\n";
  return out.str();
}

}  // namespace sna::tools
