/* conversation_holder: keeps node state in place while a test looks at it
 * with snactl.
 *
 *   conversation_holder register TPNAME   registers the name, never accepts
 *   conversation_holder allocate TPNAME   allocates a conversation to it and
 *                                         sends the allocation (CMFLUS)
 *
 * Prints "ready" once done, then waits for its standard input to close
 * and exits 0; a failing call is printed and exits 1. */
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "cpic.h"

static int failed(const char *call, CM_INT32 rc) {
  printf("%s failed: %d\n", call, (int)rc);
  fflush(stdout);
  return 1;
}

int main(int argc, char **argv) {
  CM_INT32 rc, length;
  char rest[64];
  if (argc != 3) {
    fprintf(stderr, "usage: conversation_holder register|allocate TPNAME\n");
    return 2;
  }
  length = (CM_INT32)strlen(argv[2]);
  if (strcmp(argv[1], "register") == 0) {
    CMSLTP((unsigned char *)argv[2], &length, &rc);
    if (rc != CM_OK) return failed("CMSLTP", rc);
  } else {
    CONVERSATION_ID conv;
    unsigned char blank[8];
    memset(blank, ' ', sizeof blank);
    CMINIT(conv, blank, &rc);
    if (rc != CM_OK) return failed("CMINIT", rc);
    CMSTPN(conv, (unsigned char *)argv[2], &length, &rc);
    if (rc != CM_OK) return failed("CMSTPN", rc);
    CMALLC(conv, &rc);
    if (rc != CM_OK) return failed("CMALLC", rc);
    CMFLUS(conv, &rc);
    if (rc != CM_OK) return failed("CMFLUS", rc);
  }
  printf("ready\n");
  fflush(stdout);
  while (read(0, rest, sizeof rest) > 0) {
  }
  return 0;
}
