/* soak_pair: both ends of the soak test's conversations, in blocking mode.
 *
 *   soak_pair server TPNAME
 *     Registers TPNAME (CMSLTP), says "ready", then accepts conversations
 *     one after another: receives a record with the right to send, sends
 *     it back with prepare-to-receive, and waits for the partner's
 *     deallocation. A record "QUIT" ends the program after that
 *     conversation: "served N".
 *
 *   soak_pair client TPNAME COUNT PAUSE_AT
 *     Runs COUNT conversations with TPNAME: allocate, send, receive the
 *     echo, deallocate. After conversation PAUSE_AT (and again after the
 *     last) it says "at N" and waits for a line on stdin before going on,
 *     so that the test can look at the node between conversations. Then
 *     one last conversation carries "QUIT" and it says "done N".
 *
 * Any return code other than the expected one ends the program with
 * "FAIL conversation N CALL rc=RC" and status 1. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "cpic.h"

static int fail(long n, const char *call, CM_INT32 rc) {
  printf("FAIL conversation %ld %s rc=%d\n", n, call, (int)rc);
  fflush(stdout);
  return 1;
}

static int wait_go(long n) {
  char line[64];
  printf("at %ld\n", n);
  fflush(stdout);
  return fgets(line, sizeof line, stdin) != NULL;
}

static int server(const char *tp) {
  unsigned char buffer[256];
  CONVERSATION_ID conv;
  CM_INT32 rc, length = (CM_INT32)strlen(tp), requested, data, received, status, rts;
  CM_INT32 send_type = CM_SEND_AND_PREP_TO_RECEIVE;
  long n = 0;
  int quit = 0;

  CMSLTP((unsigned char *)tp, &length, &rc);
  if (rc != CM_OK) return fail(0, "CMSLTP", rc);
  printf("ready\n");
  fflush(stdout);
  while (!quit) {
    ++n;
    CMACCP(conv, &rc);
    if (rc != CM_OK) return fail(n, "CMACCP", rc);
    requested = sizeof buffer;
    CMRCV(conv, buffer, &requested, &data, &received, &status, &rts, &rc);
    if (rc != CM_OK) return fail(n, "CMRCV", rc);
    if (data != CM_COMPLETE_DATA_RECEIVED || status != CM_SEND_RECEIVED) {
      return fail(n, "CMRCV data/status", data * 100 + status);
    }
    quit = received == 4 && memcmp(buffer, "QUIT", 4) == 0;
    CMSST(conv, &send_type, &rc);
    if (rc != CM_OK) return fail(n, "CMSST", rc);
    CMSEND(conv, buffer, &received, &rts, &rc);
    if (rc != CM_OK) return fail(n, "CMSEND", rc);
    requested = sizeof buffer;
    CMRCV(conv, buffer, &requested, &data, &received, &status, &rts, &rc);
    if (rc != CM_DEALLOCATED_NORMAL) return fail(n, "CMRCV end", rc);
  }
  printf("served %ld\n", n);
  fflush(stdout);
  return 0;
}

/* One conversation: the record goes out with the right to send and comes
 * back the same, then a normal deallocation ends it. */
static int converse(const char *tp, long n, const char *record) {
  static const unsigned char blank[8] = {' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};
  unsigned char buffer[256];
  CONVERSATION_ID conv;
  CM_INT32 rc, length, requested, data, received, status, rts;
  CM_INT32 send_type = CM_SEND_AND_PREP_TO_RECEIVE;

  CMINIT(conv, (unsigned char *)blank, &rc);
  if (rc != CM_OK) return fail(n, "CMINIT", rc);
  length = (CM_INT32)strlen(tp);
  CMSTPN(conv, (unsigned char *)tp, &length, &rc);
  if (rc != CM_OK) return fail(n, "CMSTPN", rc);
  CMALLC(conv, &rc);
  if (rc != CM_OK) return fail(n, "CMALLC", rc);
  CMSST(conv, &send_type, &rc);
  if (rc != CM_OK) return fail(n, "CMSST", rc);
  length = (CM_INT32)strlen(record);
  CMSEND(conv, (unsigned char *)record, &length, &rts, &rc);
  if (rc != CM_OK) return fail(n, "CMSEND", rc);
  requested = sizeof buffer;
  CMRCV(conv, buffer, &requested, &data, &received, &status, &rts, &rc);
  if (rc != CM_OK) return fail(n, "CMRCV", rc);
  if (data != CM_COMPLETE_DATA_RECEIVED || received != length ||
      memcmp(buffer, record, (size_t)length) != 0) {
    return fail(n, "CMRCV echo", received);
  }
  if (status != CM_SEND_RECEIVED) return fail(n, "CMRCV status", status);
  CMDEAL(conv, &rc);
  if (rc != CM_OK) return fail(n, "CMDEAL", rc);
  return 0;
}

static int client(const char *tp, long count, long pause_at) {
  char record[64];
  long n;
  for (n = 1; n <= count; ++n) {
    snprintf(record, sizeof record, "soak record %ld", n);
    if (converse(tp, n, record) != 0) return 1;
    if (n == pause_at && n != count && !wait_go(n)) return fail(n, "stdin", 0);
  }
  if (!wait_go(count)) return fail(count, "stdin", 0);
  if (converse(tp, count + 1, "QUIT") != 0) return 1;
  printf("done %ld\n", count);
  fflush(stdout);
  return 0;
}

int main(int argc, char **argv) {
  if (argc == 3 && strcmp(argv[1], "server") == 0) return server(argv[2]);
  if (argc == 5 && strcmp(argv[1], "client") == 0) {
    return client(argv[2], strtol(argv[3], NULL, 10), strtol(argv[4], NULL, 10));
  }
  fprintf(stderr, "usage: soak_pair server TPNAME | client TPNAME COUNT PAUSE_AT\n");
  return 2;
}
