// APPC primary and secondary return codes to the one CPI-C return code.
#include "cpic.h"
#include "internal.h"

namespace cpic {

namespace {

int32_t map_parameter_check(uint32_t secondary) {
  switch (secondary) {
    case 0x00000031: case 0x000000F1: case 0x0000015B:
      return CM_PROGRAM_PARAMETER_CHECK;
    case 0x00000017: case 0x00000018:
      return CM_PARAMETER_ERROR;
    default:
      return CM_PRODUCT_SPECIFIC_ERROR;
  }
}

int32_t map_allocation_error(uint32_t secondary) {
  if (secondary >= 0x080FFF00 && secondary <= 0x080FFF0D) return CM_SECURITY_NOT_VALID;
  switch (secondary) {
    case 0x00000004: return CM_ALLOCATE_FAILURE_NO_RETRY;
    case 0x00000005: return CM_ALLOCATE_FAILURE_RETRY;
    case 0x10086034: return CM_CONVERSATION_TYPE_MISMATCH;
    // 0x10086031 (PIP not allowed) stays a product-specific error on
    // purpose: this library never sends program initialisation parameters.
    case 0x10086031: return CM_PRODUCT_SPECIFIC_ERROR;
    case 0x080F6051: case 0x00009016: case 0x080F6058: return CM_SECURITY_NOT_VALID;
    case 0x10086041: return CM_SYNC_LVL_NOT_SUPPORTED_PGM;
    case 0x10086021: return CM_TPN_NOT_RECOGNIZED;
    case 0x084C0000: return CM_TP_NOT_AVAILABLE_NO_RETRY;
    case 0x084B6031: return CM_TP_NOT_AVAILABLE_RETRY;
    default: return CM_PRODUCT_SPECIFIC_ERROR;
  }
}

}  // namespace

// primary and secondary are the fields as the node stored them (big-endian);
// they are compared as the numbers they spell.
void SCC_map_return_codes(int32_t *return_code_out, uint16_t primary, uint32_t secondary,
                          uint16_t opcode) {
  const uint16_t p = be16(primary);
  const uint32_t s = be32(secondary);
  int32_t rc;
  switch (p) {
    case 0x0001: rc = map_parameter_check(s); break;
    case 0x0002: rc = CM_PROGRAM_STATE_CHECK; break;
    case 0x0003: rc = map_allocation_error(s); break;
    case 0x0005: case 0x0006: rc = CM_DEALLOCATED_ABEND; break;
    case 0x0007: rc = CM_DEALLOCATED_ABEND_SVC; break;
    case 0x0008: rc = CM_DEALLOCATED_ABEND_TIMER; break;
    case 0x0009: rc = CM_DEALLOCATED_NORMAL; break;
    case 0x000C: rc = CM_PROGRAM_ERROR_NO_TRUNC; break;
    case 0x000D: rc = CM_PROGRAM_ERROR_TRUNC; break;
    case 0x000E: rc = CM_PROGRAM_ERROR_PURGING; break;
    case 0x000F: rc = CM_RESOURCE_FAILURE_RETRY; break;
    case 0x0010: rc = CM_RESOURCE_FAILURE_NO_RETRY; break;
    case 0x0011: rc = CM_SVC_ERROR_NO_TRUNC; break;
    case 0x0012: rc = CM_SVC_ERROR_TRUNC; break;
    case 0x0013: rc = CM_SVC_ERROR_PURGING; break;
    case 0x0014: rc = CM_UNSUCCESSFUL; break;
    default: rc = CM_PRODUCT_SPECIFIC_ERROR; break;  // 0xF002..0xF004 and the unknown
  }
  *return_code_out = rc;
  if (rc == CM_PRODUCT_SPECIFIC_ERROR) {
    nba_pd_print_problem(MSG_UNMAPPED_APPC_RC, 1, "x x lx", opcode, primary, secondary);
  }
}

}  // namespace cpic
