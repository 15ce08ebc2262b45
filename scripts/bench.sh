#!/usr/bin/env bash
# Builds the release preset and runs the micro-benchmarks: five repetitions each, aggregates only,
# full results in build/release/bench-results.json. Extra arguments go to orin_bench, for example
# --benchmark_filter=HTTP.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset release
cmake --build --preset release --target orin_bench

out=build/release/bench-results.json
build/release/bench/orin_bench \
  --benchmark_repetitions=5 \
  --benchmark_report_aggregates_only=true \
  --benchmark_out="$out" \
  --benchmark_out_format=json \
  "$@"

# The medians alone (CPU time; rates in decimal units), as docs/benchmarks.md quotes them.
if command -v python3 >/dev/null; then
  python3 - "$out" <<'PY'
import json, sys

def rate(value, unit):
    for prefix in ("", "k", "M", "G", "T"):
        if value < 1000 or prefix == "T":
            return f"{value:.3g} {prefix}{unit}"
        value /= 1000

def num(value):
    return f"{value:.0f}" if value >= 1000 else f"{value:.3g}"

def size(value):
    for prefix in ("B", "KiB", "MiB", "GiB"):
        if value < 1024 or prefix == "GiB":
            return f"{value:.3g} {prefix}"
        value /= 1024

print(f"\nMedians of {sys.argv[1]}:")
print(f"{'benchmark':<52} {'cpu time':>12} {'throughput':>14} {'allocs':>8} {'alloc bytes':>12}")
for b in json.load(open(sys.argv[1]))["benchmarks"]:
    if b.get("aggregate_name") != "median":
        continue
    if "bytes_per_second" in b:
        throughput = rate(b["bytes_per_second"], "B/s")
    elif "items_per_second" in b:
        throughput = rate(b["items_per_second"], "op/s")
    else:
        throughput = ""
    allocs = num(b["allocs"]) if "allocs" in b else ""
    alloc_bytes = size(b["alloc_bytes"]) if "alloc_bytes" in b else ""
    cpu = f"{num(b['cpu_time'])} {b['time_unit']}"
    print(f"{b['run_name']:<52} {cpu:>12} {throughput:>14} {allocs:>8} {alloc_bytes:>12}")
PY
fi
