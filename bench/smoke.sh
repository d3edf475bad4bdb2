#!/bin/sh
# Runs each bench program with a tiny count and checks that it exits 0 and
# prints every row the report reads.
#   smoke.sh BENCH_CALLS BENCH_CONV BENCH_PARTNER [SNANODED]
set -u
calls=$1 conv=$2 partner=$3 daemon=${4:-}
tmp=$(mktemp -d /tmp/snabench-smoke-XXXXXX)
trap 'rm -rf "$tmp"' EXIT
status=0

SNANODE_STATE_DIR=$tmp/state SNANODE_AUTOSTART=0 \
  "$calls" --benchmark_min_time=0.01 --benchmark_format=csv >"$tmp/calls.csv" 2>"$tmp/calls.err" || {
  echo "bench_calls exited with status $?"; cat "$tmp/calls.err"; status=1; }
for name in BM_MutexLockUnlock BM_CMSST BM_CMECT BM_CMEMBS; do
  if ! grep -q "^\"$name\",[0-9]" "$tmp/calls.csv"; then
    echo "bench_calls: no row for $name"; status=1
  fi
done
cat "$tmp/calls.csv"

if [ -n "$daemon" ]; then
  "$conv" --daemon "$daemon" --partner "$partner" --quick >"$tmp/conv.out" 2>"$tmp/conv.err" || {
    echo "bench_conv exited with status $?"; cat "$tmp/conv.err"; status=1; }
  for name in rt_raw_1 rt_raw_100 rt_raw_1024 rt_raw_32767 rt_ours_1 rt_ours_100 rt_ours_1024 \
              rt_ours_32767 stream_raw stream_ours setup_ours many_total many_daemon_vmhwm mem_per_conv; do
    if ! grep -q "^ROW	$name	[0-9]" "$tmp/conv.out"; then
      echo "bench_conv: no row for $name"; status=1
    fi
  done
  cat "$tmp/conv.out"
else
  echo "no daemon in this build: bench_conv not run"
fi
exit $status
