/* echo_server: an accepting program that serves several conversations,
 * one after the other, and sends back what it is sent.
 *
 * Registers its TP name with the node (CMSLTP), says "ready" on stdout,
 * then accepts COUNT conversations (CMACCP). On each it receives records;
 * whenever a record comes with the right to send, it answers
 * "echo: <record>" and gives the turn back. A confirmation request is
 * answered with Confirmed. The conversation ends when the partner
 * deallocates it. Partner of nonblocking_client, side_info_client and
 * secure_client.
 *
 *   echo_server [TPNAME [COUNT]]        defaults ECHOSRV, 1 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "cpic.h"
#include "cpic_names.h"

/* Ends a conversation this program cannot go on with, so the partner is
 * not left waiting. When the failure has already ended it, the node no
 * longer knows it and Deallocate answers CM_PROGRAM_PARAMETER_CHECK. */
static void abandon(unsigned char *conv, int number) {
  CM_INT32 rc, deallocate_type = CM_DEALLOCATE_ABEND;
  CMSDT(conv, &deallocate_type, &rc);
  if (rc == CM_OK) CMDEAL(conv, &rc);
  printf("server: conversation %d abandoned (%s)\n", number, return_code_name(rc));
}

/* Serves one accepted conversation until the partner ends it. Returns 0
 * when the partner ended it normally. */
static int serve(unsigned char *conv, int number) {
  unsigned char buffer[1024];
  unsigned char reply[1100];
  CM_INT32 rc, length, requested, received, data_received, status_received, rts;
  CM_INT32 send_type = CM_SEND_AND_PREP_TO_RECEIVE;

  /* The answer gives the right to send back with the data, so the partner
   * needs only one Receive for both. */
  CMSST(conv, &send_type, &rc);
  if (rc != CM_OK) {
    printf("server: CMSST failed: %s\n", return_code_name(rc));
    abandon(conv, number);
    return 1;
  }
  for (;;) {
    requested = sizeof buffer - 1;
    received = 0;
    CMRCV(conv, buffer, &requested, &data_received, &received, &status_received, &rts, &rc);
    if (rc == CM_DEALLOCATED_NORMAL) {
      printf("server: conversation %d ended by the partner\n", number);
      return 0;
    }
    if (rc != CM_OK) {
      printf("server: CMRCV on conversation %d failed: %s\n", number, return_code_name(rc));
      abandon(conv, number);
      return 1;
    }
    if (data_received != CM_NO_DATA_RECEIVED) {
      buffer[received] = 0;
      printf("server: conversation %d received \"%s\"\n", number, (char *)buffer);
    }
    if (status_received == CM_CONFIRM_RECEIVED || status_received == CM_CONFIRM_DEALLOC_RECEIVED) {
      /* The partner waits for our word that the data arrived. */
      CMCFMD(conv, &rc);
      if (rc != CM_OK) {
        printf("server: CMCFMD failed: %s\n", return_code_name(rc));
        abandon(conv, number);
        return 1;
      }
      if (status_received == CM_CONFIRM_DEALLOC_RECEIVED) {
        printf("server: conversation %d ended by the partner after confirmation\n", number);
        return 0;
      }
    }
    if (status_received == CM_SEND_RECEIVED || status_received == CM_CONFIRM_SEND_RECEIVED) {
      if (status_received == CM_CONFIRM_SEND_RECEIVED) {
        CMCFMD(conv, &rc);
        if (rc != CM_OK) {
          printf("server: CMCFMD failed: %s\n", return_code_name(rc));
          abandon(conv, number);
          return 1;
        }
      }
      /* Our turn: echo the record that came with it (an empty one if the
       * turn came alone). */
      if (data_received == CM_NO_DATA_RECEIVED) buffer[0] = 0;
      length = snprintf((char *)reply, sizeof reply, "echo: %s", (char *)buffer);
      CMSEND(conv, reply, &length, &rts, &rc);
      if (rc != CM_OK) {
        printf("server: CMSEND on conversation %d failed: %s\n", number, return_code_name(rc));
        abandon(conv, number);
        return 1;
      }
      printf("server: conversation %d sent \"%s\"\n", number, (char *)reply);
    }
  }
}

int main(int argc, char **argv) {
  unsigned char tp_name[65];
  unsigned char user_id[11];
  CONVERSATION_ID conv;
  CM_INT32 rc, length, user_id_length;
  int count, i, failures = 0;

  /* One line at a time, so the output of both programs interleaves as it
   * happens. */
  setvbuf(stdout, NULL, _IOLBF, 0);
  strncpy((char *)tp_name, argc > 1 ? argv[1] : "ECHOSRV", sizeof tp_name - 1);
  tp_name[sizeof tp_name - 1] = 0;
  count = argc > 2 ? atoi(argv[2]) : 1;
  if (count < 1) {
    printf("server: COUNT must be 1 or more\n");
    return 2;
  }

  /* Registering first: a partner that allocates as soon as it sees
   * "ready" finds the name known to the node. */
  length = (CM_INT32)strlen((char *)tp_name);
  CMSLTP(tp_name, &length, &rc);
  if (rc != CM_OK) {
    printf("server: CMSLTP failed: %s\n", return_code_name(rc));
    return 1;
  }
  printf("server: ready, TP name %s, serving %d conversation(s)\n", (char *)tp_name, count);

  for (i = 1; i <= count; i++) {
    /* Waits for the next allocation of our name; conversations that came
     * while we served the previous one wait at the node, in order. */
    CMACCP(conv, &rc);
    if (rc != CM_OK) {
      printf("server: CMACCP failed: %s\n", return_code_name(rc));
      return 1;
    }
    /* The user ID the node verified for this conversation (none: blank).
     * With conversation security it is the one the partner proved. */
    user_id_length = 0;
    CMESUI(conv, user_id, &user_id_length, &rc);
    if (rc != CM_OK) {
      printf("server: CMESUI failed: %s\n", return_code_name(rc));
      return 1;
    }
    user_id[user_id_length > 0 && user_id_length <= 10 ? user_id_length : 0] = 0;
    printf("server: accepted conversation %d, user ID \"%s\"\n", i, (char *)user_id);
    if (serve(conv, i) != 0) failures++;
  }
  printf("server: served %d conversation(s), %d failed\n", count, failures);
  return failures == 0 ? 0 : 1;
}
