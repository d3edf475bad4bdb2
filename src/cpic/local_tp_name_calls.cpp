// Specify_Local_TP_Name and Release_Local_TP_Name: the names under which
// the program takes incoming conversations, kept in hLocTpNameTable and
// registered with the node by a synchronous verb.
#include <cstring>

#include "cpic.h"
#include "internal.h"

using namespace cpic;

namespace {

constexpr uint32_t MSG_TP_NAME_WITHDRAW_FAILED = 0x2003000F;

// One registered name: the length and the bytes as the application gave them.
struct LOC_TP_NAME {
  uint16_t usLength;
  uint8_t abName[64];
};
static_assert(sizeof(LOC_TP_NAME) == 66, "local TP name entry");

bool valid_name_byte(uint8_t b) {
  return (b >= 'a' && b <= 'z') || (b >= 0x22 && b <= 0x5A) || b == '_';
}

void build_block(VCB_TP_NAME *block, uint16_t opcode, const uint8_t *name, uint16_t length) {
  std::memset(block, 0, sizeof *block);
  block->opcode = opcode;
  std::memset(block->tp_name, 0x40, 64);
  SCC_convert_string(0, 2, static_cast<int16_t>(length), block->tp_name, name);
}

// The handle of the entry with this length and these bytes; 0 when none.
uint32_t find_entry(const uint8_t *name, uint16_t length, LOC_TP_NAME **entry_out) {
  void *p = nullptr;
  for (uint32_t h = vtm_get_next_used(pGCB->hLocTpNameTable, 0, &p); h != 0;
       h = vtm_get_next_used(pGCB->hLocTpNameTable, h, &p)) {
    auto *e = static_cast<LOC_TP_NAME *>(p);
    if (e != nullptr && e->usLength == length && std::memcmp(e->abName, name, length) == 0) {
      *entry_out = e;
      return h;
    }
  }
  *entry_out = nullptr;
  return 0;
}

void remove_entry(uint32_t handle, LOC_TP_NAME *entry) {
  pGCB->NumLocTPNames--;
  vtm_release_entry(pGCB->hLocTpNameTable, handle);
  nba_mm_free(entry);
}

// The program now has a name of its own: the default name that accept
// processing registered (not one from the environment) is withdrawn.
void hand_over_default_name() {
  GCB *g = pGCB;
  if (g->NumLocTPNames != 2 || g->fAcceptIssued == 0 || g->fTpNameFromEnv != 0) return;
  VCB_TP_NAME block;
  std::memset(&block, 0, sizeof block);
  block.opcode = VERB_WITHDRAW_TP_NAME;
  std::memcpy(block.tp_name, g->abDefaultTpName, 64);
  LOC_TP_NAME *entry = nullptr;
  const uint32_t handle = find_entry(block.tp_name, g->usDefaultTpNameLen, &entry);
  appc_c_version(2, &block);
  if (block.primary_rc != 0) {
    nba_pd_print_problem(MSG_TP_NAME_WITHDRAW_FAILED, 1, "es", 64, block.tp_name);
    return;
  }
  if (handle != 0) remove_entry(handle, entry);
}

}  // namespace

extern "C" SNA_EXPORT void cmsltp(unsigned char *TP_name, CM_INT32 *TP_name_length,
                                  CM_INT32 *return_code) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (api_trace_on()) seputrcp(1, 50, nullptr, TP_name, TP_name_length, nullptr, nullptr, nullptr, nullptr);
  const uint32_t length = static_cast<uint32_t>(*TP_name_length);
  bool valid = length - 1 <= 63;
  for (uint32_t i = 0; valid && i < length; ++i) valid = valid_name_byte(TP_name[i]);
  if (!valid) {
    *return_code = CM_PROGRAM_PARAMETER_CHECK;
  } else {
    if (fInitCPIC == 0) SCC_init();
    if (fInitCPIC == 0) {
      *return_code = CM_PRODUCT_SPECIFIC_ERROR;
    } else {
      VCB_TP_NAME block;
      build_block(&block, VERB_REGISTER_TP_NAME, TP_name, static_cast<uint16_t>(length));
      LOC_TP_NAME *entry = nullptr;
      if (find_entry(TP_name, static_cast<uint16_t>(length), &entry) != 0) {
        // Already registered: nothing to do.
      } else if ((entry = static_cast<LOC_TP_NAME *>(nba_mm_alloc(
                      sizeof(LOC_TP_NAME), MEM_TYPE_CPIC, nba_blank_name, 0, 0))) == nullptr) {
        nba_pd_print_problem(MSG_RESOURCE_SHORTAGE, 7, "");
        *return_code = CM_PRODUCT_SPECIFIC_ERROR;
      } else {
        std::memset(entry, 0, sizeof *entry);
        entry->usLength = static_cast<uint16_t>(length);
        std::memcpy(entry->abName, TP_name, length);
        const uint32_t handle = vtm_get_free_entry(pGCB->hLocTpNameTable, entry);
        if (handle == 0) {
          nba_pd_print_problem(MSG_RESOURCE_SHORTAGE, 8, "");
          nba_mm_free(entry);
          *return_code = CM_PRODUCT_SPECIFIC_ERROR;
        } else {
          appc_c_version(2, &block);
          if (block.primary_rc != 0) {
            nba_pd_print_problem(MSG_TP_NAME_REG_FAILED, 2, "es", 64, entry->abName);
            vtm_release_entry(pGCB->hLocTpNameTable, handle);
            nba_mm_free(entry);
            *return_code = CM_PRODUCT_SPECIFIC_ERROR;
          } else {
            pGCB->NumLocTPNames++;
            hand_over_default_name();
          }
        }
      }
    }
  }
  if (api_trace_on()) seputrcp(2, 50, nullptr, return_code, nullptr, nullptr, nullptr, nullptr, nullptr);
  vpm_unlock(token);
}

extern "C" SNA_EXPORT void cmrltp(unsigned char *TP_name, CM_INT32 *TP_name_length,
                                  CM_INT32 *return_code) {
  const uint16_t token = vpm_lock();
  *return_code = CM_OK;
  if (api_trace_on()) seputrcp(1, 51, nullptr, TP_name, TP_name_length, nullptr, nullptr, nullptr, nullptr);
  const uint32_t length = static_cast<uint32_t>(*TP_name_length);
  LOC_TP_NAME *entry = nullptr;
  uint32_t handle = 0;
  if (length - 1 > 63) {
    *return_code = CM_PROGRAM_PARAMETER_CHECK;
  } else {
    VCB_TP_NAME block;
    build_block(&block, VERB_WITHDRAW_TP_NAME, TP_name, static_cast<uint16_t>(length));
    if (fInitCPIC != 0) handle = find_entry(TP_name, static_cast<uint16_t>(length), &entry);
    if (handle == 0) {
      *return_code = CM_PROGRAM_PARAMETER_CHECK;
    } else {
      appc_c_version(2, &block);
      if (block.primary_rc != 0) {
        nba_pd_print_problem(MSG_TP_NAME_WITHDRAW_FAILED, 0, "es", 64, entry->abName);
        *return_code = CM_PRODUCT_SPECIFIC_ERROR;
      } else {
        remove_entry(handle, entry);
      }
    }
  }
  if (api_trace_on()) seputrcp(2, 51, nullptr, return_code, nullptr, nullptr, nullptr, nullptr, nullptr);
  vpm_unlock(token);
}
