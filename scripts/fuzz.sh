#!/usr/bin/env bash
# Builds the libFuzzer targets (preset "fuzz") and runs each for SECONDS seconds, one after the
# other, on a scratch copy of its seed corpus; the repository's corpus is never written to.
# Fails when any target crashes, times out, leaks or trips a sanitizer.
# Usage: scripts/fuzz.sh [SECONDS]   (default 30)
set -euo pipefail

seconds="${1:-30}"
if ! [[ "$seconds" =~ ^[0-9]+$ ]] || [ "$seconds" -lt 1 ]; then
  echo "usage: $0 [SECONDS]" >&2
  exit 2
fi

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"

bash scripts/setup.sh
export ORIN_WERROR="${ORIN_WERROR:-ON}"
cmake --preset fuzz >/dev/null
# Only the fuzzers and what they link: the rest of the application need not build with clang 14.
cmake --build --preset fuzz --target fuzzers

export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
targets=(fuzz_http_request fuzz_screen_stream fuzz_records fuzz_tool_call)
bin=build/fuzz/fuzz
failed=()
for target in "${targets[@]}"; do
  # The working corpus keeps what earlier runs found; the seeds are copied in afresh each time.
  work="build/fuzz/corpus-work/$target"
  artifacts="build/fuzz/artifacts/$target"
  log="build/fuzz/$target.log"
  mkdir -p "$work" "$artifacts"
  cp fuzz/corpus/"$target"/* "$work"/

  options=(-max_total_time="$seconds" -timeout=25 -print_final_stats=1
    -artifact_prefix="$artifacts/")
  if [ -f "fuzz/$target.dict" ]; then
    options+=(-dict="fuzz/$target.dict")
  fi

  status=0
  "$bin/$target" "${options[@]}" "$work" >"$log" 2>&1 || status=$?
  execs="$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)"
  coverage="$(grep -o 'cov: [0-9]* ft: [0-9]* corp: [0-9]*' "$log" | tail -n 1 || true)"
  # Sanitizer reports abort the run, but a report in the log fails it even with exit status 0.
  if [ "$status" -ne 0 ] || grep -qE 'ERROR: (AddressSanitizer|LeakSanitizer|libFuzzer)|runtime error:' "$log"; then
    echo "$target: FAILED (exit $status) after ${execs:-?} executions; inputs in $artifacts/"
    grep -vE '^#[0-9]+ *(NEW|REDUCE|pulse|INITED|RELOAD)' "$log" | tail -n 60
    failed+=("$target")
  else
    echo "$target: ok, ${execs:-?} executions in ${seconds}s, ${coverage:-no coverage line}"
  fi
done

if [ ${#failed[@]} -ne 0 ]; then
  echo "fuzzing failed: ${failed[*]} (full logs in build/fuzz/<target>.log)" >&2
  exit 1
fi
