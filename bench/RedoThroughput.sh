#!/usr/bin/env bash
# RedoThroughput — redo MB/s through the daemon against a plain sequential
# write of the same bytes to a file on the same disk, in the same run.
#
# The engine stand-in commits 4 KiB records as fast as the ring lets it (it
# writes its copy of the stream once the daemon has drained the ring, as an
# engine writes none); the daemon's writer drains them into 64 MiB groups
# (archiving off, so only the writer is measured). The raw rate is dd copying the very stream, 4 KiB at
# a time, into a new file beside the groups. The writer's wake-ups are
# counted against the stand-in's posts: at most one wake-up for each burst.
#
# FORCEFLUSH is the ini's "forceflushlog": 1 (the default) ends every
# writer burst with an fdatasync of the group, 0 leaves the bytes to the
# page cache. A second reference writes the stream the same way and then
# fdatasyncs it once: the disk's own rate for bytes that must be durable,
# which no setting that syncs can beat. The goal stands against the plain
# write with 0 and against the durable write with 1.
#
#   bench/RedoThroughput.sh [BUILD_DIR] [MIB] [FORCEFLUSH]   (defaults: build, 256, 1)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
mib=${2:-256}
forceflush=${3:-1}
bin=$(cd "$build/bin" && pwd)
. bench/BenchKit.sh
bench_root redo "$bin"
"$bin/talvor-mkdb" --dir "$root/Data/Talvor" --name Bench --redo-groups 4 --redo-size 64 >/dev/null
bench_ini "$root" persistenceintervals=3 archivetype=0 "forceflushlog=$forceflush"
records=$((mib * 256))

bench_primary "$root" "$bin" '
  records=$1
  "$bin/talvor-peer" redo --records "$records" --size 4096 --burst 64 --timeout 120000 \
    --out "$root/stream.bin" > "$root/peer.out"
  kill -TERM $pid; wait $pid || true
  sync
  start=$(date +%s.%N)
  dd if="$root/stream.bin" of="$root/Data/Talvor/Redo/raw.bin" bs=4096 status=none
  end=$(date +%s.%N)
  echo "rawseconds=$(echo "$end - $start" | bc -l)" > "$root/raw.out"
  rm -f "$root/Data/Talvor/Redo/raw.bin"
  sync
  start=$(date +%s.%N)
  dd if="$root/stream.bin" of="$root/Data/Talvor/Redo/durable.bin" bs=4096 conv=fdatasync status=none
  end=$(date +%s.%N)
  echo "durableseconds=$(echo "$end - $start" | bc -l)" >> "$root/raw.out"
' "$records"

peer=$(cat "$root/peer.out")
field() { echo "$peer" | tr ' ' '\n' | sed -n "s/^$1=//p"; }
bytes=$(field bytes); ms=$(field ms); posts=$(field posts)
raws=$(sed -n 's/^rawseconds=//p' "$root/raw.out")
durables=$(sed -n 's/^durableseconds=//p' "$root/raw.out")
totals=$(cat "$root"/Data/Talvor/Log/TalvorStorage*.log | tr -d '\r' | grep "Redo log writer totals" | tail -1)
wakeups=$(echo "$totals" | sed -n 's/.*wake-ups: \([0-9]*\).*/\1/p')
daemon=$(echo "$bytes / 1048576 / ($ms / 1000)" | bc -l)
raw=$(echo "$bytes / 1048576 / $raws" | bc -l)
ratio=$(echo "$daemon / $raw" | bc -l)
durable=$(echo "$bytes / 1048576 / $durables" | bc -l)
dratio=$(echo "$daemon / $durable" | bc -l)
printf "forceflushlog=%s\n" "$forceflush"
printf "redo through the daemon: %.1f MB/s (%d bytes in %d ms)\n" "$daemon" "$bytes" "$ms"
printf "plain sequential write:  %.1f MB/s\n" "$raw"
printf "durable sequential write (one fdatasync at the end): %.1f MB/s\n" "$durable"
if [ "$forceflush" = 0 ]; then
  printf "ratio: %.2f of the plain write (goal: at least 0.80); %.2f of the durable one\n" "$ratio" "$dratio"
else
  printf "ratio: %.2f of the durable write (goal: at least 0.80); %.2f of the plain one\n" "$dratio" "$ratio"
fi
printf "writer wake-ups: %s for %s posts of the stand-in (goal: at most one for each)\n" "${wakeups:-?}" "$posts"
