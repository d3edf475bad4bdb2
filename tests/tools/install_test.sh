#!/bin/bash
# Installs the build into a temporary prefix, checks what lands where, and
# builds a sample against the installed files twice: with pkg-config and
# with find_package(cpic). Both programs must run and use the installed
# libraries.
#   install_test.sh BUILD_DIR SOURCE_DIR LIBDIR HAVE_DAEMON(0/1) C_COMPILER [C_FLAGS]
set -u
build=$1 source=$2 libdir=$3 have_daemon=$4 cc=$5 cflags=${6:-}
bits=64
[[ " $cflags " == *" -m32 "* ]] && bits=32
work=$(mktemp -d /tmp/snainstall-XXXXXX)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
check_file() { [ -e "$prefix/$1" ] || fail "not installed: $1"; }
# Whether program $1 loads library $2 from the installed library directory.
uses_installed() {
  local path
  path=$(ldd "$1" | awk -v lib="$2" '$1 ~ "^" lib {print $3}')
  [ -n "$path" ] && [[ "$(realpath "$path")" == "$(realpath "$prefix/$libdir")"/* ]]
}

if ! cmake --install "$build" --prefix "$prefix" > "$work/install.log" 2>&1; then
  cat "$work/install.log"
  echo "FAIL: cmake --install"
  exit 1
fi

for f in "$libdir/libcpic.so" "$libdir/libsnanode.so" include/cpic.h include/cpic_print.h \
         include/snanode/export.h bin/cpicping bin/cpicpingd bin/snactl \
         "$libdir/pkgconfig/cpic.pc" "$libdir/cmake/cpic/cpicConfig.cmake" \
         "$libdir/cmake/cpic/cpicConfigVersion.cmake" share/cmake/cpic/cpicConfig.cmake \
         share/cmake/cpic/cpicConfigVersion.cmake "share/cmake/cpic/cpic-$bits.cmake" \
         share/man/man1/cpicping.1 share/man/man1/cpicpingd.1 share/man/man1/snactl.1 \
         share/man/man3/cpic.3 share/man/man3/cpic_conversations.3 share/man/man3/cpic_data.3 \
         share/man/man3/cpic_characteristics.3 share/man/man3/cpic_security.3 \
         share/man/man3/cpic_side_info.3 share/man/man3/cpic_local_tp.3 \
         share/man/man3/cpic_nonblocking.3 share/man/man3/cmallc.3 share/man/man3/cmwait.3; do
  check_file "$f"
done
# A call's page leads to its group's page.
grep -qx '.so man3/cpic_conversations.3' "$prefix/share/man/man3/cmallc.3" || fail "cmallc.3 link"
# Nothing of the tests or of GoogleTest is installed.
if find "$prefix" -name '*gtest*' -o -name '*_test' | grep -q .; then fail "test files installed"; fi

if [ "$have_daemon" = 1 ]; then
  for f in bin/snanoded share/man/man8/snanoded.8 lib/systemd/system/snanoded.service \
           lib/sysusers.d/snanode.conf share/doc/cpic/snanode.toml.example; do
    check_file "$f"
  done
  unit=$prefix/lib/systemd/system/snanoded.service
  for line in 'User=snanode' 'Group=snanode' 'RuntimeDirectory=snanode' 'StateDirectory=snanode' \
              'ExecReload=/bin/kill -HUP $MAINPID'; do
    grep -qxF "$line" "$unit" || fail "unit lacks: $line"
  done
  # The unit names the daemon under the prefix of this install, not the
  # configured one.
  grep -qxF "ExecStart=$prefix/bin/snanoded --config /etc/snanode/snanode.toml --socket /run/snanode/socket --state-dir /var/lib/snanode" "$unit" \
    || fail "unit ExecStart: $(grep '^ExecStart=' "$unit")"
  grep -qxF "ExecStartPre=$prefix/bin/snanoded --check-config /etc/snanode/snanode.toml" "$unit" \
    || fail "unit ExecStartPre: $(grep '^ExecStartPre=' "$unit")"
  grep -qxF "program = \"$prefix/bin/cpicpingd\"" "$prefix/share/doc/cpic/snanode.toml.example" \
    || fail "example configuration names another cpicpingd"
  # With DESTDIR the files land under it but name the final place.
  if DESTDIR=$work/dest cmake --install "$build" --prefix /opt/sna-test > "$work/install-destdir.log" 2>&1; then
    grep -qxF "ExecStart=/opt/sna-test/bin/snanoded --config /etc/snanode/snanode.toml --socket /run/snanode/socket --state-dir /var/lib/snanode" \
      "$work/dest/opt/sna-test/lib/systemd/system/snanoded.service" || fail "unit ExecStart with DESTDIR"
  else
    cat "$work/install-destdir.log"
    fail "cmake --install with DESTDIR"
  fi
  # The example configuration is one the daemon accepts; its group exists
  # only where the system node is set up, so without it the rest is checked.
  example=$prefix/share/doc/cpic/snanode.toml.example
  if ! getent group snanode > /dev/null; then
    grep -v '^group = "snanode"$' "$example" > "$work/example.toml"
    cmp -s "$example" "$work/example.toml" && fail "example configuration names no group"
    example=$work/example.toml
  fi
  "$prefix/bin/snanoded" --check-config "$example" || fail "example configuration refused"

  # The installed node, echo TP, cpicping and snactl together.
  printf '[[tp]]\nname = "CPICPINGD"\nprogram = "%s"\n' "$prefix/bin/cpicpingd" > "$work/node.toml"
  mkfifo "$work/ready"
  "$prefix/bin/snanoded" --config "$work/node.toml" --socket "$work/node.socket" \
    --state-dir "$work/node-state" --ready-fd 3 3> "$work/ready" 2> "$work/node.log" &
  node=$!
  if read -r -t 20 -n 1 _ < "$work/ready"; then
    export SNANODE_SOCKET=$work/node.socket SNANODE_AUTOSTART=0 SNANODE_STATE_DIR=$work/client-state
    out=$("$prefix/bin/cpicping" -i 2 -q NETWORK.LOCAL 2>&1) || fail "installed cpicping: $out"
    [[ "$out" == "summary: 2 iterations of 1 x 100 bytes, "* ]] || fail "installed cpicping output: $out"
    "$prefix/bin/snactl" stop > /dev/null || fail "installed snactl stop"
    unset SNANODE_SOCKET SNANODE_AUTOSTART SNANODE_STATE_DIR
  else
    fail "installed snanoded did not get ready: $(cat "$work/node.log")"
  fi
  kill "$node" 2> /dev/null
  wait "$node"

  # Autostart from the installed tree: no node running, no daemon named,
  # none on PATH; the runtime finds bin/snanoded from its $libdir.
  (
    failures=0
    unset SNANODE_DAEMON SNANODE_AUTOSTART
    export SNANODE_SOCKET=$work/auto.socket SNANODE_STATE_DIR=$work/auto-state PATH=/usr/bin:/bin
    out=$("$prefix/bin/cpicping" -i 1 -q NETWORK.LOCAL 2>&1) || fail "autostarted cpicping: $out"
    [[ "$out" == "summary: 1 iterations of 1 x 100 bytes, "* ]] || fail "autostarted cpicping output: $out"
    pid=$("$prefix/bin/snactl" status 2> /dev/null | sed -n '1s/^Node .* (pid \([0-9]*\))$/\1/p')
    if [ -n "$pid" ]; then
      exe=$(readlink -f "/proc/$pid/exe")
      [ "$exe" = "$(readlink -f "$prefix/bin/snanoded")" ] || fail "autostart ran $exe, not the installed daemon"
      "$prefix/bin/snactl" stop > /dev/null || fail "stopping the autostarted node"
    else
      fail "no autostarted node answers at $SNANODE_SOCKET"
    fi
    exit "$failures"
  ) || failures=$((failures + $?))
fi

# The installed programs find the installed libraries.
"$prefix/bin/cpicping" -h > /dev/null || fail "installed cpicping does not run"
uses_installed "$prefix/bin/cpicping" libcpic.so || fail "cpicping does not use the installed libcpic"
uses_installed "$prefix/bin/cpicpingd" libsnanode.so || fail "cpicpingd does not use the installed libsnanode"
"$prefix/bin/snactl" --help > /dev/null || fail "installed snactl does not run"

sample=$source/samples/initialize_conversations.c
expect='conversation state +14 \(CM_INITIALIZE_INCOMING_STATE\)'
run_env=(env SNANODE_AUTOSTART=0 SNANODE_SOCKET="$work/no.socket" SNANODE_STATE_DIR="$work/state")

# pkg-config
export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
libs=$(pkg-config --libs cpic) || fail "pkg-config --libs cpic"
[[ " $libs " == *" -lcpic -lsnanode "* ]] || fail "pkg-config libs: $libs"
# shellcheck disable=SC2046,SC2086
if "$cc" $cflags -o "$work/sample_pc" "$sample" $(pkg-config --cflags --libs cpic) \
     -Wl,-rpath,"$prefix/$libdir" 2> "$work/pc.log"; then
  out=$("${run_env[@]}" "$work/sample_pc") || fail "pkg-config sample exits $?"
  echo "$out" | grep -Eq "$expect" || fail "pkg-config sample output: $out"
  uses_installed "$work/sample_pc" libsnanode.so || fail "pkg-config sample not on the installed libsnanode"
else
  cat "$work/pc.log"
  fail "building with pkg-config"
fi

# find_package(cpic): as found through the prefix, and through the
# word-size-independent directory share/cmake/cpic.
for how in prefix share; do
  dir_option=()
  [ "$how" = share ] && dir_option=(-Dcpic_DIR="$prefix/share/cmake/cpic")
  consumer=$work/consumer-$how
  if cmake -S "$source/tests/tools/install_consumer" -B "$consumer" "${dir_option[@]}" \
       -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$cc" -DCMAKE_C_FLAGS="$cflags" \
       -DCMAKE_EXE_LINKER_FLAGS="$cflags" -DSAMPLE="$sample" > "$consumer.log" 2>&1 &&
     cmake --build "$consumer" >> "$consumer.log" 2>&1; then
    out=$("${run_env[@]}" "$consumer/consumer") || fail "find_package ($how) sample exits $?"
    echo "$out" | grep -Eq "$expect" || fail "find_package ($how) sample output: $out"
    uses_installed "$consumer/consumer" libcpic.so || fail "find_package ($how) sample not on the installed libcpic"
  else
    cat "$consumer.log"
    fail "building with find_package(cpic) ($how)"
  fi
done

if [ "$failures" -ne 0 ]; then
  echo "$failures check(s) failed"
  exit 1
fi
echo "install: every check passed ($prefix)"
