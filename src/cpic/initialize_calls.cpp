// Initialize_Conversation, Initialize_For_Incoming and
// Extract_Maximum_Buffer_Size: conversations made without the partner.
#include <cstring>

#include "cpic.h"
#include "internal.h"

using namespace cpic;

namespace {

// Frame step 4: initialise on first use. false when that failed.
bool ensure_initialised() {
  if (fInitCPIC == 0) SCC_init();
  return fInitCPIC != 0;
}

void trace_response(uint32_t verb, const uint8_t *conversation_id, CM_INT32 *return_code) {
  if (!api_trace_on()) return;
  CCCB *c = nullptr;
  SCC_find_cccb(conversation_id, &c, pGCB);
  seputrcp(2, verb, c, return_code, conversation_id, nullptr, nullptr, nullptr, nullptr);
}

// The conversation's local LU alias: the context's fills an empty one, the
// environment's replaces whatever side information gave.
void choose_local_lu_alias(CCCB *c) {
  const GCB *g = pGCB;
  if (!all_zero(g->abContextTpId, 8) && all_zero(c->abLocalLuAlias, 8)) {
    std::memcpy(c->abLocalLuAlias, g->abContextLuAlias, 8);
  } else if (!all_zero(g->abDefaultLuAlias, 8)) {
    std::memcpy(c->abLocalLuAlias, g->abDefaultLuAlias, 8);
  }
}

}  // namespace

extern "C" SNA_EXPORT void cminit(unsigned char *conversation_ID, unsigned char *sym_dest_name,
                                  CM_INT32 *return_code) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (api_trace_on()) seputrcp(1, 11, nullptr, conversation_ID, sym_dest_name, nullptr, nullptr, nullptr, nullptr);
  CCCB *c = nullptr;
  if (!ensure_initialised() || SCC_cccb_init(conversation_ID, &c) == 0) {
    *return_code = CM_PRODUCT_SPECIFIC_ERROR;
  } else {
    c->fInitialized = 1;
    std::memcpy(c->si.abSymDestName, sym_dest_name, 8);
    // Only the first byte decides: a name that starts blank is no name.
    if (sym_dest_name[0] != ' ' && SCD_main(1, &c->si) != CM_OK) {
      if (!audits_suppressed()) nba_pd_print_audit(MSG_UNKNOWN_SYM_DEST, 0, "es", 8, sym_dest_name);
      *return_code = CM_PROGRAM_PARAMETER_CHECK;
      SCC_free_cccb(c);
    } else {
      *return_code = CM_OK;
      std::memcpy(c->abLocalLuAlias, c->si.abSiLocalLuAlias, 8);
      choose_local_lu_alias(c);
    }
  }
  trace_response(11, conversation_ID, return_code);
  vpm_unlock(token);
}

extern "C" SNA_EXPORT void cminic(unsigned char *conversation_ID, CM_INT32 *return_code) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (api_trace_on()) seputrcp(1, 41, nullptr, conversation_ID, nullptr, nullptr, nullptr, nullptr, nullptr);
  CCCB *c = nullptr;
  if (!ensure_initialised() || SCC_cccb_init(conversation_ID, &c) == 0) {
    *return_code = CM_PRODUCT_SPECIFIC_ERROR;
  } else {
    c->fInitialized = 0;
  }
  trace_response(41, conversation_ID, return_code);
  vpm_unlock(token);
}

extern "C" SNA_EXPORT void cmembs(CM_INT32 *maximum_buffer_size, CM_INT32 *return_code) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (api_trace_on()) seputrcp(1, 55, nullptr, maximum_buffer_size, nullptr, nullptr, nullptr, nullptr, nullptr);
  *maximum_buffer_size = CM_MAXIMUM_BUFFER_SIZE;
  *return_code = CM_OK;
  if (api_trace_on()) seputrcp(2, 55, nullptr, return_code, maximum_buffer_size, nullptr, nullptr, nullptr, nullptr);
  vpm_unlock(token);
}
