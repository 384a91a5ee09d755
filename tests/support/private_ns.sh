#!/bin/sh
# Runs a test binary in its own mount namespace with empty /tmp and /run, so
# the fixed paths of the daemon are private to the test.
exec unshare -m --propagation private /bin/sh -c '
  mount -t tmpfs tmpfs /tmp && mount -t tmpfs tmpfs /run && mkdir -p /run/lock && exec "$@"' sh "$@"
