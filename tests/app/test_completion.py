#!/usr/bin/env python3
"""Completes command lines in a real bash and a real zsh, with the programs' own --help.

  test_completion.py BIN_DIR   exit code 77 if a shell is missing and all else is right
"""

import os
import pathlib
import shutil
import subprocess
import sys

bin_dir = pathlib.Path(sys.argv[1])
folder = pathlib.Path(__file__).resolve().parents[2] / "packaging/completions"

# The words typed, the last one being completed; what must and must not be offered.
rows = [
    (["kinetrel", "--dev"], {"--device"}, {"--port"}),
    (["kinetrel", "--"], {"--config", "--query", "--no-query", "--help"}, {"--listen", "--[no-]query"}),
    (["kinetrel-service", "--li"], {"--listen"}, set()),
    (["kinetrel", "--device", "f"], {"fastrak", "flock"}, {"gps"}),
    (["kinetrel", "--device", "=", "li"], {"liberty"}, {"fastrak"}),
    (["kinetrel", "--units", ""], {"inch", "cm", "m"}, {"--units"}),
    (["kinetrel-watch", "--deg"], {"--degrees"}, set()),
    (["kinetrel-emulate", "fa"], {"fastrak"}, {"flock"}),
    (["kinetrel-emulate", "pa"], {"pan-tilt", "patriot"}, {"fastrak"}),
    (["kinetrel-emulate", "--se"], {"--seed"}, set()),
    (["kinetrel-view", "--op"], {"--open"}, set()),
    (["kinetrel-bridge", "vr"], {"vrpn"}, set()),
    (["kinetrel-scan", "--wr"], {"--write-config"}, {"--listen"}),
]


def run(shell, script, environment):
    done = subprocess.run([shutil.which(shell), *script], env=environment, text=True,
                          capture_output=True, timeout=60)
    assert done.returncode == 0 and not done.stderr, (script, done)
    return set(done.stdout.split("\n")) - {""}


def completed_by_bash(words, environment):
    quoted = " ".join(f"'{word}'" for word in words)
    script = (f"source '{folder}/kinetrel.bash'; complete -p {words[0]} >/dev/null || exit 1; "
              f"COMP_WORDS=({quoted}); COMP_CWORD={len(words) - 1}; _kinetrel {words[0]}; "
              "printf '%s\\n' \"${COMPREPLY[@]}\"")
    return run("bash", ["--norc", "-c", script], environment)


environment = {**os.environ, "PATH": f"{bin_dir}:{os.environ['PATH']}", "LC_ALL": "C"}
checked = 0
for words, wanted, unwanted in rows:
    if not (bin_dir / words[0]).exists():
        continue
    offered = completed_by_bash(words, environment)
    assert wanted <= offered and not unwanted & offered, (words, offered)
    checked += 1
assert checked >= 6, "the programs are not built"
print(f"bash: {checked} lines completed")
if shutil.which("zsh") is None:
    sys.exit(77)
# Outside of a terminal zsh completes nothing, but it reads the file and runs its functions.
source = f"autoload -Uz compinit; fpath=('{folder}' $fpath); compinit -D -u; "
known = run("zsh", ["-f", "-c", source + "print $_comps[kinetrel] $_comps[kinetrel-scan]"], environment)
assert known == {"_kinetrel _kinetrel"}, known
functions = (folder / "_kinetrel").read_text().replace('_kinetrel "$@"\n', "")
offered = run("zsh", ["-f", "-c", functions + "_kinetrel_options kinetrel; _kinetrel_devices kinetrel"],
              environment)
assert {"--device", "--no-query", "fastrak", "gps"} <= offered, offered
print("zsh: the options and devices are found")
