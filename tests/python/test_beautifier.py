"""lumo.Beautifier with real engines, real OpenCV and the real lumo-beautify tool."""

import os
import re
import subprocess
import sys
import threading

import cv2
import numpy as np
import pytest

import lumo
from conftest import portrait

TOOL_CASES = [
    ("cpu", {}, []),
    ("cpu", {"mask": "polish,sharpen", "sharpen": 0.5, "preset": 7},
     ["--mask", "polish,sharpen", "--sharpen", "0.5", "--preset", "7"]),
    ("cpu", {"mask": 6, "whiten": 0.2, "skin_whiten": 0.9}, ["--mask", "6", "--whiten", "0.2", "--skin-whiten", "0.9"]),
    ("gl", {"polish_step": 2.5, "polish_factor": 8}, ["--polish-step", "2.5", "--polish-factor", "8"]),
]


@pytest.mark.parametrize("engine,settings,flags", TOOL_CASES)
def test_opencv_frames_match_the_tool(tmp_path, tool, sample_path, sample_bgr, engine, settings, flags):
    """cv2.imread -> process gives the pixels lumo-beautify writes for that file and those settings."""
    written = tmp_path / "out.png"
    subprocess.run([tool, sample_path, "-o", str(written), "--engine", engine] + flags, check=True,
                   stderr=subprocess.DEVNULL)
    beautifier = lumo.Beautifier(engine=engine, **settings)
    assert beautifier.engine == engine
    result = beautifier.process(cv2.imread(sample_path))
    expected = cv2.imread(str(written))
    assert result.shape == expected.shape and result.dtype == np.uint8
    np.testing.assert_array_equal(result, expected)
    assert not np.array_equal(result, sample_bgr)  # the settings did something


def padded(frame, extra):
    """`frame` as a view into rows `extra` pixels wider than it."""
    height, width, channels = frame.shape
    wide = np.full((height, width + extra, channels), 77, np.uint8)
    wide[:, :width] = frame
    view = wide[:, :width]
    assert not view.flags.c_contiguous and view.strides[0] == (width + extra) * channels
    return view


@pytest.mark.parametrize("size", [(512, 512), (37, 23)])  # 37: a width whose rows end between four pixels
def test_layouts_agree(sample_bgr, size):
    """BGR, BGRA, padded rows, out= and in place all give one picture."""
    beautifier = lumo.Beautifier(engine="cpu")
    bgr = portrait(sample_bgr, *size)
    bgra = cv2.cvtColor(bgr, cv2.COLOR_BGR2BGRA)
    reference = beautifier.process(bgra)
    np.testing.assert_array_equal(reference[..., 3], 255)
    np.testing.assert_array_equal(beautifier.process(bgr), reference[..., :3])
    np.testing.assert_array_equal(beautifier.process(bgra, format="bgra"), reference)

    for frame, expected in ((bgr, reference[..., :3]), (bgra, reference)):
        source = padded(frame, 5)
        before = source.base.copy()
        np.testing.assert_array_equal(beautifier.process(source), expected)
        np.testing.assert_array_equal(source.base, before)  # the input is only read

        out = padded(np.zeros_like(frame), 3)
        padding = out.base[:, frame.shape[1]:].copy()
        assert beautifier.process(source, out) is out
        np.testing.assert_array_equal(out, expected)
        np.testing.assert_array_equal(out.base[:, frame.shape[1]:], padding)  # padding untouched

        in_place = frame.copy()
        assert beautifier.process(in_place, out=in_place) is in_place
        np.testing.assert_array_equal(in_place, expected)


def test_nothing_enabled_hands_the_frame_back(sample_bgr):
    beautifier = lumo.Beautifier(engine="cpu", mask=0)
    frame = padded(sample_bgr, 4)
    result = beautifier.process(frame)
    np.testing.assert_array_equal(result, sample_bgr)
    in_place = sample_bgr.copy()
    np.testing.assert_array_equal(beautifier.process(in_place, in_place), sample_bgr)


BAD_FRAMES = [
    (np.zeros((8, 8, 3), np.float32), None, "dtype uint8, got float32"),
    (np.zeros((8, 8), np.uint8), None, "got (8, 8)"),
    (np.zeros((8, 8, 5), np.uint8), None, "got (8, 8, 5)"),
    (np.zeros((0, 8, 3), np.uint8), None, "empty"),
    (np.zeros((8, 0, 4), np.uint8), None, "empty"),
    (np.zeros((8, 16, 3), np.uint8)[:, ::2], None, "C-contiguous pixels"),
    (np.zeros((8, 8, 3), np.uint8)[::-1], None, "C-contiguous pixels"),
    (np.zeros((8, 8, 4), np.uint8)[..., :3], None, "C-contiguous pixels"),
    (np.zeros((1, 40000, 4), np.uint8), None, "a 40000 x 1 frame is above the limit (16384 a side"),
    (np.zeros((8, 8, 3), np.uint8), "bgra", "matching format bgra"),
    (np.zeros((8, 8, 4), np.uint8), "nv21", "format wants one of bgr, bgra, rgb, yuy2, uyvy, nv12, i420, i422"),
    (np.zeros((8, 7, 2), np.uint8), "yuy2", "an even width for format yuy2"),
    (np.zeros((8, 8, 2), np.uint8), None, "got (8, 8, 2)"),
    (np.zeros((9, 8), np.uint8), "i422", "(2 * H, W) with W and H even for format i422, got (9, 8)"),
    (np.zeros((12, 7), np.uint8), "nv12", "W and H even for format nv12, got (12, 7)"),
    (np.zeros((10, 8), np.uint8), "i420", "got (10, 8)"),
    (np.zeros((12, 8, 1), np.uint8), "i420", "got (12, 8, 1)"),
    (np.zeros((12, 16), np.uint8)[:, ::2], "nv12", "C-contiguous array"),
]


@pytest.mark.parametrize("frame,format,message", BAD_FRAMES)
def test_bad_frames_are_refused(frame, format, message):
    beautifier = lumo.Beautifier(engine="cpu")
    with pytest.raises(ValueError, match=re.escape(message)):
        beautifier.process(frame, format=format)


def i420_to_nv12(i420, height):
    """OpenCV's I420 array as NV12: the same luma rows, the chroma planes interleaved."""
    width = i420.shape[1]
    chroma = i420[height:].reshape(2, -1)
    nv12 = i420.copy()
    nv12[height:] = np.stack([chroma[0], chroma[1]], axis=1).reshape(-1, width)
    return nv12


@pytest.mark.parametrize("engine", ["cpu", "gl"])
def test_yuv_frames_as_opencv_holds_them(tmp_path, tool, sample_bgr, engine):
    """An I420 array from cv2.cvtColor (BT.601, limited) gives the planes lumo-beautify --raw writes for
    those bytes; NV12 gives the same planes; out= and in place work; the matrix is honoured."""
    height, width = sample_bgr.shape[:2]
    beautifier = lumo.Beautifier(engine=engine)
    i420 = cv2.cvtColor(sample_bgr, cv2.COLOR_BGR2YUV_I420)
    assert i420.shape == (height * 3 // 2, width)
    result = beautifier.process(i420, format="i420", matrix="bt601", range="limited")
    assert result.shape == i420.shape and result.dtype == np.uint8

    raw_in, raw_out = tmp_path / "in.yuv", tmp_path / "out.yuv"
    i420.tofile(raw_in)
    subprocess.run([tool, "--raw", f"{width}x{height}", "--format", "i420", "--matrix", "bt601", "--range",
                    "limited", "--engine", engine, str(raw_in), "-o", str(raw_out)], check=True,
                   stderr=subprocess.DEVNULL)
    np.testing.assert_array_equal(result, np.fromfile(raw_out, np.uint8).reshape(i420.shape))
    assert np.mean(np.abs(result.astype(int) - i420.astype(int))[:height] <= 2) < 0.9  # drawn

    nv12 = beautifier.process(i420_to_nv12(i420, height), format="nv12", matrix="bt601")
    np.testing.assert_array_equal(nv12, i420_to_nv12(result, height))
    out = np.zeros_like(i420)
    assert beautifier.process(i420, out, format="i420", matrix="bt601") is out
    np.testing.assert_array_equal(out, result)
    in_place = i420.copy()
    beautifier.process(in_place, in_place, format="i420", matrix="bt601")
    np.testing.assert_array_equal(in_place, result)
    # BT.709 reads the same samples as other colours.
    assert not np.array_equal(beautifier.process(i420, format="i420", matrix="bt709"), result)


@pytest.mark.parametrize("engine", ["cpu", "gl"])
def test_camera_frames_as_opencv_holds_them(tmp_path, tool, sample_bgr, engine):
    """YUY2 and UYVY arrays as OpenCV holds them (H x W x 2) give the bytes lumo-beautify --raw writes for
    them; I422 holding the same samples gives the same picture; RGB is BGR in the other order."""
    height, width = sample_bgr.shape[:2]
    beautifier = lumo.Beautifier(engine=engine)
    # OpenCV 4.6 reads YUY2 but does not write it: the portrait's Y, Cb and Cr, chroma averaged over pairs.
    yuv = cv2.cvtColor(sample_bgr, cv2.COLOR_BGR2YCrCb).astype(np.uint16)
    cb = ((yuv[:, 0::2, 2] + yuv[:, 1::2, 2] + 1) // 2).astype(np.uint8)
    cr = ((yuv[:, 0::2, 1] + yuv[:, 1::2, 1] + 1) // 2).astype(np.uint8)
    chroma = np.stack([cb, cr], axis=2).reshape(height, width)
    layouts = {"yuy2": np.stack([yuv[..., 0].astype(np.uint8), chroma], axis=2)}
    layouts["uyvy"] = np.ascontiguousarray(layouts["yuy2"][..., ::-1])
    results = {}
    for name, frame in layouts.items():
        result = beautifier.process(frame, format=name, matrix="bt601", range="limited")
        raw_in, raw_out = tmp_path / f"in.{name}", tmp_path / f"out.{name}"
        frame.tofile(raw_in)
        subprocess.run([tool, "--raw", f"{width}x{height}", "--format", name, "--matrix", "bt601", "--engine",
                        engine, str(raw_in), "-o", str(raw_out)], check=True, stderr=subprocess.DEVNULL)
        np.testing.assert_array_equal(result, np.fromfile(raw_out, np.uint8).reshape(frame.shape))
        assert np.mean(np.abs(result.astype(int) - frame.astype(int)) <= 2) < 0.9  # drawn
        results[name] = (frame, result)
    # UYVY is YUY2 with each byte pair swapped.
    np.testing.assert_array_equal(results["uyvy"][1], results["yuy2"][1][..., ::-1])

    def planar(packed):
        luma, chroma = packed[..., 0], packed[..., 1]
        return np.concatenate([luma, chroma[:, 0::2].reshape(height // 2, width),
                               chroma[:, 1::2].reshape(height // 2, width)])
    frame, result = results["yuy2"]
    i422 = beautifier.process(planar(frame), format="i422", matrix="bt601")
    np.testing.assert_array_equal(i422, planar(result))

    rgb = np.ascontiguousarray(sample_bgr[..., ::-1])
    np.testing.assert_array_equal(beautifier.process(rgb, format="rgb"), beautifier.process(sample_bgr)[..., ::-1])


def test_yuv_colorimetry_is_checked():
    beautifier = lumo.Beautifier(engine="cpu")
    frame = np.zeros((12, 8), np.uint8)
    with pytest.raises(ValueError, match="matrix wants 'bt601' or 'bt709', got 'bt2020'"):
        beautifier.process(frame, format="nv12", matrix="bt2020")
    with pytest.raises(ValueError, match="range wants 'limited' or 'full'"):
        beautifier.process(frame, format="nv12", range="narrow")
    with pytest.raises(ValueError, match=re.escape("matrix and range are for YUV frames (nv12, i420, i422, yuy2, uyvy), not bgr")):
        beautifier.process(np.zeros((8, 8, 3), np.uint8), matrix="bt601")


def test_bad_out_is_refused():
    beautifier = lumo.Beautifier(engine="cpu")
    frame = np.zeros((8, 8, 3), np.uint8)
    read_only = np.zeros_like(frame)
    read_only.flags.writeable = False
    wide = np.zeros((8, 12, 3), np.uint8)
    cases = [
        (np.zeros((8, 9, 3), np.uint8), r"frame's shape \(8, 8, 3\), got \(8, 9, 3\)"),
        (np.zeros((8, 8, 4), np.uint8), "frame's shape"),
        (np.zeros((8, 8, 3), np.int16), "out wants dtype uint8"),
        (read_only, "read-only"),
        (wide[:, 1:9], None),  # a padded out is fine
    ]
    for out, message in cases:
        if message is None:
            beautifier.process(frame, out)
        else:
            with pytest.raises(ValueError, match=message):
                beautifier.process(frame, out)
    shared = np.zeros((8, 12, 3), np.uint8)
    with pytest.raises(ValueError, match="overlaps"):
        beautifier.process(shared[:, :8], shared[:, 2:10])
    with pytest.raises(TypeError):
        beautifier.process(frame, out=[1, 2, 3])


def test_settings_are_checked():
    for settings, message in [
        ({"polish_step": 16.5}, r"polish_step wants a number in 0\.\.16, got 16\.5"),
        ({"polish_factor": -1}, r"polish_factor wants a number in 0\.\.64"),
        ({"whiten": float("nan")}, r"whiten wants a number in 0\.\.1, got nan"),
        ({"sharpen": 5}, r"sharpen wants a number in -1\.\.4"),
        ({"skin_whiten": "half"}, r"skin_whiten wants a number in 0\.\.1, got 'half'"),
        ({"whiten": True}, r"whiten wants a number in 0\.\.1, got True"),
        ({"mask": 16}, r"mask wants a whole number in 0\.\.15"),
        ({"mask": 2**70}, r"mask wants a whole number in 0\.\.15"),
        ({"mask": "polish,blur"}, r"unknown pass 'blur'"),
        ({"preset": 14}, r"preset wants a whole number in 0\.\.13"),
        ({"engine": "vulkan"}, r"engine wants one of auto, gl, cpu"),
    ]:
        with pytest.raises(ValueError, match=message):
            lumo.Beautifier(**settings)
    beautifier = lumo.Beautifier(engine="cpu")
    with pytest.raises(ValueError, match=r"whiten wants a number in 0\.\.1"):
        beautifier.whiten = 1.5
    assert beautifier.whiten == 0.5  # a refused value changes nothing
    assert lumo.check_settings(mask="polish+sharpen", sharpen=1)["mask"] == 9
    # NumPy's scalars are numbers, and text is read as the tool reads its options.
    beautifier.whiten = np.float32(0.25)
    beautifier.preset = np.int64(3)
    beautifier.mask = "010"
    assert (beautifier.whiten, beautifier.preset, beautifier.mask) == (0.25, 3, 10)
    beautifier.polish_step = "2.5"
    assert beautifier.polish_step == 2.5
    beautifier.faces = np.bool_(True)
    assert beautifier.faces == "video"
    with pytest.raises(ValueError, match=r"faces wants False, True"):
        beautifier.faces = np.array([True, False])


def test_yuv_frames_of_any_even_height(sample_bgr):
    """H * 3 / 2 rows is odd for H = 6, 18, 90: such frames are as valid as any other even height."""
    beautifier = lumo.Beautifier(engine="cpu")
    for height in (6, 18, 90):
        frame = np.full((height * 3 // 2, 16), 128, np.uint8)
        frame[:height] = 180
        for format in ("nv12", "i420"):
            out = beautifier.process(frame, format=format)
            assert out.shape == frame.shape
            assert not np.array_equal(out[:height], frame[:height]), "whiten changes the luma"


def test_settings_change_between_frames(sample_bgr):
    """Each attribute written between two frames takes effect at the next, as a new Beautifier would draw."""
    frame = portrait(sample_bgr, 320, 240)
    beautifier = lumo.Beautifier(engine="cpu")
    first = beautifier.process(frame)
    changes = [("whiten", 0.9), ("skin_whiten", 0.1), ("polish_step", 5.0), ("polish_factor", 20.0),
               ("mask", "polish,sharpen"), ("sharpen", 1.5), ("preset", 5), ("mask", 15)]
    wanted = {}
    previous = first
    for name, value in changes:
        setattr(beautifier, name, value)
        wanted[name] = value
        result = beautifier.process(frame)
        np.testing.assert_array_equal(result, lumo.Beautifier(engine="cpu", **wanted).process(frame))
        assert not np.array_equal(result, previous), name
        previous = result
    assert (beautifier.mask, beautifier.preset, beautifier.sharpen) == (15, 5, 1.5)
    beautifier.mask, beautifier.preset = 0, 0
    np.testing.assert_array_equal(beautifier.process(frame), frame)


def test_threads_with_their_own_beautifier(sample_bgr):
    frames = [portrait(sample_bgr, 256, 192, seed) for seed in range(4)]
    settings = [{"mask": 7}, {"mask": 9, "sharpen": 0.8, "preset": 3}]
    expected = [[lumo.Beautifier(engine="cpu", **s).process(f) for f in frames] for s in settings]
    failures = []

    def work(index):
        beautifier = lumo.Beautifier(engine="cpu", **settings[index])
        for _ in range(5):
            for frame, want in zip(frames, expected[index]):
                if not np.array_equal(beautifier.process(frame), want):
                    failures.append(index)

    threads = [threading.Thread(target=work, args=(i,)) for i in range(2)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert failures == []

    # One Beautifier shared by two threads: frames are serialised, each still whole.
    shared = lumo.Beautifier(engine="cpu", **settings[0])

    def share():
        for _ in range(5):
            for frame, want in zip(frames, expected[0]):
                if not np.array_equal(shared.process(frame), want):
                    failures.append("shared")

    threads = [threading.Thread(target=share) for _ in range(2)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert failures == []


def test_the_gil_is_released_while_a_frame_is_drawn(sample_bgr):
    frame = portrait(sample_bgr, 1280, 720)
    beautifier = lumo.Beautifier(engine="gl")  # llvmpipe: a frame of this size takes a good part of a second
    beautifier.process(frame)
    counter = [0]
    stop = threading.Event()

    def count():
        while not stop.is_set():
            counter[0] += 1

    thread = threading.Thread(target=count)
    thread.start()
    try:
        before = counter[0]
        beautifier.process(frame)
        during = counter[0] - before
    finally:
        stop.set()
        thread.join()
    assert during > 10000, "the counting thread barely ran while the frame was drawn"


def test_engine_that_cannot_be_made(tmp_path):
    """Where EGL finds no driver: gl raises RuntimeError with the library's reason, auto runs on the CPU."""
    script = (
        "import lumo\n"
        "try:\n"
        "    lumo.Beautifier(engine='gl')\n"
        "except RuntimeError as error:\n"
        "    print('refused:', error)\n"
        "print('auto:', lumo.Beautifier().engine)\n")
    environment = dict(os.environ, __EGL_VENDOR_LIBRARY_FILENAMES=str(tmp_path / "none.json"))
    run = subprocess.run([sys.executable, "-c", script], env=environment, capture_output=True, text=True, check=True)
    lines = run.stdout.splitlines()
    assert lines[0].startswith("refused: no gl engine: ") and len(lines[0]) > len("refused: no gl engine: ")
    assert lines[1] == "auto: cpu"


def test_a_frame_the_gl_engine_cannot_draw_goes_to_the_cpu_engine():
    frame = np.array([[[40, 90, 200]]], np.uint8)  # a first frame of 1 x 1, which the GL facade hands back
    with pytest.warns(RuntimeWarning, match="CPU engine"):
        result = lumo.Beautifier(engine="gl", mask=15, preset=2).process(frame)
    np.testing.assert_array_equal(result, lumo.Beautifier(engine="cpu", mask=15, preset=2).process(frame))
    assert not np.array_equal(result, frame)
