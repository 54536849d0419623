#!/usr/bin/env python3
"""Several hosts behind HAProxy and nginx, with the configurations that are shipped.

    stage.py PROGRAM FOLDER REPORT

PROGRAM is corvane-host, FOLDER an empty one with corvane.crt, corvane.key and corvane.pem (both),
REPORT a file for all figures. Prints a summary; ends with 1 if an answer was wrong, a request was
sent to the wrong host, or one was lost where none may be.
"""
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import time

import attacks
import disturb
import sessions
from client import Connection, Target
from load import PATH, Load, Result, expected, request_body, send_one
from stand import NODES, Failure, Stand

SESSIONS = 200
LEAST_CHECKED = 50000
CLIENTS = 5  # for each balancer
LATENCY_ROUNDS = 1500
ATTACKER = "127.0.0.99"


class Report:
    """What was found. Everything goes to the file, the summary to standard output too."""

    def __init__(self, path):
        self.file = open(path, "w")
        self.failures = 0

    def line(self, text, summary=True):
        self.file.write(text + "\n")
        self.file.flush()
        if summary:
            print(text, flush=True)

    def fail(self, text):
        self.failures += 1
        self.line("FAILED: " + text, summary=self.failures <= 20)


class Stage:
    def __init__(self, stand, report):
        self.stand = stand
        self.report = report
        self.credential = sessions.make_credential(stand.folder)
        self.targets = [Target(one.name, "127.0.0.1", one.port, stand.authority, stand.token())
                        for one in stand.balancers]
        self.checked = 0

    def log_lines(self, name, identity):
        for balancer in self.stand.balancers:
            if balancer.name == name:
                # HAProxy says nothing of a request that it ends without an answer.
                for line in balancer.lines_of(identity) or ["not in its log"]:
                    self.report.line("    " + line, summary=self.report.failures <= 5)

    def exchanges(self):
        start = time.monotonic()
        results = sessions.exchange_through(self.targets, SESSIONS, 4, self.credential)
        for name, (requests, wrong, nodes) in results.items():
            spread = ", ".join(f"{node} {nodes.count(node)}" for node in NODES)
            self.report.line(f"{name}: {len(nodes)} sessions ({spread}), {requests} requests, "
                             f"{len(wrong)} misrouted or wrong")
            for text in wrong:
                self.report.fail(text)
                self.log_lines(name, text.partition("id=")[2].partition(" ")[0])
            if len(nodes) != SESSIONS or min(nodes.count(node) for node in NODES) == 0:
                self.report.fail(f"{name}: not all hosts got sessions")
        self.report.line(f"in {time.monotonic() - start:.0f} s", summary=False)

    def attacked(self):
        for target in self.targets:
            kept = sessions.opened(target, 12, self.credential)
            tokens = {one.node: one.token for one in kept}
            count, wrong = attacks.attack(target.seen_from(ATTACKER), tokens)
            self.report.line(f"{target.name}: {count} attacks, {len(wrong)} not as expected")
            for text in wrong:
                self.report.fail(text)
            self.logs_are_clean(target, tokens.values())

    def logs_are_clean(self, target, tokens):
        """Logs have the client's own address, whatever it said, and no tokens."""
        hosts = [os.path.join(self.stand.folder, node + "-access.log") for node in NODES]
        texts = {}
        for path in hosts + [balancer.log for balancer in self.stand.balancers]:
            with open(path, errors="replace") as file:
                texts[path] = file.read()
            for secret in (attacks.FORGED, target.token, *tokens):
                if secret in texts[path]:
                    self.report.fail(f"{os.path.basename(path)} has {secret[:12]}...")
        seen = "".join(texts[path] for path in hosts)
        for what in (f'"address":"{ATTACKER}"', f'"id":"after-{target.name}-1-0"'):
            if what not in seen:
                self.report.fail(f"{target.name}: no host's log has {what}")

    def http2(self):
        """curl asks for HTTP/2 and gets it, with bodies below and above a balancer's buffer."""
        for target in self.targets:
            for size in (64, sessions.LARGE):
                key, data = os.urandom(32), os.urandom(size)
                body = os.path.join(self.stand.folder, "body")
                with open(body, "w") as file:
                    file.write(request_body(key, data))
                curl = subprocess.run(
                    ["curl", "-sS", "--http2", "--config", "-", "--cacert", target.authority,
                     "--json", "@" + body, "--write-out", "\n%{http_version} %{http_code}",
                     f"https://localhost:{target.place[1]}{PATH}"], capture_output=True, text=True,
                    input=f'header = "Authorization: Bearer {target.token}"\n')
                answer, _, kind = curl.stdout.rpartition("\n")
                if kind != "2 200" or json.loads(answer)["results"]["Data"] != expected(key, data):
                    self.report.fail(f"{target.name}: by HTTP/2, {size} bytes: {kind} "
                                     f"{curl.stderr.strip()}")
        self.report.line("HTTP/2 to both, with small and large bodies")

    def repeated_requests(self):
        """What the configurations repeat is what the catalogue calls safe."""
        listed = subprocess.run([self.stand.program, "list", "--json"], check=True,
                                capture_output=True).stdout
        safe = {request["name"] for request in json.loads(listed)
                if request["retry"]["code"] == "safe"}
        names = {request["name"] for request in json.loads(listed)}
        with open("packaging/haproxy/haproxy.cfg") as file:
            prefixes = re.search(r"acl without_session path_beg (.*)", file.read())[1].split()
        with open("packaging/nginx/corvane.conf") as file:
            pattern = re.search(r"location ~ (\S+) {", file.read())[1]
        for name in names:
            path = "/v1/requests/" + name
            for balancer, repeats in (("HAProxy", path.startswith(tuple(prefixes))),
                                      ("nginx", bool(re.search(pattern, path)))):
                if repeats != (name in safe):
                    self.report.fail(f"{balancer} does{'' if repeats else ' not'} repeat {name}")
        self.report.line(f"{len(safe)} of {len(names)} requests may be repeated")

    def disturbed(self, what, function, clients=CLIENTS, large=None):
        """Runs it under load; returns the results by the balancers' names."""
        load = Load(self.targets, clients, large)
        time.sleep(0.5)
        try:
            function(self.stand)
        finally:
            time.sleep(0.5)
            results = load.stop()
        self.told(what, results)
        return results

    def told(self, what, results):
        for name, result in results.items():
            self.checked += result.right
            kinds = {}
            for _, text, _ in result.lost:
                kinds[text] = kinds.get(text, 0) + 1
            self.report.line(f"{what:46} | {name:7} | {result.right:6} | {len(result.lost):4} | "
                             f"{len(result.wrong):5} | {result.slowest:7.2f}")
            for text, count in sorted(kinds.items()):
                self.report.line(f"    {count} times: {text}", summary=False)
            for identity, text, seconds in result.wrong:
                self.report.fail(f"{what}, {name}, id={identity}: wrong answer: {text}")
                self.log_lines(name, identity)

    def none_lost(self, what, results):
        for name, result in results.items():
            for identity, text, seconds in result.lost:
                self.report.fail(f"{what}, {name}, id={identity}: {text} after {seconds:.2f} s")
                self.log_lines(name, identity)

    def resilience(self):
        self.report.line(f"{'under load':46} | through | right  | lost | wrong | slowest s")
        for what, function in disturb.MUST_LOSE_NOTHING:
            kept = [one for target in self.targets
                    for one in sessions.opened(target, 6, self.credential)]
            results = self.disturbed(what, lambda stand: function(
                stand, lambda when, ended: self.asked(kept, when, ended)))
            self.none_lost(what, results)
        for what, function in disturb.MAY_LOSE:
            self.disturbed(what, function)
        self.disturbed("the first again, with bodies of 300 kB", lambda stand:
                       disturb.kill_and_start(stand, lambda when, ended: None),
                       large=sessions.LARGE)
        while self.checked < LEAST_CHECKED:
            self.none_lost("nothing happens", self.disturbed(
                "nothing happens", lambda stand: time.sleep(5)))
        self.report.line(f"{self.checked} HMACs were checked")

    def asked(self, kept, when, ended):
        """A request of each session: refused if its node has ended, or else a right answer."""
        counts = {}
        for one in kept:
            try:
                status = one.asked_again()
            except sessions.Wrong as error:
                self.report.fail(f"{when}: {error}")
                continue
            gone = one.node in ended
            counts[gone, status] = counts.get((gone, status), 0) + 1
            if status not in ((410, 421) if gone else (200,)):
                self.report.fail(f"{when}: a session of node {one.node} through "
                                 f"{one.connection.target.name} got {status}")
                self.log_lines(one.connection.target.name, f"{one.name}-{one.requests}")
        told = ", ".join(f"{count} of {'ended' if gone else 'other'} hosts {status}"
                         for (gone, status), count in sorted(counts.items()))
        self.report.line(f"    sessions, when {when}: {told}", summary=False)

    def latency(self):
        """A client alone, its requests to all of them in turn."""
        stand = self.stand
        for process in (stand.direct, stand.plain, *stand.plain_balancers):
            process.start()
        token = stand.token()
        places = [("the host itself", "plain", stand.plain.place, None),
                  *((one.name, "plain", ("127.0.0.1", one.port), None)
                    for one in stand.plain_balancers),
                  ("the host itself", "TLS", stand.direct.place, stand.authority),
                  *((one.name, "TLS", ("127.0.0.1", one.port), stand.authority)
                    for one in stand.balancers)]
        connections = [(name, kind, Connection(Target(name, *place, authority, token)))
                       for name, kind, place, authority in places]
        times = {(name, kind): [] for name, kind, _ in connections}
        result = Result()
        time.sleep(2)  # the plain HAProxy's first checks
        for number in range(LATENCY_ROUNDS + 50):
            for name, kind, connection in connections:
                start = time.perf_counter()
                send_one(connection, result, f"latency-{number}", 64)
                if number >= 50:  # the first ones make connections
                    times[name, kind].append((time.perf_counter() - start) * 1000)
        if result.lost or result.wrong:
            self.report.fail(f"without load: {(result.lost + result.wrong)[:3]}")
        self.latency_table(times)

    def latency_table(self, times):
        self.report.line("one client   | through         | p50 ms | p99 ms | added: p50 | p99")
        for (name, kind), one in times.items():
            row = [sorted(one)[int(len(one) * part)] for part in (0.5, 0.99)]
            base = [sorted(times["the host itself", kind])[int(len(one) * part)]
                    for part in (0.5, 0.99)]
            self.report.line(f"{kind:12} | {name:15} | {row[0]:6.2f} | {row[1]:6.2f} | "
                             f"{row[0] - base[0]:10.2f} | {row[1] - base[1]:5.2f}")

    def nothing_on_the_disk(self):
        """nginx tells in its log when it writes a body or an answer to a file."""
        for balancer in (*self.stand.balancers, *self.stand.plain_balancers):
            with open(balancer.log, errors="replace") as file:
                if "temporary file" in file.read():
                    self.report.fail(f"{balancer.name} wrote a body to the disk")


def main():
    program, folder, path = sys.argv[1:]
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # and end what was started
    report = Report(path)
    stand = Stand(folder, program)
    # An engine of its own for the host whose engine breaks.
    engine = os.path.join(os.path.dirname(os.path.dirname(os.path.realpath(program))),
                          "lib/corvane/devkit/libSoftModuleaven.so")
    stand.hosts["c"].engine = os.path.join(folder, "libSoftModuleaven.so")
    for name in (stand.hosts["c"].engine, stand.hosts["c"].engine + ".whole"):
        shutil.copy(engine, name)
    try:
        stand.start()
        stage = Stage(stand, report)
        for part in (stage.repeated_requests, stage.http2, stage.exchanges,
                     stage.attacked, stage.resilience, stage.latency, stage.nothing_on_the_disk):
            start = time.monotonic()
            part()
            report.line(f"-- {part.__name__}: {time.monotonic() - start:.0f} s", summary=False)
    except (Failure, sessions.Wrong) as error:
        report.fail(f"the stage cannot go on: {error}")
    finally:
        stand.end()
    report.line(f"{report.failures} failures; all figures: {path}")
    sys.exit(0 if report.failures == 0 else 1)


if __name__ == "__main__":
    main()
