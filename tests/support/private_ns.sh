#!/bin/sh
# Runs a test binary with private, empty /tmp and /run (a checkout or build under /tmp is
# carried over), under $PLAITD_TEST_EMULATOR (qemu-mipsel-static, ...) if set.
top=$(cd "$(dirname "$0")/../.." && pwd)
bindir=$(cd "$(dirname "$1")" && pwd)
# shellcheck disable=SC2016 # the inner shell expands these
exec unshare -m --propagation private /bin/sh -c '
  set -e
  top=$1 bindir=$2; shift 2
  mount --rbind /tmp /mnt && mount -t tmpfs tmpfs /tmp && mount -t tmpfs tmpfs /run && mkdir -p /run/lock
  for d in "$top" "$bindir"; do
    case $d in /tmp/*) mkdir -p "$d"; mount --bind "/mnt/${d#/tmp/}" "$d" ;; esac
  done
  exec $PLAITD_TEST_EMULATOR "$@"' sh "$top" "$bindir" "$@"
