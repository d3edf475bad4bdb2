// One epoll instance that drives the whole daemon. Every descriptor is
// registered with a handler; handlers run one at a time on the caller's
// thread. Registrations are named by tokens, not by descriptors, so that an
// event still queued for a descriptor that was closed and reused in the
// same batch never reaches the new owner.
#ifndef SNA_SNANODED_EVENT_LOOP_H
#define SNA_SNANODED_EVENT_LOOP_H

#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>

namespace sna::daemon {

class EventLoop {
 public:
  using Handler = std::function<void(uint32_t events)>;

  EventLoop();
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  bool ok() const { return epfd_ >= 0; }

  // Registers `fd` for `events` (EPOLLIN, EPOLLOUT ...). Returns the
  // registration's token, or 0 on failure.
  uint64_t add(int fd, uint32_t events, Handler handler);
  bool modify(uint64_t token, uint32_t events);
  // Safe from inside any handler, including the registration's own.
  void remove(uint64_t token);

  // Runs after every dispatched event: the owner's chance to finish work
  // that must not happen in the middle of a handler (closing clients).
  void set_after_event(std::function<void()> fn) { after_event_ = std::move(fn); }

  // Dispatches events until stop() is called.
  void run();
  void stop() { stopping_ = true; }
  bool stopping() const { return stopping_; }

 private:
  struct Entry {
    int fd;
    std::shared_ptr<Handler> handler;
  };
  int epfd_ = -1;
  uint64_t next_token_ = 1;
  std::unordered_map<uint64_t, Entry> entries_;
  std::function<void()> after_event_;
  bool stopping_ = false;
};

}  // namespace sna::daemon

#endif
