#include "snanoded/side_info_service.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "wire/wire_protocol.h"

namespace sna::daemon {
namespace {

void put_text(uint8_t* out, size_t width, const std::string& text) {
  std::memset(out, ' ', width);
  std::memcpy(out, text.data(), std::min(width, text.size()));
}

// A service TP's name as 8 upper-case hex digits of its first 4 bytes.
std::string service_name_text(const std::string& name) {
  const bool hex = name.size() == 8 && std::all_of(name.begin(), name.end(), [](unsigned char c) {
                     return std::isxdigit(c) != 0;
                   });
  std::string out;
  if (hex) {
    for (char c : name) out.push_back(static_cast<char>(std::toupper(static_cast<unsigned char>(c))));
    return out;
  }
  static const char* digits = "0123456789ABCDEF";
  for (size_t i = 0; i < 4; ++i) {
    const uint8_t b = i < name.size() ? static_cast<uint8_t>(name[i]) : 0x40;
    out.push_back(digits[b >> 4]);
    out.push_back(digits[b & 15]);
  }
  return out;
}

std::vector<uint8_t> reply(uint16_t primary, uint32_t secondary, uint32_t handle = 0) {
  std::vector<uint8_t> body(wire::kNofReplyFixedSize);
  wire::NofReply r;
  r.primary = primary;
  r.secondary = secondary;
  r.target_handle = handle;
  wire::encode_nof_reply(body.data(), r);
  return body;
}

}  // namespace

SideInfoTable::SideInfoTable(std::vector<config::SideInfoEntry> file_entries) {
  set_file_entries(std::move(file_entries));
}

void SideInfoTable::set_file_entries(std::vector<config::SideInfoEntry> file_entries) {
  file_ = std::move(file_entries);
  merge();
}

void SideInfoTable::define(config::SideInfoEntry entry) {
  std::string name = entry.sym_dest_name;
  changes_[name] = std::move(entry);
  merge();
}

bool SideInfoTable::remove(const std::string& sym_dest_name) {
  const bool present = std::any_of(merged_.begin(), merged_.end(), [&](const config::SideInfoEntry& e) {
    return e.sym_dest_name == sym_dest_name;
  });
  if (!present) return false;
  changes_[sym_dest_name] = std::nullopt;
  merge();
  return true;
}

bool SideInfoTable::operator_defined(const std::string& sym_dest_name) const {
  auto it = changes_.find(sym_dest_name);
  return it != changes_.end() && it->second.has_value();
}

void SideInfoTable::merge() {
  merged_.clear();
  for (const config::SideInfoEntry& e : file_)
    if (!changes_.count(e.sym_dest_name)) merged_.push_back(e);
  for (const auto& [name, entry] : changes_)
    if (entry) merged_.push_back(*entry);
  std::sort(merged_.begin(), merged_.end(), [](const config::SideInfoEntry& a, const config::SideInfoEntry& b) {
    return side_info_key(a) < side_info_key(b);
  });
}

std::array<uint8_t, 8> side_info_key(const config::SideInfoEntry& entry) {
  std::array<uint8_t, 8> key;
  put_text(key.data(), 8, entry.sym_dest_name);
  return key;
}

std::array<uint8_t, 212> encode_side_info_entry(const config::SideInfoEntry& e) {
  std::array<uint8_t, 212> out{};
  wire::put16(out.data(), 0, 212);
  put_text(out.data() + 2, 8, e.sym_dest_name);
  put_text(out.data() + 60, 17, e.partner_lu);
  wire::put32(out.data(), 80, e.service_tp ? 1 : 0);
  put_text(out.data() + 84, 64, e.service_tp ? service_name_text(e.tp_name) : e.tp_name);
  put_text(out.data() + 148, 8, e.mode);
  wire::put32(out.data(), 156, e.security);
  put_text(out.data() + 160, 10, e.user_id);
  put_text(out.data() + 170, 10, e.password);
  if (!e.local_lu.empty()) put_text(out.data() + 180, 8, e.local_lu);
  return out;
}

std::vector<uint8_t> SideInfoService::handle(proto::ClientId client, const uint8_t* body,
                                             const std::vector<config::SideInfoEntry>& side_info) {
  const wire::Nof n = wire::decode_nof(body);
  auto owned = [&](uint32_t h) {
    auto it = handles_.find(h);
    return it != handles_.end() && it->second == client;
  };
  switch (n.opcode) {
    case nof::kOpen: {
      if (n.access != 1 && n.access != 2) return reply(nof::kParameterCheck, nof::kBadValue);
      uint32_t h = next_handle_;
      while (h == 0 || handles_.count(h)) ++h;
      next_handle_ = h + 1;
      handles_[h] = client;
      return reply(nof::kOk, 0, h);
    }
    case nof::kClose:
      if (!owned(n.target_handle)) return reply(nof::kParameterCheck, nof::kBadHandle);
      handles_.erase(n.target_handle);
      return reply(nof::kOk, 0);
    case nof::kQuerySideInfo:
      break;
    default:
      return reply(nof::kParameterCheck, nof::kUnknownOpcode);
  }

  if (!owned(n.target_handle)) return reply(nof::kParameterCheck, nof::kBadHandle);
  if (n.format != 1 || n.list_option < nof::kListFirst || n.list_option > nof::kListExact)
    return reply(nof::kParameterCheck, nof::kBadValue);
  if (n.buffer_size < wire::kSideInfoEntrySize) return reply(nof::kParameterCheck, nof::kBufferTooSmall);

  std::array<uint8_t, 8> key;
  std::memcpy(key.data(), n.sym_dest_name, 8);
  std::vector<const config::SideInfoEntry*> sorted;
  for (const config::SideInfoEntry& e : side_info) sorted.push_back(&e);
  std::stable_sort(sorted.begin(), sorted.end(), [](const auto* a, const auto* b) {
    return side_info_key(*a) < side_info_key(*b);
  });
  std::vector<const config::SideInfoEntry*> chosen;
  for (const config::SideInfoEntry* e : sorted) {
    const auto k = side_info_key(*e);
    bool take = false;
    switch (n.list_option) {
      case nof::kListFirst: take = true; break;
      case nof::kListFromKey: take = k >= key; break;
      case nof::kListAfterKey: take = k > key; break;
      case nof::kListExact: take = k == key; break;
    }
    if (take) chosen.push_back(e);
  }
  if (n.list_option == nof::kListExact && chosen.empty())
    return reply(nof::kStateCheck, nof::kNoSuchEntry);

  // As many as are wanted and fit, in the program's buffer and in a reply.
  size_t count = std::min<size_t>(chosen.size(), n.entries_wanted);
  count = std::min<size_t>(count, n.buffer_size / wire::kSideInfoEntrySize);
  count = std::min<size_t>(count, (wire::kMaxReplyFrame - wire::kHeaderSize - wire::kNofReplyFixedSize) /
                                      wire::kSideInfoEntrySize);
  std::vector<uint8_t> out = reply(nof::kOk, 0);
  wire::put16(out.data(), 2, static_cast<uint16_t>(count));
  for (size_t i = 0; i < count; ++i) {
    const auto entry = encode_side_info_entry(*chosen[i]);
    out.insert(out.end(), entry.begin(), entry.end());
  }
  return out;
}

void SideInfoService::client_closed(proto::ClientId client) {
  for (auto it = handles_.begin(); it != handles_.end();)
    it = it->second == client ? handles_.erase(it) : std::next(it);
}

}  // namespace sna::daemon
