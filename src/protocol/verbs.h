// Verbs as the protocol core takes them: every field of the node's verb
// blocks, in plain fixed-width fields with no pointers, so that the core
// behaves the same whatever word size the issuing program has. The daemon
// translates verb blocks to and from these records.
#ifndef SNA_PROTO_VERBS_H
#define SNA_PROTO_VERBS_H

#include <array>
#include <cstdint>

#include "protocol/bytes.h"

namespace sna::proto {

enum class Opcode : uint16_t {
  kAllocate = 0x0001,
  kConfirm = 0x0003,
  kConfirmed = 0x0004,
  kDeallocate = 0x0005,
  kFlush = 0x0006,
  kGetState = 0x0009,
  kPrepareToReceive = 0x000A,
  kReceiveAndWait = 0x000B,
  kReceiveImmediately = 0x000C,
  kRequestToSend = 0x000E,
  kSendData = 0x000F,
  kSendError = 0x0010,
  kTestRts = 0x0012,
  kTpEnded = 0x0013,
  kTpStarted = 0x0014,
  kCancelConversation = 0x0072,
  kReceiveAllocate = 0xF100,
  kRegisterTpName = 0xF101,
  kWithdrawTpName = 0xF102,
};

using TpId = std::array<uint8_t, 8>;
using Name8 = std::array<uint8_t, 8>;
using Name10 = std::array<uint8_t, 10>;
using Name17 = std::array<uint8_t, 17>;
using Name64 = std::array<uint8_t, 64>;

// One record for every verb; each verb reads the fields its block has.
struct Verb {
  Opcode opcode = Opcode::kGetState;
  uint8_t opext = 0;   // 0 basic, 1 mapped
  uint8_t format = 0;  // 1 on ALLOCATE and RECEIVE_ALLOCATE_CPIC
  TpId tp_id{};
  uint32_t conv_id = 0;  // also CANCEL_CONVERSATION's conv_id / correlator
  // ALLOCATE
  uint8_t sync_level = 0;      // 0 none, 1 confirm
  uint8_t return_control = 0;  // 0 when session allocated, 1 immediate
  Name8 partner_lu_alias{};    // ASCII; first byte 0: use partner_lu_name
  Name8 mode_name{};           // EBCDIC
  Name64 tp_name{};            // EBCDIC (ALLOCATE, TP_STARTED, register, withdraw)
  uint8_t security = 0;        // 0 none, 1 same, 2 program, 5 program-strong
  Name10 password{};
  Name10 user_id{};
  uint16_t pip_length = 0;
  Name17 partner_lu_name{};    // EBCDIC qualified name
  // DEALLOCATE type, PREPARE_TO_RECEIVE type, TP_ENDED type (1 hard, 0 soft)
  uint8_t type = 0;
  uint8_t locks = 0;
  // RECEIVE_*
  uint8_t return_status_with_data = 0;
  uint8_t fill = 0;  // 1 logical record, 0 buffer (basic only)
  uint16_t max_length = 0;
  // SEND_DATA
  uint8_t send_type = 0;
  // SEND_ERROR
  uint8_t error_type = 0;  // 0 program, 1 service (basic only)
  uint8_t direction = 0;   // 0 receive error, 1 send error
  // SEND_DATA data, DEALLOCATE / SEND_ERROR log data
  Bytes data;
  uint32_t data_length = 0;  // as the program gave it; checked against 32767
  // TP_STARTED
  Name8 local_lu_alias{};  // ASCII
  // RECEIVE_ALLOCATE_CPIC correlator (offset 84 on input)
  uint32_t correlator = 0;
};

struct VerbResult {
  uint16_t primary = 0;
  uint32_t secondary = 0;
  // Outputs; only those the verb defines are meaningful.
  uint32_t conv_id = 0;
  uint8_t rts_received = 0;
  uint8_t state = 0;
  uint16_t what_received = 0;
  Bytes data;  // received data
  TpId tp_id{};
  Name8 local_lu_alias{};
  Name64 tp_name{};
  uint8_t sync_level = 0;
  uint8_t conversation_type = 0;  // 0 basic, 1 mapped
  Name10 user_id{};
  Name8 mode_name{};
  Name17 partner_lu_name{};
};

namespace rc {
inline constexpr uint16_t kOk = 0x0000;
inline constexpr uint16_t kParameterCheck = 0x0001;
inline constexpr uint16_t kStateCheck = 0x0002;
inline constexpr uint16_t kAllocationError = 0x0003;
inline constexpr uint16_t kDeallocAbendMapped = 0x0005;
inline constexpr uint16_t kDeallocAbendProg = 0x0006;
inline constexpr uint16_t kDeallocAbendSvc = 0x0007;
inline constexpr uint16_t kDeallocAbendTimer = 0x0008;
inline constexpr uint16_t kDeallocNormal = 0x0009;
inline constexpr uint16_t kProgErrorNoTrunc = 0x000C;
inline constexpr uint16_t kProgErrorTrunc = 0x000D;
inline constexpr uint16_t kProgErrorPurging = 0x000E;
inline constexpr uint16_t kConvFailureRetry = 0x000F;
inline constexpr uint16_t kConvFailureNoRetry = 0x0010;
inline constexpr uint16_t kSvcErrorNoTrunc = 0x0011;
inline constexpr uint16_t kSvcErrorTrunc = 0x0012;
inline constexpr uint16_t kSvcErrorPurging = 0x0013;
inline constexpr uint16_t kUnsuccessful = 0x0014;
inline constexpr uint16_t kCancelled = 0x0021;

inline constexpr uint32_t kBadPartnerLu = 0x00000017;
inline constexpr uint32_t kBadMode = 0x00000018;
inline constexpr uint32_t kBadConvId = 0x00000031;
inline constexpr uint32_t kBadTpId = 0x000000F1;
inline constexpr uint32_t kBadLlLength = 0x0000015B;
inline constexpr uint32_t kBadOpcodeOrFormat = 0x00000101;
inline constexpr uint32_t kValueOutOfRange = 0x00000102;
inline constexpr uint32_t kOpextMismatch = 0x00000103;
inline constexpr uint32_t kBadLocalLu = 0x00000104;
inline constexpr uint32_t kBadTpName = 0x00000105;
inline constexpr uint32_t kBadState = 0x00000020;
inline constexpr uint32_t kRecordIncomplete = 0x00000021;
inline constexpr uint32_t kSyncLevelNone = 0x00000022;
inline constexpr uint32_t kVerbOutstanding = 0x00000023;
inline constexpr uint32_t kNoRegisteredName = 0x00000024;
inline constexpr uint32_t kAllocNoRetry = 0x00000004;
inline constexpr uint32_t kAllocRetry = 0x00000005;
inline constexpr uint32_t kAbendProgram = 0x08640000;
inline constexpr uint32_t kAbendService = 0x08640001;
inline constexpr uint32_t kAbendTimer = 0x08640002;
inline constexpr uint32_t kProgError = 0x08890000;
inline constexpr uint32_t kProgErrorTruncSecondary = 0x08890001;
inline constexpr uint32_t kSvcError = 0x08890100;
inline constexpr uint32_t kSvcErrorTruncSecondary = 0x08891001;
}  // namespace rc

enum class ConvType : uint8_t { kBasic = 0, kMapped = 1 };

// GET_STATE values.
enum class ConvState : uint8_t {
  kReset = 0,
  kSend = 1,
  kReceive = 2,
  kConfirm = 3,
  kConfirmSend = 4,
  kConfirmDeallocate = 5,
  kPending = 6,
  kSendPending = 9,
};

}  // namespace sna::proto

#endif
