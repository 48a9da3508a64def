#!/usr/bin/env bash
# The cost of an idle daemon and how soon it answers, in one run of the real
# daemon in a private tree and a private IPC and mount namespace:
#  1. idle: CPU seconds (user + system, from /proc/<pid>/stat) used with no
#     work, first with no engine running, then beside an idle live engine
#     (the stand-in with m_bService 1, answering the channel, sending
#     nothing). Goal: under 1% of one core.
#  2. commands the engine writes into m_bStorageCMD without posting the
#     storage event, answered by the poll alone (talvor-peer command), against
#     the same commands posted, which wake the thread at once (the reference,
#     measured in the same run). Goal: p99 of the unposted within 2 ms.
#   bench/IdleCost.sh [window-seconds] [commands]   (defaults 30, 2000); the
#   programs come from $TALVOR_BUILD_DIR/bin (default build/bin)
set -euo pipefail
cd "$(dirname "$0")/.."
window=${1:-30}
commands=${2:-2000}
root=$(mktemp -d /tmp/talvor-idle-XXXXXX)
trap 'rm -rf "$root"' EXIT
mkdir -p "$root/bin" "$root/Data/Talvor"
bin=${TALVOR_BUILD_DIR:-build}/bin
cp "$bin/TalvorStorage" "$bin/talvor-peer" "$root/bin/"
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
  "$1/bin/talvor-peer" command --live --hold-ms $(( ($2 + 3) * 1000 )) --count 1 --code 3 >/dev/null & peer=$!
  sleep 2
  l0=$(ticks); sleep "$2"; l1=$(ticks)
  wait $peer || true
  unposted=$("$1/bin/talvor-peer" command --live --count "$3" --code 3 --gap-us 3000)
  posted=$("$1/bin/talvor-peer" command --live --count "$3" --code 3 --gap-us 3000 --post)
  kill -TERM $pid; wait $pid || true
  awk -v a="$t0" -v b="$t1" -v hz="$hz" -v w="$2" "BEGIN {
    s = (b - a) / hz;
    printf \"idle daemon, no engine: %.2f CPU seconds in %d s = %.3f CPU s per minute = %.3f%% of one core (goal < 1%%)\n\", s, w, s * 60 / w, s * 100 / w }"
  awk -v a="$l0" -v b="$l1" -v hz="$hz" -v w="$2" "BEGIN {
    s = (b - a) / hz;
    printf \"idle daemon beside an idle live engine: %.2f CPU seconds in %d s = %.3f%% of one core (goal < 1%%)\n\", s, w, s * 100 / w }"
  echo "unposted commands: $unposted"
  echo "posted commands (reference): $posted"
  echo "$unposted $posted" | awk "{
    for (i = 1; i <= NF; i++) { split(\$i, kv, \"=\"); if (kv[1] == \"p99_us\") p99[++n] = kv[2]; if (kv[1] == \"p50_us\") p50[++m] = kv[2] }
    printf \"unposted p99 %.2f ms (goal <= 2 ms), %.1f x the posted p99; p50 %.2f ms, %.1f x the posted p50\n\",
      p99[1] / 1000, p99[1] / (p99[2] > 0 ? p99[2] : 1), p50[1] / 1000, p50[1] / (p50[2] > 0 ? p50[2] : 1) }"
' idle "$root" "$window" "$commands"
