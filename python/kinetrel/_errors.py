"""What can be wrong with a stream or a recording."""

from __future__ import annotations


class KinetrelError(Exception):
    """Base of all errors of this package."""


class NoTracker(KinetrelError):
    """No Kinetrel publishes on the slot."""

    def __init__(self, slot: int) -> None:
        super().__init__(f"slot {slot}: no tracker publishes there")


class Denied(KinetrelError):
    """This account may not read the stream."""

    def __init__(self, slot: int) -> None:
        super().__init__(f"slot {slot}: this account may not read the stream")


class NotAStream(KinetrelError):
    """The object under the stream's name is something else, or is damaged."""

    def __init__(self, slot: int) -> None:
        super().__init__(f"slot {slot}: not a Kinetrel stream")


class NotARecording(KinetrelError):
    """The file is not a recording of kinetrel-record."""

    def __init__(self, path: str, why: str) -> None:
        super().__init__(f"{path}: not a recording: {why}")


class NewerVersion(KinetrelError):
    """A later Kinetrel writes the stream: this package must be updated."""

    def __init__(self, slot: int, version: int) -> None:
        super().__init__(f"slot {slot}: newer version ({version}): update the kinetrel package")
