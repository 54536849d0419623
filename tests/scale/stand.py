"""What is tried: three hosts, and the shipped configurations of HAProxy and nginx in front of
them. Of these files only addresses, ports, paths, the user they run as and the time that a host
may take are replaced."""
import glob
import os
import random
import re
import signal
import socket
import ssl
import subprocess
import time
import urllib.request

NODES = ("a", "b", "c")
# The configurations' addresses of the hosts, and what they are here.
ADDRESS = {"a": "127.0.0.11", "b": "127.0.0.12", "c": "127.0.0.13"}
LAME_DUCK_SECONDS = 4
# Shorter than is usual, so that a host that hangs is given up while it is watched. The balancers'
# time for a host is two of these, as in the files: 65 s for 30 s.
REQUEST_SECONDS = 4
GIVEN_UP_SECONDS = 2 * REQUEST_SECONDS


class Failure(Exception):
    """The stage cannot go on."""


def eventually(what, holds, seconds=60):
    """Waits until something holds; the end is against hangs alone."""
    end = time.monotonic() + seconds
    while not holds():
        if time.monotonic() > end:
            raise Failure(f"waited in vain for {what}")
        time.sleep(0.02)


def free_port(addresses):
    """Below those that the system gives to connections, so that nobody takes the port of a host
    that is being started again."""
    while True:
        port = random.randrange(20000, 30000)
        try:
            for address in addresses:
                with socket.socket() as probe:
                    probe.bind((address, port))
            return port
        except OSError:
            continue


def children(parent, command):
    """Processes of this parent whose command line begins so."""
    found = []
    for stat in glob.glob("/proc/[0-9]*/stat"):
        try:
            with open(stat) as file:
                state, parent_of = file.read().rsplit(")", 1)[1].split()[:2]
            with open(os.path.join(os.path.dirname(stat), "cmdline")) as file:
                words = file.read()
        except OSError:
            continue  # it has just ended
        if int(parent_of) == parent and state != "Z" and words.startswith(command):
            found.append(int(stat.split("/")[2]))
    return sorted(found)


def substituted(path, replacements):
    """A shipped file with every pattern replaced; each must be there."""
    with open(path) as file:
        text = file.read()
    for pattern, value in replacements:
        text, count = re.subn(pattern, value, text, flags=re.MULTILINE)
        if count == 0:
            raise Failure(f"{path} has no {pattern}")
    return text


class Process:
    """One program in the foreground, whose output goes to a file."""

    def __init__(self, folder, name):
        self.log = os.path.join(folder, name + ".log")
        self.child = None

    def spawn(self, words):
        with open(self.log, "ab") as log:
            self.child = subprocess.Popen(words, stdin=subprocess.DEVNULL, stdout=log, stderr=log)

    def ended(self):
        return self.child is None or self.child.poll() is not None

    def end(self, number=signal.SIGTERM):
        if self.ended():
            return
        self.child.send_signal(signal.SIGCONT)
        self.child.send_signal(number)
        try:
            self.child.wait(60)
        except subprocess.TimeoutExpired:
            self.child.kill()
            self.child.wait()

    def tail(self, lines=8):
        with open(self.log, errors="replace") as log:
            return "".join(log.readlines()[-lines:])

    def lines_of(self, identity):
        """What the log says of a request."""
        with open(self.log, errors="replace") as log:
            return [line.strip() for line in log if line.rstrip().endswith("id=" + identity)]


class Host(Process):
    """`corvane-host serve` as one node."""

    def __init__(self, stand, name, node, address, secure=True):
        super().__init__(stand.folder, name)
        self.place = (address, free_port([address]))
        self.authority = stand.authority if secure else None
        self.node = node
        self.engine = None  # a path, for an engine of its own
        self.words = [stand.program, "serve", "--listen", f"{address}:{self.place[1]}",
                      "--workers", "2", "--rate", "0", "--token-file", stand.token_file,
                      "--access-log", os.path.join(stand.folder, name + "-access.log"),
                      "--request-seconds", str(REQUEST_SECONDS), "--allow-host", "corvane.example"]
        if node is not None:
            self.words += ["--node", node, "--lame-duck-seconds", str(LAME_DUCK_SECONDS),
                           "--trusted-proxy", "127.0.0.1"]
        if secure:
            self.words += ["--tls-cert", stand.authority, "--tls-key", stand.key]

    def start(self):
        engine = [] if self.engine is None else ["--engine", self.engine]
        self.spawn([self.words[0], *engine, *self.words[1:]])
        eventually(f"{self.log} to tell that it is ready", self.ready)

    def ready(self):
        """Asked directly, not through a balancer."""
        if self.ended():
            raise Failure(f"the host has ended:\n{self.tail()}")
        scheme = "http" if self.authority is None else "https"
        context = None
        if self.authority is not None:
            context = ssl.create_default_context(cafile=self.authority)
            context.check_hostname = False
        url = f"{scheme}://{self.place[0]}:{self.place[1]}/readyz"
        try:
            request = urllib.request.Request(url, headers={"Host": "localhost"})
            return urllib.request.urlopen(request, timeout=10, context=context).status == 200
        except OSError:
            return False

    def workers(self):
        return children(self.child.pid, "corvane-host\0")


class HaProxy(Process):
    """The shipped haproxy.cfg; on a second port without TLS to either side, if asked for."""

    name = "HAProxy"

    def __init__(self, stand, name="haproxy", secure=True):
        super().__init__(stand.folder, name)
        self.port = free_port(["127.0.0.1"])
        self.configuration = os.path.join(stand.folder, name + ".cfg")
        port = stand.hosts["a"].place[1]
        changes = [(r"192\.0\.2\.(1[123]):8720", rf"127.0.0.\1:{port}"),
                   (r"bind :443", f"bind 127.0.0.1:{self.port}"),
                   (r"/etc/haproxy/corvane\.pem", stand.pair),
                   (r"/etc/haproxy/corvane-hosts\.crt", stand.authority),
                   (r"^    log /dev/log local0$", "    log stdout format raw local0"),
                   (r"^    (user|group|chroot) .*$", ""),
                   (r"timeout server 65s", f"timeout server {GIVEN_UP_SECONDS}s")]
        if not secure:
            changes += [(r"^( *bind \S+) ssl .*$", r"\1"),
                        (r"^ *default-server ssl .*$", ""),
                        (r"127.0.0.1[123]:\d+", f"127.0.0.1:{stand.plain.place[1]}")]
        with open(self.configuration, "w") as file:
            file.write(substituted("packaging/haproxy/haproxy.cfg", changes))

    def start(self):
        self.spawn(["haproxy", "-W", "-f", self.configuration])

    def reload(self):
        self.child.send_signal(signal.SIGUSR2)


class Nginx(Process):
    """The shipped corvane.conf in a nginx of its own."""

    name = "nginx"

    def __init__(self, stand, name="nginx", secure=True):
        super().__init__(stand.folder, name)
        self.folder = os.path.join(stand.folder, name)
        os.mkdir(self.folder)
        self.port = free_port(["127.0.0.1"])
        port = stand.hosts["a"].place[1]
        changes = [(r"192\.0\.2\.(1[123]):8720", rf"127.0.0.\1:{port}"),
                   (r"listen 443", f"listen 127.0.0.1:{self.port}"),
                   (r"/etc/nginx/corvane\.crt", stand.authority),
                   (r"/etc/nginx/corvane\.key", stand.key),
                   (r"/etc/nginx/corvane-hosts\.crt", stand.authority),
                   (r"/var/log/nginx/corvane\.log", self.log),
                   (r"proxy_read_timeout 65s", f"proxy_read_timeout {GIVEN_UP_SECONDS}s"),
                   # From `warn` on it tells of bodies that went to the disk.
                   (r"/var/log/nginx/corvane-error\.log error", f"{self.log} warn")]
        if not secure:
            changes += [(r"(listen \S+) ssl http2;", r"\1;"), (r"https://", "http://"),
                        (r"127.0.0.1[123]:\d+", f"127.0.0.1:{stand.plain.place[1]}")]
        with open(os.path.join(self.folder, "corvane.conf"), "w") as file:
            file.write(substituted("packaging/nginx/corvane.conf", changes))
        self.configuration = os.path.join(self.folder, "nginx.conf")
        temporary = "".join(f"    {kind}_temp_path {self.folder}/temporary;\n" for kind in
                            ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        user = "user root;\n" if os.getuid() == 0 else ""
        with open(self.configuration, "w") as file:
            file.write(f"{user}daemon off;\npid {self.folder}/pid;\nworker_processes 2;\n"
                       f"error_log {self.log} warn;\nevents {{ worker_connections 4096; }}\n"
                       f"http {{\n{temporary}    include {self.folder}/corvane.conf;\n}}\n")

    def start(self):
        self.spawn(["nginx", "-c", self.configuration, "-p", self.folder])

    def reload(self):
        self.child.send_signal(signal.SIGHUP)


class Stand:
    """All of it, in one folder that the caller removes."""

    def __init__(self, folder, program):
        self.folder = folder
        self.program = program
        self.token_file = os.path.join(folder, "token")
        self.authority = os.path.join(folder, "corvane.crt")
        self.key = os.path.join(folder, "corvane.key")
        self.pair = os.path.join(folder, "corvane.pem")
        self.hosts = {node: Host(self, node, node, ADDRESS[node]) for node in NODES}
        self.direct = Host(self, "direct", None, "127.0.0.14")
        self.plain = Host(self, "plain", None, "127.0.0.1", secure=False)
        self.share_port()
        self.balancers = [HaProxy(self), Nginx(self)]
        self.plain_balancers = [HaProxy(self, "haproxy-plain", secure=False),
                                Nginx(self, "nginx-plain", secure=False)]

    def share_port(self):
        """The configurations give all hosts one port."""
        port = free_port(ADDRESS.values())
        for host in self.hosts.values():
            listen = host.words.index("--listen") + 1
            host.place = (host.place[0], port)
            host.words[listen] = f"{host.place[0]}:{port}"

    def start(self):
        self.hosts["a"].start()  # makes the token
        for process in (self.hosts["b"], self.hosts["c"], *self.balancers):
            process.start()
        self.wait_for_balancers()

    def wait_for_balancers(self):
        for balancer in self.balancers:
            eventually(f"{balancer.name} to reach the hosts",
                       lambda one=balancer: self.reaches(one))

    def reaches(self, balancer):
        if balancer.ended():
            raise Failure(f"{balancer.name} has ended:\n{balancer.tail()}")
        context = ssl.create_default_context(cafile=self.authority)
        url = f"https://localhost:{balancer.port}/readyz"
        try:
            return urllib.request.urlopen(url, timeout=10, context=context).status == 200
        except OSError:
            return False

    def token(self):
        with open(self.token_file) as file:
            return file.read().strip()

    def end(self):
        for process in (*self.balancers, *self.plain_balancers, *self.hosts.values(), self.direct,
                        self.plain):
            process.end(signal.SIGKILL if isinstance(process, Host) else signal.SIGTERM)
