#!/usr/bin/env python3
"""Sends HMAC requests to a running `corvane-host serve` and computes each answer itself,
while it kills one of the host's workers every second. A request may only fail, with 502, if
a worker was killed while it was on its way.

    serve_check.py PORT TOKEN HOST_PID SECONDS CLIENTS

Prints one JSON object and ends with 1 if an answer was wrong or a failure has no excuse.
"""
import base64
import hashlib
import hmac
import http.client
import json
import os
import signal
import sys
import threading
import time

port, token, host = int(sys.argv[1]), sys.argv[2], int(sys.argv[3])
seconds, clients = int(sys.argv[4]), int(sys.argv[5])

headers = {"Authorization": "Bearer " + token, "Content-Type": "application/json"}
key = os.urandom(32)
end = time.monotonic() + seconds + 2
lock = threading.Lock()
right = 0
failed = []  # (sent, answered) of requests that got a 502
wrong = []  # what else came
kills = []  # when


def urlsafe(data):
    return base64.urlsafe_b64encode(data).decode()


def send(connection, data):
    """Returns the status and the answer."""
    body = json.dumps({"strHashAlg": 4, "strKey": urlsafe(key), "strdata": urlsafe(data)})
    connection.request("POST", "/v1/requests/QZaven_crypto_hmac", body, headers)
    response = connection.getresponse()
    return response.status, json.loads(response.read())


def client():
    global right
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=60)
    while time.monotonic() < end:
        data = os.urandom(64)
        expected = urlsafe(hmac.new(key, data, hashlib.sha256).digest())
        sent = time.monotonic()
        try:
            status, answer = send(connection, data)
        except Exception as error:  # the host must answer, whatever becomes of its workers
            with lock:
                wrong.append(repr(error))
            connection.close()
            continue
        answered = time.monotonic()
        with lock:
            if status == 200 and answer["results"].get("Data") == expected:
                right += 1
            elif status == 502 and answer["error"]["code"] == "worker_failed":
                failed.append((sent, answered))
            else:
                wrong.append(f"status {status}: {answer['error']}")


def workers():
    """The host's workers; it has other children too."""
    found = []
    for name in os.listdir("/proc"):
        try:
            with open(f"/proc/{name}/stat") as stat, open(f"/proc/{name}/cmdline") as line:
                parent = int(stat.read().rsplit(")", 1)[1].split()[1])
                if parent == host and line.read().startswith("corvane-host\0worker"):
                    found.append(int(name))
        except (OSError, ValueError, IndexError):
            pass  # no process, or one that has just ended
    return found


def status():
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=60)
    connection.request("GET", "/v1/status", headers=headers)
    answer = json.loads(connection.getresponse().read())
    connection.close()
    return answer


def back_after(killed):
    """Seconds until the host says that all of its workers can serve again; 30 at most."""
    while True:
        slots = status()["workers"]
        gone = time.monotonic() - killed
        replaced = sum(slot["restarts"] for slot in slots) >= len(kills)
        if gone > 30 or (replaced and all(slot["state"] != "starting" for slot in slots)):
            return gone
        time.sleep(0.002)


def killer():
    """Kills a worker every second. Returns the longest time that one was gone."""
    longest = 0.0
    start = time.monotonic()
    while len(kills) < seconds:
        time.sleep(max(0, start + len(kills) + 1 - time.monotonic()))
        victims = workers()
        victim = victims[len(kills) % len(victims)]
        killed = time.monotonic()
        os.kill(victim, signal.SIGKILL)
        with lock:
            kills.append(killed)
        longest = max(longest, back_after(killed))
    return longest


threads = [threading.Thread(target=client) for _ in range(clients)]
for thread in threads:
    thread.start()
longest = killer()
for thread in threads:
    thread.join()

# A kill ends at most the one request that its worker was serving.
unexcused = [
    (sent, answered)
    for sent, answered in failed
    if not any(sent <= kill <= answered for kill in kills)
]
print(
    json.dumps(
        {
            "right": right,
            "failed": len(failed),
            "unexcused": len(unexcused),
            "wrong": len(wrong),
            "first_wrong": wrong[:3],
            "kills": len(kills),
            "longest_gap_ms": round(longest * 1000, 1),
        }
    )
)
sys.exit(1 if wrong or unexcused or len(failed) > len(kills) else 0)
