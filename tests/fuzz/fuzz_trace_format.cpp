// The trace formatter under arbitrary input: the print engine with any
// format and any argument words, and the call-trace records of any verb
// index, record kind, conversation block and argument values.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "call_trace.h"
#include "fuzz_input.h"
#include "control_blocks.h"
#include "cpic_print.h"
#include "testnode.h"

namespace {

// More argument words than any format of the input can consume: each
// conversion takes at most three (width, precision, value) and formats are
// cut to kMaxFormat characters.
constexpr size_t kMaxFormat = 512;
constexpr size_t kWords = 3 * kMaxFormat;

// The format as a C string in an allocation of its exact size.
std::unique_ptr<char[]> c_string(const std::string& s) {
  auto p = std::make_unique<char[]>(s.size() + 1);
  std::memcpy(p.get(), s.data(), s.size());
  p[s.size()] = '\0';
  return p;
}

// t_print_args with a limit: the output (cut line and NUL included) stays
// within `limit` bytes, so the destination is exactly that long.
void limited_engine(fuzz::Input& in) {
  const bool words_are_strings = in.flag();
  const uint32_t limit = in.range(20, 8192);
  std::string format = in.text(kMaxFormat);
  std::vector<std::unique_ptr<char[]>> strings;
  std::vector<t_print_word> words(kWords, 0);
  if (words_are_strings) {
    // Every word points at a string, so "%s" is always given one; the
    // numeric conversions then print the pointers' bits.
    for (size_t i = 0; i < kWords; ++i) {
      strings.push_back(c_string(in.text(64)));
      words[i] = reinterpret_cast<t_print_word>(strings.back().get());
    }
  } else {
    // Arbitrary numbers: no "%s" may read them as pointers.
    std::replace(format.begin(), format.end(), 's', 'x');
    for (size_t i = 0; i < kWords && !in.empty(); ++i)
      words[i] = static_cast<t_print_word>(in.u64());
  }
  auto fmt = c_string(format);
  auto dest = std::make_unique<char[]>(limit);
  const int n = t_print_args(dest.get(), limit, fmt.get(), words.data());
  // The count excludes the NUL, which must be inside the buffer.
  if (n < 0 || static_cast<uint32_t>(n) >= limit || dest[static_cast<size_t>(n)] != '\0')
    __builtin_trap();
}

// t_sprintf has no limit: its destination must hold whatever the format
// asks for, so widths and precisions are kept to three digits; the output
// then stays below this size.
constexpr size_t kUnboundedOut = kMaxFormat * 1024;

void unbounded_engine(fuzz::Input& in) {
  std::string format = in.text(kMaxFormat);
  // "*" would take a word (an address, see below) as a width.
  std::replace(format.begin(), format.end(), '*', '9');
  // Inside a conversion (from '%' to its conversion character) at most
  // three digits stand, so widths and precisions stay below 1000; at most
  // ten conversions, so the words passed are never exceeded (three words
  // per conversion at most).
  std::string g;
  bool in_conversion = false;
  int digits = 0, percents = 0;
  for (char c : format) {
    if (!in_conversion) {
      if (c == '%') {
        if (++percents > 10) continue;
        in_conversion = true;
        digits = 0;
      }
      g.push_back(c);
      continue;
    }
    if (c >= '0' && c <= '9') {
      if (++digits > 3) continue;
    } else if (c == '\0' || !std::strchr("#-.lL", c)) {
      in_conversion = false;
    }
    g.push_back(c);
  }
  std::string text = in.text(64);
  auto s = c_string(text);
  // Every word may be read as a string, so all of them point at the same
  // one; its address serves as the number of the numeric conversions.
  auto fmt = c_string(g);
  static char* out = new char[kUnboundedOut];
  const char* w = s.get();
  const int n = t_sprintf(out, fmt.get(), w, w, w, w, w, w, w, w, w, w, w, w, w, w, w, w, w, w, w,
                          w, w, w, w, w, w, w, w, w, w, w, w, w);
  if (n < 0 || static_cast<size_t>(n) >= kUnboundedOut || out[n] != '\0') __builtin_trap();
  // The thin wrapper over the C library, with a fixed format.
  auto dest = std::make_unique<char[]>(text.size() + 3);
  if (nb_sprintf(dest.get(), "[%s]", s.get()) != static_cast<int>(std::strlen(s.get()) + 2))
    __builtin_trap();
}

// One call-trace record. Arguments are pointers as the calls pass them:
// each one points at its own allocation, large enough for anything a
// record reads from it given the lengths among the arguments (a buffer is
// as long as its length says).
void trace_record(fuzz::Input& in) {
  unsigned char* control = testnode::trace_control();
  control[0] = in.flag() ? 0x20 : 0x00;  // API tracing on or off
  testnode::set_trace_file(in.range(0, 3));
  const uint32_t kind = in.u32();
  const uint32_t verb = in.flag() ? in.range(0, 64) : in.u32();

  // The conversation block: any contents but its pointers, or none.
  std::unique_ptr<cpic::CCCB> cccb;
  if (in.flag()) {
    cccb = std::make_unique<cpic::CCCB>();
    std::memcpy(cccb.get(), &cpic::BlankCccb, sizeof(cpic::CCCB));
    const std::vector<uint8_t> raw = in.block(sizeof(cpic::CCCB));
    if (!raw.empty()) std::memcpy(cccb.get(), raw.data(), raw.size());
    cccb->pLogData = nullptr;
    cccb->DeallcLogData = nullptr;
    cccb->pOpConvId = nullptr;
    cccb->pResult1 = cccb->pResult2 = cccb->pResult3 = cccb->pResult4 = cccb->pResult5 = nullptr;
  }

  // Each argument's leading 32-bit value (a length, a code, a type) and
  // the bytes after it; lengths beyond 64 KiB are folded below it.
  struct Arg {
    bool null;
    int32_t value;
    std::vector<uint8_t> tail;
  };
  Arg args[6];
  size_t longest = 124;  // a side-information entry
  for (Arg& a : args) {
    a.null = in.range(0, 7) == 0;
    a.value = in.i32();
    if (a.value > 65536) a.value %= 65537;
    if (a.value > 0) longest = std::max(longest, static_cast<size_t>(a.value));
    a.tail = in.block(160);
  }
  std::vector<std::unique_ptr<uint8_t[]>> blocks;
  const void* p[6];
  for (int i = 0; i < 6; ++i) {
    if (args[i].null) {
      p[i] = nullptr;
      continue;
    }
    blocks.push_back(std::make_unique<uint8_t[]>(longest));
    uint8_t* b = blocks.back().get();
    std::memset(b, 0, longest);
    std::memcpy(b, &args[i].value, 4);
    if (!args[i].tail.empty())
      std::memcpy(b + 4, args[i].tail.data(), std::min(args[i].tail.size(), longest - 4));
    p[i] = b;
  }
  seputrcp(kind, verb, cccb.get(), p[0], p[1], p[2], p[3], p[4], p[5]);
  // Without a trace file the record leaves the file lock taken; the test
  // node's lock is a no-op, so nothing is left behind.
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  testnode::reset();
  fuzz::Input in(data, size);
  switch (in.u8() % 3) {
    case 0:
      limited_engine(in);
      break;
    case 1:
      unbounded_engine(in);
      break;
    default:
      trace_record(in);
      break;
  }
  testnode::reset();
  return 0;
}
