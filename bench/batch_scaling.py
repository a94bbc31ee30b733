#!/usr/bin/env python3
"""python3 -m lumo.batch on N workers against one process, on the same files.

Writes FILES copies of the sample portrait (resized, each shifted so that no two are alike) and times the
whole command, cluster start included, for --workers 0 (this process, no Dask) and each N asked for.
Runs alternate, REPEATS times each; the table gives the median wall time.

    PYTHONPATH=build/release/python GALLIUM_OVERRIDE_CPU_CAPS=sse4.1 \\
      python3 bench/batch_scaling.py [--files 48] [--size 1280x720] [--workers 1 2] [--repeats 3]
"""

import argparse
import os
import statistics
import subprocess
import sys
import tempfile
import time

import cv2
import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
SAMPLE = os.path.join(HERE, "..", "assets", "astronaut.png")


def run(inputs, output, workers):
    start = time.perf_counter()
    subprocess.run([sys.executable, "-m", "lumo.batch", inputs, "-o", output, "--workers", str(workers), "--force"],
                   check=True, stderr=subprocess.DEVNULL)
    return time.perf_counter() - start


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--files", type=int, default=48)
    parser.add_argument("--size", default="1280x720")
    parser.add_argument("--format", default="png", choices=("png", "jpg"))
    parser.add_argument("--workers", type=int, nargs="+", default=[1, 2])
    parser.add_argument("--repeats", type=int, default=3)
    options = parser.parse_args()
    width, height = map(int, options.size.split("x"))
    sample = cv2.resize(cv2.imread(SAMPLE), (width, height), interpolation=cv2.INTER_AREA)
    counts = [0] + options.workers
    times = {count: [] for count in counts}
    with tempfile.TemporaryDirectory() as folder:
        inputs = os.path.join(folder, "in")
        os.mkdir(inputs)
        for index in range(options.files):
            cv2.imwrite(os.path.join(inputs, "p{:03d}.{}".format(index, options.format)),
                        np.roll(sample, 11 * index, axis=1))
        for repeat in range(options.repeats):
            for count in counts if repeat % 2 == 0 else reversed(counts):
                times[count].append(run(inputs, os.path.join(folder, "out{}".format(count)), count))
                print("workers {}: {:.2f} s".format(count, times[count][-1]), file=sys.stderr)
    one = statistics.median(times[0])
    print("{} {} files of {}x{}, median of {} runs, wall time of the whole command".format(
        options.files, options.format.upper(), width, height, options.repeats))
    print("| run | seconds | files/s | against one process |")
    print("|---|---:|---:|---:|")
    for count in counts:
        seconds = statistics.median(times[count])
        name = "one process (--workers 0)" if count == 0 else "LocalCluster, --workers {}".format(count)
        print("| {} | {:.2f} | {:.1f} | {:.2f} x |".format(name, seconds, options.files / seconds, one / seconds))


if __name__ == "__main__":
    main()
