/* hello_client: the allocating side of a conversation, in blocking mode.
 *
 * Starts a conversation with the TP named on the command line on the
 * local LU's default partner (the node's own LU unless configured
 * otherwise), sends a message, turns the conversation round, prints the
 * answer and ends the conversation.
 *
 *   hello_client [TPNAME [MESSAGE]]     defaults HELLOSRV, "hello, partner" */
#include <stdio.h>
#include <string.h>

#include "cpic.h"

static int failed(const char *call, CM_INT32 rc) {
  printf("client: %s failed: return code %d\n", call, (int)rc);
  return 1;
}

int main(int argc, char **argv) {
  unsigned char blank_destination[8];
  unsigned char tp_name[64];
  unsigned char message[256];
  unsigned char buffer[512];
  unsigned char mode[] = "#INTER";
  CONVERSATION_ID conv;
  CM_INT32 rc, length, mode_length = 6, requested, received = 0;
  CM_INT32 data_received, status_received, rts;
  CM_INT32 send_type = CM_SEND_AND_PREP_TO_RECEIVE;

  /* One line at a time, so the two programs' output interleaves as it
   * happens when both go to one terminal. */
  setvbuf(stdout, NULL, _IOLBF, 0);
  strncpy((char *)tp_name, argc > 1 ? argv[1] : "HELLOSRV", sizeof tp_name - 1);
  tp_name[sizeof tp_name - 1] = 0;
  strncpy((char *)message, argc > 2 ? argv[2] : "hello, partner", sizeof message - 1);
  message[sizeof message - 1] = 0;

  /* No side information: the names are set below. */
  memset(blank_destination, ' ', sizeof blank_destination);
  CMINIT(conv, blank_destination, &rc);
  if (rc != CM_OK) return failed("CMINIT", rc);
  length = (CM_INT32)strlen((char *)tp_name);
  CMSTPN(conv, tp_name, &length, &rc);
  if (rc != CM_OK) return failed("CMSTPN", rc);
  CMSMN(conv, mode, &mode_length, &rc);
  if (rc != CM_OK) return failed("CMSMN", rc);

  CMALLC(conv, &rc);
  if (rc != CM_OK) return failed("CMALLC", rc);
  printf("client: allocated a conversation with %s\n", (char *)tp_name);

  /* Send the message and give the partner the right to send in one call. */
  CMSST(conv, &send_type, &rc);
  if (rc != CM_OK) return failed("CMSST", rc);
  length = (CM_INT32)strlen((char *)message);
  CMSEND(conv, message, &length, &rts, &rc);
  if (rc != CM_OK) return failed("CMSEND", rc);
  printf("client: sent \"%s\"\n", (char *)message);

  requested = sizeof buffer - 1;
  CMRCV(conv, buffer, &requested, &data_received, &received, &status_received, &rts, &rc);
  if (rc != CM_OK) return failed("CMRCV", rc);
  buffer[received] = 0;
  printf("client: received \"%s\" (%d bytes)\n", (char *)buffer, (int)received);

  /* The partner is receiving again; we hold the right to send, so a
   * normal deallocation ends the conversation for both. */
  if (status_received != CM_SEND_RECEIVED) {
    requested = sizeof buffer - 1;
    CMRCV(conv, buffer, &requested, &data_received, &received, &status_received, &rts, &rc);
    if (rc != CM_OK) return failed("CMRCV", rc);
  }
  CMDEAL(conv, &rc);
  if (rc != CM_OK) return failed("CMDEAL", rc);
  printf("client: conversation ended\n");
  return 0;
}
