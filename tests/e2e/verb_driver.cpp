// Verb driver: issues node verbs read from stdin, one command a line, and
// prints one result line per completion. Links the node client runtime
// only, so the node is exercised exactly as the CPI-C library uses it.
//
// A command is a verb word followed by key=value arguments:
//   tp_started as=T [lu=ALIAS] [name=TPNAME]
//   tp_ended tp=T [type=1|0]
//   register name=N | withdraw name=N
//   accept as=C [tpas=T] [corr=N]               RECEIVE_ALLOCATE_CPIC
//   allocate tp=T as=C tpn=NAME [ctype=mapped|basic] [sync=0|1] [rc=0|1]
//            [sec=1|0|2|5] [user=U] [pw=P] [mode=M] [lu=ALIAS] [fqlu=NET.LU]
//   send c=C (text=T | hex=H | len=N) [type=0..7]
//   rcv c=C [len=100] [rsd=1] [fill=1]          RECEIVE_AND_WAIT
//   rcvi c=C ...                                 RECEIVE_IMMEDIATELY
//   confirm c=C | confirmed c=C | flush c=C | state c=C | rts c=C | trts c=C
//   dealloc c=C [type=1] [log=TEXT]
//   ptr c=C [type=1]
//   serr c=C [etype=0] [dir=0] [log=TEXT]
//   cancel [c=C] [tp=T] [corr=N]
//   nof_open as=H [kind=2] | nof_query h=H [name=N] [opt=4] [want=1] [size=212]
//   nof_close h=H
//   sync                                         a round trip to the node
// Every conversation verb also takes opext=N (overrides the conversation's
// type), conv=N (a raw conversation id) and tpid=HEX (a raw TP id). async=TAG issues the verb with
// a completion routine: the driver prints "issued TAG", and the result
// line, tagged TAG, whenever it arrives. Blocking results are tagged "-".
// With async, then=WORD,KEY:VALUE,... names a command that the completion
// routine issues (blocking unless it says async) once the result is out.
//
// Result lines: TAG VERB p=0xPPPP s=0xSSSSSSSS and the verb's outputs.
// The loss of the node is printed as "event 0x8001".
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "snanode/node.h"
#include "snanode/verbs.h"

namespace {

// ---- EBCDIC (the characters names are made of) --------------------------

uint8_t to_ebcdic(char c) {
  static const char *const upper = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
  static const uint8_t upper_code[26] = {0xC1, 0xC2, 0xC3, 0xC4, 0xC5, 0xC6, 0xC7, 0xC8, 0xC9,
                                         0xD1, 0xD2, 0xD3, 0xD4, 0xD5, 0xD6, 0xD7, 0xD8, 0xD9,
                                         0xE2, 0xE3, 0xE4, 0xE5, 0xE6, 0xE7, 0xE8, 0xE9};
  if (c >= 'A' && c <= 'Z') return upper_code[strchr(upper, c) - upper];
  if (c >= 'a' && c <= 'z') return static_cast<uint8_t>(upper_code[c - 'a'] - 0x40);
  if (c >= '0' && c <= '9') return static_cast<uint8_t>(0xF0 + (c - '0'));
  switch (c) {
    case ' ': return 0x40;
    case '.': return 0x4B;
    case '$': return 0x5B;
    case '#': return 0x7B;
    case '@': return 0x7C;
    case '_': return 0x6D;
    case '-': return 0x60;
    case '/': return 0x61;
    case '=': return 0x7E;
    default: return 0x6F;  // '?'
  }
}

char from_ebcdic(uint8_t b) {
  for (int c = 32; c < 127; ++c) {
    if (to_ebcdic(static_cast<char>(c)) == b && (c != '?' || b == 0x6F)) return static_cast<char>(c);
  }
  return '~';
}

void put_ebcdic(uint8_t *field, size_t width, const std::string &text) {
  memset(field, 0x40, width);
  for (size_t i = 0; i < text.size() && i < width; ++i) field[i] = to_ebcdic(text[i]);
}

void put_ascii(uint8_t *field, size_t width, const std::string &text) {
  memset(field, ' ', width);
  memcpy(field, text.data(), text.size() < width ? text.size() : width);
}

// Text of a blank-padded EBCDIC field, trailing blanks removed.
std::string ebcdic_text(const uint8_t *field, size_t width) {
  size_t n = width;
  while (n > 0 && field[n - 1] == 0x40) --n;
  std::string out;
  for (size_t i = 0; i < n; ++i) out += field[i] == 0 ? '~' : from_ebcdic(field[i]);
  return out;
}

std::string ascii_text(const uint8_t *field, size_t width) {
  size_t n = width;
  while (n > 0 && (field[n - 1] == ' ' || field[n - 1] == 0)) --n;
  std::string out;
  for (size_t i = 0; i < n; ++i) {
    char c = static_cast<char>(field[i]);
    out += (c > ' ' && c < 127) ? c : '~';
  }
  return out;
}

std::string hex(const uint8_t *p, size_t n) {
  static const char digits[] = "0123456789ABCDEF";
  std::string out;
  for (size_t i = 0; i < n; ++i) {
    out += digits[p[i] >> 4];
    out += digits[p[i] & 15];
  }
  return out;
}

bool parse_hex(const std::string &text, std::vector<uint8_t> &out) {
  if (text.size() % 2 != 0) return false;
  for (size_t i = 0; i < text.size(); i += 2) {
    char *end = nullptr;
    std::string pair = text.substr(i, 2);
    long v = strtol(pair.c_str(), &end, 16);
    if (end == nullptr || *end != '\0') return false;
    out.push_back(static_cast<uint8_t>(v));
  }
  return true;
}

uint16_t be16(uint16_t stored) {
  const uint8_t *b = reinterpret_cast<const uint8_t *>(&stored);
  return static_cast<uint16_t>(b[0] << 8 | b[1]);
}
uint32_t be32(uint32_t stored) {
  const uint8_t *b = reinterpret_cast<const uint8_t *>(&stored);
  return static_cast<uint32_t>(b[0]) << 24 | static_cast<uint32_t>(b[1]) << 16 |
         static_cast<uint32_t>(b[2]) << 8 | b[3];
}

std::string codes(uint16_t primary, uint32_t secondary) {
  char text[64];
  snprintf(text, sizeof text, "p=0x%04X s=0x%08X", be16(primary), be32(secondary));
  return text;
}

// ---- output ---------------------------------------------------------------

std::mutex out_mutex;

void emit_locked(const std::string &line) {
  std::string text = line + "\n";
  size_t off = 0;
  while (off < text.size()) {
    ssize_t n = write(STDOUT_FILENO, text.data() + off, text.size() - off);
    if (n <= 0) return;
    off += static_cast<size_t>(n);
  }
}

void emit(const std::string &line) {
  std::lock_guard<std::mutex> hold(out_mutex);
  emit_locked(line);
}

// ---- variables --------------------------------------------------------

struct Conv {
  uint8_t tp_id[8] = {};
  uint32_t conv_id = 0;
  uint8_t opext = 1;
};

// The tables live until the process ends (never destroyed): a completion
// routine may still run on the runtime's thread while main returns.
std::mutex table_mutex;
std::map<std::string, std::vector<uint8_t>> &tps = *new std::map<std::string, std::vector<uint8_t>>;
std::map<std::string, Conv> &convs = *new std::map<std::string, Conv>;
std::map<std::string, uint32_t> &nof_handles = *new std::map<std::string, uint32_t>;

using Args = std::map<std::string, std::string>;

std::string arg(const Args &a, const std::string &key, const std::string &dflt = "") {
  auto it = a.find(key);
  return it == a.end() ? dflt : it->second;
}

long num(const Args &a, const std::string &key, long dflt) {
  auto it = a.find(key);
  if (it == a.end()) return dflt;
  return strtol(it->second.c_str(), nullptr, 0);
}

// ---- one verb in flight -----------------------------------------------

enum class Kind { kTpStarted, kTpEnded, kName, kAccept, kAllocate, kSend, kReceive, kRts, kState,
                  kSimple, kSendError };

struct Call {
  Kind kind = Kind::kSimple;
  std::string verb;       // name printed
  std::string tag = "-";  // "-" when blocking
  std::string as, tpas;   // variables the result defines
  Conv conv;              // the conversation it acts on (allocate: the new one)
  alignas(8) uint8_t block[512] = {};
  std::vector<uint8_t> data;    // send or log data, kept for the verb's life
  std::vector<uint8_t> buffer;  // receive buffer
  bool issued_printed = false;
  std::string pending_result;
  std::string then;  // command issued from the completion routine
};

std::map<std::string, Call *> &in_flight = *new std::map<std::string, Call *>;  // by tag, under out_mutex

std::string describe(Call &c) {
  std::string line = c.tag + " " + c.verb + " ";
  switch (c.kind) {
    case Kind::kTpStarted: {
      auto &v = *reinterpret_cast<VCB_TP_STARTED *>(c.block);
      line += codes(v.primary_rc, v.secondary_rc);
      line += " lu=" + ascii_text(v.lu_alias, 8) + " tp=" + hex(v.tp_id, 8);
      if (v.primary_rc == 0 && !c.as.empty()) {
        std::lock_guard<std::mutex> hold(table_mutex);
        tps[c.as] = std::vector<uint8_t>(v.tp_id, v.tp_id + 8);
      }
      break;
    }
    case Kind::kTpEnded: {
      auto &v = *reinterpret_cast<VCB_TP_ENDED *>(c.block);
      line += codes(v.primary_rc, v.secondary_rc);
      break;
    }
    case Kind::kName: {
      auto &v = *reinterpret_cast<VCB_TP_NAME *>(c.block);
      line += codes(v.primary_rc, v.secondary_rc);
      break;
    }
    case Kind::kAccept: {
      auto &v = *reinterpret_cast<VCB_RECEIVE_ALLOCATE *>(c.block);
      line += codes(v.primary_rc, v.secondary_rc);
      char text[64];
      snprintf(text, sizeof text, " conv=%u sync=%u type=%u", v.conv_id, v.sync_level,
               v.conversation_type);
      line += text;
      line += " tpn=" + ebcdic_text(v.tp_name, 64) + " user=" + ebcdic_text(v.user_id, 10) +
              " lu=" + ascii_text(v.local_lu_alias, 8) + " mode=" + ebcdic_text(v.mode_name, 8) +
              " plu=" + ebcdic_text(v.fq_partner_lu, 17) + " tp=" + hex(v.tp_id, 8);
      if (v.primary_rc == 0) {
        std::lock_guard<std::mutex> hold(table_mutex);
        Conv conv;
        memcpy(conv.tp_id, v.tp_id, 8);
        conv.conv_id = v.conv_id;
        conv.opext = v.conversation_type;
        if (!c.as.empty()) convs[c.as] = conv;
        if (!c.tpas.empty()) tps[c.tpas] = std::vector<uint8_t>(v.tp_id, v.tp_id + 8);
      }
      break;
    }
    case Kind::kAllocate: {
      auto &v = *reinterpret_cast<VCB_ALLOCATE *>(c.block);
      line += codes(v.hdr.primary_rc, v.hdr.secondary_rc);
      line += " conv=" + std::to_string(v.hdr.conv_id);
      if (v.hdr.primary_rc == 0 && !c.as.empty()) {
        std::lock_guard<std::mutex> hold(table_mutex);
        Conv conv = c.conv;
        conv.conv_id = v.hdr.conv_id;
        convs[c.as] = conv;
      }
      break;
    }
    case Kind::kSend: {
      auto &v = *reinterpret_cast<VCB_SEND_DATA *>(c.block);
      line += codes(v.hdr.primary_rc, v.hdr.secondary_rc);
      line += " rts=" + std::to_string(v.rts_received);
      break;
    }
    case Kind::kSendError: {
      auto &v = *reinterpret_cast<VCB_SEND_ERROR *>(c.block);
      line += codes(v.hdr.primary_rc, v.hdr.secondary_rc);
      line += " rts=" + std::to_string(v.rts_received);
      break;
    }
    case Kind::kRts: {
      auto &v = *reinterpret_cast<VCB_CONFIRM *>(c.block);
      line += codes(v.hdr.primary_rc, v.hdr.secondary_rc);
      line += " rts=" + std::to_string(v.rts_received);
      break;
    }
    case Kind::kReceive: {
      auto &v = *reinterpret_cast<VCB_RECEIVE *>(c.block);
      line += codes(v.hdr.primary_rc, v.hdr.secondary_rc);
      char text[64];
      snprintf(text, sizeof text, " wr=0x%04X len=%u rts=%u", v.what_received, v.data_length,
               v.rts_received);
      line += text;
      size_t n = v.data_length <= c.buffer.size() ? v.data_length : c.buffer.size();
      line += " data=" + hex(c.buffer.data(), n);
      break;
    }
    case Kind::kState: {
      auto &v = *reinterpret_cast<VCB_GET_STATE *>(c.block);
      line += codes(v.hdr.primary_rc, v.hdr.secondary_rc);
      line += " state=" + std::to_string(v.state);
      break;
    }
    case Kind::kSimple: {
      auto &v = *reinterpret_cast<VCB_HEADER *>(c.block);
      line += codes(v.primary_rc, v.secondary_rc);
      break;
    }
  }
  return line;
}

void command(const std::string &text);

void completion(void *vcb, uint32_t, uint32_t, uint32_t) {
  std::string then;
  {
    std::lock_guard<std::mutex> hold(out_mutex);
    Call *call = nullptr;
    for (auto &kv : in_flight) {
      if (static_cast<void *>(kv.second->block) == vcb) call = kv.second;
    }
    if (call == nullptr) {
      emit_locked("error completion for an unknown block");
      return;
    }
    then = call->then;
    std::string line = describe(*call);
    if (call->issued_printed) {
      emit_locked(line);
      in_flight.erase(call->tag);
      delete call;
    } else {
      call->pending_result = line;  // printed after "issued"
    }
  }
  // A verb issued from inside the completion routine, on the runtime's
  // thread.
  if (!then.empty()) command(then);
}

int path_event(void *, VPM_PATH_EVENT *event) {
  char text[64];
  snprintf(text, sizeof text, "event 0x%04X", event->code);
  emit(text);
  return 0;
}

// Issues the call, blocking or with a completion routine.
void issue(Call *call) {
  if (call->tag == "-") {
    appc_c_version(2, call->block);
    emit(describe(*call));
    delete call;
    return;
  }
  {
    std::lock_guard<std::mutex> hold(out_mutex);
    if (in_flight.count(call->tag) != 0) {
      emit_locked("error tag " + call->tag + " is in use");
      delete call;
      return;
    }
    in_flight[call->tag] = call;
  }
  uint16_t r = appc_c_async_version(2, call->block, completion, 0);
  std::lock_guard<std::mutex> hold(out_mutex);
  if (r == APPC_VERB_DONE) {
    emit_locked("issued " + call->tag + " done");
    emit_locked(describe(*call));
    in_flight.erase(call->tag);
    delete call;
    return;
  }
  emit_locked("issued " + call->tag);
  call->issued_printed = true;
  if (!call->pending_result.empty()) {
    emit_locked(call->pending_result);
    in_flight.erase(call->tag);
    delete call;
  }
}

// tpid=HEX names a TP id directly (16 hex digits).
bool raw_tp_id(const Args &a, uint8_t *tp_id) {
  std::vector<uint8_t> bytes;
  if (!parse_hex(arg(a, "tpid"), bytes) || bytes.size() != 8) return false;
  memcpy(tp_id, bytes.data(), 8);
  return true;
}

// The conversation a command names, with its overrides.
bool conversation_of(const Args &a, Conv &out) {
  std::string name = arg(a, "c");
  if (!name.empty()) {
    std::lock_guard<std::mutex> hold(table_mutex);
    auto it = convs.find(name);
    if (it == convs.end()) return false;
    out = it->second;
  }
  if (a.count("conv")) out.conv_id = static_cast<uint32_t>(num(a, "conv", 0));
  if (a.count("opext")) out.opext = static_cast<uint8_t>(num(a, "opext", 1));
  if (a.count("tp")) {
    std::lock_guard<std::mutex> hold(table_mutex);
    auto it = tps.find(arg(a, "tp"));
    if (it == tps.end()) return false;
    memcpy(out.tp_id, it->second.data(), 8);
  }
  if (a.count("tpid")) return raw_tp_id(a, out.tp_id);
  return true;
}

bool tp_of(const Args &a, uint8_t *tp_id) {
  std::string name = arg(a, "tp");
  memset(tp_id, 0, 8);
  if (a.count("tpid")) return raw_tp_id(a, tp_id);
  if (name.empty()) return true;
  std::lock_guard<std::mutex> hold(table_mutex);
  auto it = tps.find(name);
  if (it == tps.end()) return false;
  memcpy(tp_id, it->second.data(), 8);
  return true;
}

void header(Call *c, uint16_t opcode, const Conv &conv) {
  auto &h = *reinterpret_cast<VCB_HEADER *>(c->block);
  h.opcode = opcode;
  h.opext = conv.opext;
  memcpy(h.tp_id, conv.tp_id, 8);
  h.conv_id = conv.conv_id;
}

bool data_of(const Args &a, std::vector<uint8_t> &out) {
  if (a.count("text")) {
    std::string t = arg(a, "text");
    out.assign(t.begin(), t.end());
    return true;
  }
  if (a.count("hex")) return parse_hex(arg(a, "hex"), out);
  if (a.count("len")) {
    long n = num(a, "len", 0);
    out.resize(static_cast<size_t>(n));
    for (long i = 0; i < n; ++i) out[static_cast<size_t>(i)] = static_cast<uint8_t>('a' + i % 26);
    return true;
  }
  out.clear();
  return true;
}

void nof_command(const std::string &verb, const Args &a) {
  if (verb == "nof_open") {
    NOF_OPEN_RECORD r;
    memset(&r, 0, sizeof r);
    r.opcode = NOF_OPEN;
    r.kind = static_cast<uint8_t>(num(a, "kind", 2));
    nof_version(2, 0, &r);
    emit("- NOF_OPEN " + codes(r.primary_rc, r.secondary_rc) +
         " handle=" + (r.target_handle != 0 ? "set" : "0"));
    if (r.primary_rc == 0 && a.count("as")) nof_handles[arg(a, "as")] = r.target_handle;
    return;
  }
  uint32_t handle = 0;
  if (a.count("h")) {
    auto it = nof_handles.find(arg(a, "h"));
    handle = it == nof_handles.end() ? 0xDEAD : it->second;
  }
  if (verb == "nof_close") {
    NOF_CLOSE_RECORD r;
    memset(&r, 0, sizeof r);
    r.opcode = NOF_CLOSE;
    nof_version(2, handle, &r);
    emit("- NOF_CLOSE " + codes(r.primary_rc, r.secondary_rc));
    return;
  }
  NOF_QUERY_RECORD r;
  memset(&r, 0, sizeof r);
  r.opcode = NOF_QUERY_SIDE_INFO;
  r.kind = 1;
  uint32_t size = static_cast<uint32_t>(num(a, "size", 212));
  std::vector<uint8_t> buffer(size + 16, 0xEE);
  r.buffer = buffer.data();
  r.buffer_size = size;
  r.num_entries = static_cast<uint16_t>(num(a, "want", 1));
  r.list_option = static_cast<uint8_t>(num(a, "opt", 4));
  put_ascii(r.sym_dest_name, 8, arg(a, "name"));
  nof_version(2, handle, &r);
  // Entries wanted at offset 24, entries returned at offset 26.
  const uint16_t returned = r.reserved26;
  std::string line = "- NOF_QUERY " + codes(r.primary_rc, r.secondary_rc) +
                     " n=" + std::to_string(returned);
  for (unsigned i = 0; i < returned && (i + 1) * 212 <= size; ++i) {
    const uint8_t *e = buffer.data() + i * 212;
    NOF_SIDE_INFO_ENTRY entry;
    memcpy(&entry, e, sizeof entry);
    uint16_t length = 0;
    memcpy(&length, e, 2);
    std::string p = " e" + std::to_string(i) + ".";
    line += p + "len=" + std::to_string(length);
    line += p + "name=" + ascii_text(entry.sym_dest_name, 8);
    line += p + "plu=" + ascii_text(entry.partner_lu_name, 17);
    line += p + "tptype=" + std::to_string(entry.tp_name_type);
    line += p + "tpn=" + ascii_text(entry.tp_name, 64);
    line += p + "mode=" + ascii_text(entry.mode_name, 8);
    line += p + "sec=" + std::to_string(entry.security_type);
    line += p + "user=" + ascii_text(entry.user_id, 10);
    line += p + "pw=" + ascii_text(entry.password, 10);
    line += p + "lu=" + ascii_text(entry.local_lu_alias, 8);
    // Layout: text blank-padded (no zero inside a name), unused bytes zero.
    std::string bad;
    auto padded = [&](const uint8_t *f, size_t w, const char *what) {
      bool blank_seen = false;
      for (size_t k = 0; k < w; ++k) {
        if (f[k] == ' ') blank_seen = true;
        else if (blank_seen || f[k] == 0) { bad += std::string(what) + ","; return; }
      }
    };
    auto zero = [&](const uint8_t *f, size_t w, const char *what) {
      for (size_t k = 0; k < w; ++k) {
        if (f[k] != 0) { bad += std::string(what) + ","; return; }
      }
    };
    padded(entry.sym_dest_name, 8, "name");
    padded(entry.partner_lu_name, 17, "plu");
    padded(entry.tp_name, 64, "tpn");
    padded(entry.mode_name, 8, "mode");
    padded(entry.user_id, 10, "user");
    padded(entry.password, 10, "pw");
    bool lu_zero = true;
    for (uint8_t b : entry.local_lu_alias) lu_zero = lu_zero && b == 0;
    if (!lu_zero) padded(entry.local_lu_alias, 8, "lu");
    zero(entry.reserved10, sizeof entry.reserved10, "r10");
    zero(entry.reserved77, sizeof entry.reserved77, "r77");
    zero(entry.reserved188, sizeof entry.reserved188, "r188");
    line += p + "layout=" + (bad.empty() ? std::string("ok") : "bad:" + bad);
  }
  emit(line);
}

void command(const std::string &text) {
  std::istringstream in(text);
  std::string verb;
  in >> verb;
  if (verb.empty() || verb[0] == '#') return;
  Args a;
  for (std::string t; in >> t;) {
    size_t eq = t.find('=');
    if (eq == std::string::npos) {
      a[t] = "";
    } else {
      a[t.substr(0, eq)] = t.substr(eq + 1);
    }
  }
  if (verb == "echo") {
    emit(text.substr(5 < text.size() ? 5 : text.size()));
    return;
  }
  if (verb.rfind("nof_", 0) == 0) {
    nof_command(verb, a);
    return;
  }
  auto *c = new Call;
  c->tag = arg(a, "async", "-");
  c->as = arg(a, "as");
  c->tpas = arg(a, "tpas");
  // then=WORD,KEY:VALUE,... is the command "WORD KEY=VALUE ..."
  for (char ch : arg(a, "then")) c->then += ch == ',' ? ' ' : ch == ':' ? '=' : ch;
  Conv conv;
  bool known = true;

  if (verb == "sync") {
    // GET_STATE for a TP that cannot exist: the node answers at once.
    c->kind = Kind::kState;
    c->verb = "SYNC";
    header(c, VERB_GET_STATE, conv);
  } else if (verb == "tp_started") {
    c->kind = Kind::kTpStarted;
    c->verb = "TP_STARTED";
    auto &v = *reinterpret_cast<VCB_TP_STARTED *>(c->block);
    v.opcode = VERB_TP_STARTED;
    if (a.count("lu")) put_ascii(v.lu_alias, 8, arg(a, "lu"));
    put_ebcdic(v.tp_name, 64, arg(a, "name", "DRIVER"));
  } else if (verb == "tp_ended") {
    c->kind = Kind::kTpEnded;
    c->verb = "TP_ENDED";
    auto &v = *reinterpret_cast<VCB_TP_ENDED *>(c->block);
    v.opcode = VERB_TP_ENDED;
    known = tp_of(a, v.tp_id);
    v.type = static_cast<uint8_t>(num(a, "type", 1));
  } else if (verb == "register" || verb == "withdraw") {
    c->kind = Kind::kName;
    c->verb = verb == "register" ? "REGISTER" : "WITHDRAW";
    auto &v = *reinterpret_cast<VCB_TP_NAME *>(c->block);
    v.opcode = verb == "register" ? VERB_REGISTER_TP_NAME : VERB_WITHDRAW_TP_NAME;
    put_ebcdic(v.tp_name, 64, arg(a, "name"));
  } else if (verb == "accept") {
    c->kind = Kind::kAccept;
    c->verb = "RECEIVE_ALLOCATE";
    auto &v = *reinterpret_cast<VCB_RECEIVE_ALLOCATE *>(c->block);
    v.opcode = VERB_RECEIVE_ALLOCATE_CPIC;
    v.format = 1;
    v.conv_id = static_cast<uint32_t>(num(a, "corr", 0));
  } else if (verb == "allocate") {
    c->kind = Kind::kAllocate;
    c->verb = "ALLOCATE";
    auto &v = *reinterpret_cast<VCB_ALLOCATE *>(c->block);
    known = tp_of(a, conv.tp_id);
    conv.opext = arg(a, "ctype", "mapped") == "basic" ? 0 : 1;
    if (a.count("opext")) conv.opext = static_cast<uint8_t>(num(a, "opext", 1));
    c->conv = conv;
    v.hdr.opcode = VERB_ALLOCATE;
    v.hdr.opext = conv.opext;
    v.hdr.format = static_cast<uint8_t>(num(a, "format", 1));
    memcpy(v.hdr.tp_id, conv.tp_id, 8);
    v.sync_level = static_cast<uint8_t>(num(a, "sync", 0));
    v.return_control = static_cast<uint8_t>(num(a, "rc", 0));
    if (a.count("fqlu")) {
      v.partner_lu_alias[0] = 0;
      put_ebcdic(v.fq_partner_lu, 17, arg(a, "fqlu"));
    } else {
      put_ascii(v.partner_lu_alias, 8, arg(a, "lu"));
    }
    put_ebcdic(v.mode_name, 8, arg(a, "mode"));
    put_ebcdic(v.tp_name, 64, arg(a, "tpn"));
    v.security = static_cast<uint8_t>(num(a, "sec", 1));
    put_ebcdic(v.user_id, 10, arg(a, "user"));
    put_ebcdic(v.password, 10, arg(a, "pw"));
    v.pip_length = static_cast<uint16_t>(num(a, "pip", 0));
  } else if (verb == "cancel") {
    c->kind = Kind::kSimple;
    c->verb = "CANCEL";
    if (a.count("c")) known = conversation_of(a, conv);
    else known = tp_of(a, conv.tp_id);
    if (a.count("corr")) conv.conv_id = static_cast<uint32_t>(num(a, "corr", 0));
    header(c, VERB_CANCEL_CONVERSATION, conv);
  } else {
    known = conversation_of(a, conv);
    c->conv = conv;
    if (verb == "send") {
      c->kind = Kind::kSend;
      c->verb = "SEND_DATA";
      header(c, VERB_SEND_DATA, conv);
      auto &v = *reinterpret_cast<VCB_SEND_DATA *>(c->block);
      if (!data_of(a, c->data)) known = false;
      v.data_length = static_cast<uint16_t>(c->data.size());
      v.data = c->data.empty() ? nullptr : c->data.data();
      v.send_type = static_cast<uint8_t>(num(a, "type", 0));
    } else if (verb == "rcv" || verb == "rcvi") {
      c->kind = Kind::kReceive;
      c->verb = verb == "rcv" ? "RECEIVE_AND_WAIT" : "RECEIVE_IMMEDIATELY";
      header(c, verb == "rcv" ? VERB_RECEIVE_AND_WAIT : VERB_RECEIVE_IMMEDIATELY, conv);
      auto &v = *reinterpret_cast<VCB_RECEIVE *>(c->block);
      v.max_length = static_cast<uint16_t>(num(a, "len", 100));
      v.return_status_with_data = static_cast<uint8_t>(num(a, "rsd", 1));
      v.fill = static_cast<uint8_t>(num(a, "fill", 1));
      c->buffer.assign(v.max_length, 0);
      v.buffer = c->buffer.empty() ? nullptr : c->buffer.data();
    } else if (verb == "confirm") {
      c->kind = Kind::kRts;
      c->verb = "CONFIRM";
      header(c, VERB_CONFIRM, conv);
    } else if (verb == "confirmed" || verb == "flush" || verb == "rts" || verb == "trts") {
      c->kind = Kind::kSimple;
      static const std::map<std::string, std::pair<uint16_t, const char *>> simple = {
          {"confirmed", {VERB_CONFIRMED, "CONFIRMED"}},
          {"flush", {VERB_FLUSH, "FLUSH"}},
          {"rts", {VERB_REQUEST_TO_SEND, "REQUEST_TO_SEND"}},
          {"trts", {VERB_TEST_RTS, "TEST_RTS"}}};
      c->verb = simple.at(verb).second;
      header(c, simple.at(verb).first, conv);
    } else if (verb == "state") {
      c->kind = Kind::kState;
      c->verb = "GET_STATE";
      header(c, VERB_GET_STATE, conv);
    } else if (verb == "dealloc") {
      c->kind = Kind::kSimple;
      c->verb = "DEALLOCATE";
      header(c, VERB_DEALLOCATE, conv);
      auto &v = *reinterpret_cast<VCB_DEALLOCATE *>(c->block);
      v.type = static_cast<uint8_t>(num(a, "type", 1));
      std::string log = arg(a, "log");
      c->data.assign(log.begin(), log.end());
      v.log_length = static_cast<uint16_t>(c->data.size());
      v.log_data = c->data.empty() ? nullptr : c->data.data();
    } else if (verb == "ptr") {
      c->kind = Kind::kSimple;
      c->verb = "PREPARE_TO_RECEIVE";
      header(c, VERB_PREPARE_TO_RECEIVE, conv);
      reinterpret_cast<VCB_PREPARE_TO_RECEIVE *>(c->block)->type =
          static_cast<uint8_t>(num(a, "type", 1));
    } else if (verb == "serr") {
      c->kind = Kind::kSendError;
      c->verb = "SEND_ERROR";
      header(c, VERB_SEND_ERROR, conv);
      auto &v = *reinterpret_cast<VCB_SEND_ERROR *>(c->block);
      v.error_type = static_cast<uint8_t>(num(a, "etype", 0));
      v.direction = static_cast<uint8_t>(num(a, "dir", 0));
      std::string log = arg(a, "log");
      c->data.assign(log.begin(), log.end());
      v.log_length = static_cast<uint16_t>(c->data.size());
      v.log_data = c->data.empty() ? nullptr : c->data.data();
    } else {
      emit("error unknown command " + verb);
      delete c;
      return;
    }
  }
  if (!known) {
    emit("error unknown variable or value in: " + text);
    delete c;
    return;
  }
  issue(c);
}

}  // namespace

int main() {
  uint32_t path_user = 0;
  vpm_init_path_user(nullptr, nullptr, path_event, nullptr, &path_user);
  emit("ready pid=" + std::to_string(getpid()));
  std::string line;
  while (std::getline(std::cin, line)) command(line);
  // In-flight asynchronous verbs end with the process; the node sees the
  // connection close. A completion routine that comes meanwhile waits for
  // the output lock, which the exit keeps.
  out_mutex.lock();
  return 0;
}
