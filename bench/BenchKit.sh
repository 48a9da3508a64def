# BenchKit.sh — what the shell benchmarks share. Sourced from the project
# root by each of them, never run on its own.

# bench_root NAME BIN: a fresh tree under $TALVOR_BENCH_DIR (default /tmp),
# removed when the script exits, with Data/Talvor/ and the daemon from BIN
# copied into bin/. Sets root.
bench_root() {
  root=$(mktemp -d "${TALVOR_BENCH_DIR:-/tmp}/talvor-$1-bench-XXXXXX")
  trap 'rm -rf "$root"' EXIT
  mkdir -p "$root/bin" "$root/Data/Talvor"
  cp "$2/TalvorStorage" "$root/bin/"
}

# bench_ini ROOT [KEY=VALUE...]: the daemon's TalvorConfig.ini for the
# database in ROOT/Data/Talvor, the given keys added to the common ones.
bench_ini() {
  local dir=$1; shift
  {
    printf '[System]\ndatabasepath=%s/Data/Talvor/\nLanguage=0\nbuffercachesize=0\nundoareasize=16\n' "$dir"
    for line in "$@"; do printf '%s\n' "$line"; done
  } > "$dir/bin/TalvorConfig.ini"
}

# bench_wait_started ROOT: returns once the daemon's trace says it started
# (30 s at the most). Exported, for the namespaced shell of each bench.
bench_wait_started() {
  for _ in $(seq 600); do
    grep -qs "service started" "$1"/Data/Talvor/Log/TalvorStorage*.log && return 0
    sleep 0.05
  done
  return 1
}
export -f bench_wait_started

# bench_fresh ROOT: the same cache state before each timed side: ROOT/cp/
# emptied, dirty pages on the disk and the page cache of the machine
# dropped (root only). Exported, as above.
bench_fresh() { rm -f "$1"/cp/*; sync; echo 3 > /proc/sys/vm/drop_caches; }
export -f bench_fresh

# bench_primary ROOT BIN BODY [ARG...]: runs the shell code BODY in a private
# IPC and mount namespace (its own tmpfs on /dev/shm and /var/run) beside
# the daemon of ROOT, started and waited for. BODY sees root, bin, pid (the
# daemon's) and its own arguments as $1...; a node it starts goes into node.
# Whatever ends BODY, the daemon and the node are stopped with it.
bench_primary() {
  local dir=$1 b=$2 body=$3
  shift 3
  unshare --ipc --mount --propagation private bash -c '
    set -e
    mount -t tmpfs tmpfs /dev/shm && mount -t tmpfs tmpfs /var/run
    root=$1; bin=$2; shift 2
    "$root/bin/TalvorStorage" & pid=$!
    node=
    trap "kill -TERM \$node \$pid 2>/dev/null || true; wait \$node \$pid 2>/dev/null || true" EXIT
    bench_wait_started "$root"
  '"$body" bench "$dir" "$b" "$@"
}

# bench_node_port OUT: the port a stand-in node listener printed into OUT
# (5 s at the most; OUT may not exist yet), or nothing. Exported, as above.
bench_node_port() {
  local port=
  for _ in $(seq 100); do
    port=$(sed -n "s/^listening on port //p" "$1" 2>/dev/null || true)
    [ -n "$port" ] && break
    sleep 0.05
  done
  echo "$port"
}
export -f bench_node_port

# bench_raw_tcp_us DST BYTES FILE...: microseconds a plain sender takes to
# send the first BYTES bytes of FILE... (in order) over a loopback TCP
# connection to a plain receiver that writes them to DST and syncs it.
bench_raw_tcp_us() {
  python3 - "$@" <<'PY'
import os, socket, sys, threading, time
dst, left, files = sys.argv[1], int(sys.argv[2]), sys.argv[3:]
srv = socket.socket(); srv.bind(("127.0.0.1", 0)); srv.listen(1)
def receive():
    c, _ = srv.accept()
    with open(dst, "wb") as f:
        while True:
            b = c.recv(1 << 20)
            if not b: break
            f.write(b)
        f.flush(); os.fsync(f.fileno())
t = threading.Thread(target=receive); t.start()
t0 = time.monotonic()
s = socket.create_connection(srv.getsockname())
for path in files:
    with open(path, "rb") as f:
        while left > 0:
            b = f.read(min(4 << 20, left))
            if not b: break
            s.sendall(b); left -= len(b)
s.close(); t.join()
print(int((time.monotonic() - t0) * 1e6))
PY
}
