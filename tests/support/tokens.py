"""Makes keys, key sets and signed tokens for the tests of single sign-on.

tokens.py keys DIRECTORY                     rsa.pem, other.pem, ec.pem and keys.json
tokens.py sign DIRECTORY KEY HEADER CLAIMS   prints the token; KEY is a file's name, "none",
                                             or "hmac:FILE" to sign with a file's bytes
"""

import base64
import hashlib
import hmac
import json
import subprocess
import sys
from pathlib import Path


def encode(data):
    return base64.urlsafe_b64encode(data).rstrip(b"=").decode()


def openssl(*arguments, data=None):
    return subprocess.run(["openssl", *arguments], input=data, stdout=subprocess.PIPE,
                          stderr=subprocess.DEVNULL, check=True).stdout


def rsa_key(directory, name):
    path = directory / f"{name}.pem"
    openssl("genrsa", "-out", str(path), "2048")
    modulus = openssl("rsa", "-in", str(path), "-noout", "-modulus").decode().strip().split("=")[1]
    return {"kty": "RSA", "kid": name, "use": "sig", "e": "AQAB", "n": encode(bytes.fromhex(modulus))}


def ec_key(directory, name):
    path = directory / f"{name}.pem"
    openssl("ecparam", "-name", "prime256v1", "-genkey", "-noout", "-out", str(path))
    point = openssl("ec", "-in", str(path), "-pubout", "-outform", "DER")[-64:]
    return {"kty": "EC", "kid": name, "crv": "P-256", "x": encode(point[:32]), "y": encode(point[32:])}


def make_keys(directory):
    directory.mkdir(parents=True, exist_ok=True)
    keys = [rsa_key(directory, "rsa"), ec_key(directory, "ec")]
    rsa_key(directory, "other")
    (directory / "keys.json").write_text(json.dumps({"keys": keys}))
    openssl("rsa", "-in", str(directory / "rsa.pem"), "-pubout", "-out", str(directory / "rsa.pub"))


def raw_ecdsa(signature):
    """The two numbers of a DER signature, 32 bytes each (RFC 7518, section 3.4)."""
    numbers, at = b"", 2
    for _ in range(2):
        size = signature[at + 1]
        numbers += signature[at + 2:at + 2 + size].lstrip(b"\0").rjust(32, b"\0")
        at += 2 + size
    return numbers


def sign(directory, key, header, claims):
    text = f"{encode(header.encode())}.{encode(claims.encode())}".encode()
    if key == "none":
        signature = b""
    elif key.startswith("hmac:"):
        signature = hmac.new((directory / key[5:]).read_bytes(), text, hashlib.sha256).digest()
    else:
        signature = openssl("dgst", "-sha256", "-sign", str(directory / key), data=text)
        if key == "ec.pem":
            signature = raw_ecdsa(signature)
    return f"{text.decode()}.{encode(signature)}"


if __name__ == "__main__":
    if sys.argv[1] == "keys":
        make_keys(Path(sys.argv[2]))
    else:
        print(sign(Path(sys.argv[2]), *sys.argv[3:6]), end="")
