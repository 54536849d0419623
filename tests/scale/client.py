"""An HTTP client that is small and quick enough to load three hosts and two balancers, and that
hides nothing: no request is repeated, and every connection that ends without an answer is told."""
import json
import socket
import ssl


class NoAnswer(Exception):
    """The connection ended, or was never made, and no whole answer came."""


class Answer:
    """Of one request. `headers` by their names in small letters."""

    def __init__(self, status, headers, body):
        self.status = status
        self.headers = headers
        self.body = body

    def json(self):
        """The body, or an empty object where it is none."""
        try:
            parsed = json.loads(self.body)
        except ValueError:
            return {}
        return parsed if isinstance(parsed, dict) else {}

    def error(self):
        """The error's code and reason, or an empty text."""
        error = self.json().get("error") or {}
        return " ".join(filter(None, (str(error.get("code", "")), str(error.get("reason", "")))))

    def data(self):
        """The result Data of a request that succeeded, or None."""
        whole = self.json()
        return None if whole.get("error") else whole.get("results", {}).get("Data")


class Target:
    """Where requests go to: an address, TLS or none, and the token."""

    def __init__(self, name, host, port, authority, token, source=None):
        self.name = name
        self.place = (host, port)
        self.authority = authority  # a file, or None without TLS
        self.token = token
        self.source = source  # the client's own address, or None

    def seen_from(self, address):
        """The same, asked from another address."""
        return Target(self.name, *self.place, self.authority, self.token, address)

    def context(self):
        """For connections; made after a fork, by each process for itself."""
        if self.authority is None:
            return None
        return ssl.create_default_context(cafile=self.authority)


class Connection:
    """One connection to a target, kept as long as the other side keeps it."""

    def __init__(self, target, patience=120):
        self.target = target
        self.patience = patience  # seconds, against hangs alone
        self.context = target.context()
        self.socket = None
        self.rest = b""

    def close(self):
        if self.socket is not None:
            self.socket.close()
        self.socket = None
        self.rest = b""

    def open(self):
        source = None if self.target.source is None else (self.target.source, 0)
        plain = socket.create_connection(self.target.place, self.patience, source)
        plain.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.socket = plain
        if self.context is not None:
            self.socket = self.context.wrap_socket(plain, server_hostname="localhost")

    def exchange(self, raw):
        """Sends bytes and returns the answer. Raises NoAnswer."""
        try:
            if self.socket is None:
                self.open()
            try:
                self.socket.sendall(raw)
            except (BrokenPipeError, ConnectionResetError):
                pass  # an answer may have been sent before the request was read to its end
            answer = self.read()
        except (OSError, ValueError, NoAnswer) as error:
            self.close()
            raise NoAnswer(repr(error)) from error
        if answer.headers.get("connection", "").lower() == "close":
            self.close()
        return answer

    def receive(self):
        more = self.socket.recv(1 << 18)
        if not more:
            raise NoAnswer(f"the connection ended after {len(self.rest)} bytes")
        return more

    def read(self):
        while (end := self.rest.find(b"\r\n\r\n")) < 0:
            self.rest += self.receive()
        lines = self.rest[:end].decode("latin-1").split("\r\n")
        self.rest = self.rest[end + 4 :]
        headers = {}
        for line in lines[1:]:
            name, _, value = line.partition(":")
            headers[name.lower()] = value.strip()
        if "content-length" in headers:
            body = self.read_bytes(int(headers["content-length"]))
        elif headers.get("transfer-encoding", "").lower() == "chunked":
            body = self.read_chunks()
        else:
            raise NoAnswer("an answer without a length")
        return Answer(int(lines[0].split(" ")[1]), headers, body)

    def read_bytes(self, size):
        parts = [self.rest]
        missing = size - len(self.rest)
        while missing > 0:
            parts.append(self.receive())
            missing -= len(parts[-1])
        whole = b"".join(parts)
        self.rest = whole[size:]
        return whole[:size]

    def read_chunks(self):
        body = b""
        while True:
            while b"\r\n" not in self.rest:
                self.rest += self.receive()
            line, self.rest = self.rest.split(b"\r\n", 1)
            size = int(line, 16)
            body += self.read_bytes(size)
            self.read_bytes(2)
            if size == 0:
                return body

    def ask(self, method, path, body=b"", headers=()):
        """One request with the token and a body with its length."""
        lines = [f"{method} {path} HTTP/1.1", "Host: corvane.example",
                 f"Authorization: Bearer {self.target.token}", f"Content-Length: {len(body)}"]
        lines += [f"{name}: {value}" for name, value in headers]
        return self.exchange("\r\n".join(lines).encode("latin-1") + b"\r\n\r\n" + body)

    def send(self, path, parameters, headers=()):
        """A POST of JSON."""
        return self.ask("POST", path, json.dumps(parameters).encode(),
                        [("Content-Type", "application/json"), *headers])
