// The CPI-C calls under arbitrary use, against the test node: the input is
// a script of calls (every exported call, with any lengths, values,
// characteristic values and conversation IDs, live, released or made up)
// and of test-node actions (what each verb returns and when, failing
// allocations and resources, the node's side information, losing the
// node). Every buffer a call gets is allocated with the exact size its
// length argument states, so a read or write outside it is reported;
// output variables start with whatever value the input chose, as a
// program's may.
//
// Nothing may wait forever: verbs only complete "later" when issued in
// non-blocking mode, and before a call that may wait for a completion
// (Wait_For_Conversation, Cancel_Conversation) at least one outstanding
// completion is delivered, as the node's thread would. Cancel's own verb
// is never held back.
//
// After each input every completion is delivered and collected, the node
// is lost (the library drops every table it holds), and every block the
// library allocated from the node must have been returned.
#include <array>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "counters.h"
#include "cpic.h"
#include "fuzz_input.h"
#include "internal.h"
#include "testnode.h"

namespace {

void check(bool ok) {
  if (!ok) __builtin_trap();
}

// Buffers handed to calls: kept until the input ends, because a
// non-blocking call writes its outputs when it completes.
class Arena {
 public:
  // Exactly n bytes (a zero-length buffer is a valid, empty allocation).
  uint8_t* bytes(size_t n) {
    blocks_.push_back(std::unique_ptr<uint8_t[]>(new uint8_t[n]));
    std::memset(blocks_.back().get(), 0xA5, n);
    return blocks_.back().get();
  }
  // The input's bytes, then blanks.
  uint8_t* copy(const std::vector<uint8_t>& src, size_t n) {
    uint8_t* p = bytes(n);
    const size_t k = src.size() < n ? src.size() : n;
    if (k != 0) std::memcpy(p, src.data(), k);
    std::memset(p + k, 0x40, n - k);
    return p;
  }
  CM_INT32* int32(CM_INT32 v) {
    auto* p = reinterpret_cast<CM_INT32*>(bytes(sizeof(CM_INT32)));
    *p = v;
    return p;
  }
  void clear() { blocks_.clear(); }

 private:
  std::vector<std::unique_ptr<uint8_t[]>> blocks_;
};

// Lengths beyond this get a buffer of this size only: the calls accept at
// most 32767 bytes, so they must refuse such a length without touching
// the buffer beyond it.
constexpr size_t kMaxBuffer = 65536;

size_t buffer_size(CM_INT32 length) {
  if (length <= 0) return 0;
  return static_cast<size_t>(length) < kMaxBuffer ? static_cast<size_t>(length) : kMaxBuffer;
}

// A call whose trace record dumps its buffer for the whole length given
// (Send_Data, Set_Log_Data, the conversions) reads that much before it
// checks the length; the harness is a program whose buffer is as long as
// it says, so it gives no length beyond the buffers it can make.
CM_INT32 dumped_length(CM_INT32 length) {
  return length > static_cast<CM_INT32>(kMaxBuffer) ? static_cast<CM_INT32>(kMaxBuffer) : length;
}

// The side-information calls take the program's fixed 124-byte entry
// whatever length comes with it (their records show it), so the entry is
// always whole; only the length varies.
constexpr CM_INT32 kEntryBytes = 124;

CM_INT32 pick_length(fuzz::Input& in) {
  static const CM_INT32 kEdges[] = {0,   1,   7,   8,   9,     10,    11,      16,      17,
                                    18,  63,  64,  65,  123,   124,   125,     511,     512,
                                    513, 4096, 32767, 32768, 65536, INT_MAX, INT_MIN, -1};
  switch (in.u8() % 4) {
    case 0: return static_cast<CM_INT32>(in.u8() % 70);
    case 1: return kEdges[in.u8() % (sizeof kEdges / sizeof kEdges[0])];
    case 2: return -static_cast<CM_INT32>(in.u8() % 4) - 1;
    default: return in.i32();
  }
}

CM_INT32 pick_value(fuzz::Input& in) {
  const uint8_t m = in.u8();
  if (m < 200) return static_cast<CM_INT32>(m % 8) - 1;  // -1 .. 6
  if (m < 240) return static_cast<CM_INT32>(in.u8());
  return in.i32();
}

// ---- the test node's scripts -----------------------------------------------

const uint16_t kOpcodes[] = {
    VERB_ALLOCATE,      VERB_CONFIRM,        VERB_CONFIRMED,         VERB_DEALLOCATE,
    VERB_FLUSH,         VERB_GET_STATE,      VERB_PREPARE_TO_RECEIVE, VERB_RECEIVE_AND_WAIT,
    VERB_RECEIVE_IMMEDIATELY, VERB_REQUEST_TO_SEND, VERB_SEND_DATA,  VERB_SEND_ERROR,
    VERB_TEST_RTS,      VERB_TP_ENDED,       VERB_TP_STARTED,        VERB_CANCEL_CONVERSATION,
    VERB_RECEIVE_ALLOCATE_CPIC, VERB_REGISTER_TP_NAME, VERB_WITHDRAW_TP_NAME};
const uint16_t kPrimaries[] = {0x0000, 0x0001, 0x0002, 0x0003, 0x0005, 0x0006, 0x0007,
                               0x0008, 0x0009, 0x000C, 0x000D, 0x000E, 0x000F, 0x0010,
                               0x0011, 0x0012, 0x0013, 0x0014, 0x0021, 0xF003};
const uint32_t kSecondaries[] = {0x00000000, 0x00000004, 0x00000005, 0x00000017, 0x00000018,
                                 0x00000031, 0x000000F1, 0x0000015B, 0x00009016, 0x080F6051,
                                 0x080F6058, 0x084B6031, 0x084C0000, 0x10086021, 0x10086031,
                                 0x10086034, 0x10086041, 0x08640000, 0x08890000, 0x00000001};

template <class T, size_t N>
T pick(fuzz::Input& in, const T (&table)[N]) {
  return table[in.u8() % N];
}

// The outputs a node writes for a verb, from the input's bytes: only the
// fields the verb defines, as the node does (received data goes into the
// buffer the block names, at most max_length bytes).
struct Outputs {
  std::vector<uint8_t> raw;  // the values, read in field order

  void apply(void* block) const {
    fuzz::Input in(raw.data(), raw.size());
    auto* hdr = static_cast<VCB_HEADER*>(block);
    auto* area = static_cast<VCB_AREA*>(block);
    switch (hdr->opcode) {
      case VERB_ALLOCATE:
        hdr->conv_id = in.u32();
        break;
      case VERB_TP_STARTED: {
        auto* t = static_cast<VCB_TP_STARTED*>(block);
        for (uint8_t& b : t->tp_id) b = in.u8();
        for (uint8_t& b : t->lu_alias) b = in.u8();
        break;
      }
      case VERB_CONFIRM:
        area->confirm.rts_received = in.u8();
        break;
      case VERB_SEND_DATA:
        area->send_data.rts_received = in.u8();
        break;
      case VERB_SEND_ERROR:
        area->send_error.rts_received = in.u8();
        break;
      case VERB_GET_STATE:
        area->get_state.state = in.u8();
        break;
      case VERB_RECEIVE_AND_WAIT:
      case VERB_RECEIVE_IMMEDIATELY: {
        VCB_RECEIVE& r = area->receive;
        r.what_received = in.u16();
        r.rts_received = in.u8();
        uint16_t n = in.u16();
        if (n > r.max_length) n = r.max_length;
        if (r.buffer == nullptr) n = 0;
        r.data_length = n;
        auto* dst = static_cast<uint8_t*>(r.buffer);
        for (uint16_t i = 0; i < n; ++i) dst[i] = in.u8();
        break;
      }
      case VERB_RECEIVE_ALLOCATE_CPIC: {
        VCB_RECEIVE_ALLOCATE& r = area->receive_allocate;
        for (uint8_t& b : r.tp_name) b = in.u8();
        for (uint8_t& b : r.tp_id) b = in.u8();
        r.conv_id = in.u32();
        r.sync_level = in.u8();
        r.conversation_type = in.u8();
        for (uint8_t& b : r.user_id) b = in.u8();
        for (uint8_t& b : r.local_lu_alias) b = in.u8();
        for (uint8_t& b : r.mode_name) b = in.u8();
        for (uint8_t& b : r.fq_partner_lu) b = in.u8();
        break;
      }
      default:
        break;
    }
  }
};

void script(fuzz::Input& in) {
  testnode::VerbScript s;
  const uint8_t how = in.u8();
  s.opcode = (how & 1) ? 0 : pick(in, kOpcodes);
  s.primary = (how & 2) ? in.u16() : pick(in, kPrimaries);
  s.secondary = (how & 4) ? in.u32() : pick(in, kSecondaries);
  // Only a verb of a named kind other than Cancel may complete later:
  // Cancel waits for its own verb.
  s.async = (how & 8) && s.opcode != 0 && s.opcode != VERB_CANCEL_CONVERSATION;
  if (how & 16) {
    auto outputs = std::make_shared<Outputs>();
    outputs->raw = in.block(512);
    s.fill = [outputs](void* block) { outputs->apply(block); };
  }
  testnode::script_verb(s);
}

NOF_SIDE_INFO_ENTRY node_entry(fuzz::Input& in) {
  static const char* const kNames[] = {"ECHOSYM ", "REMSYM  ", "SVCSYM  ", "        "};
  NOF_SIDE_INFO_ENTRY e;
  std::memset(&e, ' ', sizeof e);
  std::memcpy(e.sym_dest_name, in.flag() ? kNames[in.u8() % 4] : "GARBAGE!", 8);
  const std::vector<uint8_t> raw = in.block(sizeof e);
  if (!raw.empty() && (raw[0] & 1)) {
    std::memcpy(&e, raw.data(), raw.size());
  } else {
    std::memcpy(e.partner_lu_name, "NETWORK.LOCAL    ", 17);
    e.tp_name_type = in.u8() % 3;
    std::memcpy(e.tp_name, "ECHO", 4);
    std::memcpy(e.mode_name, "#INTER  ", 8);
    e.security_type = pick_value(in);
  }
  return e;
}

// ---- the calls -----------------------------------------------------------------

class Session {
 public:
  explicit Session(fuzz::Input& in) : in_(in) {}

  void run() {
    while (!in_.empty()) step();
    finish();
  }

 private:
  // A conversation ID for a call: one a call handed out (possibly released
  // since), all zeros, or eight bytes of the input.
  unsigned char* conv() {
    uint8_t* id = arena_.bytes(8);
    const uint8_t m = in_.u8();
    if (m < 200 && !ids_.empty()) {
      std::memcpy(id, ids_[m % ids_.size()].data(), 8);
    } else if (m < 220) {
      std::memset(id, 0, 8);
    } else {
      const std::vector<uint8_t> b = in_.bytes(8);
      std::memset(id, 0, 8);
      if (!b.empty()) std::memcpy(id, b.data(), b.size());
    }
    return id;
  }
  // An output variable, holding what earlier code left in it.
  CM_INT32* out() { return arena_.int32(garbage_); }
  unsigned char* conv_out() { return arena_.copy({0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}, 8); }
  void keep(const unsigned char* id, CM_INT32 rc) {
    if (rc != CM_OK || ids_.size() >= 16) return;
    std::array<uint8_t, 8> a;
    std::memcpy(a.data(), id, 8);
    ids_.push_back(a);
  }
  // An input buffer of exactly the length's size, filled from the input.
  unsigned char* in_buffer(CM_INT32 length) {
    const size_t n = buffer_size(length);
    return arena_.copy(in_.block(n), n);
  }
  unsigned char* sym_dest() {
    static const char* const kNames[] = {"        ", "ECHOSYM ", "REMSYM  ", "SVCSYM  ", "echosym "};
    const uint8_t m = in_.u8();
    if (m < 200) {
      const char* n = kNames[m % 5];
      return arena_.copy(std::vector<uint8_t>(n, n + 8), 8);
    }
    return arena_.copy(in_.bytes(8), 8);
  }

  // Before a call that can wait for a completion: the node's thread
  // delivers at least one if any is outstanding.
  void deliver_some() {
    const int pending = testnode::pending_async();
    if (pending > 0) testnode::complete_async(1 + in_.u8() % pending);
  }

  void call(uint8_t which, bool upper) {
    CM_INT32* rc = out();
    switch (which) {
      // Set calls with one value.
      case 0: case 1: case 2: case 3: case 4: case 5: case 6: case 7: case 8: case 9: case 10:
      case 11: {
        using SetValue = CM_ENTRY (*)(unsigned char*, CM_INT32*, CM_INT32*);
        static const SetValue lower[] = {cmsct, cmsdt, cmsed, cmsf, cmsptr, cmsrt,
                                         cmsrc, cmsst, cmssl, cmspm, cmscst, xcscst};
        static const SetValue up[] = {CMSCT, CMSDT, CMSED, CMSF, CMSPTR, CMSRT,
                                      CMSRC, CMSST, CMSSL, CMSPM, CMSCST, XCSCST};
        unsigned char* id = conv();
        CM_INT32* value = arena_.int32(pick_value(in_));
        (upper ? up : lower)[which](id, value, rc);
        break;
      }
      // Set calls with a name and its length.
      case 12: case 13: case 14: case 15: case 16: case 17: case 18: case 19: case 20: {
        using SetName = CM_ENTRY (*)(unsigned char*, unsigned char*, CM_INT32*, CM_INT32*);
        static const SetName lower[] = {cmsld, cmsmn, cmspln, cmstpn, cmslln, cmscsu, xcscsu, cmscsp, xcscsp};
        static const SetName up[] = {CMSLD, CMSMN, CMSPLN, CMSTPN, CMSLLN, CMSCSU, XCSCSU, CMSCSP, XCSCSP};
        unsigned char* id = conv();
        // Set_Log_Data's record dumps the log data for the length given.
        CM_INT32* length = arena_.int32(which == 12 ? dumped_length(pick_length(in_)) : pick_length(in_));
        // The LU name calls take only the low 16 bits of the length (an
        // old rule they keep), so their buffer is as long as those say.
        const bool low_16_bits = which == 14 || which == 16;
        unsigned char* name = low_16_bits ? in_buffer(static_cast<uint16_t>(*length)) : in_buffer(*length);
        (upper ? up : lower)[which - 12](id, name, length, rc);
        break;
      }
      // Extract calls with one value.
      case 21: case 22: case 23: case 24: case 25: {
        using ExtractValue = CM_ENTRY (*)(unsigned char*, CM_INT32*, CM_INT32*);
        static const ExtractValue lower[] = {cmesl, cmect, cmecs, cmecst, xcecst};
        static const ExtractValue up[] = {CMESL, CMECT, CMECS, CMECST, XCECST};
        unsigned char* id = conv();
        (upper ? up : lower)[which - 21](id, out(), rc);
        break;
      }
      case 26: (upper ? CMEMBS : cmembs)(out(), rc); break;
      // Extract calls with a name: the buffer is as long as the call's
      // documented maximum.
      case 27: case 28: case 29: case 30: case 31: case 32: case 33: {
        using ExtractName = CM_ENTRY (*)(unsigned char*, unsigned char*, CM_INT32*, CM_INT32*);
        static const ExtractName lower[] = {cmemn, cmepln, cmelln, cmetpn, cmecsu, xcecsu, cmesui};
        static const ExtractName up[] = {CMEMN, CMEPLN, CMELLN, CMETPN, CMECSU, XCECSU, CMESUI};
        static const size_t sizes[] = {8, 17, 9, 64, 8, 8, 10};
        unsigned char* id = conv();
        unsigned char* name = arena_.bytes(sizes[which - 27]);
        (upper ? up : lower)[which - 27](id, name, out(), rc);
        break;
      }
      case 34: {
        unsigned char* id = conv();
        unsigned char* context = arena_.bytes(8);
        (upper ? CMECTX : cmectx)(id, context, out(), rc);
        if (*rc == CM_OK && contexts_.size() < 8) {
          std::array<uint8_t, 8> a;
          std::memcpy(a.data(), context, 8);
          contexts_.push_back(a);
        }
        break;
      }
      case 35: {
        CM_INT32* length = arena_.int32(in_.flag() ? 8 : pick_length(in_));
        unsigned char* context;
        if (!contexts_.empty() && in_.flag()) {
          const auto& c = contexts_[in_.u8() % contexts_.size()];
          context = arena_.copy(std::vector<uint8_t>(c.begin(), c.end()), buffer_size(*length));
        } else {
          context = in_buffer(*length);
        }
        (upper ? CMSCTX : cmsctx)(context, length, rc);
        break;
      }
      // Starting and ending conversations.
      case 36: {
        unsigned char* id = conv_out();
        unsigned char* name = sym_dest();
        (upper ? CMINIT : cminit)(id, name, rc);
        keep(id, *rc);
        break;
      }
      case 37: {
        unsigned char* id = conv_out();
        (upper ? CMINIC : cminic)(id, rc);
        keep(id, *rc);
        break;
      }
      case 38: {
        unsigned char* id = conv_out();
        (upper ? CMACCP : cmaccp)(id, rc);
        keep(id, *rc);
        break;
      }
      case 39: (upper ? CMACCI : cmacci)(conv(), rc); break;
      case 40: (upper ? CMALLC : cmallc)(conv(), rc); break;
      case 41: (upper ? CMDEAL : cmdeal)(conv(), rc); break;
      case 42: {
        CM_INT32* type = arena_.int32(pick_value(in_));
        (upper ? CMTERM : cmterm)(type, rc);
        break;
      }
      // Data flow.
      case 43: {
        unsigned char* id = conv();
        CM_INT32* length = arena_.int32(dumped_length(pick_length(in_)));
        unsigned char* data = in_buffer(*length);
        (upper ? CMSEND : cmsend)(id, data, length, out(), rc);
        break;
      }
      case 44: {
        unsigned char* id = conv();
        CM_INT32* requested = arena_.int32(pick_length(in_));
        unsigned char* buffer = arena_.bytes(buffer_size(*requested));
        (upper ? CMRCV : cmrcv)(id, buffer, requested, out(), out(), out(),
                                out(), rc);
        break;
      }
      case 45: (upper ? CMCFM : cmcfm)(conv(), out(), rc); break;
      case 46: (upper ? CMCFMD : cmcfmd)(conv(), rc); break;
      case 47: (upper ? CMFLUS : cmflus)(conv(), rc); break;
      case 48: (upper ? CMPTR : cmptr)(conv(), rc); break;
      case 49: (upper ? CMRTS : cmrts)(conv(), rc); break;
      case 50: (upper ? CMSERR : cmserr)(conv(), out(), rc); break;
      case 51: (upper ? CMTRTS : cmtrts)(conv(), out(), rc); break;
      // Non-blocking completion.
      case 52: {
        deliver_some();
        unsigned char* id = conv_out();
        (upper ? CMWAIT : cmwait)(id, out(), rc);
        break;
      }
      case 53: {
        unsigned char* id = conv_out();
        (upper ? CMCHCK : cmchck)(id, rc);
        break;
      }
      case 54: {
        unsigned char* id = conv();
        deliver_some();
        (upper ? CMCANC : cmcanc)(id, rc);
        break;
      }
      // Conversion.
      case 55: case 56: {
        CM_INT32* length = arena_.int32(dumped_length(pick_length(in_)));
        // A negative length counts by its low 16 bits taken as signed, so
        // -65535 converts one byte: the buffer holds what that reaches.
        const CM_INT32 low = static_cast<int16_t>(*length);
        unsigned char* buffer = in_buffer(*length > low ? *length : low);
        if (which == 55) (upper ? CMCNVO : cmcnvo)(buffer, length, rc);
        else (upper ? CMCNVI : cmcnvi)(buffer, length, rc);
        break;
      }
      // Side information of this process.
      case 57: {
        CM_INT32* key = arena_.int32(pick_value(in_));
        CM_INT32* length = arena_.int32(in_.flag() ? 124 : pick_length(in_));
        unsigned char* entry = in_buffer(kEntryBytes);
        (upper ? XCMSSI : xcmssi)(key, reinterpret_cast<XC_SIDE_INFO_ENTRY*>(entry), length, rc);
        break;
      }
      case 58: {
        CM_INT32* key = arena_.int32(pick_value(in_));
        unsigned char* name = sym_dest();
        CM_INT32* length = arena_.int32(in_.flag() ? 124 : pick_length(in_));
        unsigned char* entry = arena_.bytes(kEntryBytes);
        (upper ? XCMESI : xcmesi)(key, name, reinterpret_cast<XC_SIDE_INFO_ENTRY*>(entry), length, rc);
        break;
      }
      case 59: {
        CM_INT32* key = arena_.int32(pick_value(in_));
        unsigned char* name = sym_dest();
        (upper ? XCMDSI : xcmdsi)(key, name, rc);
        break;
      }
      // Local TP names.
      case 60: case 61: {
        CM_INT32* length = arena_.int32(pick_length(in_));
        unsigned char* name = in_buffer(*length);
        if (which == 60) (upper ? CMSLTP : cmsltp)(name, length, rc);
        else (upper ? CMRLTP : cmrltp)(name, length, rc);
        break;
      }
      default:
        check(ocpic_verstamp() != nullptr && ocpic_verstamp_tvt() != nullptr);
        break;
    }
  }

  void step() {
    const uint8_t op = in_.u8();
    if (op < 192) {
      call(static_cast<uint8_t>(op % 63), (op & 0x80) != 0 && op % 2 == 0);
      return;
    }
    switch (op - 192) {
      case 0: case 1: case 2: case 3: case 4: case 5: case 6: case 7:
        script(in_);
        break;
      case 8: {
        const uint8_t n = in_.u8();
        testnode::complete_async(n % 4);
        break;
      }
      case 9: testnode::fail_allocation(in_.u8() % 6); break;
      case 10: testnode::fail_table_init(in_.u8() % 4); break;
      case 11: testnode::fail_free_entry(in_.u8() % 4); break;
      case 12: testnode::fail_wait_object(in_.flag()); break;
      case 13: testnode::fail_path_user(in_.flag()); break;
      case 14: testnode::add_node_side_info(node_entry(in_)); break;
      case 15: testnode::fail_next_nof_open(in_.flag() ? pick(in_, kPrimaries) : in_.u16()); break;
      case 16: {
        const uint16_t primary = pick(in_, kPrimaries);
        testnode::script_next_nof_query(primary, pick(in_, kSecondaries));
        break;
      }
      case 17:
        // API tracing on or off: every call then writes its records.
        testnode::trace_control()[0] = in_.flag() ? 0x20 : 0x00;
        break;
      case 18:
        // The node goes away: its thread delivers every completion first.
        node_lost();
        break;
      case 19:
        // What the program's output variables hold before a call writes
        // them (a failed call may leave them so).
        garbage_ = pick_length(in_);
        break;
      default: {
        const uint8_t which = static_cast<uint8_t>(in_.u8() % 63);
        call(which, in_.flag());
        break;
      }
    }
  }

  void node_lost() {
    testnode::complete_async();
    testnode::raise_path_event(VPM_EVENT_NODE_LOST);
  }

  void finish() {
    testnode::fail_allocation(0);
    testnode::fail_table_init(0);
    testnode::fail_free_entry(0);
    testnode::fail_wait_object(false);
    testnode::fail_path_user(false);
    testnode::complete_async();
    // Collect what completed, as a program would before it ends.
    for (int i = 0; i < 64 && cpic::fInitCPIC != 0 &&
                    cpic::counter_get(cpic::pGCB->NumVerbsWaiting) != 0;
         ++i) {
      unsigned char id[8];
      CM_INT32 crc = 0, rc = 0;
      cmwait(id, &crc, &rc);
      if (rc != CM_OK) break;
    }
    node_lost();
  }

  fuzz::Input& in_;
  Arena arena_;
  std::vector<std::array<uint8_t, 8>> ids_;
  std::vector<std::array<uint8_t, 8>> contexts_;
  CM_INT32 garbage_ = -7777;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  testnode::reset();
  const int live_at_start = testnode::live_allocations();
  {
    fuzz::Input in(data, size);
    Session session(in);
    session.run();
  }
  // The node was lost at the end: the library holds nothing any more.
  check(cpic::fInitCPIC == 0);
  check(testnode::live_allocations() == live_at_start);
  check(testnode::pending_async() == 0);
  testnode::reset();
  return 0;
}
