#!/usr/bin/env bash
# Builds every fuzz target with clang (address and undefined-behaviour sanitizers) in build/fuzz
# and runs each for a bounded time, starting from its checked-in corpus. New inputs land in a
# scratch folder, not in the repository. Usage: fuzz/run.sh [seconds per target, default 60]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
CC=clang CXX=clang++ cmake -S . -B build/fuzz -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DVMKTR_SANITIZE=address,undefined -DVMKTR_BUILD_BENCH=OFF -DVMKTR_DUMP_DIR="$PWD/build/fuzz/dumps" >/dev/null
for dir in fuzz/*/; do
  name=fuzz_$(basename "$dir")
  [[ -d "$dir/corpus" ]] || continue
  cmake --build build/fuzz --target "$name" -j "$(nproc)"
  scratch=build/fuzz/corpus/$name
  mkdir -p "$scratch"
  echo "=== $name for ${seconds}s"
  VM_HOST_LOG=none "build/fuzz/fuzz/$(basename "$dir")/$name" -max_total_time="$seconds" -max_len=70000 \
    "$scratch" "$dir/corpus"
done
