"""What a client must not be able to do through a balancer. Each row is sent on a connection of
its own, and must get the status that is expected, after which others still get their answers."""
import json
import select
import socket
import ssl

from client import Connection, NoAnswer
from load import PATH, Result, send_one, urlsafe

HMAC = {"strHashAlg": 4, "strKey": urlsafe(b"key"), "strdata": urlsafe(b"data")}
ENCRYPT = "/v1/requests/QZaven_ke_encrypt"
SMUGGLED = "POST /v1/requests/QZaven_ke_new HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\n\r\n"
# An address that no client here has.
FORGED = "198.51.100.66"
CHUNKED = "Transfer-Encoding: chunked\r\n"

# What | request | head | expected of HAProxy | of nginx. {a} and {b} are tokens of live sessions
# of these nodes, {long} and {longer} 10 and 20 kB. The request "encrypt" has {a} as strKe.
HEADS = [
    ("two session headers", "encrypt", "X-Corvane-Session: {a}\r\nX-Corvane-Session: {b}\r\n",
     400, 400),
    ("two session headers, turned", "encrypt",
     "X-Corvane-Session: {b}\r\nX-Corvane-Session: {a}\r\n", 400, 400),
    ("the same session header twice", "encrypt",
     "X-Corvane-Session: {a}\r\nX-Corvane-Session: {a}\r\n", 400, 400),
    ("two session headers in one", "encrypt", "X-Corvane-Session: {a}, {b}\r\n", 400, 400),
    ("another node's session header", "encrypt", "X-Corvane-Session: {b}\r\n", 400, 400),
    ("another node asked for", "encrypt", "X-Corvane-Node: b\r\n", 400, 400),
    ("session and node contradict", "encrypt",
     "X-Corvane-Session: {a}\r\nX-Corvane-Node: b\r\n", 400, 400),
    ("two nodes asked for", "hmac", "X-Corvane-Node: a\r\nX-Corvane-Node: b\r\n", 400, 400),
    ("node ..", "hmac", "X-Corvane-Node: ../a\r\n", 400, 400),
    ("node in capitals", "hmac", "X-Corvane-Node: A\r\n", 400, 400),
    ("node that is none", "hmac", "X-Corvane-Node: z\r\n", 421, 421),
    ("the balancer's name for all hosts as node", "hmac", "X-Corvane-Node: hosts\r\n", 421, 421),
    ("the balancer's pool as node", "hmac", "X-Corvane-Node: corvane_a\r\n", 400, 400),
    ("session of a node that is none", "hmac", "X-Corvane-Session: ke_z.{rest}\r\n", 421, 421),
    ("session of node ..", "hmac", "X-Corvane-Session: ke_../a.{rest}\r\n", 400, 400),
    ("session with an address as node", "hmac", "X-Corvane-Session: ke_127.0.0.1:80.{rest}\r\n",
     400, 400),
    ("session that never was", "hmac", "X-Corvane-Session: ke_a.{rest}\r\n", 200, 200),
    ("session of 10 kB", "hmac", "X-Corvane-Session: ke_a.{long}\r\n", 400, 400),
    ("session of 20 kB", "hmac", "X-Corvane-Session: ke_a.{longer}\r\n", 431, 400),
    ("node of 10 kB", "hmac", "X-Corvane-Node: {long}\r\n", 400, 400),
    ("100 more headers", "hmac", "X-More: x\r\n" * 100, 400, 431),
    ("header ended by a line feed alone", "hmac", "X-Corvane-Node: a\nX-Corvane-Node: b\r\n",
     400, 400),
    ("folded header", "hmac", "X-Corvane-Node: a\r\n b\r\n", 400, 400),
    ("carriage return in a header", "hmac", "X-Corvane-Node: a\rX-Corvane-Node: b\r\n", 400, 400),
    ("NUL in a header", "hmac", "X-Corvane-Node: a\0b\r\n", 400, 400),
    ("blank before the colon", "hmac", "X-Corvane-Node : a\r\n", 400, 400),
    ("underscores, which are dropped", "hmac", "X_Corvane_Node: z\r\n", 200, 200),
    ("headers to be dropped on the way", "encrypt",
     "X-Corvane-Session: {a}\r\nConnection: keep-alive, X-Corvane-Session\r\n", 200, 200),
    ("forged address", "hmac", "X-Forwarded-For: {forged}\r\n", 200, 200),
    ("forged addresses", "hmac",
     "X-Forwarded-For: {forged}\r\nX-Forwarded-For: {forged}, 127.0.0.1\r\n", 200, 200),
    ("identity that would be another log line", "hmac",
     'X-Request-Id: {forged}"}} {{\r\n', 200, 200),
    ("two identities", "hmac", "X-Request-Id: one\r\nX-Request-Id: two\r\n", 200, 200),
    ("length and chunks", "smuggle", CHUNKED, 200, 400),
    ("chunks that are none", "smuggle", "Transfer-Encoding: xchunked\r\n", 400, 501),
    ("chunks twice", "smuggle", CHUNKED + CHUNKED, 400, 400),
    ("two lengths", "smuggle", "Content-Length: 0\r\n", 400, 400),
]
# What | method and path | expected of HAProxy | of nginx. Without the balancer's knowledge a
# request with a session would count as one that may be repeated, or the other way round.
PATHS = [
    ("way back to a session's request", "POST /v1/requests/QZaven_crypto_x/../QZaven_ke_new",
     404, 404),
    ("the same, escaped", "POST /v1/requests/QZaven_crypto_x/%2e%2e/QZaven_ke_new", 404, 404),
    ("escaped slash", "POST /v1/requests/QZaven_crypto_x%2f..%2fQZaven_ke_new", 404, 404),
    ("doubled slashes", "POST /v1//requests/QZaven_crypto_hmac", 404, 404),
    ("another server's whole address", f"POST http://{FORGED}{PATH}", 400, 200),
    ("tunnel", f"CONNECT {FORGED}:80", 400, 400),
    ("blank in the path", f"POST {PATH} {PATH}", 400, 400),
]


def head_of(start, target, more, length):
    return (f"{start} HTTP/1.1\r\nHost: corvane.example\r\nAuthorization: Bearer {target.token}"
            f"\r\nContent-Type: application/json\r\nContent-Length: {length}\r\n{more}\r\n")


def raw_request(kind, head, target, tokens):
    if kind == "encrypt":
        body = json.dumps({"strdata": urlsafe(b"data"), "strKe": tokens["a"]})
    else:
        body = json.dumps(HMAC)
    if kind == "smuggle":
        body = f"{len(body):x}\r\n{body}\r\n0\r\n\r\n{SMUGGLED}"
    path = ENCRYPT if kind == "encrypt" else PATH
    more = head.format(rest="A" * 32, long="a" * 10000, longer="a" * 20000,
                       forged=FORGED, **tokens)
    return (head_of(f"POST {path}", target, more, len(body)) + body).encode("latin-1")


def extra_bytes(connection):
    """Whether more comes than one answer, as when a body was taken for a request."""
    if connection.socket is None:
        return b""
    if connection.rest:
        return connection.rest
    pending = connection.context is not None and connection.socket.pending() > 0
    if not pending and not select.select([connection.socket], [], [], 0.05)[0]:
        return b""
    try:
        return connection.socket.recv(1000)
    except OSError:
        return b""


def status_of(target, raw):
    """The answer's status and headers, and the bytes that follow it."""
    connection = Connection(target)
    try:
        answer = connection.exchange(raw)
    except NoAnswer:
        return 0, {}, b""
    more = extra_bytes(connection)
    connection.close()
    return answer.status, answer.headers, more


def others_are_well(target, name):
    """Whether requests of others get their own answers."""
    result = Result()
    for number in range(3):
        send_one(Connection(target), result, f"{name}-{number}", 64)
    return result.right == 3


def rows_for(target, tokens):
    """(what, raw bytes, expected) for each attack."""
    column = {"HAProxy": 0, "nginx": 1}[target.name]
    for what, kind, head, *expected in HEADS:
        yield what, raw_request(kind, head, target, tokens), {expected[column]}
    body = json.dumps(HMAC)
    for what, start, *expected in PATHS:
        raw = head_of(start, target, "", len(body)) + body
        yield what, raw.encode(), {expected[column]}
    yield ("no token", head_of(f"POST {PATH}", target, "", len(body)).replace(
        "Authorization", "X-Nothing").encode() + body.encode(), {401})
    yield "17 MiB", head_of(f"POST {PATH}", target, "", 17 << 20).encode(), {413}
    yield ("17 MiB in chunks", head_of(f"POST {PATH}", target, CHUNKED, 0).replace(
        "Content-Length: 0\r\n", "").encode() +
        (b"100000\r\n" + b" " * (1 << 20) + b"\r\n") * 17 + b"0\r\n\r\n", {0, 413, 502})


def old_tls_is_refused(target):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    context.set_ciphers("ALL:@SECLEVEL=0")
    context.minimum_version = context.maximum_version = ssl.TLSVersion.TLSv1_1
    try:
        with socket.create_connection(target.place, timeout=60) as plain:
            context.wrap_socket(plain)
    except OSError:
        return True
    return False


def attack(target, tokens):
    """Returns the number of attacks and what went wrong."""
    wrong = []
    count = 0
    for what, raw, expected in rows_for(target, tokens):
        count += 1
        status, headers, more = status_of(target, raw)
        if status not in expected:
            wrong.append(f"{target.name}, {what}: {status} instead of {sorted(expected)}")
        if more:
            wrong.append(f"{target.name}, {what}: a second answer, {more[:60]}")
        if FORGED in str(headers):
            wrong.append(f"{target.name}, {what}: the answer repeats it")
        if not others_are_well(target, f"after-{target.name}-{count}"):
            wrong.append(f"{target.name}, after {what}: others do not get their answers")
    if not old_tls_is_refused(target):
        wrong.append(f"{target.name}, TLS 1.1: taken")
    return count + 1, wrong
