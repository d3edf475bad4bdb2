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

}  // extern "C"
