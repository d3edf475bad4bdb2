/* The verb entries while no node daemon can be reached: every verb finishes
 * at once with primary 0xF002 (no node reachable) and secondary 0. The
 * daemon client replaces this file. */
#include <string.h>

#include "internal.h"

namespace {

constexpr unsigned primary_offset = 4;
constexpr unsigned secondary_offset = 8;

/* Return codes are stored big-endian whatever the host order. */
void write_codes(void *block, uint16_t primary, uint32_t secondary) {
  if (!block) return;
  unsigned char *bytes = static_cast<unsigned char *>(block);
  bytes[primary_offset] = static_cast<unsigned char>(primary >> 8);
  bytes[primary_offset + 1] = static_cast<unsigned char>(primary);
  bytes[secondary_offset] = static_cast<unsigned char>(secondary >> 24);
  bytes[secondary_offset + 1] = static_cast<unsigned char>(secondary >> 16);
  bytes[secondary_offset + 2] = static_cast<unsigned char>(secondary >> 8);
  bytes[secondary_offset + 3] = static_cast<unsigned char>(secondary);
}

constexpr uint16_t no_node_reachable = 0xF002;

}  // namespace

extern "C" {

SNA_EXPORT uint16_t appc_c_async_version(uint16_t version, void *vcb, APPC_CALLBACK callback,
                                         uint32_t correlator) {
  (void)version;
  (void)callback; /* finished at once: the callback is never called */
  (void)correlator;
  write_codes(vcb, no_node_reachable, 0);
  return APPC_VERB_DONE;
}

SNA_EXPORT void appc_c_version(uint16_t version, void *vcb) {
  (void)version;
  write_codes(vcb, no_node_reachable, 0);
}

SNA_EXPORT void nof_version(uint16_t version, uint32_t target_handle, void *record) {
  (void)version;
  (void)target_handle;
  write_codes(record, no_node_reachable, 0);
}

}  // extern "C"
