// A stand-in for the node's trace output and assertion service: it records
// what the trace code writes so that tests can compare it line by line.
#ifndef TRACE_FAKE_NODE_H
#define TRACE_FAKE_NODE_H

#include <cstdint>
#include <string>
#include <vector>

namespace fake {

struct AssertRecord {
  std::string file;
  int line;
  std::string expression;
};

// Each com_trc_sep adds "SEP"; each com_trc_line adds its text; each
// com_trc_dump adds "DUMP(n):" and the bytes in hex, a run of one byte value
// written as "HH*count".
extern std::vector<std::string> lines;
// Calls whose file handle or tag was not the expected one.
extern std::vector<std::string> misdirected;
extern std::vector<AssertRecord> asserts;
extern int lock_calls;
extern int unlock_calls;
extern int init_calls;
extern unsigned char *init_argument;
extern unsigned char control[16];

// Clears the records, switches API tracing on and installs a trace file.
void reset();

// The dump layout, for tests that build expected lines.
std::string dump_text(const void *address, uint32_t length);

}  // namespace fake

#endif
