#!/bin/sh
# Runs a test program in private IPC and network namespaces, so that tests
# using the fixed queue keys and the fixed UDP port can run in parallel
# without seeing each other. The private network namespace starts with its
# loopback interface down: bring it up first.
exec unshare --ipc --net -- sh -c 'ip link set lo up 2>/dev/null || true; exec "$@"' run_isolated "$@"
