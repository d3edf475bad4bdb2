#!/bin/sh
# cpicping on a machine where nothing is configured: the first verb starts
# the node (autostart, built-in configuration), whose attach manager starts
# cpicpingd for the ping of its own LU. An unknown TP is then refused by name.
#   ping_fresh_node.sh BIN_DIR
set -u
bin=$1
work=$(mktemp -d)
export SNANODE_SOCKET="$work/node.socket" SNANODE_STATE_DIR="$work/state"
stop_node() { pkill -TERM -f "snanoded.*$SNANODE_SOCKET" 2>/dev/null; rm -rf "$work"; }
trap stop_node EXIT
status=0
out=$(timeout 60 "$bin/cpicping" -i 2 NETWORK.LOCAL 2>&1) || status=$?
echo "$out"
[ "$status" -eq 0 ] || { echo "FAIL: cpicping exited $status"; exit 1; }
echo "$out" | grep -q "^summary: 2 iterations" || { echo "FAIL: no summary line"; exit 1; }
status=0
out=$(timeout 60 "$bin/cpicping" -i 1 -t NOSUCHTP NETWORK.LOCAL 2>&1) || status=$?
echo "$out"
[ "$status" -ne 0 ] || { echo "FAIL: an unknown TP gave exit status 0"; exit 1; }
echo "$out" | grep -q "failed: CM_TPN_NOT_RECOGNIZED" || { echo "FAIL: return code not named"; exit 1; }
echo "PASS"
