"""login.cgi through the real executable. Signatures and encrypted passwords
are made here with hashlib, base64 and the Python value cipher of cipher.py,
independently of the gateway's code."""

import base64
import hashlib
import re
import shutil
import subprocess
import time
from urllib.parse import urlencode

import pytest

from cipher import encrypt, page_encrypt
from conftest import make_user

# The legacy access policy (no Origin, maintenance without an admin session); test_policy.py has the default.
pytestmark = pytest.mark.compat

HOST = "192.168.1.1"
PAGE = f"http://{HOST}/basic/password.htm"
COOKIE_LINE = re.compile(rb"^Set-Cookie: QM_web_ID=([A-Za-z0-9]{6});  Path=/; \r\n")
JSON_OK = b'text/plain\r\n\r\n{"result": "OK", "codeError": 0}\r\n'
JSON_FAILED = b'text/plain\r\n\r\n{"result": "Invalid Username or password", "codeError": -1}\r\n'
KEY = "K3y9Zq"  # the "token" field of a password change
USERS = {"admin": 1, "guest": 2, "support": 3, "ops": 4}


def html(url):
    return b"text/html\r\n\r\n<HTML>\n<script>\r\ndocument.location.replace(\"%s\");\r\n</script>\r\n</HTML>\n" \
        % url.encode()


def signature(token, user, password):
    return hashlib.sha256(base64.b64encode(encrypt(token, f"{user}:{password}").encode())).hexdigest()


@pytest.fixture
def gateway(qmcfg):
    for obj, prop, value in [
        ("LANDevice_1_IPInterface_1", "IPAddress", HOST),
        ("Services_IADConfigurator", "MaxTry", "3"), ("Services_IADConfigurator", "TryDelay", "120"),
        ("User_2", "Password", "guest-pw"),             # disabled
        ("User_3", "Services", "web_web,web_web_admin"),  # but not a web user
        ("User_3", "Password", "support-pw"),
    ]:
        qmcfg("set", obj, prop, value)
    make_user(qmcfg, 4, "ops", "ops-pw", "web_rmt,web_web_ops")  # of the realm, but without the word web_web


class Browser:
    """Posts to login.cgi, keeping the session cookie between requests."""

    def __init__(self, cgi, root):
        self.cgi, self.root, self.token = cgi, root, None

    def post(self, referer=PAGE + "?tab=2", **fields):
        extra = {"HTTP_HOST": HOST, "REMOTE_ADDR": "192.168.1.10", "HTTP_USER_AGENT": "test",
                 "HTTP_REFERER": referer}
        if self.token:
            extra["HTTP_COOKIE"] = f"QM_web_ID={self.token}"
        answer = self.cgi(page="login.cgi", argv0="login.cgi", method="POST", body=urlencode(fields).encode(),
                          content_type="application/x-www-form-urlencoded", extra=extra)
        match = COOKIE_LINE.match(answer.raw)
        assert answer.returncode == 0 and match, answer.raw[:200]
        self.token = match.group(1).decode()
        return answer.raw[match.end():]

    def signed(self, user, password, level="admin", **more):
        self.post()  # the signature's key is the session token
        return self.post(seed=signature(self.token, user, password), level=level, **more)

    def plain(self, user, password, level="admin", **more):
        return self.post(cust_auth="1", request="authentication", login=user, password=password, level=level,
                         **more)

    def entries(self):
        text = (self.root / "var/quelm/session" / f"web_{self.token}").read_text()
        return re.findall(r"^(USER|PASSWORD|SERVICES)=(.*)$", text, re.M)


@pytest.fixture
def browser(cgi, root, gateway):
    return Browser(cgi, root)


def get(qmcfg, obj, prop):
    return qmcfg("get", obj, prop).stdout.strip()


@pytest.mark.parametrize("login, user, password, level, accepted", [
    ("signed", "admin", "admin", "admin", True),
    ("signed", "admin", "admin", "no_realm", True),    # the item web_web
    ("signed", "ops", "ops-pw", "ops", True),          # the item web_web_ops
    ("signed", "ops", "ops-pw", "no_realm", False),
    ("signed", "guest", "guest-pw", "guest", False),   # Enable=0
    ("signed", "admin", "admim", "admin", False),
    ("plain", "admin", "admin", "admin", True),
    ("plain", "ops", "ops-pw", "no_realm", True),      # the realm as a substring
    ("plain", "ops", "ops-pw", "admin", False),        # no web_admin
    ("plain", "guest", "guest-pw", "guest", False),    # Enable=0
    ("plain", "support", "support-pw", "admin", False),  # User=0
])
def test_login(browser, qmcfg, login, user, password, level, accepted):
    answer = getattr(browser, login)(user, password, level, redirect="no")
    assert answer == (JSON_OK if accepted else JSON_FAILED)
    services = get(qmcfg, f"User_{USERS[user]}", "Services")
    expected = [("USER", user), ("PASSWORD", password), ("SERVICES", services)]
    assert browser.entries() == (expected if accepted else [])


@pytest.mark.parametrize("what, seed", [
    ("another session's key", lambda t: signature("Zz9Zz9", "admin", "admin")),
    ("upper-case digits", lambda t: signature(t, "admin", "admin").upper()),
    ("one digit short", lambda t: signature(t, "admin", "admin")[:-1]),
])
def test_signature_compared_exactly(browser, what, seed):
    browser.post()
    assert browser.post(seed=seed(browser.token), level="admin", redirect="no") == JSON_FAILED, what


def test_max_try_writes_time_block(browser, qmcfg, log_file):
    def counters():
        return [get(qmcfg, "Services_IADConfigurator", p) for p in ("NumberTry", "TimeBlock")]
    browser.post()
    wrong = dict(seed=signature(browser.token, "admin", "nope"), level="admin", redirect="no")
    assert browser.post(**wrong) == browser.post(**wrong) == JSON_FAILED
    assert counters() == ["2", "0"]
    before = int(time.time())
    browser.post(**wrong)
    number, block = counters()
    assert number == "3" and before + 120 <= int(block) <= int(time.time()) + 120
    browser.post(**wrong)  # past MaxTry the block stays
    assert counters() == ["4", block]
    assert log_file.read_text().count("Signature failed") == 4
    assert browser.post(seed=signature(browser.token, "admin", "admin"), level="admin", redirect="no") == JSON_OK
    assert counters()[0] == "0"


@pytest.mark.parametrize("redirect, ok, failed", [
    (None, html(PAGE), html(PAGE + "?pwd=ko")),
    ("no", JSON_OK, JSON_FAILED),
    ("NO", JSON_OK, JSON_FAILED),
    ("yes", html(PAGE), html(PAGE + "?pwd=ko")),  # too long for its field
    ("/x", html("/x"), html("/x?pwd=ko")),
])
def test_answers_byte_for_byte(browser, redirect, ok, failed):
    more = {} if redirect is None else {"redirect": redirect}
    assert browser.signed("admin", "admin", **more) == ok
    assert browser.signed("admin", "wrong", **more) == failed


def change(browser, current, new, **more):
    browser.post()
    fields = dict(cust_auth="1", request="change", login="admin", token=KEY, currentpassword=current)
    if new is not None:
        fields["newpassword1"] = new
    fields.update(more)
    return browser.post(**fields)


def test_password_change(browser, qmcfg):
    ok = html(f"http://{HOST}/basic/passwordOK.htm")
    # The cipher is not its own inverse: a page that encrypts a blank naively
    # with key digit "0" (32 + 48 < 94) gets "~" (32 + 94) stored.
    naive = base64.b64encode(encrypt("000000", "a b c").encode()).decode()
    assert change(browser, page_encrypt("000000", "admin"), naive, token="000000") == ok
    assert get(qmcfg, "User_1", "Password") == "a~b~c"
    new = page_encrypt(KEY, "N3w-Passw0rd")
    assert change(browser, page_encrypt(KEY, "a~b~c"), new) == ok
    assert get(qmcfg, "User_1", "Password") == "N3w-Passw0rd"
    assert ("PASSWORD", new) in browser.entries()  # as the page sent it
    assert browser.signed("admin", "N3w-Passw0rd", redirect="no") == JSON_OK


@pytest.mark.parametrize("what, current, new", [
    ("wrong current password", page_encrypt(KEY, "admim"), page_encrypt(KEY, "x-pw")),
    ("current password in clear", "admin", page_encrypt(KEY, "x-pw")),
    ("no new password", page_encrypt(KEY, "admin"), None),
    ("new password in clear", page_encrypt(KEY, "admin"), "plain"),
])
def test_password_change_refused(browser, qmcfg, what, current, new):
    assert change(browser, current, new) == html(PAGE + "?pwd=ko"), what
    assert get(qmcfg, "User_1", "Password") == "admin", what


def test_vendor_extension_and_line_breaks(browser, root, log_file):
    if shutil.which("cc") is None:
        pytest.skip("no C compiler for the vendor library")
    (root / "lib").mkdir(exist_ok=True)
    (root / "lib/vendor.c").write_text(
        "int webauth_check(int n, const char *l, const char *s, const char *g)"
        " { (void)l; (void)s; (void)g; return n == 1; }\n")
    subprocess.run(["cc", "-shared", "-fPIC", "-o", root / "lib/webauth_vendor.so", root / "lib/vendor.c"],
                   check=True)
    assert browser.plain("admin", "anything", redirect="no") == JSON_OK
    assert ("PASSWORD", "anything") in browser.entries()
    assert "Got 1 for external vendor function" in log_file.read_text()
    # Accepted by the vendor, but the value would write a line of its own.
    for password in ("x\nUSER=root", "x\rUSER=root"):
        assert browser.plain("admin", password, redirect="no") == JSON_FAILED
        assert browser.entries() == []


def test_referer_cannot_leave_the_script_string(browser):
    """The referring page lands in a script string: a quote, a backslash, a
    line break or "</script>" in it must not end the string or the element."""
    referer = "http://x/\");alert(1)//'\\\n</script><script>alert(2)</script>\u2028"
    answer = browser.post(referer=referer)
    line = answer.split(b"\r\n")[3]
    assert line == (b'document.location.replace("http://x/\\");alert(1)//\\\'\\\\\\u000A\\u003C/script\\u003E'
                    b'\\u003Cscript\\u003Ealert(2)\\u003C/script\\u003E\\u2028?pwd=ko");')


def test_plain_password_must_match_whole(browser):
    """A prefix, an extension or another case of the password is refused:
    the comparison covers the whole stored password, not its first bytes."""
    for password in ("admi", "a", "admin!", "ADMIN"):
        assert browser.plain("admin", password, redirect="no") == JSON_FAILED, password
    assert browser.plain("admin", "admin", redirect="no") == JSON_OK
