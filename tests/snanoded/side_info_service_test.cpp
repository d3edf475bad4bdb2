// Node-operator records: open, query side information with every list
// option, close, and every error.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "snanoded/side_info_service.h"
#include "wire/wire_protocol.h"

namespace sna::daemon {
namespace {

config::SideInfoEntry entry(const std::string& name, const std::string& tp = "TPX") {
  config::SideInfoEntry e;
  e.sym_dest_name = name;
  e.partner_lu = "NETWORK.LOCAL";
  e.mode = "#INTER";
  e.tp_name = tp;
  return e;
}

struct Reply {
  uint16_t primary;
  uint32_t secondary;
  uint32_t handle;
  std::vector<std::string> names;  // symbolic destination names returned
  std::vector<uint8_t> raw;
};

class SideInfoServiceTest : public ::testing::Test {
 protected:
  SideInfoServiceTest() {
    // Out of order on purpose: the service lists in byte order.
    side_info_ = {entry("DELTA"), entry("ALPHA"), entry("CHARLIE"), entry("BRAVO")};
  }

  Reply send(proto::ClientId client, const wire::Nof& n) {
    uint8_t body[wire::kNofFixedSize];
    wire::encode_nof(body, n);
    Reply r;
    r.raw = service_.handle(client, body, side_info_);
    EXPECT_GE(r.raw.size(), wire::kNofReplyFixedSize);
    const wire::NofReply h = wire::decode_nof_reply(r.raw.data());
    r.primary = h.primary;
    r.secondary = h.secondary;
    r.handle = h.target_handle;
    EXPECT_EQ(r.raw.size(), wire::kNofReplyFixedSize + h.entries * wire::kSideInfoEntrySize);
    for (size_t i = 0; i < h.entries; ++i) {
      const uint8_t* e = r.raw.data() + wire::kNofReplyFixedSize + i * wire::kSideInfoEntrySize;
      std::string name(reinterpret_cast<const char*>(e + 2), 8);
      name.erase(name.find_last_not_of(' ') + 1);
      r.names.push_back(name);
    }
    return r;
  }

  uint32_t open(proto::ClientId client, uint8_t access = 2) {
    wire::Nof n;
    n.opcode = nof::kOpen;
    n.access = access;
    const Reply r = send(client, n);
    EXPECT_EQ(r.primary, 0);
    EXPECT_NE(r.handle, 0u);
    return r.handle;
  }

  Reply query(proto::ClientId client, uint32_t handle, uint8_t option, const std::string& key = "",
              uint16_t wanted = 100, uint32_t buffer = 100 * 212, uint8_t format = 1) {
    wire::Nof n;
    n.opcode = nof::kQuerySideInfo;
    n.format = format;
    n.target_handle = handle;
    n.buffer_size = buffer;
    n.entries_wanted = wanted;
    n.list_option = option;
    std::memset(n.sym_dest_name, ' ', 8);
    std::memcpy(n.sym_dest_name, key.data(), std::min<size_t>(8, key.size()));
    return send(client, n);
  }

  SideInfoService service_;
  std::vector<config::SideInfoEntry> side_info_;
};

using Names = std::vector<std::string>;

TEST_F(SideInfoServiceTest, ListOptions) {
  const uint32_t h = open(1);
  struct Case {
    uint8_t option;
    const char* key;
    Names expected;
  };
  const Case cases[] = {
      {1, "", {"ALPHA", "BRAVO", "CHARLIE", "DELTA"}},
      {1, "ZULU", {"ALPHA", "BRAVO", "CHARLIE", "DELTA"}},  // the key does not matter
      {2, "BRAVO", {"BRAVO", "CHARLIE", "DELTA"}},
      {2, "BRAV", {"BRAVO", "CHARLIE", "DELTA"}},
      {2, "ECHO", {}},
      {3, "BRAVO", {"CHARLIE", "DELTA"}},
      {3, "DELTA", {}},
      {3, "A", {"ALPHA", "BRAVO", "CHARLIE", "DELTA"}},
      {4, "CHARLIE", {"CHARLIE"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << "option " << int(c.option) << " key " << c.key);
    const Reply r = query(1, h, c.option, c.key);
    EXPECT_EQ(r.primary, 0);
    EXPECT_EQ(r.secondary, 0u);
    EXPECT_EQ(r.names, c.expected);
  }
}

TEST_F(SideInfoServiceTest, ExactNameMissing) {
  const uint32_t h = open(1);
  const Reply r = query(1, h, 4, "UNKNOWN");
  EXPECT_EQ(r.primary, 0x0002);
  EXPECT_EQ(r.secondary, 0x00001058u);
  EXPECT_TRUE(r.names.empty());
  // Names compare as exact bytes: lower case is another name.
  EXPECT_EQ(query(1, h, 4, "alpha").primary, 0x0002);
}

TEST_F(SideInfoServiceTest, AsManyAsWantedAndFit) {
  const uint32_t h = open(1);
  struct Case {
    uint16_t wanted;
    uint32_t buffer;
    size_t returned;
  };
  const Case cases[] = {
      {100, 212, 1}, {100, 423, 1}, {100, 424, 2}, {100, 4 * 212, 4}, {100, 100000, 4},
      {2, 100000, 2}, {1, 100000, 1}, {0, 100000, 0}, {3, 2 * 212, 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << "wanted " << c.wanted << " buffer " << c.buffer);
    const Reply r = query(1, h, 1, "", c.wanted, c.buffer);
    EXPECT_EQ(r.primary, 0);
    ASSERT_EQ(r.names.size(), c.returned);
    if (c.returned) {
      EXPECT_EQ(r.names[0], "ALPHA");
    }
  }
}

TEST_F(SideInfoServiceTest, Errors) {
  const uint32_t h = open(1);
  struct Case {
    const char* name;
    wire::Nof record;
    proto::ClientId client;
    uint16_t primary;
    uint32_t secondary;
  };
  auto q = [&](auto change) {
    wire::Nof n;
    n.opcode = nof::kQuerySideInfo;
    n.format = 1;
    n.target_handle = h;
    n.buffer_size = 212;
    n.entries_wanted = 1;
    n.list_option = 1;
    change(n);
    return n;
  };
  const Case cases[] = {
      {"unknown opcode", q([](wire::Nof& n) { n.opcode = 0x2122; }), 1, 1, 1},
      {"query on handle 0", q([](wire::Nof& n) { n.target_handle = 0; }), 1, 1, 2},
      {"query on a handle never opened", q([&](wire::Nof& n) { n.target_handle = h + 1000; }), 1, 1, 2},
      {"query on another client's handle", q([](wire::Nof&) {}), 2, 1, 2},
      {"format 0", q([](wire::Nof& n) { n.format = 0; }), 1, 1, 3},
      {"format 2", q([](wire::Nof& n) { n.format = 2; }), 1, 1, 3},
      {"list option 0", q([](wire::Nof& n) { n.list_option = 0; }), 1, 1, 3},
      {"list option 5", q([](wire::Nof& n) { n.list_option = 5; }), 1, 1, 3},
      {"buffer 211", q([](wire::Nof& n) { n.buffer_size = 211; }), 1, 1, 4},
      {"buffer 0", q([](wire::Nof& n) { n.buffer_size = 0; }), 1, 1, 4},
      {"open with access 0", q([](wire::Nof& n) { n.opcode = nof::kOpen; n.access = 0; }), 1, 1, 3},
      {"open with access 3", q([](wire::Nof& n) { n.opcode = nof::kOpen; n.access = 3; }), 1, 1, 3},
      {"close of a handle never opened", q([&](wire::Nof& n) { n.opcode = nof::kClose; n.target_handle = 999; }), 1, 1, 2},
      {"close of another client's handle", q([](wire::Nof& n) { n.opcode = nof::kClose; }), 2, 1, 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Reply r = send(c.client, c.record);
    EXPECT_EQ(r.primary, c.primary);
    EXPECT_EQ(r.secondary, c.secondary);
    EXPECT_TRUE(r.names.empty());
  }
  // None of those closed the handle.
  EXPECT_EQ(query(1, h, 1).primary, 0);
}

TEST_F(SideInfoServiceTest, OpenBothAccessKindsAndClose) {
  const uint32_t a = open(1, 1);
  const uint32_t b = open(1, 2);
  EXPECT_NE(a, b);
  EXPECT_EQ(service_.open_handles(), 2u);
  wire::Nof close;
  close.opcode = nof::kClose;
  close.target_handle = a;
  EXPECT_EQ(send(1, close).primary, 0);
  // Closed: refused from now on.
  const Reply again = send(1, close);
  EXPECT_EQ(again.primary, 1);
  EXPECT_EQ(again.secondary, 2u);
  EXPECT_EQ(query(1, a, 1).secondary, 2u);
  EXPECT_EQ(query(1, b, 1).primary, 0);
}

TEST_F(SideInfoServiceTest, ClosingClientDropsItsHandles) {
  const uint32_t mine = open(1);
  const uint32_t theirs = open(2);
  service_.client_closed(1);
  EXPECT_EQ(query(1, mine, 1).secondary, 2u);
  EXPECT_EQ(query(2, theirs, 1).primary, 0);
  EXPECT_EQ(service_.open_handles(), 1u);
}

TEST(SideInfoEntryEncoding, FieldsAtTheirOffsets) {
  config::SideInfoEntry e;
  e.sym_dest_name = "DEST1";
  e.partner_lu = "NETA.LUONE";
  e.mode = "#BATCH";
  e.tp_name = "PAYROLL";
  e.security = 5;
  e.user_id = "ALICE";
  e.password = "SECRET";
  e.local_lu = "LOCAL";
  const auto b = encode_side_info_entry(e);
  auto text = [&](size_t off, size_t n) { return std::string(reinterpret_cast<const char*>(b.data() + off), n); };
  EXPECT_EQ(wire::get16(b.data(), 0), 212);
  EXPECT_EQ(text(2, 8), "DEST1   ");
  for (size_t i = 10; i < 60; ++i) EXPECT_EQ(b[i], 0) << i;
  EXPECT_EQ(text(60, 17), "NETA.LUONE       ");
  EXPECT_EQ(b[77], 0);
  EXPECT_EQ(b[78], 0);
  EXPECT_EQ(b[79], 0);
  EXPECT_EQ(wire::get32(b.data(), 80), 0u);
  EXPECT_EQ(text(84, 64), "PAYROLL" + std::string(57, ' '));
  EXPECT_EQ(text(148, 8), "#BATCH  ");
  EXPECT_EQ(wire::get32(b.data(), 156), 5u);
  EXPECT_EQ(text(160, 10), "ALICE     ");
  EXPECT_EQ(text(170, 10), "SECRET    ");
  EXPECT_EQ(text(180, 8), "LOCAL   ");
  for (size_t i = 188; i < 212; ++i) EXPECT_EQ(b[i], 0) << i;
}

TEST(SideInfoEntryEncoding, ServiceTpAndNoLocalLu) {
  config::SideInfoEntry e;
  e.sym_dest_name = "SVC";
  e.partner_lu = "PARTNER";
  e.tp_name = "06f1abcd";
  e.service_tp = true;
  const auto b = encode_side_info_entry(e);
  EXPECT_EQ(wire::get32(b.data(), 80), 1u);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(b.data() + 84), 8), "06F1ABCD");
  EXPECT_EQ(b[92], ' ');
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(b.data() + 60), 17), "PARTNER          ");
  for (size_t i = 180; i < 188; ++i) EXPECT_EQ(b[i], 0) << i;
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(b.data() + 148), 8), "        ");
}

}  // namespace
}  // namespace sna::daemon
