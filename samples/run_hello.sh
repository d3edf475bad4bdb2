#!/bin/bash
# Runs hello_server and hello_client against each other through the node.
# The first verb finds no node and starts one (the runtime's autostart);
# the two programs then hold a real conversation through it.
#   run_hello.sh BIN_DIR [--private]
# --private: a socket and state directory of its own, and the node is
# stopped afterwards (for the test suite).
set -eu
bin=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
if [ "${2:-}" = "--private" ]; then
  export SNANODE_SOCKET="$work/node.socket"
  export SNANODE_STATE_DIR="$work/state"
fi
mkfifo "$work/server.out"
"$bin/hello_server" > "$work/server.out" &
server=$!
exec 3< "$work/server.out"
# The server says "ready" once its TP name is known to the node.
if ! read -r -t 20 line <&3; then
  echo "hello_server did not get ready"
  kill "$server" 2>/dev/null || true
  exit 1
fi
echo "$line"
# The rest of the server's lines as they come, beside the client's.
cat <&3 &
printer=$!
client_rc=0
"$bin/hello_client" || client_rc=$?
server_rc=0
wait "$server" || server_rc=$?
wait "$printer" || true
if [ "${2:-}" = "--private" ] && [ -S "$SNANODE_SOCKET" ]; then
  # The node started for this run ends with it.
  pkill -TERM -f "snanoded.*$SNANODE_SOCKET" 2>/dev/null || true
fi
[ "$client_rc" -eq 0 ] && [ "$server_rc" -eq 0 ]
