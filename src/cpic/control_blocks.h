// The library's own records: the global control block, the conversation
// control block and the side-information record embedded in it.
//
// Field names follow the library's typed style (ul 32-bit, us 16-bit,
// ab byte array, f flag, p pointer, h handle). The i386 layout is the
// reference and is proved below; on x86_64 the pointer fields and the verb
// area (which holds pointer-carrying blocks) widen, nothing else changes.
#ifndef CPIC_CONTROL_BLOCKS_H
#define CPIC_CONTROL_BLOCKS_H

#include <cstddef>
#include <cstdint>

#include "snanode/verbs.h"

namespace cpic {

// One side-information entry (148 bytes). Also the destination data of
// every conversation.
struct SIDE_INFO {
  uint8_t abSymDestName[8];     // ASCII, blank-padded
  uint8_t abPartnerLuName[17];  // EBCDIC qualified name, or an alias as given
  uint8_t abPartnerLuPad[3];    // travels with an unqualified name
  uint32_t ulTpNameType;        // 1: service TP
  uint8_t abTpName[64];         // EBCDIC, 0x40-padded
  uint8_t abSiLocalLuAlias[8];  // ASCII, zero when none
  uint8_t abModeName[8];        // EBCDIC
  uint32_t ulSecurityType;
  uint8_t abUserId[10];    // EBCDIC
  uint8_t abPassword[10];  // EBCDIC
  uint16_t fPartnerLuFq;
  uint16_t usPartnerLuDotPos;
  uint16_t usPartnerLuNameLen;
  uint16_t usModeNameLen;
  uint16_t usUserIdLen;
};

// Conversation control block: one per conversation. Its handle in
// hCccbTable is the first half of the conversation ID.
struct CCCB {
  VCB_AREA vcb;  // verb being built or outstanding; cleared before each verb
  uint32_t CCCBhandle;
  uint16_t fFreePending;
  SIDE_INFO si;
  uint8_t abLocalLuAlias[8];
  uint32_t ulApplConvId;
  uint32_t ulConversationType;
  uint32_t ulDeallocateType;
  uint32_t ulErrorDirection;
  uint32_t ulFill;
  uint32_t ulPrepToReceiveType;
  uint32_t ulReceiveType;
  uint32_t ulReturnControl;
  uint32_t ulSendType;
  uint32_t ulSyncLevel;
  uint16_t usLogDataLen;
  uint8_t *pLogData;
  uint16_t usDeallcLogDataLength;
  uint8_t *DeallcLogData;
  uint16_t usConfirmDeallocPending;
  uint16_t usConfirmPending;
  uint16_t usOpsOutstanding;
  uint16_t usProcessingMode;
  uint16_t fInitialized;
  uint16_t fCancelPending;
  uint8_t abTpId[8];
  uint16_t fVerbWaiting;
  uint32_t ulInboundData;
  uint16_t usOpTraceIndex;
  uint8_t *pOpConvId;
  uint32_t ulReturnCode;
  void *pResult1;
  void *pResult2;
  void *pResult3;
  void *pResult4;
  void *pResult5;
  uint8_t abOpConvId[8];
  uint32_t ulOpExtra;
  uint16_t fTpStartedByAllocate;  // this conversation's Allocate started its TP
  uint32_t hLocTpNameEntry;       // local TP name entry it was accepted under
};

// Global control block: one static instance for the process.
struct GCB {
  uint8_t abContextTpId[8];
  uint8_t abContextLuAlias[8];
  uint8_t abDefaultLuAlias[8];
  uint8_t abDefaultTpName[64];
  uint32_t NumVerbsWaiting;
  uint32_t NumVerbsInProgress;
  uint32_t hWaitObject;
  uint16_t NumLocTPNames;
  uint32_t hLocTpNameTable;
  uint32_t hCccbTable;
  uint32_t hSideInfoTable;
  uint32_t hPathUser;
  uint16_t usDefaultTpNameLen;
  uint16_t fAcceptIssued;
  uint16_t fTpNameFromEnv;
};

#define CPIC_OFF(T, f, off) static_assert(offsetof(T, f) == (off), #T "." #f)

CPIC_OFF(SIDE_INFO, abSymDestName, 0);
CPIC_OFF(SIDE_INFO, abPartnerLuName, 8);
CPIC_OFF(SIDE_INFO, ulTpNameType, 28);
CPIC_OFF(SIDE_INFO, abTpName, 32);
CPIC_OFF(SIDE_INFO, abSiLocalLuAlias, 96);
CPIC_OFF(SIDE_INFO, abModeName, 104);
CPIC_OFF(SIDE_INFO, ulSecurityType, 112);
CPIC_OFF(SIDE_INFO, abUserId, 116);
CPIC_OFF(SIDE_INFO, abPassword, 126);
CPIC_OFF(SIDE_INFO, fPartnerLuFq, 136);
CPIC_OFF(SIDE_INFO, usPartnerLuDotPos, 138);
CPIC_OFF(SIDE_INFO, usPartnerLuNameLen, 140);
CPIC_OFF(SIDE_INFO, usModeNameLen, 142);
CPIC_OFF(SIDE_INFO, usUserIdLen, 144);
static_assert(sizeof(SIDE_INFO) == 148, "SIDE_INFO size");

CPIC_OFF(GCB, abContextTpId, 0);
CPIC_OFF(GCB, abContextLuAlias, 8);
CPIC_OFF(GCB, abDefaultLuAlias, 16);
CPIC_OFF(GCB, abDefaultTpName, 24);
CPIC_OFF(GCB, NumVerbsWaiting, 88);
CPIC_OFF(GCB, NumVerbsInProgress, 92);
CPIC_OFF(GCB, hWaitObject, 96);
CPIC_OFF(GCB, NumLocTPNames, 100);
CPIC_OFF(GCB, hLocTpNameTable, 104);
CPIC_OFF(GCB, hCccbTable, 108);
CPIC_OFF(GCB, hSideInfoTable, 112);
CPIC_OFF(GCB, hPathUser, 116);
CPIC_OFF(GCB, usDefaultTpNameLen, 120);
CPIC_OFF(GCB, fAcceptIssued, 122);
CPIC_OFF(GCB, fTpNameFromEnv, 124);
static_assert(sizeof(GCB) == 128, "GCB size");

#if defined(__i386__)
CPIC_OFF(CCCB, vcb, 0);
CPIC_OFF(CCCB, CCCBhandle, 200);
CPIC_OFF(CCCB, fFreePending, 204);
CPIC_OFF(CCCB, si, 208);
CPIC_OFF(CCCB, abLocalLuAlias, 356);
CPIC_OFF(CCCB, ulApplConvId, 364);
CPIC_OFF(CCCB, ulConversationType, 368);
CPIC_OFF(CCCB, ulDeallocateType, 372);
CPIC_OFF(CCCB, ulErrorDirection, 376);
CPIC_OFF(CCCB, ulFill, 380);
CPIC_OFF(CCCB, ulPrepToReceiveType, 384);
CPIC_OFF(CCCB, ulReceiveType, 388);
CPIC_OFF(CCCB, ulReturnControl, 392);
CPIC_OFF(CCCB, ulSendType, 396);
CPIC_OFF(CCCB, ulSyncLevel, 400);
CPIC_OFF(CCCB, usLogDataLen, 404);
CPIC_OFF(CCCB, pLogData, 408);
CPIC_OFF(CCCB, usDeallcLogDataLength, 412);
CPIC_OFF(CCCB, DeallcLogData, 416);
CPIC_OFF(CCCB, usConfirmDeallocPending, 420);
CPIC_OFF(CCCB, usConfirmPending, 422);
CPIC_OFF(CCCB, usOpsOutstanding, 424);
CPIC_OFF(CCCB, usProcessingMode, 426);
CPIC_OFF(CCCB, fInitialized, 428);
CPIC_OFF(CCCB, fCancelPending, 430);
CPIC_OFF(CCCB, abTpId, 432);
CPIC_OFF(CCCB, fVerbWaiting, 440);
CPIC_OFF(CCCB, ulInboundData, 444);
CPIC_OFF(CCCB, usOpTraceIndex, 448);
CPIC_OFF(CCCB, pOpConvId, 452);
CPIC_OFF(CCCB, ulReturnCode, 456);
CPIC_OFF(CCCB, pResult1, 460);
CPIC_OFF(CCCB, pResult5, 476);
CPIC_OFF(CCCB, abOpConvId, 480);
CPIC_OFF(CCCB, ulOpExtra, 488);
CPIC_OFF(CCCB, fTpStartedByAllocate, 492);
CPIC_OFF(CCCB, hLocTpNameEntry, 496);
static_assert(sizeof(CCCB) == 500, "CCCB size");
#endif

#undef CPIC_OFF

}  // namespace cpic

#endif
