// The runtime's daemon client against a scripted daemon in the test: verb
// translation on this word size, completion delivery, blocking waits and
// the process-wide lock, connection loss, node-operator records, trace
// pushes.
#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "client.h"
#include "fake_daemon.h"
#include "snanode/node.h"
#include "snanode/verbs.h"
#include "temp_dir.h"

namespace {

using snanode_test::FakeDaemon;
using snanode_test::Request;
namespace wire = sna::wire;

constexpr size_t kBlockSize = 256;
constexpr uint8_t kFill = 0xEE;

uint16_t primary_of(const uint8_t *block) { return static_cast<uint16_t>(block[4] << 8 | block[5]); }
uint32_t secondary_of(const uint8_t *block) {
  return static_cast<uint32_t>(block[8]) << 24 | static_cast<uint32_t>(block[9]) << 16 |
         static_cast<uint32_t>(block[10]) << 8 | block[11];
}

template <typename T>
void put(uint8_t *block, size_t offset, T value) {
  memcpy(block + offset, &value, sizeof value);
}
void put_bytes(uint8_t *block, size_t offset, const std::vector<uint8_t> &bytes) {
  memcpy(block + offset, bytes.data(), bytes.size());
}
template <typename T>
T get(const uint8_t *block, size_t offset) {
  T value;
  memcpy(&value, block + offset, sizeof value);
  return value;
}

std::vector<uint8_t> run_of(uint8_t first, size_t n) {
  std::vector<uint8_t> bytes(n);
  for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>(first + i);
  return bytes;
}

template <size_t N>
void set(uint8_t (&field)[N], const std::vector<uint8_t> &bytes) {
  ASSERT_EQ(bytes.size(), N);
  memcpy(field, bytes.data(), N);
}

pid_t thread_id() { return static_cast<pid_t>(syscall(SYS_gettid)); }

// ---- completion routines -------------------------------------------------

struct Call {
  void *vcb;
  uint32_t correlator;
  pid_t thread;
  uint32_t lock_depth;
};

struct Calls {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<Call> calls;
  // Runs inside the routine, before it is recorded.
  std::function<void(void *vcb, uint32_t correlator)> action;

  void reset() {
    std::lock_guard<std::mutex> lock(mutex);
    calls.clear();
    action = nullptr;
  }
  bool wait_for(size_t n, int timeout_ms = 5000) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                            [&] { return calls.size() >= n; });
  }
  std::vector<Call> snapshot() {
    std::lock_guard<std::mutex> lock(mutex);
    return calls;
  }
};

Calls calls;

void record_call(void *vcb, uint32_t, uint32_t, uint32_t correlator) {
  Call call{vcb, correlator, thread_id(), snanode_lock_depth()};
  if (calls.action) calls.action(vcb, correlator);
  std::lock_guard<std::mutex> lock(calls.mutex);
  calls.calls.push_back(call);
  calls.changed.notify_all();
}

// An ordered record of what happened, from any thread.
struct EventLog {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> entries;
  void add(const std::string &entry) {
    std::lock_guard<std::mutex> lock(mutex);
    entries.push_back(entry);
    changed.notify_all();
  }
  bool wait_for(const std::string &entry, int timeout_ms = 5000) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] {
      for (auto &e : entries)
        if (e == entry) return true;
      return false;
    });
  }
  std::vector<std::string> snapshot() {
    std::lock_guard<std::mutex> lock(mutex);
    return entries;
  }
};

// ---- fixture ---------------------------------------------------------------

std::string state_directory() {
  static const std::string directory = snanode_test::make_temp_dir();
  return directory;
}

class Client : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("SNANODE_STATE_DIR", state_directory().c_str(), 1);
    setenv("SNANODE_AUTOSTART", "0", 1);
    directory_ = snanode_test::make_temp_dir();
    socket_ = directory_ + "/socket";
    setenv("SNANODE_SOCKET", socket_.c_str(), 1);
    daemon_ = std::make_unique<FakeDaemon>(socket_);
    calls.reset();
  }

  void TearDown() override {
    daemon_.reset();
    // The next test starts from a runtime that connects afresh.
    EXPECT_TRUE(snanode::client_wait_state(snanode::LinkState::kDisconnected, 5000));
    calls.reset();
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }

  Request next() {
    Request request;
    EXPECT_TRUE(daemon_->next_request(&request)) << "no request reached the daemon";
    return request;
  }

  static wire::VerbReply ok(uint32_t outputs = 0) {
    wire::VerbReply reply;
    reply.outputs = outputs;
    return reply;
  }

  std::string directory_;
  std::string socket_;
  std::unique_ptr<FakeDaemon> daemon_;
};

// A zeroed block for a conversation verb.
struct Block {
  alignas(8) uint8_t bytes[kBlockSize];
  explicit Block(uint16_t opcode, uint32_t conv_id = 0) {
    memset(bytes, 0, sizeof bytes);
    put<uint16_t>(bytes, 0, opcode);
    put<uint32_t>(bytes, 20, conv_id);
  }
  uint8_t *data() { return bytes; }
};

// ---- translation of every opcode ---------------------------------------------

struct VerbCase {
  const char *name;
  // Writes the block's inputs and the wire fields they must give.
  std::function<void(uint8_t *block, wire::Verb &expected)> inputs;
  // The bytes behind the pointer field that must travel.
  std::vector<uint8_t> data;
  // Writes into the expected block the outputs this opcode has among `mask`.
  std::function<void(uint8_t *block, const wire::VerbReply &reply, uint32_t mask)> outputs;
};

// Conversation verbs: opext, format, tp_id and conv_id from the header.
void conversation(uint8_t *block, wire::Verb &v, uint16_t opcode) {
  put<uint16_t>(block, 0, opcode);
  block[2] = 1;
  block[3] = 0;
  put_bytes(block, 12, run_of(0x21, 8));
  put<uint32_t>(block, 20, 0x01020304);
  v.opcode = opcode;
  v.opext = 1;
  v.format = 0;
  set(v.tp_id, run_of(0x21, 8));
  v.conv_id = 0x01020304;
}

// Bytes 2 and 3 travel whatever the verb.
void header_bytes(uint8_t *block, wire::Verb &v, uint8_t opext, uint8_t format) {
  block[2] = opext;
  block[3] = format;
  v.opext = opext;
  v.format = format;
}

void no_outputs(uint8_t *, const wire::VerbReply &, uint32_t) {}

void rts_at(uint8_t *block, const wire::VerbReply &r, uint32_t mask, size_t offset) {
  if (mask & wire::kOutRts) block[offset] = r.rts_received;
}

// Static storage for the pointer fields of the cases.
uint8_t send_bytes[5] = {'H', 'E', 'L', 'L', 'O'};
uint8_t log_bytes[3] = {0xC1, 0xC2, 0xC3};
uint8_t error_log_bytes[4] = {1, 2, 3, 4};
uint8_t receive_buffer[64];

std::vector<VerbCase> verb_cases() {
  std::vector<VerbCase> cases;
  cases.push_back({"ALLOCATE",
                   [](uint8_t *b, wire::Verb &v) {
                     put<uint16_t>(b, 0, VERB_ALLOCATE);
                     b[2] = 1;
                     b[3] = 1;
                     put_bytes(b, 12, run_of(0x31, 8));
                     b[25] = 1;
                     b[28] = 1;
                     put_bytes(b, 40, {'P', 'A', 'R', 'T', 'N', 'E', 'R', ' '});
                     put_bytes(b, 48, run_of(0x41, 8));
                     put_bytes(b, 56, run_of(0x50, 64));
                     b[120] = 5;
                     put_bytes(b, 132, run_of(0x90, 10));
                     put_bytes(b, 142, run_of(0xA0, 10));
                     put<uint16_t>(b, 152, 0x0102);
                     put_bytes(b, 161, run_of(0xB0, 17));
                     v.opcode = VERB_ALLOCATE;
                     v.opext = 1;
                     v.format = 1;
                     set(v.tp_id, run_of(0x31, 8));
                     v.sync_level = 1;
                     v.return_control = 1;
                     set(v.partner_lu_alias, {'P', 'A', 'R', 'T', 'N', 'E', 'R', ' '});
                     set(v.mode_name, run_of(0x41, 8));
                     set(v.tp_name, run_of(0x50, 64));
                     v.security = 5;
                     set(v.password, run_of(0x90, 10));
                     set(v.user_id, run_of(0xA0, 10));
                     v.pip_length = 0x0102;
                     set(v.partner_lu_name, run_of(0xB0, 17));
                   },
                   {},
                   [](uint8_t *b, const wire::VerbReply &r, uint32_t mask) {
                     if (mask & wire::kOutConvId) put<uint32_t>(b, 20, r.conv_id);
                   }});
  cases.push_back({"CONFIRM", [](uint8_t *b, wire::Verb &v) { conversation(b, v, VERB_CONFIRM); },
                   {},
                   [](uint8_t *b, const wire::VerbReply &r, uint32_t m) { rts_at(b, r, m, 24); }});
  cases.push_back({"CONFIRMED", [](uint8_t *b, wire::Verb &v) { conversation(b, v, VERB_CONFIRMED); },
                   {}, no_outputs});
  cases.push_back({"DEALLOCATE",
                   [](uint8_t *b, wire::Verb &v) {
                     conversation(b, v, VERB_DEALLOCATE);
                     b[25] = 2;
                     put<uint16_t>(b, 26, 3);
                     put<void *>(b, offsetof(VCB_DEALLOCATE, log_data), log_bytes);
                     v.type = 2;
                     v.data_length = 3;
                   },
                   {0xC1, 0xC2, 0xC3}, no_outputs});
  cases.push_back({"FLUSH", [](uint8_t *b, wire::Verb &v) { conversation(b, v, VERB_FLUSH); }, {},
                   no_outputs});
  cases.push_back({"GET_STATE", [](uint8_t *b, wire::Verb &v) { conversation(b, v, VERB_GET_STATE); },
                   {},
                   [](uint8_t *b, const wire::VerbReply &r, uint32_t mask) {
                     if (mask & wire::kOutState) b[24] = r.state;
                   }});
  cases.push_back({"PREPARE_TO_RECEIVE",
                   [](uint8_t *b, wire::Verb &v) {
                     conversation(b, v, VERB_PREPARE_TO_RECEIVE);
                     b[24] = 1;
                     b[25] = 3;
                     v.type = 1;
                     v.locks = 3;
                   },
                   {}, no_outputs});
  for (uint16_t opcode : {VERB_RECEIVE_AND_WAIT, VERB_RECEIVE_IMMEDIATELY}) {
    cases.push_back({opcode == VERB_RECEIVE_AND_WAIT ? "RECEIVE_AND_WAIT" : "RECEIVE_IMMEDIATELY",
                     [opcode](uint8_t *b, wire::Verb &v) {
                       conversation(b, v, opcode);
                       b[26] = 1;
                       b[27] = 1;
                       put<uint16_t>(b, 30, 64);
                       put<void *>(b, offsetof(VCB_RECEIVE, buffer), receive_buffer);
                       v.return_status_with_data = 1;
                       v.fill = 1;
                       v.max_length = 64;
                     },
                     {},
                     [](uint8_t *b, const wire::VerbReply &r, uint32_t mask) {
                       if (mask & wire::kOutReceive) {
                         put<uint16_t>(b, 24, r.what_received);
                         put<uint16_t>(b, 32, 0);  // no data bytes came
                       }
                       rts_at(b, r, mask, 28);
                     }});
  }
  cases.push_back({"REQUEST_TO_SEND",
                   [](uint8_t *b, wire::Verb &v) { conversation(b, v, VERB_REQUEST_TO_SEND); }, {},
                   no_outputs});
  cases.push_back({"SEND_DATA",
                   [](uint8_t *b, wire::Verb &v) {
                     conversation(b, v, VERB_SEND_DATA);
                     put<uint16_t>(b, 26, 5);
                     put<void *>(b, offsetof(VCB_SEND_DATA, data), send_bytes);
                     b[offsetof(VCB_SEND_DATA, send_type)] = 3;
                     v.data_length = 5;
                     v.send_type = 3;
                   },
                   {'H', 'E', 'L', 'L', 'O'},
                   [](uint8_t *b, const wire::VerbReply &r, uint32_t m) { rts_at(b, r, m, 24); }});
  cases.push_back({"SEND_ERROR",
                   [](uint8_t *b, wire::Verb &v) {
                     conversation(b, v, VERB_SEND_ERROR);
                     b[25] = 1;
                     b[26] = 1;
                     put<uint16_t>(b, 28, 4);
                     put<void *>(b, 32, error_log_bytes);
                     v.error_type = 1;
                     v.direction = 1;
                     v.data_length = 4;
                   },
                   {1, 2, 3, 4},
                   [](uint8_t *b, const wire::VerbReply &r, uint32_t m) { rts_at(b, r, m, 24); }});
  cases.push_back({"TEST_RTS", [](uint8_t *b, wire::Verb &v) { conversation(b, v, VERB_TEST_RTS); },
                   {}, no_outputs});
  cases.push_back({"TP_ENDED",
                   [](uint8_t *b, wire::Verb &v) {
                     put<uint16_t>(b, 0, VERB_TP_ENDED);
                     header_bytes(b, v, 0, 0);
                     put_bytes(b, 12, run_of(0x61, 8));
                     b[20] = 1;
                     v.opcode = VERB_TP_ENDED;
                     set(v.tp_id, run_of(0x61, 8));
                     v.type = 1;
                   },
                   {}, no_outputs});
  cases.push_back({"TP_STARTED",
                   [](uint8_t *b, wire::Verb &v) {
                     put<uint16_t>(b, 0, VERB_TP_STARTED);
                     header_bytes(b, v, 0, 0);
                     put_bytes(b, 12, {'L', 'O', 'C', 'A', 'L', ' ', ' ', ' '});
                     put_bytes(b, 28, run_of(0x70, 64));
                     v.opcode = VERB_TP_STARTED;
                     set(v.local_lu_alias, {'L', 'O', 'C', 'A', 'L', ' ', ' ', ' '});
                     set(v.tp_name, run_of(0x70, 64));
                   },
                   {},
                   [](uint8_t *b, const wire::VerbReply &r, uint32_t mask) {
                     if (mask & wire::kOutLocalLuAlias) memcpy(b + 12, r.local_lu_alias, 8);
                     if (mask & wire::kOutTpId) memcpy(b + 20, r.tp_id, 8);
                   }});
  cases.push_back({"CANCEL_CONVERSATION",
                   [](uint8_t *b, wire::Verb &v) { conversation(b, v, VERB_CANCEL_CONVERSATION); },
                   {}, no_outputs});
  cases.push_back({"RECEIVE_ALLOCATE_CPIC",
                   [](uint8_t *b, wire::Verb &v) {
                     put<uint16_t>(b, 0, VERB_RECEIVE_ALLOCATE_CPIC);
                     header_bytes(b, v, 1, 1);
                     put<uint32_t>(b, 84, 0x1234);
                     put<uint16_t>(b, 192, 1);
                     v.opcode = VERB_RECEIVE_ALLOCATE_CPIC;
                     v.correlator = 0x1234;
                   },
                   {},
                   [](uint8_t *b, const wire::VerbReply &r, uint32_t mask) {
                     if (mask & wire::kOutAttach) {
                       memcpy(b + 12, r.tp_name, 64);
                       b[88] = r.sync_level;
                       b[89] = r.conversation_type;
                       memcpy(b + 90, r.user_id, 10);
                       memcpy(b + 116, r.mode_name, 8);
                       memcpy(b + 132, r.partner_lu_name, 17);
                     }
                     if (mask & wire::kOutTpId) memcpy(b + 76, r.tp_id, 8);
                     if (mask & wire::kOutLocalLuAlias) memcpy(b + 100, r.local_lu_alias, 8);
                     if (mask & wire::kOutConvId) put<uint32_t>(b, 84, r.conv_id);
                   }});
  for (uint16_t opcode : {VERB_REGISTER_TP_NAME, VERB_WITHDRAW_TP_NAME}) {
    cases.push_back({opcode == VERB_REGISTER_TP_NAME ? "REGISTER_TP_NAME" : "WITHDRAW_TP_NAME",
                     [opcode](uint8_t *b, wire::Verb &v) {
                       put<uint16_t>(b, 0, opcode);
                       header_bytes(b, v, 0, 0);
                       put_bytes(b, 12, run_of(0xE2, 64));
                       v.opcode = opcode;
                       set(v.tp_name, run_of(0xE2, 64));
                     },
                     {}, no_outputs});
  }
  return cases;
}

// Every output field set, each to its own value.
wire::VerbReply full_reply(uint32_t mask) {
  wire::VerbReply r;
  r.primary = 0x0003;
  r.secondary = 0x10086021;
  r.outputs = mask;
  r.what_received = 0x0201;
  r.conv_id = 0x0A0B0C0D;
  r.rts_received = 1;
  r.state = 5;
  r.sync_level = 1;
  r.conversation_type = 1;
  set(r.tp_id, run_of(0x81, 8));
  set(r.local_lu_alias, {'L', 'U', 'A', 'L', 'I', 'A', 'S', ' '});
  set(r.tp_name, run_of(0x10, 64));
  set(r.user_id, run_of(0xD0, 10));
  set(r.mode_name, run_of(0xF0, 8));
  set(r.partner_lu_name, run_of(0x60, 17));
  r.data_length = 0;
  return r;
}

TEST_F(Client, EveryOpcodeReachesTheWireAndEveryOutputItsOffset) {
  const uint32_t every = wire::kOutConvId | wire::kOutRts | wire::kOutState | wire::kOutReceive |
                         wire::kOutTpId | wire::kOutLocalLuAlias | wire::kOutAttach;
  std::vector<uint32_t> masks = {every, 0};
  for (uint32_t bit = 1; bit <= wire::kOutAttach; bit <<= 1) masks.push_back(bit);

  for (const VerbCase &c : verb_cases()) {
    for (uint32_t mask : masks) {
      SCOPED_TRACE(std::string(c.name) + " mask " + std::to_string(mask));
      calls.reset();
      alignas(8) uint8_t block[kBlockSize];
      memset(block, kFill, sizeof block);
      memset(receive_buffer, kFill, sizeof receive_buffer);
      wire::Verb expected;
      c.inputs(block, expected);
      uint8_t before[kBlockSize];
      memcpy(before, block, sizeof block);

      ASSERT_EQ(appc_c_async_version(2, block, record_call, 0x55), APPC_VERB_IN_PROGRESS);
      Request request = next();
      ASSERT_EQ(request.header.kind, wire::Kind::kVerb);
      ASSERT_EQ(request.body.size(), wire::kVerbFixedSize + c.data.size());
      uint8_t want[wire::kVerbFixedSize], got[wire::kVerbFixedSize];
      wire::encode_verb(want, expected);
      memcpy(got, request.body.data(), sizeof got);
      for (size_t i = 0; i < sizeof want; ++i)
        ASSERT_EQ(got[i], want[i]) << "wire byte " << i;
      EXPECT_EQ(request.data(), c.data);

      wire::VerbReply reply = full_reply(mask);
      daemon_->reply_verb(request, reply);
      ASSERT_TRUE(calls.wait_for(1));

      uint8_t expected_block[kBlockSize];
      memcpy(expected_block, before, sizeof before);
      expected_block[4] = 0x00;  // codes big-endian
      expected_block[5] = 0x03;
      expected_block[8] = 0x10;
      expected_block[9] = 0x08;
      expected_block[10] = 0x60;
      expected_block[11] = 0x21;
      c.outputs(expected_block, reply, mask);
      for (size_t i = 0; i < sizeof block; ++i)
        ASSERT_EQ(block[i], expected_block[i]) << "block byte " << i;
      // No data came, so the buffer is as it was.
      for (uint8_t byte : receive_buffer) ASSERT_EQ(byte, kFill);
      auto seen = calls.snapshot();
      ASSERT_EQ(seen.size(), 1u);
      EXPECT_EQ(seen[0].vcb, block);
      EXPECT_EQ(seen[0].correlator, 0x55u);
    }
  }
}

TEST_F(Client, ReceivedDataGoesIntoTheBufferUpToItsMaximum) {
  struct Case {
    uint16_t max_length;
    size_t sent;
    uint16_t expect_length;
  };
  for (Case c : {Case{10, 4, 4}, Case{4, 10, 4}, Case{0, 3, 0}, Case{64, 0, 0}}) {
    SCOPED_TRACE(std::to_string(c.max_length) + "/" + std::to_string(c.sent));
    Block block(VERB_RECEIVE_AND_WAIT, 7);
    std::vector<uint8_t> buffer(80, kFill);
    put<uint16_t>(block.data(), 30, c.max_length);
    put<void *>(block.data(), offsetof(VCB_RECEIVE, buffer), buffer.data());
    std::thread caller([&] { appc_c_version(2, block.data()); });
    Request request = next();
    EXPECT_EQ(request.verb().max_length, c.max_length);
    wire::VerbReply reply = ok(wire::kOutReceive);
    reply.what_received = 0x0200;
    reply.data_length = static_cast<uint32_t>(c.sent);
    daemon_->reply_verb(request, reply, run_of(0x41, c.sent));
    caller.join();
    EXPECT_EQ(primary_of(block.data()), 0);
    EXPECT_EQ(get<uint16_t>(block.data(), 24), 0x0200);
    EXPECT_EQ(get<uint16_t>(block.data(), 32), c.expect_length);
    for (size_t i = 0; i < buffer.size(); ++i)
      ASSERT_EQ(buffer[i], i < c.expect_length ? 0x41 + i : kFill) << "buffer byte " << i;
  }
  // The stream stayed in step after the discarded bytes.
  Block get_state(VERB_GET_STATE, 7);
  std::thread caller([&] { appc_c_version(2, get_state.data()); });
  Request request = next();
  wire::VerbReply reply = ok(wire::kOutState);
  reply.state = 2;
  daemon_->reply_verb(request, reply);
  caller.join();
  EXPECT_EQ(get_state.bytes[24], 2);
}

TEST_F(Client, LongLengthsArePassedOnWithoutTheirBytes) {
  std::vector<uint8_t> data(40000, 0x5A);
  struct Case {
    uint16_t length;
    size_t carried;
  };
  for (Case c : {Case{32767, 32767}, Case{32768, 0}, Case{40000, 0}}) {
    Block block(VERB_SEND_DATA, 9);
    put<uint16_t>(block.data(), 26, c.length);
    put<void *>(block.data(), offsetof(VCB_SEND_DATA, data), data.data());
    std::thread caller([&] { appc_c_version(2, block.data()); });
    Request request = next();
    EXPECT_EQ(request.verb().data_length, c.length);
    EXPECT_EQ(request.data().size(), c.carried);
    wire::VerbReply reply = ok();
    reply.primary = 0x0001;
    reply.secondary = 0x00000102;
    daemon_->reply_verb(request, reply);
    caller.join();
    EXPECT_EQ(primary_of(block.data()), 0x0001);
    EXPECT_EQ(secondary_of(block.data()), 0x00000102u);
  }
}

// Verbs the runtime answers itself: at once, no callback, nothing sent.
TEST_F(Client, RefusedAtOnceWithoutCallback) {
  struct Case {
    const char *name;
    uint16_t version;
    std::function<void(uint8_t *)> fill;
    uint16_t primary;
    uint32_t secondary;
  };
  const Case cases[] = {
      {"version 1", 1, [](uint8_t *b) { put<uint16_t>(b, 0, VERB_FLUSH); }, 0xF004, 0},
      {"version 0", 0, [](uint8_t *b) { put<uint16_t>(b, 0, VERB_FLUSH); }, 0xF004, 0},
      {"version 3", 3, [](uint8_t *b) { put<uint16_t>(b, 0, VERB_FLUSH); }, 0xF004, 0},
      {"opcode 0x0002", 2, [](uint8_t *b) { put<uint16_t>(b, 0, 0x0002); }, 0xF004, 0},
      {"opcode 0x0099", 2, [](uint8_t *b) { put<uint16_t>(b, 0, 0x0099); }, 0xF004, 0},
      {"opcode 0xFFFF", 2, [](uint8_t *b) { put<uint16_t>(b, 0, 0xFFFF); }, 0xF004, 0},
      {"send data null", 2,
       [](uint8_t *b) {
         put<uint16_t>(b, 0, VERB_SEND_DATA);
         put<uint16_t>(b, 26, 1);
       },
       0x0001, 0x00000102},
      {"deallocate log null", 2,
       [](uint8_t *b) {
         put<uint16_t>(b, 0, VERB_DEALLOCATE);
         put<uint16_t>(b, 26, 5);
       },
       0x0001, 0x00000102},
      {"send error log null", 2,
       [](uint8_t *b) {
         put<uint16_t>(b, 0, VERB_SEND_ERROR);
         put<uint16_t>(b, 28, 5);
       },
       0x0001, 0x00000102},
      {"receive buffer null", 2,
       [](uint8_t *b) {
         put<uint16_t>(b, 0, VERB_RECEIVE_IMMEDIATELY);
         put<uint16_t>(b, 30, 10);
       },
       0x0001, 0x00000102},
  };
  for (const Case &c : cases) {
    for (bool with_callback : {true, false}) {
      SCOPED_TRACE(std::string(c.name) + (with_callback ? " async" : " blocking"));
      alignas(8) uint8_t block[kBlockSize];
      memset(block, 0, sizeof block);
      c.fill(block);
      uint16_t result = with_callback ? appc_c_async_version(c.version, block, record_call, 1)
                                      : appc_c_async_version(c.version, block, nullptr, 0);
      EXPECT_EQ(result, APPC_VERB_DONE);
      EXPECT_EQ(primary_of(block), c.primary);
      EXPECT_EQ(secondary_of(block), c.secondary);
    }
  }
  // Nothing reached the daemon: the first request it sees is this one.
  Block flush(VERB_FLUSH, 77);
  ASSERT_EQ(appc_c_async_version(2, flush.data(), record_call, 2), APPC_VERB_IN_PROGRESS);
  Request request = next();
  EXPECT_EQ(request.verb().opcode, VERB_FLUSH);
  EXPECT_EQ(request.verb().conv_id, 77u);
  daemon_->reply_verb(request, ok());
  ASSERT_TRUE(calls.wait_for(1));
  auto seen = calls.snapshot();
  ASSERT_EQ(seen.size(), 1u) << "no routine runs for verbs answered at once";
  EXPECT_EQ(seen[0].correlator, 2u);
}

TEST_F(Client, HelloCarriesWordSizeAndPid) {
  Block block(VERB_FLUSH, 1);
  ASSERT_EQ(appc_c_async_version(2, block.data(), record_call, 0), APPC_VERB_IN_PROGRESS);
  Request request = next();
  daemon_->reply_verb(request, ok());
  ASSERT_TRUE(calls.wait_for(1));
  auto hellos = daemon_->hellos();
  ASSERT_EQ(hellos.size(), 1u);
  EXPECT_EQ(hellos[0].hello.magic, wire::kMagic);
  EXPECT_EQ(hellos[0].hello.version, wire::kVersion);
  EXPECT_EQ(hellos[0].hello.word_bits, sizeof(void *) * 8);
  EXPECT_EQ(hellos[0].hello.pid, static_cast<uint32_t>(getpid()));
  EXPECT_EQ(hellos[0].hello.flags, 0u);
  EXPECT_EQ(request.connection, hellos[0].connection);
}

TEST_F(Client, CallbacksRunInReplyOrderOnOneThreadWithoutTheLock) {
  // The test thread holds the process-wide lock throughout: a runtime that
  // took it for a routine would never get there.
  uint16_t token = vpm_lock();
  Block blocks[3] = {Block(VERB_FLUSH, 10), Block(VERB_FLUSH, 11), Block(VERB_FLUSH, 12)};
  Request requests[3];
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(appc_c_async_version(2, blocks[i].data(), record_call, 100 + i), APPC_VERB_IN_PROGRESS);
    requests[i] = next();
    EXPECT_EQ(requests[i].verb().conv_id, 10u + i);
  }
  const int order[3] = {2, 0, 1};
  for (int i : order) daemon_->reply_verb(requests[i], ok());
  ASSERT_TRUE(calls.wait_for(3));
  auto seen = calls.snapshot();
  ASSERT_EQ(seen.size(), 3u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(seen[i].correlator, 100u + order[i]);
    EXPECT_EQ(seen[i].vcb, blocks[order[i]].data());
    EXPECT_EQ(seen[i].lock_depth, 0u);
    EXPECT_NE(seen[i].thread, thread_id());
    EXPECT_EQ(seen[i].thread, seen[0].thread) << "one runtime thread";
  }
  vpm_unlock(token);
}

TEST_F(Client, CompletionMakesTheEventDescriptorReadable) {
  int fd = vpm_asm_event_fd();
  ASSERT_GE(fd, 0);
  snanode_asm_event_clear();
  pollfd entry = {fd, POLLIN, 0};
  ASSERT_EQ(poll(&entry, 1, 0), 0);
  Block block(VERB_FLUSH, 1);
  ASSERT_EQ(appc_c_async_version(2, block.data(), record_call, 0), APPC_VERB_IN_PROGRESS);
  daemon_->reply_verb(next(), ok());
  ASSERT_TRUE(calls.wait_for(1));
  EXPECT_EQ(poll(&entry, 1, 5000), 1);
  snanode_asm_event_clear();
}

TEST_F(Client, BlockingVerbReleasesTheLockWhileItWaits) {
  Block block(VERB_RECEIVE_AND_WAIT, 5);
  std::atomic<uint32_t> depth_after{99};
  std::thread caller([&] {
    uint16_t outer = vpm_lock();
    uint16_t inner = vpm_lock();  // held twice: given up completely, retaken twice
    appc_c_version(2, block.data());
    depth_after = snanode_lock_depth();
    vpm_unlock(inner);
    vpm_unlock(outer);
  });
  Request request = next();
  // The caller waits; another thread can take the lock meanwhile.
  std::mutex m;
  std::condition_variable cv;
  bool locked = false;
  std::thread other([&] {
    uint16_t token = vpm_lock();
    {
      std::lock_guard<std::mutex> lock(m);
      locked = true;
    }
    cv.notify_all();
    vpm_unlock(token);
  });
  {
    std::unique_lock<std::mutex> lock(m);
    EXPECT_TRUE(cv.wait_for(lock, std::chrono::seconds(5), [&] { return locked; }));
  }
  daemon_->reply_verb(request, ok());
  caller.join();
  other.join();
  EXPECT_EQ(depth_after, 2u);
  EXPECT_EQ(primary_of(block.data()), 0);
}

TEST_F(Client, BlockingVerbFromACompletionRoutineKeepsDelivering) {
  Block first(VERB_FLUSH, 1), inner(VERB_GET_STATE, 2), other(VERB_FLUSH, 3);
  EventLog log;
  std::atomic<pid_t> routine_thread{0};
  calls.action = [&](void *vcb, uint32_t) {
    if (vcb != first.data()) {
      log.add("other delivered");
      return;
    }
    routine_thread = thread_id();
    log.add("routine issues");
    appc_c_version(2, inner.data());  // blocking, on the runtime thread
    log.add("inner returned");
  };
  ASSERT_EQ(appc_c_async_version(2, first.data(), record_call, 1), APPC_VERB_IN_PROGRESS);
  ASSERT_EQ(appc_c_async_version(2, other.data(), record_call, 3), APPC_VERB_IN_PROGRESS);
  Request first_request = next();
  Request other_request = next();
  daemon_->reply_verb(first_request, ok());
  Request inner_request = next();  // sent from inside the routine
  EXPECT_EQ(inner_request.verb().opcode, VERB_GET_STATE);
  // Another reply arrives before the awaited one: it is delivered meanwhile.
  daemon_->reply_verb(other_request, ok());
  ASSERT_TRUE(log.wait_for("other delivered"));
  wire::VerbReply state = ok(wire::kOutState);
  state.state = 4;
  daemon_->reply_verb(inner_request, state);
  ASSERT_TRUE(calls.wait_for(2));
  EXPECT_EQ(log.snapshot(),
            (std::vector<std::string>{"routine issues", "other delivered", "inner returned"}));
  EXPECT_EQ(inner.bytes[24], 4);
  EXPECT_EQ(primary_of(inner.data()), 0);
  EXPECT_NE(routine_thread.load(), thread_id());
}

TEST_F(Client, TwoThreadsBlockedAtOnceBothComplete) {
  Block a(VERB_GET_STATE, 21), b(VERB_GET_STATE, 22);
  std::thread ta([&] { appc_c_version(2, a.data()); });
  std::thread tb([&] { appc_c_version(2, b.data()); });
  Request r1 = next(), r2 = next();
  // Answer in the opposite order of arrival, each with its own state.
  for (Request *r : {&r2, &r1}) {
    wire::VerbReply reply = ok(wire::kOutState);
    reply.state = static_cast<uint8_t>(r->verb().conv_id - 20);
    daemon_->reply_verb(*r, reply);
  }
  ta.join();
  tb.join();
  EXPECT_EQ(a.bytes[24], 1);
  EXPECT_EQ(b.bytes[24], 2);
}

// Blocked callers retake the lock in the order their replies arrived,
// whichever the scheduler wakes first.
TEST_F(Client, WokenCallersRetakeTheLockInReplyOrder) {
  for (int round = 0; round < 5; ++round) {
    SCOPED_TRACE(round);
    std::vector<uint32_t> order;  // appended under the process-wide lock
    Block blocks[3] = {Block(VERB_RECEIVE_AND_WAIT, 1), Block(VERB_RECEIVE_AND_WAIT, 2),
                       Block(VERB_RECEIVE_AND_WAIT, 3)};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
      threads.emplace_back([&, i] {
        uint16_t token = vpm_lock();
        appc_c_version(2, blocks[i].data());
        order.push_back(get<uint32_t>(blocks[i].data(), 20));
        vpm_unlock(token);
      });
    }
    std::vector<Request> requests;
    for (int i = 0; i < 3; ++i) requests.push_back(next());
    // Replies in one write, last issued first.
    std::vector<uint8_t> bytes;
    std::vector<uint32_t> reply_order;
    for (int i = 2; i >= 0; --i) {
      auto frame = FakeDaemon::verb_reply_frame(requests[i].header.tag, ok(), {});
      bytes.insert(bytes.end(), frame.begin(), frame.end());
      reply_order.push_back(requests[i].verb().conv_id);
    }
    daemon_->send_raw(requests[0].connection, bytes);
    for (auto &t : threads) t.join();
    EXPECT_EQ(order, reply_order);
  }
}

// TP_ENDED returns only after every completion sent before its reply has
// been delivered: routines called, blocked callers through the lock first.
TEST_F(Client, TpEndedReturnsAfterEarlierCompletions) {
  EventLog log;
  Block async_receive(VERB_RECEIVE_AND_WAIT, 31), blocked_receive(VERB_RECEIVE_AND_WAIT, 32);
  Block ended(VERB_TP_ENDED);
  calls.action = [&](void *, uint32_t) { log.add("routine"); };
  ASSERT_EQ(appc_c_async_version(2, async_receive.data(), record_call, 1), APPC_VERB_IN_PROGRESS);
  Request r_async = next();
  std::thread waiter([&] {
    uint16_t token = vpm_lock();
    appc_c_version(2, blocked_receive.data());
    log.add("blocked caller");
    vpm_unlock(token);
  });
  Request r_blocked = next();
  std::thread ender([&] {
    uint16_t token = vpm_lock();
    appc_c_version(2, ended.data());
    log.add("tp ended");
    vpm_unlock(token);
  });
  Request r_ended = next();
  EXPECT_EQ(r_ended.verb().opcode, VERB_TP_ENDED);
  wire::VerbReply cancelled = ok();
  cancelled.primary = 0x0021;
  std::vector<uint8_t> bytes;
  for (auto &f : {FakeDaemon::verb_reply_frame(r_blocked.header.tag, cancelled, {}),
                  FakeDaemon::verb_reply_frame(r_async.header.tag, cancelled, {}),
                  FakeDaemon::verb_reply_frame(r_ended.header.tag, ok(), {})})
    bytes.insert(bytes.end(), f.begin(), f.end());
  daemon_->send_raw(r_ended.connection, bytes);
  waiter.join();
  ender.join();
  auto entries = log.snapshot();
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries.back(), "tp ended");
  EXPECT_EQ(primary_of(async_receive.data()), 0x0021);
  EXPECT_EQ(primary_of(blocked_receive.data()), 0x0021);
}

struct PathEvents {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<uint16_t> codes;
  EventLog *log = nullptr;
  uint32_t lock_depth = 0;
};
PathEvents path_events;

int on_path_event(void *, VPM_PATH_EVENT *event) {
  uint32_t depth = snanode_lock_depth();
  if (path_events.log) path_events.log->add("path event");
  std::lock_guard<std::mutex> lock(path_events.mutex);
  path_events.codes.push_back(event->code);
  path_events.lock_depth = depth;
  path_events.changed.notify_all();
  event->result = 0;
  return 0;
}

TEST_F(Client, LossCompletesEverythingThenRaisesThePathEventThenReconnects) {
  EventLog log;
  {
    std::lock_guard<std::mutex> lock(path_events.mutex);
    path_events.codes.clear();
    path_events.log = &log;
  }
  uint32_t path_user = 0;
  vpm_init_path_user(nullptr, nullptr, on_path_event, nullptr, &path_user);
  ASSERT_NE(path_user, 0u);

  std::vector<uint8_t> buffer(16, kFill);
  Block receive(VERB_RECEIVE_AND_WAIT, 41), confirm(VERB_CONFIRM, 42), blocked(VERB_RECEIVE_AND_WAIT, 43);
  Block during(VERB_FLUSH, 44);
  memset(receive.bytes + 24, kFill, 16);  // outputs that must stay untouched
  put<uint16_t>(receive.data(), 30, 16);
  put<void *>(receive.data(), offsetof(VCB_RECEIVE, buffer), buffer.data());
  std::atomic<uint16_t> during_result{0};
  calls.action = [&](void *vcb, uint32_t correlator) {
    log.add("routine " + std::to_string(correlator));
    if (vcb == receive.data()) {
      // New verbs are refused while the loss is being delivered.
      during_result = appc_c_async_version(2, during.data(), record_call, 99);
    }
  };
  ASSERT_EQ(appc_c_async_version(2, receive.data(), record_call, 1), APPC_VERB_IN_PROGRESS);
  ASSERT_EQ(appc_c_async_version(2, confirm.data(), record_call, 2), APPC_VERB_IN_PROGRESS);
  std::thread waiter([&] {
    uint16_t token = vpm_lock();
    appc_c_version(2, blocked.data());
    log.add("blocked caller");
    vpm_unlock(token);
  });
  for (int i = 0; i < 3; ++i) next();

  daemon_->drop_connections();
  {
    std::unique_lock<std::mutex> lock(path_events.mutex);
    ASSERT_TRUE(path_events.changed.wait_for(lock, std::chrono::seconds(5),
                                             [] { return !path_events.codes.empty(); }));
  }
  waiter.join();
  ASSERT_TRUE(snanode::client_wait_state(snanode::LinkState::kDisconnected, 5000));

  auto entries = log.snapshot();
  ASSERT_EQ(entries.size(), 4u);
  EXPECT_EQ(entries.back(), "path event") << "the event comes after every completion";
  EXPECT_EQ(std::count(entries.begin(), entries.end(), "routine 1"), 1);
  EXPECT_EQ(std::count(entries.begin(), entries.end(), "routine 2"), 1);
  EXPECT_EQ(std::count(entries.begin(), entries.end(), "blocked caller"), 1);
  {
    std::lock_guard<std::mutex> lock(path_events.mutex);
    EXPECT_EQ(path_events.codes, std::vector<uint16_t>{VPM_EVENT_NODE_LOST});
    EXPECT_GE(path_events.lock_depth, 1u) << "raised under the process-wide lock";
  }
  for (Block *b : {&receive, &confirm, &blocked}) {
    EXPECT_EQ(primary_of(b->data()), 0xF003);
    EXPECT_EQ(secondary_of(b->data()), 0u);
  }
  // Codes only: the receive outputs and the buffer are as they were.
  for (int i = 24; i < 36; ++i) {
    if (i == 30 || i == 31) continue;  // the maximum length, an input
    EXPECT_EQ(receive.bytes[i], kFill) << "byte " << i;
  }
  for (uint8_t byte : buffer) EXPECT_EQ(byte, kFill);
  EXPECT_EQ(during_result.load(), APPC_VERB_DONE);
  EXPECT_EQ(primary_of(during.data()), 0xF003);

  // The next verb connects again.
  calls.reset();
  Block again(VERB_FLUSH, 45);
  ASSERT_EQ(appc_c_async_version(2, again.data(), record_call, 5), APPC_VERB_IN_PROGRESS);
  Request request = next();
  EXPECT_EQ(request.verb().conv_id, 45u);
  daemon_->reply_verb(request, ok());
  ASSERT_TRUE(calls.wait_for(1));
  EXPECT_EQ(daemon_->hellos().size(), 2u);
  EXPECT_EQ(primary_of(again.data()), 0);
  {
    std::lock_guard<std::mutex> lock(path_events.mutex);
    EXPECT_EQ(path_events.codes.size(), 1u) << "the event is raised once per loss";
  }
  vpm_terminate_path_user(path_user);
  path_events.log = nullptr;
  // The routine that recorded the refused verb never ran.
  for (const Call &c : calls.snapshot()) EXPECT_NE(c.correlator, 99u);
}

TEST_F(Client, CallersBlockedAtLossHoldTheLockBeforeThePathEvent) {
  EventLog log;
  path_events.log = &log;
  uint32_t path_user = 0;
  vpm_init_path_user(nullptr, nullptr, on_path_event, nullptr, &path_user);
  Block blocks[3] = {Block(VERB_RECEIVE_AND_WAIT, 1), Block(VERB_RECEIVE_AND_WAIT, 2),
                     Block(VERB_RECEIVE_AND_WAIT, 3)};
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&, i] {
      uint16_t token = vpm_lock();
      appc_c_version(2, blocks[i].data());
      log.add("caller " + std::to_string(i));
      vpm_unlock(token);
    });
  }
  std::vector<Request> requests;
  for (int i = 0; i < 3; ++i) requests.push_back(next());
  daemon_->drop_connections();
  for (auto &t : threads) t.join();
  ASSERT_TRUE(log.wait_for("path event"));
  ASSERT_TRUE(snanode::client_wait_state(snanode::LinkState::kDisconnected, 5000));
  auto entries = log.snapshot();
  ASSERT_EQ(entries.size(), 4u);
  // Completed in the order they were issued (the order of their tags; the
  // frames may reach the daemon in another), then the event.
  std::sort(requests.begin(), requests.end(),
            [](const Request &a, const Request &b) { return a.header.tag < b.header.tag; });
  std::vector<std::string> issued;
  for (auto &r : requests) issued.push_back("caller " + std::to_string(r.verb().conv_id - 1));
  issued.push_back("path event");
  EXPECT_EQ(entries, issued);
  vpm_terminate_path_user(path_user);
  path_events.log = nullptr;
}

TEST_F(Client, FailedWriteIsALossWithItsErrno) {
  Block first(VERB_FLUSH, 1);
  ASSERT_EQ(appc_c_async_version(2, first.data(), record_call, 1), APPC_VERB_IN_PROGRESS);
  Request request = next();
  daemon_->reply_verb(request, ok());
  ASSERT_TRUE(calls.wait_for(1));
  daemon_->stop_reading(request.connection);
  Block second(VERB_FLUSH, 2);
  appc_c_version(2, second.data());
  EXPECT_EQ(primary_of(second.data()), 0xF003);
  EXPECT_EQ(secondary_of(second.data()), static_cast<uint32_t>(EPIPE));
  EXPECT_TRUE(snanode::client_wait_state(snanode::LinkState::kDisconnected, 5000));
}

TEST_F(Client, NoNodeReachableGivesTheConnectErrno) {
  // A socket file nobody listens on.
  std::string stale = directory_ + "/stale";
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, stale.c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  close(fd);
  struct Case {
    std::string path;
    uint32_t error;
  };
  for (const Case &c : {Case{stale, ECONNREFUSED}, Case{directory_ + "/none", ENOENT},
                        Case{"/" + std::string(200, 'x'), ENAMETOOLONG}}) {
    SCOPED_TRACE(c.path);
    setenv("SNANODE_SOCKET", c.path.c_str(), 1);
    Block block(VERB_FLUSH, 1);
    EXPECT_EQ(appc_c_async_version(2, block.data(), record_call, 0), APPC_VERB_DONE);
    EXPECT_EQ(primary_of(block.data()), 0xF002);
    EXPECT_EQ(secondary_of(block.data()), c.error);
  }
  EXPECT_TRUE(calls.snapshot().empty());
}

TEST_F(Client, RefusedHelloIsNoNodeReachable) {
  std::string path = directory_ + "/refusing";
  FakeDaemon::Options options;
  options.hello_status = 1;
  FakeDaemon refusing(path, options);
  setenv("SNANODE_SOCKET", path.c_str(), 1);
  Block block(VERB_FLUSH, 1);
  appc_c_version(2, block.data());
  EXPECT_EQ(primary_of(block.data()), 0xF002);
  EXPECT_EQ(secondary_of(block.data()), static_cast<uint32_t>(EPROTONOSUPPORT));
  EXPECT_EQ(refusing.hellos().size(), 1u);
}

// ---- node-operator records -------------------------------------------------------

std::vector<uint8_t> wire_entry(const char *name, uint32_t tp_name_type, uint32_t security) {
  std::vector<uint8_t> entry(wire::kSideInfoEntrySize, 0);
  wire::put16(entry.data(), 0, 212);
  memset(entry.data() + 2, ' ', 8);
  memcpy(entry.data() + 2, name, strlen(name));
  memcpy(entry.data() + 60, "NET.PART", 8);
  wire::put32(entry.data(), 80, tp_name_type);
  memset(entry.data() + 84, ' ', 64);
  memcpy(entry.data() + 84, "SERVER", 6);
  wire::put32(entry.data(), 156, security);
  return entry;
}

TEST_F(Client, NodeOperatorRecordsRoundTrip) {
  // open
  alignas(8) uint8_t open_record[sizeof(NOF_OPEN_RECORD)];
  memset(open_record, 0, sizeof open_record);
  put<uint16_t>(open_record, 0, NOF_OPEN);
  open_record[12] = 2;
  std::thread opener([&] { nof_version(2, 0, open_record); });
  Request request = next();
  ASSERT_EQ(request.header.kind, wire::Kind::kNof);
  EXPECT_EQ(request.nof().opcode, NOF_OPEN);
  EXPECT_EQ(request.nof().access, 2);
  wire::NofReply opened;
  opened.target_handle = 0x77;
  daemon_->reply_nof(request, opened);
  opener.join();
  EXPECT_EQ(primary_of(open_record), 0);
  EXPECT_EQ(get<uint32_t>(open_record, 224), 0x77u);

  // query: two entries for a buffer of three, then for a buffer of one
  struct Case {
    uint32_t buffer_entries;
    uint16_t expect_copied;
  };
  for (Case c : {Case{3, 2}, Case{1, 1}}) {
    SCOPED_TRACE(c.buffer_entries);
    std::vector<uint8_t> buffer(c.buffer_entries * 212 + 8, kFill);
    alignas(8) uint8_t query[sizeof(NOF_QUERY_RECORD)];
    memset(query, 0, sizeof query);
    auto *q = reinterpret_cast<NOF_QUERY_RECORD *>(query);
    q->opcode = NOF_QUERY_SIDE_INFO;
    q->kind = 1;
    q->buffer = buffer.data();
    q->buffer_size = c.buffer_entries * 212;
    q->num_entries = 2;
    q->list_option = 1;
    memcpy(q->sym_dest_name, "SIDE1   ", 8);
    std::thread querier([&] { nof_version(2, 0x77, query); });
    Request r = next();
    wire::Nof nof = r.nof();
    EXPECT_EQ(nof.opcode, NOF_QUERY_SIDE_INFO);
    EXPECT_EQ(nof.format, 1);
    EXPECT_EQ(nof.target_handle, 0x77u);
    EXPECT_EQ(nof.buffer_size, c.buffer_entries * 212);
    EXPECT_EQ(nof.entries_wanted, 2);
    EXPECT_EQ(nof.list_option, 1);
    EXPECT_EQ(memcmp(nof.sym_dest_name, "SIDE1   ", 8), 0);
    std::vector<uint8_t> entries = wire_entry("SIDE1", 1, 5);
    std::vector<uint8_t> second = wire_entry("SIDE2", 0, 2);
    entries.insert(entries.end(), second.begin(), second.end());
    wire::NofReply answer;
    answer.entries = 2;
    daemon_->reply_nof(r, answer, entries);
    querier.join();
    EXPECT_EQ(primary_of(query), 0);
    EXPECT_EQ(q->reserved26, c.expect_copied) << "entries returned";
    for (uint16_t i = 0; i < c.expect_copied; ++i) {
      const auto *e = reinterpret_cast<const NOF_SIDE_INFO_ENTRY *>(buffer.data() + i * 212);
      EXPECT_EQ(get<uint16_t>(buffer.data() + i * 212, 0), 212) << "host order";
      EXPECT_EQ(memcmp(e->sym_dest_name, i == 0 ? "SIDE1   " : "SIDE2   ", 8), 0);
      EXPECT_EQ(e->tp_name_type, i == 0 ? 1u : 0u);
      EXPECT_EQ(e->security_type, i == 0 ? 5u : 2u);
      EXPECT_EQ(memcmp(e->partner_lu_name, "NET.PART", 8), 0);
    }
    for (size_t i = c.expect_copied * 212u; i < buffer.size(); ++i)
      ASSERT_EQ(buffer[i], kFill) << "beyond the copied entries: " << i;
  }

  // a failed query: codes big-endian, the count left alone
  alignas(8) uint8_t query[sizeof(NOF_QUERY_RECORD)];
  memset(query, 0, sizeof query);
  auto *q = reinterpret_cast<NOF_QUERY_RECORD *>(query);
  std::vector<uint8_t> buffer(212, kFill);
  q->opcode = NOF_QUERY_SIDE_INFO;
  q->buffer = buffer.data();
  q->buffer_size = 212;
  q->reserved26 = 0xABCD;
  std::thread querier([&] { nof_version(2, 0x77, query); });
  Request r = next();
  wire::NofReply missing;
  missing.primary = 0x0002;
  missing.secondary = 0x00001058;
  daemon_->reply_nof(r, missing);
  querier.join();
  EXPECT_EQ(query[4], 0x00);
  EXPECT_EQ(query[5], 0x02);
  EXPECT_EQ(query[8], 0x00);
  EXPECT_EQ(query[9], 0x00);
  EXPECT_EQ(query[10], 0x10);
  EXPECT_EQ(query[11], 0x58);
  EXPECT_EQ(q->reserved26, 0xABCD);

  // close
  alignas(8) uint8_t close_record[sizeof(NOF_CLOSE_RECORD)];
  memset(close_record, 0, sizeof close_record);
  put<uint16_t>(close_record, 0, NOF_CLOSE);
  std::thread closer([&] { nof_version(2, 0x77, close_record); });
  r = next();
  EXPECT_EQ(r.nof().opcode, NOF_CLOSE);
  EXPECT_EQ(r.nof().target_handle, 0x77u);
  daemon_->reply_nof(r, wire::NofReply{});
  closer.join();
  EXPECT_EQ(primary_of(close_record), 0);

  // answered by the runtime itself
  alignas(8) uint8_t record[sizeof(NOF_QUERY_RECORD)];
  memset(record, 0, sizeof record);
  put<uint16_t>(record, 0, NOF_CLOSE);
  nof_version(1, 0x77, record);
  EXPECT_EQ(primary_of(record), 0xF004);
  memset(record, 0, sizeof record);
  q = reinterpret_cast<NOF_QUERY_RECORD *>(record);
  q->opcode = NOF_QUERY_SIDE_INFO;
  q->buffer_size = 212;  // and no buffer
  nof_version(2, 0x77, record);
  EXPECT_EQ(primary_of(record), 0x0001);
  EXPECT_EQ(secondary_of(record), 0x00000003u);
}

// ---- trace control ---------------------------------------------------------------

std::string descriptor_target(uint32_t fd) {
  char link[64], target[4096];
  snprintf(link, sizeof link, "/proc/self/fd/%u", fd);
  ssize_t n = readlink(link, target, sizeof target - 1);
  if (n < 0) return "";
  target[n] = '\0';
  return target;
}

TEST_F(Client, TraceControlPushSwitchesApiTracing) {
  std::string first_file = directory_ + "/first.trace";
  std::string second_file = directory_ + "/second.trace";
  Block block(VERB_FLUSH, 1);
  // Each push is followed by a verb: frames are handled in order, so once
  // the verb's reply is delivered, the push has been applied.
  auto round_trip = [&] {
    calls.reset();
    EXPECT_EQ(appc_c_async_version(2, block.data(), record_call, 0), APPC_VERB_IN_PROGRESS);
    return next();
  };
  Request request = round_trip();
  daemon_->push_trace(request.connection, true, first_file);
  daemon_->reply_verb(request, ok());
  ASSERT_TRUE(calls.wait_for(1));
  EXPECT_TRUE(ptrc[0] & 0x20);
  uint32_t handle = trc_api.file_handle;
  ASSERT_NE(handle, TRC_NO_FILE);
  EXPECT_EQ(descriptor_target(handle), first_file);

  request = round_trip();
  daemon_->push_trace(request.connection, false, "");
  daemon_->reply_verb(request, ok());
  ASSERT_TRUE(calls.wait_for(1));
  EXPECT_FALSE(ptrc[0] & 0x20);
  EXPECT_EQ(descriptor_target(handle), first_file) << "no path keeps the file";

  request = round_trip();
  daemon_->push_trace(request.connection, true, second_file);
  daemon_->reply_verb(request, ok());
  ASSERT_TRUE(calls.wait_for(1));
  EXPECT_TRUE(ptrc[0] & 0x20);
  EXPECT_EQ(trc_api.file_handle, handle) << "the handle stays, the file changes";
  EXPECT_EQ(descriptor_target(handle), second_file);
  com_trc_line(handle, "T ", "written after the switch");
  EXPECT_NE(snanode_test::read_file(second_file).find("written after the switch"), std::string::npos);
  EXPECT_EQ(snanode_test::read_file(first_file).find("written after the switch"), std::string::npos);

  snanode_trace_set_api(0);
}

// ---- finding the daemon program ----------------------------------------------------

TEST(FindDaemon, CandidatesInOrder) {
  std::string root = snanode_test::make_temp_dir();
  auto make_program = [](const std::string &path, mode_t mode) {
    FILE *f = fopen(path.c_str(), "w");
    ASSERT_NE(f, nullptr);
    fclose(f);
    chmod(path.c_str(), mode);
  };
  mkdir((root + "/lib").c_str(), 0700);
  mkdir((root + "/bin").c_str(), 0700);
  mkdir((root + "/path1").c_str(), 0700);
  mkdir((root + "/path2").c_str(), 0700);
  mkdir((root + "/plain").c_str(), 0700);
  mkdir((root + "/plain/bin").c_str(), 0700);
  make_program(root + "/bin/snanoded", 0700);
  make_program(root + "/install", 0700);
  make_program(root + "/path2/snanoded", 0700);
  make_program(root + "/path1/snanoded", 0600);  // not executable
  make_program(root + "/plain/bin/snanoded", 0600);
  const std::string library = root + "/lib/libsnanode.so";
  struct Case {
    const char *name;
    const char *named;
    std::string library;
    std::string install;
    std::string search;
    bool found;
    std::string expect;
  };
  const Case cases[] = {
      {"named wins, unchecked", "/no/such/daemon", library, root + "/install", root + "/path2", true,
       "/no/such/daemon"},
      {"beside the library", nullptr, library, root + "/install", root + "/path2", true,
       root + "/lib/../bin/snanoded"},
      {"empty name ignored", "", library, "", "", true, root + "/lib/../bin/snanoded"},
      {"install path", nullptr, root + "/plain/lib/libsnanode.so", root + "/install",
       root + "/path2", true, root + "/install"},
      {"search path, executable only", nullptr, root + "/plain/lib/libsnanode.so", root + "/none",
       root + "/path1:" + root + "/path2", true, root + "/path2/snanoded"},
      {"nothing", nullptr, root + "/plain/lib/libsnanode.so", root + "/none", root + "/path1",
       false, ""},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    char out[4096];
    bool found = snanode::find_daemon(c.named, c.library.c_str(), c.install.c_str(),
                                      c.search.c_str(), out, sizeof out);
    EXPECT_EQ(found, c.found);
    if (c.found) {
      EXPECT_EQ(std::string(out), c.expect);
    }
  }
  std::error_code ignored;
  std::filesystem::remove_all(root, ignored);
}

TEST(SocketPath, EnvironmentInOrder) {
  const char *saved_socket = getenv("SNANODE_SOCKET");
  const char *saved_runtime = getenv("XDG_RUNTIME_DIR");
  std::string keep_socket = saved_socket ? saved_socket : "";
  std::string keep_runtime = saved_runtime ? saved_runtime : "";
  char path[4096];
  setenv("SNANODE_SOCKET", "/x/sock", 1);
  setenv("XDG_RUNTIME_DIR", "/run/user/5", 1);
  ASSERT_TRUE(snanode::socket_path(path, sizeof path));
  EXPECT_STREQ(path, "/x/sock");
  setenv("SNANODE_SOCKET", "", 1);
  ASSERT_TRUE(snanode::socket_path(path, sizeof path));
  EXPECT_STREQ(path, "/run/user/5/snanode/socket");
  unsetenv("SNANODE_SOCKET");
  unsetenv("XDG_RUNTIME_DIR");
  ASSERT_TRUE(snanode::socket_path(path, sizeof path));
  EXPECT_EQ(std::string(path), "/tmp/snanode-" + std::to_string(getuid()) + "/socket");
  EXPECT_FALSE(snanode::socket_path(path, 8));
  if (saved_socket) setenv("SNANODE_SOCKET", keep_socket.c_str(), 1);
  if (saved_runtime) setenv("XDG_RUNTIME_DIR", keep_runtime.c_str(), 1);
}

}  // namespace
