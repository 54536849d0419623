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

from bench import Bench
from mutants import mutants_of

# Wanted, in percent of those mutants that are not equivalent. A draw of few may have fewer by
# chance; below this chance it is none.
WANTED = {"plugin": 97.0, "devkit": 92.0}
UNLIKELY = 0.01
FOLDERS = {"plugin": "src", "devkit": "devkit"}
# The labels of the tests that are nearest to a folder.
NEAR = {
    "src": ["unit"],
    "devkit/common": ["service", "host", "peer"],
    "devkit/engine": ["engine", "vectors"],
    "devkit/host": ["host"],
    "devkit/params": ["params"],
    "devkit/peer": ["peer"],
    "devkit/service": ["service"],
}
DEVKIT = ["params", "engine", "vectors", "peer", "host", "service"]
EQUIVALENTS = pathlib.Path(__file__).resolve().parent / "equivalents.txt"


class Equivalents:
    """The reasons in the file, which says how they are written."""

    def __init__(self):
        self.reasons, self.symmetric = {}, {}
        blocks = EQUIVALENTS.read_text().strip().split("\n\n")
        for block in blocks[1:]:  # the first says what the file is
            path, *lines = block.splitlines()
            marks = [line[:2] for line in lines]
            if marks[:1] == ["~ "] and len(lines) > 1:
                self.symmetric[lines[0][2:]] = " ".join(lines[1:])
            elif marks[:2] == ["- ", "+ "] and len(lines) > 2:
                self.reasons[path, lines[0][2:], lines[1][2:]] = " ".join(lines[2:])
            else:
                raise SystemExit(f"{EQUIVALENTS.name}: no equivalent mutant:\n{block}")

    def stale(self):
        """Those whose line is no longer in their file."""
        return [(path, old) for path, old, _ in self.reasons
                if old not in " ".join(pathlib.Path(path).read_text().split())]

    def reason(self, mutant, text):
        return (self.symmetric.get(mutant.swapped_in)
                or self.reasons.get((mutant.path, *mutant.lines(text))))


def benches_of(path):
    """The builds that judge mutants of a file, and the labels of their tests. What one does not
    notice, the next may: sanitizers slow the devkit's tests down too much to be the first."""
    if path.endswith("_neon.cpp"):
        return [("aarch64", ["unit"])]
    if path.startswith("src/"):
        return [("asan", ["unit"])]
    return [("release", DEVKIT), ("asan", DEVKIT)]


class Benches:
    """Each is made when it is first needed."""

    def __init__(self):
        self.made = {}

    def of(self, path):
        for build, labels in benches_of(path):
            if build not in self.made:
                self.made[build] = Bench(pathlib.Path("build", build), labels)
            yield self.made[build]

    def restore(self):
        for bench in self.made.values():
            bench.restore()


def near(path):
    return next(labels for folder, labels in NEAR.items() if path.startswith(folder + "/"))


def judge(mutant, benches, equivalents, text):
    """A word of the verdict, and what there is to say of it."""
    reason = equivalents.reason(mutant, text)
    if reason is not None:
        return "equivalent", reason
    for first, bench in enumerate(benches.of(mutant.path)):
        usual = bench.optimised(mutant.path) if first == 0 else None
        bench.change(mutant)
        if bench.make().returncode != 0:
            return "no code", "does not compile"
        if usual is not None and bench.optimised(mutant.path) == usual:
            return "equivalent", "the compiler makes the same of it"
        noticed = bench.notice(mutant.path, near(mutant.path))
        if noticed is not None:
            return "noticed", noticed
    return "SURVIVED", ""


def chance_of_so_few(noticed, drawn, share):
    """That at most so many of those drawn are noticed, if the share of all is noticed."""
    return sum(math.comb(drawn, k) * share**k * (1 - share)**(drawn - k)
               for k in range(noticed + 1))


def texts_of(area):
    return {str(path): path.read_text() for path in sorted(pathlib.Path(FOLDERS[area]).rglob("*"))
            if path.suffix in (".cpp", ".h")}


class Session:
    """Judges mutants and counts the verdicts."""

    def __init__(self):
        self.equivalents, self.benches = Equivalents(), Benches()
        self.verdicts = {"noticed": 0, "SURVIVED": 0, "equivalent": 0, "no code": 0}

    def judge(self, mutant, text):
        """Returns whether it is one that compiles. Only then it has a row."""
        start = time.monotonic()
        verdict, said = judge(mutant, self.benches, self.equivalents, text)
        self.verdicts[verdict] += 1
        if verdict == "no code":
            return False
        where = f"{mutant.path}:{mutant.line_number(text)}"
        print(f"{where:<58} {time.monotonic() - start:>4.0f} s  {verdict}: {said}")
        if verdict == "SURVIVED":
            old, new = mutant.lines(text)
            print(f"    - {old}\n    + {new}")
        sys.stdout.flush()
        return True

    def end(self):
        self.benches.restore()


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
          f"with a chance of {100 * chance:.1f} %); {session.verdicts['no code']} more did not "
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
