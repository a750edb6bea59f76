"""The value cipher as the pages compute it (scripts/quelm-cipher.py, written
from its definition and independent of the gateway's code) and its inverse:
what the tests post as encrypted values and how they read the stored ones."""

import base64
import importlib.util
from pathlib import Path


def _load_page_tool():
    """scripts/quelm-cipher.py: what a page's script computes, shipped for
    users; the tests post what it makes."""
    path = Path(__file__).resolve().parents[2] / "scripts" / "quelm-cipher.py"
    loader_info = importlib.util.spec_from_file_location("quelm_cipher", path)
    module = importlib.util.module_from_spec(loader_info)
    loader_info.loader.exec_module(module)
    return module


_tool = _load_page_tool()
signed_byte = _tool.signed
encrypt = _tool.cipher


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
