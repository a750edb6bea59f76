"""generic.cgi against a data model set with qmcfg: answer bytes, rights, rules,
secrets, commit, the lock, and state between requests of one process."""

import base64
import os
import fcntl
import time
from urllib.parse import urlencode

import pytest

from cipher import page_encrypt
from conftest import write_token
from fcgi import Responder

# The legacy access policy (no Origin, maintenance without an admin session); test_policy.py has the default.
pytestmark = pytest.mark.compat

FORM = "application/x-www-form-urlencoded"
TOKEN = "abc123"
NO_ACCESS = "Your token does not give you access to the object {}. "


@pytest.fixture
def token(root):
    """Writes the valid token file of TOKEN."""
    return lambda rights="all", more="": write_token(root, TOKEN, rights, more)


@pytest.fixture
def generic(cgi, token):
    token()

    def run(*fields, with_token=True, extra=None):
        body = urlencode(([("token", TOKEN)] if with_token else []) + list(fields)).encode()
        answer = cgi(page="generic.cgi", method="POST", body=body, content_type=FORM, extra=extra)
        assert answer.header("Content-Type") == "text/plain"
        return answer.body
    return run


def error_member(*messages, printed=True):
    # The error text goes through the JSON escaping of the SSI output:
    # a single quote becomes \'.
    text = "".join(messages).replace("'", "\\'")
    return (", " if printed else "") + f'"error" : "{text}"'


def test_mixed_request_answer_bytes(generic, qmcfg):
    body = generic(("read", "Device_Name"), ("write", "Device_Name"), ("read", "User_1_Password"),
                   ("fct", "nosuch"), ("read", "Nothing_Here"), ("write", "Device_Hostname:box"), ("delay", "0"))
    missing = "CGI error : symbol \\u003Cnosuch\\u003E doesn't exist"  # "<", ">" escaped in JSON strings
    expected = ('{"Device_Name" : "Home Gateway", "User_1_Password" : "********", "nosuch" : , "Nothing_Here" : ""'
                + error_member("Wrong format when trying to write Device_Name (write=PROPERTY:VALUE). ",
                               missing, missing, missing)  # a failed read repeats the latest message twice
                + "}\n")
    assert body.decode() == expected
    assert qmcfg("get", "Device", "Hostname").stdout == "gateway\n"  # the error reverted the write
    body = generic(("write", "Device_Hostname:x"), with_token=False)  # no token: no field is acted on
    assert body == b'{"error" : "You must provide a token to access the values of CLI get or post."}\n'
    assert qmcfg("get", "Device", "Hostname").stdout == "gateway\n"


def test_reads_through_the_front_end(generic, qmcfg):
    qmcfg("set", "Device", "Name", 'say "hi"')
    for n in (3, 2, 1):
        qmcfg("delete", f"HttpServer_{n}")
    cases = [
        ("Device_Name", r'"say \\"hi\\""'),
        ("HttpServer_*", '{"List" : ""}'),
        ("Storage_Item_*_Name", '{"List" : ""}'),
        ("PortMapping_*[Protocol=TCP]_Name", '{"List" : "2","2" : {"Name" : "web-server"}}'),
        ("PortMapping_{}", '{"List" : ""}'),
        ("PortMapping_{1", '""'),
        ('a"b\\c', '""'),
    ]
    body = generic(*[("read", path) for path, _ in cases]).decode()
    keys = ['"a\\"b\\\\c"' if path.startswith('a"') else f'"{path}"' for path, _ in cases]
    members = ", ".join(f"{key} : {value}" for key, (_, value) in zip(keys, cases))
    assert body == "{" + members + "}\n"  # failed reads add no error member


def test_rights_come_from_the_object_path_only(generic, token):
    token("PortMapping_2,Enable,Hostname")
    body = generic(("read", "User_1_Username"), ("read", "User_*[Enable=1]_Username"),
                   ("read", "Device_[PortMapping_2_User]_Name"), ("writes", "User_1:Username=x"),
                   ("fct", "nosuch"), ("write", "PortMapping_[Name=web-server]_Protocol:UDP"),
                   ("read", "PortMapping_2_Protocol"), ("write", "Device_Hostname:ok"))
    refused = ["User_1_Username", "User_*[Enable=1]_Username", "Device_[PortMapping_2_User]_Name", "User_1",
               "nosuch"]
    assert body.decode() == ('{"PortMapping_2_Protocol" : "UDP"'
                             + error_member(*(NO_ACCESS.format(name) for name in refused)) + "}\n")


def test_rules_of_other_users_stay(generic, qmcfg):
    body = generic(("write", "PortMapping_1_Name:mine"), ("delete", "PortMapping_1"))
    assert body.decode() == "{" + error_member(
        "It's forbidden to write on a rule that does not belong to you (PortMapping_1). ",
        "Error deleting PortMapping_1.", printed=False) + "}\n"
    # Once written in a request, an object stays writable in it.
    assert generic(("write", "PortMapping_2_User:0"), ("write", "PortMapping_2_Name:given")) == b"{}\n"
    qmcfg("set", "PortMapping_2", "User", "1")
    assert generic(("clear", "PortMapping"), ("clear", "Device")) == b"{}\n"
    assert qmcfg("count", "PortMapping").stdout == "1\n"


def test_commit_and_revert_in_the_saved_configuration(generic, qmcfg):
    # "writes" alone marks nothing modified: not saved.
    for field in (("write", "Device_Hostname:saved"), ("writes", "Device:Hostname=unsaved|Domain=lan")):
        assert generic(field) == b"{}\n"
        qmcfg("revert")
        assert qmcfg("get", "Device", "Hostname").stdout == "saved\n"
    body = generic(("write", "Device_Domain:lan"), ("writes", "Device:Hostname=" + "h" * 80))
    assert f"Unable to write the value {'h' * 80} for Device_Hostname : 3. ".encode() in body
    assert qmcfg("get", "Device", "Domain").stdout == "home\n"


def test_create_delete_reset_and_store_only(generic, token, qmcfg, root):
    token("Device", "PortMapping,3,Enable=0\n")
    assert generic(("create", "PortMapping"), ("write", "PortMapping_3_Name:new")) == b'{"PortMapping":"3"}\n'
    assert qmcfg("get", "PortMapping_3", "Enable").stdout == "0\n"
    assert generic(("create", "User")).decode() == "{" + error_member("Failed to create User", printed=False) + "}\n"
    token()
    assert generic(("delete", "PortMapping_3"), ("remove", "PortMapping_9")) == b"{}\n"
    assert qmcfg("count", "PortMapping").stdout == "1,2\n"
    apply_log = root / "var/quelm/platform/apply.log"
    before = apply_log.read_text().count("\n") if apply_log.exists() else 0
    assert generic(("storeonly", "Device_Name:quiet"), ("write", "Device_Domain:loud")) == b"{}\n"
    assert apply_log.read_text().splitlines()[before:][-1].endswith("apply Device_Domain")
    assert len(apply_log.read_text().splitlines()) == before + 1
    body = generic(("reset", "Device_Name:0"), ("reset", "Device_Name"), ("reset", "Nothing:1"))
    assert body.decode() == "{" + error_member("Wrong format when trying to write Device_Name (reset=PROPERTY:VALUE). ",
                                               "Error while trying to reset Nothing. ", printed=False) + "}\n"
    assert qmcfg("get", "Device", "Name").stdout == "quiet\n"  # reverted by the error


def test_encrypted_secrets(generic, qmcfg):
    path = "WLANInterface_1_Config_KeyPassphrase"
    assert generic(("write", f"{path}:{page_encrypt(TOKEN, 'newpassphrase')}")) == b"{}\n"
    assert qmcfg("get", "WLANInterface_1_Config", "KeyPassphrase").stdout == "newpassphrase\n"
    too_long = "p" * 70
    body = generic(("write", f"{path}:{page_encrypt(TOKEN, too_long)}"), ("write", f"{path}:%%%"),
                   ("write", f"{path}:{base64.b64encode(b'XYZ').decode()}"))
    assert too_long.encode() not in body
    assert body.decode() == "{" + error_member(
        "Unable to write the value ******** for WLANInterface_1_Config_KeyPassphrase : 3. ",
        "Error: Bad base64 signature", "Error:  Bad Crypt signature", printed=False) + "}\n"


def test_lock_held_elsewhere_is_waited_for_once(generic, root):
    def timed(*fields):
        start = time.monotonic()
        body = generic(*fields, extra={"QUELM_LOCK_WAIT_MS": "400"})
        return time.monotonic() - start, body

    changes = (("write", "Device_Hostname:a"), ("write", "Device_Domain:b"), ("clear", "PortMapping"))
    free_time, _ = timed(*changes)
    with open(root / "var/quelm/config/config.lock", "a") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        read_time, _ = timed(("read", "Device_Name"))
        assert read_time - free_time < 0.3  # reads take no lock
        locked_time, body = timed(*changes)
        # One wait (of at least the 400 ms asked for) for the whole request,
        # not one per field: a second wait would add another 400 ms.
        assert locked_time >= 0.4
        assert locked_time - free_time < 0.8
        assert body == b"{}\n"


@pytest.fixture
def responder(bin_dir, env, tmp_path):
    """One FastCGI process; post(fields, token) answers with the body."""
    def post(*fields, token=TOKEN):
        params = {"SCRIPT_FILENAME": "/www/generic.cgi", "REQUEST_METHOD": "POST", "CONTENT_TYPE": FORM,
                  "QUELM_REALM": "web"}
        body = urlencode([("token", token)] + list(fields)).encode()
        out, _ = running.request(dict(params, CONTENT_LENGTH=str(len(body))), body)
        return out.partition(b"\r\n\r\n")[2]

    with Responder(bin_dir / "cgi-ssi", "ssi", dict(env, QUELM_LOCK_WAIT_MS="100"), tmp_path / "fcgi.sock") as running:
        yield post


def test_error_file_is_cleared_by_every_request_of_a_responder(responder, token, root):
    """Every request clears the CGI error file, also one that another program
    wrote since the responder's previous request found none."""
    token("Device")
    error = root / "var/tmp/cgierror"
    for code in ("7", "", "12"):
        assert responder(("read", "Device_Hostname")).startswith(b'{"Device_Hostname" : "')
        assert not error.exists()
        error.write_text(code)
    responder(("read", "Device_Hostname"))
    assert not error.exists()


def test_token_file_changed_in_place_is_read_again(responder, token, root):
    """The responder keeps the text of the token file it read last; a change
    to its rights, however soon, reaches the next request, and a link put in
    its place is not followed."""
    path = token("Device,User")
    time.sleep(0.2)  # settled: kept
    for _ in range(2):
        assert responder(("read", "Device_Hostname")).startswith(b'{"Device_Hostname" : "')
    expiry = path.stat().st_mtime
    for rights, granted in (("Users,Device", True), ("LANDevice,Wifi", False), ("Device,User", True)):
        with open(path, "r+b") as f:  # same file, same size, same expiry
            f.write(f"600\n{rights}\n".encode())
        os.utime(path, (expiry, expiry))
        assert (b'"error"' not in responder(("read", "Device_Hostname"))) == granted, rights
    time.sleep(0.2)
    assert b'"error"' not in responder(("read", "Device_Hostname"))
    target = path.with_name("elsewhere")
    path.rename(target)
    path.symlink_to(target)
    assert b'"error"' in responder(("read", "Device_Hostname"))


def test_created_instance_is_not_the_next_requests(responder, token, root, qmcfg):
    """"_0_" is the instance created earlier in the same request only: a
    visitor's "create" must not hand its instance to the next request (a
    token granted only "PortMapping_0_Name" once wrote into it)."""
    token("PortMapping", "PortMapping,3,\n")
    write_token(root, "def456", "PortMapping_0_Name")
    # Before any create "_0_" names nothing.
    assert b"Unable to create the object PortMapping_0 : " in responder(("write", "PortMapping_0_Name:x"))
    assert responder(("create", "PortMapping"), ("write", "PortMapping_0_Name:cam")) == b'{"PortMapping":"3"}\n'
    body = responder(("write", "PortMapping_0_Name:stolen"), token="def456")
    assert b"Unable to create the object PortMapping_0 : " in body
    assert responder(("read", "PortMapping_3_Name")) == b'{"PortMapping_3_Name" : "cam"}\n'
    qmcfg("set", "Device", "Hostname", "after")  # the lock of the last write was given back


def test_hostile_paths_are_refused_cleanly(generic, qmcfg):
    qmcfg("create", "User_1024")
    paths = ["User_*", "O" * 5000 + "_[N=x]_A", "User_*[" + "F" * 5000 + "=1]_Name", "User_{" + "1," * 500 + "}",
             "User_[" + "x" * 3000 + "]_Name", "User_*" + ">1" * 3000, "PortMapping_[Name=" + "v" * 300 + "]_Name"]
    body = generic(*[("read", p) for p in paths], ("write", "O" * 5000 + "_[N=x]_A:v"))
    assert body.startswith(b'{"User_*" : ""')
    assert body.count(b" : ") >= len(paths)


# The generic interface as plugins use it (test_token.py compiles it).
PLUGIN = r"""
#include <stdio.h>
#include "qm_generic.h"
#include "qm_node.h"
int plugin_entry(void) {
    char *name = compute_name("User_0_Name");
    qm_node *tree = create_tree_full("Device", NULL, NULL);
    QM_DAT_record *found = find_field(NULL, "_Name");
    int flags[QM_INDEX_FLAGS_SIZE] = {0};
    dump_JSON_tree(tree, 1); dump_XML_tree(tree); free_all_node(tree); free_all_node(create_node("x"));
    free_all_node(create_tree_simple("Device", NULL, NULL)); free(find_field_value(found, "a", "b"));
    direct = 1; tfprintf(stdout, "%d", last_created_indice + is_lock + need_reboot + need_factory);
    free(name); free(malloczero(4)); free(fct_buffer);
    return compute_generic_list("", flags) + Where_check(NULL, "User_1", "Enable=1") + create_object("User")
           + find_in_list_word("1,2", "2") + get_lock() + generic_ssi("Device_Name") + generic_fct("date");
}
"""


def test_page_symbols_read_the_data_model(cgi, qmcfg, root):
    """cli= prints a read in the echo's escaping mode, secrets masked unless
    ":show"; fct= of an unknown function prints an empty string; a page's
    ":write" read teaches its token the objects it shows."""
    qmcfg("set", "Device", "Hostname", 'my "box"')
    (cgi.docroot / "p.htm").write_text(
        '<!--#echo var="token=60 Device" -->|'
        '<!--#echo jsonvar="cli=Device_Hostname" -->|'
        '<!--#echo jsvar="cli=Device_Hostname" -->|'
        '<!--#echo var="cli=User_1_Password" -->|'
        '<!--#echo var="cli=User_*[Enable=1]_Username" -->|'
        '<!--#echo var="fct=nosuchfunction" -->|'
        '<!--#echo var="cli=LANDevice_1_IPInterface_1_IPAddress:write" -->|'
        '<!--#echo var="cli=User_1_Password:show:shadow" -->|'  # options are stripped from the end
        '<!--#echo var="cli=User_2_Username" -->|'
        '<!--#echo var="cli=User_9_Username" -->')
    body = cgi(page="p.htm").body.decode()
    parts = body.split("|")
    token = parts[0].strip('"')
    assert parts[1:6] == ['"my \\\\"box\\\\""', '"my \\"box\\""', '"********"',
                          '{"List" : "1,3","1" : {"Username" : "admin"},"3" : {"Username" : "support"}}', '""']
    assert parts[7:] == ['"admin"', '"guest"', "undefined"]
    rights = (root / "var/tmp" / f"CGI_Token_{token}").read_text().splitlines()[1]
    assert rights == "Device,LANDevice_1_IPInterface_1_IPAddress"  # later reads are not learned
