#include "snanoded/timer_queue.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <vector>

namespace sna::daemon {

TimerQueue::TimerQueue(EventLoop& loop)
    : loop_(loop), fd_(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)) {
  if (fd_ >= 0) token_ = loop_.add(fd_, EPOLLIN, [this](uint32_t) { expired(); });
}

TimerQueue::~TimerQueue() {
  if (token_) loop_.remove(token_);
  if (fd_ >= 0) close(fd_);
}

uint64_t TimerQueue::start(uint32_t ms, std::function<void()> fn) {
  const uint64_t id = next_id_++;
  auto where = deadlines_.emplace(Clock::now() + std::chrono::milliseconds(ms), id);
  timers_[id] = Timer{where, std::move(fn)};
  rearm();
  return id;
}

void TimerQueue::cancel(uint64_t id) {
  auto it = timers_.find(id);
  if (it == timers_.end()) return;
  deadlines_.erase(it->second.where);
  timers_.erase(it);
  rearm();
}

void TimerQueue::expired() {
  uint64_t count = 0;
  ssize_t n = read(fd_, &count, sizeof count);
  (void)n;
  // Collect first: a callback may start or cancel timers.
  const Clock::time_point now = Clock::now();
  std::vector<uint64_t> due;
  for (auto it = deadlines_.begin(); it != deadlines_.end() && it->first <= now; ++it)
    due.push_back(it->second);
  for (uint64_t id : due) {
    auto it = timers_.find(id);
    if (it == timers_.end()) continue;  // cancelled by an earlier callback
    std::function<void()> fn = std::move(it->second.fn);
    deadlines_.erase(it->second.where);
    timers_.erase(it);
    fn();
  }
  rearm();
}

void TimerQueue::rearm() {
  itimerspec spec{};
  if (!deadlines_.empty()) {
    const auto when = deadlines_.begin()->first.time_since_epoch();
    const auto s = std::chrono::duration_cast<std::chrono::seconds>(when);
    const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(when - s);
    spec.it_value.tv_sec = static_cast<time_t>(s.count());
    spec.it_value.tv_nsec = static_cast<long>(ns.count());
    // A deadline of exactly zero would disarm the timer.
    if (spec.it_value.tv_sec == 0 && spec.it_value.tv_nsec == 0) spec.it_value.tv_nsec = 1;
  }
  timerfd_settime(fd_, TFD_TIMER_ABSTIME, &spec, nullptr);
}

}  // namespace sna::daemon
