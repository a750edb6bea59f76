#!/usr/bin/env python3
"""What a page's script computes before it posts to the gateway.

  quelm-cipher.py seed KEY USER PASSWORD   the "seed" of a signed login; KEY is
                                           the session cookie's value (QM_web_ID)
  quelm-cipher.py value TOKEN TEXT         a value for a property kept encrypted
                                           (schema type 14), e.g. a Wi-Fi key;
                                           TOKEN is the access token of the request
"""
import base64
import hashlib
import sys


def signed(byte):
    return byte - 256 if byte >= 128 else byte


def cipher(key, plain):
    """The gateway's value cipher: key used cyclically, two hex digits a byte."""
    key = key.encode()
    out = []
    for i, p in enumerate(plain.encode()):
        v = signed(p) + signed(key[i % len(key)])
        v = v - 94 if v >= 94 else v
        v = v - 94 if v >= 127 else v
        out.append("%02X" % (v & 0xFF))
    return "".join(out)


def seed(key, user, password):
    return hashlib.sha256(base64.b64encode(cipher(key, f"{user}:{password}").encode())).hexdigest()


def value(token, text):
    # The gateway decrypts a pair as value - key + 94 (+94 below 33), so the
    # page sends text + key - 94 for each byte.
    key = token.encode()
    pairs = "".join("%02X" % ((t + key[i % len(key)] - 94) & 0xFF) for i, t in enumerate(text.encode()))
    return base64.b64encode(pairs.encode()).decode()


def main(args):
    if len(args) == 4 and args[0] == "seed":
        print(seed(*args[1:]))
    elif len(args) == 3 and args[0] == "value":
        print(value(*args[1:]))
    else:
        sys.stderr.write(__doc__)
        return 2
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
