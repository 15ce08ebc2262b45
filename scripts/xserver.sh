#!/usr/bin/env bash
# Starts an X server for tests and benchmarks on a free display number.
#
#   scripts/xserver.sh run [options] -- COMMAND [ARGS...]
#       runs COMMAND with DISPLAY set, then stops the server; exits with COMMAND's status
#   eval "$(scripts/xserver.sh start [options])"
#       leaves the server running and prints the exports for it:
#       DISPLAY, ORIN_XSERVER_PID and ORIN_XSERVER_DIR (its config and log)
#   scripts/xserver.sh stop
#       stops the server named by ORIN_XSERVER_PID and removes ORIN_XSERVER_DIR
#
# Options:
#   --size WxH      screen size (default 1920x1080)
#   --xorg          Xorg with the dummy driver instead of Xvfb: real RandR outputs DUMMY0 to
#                   DUMMY15 (DUMMY1 on are off until given a mode: xrandr --newmode, --addmode)
#   --bare          Xvfb without RandR and MIT-SHM, as a remote or minimal server would be
#   --pattern FPS   also run the animated, time-stamped test pattern at FPS frames per second
#                   (needs the orin-test-pattern binary: ORIN_TEST_PATTERN or build/*/tools/...)
#
# Both servers work as root and as an ordinary user, without a console or input devices: the
# Xorg configuration is written to a temporary directory and names no input driver.
set -euo pipefail

usage() {
  sed -n '2,21p' "$0" | sed 's/^# \{0,1\}//' >&2
  exit 2
}

size=1920x1080
server=xvfb
pattern_fps=""

parse_options() {
  while [ $# -gt 0 ]; do
    case "$1" in
      --size) size="${2:?}"; shift 2 ;;
      --xorg) server=xorg; shift ;;
      --bare) server=bare; shift ;;
      --pattern) pattern_fps="${2:?}"; shift 2 ;;
      --) shift; command_args=("$@"); return ;;
      *) usage ;;
    esac
  done
  command_args=()
}

# A modeline the dummy driver accepts: short blanking, and a refresh lowered until the pixel
# clock is within the driver's 300 MHz (the refresh means nothing to a server without a screen).
modeline() {
  local w=$1 h=$2 refresh=60 htotal vtotal clock
  htotal=$((w + 160))
  vtotal=$((h + 30))
  while [ $((htotal * vtotal * refresh)) -gt 300000000 ] && [ $refresh -gt 1 ]; do
    refresh=$((refresh - 1))
  done
  clock=$((htotal * vtotal * refresh / 1000))
  printf '"%dx%d" %d.%03d %d %d %d %d %d %d %d %d +hsync +vsync' \
    "$w" "$h" $((clock / 1000)) $((clock % 1000)) \
    "$w" $((w + 48)) $((w + 80)) "$htotal" "$h" $((h + 3)) $((h + 8)) "$vtotal"
}

write_xorg_config() {
  local file=$1 w=$2 h=$3
  cat >"$file" <<EOF
Section "ServerFlags"
  Option "AutoAddDevices" "false"
  Option "AutoAddGPU" "false"
  Option "AutoBindGPU" "false"
  Option "DontVTSwitch" "true"
EndSection
Section "Device"
  Identifier "dummy"
  Driver "dummy"
  VideoRam 512000
EndSection
Section "Monitor"
  Identifier "monitor"
  HorizSync 1.0-2000.0
  VertRefresh 1.0-200.0
  Option "ReducedBlanking"
  Modeline $(modeline "$w" "$h")
EndSection
Section "Screen"
  Identifier "screen"
  Device "dummy"
  Monitor "monitor"
  DefaultDepth 24
  SubSection "Display"
    Depth 24
    Modes "${w}x${h}"
    Virtual 8192 4096
  EndSubSection
EndSection
EOF
}

source "$(dirname "${BASH_SOURCE[0]}")/test-pattern.sh"

# Starts the server; sets server_pid, server_dir and display.
start_server() {
  [[ "$size" =~ ^([0-9]+)x([0-9]+)$ ]] || usage
  local w=${BASH_REMATCH[1]} h=${BASH_REMATCH[2]}
  server_dir="$(mktemp -d "${TMPDIR:-/tmp}/orin-xserver.XXXXXX")"
  local number_file="$server_dir/display"
  # -displayfd makes the server pick the first free display number and report it.
  if [ "$server" = xorg ]; then
    write_xorg_config "$server_dir/xorg.conf" "$w" "$h"
    setsid Xorg -displayfd 3 -config "$server_dir/xorg.conf" -logfile "$server_dir/xorg.log" \
      -noreset -nolisten tcp -novtswitch -sharevts \
      3>"$number_file" </dev/null >"$server_dir/server.out" 2>&1 &
  else
    local extensions=(+extension RANDR)
    [ "$server" = bare ] && extensions=(-extension RANDR -extension MIT-SHM)
    setsid Xvfb -displayfd 3 -screen 0 "${w}x${h}x24" "${extensions[@]}" -noreset -nolisten tcp \
      3>"$number_file" </dev/null >"$server_dir/server.out" 2>&1 &
  fi
  server_pid=$!
  for _ in $(seq 200); do
    if [ -s "$number_file" ]; then
      display=":$(tr -d '[:space:]' <"$number_file")"
      return
    fi
    if ! kill -0 "$server_pid" 2>/dev/null; then break; fi
    sleep 0.05
  done
  echo "xserver.sh: the $server server did not start; its output:" >&2
  cat "$server_dir/server.out" >&2
  kill "$server_pid" 2>/dev/null || true
  rm -rf "$server_dir"
  exit 1
}

start_pattern() {
  [ -n "$pattern_fps" ] || return 0
  DISPLAY="$display" setsid "$(find_test_pattern)" --fps "$pattern_fps" \
    </dev/null >"$server_dir/pattern.out" 2>&1 &
  echo $! >"$server_dir/pattern.pid"
}

# A server that has exited waits as a zombie until whoever adopted it reaps it, which some
# init processes take seconds to do.
running() {
  local state
  # The fields of /proc/PID/stat after "PID (comm)"; both servers' names have no spaces.
  read -r _ _ state _ 2>/dev/null <"/proc/$1/stat" || return 1
  [ "$state" != Z ]
}

stop_all() {
  local dir=$1 pid=$2
  if [ -f "$dir/pattern.pid" ]; then kill "$(cat "$dir/pattern.pid")" 2>/dev/null || true; fi
  if kill "$pid" 2>/dev/null; then
    for _ in $(seq 100); do
      running "$pid" || break
      sleep 0.05
    done
  fi
  case "$dir" in
    "${TMPDIR:-/tmp}"/orin-xserver.*) rm -rf "$dir" ;;
  esac
}

case "${1:-}" in
  run)
    shift
    parse_options "$@"
    [ ${#command_args[@]} -gt 0 ] || usage
    start_server
    trap 'stop_all "$server_dir" "$server_pid"' EXIT
    start_pattern
    status=0
    DISPLAY="$display" "${command_args[@]}" || status=$?
    exit $status
    ;;
  start)
    shift
    parse_options "$@"
    start_server
    start_pattern
    echo "export DISPLAY=$display ORIN_XSERVER_PID=$server_pid ORIN_XSERVER_DIR=$server_dir"
    ;;
  stop)
    : "${ORIN_XSERVER_PID:?not set: start the server with eval \"\$(scripts/xserver.sh start)\"}"
    stop_all "${ORIN_XSERVER_DIR:-}" "$ORIN_XSERVER_PID"
    ;;
  *) usage ;;
esac
