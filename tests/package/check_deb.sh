#!/usr/bin/env bash
# Builds the Debian package from a build directory and checks it as a distribution would: the files it
# installs, dependencies computed from what the binary links, and the desktop entry and AppStream metainfo
# accepted by their validators. Usage: check_deb.sh BUILD_DIR
set -uo pipefail
build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

(cd "$build" && cpack -G DEB -B "$work/out" >"$work/cpack.log" 2>&1) || { cat "$work/cpack.log"; exit 1; }
deb=$(ls "$work"/out/tavrel-recorder_*.deb 2>/dev/null | head -1)
[[ -f $deb ]] || { echo "FAIL: no package written"; cat "$work/cpack.log"; exit 1; }

contents=$(dpkg-deb -c "$deb" | awk '{print $6}')
for file in ./usr/bin/tavrel-recorder \
    ./usr/share/applications/fr.tavrel.Recorder.desktop \
    ./usr/share/dbus-1/services/fr.tavrel.Recorder.service \
    ./usr/share/icons/hicolor/256x256/apps/tavrel-icon.png \
    ./usr/share/icons/hicolor/scalable/apps/tavrel-icon.svg \
    ./usr/share/metainfo/fr.tavrel.Recorder.metainfo.xml; do
    grep -qx -- "$file" <<<"$contents" || fail "missing $file"
done
grep -q '^\./usr/local' <<<"$contents" && fail "files under /usr/local"

depends=$(dpkg-deb -f "$deb" Depends)
# Computed from the binary: the libraries it links, with their Debian version constraints.
for library in libqt6core6 libqt6widgets6 libqt6dbus6 libqt6network6 libqt6svg6 libpulse0 libpipewire-0.3-0 \
    libavcodec libavformat libswresample libc6 qt6-qpa-plugins; do
    grep -q "$library" <<<"$depends" || fail "Depends lacks $library: $depends"
done
grep -Eq 'libqt6core6[^,]*\(>= ' <<<"$depends" || fail "no version constraint from the shared-library data: $depends"
[[ $(dpkg-deb -f "$deb" Package) == tavrel-recorder ]] || fail "package name"

dpkg-deb -x "$deb" "$work/root"
desktop-file-validate "$work/root/usr/share/applications/fr.tavrel.Recorder.desktop" || fail "desktop-file-validate"
appstreamcli validate --no-net "$work/root/usr/share/metainfo/fr.tavrel.Recorder.metainfo.xml" ||
    fail "appstreamcli validate"
desktop=$work/root/usr/share/applications/fr.tavrel.Recorder.desktop
grep -qx 'MimeType=x-scheme-handler/tavrel;' "$desktop" || fail "no handler of tavrel links"
grep -qx 'DBusActivatable=true' "$desktop" || fail "not D-Bus activatable"
grep -qx 'Exec=/usr/bin/tavrel-recorder' "$work/root/usr/share/dbus-1/services/fr.tavrel.Recorder.service" ||
    fail "activation file: $(cat "$work/root/usr/share/dbus-1/services/fr.tavrel.Recorder.service")"
file "$work/root/usr/bin/tavrel-recorder" | grep -q 'ELF' || fail "the program is not an executable"

if [[ $failures -ne 0 ]]; then
    echo "$failures check(s) failed"
    exit 1
fi
echo "package checks passed: $(basename "$deb")"
