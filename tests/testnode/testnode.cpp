// The test node's implementation of the node interface. Plain standard C++
// with one mutex for its own bookkeeping; the process-wide lock it offers
// is a separate monitor so that vpm_sleep can release it fully.
#include "testnode.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <thread>

namespace {

std::mutex g_mutex;  // the node's own bookkeeping

// ---- The process-wide lock (recursive monitor) ----
std::mutex lock_mutex;
std::condition_variable lock_cv;
std::thread::id lock_owner;
int lock_depth = 0;

void lock_take(int depth) {
  std::unique_lock<std::mutex> l(lock_mutex);
  const auto me = std::this_thread::get_id();
  if (lock_depth > 0 && lock_owner == me) {
    lock_depth += depth;
    return;
  }
  lock_cv.wait(l, [] { return lock_depth == 0; });
  lock_owner = me;
  lock_depth = depth;
}

int lock_release_all() {
  std::lock_guard<std::mutex> l(lock_mutex);
  if (lock_depth == 0 || lock_owner != std::this_thread::get_id()) return 0;
  const int depth = lock_depth;
  lock_depth = 0;
  lock_owner = std::thread::id();
  lock_cv.notify_all();
  return depth;
}

// ---- Wait objects ----
struct WaitObject {
  bool signalled = false;
};
std::map<uint32_t, WaitObject> &wait_objects = *new std::map<uint32_t, WaitObject>;
std::condition_variable wait_cv;
uint32_t next_wait_object = 1;

// Containers that refer to blocks the library keeps for the life of the
// process live on the heap and are never destroyed, so that those blocks
// stay reachable at exit and the leak checker reports only real leaks.

// ---- Tables ----
struct Table {
  std::map<uint32_t, void *> entries;
  uint32_t last = 0;
};
std::map<uint32_t, Table> &tables = *new std::map<uint32_t, Table>;
uint32_t next_table = 1;

// ---- Path users ----
struct PathUser {
  VPM_PATH_CALLBACK callback;
  void *path;
};
std::map<uint32_t, PathUser> &path_users = *new std::map<uint32_t, PathUser>;
uint32_t next_path_user = 1;

// ---- Memory ----
std::set<void *> &live_blocks = *new std::set<void *>;
int allocation_count = 0;
int fail_alloc_countdown = 0;
int fail_table_countdown = 0;
int fail_entry_countdown = 0;
bool fail_wait = false;
bool fail_path = false;

// ---- Verbs ----
std::deque<testnode::VerbScript> scripts;
std::vector<testnode::IssuedVerb> issued;
struct Pending {
  void *block;
  APPC_CALLBACK callback;
  uint32_t correlator;
  testnode::VerbScript script;
};
std::deque<Pending> pending;

std::map<std::string, NOF_SIDE_INFO_ENTRY> node_side_info;
std::vector<testnode::IssuedNof> issued_nof_records;
int query_count = 0;
bool nof_open_fails = false;
uint16_t nof_open_primary = 0;
bool nof_query_scripted = false;
uint16_t nof_query_primary = 0;
uint32_t nof_query_secondary = 0;

// ---- Records ----
std::vector<testnode::LogRecord> problem_records;
std::vector<testnode::LogRecord> audit_records;
std::vector<testnode::AssertRecord> assert_records;
std::vector<std::string> trace_text;

unsigned char trace_bytes[16];

bool countdown_hits(int &countdown) {
  if (countdown <= 0) return false;
  return --countdown == 0;
}

uint16_t stored16(uint16_t be_number) {
  return static_cast<uint16_t>((be_number >> 8) | (be_number << 8));
}
uint32_t stored32(uint32_t be_number) { return __builtin_bswap32(be_number); }

size_t block_size(uint16_t opcode) {
  if (opcode == VERB_REGISTER_TP_NAME || opcode == VERB_WITHDRAW_TP_NAME) return sizeof(VCB_TP_NAME);
  if (opcode == VERB_TP_ENDED) return sizeof(VCB_TP_ENDED);
  return sizeof(VCB_AREA);
}

void apply_script(void *block, const testnode::VerbScript &s) {
  auto *hdr = static_cast<VCB_HEADER *>(block);
  if (s.fill) s.fill(block);
  hdr->primary_rc = stored16(s.primary);
  hdr->secondary_rc = stored32(s.secondary);
}

testnode::VerbScript take_script(uint16_t opcode) {
  for (auto it = scripts.begin(); it != scripts.end(); ++it) {
    if (it->opcode == 0 || it->opcode == opcode) {
      testnode::VerbScript s = *it;
      scripts.erase(it);
      return s;
    }
  }
  testnode::VerbScript none;
  return none;
}

std::string hex_bytes(const uint8_t *p, unsigned n) {
  std::string s;
  char buf[4];
  for (unsigned i = 0; i < n; ++i) {
    std::snprintf(buf, sizeof buf, "%02X", p[i]);
    s += buf;
  }
  return s;
}

std::string escaped(const uint8_t *p, unsigned n) {
  std::string s;
  char buf[8];
  for (unsigned i = 0; i < n; ++i) {
    if (p[i] >= 0x20 && p[i] < 0x7F && p[i] != '\\') {
      s += static_cast<char>(p[i]);
    } else {
      std::snprintf(buf, sizeof buf, "\\x%02X", p[i]);
      s += buf;
    }
  }
  return s;
}

testnode::LogRecord decode(uint32_t message, uint32_t sub_code, const char *format, va_list ap) {
  testnode::LogRecord r{message, sub_code, format ? format : "", {}};
  char buf[32];
  const char *f = format ? format : "";
  while (*f != '\0') {
    while (*f == ' ') ++f;
    const char *start = f;
    while (*f != '\0' && *f != ' ') ++f;
    std::string d(start, f);
    if (d.empty()) break;
    if (d == "b") {
      std::snprintf(buf, sizeof buf, "%02X", va_arg(ap, unsigned) & 0xFF);
      r.data.push_back(buf);
    } else if (d == "x") {
      std::snprintf(buf, sizeof buf, "%04X", va_arg(ap, unsigned) & 0xFFFF);
      r.data.push_back(buf);
    } else if (d == "l") {
      std::snprintf(buf, sizeof buf, "%u", va_arg(ap, unsigned));
      r.data.push_back(buf);
    } else if (d == "lx") {
      std::snprintf(buf, sizeof buf, "%08X", va_arg(ap, unsigned));
      r.data.push_back(buf);
    } else if (d == "ba" || d == "es") {
      unsigned n = va_arg(ap, unsigned);
      const uint8_t *p = va_arg(ap, const uint8_t *);
      r.data.push_back(d == "ba" ? hex_bytes(p, n) : escaped(p, n));
    } else {
      r.data.push_back("?" + d);
    }
  }
  return r;
}

}  // namespace

// =====================================================================
// The node interface
// =====================================================================
extern "C" {

const char nba_blank_name[] = "        ";
SNA_EXPORT unsigned char *ptrc = trace_bytes;
SNA_EXPORT TRC_API trc_api = {0, {0, 0, 0}, 1};

SNA_EXPORT uint16_t vpm_lock(void) {
  lock_take(1);
  return 1;
}

SNA_EXPORT void vpm_unlock(uint16_t) {
  std::lock_guard<std::mutex> l(lock_mutex);
  if (lock_depth > 0 && lock_owner == std::this_thread::get_id() && --lock_depth == 0) {
    lock_owner = std::thread::id();
    lock_cv.notify_all();
  }
}

SNA_EXPORT uint32_t vpm_allocate_wait_object(void) {
  std::lock_guard<std::mutex> l(g_mutex);
  if (fail_wait) return 0;
  uint32_t h = next_wait_object++;
  wait_objects[h] = WaitObject{};
  return h;
}

SNA_EXPORT void vpm_release_wait_object(uint32_t wo) {
  std::lock_guard<std::mutex> l(g_mutex);
  wait_objects.erase(wo);
}

SNA_EXPORT int vpm_sleep(uint32_t wo, int32_t timeout_ms) {
  const int depth = lock_release_all();
  int result = 0;
  {
    std::unique_lock<std::mutex> l(g_mutex);
    auto ready = [wo] {
      auto it = wait_objects.find(wo);
      return it == wait_objects.end() || it->second.signalled;
    };
    if (timeout_ms < 0) {
      wait_cv.wait(l, ready);
    } else if (!wait_cv.wait_for(l, std::chrono::milliseconds(timeout_ms), ready)) {
      result = 1;
    }
    auto it = wait_objects.find(wo);
    if (it != wait_objects.end()) it->second.signalled = false;
  }
  if (depth > 0) lock_take(depth);
  return result;
}

SNA_EXPORT void vpm_wakeup(uint32_t wo) {
  std::lock_guard<std::mutex> l(g_mutex);
  auto it = wait_objects.find(wo);
  if (it != wait_objects.end()) it->second.signalled = true;
  wait_cv.notify_all();
}

SNA_EXPORT void vpm_init_path_user(void *, void *, VPM_PATH_CALLBACK callback, void *path,
                                   uint32_t *path_user_out) {
  std::lock_guard<std::mutex> l(g_mutex);
  if (fail_path) {
    *path_user_out = 0;
    return;
  }
  uint32_t h = next_path_user++;
  path_users[h] = PathUser{callback, path};
  *path_user_out = h;
}

SNA_EXPORT void vpm_terminate_path_user(uint32_t h) {
  std::lock_guard<std::mutex> l(g_mutex);
  path_users.erase(h);
}

SNA_EXPORT int vpm_asm_event_fd(void) { return -1; }

SNA_EXPORT void vtm_table_init(uint32_t *table_out, uint32_t) {
  std::lock_guard<std::mutex> l(g_mutex);
  if (countdown_hits(fail_table_countdown)) {
    *table_out = 0;
    return;
  }
  uint32_t h = next_table++;
  tables[h] = Table{};
  *table_out = h;
}

SNA_EXPORT void vtm_table_terminate(uint32_t table) {
  std::lock_guard<std::mutex> l(g_mutex);
  tables.erase(table);
}

SNA_EXPORT uint32_t vtm_get_free_entry(uint32_t table, void *pointer) {
  std::lock_guard<std::mutex> l(g_mutex);
  auto it = tables.find(table);
  if (it == tables.end() || countdown_hits(fail_entry_countdown)) return 0;
  Table &t = it->second;
  uint32_t h = t.last;
  do {
    ++h;
    if (h == 0) ++h;
  } while (t.entries.count(h) != 0);
  t.last = h;
  t.entries[h] = pointer;
  return h;
}

SNA_EXPORT void *vtm_get_pointer(uint32_t table, uint32_t handle) {
  std::lock_guard<std::mutex> l(g_mutex);
  auto it = tables.find(table);
  if (it == tables.end()) return nullptr;
  auto e = it->second.entries.find(handle);
  return e == it->second.entries.end() ? nullptr : e->second;
}

SNA_EXPORT void vtm_release_entry(uint32_t table, uint32_t handle) {
  std::lock_guard<std::mutex> l(g_mutex);
  auto it = tables.find(table);
  if (it != tables.end()) it->second.entries.erase(handle);
}

SNA_EXPORT uint32_t vtm_get_next_used(uint32_t table, uint32_t after, void **pointer_out) {
  std::lock_guard<std::mutex> l(g_mutex);
  if (pointer_out != nullptr) *pointer_out = nullptr;
  auto it = tables.find(table);
  if (it == tables.end()) return 0;
  auto e = it->second.entries.upper_bound(after);
  if (e == it->second.entries.end()) return 0;
  if (pointer_out != nullptr) *pointer_out = e->second;
  return e->first;
}

SNA_EXPORT void *nba_mm_alloc(uint32_t size, uint32_t, const char *, uint32_t, uint32_t) {
  std::lock_guard<std::mutex> l(g_mutex);
  if (countdown_hits(fail_alloc_countdown)) return nullptr;
  void *p = std::malloc(size == 0 ? 1 : size);
  if (p != nullptr) {
    live_blocks.insert(p);
    ++allocation_count;
  }
  return p;
}

SNA_EXPORT void nba_mm_free(void *block) {
  if (block == nullptr) return;
  std::lock_guard<std::mutex> l(g_mutex);
  if (live_blocks.erase(block) == 0) {
    // Freeing what the node never handed out is a bug in the library.
    assert_records.push_back({"testnode", 0, "nba_mm_free of an unknown block"});
    return;
  }
  std::free(block);
}

SNA_EXPORT void nba_pd_print_problem(uint32_t message, uint32_t sub_code, const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  testnode::LogRecord r = decode(message, sub_code, format, ap);
  va_end(ap);
  std::lock_guard<std::mutex> l(g_mutex);
  problem_records.push_back(r);
}

SNA_EXPORT void nba_pd_print_audit(uint32_t message, uint32_t sub_code, const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  testnode::LogRecord r = decode(message, sub_code, format, ap);
  va_end(ap);
  std::lock_guard<std::mutex> l(g_mutex);
  audit_records.push_back(r);
}

SNA_EXPORT void v0_assert(const char *file, int line, const char *expression) {
  std::lock_guard<std::mutex> l(g_mutex);
  assert_records.push_back({file, line, expression});
}

SNA_EXPORT void sepuapi_init(unsigned char *) {}
SNA_EXPORT void trc_lock_file(TRC_API *) {}
SNA_EXPORT void trc_unlock_file(TRC_API *) {}

SNA_EXPORT void com_trc_sep(uint32_t, const char *tag) {
  std::lock_guard<std::mutex> l(g_mutex);
  trace_text.push_back(std::string(tag) + "----");
}

SNA_EXPORT void com_trc_line(uint32_t, const char *tag, const char *text) {
  std::lock_guard<std::mutex> l(g_mutex);
  trace_text.push_back(std::string(tag) + text);
}

SNA_EXPORT void com_trc_dump(uint32_t, const char *tag, const void *address, uint32_t length) {
  std::lock_guard<std::mutex> l(g_mutex);
  trace_text.push_back(std::string(tag) + "dump " +
                       hex_bytes(static_cast<const uint8_t *>(address), length));
}

SNA_EXPORT uint16_t appc_c_async_version(uint16_t, void *vcb, APPC_CALLBACK callback,
                                         uint32_t correlator) {
  std::unique_lock<std::mutex> l(g_mutex);
  const uint16_t opcode = static_cast<VCB_HEADER *>(vcb)->opcode;
  const auto *bytes = static_cast<const uint8_t *>(vcb);
  issued.push_back({opcode, true, callback != nullptr,
                    std::vector<uint8_t>(bytes, bytes + block_size(opcode))});
  testnode::VerbScript s = take_script(opcode);
  if (s.async && callback != nullptr) {
    pending.push_back({vcb, callback, correlator, s});
    return APPC_VERB_IN_PROGRESS;
  }
  l.unlock();
  apply_script(vcb, s);
  return APPC_VERB_DONE;
}

SNA_EXPORT void appc_c_version(uint16_t, void *vcb) {
  std::unique_lock<std::mutex> l(g_mutex);
  const uint16_t opcode = static_cast<VCB_HEADER *>(vcb)->opcode;
  const auto *bytes = static_cast<const uint8_t *>(vcb);
  issued.push_back({opcode, false, false, std::vector<uint8_t>(bytes, bytes + block_size(opcode))});
  testnode::VerbScript s = take_script(opcode);
  l.unlock();
  apply_script(vcb, s);
}

SNA_EXPORT void nof_version(uint16_t, uint32_t target, void *record) {
  std::lock_guard<std::mutex> l(g_mutex);
  const uint16_t opcode = *static_cast<uint16_t *>(record);
  size_t size = opcode == NOF_OPEN ? sizeof(NOF_OPEN_RECORD)
                : opcode == NOF_QUERY_SIDE_INFO ? sizeof(NOF_QUERY_RECORD)
                                                : sizeof(NOF_CLOSE_RECORD);
  const auto *bytes = static_cast<const uint8_t *>(record);
  issued_nof_records.push_back({opcode, target, std::vector<uint8_t>(bytes, bytes + size)});
  if (opcode == NOF_OPEN) {
    auto *r = static_cast<NOF_OPEN_RECORD *>(record);
    if (nof_open_fails) {
      nof_open_fails = false;
      r->primary_rc = stored16(nof_open_primary);
      return;
    }
    r->primary_rc = 0;
    r->target_handle = 0x00C0FFEE;
  } else if (opcode == NOF_QUERY_SIDE_INFO) {
    auto *q = static_cast<NOF_QUERY_RECORD *>(record);
    ++query_count;
    if (nof_query_scripted) {
      nof_query_scripted = false;
      q->primary_rc = stored16(nof_query_primary);
      q->secondary_rc = stored32(nof_query_secondary);
      return;
    }
    auto it = node_side_info.find(std::string(reinterpret_cast<char *>(q->sym_dest_name), 8));
    if (it == node_side_info.end() || q->buffer_size < sizeof(NOF_SIDE_INFO_ENTRY)) {
      q->primary_rc = stored16(0x0002);
      q->secondary_rc = stored32(0x00001058);
      return;
    }
    std::memcpy(q->buffer, &it->second, sizeof(NOF_SIDE_INFO_ENTRY));
    q->primary_rc = 0;
    q->secondary_rc = 0;
  } else {
    static_cast<NOF_CLOSE_RECORD *>(record)->primary_rc = 0;
  }
}

}  // extern "C"

// =====================================================================
// The test-control interface
// =====================================================================
namespace testnode {

void reset() {
  complete_async();
  std::lock_guard<std::mutex> l(g_mutex);
  scripts.clear();
  issued.clear();
  node_side_info.clear();
  issued_nof_records.clear();
  query_count = 0;
  nof_open_fails = false;
  nof_query_scripted = false;
  fail_alloc_countdown = fail_table_countdown = fail_entry_countdown = 0;
  fail_wait = fail_path = false;
  problem_records.clear();
  audit_records.clear();
  assert_records.clear();
  trace_text.clear();
  std::memset(trace_bytes, 0, sizeof trace_bytes);
  trc_api.file_handle = 1;
}

void script_verb(const VerbScript &script) {
  std::lock_guard<std::mutex> l(g_mutex);
  scripts.push_back(script);
}

int complete_async(int count) {
  std::vector<Pending> batch;
  {
    std::lock_guard<std::mutex> l(g_mutex);
    while (!pending.empty() && (count == 0 || static_cast<int>(batch.size()) < count)) {
      batch.push_back(pending.front());
      pending.pop_front();
    }
  }
  if (batch.empty()) return 0;
  // Completions arrive on the node's own thread, without the process lock.
  std::thread node_thread([&batch] {
    for (Pending &p : batch) {
      apply_script(p.block, p.script);
      p.callback(p.block, 0, 0, p.correlator);
    }
  });
  node_thread.join();
  return static_cast<int>(batch.size());
}

int pending_async() {
  std::lock_guard<std::mutex> l(g_mutex);
  return static_cast<int>(pending.size());
}

const std::vector<IssuedVerb> &issued_verbs() { return issued; }

void add_node_side_info(const NOF_SIDE_INFO_ENTRY &entry) {
  std::lock_guard<std::mutex> l(g_mutex);
  node_side_info[std::string(reinterpret_cast<const char *>(entry.sym_dest_name), 8)] = entry;
}

void fail_next_nof_open(uint16_t primary) {
  std::lock_guard<std::mutex> l(g_mutex);
  nof_open_fails = true;
  nof_open_primary = primary;
}

void script_next_nof_query(uint16_t primary, uint32_t secondary) {
  std::lock_guard<std::mutex> l(g_mutex);
  nof_query_scripted = true;
  nof_query_primary = primary;
  nof_query_secondary = secondary;
}

const std::vector<IssuedNof> &issued_nof() { return issued_nof_records; }
int nof_queries() { return query_count; }

void fail_allocation(int nth) { std::lock_guard<std::mutex> l(g_mutex); fail_alloc_countdown = nth; }
void fail_table_init(int nth) { std::lock_guard<std::mutex> l(g_mutex); fail_table_countdown = nth; }
void fail_free_entry(int nth) { std::lock_guard<std::mutex> l(g_mutex); fail_entry_countdown = nth; }
void fail_wait_object(bool fail) { std::lock_guard<std::mutex> l(g_mutex); fail_wait = fail; }
void fail_path_user(bool fail) { std::lock_guard<std::mutex> l(g_mutex); fail_path = fail; }

int live_allocations() { std::lock_guard<std::mutex> l(g_mutex); return static_cast<int>(live_blocks.size()); }
int allocations_made() { std::lock_guard<std::mutex> l(g_mutex); return allocation_count; }
int live_tables() { std::lock_guard<std::mutex> l(g_mutex); return static_cast<int>(tables.size()); }
int live_wait_objects() { std::lock_guard<std::mutex> l(g_mutex); return static_cast<int>(wait_objects.size()); }
int live_path_users() { std::lock_guard<std::mutex> l(g_mutex); return static_cast<int>(path_users.size()); }

void raise_path_event(uint16_t code) {
  std::vector<PathUser> users;
  {
    std::lock_guard<std::mutex> l(g_mutex);
    for (auto &kv : path_users) users.push_back(kv.second);
  }
  vpm_lock();
  for (PathUser &u : users) {
    VPM_PATH_EVENT event{code, 0xFFFF};
    u.callback(u.path, &event);
  }
  vpm_unlock(1);
}

const std::vector<LogRecord> &problems() { return problem_records; }
const std::vector<LogRecord> &audits() { return audit_records; }
const std::vector<AssertRecord> &assertions() { return assert_records; }

unsigned char *trace_control() { return trace_bytes; }
void set_trace_file(uint32_t handle) { trc_api.file_handle = handle; }
const std::vector<std::string> &trace_lines() { return trace_text; }

}  // namespace testnode
