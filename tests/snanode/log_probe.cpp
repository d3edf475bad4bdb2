// Writes one problem record, one audit record and one assertion, so that a
// test can run it under different environments and look at what it left.
#include "snanode/node.h"

int main() {
  nba_pd_print_problem(0x12345678u, 7, "l", 42u);
  nba_pd_print_audit(0x12345679u, 8, "");
  v0_assert("probe.cpp", 9, "probe");
  return 0;
}
