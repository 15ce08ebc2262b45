#!/usr/bin/env bash
# Sourced by the benchmark scripts: figures suffer when other work shares the cores, so wait (at
# most BENCH_WAIT_SECONDS, default 600) for the one-minute load average to drop below
# BENCH_MAX_LOAD (default 1.5), then go on anyway; the caller records the load with its results.
max_load=${BENCH_MAX_LOAD:-1.5}
wait_seconds=${BENCH_WAIT_SECONDS:-600}
waited=0
while awk -v limit="$max_load" '{ exit !($1 > limit) }' /proc/loadavg &&
  [ "$waited" -lt "$wait_seconds" ]; do
  if [ "$waited" -eq 0 ]; then
    echo "Load average $(cut -d' ' -f1-3 /proc/loadavg) is above $max_load;" \
      "waiting up to ${wait_seconds}s for a quieter moment…"
  fi
  sleep 15
  waited=$((waited + 15))
done
echo "Before: $(uptime)"
