/* trace_threads: traced calls on two threads while completions are traced
 * from the runtime's thread, for the test that reads the trace back.
 *
 * Usage: trace_threads TPNAME ROUNDS CALLS_PER_ROUND MIN_CALLS
 *
 * Thread A allocates one conversation to TPNAME (an echo TP) and puts it in
 * non-blocking mode; then ROUNDS times it sends a record with
 * prepare-to-receive and receives the echo. A receive returns
 * CM_OPERATION_INCOMPLETE and completes on the runtime's thread, which
 * writes the asynchronous-response record; CMWAIT collects it.
 * Thread B meanwhile calls CMECS and CMEMBS on a conversation of its own
 * (initialised, never allocated) until thread A is done and it has made at
 * least MIN_CALLS calls. B keeps pace with A: it makes at most
 * CALLS_PER_ROUND calls per round A has begun, so that its records spread
 * over all of A's and the trace stays bounded whatever the relative speed
 * of the two threads.
 *
 * Prints "a rounds=N incomplete=K", "b calls=M" and "done", or the call
 * that failed, and exits 0 only when everything went as planned. */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "cpic.h"

static const char *tp_name;
static long rounds, per_round, min_calls;
static long a_round; /* the round A is in */
static int a_finished;
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t progress = PTHREAD_COND_INITIALIZER;

static void say(const char *text) {
  pthread_mutex_lock(&lock);
  fputs(text, stdout);
  fflush(stdout);
  pthread_mutex_unlock(&lock);
}

static int failed(const char *who, const char *call, long round, CM_INT32 rc) {
  char line[160];
  snprintf(line, sizeof line, "%s: %s failed in round %ld: rc=%d\n", who, call, round, (int)rc);
  say(line);
  return 1;
}

/* The call's own return code, or for a call left incomplete the code
 * CMWAIT reports for it. */
static CM_INT32 finish(unsigned char *conv, CM_INT32 rc, long *incomplete) {
  CONVERSATION_ID done;
  CM_INT32 conversation_rc, wait_rc;
  if (rc != CM_OPERATION_INCOMPLETE) return rc;
  ++*incomplete;
  CMWAIT(done, &conversation_rc, &wait_rc);
  if (wait_rc != CM_OK) return wait_rc;
  if (memcmp(done, conv, sizeof(CONVERSATION_ID)) != 0) return CM_PRODUCT_SPECIFIC_ERROR;
  return conversation_rc;
}

static int run_a(void) {
  CONVERSATION_ID conv;
  unsigned char blank[8], record[64], buffer[256];
  CM_INT32 rc, length, rts, requested, data_received, received, status;
  CM_INT32 send_type = CM_SEND_AND_PREP_TO_RECEIVE, non_blocking = CM_NON_BLOCKING;
  long round, incomplete = 0;
  int result = 1;
  char line[96];

  memset(blank, ' ', sizeof blank);
  CMINIT(conv, blank, &rc);
  if (rc != CM_OK) return failed("a", "CMINIT", 0, rc);
  length = (CM_INT32)strlen(tp_name);
  CMSTPN(conv, (unsigned char *)tp_name, &length, &rc);
  if (rc != CM_OK) return failed("a", "CMSTPN", 0, rc);
  CMALLC(conv, &rc);
  if (rc != CM_OK) return failed("a", "CMALLC", 0, rc);
  CMSST(conv, &send_type, &rc);
  if (rc != CM_OK) return failed("a", "CMSST", 0, rc);
  CMSPM(conv, &non_blocking, &rc);
  if (rc != CM_OK) return failed("a", "CMSPM", 0, rc);

  for (round = 1; round <= rounds; ++round) {
    pthread_mutex_lock(&lock);
    a_round = round;
    pthread_cond_broadcast(&progress);
    pthread_mutex_unlock(&lock);
    length = snprintf((char *)record, sizeof record, "round %ld", round);
    CMSEND(conv, record, &length, &rts, &rc);
    rc = finish(conv, rc, &incomplete);
    if (rc != CM_OK) {
      failed("a", "CMSEND", round, rc);
      break;
    }
    /* The echo, then the right to send (with it or on its own). */
    status = CM_NO_STATUS_RECEIVED;
    received = 0;
    while (status != CM_SEND_RECEIVED) {
      requested = sizeof buffer;
      CMRCV(conv, buffer, &requested, &data_received, &received, &status, &rts, &rc);
      rc = finish(conv, rc, &incomplete);
      if (rc != CM_OK) break;
      if (data_received != CM_NO_DATA_RECEIVED &&
          (received != length || memcmp(buffer, record, (size_t)length) != 0)) {
        rc = CM_PRODUCT_SPECIFIC_ERROR;
        break;
      }
    }
    if (rc != CM_OK) {
      failed("a", "CMRCV", round, rc);
      break;
    }
  }
  if (round > rounds) {
    CMDEAL(conv, &rc);
    rc = finish(conv, rc, &incomplete);
    if (rc == CM_OK) {
      result = 0;
    } else {
      failed("a", "CMDEAL", round, rc);
    }
  }
  snprintf(line, sizeof line, "a rounds=%ld incomplete=%ld\n", round - 1, incomplete);
  say(line);
  return result;
}

static void *thread_a(void *arg) {
  *(int *)arg = run_a();
  /* Thread B stops once this is set, however A ended. */
  pthread_mutex_lock(&lock);
  a_finished = 1;
  pthread_cond_broadcast(&progress);
  pthread_mutex_unlock(&lock);
  return NULL;
}

static void *thread_b(void *arg) {
  CONVERSATION_ID conv;
  unsigned char blank[8];
  CM_INT32 rc, state, size;
  long calls = 0;
  int *result = (int *)arg;
  char line[64];

  *result = 1;
  memset(blank, ' ', sizeof blank);
  CMINIT(conv, blank, &rc);
  if (rc != CM_OK) {
    failed("b", "CMINIT", 0, rc);
    return NULL;
  }
  for (;;) {
    int finished;
    pthread_mutex_lock(&lock);
    while (!a_finished && calls >= a_round * per_round) pthread_cond_wait(&progress, &lock);
    finished = a_finished;
    pthread_mutex_unlock(&lock);
    if (finished && calls >= min_calls) break;
    CMECS(conv, &state, &rc);
    if (rc != CM_OK || state != CM_INITIALIZE_STATE) {
      failed("b", "CMECS", calls, rc);
      return NULL;
    }
    CMEMBS(&size, &rc);
    if (rc != CM_OK) {
      failed("b", "CMEMBS", calls, rc);
      return NULL;
    }
    calls += 2;
  }
  snprintf(line, sizeof line, "b calls=%ld\n", calls);
  say(line);
  *result = 0;
  return NULL;
}

int main(int argc, char **argv) {
  pthread_t a, b;
  int a_result = 1, b_result = 1;
  if (argc != 5) {
    fprintf(stderr, "usage: trace_threads TPNAME ROUNDS CALLS_PER_ROUND MIN_CALLS\n");
    return 2;
  }
  tp_name = argv[1];
  rounds = atol(argv[2]);
  per_round = atol(argv[3]);
  min_calls = atol(argv[4]);
  if (pthread_create(&b, NULL, thread_b, &b_result) != 0) return 3;
  if (pthread_create(&a, NULL, thread_a, &a_result) != 0) return 3;
  pthread_join(a, NULL);
  pthread_join(b, NULL);
  say(a_result == 0 && b_result == 0 ? "done\n" : "failed\n");
  return a_result == 0 && b_result == 0 ? 0 : 1;
}
