#!/usr/bin/env python3
"""lumo.Beautifier.process against the C++ host loop, per frame, on the same frames.

The C++ side is lumo-beautify --raw, which times each frame's wrap (createWithBytes), render and copy out
(copyPixelsOut) and prints the mean; the Python side times process(frame, out) the same way. Rounds
alternate between the two so that drift of the machine falls on both.

    PYTHONPATH=build/release/python GALLIUM_OVERRIDE_CPU_CAPS=sse4.1 \\
      python3 bench/python_overhead.py build/release/tools/lumo-beautify [--engine cpu] [--rounds 7]
"""

import argparse
import os
import re
import statistics
import subprocess
import sys
import tempfile
import time

import cv2
import numpy as np

import lumo

HERE = os.path.dirname(os.path.abspath(__file__))
SAMPLE = os.path.join(HERE, "..", "assets", "astronaut.png")


def tool_mean_ms(tool, raw, width, height, engine):
    run = subprocess.run([tool, "--raw", "{}x{}".format(width, height), raw, "-o", os.devnull, "--engine", engine],
                         capture_output=True, text=True, check=True)
    return float(re.search(r"mean ([0-9.]+) ms", run.stderr).group(1))


def python_mean_ms(beautifier, frame, out, frames):
    beautifier.process(frame, out)  # as the tool's first frame, this one sizes the engine's buffers
    times = []
    for _ in range(frames - 1):
        start = time.perf_counter()
        beautifier.process(frame, out)
        times.append(time.perf_counter() - start)
    return 1000 * statistics.mean(times)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("tool", help="the lumo-beautify binary")
    parser.add_argument("--engine", default="cpu", choices=("cpu", "gl"))
    parser.add_argument("--size", default="1280x720")
    parser.add_argument("--frames", type=int, default=60, help="frames per round")
    parser.add_argument("--rounds", type=int, default=7)
    options = parser.parse_args()
    width, height = map(int, options.size.split("x"))

    bgr = cv2.resize(cv2.imread(SAMPLE), (width, height), interpolation=cv2.INTER_AREA)
    bgra = cv2.cvtColor(bgr, cv2.COLOR_BGR2BGRA)
    with tempfile.NamedTemporaryFile(suffix=".bgra") as raw:
        raw.write(bgra.tobytes() * options.frames)
        raw.flush()
        beautifier = lumo.Beautifier(engine=options.engine)
        out_bgra, out_bgr = np.empty_like(bgra), np.empty_like(bgr)
        cpp, py_bgra, py_bgr = [], [], []
        for round_ in range(options.rounds):
            # The order flips every round, so neither side always runs on a warmer machine.
            steps = [lambda: cpp.append(tool_mean_ms(options.tool, raw.name, width, height, options.engine)),
                     lambda: py_bgra.append(python_mean_ms(beautifier, bgra, out_bgra, options.frames))]
            for step in steps if round_ % 2 == 0 else reversed(steps):
                step()
            py_bgr.append(python_mean_ms(beautifier, bgr, out_bgr, options.frames))
            print("round {}: C++ {:.2f} ms, Python BGRA {:.2f} ms, Python BGR {:.2f} ms".format(
                round_ + 1, cpp[-1], py_bgra[-1], py_bgr[-1]), file=sys.stderr)

    cpp_ms, bgra_ms, bgr_ms = statistics.median(cpp), statistics.median(py_bgra), statistics.median(py_bgr)
    print("{} {}x{}, {} engine, medians of {} rounds of {} frames".format(
        lumo.__version__, width, height, beautifier.engine, options.rounds, options.frames))
    print("| path | ms per frame | against C++ |")
    print("|---|---:|---:|")
    print("| C++ host loop (lumo-beautify --raw) | {:.2f} | |".format(cpp_ms))
    print("| Python process(), BGRA | {:.2f} | {:+.1f} % |".format(bgra_ms, 100 * (bgra_ms / cpp_ms - 1)))
    print("| Python process(), BGR | {:.2f} | {:+.1f} % |".format(bgr_ms, 100 * (bgr_ms / cpp_ms - 1)))


if __name__ == "__main__":
    main()
