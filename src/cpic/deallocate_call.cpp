// Deallocate (CMDEAL): the APPC DEALLOCATE verb from the conversation's
// deallocate type and log data; also the way to discard a conversation
// that was initialised and never allocated.
#include <cstring>

#include "counters.h"
#include "cpic.h"
#include "internal.h"

namespace cpic {

namespace {

int32_t deallocate(CCCB *c, const uint8_t *conversation_id) {
  if (flag_get(c->usOpsOutstanding) != 0) return CM_OPERATION_NOT_ACCEPTED;
  if (c->ulApplConvId != 0) {
    SCC_prepare_vcb(c, VERB_DEALLOCATE);
    VCB_DEALLOCATE &v = c->vcb.deallocate;
    const bool abend = c->ulDeallocateType == CM_DEALLOCATE_ABEND;
    if (c->ulConversationType == CM_MAPPED_CONVERSATION) {
      v.type = abend ? 5 : static_cast<uint8_t>(c->ulDeallocateType & 1);
    } else if (abend) {
      v.type = 2;
      if (c->usLogDataLen != 0 && c->pLogData == nullptr) {
        nba_pd_print_problem(MSG_LOG_DATA_MISSING, 1, "");
        return CM_PRODUCT_SPECIFIC_ERROR;
      }
      v.log_length = c->usLogDataLen;
      if (v.log_length != 0) v.log_data = c->pLogData;
    } else {
      // Sync level and confirm both travel as 0: the node decides by the
      // conversation's sync level.
      v.type = static_cast<uint8_t>(c->ulDeallocateType & 1);
    }
    CALL_RECORD call{4, conversation_id, {nullptr, nullptr, nullptr, nullptr, nullptr},
                     SRC_CPICCAL1, 2754};
    return SCC_issue_verb(c, call, cmdeal_cb);
  }
  if (c->fInitialized != 0 && c->ulDeallocateType == CM_DEALLOCATE_ABEND) {
    flag_set(c->fFreePending, 1);
    SCC_release_if_done(c);
    return CM_OK;
  }
  return CM_PROGRAM_STATE_CHECK;
}

}  // namespace

void cmdeal_cb(void *vcb, uint32_t, uint32_t, uint32_t fAsync) {
  CCCB *c = static_cast<CCCB *>(vcb);
  if (!SCC_completion_begin(c)) {
    if (c->usDeallcLogDataLength != 0) {
      if (c->ulSendType != CM_SEND_AND_DEALLOCATE) {
        v0_assert(SRC_CPICCAL1, __LINE__, "cccb_ptr->ulSendType == CM_SEND_AND_DEALLOCATE");
      }
      if (c->ulDeallocateType != CM_DEALLOCATE_ABEND) {
        v0_assert(SRC_CPICCAL1, __LINE__, "cccb_ptr->ulDeallocateType == CM_DEALLOCATE_ABEND");
      }
      if (c->DeallcLogData == nullptr) {
        v0_assert(SRC_CPICCAL1, __LINE__, "cccb_ptr->DeallcLogData != NULL");
      } else {
        nba_mm_free(c->DeallcLogData);
      }
      c->DeallcLogData = nullptr;
      c->usDeallcLogDataLength = 0;
    }
  } else {
    if (!audits_suppressed()) {
      nba_pd_print_audit(MSG_CONV_DEALLOCATED, 0, "ba es", 8, c->abOpConvId, 8,
                         c->si.abSiLocalLuAlias);
    }
    // Send_Data's deallocate with log data: Send_Data finishes it.
    if (fAsync == 0 && c->usDeallcLogDataLength != 0) return;
    flag_set(c->fFreePending, 1);
    c->ulReturnCode = CM_OK;
  }
  SCC_completion_end(c, fAsync);
}

}  // namespace cpic

using namespace cpic;

extern "C" SNA_EXPORT void cmdeal(unsigned char *conversation_ID, CM_INT32 *return_code) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (api_trace_on()) seputrcp(1, 4, nullptr, conversation_ID, nullptr, nullptr, nullptr, nullptr, nullptr);
  CCCB *c = SCC_init_and_find(conversation_ID, return_code, 5);
  if (c != nullptr) *return_code = deallocate(c, conversation_ID);
  SCC_trace_response(4, conversation_ID, return_code, nullptr, nullptr, nullptr, nullptr, nullptr);
  vpm_unlock(token);
}
