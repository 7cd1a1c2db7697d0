#!/bin/sh
# Resident memory of the framework server under 10,000 mixed writes and 200,000 reads (with a
# subscriber and history reads), run three times; prints VmRSS after start-up and after the run.
#
# Usage: bench/memory_bench.sh BUILD_DIR [WRITES] [READS]
#   BUILD_DIR: a build (Release for figures) that holds bin/dh_bench_memory.
set -eu
build=${1:?usage: memory_bench.sh BUILD_DIR [WRITES] [READS]}
writes=${2:-10000}
reads=${3:-200000}
echo "== $(date -u +%Y-%m-%dT%H:%M:%SZ) load: $(cut -d' ' -f1-3 /proc/loadavg)"
for run in 1 2 3; do
    "$build/bin/dh_bench_memory" "$writes" "$reads"
done
