#!/usr/bin/env bash
# NodeJoin — how fast the database is copied to a joining node, in one run
# of the real daemon in a private tree and namespace: the engine stand-in
# grows the data and key-value files to about MIB MiB of used bytes each,
# then cluster command 11 copies every file to a joining node (the
# stand-in's join listener on 127.0.0.1, which writes and syncs each file),
# timed from the command to its end as the engine sees it. The reference,
# in the same run: the same number of bytes of the same files sent over a
# loopback TCP connection by a plain sender to a plain receiver that writes
# and syncs them. Goal: the join at least 0.5 of the raw copy.
#   bench/NodeJoin.sh [BUILD_DIR] [MIB]   (defaults: build, 64)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
mib=${2:-64}
bin=$(cd "$build/bin" && pwd)
. bench/BenchKit.sh
bench_root join "$bin"
mkdir -p "$root/Joined"
"$bin/talvor-mkdb" --dir "$root/Data/Talvor" --name Join --data-file $(( mib * 2 )) --btree-file 4 \
  --kv-file $(( mib * 2 )) --redo-groups 3 --redo-size 16 >/dev/null
bench_ini "$root" persistenceintervals=1
# About 14 blocks of the stand-in's rows make a MiB of used bytes.
blocks=$(( mib * 14 ))
bench_primary "$root" "$bin" '
  blocks=$1
  "$bin/talvor-peer" data --journal "$root/journal" --live --count 200 --pause-us 0 --blocks "$blocks" --seed 9 >/dev/null 2>&1
  sleep 2
  "$bin/talvor-peer" join-node --port 0 --dir "$root/Joined" --seconds 600 --exit-after-join > "$root/node.out" 2>&1 & node=$!
  port=$(bench_node_port "$root/node.out")
  out=$("$bin/talvor-peer" cluster 11 --ip 127.0.0.1 --port "$port" --local-ip 127.0.0.1 --wait-ms 600000)
  wait $node || true
  node=
  bytes=$(sed -n "s/^join: files [0-9]* bytes \([0-9]*\).*/\1/p" "$root/node.out")
  ms=$(sed -n "s/.* elapsed_ms=\([0-9]*\).*/\1/p" <<< "$out")
  echo "$bytes $ms" > "$root/join.result"
' "$blocks"
read -r bytes join_ms < "$root/join.result"
d="$root/Data/Talvor"
raw_us=$(bench_raw_tcp_us "$root/raw.out" "$bytes" "$d/System.dbf" "$d/Data2.dbf" "$d/BTree3.dbf" "$d/KV4.dbf")
awk -v b="$bytes" -v j="$join_ms" -v r="$raw_us" 'BEGIN {
  join = b / (j * 1000); raw = b / r;
  printf "node join: %.1f MB/s (%d bytes in %.2f s); raw loopback copy of the same bytes: %.1f MB/s; ratio %.2f (goal: at least 0.50)\n",
         join, b, j / 1000, raw, join / raw }'
