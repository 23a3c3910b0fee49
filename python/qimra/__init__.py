"""qimra: enhance dark and backlit YUV 4:2:0 video frames held in numpy arrays.

    import qimra
    with qimra.Engine(width, height) as engine:
        for frame in frames:                 # uint8, shape (height * 3 // 2, width)
            engine.process(frame, out=frame)  # in place; without out, a new array
            print(engine.report.decision)

Frames use the layouts OpenCV uses for 4:2:0 (cv2.COLOR_BGR2YUV_I420 and
friends): one uint8 array of shape (height * 3 // 2, width) holding the luma
rows, then the chroma; or a packed 1-D array of the same bytes; or a tuple of
plane arrays, (y, u, v) for 'i420' and 'yv12', (y, uv) for 'nv12' and 'nv21',
whose rows may lie further apart than their width (crops, padded buffers).

One engine lives at a time in a process (the library's worker and state are
process-wide): close an engine, or leave its ``with`` block, before creating
the next. Every misuse raises :class:`qimra.Error`, a ValueError.
"""
from . import _qimra
from ._qimra import Error, Report

__all__ = ["Engine", "Error", "Report", "MODES", "FORMATS", "planes"]
__version__ = "0.1.0"

MODES = ("fixed", "mark", "adaptive")
FORMATS = ("i420", "yv12", "nv12", "nv21")


class Engine(_qimra.Engine):
    """An enhancement engine for frames of one size and layout.

    width, height: any even frame size up to 16384.
    mode: "adaptive" enhances frames when the analysis calls for it, the tone
        curve following the scene; "fixed" enhances every frame with a tone
        curve built from gamma; "mark" only analyses, and shows its decision
        as a 64 x 64 square in the middle of the frame.
    format: the chroma layout, "i420" (U plane, then V), "yv12" (V, then U),
        "nv12" (one plane of U,V pairs) or "nv21" (V,U pairs).
    gamma: exponent of the tone curve, 0 < gamma <= 4; below 1 lifts the
        shadows. In adaptive mode, the lowest gamma allowed.

    A context manager: leaving the block closes the engine. A closed engine
    raises qimra.Error when used. Frames are processed without holding the
    GIL, so other Python threads run meanwhile; an engine used from two
    threads serves them one frame at a time.
    """

    def __init__(self, width, height, *, mode="adaptive", format="i420", gamma=0.5):
        super().__init__(width, height, mode=mode, format=format, gamma=gamma)

    def process(self, frame, out=None):
        """Enhance one frame and return the result.

        frame: a uint8 array of shape (height * 3 // 2, width) or (height *
            width * 3 // 2,), or a tuple of planes: (y, u, v) for the planar
            formats, (y, uv) for the interleaved ones, each plane of shape
            (rows, row bytes), rows at any stride not below the row. Read-only
            arrays are accepted unless they are also out.
        out: where to write: frame itself (in place), or another array or
            tuple of planes of a valid layout. Without out, a new array (or
            tuple of arrays) shaped like frame is returned.

        Arrays are taken as they are, never copied on the way in.
        """
        return super().process(frame, out)

    @property
    def report(self):
        """The last frame's Report (decision, enhanced, mid, gamma, top_level,
        chroma_sigma, tone_curve); raises qimra.Error before the first frame."""
        return _qimra.Engine.report.__get__(self)

    def close(self):
        """Stop the engine and free it; a new one may be created after. Idempotent."""
        super().close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __repr__(self):
        if self.closed:
            return "<qimra.Engine closed>"
        return (f"<qimra.Engine {self.width}x{self.height} mode={self.mode!r} "
                f"format={self.format!r} gamma={self.gamma:g}>")


def planes(frame, width, height, format="i420"):
    """Views of the planes of a whole frame (one array in OpenCV's layout, or
    packed 1-D): (y, u, v) for the planar formats, (y, uv) for the interleaved
    ones, each of shape (rows, row bytes). Views, not copies: writing to them
    writes the frame."""
    if format not in FORMATS:
        raise Error(f"qimra: format {format!r} is unknown; use 'i420', 'yv12', 'nv12' or 'nv21'")
    luma = width * height
    if frame.size != luma * 3 // 2 or not frame.flags.c_contiguous:
        raise Error(f"qimra: a packed {width}x{height} frame is {luma * 3 // 2} contiguous bytes; "
                    f"this array holds {frame.size}{'' if frame.flags.c_contiguous else ', not contiguous'}")
    flat = frame.reshape(-1)
    y = flat[:luma].reshape(height, width)
    if format in ("nv12", "nv21"):
        return y, flat[luma:].reshape(height // 2, width)
    first = flat[luma:luma + luma // 4].reshape(height // 2, width // 2)
    second = flat[luma + luma // 4:].reshape(height // 2, width // 2)
    return (y, first, second) if format == "i420" else (y, second, first)
