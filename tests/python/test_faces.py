"""lumo.Beautifier(faces=...) on the real portrait with OpenCV's frames and the real lumo-beautify tool."""

import subprocess

import cv2
import numpy as np
import pytest

import lumo


def outside_face(shape):
    """Pixels well outside the portrait's face (its region with room to spare)."""
    ys, xs = np.mgrid[0:shape[0], 0:shape[1]]
    return np.hypot((xs - 224.0) / 90.0, (ys - 120.0) / 110.0) > 1.0


def changed(a, b):
    return np.any(a != b, axis=2)


@pytest.mark.parametrize("engine", ["cpu", "gl"])
@pytest.mark.parametrize("faces", [True, "photos"])
def test_only_the_face_changes(sample_bgr, engine, faces):
    beautifier = lumo.Beautifier(engine=engine, mask="polish,skin-whiten", faces=faces)
    assert beautifier.faces == ("video" if faces is True else faces)
    for _ in range(4):
        result = beautifier.process(sample_bgr)
        moved = changed(result, sample_bgr)
        assert not moved[outside_face(sample_bgr.shape)].any()
        assert moved[110:140, 200:250].mean() > 0.75
    beautifier.faces = False
    everywhere = changed(beautifier.process(sample_bgr), sample_bgr)
    assert everywhere.sum() > 5 * moved.sum()


def test_a_frame_without_a_face_keeps_its_skin(sample_bgr):
    lower = np.ascontiguousarray(sample_bgr[272:])
    beautifier = lumo.Beautifier(engine="cpu", mask="polish,skin-whiten", faces="photos")
    np.testing.assert_array_equal(beautifier.process(lower), lower)
    # Whiten is a whole-frame pass: it still runs.
    beautifier.mask = "polish,whiten,skin-whiten"
    expected = lumo.Beautifier(engine="cpu", mask="whiten").process(lower)
    np.testing.assert_array_equal(beautifier.process(lower), expected)


def test_matches_the_tool(tmp_path, tool, sample_path):
    written = tmp_path / "out.png"
    subprocess.run([tool, sample_path, "-o", str(written), "--engine", "cpu", "--faces"], check=True,
                   stderr=subprocess.DEVNULL)
    result = lumo.Beautifier(engine="cpu", faces="photos").process(cv2.imread(sample_path))
    np.testing.assert_array_equal(result, cv2.imread(str(written)))


def test_faces_wants_a_known_value():
    with pytest.raises(ValueError, match="faces wants"):
        lumo.Beautifier(engine="cpu", faces="everything")
