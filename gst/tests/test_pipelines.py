"""qimraenhance in whole gst-launch-1.0 pipelines, against the qimra tool on the same real frames."""
import csv
import os
import re
import subprocess
import sys

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "..", "python", "tests"))
from clips import TOOL, fade_frame, frame, load_i420  # noqa: E402


def rawvideoparse(path, w, h, fmt):
    """filesrc ! rawvideoparse for frames packed at their width."""
    luma = w * h
    strides, offsets = ((f"<{w},{w // 2},{w // 2}>", f"<0,{luma},{luma * 5 // 4}>") if fmt in ("i420", "yv12")
                        else (f"<{w},{w}>", f"<0,{luma}>"))
    return (f"filesrc location={path} ! rawvideoparse width={w} height={h} format={fmt} framerate=25/1 "
            f"plane-strides={strides} plane-offsets={offsets} frame-size={luma * 3 // 2}")


def launch(pipeline, *flags):
    r = subprocess.run(["gst-launch-1.0", *flags, *pipeline.split()], capture_output=True, text=True, timeout=300)
    assert r.returncode == 0, r.stderr + r.stdout
    return r.stdout


def tool(src, dst, w, h, fmt, mode, *extra):
    subprocess.run([TOOL, "enhance", str(src), "-o", str(dst), "--size", f"{w}x{h}", "--format", fmt, "--mode",
                    str(mode), "--quiet", *extra], check=True)


@pytest.mark.parametrize("fmt", ["i420", "yv12", "nv12", "nv21"])
@pytest.mark.parametrize("w,h", [(1280, 720), (1366, 768)])
def test_fixed_mode_output_equals_the_tool(tmp_path, fmt, w, h):
    src, gst, out = tmp_path / "in.yuv", tmp_path / "gst.yuv", tmp_path / "tool.yuv"
    src.write_bytes(b"".join(frame(n, 1920, 1080, fmt, crop=(w, h)).tobytes() for n in ("path", "evening", "pier")))
    launch(f"{rawvideoparse(src, w, h, fmt)} ! qimraenhance mode=fixed ! filesink location={gst}")
    tool(src, out, w, h, fmt, 0)
    assert gst.read_bytes() == out.read_bytes() != src.read_bytes()


def test_adaptive_messages_carry_the_tools_decisions(tmp_path):
    bright, backlit, src = load_i420("autumn", 1920, 1080), load_i420("path", 1920, 1080), tmp_path / "clip.yuv"
    src.write_bytes(b"".join(fade_frame(bright, backlit, 2 * i).tobytes() for i in range(48)))
    out = launch(f"{rawvideoparse(src, 1280, 720, 'i420')} ! qimraenhance post-messages=true ! fakesink", "-m")
    # Element messages as gst-launch-1.0 -m prints them.
    message = re.compile(r'Got message #\d+ from element "qimraenhance0" \(element\): qimra, (.*);$')
    messages = [dict((k, v) for k, _, v in re.findall(r"([\w-]+)=\((\w+)\)([^,]+)", m.group(1)))
                for m in map(message.search, out.splitlines()) if m]
    tool(src, tmp_path / "out.yuv", 1280, 720, "i420", 2, "--trace", str(tmp_path / "trace.csv"))
    with open(tmp_path / "trace.csv") as f:
        trace = list(csv.DictReader(f))
    assert len(messages) == len(trace) == 48 and {t["decision"] for t in trace} == {"0", "1"}
    for i, (m, t) in enumerate(zip(messages, trace)):
        flag = {"true": "1", "false": "0"}
        assert [m["frame"], m["timestamp"], m["running-time"], flag[m["decision"]], flag[m["enhanced"]], m["mid"],
                f"{float(m['gamma']):.4f}", m["top-level"], f"{float(m['chroma-sigma']):.4f}"] == [
            t["frame"], str(i * 40_000_000), str(i * 40_000_000), t["decision"], t["enhanced"], t["mid"], t["gamma"],
            t["top_level"], t["chroma_sigma"]], f"frame {i}"


def test_encodes_to_mp4(tmp_path):
    src, mp4 = tmp_path / "in.yuv", tmp_path / "out.mp4"
    src.write_bytes(b"".join(frame(n, 1280, 720, "nv12").tobytes() for n in ("darkest", "path", "pier", "evening")))
    launch(f"{rawvideoparse(src, 1280, 720, 'nv12')} ! qimraenhance ! videoconvert ! x264enc ! mp4mux ! "
           f"filesink location={mp4}")
    probe = subprocess.run(["ffprobe", "-v", "error", "-count_frames", "-select_streams", "v:0", "-show_entries",
                            "stream=codec_name,width,height,nb_read_frames", "-of", "csv=p=0", str(mp4)],
                           capture_output=True, text=True, check=True)
    assert probe.stdout.strip() == "h264,1280,720,4"


def test_inspect_and_the_readme_example():
    r = subprocess.run(["gst-inspect-1.0", "qimraenhance"], capture_output=True, text=True, timeout=60)
    assert r.returncode == 0 and not re.search(r"CRITICAL|WARNING", r.stderr), r.stderr
    for needle in ["mode", "gamma", "bypass", "post-messages", "I420, (string)YV12"]:
        assert needle in r.stdout, needle
    # The README shows the example as it is, and it prints each frame's decision.
    here = os.path.dirname(__file__)
    example = os.path.join(here, "..", "examples", "print_decisions.py")
    with open(example) as f, open(os.path.join(here, "..", "..", "README.md")) as readme:
        assert f.read().split('"""', 2)[2].strip() in readme.read()
    r = subprocess.run(["/usr/bin/python3", example], capture_output=True, text=True, timeout=120)
    lines = [line for line in r.stdout.splitlines() if line.startswith("frame ")]
    assert r.returncode == 0 and len(lines) == 50, r.stderr
    assert lines[0].startswith("frame 0 at 0.000 s: enhanced, mid ") and lines[-1].startswith("frame 49 at 1.633 s: ")
