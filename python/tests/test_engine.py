"""qimra.Engine against the qimra tool, bad input, lifetime, memory, threads."""
import ctypes
import math
import subprocess
import sys
import threading
import time

import numpy as np
import pytest

import qimra
import conftest
from conftest import crop_i420, load_i420, to_format

FORMATS = ("i420", "yv12", "nv12", "nv21")


def padded_planes(frame, width, height, fmt, pad):
    """The frame's planes copied into wider buffers: rows `pad` bytes apart
    more than their length, each plane a view of its own buffer."""
    out = []
    for p in qimra.planes(frame, width, height, fmt):
        buf = np.full((p.shape[0], p.shape[1] + pad), 7, np.uint8)
        buf[:, :p.shape[1]] = p
        out.append(buf[:, :p.shape[1]])
    return tuple(out)


def joined(planes, fmt):
    """Planes back into one packed frame (in memory order for yv12)."""
    order = (0, 2, 1) if fmt == "yv12" else range(len(planes))
    return np.concatenate([planes[i].reshape(-1) for i in order])


def each_way(frame, width, height, fmt, mode):
    """Yields (how, packed result) for every way of handing the frame over,
    each through a fresh engine."""
    frame2d = frame.reshape(height * 3 // 2, width)

    def new_array(e):
        return e.process(frame2d)

    def to_out(e):
        out = np.zeros_like(frame2d)
        assert e.process(frame2d, out=out) is out
        return out

    def in_place(e):
        buf = frame2d.copy()
        assert e.process(buf, out=buf) is buf
        return buf

    def packed_1d(e):
        return e.process(frame)

    def read_only(e):
        ro = frame2d.copy()
        ro.flags.writeable = False
        return e.process(ro)

    def strided_planes(e):
        src = padded_planes(frame, width, height, fmt, 40)
        dst = padded_planes(np.zeros_like(frame), width, height, fmt, 24)
        assert e.process(src, out=dst) is dst
        return joined(dst, fmt)

    def strided_in_place(e):
        buf = padded_planes(frame, width, height, fmt, 16)
        e.process(buf, out=buf)
        return joined(buf, fmt)

    for how in (new_array, to_out, in_place, packed_1d, read_only, strided_planes, strided_in_place):
        with qimra.Engine(width, height, mode=mode, format=fmt) as e:
            yield how.__name__, how(e).reshape(-1)


# (photo, its size, the size to crop it to, mode): quarter-mode and full-size
# analysis, a size the core takes directly and one it does not (where mark
# draws its square of a positive decision, which tells U from V).
CASES = [
    ("path", 1280, 720, 1280, 720, "fixed"),
    ("chelsea", 448, 300, 448, 300, "adaptive"),
    ("path", 640, 480, 630, 478, "mark"),
]


@pytest.mark.parametrize("fmt", FORMATS)
@pytest.mark.parametrize("name,w,h,cw,ch,mode", CASES)
def test_bit_exact_to_the_tool(tool_enhance, name, w, h, cw, ch, mode, fmt):
    frame = to_format(crop_i420(load_i420(name, w, h), w, h, cw, ch), cw, ch, fmt)
    expected = tool_enhance([frame], cw, ch, fmt, mode)
    assert not np.array_equal(expected, frame) or mode == "adaptive"
    for how, got in each_way(frame, cw, ch, fmt, mode):
        assert np.array_equal(got, expected), f"{how} differs from the tool in {np.count_nonzero(got != expected)} bytes"


def interleaved_crop(frame, width, height, crop_width):
    """An NV12 frame of OpenCV's shape whose rows lie `width` apart."""
    return frame.reshape(height * 3 // 2, width)[:, :crop_width]


def test_interleaved_frame_with_wide_rows(tool_enhance):
    w, h, cw = 640, 480, 600
    nv12 = to_format(load_i420("path", w, h), w, h, "nv12")
    view = interleaved_crop(nv12, w, h, cw)
    expected = tool_enhance([np.ascontiguousarray(view).reshape(-1)], cw, h, "nv12", "fixed")
    with qimra.Engine(cw, h, mode="fixed", format="nv12") as e:
        assert np.array_equal(e.process(view).reshape(-1), expected)


def clip_frame(bright, backlit, n, w=1280, h=720, sw=1920, sh=1080):
    """Frame n of the adaptive clip: a window panning right 4 pixels a frame
    over a bright photograph that cross-fades into a backlit one and back."""
    wt = 0 if n < 16 else n - 16 if n < 32 else 16 if n < 64 else 80 - n if n < 80 else 0
    x0, y0 = 4 * n, 180
    planes = []
    for src_plane, div in ((slice(0, sw * sh), 1), (slice(sw * sh, sw * sh * 5 // 4), 2),
                           (slice(sw * sh * 5 // 4, None), 2)):
        a, b = (s[src_plane].reshape(sh // div, sw // div)[y0 // div:(y0 + h) // div, x0 // div:(x0 + w) // div]
                for s in (bright, backlit))
        planes.append(((a.astype(np.uint16) * (16 - wt) + b.astype(np.uint16) * wt + 8) >> 4).astype(np.uint8))
    return np.concatenate([p.reshape(-1) for p in planes])


def test_report_matches_the_tool_trace_over_the_adaptive_clip(tmp_path):
    bright, backlit = load_i420("autumn", 1920, 1080), load_i420("path", 1920, 1080)
    trace = tmp_path / "trace.csv"
    if not conftest.TOOL:
        pytest.skip("QIMRA_TOOL is not set")
    tool = subprocess.Popen([conftest.TOOL, "enhance", "-", "-o", "-", "--to", "yuv", "--size",
                             "1280x720", "--mode", "2", "--quiet", "--trace", str(trace)],
                            stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    rows = []
    with qimra.Engine(1280, 720) as e:
        for n in range(128):
            frame = clip_frame(bright, backlit, n)
            tool.stdin.write(frame.tobytes())
            e.process(frame, out=frame)
            r = e.report
            assert r.tone_curve.shape == (256,) and r.tone_curve.dtype == np.uint8
            assert r.as_dict()["mid"] == r.mid
            rows.append(f"{r.frame},{r.decision:d},{r.enhanced:d},{r.mid},{r.gamma:.4f},{r.top_level},"
                        f"{r.chroma_sigma:.4f}")
    tool.stdin.close()
    assert tool.wait() == 0
    lines = trace.read_text().splitlines()
    assert lines[1:] == rows
    decisions = {row.split(",")[1] for row in rows}
    assert decisions == {"0", "1"}, "the clip should switch the decision both ways"


def bad(fn, match):
    return pytest.param(fn, match, id=match.split()[0])


W, H = 64, 48
GOOD = np.zeros((H * 3 // 2, W), np.uint8)


def process(frame, out=None, fmt="i420"):
    with qimra.Engine(W, H, format=fmt) as e:
        e.process(frame, out)


def read_only(a):
    a = a.copy()
    a.flags.writeable = False
    return a


@pytest.mark.parametrize("call,match", [
    bad(lambda: process(GOOD.astype(np.float32)), "dtype float32"),
    bad(lambda: process(GOOD[:H]), "shape \\(48, 64\\)"),
    bad(lambda: process(np.zeros((H * 3 // 2, 2 * W), np.uint8)[:, ::2]), "strides \\(128, 2\\)"),
    bad(lambda: process(GOOD[::-1]), "rows must lie at least 64 bytes apart"),
    bad(lambda: process(np.zeros((H * 3 // 2, W + 8), np.uint8)[:, :W]), "planar frame in one array must be packed"),
    bad(lambda: process([1, 2, 3]), "input y plane is a int"),
    bad(lambda: process("frame"), "input frame is a str"),
    bad(lambda: process(qimra.planes(GOOD, W, H)[:2]), "sequence of 2 planes; i420 takes 3"),
    bad(lambda: process(GOOD, out=read_only(GOOD)), "output frame is read-only"),
    bad(lambda: process(GOOD, out=(lambda y, u, v: (y, u, u))(*qimra.planes(GOOD.copy(), W, H))), "overlap"),
    bad(lambda: process(GOOD, out=GOOD[H // 2:]), "output frame has shape \\(48, 64\\)"),
    bad(lambda: qimra.Engine(63, 48), "width 63 is odd"),
    bad(lambda: qimra.Engine(64, 0), "height 0 is not positive"),
    bad(lambda: qimra.Engine(1 << 40, 64), "width 1099511627776 is too large"),
    bad(lambda: qimra.Engine(W, H, gamma=0), "gamma 0.0+ is out of range"),
    bad(lambda: qimra.Engine(W, H, gamma=math.nan), "gamma nan is out of range"),
    bad(lambda: qimra.Engine(W, H, mode="bright"), "mode 'bright' is unknown"),
    bad(lambda: qimra.Engine(W, H, format="rgb"), "format 'rgb' is unknown"),
])
def test_bad_input_raises_error_with_message(call, match):
    with pytest.raises(qimra.Error, match=match):
        call()


def test_error_is_a_value_error():
    assert issubclass(qimra.Error, ValueError)


def test_engine_lifetime():
    first = qimra.Engine(W, H)
    with pytest.raises(qimra.Error, match="no frame"):
        first.report
    with pytest.raises(qimra.Error, match="engine"):
        qimra.Engine(W, H)
    first.close()
    first.close()
    for use in (lambda: first.process(GOOD), lambda: first.report, lambda: first.width):
        with pytest.raises(qimra.Error, match="closed"):
            use()
    with qimra.Engine(96, 32, mode="fixed", format="nv21") as second:
        assert second.process(np.full(96 * 48, 30, np.uint8)).shape == (96 * 48,)
        assert (second.width, second.height, second.mode, second.format) == (96, 32, "fixed", "nv21")
    assert second.closed
    del first
    qimra.Engine(W, H).close()


class MallInfo2(ctypes.Structure):
    _fields_ = [(n, ctypes.c_size_t) for n in ("arena", "ordblks", "smblks", "hblks", "hblkhd", "usmblks",
                                               "fsmblks", "uordblks", "fordblks", "keepcost")]


def heap_in_use():
    libc = ctypes.CDLL(None)
    libc.mallinfo2.restype = MallInfo2
    info = libc.mallinfo2()
    return info.uordblks + info.hblkhd


def test_engines_created_and_closed_keep_no_memory_of_their_own():
    # Below 1280x720 the analysis runs at full size: the buffer the library
    # keeps by design after each teardown is one luma plane (plus the
    # allocator's header).
    cycles, kept_per_engine = 1000, W * H + 16
    frame = np.full(W * H * 3 // 2, 40, np.uint8)

    def cycle():
        with qimra.Engine(W, H, mode="adaptive") as e:
            e.process(frame)
            e.report.as_dict()

    for _ in range(10):
        cycle()
    heap, blocks = heap_in_use(), sys.getallocatedblocks()
    for _ in range(cycles):
        cycle()
    heap_growth = heap_in_use() - heap
    assert heap_growth <= cycles * kept_per_engine + 64 * 1024, f"heap grew by {heap_growth} bytes"
    assert sys.getallocatedblocks() - blocks < cycles // 10, "Python objects are left behind"


def test_other_threads_run_while_a_frame_is_processed():
    # With a long switch interval the main thread never hands over the GIL
    # on its own: the other thread can only run inside process() if the
    # frame is processed without it.
    stamps, stop = [], threading.Event()

    def ticker():
        while not stop.is_set():
            stamps.append(time.perf_counter())
            time.sleep(0.0001)

    old = sys.getswitchinterval()
    sys.setswitchinterval(1.0)
    thread = threading.Thread(target=ticker)
    try:
        frame = to_format(load_i420("path", 1920, 1080), 1920, 1080, "i420")
        windows = []
        with qimra.Engine(1920, 1080, mode="fixed") as e:
            thread.start()
            for _ in range(10):
                t0 = time.perf_counter()
                e.process(frame, out=frame)
                windows.append((t0, time.perf_counter()))
                time.sleep(0.001)
    finally:
        stop.set()
        sys.setswitchinterval(old)
        if thread.is_alive():
            thread.join()
    inside = [sum(t0 < s < t1 for s in stamps) for t0, t1 in windows]
    assert sum(n > 0 for n in inside) >= len(windows) // 2, f"ticks inside each frame: {inside}"
