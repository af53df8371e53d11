#!/usr/bin/env python3
"""Speed table of the benchmarks: each figure beside its floor (memcpy of the same bytes in the
same program and run) and its target.

Reads the JSON files Google Benchmark writes (--benchmark_out=FILE --benchmark_out_format=json),
named <program>.json, from the folder given. With repetitions the median of each case is used.
Usage: bench/table.py <folder with the JSON files>
Exit status 0 when the table was printed (rows that were not run say so), 2 on bad usage.
"""
import json
import os
import sys

# measure, program, case, floor case, target: ("ratio", x) is at most x times the floor,
# ("ms", x) at most x milliseconds.
ROWS = [
    ("renderer vmKtrRT_GLStartV1 1920x1080, 320x240 map, f/1.4, no foreground", "bench_renderer",
     "BM_StartV1_1080p_Map320x240/14", "BM_MemcpyFrame1080p", ("ms", 7.0)),
    ("same with a near object (foreground layer)", "bench_renderer", "BM_StartV1_1080p_GeneratedMapNear/14",
     "BM_MemcpyFrame1080p", ("ms", 10.0)),
    ("vmKtrRT_SC_Run own cost at 1080p (recording fakes), scene unsettled", "bench_session",
     "BM_Run1080p/0/real_time", "BM_MemcpyOneFrame1080p", ("ratio", 2.0)),
    ("same, scene stable", "bench_session", "BM_Run1080p/1/real_time", "BM_MemcpyOneFrame1080p", ("ratio", 1.6)),
    ("16-bit quarter turn of a 320x240 depth map, clockwise", "bench_image", "BM_DepthTurn320x240/0",
     "BM_Memcpy320x240x2", ("ratio", 3.0)),
    ("same, counter-clockwise", "bench_image", "BM_DepthTurn320x240/1", "BM_Memcpy320x240x2", ("ratio", 3.0)),
    ("motion estimation at 1080p, unrelated frames", "bench_policy", "BM_MotionEstimation1080p/1",
     "BM_MemcpyFrame1080p", ("ratio", 1.0)),
    # Its floor is a peer, not memcpy: OpenCV's StereoSGBM on the same pair (make bench-deps).
    ("stereo depth, standard mode, 320x240x64 (ratio to StereoSGBM, not memcpy)", "bench_depth_engines",
     "BM_Dpx2_Run_Express/1", "BM_OpenCV_StereoSGBM", ("ratio", 0.5)),
]

# The host runner's wall clock on make demo's run, written by bench/run.sh as the frames per
# second of the whole run from the runner's timing report (one number in host_demo.txt).
DEMO_ROW = ("make demo's run: 60 frames at 1080p, wall clock", "host_demo.txt", 20.0)

UNIT_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def load(folder):
    """{program: {case: [real time in ns, ...]}}, medians preferred over single runs."""
    out = {}
    for entry in sorted(os.listdir(folder)):
        if not entry.endswith(".json"):
            continue
        path = os.path.join(folder, entry)
        try:
            with open(path, encoding="utf-8") as f:
                data = json.load(f)
        except (OSError, ValueError) as e:
            print(f"bench/table.py: {path}: {e}", file=sys.stderr)
            continue
        runs, medians = {}, {}
        entries = data.get("benchmarks", []) if isinstance(data, dict) else []
        for b in entries if isinstance(entries, list) else []:
            if not isinstance(b, dict):
                continue
            if b.get("error_occurred"):
                continue
            name = b.get("run_name", b.get("name"))
            real = b.get("real_time")
            if not isinstance(real, (int, float)) or name is None:
                continue
            ns = real * UNIT_NS.get(b.get("time_unit", "ns"), 1.0)
            if b.get("run_type") == "aggregate":
                if b.get("aggregate_name") == "median":
                    medians[name] = ns
            else:
                runs.setdefault(name, []).append(ns)
        cases = {}
        for name, times in runs.items():
            times = sorted(times)
            cases[name] = medians.get(name, times[len(times) // 2])
        out[entry[: -len(".json")]] = cases
    return out


def demo_frames_per_second(path):
    """The runner's frames per second, or None when the file is missing or holds no number."""
    try:
        with open(path, encoding="utf-8") as f:
            text = f.read(64).strip()
        fps = float(text)
    except (OSError, ValueError):
        return None
    return fps if fps == fps and 0 <= fps < 1e6 else None


def figure(ns):
    if ns >= 1e6:
        return f"{ns / 1e6:.2f} ms"
    if ns >= 1e3:
        return f"{ns / 1e3:.1f} us"
    return f"{ns:.0f} ns"


def main(argv):
    if len(argv) != 2 or not os.path.isdir(argv[1]):
        print("usage: bench/table.py <folder with the benchmark JSON files>", file=sys.stderr)
        return 2
    results = load(argv[1])
    lines = ["| measure | figure | ratio to its floor | target | met |", "|---|---|---|---|---|"]
    for measure, program, case, floor, (kind, limit) in ROWS:
        cases = results.get(program, {})
        if case not in cases or floor not in cases:
            lines.append(f"| {measure} | not run | | {'<= %g ms' % limit if kind == 'ms' else '<= %gx' % limit} | |")
            continue
        ns, floor_ns = cases[case], cases[floor]
        ratio = ns / floor_ns
        if kind == "ms":
            target, met = f"<= {limit:g} ms", ns <= limit * 1e6
        else:
            target, met = f"<= {limit:g}x", ratio <= limit
        lines.append(f"| {measure} | {figure(ns)} | {ratio:.2f}x | {target} | {'yes' if met else 'no'} |")
    measure, name, least = DEMO_ROW
    fps = demo_frames_per_second(os.path.join(argv[1], name))
    if fps is None:
        lines.append(f"| {measure} | not run | | >= {least:g} frames/s | |")
    else:
        lines.append(f"| {measure} | {fps:.1f} frames/s | | >= {least:g} frames/s | {'yes' if fps >= least else 'no'} |")
    print("\n".join(lines))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
