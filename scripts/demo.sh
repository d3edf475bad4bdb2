#!/bin/sh
# Sets the machine up, builds the library, the node client runtime, the
# node daemon and the tools, and runs real conversations: cpicping against
# the node's own cpicpingd, then two sample programs. The first verb finds
# no node running and starts one on its own with the built-in configuration.
set -eu
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset x86_64 > /dev/null
cmake --build --preset x86_64 -j "$(nproc)" --target snanoded cpicping cpicpingd snactl hello_server hello_client initialize_conversations
./build/x86_64/bin/cpicping -i 4 NETWORK.LOCAL
echo
samples/run_hello.sh ./build/x86_64/bin
