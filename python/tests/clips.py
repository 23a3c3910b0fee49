"""Real photographs and the adaptive clip, for the package's tests and the element's (numpy only)."""
import os

import numpy as np

MEDIA = os.environ["QIMRA_MEDIA_DIR"]
TOOL = os.environ["QIMRA_TOOL"]


def load_i420(name, w, h):
    return np.fromfile(os.path.join(MEDIA, "yuv", f"{name}_{w}x{h}.yuv"), np.uint8)


def planes(f, w, h):
    return f[:w * h].reshape(h, w), f[w * h:w * h * 5 // 4].reshape(h // 2, -1), f[w * h * 5 // 4:].reshape(h // 2, -1)


def frame(name, w, h, fmt="i420", crop=None):
    """A real photograph packed in the layout of fmt, cut to crop=(width, height) from its w x h frame."""
    cw, ch = crop or (w, h)
    y, u, v = (p[:ch // d, :cw // d] for p, d in zip(planes(load_i420(name, w, h), w, h), (1, 2, 2)))
    chroma = {"i420": (u, v), "yv12": (v, u), "nv12": (np.dstack([u, v]),), "nv21": (np.dstack([v, u]),)}[fmt]
    return np.concatenate([p.reshape(-1) for p in (y, *chroma)])


def fade_frame(bright, backlit, n):
    """Frame n of the adaptive clip (1280x720): a window panning right 4 pixels a frame over a bright photograph that
    cross-fades (weight wt/16) into a backlit one and back, so that the decision turns both ways."""
    wt = min(max(n - 16, 0), 16, max(80 - n, 0))
    window = [[p[180 // d:900 // d, 4 * n // d:(4 * n + 1280) // d].astype(np.uint16)
               for p, d in zip(planes(f, 1920, 1080), (1, 2, 2))] for f in (bright, backlit)]
    return np.concatenate([((a * (16 - wt) + b * wt + 8) >> 4).astype(np.uint8).reshape(-1) for a, b in zip(*window)])
