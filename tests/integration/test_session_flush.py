"""Sessions in one long-lived responder: expiry and the realm's count across
passes, and changed limits, names and settings apply to the next request."""

import os
import re
import time

import pytest

from fcgi import Responder

AGENT = "Mozilla/5.0 (test)"
COOKIE = re.compile(rb"Set-Cookie: QM_web_ID=([A-Za-z0-9]{6});")
LIMITED = b"Status: 503 "


@pytest.fixture
def responder(bin_dir, env, tmp_path, qmcfg):
    qmcfg("set", "LANDevice_1_IPInterface_1", "IPAddress", "192.168.1.1")
    qmcfg("set", "Services_IADConfigurator", "SessionDelay", "600")
    qmcfg("set", "Device", "Hostname", "gateway")
    with Responder(bin_dir / "cgi-ssi", "ssi", env, tmp_path / "fcgi.sock") as r:
        yield r


def page(responder, addr="192.168.1.10", cookie=None, host="192.168.1.1", server=None):
    params = {"SCRIPT_FILENAME": "/www/index.htm", "SCRIPT_NAME": "/index.htm", "REQUEST_METHOD": "GET",
              "QUELM_REALM": "web", "HTTP_HOST": host, "REMOTE_ADDR": addr, "HTTP_USER_AGENT": AGENT}
    if server:
        params["QUELM_SRV_IDX"] = server
    if cookie:
        params["HTTP_COOKIE"] = f"QM_web_ID={cookie}"
    out, _ = responder.request(params)
    return out


def session_dir(root):
    return root / "var/quelm/session"


@pytest.mark.compat
def test_count_and_limit_hold_between_passes(responder, root):
    limit = root / "var/quelm/webiad.d/http_session_maxlimit"
    answers = [page(responder, addr=f"192.168.1.{20 + i}") for i in range(3)]
    assert not any(a.startswith(LIMITED) for a in answers)  # no limit file: no limit
    # A limit written now applies to the very next request: the three
    # sessions made within the last second count, a fourth is refused.
    limit.write_text("4\n")
    assert COOKIE.search(page(responder, addr="192.168.1.30"))
    assert page(responder, addr="192.168.1.31").startswith(LIMITED)
    # A visitor with a live session still gets in.
    token = COOKIE.search(answers[0]).group(1).decode()
    assert COOKIE.search(page(responder, addr="192.168.1.20", cookie=token)).group(1).decode() == token
    # Lifting the limit (the file changes again) applies at once too.
    limit.write_text("0\n")
    assert COOKIE.search(page(responder, addr="192.168.1.32"))
    limit.write_text("6\n")  # five sessions now: room for one
    assert COOKIE.search(page(responder, addr="192.168.1.40"))
    assert page(responder, addr="192.168.1.41").startswith(LIMITED)
    # A new file renamed over the old one, same size and same second.
    fresh = limit.with_name("limit.new")
    fresh.write_text("9\n")
    os.replace(fresh, limit)
    assert COOKIE.search(page(responder, addr="192.168.1.42"))
    limit.write_text("1\n")
    assert page(responder, addr="192.168.1.43").startswith(LIMITED)
    # No file: no limit.
    limit.unlink()
    assert COOKIE.search(page(responder, addr="192.168.1.44"))


def test_expired_files_go_on_a_later_pass(responder, root):
    page(responder)  # the first request passes over the folder
    old, fresh, other = (session_dir(root) / name for name in ("web_OLD111", "web_NEW111", "other_OLD222"))
    for path, age in ((old, 3600), (fresh, 10), (other, 3600)):
        path.write_text("REMOTE_ADDR=1.2.3.4\n")
        os.utime(path, (time.time() - age,) * 2)
    time.sleep(1.1)
    page(responder, host="elsewhere.example")  # a request without a session passes too
    assert not old.exists() and fresh.exists() and other.exists()


def test_a_changed_name_applies_to_the_next_request(responder, qmcfg):
    def has_session(host):
        return COOKIE.search(page(responder, host=host)) is not None

    assert has_session("192.168.1.1") and has_session("gateway:8080")
    assert not has_session("192.168.1.2")
    qmcfg("set", "LANDevice_1_IPInterface_1", "IPAddress", "192.168.1.2")
    assert has_session("192.168.1.2")
    assert not has_session("192.168.1.1")
    qmcfg("set", "Device", "Hostname", "router")
    assert has_session("router") and not has_session("gateway")


def test_changed_session_settings_apply_to_the_next_request(responder, root, qmcfg):
    def cookie(**kw):
        found = COOKIE.search(page(responder, host="192.168.1.1", **kw))
        return found.group(1).decode() if found else None

    assert cookie(server="1") and cookie(server="2")
    qmcfg("set", "HttpServer_1", "UseSession", "0")
    assert cookie(server="1") is None and cookie(server="2")
    qmcfg("set", "HttpServer_1", "UseSession", "1")
    token = cookie(server="1")
    # A session idle for 100 s is alive under a delay of 600 s, gone under 60.
    path = session_dir(root) / f"web_{token}"
    os.utime(path, (time.time() - 100,) * 2)
    assert cookie(cookie=token) == token
    qmcfg("set", "Services_IADConfigurator", "SessionDelay", "60")
    os.utime(path, (time.time() - 100,) * 2)
    assert cookie(cookie=token) != token


def test_session_file_changed_in_place_is_read_again(responder, root):
    """The responder keeps the text of the session it last checked; a change
    to that file, however small and however soon, must reach the next check."""
    def rewrite(token, old, new):
        path = session_dir(root) / f"web_{token}"
        text = path.read_bytes()
        assert old in text and len(old) == len(new)
        with open(path, "r+b") as f:  # same file, same size
            f.write(text.replace(old, new))

    def kept_then_refused(settle):
        token = COOKIE.search(page(responder, addr="192.168.1.10")).group(1).decode()
        time.sleep(settle)
        assert COOKIE.search(page(responder, addr="192.168.1.10", cookie=token)).group(1).decode() == token
        rewrite(token, b"192.168.1.10", b"192.168.1.99")
        return COOKIE.search(page(responder, addr="192.168.1.10", cookie=token)).group(1).decode() != token

    assert kept_then_refused(settle=0.2)
    # Changes within the same clock tick as the read before them.
    assert all(kept_then_refused(settle=0) for _ in range(5))
