"""Where the tests find the qimra tool of the build and the real photographs."""
import os

import numpy as np
import pytest

MEDIA = os.environ.get("QIMRA_MEDIA_DIR", os.path.join(os.path.dirname(__file__), "../../.cache/media"))
TOOL = os.environ.get("QIMRA_TOOL", "")


def load_i420(name, width, height):
    path = os.path.join(MEDIA, "yuv", f"{name}_{width}x{height}.yuv")
    if not os.path.exists(path):
        pytest.skip(f"{path} is missing; run scripts/fetch-media")
    return np.fromfile(path, np.uint8)


@pytest.fixture
def tool():
    if not TOOL:
        pytest.skip("QIMRA_TOOL is not set (ctest sets it to the qimra tool of the build)")
    return TOOL
