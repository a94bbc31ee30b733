"""python3 -m lumo.batch on video files: split at keyframes, segments on real Dask workers running the real
lumo-beautify, joined by FFmpeg; checked against the single-machine tool with ffprobe and decoded frames."""

import contextlib
import glob
import json
import logging
import os
import signal
import subprocess
import sys
import time

import numpy as np
import pytest
from distributed import Client, LocalCluster

WIDTH, HEIGHT, RATE = 160, 120, 25
SETTINGS = ["--engine", "cpu", "--mask", "polish,whiten", "--preset", "4"]


def clip(path, seconds, audio="aac"):
    """A moving test picture with keyframes every second and a tone. Blurred: VP9's noise between two encodes
    of sharp 160 x 120 detail alone is near 40 dB, and the comparison is about frames, not the encoder."""
    video = ["-c:v", "libx264", "-pix_fmt", "yuv420p", "-sc_threshold", "0"] if audio == "aac" else \
        ["-c:v", "libvpx-vp9", "-deadline", "realtime", "-cpu-used", "8"]
    subprocess.run(["ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                    "testsrc2=size={}x{}:rate={}".format(WIDTH, HEIGHT, RATE), "-f", "lavfi", "-i",
                    "sine=frequency=440:sample_rate=48000", "-t", str(seconds), "-vf", "gblur=sigma=4",
                    "-g", str(RATE), "-keyint_min", str(RATE)] + video + ["-c:a", "aac" if audio == "aac" else "libopus",
                                                                          str(path)], check=True)
    return path


def batch(*arguments, timeout=300):
    return subprocess.run([sys.executable, "-m", "lumo.batch"] + [str(a) for a in arguments],
                          capture_output=True, text=True, timeout=timeout)


def probe(path, stream, entries):
    done = subprocess.run(["ffprobe", "-v", "error", "-select_streams", stream, "-count_frames", "-show_entries",
                           entries, "-of", "json", str(path)], capture_output=True, text=True, check=True)
    return json.loads(done.stdout)


def frame_times(path):
    """Every video frame's presentation time in seconds, in order."""
    packets = probe(path, "v:0", "packet=pts_time")["packets"]
    return sorted(round(float(packet["pts_time"]), 6) for packet in packets)


def decoded_frames(path):
    return int(probe(path, "v:0", "stream=nb_read_frames")["streams"][0]["nb_read_frames"])


def audio(path):
    """(samples decoded, end of the last packet in seconds) of the first audio stream."""
    pcm = subprocess.run(["ffmpeg", "-v", "error", "-i", str(path), "-map", "0:a:0", "-f", "s16le", "-ac", "1", "-"],
                         capture_output=True, check=True).stdout
    packets = probe(path, "a:0", "packet=pts_time,duration_time")["packets"]
    return len(pcm) // 2, max(float(p["pts_time"]) + float(p["duration_time"]) for p in packets)


def luma(path):
    raw = subprocess.run(["ffmpeg", "-v", "error", "-i", str(path), "-map", "0:v:0", "-f", "rawvideo", "-pix_fmt",
                          "gray", "-vsync", "passthrough", "-"], capture_output=True, check=True).stdout
    return np.frombuffer(raw, np.uint8).reshape(-1, HEIGHT, WIDTH).astype(np.float64)


def psnr(first, second):
    mse = ((first - second) ** 2).mean(axis=(1, 2))
    return 10 * np.log10(255.0 ** 2 / np.maximum(mse, 1e-10))


def hidden(folder):
    return [name for name in os.listdir(folder) if name.startswith(".")]


def finished_segments(out, name):
    return [path for path in glob.glob(str(out / ".{}.lumo-work-*".format(name) / "beautified-*"))
            if ".lumo-tmp-" not in path]


def test_split_across_two_workers_equals_the_single_tool(tmp_path, tool):
    source = tmp_path / "in"
    source.mkdir()
    mp4 = clip(source / "talk.mp4", 10)
    webm = clip(source / "talk2.webm", 10, audio="opus")
    broken = source / "cut.webm"
    broken.write_bytes(webm.read_bytes()[:webm.stat().st_size // 2])
    out = tmp_path / "out"
    run = batch(source, "-o", out, "--workers", 2, "--segment-seconds", 2, "--crf", 18, "--tool", tool, *SETTINGS)
    assert run.returncode == 1, run.stderr  # the cut file, and only it
    assert "cut.webm: " in run.stderr and "cut short" in run.stderr, run.stderr
    assert "beautified 2 files (1 failed, 0 skipped)" in run.stderr, run.stderr
    assert not (out / "cut.webm").exists()
    assert sorted(os.listdir(out)) == ["talk.mp4", "talk2.webm"]  # no work folder or temporary left

    for name, crf in (("talk.mp4", "18"), ("talk2.webm", "18")):
        assert "wrote {}: 250 frames in 5 segments (0 reused)".format(out / name) in run.stderr, run.stderr
        single = tmp_path / ("single-" + name)
        subprocess.run([tool, str(source / name), "-o", str(single), "--crf", crf] + SETTINGS, check=True,
                       capture_output=True)
        joined = out / name
        assert decoded_frames(joined) == decoded_frames(source / name) == 250
        assert frame_times(joined) == frame_times(single)  # rate, timestamps and duration
        samples, end = audio(joined)
        assert (samples, end) == audio(source / name)  # the source's audio, packet for packet
        quality = psnr(luma(joined), luma(single))
        assert quality.min() >= 40, (name, quality.min(), int(quality.argmin()))


@pytest.fixture
def cluster():
    with LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None,
                      silence_logs=logging.ERROR) as local:
        with Client(local) as client:
            yield local, client


def wait_for_a_segment(out, name, running, count=1):
    deadline = time.monotonic() + 120
    while len(finished_segments(out, name)) < count:
        assert running.poll() is None and time.monotonic() < deadline, "no segment finished"
        time.sleep(0.02)


def test_a_worker_killed_mid_segment(tmp_path, tool, cluster):
    local, client = cluster
    source = clip(tmp_path / "long.mp4", 20)
    out = tmp_path / "out"
    running = subprocess.Popen([sys.executable, "-m", "lumo.batch", str(source), "-o", str(out), "--scheduler",
                                local.scheduler_address, "--segment-seconds", "1", "--tool", tool] + SETTINGS,
                               stderr=subprocess.PIPE, text=True)
    try:
        wait_for_a_segment(out, "long.mp4", running)
        victim = next(iter(client.run(os.getpid).values()))
        os.kill(victim, signal.SIGKILL)
        killed_before_the_end = not (out / "long.mp4").exists()
        _, stderr = running.communicate(timeout=300)
    finally:
        running.kill()
    assert killed_before_the_end
    assert running.returncode == 0, stderr
    assert "long.mp4: 500 frames in 20 segments" in stderr
    assert decoded_frames(out / "long.mp4") == 500
    assert frame_times(out / "long.mp4") == frame_times(source)
    assert hidden(out) == []


def test_ctrl_c_then_a_rerun_redoes_only_missing_segments(tmp_path, tool):
    source = clip(tmp_path / "long.mp4", 20)
    out = tmp_path / "out"
    arguments = [sys.executable, "-m", "lumo.batch", str(source), "-o", str(out), "--workers", "2",
                 "--segment-seconds", "1", "--tool", tool] + SETTINGS
    running = subprocess.Popen(arguments, stderr=subprocess.PIPE, text=True)
    try:
        wait_for_a_segment(out, "long.mp4", running, count=2)
        running.send_signal(signal.SIGINT)
        _, stderr = running.communicate(timeout=120)
    finally:
        running.kill()
    assert running.returncode == 130, stderr
    assert "Traceback" not in stderr
    assert not (out / "long.mp4").exists()
    kept = len(finished_segments(out, "long.mp4"))
    assert 2 <= kept < 20, stderr
    again = subprocess.run(arguments, capture_output=True, text=True, timeout=300)
    assert again.returncode == 0, again.stderr
    assert "long.mp4: 500 frames in 20 segments ({} reused)".format(kept) in again.stderr, again.stderr
    assert "{} segments reused".format(kept) in again.stderr
    assert decoded_frames(out / "long.mp4") == 500
    assert frame_times(out / "long.mp4") == frame_times(source)
    assert hidden(out) == []


def test_refusals(tmp_path, tool):
    source = clip(tmp_path / "a.mp4", 1)
    before = source.read_bytes()
    run = batch(source, "-o", tmp_path, "--workers", 0, "--tool", tool)
    assert run.returncode == 1 and "a.mp4: refusing to overwrite the input" in run.stderr
    assert source.read_bytes() == before
    # An AVI becomes an MP4 beside it; the name taken by an input is refused, never written over.
    (tmp_path / "b.avi").write_bytes(b"RIFF")
    (tmp_path / "out").mkdir()
    taken = tmp_path / "out" / "b.mp4"
    taken.write_bytes(b"someone's file")
    run = batch(tmp_path / "b.avi", taken, "-o", tmp_path / "out", "--workers", 0, "--tool", tool)
    assert run.returncode == 1 and "b.avi: refusing to overwrite the input" in run.stderr, run.stderr
    assert taken.read_bytes() == b"someone's file"
    bad = batch(source, "-o", tmp_path / "x", "--segment-seconds", 0)
    assert bad.returncode == 2 and "--segment-seconds wants a number of seconds above 0" in bad.stderr
    missing = batch(source, "-o", tmp_path / "y", "--tool", tmp_path / "no-such-tool", "--workers", 0)
    assert missing.returncode == 1 and "no-such-tool" in missing.stderr, missing.stderr
    assert not (tmp_path / "y" / "a.mp4").exists() and hidden(tmp_path / "y") == []


def test_a_phone_clip_rotated_by_its_tag_comes_out_as_the_single_tool_writes_it(tmp_path, tool):
    """The rotation tag travels with the split segments (stream copy keeps it), so every segment is turned
    upright by the tool, as the single run turns the whole clip."""
    plain = clip(tmp_path / "plain.mp4", 4)
    source = tmp_path / "in"
    source.mkdir()
    phone = source / "phone.mp4"
    subprocess.run(["ffmpeg", "-v", "error", "-y", "-i", str(plain), "-c", "copy", "-metadata:s:v:0", "rotate=90",
                    str(phone)], check=True)
    out = tmp_path / "out"
    run = batch(phone, "-o", out, "--workers", 2, "--segment-seconds", 1, "--tool", tool, *SETTINGS)
    assert run.returncode == 0, run.stderr
    assert "100 frames in 4 segments" in run.stderr, run.stderr
    single = tmp_path / "single.mp4"
    subprocess.run([tool, str(phone), "-o", str(single)] + SETTINGS, check=True, capture_output=True)

    def shape(path):
        stream = probe(path, "v:0", "stream=width,height:stream_side_data")["streams"][0]
        return stream["width"], stream["height"], stream.get("side_data_list", [])

    joined = out / "phone.mp4"
    assert shape(phone)[:2] == (WIDTH, HEIGHT) and shape(phone)[2], "the source carries no rotation"
    assert shape(joined) == shape(single) == (HEIGHT, WIDTH, [])  # upright, with no tag left to apply twice
    assert frame_times(joined) == frame_times(single)
    raw = [subprocess.run(["ffmpeg", "-v", "error", "-i", str(path), "-f", "rawvideo", "-pix_fmt", "gray", "-"],
                          capture_output=True, check=True).stdout for path in (joined, single)]
    frames = [np.frombuffer(r, np.uint8).reshape(-1, WIDTH, HEIGHT).astype(np.float64) for r in raw]
    assert len(frames[0]) == len(frames[1]) == 100
    assert psnr(frames[0], frames[1]).min() >= 40
