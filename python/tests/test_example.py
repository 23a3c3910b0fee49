"""examples/enhance_video.py on a short clip made like the demo's: a pan
across the boats against the evening sky while the exposure falls from
bright to backlit and recovers."""
import os
import subprocess
import sys

import numpy as np
import pytest

from conftest import MEDIA

cv2 = pytest.importorskip("cv2", reason="python3-opencv is not installed; the example needs it")


def test_example_enhances_the_clip(tmp_path):
    photo = cv2.imread(os.path.join(MEDIA, "photos", "evening.jpg"))
    if photo is None:
        pytest.skip("evening.jpg is missing; run scripts/fetch-media")
    clip, out = tmp_path / "in.mp4", tmp_path / "out.mp4"
    photo = cv2.resize(photo, (1280, 800), interpolation=cv2.INTER_AREA)
    writer = cv2.VideoWriter(str(clip), cv2.VideoWriter_fourcc(*"mp4v"), 25, (640, 360))
    for n in range(50):
        exposure = np.round(255 * (np.arange(256) / 255) ** (1 / (0.9 + 0.4 * np.cos(2 * np.pi * n / 50))))
        writer.write(cv2.LUT(photo[150:510, 8 * n:8 * n + 640], exposure.astype(np.uint8)))
    writer.release()
    example = os.path.join(os.path.dirname(__file__), "..", "examples", "enhance_video.py")
    run = subprocess.run([sys.executable, example, str(clip), str(out)], capture_output=True, text=True)
    assert run.returncode == 0, run.stderr[-2000:]
    frames, _, enhanced, _ = run.stdout.strip().splitlines()[-1].split(": ")[1].split()
    assert int(frames) == 50 and 0 < int(enhanced) < 50, run.stdout
    video = cv2.VideoCapture(str(out))
    assert (video.get(cv2.CAP_PROP_FRAME_COUNT), video.get(cv2.CAP_PROP_FRAME_WIDTH)) == (50, 640)
