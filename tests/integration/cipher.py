"""A Python version of the gateway's value cipher, written from its
definition and independent of the gateway's code: what the tests post as
encrypted values and how they read the stored ones."""

import base64


def signed_byte(b):
    return b - 256 if b >= 128 else b


def encrypt(key, plain):
    out = []
    for i, p in enumerate(plain.encode()):
        v = signed_byte(p) + signed_byte(key.encode()[i % len(key)])
        v = v - 94 if v >= 94 else v
        v = v - 94 if v >= 127 else v
        out.append("%02X" % (v & 0xFF))
    return "".join(out)


def decrypt(key, hex_text):
    out = bytearray()
    for i in range(0, len(hex_text), 2):
        v = int(hex_text[i:i + 2], 16) - signed_byte(key.encode()[(i // 2) % len(key)]) + 94
        out.append((v + 94 if v < 33 else v) & 0xFF)
    return bytes(out)


def page_encrypt(key, text):
    """What a page posts so that the gateway's decrypt gives text back."""
    pairs = "".join("%02X" % (t + ord(key[i % len(key)]) - 94) for i, t in enumerate(text.encode()))
    assert decrypt(key, pairs) == text.encode()
    return base64.b64encode(pairs.encode()).decode()
