// The Set calls of the numeric characteristics and Set_Log_Data. Each
// completes locally: the value takes effect when a later verb is built.
#include <cstring>

#include "cpic.h"
#include "internal.h"
#include "local_call_frame.h"

using namespace cpic;

namespace {

// Values are tested unsigned, so a negative one is simply out of range.
uint32_t value_of(const CM_INT32 *v) { return static_cast<uint32_t>(*v); }

bool confirm_needs_sync_level(uint32_t value, const CCCB *c) {
  return value == 2 && c->ulSyncLevel == CM_NONE;
}

// The log data record: total length and the GDS header before the text.
void build_log_data_record(uint8_t *record, uint16_t message_length, const uint8_t *message) {
  const uint16_t total = static_cast<uint16_t>(message_length + 8);
  const uint16_t inner = static_cast<uint16_t>(total - 6);
  record[0] = static_cast<uint8_t>(total >> 8);
  record[1] = static_cast<uint8_t>(total);
  record[2] = 0x12;
  record[3] = 0xE1;
  record[4] = 0x00;
  record[5] = 0x02;
  record[6] = static_cast<uint8_t>(inner >> 8);
  record[7] = static_cast<uint8_t>(inner);
  SCC_convert_string(0, 0, static_cast<int16_t>(message_length), record + 8, message);
}

}  // namespace

extern "C" SNA_EXPORT void cmsct(unsigned char *conversation_ID, CM_INT32 *conversation_type,
                                 CM_INT32 *return_code) {
  SCC_local_call(17, 18, conversation_ID, true, conversation_type, nullptr, return_code, nullptr,
                 nullptr, [&](CCCB *c) {
                   const uint32_t v = value_of(conversation_type);
                   if (!SCC_in_initialize_state(c)) {
                     *return_code = CM_PROGRAM_STATE_CHECK;
                   } else if (v == CM_BASIC_CONVERSATION ||
                              (v == CM_MAPPED_CONVERSATION && c->ulFill != CM_FILL_BUFFER &&
                               c->usLogDataLen == 0)) {
                     c->ulConversationType = v;
                   } else {
                     *return_code = CM_PROGRAM_PARAMETER_CHECK;
                   }
                 });
}

extern "C" SNA_EXPORT void cmsdt(unsigned char *conversation_ID, CM_INT32 *deallocate_type,
                                 CM_INT32 *return_code) {
  SCC_local_call(18, 19, conversation_ID, true, deallocate_type, nullptr, return_code, nullptr,
                 nullptr, [&](CCCB *c) {
                   const uint32_t v = value_of(deallocate_type);
                   if (v > CM_DEALLOCATE_ABEND || confirm_needs_sync_level(v, c)) {
                     *return_code = CM_PROGRAM_PARAMETER_CHECK;
                   } else {
                     c->ulDeallocateType = v;
                   }
                 });
}

extern "C" SNA_EXPORT void cmsed(unsigned char *conversation_ID, CM_INT32 *error_direction,
                                 CM_INT32 *return_code) {
  SCC_local_call(19, 20, conversation_ID, true, error_direction, nullptr, return_code, nullptr,
                 nullptr, [&](CCCB *c) {
                   const uint32_t v = value_of(error_direction);
                   if (v > CM_SEND_ERROR) {
                     *return_code = CM_PROGRAM_PARAMETER_CHECK;
                   } else {
                     c->ulErrorDirection = v;
                   }
                 });
}

extern "C" SNA_EXPORT void cmsf(unsigned char *conversation_ID, CM_INT32 *fill,
                                CM_INT32 *return_code) {
  SCC_local_call(20, 21, conversation_ID, true, fill, nullptr, return_code, nullptr, nullptr,
                 [&](CCCB *c) {
                   const uint32_t v = value_of(fill);
                   if (c->ulConversationType == CM_MAPPED_CONVERSATION || v > CM_FILL_BUFFER) {
                     *return_code = CM_PROGRAM_PARAMETER_CHECK;
                   } else {
                     c->ulFill = v;
                   }
                 });
}

extern "C" SNA_EXPORT void cmsld(unsigned char *conversation_ID, unsigned char *log_data,
                                 CM_INT32 *log_data_length, CM_INT32 *return_code) {
  SCC_local_call(21, 22, conversation_ID, true, log_data, log_data_length, return_code, nullptr,
                 nullptr, [&](CCCB *c) {
                   const uint32_t length = value_of(log_data_length);
                   if (c->ulConversationType == CM_MAPPED_CONVERSATION) {
                     *return_code = CM_PROGRAM_PARAMETER_CHECK;
                   } else if (length - 1 <= 511) {
                     auto *record = static_cast<uint8_t *>(
                         nba_mm_alloc(length + 8, MEM_TYPE_CPIC, nba_blank_name, 0, 0));
                     if (record == nullptr) {
                       // The old log data stays in force.
                       nba_pd_print_problem(MSG_RESOURCE_SHORTAGE, 11, "");
                       *return_code = CM_PRODUCT_SPECIFIC_ERROR;
                       return;
                     }
                     if (c->pLogData != nullptr) nba_mm_free(c->pLogData);
                     c->pLogData = record;
                     c->usLogDataLen = static_cast<uint16_t>(length + 8);
                     build_log_data_record(record, static_cast<uint16_t>(length), log_data);
                   } else if (length == 0) {
                     c->usLogDataLen = 0;
                     if (c->pLogData != nullptr) nba_mm_free(c->pLogData);
                     c->pLogData = nullptr;
                   } else {
                     *return_code = CM_PROGRAM_PARAMETER_CHECK;
                   }
                 });
}

extern "C" SNA_EXPORT void cmsptr(unsigned char *conversation_ID,
                                  CM_INT32 *prepare_to_receive_type, CM_INT32 *return_code) {
  SCC_local_call(24, 25, conversation_ID, true, prepare_to_receive_type, nullptr, return_code,
                 nullptr, nullptr, [&](CCCB *c) {
                   const uint32_t v = value_of(prepare_to_receive_type);
                   if (v > CM_PREP_TO_RECEIVE_CONFIRM || confirm_needs_sync_level(v, c)) {
                     *return_code = CM_PROGRAM_PARAMETER_CHECK;
                   } else {
                     c->ulPrepToReceiveType = v;
                   }
                 });
}

extern "C" SNA_EXPORT void cmsrt(unsigned char *conversation_ID, CM_INT32 *receive_type,
                                 CM_INT32 *return_code) {
  SCC_local_call(25, 26, conversation_ID, true, receive_type, nullptr, return_code, nullptr,
                 nullptr, [&](CCCB *c) {
                   const uint32_t v = value_of(receive_type);
                   if (v > CM_RECEIVE_IMMEDIATE) {
                     *return_code = CM_PROGRAM_PARAMETER_CHECK;
                   } else {
                     c->ulReceiveType = v;
                   }
                 });
}

extern "C" SNA_EXPORT void cmsrc(unsigned char *conversation_ID, CM_INT32 *return_control,
                                 CM_INT32 *return_code) {
  SCC_local_call(26, 27, conversation_ID, true, return_control, nullptr, return_code, nullptr,
                 nullptr, [&](CCCB *c) {
                   const uint32_t v = value_of(return_control);
                   if (!SCC_in_initialize_state(c)) {
                     *return_code = CM_PROGRAM_STATE_CHECK;
                   } else if (v > CM_IMMEDIATE) {
                     *return_code = CM_PROGRAM_PARAMETER_CHECK;
                   } else {
                     c->ulReturnControl = v;
                   }
                 });
}

extern "C" SNA_EXPORT void cmsst(unsigned char *conversation_ID, CM_INT32 *send_type,
                                 CM_INT32 *return_code) {
  SCC_local_call(27, 28, conversation_ID, true, send_type, nullptr, return_code, nullptr, nullptr,
                 [&](CCCB *c) {
                   const uint32_t v = value_of(send_type);
                   if (v > CM_SEND_AND_DEALLOCATE || confirm_needs_sync_level(v, c)) {
                     *return_code = CM_PROGRAM_PARAMETER_CHECK;
                   } else {
                     c->ulSendType = v;
                   }
                 });
}

extern "C" SNA_EXPORT void cmssl(unsigned char *conversation_ID, CM_INT32 *sync_level,
                                 CM_INT32 *return_code) {
  SCC_local_call(28, 29, conversation_ID, true, sync_level, nullptr, return_code, nullptr,
                 nullptr, [&](CCCB *c) {
                   const uint32_t v = value_of(sync_level);
                   // None would leave a confirm type standing that needs it.
                   const bool confirm_type_set = c->ulSendType == CM_SEND_AND_CONFIRM ||
                                                 c->ulPrepToReceiveType == CM_PREP_TO_RECEIVE_CONFIRM ||
                                                 c->ulDeallocateType == CM_DEALLOCATE_CONFIRM;
                   if (!SCC_in_initialize_state(c)) {
                     *return_code = CM_PROGRAM_STATE_CHECK;
                   } else if (v == CM_CONFIRM || (v == CM_NONE && !confirm_type_set)) {
                     c->ulSyncLevel = v;
                   } else {
                     *return_code = CM_PROGRAM_PARAMETER_CHECK;
                   }
                 });
}
