// The Extract calls: one characteristic each, read from the conversation
// control block; Extract_Conversation_State asks the node once a node
// conversation exists.
#include <cstring>

#include "counters.h"
#include "cpic.h"
#include "internal.h"
#include "local_call_frame.h"

using namespace cpic;

namespace {

constexpr uint32_t MSG_BAD_CONV_STATE = 0x20030004;
constexpr uint32_t TRACE_CMECS = 5;
// Problem-record tag of an unknown conversation in Extract_Conversation_State.
constexpr uint32_t TAG_CMECS = 5;

// Every Extract call but the state's: a node conversation, or one made by
// Initialize_Conversation.
bool extract_allowed(const CCCB *c) { return c->ulApplConvId != 0 || c->fInitialized != 0; }

template <typename Work>
void extract_call(uint32_t verb, uint32_t log_tag, unsigned char *conversation_ID,
                  CM_INT32 *return_code, const void *out1, const void *out2, Work work) {
  SCC_local_call(verb, log_tag, conversation_ID, false, nullptr, nullptr, return_code, out1, out2,
                 [&](CCCB *c) {
                   if (!extract_allowed(c)) {
                     *return_code = CM_PROGRAM_STATE_CHECK;
                   } else {
                     work(c);
                   }
                 });
}

}  // namespace

extern "C" SNA_EXPORT void cmesl(unsigned char *conversation_ID, CM_INT32 *sync_level,
                                 CM_INT32 *return_code) {
  extract_call(9, 11, conversation_ID, return_code, sync_level, nullptr,
               [&](CCCB *c) { *sync_level = static_cast<CM_INT32>(c->ulSyncLevel); });
}

extern "C" SNA_EXPORT void cmect(unsigned char *conversation_ID, CM_INT32 *conversation_type,
                                 CM_INT32 *return_code) {
  extract_call(6, 8, conversation_ID, return_code, conversation_type, nullptr,
               [&](CCCB *c) { *conversation_type = static_cast<CM_INT32>(c->ulConversationType); });
}

extern "C" SNA_EXPORT void cmemn(unsigned char *conversation_ID, unsigned char *mode_name,
                                 CM_INT32 *mode_name_length, CM_INT32 *return_code) {
  extract_call(7, 9, conversation_ID, return_code, mode_name, mode_name_length, [&](CCCB *c) {
    SCC_convert_string(1, 1, static_cast<int16_t>(c->si.usModeNameLen), mode_name,
                       c->si.abModeName);
    *mode_name_length = c->si.usModeNameLen;
  });
}

extern "C" SNA_EXPORT void cmepln(unsigned char *conversation_ID, unsigned char *partner_LU_name,
                                  CM_INT32 *partner_LU_name_length, CM_INT32 *return_code) {
  extract_call(8, 10, conversation_ID, return_code, partner_LU_name, partner_LU_name_length,
               [&](CCCB *c) {
                 const SIDE_INFO &si = c->si;
                 const uint16_t length = si.usPartnerLuNameLen;
                 if (si.fPartnerLuFq != 0) {
                   const uint16_t dot = si.usPartnerLuDotPos;
                   SCC_convert_string(1, 1, static_cast<int16_t>(dot), partner_LU_name,
                                      si.abPartnerLuName);
                   partner_LU_name[dot] = '.';
                   SCC_convert_string(1, 1, static_cast<int16_t>(length - dot - 1),
                                      partner_LU_name + dot + 1, si.abPartnerLuName + dot + 1);
                 } else {
                   std::memcpy(partner_LU_name, si.abPartnerLuName, length);
                 }
                 *partner_LU_name_length = length;
               });
}

extern "C" SNA_EXPORT void cmelln(unsigned char *conversation_ID, unsigned char *local_LU_name,
                                  CM_INT32 *local_LU_name_length, CM_INT32 *return_code) {
  extract_call(60, 90, conversation_ID, return_code, local_LU_name, local_LU_name_length,
               [&](CCCB *c) {
                 std::memcpy(local_LU_name, c->abLocalLuAlias, 8);
                 local_LU_name[8] = 0;
                 // The length is that of the name without its blank padding.
                 CM_INT32 length = 0;
                 while (length < 8 && c->abLocalLuAlias[length] != ' ' &&
                        c->abLocalLuAlias[length] != 0) {
                   ++length;
                 }
                 *local_LU_name_length = length;
                 if (c->abLocalLuAlias[0] == 0) *return_code = CM_PROGRAM_STATE_CHECK;
               });
}

extern "C" SNA_EXPORT void cmetpn(unsigned char *conversation_ID, unsigned char *TP_name,
                                  CM_INT32 *TP_name_length, CM_INT32 *return_code) {
  SCC_local_call(52, 33, conversation_ID, false, nullptr, nullptr, return_code, TP_name,
                 TP_name_length, [&](CCCB *c) {
                   if (c->usOpsOutstanding != 0) {
                     *return_code = CM_OPERATION_NOT_ACCEPTED;
                   } else if (!extract_allowed(c)) {
                     *return_code = CM_PROGRAM_STATE_CHECK;
                   } else {
                     int16_t length = 0;
                     while (length < 64 && c->si.abTpName[length] != 0x40) ++length;
                     SCC_convert_string(1, 2, length, TP_name, c->si.abTpName);
                     *TP_name_length = length;
                   }
                 });
}

// ---- Extract_Conversation_State ---------------------------------------

namespace {

// The node's state byte as a CPI-C state; 0 when it has no translation.
CM_INT32 cpic_state(uint8_t node_state) {
  switch (node_state) {
    case 0: return CM_INITIALIZE_STATE;
    case 1: return CM_SEND_STATE;
    case 2: return CM_RECEIVE_STATE;
    case 3: return CM_CONFIRM_STATE;
    case 4: return CM_CONFIRM_SEND_STATE;
    case 5: return CM_CONFIRM_DEALLOCATE_STATE;
    case 9: return CM_SEND_PENDING_STATE;
    default: return 0;
  }
}

}  // namespace

namespace cpic {

// Completion of the state query: the node's state byte as a CPI-C state.
void cmecs_cb(void *vcb, uint32_t, uint32_t, uint32_t fAsync) {
  auto *c = static_cast<CCCB *>(vcb);
  const uint16_t primary = c->vcb.hdr.primary_rc;
  if (primary != 0) {
    // Not mapped: any failure of the state query is the library's problem.
    nba_pd_print_problem(MSG_GET_STATE_FAILED, 0, "x", primary);
    c->ulReturnCode = CM_PRODUCT_SPECIFIC_ERROR;
  } else {
    c->ulReturnCode = CM_OK;
  }
  const uint8_t node_state = c->vcb.get_state.state;
  const CM_INT32 state = cpic_state(node_state);
  if (state == 0) {
    nba_pd_print_problem(MSG_BAD_CONV_STATE, 0, "b", node_state);
    c->ulReturnCode = CM_PRODUCT_SPECIFIC_ERROR;
  } else if (c->pResult1 != nullptr) {
    *static_cast<CM_INT32 *>(c->pResult1) = state;
  }
  SCC_completion_end(c, fAsync);
}

}  // namespace cpic

extern "C" SNA_EXPORT void cmecs(unsigned char *conversation_ID,
                                 CM_INT32 *conversation_state, CM_INT32 *return_code) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (api_trace_on()) {
    seputrcp(1, TRACE_CMECS, nullptr, conversation_ID, nullptr, nullptr, nullptr, nullptr, nullptr);
  }
  if (fInitCPIC == 0) SCC_init();
  CCCB *c = nullptr;
  if (fInitCPIC == 0) {
    *return_code = CM_PRODUCT_SPECIFIC_ERROR;
  } else if ((c = SCC_find_or_report(conversation_ID, return_code, TAG_CMECS)) == nullptr) {
    // 24 set by the lookup
  } else if (c->usOpsOutstanding != 0) {
    *return_code = CM_OPERATION_NOT_ACCEPTED;
  } else if (c->ulApplConvId == 0) {
    *conversation_state = c->fInitialized != 0 ? CM_INITIALIZE_STATE : CM_INITIALIZE_INCOMING_STATE;
  } else {
    SCC_prepare_vcb(c, VERB_GET_STATE);
    c->usOpTraceIndex = TRACE_CMECS;
    c->pOpConvId = c->abOpConvId;
    std::memcpy(c->abOpConvId, conversation_ID, 8);
    c->ulReturnCode = CM_OK;
    c->pResult1 = conversation_state;
    c->pResult2 = c->pResult3 = c->pResult4 = c->pResult5 = nullptr;
    flag_add(c->usOpsOutstanding);
    // The query overwrites the pending-call record, so an earlier
    // completion still waiting to be collected is superseded, as by any
    // other verb; Wait would otherwise report it with the query's result.
    if (flag_get(c->fVerbWaiting) != 0) {
      if (counter_get(pGCB->NumVerbsWaiting) == 0) {
        v0_assert(SRC_CPICCAL2, __LINE__, "(pGCB)->NumVerbsWaiting > 0");
      }
      flag_set(c->fVerbWaiting, 0);
      counter_sub(pGCB->NumVerbsWaiting);
    }
    // Issued without a completion routine: the state is answered at once.
    if (appc_c_async_version(2, &c->vcb, nullptr, 1) == APPC_VERB_IN_PROGRESS) {
      *return_code = CM_OPERATION_INCOMPLETE;
    } else {
      cmecs_cb(c, 0, 0, 0);
      *return_code = static_cast<CM_INT32>(c->ulReturnCode);
      flag_sub(c->usOpsOutstanding);
      SCC_release_if_done(c);
    }
  }
  if (api_trace_on()) {
    seputrcp(2, TRACE_CMECS, SCC_lookup_quietly(conversation_ID), return_code, conversation_state,
             nullptr, nullptr, nullptr, nullptr);
  }
  vpm_unlock(token);
}
