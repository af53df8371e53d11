#!/usr/bin/env bash
# Builds every fuzz target with clang (address and undefined-behaviour sanitizers, -O1) in
# build/fuzz and runs each for a bounded time, starting from its checked-in corpus. New inputs
# land in build/fuzz/corpus, crashing inputs in build/fuzz/artifacts, never in the repository.
# Every target runs even when an earlier one fails; the exit status is 1 when any target found
# a crash, a leak or a hang (each input has 25 s), after printing the tail of that target's log.
# Usage: fuzz/run.sh [seconds per target, default 60] [folder name ...]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
shift || true

probe='extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }'
if ! echo "$probe" | clang++ -x c++ -fsanitize=fuzzer,address,undefined -o /dev/null - 2>/dev/null; then
  echo "fuzz/run.sh: clang++ cannot link -fsanitize=fuzzer,address,undefined (clang and its runtime package needed)" >&2
  exit 1
fi

folders=("$@")
if ((${#folders[@]} == 0)); then
  for dir in fuzz/*/; do
    [[ -d "$dir/corpus" ]] && folders+=("$(basename "$dir")")
  done
fi
targets=()
for f in "${folders[@]}"; do targets+=("fuzz_$f"); done

CC=clang CXX=clang++ cmake -S . -B build/fuzz -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_C_FLAGS_DEBUG="-g -O1" -DCMAKE_CXX_FLAGS_DEBUG="-g -O1" \
  -DVMKTR_SANITIZE=address,undefined -DVMKTR_BUILD_BENCH=OFF -DVMKTR_WERROR=ON >/dev/null
cmake --build build/fuzz --target "${targets[@]}" -j "$(nproc)"

# Whatever the targets dump goes to a folder of the fuzz build, not the phone's directory.
export VM_HOST_DUMP_DIR="$PWD/build/fuzz/dumps"
mkdir -p "$VM_HOST_DUMP_DIR"

failed=()
for f in "${folders[@]}"; do
  name=fuzz_$f
  scratch=build/fuzz/corpus/$name
  artifacts=build/fuzz/artifacts/$name
  log=build/fuzz/$name.log
  mkdir -p "$scratch" "$artifacts"
  echo "=== $name for ${seconds}s (log: $log)"
  if VM_HOST_LOG=none "build/fuzz/fuzz/$f/$name" -max_total_time="$seconds" -max_len=70000 -timeout=25 \
    -print_final_stats=1 -artifact_prefix="$artifacts/" "$scratch" "fuzz/$f/corpus" >"$log" 2>&1; then
    grep -E '^(Done|stat::number_of_executed_units|stat::new_units_added)' "$log" || true
  else
    echo "!!! $name failed; the input is in $artifacts, the log's tail:"
    tail -n 40 "$log"
    failed+=("$name")
  fi
done

if ((${#failed[@]})); then
  echo "fuzzing found problems in: ${failed[*]}"
  exit 1
fi
echo "fuzzing: ${#folders[@]} targets ran ${seconds}s each without a finding"
