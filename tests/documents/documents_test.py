"""Runs the commands of the documents and follows their links.

documents_test.py SOURCE_DIR BUILD_DIR [DOCUMENT]...

Every fenced block of a Markdown file is run by bash, the blocks of a file one after the other in
one shell. In a block with prompts ("$ ", and "> " for a command's further lines) each command's
output is compared with what the document shows; every command of another block must exit with 0.
What stands before or behind the three backquotes says what else a block may be:

    <!-- not run: REASON -->    commands that this test cannot run
    <!-- run by FILE -->        commands that another test runs, in this file of the tree
    <!-- file NAME -->          not commands, but a file NAME that later commands use
    ```text, ```c and so on     not commands: output, or a part of a file

Blocks run in a folder that looks like the checkout, at a path with a blank, with a home of its own
and the built programs in PATH. tests/documents/README.sh is read before the first block of
README.md, docs_serving.sh before that of docs/serving.md. 8720 to 8722, the ports that documents
name, are free ones instead, and /home/ada is the home. Run by root, they can write nowhere else: a command
that is for somebody's board does not change this system.
"""

import concurrent.futures
import contextlib
import os
import re
import socket
import subprocess
import sys
import tempfile
from pathlib import Path

# Lines that commands print and documents leave out: the engine's own log.
LEFT_OUT = re.compile(r"^\d{4}-\d\d-\d\dT[\d:]+Z SoftModuleaven: .*\n", re.M)

# What is different each time, where a document shows one of many.
VARYING = [r'(?<="microseconds":)\s?[\d.]+', r"OpenSSL 3[\d.]+ \d+ \w+ \d{4}",
           r"\bke_[\w.-]+", r"\b\d+(\.\d+)? (us|ms|s)\b", r"\d+(?= requests)",
           r"\b(p[\d.]+|max) [\d.]+"]

# Makes all file systems but the scratch folder read-only, for this process and its children.
READ_ONLY = r"""
mount --make-rprivate / && mount --bind "$TMPDIR" "$TMPDIR" || exit
while read -r _ place _; do
    printf -v place %b "$place"
    [ "$place" = "$TMPDIR" ] || mount -o remount,bind,ro "$place" 2>/dev/null
done </proc/self/mounts
if : 2>/dev/null >"$SOURCE/.written"; then
    rm "$SOURCE/.written"
    echo "The checkout can be written."
    exit 1
fi
"""

MARK = re.compile(r"<!-- (not run|run by|file):? (.*?) -->", re.S)


class Block:
    def __init__(self, line, language, mark, text):
        self.line, self.language, self.text = line, language, text
        self.mark, self.argument = mark or ("", "")

    def steps(self):
        """(command, shown output) for each command; without prompts the block is one, and None."""
        lines = self.text.splitlines()
        if not lines[0].startswith("$ "):
            return [(self.text, None)]
        steps = []
        for line in lines:
            continued = steps and not steps[-1][1] and (
                line.startswith("> ") or steps[-1][0].endswith("\\"))
            if line.startswith("$ "):
                steps.append([line[2:], ""])
            elif continued:
                steps[-1][0] += "\n" + line.removeprefix("> ")
            else:
                steps[-1][1] += line + "\n"
        return [tuple(step) for step in steps]


def blocks_of(document):
    """The fenced blocks, with the comment that stands before each."""
    blocks, before, inside = [], "", None
    for number, line in enumerate(document.read_text().splitlines(), 1):
        fence = re.match(r"( *)```(\w*)$", line)
        if inside is None and fence:
            mark = MARK.search(before[before.rfind("<!--"):]) if before.endswith("-->") else None
            inside = (number, fence[1], fence[2], mark and mark.groups(), [])
        elif fence:
            start, indent, language, mark, lines = inside
            text = "".join(one.removeprefix(indent) + "\n" for one in lines)
            blocks.append(Block(start, language, mark, text))
            inside, before = None, ""
        elif inside:
            inside[4].append(line)
        elif line.strip():
            before += line.strip() if not before else " " + line.strip()
    return blocks


def is_as_shown(shown, printed):
    """Whether the output is the shown one. "..." is any text; the document may break lines."""
    pattern, at = "", 0
    for hit in re.finditer("|".join(f"(?:{one})" for one in [r"\.\.\.", r"\s+", *VARYING]), shown):
        pattern += re.escape(shown[at:hit.start()])
        at = hit.end()
        if hit[0] == "...":
            pattern += r"[\s\S]*?"
        elif hit[0].isspace():
            pattern += r"\s*" if "\n" in hit[0] else r"\s+"
        else:
            pattern += next(one for one in VARYING
                            if re.compile(one).match(shown, hit.start()))
    pattern += re.escape(shown[at:])
    return re.fullmatch(pattern + r"\s*", printed) is not None


def can_be_alone():
    """Whether this process may have file systems as it likes."""
    return os.geteuid() == 0 and subprocess.run(["unshare", "--mount", "true"]).returncode == 0


def free_ports(number):
    with contextlib.ExitStack() as all_at_once:
        taken = [all_at_once.enter_context(socket.socket()) for _ in range(number)]
        for one in taken:
            one.bind(("127.0.0.1", 0))
        return [str(one.getsockname()[1]) for one in taken]


class Reader:
    """Who follows one document: a folder that looks like the checkout, a home, a port."""

    def __init__(self, source, build, document, scratch):
        self.source, self.document = source, document
        self.place, self.home = scratch / "a checkout", scratch / "home of ada"
        self.steps, self.ports = scratch / "steps", free_ports(3)
        for folder in (self.place / "build", self.home, self.steps):
            folder.mkdir(parents=True)
        for entry in source.iterdir():
            if entry.name not in ("build", ".git"):
                (self.place / entry.name).symlink_to(entry)
        (self.place / "build/release").symlink_to(build)
        (self.home / ".curlrc").write_text("silent\nshow-error\n")
        self.environment = {
            "PATH": f"{build}/bin:{os.environ['PATH']}", "HOME": str(self.home),
            "LC_ALL": "C.UTF-8", "TMPDIR": str(scratch), "PORT": self.ports[0], "SOURCE": str(source), "BUILD": str(build)}

    def here(self, text):
        free = {str(8720 + number): port for number, port in enumerate(self.ports)}
        free["/home/ada"] = str(self.home)
        return re.sub("|".join(free), lambda named: free[named[0]], text)

    def follow(self, steps):
        """Runs commands in one shell; gives (exit status or None, output) for each."""
        script = ['cd "$1"']
        name = str(self.document.with_suffix("")).replace("/", "_") + ".sh"
        if (self.source / "tests/documents" / name).exists():
            script.append(f'. "$SOURCE/tests/documents/{name}"')
        for number, (command, shown) in enumerate(steps):
            (self.steps / f"{number}.sh").write_text(self.here(command) + "\n")
            script += ["set -e" if shown is None else "set +e",
                       f'. "$2/{number}.sh" >"$2/{number}.out" 2>&1 </dev/null',
                       f'echo $? >"$2/{number}.status"']
        alone = can_be_alone()
        shell = subprocess.Popen(
            [*(["unshare", "--mount"] if alone else []), "bash", "-c",
             "\n".join([READ_ONLY if alone else "", *script]), "bash", self.place, self.steps],
            env=self.environment, start_new_session=True, stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        said = shell.stdout.read()
        shell.wait()
        (self.steps / "shell").write_text(said)
        return [self.outcome(number) for number in range(len(steps))]

    def outcome(self, number):
        status, out = self.steps / f"{number}.status", self.steps / f"{number}.out"
        printed = out.read_text(errors="replace") if out.exists() else ""
        return (int(status.read_text()) if status.exists() else None), LEFT_OUT.sub("", printed)


def faults_of(block, source):
    """What is wrong with a block that is not run."""
    kind, argument = block.mark, block.argument
    if kind == "run by" and not (source / argument).is_file():
        return f"there is no {argument}"
    if not kind and re.search(r"^(\$ |\./)", block.text, re.M):
        return "commands, marked as no commands"
    return ""


def texts_of(document):
    """A document without its fenced blocks."""
    return re.sub(r"^( *)```.*?^ *```$", "", document.read_text(), flags=re.M | re.S)


def anchors_of(document):
    """Where links may lead to in a document: its headings, as pages of repositories name them."""
    headings = re.findall(r"^#+ (.*)$", texts_of(document), re.M)
    anchors = set()
    for heading in headings:
        plain = re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", heading).lower()
        name = re.sub(r"[^\w\- ]", "", plain).replace(" ", "-")
        same = sum(one == name or re.fullmatch(re.escape(name) + r"-\d+", one) is not None
                   for one in anchors)
        anchors.add(f"{name}-{same}" if same else name)
    return anchors


def dead_links_of(document, source):
    """What a document's links name that is not there."""
    dead = []
    for path, anchor in re.findall(r"\]\(([^)#:\s]*)(?:#([^)]*))?\)", texts_of(source / document)):
        target = (source / document).parent / path if path else source / document
        if not target.exists():
            dead.append(f"{document}: links to {path}, which is not there")
        elif target.suffix == ".svg" and "<title" not in target.read_text():
            dead.append(f"{document}: shows {path}, which has no title for who does not see it")
        elif anchor and target.suffix == ".md" and anchor not in anchors_of(target):
            dead.append(f"{document}: links to {path}#{anchor}, which has no such heading")
    return dead


def check(source, build, document, scratch):
    """Follows a document. Gives what to print, and what is wrong."""
    reader = Reader(source, build, document, scratch)
    steps, of_block, marked, faults = [], [], [], dead_links_of(document, source)
    ran = 0
    for block in blocks_of(source / document):
        if block.mark == "file":
            steps.append((f"cat >{block.argument} <<'END OF FILE'\n{block.text}END OF FILE", None))
            of_block.append(block)
        elif block.mark or block.language not in ("", "sh", "bash"):
            if block.mark:
                marked.append(f"    line {block.line}: {block.mark}: {block.argument}")
            fault = faults_of(block, source)
            faults += [f"{document}:{block.line}: {fault}"] if fault else []
        else:
            ran += 1
            for step in block.steps():
                steps.append(step)
                of_block.append(block)
    outcomes = reader.follow(steps) if steps else []
    for block, (command, shown), (status, printed) in zip(of_block, steps, outcomes):
        failed = status != 0 if shown is None else not is_as_shown(reader.here(shown), printed)
        if status is None and not printed:
            faults.append(f"{document}:{block.line}: not reached")
        elif failed:
            faults.append(f"{document}:{block.line}: {command.strip()}\n"
                          f"-- exit status {status}, printed:\n{printed}"
                          + (f"-- shown:\n{shown}" if shown else ""))
    if faults and (said := (reader.steps / "shell").read_text() if steps else ""):
        faults.append(f"{document}: its shell said:\n{said}")
    if ran or marked:
        marked.insert(0, f"{document}: {ran} blocks run, {len(marked)} marked")
    return marked, faults


def documents_in(source):
    folders = ["devkit", "docs", "examples", "fuzz", "packaging"]
    found = list(source.glob("*.md")) + [one for folder in folders
                                         for one in (source / folder).rglob("*.md")]
    return sorted(one.relative_to(source) for one in found if "node_modules" not in one.parts)


def found_in(faults):
    """The lines of those blocks that have a fault."""
    return {int(fault.split(":")[1]) for fault in faults if fault.split(":")[1].isdigit()}


def main():
    source, build = (Path(one).resolve() for one in sys.argv[1:3])
    documents = [Path(one) for one in sys.argv[3:]] or documents_in(source)
    wrong = Path("tests/documents/wrong.md")  # each of its blocks must be found to be wrong
    well = True
    with tempfile.TemporaryDirectory(prefix="documents ") as scratch, \
            concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        checks = [(document,
                   pool.submit(check, source, build, document, Path(scratch) / str(number)))
                  for number, document in enumerate([*documents, wrong])]
        for document, checked in checks:
            lines, faults = checked.result()
            if document == wrong:
                assert len(dead_links_of(wrong, source)) == 2
                missed = {block.line for block in blocks_of(source / wrong)} - found_in(faults)
                lines, faults = [], [f"{wrong}:{line}: is taken for right" for line in missed]
            for line in lines + [f"FAILED  {fault}" for fault in faults]:
                print(line)
            well = well and not faults
    sys.exit(0 if well else 1)


main()
