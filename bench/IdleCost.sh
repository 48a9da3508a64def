#!/usr/bin/env bash
# The cost of an idle daemon: CPU seconds (user + system, from
# /proc/<pid>/stat) used per minute with no work, in a private tree and a
# private IPC and mount namespace. The goal is under 1% of one core.
#   bench/IdleCost.sh [window-seconds]   (default 30); the programs come from $TALVOR_BUILD_DIR/bin (default build/bin)
set -euo pipefail
cd "$(dirname "$0")/.."
window=${1:-30}
root=$(mktemp -d /tmp/talvor-idle-XXXXXX)
trap 'rm -rf "$root"' EXIT
mkdir -p "$root/bin" "$root/Data/Talvor"
bin=${TALVOR_BUILD_DIR:-build}/bin
cp "$bin/TalvorStorage" "$root/bin/"
"$bin/talvor-mkdb" --dir "$root/Data/Talvor" --name Idle --data-file 16 --btree-file 4 --kv-file 4 \
  --redo-groups 3 --redo-size 4 >/dev/null
cat > "$root/bin/TalvorConfig.ini" <<INI
[System]
databasepath=$root/Data/Talvor/
Language=0
persistenceintervals=3
buffercachesize=0
undoareasize=16
INI
unshare --ipc --mount --propagation private sh -c '
  mount -t tmpfs tmpfs /dev/shm && mount -t tmpfs tmpfs /var/run || exit 1
  "$1/bin/TalvorStorage" & pid=$!
  i=0
  while kill -0 $pid 2>/dev/null && [ $i -lt 100 ]; do
    grep -qs "service started" "$1"/Data/Talvor/Log/TalvorStorage*.log && break
    sleep 0.1; i=$((i+1))
  done
  sleep 2
  ticks() { awk "{print \$14 + \$15}" /proc/$pid/stat; }
  hz=$(getconf CLK_TCK)
  threads() { for t in /proc/$pid/task/*; do echo "${t##*/} $(awk "{print \$14 + \$15}" $t/stat)"; done; }
  threads > /tmp/idle-$$-a
  t0=$(ticks); sleep "$2"; t1=$(ticks)
  threads > /tmp/idle-$$-b
  echo "per thread (tid, CPU ticks in the window; threads in order of creation, the storage thread last):"
  join /tmp/idle-$$-a /tmp/idle-$$-b | sort -n | awk "{printf \"  %s %d\n\", \$1, \$3 - \$2}"
  rm -f /tmp/idle-$$-a /tmp/idle-$$-b
  kill -TERM $pid; wait $pid || true
  awk -v a="$t0" -v b="$t1" -v hz="$hz" -v w="$2" "BEGIN {
    s = (b - a) / hz;
    printf \"idle daemon: %.2f CPU seconds in %d s = %.3f CPU s per minute = %.3f%% of one core (goal < 1%%)\n\", s, w, s * 60 / w, s * 100 / w }"
' idle "$root" "$window"
