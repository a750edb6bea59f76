"""The log: request text cannot forge lines, and the log file is created
0640 without following a link planted at its name."""

import stat
from urllib.parse import urlencode

from conftest import write_token
import pytest

# The legacy access policy (no Origin, maintenance without an admin session); test_policy.py has the default.
pytestmark = pytest.mark.compat

FORM = "application/x-www-form-urlencoded"
TOKEN = "abc123"


def generic_request(cgi, root, *fields):
    write_token(root, TOKEN)
    body = urlencode([("token", TOKEN), *fields]).encode()
    return cgi(page="generic.cgi", method="POST", body=body, content_type=FORM)


def test_control_bytes_in_request_text_do_not_forge_log_lines(cgi, root, log_file):
    generic_request(cgi, root, ("fct", "x\nFORGED\r\x1b[31m\x7f"))
    text = log_file.read_text()
    lines = text.splitlines()
    assert not any(line.startswith("FORGED") for line in lines), text
    # The whole message stays on one line, with its control bytes spelled out.
    forged = [line for line in lines if "FORGED" in line]
    assert len(forged) == 1, text
    assert "x\\nFORGED\\x0D\\x1B[31m\\x7F" in forged[0]
    assert "\r" not in text and "\x1b" not in text and "\x7f" not in text


def test_log_file_is_created_0640(cgi, root, log_file):
    generic_request(cgi, root, ("fct", "nosuchfunction"))
    assert stat.S_IMODE(log_file.stat().st_mode) & ~0o640 == 0


def test_log_file_link_is_not_followed(cgi, root, log_file, tmp_path):
    target = tmp_path / "elsewhere"
    target.write_text("")
    log_file.symlink_to(target)
    generic_request(cgi, root, ("fct", "nosuchfunction"))
    assert target.read_text() == ""
