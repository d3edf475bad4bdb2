/* cpicpingd: the partner TP of cpicping.
 *
 * Started by the node's attach manager for an incoming allocation (the
 * TP name comes from the environment the node sets). Accepts the
 * conversation and, each time the partner gives it the right to send,
 * echoes back every record received in that turn, in order, turning the
 * conversation round again with the last one. Ends when the partner
 * deallocates. Exit status: 0 when the partner ended normally, 1 when a
 * call failed, 2 bad arguments. Messages go to stderr (the definition's
 * log file when started by the node). */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "cpic.h"
#include "return_code_names.h"

static const char usage[] =
    "usage: cpicpingd\n"
    "  The partner TP of cpicping, started by the node for an incoming\n"
    "  conversation: accepts it and echoes every buffer back.\n";

struct record {
  unsigned char *data;
  CM_INT32 length;
};

/* The records of the current turn, echoed when the turn comes to us. */
struct turn {
  struct record *records;
  size_t count, capacity;
  int open; /* the last record is still incomplete */
};

static int call_failed(const char *call, CM_INT32 rc) {
  char text[32];
  fprintf(stderr, "cpicpingd: %s failed: %s\n", call, cpic_return_code_text(rc, text, sizeof text));
  return 1;
}

static void clear_turn(struct turn *t) {
  size_t i;
  for (i = 0; i < t->count; i++) free(t->records[i].data);
  t->count = 0;
  t->open = 0;
}

/* Appends received bytes: to the open record, or as a new one. */
static int keep(struct turn *t, const unsigned char *data, CM_INT32 length, int complete) {
  struct record *r;
  unsigned char *grown;
  if (!t->open) {
    if (t->count == t->capacity) {
      size_t capacity = t->capacity ? t->capacity * 2 : 16;
      struct record *more = realloc(t->records, capacity * sizeof *more);
      if (!more) return -1;
      t->records = more;
      t->capacity = capacity;
    }
    t->records[t->count].data = NULL;
    t->records[t->count].length = 0;
    t->count++;
  }
  r = &t->records[t->count - 1];
  if (r->length + length > CM_MAXIMUM_BUFFER_SIZE) return -1;
  grown = realloc(r->data, (size_t)(r->length + length) + 1);
  if (!grown) return -1;
  memcpy(grown + r->length, data, (size_t)length);
  r->data = grown;
  r->length += length;
  t->open = !complete;
  return 0;
}

/* Sends the turn's records back and gives the partner the right to send. */
static int echo(unsigned char *conv, struct turn *t) {
  CM_INT32 rc, rts, send_type, length;
  size_t i;
  if (t->count == 0) {
    CMPTR(conv, &rc);
    return rc == CM_OK ? 0 : call_failed("CMPTR", rc);
  }
  for (i = 0; i < t->count; i++) {
    send_type = i + 1 == t->count ? CM_SEND_AND_PREP_TO_RECEIVE : CM_BUFFER_DATA;
    CMSST(conv, &send_type, &rc);
    if (rc != CM_OK) return call_failed("CMSST", rc);
    length = t->records[i].length;
    CMSEND(conv, t->records[i].data, &length, &rts, &rc);
    if (rc != CM_OK) return call_failed("CMSEND", rc);
  }
  clear_turn(t);
  return 0;
}

int main(int argc, char **argv) {
  CONVERSATION_ID conv;
  CM_INT32 rc, requested, data_received, received, status, rts;
  unsigned char *buffer;
  struct turn turn = {NULL, 0, 0, 0};
  int result = 1;

  if (argc > 1) {
    if (argc == 2 && (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0)) {
      fputs(usage, stdout);
      return 0;
    }
    fprintf(stderr, "cpicpingd: unexpected argument: %s\n%s", argv[1], usage);
    return 2;
  }
  buffer = malloc(CM_MAXIMUM_BUFFER_SIZE);
  if (!buffer) {
    fprintf(stderr, "cpicpingd: out of memory\n");
    return 1;
  }

  CMACCP(conv, &rc);
  if (rc != CM_OK) {
    free(buffer);
    return call_failed("CMACCP", rc);
  }

  for (;;) {
    requested = CM_MAXIMUM_BUFFER_SIZE;
    received = 0;
    CMRCV(conv, buffer, &requested, &data_received, &received, &status, &rts, &rc);
    if (rc == CM_DEALLOCATED_NORMAL) {
      result = 0;
      break;
    }
    if (rc != CM_OK) {
      call_failed("CMRCV", rc);
      break;
    }
    if (data_received != CM_NO_DATA_RECEIVED &&
        keep(&turn, buffer, received, data_received != CM_INCOMPLETE_DATA_RECEIVED) != 0) {
      fprintf(stderr, "cpicpingd: out of memory\n");
      break;
    }
    if (status == CM_CONFIRM_RECEIVED || status == CM_CONFIRM_SEND_RECEIVED ||
        status == CM_CONFIRM_DEALLOC_RECEIVED) {
      CMCFMD(conv, &rc);
      if (rc != CM_OK) {
        call_failed("CMCFMD", rc);
        break;
      }
      if (status == CM_CONFIRM_DEALLOC_RECEIVED) {
        result = 0;
        break;
      }
    }
    if (status == CM_SEND_RECEIVED || status == CM_CONFIRM_SEND_RECEIVED) {
      if (echo(conv, &turn) != 0) break;
    }
  }

  clear_turn(&turn);
  free(turn.records);
  free(buffer);
  return result;
}
