// Upper-case entry points: each passes its arguments unchanged to the
// lower-case worker of the same name.
#include "cpic.h"

extern "C" {

SNA_EXPORT void CMINIT(unsigned char *conversation_ID, unsigned char *sym_dest_name,
                       CM_INT32 *return_code) {
  cminit(conversation_ID, sym_dest_name, return_code);
}
SNA_EXPORT void CMINIC(unsigned char *conversation_ID, CM_INT32 *return_code) {
  cminic(conversation_ID, return_code);
}
SNA_EXPORT void CMEMBS(CM_INT32 *maximum_buffer_size, CM_INT32 *return_code) {
  cmembs(maximum_buffer_size, return_code);
}
SNA_EXPORT void CMCNVO(unsigned char *buffer, CM_INT32 *length, CM_INT32 *return_code) {
  cmcnvo(buffer, length, return_code);
}
SNA_EXPORT void CMCNVI(unsigned char *buffer, CM_INT32 *length, CM_INT32 *return_code) {
  cmcnvi(buffer, length, return_code);
}
SNA_EXPORT void CMTERM(CM_INT32 *termination_type, CM_INT32 *return_code) {
  cmterm(termination_type, return_code);
}

SNA_EXPORT void CMSCT(unsigned char *conversation_ID, CM_INT32 *conversation_type, CM_INT32 *return_code) {
  cmsct(conversation_ID, conversation_type, return_code);
}
SNA_EXPORT void CMSDT(unsigned char *conversation_ID, CM_INT32 *deallocate_type, CM_INT32 *return_code) {
  cmsdt(conversation_ID, deallocate_type, return_code);
}
SNA_EXPORT void CMSED(unsigned char *conversation_ID, CM_INT32 *error_direction, CM_INT32 *return_code) {
  cmsed(conversation_ID, error_direction, return_code);
}
SNA_EXPORT void CMSF(unsigned char *conversation_ID, CM_INT32 *fill, CM_INT32 *return_code) {
  cmsf(conversation_ID, fill, return_code);
}
SNA_EXPORT void CMSLD(unsigned char *conversation_ID, unsigned char *log_data, CM_INT32 *log_data_length, CM_INT32 *return_code) {
  cmsld(conversation_ID, log_data, log_data_length, return_code);
}
SNA_EXPORT void CMSMN(unsigned char *conversation_ID, unsigned char *mode_name, CM_INT32 *mode_name_length, CM_INT32 *return_code) {
  cmsmn(conversation_ID, mode_name, mode_name_length, return_code);
}
SNA_EXPORT void CMSPLN(unsigned char *conversation_ID, unsigned char *partner_LU_name, CM_INT32 *partner_LU_name_length, CM_INT32 *return_code) {
  cmspln(conversation_ID, partner_LU_name, partner_LU_name_length, return_code);
}
SNA_EXPORT void CMSPTR(unsigned char *conversation_ID, CM_INT32 *prepare_to_receive_type, CM_INT32 *return_code) {
  cmsptr(conversation_ID, prepare_to_receive_type, return_code);
}
SNA_EXPORT void CMSRT(unsigned char *conversation_ID, CM_INT32 *receive_type, CM_INT32 *return_code) {
  cmsrt(conversation_ID, receive_type, return_code);
}
SNA_EXPORT void CMSRC(unsigned char *conversation_ID, CM_INT32 *return_control, CM_INT32 *return_code) {
  cmsrc(conversation_ID, return_control, return_code);
}
SNA_EXPORT void CMSST(unsigned char *conversation_ID, CM_INT32 *send_type, CM_INT32 *return_code) {
  cmsst(conversation_ID, send_type, return_code);
}
SNA_EXPORT void CMSSL(unsigned char *conversation_ID, CM_INT32 *sync_level, CM_INT32 *return_code) {
  cmssl(conversation_ID, sync_level, return_code);
}
SNA_EXPORT void CMSTPN(unsigned char *conversation_ID, unsigned char *TP_name, CM_INT32 *TP_name_length, CM_INT32 *return_code) {
  cmstpn(conversation_ID, TP_name, TP_name_length, return_code);
}
SNA_EXPORT void CMSLLN(unsigned char *conversation_ID, unsigned char *local_LU_name, CM_INT32 *local_LU_name_length, CM_INT32 *return_code) {
  cmslln(conversation_ID, local_LU_name, local_LU_name_length, return_code);
}
SNA_EXPORT void CMESL(unsigned char *conversation_ID, CM_INT32 *sync_level, CM_INT32 *return_code) {
  cmesl(conversation_ID, sync_level, return_code);
}
SNA_EXPORT void CMECT(unsigned char *conversation_ID, CM_INT32 *conversation_type, CM_INT32 *return_code) {
  cmect(conversation_ID, conversation_type, return_code);
}
SNA_EXPORT void CMEMN(unsigned char *conversation_ID, unsigned char *mode_name, CM_INT32 *mode_name_length, CM_INT32 *return_code) {
  cmemn(conversation_ID, mode_name, mode_name_length, return_code);
}
SNA_EXPORT void CMEPLN(unsigned char *conversation_ID, unsigned char *partner_LU_name, CM_INT32 *partner_LU_name_length, CM_INT32 *return_code) {
  cmepln(conversation_ID, partner_LU_name, partner_LU_name_length, return_code);
}
SNA_EXPORT void CMELLN(unsigned char *conversation_ID, unsigned char *local_LU_name, CM_INT32 *local_LU_name_length, CM_INT32 *return_code) {
  cmelln(conversation_ID, local_LU_name, local_LU_name_length, return_code);
}
SNA_EXPORT void CMETPN(unsigned char *conversation_ID, unsigned char *TP_name, CM_INT32 *TP_name_length, CM_INT32 *return_code) {
  cmetpn(conversation_ID, TP_name, TP_name_length, return_code);
}
SNA_EXPORT void CMECS(unsigned char *conversation_ID, CM_INT32 *conversation_state, CM_INT32 *return_code) {
  cmecs(conversation_ID, conversation_state, return_code);
}

// Conversation calls.
SNA_EXPORT void CMALLC(unsigned char *conversation_ID, CM_INT32 *return_code) {
  cmallc(conversation_ID, return_code);
}
SNA_EXPORT void CMACCP(unsigned char *conversation_ID, CM_INT32 *return_code) {
  cmaccp(conversation_ID, return_code);
}
SNA_EXPORT void CMACCI(unsigned char *conversation_ID, CM_INT32 *return_code) {
  cmacci(conversation_ID, return_code);
}
SNA_EXPORT void CMDEAL(unsigned char *conversation_ID, CM_INT32 *return_code) {
  cmdeal(conversation_ID, return_code);
}
SNA_EXPORT void CMSEND(unsigned char *conversation_ID, unsigned char *buffer, CM_INT32 *send_length, CM_INT32 *request_to_send_received, CM_INT32 *return_code) {
  cmsend(conversation_ID, buffer, send_length, request_to_send_received, return_code);
}
SNA_EXPORT void CMRCV(unsigned char *conversation_ID, unsigned char *buffer, CM_INT32 *requested_length, CM_INT32 *data_received, CM_INT32 *received_length, CM_INT32 *status_received, CM_INT32 *request_to_send_received, CM_INT32 *return_code) {
  cmrcv(conversation_ID, buffer, requested_length, data_received, received_length, status_received, request_to_send_received, return_code);
}
SNA_EXPORT void CMCFM(unsigned char *conversation_ID, CM_INT32 *request_to_send_received, CM_INT32 *return_code) {
  cmcfm(conversation_ID, request_to_send_received, return_code);
}
SNA_EXPORT void CMCFMD(unsigned char *conversation_ID, CM_INT32 *return_code) {
  cmcfmd(conversation_ID, return_code);
}
SNA_EXPORT void CMFLUS(unsigned char *conversation_ID, CM_INT32 *return_code) {
  cmflus(conversation_ID, return_code);
}
SNA_EXPORT void CMPTR(unsigned char *conversation_ID, CM_INT32 *return_code) {
  cmptr(conversation_ID, return_code);
}
SNA_EXPORT void CMRTS(unsigned char *conversation_ID, CM_INT32 *return_code) {
  cmrts(conversation_ID, return_code);
}
SNA_EXPORT void CMSERR(unsigned char *conversation_ID, CM_INT32 *request_to_send_received, CM_INT32 *return_code) {
  cmserr(conversation_ID, request_to_send_received, return_code);
}
SNA_EXPORT void CMTRTS(unsigned char *conversation_ID, CM_INT32 *request_to_send_received, CM_INT32 *return_code) {
  cmtrts(conversation_ID, request_to_send_received, return_code);
}
SNA_EXPORT void CMWAIT(unsigned char *conversation_ID, CM_INT32 *conversation_return_code, CM_INT32 *return_code) {
  cmwait(conversation_ID, conversation_return_code, return_code);
}
SNA_EXPORT void CMCHCK(unsigned char *conversation_ID, CM_INT32 *return_code) {
  cmchck(conversation_ID, return_code);
}
SNA_EXPORT void CMCANC(unsigned char *conversation_ID, CM_INT32 *return_code) {
  cmcanc(conversation_ID, return_code);
}
SNA_EXPORT void CMSCTX(unsigned char *context_ID, CM_INT32 *context_ID_length, CM_INT32 *return_code) {
  cmsctx(context_ID, context_ID_length, return_code);
}
SNA_EXPORT void CMECTX(unsigned char *conversation_ID, unsigned char *context_ID, CM_INT32 *context_ID_length, CM_INT32 *return_code) {
  cmectx(conversation_ID, context_ID, context_ID_length, return_code);
}
SNA_EXPORT void CMSPM(unsigned char *conversation_ID, CM_INT32 *processing_mode, CM_INT32 *return_code) {
  cmspm(conversation_ID, processing_mode, return_code);
}

SNA_EXPORT void CMSCST(unsigned char *conversation_ID, CM_INT32 *conversation_security_type, CM_INT32 *return_code) {
  cmscst(conversation_ID, conversation_security_type, return_code);
}
SNA_EXPORT void XCSCST(unsigned char *conversation_ID, CM_INT32 *conversation_security_type, CM_INT32 *return_code) {
  xcscst(conversation_ID, conversation_security_type, return_code);
}
SNA_EXPORT void CMSCSU(unsigned char *conversation_ID, unsigned char *user_ID, CM_INT32 *user_ID_length, CM_INT32 *return_code) {
  cmscsu(conversation_ID, user_ID, user_ID_length, return_code);
}
SNA_EXPORT void XCSCSU(unsigned char *conversation_ID, unsigned char *user_ID, CM_INT32 *user_ID_length, CM_INT32 *return_code) {
  xcscsu(conversation_ID, user_ID, user_ID_length, return_code);
}
SNA_EXPORT void CMSCSP(unsigned char *conversation_ID, unsigned char *password, CM_INT32 *password_length, CM_INT32 *return_code) {
  cmscsp(conversation_ID, password, password_length, return_code);
}
SNA_EXPORT void XCSCSP(unsigned char *conversation_ID, unsigned char *password, CM_INT32 *password_length, CM_INT32 *return_code) {
  xcscsp(conversation_ID, password, password_length, return_code);
}
SNA_EXPORT void CMECST(unsigned char *conversation_ID, CM_INT32 *conversation_security_type, CM_INT32 *return_code) {
  cmecst(conversation_ID, conversation_security_type, return_code);
}
SNA_EXPORT void XCECST(unsigned char *conversation_ID, CM_INT32 *conversation_security_type, CM_INT32 *return_code) {
  xcecst(conversation_ID, conversation_security_type, return_code);
}
SNA_EXPORT void CMECSU(unsigned char *conversation_ID, unsigned char *user_ID, CM_INT32 *user_ID_length, CM_INT32 *return_code) {
  cmecsu(conversation_ID, user_ID, user_ID_length, return_code);
}
SNA_EXPORT void XCECSU(unsigned char *conversation_ID, unsigned char *user_ID, CM_INT32 *user_ID_length, CM_INT32 *return_code) {
  xcecsu(conversation_ID, user_ID, user_ID_length, return_code);
}
SNA_EXPORT void CMESUI(unsigned char *conversation_ID, unsigned char *user_ID, CM_INT32 *user_ID_length, CM_INT32 *return_code) {
  cmesui(conversation_ID, user_ID, user_ID_length, return_code);
}
SNA_EXPORT void XCMSSI(CM_INT32 *key, XC_SIDE_INFO_ENTRY *side_info_entry, CM_INT32 *side_info_entry_length, CM_INT32 *return_code) {
  xcmssi(key, side_info_entry, side_info_entry_length, return_code);
}
SNA_EXPORT void XCMESI(CM_INT32 *key, unsigned char *sym_dest_name, XC_SIDE_INFO_ENTRY *side_info_entry, CM_INT32 *side_info_entry_length, CM_INT32 *return_code) {
  xcmesi(key, sym_dest_name, side_info_entry, side_info_entry_length, return_code);
}
SNA_EXPORT void XCMDSI(CM_INT32 *key, unsigned char *sym_dest_name, CM_INT32 *return_code) {
  xcmdsi(key, sym_dest_name, return_code);
}
SNA_EXPORT void CMSLTP(unsigned char *TP_name, CM_INT32 *TP_name_length, CM_INT32 *return_code) {
  cmsltp(TP_name, TP_name_length, return_code);
}
SNA_EXPORT void CMRLTP(unsigned char *TP_name, CM_INT32 *TP_name_length, CM_INT32 *return_code) {
  cmrltp(TP_name, TP_name_length, return_code);
}

}  // extern "C"
