"""The reader of one slot's record stream."""

from __future__ import annotations

import asyncio
import struct
import time
from types import TracebackType
from typing import (TYPE_CHECKING, Any, AsyncIterator, Dict, Iterator, List, NamedTuple,
                    Optional, Sequence, Tuple, Type)

from . import _layout as layout
from ._errors import Denied, KinetrelError, NewerVersion, NoTracker, NotAStream
from ._memory import SystemMapping, now_ns

if TYPE_CHECKING:
    import numpy

_WORD = struct.Struct("<Q")
_COUNT = struct.Struct("<I")
_CHECK_EVERY_NS = 250_000_000  # whether the slot still has the same writer
_HEARTBEAT_PATIENCE_NS = 3_000_000_000
_TRIES = 1000  # a writer needs far less than that many reads for one entry


class Record(NamedTuple):
    """What the device said of one sensor at one moment. What is not valid is NaN."""

    number: int  #: running, from 1
    frame: int  #: the same for the records of one device frame
    sensor: int  #: from 1
    sample_ns: int  #: when the device took the sample; see now_ns()
    publish_ns: int  #: when the record was published
    position: Tuple[float, float, float]  #: metres: x, y, z
    orientation: Tuple[float, float, float, float]  #: unit quaternion: w, x, y, z
    angles: Tuple[float, float, float]  #: radians: azimuth, elevation, roll
    flags: int
    code: Optional[int]  #: the device's own status code; None: it sent none
    buttons: int  #: bit i is button i
    buttons_known: int  #: the buttons that the device has

    @property
    def age(self) -> float:
        """Seconds since the device took the sample."""
        return (now_ns() - self.sample_ns) * 1e-9

    @property
    def has_position(self) -> bool:
        return bool(self.flags & layout.POSITION_VALID)

    @property
    def has_orientation(self) -> bool:
        return bool(self.flags & layout.ORIENTATION_VALID)

    @property
    def filtered(self) -> bool:
        """Whether the pose went through filters; see Tracker.device_pose."""
        return bool(self.flags & layout.FILTERED)


class Frame:
    """The records of one device frame, in the order in which they came."""

    def __init__(self, records: Sequence[Record]) -> None:
        self.number = records[0].frame
        self.records = tuple(records)

    def __iter__(self) -> Iterator[Record]:
        return iter(self.records)

    def __len__(self) -> int:
        return len(self.records)

    def __getitem__(self, sensor: int) -> Record:
        """The record of a sensor (from 1)."""
        for record in self.records:
            if record.sensor == sensor:
                return record
        raise KeyError(sensor)

    @property
    def sensors(self) -> Tuple[int, ...]:
        return tuple(record.sensor for record in self.records)


class State(NamedTuple):
    """What the tracker is doing."""

    name: str  #: starting, running, silent, recovering, stopped, failed, lost (killed) or unknown
    text: str  #: a sentence that the user can act on
    since_ns: int  #: see now_ns(); 0 unknown

    def __str__(self) -> str:
        return f"{self.name}: {self.text}" if self.text else self.name


class LogLine(NamedTuple):
    """An entry of the tracker's status log."""

    number: int
    time: float  #: seconds since 1970 UTC, as time.time()
    code: int  #: negative: a failure
    text: str


class Info(NamedTuple):
    """The run: its device and statistics. Written anew every second."""

    device: str
    device_type: int  #: as in option -d
    port: int  #: n of COMn
    sensors: Tuple[int, ...]  #: the active ones, from 1
    sensor_names: Dict[int, str]
    nominal_rate: float  #: Hz; 0 unknown
    measured_rate: float  #: Hz, of about the last second
    azimuth_zero: float  #: radians; taken off every azimuth and orientation
    latency_mean: float  #: seconds from sample to publication, of about the last second
    latency_max: float  #: seconds, of the run
    jitter: float  #: seconds, standard deviation of the time between frames
    frames: int
    failed_reads: int
    dropped: int  #: records that could not be used
    recoveries: int
    bytes_in: int
    bytes_out: int
    started_ns: int
    writer_pid: int
    filter_lag: Dict[int, float]  #: seconds, of the sensors whose filters delay moving positions


class Tracker:
    """An open stream. One thread at a time; each thread opens its own.

    Iteration yields every record from now on and never ends by itself: when the tracker's program
    ends, it waits for the next one on the slot. `state` tells why nothing comes.
    """

    def __init__(self, slot: int) -> None:
        self.slot = slot
        self.lost = 0  #: records that were overwritten before this reader came to them
        self.restarts = 0  #: how often another writer has taken over the slot
        self._next = 0
        self._check_ns = 0
        self._arrivals = 0
        self._mapping: Optional[SystemMapping] = None
        self._attach(*self._try_open())
        self.skip()

    # ---- Opening and closing ---------------------------------------------------------------------

    def _try_open(self) -> Tuple[SystemMapping, Dict[str, int]]:
        mapping = SystemMapping(self.slot)
        try:
            return mapping, self._checked_head(mapping)
        except BaseException:
            mapping.close()
            raise

    def _checked_head(self, mapping: SystemMapping) -> Dict[str, int]:
        if mapping.size < layout.HEAD.size:
            raise NotAStream(self.slot)
        fields = layout.HEAD.struct.unpack_from(mapping.view)
        head = dict(zip(layout.HEAD.names(), fields))
        if head["magic"] != layout.MAGIC or head["version"] == 0:
            raise NotAStream(self.slot)
        if head["version"] > layout.VERSION:
            raise NewerVersion(self.slot, head["version"])
        parts = (("live_offset", 1, head["live_size"], layout.LIVE.size),
                 ("run_offset", 1, head["run_size"], layout.RUN.size),
                 ("sensor_offset", head["sensor_count"], head["record_size"], layout.RECORD.size),
                 ("log_offset", head["log_count"], head["log_line_size"], layout.LOG_LINE.size),
                 ("ring_offset", head["ring_count"], head["record_size"], layout.RECORD.size))
        if head["device_pose_offset"] != 0:
            parts += (("device_pose_offset", head["ring_count"], head["device_pose_size"],
                       layout.DEVICE_POSE.size),)
        fits = (head["head_size"] >= layout.HEAD.size and head["total_size"] <= mapping.size and
                head["instance"] != 0 and head["ring_count"] >= layout.SENSORS)
        for name, count, size, known in parts:
            offset = head[name]
            fits = (fits and offset % 8 == 0 and size % 8 == 0 and size >= known and count > 0 and
                    offset >= head["head_size"] and
                    offset + count * size <= head["total_size"])
        if not fits:
            raise NotAStream(self.slot)
        return head

    def _attach(self, mapping: SystemMapping, head: Dict[str, int]) -> None:
        self._release()
        self._mapping = mapping
        self._view = mapping.view
        self._head = head
        self._live = head["live_offset"]
        self._ring = head["ring_offset"]
        self._ring_count = head["ring_count"]
        self._record_size = head["record_size"]

    def _release(self) -> None:
        mapping, self._mapping = self._mapping, None
        if mapping is not None:
            mapping.close()

    def close(self) -> None:
        """Lets go of the stream; may be called again."""
        self._release()
        self.slot = 0

    def __enter__(self) -> "Tracker":
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException],
                 trace: Optional[TracebackType]) -> None:
        self.close()

    def __del__(self) -> None:
        if getattr(self, "_mapping", None) is not None:
            self.close()

    def _follow(self) -> bool:
        """Goes over to the next writer of the slot when there is one. False: this one is left."""
        if self._mapping is not None:
            if self._mapping.is_truncated():
                self._release()  # before it is touched again
            elif not self._mapping.is_replaced() and (
                    self._view[:8] == layout.MAGIC and
                    self._word(layout.HEAD.offsets["instance"]) == self._head["instance"]):
                return True
        try:
            mapping, head = self._try_open()
        except (NoTracker, NotAStream, Denied):
            return False
        if self._mapping is not None and head["instance"] == self._head["instance"]:
            mapping.close()
            return True
        self._attach(mapping, head)
        self._next = self._oldest(self._newest())
        self.restarts += 1
        return True

    # ---- Words and entries -----------------------------------------------------------------------

    def _word(self, offset: int) -> int:
        return int(_WORD.unpack_from(self._view, offset)[0])

    def _newest(self) -> int:
        return self._word(self._live + layout.LIVE.offsets["newest"])

    def _oldest(self, newest: int) -> int:
        """The oldest record that the writer will not overwrite at once."""
        kept = self._ring_count - self._ring_count // 32
        return newest - kept + 1 if newest > kept else 1

    def _whole(self, form: layout.Layout, offset: int) -> Any:
        """A copy of an entry that the writer did not change meanwhile."""
        for _ in range(_TRIES):
            fields = form.struct.unpack_from(self._view, offset)
            if fields[0] % 2 == 0 and self._word(offset) == fields[0]:
                return fields
        return None

    @staticmethod
    def _record(f: Any) -> Record:
        return Record(f[0] // 2, f[1], f[14] + 1, f[2], f[3], f[4:7], f[7:11], f[11:14], f[15],
                      f[16] if f[15] & layout.CODE_VALID else None,
                      f[17] if f[15] & layout.BUTTONS_VALID else 0,
                      f[18] if f[15] & layout.BUTTONS_VALID else 0)

    # ---- Records ---------------------------------------------------------------------------------

    def skip(self) -> None:
        """Goes to what comes from now on."""
        if self._mapping is not None:
            self._next = self._newest() + 1

    def rewind(self) -> None:
        """Goes back to the oldest record that is still there."""
        if self._mapping is not None:
            self._next = self._oldest(self._newest())

    def _take(self) -> Optional[Record]:
        """The next record; None when it has not come yet."""
        for _ in range(_TRIES):
            newest = self._newest()
            if newest + 1 == self._next:
                return None
            if newest < self._next:
                raise NotAStream(self.slot)  # it went back
            if newest - self._next < self._ring_count:
                offset = self._ring + self._next % self._ring_count * self._record_size
                fields = layout.RECORD.struct.unpack_from(self._view, offset)
                again = self._word(offset)
                if fields[0] == again == 2 * self._next:
                    self._next += 1
                    return self._record(fields)
                if again < 2 * self._next:
                    raise NotAStream(self.slot)
            # The writer has come round: go on where it will not be soon.
            oldest = self._oldest(newest)
            if oldest > self._next:
                self.lost += oldest - self._next
                self._next = oldest
        raise NotAStream(self.slot)

    def _take_or_wait(self, seconds: float) -> Optional[Record]:
        """One look and, when nothing is there, one wait of at most `seconds` (and of 250 ms)."""
        if self.slot == 0:
            raise KinetrelError("the tracker is closed")
        damaged: Optional[NotAStream] = None
        if self._mapping is not None:
            # Before the look, so that no arrival is overslept.
            offset = self._live + layout.LIVE.offsets["arrivals"]
            self._arrivals = _COUNT.unpack_from(self._view, offset)[0]
            try:
                record = self._take()
                if record is not None:
                    return record
            except NotAStream as error:
                damaged = error
        now = now_ns()
        is_followed = True
        if damaged is not None or now >= self._check_ns:
            restarts = self.restarts
            is_followed = self._follow()
            self._check_ns = now + _CHECK_EVERY_NS if is_followed else 0
            if self.restarts != restarts:
                return None
            if is_followed and damaged is not None:
                raise damaged
        if seconds <= 0:
            return None
        self._wait_for_arrival(min(seconds, _CHECK_EVERY_NS * 1e-9) if is_followed else 0.0)
        return None

    def _wait_for_arrival(self, seconds: float) -> None:
        mapping = self._mapping
        if mapping is None or seconds <= 0:
            time.sleep(0.01)  # until the next writer comes
        else:
            mapping.wait(self._live + layout.LIVE.offsets["arrivals"], self._arrivals, seconds)

    def read(self, timeout: Optional[float] = None) -> Optional[Record]:
        """The next record; None when none came within `timeout` seconds (None: waits for ever)."""
        deadline = None if timeout is None else now_ns() + int(timeout * 1e9)
        in_vain = 0
        while True:
            left = 1.0 if deadline is None else (deadline - now_ns()) * 1e-9
            before = now_ns()
            record = self._take_or_wait(left)
            if record is not None:
                return record
            if left <= 0:
                return None
            # A damaged stream may count arrivals without records: do not spin on it.
            in_vain = in_vain + 1 if now_ns() - before < 100_000 else 0
            if in_vain > 10:
                time.sleep(0.001)

    def __iter__(self) -> Iterator[Record]:
        while True:
            record = self.read()
            if record is not None:
                yield record

    async def __aiter__(self) -> AsyncIterator[Record]:
        loop = asyncio.get_running_loop()
        while True:
            record = self.read(0)
            if record is None:
                # Only the wait is in another thread, and short: a cancelled task leaves it behind.
                await loop.run_in_executor(None, self._wait_for_arrival, 0.1)
            else:
                yield record

    def frames(self) -> Iterator[Frame]:
        """Groups the records of a device frame.

        A frame is complete when all sensors of the frame before have come, or when the next frame
        begins: a sensor that is unplugged delays one frame.
        """
        records: List[Record] = []
        expected: frozenset[int] = frozenset()
        for record in self:
            if records and record.frame != records[0].frame:
                expected = frozenset(r.sensor for r in records)
                yield Frame(records)
                records = []
            records.append(record)
            if expected and expected == {r.sensor for r in records}:
                yield Frame(records)
                records = []

    # ---- What is now -----------------------------------------------------------------------------

    def latest(self, sensor: int = 1) -> Optional[Record]:
        """The newest record of a sensor (from 1), whether iteration has come to it or not."""
        if sensor < 1 or sensor > layout.SENSORS:
            raise ValueError(f"sensor {sensor}: sensors count from 1 to {layout.SENSORS}")
        if self._mapping is None or sensor > self._head["sensor_count"]:
            return None
        offset = self._head["sensor_offset"] + (sensor - 1) * self._record_size
        fields = self._whole(layout.RECORD, offset)
        return self._record(fields) if fields is not None and fields[0] != 0 else None

    def device_pose(self, record: Record) -> Optional[Record]:
        """A filtered record with the device's own pose. None: overwritten since then."""
        if not record.filtered:
            return record
        if self._mapping is None or self._head["device_pose_offset"] == 0:
            return None
        entry = record.number % self._ring_count * self._head["device_pose_size"]
        f = self._whole(layout.DEVICE_POSE, self._head["device_pose_offset"] + entry)
        if f is None or f[0] != 2 * record.number:
            return None
        flags = record.flags & ~(layout.POSE_BITS | layout.FILTERED | layout.FILTER_FAILED)
        return record._replace(position=f[1:4], orientation=f[4:8], angles=f[8:11],
                               flags=flags | f[11] & layout.POSE_BITS)

    def latest_all(self) -> Dict[int, Record]:
        """The newest record of every sensor that has sent one."""
        found = ((sensor, self.latest(sensor)) for sensor in range(1, layout.SENSORS + 1))
        return {sensor: record for sensor, record in found if record is not None}

    def _run(self) -> Optional[Dict[str, Any]]:
        if self._mapping is None:
            return None
        fields = self._whole(layout.RUN, self._head["run_offset"])
        if fields is None:
            return None
        run = dict(zip(layout.RUN.names(), fields))
        run["filter_lag"] = fields[layout.RUN.index["filter_lag"]:]
        return run

    @property
    def state(self) -> State:
        """What the tracker is doing now. "lost": no sign of life from its program for 3 s."""
        self._follow()
        run = self._run()
        lost = State(
            "lost", "The tracker's program shows no sign of life: it was killed or held up.", 0)
        if run is None:
            return lost
        number = int(run["state"])
        heartbeat = self._word(self._live + layout.LIVE.offsets["heartbeat_ns"])
        if number not in layout.ENDED and now_ns() - heartbeat > _HEARTBEAT_PATIENCE_NS:
            return lost
        name = layout.STATES[number] if 0 < number < layout.LOST else "unknown"
        return State(name, layout.text(run["state_text"]),
                     int(run["state_since_ns"]))

    @property
    def info(self) -> Optional[Info]:
        """The device and the statistics; None while the next writer is awaited."""
        run = self._run()
        if run is None:
            return None
        raw = run["sensor_names"]
        size = layout.SENSOR_NAME_SIZE
        names = {i + 1: layout.text(raw[i * size:(i + 1) * size])
                 for i in range(layout.SENSORS)}
        mask = run["sensor_mask"]
        kept = {name: run[name] for name in Info._fields if name in run and name not in ("sensor_names", "filter_lag")}
        return Info(device=layout.text(run["device_name"]),
                    sensors=tuple(i + 1 for i in range(layout.SENSORS)
                                  if mask >> i & 1),
                    sensor_names={sensor: name for sensor, name in names.items() if name},
                    writer_pid=self._head["writer_pid"],
                    filter_lag={i + 1: lag / 1e5 for i, lag in enumerate(run["filter_lag"])
                                if lag}, **kept)

    @property
    def log(self) -> List[LogLine]:
        """The newest lines of the status log, oldest first."""
        if self._mapping is None:
            return []
        newest = self._word(self._live + layout.LIVE.offsets["log_newest"])
        count = min(self._head["log_count"], newest)
        lines = []
        for number in range(newest - count + 1, newest + 1):
            offset = (self._head["log_offset"] +
                      number % self._head["log_count"] * self._head["log_line_size"])
            fields = layout.LOG_LINE.struct.unpack_from(self._view, offset)
            if fields[0] == 2 * number == self._word(offset):
                lines.append(LogLine(number, fields[1] * 1e-9, fields[2], layout.text(fields[4])))
        return lines

    def utc(self, stream_ns: int) -> float:
        """A time of the stream (sample_ns, publish_ns) as seconds since 1970 UTC."""
        run = self._run()
        if run is None:
            raise NoTracker(self.slot)
        return float(run["utc_ns"] + stream_ns - run["clock_ns"]) * 1e-9

    def to_numpy(self, seconds: float) -> "numpy.ndarray[Any, Any]":
        """The records of the last `seconds` as a structured array, oldest first.

        Fields: number, frame, sensor (from 1), sample_ns, publish_ns, position (3), orientation
        (4: w, x, y, z), angles (3), flags, code, buttons, buttons_known. Iteration is not affected.
        Reaches back as far as the ring: at least two seconds of the fastest tracker.
        """
        import numpy as np  # the only use of it

        form = np.dtype({
            "names": ["number", "frame", "sample_ns", "publish_ns", "position", "orientation",
                      "angles", "sensor", "flags", "code", "buttons", "buttons_known"],
            "formats": ["<u8", "<u8", "<i8", "<i8", ("<f8", 3), ("<f4", 4), ("<f4", 3), "<u4",
                        "<u4", "<i4", "<u4", "<u4"],
            "offsets": [layout.RECORD.offsets[name] for name in (
                "number", "frame", "sample_ns", "publish_ns", "position", "orientation", "angles",
                "sensor", "flags", "device_code", "buttons", "buttons_known")],
            "itemsize": self._record_size if self._mapping is not None else layout.RECORD.size})
        if self._mapping is None:
            return np.empty(0, form)
        newest = self._newest()
        size = self._ring_count * self._record_size
        ring = np.frombuffer(bytes(self._view[self._ring:self._ring + size]), form).copy()
        safe = self._oldest(self._newest())  # what is older may have changed while it was copied
        ring = ring[ring["number"] % 2 == 0]
        ring["number"] //= 2
        ring = ring[(ring["number"] >= safe) & (ring["number"] <= newest) &
                    (ring["publish_ns"] >= now_ns() - int(seconds * 1e9))]
        ring["sensor"] += 1
        return ring[np.argsort(ring["number"])]


def open(slot: int = 1, timeout: Optional[float] = 10.0) -> Tracker:  # noqa: A001
    """Opens the stream of a slot (1 to 16, as in option -w), for the records from now on.

    Waits up to `timeout` seconds for a tracker (None: for ever; 0: not at all). Raises NoTracker,
    NotAStream, NewerVersion or Denied.
    """
    if slot < 1 or slot > layout.SLOTS:
        raise ValueError(f"slot {slot}: slots count from 1 to {layout.SLOTS}")
    deadline = None if timeout is None else now_ns() + int(timeout * 1e9)
    while True:
        try:
            return Tracker(slot)
        except (NoTracker, NotAStream):  # a writer that begins has no magic number yet
            if deadline is not None and now_ns() >= deadline:
                raise
        time.sleep(0.02)
