// Resource failure at every allocation site the Set, Extract, security,
// side-information, local TP name and initialisation calls reach: each
// scenario is first run once to count its allocations, then run again with
// each memory allocation, and each handle-table entry, failing in turn.
// Every run must give the documented return code with its problem record
// and keep only the blocks it is meant to keep.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "counters.h"
#include "fixtures.h"

using namespace cpic;
using namespace cpictest;

namespace {

constexpr uint32_t kNoRecord = 0xFFFFFFFF;

// What a run with one resource failing must give.
struct Expect {
  CM_INT32 rc;
  uint32_t shortage_sub_code;  // the resource-shortage record, or kNoRecord
  int kept;                    // blocks still allocated after the call
};

// One run's working state.
struct RunState {
  unsigned char id[8] = {};
  bool made = false;
  std::string name;  // a symbolic destination or TP name, new for each run
  std::vector<uint32_t> names_before;  // local TP name handles before the run
  uint16_t num_names = 0, accept_issued = 0;
  CCCB *cccb() const {
    CCCB *c = nullptr;
    SCC_find_cccb(id, &c, pGCB);
    return c;
  }
};

std::string fresh_name(const char *stem) {
  static int n = 0;
  char buf[16];
  std::snprintf(buf, sizeof buf, "%.2s%06d", stem, ++n);
  return std::string(buf, 8);
}

NOF_SIDE_INFO_ENTRY node_entry(const std::string &name) {
  NOF_SIDE_INFO_ENTRY e;
  std::memset(&e, 0, sizeof e);
  std::memcpy(e.sym_dest_name, name.data(), 8);
  std::memset(e.partner_lu_name, ' ', 17);
  std::memcpy(e.partner_lu_name, "NETA.LUB", 8);
  std::memset(e.tp_name, ' ', 64);
  std::memcpy(e.tp_name, "PAYROLL", 7);
  std::memset(e.mode_name, ' ', 8);
  std::memcpy(e.mode_name, "#INTER", 6);
  e.security_type = 1;
  std::memset(e.user_id, ' ', 10);
  std::memset(e.password, ' ', 10);
  return e;
}

XC_SIDE_INFO_ENTRY app_entry(const std::string &name) {
  XC_SIDE_INFO_ENTRY e;
  std::memset(&e, ' ', sizeof e);
  std::memcpy(e.sym_dest_name, name.data(), 8);
  std::memcpy(e.partner_LU_name, "LUALIAS1", 8);
  e.TP_name_type = XC_APPLICATION_TP;
  std::memcpy(e.TP_name, "PAYROLL", 7);
  std::memcpy(e.mode_name, "#INTER", 6);
  e.conversation_security_type = CM_SECURITY_NONE;
  return e;
}

void make_conversation(RunState &r, bool incoming = false) {
  CM_INT32 rc = -1;
  if (incoming) {
    cminic(r.id, &rc);
  } else {
    cminit(r.id, (unsigned char *)"        ", &rc);
  }
  ASSERT_EQ(rc, CM_OK);
  r.made = true;
}

void drop_conversation(RunState &r) {
  if (!r.made) return;
  if (CCCB *c = r.cccb()) {
    std::memset(c->abTpId, 0, 8);
    SCC_free_cccb(c);
  }
  r.made = false;
}

struct Scenario {
  const char *name;
  std::function<void(RunState &)> prepare;        // not counted
  std::function<CM_INT32(RunState &)> act;        // the call under test
  std::function<void(RunState &, int)> check;     // extra checks; the int is the failing site or 0
  std::function<void(RunState &)> cleanup;        // not counted
  Expect success;
  std::vector<Expect> memory;  // one per allocation, in order
  std::vector<Expect> entries; // one per handle-table entry taken, in order
};

// ---- Scenarios ------------------------------------------------------------

CM_INT32 set_side_info(RunState &r) {
  XC_SIDE_INFO_ENTRY e = app_entry(r.name);
  CM_INT32 key = 0, len = 124, rc = -1;
  XCMSSI(&key, &e, &len, &rc);
  return rc;
}

CM_INT32 extract_side_info(RunState &r, XC_SIDE_INFO_ENTRY *out) {
  CM_INT32 key = 0, len = 124, rc = -1;
  XCMESI(&key, (unsigned char *)r.name.data(), out, &len, &rc);
  return rc;
}

void check_extracted(RunState &r, int) {
  XC_SIDE_INFO_ENTRY out;
  std::memset(&out, 0, sizeof out);
  // Whatever the cache did, the entry read now is the node's.
  testnode::add_node_side_info(node_entry(r.name));
  ASSERT_EQ(extract_side_info(r, &out), CM_OK);
  EXPECT_EQ(bytes(out.TP_name, 8), "PAYROLL ");
  EXPECT_EQ(bytes(out.mode_name, 8), "#INTER  ");
}

CM_INT32 specify_tp_name(RunState &r) {
  CM_INT32 len = 8, rc = -1;
  CMSLTP((unsigned char *)r.name.data(), &len, &rc);
  return rc;
}

void release_tp_name_if_held(RunState &r) {
  CM_INT32 len = 8, rc = -1;
  CMRLTP((unsigned char *)r.name.data(), &len, &rc);
}

const uint8_t kOldContext[8] = {0xD0, 0xD1, 0xD2, 0xD3, 0xD4, 0xD5, 0xD6, 0xD7};

std::vector<Scenario> scenarios() {
  std::vector<Scenario> s;
  auto nothing = [](RunState &) {};
  auto no_check = [](RunState &, int) {};

  // Side information through the store.
  s.push_back({"SetSideInformationNewName",
               [](RunState &r) { r.name = fresh_name("SS"); }, set_side_info,
               [](RunState &r, int failed) {
                 // A failed Set leaves nothing: the name is unknown to Extract.
                 XC_SIDE_INFO_ENTRY out;
                 testnode::reset();
                 const CM_INT32 rc = extract_side_info(r, &out);
                 EXPECT_EQ(rc, failed == 0 ? CM_OK : CM_PROGRAM_PARAMETER_CHECK);
               },
               nothing, {CM_OK, kNoRecord, 1},
               {{CM_PRODUCT_SPECIFIC_ERROR, 5, 0}},
               {{CM_PRODUCT_SPECIFIC_ERROR, 6, 0}}});
  s.push_back({"SetSideInformationReplacing",
               [](RunState &r) {
                 r.name = fresh_name("SR");
                 ASSERT_EQ(set_side_info(r), CM_OK);
               },
               set_side_info, no_check, nothing, {CM_OK, kNoRecord, 0}, {}, {}});
  s.push_back({"ExtractSideInformationFromTheNode",
               [](RunState &r) {
                 r.name = fresh_name("XN");
                 testnode::add_node_side_info(node_entry(r.name));
               },
               [](RunState &r) {
                 XC_SIDE_INFO_ENTRY out;
                 std::memset(&out, 0, sizeof out);
                 const CM_INT32 rc = extract_side_info(r, &out);
                 // The caller's entry is filled even when caching failed.
                 if (rc == CM_OK) {
                   EXPECT_EQ(bytes(out.TP_name, 8), "PAYROLL ");
                 }
                 return rc;
               },
               check_extracted, nothing, {CM_OK, kNoRecord, 1},
               // A cache that cannot grow costs only the cache.
               {{CM_OK, kNoRecord, 0}},
               {{CM_OK, 87, 0}}});
  s.push_back({"ExtractSideInformationSetLocally",
               [](RunState &r) {
                 r.name = fresh_name("XL");
                 ASSERT_EQ(set_side_info(r), CM_OK);
               },
               [](RunState &r) {
                 XC_SIDE_INFO_ENTRY out;
                 return extract_side_info(r, &out);
               },
               no_check, nothing, {CM_OK, kNoRecord, 0}, {}, {}});
  s.push_back({"DeleteSideInformationOfTheNode",
               [](RunState &r) {
                 r.name = fresh_name("DN");
                 testnode::add_node_side_info(node_entry(r.name));
               },
               [](RunState &r) {
                 CM_INT32 key = 0, rc = -1;
                 XCMDSI(&key, (unsigned char *)r.name.data(), &rc);
                 return rc;
               },
               [](RunState &r, int failed) {
                 // Without its tombstone the node's entry still shows.
                 XC_SIDE_INFO_ENTRY out;
                 testnode::reset();
                 testnode::add_node_side_info(node_entry(r.name));
                 EXPECT_EQ(extract_side_info(r, &out),
                           failed == 0 ? CM_PROGRAM_PARAMETER_CHECK : CM_OK);
               },
               nothing, {CM_OK, kNoRecord, 1},
               {{CM_PRODUCT_SPECIFIC_ERROR, 3, 0}},
               {{CM_PRODUCT_SPECIFIC_ERROR, 4, 0}}});
  s.push_back({"DeleteSideInformationSetLocally",
               [](RunState &r) {
                 r.name = fresh_name("DL");
                 ASSERT_EQ(set_side_info(r), CM_OK);
               },
               [](RunState &r) {
                 CM_INT32 key = 0, rc = -1;
                 XCMDSI(&key, (unsigned char *)r.name.data(), &rc);
                 return rc;
               },
               no_check, nothing, {CM_OK, kNoRecord, 0}, {}, {}});

  // Initialisation of conversations, with and without the store.
  s.push_back({"InitializeConversationThroughTheNode",
               [](RunState &r) {
                 r.name = fresh_name("IN");
                 testnode::add_node_side_info(node_entry(r.name));
               },
               [](RunState &r) {
                 CM_INT32 rc = -1;
                 cminit(r.id, (unsigned char *)r.name.data(), &rc);
                 r.made = rc == CM_OK;
                 return rc;
               },
               [](RunState &r, int) {
                 if (!r.made) return;
                 // The conversation has the node's destination either way.
                 EXPECT_EQ(r.cccb()->si.usModeNameLen, 6);
                 EXPECT_EQ(r.cccb()->si.fPartnerLuFq, 1);
               },
               drop_conversation, {CM_OK, kNoRecord, 2},
               {{CM_PRODUCT_SPECIFIC_ERROR, 1, 0}, {CM_OK, kNoRecord, 1}},
               {{CM_PRODUCT_SPECIFIC_ERROR, 2, 0}, {CM_OK, 87, 1}}});
  s.push_back({"InitializeConversationBlankName", nothing,
               [](RunState &r) {
                 CM_INT32 rc = -1;
                 cminit(r.id, (unsigned char *)"        ", &rc);
                 r.made = rc == CM_OK;
                 return rc;
               },
               no_check, drop_conversation, {CM_OK, kNoRecord, 1},
               {{CM_PRODUCT_SPECIFIC_ERROR, 1, 0}},
               {{CM_PRODUCT_SPECIFIC_ERROR, 2, 0}}});
  s.push_back({"InitializeForIncoming", nothing,
               [](RunState &r) {
                 CM_INT32 rc = -1;
                 cminic(r.id, &rc);
                 r.made = rc == CM_OK;
                 return rc;
               },
               no_check, drop_conversation, {CM_OK, kNoRecord, 1},
               {{CM_PRODUCT_SPECIFIC_ERROR, 1, 0}},
               {{CM_PRODUCT_SPECIFIC_ERROR, 2, 0}}});

  // Set_Log_Data: the record is the only block a Set call allocates.
  auto basic_conversation = [](RunState &r) {
    make_conversation(r);
    CM_INT32 type = CM_BASIC_CONVERSATION, rc = -1;
    CMSCT(r.id, &type, &rc);
    ASSERT_EQ(rc, CM_OK);
  };
  auto set_log_data = [](RunState &r) {
    CM_INT32 len = 10, rc = -1;
    CMSLD(r.id, (unsigned char *)"LOGDATA123", &len, &rc);
    return rc;
  };
  s.push_back({"SetLogData", basic_conversation, set_log_data,
               [](RunState &r, int failed) {
                 EXPECT_EQ(r.cccb()->usLogDataLen, failed == 0 ? 18 : 0);
                 EXPECT_EQ(r.cccb()->pLogData == nullptr, failed != 0);
               },
               drop_conversation, {CM_OK, kNoRecord, 1},
               {{CM_PRODUCT_SPECIFIC_ERROR, 11, 0}}, {}});
  s.push_back({"SetLogDataReplacing",
               [basic_conversation](RunState &r) {
                 basic_conversation(r);
                 CM_INT32 len = 3, rc = -1;
                 CMSLD(r.id, (unsigned char *)"OLD", &len, &rc);
                 ASSERT_EQ(rc, CM_OK);
               },
               set_log_data,
               [](RunState &r, int failed) {
                 // A failed replacement keeps the old log data in force.
                 EXPECT_EQ(r.cccb()->usLogDataLen, failed == 0 ? 18 : 11);
                 EXPECT_EQ(bytes(r.cccb()->pLogData + 8, 3),
                           failed == 0 ? ebcdic("LOG", 0, 3) : ebcdic("OLD", 0, 3));
               },
               drop_conversation, {CM_OK, kNoRecord, 0},
               {{CM_PRODUCT_SPECIFIC_ERROR, 11, 0}}, {}});

  // Set_Conversation_Context ending the context it replaces: the TP_ENDED
  // block is allocated; without it the context is replaced all the same.
  s.push_back({"SetContextEndingTheOld",
               [](RunState &r) {
                 make_conversation(r, true);
                 r.cccb()->ulApplConvId = 0x51;
                 std::memset(r.cccb()->abTpId, 0x5C, 8);
                 std::memcpy(pGCB->abContextTpId, kOldContext, 8);
               },
               [](RunState &) {
                 unsigned char ctx[8];
                 std::memset(ctx, 0x5C, 8);
                 CM_INT32 len = 8, rc = -1;
                 CMSCTX(ctx, &len, &rc);
                 return rc;
               },
               [](RunState &, int failed) {
                 EXPECT_EQ(bytes(pGCB->abContextTpId, 8), std::string(8, '\x5C'));
                 size_t ended = 0;
                 for (const auto &v : testnode::issued_verbs()) ended += v.opcode == VERB_TP_ENDED;
                 EXPECT_EQ(ended, failed == 0 ? 1u : 0u);
               },
               [](RunState &r) {
                 std::memset(pGCB->abContextTpId, 0, 8);
                 std::memset(pGCB->abContextLuAlias, 0, 8);
                 drop_conversation(r);
               },
               {CM_OK, kNoRecord, 0}, {{CM_OK, 17, 0}}, {}});

  // Accept_Conversation registering the default local TP name: the
  // conversation block, the name's entry and the name list.
  s.push_back({"AcceptRegisteringTheDefaultName",
               [](RunState &r) {
                 void *p = nullptr;
                 for (uint32_t h = vtm_get_next_used(pGCB->hLocTpNameTable, 0, &p); h != 0;
                      h = vtm_get_next_used(pGCB->hLocTpNameTable, h, &p)) {
                   r.names_before.push_back(h);
                 }
                 r.num_names = pGCB->NumLocTPNames;
                 r.accept_issued = pGCB->fAcceptIssued;
                 pGCB->fAcceptIssued = 0;
                 testnode::script_verb({VERB_RECEIVE_ALLOCATE_CPIC, 0, 0, false, [](void *b) {
                                          auto *v = static_cast<VCB_RECEIVE_ALLOCATE *>(b);
                                          v->conv_id = 0x0ACC;
                                          std::memset(v->user_id, 0x40, 10);
                                          std::memset(v->local_lu_alias, ' ', 8);
                                        }});
               },
               [](RunState &r) {
                 CM_INT32 rc = -1;
                 cmaccp(r.id, &rc);
                 r.made = rc == CM_OK;
                 return rc;
               },
               [](RunState &r, int) {
                 // The name list lives only as long as the verb.
                 if (r.made) {
                   EXPECT_EQ(r.cccb()->vcb.receive_allocate.name_list, nullptr);
                 }
               },
               [](RunState &r) {
                 drop_conversation(r);
                 void *p = nullptr;
                 uint32_t h = vtm_get_next_used(pGCB->hLocTpNameTable, 0, &p);
                 while (h != 0) {
                   void *next_p = nullptr;
                   const uint32_t next = vtm_get_next_used(pGCB->hLocTpNameTable, h, &next_p);
                   if (std::find(r.names_before.begin(), r.names_before.end(), h) ==
                       r.names_before.end()) {
                     vtm_release_entry(pGCB->hLocTpNameTable, h);
                     nba_mm_free(p);
                   }
                   h = next;
                   p = next_p;
                 }
                 pGCB->NumLocTPNames = r.num_names;
                 pGCB->fAcceptIssued = r.accept_issued;
               },
               {CM_OK, kNoRecord, 2},
               {{CM_PRODUCT_SPECIFIC_ERROR, 1, 0},
                {CM_PRODUCT_SPECIFIC_ERROR, 0, 0},
                // The name is registered by then and stays so.
                {CM_PRODUCT_SPECIFIC_ERROR, 10, 1}},
               {{CM_PRODUCT_SPECIFIC_ERROR, 2, 0}, {CM_PRODUCT_SPECIFIC_ERROR, 15, 0}}});

  // Local TP names.
  s.push_back({"SpecifyLocalTpName", [](RunState &r) { r.name = fresh_name("TP"); },
               specify_tp_name,
               [](RunState &r, int failed) {
                 // A failed Specify leaves nothing to release.
                 CM_INT32 len = 8, rc = -1;
                 CMRLTP((unsigned char *)r.name.data(), &len, &rc);
                 EXPECT_EQ(rc, failed == 0 ? CM_OK : CM_PROGRAM_PARAMETER_CHECK);
               },
               nothing, {CM_OK, kNoRecord, 1},
               {{CM_PRODUCT_SPECIFIC_ERROR, 7, 0}},
               {{CM_PRODUCT_SPECIFIC_ERROR, 8, 0}}});
  s.push_back({"SpecifyLocalTpNameAgain",
               [](RunState &r) {
                 r.name = fresh_name("TA");
                 ASSERT_EQ(specify_tp_name(r), CM_OK);
               },
               specify_tp_name, no_check, release_tp_name_if_held, {CM_OK, kNoRecord, 0}, {},
               {}});
  s.push_back({"ReleaseLocalTpName",
               [](RunState &r) {
                 r.name = fresh_name("TR");
                 ASSERT_EQ(specify_tp_name(r), CM_OK);
               },
               [](RunState &r) {
                 CM_INT32 len = 8, rc = -1;
                 CMRLTP((unsigned char *)r.name.data(), &len, &rc);
                 return rc;
               },
               no_check, nothing, {CM_OK, kNoRecord, -1}, {}, {}});
  return s;
}

// The calls that allocate nothing: one resource failure of either kind
// must change nothing about them.
struct PlainCall {
  const char *name;
  bool established;  // white-box: a node conversation exists
  std::function<CM_INT32(unsigned char *)> call;
};

const std::vector<PlainCall> &plain_calls() {
  static const std::vector<PlainCall> p = {
      {"CMSCT", false, [](unsigned char *id) { CM_INT32 x = 0, rc; cmsct(id, &x, &rc); return rc; }},
      {"CMSDT", false, [](unsigned char *id) { CM_INT32 x = 1, rc; cmsdt(id, &x, &rc); return rc; }},
      {"CMSED", false, [](unsigned char *id) { CM_INT32 x = 1, rc; cmsed(id, &x, &rc); return rc; }},
      {"CMSPTR", false, [](unsigned char *id) { CM_INT32 x = 1, rc; cmsptr(id, &x, &rc); return rc; }},
      {"CMSRT", false, [](unsigned char *id) { CM_INT32 x = 1, rc; cmsrt(id, &x, &rc); return rc; }},
      {"CMSRC", false, [](unsigned char *id) { CM_INT32 x = 1, rc; cmsrc(id, &x, &rc); return rc; }},
      {"CMSST", false, [](unsigned char *id) { CM_INT32 x = 1, rc; cmsst(id, &x, &rc); return rc; }},
      {"CMSSL", false, [](unsigned char *id) { CM_INT32 x = 1, rc; cmssl(id, &x, &rc); return rc; }},
      {"CMSPM", false, [](unsigned char *id) { CM_INT32 x = 1, rc; cmspm(id, &x, &rc); return rc; }},
      {"CMSPLN", false, [](unsigned char *id) { CM_INT32 l = 8, rc; cmspln(id, (unsigned char *)"NETA.LUB", &l, &rc); return rc; }},
      {"CMSMN", false, [](unsigned char *id) { CM_INT32 l = 6, rc; cmsmn(id, (unsigned char *)"#INTER", &l, &rc); return rc; }},
      {"CMSTPN", false, [](unsigned char *id) { CM_INT32 l = 7, rc; cmstpn(id, (unsigned char *)"PAYROLL", &l, &rc); return rc; }},
      {"CMSLLN", false, [](unsigned char *id) { CM_INT32 l = 3, rc; cmslln(id, (unsigned char *)"LU1", &l, &rc); return rc; }},
      {"CMSCST", false, [](unsigned char *id) { CM_INT32 x = 2, rc; cmscst(id, &x, &rc); return rc; }},
      {"XCSCST", false, [](unsigned char *id) { CM_INT32 x = 5, rc; xcscst(id, &x, &rc); return rc; }},
      {"CMSCSU", false, [](unsigned char *id) { CM_INT32 l = 4, rc; cmscsu(id, (unsigned char *)"USER", &l, &rc); return rc; }},
      {"XCSCSU", false, [](unsigned char *id) { CM_INT32 l = 4, rc; xcscsu(id, (unsigned char *)"USER", &l, &rc); return rc; }},
      {"CMSCSP", false, [](unsigned char *id) { CM_INT32 x = 2, l = 4, rc; cmscst(id, &x, &rc); cmscsp(id, (unsigned char *)"PASS", &l, &rc); return rc; }},
      {"XCSCSP", false, [](unsigned char *id) { CM_INT32 x = 2, l = 4, rc; cmscst(id, &x, &rc); xcscsp(id, (unsigned char *)"PASS", &l, &rc); return rc; }},
      {"CMECT", false, [](unsigned char *id) { CM_INT32 x, rc; cmect(id, &x, &rc); return rc; }},
      {"CMESL", false, [](unsigned char *id) { CM_INT32 x, rc; cmesl(id, &x, &rc); return rc; }},
      {"CMEMN", false, [](unsigned char *id) { unsigned char n[8]; CM_INT32 l, rc; cmemn(id, n, &l, &rc); return rc; }},
      {"CMEPLN", false, [](unsigned char *id) { unsigned char n[17]; CM_INT32 l, rc; cmepln(id, n, &l, &rc); return rc; }},
      {"CMETPN", false, [](unsigned char *id) { unsigned char n[64]; CM_INT32 l, rc; cmetpn(id, n, &l, &rc); return rc; }},
      {"CMELLN", false, [](unsigned char *id) { CM_INT32 l = 3, rc; cmslln(id, (unsigned char *)"LU1", &l, &rc); unsigned char n[9]; cmelln(id, n, &l, &rc); return rc; }},
      {"CMECS", false, [](unsigned char *id) { CM_INT32 x, rc; cmecs(id, &x, &rc); return rc; }},
      {"CMECSNode", true, [](unsigned char *id) { CM_INT32 x, rc; cmecs(id, &x, &rc); return rc; }},
      {"CMECTX", true, [](unsigned char *id) { unsigned char ctx[8]; CM_INT32 l, rc; cmectx(id, ctx, &l, &rc); return rc; }},
      {"CMECST", false, [](unsigned char *id) { CM_INT32 x, rc; cmecst(id, &x, &rc); return rc; }},
      {"XCECST", false, [](unsigned char *id) { CM_INT32 x, rc; xcecst(id, &x, &rc); return rc; }},
      {"CMECSU", false, [](unsigned char *id) { unsigned char u[10]; CM_INT32 l, rc; cmecsu(id, u, &l, &rc); return rc; }},
      {"XCECSU", false, [](unsigned char *id) { unsigned char u[10]; CM_INT32 l, rc; xcecsu(id, u, &l, &rc); return rc; }},
      {"CMESUI", false, [](unsigned char *id) { unsigned char u[10]; CM_INT32 l, rc; cmesui(id, u, &l, &rc); return rc; }},
      {"CMEMBS", false, [](unsigned char *) { CM_INT32 x, rc; cmembs(&x, &rc); return rc; }},
  };
  return p;
}

// ---- The harness ----------------------------------------------------------

class AllocationFailure : public LibraryTest,
                          public ::testing::WithParamInterface<size_t> {
 protected:
  const Scenario &scenario() const {
    static const std::vector<Scenario> all = scenarios();
    return all.at(GetParam());
  }
  // The default-name hand-over of Specify_Local_TP_Name must not come
  // into these runs, whatever earlier tests left registered.
  void SetUp() override {
    LibraryTest::SetUp();
    saved_accept_issued_ = pGCB->fAcceptIssued;
    pGCB->fAcceptIssued = 0;
  }
  void TearDown() override {
    std::memset(pGCB->abContextTpId, 0, 8);
    pGCB->fAcceptIssued = saved_accept_issued_;
    LibraryTest::TearDown();
  }
  uint16_t saved_accept_issued_ = 0;

  enum class Fail { Nothing, Memory, Entry };

  // Runs the scenario once; returns the call's return code and fills in
  // what was allocated and kept.
  // reached: whether the failure hits a site of the call (the checks then
  // learn which), or lies past its last one.
  CM_INT32 run(Fail fail, int nth, bool reached, int *allocated, int *kept) {
    const Scenario &s = scenario();
    RunState r;
    testnode::reset();
    s.prepare(r);
    if (::testing::Test::HasFatalFailure()) return -1;
    const size_t records_before = testnode::problems().size();
    const int live = testnode::live_allocations();
    const int made = testnode::allocations_made();
    if (fail == Fail::Memory) testnode::fail_allocation(nth);
    if (fail == Fail::Entry) testnode::fail_free_entry(nth);
    const CM_INT32 rc = s.act(r);
    *allocated = testnode::allocations_made() - made;
    *kept = testnode::live_allocations() - live;
    records_.assign(testnode::problems().begin() + static_cast<long>(records_before),
                    testnode::problems().end());
    testnode::fail_allocation(0);
    testnode::fail_free_entry(0);
    EXPECT_TRUE(testnode::assertions().empty());
    s.check(r, reached ? nth : 0);
    s.cleanup(r);
    return rc;
  }

  void expect_records(const Expect &e) {
    std::vector<std::pair<uint32_t, uint32_t>> got;
    for (const auto &p : records_) got.emplace_back(p.message, p.sub_code);
    if (e.shortage_sub_code == kNoRecord) {
      EXPECT_TRUE(got.empty()) << "unexpected problem record " << std::hex << got[0].first << "/"
                               << std::dec << got[0].second;
    } else {
      ASSERT_EQ(got.size(), 1u);
      EXPECT_EQ(got[0].first, MSG_RESOURCE_SHORTAGE);
      EXPECT_EQ(got[0].second, e.shortage_sub_code);
      EXPECT_EQ(records_[0].format, "");
    }
  }

  std::vector<testnode::LogRecord> records_;
};

TEST_P(AllocationFailure, EachSiteInTurn) {
  const Scenario &s = scenario();

  // Once without failures: how many blocks the call allocates.
  int allocated = 0, kept = 0;
  {
    SCOPED_TRACE("no failure");
    EXPECT_EQ(run(Fail::Nothing, 0, false, &allocated, &kept), s.success.rc);
    EXPECT_EQ(kept, s.success.kept);
    expect_records(s.success);
  }
  ASSERT_EQ(static_cast<size_t>(allocated), s.memory.size())
      << "the call allocates where the table has no row";

  // Each allocation failing in turn, then one past the last: that failure
  // is never reached and the run is a plain success.
  for (size_t i = 0; i <= s.memory.size(); ++i) {
    SCOPED_TRACE("allocation " + std::to_string(i + 1) + " fails");
    const Expect &e = i < s.memory.size() ? s.memory[i] : s.success;
    int a = 0, k = 0;
    EXPECT_EQ(run(Fail::Memory, static_cast<int>(i + 1), i < s.memory.size(), &a, &k), e.rc);
    EXPECT_EQ(k, e.kept);
    expect_records(e);
  }
  // Each handle-table entry failing in turn, then one past the last.
  for (size_t i = 0; i <= s.entries.size(); ++i) {
    SCOPED_TRACE("table entry " + std::to_string(i + 1) + " fails");
    const Expect &e = i < s.entries.size() ? s.entries[i] : s.success;
    int a = 0, k = 0;
    EXPECT_EQ(run(Fail::Entry, static_cast<int>(i + 1), i < s.entries.size(), &a, &k), e.rc);
    EXPECT_EQ(k, e.kept);
    expect_records(e);
  }
}

INSTANTIATE_TEST_SUITE_P(Scenarios, AllocationFailure,
                         ::testing::Range<size_t>(0, scenarios().size()),
                         [](const auto &info) { return std::string(scenarios()[info.param].name); });

class PlainCallAllocation : public LibraryTest, public ::testing::WithParamInterface<size_t> {};

TEST_P(PlainCallAllocation, NoSiteReached) {
  const PlainCall &pc = plain_calls().at(GetParam());
  for (int fail = 0; fail < 3; ++fail) {
    SCOPED_TRACE(fail == 0 ? "no failure" : fail == 1 ? "first allocation fails" : "first entry fails");
    unsigned char id[8];
    CM_INT32 rc = -1;
    cminit(id, (unsigned char *)"        ", &rc);
    ASSERT_EQ(rc, CM_OK);
    CCCB *c = find(id);
    if (pc.established) {
      c->ulApplConvId = 0x61;
      std::memset(c->abTpId, 0x62, 8);
    }
    testnode::reset();
    const int live = testnode::live_allocations();
    const int made = testnode::allocations_made();
    if (fail == 1) testnode::fail_allocation(1);
    if (fail == 2) testnode::fail_free_entry(1);
    rc = pc.call(id);
    EXPECT_EQ(rc, CM_OK);
    EXPECT_EQ(testnode::allocations_made(), made);
    EXPECT_EQ(testnode::live_allocations(), live);
    EXPECT_TRUE(testnode::problems().empty());
    testnode::fail_allocation(0);
    testnode::fail_free_entry(0);
    std::memset(c->abTpId, 0, 8);
    drop(id);
  }
  EXPECT_EQ(leaked(), 0);
}

INSTANTIATE_TEST_SUITE_P(Calls, PlainCallAllocation,
                         ::testing::Range<size_t>(0, plain_calls().size()),
                         [](const auto &info) { return std::string(plain_calls()[info.param].name); });

}  // namespace
