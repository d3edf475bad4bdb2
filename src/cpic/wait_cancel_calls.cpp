// Wait_For_Conversation (CMWAIT), the non-waiting check (CMCHCK) and
// Cancel_Conversation (CMCANC): collecting and ending non-blocking
// operations.
#include <cstring>

#include "counters.h"
#include "cpic.h"
#include "internal.h"

namespace cpic {

namespace {

// The first conversation in handle order whose completion waits. With
// only_finished, one whose operation count is still raised is passed
// over: its completion routine has published the completion but not yet
// finished on the node's thread, or a Cancel on another thread still holds
// the conversation.
CCCB *first_waiting(bool assert_each, bool only_finished = false) {
  GCB *g = pGCB;
  void *p = nullptr;
  for (uint32_t h = vtm_get_next_used(g->hCccbTable, 0, &p); h != 0;
       h = vtm_get_next_used(g->hCccbTable, h, &p)) {
    auto *c = static_cast<CCCB *>(p);
    if (c == nullptr) {
      if (assert_each) v0_assert(SRC_CPICCAL1, __LINE__, "cccb_ptr != NULL");
      continue;
    }
    if (flag_get(c->fVerbWaiting) == 0) continue;
    if (only_finished && flag_get(c->usOpsOutstanding) != 0) continue;
    return c;
  }
  return nullptr;
}

int32_t wait_for_conversation(unsigned char *conversation_id, CM_INT32 *conversation_rc) {
  GCB *g = pGCB;
  if (counter_get(g->NumVerbsWaiting) == 0 && counter_get(g->NumVerbsInProgress) == 0) {
    return CM_PROGRAM_STATE_CHECK;
  }
  CCCB *c = nullptr;
  for (;;) {
    // The library lock stays held: completion routines do not take it.
    while (counter_get(g->NumVerbsWaiting) == 0 && counter_get(g->NumVerbsInProgress) != 0) {
      vpm_sleep(g->hWaitObject, -1);
    }
    if (counter_get(g->NumVerbsWaiting) == 0) return CM_PROGRAM_STATE_CHECK;
    c = first_waiting(true, true);
    if (c != nullptr) break;
    if (first_waiting(false) == nullptr) {
      v0_assert(SRC_CPICCAL1, __LINE__, "tm_handle != NB_NULL_HANDLE");
      return CM_PROGRAM_STATE_CHECK;
    }
    // Every waiting completion's conversation still counts an operation.
    // Handing one out now would let the next call on it fail with 37, and
    // a conversation that ended would never be released. While a routine
    // is finishing or a Cancel sleeps, the wakeup that ends it follows;
    // otherwise nothing will lower the count (a Cancel that got no wait
    // object leaves it raised) and waiting would hang.
    if (counter_get(completions_finishing) != 0 || counter_get(cancels_sleeping) != 0) {
      // Without its wait object (the node went away) there is no wakeup to
      // sleep for: take what is there rather than spin.
      if (vpm_sleep(g->hWaitObject, -1) == 0) continue;
    }
    // A routine may have finished between the scan and the counts.
    c = first_waiting(false, true);
    if (c == nullptr) c = first_waiting(false);
    if (c != nullptr) break;
    return CM_PROGRAM_STATE_CHECK;
  }
  std::memcpy(conversation_id, c->pOpConvId, 8);
  *conversation_rc = static_cast<CM_INT32>(c->ulReturnCode);
  counter_sub(g->NumVerbsWaiting);
  flag_set(c->fVerbWaiting, 0);
  if (flag_get(c->fFreePending) != 0 && flag_get(c->usOpsOutstanding) == 0) SCC_free_cccb(c);
  return CM_OK;
}

int32_t check_for_conversation(unsigned char *conversation_id) {
  GCB *g = pGCB;
  if (counter_get(g->NumVerbsWaiting) == 0 && counter_get(g->NumVerbsInProgress) == 0) {
    return CM_PROGRAM_STATE_CHECK;
  }
  if (counter_get(g->NumVerbsWaiting) == 0) return CM_UNSUCCESSFUL;
  CCCB *c = first_waiting(false);
  if (c == nullptr) {
    v0_assert(SRC_CPICCAL1, __LINE__, "FALSE");
    return CM_UNSUCCESSFUL;
  }
  std::memcpy(conversation_id, c->pOpConvId, 8);
  return CM_OK;
}

int32_t cancel(CCCB *c, const uint8_t *conversation_id) {
  const bool outstanding = flag_get(c->usOpsOutstanding) != 0;
  const uint16_t opcode = c->vcb.hdr.opcode;
  if (c->ulApplConvId == 0 && (c->fInitialized != 0 || !outstanding) &&
      opcode != VERB_TP_STARTED && opcode != VERB_ALLOCATE) {
    if (!outstanding) {
      SCC_free_cccb(c);
    } else {
      v0_assert(SRC_CPICCAL1, __LINE__, "cccb_ptr->vcb.alloc.opcode == NAP_B_ALLOCATE");
      c->fCancelPending = 1;
    }
    return CM_OK;
  }
  VCB_AREA block;
  std::memset(&block, 0, sizeof block);
  flag_add(c->usOpsOutstanding);
  flag_set(c->fFreePending, 1);
  const uint32_t wait_object = vpm_allocate_wait_object();
  if (wait_object == 0) {
    nba_pd_print_problem(MSG_RESOURCE_SHORTAGE, 18, "");
    return CM_PRODUCT_SPECIFIC_ERROR;
  }
  block.hdr.opcode = VERB_CANCEL_CONVERSATION;
  block.hdr.opext = static_cast<uint8_t>(c->ulConversationType);
  if (c->ulApplConvId != 0) {
    std::memcpy(block.hdr.tp_id, c->abTpId, 8);
    block.hdr.conv_id = c->ulApplConvId;
  } else if (c->fInitialized == 0 && outstanding) {
    if (opcode != VERB_RECEIVE_ALLOCATE_CPIC) {
      v0_assert(SRC_CPICCAL1, __LINE__,
                "cccb_ptr->vcb.rcvallcp.rcv_alloc.opcode == NAP_RECEIVE_ALLOCATE_CPIC");
    }
    // The correlator Accept_Incoming gave its receive-allocate.
    std::memcpy(&block.hdr.conv_id, conversation_id, 4);
  } else if (opcode != VERB_TP_STARTED) {
    std::memcpy(block.hdr.tp_id, c->abTpId, 8);
    if (opcode != VERB_ALLOCATE) {
      v0_assert(SRC_CPICCAL1, __LINE__, "cccb_ptr->vcb.mcalloc.opcode == NAP_M_ALLOCATE");
    }
  }
  counter_add(cancels_sleeping);
  if (appc_c_async_version(2, &block, cmcanc_cb, wait_object) == APPC_VERB_IN_PROGRESS) {
    if (vpm_sleep(wait_object, -1) == 0) vpm_release_wait_object(wait_object);
  }
  // A wait object of a cancel that finished at once is not released.
  int32_t rc = CM_OK;
  if (block.hdr.primary_rc != 0) {
    SCC_map_return_codes(&rc, block.hdr.primary_rc, block.hdr.secondary_rc,
                         VERB_CANCEL_CONVERSATION);
  }
  flag_sub(c->usOpsOutstanding);
  flag_set(c->fFreePending, 1);
  counter_sub(cancels_sleeping);
  SCC_release_if_done(c);
  // A Wait on another thread may be holding back a completion until this
  // cancel lets go of its conversation, or until no cancel sleeps.
  vpm_wakeup(pGCB->hWaitObject);
  return rc;
}

}  // namespace

uint32_t cancels_sleeping = 0;

void cmcanc_cb(void *, uint32_t, uint32_t, uint32_t wait_object) { vpm_wakeup(wait_object); }

}  // namespace cpic

using namespace cpic;

extern "C" SNA_EXPORT void cmwait(unsigned char *conversation_ID, CM_INT32 *conversation_return_code,
                                  CM_INT32 *return_code) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (api_trace_on()) seputrcp(1, 43, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
  if (fInitCPIC == 0) SCC_init();
  *return_code = wait_for_conversation(conversation_ID, conversation_return_code);
  if (api_trace_on()) {
    seputrcp(2, 43, nullptr, return_code, conversation_ID, conversation_return_code, nullptr,
             nullptr, nullptr);
  }
  vpm_unlock(token);
}

extern "C" SNA_EXPORT void cmchck(unsigned char *conversation_ID, CM_INT32 *return_code) {
  vpm_asm_event_fd();
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (api_trace_on()) seputrcp(1, 45, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
  if (fInitCPIC == 0) SCC_init();
  *return_code = check_for_conversation(conversation_ID);
  if (api_trace_on()) {
    seputrcp(2, 45, nullptr, return_code, conversation_ID, nullptr, nullptr, nullptr, nullptr);
  }
  vpm_unlock(token);
}

extern "C" SNA_EXPORT void cmcanc(unsigned char *conversation_ID, CM_INT32 *return_code) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (api_trace_on()) seputrcp(1, 44, nullptr, conversation_ID, nullptr, nullptr, nullptr, nullptr, nullptr);
  CCCB *c = SCC_init_and_find(conversation_ID, return_code, 2);
  if (c != nullptr) *return_code = cancel(c, conversation_ID);
  SCC_trace_response(44, conversation_ID, return_code, nullptr, nullptr, nullptr, nullptr, nullptr);
  vpm_unlock(token);
}
