// The process-wide lock, wait objects and the asynchronous-completion fd,
// through the exported interface of libsnanode.so.
#include <poll.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "snanode/node.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// True when another thread manages to take the lock within the time given.
bool other_thread_gets_lock(std::chrono::milliseconds within) {
  auto got = std::make_shared<std::atomic<bool>>(false);
  std::thread other([got] {
    uint16_t token = vpm_lock();
    *got = true;
    vpm_unlock(token);
  });
  auto until = Clock::now() + within;
  while (!*got && Clock::now() < until) std::this_thread::sleep_for(1ms);
  bool result = *got;
  if (!result) {
    // Caller still holds the lock; the thread finishes once it is released.
    other.detach();
  } else {
    other.join();
  }
  return result;
}

TEST(ProcessLock, TokensFollowRecursionDepth) {
  uint16_t first = vpm_lock();
  uint16_t second = vpm_lock();
  uint16_t third = vpm_lock();
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 2);
  EXPECT_EQ(third, 3);
  vpm_unlock(third);
  vpm_unlock(second);
  vpm_unlock(first);
  EXPECT_EQ(vpm_lock(), 1) << "fully released after three unlocks";
  vpm_unlock(1);
}

TEST(ProcessLock, HeldUntilTheOutermostUnlock) {
  std::atomic<bool> got{false};
  uint16_t outer = vpm_lock();
  uint16_t inner = vpm_lock();
  std::thread other([&] {
    uint16_t token = vpm_lock();
    got = true;
    vpm_unlock(token);
  });
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(got);
  vpm_unlock(inner);
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(got) << "one level is still held";
  vpm_unlock(outer);
  other.join();
  EXPECT_TRUE(got);
}

TEST(ProcessLock, ReleasedLockIsFreeForOthers) {
  uint16_t token = vpm_lock();
  vpm_unlock(token);
  EXPECT_TRUE(other_thread_gets_lock(2000ms));
}

TEST(WaitObjects, HandlesAreNonZeroAndDistinct) {
  uint32_t a = vpm_allocate_wait_object();
  uint32_t b = vpm_allocate_wait_object();
  EXPECT_NE(a, 0u);
  EXPECT_NE(b, 0u);
  EXPECT_NE(a, b);
  vpm_release_wait_object(a);
  vpm_release_wait_object(b);
}

TEST(WaitObjects, SleepReleasesARecursivelyHeldLockAndRestoresItsDepth) {
  uint32_t wait = vpm_allocate_wait_object();
  ASSERT_NE(wait, 0u);
  uint16_t t1 = vpm_lock();
  uint16_t t2 = vpm_lock();
  uint16_t t3 = vpm_lock();
  std::atomic<bool> other_had_lock{false};
  std::thread other([&] {
    uint16_t token = vpm_lock();  // only possible while the sleeper waits
    other_had_lock = true;
    vpm_wakeup(wait);
    vpm_unlock(token);
  });
  int rc = vpm_sleep(wait, 5000);
  other.join();
  EXPECT_EQ(rc, 0);
  EXPECT_TRUE(other_had_lock);
  // Still held to depth three: the next level is the fourth.
  uint16_t t4 = vpm_lock();
  EXPECT_EQ(t4, 4);
  EXPECT_FALSE(other_thread_gets_lock(50ms));
  vpm_unlock(t4);
  vpm_unlock(t3);
  vpm_unlock(t2);
  vpm_unlock(t1);
  vpm_release_wait_object(wait);
  EXPECT_TRUE(other_thread_gets_lock(2000ms));
}

TEST(WaitObjects, WakeupBeforeSleepIsNotLost) {
  uint32_t wait = vpm_allocate_wait_object();
  vpm_wakeup(wait);
  auto start = Clock::now();
  EXPECT_EQ(vpm_sleep(wait, 5000), 0);
  EXPECT_LT(Clock::now() - start, 1000ms);
  // The wakeup was consumed: the next sleep times out.
  EXPECT_NE(vpm_sleep(wait, 20), 0);
  vpm_release_wait_object(wait);
}

TEST(WaitObjects, TimesOut) {
  struct Case {
    int32_t timeout_ms;
  };
  for (Case c : {Case{0}, Case{30}, Case{120}}) {
    uint32_t wait = vpm_allocate_wait_object();
    auto start = Clock::now();
    EXPECT_NE(vpm_sleep(wait, c.timeout_ms), 0) << c.timeout_ms;
    auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    EXPECT_GE(waited.count(), c.timeout_ms);
    EXPECT_LT(waited.count(), c.timeout_ms + 1000);
    vpm_release_wait_object(wait);
  }
}

TEST(WaitObjects, UnlimitedSleepEndsWithTheWakeup) {
  uint32_t wait = vpm_allocate_wait_object();
  std::thread waker([&] {
    std::this_thread::sleep_for(100ms);
    vpm_wakeup(wait);
  });
  auto start = Clock::now();
  EXPECT_EQ(vpm_sleep(wait, -1), 0);
  EXPECT_GE(Clock::now() - start, 90ms);
  waker.join();
  vpm_release_wait_object(wait);
}

TEST(WaitObjects, PingPongLosesNoWakeup) {
  // Each side wakes the other and sleeps; a lost wakeup shows as a time-out.
  uint32_t ping = vpm_allocate_wait_object();
  uint32_t pong = vpm_allocate_wait_object();
  constexpr int rounds = 2000;
  std::atomic<int> failures{0};
  std::thread partner([&] {
    for (int i = 0; i < rounds; ++i) {
      if (vpm_sleep(ping, 5000) != 0) ++failures;
      vpm_wakeup(pong);
    }
  });
  for (int i = 0; i < rounds; ++i) {
    uint16_t token = vpm_lock();
    vpm_wakeup(ping);
    if (vpm_sleep(pong, 5000) != 0) ++failures;
    vpm_unlock(token);
  }
  partner.join();
  EXPECT_EQ(failures, 0);
  vpm_release_wait_object(ping);
  vpm_release_wait_object(pong);
}

TEST(WaitObjects, UnknownOrReleasedHandleDoesNotWait) {
  uint32_t wait = vpm_allocate_wait_object();
  vpm_release_wait_object(wait);
  EXPECT_NE(vpm_sleep(wait, -1), 0);
  EXPECT_NE(vpm_sleep(0, -1), 0);
  vpm_wakeup(wait);  // harmless
}

TEST(WaitObjects, ReleaseWhileSleepingEndsTheSleep) {
  uint32_t wait = vpm_allocate_wait_object();
  std::thread releaser([&] {
    std::this_thread::sleep_for(50ms);
    vpm_release_wait_object(wait);
  });
  EXPECT_NE(vpm_sleep(wait, 5000), 0) << "released, not woken";
  releaser.join();
}

TEST(AsmEventFd, IsOneEventFdCreatedOnFirstUse) {
  int fd = vpm_asm_event_fd();
  ASSERT_GE(fd, 0);
  EXPECT_EQ(vpm_asm_event_fd(), fd);
  struct stat info;
  ASSERT_EQ(fstat(fd, &info), 0);
  pollfd p{fd, POLLIN, 0};
  EXPECT_EQ(poll(&p, 1, 0), 0) << "nothing has completed";
}

}  // namespace
