#!/usr/bin/env bash
# Installs every Debian package that building, running and testing Orin Link needs.
# Idempotent: packages already present are skipped, so it is cheap to run before every build.
set -euo pipefail

packages=(
  # toolchain and build
  g++ cmake ninja-build pkg-config clang-format
  # fuzzing (clang with libFuzzer and sanitizer runtimes)
  clang-14 libclang-rt-14-dev
  # libraries
  nlohmann-json3-dev libboost1.81-dev libboost-url1.81-dev libssl-dev libcli11-dev
  libqrencode-dev libavahi-client-dev
  # desktop integration: logind, notifications and portals over sd-bus; the pairing sound
  libsystemd-dev libcanberra-dev sound-theme-freedesktop
  # packaging: the .deb's dependencies, the desktop entry's check, the icon's bitmaps
  dpkg-dev desktop-file-utils librsvg2-bin man-db
  # screen capture and HEVC encoding
  libxcb1-dev libxcb-shm0-dev libxcb-randr0-dev libxcb-xfixes0-dev
  libavcodec-dev libswscale-dev libavutil-dev
  # capture on Wayland desktops, and the headless GNOME compositor that the tests run it on
  libpipewire-0.3-dev pipewire wireplumber mutter xwayland
  # service discovery at run time and in the tests
  dbus avahi-daemon avahi-utils
  # X servers for the screen tests, and ffmpeg to check and compare the streams
  xvfb xserver-xorg-core xserver-xorg-video-dummy x11-xserver-utils ffmpeg
  # tests and benchmarks
  libgtest-dev libgmock-dev libbenchmark-dev gcovr
  # the control panel's heading face (compiled in), and the browser its test drives
  fonts-jura chromium
)
# Node runs the panel's browser test; a Node from elsewhere brings its own npm and refuses Debian's.
if ! command -v npm >/dev/null 2>&1; then
  packages+=(nodejs npm)
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
  fi

  echo "Installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -q
  $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

# The browser test's npm packages, exactly as locked, where tests/panel/CMakeLists.txt looks;
# skipped while the lock is unchanged, so the build itself never needs the network.
panel_tests="$(cd "$(dirname "$0")/.." && pwd)/tests/panel"
if ! cmp -s "$panel_tests/package-lock.json" "$panel_tests/node_modules/.orinlink-installed-lock"; then
  npm ci --prefix "$panel_tests" --no-audit --no-fund
  cp "$panel_tests/package-lock.json" "$panel_tests/node_modules/.orinlink-installed-lock"
fi
