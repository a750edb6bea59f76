"""The SSI page engine as a plain CGI: headers and error pages byte for byte,
directives, includes, malformed pages, and sections by login or value."""

import os
import re
import time

import pytest

from conftest import make_user
from fcgi import Responder

HTML = "Content-type: text/html\r\n\r\n"
FORBIDDEN = "Status: 403 Forbidden\r\n" + HTML
NOT_PERMITTED = ("<HR><H2>Not Permitted</H2>\nThe filename requested in the {} {}={} directive\n"
                 "may not be fetched.\n<HR>\n")
NOT_FOUND = ("<HR><H2>Not Found</H2>\nThe filename requested in a {} {} directive, {},\n"
             "does not seem to exist.\n<HR>\n")
UNKNOWN_DIRECTIVE = ("<HR><H2>Unknown Directive</H2>\nThe requested server-side-includes filename, {},\n"
                     "tried to use an unknown directive, {}.\n<HR>\n")
UNKNOWN_TAG = ("<HR><H2>Unknown Tag</H2>\nThe requested server-side-includes filename, {},\n"
               "tried to use the directive {} with an unknown tag, {}.\n<HR>\n")
UNKNOWN_VALUE = ("<HR><H2>Unknown Value</H2>\nThe requested server-side-includes filename, {},\n"
                 "tried to use the directive {} {} with an unknown value, {}.\n<HR>\n")
PAGE_HEAD = ("<HTML>\n<HEAD>\n<TITLE>{0}</TITLE>\n"
             "<meta http-equiv=Content-Type content=\"text/html; charset=iso-8859-1\">\n"
             "</HEAD>\n<BODY><H2>{0}</H2>\n")
COOKIE = re.compile(r"QM_web_ID=([A-Za-z0-9]{6})")


@pytest.fixture
def site(cgi):
    """Writes a page (and the files it uses) and serves it: the raw answer."""
    def render(page="index.htm", text=None, extra=None, unset=(), files=None, timeout=60):
        for name, content in dict(files or {}, **({page: text} if text is not None else {})).items():
            path = cgi.docroot / name
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_bytes(content.encode() if isinstance(content, str) else content)
        # The web server hands the document root over with its closing "/".
        base = {"HTTP_USER_AGENT": "pytest", "DOCUMENT_ROOT": f"{cgi.docroot}/"}
        answer = cgi(page=page, extra=dict(base, **(extra or {})), unset=unset, timeout=timeout)
        return answer.raw.decode("latin-1")

    render.docroot = cgi.docroot
    return render


def body(raw):
    """The response after the header block; asserts that there is one."""
    head, sep, rest = raw.partition("\r\n\r\n")
    assert sep, raw[:300]
    return rest


# ---- Headers and error pages -----------------------------------------------------

@pytest.mark.parametrize("page, header", [
    ("index.htm", HTML),
    ("app.js", "Content-type: application/x-javascript\r\n\r\n"),
    ("data.xml", "Content-type: text/xml\r\n\r\n"),
    ("data.json", "Content-type: text/plain\r\n\r\n"),    # no row for json
    ("page.shtml", "Content-type: text/plain\r\n\r\n"),   # nor for shtml
])
def test_content_type_from_table(site, page, header):
    assert site(page, "x") == header + "x"


def error_page(status, title, text):
    return f"Status: {status}\r\n{HTML}" + PAGE_HEAD.format(title) + text + "</BODY></HTML>\n"


def test_missing_page_exact_bytes(site):
    assert site("missing.htm") == error_page("404 Not Found", "404 Not Found", "The requested server-side-includes "
                                             f"filename, {site.docroot}/missing.htm,\ndoes not seem to exist.\n")
    # A missing variable; without SCRIPT_FILENAME the request loop itself
    # answers nothing (test_dispatch.py).
    assert site(text="x", unset=["SCRIPT_NAME"]) == error_page(
        "500 Internal Server Error", "500 Internal Error", "Something unusual went wrong during a server-side-includes "
        "request:\n<BLOCKQUOTE>\nCouldn't get SCRIPT_NAME environment variable.\n</BLOCKQUOTE>\n")


def test_error_blocks_escape_names(site):
    # The web server decodes the URI: a page name can carry markup.
    name = '<svg onload="alert(1)">&.htm'
    shown = "&lt;svg onload=&quot;alert(1)&quot;&gt;&amp;.htm"
    raw = site(name)
    assert f"filename, {site.docroot}/{shown},\n" in raw and "<svg" not in raw
    raw = site(text="x", extra={"PATH_INFO": f"/a/../{name}"})
    assert raw == FORBIDDEN + NOT_PERMITTED.format("initial", "PATH_INFO", f"/a/../{shown}")
    raw = site(text='<!--#include file="../<b>&x.htm" -->')
    assert body(raw) == NOT_PERMITTED.format("include", "file", "../&lt;b&gt;&amp;x.htm")
    # A page matching the CGI pattern is refused as it is named.
    raw = site("run.cgi.htm", "secret", extra={"CGI_PATTERN": "**.cgi.htm|/nothing"})
    assert raw == FORBIDDEN + NOT_PERMITTED.format("initial", "SCRIPT_FILENAME", f"{site.docroot}/run.cgi.htm")


# ---- Directives -------------------------------------------------------------------

def test_echo_values_attribute_separator_and_unknown_directives(site, log_file):
    page = ('<!--#echo var="DOCUMENT_URI" -->|<!--#echo var=DOCUMENT_NAME -->|'
            '<!--#echo var=QUERY_STRING_UNESCAPED -->|<!--#echo var=A var=B -->|'
            '<!--#echo var=X_FORWARDED_FOR -->|<!--#echo var=nosuch -->|'
            '<!--#echo value=x -->a<!--#foo -->b<!--#Echo var=A -->c<!--# -->d')
    raw = site(text=page, extra={"A": "a'1", "B": "b", "QUERY_STRING": "q=%41&x"})
    name = f"{site.docroot}/index.htm"
    assert body(raw) == (f"/index.htm|{name}|q=%41&x|a'1 b|||" + UNKNOWN_TAG.format(name, "echo", "value")
                         + "a" + UNKNOWN_DIRECTIVE.format(name, "foo") + "b" + UNKNOWN_DIRECTIVE.format(name, "Echo")
                         + "c" + UNKNOWN_DIRECTIVE.format(name, "") + "d")
    assert "SSI unknown symbol <nosuch>" in log_file.read_text()


def test_environment_values_escaped_by_echo_mode(site):
    referer = "http://x/';alert(1);//\"</script>"
    page = ("<!--#echo var=HTTP_REFERER -->|<!--#echo jsvar=HTTP_REFERER -->|"
            "<!--#echo jsonvar=QUERY_STRING_UNESCAPED -->|<!--#echo jsvar=DOCUMENT_URI -->")
    raw = site(text=page, extra={"HTTP_REFERER": referer, "QUERY_STRING": "a='<b>", "PATH_INFO": "/index.htm"})
    assert body(raw) == (referer + "|http://x/\\';alert(1);//\\\"\\u003C/script\\u003E|"
                         "a=\\'\\u003Cb\\u003E|/index.htm")


@pytest.mark.parametrize("attribute, expected", [
    ("var", "a'b\"c\t\\d</script>"),
    # A value can neither end its string nor close the script element.
    ("jsvar", "a\\'b\\\"c\\011\\\\d\\u003C/script\\u003E"),
    ("jsonvar", "a\\'b\\\\\"c\\011\\\\d\\u003C/script\\u003E"),
])
def test_symbol_escaped_by_echo_mode(site, root, attribute, expected):
    (root / "var/tmp").mkdir(parents=True, exist_ok=True)
    (root / "var/tmp/cgierror").write_text("a'b\"c\t\\d</script>\n")
    assert body(site(text=f"[<!--#echo {attribute}=iCgiError -->]")) == f"[{expected}]"
    # Shown once; without a stored error the symbol is 0.
    assert body(site(text=f"<!--#echo {attribute}=iCgiError -->")) == "0"


def test_sizes_dates_and_config(site):
    files = {"small.bin": b"x" * 1023, "kilo.bin": b"x" * 3000, "mega.bin": b"x" * (2 << 20)}
    page = ("<!--#fsize file=kilo.bin -->|<!--#config sizefmt=abbrev -->"
            "<!--#fsize file=small.bin -->|<!--#fsize file=kilo.bin -->|<!--#fsize virtual=/mega.bin -->|"
            "<!--#config timefmt=\"%Y-%m-%d\" --><!--#flastmod file=kilo.bin -->|"
            "<!--#config sizefmt=huge --><!--#config colour=red --><!--#fsize file=none.bin -->")
    site(files=files)
    os.utime(site.docroot / "kilo.bin", (1000000000, 1000000000))  # 2001-09-09 UTC
    raw = site(text=page, extra={"TZ": "UTC"})
    name = f"{site.docroot}/index.htm"
    # "abbrev" never shows kilobytes: below 1 MiB it is 0M, above it counts GiB.
    assert body(raw) == ("3000|1023|0M|0G|2001-09-09|"
                         + UNKNOWN_VALUE.format(name, "config", "sizefmt", "huge")
                         + UNKNOWN_TAG.format(name, "config", "colour")
                         + NOT_FOUND.format("fsize", "file", f"{site.docroot}/none.bin"))


@pytest.mark.parametrize("filler", [10, 70000])  # a page read whole, and one mapped
def test_last_modified_is_the_file_being_read(site, filler):
    text = '<!--#config timefmt="%Y-%m-%d" -->' + "x" * filler + "<!--#echo var=LAST_MODIFIED -->|"
    site(files={"index.htm": text + "<!--#include file=leaf.htm -->",
                "leaf.htm": "<!--#echo var=LAST_MODIFIED -->"})
    os.utime(site.docroot / "index.htm", (1500000000, 1500000000))  # 2017-07-14 UTC
    os.utime(site.docroot / "leaf.htm", (1000000000, 1000000000))   # 2001-09-09 UTC
    assert body(site(extra={"TZ": "UTC"})) == "x" * filler + "2017-07-14|2001-09-09"


def test_exec_output_lands_in_order(site, log_file):
    raw = site(text='a<!--#exec cmd="printf X; printf Y" -->b<!--#exec run=x -->')
    assert body(raw) == "aXYb" + UNKNOWN_TAG.format(f"{site.docroot}/index.htm", "exec", "run")
    assert log_file.read_text().count("SSI has tried to execute system command, please fix webpage !") == 2
    # A runaway command fills the page up to its limit, no further.
    raw = site(text='<!--#exec cmd="head -c 3000000 /dev/zero" -->end')
    assert body(raw) == "\0" * (1 << 20) + "end"


# ---- Includes ------------------------------------------------------------------------

def test_include_resolution_and_names(site):
    files = {"sub/part.htm": "<!--#echo var=DOCUMENT_URI -->,<!--#include file=leaf.htm -->",
             "sub/leaf.htm": "<!--#echo var=DOCUMENT_URI -->", "top.htm": "<!--#echo var=DOCUMENT_URI -->"}
    page = '<!--#include virtual="/sub/part.htm" -->|<!--#include virtual="//top.htm" -->'
    assert body(site(text=page, files=files)) == "/sub/part.htm,/sub/leaf.htm|//top.htm"
    nested = site("sub/page.htm", "<!--#include file=leaf.htm -->", extra={"PATH_INFO": "/sub/page.htm"})
    assert body(nested) == "/sub/leaf.htm"


def test_include_refusals(site):
    page = ('<!--#include file="/etc/passwd" --><!--#include file="a/../b.htm" -->'
            '<!--#include virtual="/x/../index.htm" --><!--#include virtual=/run.cgi -->'
            '<!--#include file=missing.htm --><!--#include url=x -->')
    raw = site(text=page, files={"run.cgi": "program"}, extra={"CGI_PATTERN": "**.cgi"})
    docroot = site.docroot
    assert body(raw) == (NOT_PERMITTED.format("include", "file", "/etc/passwd")
                         + NOT_PERMITTED.format("include", "file", "a/../b.htm")
                         + NOT_PERMITTED.format("include", "virtual", "/x/../index.htm")
                         + NOT_PERMITTED.format("include", "virtual", f"{docroot}/run.cgi")
                         + NOT_FOUND.format("include", "file", f"{docroot}/missing.htm")
                         + UNKNOWN_TAG.format(f"{docroot}/index.htm", "include", "url"))


def test_special_files_read_as_empty(site):
    os.mkfifo(site.docroot / "pipe.htm")   # no writer: must not block the responder
    (site.docroot / "dir.htm").mkdir()
    assert body(site(text="a<!--#include file=pipe.htm -->b<!--#include file=dir.htm -->c")) == "abc"


def test_self_including_page_stops(site):
    raw = site("self.htm", 'A<!--#include file="self.htm" -->B')
    depth = 16  # nested includes allowed below the page itself
    refusal = NOT_PERMITTED.format("include", "file", f"{site.docroot}/self.htm")
    assert body(raw) == "A" * (depth + 1) + refusal + "B" * (depth + 1)


def test_includes_per_page_are_bounded(site):
    # Three self-includes per level would render 3^16 pages.
    raw = site("self.htm", '<!--#include file="self.htm" -->' * 3 + "A", timeout=30)
    renders = 256 + 1  # the includes allowed per page, and the page itself
    assert body(raw).count("A") == renders
    assert NOT_PERMITTED.format("include", "file", f"{site.docroot}/self.htm") in raw


# ---- Malformed pages ---------------------------------------------------------------------

@pytest.mark.parametrize("text", [
    "#!<!--#echo var=\"A\"",                      # "#" first, no closing
    "<p>\"<!--#echo var=\"A -->\n",               # unclosed quote
    "",                                           # empty page
    "#",
])
def test_malformed_directives_are_text(site, text):
    assert body(site(text=text, extra={"A": "value"})) == text


# ---- Sections ------------------------------------------------------------------------------

@pytest.fixture
def gateway(qmcfg):
    qmcfg("set", "Device", "Hostname", "gw")
    qmcfg("set", "LANDevice_1_IPInterface_1", "IPAddress", "127.0.0.1")


SECTION_OPEN = {"none": "", "isAuth": "<!--#isAuth level={level} -->", "isNotAuth": "<!--#isNotAuth -->"}


# What is left of "T<echo E><include I><fsize 1>end" inside a section, for a
# check that holds and one that fails: unauthorised visitors keep directives
# in a fired check.
@pytest.mark.parametrize("check", [True, False])
@pytest.mark.parametrize("section, authorised, held, failed", [
    ("none", False, "TEI1end", "E1end"), ("none", True, "TEI1end", "end"), ("isAuth", True, "TEI1end", "end"),
    ("isAuth", False, "end", "end"), ("isNotAuth", False, "TEI1end", "E1end"), ("isNotAuth", True, "end", "end"),
])
def test_gating_truth_table(site, gateway, section, authorised, held, failed, check):
    level = "no_realm" if authorised else "admin"
    page = (f"<!--#isAuth level={level} --><!--#endAuth -->"
            + SECTION_OPEN[section].format(level=level)
            + ("<!--#check Device_Hostname=other -->" if not check else "")
            + 'T<!--#echo var=MARK --><!--#include file=inc.htm --><!--#fsize file=inc.htm -->'
            + "<!--#endCheck x --><!--#endAuth -->end")
    raw = site(text=page, files={"inc.htm": "I"}, extra={"MARK": "E"})
    # An included file's text passes the text gate, like the page's own.
    assert body(raw) == (held if check else failed)


@pytest.fixture
def served(bin_dir, env, tmp_path):
    """Pages of a document root of their own served one after the other by
    one FastCGI responder: served(name, **params) is the page's body, or
    "404"."""
    docroot = tmp_path / "www"
    docroot.mkdir(exist_ok=True)
    base = {"DOCUMENT_ROOT": str(docroot), "REQUEST_METHOD": "GET"}
    with Responder(bin_dir / "cgi-ssi", "ssi", env, tmp_path / "fcgi.sock") as responder:
        def serve(name, **params):
            out, _ = responder.request(dict(base, SCRIPT_FILENAME=f"{docroot}/{name}", SCRIPT_NAME=f"/{name}",
                                            **params))
            return "404" if out.startswith(b"Status: 404") else body(out.decode())
        serve.docroot = docroot
        yield serve


def test_sections_end_with_their_page(gateway, served):
    """A page left inside a hidden section does not hide the next page served
    by the same responder; each page gets its own file's time in its own
    format, and a page without a format of its own the defaults."""
    (served.docroot / "a.htm").write_text('A<!--#check Device_Hostname="no-such-name" -->x')
    (served.docroot / "b.htm").write_text("<!--#isAuth level=admin -->hidden")
    (served.docroot / "c.htm").write_text("VISIBLE")
    visitor = {"QUELM_REALM": "web", "REMOTE_ADDR": "127.0.0.1", "HTTP_HOST": "127.0.0.1", "HTTP_USER_AGENT": "test"}
    answers = [served(page, **visitor) for page in ["a.htm", "c.htm", "b.htm", "c.htm"]]
    assert answers == ["A", "VISIBLE", "", "VISIBLE"]
    pages = [("y.htm", "%Y", 1000000000), ("d.htm", "%d", 1000000000), ("later.htm", "%Y", 1500000000),
             ("y2.htm", "%Y", 1000000000)]
    for name, fmt, when in pages:
        (served.docroot / name).write_text(f'<!--#config timefmt="{fmt}" --><!--#echo var=LAST_MODIFIED -->')
        os.utime(served.docroot / name, (when, when))
    assert [served(name, TZ="UTC") for name, _, _ in pages] == ["2001", "09", "2017", "2001"]
    (served.docroot / "kilo.bin").write_bytes(b"x" * 3000)
    (served.docroot / "abbrev.htm").write_text("<!--#config sizefmt=abbrev --><!--#fsize file=kilo.bin -->")
    (served.docroot / "plain.htm").write_text("<!--#fsize file=kilo.bin -->|<!--#flastmod file=y.htm -->")
    assert served("abbrev.htm") == "0M"
    assert served("plain.htm", TZ="UTC") == "3000|Sun Sep  9 01:46:40 UTC 2001"


def test_kept_pages_follow_every_change(served):
    """The responder keeps small pages between requests; an edit in place of
    the same size, a file renamed over, a removal and a changed include all
    show on the very next request."""
    docroot = served.docroot
    page, part = docroot / "p.htm", docroot / "part.htm"
    page.write_text('one<!--#include file="part.htm" -->')
    part.write_text("[a]")
    time.sleep(0.2)  # settled: the next reads are kept
    assert served("p.htm") == "one[a]" and served("p.htm") == "one[a]"
    with open(page, "r+") as f:  # same file, same size
        f.write("two")
    assert served("p.htm") == "two[a]"
    part.write_text("[b]")
    assert served("p.htm") == "two[b]"
    time.sleep(0.2)
    served("p.htm")
    fresh = docroot / "fresh.tmp"
    fresh.write_text("six")
    os.utime(fresh, (page.stat().st_atime, page.stat().st_mtime))  # same size and times, new file
    fresh.rename(page)
    assert served("p.htm") == "six"
    # More pages than the responder keeps, then the first one again.
    for i in range(12):
        (docroot / f"n{i}.htm").write_text(f"n{i}")
    time.sleep(0.2)
    assert [served(f"n{i}.htm") for i in range(12)] == [f"n{i}" for i in range(12)]
    page.unlink()
    assert served("p.htm") == "404"
    assert served("n0.htm") == "n0"
    # A page whose includes take every slot, its own included, while it renders.
    (docroot / "all.htm").write_text("".join(f'<!--#include file="n{i}.htm" -->' for i in range(12)) + "end")
    time.sleep(0.2)
    whole = "".join(f"n{i}" for i in range(12)) + "end"
    assert served("all.htm") == whole and served("all.htm") == whole


def test_check_and_uncheck_include_alternatives(site, gateway):
    files = {"alt.htm": "ALT", "eq.htm": "EQ"}
    # Only "endCheck x" ends a fired check: a bare endCheck leaves it open.
    page = ("<!--#check Device_Hostname=gw -->same<!--#endCheck x -->|"
            "<!--#check Device_Hostname=\"other&file=alt.htm\" -->hidden<!--#endCheck -->still<!--#endCheck x -->|"
            "<!--#unCheck Device_Hostname=\"gw&virtual=eq.htm\" -->hidden<!--#endCheck x -->|"
            "<!--#unCheck Device_Hostname=\"&file=alt.htm\" -->empty-differs<!--#endCheck x -->|"
            "<!--#check Nothing_Here=x -->unknown-object<!--#endCheck x -->|"
            # An isAuth inside a fired check is ignored: isNotAuth, which reuses the
            # last isAuth acted on, has none and shows its section.
            "<!--#check Device_Hostname=other --><!--#isAuth level=no_realm --><!--#endAuth -->"
            "<!--#endCheck x -->[<!--#isNotAuth -->visible<!--#endAuth -->]")
    assert body(site(text=page, files=files)) == "same|ALT|EQ|empty-differs|unknown-object|[visible]"


@pytest.fixture
def visitor(site, gateway, root):
    """Serves pages to one browser: the first visit creates its session."""
    state = {}

    def visit(text, session_lines=None):
        raw = site(text=text, extra={"HTTP_COOKIE": f"QM_web_ID={state['token']}"} if state else {})
        match = COOKIE.search(raw)
        assert match, raw[:200]
        state["token"] = match.group(1)
        state["file"] = root / "var/quelm/session" / f"web_{state['token']}"
        if session_lines:
            with open(state["file"], "a") as f:
                f.write(session_lines)
        return body(raw)

    visit.state = state
    return visit


SECTION = "[<!--#isAuth {} -->in<!--#endAuth -->]"


def test_is_auth_levels(visitor, qmcfg):
    make_user(qmcfg, 11, "member", "pw", "web_user")
    assert visitor(SECTION.format("level=admin")) == "[]"
    assert visitor(SECTION.format("any=no_realm")) == "[in]"   # the attribute's name is not examined
    assert visitor(SECTION.format("level=no_realm&blkpwd=forbidden")) == "[]"
    visitor("", "USER=member\nPASSWORD=pw\nSERVICES=web_user\n")
    assert visitor(SECTION.format("level=user") + SECTION.format("level=admin")) == "[in][]"
    # "forbidden" sections are for visitors signed in with a password.
    assert visitor(SECTION.format("level=user&blkpwd=forbidden")) == "[in]"
    # isNotAuth reuses the value of the last isAuth.
    not_auth = "[<!--#isNotAuth -->out<!--#endAuth -->]"
    assert visitor(SECTION.format("level=user") + not_auth) == "[in][]"
    assert visitor(SECTION.format("level=admin") + not_auth) == "[][out]"


def test_block_user_login(visitor, qmcfg):
    # The factory's disabled "guest" (User_2) comes first and is skipped.
    make_user(qmcfg, 14, "guest", "", "web_admin")
    make_user(qmcfg, 15, "locked", "pw", "web_admin")
    assert visitor(SECTION.format("level=admin&blkpwd=locked")) == "[]"
    assert visitor(SECTION.format("level=admin&blkpwd=guest")) == "[in]"
    lines = visitor.state["file"].read_text().splitlines()
    assert lines[-3:] == ["USER=guest", "PASSWORD=", "SERVICES=web_admin"]
    # Logged in as the password-less user from now on, but never for
    # sections reserved to visitors with a password.
    assert visitor(SECTION.format("level=admin")) == "[in]"
    assert visitor(SECTION.format("level=admin&blkpwd=forbidden")) == "[]"
