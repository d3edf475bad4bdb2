#!/bin/sh
# Builds and runs every test: x86_64, i386 (the reference word size; its
# end-to-end tests run i386 programs against the x86_64 build's daemon, so
# x86_64 is built first), x86_64 again under AddressSanitizer and
# UndefinedBehaviorSanitizer, and once more under ThreadSanitizer
# (completions arrive on the runtime's thread). Then the fuzz targets run
# for 60 s each (scripts/fuzz.sh).
#   scripts/test-all.sh          everything
#   scripts/test-all.sh --quick  x86_64 only, the quick label only, no fuzzing
set -eu
cd "$(dirname "$0")/.."
scripts/install-deps.sh
jobs=$(nproc)
presets="x86_64 i386 asan tsan"
label=""
fuzz_seconds=60
if [ "${1:-}" = "--quick" ]; then presets="x86_64"; label="-L quick"; fuzz_seconds=0; fi
failed=""
for preset in $presets; do
  echo "=== $preset ==="
  cmake --preset "$preset" > /dev/null
  cmake --build --preset "$preset" -j "$jobs"
  # shellcheck disable=SC2086
  if ! ctest --preset "$preset" -j "$jobs" $label; then failed="$failed $preset"; fi
done
if [ "$fuzz_seconds" -gt 0 ]; then
  echo "=== fuzz ==="
  if ! scripts/fuzz.sh "$fuzz_seconds"; then failed="$failed fuzz"; fi
  presets="$presets fuzz"
fi
if [ -n "$failed" ]; then
  echo "FAILED in:$failed"
  exit 1
fi
echo "all tests passed in: $presets"
