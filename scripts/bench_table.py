#!/usr/bin/env python3
"""Prints lumo-bench's JSON results (scripts/bench.sh) as docs/performance.md's Markdown tables."""
import json
import sys
from collections import defaultdict


def load(path):
    results = {}
    for entry in json.load(open(path))["benchmarks"]:
        name = entry["name"].removesuffix("/real_time")
        if "ms_per_frame" in entry:
            results[name] = entry["ms_per_frame"]
    return results


def main(fp32_path, default_path):
    fp32, default = load(fp32_path), load(default_path)
    rows = defaultdict(dict)
    for name in fp32:
        parts = name.split("/")
        if parts[0] in ("render", "end_to_end", "bare_render", "bare_end_to_end", "cpu_end_to_end"):
            rows[(parts[1], parts[2])][parts[0]] = (fp32[name], default.get(name))
    print("| size | passes | GL render | GL end to end | bare chain end to end | GL end to end, default precision | CPU engine end to end | CPU fps |")
    print("|---|---|---:|---:|---:|---:|---:|---:|")
    for (size, config), columns in rows.items():
        render = columns["render"][0]
        e2e, e2e_default = columns["end_to_end"]
        bare = columns.get("bare_end_to_end", (None, None))[0]
        bare_text = f"{bare:.1f}" if bare else "-"
        cpu = columns.get("cpu_end_to_end", (None, None))[0]
        cpu_text = f"{cpu:.1f}" if cpu is not None else "-"
        fps_text = f"{1000.0 / cpu:.0f}" if cpu else "-"
        print(f"| {size} | {config} | {render:.1f} | {e2e:.1f} | {bare_text} | {e2e_default:.1f} | {cpu_text} | {fps_text} |")
    print()
    print("| size | OpenCV CPU beautify (fp32 run) | (default run) |")
    print("|---|---:|---:|")
    for name in fp32:
        if name.startswith("opencv_end_to_end/"):
            print(f"| {name.split('/')[1]} | {fp32[name]:.1f} | {default.get(name, float('nan')):.1f} |")
    print()
    print("| overhead check (interleaved, medians) | facade ms | bare chain ms | facade overhead |")
    print("|---|---:|---:|---:|")
    for path in (fp32_path,):
        for entry in json.load(open(path))["benchmarks"]:
            if entry["name"].startswith("overhead/"):
                print(f"| {entry['name'].split('/')[1]} mask 7 | {entry['facade_ms']:.1f} | {entry['bare_ms']:.1f} | {entry['overhead_pct']:+.1f} % |")
    print()
    print("| pass at 1280x720 | ms, 32-bit | ms, default precision |")
    print("|---|---:|---:|")
    for name in fp32:
        if name.startswith("pass/"):
            print(f"| {name.split('/', 2)[2]} | {fp32[name]:.1f} | {default.get(name, float('nan')):.1f} |")


if __name__ == "__main__":
    main(*(sys.argv[1:3] if len(sys.argv) > 2 else ("build/bench/results-fp32.json", "build/bench/results-default.json")))
