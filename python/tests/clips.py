"""Real photographs for the package's tests and the element's (numpy only)."""
import os

import numpy as np

MEDIA, TOOL = os.environ["QIMRA_MEDIA_DIR"], os.environ["QIMRA_TOOL"]


def frame(name, w, h, fmt="i420", crop=None):
    """A real photograph packed in the layout of fmt, cut to crop=(width, height) from its w x h frame."""
    f, (cw, ch) = np.fromfile(os.path.join(MEDIA, "yuv", f"{name}_{w}x{h}.yuv"), np.uint8), crop or (w, h)
    y = f[:w * h].reshape(h, w)[:ch, :cw]
    u, v = (f[w * h * k // 4:w * h * (k + 1) // 4].reshape(h // 2, -1)[:ch // 2, :cw // 2] for k in (4, 5))
    chroma = {"i420": (u, v), "yv12": (v, u), "nv12": (np.dstack([u, v]),), "nv21": (np.dstack([v, u]),)}[fmt]
    return np.concatenate([p.reshape(-1) for p in (y, *chroma)])
