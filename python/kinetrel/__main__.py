"""python3 -m kinetrel: prints the poses of a tracker, one line a record."""

from __future__ import annotations

import argparse
import math
import sys
import time
from typing import List, Optional

from . import KinetrelError, Record, Tracker, __version__, open as open_tracker


def options(arguments: Optional[List[str]]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="python3 -m kinetrel",
        description="Prints the poses of a tracker: metres, degrees, age in milliseconds.")
    parser.add_argument("--slot", type=int, default=1, metavar="N", help="1 to 16 (default 1)")
    parser.add_argument("--sensor", type=int, metavar="N", help="this sensor alone, from 1")
    parser.add_argument("--records", type=int, metavar="N", help="end after N records")
    parser.add_argument("--timeout", type=float, default=None, metavar="S",
                        help="end when nothing comes for S seconds (default: wait)")
    parser.add_argument("--log", action="store_true", help="print state and status log, and end")
    parser.add_argument("--version", action="version", version=__version__)
    return parser.parse_args(arguments)


def line(record: Record) -> str:
    text = f"{record.frame:9d}  sensor {record.sensor:2d}"
    if record.has_position:
        text += "  m {:9.4f} {:9.4f} {:9.4f}".format(*record.position)
    if record.has_orientation:
        text += "  deg {:8.2f} {:8.2f} {:8.2f}".format(*map(math.degrees, record.angles))
    return text + f"  {1000 * record.age:7.2f} ms"


def print_log(tracker: Tracker) -> None:
    print(tracker.state)
    for entry in tracker.log:
        print(time.strftime("%H:%M:%S", time.localtime(entry.time)), f"{entry.code:4d}", entry.text)


def print_records(tracker: Tracker, asked: argparse.Namespace) -> int:
    left = asked.records
    while left is None or left > 0:
        record = tracker.read(asked.timeout)
        if record is None:
            print(f"nothing came: {tracker.state}", file=sys.stderr)
            return 1
        if asked.sensor in (None, record.sensor):
            print(line(record), flush=True)
            left = None if left is None else left - 1
    return 0


def main(arguments: Optional[List[str]] = None) -> int:
    asked = options(arguments)
    try:
        with open_tracker(asked.slot, 0 if asked.log else asked.timeout) as tracker:
            if asked.log:
                print_log(tracker)
                return 0
            return print_records(tracker, asked)
    except (KinetrelError, ValueError) as error:
        print(error, file=sys.stderr)
        return 2
    except (KeyboardInterrupt, BrokenPipeError):
        return 0


if __name__ == "__main__":
    sys.exit(main())
