// Contexts: Set context (CMSCTX) makes a known TP the one new
// conversations are allocated for; Extract context (CMECTX) gives a
// conversation's TP id.
#include <cstring>

#include "cpic.h"
#include "internal.h"

namespace cpic {

uint16_t SCC_context_valid(const uint8_t *context_id, CCCB **cccb_out) {
  GCB *g = pGCB;
  *cccb_out = nullptr;
  void *p = nullptr;
  for (uint32_t h = vtm_get_next_used(g->hCccbTable, 0, &p); h != 0;
       h = vtm_get_next_used(g->hCccbTable, h, &p)) {
    auto *c = static_cast<CCCB *>(p);
    if (c != nullptr && std::memcmp(c->abTpId, context_id, 8) == 0) {
      *cccb_out = c;
      return 1;
    }
  }
  return std::memcmp(g->abContextTpId, context_id, 8) == 0 ? 1 : 0;
}

}  // namespace cpic

using namespace cpic;

extern "C" SNA_EXPORT void cmsctx(unsigned char *context_ID, CM_INT32 *context_ID_length,
                                  CM_INT32 *return_code) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (api_trace_on()) seputrcp(1, 57, nullptr, context_ID, context_ID_length, nullptr, nullptr, nullptr, nullptr);
  if (fInitCPIC == 0) SCC_init();
  GCB *g = pGCB;
  CCCB *c = nullptr;
  if (fInitCPIC == 0) {
    *return_code = CM_PRODUCT_SPECIFIC_ERROR;
  } else if (*context_ID_length != 8) {
    *return_code = CM_PROGRAM_PARAMETER_CHECK;
  } else if (std::memcmp(context_ID, g->abContextTpId, 8) == 0) {
    *return_code = CM_OK;
  } else if (SCC_context_valid(context_ID, &c) != 0) {
    if (c == nullptr) {
      v0_assert(SRC_CPICCAL1, 3545, "cccb_ptr != NULL");
    } else {
      // The TP being left ends when no conversation of it remains.
      if (!all_zero(g->abContextTpId, 8) && SCC_cccbs_using_tpid(g->abContextTpId) == 0) {
        SCC_context_ended(g->abContextTpId, 1, nullptr, nullptr);
      }
      std::memcpy(g->abContextTpId, context_ID, 8);
      std::memcpy(g->abContextLuAlias, c->abLocalLuAlias, 8);
    }
    *return_code = CM_OK;
  } else {
    *return_code = CM_PROGRAM_PARAMETER_CHECK;
  }
  if (api_trace_on()) seputrcp(2, 57, nullptr, return_code, nullptr, nullptr, nullptr, nullptr, nullptr);
  vpm_unlock(token);
}

extern "C" SNA_EXPORT void cmectx(unsigned char *conversation_ID, unsigned char *context_ID,
                                  CM_INT32 *context_ID_length, CM_INT32 *return_code) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (api_trace_on()) seputrcp(1, 56, nullptr, conversation_ID, nullptr, nullptr, nullptr, nullptr, nullptr);
  CCCB *c = SCC_init_and_find(conversation_ID, return_code, 6);
  if (c != nullptr) {
    if (c->ulApplConvId == 0) {
      *return_code = CM_PROGRAM_STATE_CHECK;
    } else {
      std::memcpy(context_ID, c->abTpId, 8);
      *context_ID_length = 8;
      *return_code = CM_OK;
    }
  }
  SCC_trace_response(56, conversation_ID, return_code, context_ID, context_ID_length, nullptr,
                     nullptr, nullptr);
  vpm_unlock(token);
}
