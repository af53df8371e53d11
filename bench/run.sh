#!/usr/bin/env bash
# Runs every benchmark program of a build (the list the build writes to bench/benchmarks.txt),
# one after another so that they do not compete for the cores, each briefly: results are for
# comparing cases within one run (each sits beside memcpy of the same bytes), not absolute figures.
# The GL benchmark runs under xvfb-run the way the GL tests do (-noreset: a connection made while
# the X server resets after its last client left is dropped); without xvfb-run it runs as it is
# and its GL cases report that they had no display.
# Exit status 1 when a program is missing, exits non-zero or a case reports an error other than
# a missing display or a missing optional input; the summary names them.
# Then the host runner makes the demo's run (60 frames at 1080p into a scratch folder) and its
# frames per second over the whole run (set-up to the last output) go into the table too.
# At the end it prints the speed table (bench/table.py): each figure beside memcpy of the same
# bytes from the same run, and its target.
# Usage: bench/run.sh [build folder, default build/default]
# VMKTR_BENCH_MIN_TIME: seconds per case (default 0.2).
# VMKTR_BENCH_REPETITIONS: runs of each case (default 1); the table takes their medians.
set -uo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/default}
min_time=${VMKTR_BENCH_MIN_TIME:-0.2}
repetitions=${VMKTR_BENCH_REPETITIONS:-1}
if [[ ! $repetitions =~ ^[0-9]+$ ]] || ((repetitions < 1 || repetitions > 100)); then
  echo "bench/run.sh: VMKTR_BENCH_REPETITIONS must be a whole number from 1 to 100, not '$repetitions'" >&2
  exit 1
fi
json_dir=$build/bench/results
rm -rf "$json_dir" && mkdir -p "$json_dir" || { echo "bench/run.sh: cannot make $json_dir" >&2; exit 1; }
list=$build/bench/benchmarks.txt
if [[ ! -f $list ]]; then
  echo "bench/run.sh: $list missing: configure $build with Google Benchmark (libbenchmark-dev) installed" >&2
  exit 1
fi
# Cases may skip themselves only for these reasons: no display for GL, no depth file given.
allowed_skip='no EGL display|VMKTR_BENCH_DEPTH'

failed=()
skipped=()
ran=0
while IFS= read -r program; do
  [[ -n $program ]] || continue
  name=$(basename "$program")
  if [[ ! -x $program ]]; then
    echo "!!! $name: $program was not built"
    failed+=("$name (not built)")
    continue
  fi
  cmd=("$program")
  case $name in
    gegl_compare) ;;  # a comparison program of its own, not a Google Benchmark one
    *)
      cmd+=(--benchmark_min_time="$min_time" --benchmark_color=false
        --benchmark_out="$json_dir/$name.json" --benchmark_out_format=json)
      if ((repetitions > 1)); then
        cmd+=(--benchmark_repetitions="$repetitions" --benchmark_display_aggregates_only=true)
      fi
      ;;
  esac
  if [[ $name == bench_gl ]]; then
    if command -v xvfb-run >/dev/null; then
      cmd=(xvfb-run -a -s "-screen 0 640x480x24 -noreset" "${cmd[@]}")
    else
      echo "bench/run.sh: xvfb-run not found; $name runs without a display and its GL cases skip"
    fi
  fi
  echo "=== $name"
  log=$(mktemp)
  VM_HOST_LOG=none "${cmd[@]}" 2>&1 | tee "$log"
  status=${PIPESTATUS[0]}
  ran=$((ran + 1))
  if ((status != 0)); then
    failed+=("$name (exit $status)")
  fi
  while IFS= read -r line; do
    case_name=${line%% *}
    reason=${line#*ERROR OCCURRED: }
    if [[ $line =~ $allowed_skip ]]; then
      skipped+=("$name: $case_name: $reason")
    else
      failed+=("$name: $case_name: $reason")
    fi
  done < <(grep 'ERROR OCCURRED' "$log" | sort -u)  # once per case, not per repetition
  rm -f "$log"
done <"$list"

echo "=== $ran benchmark programs ran"
host=$build/tools/host/vmktr_host
if [[ -x $host ]]; then
  echo "=== vmktr_host: make demo's run"
  demo_dir=$(mktemp -d) || { echo "bench/run.sh: cannot make a scratch folder" >&2; exit 1; }
  demo_log=$demo_dir/summary.txt
  VM_HOST_LOG=none "$host" --out "$demo_dir/out" --frames 60 --no-progress >"$demo_log" 2>&1
  status=$?
  if ((status == 0)); then
    fps=$(sed -n 's/^whole run .* (\([0-9.]*\) frames\/s)$/\1/p' "$demo_log" | head -n 1)
    grep -E 'wall time|^whole run' "$demo_log"
    if [[ -n $fps ]]; then
      echo "$fps" >"$json_dir/host_demo.txt"
    else
      failed+=("vmktr_host (no timing line)")
    fi
  else
    cat "$demo_log"
    failed+=("vmktr_host (exit $status)")
  fi
  rm -rf "$demo_dir"
else
  failed+=("vmktr_host (not built)")
fi
echo "=== speed table (median real time of each case; ratios to memcpy of the same bytes, or to the peer named, same run)"
python3 bench/table.py "$json_dir" || failed+=("bench/table.py")
((ran > 0)) || failed+=("no benchmark program listed in $list")
if ((${#skipped[@]})); then
  echo "${#skipped[@]} cases skipped for want of a display or an optional input:"
  printf '  %s\n' "${skipped[@]}"
fi
if ((${#failed[@]})); then
  echo "${#failed[@]} failed:"
  printf '  %s\n' "${failed[@]}"
  exit 1
fi
