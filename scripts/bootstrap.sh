#!/usr/bin/env bash
# Installs the Debian packages that building, testing or benchmarking needs,
# but only those that are missing. Safe to run again; runs apt-get update at
# most once per machine.
#   scripts/bootstrap.sh          build and test packages
#   scripts/bootstrap.sh --bench  also the peer libraries used by bench/
set -euo pipefail

want=(build-essential cmake ninja-build pkg-config liblzo2-dev
      libgtest-dev libgmock-dev libbenchmark-dev
      clang libclang-rt-14-dev iproute2 libedit-dev libpugixml-dev graphviz)
if [ "${1:-}" = "--bench" ]; then
  want+=(libprotobuf-dev protobuf-compiler libsqlite3-dev libzmq3-dev lzop
         libboost-graph-dev libtinyxml2-dev libmsgpack-dev libmsgpack-cxx-dev
         liblua5.4-dev libmuparser-dev gnuplot-nox)
fi

missing=()
for p in "${want[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "bootstrap: installing ${missing[*]}"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
stamp=/var/lib/apt/periodic/kwz-update-stamp
if [ ! -e "$stamp" ]; then
  $sudo apt-get update -q
  $sudo mkdir -p "$(dirname "$stamp")" && $sudo touch "$stamp"
fi
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
