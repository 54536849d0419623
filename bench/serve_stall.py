#!/usr/bin/env python3
"""Holds connections with requests that are never finished: half of them stop inside the
headers, half inside the body. Says "ready" once all are open, and how many still are when
its standard input ends.

    serve_stall.py PORT COUNT TOKEN
"""
import resource
import select
import socket
import sys

port, count, token = int(sys.argv[1]), int(sys.argv[2]), sys.argv[3]

_, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))

head = (
    "POST /v1/requests/QZaven_crypto_hmac HTTP/1.1\r\n"
    f"Host: 127.0.0.1:{port}\r\n"
    f"Authorization: Bearer {token}\r\n"
    "Content-Type: application/json\r\n"
    "Content-Length: 100\r\n"
)
connections = []
for i in range(count):
    connection = socket.create_connection(("127.0.0.1", port))
    connection.sendall((head if i % 2 else head + '\r\n{"strHashAlg":').encode())
    connections.append(connection)
print("ready", flush=True)

sys.stdin.read()
# Whoever was closed or answered has become readable.
poll = select.poll()
for connection in connections:
    poll.register(connection, select.POLLIN)
print(count - len(poll.poll(0)), flush=True)
