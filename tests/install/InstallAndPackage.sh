#!/usr/bin/env bash
# The installation as an operator gets it: `cmake --install` into a fresh
# prefix (and under DESTDIR), the Debian package made by CPack installed into
# and removed from a fresh root by dpkg, the service unit checked by
# systemd-analyze, and the installed daemon started on a database made by the
# installed maker, stopped by SIGTERM, and the result checked by the
# installed inspector. Runs inside tests/isolate.sh (its own IPC and mount
# namespace), so the daemon's fixed keys, semaphores and lock file are its
# own. Usage: InstallAndPackage.sh BUILD_DIR
set -euo pipefail

BUILD=$(cd "$1" && pwd)
WORK=$(mktemp -d /tmp/talvor-install-XXXXXX)
DAEMON=""
cleanup() {
  if [ -n "$DAEMON" ] && kill -0 "$DAEMON" 2>/dev/null; then kill -KILL "$DAEMON" 2>/dev/null || true; fi
  rm -rf "$WORK"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }
step() { echo "== $*"; }

PROGRAMS="TalvorStorage talvor-mkdb talvor-inspect talvor-redodump talvor-backup talvor-peer"
for p in $PROGRAMS; do
  [ -x "$BUILD/bin/$p" ] || fail "$BUILD/bin/$p is not built (build the programs first)"
done

step "cmake --install under DESTDIR lays out the tree"
DESTDIR="$WORK/destdir" cmake --install "$BUILD" --prefix /opt/talvor >/dev/null
TREE="$WORK/destdir/opt/talvor"
for p in $PROGRAMS; do [ -x "$TREE/bin/$p" ] || fail "bin/$p not installed"; done
[ -d "$TREE/Data/Talvor" ] || fail "Data/Talvor/ not installed"
[ -f "$TREE/share/doc/talvor/README.md" ] || fail "the guide is not installed"
INI="$TREE/bin/TalvorConfig.ini"
grep -q '^\[System\]' "$INI" || fail "the ini has no [System] section"
grep -q '^#buffercachesize=1024' "$INI" || fail "the ini does not carry its keys commented"
UNIT="$TREE/lib/systemd/system/talvor-storage.service"
grep -qx 'ExecStart=/opt/talvor/bin/TalvorStorage' "$UNIT" || fail "the unit does not start the installed program"
grep -qx 'ConditionPathExists=/opt/talvor/Data/Talvor/System.dbf' "$UNIT" || fail "the unit does not wait for a database"
grep -qx 'KillSignal=SIGTERM' "$UNIT" || fail "the unit does not stop with SIGTERM"
grep -qx 'Restart=on-failure' "$UNIT" || fail "the unit does not restart on failure"

step "a second install keeps the operator's ini"
echo "# the operator's own line" >> "$INI"
DESTDIR="$WORK/destdir" cmake --install "$BUILD" --prefix /opt/talvor >/dev/null
grep -q "the operator's own line" "$INI" || fail "a reinstall overwrote the ini"

step "cmake --install into a fresh prefix"
PREFIX="$WORK/prefix"
cmake --install "$BUILD" --prefix "$PREFIX" >/dev/null
[ -x "$PREFIX/bin/TalvorStorage" ] || fail "no daemon under the prefix"
if command -v systemd-analyze >/dev/null 2>&1; then
  step "systemd-analyze verify"
  OUT=$(systemd-analyze verify "$PREFIX/lib/systemd/system/talvor-storage.service" 2>&1) ||
    fail "systemd-analyze verify refused the unit: $OUT"
  if grep -q 'talvor-storage.service' <<<"$OUT"; then fail "systemd-analyze verify: $OUT"; fi
else
  echo "SKIP: systemd-analyze is not installed; the unit is not verified"
fi

step "the Debian package installs into a fresh root and removes cleanly"
if command -v cpack >/dev/null 2>&1 && command -v dpkg >/dev/null 2>&1; then
  (cd "$WORK" && cpack --config "$BUILD/CPackConfig.cmake" -B "$WORK/pkg" >/dev/null)
  DEB=$(ls "$WORK"/pkg/talvor-storage_*.deb)
  CONTENTS=$(dpkg-deb -c "$DEB")
  grep -q '\./lib/systemd/system/talvor-storage.service$' <<<"$CONTENTS" || fail "the package has no unit"
  ROOT="$WORK/root"
  mkdir -p "$ROOT/var/lib/dpkg/info" "$ROOT/var/lib/dpkg/updates" "$ROOT/var/lib/dpkg/triggers"
  touch "$ROOT/var/lib/dpkg/status" "$ROOT/var/lib/dpkg/available"
  DPKG="dpkg --root=$ROOT --force-script-chrootless --log=/dev/null"
  # The fresh root has no libc of its own to satisfy the dependencies.
  $DPKG --force-depends -i "$DEB" >/dev/null 2>&1 || fail "dpkg -i failed"
  for p in $PROGRAMS; do [ -x "$ROOT/opt/talvor/bin/$p" ] || fail "the package did not install bin/$p"; done
  [ -f "$ROOT/lib/systemd/system/talvor-storage.service" ] || fail "the package did not install the unit"
  [ -f "$ROOT/opt/talvor/bin/TalvorConfig.ini" ] || fail "the package did not install the ini"
  # A database made meanwhile is the operator's: no removal takes it.
  mkdir -p "$ROOT/opt/talvor/Data/Talvor" && echo data > "$ROOT/opt/talvor/Data/Talvor/System.dbf"
  $DPKG -r talvor-storage >/dev/null 2>&1 || fail "dpkg -r failed"
  [ ! -e "$ROOT/opt/talvor/bin/TalvorStorage" ] || fail "dpkg -r left the daemon"
  [ ! -e "$ROOT/lib/systemd/system/talvor-storage.service" ] || fail "dpkg -r left the unit"
  [ -f "$ROOT/opt/talvor/bin/TalvorConfig.ini" ] || fail "dpkg -r removed the configuration (only a purge may)"
  $DPKG -P talvor-storage >/dev/null 2>&1 || fail "dpkg -P failed"
  [ ! -e "$ROOT/opt/talvor/bin/TalvorConfig.ini" ] || fail "dpkg -P left the configuration"
  [ -f "$ROOT/opt/talvor/Data/Talvor/System.dbf" ] || fail "the purge removed the database"
  LEFT=$(find "$ROOT" -path "$ROOT/var" -prune -o -type f -print | grep -v '/Data/Talvor/System.dbf$' || true)
  [ -z "$LEFT" ] || fail "files left after the purge: $LEFT"
else
  echo "SKIP: cpack or dpkg is not installed; the package is not tried"
fi

step "the installed daemon serves a database made by the installed maker"
DATA="$PREFIX/Data/Talvor"
"$PREFIX/bin/talvor-mkdb" --dir "$DATA" --data-file 4 --redo-size 1 >/dev/null
# Small areas for a test machine; everything else as shipped.
sed -i 's/^\[System\]$/[System]\nbuffercachesize=0\nundoareasize=16\npersistenceintervals=1/' "$PREFIX/bin/TalvorConfig.ini"
"$PREFIX/bin/TalvorStorage" >"$WORK/daemon.out" 2>&1 &
DAEMON=$!
READY=""
for _ in $(seq 1 300); do
  if grep -qs "Talvor storage service started!" "$DATA"/Log/TalvorStorage*.log; then READY=1; break; fi
  kill -0 "$DAEMON" 2>/dev/null || break
  sleep 0.1
done
[ -n "$READY" ] || { cat "$DATA"/Log/TalvorStorage*.log 2>/dev/null || true; fail "the installed daemon did not come up"; }
kill -TERM "$DAEMON"
for _ in $(seq 1 300); do kill -0 "$DAEMON" 2>/dev/null || break; sleep 0.1; done
if kill -0 "$DAEMON" 2>/dev/null; then fail "the daemon did not stop on SIGTERM within 30 s"; fi
wait "$DAEMON" || fail "the daemon exited with a failure status"
DAEMON=""
grep -qs "Talvor storage service closed!" "$DATA"/Log/TalvorStorage*.log || fail "no clean stop in the log"
grep -q "^# TalvorConfig.ini" "$PREFIX/bin/TalvorConfig.ini" || fail "the write-back at stop lost the ini's comments"
"$PREFIX/bin/talvor-inspect" --check "$DATA" >"$WORK/inspect.out" || { cat "$WORK/inspect.out"; fail "the inspector found damage"; }
"$PREFIX/bin/talvor-redodump" --stats "$DATA" >"$WORK/redo.out" || { cat "$WORK/redo.out"; fail "the redo dump refused a file"; }
echo "PASS"
