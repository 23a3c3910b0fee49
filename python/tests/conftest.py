"""Shared fixtures: the qimra tool built beside the module, real frames in
each layout, and the tool's results to compare with."""
import os
import subprocess

import numpy as np
import pytest

MEDIA = os.environ.get("QIMRA_MEDIA_DIR", os.path.join(os.path.dirname(__file__), "../../.cache/media"))
TOOL = os.environ.get("QIMRA_TOOL", "")
MODE_NUMBER = {"fixed": 0, "mark": 1, "adaptive": 2}


def load_i420(name, width, height):
    path = os.path.join(MEDIA, "yuv", f"{name}_{width}x{height}.yuv")
    if not os.path.exists(path):
        pytest.skip(f"{path} is missing; run scripts/fetch-media")
    return np.fromfile(path, np.uint8)


def crop_i420(frame, width, height, new_width, new_height):
    """The top-left new_width x new_height of a packed I420 frame."""
    luma = width * height
    y = frame[:luma].reshape(height, width)[:new_height, :new_width]
    u, v = (frame[luma + k * luma // 4:luma + (k + 1) * luma // 4].reshape(height // 2, width // 2)
            [:new_height // 2, :new_width // 2] for k in range(2))
    return np.concatenate([p.reshape(-1) for p in (y, u, v)])


def to_format(frame, width, height, fmt):
    """A packed I420 frame rearranged into the layout `fmt`, packed."""
    luma = width * height
    y, u, v = frame[:luma], frame[luma:luma + luma // 4], frame[luma + luma // 4:]
    chroma = {"i420": (u, v), "yv12": (v, u),
              "nv12": (np.stack([u, v], axis=1).reshape(-1),),
              "nv21": (np.stack([v, u], axis=1).reshape(-1),)}[fmt]
    return np.concatenate((y,) + chroma)


def run_tool(*args, **kwargs):
    if not TOOL:
        pytest.skip("QIMRA_TOOL is not set (ctest sets it to the qimra tool of the build)")
    return subprocess.run([TOOL, *args], check=True, stderr=subprocess.PIPE, **kwargs)


@pytest.fixture
def tool_enhance(tmp_path):
    """Runs frames (packed, one after another) through the tool as raw YUV."""
    def enhance(frames, width, height, fmt, mode, gamma=0.5):
        src, dst = tmp_path / "in.yuv", tmp_path / "out.yuv"
        np.concatenate(frames).tofile(src)
        run_tool("enhance", str(src), "-o", str(dst), "--size", f"{width}x{height}", "--format", fmt,
                 "--mode", str(MODE_NUMBER[mode]), "--gamma", str(gamma), "--quiet")
        return np.fromfile(dst, np.uint8)
    return enhance
