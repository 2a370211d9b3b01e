"""Reads the poses of a motion tracker that Kinetrel publishes on this machine.

    import kinetrel

    with kinetrel.open(slot=1) as tracker:
        for record in tracker:
            print(record.sensor, record.position, record.age)

Units: metres, radians, seconds; *_ns are nanoseconds of now_ns(). Sensors count from 1. Quaternions
are w, x, y, z; an orientation turns by azimuth about z, then elevation about y, then roll about x.

The reader maps the stream read-only and takes no lock: nothing that it does, or that is done to it,
disturbs the tracker. A reader that is held up for longer than the ring lasts counts what it missed
in `tracker.lost`. Checked on x86-64; processors that reorder reads are served by the sequence
number that is read on both sides of each copy, but were not tried.
"""

from ._errors import (Denied, KinetrelError, NewerVersion, NotARecording, NoTracker, NotAStream)
from ._memory import now_ns
from ._recording import Marker, Note, Recording, read_recording
from ._tracker import Frame, Info, LogLine, Record, State, Tracker, open

__version__ = "0.1.0"
__all__ = ["Denied", "Frame", "Info", "KinetrelError", "LogLine", "Marker", "NewerVersion",
           "NotARecording", "Note", "NoTracker", "NotAStream", "Record", "Recording", "State",
           "Tracker", "now_ns", "open", "read_recording"]
