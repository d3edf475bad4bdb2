// Conversation control blocks: creation with their defaults, lookup by
// conversation ID, and release (deferred while a verb is outstanding).
#include <cstring>

#include "cpic.h"
#include "internal.h"

namespace cpic {

namespace {

void set_defaults(CCCB *c) {
  std::memset(c->si.abSymDestName, ' ', 8);
  // ASCII blanks, although a partner LU name set later is EBCDIC.
  std::memset(c->si.abPartnerLuName, ' ', 17);
  std::memset(c->si.abTpName, 0x40, 64);
  std::memset(c->si.abModeName, 0x40, 8);
  c->si.ulSecurityType = CM_SECURITY_SAME;
  std::memset(c->si.abUserId, 0x40, 10);
  std::memset(c->si.abPassword, 0x40, 10);
  c->si.usUserIdLen = 1;  // historic default, kept
  c->ulConversationType = CM_MAPPED_CONVERSATION;
}

}  // namespace

uint16_t SCC_cccb_init(uint8_t *conversation_id_out, CCCB **cccb_out) {
  *cccb_out = nullptr;
  auto *c = static_cast<CCCB *>(nba_mm_alloc(sizeof(CCCB), MEM_TYPE_CPIC, nba_blank_name, 0, 0));
  if (c == nullptr) {
    nba_pd_print_problem(MSG_RESOURCE_SHORTAGE, 1, "");
    return 0;
  }
  std::memset(c, 0, sizeof(CCCB));
  uint32_t handle = vtm_get_free_entry(pGCB->hCccbTable, c);
  if (handle == 0) {
    nba_pd_print_problem(MSG_RESOURCE_SHORTAGE, 2, "");
    nba_mm_free(c);
    return 0;
  }
  set_defaults(c);
  c->CCCBhandle = handle;
  std::memcpy(conversation_id_out, &handle, 4);
  std::memset(conversation_id_out + 4, 0, 4);
  *cccb_out = c;
  return 1;
}

uint16_t SCC_find_cccb(const uint8_t *conversation_id, CCCB **cccb_out, GCB *gcb) {
  *cccb_out = nullptr;
  if (gcb == nullptr || fInitCPIC == 0 || conversation_id == nullptr) return 0;
  uint32_t handle;
  std::memcpy(&handle, conversation_id, 4);
  if (handle == 0) return 0;
  auto *c = static_cast<CCCB *>(vtm_get_pointer(gcb->hCccbTable, handle));
  if (c == nullptr) return 0;
  *cccb_out = c;
  return 1;
}

CCCB *SCC_find_or_report(const uint8_t *conversation_id, int32_t *return_code,
                         uint32_t sub_code) {
  CCCB *c = nullptr;
  if (SCC_find_cccb(conversation_id, &c, pGCB) == 0) {
    nba_pd_print_problem(MSG_UNKNOWN_CONV_ID, sub_code, "ba", 8, conversation_id);
    *return_code = CM_PROGRAM_PARAMETER_CHECK;
    return nullptr;
  }
  return c;
}

CCCB *SCC_init_and_find(const uint8_t *conversation_id, int32_t *return_code, uint32_t sub_code) {
  if (fInitCPIC == 0) SCC_init();
  if (fInitCPIC == 0) {
    // Not the caller's conversation ID at fault: nothing can be found.
    *return_code = CM_PRODUCT_SPECIFIC_ERROR;
    return nullptr;
  }
  return SCC_find_or_report(conversation_id, return_code, sub_code);
}

void SCC_forget_password(CCCB *c) {
  std::memset(c->si.abPassword, 0x40, sizeof c->si.abPassword);
  std::memset(c->vcb.allocate.password, 0x40, sizeof c->vcb.allocate.password);
  // The block may be freed next: the stores must not be dropped as dead.
  __asm__ __volatile__("" : : "r"(c) : "memory");
}

void SCC_free_cccb(CCCB *c) {
  GCB *g = pGCB;
  if (!all_zero(c->abTpId, 8) && std::memcmp(c->abTpId, g->abContextTpId, 8) != 0 &&
      SCC_cccbs_using_tpid(c->abTpId) < 2) {
    // The TP ends with its last conversation.
    c->usOpsOutstanding = 1;
    if (c->usOpTraceIndex == 4) {
      uint16_t primary = 0;
      uint32_t secondary = 0;
      SCC_context_ended(c->abTpId, 1, &primary, &secondary);
    } else {
      SCC_context_ended(c->abTpId, 1, nullptr, nullptr);
    }
  }
  if (c->fVerbWaiting != 0) {
    if (g->NumVerbsWaiting == 0) v0_assert(SRC_CPICUTIL, 817, "pGCB->NumVerbsWaiting > 0");
    g->NumVerbsWaiting--;
  }
  if (c->pLogData != nullptr) nba_mm_free(c->pLogData);
  if (c->DeallcLogData != nullptr) nba_mm_free(c->DeallcLogData);
  SCC_forget_password(c);
  vtm_release_entry(g->hCccbTable, c->CCCBhandle);
  nba_mm_free(c);
}

void SCC_free_handles_from_table(uint32_t table) {
  void *pointer = nullptr;
  uint32_t handle = vtm_get_next_used(table, 0, &pointer);
  while (handle != 0) {
    void *next_pointer = nullptr;
    uint32_t next = vtm_get_next_used(table, handle, &next_pointer);
    vtm_release_entry(table, handle);
    if (pointer != nullptr) {
      if (table == pGCB->hCccbTable) {
        auto *c = static_cast<CCCB *>(pointer);
        if (c->pLogData != nullptr) nba_mm_free(c->pLogData);
        if (c->DeallcLogData != nullptr) nba_mm_free(c->DeallcLogData);
        SCC_forget_password(c);
      }
      nba_mm_free(pointer);
    }
    handle = next;
    pointer = next_pointer;
  }
}

}  // namespace cpic
