// Set_Processing_Mode (CMSPM): blocking or non-blocking completion of the
// conversation's later calls.
#include "counters.h"
#include "cpic.h"
#include "internal.h"

using namespace cpic;

extern "C" SNA_EXPORT void cmspm(unsigned char *conversation_ID, CM_INT32 *processing_mode,
                                 CM_INT32 *return_code) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (fInitCPIC == 0) SCC_init();
  CCCB *c = nullptr;
  SCC_find_cccb(conversation_ID, &c, pGCB);
  if (api_trace_on()) seputrcp(1, 40, c, conversation_ID, processing_mode, nullptr, nullptr, nullptr, nullptr);
  c = SCC_init_and_find(conversation_ID, return_code, 32);
  if (c != nullptr) {
    if (flag_get(c->usOpsOutstanding) != 0) {
      *return_code = CM_OPERATION_NOT_ACCEPTED;
    } else if (static_cast<uint32_t>(*processing_mode) > CM_NON_BLOCKING) {
      *return_code = CM_PROGRAM_PARAMETER_CHECK;
    } else {
      c->usProcessingMode = static_cast<uint16_t>(*processing_mode);
    }
  }
  SCC_trace_response(40, conversation_ID, return_code, nullptr, nullptr, nullptr, nullptr, nullptr);
  vpm_unlock(token);
}
