// Name tables of the call trace: each is indexed by the CPI-C value of the
// characteristic (0-based) and has its own text for values beyond it.
#ifndef CPIC_TRACE_NAMES_H
#define CPIC_TRACE_NAMES_H

#include <cstdint>

namespace cpic::trace_names {

struct NameTable {
  const char *const *entries;
  uint32_t bound;  // values below this are looked up in entries
  const char *unknown;
};

inline constexpr const char *cpicpm[] = {"BLOCKING", "NON_BLOCKING"};
inline constexpr const char *cpicet[] = {"HARD", "SOFT"};
// The bound admits one value more than the table names; that slot is empty.
inline constexpr const char *cpictp[] = {"APPLICATION_TP", "SNA_SERVICE_TP", ""};
inline constexpr const char *cpicsr[] = {
    "NO_STATUS_RECEIVED",       "SEND_RECEIVED",
    "CONFIRM_RECEIVED",         "CONFIRM_SEND_RECEIVED",
    "CONFIRM_DEALLOC_RECEIVED", "TAKE_COMMIT",
    "TAKE_COMMIT_SEND",         "TAKE_COMMIT_DEALLOCATE",
    "TAKE_COMMIT_DATA_OK",      "TAKE_COMMIT_SEND_DATA_OK",
    "TAKE_COMMIT_DEALLOC_DATA_OK", "PREPARE_OK",
    "JOINT_TRANSACTION",        "***UNKNOWN STATUS_RECEIVED***"};
inline constexpr const char *cpicdr[] = {"NO_DATA_RECEIVED", "DATA_RECEIVED",
                                         "COMPLETE_DATA_RECEIVED",
                                         "INCOMPLETE_DATA_RECEIVED"};
inline constexpr const char *cpiccs[] = {
    "***UNKNOWN CONVERSATION STATE***",
    "***UNKNOWN CONVERSATION STATE***",
    "INITIALIZE_STATE",
    "SEND_STATE",
    "RECEIVE_STATE",
    "SEND_PENDING_STATE",
    "CONFIRM_STATE",
    "CONFIRM_SEND_STATE",
    "CONFIRM_DEALLOCATE_STATE",
    "DEFER_RECEIVE_STATE",
    "DEFER_DEALLOCATE_STATE",
    "SYNC_POINT_STATE",
    "SYNC_POINT_SEND_STATE",
    "SYNC_POINT_DEALLOCATE_STATE",
    "INITIALIZE_INCOMING_STATE",
    "SEND_ONLY_STATE",
    "RECEIVE_ONLY_STATE",
    "SEND_RECEIVE_STATE",
    "PREPARED_STATE"};
inline constexpr const char *cpicrtsr[] = {"REQ_TO_SEND_NOT_RECEIVED",
                                           "REQ_TO_SEND_RECEIVED"};
inline constexpr const char *cpicrcon[] = {"WHEN_SESSION_ALLOCATED", "IMMEDIATE"};
inline constexpr const char *cpiccst[] = {
    "SECURITY_NONE",        "SECURITY_SAME",   "SECURITY_PROGRAM",
    "SECURITY_DISTRIBUTED", "SECURITY_MUTUAL", "SECURITY_PROGRAM_STRONG"};
inline constexpr const char *cpicst[] = {
    "BUFFER_DATA", "SEND_AND_FLUSH", "SEND_AND_CONFIRM",
    "SEND_AND_PREP_TO_RECEIVE", "SEND_AND_DEALLOCATE"};
inline constexpr const char *cpicrt[] = {"RECEIVE_AND_WAIT", "RECEIVE_IMMEDIATE"};
inline constexpr const char *cpicptr[] = {"PREP_TO_RECEIVE_SYNC_LEVEL",
                                          "PREP_TO_RECEIVE_FLUSH",
                                          "PREP_TO_RECEIVE_CONFIRM"};
inline constexpr const char *cpicft[] = {"FILL_LL", "FILL_BUFFER"};
inline constexpr const char *cpicsl[] = {"NONE", "CONFIRM", "SYNC_POINT",
                                         "SYNC_POINT_NO_CONFIRM"};
inline constexpr const char *cpiced[] = {"RECEIVE_ERROR", "SEND_ERROR"};
inline constexpr const char *cpicdt[] = {"DEALLOCATE_SYNC_LEVEL", "DEALLOCATE_FLUSH",
                                         "DEALLOCATE_CONFIRM", "DEALLOCATE_ABEND"};
inline constexpr const char *cpicct[] = {"BASIC_CONVERSATION",
                                         "MAPPED_CONVERSATION"};

template <uint32_t N>
constexpr NameTable table(const char *const (&entries)[N], const char *unknown) {
  return NameTable{entries, N, unknown};
}

inline constexpr NameTable kProcessingMode =
    table(cpicpm, "***UNKNOWN PROCESSING MODE***");
inline constexpr NameTable kEndType = table(cpicet, "***UNKNOWN END TYPE***");
inline constexpr NameTable kTpNameType =
    table(cpictp, "***UNKNOWN TP_NAME_TYPE***");
inline constexpr NameTable kStatusReceived =
    table(cpicsr, "***UNKNOWN STATUS_RECEIVED***");
inline constexpr NameTable kDataReceived =
    table(cpicdr, "***UNKNOWN DATA RECEIVED TYPE***");
inline constexpr NameTable kConversationState =
    table(cpiccs, "***UNKNOWN CONVERSATION STATE***");
inline constexpr NameTable kRequestToSend =
    table(cpicrtsr, "***UNKNOWN REQ_TO_SEND TYPE***");
inline constexpr NameTable kReturnControl =
    table(cpicrcon, "***UNKNOWN RETURN_CONTROL***");
inline constexpr NameTable kSecurityType =
    table(cpiccst, "***UNKNOWN CONVERSATION_SECURITY_TYPE***");
inline constexpr NameTable kSendType = table(cpicst, "***UNKNOWN SEND TYPE***");
inline constexpr NameTable kReceiveType =
    table(cpicrt, "***UNKNOWN RECEIVE TYPE***");
inline constexpr NameTable kPrepToReceiveType =
    table(cpicptr, "***UNKNOWN PREP_TO_RECEIVE TYPE***");
inline constexpr NameTable kFill = table(cpicft, "***UNKNOWN FILL TYPE***");
inline constexpr NameTable kSyncLevel = table(cpicsl, "***UNKNOWN SYNC_LEVEL***");
inline constexpr NameTable kErrorDirection =
    table(cpiced, "***UNKNOWN ERROR DIRECTION***");
inline constexpr NameTable kDeallocateType =
    table(cpicdt, "***UNKNOWN DEALLOCATE TYPE***");
inline constexpr NameTable kConversationType =
    table(cpicct, "***UNKNOWN CONVERSATION TYPE***");

inline constexpr const char kUnknownRc[] = "***UNKNOWN RC***";

// cpicrc: one entry per CPI-C return code 0 to 137.
struct ReturnCodeNames {
  const char *entries[138];
};

constexpr ReturnCodeNames make_cpicrc() {
  ReturnCodeNames t{};
  for (auto &e : t.entries) e = kUnknownRc;
  t.entries[0] = "OK";
  t.entries[1] = "ALLOCATE_FAILURE_NO_RETRY";
  t.entries[2] = "ALLOCATE_FAILURE_RETRY";
  t.entries[3] = "CONVERSATION_TYPE_MISMATCH";
  t.entries[5] = "PIP_NOT_SPECIFIED_CORRECTLY";
  t.entries[6] = "SECURITY_NOT_VALID";
  t.entries[7] = "SYNC_LEVEL_NOT_SUPPORTED_LU";
  t.entries[8] = "SYNC_LEVEL_NOT_SUPPORTED_PGM";
  t.entries[9] = "TPN_NOT_RECOGNISED";
  t.entries[10] = "TP_NOT_AVAILABLE_NO_RETRY";
  t.entries[11] = "TP_NOT_AVAILABLE_RETRY";
  t.entries[17] = "DEALLOCATED_ABEND";
  t.entries[18] = "DEALLOCATED_NORMAL";
  t.entries[19] = "PARAMETER_ERROR";
  t.entries[20] = "PRODUCT_SPECIFIC_ERROR";
  t.entries[21] = "PROGRAM_ERROR_NO_TRUNC";
  t.entries[22] = "PROGRAM_ERROR_PURGING";
  t.entries[23] = "PROGRAM_ERROR_TRUNC";
  t.entries[24] = "PROGRAM_PARAMETER_CHECK";
  t.entries[25] = "PROGRAM_STATE_CHECK";
  t.entries[26] = "RESOURCE_FAILURE_NO_RETRY";
  t.entries[27] = "RESOURCE_FAILURE_RETRY";
  t.entries[28] = "UNSUCCESSFUL";
  t.entries[30] = "DEALLOCATED_ABEND_SVC";
  t.entries[31] = "DEALLOCATED_ABEND_TIMER";
  t.entries[32] = "SVC_ERROR_NO_TRUNC";
  t.entries[33] = "SVC_ERROR_PURGING";
  t.entries[34] = "SVC_ERROR_TRUNC";
  t.entries[35] = "OPERATION_INCOMPLETE";
  t.entries[36] = "SYSTEM_EVENT";
  t.entries[37] = "OPERATION_NOT_ACCEPTED";
  t.entries[38] = "CONVERSATION_ENDING";
  t.entries[39] = "SEND_RCV_MODE_NOT_SUPPORTED";
  t.entries[40] = "BUFFER_TOO_SMALL";
  t.entries[41] = "EXP_DATA_NOT_SUPPORTED";
  t.entries[42] = "DEALLOC_CONFIRM_REJECT";
  t.entries[43] = "ALLOCATION_ERROR";
  t.entries[44] = "RETRY_LIMIT_EXCEEDED";
  t.entries[45] = "NO_SECONDARY_INFORMATION";
  t.entries[46] = "SECURITY_NOT_SUPPORTED";
  t.entries[47] = "SECURITY_MUTUAL_FAILED";
  t.entries[48] = "CALL_NOT_SUPPORTED";
  t.entries[49] = "PARM_VALUE_NOT_SUPPORTED";
  t.entries[100] = "TAKE_BACKOUT";
  t.entries[130] = "DEALLOCATED_ABEND_BO";
  t.entries[131] = "DEALLOCATED_ABEND_SVC_BO";
  t.entries[132] = "DEALLOCATED_ABEND_TIMER_BO";
  t.entries[133] = "RESOURCE_FAIL_NO_RETRY_BO";
  t.entries[134] = "RESOURCE_FAILURE_RETRY_BO";
  t.entries[135] = "DEALLOCATED_NORMAL_BO";
  t.entries[136] = "CONV_DEALLOC_AFTER_SYNCPT";
  t.entries[137] = "INCLUDE_PARTNER_REJECT_BO";
  return t;
}

inline constexpr ReturnCodeNames cpicrc = make_cpicrc();

// cpicvb: the call names, indexed by the verb index the workers pass.
inline constexpr const char *cpicvb[] = {
    "CMACCP", "CMALLC", "CMCFM",  "CMCFMD", "CMDEAL", "CMECS",  "CMECT",
    "CMEMN",  "CMEPLN", "CMESL",  "CMFLUS", "CMINIT", "CMPTR",  "CMRCV",
    "CMRTS",  "CMSEND", "CMSERR", "CMSCT",  "CMSDT",  "CMSED",  "CMSF",
    "CMSLD",  "CMSMN",  "CMSPLN", "CMSPTR", "CMSRT",  "CMSRC",  "CMSST",
    "CMSSL",  "CMSTPN", "CMTRTS", "XCMDSI", "XCECST", "XCECSU", "XCMESI",
    "XCSCSP", "XCSCST", "XCSCSU", "XCMSSI", "CMTERM", "CMSPM",  "CMINIC",
    "CMACCI", "CMWAIT", "CMCANC", "CMCHCK", "CMSCST", "CMSCSU", "CMSCSP",
    "CMESUI", "CMSLTP", "CMRLTP", "CMETPN", "CMCNVI", "CMCNVO", "CMEMBS",
    "CMECTX", "CMSCTX", "CMECSU", "CMECST", "CMELLN", "XCHWND", "CMSLLN"};
static_assert(sizeof(cpicvb) / sizeof(cpicvb[0]) == 63, "63 call names");

inline constexpr const char kUnknownVerb[] = "***UNKNOWN VERB***";

}  // namespace cpic::trace_names

#endif
