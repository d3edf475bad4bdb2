// Timers on one timerfd, armed for the earliest deadline. Used for the
// core's attach time-outs and for the daemon's idle exit.
#ifndef SNA_SNANODED_TIMER_QUEUE_H
#define SNA_SNANODED_TIMER_QUEUE_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <unordered_map>

#include "snanoded/event_loop.h"

namespace sna::daemon {

class TimerQueue {
 public:
  using Clock = std::chrono::steady_clock;

  explicit TimerQueue(EventLoop& loop);
  ~TimerQueue();
  TimerQueue(const TimerQueue&) = delete;
  TimerQueue& operator=(const TimerQueue&) = delete;

  bool ok() const { return fd_ >= 0 && token_ != 0; }

  // Calls `fn` once, `ms` milliseconds from now. Returns the timer's id
  // (never 0).
  uint64_t start(uint32_t ms, std::function<void()> fn);
  // No effect when the timer has fired or was cancelled already.
  void cancel(uint64_t id);
  size_t pending() const { return timers_.size(); }

 private:
  struct Timer {
    std::multimap<Clock::time_point, uint64_t>::iterator where;
    std::function<void()> fn;
  };
  void expired();
  void rearm();

  EventLoop& loop_;
  int fd_ = -1;
  uint64_t token_ = 0;
  uint64_t next_id_ = 1;
  std::multimap<Clock::time_point, uint64_t> deadlines_;
  std::unordered_map<uint64_t, Timer> timers_;
};

}  // namespace sna::daemon

#endif
