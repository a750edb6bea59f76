"""List reads of generic.cgi over twelve instances (1 against 10 and 12): sets,
remainders, where clauses, masking, and a change between two reads."""

import json
from urllib.parse import urlencode

import pytest

from conftest import write_token
from fcgi import Responder

TOKEN = "abc123"
USERS = range(1, 13)


def name_of(i):
    return f'user "{i}" <x>' if i % 5 == 0 else f"user{i}"


@pytest.fixture
def users(qmcfg, root):
    write_token(root, TOKEN, "all")
    for i in USERS:
        if i > 3:
            qmcfg("create", f"User_{i}")
        qmcfg("set", f"User_{i}", "Username", name_of(i))
        qmcfg("set", f"User_{i}", "Enable", str(i % 2))


def pairs(body):
    """The answer's members in order, repeats kept (the values parse as
    JSON once the answer's own escaping of quotes is undone)."""
    text = body.decode().replace('\\\\"', '\\"').replace("\\'", "'")
    return json.loads(text, object_pairs_hook=lambda p: p)


def read(cgi, path):
    return dict(pairs(read_raw(cgi, path)))[path]


def read_raw(cgi, path):
    return cgi(page="generic.cgi", query=urlencode({"token": TOKEN, "read": path})).body


@pytest.mark.parametrize("path, numbers", [
    ("User_*", list(USERS)),
    ("User_{12,1,10,1,99,2}", [12, 1, 10, 1, 2]),  # set order, a repeat, a gap
    ("User_*[Enable=1]", [i for i in USERS if i % 2]),
    ("User_*>9", [10, 11, 12]),
])
def test_instances_keep_their_order_and_their_own_records(cgi, users, path, numbers):
    tree = read(cgi, path)
    keys = [k for k, _ in tree]
    assert keys == ["List"] + [str(i) for i in numbers]
    assert tree[0][1] == ",".join(str(i) for i in numbers)
    for key, instance in tree[1:]:
        fields = dict(instance)
        assert fields["Username"] == name_of(int(key))
        assert fields["Password"] in ("", "********")  # secrets stay masked
        assert set(fields) == {"Enable", "User", "Username", "Password", "Services"}


def test_remainder_selects_one_property_or_falls_back(cgi, users):
    tree = read(cgi, "User_*_Username")
    assert [(k, dict(v)) for k, v in tree[1:]] == [(str(i), {"Username": name_of(i)}) for i in USERS]
    # No such property: every instance is read by itself and has nothing
    # (a key with no value, as such reads have always printed).
    listed = ",".join(str(i) for i in USERS)
    empty = "".join(f',"{i}" : ' for i in USERS)
    assert read_raw(cgi, "User_*_Usernam") == f'{{"User_*_Usernam" : {{"List" : "{listed}"{empty}}}}}\n'.encode()


def test_one_responder_sees_a_change_between_reads(bin_dir, env, tmp_path, users, qmcfg):
    params = {"SCRIPT_FILENAME": "/www/generic.cgi", "SCRIPT_NAME": "/generic.cgi", "REQUEST_METHOD": "GET",
              "QUERY_STRING": urlencode({"token": TOKEN, "read": "User_*_Username"}), "QUELM_REALM": "web"}
    with Responder(bin_dir / "cgi-ssi", "ssi", env, tmp_path / "fcgi.sock") as responder:
        first, _ = responder.request(params)
        qmcfg("set", "User_11", "Username", "changed")
        qmcfg("delete", "User_12")
        second, _ = responder.request(params)
    assert b'"11" : {"Username" : "user11"}' in first and b'"12" : ' in first
    assert b'"11" : {"Username" : "changed"}' in second and b'"12" : ' not in second


@pytest.mark.parametrize("path, numbers, logged", [
    ("User_*[Enable=1][Username!=user3]_Username", [i for i in USERS if i % 2 and i != 3], []),
    # A clause that does not parse selects nothing and is logged for every
    # instance; so is an unknown operator.
    ("User_*[Enable=1][Enable]_Username", [], ["Where_check : failed to extract operator or value in Enable"] * 6),
    ("User_*[Enable??1]_Username", [], ["Where_check: unknow operator (??)"] * 12),
])
def test_where_clauses_select_and_log_per_instance(cgi, users, log_file, path, numbers, logged):
    tree = read(cgi, path)
    assert [k for k, _ in tree] == ["List"] + [str(i) for i in numbers]
    lines = log_file.read_text().splitlines() if log_file.exists() else []
    assert [line.split("]: ", 1)[1] for line in lines if "Where_check" in line] == logged
