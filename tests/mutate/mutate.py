"""Draws mutants of an area's files, judges each, and prints a row for each.

    mutate.py plugin|devkit SEED COUNT
    mutate.py at FILE:LINE...

The working directory is the checkout, whose files and build trees it changes. The same seed draws
the same mutants.
"""

import math
import pathlib
import random
import sys
import time

from bench import Bench, Checkout
from mutants import mutants_of

# Wanted, in percent of those mutants that are not equivalent. A draw of few may have fewer by
# chance, and some that nobody has found to be equivalent yet; below this chance it is neither.
WANTED = {"plugin": 97.0, "devkit": 92.0}
UNLIKELY = 0.001
FOLDERS = {"plugin": "src", "devkit": "devkit"}
# The labels of the tests that may notice what is wrong in a folder: the nearest, and the others.
NEAR_AND_FAR = {
    "devkit/common": (["common", "service", "host", "peer"], []),
    "devkit/engine": (["engine", "vectors"], ["peer", "host", "service"]),
    "devkit/host": (["host"], ["service"]),
    "devkit/params": (["params"], ["host", "service"]),
    "devkit/peer": (["peer"], ["engine", "host", "service"]),
    "devkit/service": (["service"], ["host"]),
}
# In each build tree, the labels of the tests that may judge an area.
DEVKIT = ["common", "params", "engine", "vectors", "peer", "host", "service"]
LABELS = {
    "plugin": {"asan": ["unit"], "aarch64": ["unit"], "release": ["secrets"]},
    "devkit": {"release": DEVKIT},
}
# What tests start, beside themselves.
PROGRAMS = {"plugin": [], "devkit": ["corvane-host", "corvane-ke-peer"]}
SAME_CODE = "equivalent", "the compiler makes the same of it"
EQUIVALENTS = pathlib.Path(__file__).resolve().parent / "equivalents.txt"


class Equivalents:
    """The reasons in the file, which says how they are written."""

    def __init__(self):
        self.reasons, self.symmetric = {}, {}
        blocks = EQUIVALENTS.read_text().strip().split("\n\n")
        for block in blocks[1:]:  # the first says what the file is
            place, *lines = block.splitlines()
            path, _, function = place.partition(" ")
            marks = [line[:2] for line in lines]
            if marks[:1] == ["~ "] and len(lines) > 1:
                self.symmetric[lines[0][2:]] = " ".join(lines[1:])
            elif marks[:2] == ["- ", "+ "] and len(lines) > 2:
                self.reasons[path, function, lines[0][2:], lines[1][2:]] = " ".join(lines[2:])
            else:
                raise SystemExit(f"{EQUIVALENTS.name}: no equivalent mutant:\n{block}")

    def stale(self):
        """Those that no mutant of their file is."""
        made = set()
        for path in {path for path, *_ in self.reasons}:
            text = pathlib.Path(path).read_text()
            made |= {mutant.place(text) for mutant in mutants_of(path, text)}
        return sorted(set(self.reasons) - made)

    def reason(self, mutant, text):
        return (self.symmetric.get(mutant.swapped_in)
                or self.reasons.get(mutant.place(text)))


def judges_of(path):
    """The build trees in which mutants of a file are judged, each with the labels of the tests that
    run there. What one does not notice, the next may: the nearest tests first. The devkit's tests
    with sanitizers are left out: they would take minutes for each mutant that survives."""
    if path.endswith("_neon.cpp"):
        return [("aarch64", ["unit"])]
    if path.startswith("src/"):
        return [("asan", ["unit"]), ("release", ["secrets"])]
    both = next(both for folder, both in NEAR_AND_FAR.items() if path.startswith(folder + "/"))
    return [("release", labels) for labels in both if labels]


class Session:
    """Judges mutants and counts the verdicts."""

    def __init__(self):
        self.equivalents, self.checkout = Equivalents(), Checkout()
        self.benches = {}
        self.usual = None, None  # a file, and what the compiler makes of it
        self.verdicts = {"noticed": 0, "SURVIVED": 0, "equivalent": 0, "no code": 0}

    def bench(self, build, area):
        """Made when it is first needed. The file that is changed may not be."""
        if build not in self.benches:
            self.checkout.restore()
            self.benches[build] = Bench(pathlib.Path("build", build), LABELS[area][build],
                                        PROGRAMS[area])
        return self.benches[build]

    def verdict(self, mutant, text):
        """A word, and what there is to say of it."""
        reason = self.equivalents.reason(mutant, text)
        if reason is not None:
            return "equivalent", reason
        area = "plugin" if mutant.path.startswith("src/") else "devkit"
        for i, (build, labels) in enumerate(judges_of(mutant.path)):
            bench = self.bench(build, area)
            self.checkout.change(mutant)
            if bench.make().returncode != 0:
                return "no code", "does not compile"
            # A header's sources are many: they are looked at only if no test notices.
            if i == 0 and not mutant.path.endswith(".h") and self.makes_the_same(bench, mutant):
                return SAME_CODE
            noticed = bench.notice(mutant.path, labels)
            if noticed is not None:
                return "noticed", noticed
        if mutant.path.endswith(".h") and self.makes_the_same(bench, mutant):
            return SAME_CODE
        return "SURVIVED", ""

    def makes_the_same(self, bench, mutant):
        """Whether the compiler makes the same of the file, which is changed, as without that."""
        made = bench.optimised(mutant.path)
        if self.usual[0] != mutant.path:
            self.checkout.restore()
            self.usual = mutant.path, bench.optimised(mutant.path)
            self.checkout.change(mutant)
        return made == self.usual[1] and made != []

    def judge(self, mutant, text):
        """Returns whether it is one that compiles. Only then it has a row."""
        start = time.monotonic()
        verdict, said = self.verdict(mutant, text)
        self.verdicts[verdict] += 1
        if verdict == "no code":
            return False
        where = f"{mutant.path}:{mutant.line_number(text)}"
        print(f"{where:<58} {time.monotonic() - start:>4.0f} s  {verdict}: {said}")
        if verdict == "SURVIVED":
            path, function, old, new = mutant.place(text)
            print(f"    {path} {function}".rstrip() + f"\n    - {old}\n    + {new}")
        sys.stdout.flush()
        return True

    def end(self):
        self.checkout.restore()


def chance_of_so_few(noticed, drawn, share):
    """That at most so many of those drawn are noticed, if the share of all is noticed."""
    return sum(math.comb(drawn, k) * share**k * (1 - share)**(drawn - k)
               for k in range(noticed + 1))


def texts_of(area):
    return {str(path): path.read_text() for path in sorted(pathlib.Path(FOLDERS[area]).rglob("*"))
            if path.suffix in (".cpp", ".h")}


def draw(area, seed, count):
    """Judges `count` mutants of an area, drawn by lot. Returns the exit status."""
    texts = texts_of(area)
    mutants = [mutant for path, text in texts.items() for mutant in mutants_of(path, text)]
    random.Random(seed).shuffle(mutants)
    print(f"{area}: {len(mutants)} mutants, of which {count} are drawn by seed {seed}", flush=True)
    session = Session()
    judged = 0
    try:
        while judged < count and mutants:
            # By file: one that gets its proper text again is compiled for that.
            batch = sorted(mutants[:count - judged], key=lambda mutant: (mutant.path, mutant.start))
            mutants = mutants[len(batch):]
            judged += sum(session.judge(mutant, texts[mutant.path]) for mutant in batch)
    finally:
        session.end()

    noticed, equivalent = session.verdicts["noticed"], session.verdicts["equivalent"]
    rest = judged - equivalent
    share = 100.0 * noticed / rest if rest else 100.0
    chance = chance_of_so_few(noticed, rest, WANTED[area] / 100)
    print(f"\n{area}, seed {seed}: {judged} judged, {equivalent} equivalent; of the other {rest} "
          f"{noticed} noticed, {share:.1f} % (wanted: {WANTED[area]:.0f} %, with which so few come "
          f"with a chance of {100 * chance:.2f} %); {session.verdicts['no code']} more did not "
          "compile")
    return 0 if chance >= UNLIKELY else 1


def judge_at(places):
    """Judges all mutants that begin in the lines, each FILE:LINE. Returns the exit status."""
    session = Session()
    try:
        for place in places:
            path, line = place.rsplit(":", 1)
            text = pathlib.Path(path).read_text()
            for mutant in mutants_of(path, text):
                if mutant.line_number(text) == int(line):
                    session.judge(mutant, text)
    finally:
        session.end()
    return 0 if session.verdicts["SURVIVED"] == 0 else 1


def main():
    command, *arguments = sys.argv[1:]
    if command == "at":
        return judge_at(arguments)
    seed, count = arguments
    return draw(command, int(seed), int(count))


if __name__ == "__main__":
    sys.exit(main())
