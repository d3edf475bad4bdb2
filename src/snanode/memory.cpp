/* The node allocator. Plain malloc for now: the type, owner and the two
 * further words are accepted for the day blocks are accounted by owner. */
#include <stdlib.h>

#include "internal.h"

extern "C" {

/* Visibility comes from the declaration in node.h. */
const char nba_blank_name[] = "        ";

SNA_EXPORT void *nba_mm_alloc(uint32_t size, uint32_t type, const char *owner, uint32_t a,
                              uint32_t b) {
  (void)type;
  (void)owner;
  (void)a;
  (void)b;
  /* A zero-sized request still yields a distinct block that can be freed. */
  return malloc(size ? size : 1);
}

SNA_EXPORT void nba_mm_free(void *block) { free(block); }

}  // extern "C"
