#!/usr/bin/env bash
# BackupChain — an incremental backup after about 1% of the blocks changed,
# against the full backup of the same database; and the restore of that
# chain against cp of the same database files. One run of the real daemon in
# a private tree and namespace, driven by the engine stand-in.
#
# The stand-in grows every file to BLOCKS blocks in each of 16 map blocks
# (the data file's 512 MiB hold 16 x 600 of its blocks) and commits until a
# pass has them on disk; then a full backup; then one transaction for each
# 1% of the data file's blocks, each changing one block; then a level 1
# incremental. Goal: the incremental under 5% of the full backup's time and
# of its size.
#
# Then ROUNDS rounds, each restoring the chain (full, then the incremental)
# over the database and copying the same files with cp+sync, the side that
# goes first alternating, each from the same cache state (dirty pages
# synced, the page cache dropped). The restore is the rewrite of the
# database's files from the chain, which the daemon times in its trace
# between taking the database apart and bringing it back; its bytes over
# that time are set against cp+sync of the same files. Goal: at least 0.8.
# The operator's whole wait for command 46 is told beside it: it also
# takes the running database apart and loads it again, work cp has no
# part in.
#
#   bench/BackupChain.sh [BUILD_DIR] [BLOCKS] [ROUNDS]   (defaults: build, 600, 3)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
blocks=${2:-600}
rounds=${3:-3}
bin=$(cd "$build/bin" && pwd)
. bench/BenchKit.sh
bench_root chain "$bin"
mkdir -p "$root/Arch" "$root/cp"
"$bin/talvor-mkdb" --dir "$root/Data/Talvor" --name Chain --data-file 512 --btree-file 64 --kv-file 64 \
  --redo-groups 3 --redo-size 16 >/dev/null
bench_ini "$root" persistenceintervals=1 archivetype=1 "archivedespath=$root/Arch/"

bench_primary "$root" "$bin" '
  blocks=$1
  rounds=$2
  now() { date +%s%N; }
  db="$root/Data/Talvor"
  # Commits COUNT transactions over BLOCKS blocks per map block and waits
  # until a pass has the last one on disk.
  commit() {
    out=$("$bin/talvor-peer" data --journal "$root/journal$1" --live --head-ready --blocks "$blocks" --map-blocks 16 \
      --count "$2" --pause-us 0 --seed "$1" --seconds 600 2>>"$root/peer.err")
    last=$(sed -n "s/.*last timestamp \([0-9]*\).*/\1/p" <<< "$out")
    for _ in $(seq 600); do
      "$bin/talvor-peer" verify --journal "$root/journal$1" --system "$db/System.dbf" --at-least "$last" \
        >/dev/null 2>&1 && return 0
      sleep 0.1
    done
    echo "the commits of round $1 never reached the disk" >&2; return 1
  }
  uncache() { for f in "$db"/*.dbf; do dd if="$f" iflag=nocache count=0 status=none; done; }
  timed() { local t0; t0=$(now); "$@" > "$root/last.out"; echo $(( ($(now) - t0) / 1000 )); }
  backup_path() { sed -n "s/^backup ts=.* path=\([^ ]*\).*/\1/p" "$root/last.out"; }
  backup_ts() { sed -n "s/^backup ts=\([0-9]*\) .*/\1/p" "$root/last.out"; }

  commit 1 200
  total=$(( blocks * 16 ))
  sync; uncache
  full_us=$(timed "$bin/talvor-peer" backup --full --wait); full=$(backup_path); full_ts=$(backup_ts)
  commit 2 $(( total / 100 ))
  sync; uncache
  inc_us=$(timed "$bin/talvor-peer" backup --incremental --level 1 --ref "$full_ts" --wait)
  inc=$(backup_path); inc_ts=$(backup_ts)
  "$bin/talvor-backup" verify "$inc" > "$root/inc.verify" || true
  echo "full $(stat -c %s "$full") $full_us" > "$root/chain.result"
  echo "incremental $(stat -c %s "$inc") $inc_us" >> "$root/chain.result"
  # The restore rewrites every database file; cp+sync copies the same files.
  files_bytes=$(cat "$db"/*.dbf | wc -c)
  cp_side() {
    bench_fresh "$root"
    echo "cp $1 $(timed bash -c "cp \"$db\"/*.dbf \"$root/cp/\" && sync")" >> "$root/chain.result"
  }
  # The stages of a restore as the daemon times them: its trace line comes
  # a moment after the database is open again.
  restore_side() {
    local us seen stages
    bench_fresh "$root"
    seen=$(cat "$db"/Log/TalvorStorage*.log 2>/dev/null | grep -ac "taking the database apart" || true)
    us=$(timed "$bin/talvor-peer" restore --to "$inc_ts" --wait-ms 600000)
    grep -q "database=open" "$root/last.out" || { cat "$root/last.out" >&2; exit 1; }
    for _ in $(seq 50); do
      stages=$(cat "$db"/Log/TalvorStorage*.log 2>/dev/null | grep -a "taking the database apart" | sed -n "$((seen + 1))p")
      [ -n "$stages" ] && break
      sleep 0.1
    done
    echo "restore $1 $us $(sed -n "s/.*apart \([0-9]*\) ms, restoring the files \([0-9]*\) ms, bringing it back \([0-9]*\) ms.*/\1 \2 \3/p" <<< "$stages")" \
      >> "$root/chain.result"
  }
  echo "bytes $files_bytes" >> "$root/chain.result"
  for r in $(seq "$rounds"); do
    if [ $((r % 2)) = 1 ]; then cp_side "$r"; restore_side "$r"; else restore_side "$r"; cp_side "$r"; fi
  done
' "$blocks" "$rounds" || { echo "no measurement (see the daemon trace under $root)"; exit 0; }

read -r _ full_bytes full_us < <(grep "^full " "$root/chain.result")
read -r _ inc_bytes inc_us < <(grep "^incremental " "$root/chain.result")
read -r _ files_bytes < <(grep "^bytes " "$root/chain.result")
pieces=$(sed -n "s/.* in \([0-9]*\) pieces\{0,1\},.*/\1/p" "$root/inc.verify" | paste -sd+ | bc)
grep -q "no room" "$root/peer.err" && echo "note: $(grep -m1 "no room" "$root/peer.err")"
printf "data file blocks %d, changed about %d\n" $((blocks * 16)) $((blocks * 16 / 100))
printf "full backup %d bytes in %.2f s; incremental (%s pieces) %d bytes in %.2f s\n" \
  "$full_bytes" "$(echo "$full_us / 1000000" | bc -l)" "${pieces:-?}" "$inc_bytes" "$(echo "$inc_us / 1000000" | bc -l)"
printf "incremental against full: time %.3f, size %.3f (goal: each under 0.05)\n" \
  "$(echo "$inc_us / $full_us" | bc -l)" "$(echo "$inc_bytes / $full_bytes" | bc -l)"
mb=$(echo "$files_bytes / 1048576" | bc -l)
n=0 sumratio=0 sumwhole=0
for r in $(seq "$rounds"); do
  read -r _ _ cp_us < <(grep "^cp $r " "$root/chain.result") || true
  read -r _ _ restore_us apart_ms files_ms back_ms < <(grep "^restore $r " "$root/chain.result") || true
  if [ -z "${cp_us:-}" ] || [ -z "${files_ms:-}" ] || [ "$files_ms" -le 0 ]; then
    echo "round $r: no measurement (see $root)"; continue
  fi
  first=cp; [ $((r % 2)) = 0 ] && first=restore
  cp_rate=$(echo "$mb / ($cp_us / 1000000)" | bc -l)
  rate=$(echo "$mb / ($files_ms / 1000)" | bc -l)
  whole=$(echo "$mb / ($restore_us / 1000000)" | bc -l)
  printf "round %d (%-7s first): restore %.1f MB/s (%d bytes in %.2f s), cp+sync %.1f MB/s, ratio %.2f;" \
    "$r" "$first" "$rate" "$files_bytes" "$(echo "$files_ms / 1000" | bc -l)" "$cp_rate" "$(echo "$rate / $cp_rate" | bc -l)"
  printf " whole command %.2f s (apart %.2f, back %.2f), ratio %.2f\n" "$(echo "$restore_us / 1000000" | bc -l)" \
    "$(echo "$apart_ms / 1000" | bc -l)" "$(echo "$back_ms / 1000" | bc -l)" "$(echo "$whole / $cp_rate" | bc -l)"
  n=$((n + 1)); sumratio=$(echo "$sumratio + $rate / $cp_rate" | bc -l); sumwhole=$(echo "$sumwhole + $whole / $cp_rate" | bc -l)
done
[ "$n" -gt 0 ] && printf "mean of %d rounds: restore ratio %.2f (goal: at least 0.80); the whole command's ratio %.2f\n" \
  "$n" "$(echo "$sumratio / $n" | bc -l)" "$(echo "$sumwhole / $n" | bc -l)"
exit 0
