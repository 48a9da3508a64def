#!/bin/sh
# Runs a command in a private IPC and mount namespace, with private tmpfs on
# /dev/shm (named semaphores) and /var/run (the single-instance lock file), so
# that fixed SysV keys and semaphore names never meet the host's or another
# test's.
exec unshare --ipc --mount --propagation private sh -c '
  mount -t tmpfs -o mode=1777 tmpfs /dev/shm &&
  mount -t tmpfs -o mode=755 tmpfs /var/run &&
  exec "$@"' isolate "$@"
