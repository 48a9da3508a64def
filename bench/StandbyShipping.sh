#!/usr/bin/env bash
# StandbyShipping — how fast a standby that starts behind catches up, in one
# run of the real daemon in a private tree and namespace: the engine
# stand-in first commits about MIB MiB of redo records with no standby (the
# logs are sealed and archived), then a standby node (the stand-in's
# listener on 127.0.0.1) is added by cluster command 18 and the time until
# its copies hold every byte is taken. The reference, in the same run: the
# same bytes sent over a loopback TCP connection by a plain sender to a
# plain receiver that writes them to a file. Goal: shipping at least 0.5 of
# the raw copy.
#   bench/StandbyShipping.sh [BUILD_DIR] [MIB]   (defaults: build, 256)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
mib=${2:-256}
bin=$(cd "$build/bin" && pwd)
. bench/BenchKit.sh
bench_root ship "$bin"
mkdir -p "$root/Arch" "$root/Standby"
"$bin/talvor-mkdb" --dir "$root/Data/Talvor" --name Ship --data-file 8 --redo-groups 3 --redo-size 16 >/dev/null
bench_ini "$root" persistenceintervals=300 archivetype=1 "archivedespath=$root/Arch/"
records=$(( mib * 16 ))
bench_primary "$root" "$bin" '
  records=$1
  out=$("$bin/talvor-peer" redo --records "$records" --seed 5 --size 65536 --seal-end)
  logno=$(sed -n "s/.* logno=\([0-9]*\).*/\1/p" <<< "$out")
  # Every sealed log archived before the standby comes.
  for _ in $(seq 600); do [ -e "$root/Arch/ArchiveLog/Log$logno.log" ] && break; sleep 0.1; done
  sleep 0.5
  "$bin/talvor-peer" standby-node --port 0 --dir "$root/Standby" --seconds 600 > "$root/node.out" 2>&1 & node=$!
  port=$(bench_node_port "$root/node.out")
  # Every archived log, as the standby must end up holding it.
  want=0; for f in "$root"/Arch/ArchiveLog/Log*.log; do want=$(( want + $(stat -c %s "$f") - 50 )); done
  t0=$(date +%s%N)
  "$bin/talvor-peer" cluster 18 --ip 127.0.0.1 --port "$port" --local-ip 127.0.0.1 >/dev/null
  while :; do
    # One find for all copies: a stat per file per poll would take the
    # processor from the two programs measured.
    have=$(find "$root/Standby" -name "Log*.log" -printf "%s\n" 2>/dev/null | awk "{h += \$1 - 50} END {print h + 0}")
    [ "$have" -ge "$want" ] && break
    sleep 0.01
  done
  t1=$(date +%s%N)
  echo "$want $(( (t1 - t0) / 1000 ))" > "$root/ship.result"
' "$records"
read -r bytes ship_us < "$root/ship.result"
cat "$root"/Arch/ArchiveLog/Log*.log > "$root/all.bin"
raw_us=$(bench_raw_tcp_us "$root/raw.out" "$(stat -c %s "$root/all.bin")" "$root/all.bin")
awk -v b="$bytes" -v s="$ship_us" -v r="$raw_us" 'BEGIN {
  ship = b / s; raw = b / r;
  printf "standby catch-up: %.1f MB/s (%d bytes in %.2f s); raw loopback copy of the same bytes: %.1f MB/s; ratio %.2f (goal: at least 0.50)\n",
         ship, b, s / 1e6, raw, ship / raw }'
