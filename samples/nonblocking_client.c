/* nonblocking_client: several conversations at once, in non-blocking mode.
 *
 * Allocates COUNT conversations with the TP named on the command line and
 * sends a message on each. Then it switches each conversation to
 * non-blocking processing (CMSPM): a Receive no longer waits for the
 * answer but returns CM_OPERATION_INCOMPLETE at once, and the program
 * stays free to start the Receive on the next conversation. One call,
 * Wait_For_Conversation (CMWAIT), then waits for all of them together and
 * says which conversation's operation completed, and with what result.
 * Each answer is handled as it comes, until every conversation is done.
 *
 * Run echo_server with the same TP name and COUNT as partner:
 *   echo_server ECHOSRV 3 &  nonblocking_client ECHOSRV 3
 *
 *   nonblocking_client [TPNAME [COUNT]]      defaults ECHOSRV, 3 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "cpic.h"
#include "cpic_names.h"

#define MAX_CONVERSATIONS 8

/* Everything one conversation's non-blocking Receive writes to. The
 * Receive fills these when its operation completes, long after CMRCV
 * returned, so they must stay in place until CMWAIT has reported it:
 * one set per conversation, never a shared local variable. */
struct conversation {
  CONVERSATION_ID id;
  unsigned char buffer[512];
  CM_INT32 requested, data_received, received, status_received, rts;
  int done;
};

static int failed(const char *call, int number, CM_INT32 rc) {
  printf("client: %s on conversation %d failed: %s\n", call, number, return_code_name(rc));
  return 1;
}

int main(int argc, char **argv) {
  struct conversation convs[MAX_CONVERSATIONS];
  unsigned char blank_destination[8];
  unsigned char tp_name[65];
  unsigned char message[64];
  unsigned char mode[] = "#INTER";
  CONVERSATION_ID completed;
  CM_INT32 rc, conversation_rc, length, mode_length = 6, rts;
  CM_INT32 send_type = CM_SEND_AND_PREP_TO_RECEIVE;
  CM_INT32 non_blocking = CM_NON_BLOCKING, blocking = CM_BLOCKING;
  int count, i, outstanding = 0, failures = 0;

  setvbuf(stdout, NULL, _IOLBF, 0);
  strncpy((char *)tp_name, argc > 1 ? argv[1] : "ECHOSRV", sizeof tp_name - 1);
  tp_name[sizeof tp_name - 1] = 0;
  count = argc > 2 ? atoi(argv[2]) : 3;
  if (count < 1 || count > MAX_CONVERSATIONS) {
    printf("client: COUNT must be 1 to %d\n", MAX_CONVERSATIONS);
    return 2;
  }
  memset(convs, 0, sizeof convs);
  memset(blank_destination, ' ', sizeof blank_destination);

  /* Step 1, in the default blocking mode: allocate each conversation and
   * send it a message together with the right to send. */
  for (i = 0; i < count; i++) {
    CMINIT(convs[i].id, blank_destination, &rc);
    if (rc != CM_OK) return failed("CMINIT", i + 1, rc);
    length = (CM_INT32)strlen((char *)tp_name);
    CMSTPN(convs[i].id, tp_name, &length, &rc);
    if (rc != CM_OK) return failed("CMSTPN", i + 1, rc);
    CMSMN(convs[i].id, mode, &mode_length, &rc);
    if (rc != CM_OK) return failed("CMSMN", i + 1, rc);
    CMALLC(convs[i].id, &rc);
    if (rc != CM_OK) return failed("CMALLC", i + 1, rc);
    CMSST(convs[i].id, &send_type, &rc);
    if (rc != CM_OK) return failed("CMSST", i + 1, rc);
    length = snprintf((char *)message, sizeof message, "message %d", i + 1);
    CMSEND(convs[i].id, message, &length, &rts, &rc);
    if (rc != CM_OK) return failed("CMSEND", i + 1, rc);
    printf("client: conversation %d allocated, sent \"%s\"\n", i + 1, (char *)message);
  }

  /* Step 2: non-blocking Receives on every conversation. Each returns at
   * once; CM_OPERATION_INCOMPLETE means "started, ask CMWAIT later". */
  for (i = 0; i < count; i++) {
    CMSPM(convs[i].id, &non_blocking, &rc);
    if (rc != CM_OK) return failed("CMSPM", i + 1, rc);
    convs[i].requested = sizeof convs[i].buffer - 1;
    CMRCV(convs[i].id, convs[i].buffer, &convs[i].requested, &convs[i].data_received,
          &convs[i].received, &convs[i].status_received, &convs[i].rts, &rc);
    printf("client: CMRCV on conversation %d returned %s\n", i + 1, return_code_name(rc));
    if (rc == CM_OPERATION_INCOMPLETE) {
      outstanding++;
    } else {
      /* Finished already (for instance refused at once): nothing to wait
       * for on this one. */
      failures += failed("CMRCV", i + 1, rc);
      convs[i].done = 1;
    }
  }

  /* Step 3: collect the Receives in whatever order they complete. */
  while (outstanding > 0) {
    CMWAIT(completed, &conversation_rc, &rc);
    if (rc != CM_OK) {
      /* CMWAIT's own return code: whether it could wait at all. */
      printf("client: CMWAIT failed: %s\n", return_code_name(rc));
      return 1;
    }
    for (i = 0; i < count; i++)
      if (!convs[i].done && memcmp(convs[i].id, completed, sizeof completed) == 0) break;
    if (i == count) {
      printf("client: CMWAIT named a conversation this program is not waiting for\n");
      return 1;
    }
    outstanding--;
    convs[i].done = 1;
    /* conversation_rc is the return code the Receive would have given in
     * blocking mode. */
    printf("client: CMWAIT: conversation %d completed with %s\n", i + 1,
           return_code_name(conversation_rc));
    if (conversation_rc != CM_OK) {
      failures++;
      continue;
    }
    convs[i].buffer[convs[i].received] = 0;
    printf("client: conversation %d received \"%s\", %s\n", i + 1, (char *)convs[i].buffer,
           status_received_name(convs[i].status_received));

    /* Back to blocking mode for the last call: nothing is outstanding on
     * this conversation now, so the mode may change. The partner gave us
     * the right to send, so a plain Deallocate ends the conversation. */
    CMSPM(convs[i].id, &blocking, &rc);
    if (rc != CM_OK) {
      failures += failed("CMSPM", i + 1, rc);
      continue;
    }
    CMDEAL(convs[i].id, &rc);
    if (rc != CM_OK) {
      failures += failed("CMDEAL", i + 1, rc);
      continue;
    }
    printf("client: conversation %d ended\n", i + 1);
  }
  printf("client: all %d conversations done, %d failed\n", count, failures);
  return failures == 0 ? 0 : 1;
}
