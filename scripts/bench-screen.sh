#!/usr/bin/env bash
# Measures the screen pipeline (capture, HEVC encoder, stream server, a decoding client on
# 127.0.0.1) against ffmpeg's x11grab + libx265 on the same X display, and the encoder alone, at
# 1920x1080 and 2560x1440. Each size gets an X server of its own with the time-stamped test
# pattern (scripts/xserver.sh). Builds the release preset's targets first, prints the figures and
# their goals, and writes build/release/screen-bench-results.json (one file per size beside it).
#
#   scripts/bench-screen.sh                 # 20 s per phase, orinlink and ffmpeg alternated three
#                                           # times, about 8 minutes
#   scripts/bench-screen.sh --quick         # 10 s per phase, one round, about 2 minutes
#   scripts/bench-screen.sh --phases orinlink ffmpeg   # extra arguments go to orin_screen_bench
#   scripts/bench-screen.sh --wayland       # also the pipeline on a headless GNOME desktop
#
# --wayland (or BENCH_WAYLAND=1) adds, for each size, the wayland phase: the same pipeline
# capturing through GNOME's screen cast, in a session of its own (scripts/wayland-session.sh) with
# the test pattern on Xwayland; the summary sets it beside the X11 pipeline and ffmpeg.
#
# BENCH_SIZES overrides the sizes ("1920x1080 2560x1440"). The figures suffer when other work
# shares the cores, so it first waits (at most BENCH_WAIT_SECONDS, default 600) for the one-minute
# load average to drop below BENCH_MAX_LOAD (default 1.5), then measures anyway; the load is
# recorded with the results.
set -euo pipefail
cd "$(dirname "$0")/.."

wayland=${BENCH_WAYLAND:-}
args=()
for arg in "$@"; do
  if [ "$arg" = --wayland ]; then wayland=1; else args+=("$arg"); fi
done

bash scripts/setup.sh

cmake --preset release >/dev/null
cmake --build --preset release -j "${BENCH_BUILD_JOBS:-2}" \
  --target orin_screen_bench orin-test-pattern

bench=build/release/bench/screen/orin_screen_bench
# Named explicitly: xserver.sh would otherwise take the first build it finds, sanitised or not.
export ORIN_TEST_PATTERN=build/release/tools/test-pattern/orin-test-pattern

source scripts/wait-for-quiet.sh

# The pattern runs a little faster than the capture, so that over a run the grab meets the
# pattern's drawing at every phase; at exactly 60 fps the phase between the two stays put, and
# each run would add its own constant share of a frame interval to the delay.
pattern_fps=${BENCH_PATTERN_FPS:-61}

results=()
for size in ${BENCH_SIZES:-1920x1080 2560x1440}; do
  out="build/release/screen-bench-$size.json"
  rm -f "$out"
  # xserver.sh stops the server and the pattern when the benchmark ends, however it ends.
  scripts/xserver.sh run --size "$size" --pattern "$pattern_fps" -- \
    "$bench" --size "$size" --pattern-fps "$pattern_fps" --out "$out" "${args[@]}"
  results+=("$out")
  [ -n "$wayland" ] || continue
  out="build/release/screen-bench-$size-wayland.json"
  rm -f "$out"
  # Headless mutter 43 without a GPU keeps its repaints, some 250-450 MB/s under the pattern,
  # for as long as nothing records the monitor; a capture that never starts would let it take
  # the machine's memory. The cap makes mutter fail first.
  (
    ulimit -v $(($(awk '/^MemAvailable:/ { print $2 }' /proc/meminfo) * 3 / 4))
    # The last --phases counts: the session runs the wayland phase alone.
    scripts/wayland-session.sh run --size "$size" --pattern "$pattern_fps" -- \
      "$bench" --size "$size" --pattern-fps "$pattern_fps" --out "$out" "${args[@]}" \
      --phases wayland
  )
  results+=("$out")
done
echo "After: $(uptime)"

echo
"$bench" --summarize "${results[@]}" --out build/release/screen-bench-results.json
echo "Results: build/release/screen-bench-results.json"
