// Call trace records: the request, response and asynchronous-response
// record of every CPI-C call, written through the node's trace output.
//
// The record only reads: the CCCB (or BlankCccb), the caller's arguments
// and the name tables. Lines are formatted with the C library's snprintf,
// not with the library's own print engine.
#include "call_trace.h"

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "snanode/node.h"
#include "trace_names.h"

namespace cpic {

namespace {

constexpr CCCB make_blank_cccb() {
  CCCB c{};
  for (auto &b : c.si.abSymDestName) b = 0x20;
  for (auto &b : c.si.abPartnerLuName) b = 0x20;  // ASCII, unlike a set name
  for (auto &b : c.si.abTpName) b = 0x40;
  for (auto &b : c.si.abModeName) b = 0x40;
  for (auto &b : c.si.abUserId) b = 0x40;
  for (auto &b : c.si.abPassword) b = 0x40;
  c.si.ulSecurityType = 1;  // CM_SECURITY_SAME
  c.si.usUserIdLen = 1;     // the library's default, odd as it is
  c.ulConversationType = 1;  // CM_MAPPED_CONVERSATION
  return c;
}

}  // namespace

constinit const CCCB BlankCccb = make_blank_cccb();

}  // namespace cpic

namespace {

using cpic::CCCB;
namespace tn = cpic::trace_names;

constexpr const char kTag[] = "CPIC ";
constexpr uint32_t kMaxNameDump = 64;

// Offsets in the application's 124-byte side-information entry.
constexpr size_t kEntrySymDest = 0;
constexpr size_t kEntryPartnerLu = 8;
constexpr size_t kEntryTpNameType = 28;
constexpr size_t kEntryTpName = 32;
constexpr size_t kEntryModeName = 96;
constexpr size_t kEntrySecurityType = 104;
constexpr size_t kEntryUserId = 108;

uint32_t rd32(const void *p) {
  if (p == nullptr) return 0;
  uint32_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

const uint8_t *bytes(const void *p) { return static_cast<const uint8_t *>(p); }

// One record being written: the file handle and the working buffers.
struct Record {
  uint32_t file;
  const CCCB *cb;  // the CCCB, or BlankCccb
  char line[320];
  char name[80];

  void put(const char *text) { com_trc_line(file, kTag, text); }

  __attribute__((format(printf, 2, 3))) void putf(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    put(line);
  }

  // "CM_" (or "XC_") and the table entry; the unknown text stands alone.
  const char *lookup(const tn::NameTable &t, uint32_t value,
                     const char *prefix = "CM_") {
    if (value < t.bound)
      std::snprintf(name, sizeof name, "%s%s", prefix, t.entries[value]);
    else
      std::snprintf(name, sizeof name, "%s", t.unknown);
    return name;
  }

  void named(const char *fmt, const tn::NameTable &t, uint32_t value) {
    putf(fmt, lookup(t, value));
  }
  void security(uint32_t value) {
    putf(" Conversation security type = %s",
         lookup(tn::kSecurityType, value, "XC_"));
  }

  void conv_id(const void *id) {
    const uint8_t zero[4] = {0, 0, 0, 0};
    const uint8_t *b = id != nullptr ? bytes(id) : zero;
    putf(" Conversation ID = %02X%02X%02X%02X", b[0], b[1], b[2], b[3]);
  }

  void dump(const void *address, uint32_t length) {
    if (address != nullptr && length != 0)
      com_trc_dump(file, kTag, address, length);
  }

  // A label line and the name's bytes; the length is the caller's 32-bit
  // value, bounded so that a wild length cannot run far past the name.
  void name_dump(const char *label, const void *nm, uint32_t length) {
    put(label);
    if (static_cast<int32_t>(length) <= 0) return;
    dump(nm, length < kMaxNameDump ? length : kMaxNameDump);
  }
  // low_16_bits: the call takes only the low 16 bits of the length (the
  // LU name calls), and its record reads no more of the name than it does.
  // most: the longest name the call writes (an extract call's buffer need
  // be no longer; the length it reports may be the stored one, or the
  // caller's own value when the call failed).
  void name_with_length(const char *label, const char *length_fmt,
                        const void *nm, const void *length,
                        bool low_16_bits = false,
                        uint32_t most = kMaxNameDump) {
    uint32_t len = rd32(length);
    if (low_16_bits) len &= 0xFFFF;
    if (static_cast<int32_t>(len) > 0 && len > most) len = most;
    name_dump(label, nm, len);
    putf(length_fmt, static_cast<unsigned long>(rd32(length)));
  }

  void buffer(const void *address, const void *length) {
    int32_t len = static_cast<int32_t>(rd32(length));
    if (len <= 0) {
      put(" Buffer empty");
      return;
    }
    putf("---- Buffer at address %p ----", address);
    // All the length the program gave, even one the call will refuse: the
    // record is what the program asked for.
    dump(address, static_cast<uint32_t>(len));
  }

  // ---- characteristics from the CCCB ----------------------------------
  void chars() { put("Conversation characteristics"); }
  void c_conv_type() {
    named(" Conversation type = %s", tn::kConversationType,
          cb->ulConversationType);
  }
  void c_dealloc_type() {
    named(" Deallocate type = %s", tn::kDeallocateType, cb->ulDeallocateType);
  }
  void c_error_direction() {
    named(" Error direction = %s", tn::kErrorDirection, cb->ulErrorDirection);
  }
  void c_sync_level() {
    named(" Sync level = %s", tn::kSyncLevel, cb->ulSyncLevel);
  }
  void c_fill() { named(" Fill type = %s", tn::kFill, cb->ulFill); }
  void c_ptr_type() {
    named(" Prepare to receive type = %s", tn::kPrepToReceiveType,
          cb->ulPrepToReceiveType);
  }
  void c_receive_type() {
    named(" Receive type = %s", tn::kReceiveType, cb->ulReceiveType);
  }
  void c_send_type() {
    named(" Send type = %s", tn::kSendType, cb->ulSendType);
  }
  void c_return_control() {
    named(" Return control = %s", tn::kReturnControl, cb->ulReturnControl);
  }
  void c_security() { security(cb->si.ulSecurityType); }
  void c_log_data() {
    putf(" Log data pointer = %p", static_cast<const void *>(cb->pLogData));
    putf(" Log data length = %lu", static_cast<unsigned long>(cb->usLogDataLen));
  }
  void c_processing_mode() {
    named(" Processing mode = %s", tn::kProcessingMode, cb->usProcessingMode);
  }
  void c_sym_dest() {
    putf(" Sym dest name = %.8s",
         reinterpret_cast<const char *>(cb->si.abSymDestName));
  }
  void c_partner_lu() {
    put(" Partner LU name =");
    dump(cb->si.abPartnerLuName, sizeof cb->si.abPartnerLuName);
  }
  void c_mode_name() {
    put(" Mode name =");
    dump(cb->si.abModeName, sizeof cb->si.abModeName);
  }
  void c_tp_name() {
    put(" Partner TP name =");
    dump(cb->si.abTpName, sizeof cb->si.abTpName);
  }
  void c_user_id() {
    put(" Security user ID =");
    dump(cb->si.abUserId, sizeof cb->si.abUserId);
  }
  void c_local_lu() {
    put(" Local LU name =");
    dump(cb->abLocalLuAlias, sizeof cb->abLocalLuAlias);
  }

  // Initialize_Conversation and Accept_Conversation responses.
  void full_block(bool with_destination) {
    chars();
    c_conv_type();
    c_dealloc_type();
    c_error_direction();
    c_sync_level();
    c_fill();
    c_ptr_type();
    c_receive_type();
    c_send_type();
    c_security();
    c_log_data();
    if (with_destination) c_sym_dest();
    c_partner_lu();
    c_mode_name();
    if (with_destination) c_tp_name();
  }

  // A symbolic destination name argument: at most its 8 characters.
  void sym_dest_arg(const void *nm) {
    char text[9] = {};
    if (nm != nullptr) std::strncpy(text, static_cast<const char *>(nm), 8);
    putf(" Sym dest name = %s", text);
  }

  // The application's side-information entry, password left out.
  void side_info_entry(const void *entry) {
    if (entry == nullptr) return;
    const uint8_t *e = bytes(entry);
    sym_dest_arg(e + kEntrySymDest);
    put(" Partner LU name =");
    dump(e + kEntryPartnerLu, 17);
    putf(" TP name type = %s",
         lookup(tn::kTpNameType, rd32(e + kEntryTpNameType), "XC_"));
    put(" Partner TP name =");
    dump(e + kEntryTpName, 64);
    put(" Mode name =");
    dump(e + kEntryModeName, 8);
    security(rd32(e + kEntrySecurityType));
    put(" Security user ID =");
    dump(e + kEntryUserId, 8);
  }

  void request(uint32_t verb, const void *const *a);
  void response(uint32_t verb, const void *const *a);
};

// a[0] is the fourth argument of seputrcp, a[5] the ninth.
void Record::request(uint32_t verb, const void *const *a) {
  switch (verb) {
    case 0:   // CMACCP
    case 41:  // CMINIC
    case 43:  // CMWAIT
    case 45:  // CMCHCK
    case 55:  // CMEMBS
      break;
    case 1:  // CMALLC
      conv_id(a[0]);
      chars();
      c_conv_type();
      c_return_control();
      c_sync_level();
      c_security();
      c_partner_lu();
      c_mode_name();
      c_tp_name();
      break;
    case 2:  // CMCFM
      conv_id(a[0]);
      chars();
      c_sync_level();
      break;
    case 4:  // CMDEAL
      conv_id(a[0]);
      chars();
      c_dealloc_type();
      c_log_data();
      break;
    case 11:  // CMINIT
    case 31:  // XCMDSI
      sym_dest_arg(a[1]);
      break;
    case 12:  // CMPTR
      conv_id(a[0]);
      chars();
      c_ptr_type();
      break;
    case 13:  // CMRCV
      conv_id(a[0]);
      putf(" Requested length = %lu", static_cast<unsigned long>(rd32(a[2])));
      chars();
      c_conv_type();
      c_fill();
      c_receive_type();
      break;
    case 15:  // CMSEND
      conv_id(a[0]);
      buffer(a[1], a[2]);
      putf(" Send length = %lu", static_cast<unsigned long>(rd32(a[2])));
      chars();
      c_send_type();
      c_ptr_type();
      c_dealloc_type();
      break;
    case 16:  // CMSERR
      conv_id(a[0]);
      chars();
      c_error_direction();
      c_log_data();
      break;
    case 17:  // CMSCT
      conv_id(a[0]);
      named(" Conversation type = %s", tn::kConversationType, rd32(a[1]));
      chars();
      c_conv_type();
      break;
    case 18:  // CMSDT
      conv_id(a[0]);
      named(" Deallocate type = %s", tn::kDeallocateType, rd32(a[1]));
      chars();
      c_dealloc_type();
      break;
    case 19:  // CMSED
      conv_id(a[0]);
      named(" Error direction = %s", tn::kErrorDirection, rd32(a[1]));
      chars();
      c_error_direction();
      break;
    case 20:  // CMSF
      conv_id(a[0]);
      named(" Fill type = %s", tn::kFill, rd32(a[1]));
      chars();
      c_fill();
      break;
    case 21:  // CMSLD
      conv_id(a[0]);
      buffer(a[1], a[2]);
      putf(" Log data length = %lu", static_cast<unsigned long>(rd32(a[2])));
      chars();
      c_log_data();
      break;
    case 22:  // CMSMN
      conv_id(a[0]);
      name_with_length(" Mode name =", " Mode name length = %lu", a[1], a[2]);
      chars();
      c_mode_name();
      break;
    case 23:  // CMSPLN
      conv_id(a[0]);
      name_with_length(" Partner LU name =", " Partner LU name length = %lu",
                       a[1], a[2], true);
      chars();
      c_partner_lu();
      break;
    case 24:  // CMSPTR
      conv_id(a[0]);
      named(" Prepare to receive type = %s", tn::kPrepToReceiveType,
            rd32(a[1]));
      chars();
      c_ptr_type();
      break;
    case 25:  // CMSRT
      conv_id(a[0]);
      named(" Receive type = %s", tn::kReceiveType, rd32(a[1]));
      chars();
      c_receive_type();
      break;
    case 26:  // CMSRC
      conv_id(a[0]);
      named(" Return control = %s", tn::kReturnControl, rd32(a[1]));
      chars();
      c_return_control();
      break;
    case 27:  // CMSST
      conv_id(a[0]);
      named(" Send type = %s", tn::kSendType, rd32(a[1]));
      chars();
      c_send_type();
      break;
    case 28:  // CMSSL
      conv_id(a[0]);
      named(" Sync level = %s", tn::kSyncLevel, rd32(a[1]));
      chars();
      c_sync_level();
      break;
    case 29:  // CMSTPN
      conv_id(a[0]);
      name_with_length(" Partner TP name =", " TP name length = %lu", a[1],
                       a[2]);
      chars();
      c_tp_name();
      break;
    case 34:  // XCMESI
      sym_dest_arg(a[1]);
      putf(" Entry length = %lu", static_cast<unsigned long>(rd32(a[3])));
      break;
    case 36:  // XCSCST
    case 46:  // CMSCST
      conv_id(a[0]);
      security(rd32(a[1]));
      chars();
      c_security();
      break;
    case 37:  // XCSCSU
    case 47:  // CMSCSU
      conv_id(a[0]);
      name_with_length(" Security user ID =", " Security user ID length = %lu",
                       a[1], a[2]);
      chars();
      c_user_id();
      break;
    case 38:  // XCMSSI
      // The entry is shown whatever length came with it: the program's
      // entry is the fixed record whichever length it passes.
      side_info_entry(a[1]);
      putf(" Entry length = %lu", static_cast<unsigned long>(rd32(a[2])));
      break;
    case 39:  // CMTERM
      named(" End type = %s", tn::kEndType, rd32(a[0]));
      break;
    case 40:  // CMSPM
      conv_id(a[0]);
      named(" Processing mode = %s", tn::kProcessingMode, rd32(a[1]));
      chars();
      c_processing_mode();
      break;
    case 50:  // CMSLTP
    case 51:  // CMRLTP
      name_with_length(" Local TP name =", " TP name length = %lu", a[0], a[1]);
      break;
    case 53:  // CMCNVI
    case 54:  // CMCNVO
      buffer(a[0], a[1]);
      break;
    case 57:  // CMSCTX
      name_with_length(" Context ID =", " Context ID length = %lu", a[0], a[1]);
      break;
    case 61:  // XCHWND
      putf(" Window Handle = %u", static_cast<unsigned>(rd32(a[0])));
      break;
    case 62:  // CMSLLN
      conv_id(a[0]);
      name_with_length(" Local LU name =", " Local LU name length = %lu", a[1],
                       a[2], true);
      break;
    default:  // the calls whose request shows the conversation ID alone
      conv_id(a[0]);
      break;
  }
}

void Record::response(uint32_t verb, const void *const *a) {
  switch (verb) {
    case 0:  // CMACCP
      conv_id(a[1]);
      full_block(false);
      break;
    case 2:   // CMCFM
    case 15:  // CMSEND
    case 16:  // CMSERR
    case 30:  // CMTRTS
      named(" Request to send received = %s", tn::kRequestToSend, rd32(a[1]));
      break;
    case 5:  // CMECS
      named(" Conversation state = %s", tn::kConversationState, rd32(a[1]));
      break;
    case 6:  // CMECT
      named(" Conversation type = %s", tn::kConversationType, rd32(a[1]));
      break;
    case 7:  // CMEMN
      name_with_length(" Mode name =", " Mode name length = %lu", a[1], a[2],
                       false, 8);
      break;
    case 8:  // CMEPLN
      name_with_length(" Partner LU name =", " Partner LU name length = %lu",
                       a[1], a[2], false, 17);
      break;
    case 9:  // CMESL
      named(" Sync level = %s", tn::kSyncLevel, rd32(a[1]));
      break;
    case 11:  // CMINIT
      conv_id(a[1]);
      full_block(true);
      break;
    case 13:  // CMRCV
      buffer(a[1], a[3]);
      named(" Data received type = %s", tn::kDataReceived, rd32(a[2]));
      putf(" Received length = %lu", static_cast<unsigned long>(rd32(a[3])));
      named(" Status received = %s", tn::kStatusReceived, rd32(a[4]));
      named(" Request to send received = %s", tn::kRequestToSend, rd32(a[5]));
      break;
    case 17:  // CMSCT
      chars();
      c_conv_type();
      break;
    case 18:  // CMSDT
      chars();
      c_dealloc_type();
      break;
    case 19:  // CMSED
      chars();
      c_error_direction();
      break;
    case 20:  // CMSF
      chars();
      c_fill();
      break;
    case 21:  // CMSLD
      chars();
      c_log_data();
      break;
    case 22:  // CMSMN
      chars();
      c_mode_name();
      break;
    case 23:  // CMSPLN
      chars();
      c_partner_lu();
      break;
    case 24:  // CMSPTR
      chars();
      c_ptr_type();
      break;
    case 25:  // CMSRT
      chars();
      c_receive_type();
      break;
    case 26:  // CMSRC
      chars();
      c_return_control();
      break;
    case 27:  // CMSST
      chars();
      c_send_type();
      break;
    case 28:  // CMSSL
      chars();
      c_sync_level();
      break;
    case 29:  // CMSTPN
      chars();
      c_tp_name();
      break;
    case 32:  // XCECST
    case 59:  // CMECST
      security(rd32(a[1]));
      break;
    case 33:  // XCECSU
    case 49:  // CMESUI
    case 58:  // CMECSU
      name_with_length(" Security user ID =", " Security user ID length = %lu",
                       a[1], a[2], false, verb == 49 ? 10 : 8);
      break;
    case 34:  // XCMESI
      side_info_entry(a[1]);
      break;
    case 36:  // XCSCST
    case 46:  // CMSCST
      chars();
      c_security();
      break;
    case 37:  // XCSCSU
    case 47:  // CMSCSU
      chars();
      c_user_id();
      break;
    case 40:  // CMSPM
      chars();
      c_processing_mode();
      break;
    case 41:  // CMINIC
    case 45:  // CMCHCK
      conv_id(a[1]);
      break;
    case 43: {  // CMWAIT
      conv_id(a[1]);
      // A narrower bound than the header's, kept as it always was.
      uint32_t rc = rd32(a[2]);
      if (rc < 38)
        putf(" Async result = CM_%s", tn::cpicrc.entries[rc]);
      else
        putf(" Async result = %s", tn::kUnknownRc);
      break;
    }
    case 52:  // CMETPN
      name_with_length(" Local TP name =", " TP name length = %lu", a[1], a[2]);
      break;
    case 53:  // CMCNVI
    case 54:  // CMCNVO
      buffer(a[1], a[2]);
      break;
    case 55:  // CMEMBS
      putf(" Maximum buffer size = %lu", static_cast<unsigned long>(rd32(a[1])));
      break;
    case 56:  // CMECTX
      name_with_length(" Context ID =", " Context ID length = %lu", a[1], a[2],
                       false, 8);
      break;
    case 60:  // CMELLN
      name_with_length(" Local LU name =", " Local LU name length = %lu", a[1],
                       a[2], false, 8);
      break;
    case 62:  // CMSLLN
      chars();
      c_local_lu();
      break;
    default:  // nothing beyond the header
      break;
  }
}

}  // namespace

void seputrcp(uint32_t kind, uint32_t verb, const cpic::CCCB *cccb,
              const void *a4, const void *a5, const void *a6, const void *a7,
              const void *a8, const void *a9) {
  // Completions trace from the runtime's thread too, so the first record
  // may be written from either thread.
  if (__atomic_load_n(&trc_api.initialised, __ATOMIC_ACQUIRE) == 0) {
    sepuapi_init(ptrc);
    __atomic_store_n(&trc_api.initialised, 1, __ATOMIC_RELEASE);
  }
  if (ptrc == nullptr || (__atomic_load_n(&ptrc[0], __ATOMIC_ACQUIRE) & 0x20) == 0) return;

  trc_lock_file(&trc_api);
  // Without a trace file the record ends here, with the lock left taken:
  // that is how this routine has always behaved.
  if (trc_api.file_handle == TRC_NO_FILE) return;

  kind &= 0xFFFF;
  verb &= 0xFFFF;
  const void *const args[6] = {a4, a5, a6, a7, a8, a9};

  Record r;
  r.file = trc_api.file_handle;
  r.cb = cccb != nullptr ? cccb : &cpic::BlankCccb;

  com_trc_sep(r.file, kTag);

  const bool known_verb = verb < 63;
  const char *verb_name = known_verb ? tn::cpicvb[verb] : tn::kUnknownVerb;

  if (kind == cpic::kTraceRequest) {
    r.putf("%s request", verb_name);
  } else {
    uint32_t rc = rd32(a4);
    char result[64];
    if (rc < 138)
      std::snprintf(result, sizeof result, "CM_%s", tn::cpicrc.entries[rc]);
    else
      std::snprintf(result, sizeof result, "%s (rc=%d)", tn::kUnknownRc,
                    static_cast<int>(rc & 0xFFFF));
    if (kind == cpic::kTraceResponse)
      r.putf("%s response, result = %s", verb_name, result);
    else
      r.putf("%s async response, result = %s", verb_name, result);
  }

  if (known_verb) {
    if (kind == cpic::kTraceRequest)
      r.request(verb, args);
    else
      r.response(verb, args);
  }

  trc_unlock_file(&trc_api);
}
