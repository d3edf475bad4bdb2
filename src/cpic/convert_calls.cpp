// Convert_Outgoing and Convert_Incoming: the program's own data between
// ASCII and EBCDIC, in place. Neither needs an initialised library.
#include "cpic.h"
#include "internal.h"

using namespace cpic;

namespace {

void convert_call(uint32_t verb, uint8_t direction, unsigned char *buffer, CM_INT32 *length,
                  CM_INT32 *return_code) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (api_trace_on()) seputrcp(1, verb, nullptr, buffer, length, nullptr, nullptr, nullptr, nullptr);
  if (*length > CM_MAXIMUM_BUFFER_SIZE) {
    *return_code = CM_PROGRAM_PARAMETER_CHECK;
  } else {
    // The low 16 bits as a signed count, as the conversion routine takes
    // it: -1 converts nothing, but -65535 converts one byte (kept as the
    // call has always behaved).
    SCC_convert_string(direction, 3, static_cast<int16_t>(*length), buffer, buffer);
    *return_code = CM_OK;
  }
  if (api_trace_on()) seputrcp(2, verb, nullptr, return_code, buffer, length, nullptr, nullptr, nullptr);
  vpm_unlock(token);
}

}  // namespace

extern "C" SNA_EXPORT void cmcnvo(unsigned char *buffer, CM_INT32 *length, CM_INT32 *return_code) {
  convert_call(54, 0, buffer, length, return_code);
}

extern "C" SNA_EXPORT void cmcnvi(unsigned char *buffer, CM_INT32 *length, CM_INT32 *return_code) {
  convert_call(53, 1, buffer, length, return_code);
}
