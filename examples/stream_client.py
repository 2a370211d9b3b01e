#!/usr/bin/env python3
"""A client of the record stream in Python: prints a line for each device frame.

    PYTHONPATH=python python3 examples/stream_client.py [SLOT]

Needs the package in python/ (or python3-kinetrel) and nothing else. See docs/stream.md.
"""
import sys

import kinetrel


def main() -> None:
    slot = int(sys.argv[1]) if len(sys.argv) > 1 else 1
    with kinetrel.open(slot, timeout=None) as tracker:  # waits for a tracker
        print(tracker.info.device if tracker.info else "", tracker.state, sep=": ")
        for frame in tracker.frames():
            poses = ("{}: {:7.3f} {:7.3f} {:7.3f}".format(record.sensor, *record.position)
                     for record in frame)
            oldest = max(record.age for record in frame)
            print(f"frame {frame.number}  {'  '.join(poses)} m  {1000 * oldest:.2f} ms old,"
                  f" {tracker.lost} records lost", flush=True)


if __name__ == "__main__":
    try:
        main()
    except (KeyboardInterrupt, BrokenPipeError):
        pass
