"""qimra.Engine over the C ABI: the tool's bytes and trace, bad arrays refused, and the GIL."""
import os
import subprocess
import sys
import threading
import time

import numpy as np
import pytest

import qimra
from clips import TOOL, frame as photo


def ways(frame, w, h, fmt):
    """Each way of handing the frame over, as a function of an engine."""
    def strided(f, pad):  # the planes in buffers whose rows lie pad bytes further apart
        return tuple(np.pad(p, ((0, 0), (0, pad)), constant_values=7)[:, :-pad] for p in qimra.planes(f, w, h, fmt))

    def into(src, dst):  # process() must return out itself; planes go back in memory order
        return lambda e: e.process(src, out=dst) is dst and np.concatenate(
            [p.reshape(-1) for p in (dst if type(dst) is not tuple or fmt != "yv12" else (dst[0], dst[2], dst[1]))])

    f2d = frame.reshape(h * 3 // 2, w)
    found = {"new array": lambda e: e.process(f2d),
             "read-only 1-D": lambda e: e.process(np.broadcast_to(frame, frame.shape)),
             "in place": into(*[f2d.copy()] * 2), "strided in place": into(*[strided(frame, 16)] * 2),
             "strided planes": into(strided(frame, 40), strided(frame * 0, 24))}
    if fmt in ("nv12", "nv21"):  # one array whose rows lie further apart than the width: a crop
        found["rows apart"] = lambda e: e.process(np.pad(f2d, ((0, 0), (0, 24)))[:, :w])
    return found


# Quarter- and full-size analysis; a size the core takes directly and one it does not, where mark's square tells U
# from V.
@pytest.mark.parametrize("fmt", qimra.FORMATS)
@pytest.mark.parametrize("name,w,h,crop,mode", [("path", 1280, 720, None, "fixed"), ("chelsea", 448, 300, None,
                                                "adaptive"), ("path", 640, 480, (630, 478), "mark")])
def test_bit_exact_to_the_tool(tmp_path, name, w, h, crop, mode, fmt):
    frame, (w, h) = photo(name, w, h, fmt, crop), crop or (w, h)
    frame.tofile(tmp_path / "in.yuv")
    subprocess.run([TOOL, "enhance", str(tmp_path / "in.yuv"), "-o", str(tmp_path / "out.yuv"), "--size", f"{w}x{h}",
                    "--format", fmt, "--mode", str(qimra.MODES.index(mode)), "--trace", str(tmp_path / "t.csv"),
                    "--quiet"], check=True)
    expected, trace = np.fromfile(tmp_path / "out.yuv", np.uint8), (tmp_path / "t.csv").read_text().split("\n")[1]
    assert not np.array_equal(expected, frame) or mode == "adaptive"
    for how, run in ways(frame, w, h, fmt).items():
        with qimra.Engine(w, h, mode=mode, format=fmt) as e:
            got, r = np.asarray(run(e)).reshape(-1), e.report
        assert np.array_equal(got, expected), f"{how}: {np.count_nonzero(got != expected)} bytes differ from the tool"
        assert r.tone_curve.shape == (256,) and r.as_dict()["tone_curve"].dtype == np.uint8
        assert (f"{r.frame},{r.decision:d},{r.enhanced:d},{r.mid},{r.gamma:.4f},{r.top_level},{r.chroma_sigma:.4f}"
                == trace), how


W, H = 64, 48
GOOD = np.zeros((H * 3 // 2, W), np.uint8)


def process(frame, out=None):
    with qimra.Engine(W, H) as e:
        e.process(frame, out)


@pytest.mark.parametrize("call,match", [
    (lambda: process(GOOD.astype(np.float32)), "dtype float32"),
    (lambda: process(GOOD[:H]), "shape \\(48, 64\\)"),
    (lambda: process(np.zeros((H * 3 // 2, 2 * W), np.uint8)[:, ::2]), "strides \\(128, 2\\)"),
    (lambda: process(np.zeros((H * 3 // 2, W + 8), np.uint8)[:, :W]), "planar frame in one array must be packed"),
    (lambda: process("frame"), "input frame is of type str"),
    (lambda: process(qimra.planes(GOOD, W, H)[:2]), "sequence of 2 planes; i420 takes 3"),
    (lambda: process(GOOD, out=np.broadcast_to(GOOD, GOOD.shape)), "output frame is read-only"),
    (lambda: qimra.Engine(1 << 40, 64), "width 1099511627776 is too large"),
    (lambda: qimra.Engine(W, H, mode="bright"), "mode 'bright' is unknown"),
    (lambda: qimra.Engine(W, H, format="rgb"), "format 'rgb' is unknown"),
])
def test_bad_input_raises_error_with_message(call, match):
    with pytest.raises(qimra.Error, match=match) as raised:
        call()
    assert isinstance(raised.value, ValueError)


def test_other_threads_run_while_a_frame_is_processed():
    # With a long switch interval the ticker runs inside process() only if it releases the GIL.
    stamps, stop, windows, frame = [], threading.Event(), [], np.full(3840 * 2160 * 3 // 2, 20, np.uint8)
    thread, old = threading.Thread(target=lambda: [stamps.append(time.perf_counter()) for _ in iter(
        lambda: stop.wait(0.0001), True)]), sys.getswitchinterval()
    sys.setswitchinterval(1.0)
    thread.start()
    try:
        with qimra.Engine(3840, 2160, mode="fixed") as e:
            for _ in range(10):
                windows.append((time.perf_counter(), e.process(frame, out=frame) is frame and time.perf_counter()))
    finally:
        stop.set()
        thread.join()
        sys.setswitchinterval(old)
    assert any(t0 < s < t1 for s in stamps for t0, t1 in windows), f"{len(stamps)} ticks, none inside a frame"


def test_the_example_enhances_a_clip_that_darkens(tmp_path):
    import cv2
    bgr = cv2.cvtColor(photo("evening", 640, 480).reshape(720, 640), cv2.COLOR_YUV2BGR_I420)
    clip, out = tmp_path / "in.mp4", tmp_path / "out.mp4"
    writer = cv2.VideoWriter(str(clip), cv2.VideoWriter_fourcc(*"mp4v"), 25, (640, 480))
    for n in range(40):  # bright, then backlit
        writer.write(cv2.LUT(bgr, np.round(255 * (np.arange(256) / 255) ** (1 + n / 20)).astype(np.uint8)))
    writer.release()
    example = os.path.join(os.path.dirname(__file__), "..", "examples", "enhance_video.py")
    run = subprocess.run([sys.executable, example, str(clip), str(out)], capture_output=True, text=True)
    assert run.returncode == 0, run.stderr[-2000:]
    frames, _, enhanced, _ = run.stdout.strip().splitlines()[-1].split(": ")[1].split()
    assert int(frames) == 40 and 0 < int(enhanced) < 40, run.stdout
    assert cv2.VideoCapture(str(out)).get(cv2.CAP_PROP_FRAME_COUNT) == 40
