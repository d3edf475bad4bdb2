// The frame of the calls that complete locally on one conversation (the
// Set and Extract calls): lock, request trace, first-use initialisation,
// lookup, the call's own work, response trace, unlock.
#ifndef CPIC_LOCAL_CALL_FRAME_H
#define CPIC_LOCAL_CALL_FRAME_H

#include "cpic.h"
#include "internal.h"

namespace cpic {

inline CCCB *SCC_lookup_quietly(const uint8_t *conversation_id) {
  CCCB *c = nullptr;
  SCC_find_cccb(conversation_id, &c, pGCB);
  return c;
}

// Runs work(cccb) with the conversation found. request_a5/a6 are the
// call's own request arguments after the conversation ID; response_a5/a6
// its outputs. show_cccb_in_request: the Set calls show the conversation's
// current characteristics in the request record.
template <typename Work>
void SCC_local_call(uint32_t verb, uint32_t log_tag, const uint8_t *conversation_id,
                    bool show_cccb_in_request, const void *request_a5, const void *request_a6,
                    CM_INT32 *return_code, const void *response_a5, const void *response_a6,
                    Work work) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (api_trace_on()) {
    const CCCB *shown = show_cccb_in_request ? SCC_lookup_quietly(conversation_id) : nullptr;
    seputrcp(1, verb, shown, conversation_id, request_a5, request_a6, nullptr, nullptr, nullptr);
  }
  if (fInitCPIC == 0) SCC_init();
  if (fInitCPIC == 0) {
    *return_code = CM_PRODUCT_SPECIFIC_ERROR;
  } else {
    CCCB *c = SCC_find_or_report(conversation_id, return_code, log_tag);
    if (c != nullptr) work(c);
  }
  if (api_trace_on()) {
    seputrcp(2, verb, SCC_lookup_quietly(conversation_id), return_code, response_a5, response_a6,
             nullptr, nullptr, nullptr);
  }
  vpm_unlock(token);
}

// Initialize state: made by Initialize_Conversation and not yet allocated.
inline bool SCC_in_initialize_state(const CCCB *c) {
  return c->ulApplConvId == 0 && c->fInitialized != 0;
}

}  // namespace cpic

#endif
