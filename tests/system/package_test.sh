#!/usr/bin/env bash
# Builds the Debian package from this build tree and checks what a user would install: the
# files and where they go, the control fields, the desktop entry, the manual page, and that
# the installed program runs.
set -euo pipefail
build="$1"
skip=77

for tool in cpack dpkg-deb dpkg-shlibdeps desktop-file-validate man; do
  if ! command -v "$tool" >/dev/null; then
    echo "$tool is not installed: skipped"
    exit $skip
  fi
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
  echo "FAIL: $*"
  exit 1
}

if ! cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/out" >"$work/cpack.txt" 2>&1; then
  cat "$work/cpack.txt"
  fail "cpack"
fi
debs=("$work"/out/*.deb)
[ ${#debs[@]} -eq 1 ] || fail "expected one package, got: ${debs[*]}"
deb="${debs[0]}"
arch=$(dpkg --print-architecture)
[ "$(basename "$deb")" = "orinlink_0.1.0_${arch}.deb" ] || fail "named $(basename "$deb")"

dpkg-deb -c "$deb" | awk '{print $1, $6}' | sed 's| \./| /|' >"$work/files.txt"
expect_file() { # mode prefix, path
  grep -qx -- "$1[^ ]* $2" "$work/files.txt" || {
    cat "$work/files.txt"
    fail "$2 missing or not $1"
  }
}
for program in orinlink orinlink-device orinlink-display-watchdog; do
  expect_file -rwxr-xr-x "/usr/bin/$program"
done
expect_file -rw-r--r-- /usr/lib/orinlink/orinlink-encoder.so
for file in \
  /usr/share/applications/app.orinlink.OrinLink.desktop \
  /usr/share/icons/hicolor/scalable/apps/app.orinlink.OrinLink.svg \
  /usr/share/icons/hicolor/48x48/apps/app.orinlink.OrinLink.png \
  /usr/share/icons/hicolor/256x256/apps/app.orinlink.OrinLink.png \
  /usr/lib/systemd/user/orinlink.service \
  /usr/share/man/man1/orinlink.1.gz; do
  expect_file -rw-r--r-- "$file"
done
# Nothing but the application: no libraries, headers or test programs, nothing outside /usr.
allowed='^/usr/(bin/orinlink(-device|-display-watchdog)?|lib/orinlink/orinlink-encoder\.so|share/applications/app\.orinlink\.OrinLink\.desktop|share/icons/hicolor/[^/]+/apps/app\.orinlink\.OrinLink\.(svg|png)|lib/systemd/user/orinlink\.service|share/man/man1/orinlink\.1\.gz)$'
unexpected=$(grep '^-' "$work/files.txt" | awk '{print $2}' | grep -Ev "$allowed" || true)
[ -z "$unexpected" ] || fail "unexpected files: $unexpected"
outside=$(awk '{print $2}' "$work/files.txt" | grep -Ev '^/(usr/.*)?$' || true)
[ -z "$outside" ] || fail "outside /usr: $outside"

field() { dpkg-deb -f "$deb" "$1"; }
[ "$(field Package)" = orinlink ] || fail "Package: $(field Package)"
[ "$(field Version)" = 0.1.0 ] || fail "Version: $(field Version)"
[ "$(field Architecture)" = "$arch" ] || fail "Architecture: $(field Architecture)"
[ -n "$(field Maintainer)" ] || fail "no Maintainer"
[ "$(field Section)" = net ] || fail "Section: $(field Section)"
depends=$(field Depends)
# Worked out by dpkg-shlibdeps from what the programs link, not written by hand.
for library in libc6 libsystemd0 libcanberra0 libavahi-client3 libssl3 libxcb1 libxcb-randr0 \
  libavcodec59 libqrencode4 libstdc++6; do
  [[ ", $depends," == *", $library "* || ", $depends," == *", $library,"* ]] ||
    fail "Depends lacks $library: $depends"
done
grep -q 'xdg-utils' <<<"$(field Recommends)" || fail "Recommends: $(field Recommends)"
[[ "$(field Description)" == "lends this computer to your other devices"* ]] ||
  fail "Description: $(field Description)"

dpkg-deb -x "$deb" "$work/root"
entry="$work/root/usr/share/applications/app.orinlink.OrinLink.desktop"
desktop-file-validate "$entry" >"$work/validate.txt" 2>&1 || true
[ ! -s "$work/validate.txt" ] || {
  cat "$work/validate.txt"
  fail "desktop entry"
}
grep -qx 'Exec=orinlink' "$entry" || fail "the entry does not start orinlink"
grep -qx 'Icon=app.orinlink.OrinLink' "$entry" || fail "the entry's icon"
grep -qx 'ExecStart=orinlink --no-open' "$work/root/usr/lib/systemd/user/orinlink.service" ||
  fail "the user unit's command"

man --warnings -l "$work/root/usr/share/man/man1/orinlink.1.gz" >/dev/null 2>"$work/man.txt" || true
[ ! -s "$work/man.txt" ] || {
  cat "$work/man.txt"
  fail "manual page warnings"
}
man -l "$work/root/usr/share/man/man1/orinlink.1.gz" 2>/dev/null | grep -q -- '--no-open' ||
  fail "the manual page does not render"

version=$("$work/root/usr/bin/orinlink" --version)
[ "$version" = "orinlink 0.1.0" ] || fail "installed orinlink --version: $version"
echo "$(basename "$deb"): $(wc -l <"$work/files.txt") entries, Depends: $depends"
