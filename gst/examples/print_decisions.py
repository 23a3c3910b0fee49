#!/usr/bin/python3
"""Prints qimraenhance's decision for each frame of a pipeline.

usage: print_decisions.py ['PIPELINE']   (default: a test pattern)
"""
import sys

import gi

gi.require_version("Gst", "1.0")
from gi.repository import Gst  # noqa: E402

Gst.init(None)
pipeline = Gst.parse_launch(sys.argv[1] if len(sys.argv) > 1 else
                            "videotestsrc num-buffers=50 ! qimraenhance post-messages=true ! fakesink")
bus = pipeline.get_bus()
pipeline.set_state(Gst.State.PLAYING)
wanted = Gst.MessageType.ELEMENT | Gst.MessageType.EOS | Gst.MessageType.ERROR
while True:
    msg = bus.timed_pop_filtered(Gst.CLOCK_TIME_NONE, wanted)
    if msg.type == Gst.MessageType.ERROR:
        sys.exit(f"error: {msg.parse_error()[0].message}")
    if msg.type == Gst.MessageType.EOS:
        break
    s = msg.get_structure()
    if s.get_name() == "qimra":
        print(f"frame {s.get_value('frame')} at {s.get_value('running-time') / Gst.SECOND:.3f} s: "
              f"{'enhanced' if s.get_value('enhanced') else 'left alone'}, mid {s.get_value('mid')}, "
              f"gamma {s.get_value('gamma'):.2f}, top level {s.get_value('top-level')}")
pipeline.set_state(Gst.State.NULL)
