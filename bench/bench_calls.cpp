// Cost of CPI-C calls that complete inside the library (no node round
// trip), next to an uncontended mutex lock/unlock pair measured in the same
// run: every such call takes the library's lock once, so the pair is the
// floor it is judged against.
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "cpic.h"

#ifdef BENCH_MINI
#include "mini_benchmark.h"
#else
#include <benchmark/benchmark.h>
#endif

namespace {

// One initialized conversation shared by the call benchmarks: CMINIT with a
// blank destination is local, so no node is needed.
unsigned char g_conv[8];
bool g_ready = false;

bool ensure_conversation() {
  if (g_ready) return true;
  unsigned char blank[8];
  memset(blank, ' ', sizeof blank);
  CM_INT32 rc = -1;
  CMINIT(g_conv, blank, &rc);
  if (rc != CM_OK) {
    fprintf(stderr, "bench_calls: CMINIT gave return code %d\n", (int)rc);
    return false;
  }
  g_ready = true;
  return true;
}

void BM_MutexLockUnlock(benchmark::State &state) {
  static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  for (auto _ : state) {
    pthread_mutex_lock(&mutex);
    benchmark::ClobberMemory();
    pthread_mutex_unlock(&mutex);
  }
}
BENCHMARK(BM_MutexLockUnlock);

void BM_CMSST(benchmark::State &state) {
  if (!ensure_conversation()) {
    state.SkipWithError("CMINIT failed");
    return;
  }
  CM_INT32 rc = 0;
  CM_INT32 types[2] = {CM_BUFFER_DATA, CM_SEND_AND_PREP_TO_RECEIVE};
  unsigned i = 0;
  for (auto _ : state) {
    CMSST(g_conv, &types[i++ & 1], &rc);
    benchmark::DoNotOptimize(rc);
  }
  if (rc != CM_OK) state.SkipWithError("CMSST did not return CM_OK");
}
BENCHMARK(BM_CMSST);

void BM_CMECT(benchmark::State &state) {
  if (!ensure_conversation()) {
    state.SkipWithError("CMINIT failed");
    return;
  }
  CM_INT32 rc = 0, type = -1;
  for (auto _ : state) {
    CMECT(g_conv, &type, &rc);
    benchmark::DoNotOptimize(type);
  }
  if (rc != CM_OK) state.SkipWithError("CMECT did not return CM_OK");
}
BENCHMARK(BM_CMECT);

void BM_CMEMBS(benchmark::State &state) {
  CM_INT32 rc = 0, size = 0;
  for (auto _ : state) {
    CMEMBS(&size, &rc);
    benchmark::DoNotOptimize(size);
  }
  if (rc != CM_OK) state.SkipWithError("CMEMBS did not return CM_OK");
}
BENCHMARK(BM_CMEMBS);

}  // namespace

BENCHMARK_MAIN();
