#!/usr/bin/env bash
# Builds and runs the unit tests with AddressSanitizer and UndefinedBehaviorSanitizer.
source "$(dirname "$0")/lib.sh"

ensure_dependencies
cd "$PROJECT_ROOT"
cmake -S unittests -B build/unittests-sanitize -DCMAKE_BUILD_TYPE=Debug -DZM_SANITIZE=ON >/dev/null
cmake --build build/unittests-sanitize -j"$(nproc)" >/dev/null
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir build/unittests-sanitize --output-on-failure -j"$(nproc)" | tail -n 3
