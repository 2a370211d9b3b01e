"""The layout of a record stream, as include/kinetrel/stream.h declares it; a test compares them."""

from __future__ import annotations

import struct
from typing import Dict, List, Tuple

VERSION = 1
SLOTS = 16
SENSORS = 32
MAGIC = b"KINETREL"


class Layout:
    """A structure of the stream: named little-endian fields without gaps."""

    def __init__(self, *fields: Tuple[str, str]) -> None:
        self.struct = struct.Struct("<" + "".join(code for _, code in fields))
        self.size = self.struct.size
        self.offsets: Dict[str, int] = {}
        self.codes: Dict[str, str] = dict(fields)
        self.index: Dict[str, int] = {}
        offset = 0
        position = 0
        for name, code in fields:
            self.offsets[name] = offset
            self.index[name] = position
            offset += struct.calcsize("<" + code)
            position += 1 if code.endswith("s") else int(code[:-1] or 1)

    def names(self) -> List[str]:
        return list(self.offsets)


HEAD = Layout(
    ("magic", "8s"), ("version", "I"), ("head_size", "I"), ("total_size", "Q"), ("instance", "Q"),
    ("writer_pid", "I"), ("slot", "I"), ("live_offset", "I"), ("live_size", "I"),
    ("run_offset", "I"), ("run_size", "I"), ("sensor_offset", "I"), ("sensor_count", "I"),
    ("log_offset", "I"), ("log_count", "I"), ("log_line_size", "I"), ("ring_offset", "I"),
    ("ring_count", "I"), ("record_size", "I"), ("device_pose_offset", "I"),
    ("device_pose_size", "I"), ("reserved", "2Q"))

LIVE = Layout(
    ("newest", "Q"), ("arrivals", "I"), ("reserved0", "I"), ("log_newest", "Q"),
    ("heartbeat_ns", "q"), ("reserved", "4Q"))

RECORD = Layout(
    ("number", "Q"), ("frame", "Q"), ("sample_ns", "q"), ("publish_ns", "q"), ("position", "3d"),
    ("orientation", "4f"), ("angles", "3f"), ("sensor", "I"), ("flags", "I"), ("device_code", "i"),
    ("buttons", "I"), ("buttons_known", "I"))

DEVICE_POSE = Layout(
    ("number", "Q"), ("position", "3d"), ("orientation", "4f"), ("angles", "3f"), ("flags", "I"))

RUN = Layout(
    ("sequence", "Q"), ("clock_ns", "q"), ("utc_ns", "q"), ("started_ns", "q"),
    ("state_since_ns", "q"), ("state", "i"), ("device_type", "i"), ("port", "i"), ("unit", "I"),
    ("components", "I"), ("sensor_mask", "I"), ("nominal_rate", "d"), ("measured_rate", "d"),
    ("azimuth_zero", "d"), ("latency_mean", "d"), ("latency_max", "d"), ("jitter", "d"),
    ("frames", "Q"), ("failed_reads", "Q"), ("dropped", "Q"), ("recoveries", "Q"),
    ("bytes_in", "Q"), ("bytes_out", "Q"), ("state_text", "256s"), ("device_name", "128s"),
    ("sensor_names", "1024s"), ("filter_lag", "32H"))

LOG_LINE = Layout(
    ("number", "Q"), ("utc_ns", "q"), ("code", "i"), ("reserved", "i"), ("text", "232s"))

SENSOR_NAME_SIZE = 32

STATES = ("unknown", "starting", "running", "silent", "recovering", "stopped", "failed", "lost")
LOST = STATES.index("lost")
ENDED = (STATES.index("stopped"), STATES.index("failed"))

POSITION_VALID = 1 << 0
ORIENTATION_VALID = 1 << 1
BUTTONS_VALID = 1 << 2
CODE_VALID = 1 << 3
FILTERED = 1 << 11
FILTER_FAILED = 1 << 12
POSE_BITS = POSITION_VALID | ORIENTATION_VALID | 7 << 8


def text(raw: bytes) -> str:
    """A text field up to its zero. Control characters are replaced: a terminal may show it."""
    decoded = raw.split(b"\0", 1)[0].decode("utf-8", "replace")
    return "".join(c if c.isprintable() else "?" for c in decoded)
