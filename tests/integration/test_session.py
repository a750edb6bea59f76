"""Browser sessions through the real executable: the cookie line, reuse,
refusal, expiry, the per-realm limit and the Host rules."""

import os
import re
import time

import pytest

# The legacy access policy (no Origin, maintenance without an admin session); test_policy.py has the default.
pytestmark = pytest.mark.compat

COOKIE_LINE = re.compile(rb"^Set-Cookie: QM_web_ID=([A-Za-z0-9]{6});  Path=/; \r\n")
AGENT = "Mozilla/5.0 (test)"
SESSION_LIMIT = b"Status: 503 Service Unavailable\r\nContent-type: text/html\r\n\r\n<HTML>"


@pytest.fixture
def gateway(qmcfg):
    """A gateway whose own names the tests know."""
    for obj, prop, value in [
        ("Device", "Hostname", "gateway"),
        ("Device", "Domain", "home"),
        ("Device", "Aliases", "box,router.lan,quelm"),
        ("LANDevice_1_IPInterface_1", "IPAddress", "192.168.1.1"),
        ("LANDevice_1_IPInterface_1", "SubnetMask", "255.255.255.0"),
        ("LANDevice_1_IPv6Status", "CurrentIPAddress", "fd00::1"),
        ("Services_IADConfigurator", "SessionDelay", "600"),
    ]:
        qmcfg("set", obj, prop, value)


@pytest.fixture
def visit(cgi, gateway):
    def run(cookie=None, host="192.168.1.1", addr="192.168.1.10", agent=AGENT, page="index.htm", **kw):
        extra = {"HTTP_HOST": host, "REMOTE_ADDR": addr, "HTTP_USER_AGENT": agent}
        if cookie is not None:
            extra["HTTP_COOKIE"] = cookie
        return cgi(page=page, extra=extra, **kw)
    return run


def sessions(root, realm="web"):
    return sorted(p.name for p in (root / "var/quelm/session").iterdir() if p.name.startswith(realm + "_"))


def token_of(answer):
    match = COOKIE_LINE.match(answer.raw)
    assert match, answer.raw[:200]
    assert answer.raw.count(b"Set-Cookie") == 1
    return match.group(1).decode()


def test_cookie_issued_reused_refreshed_and_expired(visit, root):
    token = token_of(visit())
    path = root / "var/quelm/session" / f"web_{token}"
    assert path.read_text() == f"REMOTE_ADDR=192.168.1.10\nHTTP_USER_AGENT={AGENT}\nREALM=web\n"
    old = time.time() - 300  # idle, but within the 600 s lifetime
    os.utime(path, (old, old))
    assert token_of(visit(cookie=f"other=1; QM_web_ID={token}")) == token
    assert path.stat().st_mtime > old + 200
    assert sessions(root) == [f"web_{token}"]
    old = time.time() - 601
    os.utime(path, (old, old))
    fresh = token_of(visit(cookie=f"QM_web_ID={token}"))
    assert fresh != token and not path.exists()


@pytest.mark.parametrize("change", [{"addr": "192.168.1.11"}, {"agent": "curl/8"}])
def test_changed_client_is_refused_and_replaced(visit, root, change):
    token = token_of(visit())
    fresh = token_of(visit(cookie=f"QM_web_ID={token}", **change))
    assert fresh != token
    assert sessions(root) == [f"web_{fresh}"]


@pytest.mark.parametrize("length, kept", [(1024, True), (1025, False)])
def test_saved_agent_is_compared_as_read_into_its_buffer(visit, length, kept):
    # The saved agent is taken into a buffer of 1,024 bytes before it is
    # compared: a longer one no longer equals the visitor's own.
    agent = "a" * length
    token = token_of(visit(agent=agent))
    assert (token_of(visit(cookie=f"QM_web_ID={token}", agent=agent)) == token) is kept


@pytest.mark.parametrize("value", ["abcde", "abcdefg", "../abc", "ab/cde", "", "x" * 200])
def test_bad_cookie_values_get_a_fresh_session(visit, root, value):
    answer = visit(cookie=f"QM_web_ID={value}")
    assert token_of(answer) != value
    assert len(sessions(root)) == 1


@pytest.mark.parametrize("content", ["", "garbage", "REMOTE_ADDR=192.168.1.10\n", "\x00\xff" * 50])
def test_damaged_session_file_is_refused(visit, root, content):
    token = token_of(visit())
    (root / "var/quelm/session" / f"web_{token}").write_bytes(content.encode("latin-1"))
    assert token_of(visit(cookie=f"QM_web_ID={token}")) != token


def test_damaged_file_is_refused_even_without_client_fields(visit, root):
    (root / "var/quelm/session" / "web_AAAAAA").write_text("")
    answer = visit(cookie="QM_web_ID=AAAAAA", addr="", agent="")
    assert token_of(answer) != "AAAAAA"


def test_limit_counts_only_this_realm(visit, root):
    (root / "var/quelm/webiad.d/http_session_maxlimit").write_text("2\n")
    for name in ["other_AAAAAA", "other_BBBBBB", "rmt_CCCCCC"]:
        (root / "var/quelm/session" / name).write_text("REMOTE_ADDR=x\n")
    first, second = token_of(visit()), token_of(visit(addr="192.168.1.20"))
    assert first != second
    third = visit(addr="192.168.1.30")
    assert third.raw.startswith(SESSION_LIMIT) and third.returncode == 0


@pytest.mark.parametrize("host, granted", [
    ("192.168.1.1", True),
    ("192.168.1.1:8080", True),
    ("GATEWAY", True),                    # host name ignores case
    ("gateway:80", True),
    ("gateway.home", True),
    ("Gateway.home", False),              # host with domain is exact
    ("[fd00::1]:8080", True),
    ("[fd00::1]", True),
    ("box", True),                        # an item of the alias list
    ("router.lan:443", True),
    ("quelm", True),                      # the last alias
    ("ox", False),                        # part of an alias is not an alias
    ("192.168.1.1.example.net", False),   # address prefix must end the name
    ("192.168.1.10", False),
    ("[fd00::10]", False),
    ("evil.example", False),
    ("", False),
])
def test_host_rules(visit, host, granted):
    answer = visit(host=host)
    assert answer.raw.startswith(b"Set-Cookie") == granted


def test_remote_realm_outside_lan_gets_session(visit, root):
    answer = visit(host="203.0.113.7", realm="rmt")
    assert answer.raw.startswith(b"Set-Cookie: QM_rmt_ID=")
    assert not visit(host="192.168.1.77", realm="rmt").raw.startswith(b"Set-Cookie")


@pytest.mark.parametrize("page, granted", [
    ("index.htm", True), ("a.html", True), ("a.js", True), ("a.xml", True), ("dir/generic.cgi", True),
    ("index.HTM", False), ("style.css", False),
])
def test_session_only_for_page_extensions(visit, page, granted):
    assert visit(page=page).raw.startswith(b"Set-Cookie") == granted


@pytest.mark.parametrize("length", [249, 250])
def test_realm_length_and_cookie_name(visit, log_file, length):
    answer = visit(realm="r" * length)
    # A refused realm leaves the previous request's (here: empty) cookie name.
    name = f"QM_{'r' * length}_ID" if length == 249 else ""
    assert answer.raw.startswith(f"Set-Cookie: {name}=".encode())
    assert answer.raw.endswith(b"does not seem to exist.\n</BODY></HTML>\n")  # dispatched all the same
    assert ("Warnig: sizeof realm" in log_file.read_text()) == (length == 250)


def test_line_breaks_never_reach_session_files(visit, root):
    visit(agent="evil\r\nUSER=admin")
    for name in sessions(root):
        assert "USER=admin" not in (root / "var/quelm/session" / name).read_text().splitlines()


def test_private_files_and_directories(cgi, root):
    """The session directory is the responder's alone, and the fixed-name
    error file in the shared /var/tmp is never read through a link."""
    session_dir = root / "var/quelm/session"
    session_dir.chmod(0o755)
    secret = root / "secret"
    secret.write_text("4242\n")
    (root / "var/tmp").mkdir(parents=True, exist_ok=True)
    (root / "var/tmp/cgierror").symlink_to(secret)
    (cgi.docroot / "e.htm").write_text("[<!--#echo var=iCgiError -->]")
    assert cgi(page="e.htm").body == b"[0]"
    assert secret.read_text() == "4242\n"
    assert session_dir.stat().st_mode & 0o777 == 0o700
