/* confirm_client: confirmation, a rejected record, and an abnormal end.
 *
 * Allocates a conversation at sync level CM_CONFIRM with confirm_server
 * and sends it quantities, one record each, asking after each one for
 * confirmation (CMCFM): Confirm returns only when the partner has answered.
 *   - "12" is confirmed: the partner answers with Confirmed (CMCFMD) and
 *     CMCFM returns CM_OK.
 *   - "lots" is rejected: the partner answers with Send_Error (CMSERR) and
 *     CMCFM returns CM_PROGRAM_ERROR_PURGING. The partner now has the
 *     right to send; the next Receive brings its explanation and a request
 *     to confirm that too (status CM_CONFIRM_SEND_RECEIVED).
 * Having had a record refused, the client gives up: Deallocate with
 * deallocate type CM_DEALLOCATE_ABEND, which the partner sees as
 * CM_DEALLOCATED_ABEND.
 *
 *   confirm_client [TPNAME]        default TP name CONFIRMSRV */
#include <stdio.h>
#include <string.h>

#include "cpic.h"
#include "cpic_names.h"

static int failed(const char *call, CM_INT32 rc) {
  printf("client: %s failed: %s\n", call, return_code_name(rc));
  return 1;
}

int main(int argc, char **argv) {
  static const char *const records[] = {"12", "lots"};
  unsigned char blank_destination[8];
  unsigned char tp_name[65];
  unsigned char buffer[512];
  unsigned char mode[] = "#INTER";
  CONVERSATION_ID conv;
  CM_INT32 rc, length, mode_length = 6, requested, received = 0;
  CM_INT32 data_received, status_received, rts;
  CM_INT32 sync_level = CM_CONFIRM;
  CM_INT32 deallocate_type = CM_DEALLOCATE_ABEND;
  unsigned i;

  setvbuf(stdout, NULL, _IOLBF, 0);
  strncpy((char *)tp_name, argc > 1 ? argv[1] : "CONFIRMSRV", sizeof tp_name - 1);
  tp_name[sizeof tp_name - 1] = 0;

  memset(blank_destination, ' ', sizeof blank_destination);
  CMINIT(conv, blank_destination, &rc);
  if (rc != CM_OK) return failed("CMINIT", rc);
  length = (CM_INT32)strlen((char *)tp_name);
  CMSTPN(conv, tp_name, &length, &rc);
  if (rc != CM_OK) return failed("CMSTPN", rc);
  CMSMN(conv, mode, &mode_length, &rc);
  if (rc != CM_OK) return failed("CMSMN", rc);
  /* Without this the sync level is CM_NONE and CMCFM is refused with
   * CM_PROGRAM_STATE_CHECK. It can only be set before Allocate. */
  CMSSL(conv, &sync_level, &rc);
  if (rc != CM_OK) return failed("CMSSL", rc);
  CMALLC(conv, &rc);
  if (rc != CM_OK) return failed("CMALLC", rc);
  printf("client: allocated a conversation with %s at sync level CM_CONFIRM\n", (char *)tp_name);

  for (i = 0; i < sizeof records / sizeof records[0]; i++) {
    /* The default send type, CM_BUFFER_DATA, only queues the record;
     * Confirm sends it and then waits for the partner's answer. */
    length = (CM_INT32)strlen(records[i]);
    CMSEND(conv, (unsigned char *)records[i], &length, &rts, &rc);
    if (rc != CM_OK) return failed("CMSEND", rc);
    CMCFM(conv, &rts, &rc);
    printf("client: sent \"%s\", CMCFM returned %s\n", records[i], return_code_name(rc));
    if (rc == CM_OK) continue; /* confirmed: on to the next record */
    if (rc != CM_PROGRAM_ERROR_PURGING) return 1;

    /* Rejected. The partner sends next; receive what it has to say. */
    requested = sizeof buffer - 1;
    CMRCV(conv, buffer, &requested, &data_received, &received, &status_received, &rts, &rc);
    if (rc != CM_OK) return failed("CMRCV", rc);
    buffer[received] = 0;
    printf("client: received \"%s\", %s\n", (char *)buffer, status_received_name(status_received));
    /* The partner asked us to confirm its explanation; doing so also
     * gives us the right to send. */
    if (status_received == CM_CONFIRM_SEND_RECEIVED) {
      CMCFMD(conv, &rc);
      if (rc != CM_OK) return failed("CMCFMD", rc);
      printf("client: confirmed the explanation with CMCFMD\n");
    }
    break;
  }

  /* A record was refused, so the client abandons the whole exchange. An
   * abnormal deallocation ends the conversation at once, whatever its
   * state, and tells the partner it did not end normally. */
  CMSDT(conv, &deallocate_type, &rc);
  if (rc != CM_OK) return failed("CMSDT", rc);
  CMDEAL(conv, &rc);
  if (rc != CM_OK) return failed("CMDEAL", rc);
  printf("client: ended the conversation with CM_DEALLOCATE_ABEND\n");
  return 0;
}
