// Flush (CMFLUS), Prepare_To_Receive (CMPTR), Request_To_Send (CMRTS),
// Send_Error (CMSERR) and Test_Request_To_Send_Received (CMTRTS): each one
// short APPC verb on an established conversation.
#include <cstring>

#include "counters.h"
#include "cpic.h"
#include "internal.h"

namespace cpic {

namespace {

void plain_completion(void *vcb, uint32_t fAsync) {
  CCCB *c = static_cast<CCCB *>(vcb);
  if (SCC_completion_begin(c)) c->ulReturnCode = CM_OK;
  SCC_completion_end(c, fAsync);
}

// The frame the four verb calls without outputs of their own share.
void simple_verb_call(unsigned char *conversation_ID, CM_INT32 *return_code, uint16_t trace_index,
                      uint32_t sub_code, uint16_t opcode, COMPLETION completion) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (api_trace_on()) {
    seputrcp(1, trace_index, nullptr, conversation_ID, nullptr, nullptr, nullptr, nullptr, nullptr);
  }
  CCCB *c = SCC_conversation_for_verb(conversation_ID, return_code, sub_code);
  if (c != nullptr) {
    SCC_prepare_vcb(c, opcode);
    if (opcode == VERB_PREPARE_TO_RECEIVE) {
      // Confirm and sync level both travel as 0: the node decides by the
      // sync level.
      c->vcb.prepare_to_receive.type = static_cast<uint8_t>(c->ulPrepToReceiveType & 1);
      c->vcb.prepare_to_receive.locks = 0;
    }
    CALL_RECORD call{trace_index, conversation_ID, {nullptr, nullptr, nullptr, nullptr, nullptr},
                     SRC_CPICCAL3, 0};
    *return_code = SCC_issue_verb(c, call, completion);
  }
  SCC_trace_response(trace_index, conversation_ID, return_code, nullptr, nullptr, nullptr, nullptr,
                     nullptr);
  vpm_unlock(token);
}

}  // namespace

void cmflus_cb(void *vcb, uint32_t, uint32_t, uint32_t fAsync) { plain_completion(vcb, fAsync); }
void cmptr_cb(void *vcb, uint32_t, uint32_t, uint32_t fAsync) { plain_completion(vcb, fAsync); }
void cmrts_cb(void *vcb, uint32_t, uint32_t, uint32_t fAsync) { plain_completion(vcb, fAsync); }

void cmserr_cb(void *vcb, uint32_t, uint32_t, uint32_t fAsync) {
  CCCB *c = static_cast<CCCB *>(vcb);
  if (SCC_completion_begin(c)) {
    c->ulReturnCode = CM_OK;
    c->usConfirmDeallocPending = 0;
    c->usConfirmPending = 0;
    // The log data goes with one Send_Error only.
    c->usLogDataLen = 0;
    if (c->pLogData != nullptr) nba_mm_free(c->pLogData);
    c->pLogData = nullptr;
    if (c->pResult1 != nullptr) {
      *static_cast<CM_INT32 *>(c->pResult1) = c->vcb.send_error.rts_received;
    }
  }
  SCC_completion_end(c, fAsync);
}

void cmtrts_cb(void *vcb, uint32_t, uint32_t, uint32_t) {
  CCCB *c = static_cast<CCCB *>(vcb);
  auto *rts = static_cast<CM_INT32 *>(c->pResult1);
  const uint16_t primary = c->vcb.hdr.primary_rc;
  if (primary == 0) {
    *rts = CM_REQ_TO_SEND_RECEIVED;
    c->ulReturnCode = CM_OK;
  } else if (primary == 0x1400) {
    // The node's way of saying no request to send arrived: not an error.
    *rts = CM_REQ_TO_SEND_NOT_RECEIVED;
    c->ulReturnCode = CM_OK;
  } else {
    SCC_completion_begin(c);
  }
}

}  // namespace cpic

using namespace cpic;

extern "C" SNA_EXPORT void cmflus(unsigned char *conversation_ID, CM_INT32 *return_code) {
  simple_verb_call(conversation_ID, return_code, 10, 12, VERB_FLUSH, cmflus_cb);
}

extern "C" SNA_EXPORT void cmptr(unsigned char *conversation_ID, CM_INT32 *return_code) {
  simple_verb_call(conversation_ID, return_code, 12, 13, VERB_PREPARE_TO_RECEIVE, cmptr_cb);
}

extern "C" SNA_EXPORT void cmrts(unsigned char *conversation_ID, CM_INT32 *return_code) {
  simple_verb_call(conversation_ID, return_code, 14, 15, VERB_REQUEST_TO_SEND, cmrts_cb);
}

extern "C" SNA_EXPORT void cmserr(unsigned char *conversation_ID,
                                  CM_INT32 *request_to_send_received, CM_INT32 *return_code) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (api_trace_on()) seputrcp(1, 16, nullptr, conversation_ID, nullptr, nullptr, nullptr, nullptr, nullptr);
  CCCB *c = SCC_conversation_for_verb(conversation_ID, return_code, 17);
  if (c != nullptr) {
    const bool basic = c->ulConversationType == CM_BASIC_CONVERSATION;
    if (basic && c->usLogDataLen != 0 && c->pLogData == nullptr) {
      nba_pd_print_problem(MSG_LOG_DATA_MISSING, 2, "");
      *return_code = CM_PRODUCT_SPECIFIC_ERROR;
    } else {
      SCC_prepare_vcb(c, VERB_SEND_ERROR);
      VCB_SEND_ERROR &v = c->vcb.send_error;
      v.direction = c->ulErrorDirection == CM_SEND_ERROR ? 1 : 0;
      if (basic) {
        v.error_type = 0;
        v.log_length = c->usLogDataLen;
        if (v.log_length != 0) v.log_data = c->pLogData;
      }
      CALL_RECORD call{16, conversation_ID,
                       {request_to_send_received, nullptr, nullptr, nullptr, nullptr},
                       SRC_CPICCAL3, 0};
      *return_code = SCC_issue_verb(c, call, cmserr_cb);
    }
  }
  SCC_trace_response(16, conversation_ID, return_code, request_to_send_received, nullptr, nullptr,
                     nullptr, nullptr);
  vpm_unlock(token);
}

extern "C" SNA_EXPORT void cmtrts(unsigned char *conversation_ID,
                                  CM_INT32 *request_to_send_received, CM_INT32 *return_code) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (api_trace_on()) seputrcp(1, 30, nullptr, conversation_ID, nullptr, nullptr, nullptr, nullptr, nullptr);
  CCCB *c = SCC_conversation_for_verb(conversation_ID, return_code, 31);
  if (c != nullptr && c->usConfirmPending != 0) {
    *return_code = CM_PROGRAM_STATE_CHECK;
  } else if (c != nullptr) {
    SCC_prepare_vcb(c, VERB_TEST_RTS);
    // Always answered at once: no operation is counted for it.
    c->usOpTraceIndex = 30;
    c->pOpConvId = c->abOpConvId;
    c->ulReturnCode = CM_OK;
    c->pResult1 = request_to_send_received;
    c->pResult2 = c->pResult3 = c->pResult4 = c->pResult5 = nullptr;
    std::memcpy(c->abOpConvId, conversation_ID, 8);
    appc_c_async_version(2, &c->vcb, nullptr, 0);
    cmtrts_cb(c, 0, 0, 0);
    *return_code = static_cast<CM_INT32>(c->ulReturnCode);
    SCC_release_if_done(c);
  }
  SCC_trace_response(30, conversation_ID, return_code, request_to_send_received, nullptr, nullptr,
                     nullptr, nullptr);
  vpm_unlock(token);
}
