// Call trace records: seputrcp writes one request, response or
// asynchronous-response record per CPI-C call to the node's trace.
//
// Internal to libcpic.so (hidden visibility, not exported).
#ifndef CPIC_CALL_TRACE_H
#define CPIC_CALL_TRACE_H

#include <cstdint>

#include "control_blocks.h"

namespace cpic {

// Record kinds (only the low 16 bits of kind are examined; any value other
// than 1 and 2 is an asynchronous response).
inline constexpr uint32_t kTraceRequest = 1;
inline constexpr uint32_t kTraceResponse = 2;
inline constexpr uint32_t kTraceAsyncResponse = 3;

// A CCCB holding the default characteristics, shown whenever a record is
// written without a conversation control block.
extern const CCCB BlankCccb;

}  // namespace cpic

// seputrcp(kind, verb, cccb, a4, ..., a9)
//
// cccb: the conversation's CCCB, or null (BlankCccb is then shown).
// a4..a9 are pointers; a value (a characteristic, a length, a handle) is
// passed as a pointer to its 32-bit value, a name or buffer as a pointer to
// its bytes, a conversation ID as a pointer to its 8 bytes. Pointers that
// the record does not read may be anything (pass 0). A null pointer where
// a value is read reads as 0; a null name or buffer is not dumped.
//
// The general rule:
//   request  (kind 1): a4.. are the call's arguments in the call's order,
//                      the return code left out, as far as the record reads
//                      them.
//   response (kind 2 and asynchronous): a4 = the return code; a5.. are the
//                      call's output arguments in the call's order. The
//                      conversation ID counts as an output only for the
//                      calls that hand one out (CMACCP, CMINIT, CMINIC,
//                      CMWAIT, CMCHCK). An asynchronous completion
//                      therefore passes &return_code, pResult1..pResult5 of
//                      the pending-call record, and not abOpConvId: Receive
//                      needs all five positions for its outputs.
//
// Per verb index ("-" = nothing after the return code is read; "(unread)"
// marks positions kept only so that the call's order holds):
//
//  idx call    request a4..                     response a5..
//   0  CMACCP  -                                conv_id
//   1  CMALLC  conv_id                          -
//   2  CMCFM   conv_id                          &rts_received
//   3  CMCFMD  conv_id                          -
//   4  CMDEAL  conv_id                          -
//   5  CMECS   conv_id                          &conversation_state
//   6  CMECT   conv_id                          &conversation_type
//   7  CMEMN   conv_id                          mode_name, &mode_name_length
//   8  CMEPLN  conv_id                          partner_lu_name, &length
//   9  CMESL   conv_id                          &sync_level
//  10  CMFLUS  conv_id                          -
//  11  CMINIT  conv_id (unread), sym_dest_name  conv_id
//  12  CMPTR   conv_id                          -
//  13  CMRCV   conv_id, buffer (unread),        buffer, &data_received,
//              &requested_length                &received_length,
//                                               &status_received,
//                                               &rts_received
//  14  CMRTS   conv_id                          -
//  15  CMSEND  conv_id, buffer, &send_length    &rts_received
//  16  CMSERR  conv_id                          &rts_received
//  17  CMSCT   conv_id, &conversation_type      -
//  18  CMSDT   conv_id, &deallocate_type        -
//  19  CMSED   conv_id, &error_direction        -
//  20  CMSF    conv_id, &fill                   -
//  21  CMSLD   conv_id, log_data, &length       -
//  22  CMSMN   conv_id, mode_name, &length      -
//  23  CMSPLN  conv_id, partner_lu_name, &len   -
//  24  CMSPTR  conv_id, &prep_to_receive_type   -
//  25  CMSRT   conv_id, &receive_type           -
//  26  CMSRC   conv_id, &return_control         -
//  27  CMSST   conv_id, &send_type              -
//  28  CMSSL   conv_id, &sync_level             -
//  29  CMSTPN  conv_id, tp_name, &length        -
//  30  CMTRTS  conv_id                          &rts_received
//  31  XCMDSI  &key (unread), sym_dest_name     -
//  32  XCECST  conv_id                          &security_type
//  33  XCECSU  conv_id                          user_id, &user_id_length
//  34  XCMESI  &key (unread), sym_dest_name,    entry (124 bytes)
//              entry (unread), &entry_length
//  35  XCSCSP  conv_id (password never read)    -
//  36  XCSCST  conv_id, &security_type          -
//  37  XCSCSU  conv_id, user_id, &length        -
//  38  XCMSSI  &key (unread), entry,            -
//              &entry_length
//  39  CMTERM  &termination_type                -
//  40  CMSPM   conv_id, &processing_mode        -
//  41  CMINIC  -                                conv_id
//  42  CMACCI  conv_id                          -
//  43  CMWAIT  -                                conv_id, &conversation_rc
//  44  CMCANC  conv_id                          -
//  45  CMCHCK  -                                conv_id
//  46  CMSCST  conv_id, &security_type          -
//  47  CMSCSU  conv_id, user_id, &length        -
//  48  CMSCSP  conv_id (password never read)    -
//  49  CMESUI  conv_id                          user_id, &user_id_length
//  50  CMSLTP  tp_name, &tp_name_length         -
//  51  CMRLTP  tp_name, &tp_name_length         -
//  52  CMETPN  conv_id                          tp_name, &tp_name_length
//  53  CMCNVI  buffer, &length                  buffer, &length
//  54  CMCNVO  buffer, &length                  buffer, &length
//  55  CMEMBS  -                                &maximum_buffer_size
//  56  CMECTX  conv_id                          context_id, &length
//  57  CMSCTX  context_id, &length              -
//  58  CMECSU  conv_id                          user_id, &user_id_length
//  59  CMECST  conv_id                          &security_type
//  60  CMELLN  conv_id                          lu_name, &lu_name_length
//  61  XCHWND  &window_handle                   -
//  62  CMSLLN  conv_id, lu_name, &length        -
//
// The Set calls (17-29, 36, 37, 40, 46, 47, 62) show the CCCB's current
// characteristics in the request, so their workers pass the CCCB to the
// request record too when they have found it.
//
// Name dumps show at most 64 bytes; a buffer whose length is zero or
// negative (as a signed 32-bit value) prints " Buffer empty".
//
// Called with the library's process-wide lock held. If the trace has no
// file the routine returns with the trace-file lock still taken.
void seputrcp(uint32_t kind, uint32_t verb, const cpic::CCCB *cccb,
              const void *a4, const void *a5, const void *a6, const void *a7,
              const void *a8, const void *a9);

#endif
