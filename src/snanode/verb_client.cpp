/* The verb entries: each verb becomes a request to the node daemon, and its
 * reply is written back into the program's block.
 *
 * One connection per process, made on the first verb. One runtime thread
 * per process reads every frame from it, in order, and delivers each reply:
 * it writes the block, then calls the completion routine (without the
 * process-wide lock, one at a time) or wakes the thread that waits. A
 * thread that waits gives up the process-wide lock and takes it back at a
 * turn reserved when its reply was delivered, so woken threads hold the
 * lock in the order their replies arrived. When the runtime thread itself
 * waits (a blocking verb from a completion routine), it goes on reading and
 * delivering until its own reply comes.
 *
 * Outstanding requests are kept in a list in the order they were issued. A
 * waiting caller's entry lives on its stack; an asynchronous one is
 * allocated and freed after its routine has run. Only the runtime thread
 * removes entries, so an entry it has found stays valid while it reads the
 * reply's data straight into the program's buffer.
 *
 * Losing the connection: the runtime thread completes every outstanding
 * request with 0xF003 (codes only), refusing new verbs meanwhile; then it
 * raises the path event, under the process-wide lock; then the connection
 * is closed and the next verb connects afresh.
 *
 * Lock order: write_mutex before client_mutex; the process-wide lock is
 * never taken while either is held. */
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include "client.h"

namespace snanode {

namespace {

namespace wire = sna::wire;

struct Pending {
  Pending *next;
  Pending *prev;
  uint64_t tag;
  bool nof;              /* a node-operator record, not a verb block */
  void *block;
  uint16_t opcode;
  APPC_CALLBACK callback; /* null: a caller waits */
  uint32_t correlator;
  uint8_t *buffer;       /* received data (verbs) or response entries (records) */
  uint32_t buffer_size;  /* receive maximum length, or response buffer size */
  /* A waiting caller. */
  pthread_cond_t *wake;  /* null when the waiter is the runtime thread */
  uint32_t lock_depth;   /* the process-wide lock it gave up */
  uint64_t turn;         /* its turn to retake it */
  bool done;
};

pthread_mutex_t client_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t state_changed = PTHREAD_COND_INITIALIZER;
pthread_mutex_t write_mutex = PTHREAD_MUTEX_INITIALIZER;

/* Guarded by client_mutex. */
LinkState state = LinkState::kDisconnected;
int link_fd = -1;
uint32_t generation = 0;    /* counts connections */
int write_error = 0;        /* why a write broke the current connection */
pid_t owner_pid = 0;        /* the process the connection and thread belong to */
uint64_t next_tag = 1;
Pending *first = nullptr;
Pending *last = nullptr;
bool connecting = false;
uint32_t connect_attempts = 0;
int last_connect_error = 0;
bool thread_running = false;

__thread bool on_runtime_thread = false;

pthread_once_t fork_handlers_once = PTHREAD_ONCE_INIT;

void link_entry(Pending *p) {
  p->next = nullptr;
  p->prev = last;
  if (last)
    last->next = p;
  else
    first = p;
  last = p;
}

void unlink_entry(Pending *p) {
  if (p->prev)
    p->prev->next = p->next;
  else
    first = p->next;
  if (p->next)
    p->next->prev = p->prev;
  else
    last = p->prev;
  p->next = p->prev = nullptr;
}

Pending *find_entry(uint64_t tag) {
  for (Pending *p = first; p; p = p->next)
    if (p->tag == tag) return p;
  return nullptr;
}

/* ---- fork ---- */

void forget_connection_locked() {
  if (link_fd >= 0) close(link_fd); /* the parent's socket stays open there */
  link_fd = -1;
  state = LinkState::kDisconnected;
  connecting = false;
  thread_running = false;
  owner_pid = 0;
  /* The requests are the parent's: their routines must never run here. */
  Pending *p = first;
  while (p) {
    Pending *next = p->next;
    if (p->callback) free(p);
    p = next;
  }
  first = last = nullptr;
}

void fork_prepare() {
  pthread_mutex_lock(&client_mutex);
  snanode_lock_fork_prepare();
}

void fork_parent() {
  snanode_lock_fork_parent();
  pthread_mutex_unlock(&client_mutex);
}

void fork_child() {
  snanode_lock_fork_child();
  /* Only the forking thread exists: whatever the others held is void. */
  pthread_mutex_init(&write_mutex, nullptr);
  pthread_cond_init(&state_changed, nullptr);
  forget_connection_locked();
  on_runtime_thread = false;
  pthread_mutex_unlock(&client_mutex);
}

void install_fork_handlers() { pthread_atfork(fork_prepare, fork_parent, fork_child); }

/* ---- socket I/O ---- */

/* Frames are read through one buffer, so that a reply's header, fixed part
 * and short data usually come in one recv instead of three. Only the
 * reading thread (the runtime thread, also when it waits nested in a
 * completion routine) touches it; it is emptied for every new connection. */
constexpr size_t kReadBufferSize = 64 * 1024;
uint8_t read_buffer[kReadBufferSize];
size_t read_start = 0;
size_t read_end = 0;

void reset_read_buffer() { read_start = read_end = 0; }

/* Reads exactly n bytes. false on end of file (error 0) or failure. */
bool read_full(int fd, void *to, size_t n, int *error) {
  uint8_t *bytes = static_cast<uint8_t *>(to);
  size_t got = 0;
  while (got < n) {
    if (read_start < read_end) {
      size_t take = read_end - read_start;
      if (take > n - got) take = n - got;
      memcpy(bytes + got, read_buffer + read_start, take);
      read_start += take;
      got += take;
      continue;
    }
    read_start = read_end = 0;
    /* A long remainder goes straight to its destination. */
    const bool direct = n - got >= kReadBufferSize / 2;
    ssize_t r = direct ? recv(fd, bytes + got, n - got, 0) : recv(fd, read_buffer, kReadBufferSize, 0);
    if (r > 0) {
      if (direct)
        got += static_cast<size_t>(r);
      else
        read_end = static_cast<size_t>(r);
    } else if (r == 0) {
      *error = 0;
      return false;
    } else if (errno != EINTR) {
      *error = errno;
      return false;
    }
  }
  return true;
}

bool discard(int fd, uint32_t n, int *error) {
  uint8_t sink[1024];
  while (n > 0) {
    uint32_t chunk = n < sizeof sink ? n : static_cast<uint32_t>(sizeof sink);
    if (!read_full(fd, sink, chunk, error)) return false;
    n -= chunk;
  }
  return true;
}

/* Writes one whole frame (two parts) on the connection of `gen`. A failed
 * write breaks the connection, which the runtime thread then sees; the
 * request is completed there like every other outstanding one. */
void send_frame(uint32_t gen, const uint8_t *head, size_t head_length, const void *data,
                size_t data_length) {
  pthread_mutex_lock(&write_mutex);
  pthread_mutex_lock(&client_mutex);
  int fd = (state == LinkState::kConnected && generation == gen) ? link_fd : -1;
  pthread_mutex_unlock(&client_mutex);
  if (fd >= 0) {
    iovec parts[2] = {{const_cast<uint8_t *>(head), head_length},
                      {const_cast<void *>(data), data_length}};
    int count = data_length > 0 ? 2 : 1;
    int index = 0;
    while (index < count) {
      msghdr message;
      memset(&message, 0, sizeof message);
      message.msg_iov = &parts[index];
      message.msg_iovlen = static_cast<size_t>(count - index);
      ssize_t sent = sendmsg(fd, &message, MSG_NOSIGNAL);
      if (sent < 0) {
        if (errno == EINTR) continue;
        int error = errno;
        pthread_mutex_lock(&client_mutex);
        if (generation == gen && write_error == 0) write_error = error;
        pthread_mutex_unlock(&client_mutex);
        shutdown(fd, SHUT_RDWR);
        break;
      }
      size_t left = static_cast<size_t>(sent);
      while (index < count && left >= parts[index].iov_len) {
        left -= parts[index].iov_len;
        ++index;
      }
      if (index < count) {
        parts[index].iov_base = static_cast<uint8_t *>(parts[index].iov_base) + left;
        parts[index].iov_len -= left;
      }
    }
  }
  pthread_mutex_unlock(&write_mutex);
}

/* ---- delivery (runtime thread) ---- */

/* Hands a finished request back: the block already holds its results. */
void deliver(Pending *p) {
  if (p->callback) {
    p->callback(p->block, 0, 0, p->correlator);
    free(p);
    snanode_asm_event_signal();
    return;
  }
  uint64_t turn = p->lock_depth > 0 ? snanode_lock_reserve_turn() : 0;
  pthread_mutex_lock(&client_mutex);
  p->turn = turn;
  p->done = true;
  if (p->wake) pthread_cond_signal(p->wake);
  pthread_mutex_unlock(&client_mutex);
  /* The waiter owns the entry again. */
}

/* Step 1 of a loss: every outstanding request completes with 0xF003, and
 * new verbs are refused until the connection is closed. */
void connection_lost(uint32_t gen, int error) {
  pthread_mutex_lock(&client_mutex);
  if (state != LinkState::kConnected || generation != gen) {
    pthread_mutex_unlock(&client_mutex);
    return;
  }
  state = LinkState::kLost;
  /* The reader sees only the end of a connection a writer broke. */
  if (error == 0) error = write_error;
  Pending *p = first;
  first = last = nullptr;
  pthread_mutex_unlock(&client_mutex);

  nba_pd_print_problem(kMsgNodeLost, static_cast<uint32_t>(error), "");
  while (p) {
    Pending *next = p->next;
    p->next = p->prev = nullptr;
    write_codes(p->block, kPrimaryNodeLost, static_cast<uint32_t>(error));
    deliver(p);
    p = next;
  }
}

void protocol_fault(uint32_t fault, int fd, int *error) {
  nba_pd_print_problem(kMsgProtocolError, fault, "");
  *error = EPROTO;
  shutdown(fd, SHUT_RDWR);
}

/* The entry for a reply's tag, still linked. */
Pending *outstanding(uint64_t tag) {
  pthread_mutex_lock(&client_mutex);
  Pending *p = find_entry(tag);
  pthread_mutex_unlock(&client_mutex);
  return p;
}

void take(Pending *p) {
  pthread_mutex_lock(&client_mutex);
  unlink_entry(p);
  pthread_mutex_unlock(&client_mutex);
}

bool dispatch_verb_reply(int fd, uint64_t tag, uint32_t body, int *error) {
  if (body < wire::kVerbReplyFixedSize) {
    protocol_fault(kFaultFrameLength, fd, error);
    return false;
  }
  uint8_t fixed[wire::kVerbReplyFixedSize];
  if (!read_full(fd, fixed, sizeof fixed, error)) return false;
  wire::VerbReply reply = wire::decode_verb_reply(fixed);
  uint32_t rest = body - static_cast<uint32_t>(wire::kVerbReplyFixedSize);
  Pending *p = outstanding(tag);
  if (p && p->nof) {
    protocol_fault(kFaultWrongKind, fd, error);
    return false;
  }
  uint32_t copied = 0;
  if (p && p->buffer && (reply.outputs & wire::kOutReceive)) {
    copied = rest < p->buffer_size ? rest : p->buffer_size;
    if (!read_full(fd, p->buffer, copied, error)) return false;
    rest -= copied;
  }
  if (!discard(fd, rest, error)) return false;
  if (!p) {
    /* Not fatal: the stream is still in step. */
    nba_pd_print_problem(kMsgProtocolError, kFaultUnknownTag, "");
    return true;
  }
  take(p);
  apply_verb_reply(p->block, p->opcode, reply, copied);
  deliver(p);
  return true;
}

bool dispatch_nof_reply(int fd, uint64_t tag, uint32_t body, int *error) {
  if (body < wire::kNofReplyFixedSize) {
    protocol_fault(kFaultFrameLength, fd, error);
    return false;
  }
  uint8_t fixed[wire::kNofReplyFixedSize];
  if (!read_full(fd, fixed, sizeof fixed, error)) return false;
  wire::NofReply reply = wire::decode_nof_reply(fixed);
  uint32_t rest = body - static_cast<uint32_t>(wire::kNofReplyFixedSize);
  Pending *p = outstanding(tag);
  if (p && !p->nof) {
    protocol_fault(kFaultWrongKind, fd, error);
    return false;
  }
  uint32_t copied = 0;
  if (p && p->buffer) {
    uint32_t entry = static_cast<uint32_t>(wire::kSideInfoEntrySize);
    copied = reply.entries;
    if (copied > p->buffer_size / entry) copied = p->buffer_size / entry;
    if (copied > rest / entry) copied = rest / entry;
    if (!read_full(fd, p->buffer, copied * entry, error)) return false;
    side_info_entries_to_host(p->buffer, copied);
    rest -= copied * entry;
  }
  if (!discard(fd, rest, error)) return false;
  if (!p) {
    nba_pd_print_problem(kMsgProtocolError, kFaultUnknownTag, "");
    return true;
  }
  take(p);
  apply_nof_reply(p->block, p->opcode, reply, static_cast<uint16_t>(copied));
  deliver(p);
  return true;
}

bool dispatch_trace_control(int fd, uint32_t body, int *error) {
  if (body < wire::kTraceControlFixedSize) {
    protocol_fault(kFaultFrameLength, fd, error);
    return false;
  }
  uint8_t fixed[wire::kTraceControlFixedSize];
  if (!read_full(fd, fixed, sizeof fixed, error)) return false;
  uint32_t rest = body - static_cast<uint32_t>(wire::kTraceControlFixedSize);
  uint32_t length = wire::get16(fixed, 2);
  if (length > rest || length > wire::kMaxTracePath) {
    protocol_fault(kFaultFrameLength, fd, error);
    return false;
  }
  char path[wire::kMaxTracePath + 1];
  if (!read_full(fd, path, length, error)) return false;
  path[length] = '\0';
  if (!discard(fd, rest - length, error)) return false;
  if (length > 0) snanode_trace_use_file(path);
  snanode_trace_set_api(fixed[0] != 0);
  return true;
}

/* Reads one frame and acts on it. false when the connection has ended. */
bool read_and_dispatch(int fd, int *error) {
  uint8_t head[wire::kHeaderSize];
  if (!read_full(fd, head, sizeof head, error)) return false;
  wire::FrameHeader header = wire::decode_header(head);
  if (header.length < wire::kHeaderSize || header.length > wire::kMaxReplyFrame) {
    protocol_fault(kFaultFrameLength, fd, error);
    return false;
  }
  uint32_t body = header.length - static_cast<uint32_t>(wire::kHeaderSize);
  switch (header.kind) {
    case wire::Kind::kVerbReply:
      return dispatch_verb_reply(fd, header.tag, body, error);
    case wire::Kind::kNofReply:
      return dispatch_nof_reply(fd, header.tag, body, error);
    case wire::Kind::kTraceControl:
      return dispatch_trace_control(fd, body, error);
    default:
      /* A kind from a newer daemon: skip it. */
      return discard(fd, body, error);
  }
}

bool connection_current(uint32_t gen, int *fd) {
  pthread_mutex_lock(&client_mutex);
  bool current = state == LinkState::kConnected && generation == gen;
  *fd = link_fd;
  pthread_mutex_unlock(&client_mutex);
  return current;
}

void *runtime_main(void *) {
  on_runtime_thread = true;
  for (;;) {
    pthread_mutex_lock(&client_mutex);
    while (state != LinkState::kConnected) pthread_cond_wait(&state_changed, &client_mutex);
    uint32_t gen = generation;
    pthread_mutex_unlock(&client_mutex);
    reset_read_buffer(); /* nothing of an earlier connection is read */

    int fd = -1;
    int error = 0;
    /* A nested wait in a completion routine may have met the loss first. */
    while (connection_current(gen, &fd)) {
      if (!read_and_dispatch(fd, &error)) connection_lost(gen, error);
    }
    /* Every completion is delivered: close the old connection, so that a
     * verb issued once a path user has seen the event connects again
     * instead of meeting the loss, then tell the path users. */
    pthread_mutex_lock(&write_mutex);
    pthread_mutex_lock(&client_mutex);
    if (generation == gen && state == LinkState::kLost) {
      close(link_fd);
      link_fd = -1;
      state = LinkState::kDisconnected;
      pthread_cond_broadcast(&state_changed);
    }
    pthread_mutex_unlock(&client_mutex);
    pthread_mutex_unlock(&write_mutex);
    snanode_raise_path_event(VPM_EVENT_NODE_LOST);
  }
  return nullptr;
}

int start_runtime_thread() {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  /* Signals are for the application's threads. */
  sigset_t all, previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  pthread_t thread;
  int rc = pthread_create(&thread, &attributes, runtime_main, nullptr);
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  pthread_attr_destroy(&attributes);
  return rc;
}

/* ---- issuing ---- */

enum class Admission { kAdmitted, kUnreachable, kRefused };

/* Connects if need be and enters p in the list with a fresh tag. */
Admission admit(Pending *p, uint32_t *gen, uint64_t *tag, int *error) {
  pthread_once(&fork_handlers_once, install_fork_handlers);
  pthread_mutex_lock(&client_mutex);
  if (owner_pid != 0 && owner_pid != getpid()) {
    /* A child made without the fork handlers (a raw clone). */
    forget_connection_locked();
  }
  for (;;) {
    if (state == LinkState::kConnected) {
      p->tag = next_tag++;
      *tag = p->tag;
      *gen = generation;
      link_entry(p);
      pthread_mutex_unlock(&client_mutex);
      return Admission::kAdmitted;
    }
    if (state == LinkState::kLost) {
      pthread_mutex_unlock(&client_mutex);
      *error = 0;
      return Admission::kRefused;
    }
    if (connecting) {
      uint32_t attempt = connect_attempts;
      while (connecting) pthread_cond_wait(&state_changed, &client_mutex);
      if (state != LinkState::kConnected && connect_attempts != attempt) {
        *error = last_connect_error;
        pthread_mutex_unlock(&client_mutex);
        return Admission::kUnreachable;
      }
      continue;
    }
    connecting = true;
    bool need_thread = !thread_running;
    pthread_mutex_unlock(&client_mutex);

    int fd = -1;
    int rc = connect_daemon(&fd);
    if (rc == 0 && need_thread) {
      rc = start_runtime_thread();
      if (rc != 0) close(fd);
    }

    pthread_mutex_lock(&client_mutex);
    connecting = false;
    ++connect_attempts;
    if (rc == 0) {
      if (need_thread) thread_running = true;
      link_fd = fd;
      owner_pid = getpid();
      write_error = 0;
      ++generation;
      state = LinkState::kConnected;
    } else {
      last_connect_error = rc;
    }
    pthread_cond_broadcast(&state_changed);
    if (rc != 0) {
      pthread_mutex_unlock(&client_mutex);
      *error = rc;
      return Admission::kUnreachable;
    }
  }
}

/* Waits for p's reply. The runtime thread reads and delivers meanwhile.
 * Returns false if p was not delivered (it has then been withdrawn). */
bool wait_done(Pending *p, uint32_t gen) {
  if (!on_runtime_thread) {
    pthread_mutex_lock(&client_mutex);
    while (!p->done) pthread_cond_wait(p->wake, &client_mutex);
    pthread_mutex_unlock(&client_mutex);
    return true;
  }
  for (;;) {
    int fd = -1;
    pthread_mutex_lock(&client_mutex);
    bool done = p->done;
    bool current = state == LinkState::kConnected && generation == gen;
    fd = link_fd;
    if (!done && !current) {
      /* Not expected: a loss delivers every entry before anyone sees it.
       * Should it ever happen, the entry must not stay in the list. */
      for (Pending *q = first; q; q = q->next) {
        if (q == p) {
          unlink_entry(p);
          break;
        }
      }
    }
    pthread_mutex_unlock(&client_mutex);
    if (done) return true;
    if (!current) return false;
    int error = 0;
    if (!read_and_dispatch(fd, &error)) connection_lost(gen, error);
  }
}

/* Issues one request and, without a callback, waits for it. Returns
 * APPC_VERB_IN_PROGRESS or APPC_VERB_DONE. */
uint16_t issue(Pending *p, uint8_t *head, size_t head_length, const void *data,
               size_t data_length) {
  pthread_cond_t wake;
  bool waits = p->callback == nullptr;
  if (waits) {
    pthread_cond_init(&wake, nullptr);
    p->wake = on_runtime_thread ? nullptr : &wake;
    p->lock_depth = snanode_lock_release_all();
  }
  uint32_t gen = 0;
  uint64_t tag = 0;
  int error = 0;
  Admission admission = admit(p, &gen, &tag, &error);
  if (admission != Admission::kAdmitted) {
    write_codes(p->block, admission == Admission::kRefused ? kPrimaryNodeLost : kPrimaryNoNode,
                static_cast<uint32_t>(error));
    if (waits) {
      snanode_lock_reacquire(p->lock_depth);
      pthread_cond_destroy(&wake);
    } else {
      free(p);
    }
    return APPC_VERB_DONE;
  }
  /* The frame carries the tag chosen at admission. From here on an
   * asynchronous entry belongs to the runtime thread. */
  wire::put64(head, 8, tag);
  send_frame(gen, head, head_length, data, data_length);
  if (!waits) return APPC_VERB_IN_PROGRESS; /* p may be gone already */
  if (wait_done(p, gen)) {
    if (p->lock_depth > 0) snanode_lock_reacquire_turn(p->turn, p->lock_depth);
  } else {
    write_codes(p->block, kPrimaryNodeLost, 0);
    snanode_lock_reacquire(p->lock_depth);
  }
  pthread_cond_destroy(&wake);
  return APPC_VERB_DONE;
}

Pending *new_entry(APPC_CALLBACK callback, Pending *local) {
  Pending *p = callback ? static_cast<Pending *>(calloc(1, sizeof(Pending))) : local;
  if (p == local) memset(p, 0, sizeof *p);
  return p;
}

uint16_t issue_verb(uint16_t version, void *vcb, APPC_CALLBACK callback, uint32_t correlator) {
  if (version != 2) {
    write_codes(vcb, kPrimaryNotCarried, 0);
    return APPC_VERB_DONE;
  }
  VerbRequest request;
  switch (translate_verb(vcb, &request)) {
    case Translation::kOk:
      break;
    case Translation::kUnknownOpcode:
      write_codes(vcb, kPrimaryNotCarried, 0);
      return APPC_VERB_DONE;
    case Translation::kNullPointer:
      write_codes(vcb, kPrimaryParameterCheck, kSecondaryBadValue);
      return APPC_VERB_DONE;
  }
  Pending local;
  Pending *p = new_entry(callback, &local);
  if (!p) {
    write_codes(vcb, kPrimaryNotCarried, 0);
    return APPC_VERB_DONE;
  }
  p->block = vcb;
  p->opcode = request.verb.opcode;
  p->callback = callback;
  p->correlator = correlator;
  p->buffer = request.receive_buffer;
  p->buffer_size = request.receive_max;

  uint8_t head[wire::kHeaderSize + wire::kVerbFixedSize];
  wire::FrameHeader header;
  header.length = static_cast<uint32_t>(sizeof head + request.data_carried);
  header.kind = wire::Kind::kVerb;
  wire::encode_header(head, header);
  wire::encode_verb(head + wire::kHeaderSize, request.verb);
  return issue(p, head, sizeof head, request.data, request.data_carried);
}

}  // namespace

bool client_wait_state(LinkState wanted, int timeout_ms) {
  timespec deadline;
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += timeout_ms / 1000;
  deadline.tv_nsec += static_cast<long>(timeout_ms % 1000) * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000L;
  }
  pthread_mutex_lock(&client_mutex);
  int rc = 0;
  while (state != wanted && rc != ETIMEDOUT)
    rc = pthread_cond_timedwait(&state_changed, &client_mutex, &deadline);
  bool reached = state == wanted;
  pthread_mutex_unlock(&client_mutex);
  return reached;
}

}  // namespace snanode

using namespace snanode;

extern "C" {

SNA_EXPORT uint16_t appc_c_async_version(uint16_t version, void *vcb, APPC_CALLBACK callback,
                                         uint32_t correlator) {
  if (!vcb) return APPC_VERB_DONE;
  return issue_verb(version, vcb, callback, correlator);
}

SNA_EXPORT void appc_c_version(uint16_t version, void *vcb) {
  if (!vcb) return;
  issue_verb(version, vcb, nullptr, 0);
}

SNA_EXPORT void nof_version(uint16_t version, uint32_t target_handle, void *record) {
  if (!record) return;
  if (version != 2) {
    write_codes(record, kPrimaryNotCarried, 0);
    return;
  }
  NofRequest request;
  if (translate_nof(target_handle, record, &request) == Translation::kNullPointer) {
    /* The node-operator code for a bad field value. */
    write_codes(record, kPrimaryParameterCheck, 0x00000003);
    return;
  }
  Pending entry;
  memset(&entry, 0, sizeof entry);
  entry.nof = true;
  entry.block = record;
  entry.opcode = request.nof.opcode;
  entry.buffer = request.buffer;
  entry.buffer_size = request.buffer_size;

  uint8_t head[wire::kHeaderSize + wire::kNofFixedSize];
  wire::FrameHeader header;
  header.length = static_cast<uint32_t>(sizeof head);
  header.kind = wire::Kind::kNof;
  wire::encode_header(head, header);
  wire::encode_nof(head + wire::kHeaderSize, request.nof);
  issue(&entry, head, sizeof head, nullptr, 0);
}

}  // extern "C"
