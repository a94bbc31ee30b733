#!/usr/bin/env python3
"""A long video through python3 -m lumo.batch (split at keyframes, segments on Dask, joined) against one
lumo-beautify run on the same file, and the per-segment times that predict many machines.

Makes a clip of the sample portrait drifting across the frame (H.264 + AAC, a keyframe every 2 s), then
times, REPEATS times each, alternating:
  tool      lumo-beautify clip.mp4 -o out.mp4
  batch N   python3 -m lumo.batch clip.mp4 -o DIR --workers N --segment-seconds S --force
and prints the medians. With --predict it also times the tool on one SEGMENT-seconds clip at 1920x1080
and the batch's split and join of a 1080p clip, and prints the expected wall time of a one-hour 1080p file
on 1, 4 and 16 workers (one worker per machine like this one).

    PYTHONPATH=build/release/python python3 bench/batch_video.py --tool build/release/tools/lumo-beautify \\
      [--seconds 60] [--size 1280x720] [--workers 1 2] [--segment-seconds 30] [--repeats 3] [--predict]
"""

import argparse
import math
import os
import statistics
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SAMPLE = os.path.join(HERE, "..", "assets", "astronaut.png")


def make_clip(path, seconds, size):
    width, height = size.split("x")
    # The portrait moving slowly over a grey frame, with a tone: a talking-head recording's content.
    video = (f"color=c=gray:s={size}:r=30:d={seconds}[bg];movie={SAMPLE},scale=-1:{int(height) * 3 // 4}[fg];"
             f"[bg][fg]overlay=x='(W-w)/2+(W-w)/4*sin(t/3)':y=(H-h)/2")
    subprocess.run(["ffmpeg", "-v", "error", "-y", "-filter_complex", video, "-f", "lavfi", "-i",
                    f"sine=frequency=440:duration={seconds}", "-c:v", "libx264", "-preset", "veryfast", "-g", "60",
                    "-pix_fmt", "yuv420p", "-c:a", "aac", "-shortest", path], check=True)


def timed(command, env=None):
    start = time.perf_counter()
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=env)
    return time.perf_counter() - start


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--tool", required=True)
    parser.add_argument("--seconds", type=int, default=60)
    parser.add_argument("--size", default="1280x720")
    parser.add_argument("--workers", type=int, nargs="+", default=[1, 2])
    parser.add_argument("--segment-seconds", type=float, default=30)
    parser.add_argument("--repeats", type=int, default=3)
    parser.add_argument("--predict", action="store_true")
    args = parser.parse_args()
    tool = os.path.abspath(args.tool)

    with tempfile.TemporaryDirectory(prefix="lumo-batch-video-") as folder:
        clip = os.path.join(folder, "clip.mp4")
        make_clip(clip, args.seconds, args.size)
        batch = lambda workers, clip=clip: [sys.executable, "-m", "lumo.batch", clip, "-o", os.path.join(folder, "out"),
                                            "--tool", tool, "--workers", str(workers), "--segment-seconds",
                                            str(args.segment_seconds), "--force"]
        runs = {"tool": [tool, clip, "-o", os.path.join(folder, "tool.mp4")]}
        for workers in args.workers:
            runs[f"batch {workers}"] = batch(workers)
        times = {name: [] for name in runs}
        for _ in range(args.repeats):
            for name, command in runs.items():
                target = os.path.join(folder, "tool.mp4")
                if name == "tool" and os.path.exists(target):
                    os.remove(target)
                times[name].append(timed(command))
        tool_time = statistics.median(times["tool"])
        print(f"{args.seconds} s {args.size} clip, segments of {args.segment_seconds:g} s, median of {args.repeats}")
        for name, values in times.items():
            median = statistics.median(values)
            print(f"  {name:10s} {median:7.1f} s  ({median / tool_time - 1:+.1%} against the tool)  "
                  f"runs: {', '.join(f'{v:.1f}' for v in values)}")

        if not args.predict:
            return
        # One segment's work at 1080p, and the split and join of a 1080p file (stream copy: they grow with
        # the file's bytes; measured on this clip and scaled to an hour).
        segment = os.path.join(folder, "segment.mp4")
        make_clip(segment, int(args.segment_seconds), "1920x1080")
        per_segment = statistics.median(timed([tool, segment, "-o", os.path.join(folder, f"s{i}.mp4")])
                                        for i in range(args.repeats))
        long_clip = os.path.join(folder, "long.mp4")
        make_clip(long_clip, args.seconds, "1920x1080")
        start = time.perf_counter()
        subprocess.run(batch(1, long_clip), check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        whole = time.perf_counter() - start
        # What the batch spent beyond the tool's own work: cluster start, split, join, each segment's start-up.
        tool_long = timed([tool, long_clip, "-o", os.path.join(folder, "long-tool.mp4")])
        overhead = max(0.0, whole - tool_long)
        hour_segments = math.ceil(3600 / args.segment_seconds)
        # Scaled by the hour's length, an upper bound: the cluster's start does not grow with the file.
        hour_overhead = overhead * 3600 / args.seconds
        print(f"1080p: {per_segment:.1f} s per {args.segment_seconds:g} s segment on one worker; the batch beyond "
              f"the tool on a {args.seconds} s 1080p clip: {overhead:.1f} s ({hour_overhead:.0f} s scaled to an hour)")
        print("expected wall time of one hour of 1080p (segments in waves, one worker per machine like this):")
        for workers in (1, 4, 16):
            waves = math.ceil(hour_segments / workers)
            total = waves * per_segment + hour_overhead
            print(f"  {workers:2d} workers: {waves:3d} waves of {per_segment:.0f} s + {hour_overhead:.0f} s "
                  f"-> {total / 60:.1f} min")

if __name__ == "__main__":
    main()
