"""Line and branch coverage of src/, from what `llvm-cov export` writes.

    coverage_report.py EXPORT SOURCE_DIR ACCEPTED

Prints the lines and branches of each file and in total, then every gap: a line that no
test runs, a condition that is never true or never false. A branch is one outcome of a
condition as it stands in the source, whatever templates and macros make of it; conditions
that the compiler decides do not count.

ACCEPTED is a list of gaps with their reasons. Entries are separated by blank lines:

    FILE: KIND: SOURCE TEXT
        the reason

KIND is "line", "never true" or "never false" (SOURCE TEXT is then the condition), or
"function" for all of one that begins with the line SOURCE TEXT. "line, here" and so on
stands for a gap that depends on the machine, which may also be none.

Fails if a gap is not accepted, if an accepted one is none any more, if lines without the
accepted ones are below 100 %, or branches, accepted or not, below 95 %.
"""

import collections
import json
import pathlib
import sys

LINES_WANTED = 100.0
BRANCHES_WANTED = 95.0


class Source:
    """One source file and its counts."""

    def __init__(self, path, exported, functions):
        self.name = f"{path.parent.name}/{path.name}"
        self.text = path.read_text().splitlines()
        self.lines = line_counts(exported["segments"], len(self.text))
        self.branches = {}
        for branch in exported["branches"]:
            counts = self.branches.setdefault(tuple(branch[:4]), [0, 0])
            counts[0] += branch[4]
            counts[1] += branch[5]
        # Conditions that the compiler decides count neither way where their line runs.
        for place, counts in list(self.branches.items()):
            if counts == [0, 0] and self.lines.get(place[0], 0) > 0:
                del self.branches[place]
        # Of a template, what all its instances count.
        counts = collections.Counter()
        for function in functions:
            first, last = function["regions"][0][0], function["regions"][0][2]
            counts[first, last] += function["count"]
        self.idle_functions = [place for place, count in counts.items() if count == 0]

    def gaps(self):
        """(kind, source text, line number) of each gap, functions as a whole."""
        found = []
        idle = set()
        for first, last in sorted(self.idle_functions):
            begin = first
            while self.text[begin - 1].strip() in ("{", ""):
                begin -= 1
            found.append(("function", self.text[begin - 1].strip(), first))
            idle.update(range(first, last + 1))
        for number, count in sorted(self.lines.items()):
            if count == 0 and number not in idle:
                found.append(("line", self.text[number - 1].strip(), number))
        for (line, column, end_line, end_column), counts in sorted(self.branches.items()):
            if line in idle:
                continue
            text = self.text[line - 1][column - 1:]
            if end_line == line:
                text = text[:end_column - column]
            for kind, count in zip(("never true", "never false"), counts):
                if count == 0:
                    found.append((kind, text.strip(), line))
        return found

    def line_figures(self):
        return sum(1 for count in self.lines.values() if count > 0), len(self.lines)

    def branch_figures(self):
        counts = [count for pair in self.branches.values() for count in pair]
        return sum(1 for count in counts if count > 0), len(counts)

    def idle_lines(self, gap):
        """How many lines a gap stands for."""
        kind, _, number = gap
        if kind == "line":
            return 1
        if kind == "function":
            last = max(place[1] for place in self.idle_functions if place[0] == number)
            return sum(1 for line in range(number, last + 1) if self.lines.get(line) == 0)
        return 0


def line_counts(segments, length):
    """A line counts what the busiest region on it does; comments and the like have none."""
    by_line = collections.defaultdict(list)
    for line, _, count, has_count, is_entry, is_gap in segments:
        by_line[line].append((count, has_count, is_entry, is_gap))
    counts = {}
    before = None  # the last segment of an earlier line
    for number in range(1, length + 1):
        here = by_line.get(number, [])
        starts = [count for count, has_count, entry, gap in here if has_count and entry and not gap]
        begins_left_out = bool(here) and not here[0][1] and here[0][2]
        runs_on = before is not None and before[1]
        if not begins_left_out and (runs_on or starts):
            counts[number] = max(starts + ([before[0]] if runs_on else []))
        if here:
            before = here[-1]
    return counts


def read_accepted(path):
    accepted = collections.Counter()
    reasons = {}
    for entry in path.read_text().split("\n\n"):
        lines = [line for line in entry.splitlines() if line.strip() and line[0] != "#"]
        if not lines:
            continue
        key = tuple(lines[0].split(": ", 2))
        if len(key) != 3 or len(lines) < 2:
            sys.exit(f"{path}: not a gap with a reason: {lines[0]}")
        accepted[key] += 1
        reasons[key] = " ".join(line.strip() for line in lines[1:])
    return accepted, reasons


def percent(covered, total):
    return 100.0 * covered / total if total else 100.0


def main():
    export, source_dir, accepted_path = sys.argv[1:]
    with open(export) as file:
        data = json.load(file)["data"][0]
    functions = collections.defaultdict(list)
    for function in data["functions"]:
        functions[pathlib.Path(function["filenames"][0]).name].append(function)
    sources = []
    for exported in data["files"]:
        name = pathlib.Path(exported["filename"]).name
        if name in functions:  # the others have declarations and macros only
            sources.append(Source(pathlib.Path(source_dir, name), exported, functions[name]))
    expected = {path.name for path in pathlib.Path(source_dir).glob("*.cpp")}
    missing = expected - {source.name.split("/")[1] for source in sources}
    if missing:
        sys.exit(f"nothing known of {', '.join(sorted(missing))}")

    print(f"{'file':<34} {'lines':>14} {'':>8} {'branches':>14}")
    totals = [0, 0, 0, 0]
    for source in sources:
        figures = source.line_figures() + source.branch_figures()
        totals = [total + figure for total, figure in zip(totals, figures)]
        print_row(source.name, figures)
    print_row("total", totals)

    accepted, reasons = read_accepted(pathlib.Path(accepted_path))
    unused = accepted.copy()
    status = 0
    accepted_lines = 0
    print("\ngaps:")
    for source in sources:
        for gap in source.gaps():
            kind, text, number = gap
            keys = [(source.name, kind, text), (source.name, f"{kind}, here", text)]
            key = next((key for key in keys if unused[key] > 0), None)
            print(f"{source.name}:{number}: {kind}: {text}")
            if key is None:
                print("    NOT ACCEPTED")
                status = 1
                continue
            unused[key] -= 1
            accepted_lines += source.idle_lines(gap)
            print(f"    {reasons[key]}")
    for key in sorted(unused):
        if unused[key] > 0 and not key[1].endswith(", here"):
            print(f"NO GAP ANY MORE, but in {accepted_path}: {': '.join(key)}")
            status = 1

    lines = percent(totals[0] + accepted_lines, totals[1])
    branches = percent(totals[2], totals[3])
    print(f"\nlines, accepted gaps included: {lines:.2f} % (wanted: {LINES_WANTED:.0f} %)")
    print(f"branches, without accepted gaps: {branches:.2f} % (wanted: {BRANCHES_WANTED:.0f} %)")
    if lines < LINES_WANTED or branches < BRANCHES_WANTED:
        status = 1
    print("coverage: FAILED" if status else "coverage: passed")
    return status


def print_row(name, figures):
    lines, all_lines, branches, all_branches = figures
    print(f"{name:<34} {lines:>6} / {all_lines:<5} {percent(lines, all_lines):>7.2f} %"
          f" {branches:>6} / {all_branches:<5} {percent(branches, all_branches):>7.2f} %")


if __name__ == "__main__":
    sys.exit(main())
