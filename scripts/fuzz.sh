#!/bin/bash
# Builds the libFuzzer targets (fuzz/) with clang, AddressSanitizer and UndefinedBehaviorSanitizer
# in their own build directory, then runs each for FUZZ_SECONDS (default 60), starting from the
# inputs kept in fuzz/corpus/TARGET. Inputs found on the way are written below the build
# directory (BUILD/corpus/TARGET), never into the repository; a crash stops the run and keeps
# its input as BUILD/crashes/TARGET/crash-*.
# Usage: scripts/fuzz.sh [TARGET...]   (targets: codec ethtool rauc chrony lldp sysrepocfg version pattern)
# Longer runs: FUZZ_SECONDS=14400 scripts/fuzz.sh codec
set -euo pipefail
repo=$(cd "$(dirname "$0")/.." && pwd)
build=${FUZZ_BUILD_DIR:-$repo/build-fuzz}
seconds=${FUZZ_SECONDS:-60}
targets=("$@")
[[ ${#targets[@]} -eq 0 ]] && targets=(codec ethtool rauc chrony lldp sysrepocfg version pattern)

export CCACHE_BASEDIR=$repo
if [[ ! -f $build/build.ninja ]]; then
    CC=clang CXX=clang++ cmake -S "$repo" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DDH_FUZZ=ON -DBUILD_TESTING=OFF >/dev/null
fi
cmake --build "$build" -j2 --target "${targets[@]/#/fuzz_}"

export ASAN_OPTIONS=halt_on_error=1:detect_leaks=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
for t in "${targets[@]}"; do
    corpus=$build/corpus/$t
    crashes=$build/crashes/$t
    mkdir -p "$corpus" "$crashes"
    echo "fuzz: $t for ${seconds}s"
    "$build/bin/fuzz_$t" -max_total_time="$seconds" -max_len=65536 -print_final_stats=1 \
        -artifact_prefix="$crashes/" "$corpus" "$repo/fuzz/corpus/$t" 2>"$build/fuzz_$t.log" || {
        tail -n 60 "$build/fuzz_$t.log" >&2
        echo "fuzz: $t failed; the input is in $crashes" >&2
        exit 1
    }
    grep -E "stat::number_of_executed_units|stat::new_units_added" "$build/fuzz_$t.log" | tr '\n' ' '
    echo
done
