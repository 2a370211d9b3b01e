"""The C# client, compiled and run by mono against a real tracker: test_stream.py BIN_DIR"""

import pathlib
import subprocess
import sys
import tempfile
import unittest

here = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(here.parent / "python"))
import test_kinetrel  # noqa: E402


class CSharp(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.program = str(pathlib.Path(folder.name) / "stream.exe")
        subprocess.run(["mcs", "-langversion:7", "-warnaserror", f"-out:{cls.program}",
                        here.parents[1] / "csharp/KinetrelStream.cs", here / "StreamTest.cs"], check=True)

    def run_client(self, *arguments):
        done = subprocess.run(["mono", self.program, *map(str, arguments)], capture_output=True,
                              text=True, timeout=100)
        self.assertEqual(done.stderr, "")
        return done

    def test_every_record_comes_once_and_fresh(self):
        tracker = test_kinetrel.Program("--filter=rigid:sensors=2,translation-m=0/0/100")
        self.addCleanup(tracker.clean_up)
        lines = self.run_client(tracker.slot, 200).stdout.splitlines()
        records = [line.split() for line in lines[:-1]]
        first = int(records[0][0])
        self.assertEqual([int(r[0]) for r in records], list(range(first, first + 200)))
        self.assertEqual({r[1] for r in records}, {"1", "2", "3"})
        self.assertEqual({(r[1], r[4]) for r in records},  # the filter's share of z
                         {("1", "0.0000"), ("2", "100.0000"), ("3", "0.0000")})
        self.assertEqual({r[5] for r in records}, {"fresh"})
        self.assertRegex(lines[-1], "^Running .* True 0$")

    def test_a_pose_in_unitys_frame(self):
        self.assertEqual(self.run_client("unity").stdout,
                         "-0.2500 -0.1250 0.5000 -0.1893 0.2393 -0.0381 0.9515\n")

    def test_what_is_not_a_stream(self):
        slot, path = test_kinetrel.foreign_stream(self)
        path.write_bytes(bytes(5000))
        self.assertEqual(self.run_client(slot, -1).stdout, f"slot {slot}: not a Kinetrel stream\n")


if __name__ == "__main__":
    test_kinetrel.bin_dir = pathlib.Path(sys.argv[1])
    unittest.main(argv=sys.argv[:1] + sys.argv[2:])
