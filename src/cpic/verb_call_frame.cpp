// The start and end every conversation call shares: the three checks made
// before a verb is built, and the response trace record.
#include "cpic.h"
#include "counters.h"
#include "internal.h"

namespace cpic {

CCCB *SCC_conversation_for_verb(const uint8_t *conversation_id, int32_t *return_code,
                                uint32_t sub_code) {
  CCCB *c = SCC_init_and_find(conversation_id, return_code, sub_code);
  if (c == nullptr) return nullptr;
  if (flag_get(c->usOpsOutstanding) != 0) {
    *return_code = CM_OPERATION_NOT_ACCEPTED;
    return nullptr;
  }
  if (c->ulApplConvId == 0) {
    *return_code = CM_PROGRAM_STATE_CHECK;
    return nullptr;
  }
  return c;
}

void SCC_trace_response(uint32_t verb, const uint8_t *conversation_id, const int32_t *return_code,
                        const void *a5, const void *a6, const void *a7, const void *a8,
                        const void *a9) {
  if (!api_trace_on()) return;
  CCCB *c = nullptr;
  SCC_find_cccb(conversation_id, &c, pGCB);
  // An operation left outstanding owns its output parameters until it
  // completes, and the runtime's thread may be writing them now: this
  // record shows none of them (the asynchronous-response record does).
  if (*return_code == CM_OPERATION_INCOMPLETE) a5 = a6 = a7 = a8 = a9 = nullptr;
  seputrcp(2, verb, c, return_code, a5, a6, a7, a8, a9);
}

}  // namespace cpic
