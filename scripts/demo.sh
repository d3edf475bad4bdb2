#!/bin/sh
# Sets the machine up, builds the library, the node client runtime and the
# node daemon, and runs a real conversation between two sample programs:
# the first verb finds no node running and starts one on its own.
set -eu
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset x86_64 > /dev/null
cmake --build --preset x86_64 -j "$(nproc)" --target snanoded hello_server hello_client initialize_conversations
./build/x86_64/bin/initialize_conversations
echo
samples/run_hello.sh ./build/x86_64/bin
