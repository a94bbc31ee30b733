import os

import cv2
import numpy as np
import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
SAMPLE = os.environ.get("LUMO_SAMPLE_IMAGE", os.path.join(HERE, "..", "..", "assets", "astronaut.png"))


@pytest.fixture(scope="session")
def sample_path():
    return SAMPLE


@pytest.fixture(scope="session")
def sample_bgr():
    image = cv2.imread(SAMPLE)
    assert image is not None and image.shape == (512, 512, 3)
    return image


@pytest.fixture(scope="session")
def tool():
    path = os.environ.get("LUMO_TOOL")
    if not path:
        pytest.skip("LUMO_TOOL (the lumo-beautify binary) is not set: built without the tool")
    return path


def portrait(sample, width, height, seed=0):
    """The sample resized to width x height, with a seeded shift so that frames of one size differ."""
    frame = cv2.resize(sample, (width, height), interpolation=cv2.INTER_AREA)
    return np.roll(frame, seed * 7, axis=1)
