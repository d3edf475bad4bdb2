// Send_Data (CMSEND): one APPC send verb built from the conversation's
// send type; send-and-deallocate-abend with log data goes as a buffer-data
// send followed by a DEALLOCATE that carries a copy of the log data.
#include <cstring>

#include "counters.h"
#include "cpic.h"
#include "internal.h"

namespace cpic {

namespace {

uint8_t appc_send_type(const CCCB *c) {
  switch (c->ulSendType) {
    case CM_SEND_AND_PREP_TO_RECEIVE:
      return c->ulPrepToReceiveType == CM_PREP_TO_RECEIVE_FLUSH ? 3 : 4;
    case CM_SEND_AND_DEALLOCATE:
      // Sync level travels as confirm: the node decides by the sync level.
      return c->ulDeallocateType != 0 ? static_cast<uint8_t>(4 + c->ulDeallocateType) : 6;
    default:
      return static_cast<uint8_t>(c->ulSendType);
  }
}

void free_log_copy(CCCB *c) {
  if (c->ulSendType != CM_SEND_AND_DEALLOCATE) {
    v0_assert(SRC_CPICCAL3, __LINE__, "cccb_ptr->ulSendType == CM_SEND_AND_DEALLOCATE");
  }
  if (c->ulDeallocateType != CM_DEALLOCATE_ABEND) {
    v0_assert(SRC_CPICCAL3, __LINE__, "cccb_ptr->ulDeallocateType == CM_DEALLOCATE_ABEND");
  }
  if (c->DeallcLogData == nullptr) {
    v0_assert(SRC_CPICCAL3, __LINE__, "cccb_ptr->DeallcLogData != NULL");
  } else {
    nba_mm_free(c->DeallcLogData);
  }
  c->DeallcLogData = nullptr;
  c->usDeallcLogDataLength = 0;
}

int32_t send(CCCB *c, const uint8_t *conversation_id, unsigned char *buffer, CM_INT32 length,
             CM_INT32 *rts_received) {
  const uint32_t ulength = static_cast<uint32_t>(length);
  if ((ulength & 0xFFFF8000u) != 0) {
    nba_pd_print_problem(MSG_LENGTH_OUT_OF_RANGE, 0, "l", ulength);
    return CM_PROGRAM_PARAMETER_CHECK;
  }
  SCC_prepare_vcb(c, VERB_SEND_DATA);
  VCB_SEND_DATA &v = c->vcb.send_data;
  v.data_length = static_cast<uint16_t>(ulength);
  v.data = buffer;
  v.send_type = appc_send_type(c);
  if (c->usLogDataLen != 0 && c->ulSendType == CM_SEND_AND_DEALLOCATE &&
      c->ulDeallocateType == CM_DEALLOCATE_ABEND) {
    v.send_type = CM_BUFFER_DATA;
    auto *copy = static_cast<uint8_t *>(
        nba_mm_alloc(c->usLogDataLen, MEM_TYPE_CPIC, nba_blank_name, 0, 0));
    if (c->pLogData == nullptr || copy == nullptr) {
      nba_pd_print_problem(MSG_RESOURCE_SHORTAGE, 0, "x x x x", 0, 0, 0, 0);
      if (copy != nullptr) nba_mm_free(copy);
      return CM_PRODUCT_SPECIFIC_ERROR;
    }
    if (c->DeallcLogData != nullptr) {
      v0_assert(SRC_CPICCAL3, __LINE__, "cccb_ptr->DeallcLogData == NULL");
    }
    c->DeallcLogData = copy;
    std::memcpy(copy, c->pLogData, c->usLogDataLen);
    c->usDeallcLogDataLength = c->usLogDataLen;
  }
  CALL_RECORD call{15, conversation_id, {rts_received, nullptr, nullptr, nullptr, nullptr},
                   SRC_CPICCAL3, 0};
  return SCC_issue_verb(c, call, cmsend_cb);
}

// The DEALLOCATE that carries the log data, after the buffer-data send
// succeeded. Returns false when the deallocate is still in progress: its
// own completion then finishes the call.
bool deallocate_with_log(CCCB *c, uint32_t fAsync) {
  if (c->DeallcLogData == nullptr) v0_assert(SRC_CPICCAL3, __LINE__, "cccb_ptr->DeallcLogData != NULL");
  if (c->ulConversationType != CM_BASIC_CONVERSATION) {
    v0_assert(SRC_CPICCAL3, __LINE__, "cccb_ptr->ulConversationType == CM_BASIC_CONVERSATION");
  }
  auto *rts = static_cast<CM_INT32 *>(c->pResult1);
  std::memset(&c->vcb, 0, sizeof c->vcb);
  VCB_DEALLOCATE &d = c->vcb.deallocate;
  d.hdr.opcode = VERB_DEALLOCATE;
  d.hdr.opext = 0;
  std::memcpy(d.hdr.tp_id, c->abTpId, 8);
  d.hdr.conv_id = c->ulApplConvId;
  d.type = 2;
  d.log_length = c->usDeallcLogDataLength;
  d.log_data = c->DeallcLogData;
  if (rts != nullptr) *rts = 0;
  uint8_t id[8];
  std::memcpy(id, c->abOpConvId, 8);
  CALL_RECORD call{15, id, {c->pResult1, nullptr, nullptr, nullptr, nullptr}, SRC_CPICCAL3, 0};
  // The send's own operation stays counted while the deallocate runs, so
  // the engine cannot release the block under this routine.
  const int32_t rc = SCC_issue_verb(c, call, cmdeal_cb);
  if (rc == CM_OPERATION_INCOMPLETE) {
    if (fAsync != 0) {
      // The send is finished; only the deallocate's completion is collected.
      counter_sub(pGCB->NumVerbsInProgress);
      flag_sub(c->usOpsOutstanding);
    } else {
      c->ulReturnCode = CM_OPERATION_INCOMPLETE;
    }
    return false;
  }
  c->ulReturnCode = static_cast<uint32_t>(rc);
  flag_set(c->fFreePending, 1);
  return true;
}

}  // namespace

void cmsend_cb(void *vcb, uint32_t, uint32_t, uint32_t fAsync) {
  CCCB *c = static_cast<CCCB *>(vcb);
  auto *rts = static_cast<CM_INT32 *>(c->pResult1);
  if (!SCC_completion_begin(c)) {
    if (c->usDeallcLogDataLength != 0) free_log_copy(c);
  } else {
    c->ulReturnCode = CM_OK;
    if (c->ulSendType == CM_SEND_AND_DEALLOCATE) {
      if (c->usDeallcLogDataLength == 0) {
        flag_set(c->fFreePending, 1);
      } else if (!deallocate_with_log(c, fAsync)) {
        return;
      }
    }
  }
  if (rts != nullptr) *rts = c->vcb.send_data.rts_received;
  SCC_completion_end(c, fAsync);
}

}  // namespace cpic

using namespace cpic;

extern "C" SNA_EXPORT void cmsend(unsigned char *conversation_ID, unsigned char *buffer,
                                  CM_INT32 *send_length, CM_INT32 *request_to_send_received,
                                  CM_INT32 *return_code) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (api_trace_on()) seputrcp(1, 15, nullptr, conversation_ID, buffer, send_length, nullptr, nullptr, nullptr);
  CCCB *c = SCC_conversation_for_verb(conversation_ID, return_code, 16);
  if (c != nullptr) *return_code = send(c, conversation_ID, buffer, *send_length, request_to_send_received);
  SCC_trace_response(15, conversation_ID, return_code, request_to_send_received, nullptr, nullptr,
                     nullptr, nullptr);
  vpm_unlock(token);
}
