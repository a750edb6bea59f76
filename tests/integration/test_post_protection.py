"""POST protection through the real executable: the guarded built-in CGIs
(reboot.cgi, firmupgd.cgi) are served only when the referer names an
existing page of the web root on the request's host; every refusal is
logged and answered with the same page."""

import pytest

# The legacy access policy (no Origin, maintenance without an admin session); test_policy.py has the default.
pytestmark = pytest.mark.compat

REFUSAL = (b'Status: 404 Not Found\nContent-type: text/html\n\n<HTML><HEAD><TITLE>404 Not Found</TITLE>'
           b'<META HTTP-EQUIV="refresh" CONTENT="0;/index.htm"></HEAD>\n<BODY><H2>404 Not Found</H2>\n\n'
           b'</BODY></HTML>\n')
HOST = "127.0.0.1"
BUILTINS = ("ssi", "reboot.cgi", "firmupgd.cgi", "nas.cgi", "generic.cgi", "firmware.cgi", "login.cgi",
            "import.cgi", "export.cgi", "_info.xml")


@pytest.fixture
def guarded(cgi, qmcfg, root):
    """Runs reboot.cgi with the given referer and host; the web root is /www
    under the gateway root, holding index.htm."""
    www = root / "www"
    www.mkdir()
    (www / "index.htm").write_text("home")
    qmcfg("set", "WebConfigurator", "RootDir", "/www")

    def run(referer, host=HOST, method="GET", script="reboot.cgi"):
        extra = {"HTTP_HOST": host}
        if referer is not None:
            extra["HTTP_REFERER"] = referer
        # A ".cgi" is dispatched by its file name, any other page by the process name.
        page, argv0 = ("x/" + script, "ssi") if script.endswith(".cgi") else ("x/index.htm", script)
        return cgi(page=page, argv0=argv0, method=method, extra=extra).raw
    return run


@pytest.mark.parametrize("referer, host, method, message", [
    (None, HOST, "GET", "HTTP_REFERER is not defined (get)"),
    ("", HOST, "POST", "HTTP_REFERER is not defined (post)"),
    ("ftp://127.0.0.1/index.htm", HOST, "GET", "Unsupported protocol in referer ftp://127.0.0.1/index.htm"),
    ("http://127.0.0.1/index.htm", "", "GET", "HTTP_HOST is not defined"),
    ("http://127.0.0.1/index.htm", ":80", "GET", "HTTP_HOST is not defined"),
    ("http://evil.example/index.htm", HOST, "GET", "Referer http://evil.example/index.htm does not match with host "
                                                   "127.0.0.1"),
    ("http://127.0.0.1", HOST, "GET", "Referer URL is empty"),
    ("https://127.0.0.1:8443?x=1", "127.0.0.1:8443", "GET", "Referer URL is empty"),
    ("http://127.0.0.1?x", HOST, "GET", "Referer URL is empty"),
    ("http://127.0.0.1/missing.htm", HOST, "POST", "Cannot extract existing file name from URL "
                                                   "http://127.0.0.1/missing.htm"),
])
def test_refusals_are_logged_and_answered_with_the_404_page(guarded, log_file, referer, host, method, message):
    assert guarded(referer, host, method) == REFUSAL
    assert message in log_file.read_text()


@pytest.mark.parametrize("referer, host", [
    ("http://127.0.0.1/index.htm", HOST),
    ("https://127.0.0.1:8443/index.htm?a=b/c", "127.0.0.1:8443"),  # port skipped, query dropped
    ("http://127.0.0.1/a/b/index.htm", HOST),                       # found at the third try
    ("http://127.0.0.1.evil.example/index.htm", HOST),              # kept: the host need only appear
    ("http://evil.example/127.0.0.1/index.htm", HOST),
])
def test_pages_of_the_web_root_on_the_host_are_served(guarded, referer, host):
    answer = guarded(referer, host)
    assert answer != REFUSAL and answer.startswith(b"Content-type"), answer  # reboot.cgi's own answer


def test_web_root_setting(guarded, qmcfg, log_file):
    qmcfg("set", "WebConfigurator", "RootDir", "")
    assert guarded("http://127.0.0.1/index.htm") == REFUSAL
    assert "WebConfigurator_RootDir is empty cgiSecurePostAllowed 206" in log_file.read_text()
    # Web root and path need 257 bytes with the terminator: one too many
    # (the exact boundary is in tests/unit/plugins_test.cpp).
    qmcfg("set", "WebConfigurator", "RootDir", "/" + "w" * 245)
    assert guarded("http://127.0.0.1/index.htm") == REFUSAL
    assert "Filename corresponding to URL http://127.0.0.1/index.htm is too long" in log_file.read_text()


def test_only_reboot_and_firmupgd_are_guarded(guarded):
    for script in BUILTINS:
        answer = guarded(None, script=script)
        assert (answer == REFUSAL) == (script in ("reboot.cgi", "firmupgd.cgi")), script
