#!/usr/bin/env bash
# BackupFull — full backup MB/s through the daemon (cluster command 40, asked
# by the engine stand-in) against cp of the same database files on the same
# disk, in the same run.
#
# The data file's used part is filled to MIB MiB, so the backup copies about
# that much. The backup writes with direct I/O and syncs the file before it
# ends: its bytes are on the disk. cp is therefore timed with a sync behind it, so that
# both sides count bytes that reached the disk. Each rate is the bytes moved
# over the wall time of the whole request (the backup's save pass and the
# drain included). Two modes: the stand-in idle, and the stand-in committing
# rows as a live engine while the backup runs. Each mode runs ROUNDS rounds;
# the side that goes first alternates from round to round, and every side
# starts from the same cache state: everything synced and the page cache of
# the whole machine dropped. Each round is told, then the mean. A last line
# per mode gives dd copying the same files in the backup's own pattern, to
# tell the cost of the pattern from the daemon's own.
#
#   bench/BackupFull.sh [BUILD_DIR] [MIB] [ROUNDS]   (defaults: build, 256, 3)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
mib=${2:-256}
rounds=${3:-3}
bin=$(cd "$build/bin" && pwd)
. bench/BenchKit.sh
bench_root backup "$bin"
mkdir -p "$root/Arch" "$root/cp"
"$bin/talvor-mkdb" --dir "$root/Data/Talvor" --name Bench --data-file $((mib + 8)) --btree-file 4 --kv-file 4 \
  --redo-groups 3 --redo-size 4 >/dev/null
# The used part of the data file: random bytes up to MIB MiB, and the head's
# free offset (byte 78 of the file head) moved there.
python3 - "$root/Data/Talvor/Data2.dbf" "$mib" <<'PY'
import os, struct, sys
path, mib = sys.argv[1], int(sys.argv[2])
with open(path, "r+b") as f:
    head = f.read(86)
    used = struct.unpack_from("<q", head, 78)[0]
    end = mib * 1048576
    f.seek(used)
    while used < end:
        n = min(1 << 22, end - used)
        f.write(os.urandom(n))
        used += n
    f.seek(78)
    f.write(struct.pack("<q", end))
PY
bench_ini "$root" persistenceintervals=300 archivetype=1 "archivedespath=$root/Arch/"

bench_primary "$root" "$bin" '
  rounds=$1
  now() { date +%s.%N; }
  # Each side starts from bench_fresh: the backup reads with direct I/O and
  # cp through the cache, so neither may find the files cached by the other.
  cp_side() {
    bench_fresh "$root"
    start=$(now); cp "$root"/Data/Talvor/*.dbf "$root/cp/"; sync; end=$(now)
    cpbytes=$(cat "$root"/cp/*.dbf | wc -c)
    echo "$1 round=$2 cpbytes=$cpbytes cpseconds=$(echo "$end - $start" | bc -l)" >> "$root/rounds.out"
  }
  backup_side() {
    bench_fresh "$root"
    start=$(now); "$bin/talvor-peer" backup --full ${3:+--ts $3} --wait > "$root/backup-$1.out"; end=$(now)
    file=$(sed -n "s/^backup ts=.* path=\([^ ]*\).*/\1/p" "$root/backup-$1.out")
    # The time the daemon gives this backup in its trace, a moment
    # after the file is named.
    ts=$(sed -n "s/^backup ts=\([0-9]*\) .*/\1/p" "$root/backup-$1.out"); ms=
    for _ in $(seq 50); do
      ms=$(cat "$root"/Data/Talvor/Log/TalvorStorage*.log | grep -a "Full backup finished, timestamp: $ts," | tail -1 |
        sed -n "s/.*, \([0-9]*\) ms.*/\1/p")
      [ -n "$ms" ] && break
      sleep 0.1
    done
    echo "$1 round=$2 backupbytes=$(stat -c %s "$file") backupseconds=$(echo "${ms:-0} / 1000" | bc -l) waitseconds=$(echo "$end - $start" | bc -l)" >> "$root/rounds.out"
    rm -f "$file"
  }
  # The I/O pattern of the backup without the daemon: 8 MiB direct reads,
  # each followed by its direct synchronous write, one after the other.
  dd_side() {
    bench_fresh "$root"
    start=$(now)
    for f in "$root"/Data/Talvor/*.dbf; do
      dd if="$f" of="$root/cp/$(basename "$f")" bs=8M iflag=direct oflag=direct,sync status=none
    done
    end=$(now)
    echo "$1 ddbytes=$(cat "$root"/cp/*.dbf | wc -c) ddseconds=$(echo "$end - $start" | bc -l)" >> "$root/rounds.out"
    rm -f "$root"/cp/*
  }
  # MODE TS: the rounds, the side that goes first alternating.
  mode() {
    local r
    for r in $(seq "$rounds"); do
      if [ $((r % 2)) = 1 ]; then cp_side "$1" "$r"; backup_side "$1" "$r" "$2"
      else backup_side "$1" "$r" "$2"; cp_side "$1" "$r"; fi
    done
    dd_side "$1"
  }
  t0=$(date +%s)
  mode idle 100
  # The stand-in commits for twice as long as the idle rounds took, so that
  # it outlasts the committing ones; it then ends by itself and tells its
  # summary. A backup leaves m_nStatus at 0: it takes the head for ready.
  "$bin/talvor-peer" data --journal "$root/journal" --live --head-ready --count 100000000 \
    --seconds $(( 2 * ($(date +%s) - t0) + 10 )) --pause-us 200 --seed 1 > "$root/peer.out" & peer=$!
  sleep 1
  mode committing
  wait $peer || true
' "$rounds" || true

field() { sed -n "s/^$1 $2.*$3=\([^ ]*\).*/\1/p" "$root/rounds.out"; }
# MODE: each round's rates and ratio, then their means.
report() {
  local r cpb cps bb bs ws cprate rate ratio n=0 sumrate=0 sumcp=0 sumratio=0 first
  for r in $(seq "$rounds"); do
    cpb=$(field "$1" "round=$r " cpbytes); cps=$(field "$1" "round=$r " cpseconds)
    bb=$(field "$1" "round=$r " backupbytes); bs=$(field "$1" "round=$r " backupseconds)
    ws=$(field "$1" "round=$r " waitseconds)
    if [ -z "$bb" ] || [ -z "$cpb" ] || [ "$(echo "$bs > 0" | bc)" != 1 ]; then echo "$1 round $r: no measurement (see $root)"; continue; fi
    cprate=$(echo "$cpb / 1048576 / $cps" | bc -l)
    rate=$(echo "$bb / 1048576 / $bs" | bc -l)
    ratio=$(echo "$rate / $cprate" | bc -l)
    first=cp; [ $((r % 2)) = 0 ] && first=backup
    printf "%-11s round %d (%-6s first): backup %.1f MB/s (%d bytes in %.2f s), cp+sync %.1f MB/s, ratio %.2f; whole wait %.2f s\n" \
      "$1:" "$r" "$first" "$rate" "$bb" "$bs" "$cprate" "$ratio" "$ws"
    n=$((n + 1)); sumrate=$(echo "$sumrate + $rate" | bc -l); sumcp=$(echo "$sumcp + $cprate" | bc -l)
    sumratio=$(echo "$sumratio + $ratio" | bc -l)
  done
  [ "$n" -gt 0 ] && printf "%-11s mean of %d rounds: backup %.1f MB/s, cp+sync %.1f MB/s, ratio %.2f (goal: at least 0.80)\n" \
    "$1:" "$n" "$(echo "$sumrate / $n" | bc -l)" "$(echo "$sumcp / $n" | bc -l)" "$(echo "$sumratio / $n" | bc -l)"
  local db ds
  db=$(field "$1" "" ddbytes); ds=$(field "$1" "" ddseconds)
  [ -n "$db" ] && printf "%-11s the same pattern by dd (8 MiB direct read, then direct sync write): %.1f MB/s\n" \
    "" "$(echo "$db / 1048576 / $ds" | bc -l)"
  return 0
}
report idle
report committing
printf "stand-in while committing: %s\n" "$(head -1 "$root/peer.out" 2>/dev/null || echo "no summary")"
