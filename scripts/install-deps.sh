#!/bin/sh
# Installs every Debian 12 package that zor needs to build, test and run.
# Run as root on a fresh machine; safe to run again.
#   --compare   also the peers that bench/compare/compare.py measures zor against
#   --bench     also the subject of bench-position-decode (python3.11-dbg)
set -eu
if [ "$(id -u)" -ne 0 ]; then
    echo "install-deps.sh: run as root (it calls apt-get)" >&2
    exit 1
fi
export DEBIAN_FRONTEND=noninteractive
PACKAGES="
  build-essential cmake ninja-build pkg-config
  qtbase5-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libdw-dev libelf-dev libcapstone-dev libunwind-dev zlib1g-dev dwz
  libopenmpi-dev openmpi-bin
  python3 clang libomp-dev
  chromium-headless-shell
"
for option in "$@"; do
    case "$option" in
    --compare) PACKAGES="$PACKAGES linux-perf google-perftools python3.11-dbg xz-utils" ;;
    --bench) PACKAGES="$PACKAGES python3.11-dbg" ;;
    *) echo "install-deps.sh: unknown option $option" >&2; exit 2 ;;
    esac
done
installed() {
    dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"
}
# gdb without Python, which zor doesn't use, starts in 20 ms against 50 (a
# fixed cost of every run). A machine that has the whole gdb keeps it; the
# two replace each other.
installed gdb || PACKAGES="$PACKAGES gdb-minimal"
missing=""
for p in $PACKAGES; do
    installed "$p" || missing="$missing $p"
done
if [ -n "$missing" ]; then
    apt-get update
    # shellcheck disable=SC2086
    apt-get install -y --no-install-recommends $missing
fi
