// Ending a TP: the TP_ENDED verb, counting a TP's conversations, and
// Terminate (CMTERM), which ends the current context's TP.
#include <cstring>

#include "counters.h"
#include "cpic.h"
#include "internal.h"

namespace cpic {

void SCC_context_ended(const uint8_t *tp_id, uint8_t end_type, uint16_t *primary_out,
                       uint32_t *secondary_out) {
  auto *block = static_cast<VCB_TP_ENDED *>(
      nba_mm_alloc(sizeof(VCB_TP_ENDED), MEM_TYPE_VERB, nba_blank_name, 0, 0));
  if (block == nullptr) {
    nba_pd_print_problem(MSG_RESOURCE_SHORTAGE, 17, "");
    if (primary_out != nullptr) {
      *primary_out = 4592;
      *secondary_out = 12;
    }
    return;
  }
  std::memset(block, 0, sizeof *block);
  block->opcode = VERB_TP_ENDED;
  std::memcpy(block->tp_id, tp_id, 8);
  block->type = end_type;
  if (primary_out != nullptr) {
    appc_c_version(2, block);
    *primary_out = block->primary_rc;
    *secondary_out = block->secondary_rc;
    nba_mm_free(block);
    return;
  }
  // Nobody waits for this one: the callback frees the block if it comes.
  if (appc_c_async_version(2, block, SCC_null_callback, 1) == APPC_VERB_DONE) nba_mm_free(block);
}

uint32_t SCC_cccbs_using_tpid(const uint8_t *tp_id) {
  uint32_t n = 0;
  void *p = nullptr;
  uint32_t h = vtm_get_next_used(pGCB->hCccbTable, 0, &p);
  while (h != 0) {
    auto *c = static_cast<CCCB *>(p);
    if (c != nullptr && std::memcmp(c->abTpId, tp_id, 8) == 0) ++n;
    h = vtm_get_next_used(pGCB->hCccbTable, h, &p);
  }
  return n;
}

namespace {

// Discards every conversation of the context's TP; others stay.
void discard_context_conversations() {
  GCB *g = pGCB;
  void *p = nullptr;
  uint32_t h = vtm_get_next_used(g->hCccbTable, 0, &p);
  while (h != 0) {
    void *next_p = nullptr;
    const uint32_t next = vtm_get_next_used(g->hCccbTable, h, &next_p);
    auto *c = static_cast<CCCB *>(p);
    if (c->CCCBhandle != h) v0_assert(SRC_CPICTERM, 153, "cccb_ptr->CCCBhandle == tm_handle");
    if (std::memcmp(c->abTpId, g->abContextTpId, 8) == 0) {
      if (flag_get(c->fVerbWaiting) != 0) {
        if (counter_get(g->NumVerbsWaiting) == 0) {
          v0_assert(SRC_CPICTERM, 173, "pGCB->NumVerbsWaiting > 0");
        }
        counter_sub(g->NumVerbsWaiting);
      }
      if (c->pLogData != nullptr) nba_mm_free(c->pLogData);
      if (c->DeallcLogData != nullptr) nba_mm_free(c->DeallcLogData);
      vtm_release_entry(g->hCccbTable, h);
      nba_mm_free(c);
    }
    h = next;
    p = next_p;
  }
}

}  // namespace

}  // namespace cpic

using namespace cpic;

extern "C" SNA_EXPORT void cmterm(CM_INT32 *termination_type, CM_INT32 *return_code) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (api_trace_on()) seputrcp(1, 39, nullptr, termination_type, nullptr, nullptr, nullptr, nullptr, nullptr);
  GCB *g = pGCB;
  if (*termination_type != 0 && *termination_type != 1) {
    *return_code = CM_PARAMETER_ERROR;
  } else if (!all_zero(g->abContextTpId, 8)) {
    uint16_t primary = 0;
    uint32_t secondary = 0;
    SCC_context_ended(g->abContextTpId, *termination_type == 0 ? 1 : 0, &primary, &secondary);
    if (primary != 0) {
      SCC_map_return_codes(return_code, primary, secondary, VERB_TP_ENDED);
    } else {
      if (fInitCPIC != 0) discard_context_conversations();
      std::memset(g->abContextTpId, 0, 8);
      std::memset(g->abContextLuAlias, 0, 8);
    }
  }
  if (api_trace_on()) seputrcp(2, 39, nullptr, return_code, nullptr, nullptr, nullptr, nullptr, nullptr);
  vpm_unlock(token);
}
