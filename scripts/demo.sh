#!/bin/sh
# Sets the machine up, builds the library and the node client runtime, and
# runs the sample program against them.
set -eu
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset x86_64 > /dev/null
cmake --build --preset x86_64 -j "$(nproc)" --target initialize_conversations
./build/x86_64/bin/initialize_conversations
