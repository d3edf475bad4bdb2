#include "snanoded/operator_commands.h"

#include <algorithm>
#include <cstdio>

#include "protocol/ebcdic.h"
#include "wire/wire_protocol.h"

namespace sna::daemon {
namespace {

using nlohmann::json;

std::string hex(const uint8_t* p, size_t n) {
  static const char* digits = "0123456789ABCDEF";
  std::string s;
  for (size_t i = 0; i < n; ++i) {
    s.push_back(digits[p[i] >> 4]);
    s.push_back(digits[p[i] & 15]);
  }
  return s;
}

std::string name8_text(const proto::Name8& n) {
  proto::Bytes b(n.begin(), n.end());
  for (uint8_t& c : b)
    if (c == 0) c = 0x40;  // a cleared field names the blank mode
  return proto::ebcdic_text(b);
}

const char* state_text(proto::ConvState s) {
  switch (s) {
    case proto::ConvState::kReset: return "RESET";
    case proto::ConvState::kSend: return "SEND";
    case proto::ConvState::kReceive: return "RECEIVE";
    case proto::ConvState::kConfirm: return "CONFIRM";
    case proto::ConvState::kConfirmSend: return "CONFIRM_SEND";
    case proto::ConvState::kConfirmDeallocate: return "CONFIRM_DEALLOCATE";
    case proto::ConvState::kPending: return "PENDING";
    case proto::ConvState::kSendPending: return "SEND_PENDING";
  }
  return "UNKNOWN";
}

const char* security_text(uint32_t s) {
  switch (s) {
    case 0: return "none";
    case 1: return "same";
    case 2: return "program";
    case 5: return "program_strong";
  }
  return "unknown";
}

// Text that is not UTF-8 (a login name, say) must not stop the answer.
std::string dump(const json& j) { return j.dump(-1, ' ', false, json::error_handler_t::replace); }

}  // namespace

std::string tp_name_text(const proto::Bytes& name) {
  const size_t n = proto::ebcdic_trimmed_length(name);
  if (n > 0 && name[0] < 0x40) return "SNA_SERVICE_TP_0x" + hex(name.data(), n);
  return proto::ebcdic_text(name);
}

json status_json(const StatusInput& in) {
  std::unordered_map<proto::ClientId, pid_t> pid_of;
  json clients = json::array();
  for (const ClientView& c : in.clients) {
    pid_of[c.id] = c.pid;
    clients.push_back({{"id", c.id},
                       {"pid", c.pid},
                       {"uid", c.uid},
                       {"user", c.user},
                       {"operator", c.is_operator},
                       {"word_bits", c.word_bits}});
  }
  auto client_pid = [&](proto::ClientId id) -> json {
    auto it = pid_of.find(id);
    return it == pid_of.end() ? json(nullptr) : json(it->second);
  };
  auto lu_alias = [&](size_t index) -> std::string {
    return index < in.all_lus.size() ? in.all_lus[index].alias : std::string();
  };

  json out;
  out["node"] = {{"name", in.node_name},
                 {"pid", in.pid},
                 {"socket", in.socket},
                 {"state_dir", in.state_dir},
                 {"config", in.config_source},
                 {"clients", clients}};
  json lus = json::array();
  for (size_t i = 0; i < in.local_lus.size(); ++i)
    lus.push_back({{"alias", in.local_lus[i].alias}, {"name", in.local_lus[i].fq_name}, {"default", i == 0}});
  out["local_lus"] = lus;

  json sessions = json::array();
  for (const auto& s : in.snapshot.sessions)
    sessions.push_back({{"id", s.id},
                        {"bound", s.bound},
                        {"in_use", s.in_use},
                        {"partner_lu", s.partner_fq},
                        {"mode", name8_text(s.mode)}});
  out["sessions"] = sessions;

  json convs = json::array();
  for (const auto& c : in.snapshot.conversations)
    convs.push_back({{"conv_id", c.conv_id},
                     {"tp_id", c.has_tp ? json(hex(c.tp_id.data(), 8)) : json(nullptr)},
                     {"state", state_text(c.state)},
                     {"verb_outstanding", c.verb_outstanding},
                     {"type", c.type == proto::ConvType::kMapped ? "mapped" : "basic"},
                     {"sync_level", c.sync_level ? "confirm" : "none"},
                     {"local_lu", lu_alias(c.local_lu)},
                     {"partner_lu", c.partner_fq},
                     {"mode", name8_text(c.mode)},
                     {"tp_name", tp_name_text(c.tp_name)},
                     {"client_pid", c.client ? client_pid(c.client) : json(nullptr)}});
  out["conversations"] = convs;

  json tps = json::array();
  for (const auto& t : in.snapshot.tps)
    tps.push_back({{"tp_id", hex(t.id.data(), 8)},
                   {"local_lu", lu_alias(t.local_lu)},
                   {"client_pid", client_pid(t.client)},
                   {"tp_name", tp_name_text(t.tp_name)}});
  out["tps"] = tps;

  json names = json::array();
  for (const auto& r : in.snapshot.registrations)
    names.push_back({{"name", tp_name_text(r.name)}, {"client_pid", client_pid(r.client)}});
  out["registered_names"] = names;

  json queued = json::array();
  for (const auto& q : in.snapshot.queued_attaches) {
    auto it = in.queued_ms.find(q.conv_id);
    queued.push_back({{"tp_name", tp_name_text(q.tp_name)},
                      {"conv_id", q.conv_id},
                      {"since_ms", it == in.queued_ms.end() ? 0 : it->second}});
  }
  out["queued_attaches"] = queued;
  return out;
}

json side_info_json(const SideInfoTable& table) {
  json list = json::array();
  for (const config::SideInfoEntry& e : table.entries())
    list.push_back({{"sym_dest_name", e.sym_dest_name},
                    {"partner_lu", e.partner_lu},
                    {"mode", e.mode},
                    {"tp_name", e.tp_name},
                    {"tp_name_type", e.service_tp ? "service" : "application"},
                    {"security", security_text(e.security)},
                    {"user_id", e.user_id},
                    {"password_set", !e.password.empty()},
                    {"local_lu", e.local_lu},
                    {"origin", table.operator_defined(e.sym_dest_name) ? "operator" : "file"}});
  return json{{"side_info", list}};
}

namespace {

// A definition's description for the audit log: everything but the password.
std::string describe(const config::SideInfoEntry& e) {
  std::string s = e.sym_dest_name + " (partner LU " + (e.partner_lu.empty() ? "-" : e.partner_lu) + ", mode " +
                  (e.mode.empty() ? "-" : e.mode) + ", " + (e.service_tp ? "service TP " : "TP ") +
                  (e.tp_name.empty() ? "-" : e.tp_name) + ", security " + security_text(e.security);
  if (!e.user_id.empty()) s += ", user " + e.user_id;
  if (!e.password.empty()) s += ", password set";
  if (!e.local_lu.empty()) s += ", local LU " + e.local_lu;
  return s + ")";
}

json define_side_info(const json& req, OperatorTarget& target) {
  if (!req.contains("entry") || !req["entry"].is_object())
    return json{{"error", "sideinfo_define needs \"entry\": an object of side-information keys"}};
  config::EntryFields fields;
  for (const auto& [key, value] : req["entry"].items()) {
    if (value.is_string())
      fields.emplace_back(key, value.get<std::string>());
    else
      fields.emplace_back(key, std::nullopt);
  }
  std::string reason;
  std::optional<config::SideInfoEntry> entry =
      config::check_side_info_entry(fields, target.configuration(), reason);
  if (!entry) return json{{"error", reason}};
  const std::string what = "side information defined by the operator: " + describe(*entry);
  target.side_info().define(std::move(*entry));
  target.side_info_changed(what);
  return json{{"ok", true}};
}

json delete_side_info(const json& req, OperatorTarget& target) {
  if (!req.contains("sym_dest_name") || !req["sym_dest_name"].is_string())
    return json{{"error", "sideinfo_delete needs \"sym_dest_name\": a string"}};
  const std::string name = req["sym_dest_name"].get<std::string>();
  if (!target.side_info().remove(name)) return json{{"error", "no side information entry named " + name}};
  target.side_info_changed("side information deleted by the operator: " + name);
  return json{{"ok", true}};
}

}  // namespace

std::string operator_reply(const std::string& request, OperatorTarget& target) {
  json req = json::parse(request, nullptr, false);
  if (req.is_discarded()) return dump(json{{"error", "request is not valid JSON"}});
  if (!req.is_object() || !req.contains("command") || !req["command"].is_string())
    return dump(json{{"error", "request has no command"}});
  const std::string command = req["command"].get<std::string>();
  if (command == "status") return dump(status_json(target.status_input()));
  if (command == "sideinfo") return dump(side_info_json(target.side_info()));
  if (command == "sideinfo_define") return dump(define_side_info(req, target));
  if (command == "sideinfo_delete") return dump(delete_side_info(req, target));
  if (command == "stop") {
    target.request_stop();
    return dump(json{{"ok", true}});
  }
  if (command == "trace") {
    if (!req.contains("api") || !req["api"].is_boolean())
      return dump(json{{"error", "trace needs \"api\": true or false"}});
    std::string file;
    if (req.contains("file")) {
      if (!req["file"].is_string()) return dump(json{{"error", "trace \"file\" must be a string"}});
      file = req["file"].get<std::string>();
      if (file.size() > wire::kMaxTracePath)
        return dump(json{{"error", "trace file path is too long"}});
    }
    const size_t told = target.push_trace(req["api"].get<bool>(), file);
    return dump(json{{"ok", true}, {"clients", told}});
  }
  return dump(json{{"error", "unknown command: " + command}});
}

}  // namespace sna::daemon
