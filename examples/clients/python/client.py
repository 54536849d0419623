#!/usr/bin/env python3
"""Calls corvane-host over HTTP. README.md tells how it is started and what it prints."""
import base64
import json
import os
import secrets
import sys
import urllib.error
import urllib.request

URL = os.environ.get("CORVANE_URL", "http://127.0.0.1:8720")
TOKEN_FILE = os.environ.get("CORVANE_TOKEN_FILE",
                            os.path.expanduser("~/.local/state/corvane-host/token"))
# By name; other engines' ciphers have numbers of their own, as "4".
AES_256, GCM, SHA_256 = "aes-256", "gcm", "sha-256"
MESSAGE = "meet me at the usual place"


class Refused(Exception):
    """The host, the plug-in or the engine did not do it. Programs go by code and reason."""

    def __init__(self, error):
        parts = [error["code"], error.get("reason"), error.get("field")]
        super().__init__(f"refused by {error['source']}: " + ", ".join(filter(None, parts)))
        self.text = error["text"]  # for people


def send(request, parameters):
    """The results of a request. Nothing of it is logged: it has the token, and keys."""
    with open(TOKEN_FILE, encoding="ascii") as file:
        token = file.read().strip()
    call = urllib.request.Request(
        f"{URL}/v1/requests/{request}", json.dumps(parameters).encode(),
        {"Authorization": f"Bearer {token}", "Content-Type": "application/json"})
    try:
        with urllib.request.urlopen(call, timeout=30) as response:
            answer = json.load(response)
    except urllib.error.HTTPError as refusal:  # a status of 4xx or 5xx has an answer too
        answer = json.load(refusal)
    if answer["error"] is not None:
        raise Refused(answer["error"])
    return answer["results"]


def from_base64(text):
    return base64.urlsafe_b64decode(text)


def check_hmac():
    results = send("QZaven_crypto_hmac", {
        "strHashAlg": SHA_256,
        "strKey": {"text": "Jefe"},
        "strdata": {"text": "what do ya want for nothing?"}})
    if results["Data"] != "W9zBRr9gdU5qBCQmCJV1x1oAPwidJzmDnexYuWTsOEM=":
        raise ValueError("the HMAC is another one")
    print("HMAC-SHA-256: as in RFC 4231, test case 2")


def encrypt_and_decrypt():
    """Gives the parameters of the decryption."""
    # Bytes come as URL-safe Base64, which is taken as it is where bytes are due.
    cipher = {"strCipherAlg": AES_256, "strMode": GCM,
              "strKey": send("QZaven_crypto_gen_symmkey", {"strCipherAlg": AES_256})["Data"],
              "strIV": {"hex": secrets.token_hex(12)},  # another one for each message
              "straad": {"text": "message 1"}}  # not secret, but protected by the tag
    sealed = send("QZaven_crypto_encrypt", {**cipher, "strdata": {"text": MESSAGE}})
    tag = sealed["gcmOutTag"]
    print(f"AES-256-GCM: {len(from_base64(sealed['Data']))} bytes encrypted, "
          f"{len(from_base64(tag))} bytes of tag")

    opening = {**cipher, "strdata": sealed["Data"], "strtag": tag}
    opened = from_base64(send("QZaven_crypto_decrypt", opening)["Data"])
    if opened.decode() != MESSAGE:
        raise ValueError("the decrypted message is another one")
    print(f"AES-256-GCM: {len(opened)} bytes decrypted, the same")
    return opening


def show_refusal(title, request, parameters):
    try:
        send(request, parameters)
    except Refused as refused:
        print(f"{title}: {refused}")
    else:
        raise ValueError(f"{title}: was not refused")


def main():
    check_hmac()
    opening = encrypt_and_decrypt()
    show_refusal("a wrong tag", "QZaven_crypto_decrypt", {**opening, "strtag": {"hex": "00" * 16}})
    show_refusal("text for bytes", "QZaven_crypto_hmac",
                 {"strHashAlg": SHA_256, "strKey": {"text": "Jefe"}, "strdata": "two words"})


if __name__ == "__main__":
    try:
        main()
    except Refused as refused:
        sys.exit(f"error: {refused}: {refused.text}")
    except (OSError, ValueError) as problem:
        sys.exit(f"error: {problem}")
