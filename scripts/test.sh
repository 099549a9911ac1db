#!/bin/sh
# Installs what the project needs, builds everything and runs all tests,
# then the tests again in a sanitizer build.
set -eu
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
cmake -S . -B build -G Ninja
cmake --build build -j "$(nproc)"
ctest --test-dir build --output-on-failure -j "$(nproc)"

# Every test program that preloads no sampler, built again with
# AddressSanitizer and UndefinedBehaviorSanitizer in a build directory of
# their own (cases that run a program under the sampler skip there: the
# sanitizers' runtime must be a program's first library). Any report fails the
# run, including one from a program that a test starts and whose failure it
# expects: reports go to files, which must stay absent. Leak reports are off:
# Qt keeps memory to the end.
reports="$(pwd)/build-sanitize/reports"
rm -rf "$reports"
mkdir -p "$reports"
export ASAN_OPTIONS="detect_leaks=0:log_path=$reports/asan"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:log_path=$reports/ubsan"
cmake -S . -B build-sanitize -G Ninja -DZOR_SANITIZE=ON -DZOR_BUILD_BENCH=OFF
cmake --build build-sanitize -j "$(nproc)" --target zor-tests
status=0
ctest --test-dir build-sanitize --output-on-failure -j "$(nproc)" || status=1
if [ -n "$(ls -A "$reports")" ]; then
    cat "$reports"/*
    echo "test.sh: the sanitizers reported the faults above" >&2
    status=1
fi
exit $status
