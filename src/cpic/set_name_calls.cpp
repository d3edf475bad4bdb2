// The Set calls of the names a conversation is allocated with: partner LU
// name, mode name, TP name and local LU name. Initialize state only.
#include <cstring>

#include "cpic.h"
#include "internal.h"
#include "local_call_frame.h"

using namespace cpic;

extern "C" SNA_EXPORT void cmspln(unsigned char *conversation_ID, unsigned char *partner_LU_name,
                                  CM_INT32 *partner_LU_name_length, CM_INT32 *return_code) {
  SCC_local_call(23, 24, conversation_ID, true, partner_LU_name, partner_LU_name_length,
                 return_code, nullptr, nullptr, [&](CCCB *c) {
                   // Only the low 16 bits of the length count.
                   const uint16_t length = static_cast<uint16_t>(*partner_LU_name_length);
                   if (!SCC_in_initialize_state(c)) {
                     *return_code = CM_PROGRAM_STATE_CHECK;
                     return;
                   }
                   if (static_cast<uint16_t>(length - 1) >= 17) {
                     *return_code = CM_PROGRAM_PARAMETER_CHECK;
                     return;
                   }
                   uint16_t dot = 0;
                   while (dot < length && partner_LU_name[dot] != '.') ++dot;
                   SIDE_INFO &si = c->si;
                   si.usPartnerLuNameLen = length;
                   if (dot == length) {
                     // An LU alias: kept in ASCII, as given.
                     si.fPartnerLuFq = 0;
                     std::memset(si.abPartnerLuName, ' ', 8);
                     std::memcpy(si.abPartnerLuName, partner_LU_name, length);
                   } else {
                     si.fPartnerLuFq = 1;
                     std::memset(si.abPartnerLuName, 0x40, 17);
                     SCC_convert_string(0, 1, static_cast<int16_t>(dot), si.abPartnerLuName,
                                        partner_LU_name);
                     si.abPartnerLuName[dot] = 0x4B;
                     SCC_convert_string(0, 1, static_cast<int16_t>(length - dot - 1),
                                        si.abPartnerLuName + dot + 1, partner_LU_name + dot + 1);
                     si.usPartnerLuDotPos = dot;
                   }
                 });
}

extern "C" SNA_EXPORT void cmsmn(unsigned char *conversation_ID, unsigned char *mode_name,
                                 CM_INT32 *mode_name_length, CM_INT32 *return_code) {
  SCC_local_call(22, 23, conversation_ID, true, mode_name, mode_name_length, return_code, nullptr,
                 nullptr, [&](CCCB *c) {
                   // All 32 bits count, unlike the LU names.
                   const uint32_t length = static_cast<uint32_t>(*mode_name_length);
                   if (!SCC_in_initialize_state(c)) {
                     *return_code = CM_PROGRAM_STATE_CHECK;
                   } else if (length > 8) {
                     *return_code = CM_PROGRAM_PARAMETER_CHECK;
                   } else {
                     std::memset(c->si.abModeName, 0x40, 8);
                     SCC_convert_string(0, 1, static_cast<int16_t>(length), c->si.abModeName,
                                        mode_name);
                     c->si.usModeNameLen = static_cast<uint16_t>(length);
                   }
                 });
}

extern "C" SNA_EXPORT void cmstpn(unsigned char *conversation_ID, unsigned char *TP_name,
                                  CM_INT32 *TP_name_length, CM_INT32 *return_code) {
  SCC_local_call(29, 30, conversation_ID, true, TP_name, TP_name_length, return_code, nullptr,
                 nullptr, [&](CCCB *c) {
                   const uint32_t length = static_cast<uint32_t>(*TP_name_length);
                   if (!SCC_in_initialize_state(c)) {
                     *return_code = CM_PROGRAM_STATE_CHECK;
                   } else if (length - 1 >= 64) {
                     *return_code = CM_PROGRAM_PARAMETER_CHECK;
                   } else {
                     std::memset(c->si.abTpName, 0x40, 64);
                     SCC_convert_string(0, 2, static_cast<int16_t>(length), c->si.abTpName,
                                        TP_name);
                     c->si.ulTpNameType = 0;
                   }
                 });
}

extern "C" SNA_EXPORT void cmslln(unsigned char *conversation_ID, unsigned char *local_LU_name,
                                  CM_INT32 *local_LU_name_length, CM_INT32 *return_code) {
  // Logged under the partner LU name's tag, as it always has been.
  SCC_local_call(62, 24, conversation_ID, true, local_LU_name, local_LU_name_length, return_code,
                 nullptr, nullptr, [&](CCCB *c) {
                   const uint16_t length = static_cast<uint16_t>(*local_LU_name_length);
                   if (!SCC_in_initialize_state(c)) {
                     *return_code = CM_PROGRAM_STATE_CHECK;
                   } else if (length > 8) {
                     *return_code = CM_PROGRAM_PARAMETER_CHECK;
                   } else if (length == 0) {
                     std::memset(c->abLocalLuAlias, 0, 8);
                   } else {
                     std::memset(c->abLocalLuAlias, ' ', 8);
                     std::memcpy(c->abLocalLuAlias, local_LU_name, length);
                   }
                 });
}
