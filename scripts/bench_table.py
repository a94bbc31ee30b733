#!/usr/bin/env python3
"""Prints lumo-bench's JSON results (scripts/bench.sh) as the README's Markdown tables."""
import json
import sys
from collections import defaultdict


def load(path):
    results = {}
    for entry in json.load(open(path))["benchmarks"]:
        name = entry["name"].removesuffix("/real_time")
        results[name] = entry["ms_per_frame"]
    return results


def main(fp32_path, default_path):
    fp32, default = load(fp32_path), load(default_path)
    rows = defaultdict(dict)
    for name in fp32:
        parts = name.split("/")
        if parts[0] in ("render", "end_to_end", "bare_render", "bare_end_to_end"):
            rows[(parts[1], parts[2])][parts[0]] = (fp32[name], default.get(name))
    print("| size | passes | render | end to end | bare chain end to end | facade overhead | end to end, default precision |")
    print("|---|---|---:|---:|---:|---:|---:|")
    for (size, config), columns in rows.items():
        render = columns["render"][0]
        e2e, e2e_default = columns["end_to_end"]
        bare = columns.get("bare_end_to_end", (None, None))[0]
        overhead = f"{100.0 * (e2e - bare) / bare:+.1f} %" if bare else "-"
        bare_text = f"{bare:.1f}" if bare else "-"
        print(f"| {size} | {config} | {render:.1f} | {e2e:.1f} | {bare_text} | {overhead} | {e2e_default:.1f} |")
    print()
    print("| size | OpenCV CPU beautify (fp32 run) | (default run) |")
    print("|---|---:|---:|")
    for name in fp32:
        if name.startswith("opencv_end_to_end/"):
            print(f"| {name.split('/')[1]} | {fp32[name]:.1f} | {default.get(name, float('nan')):.1f} |")
    print()
    print("| pass at 1280x720 | ms, 32-bit | ms, default precision |")
    print("|---|---:|---:|")
    for name in fp32:
        if name.startswith("pass/"):
            print(f"| {name.split('/', 2)[2]} | {fp32[name]:.1f} | {default.get(name, float('nan')):.1f} |")


if __name__ == "__main__":
    main(*(sys.argv[1:3] if len(sys.argv) > 2 else ("build/bench/results-fp32.json", "build/bench/results-default.json")))
