"""qimraenhance in whole gst-launch-1.0 pipelines, against the qimra tool on
the same real frames."""
import csv
import os
import re
import subprocess

import numpy as np
import pytest

MEDIA = os.environ["QIMRA_MEDIA_DIR"]
TOOL = os.environ["QIMRA_TOOL"]

# Element messages as gst-launch-1.0 -m prints them.
MESSAGE = re.compile(r'Got message #\d+ from element "qimraenhance0" \(element\): qimra, (.*);$')
FIELD = re.compile(r"([\w-]+)=\((\w+)\)([^,]+)")


def frames(names, width, height, fmt):
    """Real photographs at width x height (cropped from their 1080p frames
    where there is none of that size), back to back in the layout of fmt."""
    out = []
    for name in names:
        path = os.path.join(MEDIA, "yuv", f"{name}_{width}x{height}.yuv")
        w, h = (width, height) if os.path.exists(path) else (1920, 1080)
        f = np.fromfile(os.path.join(MEDIA, "yuv", f"{name}_{w}x{h}.yuv"), np.uint8)
        y = f[: w * h].reshape(h, w)[:height, :width]
        u = f[w * h : w * h * 5 // 4].reshape(h // 2, w // 2)[: height // 2, : width // 2]
        v = f[w * h * 5 // 4 :].reshape(h // 2, w // 2)[: height // 2, : width // 2]
        chroma = {
            "i420": [u, v],
            "yv12": [v, u],
            "nv12": [np.dstack([u, v])],
            "nv21": [np.dstack([v, u])],
        }[fmt]
        out += [y.tobytes()] + [c.tobytes() for c in chroma]
    return b"".join(out)


def rawvideoparse(path, width, height, fmt):
    """filesrc ! rawvideoparse for frames packed at their width."""
    luma = width * height
    if fmt in ("i420", "yv12"):
        strides, offsets = f"<{width},{width // 2},{width // 2}>", f"<0,{luma},{luma * 5 // 4}>"
    else:
        strides, offsets = f"<{width},{width}>", f"<0,{luma}>"
    return (f"filesrc location={path} ! rawvideoparse width={width} height={height} format={fmt} "
            f"framerate=25/1 plane-strides={strides} plane-offsets={offsets} frame-size={luma * 3 // 2}")


def launch(pipeline, *flags):
    return subprocess.run(["gst-launch-1.0", *flags, *pipeline.split()], capture_output=True, text=True, timeout=300)


def tool_enhance(src, dst, width, height, fmt, mode, *extra):
    subprocess.run([TOOL, "enhance", str(src), "-o", str(dst), "--size", f"{width}x{height}", "--format", fmt,
                    "--mode", str(mode), "--quiet", *extra], check=True)


@pytest.mark.parametrize("fmt", ["i420", "yv12", "nv12", "nv21"])
@pytest.mark.parametrize("width,height", [(1280, 720), (1366, 768)])
def test_fixed_mode_output_equals_the_tool(tmp_path, fmt, width, height):
    src = tmp_path / "in.yuv"
    src.write_bytes(frames(["path", "evening", "pier"], width, height, fmt))
    r = launch(f"{rawvideoparse(src, width, height, fmt)} ! qimraenhance mode=fixed ! "
               f"filesink location={tmp_path / 'gst.yuv'}")
    assert r.returncode == 0, r.stderr + r.stdout
    tool_enhance(src, tmp_path / "tool.yuv", width, height, fmt, 0)
    gst, tool = (tmp_path / "gst.yuv").read_bytes(), (tmp_path / "tool.yuv").read_bytes()
    assert len(gst) == src.stat().st_size and gst == tool
    assert gst != src.read_bytes()


def fade_clip(count):
    """A 1280x720 window panning over a bright photograph that cross-fades
    into a backlit one and back, so that the decision turns both ways."""
    bright, backlit = (np.fromfile(os.path.join(MEDIA, "yuv", f"{n}_1920x1080.yuv"), np.uint8) for n in ("autumn", "path"))
    planes = [(0, 1080, 1920), (1920 * 1080, 540, 960), (1920 * 1080 * 5 // 4, 540, 960)]
    out = []
    for i in range(count):
        n = 2 * i
        wt = min(max(n - 16, 0), 16, max(80 - n, 0))
        for (offset, rows, cols), d in zip(planes, (1, 2, 2)):
            a, b = (f[offset:offset + rows * cols].reshape(rows, cols)[180 // d:900 // d, 4 * n // d:(4 * n + 1280) // d]
                    .astype(np.uint16) for f in (bright, backlit))
            out.append(((a * (16 - wt) + b * wt + 8) >> 4).astype(np.uint8).tobytes())
    return b"".join(out)


def test_adaptive_messages_carry_the_tools_decisions(tmp_path):
    src = tmp_path / "clip.yuv"
    src.write_bytes(fade_clip(48))
    r = launch(f"{rawvideoparse(src, 1280, 720, 'i420')} ! qimraenhance post-messages=true ! fakesink", "-m")
    assert r.returncode == 0, r.stderr + r.stdout
    messages = [dict((k, v) for k, _, v in FIELD.findall(m.group(1)))
                for m in map(MESSAGE.search, r.stdout.splitlines()) if m]
    tool_enhance(src, tmp_path / "out.yuv", 1280, 720, "i420", 2, "--trace", str(tmp_path / "trace.csv"))
    with open(tmp_path / "trace.csv") as f:
        trace = list(csv.DictReader(f))
    assert len(messages) == len(trace) == 48
    assert {row["decision"] for row in trace} == {"0", "1"}
    for i, (m, t) in enumerate(zip(messages, trace)):
        assert int(m["frame"]) == int(t["frame"]) == i
        assert int(m["timestamp"]) == int(m["running-time"]) == i * 40_000_000
        assert m["decision"] == ("true" if t["decision"] == "1" else "false"), f"frame {i}"
        assert m["enhanced"] == ("true" if t["enhanced"] == "1" else "false"), f"frame {i}"
        assert (int(m["mid"]), int(m["top-level"])) == (int(t["mid"]), int(t["top_level"])), f"frame {i}"
        assert f"{float(m['gamma']):.4f}" == t["gamma"] and f"{float(m['chroma-sigma']):.4f}" == t["chroma_sigma"]


def test_encodes_to_mp4(tmp_path):
    src, mp4 = tmp_path / "in.yuv", tmp_path / "out.mp4"
    src.write_bytes(frames(["darkest", "path", "pier", "evening"], 1280, 720, "nv12"))
    r = launch(f"{rawvideoparse(src, 1280, 720, 'nv12')} ! qimraenhance ! videoconvert ! x264enc ! mp4mux ! "
               f"filesink location={mp4}")
    assert r.returncode == 0, r.stderr + r.stdout
    probe = subprocess.run(["ffprobe", "-v", "error", "-count_frames", "-select_streams", "v:0", "-show_entries",
                            "stream=codec_name,width,height,nb_read_frames", "-of", "csv=p=0", str(mp4)],
                           capture_output=True, text=True, check=True)
    assert probe.stdout.strip() == "h264,1280,720,4"


def test_a_second_element_is_refused_as_busy():
    r = launch("videotestsrc num-buffers=3 ! qimraenhance ! qimraenhance ! fakesink")
    assert r.returncode > 0, "gst-launch-1.0 should fail, not crash or succeed"
    assert "one qimraenhance already runs in this process" in r.stdout + r.stderr


def test_inspect_validates():
    r = subprocess.run(["gst-inspect-1.0", "qimraenhance"], capture_output=True, text=True, timeout=60)
    assert r.returncode == 0 and not re.search(r"CRITICAL|WARNING", r.stderr), r.stderr
    for needle in ["qimraenhance", "mode", "gamma", "bypass", "post-messages", "I420, (string)YV12"]:
        assert needle in r.stdout, needle


def test_readme_example_prints_each_frames_decision():
    example = os.path.join(os.path.dirname(__file__), "..", "examples", "print_decisions.py")
    with open(example) as f, open(os.path.join(os.path.dirname(__file__), "..", "..", "README.md")) as readme:
        assert f.read().split('"""', 2)[2].strip() in readme.read(), "README shows the example as it is"
    r = subprocess.run(["/usr/bin/python3", example], capture_output=True, text=True, timeout=120)
    assert r.returncode == 0, r.stderr
    lines = [line for line in r.stdout.splitlines() if line.startswith("frame ")]
    assert lines[0].startswith("frame 0 at 0.000 s: enhanced, mid ") and len(lines) == 50
    assert lines[-1].startswith("frame 49 at 1.633 s: ")
