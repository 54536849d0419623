#!/usr/bin/env python3
"""Prints what the processes of a running `corvane-host serve --body-bytes 1048576 --rate 0` have of
memory, by its own metrics, while it serves small requests, sessions, connections and large bodies.

    serve_memory.py PORT TOKEN SAMPLES

SAMPLES is devkit/console/samples.js, which has a key and its certificate. The most of front and
workers, while the large bodies came, is the kernel's count.
"""
import concurrent.futures
import http.client
import json
import os
import re
import socket
import sys

port, token, samples = int(sys.argv[1]), sys.argv[2], open(sys.argv[3]).read()
headers = {"Authorization": "Bearer " + token, "Content-Type": "application/json"}
sessions_of_worker = 1000  # the development engine takes 1024
connections = 1000
large = 1048576 * 7 // 10  # bytes of data in a body of 1 MiB, as Base64
served = []  # whether, for each large body
host = http.client.HTTPConnection("127.0.0.1", port)


def ask(method, path, body=None, connection=host):
    connection.request(method, path, None if body is None else json.dumps(body), headers)
    answer = connection.getresponse()
    return answer.status, answer.read()


def send(path, parameters):
    status, body = ask("POST", path, parameters)
    answer = json.loads(body)
    if status != 200 or answer["error"]:
        sys.exit(f"{path}: {status} {answer['error']}")
    return answer["results"]


def request(name, **parameters):
    return send("/v1/requests/" + name, parameters)


def resident():
    """KiB by process."""
    text = ask("GET", "/metrics")[1].decode()
    found = re.findall(r'corvane_resident_bytes\{process="(\w+)"\} (\d+)', text)
    return {name: int(size) // 1024 for name, size in found}


def row(what, sizes):
    workers = [size for name, size in sizes.items() if name.startswith("worker")]
    print(f"{what:<40} {sizes['front']:>8} {sum(workers) // len(workers):>8}", flush=True)


def sample(name):
    part = samples[samples.index("sampleSm2"):]
    part = part[part.index(name + ":"):]
    return {"base64": "".join(re.findall("'([A-Za-z0-9+/=]+)'", part[:part.index("),")]))}


def begin(count):
    tokens = []
    while len(tokens) < count:
        new = [{"name": "QZaven_ke_new", "parameters": {}}] * min(250, count - len(tokens))
        answers = json.loads(ask("POST", "/v1/batch", {"requests": new})[1])["answers"]
        tokens += [answer["results"]["Data"] for answer in answers]
    return tokens


def agree(token, root):
    key, certificate = sample("privateKey"), sample("certificate")
    request("QZaven_ke_set_public_key", strKe=token, strSig_key=key, strEnc_key=key)
    request("QZaven_ke_set_certificate", strKe=token, strSig_cert=certificate,
            strEnc_cert=certificate)
    request("QZaven_ke_set_root_certificate", strKe=token, strCa_file={"base64": root})
    hello = request("QZaven_ke_client_hello", strKe=token)["Data"]
    answer = send("/v1/peer/answer", {"hello": hello})
    request("QZaven_ke_client_key_exchange", strKe=token,
            **{name: answer[name] for name in answer if name.startswith("strSrvr_")})


# A host that has no room for a body answers 503 and ends the connection while it still comes.
def send_large(_):
    data = {"base64": "A" * (large // 3 * 4)}
    parameters = {"strHashAlg": 4, "strKey": {"hex": "00"}, "strdata": data}
    for _ in range(20):
        connection = http.client.HTTPConnection("127.0.0.1", port)
        try:
            status, _ = ask("POST", "/v1/requests/QZaven_crypto_hmac", parameters, connection)
            served.append(status == 200)
        except OSError:
            served.append(False)
        connection.close()


def most(pid):
    """KiB at its peak."""
    return int(re.search(r"VmHWM:\s+(\d+)", open(f"/proc/{pid}/status").read()).group(1))


def peaks(front):
    children = open(f"/proc/{front}/task/{front}/children").read().split()
    workers = [pid for pid in children
               if open(f"/proc/{pid}/cmdline").read().startswith("corvane-host")]
    sizes = {"worker" + pid: most(pid) for pid in workers}
    return {"front": most(front), **sizes}


print(f"{'KiB resident':<40} {'front':>8} {'worker':>8}")
row("at the start", resident())
for _ in range(1000):
    request("QZaven_crypto_hmac", strHashAlg=4, strKey={"hex": "00"}, strdata={"text": "hello"})
row("after 1,000 requests", resident())
workers = len(resident()) - 1
tokens = begin(sessions_of_worker * workers)
row(f"{sessions_of_worker:,} sessions of a worker, new", resident())
root = send("/v1/peer/root", {})["root"]
for each in tokens:
    agree(each, root)
row("the same with keys agreed", resident())
idle = [socket.create_connection(("127.0.0.1", port)) for _ in range(connections)]
row(f"and {connections:,} idle connections", resident())
with concurrent.futures.ThreadPoolExecutor(32) as pool:
    list(pool.map(send_large, range(32)))
row("most with 32 clients' bodies of 1 MiB", peaks(int(os.environ["HOST_PID"])))
print(f"{sum(served)} of the {len(served)} bodies had room")
