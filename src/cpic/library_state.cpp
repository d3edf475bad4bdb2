// The library's process-wide state and its version stamps.
#include <cstring>

#include "cpic.h"
#include "internal.h"

namespace cpic {

GCB sGcb;
GCB *pGCB = &sGcb;
uint16_t fInitCPIC = 0;

bool all_zero(const uint8_t *p, unsigned n) {
  for (unsigned i = 0; i < n; ++i) {
    if (p[i] != 0) return false;
  }
  return true;
}

}  // namespace cpic

// Each stamp lives in a writable 256-byte buffer of its own: callers may
// patch the template in place.
static char ocpic_verstring1[256] =
    "V6.4.0.5 Quorvex for Linux CPI-C Library Routines (32 bit)\n";
static char ocpic_verstring1_tvt[256] = "V6.4.0.5 Quorvex for Linux %1\n";
// Identification lines for what(1)-style tools; nothing reads them at run time.
__attribute__((used)) static char ocpic_verstring[256] =
    "@(#)]V6.4.0.5 Quorvex for Linux CPI-C Library Routines (32 bit)\n"
    "@(#)]            (: 13/11/04 21:19:34)\n@(#)]";

extern "C" {
SNA_EXPORT char *ocpic_verstamp(void) { return ocpic_verstring1; }
SNA_EXPORT char *ocpic_verstamp_tvt(void) { return ocpic_verstring1_tvt; }
}
