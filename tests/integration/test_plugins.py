"""Plugins registered in web.xml, served through the real executable with
the sample plugin of tests/plugins installed in the gateway root: plugin
CGIs, no-session plugins, functions by library symbol and by command, and
every way an entry can fail."""

from urllib.parse import urlencode

import pytest
from conftest import write_token

# The legacy access policy (no Origin, maintenance without an admin session); test_policy.py has the default.
pytestmark = pytest.mark.compat

UNKNOWN_NAME = b"Status: 404 Not Found\r\nContent-type: text/html\r\n\r\n"
FORM = "application/x-www-form-urlencoded"
TOKEN = "plg123"
TOO_LONG_LIBRARY = "l" * 29 + ".so"   # 32 bytes: no room for the terminator
LONGEST_LIBRARY = "l" * 28 + ".so"    # 31 bytes: fits
TOO_LONG_SYMBOL = "s" * 32

ENTRIES = (
    'name="sample.cgi" methods="plugin" call="{lib}!sample_cgi"',
    'name="open" methods="plugin" no_session="1" call="{lib}!sample_open_cgi"',
    'name="form.cgi" methods="plugin" call="{lib}!sample_form_cgi"',
    'name="open.cgi" methods="plugin" call="{lib}!sample_open_cgi"',
    'name="bare.cgi" methods="plugin" call="/lib/sample_command.sh"',
    'name="up.cgi" methods="plugin" call="../lib/{lib}!sample_cgi"',
    'name="sub.cgi" methods="plugin" call="sub/{lib}!sample_cgi"',
    f'name="long.cgi" methods="plugin" call="{TOO_LONG_LIBRARY}!sample_cgi"',
    f'name="long31.cgi" methods="plugin" call="{LONGEST_LIBRARY}!sample_cgi"',
    f'name="longsym.cgi" methods="plugin" call="{{lib}}!{TOO_LONG_SYMBOL}"',
    'name="gone.cgi" methods="plugin" call="libgone.so!sample_cgi"',
    'name="nosym.cgi" methods="plugin" call="{lib}!no_such_symbol"',
    'name="notlib.cgi" methods="plugin" call="sample_command.sh!x"',
    'name="sample_fct" methods="cgi ssi" call="{lib}!sample_function"',
    'name="sample_cmd" methods="cgi ssi" call="/lib/sample_command.sh {record}"',
    'name="fct_gone" methods="cgi" call="libgone.so!sample_function"',
)


@pytest.fixture
def record(install_plugins, qmcfg):
    qmcfg("set", "Device", "Aliases", "127.0.0.1")  # requests name the gateway: sessions apply
    return install_plugins(*ENTRIES)


@pytest.fixture
def generic(cgi, root):
    """generic.cgi with a token that grants everything."""
    write_token(root, TOKEN)

    def run(*fields):
        body = urlencode([("token", TOKEN)] + [("fct", f) for f in fields]).encode()
        return cgi(page="generic.cgi", method="POST", body=body, content_type=FORM).body.decode()
    return run


def page(cgi, *calls):
    (cgi.docroot / "p.htm").write_text("|".join(f'<!--#echo var="fct={c}" -->' for c in calls))
    return cgi(page="p.htm").body.decode()


def test_plugin_cgi_is_served_and_its_answer_passed_through(cgi, record, log_file):
    answer = cgi(page="sample.cgi")
    cookie, _, rest = answer.raw.partition(b"\r\n")
    assert cookie.startswith(b"Set-Cookie: QM_web_ID=")  # a plugin CGI gets the session like a built-in
    assert rest == b"Content-type: text/plain\r\n\r\nsample plugin: argc=1 argv0=ssi\n"
    assert not log_file.exists()  # a result of 0 is not logged

    cgi(page="sample.cgi", query="rc=3")
    assert log_file.read_text().endswith("CGI external plugins error for function <sample.cgi> : 3\n")


def test_no_session_is_a_prefix_rule_and_the_call_an_exact_name(cgi, record, log_file):
    # "open" prefixes open.cgi: no cookie; the call finds the entry "open.cgi".
    assert cgi(page="open.cgi").raw == b"Content-type: text/plain\r\n\r\nopen plugin: argc=1 argv0=ssi\n"
    # openx.cgi is no-session too, but no entry is named exactly so: nothing
    # is written, not even the loop's 404 (the no-session path ends at once).
    assert cgi(page="openx.cgi").raw == b""
    assert "CGI openx.cgi not found" in log_file.read_text()


@pytest.mark.parametrize("script, message", [
    ("bare.cgi", None),  # no "!": 1 without a message of the registry
    ("up.cgi", "plugin call '../lib/libsample_plugin.so!sample_cgi' for up.cgi refused: "
               "library is not a file name in /lib"),
    ("sub.cgi", "for sub.cgi refused: library is not a file name in /lib"),
    ("long.cgi", "for long.cgi refused: library name too long"),
    ("long31.cgi", f"can't open /lib/{LONGEST_LIBRARY} for long31.cgi"),
    ("longsym.cgi", "for longsym.cgi refused: symbol name too long"),
    ("gone.cgi", "can't open /lib/libgone.so for gone.cgi"),
    ("nosym.cgi", "can't find plugin no_such_symbol in /lib/libsample_plugin.so : "),
    ("notlib.cgi", "can't open plugin x : "),  # the symbol is named, not the library
])
def test_unusable_entries_answer_1_with_their_message(cgi, record, log_file, script, message):
    cookie, _, rest = cgi(page=script).raw.partition(b"\r\n")
    assert cookie.startswith(b"Set-Cookie: ") and rest == b""  # nothing but the session's cookie line
    log = log_file.read_text()
    assert f"CGI external plugins error for function <{script}> : 1" in log
    if message is None:
        assert log.count("\n") == 1, log
    else:
        assert message in log


def test_function_by_symbol_from_both_front_ends(cgi, generic, record, log_file):
    assert '"sample_fct" : "sample_fct/cgi/abc"' in generic("sample_fct:abc")
    # Registered but not loadable still counts as found: no "doesn't exist".
    assert "doesn" not in generic("fct_gone")
    assert "fctName:'fct_gone' vs 'sample.cgi'" in log_file.read_text()
    assert page(cgi, "sample_fct:abc", "sample_fct") == "sample_fct/ssi/abc|sample_fct/ssi/(none)"


def test_command_entry_gets_its_arguments_without_a_shell(cgi, generic, record, root):
    pwned = root / "pwned"
    hostile = f"x; touch {pwned} $(touch {pwned})`touch {pwned}`"
    generic(f"sample_cmd:{hostile}", "sample_cmd")
    page(cgi, "sample_cmd:a b")
    assert record.read_text().splitlines() == [
        f"[sample_cmd][cgi][{hostile}] KEYWORD=[sample_cmd] PARAM=[{hostile}] ALL=[sample_cmd cgi {hostile}]",
        # No parameter: the command line ends in a blank and PARAM is empty.
        "[sample_cmd][cgi][] KEYWORD=[sample_cmd] PARAM=[] ALL=[sample_cmd cgi ]",
        "[sample_cmd][ssi][a b] KEYWORD=[sample_cmd] PARAM=[a b] ALL=[sample_cmd ssi a b]",
    ]
    assert not pwned.exists()


def test_missing_registry_finds_nothing(cgi, generic, root, log_file):
    assert not (root / "etc/quelm/config.default/web.xml").exists()
    assert cgi(page="sample.cgi").raw == UNKNOWN_NAME
    assert "CGI sample.cgi not found" in log_file.read_text()
    assert "symbol \\u003Csample_fct\\u003E doesn" in generic("sample_fct:abc")
    assert page(cgi, "sample_fct") == '""'
    assert "SSI : sample_fct function not found" in log_file.read_text()


def test_form_redirect_target_stays_in_its_script_string(cgi, record):
    def redirect(target):
        return cgi(page="form.cgi", query=urlencode({"sErrorPage": target, "iExpert": "-2"})).body.decode()
    assert 'replace("a/b.htm?x=1&y=2");' in redirect("a/b.htm?x=1&y=2")
    hostile = redirect("x\");alert(1)//</script>")
    assert 'replace("x\\");alert(1)//\\u003C/script\\u003E");' in hostile, hostile
