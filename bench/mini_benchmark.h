// A small stand-in for the part of Google Benchmark the call benchmarks
// use, for builds where the library is not available (Debian ships no
// i386 libbenchmark). Same loop shape, same CSV rows, so the report reads
// both word sizes the same way.
#ifndef BENCH_MINI_BENCHMARK_H
#define BENCH_MINI_BENCHMARK_H

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <vector>

namespace benchmark {

template <class T>
inline void DoNotOptimize(T const &value) {
  asm volatile("" : : "r,m"(value) : "memory");
}
inline void ClobberMemory() { asm volatile("" : : : "memory"); }

class State {
 public:
  explicit State(int64_t iterations) : left_(iterations), total_(iterations) {}
  struct Iterator {
    State *s;
    bool operator!=(const Iterator &) const { return s->left_ > 0; }
    void operator++() { --s->left_; }
    // A class type with a destructor, so the loop variable nobody reads
    // draws no unused-variable warning (as with the library).
    struct Value {
      ~Value() {}
    };
    Value operator*() const { return Value(); }
  };
  Iterator begin() { return Iterator{this}; }
  Iterator end() { return Iterator{this}; }
  int64_t iterations() const { return total_; }
  void SkipWithError(const char *msg) {
    error_ = msg;
    left_ = 0;
  }
  const char *error() const { return error_; }

 private:
  int64_t left_;
  int64_t total_;
  const char *error_ = nullptr;
};

using Function = void (*)(State &);
struct Registered {
  const char *name;
  Function fn;
};
inline std::vector<Registered> &registry() {
  static std::vector<Registered> r;
  return r;
}
struct Registrar {
  Registrar(const char *name, Function fn) { registry().push_back({name, fn}); }
};

inline double now_ns() {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) * 1e9 + static_cast<double>(t.tv_nsec);
}
inline double cpu_ns() {
  struct timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e9 + static_cast<double>(t.tv_nsec);
}

// Grows the iteration count until one run takes min_time, as the library
// does, then prints: name,iterations,real_time,cpu_time,time_unit.
inline int run_all(int argc, char **argv) {
  double min_time_s = 0.5;
  const char *filter = nullptr;
  for (int i = 1; i < argc; ++i) {
    if (strncmp(argv[i], "--benchmark_min_time=", 21) == 0) min_time_s = atof(argv[i] + 21);
    if (strncmp(argv[i], "--benchmark_filter=", 19) == 0) filter = argv[i] + 19;
  }
  printf("name,iterations,real_time,cpu_time,time_unit,bytes_per_second,items_per_second,label,"
         "error_occurred,error_message\n");
  for (const Registered &r : registry()) {
    if (filter != nullptr && strstr(r.name, filter) == nullptr) continue;
    int64_t n = 1;
    for (;;) {
      State s(n);
      double t0 = now_ns(), c0 = cpu_ns();
      r.fn(s);
      double t = now_ns() - t0, c = cpu_ns() - c0;
      if (s.error() != nullptr) {
        printf("\"%s\",,,,,,,,true,\"%s\"\n", r.name, s.error());
        break;
      }
      if (t >= min_time_s * 1e9 || n >= (int64_t(1) << 40)) {
        printf("\"%s\",%lld,%.4f,%.4f,ns,,,,,\n", r.name, static_cast<long long>(n), t / n, c / n);
        break;
      }
      // Aim past the minimum time from what this run took.
      double want = min_time_s * 1e9 * 1.4 / (t > 1 ? t : 1) * static_cast<double>(n);
      int64_t next = static_cast<int64_t>(want);
      if (next <= n) next = n * 10;
      if (next > n * 100) next = n * 100;
      n = next;
    }
  }
  fflush(stdout);
  return 0;
}

}  // namespace benchmark

#define BENCH_CAT2(a, b) a##b
#define BENCH_CAT(a, b) BENCH_CAT2(a, b)
#define BENCHMARK(fn) static ::benchmark::Registrar BENCH_CAT(bench_reg_, __LINE__)(#fn, fn)
#define BENCHMARK_MAIN() \
  int main(int argc, char **argv) { return ::benchmark::run_all(argc, argv); }

#endif
