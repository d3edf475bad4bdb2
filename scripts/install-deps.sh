#!/bin/sh
# Installs the Debian 12 packages the build and the tests need, when any
# is missing. Needs root (or sudo) only when something must be installed.
#   install-deps.sh [--bench]    --bench: also what scripts/bench.sh needs
set -eu
packages="build-essential g++-multilib cmake make googletest libgtest-dev libgmock-dev libbenchmark-dev pkg-config libtomlplusplus-dev libcli11-dev nlohmann-json3-dev libcrypt-dev clang-14 libclang-rt-14-dev"
for arg in "$@"; do
  case $arg in
    --bench) packages="$packages gnuplot-nox" ;;
    *) echo "usage: $0 [--bench]" >&2; exit 2 ;;
  esac
done
missing=""
for p in $packages; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
[ -z "$missing" ] && exit 0
echo "installing:$missing"
if [ "$(id -u)" -eq 0 ]; then SUDO=""; else SUDO="sudo"; fi
$SUDO apt-get update -qq
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq $missing
