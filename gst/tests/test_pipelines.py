"""qimraenhance in gst-launch-1.0 pipelines: the qimra tool's bytes on the same real frames, an MP4, refusals."""
import os
import re
import subprocess
import sys

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "..", "python", "tests"))
from clips import TOOL, frame  # noqa: E402


def launch(src, w, h, fmt, then):
    # rawvideoparse of frames packed at their width
    luma, planar = w * h, fmt in ("i420", "yv12")
    strides = f"<{w},{w // 2},{w // 2}>" if planar else f"<{w},{w}>"
    offsets = f"<0,{luma},{luma * 5 // 4}>" if planar else f"<0,{luma}>"
    r = subprocess.run(["gst-launch-1.0", *(f"filesrc location={src} ! rawvideoparse width={w} height={h} format={fmt} "
                                            f"framerate=25/1 plane-strides={strides} plane-offsets={offsets} "
                                            f"frame-size={luma * 3 // 2} ! qimraenhance {then}").split()],
                       capture_output=True, text=True, timeout=300)
    assert r.returncode == 0, r.stderr + r.stdout


@pytest.mark.parametrize("fmt", ["i420", "yv12", "nv12", "nv21"])
@pytest.mark.parametrize("w,h", [(1280, 720), (1366, 768)])
def test_fixed_mode_output_equals_the_tool(tmp_path, fmt, w, h):
    src, gst, out = tmp_path / "in.yuv", tmp_path / "gst.yuv", tmp_path / "tool.yuv"
    src.write_bytes(b"".join(frame(n, 1920, 1080, fmt, crop=(w, h)).tobytes() for n in ("path", "evening", "pier")))
    launch(src, w, h, fmt, f"mode=fixed ! filesink location={gst}")
    subprocess.run([TOOL, "enhance", str(src), "-o", str(out), "--size", f"{w}x{h}", "--format", fmt, "--mode", "0",
                    "--quiet"], check=True)
    assert gst.read_bytes() == out.read_bytes() != src.read_bytes()


def test_encodes_to_mp4(tmp_path):
    src, mp4 = tmp_path / "in.yuv", tmp_path / "out.mp4"
    src.write_bytes(b"".join(frame(n, 1280, 720, "nv12").tobytes() for n in ("darkest", "path", "pier", "evening")))
    launch(src, 1280, 720, "nv12", f"! videoconvert ! x264enc ! mp4mux ! filesink location={mp4}")
    probe = subprocess.run(["ffprobe", "-v", "error", "-count_frames", "-select_streams", "v:0", "-show_entries",
                            "stream=codec_name,width,height,nb_read_frames", "-of", "csv=p=0", str(mp4)],
                           capture_output=True, text=True, check=True)
    assert probe.stdout.strip() == "h264,1280,720,4"


@pytest.mark.parametrize("pipeline,says", [
    ("video/x-raw,format=NV12,width=642,height=481", "even width and height; 642x481"),
    ("qimraenhance", "one qimraenhance already runs in this process")])
def test_refusals_say_why(pipeline, says):
    r = subprocess.run(["gst-launch-1.0", *f"videotestsrc ! {pipeline} ! qimraenhance ! fakesink".split()],
                       capture_output=True, text=True, timeout=60)
    assert r.returncode != 0 and re.search(r"ERROR: from element \S*qimraenhance\d: .*" + says, r.stderr), r.stderr


def test_the_decisions_example_prints_a_line_a_frame():
    example = os.path.join(os.path.dirname(__file__), "..", "examples", "print_decisions.py")
    r = subprocess.run([sys.executable, example, "videotestsrc num-buffers=8 ! video/x-raw,width=320,height=240 ! "
                        "qimraenhance post-messages=true ! fakesink"], capture_output=True, text=True, timeout=60)
    lines = [line for line in r.stdout.splitlines() if not line.startswith(("Allocated", "Total Memory"))]
    assert r.returncode == 0 and len(lines) == 8, r.stderr + r.stdout
    assert all(re.fullmatch(rf"frame {n} at 0\.\d{{3}} s: (enhanced|left alone), mid \d+, gamma [\d.]+, top level \d+",
                            line) for n, line in enumerate(lines)), lines
