/* cpic_threads: two threads, each blocked in CMRCV on its own conversation
 * at the same time.
 *
 * Usage: cpic_threads TPNAME. The main thread allocates two conversations
 * to TPNAME, sends "1" on the first and "2" on the second, each with
 * prepare-to-receive, and prints "allocated". Then each thread prints
 * "tN receiving" and calls CMRCV; when it returns the thread prints
 * "tN CMRCV rc=RC len=N data=TEXT". The partner decides the order in which
 * the calls complete. */
#include <pthread.h>
#include <stdio.h>
#include <string.h>

#include "cpic.h"

static CONVERSATION_ID convs[2];
static pthread_mutex_t print_lock = PTHREAD_MUTEX_INITIALIZER;

static void say(const char *text) {
  pthread_mutex_lock(&print_lock);
  fputs(text, stdout);
  fflush(stdout);
  pthread_mutex_unlock(&print_lock);
}

static void *receiver(void *arg) {
  int n = (int)(size_t)arg;
  unsigned char buffer[100];
  char line[200];
  CM_INT32 requested = sizeof buffer, data_received, received_length = 0, status, rts, rc;
  snprintf(line, sizeof line, "t%d receiving\n", n + 1);
  say(line);
  cmrcv(convs[n], buffer, &requested, &data_received, &received_length, &status, &rts, &rc);
  snprintf(line, sizeof line, "t%d CMRCV rc=%d len=%d data=%.*s\n", n + 1, (int)rc,
           (int)received_length, rc == CM_OK ? (int)received_length : 0, (const char *)buffer);
  say(line);
  return NULL;
}

int main(int argc, char **argv) {
  unsigned char blanks[8];
  CM_INT32 rc, length, send_type = CM_SEND_AND_PREP_TO_RECEIVE, rts;
  pthread_t threads[2];
  int i;
  if (argc < 2) {
    fprintf(stderr, "usage: cpic_threads TPNAME\n");
    return 2;
  }
  memset(blanks, ' ', sizeof blanks);
  for (i = 0; i < 2; ++i) {
    unsigned char data = (unsigned char)('1' + i);
    CM_INT32 one = 1;
    length = (CM_INT32)strlen(argv[1]);
    cminit(convs[i], blanks, &rc);
    if (rc == CM_OK) cmstpn(convs[i], (unsigned char *)argv[1], &length, &rc);
    if (rc == CM_OK) cmallc(convs[i], &rc);
    if (rc == CM_OK) cmsst(convs[i], &send_type, &rc);
    if (rc == CM_OK) cmsend(convs[i], &data, &one, &rts, &rc);
    if (rc != CM_OK) {
      printf("setup failed on conversation %d: rc=%d\n", i + 1, (int)rc);
      return 1;
    }
  }
  say("allocated\n");
  for (i = 0; i < 2; ++i) pthread_create(&threads[i], NULL, receiver, (void *)(size_t)i);
  for (i = 0; i < 2; ++i) pthread_join(threads[i], NULL);
  say("done\n");
  return 0;
}
