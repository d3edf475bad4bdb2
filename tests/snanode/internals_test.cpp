// White-box tests on the runtime's hidden functions: the handle space wrap,
// path events, lock depth and the run-time trace switch. Linked with the
// static archive of the same objects as libsnanode.so.
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "internal.h"
#include "temp_dir.h"

namespace {

using namespace std::chrono_literals;

std::string trace_path;

// Tracing stays off (SNANODE_TRACE unset); the file is named for the switch.
struct Environment : ::testing::Environment {
  void SetUp() override {
    std::string dir = snanode_test::make_temp_dir();
    trace_path = dir + "/switched.trace";
    setenv("SNANODE_STATE_DIR", dir.c_str(), 1);
    setenv("SNANODE_TRACE_FILE", trace_path.c_str(), 1);
    unsetenv("SNANODE_TRACE");
  }
};
[[maybe_unused]] auto *const environment = ::testing::AddGlobalTestEnvironment(new Environment);

std::vector<uint32_t> used(uint32_t table) {
  std::vector<uint32_t> handles;
  for (uint32_t h = vtm_get_next_used(table, 0, nullptr); h; h = vtm_get_next_used(table, h, nullptr))
    handles.push_back(h);
  return handles;
}

TEST(HandleSpaceWrap, CounterWrapsSkippingLiveHandles) {
  uint32_t table = 0;
  vtm_table_init(&table, 0);
  ASSERT_EQ(snanode_vtm_set_limit(table, 5), 0);
  int x = 0;
  struct Step {
    bool release;
    uint32_t handle;  // to release, or expected from the next take (0: none free)
  };
  const Step steps[] = {
      {false, 1}, {false, 2}, {false, 3}, {true, 1},  // 1 free, but behind the counter
      {false, 4}, {false, 5},                         // the rest of the space first
      {false, 1},                                     // wrapped: 2, 3 live, 1 free
      {false, 0},                                     // full
      {true, 4},  {true, 2},  {false, 2},             // counter is at 2 after 1
      {false, 4}, {false, 0},
  };
  for (const Step &s : steps) {
    if (s.release)
      vtm_release_entry(table, s.handle);
    else
      EXPECT_EQ(vtm_get_free_entry(table, &x), s.handle);
  }
  EXPECT_EQ(used(table), (std::vector<uint32_t>{1, 2, 3, 4, 5}));
  vtm_table_terminate(table);
}

TEST(HandleSpaceWrap, EveryOtherFreeHandleComesBeforeAReleasedOne) {
  uint32_t table = 0;
  vtm_table_init(&table, 0);
  ASSERT_EQ(snanode_vtm_set_limit(table, 100), 0);
  int x = 0;
  for (int i = 0; i < 50; ++i) vtm_get_free_entry(table, &x);
  vtm_release_entry(table, 10);
  // 51..100 are free and must all come before 10 does.
  for (uint32_t expected = 51; expected <= 100; ++expected)
    ASSERT_EQ(vtm_get_free_entry(table, &x), expected);
  EXPECT_EQ(vtm_get_free_entry(table, &x), 10u);
  vtm_table_terminate(table);
}

TEST(HandleSpaceWrap, LimitOnlyOnAnEmptyTable) {
  uint32_t table = 0;
  vtm_table_init(&table, 0);
  int x = 0;
  vtm_get_free_entry(table, &x);
  EXPECT_NE(snanode_vtm_set_limit(table, 5), 0);
  EXPECT_NE(snanode_vtm_set_limit(0, 5), 0);
  vtm_table_terminate(table);
}

struct PathRecord {
  std::vector<std::pair<void *, uint16_t>> calls;
  uint32_t terminate_during_event = 0;
  uint32_t lock_depth_seen = 0;
};
PathRecord record;

int path_callback(void *path, VPM_PATH_EVENT *event) {
  record.calls.emplace_back(path, event->code);
  EXPECT_EQ(event->result, 0);
  record.lock_depth_seen = snanode_lock_depth();
  if (record.terminate_during_event) {
    vpm_terminate_path_user(record.terminate_during_event);
    record.terminate_during_event = 0;
  }
  event->result = 0;
  return 0;
}

TEST(PathUsers, EventReachesEveryRegisteredUserUnderTheLock) {
  record = PathRecord{};
  int a = 0, b = 0, c = 0;
  uint32_t ua = 0, ub = 0, uc = 0;
  vpm_init_path_user(nullptr, nullptr, path_callback, &a, &ua);
  vpm_init_path_user(nullptr, nullptr, path_callback, &b, &ub);
  vpm_init_path_user(nullptr, nullptr, path_callback, &c, &uc);
  ASSERT_NE(ua, 0u);
  ASSERT_NE(ub, 0u);
  ASSERT_NE(uc, 0u);
  EXPECT_TRUE(ua != ub && ub != uc && ua != uc);

  vpm_terminate_path_user(ub);
  snanode_raise_path_event(VPM_EVENT_NODE_LOST);
  ASSERT_EQ(record.calls.size(), 2u);
  EXPECT_EQ(record.calls[0], std::make_pair(static_cast<void *>(&a), uint16_t{0x8001}));
  EXPECT_EQ(record.calls[1], std::make_pair(static_cast<void *>(&c), uint16_t{0x8001}));
  EXPECT_GE(record.lock_depth_seen, 1u);
  EXPECT_EQ(snanode_lock_depth(), 0u) << "lock released after the event";

  vpm_terminate_path_user(ua);
  vpm_terminate_path_user(uc);
  record.calls.clear();
  snanode_raise_path_event(VPM_EVENT_NODE_LOST);
  EXPECT_TRUE(record.calls.empty());
}

TEST(PathUsers, CallbackMayTerminatePathUsersDuringTheEvent) {
  record = PathRecord{};
  int a = 0, b = 0;
  uint32_t ua = 0, ub = 0;
  vpm_init_path_user(nullptr, nullptr, path_callback, &a, &ua);
  vpm_init_path_user(nullptr, nullptr, path_callback, &b, &ub);
  record.terminate_during_event = ua;  // the first callback ends itself
  snanode_raise_path_event(VPM_EVENT_NODE_LOST);
  ASSERT_EQ(record.calls.size(), 2u);
  record.calls.clear();
  snanode_raise_path_event(VPM_EVENT_NODE_LOST);
  ASSERT_EQ(record.calls.size(), 1u);
  EXPECT_EQ(record.calls[0].first, &b);
  vpm_terminate_path_user(ub);
}

TEST(PathUsers, NullOutputIsTolerated) {
  vpm_init_path_user(nullptr, nullptr, path_callback, nullptr, nullptr);
  vpm_terminate_path_user(0);
  vpm_terminate_path_user(0xDEADBEEFu);
}

TEST(ProcessLockInternals, ReleaseAllAndReacquireRestoreDepth) {
  EXPECT_EQ(snanode_lock_release_all(), 0u) << "not held: nothing released";
  uint16_t t1 = vpm_lock();
  uint16_t t2 = vpm_lock();
  EXPECT_EQ(snanode_lock_depth(), 2u);
  uint32_t depth = snanode_lock_release_all();
  EXPECT_EQ(depth, 2u);
  EXPECT_EQ(snanode_lock_depth(), 0u);
  std::thread other([] { vpm_unlock(vpm_lock()); });
  other.join();
  snanode_lock_reacquire(depth);
  EXPECT_EQ(snanode_lock_depth(), 2u);
  vpm_unlock(t2);
  vpm_unlock(t1);
  EXPECT_EQ(snanode_lock_depth(), 0u);
}

TEST(AsmEvent, SignalMakesTheFdReadableAndClearDrainsIt) {
  int fd = vpm_asm_event_fd();
  ASSERT_GE(fd, 0);
  snanode_asm_event_signal();
  snanode_asm_event_signal();
  uint64_t value = 0;
  ASSERT_EQ(read(fd, &value, sizeof value), static_cast<ssize_t>(sizeof value));
  EXPECT_EQ(value, 2u);
  snanode_asm_event_signal();
  snanode_asm_event_clear();
  EXPECT_LT(read(fd, &value, sizeof value), 0) << "drained";
}

TEST(TraceSwitch, OffFromTheStartThenSwitchedOnAndOff) {
  vpm_unlock(vpm_lock());  // first use applies the environment
  EXPECT_EQ(ptrc[0] & 0x20, 0);
  sepuapi_init(ptrc);
  EXPECT_EQ(trc_api.file_handle, TRC_NO_FILE);

  // A record abandoned while there is no file must not hold anything.
  trc_lock_file(&trc_api);
  std::atomic<bool> other_done{false};
  std::thread other([&] {
    trc_lock_file(&trc_api);
    trc_unlock_file(&trc_api);
    other_done = true;
  });
  other.join();
  EXPECT_TRUE(other_done);

  snanode_trace_set_api(1);
  EXPECT_EQ(ptrc[0] & 0x20, 0x20);
  uint32_t file = trc_api.file_handle;
  ASSERT_NE(file, TRC_NO_FILE);
  trc_lock_file(&trc_api);
  com_trc_line(file, "SW ", "switched on");
  trc_unlock_file(&trc_api);

  snanode_trace_set_api(0);
  EXPECT_EQ(ptrc[0] & 0x20, 0);
  EXPECT_EQ(trc_api.file_handle, file) << "the file stays open";
  EXPECT_EQ(snanode_test::read_lines(trace_path), std::vector<std::string>{"SW switched on"});
}

TEST(EbcdicDisplay, CodePage037) {
  struct Case {
    unsigned char byte;
    char shown;
  };
  const Case cases[] = {{0xC1, 'A'}, {0xC9, 'I'}, {0xD1, 'J'}, {0xE2, 'S'}, {0xE9, 'Z'},
                        {0x81, 'a'}, {0xA9, 'z'}, {0xF0, '0'}, {0xF9, '9'}, {0x40, ' '},
                        {0x4B, '.'}, {0x5B, '$'}, {0x7C, '@'}, {0x6D, '_'}, {0xBA, '['},
                        {0xBB, ']'}, {0x00, '.'}, {0xFF, '.'}, {0x41, '.'}, {0x15, '.'}};
  for (const Case &c : cases) EXPECT_EQ(snanode_ebcdic_display(c.byte), c.shown) << int(c.byte);
}

}  // namespace
