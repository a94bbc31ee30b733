"""python3 -m lumo.batch end to end: real files, real Dask LocalClusters, real worker processes."""

import contextlib
import logging
import os
import signal
import struct
import subprocess
import sys
import time
import zlib

import cv2
import numpy as np
import pytest
from distributed import Client, LocalCluster

import lumo
from conftest import portrait

SETTINGS = ["--engine", "cpu", "--mask", "polish,whiten,sharpen", "--sharpen", "0.6", "--preset", "4"]
KWARGS = {"engine": "cpu", "mask": "polish,whiten,sharpen", "sharpen": 0.6, "preset": 4}


def batch(*arguments, timeout=300):
    return subprocess.run([sys.executable, "-m", "lumo.batch"] + [str(a) for a in arguments],
                          capture_output=True, text=True, timeout=timeout)


def photos(folder, sample, count, size):
    """`count` distinct portraits, PNG and JPEG."""
    folder.mkdir()
    paths = []
    for index in range(count):
        path = folder / "p{:02d}.{}".format(index, "jpg" if index % 3 == 2 else "png")
        assert cv2.imwrite(str(path), portrait(sample, size[0], size[1], index))
        paths.append(path)
    return paths


def expected_output(source, target):
    """What the batch must write: the input beautified in this process, encoded as the output's type."""
    want = lumo.Beautifier(**KWARGS).process(cv2.imread(str(source)))
    if str(target).endswith(".png"):
        return want  # lossless
    return cv2.imdecode(cv2.imencode(".jpg", want)[1], cv2.IMREAD_COLOR)


def leftovers(folder):
    return [name for name in os.listdir(folder) if name.startswith(".")]


def wait_for_an_output(out, running):
    deadline = time.monotonic() + 120
    while not (out.exists() and any(name.endswith((".png", ".jpg")) for name in os.listdir(out))):
        assert running.poll() is None and time.monotonic() < deadline, "the batch wrote nothing"
        time.sleep(0.02)


def test_two_workers_equal_one_process_and_reruns_skip(tmp_path, sample_bgr):
    inputs = photos(tmp_path / "in", sample_bgr, 6, (320, 240))
    broken = tmp_path / "in" / "broken.png"
    broken.write_bytes(b"\x89PNG\r\n\x1a\n not really")
    one, two = tmp_path / "one", tmp_path / "two"

    single = batch(tmp_path / "in", "-o", one, "--workers", 0, *SETTINGS)
    cluster = batch(tmp_path / "in", "-o", two, "--workers", 2, *SETTINGS)
    for run in (single, cluster):
        assert run.returncode == 1, run.stderr  # the broken file, and only it
        assert "broken.png" in run.stderr
        assert "beautified 6 files (1 failed, 0 skipped)" in run.stderr
        assert "frames/s" in run.stderr
    for source in inputs:
        first = cv2.imread(str(one / source.name), cv2.IMREAD_UNCHANGED)
        second = cv2.imread(str(two / source.name), cv2.IMREAD_UNCHANGED)
        np.testing.assert_array_equal(first, second)
        np.testing.assert_array_equal(first, expected_output(source, one / source.name))
    assert not (two / "broken.png").exists()
    assert leftovers(two) == []

    # A rerun skips what is done and tries the failed file again.
    stamps = {p.name: os.stat(two / p.name).st_mtime_ns for p in inputs}
    again = batch(tmp_path / "in", "-o", two, "--workers", 2, *SETTINGS)
    assert "beautified 0 files (1 failed, 6 skipped)" in again.stderr, again.stderr
    assert stamps == {p.name: os.stat(two / p.name).st_mtime_ns for p in inputs}
    # An input edited after its output is done again.
    os.utime(inputs[0], ns=(stamps[inputs[0].name] + 10**9,) * 2)
    broken.unlink()
    again = batch(tmp_path / "in", "-o", two, "--workers", 0, *SETTINGS)
    assert again.returncode == 0, again.stderr
    assert "beautified 1 files (0 failed, 5 skipped)" in again.stderr, again.stderr


def test_inputs_are_never_overwritten(tmp_path, sample_bgr):
    inputs = photos(tmp_path / "in", sample_bgr, 2, (64, 48))
    before = [p.read_bytes() for p in inputs]
    run = batch(*inputs, "-o", tmp_path / "in", "--workers", 0)
    assert run.returncode == 1 and run.stderr.count("refusing to overwrite the input") == 2
    assert [p.read_bytes() for p in inputs] == before
    bad = batch(inputs[0], "-o", tmp_path / "out", "--whiten", "2")
    assert bad.returncode == 2 and "whiten wants a number in 0..1" in bad.stderr


def png_chunk(kind, data):
    return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))


def test_limits_are_checked_before_decoding(tmp_path, sample_bgr):
    inputs = photos(tmp_path / "in", sample_bgr, 1, (64, 48))
    assert cv2.imwrite(str(tmp_path / "in" / "wide.png"), np.zeros((64, 20000, 3), np.uint8))
    # A header claiming a frame of 768 MB over no pixel data: refused by its size, never allocated.
    header = struct.pack(">IIBBBBB", 16384, 16384, 8, 2, 0, 0, 0)
    (tmp_path / "in" / "forged.png").write_bytes(b"\x89PNG\r\n\x1a\n" + png_chunk(b"IHDR", header)
                                                 + png_chunk(b"IEND", b""))
    with open(tmp_path / "in" / "huge.png", "wb") as huge:
        huge.write(inputs[0].read_bytes())
        huge.truncate((256 << 20) + 1)  # sparse: no disk used
    out = tmp_path / "out"
    run = batch(tmp_path / "in", "-o", out, "--workers", 0, *SETTINGS)
    assert run.returncode == 1, run.stderr
    assert "wide.png: ValueError: a 20000 x 64 frame is above the limit (16384 a side" in run.stderr
    assert "forged.png: ValueError: a 16384 x 16384 frame is above the limit" in run.stderr
    assert "huge.png: ValueError: image files above 256 MiB are refused" in run.stderr
    assert "beautified 1 files (3 failed, 0 skipped)" in run.stderr
    done = out / inputs[0].name
    assert os.listdir(out) == [done.name]
    np.testing.assert_array_equal(cv2.imread(str(done)), expected_output(inputs[0], done))


def test_exif_orientation_is_applied(tmp_path, sample_bgr):
    """A phone photo stored sideways with EXIF Orientation 6 (turn 90 degrees clockwise to display)."""
    picture = portrait(sample_bgr, 64, 48)
    jpeg = cv2.imencode(".jpg", picture, [cv2.IMWRITE_JPEG_QUALITY, 95])[1].tobytes()
    exif = b"Exif\0\0II*\0" + struct.pack("<IHHHIHHI", 8, 1, 0x0112, 3, 1, 6, 0, 0)
    (tmp_path / "in").mkdir()
    (tmp_path / "in" / "phone.jpg").write_bytes(jpeg[:2] + b"\xff\xe1" + struct.pack(">H", len(exif) + 2) + exif
                                                + jpeg[2:])
    run = batch(tmp_path / "in", "-o", tmp_path / "out", "--workers", 0, "--mask", 0, "--preset", 0)
    assert run.returncode == 0, run.stderr
    data = (tmp_path / "out" / "phone.jpg").read_bytes()
    assert b"Exif" not in data  # nothing that would turn it again
    written = cv2.imdecode(np.frombuffer(data, np.uint8), cv2.IMREAD_UNCHANGED)
    assert written.shape == (64, 48, 3)
    assert np.abs(written.astype(int) - np.rot90(picture, -1)).mean() < 10  # upright, within JPEG noise


def test_an_unreachable_or_malformed_scheduler(tmp_path, sample_bgr):
    photos(tmp_path / "in", sample_bgr, 1, (64, 48))
    # A refused connection may surface as Dask's own timeout on a loaded machine: either names the cause.
    for address, causes in (("tcp://127.0.0.1:1", ("Connection refused", "Timed out")),
                            ("tcp//nowhere", ("missing port number",))):
        run = batch(tmp_path / "in", "-o", tmp_path / "out", "--scheduler", address, "--connect-timeout", 2)
        assert run.returncode == 1
        prefix = "lumo.batch: cannot reach the scheduler at {}: ".format(address)
        assert run.stderr.startswith(prefix) and run.stderr[len(prefix):].startswith(causes), run.stderr
        assert run.stderr.count("\n") == 1, run.stderr
        assert os.listdir(tmp_path / "out") == []


@pytest.mark.parametrize("presses", [1, 2])
def test_ctrl_c_counts_every_written_file(tmp_path, sample_bgr, presses):
    """Ctrl-C at a terminal signals the whole process group: the batch and its local cluster's workers. A
    second one during the shutdown kills the workers."""
    photos(tmp_path / "in", sample_bgr, 30, (640, 480))
    out = tmp_path / "out"
    running = subprocess.Popen([sys.executable, "-m", "lumo.batch", str(tmp_path / "in"), "-o", str(out),
                                "--workers", "2"] + SETTINGS, stderr=subprocess.PIPE, text=True, start_new_session=True)
    try:
        wait_for_an_output(out, running)
        for _ in range(presses):
            os.killpg(running.pid, signal.SIGINT)
            time.sleep(0.05)
        _, stderr = running.communicate(timeout=120)
    finally:
        with contextlib.suppress(ProcessLookupError):
            os.killpg(running.pid, signal.SIGKILL)
    assert running.returncode == 130, stderr
    assert "Traceback" not in stderr
    written = [name for name in os.listdir(out) if not name.startswith(".")]
    assert all(cv2.imread(str(out / name)) is not None for name in written)
    assert "beautified {} files (0 failed".format(len(written)) in stderr, (written, stderr)
    assert leftovers(out) == []


@pytest.fixture
def cluster():
    with LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None,
                      silence_logs=logging.ERROR) as local:
        with Client(local) as client:
            yield local, client


def test_a_worker_killed_mid_batch(tmp_path, sample_bgr, cluster):
    local, client = cluster
    inputs = photos(tmp_path / "in", sample_bgr, 24, (1280, 720))
    out = tmp_path / "out"
    running = subprocess.Popen([sys.executable, "-m", "lumo.batch", str(tmp_path / "in"), "-o", str(out),
                                "--scheduler", local.scheduler_address] + SETTINGS,
                               stderr=subprocess.PIPE, text=True)
    try:
        wait_for_an_output(out, running)
        victim = next(iter(client.run(os.getpid).values()))
        os.kill(victim, signal.SIGKILL)
        done_at_kill = sum(name.endswith((".png", ".jpg")) for name in os.listdir(out))
        _, stderr = running.communicate(timeout=300)
    finally:
        running.kill()
    assert done_at_kill < len(inputs), "the batch ended before the worker was killed"
    assert running.returncode == 0, stderr
    assert "beautified 24 files (0 failed, 0 skipped)" in stderr
    for source in inputs:
        written = cv2.imread(str(out / source.name), cv2.IMREAD_UNCHANGED)
        np.testing.assert_array_equal(written, expected_output(source, out / source.name))
    assert leftovers(out) == []


def settings_cases():
    """The rows of the settings table every front end's suite reads: (setting, text, value or '! message')."""
    with open(os.environ["LUMO_SETTINGS_CASES"], encoding="utf-8") as table:
        rows = [line.rstrip("\n").split("\t") for line in table if line.strip() and not line.startswith("#")]
    assert len(rows) > 20
    return rows


def test_settings_text_reads_as_everywhere(capsys):
    """The package and lumo.batch read the settings' text with the library's parsers: one value or message."""
    import lumo.batch
    for setting, text, expected in settings_cases():
        name = setting.replace("-", "_")
        if expected.startswith("!"):
            message = name + " " + expected[2:]
            with pytest.raises(ValueError) as refused:
                lumo.check_settings(**{name: text})
            assert str(refused.value) == message
            with pytest.raises(SystemExit) as stopped:
                lumo.batch.main(["in.png", "-o", "out", "--" + setting, text])
            assert stopped.value.code == 2
            assert message in capsys.readouterr().err
        else:
            assert lumo.check_settings(**{name: text})[name] == pytest.approx(float(expected), rel=1e-6), (setting, text)
