"""What other people's programs receive from kinetrel-bridge: test_receivers.py BIN_DIR [unittest options]

A FASTRAK that is emulated holds one pose with two sensors. All runs in a network of its own, since
PosiStageNet, OpenTrackIO and LSL send to every machine around. Exit code 77: such a network cannot be
made here.

With KINETREL_TEST_WINDOWS, the folder of the programs for Windows, tracker and bridge run under Wine. The
receivers and the emulator stay outside. WINEPREFIX must have no server yet, since a server's sockets belong to
the network that it was started in."""

import ctypes
import datetime
import fcntl
import json
import math
import os
import pathlib
import platform
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import termios
import time
import unittest
import xml.etree.ElementTree

here = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(here.parent / "python"))
import test_kinetrel  # noqa: E402

bin_dir = pathlib.Path()
patience = 60.0  # seconds; generous, for loaded machines and Wine
npm = here.parent / "npm"
liblsl = npm / "node_modules" / "lsl.js/prebuilt/liblsl64.so"
windows = os.environ.get("KINETREL_TEST_WINDOWS")
on_linux = unittest.skipIf(windows, "of Linux alone")

# Half a metre forward, a quarter to the left, an eighth down; azimuth 30, elevation 20, roll 10 degrees.
HELD = "hold:50,-25,12.5,30,20,10"
QUATERNION = (0.951548525, 0.038134576, 0.189307857, 0.239298338)  # w x y z of the tracker's frame


def set_up_network():
    for change in ("link set lo up", "link set lo multicast on", "route replace 224.0.0.0/4 dev lo",
                   "route replace default dev lo",
                   "link add ka type veth peer name kb", "link set ka up", "link set kb up",
                   "-6 addr add fe80::5/64 dev ka nodad"):
        subprocess.run(["ip", *change.split()], check=True)


def in_own_network():
    """Starts this script again where nothing leaves the machine."""
    if subprocess.run(["unshare", "-rn", "true"], capture_output=True).returncode != 0:
        sys.exit(77)
    os.environ["KINETREL_TEST_OWN_NETWORK"] = "1"
    os.execvp("unshare", ["unshare", "-rn", sys.executable, *sys.argv])


def command(name):
    """Of one of our programs."""
    return ["wine", os.path.join(windows, name + ".exe")] if windows else [bin_dir / name]


class Held:
    """kinetrel with an emulated FASTRAK."""

    def __init__(self):
        self.slot = test_kinetrel.FreeSlot()
        self.folder = tempfile.TemporaryDirectory()
        link = str(pathlib.Path(self.folder.name) / "line")
        port, environment = "-p1", {"KINETREL_COM1": link}
        if windows:
            link = os.path.join(os.environ["WINEPREFIX"], "dosdevices", "com3")
            port, environment = "-p3", {"KINETREL_ANY_MAX_BAUD": "1"}
            # Wine looks for ports while it starts, and would do so beside the tracker.
            subprocess.run(["wine", "cmd", "/c", "exit"], stdin=subprocess.DEVNULL, check=True)
            pathlib.Path(link).unlink(missing_ok=True)
        quiet = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
        self.emulator = subprocess.Popen([bin_dir / "kinetrel-emulate", "fastrak", "--link", link,
                                          "--motion", HELD, "--fault", "unplug@usr1"], **quiet)
        wait_until(lambda: os.path.islink(link))
        said = pathlib.Path(self.folder.name) / "said"
        with open(said, "wb") as output:
            self.tracker = subprocess.Popen(
                [*command("kinetrel"), "-d2", port, "-s0x3", "-z-", f"-w{self.slot.number}"],
                env={**os.environ, **environment},
                **{**quiet, "stdout": output, "stderr": output})
        wait_until(lambda: b"Running" in said.read_bytes() or self.tracker.poll() is not None)
        if self.tracker.poll() is not None:
            what = said.read_text(errors="replace")
            self.end()
            raise AssertionError(f"kinetrel ended: {what}")

    def end(self):
        for process in (self.tracker, self.emulator):
            process.terminate()
            process.wait(patience)
        self.slot.free()
        self.folder.cleanup()


def wait_until(condition):
    end = time.monotonic() + patience
    while not condition():
        if time.monotonic() > end:
            raise AssertionError("what was waited for did not come")
        time.sleep(0.01)


class BridgeCase(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.held = Held()
        cls.addClassCleanup(cls.held.end)
        cls.number = cls.held.slot.number

    def start(self, program, *arguments, **options):
        process = subprocess.Popen([program, *map(str, arguments)], stdin=subprocess.DEVNULL, text=True,
                                   **{"stdout": subprocess.PIPE, **options})
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def bridge(self, *outputs, **options):
        return self.start(*command("kinetrel-bridge"), f"--slot={self.number}", "--status=0", "--",
                          *outputs, stdout=subprocess.PIPE, **options)

    def receive(self, output, port, group=None):
        """The next datagram of an output of the bridge."""
        v6 = group and ":" in group
        with socket.socket(socket.AF_INET6 if v6 else socket.AF_INET, socket.SOCK_DGRAM) as receiver:
            receiver.settimeout(patience)
            receiver.bind(("::" if v6 else "0.0.0.0", port))
            if v6:
                receiver.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_JOIN_GROUP,
                                    socket.inet_pton(socket.AF_INET6, group) +
                                    struct.pack("@I", socket.if_nametoindex("kb")))
            elif group:
                receiver.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                                    socket.inet_aton(group) + socket.inet_aton("127.0.0.1"))
            bridge = self.bridge(output)
            packet = receiver.recv(65536)
            bridge.kill()
            return packet

    def assert_near(self, seen, expected, delta):
        self.assertEqual(len(seen), len(expected), seen)
        for one, other in zip(seen, expected):
            self.assertAlmostEqual(one, other, delta=delta, msg=f"{seen} {expected}")

    def assert_fresh(self, age):
        self.assertGreater(age, -0.001)
        self.assertLess(age, 1.0)


class Datagrams(BridgeCase):
    def test_free_d(self):
        packet = self.receive("freed://127.0.0.1:6301?camera=5&sensors=1", 6301)
        self.assertEqual((len(packet), packet[0], packet[1], sum(packet) & 255), (29, 0xD1, 5, 0x40))
        numbers = [int.from_bytes(packet[at:at + 3], "big", signed=True) for at in range(2, 20, 3)]
        self.assert_near([n / 32768 for n in numbers[:3]], (30, 20, 10), 0.01)
        self.assert_near([n / 64 for n in numbers[3:]], (-250, 500, -125), 0.1)

    def test_free_d_turned_round(self):
        packet = self.receive("freed://127.0.0.1:6301?flip=pan,height", 6301)
        self.assertAlmostEqual(int.from_bytes(packet[2:5], "big", signed=True) / 32768, -30, delta=0.01)
        self.assertAlmostEqual(int.from_bytes(packet[17:20], "big", signed=True) / 64, 125, delta=0.1)

    def test_opentrack(self):
        packet = self.receive("opentrack", 4242)
        self.assert_near(struct.unpack("<6d", packet), (25, -12.5, -50, 30, 20, -10), 0.01)

    def test_dtrack(self):
        text = self.receive("dtrack://127.0.0.1?name=body", 5000).decode()
        now = datetime.datetime.now(datetime.timezone.utc)
        midnight = now.replace(hour=0, minute=0, second=0, microsecond=0)
        lines = text.split("\r\n")
        self.assertRegex(lines[0], r"^fr [1-9]\d*$")
        age = (now - midnight).total_seconds() - float(re.fullmatch(r"ts (\d+\.\d{6})", lines[1])[1])
        self.assert_fresh((age + 43200) % 86400 - 43200)
        self.assertEqual(lines[2], "6dcal 2")
        # A body that a packet leaves out would count as lost.
        bodies = re.fullmatch(r"6d 2 \[0 1\.000\]\[(.*)\]\[(.*)\] \[1 1\.000\]\[.*\]\[.*\]", lines[3])
        self.assertTrue(bodies, lines[3])
        self.assertEqual(lines[4:], [""])
        self.assert_near([float(n) for n in bodies[1].split()],
                         (500, 250, -125, -1.1161, -22.2422, -28.4518), 0.1)
        self.assert_near([float(n) for n in bodies[2].split()],
                         (0.813798, -0.469846, 0.342020, 0.440970, 0.882564, 0.163176, -0.378522, 0.018028,
                          0.925417), 2e-4)

    def test_open_track_io(self):
        packet = self.receive("opentrackio?sensors=2&source=7", 55555, "239.135.1.7")
        mark, _, encoding, sequence, offset, length, checksum = struct.unpack(">4sBBHIHH", packet[:16])
        self.assertEqual((mark, encoding, offset, length), (b"OTrk", 1, 0, 0x8000 | len(packet) - 16))
        first = second = 0
        for byte in packet[:14] + packet[16:]:
            first = (first + byte) % 256
            second = (second + first) % 256
        self.assertEqual(checksum, second * 256 + first)
        sample = json.loads(packet[16:])
        self.assertEqual(sample["protocol"], {"name": "OpenTrackIO", "version": [1, 0, 1]})
        self.assertRegex(sample["sampleId"],
                         "^urn:uuid:[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}$")
        self.assertEqual((sample["sourceNumber"], sample["tracker"]["status"]), (7, "ok"))
        stamp = sample["timing"]["sampleTimestamp"]
        self.assert_fresh(time.time() - stamp["seconds"] - stamp["nanoseconds"] * 1e-9)
        self.assertEqual(sample["timing"]["sequenceNumber"], sequence)
        [transform] = sample["transforms"]
        self.assert_near([transform["translation"][axis] for axis in "xyz"], (-0.25, 0.5, -0.125), 1e-4)
        self.assert_near([transform["rotation"][axis] for axis in ("pan", "tilt", "roll")], (-30, 20, 10),
                         0.01)

    @on_linux  # Wine does not choose the interface
    def test_groups_of_ipv6_have_an_interface_by_name(self):
        packet = self.receive("freed://[ff15::6b74]:6301?interface=ka", 6301, "ff15::6b74")
        self.assertEqual((len(packet), packet[0]), (29, 0xD1))
        done = subprocess.run([*command("kinetrel-bridge"), "freed://[ff15::6b74]:6301?interface=nowhere"],
                              capture_output=True, text=True, timeout=patience)
        self.assertEqual(done.returncode, 2)
        self.assertIn("interface nowhere cannot be used", done.stderr)

    def test_axes_of_the_operator_turn_the_angles_too(self):
        packet = self.receive("freed://127.0.0.1:6301?axes=-y,x,-z", 6301)  # x to the left: mirrored
        numbers = [int.from_bytes(packet[at:at + 3], "big", signed=True) for at in range(2, 20, 3)]
        self.assert_near([n / 32768 for n in numbers[:3]], (-30, 20, -10), 0.01)
        self.assert_near([n / 64 for n in numbers[3:]], (250, 500, -125), 0.1)


@unittest.skipUnless(shutil.which("oscdump"), "needs liblo-tools")
class Osc(BridgeCase):
    def dump(self, output, port, wanted):
        """What oscdump prints of the output until it has printed all that is wanted: the arguments of the
        last message of each address, and the time tag."""
        receiver = self.start("oscdump", "-L", port)
        wait_until(lambda: f":{port:04X} " in pathlib.Path("/proc/net/udp").read_text() +
                   pathlib.Path("/proc/net/udp6").read_text())
        bridge = self.bridge(output)
        seen = {}
        while not all(address in seen for address in wanted):
            words = receiver.stdout.readline().split()
            seen[words[1]] = (words[0], words[2:])
        bridge.kill()
        return seen

    def floats(self, message, types, first=0):
        self.assertEqual(message[1][0], types)
        return [float(word) for word in message[1][1 + first:]]

    def test_plain(self):
        root = f"/kinetrel/{self.number}"
        seen = self.dump("osc://127.0.0.1?time=yes", 9000,
                         [f"{root}/sensor/1/pose", f"{root}/sensor/2/pose", f"{root}/frame"])
        pose = seen[f"{root}/sensor/1/pose"]
        w, x, y, z = QUATERNION
        self.assert_near(self.floats(pose, "fffffff"), (0.5, -0.25, 0.125, x, y, z, w), 2e-4)
        seconds, fraction = (int(word, 16) for word in pose[0].split("."))
        self.assert_fresh(time.time() - (seconds - 2208988800 + fraction / 2**32))

    def test_vrchat(self):
        seen = self.dump("osc:///vrchat?sensors=2,1&head=1", 9000,
                         [f"/tracking/trackers/{tracker}/{what}" for tracker in ("1", "head")
                          for what in ("position", "rotation")])
        for tracker in ("1", "head"):
            self.assert_near(self.floats(seen[f"/tracking/trackers/{tracker}/position"], "fff"),
                             (-0.25, -0.125, 0.5), 1e-4)
            self.assert_near(self.floats(seen[f"/tracking/trackers/{tracker}/rotation"], "fff"),
                             (-20, 30, -10), 0.01)

    def test_vmc(self):
        seen = self.dump("osc:///vmc?sensors=2&name=hand", 39540,
                         ["/VMC/Ext/Tra/Pos", "/VMC/Ext/OK", "/VMC/Ext/T"])
        self.assertEqual(seen["/VMC/Ext/Tra/Pos"][1][1], '"hand"')
        w, x, y, z = QUATERNION
        self.assert_near(self.floats(seen["/VMC/Ext/Tra/Pos"], "sfffffff", 1),
                         (-0.25, -0.125, 0.5, -y, z, -x, w), 2e-4)

    def test_adm(self):
        seen = self.dump("osc://127.0.0.1/adm?extent=2.5,2.5,1.25&listener=2", 4001,
                         ["/adm/obj/1/xyz", "/adm/lis/xyz", "/adm/lis/ypr"])
        for address in ("/adm/obj/1/xyz", "/adm/lis/xyz"):
            self.assert_near(self.floats(seen[address], "fff"), (-0.1, 0.2, -0.1), 1e-4)
        self.assert_near(self.floats(seen["/adm/lis/ypr"], "fff"), (-30, 20, 10), 0.01)

    def test_a_lost_tracker_is_told_once(self):
        receiver = self.start("oscdump", "-L", 9000)
        self.bridge("osc://127.0.0.1?sensors=1")
        lines = []

        def read_until(word):
            lines.append(receiver.stdout.readline())
            while word not in lines[-1]:
                lines.append(receiver.stdout.readline())

        read_until("/pose")
        self.held.emulator.send_signal(signal.SIGUSR1)  # pulled out, and plugged in again
        read_until("/lost")
        read_until("/pose")
        self.assertEqual(sum("/lost" in line for line in lines), 1, lines)


@unittest.skipUnless((npm / "node_modules/@jwetzell/posistagenet").is_dir(), "needs tests/npm")
class PosiStageNet(BridgeCase):
    def test_pose_name_time_and_loss(self):
        receiver = self.start("node", npm / "psn_receiver.js")
        self.assertEqual(receiver.stdout.readline(), '"ready"\n')
        self.bridge("psn?system=stage&name=hand")

        def state_with(condition):
            state = json.loads(receiver.stdout.readline())
            while not condition(state):
                state = json.loads(receiver.stdout.readline())
            return state

        state = state_with(lambda s: s["system"] and len(s["trackers"]) == 2)
        self.assertEqual(state["system"], "stage")
        for number in (1, 2):
            tracker = state["trackers"][str(number)]
            self.assertEqual((tracker["id"], tracker["name"], tracker["validity"]),
                             (number, f"hand{number}", 1))
            self.assert_near([tracker["pos"][axis] for axis in "xyz"], (-0.25, -0.125, 0.5), 1e-4)
            self.assert_near([tracker["ori"][axis] for axis in "xyz"], (-0.384852, 0.486479, -0.077525),
                             2e-4)
        self.held.emulator.send_signal(signal.SIGUSR1)  # pulled out, and plugged in again
        for validity in (0, 1):
            state_with(lambda s: all(t["validity"] == validity for t in s["trackers"].values()))

    def test_stamps_are_on_the_clock_of_the_packet(self):
        packet = self.receive("psn?sensors=2&tracker=40", 56565, "236.10.10.10")
        self.assertEqual(len(packet), 24 + 56)
        now, = struct.unpack_from("<Q", packet, 8)
        number, = struct.unpack_from("<H", packet, 24)
        stamp, = struct.unpack_from("<Q", packet, 72)
        self.assertEqual(number, 40)
        self.assert_fresh((now - stamp) * 1e-6)


class Lsl:
    """The functions of liblsl that an inlet needs."""

    def __init__(self):
        self.library = ctypes.CDLL(str(liblsl))
        handle, text, seconds, error = (ctypes.c_void_p, ctypes.c_char_p, ctypes.c_double,
                                        ctypes.POINTER(ctypes.c_int32))
        for name, result, arguments in (
                ("lsl_local_clock", seconds, []),
                ("lsl_resolve_byprop", ctypes.c_int32, [ctypes.POINTER(handle), ctypes.c_uint32, text, text,
                                                        ctypes.c_int32, seconds]),
                ("lsl_create_inlet", handle, [handle, ctypes.c_int32, ctypes.c_int32, ctypes.c_int32]),
                ("lsl_get_fullinfo", handle, [handle, seconds, error]),
                ("lsl_get_xml", text, [handle]),
                ("lsl_pull_sample_f", seconds, [handle, ctypes.POINTER(ctypes.c_float), ctypes.c_int32,
                                                seconds, error]),
                ("lsl_destroy_inlet", None, [handle])):
            function = getattr(self.library, name)
            function.restype, function.argtypes = result, arguments
            setattr(self, name[4:], function)

    def open(self, name):
        found = ctypes.c_void_p()
        if self.resolve_byprop(ctypes.byref(found), 1, b"name", name.encode(), 1, patience) != 1:
            raise AssertionError(f"no stream {name}")
        return self.create_inlet(found, 360, 0, 1)

    def pull(self, inlet, channels):
        values, error = (ctypes.c_float * channels)(), ctypes.c_int32()
        stamp = self.pull_sample_f(inlet, values, channels, patience, ctypes.byref(error))
        if stamp == 0 or error.value != 0:
            raise AssertionError(f"no sample: {error.value}")
        return stamp, list(values)

    def description(self, inlet):
        error = ctypes.c_int32()
        info = self.get_fullinfo(inlet, patience, ctypes.byref(error))
        return xml.etree.ElementTree.fromstring(self.get_xml(info).decode())


@unittest.skipUnless(liblsl.is_file() and platform.machine() == "x86_64", "needs tests/npm")
class LabStreamingLayer(BridgeCase):
    def lsl_bridge(self, output="lsl"):
        library = "Z:" + str(liblsl.with_suffix(".dll")) if windows else str(liblsl)
        return self.bridge(output, env={**os.environ, "KINETREL_LSL": library})

    def test_stream(self):
        lsl = Lsl()
        bridge = self.lsl_bridge("lsl?name=hand")
        inlet = lsl.open(f"Kinetrel-{self.number}")
        self.addCleanup(lsl.destroy_inlet, inlet)
        info = lsl.description(inlet)
        self.assertEqual([info.findtext(key) for key in ("type", "channel_count", "nominal_srate",
                                                         "channel_format", "source_id")],
                         ["MoCap", "16", "0", "float32",
                          f"kinetrel-{socket.gethostname()}-{self.number}"])
        channels = [[channel.findtext(key) for key in ("label", "object", "type", "unit")]
                    for channel in info.iterfind("desc/channels/channel")]
        self.assertEqual(channels[:8], [
            ["s1_x", "hand1", "PositionX", "meters"], ["s1_y", "hand1", "PositionY", "meters"],
            ["s1_z", "hand1", "PositionZ", "meters"], ["s1_qw", "hand1", "OrientationA", "quaternion"],
            ["s1_qx", "hand1", "OrientationB", "quaternion"],
            ["s1_qy", "hand1", "OrientationC", "quaternion"],
            ["s1_qz", "hand1", "OrientationD", "quaternion"], ["s1_c", "hand1", "Confidence", "normalized"]])
        self.assertEqual([channel[0] for channel in channels[8:]],
                         ["s2_" + part for part in ("x", "y", "z", "qw", "qx", "qy", "qz", "c")])
        self.assertEqual(info.findtext("desc/setup/axes"), "x forward, y right, z down")
        self.assertTrue(info.findtext("desc/acquisition/model"))

        last = 0
        for _ in range(20):
            stamp, values = lsl.pull(inlet, 16)
            self.assert_fresh(lsl.local_clock() - stamp)
            self.assertGreaterEqual(stamp, last)
            last = stamp
            expected = (0.5, -0.25, 0.125, *QUATERNION, 1)
            self.assert_near(values, (*expected, *expected), 2e-4)

        if not windows:  # After a stop the newest samples come, and no queue of those in between.
            bridge.send_signal(signal.SIGSTOP)
            stopped = lsl.local_clock()
            time.sleep(2)
            resumed = lsl.local_clock()
            bridge.send_signal(signal.SIGCONT)
            stamps = [last]
            while stamps[-1] < resumed:
                stamps.append(lsl.pull(inlet, 16)[0])
            last = stamps[-1]
            self.assertLess(sum(stopped + 0.1 < stamp < resumed - 0.1 for stamp in stamps), 5)

        # An inlet finds the stream of a bridge that was started again.
        bridge.kill()
        bridge.wait()
        self.lsl_bridge()
        stamp, _ = lsl.pull(inlet, 16)
        while stamp == last:
            stamp, _ = lsl.pull(inlet, 16)
        self.assertGreater(stamp, last)

    @on_linux
    def test_a_library_that_cannot_be_used(self):
        for file, complaint in (("/nowhere/liblsl.so", "/nowhere/liblsl.so: cannot open"),
                                ("libm.so.6", "lacks the function lsl_create_streaminfo")):
            done = subprocess.run([bin_dir / "kinetrel-bridge", "lsl"], capture_output=True, text=True,
                                  env={**os.environ, "KINETREL_LSL": file}, timeout=patience)
            self.assertEqual((done.returncode, done.stderr.count("\n")), (2, 1), done.stderr)
            self.assertIn(complaint, done.stderr)


@on_linux
class FullPipe(BridgeCase):
    def test_it_holds_up_neither_poses_nor_the_end(self):
        reader, errors = os.pipe()
        self.addCleanup(os.close, reader)
        os.set_blocking(errors, False)
        with self.assertRaises(BlockingIOError):
            while True:
                os.write(errors, b"x")
        os.set_blocking(errors, True)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as receiver:
            receiver.settimeout(patience)
            receiver.bind(("127.0.0.1", 6303))
            # The dry run fills standard output, which is not read here either.
            program = (bin_dir / "kinetrel-bridge", f"--slot={self.number}", "--status=1")
            bridge = self.start(*program, "freed://127.0.0.1:6303?sensors=1", stderr=errors)
            dry = self.start(*program, "dtrack://127.0.0.1?sensors=1", "--dry-run", stderr=errors)
            os.close(errors)
            for _ in range(500):  # while the table is due several times
                receiver.recv(64)
        wait_until(lambda: struct.unpack("i", fcntl.ioctl(dry.stdout, termios.FIONREAD, b"    "))[0] > 60000)
        for process in (bridge, dry):
            asked = time.monotonic()
            process.terminate()
            self.assertEqual(process.wait(patience), 0)
            self.assertLess(time.monotonic() - asked, 10)  # 1 s, on a machine that is free


class LostNetwork(BridgeCase):
    def test_it_is_told_once_and_the_other_outputs_go_on(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as receiver, \
                tempfile.NamedTemporaryFile("r") as said, open(said.name, "w") as errors:
            receiver.settimeout(patience)
            receiver.bind(("127.0.0.1", 6302))
            self.bridge("opentrack://192.0.2.1", "freed://127.0.0.1:6302?sensors=1", stderr=errors)
            receiver.recv(64)

            def said_so_far():
                said.seek(0)
                return said.read()

            subprocess.run(["ip", "route", "del", "default"], check=True)
            try:
                wait_until(lambda: "opentrack://192.0.2.1: cannot send: " in said_so_far())
                for _ in range(200):  # frames that fail meanwhile
                    receiver.recv(64)
            finally:
                subprocess.run(["ip", "route", "add", "default", "dev", "lo"], check=True)
            wait_until(lambda: "opentrack://192.0.2.1: sends again" in said_so_far())
            self.assertEqual(said_so_far().count("cannot send"), 1, said_so_far())


if __name__ == "__main__":
    if "KINETREL_TEST_OWN_NETWORK" not in os.environ:
        in_own_network()
    set_up_network()
    bin_dir = pathlib.Path(sys.argv[1])
    try:
        unittest.main(argv=sys.argv[:1] + sys.argv[2:])
    finally:
        if windows:
            subprocess.run(["wineserver", "-k"])
