"""A build tree of the checkout, in which one file at a time is another."""

import json
import os
import pathlib
import re
import shlex
import signal
import subprocess

PROCESSORS = os.cpu_count()
QUICK = 1.0  # seconds that a test program takes at most to run in the first wave
HANG = 20    # seconds for a test program, or five times what it takes without a mistake
MOST_MEMORY = 4 << 30  # bytes, of one process
LIKELY = 3   # programs in the wave before the first: those that noticed most in the same file

# A mistake may forget or signal any process, so that those of the tests end with them.
BY_ITSELF = ["unshare", "--pid", "--fork", "--kill-child", "--mount-proc"]


def end_greedy():
    """Ends each process that has more memory than any test needs."""
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            pages = int((process / "statm").read_text().split()[1])
            if pages * os.sysconf("SC_PAGESIZE") > MOST_MEMORY:
                os.kill(int(process.name), signal.SIGKILL)
        except (OSError, IndexError):
            pass  # it has ended by itself


class Checkout:
    """The files; at most one of them is changed."""

    def __init__(self):
        self.changed = None  # a path, and its proper text

    def restore(self):
        if self.changed is not None:
            path, text = self.changed
            pathlib.Path(path).write_text(text)
            self.changed = None

    def change(self, mutant):
        if self.changed is not None and self.changed[0] != mutant.path:
            self.restore()
        path = pathlib.Path(mutant.path)
        if self.changed is None:
            self.changed = (mutant.path, path.read_text())
        path.write_text(mutant.applied(self.changed[1]))


class Bench:
    """Of the build tree `build` the tests that have one of the labels, and `programs`, which they
    start. The files are as they are proper when it is made."""

    def __init__(self, build, labels, programs):
        self.build = build
        self.tests = self.listed_tests(labels)
        self.targets = self.known_targets([*programs, *self.tests])
        self.noticed = {}  # for each path, how often each test program noticed
        self.must(self.make(), "does not compile")
        self.seconds = {} if self.have_failed() else self.kept_seconds()
        self.measure()

    @staticmethod
    def must(process, what):
        if process.returncode != 0:
            raise SystemExit(f"{process.stdout}{process.stderr}\nThe tree as it is {what}.")

    def listed_tests(self, labels):
        """The names with their labels."""
        listed = subprocess.run(["ctest", "--test-dir", self.build, "--show-only=json-v1"],
                                capture_output=True, check=True).stdout
        tests = {}
        for test in json.loads(listed)["tests"]:
            own = {label for each in test.get("properties", []) if each["name"] == "LABELS"
                   for label in each["value"]}
            if own & set(labels):
                tests[test["name"]] = own
        return tests

    def known_targets(self, names):
        """Some tests are second runs of another one's program, or of another build tree's."""
        known = subprocess.run(["ninja", "-C", self.build, "-t", "targets", "all"],
                               capture_output=True, text=True, check=True).stdout
        return [name for name in names if f"\n{name}: phony" in known]

    def make(self):
        return subprocess.run(["ninja", "-C", self.build, "-j", str(PROCESSORS), *self.targets],
                              capture_output=True, text=True)

    def have_failed(self):
        """Whether some did when ctest ran last: what failed may have taken any time."""
        failed = self.build / "Testing/Temporary/LastTestsFailed.log"
        return failed.exists() and bool(failed.read_text().strip())

    def kept_seconds(self):
        """How long each program takes, by what ctest has kept of it."""
        costs = self.build / "Testing/Temporary/CTestCostData.txt"
        if not costs.exists():
            return {}
        rows = costs.read_text().split("---")[0].splitlines()
        return {name: float(seconds) for name, _, seconds in (row.split() for row in rows)}

    def measure(self):
        """Runs the programs once that have not run in the build tree."""
        new = [name for name in self.tests if name not in self.seconds]
        if new:
            self.must(self.ctest(new, 900, []), "fails its tests")
            self.seconds = self.kept_seconds()

    def ctest(self, programs, timeout, options):
        command = [*BY_ITSELF, "ctest", "--test-dir", self.build, "-R", f"^({'|'.join(programs)})$",
                   "--no-tests=error", "--timeout", str(timeout), "--output-on-failure",
                   "-j", str(2 * PROCESSORS), *options]
        with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              errors="replace",
                              env={**os.environ, "GTEST_FAIL_FAST": "1"}) as process:
            while True:
                try:
                    output, _ = process.communicate(timeout=1)
                    return subprocess.CompletedProcess(command, process.returncode, output, "")
                except subprocess.TimeoutExpired:
                    end_greedy()

    def waves(self, path, labels):
        """Lists of programs that have one of the labels, the likeliest to notice first."""
        often = self.noticed.get(path, {})
        likely = sorted(often, key=often.get, reverse=True)[:LIKELY]
        others = [name for name in self.tests if self.tests[name] & set(labels)
                  and name not in likely]
        quick = [name for name in others if self.seconds[name] <= QUICK]
        slow = [name for name in others if self.seconds[name] > QUICK]
        return [wave for wave in (likely, quick, slow) if wave]

    def notice(self, path, labels):
        """The first test with one of the labels that fails since the file was changed, or None."""
        for programs in self.waves(path, labels):
            timeout = max(HANG, 5 * max(self.seconds[name] for name in programs))
            said = self.ctest(programs, int(timeout), ["--stop-on-failure"])
            if said.returncode != 0:
                program, what = first_failure(said.stdout)
                often = self.noticed.setdefault(path, {})
                often[program] = often.get(program, 0) + 1
                return f"{program} {what}"
        return None

    def sources(self, path):
        """Those of the same folder of the checkout that are compiled with a file: it alone, or if it
        is a header, all that include it. Each with its entry in the compilation database."""
        commands = json.loads((self.build / "compile_commands.json").read_text())
        top = pathlib.Path(path).parts[0]
        own = {entry["file"]: entry for entry in commands
               if pathlib.Path(entry["file"]).is_relative_to(pathlib.Path(top).resolve())}
        wanted = str(pathlib.Path(path).resolve())
        if wanted in own:
            return [own[wanted]]
        listed = subprocess.run(["ninja", "-C", self.build, "-t", "deps"], capture_output=True,
                                text=True, check=True).stdout
        including = {block.split(":")[0] for block in listed.split("\n\n")
                     if f"    {wanted}\n" in block + "\n"}
        return [entry for entry in own.values()
                if shlex.split(entry["command"].rpartition(" -o ")[2])[0] in including]

    def optimised(self, path):
        """What the compiler makes of a file in the end.

        A mistake that leaves it as it was cannot be noticed by anything.
        """
        made = []
        for entry in self.sources(path):
            words = [word for word in shlex.split(entry["command"])
                     if not word.startswith(("-fsanitize", "-g", "-O", "-DNDEBUG"))]
            words = words[:words.index("-o")] + ["-O2", "-S", "-o", "-", entry["file"]]
            made.append(subprocess.run(words, cwd=entry["directory"], capture_output=True).stdout)
        return made


def first_failure(output):
    """The program that ctest's output tells of first, and its test."""
    # The output of each program that fails follows its row. More than one may fail.
    rows = re.split(r"^ *\d+/\d+ Test +#\d+: (\S+) \.*[^*\n]*\*\*\*(\S+)", output, flags=re.MULTILINE)
    if len(rows) < 4:
        raise SystemExit(f"{output}\nctest failed without a failing test.")
    program, how, said = rows[1:4]
    if how.startswith("Timeout"):
        return program, "(hangs)"
    failed = re.search(r"\[  FAILED  \] ([^\s,]+)", said)
    if failed is not None:
        return program, failed.group(1)
    if "LeakSanitizer" in said:
        return program, "(leaks)"
    running = re.findall(r"\[ RUN      \] (\S+)", said)
    return program, f"{running[-1] if running else ''} (ends)"
