#!/bin/bash
# Builds the tree with a sanitizer and runs the tests under it.
#   scripts/sanitize.sh address   AddressSanitizer + UndefinedBehaviorSanitizer (build-asan/):
#                                 the unit tests, then the end-to-end tests on the sanitized daemon
#   scripts/sanitize.sh thread    ThreadSanitizer (build-tsan/): the unit tests
# The first report stops the run and fails it. Extra arguments go to ctest.
set -euo pipefail
repo=$(cd "$(dirname "$0")/.." && pwd)
kind=${1:?usage: sanitize.sh address|thread [ctest args]}
shift

case $kind in
address)
    build=$repo/build-asan
    export ASAN_OPTIONS=halt_on_error=1:abort_on_error=0:detect_leaks=1:strict_string_checks=1
    export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
    labels=(-L 'unit|e2e')
    ;;
thread)
    build=$repo/build-tsan
    export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$repo/tests/tsan.supp"
    labels=(-L unit)
    ;;
*)
    echo "sanitize.sh: unknown sanitizer '$kind' (address or thread)" >&2
    exit 2
    ;;
esac

BUILD_DIR=$build "$repo/scripts/build.sh" -DDH_SANITIZE="$kind"
ctest --test-dir "$build" --output-on-failure "${labels[@]}" "$@"
