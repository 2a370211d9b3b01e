"""Recordings of kinetrel-record as numpy arrays: what docs/recording.md says is in the file.

Reads uncompressed MCAP from the file's start, chunk by chunk. A file that was cut is read up to the
cut; a damaged chunk is passed over and counted. No file needs more memory than its own poses and
the largest chunk, which is bounded.
"""

from __future__ import annotations

import json
import os
import re
import struct
import zlib
from typing import (TYPE_CHECKING, Any, BinaryIO, Callable, Dict, Iterator, List, NamedTuple, Tuple,
                    Union)

from ._errors import NotARecording

if TYPE_CHECKING:
    import numpy

_MAGIC = b"\x89MCAP0\r\n"
_HEAD = struct.Struct("<BQ")  # opcode, length of the content
_FOOTER, _SCHEMA, _CHANNEL, _MESSAGE, _CHUNK, _METADATA = 0x02, 0x03, 0x04, 0x05, 0x06, 0x0C
_CHUNK_HEAD = struct.Struct("<QQQI")  # first and last time, size, CRC
_MESSAGE_HEAD = struct.Struct("<HIQQ")  # channel, sequence, log time, time of publication
_POSE = struct.Struct("<7d")  # x, y, z; quaternion x, y, z, w
_STAMP = struct.Struct("<III")  # seconds, nanoseconds, length of the frame's name
_POSE_ROW = struct.Struct("<qQI7d")  # as the fields of an array
_BUTTONS_ROW = struct.Struct("<QII")
_LARGEST = 64 << 20  # bytes of a record that is loaded
_TOPIC = re.compile(r"/kinetrel/(\d{1,2})/sensor/(\d{1,2})/(pose|device_pose|buttons)\Z")


class Marker(NamedTuple):
    """What the operator marked while it was recorded."""

    time_ns: int  #: since 1970 UTC
    text: str


class Note(NamedTuple):
    """A line of the status log, or a change of the state."""

    time_ns: int  #: since 1970 UTC
    slot: int
    kind: str  #: "log" or "state"
    text: str
    value: Union[int, str]  #: the code of a log line, the name of a state


class Recording:
    """A recording in memory. `poses[1, 2]` is the array of sensor 2 of the tracker on slot 1.

    Fields of an array, in the order of the file: sample_ns and publish_ns (since 1970 UTC), frame,
    position (3, metres), orientation (4: w, x, y, z). What the tracker did not deliver is NaN.
    """

    def __init__(self) -> None:
        self.poses: Dict[Tuple[int, int], "numpy.ndarray[Any, Any]"] = {}
        self.device_poses: Dict[Tuple[int, int], "numpy.ndarray[Any, Any]"] = {}  #: before filters
        self.buttons: Dict[Tuple[int, int], "numpy.ndarray[Any, Any]"] = {}  #: every change
        self.markers: List[Marker] = []
        self.notes: List[Note] = []
        self.about: Dict[str, str] = {}  #: version, device, rate, sensors
        self.whole = False  #: it was closed; else it was cut, or is still being written
        self.damaged = 0  #: chunks and messages that were passed over


class _Damaged(Exception):
    pass


class _Fields:
    """Walks the fields of a record."""

    def __init__(self, data: bytes) -> None:
        self._data = data
        self._at = 0

    def take(self, form: struct.Struct) -> Tuple[Any, ...]:
        return form.unpack(self.raw(form.size))

    def raw(self, count: int) -> bytes:
        end = self._at + count
        if end > len(self._data):
            raise _Damaged
        part = self._data[self._at:end]
        self._at = end
        return part

    def sized(self) -> bytes:
        return self.raw(int.from_bytes(self.raw(4), "little"))

    def text(self) -> str:
        return self.sized().decode("utf-8", "replace")

    def texts(self) -> Dict[str, str]:
        pairs = _Fields(self.sized())
        texts = {}
        while pairs._at < len(pairs._data):
            key = pairs.text()
            texts[key] = pairs.text()
        return texts


def _pose(data: bytes) -> Tuple[Any, ...]:
    """Of a PoseStamped in little-endian CDR: time of the sample, x, y, z, and quaternion."""
    fields = _Fields(data)
    if fields.raw(4) != b"\0\1\0\0":
        raise _Damaged
    seconds, nanoseconds, length = fields.take(_STAMP)
    fields.raw(length)
    fields.raw(-(12 + length) % 8)
    x, y, z, qx, qy, qz, qw = fields.take(_POSE)
    return seconds * 10**9 + nanoseconds, x, y, z, qw, qx, qy, qz


def _json(data: bytes) -> Dict[str, Any]:
    try:
        value = json.loads(data)
    except (ValueError, RecursionError):
        raise _Damaged from None
    if not isinstance(value, dict):
        raise _Damaged
    return value


def _number(value: Any) -> int:
    if not isinstance(value, int) or not 0 <= value < 2**32:
        raise _Damaged
    return value


class _Reader:
    def __init__(self, file: BinaryIO) -> None:
        self._file = file
        self._size = os.fstat(file.fileno()).st_size
        self._takers: Dict[int, Callable[[int, int, int, bytes], None]] = {}  # of channels
        self._rows: Dict[str, Dict[Tuple[int, int], bytearray]] = {
            "pose": {}, "device_pose": {}, "buttons": {}}
        self.recording = Recording()

    # ---- Records ---------------------------------------------------------------------------------

    def read(self) -> None:
        self._file.seek(len(_MAGIC))
        known = {_CHANNEL: self._channel, _MESSAGE: self._message, _CHUNK: self._chunk,
                 _METADATA: self._metadata}
        while True:
            head = self._file.read(_HEAD.size)
            if len(head) < _HEAD.size:
                return
            opcode, length = _HEAD.unpack(head)
            end = self._file.tell() + length
            if opcode == _FOOTER:
                self.recording.whole = end + len(_MAGIC) == self._size
                return
            if opcode in known and length <= _LARGEST:
                self._try(known[opcode], self._file.read(length))  # short at the cut
            elif opcode in known:
                self.recording.damaged += 1
            if end > self._size:
                return
            self._file.seek(end)

    def _try(self, take: Callable[[bytes], None], content: bytes) -> None:
        try:
            take(content)
        except _Damaged:
            self.recording.damaged += 1

    def _chunk(self, content: bytes) -> None:
        fields = _Fields(content)
        _, _, size, crc = fields.take(_CHUNK_HEAD)
        if fields.sized():
            raise NotARecording(self._file.name, "its chunks are compressed")
        length = int.from_bytes(fields.raw(8), "little")
        rest = content[fields._at:fields._at + length]
        if len(rest) == length and (length != size or (crc != 0 and zlib.crc32(rest) != crc)):
            raise _Damaged
        for opcode, record in self._records_in(rest):
            if opcode == _CHANNEL:
                self._try(self._channel, record)
            elif opcode == _MESSAGE:
                self._try(self._message, record)

    @staticmethod
    def _records_in(data: bytes) -> Iterator[Tuple[int, bytes]]:
        at = 0
        while at + _HEAD.size <= len(data):
            opcode, length = _HEAD.unpack_from(data, at)
            at += _HEAD.size
            if at + length > len(data):
                return
            yield opcode, data[at:at + length]
            at += length

    def _metadata(self, content: bytes) -> None:
        fields = _Fields(content)
        if fields.text() == "kinetrel":
            self.recording.about = fields.texts()

    # ---- Channels and messages -------------------------------------------------------------------

    def _channel(self, content: bytes) -> None:
        fields = _Fields(content)
        number, _ = fields.take(struct.Struct("<HH"))
        topic = fields.text()
        if number in self._takers:
            return
        sensor = _TOPIC.match(topic)
        parts = topic.split("/")
        if sensor is not None:
            rows = self._rows[sensor[3]].setdefault((int(sensor[1]), int(sensor[2])), bytearray())
            take = self._take_buttons if sensor[3] == "buttons" else self._take_pose
            self._takers[number] = lambda *message: take(rows, *message)
        elif topic == "/kinetrel/markers":
            self._takers[number] = self._take_marker
        elif len(parts) == 4 and parts[1] == "kinetrel" and parts[2].isdecimal() and (
                parts[3] in ("log", "state")):
            slot = int(parts[2])
            self._takers[number] = lambda *message: self._take_note(slot, parts[3], *message)

    def _message(self, content: bytes) -> None:
        fields = _Fields(content)
        channel, sequence, log_time, publish_time = fields.take(_MESSAGE_HEAD)
        take = self._takers.get(channel)
        if take is not None:
            take(sequence, log_time, publish_time, content[_MESSAGE_HEAD.size:])

    def _take_pose(self, rows: bytearray, frame: int, _: int, publish_ns: int,
                   data: bytes) -> None:
        sample_ns, *pose = _pose(data)
        rows += _POSE_ROW.pack(sample_ns, publish_ns, frame, *pose)

    def _take_buttons(self, rows: bytearray, _: int, time_ns: int, __: int,
                      data: bytes) -> None:
        value = _json(data)
        rows += _BUTTONS_ROW.pack(time_ns, _number(value.get("buttons")),
                                  _number(value.get("known")))

    def _take_marker(self, _: int, time_ns: int, __: int, data: bytes) -> None:
        self.recording.markers.append(Marker(time_ns, str(_json(data).get("text", ""))))

    def _take_note(self, slot: int, kind: str, _: int, time_ns: int, __: int, data: bytes) -> None:
        value = _json(data)
        about: Any = value.get("code" if kind == "log" else "state")
        if not isinstance(about, int if kind == "log" else str):
            raise _Damaged
        self.recording.notes.append(Note(time_ns, slot, kind, str(value.get("text", "")), about))

    # ---- Arrays ----------------------------------------------------------------------------------

    def finish(self) -> Recording:
        import numpy as np

        pose = np.dtype([("sample_ns", "<i8"), ("publish_ns", "<u8"), ("frame", "<u4"),
                         ("position", "<f8", 3), ("orientation", "<f8", 4)])
        buttons = np.dtype([("time_ns", "<u8"), ("buttons", "<u4"), ("known", "<u4")])
        for kind, into, form in (("pose", self.recording.poses, pose),
                                 ("device_pose", self.recording.device_poses, pose),
                                 ("buttons", self.recording.buttons, buttons)):
            for key, rows in sorted(self._rows[kind].items()):
                if rows:
                    into[key] = np.frombuffer(rows, dtype=form)
        return self.recording


def read_recording(path: Union[str, "os.PathLike[str]"]) -> Recording:
    """Reads a file of kinetrel-record. Needs numpy.

    NotARecording: the file is not MCAP, or its chunks are compressed. OSError: it cannot be opened.
    """
    with open(path, "rb") as file:
        if file.read(len(_MAGIC)) != _MAGIC:
            raise NotARecording(os.fspath(path), "it does not begin as an MCAP file")
        reader = _Reader(file)
        reader.read()
    return reader.finish()
