// First-use initialisation: environment, handle tables, path user and the
// wait object that Wait_For_Conversation sleeps on.
#include <cstdlib>
#include <cstring>

#include "internal.h"

namespace cpic {

namespace {

constexpr char kServicePrefix[] = "SNA_SERVICE_TP_0x";
constexpr unsigned kServicePrefixLen = sizeof(kServicePrefix) - 1;  // 17

// The historic digit decoding: '1'..'9' are digits, '0' and anything below
// it are 0, everything else is folded as a hex letter whatever it is.
uint8_t hex_digit_value(uint8_t c) {
  if (c >= '1' && c <= '9') return static_cast<uint8_t>(c - '0');
  if (c <= '0') return 0;
  return static_cast<uint8_t>((c - 0x37) & 0xDF);
}

void terminate_table(uint32_t &table) {
  if (table != 0) {
    vtm_table_terminate(table);
    table = 0;
  }
}

}  // namespace

void SCC_get_lu_alias(uint8_t *alias_out) {
  std::memset(alias_out, 0, 8);
  const char *env = std::getenv("APPCLLU");
  if (env == nullptr || env[0] == '\0') return;
  uint16_t len = SCC_far_len(reinterpret_cast<const uint8_t *>(env), 8);
  std::memset(alias_out, ' ', 8);
  std::memcpy(alias_out, env, len);
}

void SCC_set_tp_name(uint8_t *tp_name_out) {
  std::memset(tp_name_out, 0x40, 64);
  const char *env = std::getenv("APPCTPN");
  if (env == nullptr || env[0] == '\0') {
    static const uint8_t kDefault[] = "CPIC_DEFAULT_TPNAME";
    SCC_convert_string(0, 2, 19, tp_name_out, kDefault);
    pGCB->usDefaultTpNameLen = 19;
    return;
  }
  if (std::strncmp(env, kServicePrefix, kServicePrefixLen) == 0) {
    // Service TP in hexadecimal: pairs of digits, raw bytes. An odd last
    // digit pairs with the terminating zero. Bounded at the 64-byte field.
    const uint8_t *p = reinterpret_cast<const uint8_t *>(env) + kServicePrefixLen;
    uint16_t n = 0;
    while (*p != '\0' && n < 64) {
      uint8_t high = static_cast<uint8_t>(hex_digit_value(p[0]) << 4);
      uint8_t low = hex_digit_value(p[1]);
      tp_name_out[n++] = static_cast<uint8_t>(high + low);
      if (p[1] == '\0') break;
      p += 2;
    }
    pGCB->usDefaultTpNameLen = n;
    return;
  }
  uint16_t len = SCC_far_len(reinterpret_cast<const uint8_t *>(env), 64);
  pGCB->usDefaultTpNameLen = len;
  SCC_convert_string(0, 2, static_cast<int16_t>(len), tp_name_out,
                     reinterpret_cast<const uint8_t *>(env));
  pGCB->fTpNameFromEnv = 1;
}

void SCC_init() {
  GCB *g = pGCB;
  std::memset(g->abContextTpId, 0, 8);
  std::memset(g->abContextLuAlias, 0, 8);
  g->NumVerbsWaiting = 0;
  g->NumVerbsInProgress = 0;
  g->NumLocTPNames = 0;
  g->usDefaultTpNameLen = 0;
  g->fAcceptIssued = 0;
  g->fTpNameFromEnv = 0;

  SCC_get_lu_alias(g->abDefaultLuAlias);
  SCC_set_tp_name(g->abDefaultTpName);

  vtm_table_init(&g->hCccbTable, 0);
  if (g->hCccbTable == 0) {
    nba_pd_print_problem(MSG_INIT_FAILED, 1, "");
    return;
  }
  vtm_table_init(&g->hSideInfoTable, 0);
  if (g->hSideInfoTable == 0) {
    nba_pd_print_problem(MSG_INIT_FAILED, 2, "");
    terminate_table(g->hCccbTable);
    return;
  }
  vtm_table_init(&g->hLocTpNameTable, 0);
  if (g->hLocTpNameTable == 0) {
    nba_pd_print_problem(MSG_INIT_FAILED, 3, "");
    terminate_table(g->hCccbTable);
    terminate_table(g->hSideInfoTable);
    return;
  }
  g->hPathUser = 0;
  vpm_init_path_user(nullptr, nullptr, SCC_path_callback, nullptr, &g->hPathUser);
  if (g->hPathUser == 0) {
    // Sub-code 0 although it is the fourth check: the log readers know it so.
    nba_pd_print_problem(MSG_INIT_FAILED, 0, "");
    terminate_table(g->hCccbTable);
    terminate_table(g->hSideInfoTable);
    terminate_table(g->hLocTpNameTable);
    return;
  }
  g->hWaitObject = vpm_allocate_wait_object();
  if (g->hWaitObject == 0) {
    nba_pd_print_problem(MSG_RESOURCE_SHORTAGE, 12, "");
    terminate_table(g->hCccbTable);
    terminate_table(g->hSideInfoTable);
    terminate_table(g->hLocTpNameTable);
    vpm_terminate_path_user(g->hPathUser);
    g->hPathUser = 0;
    return;
  }
  fInitCPIC = 1;
}

}  // namespace cpic
