"""The departures: deliberate mistakes in src/, and whether the tests notice them.

    departures.py check SOURCE_DIR             whether each line to be changed is there
    departures.py run TREE BUILD [PATTERN...]  changes, builds and tests, one by one

A file below tests/departures/ holds those of one source file. It begins with

    file: src/log.cpp
    tests: log_test                 the programs most likely to notice, run first

and has a block for each departure, blank lines in between:

    log_err_at_wrong_priority       its name
    @ void log_open(                if needed: a line above that says where, by its beginning
    - the line as it is             without the indentation; once in the file, or the
    + the line as it becomes        first one behind the line of "@"
    what it breaks

A departure that changes nothing that a caller can see is none: it is left out.
"""

import fnmatch
import os
import pathlib
import re
import subprocess
import sys
import time

WANTED = 95.0
HANG = 120  # seconds for one test program, or more on a machine that is slow or busy
DATA = pathlib.Path(__file__).resolve().parent / "departures"


class Departure:
    def __init__(self, lines, source, tests, where):
        self.source, self.tests, self.where = source, tests, where
        self.name = lines[0]
        marked = {line[:2]: line[2:] for line in lines[1:4] if line[:2] in ("@ ", "- ", "+ ")}
        self.reason = " ".join(lines[1 + len(marked):])
        if "- " not in marked or "+ " not in marked or not self.reason:
            sys.exit(f"{where}: no departure: {self.name}")
        self.context, self.old, self.new = marked.get("@ "), marked["- "], marked["+ "]

    def apply(self, text):
        """The text with the line exchanged; None unless it is there, once."""
        lines = text.split("\n")
        first = 0
        if self.context is not None:
            contexts = [i for i, line in enumerate(lines) if line.strip().startswith(self.context)]
            if len(contexts) != 1:
                return None
            first = contexts[0]
        found = [i for i in range(first, len(lines)) if lines[i].strip() == self.old]
        if not found or (self.context is None and len(found) > 1):
            return None
        line = lines[found[0]]
        lines[found[0]] = line[:len(line) - len(line.lstrip())] + self.new
        return "\n".join(lines)


def read_departures():
    departures = []
    for path in sorted(DATA.glob("*.txt")):
        head, *blocks = path.read_text().strip().split("\n\n")
        fields = dict(line.split(": ", 1) for line in head.splitlines())
        for block in blocks:
            lines = block.strip("\n").splitlines()
            departures.append(Departure(lines, fields["file"], fields["tests"].split(), path.name))
    names = [departure.name for departure in departures]
    for name in set(names):
        if names.count(name) > 1:
            sys.exit(f"two departures are called {name}")
    return departures


def check(source_dir):
    stale = 0
    for departure in read_departures():
        path = pathlib.Path(source_dir).parent / departure.source
        if departure.apply(path.read_text()) is None:
            print(f"{departure.where}: {departure.name}: {departure.source} has not got, or not "
                  f"once, the line\n    {departure.old}")
            stale += 1
    return 1 if stale else 0


class Bench:
    """A copy of the tree with a build of it."""

    def __init__(self, tree, build, programs):
        self.tree, self.build, self.programs = pathlib.Path(tree), build, programs
        self.changed = None  # a file, and its proper text
        self.hang = HANG

    def restore(self):
        if self.changed is not None:
            path, text = self.changed
            path.write_text(text)
            self.changed = None

    def change(self, departure):
        path = self.tree / departure.source
        if self.changed is not None and self.changed[0] != path:
            self.restore()
        text = path.read_text() if self.changed is None else self.changed[1]
        self.changed = (path, text)
        path.write_text(departure.apply(text))

    def compile(self):
        command = ["cmake", "--build", self.build, "-j", str(os.cpu_count()), "--target"]
        return subprocess.run(command + self.programs, capture_output=True, text=True)

    def noticed_by(self, likely):
        """The first test that fails, or None."""
        slow = ["base64_kernels_test", "life_model_test"]
        others = [name for name in self.programs if name not in likely + slow]
        for programs in (likely, others, [name for name in slow if name not in likely]):
            if programs:
                result = self.test(programs)
                if result is not None:
                    return result
        return None

    def test(self, programs):
        command = ["ctest", "--test-dir", self.build, "-R", f"^({'|'.join(programs)})$",
                   "--no-tests=error", "--stop-on-failure", "--timeout", str(self.hang),
                   "--output-on-failure", "-j", str(os.cpu_count())]
        ran = subprocess.run(command, capture_output=True, env=dict(os.environ, GTEST_FAIL_FAST="1"))
        if ran.returncode == 0:
            return None
        # The output of each program that fails follows its row. More than one may fail.
        output = ran.stdout.decode(errors="replace")
        rows = re.split(r"^ *\d+/\d+ Test +#\d+: (\S+) \.*[^*\n]*\*\*\*(\S+)", output,
                        flags=re.MULTILINE)
        if len(rows) < 4:
            sys.exit(f"ctest failed without a failing test:\n{output}")
        name, how, said = rows[1:4]
        if how.startswith("Timeout"):
            return f"{name} (hangs)"
        failed = re.search(r"\[  FAILED  \] ([^\s,]+)", said)
        if failed is not None:
            return f"{name} {failed.group(1)}"
        if "LeakSanitizer" in said:
            return f"{name} (leaks)"
        running = re.findall(r"\[ RUN      \] (\S+)", said)
        return f"{name} {running[-1] if running else ''} (ends the process)"


def run(tree, build, patterns):
    departures = read_departures()
    if patterns:
        departures = [d for d in departures if any(fnmatch.fnmatch(d.name, p) for p in patterns)]
        if not departures:
            sys.exit("there is no such departure")
    bench = Bench(tree, build, os.environ["PLUGIN_PROGRAMS"].split())
    start = time.monotonic()
    unchanged = bench.test(bench.programs)
    if unchanged is not None:
        sys.exit(f"the tests fail without any departure: {unchanged}")
    bench.hang = max(HANG, int(5 * (time.monotonic() - start)))

    noticed, survived, broken = [], [], []
    try:
        for departure in departures:
            start = time.monotonic()
            bench.change(departure)
            compiled = bench.compile()
            if compiled.returncode != 0:
                broken.append(departure.name)
                verdict = "DOES NOT COMPILE"
            else:
                case = bench.noticed_by(departure.tests)
                (survived if case is None else noticed).append(departure.name)
                verdict = f"noticed by {case}" if case else f"SURVIVED ({departure.reason})"
            print(f"{departure.name:<44} {time.monotonic() - start:>4.0f} s  {verdict}", flush=True)
            if compiled.returncode != 0:
                errors = [line for line in compiled.stdout.splitlines() if "error" in line]
                print("\n".join(f"    {line}" for line in errors[:5]), flush=True)
    finally:
        bench.restore()

    judged = len(noticed) + len(survived)
    score = 100.0 * len(noticed) / judged if judged else 0.0
    print(f"\ndepartures: {judged} judged, {len(noticed)} noticed, {len(survived)} survived,"
          f" {len(broken)} did not compile: {score:.1f} % (wanted: {WANTED:.0f} %)")
    failed = score < WANTED or bool(broken)
    print("departures: FAILED" if failed else "departures: passed")
    return 1 if failed else 0


def main():
    command, *arguments = sys.argv[1:]
    if command == "check":
        return check(arguments[0])
    return run(arguments[0], arguments[1], arguments[2:])


if __name__ == "__main__":
    sys.exit(main())
