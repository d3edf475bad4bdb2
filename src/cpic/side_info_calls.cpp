// Set, Extract and Delete_CPIC_Side_Information: the application's 124-byte
// entry translated to and from the store's record, for this process only.
#include <cstring>

#include "cpic.h"
#include "internal.h"

using namespace cpic;

namespace {

constexpr CM_INT32 ENTRY_LENGTH = 124;

// Characters before the first blank, at most max.
uint16_t count_to_blank(const uint8_t *text, uint16_t max) {
  uint16_t n = 0;
  while (n < max && text[n] != ' ') ++n;
  return n;
}

bool valid_for_store(const XC_SIDE_INFO_ENTRY *e) {
  const uint32_t security = static_cast<uint32_t>(e->conversation_security_type);
  return e->sym_dest_name[0] != ' ' && static_cast<uint32_t>(e->TP_name_type) <= 1 &&
         (security <= CM_SECURITY_PROGRAM || security == CM_SECURITY_PROGRAM_STRONG);
}

void entry_to_record(const XC_SIDE_INFO_ENTRY *e, SIDE_INFO *si) {
  std::memset(si, 0, sizeof *si);
  std::memcpy(si->abSymDestName, e->sym_dest_name, 8);

  uint16_t length = 0;
  while (length < 17 && e->partner_LU_name[length] != ' ') {
    if (e->partner_LU_name[length] == '.') {
      si->fPartnerLuFq = 1;
      si->usPartnerLuDotPos = length;  // the last period wins
    }
    ++length;
  }
  si->usPartnerLuNameLen = length;
  if (si->fPartnerLuFq != 0) {
    const uint16_t dot = si->usPartnerLuDotPos;
    SCC_convert_string(0, 1, static_cast<int16_t>(dot), si->abPartnerLuName, e->partner_LU_name);
    si->abPartnerLuName[dot] = 0x4B;
    SCC_convert_string(0, 1, static_cast<int16_t>(16 - dot), si->abPartnerLuName + dot + 1,
                       e->partner_LU_name + dot + 1);
  } else {
    // An LU alias travels as given, with the reserved bytes behind it.
    std::memcpy(si->abPartnerLuName, e->partner_LU_name, 20);
  }

  si->ulTpNameType = static_cast<uint32_t>(e->TP_name_type);
  if (e->TP_name_type == XC_SNA_SERVICE_TP) {
    si->abTpName[0] = e->TP_name[0];  // a raw byte, not a character
    SCC_convert_string(0, 2, 63, si->abTpName + 1, e->TP_name + 1);
  } else {
    SCC_convert_string(0, 2, 64, si->abTpName, e->TP_name);
  }

  si->usModeNameLen = count_to_blank(e->mode_name, 8);
  SCC_convert_string(0, 1, 8, si->abModeName, e->mode_name);

  si->ulSecurityType = static_cast<uint32_t>(e->conversation_security_type);
  si->usUserIdLen = count_to_blank(e->security_user_ID, 8);
  SCC_convert_string(0, 0, 8, si->abUserId, e->security_user_ID);
  std::memset(si->abUserId + 8, 0x40, 2);
  SCC_convert_string(0, 0, 8, si->abPassword, e->security_password);
  std::memset(si->abPassword + 8, 0x40, 2);
}

void record_to_entry(const SIDE_INFO *si, XC_SIDE_INFO_ENTRY *e) {
  std::memcpy(e->sym_dest_name, si->abSymDestName, 8);
  if (si->fPartnerLuFq == 0) {
    std::memcpy(e->partner_LU_name, si->abPartnerLuName, 8);
    std::memset(e->partner_LU_name + 8, ' ', 9);
  } else {
    SCC_convert_string(1, 1, 17, e->partner_LU_name, si->abPartnerLuName);
  }
  e->TP_name_type = static_cast<CM_INT32>(si->ulTpNameType);
  if (si->ulTpNameType == XC_SNA_SERVICE_TP) {
    // Converted back with the general table, unlike Set: kept as it is.
    e->TP_name[0] = si->abTpName[0];
    SCC_convert_string(1, 0, 63, e->TP_name + 1, si->abTpName + 1);
  } else {
    SCC_convert_string(1, 2, 64, e->TP_name, si->abTpName);
  }
  SCC_convert_string(1, 1, 8, e->mode_name, si->abModeName);
  e->conversation_security_type = static_cast<CM_INT32>(si->ulSecurityType);
  if (si->ulSecurityType == CM_SECURITY_PROGRAM ||
      si->ulSecurityType == CM_SECURITY_PROGRAM_STRONG) {
    SCC_convert_string(1, 0, 8, e->security_user_ID, si->abUserId);
    std::memset(e->security_password, 0, 8);  // the password is never returned
  }
}

}  // namespace

extern "C" SNA_EXPORT void xcmssi(CM_INT32 *key, XC_SIDE_INFO_ENTRY *side_info_entry,
                                  CM_INT32 *side_info_entry_length, CM_INT32 *return_code) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (api_trace_on()) {
    seputrcp(1, 38, nullptr, key, side_info_entry, side_info_entry_length, nullptr, nullptr, nullptr);
  }
  if (*side_info_entry_length != ENTRY_LENGTH) {
    nba_pd_print_problem(MSG_BAD_SIDE_INFO_LENGTH, 1, "l", *side_info_entry_length);
    *return_code = CM_PROGRAM_PARAMETER_CHECK;
  } else if (!valid_for_store(side_info_entry)) {
    *return_code = CM_PROGRAM_PARAMETER_CHECK;
  } else {
    SIDE_INFO record;
    entry_to_record(side_info_entry, &record);
    *return_code = SCD_main(3, &record);
  }
  if (api_trace_on()) seputrcp(2, 38, nullptr, return_code, nullptr, nullptr, nullptr, nullptr, nullptr);
  vpm_unlock(token);
}

extern "C" SNA_EXPORT void xcmesi(CM_INT32 *key, unsigned char *sym_dest_name,
                                  XC_SIDE_INFO_ENTRY *side_info_entry,
                                  CM_INT32 *side_info_entry_length, CM_INT32 *return_code) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (api_trace_on()) {
    seputrcp(1, 34, nullptr, key, sym_dest_name, side_info_entry, side_info_entry_length, nullptr,
             nullptr);
  }
  if (*side_info_entry_length != ENTRY_LENGTH) {
    nba_pd_print_problem(MSG_BAD_SIDE_INFO_LENGTH, 0, "l", *side_info_entry_length);
    *return_code = CM_PROGRAM_PARAMETER_CHECK;
  } else {
    SIDE_INFO record;
    std::memset(&record, 0, sizeof record);
    std::memcpy(record.abSymDestName, sym_dest_name, 8);
    *return_code = SCD_main(1, &record);
    if (*return_code == CM_OK) record_to_entry(&record, side_info_entry);
  }
  if (api_trace_on()) {
    seputrcp(2, 34, nullptr, return_code, side_info_entry, nullptr, nullptr, nullptr, nullptr);
  }
  vpm_unlock(token);
}

extern "C" SNA_EXPORT void xcmdsi(CM_INT32 *key, unsigned char *sym_dest_name,
                                  CM_INT32 *return_code) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (api_trace_on()) seputrcp(1, 31, nullptr, key, sym_dest_name, nullptr, nullptr, nullptr, nullptr);
  SIDE_INFO record;
  std::memset(&record, 0, sizeof record);
  std::memcpy(record.abSymDestName, sym_dest_name, 8);
  *return_code = SCD_main(2, &record);
  if (api_trace_on()) seputrcp(2, 31, nullptr, return_code, nullptr, nullptr, nullptr, nullptr, nullptr);
  vpm_unlock(token);
}
