/* cpicping: connectivity and round-trip test of a conversation.
 *
 * Allocates a mapped conversation to the echo TP (cpicpingd by default),
 * then ITERATIONS times sends CONSECUTIVE buffers of SIZE bytes, turns
 * the conversation round with the last one and receives the echo. Each
 * round trip is timed; the echo is checked byte for byte. Exit status:
 * 0 success, 1 a call failed or the echo was wrong, 2 bad arguments. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "cpic.h"
#include "ping_options.h"
#include "return_code_names.h"

static double now_ms(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec * 1000.0 + (double)t.tv_nsec / 1e6;
}

static int call_failed(const char *call, CM_INT32 rc) {
  char text[32];
  fprintf(stderr, "cpicping: %s failed: %s\n", call, cpic_return_code_text(rc, text, sizeof text));
  return 1;
}

/* Ends a conversation that is still up after a fault of ours, so that the
 * partner is not left waiting. */
static void abandon(unsigned char *conv) {
  CM_INT32 type = CM_DEALLOCATE_ABEND, rc;
  CMSDT(conv, &type, &rc);
  CMDEAL(conv, &rc);
}

/* The byte at position `index` of buffer `which` in round trip
 * `iteration`: varies with all three, so a lost, repeated or reordered
 * buffer shows up as a mismatch. */
static unsigned char pattern(long iteration, long which, long index) {
  return (unsigned char)((index + which * 7 + iteration * 13) & 0xFF);
}

static void fill(unsigned char *buffer, long size, long iteration, long which) {
  long i;
  for (i = 0; i < size; i++) buffer[i] = pattern(iteration, which, i);
}

static int matches(const unsigned char *buffer, long size, long iteration, long which) {
  long i;
  for (i = 0; i < size; i++) {
    if (buffer[i] != pattern(iteration, which, i)) return 0;
  }
  return 1;
}

/* Names the conversation after the destination: side information if the
 * destination is a symbolic destination name the node knows, otherwise a
 * partner LU with the TP and mode names of the options. Options given
 * explicitly override the side information. */
static int initialize(unsigned char *conv, const struct ping_options *o, int *from_side_info) {
  unsigned char sym_dest[8];
  CM_INT32 rc, length;
  size_t n = strlen(o->destination);

  *from_side_info = 0;
  if (n <= 8 && strchr(o->destination, '.') == NULL) {
    memset(sym_dest, ' ', sizeof sym_dest);
    memcpy(sym_dest, o->destination, n);
    CMINIT(conv, sym_dest, &rc);
    if (rc == CM_OK) {
      *from_side_info = 1;
    } else if (rc != CM_PROGRAM_PARAMETER_CHECK) {
      return call_failed("CMINIT", rc);
    }
  }
  if (!*from_side_info) {
    memset(sym_dest, ' ', sizeof sym_dest);
    CMINIT(conv, sym_dest, &rc);
    if (rc != CM_OK) return call_failed("CMINIT", rc);
    length = (CM_INT32)n;
    CMSPLN(conv, (unsigned char *)o->destination, &length, &rc);
    if (rc != CM_OK) return call_failed("CMSPLN", rc);
  }
  if (!*from_side_info || o->tp_name_given) {
    length = (CM_INT32)strlen(o->tp_name);
    CMSTPN(conv, (unsigned char *)o->tp_name, &length, &rc);
    if (rc != CM_OK) return call_failed("CMSTPN", rc);
  }
  if (!*from_side_info || o->mode_given) {
    length = (CM_INT32)strlen(o->mode);
    CMSMN(conv, (unsigned char *)o->mode, &length, &rc);
    if (rc != CM_OK) return call_failed("CMSMN", rc);
  }
  if (!*from_side_info || o->security_given || o->security == CM_SECURITY_PROGRAM) {
    CM_INT32 security = o->security;
    CMSCST(conv, &security, &rc);
    if (rc != CM_OK) return call_failed("CMSCST", rc);
  }
  if (o->security == CM_SECURITY_PROGRAM) {
    length = (CM_INT32)strlen(o->user_id);
    CMSCSU(conv, (unsigned char *)o->user_id, &length, &rc);
    if (rc != CM_OK) return call_failed("CMSCSU", rc);
    length = (CM_INT32)strlen(o->password);
    CMSCSP(conv, (unsigned char *)o->password, &length, &rc);
    if (rc != CM_OK) return call_failed("CMSCSP", rc);
  }
  return 0;
}

/* Prints the names the conversation was allocated with. */
static void describe(unsigned char *conv, double allocate_ms, const char *sym_dest) {
  unsigned char partner[18], tp[65], mode[9];
  CM_INT32 length = 0, rc;
  CMEPLN(conv, partner, &length, &rc);
  partner[rc == CM_OK ? length : 0] = '\0';
  CMETPN(conv, tp, &length, &rc);
  tp[rc == CM_OK ? length : 0] = '\0';
  CMEMN(conv, mode, &length, &rc);
  mode[rc == CM_OK ? length : 0] = '\0';
  printf("cpicping: allocated a conversation with TP %s at %s, mode %s%s%s, in %.3f ms\n",
         (char *)tp, (char *)partner, mode[0] ? (char *)mode : "(blank)",
         sym_dest ? ", side information " : "", sym_dest ? sym_dest : "", allocate_ms);
}

/* One round trip. Returns 0, or 1 after printing what went wrong. */
static int round_trip(unsigned char *conv, const struct ping_options *o, long iteration,
                      unsigned char *buffer) {
  CM_INT32 rc, length, rts, send_type, requested, data_received, received, status;
  long which, echoed = 0;

  for (which = 0; which < o->consecutive; which++) {
    send_type = which + 1 == o->consecutive ? CM_SEND_AND_PREP_TO_RECEIVE : CM_BUFFER_DATA;
    CMSST(conv, &send_type, &rc);
    if (rc != CM_OK) return call_failed("CMSST", rc);
    fill(buffer, o->size, iteration, which);
    length = (CM_INT32)o->size;
    CMSEND(conv, buffer, &length, &rts, &rc);
    if (rc != CM_OK) return call_failed("CMSEND", rc);
  }

  /* The echo: CONSECUTIVE records, the last with the right to send. */
  for (;;) {
    requested = (CM_INT32)PING_MAX_SIZE;
    received = 0;
    CMRCV(conv, buffer, &requested, &data_received, &received, &status, &rts, &rc);
    if (rc != CM_OK) return call_failed("CMRCV", rc);
    if (data_received == CM_INCOMPLETE_DATA_RECEIVED) {
      fprintf(stderr, "cpicping: the echo of buffer %ld is longer than %ld bytes\n", echoed + 1,
              o->size);
      abandon(conv);
      return 1;
    }
    if (data_received != CM_NO_DATA_RECEIVED) {
      if (echoed >= o->consecutive) {
        fprintf(stderr, "cpicping: more echoed buffers than the %ld sent\n", o->consecutive);
        abandon(conv);
        return 1;
      }
      if (received != o->size || !matches(buffer, o->size, iteration, echoed)) {
        fprintf(stderr, "cpicping: echo of buffer %ld differs from what was sent (%d of %ld bytes)\n",
                echoed + 1, (int)received, o->size);
        abandon(conv);
        return 1;
      }
      echoed++;
    }
    if (status == CM_SEND_RECEIVED) break;
    if (status != CM_NO_STATUS_RECEIVED) {
      fprintf(stderr, "cpicping: unexpected status %d from the partner\n", (int)status);
      abandon(conv);
      return 1;
    }
  }
  if (echoed != o->consecutive) {
    fprintf(stderr, "cpicping: %ld buffers echoed of the %ld sent\n", echoed, o->consecutive);
    abandon(conv);
    return 1;
  }
  return 0;
}

int main(int argc, char **argv) {
  struct ping_options o;
  char error[200];
  CONVERSATION_ID conv;
  CM_INT32 rc;
  int from_side_info;
  unsigned char *buffer;
  long iteration;
  double start, allocate_ms, min_ms = 0, max_ms = 0, total_ms = 0;
  double bytes_per_trip;

  if (ping_parse_options(argc, argv, &o, error, sizeof error) != 0) {
    fprintf(stderr, "cpicping: %s\nusage: cpicping [options] DESTINATION (cpicping -h lists the options)\n",
            error);
    return 2;
  }
  if (o.help) {
    fputs(ping_usage, stdout);
    return 0;
  }
  buffer = malloc(PING_MAX_SIZE + 1);
  if (!buffer) {
    fprintf(stderr, "cpicping: out of memory\n");
    return 1;
  }
  if (initialize(conv, &o, &from_side_info) != 0) {
    free(buffer);
    return 1;
  }

  start = now_ms();
  CMALLC(conv, &rc);
  if (rc != CM_OK) {
    free(buffer);
    return call_failed("CMALLC", rc);
  }
  allocate_ms = now_ms() - start;
  if (!o.quiet) describe(conv, allocate_ms, from_side_info ? o.destination : NULL);

  /* Both directions carry CONSECUTIVE buffers of SIZE bytes. */
  bytes_per_trip = 2.0 * (double)o.consecutive * (double)o.size;
  for (iteration = 0; iteration < o.iterations; iteration++) {
    double trip_start = now_ms(), trip_ms;
    if (round_trip(conv, &o, iteration, buffer) != 0) {
      free(buffer);
      return 1;
    }
    trip_ms = now_ms() - trip_start;
    if (iteration == 0 || trip_ms < min_ms) min_ms = trip_ms;
    if (trip_ms > max_ms) max_ms = trip_ms;
    total_ms += trip_ms;
    if (!o.quiet) {
      printf("iteration %ld: round trip %.3f ms, %ld x %ld bytes, %.1f KB/s\n", iteration + 1,
             trip_ms, o.consecutive, o.size,
             trip_ms > 0 ? bytes_per_trip / 1024.0 / (trip_ms / 1000.0) : 0.0);
    }
  }

  CMDEAL(conv, &rc);
  free(buffer);
  if (rc != CM_OK) return call_failed("CMDEAL", rc);

  printf("summary: %ld iterations of %ld x %ld bytes, round trip min/avg/max %.3f/%.3f/%.3f ms, "
         "throughput %.1f KB/s\n",
         o.iterations, o.consecutive, o.size, min_ms, total_ms / (double)o.iterations, max_ms,
         total_ms > 0 ? bytes_per_trip * (double)o.iterations / 1024.0 / (total_ms / 1000.0) : 0.0);
  return 0;
}
