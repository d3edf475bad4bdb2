// Receive (CMRCV): one APPC receive verb, and the what-received value the
// node returns turned into CPI-C data received and status received.
#include <cstring>

#include "counters.h"
#include "cpic.h"
#include "internal.h"

namespace cpic {

namespace {

int32_t receive(CCCB *c, const uint8_t *conversation_id, unsigned char *buffer, CM_INT32 length,
                CM_INT32 *data_received, CM_INT32 *received_length, CM_INT32 *status_received,
                CM_INT32 *rts_received) {
  const uint32_t ulength = static_cast<uint32_t>(length);
  if ((ulength & 0xFFFF8000u) != 0) {
    nba_pd_print_problem(MSG_LENGTH_OUT_OF_RANGE, 0, "l", ulength);
    return CM_PROGRAM_PARAMETER_CHECK;
  }
  SCC_prepare_vcb(c, c->ulReceiveType == CM_RECEIVE_AND_WAIT ? VERB_RECEIVE_AND_WAIT
                                                             : VERB_RECEIVE_IMMEDIATELY);
  VCB_RECEIVE &v = c->vcb.receive;
  v.return_status_with_data = 1;
  v.fill = static_cast<uint8_t>(static_cast<uint8_t>(c->ulFill) ^ 1);
  v.max_length = static_cast<uint16_t>(ulength);
  v.buffer = buffer;
  CALL_RECORD call{13, conversation_id,
                   {buffer, data_received, received_length, status_received, rts_received},
                   SRC_CPICCAL3, 0};
  return SCC_issue_verb(c, call, cmrcv_cb);
}

}  // namespace

void cmrcv_cb(void *vcb, uint32_t, uint32_t, uint32_t fAsync) {
  CCCB *c = static_cast<CCCB *>(vcb);
  if (SCC_completion_begin(c)) c->ulReturnCode = CM_OK;
  const VCB_RECEIVE &v = c->vcb.receive;
  const uint16_t what = v.what_received;
  CM_INT32 data = 0;
  CM_INT32 status = 0;
  const uint8_t kind = static_cast<uint8_t>(what >> 8);
  const uint8_t stat = static_cast<uint8_t>(what & 0xFF);
  if ((kind <= 2 && stat <= 4) || what == 0x0400) {
    data = kind == 4 ? CM_INCOMPLETE_DATA_RECEIVED : kind;
    status = stat;
    if (stat == CM_CONFIRM_DEALLOC_RECEIVED) c->usConfirmDeallocPending = 1;
    if (stat >= CM_CONFIRM_RECEIVED) c->usConfirmPending = 1;
  } else {
    v0_assert(SRC_CPICCAL3, __LINE__, "FALSE");
    v0_assert(SRC_CPICCAL3, __LINE__, "FALSE");
  }
  if (c->pResult2 != nullptr) *static_cast<CM_INT32 *>(c->pResult2) = data;
  if (c->pResult4 != nullptr) *static_cast<CM_INT32 *>(c->pResult4) = status;
  if (c->pResult3 != nullptr) *static_cast<CM_INT32 *>(c->pResult3) = v.data_length;
  if (c->pResult5 != nullptr) *static_cast<CM_INT32 *>(c->pResult5) = v.rts_received;
  SCC_completion_end(c, fAsync);
}

}  // namespace cpic

using namespace cpic;

extern "C" SNA_EXPORT void cmrcv(unsigned char *conversation_ID, unsigned char *buffer,
                                 CM_INT32 *requested_length, CM_INT32 *data_received,
                                 CM_INT32 *received_length, CM_INT32 *status_received,
                                 CM_INT32 *request_to_send_received, CM_INT32 *return_code) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  *received_length = 0;
  if (api_trace_on()) {
    seputrcp(1, 13, nullptr, conversation_ID, buffer, requested_length, nullptr, nullptr, nullptr);
  }
  CCCB *c = SCC_conversation_for_verb(conversation_ID, return_code, 14);
  if (c != nullptr) {
    *return_code = receive(c, conversation_ID, buffer, *requested_length, data_received,
                           received_length, status_received, request_to_send_received);
  }
  SCC_trace_response(13, conversation_ID, return_code, buffer, data_received, received_length,
                     status_received, request_to_send_received);
  vpm_unlock(token);
}
