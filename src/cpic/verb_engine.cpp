// Issuing APPC verbs and the common frame of their completion routines.
//
// A verb is built in the conversation's verb area. In blocking mode it is
// issued without a callback and completes before appc_c_async_version
// returns; in non-blocking mode the node may answer "in progress" and call
// the completion routine later on its own thread, where the routine takes
// no lock and touches only its conversation, the two counters and the
// wait object.
#include <cstring>

#include "counters.h"
#include "cpic.h"
#include "internal.h"

namespace cpic {

namespace {

// Primary codes (as stored) after which the node has deleted the conversation.
bool conversation_gone(uint16_t stored_primary) {
  switch (stored_primary) {
    case 0x0300: case 0x0500: case 0x0600: case 0x0700: case 0x0800:
    case 0x0900: case 0x0F00: case 0x1000: case 0x2100:
      return true;
    default:
      return false;
  }
}

}  // namespace

uint32_t completions_finishing = 0;

void SCC_prepare_vcb(CCCB *c, uint16_t opcode) {
  std::memset(&c->vcb, 0, sizeof c->vcb);
  c->vcb.hdr.opcode = opcode;
  c->vcb.hdr.opext = static_cast<uint8_t>(c->ulConversationType);
  std::memcpy(c->vcb.hdr.tp_id, c->abTpId, 8);
  c->vcb.hdr.conv_id = c->ulApplConvId;
}

void SCC_release_if_done(CCCB *c) {
  if (flag_get(c->fFreePending) != 0 && flag_get(c->usOpsOutstanding) == 0 &&
      flag_get(c->fVerbWaiting) == 0) {
    SCC_free_cccb(c);
  }
}

int32_t SCC_issue_verb(CCCB *c, const CALL_RECORD &call, COMPLETION completion) {
  GCB *g = pGCB;
  c->usOpTraceIndex = call.usTraceIndex;
  c->pOpConvId = c->abOpConvId;
  c->ulReturnCode = CM_OK;
  c->pResult1 = call.results[0];
  c->pResult2 = call.results[1];
  c->pResult3 = call.results[2];
  c->pResult4 = call.results[3];
  c->pResult5 = call.results[4];
  if (call.conversation_id != nullptr) {
    std::memcpy(c->abOpConvId, call.conversation_id, 8);
  } else {
    std::memset(c->abOpConvId, 0, 8);
  }
  flag_add(c->usOpsOutstanding);
  if (flag_get(c->fVerbWaiting) != 0) {
    // An earlier completion was never collected: this operation supersedes it.
    if (counter_get(g->NumVerbsWaiting) == 0) {
      v0_assert(call.assert_file != nullptr ? call.assert_file : SRC_CPICUTIL,
                call.assert_line != 0 ? call.assert_line : __LINE__,
                "(pGCB)->NumVerbsWaiting > 0");
    }
    flag_set(c->fVerbWaiting, 0);
    counter_sub(g->NumVerbsWaiting);
  }
  APPC_CALLBACK callback = c->usProcessingMode != 0 ? completion : nullptr;
  // Counted before issuing: the completion may run on the node's thread
  // before appc_c_async_version has returned.
  if (callback != nullptr) counter_add(g->NumVerbsInProgress);
  uint16_t result = appc_c_async_version(2, &c->vcb, callback, 1);
  if (result == APPC_VERB_IN_PROGRESS) return CM_OPERATION_INCOMPLETE;
  if (callback != nullptr) counter_sub(g->NumVerbsInProgress);
  completion(c, 0, 0, 0);
  int32_t rc = static_cast<int32_t>(c->ulReturnCode);
  flag_sub(c->usOpsOutstanding);
  SCC_release_if_done(c);
  return rc;
}

bool SCC_completion_begin(CCCB *c) {
  const uint16_t primary = c->vcb.hdr.primary_rc;
  if (primary == 0) return true;
  int32_t rc = 0;
  SCC_map_return_codes(&rc, primary, c->vcb.hdr.secondary_rc, c->vcb.hdr.opcode);
  c->ulReturnCode = static_cast<uint32_t>(rc);
  if (conversation_gone(primary)) flag_set(c->fFreePending, 1);
  return false;
}

void SCC_completion_end(CCCB *c, uint32_t fAsync) {
  if (fAsync == 0) return;
  GCB *g = pGCB;
  // Saved before the block can go away.
  const uint16_t trace_index = c->usOpTraceIndex;
  uint32_t return_code = c->ulReturnCode;
  void *results[5] = {c->pResult1, c->pResult2, c->pResult3, c->pResult4, c->pResult5};

  // Announced before the completion is published, so that a Wait that
  // finds it with the operation count still raised knows to wait for the
  // wakeup below rather than hand it out.
  counter_add(completions_finishing);
  // Counted as waiting before it stops counting as in progress: a Wait
  // that saw neither would answer 25 with the completion on its way.
  if (flag_get(c->fVerbWaiting) == 0) {
    flag_set(c->fVerbWaiting, 1);
    counter_add(g->NumVerbsWaiting);
  }
  counter_sub(g->NumVerbsInProgress);
  if (api_trace_on()) {
    seputrcp(3, trace_index, c, &return_code, results[0], results[1], results[2], results[3],
             results[4]);
  }
  flag_sub(c->usOpsOutstanding);
  // The block may be gone from here on.
  counter_sub(completions_finishing);
  vpm_wakeup(g->hWaitObject);
}

void SCC_null_callback(void *vcb, uint32_t, uint32_t, uint32_t) { nba_mm_free(vcb); }

int SCC_path_callback(void *, VPM_PATH_EVENT *event) {
  if (event->code == VPM_EVENT_NODE_LOST) {
    GCB *g = pGCB;
    fInitCPIC = 0;
    uint32_t *tables[3] = {&g->hCccbTable, &g->hSideInfoTable, &g->hLocTpNameTable};
    for (uint32_t *table : tables) {
      if (*table != 0) {
        SCC_free_handles_from_table(*table);
        vtm_table_terminate(*table);
        *table = 0;
      }
    }
    vpm_release_wait_object(g->hWaitObject);
    g->hWaitObject = 0;
    vpm_terminate_path_user(g->hPathUser);
    g->hPathUser = 0;
  }
  event->result = 0;
  return 0;
}

}  // namespace cpic
