"""The Python client against a real tracker program: test_kinetrel.py BIN_DIR INCLUDE_DIR [unittest options]"""

import asyncio
import csv
import fcntl
import os
import pathlib
import random
import signal
import struct
import subprocess
import sys
import tempfile
import time
import unittest

root = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(root / "python"))
import kinetrel  # noqa: E402
from kinetrel import _layout as layout  # noqa: E402

bin_dir = pathlib.Path()
include_dir = pathlib.Path()
patience = 20.0  # seconds; generous, for loaded machines


class FreeSlot:
    """A slot that no other test and no running program uses; see tests/support/free_slot.h."""

    def __init__(self):
        end = time.monotonic() + 120
        while not any(self.take((os.getpid() + i) % 16) for i in range(16)):
            if time.monotonic() > end:
                raise RuntimeError("no free slot")
            time.sleep(0.05)

    def take(self, device):
        lock = open(pathlib.Path(tempfile.gettempdir()) / f"kinetrel-test-slot-{device}.lock", "a")
        try:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except OSError:
            lock.close()
            return False
        if any(map(in_use, pathlib.Path("/dev/shm").glob(f"KinetrelShMem{device:X}?"))):
            lock.close()
            return False
        self.lock, self.number = lock, device + 1
        return True

    def free(self):
        self.lock.close()


def in_use(path):
    """Every user of a block holds a read lock on its first byte."""
    get_open_file_lock = 36  # F_OFD_GETLK
    with open(path, "rb+") as block:
        asked = struct.pack("hhqqi4x", fcntl.F_WRLCK, os.SEEK_SET, 0, 1, 0)
        found = fcntl.fcntl(block, get_open_file_lock, asked)
        return struct.unpack_from("h", found)[0] != fcntl.F_UNLCK


def object_of(slot):
    return pathlib.Path(f"/dev/shm/KinetrelStream{slot - 1:X}")


class Program:
    """A running kinetrel with three simulated sensors."""

    def __init__(self, *options):
        self.options = options
        self.free_slot = FreeSlot()
        self.slot = self.free_slot.number
        self.start()

    def start(self):
        self.process = subprocess.Popen(
            [bin_dir / "kinetrel", "-d8", "-s0x7", "-z-", f"-w{self.slot}",
             *self.options],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def end(self, how=signal.SIGTERM):
        self.process.send_signal(how)
        self.process.wait()

    def clean_up(self):
        self.end()
        object_of(self.slot).unlink(missing_ok=True)
        self.free_slot.free()


def foreign_stream(test):
    """A slot, and the path of an object that the test puts there in place of a stream."""
    slot = FreeSlot()
    path = object_of(slot.number)
    path.unlink(missing_ok=True)
    test.addCleanup(slot.free)
    test.addCleanup(lambda: path.unlink(missing_ok=True))
    return slot.number, path


class WithTracker(unittest.TestCase):
    def setUp(self):
        self.program = Program()
        self.slot = self.program.slot
        self.addCleanup(self.program.clean_up)
        self.tracker = kinetrel.open(self.slot, patience)
        self.addCleanup(self.tracker.close)

    def read(self):
        record = self.tracker.read(patience)
        self.assertIsNotNone(record, "no record came")
        return record

    def test_every_record_comes_once_and_in_order(self):
        first = self.read()
        for number in range(first.number + 1, first.number + 300):
            record = self.read()
            self.assertEqual(record.number, number)
            self.assertIn(record.sensor, (1, 2, 3))
            self.assertLess(abs(record.age), patience)
            self.assertAlmostEqual(sum(x * x for x in record.orientation), 1.0, places=5)
        self.assertEqual(self.tracker.lost, 0)

    def test_frames_hold_every_sensor_once(self):
        frames = self.tracker.frames()
        next(frames)  # may have begun before we came
        before = next(frames)
        for _ in range(50):
            frame = next(frames)
            self.assertEqual((frame.number, frame.sensors), (before.number + 1, (1, 2, 3)))
            self.assertEqual(frame[2].sensor, 2)
            before = frame

    def test_what_is_now(self):
        self.read()
        self.assertEqual(self.tracker.state.name, "running")
        self.assertEqual(self.tracker.info.sensors, (1, 2, 3))
        self.assertIn("Running", " ".join(line.text for line in self.tracker.log))
        self.assertGreater(self.tracker.latest(1).number, 0)
        self.assertIsNone(self.tracker.latest(9))
        self.assertEqual(set(self.tracker.latest_all()), {1, 2, 3})
        self.assertLess(abs(self.tracker.utc(kinetrel.now_ns()) - time.time()), 5.0)

    def test_the_next_writer_is_followed(self):
        self.read()
        self.program.end(signal.SIGKILL)
        while self.tracker.read(0) is not None:
            pass
        self.assertIsNone(self.tracker.read(0.3))
        self.program.start()
        self.read()
        self.assertEqual(self.tracker.restarts, 1)

    def test_a_cancelled_task_leaves_no_harm(self):
        async def some(count):
            async for record in self.tracker:
                count -= 1
                if count == 0:
                    return record

        async def cancelled_while_it_waits():
            self.program.end()
            while self.tracker.read(0) is not None:
                pass
            task = asyncio.create_task(some(1))
            await asyncio.sleep(0.02)
            task.cancel()
            self.tracker.close()
            with self.assertRaises(asyncio.CancelledError):
                await task

        self.assertIsNotNone(asyncio.run(some(50)))
        asyncio.run(cancelled_while_it_waits())

    def test_numpy_is_needed_for_arrays_alone(self):
        for _ in range(30):
            self.read()
        array = self.tracker.to_numpy(60)
        self.assertEqual(set(int(n) for n in array["number"][1:] - array["number"][:-1]), {1})
        record = self.tracker.latest(2)
        same = self.tracker.to_numpy(60)
        same = same[same["number"] == record.number][0]
        self.assertEqual((same["sensor"], tuple(same["position"])), (2, record.position))
        program = (f"import sys; sys.path.insert(0, {str(root / 'python')!r}); "
                   "sys.modules['numpy'] = None; import kinetrel; "
                   f"t = kinetrel.open({self.slot}); assert t.read(20)\n"
                   "try: t.to_numpy(1)\nexcept ImportError: print('asked for numpy')")
        done = subprocess.run([sys.executable, "-c", program], capture_output=True, text=True)
        self.assertEqual(done.stdout, "asked for numpy\n", done.stderr)

    def test_interrupts_at_any_moment(self):
        program = (f"import sys; sys.path.insert(0, {str(root / 'python')!r})\n"
                   "import kinetrel\nprint('ready', flush=True)\ncount = 0\n"
                   "while count < 2000:\n"
                   "  try:\n"
                   f"    with kinetrel.open({self.slot}) as tracker:\n"
                   "      for record in tracker: assert record.sensor in (1, 2, 3)\n"
                   "  except KeyboardInterrupt:\n    count += 1\n")
        reader = subprocess.Popen([sys.executable, "-c", program], stdout=subprocess.PIPE,
                                  stderr=subprocess.PIPE)
        self.assertEqual(reader.stdout.readline(), b"ready\n")
        while reader.poll() is None:
            reader.send_signal(signal.SIGINT)
            time.sleep(random.uniform(0.0005, 0.002))
        errors = reader.communicate()[1].decode()
        # The last signals may meet the interpreter's own end.
        self.assertNotIn("Error", errors)
        self.assertIn(reader.returncode, (0, -signal.SIGINT))
        self.read()  # the tracker goes on

    def test_damaged_streams_are_told_and_cost_nothing(self):
        self.read()
        whole = object_of(self.slot).read_bytes()
        slot, path = foreign_stream(self)
        chance = random.Random(os.environ.get("KINETREL_SEED", 1))
        for case in range(2000):
            content = bytearray(whole[:chance.choice((0, 50, 112, 4096, len(whole))) if case % 4 == 0
                                      else len(whole)])
            for _ in range(chance.randrange(1, 40)):
                if content:
                    at = chance.randrange(min(len(content), chance.choice((112, 200, 4096, 10**9))))
                    content[at] = chance.randrange(256)
            path.unlink(missing_ok=True)
            path.write_bytes(content)
            try:
                with kinetrel.open(slot, 0) as tracker:
                    tracker.rewind()
                    for _ in range(20):
                        tracker.read(0)
                    tracker.state, tracker.log, tracker.info, tracker.latest_all()
            except kinetrel.KinetrelError:
                pass
        path.write_bytes(whole[:8] + (99).to_bytes(4, "little") + whole[12:])
        self.assertRaises(kinetrel.NewerVersion, kinetrel.open, slot, 0)
        path.write_bytes(bytes(len(whole)))
        self.assertRaises(kinetrel.NotAStream, kinetrel.open, slot, 0)


class WithFilter(unittest.TestCase):
    def test_a_filtered_record_has_the_devices_own_pose_beside_it(self):
        program = Program("--filter", "rigid:sensors=2,translation-m=0/0/100")
        self.addCleanup(program.clean_up)
        with kinetrel.open(program.slot, patience) as tracker:
            seen = {record.sensor: (record, tracker.device_pose(record))
                    for record in (tracker.read(patience) for _ in range(6))}
        filtered, own = seen[2]
        self.assertTrue(filtered.filtered and not own.filtered)
        self.assertAlmostEqual(filtered.position[2] - own.position[2], 100.0)
        self.assertEqual((filtered.number, filtered.position[:2]), (own.number, own.position[:2]))
        self.assertIs(*seen[1])

    def test_the_lag_of_filters_is_that_of_the_run(self):
        program = Program()
        self.addCleanup(program.clean_up)
        with kinetrel.open(program.slot, patience) as tracker:
            self.assertEqual(tracker.info.filter_lag, {})
            lag_of_2 = tracker._head["run_offset"] + layout.RUN.offsets["filter_lag"] + 2
            end = time.monotonic() + patience
            lag = {}
            while not lag and time.monotonic() < end:  # the writer has its own word each second
                with open(object_of(program.slot), "r+b") as stream:
                    stream.seek(lag_of_2)
                    stream.write((120).to_bytes(2, "little"))
                lag = tracker.info.filter_lag
        self.assertEqual(lag, {2: 0.0012})


class WithoutTracker(unittest.TestCase):
    def test_the_layout_is_that_of_the_header(self):
        lines = ["#define _GNU_SOURCE", "#include <kinetrel/stream.h>"]
        for name, form in (("stream_head", layout.HEAD), ("stream_live", layout.LIVE),
                           ("record", layout.RECORD), ("run", layout.RUN),
                           ("device_pose", layout.DEVICE_POSE),
                           ("log_line", layout.LOG_LINE)):
            lines.append(f"_Static_assert(sizeof(kinetrel_{name}) == {form.size}, \"\");")
            lines += [f"_Static_assert(offsetof(kinetrel_{name}, {field}) == {offset}, \"{field}\");"
                      for field, offset in form.offsets.items()]
        lines += [f"_Static_assert(kinetrel_state_{name} == {number}, \"\");"
                  for number, name in enumerate(layout.STATES)]
        with tempfile.NamedTemporaryFile("w", suffix=".c") as source:
            source.write("\n".join(lines))
            source.flush()
            subprocess.run(["cc", "-std=c11", "-fsyntax-only", "-Wno-unused", f"-I{include_dir}",
                            source.name], check=True)

    def test_refusals(self):
        slot = foreign_stream(self)[0]
        with self.assertRaisesRegex(kinetrel.NoTracker, f"slot {slot}: no tracker"):
            kinetrel.open(slot, 0)
        self.assertRaises(ValueError, kinetrel.open, 17)
        done = subprocess.run([sys.executable, "-m", "kinetrel", "--slot", str(slot), "--log"],
                              cwd=root / "python", capture_output=True, text=True)
        self.assertEqual((done.returncode, done.stderr),
                         (2, f"slot {slot}: no tracker publishes there\n"))


class WithRecording(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.path = pathlib.Path(folder.name) / "a.mcap"
        program = Program("--filter", "rigid:sensors=2,translation-m=0/0/100")
        cls.addClassCleanup(program.clean_up)
        with subprocess.Popen([bin_dir / "kinetrel-record", cls.path, f"--slot={program.slot}",
                               "--seconds=1.5"], stdin=subprocess.PIPE,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as recorder:
            while not cls.path.exists():
                time.sleep(0.01)
            recorder.stdin.write(b"begin\n")
            recorder.stdin.flush()
            recorder.wait()
        cls.slot = program.slot
        subprocess.run([bin_dir / "kinetrel-record", cls.path, "--to-csv"], check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        cls.recording = kinetrel.read_recording(cls.path)

    def test_the_arrays_are_those_of_the_table(self):
        with open(self.path.with_suffix(".csv"), newline="") as file:
            rows = list(csv.DictReader(file))
        for sensor in (1, 2, 3):
            poses = self.recording.poses[self.slot, sensor]
            of_sensor = [row for row in rows if row["sensor"] == str(sensor)]
            self.assertEqual(len(poses), len(of_sensor))
            self.assertGreater(len(poses), 20)
            for i, axis in enumerate("xyz"):
                column = next(name for name in rows[0] if name.lower().startswith(axis))
                for pose, row in zip(poses, of_sensor):
                    self.assertAlmostEqual(pose["position"][i], float(row[column]), 5)
            lengths = (poses["orientation"] ** 2).sum(axis=1)
            self.assertLess(abs(lengths - 1).max(), 1e-6)
            self.assertTrue((poses["publish_ns"] >= poses["sample_ns"]).all())
            self.assertTrue((poses["frame"][1:] > poses["frame"][:-1]).all())
        self.assertEqual(list(self.recording.device_poses), [(self.slot, 2)])
        own = self.recording.device_poses[self.slot, 2]["position"]
        self.assertAlmostEqual((self.recording.poses[self.slot, 2]["position"] - own)[0][2], 100)
        self.assertLess(abs(self.recording.poses[self.slot, 1]["sample_ns"][-1] * 1e-9 -
                            time.time()), 600)

    def test_what_else_was_recorded(self):
        self.assertEqual([marker.text for marker in self.recording.markers], ["begin"])
        self.assertIn("running", [note.value for note in self.recording.notes])
        self.assertTrue(self.recording.whole)
        self.assertEqual(self.recording.damaged, 0)
        self.assertIn("version", self.recording.about)

    def test_damage_costs_only_itself(self):
        whole = self.path.read_bytes()
        path = self.path.with_name("damaged.mcap")
        every = self.recording.poses[self.slot, 1]
        source = random.Random(3)
        counts = []
        for size in sorted(source.randrange(8, len(whole)) for _ in range(200)):
            path.write_bytes(whole[:size])
            cut = kinetrel.read_recording(path)
            poses = cut.poses.get((self.slot, 1), every[:0])
            self.assertTrue((poses == every[:len(poses)]).all())
            self.assertFalse(cut.whole)
            counts.append(len(poses))
        self.assertEqual(counts, sorted(counts))
        self.assertGreater(counts[150], len(every) // 2)  # most of what lies before the cut
        for _ in range(200):
            damaged = bytearray(whole)
            for _ in range(source.randrange(1, 5)):
                damaged[source.randrange(8, len(whole))] = source.randrange(256)
            path.write_bytes(damaged)
            try:
                left = kinetrel.read_recording(path).poses.get((self.slot, 1), every[:0])
                self.assertLessEqual(set(left["position"].flat), set(every["position"].flat))
            except kinetrel.NotARecording:
                pass
        path.write_bytes(b"\x89PNG\r\n" + whole)
        self.assertRaisesRegex(kinetrel.NotARecording, "begin", kinetrel.read_recording, path)
        self.assertRaises(FileNotFoundError, kinetrel.read_recording, "nowhere.mcap")


if __name__ == "__main__":
    bin_dir, include_dir = map(pathlib.Path, sys.argv[1:3])
    unittest.main(argv=sys.argv[:1] + sys.argv[3:])
