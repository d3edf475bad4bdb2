// SNA sense codes used by the LU 6.2 conversation protocol.
#ifndef SNA_PROTO_SENSE_H
#define SNA_PROTO_SENSE_H

#include <cstdint>

namespace sna::proto::sense {

// Negative-response senses that tell the sender what follows.
inline constexpr uint32_t kErrorFollows = 0x08460000;      // an FMH-7 ERROR follows
inline constexpr uint32_t kDeallocateFollows = 0x08640000; // an FMH-7 ABEND follows

// FMH-7 senses: conversation errors and abnormal deallocation.
inline constexpr uint32_t kProgramError = 0x08890000;      // no truncation / purging
inline constexpr uint32_t kProgramErrorTrunc = 0x08890001;
inline constexpr uint32_t kServiceError = 0x08890100;
inline constexpr uint32_t kServiceErrorTrunc = 0x08890101;
inline constexpr uint32_t kAbendProgram = 0x08640000;
inline constexpr uint32_t kAbendService = 0x08640001;
inline constexpr uint32_t kAbendTimer = 0x08640002;

// Attach rejections.
inline constexpr uint32_t kTpNameNotRecognized = 0x10086021;
inline constexpr uint32_t kConversationTypeMismatch = 0x10086034;
inline constexpr uint32_t kSyncLevelNotSupported = 0x10086041;
inline constexpr uint32_t kSecurityNotValid = 0x080F6051;
inline constexpr uint32_t kTpNotAvailableRetry = 0x084B6031;
inline constexpr uint32_t kTpNotAvailableNoRetry = 0x084C0000;

// Session-level senses.
inline constexpr uint32_t kBindParameterError = 0x08350000;
inline constexpr uint32_t kModeNotKnown = 0x08350008;  // refused mode at BIND
inline constexpr uint32_t kSessionLimitExceeded = 0x08050000;  // no session available
inline constexpr uint32_t kBracketRace = 0x08130000;       // bracket bid refused
inline constexpr uint32_t kProtocolViolation = 0x20000000;

inline bool is_error(uint32_t s) { return (s & 0xFFFF0000u) == 0x08890000u; }
inline bool is_abend(uint32_t s) { return (s & 0xFFFF0000u) == 0x08640000u; }

}  // namespace sna::proto::sense

#endif
