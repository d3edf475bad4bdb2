/* bench_partner: the accepting side of the conversation benchmarks.
 *
 *   bench_partner TPNAME serve      accept conversations one after another
 *   bench_partner TPNAME many N     accept N, answer each, then wait for
 *                                   each to be deallocated; then serve
 *
 * Registers TPNAME (CMSLTP), writes "ready" on stdout, then on every
 * conversation: receives, and each time the right to send arrives sends
 * back the last record received, turning the conversation round again
 * (send type CM_SEND_AND_PREP_TO_RECEIVE). A normal deallocation ends the
 * conversation. The bench ends the program with SIGTERM; it also ends when
 * a CMACCP fails (the node went away). */
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "cpic.h"

enum { kBufferSize = 32767 };
static unsigned char g_buffer[kBufferSize];

/* Serves one conversation until the partner holds the right to send after
 * our answer (stop_after_answer) or until it deallocates. Returns 0 when
 * the conversation is still open, 1 when it ended normally, -1 on error. */
static int serve(unsigned char *conv, int stop_after_answer) {
  CM_INT32 last = 0;
  for (;;) {
    CM_INT32 requested = kBufferSize, received = 0, data_received = 0;
    CM_INT32 status_received = 0, rts = 0, rc = 0;
    CMRCV(conv, g_buffer, &requested, &data_received, &received, &status_received, &rts, &rc);
    if (rc == CM_DEALLOCATED_NORMAL) return 1;
    if (rc != CM_OK) {
      fprintf(stderr, "bench_partner: CMRCV return code %d\n", (int)rc);
      return -1;
    }
    if (data_received != CM_NO_DATA_RECEIVED) last = received;
    if (status_received == CM_SEND_RECEIVED) {
      CM_INT32 send_type = CM_SEND_AND_PREP_TO_RECEIVE;
      CMSST(conv, &send_type, &rc);
      CMSEND(conv, g_buffer, &last, &rts, &rc);
      if (rc != CM_OK) {
        fprintf(stderr, "bench_partner: CMSEND return code %d\n", (int)rc);
        return -1;
      }
      if (stop_after_answer) return 0;
    }
  }
}

static void end_badly(unsigned char *conv) {
  CM_INT32 type = CM_DEALLOCATE_ABEND, rc = 0;
  CMSDT(conv, &type, &rc);
  CMDEAL(conv, &rc);
}

int main(int argc, char **argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: bench_partner TPNAME serve | TPNAME many N\n");
    return 2;
  }
  unsigned char tp_name[65];
  strncpy((char *)tp_name, argv[1], 64);
  tp_name[64] = 0;
  CM_INT32 length = (CM_INT32)strlen((char *)tp_name), rc = 0;
  CMSLTP(tp_name, &length, &rc);
  if (rc != CM_OK) {
    fprintf(stderr, "bench_partner: CMSLTP return code %d\n", (int)rc);
    return 1;
  }
  printf("ready\n");
  fflush(stdout);

  if (strcmp(argv[2], "many") == 0 && argc > 3) {
    int n = atoi(argv[3]);
    unsigned char (*convs)[8] = calloc((size_t)(n > 0 ? n : 1), 8);
    if (convs == NULL) return 1;
    for (int i = 0; i < n; ++i) {
      CMACCP(convs[i], &rc);
      if (rc != CM_OK) {
        fprintf(stderr, "bench_partner: CMACCP %d return code %d\n", i, (int)rc);
        return 1;
      }
    }
    for (int i = 0; i < n; ++i)
      if (serve(convs[i], 1) != 0) end_badly(convs[i]);
    for (int i = 0; i < n; ++i)
      if (serve(convs[i], 0) < 0) end_badly(convs[i]);
    free(convs);
  }

  for (;;) {
    unsigned char conv[8];
    CMACCP(conv, &rc);
    if (rc != CM_OK) {
      fprintf(stderr, "bench_partner: CMACCP return code %d\n", (int)rc);
      return 1;
    }
    if (serve(conv, 0) < 0) end_badly(conv);
  }
}
