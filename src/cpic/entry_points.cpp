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

}  // extern "C"
