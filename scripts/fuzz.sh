#!/bin/sh
# Builds the libFuzzer targets (the fuzz preset: clang-14, AddressSanitizer
# and UndefinedBehaviorSanitizer) and runs each one for SECONDS (default 60)
# from a scratch copy of its committed seed corpus, so the corpus in the
# tree does not change. Fails when any target crashed, leaked, hung or ran
# out of memory; what it found is kept in build/fuzz/findings/<target>/.
#   scripts/fuzz.sh [SECONDS]
set -eu
cd "$(dirname "$0")/.."
root=$(pwd)
seconds=${1:-60}
case "$seconds" in
  ''|*[!0-9]*) echo "usage: scripts/fuzz.sh [SECONDS]" >&2; exit 2 ;;
esac
targets="fuzz_cpic_calls fuzz_daemon_requests fuzz_session_flows fuzz_config fuzz_trace_format"

launcher=""
if command -v ccache > /dev/null 2>&1; then
  launcher="-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache"
  export CCACHE_BASEDIR="$root"
fi
# shellcheck disable=SC2086
cmake --preset fuzz $launcher > /dev/null
cmake --build --preset fuzz -j "$(nproc)"

bin="$root/build/fuzz/bin"
findings="$root/build/fuzz/findings"
work=$(mktemp -d "${TMPDIR:-/tmp}/snafuzz.XXXXXX")
trap 'rm -rf "$work"' EXIT
trap 'exit 130' INT TERM

failed=""
summary=""
# Every committed seed first, once each (the CTest tests of the preset).
if ! ctest --preset fuzz; then failed=" seeds"; fi
for t in $targets; do
  dir="$work/$t"
  mkdir -p "$dir/corpus" "$dir/artifacts" "$dir/tmp"
  cp "$root/tests/fuzz/corpus/$t/"* "$dir/corpus/"
  dict=""
  if [ -f "$root/tests/fuzz/dict/$t.dict" ]; then dict="-dict=$root/tests/fuzz/dict/$t.dict"; fi
  echo "=== $t: ${seconds} s ==="
  status=0
  # shellcheck disable=SC2086
  (cd "$dir" && TMPDIR="$dir/tmp" "$bin/$t" -max_total_time="$seconds" -timeout=10 \
      -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$dir/artifacts/" $dict corpus) \
      > "$dir/log" 2>&1 || status=$?
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$dir/log" | tail -n 1)
  cov=$(grep -o 'cov: [0-9]*' "$dir/log" | tail -n 1 | sed 's/cov: //')
  if [ "$status" -eq 0 ] && ! ls "$dir/artifacts/"* > /dev/null 2>&1; then
    result="ok"
  else
    result="FAILED (exit $status)"
    failed="$failed $t"
    mkdir -p "$findings/$t"
    cp "$dir/log" "$findings/$t/log"
    cp "$dir/artifacts/"* "$findings/$t/" 2> /dev/null || true
    # The report: the sanitizer's or libFuzzer's first lines about it.
    grep -E 'ERROR|runtime error|Assertion|SUMMARY|Test unit written' "$dir/log" | head -n 20 || true
    echo "log and inputs kept in $findings/$t/"
  fi
  line=$(printf '%-22s executions %-10s coverage %-6s %s' "$t" "${execs:-?}" "${cov:-?}" "$result")
  echo "$line"
  summary="$summary$line
"
done
echo "=== fuzz summary (${seconds} s per target) ==="
printf '%s' "$summary"
if [ -n "$failed" ]; then
  echo "FUZZING FAILED in:$failed"
  exit 1
fi
echo "no target failed"
