"""A small FastCGI client and a responder runner for tests that need state
across requests of one process (and the leak checker at its exit)."""

import os
import signal
import socket
import struct
import subprocess
import time

BEGIN_REQUEST, END_REQUEST, PARAMS, STDIN, STDOUT, STDERR = 1, 3, 4, 5, 6, 7
RESPONDER = 1


def _record(kind, payload, request_id=1):
    chunks = []
    for start in range(0, max(len(payload), 1), 65535):
        part = payload[start:start + 65535]
        chunks.append(struct.pack(">BBHHBB", 1, kind, request_id, len(part), 0, 0) + part)
    return b"".join(chunks)


def _length(n):
    return bytes([n]) if n < 128 else struct.pack(">I", n | 0x80000000)


def _params(params):
    body = b""
    for key, value in params.items():
        k, v = key.encode(), str(value).encode()
        body += _length(len(k)) + _length(len(v)) + k + v
    return body


def _read_exact(conn, n):
    data = b""
    while len(data) < n:
        chunk = conn.recv(n - len(data))
        if not chunk:
            raise ConnectionError("connection closed")
        data += chunk
    return data


def request(address, params, body=b"", timeout=30):
    """Sends one request; returns (stdout bytes, stderr bytes)."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as conn:
        conn.settimeout(timeout)
        conn.connect(address)
        send_request(conn, params, body)
        return read_answer(conn)


def send_request(conn, params, body=b"", end_input=True):
    """Sends the records of one request; with end_input false, its input
    stream is left open (more of the body could follow)."""
    encoded = _params(params)  # each stream ends with an empty record
    conn.sendall(b"".join([_record(BEGIN_REQUEST, struct.pack(">HB5x", RESPONDER, 0)),
                           _record(PARAMS, encoded) if encoded else b"", _record(PARAMS, b""),
                           _record(STDIN, body) if body else b"", _record(STDIN, b"") if end_input else b""]))


def read_answer(conn):
    """Reads records up to the request's end; returns (stdout, stderr)."""
    stdout, stderr = b"", b""
    while True:
        _, kind, _, length, padding, _ = struct.unpack(">BBHHBB", _read_exact(conn, 8))
        content = _read_exact(conn, length + padding)[:length]
        if kind == STDOUT:
            stdout += content
        elif kind == STDERR:
            stderr += content
        elif kind == END_REQUEST:
            return stdout, stderr


SANITIZER_MARKS = ("ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error:")


class Responder:
    """cgi-ssi started as a FastCGI responder on a listening Unix socket. As a
    context manager it stops the responder on leaving and asserts that the
    sanitizers reported nothing."""

    def __init__(self, binary, argv0, env, socket_path):
        self.address = str(socket_path)
        listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        listener.bind(self.address)
        listener.listen(16)
        self.proc = subprocess.Popen([argv0], executable=binary, stdin=listener.fileno(),
                                     stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, env=env)
        listener.close()

    def request(self, params, body=b""):
        return request(self.address, params, body)

    def __enter__(self):
        return self

    def __exit__(self, *failure):
        err = self.stop()
        for mark in SANITIZER_MARKS:
            assert mark not in err, err

    def stop(self):
        """Asks the responder to leave its accept loop; returns its stderr."""
        self.proc.send_signal(signal.SIGUSR1)
        # A wake-up connection makes a blocked accept return.
        deadline = time.monotonic() + 10
        while self.proc.poll() is None and time.monotonic() < deadline:
            try:
                with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as conn:
                    conn.connect(self.address)
            except OSError:
                pass
            time.sleep(0.1)
        if self.proc.poll() is None:
            self.proc.kill()
        _, err = self.proc.communicate(timeout=30)
        if os.path.exists(self.address):
            os.unlink(self.address)
        return err.decode(errors="replace")
