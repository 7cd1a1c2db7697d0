#!/bin/sh
# Runs the framework server benchmark next to redis-benchmark GET on a Unix socket, with the same
# request count and connection counts, so that both are measured under the same conditions.
#
# Usage: bench/server_bench.sh BUILD_DIR [REQUESTS]
#   BUILD_DIR: a Release build that holds bin/dh_bench_server.
#   NICE: niceness for both benchmarks (default 0; a negative value needs root).
set -eu

build=${1:?usage: server_bench.sh BUILD_DIR [REQUESTS]}
requests=${2:-200000}
nice=${NICE:-0}
dir=$(mktemp -d /tmp/dh-redis-bench-XXXXXX)
trap 'redis-cli -s "$dir/redis.sock" shutdown nosave >/dev/null 2>&1 || true; rm -rf "$dir"' EXIT

echo "== $(date -u +%Y-%m-%dT%H:%M:%SZ) load: $(cut -d' ' -f1-3 /proc/loadavg) nice: $nice"

nice -n "$nice" redis-server --port 0 --unixsocket "$dir/redis.sock" --save '' --appendonly no \
    --daemonize yes --pidfile "$dir/redis.pid" --logfile "$dir/redis.log"
i=0
until redis-cli -s "$dir/redis.sock" ping >/dev/null 2>&1; do
    i=$((i + 1))
    [ $i -lt 100 ] || { echo "redis-server did not start" >&2; exit 1; }
    sleep 0.1
done

for c in 1 50; do
    printf 'redis GET c=%s: ' "$c"
    nice -n "$nice" redis-benchmark -s "$dir/redis.sock" -t get -c "$c" -n "$requests" 2>&1 |
        tr '\r' '\n' | awk '
            /throughput summary/ { rps = $3 }
            /latency summary/ { getline; getline; p50 = $3; p99 = $5 }
            END { printf "%s requests/s, p50 %s ms, p99 %s ms\n", rps, p50, p99 }'
done

DH_LOG_LEVEL=warning nice -n "$nice" "$build/bin/dh_bench_server" "$requests"
for mode in single pattern; do
    DH_LOG_LEVEL=warning nice -n "$nice" "$build/bin/dh_bench_server" subscriptions "$mode"
done
echo "== load after: $(cut -d' ' -f1-3 /proc/loadavg)"
