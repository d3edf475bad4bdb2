// Allocate (CMALLC): makes sure the program is a TP known to the node,
// then issues ALLOCATE from the conversation's characteristics.
#include <cstring>

#include "counters.h"
#include "cpic.h"
#include "internal.h"

namespace cpic {

namespace {

// Issues TP_STARTED for the conversation's local LU. The block is the verb
// area unless a verb is outstanding there, whose block must stay intact.
// Returns the stored primary code; the TP id and LU alias come back in the
// outputs.
uint16_t start_tp(CCCB *c, uint32_t *secondary_out, uint8_t *tp_id_out, uint8_t *lu_alias_out) {
  VCB_AREA own;
  VCB_AREA *area = flag_get(c->usOpsOutstanding) == 0 ? &c->vcb : &own;
  std::memset(area, 0, sizeof *area);
  VCB_TP_STARTED &v = area->tp_started;
  v.opcode = VERB_TP_STARTED;
  std::memcpy(v.lu_alias, c->abLocalLuAlias, 8);
  std::memcpy(v.tp_name, pGCB->abDefaultTpName, 64);
  flag_add(c->usOpsOutstanding);
  appc_c_async_version(2, area, nullptr, 0);
  flag_sub(c->usOpsOutstanding);
  *secondary_out = v.secondary_rc;
  std::memcpy(tp_id_out, v.tp_id, 8);
  std::memcpy(lu_alias_out, v.lu_alias, 8);
  return v.primary_rc;
}

void build_allocate(CCCB *c) {
  std::memset(&c->vcb, 0, sizeof c->vcb);
  VCB_ALLOCATE &v = c->vcb.allocate;
  v.hdr.opcode = VERB_ALLOCATE;
  v.hdr.opext = static_cast<uint8_t>(c->ulConversationType);
  v.hdr.format = 1;
  std::memcpy(v.hdr.tp_id, c->abTpId, 8);
  v.zero24 = 0;
  v.sync_level = static_cast<uint8_t>(c->ulSyncLevel);
  v.return_control = static_cast<uint8_t>(c->ulReturnControl);
  if (c->si.fPartnerLuFq != 0) {
    v.partner_lu_alias[0] = 0;
    std::memcpy(v.fq_partner_lu, c->si.abPartnerLuName, 17);
  } else {
    std::memcpy(v.partner_lu_alias, c->si.abPartnerLuName, 8);
  }
  std::memcpy(v.mode_name, c->si.abModeName, 8);
  std::memcpy(v.tp_name, c->si.abTpName, 64);
  v.security = static_cast<uint8_t>(c->si.ulSecurityType);
  // Security "same" travels without a password.
  if (v.security != CM_SECURITY_SAME) std::memcpy(v.password, c->si.abPassword, 10);
  std::memcpy(v.user_id, c->si.abUserId, 10);
  v.pip_length = 0;
}

int32_t allocate(CCCB *c, const uint8_t *conversation_id) {
  GCB *g = pGCB;
  // Kept so that a refused Allocate leaves the conversation as it was.
  uint8_t old_tp_id[8], old_lu_alias[8];
  std::memcpy(old_tp_id, c->abTpId, 8);
  std::memcpy(old_lu_alias, c->abLocalLuAlias, 8);
  bool started = false;
  if (!all_zero(g->abContextTpId, 8) && std::memcmp(g->abContextLuAlias, c->abLocalLuAlias, 8) == 0) {
    std::memcpy(c->abTpId, g->abContextTpId, 8);
  } else {
    uint32_t secondary = 0;
    uint8_t tp_id[8], lu_alias[8];
    const uint16_t primary = start_tp(c, &secondary, tp_id, lu_alias);
    if (primary != 0) {
      int32_t rc = CM_OK;
      SCC_map_return_codes(&rc, primary, secondary, VERB_TP_STARTED);
      // The conversation goes with the failure, but not while a verb of it
      // is still in progress: the node writes that verb's results into the
      // block, and its completion releases it.
      flag_set(c->fFreePending, 1);
      SCC_release_if_done(c);
      return rc;
    }
    if (!audits_suppressed()) nba_pd_print_audit(MSG_TP_STARTED, 0, "ba", 8, tp_id);
    std::memcpy(c->abTpId, tp_id, 8);
    std::memcpy(c->abLocalLuAlias, lu_alias, 8);
    started = true;
  }

  int32_t refused = CM_OK;
  if (flag_get(c->usOpsOutstanding) != 0) {
    refused = CM_OPERATION_NOT_ACCEPTED;
  } else if (c->ulApplConvId != 0 || c->fInitialized == 0) {
    refused = CM_PROGRAM_STATE_CHECK;
  }
  if (refused != CM_OK) {
    if (started) SCC_context_ended(c->abTpId, 1, nullptr, nullptr);
    std::memcpy(c->abTpId, old_tp_id, 8);
    std::memcpy(c->abLocalLuAlias, old_lu_alias, 8);
    return refused;
  }

  build_allocate(c);
  c->fTpStartedByAllocate = started ? 1 : 0;
  CALL_RECORD call{1, conversation_id, {nullptr, nullptr, nullptr, nullptr, nullptr},
                   SRC_CPICCAL1, 1430};
  return SCC_issue_verb(c, call, cmallc_cb);
}

// A cancel that came while the ALLOCATE was in progress: the new
// conversation is taken down at once.
void cancel_allocated(CCCB *c, uint32_t conv_id) {
  VCB_AREA block;
  std::memset(&block, 0, sizeof block);
  block.hdr.opcode = VERB_CANCEL_CONVERSATION;
  block.hdr.opext = static_cast<uint8_t>(c->ulConversationType);
  std::memcpy(block.hdr.tp_id, c->abTpId, 8);
  block.hdr.conv_id = conv_id;
  appc_c_version(2, &block);
}

}  // namespace

void cmallc_cb(void *vcb, uint32_t, uint32_t, uint32_t fAsync) {
  CCCB *c = static_cast<CCCB *>(vcb);
  if (!SCC_completion_begin(c)) {
    if (c->fCancelPending != 0) flag_set(c->fFreePending, 1);
    const int32_t rc = static_cast<int32_t>(c->ulReturnCode);
    if (c->fTpStartedByAllocate != 0 &&
        (rc == CM_PARAMETER_ERROR || rc == CM_PROGRAM_PARAMETER_CHECK || rc == CM_UNSUCCESSFUL ||
         rc == CM_OPERATION_INCOMPLETE)) {
      SCC_context_ended(c->abTpId, 1, nullptr, nullptr);
    }
  } else {
    if (!audits_suppressed()) {
      nba_pd_print_audit(MSG_CONV_ALLOCATED, 0, "ba es", 8, c->abOpConvId, 8,
                         c->si.abSiLocalLuAlias);
    }
    if (c->fCancelPending != 0) {
      cancel_allocated(c, c->vcb.hdr.conv_id);
      flag_set(c->fFreePending, 1);
      c->ulReturnCode = CM_PRODUCT_SPECIFIC_ERROR;
      nba_pd_print_problem(MSG_ALLOCATE_CANCELLED, 0, "ba", 8, c->abOpConvId);
    } else {
      c->ulApplConvId = c->vcb.hdr.conv_id;
      c->ulReturnCode = CM_OK;
    }
  }
  c->fCancelPending = 0;
  c->fTpStartedByAllocate = 0;
  // The password went out with the attach. Only an allocation that may be
  // issued again (no session now, or a parameter to correct) still needs
  // the conversation's copy; the verb area's is rebuilt each time.
  const int32_t rc = static_cast<int32_t>(c->ulReturnCode);
  if (rc == CM_UNSUCCESSFUL || rc == CM_PARAMETER_ERROR || rc == CM_PROGRAM_PARAMETER_CHECK ||
      rc == CM_OPERATION_INCOMPLETE) {
    std::memset(c->vcb.allocate.password, 0x40, sizeof c->vcb.allocate.password);
  } else {
    SCC_forget_password(c);
  }
  SCC_completion_end(c, fAsync);
}

}  // namespace cpic

using namespace cpic;

extern "C" SNA_EXPORT void cmallc(unsigned char *conversation_ID, CM_INT32 *return_code) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (api_trace_on()) seputrcp(1, 1, nullptr, conversation_ID, nullptr, nullptr, nullptr, nullptr, nullptr);
  CCCB *c = SCC_init_and_find(conversation_ID, return_code, 1);
  if (c != nullptr) *return_code = allocate(c, conversation_ID);
  if (api_trace_on()) seputrcp(2, 1, nullptr, return_code, nullptr, nullptr, nullptr, nullptr, nullptr);
  vpm_unlock(token);
}
