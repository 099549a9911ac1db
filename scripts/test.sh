#!/bin/sh
# Installs what the project needs, builds everything and runs all tests,
# then the sanitizer build of the tests named below.
set -eu
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
cmake -S . -B build -G Ninja
cmake --build build -j "$(nproc)"
ctest --test-dir build --output-on-failure -j "$(nproc)"

# The raw records (the sampler's own, which run in its signal handlers) and
# the platform layer's values, built again with AddressSanitizer and
# UndefinedBehaviorSanitizer in a build directory of their own; any report
# fails the run. Leak reports are off: Qt keeps memory to the end.
cmake -S . -B build-sanitize -G Ninja -DZOR_SANITIZE=ON -DZOR_BUILD_BENCH=OFF
sanitized="test-sampler-records test-sampler-exactpolicy test-sampler-memory zor-network-tests"
# shellcheck disable=SC2086
cmake --build build-sanitize -j "$(nproc)" --target $sanitized
for test in $sanitized; do
    ASAN_OPTIONS=detect_leaks=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 "build-sanitize/bin/$test"
done
