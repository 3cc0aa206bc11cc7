#!/usr/bin/env bash
# Runs every test from a fresh checkout: installs what is missing, builds and tests, installs
# that build and builds a host program against it, then builds again with clang under
# AddressSanitizer and UndefinedBehaviorSanitizer (with the fuzz targets, which get a short
# smoke run) and tests that build too.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
jobs=$(nproc)

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j "$jobs"
ctest --test-dir build --output-on-failure -j "$jobs"
bash scripts/check-install.sh build

CC=clang CXX=clang++ cmake -S . -B build-sanitize -DCMAKE_BUILD_TYPE=Debug \
    -DHARL_SANITIZE=ON -DHARL_FUZZ=ON -DHARL_BENCHMARKS=OFF
cmake --build build-sanitize -j "$jobs"
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
    ctest --test-dir build-sanitize --output-on-failure -j "$jobs"
