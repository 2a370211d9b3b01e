#!/usr/bin/env python3
"""Makes captures of emulated trackers, and replays captures.

  captures.py make BIN_DIR FOLDER [SECONDS] [NAME...]   one capture per row of the table below
  captures.py check BIN_DIR FILE...                     replays each; exit code 1 if the poses differ

A replay is right when the real program publishes the poses of the capture: the same bits, of the
same sensors, in the same order.
"""

import os
import pathlib
import signal
import struct
import subprocess
import sys
import tempfile
import time

# Name of the capture, device and options of its emulator, options of the program.
rows = {
    "fastrak": ("fastrak", ["--receivers", "2"], ["--device", "fastrak", "--sensors", "1-2"]),
    "fastrak-polled": ("fastrak", ["--receivers", "1"], ["--device", "fastrak", "--no-streaming"]),
    "insidetrak": ("fastrak", ["--model", "insidetrak"], ["--device", "fastrak"]),
    "isotrak2": ("fastrak", ["--model", "isotrak2"], ["--device", "fastrak"]),
    "is600": ("fastrak", ["--model", "is600"], ["--device", "fastrak"]),
    "flock": ("flock", ["--birds", "2"], ["--device", "flock", "--sensors", "1-2"]),
    "pan-tilt": ("pan-tilt", [], ["--device", "pan-tilt"]),
    "logitech": ("logitech", [], ["--device", "logitech"]),
    "intertrax": ("intertrax", ["--rate", "20"], ["--device", "intertrax"]),
    "gps": ("gps", [], ["--device", "gps"]),
}
tail_allowed = 8  # poses that were received at the end of the captured run, but not published
time_allowed = 60  # s
attempts = 3


def free_slot():
    """A slot whose stream no process has."""
    taken = os.listdir("/dev/shm")
    return next(slot for slot in range(16, 0, -1) if f"KinetrelStream{slot - 1:X}" not in taken)


def records(data):
    """Opcode and content of the records in `data`, up to a cut."""
    at = 0
    while at + 9 <= len(data):
        opcode, length = struct.unpack_from("<BQ", data, at)
        if opcode == 0 or at + 9 + length > len(data):
            return
        yield opcode, data[at + 9:at + 9 + length]
        at += 9 + length


def poses(path):
    """Sensor and the bytes of position and orientation, of every published pose of a capture."""
    found, topics = [], {}
    for opcode, content in records(path.read_bytes()[8:]):
        if opcode == 0x0F:  # what follows are copies
            break
        if opcode != 0x06:
            continue
        name = struct.unpack_from("<I", content, 28)[0]
        for inner, message in records(content[28 + 4 + name + 8:]):
            if inner == 0x04:
                number, _, length = struct.unpack_from("<HHI", message)
                topics[number] = message[8:8 + length].decode()
            elif inner == 0x05:
                topic = topics[struct.unpack_from("<H", message)[0]]
                if topic.endswith("/pose"):
                    found.append((topic.split("/")[4], message[-56:]))
    return found


class Running:
    """A program that ends with the test."""

    def __init__(self, arguments, environment=None):
        self.log = tempfile.TemporaryFile("w+")
        self.process = subprocess.Popen([str(a) for a in arguments], stdin=subprocess.DEVNULL,
                                        stdout=self.log, stderr=subprocess.STDOUT,
                                        env=dict(os.environ, **(environment or {})))

    def text(self):
        self.log.seek(0)
        return self.log.read()

    def end(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGINT)
        return self.process.wait(30)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()


def wait_until(condition, what, seconds=time_allowed):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise RuntimeError(f"no {what} within {seconds} s")
        time.sleep(0.02)


def tracker(bin_dir, port, options, capture):
    return Running([bin_dir / "kinetrel", *options, "--slot", free_slot(), "--quiet", "--capture", capture],
                   {"KINETREL_COM1": str(port)})


def make(bin_dir, folder, seconds, names):
    folder.mkdir(parents=True, exist_ok=True)
    for name in names or rows:
        device, of_emulator, of_tracker = rows[name]
        with tempfile.TemporaryDirectory() as temporary:
            port, path = pathlib.Path(temporary) / "port", folder / f"{name}.mcap"
            path.unlink(missing_ok=True)
            with Running([bin_dir / "kinetrel-emulate", device, "--link", port, *of_emulator, "--motion", "ramp",
                          "--fault", "noise@usr1", "--fault", "unplug:0.2@usr2"]) as emulator:
                wait_until(port.is_symlink, "port")
                with tracker(bin_dir, port, of_tracker, path) as program:
                    wait_until(lambda: "Running ..." in program.text(), "run of " + name)
                    time.sleep(seconds / 3)
                    emulator.process.send_signal(signal.SIGUSR1)
                    time.sleep(seconds / 3)
                    emulator.process.send_signal(signal.SIGUSR2)
                    wait_until(lambda: " is back after " in program.text(), "recovery of " + name)
                    time.sleep(seconds / 3)
                    program.end()
        print(f"{name}: {path.stat().st_size} bytes, {len(poses(path))} poses")


def check(bin_dir, path):
    wanted = poses(path)
    with tempfile.TemporaryDirectory() as temporary:
        port, config, again = (pathlib.Path(temporary) / name for name in ("port", "config", "again"))
        with Running([bin_dir / "kinetrel-emulate", "replay", path, "--link", port, "--config", config]) as replay:
            wait_until(port.is_symlink, "port: " + replay.text())
            with tracker(bin_dir, port, ["--config", config], again) as program:
                wait_until(lambda: "the capture has ended" in replay.text(), "end of " + str(path))
                program.end()
                said = program.text()
            told = replay.text()
        seen = poses(again)
    if wanted and seen[:len(wanted)] == wanted and len(seen) <= len(wanted) + tail_allowed:
        print(f"{path.name}: {len(wanted)} poses are the same")
        return True
    differs = next((i for i, pair in enumerate(zip(wanted, seen)) if pair[0] != pair[1]), min(len(seen), len(wanted)))
    print(f"{path.name}: {len(wanted)} poses captured, {len(seen)} replayed, the first that differs is "
          f"number {differs}\n--- replay\n{told}\n--- program\n{said}")
    return False


def main():
    task, bin_dir = sys.argv[1], pathlib.Path(sys.argv[2])
    if task == "make":
        seconds = float(sys.argv[4]) if len(sys.argv) > 4 else 0.6
        make(bin_dir, pathlib.Path(sys.argv[3]), seconds, sys.argv[5:])
        return 0
    # Drivers that poll wait a tenth of a second; on a busy machine the answer may come later.
    good = [any(check(bin_dir, pathlib.Path(path)) for _ in range(attempts)) for path in sys.argv[3:]]
    return 0 if all(good) else 1


if __name__ == "__main__":
    sys.exit(main())
