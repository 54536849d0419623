#!/usr/bin/env python3
"""Abuses a running `corvane-host serve` from many addresses of the loopback network in every way
below, while other clients send HMAC requests and compute each answer themselves.

    serve_abuse.py PORT TOKEN HOST_PID SECONDS

Prints the front's memory and descriptors in ten steps and how often each abuse was made. Ends
with 1 if a checked answer was wrong or missing, or if memory or descriptors grew: memory may
end 15 % and 16 MiB above its highest value in the third quarter of the time, and descriptors
are back where they were within half a minute.
"""
import base64
import gzip
import hashlib
import hmac
import http.client
import json
import multiprocessing
import os
import random
import socket
import struct
import sys
import time

port, token, host = int(sys.argv[1]), sys.argv[2], int(sys.argv[3])
seconds = float(sys.argv[4])
checkers = 4  # every other one sends batches
batch = 16
abusers = 6
pace = 0.1  # seconds between two abuses of one abuser, so that checked requests have a share
hmac_path = "/v1/requests/QZaven_crypto_hmac"
bearer = f"Authorization: Bearer {token}\r\n"


def urlsafe(data):
    return base64.urlsafe_b64encode(data).decode()


def check(number, end, results):
    """Sends requests one after the other, or several in a batch, and checks each answer. A
    connection that the host closes is made again; an answer that does not come is a failure."""
    right, wrong = 0, []
    size = batch if number % 2 else 1
    path = "/v1/batch" if size > 1 else hmac_path
    headers = {"Authorization": "Bearer " + token, "Content-Type": "application/json"}
    connection = http.client.HTTPConnection(
        "127.0.0.1", port, timeout=60, source_address=(f"127.0.1.{number + 1}", 0)
    )
    key = os.urandom(32)
    while time.monotonic() < end and len(wrong) < 10:
        texts = [os.urandom(random.randrange(1, 200)) for _ in range(size)]
        values = [{"strHashAlg": 4, "strKey": urlsafe(key), "strdata": urlsafe(t)} for t in texts]
        requests = [{"name": "QZaven_crypto_hmac", "parameters": v} for v in values]
        try:
            body = {"requests": requests} if size > 1 else values[0]
            connection.request("POST", path, json.dumps(body), headers)
            response = connection.getresponse()
            answer = json.loads(response.read())
        except (OSError, http.client.HTTPException) as error:
            wrong.append(repr(error))
            connection.close()
            continue
        if response.status == 429:  # the address sends as fast as it may
            time.sleep(0.05)
        elif response.status == 503 and size > 1 and answer["error"]["code"] == "busy":
            time.sleep(0.05)  # a batch takes as many places in the queue
        elif response.status != 200:
            wrong.append(f"status {response.status}: {answer.get('error')}")
        else:
            for text, one in zip(texts, answer["answers"] if size > 1 else [answer]):
                expected = urlsafe(hmac.new(key, text, hashlib.sha256).digest())
                if one["results"].get("Data") == expected:
                    right += 1
                else:
                    wrong.append(f"a wrong answer: {one.get('error')}")
    results.put(("checked", right, wrong))


# ---- Abuses. Each gets a connected socket; what comes back is read or left lying.


def send(connection, *pieces):
    for piece in pieces:
        connection.sendall(piece if isinstance(piece, bytes) else piece.encode("latin-1"))


def drain(connection):
    while connection.recv(65536):
        pass


def post(path, length, kind="application/json", more=""):
    return (
        f"POST {path} HTTP/1.1\r\nHost: localhost\r\n{bearer}Content-Type: {kind}\r\n"
        f"Content-Length: {length}\r\n{more}\r\n"
    )


def whole(connection, body, kind="application/json", path=hmac_path, more="Connection: close\r\n"):
    body = body if isinstance(body, bytes) else body.encode()
    send(connection, post(path, len(body), kind, more), body)
    drain(connection)


def get(connection, path, more=""):
    send(connection, f"GET {path} HTTP/1.1\r\nHost: localhost\r\n{more}Connection: close\r\n\r\n")
    drain(connection)


def long_target(c):
    send(c, "GET /" + "a" * 40000 + " HTTP/1.1\r\n" + "Cookie: a=b; \r\n" * 2500 + "\r\n")
    drain(c)


def many_arguments(c):
    get(c, "/?" + "a&" * 30000)


def many_headers(c):
    get(c, "/livez", "".join(f"X-{i}: 1\r\n" for i in range(3000)))


def long_header(c):
    get(c, "/livez", "X-Long: " + "x" * 70000 + "\r\n")


def bad_start(c):
    send(c, os.urandom(random.randrange(1, 4000)))
    drain(c)


def foreign_host(c):
    send(c, "GET /v1/status HTTP/1.1\r\nHost: example.org\r\nConnection: close\r\n\r\n")
    drain(c)


def nul_bytes(c):
    send(c, "GET /livez HTTP/1.1\r\nHost: local\0host\r\nContent-Length: 0\0\r\n\r\n")
    drain(c)


def wrong_token(c):
    get(c, "/v1/status", "Authorization: Bearer " + "x" * 43 + "\r\n")


def abandoned_body(c):
    send(c, post(hmac_path, 1 << 20), b"x" * random.randrange(1 << 19))


def announced_body(c):
    send(c, post(hmac_path, 16 << 20))
    time.sleep(0.05)


def abandoned_chunks(c):
    head = f"POST {hmac_path} HTTP/1.1\r\nHost: localhost\r\n{bearer}"
    send(c, head + "Content-Type: application/json\r\nTransfer-Encoding: chunked\r\n\r\n")
    for _ in range(random.randrange(1, 30)):
        send(c, "8000\r\n", b"x" * 0x8000, "\r\n")


def bad_chunks(c):
    head = f"POST {hmac_path} HTTP/1.1\r\nHost: localhost\r\n{bearer}"
    send(c, head + "Transfer-Encoding: chunked\r\n\r\n")
    send(c, random.choice(["-1\r\n", "ffffffffffffffffff\r\n", "5\nhello\n0\n\n", "g\r\n", "0x5\r\n"]))
    drain(c)


def deep_json(c):
    whole(c, "[" * 100000)


def many_members(c):
    whole(c, "{" + ",".join(f'"a{i}":1' for i in range(20000)) + "}")


def not_json(c):
    whole(c, os.urandom(random.randrange(1, 100000)))


def part_header(c):
    disposition = "Content-Disposition: form-data" + ";" * (1 << 18) + 'name="strdata"'
    whole(c, f"--b\r\n{disposition}\r\n\r\nx\r\n--b--\r\n", "multipart/form-data; boundary=b")


def many_parts(c):
    part = '--b\r\nContent-Disposition: form-data; name="a"\r\n\r\nx\r\n'
    whole(c, part * 5000 + "--b--\r\n", "multipart/form-data; boundary=b")


def near_boundaries(c):
    whole(c, b"\r\n--" * 100000, "multipart/form-data; boundary=b")


def many_fields(c):
    whole(c, "a=%20&" * 50000, "application/x-www-form-urlencoded")


def encoded_body(c):
    whole(c, gzip.compress(b"{}" * 1000), more="Content-Encoding: gzip\r\nConnection: close\r\n")


def batches(c):
    requests = [
        {"name": "QZaven_crypto_kdf", "parameters": {"HashType": 4, "srcdata": "s", "OutLen": 16}}
    ] * 256
    whole(c, json.dumps({"requests": requests}), path="/v1/batch")


def sessions(c):
    whole(c, "", path="/v1/requests/QZaven_ke_new")


def foreign_sessions(c):
    whole(c, '{"strKe": "ke_' + "A" * 32 + '"}', path="/v1/requests/QZaven_ke_client_hello")


def peers(c):
    whole(c, '{"hello": "' + urlsafe(os.urandom(32)) + '"}', path="/v1/peer/answer")


def bad_keys(c):
    values = {"strKeyPairType": 1, "strsk": urlsafe(os.urandom(2000)), "strdata": "AAAA"}
    whole(c, json.dumps(values), path="/v1/requests/QZaven_crypto_private_decrypt")


def large_values(c):
    whole(c, '{"strIn": "' + "A" * (1 << 20) + '"}', path="/v1/requests/QZaven_crypto_base64_Decode")


def large_documents(c):
    get(c, random.choice(["/openapi.json", "/", "/console.js", "/nothing", "/readyz"]))


def unread_answers(c):
    c.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 2048)
    for _ in range(20):
        send(c, "GET /openapi.json HTTP/1.1\r\nHost: localhost\r\n\r\n")
    time.sleep(0.02)


def resets(c):
    send(c, post(hmac_path, 2), b"{}")
    c.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


def half_closed(c):
    send(c, "GET /livez HTTP/1.1\r\nHost: localhost\r\n")
    c.shutdown(socket.SHUT_WR)
    drain(c)


def methods(c):
    method = random.choice(["HEAD", "OPTIONS", "TRACE", "CONNECT", "PUT", "get", "X" * 5000])
    send(c, f"{method} {hmac_path} HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n")
    drain(c)


abuses = [
    long_target, many_arguments, many_headers, long_header, bad_start, foreign_host, nul_bytes,
    wrong_token, abandoned_body, announced_body, abandoned_chunks, bad_chunks, deep_json,
    many_members, not_json, part_header, many_parts, near_boundaries, many_fields, encoded_body,
    batches, sessions, foreign_sessions, peers, bad_keys, large_values, large_documents,
    unread_answers, resets, half_closed, methods,
]  # fmt: skip


def abuse(number, end, results):
    random.seed(number)
    made = dict.fromkeys((one.__name__ for one in abuses), 0)
    idle = []  # connections that say nothing
    while time.monotonic() < end:
        one = random.choice(abuses)
        try:
            # From another address each time, so that one address's limits are not all there is.
            address = f"127.{random.randrange(2, 250)}.{random.randrange(250)}.{number + 1}"
            connection = socket.create_connection(("127.0.0.1", port), 10, (address, 0))
            connection.settimeout(0.3)
            if random.random() < 0.02:
                idle.append(connection)
                if len(idle) > 50:
                    idle.pop(0).close()
                continue
            with connection:
                one(connection)
        except OSError:
            pass  # it was refused, as it should be
        made[one.__name__] += 1
        time.sleep(pace)
    results.put(("abused", made))


def front():
    """Resident MiB and open descriptors."""
    with open(f"/proc/{host}/status") as status:
        resident = next(int(line.split()[1]) for line in status if line.startswith("VmRSS"))
    return resident / 1024, len(os.listdir(f"/proc/{host}/fd"))


def main():
    results = multiprocessing.Queue()
    begin = time.monotonic()
    end = begin + seconds
    children = [
        multiprocessing.Process(target=check, args=(i, end, results)) for i in range(checkers)
    ] + [multiprocessing.Process(target=abuse, args=(i, end, results)) for i in range(abusers)]
    before = front()
    for child in children:
        child.start()

    samples = [(0.0, *before)]
    print("seconds  front MiB  descriptors")
    while time.monotonic() < end:
        time.sleep(min(1.0, seconds / 40))
        samples.append((time.monotonic() - begin, *front()))
    for k in range(11):
        at = min(samples, key=lambda sample: abs(sample[0] - seconds * k / 10))
        print(f"{at[0]:7.0f}  {at[1]:9.1f}  {at[2]:11d}")

    right, wrong, made = 0, [], {}
    for _ in children:
        kind, *what = results.get()
        if kind == "checked":
            right += what[0]
            wrong += what[1]
        else:
            for name, count in what[0].items():
                made[name] = made.get(name, 0) + count
    for child in children:
        child.join()
    # What was abandoned is given up after the time to read a request.
    after, waited = front(), time.monotonic() + 30
    while after[1] > before[1] and time.monotonic() < waited:
        time.sleep(0.5)
        after = front()
    print(f"  after  {after[0]:9.1f}  {after[1]:11d}")

    third = max(s[1] for s in samples if seconds * 0.5 <= s[0] <= seconds * 0.75)
    last = max(s[1] for s in samples if s[0] >= seconds * 0.75)
    grown = last > third * 1.15 + 16
    leaking = after[1] > before[1]
    print(json.dumps(made))
    print(
        f"abuses {sum(made.values())}, checked answers {right}, wrong or missing {len(wrong)}, "
        f"memory {'GREW' if grown else 'flat'}, descriptors {'GREW' if leaking else 'steady'}"
    )
    for text in wrong[:5]:
        print("  " + text)
    return 1 if wrong or grown or leaking or right == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
