// Confirm (CMCFM) and Confirmed (CMCFMD): asking the partner to confirm,
// and answering the partner's request.
#include "counters.h"
#include "cpic.h"
#include "internal.h"

namespace cpic {

void cmcfm_cb(void *vcb, uint32_t, uint32_t, uint32_t fAsync) {
  CCCB *c = static_cast<CCCB *>(vcb);
  if (SCC_completion_begin(c)) c->ulReturnCode = CM_OK;
  // Written on failure too, from whatever the block holds.
  if (c->pResult1 != nullptr) *static_cast<CM_INT32 *>(c->pResult1) = c->vcb.confirm.rts_received;
  SCC_completion_end(c, fAsync);
}

void cmcfmd_cb(void *vcb, uint32_t, uint32_t, uint32_t fAsync) {
  CCCB *c = static_cast<CCCB *>(vcb);
  if (SCC_completion_begin(c)) {
    c->ulReturnCode = CM_OK;
    c->usConfirmPending = 0;
    // Confirming a deallocation ends the conversation.
    if (c->usConfirmDeallocPending != 0) flag_set(c->fFreePending, 1);
  }
  SCC_completion_end(c, fAsync);
}

}  // namespace cpic

using namespace cpic;

extern "C" SNA_EXPORT void cmcfm(unsigned char *conversation_ID,
                                 CM_INT32 *request_to_send_received, CM_INT32 *return_code) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (api_trace_on()) seputrcp(1, 2, nullptr, conversation_ID, nullptr, nullptr, nullptr, nullptr, nullptr);
  CCCB *c = SCC_conversation_for_verb(conversation_ID, return_code, 3);
  if (c != nullptr) {
    SCC_prepare_vcb(c, VERB_CONFIRM);
    CALL_RECORD call{2, conversation_ID,
                     {request_to_send_received, nullptr, nullptr, nullptr, nullptr},
                     SRC_CPICCAL1, 2129};
    *return_code = SCC_issue_verb(c, call, cmcfm_cb);
  }
  SCC_trace_response(2, conversation_ID, return_code, request_to_send_received, nullptr, nullptr,
                     nullptr, nullptr);
  vpm_unlock(token);
}

extern "C" SNA_EXPORT void cmcfmd(unsigned char *conversation_ID, CM_INT32 *return_code) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (api_trace_on()) seputrcp(1, 3, nullptr, conversation_ID, nullptr, nullptr, nullptr, nullptr, nullptr);
  CCCB *c = SCC_conversation_for_verb(conversation_ID, return_code, 4);
  if (c != nullptr) {
    SCC_prepare_vcb(c, VERB_CONFIRMED);
    CALL_RECORD call{3, conversation_ID, {nullptr, nullptr, nullptr, nullptr, nullptr},
                     SRC_CPICCAL1, 2386};
    *return_code = SCC_issue_verb(c, call, cmcfmd_cb);
  }
  SCC_trace_response(3, conversation_ID, return_code, nullptr, nullptr, nullptr, nullptr, nullptr);
  vpm_unlock(token);
}
