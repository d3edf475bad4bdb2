/* cpic.h - the CPI-C call interface.
 *
 * Names and values of the CPI-C standard (types, characteristic values,
 * return codes) and the prototypes of every call libcpic.so exports.
 * Usable from C and C++. Every call returns its result only through its
 * return_code argument. Conversation IDs are 8 bytes; integers are 32-bit
 * on both word sizes. */
#ifndef CPIC_H
#define CPIC_H

#include <stdint.h>

#include "snanode/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Types ----------------------------------------------------------- */

typedef int32_t CM_INT32;
typedef uint32_t CM_UINT32;
typedef CM_INT32 CM_RETURN_CODE;
typedef CM_INT32 CM_CONVERSATION_STATE;
typedef CM_INT32 CM_CONVERSATION_TYPE;
typedef CM_INT32 CM_DATA_RECEIVED_TYPE;
typedef CM_INT32 CM_DEALLOCATE_TYPE;
typedef CM_INT32 CM_ERROR_DIRECTION;
typedef CM_INT32 CM_FILL;
typedef CM_INT32 CM_PREPARE_TO_RECEIVE_TYPE;
typedef CM_INT32 CM_PROCESSING_MODE;
typedef CM_INT32 CM_RECEIVE_TYPE;
typedef CM_INT32 CM_REQUEST_TO_SEND_RECEIVED;
typedef CM_INT32 CM_RETURN_CONTROL;
typedef CM_INT32 CM_SEND_TYPE;
typedef CM_INT32 CM_STATUS_RECEIVED;
typedef CM_INT32 CM_SYNC_LEVEL;
typedef CM_INT32 CM_END_TYPE;
typedef CM_INT32 CM_SECURITY_TYPE;
typedef CM_INT32 CM_TP_NAME_TYPE;
typedef unsigned char CONVERSATION_ID[8];

#define CM_ENTRY SNA_EXPORT void
#define CM_PTR *

/* ---- Return codes ---------------------------------------------------- */

#define CM_OK 0
#define CM_ALLOCATE_FAILURE_NO_RETRY 1
#define CM_ALLOCATE_FAILURE_RETRY 2
#define CM_CONVERSATION_TYPE_MISMATCH 3
#define CM_PIP_NOT_SPECIFIED_CORRECTLY 5
#define CM_SECURITY_NOT_VALID 6
#define CM_SYNC_LVL_NOT_SUPPORTED_LU 7
#define CM_SYNC_LVL_NOT_SUPPORTED_PGM 8
#define CM_TPN_NOT_RECOGNIZED 9
#define CM_TP_NOT_AVAILABLE_NO_RETRY 10
#define CM_TP_NOT_AVAILABLE_RETRY 11
#define CM_DEALLOCATED_ABEND 17
#define CM_DEALLOCATED_NORMAL 18
#define CM_PARAMETER_ERROR 19
#define CM_PRODUCT_SPECIFIC_ERROR 20
#define CM_PROGRAM_ERROR_NO_TRUNC 21
#define CM_PROGRAM_ERROR_PURGING 22
#define CM_PROGRAM_ERROR_TRUNC 23
#define CM_PROGRAM_PARAMETER_CHECK 24
#define CM_PROGRAM_STATE_CHECK 25
#define CM_RESOURCE_FAILURE_NO_RETRY 26
#define CM_RESOURCE_FAILURE_RETRY 27
#define CM_UNSUCCESSFUL 28
#define CM_DEALLOCATED_ABEND_SVC 30
#define CM_DEALLOCATED_ABEND_TIMER 31
#define CM_SVC_ERROR_NO_TRUNC 32
#define CM_SVC_ERROR_PURGING 33
#define CM_SVC_ERROR_TRUNC 34
#define CM_OPERATION_INCOMPLETE 35
#define CM_SYSTEM_EVENT 36
#define CM_OPERATION_NOT_ACCEPTED 37
#define CM_CONVERSATION_ENDING 38
#define CM_SEND_RCV_MODE_NOT_SUPPORTED 39
#define CM_BUFFER_TOO_SMALL 40
#define CM_EXP_DATA_NOT_SUPPORTED 41
#define CM_DEALLOC_CONFIRM_REJECT 42
#define CM_ALLOCATION_ERROR 43
#define CM_RETRY_LIMIT_EXCEEDED 44
#define CM_NO_SECONDARY_INFORMATION 45
#define CM_SECURITY_NOT_SUPPORTED 46
#define CM_SECURITY_MUTUAL_FAILED 47
#define CM_CALL_NOT_SUPPORTED 48
#define CM_PARM_VALUE_NOT_SUPPORTED 49
#define CM_TAKE_BACKOUT 100
#define CM_DEALLOCATED_ABEND_BO 130
#define CM_DEALLOCATED_ABEND_SVC_BO 131
#define CM_DEALLOCATED_ABEND_TIMER_BO 132
#define CM_RESOURCE_FAIL_NO_RETRY_BO 133
#define CM_RESOURCE_FAILURE_RETRY_BO 134
#define CM_DEALLOCATED_NORMAL_BO 135
#define CM_CONV_DEALLOC_AFTER_SYNCPT 136
#define CM_INCLUDE_PARTNER_REJECT_BO 137

/* ---- Conversation characteristics ------------------------------------ */

/* conversation_state */
#define CM_INITIALIZE_STATE 2
#define CM_SEND_STATE 3
#define CM_RECEIVE_STATE 4
#define CM_SEND_PENDING_STATE 5
#define CM_CONFIRM_STATE 6
#define CM_CONFIRM_SEND_STATE 7
#define CM_CONFIRM_DEALLOCATE_STATE 8
#define CM_DEFER_RECEIVE_STATE 9
#define CM_DEFER_DEALLOCATE_STATE 10
#define CM_SYNC_POINT_STATE 11
#define CM_SYNC_POINT_SEND_STATE 12
#define CM_SYNC_POINT_DEALLOCATE_STATE 13
#define CM_INITIALIZE_INCOMING_STATE 14
#define CM_SEND_ONLY_STATE 15
#define CM_RECEIVE_ONLY_STATE 16
#define CM_SEND_RECEIVE_STATE 17
#define CM_PREPARED_STATE 18

/* conversation_type */
#define CM_BASIC_CONVERSATION 0
#define CM_MAPPED_CONVERSATION 1

/* data_received */
#define CM_NO_DATA_RECEIVED 0
#define CM_DATA_RECEIVED 1
#define CM_COMPLETE_DATA_RECEIVED 2
#define CM_INCOMPLETE_DATA_RECEIVED 3

/* deallocate_type */
#define CM_DEALLOCATE_SYNC_LEVEL 0
#define CM_DEALLOCATE_FLUSH 1
#define CM_DEALLOCATE_CONFIRM 2
#define CM_DEALLOCATE_ABEND 3

/* error_direction */
#define CM_RECEIVE_ERROR 0
#define CM_SEND_ERROR 1

/* fill */
#define CM_FILL_LL 0
#define CM_FILL_BUFFER 1

/* prepare_to_receive_type */
#define CM_PREP_TO_RECEIVE_SYNC_LEVEL 0
#define CM_PREP_TO_RECEIVE_FLUSH 1
#define CM_PREP_TO_RECEIVE_CONFIRM 2

/* processing_mode */
#define CM_BLOCKING 0
#define CM_NON_BLOCKING 1

/* receive_type */
#define CM_RECEIVE_AND_WAIT 0
#define CM_RECEIVE_IMMEDIATE 1

/* request_to_send_received */
#define CM_REQ_TO_SEND_NOT_RECEIVED 0
#define CM_REQ_TO_SEND_RECEIVED 1

/* return_control */
#define CM_WHEN_SESSION_ALLOCATED 0
#define CM_IMMEDIATE 1

/* send_type */
#define CM_BUFFER_DATA 0
#define CM_SEND_AND_FLUSH 1
#define CM_SEND_AND_CONFIRM 2
#define CM_SEND_AND_PREP_TO_RECEIVE 3
#define CM_SEND_AND_DEALLOCATE 4

/* status_received */
#define CM_NO_STATUS_RECEIVED 0
#define CM_SEND_RECEIVED 1
#define CM_CONFIRM_RECEIVED 2
#define CM_CONFIRM_SEND_RECEIVED 3
#define CM_CONFIRM_DEALLOC_RECEIVED 4
#define CM_TAKE_COMMIT 5
#define CM_TAKE_COMMIT_SEND 6
#define CM_TAKE_COMMIT_DEALLOCATE 7
#define CM_TAKE_COMMIT_DATA_OK 8
#define CM_TAKE_COMMIT_SEND_DATA_OK 9
#define CM_TAKE_COMMIT_DEALLOC_DATA_OK 10
#define CM_PREPARE_OK 11
#define CM_JOINT_TRANSACTION 12

/* sync_level */
#define CM_NONE 0
#define CM_CONFIRM 1
#define CM_SYNC_POINT 2
#define CM_SYNC_POINT_NO_CONFIRM 3

/* end type of Terminate */
#define CM_HARD 0
#define CM_SOFT 1

/* conversation_security_type */
#define CM_SECURITY_NONE 0
#define CM_SECURITY_SAME 1
#define CM_SECURITY_PROGRAM 2
#define CM_SECURITY_DISTRIBUTED 3
#define CM_SECURITY_MUTUAL 4
#define CM_SECURITY_PROGRAM_STRONG 5

#define XC_SECURITY_NONE 0
#define XC_SECURITY_SAME 1
#define XC_SECURITY_PROGRAM 2
#define XC_SECURITY_PROGRAM_STRONG 5

/* TP name type of a side-information entry */
#define XC_APPLICATION_TP 0
#define XC_SNA_SERVICE_TP 1

/* Limits */
#define CM_MAXIMUM_BUFFER_SIZE 32767

/* ---- Calls ----------------------------------------------------------- */

/* Initialize_Conversation: a conversation from a symbolic destination
 * name (8 ASCII bytes, blank-padded; eight blanks: no side information). */
CM_ENTRY cminit(unsigned char *conversation_ID, unsigned char *sym_dest_name,
                CM_INT32 *return_code);
CM_ENTRY CMINIT(unsigned char *conversation_ID, unsigned char *sym_dest_name,
                CM_INT32 *return_code);

/* Initialize_For_Incoming: an empty conversation for Accept_Incoming. */
CM_ENTRY cminic(unsigned char *conversation_ID, CM_INT32 *return_code);
CM_ENTRY CMINIC(unsigned char *conversation_ID, CM_INT32 *return_code);

/* Extract_Maximum_Buffer_Size: always 32767. */
CM_ENTRY cmembs(CM_INT32 *maximum_buffer_size, CM_INT32 *return_code);
CM_ENTRY CMEMBS(CM_INT32 *maximum_buffer_size, CM_INT32 *return_code);

/* Convert_Outgoing / Convert_Incoming: ASCII to EBCDIC and back, in
 * place, over the CPI-C extended character set. */
CM_ENTRY cmcnvo(unsigned char *buffer, CM_INT32 *length, CM_INT32 *return_code);
CM_ENTRY CMCNVO(unsigned char *buffer, CM_INT32 *length, CM_INT32 *return_code);
CM_ENTRY cmcnvi(unsigned char *buffer, CM_INT32 *length, CM_INT32 *return_code);
CM_ENTRY CMCNVI(unsigned char *buffer, CM_INT32 *length, CM_INT32 *return_code);

/* Terminate: ends the current context's TP (0 hard, 1 soft) and discards
 * its conversations. */
CM_ENTRY cmterm(CM_INT32 *termination_type, CM_INT32 *return_code);
CM_ENTRY CMTERM(CM_INT32 *termination_type, CM_INT32 *return_code);

/* ---- Set calls: one characteristic each, checked and stored locally -- */

/* Set_Conversation_Type: basic (0) or mapped (1); initialize state. */
CM_ENTRY cmsct(unsigned char *conversation_ID, CM_INT32 *conversation_type, CM_INT32 *return_code);
CM_ENTRY CMSCT(unsigned char *conversation_ID, CM_INT32 *conversation_type, CM_INT32 *return_code);
/* Set_Deallocate_Type: 0 to 3; confirm needs a sync level. */
CM_ENTRY cmsdt(unsigned char *conversation_ID, CM_INT32 *deallocate_type, CM_INT32 *return_code);
CM_ENTRY CMSDT(unsigned char *conversation_ID, CM_INT32 *deallocate_type, CM_INT32 *return_code);
/* Set_Error_Direction: receive error (0) or send error (1). */
CM_ENTRY cmsed(unsigned char *conversation_ID, CM_INT32 *error_direction, CM_INT32 *return_code);
CM_ENTRY CMSED(unsigned char *conversation_ID, CM_INT32 *error_direction, CM_INT32 *return_code);
/* Set_Fill: LL (0) or buffer (1); basic conversations only. */
CM_ENTRY cmsf(unsigned char *conversation_ID, CM_INT32 *fill, CM_INT32 *return_code);
CM_ENTRY CMSF(unsigned char *conversation_ID, CM_INT32 *fill, CM_INT32 *return_code);
/* Set_Log_Data: 0 clears, 1 to 512 bytes; basic conversations only. */
CM_ENTRY cmsld(unsigned char *conversation_ID, unsigned char *log_data, CM_INT32 *log_data_length,
               CM_INT32 *return_code);
CM_ENTRY CMSLD(unsigned char *conversation_ID, unsigned char *log_data, CM_INT32 *log_data_length,
               CM_INT32 *return_code);
/* Set_Mode_Name: 0 to 8 characters; initialize state. */
CM_ENTRY cmsmn(unsigned char *conversation_ID, unsigned char *mode_name, CM_INT32 *mode_name_length,
               CM_INT32 *return_code);
CM_ENTRY CMSMN(unsigned char *conversation_ID, unsigned char *mode_name, CM_INT32 *mode_name_length,
               CM_INT32 *return_code);
/* Set_Partner_LU_Name: an LU alias or NETID.LUNAME, 1 to 17 characters. */
CM_ENTRY cmspln(unsigned char *conversation_ID, unsigned char *partner_LU_name,
                CM_INT32 *partner_LU_name_length, CM_INT32 *return_code);
CM_ENTRY CMSPLN(unsigned char *conversation_ID, unsigned char *partner_LU_name,
                CM_INT32 *partner_LU_name_length, CM_INT32 *return_code);
/* Set_Prepare_To_Receive_Type: 0 to 2; confirm needs a sync level. */
CM_ENTRY cmsptr(unsigned char *conversation_ID, CM_INT32 *prepare_to_receive_type,
                CM_INT32 *return_code);
CM_ENTRY CMSPTR(unsigned char *conversation_ID, CM_INT32 *prepare_to_receive_type,
                CM_INT32 *return_code);
/* Set_Receive_Type: receive and wait (0) or immediate (1). */
CM_ENTRY cmsrt(unsigned char *conversation_ID, CM_INT32 *receive_type, CM_INT32 *return_code);
CM_ENTRY CMSRT(unsigned char *conversation_ID, CM_INT32 *receive_type, CM_INT32 *return_code);
/* Set_Return_Control: 0 or 1; initialize state. */
CM_ENTRY cmsrc(unsigned char *conversation_ID, CM_INT32 *return_control, CM_INT32 *return_code);
CM_ENTRY CMSRC(unsigned char *conversation_ID, CM_INT32 *return_control, CM_INT32 *return_code);
/* Set_Send_Type: 0 to 4; send and confirm needs a sync level. */
CM_ENTRY cmsst(unsigned char *conversation_ID, CM_INT32 *send_type, CM_INT32 *return_code);
CM_ENTRY CMSST(unsigned char *conversation_ID, CM_INT32 *send_type, CM_INT32 *return_code);
/* Set_Sync_Level: none (0) or confirm (1); initialize state. */
CM_ENTRY cmssl(unsigned char *conversation_ID, CM_INT32 *sync_level, CM_INT32 *return_code);
CM_ENTRY CMSSL(unsigned char *conversation_ID, CM_INT32 *sync_level, CM_INT32 *return_code);
/* Set_TP_Name: 1 to 64 characters; initialize state. */
CM_ENTRY cmstpn(unsigned char *conversation_ID, unsigned char *TP_name, CM_INT32 *TP_name_length,
                CM_INT32 *return_code);
CM_ENTRY CMSTPN(unsigned char *conversation_ID, unsigned char *TP_name, CM_INT32 *TP_name_length,
                CM_INT32 *return_code);
/* Set_Local_LU_Name: an LU alias of 1 to 8 characters, 0 for none. */
CM_ENTRY cmslln(unsigned char *conversation_ID, unsigned char *local_LU_name,
                CM_INT32 *local_LU_name_length, CM_INT32 *return_code);
CM_ENTRY CMSLLN(unsigned char *conversation_ID, unsigned char *local_LU_name,
                CM_INT32 *local_LU_name_length, CM_INT32 *return_code);

/* ---- Extract calls ---------------------------------------------------- */

/* Extract_Sync_Level. */
CM_ENTRY cmesl(unsigned char *conversation_ID, CM_INT32 *sync_level, CM_INT32 *return_code);
CM_ENTRY CMESL(unsigned char *conversation_ID, CM_INT32 *sync_level, CM_INT32 *return_code);
/* Extract_Conversation_Type. */
CM_ENTRY cmect(unsigned char *conversation_ID, CM_INT32 *conversation_type, CM_INT32 *return_code);
CM_ENTRY CMECT(unsigned char *conversation_ID, CM_INT32 *conversation_type, CM_INT32 *return_code);
/* Extract_Mode_Name: up to 8 characters. */
CM_ENTRY cmemn(unsigned char *conversation_ID, unsigned char *mode_name, CM_INT32 *mode_name_length,
               CM_INT32 *return_code);
CM_ENTRY CMEMN(unsigned char *conversation_ID, unsigned char *mode_name, CM_INT32 *mode_name_length,
               CM_INT32 *return_code);
/* Extract_Partner_LU_Name: up to 17 characters. */
CM_ENTRY cmepln(unsigned char *conversation_ID, unsigned char *partner_LU_name,
                CM_INT32 *partner_LU_name_length, CM_INT32 *return_code);
CM_ENTRY CMEPLN(unsigned char *conversation_ID, unsigned char *partner_LU_name,
                CM_INT32 *partner_LU_name_length, CM_INT32 *return_code);
/* Extract_Local_LU_Name: writes 9 bytes (8 and a zero byte). */
CM_ENTRY cmelln(unsigned char *conversation_ID, unsigned char *local_LU_name,
                CM_INT32 *local_LU_name_length, CM_INT32 *return_code);
CM_ENTRY CMELLN(unsigned char *conversation_ID, unsigned char *local_LU_name,
                CM_INT32 *local_LU_name_length, CM_INT32 *return_code);
/* Extract_TP_Name: up to 64 characters. */
CM_ENTRY cmetpn(unsigned char *conversation_ID, unsigned char *TP_name, CM_INT32 *TP_name_length,
                CM_INT32 *return_code);
CM_ENTRY CMETPN(unsigned char *conversation_ID, unsigned char *TP_name, CM_INT32 *TP_name_length,
                CM_INT32 *return_code);
/* Extract_Conversation_State: asks the node once a conversation exists. */
CM_ENTRY cmecs(unsigned char *conversation_ID, CM_INT32 *conversation_state, CM_INT32 *return_code);
CM_ENTRY CMECS(unsigned char *conversation_ID, CM_INT32 *conversation_state, CM_INT32 *return_code);

/* Allocate: starts the conversation with the partner named by its
 * characteristics. */
CM_ENTRY cmallc(unsigned char *conversation_ID, CM_INT32 *return_code);
CM_ENTRY CMALLC(unsigned char *conversation_ID, CM_INT32 *return_code);

/* Accept_Conversation: takes an incoming allocation into a new conversation. */
CM_ENTRY cmaccp(unsigned char *conversation_ID, CM_INT32 *return_code);
CM_ENTRY CMACCP(unsigned char *conversation_ID, CM_INT32 *return_code);

/* Accept_Incoming: takes an incoming allocation into a conversation made by
 * Initialize_For_Incoming. */
CM_ENTRY cmacci(unsigned char *conversation_ID, CM_INT32 *return_code);
CM_ENTRY CMACCI(unsigned char *conversation_ID, CM_INT32 *return_code);

/* Deallocate: ends the conversation as its deallocate type says. */
CM_ENTRY cmdeal(unsigned char *conversation_ID, CM_INT32 *return_code);
CM_ENTRY CMDEAL(unsigned char *conversation_ID, CM_INT32 *return_code);

/* Send_Data: sends one buffer (0 to 32767 bytes) as the send type says. */
CM_ENTRY cmsend(unsigned char *conversation_ID, unsigned char *buffer, CM_INT32 *send_length,
                CM_INT32 *request_to_send_received, CM_INT32 *return_code);
CM_ENTRY CMSEND(unsigned char *conversation_ID, unsigned char *buffer, CM_INT32 *send_length,
                CM_INT32 *request_to_send_received, CM_INT32 *return_code);

/* Receive: receives data and status into the buffer (0 to 32767 bytes). */
CM_ENTRY cmrcv(unsigned char *conversation_ID, unsigned char *buffer, CM_INT32 *requested_length,
               CM_INT32 *data_received, CM_INT32 *received_length, CM_INT32 *status_received,
               CM_INT32 *request_to_send_received, CM_INT32 *return_code);
CM_ENTRY CMRCV(unsigned char *conversation_ID, unsigned char *buffer, CM_INT32 *requested_length,
               CM_INT32 *data_received, CM_INT32 *received_length, CM_INT32 *status_received,
               CM_INT32 *request_to_send_received, CM_INT32 *return_code);

/* Confirm: asks the partner to confirm the data sent. */
CM_ENTRY cmcfm(unsigned char *conversation_ID, CM_INT32 *request_to_send_received,
               CM_INT32 *return_code);
CM_ENTRY CMCFM(unsigned char *conversation_ID, CM_INT32 *request_to_send_received,
               CM_INT32 *return_code);

/* Confirmed: answers the partner's confirmation request positively. */
CM_ENTRY cmcfmd(unsigned char *conversation_ID, CM_INT32 *return_code);
CM_ENTRY CMCFMD(unsigned char *conversation_ID, CM_INT32 *return_code);

/* Flush: sends whatever data is buffered. */
CM_ENTRY cmflus(unsigned char *conversation_ID, CM_INT32 *return_code);
CM_ENTRY CMFLUS(unsigned char *conversation_ID, CM_INT32 *return_code);

/* Prepare_To_Receive: gives the partner the right to send. */
CM_ENTRY cmptr(unsigned char *conversation_ID, CM_INT32 *return_code);
CM_ENTRY CMPTR(unsigned char *conversation_ID, CM_INT32 *return_code);

/* Request_To_Send: asks the partner for the right to send. */
CM_ENTRY cmrts(unsigned char *conversation_ID, CM_INT32 *return_code);
CM_ENTRY CMRTS(unsigned char *conversation_ID, CM_INT32 *return_code);

/* Send_Error: reports an error to the partner. */
CM_ENTRY cmserr(unsigned char *conversation_ID, CM_INT32 *request_to_send_received,
                CM_INT32 *return_code);
CM_ENTRY CMSERR(unsigned char *conversation_ID, CM_INT32 *request_to_send_received,
                CM_INT32 *return_code);

/* Test_Request_To_Send_Received: whether the partner asked to send. */
CM_ENTRY cmtrts(unsigned char *conversation_ID, CM_INT32 *request_to_send_received,
                CM_INT32 *return_code);
CM_ENTRY CMTRTS(unsigned char *conversation_ID, CM_INT32 *request_to_send_received,
                CM_INT32 *return_code);

/* Wait_For_Conversation: waits for a non-blocking call to complete and
 * collects it. */
CM_ENTRY cmwait(unsigned char *conversation_ID, CM_INT32 *conversation_return_code,
                CM_INT32 *return_code);
CM_ENTRY CMWAIT(unsigned char *conversation_ID, CM_INT32 *conversation_return_code,
                CM_INT32 *return_code);

/* Check: the conversation of a completed non-blocking call, without waiting
 * or collecting it. */
CM_ENTRY cmchck(unsigned char *conversation_ID, CM_INT32 *return_code);
CM_ENTRY CMCHCK(unsigned char *conversation_ID, CM_INT32 *return_code);

/* Cancel_Conversation: ends the conversation and its outstanding call. */
CM_ENTRY cmcanc(unsigned char *conversation_ID, CM_INT32 *return_code);
CM_ENTRY CMCANC(unsigned char *conversation_ID, CM_INT32 *return_code);

/* Set context: makes a known TP id (8 bytes) the current context. */
CM_ENTRY cmsctx(unsigned char *context_ID, CM_INT32 *context_ID_length, CM_INT32 *return_code);
CM_ENTRY CMSCTX(unsigned char *context_ID, CM_INT32 *context_ID_length, CM_INT32 *return_code);

/* Extract context: the conversation's TP id (8 bytes). */
CM_ENTRY cmectx(unsigned char *conversation_ID, unsigned char *context_ID,
                CM_INT32 *context_ID_length, CM_INT32 *return_code);
CM_ENTRY CMECTX(unsigned char *conversation_ID, unsigned char *context_ID,
                CM_INT32 *context_ID_length, CM_INT32 *return_code);

/* Set_Processing_Mode: blocking (0) or non-blocking (1) completion. */
CM_ENTRY cmspm(unsigned char *conversation_ID, CM_INT32 *processing_mode, CM_INT32 *return_code);
CM_ENTRY CMSPM(unsigned char *conversation_ID, CM_INT32 *processing_mode, CM_INT32 *return_code);

/* ---- Conversation security ------------------------------------------- */

/* Set_Conversation_Security_Type: NONE, SAME, PROGRAM or PROGRAM_STRONG. */
CM_ENTRY cmscst(unsigned char *conversation_ID, CM_INT32 *conversation_security_type,
                CM_INT32 *return_code);
CM_ENTRY CMSCST(unsigned char *conversation_ID, CM_INT32 *conversation_security_type,
                CM_INT32 *return_code);
/* Set_Conversation_Security_Type, extension name. */
CM_ENTRY xcscst(unsigned char *conversation_ID, CM_INT32 *conversation_security_type,
                CM_INT32 *return_code);
CM_ENTRY XCSCST(unsigned char *conversation_ID, CM_INT32 *conversation_security_type,
                CM_INT32 *return_code);
/* Set_Conversation_Security_User_ID: 1 to 10 characters, after the type. */
CM_ENTRY cmscsu(unsigned char *conversation_ID, unsigned char *user_ID, CM_INT32 *user_ID_length,
                CM_INT32 *return_code);
CM_ENTRY CMSCSU(unsigned char *conversation_ID, unsigned char *user_ID, CM_INT32 *user_ID_length,
                CM_INT32 *return_code);
/* Set_Conversation_Security_User_ID, extension name. */
CM_ENTRY xcscsu(unsigned char *conversation_ID, unsigned char *user_ID, CM_INT32 *user_ID_length,
                CM_INT32 *return_code);
CM_ENTRY XCSCSU(unsigned char *conversation_ID, unsigned char *user_ID, CM_INT32 *user_ID_length,
                CM_INT32 *return_code);
/* Set_Conversation_Security_Password: 1 to 10 characters, type PROGRAM. */
CM_ENTRY cmscsp(unsigned char *conversation_ID, unsigned char *password, CM_INT32 *password_length,
                CM_INT32 *return_code);
CM_ENTRY CMSCSP(unsigned char *conversation_ID, unsigned char *password, CM_INT32 *password_length,
                CM_INT32 *return_code);
/* Set_Conversation_Security_Password, extension name. */
CM_ENTRY xcscsp(unsigned char *conversation_ID, unsigned char *password, CM_INT32 *password_length,
                CM_INT32 *return_code);
CM_ENTRY XCSCSP(unsigned char *conversation_ID, unsigned char *password, CM_INT32 *password_length,
                CM_INT32 *return_code);
/* Extract_Conversation_Security_Type. */
CM_ENTRY cmecst(unsigned char *conversation_ID, CM_INT32 *conversation_security_type,
                CM_INT32 *return_code);
CM_ENTRY CMECST(unsigned char *conversation_ID, CM_INT32 *conversation_security_type,
                CM_INT32 *return_code);
/* Extract_Conversation_Security_Type, extension name. */
CM_ENTRY xcecst(unsigned char *conversation_ID, CM_INT32 *conversation_security_type,
                CM_INT32 *return_code);
CM_ENTRY XCECST(unsigned char *conversation_ID, CM_INT32 *conversation_security_type,
                CM_INT32 *return_code);
/* Extract_Conversation_Security_User_ID: at most 8 characters copied. */
CM_ENTRY cmecsu(unsigned char *conversation_ID, unsigned char *user_ID, CM_INT32 *user_ID_length,
                CM_INT32 *return_code);
CM_ENTRY CMECSU(unsigned char *conversation_ID, unsigned char *user_ID, CM_INT32 *user_ID_length,
                CM_INT32 *return_code);
/* Extract_Conversation_Security_User_ID, extension name. */
CM_ENTRY xcecsu(unsigned char *conversation_ID, unsigned char *user_ID, CM_INT32 *user_ID_length,
                CM_INT32 *return_code);
CM_ENTRY XCECSU(unsigned char *conversation_ID, unsigned char *user_ID, CM_INT32 *user_ID_length,
                CM_INT32 *return_code);
/* Extract_Security_User_ID: up to 10 characters copied. */
CM_ENTRY cmesui(unsigned char *conversation_ID, unsigned char *user_ID, CM_INT32 *user_ID_length,
                CM_INT32 *return_code);
CM_ENTRY CMESUI(unsigned char *conversation_ID, unsigned char *user_ID, CM_INT32 *user_ID_length,
                CM_INT32 *return_code);

/* ---- Side information of this process --------------------------------- */

/* The application's side-information entry: ASCII, blank-padded. */
typedef struct XC_SIDE_INFO_ENTRY {
  unsigned char sym_dest_name[8];
  unsigned char partner_LU_name[17]; /* LU alias, or NETID.LUNAME */
  unsigned char reserved[3];
  CM_INT32 TP_name_type;             /* XC_APPLICATION_TP, XC_SNA_SERVICE_TP */
  unsigned char TP_name[64];         /* service TP: first byte raw */
  unsigned char mode_name[8];
  CM_INT32 conversation_security_type;
  unsigned char security_user_ID[8];
  unsigned char security_password[8];
} XC_SIDE_INFO_ENTRY;

#ifdef __cplusplus
#define CPIC_STATIC_ASSERT(e, m) static_assert(e, m)
#else
#define CPIC_STATIC_ASSERT(e, m) _Static_assert(e, m)
#endif
CPIC_STATIC_ASSERT(sizeof(XC_SIDE_INFO_ENTRY) == 124, "XC_SIDE_INFO_ENTRY size");
CPIC_STATIC_ASSERT(__builtin_offsetof(XC_SIDE_INFO_ENTRY, partner_LU_name) == 8, "partner_LU_name");
CPIC_STATIC_ASSERT(__builtin_offsetof(XC_SIDE_INFO_ENTRY, TP_name_type) == 28, "TP_name_type");
CPIC_STATIC_ASSERT(__builtin_offsetof(XC_SIDE_INFO_ENTRY, TP_name) == 32, "TP_name");
CPIC_STATIC_ASSERT(__builtin_offsetof(XC_SIDE_INFO_ENTRY, mode_name) == 96, "mode_name");
CPIC_STATIC_ASSERT(__builtin_offsetof(XC_SIDE_INFO_ENTRY, conversation_security_type) == 104,
                   "conversation_security_type");
CPIC_STATIC_ASSERT(__builtin_offsetof(XC_SIDE_INFO_ENTRY, security_user_ID) == 108, "security_user_ID");
CPIC_STATIC_ASSERT(__builtin_offsetof(XC_SIDE_INFO_ENTRY, security_password) == 116, "security_password");
#undef CPIC_STATIC_ASSERT

/* Set_CPIC_Side_Information: adds or replaces an entry (length 124). */
CM_ENTRY xcmssi(CM_INT32 *key, XC_SIDE_INFO_ENTRY *side_info_entry,
                CM_INT32 *side_info_entry_length, CM_INT32 *return_code);
CM_ENTRY XCMSSI(CM_INT32 *key, XC_SIDE_INFO_ENTRY *side_info_entry,
                CM_INT32 *side_info_entry_length, CM_INT32 *return_code);
/* Extract_CPIC_Side_Information: the entry of a name; no password. */
CM_ENTRY xcmesi(CM_INT32 *key, unsigned char *sym_dest_name, XC_SIDE_INFO_ENTRY *side_info_entry,
                CM_INT32 *side_info_entry_length, CM_INT32 *return_code);
CM_ENTRY XCMESI(CM_INT32 *key, unsigned char *sym_dest_name, XC_SIDE_INFO_ENTRY *side_info_entry,
                CM_INT32 *side_info_entry_length, CM_INT32 *return_code);
/* Delete_CPIC_Side_Information: hides the name from this process. */
CM_ENTRY xcmdsi(CM_INT32 *key, unsigned char *sym_dest_name, CM_INT32 *return_code);
CM_ENTRY XCMDSI(CM_INT32 *key, unsigned char *sym_dest_name, CM_INT32 *return_code);

/* ---- Local TP names ---------------------------------------------------- */

/* Specify_Local_TP_Name: registers a name (1 to 64 characters). */
CM_ENTRY cmsltp(unsigned char *TP_name, CM_INT32 *TP_name_length, CM_INT32 *return_code);
CM_ENTRY CMSLTP(unsigned char *TP_name, CM_INT32 *TP_name_length, CM_INT32 *return_code);
/* Release_Local_TP_Name: withdraws a registered name. */
CM_ENTRY cmrltp(unsigned char *TP_name, CM_INT32 *TP_name_length, CM_INT32 *return_code);
CM_ENTRY CMRLTP(unsigned char *TP_name, CM_INT32 *TP_name_length, CM_INT32 *return_code);

/* Version stamps of the library. */
SNA_EXPORT char *ocpic_verstamp(void);
SNA_EXPORT char *ocpic_verstamp_tvt(void);

#ifdef __cplusplus
}
#endif

#endif
