"""The request loop through the real executable: dispatch by name, request
bodies at and around their limits, and the FastCGI path behind lighttpd."""

import socket

import pytest

from fcgi import Responder, read_answer, send_request

# The legacy access policy (no Origin, maintenance without an admin session); test_policy.py has the default.
pytestmark = pytest.mark.compat

# The probe "nas.cgi" without fields, from outside the LAN, answers that its
# service is closed; a refused body gets its status and the error page.
BUILTIN_ANSWER = b"Status: 500 Internal server error\r\n\r\n"
NAS_ERROR_PAGE = b"<BODY>Internal Server Error nas.cgi</BODY>\n</HTML>\n"


def refused_body(answer, status):
    return answer.raw.startswith(b"Status: %d " % status) and answer.raw.endswith(NAS_ERROR_PAGE)
UNKNOWN_NAME = b"Status: 404 Not Found\r\nContent-type: text/html\r\n\r\n"
PAGE_MISSING = b"Status: 404 Not Found\r\nContent-type: text/html\r\n\r\n<HTML>"
BODY_LIMIT = 2_098_176


@pytest.mark.parametrize("argv0, page, builtin", [
    ("ssi", "index.htm", True),                 # row 1 by process name
    ("ssi", "page.HTM", True),                  # upper case: no session, still dispatched
    ("anything", "dir/generic.cgi", True),      # ".cgi" dispatches by script file name
    ("anything", "dir/_info.xml", False),       # not ".cgi": process name decides
    ("_info.xml", "_info.xml", True),
    ("ssi", "dir/nosuch.cgi", False),           # no built-in, no plugin
])
def test_dispatch_by_name(cgi, argv0, page, builtin):
    answer = cgi(page=page, argv0=argv0)
    assert answer.returncode == 0
    assert (answer.raw != UNKNOWN_NAME) == builtin


@pytest.mark.parametrize("script, answered", [
    ("/www/noextension", False),
    ("", False),
    (None, False),
    ("/www.d/noext", True),  # the extension is whatever follows the last "."
])
def test_page_without_extension_writes_nothing(cgi, script, answered):
    answer = cgi(page=None, extra={} if script is None else {"SCRIPT_FILENAME": script})
    assert answer.raw.startswith(PAGE_MISSING) == answered and answer.returncode == 0
    assert answered or answer.raw == b""


def test_cgi_name_without_slash_is_refused(cgi, log_file):
    answer = cgi(page="login.cgi", extra={"SCRIPT_FILENAME": "login.cgi"})
    assert answer.raw == b""
    assert "Mistmatch plugin_name: login.cgi" in log_file.read_text()


FORM = "application/x-www-form-urlencoded"


@pytest.mark.parametrize("size, refused", [(BODY_LIMIT - 1, False), (BODY_LIMIT, True)])
def test_body_size_limit(cgi, size, refused):
    body = b"a=" + b"x" * (size - 2)
    answer = cgi(page="nas.cgi", method="POST", body=body, content_type=FORM)
    assert refused_body(answer, 413) if refused else answer.raw == BUILTIN_ANSWER


@pytest.mark.parametrize("length, body", [
    ("-1", b"a=1"),                    # negative: refused, nothing read
    ("99999999999999999999", b"a=1"),  # overflow: refused
    ("-2147483648", b""),
    ("100", b"a=1"),                   # short body
])
def test_bad_content_length_is_refused(cgi, length, body):
    answer = cgi(page="nas.cgi", method="POST", body=body, content_type=FORM, content_length=length)
    assert refused_body(answer, 400), answer.raw


@pytest.mark.parametrize("query, length", [
    ("a=%", None), ("a=%4", None), ("%zz=%zz&b", None), ("=&&=%%%", None), ("a=" + "%41" * 5000, None),
    ("", "abc"), ("", ""),  # a non-numeric length is an empty body
])
def test_broken_escapes_and_lengths_are_harmless(cgi, query, length):
    posted = length is not None
    answer = cgi(page="nas.cgi", method="POST" if posted else "GET", query=query, body=b"a=1" if posted else b"",
                 content_type=FORM, content_length=length)
    assert answer.raw == BUILTIN_ANSWER


@pytest.mark.parametrize("realm, cookie, limit", [
    (None, None, None),
    # Just under the kernel's limit for one environment string.
    ("web", "; ".join(f"c{i}={'v' * 100}" for i in range(1100)) + "; QM_web_ID=" + "t" * 4000, None),
    *[("web", None, content) for content in ["3\n", "abc", "", "-5"]],  # session limit file forms
])
def test_odd_realm_cookie_or_limit_still_dispatches(cgi, root, realm, cookie, limit):
    if limit is not None:
        (root / "var/quelm/webiad.d/http_session_maxlimit").write_text(limit)
    assert cgi(realm=realm, extra={"HTTP_COOKIE": cookie} if cookie else None).raw.startswith(PAGE_MISSING)


def test_many_fastcgi_requests_leak_nothing(bin_dir, env, tmp_path):
    with Responder(bin_dir / "cgi-ssi", "ssi", env, tmp_path / "fcgi.sock") as responder:
        for i in range(300):
            params = {
                "SCRIPT_FILENAME": "/www/nas.cgi" if i % 2 else "/www/index.htm",
                "SCRIPT_NAME": "/nas.cgi" if i % 2 else "/index.htm",
                "REQUEST_METHOD": "POST" if i % 3 == 0 else "GET",
                "QUERY_STRING": f"read=Device_Hostname&i={i}",
                "CONTENT_TYPE": FORM,
                "CONTENT_LENGTH": "11" if i % 3 == 0 else "0",
                "QUELM_REALM": "web",
                "HTTP_COOKIE": f"QM_web_ID=abc{i}; other=1",
            }
            out, _ = responder.request(params, b"a=1&b=2&c=3" if i % 3 == 0 else b"")
            assert out == BUILTIN_ANSWER if i % 2 else out.startswith(PAGE_MISSING)
    assert responder.proc.returncode == 0


@pytest.mark.parametrize("length, body, end_input, closes_first", [
    ("0", b"", True, True),                  # nothing more can come: closed with the answer
    ("11", b"a=1&b=2&c=3", False, False),    # input still open: libfcgi's close, which waits
])
def test_connection_is_closed_at_once_only_when_input_has_ended(bin_dir, env, tmp_path, length, body, end_input,
                                                                closes_first):
    params = {"SCRIPT_FILENAME": "/www/dir/nosuch.cgi", "SCRIPT_NAME": "/dir/nosuch.cgi", "REQUEST_METHOD": "POST",
              "CONTENT_LENGTH": length, "QUELM_REALM": "web"}
    with Responder(bin_dir / "cgi-ssi", "ssi", env, tmp_path / "fcgi.sock") as responder:
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as conn:
            conn.settimeout(30)
            conn.connect(responder.address)
            send_request(conn, params, body, end_input)
            assert read_answer(conn)[0] == UNKNOWN_NAME
            assert conn.recv(1) == b""  # the answer's end: shut down, or closed
            # Closed, the responder takes nothing more; waiting for this end
            # to close, it still reads (and drops) what comes.
            try:
                conn.sendall(b"\0" * 8)
                closed = False
            except BrokenPipeError:
                closed = True
            assert closed == closes_first
        # Either way the responder goes on to the next request.
        assert responder.request(dict(params, CONTENT_LENGTH="0"))[0] == UNKNOWN_NAME


ERROR_PAGE = b"<HTML>\n<HEAD>\n<TITLE>Error</TITLE>\n</HEAD>\n<BODY>Internal Server Error generic.cgi</BODY>\n</HTML>\n"
JSON_FAILED = b'text/plain\r\n\r\n{"result": "Invalid Username or password", "codeError": -1}\r\n'


def test_answers_of_its_own_accord_are_valid_http(lighttpd, qmcfg, log_file):
    """Where the product answers by itself (unknown name, refused body, no
    session, no room for a session) the browser gets a status and a content
    type instead of lighttpd's 502."""
    form = {"Content-Type": FORM}
    status, headers, _ = lighttpd.get("/nosuch.cgi")
    assert (status, headers["Content-Type"]) == (404, "text/html")

    status, headers, body = lighttpd.get("/generic.cgi", data=b"a=" + b"x" * (BODY_LIMIT - 2), headers=form)
    assert (status, headers["Content-Type"], body) == (413, "text/html", ERROR_PAGE)
    # The same process goes on serving after a refused body.
    assert lighttpd.get("/generic.cgi")[0] == 200
    assert [lighttpd.get(path)[0] for path in ("/index.htm", "/nas.cgi?a=1")] == [404, 500]

    status, headers, body = lighttpd.get("/login.cgi", data=b"redirect=no", headers={**form, "Host": "evil.example"})
    assert (status, headers["Content-Type"], body) == (403, "text/plain", JSON_FAILED)
    assert "host 'evil.example' is not a name of the gateway" in log_file.read_text()
    assert "login refused: the request has no session" in log_file.read_text()

    qmcfg("set", "LANDevice_1_IPInterface_1", "IPAddress", "127.0.0.1")
    (lighttpd.run_dir.parent / "root/var/quelm/webiad.d/http_session_maxlimit").write_text("1\n")
    assert lighttpd.get("/login.cgi", data=b"redirect=no", headers=form)[0] == 200
    status, headers, body = lighttpd.get("/login.cgi", data=b"redirect=no", headers=form)
    assert (status, headers["Content-Type"]) == (503, "text/html") and b"sessions" in body


@pytest.mark.parametrize("length, body, status", [
    ("-1", b"a=1", 400),
    ("99999999999999999999", b"a=1", 400),
    ("100", b"a=1", 400),  # short body
    (str(BODY_LIMIT), b"", 413),
])
def test_refused_body_gets_a_header_block(cgi, length, body, status):
    head = b"Status: %d " % status
    answer = cgi(page="generic.cgi", method="POST", body=body, content_type=FORM, content_length=length)
    assert answer.raw.startswith(head) and answer.raw.endswith(b"Content-type: text/html\r\n\r\n" + ERROR_PAGE)
    answer = cgi(page="login.cgi", method="POST", body=body, content_type=FORM, content_length=length)
    assert answer.raw.startswith(head) and answer.raw.endswith(b"Content-type: text/html\r\n\r\n")


@pytest.mark.parametrize("language, echoed", [
    ("fr-FR, en;q=0.8", True),
    ("fr\r\nSet-Cookie: QM_web_ID=AAAAAA", False),  # would add a header line
    ("fr\tFR", False),
    ("fr-\u00e9", False),                          # bytes above 126
])
def test_accept_language_reaches_a_header_only_when_printable(cgi, language, echoed):
    (cgi.docroot / "index.htm").write_text("x")
    answer = cgi(extra={"HTTP_ACCEPT_LANGUAGE": language})
    expected = f"CONTENT-LANGUAGE: {language}\r\n".encode() if echoed else b""
    assert answer.raw == expected + b"Content-type: text/html\r\n\r\nx"


def test_each_fastcgi_request_reads_its_own_variables(bin_dir, env, tmp_path):
    # Requests of one responder with the same number of parameters of the
    # same sizes, so that a request's parameters may well land where the
    # previous one's were: a variable of one must never answer for the next.
    docroot = tmp_path / "www"
    docroot.mkdir(exist_ok=True)
    (docroot / "index.htm").write_text("x")
    base = {"SCRIPT_FILENAME": f"{docroot}/index.htm", "SCRIPT_NAME": "/index.htm", "DOCUMENT_ROOT": str(docroot),
            "REQUEST_METHOD": "GET", "QUERY_STRING": "", "REMOTE_ADDR": "127.0.0.1", "HTTP_HOST": "127.0.0.1",
            "QUELM_REALM": "web"}
    steps = [("HTTP_ACCEPT_LANGUAGE", "fr-FR"), ("HTTP_ACCEPT_LANGUAGX", "fr-FR"), ("HTTP_ACCEPT_LANGUAGE", "de-DE"),
             ("HTTP_ACCEPT_LANGUAGE", "en-GB"), ("HTTP_ACCEPT_LANGUAGX", "en-GB")]
    with Responder(bin_dir / "cgi-ssi", "ssi", env, tmp_path / "fcgi.sock") as responder:
        for name, language in steps:
            out, _ = responder.request(dict(base, **{name: language}))
            header = f"CONTENT-LANGUAGE: {language}\r\n".encode() if name == "HTTP_ACCEPT_LANGUAGE" else b""
            assert out == header + b"Content-type: text/html\r\n\r\nx", (name, language)

