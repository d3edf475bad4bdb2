// Accept_Conversation (CMACCP) and Accept_Incoming (CMACCI): taking an
// incoming allocation from the node, after registering the program's local
// TP names with it.
#include <cstring>

#include "counters.h"
#include "cpic.h"
#include "internal.h"

namespace cpic {

namespace {

struct LOC_TP_NAME {
  uint16_t usLength;
  uint8_t abName[64];
};
static_assert(sizeof(LOC_TP_NAME) == 66, "local TP name entry");

// The name list of the outstanding receive-allocate, by conversation; it
// must outlive the verb and is freed by the completion.
const uint8_t *name_list_of(const CCCB *c) { return c->vcb.receive_allocate.name_list; }

void free_name_list(CCCB *c) {
  const uint8_t *list = name_list_of(c);
  if (list != nullptr) nba_mm_free(const_cast<uint8_t *>(list));
  c->vcb.receive_allocate.name_list = nullptr;
}

// Registers the default TP name unless it already is. false on failure.
bool register_default_tp_name() {
  GCB *g = pGCB;
  void *p = nullptr;
  for (uint32_t h = vtm_get_next_used(g->hLocTpNameTable, 0, &p); h != 0;
       h = vtm_get_next_used(g->hLocTpNameTable, h, &p)) {
    auto *e = static_cast<LOC_TP_NAME *>(p);
    if (e != nullptr && e->usLength == g->usDefaultTpNameLen &&
        std::memcmp(e->abName, g->abDefaultTpName, 64) == 0) {
      g->fAcceptIssued = 1;
      return true;
    }
  }
  auto *e = static_cast<LOC_TP_NAME *>(
      nba_mm_alloc(sizeof(LOC_TP_NAME), MEM_TYPE_CPIC, nba_blank_name, 0, 0));
  if (e == nullptr) {
    nba_pd_print_problem(MSG_RESOURCE_SHORTAGE, 0, "");
    return false;
  }
  const uint32_t h = vtm_get_free_entry(g->hLocTpNameTable, e);
  if (h == 0) {
    nba_pd_print_problem(MSG_RESOURCE_SHORTAGE, 15, "");
    nba_mm_free(e);
    return false;
  }
  e->usLength = g->usDefaultTpNameLen;
  std::memcpy(e->abName, g->abDefaultTpName, 64);
  VCB_TP_NAME block;
  std::memset(&block, 0, sizeof block);
  block.opcode = VERB_REGISTER_TP_NAME;
  std::memcpy(block.tp_name, e->abName, 64);
  appc_c_version(2, &block);
  if (block.primary_rc != 0) {
    nba_pd_print_problem(MSG_TP_NAME_REG_FAILED, 0, "ba", 64, e->abName);
    vtm_release_entry(g->hLocTpNameTable, h);
    nba_mm_free(e);
    return false;
  }
  g->NumLocTPNames++;
  g->fAcceptIssued = 1;
  return true;
}

uint32_t entry_with_name(const uint8_t *name) {
  GCB *g = pGCB;
  void *p = nullptr;
  for (uint32_t h = vtm_get_next_used(g->hLocTpNameTable, 0, &p); h != 0;
       h = vtm_get_next_used(g->hLocTpNameTable, h, &p)) {
    auto *e = static_cast<LOC_TP_NAME *>(p);
    if (e != nullptr && std::memcmp(e->abName, name, 64) == 0) return h;
  }
  return 0;
}

uint16_t count_up_to_blank(const uint8_t *s, uint16_t max, uint8_t blank) {
  uint16_t n = 0;
  while (n < max && s[n] != blank) ++n;
  return n;
}

void end_unused_context() {
  GCB *g = pGCB;
  if (!all_zero(g->abContextTpId, 8) && SCC_cccbs_using_tpid(g->abContextTpId) == 0) {
    SCC_context_ended(g->abContextTpId, 1, nullptr, nullptr);
  }
}

}  // namespace

int32_t SCC_inbound_get_cccb(CCCB **cccb_out, uint8_t *conversation_id_out) {
  *cccb_out = nullptr;
  if (fInitCPIC == 0) SCC_init();
  if (fInitCPIC == 0) return CM_PRODUCT_SPECIFIC_ERROR;
  if (SCC_cccb_init(conversation_id_out, cccb_out) == 0) return CM_PRODUCT_SPECIFIC_ERROR;
  (*cccb_out)->fInitialized = 0;
  return CM_OK;
}

int32_t SCC_inbound_issue_verb(CCCB *c, uint16_t trace_index, COMPLETION completion,
                               uint16_t non_blocking, uint16_t free_on_error,
                               const uint8_t *conversation_id, int32_t *return_code) {
  GCB *g = pGCB;
  int32_t rc = CM_OK;
  if (flag_get(c->usOpsOutstanding) != 0) {
    if (free_on_error) SCC_free_cccb(c);
    nba_pd_print_problem(MSG_ACCEPT_FAILED, 1, "");
    return *return_code = CM_OPERATION_NOT_ACCEPTED;
  }
  if (c->ulApplConvId != 0 || c->fInitialized != 0) {
    if (free_on_error) SCC_free_cccb(c);
    nba_pd_print_problem(MSG_ACCEPT_FAILED, 2, "");
    return *return_code = CM_PROGRAM_STATE_CHECK;
  }
  // Names given with Specify_Local_TP_Name are used as they are; otherwise
  // the default name is registered once.
  if (g->fAcceptIssued == 0 && !(g->fTpNameFromEnv == 0 && g->NumLocTPNames != 0)) {
    if (!register_default_tp_name()) rc = CM_PRODUCT_SPECIFIC_ERROR;
  }
  uint8_t *list = nullptr;
  if (rc == CM_OK && g->NumLocTPNames == 0) rc = CM_PROGRAM_STATE_CHECK;
  if (rc == CM_OK) {
    list = static_cast<uint8_t *>(
        nba_mm_alloc(static_cast<uint32_t>(g->NumLocTPNames) * 64, MEM_TYPE_CPIC, nba_blank_name, 0, 0));
    if (list == nullptr) {
      nba_pd_print_problem(MSG_RESOURCE_SHORTAGE, 10, "");
      rc = CM_PRODUCT_SPECIFIC_ERROR;
    }
  }
  if (rc != CM_OK) {
    if (free_on_error) SCC_free_cccb(c);
    return *return_code = rc;
  }
  std::memset(&c->vcb, 0, sizeof c->vcb);
  VCB_RECEIVE_ALLOCATE &v = c->vcb.receive_allocate;
  v.opcode = VERB_RECEIVE_ALLOCATE_CPIC;
  v.format = 1;
  std::memcpy(&v.conv_id, conversation_id, 4);
  uint16_t handle_count = 0;
  void *p = nullptr;
  for (uint32_t h = vtm_get_next_used(g->hLocTpNameTable, 0, &p); h != 0;
       h = vtm_get_next_used(g->hLocTpNameTable, h, &p)) {
    if (handle_count < g->NumLocTPNames && p != nullptr) {
      std::memcpy(list + 64u * handle_count, static_cast<LOC_TP_NAME *>(p)->abName, 64);
    }
    ++handle_count;
  }
  if (handle_count != g->NumLocTPNames) {
    v0_assert(SRC_CPICCAL2, __LINE__, "handle_count == pGCB->NumLocTPNames");
  }
  v.name_count = g->NumLocTPNames;
  v.name_list = list;
  // The engine picks blocking or not by the conversation's mode: a new
  // Accept_Conversation block is blocking, Accept_Incoming passes its own.
  if (non_blocking != c->usProcessingMode) v0_assert(SRC_CPICCAL2, __LINE__, "FALSE");
  CALL_RECORD call{trace_index, conversation_id, {nullptr, nullptr, nullptr, nullptr, nullptr},
                   SRC_CPICCAL2, 438};
  rc = SCC_issue_verb(c, call, completion);
  return *return_code = rc;
}

void SCC_inbound_process_verb(CCCB *c, uint32_t fAsync, uint16_t accept_conversation) {
  GCB *g = pGCB;
  const VCB_RECEIVE_ALLOCATE &v = c->vcb.receive_allocate;
  if (v.primary_rc != 0) {
    int32_t rc = CM_OK;
    SCC_map_return_codes(&rc, v.primary_rc, v.secondary_rc, v.opcode);
    c->ulReturnCode = static_cast<uint32_t>(rc);
    nba_pd_print_problem(MSG_ACCEPT_FAILED, 3, "l", static_cast<uint32_t>(rc));
    free_name_list(c);
    if (fAsync == 0) {
      // Accept_Conversation leaves no conversation behind: the engine
      // frees the block once it has finished with it.
      if (accept_conversation) flag_set(c->fFreePending, 1);
      return;
    }
    SCC_completion_end(c, fAsync);
    return;
  }
  if (!audits_suppressed()) nba_pd_print_audit(MSG_CONV_ACCEPTED, 0, "ba", 8, c->abOpConvId);
  if (!(accept_conversation == 0 && fAsync != 0)) {
    end_unused_context();
    if (v.user_id[0] != 0x40) {
      std::memcpy(g->abContextTpId, v.tp_id, 8);
      std::memcpy(g->abContextLuAlias, v.local_lu_alias, 8);
    }
  }
  std::memcpy(c->si.abTpName, v.tp_name, 64);
  std::memcpy(c->abTpId, v.tp_id, 8);
  c->hLocTpNameEntry = entry_with_name(v.tp_name);
  c->ulApplConvId = v.conv_id;
  c->ulConversationType = v.conversation_type;
  c->ulSyncLevel = v.sync_level;
  std::memcpy(c->si.abModeName, v.mode_name, 8);
  c->si.usModeNameLen = count_up_to_blank(v.mode_name, 8, 0x40);
  std::memcpy(c->si.abUserId, v.user_id, 10);
  c->si.usUserIdLen = count_up_to_blank(v.user_id, 10, 0x40);
  std::memcpy(c->si.abPartnerLuName, v.fq_partner_lu, 17);
  const uint16_t plu_len = count_up_to_blank(v.fq_partner_lu, 17, 0x40);
  c->si.usPartnerLuNameLen = plu_len;
  uint16_t dot = 0;
  for (uint16_t i = 0; i < plu_len; ++i) {
    if (v.fq_partner_lu[i] == 0x4B) dot = i;
  }
  c->si.usPartnerLuDotPos = dot;
  c->si.fPartnerLuFq = 1;
  const uint16_t alias_len = count_up_to_blank(v.local_lu_alias, 8, ' ');
  std::memset(c->abLocalLuAlias, ' ', 8);
  std::memcpy(c->abLocalLuAlias, v.local_lu_alias, alias_len);
  c->ulReturnCode = CM_OK;
  free_name_list(c);
  SCC_completion_end(c, fAsync);
}

void cmaccp_cb(void *vcb, uint32_t, uint32_t, uint32_t fAsync) {
  SCC_inbound_process_verb(static_cast<CCCB *>(vcb), fAsync, 1);
}

void cmacci_cb(void *vcb, uint32_t, uint32_t, uint32_t fAsync) {
  SCC_inbound_process_verb(static_cast<CCCB *>(vcb), fAsync, 0);
}

}  // namespace cpic

using namespace cpic;

extern "C" SNA_EXPORT void cmaccp(unsigned char *conversation_ID, CM_INT32 *return_code) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (api_trace_on()) seputrcp(1, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
  CCCB *c = nullptr;
  *return_code = SCC_inbound_get_cccb(&c, conversation_ID);
  if (*return_code == CM_OK) {
    GCB *g = pGCB;
    if (!all_zero(g->abContextTpId, 8) && SCC_cccbs_using_tpid(g->abContextTpId) == 0) {
      SCC_context_ended(g->abContextTpId, 1, nullptr, nullptr);
      std::memset(g->abContextTpId, 0, 8);
    }
    // Accept_Conversation always waits.
    SCC_inbound_issue_verb(c, 0, cmaccp_cb, 0, 1, conversation_ID, return_code);
  }
  SCC_trace_response(0, conversation_ID, return_code, conversation_ID, nullptr, nullptr, nullptr,
                     nullptr);
  vpm_unlock(token);
}

extern "C" SNA_EXPORT void cmacci(unsigned char *conversation_ID, CM_INT32 *return_code) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (api_trace_on()) seputrcp(1, 42, nullptr, conversation_ID, nullptr, nullptr, nullptr, nullptr, nullptr);
  CCCB *c = SCC_init_and_find(conversation_ID, return_code, 0);
  if (c != nullptr) {
    SCC_inbound_issue_verb(c, 42, cmacci_cb, c->usProcessingMode, 0, conversation_ID, return_code);
  }
  SCC_trace_response(42, conversation_ID, return_code, nullptr, nullptr, nullptr, nullptr, nullptr);
  vpm_unlock(token);
}
