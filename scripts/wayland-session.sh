#!/usr/bin/env bash
# Starts a headless GNOME compositor with PipeWire for tests and benchmarks, on a bus of its own.
#
#   scripts/wayland-session.sh run [options] -- COMMAND [ARGS...]
#       runs COMMAND inside the session, then stops it; exits with COMMAND's status
#   eval "$(scripts/wayland-session.sh start [options])"
#       leaves the session running and prints the exports for it: DBUS_SESSION_BUS_ADDRESS,
#       XDG_RUNTIME_DIR, WAYLAND_DISPLAY, DISPLAY and XAUTHORITY (Xwayland's),
#       XDG_SESSION_TYPE, ORIN_WAYLAND_PID (ending it ends everything) and ORIN_WAYLAND_DIR
#   scripts/wayland-session.sh stop
#       stops the session named by ORIN_WAYLAND_PID
#
# Options:
#   --size WxH       the virtual monitor (default 1920x1080)
#   --no-compositor  only the bus, PipeWire and WirePlumber
#   --pattern FPS    also run the animated, time-stamped test pattern on Xwayland at FPS frames
#                    per second (needs orin-test-pattern: ORIN_TEST_PATTERN or build/*/tools/...)
#   --owner PID      the session ends when PID does (default: whoever called the script; for
#                    run, the script itself; 0: only stop ends it)
#
# Xwayland needs /tmp/.X11-unix to be mode 1777; the script makes it so when it may. Mutter picks
# its X display numbers itself, skipping those with a lock file, as Xvfb -displayfd does.
set -euo pipefail

self="$(cd "$(dirname "$0")" && pwd)/$(basename "$0")"
name=wayland-session.sh

usage() {
  sed -n '2,24p' "$self" | sed 's/^# \{0,1\}//' >&2
  exit 2
}

size=1920x1080
compositor=1
pattern_fps=""
owner=""

parse_options() {
  while [ $# -gt 0 ]; do
    case "$1" in
      --size) size="${2:?}"; shift 2 ;;
      --no-compositor) compositor=""; shift ;;
      --pattern) pattern_fps="${2:?}"; shift 2 ;;
      --owner) owner="${2:?}"; shift 2 ;;
      --) shift; command_args=("$@"); return ;;
      *) usage ;;
    esac
  done
  command_args=()
}

source "$(dirname "${BASH_SOURCE[0]}")/test-pattern.sh"

# A process that has exited stays a zombie until it is reaped; it is not running.
running() {
  local state
  read -r _ _ state _ 2>/dev/null <"/proc/$1/stat" || return 1
  [ "$state" != Z ]
}

# Mutter refuses to start Xwayland unless anyone may create sockets here.
ensure_x11_socket_dir() {
  local dir=/tmp/.X11-unix mode
  [ -d $dir ] || mkdir -m 1777 $dir 2>/dev/null || true
  mode="$(stat -c %a $dir 2>/dev/null || echo missing)"
  [ "$mode" = 1777 ] && return
  if chmod 1777 $dir 2>/dev/null; then
    echo "$name: made $dir mode 1777 (it was $mode), as Xwayland needs" >&2
    return
  fi
  echo "$name: $dir is mode $mode and cannot be changed by $(id -un); Xwayland needs 1777:" \
    "run 'sudo chmod 1777 $dir'" >&2
  exit 1
}

# --- the supervisor: a session leader whose process group is the whole session -----------------

pids=()
piece_names=()
x_display=""

fail() {
  local piece=$1
  shift
  echo "$name: $*" >&2
  if [ -f "$dir/$piece.log" ]; then
    echo "$name: the end of $piece's log:" >&2
    tail -n 30 "$dir/$piece.log" | sed 's/^/  /' >&2
  fi
  exit 1
}

launch() {
  local piece=$1
  shift
  "$@" </dev/null >"$dir/$piece.log" 2>&1 &
  pids+=($!)
  piece_names+=("$piece")
  launched=$!
}

# Polls CONDITION until it holds, for at most SECONDS, while PID runs.
wait_for() {
  local piece=$1 pid=$2 seconds=$3 what=$4
  shift 4
  local deadline=$((SECONDS + seconds))
  until "$@"; do
    running "$pid" || fail "$piece" "$piece exited while the session waited for $what"
    [ $SECONDS -lt $deadline ] || fail "$piece" "$piece: still no $what after $seconds s"
    sleep 0.05
  done
}

bus_has_owner() {
  dbus-send --session --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
    org.freedesktop.DBus.NameHasOwner "string:$1" 2>/dev/null | grep -q 'boolean true'
}

wireplumber_connected() { pw-cli ls Client 2>/dev/null | grep -q '"WirePlumber"'; }

mutter_x_display() {
  x_display="$(sed -n 's/.*Using public X11 display \(:[0-9]*\),.*/\1/p' "$dir/mutter.log")"
  [ -n "$x_display" ]
}

x_answers() {
  local auth
  for auth in "$XDG_RUNTIME_DIR"/.mutter-Xwaylandauth.*; do
    [ -f "$auth" ] || return 1
    XAUTHORITY=$auth
  done
  DISPLAY=$x_display XAUTHORITY=$XAUTHORITY xrandr --current >/dev/null 2>&1
}

start_pieces() {
  launch dbus dbus-daemon --session --nofork --address="unix:path=$XDG_RUNTIME_DIR/bus" \
    --print-address=3 3>"$dir/bus-address"
  wait_for dbus "$launched" 10 "its bus address" test -s "$dir/bus-address"
  DBUS_SESSION_BUS_ADDRESS="$(head -n 1 "$dir/bus-address")"
  export DBUS_SESSION_BUS_ADDRESS

  launch pipewire pipewire
  wait_for pipewire "$launched" 15 "the pipewire-0 socket" test -S "$XDG_RUNTIME_DIR/pipewire-0"
  launch wireplumber wireplumber
  wait_for wireplumber "$launched" 20 "WirePlumber client in PipeWire" wireplumber_connected
  [ -n "$compositor" ] || return 0

  launch mutter mutter --headless --wayland --virtual-monitor "$size"
  local mutter_pid=$launched
  wait_for mutter "$mutter_pid" 60 "org.gnome.Mutter.ScreenCast on the bus" \
    bus_has_owner org.gnome.Mutter.ScreenCast
  wait_for mutter "$mutter_pid" 30 "wayland-0 socket" test -S "$XDG_RUNTIME_DIR/wayland-0"
  wait_for mutter "$mutter_pid" 30 "X display in its log" mutter_x_display
  local number=${x_display#:} lock_pid
  lock_pid="$(tr -d '[:space:]' <"/tmp/.X$number-lock" 2>/dev/null || true)"
  [ "$lock_pid" = "$mutter_pid" ] ||
    fail mutter "X display $x_display is locked by process '$lock_pid', not by mutter ($mutter_pid)"
  wait_for mutter "$mutter_pid" 30 "answer from Xwayland on $x_display" x_answers
  echo "$number" >"$dir/x-display"

  [ -n "$pattern_fps" ] || return 0
  DISPLAY=$x_display XAUTHORITY=$XAUTHORITY launch pattern "$pattern_program" --fps "$pattern_fps"
  wait_for pattern "$launched" 20 "\"ready\" from the pattern" grep -qsx ready "$dir/pattern.log"
}

write_exports() {
  {
    printf 'export DBUS_SESSION_BUS_ADDRESS=%q XDG_RUNTIME_DIR=%q' \
      "$DBUS_SESSION_BUS_ADDRESS" "$XDG_RUNTIME_DIR"
    if [ -n "$compositor" ]; then
      printf ' WAYLAND_DISPLAY=wayland-0 DISPLAY=%s XAUTHORITY=%q XDG_SESSION_TYPE=wayland' \
        "$x_display" "$XAUTHORITY"
    fi
    printf ' ORIN_WAYLAND_PID=%s ORIN_WAYLAND_DIR=%q; unset PIPEWIRE_REMOTE' "$$" "$dir"
    [ -n "$compositor" ] || printf ' WAYLAND_DISPLAY DISPLAY XAUTHORITY'
    printf '\n'
  } >"$dir/exports.part"
  mv "$dir/exports.part" "$dir/exports"
}

# Whatever the session started, including what escaped the process group (D-Bus activated
# services), carries the marker in its environment.
session_processes() {
  local entry pid pgid
  for entry in /proc/[0-9]*; do
    pid=${entry#/proc/}
    [ "$pid" != $$ ] || continue
    read -r _ _ _ _ pgid _ 2>/dev/null <"$entry/stat" || continue
    if [ "$pgid" = $$ ] || grep -qzxF "ORIN_WAYLAND_SESSION=$dir" "$entry/environ" 2>/dev/null; then
      echo "$pid"
    fi
  done
}

teardown() {
  trap '' TERM INT HUP
  set +e
  local i pid
  # Mutter first, so it stops Xwayland and removes its X lock files instead of dying of a lost X
  # connection; then the rest in the reverse order of starting.
  for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
    [ "${piece_names[$i]}" = mutter ] && kill "${pids[$i]}" 2>/dev/null && stop_wait "${pids[$i]}" 100
  done
  for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
    kill "${pids[$i]}" 2>/dev/null && stop_wait "${pids[$i]}" 60
  done
  for pid in $(session_processes); do kill -KILL "$pid" 2>/dev/null || true; done
  if [ -f "$dir/x-display" ]; then
    local number
    number="$(cat "$dir/x-display")"
    for number in "$number" $((number + 1)); do
      pid="$(tr -d '[:space:]' <"/tmp/.X$number-lock" 2>/dev/null || true)"
      if [ -n "$pid" ] && ! running "$pid"; then
        rm -f "/tmp/.X$number-lock" "/tmp/.X11-unix/X$number"
      fi
    done
  fi
  # A session that never came up leaves its logs to the starting command, which shows them.
  [ ! -f "$dir/exports" ] || remove_dir "$dir"
}

# Waits up to N twentieths of a second for PID to end.
stop_wait() {
  local _
  for _ in $(seq "$2"); do
    running "$1" || return 0
    sleep 0.05
  done
  kill -KILL "$1" 2>/dev/null || true
}

remove_dir() {
  case "$1" in
    "${TMPDIR:-/tmp}"/orin-wayland.*) rm -rf "$1" ;;
  esac
}

supervise() {
  dir=$1
  owner=$2
  shift 2
  parse_options "$@"
  pattern_program=""
  [ -z "$pattern_fps" ] || pattern_program="$(realpath "$(find_test_pattern)")"
  # Xwayland runs with -core: a crash's core file belongs with the session's logs.
  cd "$dir"
  export ORIN_WAYLAND_SESSION="$dir"
  export HOME="$dir/home" XDG_RUNTIME_DIR="$dir/runtime" GSETTINGS_BACKEND=keyfile
  export XDG_CONFIG_HOME="$HOME/.config" XDG_DATA_HOME="$HOME/.local/share"
  export XDG_CACHE_HOME="$HOME/.cache" XDG_STATE_HOME="$HOME/.local/state"
  export XDG_SESSION_TYPE=wayland NO_AT_BRIDGE=1
  unset PIPEWIRE_REMOTE WAYLAND_DISPLAY WAYLAND_SOCKET DISPLAY XAUTHORITY DBUS_SESSION_BUS_ADDRESS
  mkdir -p "$HOME"
  mkdir -m 0700 "$XDG_RUNTIME_DIR"

  trap teardown EXIT
  trap 'exit 143' TERM
  trap 'exit 130' INT
  trap 'exit 129' HUP
  start_pieces
  write_exports

  local i
  while [ "$owner" = 0 ] || running "$owner"; do
    for i in "${!pids[@]}"; do
      running "${pids[$i]}" || {
        echo "$name: ${piece_names[$i]} exited; stopping the session" >&2
        exit 1
      }
    done
    sleep 0.2
  done
  echo "$name: process $owner has gone; stopping the session" >&2
}

# --- the commands ----------------------------------------------------------------------------

# Starts the supervisor and waits until the session is up; sets session_pid and session_dir.
start_session() {
  [[ "$size" =~ ^[0-9]+x[0-9]+(@[0-9.]+)?$ ]] || usage
  [[ "$owner" =~ ^[0-9]+$ ]] || usage
  [ -z "$pattern_fps" ] || [ -n "$compositor" ] || usage
  [ -z "$pattern_fps" ] || find_test_pattern >/dev/null
  [ -z "$compositor" ] || ensure_x11_socket_dir
  session_dir="$(mktemp -d "${TMPDIR:-/tmp}/orin-wayland.XXXXXX")"
  local options=(--size "$size")
  [ -n "$compositor" ] || options+=(--no-compositor)
  [ -z "$pattern_fps" ] || options+=(--pattern "$pattern_fps")
  setsid bash "$self" supervise "$session_dir" "$owner" "${options[@]}" \
    </dev/null >>"$session_dir/session.log" 2>&1 &
  session_pid=$!
  local deadline=$((SECONDS + 180))
  until [ -f "$session_dir/exports" ]; do
    if ! running "$session_pid" || [ $SECONDS -ge $deadline ]; then
      echo "$name: the session did not come up" >&2
      cat "$session_dir/session.log" >&2 2>/dev/null || true
      stop_session "$session_pid" "$session_dir"
      exit 1
    fi
    sleep 0.05
  done
  session_exports="$(cat "$session_dir/exports")"
}

stop_session() {
  local pid=$1 dir=$2 _
  if kill "$pid" 2>/dev/null; then
    for _ in $(seq 400); do
      running "$pid" || break
      sleep 0.05
    done
    running "$pid" && kill -KILL -- "-$pid" 2>/dev/null
  fi
  wait "$pid" 2>/dev/null || true
  remove_dir "$dir"
}

case "${1:-}" in
  run)
    shift
    parse_options "$@"
    [ ${#command_args[@]} -gt 0 ] || usage
    owner=${owner:-$$}
    start_session
    trap 'stop_session "$session_pid" "$session_dir"' EXIT
    trap 'exit 143' TERM
    trap 'exit 130' INT
    status=0
    (
      eval "$session_exports"
      exec "${command_args[@]}"
    ) || status=$?
    exit $status
    ;;
  start)
    shift
    parse_options "$@"
    owner=${owner:-$PPID}
    start_session
    echo "$session_exports"
    ;;
  stop)
    : "${ORIN_WAYLAND_PID:?not set: start the session with eval \"\$(scripts/wayland-session.sh start)\"}"
    stop_session "$ORIN_WAYLAND_PID" "${ORIN_WAYLAND_DIR:-}"
    ;;
  supervise)
    shift
    supervise "$@"
    ;;
  *) usage ;;
esac
