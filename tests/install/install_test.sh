#!/bin/sh
# Installs the project from a clean build directory into a staging prefix (DESTDIR),
# checks the installed tree, builds a C program against it with pkg-config and with
# CMake, and runs both against the installed orvd on a throwaway root.
#
#   install_test.sh SOURCE_DIR CLEANUP_PROGRAM
# CLEANUP_PROGRAM is the build tree's vsk-demo, whose --cleanup removes the root's System V
# objects. Exits non-zero with the failing step named.
set -eu
src=$1
cleanup_prog=$2
work=$(mktemp -d /tmp/vsk-install.XXXXXX)
stage=$work/stage
root=$work/root
orvd_pid=
finish() {
  [ -n "$orvd_pid" ] && kill "$orvd_pid" 2>/dev/null && wait "$orvd_pid" 2>/dev/null || true
  [ -d "$root" ] && "$cleanup_prog" --cleanup "$root" >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap finish EXIT
fail() { echo "install test: $*" >&2; exit 1; }
step() { echo "== $*"; }

step "configure and build a clean tree (library and programs only)"
cmake -S "$src" -B "$work/build" -DCMAKE_INSTALL_PREFIX=/usr -DVSK_BUILD_TESTS=OFF \
      -DVSK_BUILD_BENCH=OFF >/dev/null || fail "configure"
cmake --build "$work/build" -j2 >/dev/null || fail "build"
step "install into the staging prefix"
DESTDIR=$stage cmake --install "$work/build" >/dev/null || fail "cmake --install"

libdir=$(sed -n 's/^libdir=\${prefix}//p' "$work/build/packaging/libvsk.pc")
[ -n "$libdir" ] || fail "libdir of libvsk.pc"
lib=$stage/usr$libdir
for f in usr/include/vsk/vsk.h usr/include/vsk/export.h "usr$libdir/libvsk.so.0.1" \
         "usr$libdir/libvsk.a" "usr$libdir/pkgconfig/libvsk.pc" \
         "usr$libdir/cmake/vsk/vskConfig.cmake" "usr$libdir/cmake/vsk/vskConfigVersion.cmake" \
         usr/sbin/orvd usr/bin/vskctl usr/lib/systemd/system/orvd.service \
         usr/lib/systemd/system/vsk.target usr/lib/systemd/system/vsk-exporter.service \
         usr/sbin/lodexd usr/lib/systemd/system/lodexd.service; do
  [ -e "$stage/$f" ] || fail "missing $f"
done
[ ! -e "$stage/usr/bin/vsk-demo" ] || fail "the build-tree demo was installed"
[ "$(readlink "$lib/libvsk.so")" = libvsk.so.0 ] || fail "libvsk.so is not a link to libvsk.so.0"
[ "$(readlink "$lib/libvsk.so.0")" = libvsk.so.0.1 ] || fail "libvsk.so.0 is not a link to .0.1"
objdump -p "$lib/libvsk.so.0.1" | grep -q 'SONAME *libvsk.so.0$' || fail "SONAME"
grep -q '^ExecStart=/usr/sbin/orvd --foreground' "$stage/usr/lib/systemd/system/orvd.service" ||
  fail "orvd.service does not run the installed orvd"
grep -q '^Type=notify' "$stage/usr/lib/systemd/system/orvd.service" || fail "orvd.service type"
grep -q '^After=orvd.service' "$stage/usr/lib/systemd/system/vsk.target" || fail "vsk.target order"
grep -q '^After=orvd.service' "$stage/usr/lib/systemd/system/lodexd.service" || fail "lodexd order"
if command -v systemd-analyze >/dev/null 2>&1; then
  # The units name the installed paths; verify copies that point into the staging tree, so
  # that their commands exist. Any complaint counts as a failure.
  step "systemd-analyze verify"
  mkdir "$work/units"
  for u in "$stage"/usr/lib/systemd/system/*; do
    sed "s#=/usr/#=$stage/usr/#" "$u" >"$work/units/${u##*/}"
  done
  complaints=$(systemd-analyze verify --man=no "$work"/units/* 2>&1) || fail "verify: $complaints"
  [ -z "$complaints" ] || fail "systemd-analyze verify: $complaints"
fi

step "build the consumer with pkg-config"
pc() { PKG_CONFIG_PATH=$lib/pkgconfig PKG_CONFIG_SYSROOT_DIR=$stage pkg-config "$@"; }
[ "$(pc --modversion libvsk)" = "$(sed -n 's/^Version: //p' "$work/build/packaging/libvsk.pc")" ] ||
  fail "pkg-config --modversion"
# shellcheck disable=SC2046
cc -std=c11 -pedantic -Wall -Wextra -Werror -o "$work/consumer-pc" \
   "$src/tests/install/consumer/consumer.c" $(pc --cflags --libs libvsk) || fail "cc with pkg-config"
step "build the consumer with CMake (find_package(vsk), vsk::vsk)"
cmake -S "$src/tests/install/consumer" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$stage/usr" \
      >/dev/null || fail "consumer configure"
cmake --build "$work/consumer" >/dev/null || fail "consumer build"

step "run both against the installed orvd"
mkdir -p "$root"
VSK_ROOT=$root "$stage/usr/sbin/orvd" --foreground --stderr 2>"$work/orvd.log" &
orvd_pid=$!
i=0
until [ -S "$root/var/run/orvd_server_communication" ] && [ -e "$root/var/run/orvd_clients" ]; do
  i=$((i + 1))
  [ $i -lt 300 ] && kill -0 "$orvd_pid" 2>/dev/null || { cat "$work/orvd.log" >&2; fail "orvd"; }
  sleep 0.1
done
export VSK_ROOT=$root LD_LIBRARY_PATH=$lib
out=$("$work/consumer-pc") || fail "pkg-config consumer run"
[ "$out" = "client sessions counted: 1" ] || fail "pkg-config consumer said: $out"
ldd "$work/consumer/vsk-consumer" | grep -q "libvsk.so.0 => $lib/libvsk.so.0" ||
  fail "the CMake consumer does not use the installed libvsk.so.0"
out=$("$work/consumer/vsk-consumer") || fail "CMake consumer run"
[ "$out" = "client sessions counted: 2" ] || fail "CMake consumer said: $out"
"$stage/usr/bin/vskctl" counters --nonzero | grep -Eq '^ +0  total +clients_total +2$' ||
  fail "the installed vskctl does not see the two sessions"
echo "install test: passed"
