#!/bin/sh
# Runs plaitd with a start stamp; the trace library only when BENCH_SHIM=1.
# BENCH_GATE=1: first wait for a line from the FIFO /tmp/bench-go (several
# routers let loose at once).
if [ "$BENCH_GATE" = 1 ]; then
    read -r _ < /tmp/bench-go
fi
unset BENCH_GATE
echo "$EPOCHREALTIME" > /tmp/bench-t0
if [ "$BENCH_SHIM" = 1 ]; then
    export LD_PRELOAD=/lab/bench/shim.so BENCH_TRACE=/tmp/bench-trace.log
fi
unset BENCH_SHIM
exec "$@"
