// A whole program's life through the exported calls, run again with every
// resource the library takes failing in turn: each memory block, each
// handle-table entry, each handle table, the path user and the wait
// object. A run either ends as the run without failures did, or the call
// that met the failure answers CM_PRODUCT_SPECIFIC_ERROR with the library's
// resource record for that site; the program then gives up what that call
// belonged to, the calls it makes in doing so answer as the state they
// meet requires, and nothing stays allocated once it has finished.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "cpic.h"
#include "internal.h"
#include "testnode.h"

namespace {

using cpic::MSG_INIT_FAILED;
using cpic::MSG_RESOURCE_SHORTAGE;
using cpic::MSG_UNKNOWN_CONV_ID;

// ---- The program's state ---------------------------------------------------

// What a step belongs to: the program gives up the whole group when a step
// of it fails.
enum Group { kSideInfoConv, kBlankConv, kNodeSideInfo, kAccepted, kTerm, kGroups };
const char *const kGroupNames[kGroups] = {"side-information conversation",
                                          "blank-destination conversation",
                                          "the node's side information", "accepted conversation",
                                          "terminate"};

// What a step achieves when it succeeds.
enum class Effect { None, DefinesSideInfo, RemovesSideInfo, MakesConv, EndsConv, RegistersName,
                    ReleasesName, EndsContext, CachesNodeEntry, HidesNodeEntry };

struct ScriptRun;

// A resource site a step reaches: the record it writes when the resource
// is refused (message 0: none), and what the step then answers.
struct Site {
  uint32_t message;
  uint32_t sub_code;
  CM_INT32 rc;
  // A second record the refusal leads to, if any.
  uint32_t also_message = 0;
  uint32_t also_sub_code = 0;
  // The block refused is one the library would have kept (a cache entry).
  bool kept_block = false;
};

struct Step {
  const char *name;
  Group group;
  std::function<CM_INT32(ScriptRun &)> call;
  CM_INT32 rc;                 // when nothing fails
  Effect effect = Effect::None;
  std::vector<Site> memory = {};   // allocation sites, in the order reached
  std::vector<Site> entries = {};  // handle-table entries, in the order taken
  bool completes_later = false;  // non-blocking: collected with CMWAIT
  std::function<void(ScriptRun &)> check = nullptr;  // outputs, when the step succeeded
};

struct Variant {
  const char *name;
  bool trace;
  bool non_blocking;
};

void PrintTo(const Variant &v, std::ostream *os) { *os << v.name; }

const Variant kVariants[] = {
    {"BlockingTraced", true, false},
    {"BlockingUntraced", false, false},
    {"NonBlockingTraced", true, true},
};

// One run's state and results.
struct ScriptRun {
  const Variant *variant = nullptr;
  unsigned char conv[kGroups][8] = {};
  // What the program holds, as it believes from the answers it got.
  bool conv_exists[kGroups] = {};
  bool side_info = false, name = false, context = false;
  // Blocks the library keeps for the life of the process: a deleted
  // side-information name stays as a tombstone (it hides the node's entry
  // of that name), and the default TP name an accept registered stays
  // registered.
  bool tombstone = false, default_name = false;
  // The node's entries: one read (and cached), one deleted (a tombstone).
  int node_cached = 0;
  bool node_hidden = false;
  int held() const {
    return (tombstone ? 1 : 0) + (default_name ? 1 : 0) + node_cached + (node_hidden ? 1 : 0);
  }
  bool abandoned[kGroups] = {};
  // Receive outputs.
  unsigned char buffer[64] = {};
  CM_INT32 data_received = -1, received_length = -1, status_received = -1, rts = -1;
  CM_INT32 state = -1, type = -1, max_buffer = -1;
  // Results: one per step in order (-1: skipped), and the records each wrote.
  std::vector<CM_INT32> results;
  std::vector<std::vector<testnode::LogRecord>> records;
  std::vector<int> allocations;  // blocks each step allocated
  std::vector<std::string> cleanup_failures;
  int collected_by_wait = 0;  // non-blocking calls that completed later
};

// ---- Names and node answers ------------------------------------------------

const char kDest[] = "SWEEPDST";
const char kServerName[] = "SWEEPSRV";
const char kNodeDest[] = "NODEDEST";    // the node's, read by the program
const char kNodeHidden[] = "NODEDST2";  // the node's, deleted by the program
const uint8_t kTpA[8] = {0xA1, 1, 2, 3, 4, 5, 6, 7};
const uint8_t kTpC[8] = {0xC1, 1, 2, 3, 4, 5, 6, 7};
const uint8_t kTpB[8] = {0xB1, 1, 2, 3, 4, 5, 6, 7};
constexpr uint32_t kConvA = 0x0000A001, kConvC = 0x0000C001, kConvB = 0x0000B001;

// Every verb of a non-blocking conversation completes later, on the
// node's thread.
void script(const ScriptRun &r, uint16_t opcode, std::function<void(void *)> fill = nullptr) {
  testnode::script_verb({opcode, 0, 0, r.variant->non_blocking, std::move(fill)});
}

void script_tp_started(const uint8_t *tp_id) {
  // TP_STARTED is issued without a completion routine: always answered at once.
  testnode::script_verb({VERB_TP_STARTED, 0, 0, false, [tp_id](void *b) {
                           auto *v = static_cast<VCB_TP_STARTED *>(b);
                           std::memcpy(v->tp_id, tp_id, 8);
                         }});
}

void fill_receive(void *b, uint16_t what, const char *data) {
  auto *v = static_cast<VCB_RECEIVE *>(b);
  v->what_received = what;
  const size_t n = std::strlen(data);
  if (n != 0) std::memcpy(v->buffer, data, n);
  v->data_length = static_cast<uint16_t>(n);
  v->rts_received = 0;
}

void add_node_entry(const char *name) {
  NOF_SIDE_INFO_ENTRY e;
  std::memset(&e, 0, sizeof e);
  std::memcpy(e.sym_dest_name, name, 8);
  std::memset(e.partner_lu_name, ' ', 17);
  std::memcpy(e.partner_lu_name, "NETA.LUB", 8);
  std::memset(e.tp_name, ' ', 64);
  std::memcpy(e.tp_name, "PAYROLL", 7);
  std::memset(e.mode_name, ' ', 8);
  std::memcpy(e.mode_name, "#INTER", 6);
  e.security_type = CM_SECURITY_NONE;
  std::memset(e.user_id, ' ', 10);
  std::memset(e.password, ' ', 10);
  testnode::add_node_side_info(e);
}

CM_INT32 extract_side_info(const char *name, XC_SIDE_INFO_ENTRY *out) {
  CM_INT32 key = 0, len = sizeof *out, rc = -1;
  std::memset(out, 0, sizeof *out);
  XCMESI(&key, (unsigned char *)name, out, &len, &rc);
  return rc;
}

CM_INT32 set_int(void (*fn)(unsigned char *, CM_INT32 *, CM_INT32 *), unsigned char *id,
                 CM_INT32 value) {
  CM_INT32 rc = -1;
  fn(id, &value, &rc);
  return rc;
}

CM_INT32 set_text(void (*fn)(unsigned char *, unsigned char *, CM_INT32 *, CM_INT32 *),
                  unsigned char *id, const char *text) {
  CM_INT32 len = static_cast<CM_INT32>(std::strlen(text)), rc = -1;
  fn(id, (unsigned char *)text, &len, &rc);
  return rc;
}

CM_INT32 receive(ScriptRun &r, Group g) {
  CM_INT32 requested = sizeof r.buffer, rc = -1;
  std::memset(r.buffer, 0, sizeof r.buffer);
  r.data_received = r.received_length = r.status_received = r.rts = -1;
  CMRCV(r.conv[g], r.buffer, &requested, &r.data_received, &r.received_length,
        &r.status_received, &r.rts, &rc);
  return rc;
}

CM_INT32 send_text(ScriptRun &r, Group g, const char *text) {
  CM_INT32 len = static_cast<CM_INT32>(std::strlen(text)), rc = -1;
  CMSEND(r.conv[g], (unsigned char *)text, &len, &r.rts, &rc);
  return rc;
}

CM_INT32 tp_name_call(void (*fn)(unsigned char *, CM_INT32 *, CM_INT32 *), const char *name) {
  CM_INT32 len = static_cast<CM_INT32>(std::strlen(name)), rc = -1;
  fn((unsigned char *)name, &len, &rc);
  return rc;
}

const Site kNoConvMemory{MSG_RESOURCE_SHORTAGE, 1, CM_PRODUCT_SPECIFIC_ERROR};
const Site kNoConvEntry{MSG_RESOURCE_SHORTAGE, 2, CM_PRODUCT_SPECIFIC_ERROR};
// A TP whose last conversation goes is ended with a verb block of its own;
// without one the TP is left to the node, and the call itself succeeds.
const Site kNoTpEndedBlock{MSG_RESOURCE_SHORTAGE, 17, CM_OK};

// ---- The script ------------------------------------------------------------

std::vector<Step> script_for(const Variant &v) {
  std::vector<Step> s;
  const bool nb = v.non_blocking;
  const Group A = kSideInfoConv, C = kBlankConv, B = kAccepted;

  // The side-information conversation: basic, confirm, every data-flow call.
  s.push_back({"XCMSSI", A, [](ScriptRun &) {
                 XC_SIDE_INFO_ENTRY e;
                 std::memset(&e, ' ', sizeof e);
                 std::memcpy(e.sym_dest_name, kDest, 8);
                 std::memcpy(e.partner_LU_name, "LUALIAS1", 8);
                 e.TP_name_type = XC_APPLICATION_TP;
                 std::memcpy(e.TP_name, "PAYROLL", 7);
                 std::memcpy(e.mode_name, "#INTER", 6);
                 e.conversation_security_type = CM_SECURITY_NONE;
                 CM_INT32 key = 0, len = sizeof e, rc = -1;
                 XCMSSI(&key, &e, &len, &rc);
                 return rc;
               },
               CM_OK, Effect::DefinesSideInfo,
               {{MSG_RESOURCE_SHORTAGE, 5, CM_PRODUCT_SPECIFIC_ERROR}},
               {{MSG_RESOURCE_SHORTAGE, 6, CM_PRODUCT_SPECIFIC_ERROR}}});
  s.push_back({"CMINIT side information", A, [](ScriptRun &r) {
                 CM_INT32 rc = -1;
                 CMINIT(r.conv[kSideInfoConv], (unsigned char *)kDest, &rc);
                 return rc;
               },
               CM_OK, Effect::MakesConv, {kNoConvMemory}, {kNoConvEntry}});
  if (nb) {
    s.push_back({"CMSPM", A, [](ScriptRun &r) { return set_int(CMSPM, r.conv[kSideInfoConv], CM_NON_BLOCKING); },
                 CM_OK});
  }
  s.push_back({"CMSCT", A, [](ScriptRun &r) { return set_int(CMSCT, r.conv[kSideInfoConv], CM_BASIC_CONVERSATION); },
               CM_OK});
  s.push_back({"CMSMN", A, [](ScriptRun &r) { return set_text(CMSMN, r.conv[kSideInfoConv], "#BATCH"); }, CM_OK});
  s.push_back({"CMSPLN", A, [](ScriptRun &r) { return set_text(CMSPLN, r.conv[kSideInfoConv], "NETA.LUB"); }, CM_OK});
  s.push_back({"CMSTPN", A, [](ScriptRun &r) { return set_text(CMSTPN, r.conv[kSideInfoConv], "SWEEPTP"); }, CM_OK});
  s.push_back({"CMSCST", A, [](ScriptRun &r) { return set_int(CMSCST, r.conv[kSideInfoConv], CM_SECURITY_PROGRAM); },
               CM_OK});
  s.push_back({"CMSCSU", A, [](ScriptRun &r) { return set_text(CMSCSU, r.conv[kSideInfoConv], "ALICE"); }, CM_OK});
  s.push_back({"CMSCSP", A, [](ScriptRun &r) { return set_text(CMSCSP, r.conv[kSideInfoConv], "SECRET1"); }, CM_OK});
  s.push_back({"CMSSL", A, [](ScriptRun &r) { return set_int(CMSSL, r.conv[kSideInfoConv], CM_CONFIRM); }, CM_OK});
  s.push_back({"CMSST", A, [](ScriptRun &r) { return set_int(CMSST, r.conv[kSideInfoConv], CM_BUFFER_DATA); }, CM_OK});
  s.push_back({"CMSLD", A, [](ScriptRun &r) { return set_text(CMSLD, r.conv[kSideInfoConv], "SWEEP LOG DATA"); },
               CM_OK, Effect::None, {{MSG_RESOURCE_SHORTAGE, 11, CM_PRODUCT_SPECIFIC_ERROR}}});
  s.push_back({"CMALLC", A, [](ScriptRun &r) {
                 script_tp_started(kTpA);
                 script(r, VERB_ALLOCATE, [](void *b) { static_cast<VCB_HEADER *>(b)->conv_id = kConvA; });
                 CM_INT32 rc = -1;
                 CMALLC(r.conv[kSideInfoConv], &rc);
                 return rc;
               },
               CM_OK, Effect::None, {}, {}, nb});
  s.push_back({"CMSEND", A, [](ScriptRun &r) {
                 script(r, VERB_SEND_DATA);
                 return send_text(r, kSideInfoConv, "first record");
               },
               CM_OK, Effect::None, {}, {}, nb});
  s.push_back({"CMFLUS", A, [](ScriptRun &r) {
                 script(r, VERB_FLUSH);
                 CM_INT32 rc = -1;
                 CMFLUS(r.conv[kSideInfoConv], &rc);
                 return rc;
               },
               CM_OK, Effect::None, {}, {}, nb});
  s.push_back({"CMCFM", A, [](ScriptRun &r) {
                 // The partner answers CONFIRMED.
                 script(r, VERB_CONFIRM);
                 CM_INT32 rc = -1;
                 CMCFM(r.conv[kSideInfoConv], &r.rts, &rc);
                 return rc;
               },
               CM_OK, Effect::None, {}, {}, nb});
  s.push_back({"CMPTR", A, [](ScriptRun &r) {
                 script(r, VERB_PREPARE_TO_RECEIVE);
                 CM_INT32 rc = -1;
                 CMPTR(r.conv[kSideInfoConv], &rc);
                 return rc;
               },
               CM_OK, Effect::None, {}, {}, nb});
  s.push_back({"CMRCV data", A, [](ScriptRun &r) {
                 script(r, VERB_RECEIVE_AND_WAIT, [](void *b) { fill_receive(b, 0x0100, "answer one"); });
                 return receive(r, kSideInfoConv);
               },
               CM_OK, Effect::None, {}, {}, nb, [](ScriptRun &r) {
                 EXPECT_EQ(r.data_received, CM_DATA_RECEIVED);
                 EXPECT_EQ(r.received_length, 10);
                 EXPECT_EQ(std::string((char *)r.buffer), "answer one");
                 EXPECT_EQ(r.status_received, CM_NO_STATUS_RECEIVED);
               }});
  s.push_back({"CMRCV status", A, [](ScriptRun &r) {
                 script(r, VERB_RECEIVE_AND_WAIT, [](void *b) { fill_receive(b, 0x0001, ""); });
                 return receive(r, kSideInfoConv);
               },
               CM_OK, Effect::None, {}, {}, nb, [](ScriptRun &r) {
                 EXPECT_EQ(r.data_received, CM_NO_DATA_RECEIVED);
                 EXPECT_EQ(r.received_length, 0);
                 EXPECT_EQ(r.status_received, CM_SEND_RECEIVED);
               }});
  s.push_back({"CMECS", A, [](ScriptRun &r) {
                 // The state is asked without a completion routine.
                 testnode::script_verb({VERB_GET_STATE, 0, 0, false, [](void *b) {
                                          static_cast<VCB_GET_STATE *>(b)->state = 1;
                                        }});
                 CM_INT32 rc = -1;
                 CMECS(r.conv[kSideInfoConv], &r.state, &rc);
                 return rc;
               },
               CM_OK, Effect::None, {}, {}, false, [](ScriptRun &r) { EXPECT_EQ(r.state, CM_SEND_STATE); }});
  s.push_back({"CMECT", A, [](ScriptRun &r) {
                 CM_INT32 rc = -1;
                 CMECT(r.conv[kSideInfoConv], &r.type, &rc);
                 return rc;
               },
               CM_OK, Effect::None, {}, {}, false,
               [](ScriptRun &r) { EXPECT_EQ(r.type, CM_BASIC_CONVERSATION); }});
  s.push_back({"CMEMBS", A, [](ScriptRun &r) {
                 CM_INT32 rc = -1;
                 CMEMBS(&r.max_buffer, &rc);
                 return rc;
               },
               CM_OK, Effect::None, {}, {}, false, [](ScriptRun &r) { EXPECT_EQ(r.max_buffer, 32767); }});
  s.push_back({"CMSERR", A, [](ScriptRun &r) {
                 script(r, VERB_SEND_ERROR);
                 CM_INT32 rc = -1;
                 CMSERR(r.conv[kSideInfoConv], &r.rts, &rc);
                 return rc;
               },
               CM_OK, Effect::None, {}, {}, nb});
  s.push_back({"CMDEAL", A, [](ScriptRun &r) {
                 script(r, VERB_DEALLOCATE);
                 CM_INT32 rc = -1;
                 CMDEAL(r.conv[kSideInfoConv], &rc);
                 return rc;
               },
               CM_OK, Effect::EndsConv, {kNoTpEndedBlock}, {}, nb});
  s.push_back({"XCMDSI", A, [](ScriptRun &) {
                 CM_INT32 key = 0, rc = -1;
                 XCMDSI(&key, (unsigned char *)kDest, &rc);
                 return rc;
               },
               CM_OK, Effect::RemovesSideInfo});

  // The blank-destination conversation: names set by the program, ended
  // by Send_Data with send-and-deallocate.
  s.push_back({"CMINIT blank", C, [](ScriptRun &r) {
                 CM_INT32 rc = -1;
                 CMINIT(r.conv[kBlankConv], (unsigned char *)"        ", &rc);
                 return rc;
               },
               CM_OK, Effect::MakesConv, {kNoConvMemory}, {kNoConvEntry}});
  if (nb) {
    s.push_back({"CMSPM", C, [](ScriptRun &r) { return set_int(CMSPM, r.conv[kBlankConv], CM_NON_BLOCKING); }, CM_OK});
  }
  s.push_back({"CMSPLN", C, [](ScriptRun &r) { return set_text(CMSPLN, r.conv[kBlankConv], "LUALIAS2"); }, CM_OK});
  s.push_back({"CMSMN", C, [](ScriptRun &r) { return set_text(CMSMN, r.conv[kBlankConv], "#INTER"); }, CM_OK});
  s.push_back({"CMSTPN", C, [](ScriptRun &r) { return set_text(CMSTPN, r.conv[kBlankConv], "SWEEPTP2"); }, CM_OK});
  s.push_back({"CMSCT", C, [](ScriptRun &r) { return set_int(CMSCT, r.conv[kBlankConv], CM_BASIC_CONVERSATION); },
               CM_OK});
  s.push_back({"CMALLC", C, [](ScriptRun &r) {
                 script_tp_started(kTpC);
                 script(r, VERB_ALLOCATE, [](void *b) { static_cast<VCB_HEADER *>(b)->conv_id = kConvC; });
                 CM_INT32 rc = -1;
                 CMALLC(r.conv[kBlankConv], &rc);
                 return rc;
               },
               CM_OK, Effect::None, {}, {}, nb});
  s.push_back({"CMSLD", C, [](ScriptRun &r) { return set_text(CMSLD, r.conv[kBlankConv], "WHY IT ENDS"); },
               CM_OK, Effect::None, {{MSG_RESOURCE_SHORTAGE, 11, CM_PRODUCT_SPECIFIC_ERROR}}});
  s.push_back({"CMSDT", C, [](ScriptRun &r) { return set_int(CMSDT, r.conv[kBlankConv], CM_DEALLOCATE_ABEND); },
               CM_OK});
  s.push_back({"CMSST", C, [](ScriptRun &r) { return set_int(CMSST, r.conv[kBlankConv], CM_SEND_AND_DEALLOCATE); },
               CM_OK});
  // The record goes as buffer data, then a deallocation carries a copy of
  // the log data.
  s.push_back({"CMSEND and deallocate with log data", C, [](ScriptRun &r) {
                 script(r, VERB_SEND_DATA);
                 return send_text(r, kBlankConv, "only record");
               },
               CM_OK, Effect::EndsConv,
               {{MSG_RESOURCE_SHORTAGE, 0, CM_PRODUCT_SPECIFIC_ERROR}, kNoTpEndedBlock}, {}, nb});

  // The node's side information: an entry read (the library caches it)
  // and one deleted (the library hides it behind a tombstone).
  s.push_back({"XCMESI from the node", kNodeSideInfo, [](ScriptRun &) {
                 add_node_entry(kNodeDest);
                 XC_SIDE_INFO_ENTRY out;
                 return extract_side_info(kNodeDest, &out);
               },
               CM_OK, Effect::CachesNodeEntry,
               // The cache costs only itself: the caller's entry is filled
               // either way, and a block it cannot get is not even logged.
               {{0, 0, CM_OK, 0, 0, true}}, {{MSG_RESOURCE_SHORTAGE, 87, CM_OK, 0, 0, true}}});
  s.push_back({"XCMDSI of the node's", kNodeSideInfo, [](ScriptRun &) {
                 add_node_entry(kNodeHidden);
                 CM_INT32 key = 0, rc = -1;
                 XCMDSI(&key, (unsigned char *)kNodeHidden, &rc);
                 return rc;
               },
               CM_OK, Effect::HidesNodeEntry, {{MSG_RESOURCE_SHORTAGE, 3, CM_PRODUCT_SPECIFIC_ERROR}},
               {{MSG_RESOURCE_SHORTAGE, 4, CM_PRODUCT_SPECIFIC_ERROR}}});

  // The accepted conversation: under a name the program registers
  // (blocking), or under the default name registered by the accept.
  if (!nb) {
    s.push_back({"CMSLTP", B, [](ScriptRun &) { return tp_name_call(CMSLTP, kServerName); }, CM_OK,
                 Effect::RegistersName, {{MSG_RESOURCE_SHORTAGE, 7, CM_PRODUCT_SPECIFIC_ERROR}},
                 {{MSG_RESOURCE_SHORTAGE, 8, CM_PRODUCT_SPECIFIC_ERROR}}});
  }
  std::vector<Site> accept_memory = {kNoConvMemory};
  std::vector<Site> accept_entries = {kNoConvEntry};
  if (nb) {
    accept_memory.push_back({MSG_RESOURCE_SHORTAGE, 0, CM_PRODUCT_SPECIFIC_ERROR});
    accept_entries.push_back({MSG_RESOURCE_SHORTAGE, 15, CM_PRODUCT_SPECIFIC_ERROR});
  }
  accept_memory.push_back({MSG_RESOURCE_SHORTAGE, 10, CM_PRODUCT_SPECIFIC_ERROR});
  s.push_back({"CMACCP", B, [](ScriptRun &r) {
                 testnode::script_verb({VERB_RECEIVE_ALLOCATE_CPIC, 0, 0, false, [](void *b) {
                                          auto *v = static_cast<VCB_RECEIVE_ALLOCATE *>(b);
                                          v->conv_id = kConvB;
                                          std::memcpy(v->tp_id, kTpB, 8);
                                          v->conversation_type = CM_MAPPED_CONVERSATION;
                                          std::memcpy(v->user_id, "\xC1\xD3\xC9\xC3\xC5\x40\x40\x40\x40\x40", 10);
                                          std::memset(v->local_lu_alias, ' ', 8);
                                        }});
                 CM_INT32 rc = -1;
                 CMACCP(r.conv[kAccepted], &rc);
                 return rc;
               },
               CM_OK, Effect::MakesConv, accept_memory, accept_entries});
  s.push_back({"CMRCV data and send", B, [](ScriptRun &r) {
                 testnode::script_verb({VERB_RECEIVE_AND_WAIT, 0, 0, false,
                                        [](void *b) { fill_receive(b, 0x0201, "question"); }});
                 return receive(r, kAccepted);
               },
               CM_OK, Effect::None, {}, {}, false, [](ScriptRun &r) {
                 EXPECT_EQ(r.data_received, CM_COMPLETE_DATA_RECEIVED);
                 EXPECT_EQ(std::string((char *)r.buffer), "question");
                 EXPECT_EQ(r.status_received, CM_SEND_RECEIVED);
               }});
  s.push_back({"CMSEND", B, [](ScriptRun &r) { return send_text(r, kAccepted, "reply"); }, CM_OK});
  s.push_back({"CMDEAL", B, [](ScriptRun &r) {
                 CM_INT32 rc = -1;
                 CMDEAL(r.conv[kAccepted], &rc);
                 return rc;
               },
               CM_OK, Effect::EndsConv});
  if (!nb) {
    s.push_back({"CMRLTP", B, [](ScriptRun &) { return tp_name_call(CMRLTP, kServerName); }, CM_OK,
                 Effect::ReleasesName});
  }

  // The accepted conversation's TP is the program's context: end it.
  s.push_back({"CMTERM", kTerm, [](ScriptRun &) {
                 CM_INT32 type = CM_SOFT, rc = -1;
                 CMTERM(&type, &rc);
                 return rc;
               },
               CM_OK, Effect::EndsContext,
               // The shortage comes back as an APPC code of the library's
               // own, which the return-code map logs as one it does not know.
               {{MSG_RESOURCE_SHORTAGE, 17, CM_PRODUCT_SPECIFIC_ERROR, cpic::MSG_UNMAPPED_APPC_RC, 1}}});
  return s;
}

// ---- The runner ------------------------------------------------------------

enum class Fail { Nothing, Memory, Entry, Table, PathUser, WaitObject };

const char *fail_name(Fail f) {
  switch (f) {
    case Fail::Nothing: return "nothing";
    case Fail::Memory: return "allocation";
    case Fail::Entry: return "table entry";
    case Fail::Table: return "table";
    case Fail::PathUser: return "path user";
    case Fail::WaitObject: return "wait object";
  }
  return "?";
}

std::vector<testnode::LogRecord> new_records(size_t &seen) {
  const auto &all = testnode::problems();
  std::vector<testnode::LogRecord> out(all.begin() + static_cast<long>(seen), all.end());
  seen = all.size();
  return out;
}

void apply(ScriptRun &r, Group g, Effect e) {
  switch (e) {
    case Effect::None: break;
    case Effect::DefinesSideInfo: r.side_info = true; break;
    case Effect::RemovesSideInfo:
      r.side_info = false;
      r.tombstone = true;
      break;
    case Effect::MakesConv:
      r.conv_exists[g] = true;
      if (g == kAccepted) {
        r.context = true;  // the accepted TP becomes the context
        if (r.variant->non_blocking) r.default_name = true;
      }
      break;
    case Effect::EndsConv: r.conv_exists[g] = false; break;
    case Effect::RegistersName: r.name = true; break;
    case Effect::ReleasesName: r.name = false; break;
    case Effect::EndsContext: r.context = false; break;
    case Effect::CachesNodeEntry: ++r.node_cached; break;
    case Effect::HidesNodeEntry: r.node_hidden = true; break;
  }
}

class AllocationSweep : public ::testing::TestWithParam<Variant> {
 protected:
  void SetUp() override { teardown_library(); }
  void TearDown() override { teardown_library(); }

  // The node going away tears the library down; the next call starts it
  // afresh, as in a new program.
  static void teardown_library() {
    testnode::raise_path_event(VPM_EVENT_NODE_LOST);
    testnode::reset();
  }

  void set_trace() {
    if (GetParam().trace) testnode::trace_control()[0] |= 0x20;
  }

  // Drops verb answers a failed step never asked for, keeping the records
  // already seen and the trace setting.
  void drop_scripts(size_t &seen) {
    testnode::reset();
    seen = 0;
    set_trace();
  }

  // Issues a call and, for a non-blocking one in progress, completes it and
  // collects it with Wait. Returns the call's result.
  CM_INT32 perform(ScriptRun &r, const Step &st) {
    CM_INT32 rc = st.call(r);
    if (!(r.variant->non_blocking && st.completes_later) || rc != CM_OPERATION_INCOMPLETE) return rc;
    EXPECT_EQ(testnode::complete_async(), 1) << st.name;
    ++r.collected_by_wait;
    unsigned char id[8];
    CM_INT32 conv_rc = -1, wait_rc = -1;
    CMWAIT(id, &conv_rc, &wait_rc);
    EXPECT_EQ(wait_rc, CM_OK) << st.name << ": CMWAIT";
    EXPECT_EQ(std::memcmp(id, r.conv[st.group], 8), 0) << st.name << ": CMWAIT names another conversation";
    return wait_rc == CM_OK ? conv_rc : wait_rc;
  }

  // What the program does once a step of a group has failed: gives up
  // the group, and each call on the way answers as the state requires.
  void abandon(ScriptRun &r, Group g, const std::vector<testnode::LogRecord> &failure) {
    r.abandoned[g] = true;
    // The default name an accept registers stays registered when the
    // accept fails after it (no memory for the name list).
    for (const auto &rec : failure) {
      if (g == kAccepted && r.variant->non_blocking && rec.message == MSG_RESOURCE_SHORTAGE &&
          rec.sub_code == 10) {
        r.default_name = true;
      }
    }
    auto expect = [&r](const char *what, CM_INT32 got, CM_INT32 want) {
      if (got != want) {
        r.cleanup_failures.push_back(std::string(what) + " answered " + std::to_string(got) +
                                     ", expected " + std::to_string(want));
      }
    };
    if (g == kSideInfoConv || g == kBlankConv || g == kAccepted) {
      unsigned char *id = r.conv[g];
      CM_INT32 rc = -1, type = CM_DEALLOCATE_ABEND;
      if (r.conv_exists[g]) {
        CMSDT(id, &type, &rc);
        expect("CMSDT abend", rc, CM_OK);
        CMDEAL(id, &rc);
        expect("CMDEAL abend", rc, CM_OK);
        r.conv_exists[g] = false;
      }
      // Gone, or never made: the ID is unknown, with a record naming it.
      const size_t before = testnode::problems().size();
      CM_INT32 t = -1;
      CMECT(id, &t, &rc);
      expect("CMECT on the ended conversation", rc, CM_PROGRAM_PARAMETER_CHECK);
      bool named = false;
      for (size_t i = before; i < testnode::problems().size(); ++i) {
        named |= testnode::problems()[i].message == MSG_UNKNOWN_CONV_ID;
      }
      if (!named) r.cleanup_failures.push_back("no unknown-conversation record for CMECT");
    }
    if (g == kSideInfoConv) {
      CM_INT32 key = 0, rc = -1;
      if (r.side_info) {
        XCMDSI(&key, (unsigned char *)kDest, &rc);
        expect("XCMDSI", rc, CM_OK);
        r.side_info = false;
        r.tombstone = true;
      }
      XC_SIDE_INFO_ENTRY out;
      CM_INT32 len = sizeof out;
      XCMESI(&key, (unsigned char *)kDest, &out, &len, &rc);
      expect("XCMESI of the removed or never defined name", rc, CM_PROGRAM_PARAMETER_CHECK);
    }
    if (g == kNodeSideInfo) {
      // A deletion that failed left the node's entry in sight.
      add_node_entry(kNodeHidden);
      XC_SIDE_INFO_ENTRY out;
      expect("XCMESI of the entry not deleted", extract_side_info(kNodeHidden, &out), CM_OK);
      if (std::memcmp(out.sym_dest_name, kNodeHidden, 8) != 0) {
        r.cleanup_failures.push_back("XCMESI gave another entry");
      }
      // Read from the node, it is cached now.
      ++r.node_cached;
    }
    if (g == kAccepted && !r.variant->non_blocking) {
      CM_INT32 rc = tp_name_call(CMRLTP, kServerName);
      expect("CMRLTP", rc, r.name ? CM_OK : CM_PROGRAM_PARAMETER_CHECK);
      r.name = false;
    }
    if (g == kAccepted || g == kTerm) {
      if (r.context) {
        CM_INT32 type = CM_SOFT, rc = -1;
        CMTERM(&type, &rc);
        expect("CMTERM", rc, CM_OK);
        r.context = false;
      }
    }
  }

  // One run of the script with one resource failing (nth of its kind).
  // failed_step/failed_site: where the failure landed (-1: not reached).
  ScriptRun run(const std::vector<Step> &steps, Fail fail, int nth) {
    ScriptRun r;
    r.variant = &GetParam();
    set_trace();
    size_t seen = testnode::problems().size();
    switch (fail) {
      case Fail::Nothing: break;
      case Fail::Memory: testnode::fail_allocation(nth); break;
      case Fail::Entry: testnode::fail_free_entry(nth); break;
      case Fail::Table: testnode::fail_table_init(nth); break;
      case Fail::PathUser: testnode::fail_path_user(true); break;
      case Fail::WaitObject: testnode::fail_wait_object(true); break;
    }
    for (const Step &st : steps) {
      if (r.abandoned[st.group]) {
        r.results.push_back(-1);
        r.records.emplace_back();
        r.allocations.push_back(0);
        continue;
      }
      const int made = testnode::allocations_made();
      const CM_INT32 rc = perform(r, st);
      r.results.push_back(rc);
      r.allocations.push_back(testnode::allocations_made() - made);
      r.records.push_back(new_records(seen));
      // These two stay refused until lifted: lifted once a call met them.
      if (fail == Fail::PathUser || fail == Fail::WaitObject) {
        testnode::fail_path_user(false);
        testnode::fail_wait_object(false);
      }
      if (rc == st.rc) {
        apply(r, st.group, st.effect);
        if (st.check) st.check(r);
      } else {
        drop_scripts(seen);
        abandon(r, st.group, r.records.back());
        new_records(seen);
      }
    }
    testnode::fail_allocation(0);
    testnode::fail_free_entry(0);
    testnode::fail_table_init(0);
    if (r.variant->trace) {
      EXPECT_FALSE(testnode::trace_lines().empty()) << "tracing on, and no trace written";
    } else {
      EXPECT_TRUE(testnode::trace_lines().empty()) << "tracing off, and trace written";
    }
    EXPECT_TRUE(testnode::assertions().empty())
        << "assertion: " << testnode::assertions().front().expression;
    EXPECT_EQ(testnode::pending_async(), 0) << "a verb left in progress";
    return r;
  }

  // Everything the library holds once the program has finished, and after
  // it is torn down.
  void expect_nothing_held(int held_at_end) {
    EXPECT_EQ(testnode::live_allocations(), held_at_end) << "blocks held when the program is done";
    teardown_library();
    EXPECT_EQ(testnode::live_allocations(), 0) << "blocks leaked";
    EXPECT_EQ(testnode::live_tables(), 0) << "tables leaked";
    EXPECT_EQ(testnode::live_wait_objects(), 0) << "wait objects leaked";
    EXPECT_EQ(testnode::live_path_users(), 0) << "path users leaked";
  }
};

std::string describe(const testnode::LogRecord &rec) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%08X/%u", rec.message, rec.sub_code);
  return buf;
}

// Compares a run with the clean run when the failure landed on `site` in
// step `at` (or nowhere: at < 0, and then the run must equal the clean one).
void expect_outcome(const std::vector<Step> &steps, const ScriptRun &clean, const ScriptRun &got, int at,
                    const Site *site) {
  ASSERT_EQ(got.results.size(), steps.size());
  for (const std::string &f : got.cleanup_failures) ADD_FAILURE() << "cleanup: " << f;
  const bool same_results = at < 0 || site->rc == steps[static_cast<size_t>(at)].rc;
  for (size_t i = 0; i < steps.size(); ++i) {
    SCOPED_TRACE(std::string("step ") + std::to_string(i) + " " + steps[i].name + " (" +
                 kGroupNames[steps[i].group] + ")");
    const bool is_failed_step = static_cast<int>(i) == at;
    if (is_failed_step) {
      EXPECT_EQ(got.results[i], site->rc);
      // The step's own records: the clean run's plus exactly the site's.
      std::vector<std::string> want, have;
      for (const auto &rec : clean.records[i]) want.push_back(describe(rec));
      if (site->message != 0) want.push_back(describe({site->message, site->sub_code, "", {}}));
      if (site->also_message != 0) want.push_back(describe({site->also_message, site->also_sub_code, "", {}}));
      for (const auto &rec : got.records[i]) have.push_back(describe(rec));
      std::sort(want.begin(), want.end());
      std::sort(have.begin(), have.end());
      EXPECT_EQ(have, want) << "records of the step that met the failure";
      continue;
    }
    if (got.results[i] == -1) {
      // Skipped: only steps of the group given up after the failure.
      EXPECT_FALSE(same_results) << "step skipped in a run that should have ended as the clean one";
      EXPECT_TRUE(at >= 0 && steps[i].group == steps[static_cast<size_t>(at)].group &&
                  static_cast<int>(i) > at)
          << "skipped, but not part of the group that failed";
      continue;
    }
    EXPECT_EQ(got.results[i], clean.results[i]);
    std::vector<std::string> want, have;
    for (const auto &rec : clean.records[i]) want.push_back(describe(rec));
    for (const auto &rec : got.records[i]) have.push_back(describe(rec));
    EXPECT_EQ(have, want) << "records";
  }
}

TEST_P(AllocationSweep, EveryResourceInTurn) {
  const std::vector<Step> steps = script_for(GetParam());

  // The clean run: its results, and how many blocks each step allocates.
  ScriptRun clean;
  {
    SCOPED_TRACE("nothing fails");
    clean = run(steps, Fail::Nothing, 0);
    for (size_t i = 0; i < steps.size(); ++i) {
      SCOPED_TRACE(steps[i].name);
      EXPECT_EQ(clean.results[i], steps[i].rc);
      EXPECT_TRUE(clean.records[i].empty()) << "record " << describe(clean.records[i].front());
      EXPECT_EQ(clean.allocations[i], static_cast<int>(steps[i].memory.size()))
          << "the step allocates other than its table of sites says";
    }
    EXPECT_TRUE(clean.cleanup_failures.empty());
    int later = 0;
    for (const Step &st : steps) later += st.completes_later && GetParam().non_blocking ? 1 : 0;
    EXPECT_EQ(clean.collected_by_wait, later) << "calls that should have completed later did not";
  }
  if (HasFailure()) return;
  expect_nothing_held(clean.held());

  // The sites in the order the clean run reached them.
  struct Where {
    int step;
    const Site *site;
  };
  std::vector<Where> memory, entries;
  for (size_t i = 0; i < steps.size(); ++i) {
    for (const Site &s : steps[i].memory) memory.push_back({static_cast<int>(i), &s});
    for (const Site &s : steps[i].entries) entries.push_back({static_cast<int>(i), &s});
  }
  int n = 0;
  for (int a : clean.allocations) n += a;
  ASSERT_EQ(static_cast<size_t>(n), memory.size());
  std::printf("%s: %zu steps, %d allocations, %zu table entries swept\n", GetParam().name,
              steps.size(), n, entries.size());

  // Each allocation failing in turn, and one past the last (never reached).
  for (int k = 1; k <= n + 1; ++k) {
    SCOPED_TRACE("allocation " + std::to_string(k) + " of " + std::to_string(n) + " fails");
    const ScriptRun got = run(steps, Fail::Memory, k);
    const Site *site = k <= n ? memory[static_cast<size_t>(k - 1)].site : nullptr;
    expect_outcome(steps, clean, got, k <= n ? memory[static_cast<size_t>(k - 1)].step : -1, site);
    expect_nothing_held(got.held() - (site != nullptr && site->kept_block ? 1 : 0));
  }
  // Each handle-table entry in turn, and one past the last.
  for (size_t k = 1; k <= entries.size() + 1; ++k) {
    SCOPED_TRACE("table entry " + std::to_string(k) + " fails");
    const ScriptRun got = run(steps, Fail::Entry, static_cast<int>(k));
    const Site *site = k <= entries.size() ? entries[k - 1].site : nullptr;
    expect_outcome(steps, clean, got, k <= entries.size() ? entries[k - 1].step : -1, site);
    expect_nothing_held(got.held() - (site != nullptr && site->kept_block ? 1 : 0));
  }
  // The library's own start: its three tables, the path user, the wait
  // object. The first call meets the failure; the next starts it again.
  const Site table_sites[3] = {{MSG_INIT_FAILED, 1, CM_PRODUCT_SPECIFIC_ERROR},
                               {MSG_INIT_FAILED, 2, CM_PRODUCT_SPECIFIC_ERROR},
                               {MSG_INIT_FAILED, 3, CM_PRODUCT_SPECIFIC_ERROR}};
  for (int k = 1; k <= 4; ++k) {
    SCOPED_TRACE("table " + std::to_string(k) + " fails");
    const ScriptRun got = run(steps, Fail::Table, k);
    expect_outcome(steps, clean, got, k <= 3 ? 0 : -1, k <= 3 ? &table_sites[k - 1] : nullptr);
    expect_nothing_held(got.held());
  }
  // The path user's record carries sub-code 0 though it is the fourth step.
  const Site path_site{MSG_INIT_FAILED, 0, CM_PRODUCT_SPECIFIC_ERROR};
  const Site wait_site{MSG_RESOURCE_SHORTAGE, 12, CM_PRODUCT_SPECIFIC_ERROR};
  for (Fail f : {Fail::PathUser, Fail::WaitObject}) {
    SCOPED_TRACE(std::string(fail_name(f)) + " fails");
    const ScriptRun got = run(steps, f, 1);
    expect_outcome(steps, clean, got, 0, f == Fail::PathUser ? &path_site : &wait_site);
    expect_nothing_held(got.held());
  }
}

INSTANTIATE_TEST_SUITE_P(Variants, AllocationSweep, ::testing::ValuesIn(kVariants),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
