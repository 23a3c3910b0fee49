"""qimra.Engine over the C ABI: the tool's bytes in every way of handing a frame over, the tool's trace in its
reports, bad arrays refused with their reason, lifetime, memory, the GIL, and the OpenCV example."""
import ctypes
import gc
import os
import subprocess
import sys
import threading
import time

import cv2
import numpy as np
import pytest

import qimra
from clips import MEDIA, TOOL, fade_frame, frame as photo, load_i420


def packed(planes, fmt):
    """Planes (y, u, v) or (y, uv) back into one packed frame, in memory order."""
    return np.concatenate([p.reshape(-1) for p in ((planes[0], planes[2], planes[1]) if fmt == "yv12" else planes)])


def strided(frame, w, h, fmt, pad):
    """The frame's planes copied into buffers whose rows lie pad bytes further apart."""
    return tuple(np.pad(p, ((0, 0), (0, pad)), constant_values=7)[:, :-pad] for p in qimra.planes(frame, w, h, fmt))


def ways(frame, w, h, fmt):
    """Every way of handing the frame over, each a function of an engine giving the result."""
    f2d = frame.reshape(h * 3 // 2, w)
    in_place, strided_in_place = f2d.copy(), strided(frame, w, h, fmt, 16)

    def into(src, dst):  # the result is out itself
        return lambda e: e.process(src, out=dst) is dst and dst

    found = {
        "new array": lambda e: e.process(f2d),
        "out=": into(f2d, np.zeros_like(f2d)),
        "in place": into(in_place, in_place),
        "read-only 1-D": lambda e: e.process(np.broadcast_to(frame, frame.shape)),
        "strided planes": lambda e: packed(into(strided(frame, w, h, fmt, 40), strided(frame * 0, w, h, fmt, 24))(e),
                                           fmt),
        "strided in place": lambda e: packed(into(strided_in_place, strided_in_place)(e), fmt),
    }
    if fmt in ("nv12", "nv21"):  # one array whose rows lie further apart than the width: a crop
        found["rows apart"] = lambda e: e.process(np.pad(f2d, ((0, 0), (0, 24)))[:, :w])
    return found


# Quarter-size and full-size analysis, a size the core takes directly and one it does not (where mark draws its
# square of a positive decision, which tells U from V).
@pytest.mark.parametrize("fmt", qimra.FORMATS)
@pytest.mark.parametrize("name,w,h,crop,mode", [("path", 1280, 720, None, "fixed"),
                                                ("chelsea", 448, 300, None, "adaptive"),
                                                ("path", 640, 480, (630, 478), "mark")])
def test_bit_exact_to_the_tool(tmp_path, name, w, h, crop, mode, fmt):
    frame, (w, h) = photo(name, w, h, fmt, crop), crop or (w, h)
    frame.tofile(tmp_path / "in.yuv")
    subprocess.run([TOOL, "enhance", str(tmp_path / "in.yuv"), "-o", str(tmp_path / "out.yuv"), "--size", f"{w}x{h}",
                    "--format", fmt, "--mode", str(qimra.MODES.index(mode)), "--quiet"], check=True)
    expected = np.fromfile(tmp_path / "out.yuv", np.uint8)
    assert not np.array_equal(expected, frame) or mode == "adaptive"
    for how, run in ways(frame, w, h, fmt).items():
        with qimra.Engine(w, h, mode=mode, format=fmt) as e:
            got = np.asarray(run(e)).reshape(-1)
        assert np.array_equal(got, expected), f"{how}: {np.count_nonzero(got != expected)} bytes differ from the tool"


def test_report_matches_the_tool_trace_over_the_adaptive_clip(tmp_path):
    bright, backlit, trace = load_i420("autumn", 1920, 1080), load_i420("path", 1920, 1080), tmp_path / "trace.csv"
    run = subprocess.Popen([TOOL, "enhance", "-", "-o", "-", "--to", "yuv", "--size", "1280x720", "--quiet",
                            "--trace", str(trace)], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL)
    rows = []
    with qimra.Engine(1280, 720) as e:
        for n in range(128):
            frame = fade_frame(bright, backlit, n)
            run.stdin.write(frame.tobytes())
            r = e.process(frame, out=frame) is frame and e.report
            assert r.tone_curve.shape == (256,) and r.as_dict()["tone_curve"].dtype == np.uint8
            rows.append(f"{r.frame},{r.decision:d},{r.enhanced:d},{r.mid},{r.gamma:.4f},{r.top_level},"
                        f"{r.chroma_sigma:.4f}")
    run.stdin.close()
    assert run.wait() == 0 and trace.read_text().splitlines()[1:] == rows
    assert {row.split(",")[1] for row in rows} == {"0", "1"}, "the clip should switch the decision both ways"


W, H = 64, 48
GOOD = np.zeros((H * 3 // 2, W), np.uint8)


def process(frame, out=None):
    with qimra.Engine(W, H) as e:
        e.process(frame, out)


@pytest.mark.parametrize("call,match", [
    (lambda: process(GOOD.astype(np.float32)), "dtype float32"),
    (lambda: process(GOOD[:H]), "shape \\(48, 64\\)"),
    (lambda: process(np.zeros((H * 3 // 2, 2 * W), np.uint8)[:, ::2]), "strides \\(128, 2\\)"),
    (lambda: process(GOOD[::-1]), "rows must lie at least 64 bytes apart"),
    (lambda: process(np.zeros((H * 3 // 2, W + 8), np.uint8)[:, :W]), "planar frame in one array must be packed"),
    (lambda: process([1, 2, 3]), "input y plane is of type int"),
    (lambda: process("frame"), "input frame is of type str"),
    (lambda: process(qimra.planes(GOOD, W, H)[:2]), "sequence of 2 planes; i420 takes 3"),
    (lambda: process(GOOD, out=np.broadcast_to(GOOD, GOOD.shape)), "output frame is read-only"),
    (lambda: process(GOOD, out=(lambda y, u, v: (y, u, u))(*qimra.planes(GOOD.copy(), W, H))), "overlap"),
    (lambda: qimra.Engine(63, 48), "width 63 is odd"),
    (lambda: qimra.Engine(1 << 40, 64), "width 1099511627776 is too large"),
    (lambda: qimra.Engine(W, H, gamma=0), "gamma 0.0+ is out of range"),
    (lambda: qimra.Engine(W, H, mode="bright"), "mode 'bright' is unknown"),
    (lambda: qimra.Engine(W, H, format="rgb"), "format 'rgb' is unknown"),
])
def test_bad_input_raises_error_with_message(call, match):
    with pytest.raises(qimra.Error, match=match) as raised:
        call()
    assert isinstance(raised.value, ValueError)


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


def test_engines_created_and_closed_keep_no_memory_of_their_own():
    # The library keeps one luma plane (and the allocator's header) by design after each teardown below 1280x720.
    info = type("MallInfo2", (ctypes.Structure,), {"_fields_": [(f"f{i}", ctypes.c_size_t) for i in range(10)]})
    mallinfo2 = ctypes.CDLL(None).mallinfo2
    mallinfo2.restype = info
    frame = np.full(W * H * 3 // 2, 40, np.uint8)

    def cycles_of(n):
        for _ in range(n):
            with qimra.Engine(W, H, mode="adaptive") as e:
                e.process(frame)
                e.report.as_dict()
        gc.collect()
        return mallinfo2().f7 + mallinfo2().f4, sys.getallocatedblocks()  # bytes handed out (uordblks + hblkhd)

    heap, blocks = cycles_of(10)
    heap_after, blocks_after = cycles_of(1000)
    assert heap_after - heap <= 1000 * (W * H + 16) + 64 * 1024, f"heap grew by {heap_after - heap} bytes"
    assert blocks_after - blocks < 100, "Python objects are left behind"


def test_other_threads_run_while_a_frame_is_processed():
    # With a long switch interval the main thread never hands over the GIL on its own: the other thread can only
    # run inside process() if the frame is processed without it. One tick inside any frame is proof (on a loaded
    # two-core machine the engine's own two threads may keep the ticker off the cores for most frames).
    stamps, stop, windows = [], threading.Event(), []

    def ticker():
        while not stop.is_set():
            stamps.append(time.perf_counter())
            time.sleep(0.0001)

    old, thread = sys.getswitchinterval(), threading.Thread(target=ticker)
    frame = np.full(3840 * 2160 * 3 // 2, 20, np.uint8)
    sys.setswitchinterval(1.0)
    thread.start()
    try:
        with qimra.Engine(3840, 2160, mode="fixed") as e:
            for _ in range(10):
                t0 = time.perf_counter()
                e.process(frame, out=frame)
                windows.append((t0, time.perf_counter()))
                time.sleep(0.001)
    finally:
        stop.set()
        thread.join()
        sys.setswitchinterval(old)
    inside = [sum(t0 < s < t1 for s in stamps) for t0, t1 in windows]
    assert any(n > 0 for n in inside), f"ticks inside each frame: {inside}"


def test_example_enhances_a_clip(tmp_path):
    # A pan across the boats against the evening sky while the exposure falls from bright to backlit and recovers.
    photo_bgr = cv2.resize(cv2.imread(os.path.join(MEDIA, "photos", "evening.jpg")), (1280, 800),
                           interpolation=cv2.INTER_AREA)
    clip, out = tmp_path / "in.mp4", tmp_path / "out.mp4"
    writer = cv2.VideoWriter(str(clip), cv2.VideoWriter_fourcc(*"mp4v"), 25, (640, 360))
    for n in range(50):
        exposure = np.round(255 * (np.arange(256) / 255) ** (1 / (0.9 + 0.4 * np.cos(2 * np.pi * n / 50))))
        writer.write(cv2.LUT(photo_bgr[150:510, 8 * n:8 * n + 640], exposure.astype(np.uint8)))
    writer.release()
    example = os.path.join(os.path.dirname(__file__), "..", "examples", "enhance_video.py")
    run = subprocess.run([sys.executable, example, str(clip), str(out)], capture_output=True, text=True)
    assert run.returncode == 0, run.stderr[-2000:]
    frames, _, enhanced, _ = run.stdout.strip().splitlines()[-1].split(": ")[1].split()
    assert int(frames) == 50 and 0 < int(enhanced) < 50, run.stdout
    video = cv2.VideoCapture(str(out))
    assert (video.get(cv2.CAP_PROP_FRAME_COUNT), video.get(cv2.CAP_PROP_FRAME_WIDTH)) == (50, 640)
