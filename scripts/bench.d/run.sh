#!/bin/sh
# Runs plaitd with a start stamp; the trace library only when BENCH_SHIM=1.
echo "$EPOCHREALTIME" > /tmp/bench-t0
if [ "$BENCH_SHIM" = 1 ]; then
    export LD_PRELOAD=/lab/bench/shim.so BENCH_TRACE=/tmp/bench-trace.log
fi
unset BENCH_SHIM
exec "$@"
