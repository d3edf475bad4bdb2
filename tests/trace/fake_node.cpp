#include "fake_node.h"

#include <cstdio>
#include <cstring>

#include "snanode/node.h"

namespace fake {

std::vector<std::string> lines;
std::vector<std::string> misdirected;
std::vector<AssertRecord> asserts;
int lock_calls;
int unlock_calls;
int init_calls;
unsigned char *init_argument;
unsigned char control[16];

constexpr uint32_t kTraceFile = 7;

void reset() {
  lines.clear();
  misdirected.clear();
  asserts.clear();
  lock_calls = unlock_calls = init_calls = 0;
  init_argument = nullptr;
  std::memset(control, 0, sizeof control);
  control[0] = 0x20;
  ptrc = control;
  trc_api.initialised = 1;
  trc_api.file_handle = kTraceFile;
}

std::string dump_text(const void *address, uint32_t length) {
  const auto *b = static_cast<const unsigned char *>(address);
  char part[32];
  std::snprintf(part, sizeof part, "DUMP(%u):", static_cast<unsigned>(length));
  std::string text = part;
  for (uint32_t i = 0; i < length;) {
    uint32_t run = 1;
    while (i + run < length && b[i + run] == b[i]) ++run;
    if (run == 1)
      std::snprintf(part, sizeof part, " %02X", b[i]);
    else
      std::snprintf(part, sizeof part, " %02X*%u", b[i], static_cast<unsigned>(run));
    text += part;
    i += run;
  }
  return text;
}

void check(uint32_t file, const char *tag, const char *what) {
  if (file != kTraceFile || tag == nullptr || std::strcmp(tag, "CPIC ") != 0)
    misdirected.push_back(what);
}

}  // namespace fake

extern "C" {

unsigned char *ptrc = fake::control;
TRC_API trc_api = {1, {0, 0, 0}, fake::kTraceFile};

void sepuapi_init(unsigned char *trace_control) {
  ++fake::init_calls;
  fake::init_argument = trace_control;
}
void trc_lock_file(TRC_API *api) {
  if (api == &trc_api) ++fake::lock_calls;
}
void trc_unlock_file(TRC_API *api) {
  if (api == &trc_api) ++fake::unlock_calls;
}
void com_trc_sep(uint32_t file, const char *tag) {
  fake::check(file, tag, "sep");
  fake::lines.push_back("SEP");
}
void com_trc_line(uint32_t file, const char *tag, const char *text) {
  fake::check(file, tag, text);
  fake::lines.push_back(text);
}
void com_trc_dump(uint32_t file, const char *tag, const void *address,
                  uint32_t length) {
  fake::check(file, tag, "dump");
  fake::lines.push_back(fake::dump_text(address, length));
}
void v0_assert(const char *file, int line, const char *expression) {
  fake::asserts.push_back({file, line, expression});
}

}  // extern "C"
