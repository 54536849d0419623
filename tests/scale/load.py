"""HMAC requests from several processes, each answer computed here as well."""
import base64
import hashlib
import hmac
import json
import multiprocessing
import os
import queue
import time

from client import Connection, NoAnswer

PATH = "/v1/requests/QZaven_crypto_hmac"
SMALL = 64
# Every so many requests one that is larger, yet fits into a balancer's buffer.
MEDIUM, MEDIUM_EVERY = 30000, 40

context = multiprocessing.get_context("fork")


def urlsafe(data):
    return base64.urlsafe_b64encode(data).decode()


def gathered(out, processes):
    """What each of the processes put there once. Raises if one failed instead."""
    for _ in processes:
        while True:
            try:
                yield out.get(timeout=1)
                break
            except queue.Empty:
                if any(process.exitcode for process in processes):
                    raise RuntimeError("a client has failed") from None
    for process in processes:
        process.join()


class Result:
    """What became of the requests to one target."""

    def __init__(self):
        self.right = 0
        self.lost = []  # (request's ID, what came instead, seconds)
        self.wrong = []  # likewise
        self.slowest = 0.0

    def add(self, other):
        self.right += other.right
        self.lost += other.lost
        self.wrong += other.wrong
        self.slowest = max(self.slowest, other.slowest)


def request_body(key, data):
    return json.dumps({"strHashAlg": 4, "strKey": urlsafe(key), "strdata": urlsafe(data)})


def expected(key, data):
    return urlsafe(hmac.new(key, data, hashlib.sha256).digest())


def request_bytes(token, identity, key, data):
    body = request_body(key, data)
    return (f"POST {PATH} HTTP/1.1\r\nHost: corvane.example\r\nAuthorization: Bearer {token}\r\n"
            f"X-Request-Id: {identity}\r\nContent-Type: application/json\r\n"
            f"Content-Length: {len(body)}\r\n\r\n{body}").encode()


def send_one(connection, result, identity, size):
    """Sends a request of its own key and data, and adds what came to the result."""
    key, data = os.urandom(32), os.urandom(size)
    raw = request_bytes(connection.target.token, identity, key, data)
    start = time.monotonic()
    try:
        answer = connection.exchange(raw)
    except NoAnswer as error:
        result.lost.append((identity, str(error), time.monotonic() - start))
        time.sleep(0.01)
        return
    seconds = time.monotonic() - start
    if answer.status != 200:
        result.lost.append((identity, f"{answer.status} {answer.error()}", seconds))
    elif answer.data() == expected(key, data):
        result.right += 1
        result.slowest = max(result.slowest, seconds)
    else:
        result.wrong.append((identity, answer.body.decode("latin-1")[:200], seconds))


def run_client(target, name, large, stop, out):
    result = Result()
    connection = Connection(target)
    count = 0
    while not stop.is_set():
        count += 1
        size = MEDIUM if count % MEDIUM_EVERY == 0 else SMALL
        send_one(connection, result, f"{name}-{count}", large or size)
    out.put((target.name, result))


class Load:
    """Runs from its making until stop(). `large` is a size of data for every request."""

    runs = 0

    def __init__(self, targets, clients, large=None):
        Load.runs += 1
        self.stopping = context.Event()
        self.results = {target.name: Result() for target in targets}
        self.out = context.Queue()
        self.processes = []
        for target in targets:
            for client in range(clients):
                name = f"{target.name}-{Load.runs}-{client}"
                self.processes.append(context.Process(
                    target=run_client, args=(target, name, large, self.stopping, self.out)))
        for process in self.processes:
            process.start()

    def stop(self):
        """Returns the results by the targets' names."""
        self.stopping.set()
        for name, result in gathered(self.out, self.processes):
            self.results[name].add(result)
        return self.results
