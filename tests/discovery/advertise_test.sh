#!/usr/bin/env bash
# The AI service is advertised over DNS-SD. Without a daemon the app says discovery is
# unavailable and keeps serving; once the daemon appears, the app publishes by itself.
# Starts the system bus and avahi-daemon when they are missing (root only); skips otherwise.
set -euo pipefail
orinlink="$1"
skip=77

work=$(mktemp -d)
started_avahi=0
app_pid=""
# Polls (bounded) until the command succeeds; daemons answer on their own schedule, and slowly
# on a machine that also builds.
eventually() {
  for _ in $(seq 1 200); do
    if "$@"; then return 0; fi
    sleep 0.1
  done
  return 1
}

avahi_running() { avahi-daemon -c 2>/dev/null; }
avahi_gone() { ! avahi_running; }

cleanup() {
  [ -n "$app_pid" ] && kill "$app_pid" 2>/dev/null && wait "$app_pid" 2>/dev/null || true
  # -k only asks: the next run must not find this daemon still holding its bus name.
  if [ "$started_avahi" = 1 ]; then
    avahi-daemon -k 2>/dev/null || true
    eventually avahi_gone || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

# Waits for the app to print a line, or fails saying which and showing what it printed.
expect_output() {
  if ! eventually grep -q "$1" "$work/out.txt"; then
    echo "orinlink never printed \"$1\"; it printed:"
    cat "$work/out.txt"
    exit 1
  fi
}
bus_alive() {
  dbus-send --system --dest=org.freedesktop.DBus --type=method_call --print-reply \
    /org/freedesktop/DBus org.freedesktop.DBus.GetId >/dev/null 2>&1
}

if ! avahi_running; then
  if [ "$(id -u)" -ne 0 ] || ! command -v avahi-daemon >/dev/null; then
    echo "no Avahi daemon and no way to start one here: skipped"
    exit $skip
  fi
  # A bus that died leaves its socket and pid file behind, and the daemon refuses to start
  # over a pid file; package scripts in containers leave such remains too.
  if ! bus_alive; then
    mkdir -p /run/dbus
    rm -f /run/dbus/pid /run/dbus/system_bus_socket
    dbus-daemon --system --fork
    eventually bus_alive
  fi
  rm -f /run/avahi-daemon/pid
  needs_daemon=1
else
  needs_daemon=0
fi

echo '{"ollamaBaseURL": "http://127.0.0.1:9"}' > "$work/settings.json"
mkdir -m 700 "$work/run"
# A desktop of its own: the user's running copy would turn this start into a reopen, and nothing
# may reach the user's session bus, autostart entry or browser. Avahi is on the system bus.
env -u DISPLAY -u WAYLAND_DISPLAY XDG_RUNTIME_DIR="$work/run" \
  XDG_CONFIG_HOME="$work/xdg-config" XDG_DATA_HOME="$work/xdg-data" \
  DBUS_SESSION_BUS_ADDRESS="unix:path=$work/run/no-bus" \
  "$orinlink" --config-dir "$work" --data-dir "$work/data" --port 0 --control-port 0 \
  --stream-port 0 --no-open \
  > "$work/out.txt" 2>&1 &
app_pid=$!
expect_output "Server started on port"
port=$(sed -n 's/^Server started on port \([0-9]*\)\.$/\1/p' "$work/out.txt")

if [ "$needs_daemon" = 1 ]; then
  expect_output "Discovery is unavailable"
  if ! avahi-daemon -D --no-drop-root --no-chroot 2>"$work/avahi.txt"; then
    echo "avahi-daemon did not start:"
    cat "$work/avahi.txt"
    exit 1
  fi
  started_avahi=1
  expect_output "Discovery is available"
fi

advertised() {
  avahi-browse -rpt _orinlink-ai._tcp 2>/dev/null | grep -E "^=;.*;${port};\"api=1\"$" >/dev/null
}
if ! eventually advertised; then
  echo "not advertised; avahi-browse saw:"
  avahi-browse -rpt _orinlink-ai._tcp || true
  cat "$work/out.txt"
  exit 1
fi
echo "advertised on port $port with TXT api=1"
