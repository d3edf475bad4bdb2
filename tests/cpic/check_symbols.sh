#!/bin/sh
# check_symbols.sh exports LIB LIST   - the dynamic symbols LIB defines are
#                                       exactly the names in LIST
# check_symbols.sh imports LIB LIST   - every symbol LIB leaves undefined is
#                                       either in LIST or comes from libc
set -eu
mode=$1 lib=$2 list=$3
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
grep -v '^#' "$list" | sed '/^$/d' | sort -u > "$tmp/expected"
case "$mode" in
exports)
  nm -D --defined-only "$lib" | awk '{print $NF}' | sed 's/@.*//' \
    | grep -v -E '^(_init|_fini|__bss_start|_edata|_end)$' | sort -u > "$tmp/actual"
  if ! diff -u "$tmp/expected" "$tmp/actual"; then
    echo "exported symbols of $lib differ from $list (- expected, + actual)"
    exit 1
  fi
  echo "$(wc -l < "$tmp/actual") exported symbols as listed"
  ;;
imports)
  # Sanitizer and libgcc run-time symbols are the build's, not the code's.
  nm -D --undefined-only "$lib" | awk '{print $NF}' > "$tmp/all"
  grep -v -E '@(GLIBC|GCC)_' "$tmp/all" | sed 's/@.*//' \
    | grep -v -E '^(__gmon_start__|_ITM_.*|__cxa_finalize|__(a|ub|t)san.*|__sanitizer.*|__asan_.*)$' \
    | sort -u > "$tmp/actual"
  extra=$(comm -13 "$tmp/expected" "$tmp/actual")
  if [ -n "$extra" ]; then
    echo "$lib imports names that are neither libc nor the node interface:"
    echo "$extra"
    exit 1
  fi
  if grep -q -E '@(GLIBCXX|CXXABI)_' "$tmp/all"; then
    echo "$lib depends on the C++ run-time library:"
    grep -E '@(GLIBCXX|CXXABI)_' "$tmp/all"
    exit 1
  fi
  echo "imports: libc and $(wc -l < "$tmp/actual") node-interface names"
  ;;
*) echo "usage: $0 exports|imports LIB LIST"; exit 2 ;;
esac
