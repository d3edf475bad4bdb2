#!/bin/sh
# Builds the benchmarks (x86_64 in build/bench, i386 in build/bench32),
# runs them all in one go on this machine and writes
#   bench/results/results.md    the table: each figure, its baseline from
#                               the same run, and the ratio
#   bench/results/results.png   round trip per size and stream, ours next
#                               to the raw socket
# The table is also printed.
#   bench.sh [--quick]    --quick: tiny counts (checks the pipeline only)
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
quick=""
case "${1:-}" in
  --quick) quick="--quick" ;;
  "") ;;
  *) echo "usage: $0 [--quick]" >&2; exit 2 ;;
esac

scripts/install-deps.sh --bench

launcher=""
if command -v ccache >/dev/null 2>&1; then
  launcher="-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache"
  export CCACHE_BASEDIR="$root"
fi
jobs=$(nproc 2>/dev/null || echo 2)
m32="-m32"
# Release builds as the presets configure them, without the tests.
# shellcheck disable=SC2086
cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSNA_BUILD_TESTS=OFF $launcher >/dev/null
cmake --build build/bench -j"$jobs" --target bench_calls bench_conv bench_partner snanoded >/dev/null
# shellcheck disable=SC2086
cmake -S . -B build/bench32 -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSNA_BUILD_TESTS=OFF $launcher \
  -DCMAKE_C_FLAGS=$m32 -DCMAKE_CXX_FLAGS=$m32 -DCMAKE_EXE_LINKER_FLAGS=$m32 \
  -DCMAKE_SHARED_LINKER_FLAGS=$m32 -DCMAKE_MODULE_LINKER_FLAGS=$m32 >/dev/null
cmake --build build/bench32 -j"$jobs" --target bench_calls >/dev/null

out=bench/results
mkdir -p "$out"
work=$(mktemp -d /tmp/snabench-run-XXXXXX)
trap 'rm -rf "$work"' EXIT

mintime=1
[ -n "$quick" ] && mintime=0.01
for arch in x86_64 i386; do
  dir=build/bench
  [ $arch = i386 ] && dir=build/bench32
  echo "running $dir/bin/bench_calls ($arch)" >&2
  SNANODE_STATE_DIR=$work/state SNANODE_AUTOSTART=0 \
    "$dir/bin/bench_calls" --benchmark_min_time=$mintime --benchmark_format=csv \
    >"$work/calls-$arch.csv" 2>"$work/calls-$arch.err" || { cat "$work/calls-$arch.err" >&2; exit 1; }
done
echo "running build/bench/bin/bench_conv $quick" >&2
build/bench/bin/bench_conv --daemon build/bench/bin/snanoded --partner build/bench/bin/bench_partner \
  $quick >"$work/conv.out" || { echo "bench_conv failed" >&2; exit 1; }

# name -> value files the table and the plot read.
for arch in x86_64 i386; do
  awk -F, -v arch=$arch '/^"BM_/ { gsub(/"/, "", $1); sub(/^BM_/, "", $1); printf "%s_%s\t%s\n", $1, arch, $3 }' \
    "$work/calls-$arch.csv"
done >"$work/values"
awk -F'\t' '$1 == "ROW" { printf "%s\t%s\n", $2, $3 }' "$work/conv.out" >>"$work/values"

cpu=$(awk -F': ' '/^model name/ { print $2; exit }' /proc/cpuinfo)
cores=$(nproc 2>/dev/null || echo "?")
kernel=$(uname -sr)
when=$(date -u '+%Y-%m-%d %H:%M UTC')
commit=$(git rev-parse --short HEAD 2>/dev/null || echo "?")

awk -F'\t' -v cpu="$cpu" -v cores="$cores" -v kernel="$kernel" -v when="$when" -v commit="$commit" \
    -v quick="$quick" '
  { v[$1] = $2 }
  function num(x, d) { return sprintf("%." d "f", x) }
  function line(figure, ours, ounit, base, bunit, d,   r) {
    if (!(ours in v)) { printf "| %s | missing | | |\n", figure; return }
    if (base == "") { printf "| %s | %s %s | — | — |\n", figure, num(v[ours], d), ounit; return }
    r = (v[base] > 0) ? v[ours] / v[base] : 0
    printf "| %s | %s %s | %s %s | %s |\n", figure, num(v[ours], d), ounit, num(v[base], d), bunit, num(r, 2)
  }
  END {
    print "# Benchmark results"
    print ""
    printf "Machine: %s, %s cores; %s; %s; commit %s.%s\n", cpu, cores, kernel, when, commit, \
      (quick != "" ? " QUICK RUN (tiny counts, figures not meaningful)." : "")
    print ""
    print "Ratio = ours ÷ baseline (times: lower is better; throughput: higher is better)."
    print "Conversations run through a real snanoded on a Unix socket of its own."
    print ""
    print "| Figure | Ours | Baseline (same run) | Ratio |"
    print "|---|---|---|---|"
    split("x86_64 i386", arch, " ")
    for (a = 1; a <= 2; a++) {
      m = "MutexLockUnlock_" arch[a]
      line("CMSST, " arch[a] " (vs. mutex lock/unlock pair)", "CMSST_" arch[a], "ns", m, "ns", 1)
      line("CMECT, " arch[a] " (vs. mutex lock/unlock pair)", "CMECT_" arch[a], "ns", m, "ns", 1)
      line("CMEMBS, " arch[a] " (vs. mutex lock/unlock pair)", "CMEMBS_" arch[a], "ns", m, "ns", 1)
    }
    split("1 100 1024 32767", size, " ")
    for (s = 1; s <= 4; s++)
      line("Round trip, " size[s] " B (vs. socketpair between two processes)", "rt_ours_" size[s], "µs",
           "rt_raw_" size[s], "µs", 1)
    line("Stream, 32767-byte sends, 1 GiB (vs. Unix socket)", "stream_ours", "MB/s", "stream_raw", "MB/s", 0)
    line("Conversation set-up and tear-down", "setup_ours", "conv/s", "", "", 0)
    line("1,000 conversations open at once, one exchange each: total time", "many_total", "ms", "", "", 0)
    line("Daemon peak memory (VmHWM) in that run", "many_daemon_vmhwm", "KiB", "", "", 0)
    line("Daemon memory per open conversation (RSS delta / 1,000)", "mem_per_conv", "B", "", "", 0)
  }' "$work/values" >"$out/results.md"

# The plot: round trip per size (log scale) and stream, ours beside raw.
awk -F'\t' '{ v[$1] = $2 } END {
  split("1 100 1024 32767", size, " ")
  for (s = 1; s <= 4; s++) printf "\"%s B\"\t%s\t%s\n", size[s], v["rt_ours_" size[s]], v["rt_raw_" size[s]]
}' "$work/values" >"$work/rt.dat"
awk -F'\t' '{ v[$1] = $2 } END { printf "\"32767-byte sends\"\t%s\t%s\n", v["stream_ours"], v["stream_raw"] }' \
  "$work/values" >"$work/stream.dat"
gnuplot <<EOF
set terminal pngcairo size 1100,480 font "sans,10"
set output "$out/results.png"
set multiplot layout 1,2 title "CPI-C through snanoded vs. raw Unix-domain socket (same run, $when)"
set style data histogram
set style histogram clustered gap 1
set style fill solid 0.8 border -1
set boxwidth 0.9
set grid ytics
set key top left
set title "Round trip (lower is better)"
set ylabel "µs per round trip"
set logscale y
plot "$work/rt.dat" using 2:xtic(1) title "CPI-C conversation" lc rgb "#1f77b4", \
     "" using 3 title "raw socketpair" lc rgb "#ff7f0e"
unset logscale y
set title "Stream, 1 GiB (higher is better)"
set ylabel "MB/s"
set yrange [0:*]
plot "$work/stream.dat" using 2:xtic(1) title "CPI-C conversation" lc rgb "#1f77b4", \
     "" using 3 title "raw Unix socket" lc rgb "#ff7f0e"
unset multiplot
EOF

cat "$out/results.md"
