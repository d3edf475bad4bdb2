/* cpic_echo_tp: an invokable TP for the attach manager. It accepts one
 * conversation, and whenever the partner gives it the right to send it
 * sends back every record received since, the last one with
 * prepare-to-receive. Confirmation requests are confirmed. It ends when
 * the partner deallocates.
 *
 * It writes its environment and each step to stdout, which the TP
 * definition sends to a log file. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "cpic.h"

#define MAX_RECORDS 64

static void show_env(const char *name) {
  const char *v = getenv(name);
  printf("%s=%s\n", name, v ? v : "(unset)");
}

int main(void) {
  static unsigned char records[MAX_RECORDS][CM_MAXIMUM_BUFFER_SIZE];
  static CM_INT32 lengths[MAX_RECORDS];
  unsigned char buffer[CM_MAXIMUM_BUFFER_SIZE];
  CONVERSATION_ID conv;
  CM_INT32 rc, requested = CM_MAXIMUM_BUFFER_SIZE, data_received, received_length, status, rts;
  CM_INT32 send_type;
  int held = 0, i;

  printf("echo pid=%d\n", (int)getpid());
  show_env("APPCTPN");
  show_env("APPCLLU");
  show_env("SNANODE_SOCKET");
  fflush(stdout);

  cmaccp(conv, &rc);
  printf("CMACCP %d\n", (int)rc);
  fflush(stdout);
  if (rc != CM_OK) return 1;

  for (;;) {
    cmrcv(conv, buffer, &requested, &data_received, &received_length, &status, &rts, &rc);
    printf("CMRCV %d data=%d len=%d status=%d\n", (int)rc, (int)data_received, (int)received_length,
           (int)status);
    fflush(stdout);
    if (rc == CM_DEALLOCATED_NORMAL) return 0;
    if (rc != CM_OK) return 2;
    if (data_received != CM_NO_DATA_RECEIVED && held < MAX_RECORDS) {
      memcpy(records[held], buffer, (size_t)received_length);
      lengths[held] = received_length;
      ++held;
    }
    if (status == CM_CONFIRM_RECEIVED || status == CM_CONFIRM_SEND_RECEIVED) {
      cmcfmd(conv, &rc);
      if (rc != CM_OK) return 3;
    }
    if (status == CM_CONFIRM_DEALLOC_RECEIVED) {
      cmcfmd(conv, &rc);
      return rc == CM_OK ? 0 : 3;
    }
    if (status == CM_SEND_RECEIVED || status == CM_CONFIRM_SEND_RECEIVED) {
      if (held == 0) {
        lengths[0] = 0;
        held = 1;
      }
      for (i = 0; i < held; ++i) {
        send_type = i + 1 == held ? CM_SEND_AND_PREP_TO_RECEIVE : CM_BUFFER_DATA;
        cmsst(conv, &send_type, &rc);
        cmsend(conv, records[i], &lengths[i], &rts, &rc);
        printf("CMSEND %d\n", (int)rc);
        fflush(stdout);
        if (rc != CM_OK) return 4;
      }
      held = 0;
    }
  }
}
