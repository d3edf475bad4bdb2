/* hello_server: the accepting side of a conversation, in blocking mode.
 *
 * Registers its TP name with the node (CMSLTP), says "ready" on stdout,
 * accepts the first conversation that arrives for that name (CMACCP),
 * receives one message, answers it and waits for the partner to end the
 * conversation. Run hello_client against it.
 *
 *   hello_server [TPNAME]        default TP name HELLOSRV */
#include <stdio.h>
#include <string.h>

#include "cpic.h"

int main(int argc, char **argv) {
  unsigned char tp_name[64];
  CONVERSATION_ID conv;
  unsigned char buffer[256];
  unsigned char reply[300];
  CM_INT32 rc, length, requested = sizeof buffer - 1, received = 0;
  CM_INT32 data_received, status_received, rts;

  /* One line at a time, so the two programs' output interleaves as it
   * happens when both go to one terminal. */
  setvbuf(stdout, NULL, _IOLBF, 0);
  strncpy((char *)tp_name, argc > 1 ? argv[1] : "HELLOSRV", sizeof tp_name - 1);
  tp_name[sizeof tp_name - 1] = 0;
  length = (CM_INT32)strlen((char *)tp_name);
  /* Registering before accepting means a partner that allocates as soon
   * as we say "ready" finds the name known to the node. */
  CMSLTP(tp_name, &length, &rc);
  if (rc != CM_OK) {
    printf("server: CMSLTP failed: return code %d\n", (int)rc);
    return 1;
  }
  printf("server: ready, TP name %s\n", (char *)tp_name);
  fflush(stdout);

  CMACCP(conv, &rc);
  if (rc != CM_OK) {
    printf("server: CMACCP failed: return code %d\n", (int)rc);
    return 1;
  }
  printf("server: accepted a conversation\n");

  /* The partner sends and then turns the conversation round, so this
   * receive brings the data and the right to send together. */
  CMRCV(conv, buffer, &requested, &data_received, &received, &status_received, &rts, &rc);
  if (rc != CM_OK) {
    printf("server: CMRCV failed: return code %d\n", (int)rc);
    return 1;
  }
  buffer[received] = 0;
  printf("server: received \"%s\" (%d bytes)\n", (char *)buffer, (int)received);
  if (status_received != CM_SEND_RECEIVED) {
    printf("server: expected the right to send, got status %d\n", (int)status_received);
    return 1;
  }

  length = snprintf((char *)reply, sizeof reply, "hello back, I got: %s", (char *)buffer);
  CMSEND(conv, reply, &length, &rts, &rc);
  if (rc != CM_OK) {
    printf("server: CMSEND failed: return code %d\n", (int)rc);
    return 1;
  }
  printf("server: sent \"%s\"\n", (char *)reply);

  /* Receiving flushes the answer and gives the turn back; the partner
   * then deallocates, which this receive reports. */
  requested = sizeof buffer - 1;
  CMRCV(conv, buffer, &requested, &data_received, &received, &status_received, &rts, &rc);
  if (rc != CM_DEALLOCATED_NORMAL) {
    printf("server: expected CM_DEALLOCATED_NORMAL, got return code %d\n", (int)rc);
    return 1;
  }
  printf("server: the partner ended the conversation\n");
  return 0;
}
