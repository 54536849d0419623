"""Key exchanges through a balancer, with data in both directions; the other side is the
/v1/peer/ of the session's node. Every answer is checked by that other side or by its own
opposite."""
import json
import os
import subprocess
import urllib.parse

from client import Connection, NoAnswer
from load import context, gathered, urlsafe

# Bytes of data; three bytes are four of Base64, so that bodies have 300 kB and more.
LARGE = 225000
# How the body of a request is written; sessions take turns.
FORMS = ("json", "multipart", "urlencoded")


class Wrong(Exception):
    """An answer that must not be."""


def make_credential(folder):
    """The client's key and certificate, as DER, by openssl."""
    pem, key, certificate = (os.path.join(folder, "client." + kind) for kind in
                             ("pem", "der", "crt.der"))
    for words in (["genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:SM2",
                   "-out", pem],
                  ["pkey", "-in", pem, "-outform", "DER", "-out", key],
                  ["req", "-x509", "-new", "-key", pem, "-subj", "/CN=client", "-days", "1",
                   "-outform", "DER", "-out", certificate]):
        subprocess.run(["openssl", *words], check=True, capture_output=True)
    with open(key, "rb") as first, open(certificate, "rb") as second:
        return first.read(), second.read()


def body_of(form, fields):
    """Content type and body; the fields in their order."""
    if form == "json":
        return "application/json", json.dumps(fields).encode()
    if form == "urlencoded":
        return "application/x-www-form-urlencoded", urllib.parse.urlencode(fields).encode()
    boundary = "part-of-a-form"
    parts = "".join(f'--{boundary}\r\nContent-Disposition: form-data; name="{name}"\r\n\r\n'
                    f"{value}\r\n" for name, value in fields.items())
    return f"multipart/form-data; boundary={boundary}", f"{parts}--{boundary}--\r\n".encode()


class Session:
    """One session; each step is a request or two, so that many can take turns."""

    def __init__(self, connection, name, form, credential):
        self.connection = connection
        self.name = name
        self.form = form
        self.key, self.certificate = credential
        self.token = None
        self.node = None
        self.exchange = None
        self.requests = 0

    def identity(self):
        self.requests += 1
        return f"{self.name}-{self.requests}"

    def ask(self, path, fields, headers, form="json"):
        """Sends and returns the whole answer, which must come from the right node."""
        identity = self.identity()
        kind, body = body_of(form, fields)
        try:
            answer = self.connection.ask("POST", path, body, [
                ("Content-Type", kind), ("X-Request-Id", identity), *headers])
        except NoAnswer as error:
            raise Wrong(f"id={identity} {path}: {error}") from error
        node = answer.headers.get("x-corvane-node")
        if answer.status != 200 or answer.json().get("error") or node != (self.node or node):
            raise Wrong(f"id={identity} {path}: {answer.status} {answer.error()}, node {node} "
                        f"instead of {self.node}")
        return answer

    def send(self, request, **fields):
        """A request of the session; strKe is the last field. Returns Data."""
        answer = self.ask("/v1/requests/" + request, {**fields, "strKe": self.token},
                          [("X-Corvane-Session", self.token)], self.form)
        return answer.data()

    def peer(self, step, **members):
        """A step of the other side, on the session's node."""
        if self.exchange is not None:
            members["exchange"] = self.exchange
        answer = self.ask("/v1/peer/" + step, members, [("X-Corvane-Node", self.node)])
        return answer.json()["results"]

    def begin(self):
        answer = self.ask("/v1/requests/QZaven_ke_new", {}, [])
        self.token, self.node = answer.data(), answer.headers.get("x-corvane-node")
        if self.node is None or not self.token.startswith(f"ke_{self.node}."):
            raise Wrong(f"token {self.token} of node {self.node}")

    def establish(self):
        key, certificate = urlsafe(self.key), urlsafe(self.certificate)
        self.send("QZaven_ke_set_public_key", strSig_key=key, strEnc_key=key)
        self.send("QZaven_ke_set_certificate", strSig_cert=certificate, strEnc_cert=certificate)
        root = {"base64": self.peer("root")["root"]}
        self.ask("/v1/requests/QZaven_ke_set_root_certificate",
                 {"strCa_file": root, "strKe": self.token}, [("X-Corvane-Session", self.token)])
        yield
        answer = self.peer("answer", hello=self.send("QZaven_ke_client_hello"))
        self.exchange = answer["exchange"]
        yield
        values = {name: answer[name] for name in
                  ("strSrvr_rand", "strSrvr_sig_cert", "strSrvr_enc_cert", "strSrvr_sign")}
        message = self.send("QZaven_ke_client_key_exchange", **values)
        self.peer("finish", message=message)

    def compare(self, what, expected, got):
        if expected != got:
            raise Wrong(f"id={self.name}-{self.requests} {what}: another value")

    def talk(self, size):
        data = urlsafe(os.urandom(size))
        sealed = self.send("QZaven_ke_encrypt", strdata=data)
        self.compare("encrypt", data, self.peer("decrypt", data=sealed)["Data"])
        yield
        sealed = self.peer("encrypt", data=data)["Data"]
        self.compare("decrypt", data, self.send("QZaven_ke_decrypt", strcipher=sealed))
        yield
        for mac in ("hmac", "cmac"):
            expected = self.peer(mac, data=data)["Data"]
            self.compare(mac, expected, self.send("QZaven_ke_" + mac, strdata=data))
            yield

    def steps(self, large):
        """Everything, with a pause wherever another session may go on."""
        self.begin()
        yield
        yield from self.establish()
        yield
        yield from self.talk(1000)
        if large:
            yield from self.talk(LARGE)
        self.send("QZaven_ke_free")

    def asked_again(self):
        """The status of one more request on a connection of its own, after whatever happened to
        the session; 0 without an answer."""
        self.connection.close()
        data = urlsafe(b"a letter")
        kind, body = body_of("json", {"strdata": data, "strKe": self.token})
        try:
            answer = self.connection.ask("POST", "/v1/requests/QZaven_ke_encrypt", body, [
                ("Content-Type", kind), ("X-Request-Id", self.identity()),
                ("X-Corvane-Session", self.token)])
            if answer.status == 200:
                opened_again = self.peer("decrypt", data=answer.data())["Data"]
                self.compare("encrypt", data, opened_again)
        except NoAnswer:
            return 0
        return answer.status


def run_sessions(target, name, count, credential, out):
    """That many sessions side by side in one process."""
    sessions = [Session(Connection(target), f"{name}-{number}", FORMS[number % len(FORMS)],
                        credential) for number in range(count)]
    wrong = []
    running = [(one, one.steps(large=number % 2 == 0)) for number, one in enumerate(sessions)]
    while running:
        left = []
        for one, steps in running:
            try:
                next(steps)
                left.append((one, steps))
            except StopIteration:
                pass
            except (Wrong, KeyError, TypeError) as error:
                wrong.append(f"{target.name}: {error}")
        running = left
    requests = sum(one.requests for one in sessions)
    out.put((target.name, requests, wrong, [one.node for one in sessions]))


def exchange_through(targets, sessions, processes, credential):
    """Returns, by the targets' names: (requests, what was wrong, the sessions' nodes)."""
    out = context.Queue()
    started = []
    for target in targets:
        for number in range(processes):
            started.append(context.Process(target=run_sessions, args=(
                target, f"session-{target.name}-{number}", sessions // processes, credential, out)))
    for process in started:
        process.start()
    results = {target.name: (0, [], []) for target in targets}
    for name, requests, wrong, nodes in gathered(out, started):
        before = results[name]
        results[name] = (before[0] + requests, before[1] + wrong, before[2] + nodes)
    return results


def opened(target, count, credential):
    """Sessions with keys, for seeing what becomes of them."""
    sessions = [Session(Connection(target), f"kept-{target.name}-{number}", "json", credential)
                for number in range(count)]
    for one in sessions:
        one.begin()
        for _ in one.establish():
            pass  # its pauses
    return sessions

