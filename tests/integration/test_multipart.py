"""Multipart bodies through the real executable: what the parser leaves on
disk when a body is cut, refused or complete."""

import time

from conftest import assert_no_sanitizer_report, events
from test_maintenance import BOUNDARY, CONTENT_TYPE, multipart, start
import pytest

# The legacy access policy (no Origin, maintenance without an admin session); test_policy.py has the default.
pytestmark = pytest.mark.compat



def file_part(name, filename, content):
    return (f'--{BOUNDARY}\r\nContent-Disposition: form-data; name="{name}"; filename="{filename}"\r\n\r\n'
            ).encode() + content + b"\r\n"


def uploads(root):
    return [p for p in (root / "var/tmp").iterdir() if p.name.startswith("cgic")]


def test_client_gone_mid_upload_leaves_no_temporary(bin_dir, env, root):
    head = file_part("sImportFile", "big.bin", b"")[:-2]
    proc = start(bin_dir, env, "import.cgi", len(head) + 1024 * 1024)  # under the form limit
    proc.stdin.write(head + b"\0" * (256 * 1024))
    proc.stdin.flush()
    deadline = time.monotonic() + 10
    while not uploads(root) and time.monotonic() < deadline:
        time.sleep(0.02)
    [temporary] = uploads(root)
    assert temporary.stat().st_mode & 0o777 == 0o600, "only the responder reads an upload"
    proc.stdin.close()  # the client goes away
    out, err = proc.stdout.read(), proc.stderr.read()
    proc.wait(timeout=20)
    assert_no_sanitizer_report(err.decode(errors="replace"))
    assert uploads(root) == []
    assert b"onReceiveSuccess" in out, "a failed parse leaves an empty form, as the product does"


def test_second_file_part_is_refused_cleanly(cgi, root, log_file):
    body = (file_part("sImportFile", "a.bin", b"first") + file_part("other", "b.bin", b"second")
            + f"--{BOUNDARY}--\r\n".encode())
    answer = cgi(page="import.cgi", argv0="import.cgi", method="POST", body=body, content_type=CONTENT_TYPE)
    assert answer.body == b"<script> window.top.window.onReceiveSuccess();</script>\r\n\r\n"
    assert "Error : invalid stream received" in log_file.read_text()
    assert uploads(root) == []


def test_parts_reach_the_handler_in_any_number_of_writes(bin_dir, env, root):
    """The same body, written in small pieces with pauses, gives the same
    form: the parser does not depend on how reads fall."""
    body = multipart([("iRebootOption", b"2"), ("sSuccessPage", b"ok.htm")])
    proc = start(bin_dir, env, "reboot.cgi", len(body))
    for at in range(0, len(body), 13):
        proc.stdin.write(body[at:at + 13])
        proc.stdin.flush()
        time.sleep(0.002)
    out, err = proc.communicate(timeout=20)
    assert_no_sanitizer_report(err.decode(errors="replace"))
    assert b"/ok.htm" in out
    assert events(root)[-2:] == ["factory 2", "reboot 0"]
