// Side information for this process: entries set or deleted by the program,
// and every entry read from the node, cached for the life of the process.
#include <cstring>

#include "cpic.h"
#include "internal.h"

namespace cpic {

namespace {

// "No such entry" from the node, as the fields stand in the record.
constexpr uint16_t kNofNoEntryPrimary = 0x0200;
constexpr uint32_t kNofNoEntrySecondary = 0x58100000;

struct NodeOperatorSession {
  uint32_t target = 0;
};

// Opens the node-operator connection. false when the node refused.
bool nof_open(NodeOperatorSession &session) {
  NOF_OPEN_RECORD open;
  std::memset(&open, 0, sizeof open);
  open.opcode = NOF_OPEN;
  open.kind = 2;
  nof_version(2, 0, &open);
  if (open.primary_rc != 0) return false;
  session.target = open.target_handle;
  return true;
}

void nof_query(const NodeOperatorSession &session, const uint8_t *name,
               NOF_QUERY_RECORD &query, NOF_SIDE_INFO_ENTRY &response) {
  std::memset(&query, 0, sizeof query);
  std::memset(&response, 0, sizeof response);
  query.opcode = NOF_QUERY_SIDE_INFO;
  query.kind = 1;
  query.buffer = &response;
  query.buffer_size = sizeof(NOF_SIDE_INFO_ENTRY);
  query.num_entries = 1;
  query.list_option = 4;
  std::memcpy(query.sym_dest_name, name, 8);
  nof_version(2, session.target, &query);
}

void nof_close(const NodeOperatorSession &session) {
  NOF_CLOSE_RECORD close;
  std::memset(&close, 0, sizeof close);
  close.opcode = NOF_CLOSE;
  nof_version(2, session.target, &close);
}

// One question to the node: open, query the name, close. false (after the
// connection-failure record with the caller's sub-code) when the node
// could not be reached; the answer is then undefined.
bool ask_node(const uint8_t *name, uint32_t open_failure_sub_code, NOF_QUERY_RECORD &query,
              NOF_SIDE_INFO_ENTRY &response) {
  NodeOperatorSession session;
  if (!nof_open(session)) {
    nba_pd_print_problem(MSG_NOF_CONNECT_FAILED, open_failure_sub_code, "");
    return false;
  }
  nof_query(session, name, query, response);
  nof_close(session);
  return true;
}

bool node_has_no_entry(const NOF_QUERY_RECORD &query) {
  return query.primary_rc == kNofNoEntryPrimary && query.secondary_rc == kNofNoEntrySecondary;
}

// Adds an element to the process table. 0 on success, else which step
// failed: 1 no memory, 2 no free table entry.
int add_element(const SIDE_INFO *entry, uint16_t state, const uint8_t *name_only) {
  auto *e = static_cast<SIDE_INFO_ELEMENT *>(
      nba_mm_alloc(sizeof(SIDE_INFO_ELEMENT), MEM_TYPE_CPIC, nba_blank_name, 0, 0));
  if (e == nullptr) return 1;
  std::memset(e, 0, sizeof *e);
  if (vtm_get_free_entry(pGCB->hSideInfoTable, e) == 0) {
    nba_mm_free(e);
    return 2;
  }
  e->usState = state;
  if (entry != nullptr) e->si = *entry;
  if (name_only != nullptr) std::memcpy(e->si.abSymDestName, name_only, 8);
  return 0;
}

// Length of a blank-terminated field, at most max.
uint16_t blank_len(const uint8_t *field, uint16_t max) {
  uint16_t n = 0;
  while (n < max && field[n] != ' ') ++n;
  return n;
}

uint8_t hex_nibble(uint8_t c) {
  if (c >= '0' && c <= '9') return static_cast<uint8_t>(c - '0');
  if (c >= 'A' && c <= 'F') return static_cast<uint8_t>(c - 'A' + 10);
  if (c >= 'a' && c <= 'f') return static_cast<uint8_t>(c - 'a' + 10);
  return 0;
}

}  // namespace

uint16_t SCD_match_sym_dest_name(const uint8_t *name, SIDE_INFO_ELEMENT **element_out) {
  *element_out = nullptr;
  void *p = nullptr;
  uint32_t h = vtm_get_next_used(pGCB->hSideInfoTable, 0, &p);
  while (h != 0) {
    auto *e = static_cast<SIDE_INFO_ELEMENT *>(p);
    if (e != nullptr && std::memcmp(e->si.abSymDestName, name, 8) == 0) {
      *element_out = e;
      return 1;
    }
    h = vtm_get_next_used(pGCB->hSideInfoTable, h, &p);
  }
  return 0;
}

void SCD_read_nof_response(SIDE_INFO *entry, const NOF_SIDE_INFO_ENTRY *r) {
  std::memset(entry, 0, sizeof *entry);
  std::memcpy(entry->abSymDestName, r->sym_dest_name, 8);

  uint16_t len = 0, dot = 0;
  bool qualified = false;
  while (len < 17 && r->partner_lu_name[len] != ' ') {
    if (r->partner_lu_name[len] == '.') {
      qualified = true;
      dot = len;  // the last period wins
    }
    ++len;
  }
  entry->usPartnerLuNameLen = len;
  if (qualified) {
    entry->fPartnerLuFq = 1;
    entry->usPartnerLuDotPos = dot;
    SCC_convert_string(0, 1, static_cast<int16_t>(dot), entry->abPartnerLuName, r->partner_lu_name);
    entry->abPartnerLuName[dot] = 0x4B;
    SCC_convert_string(0, 1, static_cast<int16_t>(16 - dot), entry->abPartnerLuName + dot + 1,
                       r->partner_lu_name + dot + 1);
  } else {
    // An alias travels as given, with the three bytes after it.
    std::memcpy(entry->abPartnerLuName, r->partner_lu_name, 20);
  }

  entry->ulTpNameType = r->tp_name_type;
  if (r->tp_name_type != 1) {
    SCC_convert_string(0, 2, 64, entry->abTpName, r->tp_name);
  } else {
    std::memset(entry->abTpName, 0x40, 64);
    for (int i = 0; i < 4; ++i) {
      entry->abTpName[i] =
          static_cast<uint8_t>((hex_nibble(r->tp_name[2 * i]) << 4) | hex_nibble(r->tp_name[2 * i + 1]));
    }
  }

  std::memcpy(entry->abSiLocalLuAlias, r->local_lu_alias, 8);
  entry->usModeNameLen = blank_len(r->mode_name, 8);
  SCC_convert_string(0, 1, 8, entry->abModeName, r->mode_name);

  entry->ulSecurityType = r->security_type;
  const uint32_t st = r->security_type;
  if (st == 1 || st == 2 || st == 5) {
    entry->usUserIdLen = blank_len(r->user_id, 10);
    SCC_convert_string(0, 0, 10, entry->abUserId, r->user_id);
  }
  if (st == 2 || st == 5) SCC_convert_string(0, 0, 10, entry->abPassword, r->password);

  // Cache it. A failed allocation only costs the cache.
  auto *e = static_cast<SIDE_INFO_ELEMENT *>(
      nba_mm_alloc(sizeof(SIDE_INFO_ELEMENT), MEM_TYPE_CPIC, nba_blank_name, 0, 0));
  if (e == nullptr) return;
  if (vtm_get_free_entry(pGCB->hSideInfoTable, e) == 0) {
    nba_pd_print_problem(MSG_RESOURCE_SHORTAGE, 87, "");
    nba_mm_free(e);
    return;
  }
  e->usState = 1;
  e->si = *entry;
}

int32_t SCD_lookup(SIDE_INFO *entry) {
  SIDE_INFO_ELEMENT *e = nullptr;
  if (SCD_match_sym_dest_name(entry->abSymDestName, &e) != 0) {
    if (e->usState == 0) return CM_PROGRAM_PARAMETER_CHECK;
    *entry = e->si;
    return CM_OK;
  }
  NOF_QUERY_RECORD query;
  NOF_SIDE_INFO_ENTRY response;
  if (!ask_node(entry->abSymDestName, 0, query, response)) return CM_PRODUCT_SPECIFIC_ERROR;
  if (query.primary_rc == 0) {
    SCD_read_nof_response(entry, &response);
    return CM_OK;
  }
  return node_has_no_entry(query) ? CM_PROGRAM_PARAMETER_CHECK : CM_PRODUCT_SPECIFIC_ERROR;
}

int32_t SCD_set(const SIDE_INFO *entry) {
  SIDE_INFO_ELEMENT *e = nullptr;
  if (SCD_match_sym_dest_name(entry->abSymDestName, &e) != 0) {
    e->usState = 1;
    e->si = *entry;
    return CM_OK;
  }
  switch (add_element(entry, 1, nullptr)) {
    case 0: return CM_OK;
    case 1: nba_pd_print_problem(MSG_RESOURCE_SHORTAGE, 5, ""); return CM_PRODUCT_SPECIFIC_ERROR;
    default: nba_pd_print_problem(MSG_RESOURCE_SHORTAGE, 6, ""); return CM_PRODUCT_SPECIFIC_ERROR;
  }
}

int32_t SCD_delete(const SIDE_INFO *entry) {
  SIDE_INFO_ELEMENT *e = nullptr;
  if (SCD_match_sym_dest_name(entry->abSymDestName, &e) != 0) {
    if (e->usState == 0) return CM_PROGRAM_PARAMETER_CHECK;
    e->usState = 0;
    return CM_OK;
  }
  NOF_QUERY_RECORD query;
  NOF_SIDE_INFO_ENTRY response;
  if (!ask_node(entry->abSymDestName, 1, query, response)) return CM_PRODUCT_SPECIFIC_ERROR;
  if (query.primary_rc == 0) {
    // A tombstone hides the node's entry from this process only.
    switch (add_element(nullptr, 0, entry->abSymDestName)) {
      case 0: return CM_OK;
      case 1: nba_pd_print_problem(MSG_RESOURCE_SHORTAGE, 3, ""); return CM_PRODUCT_SPECIFIC_ERROR;
      default: nba_pd_print_problem(MSG_RESOURCE_SHORTAGE, 4, ""); return CM_PRODUCT_SPECIFIC_ERROR;
    }
  }
  if (node_has_no_entry(query)) return CM_PROGRAM_PARAMETER_CHECK;
  nba_pd_print_problem(MSG_UNEXPECTED_NOF_RC, 1, "x lx", query.primary_rc, query.secondary_rc);
  return CM_PRODUCT_SPECIFIC_ERROR;
}

int32_t SCD_main(uint32_t operation, SIDE_INFO *entry) {
  if (fInitCPIC == 0) {
    SCC_init();
    if (fInitCPIC == 0) return CM_PRODUCT_SPECIFIC_ERROR;
  }
  switch (operation) {
    case 1: return SCD_lookup(entry);
    case 2: return SCD_delete(entry);
    case 3: return SCD_set(entry);
    default: return CM_OK;
  }
}

}  // namespace cpic
