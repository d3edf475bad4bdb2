#include "snanoded/event_loop.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>

namespace sna::daemon {

EventLoop::EventLoop() : epfd_(epoll_create1(EPOLL_CLOEXEC)) {}

EventLoop::~EventLoop() {
  if (epfd_ >= 0) close(epfd_);
}

uint64_t EventLoop::add(int fd, uint32_t events, Handler handler) {
  const uint64_t token = next_token_++;
  epoll_event ev{};
  ev.events = events;
  ev.data.u64 = token;
  if (epoll_ctl(epfd_, EPOLL_CTL_ADD, fd, &ev) != 0) return 0;
  entries_[token] = Entry{fd, std::make_shared<Handler>(std::move(handler))};
  return token;
}

bool EventLoop::modify(uint64_t token, uint32_t events) {
  auto it = entries_.find(token);
  if (it == entries_.end()) return false;
  epoll_event ev{};
  ev.events = events;
  ev.data.u64 = token;
  return epoll_ctl(epfd_, EPOLL_CTL_MOD, it->second.fd, &ev) == 0;
}

void EventLoop::remove(uint64_t token) {
  auto it = entries_.find(token);
  if (it == entries_.end()) return;
  epoll_ctl(epfd_, EPOLL_CTL_DEL, it->second.fd, nullptr);
  entries_.erase(it);
}

void EventLoop::run() {
  constexpr int kBatch = 64;
  epoll_event events[kBatch];
  while (!stopping_) {
    const int n = epoll_wait(epfd_, events, kBatch, -1);
    if (n < 0) {
      if (errno == EINTR) continue;
      return;
    }
    for (int i = 0; i < n && !stopping_; ++i) {
      auto it = entries_.find(events[i].data.u64);
      if (it == entries_.end()) continue;  // removed earlier in this batch
      // The handler may remove its own registration: keep it alive.
      std::shared_ptr<Handler> h = it->second.handler;
      (*h)(events[i].events);
      if (after_event_) after_event_();
    }
  }
}

}  // namespace sna::daemon
