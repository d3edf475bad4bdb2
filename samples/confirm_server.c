/* confirm_server: the checking side of a conversation with confirmation.
 *
 * Registers its TP name (CMSLTP), says "ready", accepts one conversation
 * (CMACCP) and receives quantities, one record each. When the partner asks
 * for confirmation (status CM_CONFIRM_RECEIVED) the server judges the last
 * record: a number is confirmed (CMCFMD); anything else is rejected with
 * Send_Error (CMSERR), after which the server has the right to send and
 * tells the partner why. It runs until the partner ends the conversation,
 * normally or abnormally, and prints how it ended. Run confirm_client
 * against it.
 *
 *   confirm_server [TPNAME]        default TP name CONFIRMSRV */
#include <ctype.h>
#include <stdio.h>
#include <string.h>

#include "cpic.h"
#include "cpic_names.h"

/* The rule this server applies: a record must be a whole number. */
static int is_number(const unsigned char *record, CM_INT32 length) {
  CM_INT32 i;
  if (length == 0) return 0;
  for (i = 0; i < length; i++)
    if (!isdigit(record[i])) return 0;
  return 1;
}

int main(int argc, char **argv) {
  unsigned char tp_name[65];
  CONVERSATION_ID conv;
  unsigned char record[256];
  unsigned char reason[300];
  CM_INT32 rc, length, requested, received = 0;
  CM_INT32 data_received, status_received, rts;
  CM_INT32 send_type = CM_SEND_AND_PREP_TO_RECEIVE;

  setvbuf(stdout, NULL, _IOLBF, 0);
  strncpy((char *)tp_name, argc > 1 ? argv[1] : "CONFIRMSRV", sizeof tp_name - 1);
  tp_name[sizeof tp_name - 1] = 0;
  length = (CM_INT32)strlen((char *)tp_name);
  CMSLTP(tp_name, &length, &rc);
  if (rc != CM_OK) {
    printf("server: CMSLTP failed: %s\n", return_code_name(rc));
    return 1;
  }
  printf("server: ready, TP name %s\n", (char *)tp_name);

  CMACCP(conv, &rc);
  if (rc != CM_OK) {
    printf("server: CMACCP failed: %s\n", return_code_name(rc));
    return 1;
  }
  printf("server: accepted a conversation\n");

  record[0] = 0;
  for (;;) {
    requested = sizeof record - 1;
    received = 0;
    CMRCV(conv, record, &requested, &data_received, &received, &status_received, &rts, &rc);
    if (rc == CM_DEALLOCATED_NORMAL || rc == CM_DEALLOCATED_ABEND) {
      /* Either way the conversation is over; ABEND tells us the partner
       * gave up rather than finished. */
      printf("server: the client ended the conversation: %s\n", return_code_name(rc));
      return 0;
    }
    if (rc != CM_OK) {
      printf("server: CMRCV failed: %s\n", return_code_name(rc));
      return 1;
    }
    if (data_received != CM_NO_DATA_RECEIVED) {
      record[received] = 0;
      printf("server: received \"%s\"\n", (char *)record);
    }
    if (status_received == CM_NO_STATUS_RECEIVED) continue;
    if (status_received != CM_CONFIRM_RECEIVED) {
      printf("server: did not expect %s\n", status_received_name(status_received));
      return 1;
    }

    /* The partner waits in Confirm for our verdict on what it sent. */
    printf("server: %s\n", status_received_name(status_received));
    if (is_number(record, received)) {
      CMCFMD(conv, &rc);
      if (rc != CM_OK) {
        printf("server: CMCFMD failed: %s\n", return_code_name(rc));
        return 1;
      }
      printf("server: confirmed \"%s\" with CMCFMD\n", (char *)record);
      continue;
    }

    /* Send_Error is the negative answer. The partner's Confirm returns
     * CM_PROGRAM_ERROR_PURGING, and we now hold the right to send. */
    CMSERR(conv, &rts, &rc);
    if (rc != CM_OK) {
      printf("server: CMSERR failed: %s\n", return_code_name(rc));
      return 1;
    }
    printf("server: rejected \"%s\" with CMSERR\n", (char *)record);

    /* Tell the partner why, and give the turn back. At sync level confirm
     * the turn comes with a request to confirm (CM_CONFIRM_SEND_RECEIVED
     * at the partner), so this Send waits for the partner's CMCFMD. */
    CMSST(conv, &send_type, &rc);
    if (rc != CM_OK) {
      printf("server: CMSST failed: %s\n", return_code_name(rc));
      return 1;
    }
    length = snprintf((char *)reason, sizeof reason, "not a number: %s", (char *)record);
    CMSEND(conv, reason, &length, &rts, &rc);
    if (rc != CM_OK) {
      printf("server: CMSEND failed: %s\n", return_code_name(rc));
      return 1;
    }
    printf("server: sent \"%s\", the client confirmed it\n", (char *)reason);
  }
}
