#!/usr/bin/env bash
# StandbyLag — how far a standby that follows the live feed lags behind the
# commits, in one run of the real daemon in a private tree and namespace: a
# standby node (the stand-in's listener on 127.0.0.1) is added by cluster
# command 18, then the engine stand-in commits RECORDS records of 4 KiB at
# RATE a second, evenly, and notes the wall-clock time of each commit; the
# node notes the time each shipment arrives and the last record it holds.
# A record's lag is the time from its commit to the arrival of the first
# shipment that holds it (in bytes: what was committed and not yet held at
# that commit). Goal: under 1 s at the 99th percentile.
#   bench/StandbyLag.sh [BUILD_DIR] [RATE] [RECORDS]   (defaults: build, 500, 5000)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
rate=${2:-500}
records=${3:-5000}
bin=$(cd "$build/bin" && pwd)
. bench/BenchKit.sh
bench_root lag "$bin"
mkdir -p "$root/Arch" "$root/Standby"
"$bin/talvor-mkdb" --dir "$root/Data/Talvor" --name Lag --data-file 8 --redo-groups 3 --redo-size 16 >/dev/null
bench_ini "$root" persistenceintervals=300 archivetype=1 "archivedespath=$root/Arch/"
bench_primary "$root" "$bin" '
  rate=$1; records=$2
  "$bin/talvor-peer" standby-node --port 0 --dir "$root/Standby" --seconds 600 \
    --receive-times "$root/received" > "$root/node.out" 2>&1 & node=$!
  port=$(bench_node_port "$root/node.out")
  "$bin/talvor-peer" cluster 18 --ip 127.0.0.1 --port "$port" --local-ip 127.0.0.1 >/dev/null
  # A few records first, until the standby holds them: the thread has made
  # its position exchange and follows the live feed before the load starts.
  "$bin/talvor-peer" redo --records 20 --size 4096 --burst 1 > /dev/null
  for _ in $(seq 300); do [ -s "$root/received" ] && break; sleep 0.1; done
  "$bin/talvor-peer" redo --records "$records" --size 4096 --burst 1 --rate "$rate" \
    --commit-times "$root/committed" > "$root/redo.out"
  last=$(tail -1 "$root/committed" | cut -d" " -f1)
  for _ in $(seq 300); do
    [ -s "$root/received" ] && [ "$(tail -1 "$root/received" | cut -d" " -f1)" -ge "$last" ] && break
    sleep 0.1
  done
' "$rate" "$records" || { echo "no measurement (see the daemon trace under $root)"; exit 0; }
python3 - "$root/committed" "$root/received" "$rate" <<'PY'
import bisect, sys
committed = [tuple(map(int, l.split())) for l in open(sys.argv[1]) if l.strip()]
received = [tuple(map(int, l.split())) for l in open(sys.argv[2]) if l.strip()]
rate = int(sys.argv[3])
held_ts = [r[0] for r in received]
lags, missing = [], 0
for ts, t_commit in committed:
    i = bisect.bisect_left(held_ts, ts)
    if i == len(received):
        missing += 1
        continue
    lags.append(max(0, received[i][1] - t_commit) / 1000.0)
lags.sort()
def pct(p): return lags[min(len(lags) - 1, int(p / 100.0 * len(lags)))]
if not lags:
    print("no record reached the standby"); sys.exit(0)
print("standby lag at %d records/s of 4 KiB: %d records, %d shipments, p50 %.1f ms, p99 %.1f ms, max %.1f ms, "
      "%d never arrived (goal: p99 under 1000 ms)" % (rate, len(committed), len(received), pct(50), pct(99),
      lags[-1], missing))
PY
