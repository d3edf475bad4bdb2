// The test node: a stand-in for libsnanode.so that exports the same node
// interface and lets a test script what each verb returns, see every block
// the library issued, fail allocations and resources on demand, and read
// the problem, audit, assertion and trace records the library wrote.
#ifndef TESTNODE_H
#define TESTNODE_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "snanode/node.h"
#include "snanode/verbs.h"

namespace testnode {

// Puts the node back to its just-loaded state: scripts, captures, failure
// injection and the trace bytes. Tables and blocks the library still holds
// stay valid (the library keeps its state for the life of the process).
void reset();

// ---- Verb scripting --------------------------------------------------
// A verb that matches no script succeeds inline with primary 0.
struct VerbScript {
  uint16_t opcode = 0;      // 0 matches any verb
  uint16_t primary = 0;     // big-endian number, e.g. 0x0003; stored BE
  uint32_t secondary = 0;   // big-endian number; stored BE
  bool async = false;       // with a callback: answer 6128, complete later
  std::function<void(void *block)> fill;  // writes the verb's outputs
};
void script_verb(const VerbScript &script);  // queued, first match used once

// Completes verbs answered "in progress", oldest first, calling their
// callbacks from the node's own thread; waits until they have returned.
// Returns how many were completed (count 0: all).
int complete_async(int count = 0);
int pending_async();

struct IssuedVerb {
  uint16_t opcode;
  bool via_async_entry;  // appc_c_async_version (else appc_c_version)
  bool had_callback;
  std::vector<uint8_t> bytes;  // the block as issued, before any output
};
const std::vector<IssuedVerb> &issued_verbs();

// ---- Node-operator verbs and the node's side information -------------
void add_node_side_info(const NOF_SIDE_INFO_ENTRY &entry);
// Forces the next open record to fail with this primary (stored BE).
void fail_next_nof_open(uint16_t primary);
// Forces the next query to answer these codes (BE numbers).
void script_next_nof_query(uint16_t primary, uint32_t secondary);
struct IssuedNof {
  uint16_t opcode;
  uint32_t target;
  std::vector<uint8_t> bytes;
};
const std::vector<IssuedNof> &issued_nof();
int nof_queries();

// ---- Failure injection -----------------------------------------------
// The nth allocation from now (1 = the next) fails; 0 turns it off.
void fail_allocation(int nth);
void fail_table_init(int nth);       // nth vtm_table_init from now
void fail_free_entry(int nth);       // nth vtm_get_free_entry from now
void fail_wait_object(bool fail);
void fail_path_user(bool fail);
// Blocks allocated and not freed, and live tables, wait objects, path users.
int live_allocations();
int allocations_made();
int live_tables();
int live_wait_objects();
int live_path_users();

// Raises a path event to every registered path user under the lock.
void raise_path_event(uint16_t code);

// ---- Captured records ------------------------------------------------
struct LogRecord {
  uint32_t message;
  uint32_t sub_code;
  std::string format;
  std::vector<std::string> data;  // one decoded text per descriptor
};
const std::vector<LogRecord> &problems();
const std::vector<LogRecord> &audits();
struct AssertRecord {
  std::string file;
  int line;
  std::string expression;
};
const std::vector<AssertRecord> &assertions();

// Trace-control bytes behind ptrc, and the lines written to the trace.
unsigned char *trace_control();
void set_trace_file(uint32_t handle);
const std::vector<std::string> &trace_lines();

}  // namespace testnode

#endif
