#!/usr/bin/env python3
"""Checks the tree against the rules that no compiler knows.

  check_rules.py              checks every file; prints path:line: what is wrong; exit code 1 if any
  check_rules.py --format     checks the layout of the sources; exit code 77 without clang-format
  check_rules.py --self-test  feeds the rules bad and good snippets and expects the right answers
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys

root = pathlib.Path(__file__).resolve().parents[2]

# ---- What the rules say -------------------------------------------------------------------------

libraries = {"platform", "publish", "devices", "rpc", "filters", "drivers", "engine"}
anything = None

# A folder's files may include their own folder and these. The nearest row counts.
may_include = {
    "platform": set(),
    "platform/posix": {"platform"},
    "platform/win32": {"platform"},
    "publish": {"platform"},  # a client compiles the block knowing no devices
    "devices": {"platform"},
    "rpc": {"platform"},
    "filters": {"devices"},
    "drivers": {"devices", "filters", "rpc", "platform", "drivers/interface"},
    "drivers/interface": set(),  # what a site's own adapter to a vendor's library compiles against
    "engine": {"publish", "filters", "devices", "platform"},  # drivers only through the factory
    # An emulator that encodes with the driver's own table would prove nothing.
    "emulators": {"platform", "rpc"},
    "substitutes": {"platform", "drivers/interface"},  # as an emulator: they would prove nothing
    "clients": {"publish", "platform"},
    "app": libraries | {"emulators"},
    "capi": libraries | {"app"},  # the C interface takes the console program's options
    "examples": libraries | {"capi"},
    "bench": anything,
    "fuzz": anything,
    "tests": anything,
    "docs": set(),  # clients that use no library of ours
}

knows_the_system = {"platform/posix", "platform/win32", "tests", "bench", "docs"}
may_define_macros = {"tests", "docs"}
may_keep_statics = {"tests", "bench", "fuzz"}

# The operations of every device stand in a fixed order and number: 47 with the destructor.
virtual_operations = {
    "devices/serial_port.h": ("SerialPort", 6),
    "devices/tracker_device.h": ("TrackerDevice", 41),
}

# State that the process has once. Every row says why it is one.
allowed_statics = {
    ("platform/posix/shared_object.cpp", "objects"):
        "the system's names are the machine's, so a process opens each once",
    ("platform/console.cpp", "input"): "one per process, as standard input is",
    ("platform/posix/key_source.cpp", "source"): "one per process, as standard input is",
    ("platform/posix/terminal_mode.cpp", "terminal"): "one per process; signal handlers restore it",
    ("platform/posix/stop_signals.cpp", "stopRequest"): "a signal handler reaches no other state",
    ("platform/posix/stop_signals.cpp", "stopAskedAt"): "a signal handler reaches no other state",
    ("platform/win32/shared_object.cpp", "objects"):
        "the system's names are the machine's, so a process opens each once",
    ("platform/win32/key_source.cpp", "source"): "one per process, as standard input is",
    ("platform/win32/transient_output.cpp", "writer"): "one per process, as standard output is",
    ("platform/win32/stop_signals.cpp", "stopRequest"): "the system's handler reaches no other state",
    ("platform/win32/stop_signals.cpp", "stopAskedAt"): "the system's handler reaches no other state",
    ("app/console_program.cpp", "stopRequest"): "signals are the process's; the console loop reads it",
    ("devices/keyboard_device.cpp", "entry"): "one operator types, whatever devices there are",
    ("drivers/fastrak_boot.cpp", "bootInProgress"): "one unit of the family boots at a time",
    ("drivers/isense_library.cpp", "library"): "a library is loaded once for the process",
    ("drivers/isense_library.cpp", "callDepth"): "a library's calls back come without their origin",
    ("substitutes/isense_library.cpp", "library"): "the C interface knows no objects",
}

standard_headers = set("""
    algorithm any array atomic barrier bit bitset cassert cctype cerrno cfenv cfloat charconv chrono
    cinttypes climits clocale cmath codecvt compare complex concepts condition_variable coroutine
    csetjmp csignal cstdarg cstddef cstdint cstdio cstdlib cstring ctime cuchar cwchar cwctype deque
    exception execution filesystem format forward_list fstream functional future initializer_list
    iomanip ios iosfwd iostream istream iterator latch limits list locale map memory memory_resource
    mutex new numbers numeric optional ostream queue random ranges ratio regex scoped_allocator
    semaphore set shared_mutex source_location span sstream stack stdexcept stop_token streambuf
    string string_view strstream syncstream system_error thread tuple type_traits typeindex typeinfo
    unordered_map unordered_set utility valarray variant vector version
    assert.h ctype.h errno.h fenv.h float.h inttypes.h limits.h locale.h math.h setjmp.h signal.h
    stdalign.h stdarg.h stdatomic.h stdbool.h stddef.h stdint.h stdio.h stdlib.h string.h tgmath.h
    time.h uchar.h wchar.h wctype.h""".split())

# Written in pieces, so that these lines do not break their own rule.
planning_words = re.compile(r"\bsp" r"ec(s|ification)?\b|\bpar" r"ts? [0-9]+\.[0-9]+", re.IGNORECASE)
machine_paths = re.compile(r"/(work|root|Users)/|/home/[a-z]+/|\b[A-Z]:\\+Users\\", re.ASCII)

# ---- Reading sources ----------------------------------------------------------------------------

lexeme = re.compile(
    r'(?P<raw>(?:u8|[uUL])?R"(?P<fence>[^(\s]*)\(.*?\)(?P=fence)")'
    r"|(?P<comment>//(?:\\\n|[^\n])*|/\*.*?\*/)"
    r'|(?P<text>"(?:\\.|[^"\\\n])*")'
    r"|(?P<word>[A-Za-z_]\w*)"
    r"|(?P<number>\.?\d(?:'?[\w.])*)"
    r"|(?P<char>'(?:\\.|[^'\\\n])+')",
    re.DOTALL)


def blank(text):
    """Keeps the lines, so that positions still tell line numbers."""
    return re.sub(r"[^\n]", " ", text)


def without(text, *kinds):
    """`text` with lexemes of these kinds blanked; a string keeps its quotes."""
    def replace(match):
        if match.lastgroup == "fence" or match.group("raw"):
            kind = "raw"
        else:
            kind = match.lastgroup
        if kind not in kinds:
            return match.group()
        if kind == "comment" or len(match.group()) < 2:
            return blank(match.group())
        return '"' + blank(match.group()[1:-1]) + '"'
    return lexeme.sub(replace, text)


def without_directives(code):
    return re.sub(r"^[ \t]*#(?:\\\n|[^\n])*", lambda match: blank(match.group()), code, flags=re.M)


class Source:
    """One C or C++ file: its directives with their strings, and its code without text."""

    def __init__(self, path, text):
        self.path = path
        self.folder = folder_of(path)
        self.directives = without(text, "comment")
        self.code = without_directives(without(text, "comment", "raw", "text", "char"))

    def line(self, position):
        return self.code.count("\n", 0, position) + 1


def folder_of(path):
    """The nearest row of the include table; None for a path that has none."""
    parts = path.split("/")[:-1]
    for length in range(len(parts), 0, -1):
        if "/".join(parts[:length]) in may_include:
            return "/".join(parts[:length])
    return None

# ---- Includes and macros ------------------------------------------------------------------------


def driver_of(path):
    return path.split("/")[-1].split(".")[0].split("_")[0]


def check_quoted_include(source, included):
    folder = folder_of(included)
    if folder is None:
        return f'"{included}": not a path from the root of the tree into a known folder'
    if source.folder == "drivers" and folder == "drivers" and "factory" not in source.path:
        if driver_of(included) != driver_of(source.path):
            return f'"{included}": a driver never includes another driver'
    allowed = may_include[source.folder]
    if allowed is anything or folder == source.folder or folder in allowed:
        return None
    return f'"{included}": {source.folder}/ may not include {folder}/'


def check_system_include(source, included):
    if included in standard_headers or source.folder in knows_the_system:
        return None
    return f"<{included}>: only platform/posix and platform/win32 include the system's headers"


def includes(source):
    for match in re.finditer(r'^[ \t]*#[ \t]*include[ \t]*(["<])([^">\n]+)', source.directives, re.M):
        check = check_quoted_include if match.group(1) == '"' else check_system_include
        complaint = check(source, match.group(2))
        if complaint:
            yield match.start(2), complaint


def macros(source):
    if source.folder not in may_define_macros:
        for match in re.finditer(r"^[ \t]*#[ \t]*define[ \t]+(\w+)", source.directives, re.M):
            yield match.start(1), f"{match.group(1)}: no macros of our own"
    if source.folder not in knows_the_system:
        for match in re.finditer(r"\b_WIN32\b|\b__linux__\b", source.directives):
            yield match.start(), f"{match.group()}: only platform/ asks which system this is"

# ---- Names --------------------------------------------------------------------------------------

capitals = r"[A-Z][0-9]*[A-Z_][A-Z0-9_]*"  # U8 and the like are no shouting
no_type = set("""
    case co_return const constexpr consteval constinit delete do else explicit extern goto if inline
    mutable new operator return sizeof static switch thread_local throw typedef volatile
    while""".split())
declared_name = re.compile(
    rf"(?P<type>\w+|(?<=\S)[*&>])\s+(?P<name>{capitals})\s*(?=[=;,({{\[)])"  # <type> NAME =
    rf"|\b(?:class|struct|union|enum|using|namespace|concept)\s+(?P<own>{capitals})\b")


def declares(match):
    if match.group("own"):
        return "own"
    word = match.group("type")
    is_type = not word[0].isdigit() and word not in no_type
    return "name" if is_type else None


def names(source):
    for match in declared_name.finditer(source.code):
        group = declares(match)
        # "struct FILE* f": the system's own type, used and not declared.
        if group == "own" and source.code[match.end():].lstrip()[:1] in ("*", "&", ")"):
            continue
        if group:
            yield match.start(group), f"{match.group(group)}: no names in capitals"
    for body in re.finditer(r"\benum\b[^;{}()]*\{([^}]*)\}", source.code):
        for match in re.finditer(rf"(?:^|,)\s*({capitals})\b", body.group(1)):
            yield body.start(1) + match.start(1), f"{match.group(1)}: no names in capitals"

# ---- Mutable statics ----------------------------------------------------------------------------

not_a_variable = re.compile(
    r"^(?:using|typedef|friend|namespace|static_assert|extern\s+template|concept|goto|return"
    r"|(?:class|struct|union|enum)\b[^={(]*$)|\boperator\b|\bconcept\b")
literal_arguments = re.compile(r"\(\s*(?:[\d\"&-]|nullptr|true|false)")


def without_template_arguments(text):
    text = text.replace("->", "  ")
    while True:
        shorter = re.sub(r"<[^<>;{}]*>", "", text)
        if shorter == text:
            return text
        text = shorter


def mutable_variable(statement, in_function):
    """The name that `statement` declares as a mutable variable; None when it declares none."""
    text = re.sub(r"\[\[.*?\]\]|\balignas\s*\([^)]*\)", "", statement)
    text = without_template_arguments(text.strip())
    text = re.sub(r"^template\s*", "", text).strip()
    if not text or not_a_variable.search(text) or re.search(r"\bconstexpr\b", text):
        return None
    declarator = re.split(r"[={\[]|\((?!\s*\*)", text, maxsplit=1)
    opener = text[len(declarator[0]):][:1]
    words = re.findall(r"[\w:]+", declarator[0])
    if len(words) < 2 or is_constant(declarator[0]):
        return None
    if opener == "(" and not in_function and is_function(declarator[0], text[len(declarator[0]):]):
        return None
    return words[-1]


def is_function(declarator, arguments):
    return "(" not in declarator and not literal_arguments.match(arguments)


def is_constant(declaration):
    after_pointer = declaration.rsplit("*", 1)[-1]
    return re.search(r"\bconst\b", after_pointer) is not None


qualifiers = re.compile(r"\s*(?:(?:typedef|static|inline|constexpr|const)\s+)*")


def without_qualifiers(head):
    text = without_template_arguments(re.sub(r"^template\b", "", head)).strip()
    return qualifiers.sub("", re.sub(r"\balignas\s*\([^)]*\)", "", text), count=1)


class ScopeWalk:
    """Walks the braces of a file and hands each statement with its kind of scope to `judge`."""

    def __init__(self, code, judge):
        self.code = code
        self.judge = judge
        self.scopes = ["namespace"]
        self.heads = [""]
        self.depth = 0
        for self.position, self.letter in enumerate(code):
            self.step()

    def step(self):
        if self.letter in "([":
            self.depth += 1
        elif self.letter in ")]":
            self.depth = max(0, self.depth - 1)
        if self.letter == "{":
            self.open()
        elif self.letter == "}":
            self.close()
        elif self.letter == ";" and (self.depth == 0 or self.scopes[-1] == "function"):
            self.finish()
        elif self.letter == ":" and self.heads[-1].strip() in ("public", "protected", "private"):
            self.heads[-1] = ""
        else:
            self.heads[-1] += self.letter

    def finish(self):
        self.judge(self.scopes[-1], self.heads[-1].strip(), self.position)
        self.heads[-1] = ""

    def open(self):
        kind = self.kind_of(self.heads[-1].strip())
        if kind == "function" and self.scopes[-1] == "function":
            self.judge("function", self.heads[-1].strip(), self.position)
        if kind == "type":  # a name between its '}' and ';' is a variable
            self.heads[-1] = qualifiers.match(self.heads[-1]).group() + "unnamed "
        elif kind != "value":
            self.heads[-1] = ""
        self.scopes.append(kind)
        self.heads.append("")

    def kind_of(self, head):
        outer = self.scopes[-1]
        if outer in ("function", "value"):
            return outer
        if re.match(r"(?:inline\s+)?namespace\b|extern\s*\"", head):
            return "namespace"
        if re.match(r"(?:class|struct|union|enum)\b[^=()]*$", without_qualifiers(head)):
            return "type"
        starts_member = re.search(r"\)[^{};]*[^:]:[^:]", head) and re.search(r"[\w>]$", head)
        if self.depth > 0 or "(" not in head or head.endswith("=") or starts_member:
            return "value"
        return "function"

    def close(self):
        if len(self.scopes) == 1:
            return
        kind = self.scopes.pop()
        self.heads.pop()
        if kind == "value" and self.scopes[-1] != "value":
            self.heads[-1] += "{}"


met_statics = set()


def statics(source):
    found = []

    def judge(scope, statement, position):
        local = re.search(r"\b(?:static|thread_local)\b", statement)
        if scope == "value" or (scope != "namespace" and not local):
            return
        text = statement[local.start():] if scope == "function" else statement
        name = mutable_variable(text, scope == "function")
        if (source.path, name) in allowed_statics:
            met_statics.add((source.path, name))
        elif name:
            found.append((position, f"{name}: no new mutable state of the whole process"))

    if source.folder not in may_keep_statics:
        ScopeWalk(source.code, judge)
    return found

# ---- The device table ---------------------------------------------------------------------------


def operations(source):
    if source.path not in virtual_operations:
        return
    name, wanted = virtual_operations[source.path]
    body = re.search(rf"\bclass {name}\b[^;{{]*\{{.*?\n\}};", source.code, re.DOTALL)
    count = len(re.findall(r"\bvirtual\b", body.group())) if body else 0
    if count != wanted:
        yield 0, f"{name} declares {count} virtual operations, not {wanted}"

# ---- Any text -----------------------------------------------------------------------------------


def words(path, text):
    for number, line in enumerate([path] + text.split("\n")):
        for pattern, complaint in ((planning_words, "a planning document's word"),
                                   (machine_paths, "a path of one machine")):
            match = pattern.search(line)
            if match:
                yield max(number, 1), f"{match.group()}: {complaint}"

# ---- Running ------------------------------------------------------------------------------------

source_rules = (includes, macros, names, statics, operations)
source_endings = (".h", ".cpp", ".c")


def tracked_files():
    """What is or may become part of the repository; without git, all but the builds."""
    listing = ["git", "-C", str(root), "ls-files", "-z", "-co", "--exclude-standard"]
    try:
        done = subprocess.run(listing, capture_output=True, text=True)
        if done.returncode == 0:
            return sorted(path for path in done.stdout.split("\0") if (root / path).is_file())
    except FileNotFoundError:
        pass
    every = (path.relative_to(root) for path in root.rglob("*") if path.is_file())
    return sorted(str(path) for path in every if path.parts[0] not in ("build", ".git"))


def check(path, text):
    """All complaints about one file as lines for people."""
    complaints = list(words(path, text))
    if path.endswith(source_endings):
        source = Source(path, text)
        if source.folder is None:
            complaints.append((1, "no row of the include table covers this folder"))
        else:
            complaints += [(source.line(position), complaint)
                           for rule in source_rules for position, complaint in rule(source)]
    return [f"{path}:{line}: {complaint}" for line, complaint in sorted(complaints)]


def check_tree():
    complaints = []
    files = tracked_files()
    for path in files:
        content = (root / path).read_bytes()
        if b"\0" not in content:
            complaints += check(path, content.decode("utf-8", "replace"))
    complaints += [f"{path}: {name}: no longer there, but still in allowed_statics"
                   for path, name in sorted(set(allowed_statics) - met_statics) if path in files]
    for complaint in complaints:
        print(complaint)
    print(f"rules: {len(files)} files, {len(complaints)} complaints")
    return 1 if complaints else 0


def check_format():
    program = shutil.which("clang-format")
    if program is None:
        print("format: skipped, clang-format is not installed")
        return 77
    sources = [path for path in tracked_files() if path.endswith(source_endings)]
    done = subprocess.run([program, "--dry-run", "-Werror", *sources], cwd=root)
    version = subprocess.run([program, "--version"], capture_output=True, text=True).stdout.strip()
    print(f"format: {len(sources)} files, {'as wanted' if done.returncode == 0 else 'not as wanted'}"
          f" ({version})")
    return done.returncode

# ---- Self-test ----------------------------------------------------------------------------------

# Path, snippet, and what must be complained about; nothing where the snippet is good.
bad_snippets = [
    ("publish/a.h", '#include "devices/pose.h"', "publish/ may not include devices/"),
    ("platform/a.h", '#include "platform/posix/os_status.h"', "platform/ may not include"),
    ("engine/a.cpp", '#  include "drivers/bird_device.h"', "engine/ may not include drivers/"),
    ("emulators/a.cpp", '#include "devices/wire.h"', "emulators/ may not include devices/"),
    ("emulators/a.cpp", '#include "drivers/bird_device.h"', "may not include drivers/"),
    ("clients/watch/a.cpp", '#include "engine/engine.h"', "clients/ may not include engine/"),
    ("drivers/bird_device.cpp", '#include "drivers/gps_device.h"', "another driver"),
    ("engine/a.cpp", '#include "a.h"', "not a path from the root"),
    ("misc/a.cpp", "int F();", "no row of the include table"),
    ("engine/a.cpp", "#include <unistd.h>", "system's headers"),
    ("app/a.cpp", "#include <sys/mman.h>", "system's headers"),
    ("engine/a.cpp", "#ifdef _WIN32\n#endif", "which system"),
    ("engine/a.h", "#define LIMIT 3", "LIMIT: no macros"),
    ("platform/posix/a.cpp", "#define lower(x) x", "lower: no macros"),
    ("engine/a.h", "constexpr int MAX_SENSORS = 4;", "MAX_SENSORS: no names in capitals"),
    ("engine/a.h", "enum class Mode { Off, ON };", "ON: no names in capitals"),
    ("engine/a.h", "enum E : int {\n  FIRST = 1,\n};", "FIRST: no names in capitals"),
    ("engine/a.h", "struct POSE { int x; };", "POSE: no names in capitals"),
    ("engine/a.h", "bool READ(int a);", "READ: no names in capitals"),
    ("engine/a.h", "void F(const float* XYZ);", "XYZ: no names in capitals"),
    ("engine/a.cpp", "int count = 0;", "count: no new mutable state"),
    ("engine/a.cpp", "namespace a { namespace {\nstd::atomic<bool> stop{false};\n} }", "stop: no new"),
    ("engine/a.cpp", "const char* name = nullptr;", "name: no new"),
    ("engine/a.cpp", "std::map<int, std::string> table;", "table: no new"),
    ("engine/a.cpp", "struct { int x; } state;", "state: no new"),
    ("engine/a.cpp", "void (*hook)(int) = nullptr;", "hook: no new"),
    ("engine/a.cpp", "int Engine::count = 0;", "Engine::count: no new"),
    ("engine/a.cpp", "thread_local int depth;", "depth: no new"),
    ("engine/a.cpp", "std::mutex lock(1);", "lock: no new"),
    ("engine/a.h", "class A {\n  inline static int count = 0;\n};", "count: no new"),
    ("engine/a.h", "struct A {\n private:\n  static A* only;\n};", "only: no new"),
    ("engine/a.h", "class A {\n public:\n  struct B {\n    static int n;\n  };\n};", "n: no new"),
    ("engine/a.cpp", "int Next() {\n  if (x) {\n    static int n = 0;\n  }\n}", "n: no new"),
    ("engine/a.cpp", "A& Only() { static A only; return only; }", "only: no new"),
    ("engine/a.cpp", "A& Only() { static A& only = *new A(3); return only; }", "only: no new"),
    ("engine/a.cpp", "A& Only() { static A only(Make()); return only; }", "only: no new"),
    ("engine/a.cpp", "A::A() : a_{1}, b_(2) {\n  static bool once;\n}", "once: no new"),
    ("engine/a.cpp", "void F() { static auto f = [] { return 1; }; }", "f: no new"),
    ("devices/serial_port.h", "class SerialPort {\n  virtual ~SerialPort();\n};", "declares 1 virtual"),
    ("devices/tracker_device.h", "class Other {};", "declares 0 virtual"),
    ("docs/a.md", "as the sp" "ec says", "planning document's word"),
    ("docs/a.md", "see Par" "t 4.1", "planning document's word"),
    ("docs/sp" "ec.md", "", "planning document's word"),
    ("scripts/a", "cd /home/" "someone/tree", "path of one machine"),
    ("CMakeLists.txt", "/ro" "ot/tree", "path of one machine"),
]
good_snippets = [
    ("drivers/bird_device.cpp", '#include "drivers/bird_device.h"\n#include "devices/pose.h"'),
    ("drivers/device_factory.cpp", '#include "drivers/bird_device.h"\n#include <memory>'),
    ("platform/posix/a.cpp", '#include "platform/clock.h"\n#include <sys/mman.h>'),
    ("tests/a_test.cpp", "#include <gtest/gtest.h>\n#define lower 1\nint count = 0;"),
    ("clients/a.c", "#include <stdint.h>\n// #include <unistd.h>\n/* #define X */"),
    ("engine/a.cpp", "// int count = 0;\nconst char* const kText = \"int n = 0; // {\";"),
    ("engine/a.cpp", "constexpr int kMost = 1'000'000;\ninline constexpr char kQuote = '\"';"),
    ("engine/a.cpp", 'constexpr auto kRaw = R"x(int count = 0; { " )x";\nint F();'),
    ("engine/a.h", "extern \"C\" {\nint F(int a, int b = 0);\n}\nclass A;\nenum class B : int;"),
    ("engine/a.h", "template <typename T, int N = 3>\nT Get(std::array<T, N> from);\nusing C = int;"),
    ("engine/a.h", "class A {\n public:\n  static A Make(int a = 1);\n  int x = 0;\n  B b_{};\n};"),
    ("engine/a.h", "struct [[nodiscard]] A {\n  bool operator==(const A&) const = default;\n};"),
    ("engine/a.h", "struct A final : B<int> {\n  void F() override {}\n  std::vector<int> v_;\n};"),
    ("engine/a.cpp", "static const Row kRows[] = {{1, \"a\"}, {2, \"b\"}};\nstatic int F() { return 1; }"),
    ("engine/a.cpp", "const std::map<int, int>& Table() { static const std::map<int, int> t; return t; }"),
    ("engine/a.cpp", "A::A(int a) : a_{a}, b_{[] { return 1; }()} {}\nauto F() -> int { return 1; }"),
    ("engine/a.cpp", "bool F(const A& a) {\n  return a.x > INT_MAX || SIGINT == a.y;\n}"),
    ("engine/a.cpp", "int F() {\n  int n = static_cast<int>(3);\n  for (int i = 0; i < n; ++i) {}\n"
                     "  return EOF;\n}"),
    ("platform/posix/a.cpp", "int F() { return ::open(p, O_RDWR | O_CREAT) * SEEK_SET; }\n"
                             "std::FILE* G(FILE* f);"),
    ("engine/a.h", "enum class A : int { On, Off };\ntypedef struct { int x; } B;\n"
                   "struct alignas(64) C { int x; };\nstatic const struct { int x; } kD = {1};"),
    ("docs/a.md", "inspect a special timespec, itimerspec; parts 4 and 5; /usr/bin, /dev/ttyS0"),
]


def self_test():
    failures = []
    for path, snippet, wanted in bad_snippets:
        complaints = check(path, snippet + "\n")
        if not any(wanted in complaint for complaint in complaints):
            failures.append(f"not reported in {path}: {snippet!r}: {wanted} (got {complaints})")
    for path, snippet in good_snippets:
        failures += [f"reported for nothing: {snippet!r}: {complaint}"
                     for complaint in check(path, snippet + "\n")]
    for failure in failures:
        print(failure)
    print(f"self-test: {len(bad_snippets) + len(good_snippets)} snippets, {len(failures)} failures")
    return 1 if failures else 0


modes = {"--format": check_format, "--self-test": self_test}

if __name__ == "__main__":
    if len(sys.argv) > 2 or (len(sys.argv) == 2 and sys.argv[1] not in modes):
        sys.exit(__doc__)
    sys.exit(modes[sys.argv[1]]() if len(sys.argv) == 2 else check_tree())
