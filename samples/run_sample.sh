#!/bin/bash
# Runs a sample client against its partner through a node of its own, as
# run_hello.sh does for the hello pair, and checks what both sides said.
#
#   run_sample.sh BIN_DIR [OPTIONS] -- CLIENT [ARGUMENTS...]
#     --server "PROGRAM ARGS"  start this partner from BIN_DIR first and wait
#                              for its "ready" line
#     --config FILE            start a node with this configuration file,
#     --daemon SNANODED        using this daemon; without --config the first
#                              verb autostarts a node with no configuration
#     --expect REGEX           a line (extended regex) the output of client
#                              or server must contain; may be repeated
#
# The socket and state directory are private to the run, and the node is
# stopped at the end. Passes when client and server both exit 0 and every
# expected line was printed.
set -u
bin=$1
shift
server_command="" config="" daemon="$bin/snanoded"
expects=()
while [ $# -gt 0 ]; do
  case "$1" in
    --server) server_command=$2; shift 2 ;;
    --config) config=$2; shift 2 ;;
    --daemon) daemon=$2; shift 2 ;;
    --expect) expects+=("$2"); shift 2 ;;
    --) shift; break ;;
    *) echo "run_sample.sh: unknown option $1"; exit 2 ;;
  esac
done
[ $# -ge 1 ] || { echo "run_sample.sh: no client program given"; exit 2; }

work=$(mktemp -d)
export SNANODE_SOCKET="$work/node.socket"
export SNANODE_STATE_DIR="$work/state"
output="$work/output"
: > "$output"
node_pid="" server_pid="" printer_pid=""

finish() {
  if [ -n "$server_pid" ]; then kill "$server_pid" 2>/dev/null; wait "$server_pid" 2>/dev/null; fi
  if [ -n "$printer_pid" ]; then wait "$printer_pid" 2>/dev/null; fi
  if [ -n "$node_pid" ]; then
    # The node this script started: SIGTERM ends it cleanly.
    kill -TERM "$node_pid" 2>/dev/null
    wait "$node_pid" 2>/dev/null
  elif [ -S "$SNANODE_SOCKET" ]; then
    # The node the runtime autostarted for this run ends with it.
    "$bin/snactl" --socket "$SNANODE_SOCKET" stop > /dev/null 2>&1
  fi
  rm -rf "$work"
}
trap finish EXIT

if [ -n "$config" ]; then
  # --ready-fd: the daemon writes one byte once its socket listens, or
  # closes the descriptor without one if it cannot start.
  mkfifo "$work/ready"
  "$daemon" --config "$config" --socket "$SNANODE_SOCKET" --state-dir "$SNANODE_STATE_DIR" \
    --ready-fd 3 3> "$work/ready" > "$work/node.log" 2>&1 &
  node_pid=$!
  if [ "$(timeout 20 head -c 1 "$work/ready" | wc -c)" -ne 1 ]; then
    echo "FAIL: the node did not start:"
    cat "$work/node.log"
    exit 1
  fi
fi

server_rc=0
if [ -n "$server_command" ]; then
  read -r -a server_words <<< "$server_command"
  mkfifo "$work/server.out"
  # Bounded, so a partner left waiting for a client that failed cannot
  # hold the test up.
  timeout 60 "$bin/${server_words[0]}" "${server_words[@]:1}" > "$work/server.out" 2>&1 &
  server_pid=$!
  exec 3< "$work/server.out"
  # The partner says "ready" once its TP name is known to the node.
  if ! read -r -t 20 line <&3; then
    echo "FAIL: ${server_words[0]} did not get ready"
    exit 1
  fi
  echo "$line" >> "$output"
  case "$line" in
    *ready*) ;;
    *) cat <&3 >> "$output"; cat "$output"; echo "FAIL: ${server_words[0]} did not get ready"; exit 1 ;;
  esac
  # The rest of the partner's lines as they come, beside the client's.
  cat <&3 >> "$output" &
  printer_pid=$!
  exec 3<&-
fi

client_rc=0
timeout 60 "$bin/$1" "${@:2}" >> "$output" 2>&1 || client_rc=$?
if [ -n "$server_pid" ]; then
  if [ "$client_rc" -ne 0 ]; then kill "$server_pid" 2>/dev/null; fi
  wait "$server_pid" || server_rc=$?
  server_pid=""
  wait "$printer_pid" 2>/dev/null
  printer_pid=""
fi

node_rc=0
if [ -n "$node_pid" ]; then
  # The node started here must end cleanly too: status 0 on SIGTERM, and
  # no sanitizer report in its log.
  kill -TERM "$node_pid" 2>/dev/null
  wait "$node_pid" || node_rc=$?
  node_pid=""
fi

cat "$output"
status=0
if [ "$node_rc" -ne 0 ] || grep -Eq "Sanitizer|runtime error" "$work/node.log" 2>/dev/null; then
  echo "FAIL: the node exited with status $node_rc:"
  cat "$work/node.log"
  status=1
fi
[ "$client_rc" -eq 0 ] || { echo "FAIL: $1 exited with status $client_rc"; status=1; }
[ "$server_rc" -eq 0 ] || { echo "FAIL: the partner exited with status $server_rc"; status=1; }
for expect in "${expects[@]}"; do
  grep -Eq -- "$expect" "$output" || { echo "FAIL: no line matches: $expect"; status=1; }
done
[ "$status" -eq 0 ] && echo "PASS"
exit "$status"
