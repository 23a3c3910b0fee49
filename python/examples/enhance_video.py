#!/usr/bin/env python3
"""Enhance a video with qimra through OpenCV, the decision drawn on each frame.

    enhance_video.py INPUT OUTPUT [--mode adaptive|fixed|mark] [--gamma G]

Each frame is read with OpenCV, converted to I420 (the (H * 3 / 2, W) array
OpenCV makes), enhanced in place, converted back and written with its
decision and tone-curve strength in the corner. The output is written with
OpenCV's own MPEG-4 encoder (no audio). Needs python3-opencv.
"""
import argparse
import sys

try:
    import cv2
except ImportError:
    sys.exit("enhance_video.py needs OpenCV for Python (Debian: apt-get install python3-opencv)")

import qimra


def label(report):
    if report.enhanced:
        return f"enhanced  mid {report.mid}  gamma {report.gamma:.2f}"
    return "decided: enhance" if report.decision else "left alone"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("input")
    parser.add_argument("output")
    parser.add_argument("--mode", default="adaptive", choices=qimra.MODES)
    parser.add_argument("--gamma", type=float, default=0.5)
    args = parser.parse_args()

    video = cv2.VideoCapture(args.input)
    if not video.isOpened():
        sys.exit(f"cannot open {args.input}")
    fps = video.get(cv2.CAP_PROP_FPS) or 25
    # 4:2:0 needs an even size: an odd last row or column is left out.
    width = int(video.get(cv2.CAP_PROP_FRAME_WIDTH)) & ~1
    height = int(video.get(cv2.CAP_PROP_FRAME_HEIGHT)) & ~1
    writer = cv2.VideoWriter(args.output, cv2.VideoWriter_fourcc(*"mp4v"), fps, (width, height))
    if not writer.isOpened():
        sys.exit(f"cannot write {args.output}")

    frames = enhanced = 0
    with qimra.Engine(width, height, mode=args.mode, gamma=args.gamma) as engine:
        while True:
            ok, bgr = video.read()
            if not ok:
                break
            yuv = cv2.cvtColor(bgr[:height, :width], cv2.COLOR_BGR2YUV_I420)
            engine.process(yuv, out=yuv)
            report = engine.report
            out = cv2.cvtColor(yuv, cv2.COLOR_YUV2BGR_I420)
            colour = (0, 200, 255) if report.enhanced else (255, 255, 255)
            cv2.putText(out, label(report), (16, 40), cv2.FONT_HERSHEY_SIMPLEX, 1.0, (0, 0, 0), 4, cv2.LINE_AA)
            cv2.putText(out, label(report), (16, 40), cv2.FONT_HERSHEY_SIMPLEX, 1.0, colour, 2, cv2.LINE_AA)
            writer.write(out)
            frames += 1
            enhanced += report.enhanced
    writer.release()
    print(f"{args.output}: {frames} frames, {enhanced} enhanced")
    return 0 if frames else 1


if __name__ == "__main__":
    sys.exit(main())
