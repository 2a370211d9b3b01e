#!/usr/bin/env python3
"""Checks what neither the compiler nor clang-tidy knows: who may include whom, and the format.

  check_rules.py           checks every file; prints path:line: what is wrong; exit code 1 if any
  check_rules.py --format  checks the layout of the sources; exit code 77 without clang-format
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys

root = pathlib.Path(__file__).resolve().parents[2]
sources = (".cpp", ".h", ".c")

# A folder's files may include their own folder and these. The longest matching row counts.
src_libraries = {"platform", "publish", "devices", "rpc", "mcap", "capture", "filters", "drivers", "probe", "engine"}
net_headers = {"boost", "CLI", "nlohmann"}
library_headers = net_headers | {"dds", "eigen3", "toml++"}  # each of the one row below that names it
may_include = {
    "include/kinetrel": set(),
    "src/platform": set(),
    "src/platform/posix": {"platform"},
    "src/platform/win32": {"platform"},
    "src/publish": {"platform", "kinetrel/track_block.h"},  # a client compiles it without any device
    "src/devices": {"platform"},
    "src/rpc": {"platform"},
    "src/mcap": {"platform", "devices/wire.h"},
    "src/filters": {"devices", "eigen3"},
    "src/drivers": {"devices", "filters", "rpc", "platform", "vendor"},
    "src/probe": {"drivers", "devices", "platform"},
    "src/capture": {"mcap", "publish", "devices", "platform"},
    "src/engine": {"capture", "publish", "filters", "devices", "platform"},
    "src/app": src_libraries | {"toml++"},
    "src/capi": src_libraries | {"app"},
    # Only the Liberty on a line is shared: our library is that driver behind the vendor's calls.
    "src/vendor": {"platform", "drivers/liberty_line.h", "drivers/liberty_table.h"},
    # An emulator that shared the driver's encoding would prove nothing.
    "tools/program": {"platform", "CLI"},  # the frame of every tool
    "tools/recording": {"mcap", "platform", "nlohmann"},  # for all that play a recording
    "tools/emulate": {"program", "recording", "mcap", "bridge_front", "platform", "CLI"},
    "docs/pictures": {"filters"},
    "tools/watch": {"program", "publish", "platform"},
    "tools/bridge_front": {"platform"},  # programs that have no Boost link it too
    "tools/report": {"platform"},
    "tools/certify": {"program", "report", "filters", "devices", "platform", "CLI", "nlohmann"},
    "tools/calibrate": {"program", "report", "bridge_front", "filters", "platform", "CLI", "eigen3"},
    "tools/bridge": {"program", "bridge_front", "platform"} | net_headers,
    "tools/bridge_ros2": {"bridge", "bridge_front", "platform", "dds"},
    "tools/record": {"program", "report", "recording", "mcap", "engine", "devices", "platform", "CLI",
                     "nlohmann"},
    "tools/view": {"program", "platform"} | net_headers,  # it knows a tracker by its stream alone
    "tools/scan": {"program", "report", "probe", "engine", "drivers", "devices", "publish", "platform"} | net_headers,
}
unchecked = ("tests/", "bench/", "examples/")
# The stream's reader is a header that a client compiles without any library.
knows_the_system = ("src/platform/posix/", "src/platform/win32/",
                    "include/kinetrel/stream.h") + unchecked
may_define_macros = ("src/platform/annotations.h",)  # the compiler's lock notes have no other form

include_line = re.compile(r'^\s*#\s*include\s*(["<])([^">]+)')
system_check = re.compile(r"^\s*#.*\b(_WIN32|__linux__)\b")
macro = re.compile(r"^\s*#\s*define\s+(\w+)")


def tracked_files():
    listed = subprocess.run(["git", "ls-files", "-z"], cwd=root, capture_output=True, text=True)
    names = listed.stdout.split("\0") if listed.returncode == 0 else (
        str(path.relative_to(root)) for path in root.rglob("*"))
    return sorted(n for n in names if n.endswith(sources) and not n.startswith("build/")
                  and (root / n).is_file())


def row_of(path):
    rows = [row for row in may_include if path.startswith(row + "/")]
    return max(rows, key=len, default=None)


def driver_of(path):
    return os.path.basename(path).split(".")[0].split("_")[0]


def check_include(path, quote, included):
    folder = included.split("/")[0]
    if quote == "<" and folder in library_headers:
        allowed = folder in may_include[row_of(path)]
        return None if allowed else f"{row_of(path)} must not include <{included}>"
    if quote == "<":
        is_system = "/" in included or included.endswith(".h") and not included.startswith(("std", "assert"))
        return f"only src/platform may include <{included}>" if is_system and not (
            path.startswith(knows_the_system) or included.startswith("kinetrel/")) else None
    own_folder = os.path.dirname(path).split("/")[1]
    if folder == own_folder and folder == "drivers" and "table" not in path:
        if driver_of(included) != driver_of(path):
            return f'"{included}": a driver must not include another driver'
    allowed = may_include[row_of(path)] | {own_folder}
    if folder in allowed or included in allowed:
        return None
    return f'"{included}": {row_of(path)} must not include {folder}'


def complaints(path):
    if path.startswith(unchecked):
        return
    if row_of(path) is None:
        yield 1, "this folder has no row in the include table"
        return
    for number, line in enumerate((root / path).read_text().splitlines(), 1):
        match = include_line.match(line)
        complaint = check_include(path, *match.groups()) if match else None
        if complaint:
            yield number, complaint
        if not path.startswith(knows_the_system + ("include/",)):
            if system_check.match(line):
                yield number, "only src/platform may ask which system this is"
            if macro.match(line) and path not in may_define_macros:
                yield number, f"{macro.match(line).group(1)}: use a constant or a function"


def stream_page_complaints():
    """The byte table of docs/stream.md against the offsets that the header asserts."""
    header = (root / "include/kinetrel/stream.h").read_text()
    page = (root / "docs/stream.md").read_text()
    asserted = {(struct, field): int(offset) for struct, field, offset in
                re.findall(r"KINETREL_AT\(kinetrel_(\w+), (\w+), (\d+)\)", header)}
    sizes = re.findall(r"sizeof\(kinetrel_(\w+)\) == (\d+)", header)
    tables = dict(re.findall(r"\*\*(\w+)\*\*, \d+ bytes\n\n(.*?)\n\n(?=\*\*|\| bits)", page, re.S))
    for struct, size in sizes:
        name = struct.removeprefix("stream_")
        if f"**{name}**, {size} bytes\n" not in page:
            yield 1, f"{name} has {size} bytes in the header"
        rows = dict((field, int(offset)) for offset, field in
                    re.findall(r"^\| (\d+) \| [^|]+ \| (\w+) \|", tables.get(name, ""), re.M))
        for (owner, field), offset in asserted.items():
            if owner == struct and rows.get(field) != offset:
                yield 1, f"{name}.{field} is at {offset} in the header, {rows.get(field)} here"


def version_complaints():
    """CMakeLists.txt has the version; two tools want it in files of their own."""
    version = re.search(r"project\(Kinetrel VERSION (\S+)", (root / "CMakeLists.txt").read_text()).group(1)
    copies = {"debian/changelog": r"\A\S+ \(([^)]*)\)", "python/kinetrel/__init__.py": r'__version__ = "(.*)"'}
    for path, pattern in copies.items():
        if re.search(pattern, (root / path).read_text()).group(1) != version:
            yield path, 1, f"the version is {version} in CMakeLists.txt"


def check_tree():
    found = [(path, number, text) for path in tracked_files() for number, text in complaints(path)]
    found += [("docs/stream.md", number, text) for number, text in stream_page_complaints()]
    found += version_complaints()
    for path, number, text in found:
        print(f"{path}:{number}: {text}")
    print(f"rules: {len(tracked_files())} files, {len(found)} complaints")
    return 1 if found else 0


def check_format():
    program = shutil.which("clang-format")
    if program is None:
        print("format: skipped, clang-format is not installed")
        return 77
    return subprocess.run([program, "--dry-run", "-Werror", *tracked_files()], cwd=root).returncode


if __name__ == "__main__":
    sys.exit(check_format() if sys.argv[1:] == ["--format"] else check_tree())
