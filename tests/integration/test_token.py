"""The plugin interface (exported, declared by headers that compile as plain
C) and the tokens pages ask for."""

import time

import pytest

from conftest import plugin_symbols
from fcgi import Responder
from test_generic import PLUGIN as GENERIC_PLUGIN

PLUGIN = r"""
#include <stddef.h>
#include "qm_login.h"
#include "qm_token.h"
int plugin_entry(void) {
    static token_context context;
    char hex[QM_CRYPT_BUFFER_SIZE], plain[QM_CRYPT_BUFFER_SIZE];
    int n = 0;
    if (get_token_rights(&context) != QM_TOKEN_VALID || !has_right(context.rights, "Device")) return -1;
    if (!decode64("MjQ=", hex, sizeof hex) || !decrypt_post_value("A", hex, plain, sizeof plain)) return -1;
    if (!encode64(plain, 1, hex, sizeof hex) || !check_sha_sig("u", "p", "k", get_sha_signature(hex, 4))) return -1;
    create_token("60 Device"); extend_token_create("Rule,1,"); extend_token(last_token_name, "Hosts");
    refresh_token_timestamp(last_token_name, last_token_lifetime); flush_tokens(); remove_current_token();
    remove_last_token_name();
    return encrypt_post_buffer("A", plain, hex, sizeof hex) + (next_item("1,2", &n) != NULL)
           + token_ssi_autolearn + token_shadow_password;
}
"""


@pytest.mark.parametrize("source, cflags, count", [(PLUGIN, (), 20), (GENERIC_PLUGIN, ("-include", "stdlib.h"), 24)])
def test_plugin_interface_is_exported_and_plain_c(bin_dir, tmp_path, source, cflags, count):
    needed, exported = plugin_symbols(source, bin_dir, tmp_path, *cflags)
    ours = needed - {"free", "stdout"}
    assert len(ours) == count and sorted(ours - exported) == []


# Tokens asked for by pages, through the real page renderer.

def token_files(root):
    return sorted((root / "var/tmp").glob("CGI_Token_*"))


def render(cgi, text):
    (cgi.docroot / "t.htm").write_text(text)
    answer = cgi(page="t.htm")
    assert answer.returncode == 0
    return answer.body.decode()


@pytest.mark.parametrize("text, lifetime, rights", [
    ("600 Wifi,Hosts", 600, "Wifi,Hosts"),
    ("abc Wifi", 900, "Wifi"),
    ("0 Wifi", 900, "Wifi"),
    ("Wifi,Hosts", 900, "Wifi,Hosts"),
    ("30 with blanks", 30, "with blanks"),
    ("r" * 399, 900, "r" * 399),
    ("r" * 400, None, None),  # with its line end the text would reach 401 bytes
])
def test_page_token_file(cgi, root, log_file, text, lifetime, rights):
    before = time.time()
    body = render(cgi, f'<!--#echo var="token={text}" -->')
    files = token_files(root)
    if lifetime is None:
        assert files == [] and "token is too big" in log_file.read_text()
        return
    assert len(files) == 1 and body == f'"{files[0].name[-6:]}"'
    assert files[0].read_text() == f"{lifetime}\n{rights}\n"
    # The file's time stamp is the token's expiry.
    assert int(before) + lifetime <= files[0].stat().st_mtime <= time.time() + lifetime


def test_two_tokens_on_one_page_only_first_extended(cgi, root, log_file):
    body = render(cgi, '<!--#echo var="token=60 A" --><!--#echo var="token=60 B" -->'
                       '<!--#echo var="create=Rule,3," -->')
    first, second = body[1:7], body[9:15]
    assert body == f'"{first}""{second}"""'
    assert (root / f"var/tmp/CGI_Token_{first}").read_text() == "60\nA\nRule,3,\n"
    assert (root / f"var/tmp/CGI_Token_{second}").read_text() == "60\nB\n"
    assert "two or more tokens created" in log_file.read_text()


def test_token_and_session_belong_to_one_request(bin_dir, env, root, log_file, qmcfg, tmp_path):
    """In one FastCGI process, a page's token is not the next page's, and a
    request without a session never acts in the previous visitor's."""
    docroot = tmp_path / "www"
    docroot.mkdir()
    (docroot / "t.htm").write_text('<!--#echo var="token=60 A" --><!--#echo var="create=Rule,1," -->')
    base = {"DOCUMENT_ROOT": str(docroot), "REQUEST_METHOD": "GET", "QUELM_REALM": "web",
            "REMOTE_ADDR": "192.168.1.10", "HTTP_USER_AGENT": "test"}
    page = dict(base, SCRIPT_FILENAME=f"{docroot}/t.htm", SCRIPT_NAME="/t.htm", HTTP_HOST="192.168.1.1")
    with Responder(bin_dir / "cgi-ssi", "ssi", env, tmp_path / "fcgi.sock") as responder:
        first, _ = responder.request(page)
        second, _ = responder.request(page)
        login = dict(base, SCRIPT_FILENAME=f"{docroot}/login.cgi", SCRIPT_NAME="/login.cgi",
                     HTTP_HOST="elsewhere.example", REQUEST_METHOD="POST",
                     CONTENT_TYPE="application/x-www-form-urlencoded")
        body = b"cust_auth=1&request=authentication&login=admin&password=admin&level=admin&redirect=no"
        responder.request(dict(login, CONTENT_LENGTH=str(len(body))), body)
    for token_file in token_files(root):
        assert token_file.read_text() == "60\nA\nRule,1,\n"
    assert len(token_files(root)) == 2
    assert "two or more tokens created" not in (log_file.read_text() if log_file.exists() else "")
    # The first page's session got no user from the foreign login.
    for session in (root / "var/quelm/session").iterdir():
        assert "USER=" not in session.read_text()
    assert first.startswith(b"Set-Cookie: QM_web_ID=") and second.startswith(b"Set-Cookie: QM_web_ID=")
